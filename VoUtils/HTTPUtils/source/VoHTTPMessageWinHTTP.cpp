#include "VoHTTPMessageWinHTTP.h"

#include "VoUrl.h"
#include "WindowsTransport.h"

#include <VoNetworkUtils.h>
#include <VoProxyList.h>
#include <VoWinHttpRequest.h>

#include <base/VoUtils.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>

using VoWinHttpInterface::WinHttpRequestHandle;
using VoWinHttpRequest::CVoWinHttpGetRequest;
using VoWinHttpRequest::CVoWinHttpPostRequest;
using VoWinHttpRequest::CVoWinHttpRequest;
using VoWinHttpRequest::HRESULTexc;
using VoWinHttpRequest::IVoWinHttpRequest;
using WindowsTransport::kStatusOk;
using WindowsTransport::Milliseconds;

namespace VoHTTPMessageWinHTTP
{
namespace
{
constexpr const wchar_t* kSource = L"..\\source\\VoHTTPMessageWinHTTP";

constexpr UINT32 kFirstStatusWithBody = 200;
constexpr UINT32 kFirstStatusWithoutBody = 300; // from here on the exchange reads no body

constexpr DWORD kMaximumConnections = 128;
constexpr DWORD kMaximumConnections10 = 74; // the option's own number; intended and kept so
constexpr DWORD kIgnoreCertificate = SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_CERT_WRONG_USAGE |
                                     SECURITY_FLAG_IGNORE_CERT_CN_INVALID | SECURITY_FLAG_IGNORE_CERT_DATE_INVALID;

constexpr wchar_t kCookieHeader[] = L"Cookie:"; // with nothing behind it, it takes the header away
constexpr DWORD kReplaceHeader = WINHTTP_ADDREQ_FLAG_ADD | WINHTTP_ADDREQ_FLAG_REPLACE;

// Windows 8.1 brought WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY (the platform's documentation of WinHttpOpen).
constexpr DWORD kAccessTypeAutomaticProxy = 4;
bool HasAutomaticProxy() noexcept
{
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof version;
    version.dwMajorVersion = 6;
    version.dwMinorVersion = 3;
    version.wServicePackMajor = 0;
    constexpr DWORD kFields[] = { VER_MAJORVERSION, VER_MINORVERSION, VER_SERVICEPACKMAJOR };
    DWORD fields = 0;
    DWORDLONG conditions = 0;
    for (const DWORD field : kFields)
    {
        fields |= field;
        conditions = ::VerSetConditionMask(conditions, field, VER_GREATER_EQUAL);
    }
    return ::VerifyVersionInfoW(&version, fields, conditions) != FALSE;
}

// Sets an option that only tunes: what the platform refuses to tune is traced and passed over.
HRESULT SetTuning(const VoWinHttpInterface::WinHttpHandle& handle, DWORD option, DWORD value, const CVoReporter& report,
                  int line) noexcept
{
    const HRESULT hr = handle.SetOption(option, value);
    if (SUCCEEDED(hr))
        return S_OK;
    constexpr DWORD kOn = 1; // as good as any other number for a limit, which cannot be switched off
    if (!WindowsTransport::IsRefusedTuning(hr, option == WINHTTP_OPTION_ENABLE_FEATURE ? value : kOn))
        return report(line, hr);
    report.Message(line + 1, L"Option %lu was refused: 0x%08lX", option, static_cast<unsigned long>(hr));
    return S_OK;
}

// Every occurrence of a text, whatever its case, replaced. The texts are ASCII.
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
} // namespace

class CVoHTTPMessageWinHTTP::CHTTPRequestDataWinHTTP final : public CHTTPRequestData
{
public:
    explicit CHTTPRequestDataWinHTTP(std::weak_ptr<CVoHTTPMessageWinHTTP> message) noexcept : m_message(std::move(message)) {}

    using CHTTPRequestData::m_cookieHeader;
    using CHTTPRequestData::m_received;
    using CHTTPRequestData::m_sent;
    using CHTTPRequestData::m_toReceive;
    using CHTTPRequestData::m_toSend;

    const std::weak_ptr<CVoHTTPMessageWinHTTP> m_message; // challenges that come when it is gone are not answered
    CServerAddressData m_address;
    // Whose answer the request has or will have: after redirects another than the one it was opened for. Nothing where the
    // platform named none.
    std::optional<CServerAddressData> m_answering;
    const wchar_t* m_verb = L"POST";
    std::wstring m_proxy;     // as the store named it
    std::wstring m_proxyName; // "host:port"; empty for a direct connection
    std::wstring m_proxyUser;
    CVoSecret<wchar_t> m_proxyPassword;
    bool m_proxyCredentialsKnown = false;
    bool m_proxyCredentialsToBeUsed = false;
    std::wstring m_localIPAddress;
    UINT32 m_statusCode = 0; // of the last answer
    bool m_answered = false; // the exchange has an answer or will have it
    CAnswer m_answer;        // one that was taken from there
    WinHttpRequestHandle m_handle;
    std::unique_ptr<IVoWinHttpRequest> m_exchange; // goes first, it uses the rest

    // The header of the answer, empty where it has none.
    [[nodiscard]] std::wstring Header(const std::wstring& name) const
    {
        std::wstring value;
        (void)m_handle.QueryCustomHeaders(WINHTTP_QUERY_CUSTOM, name, &value);
        return value;
    }
    // How long the answer's body will be; nothing where that is not known. A transfer coding overrides a length (RFC 9112,
    // section 6.3).
    [[nodiscard]] std::optional<UINT64> AnnouncedLength() const
    {
        return Header(L"Transfer-Encoding").empty() ? WindowsTransport::ParseLength(Header(L"Content-Length")) : std::nullopt;
    }
    // Whether another URL's answer is read than the one that was asked for.
    [[nodiscard]] bool HasFollowedRedirect() const noexcept
    {
        return !m_answering || m_answering->FullURL() != m_address.FullURL();
    }
    // The status of the last answer; 0 where there is none.
    [[nodiscard]] UINT32 QueryStatus() const noexcept
    {
        DWORD status = 0;
        (void)m_handle.QueryHeaders(WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, status);
        return status;
    }
    [[nodiscard]] HRESULT FillLocalIPAddress();
};

HRESULT CVoHTTPMessageWinHTTP::CHTTPRequestDataWinHTTP::FillLocalIPAddress()
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::CHTTPRequestDataWinHTTP::FillLocalIPAddress" };
    WINHTTP_CONNECTION_INFO info{};
    info.cbSize = sizeof info;
    DWORD length = sizeof info;
    if (const HRESULT hr = m_handle.QueryOption(WINHTTP_OPTION_CONNECTION_INFO, &info, length); FAILED(hr))
        return report(120, hr);
    if (info.LocalAddress.ss_family != AF_INET)
        return report(124, E_INVALIDARG);
    VoNetworkUtils::CVoIPAddress address;
    bool taken = false;
    if (const HRESULT hr = address.InitFromIPAddress(reinterpret_cast<const SOCKADDR&>(info.LocalAddress), false, taken);
        FAILED(hr))
        return report(128, hr);
    m_localIPAddress = address.Text();
    return S_OK;
}

CVoHTTPMessageWinHTTP::~CVoHTTPMessageWinHTTP()
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::~CVoHTTPMessageWinHTTP" };
    if (const HRESULT hr = internalClose(); FAILED(hr))
        report(140, hr);
}

HRESULT CVoHTTPMessageWinHTTP::Close() noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::Close" };
    const CAutoLock lock(&m_lock);
    if (const HRESULT hr = internalClose(); FAILED(hr))
        return report(150, hr);
    return S_OK;
}

HRESULT CVoHTTPMessageWinHTTP::internalClose() noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::internalClose" };
    HRESULT result = S_OK;
    if (const HRESULT hr = m_connection.Close(); FAILED(hr))
        result = report(160, hr);
    if (const HRESULT hr = m_session.Close(); FAILED(hr))
        result = SUCCEEDED(result) ? report(162, hr) : result;
    const CAutoLock lock(&m_storesLock);
    ForgetConnection();
    m_userContext = 0;
    return result;
}

HRESULT CVoHTTPMessageWinHTTP::Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                       IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                       UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::Connect" };
    const CAutoLock lock(&m_lock);
    if (const HRESULT hr = internalClose(); FAILED(hr))
        return report(180, hr);
    {
        const CAutoLock storesLock(&m_storesLock);
        StoreConnection(serverAddress, authCallback, proxyStore, cookieStore, connectTimeout, requestTimeout,
                        verifyServerCertificate, checkRevocation);
    }
    if (const HRESULT hr = internalConnect(); FAILED(hr))
    {
        (void)internalClose();
        return report(185, hr);
    }
    m_connected = true;
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinHTTP::Connect" }.CurrentException(190);
}

HRESULT CVoHTTPMessageWinHTTP::internalConnect()
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

// Gives a server on this machine a name that WinHTTP does not take for loopback, which it would never send through a proxy.
HRESULT CVoHTTPMessageWinHTTP::RewriteLoopback()
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::RewriteLoopback" };
    if (!m_rewriteLoopback)
        return S_OK;
    for (const std::wstring_view name : { L"localhost", L"127.0.0.1" })
    {
        if (!VoEqualsNoCase(m_serverAddress.Host(), name))
            continue;
        // In the path and the query too; intended.
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
    const DWORD accessType = HasAutomaticProxy() ? kAccessTypeAutomaticProxy : DWORD{ WINHTTP_ACCESS_TYPE_DEFAULT_PROXY };
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
        { WINHTTP_OPTION_MAX_CONNS_PER_SERVER, kMaximumConnections },
        { WINHTTP_OPTION_MAX_CONNS_PER_1_0_SERVER, kMaximumConnections10 },
        // The wait for the headers has a limit of its own, 90 seconds where nobody sets it.
        { WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, Milliseconds(m_requestTimeout) },
    };
    for (const CSetting& setting : settings)
        if (const HRESULT hr = SetTuning(m_session, setting.option, setting.value, report, 245); FAILED(hr))
            return hr;
    return S_OK;
}

HRESULT CVoHTTPMessageWinHTTP::OpenRequest(std::shared_ptr<CHTTPRequestData>& request) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::OpenRequest" };
    const CAutoLock lock(&m_lock);
    if (const HRESULT hr = internalOpenRequest(m_serverAddress, L"POST", request); FAILED(hr))
        return report(260, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinHTTP::OpenRequest" }.CurrentException(265);
}

HRESULT CVoHTTPMessageWinHTTP::internalOpenRequest(const CServerAddressData& address, const wchar_t* verb,
                                                   std::shared_ptr<CHTTPRequestData>& request)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::internalOpenRequest" };
    if (!m_connected)
        return report(280, HRESULT_FROM_WIN32(ERROR_NOT_CONNECTED));
    auto made = std::make_shared<CHTTPRequestDataWinHTTP>(std::static_pointer_cast<CVoHTTPMessageWinHTTP>(shared_from_this()));
    made->m_address = address;
    if (const HRESULT hr = OpenHandle(*made, verb); FAILED(hr))
        return report(285, hr);
    request = std::move(made);
    return S_OK;
}

// The request behind a caller's pointer, kept from here on, as a callback may drop the caller's; null unless this message made
// it.
std::shared_ptr<CVoHTTPMessageWinHTTP::CHTTPRequestDataWinHTTP> CVoHTTPMessageWinHTTP::OwnRequest(
    const std::shared_ptr<CHTTPRequestData>& request) const noexcept
{
    std::shared_ptr<CHTTPRequestDataWinHTTP> data = std::dynamic_pointer_cast<CHTTPRequestDataWinHTTP>(request);
    return data && data->m_message.lock().get() == this ? data : nullptr;
}

// Gives a request a fresh handle with everything that does not depend on its body. An exchange before is over then.
HRESULT CVoHTTPMessageWinHTTP::OpenHandle(CHTTPRequestDataWinHTTP& request, const wchar_t* verb)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::OpenHandle" };
    request.m_exchange.reset();
    std::wstring objectName;
    if (const HRESULT hr = VoEncodeUrl(request.m_address.ObjectName(), objectName); FAILED(hr))
        return report(300, hr);
    const DWORD flags = WINHTTP_FLAG_REFRESH | (request.m_address.IsSecure() ? WINHTTP_FLAG_SECURE : 0);
    if (const HRESULT hr = request.m_handle.Init(m_connection, verb, objectName.c_str(), flags); FAILED(hr))
        return report(305, hr);
    request.m_verb = verb;
    const DWORD securityFlags = m_verifyServerCertificate ? 0 : kIgnoreCertificate;
    if (const HRESULT hr = request.m_handle.SetOption(WINHTTP_OPTION_SECURITY_FLAGS, securityFlags); FAILED(hr))
        return report(310, hr);
    const DWORD features = m_checkCertificateRevocation ? WINHTTP_ENABLE_SSL_REVOCATION : 0;
    // Switching revocation checks on is no tuning: it must succeed.
    if (const HRESULT hr = features == 0 ? SetTuning(request.m_handle, WINHTTP_OPTION_ENABLE_FEATURE, features, report, 315)
                                         : request.m_handle.SetOption(WINHTTP_OPTION_ENABLE_FEATURE, features);
        FAILED(hr))
        return report(317, hr);
    if (const HRESULT hr = SetProxy(request); FAILED(hr))
        return report(320, hr);
    if (const HRESULT hr = SetCookie(request); FAILED(hr))
        return report(325, hr);
    return S_OK;
}

HRESULT CVoHTTPMessageWinHTTP::SetProxy(CHTTPRequestDataWinHTTP& request) const
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::SetProxy" };
    const CAutoLock lock(&m_storesLock);
    // From Windows 8.1 on the session finds proxies itself, and only one that the user has named is set beside it.
    CProxy proxy;
    if (const HRESULT hr = GetProxy(HasAutomaticProxy() ? nullptr : &request.m_address.FullURL(), proxy); FAILED(hr))
        return report(340, hr);
    request.m_proxy = std::move(proxy.proxy);
    std::wstring name = VoProxyList::ProxyForScheme(request.m_proxy, request.m_address.IsSecure());
    if (name != request.m_proxyName) // credentials are for the proxy that they were given for
        request.m_proxyCredentialsKnown = request.m_proxyCredentialsToBeUsed = false;
    request.m_proxyName = std::move(name);
    // What a user has just entered for this request stays, where the store knows nothing better.
    if (!proxy.user.empty())
    {
        request.m_proxyUser = std::move(proxy.user);
        request.m_proxyPassword = CVoSecret<wchar_t>(std::move(proxy.password));
        request.m_proxyCredentialsKnown = request.m_proxyCredentialsToBeUsed = true;
    }

    // Of a list the scheme's own, which credentials are for; a list without one is the platform's to make something of.
    if (!request.m_proxy.empty())
    {
        WINHTTP_PROXY_INFO info{};
        info.dwAccessType = WINHTTP_ACCESS_TYPE_NAMED_PROXY;
        info.lpszProxy = request.m_proxyName.empty() ? request.m_proxy.data() : request.m_proxyName.data();
        if (const HRESULT hr = request.m_handle.SetOption(WINHTTP_OPTION_PROXY, &info, sizeof info); FAILED(hr))
            return report(350, hr);
    }
    // Before the first send, so that the proxy need not ask.
    if (request.m_proxyCredentialsKnown && request.m_proxyCredentialsToBeUsed)
        if (const HRESULT hr =
                request.m_handle.SetCredentials(WINHTTP_AUTH_TARGET_PROXY, WINHTTP_AUTH_SCHEME_BASIC,
                                                request.m_proxyUser.c_str(), request.m_proxyPassword.Get().c_str());
            FAILED(hr))
            return report(355, hr);
    return S_OK;
}

HRESULT CVoHTTPMessageWinHTTP::SetCookie(CHTTPRequestDataWinHTTP& request) const
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::SetCookie" };
    const CAutoLock lock(&m_storesLock);
    // WinHTTP would keep cookies of its own beside the store's.
    if (const HRESULT hr = request.m_handle.SetOption(WINHTTP_OPTION_DISABLE_FEATURE, WINHTTP_DISABLE_COOKIES); FAILED(hr))
        return report(370, hr);
    if (const HRESULT hr = GetCookieHeader(request.m_address, request.m_cookieHeader); FAILED(hr))
        return report(375, hr);
    if (request.m_cookieHeader.empty())
        return S_OK;
    if (const HRESULT hr = request.m_handle.SetCookieString(request.m_cookieHeader); FAILED(hr))
        return report(380, hr);
    return S_OK;
}

HRESULT CVoHTTPMessageWinHTTP::internalSend(CHTTPRequestDataWinHTTP& request, std::span<const BYTE> body,
                                            const std::wstring& contentTypeHeader, bool allowRetry, CSendResult* result)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::internalSend" };
    request.m_answered = false;
    request.m_answer = {};
    request.m_localIPAddress.clear();
    // Ending an exchange ends its handle.
    if (request.m_exchange)
        if (const HRESULT hr = OpenHandle(request, request.m_verb); FAILED(hr))
            return report(400, hr);

    CSendResult sent;
    request.m_statusCode = 0;
    HRESULT hr = MakeExchange(request, body, contentTypeHeader);
    if (SUCCEEDED(hr))
        hr = SendUntilAnswered(request, body, contentTypeHeader, allowRetry, sent);
    if (FAILED(hr))
        report(410, hr);
    if (CallBack* const callBack = SUCCEEDED(hr) ? GetCallBack() : nullptr)
        if (hr = callBack->OnRequestSent(); FAILED(hr))
            report(415, hr);
    // Those of any answer of the server's; a 407 is the proxy's.
    if (request.m_statusCode != 0 && request.m_statusCode != HTTP_STATUS_PROXY_AUTH_REQ)
        StoreCookies(request);
    if (request.m_statusCode != 0)
        if (const HRESULT known = request.FillLocalIPAddress(); FAILED(known))
            report(420, known); // for the caller's information; the answer stands without it
    sent.localAddress = request.m_localIPAddress;
    if (result)
        *result = std::move(sent);
    if (FAILED(hr))
    {
        // Nothing may refer to the body or keep its headers any more; the request can be sent again.
        if (const HRESULT opened = OpenHandle(request, request.m_verb); FAILED(opened))
            report(425, opened);
        return hr;
    }
    request.m_answered = true;
    return S_OK;
}

// Puts the headers and the body of a request into a new exchange.
HRESULT CVoHTTPMessageWinHTTP::MakeExchange(CHTTPRequestDataWinHTTP& request, std::span<const BYTE> body,
                                            const std::wstring& contentTypeHeader)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::MakeExchange" };
    const auto addHeader = [&](const std::wstring& header)
    { return request.m_handle.AddHeader(header.c_str(), static_cast<DWORD>(header.size()), WINHTTP_ADDREQ_FLAG_ADD); };
    if (HasValue(contentTypeHeader))
        if (const HRESULT hr = addHeader(contentTypeHeader); FAILED(hr))
            return report(440, hr);
    if (const HRESULT hr = addHeader(L"Accept: */*"); FAILED(hr))
        return report(445, hr);

    std::unique_ptr<IVoWinHttpRequest> exchange;
    if (request.m_verb == std::wstring_view(L"GET"))
        exchange = std::make_unique<CVoWinHttpRequest<CVoWinHttpGetRequest>>();
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
    if (const HRESULT hr =
            exchange->SetRedirectHandler([this, &request](const std::wstring& url) { return OnRedirect(request, url); });
        FAILED(hr))
        return report(457, hr);
    if (const HRESULT hr = exchange->SetReceiveHandler(
            [&request](DWORD length)
            {
                request.m_received += length;
                return S_OK;
            });
        FAILED(hr))
        return report(458, hr);
    if (const HRESULT hr = exchange->SetRequestData(body.data(), static_cast<DWORD>(body.size())); FAILED(hr))
        return report(460, hr);
    request.m_exchange = std::move(exchange);
    return S_OK;
}

// The attempts of one send.
HRESULT CVoHTTPMessageWinHTTP::SendUntilAnswered(CHTTPRequestDataWinHTTP& request, std::span<const BYTE> body,
                                                 const std::wstring& contentTypeHeader, bool allowRetry, CSendResult& result)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::SendUntilAnswered" };
    CAttempts attempts(allowRetry, m_connectTimeout);
    HRESULT hr = S_OK;
    for (bool again = true; again;)
    {
        // A redirect makes the handle another server's for good, and a refused one closes it.
        if (attempts.HasBegun() && (!request.m_handle.IsOpen() || request.HasFollowedRedirect()))
        {
            HRESULT opened = OpenHandle(request, request.m_verb);
            if (SUCCEEDED(opened))
                opened = MakeExchange(request, body, contentTypeHeader);
            if (FAILED(opened))
            {
                report(475, opened);
                break;
            }
        }
        attempts.Begin();
        request.m_statusCode = 0;
        request.m_answering = request.m_address;
        request.m_sent = 0;
        request.m_toSend = body.size();
        request.m_received = 0;
        request.m_toReceive = 0;
        WriteDataToLogFile(EDataDirection::Written, body.data(), static_cast<UINT32>(body.size()));
        if (hr = request.m_exchange->Send(); FAILED(hr))
        {
            report(480, hr);
            break;
        }
        try
        {
            request.m_statusCode = request.m_exchange->GetStatusCode();
            if (request.m_statusCode == kStatusOk)
            {
                request.m_toReceive = request.AnnouncedLength().value_or(0);
                hr = S_OK;
                break;
            }
            report.Message(485, L"Addr:%ls", request.m_address.PathURL().c_str());
            hr = report(487, kResultUnexpectedStatus);
            again = attempts.MayRetry(hr, request.m_statusCode);
            // A body that is on its way ends before the handle is used again.
            if (again && request.m_statusCode >= kFirstStatusWithBody && request.m_statusCode < kFirstStatusWithoutBody)
                (void)request.m_exchange->GetResponseData();
        }
        catch (const HRESULTexc& failure)
        {
            hr = report(490, failure.Result());
            // A challenge that was not answered has a status, which the exchange keeps to itself.
            request.m_statusCode = request.QueryStatus();
            again = attempts.MayRetry(hr, request.m_statusCode);
        }
        catch (const std::exception& failure)
        {
            report.Message(495, L"Exception thrown: %hs", failure.what());
            hr = report(496, E_FAIL);
            break;
        }
    }
    result.retried = attempts.Retried();
    result.statusCode = request.m_statusCode;
    return hr;
}

HRESULT CVoHTTPMessageWinHTTP::AuthenticationCallback(DWORD target, DWORD supportedSchemes, DWORD /*firstScheme*/,
                                                      const std::wstring& /*url*/, DWORD& chosenScheme, std::wstring& user,
                                                      std::wstring& password, void* context) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::AuthenticationCallback" };
    auto* const request = static_cast<CHTTPRequestDataWinHTTP*>(context);
    if (!request)
        return report(510, E_FAIL);
    const std::shared_ptr<CVoHTTPMessageWinHTTP> message = request->m_message.lock();
    if (!message)
        return report(515, E_FAIL);
    if (const HRESULT hr = message->OnAuthenticationRequest(*request, target, supportedSchemes, chosenScheme, user, password);
        FAILED(hr))
        return report(520, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinHTTP::AuthenticationCallback" }.CurrentException(525);
}

HRESULT CVoHTTPMessageWinHTTP::OnAuthenticationRequest(CHTTPRequestDataWinHTTP& request, DWORD target, DWORD supportedSchemes,
                                                       DWORD& chosenScheme, std::wstring& user, std::wstring& password)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::OnAuthenticationRequest" };
    if (target != WINHTTP_AUTH_TARGET_PROXY && target != WINHTTP_AUTH_TARGET_SERVER)
        return report(540, E_FAIL);
    const bool proxy = target == WINHTTP_AUTH_TARGET_PROXY;
    if ((supportedSchemes & WINHTTP_AUTH_SCHEME_BASIC) == 0)
        return report(545, E_NOTIMPL);
    const CAutoLock lock(&m_storesLock);
    if (!m_authCallback)
        return report(550, E_FAIL);

    // Whoever asks is named: after a redirect that may be another server.
    if (!request.m_answering)
        return report(552, E_FAIL);
    CCredentials entered;
    const CVoComPtr<IVoAuthenticationCallback> callback = m_authCallback; // kept while it is called
    if (const HRESULT hr =
            AskForCredentials(*callback.Get(), *request.m_answering, proxy ? &request.m_proxyName : nullptr, entered);
        FAILED(hr))
        return report(555, hr);
    if (proxy)
    {
        request.m_proxyUser = entered.user;
        request.m_proxyPassword = CVoSecret<wchar_t>(entered.password.Get());
        request.m_proxyCredentialsKnown = request.m_proxyCredentialsToBeUsed = true;
        if (m_proxyStore && !request.m_proxyName.empty())
            if (const HRESULT hr =
                    SaveProxyCredentials(*m_proxyStore.Get(), request.m_proxyName, entered.user, entered.password.Get());
                FAILED(hr))
                report(560, hr); // they serve this request all the same
    }
    chosenScheme = WINHTTP_AUTH_SCHEME_BASIC;
    user = std::move(entered.user);
    password = entered.password.Get();
    return S_OK;
}

// Headers travel on to wherever a redirect leads unless they are corrected here (the platform's documentation of
// WinHttpAddRequestHeaders): cookies of one server are not for another.
HRESULT CVoHTTPMessageWinHTTP::OnRedirect(CHTTPRequestDataWinHTTP& request, const std::wstring& url) const
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::OnRedirect" };
    const CAutoLock lock(&m_storesLock);
    StoreCookies(request);
    const std::wstring absolute = url.starts_with(L'/') && request.m_answering ? request.m_answering->BaseURL() + url : url;
    CServerAddressData target;
    std::wstring cookies;
    if (SUCCEEDED(target.SetAddress(VoWithoutUserInfo(absolute), false, true, true)))
    {
        request.m_answering = target;
        if (const HRESULT hr = GetCookieHeader(target, cookies); FAILED(hr))
            report(580, hr); // the next hop gets none
    }
    else
        request.m_answering.reset();
    if (cookies.empty() && request.m_cookieHeader.empty())
        return S_OK;
    const std::wstring header = kCookieHeader + cookies;
    if (const HRESULT hr = request.m_handle.AddHeader(header.c_str(), static_cast<DWORD>(header.size()), kReplaceHeader);
        FAILED(hr))
        return report(585, hr);
    request.m_cookieHeader = std::move(cookies);
    return S_OK;
}
catch (...)
{
    // Taking the header away needs no memory here, and does no harm where the platform does not follow any more.
    (void)request.m_handle.AddHeader(kCookieHeader, static_cast<DWORD>(std::size(kCookieHeader) - 1), kReplaceHeader);
    return CVoReporter{ kSource, L"CVoHTTPMessageWinHTTP::OnRedirect" }.CurrentException(588);
}

void CVoHTTPMessageWinHTTP::StoreCookies(const CHTTPRequestDataWinHTTP& request) const noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::StoreCookies" };
    if (!m_cookieStore || !request.m_answering) // whose cookies they are must be known
        return;
    std::wstring value;
    for (DWORD index = 0; SUCCEEDED(request.m_handle.QueryCookie(&value, &index));)
    {
        if (const HRESULT hr = StoreCookie(m_cookieStore.Get(), value, request.m_answering->FullURL()); FAILED(hr))
            report(605, hr); // the cookie is dropped, the answer stands
    }
}
catch (...)
{
    CVoReporter{ kSource, L"CVoHTTPMessageWinHTTP::StoreCookies" }.CurrentException(610);
}

HRESULT CVoHTTPMessageWinHTTP::SendMessage(const std::shared_ptr<CHTTPRequestData>& request,
                                           const CVoBinaryDataParser& parameters, EContentKind contentKind, bool utf8,
                                           std::wstring_view signingKey, std::wstring_view signatureParameterName,
                                           bool allowRetry, CSendResult* result) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::SendMessage" };
    constexpr CContentTracePoints kPoints{ .raw = 635,
                                           .multipart = 636,
                                           .formPayload = 637,
                                           .form = 638,
                                           .signedKey = 639,
                                           .signedName = 640,
                                           .signedPayload = 641,
                                           .signedForm = 642,
                                           .sign = 643,
                                           .emptyPayload = 644,
                                           .unknownKind = 645,
                                           .exception = 646 };
    const auto keep = weak_from_this().lock(); // a callback may drop the caller's message too
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data || !data->m_handle.IsOpen())
        return report(630, E_INVALIDARG);
    CContent content;
    if (const HRESULT hr =
            CreateContent(parameters, contentKind, utf8, signingKey, signatureParameterName, report, kPoints, content);
        FAILED(hr))
        return hr;
    if (const HRESULT hr = internalSend(*data, content.body.Bytes(), content.contentTypeHeader, allowRetry, result); FAILED(hr))
        return report(650, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinHTTP::SendMessage" }.CurrentException(655);
}

HRESULT CVoHTTPMessageWinHTTP::SendMultipleMessages(const std::shared_ptr<CHTTPRequestData>& request,
                                                    std::span<const CVoBinaryDataParser> messages, bool utf8, bool allowRetry,
                                                    CSendResult* result) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::SendMultipleMessages" };
    const auto keep = weak_from_this().lock(); // a callback may drop the caller's message too
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data || !data->m_handle.IsOpen())
        return report(670, E_INVALIDARG);
    CContent content;
    if (const HRESULT hr = CreateMultipleContent(messages, utf8, content); FAILED(hr))
        return report(675, hr);
    if (const HRESULT hr = internalSend(*data, content.body.Bytes(), content.contentTypeHeader, allowRetry, result); FAILED(hr))
        return report(680, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinHTTP::SendMultipleMessages" }.CurrentException(685);
}

HRESULT CVoHTTPMessageWinHTTP::SendGetRequest(std::shared_ptr<CHTTPRequestData>& request, std::wstring_view objectPath,
                                              bool allowRetry, CSendResult* result) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::SendGetRequest" };
    const auto keep = weak_from_this().lock(); // a callback may drop the caller's message too
    const auto data = objectPath.empty() ? OwnRequest(request) : nullptr;
    const CAutoLock lock(&m_lock);
    if (data)
    {
        if (const HRESULT hr = OpenHandle(*data, L"GET"); FAILED(hr))
            return report(700, hr);
    }
    else
    {
        CServerAddressData address = m_serverAddress;
        if (!objectPath.empty())
            if (const HRESULT hr = address.SetObjectPath(objectPath); FAILED(hr))
                return report(705, hr);
        std::shared_ptr<CHTTPRequestData> made;
        if (const HRESULT hr = internalOpenRequest(address, L"GET", made); FAILED(hr))
            return report(710, hr);
        request = std::move(made);
    }
    if (const HRESULT hr = SendMessage(request, CVoBinaryDataParser(), EContentKind::Empty, true, {}, {}, allowRetry, result);
        FAILED(hr))
        return report(715, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinHTTP::SendGetRequest" }.CurrentException(720);
}

// Takes the answer out of the exchange.
HRESULT CVoHTTPMessageWinHTTP::internalReadResponse(CHTTPRequestDataWinHTTP& request)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::internalReadResponse" };
    if (!request.m_answered)
        return S_OK;
    request.m_answered = false;
    const std::optional<UINT64> announced = request.AnnouncedLength();
    CAnswer answer;
    try
    {
        answer.bytes = request.m_exchange->GetResponseData();
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
    WriteDataToLogFile(EDataDirection::Read, answer.bytes.data(), static_cast<UINT32>(answer.bytes.size()));
    if (announced && answer.bytes.size() != *announced)
        return report(750, E_FAIL); // the connection ended before the answer did
    answer.utf8 = NamesUtf8(request.Header(L"Content-Type"));
    answer.isThere = true;
    request.m_answer = std::move(answer);
    return S_OK;
}

HRESULT CVoHTTPMessageWinHTTP::ReadResponse(const std::shared_ptr<CHTTPRequestData>& request, CVoBinaryDataParser& response,
                                            EResponseKind kind, bool* isUtf8, bool* isEmpty) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::ReadResponse" };
    const auto keep = weak_from_this().lock(); // a callback may drop the caller's message too
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data)
        return report(770, E_INVALIDARG);
    if (const HRESULT hr = internalReadResponse(*data); FAILED(hr))
        return report(775, hr);
    if (const HRESULT hr = ReadAnswer(data->m_answer, kind, response, isUtf8, isEmpty); FAILED(hr))
        return report(780, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinHTTP::ReadResponse" }.CurrentException(785);
}

HRESULT CVoHTTPMessageWinHTTP::ReadMultipleResponses(const std::shared_ptr<CHTTPRequestData>& request,
                                                     std::vector<CVoBinaryDataParser>& responses, UINT32 expectedCount,
                                                     UINT32* count) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinHTTP::ReadMultipleResponses" };
    const auto keep = weak_from_this().lock(); // a callback may drop the caller's message too
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data)
        return report(800, E_INVALIDARG);
    if (const HRESULT hr = internalReadResponse(*data); FAILED(hr))
        return report(805, hr);
    if (const HRESULT hr = ReadAnswers(data->m_answer, responses, expectedCount, count); FAILED(hr))
        return report(810, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessageWinHTTP::ReadMultipleResponses" }.CurrentException(815);
}

HRESULT CVoHTTPMessageWinHTTP::SetUserContext(UINT64 userContext) noexcept
{
    const CAutoLock lock(&m_lock);
    m_userContext = userContext;
    return S_OK;
}
} // namespace VoHTTPMessageWinHTTP
