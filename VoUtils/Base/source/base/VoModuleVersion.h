// The module that holds this library, and what its VERSIONINFO resource says.
#pragma once

#include <base/VoPlatform.h>

#include <string>

// The module that this code is linked into: a DLL, or the program itself. Never null.
[[nodiscard]] HMODULE VoOwnModule() noexcept;

struct CVoModuleVersion
{
    std::wstring version = L"UNKNOWN"; // "FileVersion" as it stands, else the four fixed numbers joined with ","
    bool debug = false;                // VS_FF_DEBUG of the fixed part, where its mask lets it count
};

// Reads a module's VERSIONINFO resource; a module without one gives the defaults above. Throws std::bad_alloc.
[[nodiscard]] CVoModuleVersion VoReadModuleVersion(HMODULE module);
