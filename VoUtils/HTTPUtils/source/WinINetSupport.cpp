#include "WinINetSupport.h"

#include "WindowsTransport.h"

#include <VoNetworkUtils.h>

#include <base/VoLock.h>
#include <base/VoUtils.h>
#include <base/VoWipe.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace VoHTTPMessageWinINet
{
namespace
{
constexpr DWORD kIgnoreRevocation = 0x80; // SECURITY_FLAG_IGNORE_REVOCATION
constexpr DWORD kIgnoreCertificate = SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_WRONG_USAGE |
                                     SECURITY_FLAG_IGNORE_CERT_CN_INVALID | SECURITY_FLAG_IGNORE_CERT_DATE_INVALID |
                                     kIgnoreRevocation;

// Runs a query that answers a text: once for the size, in bytes with its end, and once for the text, which is written where it
// is to stay, because it may be a secret. False when the query failed, with its error as the last one; the text is empty then.
template <class Character, class Query>
bool QueryText(Query query, std::basic_string<Character>& text)
{
    VoWipe(text);
    DWORD bytes = 0;
    if (query(nullptr, &bytes))
        return true;
    if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
        return false;
    text.resize(bytes / sizeof(Character) + 1);
    bytes = static_cast<DWORD>(text.size() * sizeof(Character));
    const bool answered = query(text.data(), &bytes) != FALSE;
    text.resize(answered ? std::char_traits<Character>::length(text.c_str()) : 0);
    return answered;
}

bool GetEndpoint(SOCKET socket, int(WSAAPI* query)(SOCKET, sockaddr*, int*), std::wstring& text, UINT16& port)
{
    sockaddr_storage storage{};
    int length = sizeof storage;
    auto* const name = reinterpret_cast<sockaddr*>(&storage);
    if (query(socket, name, &length) != 0)
        return false;
    VoNetworkUtils::CVoIPAddress address;
    bool taken = false;
    if (FAILED(address.InitFromIPAddress(*name, true, taken)) || !taken)
        return false;
    text = address.Text();
    // Both families have the port at the same place.
    port = ::ntohs(reinterpret_cast<const sockaddr_in*>(&storage)->sin_port);
    return true;
}

// The two ends as the trace shows them: "[address]:port".
struct CEndpoints
{
    std::wstring local;
    std::wstring peer;
    UINT16 localPort = 0;
    UINT16 peerPort = 0;
};

// Each end costs a call of the system: the peer is asked for the trace only.
bool internalGetIPAddressesFromSocket(SOCKET socket, bool withPeer, CEndpoints& ends)
{
    return GetEndpoint(socket, &::getsockname, ends.local, ends.localPort) &&
           (!withPeer || GetEndpoint(socket, &::getpeername, ends.peer, ends.peerPort));
}

bool internalGetSendBufferSizeFromSocket(SOCKET socket, int& bytes)
{
    int length = sizeof bytes;
    return ::getsockopt(socket, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<char*>(&bytes), &length) == 0;
}
} // namespace

bool QueryOptionText(HINTERNET handle, DWORD option, std::wstring& text)
{
    return QueryText([&](wchar_t* buffer, DWORD* bytes) { return ::InternetQueryOptionW(handle, option, buffer, bytes); },
                     text);
}

bool QueryHeaderBytes(HINTERNET request, const char* name, DWORD index, std::string& value)
{
    const std::string nameText = name;
    return QueryText([&](char* buffer, DWORD* bytes)
    {
        // A custom query takes the name in the buffer. Each call moves the index on, so each starts from a copy.
        DWORD position = index;
        std::string room(std::max<size_t>(*bytes, nameText.size() + 1), '\0');
        std::copy(nameText.begin(), nameText.end(), room.begin());
        DWORD length = *bytes;
        const BOOL answered = ::HttpQueryInfoA(request, HTTP_QUERY_CUSTOM, room.data(), &length, &position);
        *bytes = length;
        if (answered && buffer)
            std::copy_n(room.begin(), length + 1, buffer);
        return answered;
    }, value);
}

bool HasNamedProxy(HINTERNET session) noexcept
{
    // The texts stand behind the structure.
    alignas(INTERNET_PROXY_INFO) BYTE buffer[8 * 1024];
    DWORD length = sizeof buffer;
    return ::InternetQueryOptionW(session, INTERNET_OPTION_PROXY, buffer, &length) &&
           reinterpret_cast<const INTERNET_PROXY_INFO*>(buffer)->dwAccessType == INTERNET_OPEN_TYPE_PROXY;
}

HRESULT QueryStatus(HINTERNET request, UINT32& status, const CVoReporter& report, int line, int lineWhenZero) noexcept
{
    DWORD value = 0;
    DWORD length = sizeof value;
    if (!::HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &value, &length, nullptr))
        return report.LastError(line, lineWhenZero);
    status = value;
    return S_OK;
}

HRESULT WidenSecurity(HINTERNET request, const CCertificateSwitches& switches, DWORD error) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::WidenSecurity" };
    DWORD flags = 0;
    DWORD length = sizeof flags;
    const bool haveFlags = ::InternetQueryOptionW(request, INTERNET_OPTION_SECURITY_FLAGS, &flags, &length) != FALSE;
    switch (error)
    {
    case ERROR_INTERNET_SEC_CERT_DATE_INVALID:
    case ERROR_INTERNET_SEC_CERT_CN_INVALID:
    case ERROR_INTERNET_INVALID_CA:
    case ERROR_INTERNET_SEC_CERT_ERRORS:
        if (switches.verifies)
            return report.Win32(550, 551, error);
        flags |= kIgnoreCertificate;
        break;
    case ERROR_INTERNET_SEC_CERT_NO_REV:
    case ERROR_INTERNET_SEC_CERT_REV_FAILED:
        if (switches.checksRevocation)
            return report.Win32(555, 556, error);
        flags |= kIgnoreRevocation;
        break;
    default:
        return report.Win32(560, 561, error);
    }
    if (!haveFlags || !::InternetSetOptionW(request, INTERNET_OPTION_SECURITY_FLAGS, &flags, sizeof flags))
        return report.LastError(565, 566);
    return S_OK;
}

std::wstring internalGetClientIPAddressAndSendBufferSize(HINTERNET request)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalGetClientIPAddressAndSendBufferSize" };
    INTERNET_DIAGNOSTIC_SOCKET_INFO info{};
    DWORD length = sizeof info;
    if (!::InternetQueryOptionW(request, INTERNET_OPTION_DIAGNOSTIC_SOCKET_INFO, &info, &length) || info.Socket == 0)
        return {};
    const bool isTraced = VoErrorLog().IsApplicationLogOn();
    CEndpoints ends;
    if (!internalGetIPAddressesFromSocket(info.Socket, isTraced, ends))
        return {};
    if (isTraced)
    {
        report.Message(190, L"[%ls]:%u -> [%ls]:%u", ends.local.c_str(), unsigned{ ends.localPort }, ends.peer.c_str(),
                       unsigned{ ends.peerPort });
        if (int bytes = 0; internalGetSendBufferSizeFromSocket(info.Socket, bytes))
            report.Message(195, L"Send buffer: %d bytes", bytes);
    }
    return ends.local;
}

namespace
{
// The observers of the process, by request handle.
struct CObservers
{
    struct CRow
    {
        HINTERNET request;
        CVoConnectionTrace* trace;
        bool isSecure;
    };
    CVoLock lock;
    std::vector<CRow> rows;
};

CObservers& Observers() noexcept
{
    // Never destroyed: a late notification may come while the process ends.
    static CObservers& observers = *new CObservers;
    return observers;
}

// The address in the information of INTERNET_STATUS_CONNECTING_TO_SERVER and _CONNECTED_TO_SERVER: a socket address as the
// platform's documentation has it, or a text. Empty when it is neither.
std::wstring StatusAddress(const void* information, DWORD length)
{
    if (!information)
        return {};
    USHORT family = 0;
    if (length >= sizeof(SOCKADDR_IN))
        std::memcpy(&family, information, sizeof family);
    if (family == AF_INET || (family == AF_INET6 && length >= sizeof(SOCKADDR_IN6)))
    {
        SOCKADDR_STORAGE address{};
        std::memcpy(&address, information, std::min<size_t>(length, sizeof address));
        VoNetworkUtils::CVoIPAddress text;
        bool taken = false;
        return SUCCEEDED(text.InitFromIPAddress(reinterpret_cast<const SOCKADDR&>(address), true, taken)) && taken
                   ? text.Text()
                   : std::wstring();
    }
    // A text of one or of two bytes for each character: an address has ASCII characters only, so the second byte tells.
    const auto* const bytes = static_cast<const char*>(information);
    const bool isWide = length >= 2 * sizeof(wchar_t) && bytes[1] == 0;
    const size_t step = isWide ? sizeof(wchar_t) : 1;
    std::wstring text;
    for (size_t i = 0; i < length && bytes[i] != 0; i += step)
        text += static_cast<wchar_t>(static_cast<BYTE>(bytes[i]));
    return text.find_first_not_of(L"0123456789abcdefABCDEF.:%") == std::wstring::npos ? text : std::wstring();
}

void Note(const CObservers::CRow& row, DWORD status, const void* information, DWORD length) noexcept
try
{
    CVoConnectionTrace& trace = *row.trace;
    switch (status)
    {
    case INTERNET_STATUS_NAME_RESOLVED:
        trace.OnNameResolved();
        break;
    case INTERNET_STATUS_CONNECTING_TO_SERVER:
        if (std::wstring address = StatusAddress(information, length); !address.empty())
            trace.addresses.push_back(std::move(address));
        break;
    case INTERNET_STATUS_CONNECTED_TO_SERVER:
        trace.OnConnected();
        if (std::wstring address = StatusAddress(information, length); !address.empty())
            trace.remoteAddress = std::move(address);
        break;
    case INTERNET_STATUS_SENDING_REQUEST:
        trace.OnSending(row.isSecure);
        break;
    case INTERNET_STATUS_RESPONSE_RECEIVED:
        trace.OnResponse();
        break;
    default:
        break;
    }
}
catch (...)
{
    // No memory for an address: the request goes on, its record lacks it.
}
} // namespace

CStatusObservation::CStatusObservation(HINTERNET request, CVoConnectionTrace& trace, bool isSecure) noexcept : m_trace(&trace)
{
    try
    {
        const CVoLockHolder lock(Observers().lock);
        Observers().rows.push_back({ request, &trace, isSecure });
    }
    catch (...)
    {
        // Nothing is noted.
    }
}

CStatusObservation::~CStatusObservation()
{
    const CVoLockHolder lock(Observers().lock);
    std::erase_if(Observers().rows, [this](const CObservers::CRow& row) { return row.trace == m_trace; });
}

void CALLBACK CStatusObservation::Callback(HINTERNET handle, DWORD_PTR /*context*/, DWORD status, void* information,
                                           DWORD length) noexcept
{
    const CVoLockHolder lock(Observers().lock);
    for (const CObservers::CRow& row : Observers().rows)
        if (row.request == handle)
            Note(row, status, information, length);
}

CInternetHandle::CInternetHandle(CInternetHandle&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}

CInternetHandle& CInternetHandle::operator=(CInternetHandle&& other) noexcept
{
    std::swap(m_handle, other.m_handle);
    return *this;
}

CInternetHandle::~CInternetHandle()
{
    const CVoLastErrorKeeper keeper;
    (void)Close();
}

HRESULT CInternetHandle::Close() noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::CInternetHandle::Close" };
    if (void* const handle = std::exchange(m_handle, nullptr))
        if (!::InternetCloseHandle(handle))
            return report.LastError(240, 241);
    return S_OK;
}
} // namespace VoHTTPMessageWinINet
