// Conversions between UTF-16 and code pages that do not report: the log writes its own lines through them.
#pragma once

#include <base/VoPlatform.h>

#include <string>
#include <string_view>

namespace VoCodePage
{
// Both write their output on success only and throw std::bad_alloc. The UTF-8 code page refuses malformed text; the others
// replace what they do not have, as the platform does.
[[nodiscard]] HRESULT FromText(UINT codePage, std::wstring_view text, std::string& bytes);
[[nodiscard]] HRESULT ToText(UINT codePage, std::string_view bytes, std::wstring& text);
} // namespace VoCodePage
