#include <VoCookieData.h>

#include "VoUrl.h"

#include <VoServerAddress.h>
#include <base/VoDataParser.h>
#include <base/VoErrorHandler.h>
#include <base/VoUtils.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>

namespace
{
constexpr const wchar_t* kSource = L"..\\source\\VoCookieData";

constexpr double kSecondsPerDay = 86400.0;
constexpr double kMinutesPerDay = 1440.0;
constexpr int kLargestZone = 1400; // hhmm; no place is further ahead of UTC
constexpr int kFirstYear = 1601;   // RFC 6265, section 5.1.1
// Longer host names do not exist (RFC 1035, section 2.3.4).
constexpr int kMaximumHostLength = 255;

constexpr bool IsDigit(wchar_t character) noexcept
{
    return character >= L'0' && character <= L'9';
}

// White space of a header (RFC 6265, section 4.1.1).
std::wstring_view TrimBlanks(std::wstring_view text) noexcept
{
    const size_t begin = text.find_first_not_of(L" \t");
    if (begin == std::wstring_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(L" \t") - begin + 1);
}

// Cuts off and returns what stands before `separator`; all of it when there is none.
std::wstring_view CutUpTo(std::wstring_view& text, wchar_t separator) noexcept
{
    const size_t position = text.find(separator);
    const std::wstring_view head = text.substr(0, position);
    text = position == std::wstring_view::npos ? std::wstring_view() : text.substr(position + 1);
    return head;
}

// Well-formed UTF-16 without control characters; a tab passes where it can only be white space.
bool IsSendable(std::wstring_view text, bool allowTab) noexcept
{
    for (size_t i = 0; i < text.size(); ++i)
    {
        const wchar_t character = text[i];
        if ((character < L' ' && !(allowTab && character == L'\t')) || character == 0x7F)
            return false;
        if (IS_HIGH_SURROGATE(character) && i + 1 < text.size() && IS_LOW_SURROGATE(text[i + 1]))
            ++i;
        else if (character >= HIGH_SURROGATE_START && character <= LOW_SURROGATE_END)
            return false;
    }
    return true;
}

// An IPv4 address in any of its notations ends in a number, which no top-level domain does; an IPv6 address has a colon.
bool IsIPAddress(std::wstring_view host) noexcept
{
    if (host.find(L':') != std::wstring_view::npos)
        return true;
    if (host.ends_with(L'.'))
        host.remove_suffix(1);
    std::wstring_view last = host.substr(host.rfind(L'.') + 1); // npos + 1 is 0: all of it
    if (last.starts_with(L"0x"))
        return last.find_first_not_of(L"0123456789abcdef", 2) == std::wstring_view::npos;
    return !last.empty() && std::all_of(last.begin(), last.end(), IsDigit);
}

// Whether cookies may be shared between the hosts below a domain: a name of two labels at least, and no address.
bool CanSpanHosts(std::wstring_view domain) noexcept
{
    const size_t dot = domain.find(L'.');
    return dot != std::wstring_view::npos && dot + 1 < domain.size() && !IsIPAddress(domain);
}

// A Set-Cookie value taken apart, nothing judged yet. The views point into its text.
struct CSetCookieItems
{
    std::wstring_view name;
    std::wstring_view value;
    std::optional<std::wstring_view> expires;
    std::optional<std::wstring_view> maxAge;
    std::wstring_view domain;
    std::wstring_view path;
    bool secure = false;
    bool httpOnly = false;
};

CSetCookieItems ParseSetCookie(std::wstring_view text) noexcept
{
    CSetCookieItems items;
    std::wstring_view pair = CutUpTo(text, L';');
    // Without a "=" there is no name (RFC 6265, section 5.2).
    if (pair.find(L'=') != std::wstring_view::npos)
    {
        items.name = TrimBlanks(CutUpTo(pair, L'='));
        items.value = TrimBlanks(pair);
    }
    while (!text.empty())
    {
        std::wstring_view value = CutUpTo(text, L';');
        const std::wstring_view name = TrimBlanks(CutUpTo(value, L'='));
        value = TrimBlanks(value);
        if (VoEqualsNoCase(name, L"Expires"))
            items.expires = value;
        else if (VoEqualsNoCase(name, L"Max-Age"))
            items.maxAge = value;
        else if (VoEqualsNoCase(name, L"Domain"))
            items.domain = value.empty() ? items.domain : value; // an empty one is as good as none (section 5.2.3)
        else if (VoEqualsNoCase(name, L"Path"))
            items.path = value;
        else if (VoEqualsNoCase(name, L"Secure"))
            items.secure = true;
        else if (VoEqualsNoCase(name, L"HttpOnly"))
            items.httpOnly = true;
    }
    return items;
}

// An integer number of seconds with an optional "-"; one too large for any date counts as the largest.
std::optional<double> ParseMaxAge(std::wstring_view text) noexcept
{
    const bool negative = text.starts_with(L'-');
    if (negative)
        text.remove_prefix(1);
    if (text.empty() || !std::all_of(text.begin(), text.end(), IsDigit))
        return std::nullopt;
    double seconds = 0;
    for (const wchar_t digit : text)
        seconds = std::min(seconds * 10 + (digit - L'0'), kVoLastCookieDate * kSecondsPerDay);
    return negative ? -seconds : seconds;
}

// Cuts a number of `minimum` to `maximum` digits off the front. Nothing when there are fewer or more.
std::optional<int> ReadNumber(std::wstring_view& text, size_t minimum, size_t maximum) noexcept
{
    const auto digits = static_cast<size_t>(std::find_if_not(text.begin(), text.end(), IsDigit) - text.begin());
    if (digits < minimum || digits > maximum)
        return std::nullopt;
    int value = 0;
    for (const wchar_t digit : text.substr(0, digits))
        value = value * 10 + (digit - L'0');
    text.remove_prefix(digits);
    return value;
}

// "h:m:s" in seconds, each of one or two digits; more characters may follow. Nothing for another shape, -1 for impossible
// values.
std::optional<int> ReadTime(std::wstring_view field) noexcept
{
    std::array<int, 3> parts{};
    for (size_t i = 0; i < parts.size(); ++i)
    {
        if (i > 0)
        {
            if (!field.starts_with(L':'))
                return std::nullopt;
            field.remove_prefix(1);
        }
        const std::optional<int> part = ReadNumber(field, 1, 2);
        if (!part)
            return std::nullopt;
        parts[i] = *part;
    }
    if (parts[0] > 23 || parts[1] > 59 || parts[2] > 59)
        return -1;
    return (parts[0] * 60 + parts[1]) * 60 + parts[2];
}

std::optional<unsigned> ReadMonth(std::wstring_view field) noexcept
{
    static constexpr std::array<std::wstring_view, 12> kMonths = { L"Jan", L"Feb", L"Mar", L"Apr", L"May", L"Jun",
                                                                   L"Jul", L"Aug", L"Sep", L"Oct", L"Nov", L"Dec" };
    for (size_t i = 0; i < kMonths.size(); ++i)
        if (VoEqualsNoCase(field.substr(0, 3), kMonths[i]))
            return static_cast<unsigned>(i + 1);
    return std::nullopt;
}

// The characters that separate the fields of a date (RFC 6265, section 5.1.1); the ":" of a time is none.
constexpr bool IsDateDelimiter(wchar_t character) noexcept
{
    return character == 0x09 || (character >= 0x20 && character <= 0x2F) || (character >= 0x3B && character <= 0x40) ||
           (character >= 0x5B && character <= 0x60) || (character >= 0x7B && character <= 0x7E);
}

// Exact in both directions, unlike the parser's own form of doubles, which has 15 digits.
std::wstring TextOfDate(double date)
{
    std::array<char, 32> digits;
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), date);
    return std::wstring(digits.data(), error == std::errc() ? end : digits.data());
}
std::optional<double> DateOfText(std::wstring_view text) noexcept
{
    std::array<char, 32> digits;
    if (text.size() > digits.size())
        return std::nullopt;
    std::transform(text.begin(), text.end(), digits.begin(),
                   [](wchar_t character) { return character < 0x7F ? static_cast<char>(character) : '?'; });
    double date = 0;
    const char* const last = digits.data() + text.size();
    const auto [end, error] = std::from_chars(digits.data(), last, date);
    if (error != std::errc() || end != last || !(date >= 0 && date <= kVoLastCookieDate))
        return std::nullopt;
    return date;
}

// The keys of one serialised cookie.
constexpr const wchar_t* kDomainKey = L"Domain";
constexpr const wchar_t* kPathKey = L"Path";
constexpr const wchar_t* kNameKey = L"Name";
constexpr const wchar_t* kValueKey = L"Value";
constexpr const wchar_t* kSecureKey = L"Secure";
constexpr const wchar_t* kHttpOnlyKey = L"HttpOnly";
constexpr const wchar_t* kHostOnlyKey = L"HostOnly";
constexpr const wchar_t* kExpiryKey = L"Expiry"; // only of a cookie that has one
} // namespace

HRESULT CVoCookieRequest::FromUrl(std::wstring_view url, CVoCookieRequest& request) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoCookieRequest::FromUrl" };
    try
    {
        CServerAddressData address;
        if (const HRESULT hr = address.SetAddress(url, false, true, false); FAILED(hr))
            return report(225, hr);
        std::wstring host = VoCanonicalHost(address.Host());
        std::wstring path;
        if (const HRESULT hr = VoEncodeUrl(address.Path(), path); FAILED(hr))
            return report(229, hr);
        const size_t slash = path.rfind(L'/');
        const size_t dot = path.rfind(L'.');
        if (slash != std::wstring::npos && dot != std::wstring::npos && slash < dot)
            path.resize(slash);
        if (path.empty())
            path = L"/";
        request.host = std::move(host);
        request.path = std::move(path);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(240);
    }
}

std::wstring VoCanonicalHost(std::wstring_view host)
{
    std::wstring result(host);
    bool isAscii = true;
    for (wchar_t& character : result)
    {
        if (character >= L'A' && character <= L'Z')
            character = static_cast<wchar_t>(character - L'A' + L'a');
        isAscii = isAscii && character < 0x80;
    }
    if (!isAscii && result.size() <= kMaximumHostLength)
    {
        // A name that has no ASCII form stays as it is, and equals itself alone.
        std::array<wchar_t, kMaximumHostLength + 1> ascii;
        const int length = ::IdnToAscii(0, result.data(), static_cast<int>(result.size()), ascii.data(), kMaximumHostLength);
        if (length > 0)
            result.assign(ascii.data(), static_cast<size_t>(length));
    }
    return result;
}

HRESULT CVoCookieData::CreateCookieFromString(std::wstring_view setCookieValue, const CVoCookieRequest& request, double now,
                                              CVoCookieData& cookie) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoCookieData::CreateCookieFromString" };
    try
    {
        if (!IsSendable(setCookieValue, true))
            return report(276, E_INVALIDARG);
        const CSetCookieItems items = ParseSetCookie(setCookieValue);
        if (items.name.empty())
            return report(279, E_INVALIDARG);

        CVoCookieData made;
        made.name = items.name;
        made.value = items.value;
        made.secure = items.secure;
        made.httpOnly = items.httpOnly;
        if (!IsSendable(made.name, false) || !IsSendable(made.value, false) || !IsSendable(items.path, false))
            return report(288, E_INVALIDARG);
        made.path = request.path;
        if (items.path.starts_with(L'/'))
            if (const HRESULT hr = VoEncodeUrl(items.path, made.path); FAILED(hr))
                return report(290, hr);

        if (items.expires)
        {
            const std::optional<double> date = ParseDateTime(*items.expires);
            if (!date)
            {
                report.Message(295, L"Invalid cookie date format:%ls", std::wstring(*items.expires).c_str());
                return report(296, E_INVALIDARG);
            }
            made.hasExpiry = true;
            made.expiry = *date;
        }
        if (items.maxAge)
        {
            const std::optional<double> seconds = ParseMaxAge(*items.maxAge);
            if (!seconds)
            {
                report.Message(306, L"Invalid cookie max-age format:%ls", std::wstring(*items.maxAge).c_str());
                return report(307, E_INVALIDARG);
            }
            made.hasExpiry = true;
            made.expired = *seconds <= 0;
            made.expiry = std::clamp(now + *seconds / kSecondsPerDay, 0.0, kVoLastCookieDate);
        }

        std::wstring_view domain = items.domain;
        if (domain.starts_with(L'.'))
            domain.remove_prefix(1);
        made.domain = domain.empty() ? request.host : VoCanonicalHost(domain);
        const bool isParent = request.host.size() > made.domain.size() && request.host.ends_with(made.domain) &&
                              request.host[request.host.size() - made.domain.size() - 1] == L'.';
        if (made.domain != request.host && !(isParent && CanSpanHosts(made.domain) && !IsIPAddress(request.host)))
            return report(321, E_INVALIDARG);
        made.hostOnly = domain.empty() || !CanSpanHosts(made.domain);

        if (made.name.size() + made.value.size() + made.path.size() + made.domain.size() > kVoMaximumCookieLength)
            return report(325, E_INVALIDARG);
        cookie = std::move(made);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(331);
    }
}

HRESULT CVoCookieData::SerializeCookie(std::wstring& text) const noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoCookieData::SerializeCookie" };
    try
    {
        CVoBinaryDataParser parser;
        HRESULT hr = parser.AddParam(kDomainKey, domain);
        if (SUCCEEDED(hr))
            hr = parser.AddParam(kPathKey, path);
        if (SUCCEEDED(hr))
            hr = parser.AddParam(kNameKey, name);
        if (SUCCEEDED(hr))
            hr = parser.AddParam(kValueKey, value);
        if (SUCCEEDED(hr))
            hr = parser.AddParam(kSecureKey, secure);
        if (SUCCEEDED(hr))
            hr = parser.AddParam(kHttpOnlyKey, httpOnly);
        if (SUCCEEDED(hr))
            hr = parser.AddParam(kHostOnlyKey, hostOnly);
        if (SUCCEEDED(hr) && hasExpiry)
            hr = parser.AddParam(kExpiryKey, TextOfDate(expiry));
        if (SUCCEEDED(hr))
            hr = parser.GetParamsAsString(text);
        return FAILED(hr) ? report(359, hr) : hr;
    }
    catch (...)
    {
        return report.CurrentException(363);
    }
}

HRESULT CVoCookieData::CreateCookieFromSerializedData(std::wstring_view text, CVoCookieData& cookie) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoCookieData::CreateCookieFromSerializedData" };
    try
    {
        CVoBinaryDataParser parser;
        CVoCookieData made;
        HRESULT hr = parser.ReadParamsFromString(text);
        if (SUCCEEDED(hr))
            hr = parser.GetParam(kDomainKey, made.domain);
        if (SUCCEEDED(hr))
            hr = parser.GetParam(kPathKey, made.path);
        if (SUCCEEDED(hr))
            hr = parser.GetParam(kNameKey, made.name);
        if (SUCCEEDED(hr))
            hr = parser.GetParam(kValueKey, made.value);
        if (SUCCEEDED(hr))
            hr = parser.GetParam(kSecureKey, made.secure);
        if (SUCCEEDED(hr))
            hr = parser.GetParam(kHttpOnlyKey, made.httpOnly);
        if (SUCCEEDED(hr))
            hr = parser.GetParam(kHostOnlyKey, made.hostOnly);
        if (FAILED(hr))
            return report(391, hr);
        if (const CParamRec* const expiry = parser.FindParam(kExpiryKey))
        {
            const std::optional<double> date = DateOfText(expiry->Value());
            if (!date)
                return report(396, E_INVALIDARG);
            made.hasExpiry = true;
            made.expiry = *date;
        }

        // The text may have been changed on its way; what it says is sent to servers, so it is held to the rules of a cookie.
        const auto isClean = [](std::wstring_view part, const wchar_t* forbidden)
        { return IsSendable(part, false) && part.find_first_of(forbidden) == std::wstring_view::npos; };
        if (made.name.empty() || made.domain.empty() || !made.path.starts_with(L'/') || !isClean(made.name, L"=;") ||
            !isClean(made.value, L";") || !IsSendable(made.path, false) || made.domain != VoCanonicalHost(made.domain) ||
            (!made.hostOnly && !CanSpanHosts(made.domain)) ||
            made.name.size() + made.value.size() + made.path.size() + made.domain.size() > kVoMaximumCookieLength)
            return report(410, E_INVALIDARG);
        cookie = std::move(made);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(416);
    }
}

std::wstring_view CVoCookieData::ReadNextDateTimeField(std::wstring_view& text, wchar_t& sign) noexcept
{
    sign = 0;
    size_t begin = 0;
    for (; begin < text.size() && IsDateDelimiter(text[begin]); ++begin)
        sign = text[begin] == L'+' || text[begin] == L'-' ? text[begin] : wchar_t{ 0 };
    text.remove_prefix(begin);
    const std::wstring_view field =
        text.substr(0, static_cast<size_t>(std::find_if(text.begin(), text.end(), IsDateDelimiter) - text.begin()));
    text.remove_prefix(field.size());
    return field;
}

std::optional<double> CVoCookieData::ParseDateTime(std::wstring_view text) noexcept
{
    std::optional<int> time;
    std::optional<int> day;
    std::optional<unsigned> month;
    std::optional<int> year;
    int zone = 0; // minutes ahead of UTC
    wchar_t sign = 0;
    for (std::wstring_view field = ReadNextDateTimeField(text, sign); !field.empty(); field = ReadNextDateTimeField(text, sign))
    {
        // "+hhmm" or "-hhmm"; a year behind a "-" is larger.
        std::wstring_view number = field;
        if (const std::optional<int> offset = sign != 0 ? ReadNumber(number, 4, 4) : std::nullopt;
            offset && *offset <= kLargestZone)
        {
            zone = (*offset / 100 * 60 + *offset % 100) * (sign == L'-' ? -1 : 1);
            continue;
        }
        // A field is the first thing that it fits and that is still open; what fits nothing is passed over.
        number = field;
        if (const auto fittingTime = time ? std::nullopt : ReadTime(field))
            time = fittingTime;
        else if (const auto fittingDay = day ? std::nullopt : ReadNumber(number, 1, 2))
            day = fittingDay;
        else if (const auto fittingMonth = month ? std::nullopt : ReadMonth(field))
            month = fittingMonth;
        else if (!year)
            year = ReadNumber(number, 2, 4);
    }
    if (!time || *time < 0 || !day || !month || !year)
        return std::nullopt;
    if (*year < 70)
        *year += 2000;
    else if (*year < 100)
        *year += 1900;
    if (*year < kFirstYear)
        return std::nullopt;

    const std::chrono::year_month_day date{ std::chrono::year(*year), std::chrono::month(*month),
                                            std::chrono::day(static_cast<unsigned>(*day)) };
    if (!date.ok())
        return std::nullopt;
    using namespace std::chrono_literals;
    constexpr std::chrono::sys_days kFirstDay{ 1899y / 12 / 30 };
    const auto days = static_cast<double>((std::chrono::sys_days(date) - kFirstDay).count());
    return std::clamp(days + *time / kSecondsPerDay - zone / kMinutesPerDay, 0.0, kVoLastCookieDate);
}

bool CVoCookieData::PathMatches(std::wstring_view requestPath) const noexcept
{
    std::wstring_view own = path;
    if (own.ends_with(L'/'))
        own.remove_suffix(1);
    if (requestPath.ends_with(L'/'))
        requestPath.remove_suffix(1);
    return requestPath.starts_with(own) && (requestPath.size() == own.size() || requestPath[own.size()] == L'/');
}
