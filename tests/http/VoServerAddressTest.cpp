// The server address: what it accepts, and the texts that it derives.
#include <VoServerAddress.h>

#include <gtest/gtest.h>

#include <support/ImportHook.h>

namespace
{
// All fields of a record as "host path query secure port/effective authority baseURL pathURL fullURL objectName".
std::wstring FieldsOf(const CServerAddressData& a)
{
    std::wstring text = a.Host();
    for (const std::wstring& field : { a.Path(), a.Query(), std::wstring(a.IsSecure() ? L"secure" : L"plain"),
                                       std::to_wstring(a.Port()) + L'/' + std::to_wstring(a.EffectivePort()), a.Authority(),
                                       a.BaseURL(), a.PathURL(), a.FullURL(), a.ObjectName() })
        text += L'|' + field;
    return text;
}

TEST(ServerAddress, AcceptsTextsAndRebuildsEveryForm)
{
    struct
    {
        std::wstring url;
        bool defaultSecure, keepPath, keepQuery;
        std::wstring expected;
    } const table[] = {
        { L"https://host.example:443/a/b?x=1&y=2", false, true, true,
          L"host.example|/a/b|?x=1&y=2|secure|0/443|host.example|https://host.example|https://host.example/a/b|"
          L"https://host.example/a/b?x=1&y=2|/a/b?x=1&y=2" },
        { L"http://[::1]:8080", true, true, true,
          L"::1|||plain|8080/8080|[::1]:8080|http://[::1]:8080|http://[::1]:8080|http://[::1]:8080|" },
        { L" \tHTTP:// Host : +0081 /a?b/c?d ", true, true, true,
          L"Host|/a|?b/c?d|plain|81/81|Host:81|http://Host:81|http://Host:81/a|http://Host:81/a?b/c?d|/a?b/c?d" },
        { L"host:?x=1", true, true, true, L"host||?x=1|secure|0/443|host|https://host|https://host|https://host?x=1|?x=1" },
        { L"[fe80::1%25eth0]:80/p#f?q", false, true, true,
          L"fe80::1%25eth0|/p||plain|0/80|[fe80::1%25eth0]|http://[fe80::1%25eth0]|http://[fe80::1%25eth0]/p|"
          L"http://[fe80::1%25eth0]/p|/p" },
        { L"http://h:443/p?q", false, true, false, L"h|/p||plain|443/443|h:443|http://h:443|http://h:443/p|http://h:443/p|/p" },
        { L"https://h:80/p?q", false, false, true, L"h|||secure|80/80|h:80|https://h:80|https://h:80|https://h:80|" },
        { L"http://h:65535/a b/\x00E4", false, true, true,
          L"h|/a b/\x00E4||plain|65535/65535|h:65535|http://h:65535|http://h:65535/a b/\x00E4|http://h:65535/a b/\x00E4|"
          L"/a b/\x00E4" },
    };
    for (const auto& row : table)
    {
        CServerAddressData address;
        // Nothing of an earlier address may stay.
        ASSERT_EQ(address.SetAddress(L"https://old.example:99/old?old", false, true, true), S_OK);
        EXPECT_EQ(address.SetAddress(row.url, row.defaultSecure, row.keepPath, row.keepQuery), S_OK);
        EXPECT_EQ(FieldsOf(address), row.expected) << testing::PrintToString(row.url);
    }
}

TEST(ServerAddress, RefusesMalformedTextAndKeepsTheRecord)
{
    using namespace std::string_literals;
    const std::wstring table[] = {
        L"", L"  ", L"http://", L"http://#f", L"http:///path", L"?q", L"/path", L"http:// :80",
        // schemes
        L"ftp://host", L"://host", L"https ://host", L"host/p?u=http://x",
        // colons and brackets
        L":80", L"http://:80/", L"::1", L"http://::1/", L"[::1", L"::1]", L"x[::1]", L"[::1]x", L"[::1]8080", L"[::1]:80:80",
        L"[]:80:", L"[a:b:c]", L"[localhost]", L"[1::2::3]", L"user:password@host:80",
        // ports
        L"h:65536", L"h:80a", L"h:-1", L"h:-0", L"h:+", L"h:8 0", L"h:99999999999999999999", L"h:0x50",
        // hosts
        L"user@host", L"a b", L"ho\"st", L"<host>", L"host\\path", L"h%6Fst", L"ho\x00A0st", L"h\x2028x",
        // control characters
        L"ho\rst", L"ho\nst", L"host/a\r\nX: y", L"host/a?b\nc", L"host/a?b\x7F", L"host/\x0085", L"host/a\0b"s, L"ho\0st"s
    };
    CServerAddressData address;
    ASSERT_EQ(address.SetAddress(L"https://old.example:99/old?old", false, true, true), S_OK);
    const std::wstring before = FieldsOf(address);
    for (const std::wstring& url : table)
    {
        EXPECT_EQ(address.SetAddress(url, false, true, true), E_INVALIDARG) << testing::PrintToString(url);
        EXPECT_EQ(FieldsOf(address), before);
    }
}

TEST(ServerAddress, ObjectPathReplacesPathAndQuery)
{
    CServerAddressData address;
    ASSERT_EQ(address.SetAddress(L"https://h:81/old?old", false, true, true), S_OK);
    EXPECT_EQ(address.SetObjectPath(L"/new/x?y=/?#z"), S_OK);
    const std::wstring changed = L"h|/new/x|?y=/?|secure|81/81|h:81|https://h:81|https://h:81/new/x|https://h:81/new/x?y=/?|"
                                 L"/new/x?y=/?";
    EXPECT_EQ(FieldsOf(address), changed);
    for (const wchar_t* const refused : { L"x", L"?x", L" /x", L"http://h/x", L"/x\r\n", L"/x?\n" })
    {
        EXPECT_EQ(address.SetObjectPath(refused), E_INVALIDARG) << testing::PrintToString(refused);
        EXPECT_EQ(FieldsOf(address), changed);
    }
    const CServerAddressData copy = address;
    EXPECT_EQ(address.SetObjectPath(std::wstring_view(address.Path()).substr(4)), S_OK); // its own text
    EXPECT_EQ(address.FullURL(), L"https://h:81/x");
    EXPECT_EQ(FieldsOf(copy), changed);
    EXPECT_EQ(address.SetObjectPath(L""), S_OK);
    EXPECT_EQ(FieldsOf(address), L"h|||secure|81/81|h:81|https://h:81|https://h:81|https://h:81|");
}
} // namespace
