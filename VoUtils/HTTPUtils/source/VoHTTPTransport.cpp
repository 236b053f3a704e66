// The transport core; see VoHTTPTransport.h.
#include "VoHTTPTransport.h"

#include "VoRedirect.h"

#include <VoProxyList.h>

#include <base/VoUtils.h>
#include <base/com/VoComHelper.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace
{
constexpr CVoReporter kMessageReport{ L"..\\source\\VoHTTPMessage", L"CVoHTTPMessage::ReadResponse" };

constexpr INT64 kMicrosecondsPerSecond = 1'000'000;
// The pause before another attempt doubles from the first value to the last.
constexpr INT64 kFirstRetryDelay = 50'000; // microseconds
constexpr INT64 kLastRetryDelay = 2'000'000;
constexpr DWORD kMaximumCookies = 200; // of one response; the rest is dropped
constexpr size_t kLoggedText = 1024;   // bytes of a body that cannot be parsed

// Whether a redirect keeps method and body. Clients make a GET of a POST after 301 and 302 (RFC 9110, sections 15.4.2 and
// 15.4.3), and of every request after 303.
constexpr bool KeepsMethod(UINT32 status) noexcept
{
    return status == 307 || status == 308;
}

// The attempts of one send: counts them and measures the time since the first.
class CAttempts
{
public:
    CAttempts(bool allowRetry, UINT32 budgetSeconds) noexcept
        : m_allowRetry(allowRetry), m_budget(INT64{ budgetSeconds } * kMicrosecondsPerSecond), m_start(VoGetMicroseconds())
    {
    }
    void Begin() noexcept { ++m_count; }
    [[nodiscard]] bool MayRetry(HRESULT failure, UINT32 status) const noexcept
    {
        return CVoHTTPTransport::ShouldRetry(m_allowRetry, failure, status, VoGetMicroseconds() - m_start, m_budget);
    }
    [[nodiscard]] INT64 Remaining() const noexcept { return m_budget - (VoGetMicroseconds() - m_start); }
    [[nodiscard]] UINT32 Count() const noexcept { return m_count; }

private:
    bool m_allowRetry;
    INT64 m_budget; // microseconds
    INT64 m_start;
    UINT32 m_count = 0;
};

// Microseconds to wait before the next attempt: doubling, with jitter from the clock's low digits.
INT64 RetryDelay(UINT32 attempt) noexcept
{
    const INT64 pause = std::min(kFirstRetryDelay << std::min(attempt - 1, UINT32{ 16 }), kLastRetryDelay);
    return std::max(pause / 2 + VoGetMicroseconds() % (pause / 2) + 1, kFirstRetryDelay);
}

// The beginning of a body as one line of text, for the log.
std::wstring StartOfText(std::span<const BYTE> bytes, bool utf8)
{
    wchar_t text[kLoggedText]; // no code page makes more characters than bytes
    const int length = ::MultiByteToWideChar(utf8 ? CP_UTF8 : CP_THREAD_ACP, 0, reinterpret_cast<const char*>(bytes.data()),
                                             static_cast<int>(std::min(bytes.size(), std::size(text))), text,
                                             static_cast<int>(std::size(text)));
    std::replace_if(text, text + length, [](wchar_t character) { return character < L' '; }, L' ');
    return { text, static_cast<size_t>(length) };
}
} // namespace

CVoHTTPTransport::CVoHTTPTransport(const CVoTransportTracePoints& points, const CVoTransportFacts& facts)
    : m_points(points), m_facts(facts)
{
}

bool CVoHTTPTransport::NamesUtf8(std::wstring_view contentType) noexcept
{
    return VoContainsNoCase(contentType, L"CHARSET") && VoContainsNoCase(contentType, L"UTF-8");
}

// Connecting

HRESULT CVoHTTPTransport::Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                  IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                  UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation) noexcept
{
    const CVoReporter report{ m_points.source, m_points.connect.function };
    return report.Guard(m_points.connect.exception, [&]() -> HRESULT
    {
        // The new interfaces may be the ones that closing releases: take the references first.
        CVoComPtr<IVoAuthenticationCallback> callback(authCallback);
        CVoComPtr<IVoHTTPProxyStore> proxies(proxyStore);
        CVoComPtr<IVoHTTPCookieStore> cookies(cookieStore);
        (void)m_closing.Set();
        const CAutoLock lock(&m_lock);
        (void)m_closing.Reset();
        CServerAddressData address = serverAddress;
        if (const HRESULT hr = internalClose(); FAILED(hr))
            return report(m_points.connect.close, hr);
        if (address.Host().empty())
            return report(m_points.connect.address, E_INVALIDARG);
        {
            const CAutoLock storesLock(&m_storesLock);
            m_serverAddress = std::move(address);
            m_authCallback = std::move(callback);
            m_proxyStore = std::move(proxies);
            m_cookieStore = std::move(cookies);
            m_connectTimeout = connectTimeout;
            m_requestTimeout = requestTimeout;
            m_verifyServerCertificate = m_serverAddress.IsSecure() && verifyServerCertificate;
            m_checkCertificateRevocation = m_serverAddress.IsSecure() && checkRevocation;
        }
        HRESULT hr = E_FAIL;
        try
        {
            hr = OpenSession();
        }
        catch (...)
        {
            hr = HResultFromCurrentException();
        }
        if (FAILED(hr))
        {
            (void)internalClose();
            return report(m_points.connect.open, hr);
        }
        m_connected = true;
        return S_OK;
    });
}

HRESULT CVoHTTPTransport::Close() noexcept
{
    (void)m_closing.Set();
    const CAutoLock lock(&m_lock);
    (void)m_closing.Reset();
    return internalClose();
}

void CVoHTTPTransport::CloseInDestructor() noexcept
{
    if (const HRESULT hr = internalClose(); FAILED(hr))
        CVoReporter{ m_points.source, m_points.destructor.function }(m_points.destructor.close, hr);
}

HRESULT CVoHTTPTransport::internalClose() noexcept
{
    const CVoReporter report{ m_points.source, m_points.close.function };
    HRESULT result = S_OK;
    const auto note = [&](int line, HRESULT hr)
    {
        if (FAILED(hr) && SUCCEEDED(result))
            result = report(line, hr);
    };
    // Handles are closed children first. A request that is being destroyed closes its own.
    for (const std::weak_ptr<CRequest>& open : m_requests)
        if (const std::shared_ptr<CRequest> request = open.lock())
        {
            request->m_hasPendingResponse = request->m_hasPendingResponse && m_facts.keepsHandle;
            note(m_points.close.request, CloseHandle(*request));
        }
    m_requests.clear();
    ++m_connectionNumber;
    note(m_points.close.session, CloseSession());
    ForgetConnection();
    return result;
}

void CVoHTTPTransport::ForgetConnection() noexcept
{
    const CAutoLock lock(&m_storesLock);
    m_connected = false;
    m_serverAddress = CServerAddressData();
    m_authCallback.Reset();
    m_proxyStore.Reset();
    m_cookieStore.Reset();
    m_connectTimeout = 0;
    m_requestTimeout = 0;
    m_verifyServerCertificate = false;
    m_checkCertificateRevocation = false;
}

HRESULT CVoHTTPTransport::SetUserContext(UINT64 userContext) noexcept
{
    const CAutoLock lock(&m_lock);
    m_userContext = userContext;
    return S_OK;
}

bool CVoHTTPTransport::VerifiesCertificateOf(const CServerAddressData& target) const noexcept
{
    const bool isConnectedServer = m_serverAddress.IsSecure() && VoEqualsNoCase(target.Host(), m_serverAddress.Host());
    return target.IsSecure() && (m_verifyServerCertificate || !isConnectedServer);
}

// Opening requests

HRESULT CVoHTTPTransport::OpenRequest(std::shared_ptr<CHTTPRequestData>& request) noexcept
{
    const CVoReporter report{ m_points.source, m_points.openRequest.function };
    return report.Guard(m_points.openRequest.exception, [&]() -> HRESULT
    {
        const CAutoLock lock(&m_lock);
        if (const HRESULT hr = internalOpenRequest(m_serverAddress, L"POST", request); FAILED(hr))
            return report(m_points.openRequest.open, hr);
        return S_OK;
    });
}

HRESULT CVoHTTPTransport::internalOpenRequest(const CServerAddressData& address, const wchar_t* verb,
                                              std::shared_ptr<CHTTPRequestData>& request)
{
    const CVoReporter report{ m_points.source, m_points.internalOpenRequest.function };
    if (!m_connected)
        return report(m_points.internalOpenRequest.notConnected, HRESULT_FROM_WIN32(ERROR_NOT_CONNECTED));
    std::shared_ptr<CRequest> made = MakeRequest();
    made->m_message = std::static_pointer_cast<CVoHTTPTransport>(shared_from_this());
    made->m_connection = m_connectionNumber;
    made->m_address = made->m_target = address;
    made->m_verb = made->m_nextVerb = made->m_targetVerb = verb;
    if (const HRESULT hr = OpenTarget(*made); FAILED(hr))
        return hr;
    std::erase_if(m_requests, [](const auto& open) { return open.expired(); });
    m_requests.push_back(made);
    request = std::move(made);
    return S_OK;
}

// Gives the request a fresh handle for its target.
HRESULT CVoHTTPTransport::OpenTarget(CRequest& request)
{
    const CVoReporter report{ m_points.source, m_points.internalOpenRequest.function };
    if (m_facts.usesProxyStore)
        if (const HRESULT hr = LookUpProxy(request); FAILED(hr))
            return report(m_points.internalOpenRequest.proxy, hr);
    if (!m_facts.cookiesAtSend)
        LookUpCookies(request);
    if (const HRESULT hr = OpenHandle(request); FAILED(hr))
        return report(m_points.internalOpenRequest.handle, hr);
    request.m_isUsed = false;
    return S_OK;
}

HRESULT CVoHTTPTransport::LookUpProxy(CRequest& request) const
{
    std::optional<CCredentials> saved;
    if (const HRESULT hr = GetProxy(ProxyQuestion(request), request.m_proxy, saved); FAILED(hr))
        return hr;
    // One proxy keeps the store's spelling. Of a list the scheme's own proxy is used.
    const bool isList = request.m_proxy.find_first_of(L"=;, \t/") != std::wstring::npos;
    std::wstring name = isList ? VoProxyList::ProxyForScheme(request.m_proxy, request.m_target.IsSecure()) : request.m_proxy;
    const CAutoLock lock(&m_storesLock);
    if (name != request.m_proxyName) // credentials are for the proxy that they were given for
        request.m_proxyCredentials.reset();
    request.m_proxyName = std::move(name);
    // Keep what the user has typed for this request where the store knows nothing better.
    if (saved)
        request.m_proxyCredentials = std::move(saved);
    return S_OK;
}

void CVoHTTPTransport::LookUpCookies(CRequest& request) const
{
    const CVoReporter report{ m_points.source, m_points.internalOpenRequest.function };
    request.m_cookieHeader.clear();
    if (const HRESULT hr = GetCookieHeader(request.m_target, request.m_cookieHeader); FAILED(hr))
        report(m_points.internalOpenRequest.cookies, hr); // the request is sent without cookies
}

// The request behind the caller's pointer; null unless this message made it for its current connection. It is kept from here
// on, because a call back may release the caller's.
std::shared_ptr<CVoHTTPTransport::CRequest> CVoHTTPTransport::OwnRequest(
    const std::shared_ptr<CHTTPRequestData>& request) const noexcept
{
    std::shared_ptr<CRequest> own = std::dynamic_pointer_cast<CRequest>(request);
    return own && own->m_message.lock().get() == this ? own : nullptr;
}

// Sending

// SendGetRequest asks for a GET; every other send is a POST. A handle that was opened for the other verb is not used.
void CVoHTTPTransport::TakeNextVerb(CRequest& request) noexcept
{
    const wchar_t* const verb = std::exchange(request.m_nextVerb, L"POST");
    request.m_isUsed = request.m_isUsed || request.m_verb != std::wstring_view(verb);
    request.m_verb = verb;
}

HRESULT CVoHTTPTransport::SendMessage(const std::shared_ptr<CHTTPRequestData>& request, const CVoBinaryDataParser& parameters,
                                      EContentKind contentKind, bool utf8, std::wstring_view signingKey,
                                      std::wstring_view signatureParameterName, bool allowRetry, CSendResult* result) noexcept
{
    const CVoReporter report{ m_points.source, m_points.sendMessage.function };
    return report.Guard(m_points.sendMessage.exception, [&]() -> HRESULT
    {
        const auto keep = weak_from_this().lock(); // a call back may release the caller's message
        const auto own = OwnRequest(request);
        const CAutoLock lock(&m_lock);
        if (!own || own->m_connection != m_connectionNumber)
            return report(m_points.sendMessage.request, E_INVALIDARG);
        TakeNextVerb(*own);
        CVoHTTPContent content;
        if (const HRESULT hr = VoCreateContent(parameters, contentKind, utf8, signingKey, signatureParameterName, report,
                                               m_points.sendMessage.content, content);
            FAILED(hr))
            return hr;
        if (const HRESULT hr = internalSend(*own, content, allowRetry, result); FAILED(hr))
            return report(m_points.sendMessage.send, hr);
        return S_OK;
    });
}

HRESULT CVoHTTPTransport::SendMultipleMessages(const std::shared_ptr<CHTTPRequestData>& request,
                                               std::span<const CVoBinaryDataParser> messages, bool utf8, bool allowRetry,
                                               CSendResult* result) noexcept
{
    const CVoReporter report{ m_points.source, m_points.sendMultipleMessages.function };
    return report.Guard(m_points.sendMultipleMessages.exception, [&]() -> HRESULT
    {
        const auto keep = weak_from_this().lock();
        const auto own = OwnRequest(request);
        const CAutoLock lock(&m_lock);
        if (!own || own->m_connection != m_connectionNumber)
            return report(m_points.sendMultipleMessages.request, E_INVALIDARG);
        TakeNextVerb(*own);
        CVoHTTPContent content;
        if (const HRESULT hr = VoCreateMultipleContent(messages, utf8, content); FAILED(hr))
            return report(m_points.sendMultipleMessages.content, hr);
        if (const HRESULT hr = internalSend(*own, content, allowRetry, result); FAILED(hr))
            return report(m_points.sendMultipleMessages.send, hr);
        return S_OK;
    });
}

HRESULT CVoHTTPTransport::SendGetRequest(std::shared_ptr<CHTTPRequestData>& request, std::wstring_view objectPath,
                                         bool allowRetry, CSendResult* result) noexcept
{
    const CVoReporter report{ m_points.source, m_points.sendGetRequest.function };
    return report.Guard(m_points.sendGetRequest.exception, [&]() -> HRESULT
    {
        const auto keep = weak_from_this().lock();
        const auto own = objectPath.empty() ? OwnRequest(request) : nullptr;
        const CAutoLock lock(&m_lock);
        if (own && own->m_connection == m_connectionNumber && own->m_address.FullURL() == m_serverAddress.FullURL())
            own->m_nextVerb = L"GET";
        else
        {
            CServerAddressData address = m_serverAddress;
            if (!objectPath.empty())
                if (const HRESULT hr = address.SetObjectPath(objectPath); FAILED(hr))
                    return report(m_points.sendGetRequest.path, hr);
            if (const HRESULT hr = internalOpenRequest(address, L"GET", request); FAILED(hr))
                return report(m_points.sendGetRequest.open, hr);
        }
        if (const HRESULT hr =
                SendMessage(request, CVoBinaryDataParser(), EContentKind::Empty, true, {}, {}, allowRetry, result);
            FAILED(hr))
            return report(m_points.sendGetRequest.send, hr);
        return S_OK;
    });
}

HRESULT CVoHTTPTransport::internalSend(CRequest& request, const CVoHTTPContent& content, bool allowRetry, CSendResult* result)
{
    const CVoReporter report{ m_points.source, m_points.internalSend.function };
    request.m_hasPendingResponse = false;
    request.m_response = {};
    request.m_localAddress.clear();
    request.m_proxyCredentialsEntered = false;
    request.m_serverCredentials.reset();

    CAttempts attempts(allowRetry, m_connectTimeout);
    HRESULT hr = S_OK;
    for (;;)
    {
        attempts.Begin();
        request.m_isFinal = false;
        try
        {
            if (hr = Attempt(request, content); FAILED(hr))
                report(m_points.internalSend.attempt, hr);
        }
        catch (...)
        {
            hr = report(m_points.internalSend.exception, E_FAIL);
        }
        if (SUCCEEDED(hr))
            break;
        const std::optional<INT64> asked = RetryAfter(request); // reads the response, which the next call drops
        if (const HRESULT reset = ResetConnection(request); FAILED(reset))
        {
            report(m_points.internalSend.reset, reset);
            break;
        }
        if (request.m_isFinal || !attempts.MayRetry(hr, request.m_statusCode))
            break;
        // A server that names a time beyond the budget would refuse every attempt until then.
        const INT64 remaining = std::max(attempts.Remaining(), INT64{ 0 });
        if (asked && *asked > remaining)
            break;
        const INT64 pause = std::max(std::min(RetryDelay(attempts.Count()), remaining), asked.value_or(0));
        if (::WaitForSingleObject(m_closing.Handle(), static_cast<DWORD>(pause / 1000)) != WAIT_TIMEOUT)
            break; // another thread closes the connection
    }
    EndSend(request);

    if (SUCCEEDED(hr) && m_facts.notifiesAfterStatus)
        if (CallBack* const callBack = GetCallBack())
            if (hr = callBack->OnRequestSent(); FAILED(hr))
                report(m_points.internalSend.callBack, hr);
    request.m_serverCredentials.reset();
    request.m_isUsed = true;
    if (SUCCEEDED(hr))
        request.m_hasPendingResponse = true;
    else if (!m_facts.keepsHandle)
        (void)CloseHandle(request); // reported; the next send opens a fresh handle
    if (result)
    {
        result->retried = attempts.Count() > 1;
        result->statusCode = request.m_statusCode;
        result->localAddress = request.m_localAddress;
    }
    return hr;
}

// Microseconds that the server asks to wait before the next attempt (Retry-After in seconds, RFC 9110, section 10.2.3).
std::optional<INT64> CVoHTTPTransport::RetryAfter(const CRequest& request) const noexcept
try
{
    constexpr UINT64 kLongest = MAXDWORD / 1000; // seconds that a wait function takes
    const std::optional<UINT64> seconds =
        request.m_statusCode != 0 ? GetHeaderLongValue(request, L"Retry-After") : std::nullopt;
    return seconds ? std::optional(static_cast<INT64>(std::min(*seconds, kLongest)) * kMicrosecondsPerSecond) : std::nullopt;
}
catch (...)
{
    return std::nullopt; // no memory for the header: the usual pause
}

// One attempt: from the request's own address through its redirects.
HRESULT CVoHTTPTransport::Attempt(CRequest& request, const CVoHTTPContent& content)
{
    const CVoReporter report{ m_points.source, m_points.internalSendRAW.function };
    std::span<const BYTE> body = content.body.Bytes();
    std::wstring contentType = content.header;
    request.m_statusCode = 0;
    request.m_target = request.m_address;
    request.m_targetVerb = request.m_verb;
    for (int redirects = 0;; ++redirects)
    {
        if (request.m_isUsed && !m_facts.keepsHandle)
            if (const HRESULT hr = OpenTarget(request); FAILED(hr))
            {
                request.m_isFinal = true;
                return report(m_points.internalSendRAW.open, hr);
            }
        if (m_facts.cookiesAtSend)
            LookUpCookies(request);
        const HRESULT hr = SendToTarget(request, body, contentType);
        // Also those of a challenge that nobody answered. A 407 is the proxy's answer, not the server's.
        if (!m_facts.storesCookies && request.m_statusCode != 0 && request.m_statusCode != kStatusProxyAuthenticationRequired)
            StoreCookies(request);
        if (FAILED(hr))
            return Judge(request, hr);
        if (m_facts.followsRedirects || !VoIsRedirect(request.m_statusCode) || redirects == kVoMaximumRedirects ||
            !FollowRedirect(request))
            return Judge(request, S_OK);
        if (!KeepsMethod(request.m_statusCode))
        {
            request.m_targetVerb = L"GET";
            body = {};
            contentType.clear();
        }
    }
}

// Sends to the request's target until nobody asks for credentials any more.
HRESULT CVoHTTPTransport::SendToTarget(CRequest& request, std::span<const BYTE> body, const std::wstring& contentType)
{
    const CVoReporter report{ m_points.source, m_points.internalSendRAW.function };
    std::wstring asking; // who asked last
    for (int moves = 0;;)
    {
        request.m_statusCode = 0;
        request.m_sent = 0;
        request.m_toSend = body.size();
        request.m_received = 0;
        request.m_toReceive = 0;
        request.m_isUsed = true;
        if (const HRESULT hr = SendOnce(request, body, contentType); FAILED(hr))
            return hr;
        const bool proxyAsks = request.m_statusCode == kStatusProxyAuthenticationRequired;
        if (!m_facts.asksBetweenSends || !m_authCallback || (!proxyAsks && request.m_statusCode != kStatusUnauthorized))
            return S_OK;
        // Servers that redirect to each other and each ask for credentials would ask without end.
        if (std::exchange(asking, request.m_target.BaseURL()) != request.m_target.BaseURL() && ++moves > kVoMaximumRedirects)
            return report(m_points.internalSendRAW.declined, kResultCancelled);
        CCredentials credentials;
        if (const HRESULT hr = AskForCredentials(request, proxyAsks, credentials); FAILED(hr))
            return report(hr == kResultCancelled ? m_points.internalSendRAW.declined : m_points.internalSendRAW.ask, hr);
        if (const HRESULT hr = UseCredentials(request, proxyAsks, credentials); FAILED(hr))
            return hr;
    }
}

HRESULT CVoHTTPTransport::Judge(const CRequest& request, HRESULT result) const
{
    const CVoReporter report{ m_points.source, m_points.internalSendRAW.function };
    if (SUCCEEDED(result) && request.m_statusCode == kStatusOk)
        return S_OK;
    if (FAILED(result) && !m_facts.tracesEveryAddress)
        return result; // reported where it happened
    report.Message(m_points.internalSendRAW.address, L"Addr:%ls", request.m_address.PathURL().c_str());
    return report(m_points.internalSendRAW.status, FAILED(result) ? result : m_facts.unexpectedStatus);
}

// Moves the request on to the target of its redirect. False: the redirect is not followed.
bool CVoHTTPTransport::FollowRedirect(CRequest& request) const
{
    const CVoReporter report{ m_points.source, m_points.internalSendRAW.function };
    const std::optional<std::wstring> location = CheckHeader(request, L"Location");
    if (!location)
        return false;
    CServerAddressData target;
    HRESULT hr = VoResolveRedirect(request.m_target, *location, target);
    if (SUCCEEDED(hr) && !VoMayRedirect(request.m_target.IsSecure(), target.IsSecure()))
        hr = E_ACCESSDENIED;
    if (FAILED(hr))
    {
        report(m_points.internalSendRAW.redirect, hr);
        return false;
    }
    request.m_target = std::move(target);
    return true;
}

void CVoHTTPTransport::StoreCookies(const CRequest& request) const
{
    const CVoReporter report{ m_points.source, m_points.internalSendRAW.function };
    const CAutoLock lock(&m_storesLock);
    if (!m_cookieStore)
        return;
    const CVoBstr url(request.m_target.FullURL());
    std::wstring value;
    for (DWORD index = 0; index < kMaximumCookies && ReadSetCookie(request, index, value); ++index)
        if (const HRESULT hr = m_cookieStore->AddCookieFromString(CVoBstr(value).Get(), url.Get()); FAILED(hr))
            report(m_points.internalSendRAW.cookie, hr); // the cookie is dropped, the response stands
}

// Reading

std::optional<UINT64> CVoHTTPTransport::GetHeaderLongValue(const CRequest& request, const wchar_t* name) const
{
    const std::optional<std::wstring> text = CheckHeader(request, name);
    return text ? VoParseDecimal<UINT64>(VoTrim(*text)) : std::nullopt;
}

std::optional<UINT64> CVoHTTPTransport::AnnouncedLength(const CRequest& request) const
{
    return CheckHeader(request, L"Transfer-Encoding") ? std::nullopt : GetHeaderLongValue(request, L"Content-Length");
}

// Takes the response over from the transport.
HRESULT CVoHTTPTransport::internalReadResponse(CRequest& request)
{
    const CVoReporter report{ m_points.source, m_points.internalReadResponse.function };
    if (!request.m_hasPendingResponse)
        return S_OK;
    request.m_hasPendingResponse = false;
    // libcurl checks the length itself, before it decodes the body.
    const std::optional<UINT64> announced = m_facts.keepsHandle ? std::nullopt : AnnouncedLength(request);
    CRequest::CResponse response;
    if (const HRESULT hr = FetchBody(request, response.bytes); FAILED(hr))
        return hr;
    if (announced && response.bytes.size() != *announced)
        return report(m_points.internalReadResponse.length, E_FAIL);
    response.utf8 = NamesUtf8(CheckHeader(request, L"Content-Type").value_or(std::wstring()));
    response.isThere = true;
    request.m_response = std::move(response);
    return S_OK;
}

HRESULT CVoHTTPTransport::ReadResponse(const std::shared_ptr<CHTTPRequestData>& request, CVoBinaryDataParser& response,
                                       EResponseKind kind, bool* isUtf8, bool* isEmpty) noexcept
{
    const CVoReporter report{ m_points.source, m_points.readResponse.function };
    return report.Guard(m_points.readResponse.exception, [&]() -> HRESULT
    {
        const auto keep = weak_from_this().lock();
        const auto own = OwnRequest(request);
        const CAutoLock lock(&m_lock);
        if (!own)
            return report(m_points.readResponse.request, E_INVALIDARG);
        if (const HRESULT hr = internalReadResponse(*own); FAILED(hr))
            return report(m_points.readResponse.fetch, hr);
        CRequest::CResponse& received = own->m_response;
        if (kind != EResponseKind::Parameters && kind != EResponseKind::Binary)
            return report(m_points.readResponse.read, E_NOTIMPL);
        if (!received.isThere)
            return report(m_points.readResponse.read, E_FAIL);
        const bool empty = received.bytes.empty();
        // Of the caller's content only the parameters stay, in front of the new ones.
        const CVoDataParser& parameters = response;
        CVoBinaryDataParser parsed;
        static_cast<CVoDataParser&>(parsed) = parameters;
        if (const HRESULT hr = parsed.Parse(std::move(received.bytes), kind == EResponseKind::Binary, received.utf8);
            FAILED(hr))
        {
            // A failed Parse leaves the bytes, so they can be read again as Binary.
            kMessageReport.Message(384, L"Parsing error! Data: %ls", StartOfText(received.bytes, received.utf8).c_str());
            return report(m_points.readResponse.read, hr);
        }
        response = std::move(parsed);
        received.isThere = false;
        if (isUtf8)
            *isUtf8 = received.utf8;
        if (isEmpty)
            *isEmpty = empty;
        return S_OK;
    });
}

HRESULT CVoHTTPTransport::ReadMultipleResponses(const std::shared_ptr<CHTTPRequestData>& request,
                                                std::vector<CVoBinaryDataParser>& responses, UINT32 expectedCount,
                                                UINT32* count) noexcept
{
    const CVoReporter report{ m_points.source, m_points.readMultipleResponses.function };
    return report.Guard(m_points.readMultipleResponses.exception, [&]() -> HRESULT
    {
        const auto keep = weak_from_this().lock();
        const auto own = OwnRequest(request);
        const CAutoLock lock(&m_lock);
        if (!own)
            return report(m_points.readMultipleResponses.request, E_INVALIDARG);
        if (const HRESULT hr = internalReadResponse(*own); FAILED(hr))
            return report(m_points.readMultipleResponses.fetch, hr);
        CRequest::CResponse& received = own->m_response;
        const HRESULT hr =
            received.isThere ? internalParseMultipleResponses(received.bytes, received.utf8, expectedCount, responses) : E_FAIL;
        if (FAILED(hr))
            return report(m_points.readMultipleResponses.read, hr);
        received = {};
        if (count)
            *count = static_cast<UINT32>(responses.size());
        return S_OK;
    });
}
