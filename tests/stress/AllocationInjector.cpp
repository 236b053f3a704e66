// Recognises the places of the run-time that do not stand a failed allocation, by the stack.
#include "AllocationInjector.h"

#include <algorithm>
#include <cstdio>

// The compiler's access to the variables of a thread, which ends the program where a thread has no memory for them.
extern "C" void* __emutls_get_address(void* variable); // NOLINT(*-reserved-identifier)

namespace Stress
{
namespace
{
const void* FunctionAt(const void* address) noexcept
{
    DWORD64 base = 0;
    return ::RtlLookupFunctionEntry(reinterpret_cast<DWORD64>(address), &base, nullptr);
}
} // namespace

CPassedOver::CPassedOver() noexcept
    // The first one is the C library's reader of formatted texts, which libcurl calls.
    : m_functions{ FunctionAt(reinterpret_cast<const void*>(&__mingw_vsscanf)),
                   FunctionAt(reinterpret_cast<const void*>(&__emutls_get_address)) }
{
}

bool CPassedOver::Asks() const noexcept
{
    std::array<void*, 24> frames{}; // the hook's own are among them
    const USHORT count = ::RtlCaptureStackBackTrace(0, static_cast<ULONG>(frames.size()), frames.data(), nullptr);
    return std::any_of(frames.begin(), frames.begin() + count, [this](const void* address)
    { return std::ranges::find(m_functions, FunctionAt(address)) != m_functions.end(); });
}

// The place of a block, or the free one that it takes.
size_t CBlocks::Find(const void* block) const noexcept
{
    size_t place = (reinterpret_cast<size_t>(block) >> 4) * 0x9E3779B1U % kSize;
    while (m_blocks[place] && m_blocks[place] != block)
        place = (place + 1) % kSize;
    return place;
}

void CBlocks::Clear() noexcept
{
    const CVoLockHolder lock(m_lock);
    std::ranges::fill(m_blocks, nullptr);
    m_count = 0;
}

void CBlocks::Add(const void* block) noexcept
{
    const CVoLockHolder lock(m_lock);
    m_blocks[Find(block)] = block;
    ++m_count;
}

bool CBlocks::Remove(const void* block) noexcept
{
    const CVoLockHolder lock(m_lock);
    size_t place = Find(block);
    if (!m_blocks[place])
        return false;
    m_blocks[place] = nullptr;
    --m_count;
    // Those behind it may stand there because its place was taken.
    for (place = (place + 1) % kSize; m_blocks[place]; place = (place + 1) % kSize)
    {
        const void* const moved = std::exchange(m_blocks[place], nullptr);
        m_blocks[Find(moved)] = moved;
    }
    return true;
}
} // namespace Stress
