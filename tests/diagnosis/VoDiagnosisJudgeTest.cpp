// The judgement of facts, over the table of scripted networks, and the outputs of each.
#include "Scenarios.h"

#include <VoDiagnosisCauses.h>
#include <VoDiagnosisRender.h>

#include <support/TestMain.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <random>
#include <set>

namespace
{
using namespace VoDiagnosis;
using namespace Scenarios;

TEST(DiagnosisJudge, FindsTheFaultOfEachScriptedNetwork)
{
    std::set<std::string> found;
    for (const CScenario& scenario : All())
    {
        SCOPED_TRACE(scenario.name);
        const CFacts facts = FactsOf(scenario);
        ASSERT_TRUE(AreAllOver(facts));
        const CVoDiagnosisReport report = ReportOf(facts);
        EXPECT_EQ(ResultOf(report), scenario.result);
        EXPECT_EQ(report.failedCheck.empty(), report.cause.empty());
        EXPECT_FALSE(report.summary.empty());
        EXPECT_FALSE(report.isCancelled) << "a check has no final state";
        EXPECT_EQ(report.advice.empty(), report.verdict == EVoVerdict::Ok);
        EXPECT_TRUE(AnyWorks(facts) || !report.failedCheck.empty()) << "nothing works, and nobody says why";
        for (const CVoCheck& check : report.checks)
        {
            EXPECT_FALSE(check.detail.empty()) << check.id;
            EXPECT_EQ(check.cause.empty(), check.status != EVoCheckStatus::Warn && check.status != EVoCheckStatus::Fail)
                << check.id;
            const CVoDiagnosisCause* const cause = VoFindDiagnosisCause(check.cause);
            EXPECT_TRUE(check.cause.empty() ||
                        (cause && std::string_view(check.id).starts_with(std::string_view(cause->check).substr(0, 5))))
                << check.cause;
            if (!check.cause.empty())
                found.insert(check.cause);
        }
    }
    for (const CVoDiagnosisCause& cause : VoDiagnosisCauses())
        EXPECT_TRUE(found.contains(cause.id)) << "no network shows " << cause.id;
}

// A final state is told once. While other probes run, a check may only get the state that it has at the end.
TEST(DiagnosisJudge, FactsThatComeLaterChangeNoFinalState)
{
    std::mt19937 random(7);
    for (const CScenario& scenario : All())
    {
        SCOPED_TRACE(scenario.name);
        const CFacts whole = FactsOf(scenario);
        for (int round = 0; round < 20; ++round)
        {
            CFacts part = whole;
            for (size_t i = 0; i < kProbeCount; ++i)
                if (random() % 2 == 0 && i != static_cast<size_t>(EProbe::Address))
                    part.states[i].state = EState::Running;
            for (CHttpProbe& probe : part.http)
                if (random() % 2 == 0)
                    probe.state.state = EState::Running;
            for (const CVoCheck& check : MakeChecks(whole))
                if (const std::optional<CVoCheck> early = Judge(part, check.id); early && check.id != "clock")
                {
                    const std::optional<CVoCheck> late = Judge(whole, check.id);
                    ASSERT_TRUE(late);
                    EXPECT_EQ(early->status, late->status)
                        << check.id << ' ' << Narrow(early->detail) << " | " << Narrow(late->detail);
                    EXPECT_EQ(early->cause, late->cause) << check.id;
                }
        }
    }
}

TEST(DiagnosisJudge, SaysThatACertificateNamesAnAddressOnlyAsText)
{
    CFacts facts = FactsOf(All().front());
    facts.tls.isNameRight = false;
    facts.tls.chain[0].names = { facts.address.host };
    EXPECT_NE(ReportOf(facts).summary.find(L"as a name, not as an IP address"), std::wstring::npos);
}

TEST(DiagnosisJudge, CancelledChecksAreSkippedAndTold)
{
    CFacts facts = FactsOf(All().front());
    facts.http[1].state.state = EState::Running;
    const CVoDiagnosisReport report = ReportOf(facts);
    EXPECT_TRUE(report.isCancelled);
    EXPECT_EQ(report.timelines[1].result, kResultCancelled);
    EXPECT_EQ(report.failedCheck, "");
    EXPECT_EQ(nlohmann::json::parse(VoRenderJson(report))["result"], "0x800704C7");
}

TEST(DiagnosisRender, JsonHoldsTheContract)
{
    for (const CScenario& scenario : All())
    {
        SCOPED_TRACE(scenario.name);
        const CVoDiagnosisReport report = ReportOf(FactsOf(scenario));
        const std::string text = VoRenderJson(report);
        EXPECT_EQ(text.find('\n'), std::string::npos);
        const nlohmann::json json = nlohmann::json::parse(text);
        for (const char* const key : { "result", "url", "verdict", "failedCheck", "cause", "summary", "advice",
                                       "recommendedEngine", "checks", "timelines" })
            EXPECT_TRUE(json.contains(key)) << key;
        EXPECT_EQ(json["verdict"], VoVerdictName(report.verdict));
        EXPECT_EQ(json["checks"].size(), report.checks.size());
        for (const nlohmann::json& check : json["checks"])
        {
            EXPECT_TRUE(check.contains("id") && check.contains("name") && check.contains("detail") && check["ms"].is_number());
            EXPECT_EQ(check.contains("cause"), check["status"] == "warn" || check["status"] == "fail");
        }
        for (const nlohmann::json& line : json["timelines"])
            for (const char* const key :
                 { "engine", "result", "statusCode", "remoteAddress", "name", "connect", "tls", "sent", "firstByte", "total" })
                EXPECT_TRUE(line.contains(key)) << key;
    }
}

TEST(DiagnosisRender, MakesInvisibleCharactersVisibleAndCutsLongTexts)
{
    EXPECT_EQ(VoVisibleText(L"a\x1b\u202E\u2066\x7F\x85z"), L"a\\u001B\\u202E\\u2066\\u007F\\u0085z");
    EXPECT_EQ(VoVisibleText(std::wstring(50, L'x'), 3), L"xxx...");
    EXPECT_EQ(VoVisibleText(L"\xD83D\xDE00", 1), L"\xFFFD...");
}

TEST(DiagnosisRender, BarsHaveOneScaleAndShowEachPhase)
{
    CFacts facts = FactsOf(All().front());
    facts.http[2].facts.record.attempts.back().times.total = 32'000;
    std::vector<std::wstring> bars;
    EXPECT_EQ(VoRenderPass(ReportOf(facts), false).at(1).text, L"+ ok          ") << "a line of --watch";
    for (const CVoTextLine& line : VoRenderConclusion(ReportOf(facts), false))
        if (line.size() == 3)
            bars.push_back(line[1].text);
    EXPECT_EQ(bars, (std::vector<std::wstring>{ L"ncttttttttttttswwwwwwwwrr", L"ncttttttttttttswwwwwwwwrr",
                                                L"ncttttttttttttswwwwwwww" + std::wstring(27, L'r') }));
}

// The page is made by hand, with the program: voutils doctor --causes.
TEST(DiagnosisCauses, ThePageIsUpToDate)
{
    std::string page = TestSupport::ReadTestFile(VOUTILS_DOCTOR_PAGE);
    std::erase(page, '\r');
    EXPECT_TRUE(page == VoDiagnosisCausesPage()) << "make docs/doctor.md again: ./voutils doctor --causes > docs/doctor.md";
}

TEST(DiagnosisJudge, ShowsUrlsWithoutTheirSecrets)
{
    const std::pair<const wchar_t*, const wchar_t*> table[] = {
        { L" https://h/p?abc#f ", L"https://h/p?<3 characters>" },
        { L"https://user:pass@h/p", L"https://<hidden>@h/p" },
        { L"user:pass@h", L"<hidden>@h" },
        { L"https://user:pa/ss@h/p", L"https://<hidden>@h/p" },
        { L"https://h/people/me@h", L"https://h/people/me@h" },
        { L"h?user:pass@h", L"h?<11 characters>" },
        { L"", L"" },
    };
    for (const auto& [url, shown] : table)
        EXPECT_EQ(ReportedUrl(url), shown);
}

TEST(DiagnosisJudge, ReadsDatesOfHttp)
{
    EXPECT_EQ(ParseHttpDate(L"Sun, 06 Nov 1994 08:49:37 GMT"), 784111777);
    for (const wchar_t* const text : { L"", L"Sun, 06 Nov 1994", L"Sun, 66 Nov 1994 08:49:37 GMT",
                                       L"Sun, 06 Abc 1994 08:49:37 GMT", L"Sunday, 06-Nov-94 08:49:37 GMT" })
        EXPECT_FALSE(ParseHttpDate(text)) << Narrow(text);
}
} // namespace
