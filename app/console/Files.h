// Reads and writes whole files.
#pragma once

#include "Interrupt.h"

#include <base/VoPlatform.h>
#include <win/VoFile.h>

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Returns the bytes of a file. Throws CVoHResultException.
[[nodiscard]] std::vector<BYTE> ReadWholeFile(const std::wstring& path);
// Whether a file or folder of that name exists.
[[nodiscard]] bool FileExists(const std::wstring& path);

// New content for a file, see CVoFileReplacement: a failure leaves the old content unchanged and no half-written file, also
// with Ctrl+C. Devices and pipes are written directly.
class COutputFile
{
public:
    COutputFile(const std::wstring& path, std::span<const BYTE> bytes); // throws CVoHResultException

    void Commit(); // throws CVoHResultException

private:
    std::optional<CInterruptDelay> m_delay;            // ends last: what is not committed has been deleted then
    std::unique_ptr<CVoFileReplacement> m_replacement; // null for a device, or after Commit
};

// Checks whether a COutputFile of this name can be written and committed. Changes nothing. Throws CVoHResultException if not.
void CheckReplaceable(const std::wstring& path);

// COutputFile with its Commit.
void WriteWholeFile(const std::wstring& path, std::span<const BYTE> bytes);
void WriteWholeFile(const std::wstring& path, std::string_view text);
