// The cookies of a store, found by the domain of a request. The cookie store uses it.
#pragma once

#include "VoCookieRecord.h"

#include <deque>
#include <vector>

// Cookies by domain. A look-up takes the request's host and its parents one by one, so its cost does not depend on the cookies
// of other domains. Not thread-safe. What throws std::bad_alloc leaves the cookies as they were, without the expired ones.
class CVoCookieMap
{
public:
    CVoCookieMap() = default;
    // The records point to entries of the map.
    CVoCookieMap(const CVoCookieMap&) = delete;
    CVoCookieMap& operator=(const CVoCookieMap&) = delete;

    // Removes all cookies and frees their memory.
    void Clear() noexcept;
    // Stores a cookie. It replaces one of equal domain, path and name and takes its place in the order of creation. A cookie
    // that has expired already only removes the one that it would replace.
    //
    // False, with the map unchanged, for a cookie from a response over plain HTTP (`fromSecure` false) that would overwrite,
    // hide or delete a secure cookie (CVoCookieKey::ShadowsSecure).
    [[nodiscard]] bool Add(const CVoCookieData& cookie, bool fromSecure, double now);
    // Removes the expired cookies.
    void RemoveExpired(double now) noexcept;
    // Gives the cookies to send: longer paths first, among equal lengths the earlier created (RFC 6265, section 5.4). They
    // count as used. Removes the expired cookies first. The pointers are valid until the map changes.
    [[nodiscard]] std::vector<const CVoCookieRecord*> Match(const CVoCookieRequest& request, bool secure, double now);
    // All cookies in the order of their creation. The pointers are valid until the map changes.
    [[nodiscard]] std::vector<const CVoCookieRecord*> InOrderOfCreation() const;

private:
    [[nodiscard]] bool ShadowsSecure(const CVoCookieKey& cookie) const noexcept;
    // The domain's entry goes, too, when this throws and the entry has no cookie.
    void AddRecord(CVoCookieDomains::iterator domain, const CVoCookieData& cookie, UINT64 creation);
    void Remove(CVoCookieRecord& record) noexcept;
    void RemoveBeyondLimits(const CVoCookiesOfDomain& cookies) noexcept;
    [[nodiscard]] CVoCookieUses& UsesOf(const CVoCookieRecord& record) noexcept;

    CVoCookieDomains m_domains; // own the records; each has one at least
    size_t m_count = 0;
    // Together these hold all records. Secure cookies have a list of their own, because they go last.
    CVoCookieUses m_plain;
    CVoCookieUses m_secure;
    std::deque<CVoCookieRecord*> m_byExpiry; // those that expire, the next one first
    UINT64 m_sequence = 0;                   // grows with every creation and every use
};
