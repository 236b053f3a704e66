// The address of a server, parsed from a URL. Every message holds one; the stores parse URLs with it.
#pragma once

#include <base/VoPlatform.h>

#include <string>
#include <string_view>

namespace VoGlobalHTTPUtils
{
// One server address. The derived texts always agree with the parsed fields, because both change together. Copyable; it has no
// lock and is guarded by the object that holds it.
class CServerAddressData
{
public:
    CServerAddressData() = default;
    CServerAddressData(const CServerAddressData&) = default;
    CServerAddressData(CServerAddressData&&) = default;
    CServerAddressData& operator=(const CServerAddressData&) = default;
    CServerAddressData& operator=(CServerAddressData&&) = default;
    virtual ~CServerAddressData() = default;

    // Parses [scheme "://"] host [":" port] ["/" path] ["?" query] ["#" fragment] without regard to white space around the
    // text, the host and the port. The scheme is http or https in any case; `defaultSecure` stands in for it in a text that
    // names none. An IPv6 literal is in brackets. A port that is the scheme's default is dropped (0). Without `keepPath`
    // neither path nor query is kept (old ones are cleared), without `keepQuery` no query; the fragment is never kept, because
    // it is never sent (RFC 9110, section 4.2.5). Blanks and characters beyond ASCII in path and query stay as they are: the
    // transports percent-encode them.
    //
    // E_INVALIDARG, and an unchanged record, for: another scheme; no host; a host with blanks, user information ("@") or other
    // characters that no host name has (RFC 3986, section 3.2.2); a literal without brackets or that is no IPv6 address; a port
    // that is no number of at most 65535; a control character anywhere inside.
    [[nodiscard]] HRESULT SetAddress(std::wstring_view url, bool defaultSecure, bool keepPath, bool keepQuery) noexcept;
    // Replaces path and query: `objectPath` is a path beginning with "/" and, behind a "?", a query; a fragment is cut off;
    // empty clears both. E_INVALIDARG, and an unchanged record, for any other text and for control characters.
    [[nodiscard]] HRESULT SetObjectPath(std::wstring_view objectPath) noexcept;

    [[nodiscard]] const std::wstring& Host() const noexcept { return m_host; }   // without brackets
    [[nodiscard]] const std::wstring& Path() const noexcept { return m_path; }   // begins with "/" when present
    [[nodiscard]] const std::wstring& Query() const noexcept { return m_query; } // begins with "?" when present
    [[nodiscard]] bool IsSecure() const noexcept { return m_secure; }
    [[nodiscard]] UINT16 Port() const noexcept { return m_port; } // 0: the scheme's default
    // The port to connect to: Port(), or 443 or 80 by the scheme.
    [[nodiscard]] UINT16 EffectivePort() const noexcept;

    [[nodiscard]] const std::wstring& Authority() const noexcept { return m_authority; } // host, in brackets if IPv6, and port
    [[nodiscard]] const std::wstring& BaseURL() const noexcept { return m_baseURL; }     // scheme "://" authority
    [[nodiscard]] const std::wstring& PathURL() const noexcept { return m_pathURL; }     // BaseURL and path
    [[nodiscard]] const std::wstring& FullURL() const noexcept { return m_fullURL; }     // PathURL and query
    [[nodiscard]] const std::wstring& ObjectName() const noexcept { return m_objectName; } // path and query

private:
    void Rebuild();

    std::wstring m_host;
    std::wstring m_path;
    std::wstring m_query;
    bool m_secure = false;
    UINT16 m_port = 0;
    std::wstring m_authority;
    std::wstring m_baseURL;
    std::wstring m_pathURL;
    std::wstring m_fullURL;
    std::wstring m_objectName;
};
} // namespace VoGlobalHTTPUtils

using VoGlobalHTTPUtils::CServerAddressData;
