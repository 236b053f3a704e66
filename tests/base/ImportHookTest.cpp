#include "support/ImportHook.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <thread>

namespace
{
using CreateEventFunction = decltype(&::CreateEventW);

// A compiler may keep the import's address over the whole of a function, past a hook that begins inside it.
VO_NOINLINE HANDLE MakeEvent()
{
    return ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

struct SHandle
{
    HANDLE handle = MakeEvent();
    ~SHandle()
    {
        if (handle)
            ::CloseHandle(handle);
    }
};

TEST(ImportHook, FailsTheChosenCallOnlyAndRestoresTheFunction)
{
    {
        CFailOnCall<CreateEventFunction> fail("KERNEL32.DLL", "CreateEventW", 2, nullptr, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_NE(SHandle().handle, nullptr);
        ::SetLastError(0);
        EXPECT_EQ(SHandle().handle, nullptr);
        EXPECT_EQ(::GetLastError(), DWORD{ ERROR_NOT_ENOUGH_MEMORY });
        EXPECT_NE(SHandle().handle, nullptr);
        EXPECT_EQ(fail.Calls(), 3);
    }
    CFailOnCall<CreateEventFunction> count("kernel32.dll", "CreateEventW", 0, nullptr, 0);
    EXPECT_NE(SHandle().handle, nullptr);
    EXPECT_EQ(count.Calls(), 1);
}

TEST(ImportHook, HooksOfOneFunctionNestAndReplacementsSeeTheArguments)
{
    BOOL manual = FALSE;
    CCallHook<CreateEventFunction> outer(
        "kernel32.dll", "CreateEventW",
        [&manual](auto original, LPSECURITY_ATTRIBUTES security, BOOL manualReset, BOOL initial, LPCWSTR name)
        {
            manual = manualReset;
            return original(security, manualReset, initial, name);
        });
    CFailOnCall<CreateEventFunction> inner("kernel32.dll", "CreateEventW", 1, nullptr, ERROR_ACCESS_DENIED);
    EXPECT_EQ(SHandle().handle, nullptr);
    EXPECT_FALSE(manual);
    EXPECT_NE(SHandle().handle, nullptr);
    EXPECT_TRUE(manual);
}

TEST(ImportHook, FunctionThatIsNotImportedFailsTheTest)
{
    EXPECT_NONFATAL_FAILURE((CFailOnCall<CreateEventFunction>("kernel32.dll", "NoSuchFunction", 1, nullptr, 1)),
                            "does not import NoSuchFunction");
}

TEST(ImportHook, BalanceCountsWhatIsAcquiredAndNotReleased)
{
    CAcquireBalance events =
        CAcquireBalance::Of<CreateEventFunction, decltype(&::CloseHandle)>("kernel32.dll", "CreateEventW", "CloseHandle");
    CFailOnCall<CreateEventFunction> fail("kernel32.dll", "CreateEventW", 2, nullptr, ERROR_ACCESS_DENIED);
    {
        const SHandle acquired;
        const SHandle refused;
        EXPECT_EQ(events.Open(), 1);
    }
    EXPECT_EQ(events.Open(), 0);
}

TEST(ImportHook, CallsOfOtherThreadsRunWhileHooksComeAndGo)
{
    std::atomic<bool> stop{ false };
    std::atomic<int> failed{ 0 };
    std::atomic<int> made{ 0 };
    std::thread caller(
        [&]
        {
            while (!stop)
            {
                if (SHandle().handle == nullptr)
                    ++failed;
                ++made;
            }
        });
    for (int round = 0; round < 2000; ++round)
        CFailOnCall<CreateEventFunction> hook("kernel32.dll", "CreateEventW", 1, nullptr, ERROR_ACCESS_DENIED);
    const int madeBefore = made;
    {
        CFailOnCall<CreateEventFunction> hook("kernel32.dll", "CreateEventW", 1, nullptr, ERROR_ACCESS_DENIED);
        while (hook.Calls() < 1)
            std::this_thread::yield();
    }
    stop = true;
    caller.join();
    EXPECT_GE(failed, 1);
    EXPECT_GE(made, madeBefore);
}

// An operation with the faults that the helper exists to find.
enum class EFlaw
{
    None,
    Leaks,
    IgnoresFailure,
    WrongCode,
    Silent
};

struct SOperation
{
    EFlaw flaw;
    bool reported = false;

    HRESULT Run()
    {
        const SHandle first;
        if (!first.handle)
            return Report(HResultFromLastError());
        HANDLE second = MakeEvent();
        const HRESULT hr =
            second || flaw == EFlaw::IgnoresFailure ? S_OK : Report(flaw == EFlaw::WrongCode ? E_FAIL : HResultFromLastError());
        if (second)
            ::CloseHandle(second);
        else if (flaw == EFlaw::Leaks)
            ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
        return hr;
    }
    HRESULT Report(HRESULT hr)
    {
        reported = flaw != EFlaw::Silent;
        return hr;
    }
};

void Examine(EFlaw flaw)
{
    SOperation operation{ flaw };
    ExpectEveryFailureIsHandled(
        { VO_FAULT("kernel32.dll", CreateEventW, nullptr, ERROR_NOT_ENOUGH_MEMORY) }, [&] { return operation.Run(); },
        [&](HRESULT) { return std::exchange(operation.reported, false); });
}

TEST(ImportHook, LoopOverFailuresFindsLeaksAndSwallowedFailures)
{
    Examine(EFlaw::None);
    for (const EFlaw flaw : { EFlaw::Leaks, EFlaw::IgnoresFailure, EFlaw::WrongCode, EFlaw::Silent })
    {
        testing::TestPartResultArray failures;
        {
            const testing::ScopedFakeTestPartResultReporter reporter(
                testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
            Examine(flaw);
        }
        EXPECT_GT(failures.size(), 0) << static_cast<int>(flaw);
    }
}
} // namespace
