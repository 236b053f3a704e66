// time, error, log, system: date-times, error texts, the application log, the system check.
#include "Console.h"

#include <base/VoErrorHandler.h>
#include <base/VoErrorText.h>
#include <base/VoSystemProperties.h>
#include <base/VoUtils.h>

#include <array>
#include <charconv>
#include <chrono>

namespace
{
// A whole number: decimal, or hexadecimal behind "0x".
std::optional<INT64> ParseNumber(std::string_view text)
{
    const bool negative = text.starts_with('-');
    if (negative)
        text.remove_prefix(1);
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal)
        text.remove_prefix(2);
    UINT64 value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, hexadecimal ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size() || value > MAXDWORD)
        return std::nullopt;
    return negative ? -static_cast<INT64>(value) : static_cast<INT64>(value);
}

HRESULT ParseCode(const std::string& text)
{
    const std::optional<INT64> value = ParseNumber(text);
    if (!value || *value < std::numeric_limits<INT32>::min())
        throw CUsageError("'" + text + "' is no code: write 0x80070057, 2147942487 or -2147024809");
    return static_cast<HRESULT>(*value);
}

// Whether the calendar and the clock have the date-time.
bool Exists(const SYSTEMTIME& time) noexcept
{
    using namespace std::chrono;
    const year_month_day date{ year(time.wYear), month(time.wMonth), day(time.wDay) };
    return date.ok() && time.wHour < 24 && time.wMinute < 60 && time.wSecond < 60;
}

// Reads "YYYY-MM-DD hh:mm:ss.mmm". The time, its seconds and their fraction are optional.
class CDateTimeReader
{
public:
    explicit CDateTimeReader(std::string_view text) noexcept : m_text(text) {}

    [[nodiscard]] std::optional<SYSTEMTIME> Read()
    {
        SYSTEMTIME time{};
        bool good = Number(4, time.wYear) && Literal('-') && Number(2, time.wMonth) && Literal('-') && Number(2, time.wDay);
        if (good && !m_text.empty())
        {
            good = (Literal(' ') || Literal('T')) && Number(2, time.wHour) && Literal(':') && Number(2, time.wMinute);
            if (good && Literal(':'))
                good = Number(2, time.wSecond) && (!Literal('.') || Number(3, time.wMilliseconds));
        }
        return good && m_text.empty() ? std::optional(time) : std::nullopt;
    }

private:
    bool Literal(char c) noexcept
    {
        if (!m_text.starts_with(c))
            return false;
        m_text.remove_prefix(1);
        return true;
    }
    bool Number(size_t digits, WORD& value) noexcept
    {
        if (m_text.size() < digits)
            return false;
        const auto [end, error] = std::from_chars(m_text.data(), m_text.data() + digits, value);
        const bool good = error == std::errc() && end == m_text.data() + digits;
        if (good)
            m_text.remove_prefix(digits);
        return good;
    }

    std::string_view m_text;
};

class CTimeIsoCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("TIME", m_time, "The date-time").Required().TypeName("\"YYYY-MM-DD hh:mm:ss.mmm\"");
        options.Add("--offset", m_offset, "Minutes from UTC, -1439 to 1439; default 0").TypeName("MIN");
        options.AddFlag("--no-time", m_noTime, "Write the date alone");
        options.AddFlag("--ms", m_milliseconds, "Write milliseconds unless they are zero");
        options.SetFooter("Example: voutils time iso --offset 60 --ms \"2024-02-29 12:00:00.250\"\n");
    }
    void Run(CContext& context) override
    {
        const std::string text = ToUtf8(context.ReadLineValue(m_time));
        const std::optional<SYSTEMTIME> time = CDateTimeReader(text).Read();
        if (!time)
            throw CUsageError("TIME: '" + text + "' is not of the form \"YYYY-MM-DD hh:mm:ss.mmm\"");
        if (!Exists(*time))
            throw CUsageError("TIME: there is no date-time '" + text + "'");
        std::wstring iso;
        Check(VoSystemTimeToISO8601DateTimeStr(*time, m_offset, !m_noTime, m_milliseconds, iso));
        context.PutLine("text", iso);
    }

private:
    std::string m_time;
    int m_offset = 0;
    bool m_noTime = false;
    bool m_milliseconds = false;
};

class CTimeParseCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("VALUE", m_text, "The ISO 8601 text").Required().TypeName("TEXT");
        options.SetFooter("Prints JSON: year, month, day, hour, minute, second, milliseconds, offset (minutes from UTC).\n");
    }
    void Run(CContext& context) override
    {
        SYSTEMTIME time{};
        int offset = 0;
        Check(VoISO8601DateTimeStrToSystemTime(context.ReadLineValue(m_text), time, &offset));
        context.PutObject({ { "year", time.wYear },
                            { "month", time.wMonth },
                            { "day", time.wDay },
                            { "hour", time.wHour },
                            { "minute", time.wMinute },
                            { "second", time.wSecond },
                            { "milliseconds", time.wMilliseconds },
                            { "offset", offset } });
    }

private:
    std::string m_text;
};

class CErrorCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("CODE", m_code, "The result code: 0x80070057, 2147942487 or -2147024809").Required().TypeName("HRESULT");
        options.AddFlag("--no-fallback", m_noFallback,
                        "Fail for a code that has no text, instead of saying that it is unknown");
    }
    void Run(CContext& context) override
    {
        std::wstring text;
        Check(VoGetErrorText(ParseCode(m_code), !m_noFallback, &text));
        // Texts of the system end with a line end.
        std::erase(text, L'\r');
        context.PutLine("text", VoTrim(text));
    }

private:
    std::string m_code;
    bool m_noFallback = false;
};

class CLogWriteCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("--source", m_source, "The source file that the line names").TypeName("S");
        options.Add("--line", m_line, "The line number; negative: none").TypeName("N");
        options.Add("--function", m_function, "The function that the line names").TypeName("F");
        COption code = options.Add("--code", m_code, "Report this result code").TypeName("HR");
        options.Add("--message", m_message, "Report this text; @FILE is a UTF-8 file's text, - is standard input")
            .TypeName("TEXT")
            .Excludes(code);
        options.SetFooter(
            "Writes one line to the application log, when that is on: by APPLOG=1 in section DEBUG of ModuleSettings.ini, or "
            "with --log.\nExample: voutils log write --log --source ..\\\\source\\\\Setup --line 12 --message \"Setup "
            "began\"\n");
        m_options = options;
    }
    void Run(CContext& context) override
    {
        const std::wstring source = FromUtf8(m_source);
        const std::wstring function = FromUtf8(m_function);
        const wchar_t* const sourceText = m_options.WasGiven("--source") ? source.c_str() : nullptr;
        const wchar_t* const functionText = m_options.WasGiven("--function") ? function.c_str() : nullptr;
        const bool isCode = m_options.WasGiven("--code");
        if (!isCode && !m_options.WasGiven("--message"))
            throw CUsageError("either --code or --message is required");
        if (isCode)
            VoErrorLog().WriteCode(sourceText, m_line, functionText, ParseCode(m_code));
        else
            VoErrorLog().WriteLine(sourceText, m_line, functionText, context.ReadValue(m_message));
        if (!VoErrorLog().IsApplicationLogOn())
            context.Remark("the application log is off, nothing was written (--log switches it on)");
    }

private:
    COptions m_options;
    std::string m_source;
    int m_line = -1;
    std::string m_function;
    std::string m_code;
    std::string m_message;
};

class CLogPathCommand : public ICommand
{
public:
    void Declare(COptions&) override {}
    void Run(CContext& context) override { context.PutLine("path", VoErrorLog().LogFilePath()); }
};

class CSystemCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.SetFooter(
            "Prints JSON: processors, nt, osClass (0 unknown to 6 Windows 10 or later), frequency (ticks a second), "
            "ticksPerMicrosecond, vendorIntel, family, model, stepping, features.\n");
    }
    void Run(CContext& context) override
    {
        const CSystemCheckResult& system = VoSystemInformation();
        const CProcessorProperties& processor = system.processor;
        CJson features = CJson::array();
        for (const auto& [name, present] : std::initializer_list<std::pair<const char*, bool>>{ { "MMX", processor.mmx },
                                                                                                { "SSE", processor.sse },
                                                                                                { "SSE2", processor.sse2 },
                                                                                                { "SSE3", processor.sse3 },
                                                                                                { "SSSE3", processor.ssse3 },
                                                                                                { "SSE4.1", processor.sse41 },
                                                                                                { "SSE4.2", processor.sse42 },
                                                                                                { "AVX", processor.avx } })
        {
            if (present)
                features.push_back(name);
        }
        context.PutObject({ { "processors", system.numberOfProcessors },
                            { "nt", system.isNT },
                            { "osClass", static_cast<INT32>(system.systemClass) },
                            { "frequency", system.performanceFrequency },
                            { "ticksPerMicrosecond", system.ticksPerMicrosecond },
                            { "vendorIntel", processor.isIntel },
                            { "family", processor.family },
                            { "model", processor.model },
                            { "stepping", processor.stepping },
                            { "features", std::move(features) } });
    }
};
} // namespace

std::span<const CCommandEntry> SystemCommands()
{
    static constexpr std::array kCommands{
        CCommandEntry{ "time", "iso", "Write a date-time as ISO 8601 text", MakeCommand<CTimeIsoCommand> },
        CCommandEntry{ "time", "parse", "Read ISO 8601 text", MakeCommand<CTimeParseCommand> },
        CCommandEntry{ nullptr, "error", "The text of a result code", MakeCommand<CErrorCommand> },
        CCommandEntry{ "log", "write", "Write one line to the application log", MakeCommand<CLogWriteCommand> },
        CCommandEntry{ "log", "path", "Print the application log's path", MakeCommand<CLogPathCommand> },
        CCommandEntry{ nullptr, "system", "What the library finds out about this machine", MakeCommand<CSystemCommand> },
    };
    return kCommands;
}
