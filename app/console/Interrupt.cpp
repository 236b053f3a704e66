// The handler of Ctrl+C.
#include "Interrupt.h"

#include <base/VoHandle.h>

#include <atomic>
#include <string>
#include <thread>

namespace
{
// A platform's call that cannot be interrupted may hold a cancelled request for as long as its time-outs allow.
constexpr DWORD kPatience = 2000; // milliseconds

CVoLock g_lock; // guards the scope, and is held while it is used
const CInterruptScope* g_scope = nullptr;
std::atomic<int> g_interrupts{ 0 };

// Without destructors and without the platform's clean-up: other threads may be anywhere.
[[noreturn]] void EndProcess(int exitCode) noexcept
{
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(exitCode));
    std::abort();
}

[[noreturn]] void EndProcessAtOnce() noexcept
{
    try
    {
        CHandleSink(::GetStdHandle(STD_ERROR_HANDLE))
            .Write("voutils: " + ResultCode(kResultCancelled) + ' ' + ErrorLine(kResultCancelled) + '\n');
    }
    catch (...)
    {
        // Only the exit code is left.
    }
    EndProcess(kExitFailure);
}

void AbandonLater() noexcept
{
    ::Sleep(kPatience);
    const CVoLockHolder lock(g_lock);
    if (!g_scope)
        return;
    int exitCode = kExitFailure;
    try
    {
        exitCode = g_scope->Abandon();
    }
    catch (...)
    {
        // The streams are closed.
    }
    EndProcess(exitCode);
}

// The platform calls it on a thread of its own, and may call it a second time only after it has returned.
BOOL WINAPI OnControl(DWORD event) noexcept
{
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT)
        return FALSE;
    if (g_interrupts.fetch_add(1) != 0)
        EndProcessAtOnce();
    const CVoLockHolder lock(g_lock);
    if (!g_scope)
        EndProcessAtOnce();
    g_scope->Cancel();
    try
    {
        std::thread(AbandonLater).detach();
    }
    catch (...)
    {
        EndProcessAtOnce();
    }
    return TRUE;
}
} // namespace

void InstallInterruptHandler() noexcept
{
    (void)::SetConsoleCtrlHandler(OnControl, TRUE);
}

CInterruptScope::CInterruptScope(CContext& context, CRunningRequest& request) noexcept : m_context(context), m_request(request)
{
    const CVoLockHolder lock(g_lock);
    if (!context.Process().IsBatch())
        g_scope = this;
}

CInterruptScope::~CInterruptScope()
{
    const CVoLockHolder lock(g_lock);
    g_scope = nullptr;
}

void CRunningRequest::Cancel() noexcept
{
    CVoLockHolder lock(m_lock);
    m_isCancelled = true;
    const Request request = m_request;
    lock.unlock();
    if (request)
        request->Cancel();
}

bool CRunningRequest::IsCancelled() noexcept
{
    const CVoLockHolder lock(m_lock);
    return m_isCancelled;
}

HRESULT CRunningRequest::Set(Request request) noexcept
{
    const CVoLockHolder lock(m_lock);
    m_request.swap(request); // the earlier one is released without the lock
    return m_isCancelled ? kResultCancelled : S_OK;
}
