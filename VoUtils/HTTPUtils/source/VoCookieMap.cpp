// Stores and finds cookies by domain (VoCookieMap.h).
#include "VoCookieMap.h"

#include <algorithm>

bool CVoCookieMap::ShadowsSecure(const CVoCookieData& cookie) const noexcept
{
    return std::any_of(m_domains.begin(), m_domains.end(), [&](const auto& domain)
    {
        return std::any_of(domain.second.begin(), domain.second.end(),
                           [&](const CEntry& entry) { return cookie.ShadowsSecure(entry.cookie); });
    });
}

bool CVoCookieMap::Add(CVoCookieData&& cookie, bool fromSecure, double now)
{
    RemoveExpired(now);
    if (!fromSecure && ShadowsSecure(cookie))
        return false;
    const bool isExpired = cookie.IsExpired(now);
    auto domain = m_domains.find(cookie.domain);
    if (domain == m_domains.end())
    {
        if (isExpired)
            return true;
        CEntries first;
        first.reserve(1); // so the rest cannot fail and leave a domain without cookies
        domain = m_domains.try_emplace(cookie.domain, std::move(first)).first;
    }

    CEntries& entries = domain->second;
    const auto stored = std::find_if(entries.begin(), entries.end(), [&](const CEntry& entry)
    { return entry.cookie.name == cookie.name && entry.cookie.path == cookie.path; });
    if (isExpired)
    {
        if (stored != entries.end())
            Remove(domain, stored);
        return true;
    }

    if (cookie.hasExpiry)
        m_earliestExpiry = std::min(m_earliestExpiry, cookie.expiry);
    ++m_sequence;
    if (stored != entries.end())
    {
        stored->cookie = std::move(cookie);
        stored->lastUse = m_sequence;
        return true;
    }
    entries.push_back({ std::move(cookie), m_sequence, m_sequence });
    ++m_count;
    RemoveBeyondLimits(domain);
    return true;
}

void CVoCookieMap::RemoveExpired(double now)
{
    if (now < m_earliestExpiry)
        return;
    m_earliestExpiry = std::numeric_limits<double>::infinity();
    for (auto domain = m_domains.begin(); domain != m_domains.end();)
    {
        CEntries& entries = domain->second;
        m_count -= std::erase_if(entries, [&](const CEntry& entry) { return entry.cookie.IsExpired(now); });
        for (const CEntry& entry : entries)
            if (entry.cookie.hasExpiry)
                m_earliestExpiry = std::min(m_earliestExpiry, entry.cookie.expiry);
        domain = entries.empty() ? m_domains.erase(domain) : std::next(domain);
    }
}

std::vector<const CVoCookieData*> CVoCookieMap::Match(const CVoCookieRequest& request, bool secure, double now)
{
    RemoveExpired(now);
    std::vector<CEntry*> matches;
    // The host itself, then each parent: its labels without the first, without the first two, and so on.
    std::wstring_view domain = request.host;
    for (bool isHost = true; !domain.empty(); isHost = false)
    {
        if (const auto found = m_domains.find(domain); found != m_domains.end())
            for (CEntry& entry : found->second)
                if ((isHost || !entry.cookie.hostOnly) && (secure || !entry.cookie.secure) && entry.cookie.PathMatches(request))
                    matches.push_back(&entry);
        const size_t dot = domain.find(L'.');
        domain = dot == std::wstring_view::npos ? std::wstring_view() : domain.substr(dot + 1);
    }
    std::sort(matches.begin(), matches.end(), [](const CEntry* a, const CEntry* b)
    {
        const size_t lengthOfA = a->cookie.path.size();
        const size_t lengthOfB = b->cookie.path.size();
        return lengthOfA != lengthOfB ? lengthOfA > lengthOfB : a->creation < b->creation;
    });

    std::vector<const CVoCookieData*> result;
    result.reserve(matches.size());
    ++m_sequence;
    for (CEntry* const entry : matches)
    {
        entry->lastUse = m_sequence;
        result.push_back(&entry->cookie);
    }
    return result;
}

std::vector<const CVoCookieData*> CVoCookieMap::InOrderOfCreation() const
{
    std::vector<const CEntry*> entries;
    entries.reserve(m_count);
    for (const auto& [domain, cookies] : m_domains)
        for (const CEntry& entry : cookies)
            entries.push_back(&entry);
    std::sort(entries.begin(), entries.end(), [](const CEntry* a, const CEntry* b) { return a->creation < b->creation; });

    std::vector<const CVoCookieData*> result;
    result.reserve(entries.size());
    for (const CEntry* const entry : entries)
        result.push_back(&entry->cookie);
    return result;
}

// A secure cookie goes last, or a response over plain HTTP could remove it by setting many others (RFC 6265bis, section 5.7).
bool CVoCookieMap::GoesFirst(const CEntry& a, const CEntry& b) noexcept
{
    return a.cookie.secure != b.cookie.secure ? b.cookie.secure : a.lastUse < b.lastUse;
}

CVoCookieMap::CEntries::iterator CVoCookieMap::FirstToGo(CEntries& entries) noexcept
{
    return std::min_element(entries.begin(), entries.end(), &GoesFirst);
}

void CVoCookieMap::Remove(CDomains::iterator domain, CEntries::iterator entry) noexcept
{
    domain->second.erase(entry);
    --m_count;
    // Remove a domain without cookies too: a server could fill the map with new host names.
    if (domain->second.empty())
        m_domains.erase(domain);
}

void CVoCookieMap::RemoveBeyondLimits(CDomains::iterator domain) noexcept
{
    if (domain->second.size() > kVoMaximumCookiesPerDomain)
        Remove(domain, FirstToGo(domain->second));
    if (m_count <= kVoMaximumCookies)
        return;
    auto victim = m_domains.begin();
    auto victimEntry = FirstToGo(victim->second);
    for (auto candidate = std::next(victim); candidate != m_domains.end(); ++candidate)
        if (const auto entry = FirstToGo(candidate->second); GoesFirst(*entry, *victimEntry))
        {
            victim = candidate;
            victimEntry = entry;
        }
    Remove(victim, victimEntry);
}
