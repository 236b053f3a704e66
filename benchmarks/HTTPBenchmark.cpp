// A loopback request through the library against the same transfer on a bare libcurl handle set up the same way.
#include "Benchmark.h"

#include <LoopbackServer.h>
#include <VoHTTPMessage.h>

#include <base/VoModuleInformation.h>

#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

#include <cstring>
#include <memory>

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
    const size_t copied = std::min(size * count, source.body->size() - source.position);
    std::memcpy(buffer, source.body->data() + source.position, copied);
    source.position += copied;
    return copied;
}
size_t Write(char* data, size_t size, size_t count, void* context)
{
    auto& received = *static_cast<std::vector<char>*>(context);
    received.insert(received.end(), data, data + size * count);
    return size * count;
}
size_t Header(char* /*data*/, size_t size, size_t count, void* /*context*/)
{
    return size * count;
}

// What somebody would write who uses libcurl directly.
class CBareCURL
{
public:
    CBareCURL(std::string url, const std::string& body) : m_url(std::move(url)), m_body(body) {}
    ~CBareCURL()
    {
        curl_easy_cleanup(m_handle);
        curl_slist_free_all(m_headers);
    }
    CBareCURL(const CBareCURL&) = delete;
    CBareCURL& operator=(const CBareCURL&) = delete;

    void Request()
    {
        if (!m_handle)
            SetUp();
        CSource source{ &m_body };
        std::vector<char> received;
        curl_easy_setopt(m_handle, CURLOPT_READDATA, &source);
        curl_easy_setopt(m_handle, CURLOPT_WRITEDATA, &received);
        if (curl_easy_perform(m_handle) != CURLE_OK)
            std::abort();
        Benchmark::Keep(received);
    }
    void Drop()
    {
        curl_easy_cleanup(m_handle);
        m_handle = nullptr;
    }

private:
    void SetUp()
    {
        m_handle = curl_easy_init();
        if (!m_headers)
            for (const char* const line : { "Content-Type: application/octet-stream; charset=UTF-8", "Connection: Keep-Alive",
                                            "Pragma: no-cache", "Expect:", "Accept: */*" })
                m_headers = curl_slist_append(m_headers, line);
        curl_easy_setopt(m_handle, CURLOPT_URL, m_url.c_str());
        curl_easy_setopt(m_handle, CURLOPT_USERAGENT, "bare");
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
        curl_easy_setopt(m_handle, CURLOPT_POST, 1L);
        curl_easy_setopt(m_handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(m_body.size()));
        curl_easy_setopt(m_handle, CURLOPT_HTTPHEADER, m_headers);
    }

    std::string m_url;
    const std::string& m_body;
    CURL* m_handle = nullptr;
    curl_slist* m_headers = nullptr;
};

void Request(CVoHTTPMessage& message, const CVoBinaryDataParser& parameters)
{
    std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
    CVoBinaryDataParser answer;
    if (FAILED(message.OpenRequest(request)) ||
        FAILED(message.SendMessage(request, parameters, CVoHTTPMessage::EContentKind::Raw, true, {}, {}, false, nullptr)) ||
        FAILED(message.ReadResponse(request, answer, CVoHTTPMessage::EResponseKind::Binary, nullptr, nullptr)))
        std::abort();
    Benchmark::Keep(answer);
}

void Run()
{
    CVoModuleInformation::Get().SetHTTPEngine(2);
    for (const size_t size : { size_t{ 0 }, size_t{ 10 } << 10, size_t{ 10 } << 20 })
    {
        const std::string answer(size, 'a');
        Loopback::CLoopbackServer server(
            [&](const Loopback::CRequest&, Loopback::CConnection& connection)
            { connection.SendResponse(200, { { "Content-Type", "application/octet-stream" } }, answer); });
        CVoBinaryDataParser parameters;
        if (FAILED(parameters.SetPayload(reinterpret_cast<const BYTE*>(answer.data()), static_cast<UINT32>(size))))
            std::abort();
        CVoByteBuffer body;
        if (FAILED(parameters.GetMessageData(body.PutLength(), body.PutBytes(), false, true)))
            std::abort();
        const std::string bodyText(reinterpret_cast<const char*>(body.Data()), body.Length());

        CServerAddressData address;
        const std::string url = server.URL("/bench");
        std::shared_ptr<CVoHTTPMessage> message;
        if (FAILED(address.SetAddress(std::wstring(url.begin(), url.end()), false, true, true)) ||
            FAILED(CVoHTTPMessage::Connect(address, nullptr, nullptr, nullptr, 30, 60, false, false, message)))
            std::abort();
        CBareCURL kept(url, bodyText);
        CBareCURL fresh(url, bodyText);
        Benchmark::COptions options;
        options.bytes = static_cast<double>(2 * size);
        options.minimumSeconds = 0.05;
        Benchmark::Compare("a request with " + std::to_string(size) + " bytes each way",
                           { { "bare libcurl, one handle", [&] { kept.Request(); } },
                             { "bare libcurl, a new handle each",
                               [&]
                               {
                                   fresh.Drop();
                                   fresh.Request();
                               } },
                             { "the library, one message", [&] { Request(*message, parameters); } } },
                           options);
    }
}

const Benchmark::CGroup kGroup("http", &Run);
} // namespace
