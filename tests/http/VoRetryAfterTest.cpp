// The pause that a server asks for.
#include "VoRetryAfter.h"

#include <VoCookieData.h>

#include <gtest/gtest.h>

namespace
{
TEST(RetryAfter, IsANumberOfSecondsOrADate)
{
    constexpr INT64 kSecond = 1'000'000;
    constexpr INT64 kLongest = INT64{ MAXDWORD / 1000 } * kSecond;
    const std::pair<const wchar_t*, std::optional<INT64>> table[] = {
        { L"0", 0 },
        { L" 120\t", 120 * kSecond },
        { L"99999999999999999999999", kLongest },
        { L"Fri, 31 Dec 1999 23:59:59 GMT", 59 * kSecond },
        { L"Friday, 31-Dec-99 23:59:59 GMT", 59 * kSecond },
        { L"Fri Dec 31 23:59:59 1999", 59 * kSecond },
        { L"Fri, 31 Dec 1999 23:58:59 GMT", 0 },
        { L"Fri, 31 Dec 2999 23:59:59 GMT", kLongest },
        { L"", std::nullopt },
        { L"-1", std::nullopt },
        { L"1.5", std::nullopt },
        { L"soon", std::nullopt },
    };
    const double now = *CVoCookieData::ParseDateTime(L"Fri, 31 Dec 1999 23:59:00 GMT");
    for (const auto& [text, expected] : table)
    {
        const std::optional<INT64> pause = VoParseRetryAfter(text, now);
        ASSERT_EQ(pause.has_value(), expected.has_value()) << testing::PrintToString(text);
        EXPECT_NEAR(static_cast<double>(pause.value_or(0)), static_cast<double>(expected.value_or(0)),
                    1000); // a date is a double
    }
}
} // namespace
