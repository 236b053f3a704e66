// The whole doctor against servers of this machine's loopback: probes, judgement, report.
#include "Scenarios.h"

#include <VoDiagnosis.h>
#include <VoDiagnosisRender.h>

#include <LoopbackServer.h>
#include <support/HTTPSupport.h>
#include <support/ImportHook.h>
#include <support/TestServers.h>

#include <gtest/gtest.h>

#include <iphlpapi.h>
#include <wincrypt.h>

#define SECURITY_WIN32
#include <security.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <regex>
#include <thread>
#include <tuple>

namespace
{
using namespace Scenarios;
using Loopback::CConnection;
using Loopback::CRequest;
using Options = CVoDiagnosisOptions;

constexpr UINT32 kCurl = 2;
// The secrets that stand in every request and response.
constexpr const char* kSecrets[] = { "planted-secret", "planted-cookie", "planted-password", "cGxhbnRlZC" };

// A store of its own, so that no test sees what another one found.
void UseProxy(Options& options, const CHTTPProxyConfigData& config)
{
    options.proxyStore = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
    EXPECT_EQ(options.proxyStore->Init(config), S_OK);
    options.isProxyGiven = true;
}
void UseProxy(Options& options, const std::string& proxy)
{
    CHTTPProxyConfigData config;
    config.manualProxy = TestSupport::Wide(proxy);
    UseProxy(options, config);
}
void UseScript(Options& options, const std::string& url)
{
    CHTTPProxyConfigData config;
    config.pacFileUrl = TestSupport::Wide(url);
    UseProxy(options, config);
}
void OnlyCurl(Options& options)
{
    options.engines = { kCurl };
    options.configuredEngine = kCurl;
}
void NoChange(Options& /*options*/) {}

CVoDiagnosisReport DiagnoseAll(const std::string& url, const std::function<void(Options&)>& change = NoChange)
{
    Options options;
    options.url = TestSupport::Wide(url);
    options.probeTimeout = 20;
    UseProxy(options, CHTTPProxyConfigData());
    change(options);
    CVoDiagnosisReport report;
    EXPECT_EQ(CVoDiagnosis(options).Run(nullptr, report), S_OK);
    const std::string outputs = OutputsOf(report);
    for (const char* const secret : kSecrets)
        EXPECT_EQ(outputs.find(secret), std::string::npos) << secret;
    EXPECT_TRUE(
        std::none_of(outputs.begin(), outputs.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 && c != '\n'; }));
    return report;
}
// Over libcurl alone, which is quick.
CVoDiagnosisReport Diagnose(const std::string& url, const std::function<void(Options&)>& change = NoChange)
{
    return DiagnoseAll(url, [&](Options& options)
    {
        OnlyCurl(options);
        change(options);
    });
}
std::string Result(const CVoDiagnosisReport& report)
{
    return std::string(VoVerdictName(report.verdict)) + ' ' + report.failedCheck + ' ' + report.cause;
}
std::string CauseOf(const CVoDiagnosisReport& report, const std::string& id)
{
    for (const CVoCheck& check : report.checks)
        if (check.id == id)
            return check.cause;
    return "no such check";
}

CVoComPtr<IVoAuthenticationCallback> Answers()
{
    auto answers = VoMakeComObject<TestSupport::CScriptedAuthCallback>();
    answers->AnswerServer({ { L"user", L"planted-password" } });
    answers->AnswerProxy({ { L"user", L"planted-password" } });
    return { answers.Get() };
}

// One server with a fault on each path; every other path is healthy.
void Serve(const CRequest& request, CConnection& connection)
{
    const Loopback::CHeaders cookie{ { "Set-Cookie", "id=planted-cookie" }, { "X-Hostile", "\x1b[31m<script>" } };
    const std::string_view path = request.Path();
    if (path == "/404" || path == "/503" || path == "/511" || path == "/204")
        connection.SendResponse(std::stoi(std::string(path.substr(1))), cookie);
    else if (path == "/private" && request.Header("Authorization").empty())
        connection.SendResponse(401, { { "WWW-Authenticate", "Basic realm=\"\x1b[2J\"" } });
    else if (path == "/bearer")
        connection.SendResponse(401, { { "WWW-Authenticate", "Bearer" } });
    else if (path == "/loop")
        connection.SendResponse(302, { { "Location", "/loop?planted-secret" } });
    else if (path == "/truncated")
    {
        connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf");
        connection.CloseNow();
    }
    else if (path == "/lost")
        connection.CloseNow();
    else if (path == "/malformed")
    {
        connection.Send("\x1b[31mSMTP ready <script>\r\n\r\n");
        connection.CloseNow();
    }
    else if (path == "/silent")
        connection.WaitForPeerClose(std::chrono::seconds(30));
    else if (path == "/old")
        connection.SendResponse(200, { { "Date", "Sun, 06 Nov 1994 08:49:37 GMT" } }, "x");
    else
        connection.SendResponse(200, cookie, "<html>\x1b[31m</html>");
}

TEST(Diagnosis, FindsTheFaultOfARealServer)
{
    const Loopback::CLoopbackServer server(Serve);
    const std::pair<const char*, const char*> table[] = {
        { "/", "ok  " },
        { "/404", "server http-curl status_4xx" },
        { "/503", "server http-curl status_5xx" },
        { "/204", "server http-curl response_malformed" },
        { "/511", "portal portal captive_portal" },
        { "/private", "credentials http-curl authentication" },
        { "/bearer", "credentials http-curl scheme_unsupported" },
        { "/loop", "server http-curl redirect_loop" },
        { "/truncated", "server http-curl response_truncated" },
        { "/lost", "server http-curl connection_lost" },
        { "/malformed", "server http-curl response_malformed" },
        { "/old", "degraded  " },
    };
    for (const auto& [path, result] : table)
    {
        SCOPED_TRACE(path);
        const CVoDiagnosisReport report = Diagnose(server.URL(path) + "?planted-secret");
        EXPECT_EQ(Result(report), result);
        EXPECT_EQ(CauseOf(report, "clock"), std::string_view(path) == "/old" ? "clock_skew" : "");
    }
}

TEST(Diagnosis, TriesAllTransportsSideBySide)
{
    const Loopback::CLoopbackServer server(Serve);
    const CVoDiagnosisReport healthy = DiagnoseAll(server.URL("/?planted-secret"));
    EXPECT_EQ(Result(healthy), "ok  ");
    EXPECT_EQ(healthy.timelines.size(), 3U);
    for (const CVoTimeline& line : healthy.timelines)
    {
        EXPECT_EQ(line.statusCode, 200U) << line.engine;
        EXPECT_TRUE(line.firstByte || line.total) << line.engine;
    }
    EXPECT_EQ(Result(DiagnoseAll(server.URL("/404"))), "server http-wininet status_4xx");
    // WinINet does not answer challenges; the others do. No dialog is shown.
    const CVoDiagnosisReport answered = DiagnoseAll(server.URL("/private"), [](Options& o) { o.makeAuthCallback = Answers; });
    EXPECT_EQ(Result(answered), "credentials http-wininet authentication");
    EXPECT_EQ(answered.recommendedEngine, "winhttp");
    EXPECT_EQ(CauseOf(answered, "agreement"), "transports_differ");
    EXPECT_EQ(Result(DiagnoseAll(server.URL("/"), [](Options& o) { o.post = true; })), "ok  ");
}

TEST(Diagnosis, FindsThatNobodyListens)
{
    std::string url;
    {
        const Loopback::CLoopbackServer server(Serve);
        url = server.URL("/?planted-secret");
    }
    EXPECT_EQ(Result(DiagnoseAll(url)), "server connect connect_refused");
    EXPECT_EQ(Result(Diagnose("http://no-such-name.invalid/")), "name name name_not_found");
    EXPECT_EQ(Result(Diagnose("ftp://user:planted-password@h/?planted-secret")), "address address address_malformed");
    // Without an adapter the network is the fault.
    const CCallHook<decltype(&::GetAdaptersAddresses)> noAdapter("iphlpapi.dll", "GetAdaptersAddresses",
                                                                 [](auto...) -> ULONG { return ERROR_NO_DATA; });
    EXPECT_EQ(Result(Diagnose("http://no-such-name.invalid/")), "network name name_not_found");
}

TEST(Diagnosis, FollowsARedirectToAnotherHost)
{
    Loopback::COptions elsewhere;
    elsewhere.host = 2;
    const Loopback::CLoopbackServer other(Serve, elsewhere);
    const Loopback::CLoopbackServer server([&](const CRequest&, CConnection& connection)
    { connection.SendResponse(302, { { "Location", other.URL("/?planted-secret") } }); });
    const CVoDiagnosisReport report = Diagnose(server.URL());
    EXPECT_EQ(Result(report), "degraded  ");
    EXPECT_EQ(CauseOf(report, "http-curl"), "redirect_other_host");
}

TEST(Diagnosis, FindsTheFaultOfAProxy)
{
    const Loopback::CLoopbackServer server(Serve);
    std::atomic<int> mode{ 0 };
    const Loopback::CLoopbackServer proxy([&](const CRequest& request, CConnection& connection)
    {
        if (mode == 1)
            connection.SendResponse(403, { { "Proxy-Status", "proxy; error=http_request_denied" } });
        else if (mode == 2 && request.Header("Proxy-Authorization").empty())
            connection.SendResponse(407, { { "Proxy-Authenticate", "Basic realm=\"r\"" } });
        else if (mode == 3)
            connection.SendResponse(407, { { "Proxy-Authenticate", "Bearer" } });
        else if (mode == 4)
            connection.CloseNow();
        else
            Serve(request, connection);
    });
    const std::string name = "127.0.0.1:" + std::to_string(proxy.Port());
    const auto through = [&](int how, bool answers = false)
    {
        mode = how;
        return Diagnose("http://www.test/?planted-secret", [&](Options& o)
        {
            UseProxy(o, name);
            if (answers)
                o.makeAuthCallback = Answers;
        });
    };
    EXPECT_EQ(Result(through(0)), "ok  ");
    EXPECT_EQ(Result(through(1)), "proxy proxy-connect proxy_denied");
    EXPECT_EQ(Result(through(2)), "credentials proxy-connect proxy_authentication");
    EXPECT_EQ(Result(through(2, true)), "ok  ");
    EXPECT_EQ(Result(through(3)), "proxy proxy-connect proxy_scheme_unsupported");
    EXPECT_EQ(Result(through(4)), "proxy proxy-connect proxy_refused");

    std::string closed;
    {
        const Loopback::CLoopbackServer gone(Serve);
        closed = "127.0.0.1:" + std::to_string(gone.Port());
    }
    EXPECT_EQ(Result(Diagnose(server.URL(), [&](Options& o) { UseProxy(o, closed); })), "proxy proxy-connect proxy_refused");
    EXPECT_EQ(Result(Diagnose(server.URL(), [&](Options& o) { UseProxy(o, "no-such-proxy.invalid:8080"); })),
              "proxy proxy-connect proxy_name_not_found");

    // Scripts: one that is not there, and one that names a dead proxy.
    const Loopback::CLoopbackServer scripts([&](const CRequest& request, CConnection& connection)
    {
        if (request.Path() == "/dead.pac")
            connection.SendResponse(200, { { "Content-Type", "application/x-ns-proxy-autoconfig" } },
                                    "function FindProxyForURL(u, h) { return 'PROXY " + closed + "'; }");
        else
            connection.SendResponse(404);
    });
    const CVoDiagnosisReport missing =
        Diagnose(server.URL(), [&](Options& o) { UseScript(o, scripts.URL("/none.pac?planted-secret")); });
    EXPECT_EQ(Result(missing), "degraded  ");
    EXPECT_EQ(CauseOf(missing, "proxy"), "proxy_script_unreachable");
    EXPECT_EQ(Result(Diagnose("http://www.test/", [&](Options& o) { UseScript(o, scripts.URL("/dead.pac")); })),
              "proxy proxy-connect proxy_refused");
}

TEST(Diagnosis, JudgesTheCertificatesOfARealServer)
{
    VO_NEEDS_TEST_SERVERS();
    const TestSupport::CTestServers& servers = *TestSupport::TestServers();
    const auto cause = [](uint16_t port)
    { return CauseOf(Diagnose("https://localhost:" + std::to_string(port) + "/post"), "tls"); };
    EXPECT_EQ(cause(servers.tlsPort), "certificate_issuer");
    EXPECT_EQ(cause(servers.otherHostPort), "certificate_name");
    EXPECT_EQ(cause(servers.expiredPort), "certificate_expired");
    EXPECT_EQ(cause(servers.port), "not_tls");
    // With the check switched off the program accepts any certificate.
    const CVoDiagnosisReport accepted =
        Diagnose(servers.SecureURL("/post"), [](Options& o) { o.verifyServerCertificate = false; });
    EXPECT_EQ(Result(accepted), "degraded  ");
    // The same through a tunnel.
    const CVoDiagnosisReport tunnel = Diagnose(servers.SecureURL("/post"), [&](Options& o)
    { UseProxy(o, "127.0.0.1:" + std::to_string(servers.squidPort)); });
    EXPECT_EQ(CauseOf(tunnel, "tls"), "certificate_issuer");
    EXPECT_EQ(CauseOf(tunnel, "proxy-connect"), "");
}

TEST(Diagnosis, ReportsTheCertificateAndTheConnectionInFull)
{
    VO_NEEDS_TEST_SERVERS();
    const std::string json = VoRenderJson(Diagnose(TestSupport::TestServers()->SecureURL("/post")));
    for (const char* const fact :
         { R"("protocol":\s*"TLS 1\.[23]")", R"("cipher":\s*"AES with (128|256) bits")", R"("subject":\s*"[^"]*CN=localhost)",
           R"("issuer":\s*"[^"]*CN=)", R"("names":\s*\[\s*"localhost")", R"("key":\s*"RSA 2048")",
           R"("signature":\s*"sha256RSA")", R"("sha256":\s*"[0-9A-F]{64}")" })
        EXPECT_TRUE(std::regex_search(json, std::regex(fact))) << fact << json.substr(json.find("chain"), 1500);
}

// The platform's answer about revocation, in place of the issuer's servers.
TEST(Diagnosis, FindsARevokedCertificateAndAnIssuerWhoseServersDoNotAnswer)
{
    VO_NEEDS_TEST_SERVERS();
    constexpr DWORD kSilent = MAXDWORD; // the call does not return in time
    static DWORD s_status;
    static HANDLE s_end;
    s_end = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const CCallHook<decltype(&::CertGetCertificateChain)> hook("crypt32.dll", "CertGetCertificateChain",
                                                               [](auto original, auto engine, auto certificate, auto time,
                                                                  auto store, auto parameters, DWORD flags, auto reserved,
                                                                  PCCERT_CHAIN_CONTEXT* chain)
    {
        const bool isRevocation = (flags & CERT_CHAIN_REVOCATION_CHECK_CHAIN_EXCLUDE_ROOT) != 0;
        if (isRevocation && s_status == kSilent)
            return ::WaitForSingleObject(s_end, INFINITE) == WAIT_FAILED ? TRUE : FALSE;
        const BOOL isMade = original(engine, certificate, time, store, parameters, 0, reserved, chain);
        const_cast<CERT_CHAIN_CONTEXT*>(*chain)->TrustStatus.dwErrorStatus = isRevocation ? s_status : 0;
        return isMade;
    });
    const std::pair<DWORD, const char*> table[] = {
        { 0, "" },
        { CERT_TRUST_IS_REVOKED, "certificate_revoked" },
        { CERT_TRUST_IS_REVOKED | CERT_TRUST_REVOCATION_STATUS_UNKNOWN, "certificate_revoked" },
        { CERT_TRUST_REVOCATION_STATUS_UNKNOWN, "revocation_unknown" },
        { CERT_TRUST_IS_OFFLINE_REVOCATION | CERT_TRUST_REVOCATION_STATUS_UNKNOWN, "revocation_unknown" },
        { CERT_TRUST_IS_OFFLINE_REVOCATION, "revocation_unknown" },
        { kSilent, "revocation_unknown" },
    };
    for (const auto& [status, cause] : table)
    {
        SCOPED_TRACE(status);
        s_status = status;
        const CVoDiagnosisReport report = Diagnose(TestSupport::TestServers()->SecureURL("/post"), [](Options& o)
        {
            o.checkRevocation = true;
            o.probeTimeout = 2;
        });
        EXPECT_EQ(CauseOf(report, "tls"), cause);
    }
    ::SetEvent(s_end);
}

TEST(Diagnosis, APolicyThatCannotBeCheckedIsNotPassed)
{
    VO_NEEDS_TEST_SERVERS();
    const CCallHook<decltype(&::CertGetCertificateChain)> trust("crypt32.dll", "CertGetCertificateChain",
                                                                [](auto original, auto... arguments)
    {
        const BOOL isMade = original(arguments...);
        PCCERT_CHAIN_CONTEXT* const chain = std::get<7>(std::tuple(arguments...));
        const_cast<CERT_CHAIN_CONTEXT*>(*chain)->TrustStatus.dwErrorStatus = 0;
        return isMade;
    });
    const std::string url = TestSupport::TestServers()->SecureURL("/post");
    EXPECT_EQ(CauseOf(Diagnose(url), "tls"), "");
    const CFailOnCall<decltype(&::CertVerifyCertificateChainPolicy)> unknown(
        "crypt32.dll", "CertVerifyCertificateChainPolicy", 1, FALSE, static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(CauseOf(Diagnose(url), "tls"), "certificate_issuer");
}

// A server may continue the handshake at any time. In TLS 1.3 it sends tickets.
TEST(Diagnosis, TheServersDateIsReadBehindARenewedHandshake)
{
    VO_NEEDS_TEST_SERVERS();
    // Ten years on, every certificate is too old: the date of the response tells that the clock is wrong.
    const CCallHook<decltype(&::GetSystemTimeAsFileTime)> clock("kernel32.dll", "GetSystemTimeAsFileTime",
                                                                [](auto original, LPFILETIME time)
    {
        original(time);
        time->dwHighDateTime += 10 * 365 * 24 * 3600 / 429; // units of 429 seconds
    });
    // Over WinHTTP the certificate is refused: no response but that of the probe has a date.
    const auto cause = []
    {
        return CauseOf(DiagnoseAll(TestSupport::TestServers()->SecureURL("/post"), [](Options& o) { o.engines = { 1 }; }),
                       "clock");
    };
    EXPECT_EQ(cause(), "clock_skew");

    static std::atomic<int> s_handshakes;
    s_handshakes = 0;
    const CCallHook<decltype(&::DecryptMessage)> decrypt("secur32.dll", "DecryptMessage",
                                                         [](auto original, auto context, PSecBufferDesc message, auto... rest)
    {
        if (s_handshakes != 0)
            return original(context, message, rest...);
        SecBuffer* const buffers = message->pBuffers;
        buffers[3] = { buffers[0].cbBuffer, SECBUFFER_EXTRA, buffers[0].pvBuffer };
        buffers[0].BufferType = SECBUFFER_STREAM_HEADER;
        s_handshakes = 1;
        return SECURITY_STATUS{ SEC_I_RENEGOTIATE };
    });
    const CCallHook<decltype(&::InitializeSecurityContextW)> handshake(
        "secur32.dll", "InitializeSecurityContextW", [](auto original, auto credentials, auto context, auto... rest)
    {
        if (s_handshakes != 1)
            return original(credentials, context, rest...);
        const PSecBufferDesc input = std::get<4>(std::tuple(rest...));
        input->pBuffers[1] = { input->pBuffers[0].cbBuffer, SECBUFFER_EXTRA, nullptr };
        s_handshakes = 2;
        return SECURITY_STATUS{ SEC_E_OK };
    });
    EXPECT_EQ(cause(), "clock_skew");
    EXPECT_EQ(s_handshakes, 2);
}

// What each state of a check was, in order.
class CStates final : public IVoDiagnosisObserver
{
public:
    void OnCheck(const CVoCheck& check) noexcept override { m_states[check.id].push_back(check.status); }
    [[nodiscard]] const std::map<std::string, std::vector<EVoCheckStatus>>& States() const noexcept { return m_states; }

private:
    std::map<std::string, std::vector<EVoCheckStatus>> m_states;
};

TEST(Diagnosis, TellsEachFinalStateOnce)
{
    const Loopback::CLoopbackServer server(Serve);
    Options options;
    options.url = TestSupport::Wide(server.URL());
    UseProxy(options, CHTTPProxyConfigData());
    CStates states;
    CVoDiagnosisReport report;
    CVoDiagnosis diagnosis(options);
    ASSERT_EQ(diagnosis.Run(&states, report), S_OK);
    EXPECT_EQ(diagnosis.Run(&states, report), E_UNEXPECTED);
    for (const CVoCheck& check : report.checks)
    {
        const auto found = states.States().find(check.id);
        ASSERT_NE(found, states.States().end()) << check.id;
        EXPECT_EQ(found->second.back(), check.status) << check.id;
        EXPECT_EQ(found->second.front(), EVoCheckStatus::Waiting) << check.id;
        EXPECT_LE(found->second.size(), 3U) << check.id;
    }
    options.engines = { 9 };
    EXPECT_EQ(CVoDiagnosis(options).Run(nullptr, report), E_INVALIDARG);
    options.engines = { kCurl };
    options.probeTimeout = 0;
    EXPECT_EQ(CVoDiagnosis(options).Run(nullptr, report), E_INVALIDARG);
}

// Answers when it is told to.
class CSlowUser final : public CVoIUnknownImplWithFreeThreadedMarshaller<IVoAuthenticationCallback>
{
public:
    explicit CSlowUser(std::shared_future<void> decided) : m_decided(std::move(decided)) {}

    STDMETHODIMP SetParentWindow(HWND) noexcept override { return S_OK; }
    STDMETHODIMP OnProxyAuthNeeded(BSTR, BSTR, BSTR, BSTR*, BSTR*, VARIANT_BOOL*) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP OnServerAuthNeeded(BSTR, BSTR, BSTR, BSTR* user, BSTR* password, VARIANT_BOOL* cancelled) noexcept override
    {
        m_asked = VoGetMicroseconds();
        m_decided.wait();
        *user = ::SysAllocString(L"ann");
        *password = ::SysAllocString(L"secret");
        *cancelled = VARIANT_FALSE;
        return S_OK;
    }

    // Since when it is asked; 0: it is not.
    [[nodiscard]] INT64 Asked() const noexcept { return m_asked; }

private:
    std::shared_future<void> m_decided;
    std::atomic<INT64> m_asked{ 0 };
};

TEST(Diagnosis, TimeDoesNotRunOutWhileTheUserIsAsked)
{
    const Loopback::CLoopbackServer server([](const CRequest& request, CConnection& connection)
    {
        const bool isKnown = !request.Header("Authorization").empty();
        connection.SendResponse(isKnown ? 200 : 401, { { "WWW-Authenticate", "Basic realm=\"x\"" } });
    });
    std::promise<void> decided;
    const auto user = VoMakeComObject<CSlowUser>(decided.get_future().share());
    bool isDecided = false;
    const CVoDiagnosisReport report = Diagnose(server.URL(), [&](Options& options)
    {
        options.probeTimeout = 3;
        options.makeAuthCallback = [&] { return CVoComPtr<IVoAuthenticationCallback>(user.Get()); };
        options.isAsking = [&]
        {
            // Longer than a request may take.
            const bool isAsking = user->Asked() != 0 && VoGetMicroseconds() - user->Asked() < 3'500'000;
            if (user->Asked() != 0 && !isAsking && !std::exchange(isDecided, true))
                decided.set_value();
            return isAsking;
        };
    });
    EXPECT_EQ(report.verdict, EVoVerdict::Ok) << Narrow(report.summary);
    EXPECT_TRUE(isDecided);
}

TEST(Diagnosis, EndsWhenItIsCancelled)
{
    std::promise<void> arrived;
    std::once_flag once;
    const Loopback::CLoopbackServer server([&](const CRequest& request, CConnection& connection)
    {
        if (request.Path() == "/silent")
            std::call_once(once, [&] { arrived.set_value(); });
        Serve(request, connection);
    });
    Options options;
    options.url = TestSupport::Wide(server.URL("/silent"));
    options.probeTimeout = 3600;
    UseProxy(options, CHTTPProxyConfigData());
    OnlyCurl(options);
    CVoDiagnosis diagnosis(options);
    CVoDiagnosisReport report;
    std::thread canceller([&]
    {
        arrived.get_future().wait();
        diagnosis.Cancel();
        diagnosis.Cancel();
    });
    EXPECT_EQ(diagnosis.Run(nullptr, report), kResultCancelled);
    canceller.join();
    EXPECT_TRUE(report.isCancelled);
    EXPECT_EQ(report.failedCheck, "");
    for (const CVoCheck& check : report.checks)
        EXPECT_TRUE(check.IsFinal()) << check.id;
    // Before its run, too.
    CVoDiagnosis early(options);
    early.Cancel();
    EXPECT_EQ(early.Run(nullptr, report), kResultCancelled);
}

TEST(Diagnosis, TellsASilentServerAfterTheTimeOfAProbe)
{
    const Loopback::CLoopbackServer server(Serve);
    EXPECT_EQ(Result(Diagnose(server.URL("/silent"), [](Options& o) { o.probeTimeout = 1; })), "server http-curl timeout");
}
} // namespace
