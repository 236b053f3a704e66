// A hash index of names (VoNameIndex.h).
#include "VoNameIndex.h"

#include <base/VoHResult.h>
#include <base/VoText.h>

#include <bit>
#include <string>

namespace
{
// The upper case of every unit, as the platform's ordinal comparison has it: of each character alone, the same in every locale.
class CUpperCase
{
public:
    CUpperCase() : m_upper(kCount)
    {
        std::wstring all(kCount, L'\0');
        for (size_t i = 0; i < kCount; ++i)
            all[i] = static_cast<wchar_t>(i);
        const auto count = static_cast<int>(kCount);
        if (::LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_UPPERCASE, all.data(), count, m_upper.data(), count, nullptr, nullptr,
                            0) != count)
            throw CVoHResultException(HResultFromLastError());
    }
    [[nodiscard]] wchar_t operator[](wchar_t c) const noexcept { return m_upper[c]; }

private:
    static constexpr size_t kCount = 0x10000;
    std::vector<wchar_t> m_upper;
};

[[nodiscard]] wchar_t ToUpper(wchar_t c)
{
    if (c < 0x80)
        return VoToUpperAscii(c);
    static const CUpperCase s_upperCase;
    return s_upperCase[c];
}
} // namespace

UINT32 CVoNameIndex::Hash(std::wstring_view name)
{
    UINT64 hash = name.size();
    for (const wchar_t c : name)
        hash = (hash ^ ToUpper(c)) * 0x9E3779B97F4A7C15U;
    return static_cast<UINT32>(hash >> 32);
}

void CVoNameIndex::Reserve(size_t count)
{
    if (2 * count <= m_slots.size())
        return;
    std::vector<SSlot> slots(std::bit_ceil(4 * count));
    m_slots.swap(slots);
    for (const SSlot& slot : slots)
        if (slot.ordinal != kNone)
            Place(slot);
}

void CVoNameIndex::Add(UINT32 hash, UINT32 ordinal)
{
    Reserve(m_count + 1);
    Place({ hash, ordinal });
    ++m_count;
}

void CVoNameIndex::Place(const SSlot& slot) noexcept
{
    size_t at = slot.hash & (m_slots.size() - 1);
    while (m_slots[at].ordinal != kNone)
        at = (at + 1) & (m_slots.size() - 1);
    m_slots[at] = slot;
}

void CVoNameIndex::Clear() noexcept
{
    m_slots.clear();
    m_count = 0;
}
