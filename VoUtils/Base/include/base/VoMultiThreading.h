// Locks, events and worker threads. The stores, the messages and the WMI queries use them.
#pragma once

#include <base/VoHResult.h>
#include <base/VoHandle.h>
#include <base/VoPlatform.h>
#include <base/VoText.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

// A lock that one thread holds at a time. Both operations return nonzero on success. An implementation may throw: CAutoLock
// takes that for a refusal.
class CLockObject
{
public:
    virtual ~CLockObject() = default;
    virtual int Unlock() = 0;
    // Waits until the lock is free and takes it.
    virtual int Lock() = 0;
    // The same with an argument that implementations may interpret (a time-out in milliseconds, 0 for the implementation's
    // own).
    virtual int Lock(DWORD argument) = 0;

    CLockObject(const CLockObject&) = delete;
    CLockObject& operator=(const CLockObject&) = delete;

protected:
    CLockObject() = default;
};

// A critical section of the platform: recursive for the thread that holds it, waits without time-out.
class CCriticalSection final : public CLockObject
{
public:
    CCriticalSection() noexcept { ::InitializeCriticalSection(&m_section); }
    ~CCriticalSection() override { ::DeleteCriticalSection(&m_section); }

    int Unlock() noexcept override
    {
        ::LeaveCriticalSection(&m_section);
        return 1;
    }
    int Lock() noexcept override { return Lock(0); }
    int Lock(DWORD /*argument*/) noexcept override
    {
        ::EnterCriticalSection(&m_section);
        return 1;
    }

private:
    CRITICAL_SECTION m_section;
};

// Holds a CLockObject for a scope; the only holder of this kind of lock (a CVoLock has CVoLockHolder). It may be unlocked and
// locked again inside the scope; a lock that it holds at the end is released. Not to be shared between threads.
class CAutoLock
{
public:
    // The lock is not owned and must outlive the holder. A null lock is reported (E_POINTER); the holder then holds nothing.
    explicit CAutoLock(CLockObject* lock, bool lockNow = true) noexcept : m_lock(lock)
    {
        if (lockNow)
            Lock();
    }
    ~CAutoLock() { Unlock(); }
    CAutoLock(const CAutoLock&) = delete;
    CAutoLock& operator=(const CAutoLock&) = delete;

    // Takes the lock unless this holder has it already. 1 on success, 0 when the lock refuses or throws (which is reported).
    int Lock() noexcept;
    // Releases the lock if this holder has it. 1 on success; a lock that refuses, with 0, stays marked as held.
    int Unlock() noexcept;
    [[nodiscard]] bool IsLocked() const noexcept { return m_locked; }

private:
    CLockObject* m_lock;
    bool m_locked = false;
};

// An event of the platform. Any thread may call it.
class CEvent
{
public:
    // A failed creation is reported and thrown as CVoHResultException. `name` may be null; a name that exists already opens
    // that event as it is. `security` may be null, which gives the default descriptor and a handle that is not inherited.
    CEvent(bool initiallySignalled, bool manualReset, const wchar_t* name = nullptr, SECURITY_ATTRIBUTES* security = nullptr);
    virtual ~CEvent() = default;
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    // The event's handle, for wait functions; it lives as long as the object.
    [[nodiscard]] HANDLE Handle() const noexcept { return m_handle.Get(); }
    // Both give the platform's error, unreported.
    [[nodiscard]] HRESULT Set() noexcept { return ::SetEvent(Handle()) ? S_OK : HResultFromLastError(); }
    [[nodiscard]] HRESULT Reset() noexcept { return ::ResetEvent(Handle()) ? S_OK : HResultFromLastError(); }
    // Tests without waiting; an auto-reset event is reset by a test that finds it signalled.
    [[nodiscard]] bool IsSignalled() const noexcept { return ::WaitForSingleObject(Handle(), 0) == WAIT_OBJECT_0; }

private:
    CVoHandle m_handle;
};

// A worker thread; derive from it and do the work in Run:
//
//     class CWorker : public CVoThread
//     {
//     public:
//         ~CWorker() override { Stop(true); }   // before the members that Run uses go
//     protected:
//         HRESULT Run() override { SignalStarted(); while (!StopRequested()) ...; return S_OK; }
//     };
//     CWorker worker;
//     hr = worker.CreateThread(false, true, true, L"Worker", false);
//
// An object is idle, running or ended. An ended one can be started again: CreateThread then waits until the old thread is gone,
// which ends by itself. Stopping is cooperative: Run must end when the stop event or the stop flag is set. No thread is
// terminated by force.
//
// The object belongs to its maker, or to its own thread after SetDeleteWhenDone(true) and a CreateThread that made a thread: it
// is then made with new and must not be touched once it may have ended. One thread at a time calls CreateThread or destroys the
// object; Stop, IsFinished and the readers may be called by any thread in between, the worker included.
class CVoThread
{
public:
    // Throws CVoHResultException when an event cannot be created.
    CVoThread();
    CVoThread(const CVoThread&) = delete;
    CVoThread& operator=(const CVoThread&) = delete;

    // Starts the thread.
    //   startSuspended    the thread does nothing before Resume. With waitUntilStarted, another thread must call Resume
    //   waitUntilStarted  return only when Run has called SignalStarted or the thread has ended; without time-out
    //   waitOnDestroy     the destructor stops and joins the thread. Otherwise it only asks the thread to stop, and from
    //                     then on Run must use nothing of the object (a handle from StopEvent stays open until Run ends)
    //   name              for debuggers; empty or null keeps the earlier name. Only with waitUntilStarted is the thread named
    //   useFinishedEvent  "ended" means that ExitInstance has returned; otherwise that the thread is gone
    // E_FAIL while the previous thread runs; only the name and the two flags are changed then. The platform's error when no
    // thread could be created (E_FAIL when it gives none). When the thread ended without SignalStarted: its exit code, or
    // S_FALSE in place of 0.
    [[nodiscard]] HRESULT CreateThread(bool startSuspended, bool waitUntilStarted, bool waitOnDestroy, CVoTextView name,
                                       bool useFinishedEvent) noexcept;
    // Resumes a thread that was created suspended. S_OK for any other.
    [[nodiscard]] HRESULT Resume() noexcept;
    // Asks the thread to stop. With `wait`, also waits without time-out until it has ended; a suspended thread is resumed
    // before. The worker itself never waits. `exitCode` (may be null) receives the thread's exit code after a wait. Returns the
    // first error of the platform; S_OK when there is no thread.
    HRESULT Stop(bool wait, DWORD* exitCode = nullptr) noexcept;
    // True when there is no thread or it has ended; never waits.
    [[nodiscard]] bool IsFinished() const noexcept;

    // Null and 0 while no thread exists. The handle belongs to the object.
    [[nodiscard]] HANDLE ThreadHandle() const noexcept { return m_shared->thread.Get(); }
    [[nodiscard]] DWORD ThreadId() const noexcept { return m_threadId.load(); }
    // Whether the thread deletes the object when it is done. Decide before CreateThread.
    void SetDeleteWhenDone(bool deleteWhenDone) noexcept { m_shared->deleteWhenDone.store(deleteWhenDone); }

protected:
    // All three run on the thread. Their exceptions are reported and do not leave the thread procedure.

    // False ends the thread, with exit code 0, without a call of Run.
    virtual bool InitInstance() { return true; }
    // Runs after Run, and after an InitInstance that answered false.
    virtual HRESULT ExitInstance() { return S_OK; }
    // The result is the thread's exit code; 0x80070428 stands for an exception.
    virtual HRESULT Run() { return S_OK; }

public:
    // A derived class whose Run uses its members calls Stop(true) in its own destructor: when this one runs, they are gone.
    virtual ~CVoThread();

protected:
    // Run calls it when CreateThread may return.
    void SignalStarted() noexcept;
    [[nodiscard]] bool StopRequested() const noexcept { return m_stopRequested.load(); }
    // Manual-reset events, for wait functions.
    [[nodiscard]] HANDLE StopEvent() const noexcept { return m_shared->stop.Handle(); }
    [[nodiscard]] HANDLE StartedEvent() const noexcept { return m_shared->started.Handle(); }

private:
    // The state that outlives the object. The thread and a waiting caller need it when the thread deletes the object, or when
    // the object is destroyed without waiting.
    struct SShared
    {
        CVoHandle thread;
        CEvent started{ true, true };
        CEvent finished{ true, true };
        CEvent stop{ false, true };
        // Held while a thread is created: the thread does not run before its handle is stored.
        CCriticalSection creation;
        // The exit code of a thread that has set the finished event but still exists.
        std::atomic<DWORD> exitCode{ 0 };
        std::atomic<bool> deleteWhenDone{ false };
        std::atomic<bool> isObjectGone{ false };
        // The object, and a reference to this state that the thread takes over when it begins.
        CVoThread* object = nullptr;
        std::shared_ptr<SShared> forThread;

        [[nodiscard]] bool ReadExitCode(DWORD& code) const noexcept;
    };

    [[nodiscard]] HRESULT PrepareEvents(bool waitUntilStarted) noexcept;
    [[nodiscard]] static HRESULT WaitUntilStarted(const SShared& shared, bool useFinishedEvent) noexcept;
    static DWORD WINAPI VoThreadProc(void* argument) noexcept;

    std::shared_ptr<SShared> m_shared;
    std::atomic<DWORD> m_threadId{ 0 };
    bool m_waitOnDestroy = true;
    bool m_useFinishedEvent = false;
    std::atomic<bool> m_stopRequested{ false };
    std::atomic<bool> m_isSuspended{ false };
    std::wstring m_name;
};

// Names a thread for debuggers by the exception that they listen for. Without a debugger nothing happens. `name` is in the
// thread's ANSI code page. Always 0, except that E_FAIL says that the exception could not be raised safely.
[[nodiscard]] HRESULT SetThreadNameWP(DWORD threadId, const char* name) noexcept;
