// Reads and replaces whole files (VoFile.h).
#include <win/VoFile.h>

#include <base/VoErrorHandler.h>
#include <base/VoHandle.h>
#include <base/VoText.h>

#include <atomic>
#include <vector>

namespace
{
constexpr const wchar_t* kFileSource = L"..\\..\\source\\win\\VoFile";

// The most that one call reads or writes. A network file system may refuse more.
constexpr DWORD kPieceSize = 16U << 20;
// How many names are tried for the temporary file: a dead process of the same id may have left some.
constexpr int kNameTries = 100;
// The attributes that the new file takes over. The others (compressed, encrypted) come from the folder.
constexpr DWORD kKeptAttributes =
    FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;

// The platform would cut such a name silently.
[[nodiscard]] bool IsPath(std::wstring_view path) noexcept
{
    return !path.empty() && path.find(L'\0') == std::wstring_view::npos;
}

// What a file has beside its content, as far as its replacement gets it.
struct SFileFacts
{
    DWORD attributes = FILE_ATTRIBUTE_NORMAL;
    std::vector<BYTE> security; // a self-relative descriptor; empty for what the folder gives
};

// The facts of a file. The file may be missing.
[[nodiscard]] HRESULT ReadFacts(const std::wstring& path, SFileFacts& facts)
{
    constexpr CVoReporter report{ kFileSource, L"CVoFileReplacement::Write" };
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
    {
        // The file will be created; a missing folder fails then.
        if (const DWORD error = ::GetLastError(); error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)
            return report.Win32(47, 48, error);
        return S_OK;
    }
    // The rename would fail as well, but only after all the writing.
    if (attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY))
        return report(53, HResultFromWin32(ERROR_ACCESS_DENIED));
    if (const DWORD kept = attributes & kKeptAttributes)
        facts.attributes = kept;

    // A file that only some may read must not become readable for others, not even while it is being written.
    DWORD size = 0;
    while (!::GetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, facts.security.data(),
                               static_cast<DWORD>(facts.security.size()), &size))
    {
        const DWORD error = ::GetLastError();
        if (error == ERROR_NOT_SUPPORTED || error == ERROR_INVALID_FUNCTION)
        {
            facts.security.clear(); // a file system without access rights
            return S_OK;
        }
        if (error != ERROR_INSUFFICIENT_BUFFER || size <= facts.security.size())
            return report.Win32(71, 72, error);
        facts.security.resize(size);
    }
    return S_OK;
}

[[nodiscard]] HRESULT WriteAll(HANDLE file, std::string_view bytes) noexcept
{
    constexpr CVoReporter report{ kFileSource, L"CVoFileReplacement::Write" };
    while (!bytes.empty())
    {
        const DWORD piece = bytes.size() < kPieceSize ? static_cast<DWORD>(bytes.size()) : kPieceSize;
        DWORD written = 0;
        if (!::WriteFile(file, bytes.data(), piece, &written, nullptr))
            return report.LastError(86, 87);
        if (written == 0 || written > piece)
            return report(89, HResultFromWin32(ERROR_WRITE_FAULT));
        bytes.remove_prefix(written);
    }
    return S_OK;
}

// Has the system delete a file when its last handle is closed, also by the end of the process; or takes that back.
[[nodiscard]] bool SetDeletedAtClose(HANDLE file, bool isDeleted) noexcept
{
    FILE_DISPOSITION_INFO info{ .DeleteFile = static_cast<BOOLEAN>(isDeleted) };
    return ::SetFileInformationByHandle(file, FileDispositionInfo, &info, sizeof info) != FALSE;
}
} // namespace

HRESULT VoReadFile(CVoTextView path, std::string& bytes) noexcept
{
    constexpr CVoReporter report{ kFileSource, L"VoReadFile" };
    const auto body = [&]() -> HRESULT
    {
        if (!IsPath(path))
            return report(103, HResultFromWin32(ERROR_INVALID_NAME));
        const CVoHandle file(::CreateFileW(std::wstring(path).c_str(), GENERIC_READ,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                           FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
        if (!file)
            return report.LastError(108, 109);
        LARGE_INTEGER size{};
        if (!::GetFileSizeEx(file.Get(), &size))
            return report.LastError(112, 113);
        if (static_cast<UINT64>(size.QuadPart) > kMaximumFileSize)
            return report(115, HResultFromWin32(ERROR_FILE_TOO_LARGE));

        // The size is only a hint: the file may grow meanwhile, and a pipe has no size.
        std::string read(static_cast<size_t>(size.QuadPart) + 1, '\0');
        size_t length = 0;
        for (;;)
        {
            if (length == read.size())
                read.resize(2 * read.size());
            const size_t room = read.size() - length;
            DWORD count = 0;
            if (!::ReadFile(file.Get(), read.data() + length, room < kPieceSize ? static_cast<DWORD>(room) : kPieceSize, &count,
                            nullptr))
            {
                // A pipe reports its end this way.
                if (::GetLastError() == ERROR_BROKEN_PIPE)
                    break;
                return report.LastError(134, 135);
            }
            if (count == 0)
                break;
            length += count;
            if (length > kMaximumFileSize)
                return report(140, HResultFromWin32(ERROR_FILE_TOO_LARGE));
        }
        read.resize(length);
        bytes = std::move(read);
        return S_OK;
    };
    return report.Guard(148, body);
}

std::wstring VoGetFullPath(CVoTextView path)
{
    if (!IsPath(path))
        throw CVoHResultException(HResultFromWin32(ERROR_INVALID_NAME));
    const std::wstring given(path);
    std::wstring full(MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD length = ::GetFullPathNameW(given.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
        if (length == 0)
            throw CVoHResultException(HResultFromLastError());
        const bool fits = length < full.size();
        full.resize(length);
        if (fits)
            return full;
    }
}

CVoFileReplacement::~CVoFileReplacement()
{
    const CVoLastErrorKeeper keeper;
    m_file.Reset();
    if (!m_temporaryPath.empty())
        ::DeleteFileW(m_temporaryPath.c_str());
}

// Makes the file beside the old one.
HRESULT CVoFileReplacement::Create(CVoTextView path)
{
    constexpr CVoReporter report{ kFileSource, L"CVoFileReplacement::Create" };
    if (!m_path.empty())
        return report(181, E_UNEXPECTED);
    if (!IsPath(path))
        return report(183, HResultFromWin32(ERROR_INVALID_NAME));
    m_path = VoGetFullPath(path);

    SFileFacts facts;
    if (const HRESULT hr = ReadFacts(m_path, facts); FAILED(hr))
        return report(190, hr);
    SECURITY_ATTRIBUTES security{ sizeof(SECURITY_ATTRIBUTES), facts.security.data(), FALSE };

    static std::atomic<unsigned> s_number{ 0 };
    for (int i = 0; !m_file; ++i)
    {
        std::wstring name = m_path + VoFormat(L".%lu-%u.tmp", ::GetCurrentProcessId(), ++s_number);
        m_file.Reset(::CreateFileW(name.c_str(), GENERIC_WRITE | DELETE, 0, facts.security.empty() ? nullptr : &security,
                                   CREATE_NEW, facts.attributes, nullptr));
        if (m_file)
            m_temporaryPath = std::move(name);
        else if (const DWORD error = ::GetLastError(); error != ERROR_FILE_EXISTS || i == kNameTries)
            return report.Win32(204, 205, error);
    }
    return S_OK;
}

// Brings the content to the disk and closes the file, also on failure.
HRESULT CVoFileReplacement::Finish() noexcept
{
    constexpr CVoReporter report{ kFileSource, L"CVoFileReplacement::Finish" };
    CVoHandle file = std::move(m_file);
    // Without it the rename may reach the disk before the content, and a power cut may leave an empty file.
    if (!::FlushFileBuffers(file.Get()))
        return report.LastError(93, 94);
    if (m_isDeletedAtClose && !SetDeletedAtClose(file.Get(), false))
        return report.LastError(207, 208);
    // Some file systems tell only now that a write has failed.
    if (!::CloseHandle(file.Detach()))
        return report.LastError(211, 212);
    m_isWritten = true;
    return S_OK;
}

HRESULT CVoFileReplacement::Write(CVoTextView path, CVoBytesView bytes) noexcept
{
    constexpr CVoReporter report{ kFileSource, L"CVoFileReplacement::Write" };
    const auto body = [&]() -> HRESULT
    {
        if (bytes.size() > kMaximumFileSize)
            return report(185, HResultFromWin32(ERROR_FILE_TOO_LARGE));
        HRESULT hr = Create(path);
        if (SUCCEEDED(hr))
            hr = WriteAll(m_file.Get(), bytes);
        if (SUCCEEDED(hr))
            hr = Finish();
        m_file.Reset();
        return SUCCEEDED(hr) ? hr : report(215, hr);
    };
    return report.Guard(217, body);
}

HRESULT CVoFileReplacement::Open(CVoTextView path) noexcept
{
    constexpr CVoReporter report{ kFileSource, L"CVoFileReplacement::Open" };
    return report.Guard(219, [&]() -> HRESULT
    {
        if (const HRESULT hr = Create(path); FAILED(hr))
            return report(218, hr);
        m_isDeletedAtClose = SetDeletedAtClose(m_file.Get(), true); // where that fails, the destructor deletes it
        return S_OK;
    });
}

HRESULT CVoFileReplacement::Append(CVoBytesView bytes) noexcept
{
    constexpr CVoReporter report{ kFileSource, L"CVoFileReplacement::Append" };
    if (!m_file)
        return report(220, E_UNEXPECTED);
    if (const HRESULT hr = WriteAll(m_file.Get(), bytes); FAILED(hr))
    {
        m_file.Reset(); // what is not whole must not be committed
        return report(221, hr);
    }
    return S_OK;
}

HRESULT CVoFileReplacement::Restart() noexcept
{
    constexpr CVoReporter report{ kFileSource, L"CVoFileReplacement::Restart" };
    if (!m_file)
        return report(230, E_UNEXPECTED);
    if (!::SetFilePointerEx(m_file.Get(), {}, nullptr, FILE_BEGIN) || !::SetEndOfFile(m_file.Get()))
        return report.LastError(232, 233);
    return S_OK;
}

HRESULT CVoFileReplacement::Commit() noexcept
{
    constexpr CVoReporter report{ kFileSource, L"CVoFileReplacement::Commit" };
    if (m_file)
        if (const HRESULT hr = Finish(); FAILED(hr))
            return report(222, hr);
    if (!m_isWritten)
        return report(223, E_UNEXPECTED);
    // One rename. The platform's ReplaceFile moves the old file away first: a crash in between would leave no file.
    if (!::MoveFileExW(m_temporaryPath.c_str(), m_path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        return report.LastError(226, 227);
    m_temporaryPath.clear();
    m_isWritten = false;
    return S_OK;
}
