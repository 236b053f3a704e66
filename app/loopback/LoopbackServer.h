// A small HTTP/1.1 server on this machine's loopback, for demonstrations, benchmarks and tests.
//
//     Loopback::CLoopbackServer server([](const Loopback::CRequest& request, Loopback::CConnection& connection) {
//         connection.SendResponse(200, { { "Content-Type", "text/plain" } }, request.body);
//     });
//     ... "http://127.0.0.1:" + std::to_string(server.Port()) ...
//
// One thread accepts connections, and each connection has a thread of its own. The handler is called on the connection's
// thread, on several threads at once. The server reads requests with Content-Length or chunked bodies and keeps connections
// alive. It checks only the parts of HTTP that it needs to find the end of a request. Do not expose it to a network.
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

// The value of the first header of that name; the case does not matter. Null if there is none.
[[nodiscard]] const std::string* FindHeader(const CHeaders& headers, std::string_view name) noexcept;

struct CRequest
{
    std::string method;
    std::string target;    // from the request line: "/path?query", "http://host/path" or "host:port"
    std::string version;   // "HTTP/1.1"
    CHeaders headers;      // in order, names as they were sent
    std::string body;      // a chunked body without its framing
    std::string head;      // the request line and the header lines byte for byte, with the empty line that ends them
    uint64_t bodySize = 0; // the length of the body, also when the server does not keep bodies
    size_t connection = 0; // of the server, from 1
    size_t number = 0;     // of the request on its connection, from 1

    // The first header of that name; the case does not matter. Empty if there is none.
    [[nodiscard]] std::string_view Header(std::string_view name) const noexcept;
    // The target without its query.
    [[nodiscard]] std::string_view Path() const noexcept;
    // The text behind the target's "?"; empty without a "?".
    [[nodiscard]] std::string_view Query() const noexcept;
};

class CLoopbackServer;

// The connection that a handler responds on. Valid during the handler's call only, on the handler's thread. Every function that
// sends returns false if the peer has closed the connection or the server stops; the handler then returns.
class CConnection
{
public:
    // Sends a whole response. A Content-Length header is added unless the headers frame the body themselves (Content-Length or
    // Transfer-Encoding) or the status has none (1xx, 204, 304); a response to HEAD has the header and no body. If the
    // client asked to close the connection, "Connection: close" is added.
    bool SendResponse(int status, const CHeaders& headers = {}, std::string_view body = {});
    // Sends the head of a response of `bodySize` bytes. The caller sends the body afterwards with Send.
    bool SendResponseHead(int status, const CHeaders& headers, uint64_t bodySize);
    // Sends bytes unchanged. The connection stays open afterwards, unless CloseNow or Reset is called.
    bool Send(std::string_view bytes);
    // Sends the bytes in pieces of `piece` bytes, and waits the interval after each piece except the last.
    bool Drip(std::string_view bytes, size_t piece, std::chrono::milliseconds interval);

    // Waits for the given time. Returns true, early, if the server stops.
    bool WaitUntilStopped(std::chrono::milliseconds time) noexcept;
    // Waits until the peer closes its side or resets the connection, or the server stops, and returns true; false after the
    // time.
    bool WaitForPeerClose(std::chrono::milliseconds time);

    // Closes the connection: the peer reads all bytes that were sent, then the end of the stream.
    void CloseNow();
    // Resets the connection: the peer's calls fail, and it may lose bytes that were sent before. Under Wine the peer sees the
    // end of the stream instead.
    void Reset();

    // Connects to that port on 127.0.0.1; false if nobody listens there (nothing was sent). Otherwise sends `established` to
    // the client and copies bytes both ways until one side closes; then the connection is closed. For CONNECT.
    bool Tunnel(uint16_t port, std::string_view established);
    // Connects to that port on 127.0.0.1; false if nobody listens there (nothing was sent). Otherwise sends it the bytes and
    // copies its response back until it closes its side; then the connection is closed. For requests in absolute form.
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
    uint16_t port = 0;              // 0: the system chooses a free one
    uint8_t host = 1;               // listens on 127.0.0.HOST; all of 127/8 is this machine (RFC 1122, section 3.2.1.3)
    size_t maxHeadSize = 256 << 10; // of the request line and headers together; above it the response is 431
    uint64_t maxBodySize = 1 << 30; // above it the response is 413
    bool keepBodies = true;         // false: bodies are read and counted, not kept
    // Called with the head of a request, before its body is read. False: the body is not read, the handler is not called, and
    // the connection is closed after the bytes that this hook sent.
    std::function<bool(const CRequest&, CConnection&)> beforeBody;
};

class CLoopbackServer
{
public:
    // Starts to listen. Throws std::system_error on failure. The handler is called on several threads at once. An exception
    // that leaves it gives a response of status 500 if nothing was sent yet, and closes the connection.
    explicit CLoopbackServer(CHandler handler, COptions options = {});
    // Calls Stop.
    ~CLoopbackServer();
    CLoopbackServer(const CLoopbackServer&) = delete;
    CLoopbackServer& operator=(const CLoopbackServer&) = delete;

    // Stops accepting, closes every connection at once, and waits for the threads. May be called again. A handler must not call
    // it.
    void Stop() noexcept;

    [[nodiscard]] uint16_t Port() const noexcept;
    // "http://127.0.0.HOST:PORT" and the target, which begins with "/".
    [[nodiscard]] std::string URL(std::string_view target = "/") const;

    // The number of accepted connections, of requests read (each counts before its handler is called), and of open connections.
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

// The head of a response as SendResponse builds it, without added headers: status line, headers, empty line.
[[nodiscard]] std::string ResponseHead(int status, const CHeaders& headers);
} // namespace Loopback
