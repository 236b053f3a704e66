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

#include <VoWinHttpExchange.h>

namespace VoWinHttpRequest
{
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
    // Empty: none. E_FAIL before Init and while an exchange runs.
    virtual HRESULT SetRedirectHandler(RedirectHandler handler) noexcept = 0;
    // Empty: none. E_FAIL before Init and while an exchange runs.
    virtual HRESULT SetReceiveHandler(ReceiveHandler handler) noexcept = 0;

    virtual ~IVoWinHttpRequest() = default;
    IVoWinHttpRequest(const IVoWinHttpRequest&) = delete;
    IVoWinHttpRequest& operator=(const IVoWinHttpRequest&) = delete;

protected:
    IVoWinHttpRequest() = default;
};

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
    DWORD GetStatusCode() override { return Take(m_status).Get(); }
    std::vector<BYTE> GetResponseData() override { return Take(m_data).Get(); }
    HRESULT SetSendCompleteHandler(SendCompleteHandler handler) noexcept override;
    HRESULT SetRedirectHandler(RedirectHandler handler) noexcept override;
    HRESULT SetReceiveHandler(ReceiveHandler handler) noexcept override;

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
    template <auto kMember, class Handler>
    [[nodiscard]] HRESULT SetHandler(Handler handler, const CVoReporter& report, int line) noexcept;
    template <class Value>
    [[nodiscard]] CVoFuture<Value> Take(CVoFuture<Value>& future)
    {
        const std::lock_guard lock(m_lock);
        return std::move(future);
    }

    mutable CVoLock m_lock;                // taken before the exchange's own
    std::shared_ptr<CExchange> m_exchange; // null: not initialised
    CVoFuture<DWORD> m_status;             // the results outlive the exchange
    CVoFuture<std::vector<BYTE>> m_data;
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
        m_status = {};
        m_data = {};
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
    return SetHandler<&CExchange::SFunctions::sendComplete>(std::move(handler), Detail::kReporter<T, L"SetSendCompleteHandler">,
                                                            176);
}

template <class T>
HRESULT CVoWinHttpRequest<T>::SetRedirectHandler(RedirectHandler handler) noexcept
{
    return SetHandler<&CExchange::SFunctions::redirect>(std::move(handler), Detail::kReporter<T, L"SetRedirectHandler">, 182);
}

template <class T>
HRESULT CVoWinHttpRequest<T>::SetReceiveHandler(ReceiveHandler handler) noexcept
{
    return SetHandler<&CExchange::SFunctions::receive>(std::move(handler), Detail::kReporter<T, L"SetReceiveHandler">, 190);
}

template <class T>
template <auto kMember, class Handler>
HRESULT CVoWinHttpRequest<T>::SetHandler(Handler handler, const CVoReporter& report, int line) noexcept
try
{
    const std::shared_ptr<CExchange> exchange = Current();
    const HRESULT hr =
        exchange ? exchange->template SetHandler<kMember>(std::make_shared<const Handler>(std::move(handler))) : E_FAIL;
    return SUCCEEDED(hr) ? hr : report(line, hr);
}
catch (...)
{
    return report.CurrentException(line + 4);
}
} // namespace VoWinHttpRequest
