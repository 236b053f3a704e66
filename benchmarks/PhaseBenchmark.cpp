// Where the time of one request goes on each transport: the phases that the record of the exchange has, the reading of the
// body, and what is left, the library's own work before and after the transfer. The servers are those that ./bench starts.
#include "Benchmark.h"
#include "Client.h"

#include <support/TestServers.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace
{
using Client::Connect;
using Client::Demand;
using Clock = std::chrono::steady_clock;

constexpr size_t kSize = size_t{ 10 } << 10;

double SecondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

// The spans of some requests, each with a sample of each request.
class CSpans
{
public:
    void Add(CVoHTTPMessage& message)
    {
        const auto start = Clock::now();
        std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
        Demand(SUCCEEDED(message.SendGetRequest(request, {}, false, nullptr)));
        const auto sent = Clock::now();
        CVoBinaryDataParser response;
        Demand(SUCCEEDED(message.ReadResponse(request, response, CVoHTTPMessage::EResponseKind::Binary, nullptr, nullptr)) &&
               response.Payload().size() == kSize);
        const auto read = Clock::now();

        CVoExchangeRecord record;
        Demand(SUCCEEDED(request->GetExchangeRecord(record)) && record.attempts.size() == 1 && record.attempts[0].times.total);
        const CVoExchangeRecord::CTimes& times = record.attempts[0].times;
        const std::array ends{ times.name, times.connect, times.tls, times.sent, times.firstByte, times.total };
        INT64 last = 0;
        for (size_t i = 0; i < ends.size(); ++i)
        {
            if (const std::optional<INT64> end = ends.at(i))
            {
                Sample(i, static_cast<double>(*end - last) * 1e-6);
                last = *end;
            }
        }
        Sample(ends.size(), SecondsBetween(sent, read));
        Sample(ends.size() + 1, SecondsBetween(start, sent) - static_cast<double>(last) * 1e-6);
    }

    // The spans that each request had.
    void Publish(const std::string& title) const
    {
        std::vector<Benchmark::CSeries> spans(m_spans.begin(), m_spans.end());
        std::erase_if(spans, [requests = m_spans.back().samples.size()](const Benchmark::CSeries& span)
        { return span.samples.size() != requests; });
        Benchmark::Publish(title, spans);
    }

private:
    // The record counts whole microseconds.
    void Sample(size_t span, double seconds) { m_spans.at(span).samples.push_back(std::max(seconds, 1e-6)); }

    std::array<Benchmark::CSeries, 8> m_spans{ { { "name", {} },
                                                 { "connect", {} },
                                                 { "TLS handshake", {} },
                                                 { "send", {} },
                                                 { "wait", {} },
                                                 { "receive", {} },
                                                 { "read the body", {} },
                                                 { "library", {} } } };
};

const Benchmark::CGroup kPhases("http-phases", []
{
    const TestSupport::CTestServers* const servers = TestSupport::TestServers();
    if (!servers)
    {
        std::printf("phases: left out, since there is no server; ./bench starts one\n");
        return;
    }
    constexpr int kRequests = 200;
    const auto measure = [](const std::string& title, const std::function<std::shared_ptr<CVoHTTPMessage>()>& message)
    {
        CSpans().Add(*message()); // warm-up: the connection, and what the platform loads
        CSpans spans;
        for (int i = 0; i < kRequests; ++i)
            spans.Add(*message());
        spans.Publish(title);
    };
    for (const bool isSecure : { false, true })
    {
        const char* const security = isSecure ? "TLS" : "plain";
        const std::string url = isSecure ? servers->SecureURL("/files/10k.bin") : servers->URL("/files/10k.bin");
        for (const Client::CTransport& transport : Client::kTransports)
        {
            const std::string title = std::string("Phases of a GET of 10 KB, ") + transport.name + ", " + security;
            measure(title, [message = Connect(transport, url)] { return message; });
            // The Windows transports keep connections for the process.
            if (transport.kind == Client::kCURL.kind)
                measure(title + ", a new connection each", [&] { return Connect(transport, url); });
        }
    }
});
} // namespace
