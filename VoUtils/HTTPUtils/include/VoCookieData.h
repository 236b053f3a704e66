// One cookie: how its text is parsed, brought into canonical form, matched with a request and kept between runs (RFC 6265).
//
// A Set-Cookie value is first taken apart, then made a CVoCookieData for the request that it answered (the canonical form), and
// only then stored (CVoCookieMap). None of this needs a lock: everything here works on its arguments alone.
#pragma once

#include <base/VoPlatform.h>

#include <optional>
#include <string>
#include <string_view>

// Dates are OLE automation dates throughout: days since 1899-12-30 in UTC, with the time of day as fraction.
inline constexpr double kVoLastCookieDate = 2958465.0 + 86399.0 / 86400.0; // 9999-12-31T23:59:59
// Name, value, path and domain of one cookie together, in characters. RFC 6265, section 6.1, asks for at least 4096.
inline constexpr size_t kVoMaximumCookieLength = 8192;

// Host and path of a request, as cookies see them.
struct CVoCookieRequest
{
    std::wstring host; // canonical (VoCanonicalHost), without brackets
    // Begins with "/". A file name is cut off together with the "/" before it, if it has a "." in it (the last "." behind the
    // last "/"): "/a/b.html" becomes "/a", "/a/b" stays. Intended: pages of one folder share their cookies, while a path that
    // names no file is a folder of its own. Percent-encoded as it travels, however the URL was written, so that the server's
    // own paths match it (RFC 6265, section 5.1.4).
    std::wstring path;

    // E_INVALIDARG for a URL that CServerAddressData refuses, the platform's code for one that is not well-formed UTF-16;
    // `request` is untouched then.
    [[nodiscard]] static HRESULT FromUrl(std::wstring_view url, CVoCookieRequest& request) noexcept;
};

// A host name for comparison: lower case, international names in their ASCII form (RFC 6265, section 5.1.2).
[[nodiscard]] std::wstring VoCanonicalHost(std::wstring_view host);

struct CVoCookieData
{
    std::wstring domain; // canonical, without a leading dot
    std::wstring path;   // begins with "/", percent-encoded as that of a request
    std::wstring name;
    std::wstring value;
    bool secure = false; // goes over TLS only
    bool httpOnly = false;
    bool hasExpiry = false; // persistent; without it the cookie is the session's
    double expiry = 0;
    bool expired = false;  // set to be removed (Max-Age of 0 or less)
    bool hostOnly = false; // for `domain` itself, not for hosts below it

    // Makes a cookie of one Set-Cookie value from the answer to `request`, received at `now`. Max-Age goes before Expires,
    // unknown attributes are ignored, of an attribute that stands twice the last one counts. Without a Domain attribute the
    // cookie is for the request's host only; a path that does not begin with "/" is the request's path. A secure cookie is
    // taken from a plain answer too, as RFC 6265 has it.
    //
    // E_INVALIDARG, reported, and an untouched `cookie` for: no name; a malformed date or max-age; a domain that is neither the
    // host nor a parent of it, or is a parent of one label or of an IP address; control characters or lone surrogates, which
    // could not be sent, or would split the header that they are sent in; more than kVoMaximumCookieLength characters.
    [[nodiscard]] static HRESULT CreateCookieFromString(std::wstring_view setCookieValue, const CVoCookieRequest& request,
                                                        double now, CVoCookieData& cookie) noexcept;

    // Parameter text that CreateCookieFromSerializedData reads back exactly. The latter answers E_INVALIDARG for data that
    // could not have come from a cookie, or the parser's code for malformed text; `cookie` is untouched then.
    [[nodiscard]] HRESULT SerializeCookie(std::wstring& text) const noexcept;
    [[nodiscard]] static HRESULT CreateCookieFromSerializedData(std::wstring_view text, CVoCookieData& cookie) noexcept;

    // A cookie date in any of the forms in use: RFC 1123, RFC 850, asctime; years of two digits are 1970 to 2069. The fields
    // are found by their shape (RFC 6265, section 5.1.1); a numeric zone counts, any other is taken for UTC. Dates before
    // 1899-12-30 become 0. Nothing for text that is no date or a date that does not exist.
    [[nodiscard]] static std::optional<double> ParseDateTime(std::wstring_view text) noexcept;

    [[nodiscard]] bool IsExpired(double now) const noexcept { return expired || (hasExpiry && expiry <= now); }
    // Whether the path's segments begin those of the request's path ("/a" matches "/a" and "/a/b", not "/ab"), with regard to
    // case. A "/" at either end makes no segment.
    [[nodiscard]] bool PathMatches(std::wstring_view requestPath) const noexcept;

private:
    // Cuts the next field off `text` and returns it; empty at the end. `sign` receives the "+" or "-" right before it, or 0.
    static std::wstring_view ReadNextDateTimeField(std::wstring_view& text, wchar_t& sign) noexcept;
};
