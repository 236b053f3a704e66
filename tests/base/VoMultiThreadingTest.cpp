// Tests of locks and worker threads.
#include <base/VoMultiThreading.h>
#include <base/VoUtils.h>

#include "support/ImportHook.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using namespace TestSupport;

namespace
{
const std::wstring kSource = L"..\\..\\source\\base\\VoMultiThreading";
constexpr HRESULT kRunFailed = static_cast<HRESULT>(0x80091234);

auto CreateReport(int line, HRESULT code)
{
    return IsReport(kSource, line, L"CVoThread::CreateThread", code);
}

// What a thread does is told by the test.
class CTestThread : public CVoThread
{
public:
    std::function<HRESULT(CTestThread&)> run = [](CTestThread&) { return S_OK; };
    std::function<bool()> init = [] { return true; };
    std::function<HRESULT()> exit = [] { return S_OK; };
    std::atomic<int>* destroyed = nullptr;
    bool joinInDestructor = true;

    ~CTestThread() override
    {
        if (joinInDestructor)
            Stop(true);
        if (destroyed)
            ++*destroyed;
    }

    using CVoThread::SignalStarted;
    using CVoThread::StopEvent;
    using CVoThread::StopRequested;

protected:
    bool InitInstance() override { return init(); }
    HRESULT ExitInstance() override { return exit(); }
    HRESULT Run() override { return run(*this); }
};

HRESULT RunUntilStopped(CTestThread& thread)
{
    thread.SignalStarted();
    ::WaitForSingleObject(thread.StopEvent(), INFINITE);
    // Whoever else waits for the event sees it too.
    return thread.StopRequested() && ::WaitForSingleObject(thread.StopEvent(), 0) == WAIT_OBJECT_0 ? S_OK : E_UNEXPECTED;
}

// A handle of the thread that outlives the object; none of an object without a thread.
CVoHandle Duplicate(HANDLE thread)
{
    HANDLE copy = nullptr;
    const HANDLE process = ::GetCurrentProcess();
    EXPECT_TRUE(!thread || ::DuplicateHandle(process, thread, process, &copy, SYNCHRONIZE, FALSE, 0));
    return CVoHandle(copy);
}

struct CTestLock final : CLockObject
{
    int answer = 1;
    int calls = 0;

    // A lock may be written without noexcept; -1 makes it throw.
    int Unlock() override { return Answer(); }
    int Lock() override { return Answer(); }
    int Lock(DWORD) override { return Lock(); }

private:
    int Answer()
    {
        ++calls;
        if (answer < 0)
            throw std::runtime_error("lock");
        return answer;
    }
};

TEST(AutoLock, LocksAndUnlocksOnceAndFollowsTheLocksResult)
{
    CTestLock lock;
    {
        CAutoLock holder(&lock);
        EXPECT_EQ(holder.Lock(), 1);
        EXPECT_EQ(lock.calls, 1);
        lock.answer = 0;
        EXPECT_EQ(holder.Unlock(), 0);
        EXPECT_TRUE(holder.IsLocked());
        lock.answer = 7;
        EXPECT_EQ(holder.Unlock(), 1);
        EXPECT_FALSE(holder.IsLocked());
        EXPECT_EQ(holder.Unlock(), 1);
        EXPECT_EQ(holder.Lock(), 1);
    }
    EXPECT_EQ(lock.calls, 5);
}

TEST(AutoLock, ANullLockAndOneThatThrowsAreReportedAndNotHeld)
{
    CLogCapture log;
    {
        CAutoLock holder(nullptr);
        EXPECT_FALSE(holder.IsLocked());
        EXPECT_EQ(holder.Unlock(), 1);
    }
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 430, L"CAutoLock::Lock", E_POINTER)));
    log.Clear();
    CTestLock lock;
    CAutoLock holder(&lock);
    lock.answer = -1;
    EXPECT_EQ(holder.Unlock(), 0);
    EXPECT_TRUE(holder.IsLocked());
    lock.answer = 1;
    EXPECT_EQ(holder.Unlock(), 1);
    lock.answer = -1;
    EXPECT_EQ(holder.Lock(), 0);
    EXPECT_FALSE(holder.IsLocked());
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 455, L"CAutoLock::Unlock", E_FAIL),
                                         IsReport(kSource, 439, L"CAutoLock::Lock", E_FAIL)));
}

TEST(Thread, IsIdleThenRunsThenEndsAndStartsAgain)
{
    for (const bool useFinishedEvent : { false, true })
    {
        CLogCapture log;
        CTestThread thread;
        thread.run = RunUntilStopped;
        EXPECT_TRUE(thread.IsFinished());
        EXPECT_EQ(thread.Stop(true), S_OK);
        for (int round = 0; round < 2; ++round)
        {
            ASSERT_EQ(thread.CreateThread(false, true, true, L"", useFinishedEvent), S_OK);
            // A second beginning fails and leaves the thread alone.
            log.Clear();
            EXPECT_EQ(thread.CreateThread(false, false, true, L"", useFinishedEvent), E_FAIL);
            EXPECT_THAT(log.Lines(), ElementsAre(CreateReport(786, E_FAIL)));
            EXPECT_FALSE(thread.IsFinished() || thread.StopRequested());
            DWORD exitCode = 99;
            EXPECT_EQ(thread.Stop(true, &exitCode), S_OK);
            EXPECT_EQ(exitCode, 0U);
            EXPECT_TRUE(thread.IsFinished());
        }
    }
}

TEST(Thread, AnObjectWhoseThreadHasFinishedStartsAgainAlsoWhileTheThreadIsNotQuiteGone)
{
    CTestThread thread;
    for (int round = 0; round < 200; ++round)
    {
        ASSERT_EQ(thread.CreateThread(false, false, true, nullptr, true), S_OK);
        while (!thread.IsFinished())
            ::SwitchToThread();
        ASSERT_EQ(thread.CreateThread(false, false, true, nullptr, false), S_OK) << round;
        ASSERT_EQ(thread.Stop(true), S_OK);
    }
}

TEST(Thread, ThatEndsBeforeItSignalsItsStartReturnsItsExitCode)
{
    const auto proc = [](int line, HRESULT code) { return IsReport(kSource, line, L"VoThreadProc", code); };
    const auto succeeds = [](auto&...) { return S_OK; };
    const auto fails = [](auto&...) { return kRunFailed; };
    const auto throws = [](auto&...) -> HRESULT { throw std::runtime_error("test"); };
    const auto yes = [] { return true; };
    struct SCase
    {
        HRESULT result;
        std::vector<testing::Matcher<const CLogLine&>> reports;
        std::function<bool()> init;
        std::function<HRESULT(CTestThread&)> run;
        std::function<HRESULT()> exit;
    };
    const auto thrown = kResultCallbackException;
    const SCase cases[] = {
        { S_FALSE, { CreateReport(828, S_FALSE) }, [] { return false; }, fails, succeeds },
        { thrown, { proc(704, thrown), CreateReport(827, thrown) }, yes, throws, succeeds },
        { S_FALSE, { proc(711, E_FAIL), CreateReport(828, S_FALSE) }, [&] { return throws() == S_OK; }, succeeds, succeeds },
        { kRunFailed, { proc(699, kRunFailed), proc(711, E_FAIL), CreateReport(827, kRunFailed) }, yes, fails, throws },
    };
    for (const SCase& item : cases)
        for (const bool useFinishedEvent : { false, true })
        {
            CLogCapture log;
            CTestThread thread;
            thread.init = item.init;
            thread.run = item.run;
            thread.exit = item.exit;
            EXPECT_EQ(thread.CreateThread(false, true, true, L"never used", useFinishedEvent), item.result);
            EXPECT_EQ(thread.Stop(true), S_OK);
            EXPECT_THAT(log.Lines(), testing::ElementsAreArray(item.reports));
        }
}

TEST(Thread, RunsOnlyAfterResumeOrStopWhenCreatedSuspended)
{
    for (const bool resume : { true, false })
    {
        std::atomic<int> runs{ 0 };
        CTestThread thread;
        thread.run = [&](CTestThread& self) { return ++runs, RunUntilStopped(self); };
        ASSERT_EQ(thread.CreateThread(true, false, true, L"", false), S_OK);
        EXPECT_EQ(runs, 0);
        EXPECT_EQ(resume ? thread.Resume() : S_OK, S_OK);
        EXPECT_EQ(thread.Stop(true), S_OK);
        EXPECT_EQ(runs, 1);
    }
}

TEST(Thread, DestroyingWithoutWaitDoesNotBlockAndNothingOfTheObjectIsUsedAfterwards)
{
    const DWORD handles = CountProcessHandles();
    for (const bool suspended : { false, true })
    {
        CEvent release(false, true);
        CEvent running(false, true);
        CEvent stopSeen(false, true);
        CVoHandle ended;
        {
            CTestThread thread;
            thread.joinInDestructor = false;
            thread.run = [&](CTestThread& self)
            {
                // What the function itself holds goes with the object too.
                const HANDLE stop = self.StopEvent();
                const HANDLE wait = release.Handle();
                CEvent& seen = stopSeen;
                static_cast<void>(running.Set());
                self.SignalStarted();
                ::WaitForSingleObject(wait, INFINITE);
                return ::WaitForSingleObject(stop, 0) == WAIT_OBJECT_0 ? seen.Set() : S_OK;
            };
            ASSERT_EQ(thread.CreateThread(suspended, !suspended, false, L"", false), S_OK);
            ended = Duplicate(thread.ThreadHandle());
        }
        EXPECT_EQ(running.IsSignalled(), !suspended) << "A thread that had not begun must not call the object that is gone";
        EXPECT_FALSE(stopSeen.IsSignalled());
        static_cast<void>(release.Set());
        ::WaitForSingleObject(ended.Get(), INFINITE);
        EXPECT_EQ(stopSeen.IsSignalled(), !suspended);
    }
    EXPECT_EQ(CountProcessHandles(), handles);
}

TEST(Thread, DoesNotRunWhenDestroyedWhileItBegins)
{
    CEvent inside(false, true);
    CEvent release(false, true);
    std::atomic<bool> ran{ false };
    CVoHandle ended;
    {
        CTestThread thread;
        thread.joinInDestructor = false;
        thread.init = [&]
        {
            const HANDLE wait = release.Handle(); // what the function holds goes with the object
            static_cast<void>(inside.Set());
            return ::WaitForSingleObject(wait, INFINITE) == WAIT_OBJECT_0;
        };
        thread.run = [&](CTestThread&) { return ran = true, S_OK; };
        ASSERT_EQ(thread.CreateThread(false, false, false, L"", false), S_OK);
        ::WaitForSingleObject(inside.Handle(), INFINITE);
        ended = Duplicate(thread.ThreadHandle());
    }
    static_cast<void>(release.Set());
    ::WaitForSingleObject(ended.Get(), INFINITE);
    EXPECT_FALSE(ran);
}

TEST(Thread, DeletesItsObjectWhenDone)
{
    const DWORD handles = CountProcessHandles();
    std::atomic<int> destroyed{ 0 };
    constexpr int kThreads = 60;
    for (int count = 0; count < kThreads; ++count)
    {
        auto* const thread = new CTestThread;
        thread->destroyed = &destroyed;
        thread->SetDeleteWhenDone(true);
        // The thread may be gone with its object while CreateThread still waits, and from the first moment on when it does not.
        const HRESULT hr = thread->CreateThread(false, count % 3 != 0, true, L"deleted", count % 2 == 0);
        EXPECT_EQ(hr, count % 3 != 0 ? S_FALSE : S_OK);
    }
    while (destroyed < kThreads || CountProcessHandles() > handles)
        std::this_thread::yield();
    EXPECT_EQ(CountProcessHandles(), handles);
}

// What a debugger would see of the naming exceptions.
std::vector<std::wstring> g_namings;

LONG CALLBACK ObserveNaming(EXCEPTION_POINTERS* exception)
{
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    const ULONG_PTR* const words = record.ExceptionInformation;
    if (record.ExceptionCode == 0x406D1388)
        g_namings.push_back(VoFormat(L"%lu %llX %hs %llu", record.NumberParameters, words[0],
                                     reinterpret_cast<const char*>(words[1]), words[2]));
    return EXCEPTION_CONTINUE_SEARCH;
}

TEST(Thread, IsNamedForDebuggersOnlyAfterItsStartWasWaitedFor)
{
    void* const observer = ::AddVectoredExceptionHandler(TRUE, &ObserveNaming);
    CTestThread thread;
    thread.run = RunUntilStopped;
    ASSERT_EQ(thread.CreateThread(false, false, true, L"Worker", false), S_OK);
    EXPECT_EQ(thread.Stop(true), S_OK);
    EXPECT_THAT(g_namings, IsEmpty());
    // The name given before stays.
    ASSERT_EQ(thread.CreateThread(false, true, true, L"", false), S_OK);
    EXPECT_THAT(g_namings, ElementsAre(VoFormat(L"6 1000 Worker %lu", thread.ThreadId())));
    ::RemoveVectoredExceptionHandler(observer);
}

// The code that was reported last.
HRESULT LastCode(const CLogCapture& log)
{
    const auto lines = log.Lines();
    return lines.empty() ? S_OK : lines.back().code.value_or(E_UNEXPECTED);
}

// Runs a whole life of a named thread; an object that cannot be made gives its code, and so does a destructor that failed,
// which can only report.
HRESULT LiveOnce(bool useFinishedEvent, const CLogCapture& log)
{
    HRESULT result = S_OK;
    CVoHandle end;
    try
    {
        CTestThread thread;
        thread.run = RunUntilStopped;
        const HRESULT created = thread.CreateThread(false, true, true, L"named", useFinishedEvent);
        end = Duplicate(thread.ThreadHandle());
        const HRESULT stopped = thread.Stop(true);
        EXPECT_TRUE(stopped != S_OK || thread.IsFinished());
        result = created != S_OK ? created : stopped;
    }
    catch (const CVoHResultException& exception)
    {
        result = exception.Result();
    }
    // With the finished event the thread may outlive the object for a moment, and with it the handles.
    if (end)
        ::WaitForSingleObject(end.Get(), INFINITE);
    return result != S_OK ? result : LastCode(log);
}

TEST(Thread, EveryFailureOfThePlatformIsHandled)
{
    CLogCapture log;
    const auto wasReported = [&](HRESULT code)
    {
        const HRESULT last = LastCode(log);
        log.Clear();
        return last == code;
    };
    for (const bool useFinishedEvent : { false, true })
        ExpectEveryFailureIsHandled({ VO_FAULT("kernel32.dll", CreateEventW, nullptr, ERROR_NOT_ENOUGH_MEMORY),
                                      VO_FAULT("kernel32.dll", CreateThread, nullptr, ERROR_MAX_THRDS_REACHED),
                                      VO_FAULT_GIVES("kernel32.dll", CreateThread, nullptr, ERROR_SUCCESS, E_FAIL),
                                      VO_FAULT("kernel32.dll", ResetEvent, FALSE, ERROR_INVALID_HANDLE),
                                      VO_FAULT("kernel32.dll", WaitForMultipleObjects, WAIT_FAILED, ERROR_INVALID_HANDLE),
                                      VO_FAULT("kernel32.dll", GetExitCodeThread, FALSE, ERROR_ACCESS_DENIED),
                                      VO_FAULT("kernel32.dll", WideCharToMultiByte, 0, ERROR_NO_UNICODE_TRANSLATION),
                                      VO_FAULT_GIVES("kernel32.dll", AddVectoredExceptionHandler, nullptr, 0, E_FAIL) },
                                    [&] { return LiveOnce(useFinishedEvent, log); }, wasReported);
}
} // namespace
