// The proxy of a server that was looked up before, against the platform's own discovery with a script that it has fetched
// already, which is what a caller without the store would pay for every request.
#include "Benchmark.h"

#include <VoGlobalHTTPProxyStoreImpl.h>

#include <base/VoMultiThreading.h>

#include <LoopbackServer.h>

#include <winhttp.h>

#include <atomic>
#include <cstdlib>
#include <thread>

namespace
{
constexpr int kServers = 50;

std::wstring UrlOf(int server)
{
    return L"https://www.server" + std::to_wstring(server) + L".example/folder/request?x=1";
}

void Demand(bool condition)
{
    if (!condition)
        std::abort();
}

// Threads that do the same work together, `kBatch` times each for one run.
class CCrew
{
public:
    static constexpr int kBatch = 1000;

    CCrew(int count, std::function<void()> work) : m_work(std::move(work))
    {
        for (int i = 0; i < count; ++i)
            m_threads.emplace_back([this] { Loop(); });
    }
    ~CCrew()
    {
        m_stop.store(true);
        m_generation.fetch_add(1);
        m_generation.notify_all();
        for (std::thread& thread : m_threads)
            thread.join();
    }
    CCrew(const CCrew&) = delete;
    CCrew& operator=(const CCrew&) = delete;

    void Run()
    {
        m_left.store(static_cast<int>(m_threads.size()));
        m_generation.fetch_add(1);
        m_generation.notify_all();
        for (int left = m_left.load(); left != 0; left = m_left.load())
            m_left.wait(left);
    }

private:
    void Loop()
    {
        for (int seen = 0;;)
        {
            m_generation.wait(seen);
            seen = m_generation.load();
            if (m_stop.load())
                return;
            for (int i = 0; i < kBatch; ++i)
                m_work();
            if (m_left.fetch_sub(1) == 1)
                m_left.notify_all();
        }
    }

    std::function<void()> m_work;
    std::atomic<int> m_generation{ 0 };
    std::atomic<int> m_left{ 0 };
    std::atomic<bool> m_stop{ false };
    std::vector<std::thread> m_threads;
};

void CompareLookUps()
{
    const Loopback::CLoopbackServer server(
        [](const Loopback::CRequest&, Loopback::CConnection& connection)
        {
            connection.SendResponse(200, { { "Content-Type", "application/x-ns-proxy-autoconfig" } },
                                    "function FindProxyForURL(url, host) { return 'PROXY p:8080'; }");
        });
    const std::string script = server.URL("/proxy.pac");
    CHTTPProxyConfigData config;
    config.pacFileUrl.assign(script.begin(), script.end());
    const auto store = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
    Demand(SUCCEEDED(store->Init(config)));

    const auto lookUp = [&](BSTR url)
    {
        CVoBstr proxy;
        CVoBstr user;
        CVoBstr password;
        Demand(SUCCEEDED(store->GetProxyForUrl(url, proxy.Put(), user.Put(), password.Put())) && proxy.View() == L"p:8080");
        Benchmark::Keep(proxy);
    };
    for (int i = 0; i < kServers; ++i)
        lookUp(CVoBstr(UrlOf(i)).Get());
    Demand(SUCCEEDED(store->SetAuthDataForProxy(CVoBstr(L"p:8080").Get(), CVoBstr(L"user").Get(), CVoBstr(L"password").Get(),
                                                VARIANT_TRUE, VARIANT_TRUE)));

    const CVoBstr url(UrlOf(kServers / 2));
    const CVoBstr upperCase(L"HTTPS://WWW.SERVER25.EXAMPLE/folder/request?x=1");
    const HINTERNET session =
        ::WinHttpOpen(L"ProxyBenchmark", WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
    Demand(session != nullptr);
    Benchmark::Compare("Proxy of a known server", { { "WinHttpGetProxyForUrl",
                                                      [&]
                                                      {
                                                          WINHTTP_AUTOPROXY_OPTIONS options{};
                                                          options.dwFlags = WINHTTP_AUTOPROXY_CONFIG_URL;
                                                          options.lpszAutoConfigUrl = config.pacFileUrl.c_str();
                                                          WINHTTP_PROXY_INFO info{};
                                                          Demand(::WinHttpGetProxyForUrl(session, url.Get(), &options, &info));
                                                          ::GlobalFree(info.lpszProxy);
                                                          ::GlobalFree(info.lpszProxyBypass);
                                                      } },
                                                    { "GetProxyForUrl", [&] { lookUp(url.Get()); } },
                                                    { "GetProxyForUrl, URL in capitals", [&] { lookUp(upperCase.Get()); } } });
    ::WinHttpCloseHandle(session);

    CCriticalSection lock;
    CCrew locks(8, [&] { const CAutoLock hold(&lock); });
    CCrew one(1, [&] { lookUp(url.Get()); });
    CCrew eight(8, [&] { lookUp(url.Get()); });
    Benchmark::Compare("Proxy of a known server, 1000 look-ups of each thread",
                       { { "8 threads, a lock taken alone", [&] { locks.Run(); } },
                         { "1 thread, GetProxyForUrl", [&] { one.Run(); } },
                         { "8 threads, GetProxyForUrl", [&] { eight.Run(); } } });
}

const Benchmark::CGroup kProxies("proxies", &CompareLookUps);
} // namespace
