// The program: the platform's arguments and streams for RunConsole.
#include "Console.h"
#include "Interrupt.h"

#include <VoDiagnosis.h>
#include <base/VoPlatform.h>

namespace
{
int RunProgram(int count, wchar_t** arguments)
{
    InstallInterruptHandler();
    CHandleSource in(::GetStdHandle(STD_INPUT_HANDLE));
    CHandleSink out(::GetStdHandle(STD_OUTPUT_HANDLE));
    CHandleSink err(::GetStdHandle(STD_ERROR_HANDLE));
    const CConsoleCodePage codePage(out.IsTerminal() || err.IsTerminal());
    CProcessState process;
    std::vector<std::string> utf8;
    for (int i = 1; i < count; ++i)
        utf8.push_back(ToUtf8(arguments[i]));
    return RunConsole(utf8, { in, out, err }, process);
}
} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the C runtime calls it by its name.
int wmain(int count, wchar_t** arguments)
{
    const int exitCode = RunProgram(count, arguments);
    // Threads that the doctor left behind may be anywhere: nothing may be destroyed under them.
    if (CVoDiagnosis::HasThreadsLeft())
        ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(exitCode));
    return exitCode;
}
