#include "GuardPage.h"

#include <new>

namespace TestSupport
{
CGuardPage::CGuardPage(size_t size, EGuard guard)
{
    SYSTEM_INFO system{};
    ::GetSystemInfo(&system);
    const size_t page = system.dwPageSize;
    const size_t usable = std::max<size_t>(1, (size + page - 1) / page) * page;
    m_region = ::VirtualAlloc(nullptr, usable + page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (!m_region)
        throw std::bad_alloc();
    std::byte* const region = static_cast<std::byte*>(m_region);
    std::byte* const forbidden = guard == EGuard::Behind ? region + usable : region;
    DWORD old = 0;
    if (!::VirtualProtect(forbidden, page, PAGE_NOACCESS, &old))
    {
        ::VirtualFree(m_region, 0, MEM_RELEASE);
        throw std::bad_alloc();
    }
    m_data = guard == EGuard::Behind ? forbidden - size : forbidden + page;
}

CGuardPage::~CGuardPage()
{
    ::VirtualFree(m_region, 0, MEM_RELEASE);
}
} // namespace TestSupport
