// The cookies of a store, found by the domain of a request. The cookie store uses it.
#pragma once

#include <VoCookieData.h>

#include <limits>
#include <map>
#include <vector>

// Cookies by domain. A look-up takes the request's host and its parents one by one, so its cost does not depend on the cookies
// of other domains. Not thread-safe.
class CVoCookieMap
{
public:
    // Stores a cookie. It replaces one of equal domain, path and name and takes its place in the order of creation. A cookie
    // that has expired already only removes the one that it would replace.
    //
    // False, with the map unchanged, for a cookie from a response over plain HTTP (`fromSecure` false) that would overwrite,
    // hide or delete a secure cookie (CVoCookieData::ShadowsSecure).
    [[nodiscard]] bool Add(CVoCookieData&& cookie, bool fromSecure, double now);
    // Removes the expired cookies. Costs nothing until the earliest expiry has passed.
    void RemoveExpired(double now);
    // Gives the cookies to send: longer paths first, among equal lengths the earlier created (RFC 6265, section 5.4). They
    // count as used. Removes the expired cookies first. The pointers are valid until the map changes.
    [[nodiscard]] std::vector<const CVoCookieData*> Match(const CVoCookieRequest& request, bool secure, double now);
    // All cookies in the order of their creation.
    [[nodiscard]] std::vector<const CVoCookieData*> InOrderOfCreation() const;

private:
    struct CEntry
    {
        CVoCookieData cookie;
        UINT64 creation;
        UINT64 lastUse;
    };
    using CEntries = std::vector<CEntry>;
    using CDomains = std::map<std::wstring, CEntries, std::less<>>;

    [[nodiscard]] bool ShadowsSecure(const CVoCookieData& cookie) const noexcept;
    static bool GoesFirst(const CEntry& a, const CEntry& b) noexcept;
    static CEntries::iterator FirstToGo(CEntries& entries) noexcept;
    void Remove(CDomains::iterator domain, CEntries::iterator entry) noexcept;
    void RemoveBeyondLimits(CDomains::iterator domain) noexcept;

    CDomains m_domains; // each has one cookie at least
    size_t m_count = 0;
    UINT64 m_sequence = 0; // grows with every creation and every use
    double m_earliestExpiry = std::numeric_limits<double>::infinity();
};
