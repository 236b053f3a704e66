// One asynchronous HTTP exchange on a WinHTTP request handle. The WinHTTP transport makes one for each send.
//
//     CVoWinHttpRequest<CVoWinHttpPostRequest> exchange;
//     exchange.Init(&request, authenticate, context);
//     exchange.SetRequestData(body.data(), length);
//     exchange.Send();
//     if (exchange.GetStatusCode() == 200) // this call and the next throw HRESULTexc when the exchange fails
//         Use(exchange.GetResponseData());
//
// This header includes winhttp.h, which cannot be combined with wininet.h. Include it in source files of the WinHTTP side only.
#pragma once

#include <VoWinHttpInterface.h>
#include <VoWinHttpTypes.h>

#include <base/VoLock.h>
#include <base/VoPlatform.h>
#include <base/VoPromise.h>
#include <base/VoReportChain.h>

#include <memory>
#include <string>
#include <vector>

namespace VoWinHttpRequest
{
class CExchange; // VoWinHttpExchange.h

// The interface of an exchange.
class IVoWinHttpRequest
{
public:
    // Clears the exchange and binds it to a request handle. The handle is not owned; it must live until the exchange is
    // destroyed or cleared. An empty `authenticate`: a 401 or 407 ends the exchange with E_FAIL. E_POINTER without a handle;
    // HRESULT_FROM_WIN32(ERROR_BUSY) when another exchange has been sent on the handle and has not been cleared.
    virtual HRESULT Init(VoWinHttpInterface::WinHttpRequestHandle* request, AuthenticationFunction authenticate,
                         void* context) noexcept = 0;
    // Sets the request body for all following sends; without this call the body is empty. The bytes are not copied: they must
    // stay until the exchange has ended. E_FAIL before Init and while an exchange runs.
    virtual HRESULT SetRequestData(const void* data, DWORD length) noexcept = 0;
    // Ends the exchange in any state. Waiting callers get HRESULT 0x80072EF1 (ERROR_WINHTTP_OPERATION_CANCELLED). Handle, body
    // and functions are dropped. After a Send it closes the request handle, even when the exchange has ended, and waits until
    // WinHTTP has reported the end of the handle; inside one of the exchange's own functions it does not wait. S_OK when there
    // is nothing to clear. E_FAIL when the handle could not be closed; the exchange is cleared all the same.
    virtual HRESULT Clear() noexcept = 0;
    // Starts the exchange and returns; the body is read without a further call. It may be called again on the same handle (a
    // retry) when the previous exchange has ended: its body was read completely, or its status was 300 or above, or it failed.
    // E_FAIL before Init and while an exchange runs. GetStatusCode and GetResponseData give every other failure too.
    virtual HRESULT Send() noexcept = 0;
    // Waits for the status code of the response. Throws HRESULTexc when the exchange failed. Throws std::future_error with
    // no_state when nothing has been sent, with future_already_retrieved when the status of this send was taken before.
    virtual DWORD GetStatusCode() = 0;
    // Waits for the complete body. Throws as GetStatusCode does. For a status of 300 or above no body is read: the call waits
    // until the exchange is closed and throws HRESULTexc(0x80072EF1).
    virtual std::vector<BYTE> GetResponseData() = 0;
    // Sets or, when empty, removes a function. E_FAIL before Init and while an exchange runs.
    virtual HRESULT SetSendCompleteHandler(SendCompleteHandler handler) noexcept = 0;
    virtual HRESULT SetReceiveHandler(ReceiveHandler handler) noexcept = 0;
    virtual HRESULT SetNotificationHandler(NotificationHandler handler) noexcept = 0;
    // Collects the reports of WinHTTP's threads, too. The chain must live until the exchange is destroyed or cleared; null:
    // none. E_FAIL before Init and while an exchange runs.
    virtual HRESULT SetReportChain(CVoReportChain* chain) noexcept = 0;
    // A body of more bytes fails the exchange with kErrorResponseLimit; 0: no limit. A body in very many small pieces, read by
    // the exchange itself, fails earlier, because each piece costs memory. E_FAIL before Init and while an exchange runs.
    virtual HRESULT SetBodyLimit(UINT64 bytes) noexcept = 0;
    // Whether ReadPiece fetches the body, in the place of GetResponseData, in all following sends. Nothing of it is asked for
    // before. E_FAIL before Init and while an exchange runs.
    virtual HRESULT SetReadsPieces(bool readsPieces) noexcept = 0;
    // Asks for the next piece of the body and waits for it; empty: the body has ended. Throws as GetStatusCode does. Call it
    // after GetStatusCode, for a status below 300, until the body has ended: until then the exchange runs.
    virtual std::vector<BYTE> ReadPiece() = 0;
    // Reads the beginning of the body of a response whose status is 300 or above. Waits for it at most `milliseconds`; then
    // throws kResultTimeout. Throws as GetStatusCode does; E_FAIL when the exchange has no such response.
    virtual std::vector<BYTE> ReadErrorBody(UINT32 maximumBytes, DWORD milliseconds) = 0;
    // Gives credentials that are known before a challenge. They are set before each send of this exchange, because WinHTTP uses
    // credentials for a single request only; those that the authentication function gives replace them. `target`:
    // WINHTTP_AUTH_TARGET_...; `scheme`: WINHTTP_AUTH_SCHEME_... . E_FAIL before Init and while an exchange runs;
    // E_OUTOFMEMORY.
    virtual HRESULT SetCredentials(DWORD target, DWORD scheme, const std::wstring& user,
                                   const std::wstring& password) noexcept = 0;

    virtual ~IVoWinHttpRequest() = default;
    IVoWinHttpRequest(const IVoWinHttpRequest&) = delete;
    IVoWinHttpRequest& operator=(const IVoWinHttpRequest&) = delete;

protected:
    IVoWinHttpRequest() = default;
};

// The implementation, which is the same for every tag. Use CVoWinHttpRequest.
//
// Waits: GetStatusCode and GetResponseData end when the response or a failure arrives, which the time-outs of the request
// handle bound, or when the handle is closed. Two waits have no time-out and end only when the handle is closed: GetStatusCode
// after the authentication function chose a scheme that is not supported, and GetResponseData for a status of 300 or above.
// Clear ends with WinHTTP's HANDLE_CLOSING notification; when the handle cannot be closed it does not wait for it.
//
// Threads: one thread at a time calls Init, Send and the setters. Any thread calls Clear and the get functions at any time. Any
// thread may destroy the object, in every state, while no other thread is inside one of its functions; the exchange's own
// functions may destroy it too.
//
// Lifetime: the context value that WinHTTP keeps is the address of the exchange's state, a separate object. The state lives
// until WinHTTP has reported the end of the handle (HANDLE_CLOSING), whatever happens to this object. When Clear cannot wait
// for that notification, the state is abandoned: it ignores further notifications and is destroyed with the last one.
class CVoWinHttpRequestBase : public IVoWinHttpRequest
{
public:
    HRESULT Init(VoWinHttpInterface::WinHttpRequestHandle* request, AuthenticationFunction authenticate,
                 void* context) noexcept override;
    HRESULT SetRequestData(const void* data, DWORD length) noexcept override;
    HRESULT Clear() noexcept override;
    HRESULT Send() noexcept override;
    DWORD GetStatusCode() override;
    std::vector<BYTE> GetResponseData() override;
    HRESULT SetSendCompleteHandler(SendCompleteHandler handler) noexcept override;
    HRESULT SetReceiveHandler(ReceiveHandler handler) noexcept override;
    HRESULT SetNotificationHandler(NotificationHandler handler) noexcept override;
    HRESULT SetReportChain(CVoReportChain* chain) noexcept override;
    HRESULT SetBodyLimit(UINT64 bytes) noexcept override;
    HRESULT SetReadsPieces(bool readsPieces) noexcept override;
    std::vector<BYTE> ReadPiece() override;
    std::vector<BYTE> ReadErrorBody(UINT32 maximumBytes, DWORD milliseconds) override;
    HRESULT SetCredentials(DWORD target, DWORD scheme, const std::wstring& user,
                           const std::wstring& password) noexcept override;

    // The status callback that Init registers with WinHTTP. Ignores a context of 0, which a handle has before its first Send.
    static void CALLBACK Callback(HINTERNET handle, DWORD_PTR context, DWORD status, void* information, DWORD length) noexcept;

protected:
    // `className`: the class in reports, a literal.
    explicit CVoWinHttpRequestBase(const wchar_t* className) noexcept : m_className(className) {}
    // Clears.
    ~CVoWinHttpRequestBase() override;

private:
    [[nodiscard]] std::shared_ptr<CExchange> Exchange() const noexcept;

    const wchar_t* const m_className;
    mutable CVoLock m_lock;                // taken before the exchange's own lock
    std::shared_ptr<CExchange> m_exchange; // null before Init
    CVoFuture<DWORD> m_status;             // the results stay when the exchange is cleared
    CVoFuture<std::vector<BYTE>> m_data;
};

// The tags. Both kinds of exchange behave alike; the tag only changes the class name in reports.
class CVoWinHttpGetRequest
{
};
class CVoWinHttpPostRequest
{
};

namespace Detail
{
// The class name in reports: one row for each tag.
template <class T>
struct CClassName;
template <>
struct CClassName<CVoWinHttpGetRequest>
{
    static constexpr const wchar_t* kText =
        L"VoWinHttpRequest::CVoWinHttpRequest<class VoWinHttpRequest::CVoWinHttpGetRequest>";
};
template <>
struct CClassName<CVoWinHttpPostRequest>
{
    static constexpr const wchar_t* kText =
        L"VoWinHttpRequest::CVoWinHttpRequest<class VoWinHttpRequest::CVoWinHttpPostRequest>";
};
} // namespace Detail

template <class T>
class CVoWinHttpRequest final : public CVoWinHttpRequestBase
{
public:
    CVoWinHttpRequest() noexcept : CVoWinHttpRequestBase(Detail::CClassName<T>::kText) {}
};
} // namespace VoWinHttpRequest
