// The handler of Ctrl+C.
#include "Interrupt.h"

#include "Command.h"

#include <base/VoHandle.h>

#include <atomic>
#include <cstdlib>
#include <string>

namespace
{
// A platform's call that cannot be interrupted may hold a cancelled request for as long as its time-outs allow.
constexpr DWORD kPatience = 2000; // milliseconds

CVoLock g_lock; // guards the following, and is held while the scope is used
const CInterruptScope* g_scope = nullptr;
int g_delays = 0;
bool g_isEndDelayed = false;
std::atomic<int> g_interrupts{ 0 };
std::atomic<UINT> g_previousCodePage{ 0 }; // 0: none is to be set back

void RestoreCodePage() noexcept
{
    if (const UINT previous = g_previousCodePage.exchange(0); previous != 0)
        ::SetConsoleOutputCP(previous);
}

// Without destructors and without the platform's clean-up: other threads may be anywhere.
[[noreturn]] void EndProcess(int exitCode) noexcept
{
    RestoreCodePage();
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
} // namespace

// The request of a scope. It outlives the scope while the handler cancels it.
class CInterruptScope::CRequest
{
public:
    using Request = std::shared_ptr<CVoHTTPMessage::CHTTPRequestData>;

    void Cancel() noexcept
    {
        CVoLockHolder lock(m_lock);
        m_isCancelled = true;
        const Request request = m_running;
        lock.unlock();
        if (request)
            request->Cancel();
    }
    [[nodiscard]] bool IsCancelled() noexcept
    {
        const CVoLockHolder lock(m_lock);
        return m_isCancelled;
    }
    [[nodiscard]] HRESULT Set(Request request) noexcept
    {
        const CVoLockHolder lock(m_lock);
        m_running.swap(request); // the earlier one is released without the lock
        return m_isCancelled ? kResultCancelled : S_OK;
    }

private:
    CVoLock m_lock;
    bool m_isCancelled = false;
    Request m_running;
};

class CInterruptHandler
{
public:
    // The platform calls it on a thread of its own, and may call it a second time only after it has returned.
    static BOOL WINAPI OnControl(DWORD event) noexcept
    {
        if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT)
            return FALSE;
        if (g_interrupts.fetch_add(1) != 0)
            EndProcessAtOnce();
        std::shared_ptr<CInterruptScope::CRequest> request;
        {
            const CVoLockHolder lock(g_lock);
            g_isEndDelayed = g_delays != 0;
            if (g_isEndDelayed)
                return TRUE;
            if (!g_scope)
                EndProcessAtOnce();
            request = g_scope->m_request;
        }
        // A thread of the platform: a detached one of some C++ libraries may lose its function.
        constexpr LPTHREAD_START_ROUTINE kAbandonLater = [](void*) -> DWORD
        {
            AbandonLater();
            return 0;
        };
        const CVoHandle thread(::CreateThread(nullptr, 0, kAbandonLater, nullptr, 0, nullptr));
        if (!thread)
            EndProcessAtOnce();
        request->Cancel();
        return TRUE;
    }

private:
    static void AbandonLater() noexcept
    {
        ::Sleep(kPatience);
        const CVoLockHolder lock(g_lock);
        if (!g_scope)
            return;
        int exitCode = kExitFailure;
        try
        {
            exitCode = g_scope->m_context.Finish(kResultCancelled);
        }
        catch (...)
        {
            // The streams are closed.
        }
        EndProcess(exitCode);
    }
};

CConsoleCodePage::CConsoleCodePage(bool isUsed) noexcept
{
    if (!isUsed)
        return; // the question alone may start the console
    g_previousCodePage.store(::GetConsoleOutputCP());
    if (g_previousCodePage.load() != 0)
        ::SetConsoleOutputCP(CP_UTF8);
}

CConsoleCodePage::~CConsoleCodePage()
{
    RestoreCodePage();
}

void InstallInterruptHandler() noexcept
{
    (void)::SetConsoleCtrlHandler(CInterruptHandler::OnControl, TRUE);
}

CInterruptScope::CInterruptScope(CContext& context) : m_context(context), m_request(std::make_shared<CRequest>())
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

HRESULT CInterruptScope::Set(std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request) const noexcept
{
    return m_request->Set(std::move(request));
}

bool CInterruptScope::IsCancelled() const noexcept
{
    return m_request->IsCancelled();
}

CInterruptDelay::CInterruptDelay() noexcept
{
    const CVoLockHolder lock(g_lock);
    ++g_delays;
}

CInterruptDelay::~CInterruptDelay()
{
    const CVoLockHolder lock(g_lock);
    if (--g_delays == 0 && g_isEndDelayed)
        EndProcessAtOnce();
}
