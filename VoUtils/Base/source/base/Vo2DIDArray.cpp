#include <base/Vo2DIDArray.h>

#include <base/VoErrorHandler.h>

#include <limits>

namespace
{
constexpr const wchar_t* kSource = L"..\\..\\source\\base\\Vo2DIDArray";
constexpr UINT32 kMaximumSize = std::numeric_limits<INT32>::max();
} // namespace

HRESULT CVo2DIDArray::SetSize(UINT32 rows, UINT32 columns) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVo2DIDArray::SetSize" };
    const auto body = [&]() -> HRESULT
    {
        if (rows > kMaximumSize || columns > kMaximumSize)
            return report(20, E_INVALIDARG);
        const UINT64 count = UINT64{ rows } * columns;
        std::vector<std::unique_ptr<CCell>> cells;
        if (count > cells.max_size())
            return report(24, E_OUTOFMEMORY);
        cells.resize(static_cast<size_t>(count));
        m_cells = std::move(cells);
        m_rows = rows;
        m_columns = columns;
        return S_OK;
    };
    return report.Guard(33, body);
}

void CVo2DIDArray::Clear() noexcept
{
    m_rows = 0;
    m_columns = 0;
    m_cells.clear();
}

HRESULT CVo2DIDArray::SetCell(UINT32 row, UINT32 column, std::wstring_view id, const VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVo2DIDArray::SetCell" };
    CVoVariant copy;
    // The platform's function only reads its source, although it does not say so.
    if (const HRESULT hr = ::VariantCopyInd(copy.Put(), const_cast<VARIANT*>(&value)); FAILED(hr))
        return report(49, hr);
    return SetCell(row, column, id, std::move(copy));
}

HRESULT CVo2DIDArray::SetCell(UINT32 row, UINT32 column, std::wstring_view id, CVoVariant&& value) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVo2DIDArray::SetCell" };
    const auto body = [&]() -> HRESULT
    {
        if (!IsInside(row, column))
            return report(58, E_INVALIDARG);
        auto cell = std::make_unique<CCell>();
        cell->id = id;
        cell->value = std::move(value);
        m_cells[Index(row, column)] = std::move(cell);
        return S_OK;
    };
    return report.Guard(68, body);
}

HRESULT CVo2DIDArray::ClearCell(UINT32 row, UINT32 column) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVo2DIDArray::ClearCell" };
    if (!IsInside(row, column))
        return report(75, E_INVALIDARG);
    m_cells[Index(row, column)].reset();
    return S_OK;
}

const CVo2DIDArray::CCell* CVo2DIDArray::GetCell(UINT32 row, UINT32 column) const noexcept
{
    return IsInside(row, column) ? m_cells[Index(row, column)].get() : nullptr;
}
