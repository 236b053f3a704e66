// A hash index of names without regard to case. CVoIniContent finds sections and keys with it.
#pragma once

#include <base/VoPlatform.h>

#include <limits>
#include <string_view>
#include <vector>

// Ordinals by name, without regard to case. The names stay where they are; callers tell them by ordinal.
class CVoNameIndex
{
public:
    static constexpr UINT32 kNone = std::numeric_limits<UINT32>::max();

    // The first ordinal added under a name that `isMatch(ordinal)` takes, or kNone.
    template <class IsMatch>
    [[nodiscard]] UINT32 Find(UINT32 hash, IsMatch isMatch) const
    {
        if (m_slots.empty())
            return kNone;
        for (size_t at = hash & (m_slots.size() - 1);; at = (at + 1) & (m_slots.size() - 1))
        {
            const SSlot& slot = m_slots[at];
            if (slot.ordinal == kNone || (slot.hash == hash && isMatch(slot.ordinal)))
                return slot.ordinal;
        }
    }
    void Reserve(size_t count);
    void Add(UINT32 hash, UINT32 ordinal);
    void Clear() noexcept;

    // The same for names that VoEqualsNoCase takes for equal.
    [[nodiscard]] static UINT32 Hash(std::wstring_view name);

private:
    struct SSlot
    {
        UINT32 hash = 0;
        UINT32 ordinal = kNone;
    };
    void Place(const SSlot& slot) noexcept;

    std::vector<SSlot> m_slots; // a power of two of them, at most half of them taken
    size_t m_count = 0;
};
