// The functions of CVoWinHttpRequest: they start an exchange, wait for its results and end it. The WinHTTP transport calls
// them.
#include <VoWinHttpRequest.h>

#include "VoWinHttpExchange.h"

#include <mutex>
#include <utility>

namespace VoWinHttpRequest
{
namespace
{
constexpr const wchar_t* kWinHttpRequestSource = L"VoWinHttpRequest.h"; // reports name the header that callers know

// Sets one of an exchange's functions. Without an exchange the result is E_FAIL.
template <class Function>
HRESULT SetFunction(const std::shared_ptr<CExchange>& exchange, std::shared_ptr<const Function> CExchange::CFunctions::* member,
                    Function function) noexcept
try
{
    return exchange ? exchange->SetFunction(member, std::make_shared<const Function>(std::move(function))) : E_FAIL;
}
catch (...)
{
    return HResultFromCurrentException();
}

// Takes the future out under the lock and waits without it.
template <class Value>
Value TakeValue(CVoLock& lock, CVoFuture<Value>& future)
{
    std::unique_lock guard(lock);
    CVoFuture<Value> taken = std::move(future);
    guard.unlock();
    return taken.Get();
}
} // namespace

CVoWinHttpRequestBase::~CVoWinHttpRequestBase()
{
    CVoWinHttpRequestBase::Clear();
}

void CALLBACK CVoWinHttpRequestBase::Callback(HINTERNET /*handle*/, DWORD_PTR context, DWORD status, void* information,
                                              DWORD length) noexcept
{
    if (context != 0)
        reinterpret_cast<CExchange*>(context)->Notify(status, information, length);
}

std::shared_ptr<CExchange> CVoWinHttpRequestBase::Exchange() const noexcept
{
    const std::lock_guard lock(m_lock);
    return m_exchange;
}

HRESULT CVoWinHttpRequestBase::Init(VoWinHttpInterface::WinHttpRequestHandle* request, AuthenticationFunction authenticate,
                                    void* context) noexcept
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"Init" };
    if (!request)
        return report(100, E_POINTER);
    if (const HRESULT hr = Clear(); FAILED(hr))
        return report(104, hr);
    try
    {
        // A second exchange would replace the context value of the first, which would never receive HANDLE_CLOSING then.
        DWORD_PTR known = 0;
        DWORD length = sizeof(known);
        if (request->IsOpen() && SUCCEEDED(request->QueryOption(WINHTTP_OPTION_CONTEXT_VALUE, &known, length)) && known != 0)
            return report(108, HResultFromWin32(ERROR_BUSY));

        auto exchange = std::make_shared<CExchange>(m_className, *request, std::move(authenticate), context);
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

HRESULT CVoWinHttpRequestBase::SetRequestData(const void* data, DWORD length) noexcept
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"SetRequestData" };
    const std::shared_ptr<CExchange> exchange = Exchange();
    const HRESULT hr = exchange ? exchange->SetRequestData(data, length) : E_FAIL;
    return SUCCEEDED(hr) ? hr : report(130, hr);
}

HRESULT CVoWinHttpRequestBase::Clear() noexcept
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"Clear" };
    const std::shared_ptr<CExchange> exchange = Exchange();
    if (!exchange)
        return S_OK;
    const HRESULT hr = exchange->Close();
    {
        const std::lock_guard lock(m_lock);
        if (m_exchange == exchange)
            m_exchange.reset();
    }
    return SUCCEEDED(hr) ? hr : report(144, E_FAIL);
}

HRESULT CVoWinHttpRequestBase::Send() noexcept
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"Send" };
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

DWORD CVoWinHttpRequestBase::GetStatusCode()
{
    return TakeValue(m_lock, m_status);
}

std::vector<BYTE> CVoWinHttpRequestBase::GetResponseData()
{
    return TakeValue(m_lock, m_data);
}

HRESULT CVoWinHttpRequestBase::SetSendCompleteHandler(SendCompleteHandler handler) noexcept
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"SetSendCompleteHandler" };
    const HRESULT hr = SetFunction(Exchange(), &CExchange::CFunctions::sendComplete, std::move(handler));
    return SUCCEEDED(hr) ? hr : report(176, hr);
}

HRESULT CVoWinHttpRequestBase::SetReceiveHandler(ReceiveHandler handler) noexcept
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"SetReceiveHandler" };
    const HRESULT hr = SetFunction(Exchange(), &CExchange::CFunctions::receive, std::move(handler));
    return SUCCEEDED(hr) ? hr : report(190, hr);
}

HRESULT CVoWinHttpRequestBase::SetNotificationHandler(NotificationHandler handler) noexcept
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"SetNotificationHandler" };
    const HRESULT hr = SetFunction(Exchange(), &CExchange::CFunctions::notification, std::move(handler));
    return SUCCEEDED(hr) ? hr : report(182, hr);
}

HRESULT CVoWinHttpRequestBase::SetReportChain(CVoReportChain* chain) noexcept
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"SetReportChain" };
    const std::shared_ptr<CExchange> exchange = Exchange();
    const HRESULT hr = exchange ? exchange->SetReportChain(chain) : E_FAIL;
    return SUCCEEDED(hr) ? hr : report(184, hr);
}

HRESULT CVoWinHttpRequestBase::SetBodyLimit(UINT64 bytes) noexcept
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"SetBodyLimit" };
    const std::shared_ptr<CExchange> exchange = Exchange();
    const HRESULT hr = exchange ? exchange->SetBodyLimit(bytes) : E_FAIL;
    return SUCCEEDED(hr) ? hr : report(186, hr);
}

HRESULT CVoWinHttpRequestBase::SetReadsPieces(bool readsPieces) noexcept
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"SetReadsPieces" };
    const std::shared_ptr<CExchange> exchange = Exchange();
    const HRESULT hr = exchange ? exchange->SetReadsPieces(readsPieces) : E_FAIL;
    return SUCCEEDED(hr) ? hr : report(187, hr);
}

std::vector<BYTE> CVoWinHttpRequestBase::ReadPiece()
{
    CVoFuture<std::vector<BYTE>> piece;
    CVoFuture<std::vector<BYTE>> next;
    if (const std::shared_ptr<CExchange> exchange = Exchange())
        exchange->StartPiece(next); // a failure is in the future
    {
        const std::lock_guard lock(m_lock);
        piece = std::exchange(m_data, std::move(next));
    }
    return piece.Get();
}

std::vector<BYTE> CVoWinHttpRequestBase::ReadErrorBody(UINT32 maximumBytes, DWORD milliseconds)
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"ReadErrorBody" };
    const std::shared_ptr<CExchange> exchange = Exchange();
    if (const HRESULT hr = exchange ? exchange->StartErrorBody(maximumBytes) : E_FAIL; FAILED(hr))
        throw HRESULTexc(report(188, hr));
    CVoFuture<std::vector<BYTE>> data;
    {
        const std::lock_guard lock(m_lock);
        data = std::move(m_data);
    }
    if (!data.WaitFor(milliseconds))
        throw HRESULTexc(report(189, kResultTimeout));
    return data.Get();
}

HRESULT CVoWinHttpRequestBase::SetCredentials(DWORD target, DWORD scheme, const std::wstring& user,
                                              const std::wstring& password) noexcept
{
    const CExchangeReporter report{ kWinHttpRequestSource, m_className, L"SetCredentials" };
    try
    {
        const std::shared_ptr<CExchange> exchange = Exchange();
        const HRESULT hr = exchange ? exchange->SetCredentials(target, scheme, user, password) : E_FAIL;
        return SUCCEEDED(hr) ? hr : report(196, hr);
    }
    catch (...)
    {
        return report.CurrentException(198);
    }
}
} // namespace VoWinHttpRequest
