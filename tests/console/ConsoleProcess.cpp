#include "ConsoleProcess.h"

#include <base/VoCArray.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <thread>

namespace
{
class CHandle
{
public:
    CHandle() = default;
    ~CHandle() { Close(); }
    CHandle(const CHandle&) = delete;
    CHandle& operator=(const CHandle&) = delete;

    [[nodiscard]] HANDLE Get() const noexcept { return m_handle; }
    [[nodiscard]] HANDLE* Put() noexcept { return &m_handle; }
    void Close() noexcept
    {
        if (m_handle)
            ::CloseHandle(std::exchange(m_handle, nullptr));
    }

private:
    HANDLE m_handle = nullptr;
};

// A pipe of which `inherited` goes to the child.
void MakePipe(CHandle& read, CHandle& write, const CHandle& inherited)
{
    SECURITY_ATTRIBUTES attributes{ sizeof attributes, nullptr, FALSE };
    if (!::CreatePipe(read.Put(), write.Put(), &attributes, 1 << 16) ||
        !::SetHandleInformation(inherited.Get(), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT))
        throw std::runtime_error("no pipe");
}

// As CommandLineToArgvW takes it apart again.
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

std::wstring ConsolePath()
{
    std::array<wchar_t, 1024> path{};
    const DWORD length = ::GetEnvironmentVariableW(L"VOUTILS_CONSOLE", path.data(), static_cast<DWORD>(path.size()));
    return length != 0 && length < path.size() ? std::wstring(path.data()) : VOUTILS_CONSOLE;
}

std::string ReadToEnd(HANDLE handle)
{
    std::string text;
    std::array<char, 1 << 16> block{};
    for (DWORD read = 0; ::ReadFile(handle, block.data(), static_cast<DWORD>(block.size()), &read, nullptr) && read != 0;)
        text.append(block.data(), read);
    return text;
}
} // namespace

struct CConsoleProcess::CState
{
    CHandle process;
    CHandle in;
    CHandle out;
    CHandle err;
    std::string pending;
    std::string errors;
    std::jthread errorReader; // the process never waits for us to read its remarks
};

CConsoleProcess::CConsoleProcess(const std::vector<std::wstring>& arguments) : m_state(std::make_unique<CState>())
{
    CHandle childIn;
    CHandle childOut;
    CHandle childErr;
    MakePipe(childIn, m_state->in, childIn);
    MakePipe(m_state->out, childOut, childOut);
    MakePipe(m_state->err, childErr, childErr);
    const std::wstring path = ConsolePath();
    std::wstring commandLine = Quote(path);
    for (const std::wstring& argument : arguments)
        commandLine += L' ' + Quote(argument);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = childIn.Get();
    startup.hStdOutput = childOut.Get();
    startup.hStdError = childErr.Get();
    PROCESS_INFORMATION process{};
    if (!::CreateProcessW(path.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process))
        throw std::runtime_error("the console does not start: error " + std::to_string(::GetLastError()));
    ::CloseHandle(process.hThread);
    *m_state->process.Put() = process.hProcess;
    m_state->errorReader = std::jthread([state = m_state.get()] { state->errors = ReadToEnd(state->err.Get()); });
}

CConsoleProcess::~CConsoleProcess()
{
    // A process that still runs ends with its input; one that does not is the watchdog's.
    CloseInput();
}

bool CConsoleProcess::Write(std::string_view bytes)
{
    while (!bytes.empty())
    {
        DWORD written = 0;
        const auto size = static_cast<DWORD>(std::min(bytes.size(), size_t{ 1 } << 20));
        if (!::WriteFile(m_state->in.Get(), bytes.data(), size, &written, nullptr))
            return false;
        bytes.remove_prefix(written);
    }
    return true;
}

void CConsoleProcess::CloseInput()
{
    m_state->in.Close();
}

std::string CConsoleProcess::ReadLine()
{
    std::array<char, 1 << 16> block{};
    for (;;)
    {
        if (const size_t end = m_state->pending.find('\n'); end != std::string::npos)
        {
            std::string line = m_state->pending.substr(0, end);
            m_state->pending.erase(0, end + 1);
            return line;
        }
        DWORD read = 0;
        if (!::ReadFile(m_state->out.Get(), block.data(), static_cast<DWORD>(block.size()), &read, nullptr) || read == 0)
            return std::exchange(m_state->pending, {});
        m_state->pending.append(block.data(), read);
    }
}

std::string CConsoleProcess::ReadOutput()
{
    return std::exchange(m_state->pending, {}) + ReadToEnd(m_state->out.Get());
}

std::string CConsoleProcess::ReadErrors()
{
    if (m_state->errorReader.joinable())
        m_state->errorReader.join();
    return m_state->errors;
}

int CConsoleProcess::ExitCode()
{
    DWORD code = 0;
    ::WaitForSingleObject(m_state->process.Get(), INFINITE);
    ::GetExitCodeProcess(m_state->process.Get(), &code);
    return static_cast<int>(code);
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
    const std::jthread writer(
        [&]
        {
            process.Write(input);
            process.CloseInput();
        });
    CConsoleResult result;
    result.out = process.ReadOutput();
    result.err = process.ReadErrors();
    result.exitCode = process.ExitCode();
    return result;
}

namespace
{
std::vector<std::wstring> BatchArguments(std::vector<std::wstring> arguments)
{
    arguments.insert(arguments.begin(), L"batch");
    return arguments;
}
} // namespace

CConsoleBatch::CConsoleBatch(const std::vector<std::wstring>& arguments) : m_process(BatchArguments(arguments)) {}

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
    return m_process.ExitCode();
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
