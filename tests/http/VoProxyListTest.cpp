#include <VoProxyList.h>

#include <gtest/gtest.h>

namespace
{
using VoProxyList::IsBypassed;
using VoProxyList::OnlyProxy;
using VoProxyList::ProxyForScheme;

struct CListCase
{
    std::wstring list;
    std::wstring plain;
    std::wstring secure;
    std::wstring only;
};

TEST(ProxyList, GivesTheFirstProxyOfTheScheme)
{
    const CListCase table[] = {
        // one proxy for both
        { L"p:8080", L"p:8080", L"p:8080", L"p:8080" },
        { L"  p.example:8080 ; ", L"p.example:8080", L"p.example:8080", L"p.example:8080" },
        { L"Proxy", L"Proxy:80", L"Proxy:80", L"Proxy:80" },
        { L"p:80", L"p:80", L"p:80", L"p:80" },
        { L"[::1]:3128", L"[::1]:3128", L"[::1]:3128", L"[::1]:3128" },
        { L"[fe80::1]", L"[fe80::1]:80", L"[fe80::1]:80", L"[fe80::1]:80" },
        { L"http://p:8080", L"p:8080", L"p:8080", L"p:8080" },
        { L"HTTPS://p:8080/", L"p:8080", L"p:8080", L"p:8080" },
        { L"a:1 b:2", L"a:1", L"a:1", L"a:1" },
        { L"a:1\tb:2\r\nc:3", L"a:1", L"a:1", L"a:1" },
        // by scheme
        { L"http=a:1;https=b:2", L"a:1", L"b:2", L"" },
        { L"https=b:2 HTTP=a:1", L"a:1", L"b:2", L"" },
        { L"http=http://a:1;https=http://b:2;ftp=c:3", L"a:1", L"b:2", L"" },
        { L"http=a:1;https=A:1", L"a:1", L"A:1", L"a:1" },
        { L"http=a:1", L"a:1", L"", L"a:1" },
        { L"https=b:2", L"", L"b:2", L"b:2" },
        { L"http=a:1;http=b:2", L"a:1", L"", L"a:1" },
        { L"https=b:2;c:3", L"c:3", L"b:2", L"" },
        { L"c:3;http=a:1", L"c:3", L"c:3", L"c:3" },
        // what is none of ours, or not understood, is passed over
        { L"", L"", L"", L"" },
        { L" ;; \t", L"", L"", L"" },
        { L"socks=s:1080;ftp=f:21", L"", L"", L"" },
        { L"socks=s:1080;a:1", L"a:1", L"a:1", L"a:1" },
        { L"socks5://s:1080 a:1", L"a:1", L"a:1", L"a:1" },
        { L"http=;https=", L"", L"", L"" },
        { L"=a:1;:8080;p:99999;p:x;http=http=a:1", L"", L"", L"" },
        { L"user:secret@p:8080;b:2", L"b:2", L"b:2", L"b:2" },
        { L"::1:80;b:2", L"b:2", L"b:2", L"b:2" },
    };
    for (const CListCase& row : table)
    {
        SCOPED_TRACE(testing::PrintToString(row.list));
        EXPECT_EQ(ProxyForScheme(row.list, false), row.plain);
        EXPECT_EQ(ProxyForScheme(row.list, true), row.secure);
        EXPECT_EQ(OnlyProxy(row.list), row.only);
    }
}

struct CBypassCase
{
    std::wstring list;
    std::wstring host;
    bool expected;
};

TEST(ProxyList, BypassesWholeItems)
{
    const CBypassCase table[] = {
        { L"", L"host1", false },
        { L"host1;host2", L"host1", true },
        { L"host1;host2", L"HOST2", true },
        { L"host1;host2", L"host10", false },
        { L"host1;host2", L"ost1", false },
        { L"host1;host2", L"host", false },
        { L"host10;host1", L"host1", true }, // also behind one that only begins with it
        { L"a,b\tc d;e", L"a", true },
        { L"a,b\tc d;e", L"b", true },
        { L"a,b\tc d;e", L"c", true },
        { L"a,b\tc d;e", L"d", true },
        { L"a,b\tc d;e", L"e", true },
        { L"a,b\tc d;e", L"f", false },
        { L"a.example", L"xa.example", false },
        { L"a.example", L"b.a.example", false },
        { L"a-b", L"a", false },
        { L"[::1];fe80::1", L"::1", true },
        { L"[::1];fe80::1", L"fe80::1", true },
        // names without a dot
        { L"<local>", L"intranet", true },
        { L"x;<LOCAL>;y", L"intranet", true },
        { L"<local>", L"www.example", false },
        { L"<local>", L"127.0.0.1", false },
        { L"<local>", L"::1", false },
        { L"x<local>", L"intranet", false },
        { L"<-loopback>", L"localhost", false },
        // any part
        { L"*.example", L"www.example", true },
        { L"*.example", L"example", false },
        { L"*.example", L"www.example.org", false },
        { L"*.Example", L"A.B.eXample", true },
        { L"192.168.*", L"192.168.1.2", true },
        { L"192.168.*", L"192.169.1.2", false },
        { L"a*b*c", L"abbcbc", true },
        { L"a*b*c", L"abbcb", false },
        { L"*", L"anything", true },
        { L"*", L"::1", true },
        { L"a*", L"a", true },
        { L"a**b", L"axb", true },
    };
    for (const CBypassCase& row : table)
        EXPECT_EQ(IsBypassed(row.list, row.host), row.expected)
            << testing::PrintToString(row.list) << ' ' << testing::PrintToString(row.host);
}
} // namespace
