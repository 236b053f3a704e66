// Connections of probes (VoProbeSocket.h).
#include "VoProbeSocket.h"

#include <VoNetworkUtils.h>

#include <base/VoDateTime.h>
#include <base/VoText.h>
#include <base/VoTextConversion.h>

#include <algorithm>
#include <array>
#include <memory>

namespace VoDiagnosis
{
namespace
{
constexpr size_t kMaximumPlainHead = 64 * 1024;
constexpr size_t kMaximumPlainBody = 16 * 1024;
constexpr size_t kMaximumAddresses = 16; // more than any host needs; WaitForMultipleObjects takes 64 handles

EOutcome OutcomeOf(int error) noexcept
{
    switch (error)
    {
    case 0:
        return EOutcome::Ok;
    case WSAECONNREFUSED:
        return EOutcome::Refused;
    case WSAENETUNREACH:
    case WSAEHOSTUNREACH:
    case WSAENETDOWN:
    case WSAEADDRNOTAVAIL:
    case WSAEAFNOSUPPORT:
        return EOutcome::Unreachable;
    case WSAETIMEDOUT:
        return EOutcome::TimedOut;
    case WSAECONNRESET:
    case WSAECONNABORTED:
        return EOutcome::Closed;
    default:
        return EOutcome::Error;
    }
}

// Text of a head: UTF-8, or else one character for each byte (RFC 9110, section 5.5).
std::wstring TextOf(std::string_view bytes)
{
    std::wstring text;
    if (SUCCEEDED(VoUTF8ToString(bytes, text)))
        return text;
    for (const char byte : bytes)
        text += static_cast<wchar_t>(static_cast<unsigned char>(byte));
    return text;
}
} // namespace

bool CWaitLimit::IsOver() const noexcept
{
    return Remaining() == 0 || ::WaitForSingleObject(stop, 0) == WAIT_OBJECT_0;
}

DWORD CWaitLimit::Remaining() const noexcept
{
    const INT64 left = deadline - VoGetMicroseconds();
    return left <= 0 ? 0 : static_cast<DWORD>((left + 999) / 1000);
}

CSocketAddress MakeSocketAddress(const std::wstring& text, UINT16 port)
{
    CSocketAddress address;
    auto* const v4 = reinterpret_cast<SOCKADDR_IN*>(&address.address);
    auto* const v6 = reinterpret_cast<SOCKADDR_IN6*>(&address.address);
    address.text = text;
    if (::InetPtonW(AF_INET, text.c_str(), &v4->sin_addr) == 1)
    {
        v4->sin_family = AF_INET;
        v4->sin_port = ::htons(port);
        address.length = sizeof *v4;
    }
    else if (::InetPtonW(AF_INET6, text.c_str(), &v6->sin6_addr) == 1)
    {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = ::htons(port);
        address.length = sizeof *v6;
    }
    return address;
}

DWORD Resolve(const std::wstring& host, UINT16 port, std::vector<CSocketAddress>& addresses)
{
    if (const int error = VoNetworkUtils::StartSockets(); error != 0)
        return static_cast<DWORD>(error);
    ADDRINFOW hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    ADDRINFOW* results = nullptr;
    if (const int error = ::GetAddrInfoW(host.c_str(), nullptr, &hints, &results); error != 0)
        return static_cast<DWORD>(error);
    const std::unique_ptr<ADDRINFOW, void (*)(ADDRINFOW*)> list(results, [](ADDRINFOW* l) { ::FreeAddrInfoW(l); });
    for (const ADDRINFOW* result = list.get(); result && addresses.size() < kMaximumAddresses; result = result->ai_next)
    {
        constexpr DWORD kTextLength = 64; // more than INET6_ADDRSTRLEN
        wchar_t text[kTextLength];
        const void* bytes = nullptr;
        if (result->ai_family == AF_INET)
            bytes = &reinterpret_cast<const SOCKADDR_IN*>(result->ai_addr)->sin_addr;
        else if (result->ai_family == AF_INET6)
            bytes = &reinterpret_cast<const SOCKADDR_IN6*>(result->ai_addr)->sin6_addr;
        if (!bytes || !::InetNtopW(result->ai_family, bytes, text, kTextLength))
            continue;
        const std::wstring_view found = text;
        if (std::none_of(addresses.begin(), addresses.end(), [=](const CSocketAddress& a) { return a.text == found; }))
            addresses.push_back(MakeSocketAddress(text, port));
    }
    return addresses.empty() ? static_cast<DWORD>(WSANO_DATA) : 0;
}

CProbeSocket::~CProbeSocket()
{
    if (m_socket != INVALID_SOCKET)
        ::closesocket(m_socket);
    if (m_event)
        ::WSACloseEvent(m_event);
}

EOutcome CProbeSocket::Begin(const CSocketAddress& address) noexcept
{
    if (const int error = VoNetworkUtils::StartSockets(); error != 0)
        return OutcomeOf(error);
    m_event = ::WSACreateEvent();
    m_socket = ::socket(address.address.ss_family, SOCK_STREAM, IPPROTO_TCP);
    // The event makes the socket non-blocking.
    if (!m_event || m_socket == INVALID_SOCKET ||
        ::WSAEventSelect(m_socket, m_event, FD_CONNECT | FD_READ | FD_WRITE | FD_CLOSE) != 0)
        return OutcomeOf(::WSAGetLastError());
    if (::connect(m_socket, reinterpret_cast<const SOCKADDR*>(&address.address), address.length) == 0)
        return EOutcome::Ok;
    const int error = ::WSAGetLastError();
    return error == WSAEWOULDBLOCK ? EOutcome::Ok : OutcomeOf(error);
}

EOutcome CProbeSocket::Finish() noexcept
{
    WSANETWORKEVENTS events{};
    if (::WSAEnumNetworkEvents(m_socket, m_event, &events) != 0)
        return OutcomeOf(::WSAGetLastError());
    return (events.lNetworkEvents & FD_CONNECT) != 0 ? OutcomeOf(events.iErrorCode[FD_CONNECT_BIT]) : EOutcome::Error;
}

EOutcome CProbeSocket::Wait(const CWaitLimit& limit) const noexcept
{
    const HANDLE handles[] = { limit.stop, m_event };
    return ::WaitForMultipleObjects(2, handles, FALSE, limit.Remaining()) == WAIT_OBJECT_0 + 1 ? EOutcome::Ok
                                                                                               : EOutcome::TimedOut;
}

EOutcome CProbeSocket::Connect(const CSocketAddress& address, const CWaitLimit& limit) noexcept
{
    EOutcome outcome = Begin(address);
    if (outcome == EOutcome::Ok)
        outcome = Wait(limit);
    return outcome == EOutcome::Ok ? Finish() : outcome;
}

EOutcome CProbeSocket::Send(std::string_view bytes, const CWaitLimit& limit) noexcept
{
    while (!bytes.empty())
    {
        ::WSAResetEvent(m_event);
        const int sent = ::send(m_socket, bytes.data(), static_cast<int>(bytes.size()), 0);
        if (sent >= 0)
            bytes.remove_prefix(static_cast<size_t>(sent));
        else if (const int error = ::WSAGetLastError(); error != WSAEWOULDBLOCK)
            return OutcomeOf(error);
        else if (const EOutcome outcome = Wait(limit); outcome != EOutcome::Ok)
            return outcome;
    }
    return EOutcome::Ok;
}

EOutcome CProbeSocket::Receive(std::string& bytes, const CWaitLimit& limit)
{
    std::array<char, 16 * 1024> buffer;
    for (;;)
    {
        // Reset first: bytes that come behind this set the event again.
        ::WSAResetEvent(m_event);
        const int received = ::recv(m_socket, buffer.data(), static_cast<int>(buffer.size()), 0);
        if (received > 0)
        {
            bytes.append(buffer.data(), static_cast<size_t>(received));
            return EOutcome::Ok;
        }
        if (received == 0)
            return EOutcome::Closed;
        if (const int error = ::WSAGetLastError(); error != WSAEWOULDBLOCK)
            return OutcomeOf(error);
        if (const EOutcome outcome = Wait(limit); outcome != EOutcome::Ok)
            return outcome;
    }
}

std::vector<CConnectAttempt> ConnectToAll(const std::vector<CSocketAddress>& addresses, const CWaitLimit& limit)
{
    const INT64 start = VoGetMicroseconds();
    std::vector<CConnectAttempt> attempts;
    std::vector<CProbeSocket> sockets(std::min(addresses.size(), kMaximumAddresses));
    std::vector<HANDLE> handles{ limit.stop };
    std::vector<size_t> owners; // of the handles behind the first
    for (size_t i = 0; i < sockets.size(); ++i)
    {
        const EOutcome outcome = sockets[i].Begin(addresses[i]);
        attempts.push_back(
            { addresses[i].text, outcome == EOutcome::Ok ? EOutcome::TimedOut : outcome, VoGetMicroseconds() - start });
        if (outcome != EOutcome::Ok)
            continue;
        handles.push_back(sockets[i].Event());
        owners.push_back(i);
    }
    while (!owners.empty())
    {
        const DWORD signalled =
            ::WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, limit.Remaining());
        if (signalled <= WAIT_OBJECT_0 || signalled >= WAIT_OBJECT_0 + handles.size())
            break;
        const size_t index = signalled - WAIT_OBJECT_0 - 1;
        CConnectAttempt& attempt = attempts[owners[index]];
        attempt.outcome = sockets[owners[index]].Finish();
        attempt.microseconds = VoGetMicroseconds() - start;
        owners.erase(owners.begin() + static_cast<ptrdiff_t>(index));
        handles.erase(handles.begin() + static_cast<ptrdiff_t>(index) + 1);
    }
    for (const size_t owner : owners)
        attempts[owner].microseconds = VoGetMicroseconds() - start;
    return attempts;
}

std::wstring CPlainResponse::Header(std::wstring_view name) const
{
    for (const CVoHTTPHeader& header : headers)
        if (VoEqualsNoCase(header.name, name))
            return header.value;
    return {};
}

bool ReadHead(std::string_view bytes, CPlainResponse& response)
{
    const size_t end = bytes.find("\r\n\r\n");
    response.isHttp = bytes.starts_with("HTTP/");
    if (end == std::string_view::npos || !response.isHttp)
        return !bytes.empty() && !std::string_view("HTTP/").starts_with(bytes.substr(0, 5)) && !response.isHttp;
    std::string_view head = bytes.substr(0, end);
    const auto takeLine = [&]
    {
        const size_t stop = std::min(head.find("\r\n"), head.size());
        const std::string_view line = head.substr(0, stop);
        head.remove_prefix(std::min(stop + 2, head.size()));
        return TextOf(line);
    };
    response.statusLine = takeLine();
    const size_t blank = std::min(response.statusLine.find(L' '), response.statusLine.size() - 1);
    response.statusCode = VoParseDecimal<UINT16>(response.statusLine.substr(blank + 1, 3)).value_or(UINT16{ 0 });
    while (!head.empty())
    {
        const std::wstring line = takeLine();
        if (const size_t colon = line.find(L':'); colon != std::wstring::npos)
            response.headers.push_back({ line.substr(0, colon), std::wstring(VoTrimBlanks(line.substr(colon + 1))) });
    }
    response.body = bytes.substr(end + 4, kMaximumPlainBody);
    return true;
}

CPlainResponse Ask(CProbeSocket& socket, std::string_view request, bool withBody, const CWaitLimit& limit)
{
    CPlainResponse response;
    std::string bytes;
    response.outcome = socket.Send(request, limit);
    bool isHeadRead = false;
    while (response.outcome == EOutcome::Ok && !isHeadRead && bytes.size() < kMaximumPlainHead)
    {
        response.outcome = socket.Receive(bytes, limit);
        isHeadRead = ReadHead(bytes, response);
    }
    if (!isHeadRead || !response.isHttp || !withBody)
    {
        if (isHeadRead)
            response.outcome = EOutcome::Ok;
        return response;
    }
    const std::optional<UINT32> length = VoParseDecimalClamped<UINT32>(response.Header(L"Content-Length"));
    const size_t head = bytes.size() - std::min(bytes.size(), response.body.size());
    const size_t wanted = head + std::min<size_t>(length.value_or(kMaximumPlainBody), kMaximumPlainBody);
    while (bytes.size() < wanted && socket.Receive(bytes, limit) == EOutcome::Ok)
    {
    }
    response.body = bytes.substr(head, kMaximumPlainBody);
    response.outcome = EOutcome::Ok;
    return response;
}

std::vector<std::wstring> SchemesOf(const CPlainResponse& response, std::wstring_view headerName)
{
    std::vector<std::wstring> schemes;
    for (const CVoHTTPHeader& header : response.headers)
        if (VoEqualsNoCase(header.name, headerName))
        {
            std::wstring scheme = header.value.substr(0, header.value.find_first_of(L" ,\t"));
            if (!scheme.empty() && std::find(schemes.begin(), schemes.end(), scheme) == schemes.end())
                schemes.push_back(std::move(scheme));
        }
    return schemes;
}
} // namespace VoDiagnosis
