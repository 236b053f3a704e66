// INI files that are read, changed and written back without losing what people wrote into them.
//
// A file is lines. Behind white space at its front, a line is
//   [name]      the header of a section; the name ends at the first "]", loses white space at both ends, and what follows is
//               ignored
//   ; # text    a comment; a comment behind a value is part of the value
//   key=value   an entry of the section; the first "=" splits it, the key loses white space at both ends, the value in front
// and blank or anything else (a line without "=", an empty key, entries in front of the first header): no content, but kept.
// Lines end with CR LF, LF or CR, also mixed.
//
// Names of sections and keys are found without regard to case and keep their spelling. A section that stands several times is
// one section, at the place and with the spelling of its first header, and has all their entries in file order. A key that
// stands several times is listed as often; reading by name gives the first.
//
// The encoding is told by the byte-order mark (UTF-8, UTF-16 in either order); without one, well-formed UTF-8 is UTF-8 and
// everything else the system's ANSI code page. Bytes that mean nothing in the encoding read as replacement characters. Writing
// changes the lines that were changed; all other bytes stay as they were, whatever they are.
#pragma once

#include <base/VoPlatform.h>
#include <base/VoText.h>
#include <win/VoIniText.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class CVoIniContent;

// An INI file in memory. Until Save the file on disk is untouched. Not thread-safe, reading included (indexes are built when
// they are first needed): callers guard it.
//
// Functions that return an HRESULT report their failures and leave the object, and their outputs, untouched when they fail.
class CVoIniFileIO
{
public:
    CVoIniFileIO();
    // An object that was moved from can be assigned to and destroyed, nothing else.
    CVoIniFileIO(CVoIniFileIO&& other) noexcept;
    CVoIniFileIO& operator=(CVoIniFileIO&& other) noexcept;
    CVoIniFileIO(const CVoIniFileIO&) = delete;
    CVoIniFileIO& operator=(const CVoIniFileIO&) = delete;
    ~CVoIniFileIO();

    // Reads a file, which Save will write; a relative path is settled now. With `mayBeMissing` a file that does not exist reads
    // as an empty one and is made by the first Save that has something to write. The codes of VoReadFile.
    [[nodiscard]] HRESULT Open(CVoTextView path, bool mayBeMissing = false) noexcept;
    // Reads bytes in place of a file; the path stays what it was. ERROR_FILE_TOO_LARGE above kMaximumFileSize.
    [[nodiscard]] HRESULT Parse(CVoBytesView bytes) noexcept;
    // Writes the changes in one piece (see CVoFileReplacement) over whatever is on disk by now. S_FALSE when nothing was
    // changed: the file is not touched then. ERROR_INVALID_NAME without a path, the codes of GetBytes and CVoFileReplacement.
    [[nodiscard]] HRESULT Save() noexcept;
    // Writes everything, changed or not, to another path, which becomes the file's.
    [[nodiscard]] HRESULT SaveAs(CVoTextView path) noexcept;
    // The bytes that would be written. ERROR_NO_UNICODE_TRANSLATION for ANSI text that by chance would be read back as another
    // encoding.
    [[nodiscard]] HRESULT GetBytes(std::string& bytes) const noexcept;

    // Full path; empty before the first Open or SaveAs.
    [[nodiscard]] const std::wstring& Path() const noexcept { return m_path; }
    // The size of what was read, in bytes.
    [[nodiscard]] size_t Size() const noexcept;
    [[nodiscard]] bool IsModified() const noexcept { return m_isModified; }
    // UTF-8 without a mark for a file that is new.
    [[nodiscard]] EVoTextEncoding Encoding() const noexcept;
    // Writes the file in another encoding from now on. E_INVALIDARG for a value that is no EVoTextEncoding,
    // ERROR_NO_UNICODE_TRANSLATION when the encoding cannot hold all of the text.
    [[nodiscard]] HRESULT SetEncoding(EVoTextEncoding encoding) noexcept;

    // The names of all sections, in file order. They live until the file changes.
    [[nodiscard]] HRESULT GetSectionNames(std::vector<std::wstring_view>& names) const noexcept;
    [[nodiscard]] bool HasSection(CVoTextView section) const;
    // All entries of a section, in file order. ERROR_NOT_FOUND when there is no such section.
    [[nodiscard]] HRESULT GetSection(CVoTextView section, std::vector<CVoIniEntry>& entries) const noexcept;
    // The first value of that name, or nothing. It lives until the file changes. Throws std::bad_alloc.
    [[nodiscard]] std::optional<std::wstring_view> FindValue(CVoTextView section, CVoTextView key) const;

    // The functions below make the section (at the file's end) when there is none. E_INVALIDARG for a name or value that could
    // not be read back as it is: with a line end, white space where it would be lost, an empty name, a "]" in a section, a key
    // with "=" or one that would be taken for a comment or a header. ERROR_NO_UNICODE_TRANSLATION for text that the file's
    // encoding does not have (see SetEncoding).

    // Changes the first value of that name, or adds an entry at the section's end. A value that is the same changes nothing.
    [[nodiscard]] HRESULT SetValue(CVoTextView section, CVoTextView key, CVoTextView value) noexcept;
    // Adds an entry at the section's end, also when the section has the key already.
    [[nodiscard]] HRESULT AddValue(CVoTextView section, CVoTextView key, CVoTextView value) noexcept;

    // Removes all entries of that name. S_FALSE when there is none.
    [[nodiscard]] HRESULT RemoveValue(CVoTextView section, CVoTextView key) noexcept;
    // Removes all entries of a section; headers, comments and blank lines stay. S_FALSE when there is none.
    [[nodiscard]] HRESULT ClearSection(CVoTextView section) noexcept;
    // Removes a section. Lines behind its last entry stay: mostly they belong to the section that follows. S_FALSE when there
    // is no such section.
    [[nodiscard]] HRESULT RemoveSection(CVoTextView section) noexcept;

private:
    [[nodiscard]] HRESULT WriteTo(const std::wstring& path) noexcept;

    std::wstring m_path;
    std::unique_ptr<CVoIniContent> m_content; // never null, unless moved from
    bool m_isModified = false;
};
