// The program's command line: global options, help, wrong usage, and the run of the named command.
#include "Console.h"

#include <base/VoErrorHandler.h>
#include <base/VoHResult.h>
#include <base/VoModuleInformation.h>
#include <base/VoUtils.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <map>

namespace
{
constexpr const char* kExamples = R"(Values and files:
  Where a VALUE is expected, @FILE takes it from a UTF-8 file and - from standard input; where a FILE is expected, - is
  standard input. Texts are UTF-8.

Exit codes:
  0 success; 1 the library answered with a failure (its code and text are on the error stream, with --json also in "result"
  and "error"); 2 wrong usage (nothing is written to standard output).

Examples:
  voutils send http://localhost:8080/service -p user=ann -p note=@note.txt --payload photo.jpg --kind multipart --engine curl
  voutils get https://server.example/status --engine curl --json --log
  voutils doctor https://server.example/service --html report.html
  voutils encode base64 --line 76 < photo.jpg
  voutils key new --private private.key --public public.key
  voutils sign --hash sha256 --key private.key < letter.txt > letter.sig
  voutils params build -p a=1 -p "b=x & y" --payload photo.jpg | voutils params parse
  voutils error 0x800705B4
)";

const std::map<std::string, std::string> kGroups{
    { "params", "Build and take apart the bodies that carry parameters and a payload" },
    { "key", "Make RSA keys for sign, verify and send --kind signed" },
    { "ini", "Sign INI files, and check their signatures" },
    { "time", "Write and read ISO 8601 date-times" },
    { "log", "Write to the application log, or tell where it is" },
};

std::vector<CCommandEntry> AllCommands()
{
    std::vector<CCommandEntry> all;
    for (const auto& family :
         { RequestCommands(), DoctorCommands(), AddressCommands(), EncodingCommands(), ParameterCommands(), SignatureCommands(),
           IniCommands(), SystemCommands(), WmiCommands(), DemoCommands(), BatchCommands() })
        all.insert(all.end(), family.begin(), family.end());
    return all;
}

std::string Version()
{
    std::string version = ToUtf8(CVoModuleInformation::Get().Version());
    std::replace(version.begin(), version.end(), ',', '.');
    return "voutils " + version + '\n';
}

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

// The parser of the command line. Only the named command declares its options, which keeps the lines of a batch cheap.
class CCommandLine
{
public:
    explicit CCommandLine(CGlobalOptions& options)
        : m_app("Puts every part of the VoUtils library in reach of a shell.", "voutils")
    {
        // A path may begin with a slash.
        m_app.allow_windows_style_options(false);
        m_app.require_subcommand(1);
        m_app.set_version_flag("--version", Version, "Print the program's version and end");
        m_app.add_flag("--json", options.json,
                       "Print one JSON object: \"result\", on failure \"error\", and the command's own keys");
        COptions(m_app)
            .Add("--settings-dir", options.settingsDirectory,
                 "The folder of ModuleSettings.ini; without it the program's own folder")
            .TypeName("DIR")
            .NotEmpty();
        m_app.add_flag("--log", options.log,
                       "Write the application log in this run; its path goes to the error stream at the end");
        m_app.add_flag("--debug", options.debug,
                       "Write the data logs in this run: every byte sent and received, passwords included");
        m_app.add_flag("--quiet", options.quiet, "No progress bar and no remarks on the error stream");
        m_app.get_formatter()->column_width(34);
        m_app.footer(
            "The options --json, --settings-dir, --log, --debug and --quiet (see 'voutils --help') may stand here too.");
        for (const CCommandEntry& entry : AllCommands())
            AddCommand(entry);
        m_app.footer(kExamples);
    }
    CCommandLine(const CCommandLine&) = delete;
    CCommandLine& operator=(const CCommandLine&) = delete;

    // Throws CLI::ParseError for wrong usage, and also for a request for help.
    void Parse(const std::vector<std::string>& arguments)
    {
        m_app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    }
    [[nodiscard]] ICommand& Command() const noexcept { return *m_command; }
    // The help of the named command, or of the program.
    [[nodiscard]] std::string Help() const { return m_app.help(); }
    // The message about wrong usage. It names only the first of several unexpected arguments: a password may follow a misspelt
    // option.
    [[nodiscard]] std::string Message(const CLI::ParseError& error) const
    {
        const std::vector<std::string> remaining = m_app.remaining(true);
        const bool isUnexpected = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError);
        const auto [app, name] = NamedCommand();
        const bool lacksCommand =
            error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError) && app->get_require_subcommand_min() != 0;
        if (lacksCommand && remaining.empty())
            return "no command is named";
        if (lacksCommand && !remaining.front().starts_with('-'))
            return "there is no command '" + name + remaining.front() + "'";
        if (lacksCommand || (isUnexpected && !remaining.empty()))
            return "the argument '" + remaining.front() + "' was not expected";
        return error.what();
    }
    [[nodiscard]] std::string Hint() const { return "Try 'voutils " + NamedCommand().second + "--help'."; }

private:
    // The command named so far, and its words, each with a blank behind it.
    [[nodiscard]] std::pair<const CLI::App*, std::string> NamedCommand() const
    {
        const CLI::App* app = &m_app;
        std::string name;
        while (!app->get_subcommands().empty())
        {
            app = app->get_subcommands().front();
            name += app->get_name() + ' ';
        }
        return { app, name };
    }

    void AddCommand(const CCommandEntry& entry)
    {
        CLI::App& parent = entry.group ? Group(entry.group) : m_app;
        CLI::App* const app = parent.add_subcommand(entry.name, entry.description);
        app->fallthrough();
        // The parser calls this at the command's name, before it reads the arguments behind it.
        app->preparse_callback([this, app, make = entry.make](size_t)
        {
            m_command = make();
            COptions options(*app);
            m_command->Declare(options);
        });
    }
    CLI::App& Group(const std::string& name)
    {
        CLI::App*& group = m_groups[name];
        if (!group)
        {
            group = m_app.add_subcommand(name, kGroups.at(name));
            group->fallthrough();
            group->require_subcommand(1);
        }
        return *group;
    }

    CLI::App m_app;
    std::map<std::string, CLI::App*> m_groups; // within m_app
    std::unique_ptr<ICommand> m_command;
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
    std::string message;
    try
    {
        line.Parse(arguments);
        CContext context(streams, options, process);
        return RunCommand(line.Command(), context, options);
    }
    catch (const CLI::CallForVersion& version)
    {
        streams.out.Write(std::string(version.what()));
        return kExitSuccess;
    }
    catch (const CLI::CallForHelp&)
    {
        streams.out.Write(line.Help());
        return kExitSuccess;
    }
    catch (const CLI::ParseError& error)
    {
        message = line.Message(error);
    }
    catch (const CUsageError& error)
    {
        message = error.what();
    }
    streams.err.Write("voutils: " + message + '\n' + line.Hint() + '\n');
    return kExitUsage;
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
