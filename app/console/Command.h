// What a command of the console is, and what it works with.
#pragma once

#include "Streams.h"
#include "Text.h"

#include <VoGlobalHTTPProxyStoreImpl.h>
#include <VoHTTPStores.h>
#include <base/VoHResult.h>
#include <base/com/VoIUnknown.h>

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

// The command line asks for something that cannot be: exit code 2, the message and a hint on the error stream, no result.
class CUsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A failure of the library with a word about what it concerns.
class CDetailedFailure : public CVoHResultException
{
public:
    CDetailedFailure(HRESULT result, std::string detail) : CVoHResultException(result), m_detail(std::move(detail)) {}

    [[nodiscard]] const std::string& Detail() const noexcept { return m_detail; }

private:
    std::string m_detail;
};

constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// The options that every command understands, before and behind its name.
struct CGlobalOptions
{
    bool json = false;
    bool quiet = false;
    bool log = false;
    bool debug = false;
    std::string settingsDirectory;
};

// What all commands of the process share: the stores, made on first use and kept until the program ends, so that the commands
// of a batch see each other's cookies and the proxies' credentials.
class CProcessState
{
public:
    [[nodiscard]] IVoHTTPCookieStore& CookieStore();
    // Connects directly until it is told otherwise.
    [[nodiscard]] CVoGlobalHTTPProxyStoreImpl& ProxyStore();

private:
    CVoComPtr<IVoHTTPCookieStore> m_cookieStore;
    CVoComPtr<CVoGlobalHTTPProxyStoreImpl> m_proxyStore;
};

// One run of one command: where it reads from, and where its results go. With --json the results become the keys of one object
// that is written when the command has ended; otherwise they are written as they come.
class CContext
{
public:
    CContext(CStreams streams, const CGlobalOptions& options, CProcessState& process)
        : m_streams(streams), m_options(options), m_process(process)
    {
    }

    [[nodiscard]] const CGlobalOptions& Options() const noexcept { return m_options; }
    [[nodiscard]] CStreams& Streams() noexcept { return m_streams; }
    [[nodiscard]] CProcessState& Process() noexcept { return m_process; }

    // Standard input, whole. It can be had once: a second request is a usage error.
    [[nodiscard]] std::vector<BYTE> ReadInput();
    // A file's bytes; "-" is standard input.
    [[nodiscard]] std::vector<BYTE> ReadFile(const std::string& file);
    // A UTF-8 file's text without a byte-order mark; "-" is standard input.
    [[nodiscard]] std::wstring ReadTextFile(const std::string& file);
    // The meaning of a VALUE: "@FILE" is the text of a file, "-" that of standard input, everything else stands for itself.
    [[nodiscard]] std::wstring ReadValue(std::string_view value);

    // A text and a line end.
    void PutLine(const char* key, std::wstring_view text);
    // A text to which nothing may be added.
    void PutText(const char* key, std::wstring_view text);
    // Bytes; the key ends in "Base64".
    void PutBytes(const char* key, std::span<const BYTE> bytes);
    // A result that is an object of its own: its keys are the answer's, and text output shows it as JSON as well.
    void PutObject(const CJson& object);
    // The outcome of a check: "valid", or "not valid" with the exit code of a failure.
    void PutValidity(bool valid);
    // A key that only --json shows.
    void PutKey(const char* key, CJson value) { m_answer[key] = std::move(value); }

    // What the library answered about a request that did not fail, when it is no success either ("not valid").
    void SetExitCode(int code) noexcept { m_exitCode = code; }
    // The command wrote its JSON itself, line by line; there is no closing object.
    void SetAnswersByLine() noexcept { m_answersByLine = true; }

    // The bytes for a file that the command line names; "-" is standard output, where --json leaves no room for them.
    void WriteFile(const std::string& file, std::span<const BYTE> bytes);
    // Whether WriteFile can do that, found out before there is anything to be lost; changes nothing. An empty name is none.
    void CheckOutputFile(const std::string& file);

    // A remark on the error stream, unless --quiet.
    void Remark(std::string_view text);

    // A remark that follows the line of a failure, for people: --json has keys for what it says.
    void SetFailureRemark(std::string remark) { m_failureRemark = std::move(remark); }

    // Ends the run with the library's answer: the JSON object, or the failure's line. `detail` may say more about it.
    int Finish(HRESULT result, std::string_view detail = {});

private:
    CStreams m_streams;
    const CGlobalOptions& m_options;
    CProcessState& m_process;
    CJson m_answer = CJson::object();
    std::string m_failureRemark;
    int m_exitCode = kExitSuccess;
    bool m_inputTaken = false;
    bool m_answersByLine = false;
};

// A command. One object serves one run: its members hold what the command line said.
class ICommand
{
public:
    virtual ~ICommand() = default;
    // Adds the command's options to its part of the command line.
    virtual void Declare(CLI::App& app) = 0;
    // Does the work. Failures leave as CVoHResultException (see Check), wrong usage as CUsageError.
    virtual void Run(CContext& context) = 0;
};

struct CCommandEntry
{
    const char* group; // the first word of a command of two words ("params build"), or null
    const char* name;
    const char* description;
    std::unique_ptr<ICommand> (*make)();
};

template <class Command>
std::unique_ptr<ICommand> MakeCommand()
{
    return std::make_unique<Command>();
}

// For options of which an empty value is a script's variable that was never set, rather than a wish.
inline const CLI::Validator kNotEmpty([](std::string& value) { return std::string(value.empty() ? "the value is empty" : ""); },
                                      "");

// An option that may stand several times and takes one value each time. CLI11 would give it everything up to the next option.
inline CLI::Option* AddRepeatable(CLI::App& app, const std::string& name, std::vector<std::string>& values,
                                  const std::string& description)
{
    return app.add_option(name, values, description)->allow_extra_args(false);
}

// An option (or, without dashes, an argument) that takes one of a few words; `target` keeps its value when it is not given.
template <class Value>
CLI::Option* AddChoice(CLI::App& app, const std::string& name, Value& target,
                       std::vector<std::pair<const char*, Value>> choices, const std::string& description)
{
    std::string words;
    for (const auto& [word, value] : choices)
        words += (words.empty() ? "" : "|") + std::string(word);
    const auto choose = [&target, choices = std::move(choices), words, name](const std::string& text)
    {
        for (const auto& [word, value] : choices)
        {
            if (text == word)
            {
                target = value;
                return;
            }
        }
        throw CUsageError(name + ": '" + text + "' is none of " + words);
    };
    return app.add_option_function<std::string>(name, choose, description)->type_name(words);
}
