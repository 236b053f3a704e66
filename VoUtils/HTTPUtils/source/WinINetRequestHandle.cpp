// The handles of one WinINet request; see WinINetRequestHandle.h.
#include "WinINetRequestHandle.h"

#include "WinINetSupport.h"

namespace VoHTTPMessageWinINet
{
CRequestHandle::~CRequestHandle()
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::CHTTPRequestDataWinINet::~CHTTPRequestDataWinINet" };
    if (const HRESULT hr = CloseHandles(); FAILED(hr))
        report(260, hr);
}

void CRequestHandle::Open(CInternetHandle handle) noexcept
{
    const CVoLockHolder lock(m_lock);
    m_handle = std::move(handle);
}

HRESULT CRequestHandle::Close() noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessageWinINet::CHTTPRequestDataWinINet::Close" };
    const HRESULT hr = CloseHandles();
    return SUCCEEDED(hr) ? S_OK : report(270, hr);
}

HRESULT CRequestHandle::CloseHandles() noexcept
{
    CInternetHandle closing;
    {
        const CVoLockHolder lock(m_lock);
        closing = std::move(m_handle);
    }
    const CVoLockHolder childLock(m_childLock);
    const HRESULT handle = closing.Close();
    const HRESULT connection = m_targetConnection.Close();
    return FAILED(handle) ? handle : connection;
}

void CRequestHandle::Cancel() noexcept
{
    const CVoLockHolder lock(m_lock);
    if (!m_isInCall)
        return;
    const CVoLockHolder childLock(m_childLock);
    (void)m_handle.Close(); // reported
}

HINTERNET CRequestHandle::BeginCall() noexcept
{
    HINTERNET handle = nullptr;
    {
        const CVoLockHolder lock(m_lock);
        if (!m_request.IsCancelled())
            handle = m_handle.Get();
        m_isInCall = handle != nullptr;
    }
    if (!handle)
        ::SetLastError(ERROR_INTERNET_OPERATION_CANCELLED);
    return handle;
}

bool CRequestHandle::EndCall(bool done) noexcept
{
    const CVoLastErrorKeeper keeper;
    const CVoLockHolder lock(m_lock);
    m_isInCall = false;
    return done && m_handle; // closed meanwhile: its number may be that of another request's handle
}
} // namespace VoHTTPMessageWinINet
