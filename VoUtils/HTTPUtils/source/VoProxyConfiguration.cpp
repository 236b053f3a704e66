// Reads, serialises and keeps the proxy configuration (VoProxyConfiguration.h). Reports name the store's source, because the
// configuration is part of it.
#include "SecretParser.h"

#include <VoProxyConfiguration.h>
#include <VoProxyList.h>
#include <VoWinHttpInterface.h>

#include <base/VoRecord.h>
#include <base/VoSystemProperties.h>
#include <base/VoUtils.h>

#include <algorithm>

namespace
{
constexpr const wchar_t* kProxyConfigurationSource = L"..\\source\\VoGlobalHTTPProxyStoreImpl";

constexpr CVoRecordTable kAuthenticationFields{ CVoField{ L"AuthenticationDataAreValid", &CHTTPProxyAuthenticationData::valid },
                                                CVoField{ L"AuthenticationDataRequired",
                                                          &CHTTPProxyAuthenticationData::required },
                                                CVoField{ L"UserName", &CHTTPProxyAuthenticationData::userName },
                                                CVoField{ L"Password", &CHTTPProxyAuthenticationData::password } };
constexpr CVoRecordTable kConfigFields{ CVoField{ L"AutoDetectPACFileUrl", &CHTTPProxyConfigData::autoDetect },
                                        CVoField{ L"PACFileURL", &CHTTPProxyConfigData::pacFileUrl },
                                        CVoField{ L"ManualProxy", &CHTTPProxyConfigData::manualProxy },
                                        CVoField{ L"ManualProxyBypassList", &CHTTPProxyConfigData::manualProxyBypassList } };
constexpr const wchar_t* kManualProxyAuthenticationDataKey = L"ManualProxyAuthenticationData"; // parameter text itself

constexpr const wchar_t* kAgent = L"CProxyConfigHandler";
constexpr int kDiscoveryTimeout = 2000; // milliseconds

// The user's Internet settings as the platform gives them. Frees the platform's texts.
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

// Leaves out the proxies of the user's settings that the library cannot use. False when there are such proxies.
bool LeaveOutUnusable(const CVoReporter& report, CHTTPProxyConfigData& config)
{
    if (!VoProxyList::FindProblem(config.manualProxy))
        return true;
    VoProxyList::CContent content = VoProxyList::Read(config.manualProxy);
    for (const VoProxyList::CUnusableEntry& entry : content.unusable)
        report.Message(332, L"Proxy list of the Internet settings, entry %lu is left out: %ls",
                       static_cast<unsigned long>(entry.number), entry.reason);
    report(333, E_INVALIDARG);
    const bool isDirect = content.plain.empty() && content.secure.empty();
    if (isDirect)
        report.Message(334, L"The Internet settings have no proxy for http or https: connecting directly");
    config.manualProxy = isDirect ? std::wstring() : std::move(content.usable);
    return false;
}

// A script's address without its query and without user information.
std::wstring WithoutSecrets(const std::wstring& url)
{
    std::wstring text = url.substr(0, url.find_first_of(L"?#"));
    const size_t begin = text.find(L"://");
    if (begin == std::wstring::npos)
        return text;
    const size_t end = std::min(text.find(L'/', begin + 3), text.size());
    if (const size_t user = text.rfind(L'@', end); user != std::wstring::npos && user > begin)
        text.erase(begin + 3, user + 1 - (begin + 3));
    return text;
}

// Copies a password without leaving a part of it in freed memory.
void CopySecret(std::wstring_view text, CVoSecret<wchar_t>& copy)
{
    CVoSecret<wchar_t> made;
    made.Get().assign(text);
    copy = std::move(made);
}
} // namespace

const wchar_t* CVoProxyExplanation::SourceName() const noexcept
{
    switch (isBypassed ? ESource::None : source)
    {
    case ESource::Manual:
        return L"manual";
    case ESource::Script:
        return L"script";
    case ESource::Detection:
        return L"detection";
    case ESource::None:
        break;
    }
    return isBypassed ? L"bypass" : L"none";
}

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
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CHTTPProxyAuthenticationData::Serialize" };
    const HRESULT hr = kAuthenticationFields.Write(*this, parser);
    return FAILED(hr) ? report(121, hr) : hr;
}

HRESULT CHTTPProxyAuthenticationData::Deserialize(const CVoBinaryDataParser& parser) noexcept
{
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CHTTPProxyAuthenticationData::Deserialize" };
    CHTTPProxyAuthenticationData read;
    if (const HRESULT hr = kAuthenticationFields.Read(parser, read); FAILED(hr))
        return report(136, hr);
    *this = std::move(read);
    return S_OK;
}

HRESULT CHTTPProxyConfigData::InitFromIE() noexcept
{
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CHTTPProxyConfigData::InitFromIE" };
    return report.Guard(340, [&]() -> HRESULT
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
        const bool isComplete = LeaveOutUnusable(report, config);
        *this = std::move(config);
        return isComplete ? S_OK : S_FALSE;
    });
}

HRESULT CHTTPProxyConfigData::Serialize(CVoSecret<wchar_t>& text) const noexcept
{
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CHTTPProxyConfigData::Serialize" };
    CSecretParser parser;
    CSecretParser authentication;
    CVoSecret<wchar_t> authenticationText;
    HRESULT hr = kConfigFields.Write(*this, parser);
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
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CHTTPProxyConfigData::Deserialize" };
    CHTTPProxyConfigData config;
    CSecretParser parser;
    CSecretParser authentication;
    CVoSecret<wchar_t> authenticationText;
    HRESULT hr = parser.ReadParamsFromString(text);
    if (SUCCEEDED(hr))
        hr = kConfigFields.Read(parser, config);
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
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CProxyConfigHandler::Init" };
    return report.Guard(612, [&]() -> HRESULT
    {
        CAutoLock lock(&m_lock);
        const bool differs = config != m_config;
        CHTTPProxyConfigData copy(config);
        if (config.UsesDiscovery())
        {
            if (const HRESULT hr = OpenSession(); FAILED(hr))
                return hr;
        }
        else if (const auto problem = VoProxyList::FindProblem(config.manualProxy))
        {
            report.Message(603, L"Proxy list, entry %lu (0: the whole list) cannot be used: %ls",
                           static_cast<unsigned long>(problem->number), problem->reason);
            return report(604, E_INVALIDARG);
        }
        else if (differs && !config.manualProxy.empty() && VoProxyList::BypassesAll(config.manualProxyBypassList))
            report.Message(606, L"The bypass list \"*\" means no proxy: connecting directly");
        m_config = std::move(copy);
        changed = differs;
        return S_OK;
    });
}

HRESULT CProxyConfigHandler::OpenSession() noexcept
{
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CProxyConfigHandler::Init" };
    return report.Guard(640, [&]() -> HRESULT
    {
        if (m_session)
            return S_OK;
        auto session = std::make_unique<VoWinHttpInterface::WinHttpSessionHandle>();
        if (const HRESULT hr = session->Init(
                kAgent, VoIsWindows81OrLater() ? WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY : WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, 0);
            FAILED(hr))
            return report(630, hr);
        if (const HRESULT hr = session->SetTimeouts(kDiscoveryTimeout, kDiscoveryTimeout, kDiscoveryTimeout, kDiscoveryTimeout);
            FAILED(hr))
            return report(634, hr);
        m_session = std::move(session);
        return S_OK;
    });
}

HRESULT CProxyConfigHandler::DiscoverProxy(const std::wstring& url, std::wstring& proxyList, std::wstring& bypassList,
                                           CVoProxyExplanation* explanation, bool* failed) noexcept
{
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CProxyConfigHandler::DiscoverProxy" };
    return report.Guard(654, [&]() -> HRESULT
    {
        const INT64 start = VoGetMicroseconds();
        DWORD error = ERROR_SUCCESS;
        if (const HRESULT hr = m_session->GetProxyForUrl(url, m_config.pacFileUrl, proxyList, bypassList, &error, failed);
            FAILED(hr))
            return report(652, hr);
        if (explanation)
        {
            using ESource = CVoProxyExplanation::ESource;
            explanation->script = WithoutSecrets(m_config.pacFileUrl);
            explanation->source = m_config.pacFileUrl.empty() ? ESource::Detection : ESource::Script;
            explanation->error = error;
            explanation->tried.push_back({ explanation->script.empty() ? L"find a proxy script in the network, and run it"
                                                                       : L"run the proxy script " + explanation->script,
                                           error == ERROR_SUCCESS ? S_OK : HResultFromWin32(error),
                                           VoGetMicroseconds() - start });
        }
        return S_OK;
    });
}

HRESULT CProxyConfigHandler::GetProxyForURL(const std::wstring& url, std::wstring& proxyList, std::wstring& bypassList,
                                            CHTTPProxyAuthenticationData& authentication, CVoProxyExplanation* explanation,
                                            bool* failed) noexcept
{
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CProxyConfigHandler::GetProxyForURL" };
    return report.Guard(671, [&]() -> HRESULT
    {
        CAutoLock lock(&m_lock);
        CHTTPProxyConfigData found;
        if (failed)
            *failed = false;
        if (!m_config.UsesDiscovery())
        {
            found = m_config;
            if (explanation && !found.manualProxy.empty())
                explanation->source = CVoProxyExplanation::ESource::Manual;
        }
        else if (const HRESULT hr = DiscoverProxy(url, found.manualProxy, found.manualProxyBypassList, explanation, failed);
                 FAILED(hr))
            return report(657, hr);
        proxyList.swap(found.manualProxy);
        bypassList.swap(found.manualProxyBypassList);
        authentication = std::move(found.manualProxyAuthenticationData);
        return S_OK;
    });
}

HRESULT CProxyConfigHandler::GetManualProxy(std::wstring& proxyList, CHTTPProxyAuthenticationData& authentication) noexcept
{
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CProxyConfigHandler::GetManualProxy" };
    return report.Guard(689, [&]() -> HRESULT
    {
        CAutoLock lock(&m_lock);
        CHTTPProxyConfigData found;
        if (!m_config.UsesDiscovery())
            found = m_config;
        proxyList.swap(found.manualProxy);
        authentication = std::move(found.manualProxyAuthenticationData);
        return S_OK;
    });
}

HRESULT CProxyConfigHandler::Clear() noexcept
{
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CProxyConfigHandler::Clear" };
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
    constexpr CVoReporter report{ kProxyConfigurationSource, L"CProxyConfigHandler::Serialize" };
    CAutoLock lock(&m_lock);
    if (const HRESULT hr = m_config.Serialize(text); FAILED(hr))
        return report(712, hr);
    return S_OK;
}
