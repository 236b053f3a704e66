#include "LoopbackDetail.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Loopback
{
namespace
{
// How long a close waits for the peer's close, so that unread input does not turn it into a reset.
constexpr std::chrono::milliseconds kLinger{ 2000 };
// The longest line of chunked framing.
constexpr size_t kMaxLine = 4096;
// The most memory that is reserved for a body before its bytes arrive.
constexpr uint64_t kMaxReserve = 256 << 20;
// The step by which a body grows.
constexpr uint64_t kGrowth = 1 << 20;

// Statuses whose responses have no body.
bool IsBodiless(int status) noexcept
{
    return status < 200 || status == 204 || status == 304;
}
} // namespace

// Receives more bytes into the buffer, and drops consumed bytes.
bool CConnection::CState::Fill()
{
    std::copy(buffer.data() + position, buffer.data() + filled, buffer.data());
    filled -= std::exchange(position, 0);
    if (filled == buffer.size())
        buffer.resize(2 * buffer.size());
    const int received = Receive(socket, buffer.data() + filled, buffer.size() - filled);
    filled += static_cast<size_t>(std::max(received, 0));
    return received > 0;
}

void CConnection::CState::Append(std::string_view input)
{
    if (buffer.size() - filled < input.size())
        buffer.resize(filled + input.size());
    std::copy(input.begin(), input.end(), buffer.data() + filled);
    filled += input.size();
}

// Consumes the input up to the mark, with the mark. nullopt if the peer closes before it, or if it is longer than the limit.
std::optional<std::string> CConnection::CState::ReadThrough(std::string_view mark, size_t limit, bool& tooLarge)
{
    size_t searched = 0;
    for (;;)
    {
        const size_t found = Buffered().find(mark, searched);
        const size_t needed = found == std::string_view::npos ? Buffered().size() : found + mark.size();
        tooLarge = needed > limit;
        if (tooLarge)
            return std::nullopt;
        if (found != std::string_view::npos)
        {
            std::string text(Buffered().substr(0, needed));
            Consume(needed);
            return text;
        }
        searched = needed - std::min(needed, mark.size() - 1);
        if (!Fill())
            return std::nullopt;
    }
}

// A line of chunked framing, without its end.
CConnection::CState::ERead CConnection::CState::ReadLine(std::string& line)
{
    bool tooLarge = false;
    std::optional<std::string> read = ReadThrough("\r\n", kMaxLine, tooLarge);
    if (!read)
        return tooLarge ? ERead::Malformed : ERead::Gone;
    line = std::move(*read);
    line.resize(line.size() - 2);
    return ERead::Done;
}

CConnection::CState::ERead CConnection::CState::ReadHead(CRequest& into)
{
    // Ignore empty lines before a request line (RFC 9112, section 2.2).
    while (Buffered().size() < 2 || Buffered().starts_with("\r\n"))
    {
        if (Buffered().starts_with("\r\n"))
            Consume(2);
        else if (!Fill())
            return ERead::Gone;
    }
    // A client that begins a TLS handshake waits for an answer and never sends the end of a head.
    if (Buffered().front() <= ' ')
        return ERead::Malformed;
    bool tooLarge = false;
    std::optional<std::string> head = ReadThrough("\r\n\r\n", server.options.maxHeadSize, tooLarge);
    if (!head)
        return tooLarge ? ERead::TooLarge : ERead::Gone;
    into.head = std::move(*head);
    return ParseHead(into.head, into) ? ERead::Done : ERead::Malformed;
}

CConnection::CState::ERead CConnection::CState::ReadBody(CRequest& into)
{
    if (const std::string* coding = FindHeader(into.headers, "Transfer-Encoding"))
        return HasToken(*coding, "chunked") ? ReadChunked(into) : ERead::Malformed;
    const std::string* length = FindHeader(into.headers, "Content-Length");
    if (!length)
        return ERead::Done;
    const std::optional<uint64_t> size = ParseNumber(*length, 10);
    return size ? ReadCounted(into, *size) : ERead::Malformed;
}

// Adds that many bytes of input to the body; when the buffer is empty, it receives directly into the body.
CConnection::CState::ERead CConnection::CState::ReadCounted(CRequest& into, uint64_t size)
{
    if (into.bodySize + size > server.options.maxBodySize || into.bodySize + size < size)
        return ERead::TooLarge;
    const bool keep = server.options.keepBodies;
    const std::string_view buffered = Buffered().substr(0, static_cast<size_t>(std::min<uint64_t>(size, Buffered().size())));
    if (keep)
    {
        if (into.body.empty())
            into.body.reserve(static_cast<size_t>(std::min(size, kMaxReserve)));
        into.body.append(buffered);
    }
    into.bodySize += buffered.size();
    uint64_t left = size - buffered.size();
    Consume(buffered.size());

    std::string scratch(keep || left == 0 ? 0 : kBufferSize, '\0');
    size_t filledBody = into.body.size();
    while (left > 0)
    {
        // The body grows in large steps, because a string fills the new bytes with zeros.
        if (keep && filledBody == into.body.size())
            into.body.resize(filledBody + static_cast<size_t>(std::min<uint64_t>(left, kGrowth)));
        const int received =
            keep ? Receive(socket, into.body.data() + filledBody, into.body.size() - filledBody)
                 : Receive(socket, scratch.data(), static_cast<size_t>(std::min<uint64_t>(left, scratch.size())));
        if (received <= 0)
            return ERead::Gone;
        left -= static_cast<uint64_t>(received);
        into.bodySize += static_cast<uint64_t>(received);
        filledBody += keep ? static_cast<size_t>(received) : 0;
    }
    return ERead::Done;
}

CConnection::CState::ERead CConnection::CState::ReadChunked(CRequest& into)
{
    std::string line;
    for (;;)
    {
        if (const ERead result = ReadLine(line); result != ERead::Done)
            return result;
        // Extensions of the chunk follow a ";".
        const std::optional<uint64_t> size = ParseNumber(Trim(std::string_view(line).substr(0, line.find(';'))), 16);
        if (!size)
            return ERead::Malformed;
        if (*size == 0)
            break;
        if (const ERead result = ReadCounted(into, *size); result != ERead::Done)
            return result;
        if (const ERead result = ReadLine(line); result != ERead::Done)
            return result;
        if (!line.empty())
            return ERead::Malformed;
    }
    // Ignore trailer fields, up to the empty line.
    do
    {
        if (const ERead result = ReadLine(line); result != ERead::Done)
            return result;
    } while (!line.empty());
    return ERead::Done;
}

bool CConnection::CState::Send(std::string_view first, std::string_view second)
{
    if (end == EEnd::Reset || end == EEnd::Gone)
        return false;
    sent = true;
    if (SendAll(socket, first, second))
        return true;
    end = EEnd::Gone;
    return false;
}

std::string CConnection::CState::BuildHead(int status, const CHeaders& headers, uint64_t bodySize) const
{
    CHeaders all = headers;
    if (!IsBodiless(status) && !FindHeader(headers, "Content-Length") && !FindHeader(headers, "Transfer-Encoding"))
        all.push_back({ "Content-Length", std::to_string(bodySize) });
    if (request && WantsClose(*request) && !FindHeader(headers, "Connection"))
        all.push_back({ "Connection", "close" });
    return ResponseHead(status, all);
}

bool CConnection::CState::AwaitClose(std::chrono::milliseconds time, bool keepInput)
{
    const CEventHandle readable(false);
    if (::WSAEventSelect(socket, readable.Get(), FD_READ | FD_CLOSE) != 0)
        return true;
    const std::array<HANDLE, 2> events = { server.stop.Get(), readable.Get() };
    const auto deadline = std::chrono::steady_clock::now() + time;
    std::string scratch(kBufferSize, '\0');
    bool over = false;
    bool closed = false;
    while (!closed && !over)
    {
        const int received = Receive(socket, scratch.data(), scratch.size());
        if (received > 0 && keepInput)
            Append(std::string_view(scratch).substr(0, static_cast<size_t>(received)));
        closed = received == 0 || (received < 0 && ::WSAGetLastError() != WSAEWOULDBLOCK);
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        over = left <= 0;
        if (received < 0 && !closed && !over)
            closed = ::WaitForMultipleObjects(2, events.data(), FALSE,
                                              static_cast<DWORD>(std::min<long long>(left, INFINITE - 1))) == WAIT_OBJECT_0;
    }
    SetBlocking(socket);
    return closed;
}

void CConnection::CState::Finish()
{
    if (end == EEnd::Gone)
        return;
    if (end == EEnd::Reset)
    {
        const linger atOnce{ 1, 0 };
        ::setsockopt(socket, SOL_SOCKET, SO_LINGER, static_cast<const char*>(static_cast<const void*>(&atOnce)), sizeof atOnce);
        return;
    }
    ::shutdown(socket, SD_SEND);
    AwaitClose(kLinger, false);
}

bool CConnection::SendResponse(int status, const CHeaders& headers, std::string_view body)
{
    const bool bodiless = IsBodiless(status) || (m_state.request && m_state.request->method == "HEAD");
    return m_state.Send(m_state.BuildHead(status, headers, body.size()), bodiless ? std::string_view() : body);
}

bool CConnection::SendResponseHead(int status, const CHeaders& headers, uint64_t bodySize)
{
    return m_state.Send(m_state.BuildHead(status, headers, bodySize));
}

bool CConnection::Send(std::string_view bytes)
{
    return m_state.Send(bytes);
}

bool CConnection::Drip(std::string_view bytes, size_t piece, std::chrono::milliseconds interval)
{
    while (!bytes.empty())
    {
        const std::string_view now = bytes.substr(0, std::max<size_t>(piece, 1));
        bytes.remove_prefix(now.size());
        if (!m_state.Send(now) || (!bytes.empty() && WaitUntilStopped(interval)))
            return false;
    }
    return true;
}

bool CConnection::WaitUntilStopped(std::chrono::milliseconds time) noexcept
{
    const auto wait = std::clamp<long long>(time.count(), 0, INFINITE - 1);
    return ::WaitForSingleObject(m_state.server.stop.Get(), static_cast<DWORD>(wait)) == WAIT_OBJECT_0;
}

bool CConnection::WaitForPeerClose(std::chrono::milliseconds time)
{
    return m_state.AwaitClose(time, true);
}

void CConnection::CloseNow()
{
    if (m_state.end == CState::EEnd::KeepAlive)
        m_state.end = CState::EEnd::Close;
}

void CConnection::Reset()
{
    if (m_state.end != CState::EEnd::Gone)
        m_state.end = CState::EEnd::Reset;
}

uint16_t CConnection::PeerPort() const noexcept
{
    sockaddr_in address{};
    int size = sizeof address;
    return ::getpeername(m_state.socket, Generic(address), &size) == 0 ? ::ntohs(address.sin_port) : uint16_t{ 0 };
}

bool CConnection::Tunnel(uint16_t port, std::string_view established)
{
    const SOCKET socket = ConnectTo(port);
    if (socket == INVALID_SOCKET)
        return false;
    const CTrackedSocket upstream(socket, m_state.server.sockets);
    if (m_state.server.IsStopping())
        return true;
    // Bytes behind the request belong to the tunnel.
    const bool begun = m_state.Send(established) && SendAll(upstream.Get(), m_state.Buffered());
    m_state.end = CState::EEnd::Gone;
    if (!begun)
        return true;
    std::thread back(Carry, upstream.Get(), m_state.socket);
    Carry(m_state.socket, upstream.Get());
    back.join();
    return true;
}

bool CConnection::Forward(uint16_t port, std::string_view bytes)
{
    const SOCKET socket = ConnectTo(port);
    if (socket == INVALID_SOCKET)
        return false;
    const CTrackedSocket upstream(socket, m_state.server.sockets);
    CloseNow();
    if (m_state.server.IsStopping() || !SendAll(upstream.Get(), bytes))
        return true;
    std::array<char, kBufferSize> answer;
    for (int received = 0; (received = Receive(upstream.Get(), answer.data(), answer.size())) > 0;)
        if (!m_state.Send(std::string_view(answer.data(), static_cast<size_t>(received))))
            break;
    return true;
}
} // namespace Loopback
