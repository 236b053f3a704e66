// Requests through proxies, real and scripted, with the process's proxy store behind the transports.
#include "http/TransportFixture.h"
#include "support/PlatformProxy.h"
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
class ProxyTransportTest : public testing::Test
{
protected:
    void UseProxy(const std::wstring& proxy)
    {
        CHTTPProxyConfigData config;
        config.manualProxy = proxy;
        ASSERT_EQ(m_store->Init(config), S_OK);
    }
    void UseProxy(uint16_t port) { UseProxy(NameOf(port)); }
    [[nodiscard]] static std::wstring NameOf(uint16_t port) { return L"127.0.0.1:" + std::to_wstring(port); }
    // A payload sent to a URL on a connection of its own.
    [[nodiscard]] CResponse Send(const std::string& url, std::string_view body = "x", UINT32 timeout = 20,
                                 bool allowRetry = false)
    {
        Message message;
        CResponse response;
        const CConnecting how{ m_kind, m_callback.Get(), m_store.Get(), nullptr, timeout, timeout };
        if (response.result = ConnectTo(Wide(url), how, message); FAILED(response.result))
            return response;
        return TestSupport::Send(*message, MakeMessage({}, body), Kind::Raw, allowRetry);
    }
    // The payload that came back.
    [[nodiscard]] std::string Get(const std::string& url, std::string_view body = "x")
    {
        return PayloadOf(Send(url, body).message);
    }

    CVoComPtr<CScriptedAuthCallback> m_callback = VoMakeComObject<CScriptedAuthCallback>();
    CVoComPtr<CVoGlobalHTTPProxyStoreImpl> m_store = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
    UINT32 m_kind = 2; // libcurl does all of this under Wine too
};
// --- squid

// Wine ignores the proxy of a WinHTTP request, and of WinINet's settings. The proxy has another name than the server: Wine's
// services would ask it as if it were the server.
TEST_F(ProxyTransportTest, EveryTransportGoesThroughAnOpenProxy)
{
    VO_NEEDS_TEST_SERVERS();
    const std::wstring proxy = L"localhost:" + std::to_wstring(TestServers()->squidPort);
    for (const UINT32 kind : { 0U, 1U, 2U })
    {
        SCOPED_TRACE(kind);
        const std::shared_ptr<void> standIn = kind == 0   ? WinINetSessionsUse(proxy)
                                              : kind == 1 ? WinHTTPRequestsUseTheirProxy()
                                                          : nullptr;
        m_kind = kind;
        UseProxy(proxy);
        const CServer origin(&Echo);
        EXPECT_EQ(Get(origin.URL("/"), "a body"), "a body");
        ASSERT_THAT(origin.Requests(), Not(IsEmpty()));
        EXPECT_THAT(origin.Requests().back().Header("Via"), HasSubstr("squid"));

        // Under a name that no other test has connected to directly: Wine's WinINet would take that connection for one to the
        // proxy.
        EXPECT_EQ(Get("https://127.0.0.1:" + std::to_string(TestServers()->tlsPort) + "/echo", "a body"), "a body");
        EXPECT_THAT(m_callback->Questions(), IsEmpty());

        // A request without a proxy goes to the server. WinINet decides by itself.
        if (kind == 0)
            continue;
        UseProxy(L"");
        EXPECT_EQ(Get(origin.URL("/"), "a body"), "a body");
        EXPECT_EQ(origin.Requests().back().Header("Via"), "");
    }
}

TEST_F(ProxyTransportTest, KeepsTheCredentialsThatAProxyAccepted)
{
    VO_NEEDS_TEST_SERVERS();
    const std::wstring user = Wide(TestServers()->squidUser);
    const std::wstring password = Wide(TestServers()->squidPassword);
    const std::wstring proxy = NameOf(TestServers()->squidAuthPort);
    const std::string body(5000, 'x'); // sent again after the challenge
    const std::string urls[] = { TestServers()->URL("/echo"), TestServers()->SecureURL("/echo") };
    for (const std::string& url : urls)
    {
        SCOPED_TRACE(url);
        EXPECT_EQ(m_store->Clear(), S_OK);
        UseProxy(TestServers()->squidAuthPort);
        m_callback = VoMakeComObject<CScriptedAuthCallback>();

        // Declined: the request is not sent on, nothing is saved, and the callback is asked once.
        EXPECT_EQ(Send(url, body, 5, true).result, kResultCancelled);
        EXPECT_EQ(ProxyFor(*m_store.Get(), Wide(url)), proxy + L" - -");
        // The question names the server and the proxy.
        EXPECT_THAT(m_callback->Questions(), ElementsAre(L"proxy " + Address(Wide(url)).PathURL() + L' ' + proxy));
        // Rejected credentials are asked for again and not saved.
        m_callback->AnswerProxy({ { user, L"wrong" } });
        EXPECT_EQ(Send(url, body).result, kResultCancelled);
        EXPECT_THAT(m_callback->Questions(), SizeIs(3));
        EXPECT_EQ(ProxyFor(*m_store.Get(), Wide(url)), proxy + L" - -");
        m_callback->AnswerProxy({ { L"wrong", password }, { user, password } });
        EXPECT_TRUE(Get(url, body) == body);
        EXPECT_THAT(m_callback->Questions(), SizeIs(5));
        // Accepted credentials serve every later request, to any server.
        for (const std::string& later : urls)
        {
            EXPECT_EQ(ProxyFor(*m_store.Get(), Wide(later)), proxy + L' ' + user + L' ' + password);
            EXPECT_TRUE(Get(later, body) == body);
        }
        EXPECT_THAT(m_callback->Questions(), SizeIs(5));
    }
    // Saved credentials that the proxy rejects, and no callback.
    m_callback.Reset();
    EXPECT_EQ(SaveCredentials(*m_store.Get(), NameOf(TestServers()->squidAuthPort), L"x", L"y"), S_OK);
    EXPECT_TRUE(FAILED(Send(urls[0]).result));
}

// Wine's WinHTTP takes a challenge to CONNECT for the server's response: over http only.
TEST_F(ProxyTransportTest, AsksOverWinHTTPOnceForTheProxyOfARequest)
{
    VO_NEEDS_TEST_SERVERS();
    const std::wstring proxy = L"localhost:" + std::to_wstring(TestServers()->squidAuthPort);
    const std::shared_ptr<void> standIn = WinHTTPRequestsUseTheirProxy();
    m_kind = 1;
    UseProxy(proxy);
    const std::wstring user = Wide(TestServers()->squidUser);
    const std::wstring password = Wide(TestServers()->squidPassword);
    m_callback->AnswerProxy({ { user, password } });
    const CServer origin(&Echo);
    const std::string body(5000, 'x'); // sent again after the challenge
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(Get(origin.URL("/"), body) == body);
    EXPECT_THAT(origin.Requests().back().Header("Via"), HasSubstr("squid"));
    EXPECT_THAT(m_callback->Questions(), SizeIs(1));
    EXPECT_EQ(ProxyFor(*m_store.Get(), Wide(origin.URL("/"))), proxy + L' ' + user + L' ' + password);
}

// --- scripted proxies, which see what reaches them

TEST_F(ProxyTransportTest, ShowsTheServersCredentialsToTheServerOnly)
{
    VO_NEEDS_TEST_SERVERS();
    const CServer proxy([](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (!Authenticate(request, connection, true))
            return;
        if (request.method == "CONNECT")
            connection.Tunnel(TestServers()->tlsPort, "HTTP/1.1 200 Connection established\r\n\r\n");
        else if (request.target != "http://first.test/private")
            connection.SendResponse(200, {}, "&&other");
        else if (Authenticate(request, connection))
            connection.SendResponse(302, { { "Location", "http://second.test/" } });
    });
    UseProxy(proxy.Port());
    m_callback->AnswerProxy({ { L"ann", kPassword } });
    // Credentials that the proxy accepted are kept, also when the server's question is declined.
    EXPECT_EQ(Send("http://first.test/private").result, kResultCancelled);
    EXPECT_EQ(ProxyFor(*m_store.Get(), L"http://first.test/"), NameOf(proxy.Port()) + L" ann " + kPassword);
    m_callback->AnswerServer({ { L"ann", kPassword }, { L"user", L"secret" } }); // of first.test, of nginx

    // After a redirect the other server gets none.
    EXPECT_EQ(Get("http://first.test/private"), "other");
    const size_t before = proxy.RequestCount();
    // Outside a tunnel only the proxy's credentials are sent, without a question because they are saved; inside only the
    // server's.
    EXPECT_EQ(Get(TestServers()->SecureURL("/private"), "private body"), "private body");
    EXPECT_THAT(m_callback->Questions(), SizeIs(4)); // once for the proxy, then for each request to a server
    const std::vector<Loopback::CRequest> seen = proxy.Requests();
    ASSERT_TRUE(before > 0 && seen.size() > before);
    for (const Loopback::CRequest& request : seen)
    {
        SCOPED_TRACE(request.target);
        // A transport may send without credentials first, to learn the schemes.
        EXPECT_THAT(request.Header("Proxy-Authorization"), AnyOf("", kBasicCredentials));
        EXPECT_TRUE(request.Header("Authorization").empty() || request.target == "http://first.test/private");
    }
    for (const auto& [last, target] : { std::pair(before - 1, std::string("http://second.test/")),
                                        { seen.size() - 1, "localhost:" + std::to_string(TestServers()->tlsPort) } })
    {
        EXPECT_EQ(seen[last].target, target);
        EXPECT_EQ(seen[last].Header("Proxy-Authorization"), kBasicCredentials);
    }
}

TEST_F(ProxyTransportTest, ShowsNoProxyCredentialsToAServerThatPretendsToBeAProxy)
{
    const CServer server([](const Loopback::CRequest& request, Loopback::CConnection& connection)
    { (void)Authenticate(request, connection, true); });
    m_callback->AnswerProxy({ { L"ann", kPassword } });
    EXPECT_TRUE(FAILED(Send(server.URL("/")).result));
    for (const Loopback::CRequest& seen : server.Requests())
        EXPECT_EQ(seen.Header("Proxy-Authorization"), "");
    EXPECT_EQ(ProxyFor(*m_store.Get(), Wide(server.URL("/"))), L" - -");
}

TEST_F(ProxyTransportTest, EndsWithinItsTimeOutsBehindABadProxy)
{
    // Dead: the port is closed.
    UseProxy(ClosedPort());
    EXPECT_TRUE(FAILED(Send("http://server.test/").result));
    EXPECT_TRUE(FAILED(Send("https://server.test/").result));

    // Slow: the response would come when the server stops.
    const Loopback::CLoopbackServer slow([](const Loopback::CRequest&, Loopback::CConnection& connection)
    { connection.WaitUntilStopped(std::chrono::minutes(1)); });
    UseProxy(slow.Port());
    EXPECT_EQ(Send("http://server.test/", "x", 1).result, kResultTimeout);
    EXPECT_EQ(Send("https://server.test/", "x", 1).result, kResultTimeout);

    // Silent about the credentials that it asked for: that is no refusal of them.
    const Loopback::CLoopbackServer silent([](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (Authenticate(request, connection, true))
            connection.WaitUntilStopped(std::chrono::minutes(1));
    });
    UseProxy(silent.Port());
    m_callback->AnswerProxy({ { L"ann", kPassword } });
    EXPECT_EQ(Send("https://server.test/", "x", 3).result, kResultTimeout);
    EXPECT_THAT(m_callback->Questions(), SizeIs(1));

    // Lying: no HTTP, a tunnel to nothing, a challenge without a scheme.
    for (const char* const lie : { "220 mail.test\r\n\r\n", "HTTP/1.1 200 OK\r\n\r\nnot TLS", "HTTP/1.1 407 No\r\n\r\n",
                                   "HTTP/1.1 502 Bad\r\nContent-Length: 0\r\n\r\n" })
    {
        SCOPED_TRACE(lie);
        const Loopback::CLoopbackServer lying(SendsAndCloses(lie));
        UseProxy(lying.Port());
        EXPECT_TRUE(FAILED(Send("https://server.test/", "x", 5).result));
        EXPECT_EQ(ProxyFor(*m_store.Get(), L"https://server.test/"), NameOf(lying.Port()) + L" - -");
    }
}
} // namespace
