// The cookies of a store, found by the domain of a request.
#pragma once

#include <VoCookieData.h>

#include <limits>
#include <map>
#include <vector>

// What servers can make the store hold; beyond it, the cookies that went unused longest make room. RFC 6265, section 6.1, asks
// for at least 50 of a domain and 3000 in all.
inline constexpr size_t kVoMaximumCookiesPerDomain = 200;
inline constexpr size_t kVoMaximumCookies = 6000;

// Cookies keyed by domain; the hosts of a request and its parents are looked up one by one, so the cost of a request depends on
// the cookies that concern it and not on those of other domains. Not thread-safe.
class CVoCookieMap
{
public:
    // Stores a cookie. One of equal domain, path and name is replaced, and the new one keeps its place in the order of
    // creation. A cookie that has expired already only removes the one that it would replace.
    void Add(CVoCookieData&& cookie, double now);
    // Removes what has expired. Costs nothing until the earliest expiry has passed.
    void RemoveExpired(double now);
    // The cookies to send: longer paths first, among equals the earlier created (RFC 6265, section 5.4). Counts as use. Removes
    // what has expired. The pointers hold until the map changes.
    [[nodiscard]] std::vector<const CVoCookieData*> Match(const CVoCookieRequest& request, bool secure, double now);
    // All cookies in the order of their creation.
    [[nodiscard]] std::vector<const CVoCookieData*> InOrderOfCreation() const;
    [[nodiscard]] size_t Count() const noexcept { return m_count; }

private:
    struct CEntry
    {
        CVoCookieData cookie;
        UINT64 creation;
        UINT64 lastUse;
    };
    using CEntries = std::vector<CEntry>;
    using CDomains = std::map<std::wstring, CEntries, std::less<>>;

    static CEntries::iterator LeastUsed(CEntries& entries) noexcept;
    void Remove(CDomains::iterator domain, CEntries::iterator entry) noexcept;
    void RemoveBeyondLimits(CDomains::iterator domain) noexcept;

    CDomains m_domains; // each with one cookie at least
    size_t m_count = 0;
    UINT64 m_sequence = 0; // grows with every creation and every use
    double m_earliestExpiry = std::numeric_limits<double>::infinity();
};
