// Many threads on one message and on shared stores, requests that are cancelled and dropped at any moment, processes that share
// a log or are killed while they write, and what many requests leave behind.
#include "Campaign.h"

#include <http/TransportFixture.h>
#include <support/MemoryMeter.h>
#include <support/Process.h>

#include <VoGlobalHTTPProxyStoreImpl.h>
#include <VoHTTPClient.h>
#include <base/VoErrorHandler.h>
#include <base/VoTextConversion.h>
#include <win/VoFile.h>
#include <win/VoUtilFileIO.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <thread>

namespace Stress
{
namespace
{
using namespace TestSupport;

constexpr int kThreads = 64;

// Runs `work` with the number of each thread and a random sequence of its own. The threads are created before anything is made
// to fail: they cannot begin without memory.
void OnThreads(const CRounds& rounds, int count, const std::function<void(int, CRandom&)>& work)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i]
        {
            CRandom random = rounds.Random();
            random.discard(static_cast<unsigned long long>(i) * 1000);
            work(i, random);
        });
    for (std::thread& thread : threads)
        thread.join();
}

// Sends back the number that the path ends with, with a cookie of that name; sometimes late.
void AnswerNumber(const Loopback::CRequest& request, Loopback::CConnection& connection)
{
    const std::string number(request.Path().substr(1));
    if (request.Query() == "late" && connection.WaitUntilStopped(std::chrono::milliseconds(number.size() * 4)))
        return;
    connection.SendResponse(200, { { "Set-Cookie", "t=" + number + "; Path=/" } }, number);
}

// ---- messages

// Whether requests may be cancelled at any moment. Wine's WinINet uses a handle's memory after another thread has closed it.
bool MayCancel(const CTransport& transport)
{
    return transport.kind != 0 || !IsWine();
}

void OneMessage(const CTransport& transport)
{
    const CServer server(&AnswerNumber);
    const auto cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    for (CRounds rounds(1); rounds.Next() && !testing::Test::HasFailure();)
    {
        Message shared;
        ASSERT_EQ(ConnectTo(Wide(server.URL()), { transport.kind, nullptr, nullptr, cookies.Get(), 20, 60 }, shared), S_OK);
        std::atomic<int> wrong{ 0 };
        std::atomic<HRESULT> code{ S_OK }; // of one of them
        OnThreads(rounds, kThreads, [&](int thread, CRandom& random)
        {
            for (int i = 0; i < 3; ++i)
            {
                const std::string number = std::to_string(thread) + '0' + std::to_string(random() % 1000);
                Request request;
                const bool isCancelled = random() % 4 == 0 && MayCancel(transport);
                std::future<void> canceller;
                if (SUCCEEDED(shared->OpenRequest(request)) && isCancelled)
                    canceller = std::async(std::launch::async, [request] { request->Cancel(); });
                Request sent = request;
                HRESULT hr = shared->SendGetRequest(sent, Wide('/' + number), false, nullptr);
                CVoBinaryDataParser response;
                if (SUCCEEDED(hr))
                    hr = shared->ReadResponse(sent, response, Response::Binary, nullptr, nullptr);
                const bool isRight = SUCCEEDED(hr) ? PayloadOf(response) == number : isCancelled && hr == kResultCancelled;
                wrong += !isRight;
                code = isRight ? code.load() : hr;
            }
        });
        EXPECT_EQ(wrong, 0) << std::hex << code << "; repeat: " << rounds.Command();
    }
}

// Clients whose operations are cancelled, or that are destroyed, at any moment.
void CancelAndDrop(const CTransport& transport)
{
    const CServer server(&AnswerNumber);
    for (CRounds rounds(2); rounds.Next() && !testing::Test::HasFailure();)
    {
        CVoHTTPClientOptions options;
        options.transport = static_cast<EVoHTTPTransport>(transport.kind);
        options.connectTimeout = std::chrono::seconds(20);
        options.credentials = nullptr;
        options.proxies = nullptr;
        options.cookies = nullptr;
        CVoHTTPClient client(Wide(server.URL()), options);
        std::atomic<int> wrong{ 0 };
        std::atomic<HRESULT> code{ S_OK }; // of one of them
        OnThreads(rounds, 12, [&](int thread, CRandom& random)
        {
            if (thread % 4 == 3)
            {
                for (int i = 0; i < 10; ++i)
                {
                    // A client of its own goes while its request runs on another thread.
                    auto dropped = std::make_unique<CVoHTTPClient>(Wide(server.URL()), options);
                    std::promise<void> begins;
                    auto operation = std::async(std::launch::async, [&, client = dropped.get()]
                    {
                        begins.set_value();
                        return client->Get(L"/123456?late").result;
                    });
                    begins.get_future().wait();
                    for (auto spins = random() % 20'000; spins > 0; --spins)
                        ::YieldProcessor();
                    dropped->Cancel();
                    const HRESULT hr = operation.get();
                    const bool isRight = hr == S_OK || hr == kResultCancelled;
                    wrong += !isRight;
                    code = isRight ? code.load() : hr;
                    client.Cancel();
                }
                return;
            }
            for (int i = 0; i < 10; ++i)
            {
                const std::string number(1 + random() % 8, static_cast<char>('0' + thread % 10));
                const CVoHTTPResponse response = client.Get(Wide('/' + number + (random() % 2 ? "?late" : "")));
                const bool isRight = response.IsOk() ? std::string(response.payload.begin(), response.payload.end()) == number
                                                     : response.result == kResultCancelled;
                wrong += !isRight;
                code = isRight ? code.load() : response.result;
            }
        });
        EXPECT_EQ(wrong, 0) << std::hex << code << "; repeat: " << rounds.Command();
    }
}

// What many requests leave behind: nothing that grows with their number.
void Slope(const CTransport& transport)
{
    const CServer server([](const Loopback::CRequest& request, Loopback::CConnection& connection)
    { connection.SendResponse(200, { { "Set-Cookie", "c=1" } }, request.Query()); });
    const auto cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    Message message;
    ASSERT_EQ(ConnectTo(Wide(server.URL()), { transport.kind, nullptr, nullptr, cookies.Get(), 20, 60 }, message), S_OK);
    constexpr int kRequests = 100; // of a round
    const auto send = [&]
    {
        for (int i = 0; i < kRequests; ++i)
            ASSERT_TRUE(SUCCEEDED(Get(*message, L"/?x").result));
    };
    send(); // makes what stays
    const CMemoryMeter meter;
    send();
    const auto guiObjects = []
    {
        return ::GetGuiResources(::GetCurrentProcess(), GR_GDIOBJECTS) +
               ::GetGuiResources(::GetCurrentProcess(), GR_USEROBJECTS);
    };
    const INT64 blocks = meter.Blocks();
    const DWORD handles = CountProcessHandles();
    const DWORD gui = guiObjects();
    CRounds rounds(2, 20);
    while (rounds.Next() && !testing::Test::HasFailure())
        send();
    // The server notes each request; its records are the test's, some blocks each.
    const auto noted = static_cast<INT64>(rounds.Round()) * kRequests;
    constexpr INT64 kBlocksOfARecord = 24;
    EXPECT_LE(meter.Blocks() - blocks, noted * kBlocksOfARecord + 500);
    EXPECT_LE(CountProcessHandles(), handles + 8) << rounds.Round() * kRequests << " requests";
    EXPECT_LE(guiObjects(), gui);
}

// ---- stores

void Stores()
{
    const auto cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    const auto proxies = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
    CHTTPProxyConfigData config;
    config.manualProxy = L"http=p:1;https=q:2";
    CHTTPProxyConfigData other = config; // for all hosts here the same
    other.manualProxyBypassList = L"elsewhere.test";
    for (CRounds rounds(2); rounds.Next() && !testing::Test::HasFailure();)
    {
        ASSERT_EQ(proxies->Init(config), S_OK);
        std::atomic<int> wrong{ 0 };
        OnThreads(rounds, kThreads, [&](int thread, CRandom& random)
        {
            const std::wstring own = std::to_wstring(thread);
            const std::wstring url = L"http://h" + own + L".test/";
            const auto check = [&](bool holds) { wrong += !holds; };
            for (int i = 0; i < 40; ++i)
                switch (random() % 7)
                {
                case 0:
                    check(cookies->AddCookieFromString(CVoBstr(L"n" + own + L"=v" + own).Get(), CVoBstr(url).Get()) == S_OK);
                    break;
                case 1:
                {
                    const std::wstring sent = CookiesFor(*cookies.Get(), url);
                    check(sent.empty() || sent == L"n" + own + L"=v" + own);
                    break;
                }
                case 2:
                    check(cookies->Deserialize(CVoBstr(Serialized(*cookies.Get())).Get()) == S_OK);
                    break;
                case 3:
                    for (int look = 0; look < 20; ++look)
                        check(ProxyFor(*proxies.Get(), VoFormat(L"http://h%d.test/", static_cast<int>(random() % 200)))
                                  .starts_with(L"p:1 "));
                    break;
                case 4:
                    check(SaveCredentials(*proxies.Get(), L"p:1", L"ann", own) == S_OK);
                    break;
                case 5: // empties the cache of servers
                    check(proxies->Init(random() % 2 ? config : other) == S_OK);
                    break;
                default:
                    check(!Serialized(*proxies.Get()).empty());
                    break;
                }
        });
        EXPECT_EQ(wrong, 0) << "repeat: " << rounds.Command();
        // The user and the password of one thread, never of two.
        const std::wstring proxy = ProxyFor(*proxies.Get(), L"http://h.test/");
        EXPECT_TRUE(proxy == L"p:1 - -" || proxy.starts_with(L"p:1 ann ")) << proxy;
    }
}

// ---- processes

constexpr const wchar_t* kReadyEvent = L"VoUtilsStressChildIsReady";
constexpr const wchar_t* kStressSource = L"..\\stress";
constexpr int kLinesOfAWriter = 60;

void WriteLines(int count)
{
    VoErrorLog().SetApplicationLog(true);
    const std::wstring filler(100, L'x');
    for (int i = 0; i < count; ++i)
        VoReportMessage(kStressSource, i, L"line %d of %lu %ls end", i, ::GetCurrentProcessId(), filler.c_str());
}

// The lines of a log that no writer wrote like this.
size_t TornLines(std::string_view bytes)
{
    size_t torn = 0;
    for (const CLogLine& line : ParseLog(bytes))
        torn += line.source == kStressSource && (!line.message.starts_with(L"line ") || !line.message.ends_with(L"x end"));
    return torn;
}

// A log just below the size at which it is cut.
void FillLog()
{
    WriteTestFile(VoErrorLog().LogFilePath(), "");
    VoErrorLog().SetApplicationLog(true);
    VoReportMessage(kStressSource, 1, L"line 1 of 1 %ls end", std::wstring(100, L'x').c_str());
    VoErrorLog().SetApplicationLog(false);
    const std::string bytes = ReadTestFile(VoErrorLog().LogFilePath());
    const std::string line = bytes.substr(bytes.rfind('\n', bytes.size() - 2) + 1);
    constexpr size_t kCutOff = 8192 * 1024;
    std::string full = bytes;
    while (full.size() + line.size() < kCutOff - 20'000)
        full += line;
    WriteTestFile(VoErrorLog().LogFilePath(), full);
}

void SharedLog()
{
    for (CRounds rounds(1); rounds.Next() && !testing::Test::HasFailure();)
    {
        FillLog();
        {
            std::vector<CProcess> children;
            for (int i = 0; i < 8; ++i)
                children.emplace_back(ThisProgram(L"Child.DISABLED_log"), CProcessStreams{}, DETACHED_PROCESS);
            for (const CProcess& child : children)
                EXPECT_EQ(child.Wait(), 0U);
        }
        const std::string bytes = ReadTestFile(VoErrorLog().LogFilePath());
        EXPECT_LT(bytes.size(), size_t{ 6 } << 20) << "the log was not cut";
        EXPECT_EQ(TornLines(bytes), 0U);
        size_t found = 0;
        for (const CLogLine& line : ParseLog(bytes))
            found += line.source == kStressSource && line.line == kLinesOfAWriter - 1;
        EXPECT_EQ(found, 8U) << "the last line of a process is missing; repeat: " << rounds.Command();
    }
}

// Saves an INI file and a store's cookies again and again, of two contents in turn.
std::string ContentOf(char letter)
{
    return "[S]\r\nk=" + std::string(30'000, letter) + "\r\n";
}
std::filesystem::path SavedFile(const wchar_t* name)
{
    return TestFolder() / name;
}

void SaveForEver()
{
    WriteLines(1);
    const CVoHandle ready(::CreateEventW(nullptr, TRUE, FALSE, kReadyEvent));
    CVoIniFileIO ini;
    ASSERT_TRUE(SUCCEEDED(ini.Open(SavedFile(L"killed.ini").wstring())));
    for (int i = 0;; ++i)
    {
        const char letter = i % 2 ? 'a' : 'b';
        ASSERT_TRUE(SUCCEEDED(ini.SetValue(L"S", L"k", std::wstring(30'000, static_cast<wchar_t>(letter)))));
        ASSERT_TRUE(SUCCEEDED(ini.Save()));
        CVoFileReplacement cookies;
        ASSERT_TRUE(SUCCEEDED(cookies.Write(SavedFile(L"killed.txt").wstring(), ContentOf(letter))) &&
                    SUCCEEDED(cookies.Commit()));
        WriteLines(5);
        ::SetEvent(ready.Get());
    }
}

void KilledWriters()
{
    for (CRounds rounds(3, 5); rounds.Next() && !testing::Test::HasFailure();)
    {
        CRandom random = rounds.Random();
        for (const wchar_t* const name : { L"killed.ini", L"killed.txt" })
            WriteTestFile(SavedFile(name), ContentOf('a'));
        if (random() % 2)
            FillLog();
        const CEvent ready(false, true, kReadyEvent);
        const CProcess child(ThisProgram(L"Child.DISABLED_save"), {}, DETACHED_PROCESS);
        EXPECT_EQ(::WaitForSingleObject(ready.Handle(), 60'000), WAIT_OBJECT_0);
        // Any moment will do: the more different the better.
        for (auto spins = random() % 3'000'000; spins > 0; --spins)
            ::YieldProcessor();
        child.Kill();
        for (const wchar_t* const name : { L"killed.ini", L"killed.txt" })
        {
            const std::string bytes = ReadTestFile(SavedFile(name));
            EXPECT_TRUE(bytes == ContentOf('a') || bytes == ContentOf('b'))
                << name << " is damaged; repeat: " << rounds.Command();
        }
        // The log goes on. A cut that was broken off leaves a seam.
        const size_t torn = TornLines(ReadTestFile(VoErrorLog().LogFilePath()));
        EXPECT_LE(torn, 2U);
        WriteLines(3);
        const std::vector<CLogLine> lines = ParseLog(ReadTestFile(VoErrorLog().LogFilePath()));
        ASSERT_FALSE(lines.empty());
        EXPECT_TRUE(lines.back().message.starts_with(L"line 2 of ") && lines.back().message.ends_with(L" end"))
            << lines.back().message;
        VoErrorLog().SetApplicationLog(false);
        WriteTestFile(VoErrorLog().LogFilePath(), "");
    }
}

class CFunctionTest final : public testing::Test
{
public:
    explicit CFunctionTest(std::function<void()> body) : m_body(std::move(body)) {}
    void TestBody() override { m_body(); }

private:
    const std::function<void()> m_body;
};

void Register(const char* suite, const std::string& name, std::function<void()> body)
{
    testing::RegisterTest(suite, name.c_str(), nullptr, nullptr, __FILE__, __LINE__,
                          [body = std::move(body)]() -> testing::Test*
    {
        return std::make_unique<CFunctionTest>(body).release(); // the framework deletes it
    });
}

const bool kThreadsRegistered = []
{
    for (const CTransport& transport : kTransports)
        if (!transport.rewritesLoopback)
        {
            const std::string suffix = std::string("_") + transport.name;
            Register("Threads", "one_message" + suffix, [&] { OneMessage(transport); });
            Register("Threads", "cancel_and_drop" + suffix, [&]
            {
                if (!MayCancel(transport))
                    GTEST_SKIP() << "Wine's WinINet uses a handle's memory after another thread has closed it";
                CancelAndDrop(transport);
            });
            Register("Threads", "slope" + suffix, [&] { Slope(transport); });
        }
    Register("Threads", "stores", &Stores);
    Register("Threads", "shared_log", &SharedLog);
    Register("Threads", "killed_writers", &KilledWriters);
    Register("Child", "DISABLED_log", [] { WriteLines(kLinesOfAWriter); });
    Register("Child", "DISABLED_save", &SaveForEver);
    return true;
}();
} // namespace
} // namespace Stress
