// Judges what the probes found below HTTP: settings, address, clock, name, connections, proxy, TLS, portal.
#include "VoDiagnosisJudge.h"

#include "VoDiagnosisFinding.h"

#include <VoDiagnosisCauses.h>

#include <base/VoText.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace VoDiagnosis
{
namespace
{
constexpr INT64 kLargestSkew = 300; // seconds: five minutes are what Kerberos allows
constexpr INT64 kDay = 86400;

std::wstring Joined(const std::vector<std::wstring>& texts)
{
    std::wstring joined;
    for (const std::wstring& text : texts)
        joined += (joined.empty() ? L"" : L", ") + text;
    return joined;
}

bool IsAny(EOutcome outcome, const std::vector<CConnectAttempt>& attempts)
{
    return std::any_of(attempts.begin(), attempts.end(), [=](const CConnectAttempt& a) { return a.outcome == outcome; });
}

CVoDiagnosisFact AttemptsFact(const std::vector<CConnectAttempt>& attempts)
{
    CVoDiagnosisFact::CRecords records;
    for (const CConnectAttempt& attempt : attempts)
        records.push_back({ { "address", attempt.address },
                            { "outcome", std::wstring(OutcomeName(attempt.outcome)) },
                            { "ms", std::chrono::microseconds(attempt.microseconds) } });
    return { "attempts", std::move(records) };
}

// Whether the way to the server is meant to lead through a proxy.
bool NeedsProxy(const CFacts& f)
{
    return f.State(EProbe::Proxy).IsDone() && !f.proxy.explanation.proxy.empty();
}
// A script was to name the proxy and did not.
bool IsScriptMissing(const CFacts& f)
{
    if (IsProxyUndecided(f))
        return !f.input.proxyScript.empty();
    return f.State(EProbe::Proxy).IsDone() && f.proxy.explanation.proxy.empty() && f.proxy.explanation.error != 0 &&
           f.proxy.explanation.source == CVoProxyExplanation::ESource::Script;
}

CFinding JudgeSettings(const CFacts& f)
{
    const CSettingsFacts& s = f.settings;
    CFinding finding(f, "settings");
    finding.Fact("file", s.file).Fact("exists", s.exists).Fact("values", s.values).Fact("problems", s.problems);
    finding.Fact("log", s.isLogOn).Fact("logFile", s.logFile);
    if (!s.problems.empty())
        return finding.Fault("settings_value", EVoCheckStatus::Warn, s.problems.front());
    if (s.isLogOn && !s.logError.empty())
        return finding.Fault("log_not_writable", EVoCheckStatus::Warn, s.logFile + L": " + s.logError);
    return finding.Pass(s.exists ? L"The settings come from " + s.file + L"."
                                 : L"There is no " + s.file + L"; the defaults hold.");
}

CFinding JudgeAddress(const CFacts& f)
{
    const CAddressFacts& a = f.address;
    CFinding finding(f, "address");
    if (!a.isValid)
        return finding.Fault("address_malformed", EVoCheckStatus::Fail, f.input.url);
    finding.Fact("host", a.host).Fact("port", INT64{ a.port }).Fact("secure", a.isSecure).Fact("path", a.path);
    finding.Fact("queryLength", static_cast<INT64>(a.queryLength));
    return finding.Pass(std::wstring(a.isSecure ? L"https" : L"http") + L" to " + a.host + L" port " + std::to_wstring(a.port) +
                        L".");
}

// The server's time minus this machine's, in seconds, from the first response that carries a date.
struct CSkew
{
    INT64 seconds = 0;
    std::wstring from;
};
std::optional<CSkew> FindSkew(const CFacts& f)
{
    const auto skew = [](const std::wstring& date, const std::wstring& age, const FILETIME& now,
                         const wchar_t* from) -> std::optional<CSkew>
    {
        const std::optional<INT64> then = ParseHttpDate(date);
        if (!then)
            return std::nullopt;
        // A cache sends the date at which the response was made, and its age since (RFC 9111, section 5.1).
        const INT64 seconds = *then + VoParseDecimalClamped<UINT32>(age).value_or(0) - SecondsOf(now);
        return CSkew{ seconds, from };
    };
    for (const CHttpProbe& probe : f.http)
    {
        if (!probe.state.IsDone() || probe.facts.record.attempts.empty() ||
            probe.facts.record.attempts.back().responses.empty())
            continue;
        const auto& response = probe.facts.record.attempts.back().responses.back();
        if (const auto found = skew(HeaderOf(response, L"Date"), HeaderOf(response, L"Age"), probe.facts.now, L"the response"))
            return found;
    }
    if (f.State(EProbe::Tls).IsDone())
        if (const auto found =
                skew(f.tls.date, {}, f.tls.now, L"the response of the server, whose certificate was not accepted"))
            return found;
    if (f.State(EProbe::Portal).IsDone())
        if (const auto found = skew(f.portal.date, {}, f.portalTime, L"the response to plain HTTP"))
            return found;
    if (f.State(EProbe::ProxyConnect).IsDone())
        return skew(f.proxyConnect.date, {}, f.proxyTime, L"the response of the proxy");
    return std::nullopt;
}

std::wstring Duration(INT64 seconds)
{
    struct CUnit
    {
        INT64 seconds;
        const wchar_t* name;
    };
    static constexpr CUnit kUnits[] = { { kDay, L" day" }, { 3600, L" hour" }, { 60, L" minute" }, { 1, L" second" } };
    const INT64 size = std::abs(seconds);
    // The largest unit of which there are two at least; seconds for less.
    const CUnit& unit =
        *std::find_if(std::begin(kUnits), std::end(kUnits) - 1, [=](const CUnit& u) { return size >= 2 * u.seconds; });
    const INT64 count = size / unit.seconds;
    return std::to_wstring(count) + unit.name + (count == 1 ? L"" : L"s");
}

// Faults of the certificate, and what TLS itself did, by priority.
std::vector<CProblem> TlsProblems(const CFacts& f)
{
    const CTlsFacts& t = f.tls;
    std::vector<CProblem> problems;
    if (!t.isTls)
        return { { "not_tls", L"the first bytes are those of another protocol" } };
    if (t.outcome != EOutcome::Ok)
        return { { "tls_handshake", t.error != 0 ? ErrorTextOf(static_cast<HRESULT>(t.error))
                                                 : std::wstring(L"the server ") + OutcomeText(t.outcome) } };
    const INT64 now = SecondsOf(t.now);
    bool isExpired = false;
    bool isEarly = false;
    for (const CCertificateFacts& certificate : t.chain)
    {
        if (!isExpired && SecondsOf(certificate.notAfter) < now)
        {
            isExpired = true;
            problems.push_back({ "certificate_expired", certificate.subject + L" ended on " + DateText(certificate.notAfter) });
        }
        else if (!isEarly && SecondsOf(certificate.notBefore) > now)
        {
            isEarly = true;
            problems.push_back(
                { "certificate_not_yet_valid", certificate.subject + L" begins on " + DateText(certificate.notBefore) });
        }
    }
    constexpr DWORD kOtherFaults = CERT_TRUST_IS_UNTRUSTED_ROOT | CERT_TRUST_IS_PARTIAL_CHAIN |
                                   CERT_TRUST_IS_NOT_SIGNATURE_VALID | CERT_TRUST_IS_NOT_VALID_FOR_USAGE |
                                   CERT_TRUST_INVALID_BASIC_CONSTRAINTS | CERT_TRUST_IS_EXPLICIT_DISTRUST |
                                   CERT_TRUST_IS_CYCLIC;
    if (!isExpired && !isEarly && (t.chainStatus & CERT_TRUST_IS_NOT_TIME_VALID) != 0)
        problems.push_back({ "certificate_expired", L"a certificate of the chain is outside of its dates" });
    if (!t.isNameRight)
    {
        const std::vector<std::wstring> names =
            t.chain.empty() ? std::vector<std::wstring>{ L"nobody" } : t.chain.front().names;
        // The text of an address among the names, or in the subject, does not stand for the address (RFC 9110,
        // section 4.3.5).
        const bool isOnlyText = std::find(names.begin(), names.end(), f.address.host) != names.end();
        problems.push_back({ "certificate_name", Joined(names) + (isOnlyText ? L" as a name, not as an IP address" : L"") });
    }
    const bool isPolicyRefusal = t.policyError != 0 && problems.empty();
    if ((t.chainStatus & kOtherFaults) != 0 || isPolicyRefusal)
    {
        const bool isOther = (t.chainStatus & (CERT_TRUST_IS_UNTRUSTED_ROOT | CERT_TRUST_IS_PARTIAL_CHAIN)) == 0;
        std::wstring issuer = t.chain.empty() ? L"unknown" : t.chain.back().issuer;
        if (isOther && t.policyError != 0)
            issuer += L" (" + ErrorTextOf(static_cast<HRESULT>(t.policyError)) + L")";
        problems.push_back({ "certificate_issuer", issuer });
    }
    if (t.revocation == ERevocation::Revoked)
        problems.push_back({ "certificate_revoked", t.revocationDetail });
    if (t.revocation == ERevocation::Unknown)
        problems.push_back({ "revocation_unknown", t.revocationDetail });
    std::stable_sort(problems.begin(), problems.end(), [](const CProblem& a, const CProblem& b)
    { return VoFindDiagnosisCause(a.cause)->priority < VoFindDiagnosisCause(b.cause)->priority; });
    return problems;
}

// Whether the server that answers by TLS may be somebody else. A certificate of the right name and a trusted issuer is the
// server's own, also when it has expired.
bool MayAnotherAnswer(const CFacts& f)
{
    if (!f.address.isSecure || !f.State(EProbe::Tls).IsDone())
        return true;
    const std::vector<CProblem> problems = TlsProblems(f);
    return std::any_of(problems.begin(), problems.end(), [](const CProblem& problem)
    {
        const std::string_view cause = problem.cause;
        return cause == "certificate_name" || cause == "certificate_issuer" || cause == "not_tls" || cause == "tls_handshake";
    });
}

// Whether the dates of all certificates are right at the server's time.
bool DoesClockExplainCertificate(const CFacts& f, INT64 skew)
{
    if (!f.State(EProbe::Tls).IsDone() || f.tls.chain.empty())
        return false;
    const INT64 there = SecondsOf(f.tls.now) + skew;
    const INT64 here = SecondsOf(f.tls.now);
    const auto isValid = [&](INT64 time)
    {
        return std::all_of(f.tls.chain.begin(), f.tls.chain.end(), [=](const CCertificateFacts& c)
        { return SecondsOf(c.notBefore) <= time && time <= SecondsOf(c.notAfter); });
    };
    return !isValid(here) && isValid(there);
}

std::optional<CFinding> JudgeClock(const CFacts& f)
{
    CFinding finding(f, "clock");
    const std::optional<CSkew> skew = FindSkew(f);
    if (!AreAllOver(f) && (!skew || std::abs(skew->seconds) > kLargestSkew))
        return std::nullopt;
    if (!skew)
        return finding.NotApplicable(L"No response carries a date.");
    finding.Fact("skewSeconds", skew->seconds).Fact("from", skew->from);
    if (std::abs(skew->seconds) <= kLargestSkew)
        return finding.Pass(L"It differs from the server's by " + Duration(skew->seconds) + L".");
    // The clock is behind when the server's is ahead.
    const std::wstring what = Duration(skew->seconds) + (skew->seconds > 0 ? L" behind" : L" ahead");
    return finding.Fault("clock_skew",
                         DoesClockExplainCertificate(f, skew->seconds) && f.input.verify && !MainWorks(f)
                             ? EVoCheckStatus::Fail
                             : EVoCheckStatus::Warn,
                         what + L", by " + skew->from);
}

std::optional<CFinding> JudgeName(const CFacts& f)
{
    CFinding finding(f, "name");
    if (!f.address.isValid)
        return finding.Skip(L"The address is malformed.");
    if (f.address.isLiteral)
        return finding.NotApplicable(L"The address holds no name.");
    finding.Fact("addresses", f.name.addresses);
    if (f.State(EProbe::Name).IsDone() && !f.name.addresses.empty())
        return finding.Pass(Joined(f.name.addresses) + L".");
    if (!AreAllOver(f))
        return std::nullopt;
    if (NeedsProxy(f))
        return finding.NotApplicable(L"This machine does not know the name; the proxy looks it up.");
    const DWORD error = f.name.error;
    finding.Fact("error", static_cast<INT64>(error)).Fact("hasNetwork", f.name.hasNetwork);
    const bool isSilent = f.State(EProbe::Name).state == EState::TimedOut || error == static_cast<DWORD>(WSATRY_AGAIN);
    finding.Area(f.name.hasNetwork ? EVoVerdict::Name : EVoVerdict::Network);
    return finding.Fault(isSilent ? "name_timeout" : "name_not_found", WhenMainFails(f),
                         f.name.hasNetwork ? ErrorTextOf(HResultFromWin32(error)) : L"no network adapter is connected");
}

// Where the fault of silent addresses lies.
EVoVerdict AreaOfSilence(const CFacts& f)
{
    const bool answersElsewhere = f.State(EProbe::Portal).IsDone() && f.portal.isHttp;
    if (answersElsewhere)
        return EVoVerdict::Server;
    // Others on this machine are told to use a proxy, this program is not.
    return f.proxy.unused.empty() ? EVoVerdict::Network : EVoVerdict::Proxy;
}

std::optional<CFinding> JudgeConnect(const CFacts& f)
{
    CFinding finding(f, "connect");
    const CProbeState& state = f.State(EProbe::Connect);
    if (!state.IsOver() || !f.State(EProbe::Proxy).IsOver())
        return std::nullopt;
    if (state.state == EState::NotRun)
        return NeedsProxy(f) ? finding.NotApplicable(L"The proxy connects to the server.")
                             : finding.Skip(L"The address is not known.");
    finding.FactOf(AttemptsFact(f.connect));
    std::vector<std::wstring> good;
    std::vector<std::wstring> bad;
    for (const CConnectAttempt& attempt : f.connect)
        if (attempt.outcome == EOutcome::Ok)
            good.push_back(attempt.address + L" in " + Milliseconds(attempt.microseconds));
        else
            bad.push_back(attempt.address + L" " + OutcomeText(attempt.outcome));
    if (NeedsProxy(f))
        return finding.NotApplicable(L"The proxy is used; without it: " + Joined(good.empty() ? bad : good) + L".");
    if (!good.empty() && bad.empty())
        return finding.Pass(Joined(good) + L".");
    if (!AreAllOver(f))
        return std::nullopt;
    if (!good.empty())
    {
        // A transport that tries only the address that is dead.
        const CHttpProbe* const main = MainProbe(f);
        const bool isHit = main && main->state.IsDone() && LastAttempt(main->facts).redirects.empty() &&
                           IsConnectFailure(LastAttempt(main->facts).failure);
        return finding.Fault("some_addresses_fail", isHit ? EVoCheckStatus::Fail : EVoCheckStatus::Warn,
                             Joined(bad) + L"; but " + Joined(good));
    }
    // A script that cannot be had was to name a proxy: direct connections were not meant to work.
    const EVoCheckStatus status = IsScriptMissing(f) ? EVoCheckStatus::Warn : WhenMainFails(f);
    if (IsAny(EOutcome::Refused, f.connect))
        return finding.Fault("connect_refused", status, Joined(bad));
    finding.Area(AreaOfSilence(f));
    if (!f.proxy.unused.empty())
        finding.Advise(L"This machine names a proxy that the program does not use (" + Joined(f.proxy.unused) + L"): set it.");
    return finding.Fault("connect_timeout", status, bad.empty() ? L"no attempt ended in time" : Joined(bad));
}

std::optional<CFinding> JudgeProxy(const CFacts& f)
{
    using ESource = CVoProxyExplanation::ESource;
    CFinding finding(f, "proxy");
    if (!f.address.isValid)
        return finding.Skip(L"The address is malformed.");
    if (!f.State(EProbe::Proxy).IsOver())
        return std::nullopt;
    const CVoProxyExplanation& e = f.proxy.explanation;
    const std::wstring settings = f.input.isProxyGiven ? L"the given configuration" : L"the Internet settings";
    finding.Fact("proxy", e.proxy).Fact("source", std::wstring(e.SourceName())).Fact("rule", e.rule).Fact("script", e.script);
    finding.Fact("configuration", settings).Fact("unused", f.proxy.unused).Fact("error", static_cast<INT64>(e.error));
    CVoDiagnosisFact::CRecords tried;
    for (const CVoProxyExplanation::CTried& step : e.tried)
        tried.push_back({ { "what", step.what },
                          { "result", HResultText(step.result) },
                          { "ms", std::chrono::microseconds(step.microseconds) } });
    finding.FactOf({ "tried", std::move(tried) });
    const bool isUndecided = IsProxyUndecided(f) || FAILED(f.proxy.result);
    if (!isUndecided && e.error == 0)
    {
        if (e.isBypassed)
            return finding.Pass(L"None: the bypass rule " + e.rule + L" of " + settings + L" names the host.");
        if (e.proxy.empty())
            return finding.Pass(e.source == ESource::None ? L"None, by " + settings + L"."
                                                          : L"None: the script sends the request directly.");
        const std::wstring source = e.source == ESource::Script      ? L"named by the script " + e.script
                                    : e.source == ESource::Detection ? L"named by the script found in the network"
                                                                     : L"from the list of " + settings;
        return finding.Pass(e.proxy + L", " + source + L".");
    }
    if (!AreAllOver(f))
        return std::nullopt;
    constexpr DWORD kBadScript = 12166;       // ERROR_WINHTTP_BAD_AUTO_PROXY_SCRIPT
    constexpr DWORD kUnhandledScript = 12176; // ERROR_WINHTTP_UNHANDLED_SCRIPT_TYPE
    constexpr DWORD kScriptError = 12177;     // ERROR_WINHTTP_SCRIPT_EXECUTION_ERROR
    const std::wstring why = isUndecided ? L"it was not decided in time" : ErrorTextOf(HResultFromWin32(e.error));
    if (e.error == kBadScript || e.error == kUnhandledScript || e.error == kScriptError)
        return finding.Fault("proxy_script_broken", WhenMainFails(f), e.script.empty() ? L"found in the network" : e.script,
                             why);
    if (e.source == ESource::Script || IsScriptMissing(f))
        return finding.Fault("proxy_script_unreachable", WhenMainFails(f), e.script.empty() ? f.input.proxyScript : e.script,
                             why);
    // Most networks have no script: that alone is no fault. It counts when nothing can be reached without a proxy.
    const bool isReached = std::any_of(f.connect.begin(), f.connect.end(), [](const CConnectAttempt& a)
    { return a.outcome == EOutcome::Ok || a.outcome == EOutcome::Refused; });
    if (!isUndecided && (isReached || AnyWorks(f)))
        return finding.Pass(L"None: automatic detection, by " + settings + L", finds no script in the network.");
    // The transports wait for the same decision.
    return finding.Fault("proxy_detection_failed", IsProxyUndecided(f) && isReached ? WhenMainFails(f) : EVoCheckStatus::Warn,
                         why);
}

// Whether the proxy let the request through to the server, which answered or began TLS.
bool IsBehindProxy(const CHttpProbe& probe)
{
    constexpr UINT32 kProxyAuthentication = 407;
    const CVoExchangeRecord::CAttempt& attempt = LastAttempt(probe.facts);
    return probe.Works() ||
           (probe.state.IsDone() && !attempt.isProxyFailure && attempt.failure != EVoFailure::ProxyCredentials &&
            probe.facts.statusCode != kProxyAuthentication && (probe.facts.statusCode != 0 || TlsCauseOf(attempt.failure)));
}

std::optional<CFinding> JudgeProxyConnect(const CFacts& f)
{
    CFinding finding(f, "proxy-connect");
    const CProbeState& state = f.State(EProbe::ProxyConnect);
    if (!f.address.isValid)
        return finding.Skip(L"The address is malformed.");
    if (!f.State(EProbe::Proxy).IsOver() || !state.IsOver())
        return std::nullopt;
    if (!NeedsProxy(f))
        return finding.NotApplicable(L"No proxy is used.");
    const CProxyConnectFacts& p = f.proxyConnect;
    finding.FactOf(AttemptsFact(p.attempts)).Fact("tunnel", p.isTunnel).Fact("statusCode", INT64{ p.statusCode });
    finding.Fact("schemes", p.schemes);
    constexpr UINT32 kProxyAuthentication = 407;
    const bool isSuccess = p.statusCode >= 200 && p.statusCode < 300;
    const bool isFine = state.IsDone() && p.isHttp && p.outcome == EOutcome::Ok && p.statusCode != kProxyAuthentication &&
                        (p.isTunnel ? isSuccess : !p.isOwnStatus || isSuccess);
    if (isFine)
        return finding.Pass(p.isTunnel ? L"It opens a connection to the server."
                                       : L"It answers with status " + std::to_wstring(p.statusCode) + L".");
    if (!AreAllOver(f))
        return std::nullopt;
    const EVoCheckStatus status = WhenMainFails(f);
    const bool isConnected =
        std::any_of(p.attempts.begin(), p.attempts.end(), [](const auto& a) { return a.outcome == EOutcome::Ok; });
    if (!p.isNameKnown)
        return finding.Fault("proxy_name_not_found", status, L"the resolver does not know it");
    if (!isConnected && IsAny(EOutcome::Refused, p.attempts))
        return finding.Fault("proxy_refused", status, L"the connection was refused");
    if (!isConnected || !state.IsDone() || p.outcome == EOutcome::TimedOut)
        return finding.Fault("proxy_timeout", status,
                             isConnected ? L"it accepts the connection and sends no response"
                                         : L"no connection attempt is answered");
    if (!p.isHttp)
        return finding.Fault("proxy_refused", status,
                             p.outcome == EOutcome::Ok ? L"what it sends is no HTTP"
                                                       : L"it ends the connection without a response");
    if (p.statusCode == kProxyAuthentication)
    {
        const std::wstring schemes = p.schemes.empty() ? L"none" : Joined(p.schemes);
        if (std::any_of(f.http.begin(), f.http.end(), &IsBehindProxy))
            return finding.Pass(L"It asks for credentials (" + schemes + L") and accepts those of the request.");
        return finding.Fault(IsAnySchemeKnown(p.schemes) ? "proxy_authentication" : "proxy_scheme_unsupported", status,
                             schemes);
    }
    // A proxy that cannot reach the server either does not prove that it is at fault itself.
    const bool isDirectGood =
        std::any_of(f.connect.begin(), f.connect.end(), [](const auto& a) { return a.outcome == EOutcome::Ok; });
    if ((p.statusCode == 502 || p.statusCode == 503 || p.statusCode == 504) && !isDirectGood)
        finding.Area(EVoVerdict::Server);
    return finding.Fault("proxy_denied", status, L"status " + std::to_wstring(p.statusCode));
}

// TLS where the probe has no connection of its own: the proxy wants credentials, or plain http is redirected to https.
std::optional<CFinding> JudgeTlsOfTransports(const CFacts& f)
{
    CFinding finding(f, "tls");
    if (!AreAllOver(f))
        return std::nullopt;
    for (const CHttpProbe& probe : f.http)
    {
        const CVoExchangeRecord::CAttempt& attempt = LastAttempt(probe.facts);
        const char* const cause = probe.state.IsDone() ? TlsCauseOf(attempt.failure) : nullptr;
        if (!cause)
            continue;
        if (!attempt.redirects.empty())
            finding.Host(HostOf(attempt.redirects.back()));
        return finding.Fault(cause, WhenMainFails(f), attempt.reason);
    }
    if (!f.address.isSecure)
        return finding.NotApplicable(L"The address is plain http.");
    constexpr UINT32 kProxyAuthentication = 407;
    return finding.Skip(!NeedsProxy(f) ? L"There is no connection to the server."
                        : f.proxyConnect.statusCode == kProxyAuthentication
                            ? L"The proxy wants credentials, which this check does not send."
                            : L"The proxy opens no connection to the server.");
}

std::optional<CFinding> JudgeTls(const CFacts& f)
{
    CFinding finding(f, "tls");
    const CProbeState& state = f.State(EProbe::Tls);
    if (!f.address.isValid)
        return finding.Skip(L"The address is malformed.");
    if (!state.IsOver())
        return std::nullopt;
    if (state.state == EState::NotRun)
        return JudgeTlsOfTransports(f);
    const CTlsFacts& t = f.tls;
    finding.Fact("protocol", t.protocol)
        .Fact("cipher", t.cipher)
        .FactOf({ "handshakeMs", std::chrono::microseconds(t.handshakeMicroseconds) });
    finding.Fact("chainStatus", static_cast<INT64>(t.chainStatus))
        .Fact("policyError", HResultText(static_cast<HRESULT>(t.policyError)));
    finding.Fact("revocation", std::wstring(RevocationName(t.revocation)));
    CVoDiagnosisFact::CRecords chain;
    for (const CCertificateFacts& c : t.chain)
        chain.push_back({ { "subject", c.subject },
                          { "issuer", c.issuer },
                          { "names", c.names },
                          { "notBefore", DateText(c.notBefore) },
                          { "notAfter", DateText(c.notAfter) },
                          { "key", c.key },
                          { "signature", c.signature },
                          { "sha256", c.thumbprint } });
    finding.FactOf({ "chain", std::move(chain) });
    std::vector<CProblem> problems = TlsProblems(f);
    if (state.state == EState::TimedOut)
        problems = { { "tls_handshake", L"it does not end in time" } };
    std::vector<std::wstring> names;
    names.reserve(problems.size());
    for (const CProblem& problem : problems)
        names.emplace_back(problem.cause, problem.cause + std::char_traits<char>::length(problem.cause));
    finding.Fact("problems", std::move(names));
    if (problems.empty())
        return finding.Pass(t.protocol + L", " + t.cipher + L"; issued by " +
                            (t.chain.empty() ? L"nobody" : t.chain.front().issuer) +
                            (t.chain.empty() ? L"" : L", valid until " + DateText(t.chain.front().notAfter)) + L".");
    if (!AreAllOver(f))
        return std::nullopt;
    if (const std::optional<CFinding> portal = JudgePortalCheck(f); portal && portal->IsFailure())
        return finding.Skip(L"The sign-in page of the network answers in place of the server.");
    const CProblem& first = problems.front();
    const bool isCertificate = t.isTls && t.outcome == EOutcome::Ok && state.IsDone();
    // With the check switched off the transports accept any certificate.
    const EVoCheckStatus status = isCertificate && !f.input.verify ? EVoCheckStatus::Warn : WhenMainFails(f);
    return finding.Fault(first.cause, status, first.what);
}
} // namespace

// Whether the request itself was kept from its server: a page of somebody else is evidence only then.
std::optional<CFinding> JudgePortalCheck(const CFacts& f)
{
    CFinding finding(f, "portal");
    const CProbeState& state = f.State(EProbe::Portal);
    constexpr UINT32 kNetworkAuthentication = 511; // RFC 6585, section 6
    if (!f.address.isValid)
        return finding.Skip(L"The address is malformed.");
    for (const CHttpProbe& probe : f.http)
        if (probe.state.IsDone() && probe.facts.statusCode == kNetworkAuthentication)
            return finding.Fault("captive_portal", EVoCheckStatus::Fail, L"status 511");
    if (!AreAllOver(f))
        return std::nullopt;
    if (state.state == EState::NotRun)
        return NeedsProxy(f) ? finding.NotApplicable(L"A proxy is used.")
                             : finding.Skip(L"There is no connection to the server.");
    if (!state.IsDone() || !f.portal.isHttp)
        return finding.NotApplicable(L"Nothing answers by plain HTTP.");
    const CPortalFacts& p = f.portal;
    finding.Fact("statusCode", INT64{ p.statusCode }).Fact("location", p.location);
    const bool isOtherHost = !p.targetHost.empty() && !IsSameSite(p.targetHost, f.address.host);
    const bool isKept = !AnyWorks(f) && MayAnotherAnswer(f);
    if (p.statusCode == kNetworkAuthentication)
        return finding.Fault("captive_portal", WhenMainFails(f), L"status 511");
    // By plain http the gateway answers the request itself, too, with a status that looks like success.
    if (p.hasGatewayMark && (isKept || !f.address.isSecure))
        return finding.Fault("captive_portal", f.address.isSecure ? WhenMainFails(f) : EVoCheckStatus::Fail,
                             L"a page with the mark of an access gateway");
    // A gateway redirects every plain request. A server may send visitors of its root elsewhere, and answer the request itself.
    const bool isOwnAnswer = std::any_of(f.http.begin(), f.http.end(), [](const CHttpProbe& h)
    { return h.facts.statusCode >= 400 || (h.facts.statusCode / 100 == 2 && LastAttempt(h.facts).redirects.empty()); });
    const bool isRedirected = std::any_of(f.http.begin(), f.http.end(), [](const CHttpProbe& h)
    { return h.facts.statusCode / 100 == 3 || !LastAttempt(h.facts).redirects.empty(); });
    if (isOtherHost && isKept && (f.address.isSecure ? !isOwnAnswer || p.isTargetPrivate : !isOwnAnswer && isRedirected))
        return finding.Fault("captive_portal", WhenMainFails(f), L"plain http is redirected to " + p.targetHost);
    return finding.Pass(isOtherHost ? L"Plain HTTP is redirected to " + p.targetHost + L"."
                                    : L"Nobody answers in place of the server.");
}

std::optional<CFinding> JudgeTlsCheck(const CFacts& f)
{
    return JudgeTls(f);
}
std::optional<CFinding> JudgeConnectCheck(const CFacts& f)
{
    return JudgeConnect(f);
}

std::optional<CVoCheck> Judge(const CFacts& f, const std::string& id)
{
    const auto whenOver = [&](EProbe probe, CFinding (*judge)(const CFacts&)) -> std::optional<CFinding>
    { return f.State(probe).IsOver() ? std::optional(judge(f)) : std::nullopt; };
    std::optional<CFinding> finding;
    if (id == "settings")
        finding = whenOver(EProbe::Settings, &JudgeSettings);
    else if (id == "address")
        finding = whenOver(EProbe::Address, &JudgeAddress);
    else if (!f.State(EProbe::Address).IsOver())
        return std::nullopt;
    else if (id == "clock")
        finding = JudgeClock(f);
    else if (id == "name")
        finding = JudgeName(f);
    else if (id == "connect")
        finding = JudgeConnect(f);
    else if (id == "proxy")
        finding = JudgeProxy(f);
    else if (id == "proxy-connect")
        finding = JudgeProxyConnect(f);
    else if (id == "tls")
        finding = JudgeTls(f);
    else if (id == "portal")
        finding = JudgePortalCheck(f);
    else if (id == "agreement")
        finding = JudgeAgreement(f);
    else
        for (const CHttpProbe& probe : f.http)
            if (id == "http-" + probe.engine)
                finding = JudgeHttp(f, probe);
    return finding ? std::optional(finding->Take()) : std::nullopt;
}
} // namespace VoDiagnosis
