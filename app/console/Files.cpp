// Reads and writes whole files.
#include "Files.h"

#include "Interrupt.h"
#include "Streams.h"
#include "Text.h"

#include <base/VoText.h>

namespace
{
CVoHandle OpenExisting(const std::wstring& path, DWORD access)
{
    return CVoHandle(::CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

// Whether it is a device or a pipe, which a rename must not replace.
bool IsDevice(const CVoHandle& file)
{
    return file && ::GetFileType(file.Get()) != FILE_TYPE_DISK;
}
} // namespace

std::vector<BYTE> ReadWholeFile(const std::wstring& path)
{
    const CVoHandle file(::CreateFileW(VoGetFullPath(path).c_str(), GENERIC_READ,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file)
        throw CVoHResultException(HResultFromLastError());
    CHandleSource source(file.Get());
    return ReadAll(source);
}

bool FileExists(const std::wstring& path)
{
    return ::GetFileAttributesW(VoGetFullPath(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

COutputFile::COutputFile(const std::wstring& path)
{
    const std::wstring fullPath = VoGetFullPath(path);
    // Open a pipe only once: for its reader, the first close is the end of the data.
    m_device = OpenExisting(fullPath, GENERIC_WRITE);
    if (IsDevice(m_device))
        return;
    m_device.Reset();
    Check(m_replacement.Open(fullPath));
}

HRESULT COutputFile::Write(std::span<const BYTE> bytes) noexcept
try
{
    if (m_device)
        CHandleSink(m_device.Get()).Write(bytes);
    else
        Check(m_replacement.Append({ reinterpret_cast<const char*>(bytes.data()), bytes.size() }));
    return S_OK;
}
catch (const CVoHResultException& failure)
{
    m_hasFailed = true;
    return failure.Result();
}

HRESULT COutputFile::Restart() noexcept
{
    return m_device ? E_NOTIMPL : m_replacement.Restart();
}

void COutputFile::Commit()
{
    if (m_device)
        return;
    const CInterruptDelay delay;
    Check(m_replacement.Commit());
}

void CheckReplaceable(const std::wstring& path)
{
    const std::wstring fullPath = VoGetFullPath(path);
    // Open it without access, so that the reader of a pipe does not notice.
    if (IsDevice(OpenExisting(fullPath, 0)))
        return;
    // An existing file must be writable, and its folder must accept a replacement.
    if (const CVoHandle file = OpenExisting(fullPath, GENERIC_WRITE); !file)
    {
        const DWORD error = ::GetLastError();
        if (error != ERROR_FILE_NOT_FOUND && error != ERROR_SHARING_VIOLATION)
            throw CVoHResultException(HResultFromWin32(error));
    }
    const COutputFile uncommitted(path);
}

void WriteWholeFile(const std::wstring& path, std::span<const BYTE> bytes)
{
    const CInterruptDelay delay;
    COutputFile file(path);
    Check(file.Write(bytes));
    file.Commit();
}

void WriteWholeFile(const std::wstring& path, std::string_view text)
{
    WriteWholeFile(path, VoBytesOf(text));
}
