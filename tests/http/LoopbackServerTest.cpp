// The loopback server is what the transports are measured with, so its own framing, keep-alive and end are checked here with a
// client that speaks in raw bytes.
#include "LoopbackServer.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <thread>

using Loopback::CConnection;
using Loopback::CLoopbackServer;
using Loopback::COptions;
using Loopback::CRequest;

namespace
{
// A client connection that sends and receives bytes as they are. A server that ends ends every wait.
class CRawClient
{
public:
    explicit CRawClient(uint16_t port) : m_socket(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
        address.sin_port = ::htons(port);
        EXPECT_EQ(::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~CRawClient() { ::closesocket(m_socket); }
    CRawClient(const CRawClient&) = delete;
    CRawClient& operator=(const CRawClient&) = delete;

    void Send(std::string_view bytes)
    {
        for (int sent = 0; !bytes.empty() && sent >= 0; bytes.remove_prefix(static_cast<size_t>(std::max(sent, 0))))
            sent = ::send(m_socket, bytes.data(), static_cast<int>(bytes.size()), 0);
    }
    std::string Read(size_t size)
    {
        std::string text;
        char piece[4096];
        int received = 1;
        while (text.size() < size && received > 0)
        {
            received = ::recv(m_socket, piece, static_cast<int>(std::min(size - text.size(), sizeof piece)), 0);
            text.append(piece, static_cast<size_t>(std::max(received, 0)));
        }
        return received >= 0 ? text : "reset after " + text;
    }
    // Ends the sending, and reads to the end of the stream.
    std::string ReadAll()
    {
        ::shutdown(m_socket, SD_SEND);
        return Read(SIZE_MAX);
    }

private:
    SOCKET m_socket;
};

std::string Exchange(const CLoopbackServer& server, std::string_view bytes)
{
    CRawClient client(server.Port());
    client.Send(bytes);
    return client.ReadAll();
}

void Echo(const CRequest& request, CConnection& connection)
{
    connection.SendResponse(200, { { "X-Number", std::to_string(request.number) } }, request.body);
}
std::string Post(std::string_view body)
{
    return "POST /echo HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}
std::string Echoed(int number, std::string_view body, std::string_view header = "")
{
    return "HTTP/1.1 200 OK\r\nX-Number: " + std::to_string(number) + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n" + std::string(header) + "\r\n" + std::string(body);
}
} // namespace

TEST(LoopbackServer, FramesRequestsAndAnswers)
{
    CLoopbackServer server(Echo);
    const std::string again = Post("again");
    const std::string closing = Echoed(1, "", "Connection: close\r\n");
    const std::string large(8'000'000, 'x');
    const std::string expecting = "POST / HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n";
    const struct
    {
        std::string request;
        std::string answer;
    } table[] = {
        { Post("one") + "\r\n" + Post("") + Post("three"), Echoed(1, "one") + Echoed(2, "") + Echoed(3, "three") },
        { "GET / HTTP/1.1\r\nConnection: Keep-Alive, Close\r\n\r\n" + again, closing },
        { "GET / HTTP/1.0\r\n\r\n" + again, closing },
        { expecting + "body", Echoed(1, "body") },
        { Post(large), Echoed(1, large) },
        { "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n7A1200\r\n" + large + "\r\n0\r\n\r\n",
          Echoed(1, 'a' + large) },
        // what ends too early is no request
        { again + "POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nabc", Echoed(1, "again") },
    };
    for (const auto& row : table)
        EXPECT_TRUE(Exchange(server, row.request) == row.answer) << row.request.substr(0, 200);
    EXPECT_EQ(server.ConnectionCount(), std::size(table));
    EXPECT_EQ(server.RequestCount(), 9u);

    // Only a client that holds its body back is asked for it.
    const std::string goOn = "HTTP/1.1 100 Continue\r\n\r\n";
    CRawClient holding(server.Port());
    holding.Send(expecting);
    EXPECT_EQ(holding.Read(goOn.size()), goOn);
    holding.Send("body");
    EXPECT_EQ(holding.ReadAll(), Echoed(1, "body"));
}

// Each case leaves the server's thread in another wait; the watchdog of the test program is the time limit.
TEST(LoopbackServer, StopsWhateverItsConnectionsDoAndFreesItsPort)
{
    std::atomic<int> inHandler{ 0 };
    std::atomic<int> stopped{ 0 };
    CLoopbackServer origin(Echo);
    CLoopbackServer server(
        [&](const CRequest& request, CConnection& connection)
        {
            ++inHandler;
            if (request.target == "/stall")
                stopped += connection.WaitUntilStopped(std::chrono::hours(1));
            else if (request.target == "/await")
                stopped += connection.WaitForPeerClose(std::chrono::hours(1));
            else if (request.target == "/drip")
                stopped += !connection.Drip("abc", 1, std::chrono::hours(1));
            else if (request.target == "/tunnel")
                stopped += connection.Tunnel(origin.Port(), "established");
            else // more than the client's and the server's buffers take
                stopped += !connection.SendResponse(200, {}, std::string(100 << 20, 'x'));
        });
    std::vector<std::unique_ptr<CRawClient>> clients;
    for (const char* bytes : { "GET /stall HTTP/1.1\r\n\r\n", "GET /await HTTP/1.1\r\n\r\n", "GET /drip HTTP/1.1\r\n\r\n",
                               "CONNECT /tunnel HTTP/1.1\r\n\r\n", "GET /flood HTTP/1.1\r\n\r\n", "GET /half",
                               "POST / HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc", "" })
    {
        clients.push_back(std::make_unique<CRawClient>(server.Port()));
        clients.back()->Send(bytes);
    }
    while (inHandler < 5 || server.OpenConnectionCount() < clients.size())
        std::this_thread::yield();
    COptions options;
    options.port = server.Port();
    EXPECT_THROW(CLoopbackServer(Echo, options), std::system_error);
    server.Stop();
    EXPECT_EQ(stopped, 5);
    for (const auto& client : clients)
        client->ReadAll();
    EXPECT_EQ(Exchange(CLoopbackServer(Echo, options), Post("one")), Echoed(1, "one"));
}
