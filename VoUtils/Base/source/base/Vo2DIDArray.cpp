// The two-dimensional array of values with IDs (Vo2DIDArray.h).
#include <base/Vo2DIDArray.h>

#include <base/VoErrorHandler.h>

#include <limits>

namespace
{
constexpr const wchar_t* k2DIDArraySource = L"..\\..\\source\\base\\Vo2DIDArray";
constexpr UINT32 kMaximumSize = std::numeric_limits<INT32>::max();
} // namespace

namespace
{
// The safe array that a variant holds or refers to; null for none.
SAFEARRAY* ArrayOf(const VARIANT& value) noexcept
{
    if ((V_VT(&value) & VT_ARRAY) == 0)
        return nullptr;
    if ((V_VT(&value) & VT_BYREF) == 0)
        return V_ARRAY(&value);
    return V_ARRAYREF(&value) ? *V_ARRAYREF(&value) : nullptr;
}

// Copies one element of a safe array into a variant.
HRESULT ReadElement(SAFEARRAY* array, VARTYPE type, LONG (&place)[2], CVoVariant& element) noexcept
{
    VARIANT& value = *element.Put();
    if (type == VT_VARIANT)
        return ::SafeArrayGetElement(array, place, &value);
    // A decimal covers the whole variant; all other values stand at one place.
    void* const data = type == VT_DECIMAL ? static_cast<void*>(&V_DECIMAL(&value)) : static_cast<void*>(&V_I8(&value));
    const HRESULT hr = ::SafeArrayGetElement(array, place, data);
    V_VT(&value) = SUCCEEDED(hr) ? type : VARTYPE{ VT_EMPTY };
    return hr;
}
} // namespace

bool CVo2DIDArray::IsTwoDimensional(const VARIANT& value) noexcept
{
    SAFEARRAY* const array = ArrayOf(value);
    return array && ::SafeArrayGetDim(array) == 2;
}

HRESULT CVo2DIDArray::SetFromVariant(const VARIANT& value) noexcept
{
    constexpr CVoReporter report{ k2DIDArraySource, L"CVo2DIDArray::SetFromVariant" };
    const auto type = static_cast<VARTYPE>(V_VT(&value) & VT_TYPEMASK);
    if (!IsTwoDimensional(value) || type == VT_RECORD)
        return report(83, DISP_E_TYPEMISMATCH);
    SAFEARRAY* const array = ArrayOf(value);
    LONG first[2] = {};
    LONG last[2] = {};
    for (UINT i = 0; i < 2; ++i)
        if (FAILED(::SafeArrayGetLBound(array, i + 1, &first[i])) || FAILED(::SafeArrayGetUBound(array, i + 1, &last[i])))
            return report(89, DISP_E_TYPEMISMATCH);
    CVo2DIDArray made;
    if (const HRESULT hr = made.SetSize(static_cast<UINT32>(INT64{ last[0] } - first[0] + 1),
                                        static_cast<UINT32>(INT64{ last[1] } - first[1] + 1));
        FAILED(hr))
        return report(92, hr);
    for (UINT32 row = 0; row < made.m_rows; ++row)
        for (UINT32 column = 0; column < made.m_columns; ++column)
        {
            LONG place[2] = { static_cast<LONG>(first[0] + INT64{ row }), static_cast<LONG>(first[1] + INT64{ column }) };
            CVoVariant element;
            if (const HRESULT hr = ReadElement(array, type, place, element); FAILED(hr))
                return report(99, hr);
            if (V_VT(&element.Get()) == VT_EMPTY)
                continue;
            if (const HRESULT hr = made.SetCell(row, column, {}, std::move(element)); FAILED(hr))
                return report(102, hr);
        }
    made.Swap(*this);
    return S_OK;
}

HRESULT CVo2DIDArray::SetSize(UINT32 rows, UINT32 columns) noexcept
{
    constexpr CVoReporter report{ k2DIDArraySource, L"CVo2DIDArray::SetSize" };
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

HRESULT CVo2DIDArray::SetCell(UINT32 row, UINT32 column, CVoTextView id, const VARIANT& value) noexcept
{
    constexpr CVoReporter report{ k2DIDArraySource, L"CVo2DIDArray::SetCell" };
    CVoVariant copy;
    // The platform's function only reads its source, although it does not say so.
    if (const HRESULT hr = ::VariantCopyInd(copy.Put(), const_cast<VARIANT*>(&value)); FAILED(hr))
        return report(49, hr);
    return SetCell(row, column, id, std::move(copy));
}

HRESULT CVo2DIDArray::SetCell(UINT32 row, UINT32 column, CVoTextView id, CVoVariant&& value) noexcept
{
    constexpr CVoReporter report{ k2DIDArraySource, L"CVo2DIDArray::SetCell" };
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
    constexpr CVoReporter report{ k2DIDArraySource, L"CVo2DIDArray::ClearCell" };
    if (!IsInside(row, column))
        return report(75, E_INVALIDARG);
    m_cells[Index(row, column)].reset();
    return S_OK;
}

const CVo2DIDArray::CCell* CVo2DIDArray::GetCell(UINT32 row, UINT32 column) const noexcept
{
    return IsInside(row, column) ? m_cells[Index(row, column)].get() : nullptr;
}
