// Paths of modules and of the temporary folder.
//
// Every function reports its failures under its own name and leaves its outputs untouched when it fails. Any thread may call.
#pragma once

#include <base/VoPlatform.h>

#include <string>

// Folder (without a trailing backslash) and file name of a module's file; null is the program itself. A long-path prefix is
// removed (VoWithoutLongPathPrefix). Either out pointer may be null.
[[nodiscard]] HRESULT GetModuleDirAndFileName(HMODULE module, std::wstring* directory, std::wstring* fileName) noexcept;
// The user's temporary folder, without a trailing backslash.
[[nodiscard]] HRESULT VoGetTempPath(std::wstring& path) noexcept;
