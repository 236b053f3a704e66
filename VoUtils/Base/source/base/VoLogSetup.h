// Decisions behind the log's set-up: limits, names, folder, texts. Pure functions; the log and the settings reader call them.
#pragma once

#include <base/VoModuleSettings.h>

#include <optional>
#include <string>
#include <string_view>

namespace VoLogSetup
{
// Whether a program (its file name) hosts other people's modules, so that its own name says nothing about the application.
[[nodiscard]] bool IsHostingProcess(std::wstring_view fileName) noexcept;

// The application name given on a command line after -ap or /ap, quoted or not; empty without one. This is a search for
// [-/]ap\s+("[^"]+"|[^\s"]+), without its quotes; it also finds the option at the end of a longer word, as intended.
[[nodiscard]] std::wstring_view FindApplicationName(std::wstring_view commandLine) noexcept;

// A file name without its last extension.
[[nodiscard]] std::wstring_view BaseName(std::wstring_view fileName) noexcept;

// Whether a text can be the name of a file: no path, no character that Windows forbids in names, no device (NUL, COM1), no dot
// or blank at its end ("Naming Files, Paths, and Namespaces").
[[nodiscard]] bool IsFileName(std::wstring_view name) noexcept;

// The log's name: the application name where it can be the name of a file, else the base name of the module (inside a hosting
// process) or of the process, else "Application".
[[nodiscard]] std::wstring_view LogName(std::wstring_view applicationName, std::wstring_view processFile,
                                        std::wstring_view moduleFile) noexcept;

// Takes the backslashes off a folder's end.
void TrimBackslashes(std::wstring& directory) noexcept;

// The folder that the settings choose, before environment variables are expanded: `Directory` without trailing backslashes,
// else the temporary folder when its use is on, else the module's folder, else the current one.
[[nodiscard]] std::wstring ChooseDirectory(const CVoModuleSettings& settings, const std::wstring& temporary,
                                           const std::wstring& module, const std::wstring& current);

struct CRunFacts
{
    std::wstring_view moduleName;
    std::wstring_view processName;
    std::optional<SYSTEMTIME> processCreated; // local time
    std::wstring_view buildDate;
    std::wstring_view buildTime;
    std::wstring_view version;
    std::wstring_view branch;
};
// The block in front of the first line of a run. Empty build facts become "UNKNOWN".
[[nodiscard]] std::wstring RunHeader(const CRunFacts& facts);

// One line of the log, "\r\n" included. `modulePart` is " Module=NAME File=", which goes in front of the source file.
[[nodiscard]] std::wstring Line(const SYSTEMTIME& localTime, const std::wstring& modulePart, const wchar_t* source, int line,
                                const wchar_t* function, DWORD threadId, std::wstring_view message);
} // namespace VoLogSetup
