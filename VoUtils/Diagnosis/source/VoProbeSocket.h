// A TCP connection of a probe: every step waits for the socket, for the stop event and for the deadline, so that it ends at
// once when the diagnosis is cancelled, and never later than its time.
#pragma once

#include "VoDiagnosisFacts.h"

#include <base/VoPlatform.h>

#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VoDiagnosis
{
// What ends a wait early.
struct CWaitLimit
{
    HANDLE stop = nullptr; // a manual-reset event
    INT64 deadline = 0;    // VoGetMicroseconds

    [[nodiscard]] bool IsOver() const noexcept;
    // What is left, in milliseconds, rounded up; 0 when it is over.
    [[nodiscard]] DWORD Remaining() const noexcept;
};

// An address to connect to, and its text.
struct CSocketAddress
{
    SOCKADDR_STORAGE address{};
    int length = 0;
    std::wstring text; // without brackets and port
};
// Reads the text of an address. Length 0 for any other text.
[[nodiscard]] CSocketAddress MakeSocketAddress(const std::wstring& text, UINT16 port);
// The addresses of a host, each once. Blocks while the resolver works; its error, or 0.
[[nodiscard]] DWORD Resolve(const std::wstring& host, UINT16 port, std::vector<CSocketAddress>& addresses);

class CProbeSocket
{
public:
    CProbeSocket() = default;
    CProbeSocket(CProbeSocket&& other) noexcept
        : m_socket(std::exchange(other.m_socket, INVALID_SOCKET)), m_event(std::exchange(other.m_event, nullptr))
    {
    }
    CProbeSocket& operator=(CProbeSocket&&) = delete;
    CProbeSocket(const CProbeSocket&) = delete;
    CProbeSocket& operator=(const CProbeSocket&) = delete;
    ~CProbeSocket();

    // Begins to connect: Ok when a result will come, which Event signals and Finish gives.
    [[nodiscard]] EOutcome Begin(const CSocketAddress& address) noexcept;
    [[nodiscard]] HANDLE Event() const noexcept { return m_event; }
    [[nodiscard]] EOutcome Finish() noexcept;
    [[nodiscard]] EOutcome Connect(const CSocketAddress& address, const CWaitLimit& limit) noexcept;

    [[nodiscard]] EOutcome Send(std::string_view bytes, const CWaitLimit& limit) noexcept;
    // Appends what has come, at least one byte. Closed at the end of the stream. Throws std::bad_alloc.
    [[nodiscard]] EOutcome Receive(std::string& bytes, const CWaitLimit& limit);

private:
    [[nodiscard]] EOutcome Wait(const CWaitLimit& limit) const noexcept;

    SOCKET m_socket = INVALID_SOCKET;
    HANDLE m_event = nullptr;
};

// Connects to every address at the same time, until each has a result or the time is over. One row for each address. Throws
// std::bad_alloc.
[[nodiscard]] std::vector<CConnectAttempt> ConnectToAll(const std::vector<CSocketAddress>& addresses, const CWaitLimit& limit);

// The head of an HTTP response, and the first bytes behind it.
struct CPlainResponse
{
    EOutcome outcome = EOutcome::Ok;
    bool isHttp = false;
    UINT32 statusCode = 0;
    std::wstring statusLine;
    std::vector<CVoHTTPHeader> headers;
    std::string body; // up to some KiB

    [[nodiscard]] std::wstring Header(std::wstring_view name) const;
};
// Sends a request and reads its response's head; with `withBody` also the beginning of the body, until the stream ends or the
// bound is reached. Throws std::bad_alloc.
[[nodiscard]] CPlainResponse Ask(CProbeSocket& socket, std::string_view request, bool withBody, const CWaitLimit& limit);
// The same for bytes that were received already: the head, when it is complete.
[[nodiscard]] bool ReadHead(std::string_view bytes, CPlainResponse& response);

// The schemes of the challenges in headers of that name (RFC 9110, section 11.6.1).
[[nodiscard]] std::vector<std::wstring> SchemesOf(const CPlainResponse& response, std::wstring_view headerName);
} // namespace VoDiagnosis
