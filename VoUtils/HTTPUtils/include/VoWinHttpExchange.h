// The state machine of one exchange: VoWinHttpRequest.h, which callers include, is its face.
#pragma once

#include <VoWinHttpInterface.h>

#include <base/VoErrorHandler.h>
#include <base/VoHResult.h>
#include <base/VoPlatform.h>
#include <base/VoPromise.h>
#include <base/VoWipe.h>

#include <array>
#include <charconv>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VoWinHttpRequest
{
// Reports name the header that callers know.
inline constexpr const wchar_t* kSource = L"VoWinHttpRequest.h";

// Carries the failure of an exchange from WinHTTP's threads to the waiting caller.
class HRESULTexc : public CVoHResultException
{
public:
    explicit HRESULTexc(HRESULT result) noexcept : CVoHResultException(result)
    {
        std::to_chars(m_message.data() + kPrefix.copy(m_message.data(), kPrefix.size()),
                      m_message.data() + m_message.size() - 1, result);
    }
    ~HRESULTexc() override = default;

    // "HRESULT " and the code as a decimal number.
    [[nodiscard]] const char* what() const noexcept override { return m_message.data(); }

private:
    static constexpr std::string_view kPrefix = "HRESULT ";
    std::array<char, kPrefix.size() + sizeof("-2147483648")> m_message{};
};

// Asks somebody for credentials. `authTarget`: WINHTTP_AUTH_TARGET_SERVER or _PROXY; schemes: WINHTTP_AUTH_SCHEME_...; `url`:
// the last name or URL that WinHTTP resolved or was redirected to, empty where it reported none (on a connection that it had
// open); `context`: as given to Init. A failure ends the exchange with that code. A chosen scheme that is not among the
// supported ones leaves the challenge unanswered. Called on a thread of WinHTTP's, which it may block. It may clear or destroy
// the exchange and everything the exchange uses; it must not wait for the exchange's status or body, nor for another thread
// that clears or destroys it.
using AuthenticationFunction =
    std::function<HRESULT(DWORD authTarget, DWORD supportedSchemes, DWORD firstScheme, const std::wstring& url,
                          DWORD& chosenScheme, std::wstring& user, std::wstring& password, void* context)>;

// Told when the request has been sent, with what WinHTTP's notification carries; a failure ends the exchange with that code.
// What holds for the authentication function holds for it.
using SendCompleteHandler = std::function<HRESULT(DWORD status, void* information, DWORD length)>;

// Told before WinHTTP follows a redirect: the headers of the answer that redirects can be read, and those of the request be
// corrected, which otherwise travel on to the new target as they are. `url` as WinHTTP gives it. A failure ends the exchange
// with that code and closes the request handle, because WinHTTP would follow all the same. What holds for the authentication
// function holds for it.
using RedirectHandler = std::function<HRESULT(const std::wstring& url)>;

// Told of each piece of the answer's body that has arrived, with its length in bytes; a failure ends the exchange with that
// code. What holds for the authentication function holds for it.
using ReceiveHandler = std::function<HRESULT(DWORD length)>;

// What an exchange is called in reports; a GET and a POST behave alike.
class CVoWinHttpGetRequest
{
};
class CVoWinHttpPostRequest
{
};

template <class T>
class CVoWinHttpRequest;

namespace Detail
{
// A text as a template argument, and texts joined at compile time.
template <size_t kSize>
struct CFixedText
{
    wchar_t text[kSize]{};

    constexpr CFixedText() = default;
    constexpr CFixedText(const wchar_t (&source)[kSize]) noexcept // implicit: a literal stands for it
    {
        for (size_t i = 0; i < kSize; ++i)
            text[i] = source[i];
    }
};
template <size_t kLeft, size_t kRight>
constexpr CFixedText<kLeft + kRight - 1> operator+(const CFixedText<kLeft>& left, const CFixedText<kRight>& right) noexcept
{
    CFixedText<kLeft + kRight - 1> joined;
    for (size_t i = 0; i < kLeft - 1; ++i)
        joined.text[i] = left.text[i];
    for (size_t i = 0; i < kRight; ++i)
        joined.text[kLeft - 1 + i] = right.text[i];
    return joined;
}

template <class T>
struct CTag;
template <>
struct CTag<CVoWinHttpGetRequest>
{
    static constexpr CFixedText kName{ L"class VoWinHttpRequest::CVoWinHttpGetRequest" };
};
template <>
struct CTag<CVoWinHttpPostRequest>
{
    static constexpr CFixedText kName{ L"class VoWinHttpRequest::CVoWinHttpPostRequest" };
};

template <class T, CFixedText kMethod>
inline constexpr CFixedText kFunctionName =
    CFixedText{ L"VoWinHttpRequest::CVoWinHttpRequest<" } + CTag<T>::kName + CFixedText{ L">::" } + kMethod;

template <class T, CFixedText kMethod>
inline constexpr CVoReporter kReporter{ kSource, kFunctionName<T, kMethod>.text };

// The exchanges whose notifications this thread is serving now, innermost first.
struct CCallbackFrame
{
    const void* exchange;
    const CCallbackFrame* outer;
};
inline constinit thread_local const CCallbackFrame* t_innermostCallback = nullptr;

// The state of an exchange, from Init to Clear: what WinHTTP's context value points to. While WinHTTP has that value the state
// owns itself.
template <class T>
class CExchange : public std::enable_shared_from_this<CExchange<T>>
{
public:
    CExchange(VoWinHttpInterface::WinHttpRequestHandle& request, AuthenticationFunction authenticate, void* context)
        : m_request(request), m_functions{ .authenticate =
                                               std::make_shared<const AuthenticationFunction>(std::move(authenticate)) },
          m_context(context)
    {
    }
    CExchange(const CExchange&) = delete;
    CExchange& operator=(const CExchange&) = delete;

    [[nodiscard]] HRESULT SetRequestData(const void* data, DWORD length) noexcept;
    // What the owner gave; null for none. Each is shared, so that it outlives an exchange that its own call ends.
    struct SFunctions
    {
        std::shared_ptr<const AuthenticationFunction> authenticate = nullptr;
        std::shared_ptr<const SendCompleteHandler> sendComplete = nullptr;
        std::shared_ptr<const RedirectHandler> redirect = nullptr;
        std::shared_ptr<const ReceiveHandler> receive = nullptr;
    };
    // Puts one of the handlers in place.
    template <auto kMember, class Handler>
    [[nodiscard]] HRESULT SetHandler(std::shared_ptr<const Handler> handler) noexcept
    {
        const std::lock_guard lock(m_lock);
        if (IsRunning())
            return E_FAIL;
        (m_functions.*kMember).swap(handler);
        return S_OK;
    }
    // Makes ready for a send: fresh promises where the last ones were used, with their futures put in place. E_FAIL while an
    // exchange runs. Throws std::bad_alloc with nothing changed.
    [[nodiscard]] HRESULT Prepare(CVoFuture<DWORD>& statusFuture, CVoFuture<std::vector<BYTE>>& dataFuture);
    // Sends what was made ready.
    [[nodiscard]] HRESULT Start() noexcept;
    // Ends the exchange; see IVoWinHttpRequest::Clear.
    [[nodiscard]] HRESULT Close() noexcept;

    void Notify(DWORD status, const void* information, DWORD length) noexcept;

private:
    friend class CVoWinHttpRequest<T>;

    // The service of one notification: counted, so that Close can wait for its end, and known to its thread.
    class CNotification
    {
    public:
        explicit CNotification(CExchange& exchange) noexcept
            : m_exchange(exchange.weak_from_this().lock()), m_frame{ &exchange, t_innermostCallback }
        {
            t_innermostCallback = &m_frame;
            const std::lock_guard lock(exchange.m_lock);
            ++exchange.m_notifications;
        }
        ~CNotification()
        {
            t_innermostCallback = m_frame.outer;
            const std::lock_guard lock(m_exchange->m_lock);
            --m_exchange->m_notifications;
            m_exchange->m_changed.NotifyAll();
        }
        CNotification(const CNotification&) = delete;
        CNotification& operator=(const CNotification&) = delete;

    private:
        const std::shared_ptr<CExchange> m_exchange; // the lock must still be there when it has been released
        const CCallbackFrame m_frame;
    };

    struct CChunk
    {
        DWORD length;
        std::unique_ptr<BYTE[]> bytes;
    };

    static constexpr DWORD kStatusUnauthorized = 401;
    static constexpr DWORD kStatusProxyAuthenticationRequired = 407;
    static constexpr DWORD kFirstStatusWithoutBody = 300; // from here on the body is never fetched
    static constexpr HRESULT kCancelled = HResultFromWin32(ERROR_WINHTTP_OPERATION_CANCELLED);

    // With the lock held: WinHTTP still works for the answer.
    [[nodiscard]] bool IsRunning() const noexcept
    {
        return m_busy && (m_status || (m_data && m_statusCode < kFirstStatusWithoutBody));
    }
    // Whether this thread is serving a notification of this exchange.
    [[nodiscard]] bool IsInCallback() const noexcept
    {
        for (const CCallbackFrame* frame = t_innermostCallback; frame; frame = frame->outer)
            if (frame->exchange == this)
                return true;
        return false;
    }
    [[nodiscard]] bool IsAbandoned() const noexcept
    {
        const std::lock_guard lock(m_lock);
        return m_abandoned;
    }
    // What a failed call of WinHTTP means: a call on a handle that was closed meanwhile was cancelled.
    [[nodiscard]] HRESULT Reason(HRESULT hr) const noexcept
    {
        return SUCCEEDED(hr) || (!IsAbandoned() && m_request.IsOpen()) ? hr : kCancelled;
    }

    // Calls one of the handlers, which may end the exchange: IsAbandoned tells.
    template <class Handler, class... Args>
    [[nodiscard]] HRESULT CallHandler(const std::shared_ptr<const Handler>& member, Args&&... args)
    {
        std::shared_ptr<const Handler> handler; // kept here: the exchange that owns it may go
        {
            const std::lock_guard lock(m_lock);
            handler = member;
        }
        if (!handler || !*handler)
            return S_OK;
        const HRESULT hr = (*handler)(std::forward<Args>(args)...);
        return IsAbandoned() ? S_OK : hr;
    }

    // Gives the failure to whoever still waits for an answer.
    void Fail(HRESULT hr) noexcept;
    static void FailAnswers(std::optional<CVoPromise<DWORD>>& status, std::optional<CVoPromise<std::vector<BYTE>>>& data,
                            HRESULT hr) noexcept;
    // Lets go of everything that belongs to others, for a state that WinHTTP still knows and nobody waits for.
    void Abandon() noexcept;

    [[nodiscard]] HRESULT SendRequest() noexcept; // "_Send" in reports, a name that C++ keeps for itself
    [[nodiscard]] HRESULT OnCallback(DWORD status, const void* information, DWORD length);
    void OnRedirect() noexcept;
    [[nodiscard]] HRESULT OnSendrequestComplete(DWORD status, const void* information, DWORD length);
    [[nodiscard]] HRESULT OnHeadersAvailable();
    [[nodiscard]] HRESULT OnAuthenticationRequested();
    [[nodiscard]] HRESULT OnDataAvailable(const void* information, DWORD length);
    [[nodiscard]] HRESULT OnReadComplete(const void* information, DWORD length);
    [[nodiscard]] HRESULT OnRequestError(const void* information, DWORD length);
    [[nodiscard]] HRESULT OnHandleClosing(const void* information, DWORD length);
    void DeliverBody();

    // Used by the owner's thread between exchanges, and by the notifications, one at a time, during one.
    VoWinHttpInterface::WinHttpRequestHandle& m_request; // may be gone once the state is abandoned
    const void* m_body = nullptr;
    DWORD m_bodyLength = 0;
    std::vector<CChunk> m_chunks;
    std::unique_ptr<BYTE[]> m_pending; // belongs to WinHTTP during a read
    std::wstring m_url;

    mutable CVoLock m_lock; // guards what follows; never held during a call of WinHTTP or of a function from outside
    CVoCondition m_changed;
    SFunctions m_functions;
    void* m_context;
    HINTERNET m_handle = nullptr;      // as it was at Send, for comparison only
    std::shared_ptr<CExchange> m_self; // while WinHTTP has the context value
    bool m_busy = false;               // from Send until WinHTTP tells of the handle's end
    bool m_abandoned = false;
    size_t m_notifications = 0; // being served now
    DWORD m_statusCode = 0;     // of the answer; 0 until it is there
    std::optional<CVoPromise<DWORD>> m_status;
    std::optional<CVoPromise<std::vector<BYTE>>> m_data;
};

template <class T>
HRESULT CExchange<T>::SetRequestData(const void* data, DWORD length) noexcept
{
    const std::lock_guard lock(m_lock);
    if (IsRunning())
        return E_FAIL;
    m_body = data;
    m_bodyLength = length;
    return S_OK;
}

template <class T>
HRESULT CExchange<T>::Prepare(CVoFuture<DWORD>& statusFuture, CVoFuture<std::vector<BYTE>>& dataFuture)
{
    CVoPromise<DWORD> status;
    CVoPromise<std::vector<BYTE>> data;
    const std::lock_guard lock(m_lock);
    if (IsRunning())
        return E_FAIL;
    m_chunks.clear();
    m_pending.reset();
    m_url.clear();
    // An answer that nobody gave stays: somebody may wait for it.
    if (!m_status)
    {
        statusFuture = status.Future();
        m_status.emplace(std::move(status));
    }
    if (!m_data)
    {
        dataFuture = data.Future();
        m_data.emplace(std::move(data));
    }
    m_statusCode = 0;
    m_busy = true;
    return S_OK;
}

template <class T>
HRESULT CExchange<T>::Start() noexcept
{
    bool wasKnown = false; // to WinHTTP, from an earlier send
    {
        const std::lock_guard lock(m_lock);
        m_handle = m_request.Get();
        wasKnown = m_self != nullptr;
        if (!wasKnown)
            m_self = this->weak_from_this().lock();
    }
    const HRESULT hr = SendRequest();
    if (SUCCEEDED(hr))
        return hr;

    // WinHTTP may have taken the context value all the same, and may tell of the handle's end or not: take the value back.
    // Where that is impossible, an exchange that was known before will hear of the end, since its handle is closed already; any
    // other is not waited for, and its state stays for as long as WinHTTP might come back to it. A handle that WinHTTP does not
    // know cannot have taken anything.
    constexpr DWORD_PTR kNoContext = 0;
    const bool forgotten = (hr == E_HANDLE && !wasKnown) ||
                           SUCCEEDED(m_request.SetOption(WINHTTP_OPTION_CONTEXT_VALUE, &kNoContext, sizeof(kNoContext)));
    const std::shared_ptr<CExchange> keep = this->weak_from_this().lock();
    {
        const std::lock_guard lock(m_lock);
        if (forgotten)
            m_self.reset();
        if (forgotten || !wasKnown)
            m_busy = false;
        m_changed.NotifyAll();
    }
    Fail(hr);
    return hr;
}

template <class T>
HRESULT CExchange<T>::SendRequest() noexcept
{
    const HRESULT hr = m_request.Send(m_body, m_bodyLength, reinterpret_cast<DWORD_PTR>(this));
    return SUCCEEDED(hr) ? hr : kReporter<T, L"_Send">(200, hr);
}

template <class T>
HRESULT CExchange<T>::Close() noexcept
{
    const bool inCallback = IsInCallback();
    std::unique_lock lock(m_lock);
    const bool isKnown = m_busy && !m_abandoned;
    lock.unlock();
    if (inCallback)
        Abandon();
    const HRESULT hr = isKnown ? m_request.Close() : S_OK; // may serve HANDLE_CLOSING right here
    if (inCallback)
        return hr;

    lock.lock();
    if (FAILED(hr) && m_busy)
    {
        lock.unlock();
        Abandon();
        lock.lock();
    }
    m_changed.Wait(lock, [this] { return (!m_busy || m_abandoned) && m_notifications == 0; });
    // What the functions hold goes here and now: the state may live on for a moment in the notification that was the last.
    const SFunctions functions = std::exchange(m_functions, {});
    lock.unlock();
    return hr;
}

template <class T>
void CExchange<T>::Abandon() noexcept
{
    SFunctions functions; // let go without the lock
    {
        const std::lock_guard lock(m_lock);
        m_abandoned = true;
        std::swap(m_functions, functions);
        m_context = nullptr;
    }
    Fail(kCancelled);
}

template <class T>
void CExchange<T>::Fail(HRESULT hr) noexcept
{
    std::optional<CVoPromise<DWORD>> status;
    std::optional<CVoPromise<std::vector<BYTE>>> data;
    {
        const std::lock_guard lock(m_lock);
        status = std::exchange(m_status, std::nullopt);
        data = std::exchange(m_data, std::nullopt);
    }
    FailAnswers(status, data, hr);
}

template <class T>
void CExchange<T>::FailAnswers(std::optional<CVoPromise<DWORD>>& status, std::optional<CVoPromise<std::vector<BYTE>>>& data,
                               HRESULT hr) noexcept
{
    if (!status && !data)
        return;
    const std::exception_ptr failure = std::make_exception_ptr(HRESULTexc(hr));
    if (status)
        status->SetException(failure);
    if (data)
        data->SetException(failure);
}

template <class T>
void CExchange<T>::Notify(DWORD status, const void* information, DWORD length) noexcept
{
    constexpr const CVoReporter& report = kReporter<T, L"Callback">;
    const CNotification notification(*this);
    if (status != WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING && IsAbandoned())
        return;
    HRESULT hr = S_OK;
    try
    {
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

template <class T>
HRESULT CExchange<T>::OnCallback(DWORD status, const void* information, DWORD length)
{
    HRESULT hr = S_OK;
    switch (status)
    {
    case WINHTTP_CALLBACK_STATUS_RESOLVING_NAME:
    case WINHTTP_CALLBACK_STATUS_REDIRECT:
        m_url = information ? static_cast<const wchar_t*>(information) : L"";
        if (status == WINHTTP_CALLBACK_STATUS_REDIRECT)
            OnRedirect();
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
    return SUCCEEDED(hr) ? hr : kReporter<T, L"OnCallback">(240, hr);
}

template <class T>
void CExchange<T>::OnRedirect() noexcept
{
    constexpr const CVoReporter& report = kReporter<T, L"OnRedirect">;
    HRESULT hr = S_OK;
    try
    {
        hr = CallHandler(m_functions.redirect, std::as_const(m_url));
        if (SUCCEEDED(hr))
            return;
        report(244, hr);
    }
    catch (...)
    {
        hr = report.CurrentException(247);
    }
    if (IsAbandoned())
        return;
    // Only a closed handle keeps WinHTTP from following the redirect. Closing it tells of a cancellation, which is not what
    // happened: the answers are taken out before.
    std::optional<CVoPromise<DWORD>> status;
    std::optional<CVoPromise<std::vector<BYTE>>> data;
    {
        const std::lock_guard lock(m_lock);
        status = std::exchange(m_status, std::nullopt);
        data = std::exchange(m_data, std::nullopt);
    }
    if (const HRESULT closed = m_request.Close(); FAILED(closed))
        report(251, closed);
    // From here on the exchange may be sent again: nothing of it is touched any more.
    FailAnswers(status, data, hr);
}

template <class T>
HRESULT CExchange<T>::OnSendrequestComplete(DWORD status, const void* information, DWORD length)
{
    constexpr const CVoReporter& report = kReporter<T, L"OnSendrequestComplete">;
    if (const HRESULT hr = CallHandler(m_functions.sendComplete, status, const_cast<void*>(information), length); FAILED(hr))
        return report(260, hr);
    if (IsAbandoned())
        return S_OK;
    const HRESULT hr = Reason(m_request.ReceiveResponse());
    return SUCCEEDED(hr) ? hr : report(264, hr);
}

template <class T>
HRESULT CExchange<T>::OnHeadersAvailable()
{
    constexpr const CVoReporter& report = kReporter<T, L"OnHeadersAvailable">;
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
        status = std::exchange(m_status, std::nullopt);
    }
    // From the next line on, an exchange without a body may be sent again: nothing of it is touched after that.
    if (status)
        status->SetValue(code);
    if (code >= kFirstStatusWithoutBody)
        return S_OK;
    const HRESULT hr = Reason(m_request.QueryDataAvailable());
    return SUCCEEDED(hr) ? hr : report(292, hr);
}

template <class T>
HRESULT CExchange<T>::OnAuthenticationRequested()
{
    constexpr const CVoReporter& report = kReporter<T, L"OnAuthenticationRequested">;
    std::shared_ptr<const AuthenticationFunction> authenticate; // kept here: the function may end the exchange that owns it
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
    if (const HRESULT set = Reason(m_request.SetCredentials(target, chosen, user.Get().c_str(), password.Get().c_str()));
        FAILED(set))
        return report(324, set);
    const HRESULT sent = Reason(SendRequest());
    return SUCCEEDED(sent) ? sent : report(326, sent);
}

template <class T>
HRESULT CExchange<T>::OnDataAvailable(const void* information, DWORD length)
{
    constexpr const CVoReporter& report = kReporter<T, L"OnDataAvailable">;
    if (!information || length != sizeof(DWORD))
        return report(336, E_FAIL);
    const DWORD count = *static_cast<const DWORD*>(information);
    if (count > MAXLONG) // a negative count: nothing has received that much at once
        return report(340, E_FAIL);
    if (count == 0)
    {
        DeliverBody();
        return S_OK;
    }
    m_pending.reset(new (std::nothrow) BYTE[count]);
    if (!m_pending)
        return report(346, E_OUTOFMEMORY);
    const HRESULT hr = Reason(m_request.ReadData(m_pending.get(), count));
    return SUCCEEDED(hr) ? hr : report(350, hr);
}

template <class T>
void CExchange<T>::DeliverBody()
{
    size_t total = 0;
    for (const CChunk& chunk : m_chunks)
        total += chunk.length;
    std::vector<BYTE> body;
    body.reserve(total);
    for (CChunk& chunk : m_chunks)
    {
        body.insert(body.end(), chunk.bytes.get(), chunk.bytes.get() + chunk.length);
        chunk.bytes.reset(); // at once: the body is in memory twice at most
    }
    m_chunks.clear();
    std::optional<CVoPromise<std::vector<BYTE>>> data;
    {
        const std::lock_guard lock(m_lock);
        data = std::exchange(m_data, std::nullopt);
    }
    // From here on the exchange may be sent again: nothing of it is touched any more.
    if (data)
        data->SetValue(std::move(body));
}

template <class T>
HRESULT CExchange<T>::OnReadComplete(const void* information, DWORD length)
{
    constexpr const CVoReporter& report = kReporter<T, L"OnReadComplete">;
    std::unique_ptr<BYTE[]> bytes = std::move(m_pending);
    // A buffer that is not the exchange's own is nobody's to free here.
    if (!bytes || information != bytes.get())
        return report(384, E_FAIL);
    if (length == 0)
        return S_OK; // cannot be after an announcement; the exchange then rests until it is closed
    m_chunks.push_back({ length, std::move(bytes) });
    if (const HRESULT hr = CallHandler(m_functions.receive, length); FAILED(hr))
        return report(388, hr);
    if (IsAbandoned())
        return S_OK;
    const HRESULT hr = Reason(m_request.QueryDataAvailable());
    return SUCCEEDED(hr) ? hr : report(390, hr);
}

template <class T>
HRESULT CExchange<T>::OnRequestError(const void* information, DWORD length)
{
    constexpr const CVoReporter& report = kReporter<T, L"OnRequestError">;
    if (!information || length != sizeof(WINHTTP_ASYNC_RESULT))
        return report(400, E_FAIL);
    const auto& result = *static_cast<const WINHTTP_ASYNC_RESULT*>(information);
    report.Message(404, L"Error function: %llu   Error code: %lu", static_cast<unsigned long long>(result.dwResult),
                   result.dwError);
    return report(406, HResultFromWin32(result.dwError));
}

template <class T>
HRESULT CExchange<T>::OnHandleClosing(const void* information, DWORD length)
{
    bool isValid = length == sizeof(HINTERNET);
    {
        const std::lock_guard lock(m_lock);
        isValid = isValid || (information && information == m_handle);
    }
    Fail(isValid ? kCancelled : E_FAIL);
    // This is WinHTTP's last word in any case; a waiting Clear must go on. The notification being served keeps the state.
    {
        const std::lock_guard lock(m_lock);
        m_busy = false;
        m_self.reset();
    }
    return isValid ? S_OK : kReporter<T, L"OnHandleClosing">(424, E_FAIL);
}
} // namespace Detail
} // namespace VoWinHttpRequest
