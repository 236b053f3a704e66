// What the WinHTTP transport asks of the platform, call by call: much of it has no effect that a server under Wine would see.
#include "http/TransportFixture.h"
#include "support/LogCapture.h"
#include "support/SessionProxy.h"
#include "support/TestServers.h"

#include <gmock/gmock.h>
#include <winhttp.h>

#include <map>
#include <thread>

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{
constexpr UINT32 kKind = 1;
constexpr UINT32 kRewritingKind = 3;
constexpr DWORD kNoTuning = 0xFFFFFFFF;

// Wine's answer is that of Windows 7; the transport asks for 8.1.
class CWindowsVersion
{
public:
    explicit CWindowsVersion(bool is81)
        : m_hook("kernel32.dll", "VerifyVersionInfoW",
                 [is81](auto, OSVERSIONINFOEXW* version, DWORD fields, DWORDLONG)
                 {
                     EXPECT_EQ(version->dwMajorVersion, 6U);
                     EXPECT_EQ(version->dwMinorVersion, 3U);
                     EXPECT_EQ(version->wServicePackMajor, 0U);
                     EXPECT_EQ(fields, DWORD{ VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR });
                     return is81 ? TRUE : FALSE;
                 })
    {
    }

private:
    CCallHook<decltype(&::VerifyVersionInfoW)> m_hook;
};

// Notes the options that are set, and refuses some.
class COptions
{
public:
    COptions()
        : m_hook("winhttp.dll", "WinHttpSetOption",
                 [this](auto original, HINTERNET handle, DWORD option, void* value, DWORD length) -> BOOL
                 {
                     const std::scoped_lock lock(m_lock);
                     if (option == WINHTTP_OPTION_PROXY)
                     {
                         const auto& info = *static_cast<const WINHTTP_PROXY_INFO*>(value);
                         EXPECT_EQ(length, 24U);
                         EXPECT_EQ(info.dwAccessType, DWORD{ WINHTTP_ACCESS_TYPE_NAMED_PROXY });
                         EXPECT_EQ(info.lpszProxyBypass, nullptr);
                         m_proxies.emplace_back(info.lpszProxy);
                     }
                     else if (length == sizeof(DWORD))
                         m_set.emplace_back(option, *static_cast<const DWORD*>(value));
                     const auto refused = m_refused.find(option);
                     if (refused == m_refused.end())
                         return original(handle, option, value, length);
                     ::SetLastError(refused->second);
                     return FALSE;
                 })
    {
    }
    void Refuse(DWORD option, DWORD error) { m_refused = { { option, error } }; }
    [[nodiscard]] std::vector<std::pair<DWORD, DWORD>> Set() const { return m_set; }
    [[nodiscard]] std::vector<std::wstring> Proxies() const { return m_proxies; }
    void Forget() { m_set.clear(); }

private:
    std::mutex m_lock;
    std::vector<std::pair<DWORD, DWORD>> m_set;
    std::vector<std::wstring> m_proxies;
    std::map<DWORD, DWORD> m_refused;
    CCallHook<decltype(&::WinHttpSetOption)> m_hook;
};

// Notes the credentials that are set: "target scheme user password".
class CCredentials
{
public:
    CCredentials()
        : m_hook("winhttp.dll", "WinHttpSetCredentials",
                 [this](auto original, HINTERNET handle, DWORD target, DWORD scheme, LPCWSTR user, LPCWSTR password, void* more)
                 {
                     const std::scoped_lock lock(m_lock);
                     m_set.push_back(std::to_wstring(target) + L' ' + std::to_wstring(scheme) + L' ' + user + L' ' + password);
                     return original(handle, target, scheme, user, password, more);
                 })
    {
    }
    [[nodiscard]] std::vector<std::wstring> Set() const { return m_set; }

private:
    std::mutex m_lock;
    std::vector<std::wstring> m_set;
    CCallHook<decltype(&::WinHttpSetCredentials)> m_hook;
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
HRESULT Send(CVoHTTPMessage& message, const Request& request, std::string_view body = "x",
             CVoHTTPMessage::CSendResult* result = nullptr)
{
    return message.SendMessage(request, MakeMessage({}, body), Kind::Raw, true, {}, {}, false, result);
}

TEST(WinHTTPTransport, SetsTheSessionUpAsTheSystemAllows)
{
    for (const bool is81 : { false, true })
    {
        const CWindowsVersion version(is81);
        std::vector<std::pair<std::wstring, DWORD>> opened;
        const CCallHook<decltype(&::WinHttpOpen)> open(
            "winhttp.dll", "WinHttpOpen",
            [&](auto original, LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags)
            {
                EXPECT_EQ(proxy, nullptr);
                EXPECT_EQ(bypass, nullptr);
                EXPECT_EQ(flags, DWORD{ WINHTTP_FLAG_ASYNC });
                opened.emplace_back(agent, access);
                return original(agent, access, proxy, bypass, flags);
            });
        const COptions options;
        ASSERT_TRUE(Connect(L"http://127.0.0.1:9/"));
        EXPECT_THAT(opened, ElementsAre(std::pair(std::wstring(L"CVoHTTPMessageWinHTTP"), is81 ? 4U : 0U)));
        EXPECT_THAT(options.Set(), ElementsAre(std::pair(3U, 7000U), std::pair(5U, 7000U), std::pair(6U, 9000U),
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
        DWORD flags;
        DWORD security;
        DWORD features;
    };
    const CCase cases[] = {
        { L"http://server.test/a?b", true, true, 0x100, 0x3300, 0 },
        { L"https://server.test/a?b", false, false, 0x800100, 0x3300, 0 },
        { L"https://server.test/a?b", true, false, 0x800100, 0, 0 },
        { L"https://server.test/a?b", true, true, 0x800100, 0, 1 },
    };
    for (const CCase& item : cases)
    {
        SCOPED_TRACE(testing::Message() << item.url << item.verify << item.revocation);
        std::vector<std::wstring> opened;
        const CCallHook<decltype(&::WinHttpOpenRequest)> open(
            "winhttp.dll", "WinHttpOpenRequest",
            [&](auto original, HINTERNET connection, LPCWSTR verb, LPCWSTR path, LPCWSTR version, LPCWSTR referrer,
                LPCWSTR* types, DWORD flags)
            {
                EXPECT_EQ(referrer, nullptr);
                EXPECT_EQ(types, nullptr);
                opened.push_back(std::wstring(verb) + L' ' + path + L' ' + version + L' ' + std::to_wstring(flags));
                return original(connection, verb, path, version, referrer, types, flags);
            });
        COptions options;
        const auto message = Connect(item.url, nullptr, nullptr, item.verify, item.revocation);
        options.Forget();
        Request request;
        ASSERT_EQ(message->OpenRequest(request), S_OK);
        EXPECT_THAT(opened, ElementsAre(L"POST /a?b HTTP/1.1 " + std::to_wstring(item.flags)));
        EXPECT_THAT(options.Set(),
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
    const CCase cases[] = { { 3, 12009, true, true },      { 74, 12009, true, true },   { 73, 12016, true, true },
                            { 73, 5, false, false },       { 6, 87, false, false },     { 74, 87, false, false },
                            { 79, 87, true, true },        { 79, 12009, true, true },   { 79, 12009, true, false, true },
                            { 79, 87, true, false, true }, { 79, 12004, true, false },  { 31, 12009, true, false },
                            { 63, 12009, true, false },    { kNoTuning, 0, true, true } };
    for (const CCase& item : cases)
    {
        SCOPED_TRACE(testing::Message() << item.option << " " << item.error);
        COptions options;
        options.Refuse(item.option, item.error);
        const HRESULT code = HResultFromWin32(item.error);
        const CLogCapture log;
        const auto message =
            Connect(L"https://server.test/", nullptr, nullptr, true, item.revocation, item.connects ? S_OK : code);
        if (!message)
            continue;
        Request request;
        EXPECT_EQ(message->OpenRequest(request), item.opens ? S_OK : code);
        EXPECT_EQ(request != nullptr, item.opens);
        EXPECT_EQ(log.Lines().empty(), item.option == kNoTuning && !IsWine()) << "a refusal is traced";
    }
}

TEST(WinHTTPTransport, RewritesALoopbackAddress)
{
    struct CCase
    {
        const wchar_t* url;
        const wchar_t* host;
        const wchar_t* path;
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
            std::wstring connected;
            std::wstring opened;
            const CCallHook<decltype(&::WinHttpConnect)> connect(
                "winhttp.dll", "WinHttpConnect",
                [&](auto original, HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved)
                {
                    connected = host;
                    return original(session, host, port, reserved);
                });
            const CCallHook<decltype(&::WinHttpOpenRequest)> open(
                "winhttp.dll", "WinHttpOpenRequest",
                [&](auto original, HINTERNET connection, LPCWSTR verb, LPCWSTR path, auto... rest)
                {
                    opened = path;
                    return original(connection, verb, path, rest...);
                });
            const auto message = Connect(item.url, nullptr, nullptr, false, false, S_OK, kind);
            Request request;
            ASSERT_EQ(message->OpenRequest(request), S_OK);
            CServerAddressData address;
            ASSERT_EQ(address.SetAddress(item.url, false, true, true), S_OK);
            EXPECT_EQ(connected, kind == kRewritingKind ? item.host : address.Host()) << item.url;
            EXPECT_EQ(opened, kind == kRewritingKind ? item.path : address.ObjectName()) << item.url;
        }
}

// Answers with a proxy list, and notes for which URL.
class CNotingProxyStore final : public CVoIUnknownImplWithFreeThreadedMarshaller<IVoHTTPProxyStore>
{
public:
    std::wstring list;
    std::wstring user;
    HRESULT result = S_OK;
    std::vector<std::wstring> asked; // "null" for a null URL

    STDMETHODIMP Clear() noexcept override { return S_OK; }
    STDMETHODIMP GetProxyForUrl(BSTR url, BSTR* proxy, BSTR* userName, BSTR* password) noexcept override
    {
        asked.emplace_back(url ? std::wstring(CVoBstr::ViewOf(url)) : L"null");
        if (FAILED(result))
            return result;
        *proxy = CVoBstr(list).Detach();
        *userName = user.empty() ? nullptr : CVoBstr(user).Detach();
        *password = user.empty() ? nullptr : CVoBstr(L"hunter2").Detach();
        return S_OK;
    }
    STDMETHODIMP SetAuthDataForProxy(BSTR, BSTR, BSTR, VARIANT_BOOL, VARIANT_BOOL) noexcept override { return S_OK; }
    STDMETHODIMP Serialize(BSTR*) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP Deserialize(BSTR) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP GetPropertyTags(SAFEARRAY**) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP get_Properties(BSTR, VARIANT*) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP put_Properties(BSTR, VARIANT) noexcept override { return E_NOTIMPL; }
};

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
        { true, L"http://server.test/", L"", L"", L"null", {}, {} },
        { true, L"https://server.test/", L"http=a:1;https=b:2", L"", L"null", { L"b:2" }, {} },
        { true, L"https://server.test/", L"http=a:1", L"", L"null", {}, {} },
    };
    for (const CCase& item : cases)
    {
        SCOPED_TRACE(item.url);
        const CWindowsVersion version(item.is81);
        const COptions options;
        const CCredentials credentials;
        const auto store = VoMakeComObject<CNotingProxyStore>();
        store->list = item.list;
        store->user = item.user;
        const CLogCapture log;
        const auto message = Connect(item.url, nullptr, store.Get());
        Request request;
        ASSERT_EQ(message->OpenRequest(request), S_OK);
        EXPECT_THAT(store->asked, ElementsAre(item.asked));
        EXPECT_EQ(options.Proxies(), item.set);
        EXPECT_EQ(credentials.Set(), item.credentials);
        for (const CLogLine& line : log.Lines())
            EXPECT_EQ(line.text.find(L"hunter2"), std::wstring::npos);

        store->result = E_ACCESSDENIED;
        Request refused;
        EXPECT_EQ(message->OpenRequest(refused), E_ACCESSDENIED);
        EXPECT_EQ(refused, nullptr);
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
    const std::wstring base = L"http://127.0.0.1:" + std::to_wstring(server.Port());
    const auto callback = VoMakeComObject<CScriptedAuthCallback>();
    callback->AnswerProxy({ { L"user", L"hunter2" } });
    const auto store = VoMakeComObject<CFixedProxyStore>(L"proxy.test:8080");
    const CCredentials credentials;
    const CLogCapture log;
    const auto message = Connect(base + L"/x", callback.Get(), store.Get());
    Request request;
    ASSERT_EQ(message->OpenRequest(request), S_OK);
    EXPECT_THAT(credentials.Set(), IsEmpty());
    EXPECT_EQ(Send(*message, request), S_OK);
    EXPECT_THAT(callback->Questions(), ElementsAre(L"proxy " + base + L" proxy.test:8080"));
    EXPECT_THAT(store->saved, ElementsAre(L"proxy.test:8080 user hunter2"));
    EXPECT_THAT(credentials.Set(), ElementsAre(L"1 1 user hunter2"));
    // From now on they are sent without being asked for, by this request and by others.
    EXPECT_EQ(Send(*message, request), S_OK);
    Request other;
    ASSERT_EQ(message->OpenRequest(other), S_OK);
    EXPECT_EQ(Send(*message, other), S_OK);
    EXPECT_THAT(callback->Questions(), SizeIs(1));
    EXPECT_THAT(credentials.Set(), SizeIs(3));
    for (const CLogLine& line : log.Lines())
        EXPECT_EQ(line.text.find(L"hunter2"), std::wstring::npos);
}

TEST(WinHTTPTransport, AnswersARealProxy)
{
    VO_NEEDS_TEST_SERVERS();
    const CServer origin([](const Loopback::CRequest& request, Loopback::CConnection& connection)
                         { connection.SendResponse(200, {}, "&&" + std::string(request.Header("Via")) + request.body); });
    const TestSupport::CTestServers& servers = *TestServers();
    const std::wstring url = L"http://127.0.0.1:" + std::to_wstring(origin.Port());
    const std::wstring proxy = L"localhost:" + std::to_wstring(servers.squidAuthPort); // another name than the server's
    const std::wstring user(servers.squidUser.begin(), servers.squidUser.end());
    const std::wstring password(servers.squidPassword.begin(), servers.squidPassword.end());
    const auto sessions = WinHTTPSessionsUse(proxy);
    for (const bool right : { false, true })
    {
        const auto callback = VoMakeComObject<CScriptedAuthCallback>();
        callback->AnswerProxy({ { user, right ? password : L"wrong" } });
        const auto store = VoMakeComObject<CFixedProxyStore>(proxy);
        const auto message = Connect(url, callback.Get(), store.Get());
        Request request;
        ASSERT_EQ(message->OpenRequest(request), S_OK);
        CVoHTTPMessage::CSendResult result;
        EXPECT_EQ(Send(*message, request, std::string(5000, 'b'), &result), right ? S_OK : kResultCancelled);
        EXPECT_EQ(result.statusCode, right ? 200U : 407U);
        EXPECT_EQ(callback->Questions(), std::vector<std::wstring>(right ? 1 : 2, L"proxy " + url + L' ' + proxy));
        if (!right)
            continue;
        EXPECT_THAT(store->saved, ElementsAre(proxy + L' ' + user + L' ' + password));
        CVoBinaryDataParser answer;
        EXPECT_EQ(message->ReadResponse(request, answer, Response::Parameters, nullptr, nullptr), S_OK);
        EXPECT_THAT(PayloadOf(answer),
                    testing::AllOf(testing::HasSubstr("squid"), testing::EndsWith("&&" + std::string(5000, 'b'))));
    }
}

TEST(WinHTTPTransport, ShowsARewrittenAddressToTheProxy)
{
    const CServer proxy(
        [](const Loopback::CRequest& request, Loopback::CConnection& connection)
        { connection.SendResponse(200, {}, "&&" + request.target + ' ' + std::string(request.Header("Host"))); });
    const auto sessions = WinHTTPSessionsUse(L"127.0.0.1:" + std::to_wstring(proxy.Port()));
    const auto message = Connect(L"http://localhost:8080/x", nullptr, nullptr, false, false, S_OK, kRewritingKind);
    Request request;
    ASSERT_EQ(message->OpenRequest(request), S_OK);
    ASSERT_EQ(Send(*message, request), S_OK);
    CVoBinaryDataParser answer;
    ASSERT_EQ(message->ReadResponse(request, answer, Response::Parameters, nullptr, nullptr), S_OK);
    EXPECT_EQ(PayloadOf(answer), "http://localhost.localhost:8080/x localhost.localhost:8080");
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
            const auto message = Connect(L"http://127.0.0.1:" + std::to_wstring(server.Port()), callback.Get());
            Request request;
            ASSERT_EQ(message->OpenRequest(request), S_OK);
            CVoHTTPMessage::CSendResult result;
            EXPECT_EQ(Send(*message, request, "x", &result), E_NOTIMPL) << scheme;
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
    const auto message = Connect(L"http://127.0.0.1:" + std::to_wstring(first.Port()), callback.Get());
    Request request;
    ASSERT_EQ(message->OpenRequest(request), S_OK);
    EXPECT_EQ(message->SendMessage(request, {}, Kind::Empty, true, {}, {}, false, nullptr), kResultCancelled);
    EXPECT_THAT(callback->Questions(),
                ElementsAre(L"server localhost http://localhost:" + std::to_wstring(second.Port()) + L"/private"));
}

// WinHTTP of Windows tells of a certificate that it refuses before it ends the request; under Wine that never comes.
TEST(WinHTTPTransport, ARefusedCertificateEndsTheRequestWithItsCode)
{
    WINHTTP_STATUS_CALLBACK callback = nullptr;
    std::thread service;
    const CCallHook<decltype(&::WinHttpSetStatusCallback)> set(
        "winhttp.dll", "WinHttpSetStatusCallback",
        [&](auto original, HINTERNET handle, WINHTTP_STATUS_CALLBACK function, DWORD mask, DWORD_PTR reserved)
        {
            EXPECT_EQ(mask, DWORD{ WINHTTP_CALLBACK_FLAG_ALL_NOTIFICATIONS });
            callback = function;
            return original(handle, function, mask, reserved);
        });
    const CCallHook<decltype(&::WinHttpSendRequest)> send(
        "winhttp.dll", "WinHttpSendRequest",
        [&](auto, HINTERNET handle, LPCWSTR, DWORD, void*, DWORD, DWORD, DWORD_PTR context)
        {
            // WinHTTP keeps the context, for the notification of the handle's end.
            EXPECT_TRUE(::WinHttpSetOption(handle, WINHTTP_OPTION_CONTEXT_VALUE, &context, sizeof context));
            service = std::thread(
                [&callback, handle, context]
                {
                    DWORD why = WINHTTP_CALLBACK_STATUS_FLAG_INVALID_CA;
                    callback(handle, context, WINHTTP_CALLBACK_STATUS_SECURE_FAILURE, &why, sizeof why);
                    WINHTTP_ASYNC_RESULT result{ API_SEND_REQUEST, ERROR_WINHTTP_SECURE_FAILURE };
                    callback(handle, context, WINHTTP_CALLBACK_STATUS_REQUEST_ERROR, &result, sizeof result);
                });
            return TRUE;
        });
    const auto message = Connect(L"https://server.test/", nullptr, nullptr, true, false);
    Request request;
    ASSERT_EQ(message->OpenRequest(request), S_OK);
    const CLogCapture log;
    EXPECT_EQ(Send(*message, request), HResultFromWin32(ERROR_WINHTTP_SECURE_FAILURE));
    service.join();
    EXPECT_THAT(log.Lines(), testing::Contains(IsMessage(L"VoWinHttpRequest.h", 404,
                                                         std::wstring(L"Error function: 5   Error code: 12175"))));
}

TEST(WinHTTPTransport, EveryFailureOfTheServiceIsHandled)
{
    const CServer server([](const Loopback::CRequest&, Loopback::CConnection& connection)
                         { connection.SendResponse(200, { { "Connection", "close" } }, "a=1"); });
    CServerAddressData address;
    ASSERT_EQ(address.SetAddress(L"http://127.0.0.1:" + std::to_wstring(server.Port()), false, true, true), S_OK);
    CLogCapture log;
    CAcquireBalance handles = CAcquireBalance::Of<decltype(&::WinHttpOpen), decltype(&::WinHttpCloseHandle)>(
        "winhttp.dll", "WinHttpOpen", "WinHttpCloseHandle");
    handles.AlsoAcquiredBy<decltype(&::WinHttpConnect)>("winhttp.dll", "WinHttpConnect");
    handles.AlsoAcquiredBy<decltype(&::WinHttpOpenRequest)>("winhttp.dll", "WinHttpOpenRequest");
    const auto run = [&]
    {
        const CTransportScope scope(kKind);
        std::shared_ptr<CVoHTTPMessage> message;
        HRESULT hr = CVoHTTPMessage::Connect(address, nullptr, nullptr, nullptr, 7, 9, false, false, message);
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
    const auto wasReported = [&](HRESULT code)
    {
        const auto lines = log.Lines();
        log.Clear();
        return std::any_of(lines.begin(), lines.end(), [&](const CLogLine& line) { return line.code == code; });
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
            VO_FAULT("winhttp.dll", WinHttpQueryDataAvailable, FALSE, kError),
            VO_FAULT("winhttp.dll", WinHttpReadData, FALSE, kError),
        },
        run, wasReported, { &handles }, false);
}

TEST(WinHTTPTransport, RefusesTheRequestsOfAnotherMessage)
{
    const auto one = Connect(L"http://server.test/");
    const auto other = Connect(L"http://server.test/");
    Request request;
    ASSERT_EQ(one->OpenRequest(request), S_OK);
    EXPECT_EQ(Send(*other, request), E_INVALIDARG);
    CVoBinaryDataParser answer;
    EXPECT_EQ(other->ReadResponse(request, answer, Response::Parameters, nullptr, nullptr), E_INVALIDARG);
}

TEST(WinHTTPTransport, SendsARequestAgainAfterAFailureOfItsAnswer)
{
    std::atomic<int> requests{ 0 };
    const CServer server(
        [&](const Loopback::CRequest& request, Loopback::CConnection& connection)
        {
            EXPECT_EQ(request.Header("Content-Type"), "application/octet-stream; charset=UTF-8");
            connection.SendResponse(++requests % 2 == 1 ? 503 : 200, {}, "a=1");
        });
    const auto message = Connect(L"http://127.0.0.1:" + std::to_wstring(server.Port()));
    Request request;
    ASSERT_EQ(message->OpenRequest(request), S_OK);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(Send(*message, request), i % 2 == 0 ? kResultUnexpectedStatus : S_OK);
    CVoBinaryDataParser answer;
    EXPECT_EQ(message->ReadResponse(request, answer, Response::Parameters, nullptr, nullptr), S_OK);
    EXPECT_EQ(ParamsOf(answer), (Params{ { L"a", L"1" } }));
}
} // namespace
