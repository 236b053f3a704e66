// The cookies of a store, found by the domain of a request. The cookie store uses it.
#pragma once

#include <VoCookieData.h>

#include <map>
#include <memory>
#include <set>
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
    // Removes the expired cookies.
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
    // The order in which cookies go when the map is full: a secure cookie last, then by use.
    struct CGoesFirst
    {
        bool operator()(const CEntry* a, const CEntry* b) const noexcept;
    };
    struct CExpiresFirst
    {
        bool operator()(const CEntry* a, const CEntry* b) const noexcept;
    };
    using CEntries = std::vector<std::unique_ptr<CEntry>>;
    using CDomains = std::map<std::wstring, CEntries, std::less<>>;

    [[nodiscard]] bool ShadowsSecure(const CVoCookieData& cookie) const noexcept;
    void AddNew(CDomains::iterator domain, CVoCookieData&& cookie);
    void Remove(CDomains::iterator domain, const CEntry& entry) noexcept;
    void RemoveBeyondLimits(CDomains::iterator domain) noexcept;

    CDomains m_domains; // each has one cookie at least
    // Each holds all cookies, so that none of these steps walks over the whole map.
    std::set<CEntry*, CGoesFirst> m_byUse;
    std::set<CEntry*, CExpiresFirst> m_byExpiry;
    UINT64 m_sequence = 0; // grows with every creation and every use
};
