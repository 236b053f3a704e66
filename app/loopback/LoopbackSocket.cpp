#include "LoopbackDetail.h"

#include <algorithm>
#include <array>

namespace Loopback
{
namespace
{
// The largest size for one call: the platform locks that much memory at once.
constexpr size_t kMaxTransfer = 4 << 20;
} // namespace

CWinsock::CWinsock()
{
    WSADATA data;
    if (const int error = ::WSAStartup(MAKEWORD(2, 2), &data))
        throw std::system_error(error, std::system_category(), "WSAStartup");
}

CEventHandle::CEventHandle(bool manualReset) : m_handle(::CreateEventW(nullptr, manualReset, FALSE, nullptr))
{
    if (!m_handle)
        throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), "CreateEvent");
}

void CSocketSet::Add(SOCKET socket)
{
    const std::scoped_lock hold(m_lock);
    m_sockets.insert(socket);
}

void CSocketSet::Close(SOCKET socket) noexcept
{
    const std::scoped_lock hold(m_lock);
    m_sockets.erase(socket);
    ::closesocket(socket);
}

void CSocketSet::InterruptAll() noexcept
{
    const std::scoped_lock hold(m_lock);
    for (const SOCKET socket : m_sockets)
        Interrupt(socket);
}

CTrackedSocket::CTrackedSocket(SOCKET socket, CSocketSet& sockets) : m_socket(socket), m_sockets(sockets)
{
    try
    {
        sockets.Add(socket);
    }
    catch (...)
    {
        ::closesocket(socket);
        throw;
    }
}

sockaddr_in LoopbackAddress(uint16_t port, uint8_t host) noexcept
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK - 1 + host);
    address.sin_port = ::htons(port);
    return address;
}

sockaddr* Generic(sockaddr_in& address) noexcept
{
    return static_cast<sockaddr*>(static_cast<void*>(&address));
}

SOCKET ConnectTo(uint16_t port) noexcept
{
    const SOCKET socket = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (socket == INVALID_SOCKET)
        return INVALID_SOCKET;
    sockaddr_in address = LoopbackAddress(port);
    if (::connect(socket, Generic(address), sizeof address) != 0)
    {
        ::closesocket(socket);
        return INVALID_SOCKET;
    }
    SetNoDelay(socket);
    return socket;
}

void Interrupt(SOCKET socket) noexcept
{
    ::shutdown(socket, SD_BOTH);
    ::CancelIoEx(reinterpret_cast<HANDLE>(socket), nullptr);
}

void SetBlocking(SOCKET socket) noexcept
{
    u_long nonBlocking = 0;
    ::WSAEventSelect(socket, nullptr, 0); // a socket with a selected event cannot be blocking
    ::ioctlsocket(socket, static_cast<long>(FIONBIO), &nonBlocking);
}

void SetNoDelay(SOCKET socket) noexcept
{
    const BOOL on = TRUE;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, static_cast<const char*>(static_cast<const void*>(&on)), sizeof on);
}

int Receive(SOCKET socket, char* data, size_t size) noexcept
{
    return ::recv(socket, data, static_cast<int>(std::min(size, kMaxTransfer)), 0);
}

bool SendAll(SOCKET socket, std::string_view first, std::string_view second) noexcept
{
    while (!first.empty() || !second.empty())
    {
        std::array<WSABUF, 2> buffers{};
        DWORD count = 0;
        size_t room = kMaxTransfer;
        for (const std::string_view text : { first, second })
        {
            const size_t size = std::min(text.size(), room);
            room -= size;
            if (size == 0)
                continue;
            buffers[count].buf = const_cast<char*>(text.data()); // the call only reads it
            buffers[count].len = static_cast<ULONG>(size);
            ++count;
        }
        DWORD sent = 0;
        if (::WSASend(socket, buffers.data(), count, &sent, 0, nullptr, nullptr) != 0)
            return false;
        const size_t ofFirst = std::min<size_t>(sent, first.size());
        first.remove_prefix(ofFirst);
        second.remove_prefix(sent - ofFirst);
    }
    return true;
}

void Carry(SOCKET from, SOCKET to) noexcept
{
    std::array<char, kBufferSize> bytes;
    int received = 0;
    while ((received = Receive(from, bytes.data(), bytes.size())) > 0)
    {
        if (!SendAll(to, std::string_view(bytes.data(), static_cast<size_t>(received))))
        {
            Interrupt(from);
            break;
        }
    }
    if (received == 0)
        ::shutdown(to, SD_SEND);
    else
        Interrupt(to);
}
} // namespace Loopback
