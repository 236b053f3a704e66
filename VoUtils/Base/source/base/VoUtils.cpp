#include <base/VoUtils.h>

#include "VoTextConversion.h"

#include <base/VoErrorHandler.h>
#include <base/com/VoComHelper.h>

#include <climits>
#include <iterator>
#include <optional>

namespace
{
constexpr const wchar_t* kSource = L"..\\..\\source\\base\\VoUtils";

constexpr int kMinutesPerDay = 24 * 60;
// Values of INI files are read up to this many characters.
constexpr size_t kMaxIniValue = 260;

// Reads the next number of exactly `digits` decimal digits and steps behind it; false (and no step) where there is none.
bool voutils_getNextField(std::wstring_view& text, size_t digits, WORD& value)
{
    if (text.size() < digits)
        return false;
    unsigned number = 0;
    for (const wchar_t c : text.substr(0, digits))
    {
        if (c < L'0' || c > L'9')
            return false;
        number = number * 10 + static_cast<unsigned>(c - L'0');
    }
    text.remove_prefix(digits);
    value = static_cast<WORD>(number);
    return true;
}

bool SkipCharacter(std::wstring_view& text, wchar_t c)
{
    if (!text.starts_with(c))
        return false;
    text.remove_prefix(1);
    return true;
}

// A fraction of a second behind its point: 1 to 9 digits, of which the first three count.
bool ReadMilliseconds(std::wstring_view& text, WORD& milliseconds)
{
    size_t digits = 0;
    unsigned value = 0;
    for (; digits < text.size() && text[digits] >= L'0' && text[digits] <= L'9'; ++digits)
        if (digits < 3)
            value = value * 10 + static_cast<unsigned>(text[digits] - L'0');
    if (digits == 0 || digits > 9)
        return false;
    for (size_t i = digits; i < 3; ++i)
        value *= 10;
    text.remove_prefix(digits);
    milliseconds = static_cast<WORD>(value);
    return true;
}

// "Z", "+hh:mm", "-hh:mm" or nothing.
bool ReadZone(std::wstring_view& text, int& offsetMinutes)
{
    offsetMinutes = 0;
    if (text.empty() || SkipCharacter(text, L'Z'))
        return true;
    const bool negative = text.front() == L'-';
    if (!negative && text.front() != L'+')
        return false;
    text.remove_prefix(1);
    WORD hours = 0;
    WORD minutes = 0;
    if (!voutils_getNextField(text, 2, hours) || !SkipCharacter(text, L':') || !voutils_getNextField(text, 2, minutes) ||
        hours > 23 || minutes > 59)
        return false;
    offsetMinutes = (negative ? -1 : 1) * (hours * 60 + minutes);
    return true;
}

bool ReadTime(std::wstring_view& text, SYSTEMTIME& time)
{
    return voutils_getNextField(text, 2, time.wHour) && SkipCharacter(text, L':') &&
           voutils_getNextField(text, 2, time.wMinute) && SkipCharacter(text, L':') &&
           voutils_getNextField(text, 2, time.wSecond) &&
           (!SkipCharacter(text, L'.') || ReadMilliseconds(text, time.wMilliseconds));
}

bool ReadDateTime(std::wstring_view text, SYSTEMTIME& time, int& offsetMinutes)
{
    if (!voutils_getNextField(text, 4, time.wYear) || !SkipCharacter(text, L'-') ||
        !voutils_getNextField(text, 2, time.wMonth) || !SkipCharacter(text, L'-') || !voutils_getNextField(text, 2, time.wDay))
        return false;
    if (!text.empty())
    {
        if (!SkipCharacter(text, L'T') && !SkipCharacter(text, L' '))
            return false;
        if (!ReadTime(text, time) || !ReadZone(text, offsetMinutes) || !text.empty())
            return false;
    }
    // There and back through the platform's calendar: refuses what does not exist and finds the day of the week. A day that the
    // month does not have may also come back as one of the next month.
    FILETIME fileTime;
    SYSTEMTIME normal;
    if (!::SystemTimeToFileTime(&time, &fileTime) || !::FileTimeToSystemTime(&fileTime, &normal) || normal.wDay != time.wDay)
        return false;
    time = normal;
    return true;
}

// Text to a type that the platform reads by a function of its own; false where VariantChangeTypeEx has to do it.
bool ChangeFromText(VARIANT& result, BSTR text, VARTYPE type, LCID locale, HRESULT& hr)
{
    // A null BSTR is an empty text, which these functions do not take.
    OLECHAR empty[] = L"";
    OLECHAR* const characters = text ? text : empty;
    switch (type)
    {
    case VT_BOOL:
        hr = ::VarBoolFromStr(characters, locale, 0, &V_BOOL(&result));
        break;
    case VT_CY:
        hr = ::VarCyFromStr(characters, locale, 0, &V_CY(&result));
        break;
    case VT_DATE:
        hr = ::VarDateFromStr(characters, locale, 0, &V_DATE(&result));
        break;
    case VT_DECIMAL:
        hr = ::VarDecFromStr(characters, locale, 0, &V_DECIMAL(&result));
        break;
    default:
        return false;
    }
    // Last, because a decimal covers the type field.
    V_VT(&result) = SUCCEEDED(hr) ? type : VARTYPE{ VT_EMPTY };
    return true;
}

bool ChangeToText(VARIANT& result, const VARIANT& source, LCID locale, HRESULT& hr)
{
    BSTR text = nullptr;
    switch (V_VT(&source))
    {
    case VT_BOOL:
        hr = ::VarBstrFromBool(V_BOOL(&source), locale, 0, &text);
        break;
    case VT_CY:
        hr = ::VarBstrFromCy(V_CY(&source), locale, 0, &text);
        break;
    case VT_DATE:
        hr = ::VarBstrFromDate(V_DATE(&source), locale, 0, &text);
        break;
    case VT_DECIMAL:
    {
        DECIMAL decimal = V_DECIMAL(&source);
        hr = ::VarBstrFromDec(&decimal, locale, 0, &text);
        break;
    }
    default:
        return false;
    }
    if (SUCCEEDED(hr))
    {
        V_VT(&result) = VT_BSTR;
        V_BSTR(&result) = text;
    }
    return true;
}

// The change itself, unreported. `destination` is replaced on success only.
HRESULT ChangeVariantType(VARIANT& destination, const VARIANT& source, VARTYPE type, LCID locale) noexcept
{
    // What a reference stands for is changed as it would be by itself. Some of the platform's headers leave out the source's
    // const.
    CVoVariant referred;
    const bool isReference = (V_VT(&source) & VT_BYREF) != 0;
    if (isReference)
        if (const HRESULT hr = ::VariantCopyInd(&referred.Get(), const_cast<VARIANT*>(&source)); FAILED(hr))
            return hr;
    const VARIANT& value = isReference ? referred.Get() : source;
    CVoVariant result;
    HRESULT hr = S_OK;
    const bool done = (V_VT(&value) == VT_BSTR && ChangeFromText(result.Get(), V_BSTR(&value), type, locale, hr)) ||
                      (type == VT_BSTR && ChangeToText(result.Get(), value, locale, hr));
    if (!done)
        hr = ::VariantChangeTypeEx(&result.Get(), const_cast<VARIANT*>(&value), locale, 0, type);
    if (FAILED(hr))
        return hr;
    if (const HRESULT cleared = ::VariantClear(&destination); FAILED(cleared))
        return cleared;
    destination = result.Detach();
    return S_OK;
}
} // namespace

HRESULT GetModuleDirAndFileName(HMODULE module, std::wstring* directory, std::wstring* fileName) noexcept
{
    constexpr CVoReporter report{ kSource, L"GetModuleDirAndFileName" };
    try
    {
        // A result that fills the buffer was cut off; paths end at 32767 characters.
        std::wstring path(MAX_PATH, L'\0');
        for (;;)
        {
            const DWORD length = ::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
            if (length == 0)
                return report.LastError(42, 43);
            if (length < path.size())
            {
                path.resize(length);
                break;
            }
            if (path.size() > SHRT_MAX)
                return report(51, HResultFromWin32(ERROR_FILENAME_EXCED_RANGE));
            path.resize(path.size() * 2);
        }
        path = VoWithoutLongPathPrefix(path);
        const size_t slash = path.find_last_of(L"\\/");
        std::wstring folder = slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
        if (fileName)
            *fileName = slash == std::wstring::npos ? path : path.substr(slash + 1);
        if (directory)
            *directory = std::move(folder);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(66);
    }
}

std::wstring VoWithoutLongPathPrefix(std::wstring_view path)
{
    constexpr std::wstring_view kPrefix = L"\\\\?\\";
    constexpr std::wstring_view kServerPrefix = L"\\\\?\\UNC\\";
    std::wstring result(path);
    if (VoStartsWithNoCase(path, kServerPrefix))
        result = L"\\\\" + result.substr(kServerPrefix.size());
    else if (path.starts_with(kPrefix) && path.size() > kPrefix.size() + 1 && path[kPrefix.size() + 1] == L':')
        result.erase(0, kPrefix.size());
    // Without its prefix a path of this length names nothing, and a volume's name has no other form.
    return result.size() < MAX_PATH ? result : std::wstring(path);
}

HRESULT VoStringToBool(std::wstring_view text, bool& value) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoStringToBool" };
    for (const wchar_t* word : { L"TRUE", L"1", L"YES", L"ON" })
        if (VoEqualsNoCase(text, word))
        {
            value = true;
            return S_OK;
        }
    for (const wchar_t* word : { L"FALSE", L"0", L"NO", L"OFF" })
        if (VoEqualsNoCase(text, word))
        {
            value = false;
            return S_OK;
        }
    return report(85, E_INVALIDARG);
}

namespace
{
// One conversion under the name and the trace points of the function that was called.
HRESULT ReportedToCodePage(const CVoReporter& report, int line, UINT codePage, std::wstring_view text,
                           std::string& bytes) noexcept
{
    try
    {
        const HRESULT hr = VoTextConversion::ToCodePage(codePage, text, bytes);
        return FAILED(hr) ? report(line, hr) : S_OK;
    }
    catch (...)
    {
        return report.CurrentException(line + 1);
    }
}

HRESULT ReportedFromCodePage(const CVoReporter& report, int line, UINT codePage, std::string_view bytes,
                             std::wstring& text) noexcept
{
    try
    {
        const HRESULT hr = VoTextConversion::FromCodePage(codePage, bytes, text);
        return FAILED(hr) ? report(line, hr) : S_OK;
    }
    catch (...)
    {
        return report.CurrentException(line + 1);
    }
}
} // namespace

HRESULT VoStringToASCII(std::wstring_view text, std::string& bytes) noexcept
{
    return ReportedToCodePage({ kSource, L"VoStringToASCII" }, 94, CP_ACP, text, bytes);
}

HRESULT VoStringToUTF8(std::wstring_view text, std::string& bytes) noexcept
{
    return ReportedToCodePage({ kSource, L"VoStringToUTF8" }, 104, CP_UTF8, text, bytes);
}

HRESULT VoUTF8ToString(std::string_view bytes, std::wstring& text) noexcept
{
    return ReportedFromCodePage({ kSource, L"VoUTF8ToString" }, 114, CP_UTF8, bytes, text);
}

HRESULT VoStringToCodePage(UINT codePage, std::wstring_view text, std::string& bytes) noexcept
{
    return ReportedToCodePage({ kSource, L"VoStringToCodePage" }, 124, codePage, text, bytes);
}

HRESULT VoCodePageToString(UINT codePage, std::string_view bytes, std::wstring& text) noexcept
{
    return ReportedFromCodePage({ kSource, L"VoCodePageToString" }, 134, codePage, bytes, text);
}

HRESULT VoSystemTimeToISO8601DateTimeStr(const SYSTEMTIME& time, int offsetMinutes, bool includeTime, bool includeMilliseconds,
                                         std::wstring& text) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoSystemTimeToISO8601DateTimeStr" };
    try
    {
        std::wstring result = VoFormat(L"%04d-%02d-%02d", time.wYear, time.wMonth, time.wDay);
        if (includeTime)
        {
            if (offsetMinutes <= -kMinutesPerDay || offsetMinutes >= kMinutesPerDay)
                return report(151, E_INVALIDARG);
            result += VoFormat(L"T%02d:%02d:%02d", time.wHour, time.wMinute, time.wSecond);
            if (includeMilliseconds && time.wMilliseconds != 0)
                result += VoFormat(L".%03d", time.wMilliseconds);
            if (offsetMinutes == 0)
                result += L'Z';
            else
            {
                const int minutes = offsetMinutes < 0 ? -offsetMinutes : offsetMinutes;
                result += VoFormat(L"%lc%02d:%02d", wint_t{ offsetMinutes < 0 ? L'-' : L'+' }, minutes / 60, minutes % 60);
            }
        }
        text = std::move(result);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(172);
    }
}

HRESULT VoISO8601DateTimeStrToSystemTime(std::wstring_view text, SYSTEMTIME& time, int* offsetMinutes) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoISO8601DateTimeStrToSystemTime" };
    SYSTEMTIME result{};
    int offset = 0;
    if (!ReadDateTime(text, result, offset))
        return report(190, E_INVALIDARG);
    time = result;
    if (offsetMinutes)
        *offsetMinutes = offset;
    return S_OK;
}

HRESULT VoChangeVariantType(VARIANT& destination, const VARIANT& source, VARTYPE type, LCID locale) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoChangeVariantType" };
    const HRESULT hr = ChangeVariantType(destination, source, type, locale);
    return FAILED(hr) ? report(213, hr) : S_OK;
}

HRESULT VoChangeVariantTypeNoLocale(VARIANT& destination, const VARIANT& source, VARTYPE type) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoChangeVariantTypeNoLocale" };
    const HRESULT hr = VoChangeVariantType(destination, source, type, LOCALE_INVARIANT);
    return FAILED(hr) ? report(224, hr) : S_OK;
}

HRESULT VoTypeToVariant(std::wstring_view value, VARIANT& variant) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoTypeToVariant" };
    if (value.size() > UINT_MAX)
        return report(235, E_INVALIDARG);
    const BSTR text = ::SysAllocStringLen(value.data(), static_cast<UINT>(value.size()));
    if (!text)
        return report(238, E_OUTOFMEMORY);
    ::VariantInit(&variant);
    V_VT(&variant) = VT_BSTR;
    V_BSTR(&variant) = text;
    return S_OK;
}

HRESULT VoTypeToVariant(UINT32 value, VARIANT& variant) noexcept
{
    ::VariantInit(&variant);
    V_VT(&variant) = VT_I4;
    V_I4(&variant) = static_cast<LONG>(value);
    return S_OK;
}

HRESULT VoTypeToVariant(double value, VARIANT& variant) noexcept
{
    ::VariantInit(&variant);
    V_VT(&variant) = VT_R8;
    V_R8(&variant) = value;
    return S_OK;
}

HRESULT VoTypeToVariant(bool value, VARIANT& variant) noexcept
{
    ::VariantInit(&variant);
    V_VT(&variant) = VT_BOOL;
    V_BOOL(&variant) = value ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, std::wstring& value) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoVariantToTypeNoLocale" };
    CVoVariant result;
    if (const HRESULT hr = VoChangeVariantTypeNoLocale(result.Get(), variant, VT_BSTR); FAILED(hr))
        return report(275, hr);
    try
    {
        value = CVoBstr::ViewOf(V_BSTR(&result.Get()));
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(283);
    }
}

HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, UINT32& value) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoVariantToTypeNoLocale" };
    CVoVariant result;
    const HRESULT direct = ChangeVariantType(result.Get(), variant, VT_I4, LOCALE_INVARIANT);
    if (FAILED(direct))
    {
        // The upper half of the unsigned range may also stand as what it means.
        const VARTYPE type = direct == DISP_E_OVERFLOW ? VARTYPE{ VT_UI4 } : VARTYPE{ VT_I4 };
        if (const HRESULT hr = VoChangeVariantTypeNoLocale(result.Get(), variant, type); FAILED(hr))
            return report(301, hr);
    }
    value = V_UI4(&result.Get()); // both types have the same bits
    return S_OK;
}

HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, double& value) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoVariantToTypeNoLocale" };
    CVoVariant result;
    if (const HRESULT hr = VoChangeVariantTypeNoLocale(result.Get(), variant, VT_R8); FAILED(hr))
        return report(311, hr);
    value = V_R8(&result.Get());
    return S_OK;
}

HRESULT VoVariantToTypeNoLocale(const VARIANT& variant, bool& value) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoVariantToTypeNoLocale" };
    CVoVariant result;
    if (const HRESULT hr = VoChangeVariantTypeNoLocale(result.Get(), variant, VT_BOOL); FAILED(hr))
        return report(321, hr);
    value = V_BOOL(&result.Get()) != VARIANT_FALSE;
    return S_OK;
}

HRESULT VoGetTempPath(std::wstring& path) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoGetTempPath" };
    wchar_t buffer[MAX_PATH + 2];
    const DWORD length = ::GetTempPathW(static_cast<DWORD>(std::size(buffer)), buffer);
    if (length == 0)
        return report.LastError(331, 332);
    if (length >= std::size(buffer))
        return report(334, HResultFromWin32(ERROR_INSUFFICIENT_BUFFER));
    try
    {
        std::wstring result(buffer, length);
        while (result.ends_with(L'\\'))
            result.pop_back();
        path = std::move(result);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(345);
    }
}

namespace
{
// The text of a key, or nothing when the key is missing.
std::optional<std::wstring> ReadIniValue(const std::wstring& file, const wchar_t* section, const wchar_t* key)
{
    // A default that cannot stand in a file tells a missing key from an empty value: U+FFFF is no character.
    constexpr const wchar_t* kMissing = L"\xFFFF";
    wchar_t buffer[kMaxIniValue + 1];
    const DWORD length =
        ::GetPrivateProfileStringW(section, key, kMissing, buffer, static_cast<DWORD>(std::size(buffer)), file.c_str());
    std::wstring value(buffer, length);
    if (value == kMissing)
        return std::nullopt;
    return value;
}

// A decimal number with an optional sign, and nothing else but white space around it.
std::optional<INT32> ParseInteger(std::wstring_view text)
{
    text = VoTrim(text);
    if (text.starts_with(L'+') && !text.starts_with(L"+-"))
        text.remove_prefix(1);
    return VoParseDecimal<INT32>(text);
}
} // namespace

bool VoGetIniBool(const std::wstring& file, const wchar_t* section, const wchar_t* key, bool defaultValue, bool* present)
{
    const std::optional<std::wstring> text = ReadIniValue(file, section, key);
    if (present)
        *present = text.has_value();
    bool value = defaultValue;
    if (text && FAILED(VoStringToBool(*text, value)))
        VoReportMessage(kSource, 391, L"[%ls] %ls=%ls is no boolean, the default %d holds", section, key, text->c_str(),
                        int{ defaultValue });
    return value;
}

INT32 VoGetIniInt(const std::wstring& file, const wchar_t* section, const wchar_t* key, INT32 defaultValue, bool* present)
{
    const std::optional<std::wstring> text = ReadIniValue(file, section, key);
    if (present)
        *present = text.has_value();
    if (!text)
        return defaultValue;
    const std::optional<INT32> value = ParseInteger(*text);
    if (!value)
        VoReportMessage(kSource, 404, L"[%ls] %ls=%ls is no integer, the default %d holds", section, key, text->c_str(),
                        defaultValue);
    return value.value_or(defaultValue);
}

std::wstring VoGetIniString(const std::wstring& file, const wchar_t* section, const wchar_t* key,
                            const std::wstring& defaultValue, bool* present)
{
    std::optional<std::wstring> text = ReadIniValue(file, section, key);
    if (present)
        *present = text.has_value();
    return text ? *std::move(text) : std::wstring(defaultValue);
}

INT64 VoGetMicroseconds() noexcept
{
    // Both calls cannot fail on the systems that the library runs on.
    static const INT64 frequency = []
    {
        LARGE_INTEGER value{};
        ::QueryPerformanceFrequency(&value);
        return value.QuadPart;
    }();
    LARGE_INTEGER counter{};
    ::QueryPerformanceCounter(&counter);
    // In two steps, because the product of the counter and a million would overflow within days.
    return counter.QuadPart / frequency * 1'000'000 + counter.QuadPart % frequency * 1'000'000 / frequency;
}
