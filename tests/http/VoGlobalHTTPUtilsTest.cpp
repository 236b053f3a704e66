#include <VoGlobalHTTPUtils.h>

#include <gtest/gtest.h>

#include <vector>

namespace
{
struct CFields
{
    std::wstring host, path, query;
    bool secure = false;
    UINT16 port = 0;
    std::wstring authority, baseURL, pathURL, fullURL, objectName;

    bool operator==(const CFields&) const = default;
};

CFields FieldsOf(const CServerAddressData& address)
{
    return { address.Host(),      address.Path(),    address.Query(),   address.IsSecure(), address.Port(),
             address.Authority(), address.BaseURL(), address.PathURL(), address.FullURL(),  address.ObjectName() };
}

// For failure messages.
std::string Narrow(std::wstring_view text)
{
    std::string result;
    for (const wchar_t character : text)
        result += character >= L' ' && character < 0x7F ? static_cast<char>(character) : '?';
    return result;
}
void PrintTo(const CFields& fields, std::ostream* out)
{
    *out << Narrow(fields.host) << " | " << Narrow(fields.path) << " | " << Narrow(fields.query) << " | " << fields.secure
         << " | " << fields.port << " | " << Narrow(fields.authority) << " | " << Narrow(fields.baseURL) << " | "
         << Narrow(fields.pathURL) << " | " << Narrow(fields.fullURL) << " | " << Narrow(fields.objectName);
}

TEST(ServerAddress, AcceptsTextsAndRebuildsEveryForm)
{
    struct
    {
        std::wstring url;
        bool defaultSecure;
        bool keepPath;
        bool keepQuery;
        CFields expected;
    } const table[] = {
        { L"https://host.example:443/a/b?x=1&y=2",
          false,
          true,
          true,
          { L"host.example", L"/a/b", L"?x=1&y=2", true, 0, L"host.example", L"https://host.example",
            L"https://host.example/a/b", L"https://host.example/a/b?x=1&y=2", L"/a/b?x=1&y=2" } },
        { L"http://[::1]:8080",
          true,
          true,
          true,
          { L"::1", L"", L"", false, 8080, L"[::1]:8080", L"http://[::1]:8080", L"http://[::1]:8080", L"http://[::1]:8080",
            L"" } },
        { L" \tHTTP:// Host : 81 /a?b/c?d ",
          true,
          true,
          true,
          { L"Host", L"/a", L"?b/c?d", false, 81, L"Host:81", L"http://Host:81", L"http://Host:81/a", L"http://Host:81/a?b/c?d",
            L"/a?b/c?d" } },
        { L"host?x=1",
          true,
          true,
          true,
          { L"host", L"", L"?x=1", true, 0, L"host", L"https://host", L"https://host", L"https://host?x=1", L"?x=1" } },
        { L"[2001:db8::1]:/p#f?q",
          false,
          true,
          true,
          { L"2001:db8::1", L"/p", L"", false, 0, L"[2001:db8::1]", L"http://[2001:db8::1]", L"http://[2001:db8::1]/p",
            L"http://[2001:db8::1]/p", L"/p" } },
        { L"http://h:443/p?q",
          false,
          true,
          false,
          { L"h", L"/p", L"", false, 443, L"h:443", L"http://h:443", L"http://h:443/p", L"http://h:443/p", L"/p" } },
        { L"https://h:80/p?q",
          false,
          false,
          true,
          { L"h", L"", L"", true, 80, L"h:80", L"https://h:80", L"https://h:80", L"https://h:80", L"" } },
        { L"http://h:80/a b/\x00E4",
          false,
          true,
          true,
          { L"h", L"/a b/\x00E4", L"", false, 0, L"h", L"http://h", L"http://h/a b/\x00E4", L"http://h/a b/\x00E4",
            L"/a b/\x00E4" } },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(Narrow(row.url));
        CServerAddressData address;
        // What an earlier address left must not shine through.
        ASSERT_EQ(address.SetAddress(L"https://old.example:99/old?old", false, true, true), S_OK);
        EXPECT_EQ(address.SetAddress(row.url, row.defaultSecure, row.keepPath, row.keepQuery), S_OK);
        EXPECT_EQ(FieldsOf(address), row.expected);
    }
}

TEST(ServerAddress, ReadsPorts)
{
    struct
    {
        std::wstring url;
        UINT16 port;
        UINT16 effective;
    } const table[] = {
        { L"http://h", 0, 80 },
        { L"https://h", 0, 443 },
        { L"http://h:", 0, 80 },
        { L"http://h:0", 0, 80 },
        { L"http://h:65535", 65535, 65535 },
        { L"http://h:+81", 81, 81 },
        { L"http://h:00081/", 81, 81 },
        { L"https://[::1]:443", 0, 443 },
        { L"https://[fe80::1%25eth0]:1", 1, 1 },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(Narrow(row.url));
        CServerAddressData address;
        EXPECT_EQ(address.SetAddress(row.url, false, true, true), S_OK);
        EXPECT_EQ(address.Port(), row.port);
        EXPECT_EQ(address.EffectivePort(), row.effective);
    }
}

TEST(ServerAddress, RefusesMalformedTextAndKeepsTheRecord)
{
    const std::vector<std::wstring> table = {
        L"",
        L"  ",
        L"http://",
        L"http://#f",
        L"http:///path",
        L"?q",
        L"/path",
        L"http:// :80",
        // schemes
        L"ftp://host",
        L"://host",
        L"https ://host",
        L"host/p?u=http://x",
        // colons and brackets
        L":80",
        L"http://:80/",
        L"::1",
        L"http://::1/",
        L"[::1",
        L"::1]",
        L"x[::1]",
        L"[::1]x",
        L"[::1]8080",
        L"[::1]:80:80",
        L"[]:80:",
        L"[a:b:c]",
        L"[:]",
        L"[localhost]",
        L"[::1%]:80",
        L"[1::2::3]",
        L"user:password@host:80",
        // ports
        L"h:65536",
        L"h:80a",
        L"h:-1",
        L"h:-0",
        L"h:+",
        L"h:8 0",
        L"h:99999999999999999999",
        L"h:0x50",
        L"h:\xFF18\xFF10",
        L"[::1]:65536",
        // hosts
        L"user@host",
        L"a b",
        L"ho\"st",
        L"<host>",
        L"host\\path",
        L"h%6Fst",
        L"ho\x00A0st",
        L"h\x2028x",
        // what would end a line of the request
        L"ho\rst",
        L"ho\nst",
        L"host/a\r\nX: y",
        L"host/a?b\nc",
        L"host/a?b\x7F",
        L"host/\x0085",
        std::wstring(L"host/a\0b", 8),
        std::wstring(L"ho\0st", 5),
    };
    CServerAddressData address;
    ASSERT_EQ(address.SetAddress(L"https://old.example:99/old?old", false, true, true), S_OK);
    const CFields before = FieldsOf(address);
    for (const std::wstring& url : table)
    {
        SCOPED_TRACE(Narrow(url));
        EXPECT_EQ(address.SetAddress(url, false, true, true), E_INVALIDARG);
        EXPECT_EQ(FieldsOf(address), before);
    }
}

TEST(ServerAddress, ObjectPathReplacesPathAndQuery)
{
    CServerAddressData address;
    ASSERT_EQ(address.SetAddress(L"https://h:81/old?old", false, true, true), S_OK);
    EXPECT_EQ(address.SetObjectPath(L"/new/x?y=/?#z"), S_OK);
    const CFields changed{ L"h",
                           L"/new/x",
                           L"?y=/?",
                           true,
                           81,
                           L"h:81",
                           L"https://h:81",
                           L"https://h:81/new/x",
                           L"https://h:81/new/x?y=/?",
                           L"/new/x?y=/?" };
    EXPECT_EQ(FieldsOf(address), changed);
    for (const wchar_t* const refused : { L"x", L"?x", L" /x", L"http://h/x", L"/x\r\n", L"/x?\n" })
    {
        EXPECT_EQ(address.SetObjectPath(refused), E_INVALIDARG) << Narrow(refused);
        EXPECT_EQ(FieldsOf(address), changed);
    }
    EXPECT_EQ(address.SetObjectPath(L""), S_OK);
    EXPECT_EQ(address.ObjectName(), L"");
    EXPECT_EQ(address.FullURL(), L"https://h:81");
}
} // namespace
