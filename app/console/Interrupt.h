// Ctrl+C: cancels the request that runs, and ends the program when that takes too long.
#pragma once

#include <VoHTTPMessage.h>

#include <memory>

class CContext;

// Handles Ctrl+C and Ctrl+Break from here on. Outside of the scopes below they end the program at once, with exit code 1 and
// the error line of kResultCancelled.
void InstallInterruptHandler() noexcept;

// Sets the console's output code page to UTF-8 where the program writes to the console, and back at the end, also when Ctrl+C
// ends the program: the console's other programs share it. One for the process.
class CConsoleCodePage
{
public:
    explicit CConsoleCodePage(bool isUsed) noexcept;
    ~CConsoleCodePage();
    CConsoleCodePage(const CConsoleCodePage&) = delete;
    CConsoleCodePage& operator=(const CConsoleCodePage&) = delete;
};

// While a command has one, the first Ctrl+C cancels its request. If the scope still exists two seconds later, because a call of
// the platform holds the request, the command's result becomes kResultCancelled and the process ends. A second Ctrl+C ends it
// at once. The command uses its context only before and after the scope. In a batch the scope does nothing.
class CInterruptScope
{
public:
    explicit CInterruptScope(CContext& context);
    ~CInterruptScope();
    CInterruptScope(const CInterruptScope&) = delete;
    CInterruptScope& operator=(const CInterruptScope&) = delete;

    // The request that runs from now on. kResultCancelled after Ctrl+C.
    [[nodiscard]] HRESULT Set(std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request) const noexcept;
    [[nodiscard]] bool IsCancelled() const noexcept;

private:
    class CRequest;
    friend class CInterruptHandler;

    CContext& m_context;
    const std::shared_ptr<CRequest> m_request;
};

// While one exists, the first Ctrl+C waits for its end: a file is replaced as a whole.
class CInterruptDelay
{
public:
    CInterruptDelay() noexcept;
    ~CInterruptDelay();
    CInterruptDelay(const CInterruptDelay&) = delete;
    CInterruptDelay& operator=(const CInterruptDelay&) = delete;
};
