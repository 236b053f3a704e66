// Collects the reports of one operation, so that a caller can show why it failed without reading the log.
#pragma once

#include <base/VoPlatform.h>

#include <vector>

// One report of a code. The texts are the reporter's literals.
struct CVoReport
{
    const wchar_t* source = nullptr;
    int line = 0;
    const wchar_t* function = nullptr;
    HRESULT code = S_OK;
};
