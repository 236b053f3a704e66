// Makes and deletes the records of cookies and links them in the order of use (VoCookieRecord.h).
#include "VoCookieRecord.h"

#include <algorithm>
#include <limits>
#include <new>
#include <stdexcept>

CVoCookieRecordPtr CVoCookieRecord::Make(const CVoCookieData& cookie, CVoCookieDomains::iterator domain, UINT64 creation,
                                         UINT64 use)
{
    static_assert(alignof(CVoCookieRecord) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__ &&
                  sizeof(CVoCookieRecord) % alignof(wchar_t) == 0);
    const size_t longest = std::max({ cookie.path.size(), cookie.name.size(), cookie.value.size() });
    if (longest > std::numeric_limits<UINT32>::max())
        throw std::length_error("text of a cookie");
    const size_t characters = cookie.path.size() + cookie.name.size() + cookie.value.size();
    void* const memory = ::operator new(sizeof(CVoCookieRecord) + characters * sizeof(wchar_t));
    return CVoCookieRecordPtr(new (memory) CVoCookieRecord(cookie, domain, creation, use));
}

void CVoDeleteCookieRecord::operator()(CVoCookieRecord* record) const noexcept
{
    record->~CVoCookieRecord();
    ::operator delete(record);
}

CVoCookieRecord::CVoCookieRecord(const CVoCookieData& cookie, CVoCookieDomains::iterator domain, UINT64 creation,
                                 UINT64 use) noexcept
    : m_domain(domain), m_creation(creation), m_lastUse(use), m_expiry(cookie.expiry),
      m_pathLength(static_cast<UINT32>(cookie.path.size())), m_nameLength(static_cast<UINT32>(cookie.name.size())),
      m_valueLength(static_cast<UINT32>(cookie.value.size())), m_isSecure(cookie.secure), m_isHttpOnly(cookie.httpOnly),
      m_isHostOnly(cookie.hostOnly), m_hasExpiry(cookie.hasExpiry)
{
    auto* end = reinterpret_cast<wchar_t*>(this + 1);
    for (const std::wstring* const text : { &cookie.path, &cookie.name, &cookie.value })
        end = std::copy(text->begin(), text->end(), end);
}

CVoCookieData CVoCookieRecord::Data() const
{
    CVoCookieData cookie;
    cookie.domain = Domain();
    cookie.path = Path();
    cookie.name = Name();
    cookie.value = Value();
    cookie.secure = m_isSecure;
    cookie.httpOnly = m_isHttpOnly;
    cookie.hasExpiry = m_hasExpiry;
    cookie.expiry = m_expiry;
    cookie.hostOnly = m_isHostOnly;
    return cookie;
}

void CVoCookieUses::Append(CVoCookieRecord& record) noexcept
{
    record.m_usedBefore = m_last;
    record.m_usedAfter = nullptr;
    (m_last ? m_last->m_usedAfter : m_first) = &record;
    m_last = &record;
}

void CVoCookieUses::Remove(CVoCookieRecord& record) noexcept
{
    (record.m_usedBefore ? record.m_usedBefore->m_usedAfter : m_first) = record.m_usedAfter;
    (record.m_usedAfter ? record.m_usedAfter->m_usedBefore : m_last) = record.m_usedBefore;
}
