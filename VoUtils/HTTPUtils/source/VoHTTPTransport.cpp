// The transport core; see VoHTTPTransport.h.
#include "VoHTTPTransport.h"

#include "VoRedirect.h"
#include "VoRetryAfter.h"

#include <VoGlobalHTTPCookieStoreImpl.h>
#include <VoProxyList.h>

#include <base/VoUtils.h>
#include <base/com/VoComHelper.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace
{
constexpr INT64 kMicrosecondsPerSecond = 1'000'000;
// The pause before another attempt doubles from the first value to the last.
constexpr INT64 kFirstRetryDelay = 50'000; // microseconds
constexpr INT64 kLastRetryDelay = 2'000'000;

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

// Ends the pause between two attempts, so that the lock comes free.
class CVoHTTPTransport::CClosing
{
public:
    explicit CClosing(CVoHTTPTransport& transport) noexcept : m_transport(transport)
    {
        ++m_transport.m_closers;
        (void)m_transport.m_wake.Set();
    }
    ~CClosing() { --m_transport.m_closers; }
    CClosing(const CClosing&) = delete;
    CClosing& operator=(const CClosing&) = delete;

private:
    CVoHTTPTransport& m_transport;
};

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
        const CClosing closing(*this);
        const CAutoLock lock(&m_lock);
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
    const CClosing closing(*this);
    const CAutoLock lock(&m_lock);
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
            const CVoLockHolder recordLock(request->m_recordLock);
            DescribeSend(*request); // its handle has the response's header
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
    // Credentials are for the proxy that they were given for. The service may find another one for another target.
    const bool mayDiffer = name.empty() && request.m_target.BaseURL() != request.m_proxyOrigin;
    if (mayDiffer || name != request.m_proxyName)
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
        const CUse use(*own);
        if (own->IsCancelled())
            return report(m_points.sendMessage.send, kResultCancelled);
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
        const CUse use(*own);
        if (own->IsCancelled())
            return report(m_points.sendMultipleMessages.send, kResultCancelled);
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
        const auto own = OwnRequest(request);
        const CAutoLock lock(&m_lock);
        if (own && own->IsCancelled())
            return report(m_points.sendGetRequest.send, kResultCancelled);
        CServerAddressData address = m_serverAddress;
        if (!objectPath.empty())
            if (const HRESULT hr = address.SetObjectPath(objectPath); FAILED(hr))
                return report(m_points.sendGetRequest.path, hr);
        const bool isCurrent = own && own->m_connection == m_connectionNumber;
        if (isCurrent && own->m_address.FullURL() == address.FullURL())
            own->m_nextVerb = L"GET";
        else if (isCurrent && !own->m_isUsed)
        {
            own->m_target = address;
            CServerAddressData previous = std::exchange(own->m_address, std::move(address));
            own->m_verb = own->m_nextVerb = own->m_targetVerb = L"GET";
            if (const HRESULT hr = Reason(*own, OpenTarget(*own)); FAILED(hr))
            {
                own->m_address = std::move(previous);
                own->m_isUsed = true; // the next send opens a fresh handle
                return report(m_points.sendGetRequest.open, hr);
            }
        }
        else if (const HRESULT hr = internalOpenRequest(address, L"GET", request); FAILED(hr))
            return report(m_points.sendGetRequest.open, hr);
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
    request.m_streamedKind = request.m_sink ? std::optional(request.m_sinkKind) : std::nullopt;
    request.m_hasWritten = false;
    request.m_hasSinkFailed = false;
    BeginRecord(request);

    CAttempts attempts(allowRetry, m_connectTimeout);
    HRESULT hr = S_OK;
    for (;;)
    {
        attempts.Begin();
        request.m_isFinal = false;
        request.m_errorBody.clear();
        try
        {
            BeginAttempt(request);
            if (hr = Reason(request, Attempt(request, content)); FAILED(hr))
                report(m_points.internalSend.attempt, hr);
        }
        catch (...)
        {
            hr = report(m_points.internalSend.exception, E_FAIL);
        }
        if (SUCCEEDED(hr))
            break;
        EndAttempt(request, hr);
        const std::optional<INT64> asked = RetryAfter(request); // reads the response, which ResetConnection drops
        // A server that names a time beyond the budget would refuse every attempt until then.
        const INT64 remaining = std::max(attempts.Remaining(), INT64{ 0 });
        const bool mayRetry = !request.m_isFinal && attempts.MayRetry(hr, request.m_statusCode) &&
                              asked.value_or(0) <= remaining && RestartSink(request);
        if (!mayRetry && request.m_statusCode >= kFirstErrorStatus && hr != kResultCancelled)
            ReadErrorBody(request);
        if (const HRESULT reset = ResetConnection(request); FAILED(reset))
        {
            report(m_points.internalSend.reset, reset);
            break;
        }
        if (!mayRetry)
            break;
        const INT64 pause = std::max(std::min(RetryDelay(attempts.Count()), remaining), asked.value_or(0));
        if (!Pause(request, pause))
        {
            hr = Reason(request, hr);
            if (request.IsCancelled())
                EndAttempt(request, hr); // the send ends for another reason than the attempt
            break;
        }
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
        (void)CloseHandle(request);      // reported; the next send opens a fresh handle
    if (m_joinedSize > kMaximumKeptBody) // now, when the service uses it no more
    {
        m_joined.reset();
        m_joinedSize = 0;
    }
    if (result)
    {
        result->retried = attempts.Count() > 1;
        result->statusCode = request.m_statusCode;
        result->localAddress = request.m_localAddress;
    }
    return hr;
}

std::span<const BYTE> CVoHTTPTransport::Joined(const CVoBodyPieces& body)
{
    if (body.Pieces().size() <= 1)
        return body.Pieces().empty() ? std::span<const BYTE>() : body.Pieces().front();
    if (m_joinedSize < body.Length())
    {
        m_joinedSize = 0;
        m_joined.reset(); // before the new one is made
        m_joined = std::make_unique_for_overwrite<BYTE[]>(body.Length());
        m_joinedSize = body.Length();
    }
    return { m_joined.get(), CVoBodyReader(body).Read({ m_joined.get(), body.Length() }) };
}

bool CVoHTTPTransport::Pause(const CRequest& request, INT64 microseconds) noexcept
{
    const INT64 end = VoGetMicroseconds() + microseconds;
    for (;;)
    {
        // Reset before looking: what is set after the look ends the wait.
        (void)m_wake.Reset();
        if (request.IsCancelled() || m_closers.load() != 0)
            return false;
        const INT64 rest = end - VoGetMicroseconds();
        if (rest <= 0 || ::WaitForSingleObject(m_wake.Handle(), static_cast<DWORD>(rest / 1000)) == WAIT_TIMEOUT)
            return true;
    }
}

// Microseconds that the server asks to wait before the next attempt.
std::optional<INT64> CVoHTTPTransport::RetryAfter(const CRequest& request) const noexcept
try
{
    const std::optional<std::wstring> text = request.m_statusCode != 0 ? CheckHeader(request, L"Retry-After", 0) : std::nullopt;
    return text ? VoParseRetryAfter(*text, CVoGlobalHTTPCookieStoreImpl::GetCurrentSystemDate()) : std::nullopt;
}
catch (...)
{
    return std::nullopt; // no memory for the header: the usual pause
}

// One attempt: from the request's own address through its redirects.
HRESULT CVoHTTPTransport::Attempt(CRequest& request, const CVoHTTPContent& content)
{
    const CVoReporter report{ m_points.source, m_points.internalSendRAW.function };
    const CVoBodyPieces none;
    const CVoBodyPieces* body = &content.body;
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
        if (request.IsCancelled()) // after the handle was opened: Cancel closes the one that it finds
            return kResultCancelled;
        if (m_facts.cookiesAtSend)
            LookUpCookies(request);
        const HRESULT hr = SendToTarget(request, *body, contentType);
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
            body = &none;
            contentType.clear();
        }
    }
}

// Sends to the request's target until nobody asks for credentials any more.
HRESULT CVoHTTPTransport::SendToTarget(CRequest& request, const CVoBodyPieces& body, const std::wstring& contentType)
{
    const CVoReporter report{ m_points.source, m_points.internalSendRAW.function };
    std::wstring asking; // who asked last
    for (int moves = 0;;)
    {
        request.m_statusCode = 0;
        request.m_sent = 0;
        request.m_toSend = body.Length();
        request.m_received = 0;
        request.m_toReceive = 0;
        request.m_isUsed = true;
        DescribeSend(request); // the previous one, whose response the next call drops
        request.m_trace.BeginSend();
        request.m_isUndescribed = true;
        request.m_header.Set({});
        const HRESULT sent = SendOnce(request, body, contentType);
        std::wstring header;
        request.m_headerLength = ReadHeader(request, request.m_limits.headerBytes, header);
        request.m_header.Set(std::move(header));
        if (FAILED(sent))
            return sent;
        request.m_trace.end = VoGetMicroseconds();
        if (request.m_statusCode == kStatusOk && !m_facts.keepsHandle) // otherwise the body is there already
            request.m_toReceive = AnnouncedLength(request).value_or(0);
        if (const HRESULT hr = CheckHeaderLimits(request); FAILED(hr))
        {
            request.m_isFinal = true; // the next response would be as large
            return report(m_points.internalSendRAW.limit, hr);
        }
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
    const std::optional<std::wstring> location = CheckHeader(request, L"Location", 0);
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
    DescribeSend(request); // while the target is the one that was sent to
    request.m_target = std::move(target);
    if (!request.m_record.attempts.empty())
        request.m_record.attempts.back().redirects.push_back(VoHideQuery(request.m_target.FullURL()));
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
    for (DWORD index = 0; index < request.m_limits.cookies && ReadSetCookie(request, index, value); ++index)
        if (const HRESULT hr = m_cookieStore->AddCookieFromString(CVoBstr(value).Get(), url.Get()); FAILED(hr))
            report(m_points.internalSendRAW.cookie, hr); // the cookie is dropped, the response stands
}
