// Parses, matches and serialises one cookie (VoCookieData.h).
#include <VoCookieData.h>

#include "VoCookieBytes.h"
#include "VoPublicSuffix.h"
#include "VoUrl.h"

#include <VoServerAddress.h>
#include <base/VoErrorHandler.h>
#include <base/VoRecord.h>
#include <base/VoText.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <new>

namespace
{
constexpr const wchar_t* kCookieDataSource = L"..\\source\\VoCookieData";

constexpr double kSecondsPerDay = 86400.0;
constexpr double kMinutesPerDay = 1440.0;
constexpr int kLargestZone = 1400; // hhmm, the zone furthest ahead of UTC
constexpr int kFirstYear = 1601;   // RFC 6265, section 5.1.1
// Longer host names do not exist (RFC 1035, section 2.3.4).
constexpr int kMaximumHostLength = 255;

constexpr bool IsDigit(wchar_t character) noexcept
{
    return character >= L'0' && character <= L'9';
}

// Cuts off the text before `separator` and returns it; the whole text when there is no separator.
std::wstring_view CutUpTo(std::wstring_view& text, wchar_t separator) noexcept
{
    const size_t position = text.find(separator);
    const std::wstring_view head = text.substr(0, position);
    text = position == std::wstring_view::npos ? std::wstring_view() : text.substr(position + 1);
    return head;
}

// Whether a text is well-formed UTF-16 without control characters. A tab is allowed where it can only be white space.
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

// An IPv4 address in any notation ends in a number; no top-level domain does. An IPv6 address has a colon.
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

// Whether hosts below a domain may share its cookies: the domain has two labels at least, is no address and no public suffix.
bool CanSpanHosts(std::wstring_view domain) noexcept
{
    const size_t dot = domain.find(L'.');
    return dot != std::wstring_view::npos && dot + 1 < domain.size() && !IsIPAddress(domain) && !VoIsPublicSuffix(domain);
}

// Whether `domain` is `host` or a parent of it (RFC 6265, section 5.1.3).
bool DomainCovers(std::wstring_view domain, std::wstring_view host) noexcept
{
    if (!host.ends_with(domain))
        return false;
    return host.size() == domain.size() || (!IsIPAddress(host) && host[host.size() - domain.size() - 1] == L'.');
}

// Whether a cookie's path covers another path (RFC 6265, section 5.1.4).
bool PathCovers(std::wstring_view cookiePath, std::wstring_view path) noexcept
{
    return path.starts_with(cookiePath) &&
           (path.size() == cookiePath.size() || cookiePath.ends_with(L'/') || path[cookiePath.size()] == L'/');
}

// The items of a Set-Cookie value before any check. The views point into its text.
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
        items.name = VoTrimBlanks(CutUpTo(pair, L'='));
        items.value = VoTrimBlanks(pair);
    }
    while (!text.empty())
    {
        std::wstring_view value = CutUpTo(text, L';');
        const std::wstring_view name = VoTrimBlanks(CutUpTo(value, L'='));
        value = VoTrimBlanks(value);
        if (VoCookieByteLength(value) > kVoMaximumCookieAttributeBytes)
            continue; // RFC 6265bis, section 5.6, step 6
        if (VoEqualsNoCase(name, L"Expires"))
            items.expires = value;
        else if (VoEqualsNoCase(name, L"Max-Age"))
            items.maxAge = value;
        else if (VoEqualsNoCase(name, L"Domain"))
            items.domain = value.empty() ? items.domain : value; // an empty value is ignored (section 5.2.3)
        else if (VoEqualsNoCase(name, L"Path"))
            items.path = value;
        else if (VoEqualsNoCase(name, L"Secure"))
            items.secure = true;
        else if (VoEqualsNoCase(name, L"HttpOnly"))
            items.httpOnly = true;
    }
    return items;
}

// Cuts a number of `minimum` to `maximum` digits off the front. Nothing when there are fewer or more.
std::optional<int> ReadNumber(std::wstring_view& text, size_t minimum, size_t maximum) noexcept
{
    const auto digits = static_cast<size_t>(std::find_if_not(text.begin(), text.end(), IsDigit) - text.begin());
    if (digits < minimum || digits > maximum)
        return std::nullopt;
    const std::optional<int> value = VoParseDecimal<int>(text.substr(0, digits));
    text.remove_prefix(digits);
    return value;
}

// Reads "h:m:s", each of one or two digits; other characters may follow. Gives seconds, -1 for an impossible time, nothing for
// another shape.
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

// The characters that separate the fields of a date (RFC 6265, section 5.1.1). The ":" of a time is not one of them.
constexpr bool IsDateDelimiter(wchar_t character) noexcept
{
    return character == 0x09 || (character >= 0x20 && character <= 0x2F) || (character >= 0x3B && character <= 0x40) ||
           (character >= 0x5B && character <= 0x60) || (character >= 0x7B && character <= 0x7E);
}

// Exact in both directions. The parser's own form of doubles has 15 digits only.
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

// The parameters of one serialised cookie.
constexpr CVoRecordTable kCookieFields{
    CVoField{ L"Domain", &CVoCookieData::domain },    CVoField{ L"Path", &CVoCookieData::path },
    CVoField{ L"Name", &CVoCookieData::name },        CVoField{ L"Value", &CVoCookieData::value },
    CVoField{ L"Secure", &CVoCookieData::secure },    CVoField{ L"HttpOnly", &CVoCookieData::httpOnly },
    CVoField{ L"HostOnly", &CVoCookieData::hostOnly }
};
constexpr const wchar_t* kExpiryKey = L"Expiry"; // only of a cookie that has an expiry

bool IsTooLong(const CVoCookieData& cookie) noexcept
{
    return VoCookieByteLength(cookie.name) + VoCookieByteLength(cookie.value) > kVoMaximumCookieBytes;
}

// Whether the name's prefix promises an attribute that the cookie does not have (RFC 6265bis, section 4.1.3).
bool BreaksPromiseOfName(const CVoCookieData& cookie, bool hasPath) noexcept
{
    if (VoStartsWithNoCase(cookie.name, L"__Host-"))
        return !cookie.secure || !cookie.hostOnly || !hasPath || cookie.path != L"/";
    return VoStartsWithNoCase(cookie.name, L"__Secure-") && !cookie.secure;
}
} // namespace

HRESULT CVoCookieRequest::FromUrl(std::wstring_view url, CVoCookieRequest& request) noexcept
{
    constexpr CVoReporter report{ kCookieDataSource, L"CVoCookieRequest::FromUrl" };
    return report.Guard(240, [&]() -> HRESULT
    {
        CServerAddressData address;
        if (const HRESULT hr = address.SetAddress(url, false, true, false); FAILED(hr))
            return report(225, hr);
        if (!IsSendable(address.Host(), false))
            return report(227, E_INVALIDARG);
        CVoCookieRequest made;
        made.secure = address.IsSecure();
        made.host = VoCanonicalHost(address.Host());
        std::wstring& path = made.path;
        if (const HRESULT hr = VoEncodeUrl(address.Path(), path); FAILED(hr))
            return report(229, hr);
        const size_t slash = path.rfind(L'/');
        const size_t dot = path.rfind(L'.');
        made.isFile = slash != std::wstring::npos && dot != std::wstring::npos && slash < dot;
        if (made.isFile)
            path.resize(slash);
        if (path.empty())
            path = L"/";
        request = std::move(made);
        return S_OK;
    });
}

std::wstring VoCanonicalHost(std::wstring_view host)
{
    std::wstring result(host);
    std::transform(result.begin(), result.end(), result.begin(), VoToLowerAscii);
    if (!VoIsAscii(result) && result.size() <= kMaximumHostLength)
    {
        // A name that has no ASCII form stays as it is: it equals only itself.
        std::array<wchar_t, kMaximumHostLength + 1> ascii;
        const int length = ::IdnToAscii(0, result.data(), static_cast<int>(result.size()), ascii.data(), kMaximumHostLength);
        if (length > 0)
            result.assign(ascii.data(), static_cast<size_t>(length));
        else if (const DWORD error = ::GetLastError(); error == ERROR_NOT_ENOUGH_MEMORY || error == ERROR_OUTOFMEMORY)
            throw std::bad_alloc();
    }
    return result;
}

HRESULT CVoCookieData::CreateCookieFromString(std::wstring_view setCookieValue, const CVoCookieRequest& request, double now,
                                              CVoCookieData& cookie) noexcept
{
    constexpr CVoReporter report{ kCookieDataSource, L"CVoCookieData::CreateCookieFromString" };
    return report.Guard(331, [&]() -> HRESULT
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
        if (made.secure && !request.secure)
            return report(285, E_INVALIDARG);
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
            if (const std::optional<INT64> seconds = VoParseDecimalClamped<INT64>(*items.maxAge))
            {
                made.hasExpiry = true;
                made.expired = *seconds <= 0;
                made.expiry = std::clamp(now + static_cast<double>(*seconds) / kSecondsPerDay, 0.0, kVoLastCookieDate);
            }
            else
            {
                // Ignored (RFC 6265, section 5.2.2): the cookie keeps its Expires, or is a session cookie.
                report.Message(306, L"Invalid cookie max-age format:%ls", std::wstring(*items.maxAge).c_str());
                report(307, E_INVALIDARG);
            }
        }

        std::wstring_view domain = items.domain;
        if (domain.starts_with(L'.'))
            domain.remove_prefix(1);
        made.domain = domain.empty() ? request.host : VoCanonicalHost(domain);
        const bool canSpanHosts = CanSpanHosts(made.domain);
        if (made.domain != request.host && !(canSpanHosts && DomainCovers(made.domain, request.host)))
            return report(321, E_INVALIDARG);
        made.hostOnly = domain.empty() || !canSpanHosts;

        if (IsTooLong(made))
            return report(325, E_INVALIDARG);
        if (BreaksPromiseOfName(made, !items.path.empty()))
            return report(327, E_INVALIDARG);
        cookie = std::move(made);
        return S_OK;
    });
}

HRESULT CVoCookieData::SerializeCookie(std::wstring& text) const noexcept
{
    constexpr CVoReporter report{ kCookieDataSource, L"CVoCookieData::SerializeCookie" };
    return report.Guard(363, [&]() -> HRESULT
    {
        CVoBinaryDataParser parser;
        HRESULT hr = kCookieFields.Write(*this, parser);
        if (SUCCEEDED(hr) && hasExpiry)
            hr = parser.AddParam(kExpiryKey, TextOfDate(expiry));
        if (SUCCEEDED(hr))
            hr = parser.GetParamsAsString(text);
        return FAILED(hr) ? report(359, hr) : hr;
    });
}

HRESULT CVoCookieData::CreateCookieFromSerializedData(std::wstring_view text, CVoCookieData& cookie) noexcept
{
    constexpr CVoReporter report{ kCookieDataSource, L"CVoCookieData::CreateCookieFromSerializedData" };
    return report.Guard(416, [&]() -> HRESULT
    {
        CVoBinaryDataParser parser;
        CVoCookieData made;
        HRESULT hr = parser.ReadParamsFromString(text);
        if (SUCCEEDED(hr))
            hr = kCookieFields.Read(parser, made);
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

        // Somebody may have changed the text. It is sent to servers, so it must meet the rules of a cookie.
        const auto isClean = [](std::wstring_view part, const wchar_t* forbidden)
        { return IsSendable(part, false) && part.find_first_of(forbidden) == std::wstring_view::npos; };
        if (made.name.empty() || made.domain.empty() || !made.path.starts_with(L'/') || !isClean(made.name, L"=;") ||
            !isClean(made.value, L";") || !IsSendable(made.path, false) || !IsSendable(made.domain, false) ||
            made.domain != VoCanonicalHost(made.domain) || (!made.hostOnly && !CanSpanHosts(made.domain)) || IsTooLong(made) ||
            BreaksPromiseOfName(made, true))
            return report(410, E_INVALIDARG);
        cookie = std::move(made);
        return S_OK;
    });
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
        // "+hhmm" or "-hhmm". A year behind a "-" is larger than any zone.
        std::wstring_view number = field;
        if (const std::optional<int> offset = sign != 0 ? ReadNumber(number, 4, 4) : std::nullopt;
            offset && *offset <= kLargestZone)
        {
            zone = (*offset / 100 * 60 + *offset % 100) * (sign == L'-' ? -1 : 1);
            continue;
        }
        // A field becomes the first part that it fits and that is not found yet. A field that fits none is ignored.
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

bool CVoCookieKey::PathMatches(const CVoCookieRequest& request) const noexcept
{
    if (PathCovers(path, request.path))
        return true;
    // The request is for a file in the folder, so the folder's own path with a "/" at its end covers it too.
    return request.isFile && path.size() == request.path.size() + 1 && path.ends_with(L'/') && path.starts_with(request.path);
}

bool CVoCookieKey::ShadowsSecure(const CVoCookieKey& other) const noexcept
{
    return other.secure && name == other.name && (DomainCovers(domain, other.domain) || DomainCovers(other.domain, domain)) &&
           PathCovers(other.path, path);
}
