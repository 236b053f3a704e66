// Finds and caches proxies and keeps their credentials (VoGlobalHTTPProxyStoreImpl.h).
#include "SecretParser.h"

#include <VoGlobalHTTPProxyStoreImpl.h>
#include <VoProxyList.h>
#include <VoServerAddress.h>

#include <base/VoText.h>

#include <algorithm>
#include <array>

namespace
{
constexpr const wchar_t* kProxyStoreSource = L"..\\source\\VoGlobalHTTPProxyStoreImpl";

// The keys of the serialised store.
constexpr const wchar_t* kConfigKey = L"Config";
constexpr const wchar_t* kCacheKey = L"Cache";
constexpr const wchar_t* kEntryKey = L"Entry";
constexpr const wchar_t* kServerKeyKey = L"ServerKey";
constexpr const wchar_t* kProxyKey = L"Proxy";
constexpr const wchar_t* kCredentialsKey = L"Credentials";

// Guesses the server key of a URL without parsing it: parsing would take most of the time of a look-up. The cache has the keys
// of well-formed URLs only. A key that equals one of them is the key that parsing gives; any other key finds nothing.
class CQuickServerKey
{
public:
    // No key for a URL without a scheme, and for one with a control character, which parsing refuses or trims.
    explicit CQuickServerKey(std::wstring_view url) noexcept
    {
        constexpr auto kIsControl = [](wchar_t character)
        { return character < L' ' || (character >= 0x7F && character < 0xA0); };
        const size_t scheme = url.find(L':');
        if (scheme == std::wstring_view::npos || !url.substr(scheme).starts_with(L"://") ||
            std::any_of(url.begin(), url.end(), kIsControl))
            return;
        const std::wstring_view server = url.substr(0, url.find_first_of(L"/?#", scheme + 3));
        if (server.size() > m_text.size())
            return;
        std::transform(server.begin(), server.end(), m_text.begin(), VoToLowerAscii);
        std::wstring_view key(m_text.data(), server.size());
        if (const std::wstring_view port = key.starts_with(L"https:") ? L":443" : L":80"; key.ends_with(port))
        {
            key.remove_suffix(port.size());
            // Parsing refuses a second port, as in "host:81:80".
            if (!key.ends_with(L']') && key.find(L':', scheme + 1) != std::wstring_view::npos)
                return;
        }
        m_length = key.size();
    }
    // Empty when there is none.
    [[nodiscard]] std::wstring_view Get() const noexcept { return { m_text.data(), m_length }; }

private:
    std::array<wchar_t, 280> m_text; // a host name has at most 253 characters
    size_t m_length = 0;
};
} // namespace

std::wstring CProxyCache::ServerKeyOf(const CServerAddressData& address)
{
    // Characters beyond ASCII keep their case: another spelling is another server, which costs one more look-up.
    std::wstring key = address.BaseURL();
    std::transform(key.begin(), key.end(), key.begin(), VoToLowerAscii);
    return key;
}

bool CProxyCache::GetProxyAndAuthData(std::wstring_view serverKey, CProxyPtr& proxy) noexcept
{
    CAutoLock lock(&m_lock);
    const auto server = m_servers.find(serverKey);
    if (server == m_servers.end())
        return false;
    proxy = At(server->second);
    return true;
}

size_t CProxyCache::IndexOf(std::wstring_view name)
{
    const auto found = std::find_if(m_proxies.begin(), m_proxies.end(),
                                    [&](const CProxyPtr& proxy) { return VoEqualsNoCase(proxy->name, name); });
    if (found != m_proxies.end())
        return static_cast<size_t>(found - m_proxies.begin());
    m_proxies.push_back(std::make_shared<CProxy>(CProxy{ std::wstring(name), {}, false }));
    return m_proxies.size() - 1;
}

HRESULT CProxyCache::SetAuthDataForProxy(std::wstring_view name, const CHTTPProxyAuthenticationData& authentication,
                                         bool asDefault) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CProxyCache::SetAuthDataForProxy" };
    return report.Guard(771, [&]() -> HRESULT
    {
        CAutoLock lock(&m_lock);
        CProxyPtr& proxy = m_proxies[IndexOf(name)];
        if (!asDefault || !proxy->isAuthenticationKnown)
            proxy = std::make_shared<CProxy>(CProxy{ proxy->name, authentication, true });
        return S_OK;
    });
}

CProxyCache::CProxyPtr CProxyCache::FindProxy(std::wstring_view name) noexcept
{
    CAutoLock lock(&m_lock);
    for (const CProxyPtr& proxy : m_proxies)
        if (VoEqualsNoCase(proxy->name, name))
            return proxy;
    return nullptr;
}

HRESULT CProxyCache::Clear() noexcept
{
    CAutoLock lock(&m_lock);
    m_servers.clear();
    m_proxies.clear();
    return S_OK;
}

void CProxyCache::Swap(CProxyCache& other) noexcept
{
    // Only the caller uses the other cache.
    CAutoLock lock(&m_lock);
    m_servers.swap(other.m_servers);
    m_proxies.swap(other.m_proxies);
}

HRESULT CProxyCache::SerializeEntries(CVoBinaryDataParser& parser) const
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CProxyCache::_Serialize" };
    // Sorted, so that equal stores have equal texts.
    std::vector<std::pair<std::wstring_view, std::wstring_view>> servers;
    servers.reserve(m_servers.size());
    for (const auto& [serverKey, index] : m_servers)
        servers.emplace_back(serverKey, index == kDirect ? std::wstring_view() : m_proxies[index]->name);
    std::sort(servers.begin(), servers.end());
    for (const auto& [serverKey, proxy] : servers)
    {
        CVoBinaryDataParser entry;
        std::wstring text;
        HRESULT hr = entry.AddParam(kServerKeyKey, serverKey);
        if (SUCCEEDED(hr))
            hr = entry.AddParam(kProxyKey, proxy);
        if (SUCCEEDED(hr))
            hr = entry.GetParamsAsString(text);
        if (SUCCEEDED(hr))
            hr = parser.AddParam(kEntryKey, text);
        if (FAILED(hr))
            return report(818, hr);
    }
    for (const CProxyPtr& proxy : m_proxies)
    {
        if (!proxy->isAuthenticationKnown)
            continue;
        CSecretParser credentials;
        CVoSecret<wchar_t> text;
        HRESULT hr = credentials.AddParam(kProxyKey, proxy->name);
        if (SUCCEEDED(hr))
            hr = proxy->authentication.Serialize(credentials);
        if (SUCCEEDED(hr))
            hr = credentials.GetParamsAsString(text.Get());
        if (SUCCEEDED(hr))
            hr = parser.AddParam(kCredentialsKey, text.Get());
        if (FAILED(hr))
            return report(834, hr);
    }
    return S_OK;
}

HRESULT CProxyCache::Serialize(CVoSecret<wchar_t>& text) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CProxyCache::Serialize" };
    return report.Guard(855, [&]() -> HRESULT
    {
        CSecretParser parser;
        CAutoLock lock(&m_lock);
        if (const HRESULT hr = SerializeEntries(parser); FAILED(hr))
            return report(848, hr);
        if (const HRESULT hr = parser.GetParamsAsString(text.Get()); FAILED(hr))
            return report(850, hr);
        return S_OK;
    });
}

HRESULT CProxyCache::DeserializeEntries(const CVoBinaryDataParser& parser)
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CProxyCache::_Deserialize" };
    for (size_t i = 0; i < parser.GetCount(); ++i)
    {
        const CParamRec& param = parser.GetAt(i);
        CSecretParser part;
        std::wstring proxy;
        if (HRESULT hr = part.ReadParamsFromString(param.Value()); FAILED(hr))
            return report(868, hr);
        else if (hr = part.GetParam(kProxyKey, proxy); FAILED(hr))
            return report(870, hr);
        // Names are compared in the form in which the store writes them.
        if (!proxy.empty() && VoProxyList::OnlyProxy(proxy) != proxy)
            return report(873, E_INVALIDARG);

        if (param.Name() == kEntryKey)
        {
            std::wstring serverKey;
            CServerAddressData address;
            HRESULT hr = part.GetParam(kServerKeyKey, serverKey);
            if (SUCCEEDED(hr))
                hr = address.SetAddress(serverKey, false, false, false);
            if (SUCCEEDED(hr))
                hr = ServerKeyOf(address) == serverKey ? SetProxy(serverKey, proxy, nullptr) : E_INVALIDARG;
            if (FAILED(hr))
                return report(885, hr);
        }
        else if (param.Name() == kCredentialsKey && !proxy.empty())
        {
            CHTTPProxyAuthenticationData authentication;
            HRESULT hr = authentication.Deserialize(part);
            if (SUCCEEDED(hr))
                hr = SetAuthDataForProxy(proxy, authentication, false);
            if (FAILED(hr))
                return report(894, hr);
        }
        else
            return report(897, E_INVALIDARG);
    }
    return S_OK;
}

HRESULT CProxyCache::Deserialize(std::wstring_view text) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CProxyCache::Deserialize" };
    return report.Guard(916, [&]() -> HRESULT
    {
        CSecretParser parser;
        if (const HRESULT hr = parser.ReadParamsFromString(text); FAILED(hr))
            return report(909, hr);
        if (const HRESULT hr = DeserializeEntries(parser); FAILED(hr))
            return report(911, hr);
        return S_OK;
    });
}

CVoGlobalHTTPProxyStoreImpl::~CVoGlobalHTTPProxyStoreImpl()
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::~CVoGlobalHTTPProxyStoreImpl" };
    if (const HRESULT hr = m_configuration.Clear(); FAILED(hr))
        report(932, hr);
}

HRESULT CVoGlobalHTTPProxyStoreImpl::Clear() noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::Clear" };
    CAutoLock lock(&m_lock);
    m_isUserSettingsMissing = false;
    // Clear both, even when one fails.
    const HRESULT cache = m_cache.Clear();
    const HRESULT configuration = m_configuration.Clear();
    if (FAILED(cache))
        return report(948, cache);
    if (FAILED(configuration))
        return report(951, configuration);
    return S_OK;
}

HRESULT CVoGlobalHTTPProxyStoreImpl::Init(const CHTTPProxyConfigData& config) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::Init" };
    CAutoLock lock(&m_lock);
    bool changed = false;
    if (const HRESULT hr = m_configuration.Init(config, changed); FAILED(hr))
        return report(978, hr);
    m_isUserSettingsMissing = false;
    if (changed)
        if (const HRESULT hr = m_cache.Clear(); FAILED(hr))
            return report(983, hr);
    return S_OK;
}

void CVoGlobalHTTPProxyStoreImpl::InitFromUserSettings() noexcept
{
    CAutoLock lock(&m_lock);
    m_isUserSettingsMissing = true;
    ReadMissingUserSettings();
}

// Under the store's lock.
void CVoGlobalHTTPProxyStoreImpl::ReadMissingUserSettings() noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::ReadMissingUserSettings" };
    if (!m_isUserSettingsMissing)
        return;
    CHTTPProxyConfigData config;
    HRESULT hr = config.InitFromIE();
    if (SUCCEEDED(hr))
        hr = Init(config);
    if (hr == HResultFromWin32(ERROR_FILE_NOT_FOUND)) // the user has no settings
        m_isUserSettingsMissing = false;
    if (FAILED(hr))
        report(988, hr);
}

HRESULT CVoGlobalHTTPProxyStoreImpl::GetProxyForURL(std::wstring_view url, CProxyCache::CProxyPtr& proxy) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::GetProxyForURL" };
    return report.Guard(1005, [&]() -> HRESULT
    {
        // A known server does not wait for the discovery of another.
        if (m_cache.GetProxyAndAuthData(CQuickServerKey(url).Get(), proxy))
            return S_OK;
        CServerAddressData address;
        if (const HRESULT hr = address.SetAddress(url, false, true, true); FAILED(hr))
            return report(998, hr);
        const std::wstring serverKey = CProxyCache::ServerKeyOf(address);
        if (m_cache.GetProxyAndAuthData(serverKey, proxy))
            return S_OK;

        CAutoLock lock(&m_lock);
        // Did another thread find it meanwhile?
        if (m_cache.GetProxyAndAuthData(serverKey, proxy))
            return S_OK;
        ReadMissingUserSettings();
        if (m_isUserSettingsMissing)
        {
            proxy.reset(); // direct, and not cached: the settings may have a proxy
            return S_OK;
        }
        return FindProxyForServer(address, serverKey, proxy);
    });
}

HRESULT CVoGlobalHTTPProxyStoreImpl::FindProxyForServer(const CServerAddressData& address, const std::wstring& serverKey,
                                                        CProxyCache::CProxyPtr& proxy, CVoProxyExplanation* explanation)
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::GetProxyForURL" };
    std::wstring proxyList;
    std::wstring bypassList;
    CHTTPProxyAuthenticationData authentication;
    // A script may look at the whole URL; its result is kept for all URLs of the server. Path and query of a secure URL may be
    // secret, so a script that came over the network does not get them.
    const std::wstring url = address.IsSecure() ? address.BaseURL() + L'/' : address.FullURL();
    bool failed = false;
    if (const HRESULT hr = m_configuration.GetProxyForURL(url, proxyList, bypassList, authentication, explanation, &failed);
        FAILED(hr))
        return report(1011, hr);
    if (failed)
    {
        proxy.reset(); // direct, and not cached: the next discovery may find a proxy
        return S_OK;
    }

    std::wstring name;
    try
    {
        name = VoProxyList::ProxyForScheme(proxyList, address.IsSecure());
    }
    catch (...)
    {
        return report.CurrentException(1023);
    }
    if (name.empty() && !proxyList.empty())
        report.Message(1016, L"The proxy list has no proxy for the scheme that can be used: connecting directly");
    if (!name.empty() && authentication.AreUsable())
        // The configured credentials count only until others are saved for the proxy.
        if (const HRESULT hr = m_cache.SetAuthDataForProxy(name, authentication, true); FAILED(hr))
            return report(1019, hr);
    const std::wstring_view bypass = VoProxyList::FindBypass(bypassList, address.Host());
    if (explanation)
    {
        explanation->isBypassed = !bypass.empty() && !name.empty();
        explanation->rule = explanation->isBypassed ? std::wstring(bypass) : proxyList;
    }
    if (!bypass.empty())
        name.clear();
    // An answer that is known stays, also when the decision would be another one today.
    if (explanation && m_cache.GetProxyAndAuthData(serverKey, proxy))
        return S_OK;
    if (const HRESULT hr = m_cache.SetProxy(serverKey, name, &proxy); FAILED(hr))
        return report(1078, hr);
    return S_OK;
}

HRESULT CVoGlobalHTTPProxyStoreImpl::ExplainProxyForUrl(std::wstring_view url, CVoProxyExplanation& explanation) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::ExplainProxyForUrl" };
    return report.Guard(1093, [&]() -> HRESULT
    {
        CServerAddressData address;
        if (const HRESULT hr = address.SetAddress(url, false, true, true); FAILED(hr))
            return report(1086, hr);
        const std::wstring serverKey = CProxyCache::ServerKeyOf(address);
        CVoProxyExplanation found;
        CProxyCache::CProxyPtr proxy;
        CAutoLock lock(&m_lock);
        found.isKnown = m_cache.GetProxyAndAuthData(serverKey, proxy);
        ReadMissingUserSettings();
        if (!m_isUserSettingsMissing)
            if (const HRESULT hr = FindProxyForServer(address, serverKey, proxy, &found); FAILED(hr))
                return report(1090, hr);
        if (proxy)
        {
            found.proxy = proxy->name;
            found.hasCredentials = proxy->authentication.AreUsable();
        }
        explanation = std::move(found);
        return S_OK;
    });
}

HRESULT CVoGlobalHTTPProxyStoreImpl::GetManualProxy(CProxyCache::CProxyPtr& proxy) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::GetManualProxy" };
    return report.Guard(1113, [&]() -> HRESULT
    {
        CAutoLock lock(&m_lock);
        ReadMissingUserSettings();
        std::wstring proxyList;
        CHTTPProxyAuthenticationData authentication;
        if (const HRESULT hr = m_configuration.GetManualProxy(proxyList, authentication); FAILED(hr))
            return report(1096, hr);

        const VoProxyList::CContent content = VoProxyList::Read(proxyList);
        const std::wstring only = VoProxyList::OnlyProxy(proxyList);
        CProxyCache::CProxy found;
        if (VoEqualsNoCase(content.plain, content.secure))
            found.name = content.plain;
        else
        {
            found.name = content.plain.empty() ? std::wstring() : L"http=" + content.plain;
            if (!content.secure.empty())
                found.name += (found.name.empty() ? L"https=" : L";https=") + content.secure;
        }
        if (!only.empty())
        {
            const CProxyCache::CProxyPtr known = m_cache.FindProxy(only);
            found.authentication = known && known->isAuthenticationKnown ? known->authentication : authentication;
        }
        proxy = std::make_shared<CProxyCache::CProxy>(std::move(found));
        return S_OK;
    });
}

HRESULT CVoGlobalHTTPProxyStoreImpl::GetProxyForUrl(BSTR url, BSTR* proxy, BSTR* user, BSTR* password) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::GetProxyForUrl" };
    if (!proxy)
        return report(1121, E_POINTER);
    return report.Guard(1147, [&]() -> HRESULT
    {
        const std::wstring_view urlText = CVoBstr::ViewOf(url);
        CProxyCache::CProxyPtr found;
        if (const HRESULT hr = urlText.empty() ? GetManualProxy(found) : GetProxyForURL(urlText, found); FAILED(hr))
            return report(1128, hr);

        CVoBstr name(found ? std::wstring_view(found->name) : std::wstring_view());
        CVoBstr foundUser;
        CVoBstr foundPassword;
        if (user && password && found && found->authentication.AreUsable())
        {
            foundUser = CVoBstr(found->authentication.userName);
            foundPassword = CVoBstr(found->authentication.password.Get());
        }
        *proxy = name.Detach();
        if (user)
            *user = foundUser.Detach();
        if (password)
            *password = foundPassword.Detach();
        return S_OK;
    });
}

HRESULT CVoGlobalHTTPProxyStoreImpl::SetAuthDataForProxy(BSTR proxy, BSTR user, BSTR password, VARIANT_BOOL valid,
                                                         VARIANT_BOOL required) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::SetAuthDataForProxy" };
    return report.Guard(1172, [&]() -> HRESULT
    {
        const std::wstring name = VoProxyList::OnlyProxy(CVoBstr::ViewOf(proxy));
        if (name.empty())
            return report(1159, E_INVALIDARG);
        CHTTPProxyAuthenticationData authentication;
        authentication.valid = valid != VARIANT_FALSE;
        authentication.required = required != VARIANT_FALSE;
        authentication.userName = CVoBstr::ViewOf(user);
        authentication.password.Get() = CVoBstr::ViewOf(password);
        CAutoLock lock(&m_lock);
        if (const HRESULT hr = m_cache.SetAuthDataForProxy(name, authentication, false); FAILED(hr))
            return report(1167, hr);
        return S_OK;
    });
}

HRESULT CVoGlobalHTTPProxyStoreImpl::Serialize(BSTR* data) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::Serialize" };
    if (!data)
        return report(1180, E_POINTER);
    return report.Guard(1206, [&]() -> HRESULT
    {
        CSecretParser parser;
        CVoSecret<wchar_t> config;
        CVoSecret<wchar_t> cache;
        CVoSecret<wchar_t> text;
        {
            CAutoLock lock(&m_lock);
            if (const HRESULT hr = m_configuration.Serialize(config); FAILED(hr))
                return report(1190, hr);
            if (const HRESULT hr = m_cache.Serialize(cache); FAILED(hr))
                return report(1192, hr);
        }
        HRESULT hr = parser.AddParam(kConfigKey, config.Get());
        if (SUCCEEDED(hr))
            hr = parser.AddParam(kCacheKey, cache.Get());
        if (SUCCEEDED(hr))
            hr = parser.GetParamsAsString(text.Get());
        if (FAILED(hr))
            return report(1200, hr);
        *data = CVoBstr(text.Get()).Detach();
        return S_OK;
    });
}

HRESULT CVoGlobalHTTPProxyStoreImpl::Deserialize(BSTR data) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::Deserialize" };
    if (CVoBstr::ViewOf(data).empty())
    {
        const HRESULT hr = Clear();
        return FAILED(hr) ? report(1216, hr) : hr;
    }
    return report.Guard(1243, [&]() -> HRESULT
    {
        CHTTPProxyConfigData config;
        CProxyCache cache;
        CSecretParser parser;
        CVoSecret<wchar_t> configText;
        CVoSecret<wchar_t> cacheText;
        HRESULT hr = parser.ReadParamsFromString(CVoBstr::ViewOf(data));
        if (SUCCEEDED(hr))
            hr = parser.GetParam(kConfigKey, configText.Get());
        if (SUCCEEDED(hr))
            hr = parser.GetParam(kCacheKey, cacheText.Get());
        if (SUCCEEDED(hr))
            hr = config.Deserialize(configText.Get());
        if (SUCCEEDED(hr))
            hr = cache.Deserialize(cacheText.Get());
        if (FAILED(hr))
            return report(1232, hr);

        CAutoLock lock(&m_lock);
        bool changed = false;
        if (hr = m_configuration.Init(config, changed); FAILED(hr))
            return report(1237, hr);
        m_isUserSettingsMissing = false;
        m_cache.Swap(cache);
        return S_OK;
    });
}

std::span<const CVoProperty<CVoGlobalHTTPProxyStoreImpl>> CVoGlobalHTTPProxyStoreImpl::PropertyTable() noexcept
{
    using Store = CVoGlobalHTTPProxyStoreImpl;
    static constexpr CVoProperty<Store> kTable[] = {
        { L"ProxyDataString", L"Content of global Proxy Store serialized as string.", &Store::GetProxyDataString,
          &Store::PutProxyDataString },
    };
    return kTable;
}

HRESULT CVoGlobalHTTPProxyStoreImpl::GetProxyDataString(VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::GetProxyDataString" };
    BSTR text = nullptr;
    if (const HRESULT hr = Serialize(&text); FAILED(hr))
        return report(1258, hr);
    value.vt = VT_BSTR;
    value.bstrVal = text;
    return S_OK;
}

HRESULT CVoGlobalHTTPProxyStoreImpl::PutProxyDataString(const VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CVoGlobalHTTPProxyStoreImpl::PutProxyDataString" };
    if (value.vt != VT_BSTR)
        return report(1268, DISP_E_TYPEMISMATCH);
    if (const HRESULT hr = Deserialize(value.bstrVal); FAILED(hr))
        return report(1270, hr);
    return S_OK;
}

HRESULT CreateGlobalHTTPProxyStoreForModule(IVoHTTPProxyStore** store) noexcept
{
    constexpr CVoReporter report{ kProxyStoreSource, L"CreateGlobalHTTPProxyStoreForModule" };
    if (!store)
        return report(1278, E_POINTER);
    return report.Guard(1296, [&]() -> HRESULT
    {
        CVoComPtr<CVoGlobalHTTPProxyStoreImpl> made = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
        if (!made)
            return report(1283, E_OUTOFMEMORY);
        made->InitFromUserSettings();
        *store = made.Detach();
        return S_OK;
    });
}
