#include <VoGlobalHTTPProxyStoreImpl.h>

#include <LoopbackServer.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include <support/ImportHook.h>
#include <support/LogCapture.h>

#include <winhttp.h>

namespace
{
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using TestSupport::CLogCapture;
using TestSupport::CLogLine;
using TestSupport::IsReport;
using TestSupport::IsReportBy;

constexpr const wchar_t* kSource = L"..\\source\\VoGlobalHTTPProxyStoreImpl";
constexpr const wchar_t* kSession = L"VoWinHttpInterface.h";
constexpr const wchar_t* kGetProxyForUrl = L"VoWinHttpInterface::WinHttpSessionHandle::GetProxyForUrl";

// What a look-up gave: "proxy user password", "-" for null texts.
std::wstring Look(IVoHTTPProxyStore& store, std::wstring_view url)
{
    CVoBstr proxy;
    CVoBstr user;
    CVoBstr password;
    const HRESULT hr =
        store.GetProxyForUrl(url.empty() ? nullptr : CVoBstr(url).Get(), proxy.Put(), user.Put(), password.Put());
    if (FAILED(hr))
        return VoFormat(L"0x%08X", static_cast<unsigned>(hr));
    EXPECT_NE(proxy.Get(), nullptr);
    const auto text = [](const CVoBstr& value) { return value.Get() ? std::wstring(value.View()) : L"-"; };
    return text(proxy) + L' ' + text(user) + L' ' + text(password);
}

class CTestStore
{
public:
    CTestStore() = default;
    explicit CTestStore(const CHTTPProxyConfigData& config) { EXPECT_EQ(m_store->Init(config), S_OK); }

    [[nodiscard]] std::wstring Look(std::wstring_view url) const { return ::Look(*m_store.Get(), url); }
    HRESULT Save(std::wstring_view proxy, std::wstring_view user, std::wstring_view password, bool valid = true,
                 bool required = true)
    {
        return m_store->SetAuthDataForProxy(CVoBstr(proxy).Get(), CVoBstr(user).Get(), CVoBstr(password).Get(),
                                            valid ? VARIANT_TRUE : VARIANT_FALSE, required ? VARIANT_TRUE : VARIANT_FALSE);
    }
    [[nodiscard]] std::wstring Serialize() const
    {
        CVoBstr data;
        EXPECT_EQ(m_store->Serialize(data.Put()), S_OK);
        return std::wstring(data.View());
    }
    HRESULT Deserialize(std::wstring_view data) { return m_store->Deserialize(CVoBstr(data).Get()); }
    CVoGlobalHTTPProxyStoreImpl* operator->() const { return m_store.Get(); }

private:
    CVoComPtr<CVoGlobalHTTPProxyStoreImpl> m_store = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
};

CHTTPProxyConfigData Manual(std::wstring_view proxies, std::wstring_view bypass = {})
{
    CHTTPProxyConfigData config;
    config.manualProxy = proxies;
    config.manualProxyBypassList = bypass;
    return config;
}
CHTTPProxyConfigData Script(std::wstring_view url)
{
    CHTTPProxyConfigData config;
    config.pacFileUrl = url;
    return config;
}
CHTTPProxyConfigData Detection()
{
    CHTTPProxyConfigData config;
    config.autoDetect = true;
    return config;
}
CHTTPProxyAuthenticationData Credentials(std::wstring_view user, std::wstring_view password)
{
    CHTTPProxyAuthenticationData data;
    data.valid = data.required = true;
    data.userName = user;
    data.password.Get() = password;
    return data;
}

// A text as the platform hands it out.
LPWSTR GlobalText(std::wstring_view text)
{
    if (text.empty())
        return nullptr;
    auto* const copy = static_cast<LPWSTR>(::GlobalAlloc(GPTR, (text.size() + 1) * sizeof(wchar_t)));
    std::copy(text.begin(), text.end(), copy);
    return copy;
}

// Counts the texts that are freed. The platform's DLLs free through their own imports.
class CGlobalFrees
{
public:
    [[nodiscard]] int Count() const noexcept { return *m_count; }

private:
    std::shared_ptr<std::atomic<int>> m_count = std::make_shared<std::atomic<int>>(0);
    CCallHook<decltype(&::GlobalFree)> m_hook{ "kernel32.dll", "GlobalFree", [count = m_count](auto original, HGLOBAL memory)
                                               {
                                                   if (memory)
                                                       ++*count;
                                                   return original(memory);
                                               } };
};

// Answers discoveries in the platform's place, and counts them.
class CDiscovery
{
public:
    struct CAnswer
    {
        DWORD error = ERROR_SUCCESS;
        std::wstring proxy;
        std::wstring bypass;
        DWORD accessType = WINHTTP_ACCESS_TYPE_NAMED_PROXY;
    };
    struct CQuestion
    {
        std::wstring url;
        std::wstring script;
        DWORD flags;
        DWORD detection;
        bool logon;
    };

    // The answers in turn; the last one again and again.
    explicit CDiscovery(std::vector<CAnswer> answers) : m_state(std::make_shared<CState>()) { m_state->answers = answers; }

    [[nodiscard]] std::vector<CQuestion> Questions() const
    {
        const std::scoped_lock lock(m_state->lock);
        return m_state->questions;
    }
    [[nodiscard]] size_t Count() const { return Questions().size(); }

private:
    struct CState
    {
        std::mutex lock;
        std::vector<CAnswer> answers;
        std::vector<CQuestion> questions;
    };
    std::shared_ptr<CState> m_state;
    CCallHook<decltype(&::WinHttpGetProxyForUrl)> m_hook{
        "winhttp.dll", "WinHttpGetProxyForUrl",
        [state = m_state](auto, HINTERNET session, LPCWSTR url, WINHTTP_AUTOPROXY_OPTIONS* options, WINHTTP_PROXY_INFO* info)
        {
            EXPECT_NE(session, nullptr);
            const std::scoped_lock lock(state->lock);
            state->questions.push_back({ url, options->lpszAutoConfigUrl ? options->lpszAutoConfigUrl : L"", options->dwFlags,
                                         options->dwAutoDetectFlags, options->fAutoLogonIfChallenged != FALSE });
            const CAnswer& answer = state->answers[std::min(state->questions.size(), state->answers.size()) - 1];
            if (answer.error != ERROR_SUCCESS)
            {
                ::SetLastError(answer.error);
                return FALSE;
            }
            *info = { answer.accessType, GlobalText(answer.proxy), GlobalText(answer.bypass) };
            return TRUE;
        }
    };
};

CDiscovery::CAnswer Finds(std::wstring_view proxy, std::wstring_view bypass = {})
{
    return { ERROR_SUCCESS, std::wstring(proxy), std::wstring(bypass), WINHTTP_ACCESS_TYPE_NAMED_PROXY };
}
CDiscovery::CAnswer Fails(DWORD error)
{
    return { error, {}, {}, 0 };
}

// --- the user's Internet settings

struct CSettingsCase
{
    const char* rule;
    BOOL autoDetect;
    std::wstring script;
    std::wstring proxy;
    std::wstring bypass;
    CHTTPProxyConfigData expected;
};

TEST(ProxyConfiguration, TakesOneSourceOfTheInternetSettings)
{
    const CSettingsCase table[] = {
        { "detection drops a script beside it", TRUE, L"http://s/p", L"p:1", L"b", Detection() },
        { "detection alone", TRUE, L"", L"", L"", Detection() },
        { "a script drops a proxy beside it", FALSE, L"http://s/p", L"p:1", L"b", Script(L"http://s/p") },
        { "a proxy with its bypass list", FALSE, L"", L"p:1", L"a;<local>", Manual(L"p:1", L"a;<local>") },
        { "a proxy alone", FALSE, L"", L"p:1", L"", Manual(L"p:1") },
        { "a bypass list alone is nothing", FALSE, L"", L"", L"b", {} },
        { "nothing", FALSE, L"", L"", L"", {} },
    };
    for (const CSettingsCase& row : table)
    {
        SCOPED_TRACE(row.rule);
        const CCallHook<decltype(&::WinHttpGetIEProxyConfigForCurrentUser)> hook(
            "winhttp.dll", "WinHttpGetIEProxyConfigForCurrentUser",
            [&](auto, WINHTTP_CURRENT_USER_IE_PROXY_CONFIG* settings)
            {
                *settings = { row.autoDetect, GlobalText(row.script), GlobalText(row.proxy), GlobalText(row.bypass) };
                return TRUE;
            });
        // Nothing of what it held stays, credentials included.
        CHTTPProxyConfigData config;
        config.autoDetect = true;
        config.pacFileUrl = config.manualProxy = config.manualProxyBypassList = L"old";
        config.manualProxyAuthenticationData = Credentials(L"old", L"old");
        const CGlobalFrees frees;
        EXPECT_EQ(config.InitFromIE(), S_OK);
        EXPECT_TRUE(config == row.expected);
        EXPECT_EQ(frees.Count(), !row.script.empty() + !row.proxy.empty() + !row.bypass.empty());
    }
}

TEST(ProxyConfiguration, ReportsSettingsThatCannotBeHad)
{
    CLogCapture log;
    for (const DWORD error : { DWORD{ ERROR_FILE_NOT_FOUND }, DWORD{ ERROR_SUCCESS } })
    {
        const CFailOnCall<decltype(&::WinHttpGetIEProxyConfigForCurrentUser)> fail(
            "winhttp.dll", "WinHttpGetIEProxyConfigForCurrentUser", 1, FALSE, error);
        CHTTPProxyConfigData config = Manual(L"p:1");
        EXPECT_EQ(config.InitFromIE(), error ? HResultFromWin32(error) : E_FAIL);
        EXPECT_TRUE(config == Manual(L"p:1"));
    }
    EXPECT_THAT(log.Lines(),
                ElementsAre(IsReport(kSource, 314, L"CHTTPProxyConfigData::InitFromIE", HResultFromWin32(ERROR_FILE_NOT_FOUND)),
                            IsReport(kSource, 315, L"CHTTPProxyConfigData::InitFromIE", E_FAIL)));
}

TEST(ProxyStore, OfTheModuleHasTheUsersSettings)
{
    {
        const CCallHook<decltype(&::WinHttpGetIEProxyConfigForCurrentUser)> hook(
            "winhttp.dll", "WinHttpGetIEProxyConfigForCurrentUser",
            [&](auto, WINHTTP_CURRENT_USER_IE_PROXY_CONFIG* settings)
            {
                *settings = { FALSE, nullptr, GlobalText(L"p:8080"), GlobalText(L"<local>") };
                return TRUE;
            });
        CVoComPtr<IVoHTTPProxyStore> store;
        ASSERT_EQ(CreateGlobalHTTPProxyStoreForModule(store.Put()), S_OK);
        EXPECT_EQ(Look(*store.Get(), L"http://www.example/"), L"p:8080 - -");
        EXPECT_EQ(Look(*store.Get(), L"http://intranet/"), L" - -");
    }
    // Without settings it connects directly.
    CLogCapture log;
    const CFailOnCall<decltype(&::WinHttpGetIEProxyConfigForCurrentUser)> fail(
        "winhttp.dll", "WinHttpGetIEProxyConfigForCurrentUser", 1, FALSE, ERROR_OUTOFMEMORY);
    CVoComPtr<IVoHTTPProxyStore> store;
    ASSERT_EQ(CreateGlobalHTTPProxyStoreForModule(store.Put()), S_OK);
    EXPECT_EQ(Look(*store.Get(), L"http://www.example/"), L" - -");
    EXPECT_THAT(log.Lines(), Contains(IsReportBy(L"CreateGlobalHTTPProxyStoreForModule", HResultFromWin32(ERROR_OUTOFMEMORY))));
    EXPECT_EQ(CreateGlobalHTTPProxyStoreForModule(nullptr), E_POINTER);
}

// --- looking up

TEST(ProxyStore, GivesTheManualProxyOfTheSchemeUnlessBypassed)
{
    const CTestStore store(Manual(L"http=a:1;https=b:2", L"host1;host2 *.example;<local>"));
    EXPECT_EQ(store.Look(L"http://www.test/path?q"), L"a:1 - -");
    EXPECT_EQ(store.Look(L"HTTPS://WWW.test:444"), L"b:2 - -");
    EXPECT_EQ(store.Look(L"www.test"), L"a:1 - -");
    EXPECT_EQ(store.Look(L"http://host10.test/"), L"a:1 - -");
    EXPECT_EQ(store.Look(L"http://a.EXAMPLE/"), L" - -");
    EXPECT_EQ(store.Look(L"https://intranet/"), L" - -");
    EXPECT_EQ(store.Look(L"http://127.0.0.1/"), L"a:1 - -");
    // The scheme is not known: the whole list.
    EXPECT_EQ(store.Look(L""), L"http=a:1;https=b:2 - -");
    EXPECT_EQ(CTestStore(Manual(L"http://P:8080")).Look(L""), L"P:8080 - -");
    EXPECT_EQ(CTestStore().Look(L""), L" - -");
    EXPECT_EQ(CTestStore(Detection()).Look(L""), L" - -");
}

TEST(ProxyStore, RefusesBadArguments)
{
    CTestStore store(Manual(L"p:1"));
    EXPECT_EQ(store.Look(L"http://host/"), L"p:1 - -"); // so that what follows could be found
    for (const wchar_t* const url : { L"ftp://host/", L"http://", L"http://host:x/", L"http://user@host/", L"http://host/\x01",
                                      L"http://host\x7F", L"://host/" })
        EXPECT_EQ(store.Look(url), L"0x80070057") << testing::PrintToString(url);
    EXPECT_EQ(store.Look(L" http://host/ \r\n"), L"p:1 - -"); // only trimmed

    const CVoBstr url(L"http://host/");
    EXPECT_EQ(store->GetProxyForUrl(url.Get(), nullptr, nullptr, nullptr), E_POINTER);
    EXPECT_EQ(store->Serialize(nullptr), E_POINTER);
    // The text of an out argument stays on failure.
    BSTR untouched = url.Get();
    EXPECT_EQ(store->GetProxyForUrl(CVoBstr(L"ftp://x").Get(), &untouched, &untouched, &untouched), E_INVALIDARG);
    EXPECT_EQ(untouched, url.Get());
    for (const wchar_t* const proxy : { L"", L"http=a:1;https=b:2", L"socks=a:1", L"user:x@p:1" })
        EXPECT_EQ(store.Save(proxy, L"u", L"p"), E_INVALIDARG) << testing::PrintToString(proxy);
}

struct CDiscoveryCase
{
    const char* rule;
    std::vector<CDiscovery::CAnswer> answers;
    std::wstring expected; // for http://www.example/
    std::vector<std::pair<int, HRESULT>> reports;
};

TEST(ProxyStore, DegradesToDirectWhenDiscoveryFails)
{
    const CDiscoveryCase table[] = {
        { "a list", { Finds(L"http=a:1;https=b:2") }, L"a:1", {} },
        { "a list that bypasses the host", { Finds(L"a:1", L"www.example") }, L"", {} },
        { "no proxy", { { ERROR_SUCCESS, L"a:1", L"b", WINHTTP_ACCESS_TYPE_NO_PROXY } }, L"", {} },
        { "an empty answer", { Finds(L"") }, L"", {} },
        { "a login, then a list", { Fails(12015), Finds(L"a:1") }, L"a:1", {} },
        { "a login, then no script", { Fails(12015), Fails(12167) }, L"", {} },
        { "a login twice", { Fails(12015) }, L"", { { 202, HResultFromWin32(12015) }, { 249, HResultFromWin32(12015) } } },
        { "a login, then a failure without a code", { Fails(12015), Fails(0xFFFFFFFF) }, L"", { { 202, -1 }, { 249, -1 } } },
        { "bad script", { Fails(12166) }, L"", {} },
        { "script not downloaded", { Fails(12167) }, L"", {} },
        { "unhandled script type", { Fails(12176) }, L"", {} },
        { "script throws", { Fails(12177) }, L"", {} },
        { "service fails", { Fails(12178) }, L"", {} },
        { "nothing detected", { Fails(12180) }, L"", {} },
        { "anything else", { Fails(12002) }, L"", { { 264, HResultFromWin32(12002) } } },
    };
    for (const CDiscoveryCase& row : table)
    {
        SCOPED_TRACE(row.rule);
        const CDiscovery discovery(row.answers);
        const CTestStore store(Detection());
        CLogCapture log;
        const CGlobalFrees frees;
        EXPECT_EQ(store.Look(L"http://www.example/path?query"), row.expected + L" - -");
        const auto& last = row.answers.back();
        EXPECT_EQ(frees.Count(), last.error ? 0 : !last.proxy.empty() + !last.bypass.empty());

        std::vector<std::pair<int, HRESULT>> reports;
        for (const CLogLine& line : log.Lines())
        {
            EXPECT_EQ(line.source, kSession);
            EXPECT_EQ(line.function, kGetProxyForUrl);
            reports.emplace_back(line.line, line.code.value_or(S_OK));
        }
        EXPECT_EQ(reports, row.reports);

        // The server is not asked about again.
        const size_t asked = discovery.Count();
        EXPECT_EQ(store.Look(L"http://WWW.example:80/other"), row.expected + L" - -");
        EXPECT_EQ(store.Look(L"http://www.example"), row.expected + L" - -");
        EXPECT_EQ(discovery.Count(), asked);
        // Another scheme or port is another server.
        (void)store.Look(L"https://www.example/");
        (void)store.Look(L"http://www.example:81/");
        EXPECT_GE(discovery.Count(), asked + 2);
    }
}

TEST(ProxyStore, AsksThePlatformAsConfigured)
{
    constexpr DWORD kDetect = WINHTTP_AUTOPROXY_AUTO_DETECT | WINHTTP_AUTOPROXY_SORT_RESULTS;
    constexpr DWORD kTypes = WINHTTP_AUTO_DETECT_TYPE_DHCP | WINHTTP_AUTO_DETECT_TYPE_DNS_A;
    const CDiscovery discovery({ Fails(12015), Finds(L"p:1") });
    std::vector<std::wstring> agents;
    const CCallHook<decltype(&::WinHttpOpen)> open(
        "winhttp.dll", "WinHttpOpen",
        [&](auto original, LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags)
        {
            agents.emplace_back(agent);
            EXPECT_EQ(access, DWORD{ WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY });
            EXPECT_EQ(proxy, nullptr);
            EXPECT_EQ(bypass, nullptr);
            return original(agent, access, proxy, bypass, flags);
        });
    std::vector<int> timeouts;
    const CCallHook<decltype(&::WinHttpSetTimeouts)> set("winhttp.dll", "WinHttpSetTimeouts",
                                                         [&](auto original, HINTERNET session, int a, int b, int c, int d)
                                                         {
                                                             timeouts = { a, b, c, d };
                                                             return original(session, a, b, c, d);
                                                         });

    const CTestStore store(Detection());
    EXPECT_EQ(store.Look(L"https://host/secret/path?token=1#part"), L"p:1 - -");
    EXPECT_EQ(store->Init(Script(L"http://script/")), S_OK);
    EXPECT_EQ(store.Look(L"https://host/"), L"p:1 - -"); // and nothing of the former configuration

    const std::vector<CDiscovery::CQuestion> questions = discovery.Questions();
    ASSERT_EQ(questions.size(), 3u);
    for (const CDiscovery::CQuestion& question : questions)
        EXPECT_EQ(question.url, L"https://host/");
    EXPECT_EQ(questions[0].flags, kDetect);
    EXPECT_EQ(questions[0].detection, kTypes);
    EXPECT_FALSE(questions[0].logon);
    EXPECT_EQ(questions[1].flags, kDetect | WINHTTP_AUTOPROXY_RUN_INPROCESS);
    EXPECT_TRUE(questions[1].logon);
    EXPECT_EQ(questions[2].flags, DWORD{ WINHTTP_AUTOPROXY_CONFIG_URL });
    EXPECT_EQ(questions[2].detection, 0u);
    EXPECT_EQ(questions[2].script, L"http://script/");
    EXPECT_FALSE(questions[2].logon);
    EXPECT_THAT(agents, ElementsAre(L"CProxyConfigHandler")); // one session for both
    EXPECT_THAT(timeouts, ElementsAre(2000, 2000, 2000, 2000));
}

TEST(ProxyStore, DiscoversOnceForEachServerFromManyThreads)
{
    constexpr int kThreads = 8;
    constexpr int kServers = 5;
    // Slow, so that the threads meet.
    std::atomic<size_t> discoveries{ 0 };
    const CCallHook<decltype(&::WinHttpGetProxyForUrl)> hook(
        "winhttp.dll", "WinHttpGetProxyForUrl",
        [&](auto, HINTERNET, LPCWSTR, WINHTTP_AUTOPROXY_OPTIONS*, WINHTTP_PROXY_INFO* info)
        {
            ++discoveries;
            ::Sleep(10);
            *info = { WINHTTP_ACCESS_TYPE_NAMED_PROXY, GlobalText(L"p:1"), nullptr };
            return TRUE;
        });
    const CTestStore store(Detection());
    std::atomic<int> wrong{ 0 };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back(
            [&, thread]
            {
                for (int i = 0; i < 200; ++i)
                {
                    const std::wstring url = L"http://Server" + std::to_wstring((thread + i) % kServers) + L".test/";
                    if (Look(*store.operator->(), url) != L"p:1 - -")
                        ++wrong;
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(discoveries, size_t{ kServers });
}

TEST(ProxyStore, AnswersForKnownServersWhileAScriptRuns)
{
    CEvent answered(false, true);
    const CTestStore store(Manual(L"p:1"));
    EXPECT_EQ(store.Look(L"http://known/"), L"p:1 - -");
    ASSERT_EQ(store->Init(Detection()), S_OK);

    CEvent began(false, true);
    const CCallHook<decltype(&::WinHttpGetProxyForUrl)> hook(
        "winhttp.dll", "WinHttpGetProxyForUrl",
        [&](auto, HINTERNET, LPCWSTR url, WINHTTP_AUTOPROXY_OPTIONS*, WINHTTP_PROXY_INFO* info)
        {
            if (std::wstring_view(url) == L"http://slow/")
            {
                (void)began.Set();
                ::WaitForSingleObject(answered.Handle(), INFINITE);
            }
            *info = { WINHTTP_ACCESS_TYPE_NAMED_PROXY, GlobalText(L"p:2"), nullptr };
            return TRUE;
        });
    EXPECT_EQ(store.Look(L"http://known/"), L"p:2 - -");
    std::thread slow([&] { EXPECT_EQ(store.Look(L"http://slow/"), L"p:2 - -"); });
    ::WaitForSingleObject(began.Handle(), INFINITE);
    EXPECT_EQ(store.Look(L"http://known/"), L"p:2 - -"); // would hang here otherwise
    EXPECT_EQ(answered.Set(), S_OK);
    slow.join();
}

// --- credentials

TEST(ProxyStore, HandsCredentialsOutForTheirProxyOnly)
{
    CTestStore store(Manual(L"http=Proxy.example:8080;https=other:8080"));
    EXPECT_EQ(store.Look(L"http://first/"), L"Proxy.example:8080 - -");
    EXPECT_EQ(store.Save(L"http://proxy.EXAMPLE:8080/", L"user", L"secret"), S_OK);
    EXPECT_EQ(store.Look(L"http://first/"), L"Proxy.example:8080 user secret");
    EXPECT_EQ(store.Look(L"http://later/"), L"Proxy.example:8080 user secret");
    EXPECT_EQ(store.Look(L"https://first/"), L"other:8080 - -");
    EXPECT_EQ(store.Look(L""), L"http=Proxy.example:8080;https=other:8080 - -");

    // Others of the same host, or of none that is used, are others.
    EXPECT_EQ(store.Save(L"other:8081", L"no", L"no"), S_OK);
    EXPECT_EQ(store.Look(L"https://first/"), L"other:8080 - -");
    // New ones replace the old ones, also by nothing.
    EXPECT_EQ(store.Save(L"proxy.example:8080", L"user2", L""), S_OK);
    EXPECT_EQ(store.Look(L"http://first/"), L"Proxy.example:8080 user2 ");
    // Both flags are needed.
    for (const auto& [valid, required] : { std::pair(true, false), std::pair(false, true), std::pair(false, false) })
    {
        EXPECT_EQ(store.Save(L"proxy.example:8080", L"user", L"secret", valid, required), S_OK);
        EXPECT_EQ(store.Look(L"http://first/"), L"Proxy.example:8080 - -");
        EXPECT_EQ(store.Look(L"http://third/"), L"Proxy.example:8080 - -");
    }
    // And both outputs.
    EXPECT_EQ(store.Save(L"proxy.example:8080", L"user", L"secret"), S_OK);
    CVoBstr proxy;
    BSTR user = CVoBstr(L"x").Get();
    EXPECT_EQ(store->GetProxyForUrl(CVoBstr(L"http://first/").Get(), proxy.Put(), &user, nullptr), S_OK);
    EXPECT_EQ(user, nullptr);
    EXPECT_EQ(store->GetProxyForUrl(CVoBstr(L"http://first/").Get(), proxy.Put(), nullptr, nullptr), S_OK);
}

TEST(ProxyStore, UsesTheConfiguredCredentialsUntilOthersAreSaved)
{
    CHTTPProxyConfigData config = Manual(L"p:1", L"bypassed");
    config.manualProxyAuthenticationData = Credentials(L"user", L"secret");
    CTestStore store(config);
    EXPECT_EQ(store.Look(L""), L"p:1 user secret");
    EXPECT_EQ(store.Look(L"http://bypassed/"), L" - -");
    EXPECT_EQ(store.Look(L"http://first/"), L"p:1 user secret");
    EXPECT_EQ(store.Save(L"p:1", L"newer", L"word"), S_OK);
    for (const wchar_t* const url : { L"", L"http://first/", L"http://second/" })
        EXPECT_EQ(store.Look(url), L"p:1 newer word");
    // Rejected ones stay away.
    EXPECT_EQ(store.Save(L"p:1", L"newer", L"word", false), S_OK);
    for (const wchar_t* const url : { L"", L"http://first/", L"http://third/" })
        EXPECT_EQ(store.Look(url), L"p:1 - -");

    // The same configuration again changes nothing, another one forgets.
    EXPECT_EQ(store.Save(L"p:1", L"newer", L"word"), S_OK);
    EXPECT_EQ(store->Init(config), S_OK);
    EXPECT_EQ(store.Look(L"http://first/"), L"p:1 newer word");
    config.manualProxyBypassList.clear();
    EXPECT_EQ(store->Init(config), S_OK);
    EXPECT_EQ(store.Look(L"http://bypassed/"), L"p:1 user secret");
    EXPECT_EQ(store->Clear(), S_OK);
    for (const wchar_t* const url : { L"", L"http://first/" })
        EXPECT_EQ(store.Look(url), L" - -");
}

// --- serialisation

TEST(ProxyStore, ComesBackFromItsText)
{
    CHTTPProxyConfigData config = Manual(L"http=a:1;https=b:2", L"x;<local>");
    config.manualProxyAuthenticationData = Credentials(L"us&er$", L"p=a&&s$s \x00E4\xD83D\xDE00");
    CTestStore store(config);
    const std::wstring withConfigured = L"a:1 us&er$ p=a&&s$s \x00E4\xD83D\xDE00";
    EXPECT_EQ(store.Look(L"http://First.test/"), withConfigured);
    EXPECT_EQ(store.Look(L"http://x:81/"), L" - -");
    EXPECT_EQ(store.Look(L"https://local/"), L" - -");
    EXPECT_EQ(store.Save(L"later:3", L"", L"\"&"), S_OK);
    EXPECT_EQ(store.Save(L"b:2", L"only", L"kept", true, false), S_OK);

    const std::wstring text = store.Serialize();
    CTestStore copy;
    ASSERT_EQ(copy.Deserialize(text), S_OK);
    EXPECT_EQ(copy.Serialize(), text);
    EXPECT_EQ(copy.Look(L"http://first.test/"), withConfigured);
    EXPECT_EQ(copy.Look(L"https://new.test/"), L"b:2 - -");
    EXPECT_EQ(copy.Look(L"https://local/"), L" - -");

    // The property is the same text, to read and to write.
    CVoVariant value;
    ASSERT_EQ(store->get_Properties(CVoBstr(L"proxydatastring").Get(), value.Put()), S_OK);
    ASSERT_EQ(value.Get().vt, VT_BSTR);
    EXPECT_EQ(CVoBstr::ViewOf(value.Get().bstrVal), text);
    CTestStore byProperty;
    ASSERT_EQ(byProperty->put_Properties(CVoBstr(L"ProxyDataString").Get(), value.Get()), S_OK);
    EXPECT_EQ(byProperty.Serialize(), text);
    VARIANT number{};
    number.vt = VT_I4;
    EXPECT_EQ(byProperty->put_Properties(CVoBstr(L"ProxyDataString").Get(), number), DISP_E_TYPEMISMATCH);

    // Nothing clears.
    EXPECT_EQ(copy->Deserialize(nullptr), S_OK);
    EXPECT_EQ(copy.Serialize(), CTestStore().Serialize());
}

TEST(ProxyStore, DiscoversAfterComingBack)
{
    const CDiscovery discovery({ Finds(L"p:1") });
    CTestStore first(Script(L"http://script/"));
    EXPECT_EQ(first.Look(L"http://known/"), L"p:1 - -");
    CTestStore second;
    ASSERT_EQ(second.Deserialize(first.Serialize()), S_OK);
    EXPECT_EQ(second.Look(L"http://known/"), L"p:1 - -");
    EXPECT_EQ(discovery.Count(), 1u);
    EXPECT_EQ(second.Look(L"http://new/"), L"p:1 - -");
    EXPECT_EQ(discovery.Count(), 2u);
}

TEST(ProxyStore, KeepsWhatItHasWhenTheTextIsBad)
{
    CTestStore store(Manual(L"p:1"));
    EXPECT_EQ(store.Look(L"http://host/"), L"p:1 - -");
    EXPECT_EQ(store.Save(L"p:1", L"user", L"secret"), S_OK);
    const std::wstring good = store.Serialize();

    std::vector<std::wstring> bad = { L"x", L"Config=x&Cache=", L"Cache=", good + L"&x", L"Config=&Cache=" };
    // Parts missing or renamed, and entries that are not as the store writes them.
    const std::pair<std::wstring, std::wstring> changes[] = {
        { L"Cache=", L"Kash=" },
        { L"ManualProxy=", L"Manual=" },
        { L"Entry=", L"Other=" },
        { L"ServerKey=http://host", L"ServerKey=HTTP://host" },
        { L"ServerKey=http://host", L"ServerKey=http://host:80" },
        { L"ServerKey=http://host", L"ServerKey=ftp://host" },
        { L"Proxy=p:1$$$&Aut", L"Proxy=$$$&Aut" },
        { L"Proxy=p:1$$$&Aut", L"Proxy=a:1 b:2$$$&Aut" },
        { L"AuthenticationDataAreValid=True", L"AuthenticationDataAreValid=x" },
        { L"Password=", L"Pass=" },
        { L"AutoDetectPACFileUrl=False", L"AutoDetectPACFileUrl=2x" },
    };
    for (const auto& [from, to] : changes)
    {
        const size_t at = good.rfind(from);
        ASSERT_NE(at, std::wstring::npos) << testing::PrintToString(from) << testing::PrintToString(good);
        bad.push_back(std::wstring(good).replace(at, from.size(), to));
    }
    for (const std::wstring& text : bad)
    {
        EXPECT_TRUE(FAILED(store.Deserialize(text))) << testing::PrintToString(text);
        EXPECT_EQ(store.Serialize(), good);
    }
    EXPECT_EQ(store.Deserialize(good), S_OK);
    EXPECT_EQ(store.Look(L"http://host/"), L"p:1 user secret");
}

// --- failures

TEST(ProxyStore, ReportsASessionThatFailsAndKeepsItsConfiguration)
{
    CTestStore store(Manual(L"p:1"));
    CLogCapture log;
    const auto run = [&]
    {
        const HRESULT hr = store->Init(Detection());
        if (FAILED(hr))
            EXPECT_EQ(store.Look(L"http://host/"), L"p:1 - -");
        else
            EXPECT_EQ(store->Init(Manual(L"p:1")), S_OK);
        return hr;
    };
    {
        const CFailOnCall<decltype(&::WinHttpOpen)> fail("winhttp.dll", "WinHttpOpen", 1, nullptr, ERROR_OUTOFMEMORY);
        EXPECT_EQ(run(), HResultFromWin32(ERROR_OUTOFMEMORY));
        EXPECT_THAT(
            log.Lines(),
            AllOf(Contains(IsReport(kSource, 630, L"CProxyConfigHandler::Init", HResultFromWin32(ERROR_OUTOFMEMORY))),
                  Contains(IsReport(kSource, 978, L"CVoGlobalHTTPProxyStoreImpl::Init", HResultFromWin32(ERROR_OUTOFMEMORY)))));
    }
    log.Clear();
    {
        const CFailOnCall<decltype(&::WinHttpSetTimeouts)> fail("winhttp.dll", "WinHttpSetTimeouts", 1, FALSE,
                                                                ERROR_INVALID_PARAMETER);
        EXPECT_EQ(run(), E_INVALIDARG);
        EXPECT_THAT(log.Lines(), AllOf(Contains(IsReport(kSource, 634, L"CProxyConfigHandler::Init", E_INVALIDARG)),
                                       Contains(IsReport(kSource, 978, L"CVoGlobalHTTPProxyStoreImpl::Init", E_INVALIDARG))));
    }
    EXPECT_EQ(run(), S_OK);
    // A session that does not close is reported, and everything is cleared nevertheless.
    log.Clear();
    const CFailOnCall<decltype(&::WinHttpCloseHandle)> fail("winhttp.dll", "WinHttpCloseHandle", 1, FALSE, ERROR_INVALID_HANDLE,
                                                            EInjectedFailure::AfterCall);
    EXPECT_EQ(store->Clear(), HResultFromWin32(ERROR_INVALID_HANDLE));
    EXPECT_EQ(store.Look(L"http://host/"), L" - -");
    EXPECT_THAT(log.Lines(),
                AllOf(Contains(IsReportBy(L"CProxyConfigHandler::Clear", HResultFromWin32(ERROR_INVALID_HANDLE))),
                      Contains(IsReportBy(L"CVoGlobalHTTPProxyStoreImpl::Clear", HResultFromWin32(ERROR_INVALID_HANDLE)))));
}

TEST(ProxyStore, ClosesItsSessionAtItsEnd)
{
    const CAcquireBalance sessions = CAcquireBalance::Of<decltype(&::WinHttpOpen), decltype(&::WinHttpCloseHandle)>(
        "winhttp.dll", "WinHttpOpen", "WinHttpCloseHandle");
    {
        const CTestStore store(Detection());
        EXPECT_EQ(sessions.Open(), 1);
    }
    EXPECT_EQ(sessions.Open(), 0);
}

TEST(ProxyStore, NeverLogsPasswords)
{
    CLogCapture log;
    CHTTPProxyConfigData config = Manual(L"p:1");
    config.manualProxyAuthenticationData = Credentials(L"user", L"secret-word");
    CTestStore store(config);
    (void)store.Look(L"http://host/");
    EXPECT_EQ(store.Save(L"user:secret-word@p:1", L"user", L"secret-word"), E_INVALIDARG);
    EXPECT_TRUE(FAILED(store.Deserialize(store.Serialize() + L"&secret-word")));
    EXPECT_THAT(log.Lines(), Not(IsEmpty()));
    for (const CLogLine& line : log.Lines())
        EXPECT_EQ(line.text.find(L"secret-word"), std::wstring::npos);
}

// --- real scripts

// Serves auto-configuration scripts by path.
class CScriptServer
{
public:
    [[nodiscard]] CHTTPProxyConfigData Config(std::string_view target) const
    {
        const std::string url = m_server.URL(target);
        return Script(std::wstring(url.begin(), url.end()));
    }
    [[nodiscard]] size_t Requests() const { return m_server.RequestCount(); }

private:
    static void Answer(const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        const std::string_view path = request.Path();
        std::string body;
        if (path == "/list")
            body = "if (host == 'direct.test') return 'DIRECT';"
                   "return url.substring(0, 6) == 'https:' ? 'PROXY b:2' : 'PROXY a:1; PROXY c:3; DIRECT';";
        else if (path == "/throws")
            body = "throw 'no';";
        else if (path == "/slow")
        {
            if (connection.WaitUntilStopped(std::chrono::milliseconds(300)))
                return;
            body = "return 'PROXY slow:1';";
        }
        else
        {
            connection.SendResponse(404);
            return;
        }
        connection.SendResponse(200, { { "Content-Type", "application/x-ns-proxy-autoconfig" } },
                                "function FindProxyForURL(url, host) { " + body + " }");
    }
    Loopback::CLoopbackServer m_server{ &Answer };
};

TEST(ProxyStore, RunsAutoConfigurationScripts)
{
    const CScriptServer server;
    const CTestStore list(server.Config("/list"));
    EXPECT_EQ(list.Look(L"http://www.test/"), L"a:1 - -");
    EXPECT_EQ(list.Look(L"https://www.test/"), L"b:2 - -");
    EXPECT_EQ(list.Look(L"http://direct.test/"), L" - -");
    EXPECT_EQ(list.Look(L""), L" - -");
    // Credentials of a proxy that a script names.
    EXPECT_EQ(
        list->SetAuthDataForProxy(CVoBstr(L"a:1").Get(), CVoBstr(L"u").Get(), CVoBstr(L"p").Get(), VARIANT_TRUE, VARIANT_TRUE),
        S_OK);
    EXPECT_EQ(list.Look(L"http://other.test/"), L"a:1 u p");

    EXPECT_EQ(CTestStore(server.Config("/slow")).Look(L"http://www.test/"), L"slow:1 - -");
    const size_t before = server.Requests();
    for (const char* const target : { "/throws", "/missing" })
    {
        const CTestStore store(server.Config(target));
        EXPECT_EQ(store.Look(L"http://www.test/"), L" - -");
        const size_t asked = server.Requests();
        EXPECT_EQ(store.Look(L"http://www.test/again"), L" - -");
        EXPECT_EQ(server.Requests(), asked);
    }
    EXPECT_GT(server.Requests(), before);
}

TEST(ProxyStore, ConnectsDirectlyWithoutANetworkToDetectIn)
{
    std::atomic<int> calls{ 0 };
    const CCallHook<decltype(&::WinHttpGetProxyForUrl)> hook(
        "winhttp.dll", "WinHttpGetProxyForUrl",
        [&](auto original, HINTERNET session, LPCWSTR url, WINHTTP_AUTOPROXY_OPTIONS* options, WINHTTP_PROXY_INFO* info)
        {
            ++calls;
            return original(session, url, options, info);
        });
    const CTestStore store(Detection());
    EXPECT_EQ(store.Look(L"http://www.test/"), L" - -");
    EXPECT_EQ(store.Look(L"http://www.test/again"), L" - -");
    EXPECT_EQ(calls, 1);
}
} // namespace
