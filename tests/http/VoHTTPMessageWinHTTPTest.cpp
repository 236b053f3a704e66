// What the WinHTTP transport asks of the platform, call by call: much of it has no effect that a server under Wine would see.
#include "http/TransportFixture.h"
#include "support/WinHttpHandles.h"

#include <base/VoUtils.h>

#include <gmock/gmock.h>

#include <map>

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

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

// Notes what the platform is asked for and what is set, and refuses some options.
class CPlatform
{
public:
    std::map<DWORD, DWORD> refused; // the errors of options
    std::wstring session;           // of the last that was opened: "agent access flags"
    std::wstring host;              // of the last connection
    std::wstring request;           // of the last that was opened: "verb object version flags"
    std::vector<std::pair<DWORD, DWORD>> options;
    std::vector<std::wstring> proxies;
    std::vector<std::wstring> credentials; // "target scheme user password"

private:
    HINTERNET Open(decltype(&::WinHttpOpen) original, LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags)
    {
        EXPECT_FALSE(proxy || bypass);
        session = VoFormat(L"%ls %lu %lx", agent, access, flags);
        return original(agent, access, proxy, bypass, flags);
    }
    HINTERNET Connect(decltype(&::WinHttpConnect) original, HINTERNET handle, LPCWSTR name, INTERNET_PORT port, DWORD reserved)
    {
        host = name;
        return original(handle, name, port, reserved);
    }
    HINTERNET OpenRequest(decltype(&::WinHttpOpenRequest) original, HINTERNET handle, LPCWSTR verb, LPCWSTR object,
                          LPCWSTR version, LPCWSTR referrer, LPCWSTR* types, DWORD flags)
    {
        EXPECT_FALSE(referrer || types);
        request = VoFormat(L"%ls %ls %ls %lx", verb, object, version, flags);
        return original(handle, verb, object, version, referrer, types, flags);
    }
    BOOL SetOption(decltype(&::WinHttpSetOption) original, HINTERNET handle, DWORD option, void* value, DWORD length)
    {
        if (option == WINHTTP_OPTION_PROXY)
        {
            const auto& info = *static_cast<const WINHTTP_PROXY_INFO*>(value);
            EXPECT_EQ(info.dwAccessType, DWORD{ WINHTTP_ACCESS_TYPE_NAMED_PROXY });
            EXPECT_EQ(info.lpszProxyBypass, nullptr);
            proxies.emplace_back(info.lpszProxy);
        }
        else if (length == sizeof(DWORD))
            options.emplace_back(option, *static_cast<const DWORD*>(value));
        const auto error = refused.find(option);
        if (error == refused.end())
            return original(handle, option, value, length);
        ::SetLastError(error->second);
        return FALSE;
    }
    BOOL SetCredentials(decltype(&::WinHttpSetCredentials) original, HINTERNET handle, DWORD target, DWORD scheme, LPCWSTR user,
                        LPCWSTR password, void* more)
    {
        const std::scoped_lock lock(m_lock); // a thread of the service sets them
        credentials.push_back(VoFormat(L"%lu %lu %ls %ls", target, scheme, user, password));
        return original(handle, target, scheme, user, password, more);
    }

    std::mutex m_lock;
#define VO_SEE(function, member)                                                                                               \
    const CCallHook<decltype(&::function)> m_##member                                                                          \
    {                                                                                                                          \
        "winhttp.dll", #function, [this](auto... call) { return member(call...); }                                             \
    }
    VO_SEE(WinHttpOpen, Open);
    VO_SEE(WinHttpConnect, Connect);
    VO_SEE(WinHttpOpenRequest, OpenRequest);
    VO_SEE(WinHttpSetOption, SetOption);
    VO_SEE(WinHttpSetCredentials, SetCredentials);
#undef VO_SEE
};

std::shared_ptr<CVoHTTPMessage> Connect(const std::wstring& url, IVoAuthenticationCallback* callback = nullptr,
                                        IVoHTTPProxyStore* proxies = nullptr, bool verify = false, bool revocation = false,
                                        HRESULT expected = S_OK, UINT32 kind = kKind)
{
    CServerAddressData address;
    EXPECT_EQ(address.SetAddress(url, false, true, true), S_OK);
    const CTransportScope scope(kind);
    std::shared_ptr<CVoHTTPMessage> message;
    EXPECT_EQ(CVoHTTPMessage::Connect(address, callback, proxies, nullptr, 7, 9, verify, revocation, message), expected);
    return message;
}
Request Open(CVoHTTPMessage& message)
{
    Request request;
    EXPECT_EQ(message.OpenRequest(request), S_OK);
    return request;
}
HRESULT Send(CVoHTTPMessage& message, const Request& request, CVoHTTPMessage::CSendResult* result = nullptr)
{
    return message.SendMessage(request, MakeMessage({}, "x"), Kind::Raw, true, {}, {}, false, result);
}

TEST(WinHTTPTransport, SetsTheSessionUpAsTheSystemAllows)
{
    for (const bool is81 : { false, true })
    {
        const auto version = WindowsIs81(is81);
        const CPlatform platform;
        ASSERT_TRUE(Connect(L"http://127.0.0.1:9/"));
        EXPECT_EQ(platform.session, is81 ? L"CVoHTTPMessageWinHTTP 4 10000000" : L"CVoHTTPMessageWinHTTP 0 10000000");
        EXPECT_THAT(platform.options, ElementsAre(std::pair(3U, 7000U), std::pair(5U, 7000U), std::pair(6U, 9000U),
                                                  std::pair(73U, 128U), std::pair(74U, 74U), std::pair(7U, 9000U)));
    }
}

TEST(WinHTTPTransport, OpensARequestWithTheSwitchesOfItsAddress)
{
    struct CCase
    {
        const wchar_t* url;
        bool verify;
        bool revocation;
        const wchar_t* request;
        DWORD security;
        DWORD features;
    };
    const CCase cases[] = {
        { L"http://server.test/a?b", true, true, L"POST /a?b HTTP/1.1 100", 0x3300, 0 },
        { L"https://server.test/a?b", false, false, L"POST /a?b HTTP/1.1 800100", 0x3300, 0 },
        { L"https://server.test/a?b", true, false, L"POST /a?b HTTP/1.1 800100", 0, 0 },
        { L"https://server.test/a?b", true, true, L"POST /a?b HTTP/1.1 800100", 0, 1 },
    };
    for (const CCase& item : cases)
    {
        SCOPED_TRACE(testing::Message() << item.url << item.verify << item.revocation);
        CPlatform platform;
        const auto message = Connect(item.url, nullptr, nullptr, item.verify, item.revocation);
        platform.options.clear();
        (void)Open(*message);
        EXPECT_EQ(platform.request, item.request);
        EXPECT_THAT(platform.options,
                    ElementsAre(std::pair(31U, item.security), std::pair(79U, item.features), std::pair(63U, 1U)));
    }
}

TEST(WinHTTPTransport, PassesOverARefusedTuningAndOverNothingElse)
{
    struct CCase
    {
        DWORD option;
        DWORD error;
        bool connects;
        bool opens;
        bool revocation = false;
    };
    const CCase cases[] = { { 3, 12009, true, true },   { 73, 12016, true, true },        { 73, 5, false, false },
                            { 6, 87, false, false },    { 79, 87, true, true },           { 79, 12009, true, true },
                            { 79, 12004, true, false }, { 79, 12009, true, false, true }, { 79, 87, true, false, true },
                            { 31, 12009, true, false }, { 63, 12009, true, false } };
    for (const CCase& item : cases)
    {
        SCOPED_TRACE(testing::Message() << item.option << " " << item.error);
        CPlatform platform;
        platform.refused = { { item.option, item.error } };
        const HRESULT code = HResultFromWin32(item.error);
        const CLogCapture log;
        const auto message =
            Connect(L"https://server.test/", nullptr, nullptr, true, item.revocation, item.connects ? S_OK : code);
        if (!message)
            continue;
        Request request;
        EXPECT_EQ(message->OpenRequest(request), item.opens ? S_OK : code);
        EXPECT_EQ(request != nullptr, item.opens);
        EXPECT_FALSE(log.Lines().empty()) << "a refusal is traced";
    }
}

TEST(WinHTTPTransport, RewritesALoopbackAddress)
{
    struct CCase
    {
        const wchar_t* url;
        std::wstring host;
        std::wstring path;
    };
    const CCase cases[] = {
        { L"http://LOCALHOST:81/a", L"localhost.localhost", L"/a" },
        { L"http://127.0.0.1/to/127.0.0.1?at=localhost", L"localhost.localhost", L"/to/localhost.localhost?at=localhost" },
        { L"http://localhost/LocalHost", L"localhost.localhost", L"/localhost.localhost" },
        { L"http://127.0.0.10/", L"127.0.0.10", L"/" },
        { L"http://localhost.test/localhost", L"localhost.test", L"/localhost" },
    };
    for (const CCase& item : cases)
        for (const UINT32 kind : { kKind, kRewritingKind })
        {
            const CPlatform platform;
            const auto message = Connect(item.url, nullptr, nullptr, false, false, S_OK, kind);
            (void)Open(*message);
            CServerAddressData address;
            ASSERT_EQ(address.SetAddress(item.url, false, true, true), S_OK);
            const bool rewrites = kind == kRewritingKind;
            EXPECT_EQ(platform.host, rewrites ? item.host : address.Host()) << item.url;
            EXPECT_EQ(platform.request, L"POST " + (rewrites ? item.path : address.ObjectName()) + L" HTTP/1.1 100")
                << item.url;
        }
}

TEST(WinHTTPTransport, TakesItsProxyFromTheStore)
{
    struct CCase
    {
        bool is81;
        const wchar_t* url;
        const wchar_t* list;
        const wchar_t* user;
        const wchar_t* asked;
        std::vector<std::wstring> set;
        std::vector<std::wstring> credentials;
    };
    const CCase cases[] = {
        { false, L"http://server.test/a?b", L"", L"", L"http://server.test/a?b", {}, {} },
        { false, L"http://server.test/", L"proxy:8080", L"", L"http://server.test/", { L"proxy:8080" }, {} },
        { false,
          L"http://server.test/",
          L"proxy:8080",
          L"user",
          L"http://server.test/",
          { L"proxy:8080" },
          { L"1 1 user hunter2" } },
        // asked for the configured proxy; a list is the platform's own notation
        { true, L"https://server.test/", L"http=a:1;https=b:2", L"", L"", { L"http=a:1;https=b:2" }, {} },
    };
    for (const CCase& item : cases)
    {
        SCOPED_TRACE(item.url);
        const auto version = WindowsIs81(item.is81);
        const CPlatform platform;
        const auto store = VoMakeComObject<CFixedProxyStore>(item.list, item.user, L"hunter2");
        const CLogCapture log;
        const auto message = Connect(item.url, nullptr, store.Get());
        (void)Open(*message);
        EXPECT_THAT(store->asked, ElementsAre(item.asked));
        EXPECT_EQ(platform.proxies, item.set);
        EXPECT_EQ(platform.credentials, item.credentials);
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
    const CServer server(
        [](const Loopback::CRequest& request, Loopback::CConnection& connection)
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
    const CPlatform platform;
    const CLogCapture log;
    const auto message = Connect(base + L"/x", callback.Get(), store.Get());
    const Request request = Open(*message);
    EXPECT_THAT(platform.credentials, IsEmpty());
    EXPECT_EQ(Send(*message, request), S_OK);
    EXPECT_THAT(callback->Questions(), ElementsAre(L"proxy " + base + L" proxy.test:8080"));
    EXPECT_THAT(store->saved, ElementsAre(L"proxy.test:8080 user hunter2"));
    EXPECT_THAT(platform.credentials, ElementsAre(L"1 1 user hunter2"));
    // From now on they are sent without being asked for, by this request and by others.
    EXPECT_EQ(Send(*message, request), S_OK);
    EXPECT_EQ(Send(*message, Open(*message)), S_OK);
    EXPECT_THAT(callback->Questions(), SizeIs(1));
    EXPECT_THAT(platform.credentials, SizeIs(3));
    ExpectNotLogged(log, L"hunter2");
}

TEST(WinHTTPTransport, AnswersNothingButBasic)
{
    for (const bool proxy : { false, true })
        for (const char* const scheme : { "NTLM", "Negotiate", "Digest realm=\"r\", nonce=\"1\"" })
        {
            const CServer server(
                [&](const Loopback::CRequest&, Loopback::CConnection& connection)
                {
                    connection.SendResponse(proxy ? 407 : 401,
                                            { { proxy ? "Proxy-Authenticate" : "WWW-Authenticate", scheme } });
                });
            const auto callback = VoMakeComObject<CScriptedAuthCallback>();
            const auto message = Connect(Wide(server.URL("")), callback.Get());
            CVoHTTPMessage::CSendResult result;
            EXPECT_EQ(Send(*message, Open(*message), &result), E_NOTIMPL) << scheme;
            EXPECT_EQ(result.statusCode, proxy ? 407U : 401U);
            EXPECT_THAT(callback->Questions(), IsEmpty());
        }
}

TEST(WinHTTPTransport, NamesTheServerThatARedirectLedTo)
{
    const CServer second([](const Loopback::CRequest&, Loopback::CConnection& connection)
                         { connection.SendResponse(401, { { "WWW-Authenticate", "Basic realm=\"r\"" } }); });
    const CServer first(
        [&](const Loopback::CRequest&, Loopback::CConnection& connection)
        {
            connection.SendResponse(302, { { "Location", "http://localhost:" + std::to_string(second.Port()) + "/private" } });
        });
    const auto callback = VoMakeComObject<CScriptedAuthCallback>();
    const auto message = Connect(Wide(first.URL("")), callback.Get());
    EXPECT_EQ(message->SendMessage(Open(*message), {}, Kind::Empty, true, {}, {}, false, nullptr), kResultCancelled);
    EXPECT_THAT(callback->Questions(),
                ElementsAre(L"server localhost http://localhost:" + std::to_wstring(second.Port()) + L"/private"));
}

TEST(WinHTTPTransport, EveryFailureOfTheServiceIsHandled)
{
    const CServer server(
        [](const Loopback::CRequest& request, Loopback::CConnection& connection)
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
        const CTransportScope scope(kKind);
        CServerAddressData address;
        EXPECT_EQ(address.SetAddress(Wide(server.URL()), false, true, true), S_OK);
        std::shared_ptr<CVoHTTPMessage> message;
        HRESULT hr = CVoHTTPMessage::Connect(address, callback.Get(), nullptr, nullptr, 7, 9, false, false, message);
        EXPECT_EQ(SUCCEEDED(hr), message != nullptr);
        Request request;
        if (SUCCEEDED(hr))
        {
            hr = message->OpenRequest(request);
            EXPECT_EQ(SUCCEEDED(hr), request != nullptr);
        }
        CVoBinaryDataParser answer;
        if (SUCCEEDED(hr))
            hr = Send(*message, request);
        if (SUCCEEDED(hr))
            hr = message->ReadResponse(request, answer, Response::Parameters, nullptr, nullptr);
        EXPECT_EQ(answer.GetCount(), SUCCEEDED(hr) ? 1U : 0U);
        return hr;
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
