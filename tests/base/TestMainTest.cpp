// A crash or a hang must never look like a pass: here child processes of this test program die in every way there is.
#include <support/TestMain.h>

#include <base/VoPlatform.h>

#include <gmock/gmock.h>

#include <stdexcept>
#include <thread>

using testing::ExitedWithCode;

TEST(TestMain, EndsACrashAnUncaughtExceptionAndAHangWithCodesOfTheirOwn)
{
    EXPECT_EXIT(::RaiseException(EXCEPTION_INT_DIVIDE_BY_ZERO, EXCEPTION_NONCONTINUABLE, 0, nullptr),
                ExitedWithCode(TestSupport::kExitCrashed), "unhandled exception 0xC0000094 at .*while running ");
    EXPECT_EXIT(std::thread([] { throw std::runtime_error("stray"); }).join(), ExitedWithCode(TestSupport::kExitAborted),
                testing::AllOf(testing::HasSubstr("stray"), testing::HasSubstr("DIED: abort")));
    ::SetEnvironmentVariableW(L"VOUTILS_TEST_TIMEOUT", L"1");
    EXPECT_EXIT(::Sleep(INFINITE), ExitedWithCode(TestSupport::kExitHung), "watchdog.* while running ");
    ::SetEnvironmentVariableW(L"VOUTILS_TEST_TIMEOUT", nullptr);
}
