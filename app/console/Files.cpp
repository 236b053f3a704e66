#include "Files.h"

#include "Streams.h"
#include "Text.h"

#include <base/VoHResult.h>
#include <base/VoUtils.h>

#include <atomic>

namespace
{
class CFileHandle
{
public:
    explicit CFileHandle(HANDLE handle) noexcept : m_handle(handle) {}
    ~CFileHandle()
    {
        const CVoLastErrorKeeper keeper;
        if (IsOpen())
            ::CloseHandle(m_handle);
    }
    CFileHandle(const CFileHandle&) = delete;
    CFileHandle& operator=(const CFileHandle&) = delete;

    [[nodiscard]] bool IsOpen() const noexcept { return m_handle != INVALID_HANDLE_VALUE; }
    [[nodiscard]] HANDLE Get() const noexcept { return m_handle; }

private:
    HANDLE m_handle;
};

// The platform would cut such a name off without a word.
void CheckPath(const std::wstring& path)
{
    if (path.empty() || path.find(L'\0') != std::wstring::npos)
        throw CVoHResultException(HResultFromWin32(ERROR_INVALID_NAME));
}

// Whether the name leads to something that renaming must not replace.
bool IsDevice(const std::wstring& path)
{
    const CFileHandle file(::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    return file.IsOpen() && ::GetFileType(file.Get()) != FILE_TYPE_DISK;
}

void WriteTo(const std::wstring& path, DWORD disposition, std::span<const BYTE> bytes)
{
    const CFileHandle file(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.IsOpen())
        throw CVoHResultException(HResultFromLastError());
    CHandleSink(file.Get()).Write(bytes);
}
} // namespace

std::vector<BYTE> ReadWholeFile(const std::wstring& path)
{
    CheckPath(path);
    const CFileHandle file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                         nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file.IsOpen())
        throw CVoHResultException(HResultFromLastError());
    CHandleSource source(file.Get());
    return ReadAll(source);
}

bool FileExists(const std::wstring& path)
{
    CheckPath(path);
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

COutputFile::COutputFile(std::wstring path, std::span<const BYTE> bytes) : m_path(std::move(path))
{
    CheckPath(m_path);
    if (IsDevice(m_path))
    {
        WriteTo(m_path, OPEN_EXISTING, bytes);
        return;
    }
    static std::atomic<unsigned> s_number{ 0 };
    std::wstring temporaryPath = m_path + VoFormat(L".%lu-%u.tmp", ::GetCurrentProcessId(), ++s_number);
    try
    {
        WriteTo(temporaryPath, CREATE_ALWAYS, bytes);
    }
    catch (...)
    {
        ::DeleteFileW(temporaryPath.c_str());
        throw;
    }
    m_temporaryPath = std::move(temporaryPath);
}

COutputFile::~COutputFile()
{
    if (!m_temporaryPath.empty())
        ::DeleteFileW(m_temporaryPath.c_str());
}

void COutputFile::Commit()
{
    if (m_temporaryPath.empty())
        return;
    if (!::MoveFileExW(m_temporaryPath.c_str(), m_path.c_str(), MOVEFILE_REPLACE_EXISTING))
        throw CVoHResultException(HResultFromLastError());
    m_temporaryPath.clear();
}

void WriteWholeFile(const std::wstring& path, std::span<const BYTE> bytes)
{
    COutputFile file(path, bytes);
    file.Commit();
}

void WriteWholeFile(const std::wstring& path, std::string_view text)
{
    WriteWholeFile(path, std::span<const BYTE>(reinterpret_cast<const BYTE*>(text.data()), text.size()));
}
