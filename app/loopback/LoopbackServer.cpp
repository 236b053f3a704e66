#include "LoopbackDetail.h"

#include <array>
#include <utility>

namespace Loopback
{
namespace
{
// After this time Stop interrupts the running connections again.
constexpr std::chrono::milliseconds kInterruptInterval{ 200 };

[[noreturn]] void ThrowSocketError(const char* what)
{
    throw std::system_error(::WSAGetLastError(), std::system_category(), what);
}
} // namespace

CLoopbackServer::CImpl::CImpl(CHandler theHandler, COptions theOptions)
    : handler(std::move(theHandler)), options(std::move(theOptions)), listener(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP))
{
    if (listener == INVALID_SOCKET)
        ThrowSocketError("socket");
    try
    {
        // Otherwise another program could take the port, or share it.
        const BOOL on = TRUE;
        ::setsockopt(listener, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, static_cast<const char*>(static_cast<const void*>(&on)),
                     sizeof on);
        sockaddr_in address = LoopbackAddress(options.port, options.host);
        int size = sizeof address;
        if (::bind(listener, Generic(address), sizeof address) != 0)
            ThrowSocketError("bind");
        if (::listen(listener, SOMAXCONN) != 0)
            ThrowSocketError("listen");
        if (::getsockname(listener, Generic(address), &size) != 0)
            ThrowSocketError("getsockname");
        if (::WSAEventSelect(listener, acceptable.Get(), FD_ACCEPT) != 0)
            ThrowSocketError("WSAEventSelect");
        port = ::ntohs(address.sin_port);
        acceptor = std::thread([this] { Accept(); });
    }
    catch (...)
    {
        ::closesocket(listener);
        throw;
    }
}

void CLoopbackServer::CImpl::Accept() noexcept
{
    // A connection that arrives while another is accepted may leave the event unset (seen under load, one in some thousands),
    // and its peer would wait for ever. So the queue is checked from time to time.
    constexpr DWORD kLookAgain = 200; // ms
    const std::array<HANDLE, 2> events = { stop.Get(), acceptable.Get() };
    for (DWORD woken = 0;
         (woken = ::WaitForMultipleObjects(2, events.data(), FALSE, kLookAgain)) == WAIT_OBJECT_0 + 1 || woken == WAIT_TIMEOUT;)
    {
        for (SOCKET socket; (socket = ::accept(listener, nullptr, nullptr)) != INVALID_SOCKET;)
            Start(socket);
        JoinFinished();
    }
}

// Starts the thread of a new connection.
void CLoopbackServer::CImpl::Start(SOCKET socket) noexcept
{
    SetBlocking(socket); // an accepted socket inherits the listener's event
    SetNoDelay(socket);
    const size_t number = ++connections;
    try
    {
        const std::scoped_lock hold(lock);
        const auto self = running.emplace(running.end());
        try
        {
            *self = std::thread([this, socket, number, self]
            {
                try
                {
                    Serve(socket, number);
                }
                catch (const std::exception&)
                {
                    // Out of memory or handles: close the connection.
                }
                const std::scoped_lock retire(lock);
                finished.splice(finished.end(), running, self);
                retired.notify_all();
            });
        }
        catch (...)
        {
            running.erase(self);
            throw;
        }
    }
    catch (const std::exception&)
    {
        ::closesocket(socket); // there is no thread for it
    }
}

void CLoopbackServer::CImpl::Serve(SOCKET socket, size_t number)
{
    using EEnd = CConnection::CState::EEnd;
    using ERead = CConnection::CState::ERead;
    const CTrackedSocket tracked(socket, sockets);
    // Either Stop finds the socket in the set, or this call sees the event.
    if (IsStopping())
        return;

    CConnection::CState state(*this, socket);
    CConnection connection(state);
    for (size_t index = 1; state.end == EEnd::KeepAlive; ++index)
    {
        CRequest request;
        request.connection = number;
        request.number = index;
        state.request = &request;
        state.sent = false;

        ERead read = state.ReadHead(request);
        if (read == ERead::Done)
        {
            if (options.beforeBody && !options.beforeBody(request, connection))
            {
                connection.CloseNow();
                break;
            }
            if (HasToken(request.Header("Expect"), "100-continue") && state.Buffered().empty())
                state.Send("HTTP/1.1 100 Continue\r\n\r\n");
            read = state.ReadBody(request);
            if (read == ERead::TooLarge)
                connection.SendResponse(413, { { "Connection", "close" } });
        }
        else if (read == ERead::TooLarge)
            connection.SendResponse(431, { { "Connection", "close" } });
        if (read == ERead::Malformed)
            connection.SendResponse(400, { { "Connection", "close" } });
        if (read != ERead::Done)
        {
            if (read == ERead::Gone)
                state.end = EEnd::Gone;
            connection.CloseNow();
            break;
        }

        ++requests;
        state.sent = false;
        try
        {
            handler(request, connection);
        }
        catch (const std::exception&)
        {
            if (!state.sent)
                connection.SendResponse(500);
            connection.CloseNow();
        }
        if (!state.sent || WantsClose(request))
            connection.CloseNow();
    }
    state.request = nullptr;
    state.Finish();
}

void CLoopbackServer::CImpl::JoinFinished() noexcept
{
    std::list<std::thread> threads;
    {
        const std::scoped_lock hold(lock);
        threads.swap(finished);
    }
    for (std::thread& thread : threads)
        thread.join();
}

void CLoopbackServer::CImpl::Stop() noexcept
{
    if (listener == INVALID_SOCKET)
        return;
    ::SetEvent(stop.Get());
    acceptor.join();
    ::closesocket(std::exchange(listener, INVALID_SOCKET));
    {
        std::unique_lock hold(lock);
        // Repeated: a thread may be between its last check of the event and a call that waits.
        do
            sockets.InterruptAll();
        while (!retired.wait_for(hold, kInterruptInterval, [this] { return running.empty(); }));
    }
    JoinFinished();
}

CLoopbackServer::CLoopbackServer(CHandler handler, COptions options)
    : m_impl(std::make_unique<CImpl>(std::move(handler), std::move(options)))
{
}

CLoopbackServer::~CLoopbackServer()
{
    Stop();
}

void CLoopbackServer::Stop() noexcept
{
    m_impl->Stop();
}

uint16_t CLoopbackServer::Port() const noexcept
{
    return m_impl->port;
}

std::string CLoopbackServer::URL(std::string_view target) const
{
    std::string url = "http://127.0.0." + std::to_string(m_impl->options.host) + ':' + std::to_string(Port());
    url += target;
    return url;
}

size_t CLoopbackServer::ConnectionCount() const noexcept
{
    return m_impl->connections;
}

size_t CLoopbackServer::RequestCount() const noexcept
{
    return m_impl->requests;
}

size_t CLoopbackServer::OpenConnectionCount() const
{
    const std::scoped_lock hold(m_impl->lock);
    return m_impl->running.size();
}
} // namespace Loopback
