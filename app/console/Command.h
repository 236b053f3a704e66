// The interface of a command and the context that it runs in. Every file with commands includes this.
#pragma once

#include "Options.h"
#include "Streams.h"
#include "Text.h"

#include <VoGlobalHTTPProxyStoreImpl.h>
#include <VoHTTPStores.h>
#include <base/VoHResult.h>
#include <base/com/VoIUnknown.h>

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// A failure of the library, with a detail for its error line, such as the name of a file.
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

// The options that every command accepts, before or behind its name.
struct CGlobalOptions
{
    bool json = false;
    bool quiet = false;
    bool log = false;
    bool debug = false;
    std::string settingsDirectory;
};

// The stores, which all commands of the process share. They are created on first use and live until the program ends, so that
// the commands of a batch share cookies and proxy credentials.
class CProcessState
{
public:
    [[nodiscard]] IVoHTTPCookieStore& CookieStore();
    // Without a configuration every connection is direct.
    [[nodiscard]] CVoGlobalHTTPProxyStoreImpl& ProxyStore();

    // Whether the commands run in a batch.
    void SetBatch() noexcept { m_isBatch = true; }
    [[nodiscard]] bool IsBatch() const noexcept { return m_isBatch; }

private:
    bool m_isBatch = false;
    CVoComPtr<IVoHTTPCookieStore> m_cookieStore;
    CVoComPtr<CVoGlobalHTTPProxyStoreImpl> m_proxyStore;
};

// One run of one command: its input and its results. With --json the results are keys of one object, which is written at the
// end of the command. Otherwise each result is written at once.
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

    // The whole standard input. A second call is a usage error.
    [[nodiscard]] std::vector<BYTE> ReadInput();
    // A file's bytes; "-" is standard input.
    [[nodiscard]] std::vector<BYTE> ReadFile(const std::string& file);
    // A UTF-8 file's text without a byte-order mark; "-" is standard input.
    [[nodiscard]] std::wstring ReadTextFile(const std::string& file);
    // The text of a VALUE: "@FILE" is the text of a file, "-" is that of standard input, any other value is the text itself.
    [[nodiscard]] std::wstring ReadValue(std::string_view value);
    // The same for a value of one line, without the line end that a file or a pipe adds.
    [[nodiscard]] std::wstring ReadLineValue(std::string_view value);

    // Writes a text and a line end.
    void PutLine(const char* key, std::wstring_view text);
    // Writes a text without a line end.
    void PutText(const char* key, std::wstring_view text);
    // Writes bytes. The key ends in "Base64".
    void PutBytes(const char* key, std::span<const BYTE> bytes);
    // Writes an object. With --json its keys are added to the result object; otherwise it is printed as JSON.
    void PutObject(const CJson& object);
    // Writes the result of a check: "valid", or "not valid" with the exit code of a failure.
    void PutValidity(bool valid);
    // Sets a key that only --json shows.
    void PutKey(const char* key, CJson value) { m_object[key] = std::move(value); }

    // For a command that did its work and has a negative result ("not valid").
    void SetExitCode(int code) noexcept { m_exitCode = code; }
    // The command writes its JSON itself, line by line. No object is written at the end.
    void SetWritesLines() noexcept { m_writesLines = true; }

    // Writes bytes to a file that the command line names; "-" is standard output.
    void WriteFile(const std::string& file, std::span<const BYTE> bytes);
    // Calls `write`, which writes to that file. A failure of it gets the file's name.
    template <class Write>
    static void ForFile(const std::string& file, Write write)
    {
        try
        {
            write();
        }
        catch (const CVoHResultException& failure)
        {
            throw CDetailedFailure(failure.Result(), file);
        }
    }
    // Checks before the work starts that WriteFile can write the file, and throws if it cannot. "-" with --json is a usage
    // error. An empty name is no file. Changes nothing.
    void CheckOutputFile(const std::string& file);

    // Writes a remark to the error stream, unless --quiet.
    void Remark(std::string_view text);

    // Sets why the command fails, for the error line. `reason` is one sentence without a full stop; empty: only the error's
    // text is known. It may hold texts that a server sent.
    void SetFailureReason(std::wstring_view reason) { m_failureReason = ToUtf8(reason); }
    // Sets a remark that follows the error line of a failure. Not with --json, which has keys for its content.
    void SetFailureRemark(std::string remark) { m_failureRemark = std::move(remark); }

    // Ends the run: writes the JSON object and, for a failure, the error line with `detail` and the reason behind the error's
    // text. Returns the exit code.
    int Finish(HRESULT result, std::string_view detail = {});

private:
    CStreams m_streams;
    const CGlobalOptions& m_options;
    CProcessState& m_process;
    CJson m_object = CJson::object();
    std::string m_failureReason;
    std::string m_failureRemark;
    int m_exitCode = kExitSuccess;
    bool m_inputTaken = false;
    bool m_writesLines = false;
};

// A command. An object serves one run; its members hold the values of the command line.
class ICommand
{
public:
    virtual ~ICommand() = default;
    // Adds the command's options to its part of the command line.
    virtual void Declare(COptions& options) = 0;
    // Does the work. Throws CVoHResultException for a failure (see Check) and CUsageError for wrong usage.
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
