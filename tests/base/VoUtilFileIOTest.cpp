#include <win/VoFile.h>
#include <win/VoUtilFileIO.h>

#include <base/VoUtils.h>

#include "support/GuardPage.h"
#include "support/ImportHook.h"
#include "support/LogCapture.h"
#include "support/TestMain.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace TestSupport;

namespace
{
// A section as a reader sees it, in copies.
using CEntries = std::vector<std::pair<std::wstring, std::wstring>>;
using CSections = std::vector<std::pair<std::wstring, CEntries>>;

CSections Listing(const CVoIniFileIO& file)
{
    CSections sections;
    std::vector<std::wstring_view> names;
    EXPECT_EQ(file.GetSectionNames(names), S_OK);
    for (const std::wstring_view name : names)
    {
        std::vector<CVoIniEntry> entries;
        EXPECT_EQ(file.GetSection(name, entries), S_OK);
        CEntries copies;
        for (const CVoIniEntry& entry : entries)
            copies.emplace_back(entry.key, entry.value);
        sections.emplace_back(name, std::move(copies));
    }
    return sections;
}

CVoIniFileIO Parsed(std::string_view bytes)
{
    CVoIniFileIO file;
    EXPECT_EQ(file.Parse(bytes), S_OK);
    return file;
}

std::string BytesOf(const CVoIniFileIO& file)
{
    std::string bytes;
    EXPECT_EQ(file.GetBytes(bytes), S_OK);
    return bytes;
}

std::string ReadBytes(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return { std::istreambuf_iterator<char>(file), {} };
}

void WriteBytes(const std::filesystem::path& path, std::string_view bytes)
{
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// With calls that no test of this file makes fail.
std::vector<std::wstring> NamesIn(const std::filesystem::path& folder)
{
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found{};
    const HANDLE search = ::FindFirstFileW((folder / L"*").c_str(), &found);
    EXPECT_NE(search, INVALID_HANDLE_VALUE);
    do
        if (const std::wstring name = found.cFileName; name != L"." && name != L"..")
            names.push_back(name);
    while (::FindNextFileW(search, &found));
    ::FindClose(search);
    return names;
}

std::string Utf16(std::wstring_view text, bool isBigEndian)
{
    std::string bytes;
    for (const wchar_t c : text)
    {
        const char low = static_cast<char>(c & 0xFF);
        const char high = static_cast<char>(c >> 8);
        bytes += isBigEndian ? high : low;
        bytes += isBigEndian ? low : high;
    }
    return bytes;
}

TEST(IniFile, ReadsLinesAsTheyAreMeant)
{
    struct SCase
    {
        const char* file;
        CSections expected;
    };
    const std::vector<SCase> cases{
        { "", {} },
        { "[A]\r\nx=1\r\ny = 2\r\n", { { L"A", { { L"x", L"1" }, { L"y", L"2" } } } } },
        { "[A]\nx=1\r[B]\r\ny=2", { { L"A", { { L"x", L"1" } } }, { L"B", { { L"y", L"2" } } } } },
        { "[A]\n; x=1\n  # y=2\n\n \t\nz=3 ; no comment\n", { { L"A", { { L"z", L"3 ; no comment" } } } } },
        { "[A]\n \t key name \t = \t a  b \t\n", { { L"A", { { L"key name", L"a  b \t" } } } } },
        { "[A]\nx=\ny==z=\n", { { L"A", { { L"x", L"" }, { L"y", L"=z=" } } } } },
        { "[A]\nx=1\nX=2\nx=3\n", { { L"A", { { L"x", L"1" }, { L"X", L"2" }, { L"x", L"3" } } } } },
        { "[A]\nx=1\n[B]\n[a]\ny=2\n", { { L"A", { { L"x", L"1" }, { L"y", L"2" } } }, { L"B", {} } } },
        { " [ A b ] ; comment ]\nx=1\n", { { L"A b", { { L"x", L"1" } } } } },
        { "x=0\n[A]\nno entry\n=no key\n[no header\nx=1\n", { { L"A", { { L"x", L"1" } } } } },
        { "[]\nx=1\n", { { L"", { { L"x", L"1" } } } } },
        { "[A]\n\xC2\xA0x\xE3\x80\x80=\xC2\xA0y\n", { { L"A", { { L"x", L"y" } } } } },
        { "[A]\nkey of more than 16 letters=value of more than 16 letters\n",
          { { L"A", { { L"key of more than 16 letters", L"value of more than 16 letters" } } } } },
    };
    for (const SCase& item : cases)
    {
        const CGuardedBuffer<char> bytes(std::string_view(item.file), EGuard::Behind);
        const CVoIniFileIO file = Parsed(bytes.View());
        EXPECT_EQ(Listing(file), item.expected) << item.file;
        EXPECT_EQ(BytesOf(file), item.file);
    }
}

TEST(IniFile, FindsNamesWithoutRegardToCaseAndTheFirstOfSeveral)
{
    const CVoIniFileIO file = Parsed("[Stra\xC3\x9F"
                                     "e]\nGr\xC3\xB6\xC3\x9F"
                                     "e=1\nGR\xC3\x96\xC3\x9F"
                                     "E=2\n[\xD0\x9C\xD0\xB8\xD1\x80]\n\xD1\x91=3\n");
    EXPECT_EQ(file.FindValue(L"STRA\u00DFE", L"gr\u00F6\u00DFe"), L"1");
    EXPECT_EQ(file.FindValue(L"\u043C\u0418\u0420", L"\u0401"), L"3");
    EXPECT_EQ(file.FindValue(L"STRASSE", L"gr\u00F6\u00DFe"), std::nullopt);
    EXPECT_EQ(file.FindValue(L"stra\u00DFe", L"x"), std::nullopt);
    EXPECT_TRUE(file.HasSection(L"\u041C\u0418\u0420"));
    std::vector<CVoIniEntry> entries(3);
    EXPECT_EQ(file.GetSection(L"x", entries), HResultFromWin32(ERROR_NOT_FOUND));
    EXPECT_EQ(entries.size(), 3u);
}

TEST(IniFile, ReadsAndKeepsEveryEncoding)
{
    const std::wstring text = L"[A]\r\nx=\u00E4\u20AC\n";
    const CSections expected{ { L"A", { { L"x", L"\u00E4\u20AC" } } } };
    struct SCase
    {
        EVoTextEncoding encoding;
        std::string bytes;
    };
    std::string utf8;
    ASSERT_EQ(VoStringToUTF8(text, utf8), S_OK);
    const std::vector<SCase> cases{
        { EVoTextEncoding::Utf8, utf8 },
        { EVoTextEncoding::Utf8WithMark, "\xEF\xBB\xBF" + utf8 },
        { EVoTextEncoding::Utf16LittleEndian, "\xFF\xFE" + Utf16(text, false) },
        { EVoTextEncoding::Utf16BigEndian, "\xFE\xFF" + Utf16(text, true) },
    };
    for (const SCase& item : cases)
    {
        CVoIniFileIO file = Parsed(item.bytes);
        EXPECT_EQ(file.Encoding(), item.encoding);
        EXPECT_EQ(Listing(file), expected);
        EXPECT_EQ(BytesOf(file), item.bytes);
        // Each becomes every other, and a change goes out in the file's encoding.
        for (const SCase& other : cases)
        {
            EXPECT_EQ(file.SetEncoding(other.encoding), S_OK);
            EXPECT_EQ(BytesOf(file), other.bytes);
        }
        EXPECT_EQ(file.SetEncoding(item.encoding), S_OK);
        EXPECT_EQ(file.SetValue(L"a", L"X", L"\u20AC"), S_OK);
        EXPECT_EQ(Listing(Parsed(BytesOf(file))), (CSections{ { L"A", { { L"x", L"\u20AC" } } } }));
    }
}

TEST(IniFile, TakesWhatIsNoUtf8ForTheAnsiCodePage)
{
    if (::GetACP() != 1252)
        GTEST_SKIP() << "the table is for code page 1252";
    CVoIniFileIO file = Parsed("[A]\nx=\xE4\x80\n");
    EXPECT_EQ(file.Encoding(), EVoTextEncoding::Ansi);
    EXPECT_EQ(file.FindValue(L"A", L"x"), L"\u00E4\u20AC");
    EXPECT_EQ(file.SetValue(L"A", L"y", L"\u00DF"), S_OK);
    EXPECT_EQ(BytesOf(file), "[A]\nx=\xE4\x80\ny=\xDF\n");
    // What the code page does not have is refused, and nothing is written in its place.
    EXPECT_EQ(file.SetValue(L"A", L"x", L"\u0436"), HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_EQ(file.FindValue(L"A", L"x"), L"\u00E4\u20AC");
    // ANSI text that would be read back as UTF-8.
    EXPECT_EQ(file.RemoveValue(L"A", L"x"), S_OK);
    EXPECT_EQ(file.SetValue(L"A", L"y", L"\u00C3\u00A4"), S_OK);
    std::string bytes = "untouched";
    EXPECT_EQ(file.GetBytes(bytes), HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_EQ(bytes, "untouched");
    EXPECT_EQ(file.SetEncoding(EVoTextEncoding::Utf8), S_OK);
    EXPECT_EQ(BytesOf(file), "[A]\ny=\xC3\x83\xC2\xA4\n");
}

TEST(IniFile, KeepsMalformedBytesAndRefusesToConvertThem)
{
    for (const std::string_view bytes :
         { std::string_view("\xEF\xBB\xBF[A]\nx=\xC3\n\xFF\xFE=\x80\ny=1"),
           std::string_view("\xFF\xFE[\0A\0]\0\n\0x\0=\0\x00\xD8\n\0y", 19), std::string_view("[A]\nx=a\0b\n\0\n", 12) })
    {
        CVoIniFileIO file = Parsed(bytes);
        EXPECT_EQ(BytesOf(file), bytes);
        EXPECT_EQ(file.SetValue(L"B", L"z", L"1"), S_OK);
        const bool hasHalfUnit = bytes.size() % 2 == 1 && bytes[0] == '\xFF';
        EXPECT_EQ(BytesOf(file).find(bytes.substr(0, bytes.size() - (hasHalfUnit ? 1 : 0))), 0u);
        EXPECT_EQ(Parsed(BytesOf(file)).FindValue(L"B", L"z"), L"1");
    }
    CVoIniFileIO file = Parsed("\xEF\xBB\xBF[A]\nx=\xC3\n");
    EXPECT_EQ(file.SetEncoding(EVoTextEncoding::Utf16LittleEndian), HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_EQ(BytesOf(file), "\xEF\xBB\xBF[A]\nx=\xC3\n");
}

TEST(IniFile, ChangesOnlyTheLinesThatChange)
{
    struct SCase
    {
        const char* before;
        std::function<HRESULT(CVoIniFileIO&)> change;
        const char* after;
    };
    const auto set = [](const wchar_t* section, const wchar_t* key, const wchar_t* value)
    { return [=](CVoIniFileIO& file) { return file.SetValue(section, key, value); }; };
    const auto add = [](const wchar_t* section, const wchar_t* key, const wchar_t* value)
    { return [=](CVoIniFileIO& file) { return file.AddValue(section, key, value); }; };
    const std::vector<SCase> cases{
        { "", set(L"A", L"x", L"1"), "[A]\r\nx=1\r\n" },
        { "[A]\n\n ; c\n  X \t=  1  \r\ny=2\n", set(L"a", L"x", L"9"), "[A]\n\n ; c\n  X \t=  9\r\ny=2\n" },
        { "[A]\nx=1", set(L"A", L"x", L""), "[A]\nx=" },
        { "[A]\nx=1", set(L"A", L"y", L"2"), "[A]\nx=1\ny=2\n" },
        { "[A]\rx=1\r\r; about B\r[B]\r", set(L"A", L"y", L"2"), "[A]\rx=1\ry=2\r\r; about B\r[B]\r" },
        { "[A]\n; about A\n\n; about B\n[B]\n", set(L"A", L"y", L"2"), "[A]\n; about A\ny=2\n\n; about B\n[B]\n" },
        { "[A]\nx=1\n", set(L"B", L"y", L"2"), "[A]\nx=1\n\n[B]\ny=2\n" },
        { "; c", set(L"B", L"y", L"2"), "; c\r\n\r\n[B]\r\ny=2\r\n" },
        { "[A]\nx=1\n[B]\n[a]\n\n[C]\n", add(L"A", L"x", L"2"), "[A]\nx=1\n[B]\n[a]\nx=2\n\n[C]\n" },
        { "[A]\nx=1\n; c\nX=2\ny=3\n[a]\nx=4\n", [](CVoIniFileIO& file) { return file.RemoveValue(L"A", L"x"); },
          "[A]\n; c\ny=3\n[a]\n" },
        { "[A]\n; c\nx=1\n\ny=2\n[B]\nz=3\n", [](CVoIniFileIO& file) { return file.ClearSection(L"A"); },
          "[A]\n; c\n\n[B]\nz=3\n" },
        { "; top\n[A]\n; c\nx=1\n\n; about B\n[B]\nz=3\n[A]\ny=2\n",
          [](CVoIniFileIO& file) { return file.RemoveSection(L"a"); }, "; top\n\n; about B\n[B]\nz=3\n" },
    };
    for (const SCase& item : cases)
    {
        CVoIniFileIO file = Parsed(item.before);
        EXPECT_EQ(item.change(file), S_OK);
        EXPECT_EQ(BytesOf(file), item.after);
        EXPECT_EQ(Listing(Parsed(item.after)), Listing(file));
    }
    CVoIniFileIO file = Parsed("[A]\nx=1\n");
    EXPECT_EQ(file.RemoveValue(L"A", L"y"), S_FALSE);
    EXPECT_EQ(file.RemoveValue(L"B", L"x"), S_FALSE);
    EXPECT_EQ(file.ClearSection(L"B"), S_FALSE);
    EXPECT_EQ(file.RemoveSection(L"B"), S_FALSE);
    EXPECT_EQ(file.RemoveSection(L"A"), S_OK);
    EXPECT_EQ(file.SetValue(L"A", L"x", L"2"), S_OK) << "a section that was removed can be made again";
    EXPECT_EQ(Listing(file), (CSections{ { L"A", { { L"x", L"2" } } } }));
}

TEST(IniFile, RefusesWhatCouldNotBeReadBack)
{
    struct SCase
    {
        const wchar_t* section;
        const wchar_t* key;
        const wchar_t* value;
    };
    CLogCapture log;
    for (const SCase& item : std::vector<SCase>{ { L"A", L"", L"1" },
                                                 { L"A", L" x", L"1" },
                                                 { L"A", L"x ", L"1" },
                                                 { L"A", L"x=y", L"1" },
                                                 { L"A", L";x", L"1" },
                                                 { L"A", L"#x", L"1" },
                                                 { L"A", L"[x", L"1" },
                                                 { L"A", L"x\ny", L"1" },
                                                 { L"A", L"y", L" 1" },
                                                 { L"A", L"y", L"1\r2" },
                                                 { L"A", L"x", L"1\n" },
                                                 { L"A", L"x", L"\u00A01" },
                                                 { L"", L"x", L"1" },
                                                 { L"B]", L"x", L"1" },
                                                 { L" B", L"x", L"1" },
                                                 { L"B\n", L"x", L"1" } })
    {
        CVoIniFileIO file = Parsed("[A]\nx=0\n");
        EXPECT_EQ(file.SetValue(item.section, item.key, item.value), E_INVALIDARG) << item.section << item.key << item.value;
        EXPECT_THAT(log.Lines(), Contains(IsReportBy(L"CVoIniFileIO::SetValue", E_INVALIDARG)));
        EXPECT_EQ(BytesOf(file), "[A]\nx=0\n");
        log.Clear();
    }
    CVoIniFileIO file = Parsed("[A]\nx=0\n");
    EXPECT_EQ(file.SetValue(L"A", L"x", L"\xD800"), HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_EQ(BytesOf(file), "[A]\nx=0\n");
}

// What any file must stand: bytes come back as they were, and edits do to the file what they do to a simple model of it.
class CRandomIni
{
public:
    explicit CRandomIni(unsigned seed) : m_random(seed) {}

    std::string File()
    {
        static const std::vector<std::string> kPieces{
            "[A]",  "[b]",  "[a",   "]",    "x=1",         "X = 2", "key\xC3\xA4=\xE2\x82\xAC",
            ";c",   "#",    " ",    "\t",   "=",           "\n",    "\r\n",
            "\r",   "\n",   "\n",   "\n",   "\xFF",        "\xC3",  std::string(1, '\0'),
            "\x80", "y=z=", "[A] ", "\xEF", "\xED\xA0\x80"
        };
        static const std::vector<std::string> kMarks{ "", "", "", "\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF" };
        std::string bytes = kMarks[Below(kMarks.size())];
        const bool isWide = bytes.size() == 2;
        for (size_t i = Below(60); i > 0; --i)
        {
            const size_t known = Below(3) > 0 ? 18 : kPieces.size(); // most files are well formed
            const std::string& piece = kPieces[Below(known)];
            if (isWide && Below(20) > 0)
                bytes += Utf16(std::wstring(piece.begin(), piece.end()), bytes[0] == '\xFE');
            else
                bytes += piece;
        }
        return bytes;
    }
    const wchar_t* Section() { return kSections[Below(kSections.size())]; }
    const wchar_t* Key() { return kKeys[Below(kKeys.size())]; }
    const wchar_t* Value() { return kValues[Below(kValues.size())]; }
    size_t Below(size_t bound) { return std::uniform_int_distribution<size_t>(0, bound - 1)(m_random); }

private:
    static inline const std::vector<const wchar_t*> kSections{ L"A", L"B", L"a", L"C" };
    static inline const std::vector<const wchar_t*> kKeys{ L"x", L"X", L"y", L"KEY\u00C4", L"n" };
    static inline const std::vector<const wchar_t*> kValues{ L"", L"1", L"two words ", L"\u20AC", L"=;#[" };
    std::mt19937 m_random;
};

void ChangeModel(CSections& model, int operation, const wchar_t* section, const wchar_t* key, const wchar_t* value)
{
    auto found =
        std::find_if(model.begin(), model.end(), [&](const auto& item) { return VoEqualsNoCase(item.first, section); });
    const auto isKey = [&](const auto& entry) { return VoEqualsNoCase(entry.first, key); };
    if (operation <= 1)
    {
        if (found == model.end())
            found = model.insert(model.end(), { section, {} });
        const auto entry = std::find_if(found->second.begin(), found->second.end(), isKey);
        if (operation == 0 && entry != found->second.end())
            entry->second = value;
        else
            found->second.emplace_back(key, value);
    }
    else if (found != model.end())
    {
        if (operation == 2)
            std::erase_if(found->second, isKey);
        else if (operation == 3)
            found->second.clear();
        else
            model.erase(found);
    }
}

HRESULT ChangeFile(CVoIniFileIO& file, int operation, const wchar_t* section, const wchar_t* key, const wchar_t* value)
{
    switch (operation)
    {
    case 0:
        return file.SetValue(section, key, value);
    case 1:
        return file.AddValue(section, key, value);
    case 2:
        return file.RemoveValue(section, key);
    case 3:
        return file.ClearSection(section);
    default:
        return file.RemoveSection(section);
    }
}

TEST(IniFile, AnyFileComesBackAndAnyEditDoesWhatItSays)
{
    CRandomIni random(5);
    int edits = 0;
    int refused = 0;
    for (int i = 0; i < 3000; ++i)
    {
        const std::string bytes = random.File();
        CVoIniFileIO file = Parsed(bytes);
        ASSERT_EQ(BytesOf(file), bytes) << "file " << i;
        CSections model = Listing(file);
        for (size_t step = random.Below(12); step > 0; --step)
        {
            const int operation = static_cast<int>(random.Below(5));
            const wchar_t* const section = random.Section();
            const wchar_t* const key = random.Key();
            const wchar_t* const value = random.Value();
            const HRESULT hr = ChangeFile(file, operation, section, key, value);
            ++edits;
            if (FAILED(hr))
            {
                ASSERT_EQ(hr, HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
                ASSERT_EQ(file.Encoding(), EVoTextEncoding::Ansi);
                ++refused;
            }
            else
                ChangeModel(model, operation, section, key, value);
            ASSERT_EQ(Listing(file), model) << "file " << i;
            for (const auto& [name, entries] : model)
                for (const auto& [first, unused] : entries)
                {
                    const auto same = [&](const auto& entry) { return VoEqualsNoCase(entry.first, first); };
                    ASSERT_EQ(file.FindValue(name, first), std::find_if(entries.begin(), entries.end(), same)->second);
                }
        }
        std::string changed;
        if (SUCCEEDED(file.GetBytes(changed)))
            ASSERT_EQ(Listing(Parsed(changed)), model) << "file " << i;
        else
            ASSERT_EQ(file.Encoding(), EVoTextEncoding::Ansi);
    }
    EXPECT_GT(edits, 10000);
    EXPECT_LT(refused, edits / 2);
}

// Keys of one length that differ in characters beyond ASCII only must not make reading quadratic: this would not end.
TEST(IniFile, ManyForeignKeysAreFoundQuickly)
{
    constexpr int kCount = 200000;
    CVoIniFileIO file;
    ASSERT_EQ(file.SetValue(L"A", L"first", L"x"), S_OK);
    const auto key = [](int i)
    { return std::wstring{ static_cast<wchar_t>(0x4E00 + i % 5000), static_cast<wchar_t>(0x4E00 + i / 5000), L'k' }; };
    for (int i = 0; i < kCount; ++i)
        ASSERT_EQ(file.SetValue(L"A", key(i), std::to_wstring(i)), S_OK);
    const CVoIniFileIO read = Parsed(BytesOf(file));
    for (int i = 0; i < kCount; ++i)
        ASSERT_EQ(read.FindValue(L"a", key(i)), std::to_wstring(i));
}

class IniFileOnDisk : public testing::Test
{
protected:
    static constexpr const char* kOld = "[A]\nx=1\n";
    static constexpr const char* kNew = "[A]\nx=2\n";

    void SetUp() override { WriteBytes(m_path, kOld); }

    const std::filesystem::path m_folder = MakeTestFolder(L"ini");
    const std::filesystem::path m_path = m_folder / L"file \u00E4\u0436.ini";
};

TEST_F(IniFileOnDisk, SaveWritesChangesAndNothingElse)
{
    CVoIniFileIO file;
    ASSERT_EQ(file.Open(m_path.wstring()), S_OK);
    EXPECT_EQ(file.Path(), m_path.wstring());
    EXPECT_EQ(file.SetValue(L"A", L"x", L"1"), S_OK);
    EXPECT_FALSE(file.IsModified());
    EXPECT_EQ(file.Save(), S_FALSE);
    ASSERT_TRUE(::SetFileAttributesW(m_path.c_str(), FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(file.SetValue(L"A", L"x", L"2"), S_OK);
    EXPECT_EQ(file.Save(), S_OK);
    EXPECT_EQ(ReadBytes(m_path), kNew);
    EXPECT_TRUE(::GetFileAttributesW(m_path.c_str()) & FILE_ATTRIBUTE_HIDDEN);
    EXPECT_EQ(file.Save(), S_FALSE);
    const std::filesystem::path other = m_folder / L"other.ini";
    EXPECT_EQ(file.SaveAs(other.wstring()), S_OK);
    EXPECT_EQ(ReadBytes(other), kNew);
    EXPECT_THAT(NamesIn(m_folder), testing::UnorderedElementsAre(m_path.filename().wstring(), L"other.ini"));
}

TEST_F(IniFileOnDisk, AMissingFileIsAnEmptyOneOnlyWhenAllowed)
{
    const std::wstring path = (m_folder / L"new.ini").wstring();
    CLogCapture log;
    CVoIniFileIO file;
    EXPECT_EQ(file.Open(path, true), S_OK);
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_EQ(file.Open(path), HResultFromWin32(ERROR_FILE_NOT_FOUND));
    EXPECT_THAT(log.Lines(), Contains(IsReportBy(L"CVoIniFileIO::Open", HResultFromWin32(ERROR_FILE_NOT_FOUND))));
    EXPECT_EQ(file.Save(), S_FALSE);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(file.SetValue(L"A", L"x", L"2"), S_OK);
    EXPECT_EQ(file.Save(), S_OK);
    EXPECT_EQ(ReadBytes(path), "[A]\r\nx=2\r\n");
    EXPECT_EQ(file.Open(L""), HResultFromWin32(ERROR_INVALID_NAME));
    EXPECT_EQ(file.Open(std::wstring_view(L"a\0b", 3)), HResultFromWin32(ERROR_INVALID_NAME));
    EXPECT_EQ(file.Path(), path) << "a file that could not be opened leaves the one before";
    EXPECT_EQ(Parsed("").Save(), HResultFromWin32(ERROR_INVALID_NAME));
}

TEST_F(IniFileOnDisk, AReadOnlyFileStaysAsItIs)
{
    ASSERT_TRUE(::SetFileAttributesW(m_path.c_str(), FILE_ATTRIBUTE_READONLY));
    CVoIniFileIO file;
    ASSERT_EQ(file.Open(m_path.wstring()), S_OK);
    ASSERT_EQ(file.SetValue(L"A", L"x", L"2"), S_OK);
    EXPECT_EQ(file.Save(), HResultFromWin32(ERROR_ACCESS_DENIED));
    EXPECT_EQ(ReadBytes(m_path), kOld);
    ::SetFileAttributesW(m_path.c_str(), FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(file.Save(), S_OK);
    EXPECT_EQ(ReadBytes(m_path), kNew);
}

TEST_F(IniFileOnDisk, EveryFailureOfThePlatformLeavesTheOldFile)
{
    CLogCapture log;
    const auto wasReported = [&](HRESULT code)
    {
        const std::vector<CLogLine> lines = log.Lines();
        log.Clear();
        return std::any_of(lines.begin(), lines.end(), [&](const CLogLine& line) { return line.code == code; });
    };
    const auto run = [&]
    {
        WriteBytes(m_path, kOld);
        CVoIniFileIO file;
        if (const HRESULT hr = file.Open(m_path.wstring()); FAILED(hr))
            return hr;
        EXPECT_EQ(file.SetValue(L"A", L"x", L"2"), S_OK);
        const HRESULT hr = file.Save();
        EXPECT_EQ(ReadBytes(m_path), SUCCEEDED(hr) ? kNew : kOld);
        EXPECT_EQ(file.IsModified(), FAILED(hr));
        EXPECT_THAT(NamesIn(m_folder), ElementsAre(m_path.filename().wstring()));
        return hr;
    };
    ExpectEveryFailureIsHandled(
        {
            VO_FAULT("kernel32.dll", GetFullPathNameW, 0U, ERROR_NOT_ENOUGH_MEMORY),
            VO_FAULT("kernel32.dll", CreateFileW, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED),
            VO_FAULT("kernel32.dll", GetFileSizeEx, FALSE, ERROR_IO_DEVICE),
            VO_FAULT("kernel32.dll", ReadFile, FALSE, ERROR_READ_FAULT),
            VO_FAULT("kernel32.dll", GetFileAttributesW, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED),
            VO_FAULT("advapi32.dll", GetFileSecurityW, FALSE, ERROR_ACCESS_DENIED),
            VO_FAULT("kernel32.dll", WriteFile, FALSE, ERROR_DISK_FULL),
            VO_FAULT("kernel32.dll", FlushFileBuffers, FALSE, ERROR_IO_DEVICE),
            VO_FAULT("kernel32.dll", MoveFileExW, FALSE, ERROR_SHARING_VIOLATION),
        },
        run, wasReported);
}

// The calls that Save makes, one after the other; the process ends at call number `m_last`, before or after it is made.
class CKiller
{
public:
    explicit CKiller(int last) : m_last(last) {}

    template <class Original, class... Args>
    auto operator()(Original original, Args... args)
    {
        if (++m_calls == m_last)
            Die();
        const auto result = original(args...);
        if (++m_calls == m_last)
            Die();
        return result;
    }
    // Half of it reaches the file.
    BOOL Write(decltype(&::WriteFile) original, HANDLE file, LPCVOID bytes, DWORD size, LPDWORD written,
               LPOVERLAPPED overlapped)
    {
        if (++m_calls == m_last)
        {
            original(file, bytes, size / 2, written, overlapped);
            Die();
        }
        return (*this)(original, file, bytes, size, written, overlapped);
    }

    static constexpr UINT kExitCode = 42;

private:
    [[noreturn]] static void Die()
    {
        ::TerminateProcess(::GetCurrentProcess(), kExitCode);
        std::abort();
    }

    int m_last;
    int m_calls = 0;
};

constexpr const wchar_t* kKilledAt = L"VOUTILS_TEST_KILLED_AT";
constexpr const wchar_t* kKilledFile = L"VOUTILS_TEST_KILLED_FILE";

std::wstring Environment(const wchar_t* name)
{
    wchar_t value[1024] = L"";
    ::GetEnvironmentVariableW(name, value, 1024);
    return value;
}

// Run by the test below in processes of its own.
TEST(IniFileKilled, DISABLED_SavingProcess)
{
    CVoIniFileIO file;
    ASSERT_EQ(file.Open(Environment(kKilledFile)), S_OK);
    ASSERT_EQ(file.SetValue(L"A", L"x", L"2"), S_OK);
    CKiller killer(std::stoi(Environment(kKilledAt)));
    const auto kill = [&](auto... args) { return killer(args...); };
#define VO_KILL(module, function) CCallHook<decltype(&::function)> hook##function(module, #function, kill)
    VO_KILL("kernel32.dll", GetFileAttributesW);
    VO_KILL("advapi32.dll", GetFileSecurityW);
    VO_KILL("kernel32.dll", CreateFileW);
    VO_KILL("kernel32.dll", FlushFileBuffers);
    VO_KILL("kernel32.dll", CloseHandle);
    VO_KILL("kernel32.dll", MoveFileExW);
    VO_KILL("kernel32.dll", DeleteFileW);
#undef VO_KILL
    CCallHook<decltype(&::WriteFile)> hookWrite("kernel32.dll", "WriteFile",
                                                [&](auto... args) { return killer.Write(args...); });
    ASSERT_EQ(file.Save(), S_OK);
}

TEST_F(IniFileOnDisk, ASaveThatIsKilledLeavesTheOldFileOrTheNewOne)
{
    wchar_t program[MAX_PATH];
    ASSERT_LT(::GetModuleFileNameW(nullptr, program, MAX_PATH), DWORD{ MAX_PATH });
    ::SetEnvironmentVariableW(kKilledFile, m_path.c_str());
    DWORD code = CKiller::kExitCode;
    int oldLeft = 0;
    int newLeft = 0;
    for (int call = 1; code != 0; ++call)
    {
        WriteBytes(m_path, kOld);
        ::SetEnvironmentVariableW(kKilledAt, std::to_wstring(call).c_str());
        std::wstring commandLine =
            std::wstring(L"\"") + program +
            L"\" --gtest_also_run_disabled_tests --gtest_brief=1 --gtest_filter=IniFileKilled.DISABLED_SavingProcess";
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION process{};
        ASSERT_TRUE(::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, DETACHED_PROCESS, nullptr, nullptr,
                                     &startup, &process));
        EXPECT_EQ(::WaitForSingleObject(process.hProcess, INFINITE), WAIT_OBJECT_0);
        EXPECT_TRUE(::GetExitCodeProcess(process.hProcess, &code));
        ::CloseHandle(process.hThread);
        ::CloseHandle(process.hProcess);
        ASSERT_TRUE(code == 0 || code == CKiller::kExitCode) << "call " << call << " code " << code;

        const std::string left = ReadBytes(m_path);
        EXPECT_TRUE(left == kOld || left == kNew) << "killed at call " << call << ": " << left;
        EXPECT_TRUE(code != 0 || left == kNew);
        ++(left == kOld ? oldLeft : newLeft);
        // What a killed process leaves beside the file does not stop the next one.
        CVoIniFileIO file;
        ASSERT_EQ(file.Open(m_path.wstring()), S_OK);
        EXPECT_EQ(file.SetValue(L"A", L"x", L"3"), S_OK);
        EXPECT_EQ(file.Save(), S_OK);
        EXPECT_EQ(ReadBytes(m_path), "[A]\nx=3\n");
    }
    ::SetEnvironmentVariableW(kKilledFile, nullptr);
    ::SetEnvironmentVariableW(kKilledAt, nullptr);
    EXPECT_GE(oldLeft, 12) << "attributes, access rights twice, opening, writing, flushing, closing, each before and after";
    EXPECT_GE(newLeft, 2) << "after the rename, and undisturbed";
}

TEST_F(IniFileOnDisk, AReplacementThatIsNotCommittedLeavesNothing)
{
    {
        CVoFileReplacement replacement;
        EXPECT_EQ(replacement.Commit(), E_UNEXPECTED);
        EXPECT_EQ(replacement.Write(m_path.wstring(), kNew), S_OK);
        EXPECT_EQ(replacement.Write(m_path.wstring(), kNew), E_UNEXPECTED);
        EXPECT_EQ(NamesIn(m_folder).size(), 2u);
    }
    EXPECT_THAT(NamesIn(m_folder), ElementsAre(m_path.filename().wstring()));
    EXPECT_EQ(ReadBytes(m_path), kOld);
    CVoFileReplacement folder;
    EXPECT_EQ(folder.Write(m_folder.wstring(), kNew), HResultFromWin32(ERROR_ACCESS_DENIED));
    EXPECT_EQ(folder.Commit(), E_UNEXPECTED);
    CVoFileReplacement lost;
    EXPECT_EQ(lost.Write((m_folder / L"none" / L"file").wstring(), kNew), HResultFromWin32(ERROR_PATH_NOT_FOUND));
}
} // namespace
