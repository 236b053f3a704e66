// Runs the probes side by side, and judges their facts as they come (VoDiagnosis.h).
#include <VoDiagnosis.h>

#include "VoDiagnosisFinding.h"
#include "VoDiagnosisJudge.h"
#include "VoProbe.h"

#include <VoHTTPTransports.h>

#include <base/VoDateTime.h>
#include <base/VoDetachedThread.h>
#include <base/VoErrorHandler.h>

#include <algorithm>
#include <atomic>

using namespace VoDiagnosis;

namespace
{
constexpr const wchar_t* kDiagnosisSource = L"..\\source\\VoDiagnosis";
constexpr INT64 kMicrosecondsPerSecond = 1'000'000;
// A probe ends by itself at its time-out. The runner waits a little longer, because the probe then knows more.
constexpr INT64 kGrace = 200'000;

// Of the probes that run.
std::atomic<int> g_threads{ 0 };

// Where the threads of probes put their results. They own it, too: a thread that is left behind puts its result where nobody
// looks.
struct CMailbox
{
    struct CResult
    {
        size_t task;
        CApply apply;
        INT64 end;
    };
    CVoLock lock;
    std::vector<CResult> results; // guarded by `lock`
    CEvent arrived{ false, false };
};

// A probe that may run: one of the table, or the request of one transport.
struct CTask
{
    const CProbeRow* row = nullptr;
    size_t transport = 0;
    std::shared_ptr<CStop> stop;
    INT64 start = 0;
    INT64 deadline = 0;
};

std::string CheckIdOf(EProbe probe)
{
    static constexpr std::array kIds{ "settings", "address", "name", "connect", "proxy", "proxy-connect", "tls", "portal" };
    return kIds[static_cast<size_t>(probe)];
}

CAddressFacts ReadAddress(const std::wstring& url)
{
    CAddressFacts facts;
    CServerAddressData address;
    facts.isValid = SUCCEEDED(address.SetAddress(url, false, true, true));
    if (!facts.isValid)
        return facts;
    facts.host = address.Host();
    constexpr int kMaximumHost = 256;
    wchar_t ascii[kMaximumHost]{};
    const int length = ::IdnToAscii(0, facts.host.data(), static_cast<int>(facts.host.size()), ascii, kMaximumHost);
    facts.asciiHost = length > 0 ? std::wstring(ascii, static_cast<size_t>(length)) : facts.host;
    facts.port = address.EffectivePort();
    facts.isSecure = address.IsSecure();
    facts.path = address.Path();
    facts.queryLength = address.Query().empty() ? 0 : address.Query().size() - 1;
    facts.isLiteral = MakeSocketAddress(facts.host, 0).length != 0;
    return facts;
}

std::wstring TimeText()
{
    SYSTEMTIME now{};
    ::GetSystemTime(&now);
    std::wstring text;
    (void)VoSystemTimeToISO8601DateTimeStr(now, 0, true, false, text);
    return text;
}

// One run. It lives on the stack of Run; nothing of it reaches the threads but copies and the mailbox.
class CRunner
{
public:
    CRunner(std::shared_ptr<const CVoDiagnosisOptions> options, HANDLE cancel, IVoDiagnosisObserver* observer)
        : m_options(std::move(options)), m_cancel(cancel), m_observer(observer), m_mailbox(std::make_shared<CMailbox>())
    {
    }
    ~CRunner()
    {
        for (const CTask& task : m_tasks)
            if (task.stop)
                task.stop->Signal();
    }
    CRunner(const CRunner&) = delete;
    CRunner& operator=(const CRunner&) = delete;

    [[nodiscard]] CVoDiagnosisReport Run();

private:
    void Prepare();
    void StartReady();
    void Start(CTask& task);
    void Wait();
    void TakeResults();
    void ExtendWhileAsking();
    void EndOverdue();
    void JudgeAll();
    [[nodiscard]] CProbeState& StateOf(const CTask& task) noexcept
    {
        return task.row ? m_facts.State(task.row->probe) : m_facts.http[task.transport].state;
    }
    void SetRunning(const CTask& task);
    [[nodiscard]] INT64 TimeOf(const std::string& id) const;

    std::shared_ptr<const CVoDiagnosisOptions> m_options;
    HANDLE m_cancel;
    IVoDiagnosisObserver* m_observer;
    std::shared_ptr<CMailbox> m_mailbox;
    CVoComPtr<CVoGlobalHTTPProxyStoreImpl> m_proxyStore;
    CFacts m_facts;
    std::vector<CVoCheck> m_checks;
    std::vector<CTask> m_tasks;
    bool m_isCancelled = false;
};

void CRunner::Prepare()
{
    const CVoDiagnosisOptions& o = *m_options;
    CInput& input = m_facts.input;
    input.url = ReportedUrl(o.url);
    input.isEngineListGiven = !o.engines.empty();
    input.engines = input.isEngineListGiven ? o.engines : std::vector<UINT32>{ 0, 1, 2 };
    input.configuredEngine = o.configuredEngine;
    input.verify = o.verifyServerCertificate;
    input.checkRevocation = o.checkRevocation;
    input.isProxyGiven = o.isProxyGiven;
    CHTTPProxyConfigData user;
    if (!o.isProxyGiven)
        (void)user.InitFromIE(); // without settings there is no script
    input.proxyScript = ReportedUrl(o.isProxyGiven ? o.proxyScript : user.pacFileUrl);
    input.probeTimeout = o.probeTimeout;
    for (const UINT32 kind : input.engines)
        m_facts.http.push_back({ kind, VoFindHTTPTransport(kind)->name, {}, {} });

    m_facts.address = ReadAddress(o.url);
    m_facts.State(EProbe::Address).state = EState::Done;
    if (m_facts.address.isLiteral)
    {
        m_facts.name.addresses = { m_facts.address.host };
        m_facts.State(EProbe::Name).state = EState::Done;
    }
    m_proxyStore = o.proxyStore;
    if (!m_proxyStore)
    {
        m_proxyStore = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
        if (!m_proxyStore)
            throw std::bad_alloc();
        m_proxyStore->InitFromUserSettings();
    }
    m_checks = MakeChecks(m_facts);
    for (const CProbeRow& row : Probes())
        m_tasks.push_back({ &row, 0, nullptr, 0, 0 });
    for (size_t i = 0; i < m_facts.http.size(); ++i)
        m_tasks.push_back({ nullptr, i, nullptr, 0, 0 });
}

void CRunner::StartReady()
{
    for (CTask& task : m_tasks)
    {
        CProbeState& state = StateOf(task);
        if (state.state != EState::Waiting)
            continue;
        if (task.row && !std::all_of(task.row->needs.begin(), task.row->needs.end(),
                                     [&](EProbe need) { return m_facts.State(need).IsOver(); }))
            continue;
        const bool applies = task.row ? task.row->applies(m_facts) : m_facts.address.isValid;
        if (applies)
            Start(task);
        else
            state.state = EState::NotRun;
    }
}

void CRunner::Start(CTask& task)
{
    task.stop = std::make_shared<CStop>();
    task.start = VoGetMicroseconds();
    task.deadline = task.start + INT64{ m_options->probeTimeout } * kMicrosecondsPerSecond;
    const auto index = static_cast<size_t>(&task - m_tasks.data());
    const CProbeContext context{ task.stop, task.deadline, m_options, m_proxyStore, m_facts };
    // Detached: what a service of the platform holds is left behind. The thread owns all that it uses.
    VoStartDetached([context, index, mailbox = m_mailbox, collect = task.row ? task.row->collect : nullptr,
                     transport = task.transport, counted = VoCountThread(g_threads)]() mutable
    {
        try
        {
            CApply apply = collect ? collect(context) : CollectHttp(context, transport);
            const CVoLockHolder lock(mailbox->lock);
            mailbox->results.push_back({ index, std::move(apply), VoGetMicroseconds() });
        }
        catch (...)
        {
            // Without memory there are no facts: the probe runs out of its time.
        }
        counted.reset();
        (void)mailbox->arrived.Set();
    });
    StateOf(task).state = EState::Running;
    SetRunning(task);
}

void CRunner::SetRunning(const CTask& task)
{
    const std::string id = task.row ? CheckIdOf(task.row->probe) : "http-" + m_facts.http[task.transport].engine;
    for (CVoCheck& check : m_checks)
        if (check.id == id && check.status == EVoCheckStatus::Waiting)
        {
            check.status = EVoCheckStatus::Running;
            if (m_observer)
                m_observer->OnCheck(check);
        }
}

void CRunner::Wait()
{
    INT64 next = VoGetMicroseconds() + (m_options->isAsking ? 1 : 3600) * kMicrosecondsPerSecond;
    for (const CTask& task : m_tasks)
        if (StateOf(task).state == EState::Running)
            next = std::min(next, task.deadline + kGrace);
    const INT64 left = std::max<INT64>(0, next - VoGetMicroseconds());
    const HANDLE handles[] = { m_cancel, m_mailbox->arrived.Handle() };
    m_isCancelled = ::WaitForMultipleObjects(2, handles, FALSE, static_cast<DWORD>((left + 999) / 1000)) == WAIT_OBJECT_0;
}

void CRunner::TakeResults()
{
    std::vector<CMailbox::CResult> results;
    {
        const CVoLockHolder lock(m_mailbox->lock);
        results.swap(m_mailbox->results);
    }
    for (const CMailbox::CResult& result : results)
    {
        const CTask& task = m_tasks[result.task];
        CProbeState& state = StateOf(task);
        if (state.state != EState::Running)
            continue; // it was given up
        result.apply(m_facts);
        state = { EState::Done, result.end - task.start };
    }
}

// The user's time is not the request's: while a question is open, each request has all of its time left.
void CRunner::ExtendWhileAsking()
{
    if (!m_options->isAsking || !m_options->isAsking())
        return;
    const INT64 deadline = VoGetMicroseconds() + INT64{ m_options->probeTimeout } * kMicrosecondsPerSecond;
    for (CTask& task : m_tasks)
        if (!task.row)
            task.deadline = deadline;
}

void CRunner::EndOverdue()
{
    const INT64 now = VoGetMicroseconds();
    for (const CTask& task : m_tasks)
    {
        CProbeState& state = StateOf(task);
        if (state.state != EState::Running || now < task.deadline + kGrace)
            continue;
        state = { EState::TimedOut, now - task.start };
        task.stop->Signal();
    }
}

INT64 CRunner::TimeOf(const std::string& id) const
{
    for (size_t i = 0; i < kProbeCount; ++i)
        if (CheckIdOf(static_cast<EProbe>(i)) == id)
            return m_facts.states[i].microseconds;
    for (const CHttpProbe& probe : m_facts.http)
        if ("http-" + probe.engine == id)
            return probe.state.microseconds;
    return 0;
}

void CRunner::JudgeAll()
{
    for (CVoCheck& check : m_checks)
    {
        if (check.IsFinal())
            continue;
        std::optional<CVoCheck> judged = Judge(m_facts, check.id);
        if (!judged)
            continue;
        check = std::move(*judged);
        check.microseconds = TimeOf(check.id);
        if (m_observer)
            m_observer->OnCheck(check);
    }
}

CVoDiagnosisReport CRunner::Run()
{
    const INT64 start = VoGetMicroseconds();
    const std::wstring time = TimeText();
    Prepare();
    if (m_observer)
        for (const CVoCheck& check : m_checks)
            m_observer->OnCheck(check);
    StartReady();
    JudgeAll();
    while (!m_isCancelled && !AreAllOver(m_facts))
    {
        Wait();
        TakeResults();
        ExtendWhileAsking();
        EndOverdue();
        StartReady();
        if (!m_isCancelled)
            JudgeAll();
    }
    std::vector<std::string> unfinished;
    for (const CVoCheck& check : m_checks)
        if (!check.IsFinal())
            unfinished.push_back(check.id);
    CVoDiagnosisReport report = Conclude(m_facts, std::move(m_checks));
    for (const CVoCheck& check : report.checks)
        if (m_observer && std::find(unfinished.begin(), unfinished.end(), check.id) != unfinished.end())
            m_observer->OnCheck(check);
    report.time = time;
    report.microseconds = VoGetMicroseconds() - start;
    return report;
}
} // namespace

struct CVoDiagnosis::CState
{
    std::shared_ptr<const CVoDiagnosisOptions> options;
    CEvent cancel{ false, true };
    std::atomic<bool> isUsed{ false };
};

CVoDiagnosis::CVoDiagnosis(CVoDiagnosisOptions options) : m_state(std::make_shared<CState>())
{
    m_state->options = std::make_shared<const CVoDiagnosisOptions>(std::move(options));
}

CVoDiagnosis::~CVoDiagnosis() = default;

HRESULT CVoDiagnosis::Run(IVoDiagnosisObserver* observer, CVoDiagnosisReport& report) noexcept
{
    constexpr CVoReporter reporter{ kDiagnosisSource, L"CVoDiagnosis::Run" };
    return reporter.Guard(40, [&]() -> HRESULT
    {
        if (m_state->isUsed.exchange(true))
            return reporter(10, E_UNEXPECTED);
        const CVoDiagnosisOptions& options = *m_state->options;
        const bool isKnown =
            std::all_of(options.engines.begin(), options.engines.end(), [](UINT32 kind) { return VoFindHTTPTransport(kind); });
        if (!isKnown || options.probeTimeout == 0)
            return reporter(20, E_INVALIDARG);
        CVoDiagnosisReport made = CRunner(m_state->options, m_state->cancel.Handle(), observer).Run();
        report = std::move(made);
        return report.isCancelled ? kResultCancelled : S_OK;
    });
}

bool CVoDiagnosis::HasThreadsLeft() noexcept
{
    return g_threads.load() != 0;
}

void CVoDiagnosis::Cancel() noexcept
{
    (void)m_state->cancel.Set();
}
