// The log file and the reports that it writes (VoErrorHandler.h).
#include <base/VoErrorHandler.h>

#include "VoCodePage.h"
#include "VoLogSetup.h"
#include "VoModuleVersion.h"
#include "VoNeverDestroyed.h"
#include "VoSystemPaths.h"

#include <base/VoHandle.h>
#include <base/VoText.h>

#include <algorithm>
#include <cstdarg>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <vector>

// The build may name the branch. It appears in the run header only.
#ifndef VO_BUILD_BRANCH
#define VO_BUILD_BRANCH L"UNKNOWN"
#endif

#define VO_WIDEN_(text) L##text
#define VO_WIDEN(text) VO_WIDEN_(text)

// The build may fix its date and time, so that the same sources give the same bytes. They appear in the run header only.
#ifndef VO_BUILD_DATE
#define VO_BUILD_DATE VO_WIDEN(__DATE__)
#define VO_BUILD_TIME VO_WIDEN(__TIME__)
#endif

namespace
{
constexpr const wchar_t* kErrorHandlerSource = L"..\\..\\source\\base\\VoErrorHandler";

constexpr INT64 kBytesPerKiB = 1024;
constexpr INT64 kMaxKeptKiB = 524288;
constexpr DWORD kCutBuffer = 262144;

// Holds the mutex that serialises the writers of all processes; without a mutex it holds nothing.
class CMutexHolder
{
public:
    explicit CMutexHolder(HANDLE mutex) noexcept : m_mutex(mutex)
    {
        if (!m_mutex)
            return;
        // WAIT_ABANDONED: the previous writer died. At worst it left a torn line; the mutex is held.
        const DWORD result = ::WaitForSingleObject(m_mutex, INFINITE);
        m_held = result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
    }
    ~CMutexHolder()
    {
        if (m_held)
            ::ReleaseMutex(m_mutex);
    }
    CMutexHolder(const CMutexHolder&) = delete;
    CMutexHolder& operator=(const CMutexHolder&) = delete;

private:
    HANDLE m_mutex;
    bool m_held = false;
};

bool Seek(HANDLE file, INT64 offset, DWORD method, INT64* position = nullptr) noexcept
{
    LARGE_INTEGER distance;
    distance.QuadPart = offset;
    LARGE_INTEGER result{};
    if (!::SetFilePointerEx(file, distance, &result, method))
        return false;
    if (position)
        *position = result.QuadPart;
    return true;
}

bool WriteAll(HANDLE file, const char* bytes, size_t size) noexcept
{
    DWORD written = 0;
    return size <= MAXDWORD && ::WriteFile(file, bytes, static_cast<DWORD>(size), &written, nullptr) && written == size;
}

// The last error, or a general failure where the platform named none.
DWORD ErrorOrFailure() noexcept
{
    const DWORD error = ::GetLastError();
    return error != ERROR_SUCCESS ? error : DWORD{ ERROR_WRITE_FAULT };
}

// Moves the newest part of the file to its start and ends the file behind it. A failure may leave old lines twice in the file,
// but never takes a new one.
bool CutToNewest(HANDLE file, INT64 size, INT64 kept) noexcept
{
    if (size <= kept)
        return true;
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kCutBuffer]);
    if (!buffer)
        return false;
    INT64 source = size - kept;
    INT64 destination = 0;
    for (;;)
    {
        DWORD read = 0;
        if (!Seek(file, source, FILE_BEGIN) || !::ReadFile(file, buffer.get(), kCutBuffer, &read, nullptr))
            return false;
        if (read == 0)
            break;
        if (!Seek(file, destination, FILE_BEGIN) || !WriteAll(file, buffer.get(), read))
            return false;
        source += read;
        destination += read;
    }
    return Seek(file, destination, FILE_BEGIN) && ::SetEndOfFile(file);
}

std::optional<SYSTEMTIME> ProcessCreationTime() noexcept
{
    FILETIME created;
    FILETIME exited;
    FILETIME kernel;
    FILETIME user;
    SYSTEMTIME universal;
    SYSTEMTIME local;
    if (!::GetProcessTimes(::GetCurrentProcess(), &created, &exited, &kernel, &user) ||
        !::FileTimeToSystemTime(&created, &universal) || !::SystemTimeToTzSpecificLocalTime(nullptr, &universal, &local))
        return std::nullopt;
    return local;
}

// Opens a log file for appending, and creates its folder when that is missing. `parent` is a folder to create first; empty for
// none. A null handle on failure; the last error tells why.
CVoHandle OpenLogFile(const std::wstring& path, const std::wstring& directory, const std::wstring& parent) noexcept
{
    const auto open = [&path]
    {
        return CVoHandle(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                       OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    };
    CVoHandle file = open();
    if (file || ::GetLastError() != ERROR_PATH_NOT_FOUND)
        return file;
    if (!parent.empty())
        (void)::CreateDirectoryW(parent.c_str(), nullptr); // fails where it exists already
    // Another process may create it at the same time.
    if (!::CreateDirectoryW(directory.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS)
        return file;
    return open();
}

// The state of the process's log and of its settings.
struct CProcessLogState
{
    CVoLock lock;
    std::wstring settingsDirectory; // guarded by `lock`; empty: the folder of the module's file
    std::atomic<CVoErrorLogFile*> ready{ nullptr };
    std::atomic<DWORD> initialisingThread{ 0 };
};

CProcessLogState& ProcessLogState() noexcept
{
    static CVoNeverDestroyed<CProcessLogState> state;
    return state.Get();
}

// The settings of the process. The caller holds the state's lock. Throws std::bad_alloc.
CVoModuleSettings ReadProcessSettings(CProcessLogState& state, std::vector<std::wstring>& remarks)
{
    if (state.settingsDirectory.empty())
        if (std::optional<VoSystemPaths::CModuleFile> module = VoSystemPaths::ModuleFile(VoOwnModule()))
            state.settingsDirectory = std::move(module->directory);
    return VoReadModuleSettings(state.settingsDirectory, &remarks);
}

void ReportFormatted(const wchar_t* source, int line, const wchar_t* format, va_list arguments) noexcept
{
    try
    {
        VoErrorLog().WriteLine(source, line, nullptr, VoFormatV(format, arguments));
    }
    catch (...)
    {
        // The log never reports its own failures; the line is dropped.
        return;
    }
}
} // namespace

HRESULT VoSetModuleSettingsDirectory(CVoTextView directory) noexcept
{
    constexpr CVoReporter report{ kErrorHandlerSource, L"VoSetModuleSettingsDirectory" };
    try
    {
        CProcessLogState& state = ProcessLogState();
        CVoLockHolder lock(state.lock);
        if (state.ready.load(std::memory_order_acquire))
        {
            lock.unlock();
            return report(264, HResultFromWin32(ERROR_ALREADY_INITIALIZED));
        }
        constexpr size_t kMaximumPath = 32767; // of the platform's paths, the ending zero counted
        if (directory.empty() || directory.size() >= kMaximumPath || directory.find(L'\0') != std::wstring_view::npos)
            return E_INVALIDARG;
        std::wstring full = VoSystemPaths::FullPath(std::wstring(directory));
        if (full.empty())
            return E_INVALIDARG;
        const DWORD attributes = ::GetFileAttributesW(full.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))
            return HResultFromWin32(ERROR_PATH_NOT_FOUND);
        state.settingsDirectory = std::move(full);
        return S_OK;
    }
    catch (...)
    {
        return HResultFromCurrentException();
    }
}

std::wstring VoModuleSettingsDirectory()
{
    (void)VoErrorLog();
    CProcessLogState& state = ProcessLogState();
    const CVoLockHolder lock(state.lock);
    return state.settingsDirectory;
}

void CVoErrorLogFile::ResolveNames()
{
    const HMODULE module = VoOwnModule();
    // A name that cannot be read stays empty; the log has a fallback for each.
    const VoSystemPaths::CModuleFile moduleFile = VoSystemPaths::ModuleFile(module).value_or(VoSystemPaths::CModuleFile());
    const std::wstring processFile = VoSystemPaths::ModuleFile(nullptr).value_or(VoSystemPaths::CModuleFile()).name;
    const std::wstring logName(
        VoLogSetup::LogName(VoLogSetup::FindApplicationName(::GetCommandLineW()), processFile, moduleFile.name));

    m_moduleName = VoLogSetup::BaseName(moduleFile.name);
    m_modulePart = L" Module=" + m_moduleName + L" File=";

    std::wstring temporary;
    if (m_settings.useTempDirectory)
        temporary = VoSystemPaths::TemporaryDirectory().value_or(std::wstring());
    m_directory = VoSystemPaths::ExpandEnvironment(
        VoLogSetup::ChooseDirectory(m_settings, temporary, moduleFile.directory, VoSystemPaths::CurrentDirectory()));
    // "C:" was the drive's root. Without a backslash it is the drive's current folder.
    if (m_directory.ends_with(L':'))
        m_directory += L'\\';
    // A relative folder is made absolute once: the process may change its current directory later.
    if (std::wstring full = VoSystemPaths::FullPath(m_directory); !full.empty())
        m_directory = std::move(full);
    VoLogSetup::TrimBackslashes(m_directory);
    if (m_settings.appendVersionToDirectory && !m_settings.versionString.empty())
    {
        m_parentDirectory = m_directory;
        m_directory += L'\\' + m_settings.versionString;
    }
    m_logFilePath = m_directory + L'\\' + logName + L".log";
    // Only the rights to wait and to release: a process with more privileges may have made the mutex, and gives others no more.
    m_mutex.Reset(::CreateMutexExW(nullptr, (L"Mutex_ErrorLogFile_" + logName).c_str(), 0, SYNCHRONIZE | MUTEX_MODIFY_STATE));

    VoLogSetup::CRunFacts facts;
    const CVoModuleVersion version = VoReadModuleVersion(module);
    facts.moduleName = m_moduleName;
    facts.processName = processFile;
    facts.processCreated = ProcessCreationTime();
    facts.buildDate = VO_BUILD_DATE;
    facts.buildTime = VO_BUILD_TIME;
    facts.version = version.version;
    facts.branch = VO_BUILD_BRANCH;
    m_runHeader = VoLogSetup::RunHeader(facts);
}

void CVoErrorLogFile::Init() noexcept
{
    if (m_initialised)
        return;
    const CVoLastErrorKeeper keeper;
    CVoModuleSettings settings;
    std::vector<std::wstring> remarks;
    try
    {
        CProcessLogState& state = ProcessLogState();
        const CVoLockHolder lock(state.lock);
        settings = ReadProcessSettings(state, remarks);
    }
    catch (...)
    {
        // Out of memory: the defaults hold.
        settings = {};
    }
    Init(settings, std::move(remarks));
}

void CVoErrorLogFile::Init(const CVoModuleSettings& settings, std::vector<std::wstring> remarks) noexcept
{
    if (m_initialised)
        return;
    m_initialised = true;
    const CVoLastErrorKeeper keeper;
    try
    {
        m_settings = settings;
        m_remarks = std::move(remarks);
        ResolveNames();
        m_applicationLog.store(settings.applicationLog, std::memory_order_relaxed);
        if (settings.applicationLog)
            WriteStartLines();
    }
    catch (...)
    {
        // Out of memory: initialisation stops here. Without a path, lines are dropped.
        return;
    }
}

void CVoErrorLogFile::WriteStartLines() noexcept
{
    if (m_startLinesWritten.exchange(true))
        return;
    try
    {
        WriteLine(kErrorHandlerSource, 484, L"CVoErrorLogFile::Init",
                  VoFormat(L"Module: %ls,Logging started, logging switched on", m_moduleName.c_str()));
        for (const std::wstring& remark : m_remarks)
            WriteLine(kErrorHandlerSource, 488, L"CVoErrorLogFile::Init", remark);
    }
    catch (...)
    {
        // The log never reports its own failures; the lines are dropped.
        return;
    }
}

void CVoErrorLogFile::SetApplicationLog(bool on) noexcept
{
    {
        const CVoLockHolder lock(m_switchLock);
        m_applicationLog.store(on, std::memory_order_relaxed);
        if (m_isProcessLog)
            VoReportDetail::g_logState.store(on ? VoReportDetail::ELogState::On : VoReportDetail::ELogState::Off,
                                             std::memory_order_relaxed);
    }
    if (on && m_initialised)
        WriteStartLines();
}

void CVoErrorLogFile::WriteLine(const wchar_t* source, int line, const wchar_t* function, CVoTextView message) noexcept
{
    if (!IsApplicationLogOn())
        return;
    const CVoLastErrorKeeper keeper;
    try
    {
        SYSTEMTIME now;
        ::GetLocalTime(&now);
        Write(VoLogSetup::Line(now, m_modulePart, source, line, function, ::GetCurrentThreadId(), message));
    }
    catch (...)
    {
        // The log never reports its own failures; the line is dropped.
        return;
    }
}

void CVoErrorLogFile::WriteCode(const wchar_t* source, int line, const wchar_t* function, HRESULT code) noexcept
{
    if (!IsApplicationLogOn())
        return;
    wchar_t message[16];
    const int length = ::_snwprintf(message, std::size(message), L"Code=0x%X", static_cast<unsigned>(code));
    WriteLine(source, line, function, std::wstring_view(message, static_cast<size_t>(length)));
}

void CVoErrorLogFile::Write(std::wstring_view line) noexcept
try
{
    const CVoLockHolder lock(m_writeLock);
    const CMutexHolder mutex(m_mutex.Get());
    if (m_logFilePath.empty())
        return;

    std::wstring withHeader;
    if (!m_headerWritten)
    {
        withHeader.append(m_runHeader).append(line);
        line = withHeader;
    }
    std::string bytes;
    HRESULT hr = VoCodePage::FromText(CP_UTF8, line, bytes);
    if (hr == HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION))
        hr = VoCodePage::FromText(CP_UTF8, VoWithoutLoneSurrogates(line), bytes);
    if (FAILED(hr))
        bytes = "NO DATA";

    const CVoHandle file = OpenLogFile(m_logFilePath, m_directory, m_parentDirectory);
    INT64 size = 0;
    if (!file || !Seek(file.Get(), 0, FILE_END, &size))
        return m_writeError.store(ErrorOrFailure(), std::memory_order_relaxed);
    const INT64 cutOffKiB = m_settings.cutOffSizeKiB;
    if (m_settings.cutOff && size > cutOffKiB * kBytesPerKiB)
    {
        const INT64 kept = std::min(cutOffKiB / 2, kMaxKeptKiB) * kBytesPerKiB;
        // The line goes behind whatever the file holds now, also after a cut that failed.
        (void)CutToNewest(file.Get(), size, kept);
        if (!Seek(file.Get(), 0, FILE_END))
            return m_writeError.store(ErrorOrFailure(), std::memory_order_relaxed);
    }
    if (!WriteAll(file.Get(), bytes.data(), bytes.size()))
        return m_writeError.store(ErrorOrFailure(), std::memory_order_relaxed);
    m_headerWritten = true;
    m_writeError.store(ERROR_SUCCESS, std::memory_order_relaxed);
}
catch (...)
{
    // The log never reports its own failures; the line is dropped.
    m_writeError.store(ERROR_NOT_ENOUGH_MEMORY, std::memory_order_relaxed);
}

CVoErrorLogFile& VoErrorLog() noexcept
{
    CProcessLogState& state = ProcessLogState();
    if (CVoErrorLogFile* const log = state.ready.load(std::memory_order_acquire))
        return *log;

    static CVoNeverDestroyed<CVoErrorLogFile> instance;
    CVoErrorLogFile& log = instance.Get();
    // Reports of the initialisation itself find the log switched off.
    if (state.initialisingThread.load(std::memory_order_relaxed) == ::GetCurrentThreadId())
        return log;
    const CVoLastErrorKeeper keeper;
    const CVoLockHolder lock(state.lock);
    if (!state.ready.load(std::memory_order_relaxed))
    {
        state.initialisingThread.store(::GetCurrentThreadId(), std::memory_order_relaxed);
        CVoModuleSettings settings;
        std::vector<std::wstring> remarks;
        try
        {
            settings = ReadProcessSettings(state, remarks);
        }
        catch (...)
        {
            // Out of memory: the defaults hold.
            settings = {};
        }
        log.Init(settings, std::move(remarks));
        log.m_isProcessLog = true;
        log.SetApplicationLog(log.IsApplicationLogOn());
        state.ready.store(&log, std::memory_order_release);
        state.initialisingThread.store(0, std::memory_order_relaxed);
    }
    return log;
}

namespace VoReportDetail
{
void ReportCode(const wchar_t* source, int line, const wchar_t* function, HRESULT code) noexcept
{
    const CVoLastErrorKeeper keeper;
    CVoReportScope::Add(source, line, function, code);
    // The first report of the process creates the log.
    if (!IsOff())
        VoErrorLog().WriteCode(source, line, function, code);
}

void ReportMessage(const wchar_t* source, int line, const wchar_t* format, ...) noexcept
{
    const CVoLastErrorKeeper keeper;
    if (!VoErrorLog().IsApplicationLogOn())
        return;
    va_list arguments;
    va_start(arguments, format);
    ReportFormatted(source, line, format, arguments);
    va_end(arguments);
}

void ReportMessage(const char* source, int line, const wchar_t* format, ...) noexcept
{
    const CVoLastErrorKeeper keeper;
    if (!VoErrorLog().IsApplicationLogOn())
        return;
    std::wstring wideSource;
    try
    {
        if (source && FAILED(VoCodePage::ToText(CP_ACP, source, wideSource)))
            wideSource = L"?";
    }
    catch (...)
    {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    ReportFormatted(source ? wideSource.c_str() : nullptr, line, format, arguments);
    va_end(arguments);
}
} // namespace VoReportDetail
