// Values of INI files through the platform's profile functions, without reports: the settings are read with them, and
// VoIniValues.h reports on top.
#pragma once

#include <base/VoPlatform.h>

#include <optional>
#include <string>
#include <string_view>

namespace VoProfile
{
// The text of a key, at most 260 characters of it, or nothing when the key is missing. `file` must be a full path: the platform
// looks for any other in the Windows folder. Throws std::bad_alloc.
[[nodiscard]] std::optional<std::wstring> ReadValue(const std::wstring& file, const wchar_t* section, const wchar_t* key);

// A decimal number with an optional sign and white space around it; nothing for any other text. A number that does not fit
// into 32 bits becomes the nearest limit and sets `isOutOfRange` (may be null).
[[nodiscard]] std::optional<INT32> ParseInteger(std::wstring_view text, bool* isOutOfRange = nullptr) noexcept;
} // namespace VoProfile
