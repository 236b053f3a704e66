// The WinHTTP transport: the hooks of the transport core on the platform's WinHTTP service.
#include <VoHTTPMessageWinHTTP.h>

#include "VoHTTPMessageWinHTTPTracePoints.h"
#include "VoHTTPTransport.h"
#include "VoUrl.h"
#include "VoWinHttpCookies.h"
#include "VoWinHttpTrace.h"
#include "WindowsTransport.h"

#include <VoWinHttpRequest.h>

#include <base/VoSystemProperties.h>
#include <base/VoText.h>
#include <base/VoUtils.h>

#include <algorithm>

using VoWinHttpInterface::WinHttpConnectionHandle;
using VoWinHttpInterface::WinHttpRequestHandle;
using VoWinHttpRequest::CVoWinHttpPostRequest;
using VoWinHttpRequest::CVoWinHttpRequest;
using VoWinHttpRequest::HRESULTexc;
using VoWinHttpRequest::IVoWinHttpRequest;

namespace VoHTTPMessageWinHTTP
{
namespace
{
constexpr DWORD kAccessTypeAutomaticProxy = 4; // WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY, from Windows 8.1 on
constexpr DWORD kMaximumConnections10 = 74;    // Intended: it equals the option's own number.
constexpr DWORD kIgnoreCertificate = SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_CERT_WRONG_USAGE |
                                     SECURITY_FLAG_IGNORE_CERT_CN_INVALID | SECURITY_FLAG_IGNORE_CERT_DATE_INVALID;

constexpr CVoTransportFacts kFacts{ .unexpectedStatus = kResultUnexpectedStatus,
                                    .savesProxyAtOnce = true,
                                    .notifiesAfterStatus = true };

// The text with every occurrence of `what`, in any case, replaced. The texts are ASCII.
std::wstring ReplaceAll(std::wstring_view text, std::wstring_view what, std::wstring_view by)
{
    std::wstring result;
    while (text.size() >= what.size())
    {
        const bool found = VoEqualsNoCase(text.substr(0, what.size()), what);
        result += found ? by : text.substr(0, 1);
        text.remove_prefix(found ? what.size() : 1);
    }
    return result.append(text);
}

// Whether the service looks a server up by the name that the address has. It may write an international name, a name with a dot
// at its end, and an address (whose last label begins with a digit, as in 127.1) in a form of its own.
bool HasOneForm(std::wstring_view server) noexcept
{
    const std::wstring_view lastLabel = server.substr(server.rfind(L'.') + 1);
    return !lastLabel.empty() && (lastLabel.front() < L'0' || lastLabel.front() > L'9') &&
           server.find(L':') == std::wstring_view::npos && VoIsAscii(server);
}

// Whether a proxy, "host:port", is on the host.
bool IsOn(std::wstring_view proxy, std::wstring_view host) noexcept
{
    const std::wstring_view rest = proxy.substr(std::min(host.size(), proxy.size()));
    return VoEqualsNoCase(proxy.substr(0, host.size()), host) && (rest.empty() || rest.front() == L':');
}
} // namespace

class CVoHTTPMessageWinHTTP final : public CVoHTTPTransport
{
public:
    explicit CVoHTTPMessageWinHTTP(bool rewriteLoopback)
        : CVoHTTPTransport(kTracePoints, kFacts), m_rewriteLoopback(rewriteLoopback)
    {
    }
    ~CVoHTTPMessageWinHTTP() override { CloseInDestructor(); }
    CVoHTTPMessageWinHTTP(const CVoHTTPMessageWinHTTP&) = delete;
    CVoHTTPMessageWinHTTP& operator=(const CVoHTTPMessageWinHTTP&) = delete;

    class CHTTPRequestDataWinHTTP;

private:
    [[nodiscard]] HRESULT OpenSession() override;
    [[nodiscard]] HRESULT CloseSession() noexcept override;
    [[nodiscard]] std::shared_ptr<CRequest> MakeRequest() override;
    [[nodiscard]] HRESULT OpenHandle(CRequest& opened) override;
    [[nodiscard]] HRESULT CloseHandle(CRequest& opened) noexcept override;
    [[nodiscard]] HRESULT SendOnce(CRequest& sent, const CVoBodyPieces& body, const std::wstring& contentType) override;
    [[nodiscard]] bool ReadSetCookie(const CRequest& request, DWORD index, std::wstring& value) const override;
    [[nodiscard]] HRESULT FetchBody(CRequest& answered, CVoBodyReceiver& body) override;
    [[nodiscard]] HRESULT FetchPieces(CHTTPRequestDataWinHTTP& request, CVoBodyReceiver& body) const;
    [[nodiscard]] const std::wstring* ProxyQuestion(const CRequest& request) const override;
    [[nodiscard]] std::wstring FoundProxy(const CRequest& request, std::wstring known) const override;
    void CancelCall(CRequest& request) noexcept override;
    [[nodiscard]] size_t ReadHeader(const CRequest& request, size_t maximum, std::wstring& header) const override;
    [[nodiscard]] CVoFailure ExplainFailure(const CRequest& request, HRESULT result) const override;
    void FetchErrorBody(CRequest& request) override;

    [[nodiscard]] HRESULT RewriteLoopback();
    [[nodiscard]] HRESULT InitSession() noexcept;
    [[nodiscard]] HRESULT SetProxy(CHTTPRequestDataWinHTTP& request) const;
    [[nodiscard]] static HRESULT SetCookie(CHTTPRequestDataWinHTTP& request);
    [[nodiscard]] HRESULT MakeExchange(CHTTPRequestDataWinHTTP& request, std::span<const BYTE> body,
                                       const std::wstring& contentType);

    static void OnNotification(CHTTPRequestDataWinHTTP& request, DWORD status, const void* information, DWORD length) noexcept;
    // The function given to each exchange; `context` is the request.
    static HRESULT AuthenticationCallback(DWORD target, DWORD supportedSchemes, DWORD firstScheme, const std::wstring& url,
                                          DWORD& chosenScheme, std::wstring& user, std::wstring& password,
                                          void* context) noexcept;
    [[nodiscard]] HRESULT OnAuthenticationRequest(CHTTPRequestDataWinHTTP& request, DWORD target, DWORD supportedSchemes,
                                                  DWORD& chosenScheme, std::wstring& user, std::wstring& password);

    const bool m_rewriteLoopback;
    bool m_findsProxies = false; // the session finds the proxy of each URL by itself
    VoWinHttpInterface::WinHttpSessionHandle m_session;
    WinHttpConnectionHandle m_connection;
};

class CVoHTTPMessageWinHTTP::CHTTPRequestDataWinHTTP final : public CRequest
{
public:
    // The order matters: the exchange is destroyed first, then the request's handle, then the connection below it.
    WinHttpConnectionHandle m_targetConnection; // to the target of a redirect on another server
    WinHttpRequestHandle m_handle;
    std::unique_ptr<IVoWinHttpRequest> m_exchange;
};

std::shared_ptr<CVoHTTPMessage> MakeMessage(bool rewriteLoopback)
{
    return std::make_shared<CVoHTTPMessageWinHTTP>(rewriteLoopback);
}

HRESULT CVoHTTPMessageWinHTTP::OpenSession()
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::internalConnect" };
    if (const HRESULT hr = RewriteLoopback(); FAILED(hr))
        return report(200, hr);
    if (const HRESULT hr = InitSession(); FAILED(hr))
        return report(205, hr);
    if (const HRESULT hr = m_connection.Init(m_session, m_serverAddress.Host().c_str(), m_serverAddress.EffectivePort());
        FAILED(hr))
        return report(210, hr);
    return S_OK;
}

HRESULT CVoHTTPMessageWinHTTP::CloseSession() noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::internalClose" };
    const HRESULT connection = m_connection.Close();
    const HRESULT session = m_session.Close();
    m_userContext = 0;
    if (FAILED(connection))
        return report(160, connection);
    return SUCCEEDED(session) ? S_OK : report(162, session);
}

// WinHTTP sends nothing to a proxy for a name that it takes for loopback: give a server on this machine another one.
HRESULT CVoHTTPMessageWinHTTP::RewriteLoopback()
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::RewriteLoopback" };
    if (!m_rewriteLoopback)
        return S_OK;
    for (const std::wstring_view name : { L"localhost", L"127.0.0.1" })
    {
        if (!VoEqualsNoCase(m_serverAddress.Host(), name))
            continue;
        // Intended: in the path and the query too.
        const std::wstring rewritten = ReplaceAll(m_serverAddress.FullURL(), name, L"localhost.localhost");
        if (const HRESULT hr = m_serverAddress.SetAddress(rewritten, false, true, true); FAILED(hr))
            return report(225, hr);
        break;
    }
    return S_OK;
}

HRESULT CVoHTTPMessageWinHTTP::InitSession() noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::InitSession" };
    m_findsProxies = VoIsWindows81OrLater();
    const DWORD accessType = m_findsProxies ? kAccessTypeAutomaticProxy : DWORD{ WINHTTP_ACCESS_TYPE_DEFAULT_PROXY };
    if (const HRESULT hr = m_session.Init(L"CVoHTTPMessageWinHTTP", accessType, WINHTTP_FLAG_ASYNC); FAILED(hr))
        return report(240, hr);
    struct CSetting
    {
        DWORD option;
        DWORD value;
    };
    const CSetting settings[] = {
        { WINHTTP_OPTION_CONNECT_TIMEOUT, Milliseconds(m_connectTimeout) },
        { WINHTTP_OPTION_SEND_TIMEOUT, Milliseconds(m_connectTimeout) },
        { WINHTTP_OPTION_RECEIVE_TIMEOUT, Milliseconds(m_requestTimeout) },
        { WINHTTP_OPTION_MAX_CONNS_PER_SERVER, WindowsTransport::kMaximumConnections },
        { WINHTTP_OPTION_MAX_CONNS_PER_1_0_SERVER, kMaximumConnections10 },
        // The wait for the headers has a limit of its own, 90 seconds by default.
        { WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, Milliseconds(m_requestTimeout) },
    };
    for (const CSetting& setting : settings)
        if (const HRESULT hr = m_session.SetOption(setting.option, setting.value); FAILED(hr))
            return report(245, hr);
    return S_OK;
}

std::shared_ptr<CVoHTTPTransport::CRequest> CVoHTTPMessageWinHTTP::MakeRequest()
{
    return std::make_shared<CHTTPRequestDataWinHTTP>();
}

const std::wstring* CVoHTTPMessageWinHTTP::ProxyQuestion(const CRequest& request) const
{
    // From Windows 8.1 on the session finds the proxy of a URL by itself. The store only names one that is configured by hand.
    return m_findsProxies ? nullptr : &request.m_target.FullURL();
}

std::wstring CVoHTTPMessageWinHTTP::FoundProxy(const CRequest& request, std::wstring known) const
{
    // It shows only in the name that the service looks up for a new connection.
    const std::wstring& resolved = request.m_trace.resolved;
    const std::wstring& server = request.m_target.Host();
    if (resolved.empty() || IsOn(known, resolved))
        return known;
    if (VoEqualsNoCase(resolved, server))
        return {};
    return HasOneForm(server) && !VoContainsNoCase(resolved, L"XN--") ? resolved : known;
}

HRESULT CVoHTTPMessageWinHTTP::OpenHandle(CRequest& opened)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::OpenHandle" };
    auto& request = static_cast<CHTTPRequestDataWinHTTP&>(opened);
    const CServerAddressData& target = request.m_target;
    (void)CloseHandle(request); // reported
    std::wstring objectName;
    if (const HRESULT hr = VoEncodeUrl(target.ObjectName(), objectName); FAILED(hr))
        return report(300, hr);
    const bool isConnected = target.BaseURL() == m_serverAddress.BaseURL();
    if (!isConnected)
        if (const HRESULT hr = request.m_targetConnection.Init(m_session, target.Host().c_str(), target.EffectivePort());
            FAILED(hr))
            return report(303, hr);
    const DWORD flags = WINHTTP_FLAG_REFRESH | (target.IsSecure() ? WINHTTP_FLAG_SECURE : 0);
    if (const HRESULT hr = request.m_handle.Init(isConnected ? m_connection : request.m_targetConnection, request.m_targetVerb,
                                                 objectName.c_str(), flags);
        FAILED(hr))
        return report(305, hr);
    const DWORD securityFlags = VerifiesCertificateOf(target) ? 0 : kIgnoreCertificate;
    if (const HRESULT hr = request.m_handle.SetOption(WINHTTP_OPTION_SECURITY_FLAGS, securityFlags); FAILED(hr))
        return report(310, hr);
    // A server may ask for a certificate of the user and go on without one. The request fails then unless it says that there is
    // none (documentation of WINHTTP_OPTION_CLIENT_CERT_CONTEXT).
    if (target.IsSecure())
        if (const HRESULT hr =
                request.m_handle.SetOption(WINHTTP_OPTION_CLIENT_CERT_CONTEXT, WINHTTP_NO_CLIENT_CERT_CONTEXT, 0);
            FAILED(hr))
            report.Message(312, L"The absence of a client certificate was refused: 0x%08lX", static_cast<unsigned long>(hr));
    // Switching revocation checks on must succeed. Switching them off may be refused: a request has none by itself.
    const DWORD features = m_checkCertificateRevocation ? WINHTTP_ENABLE_SSL_REVOCATION : 0;
    if (const HRESULT hr = request.m_handle.SetOption(WINHTTP_OPTION_ENABLE_FEATURE, features); FAILED(hr))
    {
        if (features != 0 || !WindowsTransport::IsRefusedSwitchOff(hr))
            return report(317, hr);
        report.Message(316, L"Switching no feature on was refused: 0x%08lX", static_cast<unsigned long>(hr));
    }
    // The transport core follows redirects.
    if (const HRESULT hr = request.m_handle.SetOption(WINHTTP_OPTION_REDIRECT_POLICY, WINHTTP_OPTION_REDIRECT_POLICY_NEVER);
        FAILED(hr))
        return report(319, hr);
    if (const HRESULT hr = SetProxy(request); FAILED(hr))
        return report(320, hr);
    if (const HRESULT hr = SetCookie(request); FAILED(hr))
        return report(325, hr);
    return S_OK;
}

HRESULT CVoHTTPMessageWinHTTP::CloseHandle(CRequest& opened) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::CloseHandle" };
    auto& request = static_cast<CHTTPRequestDataWinHTTP&>(opened);
    request.m_exchange.reset(); // waits until WinHTTP uses nothing of it any more
    const HRESULT handle = request.m_handle.Close();
    const HRESULT connection = request.m_targetConnection.Close();
    if (FAILED(handle))
        return report(328, handle);
    return SUCCEEDED(connection) ? S_OK : report(330, connection);
}

HRESULT CVoHTTPMessageWinHTTP::SetProxy(CHTTPRequestDataWinHTTP& request) const
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::SetProxy" };
    if (!request.m_proxy.empty())
    {
        // The proxy for the scheme, which the credentials are for. No entry for the scheme: pass the list unchanged.
        WINHTTP_PROXY_INFO info{};
        info.dwAccessType = WINHTTP_ACCESS_TYPE_NAMED_PROXY;
        info.lpszProxy = request.m_proxyName.empty() ? request.m_proxy.data() : request.m_proxyName.data();
        if (const HRESULT hr = request.m_handle.SetOption(WINHTTP_OPTION_PROXY, &info, sizeof info); FAILED(hr))
            return report(350, hr);
        report.Message(352, L"Proxy: %ls",
                       request.m_proxyName.empty() ? L"the list" : VoHideProxyUser(request.m_proxyName).c_str());
    }
    else if (m_findsProxies)
        report.Message(354, L"Proxy: WinHTTP decides by the system's settings");
    // Before the first send, so that the proxy need not ask.
    if (request.m_proxyCredentials)
        if (const HRESULT hr = request.m_handle.SetCredentials(WINHTTP_AUTH_TARGET_PROXY, WINHTTP_AUTH_SCHEME_BASIC,
                                                               request.m_proxyCredentials->user.c_str(),
                                                               request.m_proxyCredentials->password.Get().c_str());
            FAILED(hr))
            return report(356, hr);
    return S_OK;
}

HRESULT CVoHTTPMessageWinHTTP::SetCookie(CHTTPRequestDataWinHTTP& request)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::SetCookie" };
    // WinHTTP would keep cookies of its own beside the store's.
    if (const HRESULT hr = request.m_handle.SetOption(WINHTTP_OPTION_DISABLE_FEATURE, WINHTTP_DISABLE_COOKIES); FAILED(hr))
        return report(370, hr);
    if (request.m_cookieHeader.empty())
        return S_OK;
    if (const HRESULT hr = VoSetCookies(request.m_handle, request.m_cookieHeader); FAILED(hr))
        return report(380, hr);
    return S_OK;
}

// Puts the headers and the body of a request into a new exchange.
HRESULT CVoHTTPMessageWinHTTP::MakeExchange(CHTTPRequestDataWinHTTP& request, std::span<const BYTE> body,
                                            const std::wstring& contentType)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::MakeExchange" };
    const auto addHeader = [&](const std::wstring& header)
    { return request.m_handle.AddHeader(header.c_str(), static_cast<DWORD>(header.size()), WINHTTP_ADDREQ_FLAG_ADD); };
    if (VoHasHeaderValue(contentType))
        if (const HRESULT hr = addHeader(contentType); FAILED(hr))
            return report(440, hr);
    if (const HRESULT hr = addHeader(L"Accept: */*"); FAILED(hr))
        return report(445, hr);

    std::unique_ptr<IVoWinHttpRequest> exchange;
    if (request.m_targetVerb == std::wstring_view(L"GET"))
        exchange = std::make_unique<CVoWinHttpRequest<VoWinHttpRequest::CVoWinHttpGetRequest>>();
    else
        exchange = std::make_unique<CVoWinHttpRequest<CVoWinHttpPostRequest>>();
    if (const HRESULT hr = exchange->Init(&request.m_handle, &AuthenticationCallback, &request); FAILED(hr))
        return report(450, hr);
    // These two run while the caller's thread waits for the status, with the message's lock held.
    if (const HRESULT hr = exchange->SetSendCompleteHandler(
            [&request, size = body.size(), callBack = GetCallBack()](DWORD, void*, DWORD)
    {
        request.m_sent = size;
        return callBack ? callBack->OnRequestSent() : S_OK;
    });
        FAILED(hr))
        return report(455, hr);
    if (const HRESULT hr = exchange->SetReceiveHandler(
            [&request, timeout = request.m_streamedKind ? 0 : m_requestTimeout, start = INT64{ 0 }](DWORD length) mutable
    {
        if (start == 0)
            start = VoGetMicroseconds();
        request.m_received += length;
        const bool isTooSlow = WindowsTransport::IsTooSlow(VoGetMicroseconds() - start, request.m_received, timeout);
        return isTooSlow ? HResultFromWin32(WindowsTransport::kErrorTimeout) : S_OK;
    });
        FAILED(hr))
        return report(458, hr);
    if (const HRESULT hr = exchange->SetNotificationHandler([&request](DWORD status, const void* information, DWORD length)
    { OnNotification(request, status, information, length); });
        FAILED(hr))
        return report(459, hr);
    if (const HRESULT hr = exchange->SetReportChain(&request.m_chain); FAILED(hr))
        return report(461, hr);
    if (const HRESULT hr = exchange->SetBodyLimit(request.m_limits.bodyBytes); FAILED(hr))
        return report(463, hr);
    if (const HRESULT hr = exchange->SetReadsPieces(request.m_streamedKind.has_value()); FAILED(hr))
        return report(464, hr);
    if (const HRESULT hr = exchange->SetRequestData(body.data(), static_cast<DWORD>(body.size())); FAILED(hr))
        return report(460, hr);
    // WinHTTP uses credentials for one request only: the exchange sets those that are known before each send.
    const bool knowsServer = request.m_serverCredentials && request.m_serverOrigin == request.m_target.BaseURL();
    for (const auto& [target, known] :
         { std::pair{ WINHTTP_AUTH_TARGET_PROXY, request.m_proxyCredentials ? &*request.m_proxyCredentials : nullptr },
           std::pair{ WINHTTP_AUTH_TARGET_SERVER, knowsServer ? &*request.m_serverCredentials : nullptr } })
        if (known)
            if (const HRESULT hr = exchange->SetCredentials(static_cast<DWORD>(target), WINHTTP_AUTH_SCHEME_BASIC, known->user,
                                                            known->password.Get());
                FAILED(hr))
                return report(462, hr);
    request.m_exchange = std::move(exchange);
    return S_OK;
}

HRESULT CVoHTTPMessageWinHTTP::SendOnce(CRequest& sent, const CVoBodyPieces& body, const std::wstring& contentType)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::SendOnce" };
    auto& request = static_cast<CHTTPRequestDataWinHTTP&>(sent);
    request.m_isFinal = true; // until the request is on its way
    const std::span<const BYTE> joined = Joined(body);
    if (const HRESULT hr = MakeExchange(request, joined, contentType); FAILED(hr))
        return report(478, hr);
    WriteDataToLogFile(EDataDirection::Written, joined.data(), static_cast<UINT32>(joined.size()));
    if (const HRESULT hr = request.m_exchange->Send(); FAILED(hr))
        return report(480, hr);
    HRESULT result = S_OK;
    try
    {
        request.m_statusCode = request.m_exchange->GetStatusCode();
        request.m_isFinal = false;
    }
    catch (const HRESULTexc& failure)
    {
        request.m_isFinal = false;
        result = report(490, failure.Result());
        // A challenge that was not answered has a status, which the exchange does not tell.
        DWORD status = 0;
        if (SUCCEEDED(request.m_handle.QueryHeaders(WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, status)))
            request.m_statusCode = status;
    }
    catch (const std::exception& failure)
    {
        report.Message(495, L"Exception thrown: %hs", failure.what());
        return report(496, E_FAIL);
    }
    return result;
}

// Runs while the caller's thread waits for the status.
void CVoHTTPMessageWinHTTP::OnNotification(CHTTPRequestDataWinHTTP& request, DWORD status, const void* information,
                                           DWORD length) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::OnNotification" };
    VoNoteNotification(request.m_trace, request.m_target.IsSecure(), status, information, length);
    // Before that thread goes on: while it asked, the next piece of the body would wait for the same service of the system.
    if (status == WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE)
        (void)report.Guard(470, [&]
        { return VoReadLocalAddress(request.m_handle, request.m_localAddress); }); // the response stands without it
}

HRESULT CVoHTTPMessageWinHTTP::AuthenticationCallback(DWORD target, DWORD supportedSchemes, DWORD /*firstScheme*/,
                                                      const std::wstring& /*url*/, DWORD& chosenScheme, std::wstring& user,
                                                      std::wstring& password, void* context) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::AuthenticationCallback" };
    return report.Guard(525, [&]() -> HRESULT
    {
        auto* const request = static_cast<CHTTPRequestDataWinHTTP*>(context);
        if (!request)
            return report(510, E_FAIL);
        const auto message = std::static_pointer_cast<CVoHTTPMessageWinHTTP>(request->m_message.lock());
        if (!message)
            return report(515, E_FAIL);
        if (const HRESULT hr =
                message->OnAuthenticationRequest(*request, target, supportedSchemes, chosenScheme, user, password);
            FAILED(hr))
            return report(520, hr);
        return S_OK;
    });
}

HRESULT CVoHTTPMessageWinHTTP::OnAuthenticationRequest(CHTTPRequestDataWinHTTP& request, DWORD target, DWORD supportedSchemes,
                                                       DWORD& chosenScheme, std::wstring& user, std::wstring& password)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::OnAuthenticationRequest" };
    if (target != WINHTTP_AUTH_TARGET_PROXY && target != WINHTTP_AUTH_TARGET_SERVER)
        return report(540, E_FAIL);
    if ((supportedSchemes & WINHTTP_AUTH_SCHEME_BASIC) == 0)
        return report(545, E_NOTIMPL);
    if (target == WINHTTP_AUTH_TARGET_SERVER)
        StoreCookies(request); // the exchange goes on without showing this response
    CCredentials credentials;
    if (const HRESULT hr = AskForCredentials(request, target == WINHTTP_AUTH_TARGET_PROXY, credentials); FAILED(hr))
        return report(555, hr);
    chosenScheme = WINHTTP_AUTH_SCHEME_BASIC;
    user = std::move(credentials.user);
    password = credentials.password.Get();
    return S_OK;
}

bool CVoHTTPMessageWinHTTP::ReadSetCookie(const CRequest& request, DWORD index, std::wstring& value) const
{
    return VoReadSetCookie(static_cast<const CHTTPRequestDataWinHTTP&>(request).m_handle, index, value);
}

// Gives the body to the sink piece by piece. The next piece is asked for when the sink has taken the last one.
HRESULT CVoHTTPMessageWinHTTP::FetchPieces(CHTTPRequestDataWinHTTP& request, CVoBodyReceiver& body) const
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::internalReadResponse" };
    for (INT64 waited = 0;;) // microseconds; the sink may take its time
    {
        const INT64 start = VoGetMicroseconds();
        const std::vector<BYTE> piece = request.m_exchange->ReadPiece();
        waited += VoGetMicroseconds() - start;
        if (piece.empty())
            return S_OK;
        if (WindowsTransport::IsTooSlow(waited, request.m_received, m_requestTimeout))
            return report(735, HResultFromWin32(WindowsTransport::kErrorTimeout));
        if (const HRESULT hr = body.Take(piece); FAILED(hr))
            return report(737, hr);
    }
}

HRESULT CVoHTTPMessageWinHTTP::FetchBody(CRequest& answered, CVoBodyReceiver& body)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::internalReadResponse" };
    auto& request = static_cast<CHTTPRequestDataWinHTTP&>(answered);
    std::vector<BYTE> bytes;
    try
    {
        if (body.HasSink())
            return FetchPieces(request, body);
        bytes = request.m_exchange->GetResponseData();
    }
    catch (const HRESULTexc& failure)
    {
        return report(740, failure.Result());
    }
    catch (const std::exception& failure)
    {
        report.Message(745, L"Exception thrown: %hs", failure.what());
        return report(746, E_FAIL);
    }
    WriteDataToLogFile(EDataDirection::Read, bytes.data(), static_cast<UINT32>(bytes.size()));
    const HRESULT hr = body.TakeWhole(std::move(bytes));
    return SUCCEEDED(hr) ? hr : report(748, hr);
}

void CVoHTTPMessageWinHTTP::CancelCall(CRequest& request) noexcept
{
    // The wrapper keeps a handle that is in use open until the call returns. HANDLE_CLOSING ends the exchange.
    (void)static_cast<CHTTPRequestDataWinHTTP&>(request).m_handle.Close();
}

size_t CVoHTTPMessageWinHTTP::ReadHeader(const CRequest& request, size_t maximum, std::wstring& header) const
{
    const auto& handle = static_cast<const CHTTPRequestDataWinHTTP&>(request).m_handle;
    return WindowsTransport::ReadHeader([&](wchar_t* buffer, DWORD& bytes) { return handle.QueryHeader(buffer, bytes); },
                                        maximum, header);
}

CVoFailure CVoHTTPMessageWinHTTP::ExplainFailure(const CRequest& request, HRESULT result) const
{
    const CVoConnectionTrace& trace = request.m_trace;
    std::wstring foundProxy = request.m_proxyName.empty() ? FoundProxy(request, {}) : std::wstring();
    CVoFailure failure =
        WindowsTransport::ExplainError(result, trace.connect != 0, trace.sending != 0,
                                       !foundProxy.empty() || !request.m_proxyName.empty(), trace.secureFailure);
    if (failure.isProxy)
        failure.proxy = std::move(foundProxy);
    return failure;
}

void CVoHTTPMessageWinHTTP::FetchErrorBody(CRequest& request)
{
    if (const auto& exchange = static_cast<CHTTPRequestDataWinHTTP&>(request).m_exchange)
        request.m_errorBody = exchange->ReadErrorBody(request.m_limits.errorBodyBytes, ErrorBodyTime());
}
} // namespace VoHTTPMessageWinHTTP
