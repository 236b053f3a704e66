// The process's proxy store: which proxy, and which credentials for it, a request needs. Callers get it from
// CreateGlobalHTTPStores (VoGlobalHTTPUtils.h), or create one of their own.
//
// A look-up first searches the cache for the URL's server (scheme, host, port). If the server is not there, the configuration
// gives a list of proxies: a manual list, or the list that the platform finds by an auto-configuration script. The first usable
// proxy of the list for the scheme is taken, unless the bypass list contains the host. The result stays in the cache, so a
// script runs once for each server. A failure is never cached. Credentials are kept for each proxy, apart from the servers.
#pragma once

#include <VoHTTPStores.h>
#include <VoProxyConfiguration.h>
#include <base/VoErrorHandler.h>
#include <base/com/VoComImplHelper.h>

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

class CVoBinaryDataParser;

namespace VoGlobalHTTPUtils
{
class CServerAddressData;
}

// The proxy that was found for each server, and the credentials for each proxy. Entries stay until Clear. Any thread.
class CProxyCache
{
public:
    // A proxy and its credentials at the time of the look-up. Never changed, so readers need no lock.
    struct CProxy
    {
        std::wstring name; // "host:port"
        CHTTPProxyAuthenticationData authentication;
        bool isAuthenticationKnown = false; // somebody set the credentials
    };
    using CProxyPtr = std::shared_ptr<const CProxy>; // null: a direct connection

    // The server's key: "scheme://host:port" in lower case, without the scheme's default port.
    [[nodiscard]] static std::wstring ServerKeyOf(const VoGlobalHTTPUtils::CServerAddressData& address);

    // False when the cache does not have the server.
    [[nodiscard]] bool GetProxyAndAuthData(std::wstring_view serverKey, CProxyPtr& proxy) noexcept;
    // Keeps the proxy found for a server; an empty name for a direct connection. `proxy` (may be null) receives it with its
    // credentials.
    [[nodiscard]] HRESULT SetProxy(std::wstring_view serverKey, std::wstring_view name, CProxyPtr* proxy) noexcept
    {
        constexpr CVoReporter report{ L"VoGlobalHTTPProxyStoreImpl.h", L"CProxyCache::SetProxy" };
        return report.Guard(215, [&]() -> HRESULT
        {
            CAutoLock lock(&m_lock);
            const size_t index = name.empty() ? kDirect : IndexOf(name);
            m_servers.insert_or_assign(std::wstring(serverKey), index);
            if (proxy)
                *proxy = At(index);
            return S_OK;
        });
    }
    // Keeps credentials for a proxy. They count at once for every server behind it. `asDefault` changes nothing when the proxy
    // has credentials already.
    [[nodiscard]] HRESULT SetAuthDataForProxy(std::wstring_view name, const CHTTPProxyAuthenticationData& authentication,
                                              bool asDefault) noexcept;
    // The proxy of that name; null for an unknown name.
    [[nodiscard]] CProxyPtr FindProxy(std::wstring_view name) noexcept;
    HRESULT Clear() noexcept;

    // Write the cache as parameter text, with the passwords, and read it: for each server an "Entry" with ServerKey and Proxy
    // (empty: direct), for each proxy with credentials a "Credentials" with Proxy and the credentials' own parameters. Reading
    // fills an empty cache; a failure leaves it half filled.
    [[nodiscard]] HRESULT Serialize(CVoSecret<wchar_t>& text) noexcept;
    [[nodiscard]] HRESULT Deserialize(std::wstring_view text) noexcept;
    void Swap(CProxyCache& other) noexcept;

private:
    struct CHash
    {
        using is_transparent = void;
        size_t operator()(std::wstring_view text) const noexcept { return std::hash<std::wstring_view>()(text); }
    };
    static constexpr size_t kDirect = static_cast<size_t>(-1);

    // Both under the lock. IndexOf appends the proxy when it is new.
    [[nodiscard]] size_t IndexOf(std::wstring_view name);
    [[nodiscard]] CProxyPtr At(size_t index) const noexcept { return index == kDirect ? nullptr : m_proxies[index]; }
    // "_Serialize" and "_Deserialize" in reports: C++ reserves such names.
    [[nodiscard]] HRESULT SerializeEntries(CVoBinaryDataParser& parser) const;
    [[nodiscard]] HRESULT DeserializeEntries(const CVoBinaryDataParser& parser);

    CCriticalSection m_lock;
    std::unordered_map<std::wstring, size_t, CHash, std::equal_to<>> m_servers; // to an index of m_proxies, or kDirect
    std::vector<CProxyPtr> m_proxies;                                           // few, each once, none of them null
};

// See IVoHTTPProxyStore. Any thread may call it. A look-up that needs discovery holds the store's lock, so no script runs twice
// for one server. Look-ups of known servers do not wait for it.
//
// Property, for reading and writing; writing works like Deserialize:
//   ProxyDataString  VT_BSTR: the text that Serialize gives, with the passwords in the clear
class CVoGlobalHTTPProxyStoreImpl final : public CVoPropertyBagImpl<CVoGlobalHTTPProxyStoreImpl, IVoHTTPProxyStore>
{
public:
    CVoGlobalHTTPProxyStoreImpl() = default;

    // Sets how proxies are found: by the user's Internet settings (CHTTPProxyConfigData::InitFromIE), or as the application
    // wants it. When the configuration changes, the store forgets everything that it found, and the saved credentials.
    // E_INVALIDARG for a manual proxy list that cannot be used (CProxyConfigHandler::Init). On failure nothing changes.
    [[nodiscard]] HRESULT Init(const CHTTPProxyConfigData& config) noexcept;
    // Sets the store to the user's Internet settings. When they cannot be had, requests go directly, and the next look-up of an
    // unknown server asks for them again. Only a user without any settings has direct connections for good.
    void InitFromUserSettings() noexcept;

    // How the store decides for a URL. The answer is that of GetProxyForUrl. When it is known already, the decision is made
    // once more to explain it, but the known answer stays. Codes as for GetProxyForUrl; `explanation` is untouched on failure.
    [[nodiscard]] HRESULT ExplainProxyForUrl(std::wstring_view url, CVoProxyExplanation& explanation) noexcept;

    STDMETHODIMP Clear() noexcept override;
    // E_POINTER for a null `proxy`, E_INVALIDARG for a malformed URL. A discovery that fails gives a direct connection.
    // Credentials are given only when both `user` and `password` are given; otherwise the one that is given becomes null.
    //
    // Without a URL the scheme is unknown. When the manual list has different proxies for http and https, the result is the
    // list "http=host:port;https=host:port" without credentials (VoProxyList.h reads it).
    STDMETHODIMP GetProxyForUrl(BSTR url, BSTR* proxy, BSTR* user, BSTR* password) noexcept override;
    // `proxy` is "host:port", or a list with the same proxy for both schemes. Hosts are compared without regard to case.
    // E_INVALIDARG for a list with different proxies, because the credentials belong to one of them, and for no proxy.
    STDMETHODIMP SetAuthDataForProxy(BSTR proxy, BSTR user, BSTR password, VARIANT_BOOL valid,
                                     VARIANT_BOOL required) noexcept override;
    // Parameter text with Config (CHTTPProxyConfigData) and Cache (CProxyCache).
    STDMETHODIMP Serialize(BSTR* data) noexcept override;
    // A null or empty text clears the store. Text that no store gives fails; the store is unchanged then.
    STDMETHODIMP Deserialize(BSTR data) noexcept override;

    static std::span<const CVoProperty<CVoGlobalHTTPProxyStoreImpl>> PropertyTable() noexcept;

private:
    ~CVoGlobalHTTPProxyStoreImpl() override;

    [[nodiscard]] HRESULT GetProxyForURL(std::wstring_view url, CProxyCache::CProxyPtr& proxy) noexcept;
    [[nodiscard]] HRESULT FindProxyForServer(const VoGlobalHTTPUtils::CServerAddressData& address,
                                             const std::wstring& serverKey, CProxyCache::CProxyPtr& proxy,
                                             CVoProxyExplanation* explanation = nullptr);
    [[nodiscard]] HRESULT GetManualProxy(CProxyCache::CProxyPtr& proxy) noexcept;
    void ReadMissingUserSettings() noexcept;

    HRESULT GetProxyDataString(VARIANT& value) noexcept;
    HRESULT PutProxyDataString(const VARIANT& value) noexcept;

    // Taken before the lock of the configuration or of the cache; those two are never held together.
    CCriticalSection m_lock;
    bool m_isUserSettingsMissing = false; // the user's settings could not be had yet; guarded by m_lock
    CProxyConfigHandler m_configuration;
    CProxyCache m_cache;
};

// Creates a store for the calling module, set to the user's Internet settings (InitFromUserSettings). The caller owns one
// reference. E_POINTER, or E_OUTOFMEMORY.
[[nodiscard]] HRESULT CreateGlobalHTTPProxyStoreForModule(IVoHTTPProxyStore** store) noexcept;
