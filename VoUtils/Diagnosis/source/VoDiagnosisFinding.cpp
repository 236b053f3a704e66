// CFinding and the texts that the judges share (VoDiagnosisFinding.h).
#include "VoDiagnosisFinding.h"
#include "VoDiagnosisJudge.h"

#include <VoDiagnosisCauses.h>
#include <VoServerAddress.h>

#include <base/VoErrorText.h>
#include <base/VoText.h>

#include <algorithm>
#include <array>
#include <cwchar>
#include <cwctype>

namespace VoDiagnosis
{
namespace
{
constexpr INT64 kFileTimePerSecond = 10'000'000;
constexpr INT64 kUnixEpoch = 11'644'473'600; // in seconds since 1601

struct CCheckName
{
    const char* id;
    const wchar_t* name;
};
constexpr CCheckName kNames[] = {
    { "settings", L"Settings" },
    { "address", L"Address" },
    { "clock", L"Clock" },
    { "name", L"Name" },
    { "connect", L"Connection" },
    { "proxy", L"Proxy" },
    { "proxy-connect", L"Through the proxy" },
    { "tls", L"TLS and certificate" },
    { "portal", L"Sign-in page" },
};
constexpr CCheckName kLastName{ "agreement", L"Agreement" };
} // namespace

CFinding::CFinding(const CFacts& facts, std::string id) : m_facts(&facts), m_host(facts.address.host)
{
    m_check.id = std::move(id);
    for (const CVoCheck& check : MakeChecks(facts))
        if (check.id == m_check.id)
            m_check.name = check.name;
}

CFinding& CFinding::Fact(const char* key, std::wstring text)
{
    return FactOf({ key, std::move(text) });
}
CFinding& CFinding::Fact(const char* key, INT64 number)
{
    return FactOf({ key, number });
}
CFinding& CFinding::Fact(const char* key, bool value)
{
    return FactOf({ key, value });
}
CFinding& CFinding::Fact(const char* key, std::vector<std::wstring> texts)
{
    return FactOf({ key, std::move(texts) });
}
CFinding& CFinding::FactOf(CVoDiagnosisFact fact)
{
    m_check.facts.push_back(std::move(fact));
    return *this;
}
CFinding& CFinding::Area(EVoVerdict area)
{
    m_area = area;
    return *this;
}
CFinding& CFinding::Advise(std::wstring step)
{
    m_advice.push_back(std::move(step));
    return *this;
}
CFinding& CFinding::Host(std::wstring host)
{
    m_host = std::move(host);
    return *this;
}
CFinding& CFinding::Engine(std::string_view engine)
{
    m_engine.assign(engine.begin(), engine.end());
    return *this;
}

CFinding CFinding::End(EVoCheckStatus status, std::wstring detail)
{
    m_check.status = status;
    m_check.detail = std::move(detail);
    return std::move(*this);
}

std::wstring CFinding::Fill(std::wstring_view text, std::wstring_view what) const
{
    const CAddressFacts& address = m_facts->address;
    std::wstring filled;
    while (!text.empty())
    {
        const size_t brace = std::min(text.find(L'{'), text.size());
        filled += text.substr(0, brace);
        text.remove_prefix(brace);
        const size_t end = text.find(L'}');
        if (text.empty() || end == std::wstring_view::npos)
            break;
        const std::wstring_view name = text.substr(1, end - 1);
        if (name == L"host")
            filled += m_host;
        else if (name == L"port")
            filled += std::to_wstring(address.port);
        else if (name == L"url")
            filled += m_facts->input.url;
        else if (name == L"proxy")
            filled += m_facts->proxy.explanation.proxy;
        else if (name == L"engine")
            filled += m_engine;
        else if (name == L"what")
            filled += what;
        text.remove_prefix(end + 1);
    }
    return filled;
}

CFinding CFinding::Fault(const char* cause, EVoCheckStatus status, const std::wstring& what, const std::wstring& more)
{
    const CVoDiagnosisCause* const row = VoFindDiagnosisCause(cause);
    m_check.cause = cause;
    m_check.area = m_area.value_or(row->area);
    m_check.summary = Fill(row->summary, what);
    m_check.advice = std::move(m_advice);
    std::wstring_view rest = row->advice;
    while (!rest.empty())
    {
        const size_t end = std::min(rest.find(L'\n'), rest.size());
        m_check.advice.push_back(Fill(rest.substr(0, end), what));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    m_check.fix = m_check.advice.front();
    // The summary is the evidence, where it names what was seen.
    std::wstring evidence = more;
    if (std::wstring_view(row->summary).find(L"{what}") == std::wstring_view::npos && more.empty())
        evidence = what;
    std::wstring detail = m_check.summary;
    if (!evidence.empty())
    {
        detail.resize(detail.find_last_not_of(L'.') + 1);
        detail.append(L" (").append(evidence).append(L").");
    }
    return End(status, std::move(detail));
}

std::vector<CVoCheck> MakeChecks(const CFacts& facts)
{
    std::vector<CVoCheck> checks;
    const auto add = [&](std::string id, std::wstring name)
    {
        CVoCheck& check = checks.emplace_back();
        check.id = std::move(id);
        check.name = std::move(name);
    };
    for (const CCheckName& name : kNames)
        add(name.id, name.name);
    for (const CHttpProbe& probe : facts.http)
        add("http-" + probe.engine, L"Request over " + std::wstring(probe.engine.begin(), probe.engine.end()));
    add(kLastName.id, kLastName.name);
    return checks;
}

const CVoExchangeRecord::CAttempt& LastAttempt(const CHttpFacts& facts)
{
    static const CVoExchangeRecord::CAttempt kNone;
    return facts.record.attempts.empty() ? kNone : facts.record.attempts.back();
}

const char* TlsCauseOf(EVoFailure failure) noexcept
{
    switch (failure)
    {
    case EVoFailure::TlsHandshake:
        return "tls_handshake";
    case EVoFailure::CertificateName:
        return "certificate_name";
    case EVoFailure::CertificateDate:
        return "certificate_expired";
    case EVoFailure::Certificate:
    case EVoFailure::CertificateIssuer:
        return "certificate_issuer";
    case EVoFailure::CertificateRevoked:
        return "certificate_revoked";
    case EVoFailure::RevocationUnknown:
        return "revocation_unknown";
    default:
        return nullptr;
    }
}

bool IsConnectFailure(EVoFailure failure) noexcept
{
    return failure == EVoFailure::ConnectRefused || failure == EVoFailure::ConnectFailed ||
           failure == EVoFailure::ConnectTimeOut;
}

bool IsProxyUndecided(const CFacts& facts) noexcept
{
    return facts.State(EProbe::Proxy).state == EState::TimedOut;
}

bool AreAllOver(const CFacts& facts) noexcept
{
    return std::all_of(facts.states.begin(), facts.states.end(), [](const CProbeState& s) { return s.IsOver(); }) &&
           std::all_of(facts.http.begin(), facts.http.end(), [](const CHttpProbe& p) { return p.state.IsOver(); });
}

bool AnyWorks(const CFacts& facts) noexcept
{
    return std::any_of(facts.http.begin(), facts.http.end(), [](const CHttpProbe& p) { return p.Works(); });
}

const CHttpProbe* MainProbe(const CFacts& facts) noexcept
{
    constexpr UINT32 kWinHTTP = 1;
    constexpr UINT32 kWinHTTPLoopback = 3;
    const UINT32 configured = facts.input.configuredEngine;
    const auto find = [&](UINT32 kind) -> const CHttpProbe*
    {
        for (const CHttpProbe& probe : facts.http)
            if (probe.kind == kind)
                return &probe;
        return nullptr;
    };
    if (const CHttpProbe* const probe = find(configured))
        return probe;
    // The two kinds of WinHTTP differ only for requests to this machine.
    if (const CHttpProbe* const probe = configured == kWinHTTPLoopback ? find(kWinHTTP) : nullptr)
        return probe;
    return facts.http.empty() ? nullptr : &facts.http.front();
}

bool MainWorks(const CFacts& facts) noexcept
{
    const CHttpProbe* const probe = MainProbe(facts);
    return probe && probe->Works();
}

EVoCheckStatus WhenMainFails(const CFacts& facts) noexcept
{
    return MainWorks(facts) ? EVoCheckStatus::Warn : EVoCheckStatus::Fail;
}

INT64 SecondsOf(const FILETIME& time) noexcept
{
    return ((static_cast<INT64>(time.dwHighDateTime) << 32) | time.dwLowDateTime) / kFileTimePerSecond - kUnixEpoch;
}

std::optional<INT64> ParseHttpDate(const std::wstring& text)
{
    static constexpr std::array kMonths{ L"Jan", L"Feb", L"Mar", L"Apr", L"May", L"Jun",
                                         L"Jul", L"Aug", L"Sep", L"Oct", L"Nov", L"Dec" };
    const size_t comma = text.find(L", ");
    // "Sun, 06 Nov 1994 08:49:37 GMT": the fields stand at fixed places.
    constexpr size_t kLength = 24;
    if (comma == std::wstring::npos || text.size() < comma + 2 + kLength)
        return std::nullopt;
    const std::wstring_view date = std::wstring_view(text).substr(comma + 2);
    const auto number = [&](size_t at, size_t length) { return VoParseDecimal<UINT16>(date.substr(at, length)); };
    const auto month = std::find(kMonths.begin(), kMonths.end(), date.substr(3, 3));
    const auto day = number(0, 2);
    const auto year = number(7, 4);
    const auto hour = number(12, 2);
    const auto minute = number(15, 2);
    const auto second = number(18, 2);
    if (month == kMonths.end() || !day || !year || !hour || !minute || !second)
        return std::nullopt;
    const SYSTEMTIME fields{ *year, static_cast<WORD>(month - kMonths.begin() + 1), 0, *day, *hour, *minute, *second, 0 };
    FILETIME time{};
    if (!::SystemTimeToFileTime(&fields, &time))
        return std::nullopt;
    return SecondsOf(time);
}

std::wstring DateText(const FILETIME& time)
{
    SYSTEMTIME fields{};
    if (!::FileTimeToSystemTime(&time, &fields))
        return L"an unknown date";
    return VoFormat(L"%04u-%02u-%02u", fields.wYear, fields.wMonth, fields.wDay);
}

std::wstring Milliseconds(INT64 microseconds)
{
    return VoFormat(microseconds < 10'000 ? L"%.1f ms" : L"%.0f ms", static_cast<double>(microseconds) / 1000);
}

std::wstring HResultText(HRESULT result)
{
    return VoFormat(L"0x%08X", static_cast<unsigned>(result));
}

std::wstring ErrorTextOf(HRESULT result)
{
    std::wstring text;
    if (FAILED(VoGetErrorText(result, false, &text)) || VoTrim(text).empty())
        return HResultText(result);
    std::wstring line;
    for (const wchar_t character : VoTrim(text))
        if (character != L'\r')
            line += character == L'\n' ? L' ' : character;
    while (line.ends_with(L'.'))
        line.pop_back();
    return line + L", " + HResultText(result);
}

const wchar_t* OutcomeName(EOutcome outcome) noexcept
{
    switch (outcome)
    {
    case EOutcome::Ok:
        return L"ok";
    case EOutcome::Refused:
        return L"refused";
    case EOutcome::Unreachable:
        return L"unreachable";
    case EOutcome::TimedOut:
        return L"timeout";
    case EOutcome::Closed:
        return L"closed";
    case EOutcome::Error:
        break;
    }
    return L"error";
}

const wchar_t* OutcomeText(EOutcome outcome) noexcept
{
    switch (outcome)
    {
    case EOutcome::Ok:
        return L"works";
    case EOutcome::Refused:
        return L"refuses";
    case EOutcome::Unreachable:
        return L"cannot be reached";
    case EOutcome::TimedOut:
        return L"does not answer in time";
    case EOutcome::Closed:
        return L"ends the connection";
    case EOutcome::Error:
        break;
    }
    return L"fails";
}

const wchar_t* RevocationName(ERevocation revocation) noexcept
{
    switch (revocation)
    {
    case ERevocation::Good:
        return L"good";
    case ERevocation::Revoked:
        return L"revoked";
    case ERevocation::Unknown:
        return L"unknown";
    case ERevocation::NotChecked:
        break;
    }
    return L"not checked";
}

std::wstring HeaderOf(const CVoExchangeRecord::CResponse& response, std::wstring_view name)
{
    for (const CVoHTTPHeader& header : response.headers)
        if (VoEqualsNoCase(header.name, name))
            return header.value;
    return {};
}

std::wstring HostOf(std::wstring_view url)
{
    CServerAddressData address;
    return url.find(L"://") != std::wstring_view::npos && SUCCEEDED(address.SetAddress(url, false, false, false))
               ? address.Host()
               : std::wstring();
}

bool IsSameSite(std::wstring_view a, std::wstring_view b) noexcept
{
    for (std::wstring_view* host : { &a, &b })
        if (VoStartsWithNoCase(*host, L"www."))
            host->remove_prefix(4);
    return VoEqualsNoCase(a, b);
}

bool IsAnySchemeKnown(const std::vector<std::wstring>& schemes) noexcept
{
    return std::any_of(schemes.begin(), schemes.end(), [](const std::wstring& scheme)
    {
        return VoEqualsNoCase(scheme, L"Basic") || VoEqualsNoCase(scheme, L"Digest") || VoEqualsNoCase(scheme, L"NTLM") ||
               VoEqualsNoCase(scheme, L"Negotiate");
    });
}

std::wstring ReportedUrl(std::wstring_view url)
{
    url = VoTrim(url);
    url = url.substr(0, url.find(L'#'));
    const size_t query = std::min(url.find(L'?'), url.size());
    std::wstring text(url.substr(0, query));
    // A user and a password in front of the host: no address, but somebody may have typed them. An address has none.
    CServerAddressData address;
    const bool isAddress = SUCCEEDED(address.SetAddress(text, false, false, false));
    if (const size_t at = text.rfind(L'@'); at != std::wstring::npos && !isAddress)
    {
        const size_t scheme = text.find(L"://");
        const size_t begin = scheme == std::wstring::npos || scheme > at ? 0 : scheme + 3;
        text.replace(begin, at - begin, L"<hidden>");
    }
    if (query < url.size())
        text += L"?<" + std::to_wstring(url.size() - query - 1) + L" characters>";
    return text;
}

} // namespace VoDiagnosis

const char* VoCheckStatusName(EVoCheckStatus status) noexcept
{
    switch (status)
    {
    case EVoCheckStatus::Waiting:
        return "waiting";
    case EVoCheckStatus::Running:
        return "running";
    case EVoCheckStatus::Pass:
        return "pass";
    case EVoCheckStatus::Warn:
        return "warn";
    case EVoCheckStatus::Fail:
        return "fail";
    case EVoCheckStatus::Skip:
        return "skip";
    case EVoCheckStatus::NotApplicable:
        break;
    }
    return "n/a";
}

const char* VoVerdictName(EVoVerdict verdict) noexcept
{
    static constexpr std::array kNames{ "ok",    "degraded", "settings",    "address", "name",  "network",
                                        "proxy", "tls",      "credentials", "portal",  "server" };
    return kNames[static_cast<size_t>(verdict)];
}
