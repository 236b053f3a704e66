// Stores and finds cookies by domain (VoCookieMap.h).
#include "VoCookieMap.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>
#include <utility>

namespace
{
double ExpiryOf(const CVoCookieData& cookie) noexcept
{
    return cookie.hasExpiry && !std::isnan(cookie.expiry) ? cookie.expiry : std::numeric_limits<double>::infinity();
}
} // namespace

// A secure cookie goes last, or a response over plain HTTP could remove it by setting many others (RFC 6265bis, section 5.7).
bool CVoCookieMap::CGoesFirst::operator()(const CEntry* a, const CEntry* b) const noexcept
{
    return std::tie(a->cookie.secure, a->lastUse, a->creation) < std::tie(b->cookie.secure, b->lastUse, b->creation);
}

bool CVoCookieMap::CExpiresFirst::operator()(const CEntry* a, const CEntry* b) const noexcept
{
    return std::pair(ExpiryOf(a->cookie), a->creation) < std::pair(ExpiryOf(b->cookie), b->creation);
}

bool CVoCookieMap::ShadowsSecure(const CVoCookieData& cookie) const noexcept
{
    // The secure cookies stand at the end.
    const auto firstPlain =
        std::find_if_not(m_byUse.rbegin(), m_byUse.rend(), [](const CEntry* entry) { return entry->cookie.secure; });
    return std::any_of(m_byUse.rbegin(), firstPlain, [&](const CEntry* entry) { return cookie.ShadowsSecure(entry->cookie); });
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
        domain = m_domains.try_emplace(cookie.domain).first;
    }

    CEntries& entries = domain->second;
    const auto stored = std::find_if(entries.begin(), entries.end(), [&](const std::unique_ptr<CEntry>& entry)
    { return entry->cookie.name == cookie.name && entry->cookie.path == cookie.path; });
    if (isExpired)
    {
        if (stored != entries.end())
            Remove(domain, **stored);
        return true;
    }

    ++m_sequence;
    if (stored != entries.end())
    {
        // The entry leaves both orders while it changes, with its nodes: nothing is allocated.
        auto use = m_byUse.extract(stored->get());
        auto expiry = m_byExpiry.extract(stored->get());
        (*stored)->cookie = std::move(cookie);
        (*stored)->lastUse = m_sequence;
        m_byUse.insert(std::move(use));
        m_byExpiry.insert(std::move(expiry));
        return true;
    }
    AddNew(domain, std::move(cookie));
    RemoveBeyondLimits(domain);
    return true;
}

void CVoCookieMap::AddNew(CDomains::iterator domain, CVoCookieData&& cookie)
{
    CEntry* entry = nullptr;
    try
    {
        domain->second.push_back(std::make_unique<CEntry>(CEntry{ std::move(cookie), m_sequence, m_sequence }));
        entry = domain->second.back().get();
        m_byUse.insert(entry);
        m_byExpiry.insert(entry);
    }
    catch (...)
    {
        if (entry)
        {
            m_byUse.erase(entry);
            domain->second.pop_back();
        }
        if (domain->second.empty())
            m_domains.erase(domain);
        throw;
    }
}

void CVoCookieMap::RemoveExpired(double now)
{
    while (!m_byExpiry.empty() && ExpiryOf((*m_byExpiry.begin())->cookie) <= now)
    {
        const CEntry& entry = **m_byExpiry.begin();
        Remove(m_domains.find(entry.cookie.domain), entry);
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
            for (const std::unique_ptr<CEntry>& entry : found->second)
                if ((isHost || !entry->cookie.hostOnly) && (secure || !entry->cookie.secure) &&
                    entry->cookie.PathMatches(request))
                    matches.push_back(entry.get());
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
        auto use = m_byUse.extract(entry);
        entry->lastUse = m_sequence;
        m_byUse.insert(m_byUse.end(), std::move(use)); // its place, unless secure cookies stand behind it
        result.push_back(&entry->cookie);
    }
    return result;
}

std::vector<const CVoCookieData*> CVoCookieMap::InOrderOfCreation() const
{
    std::vector<const CEntry*> entries(m_byUse.begin(), m_byUse.end());
    std::sort(entries.begin(), entries.end(), [](const CEntry* a, const CEntry* b) { return a->creation < b->creation; });

    std::vector<const CVoCookieData*> result;
    result.reserve(entries.size());
    for (const CEntry* const entry : entries)
        result.push_back(&entry->cookie);
    return result;
}

void CVoCookieMap::Remove(CDomains::iterator domain, const CEntry& entry) noexcept
{
    CEntries& entries = domain->second;
    const auto place = std::find_if(entries.begin(), entries.end(), [&](const auto& stored) { return stored.get() == &entry; });
    m_byUse.erase(place->get());
    m_byExpiry.erase(place->get());
    entries.erase(place);
    // Remove a domain without cookies too: a server could fill the map with new host names.
    if (entries.empty())
        m_domains.erase(domain);
}

void CVoCookieMap::RemoveBeyondLimits(CDomains::iterator domain) noexcept
{
    const CEntries& entries = domain->second;
    if (entries.size() > kVoMaximumCookiesPerDomain)
        Remove(domain, **std::min_element(entries.begin(), entries.end(),
                                          [](const auto& a, const auto& b) { return CGoesFirst()(a.get(), b.get()); }));
    if (m_byUse.size() > kVoMaximumCookies)
    {
        const CEntry& first = **m_byUse.begin();
        Remove(m_domains.find(first.cookie.domain), first);
    }
}
