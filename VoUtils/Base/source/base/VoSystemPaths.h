// Paths as the platform gives them, without reports: the log finds its own files with them, and VoPaths.h reports on top.
//
// Every function throws std::bad_alloc.
#pragma once

#include <base/VoPlatform.h>

#include <optional>
#include <string>

namespace VoSystemPaths
{
struct CModuleFile
{
    std::wstring directory; // without a trailing backslash
    std::wstring name;
};
// The file of a module; null is the program itself. A long-path prefix is removed (VoWithoutLongPathPrefix). Nothing on
// failure; the last error tells why: ERROR_FILENAME_EXCED_RANGE for a path that is longer than the platform's longest.
[[nodiscard]] std::optional<CModuleFile> ModuleFile(HMODULE module);
// The user's temporary folder, without a trailing backslash. Nothing on failure; the last error tells why:
// ERROR_INSUFFICIENT_BUFFER for a path longer than MAX_PATH.
[[nodiscard]] std::optional<std::wstring> TemporaryDirectory();
// Empty when it has more than 260 characters.
[[nodiscard]] std::wstring CurrentDirectory();
// Text with its environment variables replaced; unchanged when the result would have more than 260 characters.
[[nodiscard]] std::wstring ExpandEnvironment(const std::wstring& text);
// The full form of a path; empty when the platform has none.
[[nodiscard]] std::wstring FullPath(const std::wstring& path);
} // namespace VoSystemPaths
