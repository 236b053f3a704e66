// Whole files in and out.
#pragma once

#include <base/VoPlatform.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

// The file's bytes. Throws CVoHResultException.
[[nodiscard]] std::vector<BYTE> ReadWholeFile(const std::wstring& path);
// Whether something of that name exists.
[[nodiscard]] bool FileExists(const std::wstring& path);

// A new content for a file: it is written beside the file and takes its place with Commit, so that a failure on the way leaves
// the old content as it was and no half-written file behind. What is no disk file (a device, a pipe) is written directly.
class COutputFile
{
public:
    COutputFile(std::wstring path, std::span<const BYTE> bytes); // throws CVoHResultException
    ~COutputFile();
    COutputFile(const COutputFile&) = delete;
    COutputFile& operator=(const COutputFile&) = delete;

    void Commit(); // throws CVoHResultException

private:
    std::wstring m_path;
    std::wstring m_temporaryPath; // empty when there is nothing to be renamed
};

// COutputFile with its Commit.
void WriteWholeFile(const std::wstring& path, std::span<const BYTE> bytes);
void WriteWholeFile(const std::wstring& path, std::string_view text);
