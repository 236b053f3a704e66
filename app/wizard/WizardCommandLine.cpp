// Reads the arguments (WizardCommandLine.h).
#include "WizardCommandLine.h"

#include "WizardTexts.h"
#include "resource.h"

CWizardCommandLine ReadWizardCommandLine(const std::vector<std::wstring>& arguments)
{
    CWizardCommandLine line;
    for (size_t i = 0; i < arguments.size(); ++i)
    {
        const std::wstring& argument = arguments[i];
        if (argument == L"--help")
            line.isHelp = true;
        else if (argument == L"--settings-dir")
        {
            ++i;
            if (i == arguments.size() || arguments[i].empty())
                line.problem = WizardText(IDS_USAGE_NO_VALUE);
            else
                line.settingsDirectory = arguments[i];
        }
        else if (argument.starts_with(L"-"))
            line.problem = WizardText(IDS_USAGE_OPTION, { argument });
        else if (!line.url.empty())
            line.problem = WizardText(IDS_USAGE_TWO_URLS);
        else
            line.url = argument;
        if (!line.problem.empty())
            break;
    }
    return line;
}
