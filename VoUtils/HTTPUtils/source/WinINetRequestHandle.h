// The handles of one WinINet request, whose waiting call another thread may end. The WinINet transport keeps one object in each
// request.
#pragma once

#include "WinINetSupport.h"

#include <VoHTTPMessage.h>

#include <base/VoLock.h>

#include <utility>

namespace VoHTTPMessageWinINet
{
// Owns the handle of a request, and the connection below it where that is the request's own. One thread uses the request;
// Cancel may be called on any thread.
class CRequestHandle
{
public:
    // `childLock` is held while a handle is closed. Both outlive this object.
    CRequestHandle(const CVoHTTPMessage::CHTTPRequestData& request, CVoLock& childLock) noexcept
        : m_request(request), m_childLock(childLock)
    {
    }
    // Closes the handles; a failure is reported.
    ~CRequestHandle();
    CRequestHandle(const CRequestHandle&) = delete;
    CRequestHandle& operator=(const CRequestHandle&) = delete;

    void Open(CInternetHandle handle) noexcept;
    // Closes the request's handle, then its connection. Returns the first failure.
    [[nodiscard]] HRESULT Close() noexcept;
    // Closes the request's handle when a call uses it. Between two calls it stays open: its number could become that of another
    // request's handle.
    void Cancel() noexcept;

    // Makes a call on the handle that may wait. Cancel closes the handle meanwhile, which ends the call (documentation of
    // InternetCloseHandle). False: the call failed, or the request is cancelled, and the last error says why.
    template <class Call>
    [[nodiscard]] bool Use(Call call) noexcept
    {
        const HINTERNET handle = BeginCall();
        return handle && EndCall(call(handle) != FALSE);
    }
    [[nodiscard]] HINTERNET Get() const noexcept { return m_handle.Get(); }
    // To the target of a redirect on another server.
    [[nodiscard]] CInternetHandle& TargetConnection() noexcept { return m_targetConnection; }

private:
    // The handle, in a call from here on. Null, with the last error, when the request is cancelled.
    [[nodiscard]] HINTERNET BeginCall() noexcept;
    // Whether the call was done and the handle is still open. Keeps the last error.
    [[nodiscard]] bool EndCall(bool done) noexcept;
    [[nodiscard]] HRESULT CloseHandles() noexcept;

    const CVoHTTPMessage::CHTTPRequestData& m_request;
    CVoLock& m_childLock;
    CInternetHandle m_targetConnection;
    CVoLock m_lock; // guards the following; taken before m_childLock
    CInternetHandle m_handle;
    bool m_isInCall = false;
};
} // namespace VoHTTPMessageWinINet
