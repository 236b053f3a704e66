// Random inputs for what servers, proxies and users send to the HTTP layer: addresses, redirects, cookies, saved stores, proxy
// lists, headers and coded bodies. Where libcurl reads the same kind of text, it is the reference.
#include "Campaign.h"

#include <VoBodyReceiver.h>
#include <VoContentDecoder.h>
#include <VoContentLength.h>
#include <VoCookieBytes.h>
#include <VoCookieData.h>
#include <VoExchangeText.h>
#include <VoGlobalHTTPCookieStoreImpl.h>
#include <VoGlobalHTTPProxyStoreImpl.h>
#include <VoProxyList.h>
#include <VoRedirect.h>
#include <VoRetryAfter.h>
#include <VoServerAddress.h>
#include <VoUrl.h>
#include <base/VoText.h>
#include <base/VoTextConversion.h>
#include <support/Compress.h>
#include <support/HTTPSupport.h>

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <tuple>

namespace Stress
{
namespace
{
using TestSupport::CookiesFor;
using TestSupport::Serialized;

bool HasControls(std::wstring_view text)
{
    return std::any_of(text.begin(), text.end(), [](wchar_t c) { return c < 0x20 || c == 0x7F; });
}

// ---- addresses and redirects, with libcurl as the reference

class CCurlUrl
{
public:
    CCurlUrl() : m_url(::curl_url(), &::curl_url_cleanup) {}
    // A second call resolves a reference against the first, as libcurl does for a redirect.
    [[nodiscard]] bool Set(std::string_view url)
    {
        return ::curl_url_set(m_url.get(), CURLUPART_URL, std::string(url).c_str(), CURLU_URLENCODE | CURLU_ALLOW_SPACE) ==
               CURLUE_OK;
    }
    [[nodiscard]] std::string Get(CURLUPart part) const
    {
        char* text = nullptr;
        if (::curl_url_get(m_url.get(), part, &text, part == CURLUPART_PORT ? CURLU_DEFAULT_PORT : 0U) != CURLUE_OK)
            return {};
        const std::unique_ptr<char, decltype(&::curl_free)> owner(text, &::curl_free);
        return text;
    }

private:
    std::unique_ptr<CURLU, decltype(&::curl_url_cleanup)> m_url;
};

// "scheme host port" of both readers.
std::string Seen(const CServerAddressData& address)
{
    std::string host;
    Require(SUCCEEDED(VoStringToUTF8(VoWithoutLoneSurrogates(address.Host()), host)), "a host without UTF-8");
    return (address.IsSecure() ? "https " : "http ") + host + ' ' + std::to_string(address.EffectivePort());
}
std::string Seen(const CCurlUrl& url)
{
    std::string host = url.Get(CURLUPART_HOST);
    if (host.starts_with('['))
        host = host.substr(1, host.size() - 2);
    return url.Get(CURLUPART_SCHEME) + ' ' + host + ' ' + url.Get(CURLUPART_PORT);
}

// libcurl writes an address in its usual form.
bool IsNumber(const CServerAddressData& address)
{
    return address.Host().find_first_not_of(L"0123456789abcdefABCDEFxX.:") == std::wstring::npos;
}

void Addresses(std::wstring_view input)
{
    for (const bool secure : { false, true })
    {
        CServerAddressData address;
        const HRESULT hr = address.SetAddress(Guarded(input), secure, true, true);
        if (FAILED(hr))
        {
            Require(hr == E_INVALIDARG && address.FullURL().empty() && address.Host().empty(),
                    "a refused address left something");
            continue;
        }
        Require(!address.Host().empty() && !HasControls(address.FullURL()), "no host, or a control character");
        Require(address.Authority().find_first_of(L"@/?# \\\"") == std::wstring::npos, "a host with what no host has");
        Require(address.FullURL() == address.BaseURL() + address.ObjectName(), "the texts disagree");
        // A blank in front of a fragment stays at the end of the URL, and would be lost there.
        if (VoTrim(address.FullURL()) != address.FullURL())
            continue;
        CServerAddressData again;
        Require(SUCCEEDED(again.SetAddress(Guarded(address.FullURL()), !secure, true, true)) &&
                    again.FullURL() == address.FullURL() && Seen(again) == Seen(address) && again.Path() == address.Path() &&
                    again.Query() == address.Query(),
                "the URL does not read back");
        // A query without a path is no object path.
        Require(address.ObjectName().starts_with(L'?') ||
                    (SUCCEEDED(again.SetObjectPath(address.ObjectName())) && again.FullURL() == address.FullURL()),
                "the object path does not read back");
        std::string bytes;
        Require(FAILED(VoUrlToBytes(address.FullURL(), bytes)) ||
                    std::all_of(bytes.begin(), bytes.end(), [](char c) { return c > 0x20 && c < 0x7F; }),
                "a URL goes out with characters that no URL has");
        if (CCurlUrl url; SUCCEEDED(VoUrlToBytes(address.FullURL(), bytes)) && url.Set(bytes) &&
                          address.Host().find(L'%') == std::wstring::npos && !IsNumber(address))
            Require(Seen(url) == Seen(address), "libcurl would go to another host");
    }
}

void Redirects(std::wstring_view input)
{
    for (const wchar_t* const from : { L"https://host.test:81/p/d/e?z=1", L"http://10.0.0.1", L"http://[::1]:8/a/" })
    {
        CServerAddressData base;
        CServerAddressData target;
        Require(SUCCEEDED(base.SetAddress(from, false, true, true)), "the base is refused");
        if (FAILED(VoResolveRedirect(base, Guarded(input), target)))
        {
            Require(target.FullURL().empty(), "a refused redirect left something");
            continue;
        }
        // What two readers could take for different hosts is refused.
        Require(!HasControls(VoTrimBlanks(input)) && !HasControls(target.FullURL()), "a control character was followed");
        Require(target.Path().find(L'\\') == std::wstring::npos, "a backslash was followed");
        Require(std::all_of(target.Host().begin(), target.Host().end(), [](wchar_t c)
        { return c < 0x80 && (std::isalnum(c) || std::wstring_view(L"-._~:").find(c) != std::wstring_view::npos); }),
                "a host of unusual characters was followed");
        // A bare path stays where it is; everything else goes where libcurl goes.
        std::string location;
        CCurlUrl url;
        if (FAILED(VoUrlToBytes(VoTrimBlanks(input), location)) || !url.Set(Bytes(from)) || !url.Set(location))
            continue;
        Require(Seen(url) == Seen(target) || IsNumber(target), "libcurl would go to another host");
        const bool isSimple = std::all_of(location.begin(), location.end(), [](char c)
        { return std::isalnum(static_cast<BYTE>(c)) || std::string_view("/._-:").find(c) != std::string_view::npos; });
        // libcurl takes "./" and empty segments together in its own way.
        if (isSimple && location.find("//", location.starts_with("http") ? 7 : 0) == std::string::npos)
            Require(Bytes(target.Path()) == url.Get(CURLUPART_PATH) || target.Path().empty(), "another path than libcurl's");
    }
}

void HiddenUrls(std::wstring_view input)
{
    const std::wstring shown = VoHideQuery(Guarded(input));
    const size_t query = shown.find(L'?');
    CCurlUrl url;
    if (std::all_of(input.begin(), input.end(), [](wchar_t c) { return c > 0x20 && c < 0x7F; }) && url.Set(Bytes(input)))
    {
        // What stays of "http:/\\u@h" is no URL: libcurl takes the backslash for a part of the user information.
        CCurlUrl again;
        if (again.Set(Bytes(shown.substr(0, query))))
        {
            Require(again.Get(CURLUPART_USER).empty() && again.Get(CURLUPART_PASSWORD).empty(), "credentials are shown");
            Require(again.Get(CURLUPART_HOST) == url.Get(CURLUPART_HOST), "another host");
        }
    }
    Require(query == std::wstring::npos || (shown[query + 1] == L'<' && shown.ends_with(L" characters>")),
            "the query is shown");
    const std::wstring proxy = VoHideProxyUser(Guarded(input));
    Require(proxy.find(L'@') == std::wstring::npos, "a proxy's credentials are shown");
}

// ---- cookies and stores

constexpr double kNow = 45000.5;

CVoComPtr<CVoGlobalHTTPCookieStoreImpl> MakeCookieStore()
{
    return VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>([] { return kNow; });
}

void Cookies(std::wstring_view input)
{
    static const auto store = MakeCookieStore();
    static const auto other = MakeCookieStore();
    (void)store->Clear();
    constexpr const wchar_t* kUrl = L"https://www.example.com/a/b";
    const bool isPlain = input.size() % 4 == 1; // set over plain HTTP
    const HRESULT hr =
        store->AddCookieFromString(CVoBstr(input).Get(), CVoBstr(isPlain ? L"http://www.example.com/a/b" : kUrl).Get());
    if (FAILED(hr))
    {
        Require(hr == E_INVALIDARG && Serialized(*store.Get()).empty(), "a refused cookie left something");
        return;
    }
    // The pair and the attributes by the letter of RFC 6265, section 5.2.
    const std::wstring_view pair = input.substr(0, input.find(L';'));
    const size_t equals = pair.find(L'=');
    Require(equals != std::wstring_view::npos && !VoTrimBlanks(pair.substr(0, equals)).empty(), "a cookie without a name");
    const std::wstring expected =
        std::wstring(VoTrimBlanks(pair.substr(0, equals))) + L'=' + std::wstring(VoTrimBlanks(pair.substr(equals + 1)));
    bool isSecure = false;
    bool hasDomain = false;
    std::wstring domain;
    std::wstring path;
    for (std::wstring_view rest = input.substr(pair.size()); !rest.empty();)
    {
        rest.remove_prefix(1);
        const std::wstring_view attribute = rest.substr(0, rest.find(L';'));
        rest.remove_prefix(attribute.size());
        const std::wstring_view name = VoTrimBlanks(attribute.substr(0, attribute.find(L'=')));
        isSecure = isSecure || VoEqualsNoCase(name, L"Secure");
        const std::wstring_view value =
            VoTrimBlanks(attribute.substr(std::min(attribute.find(L'='), attribute.size() - 1) + 1));
        hasDomain = hasDomain || VoEqualsNoCase(name, L"Domain");
        if (VoEqualsNoCase(name, L"Domain") && !value.empty())
            domain = value;
        if (VoEqualsNoCase(name, L"Path") && VoCookieByteLength(value) <= kVoMaximumCookieAttributeBytes)
            path = value;
    }
    std::wstring bare = domain.starts_with(L'.') ? domain.substr(1) : domain;
    // Other characters have their form in the DNS; a soft hyphen has none.
    std::array<wchar_t, MAX_PATH> ascii{};
    if (::IdnToAscii(0, bare.c_str(), -1, ascii.data(), MAX_PATH) > 0)
        bare = ascii.data();
    Require(bare.empty() || VoEqualsNoCase(bare, L"www.example.com") || VoEqualsNoCase(bare, L"example.com"),
            "a cookie for another domain was taken");
    Require(CookiesFor(*store.Get(), L"https://www.example.com/ab").empty() || path == L"/" || path == L"/ab",
            "a path covers more than whole segments");
    Require(!isPlain || !isSecure, "a secure cookie was taken over plain HTTP");
    Require(std::none_of(input.begin(), input.end(), [](wchar_t c) { return (c < 0x20 && c != L'\t') || c == 0x7F; }) &&
                !HasControls(path),
            "control characters were taken");
    std::wstring atHome;
    for (const wchar_t* const url :
         { kUrl, L"https://www.example.com/", L"https://www.example.com/a/b/c/d", L"https://www.example.com/x" })
    {
        const std::wstring sent = CookiesFor(*store.Get(), url);
        Require(sent.empty() || sent == expected, "another cookie is sent than was set");
        Require(!HasControls(sent), "a control character is sent");
        atHome += sent;
    }
    for (const wchar_t* const url : { L"https://example.org/a/b", L"https://www.example.com.evil.test/a/b",
                                      L"https://evilexample.com/a/b", L"https://com/a/b", L"https://xwww.example.com/a/b" })
        Require(CookiesFor(*store.Get(), url).empty() ||
                    (hasDomain && std::wstring_view(url).find(L".example.com/") != std::wstring::npos),
                "a cookie leaves its site");
    Require(hasDomain || CookiesFor(*store.Get(), L"https://sub.www.example.com/a/b").empty(),
            "a host's cookie goes to another host");
    Require(!isSecure || CookiesFor(*store.Get(), L"http://www.example.com/a/b").empty(),
            "a secure cookie goes over plain HTTP");
    const std::wstring saved = Serialized(*store.Get());
    Require(SUCCEEDED(other->Deserialize(CVoBstr(saved).Get())) && Serialized(*other.Get()) == saved,
            "the store does not read back");
    for (const wchar_t* const url : { kUrl, L"https://example.com/", L"http://www.example.com/a/b" })
        Require(CookiesFor(*other.Get(), url) == CookiesFor(*store.Get(), url), "a saved cookie is another one");
    // The header's bytes and back.
    Require(VoCookieTextFromBytes(VoCookieBytesFromText(atHome)) == VoCookieTextFromBytes(VoCookieBytesFromText(atHome)) &&
                VoCookieByteLength(atHome) == VoCookieBytesFromText(atHome).size(),
            "a wrong length in bytes");
}

void CookieBytes(std::wstring_view input)
{
    const std::string bytes = Bytes(input);
    const std::wstring text = VoCookieTextFromBytes(Guarded(bytes));
    Require(ReferenceToUtf8(text).has_value(), "the text is not well formed");
    Require(VoCookieBytesFromText(Guarded(text)) == bytes && VoCookieByteLength(Guarded(text)) == bytes.size(),
            "the bytes do not come back");
    const std::optional<std::wstring> utf8 = ReferenceFromUtf8(bytes);
    const bool isPrivate =
        utf8 && std::any_of(utf8->begin(), utf8->end(), [](wchar_t c) { return c >= 0xF780 && c <= 0xF7FF; });
    Require(!utf8 || isPrivate || text == utf8, "UTF-8 is not read as such");
}

void SavedCookies(std::wstring_view input)
{
    static const auto store = MakeCookieStore();
    static const auto other = MakeCookieStore();
    (void)store->Clear();
    (void)store->AddCookieFromString(CVoBstr(L"old=1").Get(), CVoBstr(L"https://h.test/").Get());
    const std::wstring before = Serialized(*store.Get());
    const HRESULT hr = store->Deserialize(CVoBstr(input).Get());
    const std::wstring saved = Serialized(*store.Get());
    Require(SUCCEEDED(hr) || saved == before, "a refused text changed the store");
    Require(SUCCEEDED(other->Deserialize(CVoBstr(saved).Get())) && Serialized(*other.Get()) == saved,
            "the store does not read back");
    Require(!HasControls(CookiesFor(*store.Get(), L"https://h.test/")), "a saved cookie sends a control character");
}

void SavedProxies(std::wstring_view input)
{
    static const auto store = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
    static const auto other = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
    (void)store->Clear();
    CHTTPProxyConfigData config;
    config.manualProxy = L"old:1";
    Require(SUCCEEDED(store->Init(config)), "the store cannot be set");
    const std::wstring before = Serialized(*store.Get());
    const HRESULT hr = store->Deserialize(CVoBstr(input).Get());
    const std::wstring saved = Serialized(*store.Get());
    Require(SUCCEEDED(hr) || saved == before, "a refused text changed the store");
    // The cache has no order.
    Require(SUCCEEDED(other->Deserialize(CVoBstr(saved).Get())) && Serialized(*other.Get()).size() == saved.size(),
            "the store does not read back");
}

// ---- proxies

void ProxyLists(std::wstring_view input)
{
    const VoProxyList::CContent content = VoProxyList::Read(Guarded(input));
    const VoProxyList::CContent usable = VoProxyList::Read(Guarded(content.usable));
    Require(usable.unusable.empty() && usable.usable == content.usable, "the usable part has unusable entries");
    for (const bool secure : { false, true })
    {
        const std::wstring& proxy = secure ? content.secure : content.plain;
        Require((secure ? usable.secure : usable.plain) == proxy && VoProxyList::ProxyForScheme(input, secure) == proxy,
                "another proxy");
        CServerAddressData address;
        Require(proxy.empty() || (SUCCEEDED(address.SetAddress(proxy, false, true, true)) && address.ObjectName().empty() &&
                                  proxy == address.Authority() + (address.Port() == 0 ? L":80" : L"")),
                "the proxy is no host and port");
    }
    const bool isOneEntry = !input.empty() && input.find_first_of(L"; \t\r\n=") == std::wstring_view::npos;
    Require(!isOneEntry || input.find_first_of(L"?#,+") == std::wstring_view::npos || content.unusable.size() == 1,
            "an entry with more than a host and a port is usable");
    const bool isGood = content.unusable.empty() && !(content.plain.empty() && content.secure.empty());
    Require(VoProxyList::FindProblem(input).has_value() == (!isGood && !input.empty()), "a problem is not told");
    const std::wstring only = VoProxyList::OnlyProxy(input);
    Require(only.empty() || only == content.plain || only == content.secure, "the only proxy is none of the list");
}

// NOLINTNEXTLINE(misc-no-recursion): the pattern's length bounds it
bool MatchesSlowly(std::wstring_view pattern, std::wstring_view text)
{
    if (pattern.empty())
        return text.empty();
    if (pattern[0] == L'*')
        return MatchesSlowly(pattern.substr(1), text) || (!text.empty() && MatchesSlowly(pattern, text.substr(1)));
    return !text.empty() && VoEqualsNoCase(pattern.substr(0, 1), text.substr(0, 1)) &&
           MatchesSlowly(pattern.substr(1), text.substr(1));
}

void BypassLists(std::wstring_view input)
{
    if (input.size() > 60 || std::count(input.begin(), input.end(), L'*') > 6)
        return; // the reference is slow
    for (const wchar_t* const host : { L"www.example.com", L"host", L"10.1.2.3", L"::1" })
    {
        const std::wstring_view name(host);
        bool expected = name.find_first_of(L".:") == std::wstring_view::npos && VoContainsNoCase(input, L"<local>");
        size_t items = 0;
        for (size_t at = 0; at < input.size();)
        {
            const size_t end = std::min(input.find_first_of(L"\t ,;", at), input.size());
            std::wstring_view item = input.substr(at, end - at);
            at = end + 1;
            items += !item.empty();
            if (item.size() > 1 && item.front() == L'[' && item.back() == L']')
                item = item.substr(1, item.size() - 2);
            else if (item.empty())
                continue;
            expected = expected || MatchesSlowly(item, name);
        }
        Require(VoProxyList::IsBypassed(Guarded(input), name) == expected, "the reference decides otherwise");
        const bool isStar = items == 1 && std::wstring(input).find_first_not_of(L"\t ,;*") == std::wstring::npos &&
                            std::count(input.begin(), input.end(), L'*') == 1;
        Require(VoProxyList::BypassesAll(Guarded(input)) == isStar, "a list is \"*\" alone");
    }
}

// ---- responses

void Headers(std::wstring_view input)
{
    std::wstring statusLine;
    std::vector<CVoHTTPHeader> headers;
    VoSplitHeader(Guarded(input), statusLine, headers);
    std::wstring joined = statusLine + L"\r\n";
    for (const CVoHTTPHeader& header : headers)
    {
        Require(header.name.find_first_of(L":\n") == std::wstring::npos && header.value.find(L'\n') == std::wstring::npos,
                "a field has two lines");
        joined += header.name + L": " + header.value + L"\r\n";
    }
    std::wstring statusAgain;
    std::vector<CVoHTTPHeader> again;
    VoSplitHeader(Guarded(joined), statusAgain, again);
    const bool isEqual = std::equal(headers.begin(), headers.end(), again.begin(), again.end(), [](const auto& a, const auto& b)
    { return a.name == b.name && VoTrimBlanks(a.value) == b.value; });
    Require(isEqual && statusAgain == statusLine, "the header does not read back");
    (void)VoStatusCode(statusLine);
    for (const std::wstring& scheme : VoChallengeSchemes(headers))
        Require(!scheme.empty() && scheme.find_first_of(L" \t,=\"") == std::wstring::npos, "a scheme is no token");
    std::vector<CVoHTTPHeader> shown = headers;
    VoHideSecrets(shown);
    for (size_t i = 0; i < shown.size(); ++i)
    {
        const std::wstring& value = headers[i].value;
        if (VoEqualsNoCase(headers[i].name, L"Authorization") || VoEqualsNoCase(headers[i].name, L"Cookie"))
            Require(shown[i].value == L"<hidden>", "a secret is shown");
        if (VoEqualsNoCase(headers[i].name, L"Set-Cookie"))
        {
            const std::wstring pair = value.substr(0, value.find(L';'));
            const std::wstring secret = pair.substr(std::min(pair.find(L'='), pair.size()));
            Require(secret.size() < 4 || shown[i].value.substr(0, pair.size()).find(secret) == std::wstring::npos,
                    "a cookie's value is shown");
        }
    }
}

void ContentLengths(std::wstring_view input)
{
    CVoContentLength length;
    std::optional<std::wstring> first;
    bool isValid = true;
    for (size_t at = 0; at <= input.size();)
    {
        const size_t end = std::min(input.find(L'|', at), input.size());
        length.Add(Guarded(input.substr(at, end - at)));
        for (size_t begin = at; begin <= end;)
        {
            const size_t comma = std::min(input.find(L',', begin), end);
            std::wstring digits(VoTrim(input.substr(begin, comma - begin)));
            begin = comma + 1;
            isValid = isValid && !digits.empty() && digits.find_first_not_of(L"0123456789") == std::wstring::npos;
            digits.erase(0, std::min(digits.find_first_not_of(L'0'), digits.size()));
            isValid = isValid && (digits.size() < 20 || (digits.size() == 20 && digits <= L"18446744073709551615"));
            isValid = isValid && (!first || *first == digits);
            first = digits;
        }
        at = end + 1;
    }
    Require(length.IsInvalid() == !isValid && length.Get().has_value() == isValid, "the reference decides otherwise");
    Require(!isValid || std::to_wstring(*length.Get()) == (first->empty() ? L"0" : *first), "another length");

    const std::optional<INT64> pause = VoParseRetryAfter(Guarded(input), kNow);
    Require(!pause || (*pause >= 0 && *pause <= INT64{ MAXDWORD } * 1000), "a pause out of range");
    const std::optional<UINT32> seconds = VoParseDecimal<UINT32>(VoTrim(input));
    Require(!seconds || *seconds > MAXDWORD / 1000 || pause == INT64{ *seconds } * 1'000'000, "another pause");
}

// What a decoder makes of a stream that comes in pieces.
std::tuple<HRESULT, HRESULT, std::string> Decoded(const wchar_t* coding, std::string_view bytes, size_t piece)
{
    std::unique_ptr<CVoContentDecoder> decoder;
    Require(SUCCEEDED(CVoContentDecoder::Make(coding, decoder)) && decoder, "no decoder");
    constexpr UINT64 kLimit = 1 << 16;
    CVoBodyReceiver body(kLimit);
    HRESULT hr = S_OK;
    for (; !bytes.empty() && SUCCEEDED(hr); bytes.remove_prefix(std::min(piece, bytes.size())))
    {
        const std::string_view next = Guarded(bytes.substr(0, piece));
        hr = decoder->Decode({ reinterpret_cast<const BYTE*>(next.data()), next.size() },
                             [&](std::span<const BYTE> decoded) { return body.Take(decoded); });
    }
    const std::span<const BYTE> decoded = body.Bytes();
    Require(decoded.size() <= kLimit, "the limit is passed");
    return { hr, SUCCEEDED(hr) ? decoder->Finish() : hr,
             SUCCEEDED(hr) ? std::string(decoded.begin(), decoded.end()) : std::string() };
}

void ContentCodings(std::wstring_view input)
{
    const std::string bytes = Bytes(input);
    const size_t piece = 1 + bytes.size() % 7;
    using TestSupport::ECompression;
    for (const auto& [coding, format] : { std::pair(L"gzip", ECompression::Gzip), std::pair(L"deflate", ECompression::Zlib),
                                          std::pair(L"deflate", ECompression::Bare) })
        Require(Decoded(coding, TestSupport::Compress(bytes, format), piece) == std::tuple(S_OK, S_OK, bytes),
                "a coded body differs");
    const std::string whole = TestSupport::Compress(bytes, ECompression::Gzip);
    const std::string twice = TestSupport::Compress(TestSupport::Compress(bytes, ECompression::Zlib), ECompression::Gzip);
    Require(Decoded(L"X-GZIP , identity", whole + whole, piece) == std::tuple(S_OK, S_OK, bytes + bytes),
            "two streams, one behind the other, differ");
    Require(Decoded(L"deflate, gzip, chunked", twice, piece) == std::tuple(S_OK, S_OK, bytes), "two codings differ");
    const size_t length = 1 + (piece * 7919) % (whole.size() - 1);
    std::string damaged = whole;
    damaged[length] = static_cast<char>(damaged[length] ^ 1);
    for (const std::string& bad : { whole.substr(0, length), whole.substr(0, whole.size() - 1), whole + "x" })
        Require(FAILED(std::get<1>(Decoded(L"gzip", bad, piece))), "a stream that is cut off, or has more behind it, is whole");
    // Not every bit of a stream counts; its checksum holds the text.
    const auto [decoding, ending, text] = Decoded(L"gzip", damaged, piece);
    Require(FAILED(decoding) || FAILED(ending) || text == bytes, "a damaged stream gives another text");
    for (const wchar_t* const coding : { L"gzip", L"deflate", L"gzip, deflate" })
        Require(Decoded(coding, bytes, piece) == Decoded(coding, bytes, std::max<size_t>(bytes.size(), 1)),
                "the pieces decide the result");
}

const std::wstring kGzip = Units(TestSupport::Compress("hello hello hello", TestSupport::ECompression::Gzip));
const std::wstring kZlib = Units(TestSupport::Compress(std::string(3000, 'a'), TestSupport::ECompression::Zlib));

// clang-format off
const CCampaigns kHttpCampaigns({
    { "addresses",
      &Addresses,
      { L"[::\u2074]", L"https://host.test:8080/p/a?q=1#f", L"host", L"[::1]:80/x", L"http://user:pw@h/", L" HTTP://H:0080/ ", L"a?b://c",
        L"[fe80::1%25eth0]" },
      L"/:?#[]@ \\%.\t\u00FC\u3002hp0",
      2 },
    { "redirects",
      &Redirects,
      { L"http://a.test/x", L"//b/y?z", L"../../up", L"?q", L"/abs/./x/../y", L"https://a@b/", L"http:\\\\a", L"x/y;z",
        L"http://[::2]:9/q" },
      L"/:?#[]@ \\%.\t\u00FC\u3002ahtp",
      4 },
    { "hidden_urls",
      &HiddenUrls,
      { L"https://user:s3cret@h/p?token=1", L"http://h/a?b#c", L"user:pw@proxy:80", L"//u@h", L"a/\\u:p@h" },
      L"/:?#@\\.<>uh" },
    { "cookies",
      &Cookies,
      { L"a=b", L"sid=x; Path=/a; Secure; HttpOnly", L"n=v; Domain=example.com; Max-Age=100", L"__Host-a=1; Secure; Path=/",
        L"q=1; Expires=Wed, 09 Jun 2100 10:18:14 GMT", L"c=d; domain=.COM", L"k=\"quoted; text\"", L"a=b; path=/; max-age=0", L"t=u; Path=/a\tb" },
      L"=; \t,\".aDPms/-0\x01\u00E9",
      4 },
    { "cookie_bytes", &CookieBytes, { L"plain", L"\u00C3\u00BC\u00EF\u009E\u0080", L"\u00EE\u009F\u00BF\u00F0\u009F\u0098\u0080" }, L"a\x80\u00EF\u009D\u009E\u009F\u00BF\u00C3\u00F0", 1, true },
    { "saved_cookies", &SavedCookies, { L"", L"Cookie=Domain=h.test$&Path=/" L"$&Name=a$&Value=b$&Secure=False$&HttpOnly=False$&HasExpiry=False$&Expiry=0$&Expired=False$&HostOnly=True" }, L"=&$/.aT01\x01", 4 },
    { "saved_proxies", &SavedProxies, { L"", L"Config=ManualProxy=p:1$&ManualProxyBypassList=$&PACFileURL=$&AutoDetectPACFileUrl=False&Cache=" }, L"=&$:.aT01;", 8 },
    { "proxy_lists",
      &ProxyLists,
      { L"proxy:8080", L"http=a:1;https=b:2", L"socks=s:1 http://h/", L"ftp=x; = y:3", L"[::1]:8" },
      L";:=/ \t.,?#[]@hs1",
      2 },
    { "bypass_lists", &BypassLists, { L"<local>;*.example.com", L"10.*", L"*", L"[::1] host", L"w*w.*.c*m" }, L"*;, \t.[]:wex1<" },
    { "headers",
      &Headers,
      { L"HTTP/1.1 200 OK\r\nA: b\r\n c\r\nSet-Cookie: n=secret; Path=/\r\nAuthorization: Basic QQ==\r\n",
        L"HTTP/1.1 401 \r\nWWW-Authenticate: Negotiate, Basic realm=\"a, b\", Digest nonce=1\r\n\r\n",
        L"x\nLocation: http://u:p@h/?q\n" },
      L":\r\n \t,=\"\\ab" },
    { "content_lengths", &ContentLengths, { L"3", L"3, 3|3", L"18446744073709551615", L"99999999999999999999", L"120|Fri, 31 Dec 2099 23:59:59 GMT" }, L"0123456789,| +-" },
    { "content_codings", &ContentCodings, { L"text", kGzip, kZlib, kGzip + kGzip, kGzip + L"junk" }, L"\x1F\u008B\x08\0\u00FFa", 8, true },
});
// clang-format on
} // namespace
} // namespace Stress
