// The program: vowizard.exe.
#include "WizardTexts.h"
#include "resource.h"

#include <base/VoPlatform.h>

// NOLINTNEXTLINE(misc-use-internal-linkage): the C runtime calls it by its name.
int WINAPI wWinMain(HINSTANCE /*module*/, HINSTANCE /*previous*/, PWSTR /*commandLine*/, int /*show*/)
{
    return WizardText(IDS_WIZARD).empty() ? 1 : 0;
}
