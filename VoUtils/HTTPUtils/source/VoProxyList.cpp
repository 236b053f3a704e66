// Reads proxy lists and bypass lists (VoProxyList.h).
#include <VoProxyList.h>

#include <VoServerAddress.h>

#include <base/VoText.h>

#include <algorithm>
#include <new>

namespace VoProxyList
{
namespace
{
constexpr std::wstring_view kWhiteSpace = L" \t\r\n";
constexpr std::wstring_view kEntrySeparators = L"; \t\r\n";
constexpr std::wstring_view kItemSeparators = L"\t ,;";
constexpr std::wstring_view kLocalHosts = L"<local>";
constexpr std::wstring_view kDefaultPort = L":80";

constexpr const wchar_t* kMalformed = L"it is malformed";
constexpr const wchar_t* kOtherProtocol = L"the proxy speaks another protocol than HTTP";
constexpr const wchar_t* kNoProxy = L"the list has no proxy for http or https";

void SkipAny(std::wstring_view& text, std::wstring_view characters) noexcept
{
    text.remove_prefix(std::min(text.find_first_not_of(characters), text.size()));
}

// Cuts the next item off the front of a text; empty when there is none left.
std::wstring_view TakeItem(std::wstring_view& text, std::wstring_view separators) noexcept
{
    SkipAny(text, separators);
    const std::wstring_view item = text.substr(0, text.find_first_of(separators));
    text.remove_prefix(item.size());
    return item;
}

// One entry of a proxy list. The views point into the list.
struct CEntry
{
    std::wstring_view proxy;
    bool hasScheme = false;
    std::wstring_view scheme;

    [[nodiscard]] bool Serves(bool secure) const noexcept
    {
        return !hasScheme || VoEqualsNoCase(scheme, secure ? L"https" : L"http");
    }
};

// Cuts the next entry off the front of a list; nothing when there is none left.
std::optional<CEntry> TakeEntry(std::wstring_view& list) noexcept
{
    const std::wstring_view first = TakeItem(list, kEntrySeparators);
    if (first.empty())
        return std::nullopt;
    CEntry entry{ first, false, {} };
    if (const size_t equals = first.find(L'='); equals != std::wstring_view::npos)
        entry = { first.substr(equals + 1), true, first.substr(0, equals) };
    else
    {
        // White space before the "="?
        std::wstring_view rest = list;
        SkipAny(rest, kWhiteSpace);
        if (!rest.starts_with(L'='))
            return entry;
        rest.remove_prefix(1);
        entry = { rest.substr(0, rest.find_first_of(kEntrySeparators)), true, first };
        list = rest.substr(entry.proxy.size());
    }
    if (entry.proxy.empty())
    {
        // White space behind the "="?
        SkipAny(list, kWhiteSpace);
        entry.proxy = list.substr(0, list.find_first_of(kEntrySeparators));
        list.remove_prefix(entry.proxy.size());
    }
    return entry;
}

// The port of "host:port"; nothing when there is none.
std::optional<std::wstring_view> PortOf(std::wstring_view proxy) noexcept
{
    const size_t colon = proxy.find(L':', proxy.starts_with(L'[') ? std::min(proxy.find(L']'), proxy.size()) : 0);
    return colon == std::wstring_view::npos ? std::nullopt : std::optional(proxy.substr(colon + 1));
}

// The proxy of an entry as "host:port". Empty for an unusable one, with the reason.
std::wstring NameOfProxy(std::wstring_view proxy, const wchar_t*& reason)
{
    constexpr std::wstring_view kPrefixEnd = L"://";
    if (const size_t end = proxy.find(kPrefixEnd); end != std::wstring_view::npos)
    {
        if (!VoEqualsNoCase(proxy.substr(0, end), L"http"))
        {
            reason = kOtherProtocol;
            return {};
        }
        proxy.remove_prefix(end + kPrefixEnd.size());
    }
    reason = kMalformed;
    if (proxy.ends_with(L'/'))
        proxy.remove_suffix(1);
    // A path, a query or a fragment is no part of an entry, and a comma does not separate entries.
    if (proxy.find_first_of(L"/?#,=+") != std::wstring_view::npos)
        return {};
    if (const auto port = PortOf(proxy); port && VoParseDecimal<UINT16>(*port) == UINT16{ 0 })
        return {};
    // Read as an address of plain HTTP: its default port is that of the proxies too.
    CServerAddressData address;
    const HRESULT hr = address.SetAddress(proxy, false, false, false);
    if (hr == E_OUTOFMEMORY)
        throw std::bad_alloc(); // says nothing about the entry
    if (FAILED(hr))
        return {};
    std::wstring name = address.Authority();
    if (address.Port() == 0)
        name += kDefaultPort;
    reason = nullptr;
    return name;
}

// Whether a text matches a pattern in which "*" stands for any characters. A star takes no character first, and one more each
// time that the pattern behind it does not match. Only the last star needs to take more. The time is linear for usual patterns,
// and the product of the lengths at worst.
bool Matches(std::wstring_view pattern, std::wstring_view text) noexcept
{
    size_t inPattern = 0;
    size_t inText = 0;
    size_t afterStar = std::wstring_view::npos;
    size_t takenByStar = 0;
    while (inText < text.size())
    {
        if (inPattern < pattern.size() && pattern[inPattern] == L'*')
        {
            afterStar = ++inPattern;
            takenByStar = inText;
        }
        else if (inPattern < pattern.size() && VoEqualsNoCase(pattern.substr(inPattern, 1), text.substr(inText, 1)))
        {
            ++inPattern;
            ++inText;
        }
        else if (afterStar != std::wstring_view::npos)
        {
            inPattern = afterStar;
            inText = ++takenByStar;
        }
        else
            return false;
    }
    return pattern.find_first_not_of(L'*', inPattern) == std::wstring_view::npos;
}

// An IPv6 address has no dot either, but is no name.
bool IsLocalName(std::wstring_view host) noexcept
{
    return host.find_first_of(L".:") == std::wstring_view::npos;
}
} // namespace

CContent Read(std::wstring_view list)
{
    CContent content;
    size_t number = 0;
    while (const std::optional<CEntry> entry = TakeEntry(list))
    {
        ++number;
        const wchar_t* reason = nullptr;
        if (entry->Serves(false) || entry->Serves(true))
        {
            const std::wstring name = NameOfProxy(entry->proxy, reason);
            for (const bool secure : { false, true })
                if (std::wstring& found = secure ? content.secure : content.plain; found.empty() && entry->Serves(secure))
                    found = name;
        }
        else if (entry->scheme.empty())
            reason = kMalformed;
        else if (VoEqualsNoCase(entry->scheme, L"socks"))
            reason = kOtherProtocol;

        if (reason)
        {
            content.unusable.push_back({ number, reason });
            continue;
        }
        if (!content.usable.empty())
            content.usable += L';';
        if (entry->hasScheme)
            content.usable.append(entry->scheme) += L'=';
        content.usable += entry->proxy;
    }
    return content;
}

std::wstring ProxyForScheme(std::wstring_view list, bool secure)
{
    CContent content = Read(list);
    return std::move(secure ? content.secure : content.plain);
}

std::wstring OnlyProxy(std::wstring_view list)
{
    CContent content = Read(list);
    if (content.plain.empty())
        return std::move(content.secure);
    const bool isOnly = content.secure.empty() || VoEqualsNoCase(content.plain, content.secure);
    return isOnly ? std::move(content.plain) : std::wstring();
}

std::optional<CUnusableEntry> FindProblem(std::wstring_view list)
{
    if (list.empty())
        return std::nullopt;
    const CContent content = Read(list);
    if (!content.unusable.empty())
        return content.unusable.front();
    if (content.plain.empty() && content.secure.empty())
        return CUnusableEntry{ 0, kNoProxy };
    return std::nullopt;
}

bool IsBypassed(std::wstring_view bypassList, std::wstring_view host) noexcept
{
    return !FindBypass(bypassList, host).empty();
}

std::wstring_view FindBypass(std::wstring_view bypassList, std::wstring_view host) noexcept
{
    if (IsLocalName(host) && VoContainsNoCase(bypassList, kLocalHosts))
        return kLocalHosts;
    for (std::wstring_view item = TakeItem(bypassList, kItemSeparators); !item.empty();
         item = TakeItem(bypassList, kItemSeparators))
    {
        const std::wstring_view rule = item;
        if (item.starts_with(L'[') && item.ends_with(L']')) // an IPv6 address
            item = item.substr(1, item.size() - 2);
        if (Matches(item, host))
            return rule;
    }
    return {};
}

bool BypassesAll(std::wstring_view bypassList) noexcept
{
    return TakeItem(bypassList, kItemSeparators) == L"*" && TakeItem(bypassList, kItemSeparators).empty();
}
} // namespace VoProxyList
