// Typed parameters in an INI file (VoParamHandler.h).
#include <win/VoParamHandler.h>

#include <base/VoCArray.h>
#include <base/VoDataParser.h>
#include <base/VoDateTime.h>
#include <base/VoErrorHandler.h>
#include <base/VoText.h>
#include <base/VoTextConversion.h>
#include <base/VoVariant.h>
#include <base/com/VoComHelper.h>
#include <base/utils/VoDataConversion.h>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace
{
constexpr const wchar_t* kParamHandlerSource = L"..\\..\\source\\win\\VoParamHandler";

void Check(HRESULT hr)
{
    if (FAILED(hr))
        throw CVoHResultException(hr);
}

// Makes a value the type asked for. A number out of range gets the code that it has for the plain types too.
void ChangeType(VARIANT& variant, VARTYPE type)
{
    const HRESULT hr = VoChangeVariantTypeNoLocale(variant, variant, type);
    Check(hr == DISP_E_OVERFLOW ? HResultFromWin32(ERROR_ARITHMETIC_OVERFLOW) : hr);
}

[[nodiscard]] std::wstring Widen(std::string_view ascii)
{
    return { ascii.begin(), ascii.end() };
}

// Reads the whole of a text as a number.
template <class Number>
void ParseNumber(CVoTextView text, Number& number)
{
    text = VoIniTrim(text);
    if constexpr (std::is_integral_v<Number>)
    {
        bool isOutOfRange = false;
        const std::optional<Number> parsed = VoParseDecimalClamped<Number>(text, &isOutOfRange);
        if (!parsed)
            throw CVoHResultException(E_INVALIDARG);
        if (isOutOfRange)
            Check(HResultFromWin32(ERROR_ARITHMETIC_OVERFLOW));
        number = *parsed;
    }
    else
    {
        std::string ascii;
        for (const wchar_t c : text)
            ascii += c < 0x80 ? static_cast<char>(c) : '?';
        const char* const end = ascii.data() + ascii.size();
        const auto [rest, error] = std::from_chars(ascii.data(), end, number);
        if (error == std::errc::result_out_of_range)
            Check(HResultFromWin32(ERROR_ARITHMETIC_OVERFLOW));
        if (error != std::errc() || rest != end)
            Check(E_INVALIDARG);
    }
}

template <class Number>
[[nodiscard]] std::wstring NumberText(Number number)
{
    char buffer[32]; // the longest double has 24 characters
    const auto [end, error] = std::to_chars(std::begin(buffer), std::end(buffer), number);
    if (error != std::errc())
        Check(E_UNEXPECTED);
    return Widen({ buffer, static_cast<size_t>(end - buffer) });
}

[[nodiscard]] bool IsInteger(VARTYPE type) noexcept
{
    switch (type)
    {
    case VT_I1:
    case VT_I2:
    case VT_I4:
    case VT_I8:
    case VT_INT:
    case VT_UI1:
    case VT_UI2:
    case VT_UI4:
    case VT_UI8:
    case VT_UINT:
        return true;
    default:
        return false;
    }
}

// Whether variants of that type have a text in the file.
[[nodiscard]] bool HasText(VARTYPE type) noexcept
{
    return IsInteger(type) || type == VT_BSTR || type == VT_BOOL || type == VT_R4 || type == VT_R8 || type == VT_DATE ||
           type == VT_CY || type == VT_DECIMAL || type == kVoByteArray;
}
} // namespace

// Values to the text of a file and back, variants of a type that HasText knows. Both throw CVoHResultException or
// std::bad_alloc.
struct CVoParamText
{
    using SInteger = CVoParamHandler::SInteger;

    [[nodiscard]] static std::wstring From(const std::wstring_view& value)
    {
        const bool isPlain = VoIniTrim(value).size() == value.size() && !value.starts_with(L'"') &&
                             value.find_first_of(L"\r\n") == std::wstring_view::npos;
        if (isPlain)
            return std::wstring(value);
        std::wstring text = L"\"";
        for (const wchar_t c : value)
            if (c == L'\r')
                text += L"$r";
            else if (c == L'\n')
                text += L"$n";
            else
                text.append(c == L'$' ? 2 : 1, c);
        return text += L'"';
    }
    static void To(std::wstring_view text, std::wstring& value)
    {
        text = VoIniTrim(text);
        if (text.size() < 2 || text.front() != L'"' || text.back() != L'"')
        {
            value = text;
            return;
        }
        text = text.substr(1, text.size() - 2);
        value.clear();
        for (size_t i = 0; i < text.size(); ++i)
        {
            const wchar_t next = text[i] == L'$' && i + 1 < text.size() ? text[i + 1] : L'\0';
            const size_t escape = std::wstring_view(L"rn$").find(next);
            value += next != L'\0' && escape != std::wstring_view::npos ? L"\r\n$"[escape] : text[i];
            if (next != L'\0' && escape != std::wstring_view::npos)
                ++i;
        }
    }

    [[nodiscard]] static std::wstring From(const SInteger& value)
    {
        return value.isNegative ? NumberText(static_cast<INT64>(value.bits)) : NumberText(value.bits);
    }
    static void To(std::wstring_view text, SInteger& value)
    {
        value.isNegative = VoIniTrim(text).starts_with(L'-');
        if (value.isNegative)
        {
            INT64 number = 0;
            ParseNumber(text, number);
            value = { static_cast<UINT64>(number), number < 0 };
        }
        else
            ParseNumber(text, value.bits);
    }

    [[nodiscard]] static std::wstring From(const double& value)
    {
        if (!std::isfinite(value))
            Check(E_INVALIDARG);
        return NumberText(value);
    }
    static void To(std::wstring_view text, double& value)
    {
        ParseNumber(text, value);
        if (!std::isfinite(value))
            Check(E_INVALIDARG);
    }

    [[nodiscard]] static std::wstring From(const bool& value) { return value ? L"TRUE" : L"FALSE"; }
    static void To(std::wstring_view text, bool& value) { Check(VoStringToBool(VoIniTrim(text), value)); }

    [[nodiscard]] static std::wstring From(const SYSTEMTIME& value)
    {
        std::wstring text;
        Check(VoSystemTimeToISO8601DateTimeStr(value, 0, true, true, text));
        SYSTEMTIME readBack{};
        To(text, readBack); // refuses what is no date
        return text;
    }
    static void To(std::wstring_view text, SYSTEMTIME& value)
    {
        constexpr INT64 kTicksPerMinute = 60LL * 10'000'000;
        int offsetMinutes = 0;
        Check(VoISO8601DateTimeStrToSystemTime(VoIniTrim(text), value, &offsetMinutes));
        FILETIME time;
        if (!::SystemTimeToFileTime(&value, &time))
            Check(E_INVALIDARG);
        const INT64 ticks =
            static_cast<INT64>(UINT64{ time.dwHighDateTime } << 32 | time.dwLowDateTime) - offsetMinutes * kTicksPerMinute;
        time = { static_cast<DWORD>(ticks & 0xFFFFFFFF), static_cast<DWORD>(ticks >> 32) };
        if (ticks < 0 || !::FileTimeToSystemTime(&time, &value))
            Check(E_INVALIDARG);
    }

    [[nodiscard]] static std::wstring From(const std::span<const BYTE>& value)
    {
        if (value.size() > std::numeric_limits<INT32>::max())
            Check(E_INVALIDARG);
        std::wstring text;
        VoDataConversion::BinToHex(value.data(), static_cast<INT32>(value.size()), text, 0);
        return text;
    }
    [[nodiscard]] static std::wstring From(const std::vector<BYTE>& value) { return From(std::span<const BYTE>(value)); }
    static void To(std::wstring_view text, std::vector<BYTE>& value)
    {
        // The decoder ignores what is no digit.
        if (text.find_first_not_of(L"0123456789abcdefABCDEF \t") != std::wstring_view::npos)
            Check(E_INVALIDARG);
        CVoByteBuffer bytes;
        Check(VoDataConversion::HexToBin(text, bytes.PutBytes(), bytes.PutLength()));
        value.assign(bytes.Bytes().begin(), bytes.Bytes().end());
    }

    [[nodiscard]] static std::wstring From(const CVo2DIDArray& value)
    {
        CVoDataParser cells;
        Check(cells.AddParam({}, value));
        std::wstring text;
        Check(cells.GetParamsAsString(text));
        return From(std::wstring_view(text));
    }
    static void To(std::wstring_view text, CVo2DIDArray& value)
    {
        std::wstring params;
        To(text, params);
        CVoDataParser cells;
        Check(cells.ReadParamsFromString(params));
        Check(cells.GetParam({}, value));
    }

    [[nodiscard]] static std::wstring From(const CVoVariant& value)
    {
        const VARIANT& variant = value.Get();
        const VARTYPE type = V_VT(&variant);
        switch (type)
        {
        case VT_BSTR:
            return From(CVoBstr::ViewOf(V_BSTR(&variant)));
        case VT_BOOL:
            return From(V_BOOL(&variant) != VARIANT_FALSE);
        case VT_R4:
            return From(double{ V_R4(&variant) });
        case VT_R8:
            return From(V_R8(&variant));
        case VT_DATE:
        {
            SYSTEMTIME time{};
            if (!::VariantTimeToSystemTime(V_DATE(&variant), &time))
                Check(E_INVALIDARG);
            return From(time);
        }
        case kVoByteArray:
        {
            std::vector<BYTE> bytes;
            Check(VoVariantToBytes(variant, bytes));
            return From(bytes);
        }
        default:
            break;
        }
        // Integers, and the decimal types.
        CVoVariant text;
        Check(VoChangeVariantTypeNoLocale(text.Get(), variant, VT_BSTR));
        return std::wstring(CVoBstr::ViewOf(V_BSTR(&text.Get())));
    }
    // As the type that the variant holds.
    static void To(std::wstring_view text, CVoVariant& value)
    {
        const VARTYPE type = V_VT(&value.Get());
        CVoVariant read;
        VARIANT& variant = read.Get();
        if (type == VT_BSTR || type == VT_EMPTY)
        {
            std::wstring string;
            To(text, string);
            Check(VoTypeToVariant(string, variant));
        }
        else if (type == VT_BOOL)
        {
            bool flag = false;
            To(text, flag);
            Check(VoTypeToVariant(flag, variant));
        }
        else if (type == VT_R4 || type == VT_R8)
        {
            double number = 0;
            To(text, number);
            Check(VoTypeToVariant(number, variant));
            ChangeType(variant, type);
        }
        else if (type == VT_DATE)
        {
            SYSTEMTIME time{};
            To(text, time);
            DATE date = 0;
            if (!::SystemTimeToVariantTime(&time, &date))
                Check(E_INVALIDARG);
            V_VT(&variant) = VT_DATE;
            V_DATE(&variant) = date;
        }
        else if (type == kVoByteArray)
        {
            std::vector<BYTE> bytes;
            To(text, bytes);
            Check(VoBytesToVariant(bytes, variant));
        }
        else if (IsInteger(type))
        {
            SInteger number;
            To(text, number);
            V_VT(&variant) = number.isNegative ? VT_I8 : VT_UI8;
            V_UI8(&variant) = number.bits;
            ChangeType(variant, type);
        }
        else // VT_CY, VT_DECIMAL
        {
            double number = 0;
            To(text, number); // the platform's own reading takes "1,5" for 15
            Check(VoTypeToVariant(VoIniTrim(text), variant));
            ChangeType(variant, type);
        }
        value = std::move(read);
    }
};

namespace
{
// An object to read into what `value` was written from.
template <class Value>
[[nodiscard]] Value MakeAlike(const Value&)
{
    return Value();
}
[[nodiscard]] std::wstring MakeAlike(const std::wstring_view&)
{
    return {};
}
[[nodiscard]] std::vector<BYTE> MakeAlike(const std::span<const BYTE>&)
{
    return {};
}
[[nodiscard]] CVoVariant MakeAlike(const CVoVariant& value)
{
    CVoVariant alike;
    V_VT(&alike.Get()) = V_VT(&value.Get());
    V_UI8(&alike.Get()) = 0; // what is behind a pointer has none yet, which clearing allows for
    return alike;
}

// Whether a text of the file would be read as the value that `newText` was made from.
template <class Value>
[[nodiscard]] bool MeansTheSame(std::wstring_view text, const std::wstring& newText, const Value& value)
try
{
    if (text == newText)
        return true;
    auto read = MakeAlike(value);
    CVoParamText::To(text, read);
    return CVoParamText::From(read) == newText;
}
catch (const CVoHResultException&)
{
    return false;
}
} // namespace

HRESULT CVoParamHandler::Open(CVoTextView path) noexcept
{
    constexpr CVoReporter report{ kParamHandlerSource, L"CVoParamHandler::Open" };
    const auto body = [&]() -> HRESULT
    {
        CVoIniFileIO file;
        if (const HRESULT hr = file.Open(path, true); FAILED(hr))
            return report(330, hr);
        CAutoLock lock(&m_lock);
        m_file = std::move(file);
        return S_OK;
    };
    return report.Guard(337, body);
}

HRESULT CVoParamHandler::Save() noexcept
{
    constexpr CVoReporter report{ kParamHandlerSource, L"CVoParamHandler::Save" };
    CAutoLock lock(&m_lock);
    const HRESULT hr = m_file.Save();
    return FAILED(hr) ? report(345, hr) : hr;
}

bool CVoParamHandler::IsChanged() const noexcept
{
    CAutoLock lock(&m_lock);
    return m_file.IsModified();
}

template <class Value>
// NOLINTNEXTLINE(bugprone-exception-escape): Guard catches what the body throws.
HRESULT CVoParamHandler::Read(CVoTextView section, CVoTextView name, Value& value, bool* present) const noexcept
{
    constexpr CVoReporter report{ kParamHandlerSource, L"CVoParamHandler::Get" };
    const auto body = [&]() -> HRESULT
    {
        CAutoLock lock(&m_lock);
        const std::optional<std::wstring_view> text = m_file.FindValue(section, name);
        Value read = MakeAlike(value);
        if (present)
            *present = text.has_value();
        if (text)
        {
            CVoParamText::To(*text, read);
            value = std::move(read);
        }
        return S_OK;
    };
    return report.Guard(373, body);
}

template <class Value>
// NOLINTNEXTLINE(bugprone-exception-escape): Guard catches what the body throws.
HRESULT CVoParamHandler::Write(CVoTextView section, CVoTextView name, const Value& value) noexcept
{
    constexpr CVoReporter report{ kParamHandlerSource, L"CVoParamHandler::Set" };
    const auto body = [&]() -> HRESULT
    {
        const std::wstring text = CVoParamText::From(value);
        CAutoLock lock(&m_lock);
        if (const std::optional<std::wstring_view> old = m_file.FindValue(section, name);
            old && MeansTheSame(*old, text, value))
            return S_OK;
        const HRESULT hr = m_file.SetValue(section, name, text);
        return FAILED(hr) ? report(386, hr) : S_OK;
    };
    return report.Guard(390, body);
}

HRESULT CVoParamHandler::Get(CVoTextView section, CVoTextView name, std::wstring& value, bool* present) const noexcept
{
    return Read(section, name, value, present);
}

HRESULT CVoParamHandler::Get(CVoTextView section, CVoTextView name, double& value, bool* present) const noexcept
{
    return Read(section, name, value, present);
}

HRESULT CVoParamHandler::Get(CVoTextView section, CVoTextView name, bool& value, bool* present) const noexcept
{
    return Read(section, name, value, present);
}

HRESULT CVoParamHandler::Get(CVoTextView section, CVoTextView name, SYSTEMTIME& value, bool* present) const noexcept
{
    return Read(section, name, value, present);
}

HRESULT CVoParamHandler::Get(CVoTextView section, CVoTextView name, std::vector<BYTE>& value, bool* present) const noexcept
{
    return Read(section, name, value, present);
}

HRESULT CVoParamHandler::Get(CVoTextView section, CVoTextView name, CVo2DIDArray& value, bool* present) const noexcept
{
    return Read(section, name, value, present);
}

HRESULT CVoParamHandler::Get(CVoTextView section, CVoTextView name, VARIANT& value, bool* present) const noexcept
{
    constexpr CVoReporter report{ kParamHandlerSource, L"CVoParamHandler::Get" };
    const VARTYPE type = V_VT(&value);
    if (type != VT_EMPTY && !HasText(type))
        return report(480, DISP_E_TYPEMISMATCH);
    CVoVariant read;
    V_VT(&read.Get()) = type;
    V_UI8(&read.Get()) = 0; // see MakeAlike
    bool isPresent = false;
    const HRESULT hr = Read(section, name, read, &isPresent);
    if (present)
        *present = isPresent;
    if (FAILED(hr))
        return hr;
    if (isPresent)
    {
        if (const HRESULT cleared = ::VariantClear(&value); FAILED(cleared))
            return report(492, cleared);
        value = read.Detach();
    }
    return S_OK;
}

HRESULT CVoParamHandler::GetInteger(CVoTextView section, CVoTextView name, SInteger& value, SInteger minimum, SInteger maximum,
                                    bool* present) const noexcept
{
    constexpr CVoReporter report{ kParamHandlerSource, L"CVoParamHandler::Get" };
    SInteger read = value;
    if (const HRESULT hr = Read(section, name, read, present); FAILED(hr))
        return hr;
    const bool isTooLow = read.isNegative && (!minimum.isNegative || read.bits < minimum.bits);
    if (isTooLow || (!read.isNegative && read.bits > maximum.bits))
        return report(507, HResultFromWin32(ERROR_ARITHMETIC_OVERFLOW));
    value = read;
    return S_OK;
}

HRESULT CVoParamHandler::Set(CVoTextView section, CVoTextView name, CVoTextView value) noexcept
{
    return Write(section, name, std::wstring_view(value));
}

HRESULT CVoParamHandler::Set(CVoTextView section, CVoTextView name, double value) noexcept
{
    return Write(section, name, value);
}

HRESULT CVoParamHandler::Set(CVoTextView section, CVoTextView name, bool value) noexcept
{
    return Write(section, name, value);
}

HRESULT CVoParamHandler::Set(CVoTextView section, CVoTextView name, const SYSTEMTIME& value) noexcept
{
    return Write(section, name, value);
}

HRESULT CVoParamHandler::Set(CVoTextView section, CVoTextView name, std::span<const BYTE> value) noexcept
{
    return Write(section, name, value);
}

HRESULT CVoParamHandler::Set(CVoTextView section, CVoTextView name, const CVo2DIDArray& value) noexcept
{
    return Write(section, name, value);
}

HRESULT CVoParamHandler::Set(CVoTextView section, CVoTextView name, const VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kParamHandlerSource, L"CVoParamHandler::Set" };
    CVoVariant copy;
    // The platform's function only reads its source, although it does not say so.
    if (const HRESULT hr = ::VariantCopyInd(copy.Put(), const_cast<VARIANT*>(&value)); FAILED(hr))
        return report(553, hr);
    if (!HasText(V_VT(&copy.Get())))
        return report(555, DISP_E_TYPEMISMATCH);
    return Write(section, name, copy);
}

HRESULT CVoParamHandler::SetInteger(CVoTextView section, CVoTextView name, SInteger value) noexcept
{
    return Write(section, name, value);
}

HRESULT CVoParamHandler::Remove(CVoTextView section, CVoTextView name) noexcept
{
    constexpr CVoReporter report{ kParamHandlerSource, L"CVoParamHandler::Remove" };
    CAutoLock lock(&m_lock);
    const HRESULT hr = m_file.RemoveValue(section, name);
    return FAILED(hr) ? report(570, hr) : hr;
}
