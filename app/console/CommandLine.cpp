// The command line and its options, behind which is the option parser (CLI11). Only this file includes the parser: its header
// takes longer to compile than any command.
#include "CommandLine.h"

#include "Console.h"

#include <base/VoModuleInformation.h>

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

// Without a name of its own in the help.
const CLI::Validator& NotEmptyValidator()
{
    static const CLI::Validator validator([](std::string& value)
    { return std::string(value.empty() ? "the value is empty" : ""); }, "");
    return validator;
}
} // namespace

COption& COption::Required()
{
    m_option->required();
    return *this;
}

COption& COption::TypeName(const std::string& name)
{
    m_option->type_name(name);
    return *this;
}

COption& COption::NotEmpty()
{
    m_option->check(NotEmptyValidator());
    return *this;
}

COption& COption::InRange(UINT32 lowest, UINT32 highest)
{
    m_option->check(CLI::Range(lowest, highest).description(""));
    return *this;
}

COption& COption::Excludes(const COption& other)
{
    m_option->excludes(other.m_option);
    return *this;
}

COption& COption::Needs(const COption& other)
{
    m_option->needs(other.m_option);
    return *this;
}

COption COptions::Add(const std::string& name, std::string& target, const std::string& description)
{
    return COption(m_app->add_option(name, target, description));
}

COption COptions::Add(const std::string& name, INT32& target, const std::string& description)
{
    return COption(m_app->add_option(name, target, description));
}

COption COptions::Add(const std::string& name, UINT32& target, const std::string& description)
{
    return COption(m_app->add_option(name, target, description));
}

COption COptions::AddList(const std::string& name, std::vector<std::string>& target, const std::string& description)
{
    return COption(m_app->add_option(name, target, description)->expected(1, -1));
}

COption COptions::AddRepeatable(const std::string& name, std::vector<std::string>& target, const std::string& description)
{
    // By itself the parser would give the option everything up to the next one.
    return COption(m_app->add_option(name, target, description)->allow_extra_args(false));
}

COption COptions::AddFlag(const std::string& name, bool& target, const std::string& description)
{
    return COption(m_app->add_flag(name, target, description));
}

COption COptions::AddFunction(const std::string& name, const std::function<void(const std::string&)>& take,
                              const std::string& description)
{
    return COption(m_app->add_option_function<std::string>(name, take, description));
}

void COptions::SetFooter(const std::string& text)
{
    // Below it stands what the help of every command ends with.
    m_app->footer(text + m_app->get_footer());
}

bool COptions::WasGiven(const char* name) const
{
    return m_app->count(name) != 0;
}

class CCommandLine::CParser
{
public:
    explicit CParser(CGlobalOptions& options) : m_app("Puts every part of the VoUtils library in reach of a shell.", "voutils")
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
    CParser(const CParser&) = delete;
    CParser& operator=(const CParser&) = delete;

    // Throws CLI::ParseError for wrong usage, and also for a request for help.
    void Parse(const std::vector<std::string>& arguments)
    {
        m_app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    }
    [[nodiscard]] ICommand* Command() const noexcept { return m_command.get(); }
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

CCommandLine::CCommandLine(CGlobalOptions& options) : m_parser(std::make_unique<CParser>(options)) {}

CCommandLine::~CCommandLine() = default;

ICommand* CCommandLine::Parse(const std::vector<std::string>& arguments, std::string& text)
{
    try
    {
        m_parser->Parse(arguments);
        return m_parser->Command();
    }
    catch (const CLI::CallForVersion& version)
    {
        text = version.what();
    }
    catch (const CLI::CallForHelp&)
    {
        text = m_parser->Help();
    }
    catch (const CLI::ParseError& error)
    {
        throw CUsageError(m_parser->Message(error));
    }
    return nullptr;
}

std::string CCommandLine::Hint() const
{
    return m_parser->Hint();
}
