// The proxy store: where it finds proxies, what it caches, whose credentials it gives, and how it is serialised.
#include <VoGlobalHTTPProxyStoreImpl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include <support/HTTPSupport.h>
#include <support/ImportHook.h>

#include <winhttp.h>

namespace
{
using testing::Contains;
using testing::ElementsAre;
using TestSupport::CLogCapture;
using TestSupport::CLogLine;
using TestSupport::IsReport;

constexpr const wchar_t* kProxyStoreSource = L"..\\source\\VoGlobalHTTPProxyStoreImpl";

class CTestProxyStore
{
public:
    explicit CTestProxyStore(const CHTTPProxyConfigData& config = {}) { EXPECT_EQ(m_store->Init(config), S_OK); }

    [[nodiscard]] std::wstring Look(std::wstring_view url) const { return TestSupport::ProxyFor(*m_store.Get(), url); }
    HRESULT Save(std::wstring_view proxy, std::wstring_view user, std::wstring_view password, bool valid = true,
                 bool required = true)
    {
        return TestSupport::SaveCredentials(*m_store.Get(), proxy, user, password, valid, required);
    }
    [[nodiscard]] std::wstring Serialize() const { return TestSupport::Serialized(*m_store.Get()); }
    HRESULT Deserialize(std::wstring_view data) { return m_store->Deserialize(CVoBstr(data).Get()); }
    CVoGlobalHTTPProxyStoreImpl* operator->() const { return m_store.Get(); }

private:
    CVoComPtr<CVoGlobalHTTPProxyStoreImpl> m_store = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
};

CHTTPProxyConfigData Manual(std::wstring_view proxies, std::wstring_view bypass = {})
{
    return { false, {}, std::wstring(proxies), std::wstring(bypass), {} };
}
CHTTPProxyConfigData Script(std::wstring_view url)
{
    return { false, std::wstring(url), {}, {}, {} };
}
CHTTPProxyConfigData Detection()
{
    return { true, {}, {}, {}, {} };
}
CHTTPProxyAuthenticationData Credentials(std::wstring_view user, std::wstring_view password)
{
    CHTTPProxyAuthenticationData data;
    data.valid = data.required = true;
    data.userName = user;
    data.password.Get() = password;
    return data;
}

// Makes a text as the platform hands it out, and counts the texts that nobody has freed.
std::atomic<int> g_openTexts{ 0 };
LPWSTR GlobalText(std::wstring_view text)
{
    if (text.empty())
        return nullptr;
    ++g_openTexts;
    auto* const copy = static_cast<LPWSTR>(::GlobalAlloc(GPTR, (text.size() + 1) * sizeof(wchar_t)));
    std::copy(text.begin(), text.end(), copy);
    return copy;
}
// Counts the texts that the library frees.
CCallHook<decltype(&::GlobalFree)> CountFreedTexts()
{
    return { "kernel32.dll", "GlobalFree", [](auto original, HGLOBAL memory)
    {
        g_openTexts -= memory != nullptr;
        return original(memory);
    } };
}

// Answers discoveries in place of the platform and records the questions.
class CDiscovery
{
public:
    struct CAnswer
    {
        std::optional<DWORD> error; // of a discovery that fails
        std::wstring proxy, bypass;
        DWORD accessType = WINHTTP_ACCESS_TYPE_NAMED_PROXY;
    };

    // Gives the answers in turn, then the last one always.
    explicit CDiscovery(std::vector<CAnswer> answers) : m_answers(std::move(answers)) {}

    // Each as "url flags detection logon script".
    [[nodiscard]] std::vector<std::wstring> Questions() const
    {
        const std::scoped_lock lock(m_lock);
        return m_questions;
    }
    [[nodiscard]] size_t Count() const { return Questions().size(); }
    // Called during each question.
    std::function<void(std::wstring_view url)> onQuestion = [](std::wstring_view) {};

private:
    BOOL Ask(LPCWSTR url, const WINHTTP_AUTOPROXY_OPTIONS& options, WINHTTP_PROXY_INFO& info)
    {
        onQuestion(url);
        const std::scoped_lock lock(m_lock);
        m_questions.push_back(VoFormat(L"%ls %lx %lx %d %ls", url, options.dwFlags, options.dwAutoDetectFlags,
                                       options.fAutoLogonIfChallenged,
                                       options.lpszAutoConfigUrl ? options.lpszAutoConfigUrl : L"-"));
        const CAnswer& answer = m_answers[std::min(m_questions.size(), m_answers.size()) - 1];
        ::SetLastError(answer.error.value_or(ERROR_SUCCESS));
        if (!answer.error)
            info = { answer.accessType, GlobalText(answer.proxy), GlobalText(answer.bypass) };
        return !answer.error;
    }

    mutable std::mutex m_lock;
    std::vector<CAnswer> m_answers;
    std::vector<std::wstring> m_questions;
    CCallHook<decltype(&::WinHttpGetProxyForUrl)> m_hook{ "winhttp.dll", "WinHttpGetProxyForUrl",
                                                          [this](auto, auto session, auto url, auto options, auto info)
    {
        EXPECT_NE(session, nullptr);
        return Ask(url, *options, *info);
    } };
};

CDiscovery::CAnswer Finds(std::wstring_view proxy, std::wstring_view bypass = {})
{
    return { {}, std::wstring(proxy), std::wstring(bypass) };
}
CDiscovery::CAnswer Fails(DWORD error)
{
    return { error, {}, {} };
}

// --- the user's Internet settings

using CSettingsHook = CCallHook<decltype(&::WinHttpGetIEProxyConfigForCurrentUser)>;

TEST(ProxyConfiguration, TakesOneSourceOfTheUsersSettings)
{
    struct
    {
        const char* rule;
        BOOL autoDetect;
        std::wstring script, proxy, bypass;
        CHTTPProxyConfigData expected;
    } const table[] = {
        { "detection drops a script beside it", TRUE, L"http://s/p", L"p:1", L"b", Detection() },
        { "a script drops a proxy beside it", FALSE, L"http://s/p", L"p:1", L"b", Script(L"http://s/p") },
        { "a proxy with its bypass list", FALSE, L"", L"p:1", L"a;<local>", Manual(L"p:1", L"a;<local>") },
        { "a bypass list alone means direct", FALSE, L"", L"", L"b", {} },
        { "an unusable proxy is left out", FALSE, L"", L"http=a:1;https=https://b:2;socks=c:3", L"b",
          Manual(L"http=a:1", L"b") },
        { "no usable proxy means direct", FALSE, L"", L"socks=c:3", L"b", Manual(L"", L"b") },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.rule);
        const auto frees = CountFreedTexts();
        const CSettingsHook hook("winhttp.dll", "WinHttpGetIEProxyConfigForCurrentUser", [&](auto, auto settings)
        {
            *settings = { row.autoDetect, GlobalText(row.script), GlobalText(row.proxy), GlobalText(row.bypass) };
            return TRUE;
        });
        // The record keeps none of its old values.
        CHTTPProxyConfigData config{ true, L"old", L"old", L"old", Credentials(L"old", L"old") };
        const bool isLeftOut = !row.expected.UsesDiscovery() && row.expected.manualProxy != row.proxy;
        CLogCapture log;
        EXPECT_EQ(config.InitFromIE(), isLeftOut ? S_FALSE : S_OK);
        EXPECT_EQ(!log.Lines().empty(), isLeftOut);
        EXPECT_TRUE(config == row.expected);
        EXPECT_EQ(g_openTexts, 0);

        // The store of the module has the same settings.
        CVoComPtr<IVoHTTPProxyStore> store;
        ASSERT_EQ(CreateGlobalHTTPProxyStoreForModule(store.Put()), S_OK);
        EXPECT_EQ(TestSupport::ProxyFor(*store.Get(), L""), row.expected.manualProxy + L" - -");
    }
}

TEST(ProxyConfiguration, ReportsSettingsThatCannotBeHadAndAsksAgain)
{
    // The user has no settings, which is final; no memory; a failure without a code.
    for (const auto& [error, line, found] :
         { std::tuple(2UL, 314, L" - -"), { 8UL, 314, L"p:1 - -" }, { 0UL, 315, L"p:1 - -" } })
    {
        int failures = 3;
        const auto frees = CountFreedTexts();
        const CSettingsHook hook("winhttp.dll", "WinHttpGetIEProxyConfigForCurrentUser", [&](auto, auto settings)
        {
            ::SetLastError(error);
            if (--failures >= 0)
                return FALSE;
            *settings = { FALSE, nullptr, GlobalText(L"p:1"), nullptr };
            return TRUE;
        });
        const CLogCapture log;
        const HRESULT code = error == 0 ? E_FAIL : HResultFromWin32(error);
        CHTTPProxyConfigData config = Manual(L"p:1");
        EXPECT_EQ(config.InitFromIE(), code);
        EXPECT_TRUE(config == Manual(L"p:1"));
        EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kProxyStoreSource, line, L"CHTTPProxyConfigData::InitFromIE", code)));
        CVoComPtr<IVoHTTPProxyStore> store;
        ASSERT_EQ(CreateGlobalHTTPProxyStoreForModule(store.Put()), S_OK);
        for (const wchar_t* const expected : { L" - -", found, found })
            EXPECT_EQ(TestSupport::ProxyFor(*store.Get(), L"http://host/"), expected);
    }
}

// --- looking up

TEST(ProxyConfiguration, RefusesAListThatCannotBeUsed)
{
    CTestProxyStore store(Manual(L"p:1"));
    for (const wchar_t* const list : { L"https://p:1", L"socks=p:1", L"http=p:1;https=p:0", L"p/../x:1", L"ftp=p:1" })
    {
        CLogCapture log;
        EXPECT_EQ(store->Init(Manual(list)), E_INVALIDARG) << testing::PrintToString(list);
        EXPECT_EQ(store.Look(L"http://host/"), L"p:1 - -");
        EXPECT_THAT(log.Lines(), Contains(IsReport(kProxyStoreSource, 604, L"CProxyConfigHandler::Init", E_INVALIDARG)));
    }
    CLogCapture log;
    EXPECT_EQ(store->Init(Manual(L"p:1", L"*")), S_OK);
    EXPECT_EQ(log.Lines().size(), 1U); // says that no request uses the proxy
    EXPECT_EQ(store.Look(L"http://host/"), L" - -");
}

TEST(ProxyStore, GivesTheManualProxyOfTheSchemeUnlessBypassed)
{
    const CTestProxyStore store(Manual(L"http=a:1;https=b:2", L"host1;host2 *.example;<local>"));
    const std::pair<const wchar_t*, const wchar_t*> table[] = {
        { L"http://www.test/path?q", L"a:1 - -" },
        { L"HTTPS://WWW.test:444", L"b:2 - -" },
        { L"www.test", L"a:1 - -" },
        { L" http://www.test/ \r\n", L"a:1 - -" }, // only trimmed
        { L"http://a.EXAMPLE/", L" - -" },
        { L"", L"http=a:1;https=b:2 - -" }, // the scheme is not known
        { L"ftp://host/", L"0x80070057" },
        { L"http://user@www.test/", L"0x80070057" },
        { L"http://www.test:81", L"a:1 - -" },
        { L"http://www.test:81:80/", L"0x80070057" }, // not by its cached part
    };
    for (const auto& [url, expected] : table)
        EXPECT_EQ(store.Look(url), expected) << testing::PrintToString(url);
    EXPECT_EQ(CTestProxyStore(Manual(L"http://P:8080")).Look(L""), L"P:8080 - -");
    EXPECT_EQ(CTestProxyStore().Look(L""), L" - -");

    EXPECT_EQ(store->GetProxyForUrl(CVoBstr(L"http://host/").Get(), nullptr, nullptr, nullptr), E_POINTER);
    // A failure leaves the out arguments unchanged.
    const CVoBstr text(L"as it was");
    BSTR untouched = text.Get();
    EXPECT_EQ(store->GetProxyForUrl(CVoBstr(L"ftp://x").Get(), &untouched, &untouched, &untouched), E_INVALIDARG);
    EXPECT_EQ(untouched, text.Get());
}

TEST(ProxyStore, DiscoversOncePerServerAndDegradesToDirect)
{
    // The answers, what they make of http://www.example/, and the reports.
    using CReports = std::vector<std::pair<int, HRESULT>>;
    std::vector<std::tuple<const char*, std::vector<CDiscovery::CAnswer>, std::wstring, CReports>> table = {
        { "a list", { Finds(L"http=a:1;https=b:2") }, L"a:1", {} },
        { "a list that bypasses the host", { Finds(L"a:1", L"www.example") }, L"", {} },
        { "no proxy", { { {}, L"a:1", L"b", WINHTTP_ACCESS_TYPE_NO_PROXY } }, L"", {} },
        { "a login, then a list", { Fails(12015), Finds(L"a:1") }, L"a:1", {} },
        { "a login, then no code", { Fails(12015), Fails(0) }, L"", { { 203, E_FAIL }, { 249, E_FAIL } } },
        { "no memory", { Fails(8) }, L"", { { 264, HResultFromWin32(8) } } },
        { "anything else", { Fails(12002) }, L"", { { 264, HResultFromWin32(12002) } } },
        { "no code", { Fails(0) }, L"", { { 265, E_FAIL } } },
    };
    for (const DWORD silent : { 12166UL, 12167UL, 12176UL, 12177UL, 12178UL, 12180UL })
    {
        table.push_back({ "no script", { Fails(silent) }, L"", {} });
        table.push_back({ "a login, then no script", { Fails(12015), Fails(silent) }, L"", {} });
    }
    for (const auto& [rule, answers, expected, reports] : table)
    {
        SCOPED_TRACE(rule);
        const auto frees = CountFreedTexts();
        const CDiscovery discovery(answers);
        const CTestProxyStore store(Detection());
        const CLogCapture log;
        EXPECT_EQ(store.Look(L"http://www.example/path?query"), expected + L" - -");
        EXPECT_EQ(g_openTexts, 0);
        std::vector<testing::Matcher<const CLogLine&>> lines;
        for (const auto& [line, code] : reports)
            lines.push_back(
                IsReport(L"VoWinHttpInterface.h", line, L"VoWinHttpInterface::WinHttpSessionHandle::GetProxyForUrl", code));
        EXPECT_THAT(log.Lines(), testing::ElementsAreArray(lines));

        // There is no second discovery for the server, unless the first one failed.
        const size_t asked = discovery.Count();
        EXPECT_EQ(store.Look(L"http://WWW.example:80/other"), expected + L" - -");
        EXPECT_EQ(discovery.Count() == asked, reports.empty());
        // Another scheme or port is another server.
        (void)store.Look(L"https://www.example/");
        (void)store.Look(L"http://www.example:81/");
        EXPECT_GE(discovery.Count(), asked + 2);
    }
}

TEST(ProxyStore, AsksThePlatformAsConfigured)
{
    const CDiscovery discovery({ Fails(12015), Finds(L"p:1") });
    std::vector<std::wstring> calls;
    const auto noteOpen = [&](auto original, auto agent, DWORD access, auto proxy, auto bypass, DWORD flags)
    {
        calls.push_back(VoFormat(L"%ls %lu %d %lu", agent, access, proxy || bypass, flags));
        return original(agent, access, proxy, bypass, flags);
    };
    const auto noteTimeouts = [&](auto original, HINTERNET session, auto... timeouts)
    {
        calls.push_back(VoFormat(L"%d %d %d %d", timeouts...));
        return original(session, timeouts...);
    };
    const CCallHook<decltype(&::WinHttpOpen)> open("winhttp.dll", "WinHttpOpen", noteOpen);
    const CCallHook<decltype(&::WinHttpSetTimeouts)> set("winhttp.dll", "WinHttpSetTimeouts", noteTimeouts);
    const CAcquireBalance sessions = CAcquireBalance::Of<decltype(&::WinHttpOpen), decltype(&::WinHttpCloseHandle)>(
        "winhttp.dll", "WinHttpOpen", "WinHttpCloseHandle");
    {
        const CTestProxyStore store(Detection());
        EXPECT_EQ(store.Look(L"https://host/secret/path?token=1#part"), L"p:1 - -");
        EXPECT_EQ(store->Init(Script(L"http://script/")), S_OK);
        EXPECT_EQ(store.Look(L"http://host/path?q"), L"p:1 - -"); // and nothing of the former configuration
        EXPECT_EQ(sessions.Open(), 1);
    }
    EXPECT_EQ(sessions.Open(), 0);
    EXPECT_THAT(calls, ElementsAre(L"CProxyConfigHandler 4 0 0", L"2000 2000 2000 2000")); // one session for both
    // Detection by DHCP and DNS with sorting; the second time in the process, with the user's logon; a script by its URL.
    EXPECT_THAT(discovery.Questions(), ElementsAre(L"https://host/ 400001 3 0 -", L"https://host/ 410001 3 1 -",
                                                   L"http://host/path?q 2 0 0 http://script/"));
}

TEST(ProxyStore, KnownServersDoNotWaitForADiscovery)
{
    CEvent answered(false, true);
    CEvent began(false, true);
    CDiscovery discovery({ Finds(L"p:1") });
    discovery.onQuestion = [&](std::wstring_view url)
    {
        if (url != L"http://slow/")
            return;
        EXPECT_EQ(began.Set(), S_OK);
        ::WaitForSingleObject(answered.Handle(), INFINITE);
    };
    const CTestProxyStore store(Detection());
    EXPECT_EQ(store.Look(L"http://known/"), L"p:1 - -");
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] { EXPECT_EQ(store.Look(L"http://slow/"), L"p:1 - -"); });
    ::WaitForSingleObject(began.Handle(), INFINITE);
    EXPECT_EQ(store.Look(L"http://known/"), L"p:1 - -"); // would hang here otherwise
    EXPECT_EQ(answered.Set(), S_OK);
    threads.clear();
    EXPECT_EQ(discovery.Count(), 2U);
}

// --- credentials

TEST(ProxyStore, HandsCredentialsOutForTheirProxyOnly)
{
    CTestProxyStore store(Manual(L"http=Proxy.example:8080;https=other:8080"));
    EXPECT_EQ(store.Look(L"http://first/"), L"Proxy.example:8080 - -");
    // Credentials for another port of the host do not count.
    EXPECT_EQ(store.Save(L"other:8081", L"no", L"no"), S_OK);
    EXPECT_EQ(store.Save(L"http://proxy.EXAMPLE:8080/", L"user", L"secret"), S_OK);
    for (const wchar_t* const url : { L"http://first/", L"http://later/" })
        EXPECT_EQ(store.Look(url), L"Proxy.example:8080 user secret");
    EXPECT_EQ(store.Look(L"https://first/"), L"other:8080 - -");
    EXPECT_EQ(store.Look(L""), L"http=Proxy.example:8080;https=other:8080 - -");
    // New credentials replace the old ones; a password may be empty.
    EXPECT_EQ(store.Save(L"proxy.example:8080", L"user2", L""), S_OK);
    EXPECT_EQ(store.Look(L"http://first/"), L"Proxy.example:8080 user2 ");
    for (const wchar_t* const proxy : { L"", L"http=a:1;https=b:2", L"user:x@p:1" })
        EXPECT_EQ(store.Save(proxy, L"u", L"p"), E_INVALIDARG) << testing::PrintToString(proxy);
    // Both flags are needed.
    for (const auto& [valid, required] : { std::pair(true, false), std::pair(false, true) })
    {
        EXPECT_EQ(store.Save(L"proxy.example:8080", L"user", L"secret", valid, required), S_OK);
        EXPECT_EQ(store.Look(L"http://first/"), L"Proxy.example:8080 - -");
    }
}

TEST(ProxyStore, UsesTheConfiguredCredentialsUntilOthersAreSaved)
{
    CHTTPProxyConfigData config = Manual(L"p:1", L"bypassed");
    config.manualProxyAuthenticationData = Credentials(L"user", L"secret");
    CTestProxyStore store(config);
    const auto expectEverywhere = [&](const std::wstring& expected)
    {
        for (const wchar_t* const url : { L"", L"http://first/", L"http://second/" })
            EXPECT_EQ(store.Look(url), expected);
    };
    expectEverywhere(L"p:1 user secret");
    EXPECT_EQ(store.Look(L"http://bypassed/"), L" - -");
    EXPECT_EQ(store.Save(L"p:1", L"newer", L"word"), S_OK);
    expectEverywhere(L"p:1 newer word");
    // The same configuration changes nothing; another one forgets the saved credentials.
    EXPECT_EQ(store->Init(config), S_OK);
    expectEverywhere(L"p:1 newer word");
    config.manualProxyBypassList.clear();
    EXPECT_EQ(store->Init(config), S_OK);
    EXPECT_EQ(store.Look(L"http://bypassed/"), L"p:1 user secret");
    EXPECT_EQ(store->Clear(), S_OK);
    expectEverywhere(L" - -");
}

// --- serialisation

TEST(ProxyStore, SerializedContentComesBackExactly)
{
    CHTTPProxyConfigData config = Manual(L"http=a:1;https=b:2", L"x;<local>");
    config.manualProxyAuthenticationData = Credentials(L"us&er$", L"p=a&&s$s \x00E4\xD83D\xDE00");
    CTestProxyStore store(config);
    const std::wstring withConfigured = L"a:1 us&er$ p=a&&s$s \x00E4\xD83D\xDE00";
    EXPECT_EQ(store.Look(L"http://First.test/"), withConfigured);
    EXPECT_EQ(store.Save(L"b:2", L"only", L"kept", true, false), S_OK);

    const std::wstring text = store.Serialize();
    CTestProxyStore copy;
    ASSERT_EQ(copy.Deserialize(text), S_OK);
    EXPECT_EQ(copy.Serialize(), text);
    EXPECT_EQ(copy.Look(L"http://first.test/"), withConfigured);
    EXPECT_EQ(copy.Look(L"https://new.test/"), L"b:2 - -");
    EXPECT_EQ(copy->Deserialize(nullptr), S_OK); // null clears the store
    EXPECT_EQ(copy.Serialize(), CTestProxyStore().Serialize());
    // The property is the same text.
    const CVoBstr name(L"proxydatastring");
    CVoVariant value;
    ASSERT_EQ(store->get_Properties(name.Get(), value.Put()), S_OK);
    ASSERT_EQ(value.Get().vt, VT_BSTR);
    EXPECT_EQ(CVoBstr::ViewOf(value.Get().bstrVal), text);
    EXPECT_EQ(copy->put_Properties(name.Get(), value.Get()), S_OK);
    EXPECT_EQ(copy.Serialize(), text);

    // Cached servers stay known; others are discovered.
    const CDiscovery discovery({ Finds(L"p:1") });
    const CTestProxyStore first(Script(L"http://script/"));
    EXPECT_EQ(first.Look(L"http://known/"), L"p:1 - -");
    ASSERT_EQ(copy.Deserialize(first.Serialize()), S_OK);
    EXPECT_EQ(copy.Look(L"http://known/"), L"p:1 - -");
    EXPECT_EQ(discovery.Count(), 1u);
    EXPECT_EQ(copy.Look(L"http://new/"), L"p:1 - -");
    EXPECT_EQ(discovery.Count(), 2u);
}

TEST(ProxyStore, MalformedContentChangesNothingAndLogsNoSecret)
{
    CTestProxyStore store(Manual(L"p:1"));
    EXPECT_EQ(store.Look(L"http://host/"), L"p:1 - -");
    EXPECT_EQ(store.Save(L"p:1", L"user", L"secret"), S_OK);
    const std::wstring good = store.Serialize();
    CLogCapture log;

    // Missing and renamed parts, and entries in another form than the store's.
    std::vector<std::wstring> bad = TestSupport::EachChange(
        good, { L"Cache= -> Kash=", L"Entry= -> Other=", L"ServerKey=http://host -> ServerKey=HTTP://host",
                L"ServerKey=http://host -> ServerKey=ftp://host", L"Proxy=p:1$$$&Aut -> Proxy=a:1 b:2$$$&Aut",
                L"Password= -> Pass=", L"DataAreValid=True -> DataAreValid=x" });
    bad.insert(bad.end(), { L"x", L"Config=x&Cache=", L"Cache=", good + L"&x", L"Config=&Cache=" });
    for (const std::wstring& text : bad)
    {
        EXPECT_TRUE(FAILED(store.Deserialize(text))) << testing::PrintToString(text);
        EXPECT_EQ(store.Serialize(), good);
    }
    EXPECT_EQ(store.Save(L"user:secret@p:1", L"user", L"secret"), E_INVALIDARG);
    TestSupport::ExpectNotLogged(log, L"secret");
}

// --- failures

TEST(ProxyStore, ReportsAFailingSessionAndKeepsItsConfiguration)
{
    CTestProxyStore store(Manual(L"p:1"));
    CLogCapture log;
    for (const auto& [fault, line] : { std::pair(VO_FAULT("winhttp.dll", WinHttpOpen, nullptr, ERROR_OUTOFMEMORY), 630),
                                       { VO_FAULT("winhttp.dll", WinHttpSetTimeouts, FALSE, ERROR_INVALID_PARAMETER), 634 } })
    {
        const auto injected = fault.inject(1);
        EXPECT_EQ(store->Init(Detection()), fault.expected);
        EXPECT_EQ(store.Look(L"http://host/"), L"p:1 - -");
        EXPECT_THAT(log.Lines(), Contains(IsReport(kProxyStoreSource, line, L"CProxyConfigHandler::Init", fault.expected)));
        log.Clear();
    }
    // A session that does not close is reported; the store is cleared all the same.
    EXPECT_EQ(store->Init(Detection()), S_OK);
    const auto fault = VO_FAULT_AFTER_CALL("winhttp.dll", WinHttpCloseHandle, FALSE, ERROR_INVALID_HANDLE);
    const auto injected = fault.inject(1);
    EXPECT_EQ(store->Clear(), fault.expected);
    EXPECT_EQ(store.Look(L"http://host/"), L" - -");
    EXPECT_TRUE(TestSupport::TakeReport(log, fault.expected));
}

} // namespace
