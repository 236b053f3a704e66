// Requests through proxies, real and scripted, with the process's proxy store behind the transports.
#include "http/TransportFixture.h"
#include "support/SessionProxy.h"
#include "support/TestServers.h"

#include <LoopbackServer.h>
#include <VoGlobalHTTPProxyStoreImpl.h>

#include <gmock/gmock.h>

using namespace TestSupport;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace
{
// The tested transports with what has their sessions opened with a proxy; none where it takes the proxy from the store and
// nowhere else. libcurl shows everything. Wine's services take no proxy for a request, so that the Windows transports are given
// one for their sessions, and their credentials are tested with those transports.
struct CProxiedTransport
{
    UINT32 kind;
    const char* name;
    std::shared_ptr<void> (*sessionsUse)(std::wstring proxy) = nullptr;
};
constexpr CProxiedTransport kCURL = { 2, "CURL" };
constexpr CProxiedTransport kAllTransports[] = { { 0, "WinINet", &WinINetSessionsUse },
                                                 { 1, "WinHTTP", &WinHTTPSessionsUse },
                                                 kCURL };

constexpr const char* kBasicUser = "Basic dXNlcjpzZWNyZXQ=";      // user:secret
constexpr const char* kBasicProxy = "Basic cHJveHk6cGFzc3dvcmQ="; // proxy:password

class ProxyTransportTest : public testing::TestWithParam<CProxiedTransport>
{
protected:
    // Sessions name the proxy "localhost", because Wine wants another name than the server's.
    void UseProxy(uint16_t port)
    {
        CHTTPProxyConfigData config;
        config.manualProxy = NameOf(port);
        ASSERT_EQ(m_store->Init(config), S_OK);
        if (GetParam().sessionsUse)
        {
            m_sessions.reset();
            m_sessions = GetParam().sessionsUse(L"localhost:" + std::to_wstring(port));
        }
    }
    [[nodiscard]] static std::wstring NameOf(uint16_t port) { return L"127.0.0.1:" + std::to_wstring(port); }
    void Save(uint16_t port, const wchar_t* user, const wchar_t* password)
    {
        EXPECT_EQ(m_store->SetAuthDataForProxy(CVoBstr(NameOf(port)).Get(), CVoBstr(user).Get(), CVoBstr(password).Get(),
                                               VARIANT_TRUE, VARIANT_TRUE),
                  S_OK);
    }
    // The credentials that the store has for the proxy of a URL: "user password", empty for none.
    [[nodiscard]] std::wstring Saved(const std::string& url) const
    {
        CVoBstr proxy;
        CVoBstr user;
        CVoBstr password;
        EXPECT_EQ(m_store->GetProxyForUrl(CVoBstr(Wide(url)).Get(), proxy.Put(), user.Put(), password.Put()), S_OK);
        return user.Get() ? std::wstring(user.View()) + L' ' + std::wstring(password.View()) : std::wstring();
    }

    struct CAnswer
    {
        HRESULT result = E_UNEXPECTED;
        std::string text;
    };
    // A payload sent to a URL on a connection of its own, and the payload that came back.
    [[nodiscard]] CAnswer Send(const std::string& url, std::string_view body = "x", UINT32 timeout = 20,
                               bool allowRetry = false)
    {
        CAnswer answer;
        CServerAddressData address;
        EXPECT_EQ(address.SetAddress(Wide(url), false, true, true), S_OK);
        std::shared_ptr<CVoHTTPMessage> message;
        {
            const CTransportScope scope(GetParam().kind);
            answer.result = CVoHTTPMessage::Connect(address, m_callback.Get(), m_store.Get(), nullptr, timeout, timeout, false,
                                                    false, message);
        }
        std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
        if (SUCCEEDED(answer.result))
            answer.result = message->OpenRequest(request);
        if (SUCCEEDED(answer.result))
            answer.result = message->SendMessage(request, MakeMessage({}, body), Kind::Raw, true, {}, {}, allowRetry, nullptr);
        CVoBinaryDataParser read;
        if (SUCCEEDED(answer.result))
            answer.result = message->ReadResponse(request, read, Response::Parameters, nullptr, nullptr);
        answer.text = PayloadOf(read);
        return answer;
    }

    CVoComPtr<CScriptedAuthCallback> m_callback = VoMakeComObject<CScriptedAuthCallback>();
    CVoComPtr<CVoGlobalHTTPProxyStoreImpl> m_store = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
    std::shared_ptr<void> m_sessions;
};
class AnyTransportProxyTest : public ProxyTransportTest
{
};

INSTANTIATE_TEST_SUITE_P(Kinds, AnyTransportProxyTest, testing::ValuesIn(kAllTransports),
                         [](const auto& tested) { return tested.param.name; });
INSTANTIATE_TEST_SUITE_P(Kinds, ProxyTransportTest, testing::Values(kCURL),
                         [](const auto& tested) { return tested.param.name; });

// Whether a request has the credentials; otherwise it was answered with the challenge.
bool Authenticate(const Loopback::CRequest& request, Loopback::CConnection& connection, bool proxy)
{
    if (request.Header(proxy ? "Proxy-Authorization" : "Authorization") == (proxy ? kBasicProxy : kBasicUser))
        return true;
    connection.SendResponse(proxy ? 407 : 401, { { proxy ? "Proxy-Authenticate" : "WWW-Authenticate", "Basic realm=\"r\"" } });
    return false;
}

// --- squid

TEST_P(AnyTransportProxyTest, GoesThroughAnOpenProxy)
{
    VO_NEEDS_TEST_SERVERS();
    UseProxy(TestServers()->squidPort);
    const CServer origin(&Echo);
    const CAnswer plain = Send(origin.URL("/"), "a body");
    EXPECT_EQ(plain.result, S_OK);
    EXPECT_EQ(plain.text, "a body");
    ASSERT_THAT(origin.Requests(), Not(IsEmpty()));
    EXPECT_THAT(origin.Requests().back().Header("Via"), HasSubstr("squid"));

    // Under a name that no other test has connected to directly: Wine's WinINet would take that connection for one to the
    // proxy.
    const CAnswer secure = Send("https://127.0.0.1:" + std::to_string(TestServers()->tlsPort) + "/echo", "a body");
    EXPECT_EQ(secure.result, S_OK);
    EXPECT_EQ(secure.text, "a body");
    EXPECT_THAT(m_callback->Questions(), IsEmpty());
}

TEST_P(ProxyTransportTest, KeepsTheCredentialsThatAProxyAccepted)
{
    VO_NEEDS_TEST_SERVERS();
    const std::wstring user = Wide(TestServers()->squidUser);
    const std::wstring password = Wide(TestServers()->squidPassword);
    const std::wstring saved = user + L' ' + password;
    const std::string body(5000, 'x'); // sent again after the challenge
    const std::string urls[] = { TestServers()->URL("/echo"), TestServers()->SecureURL("/echo") };
    for (const std::string& url : urls)
    {
        SCOPED_TRACE(url);
        EXPECT_EQ(m_store->Clear(), S_OK);
        UseProxy(TestServers()->squidAuthPort);
        m_callback = VoMakeComObject<CScriptedAuthCallback>();

        // Declined: nothing is sent on, nothing kept, and nobody is asked twice.
        EXPECT_EQ(Send(url, body, 5, true).result, kResultCancelled);
        EXPECT_EQ(Saved(url), L"");
        // The question names the server and the proxy.
        CServerAddressData address;
        ASSERT_EQ(address.SetAddress(Wide(url), false, false, false), S_OK);
        EXPECT_THAT(m_callback->Questions(),
                    ElementsAre(L"proxy " + address.BaseURL() + L' ' + NameOf(TestServers()->squidAuthPort)));
        // Refused ones are asked for again, and not kept.
        m_callback->AnswerProxy({ { user, L"wrong" } });
        EXPECT_EQ(Send(url, body).result, kResultCancelled);
        EXPECT_THAT(m_callback->Questions(), SizeIs(3));
        EXPECT_EQ(Saved(url), L"");
        m_callback->AnswerProxy({ { L"wrong", password }, { user, password } });
        const CAnswer answer = Send(url, body);
        EXPECT_EQ(answer.result, S_OK);
        EXPECT_TRUE(answer.text == body);
        EXPECT_THAT(m_callback->Questions(), SizeIs(5));
        // Accepted ones serve every later request, to any server.
        for (const std::string& later : urls)
        {
            EXPECT_EQ(Saved(later), saved);
            EXPECT_TRUE(Send(later, body).text == body);
        }
        EXPECT_THAT(m_callback->Questions(), SizeIs(5));
    }
    // Saved ones that the proxy does not take, and nobody to ask.
    m_callback.Reset();
    Save(TestServers()->squidAuthPort, L"x", L"y");
    EXPECT_TRUE(FAILED(Send(urls[0]).result));
}

// --- scripted proxies, which see what reaches them

TEST_P(ProxyTransportTest, ShowsTheServersCredentialsToTheServerOnly)
{
    VO_NEEDS_TEST_SERVERS();
    const CServer proxy(
        [](const Loopback::CRequest& request, Loopback::CConnection& connection)
        {
            if (!Authenticate(request, connection, true))
                return;
            if (request.method == "CONNECT")
                connection.Tunnel(TestServers()->tlsPort, "HTTP/1.1 200 Connection established\r\n\r\n");
            else if (request.target != "http://first.test/private")
                connection.SendResponse(200, {}, "&&other");
            else if (Authenticate(request, connection, false))
                connection.SendResponse(302, { { "Location", "http://second.test/" } });
        });
    UseProxy(proxy.Port());
    m_callback->AnswerProxy({ { L"proxy", L"password" } });
    // What the proxy accepted is kept, also when nobody answers the server.
    EXPECT_EQ(Send("http://first.test/private").result, kResultCancelled);
    EXPECT_EQ(Saved("http://first.test/"), L"proxy password");
    m_callback->AnswerServer({ { L"user", L"secret" }, { L"user", L"secret" } });

    // After a redirect the other server gets none.
    EXPECT_EQ(Send("http://first.test/private").text, "other");
    std::vector<Loopback::CRequest> seen = proxy.Requests();
    ASSERT_FALSE(seen.empty());
    for (size_t i = 0; i < seen.size(); ++i)
    {
        SCOPED_TRACE(seen[i].target);
        // A transport may ask without first, to hear of the schemes.
        EXPECT_THAT(seen[i].Header("Proxy-Authorization"), AnyOf("", kBasicProxy));
        if (seen[i].target != "http://first.test/private")
        {
            EXPECT_EQ(seen[i].Header("Authorization"), "");
        }
    }
    EXPECT_EQ(seen.back().target, "http://second.test/");
    EXPECT_EQ(seen.back().Header("Proxy-Authorization"), kBasicProxy);

    // Outside a tunnel stand the proxy's only, without a question since they are saved, and inside the server's only.
    EXPECT_EQ(Send(TestServers()->SecureURL("/private"), "private body").text, "private body");
    const size_t before = seen.size();
    seen = proxy.Requests();
    ASSERT_GT(seen.size(), before);
    for (size_t i = before; i < seen.size(); ++i)
    {
        EXPECT_EQ(seen[i].target, "localhost:" + std::to_string(TestServers()->tlsPort));
        EXPECT_EQ(seen[i].Header("Authorization"), "");
        EXPECT_THAT(seen[i].Header("Proxy-Authorization"), AnyOf("", kBasicProxy));
    }
    EXPECT_EQ(seen.back().Header("Proxy-Authorization"), kBasicProxy);
    EXPECT_THAT(m_callback->Questions(), SizeIs(4)); // once for the proxy, then for each request to a server
}

TEST_P(ProxyTransportTest, ShowsAProxysCredentialsToThatProxyOnly)
{
    const CServer used(Answers(200, {}, "&&ok"));
    const CServer other(Answers(200, {}, "&&ok"));
    UseProxy(used.Port());
    Save(other.Port(), L"proxy", L"password");
    EXPECT_EQ(Send("http://server.test/").text, "ok");
    ASSERT_THAT(used.Requests(), SizeIs(1));
    EXPECT_EQ(used.Requests()[0].Header("Proxy-Authorization"), "");
    // Nor to a server that is reached directly and pretends to be a proxy.
    CHTTPProxyConfigData config;
    ASSERT_EQ(m_store->Init(config), S_OK);
    const CServer server([](const Loopback::CRequest& request, Loopback::CConnection& connection)
                         { Authenticate(request, connection, true); });
    m_callback->AnswerProxy({ { L"proxy", L"password" } });
    EXPECT_TRUE(FAILED(Send(server.URL("/")).result));
    for (const Loopback::CRequest& seen : server.Requests())
        EXPECT_EQ(seen.Header("Proxy-Authorization"), "");
    EXPECT_EQ(Saved(server.URL("/")), L"");
}

TEST_P(ProxyTransportTest, TakesItsProxyFromAScript)
{
    const CServer proxy(Answers(200, {}, "&&by proxy"));
    const CServer script(Answers(200, { { "Content-Type", "application/x-ns-proxy-autoconfig" } },
                                 "function FindProxyForURL(url, host) { return host == '127.0.0.1' ? 'DIRECT' : "
                                 "'PROXY 127.0.0.1:" +
                                     std::to_string(proxy.Port()) + "'; }"));
    const CServer server(Answers(200, {}, "&&directly"));
    CHTTPProxyConfigData config;
    config.pacFileUrl = Wide(script.URL("/proxy.pac"));
    ASSERT_EQ(m_store->Init(config), S_OK);
    EXPECT_EQ(Send("http://server.test/").text, "by proxy");
    EXPECT_EQ(Send("http://server.test/").text, "by proxy");
    EXPECT_EQ(Send(server.URL("/")).text, "directly");
}

TEST_P(ProxyTransportTest, EndsWithinItsTimeOutsBehindABadProxy)
{
    // Dead: nobody listens on the port of a server that is gone.
    uint16_t closed = 0;
    {
        const Loopback::CLoopbackServer gone([](const Loopback::CRequest&, Loopback::CConnection&) {});
        closed = gone.Port();
    }
    UseProxy(closed);
    EXPECT_TRUE(FAILED(Send("http://server.test/").result));
    EXPECT_TRUE(FAILED(Send("https://server.test/").result));

    // Slow: the answer would come when the server stops.
    const Loopback::CLoopbackServer slow([](const Loopback::CRequest&, Loopback::CConnection& connection)
                                         { connection.WaitUntilStopped(std::chrono::minutes(1)); });
    UseProxy(slow.Port());
    EXPECT_EQ(Send("http://server.test/", "x", 1).result, kResultTimeout);
    EXPECT_EQ(Send("https://server.test/", "x", 1).result, kResultTimeout);

    // Silent about the credentials that it asked for: that is no refusal of them.
    const Loopback::CLoopbackServer silent(
        [](const Loopback::CRequest& request, Loopback::CConnection& connection)
        {
            if (Authenticate(request, connection, true))
                connection.WaitUntilStopped(std::chrono::minutes(1));
        });
    UseProxy(silent.Port());
    m_callback->AnswerProxy({ { L"proxy", L"password" } });
    EXPECT_EQ(Send("https://server.test/", "x", 1).result, kResultTimeout);
    EXPECT_THAT(m_callback->Questions(), SizeIs(1));

    // Lying: no HTTP, a tunnel to nothing, a challenge without a scheme.
    for (const char* const lie : { "220 mail.test\r\n\r\n", "HTTP/1.1 200 OK\r\n\r\nnot TLS", "HTTP/1.1 407 No\r\n\r\n",
                                   "HTTP/1.1 502 Bad\r\nContent-Length: 0\r\n\r\n" })
    {
        SCOPED_TRACE(lie);
        const Loopback::CLoopbackServer lying(SendsAndCloses(lie));
        UseProxy(lying.Port());
        EXPECT_TRUE(FAILED(Send("https://server.test/", "x", 5).result));
        EXPECT_EQ(Saved("https://server.test/"), L"");
    }
}
} // namespace
