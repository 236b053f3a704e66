// A small HTTP/1.1 server on this machine's loopback, for demonstrations, benchmarks and tests.
//
//     Loopback::CLoopbackServer server([](const Loopback::CRequest& request, Loopback::CConnection& connection) {
//         connection.SendResponse(200, { { "Content-Type", "text/plain" } }, request.body);
//     });
//     ... "http://127.0.0.1:" + std::to_string(server.Port()) ...
//
// One thread accepts, and one serves each connection: the handler is called on the connection's thread, for several connections
// at once. It reads requests with Content-Length or chunked bodies and keeps connections alive; it checks no more of HTTP than
// it needs to find the requests' ends. It is not meant to face a network.
#pragma once

#include <base/VoPlatform.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Loopback
{
struct CHeader
{
    std::string name;
    std::string value; // without the white space around it

    bool operator==(const CHeader&) const = default;
};
using CHeaders = std::vector<CHeader>;

// The value of the first header of that name, without regard to case; null when there is none.
[[nodiscard]] const std::string* FindHeader(const CHeaders& headers, std::string_view name) noexcept;

struct CRequest
{
    std::string method;
    std::string target;    // as the request line has it: "/path?query", "http://host/path" or "host:port"
    std::string version;   // "HTTP/1.1"
    CHeaders headers;      // in order, names as they were sent
    std::string body;      // a chunked body without its framing
    std::string head;      // the request line and the header lines byte for byte, with the empty line that ends them
    uint64_t bodySize = 0; // the length of the body, also when the server does not keep bodies
    size_t connection = 0; // of the server, from 1
    size_t number = 0;     // of the request on its connection, from 1

    // The first header of that name, without regard to case; empty when there is none.
    [[nodiscard]] std::string_view Header(std::string_view name) const noexcept;
    // The target up to its query.
    [[nodiscard]] std::string_view Path() const noexcept;
    // What follows the target's "?"; empty without one.
    [[nodiscard]] std::string_view Query() const noexcept;
};

class CLoopbackServer;

// One connection, as a handler answers through it. It is valid during the handler's call only, on the handler's thread. Every
// sending function gives false when the peer is gone or the server stops; a handler then just returns.
class CConnection
{
public:
    // Sends a whole answer. A Content-Length header is added unless the headers frame the body themselves (Content-Length or
    // Transfer-Encoding) or the status has none (1xx, 204, 304); an answer to HEAD carries the header and no body. When the
    // client asked for the connection's end, "Connection: close" is added.
    bool SendResponse(int status, const CHeaders& headers = {}, std::string_view body = {});
    // The same, with the body made by the caller afterwards through Send: sends the head of an answer of `bodySize` bytes.
    bool SendResponseHead(int status, const CHeaders& headers, uint64_t bodySize);
    // Sends bytes as they are. The connection is kept alive afterwards, unless CloseNow or Reset is called.
    bool Send(std::string_view bytes);
    // Sends the bytes `piece` at a time, waiting the interval after each piece but the last.
    bool Drip(std::string_view bytes, size_t piece, std::chrono::milliseconds interval);

    // Waits for the time given, or until the server stops: true when it stops. Bounds every stall by the server's life.
    bool WaitUntilStopped(std::chrono::milliseconds time) noexcept;
    // Waits until the peer closes its side, resets the connection, or the server stops: true then, false when the time is over.
    bool WaitForPeerClose(std::chrono::milliseconds time);

    // Ends the connection after what was sent so far: the peer reads all of it, then the end of the stream.
    void CloseNow();
    // Ends the connection with a reset: the peer's calls fail, and it may lose what was sent before.
    // (Wine cannot: there the peer sees the stream's end.)
    void Reset();

    // Connects to that port on 127.0.0.1; false when nobody listens there (nothing was sent). Otherwise sends `established` to
    // the client and carries bytes both ways until either side ends; then the connection is over. For CONNECT.
    bool Tunnel(uint16_t port, std::string_view established);
    // Connects to that port on 127.0.0.1; false when nobody listens there (nothing was sent). Otherwise sends it the bytes and
    // carries its answer back until it closes its side; then the connection is over. For requests in absolute form.
    bool Forward(uint16_t port, std::string_view bytes);

    // The client's port.
    [[nodiscard]] uint16_t PeerPort() const noexcept;

    CConnection(const CConnection&) = delete;
    CConnection& operator=(const CConnection&) = delete;

private:
    friend class CLoopbackServer;
    struct CState;
    explicit CConnection(CState& state) noexcept : m_state(state) {}

    CState& m_state;
};

using CHandler = std::function<void(const CRequest&, CConnection&)>;

struct COptions
{
    uint16_t port = 0;              // 0: a free one is chosen
    uint8_t host = 1;               // listens on 127.0.0.HOST; all of 127/8 is this machine (RFC 1122, section 3.2.1.3)
    size_t maxHeadSize = 256 << 10; // of the request line and headers together; above it the answer is 431
    uint64_t maxBodySize = 1 << 30; // above it the answer is 413
    bool keepBodies = true;         // false: bodies are read and counted, not kept
    // Called before a request's body is read, with the request as it is then. False: the body is not read, the handler not
    // called, and the connection ends with what this hook sent.
    std::function<bool(const CRequest&, CConnection&)> beforeBody;
};

class CLoopbackServer
{
public:
    // Listens from here on. Throws std::system_error when it cannot. The handler is called on several threads at once; an
    // exception that leaves it is answered with status 500 where nothing was sent, and ends the connection.
    explicit CLoopbackServer(CHandler handler, COptions options = {});
    // Stops.
    ~CLoopbackServer();
    CLoopbackServer(const CLoopbackServer&) = delete;
    CLoopbackServer& operator=(const CLoopbackServer&) = delete;

    // Stops accepting, ends every connection whatever it is doing, and waits for the threads. May be called again; not by a
    // handler.
    void Stop() noexcept;

    [[nodiscard]] uint16_t Port() const noexcept;
    // "http://127.0.0.HOST:PORT" and the target, which begins with "/".
    [[nodiscard]] std::string URL(std::string_view target = "/") const;

    // Connections accepted, requests read whole (each before its handler is called), and connections that are open now.
    [[nodiscard]] size_t ConnectionCount() const noexcept;
    [[nodiscard]] size_t RequestCount() const noexcept;
    [[nodiscard]] size_t OpenConnectionCount() const;

private:
    friend class CConnection;
    struct CImpl;
    std::unique_ptr<CImpl> m_impl;
};

// The reason phrase of a status: "Not Found"; "Status" for an unknown one.
[[nodiscard]] std::string_view ReasonPhrase(int status) noexcept;

// The head of an answer, byte for byte as SendResponse builds it, without any header added: status line, headers, empty line.
[[nodiscard]] std::string ResponseHead(int status, const CHeaders& headers);
} // namespace Loopback
