// Judges the requests of the transports, whether they agree, and the whole (VoDiagnosisJudge.h).
#include "VoDiagnosisFinding.h"
#include "VoDiagnosisJudge.h"

#include <VoDiagnosisCauses.h>

#include <base/VoHResult.h>

#include <algorithm>

namespace VoDiagnosis
{
namespace
{
using CAttempt = CVoExchangeRecord::CAttempt;

std::wstring Wide(std::string_view text)
{
    return { text.begin(), text.end() };
}

std::wstring SchemesOf(const std::vector<std::wstring>& schemes)
{
    std::wstring text;
    for (const std::wstring& scheme : schemes)
        text += (text.empty() ? L"" : L", ") + scheme;
    return text.empty() ? L"no scheme" : text;
}

void AddFacts(CFinding& finding, const CHttpProbe& probe)
{
    const CHttpFacts& h = probe.facts;
    const CAttempt& attempt = LastAttempt(h);
    std::vector<std::wstring> schemes;
    if (!attempt.responses.empty())
        schemes = attempt.responses.back().schemes;
    finding.Fact("engine", Wide(probe.engine)).Fact("result", HResultText(h.result)).Fact("statusCode", INT64{ h.statusCode });
    finding.Fact("bodyBytes", static_cast<INT64>(h.bodyBytes)).Fact("attempts", static_cast<INT64>(h.record.attempts.size()));
    std::vector<std::wstring> addresses;
    for (const std::wstring& address : attempt.addresses)
        if (std::find(addresses.begin(), addresses.end(), address) == addresses.end())
            addresses.push_back(address);
    finding.Fact("redirects", attempt.redirects).Fact("schemes", schemes).Fact("addresses", addresses);
    finding.Fact("remoteAddress", attempt.remoteAddress).Fact("proxy", attempt.proxy).Fact("reason", attempt.reason);
}

// Where the last redirect leads, without its query; empty for none. A service that follows redirects itself may fail before it
// tells that it does.
std::wstring TargetOf(const CAttempt& attempt)
{
    const bool isRedirect = !attempt.responses.empty() && attempt.responses.back().statusCode / 100 == 3;
    const std::wstring location = isRedirect ? HeaderOf(attempt.responses.back(), L"Location") : std::wstring();
    if (!location.empty())
        return ReportedUrl(location);
    return attempt.redirects.empty() ? std::wstring() : attempt.redirects.back();
}

// The host that a request ended at, when it is another one.
std::wstring OtherHost(const CFacts& f, const CAttempt& attempt)
{
    const std::wstring host = HostOf(TargetOf(attempt));
    return host.empty() || IsSameSite(host, f.address.host) ? std::wstring() : host;
}

// The cause of a status; nothing for one that none of them covers.
std::optional<CProblem> ProblemOfStatus(UINT32 status, const CAttempt& attempt)
{
    if (status == 401)
    {
        const std::vector<std::wstring> schemes =
            attempt.responses.empty() ? std::vector<std::wstring>() : attempt.responses.back().schemes;
        return CProblem{ schemes.empty() || IsAnySchemeKnown(schemes) ? "authentication" : "scheme_unsupported",
                         SchemesOf(schemes) };
    }
    if (status == 407)
        return CProblem{ "authentication", L"with status 407, as a proxy does" };
    if (status >= 400 && status < 600)
        return CProblem{ status < 500 ? "status_4xx" : "status_5xx", std::to_wstring(status) };
    if (status >= 300 && status < 400)
        return CProblem{ "redirect_loop", L"status " + std::to_wstring(status) + L" at the end" };
    return CProblem{ "response_malformed", L"status " + std::to_wstring(status) + L"; the library accepts only 200" };
}

// Whether another check tells of the same fault.
enum class ESameFault
{
    No,
    Connect,
    Tls,
    Proxy
};
ESameFault SameFaultOf(const CFacts& f, EVoFailure failure, bool isProxyFailure)
{
    const bool isProxyBad = f.State(EProbe::ProxyConnect).IsOver() && f.State(EProbe::ProxyConnect).state != EState::NotRun;
    switch (failure)
    {
    case EVoFailure::NameNotFound:
    case EVoFailure::ConnectRefused:
    case EVoFailure::ConnectFailed:
    case EVoFailure::ConnectTimeOut:
        return isProxyFailure || isProxyBad ? ESameFault::Proxy : ESameFault::Connect;
    case EVoFailure::ProxyCredentials:
        return isProxyBad ? ESameFault::Proxy : ESameFault::No;
    default:
        if (TlsCauseOf(failure))
            return ESameFault::Tls;
        return isProxyFailure && isProxyBad ? ESameFault::Proxy : ESameFault::No;
    }
}

bool IsNoAddressReached(const CFacts& f)
{
    return std::none_of(f.connect.begin(), f.connect.end(), [](const CConnectAttempt& a) { return a.outcome == EOutcome::Ok; });
}

// Whether a target came more than once, or more redirects came than any way needs.
bool IsLoop(const CAttempt& attempt)
{
    constexpr auto kMany = 10;
    const auto isRedirect = [](const CVoExchangeRecord::CResponse& r) { return r.statusCode >= 300 && r.statusCode < 400; };
    return std::count_if(attempt.responses.begin(), attempt.responses.end(), isRedirect) >= kMany ||
           std::any_of(attempt.redirects.begin(), attempt.redirects.end(), [&](const std::wstring& url)
    { return std::count(attempt.redirects.begin(), attempt.redirects.end(), url) > 1; });
}

// The failure of a request that no other check explains.
CProblem ProblemOf(const CHttpProbe& probe)
{
    const CHttpFacts& h = probe.facts;
    const CAttempt& attempt = LastAttempt(h);
    const std::wstring reason = attempt.reason.empty() ? ErrorTextOf(h.result) : attempt.reason;
    switch (attempt.failure)
    {
    case EVoFailure::ResponseTimeOut:
    case EVoFailure::ConnectTimeOut:
        return { "timeout", reason };
    case EVoFailure::ConnectionLost:
        return { "connection_lost", reason };
    case EVoFailure::ResponseTruncated:
        return { "response_truncated", reason };
    case EVoFailure::ResponseMalformed:
        return { "response_malformed", reason };
    case EVoFailure::RedirectLoop:
        return { "redirect_loop", attempt.redirects.empty() ? reason : attempt.redirects.back() };
    case EVoFailure::RedirectRefused:
        if (IsLoop(attempt))
            return { "redirect_loop", attempt.redirects.empty() ? reason : attempt.redirects.back() };
        return { "redirect_other_host", TargetOf(attempt).empty() ? reason : TargetOf(attempt) + L", which is not followed" };
    case EVoFailure::ResponseLimit:
        return { "response_malformed", reason };
    default:
        break;
    }
    if (CVoHTTPMessage::IsTimeOut(h.result))
        return { "timeout", reason };
    if (h.statusCode != 0 && h.statusCode != 200)
        if (const auto problem = ProblemOfStatus(h.statusCode, attempt))
            return *problem;
    if (attempt.failure == EVoFailure::Credentials || attempt.failure == EVoFailure::ProxyCredentials)
        if (const auto problem = ProblemOfStatus(attempt.failure == EVoFailure::Credentials ? 401 : 407, attempt))
            return *problem;
    return { "transport_failed", reason };
}
} // namespace

std::optional<CFinding> JudgeHttp(const CFacts& f, const CHttpProbe& probe)
{
    CFinding finding(f, "http-" + probe.engine);
    finding.Engine(probe.engine);
    if (!f.address.isValid)
        return finding.Skip(L"The address is malformed.");
    if (!probe.state.IsOver())
        return std::nullopt;
    const CHttpFacts& h = probe.facts;
    const CAttempt& attempt = LastAttempt(h);
    if (probe.state.IsDone())
        AddFacts(finding, probe);
    if (probe.Works())
    {
        if (const std::wstring other = OtherHost(f, attempt); !other.empty())
            return finding.Fault("redirect_other_host", EVoCheckStatus::Warn, other);
        return finding.Pass(L"Status 200, " + std::to_wstring(h.bodyBytes) +
                            (h.isBodyCut ? L" bytes read of a longer body, " : L" bytes, ") +
                            Milliseconds(probe.state.microseconds) + L".");
    }
    if (!AreAllOver(f))
        return std::nullopt;
    if (const auto portal = JudgePortalCheck(f); portal && portal->IsFailure())
        return finding.Skip(L"The sign-in page of the network answers in place of the server.");
    // Beside a configured transport that works, the failure of another one does not harm the program.
    const EVoCheckStatus status = f.input.isEngineListGiven ? EVoCheckStatus::Fail : WhenMainFails(f);
    const std::wstring reason =
        probe.state.IsDone() ? (attempt.reason.empty() ? ErrorTextOf(h.result) : attempt.reason) : L"it does not end in time";
    const ESameFault same = SameFaultOf(f, attempt.failure, attempt.isProxyFailure);
    const bool isProxyUsed = !f.proxy.explanation.proxy.empty();
    // A service that gets no response in its time may call that a malformed one.
    const bool isTimeUsed = attempt.failure == EVoFailure::ResponseMalformed && h.statusCode == 0 &&
                            probe.state.microseconds >= INT64{ f.input.probeTimeout } * 1'000'000;
    const bool isWaiting = probe.state.state == EState::TimedOut || CVoHTTPMessage::IsTimeOut(h.result) || isTimeUsed;
    const auto connect = JudgeConnectCheck(f);
    const bool isDeadAddress =
        connect && connect->IsFailure() && IsConnectFailure(attempt.failure) && attempt.redirects.empty();
    if (((same == ESameFault::Connect || isWaiting) && !isProxyUsed && IsNoAddressReached(f)) || isDeadAddress)
        return finding.Skip(L"It cannot connect: " + reason + L".");
    const auto proxyConnect = Judge(f, "proxy-connect");
    if ((same == ESameFault::Proxy || isWaiting || h.statusCode == f.proxyConnect.statusCode) && isProxyUsed && proxyConnect &&
        proxyConnect->status == EVoCheckStatus::Fail)
        return finding.Skip(L"The proxy does not let it through: " + reason + L".");
    const bool isBeforeResponse = h.statusCode == 0;
    if (IsProxyUndecided(f) && isWaiting && isBeforeResponse)
        return finding.Skip(L"It waits for the proxy to be found: " + reason + L".");
    // The certificate is refused, or the connection ends where TLS does.
    const auto tls = JudgeTlsCheck(f);
    if (tls && tls->IsFailure() && isBeforeResponse)
        return finding.Skip(L"TLS does not let it through: " + reason + L".");
    constexpr UINT32 kWinINet = 0;
    if (!probe.state.IsDone() || (isWaiting && isBeforeResponse))
        return finding.Fault("timeout", status, reason);
    // The address itself is fine, and a redirect leads to one that is not.
    if (const std::wstring target = TargetOf(attempt); !target.empty())
        finding.Advise(L"The server redirects to " + target + L": run the diagnosis for that address.");
    if (same == ESameFault::Tls || same == ESameFault::Connect ||
        (same == ESameFault::Proxy && attempt.failure != EVoFailure::ProxyCredentials))
    {
        if (same == ESameFault::Tls)
            finding.Area(EVoVerdict::Tls);
        else if (probe.kind == kWinINet && isProxyUsed && f.input.isProxyGiven)
            finding.Area(EVoVerdict::Proxy)
                .Advise(L"WinINet uses the proxy of the Internet settings, not the given one: set " +
                        f.proxy.explanation.proxy + L" there.");
        return OtherHost(f, attempt).empty() ? finding.Fault("transport_failed", status, reason)
                                             : finding.Fault("redirect_other_host", status, reason);
    }
    const CProblem problem = ProblemOf(probe);
    if (probe.kind == kWinINet && std::string_view(problem.cause) == "authentication")
        finding.Advise(L"WinINet asks in the system's dialog, which is shown only when it is allowed (--ask).");
    if (isProxyUsed && !f.proxyConnect.isTunnel && h.statusCode >= 400)
        finding.Advise(L"Ask the administrator of the proxy " + f.proxy.explanation.proxy +
                       L", too: it may answer in place of the server.");
    return finding.Fault(problem.cause, status, problem.what);
}

std::optional<CFinding> JudgeAgreement(const CFacts& f)
{
    CFinding finding(f, "agreement");
    if (f.http.size() < 2)
        return finding.NotApplicable(L"One transport was tried.");
    if (!f.address.isValid)
        return finding.Skip(L"The address is malformed.");
    for (const CHttpProbe& probe : f.http)
        if (!probe.state.IsOver())
            return std::nullopt;
    std::wstring differences;
    std::wstring sizes;
    bool isSame = true;
    bool isSameSize = true;
    for (const CHttpProbe& probe : f.http)
    {
        const CHttpProbe& first = f.http.front();
        isSame =
            isSame && probe.Works() == first.Works() && (!probe.Works() || probe.facts.statusCode == first.facts.statusCode);
        isSameSize = isSameSize && probe.facts.bodyBytes == first.facts.bodyBytes;
        const std::wstring result = probe.Works()                 ? L"works"
                                    : probe.facts.statusCode != 0 ? L"gets status " + std::to_wstring(probe.facts.statusCode)
                                                                  : L"fails";
        differences += (differences.empty() ? L"" : L", ") + Wide(probe.engine) + L' ' + result;
        sizes += (sizes.empty() ? L"" : L", ") + Wide(probe.engine) + L' ' + std::to_wstring(probe.facts.bodyBytes);
    }
    if (!isSame)
        return finding.Fault("transports_differ", EVoCheckStatus::Warn, differences);
    if (!AnyWorks(f))
        return finding.NotApplicable(L"None of the transports works.");
    return finding.Pass(isSameSize ? L"The transports get the same response."
                                   : L"The responses have different sizes, in bytes: " + sizes + L".");
}

namespace
{
CVoTimeline TimelineOf(const CHttpProbe& probe)
{
    const CAttempt& attempt = LastAttempt(probe.facts);
    CVoTimeline line;
    line.engine = probe.engine;
    switch (probe.state.state)
    {
    case EState::Done:
        line.result = probe.facts.result;
        break;
    case EState::TimedOut:
        line.result = kResultTimeout;
        break;
    case EState::NotRun:
        line.result = E_INVALIDARG; // the address is malformed
        break;
    default:
        line.result = kResultCancelled;
    }
    line.statusCode = probe.facts.statusCode;
    line.remoteAddress = attempt.remoteAddress;
    line.name = attempt.times.name;
    line.connect = attempt.times.connect;
    line.tls = attempt.times.tls;
    line.sent = attempt.times.sent;
    line.firstByte = attempt.times.firstByte;
    line.total = attempt.times.total;
    return line;
}

// The transport that works where the main one does not.
std::string Recommended(const CFacts& f)
{
    if (MainWorks(f))
        return {};
    // What passes over a fault of the certificate is no way out.
    const auto tls = JudgeTlsCheck(f);
    const CHttpProbe* const main = MainProbe(f);
    if ((tls && tls->IsFailure()) || (main && TlsCauseOf(LastAttempt(main->facts).failure)))
        return {};
    for (const CHttpProbe& probe : f.http)
        if (probe.Works())
            return probe.engine;
    return {};
}

// Transports find the same fault: each step is told once.
void AddAdvice(CVoDiagnosisReport& report, const std::wstring& step)
{
    if (std::find(report.advice.begin(), report.advice.end(), step) == report.advice.end())
        report.advice.push_back(step);
}

void ConcludeFailure(const CFacts& f, CVoDiagnosisReport& report, const CVoCheck& failed)
{
    report.failedCheck = failed.id;
    report.cause = failed.cause;
    report.verdict = failed.area;
    report.summary = failed.summary;
    report.advice = failed.advice;
    if (!report.recommendedEngine.empty())
    {
        // A server and a network through which another transport gets its response are not at fault.
        if (report.verdict == EVoVerdict::Server || report.verdict == EVoVerdict::Network)
            report.verdict = EVoVerdict::Settings;
        for (const CHttpProbe& probe : f.http)
            if (probe.engine == report.recommendedEngine)
                report.advice.insert(report.advice.begin(),
                                     L"Use the transport " + Wide(probe.engine) + L", which works: set HTTPEngine=" +
                                         std::to_wstring(probe.kind) + L" in section SETTINGS of ModuleSettings.ini.");
    }
    for (const CVoCheck& check : report.checks)
        if (check.status == EVoCheckStatus::Fail && check.id != failed.id && check.cause != failed.cause)
            AddAdvice(report, L"Also: " + check.summary + L' ' + check.fix);
}
} // namespace

CVoDiagnosisReport Conclude(const CFacts& f, std::vector<CVoCheck> checks)
{
    CVoDiagnosisReport report;
    report.url = f.input.url;
    report.checks = std::move(checks);
    for (CVoCheck& check : report.checks)
    {
        if (check.IsFinal())
            continue;
        report.isCancelled = true;
        check.status = EVoCheckStatus::Skip;
        check.detail = L"The diagnosis was cancelled before it ended.";
    }
    for (const CHttpProbe& probe : f.http)
        report.timelines.push_back(TimelineOf(probe));
    report.recommendedEngine = report.isCancelled ? std::string() : Recommended(f);
    const auto find = [&](EVoCheckStatus status)
    { return std::find_if(report.checks.begin(), report.checks.end(), [=](const CVoCheck& c) { return c.status == status; }); };
    const auto failed = find(EVoCheckStatus::Fail);
    const auto warned = find(EVoCheckStatus::Warn);
    if (failed != report.checks.end())
        ConcludeFailure(f, report, *failed);
    else if (report.isCancelled)
    {
        report.verdict = EVoVerdict::Degraded;
        report.summary = L"The diagnosis was cancelled; no check had failed until then.";
    }
    else if (warned != report.checks.end())
    {
        report.verdict = EVoVerdict::Degraded;
        report.summary = L"The connection works, but: " + warned->summary;
        for (const CVoCheck& check : report.checks)
            if (check.status == EVoCheckStatus::Warn)
                for (const std::wstring& step : check.advice)
                    AddAdvice(report, step);
    }
    else
        report.summary = L"The connection to " + f.address.host + L" works.";
    return report;
}
} // namespace VoDiagnosis
