// Makes one allocation, or one call of the platform, fail while an operation runs, and counts the blocks that the operation
// leaves.
#pragma once

#include <base/VoErrorHandler.h>
#include <base/VoReportChain.h>
#include <support/ImportHook.h>

#include <malloc.h>

#include <functional>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace Stress
{
// Counts the blocks of this thread, and fails one allocation of the operation.
class CInjector
{
public:
    // The number of the allocation that fails; 0: none.
    void Begin(int failing) noexcept
    {
        m_failing = failing;
        m_count = 0;
        m_blocks = 0;
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
        std::unique_ptr<CFailingCall> fault;
        if (isFirst && m_fault)
        {
            m_isCounting = false;
            fault = m_fault->inject(m_faultCall);
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
        if (fault)
        {
            m_isCounting = false;
            m_faultCalls = fault->Calls();
            fault.reset();
            m_isCounting = true;
        }
        return hr;
    }
    // The call of the platform's function that fails, too; 0: none, they are counted. Null: no function.
    void SetFault(const CFault* fault, int call) noexcept
    {
        m_fault = fault;
        m_faultCall = call;
        m_faultCalls = 0;
    }
    [[nodiscard]] int FaultCalls() const noexcept { return m_faultCalls; }
    [[nodiscard]] bool HasFailed() const noexcept { return m_failing > 0 && m_count >= m_failing; }
    [[nodiscard]] int Blocks() const noexcept { return m_blocks; }
    // What the first report and the first exception of a thread make stays: it is made before anything fails.
    void MakeRoom()
    {
        try
        {
            throw std::bad_alloc();
        }
        catch (const std::bad_alloc&)
        {
            VoReportCode(L"..\\stress", 1, L"MakeRoom", E_OUTOFMEMORY);
        }
        for (size_t i = 0; i < CVoReportChain::kMaximum; ++i)
            m_chain.Add({});
        m_chain.Clear();
    }
    [[nodiscard]] std::vector<CVoReport> Reports() const { return m_chain.Get(); }

private:
    [[nodiscard]] bool IsMine() const noexcept { return m_isCounting && ::GetCurrentThreadId() == m_thread; }
    [[nodiscard]] bool Fails() noexcept { return IsMine() && m_isInside && ++m_count == m_failing; }
    void* Count(void* memory) noexcept
    {
        m_blocks += memory && IsMine();
        return memory;
    }

    const DWORD m_thread = ::GetCurrentThreadId();
    bool m_isCounting = false;
    bool m_isInside = false;
    bool m_isFirst = false;
    const CFault* m_fault = nullptr;
    int m_faultCall = 0;
    int m_faultCalls = 0;
    int m_failing = 0;
    int m_count = 0;
    int m_blocks = 0;
    CVoReportChain m_chain;
    CCallHook<void*(WINAPI*)(size_t)> m_malloc{ "msvcrt.dll", "malloc", [this](auto original, size_t size)
    { return Fails() ? nullptr : Count(original(size)); } };
    // libcurl's own, which are counted only.
    CCallHook<void*(WINAPI*)(size_t, size_t)> m_calloc{ "msvcrt.dll", "calloc", [this](auto original, size_t count, size_t size)
    { return Count(original(count, size)); } };
    CCallHook<void*(WINAPI*)(void*, size_t)> m_realloc{ "msvcrt.dll", "realloc",
                                                        [this](auto original, void* memory, size_t size)
    { return memory ? original(memory, size) : Count(original(memory, size)); } };
    CCallHook<char*(WINAPI*)(const char*)> m_strdup{ "msvcrt.dll", "_strdup", [this](auto original, const char* text)
    { return static_cast<char*>(Count(original(text))); } };
    CCallHook<void(WINAPI*)(void*)> m_free{ "msvcrt.dll", "free", [this](auto original, void* memory)
    {
        m_blocks -= memory && IsMine();
        original(memory);
    } };
    CCallHook<decltype(&::SysAllocStringLen)> m_text{ "oleaut32.dll", "SysAllocStringLen",
                                                      [this](auto original, auto text, UINT size)
    { return Fails() ? nullptr : original(text, size); } };
};
} // namespace Stress
