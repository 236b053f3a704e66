// Stores and finds cookies by domain (VoCookieMap.h).
#include "VoCookieMap.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace
{
// The order in which cookies go when there are too many. A secure cookie goes last, or a response over plain HTTP could remove
// it by setting many others (RFC 6265bis, section 5.7).
bool GoesFirst(const CVoCookieRecord& a, const CVoCookieRecord& b) noexcept
{
    return std::tuple(a.IsSecure(), a.LastUse(), a.Creation()) < std::tuple(b.IsSecure(), b.LastUse(), b.Creation());
}

bool ExpiresFirst(const CVoCookieRecord* a, const CVoCookieRecord* b) noexcept
{
    return std::pair(a->Expiry(), a->Creation()) < std::pair(b->Expiry(), b->Creation());
}

bool IsOlder(const CVoCookieRecord* a, const CVoCookieRecord* b) noexcept
{
    return a->Creation() < b->Creation();
}

// The cookie of that path and name; null when there is none.
CVoCookieRecord* Find(const CVoCookiesOfDomain& cookies, std::wstring_view path, std::wstring_view name) noexcept
{
    CVoCookieRecord* record = cookies.first.get();
    while (record && (record->Name() != name || record->Path() != path))
        record = record->NextOfDomain();
    return record;
}
} // namespace

void CVoCookieMap::Clear() noexcept
{
    m_plain = m_secure = CVoCookieUses();
    m_byExpiry.clear();
    m_domains.clear();
    m_count = 0;
}

CVoCookieUses& CVoCookieMap::UsesOf(const CVoCookieRecord& record) noexcept
{
    return record.IsSecure() ? m_secure : m_plain;
}

bool CVoCookieMap::ShadowsSecure(const CVoCookieKey& cookie) const noexcept
{
    const CVoCookieRecord* record = m_secure.First();
    while (record && !cookie.ShadowsSecure(record->Key()))
        record = record->m_usedAfter;
    return record != nullptr;
}

bool CVoCookieMap::Add(const CVoCookieData& cookie, bool fromSecure, double now)
{
    RemoveExpired(now);
    if (!fromSecure && ShadowsSecure(cookie.Key()))
        return false;
    auto domain = m_domains.find(cookie.domain);
    CVoCookieRecord* const stored = domain != m_domains.end() ? Find(domain->second, cookie.path, cookie.name) : nullptr;
    if (cookie.IsExpired(now))
    {
        if (stored)
            Remove(*stored);
        return true;
    }

    if (domain == m_domains.end())
        domain = m_domains.try_emplace(cookie.domain).first;
    ++m_sequence;
    AddRecord(domain, cookie, stored ? stored->Creation() : m_sequence);
    if (stored)
        Remove(*stored);
    else
        RemoveBeyondLimits(domain->second);
    return true;
}

void CVoCookieMap::AddRecord(CVoCookieDomains::iterator domain, const CVoCookieData& cookie, UINT64 creation)
{
    CVoCookiesOfDomain& cookies = domain->second;
    CVoCookieRecordPtr record;
    try
    {
        record = CVoCookieRecord::Make(cookie, domain, creation, m_sequence);
        if (record->Expires())
            m_byExpiry.insert(std::upper_bound(m_byExpiry.begin(), m_byExpiry.end(), record.get(), ExpiresFirst), record.get());
    }
    catch (...)
    {
        if (!cookies.first)
            m_domains.erase(domain);
        throw;
    }
    UsesOf(*record).Append(*record);
    record->m_nextOfDomain = std::move(cookies.first);
    cookies.first = std::move(record);
    ++cookies.count;
    ++m_count;
}

void CVoCookieMap::RemoveExpired(double now) noexcept
{
    while (!m_byExpiry.empty() && m_byExpiry.front()->Expiry() <= now)
        Remove(*m_byExpiry.front());
}

std::vector<const CVoCookieRecord*> CVoCookieMap::Match(const CVoCookieRequest& request, bool secure, double now)
{
    RemoveExpired(now);
    std::vector<CVoCookieRecord*> matches;
    // The host itself, then each parent: its labels without the first, without the first two, and so on.
    std::wstring_view domain = request.host;
    for (bool isHost = true; !domain.empty(); isHost = false)
    {
        if (const auto found = m_domains.find(domain); found != m_domains.end())
            for (CVoCookieRecord* record = found->second.first.get(); record; record = record->NextOfDomain())
                if ((isHost || !record->IsHostOnly()) && (secure || !record->IsSecure()) && record->Key().PathMatches(request))
                    matches.push_back(record);
        const size_t dot = domain.find(L'.');
        domain = dot == std::wstring_view::npos ? std::wstring_view() : domain.substr(dot + 1);
    }
    std::sort(matches.begin(), matches.end(), IsOlder);

    std::vector<const CVoCookieRecord*> result(matches.begin(), matches.end());
    std::stable_sort(result.begin(), result.end(),
                     [](const CVoCookieRecord* a, const CVoCookieRecord* b) { return a->Path().size() > b->Path().size(); });
    // Nothing throws from here. They count as used at one time; the older one goes first.
    ++m_sequence;
    for (CVoCookieRecord* const record : matches)
    {
        record->m_lastUse = m_sequence;
        CVoCookieUses& uses = UsesOf(*record);
        uses.Remove(*record);
        uses.Append(*record);
    }
    return result;
}

std::vector<const CVoCookieRecord*> CVoCookieMap::InOrderOfCreation() const
{
    std::vector<const CVoCookieRecord*> result;
    result.reserve(m_count);
    for (const CVoCookieUses* const uses : { &m_plain, &m_secure })
        for (const CVoCookieRecord* record = uses->First(); record; record = record->m_usedAfter)
            result.push_back(record);
    std::sort(result.begin(), result.end(), IsOlder);
    return result;
}

void CVoCookieMap::Remove(CVoCookieRecord& record) noexcept
{
    if (record.Expires())
    {
        // A record that replaces this one may be equal in this order.
        const auto firstEqual = std::lower_bound(m_byExpiry.begin(), m_byExpiry.end(), &record, ExpiresFirst);
        m_byExpiry.erase(std::find(firstEqual, m_byExpiry.end(), &record));
    }
    UsesOf(record).Remove(record);
    const CVoCookieDomains::iterator domain = record.m_domain;
    CVoCookiesOfDomain& cookies = domain->second;
    CVoCookieRecordPtr* owner = &cookies.first;
    while (owner->get() != &record)
        owner = &(*owner)->m_nextOfDomain;
    const CVoCookieRecordPtr removed = std::exchange(*owner, std::move(record.m_nextOfDomain));
    --cookies.count;
    --m_count;
    // Remove a domain without cookies too: a server could fill the map with new host names.
    if (!cookies.first)
        m_domains.erase(domain);
}

void CVoCookieMap::RemoveBeyondLimits(const CVoCookiesOfDomain& cookies) noexcept
{
    if (cookies.count > kVoMaximumCookiesPerDomain)
    {
        CVoCookieRecord* first = cookies.first.get();
        for (CVoCookieRecord* record = first->NextOfDomain(); record; record = record->NextOfDomain())
            if (GoesFirst(*record, *first))
                first = record;
        Remove(*first);
    }
    if (m_count > kVoMaximumCookies)
        Remove(*(m_plain.First() ? m_plain.First() : m_secure.First()));
}
