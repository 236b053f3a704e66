// One cookie as a store keeps it, and the domains that own the cookies. The map of cookies uses them (VoCookieMap.h).
#pragma once

#include <VoCookieData.h>

#include <cmath>
#include <map>
#include <memory>

class CVoCookieRecord;

// Deletes what CVoCookieRecord::Make made.
struct CVoDeleteCookieRecord
{
    void operator()(CVoCookieRecord* record) const noexcept;
};
using CVoCookieRecordPtr = std::unique_ptr<CVoCookieRecord, CVoDeleteCookieRecord>;

// The cookies of one domain, in no order. Each record owns the next one; there are kVoMaximumCookiesPerDomain at most.
struct CVoCookiesOfDomain
{
    CVoCookieRecordPtr first;
    size_t count = 0;
};
using CVoCookieDomains = std::map<std::wstring, CVoCookiesOfDomain, std::less<>>;

// One heap block holds the fields and, behind them, the characters of path, name and value, because a full store has thousands
// of records. The domain's text stands once, in the map of domains. A record does not change, except for its last use and its
// places in the lists of the map.
class CVoCookieRecord
{
public:
    // Copies the cookie. `domain` is its entry, which stays while the record is in the map. Throws std::bad_alloc, and
    // std::length_error for a text of 4 GB or more.
    [[nodiscard]] static CVoCookieRecordPtr Make(const CVoCookieData& cookie, CVoCookieDomains::iterator domain,
                                                 UINT64 creation, UINT64 use);

    CVoCookieRecord(const CVoCookieRecord&) = delete;
    CVoCookieRecord& operator=(const CVoCookieRecord&) = delete;

    [[nodiscard]] std::wstring_view Domain() const noexcept { return m_domain->first; }
    [[nodiscard]] std::wstring_view Path() const noexcept { return { Characters(), m_pathLength }; }
    [[nodiscard]] std::wstring_view Name() const noexcept { return { Characters() + m_pathLength, m_nameLength }; }
    [[nodiscard]] std::wstring_view Value() const noexcept
    {
        return { Characters() + m_pathLength + m_nameLength, m_valueLength };
    }
    [[nodiscard]] bool IsSecure() const noexcept { return m_isSecure; }
    [[nodiscard]] bool IsHostOnly() const noexcept { return m_isHostOnly; }
    // Whether there is a time at which the cookie expires; a session cookie has none.
    [[nodiscard]] bool Expires() const noexcept { return m_hasExpiry && !std::isnan(m_expiry); }
    [[nodiscard]] double Expiry() const noexcept { return m_expiry; }
    // Numbers of the map's sequence.
    [[nodiscard]] UINT64 Creation() const noexcept { return m_creation; }
    [[nodiscard]] UINT64 LastUse() const noexcept { return m_lastUse; }
    [[nodiscard]] CVoCookieRecord* NextOfDomain() const noexcept { return m_nextOfDomain.get(); }
    [[nodiscard]] CVoCookieKey Key() const noexcept { return { Domain(), Path(), Name(), m_isSecure }; }
    // A copy. Throws std::bad_alloc.
    [[nodiscard]] CVoCookieData Data() const;

private:
    friend class CVoCookieMap;
    friend class CVoCookieUses;
    friend struct CVoDeleteCookieRecord;

    CVoCookieRecord(const CVoCookieData& cookie, CVoCookieDomains::iterator domain, UINT64 creation, UINT64 use) noexcept;
    ~CVoCookieRecord() = default;

    [[nodiscard]] const wchar_t* Characters() const noexcept { return reinterpret_cast<const wchar_t*>(this + 1); }

    CVoCookieDomains::iterator m_domain;
    CVoCookieRecordPtr m_nextOfDomain;
    // The neighbours in the order of use.
    CVoCookieRecord* m_usedBefore = nullptr;
    CVoCookieRecord* m_usedAfter = nullptr;
    UINT64 m_creation;
    UINT64 m_lastUse;
    double m_expiry;
    UINT32 m_pathLength; // lengths in characters
    UINT32 m_nameLength;
    UINT32 m_valueLength;
    bool m_isSecure;
    bool m_isHttpOnly;
    bool m_isHostOnly;
    bool m_hasExpiry;
};

// Records in the order of their last use. They belong to their domains.
class CVoCookieUses
{
public:
    // The one that was unused for longest; null when there is none.
    [[nodiscard]] CVoCookieRecord* First() const noexcept { return m_first; }
    // The record becomes the one that was used last. It is in no list.
    void Append(CVoCookieRecord& record) noexcept;
    // The record is in this list.
    void Remove(CVoCookieRecord& record) noexcept;

private:
    CVoCookieRecord* m_first = nullptr;
    CVoCookieRecord* m_last = nullptr;
};
