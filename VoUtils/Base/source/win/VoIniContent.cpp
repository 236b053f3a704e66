// The lines of an INI file (VoIniContent.h).
#include "VoIniContent.h"

#include "../base/utils/VoCodecKernels.h"
#include "VoIniEncoding.h"

#include <base/VoHResult.h>
#include <base/VoText.h>
#include <win/VoFile.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ranges>

using VoIniEncoding::Encode;
using VoIniEncoding::EncodingOfMark;
using VoIniEncoding::IsUtf16;
using VoIniEncoding::MarkOf;
using VoIniEncoding::SwapBytes;

namespace
{
[[noreturn]] void Throw(HRESULT result)
{
    throw CVoHResultException(result);
}

[[nodiscard]] bool IsBlank(std::wstring_view text) noexcept
{
    return VoIniTrimRight(text).empty();
}

template <class Character>
[[nodiscard]] bool IsLineEnd(Character c) noexcept
{
    return c == static_cast<Character>('\n') || c == static_cast<Character>('\r');
}

// The length of the line end that stands at `at`: 0 at the text's end.
template <class Character>
[[nodiscard]] size_t LineEndLength(const Character* text, size_t at, size_t size) noexcept
{
    if (at == size)
        return 0;
    const bool isPair =
        text[at] == static_cast<Character>('\r') && at + 1 < size && text[at + 1] == static_cast<Character>('\n');
    return isPair ? 2 : 1;
}

[[nodiscard]] std::wstring_view LineEndText(bool isCarriageReturn, size_t length) noexcept
{
    if (length == 2)
        return L"\r\n";
    return isCarriageReturn ? L"\r" : L"\n";
}

// The length of everything through the first "=" and the blanks behind it.
template <class Character>
[[nodiscard]] size_t ValuePrefix(std::basic_string_view<Character> line) noexcept
{
    size_t at = std::min(line.find(static_cast<Character>('=')), line.size());
    do
        ++at;
    while (at < line.size() && (line[at] == static_cast<Character>(' ') || line[at] == static_cast<Character>('\t')));
    return std::min(at, line.size());
}

// Makes room for one more element, so that adding it cannot fail.
template <class Element>
void ReserveOne(std::vector<Element>& elements)
{
    if (elements.size() == elements.capacity())
        elements.reserve(2 * elements.size() + 4);
}

} // namespace

CVoIniContent::CVoIniContent() : m_blocks(1) {}
CVoIniContent::~CVoIniContent() = default;

void CVoIniContent::Read(std::string bytes, std::optional<EVoTextEncoding> encoding)
{
    m_bytes = std::move(bytes);
    const std::string_view all = m_bytes;
    if (!encoding)
        encoding = EncodingOfMark(all);
    m_encoding = encoding.value_or(EVoTextEncoding::Utf8);
    m_mark = all.substr(0, MarkOf(m_encoding).size());
    const std::string_view content = all.substr(m_mark.size());
    if (IsUtf16(m_encoding))
    {
        ReadUnitLines(content);
        return;
    }
    // A mark or the caller decides the encoding. Otherwise one malformed line means that the file is not UTF-8.
    const EMalformed malformed = encoding ? EMalformed::Replaced : EMalformed::Refused;
    const UINT codePage = m_encoding == EVoTextEncoding::Ansi ? CP_ACP : CP_UTF8;
    if (!ReadByteLines(content, codePage, malformed))
    {
        Forget();
        m_encoding = EVoTextEncoding::Ansi;
        (void)ReadByteLines(content, CP_ACP, EMalformed::Replaced);
    }
}

void CVoIniContent::Forget() noexcept
{
    m_blocks.resize(1);
    m_blocks.front().lines.clear();
    m_sections.clear();
    m_sectionIndex.Clear();
    m_lineEnd = L"\r\n";
}

bool CVoIniContent::ReadByteLines(std::string_view bytes, UINT codePage, EMalformed malformed)
{
    // The last line may be widened beyond its end.
    m_text = std::make_unique_for_overwrite<wchar_t[]>(bytes.size() + 16);
    for (size_t begin = 0; begin < bytes.size();)
    {
        SLine line;
        bool isAscii = true;
        wchar_t* const text = m_text.get() + begin;
        const size_t length = VoCodecKernels::WidenLine(bytes.data() + begin, bytes.size() - begin, text, isAscii);
        line.text = text;
        line.textSize = static_cast<UINT32>(length);
        if (!isAscii && !DecodeLine(bytes.substr(begin, length), codePage, malformed, text, line))
            return false;
        const size_t end = begin + length;
        const size_t endLength = LineEndLength(bytes.data(), end, bytes.size());
        if (begin == 0 && endLength > 0)
            m_lineEnd = LineEndText(bytes[end] == '\r', endLength);
        line.isEnded = endLength > 0;
        line.raw = bytes.substr(begin, length + endLength);
        begin = end + endLength;
        TakeLine(std::move(line));
    }
    return true;
}

bool CVoIniContent::DecodeLine(std::string_view bytes, UINT codePage, EMalformed malformed, wchar_t* place, SLine& line)
{
    if (codePage == CP_UTF8)
        if (const std::optional<size_t> units = VoCodecKernels::WidenUtf8(bytes, place))
        {
            line.textSize = static_cast<UINT32>(*units);
            return true;
        }
    const DWORD flags = malformed == EMalformed::Refused ? MB_ERR_INVALID_CHARS : 0;
    const auto size = static_cast<int>(bytes.size());
    int length = ::MultiByteToWideChar(codePage, flags, bytes.data(), size, place, size);
    if (length > 0)
    {
        line.textSize = static_cast<UINT32>(length);
        return true;
    }
    if (const DWORD error = ::GetLastError(); error == ERROR_NO_UNICODE_TRANSLATION && malformed == EMalformed::Refused)
        return false;
    else if (error != ERROR_INSUFFICIENT_BUFFER)
        Throw(HResultFromWin32(error));
    // A code page with more units than bytes.
    line.owned = std::make_unique<SOwned>();
    length = ::MultiByteToWideChar(codePage, flags, bytes.data(), size, nullptr, 0);
    line.owned->text.resize(static_cast<size_t>(std::max(length, 0)));
    if (length <= 0 || ::MultiByteToWideChar(codePage, flags, bytes.data(), size, line.owned->text.data(), length) != length)
        Throw(HResultFromLastError());
    line.text = line.owned->text.data();
    line.textSize = static_cast<UINT32>(length);
    return true;
}

void CVoIniContent::ReadUnitLines(std::string_view bytes)
{
    const size_t count = bytes.size() / sizeof(wchar_t);
    m_rest = bytes.substr(count * sizeof(wchar_t));
    m_text = std::make_unique_for_overwrite<wchar_t[]>(count);
    std::memcpy(m_text.get(), bytes.data(), count * sizeof(wchar_t));
    if (m_encoding == EVoTextEncoding::Utf16BigEndian)
        std::transform(m_text.get(), m_text.get() + count, m_text.get(), SwapBytes);
    const wchar_t* const text = m_text.get();
    for (size_t begin = 0; begin < count;)
    {
        const auto* const found = std::find_if(text + begin, text + count, IsLineEnd<wchar_t>);
        const auto end = static_cast<size_t>(found - text);
        const size_t endLength = LineEndLength(text, end, count);
        if (begin == 0 && endLength > 0)
            m_lineEnd = LineEndText(text[end] == L'\r', endLength);
        SLine line;
        line.text = text + begin;
        line.textSize = static_cast<UINT32>(end - begin);
        line.isEnded = endLength > 0;
        line.raw = bytes.substr(begin * sizeof(wchar_t), (end + endLength - begin) * sizeof(wchar_t));
        begin = end + endLength;
        TakeLine(std::move(line));
    }
}

void CVoIniContent::TakeApart(SLine& line) noexcept
{
    const std::wstring_view text = line.Text();
    size_t begin = 0;
    while (begin < text.size() && VoIniIsSpace(text[begin]))
        ++begin;
    line.kind = EKind::Other;
    if (begin == text.size() || text[begin] == L';' || text[begin] == L'#')
        return;
    const bool isHeader = text[begin] == L'[';
    if (isHeader)
        ++begin;
    size_t end = begin;
    for (const wchar_t closing = isHeader ? L']' : L'='; end < text.size() && text[end] != closing;)
        ++end;
    if (end == text.size())
        return;
    size_t value = end + 1;
    while (isHeader && begin < end && VoIniIsSpace(text[begin]))
        ++begin;
    while (end > begin && VoIniIsSpace(text[end - 1]))
        --end;
    if (begin == end && !isHeader)
        return;
    while (value < text.size() && VoIniIsSpace(text[value]))
        ++value;
    line.kind = isHeader ? EKind::Header : EKind::Entry;
    line.keyBegin = static_cast<UINT32>(begin);
    line.keySize = static_cast<UINT32>(end - begin);
    line.valueBegin = static_cast<UINT32>(value);
}

void CVoIniContent::TakeLine(SLine&& line)
{
    TakeApart(line);
    if (line.kind != EKind::Header)
    {
        if (m_blocks.size() == 1)
            line.kind = EKind::Other; // an entry in front of the first header can be read under no name
        m_blocks.back().lines.push_back(std::move(line));
        return;
    }
    const std::wstring_view name = line.Key();
    UINT32 section = FindSection(name);
    if (section == CVoNameIndex::kNone)
    {
        section = static_cast<UINT32>(m_sections.size());
        m_sections.emplace_back();
        m_sectionIndex.Add(CVoNameIndex::Hash(name), section);
    }
    m_sections[section].blocks.push_back(static_cast<UINT32>(m_blocks.size()));
    m_blocks.emplace_back().header = std::move(line);
}

std::string CVoIniContent::Render() const
{
    std::string bytes;
    size_t size = m_bytes.size();
    for (const SBlock& block : m_blocks)
        for (const SLine& line : block.lines)
            size += line.owned ? line.raw.size() : 0;
    bytes.reserve(size);
    bytes += m_mark;
    AppendLines(bytes, m_encoding, [&](const SLine& line) { bytes += line.raw; });
    bytes += m_rest;
    return bytes;
}

template <class Append>
void CVoIniContent::AppendLines(std::string& bytes, EVoTextEncoding encoding, Append append) const
{
    const std::string lineEnd = Encode(m_lineEnd, encoding);
    bool isEnded = true;
    const auto next = [&](const SLine& line)
    {
        if (line.raw.empty())
            return; // a header that was removed
        if (!isEnded)
            bytes += lineEnd;
        append(line);
        isEnded = line.isEnded;
    };
    for (const SBlock& block : m_blocks)
    {
        next(block.header);
        std::for_each(block.lines.begin(), block.lines.end(), next);
    }
}

std::string CVoIniContent::RenderAs(EVoTextEncoding encoding) const
{
    if (!m_rest.empty())
        Throw(HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
    std::string bytes(MarkOf(encoding));
    AppendLines(bytes, encoding, [&](const SLine& line)
    {
        std::wstring text(line.Text());
        text += LineEndOf(line);
        // Malformed bytes were read as replacement characters, which must not be written in their place.
        if (Encode(text, m_encoding) != line.raw)
            Throw(HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
        bytes += Encode(text, encoding);
    });
    return bytes;
}

std::vector<std::wstring_view> CVoIniContent::SectionNames() const
{
    std::vector<std::wstring_view> names;
    names.reserve(m_sections.size());
    for (const SSection& section : m_sections)
        if (!section.blocks.empty())
            names.push_back(NameOf(section));
    return names;
}

std::wstring_view CVoIniContent::NameOf(const SSection& section) const noexcept
{
    return m_blocks[section.blocks.front()].header.Key();
}

UINT32 CVoIniContent::FindSection(std::wstring_view name) const
{
    return m_sectionIndex.Find(CVoNameIndex::Hash(name), [&](UINT32 ordinal)
    {
        const SSection& section = m_sections[ordinal];
        return !section.blocks.empty() && VoEqualsNoCase(NameOf(section), name);
    });
}

void CVoIniContent::GetEntries(UINT32 section, std::vector<CVoIniEntry>& entries) const
{
    size_t count = 0;
    for (const UINT32 block : m_sections[section].blocks)
        count += m_blocks[block].lines.size();
    entries.reserve(count);

    // Nothing below can fail.
    entries.clear();
    for (const UINT32 block : m_sections[section].blocks)
        for (const SLine& line : m_blocks[block].lines)
            if (line.kind == EKind::Entry)
                entries.push_back({ line.Key(), line.Value() });
}

std::optional<std::wstring_view> CVoIniContent::FindValue(UINT32 section, std::wstring_view key)
{
    SSection& found = m_sections[section];
    const UINT32 entry = FindEntry(found, key);
    if (entry == CVoNameIndex::kNone)
        return std::nullopt;
    return LineAt(found.entries[entry]).Value();
}

void CVoIniContent::Index(SSection& section)
{
    if (section.isIndexed)
        return;
    std::vector<SPlace> entries;
    CVoNameIndex index;
    for (const UINT32 block : section.blocks)
    {
        const std::vector<SLine>& lines = m_blocks[block].lines;
        for (size_t i = 0; i < lines.size(); ++i)
            if (lines[i].kind == EKind::Entry)
                entries.push_back({ block, static_cast<UINT32>(i) });
    }
    index.Reserve(entries.size());
    for (size_t i = 0; i < entries.size(); ++i)
    {
        const std::wstring_view key = LineAt(entries[i]).Key();
        const UINT32 hash = CVoNameIndex::Hash(key);
        const auto isSame = [&](UINT32 ordinal) { return VoEqualsNoCase(LineAt(entries[ordinal]).Key(), key); };
        if (index.Find(hash, isSame) == CVoNameIndex::kNone)
            index.Add(hash, static_cast<UINT32>(i));
    }
    section.entries = std::move(entries);
    section.index = std::move(index);
    section.isIndexed = true;
}

UINT32 CVoIniContent::FindEntry(SSection& section, std::wstring_view key)
{
    Index(section);
    return section.index.Find(CVoNameIndex::Hash(key),
                              [&](UINT32 ordinal) { return VoEqualsNoCase(LineAt(section.entries[ordinal]).Key(), key); });
}

CVoIniContent::SLine CVoIniContent::MakeLine(std::wstring text, std::string raw)
{
    if (std::any_of(text.begin(), text.end(), IsLineEnd<wchar_t>) || text.size() > kMaximumFileSize)
        Throw(E_INVALIDARG);
    SLine line;
    line.owned = std::make_unique<SOwned>(SOwned{ std::move(raw), std::move(text) });
    line.raw = line.owned->raw;
    line.text = line.owned->text.data();
    line.textSize = static_cast<UINT32>(line.owned->text.size());
    line.isEnded = true;
    TakeApart(line);
    return line;
}

CVoIniContent::SLine CVoIniContent::MakeEntry(std::wstring_view key, std::wstring_view value) const
{
    std::wstring text(key);
    text += L'=';
    text += value;
    std::string raw = Encode(text, m_encoding) + Encode(m_lineEnd, m_encoding);
    SLine line = MakeLine(std::move(text), std::move(raw));
    // Reading the line back checks all rules for names and values at once.
    if (line.kind != EKind::Entry || line.Key() != key || line.Value() != value)
        Throw(E_INVALIDARG);
    return line;
}

CVoIniContent::SLine CVoIniContent::WithValue(const SLine& line, std::wstring_view value) const
{
    const std::wstring_view oldText = line.Text();
    const std::wstring_view lineEnd = LineEndOf(line);
    const size_t textPrefix = ValuePrefix(oldText);
    const size_t rawPrefix = IsUtf16(m_encoding) ? textPrefix * sizeof(wchar_t) : ValuePrefix(line.raw);
    std::wstring text(oldText.substr(0, textPrefix));
    text += value;
    std::string raw(line.raw.substr(0, rawPrefix));
    raw += Encode(value, m_encoding);
    raw += Encode(lineEnd, m_encoding);
    SLine changed = MakeLine(std::move(text), std::move(raw));
    changed.isEnded = line.isEnded;
    if (changed.kind != EKind::Entry || changed.Value() != value)
        Throw(E_INVALIDARG);
    return changed;
}

std::wstring_view CVoIniContent::LineEndOf(const SLine& line) const noexcept
{
    if (!line.isEnded)
        return {};
    const size_t unit = IsUtf16(m_encoding) ? sizeof(wchar_t) : 1;
    const auto at = [&](size_t fromEnd)
    {
        const size_t begin = line.raw.size() - fromEnd * unit;
        return unit == 1 || m_encoding == EVoTextEncoding::Utf16LittleEndian ? line.raw[begin] : line.raw[begin + 1];
    };
    const bool isCarriageReturn = at(1) == '\r';
    // In UTF-16 one byte of the unit in front may look like a carriage return.
    const bool isPair = !isCarriageReturn && line.raw.size() >= 2 * unit && at(2) == '\r' &&
                        (unit == 1 || line.raw.size() == (line.textSize + 2) * unit);
    return LineEndText(isCarriageReturn, isPair ? 2 : 1);
}

const CVoIniContent::SLine* CVoIniContent::LastLine() const noexcept
{
    for (const SBlock& block : std::views::reverse(m_blocks))
    {
        if (!block.lines.empty())
            return &block.lines.back();
        if (!block.header.raw.empty())
            return &block.header;
    }
    return nullptr;
}

bool CVoIniContent::SetValue(std::wstring_view section, std::wstring_view key, std::wstring_view value)
{
    if (const UINT32 found = FindSection(section); found != CVoNameIndex::kNone)
    {
        SSection& target = m_sections[found];
        if (const UINT32 entry = FindEntry(target, key); entry != CVoNameIndex::kNone)
        {
            SLine& line = LineAt(target.entries[entry]);
            if (line.Value() == value)
                return false;
            line = WithValue(line, value);
            return true;
        }
    }
    AddValue(section, key, value);
    return true;
}

void CVoIniContent::AddValue(std::wstring_view section, std::wstring_view key, std::wstring_view value)
{
    SLine entry = MakeEntry(key, value);
    if (const UINT32 found = FindSection(section); found != CVoNameIndex::kNone)
        AppendEntry(m_sections[found], std::move(entry));
    else
        AppendSection(section, std::move(entry));
}

void CVoIniContent::AppendEntry(SSection& section, SLine line)
{
    Index(section);
    const UINT32 block = section.blocks.back();
    std::vector<SLine>& lines = m_blocks[block].lines;
    size_t at = 0;
    if (!section.entries.empty() && section.entries.back().block == block)
        at = section.entries.back().line + size_t{ 1 };
    else
        while (at < lines.size() && !IsBlank(lines[at].Text()))
            ++at;
    const bool isFirst = FindEntry(section, line.Key()) == CVoNameIndex::kNone;
    const UINT32 hash = CVoNameIndex::Hash(line.Key());
    ReserveOne(lines);
    ReserveOne(section.entries);
    section.index.Reserve(section.entries.size() + 1);

    // Nothing below can fail.
    if (isFirst)
        section.index.Add(hash, static_cast<UINT32>(section.entries.size()));
    section.entries.push_back({ block, static_cast<UINT32>(at) });
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(at), std::move(line));
}

void CVoIniContent::AppendSection(std::wstring_view name, SLine entry)
{
    std::wstring text = L"[";
    text += name;
    text += L']';
    std::string raw = Encode(text, m_encoding) + Encode(m_lineEnd, m_encoding);
    SBlock block;
    block.header = MakeLine(std::move(text), std::move(raw));
    if (block.header.kind != EKind::Header || block.header.Key() != name || name.empty())
        Throw(E_INVALIDARG);
    block.lines.push_back(std::move(entry));

    std::optional<SLine> blank;
    if (const SLine* const last = LastLine(); last && !IsBlank(last->Text()))
    {
        blank = MakeLine({}, Encode(m_lineEnd, m_encoding));
        ReserveOne(m_blocks.back().lines);
    }
    SSection section;
    section.blocks.push_back(static_cast<UINT32>(m_blocks.size()));
    const UINT32 hash = CVoNameIndex::Hash(name);
    ReserveOne(m_sections);
    m_sectionIndex.Reserve(m_sections.size() + 1);
    ReserveOne(m_blocks);

    // Nothing below can fail.
    if (blank)
        m_blocks.back().lines.push_back(std::move(*blank));
    m_blocks.push_back(std::move(block));
    m_sectionIndex.Add(hash, static_cast<UINT32>(m_sections.size()));
    m_sections.push_back(std::move(section));
}

template <class IsRemoved>
bool CVoIniContent::RemoveEntries(SSection& section, IsRemoved isRemoved)
{
    size_t count = 0;
    for (const UINT32 block : section.blocks)
        count += std::erase_if(m_blocks[block].lines,
                               [&](const SLine& line) { return line.kind == EKind::Entry && isRemoved(line); });
    if (count > 0)
    {
        section.isIndexed = false;
        section.entries.clear();
        section.index.Clear();
    }
    return count > 0;
}

bool CVoIniContent::RemoveValue(UINT32 section, std::wstring_view key)
{
    // The key may be a view of a line that is removed.
    const std::wstring removed(key);
    return RemoveEntries(m_sections[section], [&](const SLine& line) { return VoEqualsNoCase(line.Key(), removed); });
}

bool CVoIniContent::ClearSection(UINT32 section)
{
    return RemoveEntries(m_sections[section], [](const SLine&) { return true; });
}

void CVoIniContent::RemoveSection(UINT32 section) noexcept
{
    SSection& removed = m_sections[section];
    for (const UINT32 number : removed.blocks)
    {
        SBlock& block = m_blocks[number];
        block.header = SLine();
        const auto lastEntry =
            std::find_if(block.lines.rbegin(), block.lines.rend(), [](const SLine& line) { return line.kind == EKind::Entry; });
        block.lines.erase(block.lines.begin(), lastEntry.base());
    }
    removed = SSection();
}
