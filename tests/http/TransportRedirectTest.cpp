// Challenges, cookies and redirects on all transports, over real sockets; the suite is TransportConformanceTest's.
#include "http/TransportFixture.h"
#include "support/LogCapture.h"

#include "VoRedirect.h"

#include <base/VoUtils.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

using namespace TestSupport;
using namespace std::string_literals;

namespace
{
TEST_P(TransportTest, AChallengeIsAnsweredAndTheBodySentAgain)
{
    if (!GetParam().asksCallback)
        GTEST_SKIP() << "the system's dialog asks, while connecting";
    const std::string body(100'000, 'b');
    std::atomic<int> accepted{ 0 };
    CServer server([&](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (!Authenticate(request, connection))
            return;
        accepted += request.body == "&&" + body;
        connection.SendResponse(200, {}, "a=1");
    });
    m_auth = VoMakeComObject<CScriptedAuthCallback>();
    // Wine's WinHTTP sends the first credentials for ever.
    std::vector<CScriptedAuthCallback::Credentials> credentials{ { L"ann", L"wrong" }, { L"ann", kPassword } };
    if (!BehavesAsDocumented(GetParam()))
        credentials.erase(credentials.begin());
    m_auth->AnswerServer(credentials);
    const CLogCapture log;
    CResponse response = SendTo(server.URL("/x?secret=1"), MakeMessage({}, body));
    EXPECT_EQ(response.result, S_OK);
    EXPECT_EQ(accepted, 1);
    EXPECT_EQ(ParamsOf(response.message), (Params{ { L"a", L"1" } })) << "the challenge's body is no part of the response";
    EXPECT_EQ(m_auth->Questions(),
              std::vector<std::wstring>(credentials.size(), L"server " + SeenHost() + L' ' + SeenURL(server, L"/x")))
        << "the query may hold secrets";

    // Declined: no further request.
    const size_t before = server.RequestCount();
    response = SendTo(server.URL("/x"), MakeMessage({}, body), Kind::Raw, true);
    EXPECT_EQ(response.result, kResultCancelled);
    EXPECT_EQ(server.RequestCount(), before + 1);
    EXPECT_TRUE(!GetParam().knowsLocalAddress || response.send.localAddress == L"127.0.0.1");

    // The same rejected credentials twice in a row count as declined.
    const size_t questions = m_auth->Questions().size();
    m_auth->AnswerServer(std::vector<CScriptedAuthCallback::Credentials>(5, { L"ann", L"wrong" }));
    EXPECT_EQ(SendTo(server.URL("/x"), {}, Kind::Raw, true).result, kResultCancelled);
    EXPECT_EQ(m_auth->Questions().size(), questions + 2);
    ExpectNotLogged(log, kPassword);
}

TEST_P(TransportTest, CookiesTravelOverSeveralRequests)
{
    CServer server(Responds(200, { { "Set-Cookie", "a=1; Path=/" },
                                   { "Set-Cookie", "b=2; Path=/app" },
                                   { "set-cookie", "c=3; Path=/; Secure" },
                                   { "Set-Cookie", "d=4; Path=/; Domain=elsewhere.example" },
                                   { "Set-Cookie", "e=5; Path=/; Max-Age=0" } }));
    for (const char* const target : { "/login", "/app/page", "/other" })
        EXPECT_EQ(SendTo(server.URL(target)).result, S_OK);
    EXPECT_EQ(server.Requests()[0].Header("Cookie"), "");
    EXPECT_EQ(server.Requests()[1].Header("Cookie"), "b=2; a=1");
    EXPECT_EQ(server.Requests()[2].Header("Cookie"), "a=1");
    // A response that is a failure sets its cookies, too.
    CServer broken(Responds(500, { { "Set-Cookie", "f=6; Path=/" } }));
    EXPECT_EQ(SendTo(broken.URL()).result, GetParam().unexpectedStatus);
    EXPECT_EQ(CookiesFor(*m_cookies.Get(), SeenURL(broken, L"/")), L"a=1; f=6");
}

TEST_P(TransportTest, CookiesTravelAsTheBytesThatCame)
{
    const std::tuple<const char*, std::string, bool> cases[] = {
        { "UTF-8", "\xC3\xBC\xE2\x82\xAC\xD0\xBB", true },
        { "a full-width semicolon and equals sign", "\xEF\xBC\x9B\xEF\xBC\x9D", false },
        { "no UTF-8", "\xE9\xFF\x80", false },
        { "bytes that Windows-1252 does not have", "\x81\x8D\x90", false },
    };
    for (const auto& [name, value, isSafeText] : cases)
    {
        SCOPED_TRACE(name);
        CServer server(Responds(200, { { "Set-Cookie", "a=" + value + "; Path=/" } }));
        EXPECT_EQ(m_cookies->Clear(), S_OK);
        const auto message = Connect(server.URL());
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(Send(*message, {}).result, S_OK);
        const bool isSent = isSafeText || !IsWine() || GetParam().sendsBytesUnderWine;
        EXPECT_EQ(server.Requests()[1].Header("Cookie"), isSent ? "a=" + value : "");
    }
}

TEST_P(TransportTest, FollowsRedirectsWithTheCookiesOfEachHop)
{
    CServer server([&](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (request.Path() == "/start")
            connection.SendResponse(302, { { "Location", "next?x=1" }, { "Set-Cookie", "session=new; Path=/" } });
        else if (request.Path() == "/keep")
            connection.SendResponse(307, { { "lOCATION", "/end" } });
        else
            connection.SendResponse(200, { { "Set-Cookie", "last=1; Path=/" } }, "a=1");
    });
    EXPECT_EQ(m_cookies->AddCookieFromString(CVoBstr(L"own=1; Path=/start").Get(), CVoBstr(SeenURL(server, L"/start")).Get()),
              S_OK);
    const CResponse response = SendTo(server.URL("/start"), MakeMessage({ { L"p", L"q" } }));
    EXPECT_EQ(response.result, S_OK);
    EXPECT_EQ(ParamsOf(response.message), (Params{ { L"a", L"1" } }));
    ASSERT_EQ(server.Requests().size(), 2U);
    EXPECT_EQ(server.Requests()[0].Header("Cookie"), "own=1");
    EXPECT_EQ(server.Requests()[1].method, "GET");
    EXPECT_EQ(server.Requests()[1].target, "/next?x=1");
    EXPECT_NE(server.Requests()[0].Header("Content-Type"), "");
    EXPECT_EQ(server.Requests()[1].Header("Content-Type"), "") << "it has no body";
    EXPECT_EQ(server.Requests()[1].Header("Cookie"), "session=new");

    EXPECT_EQ(SendTo(server.URL("/keep"), MakeMessage({ { L"p", L"q" } })).result, S_OK);
    const Loopback::CRequest again = server.Requests().back();
    EXPECT_EQ(again.method, "POST");
    EXPECT_NE(again.Header("Content-Type"), "");
    EXPECT_EQ(again.target, "/end");
    EXPECT_EQ(again.body, "p=q&&");
    EXPECT_EQ(again.Header("Cookie"), "session=new; last=1");
}

TEST_P(TransportTest, NoCookieLeavesItsSite)
{
    CServer other(Responds(200, {}, "a=1"));
    const std::string there = "http://localhost:" + std::to_string(other.Port()) + "/";
    const std::string chunked = "Transfer-Encoding: chunked\r\n\r\n0\r\nSet-Cookie: own=3; Path=/\r\n\r\n";
    for (const std::string& rest :
         { "Content-Length: 0\r\n\r\n"s, "Location: http://127.0.0.1/\r\nContent-Length: 0\r\n\r\n"s, chunked })
    {
        SCOPED_TRACE(rest);
        CServer server(SendsAndCloses("HTTP/1.1 302 Found\r\nLocation: " + there + "\r\n" + rest));
        EXPECT_EQ(m_cookies->Clear(), S_OK);
        const std::wstring here = SeenURL(server, L"/");
        for (const auto& [cookie, url] : { std::pair(L"own=1", here), std::pair(L"other=2", Wide(there)) })
            EXPECT_EQ(m_cookies->AddCookieFromString(CVoBstr(cookie).Get(), CVoBstr(url).Get()), S_OK);
        EXPECT_EQ(SendTo(server.URL(), {}, Kind::Empty).result, S_OK);
        EXPECT_EQ(server.Requests()[0].Header("Cookie"), "own=1");
        EXPECT_EQ(other.Requests().back().Header("Cookie"), "other=2");
        EXPECT_EQ(CookiesFor(*m_cookies.Get(), here), L"own=1") << "fields behind the body are no headers";
        EXPECT_EQ(CookiesFor(*m_cookies.Get(), Wide(there)), L"other=2");
    }
}

TEST_P(TransportTest, ARetryBeginsWhereTheRequestDid)
{
    std::atomic<int> responses{ 0 };
    CServer other([&](const auto&, Loopback::CConnection& connection)
    { connection.SendResponse(++responses == 1 ? 500 : 200, { { "Set-Cookie", "b=1; Path=/" } }); });
    CServer server(Responds(302, { { "Location", "http://localhost:" + std::to_string(other.Port()) + "/" } }));
    EXPECT_EQ(SendTo(server.URL(), {}, Kind::Empty, true).result, S_OK);
    EXPECT_EQ(server.RequestCount(), 2U);
    EXPECT_EQ(CookiesFor(*m_cookies.Get(), SeenURL(server, L"/")), L"");
}

TEST_P(TransportTest, ARedirectLoopEnds)
{
    CServer server(Responds(302, { { "Location", "/again" } }));
    EXPECT_TRUE(FAILED(SendTo(server.URL()).result));
    EXPECT_EQ(server.RequestCount(), 1U + kVoMaximumRedirects);
}
} // namespace
