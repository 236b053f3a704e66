// Buffers beside an inaccessible page, so that reading or writing one unit too far is a crash instead of luck.
//
//     CGuardedBuffer<wchar_t> text(L"TWFu", EGuard::Behind);
//     HexToBin(text.View(), ...);
#pragma once

#include <base/VoPlatform.h>

#include <algorithm>
#include <cstddef>
#include <span>
#include <string_view>
#include <type_traits>

namespace TestSupport
{
enum class EGuard
{
    InFront, // the buffer begins behind the page
    Behind   // the buffer ends in front of the page
};

// Pages of its own for that many bytes. Throws std::bad_alloc.
class CGuardPage
{
public:
    CGuardPage(size_t size, EGuard guard);
    ~CGuardPage();
    CGuardPage(const CGuardPage&) = delete;
    CGuardPage& operator=(const CGuardPage&) = delete;

    [[nodiscard]] void* Data() const noexcept { return m_data; }

private:
    void* m_region = nullptr;
    void* m_data = nullptr;
};

// Units in such pages.
template <class CUnit>
class CGuardedBuffer
{
    static_assert(std::is_trivially_copyable_v<CUnit>);

public:
    CGuardedBuffer(size_t size, EGuard guard) : m_page(size * sizeof(CUnit), guard), m_size(size) {}
    CGuardedBuffer(std::span<const CUnit> content, EGuard guard) : CGuardedBuffer(content.size(), guard)
    {
        std::copy(content.begin(), content.end(), Data());
    }

    [[nodiscard]] CUnit* Data() const noexcept { return static_cast<CUnit*>(m_page.Data()); }
    [[nodiscard]] size_t Size() const noexcept { return m_size; }
    [[nodiscard]] std::span<CUnit> Span() const noexcept { return { Data(), m_size }; }
    [[nodiscard]] std::basic_string_view<CUnit> View() const noexcept { return { Data(), m_size }; }

private:
    CGuardPage m_page;
    size_t m_size;
};
} // namespace TestSupport
