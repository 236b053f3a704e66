#include <VoGlobalHTTPCookieStoreImpl.h>

#include <gtest/gtest.h>

#include <random>

#include <support/HTTPSupport.h>
#include <support/ImportHook.h>

namespace
{
using TestSupport::CLogCapture;
using TestSupport::IsMessage;

constexpr double kNoon = 45000.5; // 2023-03-15T12:00:00
constexpr double kSecond = 1.0 / 86400.0;

// A store whose clock the test moves, with texts in place of BSTRs.
class CTestStore
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
        { "a domain's is sent to what is below it", site, { L"n=v; Domain=b.example" }, L"http://x.b.example/", L"n=v" },
        { "by whole labels", site, { L"n=v; Domain=b.example" }, L"http://xb.example/", L"" },
        { "a host's own is its own", site, { L"n=v" }, L"http://x.a.b.example/", L"" },
        { "a parent's is sent to it", site, { L"n=v; domain=.B.Example" }, L"http://B.example/", L"n=v" },
        { "ports and case are not told apart", L"http://HOST:81/", { L"n=v" }, L"https://host:444/", L"n=v" },
        { "an empty Domain is none", site, { L"n=v; Domain=b.example; Domain=." }, L"http://x.a.b.example/", L"" },
        { "a single label is alone", L"http://localhost/", { L"n=v; Domain=localhost" }, L"http://x.localhost/", L"" },
        { "international names meet in ASCII", books, { L"n=v; Domain=xn--bcher-kva.example" }, books, L"n=v" },
        { "nor does it undo one", site, { L"n=v; Domain=b.example; Domain=" }, L"http://x.b.example/", L"n=v" },
        // paths
        { "a path has what is below it", site, { L"n=v; Path=/p" }, site + L"p/x", L"n=v" },
        { "by whole parts", site, { L"n=v; Path=/p" }, site + L"pq", L"" },
        { "as it travels, however it is written",
          site + L"\x00E4 b/c",
          { L"n=v; Path=/%C3%A4%20b" },
          site + L"\x00E4 b/",
          L"n=v" },
        { "and by case", site, { L"n=v; Path=/p" }, site + L"P", L"" },
        { "a request without a path has the root", site, { L"n=v; Path=/" }, L"http://a.b.example?q", L"n=v" },
        { "the default leaves a file name out", site + L"a/p.html?q=/x.y/z", { L"n=v" }, site + L"a/other", L"n=v" },
        { "the default keeps a name without a dot", site + L"a/b", { L"n=v" }, site + L"a/c", L"" },
        { "of a file at the root it is the root", site + L"index.html", { L"n=v" }, site + L"c", L"n=v" },
        { "a relative path is none", site + L"b", { L"n=v; Path=a" }, site + L"b", L"n=v" },
        // attributes
        { "secure stays off plain HTTP", L"https://host/", { L"n=v; SECURE" }, L"http://host/", L"" },
        { "unknown attributes are ignored", site, { L"n=v; httponly; SameSite=Lax; ; x; =" }, site, L"n=v" },
        { "the value keeps what is inside", site, { L" n = \"a b=c\" ;Path=/" }, site, L"n=\"a b=c\"" },
        { "max-age goes before expires", site, { std::wstring(L"n=v; Max-Age=60; ") + past }, site, L"n=v" },
        { "a huge max-age lasts", site, { L"n=v; Max-Age=99999999999999999999999999" }, site, L"n=v" },
        // several cookies
        { "the longer path goes first", site, { L"a=1", L"b=2; Path=/p" }, site + L"p", L"b=2; a=1" },
        { "an equal one is replaced in its place", site, { L"a=1", L"b=2", L"a=3" }, site, L"a=3; b=2" },
        { "names and paths tell them apart", site, { L"a=1", L"A=2", L"a=3; Path=/p" }, site + L"p", L"a=3; a=1; A=2" },
        { "max-age 0 removes", site, { L"a=1", L"b=2", L"a=; Max-Age=0" }, site, L"b=2" },
        { "an expiry in the past removes", site, { L"a=1", std::wstring(L"a=; ") + past }, site, L"" },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.rule);
        CTestStore store;
        for (const std::wstring& value : row.values)
            EXPECT_EQ(store.Set(value, row.from), S_OK);
        EXPECT_EQ(store.Get(row.to), row.expected);
    }
}

TEST(CookieStore, RefusesWhatIsNoCookieForTheHost)
{
    const std::wstring site = L"http://a.b.example/";
    const std::wstring atTheLimit = L"n=" + std::wstring(kVoMaximumCookieLength - std::wstring(L"n/a.b.example").size(), L'v');
    const std::pair<const wchar_t*, std::vector<std::wstring>> refused[] = {
        { L"no name", { L"", L"v", L"=v", L" ; n=v" } },
        { L"foreign and too wide domains",
          { L"n=v; Domain=other.example", L"n=v; Domain=x.a.b.example", L"n=v; Domain=example", L"n=v; Domain=xample" } },
        { L"dates and ages", { L"n=v; Expires=", L"n=v; Expires=tomorrow; Max-Age=5", L"n=v; Max-Age=", L"n=v; Max-Age=5s" } },
        { L"what would split a header or could not be sent",
          { L"n=v\r\nX: y", L"n\n=v", std::wstring(L"n=v\0w", 5), L"n=v\x7F", L"n=v; Path=/a\r", L"n=\xD800" } },
        { L"too long by one", { atTheLimit + L"v" } },
    };
    CTestStore store;
    const CLogCapture log;
    EXPECT_EQ(store.Set(L"n=secret; Expires=some day", site), E_INVALIDARG);
    EXPECT_EQ(store.Set(L"n=secret; Max-Age=long", site), E_INVALIDARG);
    EXPECT_THAT(log.Lines(),
                testing::IsSupersetOf(
                    { IsMessage(L"..\\source\\VoCookieData", 295, std::wstring(L"Invalid cookie date format:some day")),
                      IsMessage(L"..\\source\\VoCookieData", 306, std::wstring(L"Invalid cookie max-age format:long")) }));
    TestSupport::ExpectNotLogged(log, L"secret");
    for (const auto& [rule, values] : refused)
        for (const std::wstring& value : values)
            EXPECT_EQ(store.Set(value, site), E_INVALIDARG) << rule << testing::PrintToString(value.substr(0, 60));
    EXPECT_EQ(store.Set(L"n=v; Domain=0.0.1", L"http://127.0.0.1/"), E_INVALIDARG);
    EXPECT_EQ(store.Set(L"n=v; Domain=2.3.4", L"http://[::ffff:1.2.3.4]/"), E_INVALIDARG);
    EXPECT_EQ(store.Set(L"n=v", L"ftp://host/"), E_INVALIDARG);
    EXPECT_EQ(store.Serialize(), L"");
    EXPECT_EQ(store.Set(atTheLimit, site), S_OK);
    CVoBstr untouched(L"as it was");
    BSTR out = untouched.Get();
    EXPECT_EQ(store->GetCookieStringForHTTPRequest(nullptr, VARIANT_TRUE, &out), E_INVALIDARG);
    const CFailOnCall<decltype(&::SysAllocStringLen)> fail("oleaut32.dll", "SysAllocStringLen", 2, nullptr, ERROR_SUCCESS);
    EXPECT_EQ(store->GetCookieStringForHTTPRequest(CVoBstr(site).Get(), VARIANT_TRUE, &out), E_OUTOFMEMORY);
    EXPECT_EQ(out, untouched.Get());
}

TEST(CookieStore, ReadsDatesInAllTheirForms)
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

TEST(CookieStore, CookiesLeaveWhenTheirTimeIsUp)
{
    const std::wstring site = L"http://host/";
    CTestStore store;
    EXPECT_EQ(store.Set(L"a=1; Max-Age=10", site), S_OK);
    EXPECT_EQ(store.Set(L"b=2; Expires=Wed, 15 Mar 2023 12:00:20 GMT", site), S_OK);
    EXPECT_EQ(store.Set(L"c=3", site), S_OK);
    const std::pair<double, const wchar_t*> table[] = {
        { 9, L"a=1; b=2; c=3" }, { 11, L"b=2; c=3" }, { 19, L"b=2; c=3" }, { 21, L"c=3" }, { 1e9, L"c=3" }
    };
    for (const auto& [seconds, expected] : table)
    {
        store.now = kNoon + seconds * kSecond;
        EXPECT_EQ(store.Get(site), expected);
        EXPECT_EQ(store.Serialize().find(L"Expiry") == std::wstring::npos, seconds > 20);
    }
    // An expired one has left its place: the next of its name is a new one.
    EXPECT_EQ(store.Set(L"a=4", site), S_OK);
    EXPECT_EQ(store.Get(site), L"c=3; a=4");
}

TEST(CookieStore, RandomTextNeitherCrashesNorPlantsControlCharacters)
{
    std::mt19937 random(6265);
    const std::wstring pieces[] = {
        L"n",       L"=",      L";",      L" ",       L"\t",         L"\r\n", std::wstring(1, L'\0'),
        L"Expires", L"Domain", L"Path",   L"Max-Age", L"/",          L".",    L"host",
        L"example", L"\xD83D", L"\xDE00", L"\x7F",    L"1 Jan 2040", L"999",  L"-",
        L"\"",      L"$",      L"&"
    };
    CTestStore store;
    size_t accepted = 0;
    for (int round = 0; round < 20000; ++round)
    {
        std::wstring text = random() % 2 ? L"n=" : L"";
        for (auto count = random() % 16; count > 0; --count)
            text += pieces[random() % std::size(pieces)];
        const HRESULT hr = store.Set(text, random() % 2 ? L"http://www.host.example/p/q" : L"http://host/");
        ASSERT_TRUE(hr == S_OK || hr == E_INVALIDARG);
        accepted += hr == S_OK;
    }
    EXPECT_GT(accepted, 1000U);
    const std::wstring data = store.Serialize();
    for (const std::wstring& text : { data, store.Get(L"https://host/"), store.Get(L"https://www.host.example/p/q") })
        EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](wchar_t c) { return c >= L' ' && c != 0x7F; }));
    CTestStore copy;
    EXPECT_EQ(copy.Deserialize(data), S_OK);
    EXPECT_EQ(copy.Serialize(), data);
}

// A store with every kind of cookie, expiries that no 15 digits hold, and values that need escaping.
void Fill(CTestStore& store)
{
    const std::wstring site = L"http://a.b.example/p/q";
    store.now = kNoon + 1.0 / 3.0;
    for (const wchar_t* const value :
         { L"s=1; Secure; HttpOnly; Max-Age=12345", L"d=a&b=$c$&&; Domain=b.example; Path=/", L"u=\x00E4\xD83D\xDE00; Path=/p/",
           L"e=; Expires=Fri, 31 Dec 9999 23:59:59 GMT", L"&&n=0; Max-Age=1" })
        EXPECT_EQ(store.Set(value, site), S_OK);
    EXPECT_EQ(store.Set(L"j=1", L"http://a.b.example/app;id=1"), S_OK);
}

TEST(CookieStore, SerializedContentComesBackExactly)
{
    CTestStore store;
    Fill(store);
    const std::wstring data = store.Serialize();
    CTestStore copy;
    copy.now = store.now;
    EXPECT_EQ(copy.Set(L"old=1", L"http://a.b.example/"), S_OK);
    EXPECT_EQ(copy.Deserialize(data), S_OK);
    EXPECT_EQ(copy.Serialize(), data);
    for (const double later : { 0.0, 0.5, 1.5, 12344.5, 12345.5 })
        for (const wchar_t* const url : { L"https://a.b.example/p/q/r", L"http://a.b.example/p/q", L"http://b.example/x" })
        {
            store.now = copy.now = kNoon + 1.0 / 3.0 + later * kSecond;
            EXPECT_EQ(copy.Get(url), store.Get(url));
        }
    // What has expired meanwhile does not come back.
    EXPECT_EQ(copy.Deserialize(data), S_OK);
    EXPECT_EQ(copy.Serialize(), store.Serialize());
    EXPECT_EQ(copy.Deserialize(L""), S_OK);
    EXPECT_EQ(copy.Serialize(), L"");
    // The properties have it as bytes and as text.
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

TEST(CookieStore, MalformedContentLeavesTheStoreAlone)
{
    CTestStore store;
    Fill(store);
    const std::wstring before = store.Serialize();
    std::vector<std::wstring> table = TestSupport::EachChange(
        before, { L"Cookie= -> Biscuit=", L"Name=s -> Name=", L"Name=s -> Name=s;t", L"Name=s -> Name=s\r\nX",
                  L"Value=1 -> Value=1; t=2", L"Path=/p -> Path=p", L"Domain=a.b.example -> Domain=",
                  L"Domain=b.example -> Domain=example", L"Expiry=4 -> Expiry=x4", L"Expiry=4 -> Expiry=9999999",
                  L"Secure= -> Secure=maybe" });
    table.insert(table.end(), { L"text", L"Cookie=", L"Cookie=text", L"Other=1", before + L"&x=y" });
    for (const std::wstring& data : table)
    {
        SCOPED_TRACE(testing::PrintToString(data.substr(0, 200)));
        EXPECT_TRUE(FAILED(store.Deserialize(data)));
        EXPECT_EQ(store.Serialize(), before);
    }
}

TEST(CookieStore, ServersCannotFillTheMemory)
{
    CTestStore store;
    const auto set = [&](size_t number, const std::wstring& host)
    { EXPECT_EQ(store.Set(L"n" + std::to_wstring(number) + L"=v", L"http://" + host), S_OK); };
    const auto has = [&](size_t number, const std::wstring& host)
    {
        return (L"; " + store.Get(L"http://" + host) + L";").find(L" n" + std::to_wstring(number) + L"=v;") !=
               std::wstring::npos;
    };
    // One host: the first goes for the one beyond the limit, and nobody else's.
    set(0, L"quiet.example");
    for (size_t i = 0; i <= kVoMaximumCookiesPerDomain; ++i)
        set(i, L"loud.example");
    EXPECT_FALSE(has(0, L"loud.example"));
    EXPECT_TRUE(has(1, L"loud.example"));
    EXPECT_TRUE(has(kVoMaximumCookiesPerDomain, L"loud.example"));
    EXPECT_TRUE(has(0, L"quiet.example"));
    // Many hosts: what was used last stays. 201 cookies are there already, the quiet host's was used last.
    for (size_t i = 0; i < kVoMaximumCookies - 1; ++i)
        set(0, L"h" + std::to_wstring(i) + L".example");
    EXPECT_TRUE(has(0, L"quiet.example"));
    EXPECT_EQ(store.Get(L"http://loud.example"), L"");
    EXPECT_TRUE(has(0, L"h0.example"));
    EXPECT_TRUE(has(0, L"h" + std::to_wstring(kVoMaximumCookies - 2) + L".example"));
}

} // namespace
