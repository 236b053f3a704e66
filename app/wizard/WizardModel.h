// What the wizard knows and decides: inputs, their validation, the run of the checks, what each page shows, which buttons are
// enabled. It has no window: pages are views of it, and tests drive it directly. One thread uses it, that of the window.
#pragma once

#include <VoDiagnosisOptions.h>
#include <VoDiagnosisReport.h>
#include <VoProxyConfiguration.h>

#include <optional>
#include <string>
#include <vector>

enum class EWizardPage
{
    Server,
    Proxy,
    Checking,
    Result
};
// A field that may hold wrong input.
enum class EWizardField
{
    None,
    Url,
    ProxyList,
    ScriptUrl
};
enum class EProxyChoice
{
    System,
    List,
    Script,
    Direct
};

struct CWizardInputs
{
    std::wstring url;
    std::optional<UINT32> engine; // the kind of one transport; nothing: all three
    bool verifyCertificate = true;
    bool checkRevocation = false;
    EProxyChoice proxy = EProxyChoice::System;
    std::wstring proxyList;
    std::wstring bypassList;
    std::wstring scriptUrl;
};

// A row of the list of checks.
struct CWizardRow
{
    std::wstring state;
    std::wstring name;
    std::wstring found;
    EVoCheckStatus status = EVoCheckStatus::Waiting;
};

// The phases of the requests, as data for a drawing. Places are from 0 to 1 on one scale.
struct CWizardChart
{
    struct CSegment
    {
        std::string phase; // the key of the timeline: "connect"
        double begin = 0;
        double end = 0;
    };
    struct CBar
    {
        std::wstring name;
        std::wstring time;
        bool isFailed = false;
        std::vector<CSegment> segments;
    };
    std::wstring scale; // a caption
    std::vector<CBar> bars;
    std::vector<std::pair<std::string, std::wstring>> legend; // the phases that happened: key, name
    std::wstring text;                                        // the same in words, for screen readers
};

enum class EWizardRun
{
    NotStarted,
    Running,
    Stopping,
    Stopped, // by the user; the report holds what was known
    Done,
    Failed // the checks could not run
};

class CWizardModel
{
public:
    // `configuredEngine` is the transport that the program uses. Throws std::bad_alloc, as all functions that give texts.
    CWizardModel(CWizardInputs inputs, UINT32 configuredEngine);

    [[nodiscard]] const CWizardInputs& Inputs() const noexcept { return m_inputs; }
    // What the user entered so far, right or wrong.
    void SetInputs(CWizardInputs inputs);

    // What is wrong with a field; empty when it is right, and before its page was left for the first time: nobody is told
    // while they still type.
    [[nodiscard]] std::wstring ProblemOf(EWizardField field) const;
    // Whether the page may be left by Next: the first wrong field, or None. From then on ProblemOf tells.
    [[nodiscard]] EWizardField Leave(EWizardPage page);
    // The URL is right, so that its proxy can be tested.
    [[nodiscard]] bool HasUrl() const;
    // The URL with its scheme and without its query, to be remembered. Empty for a wrong one.
    [[nodiscard]] std::wstring UrlToRemember() const;

    // The proxy that the system has, in a sentence. `hr` is the result of CHTTPProxyConfigData::InitFromIE.
    [[nodiscard]] static std::wstring DescribeSystemProxy(HRESULT hr, const CHTTPProxyConfigData& config);
    // The configuration of the inputs, unless the system's is used.
    [[nodiscard]] std::optional<CHTTPProxyConfigData> ProxyConfig() const;
    // Which proxy a URL gets and why, in lines. `hr` is the result of ExplainProxyForUrl.
    [[nodiscard]] static std::wstring DescribeProxy(HRESULT hr, const std::wstring& url,
                                                    const CVoProxyExplanation& explanation);

    // What the next run checks, without callbacks. Throws CVoHResultException when the proxy store cannot be made.
    [[nodiscard]] CVoDiagnosisOptions MakeOptions() const;
    // The run. Begin forgets the results of the last one.
    void Begin();
    void OnCheck(const CVoCheck& check);
    // Only what is known counts after a stop. `hr` is the result of CVoDiagnosis::Run.
    void OnFinished(HRESULT hr, CVoDiagnosisReport report);
    // True when there is a run to be stopped.
    bool Stop() noexcept;
    [[nodiscard]] EWizardRun Run() const noexcept { return m_run; }
    [[nodiscard]] bool IsBusy() const noexcept { return m_run == EWizardRun::Running || m_run == EWizardRun::Stopping; }

    [[nodiscard]] bool CanGoBack(EWizardPage page) const noexcept;
    [[nodiscard]] bool CanGoOn(EWizardPage page) const noexcept;
    // Where Back leads: from the result to the proxy, because the checking page would run at once.
    [[nodiscard]] static EWizardPage PageBefore(EWizardPage page) noexcept;
    [[nodiscard]] bool CanStop() const noexcept { return m_run == EWizardRun::Running; }

    [[nodiscard]] std::vector<CWizardRow> Rows() const;
    [[nodiscard]] size_t CheckCount() const noexcept { return m_checks.size(); }
    [[nodiscard]] size_t DoneCount() const noexcept;
    [[nodiscard]] std::wstring Progress() const; // in a sentence

    // The result page.
    [[nodiscard]] const CVoDiagnosisReport& Report() const noexcept { return m_report; }
    [[nodiscard]] std::wstring Summary() const;
    [[nodiscard]] std::wstring Advice() const; // lines, numbered when they are several
    [[nodiscard]] CWizardChart Chart() const;
    // The row that is selected first: that of the fault, else the first.
    [[nodiscard]] size_t FirstRow() const noexcept;
    [[nodiscard]] std::wstring Details(size_t row) const; // in lines; empty for no such row
    // Another transport works where the configured one does not. The texts of its button and of the question before it is
    // written to `file`.
    [[nodiscard]] bool CanUseTransport() const noexcept;
    [[nodiscard]] UINT32 RecommendedKind() const noexcept;
    [[nodiscard]] std::wstring UseTransportLabel() const;
    [[nodiscard]] std::wstring UseTransportQuestion(const std::wstring& file) const;
    // HTTPEngine is written.
    void OnTransportUsed();
    // The page that a person should see: that of the network's sign-in by plain http, else that of the URL. Empty for none.
    [[nodiscard]] std::wstring PageToShow() const;
    // The report as lines of plain text with CR LF.
    [[nodiscard]] std::wstring ReportText() const;

private:
    [[nodiscard]] std::wstring FindProblem(EWizardField field) const;

    CWizardInputs m_inputs;
    UINT32 m_configuredEngine;
    bool m_isServerChecked = false;
    bool m_isProxyChecked = false;
    EWizardRun m_run = EWizardRun::NotStarted;
    std::vector<CVoCheck> m_checks;
    CVoDiagnosisReport m_report;
    HRESULT m_result = S_OK;
};
