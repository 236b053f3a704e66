// One run of the console: the switches of the process, the named command, its exit code.
#include "Console.h"

#include "CommandLine.h"

#include <base/VoErrorHandler.h>
#include <base/VoHResult.h>
#include <base/VoModuleInformation.h>
#include <base/VoUtils.h>

namespace
{
// Sets the switches of the process for one run, and restores them at its end.
class CRunSwitches
{
public:
    CRunSwitches(const CGlobalOptions& options, IByteSink& err) : m_err(err), m_log(options.log)
    {
        if (!options.settingsDirectory.empty())
            SetSettingsDirectory(options.settingsDirectory);
        m_wasLogOn = VoErrorLog().IsApplicationLogOn();
        m_wasDebug = CVoModuleInformation::Get().IsDebug();
        if (options.log)
            VoErrorLog().SetApplicationLog(true);
        if (options.debug)
            CVoModuleInformation::Get().SetDebug(true);
    }
    ~CRunSwitches()
    {
        CVoModuleInformation::Get().SetDebug(m_wasDebug);
        if (!m_log)
            return;
        VoErrorLog().SetApplicationLog(m_wasLogOn);
        try
        {
            m_err.Write(WhereTheLogIs() + '\n');
        }
        catch (...)
        {
            // The error stream is closed.
        }
    }
    CRunSwitches(const CRunSwitches&) = delete;
    CRunSwitches& operator=(const CRunSwitches&) = delete;

private:
    // The log's path. A log that could not be written has no file there, or one that lacks the last line.
    static std::string WhereTheLogIs()
    {
        std::string path = ToUtf8(VoErrorLog().LogFilePath());
        const DWORD error = path.empty() ? ERROR_PATH_NOT_FOUND : VoErrorLog().LastWriteError();
        if (error == ERROR_SUCCESS)
            return path;
        const HRESULT result = HResultFromWin32(error);
        return "voutils: the log could not be written: " + ResultCode(result) + ' ' + ErrorLine(result) +
               (path.empty() ? path : " (" + path + ')');
    }

    static void SetSettingsDirectory(const std::string& directory)
    {
        if (const HRESULT hr = VoSetModuleSettingsDirectory(FullPath(FromUtf8(directory))); FAILED(hr))
            throw CDetailedFailure(hr, directory);
    }

    // The functions that read the settings look for a relative path in the system's folder.
    static std::wstring FullPath(const std::wstring& path)
    {
        const DWORD size = ::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
        std::wstring full(size, L'\0');
        const DWORD length = size == 0 ? 0 : ::GetFullPathNameW(path.c_str(), size, full.data(), nullptr);
        if (length == 0 || length >= size)
            throw CVoHResultException(HResultFromLastError());
        full.resize(length);
        return full;
    }

    IByteSink& m_err;
    bool m_log;
    bool m_wasLogOn = false;
    bool m_wasDebug = false;
};

int RunCommand(ICommand& command, CContext& context, const CGlobalOptions& options)
{
    std::optional<CRunSwitches> switches;
    try
    {
        switches.emplace(options, context.Streams().err);
        command.Run(context);
        return context.Finish(S_OK);
    }
    catch (const CUsageError&)
    {
        throw;
    }
    catch (const CDetailedFailure& failure)
    {
        return context.Finish(failure.Result(), failure.Detail());
    }
    catch (...)
    {
        return context.Finish(HResultFromCurrentException());
    }
}

int RunCommandLine(const std::vector<std::string>& arguments, CStreams streams, CProcessState& process)
{
    CGlobalOptions options;
    CCommandLine line(options);
    try
    {
        std::string text;
        ICommand* const command = line.Parse(arguments, text);
        if (!command)
        {
            streams.out.Write(text);
            return kExitSuccess;
        }
        CContext context(streams, options, process);
        return RunCommand(*command, context, options);
    }
    catch (const CUsageError& error)
    {
        streams.err.Write("voutils: " + std::string(error.what()) + '\n' + line.Hint() + '\n');
        return kExitUsage;
    }
}
} // namespace

int RunConsole(const std::vector<std::string>& arguments, CStreams streams, CProcessState& process) noexcept
{
    HRESULT result = E_FAIL;
    try
    {
        return RunCommandLine(arguments, streams, process);
    }
    catch (...)
    {
        result = HResultFromCurrentException();
    }
    // The result could not be written: the stream is closed, or memory ran out.
    try
    {
        streams.err.Write("voutils: " + ResultCode(result) + ' ' + ErrorLine(result) + '\n');
    }
    catch (...)
    {
        // Only the exit code is left.
    }
    return kExitFailure;
}
