// The causes that a diagnosis can find: one table, from which come the sentences of the report, and docs/doctor.md.
#pragma once

#include <VoDiagnosisReport.h>

#include <span>
#include <string>
#include <string_view>

// One cause. The texts may hold names in braces, which the finding fills in:
//   {host} {port} {url}  of the address          {proxy}  "host:port" of the proxy
//   {engine}             the transport           {what}   what was seen: a status, an issuer, a value
struct CVoDiagnosisCause
{
    const char* id;         // stable: "connect_refused"
    const char* check;      // the check that finds it; "http-*" for those of the transports
    EVoVerdict area;        // where the fault lies, unless other evidence says otherwise
    int priority;           // of several causes of one check the one with the lowest number is told
    const wchar_t* meaning; // for the reader of the table
    const wchar_t* seen;    // how it is seen
    const wchar_t* summary; // of the report: one sentence
    const wchar_t* advice;  // one step a line
};

// All causes, in the order of the checks.
[[nodiscard]] std::span<const CVoDiagnosisCause> VoDiagnosisCauses() noexcept;
// The cause of that id; null when there is none.
[[nodiscard]] const CVoDiagnosisCause* VoFindDiagnosisCause(std::string_view id) noexcept;

// The table as a page: docs/doctor.md (Markdown, UTF-8, "\n"). Throws std::bad_alloc.
[[nodiscard]] std::string VoDiagnosisCausesPage();
