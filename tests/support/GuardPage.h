// Buffers that end at an inaccessible page, so that reading or writing one unit too far is a crash instead of luck.
//
//     const CGuardedBuffer<wchar_t> text(L"TWFu");
//     HexToBin(text.View(), ...);
#pragma once

#include <base/VoPlatform.h>

#include <algorithm>
#include <new>
#include <span>
#include <string_view>
#include <type_traits>

namespace TestSupport
{
template <class CUnit>
class CGuardedBuffer
{
    static_assert(std::is_trivially_copyable_v<CUnit>);

public:
    explicit CGuardedBuffer(size_t size) : m_size(size)
    {
        constexpr size_t kPage = 4096;
        const size_t usable = (size * sizeof(CUnit) / kPage + 1) * kPage;
        m_region = static_cast<BYTE*>(::VirtualAlloc(nullptr, usable + kPage, MEM_RESERVE, PAGE_NOACCESS));
        if (!m_region || !::VirtualAlloc(m_region, usable, MEM_COMMIT, PAGE_READWRITE))
            throw std::bad_alloc();
        m_data = reinterpret_cast<CUnit*>(m_region + usable) - size;
    }
    explicit CGuardedBuffer(std::span<const CUnit> content) : CGuardedBuffer(content.size())
    {
        std::copy(content.begin(), content.end(), m_data);
    }
    ~CGuardedBuffer() { ::VirtualFree(m_region, 0, MEM_RELEASE); }
    CGuardedBuffer(const CGuardedBuffer&) = delete;
    CGuardedBuffer& operator=(const CGuardedBuffer&) = delete;

    [[nodiscard]] CUnit* Data() const noexcept { return m_data; }
    [[nodiscard]] size_t Size() const noexcept { return m_size; }
    [[nodiscard]] std::basic_string_view<CUnit> View() const noexcept { return { m_data, m_size }; }

private:
    size_t m_size;
    BYTE* m_region = nullptr;
    CUnit* m_data = nullptr;
};
} // namespace TestSupport
