// The loopback server is what the transports are measured with, so its own framing, keep-alive and end are checked here with a
// client that speaks in raw bytes.
#include "LoopbackServer.h"

#include <support/TestMain.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

using Loopback::CConnection;
using Loopback::CLoopbackServer;
using Loopback::COptions;
using Loopback::CRequest;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{
// A client connection that sends and receives bytes as they are. Every wait of its is bounded by the server's life: a server
// that ends ends the read.
class CRawClient
{
public:
    explicit CRawClient(uint16_t port) : m_socket(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
        address.sin_port = ::htons(port);
        const BOOL on = TRUE; // a delayed piece would wait for the server's acknowledgement
        ::setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, static_cast<const char*>(static_cast<const void*>(&on)), sizeof on);
        m_connected =
            ::connect(m_socket, static_cast<const sockaddr*>(static_cast<const void*>(&address)), sizeof address) == 0;
    }
    ~CRawClient() { ::closesocket(m_socket); }
    CRawClient(const CRawClient&) = delete;
    CRawClient& operator=(const CRawClient&) = delete;

    [[nodiscard]] bool IsConnected() const { return m_connected; }

    bool Send(std::string_view bytes)
    {
        while (!bytes.empty())
        {
            const int sent = ::send(m_socket, bytes.data(), static_cast<int>(std::min<size_t>(bytes.size(), 1 << 20)), 0);
            if (sent <= 0)
                return false;
            bytes.remove_prefix(static_cast<size_t>(sent));
        }
        return true;
    }
    void EndSending() { ::shutdown(m_socket, SD_SEND); }

    // Until the text ends with the mark, or to the end of the stream.
    std::string ReadThrough(std::string_view mark)
    {
        std::string text;
        while (!text.ends_with(mark))
        {
            char c = 0;
            m_last = ::recv(m_socket, &c, 1, 0);
            if (m_last <= 0)
                break;
            text.push_back(c);
        }
        return text;
    }
    std::string Read(size_t size)
    {
        std::string text(size, '\0');
        size_t have = 0;
        while (have < size && (m_last = ::recv(m_socket, text.data() + have, static_cast<int>(size - have), 0)) > 0)
            have += static_cast<size_t>(m_last);
        text.resize(have);
        return text;
    }
    std::string ReadAll()
    {
        std::string text;
        for (std::string piece; !(piece = Read(4096)).empty();)
            text += piece;
        return text;
    }
    // The next answer, framed by its Content-Length.
    std::string ReadResponse()
    {
        std::string head = ReadThrough("\r\n\r\n");
        const size_t place = head.find("Content-Length: ");
        return place == std::string::npos ? head : head + Read(std::stoul(head.substr(place + 16)));
    }
    // Whether the stream ended in order; false after a reset.
    [[nodiscard]] bool EndedInOrder() const { return m_last == 0; }

private:
    SOCKET m_socket;
    bool m_connected = false;
    int m_last = 1;
};

// Bytes without a period that a lost or doubled block could hide in.
std::string Pattern(size_t size)
{
    std::string bytes(size, '\0');
    uint32_t state = 12345;
    for (char& byte : bytes)
    {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

void Echo(const CRequest& request, CConnection& connection)
{
    connection.SendResponse(200, { { "X-Number", std::to_string(request.number) } }, request.body);
}

std::string Post(std::string_view body)
{
    return "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}
} // namespace

TEST(LoopbackServer, HandsTheRequestOverAsItWasSent)
{
    CRequest seen;
    CLoopbackServer server(
        [&seen](const CRequest& request, CConnection& connection)
        {
            seen = request;
            connection.SendResponse(200, { { "A", "1" }, { "A", "2" } }, "body");
        });
    CRawClient client(server.Port());
    const std::string head =
        "PUT /a/b?c=d HTTP/1.1\r\nhost: x\r\nX-Twice:  one \r\nX-TWICE:two\r\nX-Empty:\r\nContent-Length: 3\r\n\r\n";
    ASSERT_TRUE(client.Send(head + "xyz"));
    EXPECT_EQ(client.ReadResponse(), "HTTP/1.1 200 OK\r\nA: 1\r\nA: 2\r\nContent-Length: 4\r\n\r\nbody");
    EXPECT_EQ(seen.method, "PUT");
    EXPECT_EQ(seen.target, "/a/b?c=d");
    EXPECT_EQ(seen.Path(), "/a/b");
    EXPECT_EQ(seen.Query(), "c=d");
    EXPECT_EQ(seen.head, head);
    EXPECT_EQ(seen.body, "xyz");
    const Loopback::CHeaders headers = {
        { "host", "x" }, { "X-Twice", "one" }, { "X-TWICE", "two" }, { "X-Empty", "" }, { "Content-Length", "3" }
    };
    EXPECT_EQ(seen.headers, headers);
    EXPECT_EQ(seen.Header("x-twice"), "one");
}

TEST(LoopbackServer, KeepsConnectionsAliveAndCounts)
{
    CLoopbackServer server(Echo);
    CRawClient first(server.Port());
    CRawClient second(server.Port());
    for (int i = 1; i <= 3; ++i)
    {
        ASSERT_TRUE(first.Send(Post("first")));
        EXPECT_THAT(first.ReadResponse(), HasSubstr("X-Number: " + std::to_string(i) + "\r\n"));
    }
    ASSERT_TRUE(second.Send(Post("second")));
    EXPECT_THAT(second.ReadResponse(), HasSubstr("X-Number: 1\r\n"));
    EXPECT_EQ(server.ConnectionCount(), 2u);
    EXPECT_EQ(server.RequestCount(), 4u);
    EXPECT_EQ(server.OpenConnectionCount(), 2u);
}

TEST(LoopbackServer, AnswersPipelinedRequestsInOrder)
{
    CLoopbackServer server(Echo);
    CRawClient client(server.Port());
    ASSERT_TRUE(client.Send(Post("one") + "\r\n" + Post("") + Post("three")));
    EXPECT_THAT(client.ReadResponse(), testing::EndsWith("\r\n\r\none"));
    EXPECT_THAT(client.ReadResponse(), testing::EndsWith("Content-Length: 0\r\n\r\n"));
    EXPECT_THAT(client.ReadResponse(), testing::EndsWith("\r\n\r\nthree"));
}

TEST(LoopbackServer, EndsTheConnectionWhenTheClientAsks)
{
    CLoopbackServer server(Echo);
    const struct
    {
        const char* request;
        bool ends;
    } cases[] = {
        { "GET / HTTP/1.1\r\nConnection: close\r\n\r\n", true },
        { "GET / HTTP/1.1\r\nConnection: Keep-Alive, Close\r\n\r\n", true },
        { "GET / HTTP/1.0\r\n\r\n", true },
        { "GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", false },
        { "GET / HTTP/1.1\r\nConnection: Keep-Alive\r\n\r\n", false },
    };
    for (const auto& test : cases)
    {
        SCOPED_TRACE(test.request);
        CRawClient client(server.Port());
        ASSERT_TRUE(client.Send(test.request));
        const std::string answer = client.ReadResponse();
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
        EXPECT_EQ(answer.find("Connection: close\r\n") != std::string::npos, test.ends);
        if (test.ends)
        {
            EXPECT_EQ(client.ReadAll(), "");
        }
        else
        {
            ASSERT_TRUE(client.Send(Post("again")));
            EXPECT_THAT(client.ReadResponse(), testing::EndsWith("again"));
        }
    }
}

TEST(LoopbackServer, ReadsChunkedBodiesHoweverTheyAreCut)
{
    CLoopbackServer server(Echo);
    const std::string request = "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
                                "5\r\nhello\r\n1;name=value\r\n,\r\n00A\r\n0123456789\r\n0\r\nTrailer: x\r\n\r\n";
    CRawClient client(server.Port());
    for (size_t cut = 1; cut < request.size(); cut += 3)
    {
        ASSERT_TRUE(client.Send(std::string_view(request).substr(0, cut)));
        ASSERT_TRUE(client.Send(std::string_view(request).substr(cut)));
        ASSERT_THAT(client.ReadResponse(), testing::EndsWith("\r\n\r\nhello,0123456789")) << "cut at " << cut;
    }
}

TEST(LoopbackServer, CarriesLargeBodiesBothWays)
{
    const std::string body = Pattern(30'000'000);
    CLoopbackServer server(Echo);
    CRawClient client(server.Port());
    ASSERT_TRUE(client.Send(Post(body)));
    EXPECT_TRUE(client.ReadResponse().ends_with(body));

    ASSERT_TRUE(
        client.Send("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n1C9C380\r\n" + body + "\r\n0\r\n\r\n"));
    EXPECT_TRUE(client.ReadResponse().ends_with("\r\n\r\na" + body));
}

TEST(LoopbackServer, AnswersWhatItCannotReadAndEnds)
{
    COptions options;
    options.maxHeadSize = 100;
    options.maxBodySize = 10;
    CLoopbackServer server(Echo, options);
    const struct
    {
        std::string request;
        const char* answer;
    } cases[] = {
        { "nonsense\r\n\r\n", "HTTP/1.1 400 " },
        { "GET / HTTP/1.1\r\nno colon\r\n\r\n", "HTTP/1.1 400 " },
        { "POST / HTTP/1.1\r\nContent-Length: 1x\r\n\r\n", "HTTP/1.1 400 " },
        { "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n", "HTTP/1.1 400 " },
        { "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nab\r\n", "HTTP/1.1 400 " },
        { "GET / HTTP/1.1\r\nX: " + std::string(100, 'x') + "\r\n\r\n", "HTTP/1.1 431 " },
        { "POST / HTTP/1.1\r\nContent-Length: 11\r\n\r\n01234567890", "HTTP/1.1 413 " },
        { "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n6\r\n012345\r\n6\r\n012345\r\n0\r\n\r\n", "HTTP/1.1 413 " },
        { "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\nFFFFFFFFFFFFFFFF\r\n", "HTTP/1.1 413 " },
        { "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nabc", "" },
        { "GET / HTT", "" },
    };
    for (const auto& test : cases)
    {
        SCOPED_TRACE(test.request);
        CRawClient client(server.Port());
        ASSERT_TRUE(client.Send(test.request));
        client.EndSending();
        EXPECT_THAT(client.ReadAll(), StartsWith(test.answer));
        EXPECT_TRUE(client.EndedInOrder());
    }
    EXPECT_EQ(server.RequestCount(), 0u);
}

TEST(LoopbackServer, FramesAnswersByStatusAndMethod)
{
    CLoopbackServer server([](const CRequest& request, CConnection& connection)
                           { connection.SendResponse(std::stoi(request.target.substr(1)), {}, "body"); });
    CRawClient client(server.Port());
    const struct
    {
        const char* line;
        const char* answer;
    } cases[] = {
        { "HEAD /200", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n" },
        { "GET /204", "HTTP/1.1 204 No Content\r\n\r\n" },
        { "GET /304", "HTTP/1.1 304 Not Modified\r\n\r\n" },
        { "GET /299", "HTTP/1.1 299 Status\r\nContent-Length: 4\r\n\r\nbody" },
    };
    for (const auto& test : cases)
    {
        ASSERT_TRUE(client.Send(std::string(test.line) + " HTTP/1.1\r\n\r\n"));
        EXPECT_EQ(client.Read(std::string_view(test.answer).size()), test.answer);
    }
}

TEST(LoopbackServer, AsksForTheBodyThatTheClientHoldsBack)
{
    CLoopbackServer server(Echo);
    CRawClient client(server.Port());
    ASSERT_TRUE(client.Send("POST / HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n"));
    EXPECT_EQ(client.ReadThrough("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
    ASSERT_TRUE(client.Send("body"));
    EXPECT_THAT(client.ReadResponse(), testing::EndsWith("body"));
}

TEST(LoopbackServer, AnswersBeforeTheBodyWhenTold)
{
    COptions options;
    options.beforeBody = [](const CRequest&, CConnection& connection)
    {
        connection.SendResponse(403);
        return false;
    };
    CLoopbackServer server(Echo, options);
    CRawClient client(server.Port());
    // The unread body must not turn the answer into a reset.
    client.Send("POST / HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n" + std::string(500'000, 'x'));
    EXPECT_THAT(client.ReadAll(), StartsWith("HTTP/1.1 403 "));
    EXPECT_TRUE(client.EndedInOrder());
    EXPECT_EQ(server.RequestCount(), 0u);
}

TEST(LoopbackServer, EndsConnectionsInOrderOrByReset)
{
    CLoopbackServer server(
        [](const CRequest& request, CConnection& connection)
        {
            connection.Send("part");
            if (request.target == "/close")
                connection.CloseNow();
            else
                connection.Reset();
        });
    for (const bool inOrder : { true, false })
    {
        CRawClient client(server.Port());
        ASSERT_TRUE(client.Send(inOrder ? "GET /close HTTP/1.1\r\n\r\n" : "GET /reset HTTP/1.1\r\n\r\n"));
        const std::string answer = client.ReadAll();
        // Wine shuts every socket down before it closes it, so that its peer sees the stream's end before the reset.
        EXPECT_EQ(client.EndedInOrder(), inOrder || TestSupport::IsWine());
        if (inOrder)
        {
            EXPECT_EQ(answer, "part");
        }
    }
}

TEST(LoopbackServer, EndsTheConnectionOfAHandlerThatSendsNothingOrThrows)
{
    CLoopbackServer server(
        [](const CRequest& request, CConnection&)
        {
            if (request.target == "/throw")
                throw std::runtime_error("handler");
        });
    CRawClient silent(server.Port());
    ASSERT_TRUE(silent.Send("GET / HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(silent.ReadAll(), "");
    EXPECT_TRUE(silent.EndedInOrder());
    CRawClient throwing(server.Port());
    ASSERT_TRUE(throwing.Send("GET /throw HTTP/1.1\r\n\r\n"));
    EXPECT_THAT(throwing.ReadAll(), StartsWith("HTTP/1.1 500 "));
}

// Each case leaves the server's thread in another wait; the watchdog of the test program is the time limit.
TEST(LoopbackServer, StopsWhateverItsConnectionsDo)
{
    std::atomic<int> inHandler{ 0 };
    std::atomic<int> stopped{ 0 };
    auto server = std::make_unique<CLoopbackServer>(
        [&](const CRequest& request, CConnection& connection)
        {
            ++inHandler;
            if (request.target == "/stall")
                stopped += connection.WaitUntilStopped(std::chrono::hours(1)) ? 1 : 0;
            else if (request.target == "/await")
                stopped += connection.WaitForPeerClose(std::chrono::hours(1)) ? 1 : 0;
            else if (request.target == "/drip")
                stopped += connection.Drip("abc", 1, std::chrono::hours(1)) ? 0 : 1;
            else // more than the client's and the server's buffers take
                stopped += connection.SendResponse(200, {}, std::string(100 << 20, 'x')) ? 0 : 1;
        });
    std::vector<std::unique_ptr<CRawClient>> clients;
    for (const char* bytes :
         { "GET /stall HTTP/1.1\r\n\r\n", "GET /await HTTP/1.1\r\n\r\n", "GET /drip HTTP/1.1\r\n\r\n",
           "GET /flood HTTP/1.1\r\n\r\n", "GET /half", "POST / HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc", "" })
    {
        clients.push_back(std::make_unique<CRawClient>(server->Port()));
        ASSERT_TRUE(clients.back()->Send(bytes));
    }
    while (inHandler < 4)
        std::this_thread::yield();
    server.reset();
    EXPECT_EQ(stopped, 4);
    for (const auto& client : clients)
        client->ReadAll();
}

TEST(LoopbackServer, SeesThePeersClose)
{
    std::promise<bool> closed;
    CLoopbackServer server(
        [&closed](const CRequest&, CConnection& connection)
        {
            EXPECT_FALSE(connection.WaitForPeerClose(std::chrono::milliseconds(1)));
            connection.Send("ready");
            closed.set_value(connection.WaitForPeerClose(std::chrono::hours(1)));
        });
    {
        CRawClient client(server.Port());
        ASSERT_TRUE(client.Send("GET / HTTP/1.1\r\n\r\n"));
        EXPECT_EQ(client.Read(5), "ready");
    }
    EXPECT_TRUE(closed.get_future().get());
}

TEST(LoopbackServer, CarriesTunnelsAndForwardsRequests)
{
    CLoopbackServer origin(Echo);
    std::atomic<bool> reached{ true };
    CLoopbackServer proxy(
        [&](const CRequest& request, CConnection& connection)
        {
            if (request.method == "CONNECT")
                connection.Tunnel(static_cast<uint16_t>(std::stoi(request.target)), "HTTP/1.1 200 Established\r\n\r\n");
            else
            {
                reached =
                    connection.Forward(origin.Port(), "POST /x HTTP/1.1\r\nConnection: close\r\nContent-Length: " +
                                                          std::to_string(request.body.size()) + "\r\n\r\n" + request.body);
            }
        });
    CRawClient tunnelled(proxy.Port());
    // The first request comes along with CONNECT's head.
    ASSERT_TRUE(tunnelled.Send("CONNECT " + std::to_string(origin.Port()) + " HTTP/1.1\r\n\r\n" + Post("one")));
    EXPECT_EQ(tunnelled.ReadThrough("\r\n\r\n"), "HTTP/1.1 200 Established\r\n\r\n");
    EXPECT_THAT(tunnelled.ReadResponse(), testing::EndsWith("one"));
    const std::string body = Pattern(1'000'000);
    ASSERT_TRUE(tunnelled.Send(Post(body)));
    EXPECT_TRUE(tunnelled.ReadResponse().ends_with(body));
    tunnelled.EndSending();
    EXPECT_EQ(tunnelled.ReadAll(), "");

    CRawClient forwarded(proxy.Port());
    ASSERT_TRUE(forwarded.Send(Post("three")));
    EXPECT_THAT(forwarded.ReadAll(), testing::EndsWith("three"));
    EXPECT_TRUE(reached);

    // A tunnel that nobody uses ends with the proxy.
    CRawClient idle(proxy.Port());
    ASSERT_TRUE(idle.Send("CONNECT " + std::to_string(origin.Port()) + " HTTP/1.1\r\n\r\n"));
    EXPECT_THAT(idle.ReadThrough("\r\n\r\n"), StartsWith("HTTP/1.1 200"));
    proxy.Stop();
    EXPECT_EQ(idle.ReadAll(), "");
}

TEST(LoopbackServer, TakesTheSamePortAgain)
{
    COptions options;
    for (int i = 0; i < 3; ++i)
    {
        CLoopbackServer server(Echo, options);
        options.port = server.Port();
        CRawClient client(server.Port());
        ASSERT_TRUE(client.Send("GET / HTTP/1.1\r\nConnection: close\r\n\r\n"));
        EXPECT_THAT(client.ReadAll(), StartsWith("HTTP/1.1 200 "));
        EXPECT_THROW(CLoopbackServer(Echo, options), std::system_error);
    }
}
