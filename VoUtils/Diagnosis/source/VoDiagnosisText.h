// What the renderers share.
#pragma once

#include <VoDiagnosisReport.h>

#include <string>
#include <string_view>
#include <vector>

namespace VoDiagnosisText
{
// VoVisibleText in UTF-8. Throws std::bad_alloc, as all functions here.
[[nodiscard]] std::string Utf8(std::wstring_view text, size_t limit = 1000);

// A phase of a request, from the end of the one before to its own, in microseconds.
struct CPhase
{
    const char* key;
    wchar_t letter;
    const wchar_t* name;
    INT64 begin;
    INT64 end;
};
[[nodiscard]] std::vector<CPhase> PhasesOf(const CVoTimeline& line);
// The end of the longest timeline: the scale of the bars. At least 1.
[[nodiscard]] INT64 LongestOf(const CVoDiagnosisReport& report) noexcept;
} // namespace VoDiagnosisText
