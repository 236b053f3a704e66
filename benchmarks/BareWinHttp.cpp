#include "BareClient.h"

#include <base/VoPlatform.h>

#include <winhttp.h>

namespace Bare
{
namespace
{
// Closes the handle that it owns.
class CHandle
{
public:
    explicit CHandle(HINTERNET handle) : m_handle(handle) { Demand(handle != nullptr); }
    ~CHandle() { ::WinHttpCloseHandle(m_handle); }
    CHandle(const CHandle&) = delete;
    CHandle& operator=(const CHandle&) = delete;
    operator HINTERNET() const noexcept { return m_handle; } // implicit: it stands for the handle in the calls

private:
    HINTERNET m_handle;
};

std::wstring Widen(std::string_view text)
{
    return { text.begin(), text.end() };
}

// 0 where the answer has no such header.
DWORD QueryNumber(HINTERNET request, DWORD query) noexcept
{
    DWORD value = 0;
    DWORD length = sizeof value;
    const BOOL known = ::WinHttpQueryHeaders(request, query | WINHTTP_QUERY_FLAG_NUMBER, nullptr, &value, &length, nullptr);
    return known ? value : 0;
}

class CConnection : public IClient
{
public:
    CConnection(const CServer& server, DWORD sessionFlags)
        : m_flags(WINHTTP_FLAG_REFRESH | (server.secure ? WINHTTP_FLAG_SECURE : 0)),
          m_session(::WinHttpOpen(L"bare", WINHTTP_ACCESS_TYPE_NO_PROXY, nullptr, nullptr, sessionFlags)),
          m_connection(::WinHttpConnect(m_session, L"127.0.0.1", server.port, 0))
    {
    }

protected:
    [[nodiscard]] HINTERNET Open(const std::string& path, bool post) const
    {
        const HINTERNET request = ::WinHttpOpenRequest(m_connection, post ? L"POST" : L"GET", Widen(path).c_str(), nullptr,
                                                       WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES, m_flags);
        DWORD ignored = SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_CERT_WRONG_USAGE |
                        SECURITY_FLAG_IGNORE_CERT_CN_INVALID | SECURITY_FLAG_IGNORE_CERT_DATE_INVALID;
        Demand(request != nullptr && ((m_flags & WINHTTP_FLAG_SECURE) == 0 ||
                                      ::WinHttpSetOption(request, WINHTTP_OPTION_SECURITY_FLAGS, &ignored, sizeof ignored)));
        return request;
    }
    static void Send(HINTERNET request, const std::string* body, DWORD_PTR context)
    {
        static const std::wstring headers = Widen(kContentType);
        const DWORD length = body ? static_cast<DWORD>(body->size()) : 0;
        Demand(::WinHttpSendRequest(request, body ? headers.c_str() : nullptr, body ? static_cast<DWORD>(headers.size()) : 0,
                                    length > 0 ? const_cast<char*>(body->data()) : nullptr, length, length, context) != FALSE);
    }

private:
    DWORD m_flags;
    CHandle m_session;
    CHandle m_connection;
};

class CClient final : public CConnection
{
public:
    explicit CClient(const CServer& server) : CConnection(server, 0) {}

    std::vector<unsigned char> Request(const std::string& path, const std::string* body) override
    {
        const CHandle request(Open(path, body != nullptr));
        Send(request, body, 0);
        Demand(::WinHttpReceiveResponse(request, nullptr) && QueryNumber(request, WINHTTP_QUERY_STATUS_CODE) == 200);
        std::vector<unsigned char> answer;
        answer.reserve(QueryNumber(request, WINHTTP_QUERY_CONTENT_LENGTH));
        for (DWORD count = 0; Demand(::WinHttpQueryDataAvailable(request, &count) != FALSE), count != 0;)
        {
            const size_t used = answer.size();
            answer.resize(used + count);
            DWORD read = 0;
            Demand(::WinHttpReadData(request, answer.data() + used, count, &read) != FALSE);
            answer.resize(used + read);
        }
        return answer;
    }
};

// The same calls from the callback, each when the one before is complete.
class CAsynchronousClient final : public CConnection
{
public:
    explicit CAsynchronousClient(const CServer& server) : CConnection(server, WINHTTP_FLAG_ASYNC) {}
    ~CAsynchronousClient() override
    {
        ::CloseHandle(m_done);
        ::CloseHandle(m_closed);
    }
    CAsynchronousClient(const CAsynchronousClient&) = delete;
    CAsynchronousClient& operator=(const CAsynchronousClient&) = delete;

    std::vector<unsigned char> Request(const std::string& path, const std::string* body) override
    {
        m_failed = false;
        m_answer.clear();
        {
            const CHandle request(Open(path, body != nullptr));
            Demand(::WinHttpSetStatusCallback(request, &OnStatus, WINHTTP_CALLBACK_FLAG_ALL_NOTIFICATIONS, 0) !=
                   WINHTTP_INVALID_STATUS_CALLBACK);
            Send(request, body, reinterpret_cast<DWORD_PTR>(this));
            ::WaitForSingleObject(m_done, INFINITE);
        }
        ::WaitForSingleObject(m_closed, INFINITE);
        Demand(!m_failed);
        return std::move(m_answer);
    }

private:
    static void CALLBACK OnStatus(HINTERNET request, DWORD_PTR context, DWORD status, void* information, DWORD length)
    {
        if (context != 0)
            reinterpret_cast<CAsynchronousClient*>(context)->GoOn(request, status, information, length);
    }
    void GoOn(HINTERNET request, DWORD status, const void* information, DWORD length)
    {
        BOOL good = TRUE;
        switch (status)
        {
        case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
            good = ::WinHttpReceiveResponse(request, nullptr);
            break;
        case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE:
            m_answer.reserve(QueryNumber(request, WINHTTP_QUERY_CONTENT_LENGTH));
            good = QueryNumber(request, WINHTTP_QUERY_STATUS_CODE) == 200 && ::WinHttpQueryDataAvailable(request, nullptr);
            break;
        case WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE:
        {
            const DWORD count = *static_cast<const DWORD*>(information);
            m_used = m_answer.size();
            m_answer.resize(m_used + count);
            if (count == 0)
                ::SetEvent(m_done);
            else
                good = ::WinHttpReadData(request, m_answer.data() + m_used, count, nullptr);
            break;
        }
        case WINHTTP_CALLBACK_STATUS_READ_COMPLETE:
            m_answer.resize(m_used + length);
            good = ::WinHttpQueryDataAvailable(request, nullptr);
            break;
        case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR:
            good = FALSE;
            break;
        case WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING:
            ::SetEvent(m_closed);
            break;
        default:
            break;
        }
        if (!good)
        {
            m_failed = true;
            ::SetEvent(m_done);
        }
    }

    HANDLE m_done = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HANDLE m_closed = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::vector<unsigned char> m_answer;
    size_t m_used = 0;
    bool m_failed = false;
};
} // namespace

std::unique_ptr<IClient> MakeWinHttp(const CServer& server)
{
    return std::make_unique<CClient>(server);
}
std::unique_ptr<IClient> MakeAsynchronousWinHttp(const CServer& server)
{
    return std::make_unique<CAsynchronousClient>(server);
}
} // namespace Bare
