// Tests of the test support that injects failures.
#include <base/VoHandle.h>

#include "support/ImportHook.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace
{
// A compiler may keep an import's address over the whole of a function, past a hook that begins inside it.
VO_NOINLINE HRESULT Operate(bool leaks)
{
    const CVoHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (event)
        return S_OK;
    const HRESULT hr = HResultFromLastError();
    if (leaks)
        ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    return hr;
}

// A swallowed failure cannot pass for a handled one; a leak or a failure that nobody reports could.
TEST(ImportHook, LoopOverFailuresFindsLeaksAndMissingReports)
{
    for (const auto& [leaks, reports] : { std::pair(false, true), { true, true }, { false, false } })
    {
        testing::TestPartResultArray failures;
        {
            const testing::ScopedFakeTestPartResultReporter reporter(
                testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
            ExpectEveryFailureIsHandled({ VO_FAULT("kernel32.dll", CreateEventW, nullptr, ERROR_NOT_ENOUGH_MEMORY) },
                                        [leaks] { return Operate(leaks); }, [reports](HRESULT) { return reports; });
        }
        EXPECT_EQ(failures.size() > 0, leaks || !reports);
    }
}
} // namespace
