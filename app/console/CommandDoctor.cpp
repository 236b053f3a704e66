// doctor: why a connection fails, and what must be changed.
#include "Console.h"
#include "Files.h"
#include "RequestOptions.h"

#include <VoDiagnosis.h>
#include <VoDiagnosisCauses.h>
#include <VoDiagnosisRender.h>
#include <VoHTTPTransports.h>
#include <base/VoLock.h>
#include <base/VoModuleInformation.h>
#include <base/VoMultiThreading.h>
#include <base/VoText.h>

#include <algorithm>
#include <array>

namespace
{
// Ctrl+C while a diagnosis exists: cancels it, and ends the wait for the next one.
class CInterruption
{
public:
    CInterruption()
    {
        const CVoLockHolder lock(s_lock);
        s_current = this;
        ::SetConsoleCtrlHandler(&OnControl, TRUE);
    }
    ~CInterruption()
    {
        ::SetConsoleCtrlHandler(&OnControl, FALSE);
        const CVoLockHolder lock(s_lock);
        s_current = nullptr;
    }
    CInterruption(const CInterruption&) = delete;
    CInterruption& operator=(const CInterruption&) = delete;

    // The diagnosis that runs; null for none.
    void Watch(CVoDiagnosis* diagnosis)
    {
        const CVoLockHolder lock(s_lock);
        m_diagnosis = diagnosis;
        if (diagnosis && m_event.IsSignalled())
            diagnosis->Cancel();
    }
    // True when Ctrl+C ended the wait.
    [[nodiscard]] bool WaitFor(UINT32 seconds) const noexcept
    {
        return ::WaitForSingleObject(m_event.Handle(), seconds * 1000) == WAIT_OBJECT_0;
    }

private:
    static BOOL WINAPI OnControl(DWORD event) noexcept
    {
        const CVoLockHolder lock(s_lock);
        if ((event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) || !s_current)
            return FALSE;
        if (s_current->m_event.IsSignalled())
            return FALSE; // the second one ends the process at once
        (void)s_current->m_event.Set();
        if (s_current->m_diagnosis)
            s_current->m_diagnosis->Cancel();
        return TRUE;
    }

    inline static CVoLock s_lock;
    inline static CInterruption* s_current = nullptr;
    CEvent m_event{ false, true };
    CVoDiagnosis* m_diagnosis = nullptr;
};

// Writes lines: in colour to a terminal, as UTF-8 to anything else.
class CLineWriter
{
public:
    explicit CLineWriter(IByteSink& out) : m_out(out)
    {
        if (!out.IsTerminal())
            return;
        m_console = ::GetStdHandle(STD_OUTPUT_HANDLE);
        CONSOLE_SCREEN_BUFFER_INFO info{};
        if (::GetConsoleScreenBufferInfo(m_console, &info))
            m_attributes = info.wAttributes;
        // An old console shows the marks only in its Unicode code page.
        m_isUnicode = ::GetConsoleOutputCP() == CP_UTF8;
        m_isColoured = ::GetEnvironmentVariableW(L"NO_COLOR", nullptr, 0) == 0;
    }

    [[nodiscard]] bool IsUnicode() const noexcept { return m_isUnicode; }
    void Write(const std::vector<CVoTextLine>& lines)
    {
        for (const CVoTextLine& line : lines)
        {
            for (const CVoTextPiece& piece : line)
                WritePiece(piece);
            WritePiece({ EVoTextStyle::Plain, L"\n" });
        }
    }

private:
    void WritePiece(const CVoTextPiece& piece)
    {
        if (!m_console)
            return m_out.Write(ToUtf8(piece.text));
        const bool isStyled = m_isColoured && piece.style != EVoTextStyle::Plain;
        if (isStyled)
            ::SetConsoleTextAttribute(m_console, static_cast<WORD>((m_attributes & 0xF0) | ColourOf(piece.style)));
        DWORD written = 0;
        ::WriteConsoleW(m_console, piece.text.data(), static_cast<DWORD>(piece.text.size()), &written, nullptr);
        if (isStyled)
            ::SetConsoleTextAttribute(m_console, m_attributes);
    }
    static WORD ColourOf(EVoTextStyle style) noexcept
    {
        switch (style)
        {
        case EVoTextStyle::Good:
            return FOREGROUND_GREEN | FOREGROUND_INTENSITY;
        case EVoTextStyle::Warning:
            return FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_INTENSITY;
        case EVoTextStyle::Bad:
            return FOREGROUND_RED | FOREGROUND_INTENSITY;
        case EVoTextStyle::Faint:
            return FOREGROUND_INTENSITY;
        default:
            return FOREGROUND_RED | FOREGROUND_GREEN | FOREGROUND_BLUE | FOREGROUND_INTENSITY;
        }
    }

    IByteSink& m_out;
    HANDLE m_console = nullptr; // null: not a terminal
    WORD m_attributes = 7;
    bool m_isUnicode = true;
    bool m_isColoured = false;
};

// Prints each check as soon as it has its result.
class CPrinter final : public IVoDiagnosisObserver
{
public:
    CPrinter(CLineWriter& writer, CVoDiagnosis& diagnosis) : m_writer(writer), m_diagnosis(diagnosis) {}

    void OnCheck(const CVoCheck& check) noexcept override
    try
    {
        if (check.IsFinal() && m_failure == S_OK)
            m_writer.Write(VoRenderCheck(check, m_writer.IsUnicode()));
    }
    catch (...)
    {
        // Nobody reads the output any more.
        m_failure = HResultFromCurrentException();
        m_diagnosis.Cancel();
    }
    [[nodiscard]] HRESULT Failure() const noexcept { return m_failure; }

private:
    CLineWriter& m_writer;
    CVoDiagnosis& m_diagnosis;
    HRESULT m_failure = S_OK;
};

class CDoctorCommand final : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("URL", m_url, "[http[s]://]HOST[:PORT][/PATH][?QUERY]");
        options
            .AddRepeatable(
                "--engine", m_engines,
                "Try this transport only; repeatable. Default: wininet, winhttp and curl. winhttp-loopback is tried when "
                "it is named")
            .TypeName("NAME");
        m_connection.DeclareShared(options);
        options.AddChoice<bool>("--method", m_post, { { "get", false }, { "post", true } },
                                "The request that is tried; default get; post has no body");
        options.Add("--timeout", m_timeout, "Seconds that one probe may take; default 10").TypeName("S").InRange(1, 3600);
        options.Add("--html", m_html, "Also write the report as one page, which may be mailed and printed")
            .TypeName("FILE")
            .NotEmpty();
        options.Add("--watch", m_watch, "Again every S seconds until Ctrl+C, one line a pass, for faults that come and go")
            .TypeName("S")
            .InRange(1, 86400);
        options.AddFlag("--causes", m_causes, "Print the page about all causes that can be found, and check nothing");
        options.SetFooter(
            "Checks each step of a connection, sends the request over each transport, and says what is wrong and what to do. "
            "Nothing is changed on this machine, and no secret is shown.\n"
            "Exit code: 0 when nothing failed, 1 when something did.\n"
            "--json: url, verdict, failedCheck, cause, summary, advice, recommendedEngine, checks, timelines; with --watch one "
            "object a line.\n"
            "Examples:\n  voutils doctor https://server.example/service\n"
            "  voutils doctor https://server.example/service --proxy proxy.example:8080 --proxy-auth @login.txt --html "
            "report.html\n");
    }

    void Run(CContext& context) override
    {
        if (m_causes)
        {
            context.SetWritesLines();
            context.Streams().out.Write(VoDiagnosisCausesPage());
            return;
        }
        const CVoDiagnosisOptions options = MakeOptions(context);
        CheckPage(context);
        CLineWriter writer(context.Streams().out);
        CInterruption interruption;
        context.SetWritesLines();
        do
            RunOnce(context, options, writer, interruption);
        while (m_watch != 0 && !interruption.WaitFor(m_watch));
    }

private:
    [[nodiscard]] CVoDiagnosisOptions MakeOptions(CContext& context) const
    {
        CVoDiagnosisOptions options;
        if (m_url.empty())
            throw CUsageError("URL is required");
        options.url = context.ReadValue(m_url);
        for (const std::string& name : m_engines)
            options.engines.push_back(KindOf(name));
        options.configuredEngine = CVoModuleInformation::Get().HTTPEngine();
        options.makeAuthCallback = m_connection.MakeAuthAnswersFactory(context);
        options.mayAsk = m_connection.MayAsk();
        options.proxyStore = CVoComPtr<CVoGlobalHTTPProxyStoreImpl>(&m_connection.Proxy().Apply(context));
        options.isProxyGiven = m_connection.Proxy().IsGiven();
        options.proxyScript = FromUtf8(m_connection.Proxy().Script());
        options.verifyServerCertificate = m_connection.Verifies();
        options.checkRevocation = m_connection.ChecksRevocation();
        options.connectTimeout = m_connection.ConnectTimeout();
        options.requestTimeout = m_connection.RequestTimeout();
        options.probeTimeout = m_timeout;
        options.post = m_post;
        return options;
    }
    [[nodiscard]] UINT32 KindOf(const std::string& name) const
    {
        std::string names;
        for (const CVoHTTPTransportRow& transport : VoHTTPTransports())
        {
            if (name == transport.name)
            {
                if (std::count(m_engines.begin(), m_engines.end(), name) > 1)
                    throw CUsageError("--engine: '" + name + "' is given twice");
                return transport.kind;
            }
            names += (names.empty() ? "" : "|") + std::string(transport.name);
        }
        throw CUsageError("--engine: '" + name + "' is none of " + names);
    }
    // A page that cannot be written is told before anything is probed.
    void CheckPage(CContext& context) const
    {
        if (m_html == "-")
            throw CUsageError("--html: the value is no file");
        try
        {
            context.CheckOutputFile(m_html);
        }
        catch (const CDetailedFailure& failure)
        {
            throw CUsageError("--html: " + m_html + " cannot be written: " + ErrorLine(failure.Result()));
        }
    }

    void RunOnce(CContext& context, const CVoDiagnosisOptions& options, CLineWriter& writer, CInterruption& interruption) const
    {
        CVoDiagnosis diagnosis(options);
        CPrinter printer(writer, diagnosis);
        CVoDiagnosisReport report;
        interruption.Watch(&diagnosis);
        const HRESULT hr = diagnosis.Run(context.Options().json || m_watch != 0 ? nullptr : &printer, report);
        interruption.Watch(nullptr);
        Check(printer.Failure());
        if (FAILED(hr) && !report.isCancelled)
            Check(hr);
        if (context.Options().json)
            context.Streams().out.Write(VoRenderJson(report) + '\n');
        else if (m_watch != 0)
            writer.Write({ VoRenderPass(report, writer.IsUnicode()) });
        else
            writer.Write(VoRenderConclusion(report, writer.IsUnicode()));
        if (!m_html.empty())
        {
            const std::string page = VoRenderHtml(report);
            context.WriteFile(m_html, VoBytesOf(page));
        }
        if (std::any_of(report.checks.begin(), report.checks.end(),
                        [](const CVoCheck& c) { return c.status == EVoCheckStatus::Fail; }))
            context.SetExitCode(kExitFailure);
        Check(hr); // cancelled
    }

    std::string m_url;
    std::vector<std::string> m_engines;
    CConnectionOptions m_connection;
    bool m_post = false;
    UINT32 m_timeout = 10;
    std::string m_html;
    UINT32 m_watch = 0;
    bool m_causes = false;
};
} // namespace

std::span<const CCommandEntry> DoctorCommands()
{
    static constexpr std::array kCommands{
        CCommandEntry{ nullptr, "doctor", "Find out why a connection fails, and what to do", MakeCommand<CDoctorCommand> },
    };
    return kCommands;
}
