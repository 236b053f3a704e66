// How proxies are found: the records that describe it, and the handler that keeps them and asks the platform. The proxy store
// uses the handler; applications fill the records (VoGlobalHTTPProxyStoreImpl.h).
#pragma once

#include <base/VoMultiThreading.h>
#include <base/VoPlatform.h>
#include <base/VoWipe.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

class CVoBinaryDataParser;

namespace VoWinHttpInterface
{
class WinHttpSessionHandle;
}

// The credentials for a proxy. The password is wiped when the object is destroyed.
struct CHTTPProxyAuthenticationData
{
    CHTTPProxyAuthenticationData() = default;
    CHTTPProxyAuthenticationData(CHTTPProxyAuthenticationData&&) noexcept = default;
    CHTTPProxyAuthenticationData& operator=(CHTTPProxyAuthenticationData&&) noexcept = default;
    CHTTPProxyAuthenticationData(const CHTTPProxyAuthenticationData& other);
    CHTTPProxyAuthenticationData& operator=(const CHTTPProxyAuthenticationData& other);
    ~CHTTPProxyAuthenticationData() = default;
    [[nodiscard]] bool operator==(const CHTTPProxyAuthenticationData& other) const noexcept;

    // Whether requests use them: the proxy demands credentials and these are valid.
    [[nodiscard]] bool AreUsable() const noexcept { return valid && required; }

    // Write the parameters AuthenticationDataAreValid, AuthenticationDataRequired, UserName and Password (in the clear), and
    // read them. Reading fails when a parameter is missing or does not convert; the record is unchanged then.
    [[nodiscard]] HRESULT Serialize(CVoBinaryDataParser& parser) const noexcept;
    [[nodiscard]] HRESULT Deserialize(const CVoBinaryDataParser& parser) noexcept;

    bool valid = false;    // the proxy accepted them, or somebody entered them
    bool required = false; // the proxy demands credentials
    std::wstring userName;
    CVoSecret<wchar_t> password;
};

// How the proxy is found. Discovery, by detection or by a script, takes precedence over the manual proxy.
struct CHTTPProxyConfigData
{
    [[nodiscard]] bool operator==(const CHTTPProxyConfigData& other) const noexcept = default;

    // Whether a script finds the proxy.
    [[nodiscard]] bool UsesDiscovery() const noexcept { return autoDetect || !pacFileUrl.empty(); }

    // Fills the record from the current user's Internet settings. It takes one source only: detection, else a script's URL,
    // else a static proxy with its bypass list, else nothing. The credentials are reset.
    //
    // S_OK; S_FALSE when unusable entries of the static proxy list are left out (VoProxyList.h), which is reported: settings
    // that the library cannot use must not make requests fail. The platform's error when it has no settings; the record is
    // unchanged then.
    [[nodiscard]] HRESULT InitFromIE() noexcept;

    // Write the record as parameter text, with the password, and read it (all or nothing): AutoDetectPACFileUrl, PACFileURL,
    // ManualProxy, ManualProxyBypassList, and ManualProxyAuthenticationData, which is parameter text itself.
    [[nodiscard]] HRESULT Serialize(CVoSecret<wchar_t>& text) const noexcept;
    [[nodiscard]] HRESULT Deserialize(std::wstring_view text) noexcept;

    bool autoDetect = false;            // find the script in the network (DHCP and DNS)
    std::wstring pacFileUrl;            // of an auto-configuration script, or empty. Takes precedence over autoDetect
    std::wstring manualProxy;           // a proxy list (VoProxyList.h)
    std::wstring manualProxyBypassList; // a bypass list (VoProxyList.h)
    CHTTPProxyAuthenticationData manualProxyAuthenticationData; // for each proxy of manualProxy
};

// How the proxy store decided for a URL. It can be shown as it is: scripts are named without the query of their address.
struct CVoProxyExplanation
{
    enum class ESource
    {
        None,     // no proxy is configured
        Manual,   // the manual list
        Script,   // an auto-configuration script
        Detection // a script that the platform finds in the network
    };
    // A step of the decision that took time.
    struct CTried
    {
        std::wstring what;     // "run the proxy script http://wpad.example/proxy.pac"
        HRESULT result = S_OK; // a discovery that fails gives a direct connection
        INT64 microseconds = 0;
    };

    ESource source = ESource::None;
    std::wstring proxy; // the answer: "host:port"; empty: direct
    std::wstring rule;  // the item of the bypass list that sends the URL directly; else the list that the proxy is from
    bool isBypassed = false;
    std::wstring script;  // its address; empty without one
    DWORD error = 0;      // of the platform, when the discovery failed
    bool isKnown = false; // the answer was found earlier and kept
    bool hasCredentials = false;
    std::vector<CTried> tried;

    // "none", "manual", "script", "detection"; "bypass" for a URL that a rule sends directly.
    [[nodiscard]] const wchar_t* SourceName() const noexcept;
};

// Keeps the store's configuration, and the platform's session that discovers proxies for it. Any thread. Its lock is held while
// a script is fetched and run.
class CProxyConfigHandler
{
public:
    CProxyConfigHandler() noexcept;
    ~CProxyConfigHandler();
    CProxyConfigHandler(const CProxyConfigHandler&) = delete;
    CProxyConfigHandler& operator=(const CProxyConfigHandler&) = delete;

    // Takes a configuration. `changed` says whether it differs from the one before. For discovery it opens the session first.
    // E_INVALIDARG for a manual proxy list with an unusable entry or without a proxy for http and https (VoProxyList.h); the
    // log says which. On failure nothing changes.
    [[nodiscard]] HRESULT Init(const CHTTPProxyConfigData& config, bool& changed) noexcept;
    // Closes the session and returns to direct connections.
    HRESULT Clear() noexcept;

    // What the configuration gives for a URL: a proxy list (empty: direct), a bypass list, and credentials for the proxies of
    // the list. A discovery that fails finds no proxy, and `failed` (may be null) says so: the result is not to be cached.
    // `explanation` (may be null) receives the source and what was tried.
    [[nodiscard]] HRESULT GetProxyForURL(const std::wstring& url, std::wstring& proxyList, std::wstring& bypassList,
                                         CHTTPProxyAuthenticationData& authentication,
                                         CVoProxyExplanation* explanation = nullptr, bool* failed = nullptr) noexcept;
    // The manual proxy list; empty when discovery is configured.
    [[nodiscard]] HRESULT GetManualProxy(std::wstring& proxyList, CHTTPProxyAuthenticationData& authentication) noexcept;

    [[nodiscard]] HRESULT Serialize(CVoSecret<wchar_t>& text) noexcept;

private:
    [[nodiscard]] HRESULT OpenSession() noexcept;
    [[nodiscard]] HRESULT DiscoverProxy(const std::wstring& url, std::wstring& proxyList, std::wstring& bypassList,
                                        CVoProxyExplanation* explanation, bool* failed) noexcept;

    CCriticalSection m_lock;
    CHTTPProxyConfigData m_config;                                       // guarded by m_lock
    std::unique_ptr<VoWinHttpInterface::WinHttpSessionHandle> m_session; // guarded by m_lock; null until it is needed
};
