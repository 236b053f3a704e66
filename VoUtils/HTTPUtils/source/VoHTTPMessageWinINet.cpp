#include <VoHTTPMessageWinINet.h>

#include "VoUrl.h"
#include "WinINetSupport.h"
#include "WindowsTransport.h"

#include <base/VoUtils.h>
#include <base/com/VoComHelper.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace VoHTTPMessageWinINet
{
namespace
{
constexpr UINT32 kStatusUnauthorized = 401;
constexpr UINT32 kStatusProxyAuthenticationRequired = 407;
constexpr UINT32 kStatusServerError = 500;

constexpr wchar_t kNoCookie[] = L"Cookie:\r\n"; // the empty value takes the header away
constexpr DWORD kToTheEnd = static_cast<DWORD>(-1);
constexpr DWORD kReplaceHeader = HTTP_ADDREQ_FLAG_ADD | HTTP_ADDREQ_FLAG_REPLACE;

constexpr DWORD kMaximumConnections = 128;
constexpr DWORD kOptionMaximumConnectionsPerProxy = 103;
constexpr DWORD kRequestFlags =
    INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_KEEP_CONNECTION | INTERNET_FLAG_NO_COOKIES;
constexpr DWORD kMaximumPiece = 32'000;           // of a body, per write
constexpr int kMaximumResends = 2;                // of a body: NTLM, the longest of the schemes, takes two
constexpr size_t kReadStep = size_t{ 16 } * 1024; // the answer's buffer grows in these steps
constexpr size_t kMaximumReserve = size_t{ 256 } * 1024 * 1024;
constexpr DWORD kDialogFlags =
    FLAGS_ERROR_UI_FILTER_FOR_ERRORS | FLAGS_ERROR_UI_FLAGS_CHANGE_OPTIONS | FLAGS_ERROR_UI_FLAGS_GENERATE_DATA;
constexpr DWORD kIgnoreRevocation = 0x80; // SECURITY_FLAG_IGNORE_REVOCATION
constexpr DWORD kIgnoreCertificate = SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_WRONG_USAGE |
                                     SECURITY_FLAG_IGNORE_CERT_CN_INVALID | SECURITY_FLAG_IGNORE_CERT_DATE_INVALID |
                                     kIgnoreRevocation;

// A dialog without an owner is not shown at all.
HWND DialogOwner() noexcept
{
    const HWND active = ::GetActiveWindow();
    return active ? active : ::GetDesktopWindow();
}
} // namespace

class CVoHTTPMessageWinINet::CHTTPRequestDataWinINet final : public CHTTPRequestData
{
public:
    explicit CHTTPRequestDataWinINet(std::shared_ptr<CVoHTTPMessageWinINet> message) : m_message(std::move(message)) {}
    ~CHTTPRequestDataWinINet() override
    {
        constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::CHTTPRequestDataWinINet::~CHTTPRequestDataWinINet" };
        if (const HRESULT hr = m_handle.Close(); FAILED(hr))
            report(260, hr);
    }
    [[nodiscard]] HRESULT Close() noexcept
    {
        constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::CHTTPRequestDataWinINet::Close" };
        m_answered = false;
        if (const HRESULT hr = m_handle.Close(); FAILED(hr))
            return report(270, hr);
        return S_OK;
    }

    using CHTTPRequestData::m_cookieHeader;
    using CHTTPRequestData::m_received;
    using CHTTPRequestData::m_sent;
    using CHTTPRequestData::m_toReceive;
    using CHTTPRequestData::m_toSend;

    // The request's handle lives under the message's connection, so the message is kept; the handle goes first.
    std::shared_ptr<CVoHTTPMessageWinINet> m_message;
    CInternetHandle m_handle;
    // The request that this thread sends: the platform's callback comes on the thread that waits for it.
    static thread_local CHTTPRequestDataWinINet* t_sending;
    bool m_isHandleUsed = false; // something was sent with it
    const wchar_t* m_verb = L"POST";
    CServerAddressData m_address;
    std::wstring m_localIPAddress;
    UINT32 m_statusCode = 0;
    bool m_answered = false; // an answer waits at the handle
    CAnswer m_answer;        // one that was read from there
};
thread_local CVoHTTPMessageWinINet::CHTTPRequestDataWinINet* CVoHTTPMessageWinINet::CHTTPRequestDataWinINet::t_sending =
    nullptr;

// Names the request that this thread sends.
class CVoHTTPMessageWinINet::CSending
{
public:
    explicit CSending(CHTTPRequestDataWinINet& request) noexcept
        : m_outer(std::exchange(CHTTPRequestDataWinINet::t_sending, &request))
    {
    }
    ~CSending() { CHTTPRequestDataWinINet::t_sending = m_outer; }
    CSending(const CSending&) = delete;
    CSending& operator=(const CSending&) = delete;

private:
    CHTTPRequestDataWinINet* m_outer;
};

CVoHTTPMessageWinINet::~CVoHTTPMessageWinINet()
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::~CVoHTTPMessageWinINet" };
    if (const HRESULT hr = internalClose(); FAILED(hr))
        report(300, hr);
}

HRESULT CVoHTTPMessageWinINet::internalClose() noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalClose" };
    HRESULT result = S_OK;
    const auto note = [&](int line, HRESULT hr)
    {
        if (SUCCEEDED(hr))
            return;
        report(line, hr);
        if (SUCCEEDED(result))
            result = hr;
    };
    // A handle's children are closed before it. A request that is going away just now closes its own.
    for (const std::weak_ptr<CHTTPRequestDataWinINet>& open : m_requests)
        if (const std::shared_ptr<CHTTPRequestDataWinINet> request = open.lock())
            note(308, request->Close());
    m_requests.clear();
    note(310, m_connection.Close());
    note(312, m_session.Close());
    m_proxyUser.clear();
    m_proxyPassword = CVoSecret<wchar_t>();
    ForgetConnection();
    return result;
}

HRESULT CVoHTTPMessageWinINet::Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                       IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                       UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::Connect" };
    const CAutoLock lock(&m_lock);
    if (const HRESULT hr = internalClose(); FAILED(hr))
        return report(330, hr);
    StoreConnection(serverAddress, authCallback, proxyStore, cookieStore, connectTimeout, requestTimeout,
                    verifyServerCertificate, checkRevocation);
    if (const HRESULT hr = internalConnect(); FAILED(hr))
    {
        (void)internalClose();
        return report(335, hr);
    }
    m_connected = true;
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinINet::Connect" }.CurrentException(340);
}

HRESULT CVoHTTPMessageWinINet::internalConnect()
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalConnect" };
    static const std::wstring userAgent = L"CVoHTTPMessageWinINet";
    m_session = CInternetHandle(::InternetOpenW(userAgent.c_str(), INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0));
    if (!m_session)
        return report.LastError(360, 361);
    m_connection = CInternetHandle(::InternetConnectW(m_session.Get(), m_serverAddress.Host().c_str(),
                                                      m_serverAddress.EffectivePort(), L"", L"", INTERNET_SERVICE_HTTP, 0, 1));
    if (!m_connection)
        return report.LastError(365, 366);
    if (const HRESULT hr = SetTimeoutsAndLimits(); FAILED(hr))
        return report(370, hr);

    CProxy proxy;
    if (const HRESULT hr = GetProxy(nullptr, proxy); FAILED(hr))
        return report(375, hr);
    m_proxyUser = std::move(proxy.user);
    m_proxyPassword.Get().swap(proxy.password);

    // The store names a user only where its credentials are known and to be used: then nobody need be asked.
    if (!m_proxyUser.empty())
    {
        if (m_proxyPassword.Get().empty())
            return S_OK;
        if (const HRESULT hr = SetProxyCredentials(); FAILED(hr))
            return report(380, hr);
        return S_OK;
    }
    if (const HRESULT hr = ProbeForCredentials(); FAILED(hr))
        return report(385, hr);
    return S_OK;
}

HRESULT CVoHTTPMessageWinINet::SetTimeoutsAndLimits() noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalConnect" };
    struct CSetting
    {
        DWORD option;
        bool onConnection; // else for the process
        DWORD value;
    };
    const CSetting settings[] = {
        { INTERNET_OPTION_CONNECT_TIMEOUT, true, WindowsTransport::Milliseconds(m_connectTimeout) },
        { INTERNET_OPTION_SEND_TIMEOUT, true, WindowsTransport::Milliseconds(m_connectTimeout) },
        { INTERNET_OPTION_RECEIVE_TIMEOUT, true, WindowsTransport::Milliseconds(m_requestTimeout) },
        { INTERNET_OPTION_MAX_CONNS_PER_SERVER, true, kMaximumConnections },
        { kOptionMaximumConnectionsPerProxy, false, kMaximumConnections },
    };
    for (const CSetting& setting : settings)
    {
        DWORD value = setting.value;
        const auto set = [&](HINTERNET handle)
        { return ::InternetSetOptionW(handle, setting.option, &value, sizeof value) ? ERROR_SUCCESS : ::GetLastError(); };
        DWORD error = set(setting.onConnection ? m_connection.Get() : nullptr);
        if (error == WindowsTransport::kErrorInvalidOperation && setting.onConnection)
        {
            report.Message(400, L"Option %u is set for the process", setting.option);
            error = set(nullptr);
        }
        if (error == ERROR_SUCCESS)
            continue;
        if (!WindowsTransport::IsRefusedTuning(error))
            return report.Win32(405, 406, error);
        report.Message(410, L"Option %u was refused: %u", setting.option, error);
    }
    return S_OK;
}

HRESULT CVoHTTPMessageWinINet::SetProxyCredentials() noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::SetProxyCredentials" };
    if (!::InternetSetOptionW(m_connection.Get(), INTERNET_OPTION_PROXY_USERNAME, m_proxyUser.data(),
                              static_cast<DWORD>(m_proxyUser.size())))
        return report.LastError(430, 431);
    if (!::InternetSetOptionW(m_connection.Get(), INTERNET_OPTION_PROXY_PASSWORD, m_proxyPassword.Get().data(),
                              static_cast<DWORD>(m_proxyPassword.Get().size())))
        return report.LastError(435, 436);
    return S_OK;
}

// Sends the probe and reads its answer away.
HRESULT CVoHTTPMessageWinINet::SendProbe(void* probe, UINT32& status) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::SendProbe" };
    if (!::HttpSendRequestW(probe, nullptr, 0, nullptr, 0))
    {
        const DWORD error = ::GetLastError();
        if (const HRESULT hr = WidenSecurity(probe, error); FAILED(hr))
            return report(450, hr);
        if (!::HttpSendRequestW(probe, nullptr, 0, nullptr, 0))
            return report.LastError(452, 453);
    }
    for (;;)
    {
        BYTE byte = 0;
        DWORD read = 0;
        if (!::InternetReadFile(probe, &byte, 1, &read))
            return report.LastError(460, 461);
        if (read == 0)
            break;
    }
    return QueryStatus(probe, status, report, 465);
}

HRESULT CVoHTTPMessageWinINet::ProbeForCredentials()
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::ProbeForCredentials" };
    std::wstring path;
    if (const HRESULT hr = VoEncodeUrl(m_serverAddress.Path(), path); FAILED(hr))
        return report(475, hr);
    const DWORD flags = kRequestFlags | (m_serverAddress.IsSecure() ? INTERNET_FLAG_SECURE : 0);
    CInternetHandle probe(
        ::HttpOpenRequestW(m_connection.Get(), L"POST", path.c_str(), L"HTTP/1.0", nullptr, nullptr, flags, 0));
    if (!probe)
        return report.LastError(480, 481);
    UINT32 status = 0;
    if (const HRESULT hr = SendProbe(probe.Get(), status); FAILED(hr))
    {
        // Nobody was there to ask for credentials. The request will meet the same and fail with its own code.
        report(485, hr);
        return S_OK;
    }
    if (status != kStatusUnauthorized && status != kStatusProxyAuthenticationRequired)
        return S_OK;
    if (const HRESULT hr = AskForCredentials(probe.Get()); FAILED(hr))
        return report(490, hr);
    return S_OK;
}

// Shows the system's dialog for a probe that was answered 401 or 407, and keeps what was entered for the proxy.
HRESULT CVoHTTPMessageWinINet::AskForCredentials(void* probe)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::AskForCredentials" };
    const DWORD answer = ::InternetErrorDlg(DialogOwner(), probe, ERROR_INTERNET_INCORRECT_PASSWORD, kDialogFlags, nullptr);
    if (answer == ERROR_CANCELLED)
        return S_OK; // the request will meet the same challenge
    if (answer != ERROR_SUCCESS && answer != ERROR_INTERNET_FORCE_RETRY)
        return report.Win32(510, 511, answer);

    // What was entered for a server leaves none for the proxy.
    if (!QueryOptionText(probe, INTERNET_OPTION_PROXY_USERNAME, m_proxyUser))
        report.LastError(513, 514);
    if (!QueryOptionText(probe, INTERNET_OPTION_PROXY_PASSWORD, m_proxyPassword.Get()))
        report.LastError(516, 517);
    UINT32 status = 0;
    if (const HRESULT hr = SendProbe(probe, status); FAILED(hr))
        return report(520, hr);
    if (status != WindowsTransport::kStatusOk && status < kStatusServerError)
        return report(525, kResultUnexpectedStatus);
    if (!m_proxyStore || m_proxyUser.empty())
        return S_OK;
    // They are kept for the proxy that stands before this server, which need not be one that was configured by hand.
    const std::wstring url = m_serverAddress.FullURL();
    CProxy proxy;
    if (const HRESULT hr = GetProxy(&url, proxy); FAILED(hr))
        return report(527, hr);
    if (proxy.proxy.empty())
        return S_OK; // the platform found a proxy that the store does not know
    if (const HRESULT hr = SaveProxyCredentials(*m_proxyStore.Get(), proxy.proxy, m_proxyUser, m_proxyPassword.Get());
        FAILED(hr))
        return report(530, hr);
    return S_OK;
}

// Passes over a certificate error as far as the switches allow: S_OK when the request may be tried again, else the error.
HRESULT CVoHTTPMessageWinINet::WidenSecurity(void* request, DWORD error) noexcept
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
        if (m_verifyServerCertificate)
            return report.Win32(550, 551, error);
        flags |= kIgnoreCertificate;
        break;
    case ERROR_INTERNET_SEC_CERT_NO_REV:
    case ERROR_INTERNET_SEC_CERT_REV_FAILED:
        if (m_checkCertificateRevocation)
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

HRESULT CVoHTTPMessageWinINet::OpenRequest(std::shared_ptr<CHTTPRequestData>& request) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::OpenRequest" };
    const CAutoLock lock(&m_lock);
    if (const HRESULT hr = internalOpenRequest(m_serverAddress, L"POST", request); FAILED(hr))
        return report(580, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinINet::OpenRequest" }.CurrentException(585);
}

HRESULT CVoHTTPMessageWinINet::internalOpenRequest(const CServerAddressData& address, const wchar_t* verb,
                                                   std::shared_ptr<CHTTPRequestData>& request)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalOpenRequest" };
    if (!m_connected)
        return report(600, HRESULT_FROM_WIN32(ERROR_NOT_CONNECTED));
    auto made = std::make_shared<CHTTPRequestDataWinINet>(std::static_pointer_cast<CVoHTTPMessageWinINet>(shared_from_this()));
    made->m_address = address;
    if (const HRESULT hr = OpenHandle(*made, verb); FAILED(hr))
        return report(602, hr);
    std::erase_if(m_requests, [](const auto& open) { return open.expired(); });
    m_requests.push_back(made);
    request = std::move(made);
    return S_OK;
}

// The request behind a caller's pointer, kept from here on, as a callback may drop the caller's; null unless this message made
// it.
std::shared_ptr<CVoHTTPMessageWinINet::CHTTPRequestDataWinINet> CVoHTTPMessageWinINet::OwnRequest(
    const std::shared_ptr<CHTTPRequestData>& request) const noexcept
{
    std::shared_ptr<CHTTPRequestDataWinINet> data = std::dynamic_pointer_cast<CHTTPRequestDataWinINet>(request);
    return data && data->m_message.get() == this ? data : nullptr;
}

// Gives a request a fresh handle, which owes nothing to what an earlier one left unread.
HRESULT CVoHTTPMessageWinINet::OpenHandle(CHTTPRequestDataWinINet& request, const wchar_t* verb)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::OpenHandle" };
    std::wstring objectName;
    if (const HRESULT hr = VoEncodeUrl(request.m_address.ObjectName(), objectName); FAILED(hr))
        return report(604, hr);
    const wchar_t* acceptTypes[] = { L"*/*", nullptr };
    const DWORD flags = kRequestFlags | (request.m_address.IsSecure() ? INTERNET_FLAG_SECURE : 0);
    CInternetHandle handle(
        ::HttpOpenRequestW(m_connection.Get(), verb, objectName.c_str(), L"HTTP/1.1", nullptr, acceptTypes, flags, 0));
    if (!handle)
        return report.LastError(605, 606);
    if (::InternetSetStatusCallbackW(handle.Get(), &OnStatus) == INTERNET_INVALID_STATUS_CALLBACK)
        return report.LastError(607, 608);
    // Calls back come for handles with a context only; the one that a send names may be 0.
    DWORD_PTR context = 1;
    if (!::InternetSetOptionW(handle.Get(), INTERNET_OPTION_CONTEXT_VALUE, &context, sizeof context))
        report.LastError(609, 610); // that of the send serves too
    request.m_handle = std::move(handle);
    request.m_isHandleUsed = false;
    request.m_verb = verb;
    return S_OK;
}

HRESULT CVoHTTPMessageWinINet::internalSend(CHTTPRequestDataWinINet& request, std::span<const BYTE> body,
                                            const std::wstring& contentTypeHeader, bool allowRetry, CSendResult* result)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalSend" };
    request.m_statusCode = 0;
    request.m_localIPAddress.clear();
    request.m_answered = false;
    request.m_answer = {};
    CAttempts attempts(allowRetry, m_connectTimeout);
    HRESULT hr = S_OK;
    for (;;)
    {
        attempts.Begin();
        // A handle that was sent once keeps the headers and the length of that body.
        if (request.m_isHandleUsed)
            if (hr = OpenHandle(request, request.m_verb); FAILED(hr))
            {
                report(625, hr);
                break;
            }
        if (hr = internalSendRAW(request, body, contentTypeHeader, S_OK); SUCCEEDED(hr))
            break;
        report(630, hr);
        if (!attempts.MayRetry(hr, request.m_statusCode))
            break;
    }
    if (result)
    {
        result->retried = attempts.Retried();
        result->statusCode = request.m_statusCode;
        result->localAddress = request.m_localIPAddress;
    }
    return hr;
}

// Takes over the cookies that the store has for the request.
HRESULT CVoHTTPMessageWinINet::GetCookiesForRequest(CHTTPRequestDataWinINet& request) const
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::GetCookiesForRequest" };
    request.m_cookieHeader.clear(); // those of an earlier send are not this one's
    if (const HRESULT hr = GetCookieHeader(request.m_address, request.m_cookieHeader); FAILED(hr))
        return report(650, hr);
    return S_OK;
}

HRESULT CVoHTTPMessageWinINet::internalSendRAW(CHTTPRequestDataWinINet& request, std::span<const BYTE> body,
                                               const std::wstring& contentTypeHeader, HRESULT expectedResult)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalSendRAW" };
    request.m_isHandleUsed = true;
    request.m_statusCode = 0;
    request.m_localIPAddress.clear();
    request.m_sent = 0;
    request.m_toSend = body.size();
    request.m_received = 0;
    request.m_toReceive = 0;

    if (const HRESULT hr = GetCookiesForRequest(request); FAILED(hr))
        report(670, hr); // the request goes without cookies

    HRESULT hr = SendBody(request, body, contentTypeHeader);
    if (SUCCEEDED(hr) && request.m_statusCode != WindowsTransport::kStatusOk)
        hr = kResultUnexpectedStatus;
    if (SUCCEEDED(hr))
    {
        ReadCookiesFromWinINetResponse(request);
        request.m_toReceive = AnnouncedLength(request.m_handle.Get()).value_or(0);
        request.m_answered = true;
        return S_OK;
    }
    report.Message(680, L"Addr:%ls", request.m_address.PathURL().c_str());
    return hr == expectedResult ? hr : report(685, hr);
}

// Sends headers and body and waits for the status.
HRESULT CVoHTTPMessageWinINet::SendBody(CHTTPRequestDataWinINet& request, std::span<const BYTE> body,
                                        const std::wstring& contentTypeHeader)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::SendBody" };
    const CSending sending(request);
    const HINTERNET handle = request.m_handle.Get();
    for (int resends = 0;; ++resends)
    {
        // Made for each send, because a redirect changes the cookies.
        std::wstring headers;
        if (!request.m_cookieHeader.empty())
            headers = VoFormat(L"Cookie: %ls\r\n", request.m_cookieHeader.c_str());
        if (HasValue(contentTypeHeader))
            headers += contentTypeHeader + L"\r\n";
        if (const HRESULT hr = BeginSend(handle, static_cast<DWORD>(body.size()), headers); FAILED(hr))
            return report(690, hr);
        if (std::wstring address = internalGetClientIPAddressAndSendBufferSize(handle); !address.empty())
            request.m_localIPAddress = std::move(address);
        if (const HRESULT hr = WriteBody(request, body); FAILED(hr))
            return report(692, hr);
        if (CallBack* const callBack = GetCallBack(); callBack && !body.empty())
            callBack->OnRequestSent();
        if (::HttpEndRequestW(handle, nullptr, HSR_SYNC, 0))
            return QueryStatus(handle, request.m_statusCode, report, 694);
        // Credentials that the platform has are sent with the whole request anew, once for each challenge.
        const DWORD error = ::GetLastError();
        if (error != ERROR_INTERNET_FORCE_RETRY || resends == kMaximumResends)
            return report.Win32(696, 697, error);
        report.Message(698, L"The platform asks for the request again");
    }
}

// Sends the headers, twice where a certificate error may be passed over.
HRESULT CVoHTTPMessageWinINet::BeginSend(void* request, DWORD bodyLength, const std::wstring& headers) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::BeginSend" };
    constexpr DWORD_PTR kContext = 1;
    INTERNET_BUFFERSW buffers{};
    buffers.dwStructSize = sizeof buffers;
    buffers.lpcszHeader = headers.c_str();
    buffers.dwHeadersLength = static_cast<DWORD>(headers.size());
    buffers.dwBufferTotal = bodyLength;
    if (::HttpSendRequestExW(request, &buffers, nullptr, HSR_SYNC, kContext))
        return S_OK;
    if (const HRESULT hr = WidenSecurity(request, ::GetLastError()); FAILED(hr))
        return report(700, hr);
    if (!::HttpSendRequestExW(request, &buffers, nullptr, HSR_SYNC, 0))
        return report.LastError(705, 706);
    return S_OK;
}

HRESULT CVoHTTPMessageWinINet::WriteBody(CHTTPRequestDataWinINet& request, std::span<const BYTE> body) const noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::WriteBody" };
    request.m_sent = 0;
    for (size_t position = 0; position < body.size();)
    {
        const DWORD piece = static_cast<DWORD>(std::min<size_t>(kMaximumPiece, body.size() - position));
        DWORD written = 0;
        if (!::InternetWriteFile(request.m_handle.Get(), body.data() + position, piece, &written))
            return report.LastError(710, 711);
        WriteDataToLogFile(EDataDirection::Written, body.data() + position, written);
        if (written != piece)
            return report(715, E_FAIL);
        position += piece;
        request.m_sent = position;
    }
    return S_OK;
}

void CALLBACK CVoHTTPMessageWinINet::OnStatus(void* /*handle*/, DWORD_PTR /*context*/, DWORD status, void* information,
                                              DWORD /*length*/) noexcept
{
    CHTTPRequestDataWinINet* const request = CHTTPRequestDataWinINet::t_sending;
    if (status == INTERNET_STATUS_REDIRECT && request && information)
        request->m_message->OnRedirect(*request, static_cast<const wchar_t*>(information));
}

// Headers travel on to wherever a redirect leads unless they are corrected here (the platform's documentation of
// HttpAddRequestHeaders): cookies of one server are not for another.
void CVoHTTPMessageWinINet::OnRedirect(CHTTPRequestDataWinINet& request, const wchar_t* url) const noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::OnRedirect" };
    CServerAddressData target;
    std::wstring cookies;
    if (SUCCEEDED(target.SetAddress(VoWithoutUserInfo(url), false, true, true)))
        if (const HRESULT hr = GetCookieHeader(target, cookies); FAILED(hr))
            report(720, hr); // the next hop gets none
    if (cookies.empty() && request.m_cookieHeader.empty())
        return;
    const std::wstring header = cookies.empty() ? kNoCookie : VoFormat(L"Cookie: %ls\r\n", cookies.c_str());
    if (!::HttpAddRequestHeadersW(request.m_handle.Get(), header.c_str(), static_cast<DWORD>(header.size()), kReplaceHeader))
    {
        report.LastError(722, 723);
        cookies.clear();
        (void)::HttpAddRequestHeadersW(request.m_handle.Get(), kNoCookie, kToTheEnd, kReplaceHeader);
    }
    request.m_cookieHeader = std::move(cookies);
}
catch (...)
{
    CVoReporter{ kSource, L"CVoHTTPMessageWinINet::OnRedirect" }.CurrentException(725);
    // Taking the header away needs no memory here.
    (void)::HttpAddRequestHeadersW(request.m_handle.Get(), kNoCookie, kToTheEnd, kReplaceHeader);
    request.m_cookieHeader.clear();
}

// Hands the answer's cookies to the store, as those of where the answer came from: redirects may have led to another server.
void CVoHTTPMessageWinINet::ReadCookiesFromWinINetResponse(const CHTTPRequestDataWinINet& request) const noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::ReadCookiesFromWinINetResponse" };
    if (!m_cookieStore)
        return;
    const HINTERNET handle = request.m_handle.Get();
    std::wstring url;
    DWORD index = 0;
    for (;;)
    {
        std::wstring value;
        if (!NextHeader(handle, HTTP_QUERY_SET_COOKIE, index, value))
            return;
        if (url.empty() && !QueryOptionText(handle, INTERNET_OPTION_URL, url))
        {
            report.LastError(735, 736); // whose they are is unknown: the cookies are dropped, the answer stands
            return;
        }
        if (const HRESULT hr = StoreCookie(m_cookieStore.Get(), value, url); FAILED(hr))
            report(740, hr); // the cookie is dropped, the answer stands
    }
}
catch (...)
{
    CVoReporter{ kSource, L"CVoHTTPMessageWinINet::ReadCookiesFromWinINetResponse" }.CurrentException(745);
}

HRESULT CVoHTTPMessageWinINet::SendMessage(const std::shared_ptr<CHTTPRequestData>& request,
                                           const CVoBinaryDataParser& parameters, EContentKind contentKind, bool utf8,
                                           std::wstring_view signingKey, std::wstring_view signatureParameterName,
                                           bool allowRetry, CSendResult* result) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::SendMessage" };
    constexpr CContentTracePoints kPoints{ .raw = 765,
                                           .multipart = 766,
                                           .formPayload = 767,
                                           .form = 768,
                                           .signedKey = 769,
                                           .signedName = 770,
                                           .signedPayload = 771,
                                           .signedForm = 772,
                                           .sign = 773,
                                           .emptyPayload = 774,
                                           .unknownKind = 775,
                                           .exception = 776 };
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data || !data->m_handle)
        return report(760, E_INVALIDARG);
    CContent content;
    if (const HRESULT hr =
            CreateContent(parameters, contentKind, utf8, signingKey, signatureParameterName, report, kPoints, content);
        FAILED(hr))
        return hr;
    if (const HRESULT hr = internalSend(*data, content.body.Bytes(), content.contentTypeHeader, allowRetry, result); FAILED(hr))
        return report(780, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinINet::SendMessage" }.CurrentException(785);
}

HRESULT CVoHTTPMessageWinINet::SendMultipleMessages(const std::shared_ptr<CHTTPRequestData>& request,
                                                    std::span<const CVoBinaryDataParser> messages, bool utf8, bool allowRetry,
                                                    CSendResult* result) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::SendMultipleMessages" };
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data || !data->m_handle)
        return report(800, E_INVALIDARG);
    CContent content;
    if (const HRESULT hr = CreateMultipleContent(messages, utf8, content); FAILED(hr))
        return report(805, hr);
    if (const HRESULT hr = internalSend(*data, content.body.Bytes(), content.contentTypeHeader, allowRetry, result); FAILED(hr))
        return report(810, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinINet::SendMultipleMessages" }.CurrentException(815);
}

HRESULT CVoHTTPMessageWinINet::SendGetRequest(std::shared_ptr<CHTTPRequestData>& request, std::wstring_view objectPath,
                                              bool allowRetry, CSendResult* result) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::SendGetRequest" };
    auto data = objectPath.empty() ? OwnRequest(request) : nullptr;
    const CAutoLock lock(&m_lock);
    if (data && data->m_handle)
    {
        if (const HRESULT hr = OpenHandle(*data, L"GET"); FAILED(hr))
            return report(828, hr);
    }
    else
    {
        CServerAddressData address = m_serverAddress;
        if (!objectPath.empty())
            if (const HRESULT hr = address.SetObjectPath(objectPath); FAILED(hr))
                return report(830, hr);
        std::shared_ptr<CHTTPRequestData> made;
        if (const HRESULT hr = internalOpenRequest(address, L"GET", made); FAILED(hr))
            return report(835, hr);
        request = std::move(made);
        data = std::static_pointer_cast<CHTTPRequestDataWinINet>(request);
    }
    if (const HRESULT hr = internalSend(*data, {}, L"Content-Type:", allowRetry, result); FAILED(hr))
        return report(840, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinINet::SendGetRequest" }.CurrentException(845);
}

HRESULT CVoHTTPMessageWinINet::internalReadRAW(CHTTPRequestDataWinINet& request, std::vector<BYTE>& bytes)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalReadRAW" };
    const HINTERNET handle = request.m_handle.Get();
    const std::optional<UINT64> announced = AnnouncedLength(handle);
    std::vector<BYTE> received;
    if (announced)
        received.reserve(static_cast<size_t>(std::min<UINT64>(*announced, kMaximumReserve)) + kReadStep);
    size_t used = 0;
    for (;;)
    {
        DWORD available = 0;
        if (!::InternetQueryDataAvailable(handle, &available, 0, 0))
            return report.LastError(860, 861);
        if (available == 0)
            break;
        // In whole steps; the vector's own growth keeps the cost linear.
        received.resize((used + available + kReadStep - 1) / kReadStep * kReadStep);
        DWORD read = 0;
        if (!::InternetReadFile(handle, received.data() + used, available, &read))
            return report.LastError(865, 866);
        if (read == 0)
            break;
        WriteDataToLogFile(EDataDirection::Read, received.data() + used, read);
        used += read;
        request.m_received = used;
    }
    if (announced && used != *announced)
        return report(870, E_FAIL); // the connection ended before the answer did
    received.resize(used);
    bytes = std::move(received);
    return S_OK;
}

// Reads the answer that waits at the request's handle into the request.
HRESULT CVoHTTPMessageWinINet::internalReadResponse(CHTTPRequestDataWinINet& request)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::internalReadResponse" };
    if (!request.m_answered)
        return S_OK;
    request.m_answered = false;
    CAnswer answer;
    if (const HRESULT hr = internalReadRAW(request, answer.bytes); FAILED(hr))
        return report(885, hr);
    answer.utf8 = NamesUtf8(CheckHeader(request.m_handle.Get(), HTTP_QUERY_CONTENT_TYPE).value_or(std::wstring()));
    answer.isThere = true;
    request.m_answer = std::move(answer);
    return S_OK;
}

HRESULT CVoHTTPMessageWinINet::ReadResponse(const std::shared_ptr<CHTTPRequestData>& request, CVoBinaryDataParser& response,
                                            EResponseKind kind, bool* isUtf8, bool* isEmpty) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::ReadResponse" };
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data)
        return report(900, E_INVALIDARG);
    if (const HRESULT hr = internalReadResponse(*data); FAILED(hr))
        return report(905, hr);
    if (const HRESULT hr = ReadAnswer(data->m_answer, kind, response, isUtf8, isEmpty); FAILED(hr))
        return report(910, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinINet::ReadResponse" }.CurrentException(915);
}

HRESULT CVoHTTPMessageWinINet::ReadMultipleResponses(const std::shared_ptr<CHTTPRequestData>& request,
                                                     std::vector<CVoBinaryDataParser>& responses, UINT32 expectedCount,
                                                     UINT32* count) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::ReadMultipleResponses" };
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data)
        return report(930, E_INVALIDARG);
    if (const HRESULT hr = internalReadResponse(*data); FAILED(hr))
        return report(935, hr);
    if (const HRESULT hr = ReadAnswers(data->m_answer, responses, expectedCount, count); FAILED(hr))
        return report(940, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinINet::ReadMultipleResponses" }.CurrentException(945);
}

HRESULT CVoHTTPMessageWinINet::SetUserContext(UINT64 userContext) noexcept
{
    const CAutoLock lock(&m_lock);
    m_userContext = userContext;
    return S_OK;
}
} // namespace VoHTTPMessageWinINet
