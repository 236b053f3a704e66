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

class CClient final : public IClient
{
public:
    explicit CClient(const CServer& server)
        : m_flags(WINHTTP_FLAG_REFRESH | (server.secure ? WINHTTP_FLAG_SECURE : 0)),
          m_session(::WinHttpOpen(L"bare", WINHTTP_ACCESS_TYPE_NO_PROXY, nullptr, nullptr, 0)),
          m_connection(::WinHttpConnect(m_session, L"127.0.0.1", server.port, 0))
    {
    }

    std::vector<unsigned char> Request(const std::string& path, const std::string* body) override
    {
        const CHandle request(::WinHttpOpenRequest(m_connection, body ? L"POST" : L"GET", Widen(path).c_str(), nullptr,
                                                   WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES, m_flags));
        if (m_flags & WINHTTP_FLAG_SECURE)
        {
            DWORD ignored = SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_CERT_WRONG_USAGE |
                            SECURITY_FLAG_IGNORE_CERT_CN_INVALID | SECURITY_FLAG_IGNORE_CERT_DATE_INVALID;
            Demand(::WinHttpSetOption(request, WINHTTP_OPTION_SECURITY_FLAGS, &ignored, sizeof ignored) != FALSE);
        }
        static const std::wstring headers = Widen(kContentType);
        const DWORD length = body ? static_cast<DWORD>(body->size()) : 0;
        Demand(::WinHttpSendRequest(request, body ? headers.c_str() : nullptr, body ? static_cast<DWORD>(headers.size()) : 0,
                                    length > 0 ? const_cast<char*>(body->data()) : nullptr, length, length, 0) &&
               ::WinHttpReceiveResponse(request, nullptr) && QueryNumber(request, WINHTTP_QUERY_STATUS_CODE) == 200);

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

private:
    DWORD m_flags;
    CHandle m_session;
    CHandle m_connection;
};
} // namespace

std::unique_ptr<IClient> MakeWinHttp(const CServer& server)
{
    return std::make_unique<CClient>(server);
}
} // namespace Bare
