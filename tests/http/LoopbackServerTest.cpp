// The loopback server is what the transports are measured with, so its own framing and keep-alive are checked here with a
// client that speaks in raw bytes.
#include "LoopbackServer.h"

#include <gmock/gmock.h>

#include <algorithm>

using Loopback::CConnection;
using Loopback::CLoopbackServer;
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
