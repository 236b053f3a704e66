// Locks, events and worker threads (VoMultiThreading.h).
#include <base/VoMultiThreading.h>

#include <base/VoErrorHandler.h>
#include <base/VoTextConversion.h>

#include <array>
#include <cstring>

namespace
{
constexpr const wchar_t* kMultiThreadingSource = L"..\\..\\source\\base\\VoMultiThreading";

// The exception by which debuggers learn a thread's name, and its record, as the debuggers' documentation gives them.
constexpr DWORD kThreadNameException = 0x406D1388;
struct SThreadNameRecord
{
    DWORD type = 0x1000;
    const char* name = nullptr;
    DWORD threadId = 0;
    DWORD flags = 0;
};

LONG CALLBACK ContinueAfterThreadName(EXCEPTION_POINTERS* exception) noexcept
{
    return exception->ExceptionRecord->ExceptionCode == kThreadNameException ? EXCEPTION_CONTINUE_EXECUTION
                                                                             : EXCEPTION_CONTINUE_SEARCH;
}

void KeepFirst(HRESULT& first, HRESULT result) noexcept
{
    if (SUCCEEDED(first))
        first = result;
}
} // namespace

CEvent::CEvent(bool initiallySignalled, bool manualReset, const wchar_t* name, SECURITY_ATTRIBUTES* security)
    : m_handle(::CreateEventW(security, manualReset, initiallySignalled, name))
{
    constexpr CVoReporter report{ kMultiThreadingSource, L"CEvent::CEvent" };
    if (!m_handle)
        throw CVoHResultException(report.LastError(410, 411));
}

int CAutoLock::Lock() noexcept
{
    constexpr CVoReporter report{ kMultiThreadingSource, L"CAutoLock::Lock" };
    if (m_locked)
        return 1;
    if (!m_lock)
    {
        report(430, E_POINTER);
        return 0;
    }
    try
    {
        m_locked = m_lock->Lock(0) != 0;
    }
    catch (...)
    {
        (void)report.CurrentException(439);
    }
    return m_locked ? 1 : 0;
}

int CAutoLock::Unlock() noexcept
{
    constexpr CVoReporter report{ kMultiThreadingSource, L"CAutoLock::Unlock" };
    if (!m_locked)
        return 1;
    try
    {
        m_locked = m_lock->Unlock() == 0;
    }
    catch (...)
    {
        (void)report.CurrentException(455);
    }
    return m_locked ? 0 : 1;
}

CVoThread::CVoThread() : m_shared(std::make_shared<SShared>()) {}

CVoThread::~CVoThread()
{
    // The thread that nobody waits for must not call the object any more.
    if (!m_waitOnDestroy)
        m_shared->isObjectGone.store(true);
    Stop(m_waitOnDestroy);
    m_shared->isObjectGone.store(true);
    // Resume a thread that is still suspended: nobody else can. It ends at once.
    static_cast<void>(Resume());
}

bool CVoThread::SShared::ReadExitCode(DWORD& code) const noexcept
{
    if (!::GetExitCodeThread(thread.Get(), &code))
        return false;
    // A thread that has set the finished event may still exist.
    if (code == STILL_ACTIVE && finished.IsSignalled())
        code = exitCode.load();
    return true;
}

DWORD WINAPI CVoThread::VoThreadProc(void* argument) noexcept
{
    constexpr CVoReporter report{ kMultiThreadingSource, L"VoThreadProc" };
    // CreateThread holds the lock until it has stored the handle and the identifier.
    const std::shared_ptr<SShared> shared = std::move(static_cast<SShared*>(argument)->forThread);
    CAutoLock(&shared->creation).Unlock();
    CVoThread* const object = shared->object;

    HRESULT exitCode = S_OK;
    try
    {
        if (!shared->isObjectGone.load() && object->InitInstance() && !shared->isObjectGone.load())
        {
            try
            {
                exitCode = object->Run();
                if (FAILED(exitCode))
                    report(699, exitCode);
            }
            catch (...)
            {
                exitCode = report(704, kResultCallbackException);
            }
        }
        if (!shared->isObjectGone.load())
            object->ExitInstance();
    }
    catch (...)
    {
        report(711, E_FAIL);
    }

    shared->exitCode.store(static_cast<DWORD>(exitCode));
    // From the finished event on another thread may destroy the object, unless this thread deletes it.
    const bool deleteObject = shared->deleteWhenDone.load() && !shared->isObjectGone.load();
    if (const HRESULT hr = shared->finished.Set(); FAILED(hr))
        report(715, hr);
    if (deleteObject)
    {
        try
        {
            delete object;
        }
        catch (...)
        {
            report(721, E_FAIL);
        }
    }
    return static_cast<DWORD>(exitCode);
}

HRESULT CVoThread::CreateThread(bool startSuspended, bool waitUntilStarted, bool waitOnDestroy, CVoTextView name,
                                bool useFinishedEvent) noexcept
{
    constexpr CVoReporter report{ kMultiThreadingSource, L"CVoThread::CreateThread" };
    // The thread may delete the object while this function waits: keep the state alive here.
    const std::shared_ptr<SShared> shared = m_shared;
    std::wstring threadName;
    try
    {
        if (!name.empty())
            m_name = name;
        threadName = m_name;
    }
    catch (...)
    {
        return report.CurrentException(776);
    }
    m_waitOnDestroy = waitOnDestroy;
    m_useFinishedEvent = useFinishedEvent;
    // A thread that has set the finished event is past the object's functions and ends by itself: wait until it is gone, so
    // that a restart does not depend on how fast the platform is. A thread that restarts its own object cannot wait for itself.
    if (shared->thread && shared->finished.IsSignalled() && ::GetCurrentThreadId() != m_threadId.load())
        (void)::WaitForSingleObject(shared->thread.Get(), INFINITE);
    if (!IsFinished())
        return report(786, E_FAIL);

    if (const HRESULT hr = PrepareEvents(waitUntilStarted); FAILED(hr))
        return hr;

    DWORD threadId = 0;
    {
        CAutoLock lock(&shared->creation);
        shared->object = this;
        shared->forThread = shared;
        DWORD error = ERROR_SUCCESS;
        try
        {
            const DWORD flags = startSuspended ? CREATE_SUSPENDED : 0;
            ::SetLastError(ERROR_SUCCESS);
            shared->thread.Reset(::CreateThread(nullptr, 0, &VoThreadProc, shared.get(), flags, &threadId));
            error = ::GetLastError();
        }
        catch (...)
        {
            report(802, E_FAIL);
            error = ::GetLastError();
        }
        if (!shared->thread)
        {
            shared->forThread.reset();
            static_cast<void>(shared->finished.Set());
            return report.Win32(810, 811, error);
        }
        m_threadId.store(threadId);
        m_isSuspended.store(startSuspended);
    }
    if (!waitUntilStarted)
        return S_OK;

    if (const HRESULT hr = WaitUntilStarted(*shared, useFinishedEvent); hr != S_OK)
        return hr;
    if (threadName.empty())
        return S_OK;
    std::string nameBytes;
    HRESULT hr = VoStringToCodePage(CP_THREAD_ACP, threadName, nameBytes);
    if (SUCCEEDED(hr))
        hr = SetThreadNameWP(threadId, nameBytes.c_str());
    return hr == S_OK ? S_OK : report(840, hr);
}

// Makes the object idle and its events ready for a new thread.
HRESULT CVoThread::PrepareEvents(bool waitUntilStarted) noexcept
{
    constexpr CVoReporter report{ kMultiThreadingSource, L"CVoThread::CreateThread" };
    m_shared->thread.Reset();
    m_stopRequested.store(false);
    m_threadId.store(0);
    if (const HRESULT hr = m_shared->stop.Reset(); FAILED(hr))
        return report(792, hr);
    if (waitUntilStarted)
    {
        if (const HRESULT hr = m_shared->started.Reset(); FAILED(hr))
            return report(794, hr);
    }
    if (const HRESULT hr = m_shared->finished.Reset(); FAILED(hr))
        return report(796, hr);
    return S_OK;
}

HRESULT CVoThread::WaitUntilStarted(const SShared& shared, bool useFinishedEvent) noexcept
{
    constexpr CVoReporter report{ kMultiThreadingSource, L"CVoThread::CreateThread" };
    // When both are signalled, the wait returns the first in the list: the start came first.
    const std::array<HANDLE, 2> events{ shared.started.Handle(),
                                        useFinishedEvent ? shared.finished.Handle() : shared.thread.Get() };
    const DWORD event = ::WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(), FALSE, INFINITE);
    if (event == WAIT_OBJECT_0)
        return S_OK;
    if (event != WAIT_OBJECT_0 + 1)
        return report.LastError(832, 833);
    DWORD exitCode = 0;
    if (!shared.ReadExitCode(exitCode))
        return report(825, E_FAIL);
    if (exitCode != 0)
        return report(827, static_cast<HRESULT>(exitCode));
    return report(828, S_FALSE);
}

HRESULT CVoThread::Resume() noexcept
{
    constexpr CVoReporter report{ kMultiThreadingSource, L"CVoThread::Resume" };
    // Held beyond the life of an object that the thread deletes. The lock keeps a call from another thread from coming between
    // the making of the thread and the note that it is suspended.
    const std::shared_ptr<SShared> shared = m_shared;
    const CAutoLock lock(&shared->creation);
    if (!m_isSuspended.exchange(false))
        return S_OK;
    if (::ResumeThread(shared->thread.Get()) == static_cast<DWORD>(-1))
    {
        const HRESULT hr = report.LastError(860, 861);
        m_isSuspended.store(true);
        return hr;
    }
    return S_OK;
}

HRESULT CVoThread::Stop(bool wait, DWORD* exitCode) noexcept
{
    constexpr CVoReporter report{ kMultiThreadingSource, L"CVoThread::Stop" };
    const std::shared_ptr<SShared> shared = m_shared;
    const bool useFinishedEvent = m_useFinishedEvent;
    const bool isWaiting = wait && shared->thread && ::GetCurrentThreadId() != m_threadId.load();
    const bool isSuspended = isWaiting && m_isSuspended.load();
    HRESULT result = S_OK;
    m_stopRequested.store(true);
    if (const HRESULT hr = shared->stop.Set(); FAILED(hr))
        result = report(880, hr);
    // From here on the thread may have deleted its object, unless the thread is still suspended.
    if (isSuspended)
        KeepFirst(result, Resume());
    if (!isWaiting)
        return result;

    const std::array<HANDLE, 2> events{ shared->thread.Get(), shared->finished.Handle() };
    if (::WaitForMultipleObjects(useFinishedEvent ? 2 : 1, events.data(), FALSE, INFINITE) == WAIT_FAILED)
    {
        KeepFirst(result, report.LastError(890, 891));
        return result;
    }
    DWORD code = 0;
    if (!shared->ReadExitCode(code))
        KeepFirst(result, report.LastError(896, 897));
    else if (exitCode)
        *exitCode = code;
    return result;
}

bool CVoThread::IsFinished() const noexcept
{
    if (!m_shared->thread)
        return true;
    const HANDLE end = m_useFinishedEvent ? m_shared->finished.Handle() : m_shared->thread.Get();
    return ::WaitForSingleObject(end, 0) == WAIT_OBJECT_0;
}

void CVoThread::SignalStarted() noexcept
{
    constexpr CVoReporter report{ kMultiThreadingSource, L"CVoThread::SignalStarted" };
    if (const HRESULT hr = m_shared->started.Set(); FAILED(hr))
        report(920, hr);
}

HRESULT SetThreadNameWP(DWORD threadId, const char* name) noexcept
{
    constexpr CVoReporter report{ kMultiThreadingSource, L"SetThreadNameWP" };
    // Debuggers get the record as the exception's argument words. Six are passed, which is more than the record fills on this
    // platform: the rest is zero.
    std::array<ULONG_PTR, 6> arguments{};
    const SThreadNameRecord record{ .name = name, .threadId = threadId };
    static_assert(sizeof(record) <= sizeof(arguments));
    std::memcpy(arguments.data(), &record, sizeof(record));

    // A vectored handler works with every compiler. Without a handler the exception would end the process.
    void* const filter = ::AddVectoredExceptionHandler(FALSE, &ContinueAfterThreadName);
    if (!filter)
        return report(1149, E_FAIL);
    ::RaiseException(kThreadNameException, 0, static_cast<DWORD>(arguments.size()), arguments.data());
    ::RemoveVectoredExceptionHandler(filter);
    return S_OK;
}
