// Threads and their results (WizardWork.h).
#include "WizardWork.h"

#include <base/VoDetachedThread.h>

#include <objbase.h>

#include <utility>

namespace
{
std::atomic<int> g_threads{ 0 };

void RunWork(const std::function<void()>& work) noexcept
{
    const HRESULT com = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    try
    {
        work();
    }
    catch (...)
    {
        // The work reports its failures itself; only memory is left, and nobody can be told.
    }
    if (SUCCEEDED(com))
        ::CoUninitialize();
}
} // namespace

void CWizardQueue::Post(std::function<void()> work) noexcept
try
{
    const CVoLockHolder lock(m_lock);
    if (!m_notify)
        return;
    m_work.push_back(std::move(work));
    m_notify();
}
catch (...)
{
    // No memory.
}

void CWizardQueue::RunAll() noexcept
{
    std::vector<std::function<void()>> work;
    {
        const CVoLockHolder lock(m_lock);
        work.swap(m_work);
    }
    for (const std::function<void()>& item : work)
        try
        {
            item();
        }
        catch (...)
        {
            ::MessageBeep(MB_ICONERROR); // no memory: the next item may need less, and may end the run
        }
}

void CWizardQueue::Close() noexcept
{
    std::vector<std::function<void()>> work;
    const CVoLockHolder lock(m_lock);
    m_notify = nullptr;
    work.swap(m_work);
}

void StartWizardThread(std::function<void()> work)
{
    VoStartDetached([work = std::move(work), counted = VoCountThread(g_threads)]() mutable
    {
        RunWork(work);
        work = nullptr; // what it owns goes while the thread still counts
        counted.reset();
    });
}

bool HasWizardThreads() noexcept
{
    return g_threads.load() != 0 || CVoDiagnosis::HasThreadsLeft();
}

// One run: shared by the window and its thread.
struct CWizardDoctor::CRun final : IVoDiagnosisObserver
{
    CRun(CVoDiagnosisOptions options, std::shared_ptr<CWizardQueue> queueOfRun, std::shared_ptr<const CEvents> eventsOfRun)
        : diagnosis(std::move(options)), queue(std::move(queueOfRun)), events(std::move(eventsOfRun))
    {
    }

    void OnCheck(const CVoCheck& check) noexcept override
    try
    {
        queue->Post([run = self.lock(), check]
        {
            if (run && run->isWanted)
                run->events->onCheck(check);
        });
    }
    catch (...)
    {
        // No memory: the report at the end has the check, too.
    }

    CVoDiagnosis diagnosis;
    std::shared_ptr<CWizardQueue> queue;
    std::shared_ptr<const CEvents> events;
    std::weak_ptr<CRun> self;
    bool isWanted = true; // the window's thread
};

CWizardDoctor::CWizardDoctor(std::shared_ptr<CWizardQueue> queue, CEvents events)
    : m_queue(std::move(queue)), m_events(std::make_shared<const CEvents>(std::move(events)))
{
}

void CWizardDoctor::Start(CVoDiagnosisOptions options)
{
    Forget();
    const auto run = std::make_shared<CRun>(std::move(options), m_queue, m_events);
    run->self = run;
    StartWizardThread([run]
    {
        CVoDiagnosisReport report;
        const HRESULT hr = run->diagnosis.Run(run.get(), report);
        run->queue->Post([run, hr, report = std::move(report)]
        {
            if (std::exchange(run->isWanted, false))
                run->events->onFinished(hr, report);
        });
    });
    m_run = run;
}

void CWizardDoctor::Cancel() noexcept
{
    if (m_run)
        m_run->diagnosis.Cancel();
}

void CWizardDoctor::Forget() noexcept
{
    Cancel();
    if (m_run)
        m_run->isWanted = false;
    m_run.reset();
}
