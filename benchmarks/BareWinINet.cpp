#include "BareClient.h"

#include <base/VoPlatform.h>

#include <wininet.h>

namespace Bare
{
namespace
{
// Closes the handle that it owns.
class CHandle
{
public:
    explicit CHandle(HINTERNET handle) : m_handle(handle) { Demand(handle != nullptr); }
    ~CHandle() { ::InternetCloseHandle(m_handle); }
    CHandle(const CHandle&) = delete;
    CHandle& operator=(const CHandle&) = delete;
    operator HINTERNET() const noexcept { return m_handle; } // implicit: it stands for the handle in the calls

private:
    HINTERNET m_handle;
};

class CClient final : public IClient
{
public:
    CClient(const CServer& server, bool inPieces)
        : m_inPieces(inPieces), m_flags(INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_KEEP_CONNECTION |
                                        INTERNET_FLAG_NO_COOKIES | (server.secure ? INTERNET_FLAG_SECURE : 0)),
          m_session(::InternetOpenA("bare", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0)),
          m_connection(::InternetConnectA(m_session, "127.0.0.1", server.port, "", "", INTERNET_SERVICE_HTTP, 0, 0))
    {
    }

    std::vector<unsigned char> Request(const std::string& path, const std::string* body) override
    {
        const char* acceptTypes[] = { "*/*", nullptr };
        const CHandle request(::HttpOpenRequestA(m_connection, body ? "POST" : "GET", path.c_str(), "HTTP/1.1", nullptr,
                                                 acceptTypes, m_flags, 0));
        if (m_flags & INTERNET_FLAG_SECURE)
        {
            DWORD flags = 0;
            DWORD length = sizeof flags;
            Demand(::InternetQueryOptionA(request, INTERNET_OPTION_SECURITY_FLAGS, &flags, &length) != FALSE);
            flags |= SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_CERT_CN_INVALID |
                     SECURITY_FLAG_IGNORE_CERT_DATE_INVALID | SECURITY_FLAG_IGNORE_REVOCATION;
            Demand(::InternetSetOptionA(request, INTERNET_OPTION_SECURITY_FLAGS, &flags, sizeof flags) != FALSE);
        }
        if (m_inPieces)
            SendInPieces(request, body);
        else
            Send(request, body);
        Demand(QueryNumber(request, HTTP_QUERY_STATUS_CODE) == 200);

        std::vector<unsigned char> answer;
        answer.reserve(QueryNumber(request, HTTP_QUERY_CONTENT_LENGTH));
        for (DWORD count = 0; Demand(::InternetQueryDataAvailable(request, &count, 0, 0) != FALSE), count != 0;)
        {
            const size_t used = answer.size();
            answer.resize(used + count);
            DWORD read = 0;
            Demand(::InternetReadFile(request, answer.data() + used, count, &read) != FALSE);
            answer.resize(used + read);
            if (read == 0)
                break;
        }
        return answer;
    }

private:
    static void Send(HINTERNET request, const std::string* body)
    {
        const DWORD length = body ? static_cast<DWORD>(body->size()) : 0;
        Demand(::HttpSendRequestA(request, body ? kContentType : nullptr, body ? sizeof kContentType - 1 : 0,
                                  length > 0 ? const_cast<char*>(body->data()) : nullptr, length) != FALSE);
    }
    static void SendInPieces(HINTERNET request, const std::string* body)
    {
        constexpr size_t kPiece = 32'000;
        const std::string_view bytes = body ? std::string_view(*body) : std::string_view();
        INTERNET_BUFFERSA buffers{};
        buffers.dwStructSize = sizeof buffers;
        buffers.lpcszHeader = body ? kContentType : nullptr;
        buffers.dwHeadersLength = body ? sizeof kContentType - 1 : 0;
        buffers.dwBufferTotal = static_cast<DWORD>(bytes.size());
        Demand(::HttpSendRequestExA(request, &buffers, nullptr, HSR_SYNC, 0) != FALSE);
        for (size_t position = 0; position < bytes.size(); position += kPiece)
        {
            const std::string_view piece = bytes.substr(position, kPiece);
            DWORD written = 0;
            Demand(::InternetWriteFile(request, piece.data(), static_cast<DWORD>(piece.size()), &written) &&
                   written == piece.size());
        }
        Demand(::HttpEndRequestA(request, nullptr, HSR_SYNC, 0) != FALSE);
    }
    // 0 where the answer has no such header.
    static DWORD QueryNumber(HINTERNET request, DWORD query) noexcept
    {
        DWORD value = 0;
        DWORD length = sizeof value;
        return ::HttpQueryInfoA(request, query | HTTP_QUERY_FLAG_NUMBER, &value, &length, nullptr) ? value : 0;
    }

    bool m_inPieces;
    DWORD m_flags;
    CHandle m_session;
    CHandle m_connection;
};
} // namespace

std::unique_ptr<IClient> MakeWinINet(const CServer& server)
{
    return std::make_unique<CClient>(server, false);
}

std::unique_ptr<IClient> MakeWinINetInPieces(const CServer& server)
{
    return std::make_unique<CClient>(server, true);
}
} // namespace Bare
