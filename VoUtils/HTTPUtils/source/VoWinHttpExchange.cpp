// The state machine of one WinHTTP exchange. CVoWinHttpRequest starts it, waits for its results and ends it.
#include "VoWinHttpExchange.h"

#include "VoContentLength.h"

#include <base/VoWipe.h>

#include <algorithm>
#include <array>
#include <new>
#include <string_view>

namespace VoWinHttpRequest
{
namespace
{
// Reports name the header that callers know.
constexpr const wchar_t* kWinHttpExchangeSource = L"VoWinHttpRequest.h";

constexpr DWORD kStatusUnauthorized = 401;
constexpr DWORD kStatusProxyAuthenticationRequired = 407;
constexpr DWORD kFirstStatusWithoutBody = 300; // from here on the body is never read
constexpr HRESULT kCancelled = HResultFromWin32(ERROR_WINHTTP_OPERATION_CANCELLED);
constexpr HRESULT kResend = HResultFromWin32(ERROR_WINHTTP_RESEND_REQUEST);
// How often one send is repeated because WinHTTP asks for it. An authentication handshake takes two or three requests, and both
// the proxy and the server may demand one.
constexpr DWORD kMaximumResends = 8;
// What a piece of a body costs beside its bytes, and how much of that is not counted against a limit of the body.
constexpr UINT64 kPieceCost = 64;
constexpr UINT64 kFreePieceCost = UINT64{ 1024 } * 1024;
// From so many bytes on it is worth asking for the announced length of the body.
constexpr UINT64 kLongBody = UINT64{ 256 } * 1024;
// The most bytes of a piece that ReadPiece returns.
constexpr DWORD kMaximumPiece = 256 * 1024;
} // namespace

// ---- Reports ----

void CExchangeReporter::Write(int line, HRESULT code) const noexcept
{
    CVoReportScope::Add(m_source, line, m_function, code); // keeps the text, so it gets the literal
    if (VoReportDetail::IsOff())
        return;
    std::array<wchar_t, 160> name{}; // enough for every class and function here
    std::wstring_view parts[] = { m_className, L"::", m_function };
    size_t length = 0;
    for (const std::wstring_view part : parts)
        length += part.copy(name.data() + length, name.size() - 1 - length);
    const CVoLastErrorKeeper keeper;
    VoErrorLog().WriteCode(m_source, line, name.data(), code);
}

CExchangeReporter CExchange::Reporter(const wchar_t* function) const noexcept
{
    return { kWinHttpExchangeSource, m_className, function };
}

// ---- The state ----

CExchange::CNotification::CNotification(CExchange& exchange) noexcept
    : m_exchange(exchange.weak_from_this().lock()), m_thread(::GetCurrentThreadId())
{
    const std::lock_guard lock(exchange.m_lock);
    m_next = std::exchange(exchange.m_notifications, this);
    if (exchange.m_abandoned)
    {
        m_isAbandoned = true;
        return;
    }
    m_chain = exchange.m_chain;
    m_handler = exchange.m_functions.notification;
}

CExchange::CNotification::~CNotification()
{
    m_handler.reset(); // it must not outlive Close
    bool isAwaited = false;
    {
        const std::lock_guard lock(m_exchange->m_lock);
        CNotification** link = &m_exchange->m_notifications;
        while (*link != this)
            link = &(*link)->m_next;
        *link = m_next;
        isAwaited = m_exchange->m_closers != 0;
    }
    if (isAwaited) // waking nobody costs as much as the rest
        m_exchange->m_changed.NotifyAll();
}

bool CExchange::CNotification::IsInside(const CExchange& exchange) noexcept
{
    const std::lock_guard lock(exchange.m_lock);
    for (const CNotification* notification = exchange.m_notifications; notification; notification = notification->m_next)
        if (notification->m_thread == ::GetCurrentThreadId())
            return true;
    return false;
}

void CExchange::CPromises::SetException(HRESULT hr) noexcept
{
    if (!status && !data)
        return;
    nextData.reset();
    const std::exception_ptr failure = std::make_exception_ptr(HRESULTexc(hr));
    if (status)
        status->SetException(failure);
    if (data)
        data->SetException(failure);
}

bool CExchange::IsRunning() const noexcept
{
    return m_busy && (m_promises.status || (m_promises.data && m_statusCode < kFirstStatusWithoutBody));
}

HRESULT CExchange::Reason(HRESULT hr) const noexcept
{
    return SUCCEEDED(hr) || (!IsAbandoned() && m_request.IsOpen()) ? hr : kCancelled;
}

CExchange::CPromises CExchange::TakePromises() noexcept
{
    const std::lock_guard lock(m_lock);
    return std::exchange(m_promises, {});
}

void CExchange::Fail(HRESULT hr) noexcept
{
    TakePromises().SetException(hr);
}

void CExchange::Abandon() noexcept
{
    CFunctions functions; // destroyed without the lock
    {
        const std::lock_guard lock(m_lock);
        m_abandoned = true;
        std::swap(m_functions, functions);
        m_context = nullptr;
    }
    m_changed.NotifyAll(); // another thread may wait in Close
    Fail(kCancelled);
}

// ---- Calls of the owner ----

HRESULT CExchange::SetRequestData(const void* data, DWORD length) noexcept
{
    const std::lock_guard lock(m_lock);
    if (IsRunning())
        return E_FAIL;
    m_body = data;
    m_bodyLength = length;
    return S_OK;
}

HRESULT CExchange::SetCredentials(DWORD target, DWORD scheme, const std::wstring& user, const std::wstring& password)
{
    CVoSecret<wchar_t> userCopy;
    CVoSecret<wchar_t> passwordCopy;
    userCopy.Get() = user; // no temporary text, which nobody would wipe
    passwordCopy.Get() = password;
    const std::lock_guard lock(m_lock);
    if (IsRunning())
        return E_FAIL;
    m_credentials.Set(target, scheme, std::move(userCopy), std::move(passwordCopy));
    return S_OK;
}

HRESULT CExchange::SetReportChain(CVoReportChain* chain) noexcept
{
    const std::lock_guard lock(m_lock);
    if (IsRunning())
        return E_FAIL;
    m_chain = chain;
    return S_OK;
}

HRESULT CExchange::SetBodyLimit(UINT64 bytes) noexcept
{
    const std::lock_guard lock(m_lock);
    if (IsRunning())
        return E_FAIL;
    m_bodyLimit = bytes;
    return S_OK;
}

HRESULT CExchange::SetReadsPieces(bool readsPieces) noexcept
{
    const std::lock_guard lock(m_lock);
    if (IsRunning())
        return E_FAIL;
    m_readsPieces = readsPieces;
    return S_OK;
}

void CExchange::StartPiece(CVoFuture<std::vector<BYTE>>& next)
{
    CVoPromise<std::vector<BYTE>> promise;
    {
        const std::lock_guard lock(m_lock);
        if (!m_readsPieces || m_promises.status || !m_promises.data || m_promises.nextData)
            return;
        next = promise.Future();
        m_promises.nextData.emplace(std::move(promise));
    }
    if (const HRESULT hr = Reason(m_request.QueryDataAvailable()); FAILED(hr))
        Fail(hr);
}

HRESULT CExchange::StartErrorBody(UINT32 maximumBytes) noexcept
{
    {
        const std::lock_guard lock(m_lock);
        if (IsRunning() || !m_busy || !m_promises.data || m_statusCode < kFirstStatusWithoutBody)
            return E_FAIL;
        m_bodyLimit = maximumBytes;
        m_cutsBody = true;
    }
    const HRESULT hr = Reason(m_request.QueryDataAvailable());
    if (FAILED(hr))
        Fail(hr);
    return hr;
}

HRESULT CExchange::Prepare(CVoFuture<DWORD>& statusFuture, CVoFuture<std::vector<BYTE>>& dataFuture)
{
    CVoPromise<DWORD> status;
    CVoPromise<std::vector<BYTE>> data;
    const std::lock_guard lock(m_lock);
    if (IsRunning())
        return E_FAIL;
    m_joined = {};
    m_chunks.clear();
    m_received = 0;
    m_hasMadeRoom = false;
    m_cutsBody = false;
    m_pending.reset();
    m_url.clear();
    m_credentials.ForgetRejections();
    m_resends = 0;
    // Keep an unset promise: a caller may wait on its future.
    if (!m_promises.status)
    {
        statusFuture = status.Future();
        m_promises.status.emplace(std::move(status));
    }
    if (!m_promises.data)
    {
        dataFuture = data.Future();
        m_promises.data.emplace(std::move(data));
    }
    m_statusCode = 0;
    m_busy = true;
    return S_OK;
}

HRESULT CExchange::Start() noexcept
{
    bool wasKnown = false; // to WinHTTP, from an earlier send
    {
        const std::lock_guard lock(m_lock);
        m_handle = m_request.Get();
        wasKnown = m_self != nullptr;
        if (!wasKnown)
            m_self = weak_from_this().lock();
    }
    HRESULT hr = m_credentials.SetIn(m_request);
    if (SUCCEEDED(hr))
        hr = SendRequest();
    if (SUCCEEDED(hr))
        return hr;

    // Send failed: clear our context. If that fails, keep the state alive, because WinHTTP may still call back. A state that
    // WinHTTP knew before stays busy then: its handle has been closed, and HANDLE_CLOSING will come. For a first send it may
    // never come, so Close must not wait for it. A handle that WinHTTP does not know cannot hold the context.
    constexpr DWORD_PTR kNoContext = 0;
    const bool isCleared = (hr == E_HANDLE && !wasKnown) ||
                           SUCCEEDED(m_request.SetOption(WINHTTP_OPTION_CONTEXT_VALUE, &kNoContext, sizeof(kNoContext)));
    const std::shared_ptr<CExchange> keep = weak_from_this().lock();
    {
        const std::lock_guard lock(m_lock);
        if (isCleared)
            m_self.reset();
        if (isCleared || !wasKnown)
            m_busy = false;
        m_changed.NotifyAll();
    }
    Fail(hr);
    return hr;
}

HRESULT CExchange::SendRequest() noexcept
{
    const CExchangeReporter report = Reporter(L"_Send");
    const HRESULT hr = m_request.Send(m_body, m_bodyLength, reinterpret_cast<DWORD_PTR>(this));
    return SUCCEEDED(hr) ? hr : report(200, hr);
}

HRESULT CExchange::Resend(HRESULT hr) noexcept
{
    {
        const std::lock_guard lock(m_lock);
        if (!m_promises.status || m_resends == kMaximumResends) // a response has begun, or WinHTTP asks without end
            return hr;
    }
    ++m_resends;
    if (const HRESULT set = m_credentials.SetIn(m_request); FAILED(set))
        return Reason(set);
    return Reason(SendRequest());
}

HRESULT CExchange::Close() noexcept
{
    const bool isInCallback = CNotification::IsInside(*this);
    std::unique_lock lock(m_lock);
    const bool isKnown = m_busy && !m_abandoned;
    lock.unlock();
    if (isInCallback)
        Abandon();
    const HRESULT hr = isKnown ? m_request.Close() : S_OK; // HANDLE_CLOSING may be served inside this call
    if (isInCallback)
        return hr;

    lock.lock();
    if (FAILED(hr) && m_busy)
    {
        lock.unlock();
        Abandon();
        lock.lock();
    }
    ++m_closers;
    m_changed.Wait(lock, [this] { return (!m_busy || m_abandoned) && !m_notifications; });
    --m_closers;
    // Destroy the functions now: the last notification may keep the state a moment longer.
    const CFunctions functions = std::exchange(m_functions, {});
    lock.unlock();
    return hr;
}

// ---- Notifications ----

void CExchange::Notify(DWORD status, const void* information, DWORD length) noexcept
{
    const CExchangeReporter report = Reporter(L"Callback");
    const CNotification notification(*this);
    if (notification.IsAbandoned() && status != WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING)
        return;
    const CVoReportScope scope(notification.Chain());
    HRESULT hr = S_OK;
    try
    {
        if (const NotificationHandler* const handler = notification.Handler(); handler && *handler)
            (*handler)(status, information, length);
        hr = OnCallback(status, information, length);
        if (FAILED(hr))
            report(220, hr);
    }
    catch (...)
    {
        hr = report.CurrentException(224);
    }
    if (FAILED(hr))
        Fail(hr);
}

HRESULT CExchange::OnCallback(DWORD status, const void* information, DWORD length)
{
    const CExchangeReporter report = Reporter(L"OnCallback");
    HRESULT hr = S_OK;
    switch (status)
    {
    case WINHTTP_CALLBACK_STATUS_RESOLVING_NAME:
    case WINHTTP_CALLBACK_STATUS_REDIRECT:
        m_url = information ? static_cast<const wchar_t*>(information) : L"";
        if (status == WINHTTP_CALLBACK_STATUS_REDIRECT)
            m_credentials.ForgetServer();
        break;
    case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
        hr = OnSendrequestComplete(status, information, length);
        break;
    case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE:
        hr = OnHeadersAvailable();
        break;
    case WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE:
        hr = OnDataAvailable(information, length);
        break;
    case WINHTTP_CALLBACK_STATUS_READ_COMPLETE:
        hr = OnReadComplete(information, length);
        break;
    case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR:
        hr = OnRequestError(information, length);
        break;
    case WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING:
        hr = OnHandleClosing(information, length);
        break;
    default:
        break;
    }
    return SUCCEEDED(hr) ? hr : report(240, hr);
}

HRESULT CExchange::OnSendrequestComplete(DWORD status, const void* information, DWORD length)
{
    const CExchangeReporter report = Reporter(L"OnSendrequestComplete");
    if (const HRESULT hr = Call(&CFunctions::sendComplete, status, const_cast<void*>(information), length); FAILED(hr))
        return report(260, hr);
    if (IsAbandoned())
        return S_OK;
    HRESULT hr = Reason(m_request.ReceiveResponse());
    if (hr == kResend)
        hr = Resend(hr);
    return SUCCEEDED(hr) ? hr : report(264, hr);
}

HRESULT CExchange::OnHeadersAvailable()
{
    const CExchangeReporter report = Reporter(L"OnHeadersAvailable");
    DWORD code = 0;
    if (const HRESULT hr = Reason(m_request.QueryHeaders(WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, code));
        FAILED(hr))
        return report(276, hr);
    if (code == kStatusUnauthorized || code == kStatusProxyAuthenticationRequired)
    {
        const HRESULT hr = OnAuthenticationRequested();
        return SUCCEEDED(hr) ? hr : report(280, hr);
    }

    std::optional<CVoPromise<DWORD>> status;
    {
        const std::lock_guard lock(m_lock);
        m_statusCode = code;
        status = std::exchange(m_promises.status, std::nullopt);
    }
    const bool readsBody = code < kFirstStatusWithoutBody && !m_readsPieces;
    // Otherwise touch nothing after this line: the woken thread may send again, or ask for a piece.
    if (status)
        status->SetValue(code);
    if (!readsBody)
        return S_OK;
    const HRESULT hr = Reason(m_request.QueryDataAvailable());
    return SUCCEEDED(hr) ? hr : report(292, hr);
}

HRESULT CExchange::OnAuthenticationRequested()
{
    const CExchangeReporter report = Reporter(L"OnAuthenticationRequested");
    std::shared_ptr<const AuthenticationFunction> authenticate; // keeps it alive when it destroys the exchange
    void* context = nullptr;
    {
        const std::lock_guard lock(m_lock);
        authenticate = m_functions.authenticate;
        context = m_context;
    }
    if (!authenticate || !*authenticate)
        return report(306, E_FAIL);
    DWORD supported = 0;
    DWORD first = 0;
    DWORD target = 0;
    if (const HRESULT hr = Reason(m_request.QueryAuthSchemes(supported, first, target)); FAILED(hr))
        return report(310, hr);

    DWORD chosen = 0;
    CVoSecret<wchar_t> user;
    CVoSecret<wchar_t> password;
    const HRESULT hr = (*authenticate)(target, supported, first, m_url, chosen, user.Get(), password.Get(), context);
    if (IsAbandoned())
        return S_OK;
    if (FAILED(hr))
        return report(318, hr);
    if ((chosen & supported) == 0)
        return S_OK;
    if (!m_credentials.SetFromChallenge(target, chosen, std::move(user), std::move(password)))
        return report(322, kResultCancelled);
    if (const HRESULT set = Reason(m_credentials.SetIn(m_request)); FAILED(set))
        return report(324, set);
    const HRESULT sent = Reason(SendRequest());
    return SUCCEEDED(sent) ? sent : report(326, sent);
}

HRESULT CExchange::OnDataAvailable(const void* information, DWORD length)
{
    const CExchangeReporter report = Reporter(L"OnDataAvailable");
    if (!information || length != sizeof(DWORD))
        return report(336, E_FAIL);
    const DWORD count = *static_cast<const DWORD*>(information);
    if (count > MAXLONG) // a negative number: no single piece is that large
        return report(340, E_FAIL);
    if (count == 0)
    {
        DeliverBody();
        return S_OK;
    }
    const DWORD size = m_readsPieces ? std::min(count, kMaximumPiece) : count;
    m_pending.reset(new (std::nothrow) BYTE[size]);
    if (!m_pending)
        return report(346, E_OUTOFMEMORY);
    const HRESULT hr = Reason(m_request.ReadData(m_pending.get(), size));
    return SUCCEEDED(hr) ? hr : report(350, hr);
}

void CExchange::DeliverPiece(std::vector<BYTE> piece) noexcept
{
    std::optional<CVoPromise<std::vector<BYTE>>> data;
    {
        const std::lock_guard lock(m_lock);
        data = std::exchange(m_promises.data, std::exchange(m_promises.nextData, std::nullopt));
    }
    // Touch nothing after this line: the woken thread may ask for the next piece.
    if (data)
        data->SetValue(std::move(piece));
}

void CExchange::MakeRoom()
{
    m_hasMadeRoom = true;
    DWORD length = 0;
    if (SUCCEEDED(m_request.QueryHeaders(WINHTTP_QUERY_CONTENT_LENGTH | WINHTTP_QUERY_FLAG_NUMBER, length)))
        JoinChunks(std::max(VoReserveFor(length, m_bodyLimit), static_cast<size_t>(m_received)));
}

void CExchange::JoinChunks(size_t capacity)
{
    m_joined.reserve(capacity);
    for (CChunk& chunk : m_chunks)
    {
        m_joined.insert(m_joined.end(), chunk.bytes.get(), chunk.bytes.get() + chunk.length);
        chunk.bytes.reset(); // now, so that memory holds the body at most twice
    }
    m_chunks.clear();
}

void CExchange::DeliverBody()
{
    if (!m_chunks.empty())
        JoinChunks(static_cast<size_t>(m_received));
    std::vector<BYTE> body = std::exchange(m_joined, {});
    m_received = 0;
    if (m_cutsBody && body.size() > m_bodyLimit)
        body.resize(static_cast<size_t>(m_bodyLimit));
    std::optional<CVoPromise<std::vector<BYTE>>> data;
    std::optional<CVoPromise<std::vector<BYTE>>> next; // of a piece that does not come; destroyed without the lock
    {
        const std::lock_guard lock(m_lock);
        data = std::exchange(m_promises.data, std::nullopt);
        next = std::exchange(m_promises.nextData, std::nullopt);
    }
    // Touch nothing after this line: the woken thread may send again.
    if (data)
        data->SetValue(std::move(body));
}

HRESULT CExchange::OnReadComplete(const void* information, DWORD length)
{
    const CExchangeReporter report = Reporter(L"OnReadComplete");
    std::unique_ptr<BYTE[]> bytes = std::move(m_pending);
    // A foreign buffer has an unknown owner and is not freed here.
    if (!bytes || information != bytes.get())
        return report(384, E_FAIL);
    if (length == 0)
    {
        // The end of the response (platform documentation of WinHttpReadData). The caller compares the length with the
        // announced one.
        DeliverBody();
        return S_OK;
    }
    const bool isPiece = m_readsPieces && !m_cutsBody;
    std::vector<BYTE> piece;
    if (isPiece)
        piece.assign(bytes.get(), bytes.get() + length);
    else if (m_chunks.empty() && m_joined.capacity() - m_joined.size() >= length)
        m_joined.insert(m_joined.end(), bytes.get(), bytes.get() + length);
    else
        m_chunks.push_back({ length, std::move(bytes) });
    m_received += length;
    const bool isOverLimit =
        m_bodyLimit != 0 && (m_received > m_bodyLimit || m_chunks.size() * kPieceCost > m_bodyLimit + kFreePieceCost);
    if (m_cutsBody && (isOverLimit || m_received == m_bodyLimit))
    {
        DeliverBody();
        return S_OK;
    }
    if (isOverLimit)
        return report(386, kErrorResponseLimit);
    if (const HRESULT hr = Call(&CFunctions::receive, length); FAILED(hr))
        return report(388, hr);
    if (IsAbandoned())
        return S_OK;
    if (isPiece)
    {
        DeliverPiece(std::move(piece));
        return S_OK;
    }
    if (m_received >= kLongBody && !m_hasMadeRoom)
        MakeRoom();
    const HRESULT hr = Reason(m_request.QueryDataAvailable());
    return SUCCEEDED(hr) ? hr : report(390, hr);
}

HRESULT CExchange::OnRequestError(const void* information, DWORD length)
{
    const CExchangeReporter report = Reporter(L"OnRequestError");
    if (!information || length != sizeof(WINHTTP_ASYNC_RESULT))
        return report(400, E_FAIL);
    const auto& result = *static_cast<const WINHTTP_ASYNC_RESULT*>(information);
    report.Message(404, L"Error function: %llu   Error code: %lu", static_cast<unsigned long long>(result.dwResult),
                   result.dwError);
    const HRESULT failure = HResultFromWin32(result.dwError);
    const HRESULT hr = failure == kResend ? Resend(failure) : failure;
    return SUCCEEDED(hr) ? hr : report(406, hr);
}

HRESULT CExchange::OnHandleClosing(const void* information, DWORD length)
{
    const CExchangeReporter report = Reporter(L"OnHandleClosing");
    bool isValid = length == sizeof(HINTERNET);
    {
        const std::lock_guard lock(m_lock);
        isValid = isValid || (information && information == m_handle);
    }
    Fail(isValid ? kCancelled : E_FAIL);
    // This is the handle's last notification, valid or not: a waiting Clear must return. The notification keeps the state.
    {
        const std::lock_guard lock(m_lock);
        m_busy = false;
        m_self.reset();
    }
    return isValid ? S_OK : report(424, E_FAIL);
}

} // namespace VoWinHttpRequest
