// The program: vowizard.exe.
#include "VoOle.h"
#include "WizardCommandLine.h"
#include "WizardTexts.h"
#include "WizardWindow.h"
#include "resource.h"

#include <base/VoErrorHandler.h>
#include <base/VoHResult.h>
#include <base/VoTextConversion.h>
#include <win/VoFile.h>

#include <shellapi.h>

namespace
{
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

std::vector<std::wstring> Arguments()
{
    int count = 0;
    wchar_t** const texts = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    std::vector<std::wstring> arguments;
    for (int i = 1; texts && i < count; ++i)
        arguments.emplace_back(texts[i]);
    ::LocalFree(static_cast<HLOCAL>(texts));
    return arguments;
}

// To the error stream of the shell that started the program; in a window when there is none.
void Tell(const std::wstring& text)
{
    const HANDLE stream = ::GetStdHandle(STD_ERROR_HANDLE);
    std::string bytes;
    DWORD written = 0;
    if (FAILED(VoStringToUTF8(text + L"\n", bytes)) || !stream || stream == INVALID_HANDLE_VALUE ||
        !::WriteFile(stream, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr))
        ::MessageBoxW(nullptr, text.c_str(), WizardText(IDS_WIZARD).c_str(), MB_OK | MB_ICONINFORMATION);
}

int RunProgram()
{
    CWizardCommandLine line = ReadWizardCommandLine(Arguments());
    if (line.problem.empty() && !line.settingsDirectory.empty())
        if (const HRESULT hr = VoSetModuleSettingsDirectory(VoGetFullPath(line.settingsDirectory)); FAILED(hr))
            line.problem = WizardText(IDS_USAGE_FOLDER, { line.settingsDirectory, WizardErrorText(hr) });
    if (!line.problem.empty())
    {
        Tell(WizardText(IDS_USAGE, { line.problem }));
        return kExitUsage;
    }
    if (line.isHelp)
    {
        Tell(WizardText(IDS_HELP));
        return 0;
    }
    // Drag and drop, dialogs for files, and the browser need it.
    const CVoOle ole;
    CWizardDesktop desktop;
    CWizardSetup setup;
    setup.url = line.url;
    setup.memory = CWizardMemory(CWizardMemory::DefaultFile());
    setup.shell = &desktop;
    const HRESULT hr = RunWizard(setup);
    if (SUCCEEDED(hr))
        return 0;
    Tell(WizardText(IDS_NO_WINDOW, { WizardErrorText(hr) }));
    return kExitFailure;
}
} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the C runtime calls it by its name.
int WINAPI wWinMain(HINSTANCE /*module*/, HINSTANCE /*previous*/, PWSTR /*commandLine*/, int /*show*/)
{
    int exitCode = kExitFailure;
    try
    {
        exitCode = RunProgram();
    }
    catch (...)
    {
        ::MessageBeep(MB_ICONERROR); // no memory for a text
    }
    // Threads that are left behind may be anywhere: nothing may be destroyed under them.
    if (HasWizardThreads())
        ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(exitCode));
    return exitCode;
}
