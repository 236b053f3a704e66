// A server whose answers the test writes down, on top of the loopback server.
//
//     CScriptedServer server;
//     server.On("/login", { Answer::Respond(503), Answer::Text("ok=1&&") }); // once 503, then always the text
//     server.On("/slow", Answer::StallInBody("half"));
//     ... server.URL("/login") ...
//     EXPECT_EQ(server.Requests().at(1).body, "a=1&&");
//
// As a proxy: CScriptedServer proxy; proxy.Otherwise(Answer::Proxy({ .user = "u", .password = "p" }));
// With TLS: construct it on a port that a TLS front of TestServers.h leads to.
#pragma once

#include <LoopbackServer.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace TestSupport
{
using Loopback::CConnection;
using Loopback::CHeader;
using Loopback::CHeaders;
using Loopback::CRequest;

// What a request is answered with. Called on the connection's thread; one answer may serve several connections at once.
using CAnswer = Loopback::CHandler;

class CScriptedServer
{
public:
    // Listens on that port, or on a free one. Throws std::system_error when it cannot.
    explicit CScriptedServer(uint16_t port = 0);
    // Ends every connection, whatever it is doing.
    ~CScriptedServer();
    CScriptedServer(const CScriptedServer&) = delete;
    CScriptedServer& operator=(const CScriptedServer&) = delete;

    // What requests for the path (the target without its query) are answered with. Several answers are used one after another,
    // over all connections; the last one stays. Replaces what was said for the path before. May be called at any time.
    void On(std::string_view path, CAnswer answer);
    void On(std::string_view path, std::vector<CAnswer> answers);
    // What all other requests are answered with, in place of status 404. The whole table when the server is a proxy.
    void Otherwise(CAnswer answer);

    [[nodiscard]] uint16_t Port() const noexcept { return m_server->Port(); }
    // "http://127.0.0.1:PORT" and the target, which begins with "/".
    [[nodiscard]] std::string URL(std::string_view target = "/") const { return m_server->URL(target); }
    [[nodiscard]] std::wstring WideURL(std::string_view target = "/") const;

    // Every request read whole so far, in the order of their ends. A body above kRecordLimit is left out; its bodySize stands.
    [[nodiscard]] std::vector<CRequest> Requests() const;
    // Those of one path.
    [[nodiscard]] std::vector<CRequest> Requests(std::string_view path) const;
    // Waits until so many requests were recorded; false when the time is over first.
    [[nodiscard]] bool WaitForRequests(size_t count, std::chrono::milliseconds time = std::chrono::seconds(30)) const;
    void ForgetRequests();

    [[nodiscard]] size_t ConnectionCount() const noexcept { return m_server->ConnectionCount(); }
    // As the destructor; the port refuses connections from then on.
    void Stop() noexcept { m_server->Stop(); }

    static constexpr size_t kRecordLimit = 4 << 20;

private:
    struct CScript
    {
        std::vector<CAnswer> answers;
        size_t used = 0;
    };

    void Handle(const CRequest& request, CConnection& connection);

    mutable std::mutex m_lock;
    mutable std::condition_variable m_recorded;
    std::map<std::string, CScript, std::less<>> m_scripts;
    CAnswer m_otherwise;
    std::vector<CRequest> m_requests;
    std::unique_ptr<Loopback::CLoopbackServer> m_server; // last: its threads use the rest
};

// Bytes without a short period, in which a lost, doubled or exchanged block shows. The same size gives the same bytes, and a
// longer pattern begins with a shorter one.
[[nodiscard]] std::string Pattern(size_t size);
// The CRC-32 of the bytes, as Answer::Digest sends it.
[[nodiscard]] uint32_t Checksum(std::string_view bytes);
// The bytes compressed as Content-Encoding "gzip" or "deflate" (zlib format, RFC 9110 section 8.4.1.2).
[[nodiscard]] std::string Compress(std::string_view bytes, bool gzip);
[[nodiscard]] std::string EncodeBase64(std::string_view bytes);

// Ready-made answers. Bodies without a type named are "application/octet-stream".
namespace Answer
{
// whole answers
[[nodiscard]] CAnswer Respond(int status, CHeaders headers = {}, std::string body = {});
[[nodiscard]] CAnswer Text(std::string body); // 200
// Bytes as they are; then the connection is closed, or kept.
[[nodiscard]] CAnswer Raw(std::string bytes, bool close = true);
// One chunk and one send for each piece.
[[nodiscard]] CAnswer Chunked(std::vector<std::string> pieces, CHeaders headers = {}, std::string trailers = {});
// A body that ends with the connection, without a length.
[[nodiscard]] CAnswer UntilClose(std::string body);
[[nodiscard]] CAnswer Compressed(std::string body, bool gzip = true);
[[nodiscard]] CAnswer Redirect(int status, std::string location);
[[nodiscard]] CAnswer SetCookies(std::vector<std::string> values, std::string body = {});
// So many bytes of header lines of 1,000 bytes each, behind them the body.
[[nodiscard]] CAnswer LargeHeaders(size_t size, std::string body = {});
// The request's body, with its content type.
[[nodiscard]] CAnswer Echo();
// "length=N&crc32=XXXXXXXX&&" of the request's body (upper case, 8 digits).
[[nodiscard]] CAnswer Digest();
// Pattern(size), made and sent piece by piece.
[[nodiscard]] CAnswer Generated(uint64_t size);

// authentication: 401 (407) with the challenge until the request carries the right credentials, then the inner answer
[[nodiscard]] CAnswer Basic(std::string user, std::string password, CAnswer inner, std::string realm = "test");
[[nodiscard]] CAnswer ProxyBasic(std::string user, std::string password, CAnswer inner, std::string realm = "proxy");

// answers that lie or stop. Stalls last until the client closes or the server ends
// Claims a length other than the body's, then closes.
[[nodiscard]] CAnswer WrongLength(uint64_t claimed, std::string body);
[[nodiscard]] CAnswer CloseBeforeHeaders();
[[nodiscard]] CAnswer CloseInHeaders();
// Claims one byte more than it sends (or, chunked, leaves out the last chunk).
[[nodiscard]] CAnswer CloseInBody(std::string body);
[[nodiscard]] CAnswer CloseInChunks(std::vector<std::string> pieces);
[[nodiscard]] CAnswer ResetInBody(std::string body);
[[nodiscard]] CAnswer StallBeforeHeaders();
[[nodiscard]] CAnswer StallInHeaders();
[[nodiscard]] CAnswer StallInBody(std::string body);
// A right answer, slowly.
[[nodiscard]] CAnswer Drip(std::string body, size_t piece, std::chrono::milliseconds interval);

// a proxy: tunnels CONNECT, forwards requests in absolute form (their answers end the connection)
struct CProxyOptions
{
    std::string user; // empty: no authentication
    std::string password;
    // "host:port" of the target to the port on 127.0.0.1; a target that is not here keeps its port.
    std::map<std::string, uint16_t> targets;
};
[[nodiscard]] CAnswer Proxy(CProxyOptions options = {});
} // namespace Answer
} // namespace TestSupport
