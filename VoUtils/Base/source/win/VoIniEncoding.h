// The encodings of INI files: byte-order marks, and text to bytes. CVoIniContent reads and writes lines with them.
#pragma once

#include <win/VoIniText.h>

#include <optional>

namespace VoIniEncoding
{
// The byte-order mark of an encoding; empty for one without.
[[nodiscard]] std::string_view MarkOf(EVoTextEncoding encoding) noexcept;
[[nodiscard]] bool IsUtf16(EVoTextEncoding encoding) noexcept;
// The encoding whose mark the bytes begin with.
[[nodiscard]] std::optional<EVoTextEncoding> EncodingOfMark(std::string_view bytes) noexcept;
// The encoding that a file of these bytes is read in: that of its mark, UTF-8 where the bytes are well-formed UTF-8, else ANSI.
[[nodiscard]] EVoTextEncoding Detect(std::string_view bytes);

[[nodiscard]] constexpr wchar_t SwapBytes(wchar_t c) noexcept
{
    return static_cast<wchar_t>(((c & 0xFF) << 8) | (c >> 8));
}

// Text in an encoding, without a mark. Throws CVoHResultException with ERROR_NO_UNICODE_TRANSLATION for text that the encoding
// does not have, and std::bad_alloc.
[[nodiscard]] std::string Encode(std::wstring_view text, EVoTextEncoding encoding);
} // namespace VoIniEncoding
