// The cookie store: which cookies it takes, sends, keeps and hands out.
#include <VoGlobalHTTPCookieStoreImpl.h>
#include <VoPublicSuffix.h>

#include <gtest/gtest.h>

#include <support/HTTPSupport.h>
#include <support/ImportHook.h>

namespace
{
using TestSupport::CLogCapture;
using TestSupport::IsMessage;

constexpr double kNoon = 45000.5; // 2023-03-15T12:00:00
constexpr double kSecond = 1.0 / 86400.0;

// A store with a clock that the test sets, and with texts in place of BSTRs.
class CTestCookieStore
{
public:
    double now = kNoon;

    HRESULT Set(std::wstring_view value, std::wstring_view url)
    {
        return m_store->AddCookieFromString(CVoBstr(value).Get(), CVoBstr(url).Get());
    }
    std::wstring Get(std::wstring_view url) { return TestSupport::CookiesFor(*m_store.Get(), url); }
    std::wstring Serialize() { return TestSupport::Serialized(*m_store.Get()); }
    HRESULT Deserialize(std::wstring_view data) { return m_store->Deserialize(CVoBstr(data).Get()); }
    IVoHTTPCookieStore* operator->() const { return m_store.Get(); }

private:
    CVoComPtr<CVoGlobalHTTPCookieStoreImpl> m_store = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>([this] { return now; });
};

TEST(CookieStore, SendsWhatTheServersSet)
{
    using CValues = std::vector<std::wstring>;
    const std::wstring site = L"http://a.b.example/";
    const std::wstring books = L"http://b\x00FC"
                               L"cher.example/";
    const wchar_t* const past = L"Expires=Thu, 01 Jan 1970 00:00:00 GMT";
    struct
    {
        const char* rule;
        std::wstring from;
        CValues values;
        std::wstring to, expected;
    } const table[] = {
        // domains
        { "a domain cookie goes to a host below", site, { L"n=v; Domain=b.example" }, L"http://x.b.example/", L"n=v" },
        { "domains match by whole labels", site, { L"n=v; Domain=b.example" }, L"http://xb.example/", L"" },
        { "a host-only cookie does not go below", site, { L"n=v" }, L"http://x.a.b.example/", L"" },
        { "a domain cookie goes to the domain", site, { L"n=v; domain=.B.Example" }, L"http://B.example/", L"n=v" },
        { "port and case do not matter", L"http://HOST:81/", { L"n=v" }, L"https://host:444/", L"n=v" },
        { "a Domain of one dot is none", site, { L"n=v; Domain=b.example; Domain=." }, L"http://x.a.b.example/", L"" },
        { "an empty Domain changes nothing", site, { L"n=v; Domain=b.example; Domain=" }, L"http://x.b.example/", L"n=v" },
        { "a single label is host-only", L"http://localhost/", { L"n=v; Domain=localhost" }, L"http://x.localhost/", L"" },
        { "names match in ASCII", books, { L"n=v; Domain=xn--bcher-kva.example" }, books, L"n=v" },
        { "a suffix is host-only", L"http://github.io/", { L"n=v; Domain=github.io" }, L"http://x.github.io/", L"" },
        { "a suffix keeps its cookie", L"http://github.io/", { L"n=v; Domain=github.io" }, L"http://github.io/", L"n=v" },
        // paths
        { "a path covers what is below", site, { L"n=v; Path=/p" }, site + L"p/x", L"n=v" },
        { "paths match by whole segments", site, { L"n=v; Path=/p" }, site + L"pq", L"" },
        { "a path is compared as it is sent", site + L"\x00E4 b/c", { L"n=v; Path=/%C3%A4%20b" }, site + L"\x00E4 b/", L"n=v" },
        { "paths match by case", site, { L"n=v; Path=/p" }, site + L"P", L"" },
        { "a request without a path has the root", site, { L"n=v; Path=/" }, L"http://a.b.example?q", L"n=v" },
        { "a default path has no file name", site + L"a/p.html?q=/x.y/z", { L"n=v" }, site + L"a/other", L"n=v" },
        { "a default path keeps a name without a dot", site + L"a/b", { L"n=v" }, site + L"a/c", L"" },
        { "a file at the root has the root", site + L"index.html", { L"n=v" }, site + L"c", L"n=v" },
        { "a relative path is ignored", site + L"b", { L"n=v; Path=a" }, site + L"b", L"n=v" },
        { "a final slash covers what is below", site, { L"n=v; Path=/p/" }, site + L"p/x", L"n=v" },
        { "a final slash covers a file below", site, { L"n=v; Path=/p/" }, site + L"p/i.html", L"n=v" },
        { "a final slash does not cover the name", site, { L"n=v; Path=/p/" }, site + L"p", L"" },
        { "/x and /x/ are two cookies", site, { L"a=1; Path=/x", L"a=2; Path=/x/" }, site + L"x/y", L"a=2; a=1" },
        { "/x stays when /x/ is deleted", site, { L"a=1; Path=/x", L"a=; Path=/x/; Max-Age=0" }, site + L"x/y", L"a=1" },
        // attributes
        { "a secure cookie is not sent over HTTP", L"https://host/", { L"n=v; SECURE" }, L"http://host/", L"" },
        { "unknown attributes are ignored", site, { L"n=v; httponly; SameSite=Lax; ; x; =" }, site, L"n=v" },
        { "a value keeps what is inside", site, { L" n = \"a b=c\" ;Path=/" }, site, L"n=\"a b=c\"" },
        { "only blanks and tabs are trimmed", site, { L"n=\t\x00A0v\x2003 ;Path=/" }, site, L"n=\x00A0v\x2003" },
        { "Max-Age counts before Expires", site, { std::wstring(L"n=v; Max-Age=60; ") + past }, site, L"n=v" },
        { "a huge Max-Age lasts", site, { L"n=v; Max-Age=99999999999999999999999999" }, site, L"n=v" },
        { "a malformed Max-Age is ignored", site, { L"n=v; Max-Age=", L"m=w; Max-Age=5s" }, site, L"n=v; m=w" },
        { "an attribute that is too long is ignored", site, { L"n=v; Domain=" + std::wstring(1025, L'x') }, site, L"n=v" },
        // several cookies
        { "the longer path goes first", site, { L"a=1", L"b=2; Path=/p" }, site + L"p", L"b=2; a=1" },
        { "an equal cookie is replaced in its place", site, { L"a=1", L"b=2", L"a=3" }, site, L"a=3; b=2" },
        { "case and path make other cookies", site, { L"a=1", L"A=2", L"a=3; Path=/p" }, site + L"p", L"a=3; a=1; A=2" },
        { "Max-Age 0 deletes", site, { L"a=1", L"b=2", L"a=; Max-Age=0" }, site, L"b=2" },
        { "an expiry in the past deletes", site, { L"a=1", std::wstring(L"a=; ") + past }, site, L"" },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.rule);
        CTestCookieStore store;
        for (const std::wstring& value : row.values)
            EXPECT_EQ(store.Set(value, row.from), S_OK);
        EXPECT_EQ(store.Get(row.to), row.expected);
    }
}

TEST(CookieStore, RefusesCookiesThatAreNotForTheHost)
{
    const std::wstring site = L"http://a.b.example/";
    const std::wstring atTheLimit = L"n=\x00E4" + std::wstring(kVoMaximumCookieBytes - 3, L'v'); // two bytes are one character
    const std::tuple<const char*, std::wstring, std::vector<std::wstring>> refused[] = {
        { "no name", site, { L"", L"v", L"=v", L" ; n=v" } },
        { "a foreign or too wide domain",
          site,
          { L"n=v; Domain=other.example", L"n=v; Domain=x.a.b.example", L"n=v; Domain=example", L"n=v; Domain=xample" } },
        { "a public suffix of the list", L"http://www.shop.co.uk/", { L"n=v; Domain=co.uk", L"n=v; Domain=uk" } },
        { "a public suffix of the list's private section", L"http://x.github.io/", { L"n=v; Domain=github.io" } },
        { "a part of an address", L"http://127.0.0.1/", { L"n=v; Domain=0.0.1" } },
        { "a part of an IPv6 address", L"http://[::ffff:1.2.3.4]/", { L"n=v; Domain=2.3.4" } },
        { "a malformed date", site, { L"n=v; Expires=", L"n=v; Expires=tomorrow; Max-Age=5" } },
        { "text that would split a header or cannot be sent",
          site,
          { L"n=v\r\nX: y", L"n\n=v", std::wstring(L"n=v\0w", 5), L"n=v\x7F", L"n=v; Path=/a\r", L"n=v; Path=/a\tb", L"n\tm=v",
            L"n=\xD800" } },
        { "too long by one byte", site, { atTheLimit + L"v" } },
        { "a secure cookie over HTTP", site, { L"n=v; Secure" } },
        { "a broken promise of __Secure-", L"https://host/", { L"__Secure-n=v", L"__sECURE-n=v" } },
        { "a broken promise of __Host-",
          L"https://a.b.example/",
          { L"__Host-n=v; Path=/", L"__Host-n=v; Secure", L"__Host-n=v; Secure; Path=/p",
            L"__host-n=v; Secure; Path=/; Domain=a.b.example" } },
        { "an address that is none", L"ftp://host/", { L"n=v" } },
        { "a host with a lone surrogate", L"http://h\xD800/", { L"n=v" } },
    };
    CTestCookieStore store;
    CLogCapture log;
    EXPECT_EQ(store.Set(L"n=secret; Expires=some day", site), E_INVALIDARG);
    EXPECT_THAT(log.Lines(), testing::Contains(IsMessage(L"..\\source\\VoCookieData", 295,
                                                         std::wstring(L"Invalid cookie date format:some day"))));
    for (const auto& [rule, url, values] : refused)
        for (const std::wstring& value : values)
            EXPECT_EQ(store.Set(value, url), E_INVALIDARG) << rule << testing::PrintToString(value.substr(0, 60));
    EXPECT_EQ(store.Serialize(), L"");
    TestSupport::ExpectNotLogged(log, L"secret");
    log.Clear();
    EXPECT_EQ(store.Set(L"s=v; Max-Age=long", site), S_OK);
    EXPECT_THAT(log.Lines(), testing::Contains(IsMessage(L"..\\source\\VoCookieData", 306,
                                                         std::wstring(L"Invalid cookie max-age format:long"))));
    for (const std::wstring& value :
         { atTheLimit, std::wstring(L"__Secure-n=v; Secure"), std::wstring(L"__Host-n=v; Secure; Path=/") })
        EXPECT_EQ(store.Set(value, L"https://host/"), S_OK);
    CVoBstr untouched(L"as it was");
    BSTR out = untouched.Get();
    EXPECT_EQ(store->GetCookieStringForHTTPRequest(nullptr, VARIANT_TRUE, &out), E_INVALIDARG);
    EXPECT_EQ(out, untouched.Get());
}

TEST(CookieStore, ResponsesOverHttpLeaveSecureCookiesAlone)
{
    CTestCookieStore store;
    ASSERT_EQ(store.Set(L"s=1; Secure; Domain=b.example; Path=/p", L"https://a.b.example/"), S_OK);
    const std::tuple<const char*, const wchar_t*, const wchar_t*> refused[] = {
        { "overwrite", L"s=2; Domain=b.example; Path=/p", L"http://a.b.example/" },
        { "delete", L"s=; Domain=b.example; Path=/p; Max-Age=0", L"http://b.example/" },
        { "hide by a longer path", L"s=2; Domain=b.example; Path=/p/q", L"http://b.example/" },
        { "hide by a host below", L"s=2; Path=/p", L"http://a.b.example/" },
    };
    for (const auto& [rule, value, url] : refused)
        EXPECT_EQ(store.Set(value, url), E_INVALIDARG) << rule;
    EXPECT_EQ(store.Get(L"https://a.b.example/p/q"), L"s=1");
    // Another name, path or domain is not in the way. A response over TLS may do everything.
    EXPECT_EQ(store.Set(L"S=2; Path=/p", L"http://a.b.example/"), S_OK);
    EXPECT_EQ(store.Set(L"s=3; Path=/", L"http://a.b.example/"), S_OK);
    EXPECT_EQ(store.Set(L"s=4; Path=/p", L"http://xb.example/"), S_OK);
    EXPECT_EQ(store.Set(L"s=5; Domain=b.example; Path=/p", L"https://b.example/"), S_OK);
    EXPECT_EQ(store.Get(L"https://a.b.example/p"), L"s=5; S=2; s=3");
    // Nor do many cookies push a secure one out.
    EXPECT_EQ(store.Set(L"s=6; Secure", L"https://a.b.example/"), S_OK);
    for (size_t i = 0; i <= kVoMaximumCookiesPerDomain; ++i)
        EXPECT_EQ(store.Set(L"n" + std::to_wstring(i) + L"=v", L"http://a.b.example/"), S_OK);
    EXPECT_NE(store.Get(L"https://a.b.example/").find(L"s=6"), std::wstring::npos);
}

TEST(CookieStore, KnowsPublicSuffixes)
{
    for (const wchar_t* const suffix : { L"com", L"unknown", L"co.uk", L"co.uk.", L"github.io", L"x.ck", L"any.kawasaki.jp",
                                         L"xn--55qx5d.cn", L"zw", L"aaa" })
        EXPECT_TRUE(VoIsPublicSuffix(suffix)) << testing::PrintToString(suffix);
    for (const wchar_t* const domain : { L"example.com", L"b.unknown", L"xco.uk", L"x.github.io", L"www.ck", L"a.x.ck",
                                         L"city.kawasaki.jp", L"x.any.kawasaki.jp", L"0.aaa", L"com.unknown" })
        EXPECT_FALSE(VoIsPublicSuffix(domain)) << testing::PrintToString(domain);
}

TEST(CookieStore, ReadsDatesInAllForms)
{
    const double reference = 34644 + (8 * 3600 + 49 * 60 + 37) / 86400.0; // 1994-11-06T08:49:37
    for (const wchar_t* const text :
         { L"Sun, 06 Nov 1994 08:49:37 GMT", L"Sunday, 06-Nov-94 08:49:37 GMT", L"Sun Nov  6 08:49:37 1994",
           L"\"sun, 6 NOVEMBER 1994 8:49:37\"", L"08:49:37 06-Nov-1994", L"Sun, 06 Nov 1994 10:49:37 +0200",
           L"Sun Nov 6 03:19:37 -0530 1994" })
        EXPECT_NEAR(CVoCookieData::ParseDateTime(text).value_or(-1), reference, kSecond / 1000) << testing::PrintToString(text);
    const std::pair<const wchar_t*, double> others[] = { { L"Sat, 01 Jan 00 00:00:00 GMT", 36526.0 },
                                                         { L"Mon, 31 Dec 69 23:59:59 GMT", 62093 + 86399 / 86400.0 },
                                                         { L"Thu, 29 Feb 2024 00:00:00 GMT", 45351.0 },
                                                         { L"Fri, 31 Dec 9999 23:59:59 GMT", kVoLastCookieDate },
                                                         { L"Mon, 01 Jan 1601 00:00:00 GMT", 0.0 } };
    for (const auto& [text, date] : others)
        EXPECT_NEAR(CVoCookieData::ParseDateTime(text).value_or(-1), date, kSecond / 1000) << testing::PrintToString(text);
    for (const wchar_t* const text :
         { L"", L"Sun, 06 Nov 1994", L"08:49:37 GMT", L"Sun, 06 Nov 1994 24:00:00 GMT", L"Sun, 06 Nov 1994 08:49:60 GMT",
           L"Sun, 31 Apr 1994 08:49:37 GMT", L"Wed, 29 Feb 2023 08:49:37 GMT", L"Sun, 06 Xyz 1994 08:49:37 GMT",
           L"Sun, 06 Nov 1600 08:49:37 GMT", L"Sun, 06 Nov 19940 08:49:37 GMT" })
        EXPECT_EQ(CVoCookieData::ParseDateTime(text), std::nullopt) << testing::PrintToString(text);
}

TEST(CookieStore, RemovesExpiredCookies)
{
    const std::wstring site = L"http://host/";
    CTestCookieStore store;
    EXPECT_EQ(store.Set(L"a=1; Max-Age=10", site), S_OK);
    EXPECT_EQ(store.Set(L"b=2; Expires=Wed, 15 Mar 2023 12:00:20 GMT", site), S_OK);
    EXPECT_EQ(store.Set(L"c=3; Max-Age=5", site), S_OK);
    EXPECT_EQ(store.Set(L"c=3", site), S_OK); // now without an expiry
    EXPECT_EQ(store.Set(L"d=4; Max-Age=15", site), S_OK);
    const std::pair<double, const wchar_t*> table[] = {
        { 9, L"a=1; b=2; c=3; d=4" }, { 11, L"b=2; c=3; d=4" }, { 16, L"b=2; c=3" },
        { 19, L"b=2; c=3" },          { 21, L"c=3" },           { 1e9, L"c=3" }
    };
    for (const auto& [seconds, expected] : table)
    {
        store.now = kNoon + seconds * kSecond;
        EXPECT_EQ(store.Get(site), expected);
        EXPECT_EQ(store.Serialize().find(L"Expiry") == std::wstring::npos, seconds > 20);
    }
    // An expired cookie has lost its place: the next of its name is a new cookie.
    EXPECT_EQ(store.Set(L"a=4", site), S_OK);
    EXPECT_EQ(store.Get(site), L"c=3; a=4");
}

// Fills a store with every kind of cookie, with expiries of more than 15 digits, and with values that need escaping.
void Fill(CTestCookieStore& store)
{
    const std::wstring site = L"https://a.b.example/p/q";
    store.now = kNoon + 1.0 / 3.0;
    for (const wchar_t* const value :
         { L"s=1; Secure; HttpOnly; Max-Age=12345", L"d=a&b=$c$&&; Domain=b.example; Path=/", L"u=\x00E4\xD83D\xDE00; Path=/p/",
           L"e=; Expires=Fri, 31 Dec 9999 23:59:59 GMT", L"&&n=0; Max-Age=1" })
        EXPECT_EQ(store.Set(value, site), S_OK);
    EXPECT_EQ(store.Set(L"j=1", L"http://a.b.example/app;id=1"), S_OK);
}

TEST(CookieStore, SerializedContentComesBackExactly)
{
    CTestCookieStore store;
    Fill(store);
    const std::wstring data = store.Serialize();
    EXPECT_TRUE(data.starts_with(L"Cookie=Domain=a.b.example$&Path=/p/q$&Name=s$&Value=1$&Secure=True$&HttpOnly=True"
                                 L"$&HostOnly=True$&Expiry=45000.97"));
    CTestCookieStore copy;
    copy.now = store.now;
    EXPECT_EQ(copy.Set(L"old=1", L"http://a.b.example/"), S_OK);
    EXPECT_EQ(copy.Deserialize(data), S_OK);
    EXPECT_EQ(copy.Serialize(), data);
    store.now = copy.now = store.now + 12345.5 * kSecond;
    EXPECT_EQ(copy.Get(L"https://a.b.example/p/q/r"), store.Get(L"https://a.b.example/p/q/r"));
    // Cookies that have expired meanwhile do not come back.
    EXPECT_EQ(copy.Deserialize(data), S_OK);
    EXPECT_EQ(copy.Serialize(), store.Serialize());
    EXPECT_EQ(copy.Deserialize(L""), S_OK);
    EXPECT_EQ(copy.Serialize(), L"");
    // The properties give it as bytes and as text.
    const CVoBstr names[] = { CVoBstr(L"CookieData"), CVoBstr(L"CookieDataString") };
    for (const bool asText : { false, true })
    {
        CVoVariant value;
        ASSERT_EQ(store->get_Properties(names[asText].Get(), value.Put()), S_OK);
        EXPECT_EQ(value.Get().vt, asText ? VT_BSTR : VT_ARRAY | VT_UI1);
        EXPECT_EQ(copy->put_Properties(names[!asText].Get(), value.Get()), DISP_E_TYPEMISMATCH);
        EXPECT_EQ(copy.Serialize(), L"");
        EXPECT_EQ(copy->put_Properties(names[asText].Get(), value.Get()), S_OK);
        EXPECT_EQ(copy.Serialize(), store.Serialize());
        EXPECT_EQ(copy->Clear(), S_OK);
    }
}

TEST(CookieStore, MalformedContentLeavesTheStoreUnchanged)
{
    CTestCookieStore store;
    Fill(store);
    const std::wstring before = store.Serialize();
    std::vector<std::wstring> table = TestSupport::EachChange(
        before,
        { L"Cookie= -> Biscuit=", L"Name=s -> Name=", L"Name=s -> Name=s;t", L"Name=s -> Name=s\r\nX",
          L"Value=1 -> Value=1; t=2", L"Path=/p -> Path=p", L"Domain=a.b.example -> Domain=",
          L"Domain=b.example -> Domain=example", L"Domain=b.example -> Domain=co.uk", L"Domain=a.b.example -> Domain=h\xD800",
          L"Name=s -> Name=__Host-s", L"Expiry=4 -> Expiry=x4", L"Expiry=4 -> Expiry=9999999", L"Secure= -> Secure=maybe" });
    table.insert(table.end(), { L"text", L"Cookie=", L"Cookie=text", L"Other=1", before + L"&x=y" });
    for (const std::wstring& data : table)
    {
        SCOPED_TRACE(testing::PrintToString(data.substr(0, 200)));
        EXPECT_TRUE(FAILED(store.Deserialize(data)));
        EXPECT_EQ(store.Serialize(), before);
    }
}

TEST(CookieStore, LimitsTheCookiesOfADomainAndOfAll)
{
    CTestCookieStore store;
    const auto set = [&](size_t number, const std::wstring& host)
    { EXPECT_EQ(store.Set(L"n" + std::to_wstring(number) + L"=v", L"http://" + host), S_OK); };
    const auto has = [&](size_t number, const std::wstring& host)
    {
        return (L"; " + store.Get(L"http://" + host) + L";").find(L" n" + std::to_wstring(number) + L"=v;") !=
               std::wstring::npos;
    };
    // What was cleared does not count.
    set(0, L"cleared.example");
    EXPECT_EQ(store->Clear(), S_OK);
    EXPECT_EQ(store.Set(L"s=v; Secure", L"https://safe.example"), S_OK);
    // One host above its limit loses the cookie that was unused for longest; other hosts lose none.
    set(0, L"quiet.example");
    EXPECT_EQ(store.Set(L"used=v; Path=/p", L"http://loud.example"), S_OK);
    EXPECT_EQ(store.Set(L"unused=v; Path=/q", L"http://loud.example"), S_OK);
    EXPECT_EQ(store.Get(L"http://loud.example/p"), L"used=v");
    for (size_t i = 0; i < kVoMaximumCookiesPerDomain - 1; ++i)
        set(i, L"loud.example");
    EXPECT_TRUE(store.Get(L"http://loud.example/p").starts_with(L"used=v; n0=v; n1=v"));
    EXPECT_TRUE(store.Get(L"http://loud.example/q").starts_with(L"n0=v; n1=v"));
    // Two cookies that one request uses: the older one goes first.
    EXPECT_EQ(store.Set(L"a=v", L"http://pair.example"), S_OK);
    EXPECT_EQ(store.Set(L"b=v; Path=/p", L"http://pair.example"), S_OK);
    EXPECT_EQ(store.Get(L"http://pair.example/p"), L"b=v; a=v");
    EXPECT_TRUE(has(0, L"quiet.example"));
    // Many hosts above the limit of all: the cookies that were used last stay, and the secure one. The store has 204 cookies;
    // 201 go: those of the loud host, and one of the pair.
    for (size_t i = 0; i < kVoMaximumCookies - 3; ++i)
        set(0, L"h" + std::to_wstring(i) + L".example");
    EXPECT_TRUE(has(0, L"quiet.example"));
    EXPECT_EQ(store.Get(L"http://loud.example"), L"");
    EXPECT_EQ(store.Get(L"http://pair.example/p"), L"b=v");
    EXPECT_EQ(store.Get(L"https://safe.example"), L"s=v");
    EXPECT_TRUE(has(0, L"h0.example"));
    EXPECT_TRUE(has(0, L"h" + std::to_wstring(kVoMaximumCookies - 4) + L".example"));
}
} // namespace
