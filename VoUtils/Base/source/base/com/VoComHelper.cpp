// Bytes and texts to and from safe arrays (VoComHelper.h).
#include <base/com/VoComHelper.h>

#include <base/VoErrorHandler.h>

#include <cstring>

namespace
{
constexpr const wchar_t* kComHelperSource = L"..\\..\\source\\base\\com\\VoComHelper";

// Holds the lock on an array's data over a scope.
class CSafeArrayData
{
public:
    explicit CSafeArrayData(SAFEARRAY* array) noexcept : m_array(array), m_result(::SafeArrayAccessData(array, &m_data)) {}
    ~CSafeArrayData()
    {
        if (SUCCEEDED(m_result))
            ::SafeArrayUnaccessData(m_array);
    }
    CSafeArrayData(const CSafeArrayData&) = delete;
    CSafeArrayData& operator=(const CSafeArrayData&) = delete;

    [[nodiscard]] HRESULT Result() const noexcept { return m_result; }
    [[nodiscard]] BYTE* Bytes() const noexcept { return static_cast<BYTE*>(m_data); }
    [[nodiscard]] BSTR* Texts() const noexcept { return static_cast<BSTR*>(m_data); }

private:
    SAFEARRAY* m_array;
    void* m_data = nullptr;
    HRESULT m_result;
};
} // namespace

HRESULT VoBytesToVariant(std::span<const BYTE> bytes, VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kComHelperSource, L"VoBytesToVariant" };
    if (bytes.size() > std::numeric_limits<ULONG>::max())
        return report(38, E_OUTOFMEMORY);
    CVoSafeArray array(::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size())));
    if (!array.Get())
        return report(41, E_OUTOFMEMORY);
    if (!bytes.empty())
    {
        const CSafeArrayData data(array.Get());
        if (FAILED(data.Result()))
            return report(46, data.Result());
        std::memcpy(data.Bytes(), bytes.data(), bytes.size());
    }
    if (const HRESULT hr = ::VariantClear(&value); FAILED(hr))
        return report(50, hr);
    value.vt = kVoByteArray;
    value.parray = array.Detach();
    return S_OK;
}

HRESULT VoVariantToBytes(const VARIANT& value, std::vector<BYTE>& bytes) noexcept
{
    constexpr CVoReporter report{ kComHelperSource, L"VoVariantToBytes" };
    SAFEARRAY* array = nullptr;
    if (value.vt == kVoByteArray)
        array = value.parray;
    else if (value.vt == (kVoByteArray | VT_BYREF) && value.pparray)
        array = *value.pparray;
    if (!array || ::SafeArrayGetDim(array) != 1)
        return report(65, DISP_E_TYPEMISMATCH);
    const CSafeArrayData data(array);
    if (FAILED(data.Result()))
        return report(68, data.Result());
    const auto body = [&]() -> HRESULT
    {
        bytes.assign(data.Bytes(), data.Bytes() + array->rgsabound[0].cElements);
        return S_OK;
    };
    return report.Guard(76, body);
}

HRESULT VoStringsToSafeArray(std::span<const std::wstring_view> texts, CVoSafeArray& array, UINT32 columns) noexcept
{
    constexpr CVoReporter report{ kComHelperSource, L"VoStringsToSafeArray" };
    const size_t rowLength = columns > 0 ? columns : 1;
    if (texts.size() % rowLength != 0)
        return report(86, E_INVALIDARG);
    const size_t rows = texts.size() / rowLength;
    if (rows > std::numeric_limits<ULONG>::max())
        return report(89, E_OUTOFMEMORY);
    SAFEARRAYBOUND bounds[] = { { static_cast<ULONG>(rows), 0 }, { columns, 0 } };
    CVoSafeArray made(::SafeArrayCreate(VT_BSTR, columns > 0 ? 2 : 1, bounds));
    if (!made.Get())
        return report(93, E_OUTOFMEMORY);
    try
    {
        const CSafeArrayData data(made.Get());
        if (FAILED(data.Result()))
            return report(98, data.Result());
        // The first dimension's neighbours are neighbours in memory.
        for (size_t i = 0; i < texts.size(); ++i)
            data.Texts()[((i % rowLength) * rows) + (i / rowLength)] = CVoBstr(texts[i]).Detach();
    }
    catch (...)
    {
        return report.CurrentException(105);
    }
    array = std::move(made);
    return S_OK;
}

HRESULT VoSafeArrayToStrings(SAFEARRAY* array, std::vector<std::wstring>& texts) noexcept
{
    constexpr CVoReporter report{ kComHelperSource, L"VoSafeArrayToStrings" };
    VARTYPE type = VT_EMPTY;
    if (!array || FAILED(::SafeArrayGetVartype(array, &type)) || type != VT_BSTR)
        return report(116, DISP_E_TYPEMISMATCH);
    const UINT dimensions = ::SafeArrayGetDim(array);
    if (dimensions != 1 && dimensions != 2)
        return report(119, DISP_E_TYPEMISMATCH);
    // The platform keeps the bounds in reverse order.
    const size_t rows = array->rgsabound[dimensions - 1].cElements;
    const size_t columns = dimensions == 2 ? array->rgsabound[0].cElements : 1;
    const CSafeArrayData data(array);
    if (FAILED(data.Result()))
        return report(125, data.Result());
    const auto body = [&]() -> HRESULT
    {
        std::vector<std::wstring> read;
        read.reserve(rows * columns);
        for (size_t row = 0; row < rows; ++row)
            for (size_t column = 0; column < columns; ++column)
                read.emplace_back(CVoBstr::ViewOf(data.Texts()[(column * rows) + row]));
        texts = std::move(read);
        return S_OK;
    };
    return report.Guard(137, body);
}
