// The process's proxy store: which proxy, and which of its credentials, a request needs.
//
// The life of a look-up: the URL's server (scheme, host, port) is looked up in the cache. When it is not there, the
// configuration gives a list of proxies: the one that somebody set, or the one that the platform finds by an auto-configuration
// script. The list's first proxy for the scheme is taken, unless the bypass list names the host. The result goes to the cache
// and stays there, so that scripts run once for each server. Credentials are kept for each proxy, apart from the servers behind
// it.
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

// What was found: a proxy for each server, and credentials for each proxy. Entries stay until Clear. Any thread.
class CProxyCache
{
public:
    // A proxy and its credentials as they were when it was asked for. Never changed, so that readers need no lock.
    struct CProxy
    {
        std::wstring name; // "host:port"
        CHTTPProxyAuthenticationData authentication;
        bool isAuthenticationKnown = false; // somebody set it
    };
    using CProxyPtr = std::shared_ptr<const CProxy>; // null: a direct connection

    // The server's key: "scheme://host:port" in small letters, without a port that is the scheme's default.
    [[nodiscard]] static std::wstring ServerKeyOf(const VoGlobalHTTPUtils::CServerAddressData& address);

    // False when nothing was found for the server yet.
    [[nodiscard]] bool GetProxyAndAuthData(std::wstring_view serverKey, CProxyPtr& proxy) noexcept;
    // Keeps the proxy found for a server; an empty name for none. `proxy` (may be null) receives it with its credentials.
    [[nodiscard]] HRESULT SetProxy(std::wstring_view serverKey, std::wstring_view name, CProxyPtr* proxy) noexcept
    {
        constexpr CVoReporter report{ L"VoGlobalHTTPProxyStoreImpl.h", L"CProxyCache::SetProxy" };
        try
        {
            CAutoLock lock(&m_lock);
            const size_t index = name.empty() ? kDirect : IndexOf(name);
            m_servers.insert_or_assign(std::wstring(serverKey), index);
            if (proxy)
                *proxy = At(index);
            return S_OK;
        }
        catch (...)
        {
            return report.CurrentException(215);
        }
    }
    // Keeps credentials for a proxy, which holds at once for all servers behind it and for those found later. `asDefault` keeps
    // those that the proxy has already.
    [[nodiscard]] HRESULT SetAuthDataForProxy(std::wstring_view name, const CHTTPProxyAuthenticationData& authentication,
                                              bool asDefault) noexcept;
    // The proxy of that name; null when it was never named.
    [[nodiscard]] CProxyPtr FindProxy(std::wstring_view name) noexcept;
    HRESULT Clear() noexcept;

    // The cache as parameter text, passwords included: for each server an "Entry" with ServerKey and Proxy (empty: direct), for
    // each proxy with credentials a "Credentials" with Proxy and the credentials' own parameters. Reading fills an empty cache;
    // what it did is not undone when it fails.
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
    // "_Serialize" and "_Deserialize" in reports, names that C++ keeps for itself.
    [[nodiscard]] HRESULT SerializeEntries(CVoBinaryDataParser& parser) const;
    [[nodiscard]] HRESULT DeserializeEntries(const CVoBinaryDataParser& parser);

    CCriticalSection m_lock;
    std::unordered_map<std::wstring, size_t, CHash, std::equal_to<>> m_servers; // to an index of m_proxies, or kDirect
    std::vector<CProxyPtr> m_proxies;                                           // few, each once, none of them null
};

// See IVoHTTPProxyStore. Any thread may call it. A look-up that has to discover holds the store's lock, so that no script runs
// twice for one server; look-ups of servers that are known do not wait for it.
//
// Property, to read and to write, writing as Deserialize:
//   ProxyDataString  VT_BSTR: what Serialize gives, passwords in the clear included
class CVoGlobalHTTPProxyStoreImpl final : public CVoPropertyBagImpl<CVoGlobalHTTPProxyStoreImpl, IVoHTTPProxyStore>
{
public:
    CVoGlobalHTTPProxyStoreImpl() = default;

    // Sets how proxies are found: the user's Internet settings (CHTTPProxyConfigData::InitFromIE), or what the application
    // wants in their place. When it differs from what holds, all that was found is forgotten, saved credentials included. On
    // failure nothing changes.
    [[nodiscard]] HRESULT Init(const CHTTPProxyConfigData& config) noexcept;

    STDMETHODIMP Clear() noexcept override;
    // E_POINTER for a null `proxy`, E_INVALIDARG for a malformed URL; a discovery that fails gives a direct connection.
    // Credentials are handed out only when both `user` and `password` are given; each one that is given is null otherwise.
    //
    // Without a URL the scheme is not known: a manual list that has different proxies for the two is given whole and, where it
    // names more than one, without credentials (VoProxyList.h finds a scheme's).
    STDMETHODIMP GetProxyForUrl(BSTR url, BSTR* proxy, BSTR* user, BSTR* password) noexcept override;
    // `proxy` is "host:port" or a list that gives both schemes the same; hosts are compared without regard to case.
    // E_INVALIDARG for one that gives them different proxies, because nobody could tell whose credentials these are, and for
    // none.
    STDMETHODIMP SetAuthDataForProxy(BSTR proxy, BSTR user, BSTR password, VARIANT_BOOL valid,
                                     VARIANT_BOOL required) noexcept override;
    // Parameter text with Config (CHTTPProxyConfigData) and Cache (CProxyCache).
    STDMETHODIMP Serialize(BSTR* data) noexcept override;
    // A null or empty text clears the store. Text that is none of the store's own fails, with the code of what is wrong with
    // it.
    STDMETHODIMP Deserialize(BSTR data) noexcept override;

    static std::span<const CVoProperty<CVoGlobalHTTPProxyStoreImpl>> PropertyTable() noexcept;

private:
    ~CVoGlobalHTTPProxyStoreImpl() override;

    [[nodiscard]] HRESULT GetProxyForURL(std::wstring_view url, CProxyCache::CProxyPtr& proxy) noexcept;
    [[nodiscard]] HRESULT FindProxyForServer(const VoGlobalHTTPUtils::CServerAddressData& address,
                                             const std::wstring& serverKey, CProxyCache::CProxyPtr& proxy);
    [[nodiscard]] HRESULT GetManualProxy(CProxyCache::CProxyPtr& proxy) noexcept;

    HRESULT GetProxyDataString(VARIANT& value) noexcept;
    HRESULT PutProxyDataString(const VARIANT& value) noexcept;

    // Taken before the lock of the configuration or of the cache, which are never held together.
    CCriticalSection m_lock;
    CProxyConfigHandler m_configuration;
    CProxyCache m_cache;
};

// A new store for the calling module, set to the user's Internet settings; where those cannot be had, which is reported, it
// connects directly. The caller owns one reference. E_POINTER, or E_OUTOFMEMORY.
[[nodiscard]] HRESULT CreateGlobalHTTPProxyStoreForModule(IVoHTTPProxyStore** store) noexcept;
