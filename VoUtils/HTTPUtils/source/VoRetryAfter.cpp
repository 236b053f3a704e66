// Reads the header Retry-After; see VoRetryAfter.h.
#include "VoRetryAfter.h"

#include <VoCookieData.h>

#include <base/VoText.h>

#include <algorithm>

std::optional<INT64> VoParseRetryAfter(std::wstring_view text, double now) noexcept
{
    constexpr double kSecondsPerDay = 86'400;
    constexpr double kMicrosecondsPerSecond = 1'000'000;
    constexpr double kLongest = MAXDWORD / 1000; // seconds
    text = VoTrim(text);
    std::optional<double> seconds;
    if (const auto number = VoParseDecimalClamped<UINT64>(text))
        seconds = static_cast<double>(*number);
    else if (const auto date = CVoCookieData::ParseDateTime(text)) // the three forms of a cookie's date are those of HTTP
        seconds = (*date - now) * kSecondsPerDay;
    return seconds ? std::optional(static_cast<INT64>(std::clamp(*seconds, 0.0, kLongest) * kMicrosecondsPerSecond))
                   : std::nullopt;
}
