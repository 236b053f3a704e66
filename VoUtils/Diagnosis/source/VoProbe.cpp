// The probes below HTTP (VoProbe.h): settings, name, connections, proxy, plain HTTP.
#include "VoProbe.h"

#include "VoDiagnosisFinding.h"
#include "VoDiagnosisJudge.h"

#include <VoNetworkUtils.h>
#include <VoProxyList.h>

#include <base/VoDateTime.h>
#include <base/VoErrorHandler.h>
#include <base/VoModuleSettings.h>
#include <base/VoPaths.h>

#include <iphlpapi.h>

#include <algorithm>

namespace VoDiagnosis
{
namespace
{
constexpr const char* kAgent = "User-Agent: VoUtils connection doctor\r\nAccept: */*\r\nConnection: close\r\n";
constexpr UINT16 kHttpPort = 80;

CApply CollectSettings(const CProbeContext&)
{
    CSettingsFacts facts;
    const CVoErrorLogFile& log = VoErrorLog();
    const CVoModuleSettings& s = log.Settings();
    const std::wstring folder = VoModuleSettingsDirectory();
    facts.file = folder + L"\\ModuleSettings.ini";
    facts.exists = ::GetFileAttributesW(facts.file.c_str()) != INVALID_FILE_ATTRIBUTES;
    (void)VoReadModuleSettings(folder, &facts.problems);
    const auto add = [&](const wchar_t* key, const std::wstring& value)
    { facts.values.push_back(std::wstring(key) + L'=' + value); };
    const auto flag = [](bool value) { return std::wstring(value ? L"1" : L"0"); };
    add(L"SETTINGS/HTTPEngine", std::to_wstring(s.httpEngine));
    add(L"SETTINGS/HTTPCheckServerCert", flag(s.checkServerCertificate));
    add(L"SETTINGS/HTTPCheckServerCertRevocation", flag(s.checkCertificateRevocation));
    add(L"DEBUG/APPLOG", flag(s.applicationLog));
    add(L"DEBUG/Directory", s.directory);
    facts.isLogOn = log.IsApplicationLogOn();
    facts.logFile = log.LogFilePath();
    if (facts.isLogOn)
    {
        // The log says only whether its last line was written.
        VoReportMessage(L"..\\source\\VoProbe", 60, L"The connection doctor looks at the log");
        if (const DWORD error = log.LastWriteError(); error != ERROR_SUCCESS)
            facts.logError = ErrorTextOf(HResultFromWin32(error));
    }
    return [facts = std::move(facts)](CFacts& all) { all.settings = facts; };
}

// Whether an adapter other than the loopback one is up. True where the platform does not tell.
bool HasNetwork()
{
    constexpr ULONG kFlags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
    std::vector<BYTE> bytes(16 * 1024);
    ULONG error = ERROR_BUFFER_OVERFLOW;
    for (int attempt = 0; attempt < 3 && error == ERROR_BUFFER_OVERFLOW; ++attempt)
    {
        auto size = static_cast<ULONG>(bytes.size());
        error =
            ::GetAdaptersAddresses(AF_UNSPEC, kFlags, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(bytes.data()), &size);
        if (error == ERROR_BUFFER_OVERFLOW)
            bytes.resize(size);
    }
    if (error == ERROR_NO_DATA)
        return false; // no adapter has an address
    if (error != ERROR_SUCCESS)
        return true;
    for (const auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(bytes.data()); adapter; adapter = adapter->Next)
        if (adapter->OperStatus == IfOperStatusUp && adapter->IfType != IF_TYPE_SOFTWARE_LOOPBACK)
            return true;
    return false;
}

CApply CollectName(const CProbeContext& context)
{
    CNameFacts facts;
    std::vector<CSocketAddress> addresses;
    facts.error = Resolve(context.facts.address.asciiHost, context.facts.address.port, addresses);
    facts.addresses.reserve(addresses.size());
    for (const CSocketAddress& address : addresses)
        facts.addresses.push_back(address.text);
    if (addresses.empty())
        facts.hasNetwork = HasNetwork();
    return [facts = std::move(facts)](CFacts& all) { all.name = facts; };
}

std::vector<CSocketAddress> AddressesOf(const CFacts& facts)
{
    std::vector<CSocketAddress> addresses;
    addresses.reserve(facts.name.addresses.size());
    for (const std::wstring& text : facts.name.addresses)
        addresses.push_back(MakeSocketAddress(text, facts.address.port));
    return addresses;
}

CApply CollectConnect(const CProbeContext& context)
{
    std::vector<CConnectAttempt> attempts = ConnectToAll(AddressesOf(context.facts), context.Limit());
    return [attempts = std::move(attempts)](CFacts& all) { all.connect = attempts; };
}

// Proxies that this machine names in other places. The store uses the user's Internet settings only.
std::vector<std::wstring> UnusedProxies(bool isSecure)
{
    std::vector<std::wstring> found;
    const wchar_t* const name = isSecure ? L"https_proxy" : L"http_proxy";
    if (const DWORD size = ::GetEnvironmentVariableW(name, nullptr, 0); size > 1)
    {
        std::wstring value(size, L'\0');
        // A value that has grown meanwhile gives the size that it needs now: it is left out.
        const DWORD length = ::GetEnvironmentVariableW(name, value.data(), size);
        value.resize(length < size ? length : 0);
        // A user and a password may stand in front of the host.
        if (const size_t at = value.rfind(L'@'); at != std::wstring::npos)
            value.erase(0, at + 1);
        if (!value.empty())
            found.push_back(L"the environment: " + value);
    }
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_CURRENT_USER, L"Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings", 0, KEY_READ,
                        &key) == ERROR_SUCCESS)
    {
        const std::unique_ptr<HKEY__, void (*)(HKEY)> owner(key, [](HKEY k) { ::RegCloseKey(k); });
        DWORD enabled = 0;
        DWORD size = sizeof enabled;
        wchar_t server[1024]{};
        DWORD serverSize = sizeof server;
        if (::RegGetValueW(key, nullptr, L"ProxyEnable", RRF_RT_REG_DWORD, nullptr, &enabled, &size) == ERROR_SUCCESS &&
            enabled != 0 &&
            ::RegGetValueW(key, nullptr, L"ProxyServer", RRF_RT_REG_SZ, nullptr, server, &serverSize) == ERROR_SUCCESS &&
            server[0] != 0)
            if (const std::wstring proxy = VoProxyList::ProxyForScheme(server, isSecure); !proxy.empty())
                found.push_back(L"the Internet settings: " + proxy);
    }
    return found;
}

CApply CollectProxy(const CProbeContext& context)
{
    CProxyFacts facts;
    facts.result = context.proxyStore->ExplainProxyForUrl(context.options->url, facts.explanation);
    for (std::wstring& unused : UnusedProxies(context.facts.address.isSecure))
        if (facts.explanation.proxy.empty() || !unused.ends_with(facts.explanation.proxy))
            facts.unused.push_back(std::move(unused));
    return [facts = std::move(facts)](CFacts& all) { all.proxy = facts; };
}

// A proxy's name and port: "host:port", or "[address]:port".
void SplitProxy(const std::wstring& proxy, std::wstring& host, UINT16& port)
{
    const size_t colon = proxy.rfind(L':');
    host = proxy.substr(0, colon);
    port = colon == std::wstring::npos ? kHttpPort : VoParseDecimal<UINT16>(proxy.substr(colon + 1)).value_or(kHttpPort);
    if (host.starts_with(L'[') && host.ends_with(L']'))
        host = host.substr(1, host.size() - 2);
}

// The host as requests write it: an IPv6 address in brackets.
std::string HostHeaderOf(const CAddressFacts& address)
{
    const std::wstring& name = address.asciiHost;
    return AsciiOf(name.find(L':') != std::wstring::npos ? L'[' + name + L']' : name);
}

std::string ConnectRequest(const CAddressFacts& address)
{
    const std::string target = HostHeaderOf(address) + ':' + std::to_string(address.port);
    return "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n" + "User-Agent: VoUtils connection doctor\r\n\r\n";
}

EOutcome ConnectToProxy(const std::wstring& proxy, const CWaitLimit& limit, CProbeSocket& socket, bool& isNameKnown,
                        std::vector<CConnectAttempt>& attempts)
{
    std::wstring host;
    UINT16 port = 0;
    SplitProxy(proxy, host, port);
    std::vector<CSocketAddress> addresses;
    isNameKnown = Resolve(host, port, addresses) == 0;
    if (!isNameKnown)
        return EOutcome::Error;
    attempts = ConnectToAll(addresses, limit);
    for (size_t i = 0; i < attempts.size(); ++i)
        if (attempts[i].outcome == EOutcome::Ok)
            return socket.Connect(addresses[i], limit);
    return EOutcome::TimedOut;
}

CApply CollectProxyConnect(const CProbeContext& context)
{
    CProxyConnectFacts facts;
    const CAddressFacts& address = context.facts.address;
    facts.isTunnel = address.isSecure;
    CProbeSocket socket;
    facts.outcome =
        ConnectToProxy(context.facts.proxy.explanation.proxy, context.Limit(), socket, facts.isNameKnown, facts.attempts);
    if (facts.outcome == EOutcome::Ok)
    {
        // The server's root, whatever the address: its path and query are for the server alone.
        const std::string request = address.isSecure
                                        ? ConnectRequest(address)
                                        : "HEAD http://" + AuthorityOf(address) +
                                              "/ HTTP/1.1\r\nHost: " + AuthorityOf(address) + "\r\n" + kAgent + "\r\n";
        const CPlainResponse response = Ask(socket, request, false, context.Limit());
        facts.outcome = response.outcome;
        facts.isHttp = response.isHttp && response.statusCode != 0;
        facts.statusCode = response.statusCode;
        facts.statusLine = response.statusLine;
        facts.schemes = SchemesOf(response, L"Proxy-Authenticate");
        facts.date = response.Header(L"Date");
        // Marks of a proxy's own responses: RFC 9209, and the header of a widespread proxy.
        facts.isOwnStatus = response.statusCode == 407 || !response.Header(L"Proxy-Status").empty() ||
                            !response.Header(L"X-Squid-Error").empty() || response.statusCode == 502 ||
                            response.statusCode == 504;
    }
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    return [facts = std::move(facts), now](CFacts& all)
    {
        all.proxyConnect = facts;
        all.proxyTime = now;
    };
}

bool HasGatewayMark(std::string_view body) noexcept
{
    // The mark of the Wi-Fi Alliance's protocol for access gateways.
    return body.find("WISPAccessGatewayParam") != std::string_view::npos;
}

CApply CollectPortal(const CProbeContext& context)
{
    CPortalFacts facts;
    const CAddressFacts& address = context.facts.address;
    facts.outcome = EOutcome::TimedOut;
    for (const CConnectAttempt& attempt : context.facts.connect)
    {
        if (!address.isSecure && attempt.outcome != EOutcome::Ok)
            continue;
        CProbeSocket socket;
        facts.outcome =
            socket.Connect(MakeSocketAddress(attempt.address, address.isSecure ? kHttpPort : address.port), context.Limit());
        if (facts.outcome != EOutcome::Ok)
            continue;
        CAddressFacts plain = address;
        plain.isSecure = false;
        plain.port = address.isSecure ? kHttpPort : address.port;
        const CPlainResponse response =
            Ask(socket, "GET / HTTP/1.1\r\nHost: " + AuthorityOf(plain) + "\r\n" + kAgent + "\r\n", true, context.Limit());
        facts.outcome = response.outcome;
        facts.isHttp = response.isHttp && response.statusCode != 0;
        facts.statusCode = response.statusCode;
        facts.date = response.Header(L"Date");
        if (response.statusCode >= 300 && response.statusCode < 400)
        {
            const std::wstring location = response.Header(L"Location");
            facts.location = ReportedUrl(location);
            facts.targetHost = HostOf(location);
            VoNetworkUtils::CVoIPAddress target;
            if (MakeSocketAddress(facts.targetHost, 0).length != 0 && SUCCEEDED(target.InitFromIPAddress(facts.targetHost)))
                facts.isTargetPrivate = target.IsPrivateAddress();
        }
        facts.hasGatewayMark = HasGatewayMark(response.body);
        break;
    }
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    return [facts = std::move(facts), now](CFacts& all)
    {
        all.portal = facts;
        all.portalTime = now;
    };
}

bool Always(const CFacts&)
{
    return true;
}
bool IsValid(const CFacts& f)
{
    return f.address.isValid;
}
bool HasAddresses(const CFacts& f)
{
    return !f.name.addresses.empty();
}
bool IsProxyUsed(const CFacts& f)
{
    return !f.proxy.explanation.proxy.empty();
}
bool IsConnected(const CFacts& f)
{
    return std::any_of(f.connect.begin(), f.connect.end(), [](const CConnectAttempt& a) { return a.outcome == EOutcome::Ok; });
}
bool HasPathForTls(const CFacts& f)
{
    return f.address.isSecure && (IsProxyUsed(f) ? f.proxyConnect.statusCode / 100 == 2 : IsConnected(f));
}
// A page of somebody else may answer by plain HTTP where nothing answers on the server's own port.
bool CanAskPlain(const CFacts& f)
{
    return !IsProxyUsed(f) && !f.connect.empty() && (f.address.isSecure || IsConnected(f));
}
} // namespace

void CStop::Signal() noexcept
{
    std::function<void()> hook;
    {
        const CVoLockHolder lock(m_lock);
        if (m_isSignalled)
            return;
        m_isSignalled = true;
        hook.swap(m_hook);
    }
    (void)m_event.Set();
    if (hook)
        hook();
}

void CStop::SetHook(std::function<void()> hook)
{
    {
        const CVoLockHolder lock(m_lock);
        if (!m_isSignalled)
        {
            m_hook.swap(hook);
            return;
        }
    }
    if (hook)
        hook();
}

const std::vector<CProbeRow>& Probes()
{
    static const std::vector<CProbeRow> s_probes{
        { EProbe::Settings, {}, &Always, &CollectSettings },
        { EProbe::Name, { EProbe::Address }, &IsValid, &CollectName },
        { EProbe::Connect, { EProbe::Name }, &HasAddresses, &CollectConnect },
        { EProbe::Proxy, { EProbe::Address }, &IsValid, &CollectProxy },
        { EProbe::ProxyConnect, { EProbe::Proxy }, &IsProxyUsed, &CollectProxyConnect },
        { EProbe::Tls, { EProbe::Connect, EProbe::ProxyConnect }, &HasPathForTls, &CollectTls },
        { EProbe::Portal, { EProbe::Connect, EProbe::Proxy }, &CanAskPlain, &CollectPortal },
    };
    return s_probes;
}

EOutcome OpenConnection(const CProbeContext& context, CProbeSocket& socket)
{
    const CFacts& f = context.facts;
    if (IsProxyUsed(f))
    {
        bool isNameKnown = false;
        std::vector<CConnectAttempt> attempts;
        if (const EOutcome outcome = ConnectToProxy(f.proxy.explanation.proxy, context.Limit(), socket, isNameKnown, attempts);
            outcome != EOutcome::Ok)
            return outcome;
        const CPlainResponse response = Ask(socket, ConnectRequest(f.address), false, context.Limit());
        return response.outcome != EOutcome::Ok ? response.outcome
               : response.statusCode / 100 == 2 ? EOutcome::Ok
                                                : EOutcome::Refused;
    }
    EOutcome outcome = EOutcome::Unreachable;
    for (const CConnectAttempt& attempt : f.connect)
        if (attempt.outcome == EOutcome::Ok)
        {
            outcome = socket.Connect(MakeSocketAddress(attempt.address, f.address.port), context.Limit());
            break;
        }
    return outcome;
}

std::string AsciiOf(std::wstring_view text)
{
    std::string ascii;
    for (const wchar_t c : text)
        ascii += c > L' ' && c < 0x7F ? static_cast<char>(c) : '?';
    return ascii;
}

std::string AuthorityOf(const CAddressFacts& address)
{
    const std::string host = HostHeaderOf(address);
    const UINT16 standard = address.isSecure ? 443 : kHttpPort;
    return address.port == standard ? host : host + ':' + std::to_string(address.port);
}
} // namespace VoDiagnosis
