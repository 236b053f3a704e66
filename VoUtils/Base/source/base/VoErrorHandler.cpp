#include <base/VoErrorHandler.h>

#include "VoLogSetup.h"
#include "VoModuleVersion.h"
#include "VoNeverDestroyed.h"
#include "VoTextConversion.h"

#include <base/VoHandle.h>
#include <base/VoUtils.h>

#include <algorithm>
#include <cstdarg>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>

// Whoever builds a release may name the branch; nothing else depends on it.
#ifndef VO_BUILD_BRANCH
#define VO_BUILD_BRANCH L"UNKNOWN"
#endif

#define VO_WIDEN_(text) L##text
#define VO_WIDEN(text) VO_WIDEN_(text)

namespace
{
constexpr const wchar_t* kSource = L"..\\..\\source\\base\\VoErrorHandler";

constexpr DWORD kMaxDirectory = 260;
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
        // A writer that died with the mutex left at worst a torn line; the file is ours all the same.
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

std::wstring CurrentDirectory()
{
    wchar_t buffer[kMaxDirectory + 1];
    const DWORD length = ::GetCurrentDirectoryW(static_cast<DWORD>(std::size(buffer)), buffer);
    return std::wstring(buffer, length < std::size(buffer) ? length : 0);
}

// Text with its environment variables replaced; as it stands where the result would be too long.
std::wstring ExpandEnvironment(const std::wstring& text)
{
    wchar_t buffer[kMaxDirectory + 1];
    const DWORD size = ::ExpandEnvironmentStringsW(text.c_str(), buffer, static_cast<DWORD>(std::size(buffer)));
    return size > 0 && size <= std::size(buffer) ? std::wstring(buffer) : text;
}

std::wstring FullPath(const std::wstring& path)
{
    std::wstring full(MAX_PATH, L'\0');
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        const DWORD length = ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
        const bool fits = length < full.size();
        full.resize(length);
        if (fits)
            return full;
    }
    return std::wstring();
}

// What the process's log is made from, and how far it is.
struct CProcessLogState
{
    CVoLock lock;
    std::wstring settingsDirectory; // empty: the folder of the module's file
    std::atomic<CVoErrorLogFile*> ready{ nullptr };
    std::atomic<DWORD> initialisingThread{ 0 };
};

CProcessLogState& ProcessLogState() noexcept
{
    static CVoNeverDestroyed<CProcessLogState> state;
    return state.Get();
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

HRESULT HResultFromCurrentException() noexcept
{
    try
    {
        throw;
    }
    catch (const CVoHResultException& e)
    {
        return e.Result();
    }
    catch (const std::bad_alloc&)
    {
        return E_OUTOFMEMORY;
    }
    catch (const std::length_error&)
    {
        return E_INVALIDARG;
    }
    catch (const std::out_of_range&)
    {
        return E_INVALIDARG;
    }
    catch (const std::invalid_argument&)
    {
        return E_INVALIDARG;
    }
    catch (...)
    {
        return E_FAIL;
    }
}

CVoModuleSettings VoReadModuleSettings(const std::wstring& directory)
{
    // The profile functions would look for a path that is not full in the Windows folder.
    const std::wstring file = FullPath(directory + L"\\ModuleSettings.ini");
    CVoModuleSettings s;
    s.applicationLog = VoGetIniBool(file, L"DEBUG", L"APPLOG", s.applicationLog);
    s.otherLog = VoGetIniBool(file, L"DEBUG", L"OTHERLOG", s.otherLog);
    s.cutOff = VoGetIniBool(file, L"DEBUG", L"APPLOGCUTOFF", s.cutOff);
    s.useTempDirectory = VoGetIniBool(file, L"DEBUG", L"UseTempDirectory", s.useTempDirectory);
    s.cutOffSizeKiB = VoLogSetup::ClampCutOffSize(VoGetIniInt(file, L"DEBUG", L"APPLOGCUTOFFSIZEINKBYTE", s.cutOffSizeKiB));
    s.directory = VoGetIniString(file, L"DEBUG", L"Directory", s.directory);
    s.versionString = VoGetIniString(file, L"DEBUG", L"VersionString", s.versionString);
    s.appendVersionToDirectory = VoGetIniBool(file, L"DEBUG", L"AppendSoftwareVersionToLogDir", s.appendVersionToDirectory);
    s.localizerGenerate = VoGetIniBool(file, L"OrvLocalizer", L"Generate", s.localizerGenerate);
    s.needWatchdog = VoGetIniBool(file, L"WatchDogSettings", L"NeedWatchDog", s.needWatchdog);
    s.httpEngine = VoLogSetup::ClampHTTPEngine(VoGetIniInt(file, L"SETTINGS", L"HTTPEngine", static_cast<INT32>(s.httpEngine)));
    s.checkServerCertificate = VoGetIniBool(file, L"SETTINGS", L"HTTPCheckServerCert", s.checkServerCertificate);
    s.checkCertificateRevocation =
        VoGetIniBool(file, L"SETTINGS", L"HTTPCheckServerCertRevocation", s.checkCertificateRevocation);
    return s;
}

HRESULT VoSetModuleSettingsDirectory(std::wstring_view directory) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoSetModuleSettingsDirectory" };
    try
    {
        CProcessLogState& state = ProcessLogState();
        std::unique_lock lock(state.lock);
        if (state.ready.load(std::memory_order_acquire))
        {
            lock.unlock();
            return report(264, HResultFromWin32(ERROR_ALREADY_INITIALIZED));
        }
        constexpr size_t kMaximumPath = 32767; // of the platform's paths, the ending zero counted
        if (directory.empty() || directory.size() >= kMaximumPath || directory.find(L'\0') != std::wstring_view::npos)
            return E_INVALIDARG;
        std::wstring full = FullPath(std::wstring(directory));
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

CVoErrorLogFile::~CVoErrorLogFile()
{
    if (m_mutex)
        ::CloseHandle(m_mutex);
}

void CVoErrorLogFile::ResolveNames()
{
    const HMODULE module = VoOwnModule();
    std::wstring moduleDirectory;
    std::wstring moduleFile;
    std::wstring processFile;
    // A name that cannot be read stays empty; the log has a fallback for each.
    (void)GetModuleDirAndFileName(module, &moduleDirectory, &moduleFile);
    (void)GetModuleDirAndFileName(nullptr, nullptr, &processFile);
    const std::wstring logName(
        VoLogSetup::LogName(VoLogSetup::FindApplicationName(::GetCommandLineW()), processFile, moduleFile));

    m_moduleName = VoLogSetup::BaseName(moduleFile);
    m_modulePart = L" Module=" + m_moduleName + L" File=";

    std::wstring temporary;
    if (m_settings.useTempDirectory)
        (void)VoGetTempPath(temporary);
    std::wstring directory =
        ExpandEnvironment(VoLogSetup::ChooseDirectory(m_settings, temporary, moduleDirectory, CurrentDirectory()));
    if (m_settings.appendVersionToDirectory && !m_settings.versionString.empty())
        directory += L'\\' + m_settings.versionString;
    m_logFilePath = directory + L'\\' + logName + L".log";
    m_mutex = ::CreateMutexW(nullptr, FALSE, (L"Mutex_ErrorLogFile_" + logName).c_str());

    VoLogSetup::CRunFacts facts;
    const CVoModuleVersion version = VoReadModuleVersion(module);
    facts.moduleName = m_moduleName;
    facts.processName = processFile;
    facts.processCreated = ProcessCreationTime();
    facts.buildDate = VO_WIDEN(__DATE__);
    facts.buildTime = VO_WIDEN(__TIME__);
    facts.version = version.version;
    facts.branch = VO_BUILD_BRANCH;
    m_runHeader = VoLogSetup::RunHeader(facts);
}

void CVoErrorLogFile::Init(const CVoModuleSettings& settings) noexcept
{
    if (m_initialised)
        return;
    m_initialised = true;
    const CVoLastErrorKeeper keeper;
    try
    {
        m_settings = settings;
        ResolveNames();
        m_applicationLog.store(settings.applicationLog, std::memory_order_relaxed);
        if (settings.applicationLog)
            WriteLine(kSource, 484, L"CVoErrorLogFile::Init",
                      VoFormat(L"Module: %ls,Logging started, logging switched on", m_moduleName.c_str()));
    }
    catch (...)
    {
        // Out of memory: the log stays as far as it came, and a path that is missing drops the lines.
        return;
    }
}

void CVoErrorLogFile::SetApplicationLog(bool on) noexcept
{
    const std::scoped_lock lock(m_switchLock);
    m_applicationLog.store(on, std::memory_order_relaxed);
    if (m_isProcessLog)
        VoReportDetail::g_logState.store(on ? VoReportDetail::ELogState::On : VoReportDetail::ELogState::Off,
                                         std::memory_order_relaxed);
}

void CVoErrorLogFile::WriteLine(const wchar_t* source, int line, const wchar_t* function, std::wstring_view message) noexcept
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
    const std::scoped_lock lock(m_writeLock);
    const CMutexHolder mutex(m_mutex);
    if (m_logFilePath.empty())
        return;

    std::wstring withHeader;
    if (!m_headerWritten)
    {
        withHeader.append(m_runHeader).append(line);
        line = withHeader;
    }
    std::string bytes;
    if (FAILED(VoTextConversion::ToCodePage(CP_UTF8, line, bytes)))
        bytes = "NO DATA";

    const CVoHandle file(::CreateFileW(m_logFilePath.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                       nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    INT64 size = 0;
    if (!file || !Seek(file.Get(), 0, FILE_END, &size))
        return;
    const INT64 cutOffKiB = m_settings.cutOffSizeKiB;
    if (m_settings.cutOff && size > cutOffKiB * kBytesPerKiB)
    {
        const INT64 kept = std::min(cutOffKiB / 2, kMaxKeptKiB) * kBytesPerKiB;
        // The line comes behind whatever the file holds now, also after a cut that failed.
        (void)CutToNewest(file.Get(), size, kept);
        if (!Seek(file.Get(), 0, FILE_END))
            return;
    }
    if (WriteAll(file.Get(), bytes.data(), bytes.size()))
        m_headerWritten = true;
}
catch (...)
{
    // The log never reports its own failures; the line is dropped.
    return;
}

CVoErrorLogFile& VoErrorLog() noexcept
{
    CProcessLogState& state = ProcessLogState();
    if (CVoErrorLogFile* const log = state.ready.load(std::memory_order_acquire))
        return *log;

    static CVoNeverDestroyed<CVoErrorLogFile> instance;
    CVoErrorLogFile& log = instance.Get();
    // What initialisation itself reports finds the log switched off.
    if (state.initialisingThread.load(std::memory_order_relaxed) == ::GetCurrentThreadId())
        return log;
    const CVoLastErrorKeeper keeper;
    const std::scoped_lock lock(state.lock);
    if (!state.ready.load(std::memory_order_relaxed))
    {
        state.initialisingThread.store(::GetCurrentThreadId(), std::memory_order_relaxed);
        CVoModuleSettings settings;
        try
        {
            if (state.settingsDirectory.empty())
                (void)GetModuleDirAndFileName(VoOwnModule(), &state.settingsDirectory, nullptr);
            settings = VoReadModuleSettings(state.settingsDirectory);
        }
        catch (...)
        {
            // Out of memory: the defaults hold.
            settings = {};
        }
        log.Init(settings);
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
    // Also the first report of the process, which makes the log.
    const CVoLastErrorKeeper keeper;
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
        if (source && FAILED(VoTextConversion::FromCodePage(CP_ACP, source, wideSource)))
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
