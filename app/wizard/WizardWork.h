// What runs beside the window: threads, the queue that carries their results to the window's thread, and the doctor's run.
#pragma once

#include <VoDiagnosis.h>

#include <base/VoLock.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// Work for the window's thread. Threads hold it by a shared pointer: it may outlive the window.
class CWizardQueue
{
public:
    // `notify` is called after each Post, on the posting thread, until Close: it makes the window's thread call RunAll.
    explicit CWizardQueue(std::function<void()> notify) : m_notify(std::move(notify)) {}

    // Any thread. After Close the work is dropped. Without memory, too: then the window learns nothing of it.
    void Post(std::function<void()> work) noexcept;
    // Runs what was posted, in order. The window's thread.
    void RunAll() noexcept;
    // Drops all work, also that of later posts; `notify` is not called afterwards. The window's thread.
    void Close() noexcept;

private:
    CVoLock m_lock;
    std::vector<std::function<void()>> m_work;
    std::function<void()> m_notify; // null after Close; called under the lock
};

// Runs work on a thread of its own, in the multithreaded apartment. Nobody waits for the thread. Throws CVoHResultException
// when no thread can be made, and std::bad_alloc.
void StartWizardThread(std::function<void()> work);
// Whether such a thread, or a probe of the doctor, still runs. A program that ends then ends by TerminateProcess.
[[nodiscard]] bool HasWizardThreads() noexcept;

// The doctor's runs, one after the other. The window's thread uses it.
class CWizardDoctor
{
public:
    // Both come on the window's thread, through the queue, and never after Forget or the next Start.
    struct CEvents
    {
        std::function<void(const CVoCheck&)> onCheck;
        std::function<void(HRESULT, CVoDiagnosisReport)> onFinished; // once
    };

    CWizardDoctor(std::shared_ptr<CWizardQueue> queue, CEvents events);
    ~CWizardDoctor() { Forget(); }
    CWizardDoctor(const CWizardDoctor&) = delete;
    CWizardDoctor& operator=(const CWizardDoctor&) = delete;

    // Throws as StartWizardThread.
    void Start(CVoDiagnosisOptions options);
    // Ends the run within 200 ms; onFinished comes then.
    void Cancel() noexcept;
    // Cancels the run; nothing of it comes any more.
    void Forget() noexcept;

private:
    struct CRun;

    std::shared_ptr<CWizardQueue> m_queue;
    std::shared_ptr<const CEvents> m_events;
    std::shared_ptr<CRun> m_run; // null: none was started
};
