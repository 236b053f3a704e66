// Makes one allocation, or one call of the platform, fail while an operation runs, and counts the blocks that the operation
// leaves, on all threads of the program.
#pragma once

#include <base/VoErrorHandler.h>
#include <base/VoLock.h>
#include <base/VoMultiThreading.h>
#include <base/VoReportChain.h>
#include <support/ImportHook.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <span>
#include <utility>
#include <vector>

namespace Stress
{
// Places that do not stand a failed allocation and are none of the library's: they get the memory.
class CPassedOver
{
public:
    CPassedOver() noexcept;
    // Whether one of them asks for memory now, on this thread.
    [[nodiscard]] bool Asks() const noexcept;

private:
    std::array<const void*, 2> m_functions; // where they begin in the table of the unwinder
};

// The blocks that are in use, of those that were noted. Its own memory is there from the beginning.
class CBlocks
{
public:
    void Clear() noexcept;
    void Add(const void* block) noexcept;
    // A block that was not noted is ignored. Whether it was.
    bool Remove(const void* block) noexcept;
    [[nodiscard]] int Count() const noexcept { return m_count; }

private:
    static constexpr size_t kSize = size_t{ 1 } << 16; // many times what an operation has

    [[nodiscard]] size_t Find(const void* block) const noexcept;

    CVoLock m_lock;
    std::vector<const void*> m_blocks = std::vector<const void*>(kSize); // by their address; the next free place behind it
    std::atomic<int> m_count{ 0 };
};

class CInjector
{
public:
    // The number of the allocation that fails; 0: none.
    void Begin(int failing) noexcept
    {
        m_failing = failing;
        m_count = 0;
        m_blocks.Clear();
        m_isFirst = true;
        m_chain.Clear();
        m_isCounting = true;
    }
    void End() noexcept { m_isCounting = false; }
    [[nodiscard]] HRESULT Run(const std::function<HRESULT()>& operation)
    {
        // The platform frees the texts of variants itself, so only the program's own blocks are counted.
        const CVoReportScope scope(&m_chain);
        // Only the operation meets the fault, not what is done in front of it and behind it; and only its first try.
        const bool isFirst = std::exchange(m_isFirst, false);
        std::vector<std::unique_ptr<CFailingCall>> hooks;
        if (isFirst && !m_faults.empty())
        {
            m_isCounting = false;
            for (const CFault& fault : m_faults)
                hooks.push_back(fault.inject(m_faultCall));
            m_isCounting = true;
        }
        m_isInside = isFirst;
        HRESULT hr = E_UNEXPECTED;
        try
        {
            hr = operation();
        }
        catch (const std::bad_alloc&)
        {
            hr = E_OUTOFMEMORY; // of a function that says so
            VoReportCode(L"..\\stress", 1, L"caught", hr);
        }
        m_isInside = false;
        if (!hooks.empty())
        {
            m_isCounting = false;
            m_calls.clear();
            for (const std::unique_ptr<CFailingCall>& hook : hooks)
                m_calls.push_back(hook->Calls());
            while (!hooks.empty())
                hooks.pop_back(); // hooks end in reverse
            m_isCounting = true;
        }
        return hr;
    }
    // The call of each of these functions that fails, too; 0: none, they are counted.
    void SetFaults(std::span<const CFault> faults, int call) noexcept
    {
        m_faults = faults;
        m_faultCall = call;
    }
    // How often each was called.
    [[nodiscard]] const std::vector<int>& Calls() const noexcept { return m_calls; }
    [[nodiscard]] bool HasFailed() const noexcept { return m_failing > 0 && m_count >= m_failing; }
    [[nodiscard]] int Blocks() const noexcept { return m_blocks.Count(); }
    // Waits until threads that still end have left that number of blocks, for that time each at most.
    void AwaitBlocks(int blocks, DWORD milliseconds) noexcept
    {
        m_awaited = blocks;
        m_isAwaiting = true;
        while (m_blocks.Count() != blocks && ::WaitForSingleObject(m_settled.Handle(), milliseconds) == WAIT_OBJECT_0)
        {
        }
        m_isAwaiting = false;
    }
    // What the first report and the first exceptions make stays: it is made before anything fails. The second exception has
    // no memory and makes what the run-time keeps for that.
    void MakeRoom()
    {
        for (const int failing : { 0, 1 })
            try
            {
                Begin(failing);
                m_isInside = true;
                throw std::bad_alloc();
            }
            catch (const std::bad_alloc&)
            {
                m_isInside = false;
                VoReportCode(L"..\\stress", 1, L"MakeRoom", E_OUTOFMEMORY);
            }
        End();
        for (size_t i = 0; i < CVoReportChain::kMaximum; ++i)
            m_chain.Add({});
        m_chain.Clear();
    }
    [[nodiscard]] std::vector<CVoReport> Reports() const { return m_chain.Get(); }

private:
    [[nodiscard]] bool Fails() noexcept { return m_isCounting && m_isInside && ++m_count == m_failing && !m_passedOver.Asks(); }
    // Other threads of the platform keep their variables for the next operation.
    [[nodiscard]] bool Notes() const noexcept
    {
        return m_isCounting && (::GetCurrentThreadId() == m_thread || !m_passedOver.Asks());
    }
    void* Note(void* memory) noexcept
    {
        if (memory && Notes())
            m_blocks.Add(memory);
        return memory;
    }

    const DWORD m_thread = ::GetCurrentThreadId();
    const CPassedOver m_passedOver;
    CEvent m_settled{ false, false };
    std::atomic<bool> m_isCounting{ false };
    std::atomic<bool> m_isInside{ false };
    std::atomic<bool> m_isAwaiting{ false };
    std::atomic<int> m_awaited{ 0 };
    bool m_isFirst = false;
    std::span<const CFault> m_faults;
    int m_faultCall = 0;
    std::vector<int> m_calls;
    std::atomic<int> m_failing{ 0 };
    std::atomic<int> m_count{ 0 };
    CBlocks m_blocks;
    CVoReportChain m_chain;
    CCallHook<void*(WINAPI*)(size_t)> m_malloc{ "msvcrt.dll", "malloc", [this](auto original, size_t size)
    { return Fails() ? nullptr : Note(original(size)); } };
    // These three are libcurl's, zlib's and the run-time's.
    CCallHook<void*(WINAPI*)(size_t, size_t)> m_calloc{ "msvcrt.dll", "calloc", [this](auto original, size_t count, size_t size)
    { return Fails() ? nullptr : Note(original(count, size)); } };
    CCallHook<void*(WINAPI*)(void*, size_t)> m_realloc{ "msvcrt.dll", "realloc",
                                                        [this](auto original, void* memory, size_t size) -> void*
    {
        if (Fails())
            return nullptr;
        // Its address is another thread's as soon as it is free.
        const bool isNoted = memory ? m_blocks.Remove(memory) : Notes();
        void* const moved = original(memory, size);
        if (isNoted && (moved || size != 0))
            m_blocks.Add(moved ? moved : memory);
        return moved;
    } };
    CCallHook<char*(WINAPI*)(const char*)> m_strdup{ "msvcrt.dll", "_strdup", [this](auto original, const char* text)
    { return Fails() ? nullptr : static_cast<char*>(Note(original(text))); } };
    CCallHook<void(WINAPI*)(void*)> m_free{ "msvcrt.dll", "free", [this](auto original, void* memory)
    {
        const bool isNoted = memory && m_blocks.Remove(memory);
        original(memory);
        if (isNoted && m_isAwaiting && m_blocks.Count() == m_awaited)
            ::SetEvent(m_settled.Handle());
    } };
    CCallHook<decltype(&::SysAllocStringLen)> m_text{ "oleaut32.dll", "SysAllocStringLen",
                                                      [this](auto original, auto text, UINT size)
    { return Fails() ? nullptr : original(text, size); } };
};
} // namespace Stress
