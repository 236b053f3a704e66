// The state machine of one WinHTTP exchange. It serves WinHTTP's notifications and sets the promises that the caller's thread
// waits for. CVoWinHttpRequest uses it; callers do not include it.
#pragma once

#include "VoWinHttpCredentials.h"

#include <VoWinHttpInterface.h>
#include <VoWinHttpTypes.h>

#include <base/VoErrorHandler.h>
#include <base/VoLock.h>
#include <base/VoPlatform.h>
#include <base/VoPromise.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace VoWinHttpRequest
{
// A CVoReporter whose function name has two parts: the class, which depends on the tag, and the function. They are joined only
// when a report is written.
class CExchangeReporter
{
public:
    // All texts are literals.
    constexpr CExchangeReporter(const wchar_t* source, const wchar_t* className, const wchar_t* function) noexcept
        : m_source(source), m_className(className), m_function(function)
    {
    }

    // See CVoReporter.
    HRESULT operator()(int line, HRESULT code) const noexcept
    {
        if (!VoReportDetail::IsUnheard())
            Write(line, code);
        return code;
    }
    HRESULT CurrentException(int line) const noexcept { return (*this)(line, HResultFromCurrentException()); }
    template <class... Args>
    void Message(int line, const wchar_t* format, Args... args) const noexcept
    {
        VoReportMessage(m_source, line, format, args...);
    }

private:
    void Write(int line, HRESULT code) const noexcept;

    const wchar_t* m_source;
    const wchar_t* m_className;
    const wchar_t* m_function;
};

// The state of an exchange from Init to Clear. Its address is the context value that WinHTTP keeps; while WinHTTP has the
// value, the state holds a reference to itself.
class CExchange : public std::enable_shared_from_this<CExchange>
{
public:
    // `className`: the class in reports, a literal.
    CExchange(const wchar_t* className, VoWinHttpInterface::WinHttpRequestHandle& request, AuthenticationFunction authenticate,
              void* context)
        : m_className(className), m_request(request),
          m_functions{ .authenticate = std::make_shared<const AuthenticationFunction>(std::move(authenticate)) },
          m_context(context)
    {
    }
    CExchange(const CExchange&) = delete;
    CExchange& operator=(const CExchange&) = delete;

    // The functions that the owner set; null when not set. They are shared, so that a function survives an exchange that it
    // destroys.
    struct CFunctions
    {
        std::shared_ptr<const AuthenticationFunction> authenticate = nullptr;
        std::shared_ptr<const SendCompleteHandler> sendComplete = nullptr;
        std::shared_ptr<const ReceiveHandler> receive = nullptr;
        std::shared_ptr<const NotificationHandler> notification = nullptr;
    };

    [[nodiscard]] HRESULT SetRequestData(const void* data, DWORD length) noexcept;
    // Replaces one of the functions. E_FAIL while an exchange runs.
    template <class Function>
    [[nodiscard]] HRESULT SetFunction(std::shared_ptr<const Function> CFunctions::* member,
                                      std::shared_ptr<const Function> function) noexcept
    {
        const std::lock_guard lock(m_lock);
        if (IsRunning())
            return E_FAIL;
        (m_functions.*member).swap(function);
        return S_OK;
    }
    // See IVoWinHttpRequest. Throws std::bad_alloc.
    [[nodiscard]] HRESULT SetCredentials(DWORD target, DWORD scheme, const std::wstring& user, const std::wstring& password);
    [[nodiscard]] HRESULT SetReportChain(CVoReportChain* chain) noexcept;
    [[nodiscard]] HRESULT SetBodyLimit(UINT64 bytes) noexcept;
    [[nodiscard]] HRESULT SetReadsPieces(bool readsPieces) noexcept;
    // Asks for the next piece of a body (IVoWinHttpRequest::ReadPiece), which the future of the last piece, or of Prepare,
    // gives. `next` becomes the future of the piece behind it. When the exchange has ended nothing is asked for: the future
    // has the failure. Throws std::bad_alloc.
    void StartPiece(CVoFuture<std::vector<BYTE>>& next);
    // Starts reading a body that the exchange itself does not read; see IVoWinHttpRequest::ReadErrorBody.
    [[nodiscard]] HRESULT StartErrorBody(UINT32 maximumBytes) noexcept;
    // Prepares a send: makes a new promise for each that was set, and stores its future. E_FAIL while an exchange runs. Throws
    // std::bad_alloc and changes nothing then.
    [[nodiscard]] HRESULT Prepare(CVoFuture<DWORD>& statusFuture, CVoFuture<std::vector<BYTE>>& dataFuture);
    // Sends the request. Call it after Prepare.
    [[nodiscard]] HRESULT Start() noexcept;
    // Ends the exchange; see IVoWinHttpRequest::Clear.
    [[nodiscard]] HRESULT Close() noexcept;

    // Serves a notification of WinHTTP.
    void Notify(DWORD status, const void* information, DWORD length) noexcept;

private:
    // Exists while a notification is served: Close waits for its end, and the exchange recognises its thread.
    class CNotification
    {
    public:
        explicit CNotification(CExchange& exchange) noexcept;
        ~CNotification();
        CNotification(const CNotification&) = delete;
        CNotification& operator=(const CNotification&) = delete;

        // What the owner had set when the notification came.
        [[nodiscard]] bool IsAbandoned() const noexcept { return m_isAbandoned; }
        [[nodiscard]] CVoReportChain* Chain() const noexcept { return m_chain; }
        [[nodiscard]] const NotificationHandler* Handler() const noexcept { return m_handler.get(); }

        // Whether this thread is serving a notification of the exchange.
        [[nodiscard]] static bool IsInside(const CExchange& exchange) noexcept;

    private:
        const std::shared_ptr<CExchange> m_exchange; // keeps the lock until it has been released
        const DWORD m_thread;
        CNotification* m_next = nullptr; // of the exchange's notifications
        bool m_isAbandoned = false;
        CVoReportChain* m_chain = nullptr;
        std::shared_ptr<const NotificationHandler> m_handler;
    };

    struct CChunk
    {
        DWORD length;
        std::unique_ptr<BYTE[]> bytes;
    };

    struct CPromises
    {
        std::optional<CVoPromise<DWORD>> status;
        std::optional<CVoPromise<std::vector<BYTE>>> data;     // of the body, or of its next piece
        std::optional<CVoPromise<std::vector<BYTE>>> nextData; // of the piece behind that one

        void SetException(HRESULT hr) noexcept;
    };

    [[nodiscard]] CExchangeReporter Reporter(const wchar_t* function) const noexcept;

    // Whether WinHTTP still works on the response. Call it with the lock held.
    [[nodiscard]] bool IsRunning() const noexcept;
    [[nodiscard]] bool IsAbandoned() const noexcept { return m_abandoned.load(std::memory_order_acquire); }
    // Maps the result of a call of WinHTTP: a failed call on a handle that was closed meanwhile was cancelled.
    [[nodiscard]] HRESULT Reason(HRESULT hr) const noexcept;

    // Calls one of the functions if it is set. The function may end the exchange: check IsAbandoned afterwards.
    template <class Function, class... Args>
    [[nodiscard]] HRESULT Call(std::shared_ptr<const Function> CFunctions::* member, Args&&... args)
    {
        std::shared_ptr<const Function> function; // keeps it alive when the exchange is destroyed
        {
            const std::lock_guard lock(m_lock);
            function = m_functions.*member;
        }
        if (!function || !*function)
            return S_OK;
        const HRESULT hr = (*function)(std::forward<Args>(args)...);
        return IsAbandoned() ? S_OK : hr;
    }

    // The promises that are not set yet. Take a promise out before setting it: the woken thread may send again and replace it.
    [[nodiscard]] CPromises TakePromises() noexcept;
    // Sets the failure in the promises that are not set yet.
    void Fail(HRESULT hr) noexcept;
    // Drops everything that belongs to the owner, when WinHTTP may still call and Close cannot wait for the end.
    void Abandon() noexcept;

    [[nodiscard]] HRESULT SendRequest() noexcept; // "_Send" in reports; C++ reserves that name
    // Sends again after ERROR_WINHTTP_RESEND_REQUEST, which `hr` is. Returns `hr` when that is not possible.
    [[nodiscard]] HRESULT Resend(HRESULT hr) noexcept;
    [[nodiscard]] HRESULT OnCallback(DWORD status, const void* information, DWORD length);
    [[nodiscard]] HRESULT OnSendrequestComplete(DWORD status, const void* information, DWORD length);
    [[nodiscard]] HRESULT OnHeadersAvailable();
    [[nodiscard]] HRESULT OnAuthenticationRequested();
    [[nodiscard]] HRESULT OnDataAvailable(const void* information, DWORD length);
    [[nodiscard]] HRESULT OnReadComplete(const void* information, DWORD length);
    [[nodiscard]] HRESULT OnRequestError(const void* information, DWORD length);
    [[nodiscard]] HRESULT OnHandleClosing(const void* information, DWORD length);
    void DeliverBody();
    void DeliverPiece(std::vector<BYTE> piece) noexcept;
    // Makes room for the whole body, once it turns out to be long and its length is known.
    void MakeRoom();
    // Appends the chunks to m_joined, whose capacity becomes `capacity` at least.
    void JoinChunks(size_t capacity);

    // The owner's thread uses these between exchanges; during an exchange its notifications do, one at a time.
    const wchar_t* const m_className;
    VoWinHttpInterface::WinHttpRequestHandle& m_request; // may be destroyed once the state is abandoned
    const void* m_body = nullptr;
    DWORD m_bodyLength = 0;
    std::vector<BYTE> m_joined;   // the beginning of the body, with room for the rest
    std::vector<CChunk> m_chunks; // what comes behind it
    UINT64 m_received = 0;        // bytes of the body
    bool m_hasMadeRoom = false;
    bool m_readsPieces = false;
    UINT64 m_bodyLimit = 0;            // 0: none
    bool m_cutsBody = false;           // a body that reaches the limit ends there
    CVoReportChain* m_chain = nullptr; // null: none
    std::unique_ptr<BYTE[]> m_pending; // WinHTTP writes to it during a read
    std::wstring m_url;
    CExchangeCredentials m_credentials;
    DWORD m_resends = 0; // of this send

    mutable CVoLock m_lock; // guards the following; not held during calls of WinHTTP and of the functions
    CVoCondition m_changed;
    CFunctions m_functions;
    void* m_context;
    HINTERNET m_handle = nullptr;             // the value at Send, for comparison only
    std::shared_ptr<CExchange> m_self;        // set while WinHTTP has the context value
    bool m_busy = false;                      // from Send until WinHTTP has reported the end of the handle
    std::atomic<bool> m_abandoned{ false };   // written under the lock
    CNotification* m_notifications = nullptr; // that are being served, the newest first
    size_t m_closers = 0;                     // threads that wait in Close
    DWORD m_statusCode = 0;                   // of the response; 0 until it is known
    CPromises m_promises;
};
} // namespace VoWinHttpRequest
