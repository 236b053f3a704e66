// Builds the result of one check, and the small texts that the judges share. Pure functions.
#pragma once

#include "VoDiagnosisFacts.h"

#include <VoDiagnosisReport.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace VoDiagnosis
{
// One cause that was found, with what was seen. The causes are literals.
struct CProblem
{
    const char* cause;
    std::wstring what;
};

// A check in the making. Call one of Pass, Skip, NotApplicable and Fault, last.
class CFinding
{
public:
    CFinding(const CFacts& facts, std::string id);

    CFinding& Fact(const char* key, std::wstring text);
    CFinding& Fact(const char* key, INT64 number);
    CFinding& Fact(const char* key, bool value);
    CFinding& Fact(const char* key, std::vector<std::wstring> texts);
    CFinding& FactOf(CVoDiagnosisFact fact);
    // Where the fault lies, in place of the table's area.
    CFinding& Area(EVoVerdict area);
    // A step that stands before the table's.
    CFinding& Advise(std::wstring step);
    // The host that the sentences name, in place of the address' own.
    CFinding& Host(std::wstring host);
    // The transport that the sentences name.
    CFinding& Engine(std::string_view engine);

    CFinding Pass(std::wstring detail) { return End(EVoCheckStatus::Pass, std::move(detail)); }
    CFinding Skip(std::wstring detail) { return End(EVoCheckStatus::Skip, std::move(detail)); }
    CFinding NotApplicable(std::wstring detail) { return End(EVoCheckStatus::NotApplicable, std::move(detail)); }
    // `what` fills the place {what} of the cause's sentences; `more` is shown in the detail only.
    CFinding Fault(const char* cause, EVoCheckStatus status, const std::wstring& what, const std::wstring& more = {});

    [[nodiscard]] bool IsFailure() const noexcept { return m_check.status == EVoCheckStatus::Fail; }
    [[nodiscard]] bool IsFault() const noexcept { return !m_check.cause.empty(); }
    [[nodiscard]] CVoCheck Take() { return std::move(m_check); }

private:
    CFinding End(EVoCheckStatus status, std::wstring detail);
    [[nodiscard]] std::wstring Fill(std::wstring_view text, std::wstring_view what) const;

    const CFacts* m_facts;
    CVoCheck m_check;
    std::optional<EVoVerdict> m_area;
    std::vector<std::wstring> m_advice;
    std::wstring m_engine;
    std::wstring m_host;
};

// The judges that need one another.
[[nodiscard]] std::optional<CFinding> JudgeConnectCheck(const CFacts& facts);
[[nodiscard]] std::optional<CFinding> JudgeTlsCheck(const CFacts& facts);
[[nodiscard]] std::optional<CFinding> JudgePortalCheck(const CFacts& facts);
[[nodiscard]] std::optional<CFinding> JudgeHttp(const CFacts& facts, const CHttpProbe& probe);
[[nodiscard]] std::optional<CFinding> JudgeAgreement(const CFacts& facts);

// The last attempt of a request; an empty one for a send that made none.
[[nodiscard]] const CVoExchangeRecord::CAttempt& LastAttempt(const CHttpFacts& facts);
// The cause of the tls check that a transport's failure means; null when TLS did not fail.
[[nodiscard]] const char* TlsCauseOf(EVoFailure failure) noexcept;

// The store used the whole time of its probe to find the proxy.
[[nodiscard]] bool IsProxyUndecided(const CFacts& facts) noexcept;
// No TCP connection was opened.
[[nodiscard]] bool IsConnectFailure(EVoFailure failure) noexcept;

// Whether every probe is over.
[[nodiscard]] bool AreAllOver(const CFacts& facts) noexcept;
[[nodiscard]] bool AnyWorks(const CFacts& facts) noexcept;
// The transport that the verdict is about: the configured one, or the first of a list without it. Null without a transport.
[[nodiscard]] const CHttpProbe* MainProbe(const CFacts& facts) noexcept;
[[nodiscard]] bool MainWorks(const CFacts& facts) noexcept;
// A failure, but only a warning where the program works.
[[nodiscard]] EVoCheckStatus WhenMainFails(const CFacts& facts) noexcept;

// Seconds since 1970, UTC.
[[nodiscard]] INT64 SecondsOf(const FILETIME& time) noexcept;
// The same of a date of HTTP (RFC 9110, section 5.6.7, its first form). Nothing for any other text.
[[nodiscard]] std::optional<INT64> ParseHttpDate(const std::wstring& text);
[[nodiscard]] std::wstring DateText(const FILETIME& time);   // "2026-11-22", UTC
[[nodiscard]] std::wstring Milliseconds(INT64 microseconds); // "0.3 ms"
[[nodiscard]] std::wstring HResultText(HRESULT result);      // "0x80070057"
// The system's text for a code, in one line and without a full stop; the code itself where there is none.
[[nodiscard]] std::wstring ErrorTextOf(HRESULT result);
[[nodiscard]] const wchar_t* OutcomeName(EOutcome outcome) noexcept; // for machines
[[nodiscard]] const wchar_t* OutcomeText(EOutcome outcome) noexcept; // for people: "is refused"
[[nodiscard]] const wchar_t* RevocationName(ERevocation revocation) noexcept;
// The value of a header of a response; empty without it.
[[nodiscard]] std::wstring HeaderOf(const CVoExchangeRecord::CResponse& response, std::wstring_view name);
// The host of a URL; empty for a text that is none.
[[nodiscard]] std::wstring HostOf(std::wstring_view url);
// Whether two hosts are the same but for a leading "www.".
[[nodiscard]] bool IsSameSite(std::wstring_view a, std::wstring_view b) noexcept;
// Whether a challenge can be answered: Basic, Digest, NTLM or Negotiate is among the schemes.
[[nodiscard]] bool IsAnySchemeKnown(const std::vector<std::wstring>& schemes) noexcept;
} // namespace VoDiagnosis
