// The WinINet transport: the hooks of the transport core on the platform's WinINet service.
#include <VoHTTPMessageWinINet.h>

#include "VoCookieBytes.h"
#include "VoHTTPMessageWinINetTracePoints.h"
#include "VoHTTPTransport.h"
#include "VoUrl.h"
#include "WinINetCredentialProbe.h"
#include "WinINetRequestHandle.h"
#include "WinINetSupport.h"
#include "WindowsTransport.h"

#include <base/VoLock.h>
#include <base/VoUtils.h>

#include <algorithm>
#include <array>
#include <limits>
#include <memory>

namespace VoHTTPMessageWinINet
{
namespace
{
constexpr DWORD kOptionMaximumConnectionsPerProxy = 103;
constexpr DWORD kMaximumPiece = 32'000; // bytes of a body, per write
constexpr int kMaximumResends = 2;      // of a body: NTLM, the longest of the schemes, takes two
constexpr DWORD kReadStep = 16 * 1024;  // bytes by which the buffer of a read grows
constexpr DWORD kMaximumRead = 1024 * 1024;
constexpr DWORD_PTR kContext = 1;

constexpr CVoTransportFacts kFacts{
    .unexpectedStatus = kResultUnexpectedStatus, .usesProxyStore = false, .cookiesAtSend = true, .tracesEveryAddress = true
};
} // namespace

class CVoHTTPMessageWinINet final : public CVoHTTPTransport
{
public:
    CVoHTTPMessageWinINet() : CVoHTTPTransport(kTracePoints, kFacts) {}
    ~CVoHTTPMessageWinINet() override { CloseInDestructor(); }
    CVoHTTPMessageWinINet(const CVoHTTPMessageWinINet&) = delete;
    CVoHTTPMessageWinINet& operator=(const CVoHTTPMessageWinINet&) = delete;
    class CHTTPRequestDataWinINet;

private:
    [[nodiscard]] HRESULT OpenSession() override;
    [[nodiscard]] HRESULT CloseSession() noexcept override;
    [[nodiscard]] std::shared_ptr<CRequest> MakeRequest() override;
    [[nodiscard]] HRESULT OpenHandle(CRequest& opened) override;
    [[nodiscard]] HRESULT CloseHandle(CRequest& request) noexcept override;
    [[nodiscard]] HRESULT SendOnce(CRequest& sent, const CVoBodyPieces& body, const std::wstring& contentType) override;
    [[nodiscard]] bool ReadSetCookie(const CRequest& request, DWORD index, std::wstring& value) const override;
    [[nodiscard]] HRESULT FetchBody(CRequest& answered, CVoBodyReceiver& body) override;
    void CancelCall(CRequest& request) noexcept override;
    [[nodiscard]] size_t ReadHeader(const CRequest& request, size_t maximum, std::wstring& header) const override;
    [[nodiscard]] CVoFailure ExplainFailure(const CRequest& request, HRESULT result) const override;
    void FetchErrorBody(CRequest& failed) override;

    [[nodiscard]] HRESULT OpenConnection(const CServerAddressData& address, CInternetHandle& connection);
    [[nodiscard]] HRESULT SetTimeoutsAndLimits(const CInternetHandle& connection) const noexcept;
    [[nodiscard]] HRESULT SetProxyCredentials() noexcept;
    [[nodiscard]] HRESULT ProbeForCredentials();
    [[nodiscard]] HRESULT AskForProxyCredentials(CCredentialProbe& probe);
    [[nodiscard]] CCertificateSwitches SwitchesFor(const CServerAddressData& target) const noexcept
    {
        return { .verifies = VerifiesCertificateOf(target), .checksRevocation = m_checkCertificateRevocation };
    }

    [[nodiscard]] HRESULT BeginSend(CHTTPRequestDataWinINet& request, DWORD bodyLength,
                                    const std::wstring& headers) const noexcept;
    // Reads the body until it ends, until `maximum` bytes or more have come, or until `end`, a time of VoGetMicroseconds.
    [[nodiscard]] HRESULT ReadBody(CHTTPRequestDataWinINet& request, CVoBodyReceiver& body,
                                   UINT64 maximum = std::numeric_limits<UINT64>::max(),
                                   INT64 end = std::numeric_limits<INT64>::max());
    [[nodiscard]] static HRESULT SetCookie(const CHTTPRequestDataWinINet& request, std::wstring& headers);
    [[nodiscard]] HRESULT WriteBody(CHTTPRequestDataWinINet& request, const CVoBodyPieces& body) const noexcept;

    CInternetHandle m_session;
    CInternetHandle m_connection;
    // Held while a handle is opened or closed under one of the two. Requests do so on any thread, and the documentation of
    // these calls does not say that a parent handle takes them at the same time.
    CVoLock m_childLock;
    CCredentials m_proxyCredentials; // what the system's dialog gave, or the store
};

class CVoHTTPMessageWinINet::CHTTPRequestDataWinINet final : public CRequest
{
public:
    explicit CHTTPRequestDataWinINet(std::shared_ptr<CVoHTTPMessageWinINet> owner) noexcept
        : m_owner(std::move(owner)), m_handle(*this, m_owner->m_childLock)
    {
    }

    std::shared_ptr<CVoHTTPMessageWinINet> m_owner; // the handles live under the message's connection or session
    CRequestHandle m_handle;
};

std::shared_ptr<CVoHTTPMessage> MakeMessage()
{
    return std::make_shared<CVoHTTPMessageWinINet>();
}

HRESULT CVoHTTPMessageWinINet::CloseHandle(CRequest& request) noexcept
{
    return static_cast<CHTTPRequestDataWinINet&>(request).m_handle.Close();
}

HRESULT CVoHTTPMessageWinINet::OpenSession()
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalConnect" };
    m_session = CInternetHandle(::InternetOpenW(L"CVoHTTPMessageWinINet", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
    if (!m_session)
        return report.LastError(360, 361);
    // For the record only: without it the request works all the same.
    (void)::InternetSetStatusCallbackW(m_session.Get(), &CStatusObservation::Callback);
    if (const HRESULT hr = OpenConnection(m_serverAddress, m_connection); FAILED(hr))
        return report(370, hr);

    std::wstring proxy;
    std::optional<CCredentials> known;
    if (const HRESULT hr = GetProxy(nullptr, proxy, known); FAILED(hr))
        return report(375, hr);
    // The store names credentials only where they are known and to be used: then nobody needs to be asked.
    if (known)
    {
        m_proxyCredentials = std::move(*known);
        if (m_proxyCredentials.password.Get().empty())
            return S_OK;
        if (const HRESULT hr = SetProxyCredentials(); FAILED(hr))
            return report(380, hr);
        return S_OK;
    }
    if (const HRESULT hr = ProbeForCredentials(); FAILED(hr))
        return report(385, hr);
    return S_OK;
}

HRESULT CVoHTTPMessageWinINet::CloseSession() noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalClose" };
    const HRESULT connection = m_connection.Close();
    const HRESULT session = m_session.Close();
    m_proxyCredentials = CCredentials();
    if (FAILED(connection))
        return report(310, connection);
    return SUCCEEDED(session) ? S_OK : report(312, session);
}

HRESULT CVoHTTPMessageWinINet::OpenConnection(const CServerAddressData& address, CInternetHandle& connection)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalConnect" };
    {
        const CVoLockHolder childLock(m_childLock);
        connection = CInternetHandle(::InternetConnectW(m_session.Get(), address.Host().c_str(), address.EffectivePort(), L"",
                                                        L"", INTERNET_SERVICE_HTTP, 0, kContext));
        if (!connection)
            return report.LastError(365, 366);
    }
    return SetTimeoutsAndLimits(connection);
}

HRESULT CVoHTTPMessageWinINet::SetTimeoutsAndLimits(const CInternetHandle& connection) const noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalConnect" };
    struct CSetting
    {
        DWORD option;
        DWORD value;
        bool isLimit = false;     // the service may refuse it
        bool onConnection = true; // else for the process
    };
    const CSetting settings[] = {
        { INTERNET_OPTION_CONNECT_TIMEOUT, Milliseconds(m_connectTimeout) },
        { INTERNET_OPTION_SEND_TIMEOUT, Milliseconds(m_connectTimeout) },
        { INTERNET_OPTION_RECEIVE_TIMEOUT, Milliseconds(m_requestTimeout) },
        { INTERNET_OPTION_MAX_CONNS_PER_SERVER, WindowsTransport::kMaximumConnections, true },
        { kOptionMaximumConnectionsPerProxy, WindowsTransport::kMaximumConnections, true, false },
    };
    for (const CSetting& setting : settings)
    {
        DWORD value = setting.value;
        const auto set = [&](HINTERNET handle)
        { return ::InternetSetOptionW(handle, setting.option, &value, sizeof value) ? ERROR_SUCCESS : ::GetLastError(); };
        DWORD error = set(setting.onConnection ? connection.Get() : nullptr);
        if (error == WindowsTransport::kErrorInvalidOperation && setting.isLimit && setting.onConnection)
        {
            report.Message(400, L"Option %u is set for the process", setting.option);
            error = set(nullptr);
        }
        if (error == ERROR_SUCCESS)
            continue;
        if (!setting.isLimit || !WindowsTransport::IsRefusedLimit(error))
            return report.Win32(405, 406, error);
        report.Message(410, L"Option %u was refused: %u", setting.option, error);
    }
    return S_OK;
}

HRESULT CVoHTTPMessageWinINet::SetProxyCredentials() noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::SetProxyCredentials" };
    if (!::InternetSetOptionW(m_connection.Get(), INTERNET_OPTION_PROXY_USERNAME, m_proxyCredentials.user.data(),
                              static_cast<DWORD>(m_proxyCredentials.user.size())))
        return report.LastError(430, 431);
    if (!::InternetSetOptionW(m_connection.Get(), INTERNET_OPTION_PROXY_PASSWORD, m_proxyCredentials.password.Get().data(),
                              static_cast<DWORD>(m_proxyCredentials.password.Get().size())))
        return report.LastError(435, 436);
    return S_OK;
}

HRESULT CVoHTTPMessageWinINet::ProbeForCredentials()
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::ProbeForCredentials" };
    CCredentialProbe probe(m_serverAddress, SwitchesFor(m_serverAddress), m_requestTimeout);
    bool isChallenged = false;
    if (const HRESULT hr = probe.Send(m_connection.Get(), isChallenged); FAILED(hr))
        return hr; // reported
    if (!isChallenged)
        return S_OK;
    if (const HRESULT hr = AskForProxyCredentials(probe); FAILED(hr))
        return report(490, hr);
    return S_OK;
}

// Asks the user, and saves what was typed for the proxy.
HRESULT CVoHTTPMessageWinINet::AskForProxyCredentials(CCredentialProbe& probe)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::AskForCredentials" };
    if (const HRESULT hr = probe.Ask(m_proxyCredentials.user, m_proxyCredentials.password); FAILED(hr))
        return hr; // reported
    if (!m_proxyStore || m_proxyCredentials.user.empty())
        return S_OK;
    // They are saved for the proxy of this server's URL, which need not be one that is configured by hand.
    const std::wstring url = m_serverAddress.FullURL();
    std::wstring proxy;
    std::optional<CCredentials> known;
    if (const HRESULT hr = GetProxy(&url, proxy, known); FAILED(hr))
        return report(527, hr);
    if (proxy.empty())
        return S_OK; // the platform found a proxy that the store does not know
    if (const HRESULT hr = SaveProxyCredentials(proxy, m_proxyCredentials); FAILED(hr))
        return report(530, hr);
    return S_OK;
}

std::shared_ptr<CVoHTTPTransport::CRequest> CVoHTTPMessageWinINet::MakeRequest()
{
    return std::make_shared<CHTTPRequestDataWinINet>(std::static_pointer_cast<CVoHTTPMessageWinINet>(shared_from_this()));
}

HRESULT CVoHTTPMessageWinINet::OpenHandle(CRequest& opened)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::OpenHandle" };
    auto& request = static_cast<CHTTPRequestDataWinINet&>(opened);
    const CServerAddressData& target = request.m_target;
    (void)request.m_handle.Close(); // reported
    std::wstring objectName;
    if (const HRESULT hr = VoEncodeUrl(target.ObjectName(), objectName); FAILED(hr))
        return report(604, hr);
    const bool isConnected = target.BaseURL() == m_serverAddress.BaseURL();
    if (!isConnected)
        if (const HRESULT hr = OpenConnection(target, request.m_handle.TargetConnection()); FAILED(hr))
            return report(607, hr);
    const wchar_t* acceptTypes[] = { L"*/*", nullptr };
    const DWORD flags = kRequestFlags | (target.IsSecure() ? INTERNET_FLAG_SECURE : 0);
    const CInternetHandle& connection = isConnected ? m_connection : request.m_handle.TargetConnection();
    CInternetHandle handle;
    {
        const CVoLockHolder childLock(m_childLock);
        handle = CInternetHandle(::HttpOpenRequestW(connection.Get(), request.m_targetVerb, objectName.c_str(), L"HTTP/1.1",
                                                    nullptr, acceptTypes, flags, 0));
        if (!handle)
            return report.LastError(605, 606);
    }
    // WinINet notifies only about handles with a context. For the record only: without it the request works all the same.
    DWORD_PTR context = kContext;
    (void)::InternetSetOptionW(handle.Get(), INTERNET_OPTION_CONTEXT_VALUE, &context, sizeof context);
    request.m_handle.Open(std::move(handle));
    return S_OK;
}

// Puts the request's cookies into the headers to send. A cookie beyond ASCII goes to the platform as bytes: it would turn text
// into the code page's best fit.
HRESULT CVoHTTPMessageWinINet::SetCookie(const CHTTPRequestDataWinINet& request, std::wstring& headers)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::SetCookie" };
    const std::wstring& cookies = request.m_cookieHeader;
    if (cookies.empty())
        return S_OK;
    if (VoIsAscii(cookies))
    {
        headers = VoFormat(L"Cookie: %ls\r\n", cookies.c_str());
        return S_OK;
    }
    const std::string line = "Cookie: " + VoCookieBytesFromText(cookies) + "\r\n";
    if (!::HttpAddRequestHeadersA(request.m_handle.Get(), line.c_str(), static_cast<DWORD>(line.size()), HTTP_ADDREQ_FLAG_ADD))
        return report.LastError(671, 672);
    return S_OK;
}

HRESULT CVoHTTPMessageWinINet::SendOnce(CRequest& sent, const CVoBodyPieces& body, const std::wstring& contentType)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::SendBody" };
    auto& request = static_cast<CHTTPRequestDataWinINet&>(sent);
    const HINTERNET handle = request.m_handle.Get();
    const CStatusObservation observation(handle, request.m_trace, request.m_target.IsSecure());
    std::wstring headers;
    if (const HRESULT hr = SetCookie(request, headers); FAILED(hr))
        return report(688, hr);
    if (VoHasHeaderValue(contentType))
        headers += contentType + L"\r\n";
    for (int resends = 0;; ++resends)
    {
        if (const HRESULT hr = BeginSend(request, static_cast<DWORD>(body.Length()), headers); FAILED(hr))
            return report(690, hr);
        if (std::wstring address = internalGetClientIPAddressAndSendBufferSize(handle); !address.empty())
            request.m_localAddress = std::move(address);
        if (const HRESULT hr = WriteBody(request, body); FAILED(hr))
            return report(692, hr);
        if (CallBack* const callBack = GetCallBack(); callBack && body.Length() != 0)
            callBack->OnRequestSent();
        request.m_trace.sent = VoGetMicroseconds();
        if (request.m_handle.Use([](HINTERNET used) { return ::HttpEndRequestW(used, nullptr, HSR_SYNC, 0); }))
            break;
        // The platform has credentials and wants the whole request again, once for each challenge.
        const DWORD error = ::GetLastError();
        if (error != ERROR_INTERNET_FORCE_RETRY || resends == kMaximumResends)
            return report.Win32(696, 697, error);
        report.Message(698, L"The platform asks for the request again");
    }
    if (const HRESULT hr = QueryStatus(handle, request.m_statusCode, report, 694, 695); FAILED(hr))
        return hr;
    return S_OK;
}

// Sends the headers, twice where a certificate error may be passed over.
HRESULT CVoHTTPMessageWinINet::BeginSend(CHTTPRequestDataWinINet& request, DWORD bodyLength,
                                         const std::wstring& headers) const noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::BeginSend" };
    INTERNET_BUFFERSW buffers{};
    buffers.dwStructSize = sizeof buffers;
    buffers.lpcszHeader = headers.c_str();
    buffers.dwHeadersLength = static_cast<DWORD>(headers.size());
    buffers.dwBufferTotal = bodyLength;
    const auto send = [&](DWORD_PTR context)
    {
        return request.m_handle.Use([&](HINTERNET handle)
        { return ::HttpSendRequestExW(handle, &buffers, nullptr, HSR_SYNC, context); });
    };
    if (send(kContext))
        return S_OK;
    const DWORD error = ::GetLastError();
    if (const HRESULT hr = WidenSecurity(request.m_handle.Get(), SwitchesFor(request.m_target), error); FAILED(hr))
        return report(700, hr);
    return send(0) ? S_OK : report.LastError(705, 706);
}

HRESULT CVoHTTPMessageWinINet::WriteBody(CHTTPRequestDataWinINet& request, const CVoBodyPieces& body) const noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::WriteBody" };
    request.m_sent = 0;
    if (body.Length() == 0)
        return S_OK;
    std::array<BYTE, kMaximumPiece> buffer{};
    CVoBodyReader reader(body);
    for (std::span<const BYTE> piece = reader.Next(buffer); !piece.empty(); piece = reader.Next(buffer))
    {
        DWORD written = 0;
        if (!request.m_handle.Use([&](HINTERNET handle)
        { return ::InternetWriteFile(handle, piece.data(), static_cast<DWORD>(piece.size()), &written); }))
            return report.LastError(710, 711);
        WriteDataToLogFile(EDataDirection::Written, piece.data(), written);
        if (written != piece.size())
            return report(715, E_FAIL);
        request.m_sent += written;
    }
    return S_OK;
}

bool CVoHTTPMessageWinINet::ReadSetCookie(const CRequest& request, DWORD index, std::wstring& value) const
{
    std::string bytes;
    if (!QueryHeaderBytes(static_cast<const CHTTPRequestDataWinINet&>(request).m_handle.Get(), "Set-Cookie", index, bytes))
        return false;
    value = VoCookieTextFromBytes(bytes);
    return true;
}

HRESULT CVoHTTPMessageWinINet::ReadBody(CHTTPRequestDataWinINet& request, CVoBodyReceiver& body, UINT64 maximum, INT64 end)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalReadRAW" };
    std::unique_ptr<BYTE[]> piece;
    DWORD room = 0;
    INT64 waited = 0; // microseconds; a sink may take its time
    for (INT64 start = VoGetMicroseconds(); body.Length() < maximum && start < end; start = VoGetMicroseconds())
    {
        DWORD available = 0;
        if (!request.m_handle.Use([&](HINTERNET handle) { return ::InternetQueryDataAvailable(handle, &available, 0, 0); }))
            return report.LastError(860, 861);
        if (available == 0)
            break;
        available = std::min(available, kMaximumRead);
        if (available > room)
        {
            const DWORD larger = (available + kReadStep - 1) / kReadStep * kReadStep;
            piece = std::make_unique_for_overwrite<BYTE[]>(larger);
            room = larger;
        }
        DWORD read = 0;
        if (!request.m_handle.Use([&](HINTERNET handle) { return ::InternetReadFile(handle, piece.get(), available, &read); }))
            return report.LastError(865, 866);
        if (read == 0)
            break;
        waited += VoGetMicroseconds() - start;
        const std::span<const BYTE> bytes(piece.get(), read);
        if (!body.HasSink()) // which logs by itself
            WriteDataToLogFile(EDataDirection::Read, bytes.data(), read);
        if (const HRESULT hr = body.Take(bytes); FAILED(hr))
            return report(870, hr);
        request.m_received = body.Length();
        if (WindowsTransport::IsTooSlow(waited, body.Length(), m_requestTimeout))
            return report.Win32(867, 868, WindowsTransport::kErrorTimeout);
    }
    return S_OK;
}

HRESULT CVoHTTPMessageWinINet::FetchBody(CRequest& answered, CVoBodyReceiver& body)
{
    auto& request = static_cast<CHTTPRequestDataWinINet&>(answered);
    if (const std::optional<UINT64> announced = AnnouncedLength(request))
        body.Expect(*announced);
    return ReadBody(request, body);
}

void CVoHTTPMessageWinINet::FetchErrorBody(CRequest& failed)
{
    auto& request = static_cast<CHTTPRequestDataWinINet&>(failed);
    DWORD pieceTime = ErrorBodyTime();
    const INT64 end = VoGetMicroseconds() + INT64{ pieceTime } * 1000;
    // Where the platform refuses it, each piece has the time-out of the request.
    (void)::InternetSetOptionW(request.m_handle.Get(), INTERNET_OPTION_RECEIVE_TIMEOUT, &pieceTime, sizeof pieceTime);
    CVoBodyReceiver body;
    (void)ReadBody(request, body, request.m_limits.errorBodyBytes, end); // the response has failed already
    KeepErrorBody(request, body);
}

void CVoHTTPMessageWinINet::CancelCall(CRequest& request) noexcept
{
    static_cast<CHTTPRequestDataWinINet&>(request).m_handle.Cancel();
}

size_t CVoHTTPMessageWinINet::ReadHeader(const CRequest& request, size_t maximum, std::wstring& header) const
{
    const HINTERNET handle = static_cast<const CHTTPRequestDataWinINet&>(request).m_handle.Get();
    return WindowsTransport::ReadHeader([&](wchar_t* buffer, DWORD& bytes)
    { return ::HttpQueryInfoW(handle, HTTP_QUERY_RAW_HEADERS_CRLF, buffer, &bytes, nullptr) != FALSE; }, maximum, header);
}

CVoFailure CVoHTTPMessageWinINet::ExplainFailure(const CRequest& request, HRESULT result) const
{
    const CVoConnectionTrace& trace = request.m_trace;
    // The service does not tell whether a request went to the proxy of the system's settings.
    CVoFailure failure = WindowsTransport::ExplainError(result, trace.connect != 0, trace.sending != 0, true, 0);
    if (std::exchange(failure.isProxy, false) && HasNamedProxy(m_session.Get()))
        failure.detail = L"or the system's proxy could not be reached";
    return failure;
}
} // namespace VoHTTPMessageWinINet
