// Ctrl+C: cancels the request that runs, and ends the program when that takes too long.
#pragma once

#include "Command.h"

#include <VoHTTPMessage.h>

#include <memory>

// Handles Ctrl+C and Ctrl+Break from here on. Outside of a CInterruptScope they end the program at once, with exit code 1 and
// the error line of kResultCancelled.
void InstallInterruptHandler() noexcept;

// The request that a command waits for. Any thread.
class CRunningRequest
{
public:
    using Request = std::shared_ptr<CVoHTTPMessage::CHTTPRequestData>;

    // Cancels the request, and each one that is set later.
    void Cancel() noexcept;
    [[nodiscard]] bool IsCancelled() noexcept;
    // kResultCancelled after Cancel.
    [[nodiscard]] HRESULT Set(Request request) noexcept;

private:
    CVoLock m_lock;
    bool m_isCancelled = false;
    Request m_request;
};

// While a command has one, the first Ctrl+C cancels its request. If the scope still exists two seconds later, because a call of
// the platform holds the request, the command's result becomes kResultCancelled and the process ends. A second Ctrl+C ends it
// at once. The command uses its context only before and after the scope. In a batch the scope does nothing.
class CInterruptScope
{
public:
    CInterruptScope(CContext& context, CRunningRequest& request) noexcept;
    ~CInterruptScope();
    CInterruptScope(const CInterruptScope&) = delete;
    CInterruptScope& operator=(const CInterruptScope&) = delete;

    // For the handler: cancels the request.
    void Cancel() const noexcept { m_request.Cancel(); }
    // For the handler: writes the result and returns the exit code.
    [[nodiscard]] int Abandon() const { return m_context.Finish(kResultCancelled); }

private:
    CContext& m_context;
    CRunningRequest& m_request;
};
