// Measures the proxy look-up of a known server against the platform's discovery with a script that it has fetched already. A
// caller without the store would pay for that discovery with every request.
#include "Benchmark.h"

#include <VoGlobalHTTPProxyStoreImpl.h>

#include <base/VoMultiThreading.h>
#include <base/VoPromise.h>

#include <LoopbackServer.h>

#include <winhttp.h>

#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

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

// Threads that do the same work at the same time, each `kBatch` times for one run.
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
        Begin(0);
        for (std::thread& thread : m_threads)
            thread.join();
    }
    CCrew(const CCrew&) = delete;
    CCrew& operator=(const CCrew&) = delete;

    void Run()
    {
        Begin(m_threads.size());
        std::unique_lock lock(m_lock);
        m_changed.Wait(lock, [this] { return m_left == 0; });
    }

private:
    // Starts one run of every thread; 0 workers ends the threads.
    void Begin(size_t workers)
    {
        const std::lock_guard lock(m_lock);
        m_left = workers;
        m_stop = workers == 0;
        ++m_generation;
        m_changed.NotifyAll();
    }
    void Loop()
    {
        for (int seen = 0;; ++seen)
        {
            {
                std::unique_lock lock(m_lock);
                m_changed.Wait(lock, [&] { return m_generation != seen; });
                if (m_stop)
                    return;
            }
            for (int i = 0; i < kBatch; ++i)
                m_work();
            const std::lock_guard lock(m_lock);
            if (--m_left == 0)
                m_changed.NotifyAll();
        }
    }

    std::function<void()> m_work;
    CVoLock m_lock; // the standard library's waits miss a call now and then with mingw-w64
    CVoCondition m_changed;
    int m_generation = 0;
    size_t m_left = 0;
    bool m_stop = false;
    std::vector<std::thread> m_threads;
};

void CompareLookUps()
{
    const Loopback::CLoopbackServer server([](const Loopback::CRequest&, Loopback::CConnection& connection)
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

    // Every result costs the caller three system strings, from the one heap of the process.
    const auto makeStrings = [&]
    {
        const CVoBstr proxy(L"p:8080");
        const CVoBstr user(L"user");
        const CVoBstr password(L"password");
        Benchmark::Keep(proxy);
        Benchmark::Keep(user);
        Benchmark::Keep(password);
    };
    CCriticalSection lock;
    CCrew locks(8, [&] { const CAutoLock hold(&lock); });
    CCrew strings(8, makeStrings);
    CCrew one(1, [&] { lookUp(url.Get()); });
    CCrew eight(8, [&] { lookUp(url.Get()); });
    Benchmark::Compare("Proxy of a known server, 1000 look-ups of each thread",
                       { { "8 threads, the result's strings alone", [&] { strings.Run(); } },
                         { "8 threads, a lock taken alone", [&] { locks.Run(); } },
                         { "1 thread, GetProxyForUrl", [&] { one.Run(); } },
                         { "8 threads, GetProxyForUrl", [&] { eight.Run(); } } });
}

const Benchmark::CGroup kProxies("proxies", &CompareLookUps);
} // namespace
