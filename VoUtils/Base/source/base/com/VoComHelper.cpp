#include <base/com/VoComHelper.h>

#include <base/VoErrorHandler.h>

#include <cstring>

namespace
{
constexpr const wchar_t* kSource = L"..\\..\\source\\base\\com\\VoComHelper";

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

private:
    SAFEARRAY* m_array;
    void* m_data = nullptr;
    HRESULT m_result;
};
} // namespace

HRESULT VoBytesToVariant(std::span<const BYTE> bytes, VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoBytesToVariant" };
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
    value.vt = VT_ARRAY | VT_UI1;
    value.parray = array.Detach();
    return S_OK;
}

HRESULT VoVariantToBytes(const VARIANT& value, std::vector<BYTE>& bytes) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoVariantToBytes" };
    SAFEARRAY* array = nullptr;
    if (value.vt == (VT_ARRAY | VT_UI1))
        array = value.parray;
    else if (value.vt == (VT_ARRAY | VT_UI1 | VT_BYREF) && value.pparray)
        array = *value.pparray;
    if (!array || ::SafeArrayGetDim(array) != 1)
        return report(65, DISP_E_TYPEMISMATCH);
    const CSafeArrayData data(array);
    if (FAILED(data.Result()))
        return report(68, data.Result());
    try
    {
        bytes.assign(data.Bytes(), data.Bytes() + array->rgsabound[0].cElements);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(76);
    }
}
