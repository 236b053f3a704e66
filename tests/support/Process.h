// A second process, for tests of a whole program and for what must not share the process of a test.
#pragma once

#include <base/VoHandle.h>

#include <string>

namespace TestSupport
{
// Standard streams that a new process inherits: handles that can be inherited, or null.
struct CProcessStreams
{
    HANDLE in = nullptr;
    HANDLE out = nullptr;
    HANDLE err = nullptr;
};

// A running process. Its destructor does not wait for the end.
class CProcess
{
public:
    // Without a stream the process inherits no handle. `flags` as of CreateProcessW. Throws std::runtime_error if it does not
    // start.
    explicit CProcess(const std::wstring& commandLine, const CProcessStreams& streams = {}, DWORD flags = 0);

    [[nodiscard]] DWORD Id() const noexcept { return m_id; }
    // Whether it has ended, after at most that many milliseconds.
    [[nodiscard]] bool HasEnded(DWORD milliseconds) const noexcept;
    // Waits for the end and returns the exit code.
    [[nodiscard]] DWORD Wait() const noexcept;
    // Ends it from outside, and waits for the end.
    void Kill() const noexcept;

private:
    CVoHandle m_process;
    DWORD m_id = 0;
};

// This test program once more, with the tests that the filter selects; tests with DISABLED_ in their name run, too.
[[nodiscard]] std::wstring ThisProgram(const std::wstring& filter);
} // namespace TestSupport
