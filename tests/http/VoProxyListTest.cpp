// Proxy lists. Bypass lists are a campaign of tests/stress.
#include <VoProxyList.h>

#include <gtest/gtest.h>

namespace
{
using VoProxyList::FindProblem;
using VoProxyList::OnlyProxy;
using VoProxyList::ProxyForScheme;

TEST(ProxyList, GivesTheFirstProxyOfTheScheme)
{
    struct
    {
        std::wstring list, plain, secure, only;
    } const table[] = {
        // one proxy for both
        { L"  p.example:8080 ; ", L"p.example:8080", L"p.example:8080", L"p.example:8080" },
        { L"Proxy", L"Proxy:80", L"Proxy:80", L"Proxy:80" },
        { L"[fe80::1]", L"[fe80::1]:80", L"[fe80::1]:80", L"[fe80::1]:80" },
        { L"HTTP://p:8080/", L"p:8080", L"p:8080", L"p:8080" },
        { L"a:1\tb:2\r\nc:3", L"a:1", L"a:1", L"a:1" },
        // by scheme
        { L"https=b:2 HTTP=a:1", L"a:1", L"b:2", L"" },
        { L"http=http://a:1;https=http://b:2;ftp=c:3", L"a:1", L"b:2", L"" },
        { L"http = a:1 https= b:2;\tftp\t=\tc:3", L"a:1", L"b:2", L"" },
        { L"http=a:1;https=A:1", L"a:1", L"A:1", L"a:1" },
        { L"http=a:1;http=b:2", L"a:1", L"", L"a:1" },
        { L"https=b:2", L"", L"b:2", L"b:2" },
        { L"https=b:2;c:3", L"c:3", L"b:2", L"" },
        { L"c:3;http=a:1", L"c:3", L"c:3", L"c:3" },
        // unusable entries are ignored
        { L" ;; \t", L"", L"", L"" },
        { L"https://p:8080;socks = s:1080;http=https://p:1", L"", L"", L"" },
        { L"p/../x:1;p#x:1;p?x;p:0;p:00;a,b;p//;http = ;https=", L"", L"", L"" },
        { L"socks=s:1080;socks5://s:1080 a:1", L"a:1", L"a:1", L"a:1" },
        { L"http=;https=;=a:1;:8080;p:99999;p:x;http=http=a:1", L"", L"", L"" },
        { L"user:secret@p:8080;::1:80;b:2", L"b:2", L"b:2", L"b:2" },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(testing::PrintToString(row.list));
        EXPECT_EQ(ProxyForScheme(row.list, false), row.plain);
        EXPECT_EQ(ProxyForScheme(row.list, true), row.secure);
        EXPECT_EQ(OnlyProxy(row.list), row.only);
    }
}

TEST(ProxyList, SaysWhichEntryIsUnusable)
{
    const std::tuple<const wchar_t*, int, const wchar_t*> table[] = {
        { L"", -1, L"" },
        { L"p:8080", -1, L"p:8080" },
        { L"http = a:1;https=b:2;ftp=?", -1, L"http=a:1;https=b:2;ftp=?" },
        { L"http=a:1;p:0 b:2", 2, L"http=a:1;b:2" },
        { L"https://a:1;a,b", 1, L"" },
        { L"http=a:1;socks=s:1080", 2, L"http=a:1" },
        { L"=a:1", 1, L"" },
        { L"ftp=c:3", 0, L"ftp=c:3" },
        { L" ; ", 0, L"" },
    };
    for (const auto& [list, number, usable] : table)
    {
        const auto problem = FindProblem(list);
        EXPECT_EQ(problem ? static_cast<int>(problem->number) : -1, number) << testing::PrintToString(list);
        EXPECT_EQ(VoProxyList::Read(list).usable, usable);
    }
}
} // namespace
