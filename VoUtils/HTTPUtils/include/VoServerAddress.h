// The address of a server, parsed from a URL. Every message holds one; the stores parse URLs with it.
#pragma once

#include <base/VoPlatform.h>

#include <memory>
#include <string>
#include <string_view>

namespace VoGlobalHTTPUtils
{
// One server address. The derived texts always agree with the parsed fields: both change together. Copies share their texts, so
// a copy allocates nothing and cannot fail. A reference to a text is valid until the record changes or ends. It has no lock:
// the object that holds it guards it. Copies may be used by different threads.
class CServerAddressData
{
public:
    CServerAddressData() = default;
    CServerAddressData(const CServerAddressData&) = default;
    CServerAddressData(CServerAddressData&&) = default; // leaves an empty record
    CServerAddressData& operator=(const CServerAddressData&) = default;
    CServerAddressData& operator=(CServerAddressData&&) = default;
    virtual ~CServerAddressData() = default;

    // Parses [scheme "://"] host [":" port] ["/" path] ["?" query] ["#" fragment]. White space around the text, the host and
    // the port is ignored. The scheme is http or https in any case; a text without a scheme is https when `defaultSecure` is
    // true, else http. An IPv6 literal stands in brackets. The scheme's default port becomes 0. Without `keepPath` the record
    // gets neither path nor query, without `keepQuery` no query. The fragment is never kept: it is never sent (RFC 9110,
    // section 4.2.5). Blanks and characters beyond ASCII stay in path and query: the transports percent-encode them.
    //
    // E_INVALIDARG, with the record unchanged, for:
    // - a scheme other than http and https, or no host;
    // - a host with blanks, user information ("@") or other characters that no host name has (RFC 3986, section 3.2.2);
    // - an IPv6 literal without brackets, or one that is no IPv6 address;
    // - a port that is no decimal number up to 65535;
    // - a control character anywhere inside.
    [[nodiscard]] HRESULT SetAddress(std::wstring_view url, bool defaultSecure, bool keepPath, bool keepQuery) noexcept;
    // Replaces path and query. `objectPath` is a path that begins with "/", with an optional query behind a "?"; a fragment is
    // cut off. An empty text clears both. E_INVALIDARG, with the record unchanged, for any other text and for control
    // characters.
    [[nodiscard]] HRESULT SetObjectPath(std::wstring_view objectPath) noexcept;
    // Builds the derived texts again from the parsed fields. The other functions do this themselves. E_OUTOFMEMORY, with the
    // record unchanged.
    [[nodiscard]] HRESULT Rebuild() noexcept;

    [[nodiscard]] const std::wstring& Host() const noexcept { return Texts().host; }   // without brackets
    [[nodiscard]] const std::wstring& Path() const noexcept { return Texts().path; }   // begins with "/" unless empty
    [[nodiscard]] const std::wstring& Query() const noexcept { return Texts().query; } // begins with "?" unless empty
    [[nodiscard]] bool IsSecure() const noexcept { return Texts().isSecure; }
    [[nodiscard]] UINT16 Port() const noexcept { return Texts().port; } // 0: the scheme's default
    // The port to connect to: Port(), or 443 (https) or 80 (http) when that is 0.
    [[nodiscard]] UINT16 EffectivePort() const noexcept;

    // Host, in brackets if IPv6, and port.
    [[nodiscard]] const std::wstring& Authority() const noexcept { return Texts().authority; }
    [[nodiscard]] const std::wstring& BaseURL() const noexcept { return Texts().baseURL; }       // scheme "://" authority
    [[nodiscard]] const std::wstring& PathURL() const noexcept { return Texts().pathURL; }       // BaseURL and path
    [[nodiscard]] const std::wstring& FullURL() const noexcept { return Texts().fullURL; }       // PathURL and query
    [[nodiscard]] const std::wstring& ObjectName() const noexcept { return Texts().objectName; } // path and query

private:
    struct CTexts
    {
        std::wstring host;
        std::wstring path;
        std::wstring query;
        bool isSecure = false;
        UINT16 port = 0;
        std::wstring authority;
        std::wstring baseURL;
        std::wstring pathURL;
        std::wstring fullURL;
        std::wstring objectName;
    };
    static const CTexts s_none;

    [[nodiscard]] const CTexts& Texts() const noexcept { return m_texts ? *m_texts : s_none; }
    // Takes the parsed fields and builds the derived texts.
    void Set(CTexts parsed);

    std::shared_ptr<const CTexts> m_texts; // never changed: copies have it too. Null: all are empty
};
} // namespace VoGlobalHTTPUtils

using VoGlobalHTTPUtils::CServerAddressData;
