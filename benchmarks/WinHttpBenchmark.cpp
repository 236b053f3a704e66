// Compares an exchange on WinHTTP with plain WinHTTP calls, synchronous and asynchronous. Also counts leaked heap blocks.
#include "BareClient.h"
#include "Benchmark.h"

#include <VoWinHttpRequest.h>

#include <LoopbackServer.h>

#include <memory>
#include <string>
#include <vector>

namespace
{
using namespace VoWinHttpInterface;
using namespace VoWinHttpRequest;
using Bare::Demand;

class CExchange
{
public:
    explicit CExchange(INTERNET_PORT port)
    {
        Demand(SUCCEEDED(m_session.Init(L"benchmark", WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_FLAG_ASYNC)) &&
               SUCCEEDED(m_connection.Init(m_session, L"127.0.0.1", port)));
    }
    [[nodiscard]] std::vector<BYTE> Get(const wchar_t* path) const
    {
        WinHttpRequestHandle request;
        CVoWinHttpRequest<CVoWinHttpGetRequest> exchange;
        Demand(SUCCEEDED(request.Init(m_connection, L"GET", path, WINHTTP_FLAG_REFRESH)) &&
               SUCCEEDED(exchange.Init(&request, {}, nullptr)) && SUCCEEDED(exchange.Send()));
        Demand(exchange.GetStatusCode() == 200);
        return exchange.GetResponseData();
    }

private:
    WinHttpSessionHandle m_session;
    WinHttpConnectionHandle m_connection;
};

void RunWinHttp()
{
    constexpr size_t kLarge = 10 << 20;
    const std::string large(kLarge, 'x');
    Loopback::CLoopbackServer server([&](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (!connection.SendResponseHead(200, {}, request.Path() == "/large" ? kLarge : 0) || request.Path() != "/large")
            return;
        connection.Send(large);
    });
    const std::unique_ptr<Bare::IClient> bare = Bare::MakeWinHttp({ .port = server.Port(), .secure = false });
    const std::unique_ptr<Bare::IClient> asynchronous =
        Bare::MakeAsynchronousWinHttp({ .port = server.Port(), .secure = false });
    const CExchange exchange(server.Port());
    Benchmark::Compare("WinHTTP, GET of 0 B",
                       { { "bare synchronous calls", [&] { Benchmark::Keep(bare->Request("/", nullptr)); } },
                         { "bare asynchronous calls", [&] { Benchmark::Keep(asynchronous->Request("/", nullptr)); } },
                         { "CVoWinHttpRequest", [&] { Benchmark::Keep(exchange.Get(L"/")); } } });
    Benchmark::Compare(
        "WinHTTP, GET of 10 MB",
        { { "bare synchronous calls", [&] { Demand(bare->Request("/large", nullptr).size() == kLarge); } },
          { "bare asynchronous calls", [&] { Demand(asynchronous->Request("/large", nullptr).size() == kLarge); } },
          { "CVoWinHttpRequest", [&] { Demand(exchange.Get(L"/large").size() == kLarge); } } },
        { .bytes = static_cast<double>(kLarge) });

    constexpr int kRow = 10'000;
    const auto run = [&](int count)
    {
        for (int i = 0; i < count; ++i)
            Demand(exchange.Get(L"/").empty());
    };
    run(500);
    DWORD handlesBefore = 0;
    DWORD handlesAfter = 0;
    const size_t blocksBefore = Benchmark::HeapUse().blocks;
    ::GetProcessHandleCount(::GetCurrentProcess(), &handlesBefore);
    run(kRow);
    ::GetProcessHandleCount(::GetCurrentProcess(), &handlesAfter);
    const size_t blocksAfter = Benchmark::HeapUse().blocks;
    std::printf("WinHTTP, %d exchanges in a row: %+lld heap blocks", kRow,
                static_cast<long long>(blocksAfter) - static_cast<long long>(blocksBefore));
    if (handlesBefore != 0) // 0 when the platform does not count them
        std::printf(", %+ld handles", static_cast<long>(handlesAfter) - static_cast<long>(handlesBefore));
    std::printf("\n");
}

const Benchmark::CGroup kWinHttp("winhttp", RunWinHttp);
} // namespace
