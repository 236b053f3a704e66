// Scripted networks: facts as the probes would find them, and what must come out.
#pragma once

#include "VoDiagnosisFinding.h"
#include "VoDiagnosisJudge.h"

#include <functional>
#include <string>
#include <vector>

namespace Scenarios
{
// Changes the facts of a network.
using CStep = std::function<void(VoDiagnosis::CFacts&)>;

struct CScenario
{
    const char* name;
    // "verdict: check cause; check cause, check cause!; use transport": the first check that fails, the other findings, where a
    // "!" marks a failure, and the transport that is recommended. " on all": all transports fail with that cause.
    const char* result;
    std::vector<CStep> steps; // from a healthy network
};

[[nodiscard]] const std::vector<CScenario>& All();
[[nodiscard]] VoDiagnosis::CFacts FactsOf(const CScenario& scenario);
// The report of facts that are complete, as the runner makes it.
[[nodiscard]] CVoDiagnosisReport ReportOf(const VoDiagnosis::CFacts& facts);

// As CScenario::result has it.
[[nodiscard]] std::string ResultOf(const CVoDiagnosisReport& report);
[[nodiscard]] std::string Narrow(std::wstring_view text);
// The three forms of a report, one after the other: text, JSON, page.
[[nodiscard]] std::string OutputsOf(const CVoDiagnosisReport& report);
} // namespace Scenarios
