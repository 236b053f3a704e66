// Private declarations that the loopback server's sources share.
#pragma once

#include "LoopbackServer.h"

#include <atomic>
#include <condition_variable>
#include <list>
#include <mutex>
#include <optional>
#include <set>
#include <system_error>
#include <thread>

namespace Loopback
{
[[nodiscard]] std::string_view Trim(std::string_view text) noexcept;
// Whether a comma-separated header value holds the token; the case does not matter.
[[nodiscard]] bool HasToken(std::string_view value, std::string_view token) noexcept;
// The whole text as a number; nullopt if it is not a number.
[[nodiscard]] std::optional<uint64_t> ParseNumber(std::string_view text, int base) noexcept;
// Parses a request's head, which ends with an empty line. False if it is not HTTP.
[[nodiscard]] bool ParseHead(std::string_view head, CRequest& request);
// Whether the client asks to close the connection after the response.
[[nodiscard]] bool WantsClose(const CRequest& request) noexcept;

class CWinsock
{
public:
    CWinsock();
    ~CWinsock() { ::WSACleanup(); }
    CWinsock(const CWinsock&) = delete;
    CWinsock& operator=(const CWinsock&) = delete;
};

class CEventHandle
{
public:
    explicit CEventHandle(bool manualReset);
    ~CEventHandle() { ::CloseHandle(m_handle); }
    CEventHandle(const CEventHandle&) = delete;
    CEventHandle& operator=(const CEventHandle&) = delete;

    [[nodiscard]] HANDLE Get() const noexcept { return m_handle; }

private:
    HANDLE m_handle;
};

// The open sockets that threads may wait on.
class CSocketSet
{
public:
    void Add(SOCKET socket);
    // Removes the socket from the set, then closes it: after the close its number may belong to another socket, which an
    // interrupt must not reach.
    void Close(SOCKET socket) noexcept;
    void InterruptAll() noexcept;

private:
    std::mutex m_lock;
    std::set<SOCKET> m_sockets;
};

// Owns a socket, and keeps it in the set as long as it lives.
class CTrackedSocket
{
public:
    CTrackedSocket(SOCKET socket, CSocketSet& sockets);
    ~CTrackedSocket() { m_sockets.Close(m_socket); }
    CTrackedSocket(const CTrackedSocket&) = delete;
    CTrackedSocket& operator=(const CTrackedSocket&) = delete;

    [[nodiscard]] SOCKET Get() const noexcept { return m_socket; }

private:
    SOCKET m_socket;
    CSocketSet& m_sockets;
};

constexpr size_t kBufferSize = 64 << 10;

[[nodiscard]] sockaddr_in LoopbackAddress(uint16_t port, uint8_t host = 1) noexcept;
// The socket functions take every kind of address as one type.
[[nodiscard]] sockaddr* Generic(sockaddr_in& address) noexcept;
// Returns a socket that is connected to that port; INVALID_SOCKET if nobody listens there.
[[nodiscard]] SOCKET ConnectTo(uint16_t port) noexcept;
// Cancels the calls that wait on the socket, and makes later calls fail.
void Interrupt(SOCKET socket) noexcept;
void SetBlocking(SOCKET socket) noexcept;
void SetNoDelay(SOCKET socket) noexcept;
// Receives at least one byte; 0 at the end of the stream, -1 for an error.
[[nodiscard]] int Receive(SOCKET socket, char* data, size_t size) noexcept;
// Sends both texts; the beginning of both goes out in one call.
bool SendAll(SOCKET socket, std::string_view first, std::string_view second = {}) noexcept;
// Copies bytes from one socket to the other until one closes. A normal close is passed on; any other end closes both.
void Carry(SOCKET from, SOCKET to) noexcept;

struct CLoopbackServer::CImpl
{
    CImpl(CHandler theHandler, COptions theOptions);

    void Accept() noexcept;
    void Start(SOCKET socket) noexcept;
    void Serve(SOCKET socket, size_t number);
    void JoinFinished() noexcept;
    void Stop() noexcept;
    [[nodiscard]] bool IsStopping() const noexcept { return ::WaitForSingleObject(stop.Get(), 0) == WAIT_OBJECT_0; }

    CWinsock winsock;
    const CHandler handler;
    const COptions options;
    CEventHandle stop{ true };
    CEventHandle acceptable{ false };
    SOCKET listener = INVALID_SOCKET;
    uint16_t port = 0;
    std::atomic<size_t> connections{ 0 };
    std::atomic<size_t> requests{ 0 };
    CSocketSet sockets;

    std::mutex lock; // guards the two lists
    std::condition_variable retired;
    std::list<std::thread> running;  // one for each connection
    std::list<std::thread> finished; // to be joined
    std::thread acceptor;
};

struct CConnection::CState
{
    enum class EEnd
    {
        KeepAlive,
        Close, // normally
        Reset,
        Gone // the peer closed it, or a call failed
    };
    enum class ERead
    {
        Done,
        Gone,
        Malformed,
        TooLarge
    };

    CState(CLoopbackServer::CImpl& theServer, SOCKET theSocket)
        : server(theServer), socket(theSocket), buffer(kBufferSize, '\0')
    {
    }

    // Reads the next request's head, then its body.
    [[nodiscard]] ERead ReadHead(CRequest& into);
    [[nodiscard]] ERead ReadBody(CRequest& into);
    bool Send(std::string_view first, std::string_view second = {});
    // The head of a response to the current request, with the headers for its length added.
    [[nodiscard]] std::string BuildHead(int status, const CHeaders& headers, uint64_t bodySize) const;
    // Waits until the peer closes its side or the server stops; false if the time ends first. Input is kept for the next read,
    // or dropped.
    bool AwaitClose(std::chrono::milliseconds time, bool keepInput);
    // Ends the connection in the chosen way. The owner closes the socket.
    void Finish();

    [[nodiscard]] std::string_view Buffered() const noexcept { return { buffer.data() + position, filled - position }; }
    void Consume(size_t size) noexcept { position += size; }

    CLoopbackServer::CImpl& server;
    const SOCKET socket;
    EEnd end = EEnd::KeepAlive;
    bool sent = false; // anything for the current request
    const CRequest* request = nullptr;

private:
    bool Fill();
    void Append(std::string_view input);
    [[nodiscard]] std::optional<std::string> ReadThrough(std::string_view mark, size_t limit, bool& tooLarge);
    [[nodiscard]] ERead ReadLine(std::string& line);
    [[nodiscard]] ERead ReadCounted(CRequest& into, uint64_t size);
    [[nodiscard]] ERead ReadChunked(CRequest& into);

    // The received bytes that are not consumed are between the two positions.
    std::string buffer;
    size_t position = 0;
    size_t filled = 0;
};
} // namespace Loopback
