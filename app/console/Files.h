// Reads and writes whole files.
#pragma once

#include <VoResponseSink.h>
#include <base/VoHandle.h>
#include <base/VoPlatform.h>
#include <win/VoFile.h>

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
class COutputFile final : public IVoResponseSink
{
public:
    explicit COutputFile(const std::wstring& path); // throws CVoHResultException

    [[nodiscard]] HRESULT Write(std::span<const BYTE> bytes) noexcept override;
    [[nodiscard]] HRESULT Restart() noexcept override;
    void Commit(); // throws CVoHResultException
    // Whether Write has failed.
    [[nodiscard]] bool HasFailed() const noexcept { return m_hasFailed; }

private:
    CVoHandle m_device; // null for a file
    CVoFileReplacement m_replacement;
    bool m_hasFailed = false;
};

// Checks whether a COutputFile of this name can be written and committed. Changes nothing. Throws CVoHResultException if not.
void CheckReplaceable(const std::wstring& path);

// COutputFile with its Commit.
void WriteWholeFile(const std::wstring& path, std::span<const BYTE> bytes);
void WriteWholeFile(const std::wstring& path, std::string_view text);
