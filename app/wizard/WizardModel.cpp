// The decisions of the wizard (WizardModel.h).
#include "WizardModel.h"

#include "WizardTexts.h"
#include "resource.h"

#include <VoDiagnosisRender.h>
#include <VoHTTPTransports.h>
#include <VoProxyList.h>
#include <VoServerAddress.h>
#include <base/VoText.h>
#include <base/com/VoComHelper.h>
#include <base/com/VoComImplHelper.h>

#include <algorithm>
#include <map>

namespace
{
// Characters of what a server sent. Each may become six to be visible, and a cell of a list holds about a thousand.
constexpr size_t kDetailLimit = 1000;
constexpr size_t kRowLimit = 160;
constexpr std::string_view kPortal = "captive_portal";

std::optional<CServerAddressData> AddressOf(const std::wstring& url)
{
    CServerAddressData address;
    return SUCCEEDED(address.SetAddress(url, false, true, true)) ? std::optional(address) : std::nullopt;
}

// A blank or malformed URL; user information has a sentence of its own, because people paste it.
UINT ProblemOfUrl(const std::wstring& url)
{
    if (VoTrim(url).empty())
        return IDS_URL_EMPTY;
    if (AddressOf(url))
        return 0;
    const size_t authority = url.find(L"://") == std::wstring::npos ? 0 : url.find(L"://") + 3;
    const std::wstring_view host = std::wstring_view(url).substr(authority, url.find_first_of(L"/?#", authority) - authority);
    return host.find(L'@') == std::wstring_view::npos ? IDS_URL_MALFORMED : IDS_URL_USER;
}

std::wstring ProblemOfList(const std::wstring& list)
{
    if (VoTrim(list).empty())
        return WizardText(IDS_PROXY_LIST_EMPTY);
    const std::optional<VoProxyList::CUnusableEntry> problem = VoProxyList::FindProblem(list);
    if (!problem)
        return {};
    return problem->number == 0 ? WizardText(IDS_PROXY_LIST_NONE)
                                : WizardText(IDS_PROXY_LIST_ENTRY, { std::to_wstring(problem->number), problem->reason });
}

// The platform needs the scheme of a script, too.
UINT ProblemOfScript(const std::wstring& url)
{
    if (VoTrim(url).empty())
        return IDS_SCRIPT_EMPTY;
    return url.find(L"://") == std::wstring::npos || !AddressOf(url) ? IDS_SCRIPT_MALFORMED : 0;
}

UINT StateText(EVoCheckStatus status) noexcept
{
    switch (status)
    {
    case EVoCheckStatus::Waiting:
        return IDS_STATE_WAITING;
    case EVoCheckStatus::Running:
        return IDS_STATE_RUNNING;
    case EVoCheckStatus::Pass:
        return IDS_STATE_PASS;
    case EVoCheckStatus::Warn:
        return IDS_STATE_WARN;
    case EVoCheckStatus::Fail:
        return IDS_STATE_FAIL;
    case EVoCheckStatus::Skip:
        return IDS_STATE_SKIP;
    default:
        return IDS_STATE_NA;
    }
}

std::wstring Milliseconds(INT64 microseconds)
{
    return VoFormat(L"%.1f ms", static_cast<double>(microseconds) / 1000);
}

std::wstring WideOf(std::string_view ascii)
{
    return { ascii.begin(), ascii.end() };
}

void AddLine(std::wstring& lines, const std::wstring& line)
{
    lines += (lines.empty() ? L"" : L"\r\n") + line;
}

CWizardChart::CBar BarOf(const CVoTimeline& timeline, const std::vector<VoDiagnosisText::CPhase>& phases, INT64 longest)
{
    CWizardChart::CBar bar;
    bar.name = WideOf(timeline.engine);
    bar.time = Milliseconds(phases.back().end);
    bar.isFailed = FAILED(timeline.result);
    const auto scale = static_cast<double>(longest);
    for (const VoDiagnosisText::CPhase& phase : phases)
        bar.segments.push_back({ phase.key, static_cast<double>(phase.begin) / scale, static_cast<double>(phase.end) / scale });
    return bar;
}
} // namespace

CWizardModel::CWizardModel(CWizardInputs inputs, UINT32 configuredEngine)
    : m_inputs(std::move(inputs)), m_configuredEngine(configuredEngine)
{
}

void CWizardModel::SetInputs(CWizardInputs inputs)
{
    m_inputs = std::move(inputs);
}

std::wstring CWizardModel::FindProblem(EWizardField field) const
{
    if (field == EWizardField::Url)
    {
        const UINT problem = ProblemOfUrl(m_inputs.url);
        return problem == 0 ? std::wstring() : WizardText(problem);
    }
    if (field == EWizardField::ProxyList && m_inputs.proxy == EProxyChoice::List)
        return ProblemOfList(m_inputs.proxyList);
    if (field == EWizardField::ScriptUrl && m_inputs.proxy == EProxyChoice::Script)
    {
        const UINT problem = ProblemOfScript(m_inputs.scriptUrl);
        return problem == 0 ? std::wstring() : WizardText(problem);
    }
    return {};
}

std::wstring CWizardModel::ProblemOf(EWizardField field) const
{
    const bool isTold = field == EWizardField::Url ? m_isServerChecked : m_isProxyChecked;
    return isTold ? FindProblem(field) : std::wstring();
}

EWizardField CWizardModel::Leave(EWizardPage page)
{
    m_isServerChecked |= page == EWizardPage::Server;
    m_isProxyChecked |= page == EWizardPage::Proxy;
    if (page == EWizardPage::Server && !FindProblem(EWizardField::Url).empty())
        return EWizardField::Url;
    if (page == EWizardPage::Proxy)
        for (const EWizardField field : { EWizardField::ProxyList, EWizardField::ScriptUrl })
            if (!FindProblem(field).empty())
                return field;
    return EWizardField::None;
}

bool CWizardModel::HasUrl() const
{
    return ProblemOfUrl(m_inputs.url) == 0;
}

std::wstring CWizardModel::UrlToRemember() const
{
    const std::optional<CServerAddressData> address = AddressOf(m_inputs.url);
    return address ? address->PathURL() : std::wstring();
}

std::wstring CWizardModel::DescribeSystemProxy(HRESULT hr, const CHTTPProxyConfigData& config)
{
    if (FAILED(hr))
        return WizardText(IDS_SYSTEM_FAILED, { WizardErrorText(hr) });
    if (!config.pacFileUrl.empty())
        return WizardText(IDS_SYSTEM_SCRIPT, { VoVisibleText(config.pacFileUrl) });
    if (config.autoDetect)
        return WizardText(IDS_SYSTEM_DETECT);
    if (config.manualProxy.empty())
        return WizardText(IDS_SYSTEM_NONE);
    if (config.manualProxyBypassList.empty())
        return WizardText(IDS_SYSTEM_LIST, { VoVisibleText(config.manualProxy) });
    return WizardText(IDS_SYSTEM_BYPASS, { VoVisibleText(config.manualProxy), VoVisibleText(config.manualProxyBypassList) });
}

std::optional<CHTTPProxyConfigData> CWizardModel::ProxyConfig() const
{
    CHTTPProxyConfigData config;
    if (m_inputs.proxy == EProxyChoice::System)
        return std::nullopt;
    if (m_inputs.proxy == EProxyChoice::List)
    {
        config.manualProxy = VoTrim(m_inputs.proxyList);
        config.manualProxyBypassList = VoTrim(m_inputs.bypassList);
    }
    if (m_inputs.proxy == EProxyChoice::Script)
        config.pacFileUrl = VoTrim(m_inputs.scriptUrl);
    return config;
}

std::wstring CWizardModel::DescribeProxy(HRESULT hr, const std::wstring& url, const CVoProxyExplanation& explanation)
{
    if (FAILED(hr))
        return WizardText(IDS_TEST_FAILED, { WizardErrorText(hr) });
    const std::optional<CServerAddressData> address = AddressOf(url);
    const std::wstring target = address ? address->BaseURL() : url;
    std::wstring lines = explanation.proxy.empty() ? WizardText(IDS_TEST_DIRECT, { target })
                                                   : WizardText(IDS_TEST_PROXY, { target, VoVisibleText(explanation.proxy) });
    using ESource = CVoProxyExplanation::ESource;
    if (explanation.isBypassed)
        AddLine(lines, WizardText(IDS_TEST_BYPASS, { VoVisibleText(explanation.rule) }));
    else if (explanation.error != ERROR_SUCCESS)
        AddLine(lines, WizardText(IDS_TEST_DISCOVERY_FAILED, { WizardErrorText(HResultFromWin32(explanation.error)) }));
    else if (explanation.source == ESource::Manual)
        AddLine(lines, WizardText(IDS_TEST_MANUAL, { VoVisibleText(explanation.rule) }));
    else if (explanation.source == ESource::Script)
        AddLine(lines, WizardText(IDS_TEST_SCRIPT, { VoVisibleText(explanation.script) }));
    else
        AddLine(lines, WizardText(explanation.source == ESource::Detection ? IDS_TEST_DETECTION : IDS_TEST_NONE));
    for (const CVoProxyExplanation::CTried& step : explanation.tried)
        AddLine(lines,
                WizardText(IDS_TEST_TRIED, { VoVisibleText(step.what), std::to_wstring((step.microseconds + 500) / 1000) }));
    return lines;
}

CVoDiagnosisOptions CWizardModel::MakeOptions() const
{
    CVoDiagnosisOptions options;
    options.url = m_inputs.url;
    if (m_inputs.engine)
        options.engines = { *m_inputs.engine };
    options.configuredEngine = m_configuredEngine;
    options.verifyServerCertificate = m_inputs.verifyCertificate;
    options.checkRevocation = m_inputs.verifyCertificate && m_inputs.checkRevocation;
    if (const std::optional<CHTTPProxyConfigData> config = ProxyConfig())
    {
        options.proxyStore = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
        if (!options.proxyStore)
            throw std::bad_alloc();
        if (const HRESULT hr = options.proxyStore->Init(*config); FAILED(hr))
            throw CVoHResultException(hr);
        options.isProxyGiven = true;
        options.proxyScript = config->pacFileUrl;
    }
    return options;
}

void CWizardModel::Begin()
{
    m_checks.clear();
    m_report = {};
    m_result = S_OK;
    m_run = EWizardRun::Running;
}

void CWizardModel::OnCheck(const CVoCheck& check)
{
    const auto found = std::find_if(m_checks.begin(), m_checks.end(), [&](const CVoCheck& c) { return c.id == check.id; });
    if (found == m_checks.end())
        m_checks.push_back(check);
    else
        *found = check;
}

void CWizardModel::OnFinished(HRESULT hr, CVoDiagnosisReport report)
{
    m_result = hr;
    m_report = std::move(report);
    if (!m_report.checks.empty())
        m_checks = m_report.checks;
    if (m_report.isCancelled || m_run == EWizardRun::Stopping)
        m_run = EWizardRun::Stopped;
    else
        m_run = FAILED(hr) ? EWizardRun::Failed : EWizardRun::Done;
}

bool CWizardModel::Stop() noexcept
{
    if (m_run != EWizardRun::Running)
        return false;
    m_run = EWizardRun::Stopping;
    return true;
}

bool CWizardModel::CanGoBack(EWizardPage page) const noexcept
{
    return page != EWizardPage::Server && !IsBusy();
}

bool CWizardModel::CanGoOn(EWizardPage page) const noexcept
{
    // Wrong input is told when the page is left: a button that is off does not say why.
    return page != EWizardPage::Checking || m_run == EWizardRun::Stopped || m_run == EWizardRun::Done;
}

EWizardPage CWizardModel::PageBefore(EWizardPage page) noexcept
{
    return page == EWizardPage::Checking || page == EWizardPage::Result ? EWizardPage::Proxy : EWizardPage::Server;
}

std::vector<CWizardRow> CWizardModel::Rows() const
{
    std::vector<CWizardRow> rows;
    rows.reserve(m_checks.size());
    for (const CVoCheck& check : m_checks)
        rows.push_back(
            { WizardText(StateText(check.status)), check.name, VoVisibleText(check.detail, kRowLimit), check.status });
    return rows;
}

size_t CWizardModel::DoneCount() const noexcept
{
    return static_cast<size_t>(
        std::count_if(m_checks.begin(), m_checks.end(), [](const CVoCheck& check) { return check.IsFinal(); }));
}

std::wstring CWizardModel::Progress() const
{
    switch (m_run)
    {
    case EWizardRun::Stopping:
        return WizardText(IDS_STOPPING);
    case EWizardRun::Stopped:
        return WizardText(IDS_STOPPED);
    case EWizardRun::Done:
        return WizardText(IDS_DONE);
    case EWizardRun::Failed:
        return WizardText(IDS_RUN_FAILED, { WizardErrorText(m_result) });
    default:
        return WizardText(IDS_PROGRESS, { std::to_wstring(DoneCount()), std::to_wstring(CheckCount()) });
    }
}

std::wstring CWizardModel::Summary() const
{
    return VoVisibleText(m_report.summary);
}

std::wstring CWizardModel::Advice() const
{
    if (m_report.advice.empty())
        return WizardText(m_run == EWizardRun::Stopped ? IDS_ADVICE_STOPPED : IDS_NO_ADVICE);
    std::wstring lines;
    for (size_t i = 0; i < m_report.advice.size(); ++i)
    {
        const std::wstring number = m_report.advice.size() == 1 ? std::wstring() : std::to_wstring(i + 1) + L". ";
        AddLine(lines, number + VoVisibleText(m_report.advice[i]));
    }
    if (m_report.cause == kPortal && !PageToShow().empty())
        AddLine(lines, WizardText(IDS_ADVICE_PORTAL));
    return lines;
}

CWizardChart CWizardModel::Chart() const
{
    CWizardChart chart;
    std::map<std::string, std::wstring> names;
    const INT64 longest = VoDiagnosisText::LongestOf(m_report);
    for (const CVoTimeline& timeline : m_report.timelines)
    {
        const std::vector<VoDiagnosisText::CPhase> phases = VoDiagnosisText::PhasesOf(timeline);
        if (phases.empty() || phases.back().end == 0)
            continue;
        chart.bars.push_back(BarOf(timeline, phases, longest));
        std::wstring words;
        for (const VoDiagnosisText::CPhase& phase : phases)
        {
            words += (words.empty() ? L"" : L", ") +
                     WizardText(IDS_CHART_PHASE, { phase.name, Milliseconds(phase.end - phase.begin) });
            names.emplace(phase.key, phase.name);
        }
        AddLine(chart.text, WizardText(IDS_CHART_BAR, { chart.bars.back().name, words, chart.bars.back().time }));
    }
    // In the order of a request.
    for (const char* const phase : { "name", "connect", "tls", "sent", "firstByte", "total" })
        if (const auto name = names.find(phase); name != names.end())
            chart.legend.emplace_back(*name);
    chart.scale = chart.bars.empty() ? WizardText(IDS_CHART_NONE) : WizardText(IDS_CHART_SCALE, { Milliseconds(longest) });
    if (chart.bars.empty())
        chart.text = chart.scale;
    return chart;
}

size_t CWizardModel::FirstRow() const noexcept
{
    const auto found =
        std::find_if(m_checks.begin(), m_checks.end(), [&](const CVoCheck& c) { return c.id == m_report.failedCheck; });
    return found == m_checks.end() ? 0 : static_cast<size_t>(found - m_checks.begin());
}

std::wstring CWizardModel::Details(size_t row) const
{
    if (row >= m_checks.size())
        return {};
    const CVoCheck& check = m_checks[row];
    std::wstring lines = check.name + L": " + WizardText(StateText(check.status));
    // The evidence is often the same sentence.
    for (const std::wstring& text : { check.summary, check.detail == check.summary ? std::wstring() : check.detail })
        if (!text.empty())
            AddLine(lines, VoVisibleText(text, kDetailLimit));
    if (!check.fix.empty())
        AddLine(lines, WizardText(IDS_DETAIL_FIX, { VoVisibleText(check.fix) }));
    if (check.microseconds != 0)
        AddLine(lines, WizardText(IDS_DETAIL_TIME, { Milliseconds(check.microseconds) }));
    return lines;
}

UINT32 CWizardModel::RecommendedKind() const noexcept
{
    for (const CVoHTTPTransportRow& transport : VoHTTPTransports())
        if (transport.name == m_report.recommendedEngine)
            return transport.kind;
    return m_configuredEngine;
}

bool CWizardModel::CanUseTransport() const noexcept
{
    return !IsBusy() && RecommendedKind() != m_configuredEngine;
}

std::wstring CWizardModel::UseTransportLabel() const
{
    return CanUseTransport() ? WizardText(IDS_USE_TRANSPORT, { WideOf(m_report.recommendedEngine) }) : std::wstring();
}

std::wstring CWizardModel::UseTransportQuestion(const std::wstring& file) const
{
    return WizardText(IDS_USE_QUESTION, { WideOf(m_report.recommendedEngine), std::to_wstring(RecommendedKind()), file });
}

void CWizardModel::OnTransportUsed()
{
    m_configuredEngine = RecommendedKind();
}

std::wstring CWizardModel::PageToShow() const
{
    const std::optional<CServerAddressData> address = AddressOf(m_inputs.url);
    if (!address)
        return {};
    if (m_report.cause != kPortal)
        return address->FullURL();
    // The gateway can only answer in place of plain http.
    const bool isIPv6 = address->Host().find(L':') != std::wstring::npos;
    return L"http://" + (isIPv6 ? L"[" + address->Host() + L"]" : address->Host()) + L"/";
}

std::wstring CWizardModel::ReportText() const
{
    std::wstring text = m_report.url + L"\r\n" + m_report.time + L"\r\n\r\n";
    const auto add = [&](const std::vector<CVoTextLine>& lines)
    {
        for (const CVoTextLine& line : lines)
        {
            for (const CVoTextPiece& piece : line)
                text += piece.text;
            text += L"\r\n";
        }
    };
    for (const CVoCheck& check : m_report.checks)
        add(VoRenderCheck(check, true));
    add(VoRenderConclusion(m_report, true));
    return text;
}
