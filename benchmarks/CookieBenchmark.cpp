// Measures the Cookie header of one request with few and with many cookies in the store, against one ordered map of all cookies
// that is walked for each request.
#include "Benchmark.h"

#include <VoGlobalHTTPCookieStoreImpl.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <tuple>
#include <vector>

namespace
{
constexpr size_t kCookiesPerDomain = 10;

std::wstring SetCookieValue(size_t number)
{
    return L"name" + std::to_wstring(number) + L"=value" + std::to_wstring(number) + L"; Path=/; Max-Age=3600";
}
std::wstring HostOf(size_t domain)
{
    return L"www.site" + std::to_wstring(domain) + L".example";
}

// Compares the labels and segments of each cookie with those of the request.
class CWalkedCookies
{
public:
    void Add(const std::wstring& value, const std::wstring& url)
    {
        CVoCookieRequest request;
        CVoCookieData cookie;
        if (FAILED(CVoCookieRequest::FromUrl(url, request)) ||
            FAILED(CVoCookieData::CreateCookieFromString(value, request, Now(), cookie)))
            std::abort();
        m_cookies[{ cookie.domain, cookie.path, cookie.name }] = cookie;
    }
    std::wstring Header(const std::wstring& url, bool secure)
    {
        CVoCookieRequest request;
        if (FAILED(CVoCookieRequest::FromUrl(url, request)))
            std::abort();
        const double now = Now();
        const std::vector<std::wstring> labels = Split(request.host, L'.', true);
        const std::vector<std::wstring> segments = Split(request.path, L'/', false);
        std::wstring header;
        for (auto entry = m_cookies.begin(); entry != m_cookies.end();)
        {
            const CVoCookieData& cookie = entry->second;
            if (cookie.IsExpired(now))
            {
                entry = m_cookies.erase(entry);
                continue;
            }
            const std::vector<std::wstring> cookieLabels = Split(cookie.domain, L'.', true);
            if ((!cookie.secure || secure) && IsPrefix(cookieLabels, labels) &&
                (!cookie.hostOnly || cookieLabels.size() == labels.size()) &&
                IsPrefix(Split(cookie.path, L'/', false), segments))
                header += (header.empty() ? L"" : L"; ") + cookie.name + L'=' + cookie.value;
            ++entry;
        }
        return header;
    }

private:
    static double Now() { return CVoGlobalHTTPCookieStoreImpl::GetCurrentSystemDate(); }
    static std::vector<std::wstring> Split(const std::wstring& text, wchar_t separator, bool reversed)
    {
        std::vector<std::wstring> parts;
        for (size_t begin = 0; begin < text.size();)
        {
            const size_t end = std::min(text.find(separator, begin), text.size());
            parts.push_back(text.substr(begin, end - begin));
            begin = end + 1;
        }
        if (reversed)
            std::reverse(parts.begin(), parts.end());
        return parts;
    }
    static bool IsPrefix(const std::vector<std::wstring>& a, const std::vector<std::wstring>& b)
    {
        return a.size() <= b.size() && std::equal(a.begin(), a.end(), b.begin());
    }

    std::map<std::tuple<std::wstring, std::wstring, std::wstring>, CVoCookieData> m_cookies;
};

void CompareHeaders(size_t count)
{
    CVoComPtr<IVoHTTPCookieStore> store;
    if (FAILED(CreateGlobalHTTPCookieStoreForModule(store.Put())))
        std::abort();
    CWalkedCookies walked;
    for (size_t i = 0; i < count; ++i)
    {
        const std::wstring url = L"https://" + HostOf(i / kCookiesPerDomain) + L"/";
        walked.Add(SetCookieValue(i), url);
        if (FAILED(store->AddCookieFromString(CVoBstr(SetCookieValue(i)).Get(), CVoBstr(url).Get())))
            std::abort();
    }

    const std::wstring url = L"https://" + HostOf(count / kCookiesPerDomain / 2) + L"/folder/request?x=1";
    const CVoBstr urlText(url);
    const auto header = [&]
    {
        CVoBstr cookie;
        if (FAILED(store->GetCookieStringForHTTPRequest(urlText.Get(), VARIANT_TRUE, cookie.Put())))
            std::abort();
        return cookie;
    };
    // Both must give the same header.
    if (header().View() != walked.Header(url, true) || header().IsEmpty())
        std::abort();
    Benchmark::Compare("Cookie header, " + std::to_string(count) + " cookies of " + std::to_string(count / kCookiesPerDomain) +
                           " domains",
                       { { "walk over one map of all cookies", [&] { Benchmark::Keep(walked.Header(url, true)); } },
                         { "GetCookieStringForHTTPRequest", [&] { Benchmark::Keep(header()); } } });
}

// A store into which 100,000 cookies of 10,000 domains go. It is full most of the time: each cookie then displaces another one.
void CompareManyCookies()
{
    constexpr size_t kMany = 100'000;
    double now = 40'000; // days
    const auto store = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>([&now] { return now; });
    const auto add = [&store](size_t number, const wchar_t* lifetime)
    {
        const std::wstring value = L"name" + std::to_wstring(number) + L"=value" + std::to_wstring(number) + lifetime;
        const std::wstring url = L"https://" + HostOf(number / kCookiesPerDomain) + L"/";
        if (FAILED(store->AddCookieFromString(CVoBstr(value).Get(), CVoBstr(url).Get())))
            std::abort();
    };
    for (size_t i = 0; i < kMany; ++i)
        add(i, L"; Path=/; Max-Age=3600");

    size_t number = 0;
    const auto parse = [&number]
    {
        number = (number + 1) % kMany;
        CVoCookieRequest request;
        CVoCookieData cookie;
        const std::wstring url = L"https://" + HostOf(number / kCookiesPerDomain) + L"/";
        if (FAILED(CVoCookieRequest::FromUrl(url, request)) ||
            FAILED(CVoCookieData::CreateCookieFromString(SetCookieValue(number), request, 40'000, cookie)))
            std::abort();
        Benchmark::Keep(cookie);
    };
    const auto addOne = [&]
    {
        number = (number + 1) % kMany;
        add(number, L"; Path=/; Max-Age=3600");
    };
    // Two cookies that displace others, and time enough for the first one to expire.
    const auto addAndExpire = [&]
    {
        number = (number + 1) % kMany;
        add(number, L"; Path=/; Max-Age=1");
        add(number, L"; Path=/folder; Max-Age=3600");
        now += 2.0 / 86'400;
    };
    const auto header = [&]
    {
        number = (number + 1) % kMany;
        CVoBstr cookie;
        const CVoBstr url(L"https://" + HostOf(number / kCookiesPerDomain) + L"/folder/request?x=1");
        if (FAILED(store->GetCookieStringForHTTPRequest(url.Get(), VARIANT_TRUE, cookie.Put())))
            std::abort();
    };
    Benchmark::Compare("Full store, 100,000 cookies of 10,000 domains went in",
                       { { "parse a cookie, without a store", parse },
                         { "add a cookie", addOne },
                         { "header", header },
                         { "add two cookies, one expires", addAndExpire } });
}

// The heap that a full store takes, beside the characters of its cookies.
void MeasureMemory(size_t valueLength)
{
    const size_t domains = kVoMaximumCookies / kCookiesPerDomain;
    const auto store = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>([] { return 40'000.0; });
    const size_t before = Benchmark::HeapUse().bytes;
    size_t characters = 0;
    for (size_t i = 0; i < domains * kCookiesPerDomain; ++i)
    {
        const std::wstring name = L"name" + std::to_wstring(i);
        const std::wstring host = HostOf(i / kCookiesPerDomain);
        characters += name.size() + valueLength + host.size() + 1;
        std::wstring cookie = name + L"=";
        cookie.append(valueLength, L'v').append(L"; Path=/; Max-Age=3600");
        if (FAILED(store->AddCookieFromString(CVoBstr(cookie).Get(), CVoBstr(L"https://" + host + L"/").Get())))
            std::abort();
    }
    const size_t bytes = Benchmark::HeapUse().bytes - before;
    Benchmark::Publish("Memory of a full store, values of " + std::to_string(valueLength) + " characters",
                       { { "the texts", { static_cast<double>(characters * sizeof(wchar_t)) } },
                         { "the store", { static_cast<double>(bytes) } } },
                       true);
}

const Benchmark::CGroup kCookies("cookies", []
{
    for (const size_t count : { size_t{ 10 }, size_t{ 300 }, size_t{ 3000 } })
        CompareHeaders(count);
    CompareManyCookies();
    for (const size_t valueLength : { size_t{ 10 }, size_t{ 100 } })
        MeasureMemory(valueLength);
});
} // namespace
