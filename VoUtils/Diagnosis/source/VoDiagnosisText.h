// What the renderers share.
#pragma once

#include <string>
#include <string_view>

namespace VoDiagnosisText
{
// VoVisibleText in UTF-8. Throws std::bad_alloc, as all functions here.
[[nodiscard]] std::string Utf8(std::wstring_view text, size_t limit = 1000);
} // namespace VoDiagnosisText
