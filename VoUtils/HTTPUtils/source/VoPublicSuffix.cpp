// Looks up domains in the table of public suffixes (VoPublicSuffix.h). The build makes the table with tools/public-suffixes.
#include "VoPublicSuffix.h"

#include <algorithm>
#include <iterator>

namespace
{
// kPublicSuffixBlocks: texts of entries, each with a line feed behind it. An entry is a domain in canonical form, followed by
// its mark. The entries are sorted by their domains, within a text and from one text to the next.
#include "VoPublicSuffixTable.inc"

// What the list says about a domain, as the mark behind it.
constexpr char kPlain = '.';     // "co.uk": a public suffix
constexpr char kWildcard = '*';  // "*.ck": every domain one label below is one
constexpr char kException = '!'; // "!www.ck": no public suffix, although a wildcard matches
constexpr char kNone = 0;        // not in the list

// Cuts an entry off the front of a block; the mark is its last character.
std::string_view TakeEntry(std::string_view& block) noexcept
{
    const std::string_view entry = block.substr(0, block.find('\n'));
    block.remove_prefix(entry.size() + 1);
    return entry;
}

std::string_view DomainOf(std::string_view entry) noexcept
{
    return entry.substr(0, entry.size() - 1);
}

bool IsBefore(std::wstring_view a, std::string_view b) noexcept
{
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](auto x, auto y) { return static_cast<unsigned>(x) < static_cast<unsigned>(y); });
}

char MarkOf(std::wstring_view domain) noexcept
{
    // The block is the last one whose first domain is not behind the domain.
    const auto* const next = std::upper_bound(std::begin(kPublicSuffixBlocks), std::end(kPublicSuffixBlocks), domain,
                                              [](std::wstring_view wanted, std::string_view block)
    { return IsBefore(wanted, DomainOf(TakeEntry(block))); });
    if (next == std::begin(kPublicSuffixBlocks))
        return kNone;
    for (std::string_view block = *std::prev(next); !block.empty();)
    {
        const std::string_view entry = TakeEntry(block);
        const std::string_view known = DomainOf(entry);
        if (std::equal(known.begin(), known.end(), domain.begin(), domain.end()))
            return entry.back();
    }
    return kNone;
}
} // namespace

bool VoIsPublicSuffix(std::wstring_view domain) noexcept
{
    if (domain.ends_with(L'.'))
        domain.remove_suffix(1);
    const size_t dot = domain.find(L'.');
    if (dot == std::wstring_view::npos)
        return true; // the list's default rule "*"
    // The domain is a public suffix when the rule that prevails has all of its labels: a plain rule, or a wildcard of its
    // parent. An exception prevails over both. The domain of a wildcard counts as a public suffix itself: strangers register
    // the names below it too.
    switch (MarkOf(domain))
    {
    case kPlain:
    case kWildcard:
        return true;
    case kException:
        return false;
    default:
        return MarkOf(domain.substr(dot + 1)) == kWildcard;
    }
}
