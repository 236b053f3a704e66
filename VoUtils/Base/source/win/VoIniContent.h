// The lines of an INI file: what CVoIniFileIO keeps in memory. The file's bytes stay as they are; lines are views of them, and
// a line that changes gets bytes of its own.
//
// Functions throw CVoHResultException or std::bad_alloc and then have changed nothing. What is read and what names may look
// like is described in VoUtilFileIO.h.
#pragma once

#include "VoNameIndex.h"

#include <win/VoIniText.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class CVoIniContent
{
public:
    CVoIniContent();
    CVoIniContent(const CVoIniContent&) = delete;
    CVoIniContent& operator=(const CVoIniContent&) = delete;
    ~CVoIniContent();

    // Takes over a file's bytes. For a new object, once. Nothing stands for the encoding that the bytes tell.
    void Read(std::string bytes, std::optional<EVoTextEncoding> encoding = std::nullopt);
    [[nodiscard]] std::string Render() const;
    // The bytes of the same text in another encoding.
    [[nodiscard]] std::string RenderAs(EVoTextEncoding encoding) const;
    [[nodiscard]] EVoTextEncoding Encoding() const noexcept { return m_encoding; }
    [[nodiscard]] size_t Size() const noexcept { return m_bytes.size(); }

    [[nodiscard]] std::vector<std::wstring_view> SectionNames() const;
    // CVoNameIndex::kNone when there is none.
    [[nodiscard]] UINT32 FindSection(std::wstring_view name) const;
    // Replaces `entries`, whose room is used again.
    void GetEntries(UINT32 section, std::vector<CVoIniEntry>& entries) const;
    [[nodiscard]] std::optional<std::wstring_view> FindValue(UINT32 section, std::wstring_view key);

    // These tell whether anything was changed.
    bool SetValue(std::wstring_view section, std::wstring_view key, std::wstring_view value);
    void AddValue(std::wstring_view section, std::wstring_view key, std::wstring_view value);
    bool RemoveValue(UINT32 section, std::wstring_view key);
    bool ClearSection(UINT32 section);
    void RemoveSection(UINT32 section) noexcept;

private:
    enum class EKind : UINT8
    {
        Other, // blank, a comment, or nothing that is known
        Header,
        Entry
    };
    // Bytes and text of a line that did not come from the file, or had no room where the file's text is.
    struct SOwned
    {
        std::string raw;
        std::wstring text;
    };
    struct SLine
    {
        std::string_view raw;          // with its line end
        const wchar_t* text = nullptr; // without
        UINT32 textSize = 0;
        UINT32 keyBegin = 0; // of an entry's key or a header's name
        UINT32 keySize = 0;
        UINT32 valueBegin = 0;
        EKind kind = EKind::Other;
        bool isEnded = false; // has a line end; the last line may have none
        std::unique_ptr<SOwned> owned;

        [[nodiscard]] std::wstring_view Text() const noexcept { return { text, textSize }; }
        [[nodiscard]] std::wstring_view Key() const noexcept { return { text + keyBegin, keySize }; }
        [[nodiscard]] std::wstring_view Value() const noexcept { return { text + valueBegin, textSize - valueBegin }; }
    };
    // A header and the lines up to the next.
    struct SBlock
    {
        SLine header; // without bytes for what stands in front of the first header, and where a section was removed
        std::vector<SLine> lines;
    };
    struct SPlace
    {
        UINT32 block;
        UINT32 line;
    };
    struct SSection
    {
        std::vector<UINT32> blocks; // empty for a section that was removed
        // Both are made when a value is first looked up, and again after entries were removed.
        std::vector<SPlace> entries; // in file order
        CVoNameIndex index;          // of `entries`
        bool isIndexed = false;
    };

    // How the bytes of a line could be read.
    enum class EMalformed : UINT8
    {
        Refused,
        Replaced
    };
    [[nodiscard]] bool ReadByteLines(std::string_view bytes, UINT codePage, EMalformed malformed);
    void ReadUnitLines(std::string_view bytes);
    [[nodiscard]] static bool DecodeLine(std::string_view bytes, UINT codePage, EMalformed malformed, wchar_t* place,
                                         SLine& line);
    void TakeLine(SLine&& line);
    // Calls `append` for each line that there is, and appends a line end where a line without one stands before another.
    template <class Append>
    void AppendLines(std::string& bytes, EVoTextEncoding encoding, Append append) const;
    void Forget() noexcept;

    static void TakeApart(SLine& line) noexcept;
    [[nodiscard]] static SLine MakeLine(std::wstring text, std::string raw);
    [[nodiscard]] SLine MakeEntry(std::wstring_view key, std::wstring_view value) const;
    [[nodiscard]] SLine WithValue(const SLine& line, std::wstring_view value) const;
    [[nodiscard]] std::wstring_view LineEndOf(const SLine& line) const noexcept;
    [[nodiscard]] const SLine* LastLine() const noexcept;

    [[nodiscard]] std::wstring_view NameOf(const SSection& section) const noexcept;
    [[nodiscard]] SLine& LineAt(const SPlace& place) noexcept { return m_blocks[place.block].lines[place.line]; }
    void Index(SSection& section);
    [[nodiscard]] UINT32 FindEntry(SSection& section, std::wstring_view key);
    void AppendEntry(SSection& section, SLine line);
    void AppendSection(std::wstring_view name, SLine entry);
    template <class IsRemoved>
    bool RemoveEntries(SSection& section, IsRemoved isRemoved);

    std::string m_bytes;               // the file's, which lines are views of
    std::unique_ptr<wchar_t[]> m_text; // theirs; each line's stands at its place in the file
    std::string_view m_mark;           // the byte-order mark
    std::string_view m_rest;           // half a unit at the end of a UTF-16 file
    std::wstring_view m_lineEnd = L"\r\n";
    EVoTextEncoding m_encoding = EVoTextEncoding::Utf8;
    std::vector<SBlock> m_blocks; // the first is what stands in front of the first header
    std::vector<SSection> m_sections;
    CVoNameIndex m_sectionIndex;
};
