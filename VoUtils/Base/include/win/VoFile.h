// Reads whole files, and replaces them in one step. INI files are read and saved with it.
#pragma once

#include <base/VoHandle.h>
#include <base/VoPlatform.h>
#include <base/VoText.h>

#include <string>
#include <string_view>

// The largest file that is read or replaced, in bytes: what one conversion of the platform takes.
inline constexpr size_t kMaximumFileSize = 0x7FFFFFFF;

// The whole content of a file; other programs may have it open, also for writing. ERROR_INVALID_NAME for an empty path or one
// with a zero in it, ERROR_FILE_TOO_LARGE above kMaximumFileSize, otherwise the platform's error, each as an HRESULT and
// reported. `bytes` is untouched on failure.
[[nodiscard]] HRESULT VoReadFile(CVoTextView path, std::string& bytes) noexcept;

// The path from the root, as the process's current directory has it now. Throws CVoHResultException (unreported) and
// std::bad_alloc.
[[nodiscard]] std::wstring VoGetFullPath(CVoTextView path);

// A new content for a file, written beside it and put in its place by one rename, so that whatever happens on the way (a full
// disk, a killed process, a power cut) leaves the old file or the new one, whole, under its name:
//
//     CVoFileReplacement replacement;
//     if (hr = replacement.Write(path, bytes); SUCCEEDED(hr))
//         hr = replacement.Commit();
//
// A content that comes in pieces takes Open and any number of Append in the place of Write.
//
// The new file gets the old one's attributes and access rights (its discretionary access-control list); where the file system
// has none, or there is no old file, those that the folder gives. What else hangs on a file stays behind with the old one: its
// owner, creation time, named streams, further hard links, and a symbolic link is replaced by a file. A read-only file is not
// replaced (ERROR_ACCESS_DENIED). A process that dies in between may leave a file NAME.PID-N.tmp behind, which nothing reads;
// after Open the system deletes it with the process, where the file system can do that.
//
// One object replaces one file; not for several threads at once, but any number of objects may work at the same time: of two
// that replace the same file, the last Commit stands.
class CVoFileReplacement
{
public:
    CVoFileReplacement() noexcept = default;
    // Deletes what was written and not committed.
    ~CVoFileReplacement();
    CVoFileReplacement(const CVoFileReplacement&) = delete;
    CVoFileReplacement& operator=(const CVoFileReplacement&) = delete;

    // Writes the content to a file beside the old one and flushes it to the disk. The codes of VoReadFile; E_UNEXPECTED for a
    // second call.
    [[nodiscard]] HRESULT Write(CVoTextView path, CVoBytesView bytes) noexcept;
    // Makes the file beside the old one, empty. The codes of Write.
    [[nodiscard]] HRESULT Open(CVoTextView path) noexcept;
    // Adds bytes to it; a content of any length. The platform's error, after which there is nothing to commit; E_UNEXPECTED
    // unless Open succeeded, after a failure, and after Commit.
    [[nodiscard]] HRESULT Append(CVoBytesView bytes) noexcept;
    // Empties it again. The codes of Append.
    [[nodiscard]] HRESULT Restart() noexcept;
    // Renames the new file over the old one, after Open with a flush to the disk. The platform's error; E_UNEXPECTED unless
    // Write or Open succeeded. After a failed rename it may be tried again: another program may have the file open without
    // sharing.
    [[nodiscard]] HRESULT Commit() noexcept;

private:
    [[nodiscard]] HRESULT Create(CVoTextView path);
    [[nodiscard]] HRESULT Finish() noexcept;

    std::wstring m_path;
    std::wstring m_temporaryPath; // empty while there is nothing to be deleted
    CVoHandle m_file;             // open from Create to Finish
    bool m_isDeletedAtClose = false;
    bool m_isWritten = false;
};
