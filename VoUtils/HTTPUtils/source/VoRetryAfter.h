// Reads the header Retry-After, with which a server asks for a pause. The transport core uses it.
#pragma once

#include <base/VoPlatform.h>

#include <optional>
#include <string_view>

// The microseconds from `now` (an automation date in UTC) that a Retry-After value asks for: a number of seconds, or a date
// (RFC 9110, section 10.2.3). At most 0xFFFFFFFF milliseconds, which a wait function takes. A date in the past gives 0.
// nullopt for any other text.
[[nodiscard]] std::optional<INT64> VoParseRetryAfter(std::wstring_view text, double now) noexcept;
