// What the main of the test programs (TestMain.cpp) offers to the tests.
//
// Every test program has that main: it is linked from VoTestSupport, a test program adds nothing. It makes crashes and hangs
// failures that cannot be mistaken for a pass, and prints as its last line, only when the whole run came to its end,
//     VOUTILS-TESTS-COMPLETE passed=N failed=N skipped=N
// Exit codes: 0 all passed, 1 a test failed, 96 the set-up failed, 97 abort or std::terminate, 98 a test hung, 99 an unhandled
// exception of the platform.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace TestSupport
{
constexpr int kExitSetUpFailed = 96;
constexpr int kExitAborted = 97;
constexpr int kExitHung = 98;
constexpr int kExitCrashed = 99;

// Whether the program runs under Wine. A test that meets a difference from Windows states it with this.
[[nodiscard]] bool IsWine() noexcept;

// Names what the test works on, for the line that a crash or a hang leaves. The watchdog's time begins anew.
void NoteProgress(const char* what) noexcept;

// The private folder of this test process. ModuleSettings.ini lies there, and the application's log goes there. It is removed
// at the end of the run.
[[nodiscard]] const std::filesystem::path& TestFolder();

// Makes a fresh folder of a unique name inside TestFolder() and gives its path. Any thread.
[[nodiscard]] std::filesystem::path MakeTestFolder(std::wstring_view name);

// The whole content of a file; empty when it does not exist. No function of the platform that a test makes fail is called here,
// and writers are not disturbed.
[[nodiscard]] std::string ReadTestFile(const std::filesystem::path& path);
void WriteTestFile(const std::filesystem::path& path, std::string_view bytes);
} // namespace TestSupport
