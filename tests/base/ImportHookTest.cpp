#include <base/VoHandle.h>

#include "support/ImportHook.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <string>

namespace
{
// An operation of two calls, with the faults that the helper exists to find. A compiler may keep an import's address over the
// whole of a function, past a hook that begins inside it.
VO_NOINLINE HRESULT Operate(const std::string& flaw, bool& reported)
{
    const auto fails = [&](HRESULT hr)
    {
        reported = flaw != "silent";
        return hr;
    };
    const CVoHandle first(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!first)
        return fails(HResultFromLastError());
    const CVoHandle second(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (second || flaw == "ignores")
        return S_OK;
    const HRESULT hr = HResultFromLastError();
    if (flaw == "leaks")
        ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    return fails(flaw == "other code" ? E_FAIL : hr);
}

TEST(ImportHook, LoopOverFailuresFindsLeaksAndSwallowedFailures)
{
    for (const std::string flaw : { "", "leaks", "ignores", "other code", "silent" })
    {
        testing::TestPartResultArray failures;
        {
            const testing::ScopedFakeTestPartResultReporter reporter(
                testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
            bool reported = false;
            ExpectEveryFailureIsHandled(
                { VO_FAULT("kernel32.dll", CreateEventW, nullptr, ERROR_NOT_ENOUGH_MEMORY) },
                [&] { return Operate(flaw, reported); }, [&](HRESULT) { return std::exchange(reported, false); });
        }
        EXPECT_EQ(failures.size() > 0, !flaw.empty()) << flaw;
    }
    EXPECT_NONFATAL_FAILURE((CFailOnCall<decltype(&::CloseHandle)>("kernel32.dll", "NoSuchFunction", 1, FALSE, 1)),
                            "does not import NoSuchFunction");
}

} // namespace
