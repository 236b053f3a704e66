// Which addresses the browser dialog goes to, when it ends, and how it shows an address. Without a window, so that tests call
// it.
#pragma once

#include <base/VoPlatform.h>

#include <optional>
#include <string>
#include <string_view>

// One http or https address, read by the parser of the embedded browser (CreateUri) and by the library's own
// (CServerAddressData), which must agree about the server.
struct CVoBrowserAddress
{
    // Nothing for other schemes, for an address with user information ("user@"), which can pass for a host, and for one that
    // the two parsers read differently. Throws std::bad_alloc.
    [[nodiscard]] static std::optional<CVoBrowserAddress> FromUrl(std::wstring_view url);

    bool secure = false;
    std::wstring host;  // lower case, international names in ASCII, without brackets
    UINT16 port = 0;    // as it is connected to
    std::wstring path;  // begins with "/"
    std::wstring query; // begins with "?" unless empty
    std::wstring url;   // the whole address in its canonical form, with its fragment

    // "https://host" or "https://host:port", the port where it is not the scheme's own.
    [[nodiscard]] std::wstring Origin() const;
};

// What the dialog does with an address that the browser wants to go to.
enum class EVoBrowserVerdict
{
    Go,
    RefuseScheme, // not http, https or about:blank
    RefuseAddress // malformed, ambiguous, or with user information
};

class CVoBrowserPolicy
{
public:
    // `endPrefix` is the address at which the dialog ends; empty for none. E_INVALIDARG when one of them is no address that
    // CVoBrowserAddress reads, or when the prefix has a fragment; the object is unchanged then.
    [[nodiscard]] HRESULT Init(std::wstring_view startUrl, std::wstring_view endPrefix) noexcept;

    // The start address in its canonical form.
    [[nodiscard]] const std::wstring& StartUrl() const noexcept { return m_start.url; }

    // Whether the browser, or a frame in it, may go to `url`. Throws std::bad_alloc.
    [[nodiscard]] static EVoBrowserVerdict Judge(std::wstring_view url);

    // Whether the end condition holds at `url`: scheme, host and port are those of the prefix, and its path is the prefix's or
    // goes on behind it with a new segment ("/done" covers "/done" and "/done/x", not "/done2"). A prefix with a query covers
    // its own path only, and queries that begin with its own, by whole parameters. Throws std::bad_alloc.
    [[nodiscard]] bool IsEnd(std::wstring_view url) const;

    // The address as the dialog shows it, in ASCII, so that no host can pass for another: without user information and
    // fragment, international names in their ASCII form, and of a long host the end, which says whose it is. For an address
    // that is not http or https the scheme alone, and about:blank. Throws std::bad_alloc.
    [[nodiscard]] static std::wstring Show(std::wstring_view url);
    // The scheme of an address, shortened, for a message; empty when it has none. Throws std::bad_alloc.
    [[nodiscard]] static std::wstring SchemeOf(std::wstring_view url);

private:
    CVoBrowserAddress m_start;
    std::optional<CVoBrowserAddress> m_end;
};
