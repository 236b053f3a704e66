// What the WinHTTP transport asks of the platform, call by call: much of it has no effect that a server under Wine would see.
#include "http/TransportFixture.h"
#include "support/WinHttpHandles.h"

#include <base/VoUtils.h>

#include <gmock/gmock.h>

#include <map>

using namespace TestSupport;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace
{
constexpr UINT32 kKind = 1;
constexpr UINT32 kRewritingKind = 3;

// The answer to whether this is Windows 8.1 or later; Wine's is that of Windows 7.
CCallHook<decltype(&::VerifyVersionInfoW)> WindowsIs81(bool is81)
{
    return { "kernel32.dll", "VerifyVersionInfoW", [is81](auto, OSVERSIONINFOEXW* version, DWORD fields, DWORDLONG)
    {
        EXPECT_TRUE(version->dwMajorVersion == 6 && version->dwMinorVersion == 3 && version->wServicePackMajor == 0);
        EXPECT_EQ(fields, DWORD{ VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR });
        return is81 ? TRUE : FALSE;
    } };
}

// Notes what is asked of the platform and passes it on; refuses some options.
class CPlatform
{
public:
    std::map<DWORD, DWORD> refused; // the errors of options

    // The calls so far that begin so; forgets all. Credentials are set on a thread of the service.
    [[nodiscard]] std::vector<std::wstring> Take(std::wstring_view prefix = {})
    {
        const std::scoped_lock lock(m_lock);
        std::erase_if(m_calls, [=](const std::wstring& call) { return !call.starts_with(prefix); });
        return std::exchange(m_calls, {});
    }

private:
    template <class... Parts>
    bool Note(const wchar_t* format, Parts... parts)
    {
        const std::scoped_lock lock(m_lock);
        m_calls.push_back(VoFormat(format, parts...));
        return true;
    }
    bool Open(LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags)
    {
        return Note(L"Open %ls %lu %d %lx", agent, access, proxy || bypass, flags);
    }
    bool Connect(HINTERNET /*session*/, LPCWSTR host, INTERNET_PORT port, DWORD reserved)
    {
        return Note(L"Connect %ls %hu %lu", host, port, reserved);
    }
    bool OpenRequest(HINTERNET /*connection*/, LPCWSTR verb, LPCWSTR object, LPCWSTR version, LPCWSTR referrer, LPCWSTR* types,
                     DWORD flags)
    {
        return Note(L"Request %ls %ls %ls %d %lx", verb, object, version, referrer || types, flags);
    }
    bool SetOption(HINTERNET /*handle*/, DWORD option, void* value, DWORD length)
    {
        const auto& proxy = *static_cast<const WINHTTP_PROXY_INFO*>(value);
        if (option == WINHTTP_OPTION_PROXY)
            Note(L"Use %lu %ls %d", proxy.dwAccessType, proxy.lpszProxy, proxy.lpszProxyBypass != nullptr);
        else if (length == sizeof(DWORD))
            Note(L"Option %lu %lx", option, *static_cast<const DWORD*>(value));
        const auto error = refused.find(option);
        if (error == refused.end())
            return true;
        ::SetLastError(error->second);
        return false;
    }
    bool SetCredentials(HINTERNET /*request*/, DWORD target, DWORD scheme, LPCWSTR user, LPCWSTR password, void* /*more*/)
    {
        return Note(L"Use %lu %lu %ls %ls", target, scheme, user, password);
    }

    std::mutex m_lock;
    std::vector<std::wstring> m_calls;
#define VO_SEE(function, member)                                                                                               \
    const CCallHook<decltype(&::function)> m_##member                                                                          \
    {                                                                                                                          \
        "winhttp.dll", #function, [this](auto original, auto... call)                                                          \
        { return member(call...) ? original(call...) : decltype(original(call...)){}; }                                        \
    }
    VO_SEE(WinHttpOpen, Open);
    VO_SEE(WinHttpConnect, Connect);
    VO_SEE(WinHttpOpenRequest, OpenRequest);
    VO_SEE(WinHttpSetOption, SetOption);
    VO_SEE(WinHttpSetCredentials, SetCredentials);
#undef VO_SEE
};

Message Connect(const std::wstring& url, CConnecting how = {}, UINT32 kind = kKind)
{
    how.kind = kind;
    how.connectTimeout = 7;
    how.requestTimeout = 9;
    Message message;
    EXPECT_EQ(ConnectTo(url, how, message), S_OK);
    return message;
}

TEST(WinHTTPTransport, SetsTheSessionUpAsTheSystemAllows)
{
    for (const bool is81 : { false, true })
    {
        const auto version = WindowsIs81(is81);
        CPlatform platform;
        ASSERT_TRUE(Connect(L"http://127.0.0.1:9/"));
        EXPECT_THAT(platform.Take(),
                    ElementsAre(is81 ? L"Open CVoHTTPMessageWinHTTP 4 0 10000000" : L"Open CVoHTTPMessageWinHTTP 0 0 10000000",
                                L"Option 3 1b58", L"Option 5 1b58", L"Option 6 2328", L"Option 73 80", L"Option 74 4a",
                                L"Option 7 2328", L"Connect 127.0.0.1 9 0"));
    }
}

TEST(WinHTTPTransport, OpensARequestWithTheSwitchesOfItsAddress)
{
    const std::tuple<const wchar_t*, bool, bool, const wchar_t*, const wchar_t*, const wchar_t*> cases[] = {
        { L"http://server.test/a?b", true, true, L"Request POST /a?b HTTP/1.1 0 100", L"Option 31 3300", L"Option 79 0" },
        { L"https://server.test/", false, false, L"Request POST / HTTP/1.1 0 800100", L"Option 31 3300", L"Option 79 0" },
        { L"https://server.test/", true, false, L"Request POST / HTTP/1.1 0 800100", L"Option 31 0", L"Option 79 0" },
        { L"https://server.test/", true, true, L"Request POST / HTTP/1.1 0 800100", L"Option 31 0", L"Option 79 1" },
    };
    for (const auto& [url, verify, revocation, request, security, features] : cases)
    {
        SCOPED_TRACE(testing::Message() << url << verify << revocation);
        CPlatform platform;
        const Message message = Connect(url, { .verify = verify, .revocation = revocation });
        (void)platform.Take();
        (void)Open(*message);
        EXPECT_THAT(platform.Take(), UnorderedElementsAre(request, security, features, L"Option 88 0", L"Option 63 1"));
    }
}

TEST(WinHTTPTransport, PassesOverARefusedTuningAndOverNothingElse)
{
    struct
    {
        DWORD option, error;
        bool connects, opens;
        bool revocation = false;
    } const cases[] = { { 3, 12009, true, true },   { 73, 12016, true, true },        { 73, 5, false, false },
                        { 6, 87, false, false },    { 79, 87, true, true },           { 79, 12009, true, true },
                        { 79, 12004, true, false }, { 79, 12009, true, false, true }, { 79, 87, true, false, true },
                        { 31, 12009, true, false }, { 63, 12009, true, false },       { 88, 12009, true, false } };
    for (const auto& item : cases)
    {
        SCOPED_TRACE(testing::Message() << item.option << " " << item.error << " " << item.revocation);
        CPlatform platform;
        platform.refused = { { item.option, item.error } };
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

TEST(WinHTTPTransport, RewritesALoopbackAddress)
{
    const std::tuple<const wchar_t*, std::wstring, std::wstring> cases[] = {
        { L"http://LOCALHOST:81/a", L"localhost.localhost", L"/a" },
        { L"http://127.0.0.1/to/127.0.0.1?at=localhost", L"localhost.localhost", L"/to/localhost.localhost?at=localhost" },
        { L"http://localhost/LocalHost", L"localhost.localhost", L"/localhost.localhost" },
        { L"http://127.0.0.10/", L"127.0.0.10", L"/" },
        { L"http://localhost.test/localhost", L"localhost.test", L"/localhost" },
    };
    for (const auto& [url, host, path] : cases)
        for (const UINT32 kind : { kKind, kRewritingKind })
        {
            CPlatform platform;
            (void)Open(*Connect(url, {}, kind));
            const CServerAddressData address = Address(url);
            const bool rewrites = kind == kRewritingKind;
            const std::vector<std::wstring> calls = platform.Take();
            EXPECT_THAT(calls, Contains(VoFormat(L"Connect %ls %hu 0", (rewrites ? host : address.Host()).c_str(),
                                                 address.EffectivePort())));
            EXPECT_THAT(calls, Contains(L"Request POST " + (rewrites ? path : address.ObjectName()) + L" HTTP/1.1 0 100"));
        }
}

TEST(WinHTTPTransport, TakesItsProxyFromTheStore)
{
    struct
    {
        bool is81;
        const wchar_t *url, *list, *user;
        std::vector<std::wstring> calls;
    } const cases[] = {
        { false, L"http://server.test/a?b", L"", L"", {} },
        { false, L"http://server.test/", L"proxy:8080", L"", { L"Use 3 proxy:8080 0" } },
        { false, L"http://server.test/", L"proxy:8080", L"user", { L"Use 3 proxy:8080 0", L"Use 1 1 user hunter2" } },
        { true, L"https://server.test/", L"http=a:1;https=b:2", L"", { L"Use 3 b:2 0" } },
        { true, L"https://server.test/", L"socks=a:1", L"", { L"Use 3 socks=a:1 0" } },
    };
    for (const auto& item : cases)
    {
        SCOPED_TRACE(item.url);
        const auto version = WindowsIs81(item.is81);
        CPlatform platform;
        const auto store = VoMakeComObject<CFixedProxyStore>(item.list, item.user, L"hunter2");
        const CLogCapture log;
        const Message message = Connect(item.url, { .proxies = store.Get() });
        (void)Open(*message);
        // From Windows 8.1 on the store is asked for the configured proxy: the platform finds that of a URL itself.
        EXPECT_THAT(store->asked, ElementsAre(item.is81 ? L"" : item.url));
        EXPECT_EQ(platform.Take(L"Use"), item.calls);
        store->queryResult = E_ACCESSDENIED;
        Request refused;
        EXPECT_EQ(message->OpenRequest(refused), E_ACCESSDENIED);
        EXPECT_EQ(refused, nullptr);
        ExpectNotLogged(log, L"hunter2");
    }
}

// A server that demands credentials as a proxy would: Wine sends requests there directly, whatever option 38 says.
TEST(WinHTTPTransport, AnswersAProxyAndKeepsTheCredentials)
{
    const CServer server([](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (request.Header("Proxy-Authorization") == "Basic dXNlcjpodW50ZXIy") // user:hunter2
            connection.SendResponse(200, {}, request.body);
        else
            connection.SendResponse(407, { { "Proxy-Authenticate", "Basic realm=\"r\"" } });
    });
    const std::wstring base = Wide(server.URL(""));
    const auto callback = VoMakeComObject<CScriptedAuthCallback>();
    callback->AnswerProxy({ { L"user", L"hunter2" } });
    const auto store = VoMakeComObject<CFixedProxyStore>(L"proxy.test:8080");
    CPlatform platform;
    const CLogCapture log;
    const Message message = Connect(base + L"/x", { .callback = callback.Get(), .proxies = store.Get() });
    const Request request = Open(*message);
    EXPECT_THAT(platform.Take(L"Use"), ElementsAre(L"Use 3 proxy.test:8080 0"));
    EXPECT_EQ(SendOn(*message, request), S_OK);
    EXPECT_THAT(callback->Questions(), ElementsAre(L"proxy " + base + L"/x proxy.test:8080"));
    EXPECT_THAT(store->saved, ElementsAre(L"proxy.test:8080 user hunter2"));
    // From now on they are sent without being asked for, by this request and by others.
    EXPECT_EQ(SendOn(*message, request), S_OK);
    EXPECT_EQ(SendOn(*message, Open(*message)), S_OK);
    EXPECT_THAT(callback->Questions(), SizeIs(1));
    const std::vector<std::wstring> uses = platform.Take(L"Use 1");
    EXPECT_GE(uses.size(), 3U);
    EXPECT_THAT(uses, testing::Each(L"Use 1 1 user hunter2"));
    ExpectNotLogged(log, L"hunter2");
}

TEST(WinHTTPTransport, AnswersNothingButBasic)
{
    for (const auto& [status, challenge, scheme] :
         { std::tuple(401U, "WWW-Authenticate", "Negotiate"), { 407U, "Proxy-Authenticate", "NTLM" } })
    {
        const CServer server(Answers(static_cast<int>(status), { { challenge, scheme } }));
        const auto callback = VoMakeComObject<CScriptedAuthCallback>();
        const CAnswer answer = Send(*Connect(Wide(server.URL("")), { .callback = callback.Get() }), {});
        EXPECT_EQ(answer.result, E_NOTIMPL) << scheme;
        EXPECT_EQ(answer.send.statusCode, status);
        EXPECT_THAT(callback->Questions(), IsEmpty());
    }
}

TEST(WinHTTPTransport, NamesTheServerThatARedirectLedTo)
{
    const CServer second(Answers(401, { { "WWW-Authenticate", "Basic realm=\"r\"" } }));
    const std::string target = "http://localhost:" + std::to_string(second.Port()) + "/private";
    const CServer first(Answers(302, { { "Location", target } }));
    const auto callback = VoMakeComObject<CScriptedAuthCallback>();
    const Message message = Connect(Wide(first.URL("")), { .callback = callback.Get() });
    EXPECT_EQ(Send(*message, {}, Kind::Empty).result, kResultCancelled);
    EXPECT_THAT(callback->Questions(), ElementsAre(L"server localhost " + Wide(target)));
}

TEST(WinHTTPTransport, EveryFailureOfTheServiceIsHandled)
{
    const CServer server([](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (request.Header("Authorization").empty())
            connection.SendResponse(401, { { "WWW-Authenticate", "Basic realm=\"r\"" } });
        else
            connection.SendResponse(200, { { "Connection", "close" } }, "a=1");
    });
    CLogCapture log;
    const CAcquireBalance handles = WinHttpHandleBalance();
    const auto run = [&]
    {
        const auto callback = VoMakeComObject<CScriptedAuthCallback>();
        callback->AnswerServer({ { L"user", L"hunter2" } });
        Message message;
        const HRESULT connected = ConnectTo(Wide(server.URL()), { .kind = kKind, .callback = callback.Get() }, message);
        EXPECT_EQ(SUCCEEDED(connected), message != nullptr);
        if (!message)
            return connected;
        const CAnswer answer = Send(*message, MakeMessage({}, "x"));
        EXPECT_EQ(answer.message.GetCount(), SUCCEEDED(answer.result) ? 1U : 0U);
        return answer.result;
    };
    constexpr DWORD kError = ERROR_WINHTTP_INTERNAL_ERROR;
    ExpectEveryFailureIsHandled(
        {
            VO_FAULT("winhttp.dll", WinHttpOpen, nullptr, kError),
            VO_FAULT("winhttp.dll", WinHttpConnect, nullptr, kError),
            VO_FAULT("winhttp.dll", WinHttpOpenRequest, nullptr, kError),
            VO_FAULT("winhttp.dll", WinHttpAddRequestHeaders, FALSE, kError),
            VO_FAULT("winhttp.dll", WinHttpSetStatusCallback, WINHTTP_INVALID_STATUS_CALLBACK, kError),
            VO_FAULT("winhttp.dll", WinHttpSendRequest, FALSE, kError),
            VO_FAULT("winhttp.dll", WinHttpReceiveResponse, FALSE, kError),
            VO_FAULT("winhttp.dll", WinHttpQueryAuthSchemes, FALSE, kError),
            VO_FAULT("winhttp.dll", WinHttpSetCredentials, FALSE, kError),
            VO_FAULT("winhttp.dll", WinHttpQueryDataAvailable, FALSE, kError),
            VO_FAULT("winhttp.dll", WinHttpReadData, FALSE, kError),
        },
        run, [&](HRESULT code) { return TakeReport(log, code); }, { &handles }, false);
}
} // namespace
