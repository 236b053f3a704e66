// The memory that a large response takes, into memory and into a sink, and that a large request takes beside the caller's
// payload. The servers are those that ./bench starts; without them the loopback server of this process.
#include "Benchmark.h"

#include <LoopbackServer.h>
#include <VoHTTPMessage.h>
#include <VoResponseSink.h>

#include <support/TestServers.h>

#include <memory>
#include <stdexcept>

namespace
{
constexpr size_t kSize = size_t{ 100 } << 20;

class CCountingSink final : public IVoResponseSink
{
public:
    UINT64 count = 0;

    [[nodiscard]] HRESULT Write(std::span<const BYTE> bytes) noexcept override
    {
        count += bytes.size();
        return S_OK;
    }
};

HRESULT Open(UINT32 transport, const std::string& url, std::shared_ptr<CVoHTTPMessage>& message,
             std::shared_ptr<CVoHTTPMessage::CHTTPRequestData>& request)
{
    CServerAddressData address;
    HRESULT hr = address.SetAddress(std::wstring(url.begin(), url.end()), false, true, true);
    if (SUCCEEDED(hr))
        hr = CVoHTTPMessage::Connect(transport, address, nullptr, nullptr, nullptr, 30, 300, false, false, message);
    return SUCCEEDED(hr) ? message->OpenRequest(request) : hr;
}

// One POST on a connection of its own.
void Post(UINT32 transport, const std::string& url, const CVoBinaryDataParser& parameters)
{
    std::shared_ptr<CVoHTTPMessage> message;
    std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
    HRESULT hr = Open(transport, url, message, request);
    if (SUCCEEDED(hr))
        hr = message->SendMessage(request, parameters, CVoHTTPMessage::EContentKind::Raw, true, {}, {}, false, nullptr);
    if (FAILED(hr))
        throw std::runtime_error("the transfer failed");
}

// One GET on a connection of its own.
void Get(UINT32 transport, const std::string& url, bool useSink)
{
    std::shared_ptr<CVoHTTPMessage> message;
    std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
    CCountingSink sink;
    CVoBinaryDataParser response;
    HRESULT hr = Open(transport, url, message, request);
    if (SUCCEEDED(hr) && useSink)
        request->SetResponseSink(&sink);
    if (SUCCEEDED(hr))
        hr = message->SendGetRequest(request, {}, false, nullptr);
    if (SUCCEEDED(hr))
        hr = message->ReadResponse(request, response, CVoHTTPMessage::EResponseKind::Binary, nullptr, nullptr);
    if (FAILED(hr) || sink.count + response.Payload().size() != kSize)
        throw std::runtime_error("the transfer failed");
}

const Benchmark::CGroup kMemory("http-memory", []
{
    const std::string piece(size_t{ 1 } << 20, 'x');
    Loopback::CLoopbackServer loopback([&](const Loopback::CRequest& /*request*/, Loopback::CConnection& connection)
    {
        connection.SendResponseHead(200, {}, kSize);
        for (size_t sent = 0; sent < kSize && connection.Send(piece); sent += piece.size())
        {
        }
    });
    const TestSupport::CTestServers* const servers = TestSupport::TestServers();
    const std::string url = servers ? servers->URL("/files/100m.bin") : loopback.URL("/");
    const std::string uploadUrl = servers ? servers->URL("/upload") : loopback.URL("/");
    CVoBinaryDataParser parameters;
    parameters.SetPayload(std::vector<BYTE>(kSize, 'x'));
    for (const auto& [name, kind] : { std::pair("libcurl", 2U), { "WinHTTP", 1U }, { "WinINet", 0U } })
    {
        Benchmark::CompareMemory(std::string(name) + ", 100 MB down",
                                 { { "a buffer of that size", [] { Benchmark::Keep(std::string(kSize, 'x').back()); } },
                                   { "the library, into memory", [&, transport = kind] { Get(transport, url, false); } },
                                   { "the library, into a sink", [&, transport = kind] { Get(transport, url, true); } } });
        Benchmark::CompareMemory(std::string(name) + ", 100 MB up, beside the caller's payload",
                                 { { "a buffer of that size", [] { Benchmark::Keep(std::string(kSize, 'x').back()); } },
                                   { "the library", [&, transport = kind] { Post(transport, uploadUrl, parameters); } } });
    }
});
} // namespace
