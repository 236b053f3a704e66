// Tests of the browser dialog's decisions about addresses.
#include <VoBrowserPolicy.h>

#include <gtest/gtest.h>

TEST(BrowserPolicy, TheEndIsASchemeAHostAPortAndWholeSegments)
{
    struct CCase
    {
        const wchar_t* prefix;
        const wchar_t* url;
        bool isEnd;
    };
    constexpr CCase kCases[] = {
        { L"https://good.example/done", L"https://good.example/done", true },
        { L"https://good.example/done", L"https://good.example/done?code=1#x", true },
        { L"https://good.example/done", L"HTTPS://GOOD.example:443/done/next", true },
        { L"https://good.example/done/", L"https://good.example/done/next", true },
        { L"https://good.example", L"https://good.example/anything", true },
        { L"https://good.example/done?a=1", L"https://good.example/done?a=1&b=2", true },
        { L"https://good.example/done", L"https://good.example/x/../done", true },
        { L"https://b\u00fccher.example/", L"https://xn--bcher-kva.example/", true },
        { L"http://[::1]:8080/a", L"http://[::1]:8080/a/b", true },
        { L"https://good.example/done", L"https://good.example/done2", false },
        { L"https://good.example/done", L"https://good.example/Done", false },
        { L"https://good.example/done", L"http://good.example/done", false },
        { L"https://good.example/done", L"https://good.example:8443/done", false },
        { L"https://good.example/", L"https://good.example.evil/done", false },
        { L"https://good.example", L"https://good.example@evil/done", false },
        { L"https://good.example", L"https://evil/https://good.example/done", false },
        { L"https://good.example", L"https://evil\\@good.example/done", false },
        { L"https://good.example/done/", L"https://good.example/done", false },
        { L"https://good.example/done", L"https://good.example/done/../evil", false },
        { L"https://good.example/done", L"https://good.example/done/%2e%2E/evil", false },
        { L"https://good.example/done?a=1", L"https://good.example/done?a=12", false },
        { L"https://good.example/done?a=1", L"https://good.example/done/x?a=1", false },
        { L"https://good.example/done", L"about:blank", false },
        { L"", L"https://good.example/", false },
    };
    for (const CCase& c : kCases)
    {
        CVoBrowserPolicy policy;
        ASSERT_EQ(S_OK, policy.Init(L"https://start.example/", c.prefix)) << c.prefix;
        EXPECT_EQ(c.isEnd, policy.IsEnd(c.url)) << c.prefix << " " << c.url;
    }
}

TEST(BrowserPolicy, OnlyWebAddressesWithoutUserNamesMayBeStartOrEnd)
{
    CVoBrowserPolicy policy;
    ASSERT_EQ(S_OK, policy.Init(L"http://start.example", L""));
    for (const wchar_t* const url : { L"", L"about:blank", L"file:///c:/x", L"start.example", L"https://user@host/",
                                      L"https://user:pw@host/", L"http://" })
    {
        EXPECT_EQ(E_INVALIDARG, policy.Init(url, L"")) << url;
        EXPECT_EQ(*url ? E_INVALIDARG : S_OK, policy.Init(L"http://start.example/", url)) << url;
    }
    EXPECT_EQ(E_INVALIDARG, policy.Init(L"http://start.example/", L"http://start.example/#x"));
    EXPECT_EQ(L"http://start.example/", policy.StartUrl());
}

TEST(BrowserPolicy, OtherSchemesAndAmbiguousAddressesAreRefused)
{
    struct CCase
    {
        const wchar_t* url;
        EVoBrowserVerdict verdict;
        const wchar_t* shown;
    };
    const std::wstring longHost = L"https://" + std::wstring(60, L'a') + L".evil.example/";
    const std::wstring longShown = L"https://..." + std::wstring(35, L'a') + L".evil.example/";
    const CCase kCases[] = {
        { L"http://host.example", EVoBrowserVerdict::Go, L"http://host.example/" },
        { L"https://HOST.example:443/a b?q=\u00fc#part", EVoBrowserVerdict::Go, L"https://host.example/a%20b?q=%C3%BC" },
        { L"http://host.example:81/", EVoBrowserVerdict::Go, L"http://host.example:81/" },
        { L"http://\u0430pple.example/", EVoBrowserVerdict::Go, L"http://xn--pple-43d.example/" },
        { L"http://[2001:DB8::1]/", EVoBrowserVerdict::Go, L"http://[2001:db8::1]/" },
        { longHost.c_str(), EVoBrowserVerdict::Go, longShown.c_str() },
        { L"about:blank", EVoBrowserVerdict::Go, L"about:blank" },
        { L"https://good.example@evil.example/", EVoBrowserVerdict::RefuseAddress, L"https:" },
        { L"https://", EVoBrowserVerdict::RefuseAddress, nullptr },
        { L"about:<b>", EVoBrowserVerdict::RefuseScheme, L"about:" },
        { L"file:///c:/windows/win.ini", EVoBrowserVerdict::RefuseScheme, L"file:" },
        { L"\\\\server\\share", EVoBrowserVerdict::RefuseAddress, nullptr },
        { L"ftp://host.example/", EVoBrowserVerdict::RefuseScheme, L"ftp:" },
        { L"javascript:alert(1)", EVoBrowserVerdict::RefuseScheme, L"javascript:" },
        { L"data:text/html,x", EVoBrowserVerdict::RefuseScheme, L"data:" },
        { L"ms-settings:proxy", EVoBrowserVerdict::RefuseScheme, L"ms-settings:" },
        { L"res://ieframe.dll/x", EVoBrowserVerdict::RefuseScheme, L"res:" },
        { L"", EVoBrowserVerdict::RefuseAddress, nullptr },
    };
    for (const CCase& c : kCases)
    {
        EXPECT_EQ(c.verdict, CVoBrowserPolicy::Judge(c.url)) << c.url;
        if (c.shown)
        {
            EXPECT_EQ(c.shown, CVoBrowserPolicy::Show(c.url)) << c.url;
        }
    }
}
