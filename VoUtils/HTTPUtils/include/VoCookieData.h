// One cookie: parsing its text, matching it with a request, and serialising it (RFC 6265 and its successor, RFC 6265bis). The
// cookie store uses it; somebody who keeps cookies of his own may use it too.
//
// A Set-Cookie value becomes a CVoCookieData for the request that it answers; only then is it stored. Nothing here needs a
// lock: every function works on its arguments alone.
#pragma once

#include <base/VoPlatform.h>

#include <optional>
#include <string>
#include <string_view>

// Dates are OLE automation dates: days since 1899-12-30 in UTC, with the time of day as fraction.
inline constexpr double kVoLastCookieDate = 2958465.0 + 86399.0 / 86400.0; // 9999-12-31T23:59:59

// Limits of one cookie, in bytes (RFC 6265bis, section 5.6): name and value together, and the value of an attribute.
inline constexpr size_t kVoMaximumCookieBytes = 4096;
inline constexpr size_t kVoMaximumCookieAttributeBytes = 1024;
// What a store holds. Beyond these numbers it removes the cookies that were unused for longest. RFC 6265, section 6.1, asks for
// at least 50 of a domain and 3000 in all.
inline constexpr size_t kVoMaximumCookiesPerDomain = 200;
inline constexpr size_t kVoMaximumCookies = 6000;

// Host and path of a request, as cookies see them.
struct CVoCookieRequest
{
    std::wstring host; // canonical (VoCanonicalHost), without brackets
    // The path that a cookie without a Path attribute gets. It begins with "/". When the last "." stands behind the last "/",
    // the path names a file and is cut before that "/": "/a/b.html" becomes "/a", "/a/b" stays. Intended: the pages of one
    // folder share their cookies, and a path that names no file is a folder of its own. The path is percent-encoded as it is
    // sent, however the URL was written, so that the paths that a server sets match it (RFC 6265, section 5.1.4).
    std::wstring path;
    bool isFile = false; // the path was cut: the request is for something in the folder `path`
    bool secure = false; // the URL is https

    // E_INVALIDARG for a URL that CServerAddressData refuses and for a host that is not well-formed UTF-16, the platform's code
    // for a path that is not. `request` is unchanged then.
    [[nodiscard]] static HRESULT FromUrl(std::wstring_view url, CVoCookieRequest& request) noexcept;
};

// The form in which hosts are compared: lower case, international names in ASCII (RFC 6265, section 5.1.2). A name that has no
// ASCII form stays as it is. Throws std::bad_alloc.
[[nodiscard]] std::wstring VoCanonicalHost(std::wstring_view host);

// What the rules of matching compare, as views of a cookie's texts.
struct CVoCookieKey
{
    std::wstring_view domain;
    std::wstring_view path;
    std::wstring_view name;
    bool secure = false;

    // Whether the cookie's path covers the path of the request, by whole segments and with regard to case: "/a" covers "/a" and
    // "/a/b", not "/ab". A "/" at the end makes an empty last segment: "/a/" covers "/a/b", not "/a".
    [[nodiscard]] bool PathMatches(const CVoCookieRequest& request) const noexcept;
    // Whether the cookie, set over plain HTTP, would overwrite, hide or delete the secure cookie `other`: the names are equal,
    // one domain covers the other, and `other`'s path covers this cookie's path (RFC 6265bis, section 5.7, step 9).
    [[nodiscard]] bool ShadowsSecure(const CVoCookieKey& other) const noexcept;
};

struct CVoCookieData
{
    std::wstring domain; // canonical, without a leading dot
    std::wstring path;   // begins with "/", percent-encoded like that of a request
    std::wstring name;
    std::wstring value;
    bool secure = false; // sent over TLS only
    bool httpOnly = false;
    bool hasExpiry = false; // a persistent cookie; without an expiry it is a session cookie
    double expiry = 0;
    bool expired = false;  // to be removed (Max-Age of 0 or less)
    bool hostOnly = false; // for the host `domain`, not for the hosts below it

    // Parses one Set-Cookie value from the response to `request`, received at `now`. Unknown attributes are ignored, and so is
    // an attribute whose value exceeds kVoMaximumCookieAttributeBytes. When an attribute is repeated, the last one counts.
    // Max-Age takes precedence over Expires; a malformed Max-Age is reported and ignored. Without a Domain attribute the cookie
    // is for the request's host only. So is a cookie whose Domain is the host itself when that is a public suffix (such as
    // "co.uk"). A Path that does not begin with "/" is replaced by the request's path.
    //
    // E_INVALIDARG, reported, with `cookie` unchanged, for:
    // - no name, or a malformed date;
    // - a domain that is neither the host nor a parent of it;
    // - a parent that is a public suffix, has a single label or belongs to an IP address;
    // - control characters or lone surrogates, which cannot be sent or would split the header;
    // - name and value above kVoMaximumCookieBytes;
    // - a secure cookie in a response over plain HTTP (RFC 6265bis, section 5.7, step 8);
    // - a name that begins with "__Secure-" without Secure; a name that begins with "__Host-" without Secure, with a Domain, or
    //   without Path=/. The prefixes are compared without regard to case (steps 20 to 22).
    [[nodiscard]] static HRESULT CreateCookieFromString(std::wstring_view setCookieValue, const CVoCookieRequest& request,
                                                        double now, CVoCookieData& cookie) noexcept;

    // Writes parameter text that CreateCookieFromSerializedData reads back exactly.
    [[nodiscard]] HRESULT SerializeCookie(std::wstring& text) const noexcept;
    // The parser's code for malformed text, E_INVALIDARG for data that no valid cookie has. `cookie` is unchanged then.
    [[nodiscard]] static HRESULT CreateCookieFromSerializedData(std::wstring_view text, CVoCookieData& cookie) noexcept;

    // Reads a cookie date in the forms RFC 1123, RFC 850 and asctime; years of two digits are 1970 to 2069. The fields are
    // recognised by their shape (RFC 6265, section 5.1.1). A numeric zone counts; any other zone is taken as UTC. Dates before
    // 1899-12-30 become 0. Nothing for text that is no date, and for a date that does not exist.
    [[nodiscard]] static std::optional<double> ParseDateTime(std::wstring_view text) noexcept;

    [[nodiscard]] bool IsExpired(double now) const noexcept { return expired || (hasExpiry && expiry <= now); }
    // The rules of CVoCookieKey.
    [[nodiscard]] bool PathMatches(const CVoCookieRequest& request) const noexcept { return Key().PathMatches(request); }
    [[nodiscard]] bool ShadowsSecure(const CVoCookieData& other) const noexcept { return Key().ShadowsSecure(other.Key()); }
    // The views are valid while the cookie's texts do not change.
    [[nodiscard]] CVoCookieKey Key() const noexcept { return { domain, path, name, secure }; }

private:
    // Cuts the next field off `text` and returns it; empty at the end. `sign` receives the "+" or "-" right before it, or 0.
    static std::wstring_view ReadNextDateTimeField(std::wstring_view& text, wchar_t& sign) noexcept;
};
