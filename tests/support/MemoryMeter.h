// How much memory the program holds, while a scope lasts.
#pragma once

#include "support/ImportHook.h"

#include <atomic>
#include <malloc.h>

namespace TestSupport
{
// Counts what the program has allocated through malloc, under which operator new lies.
class CMemoryMeter
{
public:
    [[nodiscard]] INT64 Blocks() const noexcept { return m_blocks; }
    [[nodiscard]] INT64 Peak() const noexcept { return m_peak; }

private:
    std::atomic<INT64> m_blocks{ 0 };
    std::atomic<INT64> m_bytes{ 0 };
    std::atomic<INT64> m_peak{ 0 };
    CCallHook<void*(WINAPI*)(size_t)> m_malloc{ "msvcrt.dll", "malloc", [this](auto original, size_t size)
    {
        void* const memory = original(size);
        if (memory)
        {
            ++m_blocks;
            const INT64 now = m_bytes += static_cast<INT64>(::_msize(memory));
            INT64 peak = m_peak;
            while (now > peak && !m_peak.compare_exchange_weak(peak, now))
            {
            }
        }
        return memory;
    } };
    CCallHook<void(WINAPI*)(void*)> m_free{ "msvcrt.dll", "free", [this](auto original, void* memory)
    {
        if (memory)
        {
            --m_blocks;
            m_bytes -= static_cast<INT64>(::_msize(memory));
        }
        original(memory);
    } };
};
} // namespace TestSupport
