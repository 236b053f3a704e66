// The console program as a user starts it: a process of its own with pipes for its standard streams.
#pragma once

#include <base/VoHandle.h>

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>
#include <thread>
#include <vector>

struct CConsoleResult
{
    int exitCode = -1;
    std::string out;
    std::string err;

    // What --json printed; it must be one object and a line end.
    [[nodiscard]] nlohmann::json Json() const;
};

// A process whose standard streams are pipes to us.
class CConsoleProcess
{
public:
    explicit CConsoleProcess(const std::vector<std::wstring>& arguments); // throws std::runtime_error

    // Until all is written, or the process no longer reads.
    void Write(std::string_view bytes);
    void CloseInput() { m_in.Reset(); }
    // The next line of standard output without its end; empty at the end.
    [[nodiscard]] std::string ReadLine();
    // Reads the streams to their ends and waits for the process's own.
    [[nodiscard]] CConsoleResult Finish();

private:
    CVoHandle m_process;
    CVoHandle m_out;
    CVoHandle m_err;
    std::string m_errors;
    std::jthread m_errorReader; // the process never waits for us to read its remarks
    CVoHandle m_in;             // closed first: the process ends with its input
};

// One run, from the first byte of its input to its end.
[[nodiscard]] CConsoleResult RunConsoleProcess(const std::vector<std::wstring>& arguments, std::string_view input = {});

// A running `batch`, for many commands at the price of one start.
class CConsoleBatch
{
public:
    [[nodiscard]] CConsoleResult Run(const std::vector<std::string>& arguments, std::string_view input = {});
    // Sends a line as it is.
    [[nodiscard]] CConsoleResult RunLine(const std::string& line);
    // Ends the input and waits for the end.
    [[nodiscard]] int Finish();

private:
    CConsoleProcess m_process{ { L"batch" } };
};

[[nodiscard]] std::string Base64Of(std::string_view bytes);
[[nodiscard]] std::string BytesOf(const std::string& base64);
[[nodiscard]] std::string Utf8(const std::wstring& text);
