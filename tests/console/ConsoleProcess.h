// Starts the console program as a process with pipes for its standard streams.
#pragma once

#include <base/VoHandle.h>

#include <nlohmann/json.hpp>

#include <support/Process.h>

#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

struct CConsoleResult
{
    int exitCode = -1;
    std::string out;
    std::string err;

    // The object that --json printed. Throws if it is not one object and a line end.
    [[nodiscard]] nlohmann::json Json() const;
};

// A running console whose standard streams are pipes.
class CConsoleProcess
{
public:
    explicit CConsoleProcess(const std::vector<std::wstring>& arguments); // throws std::runtime_error

    // Returns when all bytes are written, or the process no longer reads.
    void Write(std::string_view bytes);
    void CloseInput() { m_in.Reset(); }
    // Presses Ctrl+C. `mark` stands in the arguments of this process and of no other (an address of a server of the test): Wine
    // has no control events, but takes the signal of a process that is found by it.
    void Interrupt(const std::string& mark) const;
    // The next line of standard output without its end; empty at the end.
    [[nodiscard]] std::string ReadLine();
    // Reads the streams to their ends and waits for the end of the process.
    [[nodiscard]] CConsoleResult Finish();

private:
    std::optional<TestSupport::CProcess> m_process;
    CVoHandle m_out;
    CVoHandle m_err;
    std::string m_errors;
    std::jthread m_errorReader; // reads all the time, so that the process never waits for it
    CVoHandle m_in;             // closed first: the process ends with its input
};

// Runs the console once with all its input.
[[nodiscard]] CConsoleResult RunConsoleProcess(const std::vector<std::wstring>& arguments, std::string_view input = {});

// A running `batch`: many commands with one start of the program.
class CConsoleBatch
{
public:
    [[nodiscard]] CConsoleResult Run(const std::vector<std::string>& arguments, std::string_view input = {});
    // Sends a line unchanged.
    [[nodiscard]] CConsoleResult RunLine(const std::string& line);
    // Closes the input and waits for the end of the process.
    [[nodiscard]] int Finish();

private:
    CConsoleProcess m_process{ { L"batch" } };
};

[[nodiscard]] std::string Base64Of(std::string_view bytes);
[[nodiscard]] std::string BytesOf(const std::string& base64);
[[nodiscard]] std::string Utf8(const std::wstring& text);
