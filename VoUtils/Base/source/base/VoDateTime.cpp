// Dates as ISO 8601 text, and the clock (VoDateTime.h).
#include <base/VoDateTime.h>

#include <base/VoErrorHandler.h>
#include <base/VoText.h>

#include <algorithm>
#include <optional>

namespace
{
constexpr const wchar_t* kDateTimeSource = L"..\\..\\source\\base\\VoUtils";

constexpr int kMinutesPerDay = 24 * 60;

// Reads the next number of exactly `digits` decimal digits and steps behind it; false (and no step) where there is none.
bool voutils_getNextField(std::wstring_view& text, size_t digits, WORD& value)
{
    const std::optional<WORD> number = text.size() >= digits ? VoParseDecimal<WORD>(text.substr(0, digits)) : std::nullopt;
    if (!number)
        return false;
    text.remove_prefix(digits);
    value = *number;
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
    constexpr size_t kMostDigits = 9;
    constexpr size_t kUsedDigits = 3;
    const size_t digits = std::min(text.find_first_not_of(L"0123456789"), text.size());
    const std::optional<WORD> used = VoParseDecimal<WORD>(text.substr(0, std::min(digits, kUsedDigits)));
    if (!used || digits > kMostDigits)
        return false;
    milliseconds = *used;
    for (size_t i = digits; i < kUsedDigits; ++i)
        milliseconds *= 10;
    text.remove_prefix(digits);
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

bool ReadDateTime(CVoTextView text, SYSTEMTIME& time, int& offsetMinutes)
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
} // namespace

HRESULT VoSystemTimeToISO8601DateTimeStr(const SYSTEMTIME& time, int offsetMinutes, bool includeTime, bool includeMilliseconds,
                                         std::wstring& text) noexcept
{
    constexpr CVoReporter report{ kDateTimeSource, L"VoSystemTimeToISO8601DateTimeStr" };
    const auto body = [&]() -> HRESULT
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
    };
    return report.Guard(172, body);
}

HRESULT VoISO8601DateTimeStrToSystemTime(CVoTextView text, SYSTEMTIME& time, int* offsetMinutes) noexcept
{
    constexpr CVoReporter report{ kDateTimeSource, L"VoISO8601DateTimeStrToSystemTime" };
    SYSTEMTIME result{};
    int offset = 0;
    if (!ReadDateTime(text, result, offset))
        return report(190, E_INVALIDARG);
    time = result;
    if (offsetMinutes)
        *offsetMinutes = offset;
    return S_OK;
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
