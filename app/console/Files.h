// Whole files in and out.
#pragma once

#include <base/VoPlatform.h>
#include <win/VoFile.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The file's bytes. Throws CVoHResultException.
[[nodiscard]] std::vector<BYTE> ReadWholeFile(const std::wstring& path);
// Whether something of that name exists.
[[nodiscard]] bool FileExists(const std::wstring& path);

// A new content for a file, see CVoFileReplacement: a failure on the way leaves the old content as it was and no half-written
// file behind. What is no disk file (a device, a pipe) is written directly.
class COutputFile
{
public:
    COutputFile(const std::wstring& path, std::span<const BYTE> bytes); // throws CVoHResultException

    void Commit(); // throws CVoHResultException

private:
    std::unique_ptr<CVoFileReplacement> m_replacement; // null when there is nothing to be put in place
};

// Finds out whether a COutputFile of this name can be made and committed, and leaves everything as it is. Throws
// CVoHResultException.
void CheckReplaceable(const std::wstring& path);

// COutputFile with its Commit.
void WriteWholeFile(const std::wstring& path, std::span<const BYTE> bytes);
void WriteWholeFile(const std::wstring& path, std::string_view text);
