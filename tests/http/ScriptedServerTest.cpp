// The scripted answers, as a bare libcurl handle sees them: a script that answered otherwise than it says would make the
// transports' tests worthless.
#include <support/ScriptedServer.h>
#include <support/TestServers.h>

#include <curl/curl.h>
#include <gmock/gmock.h>

#include <memory>

using namespace TestSupport;
using testing::HasSubstr;

namespace
{
struct CResult
{
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string headers;
    std::string body;
};

size_t Append(char* data, size_t size, size_t count, void* text)
{
    static_cast<std::string*>(text)->append(data, size * count);
    return size * count;
}

class CClient
{
public:
    CClient() : m_handle(::curl_easy_init(), ::curl_easy_cleanup)
    {
        Set(CURLOPT_NOPROXY, "");
        Set(CURLOPT_ACCEPT_ENCODING, "");
        Set(CURLOPT_FOLLOWLOCATION, 1L);
    }

    template <class T>
    void Set(CURLoption option, T value)
    {
        ASSERT_EQ(::curl_easy_setopt(m_handle.get(), option, value), CURLE_OK);
    }
    CResult Get(const std::string& url)
    {
        Set(CURLOPT_HTTPGET, 1L);
        return Perform(url);
    }
    CResult Post(const std::string& url, std::string_view body)
    {
        Set(CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
        Set(CURLOPT_POSTFIELDS, body.data());
        return Perform(url);
    }

private:
    CResult Perform(const std::string& url)
    {
        CResult result;
        Set(CURLOPT_URL, url.c_str());
        Set(CURLOPT_WRITEFUNCTION, &Append);
        Set(CURLOPT_WRITEDATA, &result.body);
        Set(CURLOPT_HEADERFUNCTION, &Append);
        Set(CURLOPT_HEADERDATA, &result.headers);
        result.code = ::curl_easy_perform(m_handle.get());
        ::curl_easy_getinfo(m_handle.get(), CURLINFO_RESPONSE_CODE, &result.status);
        return result;
    }

    std::unique_ptr<CURL, decltype(&::curl_easy_cleanup)> m_handle;
};
} // namespace

TEST(ScriptedServer, AnswersAsScripted)
{
    const std::string body = Pattern(100'000);
    CScriptedServer server;
    CScriptedServer other;
    other.On("/there", Answer::Text("moved"));
    const struct
    {
        const char* name;
        CAnswer answer;
        CURLcode code;
        long status;
        std::string body;
    } cases[] = {
        { "text", Answer::Text("text"), CURLE_OK, 200, "text" },
        { "status", Answer::Respond(503, { { "X", "y" } }, "busy"), CURLE_OK, 503, "busy" },
        { "chunked", Answer::Chunked({ "a", body, "z" }, {}, "T: 1\r\n"), CURLE_OK, 200, "a" + body + "z" },
        { "until close", Answer::UntilClose(body), CURLE_OK, 200, body },
        { "gzip", Answer::Compressed(body), CURLE_OK, 200, body },
        { "deflate", Answer::Compressed(body, false), CURLE_OK, 200, body },
        { "elsewhere", Answer::Redirect(302, other.URL("/there")), CURLE_OK, 200, "moved" },
        { "large headers", Answer::LargeHeaders(65'000, "small"), CURLE_OK, 200, "small" },
        { "generated", Answer::Generated(3'000'000), CURLE_OK, 200, Pattern(3'000'000) },
        { "dripped", Answer::Drip("slow", 1, std::chrono::milliseconds(1)), CURLE_OK, 200, "slow" },
        { "too long", Answer::WrongLength(6, "abc"), CURLE_PARTIAL_FILE, 200, "abc" },
        { "too short", Answer::WrongLength(2, "abc"), CURLE_OK, 200, "ab" },
        { "close before headers", Answer::CloseBeforeHeaders(), CURLE_GOT_NOTHING, 0, "" },
        { "close in body", Answer::CloseInBody("abc"), CURLE_PARTIAL_FILE, 200, "abc" },
        { "close in chunks", Answer::CloseInChunks({ "abc", "def" }), CURLE_PARTIAL_FILE, 200, "abcdef" },
    };
    for (const auto& test : cases)
    {
        SCOPED_TRACE(test.name);
        server.On("/case", test.answer);
        CClient client;
        const CResult result = client.Get(server.URL("/case?query"));
        EXPECT_EQ(result.code, test.code);
        EXPECT_EQ(result.status, test.status);
        EXPECT_TRUE(result.body == test.body) << "body of " << result.body.size() << " bytes";
    }
}

TEST(ScriptedServer, StallsUntilTheClientLeaves)
{
    CScriptedServer server;
    for (const auto& answer : { Answer::StallBeforeHeaders(), Answer::StallInHeaders(), Answer::StallInBody("abc") })
    {
        server.On("/stall", answer);
        CClient client;
        client.Set(CURLOPT_TIMEOUT_MS, 100L);
        EXPECT_EQ(client.Get(server.URL("/stall")).code, CURLE_OPERATION_TIMEDOUT);
    }
    EXPECT_EQ(server.Requests().size(), 3u);
}

TEST(ScriptedServer, UsesAnswersInTurnAndRecordsRequests)
{
    CScriptedServer server;
    server.On("/turn", { Answer::Respond(503), Answer::Echo() });
    server.On("/digest", Answer::Digest());
    CClient client;
    EXPECT_EQ(client.Post(server.URL("/turn?n=1"), "one").status, 503);
    EXPECT_EQ(client.Post(server.URL("/turn?n=2"), "two").body, "two");
    EXPECT_EQ(client.Post(server.URL("/turn"), "three").body, "three");
    EXPECT_EQ(client.Post(server.URL("/digest"), "123456789").body, "length=9&crc32=CBF43926&&");
    EXPECT_EQ(client.Get(server.URL("/unknown")).status, 404);

    const std::vector<CRequest> requests = server.Requests("/turn");
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[1].target, "/turn?n=2");
    EXPECT_EQ(requests[1].body, "two");
    EXPECT_EQ(requests[1].Header("content-length"), "3");
    EXPECT_THAT(requests[1].head, testing::StartsWith("POST /turn?n=2 HTTP/1.1\r\nHost: 127.0.0.1:"));
    EXPECT_EQ(server.ConnectionCount(), 1u);
    EXPECT_TRUE(server.WaitForRequests(5));
}

TEST(ScriptedServer, ChallengesUntilTheCredentialsAreRight)
{
    CScriptedServer server;
    server.On("/private", Answer::Basic("user", "p:w", Answer::Echo()));
    CClient client;
    CResult result = client.Post(server.URL("/private"), "body");
    EXPECT_EQ(result.status, 401);
    EXPECT_THAT(result.headers, HasSubstr("WWW-Authenticate: Basic realm=\"test\"\r\n"));
    client.Set(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_ANY));
    client.Set(CURLOPT_USERNAME, "user");
    client.Set(CURLOPT_PASSWORD, "p:w");
    result = client.Post(server.URL("/private"), "body");
    EXPECT_EQ(result.status, 200);
    EXPECT_EQ(result.body, "body");
    client.Set(CURLOPT_PASSWORD, "other");
    EXPECT_EQ(client.Post(server.URL("/private"), "body").status, 401);
}

TEST(ScriptedServer, IsAProxyForBothKindsOfTarget)
{
    CScriptedServer origin;
    origin.On("/x", Answer::Echo());
    CScriptedServer proxy;
    proxy.Otherwise(Answer::Proxy({ "u", "p", { { "named.invalid:80", origin.Port() }, { "named.invalid", origin.Port() } } }));
    for (const long tunnel : { 0L, 1L })
    {
        CClient client;
        client.Set(CURLOPT_PROXY, proxy.URL("").c_str());
        client.Set(CURLOPT_HTTPPROXYTUNNEL, tunnel);
        EXPECT_EQ(client.Post("http://named.invalid/x", "refused").body, tunnel ? "" : "no");
        client.Set(CURLOPT_PROXYUSERPWD, "u:p");
        const CResult result = client.Post("http://named.invalid/x", "carried");
        EXPECT_EQ(result.code, CURLE_OK);
        EXPECT_EQ(result.body, "carried");
    }
    const std::vector<CRequest> requests = origin.Requests();
    ASSERT_EQ(requests.size(), 2u);
    for (const CRequest& request : requests)
    {
        EXPECT_EQ(request.target, "/x");
        EXPECT_EQ(request.Header("Host"), "named.invalid");
        EXPECT_EQ(request.Header("Proxy-Authorization"), "");
    }
    EXPECT_EQ(proxy.Requests().back().method, "CONNECT");
}

TEST(TestServers, LeadTLSToTheScript)
{
    VO_NEEDS_TEST_SERVERS();
    const CTestServers& servers = *TestServers();
    ASSERT_FALSE(servers.tlsFronts.empty());
    const auto [tlsPort, port] = servers.tlsFronts.front();
    CScriptedServer server(port);
    server.On("/x", Answer::Echo());
    CClient client;
    client.Set(CURLOPT_CAINFO, servers.authority.c_str());
    EXPECT_EQ(client.Post("https://localhost:" + std::to_string(tlsPort) + "/x", "over TLS").body, "over TLS");
    EXPECT_EQ(client.Post(servers.URL("/echo"), "plain").body, "plain");
    EXPECT_EQ(client.Get(servers.SecureURL("/post")).body, "ok=1&method=GET&&");

    CClient strict;
    strict.Set(CURLOPT_CAINFO, servers.otherAuthority.c_str());
    EXPECT_EQ(strict.Get("https://localhost:" + std::to_string(servers.sparePorts.back()) + "/post").code,
              CURLE_PEER_FAILED_VERIFICATION);
}
