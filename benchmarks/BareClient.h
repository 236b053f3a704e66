// What a program would use instead of the library: libcurl, WinHTTP and WinINet called directly, each behind the same small
// face. Each has a source file of its own, since winhttp.h and wininet.h do not go together in one.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Bare
{
// A server on loopback. Its certificate is not checked.
struct CServer
{
    uint16_t port = 0;
    bool secure = false;

    [[nodiscard]] std::string URL(std::string_view path) const
    {
        return (secure ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port) + std::string(path);
    }
};

// Keeps what the bare calls keep between requests: a handle, a session, a connection. For one thread.
class IClient
{
public:
    IClient() = default;
    virtual ~IClient() = default;
    IClient(const IClient&) = delete;
    IClient& operator=(const IClient&) = delete;

    // Sends the body, or a GET where it is null, and returns the answer's. Throws std::runtime_error unless the answer is 200.
    virtual std::vector<unsigned char> Request(const std::string& path, const std::string* body) = 0;
};

std::unique_ptr<IClient> MakeCURL(const CServer& server);
std::unique_ptr<IClient> MakeWinHttp(const CServer& server); // synchronous
std::unique_ptr<IClient> MakeAsynchronousWinHttp(const CServer& server);
// Synchronous, with the body in the call that sends the request, and in calls of its own as the library's transport sends it.
std::unique_ptr<IClient> MakeWinINet(const CServer& server);
std::unique_ptr<IClient> MakeWinINetInPieces(const CServer& server);

// For calls that a benchmark cannot do without.
inline void Demand(bool condition)
{
    if (!condition)
        throw std::runtime_error("a request of the benchmark failed");
}

inline constexpr char kContentType[] = "Content-Type: application/octet-stream";
} // namespace Bare
