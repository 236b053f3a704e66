#include "SecretParser.h"

#include <VoProxyConfiguration.h>
#include <VoWinHttpInterface.h>

#include <base/VoSystemProperties.h>

namespace
{
// The configuration is part of the store, and its trace points are known under the store's name.
constexpr const wchar_t* kSource = L"..\\source\\VoGlobalHTTPProxyStoreImpl";

constexpr const wchar_t* kAutoDetectKey = L"AutoDetectPACFileUrl";
constexpr const wchar_t* kPacFileUrlKey = L"PACFileURL";
constexpr const wchar_t* kManualProxyKey = L"ManualProxy";
constexpr const wchar_t* kManualProxyBypassListKey = L"ManualProxyBypassList";
constexpr const wchar_t* kManualProxyAuthenticationDataKey = L"ManualProxyAuthenticationData";
constexpr const wchar_t* kValidKey = L"AuthenticationDataAreValid";
constexpr const wchar_t* kRequiredKey = L"AuthenticationDataRequired";
constexpr const wchar_t* kUserNameKey = L"UserName";
constexpr const wchar_t* kPasswordKey = L"Password";

constexpr const wchar_t* kAgent = L"CProxyConfigHandler";
constexpr int kDiscoveryTimeout = 2000; // milliseconds

// The user's Internet settings as the platform gives them; its texts are freed here.
struct CInternetSettings : WINHTTP_CURRENT_USER_IE_PROXY_CONFIG
{
    CInternetSettings() noexcept : WINHTTP_CURRENT_USER_IE_PROXY_CONFIG{} {}
    ~CInternetSettings()
    {
        const CVoLastErrorKeeper keeper;
        for (const LPWSTR text : { lpszAutoConfigUrl, lpszProxy, lpszProxyBypass })
            if (text)
                ::GlobalFree(text);
    }
    CInternetSettings(const CInternetSettings&) = delete;
    CInternetSettings& operator=(const CInternetSettings&) = delete;
};

std::wstring TextOf(const wchar_t* text)
{
    return text ? text : std::wstring();
}

// A copy that leaves no part of the password behind in memory that is given back.
void CopySecret(std::wstring_view text, CVoSecret<wchar_t>& copy)
{
    CVoSecret<wchar_t> made;
    made.Get().assign(text);
    copy = std::move(made);
}
} // namespace

CHTTPProxyAuthenticationData::CHTTPProxyAuthenticationData(const CHTTPProxyAuthenticationData& other)
    : valid(other.valid), required(other.required), userName(other.userName)
{
    CopySecret(other.password.Get(), password);
}

CHTTPProxyAuthenticationData& CHTTPProxyAuthenticationData::operator=(const CHTTPProxyAuthenticationData& other)
{
    return *this = CHTTPProxyAuthenticationData(other);
}

bool CHTTPProxyAuthenticationData::operator==(const CHTTPProxyAuthenticationData& other) const noexcept
{
    return valid == other.valid && required == other.required && userName == other.userName &&
           password.Get() == other.password.Get();
}

HRESULT CHTTPProxyAuthenticationData::Serialize(CVoBinaryDataParser& parser) const noexcept
{
    constexpr CVoReporter report{ kSource, L"CHTTPProxyAuthenticationData::Serialize" };
    HRESULT hr = parser.AddParam(kValidKey, valid);
    if (SUCCEEDED(hr))
        hr = parser.AddParam(kRequiredKey, required);
    if (SUCCEEDED(hr))
        hr = parser.AddParam(kUserNameKey, userName);
    if (SUCCEEDED(hr))
        hr = parser.AddParam(kPasswordKey, password.Get());
    return FAILED(hr) ? report(121, hr) : hr;
}

HRESULT CHTTPProxyAuthenticationData::Deserialize(const CVoBinaryDataParser& parser) noexcept
{
    constexpr CVoReporter report{ kSource, L"CHTTPProxyAuthenticationData::Deserialize" };
    CHTTPProxyAuthenticationData read;
    HRESULT hr = parser.GetParam(kValidKey, read.valid);
    if (SUCCEEDED(hr))
        hr = parser.GetParam(kRequiredKey, read.required);
    if (SUCCEEDED(hr))
        hr = parser.GetParam(kUserNameKey, read.userName);
    if (SUCCEEDED(hr))
        hr = parser.GetParam(kPasswordKey, read.password.Get());
    if (FAILED(hr))
        return report(136, hr);
    *this = std::move(read);
    return S_OK;
}

HRESULT CHTTPProxyConfigData::InitFromIE() noexcept
{
    constexpr CVoReporter report{ kSource, L"CHTTPProxyConfigData::InitFromIE" };
    try
    {
        CInternetSettings settings;
        if (!::WinHttpGetIEProxyConfigForCurrentUser(&settings))
            return report.LastError(314, 315);

        const auto isSet = [](const wchar_t* text) { return text && *text; };
        CHTTPProxyConfigData config;
        if (settings.fAutoDetect)
            config.autoDetect = true;
        else if (isSet(settings.lpszAutoConfigUrl))
            config.pacFileUrl = settings.lpszAutoConfigUrl;
        else if (isSet(settings.lpszProxy))
        {
            config.manualProxy = settings.lpszProxy;
            config.manualProxyBypassList = TextOf(settings.lpszProxyBypass);
        }
        *this = std::move(config);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(340);
    }
}

HRESULT CHTTPProxyConfigData::Serialize(CVoSecret<wchar_t>& text) const noexcept
{
    constexpr CVoReporter report{ kSource, L"CHTTPProxyConfigData::Serialize" };
    CSecretParser parser;
    CSecretParser authentication;
    CVoSecret<wchar_t> authenticationText;
    HRESULT hr = parser.AddParam(kAutoDetectKey, autoDetect);
    if (SUCCEEDED(hr))
        hr = parser.AddParam(kPacFileUrlKey, pacFileUrl);
    if (SUCCEEDED(hr))
        hr = parser.AddParam(kManualProxyKey, manualProxy);
    if (SUCCEEDED(hr))
        hr = parser.AddParam(kManualProxyBypassListKey, manualProxyBypassList);
    if (SUCCEEDED(hr))
        hr = manualProxyAuthenticationData.Serialize(authentication);
    if (SUCCEEDED(hr))
        hr = authentication.GetParamsAsString(authenticationText.Get());
    if (SUCCEEDED(hr))
        hr = parser.AddParam(kManualProxyAuthenticationDataKey, authenticationText.Get());
    if (SUCCEEDED(hr))
        hr = parser.GetParamsAsString(text.Get());
    return FAILED(hr) ? report(372, hr) : hr;
}

HRESULT CHTTPProxyConfigData::Deserialize(std::wstring_view text) noexcept
{
    constexpr CVoReporter report{ kSource, L"CHTTPProxyConfigData::Deserialize" };
    CHTTPProxyConfigData config;
    CSecretParser parser;
    CSecretParser authentication;
    CVoSecret<wchar_t> authenticationText;
    HRESULT hr = parser.ReadParamsFromString(text);
    if (SUCCEEDED(hr))
        hr = parser.GetParam(kAutoDetectKey, config.autoDetect);
    if (SUCCEEDED(hr))
        hr = parser.GetParam(kPacFileUrlKey, config.pacFileUrl);
    if (SUCCEEDED(hr))
        hr = parser.GetParam(kManualProxyKey, config.manualProxy);
    if (SUCCEEDED(hr))
        hr = parser.GetParam(kManualProxyBypassListKey, config.manualProxyBypassList);
    if (SUCCEEDED(hr))
        hr = parser.GetParam(kManualProxyAuthenticationDataKey, authenticationText.Get());
    if (SUCCEEDED(hr))
        hr = authentication.ReadParamsFromString(authenticationText.Get());
    if (SUCCEEDED(hr))
        hr = config.manualProxyAuthenticationData.Deserialize(authentication);
    if (FAILED(hr))
        return report(402, hr);
    *this = std::move(config);
    return S_OK;
}

CProxyConfigHandler::CProxyConfigHandler() noexcept = default;
CProxyConfigHandler::~CProxyConfigHandler() = default;

HRESULT CProxyConfigHandler::Init(const CHTTPProxyConfigData& config, bool& changed) noexcept
{
    constexpr CVoReporter report{ kSource, L"CProxyConfigHandler::Init" };
    try
    {
        CAutoLock lock(&m_lock);
        const bool differs = config != m_config;
        CHTTPProxyConfigData copy(config);
        if (config.UsesDiscovery())
            if (const HRESULT hr = OpenSession(); FAILED(hr))
                return hr;
        m_config = std::move(copy);
        changed = differs;
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(612);
    }
}

HRESULT CProxyConfigHandler::OpenSession() noexcept
{
    constexpr CVoReporter report{ kSource, L"CProxyConfigHandler::Init" };
    try
    {
        if (m_session)
            return S_OK;
        const bool hasAutomaticProxy = VoSystemInformation().systemClass >= ESystemClass::Windows81;
        auto session = std::make_unique<VoWinHttpInterface::WinHttpSessionHandle>();
        if (const HRESULT hr = session->Init(
                kAgent, hasAutomaticProxy ? WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY : WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, 0);
            FAILED(hr))
            return report(630, hr);
        if (const HRESULT hr = session->SetTimeouts(kDiscoveryTimeout, kDiscoveryTimeout, kDiscoveryTimeout, kDiscoveryTimeout);
            FAILED(hr))
            return report(634, hr);
        m_session = std::move(session);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(640);
    }
}

HRESULT CProxyConfigHandler::DiscoverProxy(const std::wstring& url, std::wstring& proxyList, std::wstring& bypassList) noexcept
{
    constexpr CVoReporter report{ kSource, L"CProxyConfigHandler::DiscoverProxy" };
    if (const HRESULT hr = m_session->GetProxyForUrl(url, m_config.pacFileUrl, proxyList, bypassList); FAILED(hr))
        return report(652, hr);
    return S_OK;
}

HRESULT CProxyConfigHandler::GetProxyForURL(const std::wstring& url, std::wstring& proxyList, std::wstring& bypassList,
                                            CHTTPProxyAuthenticationData& authentication) noexcept
{
    constexpr CVoReporter report{ kSource, L"CProxyConfigHandler::GetProxyForURL" };
    try
    {
        CAutoLock lock(&m_lock);
        CHTTPProxyConfigData found;
        if (!m_config.UsesDiscovery())
            found = m_config;
        else if (const HRESULT hr = DiscoverProxy(url, found.manualProxy, found.manualProxyBypassList); FAILED(hr))
            return report(657, hr);
        proxyList.swap(found.manualProxy);
        bypassList.swap(found.manualProxyBypassList);
        authentication = std::move(found.manualProxyAuthenticationData);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(671);
    }
}

HRESULT CProxyConfigHandler::GetManualProxy(std::wstring& proxyList, CHTTPProxyAuthenticationData& authentication) noexcept
{
    constexpr CVoReporter report{ kSource, L"CProxyConfigHandler::GetManualProxy" };
    try
    {
        CAutoLock lock(&m_lock);
        CHTTPProxyConfigData found;
        if (!m_config.UsesDiscovery())
            found = m_config;
        proxyList.swap(found.manualProxy);
        authentication = std::move(found.manualProxyAuthenticationData);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(689);
    }
}

HRESULT CProxyConfigHandler::Clear() noexcept
{
    constexpr CVoReporter report{ kSource, L"CProxyConfigHandler::Clear" };
    CAutoLock lock(&m_lock);
    m_config = CHTTPProxyConfigData();
    if (m_session)
    {
        const HRESULT hr = m_session->Close();
        m_session.reset();
        if (FAILED(hr))
            return report(702, hr);
    }
    return S_OK;
}

HRESULT CProxyConfigHandler::Serialize(CVoSecret<wchar_t>& text) noexcept
{
    constexpr CVoReporter report{ kSource, L"CProxyConfigHandler::Serialize" };
    CAutoLock lock(&m_lock);
    if (const HRESULT hr = m_config.Serialize(text); FAILED(hr))
        return report(712, hr);
    return S_OK;
}
