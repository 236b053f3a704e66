#include <VoGlobalHTTPCookieStoreImpl.h>

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <thread>

#include <support/ImportHook.h>
#include <support/LogCapture.h>

namespace
{
using testing::ElementsAre;
using TestSupport::CLogCapture;
using TestSupport::IsMessage;
using TestSupport::IsReportBy;

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
    // The Cookie header for a URL; TLS goes by its scheme.
    std::wstring Get(std::wstring_view url)
    {
        CVoBstr cookie;
        const VARIANT_BOOL secure = url.starts_with(L"https") ? VARIANT_TRUE : VARIANT_FALSE;
        EXPECT_EQ(m_store->GetCookieStringForHTTPRequest(CVoBstr(url).Get(), secure, cookie.Put()), S_OK);
        return std::wstring(cookie.View());
    }
    std::wstring Serialize()
    {
        CVoBstr data;
        EXPECT_EQ(m_store->Serialize(data.Put()), S_OK);
        return std::wstring(data.View());
    }
    HRESULT Deserialize(std::wstring_view data) { return m_store->Deserialize(CVoBstr(data).Get()); }
    IVoHTTPCookieStore* operator->() const { return m_store.Get(); }

private:
    CVoComPtr<CVoGlobalHTTPCookieStoreImpl> m_store = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>([this] { return now; });
};

struct CSet
{
    std::wstring value;
    std::wstring url;
};
struct CCase
{
    const char* rule;
    std::vector<CSet> sets;
    std::wstring url;
    std::wstring expected;
};

TEST(CookieStore, SendsWhatTheServersSet)
{
    const std::wstring site = L"http://a.b.example/";
    const CCase table[] = {
        // domains
        { "without Domain it is the host's own", { { L"n=v", L"http://b.example/" } }, site, L"" },
        { "a parent's is sent below it", { { L"n=v; Domain=b.example", L"http://b.example/" } }, site, L"n=v" },
        { "and further below", { { L"n=v; Domain=b.example", site } }, L"http://x.y.b.example/", L"n=v" },
        { "and to the parent", { { L"n=v; domain=.B.Example", site } }, L"http://B.example/", L"n=v" },
        { "labels match whole", { { L"n=v; Domain=b.example", site } }, L"http://xb.example/", L"" },
        { "hosts have no case", { { L"n=v", L"http://HOST/" } }, L"http://host/", L"n=v" },
        { "ports are not told apart", { { L"n=v", L"http://host:81/" } }, L"https://host:444/", L"n=v" },
        { "an empty Domain is none", { { L"n=v; Domain=; Domain=.", site } }, L"http://x.a.b.example/", L"" },
        { "the last Domain counts",
          { { L"n=v; Domain=other.example; Domain=b.example", site } },
          L"http://b.example/",
          L"n=v" },
        { "a single label keeps it for itself",
          { { L"n=v; Domain=localhost", L"http://localhost/" } },
          L"http://x.localhost/",
          L"" },
        { "so does an address", { { L"n=v; Domain=127.0.0.1", L"http://127.0.0.1/" } }, L"http://127.0.0.1/", L"n=v" },
        { "of either family", { { L"n=v", L"http://[::1]:81/" } }, L"http://[::1]/", L"n=v" },
        { "international names meet in ASCII",
          { { L"n=v; Domain=xn--bcher-kva.example", L"http://b\x00FC"
                                                    L"cher.example/" } },
          L"http://www.b\x00FC"
          L"cher.example/",
          L"n=v" },
        // paths
        { "a path is sent below it", { { L"n=v; Path=/a", site } }, site + L"a/b", L"n=v" },
        { "segments match whole", { { L"n=v; Path=/a", site } }, site + L"ab", L"" },
        { "segments keep their case", { { L"n=v; Path=/A", site } }, site + L"a", L"" },
        { "a slash at the end is no segment", { { L"n=v; Path=/a/", site } }, site + L"a", L"n=v" },
        { "the root is everywhere", { { L"n=v; Path=/", site } }, site + L"x//y?q=/z", L"n=v" },
        { "a request without a path has the root", { { L"n=v; Path=/", site } }, L"http://a.b.example?q", L"n=v" },
        { "a longer path is not sent above it", { { L"n=v; Path=/a/b", site } }, site + L"a", L"" },
        { "the default leaves a file name out", { { L"n=v", site + L"a/page.html?q=/x.y/z" } }, site + L"a/other", L"n=v" },
        { "the default keeps a name without a dot", { { L"n=v", site + L"a/b" } }, site + L"a/c", L"" },
        { "of a file at the root it is the root", { { L"n=v", site + L"index.html" } }, site + L"c", L"n=v" },
        { "a dot before the last slash does not count", { { L"n=v", site + L"v1.2/api" } }, site + L"v1.2/other", L"" },
        { "a relative path is none", { { L"n=v; Path=a", site + L"b" } }, site + L"b", L"n=v" },
        // attributes
        { "secure stays off plain HTTP", { { L"n=v; Secure", L"https://host/" } }, L"http://host/", L"" },
        { "secure goes over TLS", { { L"n=v; SECURE", L"http://host/" } }, L"https://host/", L"n=v" },
        { "HttpOnly is sent", { { L"n=v; httponly", site } }, site, L"n=v" },
        { "unknown attributes are ignored", { { L"n=v; SameSite=Lax; ; x; =", site } }, site, L"n=v" },
        { "the value keeps what is inside", { { L" n = \"a b=c\" ;Path=/", site } }, site, L"n=\"a b=c\"" },
        { "an empty value is a value", { { L"n=", site } }, site, L"n=" },
        { "other scripts pass", { { L"n=\x00E4\xD83D\xDE00", site } }, site, L"n=\x00E4\xD83D\xDE00" },
        { "max-age goes before expires",
          { { L"n=v; Max-Age=60; Expires=Thu, 01 Jan 1970 00:00:00 GMT", site } },
          site,
          L"n=v" },
        { "a huge max-age lasts", { { L"n=v; Max-Age=99999999999999999999999999", site } }, site, L"n=v" },
        { "the past is over", { { L"n=v; Expires=Thu, 01 Jan 1970 00:00:00 GMT", site } }, site, L"" },
        // several cookies
        { "longer paths first, then the earlier",
          { { L"a=1; Path=/", site },
            { L"b=2; Path=/x", site },
            { L"c=3; Path=/", site },
            { L"d=4; Path=/; Domain=b.example", site },
            { L"e=5; Path=/y", site } },
          site + L"x",
          L"b=2; a=1; c=3; d=4" },
        { "an equal one is replaced in its place",
          { { L"a=1; Path=/", site }, { L"b=2; Path=/", site }, { L"a=3; Path=/", site } },
          site,
          L"a=3; b=2" },
        { "names and paths tell them apart",
          { { L"a=1; Path=/", site }, { L"A=2; Path=/", site }, { L"a=3; Path=/p", site } },
          site + L"p",
          L"a=3; a=1; A=2" },
        { "max-age 0 removes", { { L"a=1", site }, { L"b=2", site }, { L"a=; Max-Age=0", site } }, site, L"b=2" },
        { "an expiry in the past removes",
          { { L"a=1", site }, { L"a=; Expires=Thu, 01 Jan 1970 00:00:00 GMT", site } },
          site,
          L"" },
        { "only the one it names", { { L"a=1; Path=/", site }, { L"a=; Path=/p; Max-Age=-1", site } }, site + L"p", L"a=1" },
    };
    for (const CCase& row : table)
    {
        SCOPED_TRACE(row.rule);
        CTestStore store;
        for (const CSet& set : row.sets)
            EXPECT_EQ(store.Set(set.value, set.url), S_OK);
        EXPECT_EQ(store.Get(row.url), row.expected);
    }
}

TEST(CookieStore, RefusesWhatIsNoCookieForTheHost)
{
    const std::wstring site = L"http://a.b.example/";
    const std::wstring atTheLimit(kVoMaximumCookieLength - std::wstring(L"n/a.b.example").size(), L'v');
    const CSet table[] = {
        // no name
        { L"", site },
        { L"v", site },
        { L"=v", site },
        { L" ; n=v", site },
        { L"Path=/a", L"" },
        // foreign and too wide domains
        { L"n=v; Domain=other.example", site },
        { L"n=v; Domain=x.a.b.example", site },
        { L"n=v; Domain=example", site },
        { L"n=v; Domain=..b.example", site },
        { L"n=v; Domain=example.", L"http://b.example./" },
        { L"n=v; Domain=.example", site },
        { L"n=v; Domain=xample", site },
        { L"n=v; Domain=0.0.1", L"http://127.0.0.1/" },
        { L"n=v; Domain=0.1", L"http://0x7f.0.1/" },
        { L"n=v; Domain=2.3.4", L"http://[::ffff:1.2.3.4]/" },
        // dates and ages
        { L"n=v; Expires=", site },
        { L"n=v; Expires=0", site },
        { L"n=v; Expires=tomorrow; Max-Age=5", site },
        { L"n=v; Max-Age=", site },
        { L"n=v; Max-Age=5s", site },
        { L"n=v; Max-Age=-", site },
        { L"n=v; Max-Age=1.5", site },
        // what would split a header or could not be sent
        { L"n=v\r\nX: y", site },
        { L"n\n=v", site },
        { std::wstring(L"n=v\0w", 5), site },
        { L"n=v\x7F", site },
        { L"n=v\tw", site },
        { L"n\tm=v", site },
        { L"n=v; Path=/a\tb", site },
        { L"n=v; Path=/a\r", site },
        { L"n=\xD800", site },
        { L"n=\xDC00\xD800", site },
        // sizes and addresses
        { L"n=" + atTheLimit + L"v", site },
        { L"n=v", L"ftp://host/" },
        { L"n=v", L"http://us er/" },
    };
    CTestStore store;
    for (const CSet& row : table)
    {
        SCOPED_TRACE(testing::PrintToString(row.value.substr(0, 60)));
        EXPECT_EQ(store.Set(row.value, row.url), E_INVALIDARG);
        EXPECT_EQ(store.Serialize(), L"");
    }
    EXPECT_EQ(store.Set(L"n=" + atTheLimit, site), S_OK);
    EXPECT_EQ(store->AddCookieFromString(nullptr, nullptr), E_INVALIDARG);
    EXPECT_EQ(store->GetCookieStringForHTTPRequest(CVoBstr(site).Get(), VARIANT_TRUE, nullptr), E_POINTER);
    CVoBstr untouched(L"as it was");
    BSTR out = untouched.Get();
    EXPECT_EQ(store->GetCookieStringForHTTPRequest(nullptr, VARIANT_TRUE, &out), E_INVALIDARG);
    EXPECT_EQ(out, untouched.Get());
    {
        const CFailOnCall<decltype(&::SysAllocStringLen)> fail("oleaut32.dll", "SysAllocStringLen", 2, nullptr, ERROR_SUCCESS);
        EXPECT_EQ(store->GetCookieStringForHTTPRequest(CVoBstr(site).Get(), VARIANT_TRUE, &out), E_OUTOFMEMORY);
        EXPECT_EQ(out, untouched.Get());
    }
}

TEST(CookieStore, ReportsMalformedDatesAndAgesWithTheirText)
{
    CTestStore store;
    CLogCapture log;
    EXPECT_EQ(store.Set(L"n=secret; Expires=some day", L"http://host/"), E_INVALIDARG);
    EXPECT_EQ(store.Set(L"n=secret; Max-Age=long", L"http://host/"), E_INVALIDARG);
    EXPECT_THAT(log.Lines(),
                ElementsAre(IsMessage(L"..\\source\\VoCookieData", 295, std::wstring(L"Invalid cookie date format:some day")),
                            IsReportBy(L"CVoCookieData::CreateCookieFromString", E_INVALIDARG),
                            IsReportBy(L"CVoGlobalHTTPCookieStoreImpl::AddCookieFromString", E_INVALIDARG),
                            IsMessage(L"..\\source\\VoCookieData", 306, std::wstring(L"Invalid cookie max-age format:long")),
                            IsReportBy(L"CVoCookieData::CreateCookieFromString", E_INVALIDARG),
                            IsReportBy(L"CVoGlobalHTTPCookieStoreImpl::AddCookieFromString", E_INVALIDARG)));
}

TEST(CookieStore, ReadsDatesInAllTheirForms)
{
    const double reference = 34644 + (8 * 3600 + 49 * 60 + 37) / 86400.0; // 1994-11-06T08:49:37
    struct
    {
        const wchar_t* text;
        std::optional<double> date;
    } const table[] = {
        { L"Sun, 06 Nov 1994 08:49:37 GMT", reference },
        { L"Sunday, 06-Nov-94 08:49:37 GMT", reference },
        { L"Sun Nov  6 08:49:37 1994", reference },
        { L"\"sun, 6 NOVEMBER 1994 8:49:37\"", reference },
        { L"08:49:37 06-Nov-1994", reference },
        { L"Sun, 06 Nov 1994 10:49:37 +0200", reference },
        { L"Sun Nov 6 03:19:37 -0530 1994", reference },
        { L"Sat, 01 Jan 00 00:00:00 GMT", 36526.0 },
        { L"Thu, 01 Jan 70 00:00:00 GMT", 25569.0 },
        { L"Mon, 31 Dec 69 23:59:59 GMT", 62093 + 86399 / 86400.0 },
        { L"Thu, 29 Feb 2024 00:00:00 GMT", 45351.0 },
        { L"Fri, 31 Dec 9999 23:59:59 GMT", kVoLastCookieDate },
        { L"Mon, 01 Jan 1601 00:00:00 GMT", 0.0 },
        { L"", std::nullopt },
        { L"-1", std::nullopt },
        { L"Sun, 06 Nov 1994", std::nullopt },
        { L"08:49:37 GMT", std::nullopt },
        { L"Sun, 06 Nov 1994 24:00:00 GMT", std::nullopt },
        { L"Sun, 06 Nov 1994 08:60:00 GMT", std::nullopt },
        { L"Sun, 06 Nov 1994 08:49:60 GMT", std::nullopt },
        { L"Sun, 06 Nov 1994 08:49 GMT", std::nullopt },
        { L"Sun, 31 Apr 1994 08:49:37 GMT", std::nullopt },
        { L"Wed, 29 Feb 2023 08:49:37 GMT", std::nullopt },
        { L"Sun, 00 Nov 1994 08:49:37 GMT", std::nullopt },
        { L"Sun, 06 Xyz 1994 08:49:37 GMT", std::nullopt },
        { L"Sun, 06 Nov 1600 08:49:37 GMT", std::nullopt },
        { L"Sun, 06 Nov 19940 08:49:37 GMT", std::nullopt },
        { L"Sun, 06 Nov 1994 008:49:37 GMT", std::nullopt },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(testing::PrintToString(std::wstring(row.text)));
        const std::optional<double> date = CVoCookieData::ParseDateTime(row.text);
        ASSERT_EQ(date.has_value(), row.date.has_value());
        EXPECT_NEAR(date.value_or(0), row.date.value_or(0), kSecond / 1000);
    }
}

TEST(CookieStore, CookiesLeaveWhenTheirTimeIsUp)
{
    const std::wstring site = L"http://host/";
    CTestStore store;
    EXPECT_EQ(store.Set(L"a=1; Max-Age=10", site), S_OK);
    EXPECT_EQ(store.Set(L"b=2; Expires=Wed, 15 Mar 2023 12:00:20 GMT", site), S_OK);
    EXPECT_EQ(store.Set(L"c=3", site), S_OK);
    const struct
    {
        double seconds;
        const wchar_t* expected;
    } table[] = { { 9, L"a=1; b=2; c=3" }, { 11, L"b=2; c=3" }, { 19, L"b=2; c=3" }, { 21, L"c=3" }, { 1e9, L"c=3" } };
    for (const auto& row : table)
    {
        store.now = kNoon + row.seconds * kSecond;
        EXPECT_EQ(store.Get(site), row.expected);
        EXPECT_EQ(testing::PrintToString(store.Serialize()).find("Expiry") == std::string::npos, row.seconds > 20);
    }
    // An expired one has left its place: the next of its name is a new one.
    EXPECT_EQ(store.Set(L"a=4", site), S_OK);
    EXPECT_EQ(store.Get(site), L"c=3; a=4");

    SYSTEMTIME time;
    ::GetSystemTime(&time);
    double systemDate = 0;
    ASSERT_NE(::SystemTimeToVariantTime(&time, &systemDate), 0);
    EXPECT_NEAR(CVoGlobalHTTPCookieStoreImpl::GetCurrentSystemDate(), systemDate, 5 * kSecond);
}

// The rule of matching in its plainest form: lists of components, compared element by element.
std::vector<std::wstring> Components(std::wstring text, wchar_t separator, bool reversed)
{
    std::vector<std::wstring> parts;
    for (size_t end; (end = text.find(separator)) != std::wstring::npos; text.erase(0, end + 1))
        parts.push_back(text.substr(0, end));
    if (!text.empty())
        parts.push_back(text);
    if (reversed)
        std::reverse(parts.begin(), parts.end());
    return parts;
}
bool IsPrefix(const std::vector<std::wstring>& a, const std::vector<std::wstring>& b)
{
    return a.size() <= b.size() && std::equal(a.begin(), a.end(), b.begin());
}

TEST(CookieStore, AgreesWithAWalkOverAllCookies)
{
    std::mt19937 random(20230315);
    const auto pick = [&](std::vector<std::wstring> from) { return from[random() % from.size()]; };
    const auto host = [&]
    { return pick({ L"", L"a.", L"b.a.", L"xa." }) + pick({ L"c.example", L"d.example", L"c.d.example" }); };
    const auto path = [&]
    { return pick({ L"/", L"/p", L"/p/", L"/pq", L"/P" }) + pick({ L"", L"/x", L"//x/", L"/x/y", L"y" }); };
    for (int round = 0; round < 200; ++round)
    {
        CTestStore store;
        struct CKnown
        {
            std::wstring pair, domain, path;
            bool hostOnly, secure;
        };
        std::vector<CKnown> known;
        for (int i = 0; i < 30; ++i)
        {
            CKnown cookie{ L"n" + std::to_wstring(i) + L"=v", host(), path(), random() % 2 == 0, random() % 3 == 0 };
            ASSERT_EQ(store.Set(cookie.pair + L"; Path=" + cookie.path +
                                    (cookie.hostOnly ? L"" : L"; Domain=" + cookie.domain) +
                                    (cookie.secure ? L"; Secure" : L""),
                                L"http://" + cookie.domain),
                      S_OK);
            known.push_back(cookie);
        }
        std::stable_sort(known.begin(), known.end(),
                         [](const CKnown& a, const CKnown& b) { return a.path.size() > b.path.size(); });
        const bool secure = random() % 2 == 0;
        const std::wstring requestHost = host();
        const std::wstring requestPath = path();
        std::wstring expected;
        for (const CKnown& cookie : known)
        {
            const bool domainMatches =
                cookie.hostOnly ? cookie.domain == requestHost
                                : IsPrefix(Components(cookie.domain, L'.', true), Components(requestHost, L'.', true));
            if (domainMatches && (secure || !cookie.secure) &&
                IsPrefix(Components(cookie.path, L'/', false), Components(requestPath, L'/', false)))
                expected += (expected.empty() ? L"" : L"; ") + cookie.pair;
        }
        EXPECT_EQ(store.Get((secure ? L"https://" : L"http://") + requestHost + requestPath), expected);
    }
}

TEST(CookieStore, RandomTextNeitherCrashesNorPlantsControlCharacters)
{
    std::mt19937 random(6265);
    const std::wstring pieces[] = {
        L"n",       L"=",       L";",      L" ",       L"\t",     L"\r\n",     std::wstring(1, L'\0'),
        L"Expires", L"Domain",  L"Path",   L"Max-Age", L"Secure", L"/",        L".",
        L"host",    L"example", L"\xD83D", L"\xDE00",  L"\x7F",   L"12:00:00", L"1 Jan 2040",
        L"999",     L"-",       L"\"",     L"\x00FC",  L"$",      L"&"
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
}

TEST(CookieStore, MalformedContentLeavesTheStoreAlone)
{
    CTestStore store;
    Fill(store);
    const std::wstring before = store.Serialize();
    // A change to one cookie's text, as it stands inside the store's.
    const auto changed = [&](std::wstring_view from, std::wstring_view to)
    {
        std::wstring text = before;
        const size_t position = text.find(from);
        EXPECT_NE(position, std::wstring::npos);
        return position == std::wstring::npos ? L"?" : text.replace(position, from.size(), to);
    };
    const std::wstring table[] = {
        L"text",
        L"Cookie=",
        L"Cookie=text",
        L"Other=1",
        before + L"&x=y",
        changed(L"Cookie=", L"Biscuit="),
        changed(L"Name=s", L"Name="),
        changed(L"Name=s", L"Name=s;t"),
        changed(L"Name=s", L"Name=s\r\nX"),
        changed(L"Name=s", L"Nome=s"),
        changed(L"Value=1", L"Value=1; t=2"),
        changed(L"Path=/p", L"Path=p"),
        changed(L"Domain=a.b.example", L"Domain="),
        changed(L"Domain=a.b.example", L"Domain=A.b.example"),
        changed(L"Domain=b.example", L"Domain=example"),
        changed(L"Expiry=4", L"Expiry=x4"),
        changed(L"Expiry=4", L"Expiry=-4"),
        changed(L"Expiry=4", L"Expiry=nan4"),
        changed(L"Expiry=4", L"Expiry=9999999"),
        changed(L"Secure=", L"Secure=maybe"),
    };
    for (const std::wstring& data : table)
    {
        SCOPED_TRACE(testing::PrintToString(data.substr(0, 200)));
        EXPECT_TRUE(FAILED(store.Deserialize(data)));
        EXPECT_EQ(store.Serialize(), before);
    }
}

TEST(CookieStore, PropertiesCarryTheContentAsTextAndAsBytes)
{
    CTestStore store;
    Fill(store);
    CVoSafeArray tags;
    ASSERT_EQ(store->GetPropertyTags(tags.Put()), S_OK);
    const wchar_t* const expected[2][2] = { { L"CookieData", L"Content of global Cookie Store." },
                                            { L"CookieDataString", L"Content of global Cookie Store serialized as string." } };
    std::vector<std::wstring> texts;
    ASSERT_EQ(VoSafeArrayToStrings(tags.Get(), texts), S_OK);
    EXPECT_THAT(texts, testing::ElementsAre(expected[0][0], expected[0][1], expected[1][0], expected[1][1]));

    CVoVariant values[2];
    const VARTYPE types[2] = { VT_ARRAY | VT_UI1, VT_BSTR };
    for (size_t i = 0; i < 2; ++i)
    {
        const CVoBstr name(expected[i][0]);
        ASSERT_EQ(store->get_Properties(name.Get(), values[i].Put()), S_OK);
        EXPECT_EQ(values[i].Get().vt, types[i]);
        CTestStore copy;
        copy.now = store.now;
        EXPECT_EQ(copy->put_Properties(name.Get(), values[i].Get()), S_OK);
        EXPECT_EQ(copy.Serialize(), store.Serialize());
    }
    for (size_t i = 0; i < 2; ++i)
        EXPECT_EQ(store->put_Properties(CVoBstr(expected[i][0]).Get(), values[1 - i].Get()), DISP_E_TYPEMISMATCH);
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

TEST(CookieStore, ThreadsShareOneStore)
{
    CVoComPtr<IVoHTTPCookieStore> store;
    ASSERT_EQ(CreateGlobalHTTPCookieStoreForModule(store.Put()), S_OK);
    EXPECT_EQ(CreateGlobalHTTPCookieStoreForModule(nullptr), E_POINTER);
    constexpr int kRounds = 300;
    std::array<std::thread, 6> threads;
    for (size_t number = 0; number < threads.size(); ++number)
        threads[number] = std::thread(
            [&, number]
            {
                const std::wstring host = L"h" + std::to_wstring(number) + L".example";
                const CVoBstr url(L"http://" + host), common(L"http://common.example/");
                for (int round = 0; round < kRounds; ++round)
                {
                    const std::wstring own = L"n=" + std::to_wstring(round);
                    EXPECT_EQ(store->AddCookieFromString(CVoBstr(own).Get(), url.Get()), S_OK);
                    EXPECT_EQ(
                        store->AddCookieFromString(
                            CVoBstr(L"t" + std::to_wstring(number) + L"=v; Max-Age=" + std::to_wstring(round % 3 * 1000)).Get(),
                            common.Get()),
                        S_OK);
                    CVoBstr cookie, data;
                    EXPECT_EQ(store->GetCookieStringForHTTPRequest(url.Get(), VARIANT_FALSE, cookie.Put()), S_OK);
                    EXPECT_EQ(cookie.View(), own);
                    EXPECT_EQ(store->GetCookieStringForHTTPRequest(common.Get(), VARIANT_FALSE, cookie.Put()), S_OK);
                    EXPECT_EQ(round % 100 == 0 ? store->Serialize(data.Put()) : S_OK, S_OK);
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(store->Clear(), S_OK);
    CVoBstr data;
    EXPECT_EQ(store->Serialize(data.Put()), S_OK);
    EXPECT_TRUE(data.IsEmpty());
}
} // namespace
