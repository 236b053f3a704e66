#include <base/VoErrorHandler.h>
#include <base/VoUtils.h>

#include <support/LogCapture.h>

using namespace TestSupport;
using testing::ElementsAre;

namespace
{
constexpr const wchar_t* kSource = L"..\\source\\Example";

HRESULT Inner() noexcept
{
    constexpr CVoReporter report{ kSource, L"Example::Inner" };
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    return report.LastError(11, 12);
}

HRESULT Outer() noexcept
{
    constexpr CVoReporter report{ kSource, L"Example::Outer" };
    if (const HRESULT hr = Inner(); FAILED(hr))
        return report(21, hr);
    return S_OK;
}
} // namespace

TEST(ErrorLog, EachCallerOfAFailureLeavesItsLineAndTheCodeComesThrough)
{
    const CLogCapture log;
    constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070002);
    EXPECT_EQ(Outer(), kNotFound);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 11, L"Example::Inner", kNotFound),
                                         IsReport(kSource, 21, L"Example::Outer", kNotFound)));
}
