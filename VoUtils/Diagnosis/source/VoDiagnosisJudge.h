// Judges the facts of a diagnosis: each check by itself, then the whole. Pure functions.
#pragma once

#include "VoDiagnosisFacts.h"

#include <VoDiagnosisReport.h>

#include <optional>
#include <string>
#include <vector>

namespace VoDiagnosis
{
// The ids and names of the checks of a run, in their order. Throws std::bad_alloc, as all functions here.
[[nodiscard]] std::vector<CVoCheck> MakeChecks(const CFacts& facts);

// The check with its final state; nothing while facts are missing that may change it. When every probe is over, each check has
// one. `id` is one of MakeChecks.
[[nodiscard]] std::optional<CVoCheck> Judge(const CFacts& facts, const std::string& id);

// The verdict over the checks of a run. Checks that are not final are counted as cancelled.
[[nodiscard]] CVoDiagnosisReport Conclude(const CFacts& facts, std::vector<CVoCheck> checks);

// A URL as reports show it: user information hidden, the query as its length. Also of a text that is no URL.
[[nodiscard]] std::wstring ReportedUrl(std::wstring_view url);
} // namespace VoDiagnosis
