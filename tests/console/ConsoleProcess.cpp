#include "ConsoleProcess.h"

#include <base/VoCArray.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>
#include <support/TestMain.h>

#include <algorithm>
#include <stdexcept>

namespace
{
constexpr DWORD kBlockSize = 1 << 16;

// A pipe. The child inherits its end.
struct CPipe
{
    explicit CPipe(bool childReads)
    {
        HANDLE ends[2] = {};
        if (!::CreatePipe(&ends[0], &ends[1], nullptr, kBlockSize) ||
            !::SetHandleInformation(ends[childReads ? 0 : 1], HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT))
            throw std::runtime_error("no pipe");
        child.Reset(ends[childReads ? 0 : 1]);
        ours.Reset(ends[childReads ? 1 : 0]);
    }
    CVoHandle child;
    CVoHandle ours;
};

// Quotes an argument for CommandLineToArgvW.
std::wstring Quote(const std::wstring& argument)
{
    std::wstring quoted = L"\"";
    size_t backslashes = 0;
    for (const wchar_t c : argument)
    {
        if (c == L'"')
            quoted.append(backslashes + 1, L'\\');
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    return quoted.append(backslashes, L'\\') + L'"';
}

// Appends the next bytes; false at the end of the stream.
bool ReadBlock(const CVoHandle& stream, std::string& text)
{
    char block[kBlockSize];
    DWORD read = 0;
    if (!::ReadFile(stream.Get(), block, kBlockSize, &read, nullptr) || read == 0)
        return false;
    text.append(block, read);
    return true;
}

std::string ReadToEnd(const CVoHandle& stream)
{
    std::string text;
    while (ReadBlock(stream, text))
    {
    }
    return text;
}
} // namespace

CConsoleProcess::CConsoleProcess(const std::vector<std::wstring>& arguments)
{
    // Wine starts a process for the desktop when a program needs it for the first time, and that process keeps the program's
    // streams. Here it gets those of the tests; otherwise a console's pipes would stay open behind it.
    static const HWND s_desktop = ::GetDesktopWindow();
    (void)s_desktop;
    CPipe in(true);
    CPipe out(false);
    CPipe err(false);
    std::wstring commandLine = Quote(VOUTILS_CONSOLE);
    for (const std::wstring& argument : arguments)
        commandLine += L' ' + Quote(argument);
    // A group of its own gets control events alone. Wine would make it deaf to signals.
    const DWORD flags = TestSupport::IsWine() ? 0 : CREATE_NEW_PROCESS_GROUP;
    m_process.emplace(commandLine, TestSupport::CProcessStreams{ in.child.Get(), out.child.Get(), err.child.Get() }, flags);
    m_in = std::move(in.ours);
    m_out = std::move(out.ours);
    m_err = std::move(err.ours);
    m_errorReader = std::jthread([this] { m_errors = ReadToEnd(m_err); });
}

void CConsoleProcess::Interrupt(const std::string& mark) const
{
    if (!TestSupport::IsWine())
    {
        ::GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, m_process->Id());
        return;
    }
    // The brackets keep the shell's own command line from matching.
    const std::wstring pattern = L"voutils[.]exe.*" + std::wstring(mark.begin(), mark.end());
    std::wstring command = L"sh -c \"for p in /proc/[0-9]*; do tr '\\0' ' ' <$p/cmdline | grep -q '" + pattern +
                           L"' && kill -INT ${p#/proc/}; done 2>/dev/null\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION shell{};
    if (!::CreateProcessW(LR"(Z:\bin\sh)", command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &shell))
        throw std::runtime_error("no shell: error " + std::to_string(::GetLastError()));
    ::CloseHandle(shell.hThread);
    ::CloseHandle(shell.hProcess);
}

void CConsoleProcess::Write(std::string_view bytes)
{
    DWORD written = 0;
    while (!bytes.empty() && ::WriteFile(m_in.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr))
        bytes.remove_prefix(written);
}

std::string CConsoleProcess::ReadLine()
{
    // The process writes only after our input, so nothing follows a line.
    std::string line;
    while (!line.ends_with('\n') && ReadBlock(m_out, line))
    {
    }
    if (!line.empty())
        line.pop_back();
    return line;
}

CConsoleResult CConsoleProcess::Finish()
{
    CConsoleResult result;
    result.out = ReadToEnd(m_out);
    m_errorReader.join();
    result.err = m_errors;
    result.exitCode = static_cast<int>(m_process->Wait());
    return result;
}

nlohmann::json CConsoleResult::Json() const
{
    if (out.empty() || out.find('\n') != out.size() - 1)
        throw std::runtime_error("not one line of JSON: " + out);
    nlohmann::json json = nlohmann::json::parse(out);
    if (!json.is_object() || !json.contains("result"))
        throw std::runtime_error("no object with a result: " + out);
    return json;
}

CConsoleResult RunConsoleProcess(const std::vector<std::wstring>& arguments, std::string_view input)
{
    CConsoleProcess process(arguments);
    const std::jthread writer([&]
    {
        process.Write(input);
        process.CloseInput();
    });
    return process.Finish();
}

CConsoleResult CConsoleBatch::Run(const std::vector<std::string>& arguments, std::string_view input)
{
    return RunLine(nlohmann::json{ { "args", arguments }, { "stdinBase64", Base64Of(input) } }.dump());
}

CConsoleResult CConsoleBatch::RunLine(const std::string& line)
{
    m_process.Write(line + '\n');
    const nlohmann::json answer = nlohmann::json::parse(m_process.ReadLine());
    return { answer.at("exit"), BytesOf(answer.at("stdoutBase64")), answer.at("stderr") };
}

int CConsoleBatch::Finish()
{
    m_process.CloseInput();
    return m_process.Finish().exitCode;
}

std::string Base64Of(std::string_view bytes)
{
    std::wstring text;
    VoDataConversion::BinToBase64(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<INT32>(bytes.size()), false, text,
                                  INT32_MAX);
    return { text.begin(), text.end() };
}

std::string BytesOf(const std::string& base64)
{
    CVoByteBuffer bytes;
    if (FAILED(VoDataConversion::Base64ToBin(std::wstring(base64.begin(), base64.end()), bytes.PutBytes(), bytes.PutLength())))
        throw std::runtime_error("malformed Base64");
    return { reinterpret_cast<const char*>(bytes.Data()), bytes.Length() };
}

std::string Utf8(const std::wstring& text)
{
    std::string bytes;
    if (FAILED(VoStringToUTF8(text, bytes)))
        throw std::runtime_error("malformed UTF-16");
    return bytes;
}
