// Error reporting: the process-wide trace log, and the reporters that write to it. Every failing function uses it.
//
// A function that fails reports where it happened and returns the code; each caller that passes the failure on reports again
// under its own name, so that the log shows the chain:
//
//     HRESULT CProxyConfigHandler::Init(const CHTTPProxyConfigData& config) noexcept
//     {
//         constexpr CVoReporter report{ kProxyStoreSource, L"CProxyConfigHandler::Init" };
//         if (const HRESULT hr = m_session.SetTimeouts(2000, 2000, 2000, 2000); FAILED(hr))
//             return report(634, hr);
//
// The number is a trace point: part of the log's format, assigned by hand, stable when code moves, because support looks a
// report up by source and number. A pair (source, number) stands once in the code.
#pragma once

#include <base/VoHResult.h>
#include <base/VoHandle.h>
#include <base/VoLock.h>
#include <base/VoModuleSettings.h>
#include <base/VoPlatform.h>
#include <base/VoReportChain.h>
#include <base/VoText.h>

#include <atomic>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Names the folder in which ModuleSettings.ini is looked up, in place of the folder of the module's file. Call it before the
// first report or settings query of the process; afterwards it returns HRESULT_FROM_WIN32(ERROR_ALREADY_INITIALIZED) and
// changes nothing. An empty or over-long path and one with a zero in it are E_INVALIDARG, a folder that does not exist
// ERROR_PATH_NOT_FOUND; these two are not reported, because a report would settle the folder.
[[nodiscard]] HRESULT VoSetModuleSettingsDirectory(CVoTextView directory) noexcept;
// The folder in which ModuleSettings.ini was looked up; empty when the module's file has none. Reads the settings first when
// nobody has. Throws std::bad_alloc.
[[nodiscard]] std::wstring VoModuleSettingsDirectory();

// The application's log file. One object serves the process (VoErrorLog()); others exist only in tests. Any thread may report.
// Every line opens, writes and closes the file, so that several processes can share it and a reader may delete it; writers in
// all processes are serialised by the named mutex "Mutex_ErrorLogFile_" + log name. The log never reports its own failures: a
// line that cannot be written is dropped.
class CVoErrorLogFile
{
public:
    CVoErrorLogFile() = default;
    CVoErrorLogFile(const CVoErrorLogFile&) = delete;
    CVoErrorLogFile& operator=(const CVoErrorLogFile&) = delete;

    // Reads ModuleSettings.ini, resolves the log's path and mutex, builds the run header, and writes the start line when the
    // log is on. A second call does nothing. Call it before other threads know the object. The process's log needs no call.
    void Init() noexcept;
    // The same with settings that the caller has read, and the remarks that VoReadModuleSettings made on them; each remark
    // becomes a line behind the start line.
    void Init(const CVoModuleSettings& settings, std::vector<std::wstring> remarks = {}) noexcept;

    // Switches the application log on or off for this run, whatever the settings say. The first time that it is on, the start
    // line is written. Any thread.
    void SetApplicationLog(bool on) noexcept;
    [[nodiscard]] bool IsApplicationLogOn() const noexcept { return m_applicationLog.load(std::memory_order_relaxed); }

    // Routes error texts of facility 260 to the error translator module. Off until the application switches it on.
    void SetUseErrorTranslator(bool on) noexcept { m_useErrorTranslator.store(on, std::memory_order_relaxed); }
    [[nodiscard]] bool UsesErrorTranslator() const noexcept { return m_useErrorTranslator.load(std::memory_order_relaxed); }

    // Full path of the log file; empty means that lines go nowhere. Fixed by Init. The file and its folder are created by the
    // first line.
    [[nodiscard]] const std::wstring& LogFilePath() const noexcept { return m_logFilePath; }
    [[nodiscard]] const std::wstring& ModuleName() const noexcept { return m_moduleName; }
    [[nodiscard]] const CVoModuleSettings& Settings() const noexcept { return m_settings; }

    // The platform's error of the last line that could not be written; 0 (ERROR_SUCCESS) after a line was written, and before
    // the first.
    [[nodiscard]] DWORD LastWriteError() const noexcept { return m_writeError.load(std::memory_order_relaxed); }

    // Writes one line. A null source leaves out module and file, a negative line number the line, a null function the function.
    // Keeps the calling thread's last error.
    void WriteLine(const wchar_t* source, int line, const wchar_t* function, CVoTextView message) noexcept;
    // WriteLine with the message "Code=0x%X".
    void WriteCode(const wchar_t* source, int line, const wchar_t* function, HRESULT code) noexcept;

private:
    friend CVoErrorLogFile& VoErrorLog() noexcept;

    void ResolveNames();
    void WriteStartLines() noexcept;
    void Write(std::wstring_view line) noexcept;

    CVoModuleSettings m_settings;
    std::atomic<bool> m_applicationLog{ false };
    std::atomic<bool> m_useErrorTranslator{ false };
    std::atomic<bool> m_startLinesWritten{ false };
    std::atomic<DWORD> m_writeError{ ERROR_SUCCESS };
    bool m_initialised = false;
    bool m_isProcessLog = false;
    bool m_headerWritten = false; // guarded by m_writeLock and, across processes, by the mutex
    std::wstring m_moduleName;
    std::wstring m_modulePart; // " Module=NAME File=", as it stands in every line
    std::wstring m_directory;
    std::wstring m_parentDirectory; // of a folder named after the version; else empty
    std::wstring m_logFilePath;
    std::vector<std::wstring> m_remarks;
    std::wstring m_runHeader;
    CVoHandle m_mutex;
    CVoLock m_writeLock;
    CVoLock m_switchLock;
};

// The process's log. The first call creates and initialises it, and reads ModuleSettings.ini. It lives until the process ends.
[[nodiscard]] CVoErrorLogFile& VoErrorLog() noexcept;

namespace VoReportDetail
{
// Whether reports are written: a report with the log off costs one load. Follows the switch of the process's log.
enum class ELogState : int
{
    Uninitialised,
    Off,
    On
};
inline constinit std::atomic<ELogState> g_logState{ ELogState::Uninitialised };

VO_NOINLINE void ReportCode(const wchar_t* source, int line, const wchar_t* function, HRESULT code) noexcept;
VO_NOINLINE void ReportMessage(const wchar_t* source, int line, const wchar_t* format, ...) noexcept;
VO_NOINLINE void ReportMessage(const char* source, int line, const wchar_t* format, ...) noexcept;

[[nodiscard]] inline bool IsOff() noexcept
{
    return g_logState.load(std::memory_order_relaxed) == ELogState::Off;
}
// Whether nobody wants codes: the log is off, and no operation collects its reports.
[[nodiscard]] inline bool IsUnheard() noexcept
{
    return IsOff() && !CVoReportScope::Exists();
}
} // namespace VoReportDetail

// Reports a code: one log line with the message "Code=0x%X". `source` is the source file as support knows it, without its
// extension ("..\source\VoHTTPMessageCURL"), `function` the qualified name with its namespace. Both texts are literals: a
// CVoReportScope of the thread keeps them. With the log off and no such scope in the process this is two loads: nothing is
// formatted or allocated. Never changes the last error.
inline void VoReportCode(const wchar_t* source, int line, const wchar_t* function, HRESULT code) noexcept
{
    if (!VoReportDetail::IsUnheard())
        VoReportDetail::ReportCode(source, line, function, code);
}

// Reports a message: a log line with no function part, its text built as printf does from a wide format. Write %ls for wide and
// %hs for narrow text: these mean the same in every C library.
template <class... Args>
void VoReportMessage(const wchar_t* source, int line, const wchar_t* format, Args... args) noexcept
{
    if (!VoReportDetail::IsOff())
        VoReportDetail::ReportMessage(source, line, format, args...);
}
template <class... Args>
void VoReportMessage(const char* source, int line, const wchar_t* format, Args... args) noexcept
{
    if (!VoReportDetail::IsOff())
        VoReportDetail::ReportMessage(source, line, format, args...);
}

// Reports for one function. Make one at the function's top, and return what it returns.
class CVoReporter
{
public:
    // Both texts must outlive the reporter; they are literals everywhere.
    constexpr CVoReporter(const wchar_t* source, const wchar_t* function) noexcept : m_source(source), m_function(function) {}

    // Reports a code at a trace point and returns it.
    HRESULT operator()(int line, HRESULT code) const noexcept
    {
        VoReportCode(m_source, line, m_function, code);
        return code;
    }

    // Reports an error number of the platform: its HRESULT at `line`, or E_FAIL at `lineWhenZero` for the number 0, which means
    // that the platform failed without a reason. Returns the HRESULT.
    HRESULT Win32(int line, int lineWhenZero, DWORD error) const noexcept
    {
        return (*this)(error != ERROR_SUCCESS ? line : lineWhenZero, HResultFromWin32(error));
    }
    // Win32 with the calling thread's last error.
    HRESULT LastError(int line, int lineWhenZero) const noexcept { return Win32(line, lineWhenZero, ::GetLastError()); }

    // Reports the exception being handled (HResultFromCurrentException); call it only inside a catch block.
    HRESULT CurrentException(int line) const noexcept { return (*this)(line, HResultFromCurrentException()); }

    // Runs `body` and returns its HRESULT. An exception is reported at `exceptionLine`, and its code returned:
    //
    //     HRESULT CVoThing::Read(std::wstring& text) const noexcept
    //     {
    //         constexpr CVoReporter report{ kThingSource, L"CVoThing::Read" };
    //         const auto body = [&]() -> HRESULT
    //         {
    //             if (const HRESULT hr = m_file.Read(text); FAILED(hr))
    //                 return report(112, hr);
    //             return S_OK;
    //         };
    //         return report.Guard(120, body);
    //     }
    template <class Body>
    [[nodiscard]] HRESULT Guard(int exceptionLine, Body&& body) const noexcept
    {
        try
        {
            return std::forward<Body>(body)();
        }
        catch (...)
        {
            return CurrentException(exceptionLine);
        }
    }

    // Reports a message at a trace point; see VoReportMessage for the format.
    template <class... Args>
    void Message(int line, const wchar_t* format, Args... args) const noexcept
    {
        VoReportMessage(m_source, line, format, args...);
    }

private:
    const wchar_t* m_source;
    const wchar_t* m_function;
};
