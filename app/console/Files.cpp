#include "Files.h"

#include "Streams.h"
#include "Text.h"

#include <base/VoHandle.h>

namespace
{
// Whether the name leads to something that renaming must not replace.
bool IsDevice(const std::wstring& path)
{
    const CVoHandle file(::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                       nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    return file && ::GetFileType(file.Get()) != FILE_TYPE_DISK;
}

void WriteToDevice(const std::wstring& path, std::span<const BYTE> bytes)
{
    const CVoHandle file(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        throw CVoHResultException(HResultFromLastError());
    CHandleSink(file.Get()).Write(bytes);
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

COutputFile::COutputFile(const std::wstring& path, std::span<const BYTE> bytes)
{
    const std::wstring fullPath = VoGetFullPath(path);
    if (IsDevice(fullPath))
    {
        WriteToDevice(fullPath, bytes);
        return;
    }
    m_replacement = std::make_unique<CVoFileReplacement>();
    Check(m_replacement->Write(fullPath, { reinterpret_cast<const char*>(bytes.data()), bytes.size() }));
}

void COutputFile::Commit()
{
    if (!m_replacement)
        return;
    Check(m_replacement->Commit());
    m_replacement.reset();
}

void CheckReplaceable(const std::wstring& path)
{
    // What is there must be a file (or a device) that may be written; beside it there must be room for its replacement.
    const CVoHandle file(::CreateFileW(VoGetFullPath(path).c_str(), GENERIC_WRITE,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file && ::GetLastError() != ERROR_FILE_NOT_FOUND)
        throw CVoHResultException(HResultFromLastError());
    if (!file || ::GetFileType(file.Get()) == FILE_TYPE_DISK)
        const COutputFile uncommitted(path, {});
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
