// Shows a report as text, as JSON and as a page. Pure functions: they read the report and nothing else.
//
// Every text that goes out is bounded and escaped: control characters and the marks that change the direction of text (U+202A
// to U+202E, U+2066 to U+2069, U+200E, U+200F, U+061C) become visible as "\u001B".
#pragma once

#include <VoDiagnosisReport.h>

#include <string>
#include <string_view>
#include <vector>

// How a piece of a line looks on a terminal.
enum class EVoTextStyle
{
    Plain,
    Good,
    Warning,
    Bad,
    Faint,
    Strong
};
struct CVoTextPiece
{
    EVoTextStyle style = EVoTextStyle::Plain;
    std::wstring text;
};
using CVoTextLine = std::vector<CVoTextPiece>; // without a line end

// A text with its invisible characters made visible, cut to `limit` characters ("..." behind the cut). Throws std::bad_alloc.
[[nodiscard]] std::wstring VoVisibleText(std::wstring_view text, size_t limit = 1000);

// One check: its mark, its name, the evidence, and for a fault what to do on a second line. `unicode`: the marks of the page
// (a tick, a cross); otherwise plain characters: + ! x o -. Throws std::bad_alloc.
[[nodiscard]] std::vector<CVoTextLine> VoRenderCheck(const CVoCheck& check, bool unicode);
// What stands behind the checks: the phases of each transport as bars on one scale, the summary, the advice. Throws
// std::bad_alloc.
[[nodiscard]] std::vector<CVoTextLine> VoRenderConclusion(const CVoDiagnosisReport& report, bool unicode);

// The phases of a request, for a drawing of one's own.
namespace VoDiagnosisText
{
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

// The whole report on one line, for a run that is repeated: when, the verdict, what is wrong. Throws std::bad_alloc.
[[nodiscard]] CVoTextLine VoRenderPass(const CVoDiagnosisReport& report, bool unicode);

// One JSON object on one line (UTF-8, no line end). Throws std::bad_alloc.
[[nodiscard]] std::string VoRenderJson(const CVoDiagnosisReport& report);

// One self-contained HTML page (UTF-8): no script, no outside reference. Throws std::bad_alloc.
[[nodiscard]] std::string VoRenderHtml(const CVoDiagnosisReport& report);
