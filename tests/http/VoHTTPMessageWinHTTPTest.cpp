// What the WinHTTP transport asks of the platform, call by call, against a stand-in that responds as the platform's
// documentation says.
#include "support/FakeWinHttp.h"
#include "support/HTTPSupport.h"

#include <VoGlobalHTTPCookieStoreImpl.h>

#include <base/VoUtils.h>

#include <VoResponseSink.h>

#include <gmock/gmock.h>

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace
{
constexpr UINT32 kKind = 1;
constexpr UINT32 kRewritingKind = 3;

// Sets the result of the check for Windows 8.1; Wine's prefix may be an older version.
CCallHook<decltype(&::VerifyVersionInfoW)> WindowsIs81(bool is81)
{
    return { "kernel32.dll", "VerifyVersionInfoW", [is81](auto, OSVERSIONINFOEXW* version, DWORD fields, DWORDLONG)
    {
        EXPECT_TRUE(version->dwMajorVersion == 6 && version->dwMinorVersion == 3 && version->wServicePackMajor == 0);
        EXPECT_EQ(fields, DWORD{ VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR });
        return is81 ? TRUE : FALSE;
    } };
}

class WinHTTPTransport : public testing::TestWithParam<bool>
{
protected:
    Message Connect(const wchar_t* url = L"http://server.test/a", CConnecting how = {}, UINT32 kind = kKind)
    {
        how.kind = kind;
        how.connectTimeout = 7;
        how.requestTimeout = 9;
        how.callback = m_callback.Get();
        how.cookies = m_cookies.Get();
        Message message;
        EXPECT_EQ(ConnectTo(url, how, message), S_OK);
        return message;
    }
    void AddCookie(const wchar_t* cookie, const wchar_t* url)
    {
        EXPECT_EQ(m_cookies->AddCookieFromString(CVoBstr(cookie).Get(), CVoBstr(url).Get()), S_OK);
    }

    CFakeWinHttp m_platform{ GetParam() };
    CVoComPtr<CScriptedAuthCallback> m_callback = VoMakeComObject<CScriptedAuthCallback>();
    CVoComPtr<CVoGlobalHTTPCookieStoreImpl> m_cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
};
INSTANTIATE_TEST_SUITE_P(Notifications, WinHTTPTransport, testing::Bool(),
                         [](const auto& tested) { return tested.param ? "OnThreadsOfTheService" : "OnTheCallingThread"; });

TEST_P(WinHTTPTransport, SetsTheSessionUpAsTheSystemAllows)
{
    for (const bool is81 : { false, true })
    {
        const auto version = WindowsIs81(is81);
        ASSERT_TRUE(Connect(L"http://server.test:81/"));
        EXPECT_THAT(m_platform.Take(),
                    ElementsAre(is81 ? "Open CVoHTTPMessageWinHTTP 4 0 10000000" : "Open CVoHTTPMessageWinHTTP 0 0 10000000",
                                "Option h1 3 1b58", "Option h1 5 1b58", "Option h1 6 2328", "Option h1 73 80",
                                "Option h1 74 4a", "Option h1 7 2328", "Connect h1 server.test 81 0", "Close h2", "Close h1"));
    }
}

TEST_P(WinHTTPTransport, OpensARequestWithTheSwitchesOfItsAddress)
{
    const std::tuple<const wchar_t*, bool, bool, const char*, const char*, const char*> cases[] = {
        { L"http://server.test/a?b", true, true, "/a?b HTTP/1.1 0 100", "31 3300", "79 0" },
        { L"https://server.test/", false, false, "/ HTTP/1.1 0 800100", "31 3300", "79 0" },
        { L"https://server.test/", true, false, "/ HTTP/1.1 0 800100", "31 0", "79 0" },
        { L"https://server.test/", true, true, "/ HTTP/1.1 0 800100", "31 0", "79 1" },
    };
    for (const auto& [url, verify, revocation, request, security, features] : cases)
    {
        SCOPED_TRACE(testing::Message() << url << verify << revocation);
        const Message message = Connect(url, { .verify = verify, .revocation = revocation });
        (void)m_platform.Take();
        const Request opened = Open(*message);
        // Over TLS it says that there is no certificate of the user.
        EXPECT_EQ(m_platform.Has("No h3 47 0"), std::wstring_view(url).starts_with(L"https"));
        EXPECT_THAT(m_platform.Take({ "Request", "Option" }),
                    UnorderedElementsAre(std::string("Request h2 POST ") + request, std::string("Option h3 ") + security,
                                         std::string("Option h3 ") + features, "Option h3 88 0", "Option h3 63 1"));
    }
}

TEST_P(WinHTTPTransport, IgnoresARefusedSwitchOffAndNoOtherFailure)
{
    struct
    {
        DWORD option, error;
        bool connects, opens;
        bool revocation = false;
    } const cases[] = { { 3, 12009, false, false }, { 73, 12016, false, false },      { 74, 12009, false, false },
                        { 6, 87, false, false },    { 79, 87, true, true },           { 79, 12009, true, true },
                        { 79, 12004, true, false }, { 79, 12009, true, false, true }, { 79, 87, true, false, true },
                        { 31, 12009, true, false }, { 63, 12009, true, false },       { 88, 12009, true, false },
                        { 47, 12009, true, true } };
    for (const auto& item : cases)
    {
        SCOPED_TRACE(testing::Message() << item.option << " " << item.error << " " << item.revocation);
        m_platform.errors = { { "Option " + std::to_string(item.option), { item.error } } };
        const HRESULT code = HResultFromWin32(item.error);
        const CLogCapture log;
        Message message;
        EXPECT_EQ(ConnectTo(L"https://server.test/", { .kind = kKind, .verify = true, .revocation = item.revocation }, message),
                  item.connects ? S_OK : code);
        Request request;
        EXPECT_EQ(message ? message->OpenRequest(request) : code, item.opens ? S_OK : code);
        EXPECT_EQ(request != nullptr, item.opens);
        EXPECT_FALSE(log.Lines().empty()) << "a refusal is traced";
    }
}

// The platform's function for headers as bytes, which later releases of Windows 10 have.
std::string g_addedBytes;
DWORD WINAPI AddHeaderBytes(HINTERNET, DWORD, ULONGLONG flags, ULONGLONG, DWORD count, const void* headers)
{
    EXPECT_TRUE(flags == 0 && count == 1);
    const auto* const header = static_cast<const std::pair<LPCSTR, LPCSTR>*>(headers);
    g_addedBytes += header->first + std::string(": ") + header->second + '\n';
    return ERROR_SUCCESS;
}

TEST_P(WinHTTPTransport, ExchangesCookiesBeyondAsciiAsBytes)
{
    const CCallHook<decltype(&::GetProcAddress)> hook("kernel32.dll", "GetProcAddress",
                                                      [](auto original, HMODULE module, LPCSTR name)
    {
        const bool isAdd = reinterpret_cast<ULONG_PTR>(name) > 0xFFFF && name == std::string_view("WinHttpAddRequestHeadersEx");
        return isAdd ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&AddHeaderBytes)) : original(module, name);
    });
    m_platform.knowsBytes = true;
    m_platform.responses = { { .headers = { { L"Set-Cookie", L"a=\x00C3\x00BC\x00FF; Path=/" } } } };
    const Message message = Connect(L"http://server.test/");
    EXPECT_EQ(Send(*message, {}).result, S_OK);
    EXPECT_EQ(g_addedBytes, "") << "a cookie of ASCII characters needs no bytes";
    EXPECT_EQ(Send(*message, {}).result, S_OK);
    EXPECT_EQ(std::exchange(g_addedBytes, {}), "Cookie: a=\xC3\xBC\xFF\n");
}

TEST_P(WinHTTPTransport, RewritesALoopbackAddress)
{
    const std::tuple<const wchar_t*, const char*, const char*> cases[] = {
        { L"http://LOCALHOST:81/a", "localhost.localhost 81", "/a" },
        { L"http://127.0.0.1/to/127.0.0.1?at=localhost", "localhost.localhost 80", "/to/localhost.localhost?at=localhost" },
        { L"http://localhost/LocalHost", "localhost.localhost 80", "/localhost.localhost" },
        { L"http://127.0.0.10/", "127.0.0.10 80", "/" },
        { L"http://localhost.test/localhost", "localhost.test 80", "/localhost" },
    };
    for (const auto& [url, host, path] : cases)
    {
        (void)Open(*Connect(url, {}, kRewritingKind));
        EXPECT_THAT(
            m_platform.Take({ "Connect", "Request" }),
            ElementsAre(std::string("Connect h1 ") + host + " 0", std::string("Request h2 POST ") + path + " HTTP/1.1 0 100"));
    }
    (void)Open(*Connect(L"http://localhost/localhost"));
    EXPECT_THAT(m_platform.Take("Connect"), ElementsAre("Connect h1 localhost 80 0")) << "the other kind rewrites nothing";
}

TEST_P(WinHTTPTransport, TakesItsProxyFromTheStore)
{
    struct
    {
        bool is81;
        const wchar_t *url, *list, *user;
        std::vector<std::string> calls;
    } const cases[] = {
        { false, L"http://server.test/a?b", L"", L"", {} },
        { false, L"http://server.test/", L"proxy:8080", L"", { "Use h3 3 proxy:8080 0" } },
        { false, L"http://server.test/", L"proxy:8080", L"user", { "Use h3 3 proxy:8080 0", "Use h3 1 1 user hunter2" } },
        { false, L"http://server.test/", L"user:hunter2@proxy:8080", L"", { "Use h3 3 user:hunter2@proxy:8080 0" } },
        { true, L"https://server.test/", L"http=a:1;https=b:2", L"", { "Use h3 3 b:2 0" } },
        { true, L"https://server.test/", L"socks=a:1", L"", { "Use h3 3 socks=a:1 0" } },
    };
    for (const auto& item : cases)
    {
        SCOPED_TRACE(item.url);
        const auto version = WindowsIs81(item.is81);
        const auto store = VoMakeComObject<CFixedProxyStore>(item.list, item.user, L"hunter2");
        const CLogCapture log;
        const Message message = Connect(item.url, { .proxies = store.Get() });
        (void)Open(*message);
        // From Windows 8.1 on the store is asked for the configured proxy: the platform finds that of a URL itself.
        EXPECT_THAT(store->asked, ElementsAre(item.is81 ? L"" : item.url));
        EXPECT_EQ(m_platform.Take("Use"), item.calls);
        store->queryResult = E_ACCESSDENIED;
        Request refused;
        EXPECT_EQ(message->OpenRequest(refused), E_ACCESSDENIED);
        EXPECT_EQ(refused, nullptr);
        ExpectNotLogged(log, L"hunter2");
    }
}

TEST_P(WinHTTPTransport, AsksForProxyCredentialsOnceAndSetsThemBeforeEachSend)
{
    for (const HRESULT saving : { S_OK, E_ACCESSDENIED })
    {
        m_callback = VoMakeComObject<CScriptedAuthCallback>();
        m_callback->AnswerProxy({ { L"user", L"hunter2" } });
        const auto store = VoMakeComObject<CFixedProxyStore>(L"proxy.test:8080");
        store->saveResult = saving;
        const CLogCapture log;
        const Message message = Connect(L"http://server.test/x?secret=1", { .proxies = store.Get() });
        const Request request = Open(*message);
        m_platform.responses = { { .status = 407 }, {} };
        (void)m_platform.Take();
        EXPECT_EQ(SendOn(*message, request), S_OK);
        EXPECT_THAT(m_platform.Take({ "Use", "Send" }), ElementsAre("Send h3 2", "Use h3 1 1 user hunter2", "Send h3 2"));
        EXPECT_THAT(m_callback->Questions(), ElementsAre(L"proxy http://server.test/x proxy.test:8080"));
        EXPECT_EQ(store->saved, std::vector<std::wstring>(saving == S_OK ? 1 : 0, L"proxy.test:8080 user hunter2"));
        // Both this request, also when they are not kept, and the next send them from the start.
        for (const Request& next : { request, saving == S_OK ? Open(*message) : request })
        {
            (void)m_platform.Take();
            EXPECT_EQ(SendOn(*message, next), S_OK);
            const std::vector<std::string> calls = m_platform.Take({ "Use", "Send" });
            ASSERT_THAT(calls, testing::SizeIs(testing::Ge(2U)));
            EXPECT_THAT(calls[calls.size() - 2], testing::EndsWith(" 1 1 user hunter2"));
            EXPECT_THAT(calls.back(), testing::StartsWith("Send"));
        }
        EXPECT_THAT(m_callback->Questions(), SizeIs(1));
        ExpectNotLogged(log, L"hunter2");
    }
}

TEST_P(WinHTTPTransport, AsksForAProxyThatTheServiceHasFoundAndForNoOther)
{
    const std::tuple<const wchar_t*, const wchar_t*, const wchar_t*> cases[] = {
        { L"http://server.test/a", L"", L"proxy.test" },
        { L"http://server.test/a", L"", L"server.test" },
        { L"http://server.test/a", L"", L"" },
        { L"http://server.test/a", L"socks=a:1", L"server.test" },
        { L"http://server.test/a", L"socks=a:1", L"proxy.test" },
        { L"http://server.test./a", L"", L"server.test" },
        { L"http://serve\xFF52.test/a", L"", L"server.test" },
        { L"http://127.1/a", L"", L"127.0.0.1" },
    };
    for (const auto& [url, list, resolved] : cases)
    {
        SCOPED_TRACE(testing::Message() << url << " " << list << " " << resolved);
        m_callback = VoMakeComObject<CScriptedAuthCallback>();
        m_callback->AnswerProxy({ { L"user", L"hunter2" } });
        m_platform.resolved = resolved;
        m_platform.responses = { { .status = 407 }, {} };
        const auto store = VoMakeComObject<CFixedProxyStore>(list);
        const bool isProxy = resolved == std::wstring_view(L"proxy.test");
        EXPECT_EQ(Send(*Connect(url, { .proxies = store.Get() }), {}).result, isProxy ? S_OK : E_FAIL);
        EXPECT_EQ(m_platform.Has("Use h3 1 1 user hunter2"), isProxy);
        EXPECT_EQ(m_callback->Questions(),
                  std::vector<std::wstring>(isProxy ? 1 : 0, L"proxy http://server.test/a proxy.test"));
        (void)m_platform.Take();
    }
}

// The service may find another proxy for another target.
TEST_P(WinHTTPTransport, CredentialsOfAFoundProxyStayWithTheTargetThatTheyWereTypedFor)
{
    m_callback->AnswerProxy({ { L"user", L"hunter2" } });
    m_platform.resolved = L"proxy.test";
    m_platform.responses = { { .status = 307, .headers = { { L"Location", L"http://other.test/b" } } },
                             { .status = 407 },
                             { .status = 307, .headers = { { L"Location", L"http://server.test/c" } } },
                             {} };
    EXPECT_EQ(Send(*Connect(), {}).result, S_OK);
    EXPECT_THAT(m_platform.Take("Use"), ElementsAre("Use h5 1 1 user hunter2"));
}

TEST_P(WinHTTPTransport, AnswersNothingButBasic)
{
    m_platform.schemes = WINHTTP_AUTH_SCHEME_NTLM | WINHTTP_AUTH_SCHEME_NEGOTIATE;
    for (const DWORD status : { 401U, 407U })
    {
        m_platform.responses = { { .status = status } };
        const CResponse response = Send(*Connect(), {});
        EXPECT_EQ(response.result, E_NOTIMPL);
        EXPECT_EQ(response.send.statusCode, status);
        EXPECT_THAT(m_callback->Questions(), IsEmpty());
    }
}

TEST_P(WinHTTPTransport, ARedirectToAnotherHostCarriesNoCredentialsAndNoCookies)
{
    AddCookie(L"own=1", L"http://server.test/");
    AddCookie(L"other=2", L"http://other.test/");
    m_callback->AnswerServer({ { L"ann", L"s3cret" }, { L"ann", L"s3cret" } });
    m_platform.responses = {
        { .status = 401 }, { .status = 307, .headers = { { L"Location", L"http://other.test:81/x?y" } } }, { .status = 401 }, {}
    };
    const Message message = Connect();
    const Request request = Open(*message);
    EXPECT_EQ(SendOn(*message, request), S_OK);
    EXPECT_EQ(m_platform.sent, "&&") << "307 keeps the body";
    EXPECT_THAT(m_platform.Take({ "Connect", "Request", "Header h3 Cookie", "Header h5 Cookie", "Use", "Send", "Close" }),
                ElementsAre("Connect h1 server.test 80 0", "Request h2 POST /a HTTP/1.1 0 100", "Header h3 Cookie:own=1",
                            "Send h3 2", "Use h3 0 1 ann s3cret", "Send h3 2", "Close h3", "Connect h1 other.test 81 0",
                            "Request h4 POST /x?y HTTP/1.1 0 100", "Header h5 Cookie:other=2", "Send h5 2",
                            "Use h5 0 1 ann s3cret", "Send h5 2"));
    EXPECT_THAT(m_callback->Questions(),
                ElementsAre(L"server server.test http://server.test/a", L"server other.test http://other.test:81/x"));
}

TEST_P(WinHTTPTransport, RedirectsEnd)
{
    const std::tuple<const wchar_t*, DWORD, const wchar_t*, size_t> cases[] = {
        { L"https://server.test/", 302, L"http://server.test/", 1 },
        { L"http://server.test/", 302, L"http://a@b/", 1 },
        { L"http://server.test/", 304, L"/x", 1 },
        { L"http://server.test/", 303, L"https://server.test/", 31 },
    };
    for (const auto& [url, status, location, sends] : cases)
    {
        SCOPED_TRACE(testing::Message() << url << " " << status << " " << location);
        m_platform.responses = { { .status = status, .headers = { { L"Location", location } } } };
        const CResponse response = Send(*Connect(url), {});
        EXPECT_EQ(response.result, kResultUnexpectedStatus);
        EXPECT_EQ(response.send.statusCode, status);
        EXPECT_THAT(m_platform.Take("Send"), SizeIs(sends));
        EXPECT_EQ(m_platform.sent, sends == 1 ? "&&" : "") << "a redirect by 303 is a GET";
        EXPECT_THAT(m_platform.open, IsEmpty());
    }
}

TEST_P(WinHTTPTransport, ARetryUsesAFreshHandle)
{
    m_platform.responses = { { .status = 500 }, { .error = ERROR_WINHTTP_CONNECTION_ERROR }, {} };
    const CResponse response = Send(*Connect(), {}, Kind::Raw, true);
    EXPECT_EQ(response.result, S_OK);
    EXPECT_TRUE(response.send.retried);
    EXPECT_EQ(ParamsOf(response.message), (Params{ { L"a", L"1" } }));
    const std::vector<std::string> calls = m_platform.Take({ "Send", "Close" });
    EXPECT_THAT(calls,
                ElementsAre("Send h3 2", "Close h3", "Send h4 2", "Close h4", "Send h5 2", "Close h5", "Close h2", "Close h1"));
}

TEST_P(WinHTTPTransport, CancelEndsEachCallThatWaits)
{
    class CSink final : public IVoResponseSink
    {
        HRESULT Write(std::span<const BYTE> /*bytes*/) noexcept override { return S_OK; }
    } sink;
    for (const auto& [function, hasSink] : { std::pair("Send", false),
                                             { "Receive", false },
                                             { "Available", false },
                                             { "Read", false },
                                             { "Available", true },
                                             { "Read", true } })
    {
        SCOPED_TRACE(function);
        const Message message = Connect();
        const Request request = Open(*message);
        if (hasSink)
            request->SetResponseSink(&sink, Response::Parameters);
        m_platform.hanging = function;
        EXPECT_EQ(CancelWhen(m_platform.hangs, *message, request), kResultCancelled);
        m_platform.hanging.clear();
        EXPECT_EQ(Send(*message, {}).result, S_OK) << "the message is usable";
    }
    EXPECT_THAT(m_platform.open, IsEmpty());
}

TEST_P(WinHTTPTransport, CancelEndsARequestWhoseHandleIsBeingOpened)
{
    const Message message = Connect();
    Request request = Open(*message);
    const Request cancelled = request;
    const CCallHook<decltype(&::WinHttpSetOption)> hook(
        "winhttp.dll", "WinHttpSetOption", [&](auto original, HINTERNET handle, DWORD option, void* value, DWORD length)
    {
        cancelled->Cancel(); // as another thread may
        return handle ? original(handle, option, value, length) : (::SetLastError(ERROR_INVALID_HANDLE), FALSE);
    });
    EXPECT_EQ(message->SendGetRequest(request, L"/other", false, nullptr), kResultCancelled);
}

TEST_P(WinHTTPTransport, AFailedConnectNamesTheProxyThatTheServiceFound)
{
    const std::pair<const wchar_t*, const wchar_t*> table[] = {
        { L"SERVER.test", L"could not connect to server.test port 80: connection refused or not reachable" },
        { L"proxy.test", L"could not connect to the proxy proxy.test: connection refused or not reachable" },
    };
    for (const auto& [resolved, reason] : table)
    {
        m_platform.resolved = resolved;
        m_platform.responses = { { .error = ERROR_WINHTTP_CANNOT_CONNECT } };
        const Message message = Connect();
        const Request request = Open(*message);
        EXPECT_EQ(SendOn(*message, request), HResultFromWin32(ERROR_WINHTTP_CANNOT_CONNECT));
        CVoExchangeRecord record;
        ASSERT_EQ(request->GetExchangeRecord(record), S_OK);
        EXPECT_EQ(record.Reason(), reason);
    }
}

TEST_P(WinHTTPTransport, TheBitsOfASecureFailureTellTheFault)
{
    // The documented bits (documentation of WINHTTP_STATUS_CALLBACK), alone and together; 0: no such notification.
    const std::pair<DWORD, EVoFailure> table[] = {
        { 0, EVoFailure::Certificate },
        { WINHTTP_CALLBACK_STATUS_FLAG_CERT_REV_FAILED, EVoFailure::RevocationUnknown },
        { WINHTTP_CALLBACK_STATUS_FLAG_INVALID_CERT, EVoFailure::Certificate },
        { WINHTTP_CALLBACK_STATUS_FLAG_CERT_REVOKED, EVoFailure::CertificateRevoked },
        { WINHTTP_CALLBACK_STATUS_FLAG_INVALID_CA, EVoFailure::CertificateIssuer },
        { WINHTTP_CALLBACK_STATUS_FLAG_CERT_CN_INVALID, EVoFailure::CertificateName },
        { WINHTTP_CALLBACK_STATUS_FLAG_CERT_DATE_INVALID, EVoFailure::CertificateDate },
        { 0x40, EVoFailure::Certificate }, // ..._CERT_WRONG_USAGE
        { WINHTTP_CALLBACK_STATUS_FLAG_SECURITY_CHANNEL_ERROR, EVoFailure::TlsHandshake },
        { WINHTTP_CALLBACK_STATUS_FLAG_CERT_REV_FAILED | WINHTTP_CALLBACK_STATUS_FLAG_CERT_REVOKED,
          EVoFailure::CertificateRevoked },
    };
    for (const auto& [bits, fault] : table)
    {
        SCOPED_TRACE(bits);
        m_platform.responses = { { .error = ERROR_WINHTTP_SECURE_FAILURE, .secureFailure = bits } };
        const Message message = Connect(L"https://server.test/", { .verify = true, .revocation = true });
        const Request request = Open(*message);
        EXPECT_EQ(SendOn(*message, request), HResultFromWin32(ERROR_WINHTTP_SECURE_FAILURE));
        CVoExchangeRecord record;
        ASSERT_EQ(request->GetExchangeRecord(record), S_OK);
        EXPECT_EQ(record.attempts.at(0).failure, fault) << testing::PrintToString(record.Reason());
    }
}

TEST_P(WinHTTPTransport, HandlesAreClosedChildrenFirstAndAPendingResponseIsLost)
{
    m_platform.responses = { { .status = 302, .headers = { { L"Location", L"http://other.test/" } } }, {} };
    Message message = Connect();
    const Request sent = Open(*message);
    ASSERT_EQ(SendOn(*message, sent), S_OK);
    (void)m_platform.Take();
    ASSERT_EQ(message->Connect(Address(L"http://other.test/"), nullptr, nullptr, nullptr, 5, 5, false, false), S_OK);
    EXPECT_THAT(m_platform.Take("Close"), ElementsAre("Close h5", "Close h4", "Close h2", "Close h1"));
    CVoBinaryDataParser response;
    EXPECT_EQ(message->ReadResponse(sent, response, Response::Parameters, nullptr, nullptr), E_FAIL);
    EXPECT_EQ(SendOn(*message, sent), E_INVALIDARG);
}

TEST_P(WinHTTPTransport, ARequestThatCouldNotBeOpenedAgainCanBeSentLater)
{
    const Message message = Connect();
    const Request request = Open(*message);
    EXPECT_EQ(SendOn(*message, request), S_OK);
    m_platform.errors["Request"] = { ERROR_NOT_ENOUGH_MEMORY };
    EXPECT_EQ(SendOn(*message, request), HResultFromWin32(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_EQ(SendOn(*message, request), S_OK);
}
} // namespace
