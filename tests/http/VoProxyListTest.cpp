#include <VoProxyList.h>

#include <gtest/gtest.h>

#include <vector>

namespace
{
using VoProxyList::IsBypassed;
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
        { L"HTTPS://p:8080/", L"p:8080", L"p:8080", L"p:8080" },
        { L"a:1\tb:2\r\nc:3", L"a:1", L"a:1", L"a:1" },
        // by scheme
        { L"https=b:2 HTTP=a:1", L"a:1", L"b:2", L"" },
        { L"http=http://a:1;https=http://b:2;ftp=c:3", L"a:1", L"b:2", L"" },
        { L"http=a:1;https=A:1", L"a:1", L"A:1", L"a:1" },
        { L"http=a:1;http=b:2", L"a:1", L"", L"a:1" },
        { L"https=b:2", L"", L"b:2", L"b:2" },
        { L"https=b:2;c:3", L"c:3", L"b:2", L"" },
        { L"c:3;http=a:1", L"c:3", L"c:3", L"c:3" },
        // what is none of ours, or not understood, is passed over
        { L" ;; \t", L"", L"", L"" },
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

TEST(ProxyList, BypassesWholeItems)
{
    struct
    {
        std::wstring list;
        std::vector<std::wstring> bypassed, others;
    } const table[] = {
        { L"", {}, { L"a", L"" } },
        // an item also behind one that only begins with it
        { L"host10;host1,b\tc d", { L"host10", L"HOST1", L"b", L"c", L"d" }, { L"host", L"ost1", L"host100", L"host2" } },
        { L"a.example;a-b", { L"A.example" }, { L"xa.example", L"b.a.example", L"a" } },
        { L"[::1];fe80::1", { L"::1", L"fe80::1" }, { L"::2" } },
        // names without a dot
        { L"x;<LOCAL>;y.z", { L"intranet", L"y.z" }, { L"www.example", L"127.0.0.1", L"::1" } },
        { L"x<local>;<-loopback>", {}, { L"intranet", L"localhost" } },
        // any part
        { L"*.Example", { L"www.example", L"A.B.eXample" }, { L"example", L"www.example.org" } },
        { L"192.168.*", { L"192.168.1.2" }, { L"192.169.1.2" } },
        { L"a*b*c", { L"abbcbc" }, { L"abbcb" } },
        { L"a**b;c*", { L"axb", L"c" }, { L"axbx" } },
        { L"*", { L"anything", L"::1" }, {} },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(testing::PrintToString(row.list));
        for (const std::wstring& host : row.bypassed)
            EXPECT_TRUE(IsBypassed(row.list, host)) << testing::PrintToString(host);
        for (const std::wstring& host : row.others)
            EXPECT_FALSE(IsBypassed(row.list, host)) << testing::PrintToString(host);
    }
}
} // namespace
