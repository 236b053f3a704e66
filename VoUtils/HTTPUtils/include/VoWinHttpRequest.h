// One asynchronous HTTP exchange on a WinHTTP request handle.
//
//     CVoWinHttpRequest<CVoWinHttpPostRequest> exchange;
//     exchange.Init(&request, authenticate, context);
//     exchange.SetRequestData(body.data(), length);
//     exchange.Send();
//     if (exchange.GetStatusCode() == 200) // both throw HRESULTexc where the exchange failed
//         Use(exchange.GetResponseData());
//
// Brings winhttp.h in, which does not go together with wininet.h: include it in source files of the WinHTTP side only.
#pragma once

#include <VoWinHttpInterface.h>

#include <base/VoErrorHandler.h>
#include <base/VoHResult.h>
#include <base/VoPlatform.h>
#include <base/VoWipe.h>

#include <array>
#include <charconv>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VoWinHttpRequest
{
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

class IVoWinHttpRequest
{
public:
    // Clears what was before and ties the exchange to a request handle, which is not owned: it must outlive the exchange, or
    // the next Clear. A handle serves one exchange at a time: one whose last exchange has been sent and not cleared is refused
    // with HRESULT_FROM_WIN32(ERROR_BUSY). `authenticate` may be empty: then a 401 or 407 ends the exchange with E_FAIL.
    // E_POINTER without a handle.
    virtual HRESULT Init(VoWinHttpInterface::WinHttpRequestHandle* request, AuthenticationFunction authenticate,
                         void* context) noexcept = 0;
    // The request's body, for every send from now on; none by default. Not copied: it must stay until the exchange has ended.
    // E_FAIL before Init and while an exchange runs.
    virtual HRESULT SetRequestData(const void* data, DWORD length) noexcept = 0;
    // Ends the exchange in whatever state it is, gives waiting callers HRESULT 0x80072EF1 (ERROR_WINHTTP_OPERATION_CANCELLED),
    // and forgets handle, body and functions. After a Send it closes the request handle, also when the exchange has ended, and
    // returns when WinHTTP has told that it uses nothing any more; called by one of the exchange's own functions it returns at
    // once. E_FAIL when the handle could not be closed; the exchange is cleared all the same. S_OK when there is nothing to
    // clear.
    virtual HRESULT Clear() noexcept = 0;
    // Starts the exchange and returns; the body is read without being asked for. E_FAIL before Init and while an exchange runs.
    // It may be called again, for a retry on the same handle, once the previous exchange has ended: its body has been read
    // whole, or its status is 300 or above, or it has failed.
    // Any failure is also what GetStatusCode and GetResponseData give, except that of an exchange that runs on.
    virtual HRESULT Send() noexcept = 0;
    // Waits for the status of the answer. Throws HRESULTexc when the exchange failed, and std::future_error when nothing has
    // been sent (no_state) or the status of this send was taken already (future_already_retrieved).
    virtual DWORD GetStatusCode() = 0;
    // Waits for the whole body and gives it away; throws as GetStatusCode does. Below a status of 300 only: above, no body is
    // read, and the call waits until the exchange is closed, which gives HRESULTexc(0x80072EF1).
    virtual std::vector<BYTE> GetResponseData() = 0;
    // Empty: none. E_FAIL before Init and while an exchange runs.
    virtual HRESULT SetSendCompleteHandler(SendCompleteHandler handler) noexcept = 0;

    virtual ~IVoWinHttpRequest() = default;
    IVoWinHttpRequest(const IVoWinHttpRequest&) = delete;
    IVoWinHttpRequest& operator=(const IVoWinHttpRequest&) = delete;

protected:
    IVoWinHttpRequest() = default;
};

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

// The giving half of a one-shot answer. Whoever gives it takes the promise out first, under the exchange's lock: the value then
// reaches the waiting thread from a promise of the giver's own, which that thread cannot pull away by going on.
template <class Value>
class CAnswer
{
public:
    [[nodiscard]] bool IsOpen() const noexcept { return m_promise.has_value(); }
    void Open(std::promise<Value> promise) noexcept { m_promise.emplace(std::move(promise)); }
    [[nodiscard]] std::optional<std::promise<Value>> Take() noexcept { return std::exchange(m_promise, std::nullopt); }

private:
    std::optional<std::promise<Value>> m_promise;
};

// The taking half: one value per send.
template <class Value>
class CAnswerFuture
{
public:
    void Reset() noexcept { *this = {}; }
    void Set(std::future<Value> future) noexcept
    {
        m_future = std::move(future);
        m_wasSet = true;
    }
    // Throws std::future_error.
    [[nodiscard]] std::future<Value> Take()
    {
        if (!m_future.valid())
            throw std::future_error(m_wasSet ? std::future_errc::future_already_retrieved : std::future_errc::no_state);
        return std::move(m_future);
    }

private:
    std::future<Value> m_future;
    bool m_wasSet = false;
};

// The state of an exchange, from Init to Clear: what WinHTTP's context value points to. While WinHTTP has that value the state
// owns itself.
template <class T>
class CExchange : public std::enable_shared_from_this<CExchange<T>>
{
public:
    CExchange(VoWinHttpInterface::WinHttpRequestHandle& request, AuthenticationFunction authenticate, void* context)
        : m_request(request), m_authenticate(std::make_shared<const AuthenticationFunction>(std::move(authenticate))),
          m_context(context)
    {
    }
    CExchange(const CExchange&) = delete;
    CExchange& operator=(const CExchange&) = delete;

    [[nodiscard]] HRESULT SetRequestData(const void* data, DWORD length) noexcept;
    [[nodiscard]] HRESULT SetSendCompleteHandler(std::shared_ptr<const SendCompleteHandler> handler) noexcept;
    // Makes ready for a send: fresh promises where the last ones were used, with their futures put in place. E_FAIL while an
    // exchange runs. Throws std::bad_alloc with nothing changed.
    [[nodiscard]] HRESULT Prepare(CAnswerFuture<DWORD>& statusFuture, CAnswerFuture<std::vector<BYTE>>& dataFuture);
    // Sends what was made ready.
    [[nodiscard]] HRESULT Start() noexcept;
    // Ends the exchange; see IVoWinHttpRequest::Clear.
    [[nodiscard]] HRESULT Close() noexcept;

    void Notify(DWORD status, const void* information, DWORD length) noexcept;

private:
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
            m_exchange->m_changed.notify_all();
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
        return m_busy && (m_status.IsOpen() || (m_data.IsOpen() && m_statusCode < kFirstStatusWithoutBody));
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

    // Gives the failure to whoever still waits for an answer.
    void Fail(HRESULT hr) noexcept;
    // Lets go of everything that belongs to others, for a state that WinHTTP still knows and nobody waits for.
    void Abandon() noexcept;

    [[nodiscard]] HRESULT SendRequest() noexcept; // "_Send" in reports, a name that C++ keeps for itself
    [[nodiscard]] HRESULT OnCallback(DWORD status, const void* information, DWORD length);
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

    mutable std::mutex m_lock; // guards what follows; never held during a call of WinHTTP or of a function from outside
    std::condition_variable m_changed;
    std::shared_ptr<const AuthenticationFunction> m_authenticate;
    std::shared_ptr<const SendCompleteHandler> m_sendComplete;
    void* m_context;
    HINTERNET m_handle = nullptr;      // as it was at Send, for comparison only
    std::shared_ptr<CExchange> m_self; // while WinHTTP has the context value
    bool m_busy = false;               // from Send until WinHTTP tells of the handle's end
    bool m_abandoned = false;
    size_t m_notifications = 0; // being served now
    DWORD m_statusCode = 0;     // of the answer; 0 until it is there
    CAnswer<DWORD> m_status;
    CAnswer<std::vector<BYTE>> m_data;
};
} // namespace Detail

// An answer does not close the request handle: the exchange ends with its body, its status or its failure (see Send), and yet
// WinHTTP knows of it until the handle is closed, by Clear or by the handle's owner.
//
// How callers are protected: the handle's time-outs bound every wait for the server, and closing the handle ends every wait
// with 0x80072EF1. One case has neither bound: when the authentication function chooses a scheme that the server does not
// offer, the exchange rests, and GetStatusCode waits until somebody closes it. A function that has nothing to offer fails
// instead.
//
// Threads: one at a time calls Init, Send and the setters; any thread calls Clear and the get functions at any time. The object
// may be destroyed in every state, by any thread, while no other thread is in one of its functions; its own callbacks may do
// it.
//
// The context value that WinHTTP keeps is the exchange's state, an object of its own that lives until WinHTTP has told of the
// handle's end (HANDLE_CLOSING), whatever becomes of this object. Clear waits for that end, except inside a callback of the
// exchange, where it would wait for itself, and where the handle cannot be closed: then the state is abandoned, ignores what
// comes, and goes with the handle.
template <class T>
class CVoWinHttpRequest final : public IVoWinHttpRequest
{
public:
    CVoWinHttpRequest() = default;
    // Clears.
    ~CVoWinHttpRequest() override { Clear(); }

    HRESULT Init(VoWinHttpInterface::WinHttpRequestHandle* request, AuthenticationFunction authenticate,
                 void* context) noexcept override;
    HRESULT SetRequestData(const void* data, DWORD length) noexcept override;
    HRESULT Clear() noexcept override;
    HRESULT Send() noexcept override;
    DWORD GetStatusCode() override { return Take(m_status).get(); }
    std::vector<BYTE> GetResponseData() override { return Take(m_data).get(); }
    HRESULT SetSendCompleteHandler(SendCompleteHandler handler) noexcept override;

    // What Init registers with WinHTTP. A context of 0, as before the first Send, is ignored.
    static void CALLBACK Callback(HINTERNET /*handle*/, DWORD_PTR context, DWORD status, void* information,
                                  DWORD length) noexcept
    {
        if (context != 0)
            reinterpret_cast<CExchange*>(context)->Notify(status, information, length);
    }

private:
    using CExchange = Detail::CExchange<T>;

    [[nodiscard]] std::shared_ptr<CExchange> Current() const noexcept
    {
        const std::lock_guard lock(m_lock);
        return m_exchange;
    }
    template <class Value>
    [[nodiscard]] std::future<Value> Take(Detail::CAnswerFuture<Value>& future)
    {
        const std::lock_guard lock(m_lock);
        return future.Take();
    }

    mutable std::mutex m_lock;                       // taken before the exchange's own
    std::shared_ptr<CExchange> m_exchange;           // null: not initialised
    Detail::CAnswerFuture<DWORD> m_status;           // the answers outlive the exchange
    Detail::CAnswerFuture<std::vector<BYTE>> m_data; //
};

template <class T>
HRESULT CVoWinHttpRequest<T>::Init(VoWinHttpInterface::WinHttpRequestHandle* request, AuthenticationFunction authenticate,
                                   void* context) noexcept
{
    constexpr const CVoReporter& report = Detail::kReporter<T, L"Init">;
    if (!request)
        return report(100, E_POINTER);
    if (const HRESULT hr = Clear(); FAILED(hr))
        return report(104, hr);
    try
    {
        // A second exchange would take the context value of the first, which then would never hear of the handle's end.
        DWORD_PTR known = 0;
        DWORD length = sizeof(known);
        if (request->IsOpen() && SUCCEEDED(request->QueryOption(WINHTTP_OPTION_CONTEXT_VALUE, &known, length)) && known != 0)
            return report(108, HResultFromWin32(ERROR_BUSY));

        auto exchange = std::make_shared<CExchange>(*request, std::move(authenticate), context);
        if (const HRESULT hr = request->SetStatusCallback(&Callback, WINHTTP_CALLBACK_FLAG_ALL_NOTIFICATIONS); FAILED(hr))
            return report(112, hr);
        const std::lock_guard lock(m_lock);
        m_exchange = std::move(exchange);
        m_status.Reset();
        m_data.Reset();
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(118);
    }
}

template <class T>
HRESULT CVoWinHttpRequest<T>::SetRequestData(const void* data, DWORD length) noexcept
{
    const std::shared_ptr<CExchange> exchange = Current();
    const HRESULT hr = exchange ? exchange->SetRequestData(data, length) : E_FAIL;
    return SUCCEEDED(hr) ? hr : Detail::kReporter<T, L"SetRequestData">(130, hr);
}

template <class T>
HRESULT CVoWinHttpRequest<T>::Clear() noexcept
{
    const std::shared_ptr<CExchange> exchange = Current();
    if (!exchange)
        return S_OK;
    const HRESULT hr = exchange->Close();
    {
        const std::lock_guard lock(m_lock);
        if (m_exchange == exchange)
            m_exchange.reset();
    }
    return SUCCEEDED(hr) ? hr : Detail::kReporter<T, L"Clear">(144, E_FAIL);
}

template <class T>
HRESULT CVoWinHttpRequest<T>::Send() noexcept
{
    constexpr const CVoReporter& report = Detail::kReporter<T, L"Send">;
    try
    {
        std::shared_ptr<CExchange> exchange;
        {
            const std::lock_guard lock(m_lock);
            exchange = m_exchange;
            if (const HRESULT hr = exchange ? exchange->Prepare(m_status, m_data) : E_FAIL; FAILED(hr))
                return report(156, hr);
        }
        const HRESULT hr = exchange->Start();
        return SUCCEEDED(hr) ? hr : report(160, hr);
    }
    catch (...)
    {
        return report.CurrentException(164);
    }
}

template <class T>
HRESULT CVoWinHttpRequest<T>::SetSendCompleteHandler(SendCompleteHandler handler) noexcept
{
    constexpr const CVoReporter& report = Detail::kReporter<T, L"SetSendCompleteHandler">;
    try
    {
        const std::shared_ptr<CExchange> exchange = Current();
        const HRESULT hr =
            exchange ? exchange->SetSendCompleteHandler(std::make_shared<const SendCompleteHandler>(std::move(handler)))
                     : E_FAIL;
        return SUCCEEDED(hr) ? hr : report(176, hr);
    }
    catch (...)
    {
        return report.CurrentException(180);
    }
}

namespace Detail
{
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
HRESULT CExchange<T>::SetSendCompleteHandler(std::shared_ptr<const SendCompleteHandler> handler) noexcept
{
    const std::lock_guard lock(m_lock);
    if (IsRunning())
        return E_FAIL;
    m_sendComplete.swap(handler);
    return S_OK;
}

template <class T>
HRESULT CExchange<T>::Prepare(CAnswerFuture<DWORD>& statusFuture, CAnswerFuture<std::vector<BYTE>>& dataFuture)
{
    std::promise<DWORD> status;
    std::promise<std::vector<BYTE>> data;
    const std::lock_guard lock(m_lock);
    if (IsRunning())
        return E_FAIL;
    m_chunks.clear();
    m_pending.reset();
    m_url.clear();
    // An answer that nobody gave stays: somebody may wait for it.
    if (!m_status.IsOpen())
    {
        statusFuture.Set(status.get_future());
        m_status.Open(std::move(status));
    }
    if (!m_data.IsOpen())
    {
        dataFuture.Set(data.get_future());
        m_data.Open(std::move(data));
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
        m_changed.notify_all();
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
    m_changed.wait(lock, [this] { return (!m_busy || m_abandoned) && m_notifications == 0; });
    // What the functions hold goes here and now: the state may live on for a moment in the notification that was the last.
    const std::shared_ptr<const AuthenticationFunction> authenticate = std::move(m_authenticate);
    const std::shared_ptr<const SendCompleteHandler> sendComplete = std::move(m_sendComplete);
    lock.unlock();
    return hr;
}

template <class T>
void CExchange<T>::Abandon() noexcept
{
    std::shared_ptr<const AuthenticationFunction> authenticate;
    std::shared_ptr<const SendCompleteHandler> sendComplete;
    {
        const std::lock_guard lock(m_lock);
        m_abandoned = true;
        m_authenticate.swap(authenticate);
        m_sendComplete.swap(sendComplete);
        m_context = nullptr;
    }
    Fail(kCancelled);
}

template <class T>
void CExchange<T>::Fail(HRESULT hr) noexcept
{
    std::optional<std::promise<DWORD>> status;
    std::optional<std::promise<std::vector<BYTE>>> data;
    {
        const std::lock_guard lock(m_lock);
        status = m_status.Take();
        data = m_data.Take();
    }
    if (!status && !data)
        return;
    const std::exception_ptr failure = std::make_exception_ptr(HRESULTexc(hr));
    if (status)
        status->set_exception(failure);
    if (data)
        data->set_exception(failure);
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
HRESULT CExchange<T>::OnSendrequestComplete(DWORD status, const void* information, DWORD length)
{
    constexpr const CVoReporter& report = kReporter<T, L"OnSendrequestComplete">;
    std::shared_ptr<const SendCompleteHandler> handler; // kept here: the handler may end the exchange that owns it
    {
        const std::lock_guard lock(m_lock);
        handler = m_sendComplete;
    }
    if (handler && *handler)
    {
        const HRESULT hr = (*handler)(status, const_cast<void*>(information), length);
        if (IsAbandoned())
            return S_OK;
        if (FAILED(hr))
            return report(260, hr);
    }
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

    std::optional<std::promise<DWORD>> status;
    {
        const std::lock_guard lock(m_lock);
        m_statusCode = code;
        status = m_status.Take();
    }
    // From the next line on, an exchange without a body may be sent again: nothing of it is touched after that.
    if (status)
        status->set_value(code);
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
        authenticate = m_authenticate;
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
    std::optional<std::promise<std::vector<BYTE>>> data;
    {
        const std::lock_guard lock(m_lock);
        data = m_data.Take();
    }
    // From here on the exchange may be sent again: nothing of it is touched any more.
    if (data)
        data->set_value(std::move(body));
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
