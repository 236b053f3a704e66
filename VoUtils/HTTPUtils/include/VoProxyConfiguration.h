// How proxies are found: the records that say so, and the handler that holds them and asks the platform.
#pragma once

#include <base/VoMultiThreading.h>
#include <base/VoPlatform.h>
#include <base/VoWipe.h>

#include <memory>
#include <string>
#include <string_view>

class CVoBinaryDataParser;

namespace VoWinHttpInterface
{
class WinHttpSessionHandle;
}

// A proxy's credentials. The password is wiped when it goes.
struct CHTTPProxyAuthenticationData
{
    CHTTPProxyAuthenticationData() = default;
    CHTTPProxyAuthenticationData(CHTTPProxyAuthenticationData&&) noexcept = default;
    CHTTPProxyAuthenticationData& operator=(CHTTPProxyAuthenticationData&&) noexcept = default;
    CHTTPProxyAuthenticationData(const CHTTPProxyAuthenticationData& other);
    CHTTPProxyAuthenticationData& operator=(const CHTTPProxyAuthenticationData& other);
    ~CHTTPProxyAuthenticationData() = default;
    [[nodiscard]] bool operator==(const CHTTPProxyAuthenticationData& other) const noexcept;

    // Whether they are to be sent: only what the proxy wants and has accepted.
    [[nodiscard]] bool AreUsable() const noexcept { return valid && required; }

    // Append to, and read from, parameters: AuthenticationDataAreValid, AuthenticationDataRequired, UserName and Password,
    // which is in the clear. Reading fails when one is missing or does not convert, and changes nothing then.
    [[nodiscard]] HRESULT Serialize(CVoBinaryDataParser& parser) const noexcept;
    [[nodiscard]] HRESULT Deserialize(const CVoBinaryDataParser& parser) noexcept;

    bool valid = false;    // the proxy accepted them, or somebody entered them
    bool required = false; // the proxy demands credentials
    std::wstring userName;
    CVoSecret<wchar_t> password;
};

// How the proxy is found. Discovery, by detection or by a script, comes before the manual proxy.
struct CHTTPProxyConfigData
{
    [[nodiscard]] bool operator==(const CHTTPProxyConfigData& other) const noexcept = default;

    // Whether the proxy is found by a script.
    [[nodiscard]] bool UsesDiscovery() const noexcept { return autoDetect || !pacFileUrl.empty(); }

    // Fills the record from the current user's Internet settings, from one source alone: detection, or else a script's URL, or
    // else a static proxy with its bypass list, or else nothing. Credentials are reset. The platform's error when it cannot
    // tell; the record is unchanged then.
    [[nodiscard]] HRESULT InitFromIE() noexcept;

    // The record as parameter text, password included, and back (all or nothing): AutoDetectPACFileUrl, PACFileURL,
    // ManualProxy, ManualProxyBypassList and ManualProxyAuthenticationData, which is parameter text itself.
    [[nodiscard]] HRESULT Serialize(CVoSecret<wchar_t>& text) const noexcept;
    [[nodiscard]] HRESULT Deserialize(std::wstring_view text) noexcept;

    bool autoDetect = false;            // find the script in the network (DHCP and DNS)
    std::wstring pacFileUrl;            // of an auto-configuration script; empty for none. Goes before autoDetect
    std::wstring manualProxy;           // a proxy list (VoProxyList.h)
    std::wstring manualProxyBypassList; // likewise
    CHTTPProxyAuthenticationData manualProxyAuthenticationData; // for each proxy of manualProxy
};

// The store's configuration, and the platform's session that discovers proxies for it. Any thread; its lock is held while a
// script is fetched and run.
class CProxyConfigHandler
{
public:
    CProxyConfigHandler() noexcept;
    ~CProxyConfigHandler();
    CProxyConfigHandler(const CProxyConfigHandler&) = delete;
    CProxyConfigHandler& operator=(const CProxyConfigHandler&) = delete;

    // Takes the record over; `changed` tells whether it differs from the one held. A record that asks for discovery has the
    // session opened first, and where that fails nothing changes.
    [[nodiscard]] HRESULT Init(const CHTTPProxyConfigData& config, bool& changed) noexcept;
    // Back to direct connections, without a session.
    HRESULT Clear() noexcept;

    // What the configuration has for a URL: a proxy list (empty: direct), a bypass list, and credentials for the proxies of the
    // list. Discovery that fails finds no proxy.
    [[nodiscard]] HRESULT GetProxyForURL(const std::wstring& url, std::wstring& proxyList, std::wstring& bypassList,
                                         CHTTPProxyAuthenticationData& authentication) noexcept;
    // The manual proxy list; empty where discovery is configured.
    [[nodiscard]] HRESULT GetManualProxy(std::wstring& proxyList, CHTTPProxyAuthenticationData& authentication) noexcept;

    [[nodiscard]] HRESULT Serialize(CVoSecret<wchar_t>& text) noexcept;

private:
    [[nodiscard]] HRESULT OpenSession() noexcept;
    [[nodiscard]] HRESULT DiscoverProxy(const std::wstring& url, std::wstring& proxyList, std::wstring& bypassList) noexcept;

    CCriticalSection m_lock;
    CHTTPProxyConfigData m_config;                                       // guarded by m_lock
    std::unique_ptr<VoWinHttpInterface::WinHttpSessionHandle> m_session; // guarded by m_lock; null until it is needed
};
