// Shows a report as one self-contained page (VoDiagnosisRender.h).
#include "VoDiagnosisText.h"

#include <VoDiagnosisRender.h>

#include <base/VoText.h>

namespace
{
constexpr const char* kStyle = R"(
:root{color-scheme:light dark;--ink:#1d2330;--soft:#5b6475;--line:#d9dee7;--paper:#fff;--back:#f3f5f9;--good:#12753b;--warn:#8a5a00;--bad:#b3261e}
@media(prefers-color-scheme:dark){:root{--ink:#e8ebf2;--soft:#a4adbd;--line:#3a4252;--paper:#1c212b;--back:#12161d;--good:#5cc98a;--warn:#e5b454;--bad:#ff8a80}}
*{box-sizing:border-box}
body{margin:0;background:var(--back);color:var(--ink);font:16px/1.5 system-ui,"Segoe UI",sans-serif}
main{max-width:60rem;margin:0 auto;padding:1rem}
section{background:var(--paper);border:1px solid var(--line);border-radius:.5rem;padding:1rem;margin:0 0 1rem}
h1{font-size:1.25rem;margin:0 0 .25rem;overflow-wrap:anywhere}
h2{font-size:1rem;margin:0 0 .5rem}
p{margin:.25rem 0}
ol{margin:.5rem 0 0;padding-left:1.5rem}
.soft{color:var(--soft);font-size:.875rem}
.pass,.ok{color:var(--good)}.warn,.degraded{color:var(--warn)}.fail,.bad{color:var(--bad)}.skip,.na{color:var(--soft)}
.verdict{border-left:.5rem solid currentColor}
.verdict *{color:var(--ink)}.verdict h2{color:inherit;font-size:1.125rem}
details{border-top:1px solid var(--line);padding:.5rem 0;overflow-wrap:anywhere}
summary{cursor:pointer;display:grid;grid-template-columns:1.5rem 11rem 1fr;gap:.25rem}
summary b{font-weight:600}
summary::marker{content:""}
summary .mark{font-weight:700}
details p,details>table{margin-left:1.75rem}
table{border-collapse:collapse;font-size:.875rem;margin-top:.5rem}
td table{margin:0 0 .5rem}
td table tr:first-child>*{border-top:0}
td,th{border:0;border-top:1px solid var(--line);padding:.125rem .5rem .125rem 0;text-align:left;vertical-align:top;font-weight:400}
th{color:var(--soft);white-space:nowrap}
.line{display:grid;grid-template-columns:8rem 1fr 5rem;gap:.5rem;align-items:center;margin:.25rem 0}
.bar{display:flex;height:1.125rem;background:var(--back);border-radius:.25rem;overflow:hidden}
.bar span{min-width:2px;height:100%}
.name{background:#7b61c9}.connect{background:#2f7fd1}.tls{background:#1a9c8c}.sent{background:#8fae2d}.firstByte{background:#e09b2d}.total{background:#c95b76}
.key{display:inline-block;width:.75rem;height:.75rem;margin:0 .25rem 0 .75rem;border-radius:2px}
@media(max-width:40rem){summary{grid-template-columns:1.5rem 1fr}summary .detail{grid-column:2}.line{grid-template-columns:5.5rem 1fr 4.5rem}details p,details>table{margin-left:0}}
@media print{body{background:#fff}section{break-inside:avoid}}
)";

std::string Escaped(std::wstring_view text)
{
    std::string escaped;
    for (const char c : VoDiagnosisText::Utf8(text))
        switch (c)
        {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&#39;";
            break;
        default:
            escaped += c;
        }
    return escaped;
}

std::string MillisecondsText(INT64 microseconds)
{
    return VoDiagnosisText::Utf8(VoFormat(L"%.1f ms", static_cast<double>(microseconds) / 1000));
}

struct CLook
{
    const char* style;
    const char* mark; // UTF-8, as character references
};
CLook LookOf(EVoCheckStatus status) noexcept
{
    switch (status)
    {
    case EVoCheckStatus::Pass:
        return { "pass", "&#10003;" };
    case EVoCheckStatus::Warn:
        return { "warn", "!" };
    case EVoCheckStatus::Fail:
        return { "fail", "&#10007;" };
    case EVoCheckStatus::Skip:
        return { "skip", "&#8856;" };
    default:
        return { "na", "&#8211;" };
    }
}

void AppendFacts(std::string& page, const std::vector<CVoDiagnosisFact>& facts);

struct CValueWriter
{
    std::string& page;

    void operator()(bool value) const { page += value ? "yes" : "no"; }
    void operator()(INT64 number) const { page += std::to_string(number); }
    void operator()(std::chrono::microseconds time) const { page += MillisecondsText(time.count()); }
    void operator()(const std::wstring& text) const { page += Escaped(text); }
    void operator()(const std::vector<std::wstring>& texts) const
    {
        for (size_t i = 0; i < texts.size(); ++i)
            page += (i == 0 ? "" : "<br>") + Escaped(texts[i]);
    }
    void operator()(const CVoDiagnosisFact::CRecords& records) const
    {
        for (const auto& record : records)
            AppendFacts(page, record);
    }
};

bool IsEmpty(const CVoDiagnosisFact& fact)
{
    const auto* const text = std::get_if<std::wstring>(&fact.value);
    const auto* const texts = std::get_if<std::vector<std::wstring>>(&fact.value);
    const auto* const records = std::get_if<CVoDiagnosisFact::CRecords>(&fact.value);
    return (text && text->empty()) || (texts && texts->empty()) || (records && records->empty());
}

void AppendFacts(std::string& page, const std::vector<CVoDiagnosisFact>& facts)
{
    page += "<table>";
    for (const CVoDiagnosisFact& fact : facts)
    {
        if (IsEmpty(fact))
            continue;
        page += "<tr><th>" + fact.key + "</th><td>";
        std::visit(CValueWriter{ page }, fact.value);
        page += "</td></tr>";
    }
    page += "</table>\n";
}

void AppendCheck(std::string& page, const CVoCheck& check)
{
    const CLook look = LookOf(check.status);
    page += std::string("<details") + (check.cause.empty() ? "" : " open") + "><summary><span class=\"mark " + look.style +
            "\">" + look.mark + "</span><b>" + Escaped(check.name) + "</b><span class=\"detail\">" + Escaped(check.detail) +
            "</span></summary>\n";
    if (!check.fix.empty())
        page += "<p>" + Escaped(check.fix) + "</p>\n";
    page += "<p class=\"soft\">" + std::string(VoCheckStatusName(check.status)) +
            (check.cause.empty() ? "" : ", cause " + check.cause) + ", " + MillisecondsText(check.microseconds) + "</p>\n";
    if (!check.facts.empty())
        AppendFacts(page, check.facts);
    page += "</details>\n";
}

void AppendTimelines(std::string& page, const CVoDiagnosisReport& report)
{
    const INT64 longest = VoDiagnosisText::LongestOf(report);
    page += "<section><h2>Phases of the requests</h2>\n<p class=\"soft\">";
    constexpr std::pair<const char*, const char*> kPhases[] = { { "name", "name" },      { "connect", "connect" },
                                                                { "tls", "TLS" },        { "sent", "send" },
                                                                { "firstByte", "wait" }, { "total", "receive" } };
    for (const auto& [key, name] : kPhases)
        page += "<span class=\"key " + std::string(key) + "\"></span>" + name;
    page += "</p>\n";
    for (const CVoTimeline& line : report.timelines)
    {
        const std::vector<VoDiagnosisText::CPhase> phases = VoDiagnosisText::PhasesOf(line);
        page += "<div class=\"line\"><span>" + line.engine + "</span><span class=\"bar\">";
        for (const VoDiagnosisText::CPhase& phase : phases)
            page += "<span class=\"" + std::string(phase.key) + "\" title=\"" + Escaped(phase.name) + ' ' +
                    MillisecondsText(phase.end - phase.begin) + "\" style=\"width:" +
                    VoDiagnosisText::Utf8(VoFormat(L"%.2f", 100.0 * static_cast<double>(phase.end - phase.begin) /
                                                                static_cast<double>(longest))) +
                    "%\"></span>";
        page += "</span><span>" + (phases.empty() ? std::string("&#8211;") : MillisecondsText(phases.back().end)) +
                "</span></div>\n";
    }
    page += "</section>\n";
}
} // namespace

std::string VoRenderHtml(const CVoDiagnosisReport& report)
{
    const char* const style = report.verdict == EVoVerdict::Ok         ? "ok"
                              : report.verdict == EVoVerdict::Degraded ? "degraded"
                                                                       : "bad";
    std::string page =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>Connection report</title>\n<style>";
    page += kStyle;
    page += "</style></head><body><main>\n<section><h1>" + Escaped(report.url) + "</h1><p class=\"soft\">" +
            Escaped(report.time) + ", checked in " + MillisecondsText(report.microseconds) +
            (report.isCancelled ? ", cancelled" : "") + "</p></section>\n";
    page += "<section class=\"verdict " + std::string(style) + "\"><h2>" + Escaped(report.summary) +
            "</h2>\n<p class=\"soft\">Verdict: " + VoVerdictName(report.verdict) +
            (report.cause.empty() ? "" : "; cause: " + report.cause) +
            (report.recommendedEngine.empty() ? "" : "; this transport works: " + report.recommendedEngine) + "</p>\n";
    if (!report.advice.empty())
    {
        page += "<ol>\n";
        for (const std::wstring& step : report.advice)
            page += "<li>" + Escaped(step) + "</li>\n";
        page += "</ol>\n";
    }
    page += "</section>\n";
    if (!report.timelines.empty())
        AppendTimelines(page, report);
    page += "<section><h2>Checks</h2>\n";
    for (const CVoCheck& check : report.checks)
        AppendCheck(page, check);
    page += "</section>\n</main></body></html>\n";
    return page;
}
