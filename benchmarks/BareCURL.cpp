#include "BareClient.h"

#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

#include <algorithm>
#include <cstring>

namespace Bare
{
namespace
{
struct CSource
{
    const std::string* body = nullptr;
    size_t position = 0;
};

size_t Read(char* buffer, size_t size, size_t count, void* context)
{
    auto& source = *static_cast<CSource*>(context);
    const size_t copied = source.body->copy(buffer, size * count, source.position);
    source.position += copied;
    return copied;
}
struct CAnswer
{
    CURL* handle = nullptr;
    std::vector<unsigned char> bytes;
};
size_t Write(char* data, size_t size, size_t count, void* context)
{
    auto& answer = *static_cast<CAnswer*>(context);
    curl_off_t announced = 0;
    if (answer.bytes.empty() && curl_easy_getinfo(answer.handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced) == CURLE_OK &&
        announced > 0)
        answer.bytes.reserve(static_cast<size_t>(announced));
    answer.bytes.insert(answer.bytes.end(), data, data + size * count);
    return size * count;
}
size_t Header(char* /*data*/, size_t size, size_t count, void* /*context*/)
{
    return size * count;
}

// One easy handle, with the options that the library's transport sets where they cost something.
class CClient final : public IClient
{
public:
    explicit CClient(const CServer& server) : m_server(server), m_handle(curl_easy_init())
    {
        Demand(m_handle != nullptr);
        for (const char* const line : { kContentType, "Connection: Keep-Alive", "Pragma: no-cache", "Expect:", "Accept: */*" })
            m_headers = curl_slist_append(m_headers, line);
        curl_easy_setopt(m_handle, CURLOPT_USERAGENT, "bare");
        curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(m_handle, CURLOPT_SSL_VERIFYHOST, 0L);
        curl_easy_setopt(m_handle, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NO_REVOKE));
        curl_easy_setopt(m_handle, CURLOPT_TCP_NODELAY, 1L);
        curl_easy_setopt(m_handle, CURLOPT_TCP_KEEPALIVE, 1L);
        curl_easy_setopt(m_handle, CURLOPT_ACCEPT_ENCODING, "");
        curl_easy_setopt(m_handle, CURLOPT_CONNECTTIMEOUT_MS, 30000L);
        curl_easy_setopt(m_handle, CURLOPT_TIMEOUT_MS, 60000L);
        curl_easy_setopt(m_handle, CURLOPT_READFUNCTION, &Read);
        curl_easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, &Write);
        curl_easy_setopt(m_handle, CURLOPT_HEADERFUNCTION, &Header);
        curl_easy_setopt(m_handle, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(m_handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
        curl_easy_setopt(m_handle, CURLOPT_HTTPHEADER, m_headers);
    }
    ~CClient() override
    {
        curl_easy_cleanup(m_handle);
        curl_slist_free_all(m_headers);
    }
    CClient(const CClient&) = delete;
    CClient& operator=(const CClient&) = delete;

    std::vector<unsigned char> Request(const std::string& path, const std::string* body) override
    {
        CSource source{ body };
        CAnswer answer{ m_handle, {} };
        curl_easy_setopt(m_handle, CURLOPT_URL, m_server.URL(path).c_str());
        if (body)
        {
            curl_easy_setopt(m_handle, CURLOPT_POST, 1L);
            curl_easy_setopt(m_handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body->size()));
            curl_easy_setopt(m_handle, CURLOPT_READDATA, &source);
        }
        else
            curl_easy_setopt(m_handle, CURLOPT_HTTPGET, 1L);
        curl_easy_setopt(m_handle, CURLOPT_WRITEDATA, &answer);
        long status = 0;
        Demand(curl_easy_perform(m_handle) == CURLE_OK &&
               curl_easy_getinfo(m_handle, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status == 200);
        return std::move(answer.bytes);
    }

private:
    CServer m_server;
    CURL* m_handle;
    curl_slist* m_headers = nullptr;
};
} // namespace

std::unique_ptr<IClient> MakeCURL(const CServer& server)
{
    static const CURLcode ready = curl_global_init(CURL_GLOBAL_ALL);
    Demand(ready == CURLE_OK);
    return std::make_unique<CClient>(server);
}
} // namespace Bare
