// The arguments of vowizard.exe.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct CWizardCommandLine
{
    std::wstring url;
    std::wstring settingsDirectory;
    bool isHelp = false;
    std::wstring problem; // one sentence; empty when the arguments are right
};

// `arguments` is without the program's name. Throws std::bad_alloc.
[[nodiscard]] CWizardCommandLine ReadWizardCommandLine(const std::vector<std::wstring>& arguments);
