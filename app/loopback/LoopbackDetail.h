// What the loopback server's source files share; not for its users.
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
// Whether a comma-separated header value holds the token, without regard to case.
[[nodiscard]] bool HasToken(std::string_view value, std::string_view token) noexcept;
// The whole text as a number; nothing when it is none.
[[nodiscard]] std::optional<uint64_t> ParseNumber(std::string_view text, int base) noexcept;
// Splits a head, which ends with an empty line, into the request's parts. False when it is none of HTTP.
[[nodiscard]] bool ParseHead(std::string_view head, CRequest& request);
// Whether the client asks for the connection's end after the answer.
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
    // Takes the socket out of the set and closes it, in this order, so that an interrupt cannot meet a number that means
    // another socket already.
    void Close(SOCKET socket) noexcept;
    void InterruptAll() noexcept;

private:
    std::mutex m_lock;
    std::set<SOCKET> m_sockets;
};

// Owns a socket and keeps it in the set for as long.
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
// The socket interface takes every kind of address by one type.
[[nodiscard]] sockaddr* Generic(sockaddr_in& address) noexcept;
// A socket connected to that port; INVALID_SOCKET when nobody listens there.
[[nodiscard]] SOCKET ConnectTo(uint16_t port) noexcept;
// Ends whatever a thread does with the socket: calls that wait are cancelled, later ones fail.
void Interrupt(SOCKET socket) noexcept;
void SetBlocking(SOCKET socket) noexcept;
void SetNoDelay(SOCKET socket) noexcept;
// At least one byte; 0 at the stream's end, -1 on an error.
[[nodiscard]] int Receive(SOCKET socket, char* data, size_t size) noexcept;
// Sends both texts, the first ones together in one call.
bool SendAll(SOCKET socket, std::string_view first, std::string_view second = {}) noexcept;
// Carries bytes from one socket to the other until either ends. An orderly end is handed on as one, any other ends both.
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
    std::list<std::thread> running;  // one a connection
    std::list<std::thread> finished; // to be joined
    std::thread acceptor;
};

struct CConnection::CState
{
    enum class EEnd
    {
        KeepAlive,
        Close, // in order
        Reset,
        Gone // the peer ended it, or a call failed
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
    // The head of an answer to the current request, with the headers that frame it added.
    [[nodiscard]] std::string BuildHead(int status, const CHeaders& headers, uint64_t bodySize) const;
    // Waits until the peer closes its side or the server stops; false when the time is over first. Input is kept for the next
    // read or dropped.
    bool AwaitClose(std::chrono::milliseconds time, bool keepInput);
    // Brings the connection to the end that was chosen. Closing the socket is the owner's.
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

    // What was received and not consumed lies between the two places.
    std::string buffer;
    size_t position = 0;
    size_t filled = 0;
};
} // namespace Loopback
