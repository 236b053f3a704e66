// The memory that a large response takes, into memory and into a sink, and that a large request takes beside the caller's
// payload. The servers are those that ./bench starts; without them the loopback server of this process.
#include "Benchmark.h"
#include "Client.h"

#include <LoopbackServer.h>
#include <VoResponseSink.h>

#include <support/TestServers.h>

#include <memory>

namespace
{
using Client::Demand;

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

constexpr UINT32 kTimeout = 300; // seconds

// One POST on a connection of its own.
void Post(const Client::CTransport& transport, const std::string& url, const CVoBinaryDataParser& parameters)
{
    const std::shared_ptr<CVoHTTPMessage> message = Client::Connect(transport, url, kTimeout);
    std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
    Demand(
        SUCCEEDED(message->OpenRequest(request)) &&
        SUCCEEDED(message->SendMessage(request, parameters, CVoHTTPMessage::EContentKind::Raw, true, {}, {}, false, nullptr)));
}

// One GET on a connection of its own.
void Get(const Client::CTransport& transport, const std::string& url, bool useSink)
{
    const std::shared_ptr<CVoHTTPMessage> message = Client::Connect(transport, url, kTimeout);
    std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
    CCountingSink sink;
    CVoBinaryDataParser response;
    Demand(SUCCEEDED(message->OpenRequest(request)));
    if (useSink)
        request->SetResponseSink(&sink);
    Demand(SUCCEEDED(message->SendGetRequest(request, {}, false, nullptr)) &&
           SUCCEEDED(message->ReadResponse(request, response, CVoHTTPMessage::EResponseKind::Binary, nullptr, nullptr)) &&
           sink.count + response.Payload().size() == kSize);
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
    const CVoBinaryDataParser parameters = Client::MakePayload(kSize);
    for (const Client::CTransport& transport : Client::kTransports)
    {
        Benchmark::CompareMemory(std::string(transport.name) + ", 100 MB down",
                                 { { "a buffer of that size", [] { Benchmark::Keep(std::string(kSize, 'x').back()); } },
                                   { "the library, into memory", [&] { Get(transport, url, false); } },
                                   { "the library, into a sink", [&] { Get(transport, url, true); } } });
        Benchmark::CompareMemory(std::string(transport.name) + ", 100 MB up, beside the caller's payload",
                                 { { "a buffer of that size", [] { Benchmark::Keep(std::string(kSize, 'x').back()); } },
                                   { "the library", [&] { Post(transport, uploadUrl, parameters); } } });
    }
});
} // namespace
