// batch: many commands in one process.
#include "Console.h"

#include <base/VoHResult.h>

#include <array>

namespace
{
struct CBatchLine
{
    std::vector<std::string> arguments;
    std::vector<BYTE> input;
};

// Throws CUsageError if the line is not such an object.
CBatchLine ParseLine(const std::string& line)
{
    const CJson json = CJson::parse(line, nullptr, false);
    if (!json.is_object() || !json.contains("args") || !json["args"].is_array())
        throw CUsageError(R"(a line must be an object {"args": ["COMMAND", ...], "stdinBase64": "..."})");
    CBatchLine result;
    for (const CJson& argument : json["args"])
    {
        if (!argument.is_string())
            throw CUsageError("\"args\" must hold texts");
        result.arguments.push_back(argument.get<std::string>());
    }
    if (const auto input = json.find("stdinBase64"); input != json.end() && !input->is_null())
    {
        if (!input->is_string())
            throw CUsageError("\"stdinBase64\" must be a text");
        try
        {
            result.input = FromBase64(input->get_ref<const std::string&>());
        }
        catch (const CVoHResultException&)
        {
            throw CUsageError("\"stdinBase64\" is malformed");
        }
    }
    return result;
}

class CBatchCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.SetFooter(
            "Each line of standard input is {\"args\": [\"encode\", \"hex\"], \"stdinBase64\": \"...\"}, each line of standard "
            "output {\"exit\": 0, \"stdoutBase64\": \"...\", \"stderr\": \"...\"}, in order, written as soon as its command "
            "has "
            "ended. The commands share the process's cookies. Ctrl+C ends the batch at once.\n");
    }
    void Run(CContext& context) override
    {
        context.SetWritesLines();
        context.Process().SetBatch();
        CLineReader lines(context.Streams().in);
        for (std::string line; lines.Next(line);)
            context.Streams().out.Write(JsonLine(RunLine(line, context.Process())));
    }

private:
    static CJson RunLine(const std::string& line, CProcessState& process)
    {
        CMemorySink out;
        CMemorySink err;
        int exitCode = kExitUsage;
        try
        {
            CBatchLine batchLine = ParseLine(line);
            CMemorySource in(std::move(batchLine.input));
            exitCode = RunConsole(batchLine.arguments, { in, out, err }, process);
        }
        catch (const CUsageError& error)
        {
            err.Write("voutils: " + std::string(error.what()) + '\n');
        }
        const std::vector<BYTE>& errors = err.Bytes();
        return { { "exit", exitCode },
                 { "stdoutBase64", ToBase64(out.Bytes()) },
                 { "stderr", std::string(errors.begin(), errors.end()) } };
    }
};
} // namespace

std::span<const CCommandEntry> BatchCommands()
{
    static constexpr std::array kCommands{
        CCommandEntry{ nullptr, "batch", "Run many commands, one a line of standard input", MakeCommand<CBatchCommand> },
    };
    return kCommands;
}
