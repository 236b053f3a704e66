#include <base/VoMultiThreading.h>

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
const std::wstring kCreate = L"CVoThread::CreateThread";
constexpr HRESULT kRunFailed = static_cast<HRESULT>(0x80091234);

auto CreateReport(int line, HRESULT code)
{
    return IsReport(kSource, line, kCreate, code);
}

// What a thread does is told by the test.
class CTestThread : public CVoThread
{
public:
    std::function<HRESULT(CTestThread&)> run = [](CTestThread&) { return S_OK; };
    std::function<bool()> init = [] { return true; };
    std::function<HRESULT()> exit = [] { return S_OK; };
    std::atomic<int>* destroyed = nullptr;

    ~CTestThread() override
    {
        if (joinInDestructor)
            Stop(true);
        if (destroyed)
            ++*destroyed;
    }
    bool joinInDestructor = true;

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
    return thread.StopRequested() ? S_OK : E_UNEXPECTED;
}

// A handle of the thread that outlives the object.
CVoHandle Duplicate(HANDLE thread)
{
    HANDLE copy = nullptr;
    if (thread)
    {
        EXPECT_TRUE(::DuplicateHandle(::GetCurrentProcess(), thread, ::GetCurrentProcess(), &copy, SYNCHRONIZE, FALSE, 0));
    }
    return CVoHandle(copy);
}

class CTestLock final : public CLockObject
{
public:
    int answer = 1;
    int locks = 0;
    int unlocks = 0;

    int Unlock() noexcept override
    {
        ++unlocks;
        return answer;
    }
    int Lock() noexcept override { return Lock(0); }
    int Lock(DWORD) noexcept override
    {
        ++locks;
        return answer;
    }
};

TEST(AutoLock, LocksOnceUnlocksOnceAndBelievesTheLock)
{
    CTestLock lock;
    {
        CAutoLock holder(&lock);
        EXPECT_EQ(holder.Lock(), 1);
        EXPECT_EQ(lock.locks, 1);
        lock.answer = 0;
        EXPECT_EQ(holder.Unlock(), 0);
        EXPECT_TRUE(holder.IsLocked());
        lock.answer = 7;
        EXPECT_EQ(holder.Unlock(), 7);
        EXPECT_FALSE(holder.IsLocked());
        EXPECT_EQ(holder.Unlock(), 1);
        lock.answer = 0;
        EXPECT_EQ(holder.Lock(), 0);
        EXPECT_FALSE(holder.IsLocked());
        lock.answer = 1;
        EXPECT_EQ(holder.Lock(), 1);
    }
    EXPECT_EQ(lock.locks, 3);
    EXPECT_EQ(lock.unlocks, 3);
}

TEST(CriticalSection, IsRecursiveForItsThreadAndExcludesOthers)
{
    CCriticalSection section;
    int count = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
    {
        threads.emplace_back(
            [&]
            {
                for (int round = 0; round < 5000; ++round)
                {
                    CAutoLock outer(&section);
                    CAutoLock inner(&section);
                    ++count;
                }
            });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(count, 20000);
}

TEST(Event, KindInitialStateAndNameAreThePlatforms)
{
    CEvent manual(true, true);
    EXPECT_TRUE(manual.IsSignalled());
    EXPECT_TRUE(manual.IsSignalled());
    EXPECT_EQ(manual.Reset(), S_OK);
    EXPECT_FALSE(manual.IsSignalled());

    CEvent automatic(false, false, L"VoUtilsTest.Event");
    CEvent same(true, false, L"VoUtilsTest.Event");
    EXPECT_FALSE(same.IsSignalled());
    EXPECT_EQ(same.Set(), S_OK);
    EXPECT_TRUE(automatic.IsSignalled());
    EXPECT_FALSE(automatic.IsSignalled());
}

TEST(Event, FailedCreationIsReportedAndThrown)
{
    CCriticalSection section;
    HANDLE mutex = ::CreateMutexW(nullptr, FALSE, L"VoUtilsTest.NotAnEvent");
    CLogCapture log;
    try
    {
        CEvent event(false, true, L"VoUtilsTest.NotAnEvent");
        ADD_FAILURE() << "A mutex was taken for an event";
    }
    catch (const CVoHResultException& exception)
    {
        EXPECT_EQ(exception.Result(), HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE));
        EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"CEvent::CEvent", exception.Result())));
    }
    ::CloseHandle(mutex);
}

TEST(Thread, IsIdleThenRunsThenEndsAndStartsAgain)
{
    CLogCapture log;
    for (const bool useFinishedEvent : { false, true })
    {
        CTestThread thread;
        EXPECT_TRUE(thread.IsFinished());
        EXPECT_EQ(thread.Stop(true), S_OK);
        for (int round = 0; round < 3; ++round)
        {
            thread.run = RunUntilStopped;
            ASSERT_EQ(thread.CreateThread(false, true, true, L"", useFinishedEvent), S_OK);
            EXPECT_FALSE(thread.IsFinished());
            EXPECT_NE(thread.ThreadId(), 0U);
            DWORD exitCode = 99;
            EXPECT_EQ(thread.Stop(true, &exitCode), S_OK);
            EXPECT_EQ(exitCode, 0U);
            EXPECT_TRUE(thread.IsFinished());
        }
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(Thread, ThatEndsBeforeItStartsGivesItsExitCode)
{
    struct SCase
    {
        const char* name;
        std::function<void(CTestThread&)> setUp;
        HRESULT result;
        std::vector<testing::Matcher<const CLogLine&>> log;
    };
    const auto thrower = [](auto&...) -> HRESULT { throw std::runtime_error("test"); };
    const SCase cases[] = {
        { "init refuses",
          [](CTestThread& t)
          {
              t.init = [] { return false; };
              t.run = [](auto&) { return E_UNEXPECTED; };
          },
          S_FALSE,
          { CreateReport(828, S_FALSE) } },
        { "run ends", [](CTestThread&) {}, S_FALSE, { CreateReport(828, S_FALSE) } },
        { "run gives a success",
          [](CTestThread& t) { t.run = [](auto&) { return HRESULT{ 7 }; }; },
          7,
          { CreateReport(827, 7) } },
        { "run fails",
          [](CTestThread& t) { t.run = [](auto&) { return kRunFailed; }; },
          kRunFailed,
          { IsReport(kSource, 699, L"VoThreadProc", kRunFailed), CreateReport(827, kRunFailed) } },
        { "run throws",
          [&](CTestThread& t) { t.run = thrower; },
          kResultCallbackException,
          { IsReport(kSource, 704, L"VoThreadProc", kResultCallbackException), CreateReport(827, kResultCallbackException) } },
        { "init throws",
          [&](CTestThread& t) { t.init = [thrower] { return thrower() == S_OK; }; },
          S_FALSE,
          { IsReport(kSource, 711, L"VoThreadProc", E_FAIL), CreateReport(828, S_FALSE) } },
        { "exit throws after a failed run",
          [&](CTestThread& t)
          {
              t.exit = thrower;
              t.run = [](auto&) { return kRunFailed; };
          },
          kRunFailed,
          { IsReport(kSource, 699, L"VoThreadProc", kRunFailed), IsReport(kSource, 711, L"VoThreadProc", E_FAIL),
            CreateReport(827, kRunFailed) } },
    };
    for (const SCase& test : cases)
    {
        for (const bool useFinishedEvent : { false, true })
        {
            SCOPED_TRACE(test.name);
            CLogCapture log;
            CTestThread thread;
            test.setUp(thread);
            EXPECT_EQ(thread.CreateThread(false, true, true, L"never used", useFinishedEvent), test.result);
            EXPECT_EQ(thread.Stop(true), S_OK);
            EXPECT_TRUE(thread.IsFinished());
            EXPECT_THAT(log.Lines(), testing::ElementsAreArray(test.log));
        }
    }
}

TEST(Thread, ThatSignalsAndEndsAtOnceCountsAsStarted)
{
    for (int round = 0; round < 200; ++round)
    {
        CTestThread thread;
        thread.run = [](CTestThread& self)
        {
            self.SignalStarted();
            return kRunFailed;
        };
        ASSERT_EQ(thread.CreateThread(false, true, true, L"", round % 2 == 0), S_OK);
    }
}

TEST(Thread, CreateThreadWhileRunningFailsAndLeavesTheThreadAlone)
{
    for (const bool useFinishedEvent : { false, true })
    {
        CTestThread thread;
        thread.run = RunUntilStopped;
        ASSERT_EQ(thread.CreateThread(false, true, true, L"", useFinishedEvent), S_OK);
        const HANDLE handle = thread.ThreadHandle();
        const DWORD id = thread.ThreadId();
        CLogCapture log;
        EXPECT_EQ(thread.CreateThread(false, false, true, L"", useFinishedEvent), E_FAIL);
        EXPECT_THAT(log.Lines(), ElementsAre(CreateReport(786, E_FAIL)));
        EXPECT_EQ(thread.ThreadHandle(), handle);
        EXPECT_EQ(thread.ThreadId(), id);
        EXPECT_FALSE(thread.IsFinished());
        EXPECT_FALSE(thread.StopRequested());
    }
}

TEST(Thread, SuspendedOneRunsOnlyAfterResumeOrStop)
{
    for (const bool resume : { true, false })
    {
        std::atomic<int> runs{ 0 };
        CTestThread thread;
        thread.run = [&](CTestThread& self)
        {
            ++runs;
            return RunUntilStopped(self);
        };
        ASSERT_EQ(thread.CreateThread(true, false, true, L"", false), S_OK);
        EXPECT_FALSE(thread.IsFinished());
        EXPECT_EQ(runs, 0);
        if (resume)
        {
            EXPECT_EQ(thread.Resume(), S_OK);
        }
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
                const HANDLE stop = self.StopEvent();
                self.SignalStarted();
                static_cast<void>(running.Set());
                ::WaitForSingleObject(release.Handle(), INFINITE);
                if (::WaitForSingleObject(stop, 0) == WAIT_OBJECT_0)
                    static_cast<void>(stopSeen.Set());
                return S_OK;
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

TEST(Thread, WorkerThatStopsItselfDoesNotWait)
{
    CTestThread thread;
    thread.run = [](CTestThread& self)
    {
        self.SignalStarted();
        return self.Stop(true);
    };
    ASSERT_EQ(thread.CreateThread(false, true, true, L"", false), S_OK);
    DWORD exitCode = 99;
    EXPECT_EQ(thread.Stop(true, &exitCode), S_OK);
    EXPECT_EQ(exitCode, 0U);
}

// What a debugger would see of the naming exception.
struct SNaming
{
    int count = 0;
    DWORD words = 0;
    DWORD type = 0;
    DWORD threadId = 0;
    std::string name;
};
SNaming g_naming;

LONG CALLBACK ObserveNaming(EXCEPTION_POINTERS* exception)
{
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    if (record.ExceptionCode == 0x406D1388)
    {
        ++g_naming.count;
        g_naming.words = record.NumberParameters;
        g_naming.type = static_cast<DWORD>(record.ExceptionInformation[0]);
        g_naming.name = reinterpret_cast<const char*>(record.ExceptionInformation[1]);
        g_naming.threadId = static_cast<DWORD>(record.ExceptionInformation[2]);
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

TEST(Thread, IsNamedForDebuggersOnlyAfterItsStartWasWaitedFor)
{
    void* const observer = ::AddVectoredExceptionHandler(TRUE, &ObserveNaming);
    g_naming = {};
    {
        CTestThread thread;
        thread.run = RunUntilStopped;
        ASSERT_EQ(thread.CreateThread(false, false, true, L"W\u00F6rker", false), S_OK);
        EXPECT_EQ(thread.Stop(true), S_OK);
        EXPECT_EQ(g_naming.count, 0);

        // The name given before stays.
        ASSERT_EQ(thread.CreateThread(false, true, true, L"", false), S_OK);
        EXPECT_EQ(g_naming.count, 1);
        EXPECT_EQ(g_naming.words, 6U);
        EXPECT_EQ(g_naming.type, 0x1000U);
        EXPECT_EQ(g_naming.threadId, thread.ThreadId());
        EXPECT_EQ(g_naming.name, "W\xF6rker");
    }
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
    {
        ExpectEveryFailureIsHandled(
            { VO_FAULT("kernel32.dll", CreateEventW, nullptr, ERROR_NOT_ENOUGH_MEMORY),
              VO_FAULT("kernel32.dll", CreateThread, nullptr, ERROR_MAX_THRDS_REACHED),
              VO_FAULT_GIVES("kernel32.dll", CreateThread, nullptr, ERROR_SUCCESS, E_FAIL),
              VO_FAULT("kernel32.dll", ResetEvent, FALSE, ERROR_INVALID_HANDLE),
              VO_FAULT("kernel32.dll", WaitForMultipleObjects, WAIT_FAILED, ERROR_INVALID_HANDLE),
              VO_FAULT("kernel32.dll", GetExitCodeThread, FALSE, ERROR_ACCESS_DENIED),
              VO_FAULT("kernel32.dll", WideCharToMultiByte, 0, ERROR_NO_UNICODE_TRANSLATION),
              VO_FAULT_GIVES("kernel32.dll", AddVectoredExceptionHandler, nullptr, 0, E_FAIL) },
            [&] { return LiveOnce(useFinishedEvent, log); }, wasReported);
    }
}

TEST(Thread, FailureOfCreationOrOfTheExitCodeHasItsOwnTracePoint)
{
    const auto create = [](CTestThread& thread) { return thread.CreateThread(false, true, true, L"", false); };
    {
        CLogCapture log;
        CTestThread thread;
        CCallHook<decltype(&::CreateThread)> hook("kernel32.dll", "CreateThread",
                                                  [](auto, auto...) -> HANDLE { throw std::runtime_error("test"); });
        EXPECT_EQ(create(thread), E_FAIL);
        EXPECT_EQ(thread.ThreadHandle(), nullptr);
        EXPECT_TRUE(thread.IsFinished());
        EXPECT_THAT(log.Lines(), ElementsAre(CreateReport(802, E_FAIL)));
    }
    for (const DWORD error : { DWORD{ ERROR_ACCESS_DENIED }, DWORD{ ERROR_SUCCESS } })
    {
        CLogCapture log;
        CTestThread thread;
        CFailOnCall<decltype(&::CreateThread)> fail("kernel32.dll", "CreateThread", 1, nullptr, error);
        const HRESULT expected = error ? HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED) : E_FAIL;
        EXPECT_EQ(create(thread), expected);
        EXPECT_EQ(thread.ThreadId(), 0U);
        EXPECT_THAT(log.Lines(), ElementsAre(CreateReport(error ? 810 : 811, expected)));
    }
    CLogCapture log;
    CTestThread thread;
    CFailOnCall<decltype(&::GetExitCodeThread)> fail("kernel32.dll", "GetExitCodeThread", 1, FALSE, ERROR_ACCESS_DENIED);
    EXPECT_EQ(create(thread), E_FAIL);
    EXPECT_THAT(log.Lines(), ElementsAre(CreateReport(825, E_FAIL)));
}
} // namespace
