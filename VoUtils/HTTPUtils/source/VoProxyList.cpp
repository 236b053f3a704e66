#include <VoProxyList.h>

#include <VoServerAddress.h>

#include <base/VoUtils.h>

#include <algorithm>

namespace VoProxyList
{
namespace
{
constexpr std::wstring_view kPrefixEnd = L"://";
constexpr std::wstring_view kEntrySeparators = L"; \t\r\n";
constexpr std::wstring_view kItemSeparators = L"\t ,;";
constexpr std::wstring_view kLocalHosts = L"<local>";
constexpr std::wstring_view kDefaultPort = L":80";

// Cuts the next piece off the front of a text; empty when there is none left.
std::wstring_view TakeItem(std::wstring_view& text, std::wstring_view separators) noexcept
{
    text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
    const std::wstring_view item = text.substr(0, text.find_first_of(separators));
    text.remove_prefix(item.size());
    return item;
}

// "host:port" of an entry without its scheme; empty for a malformed one.
std::wstring NameOfProxy(std::wstring_view proxy)
{
    if (const size_t end = proxy.find(kPrefixEnd); end != std::wstring_view::npos)
    {
        const std::wstring_view prefix = proxy.substr(0, end);
        if (!VoEqualsNoCase(prefix, L"http") && !VoEqualsNoCase(prefix, L"https"))
            return {};
        proxy.remove_prefix(end + kPrefixEnd.size());
    }
    // As an address of plain HTTP, whose default port is the proxies' too.
    CServerAddressData address;
    if (proxy.find(L'=') != std::wstring_view::npos || FAILED(address.SetAddress(proxy, false, false, false)))
        return {};
    std::wstring name = address.Authority();
    if (address.Port() == 0)
        name += kDefaultPort;
    return name;
}

// Whether a text has the pattern's form, where "*" stands for any part. A star takes as little as it can and is given more when
// what follows does not fit, and only the last one needs to be: linear but for patterns made to be slow.
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

// An IPv6 literal has no dot either, but is no name.
bool IsLocalName(std::wstring_view host) noexcept
{
    return host.find_first_of(L".:") == std::wstring_view::npos;
}
} // namespace

std::wstring ProxyForScheme(std::wstring_view list, bool secure)
{
    for (std::wstring_view entry = TakeItem(list, kEntrySeparators); !entry.empty(); entry = TakeItem(list, kEntrySeparators))
    {
        if (const size_t equals = entry.find(L'='); equals != std::wstring_view::npos)
        {
            if (!VoEqualsNoCase(entry.substr(0, equals), secure ? L"https" : L"http"))
                continue;
            entry.remove_prefix(equals + 1);
        }
        if (std::wstring name = NameOfProxy(entry); !name.empty())
            return name;
    }
    return {};
}

std::wstring OnlyProxy(std::wstring_view list)
{
    std::wstring plain = ProxyForScheme(list, false);
    std::wstring secure = ProxyForScheme(list, true);
    if (plain.empty())
        return secure;
    return secure.empty() || VoEqualsNoCase(plain, secure) ? plain : std::wstring();
}

bool IsBypassed(std::wstring_view bypassList, std::wstring_view host) noexcept
{
    for (std::wstring_view item = TakeItem(bypassList, kItemSeparators); !item.empty();
         item = TakeItem(bypassList, kItemSeparators))
    {
        if (VoEqualsNoCase(item, kLocalHosts))
        {
            if (IsLocalName(host))
                return true;
            continue;
        }
        if (item.starts_with(L'[') && item.ends_with(L']')) // an IPv6 literal
            item = item.substr(1, item.size() - 2);
        if (Matches(item, host))
            return true;
    }
    return false;
}
} // namespace VoProxyList
