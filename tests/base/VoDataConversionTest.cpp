#include <base/utils/VoDataConversion.h>

#include <base/VoCArray.h>
#include <base/utils/VoCodecKernels.h>
#include <support/GuardPage.h>
#include <support/LogCapture.h>

#include <gmock/gmock.h>

#include <cwctype>
#include <optional>
#include <random>
#include <string>
#include <vector>

using namespace TestSupport;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

namespace
{
using CBytes = std::vector<BYTE>;

constexpr const wchar_t* kSource = L"..\\..\\source\\base\\utils\\VoDataConversion";

using CDecoder = HRESULT (*)(std::wstring_view, BYTE**, UINT32*);

// What a decoder makes of a text that ends, and of one that begins, at an inaccessible page; nothing when it refuses it. Checks
// that outputs are written on success only and that the size alone can be asked for.
std::optional<CBytes> Decode(CDecoder decoder, std::wstring_view text)
{
    std::optional<CBytes> result;
    for (const EGuard guard : { EGuard::Behind, EGuard::InFront })
    {
        const CGuardedBuffer<wchar_t> guarded(text, guard);
        BYTE untouched = 0;
        BYTE* buffer = &untouched;
        UINT32 length = 4711;
        UINT32 lengthAlone = 4711;
        const HRESULT hr = decoder(guarded.View(), &buffer, &length);
        EXPECT_EQ(decoder(guarded.View(), nullptr, &lengthAlone), hr);
        EXPECT_EQ(lengthAlone, length);
        if (FAILED(hr))
        {
            EXPECT_EQ(hr, E_INVALIDARG);
            EXPECT_EQ(buffer, &untouched);
            EXPECT_EQ(length, 4711U);
            continue;
        }
        const CVoByteBuffer owned(std::unique_ptr<BYTE[]>(buffer), length);
        result = CBytes(owned.Bytes().begin(), owned.Bytes().end());
    }
    return result;
}

// The encodings, written as plainly as possible and checked against the fast ones.
namespace Reference
{
size_t ValueIn(std::wstring_view alphabet, wchar_t character)
{
    return alphabet.find(character);
}

std::optional<CBytes> Hex(std::wstring_view text)
{
    CBytes digits;
    for (const wchar_t c : text)
        if (const size_t value = ValueIn(L"0123456789ABCDEF0123456789abcdef", c); value != std::wstring_view::npos)
            digits.push_back(static_cast<BYTE>(value % 16));
    if (digits.size() % 2 != 0)
        return std::nullopt;
    CBytes bytes;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<BYTE>(digits[i] * 16 + digits[i + 1]));
    return bytes;
}

void Trim(std::wstring& text)
{
    while (!text.empty() && std::iswspace(text.back()))
        text.pop_back();
    while (!text.empty() && std::iswspace(text.front()))
        text.erase(0, 1);
}

void Remove(std::wstring& text, std::wstring_view part)
{
    for (size_t at = text.find(part); at != std::wstring::npos; at = text.find(part, at))
        text.erase(at, part.size());
}

// Bits of digits, the highest or the lowest first, to whole bytes; bits left over are dropped.
CBytes Regroup(const std::vector<size_t>& digits, size_t bitsPerDigit, bool lowestFirst)
{
    CBytes bytes(digits.size() * bitsPerDigit / 8);
    for (size_t bit = 0; bit < bytes.size() * 8; ++bit)
    {
        const size_t place = bit % bitsPerDigit;
        const size_t isSet = digits[bit / bitsPerDigit] >> (lowestFirst ? place : bitsPerDigit - 1 - place) & 1;
        bytes[bit / 8] = static_cast<BYTE>(bytes[bit / 8] | isSet << (lowestFirst ? bit % 8 : 7 - bit % 8));
    }
    return bytes;
}

std::optional<CBytes> Base64(std::wstring_view input)
{
    std::wstring text(input);
    Trim(text);
    while (text.ends_with(L'='))
        text.pop_back();
    for (int i = 0; i < 2; ++i)
        if (text.ends_with(L"%3D") || text.ends_with(L"%3d"))
            text.resize(text.size() - 3);
    Remove(text, L"\r");
    Remove(text, L"\n");
    std::vector<size_t> digits;
    for (const wchar_t c : text)
    {
        const wchar_t standard = c == L'-' ? L'+' : c == L'_' ? L'/' : c;
        digits.push_back(ValueIn(VoCodecKernels::kBase64Standard, standard));
        if (digits.back() == std::wstring_view::npos)
            return std::nullopt;
    }
    if (digits.size() % 4 == 1)
        return std::nullopt;
    return Regroup(digits, 6, false);
}

std::optional<CBytes> Base32(std::wstring_view input)
{
    std::wstring text(input);
    Trim(text);
    for (const wchar_t* part : { L"\r", L"\n", L"\t", L" ", L"=", L"%3D", L"%3d" })
        Remove(text, part);
    std::vector<size_t> digits;
    for (const wchar_t c : text)
    {
        wchar_t upper = c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - 0x20) : c;
        upper = upper == L'O' ? L'0' : upper == L'I' || upper == L'L' ? L'1' : upper == L'B' ? L'8' : upper;
        digits.push_back(ValueIn(VoCodecKernels::kBase32ModifiedCrockford, upper));
        if (digits.back() == std::wstring_view::npos)
            return std::nullopt;
    }
    if (const size_t rest = digits.size() % 8; rest == 1 || rest == 3 || rest == 6)
        return std::nullopt;
    return Regroup(digits, 5, true);
}

// Digits of `bits` each, the last one filled up with zeros.
std::wstring Digits(const CBytes& bytes, size_t bits, bool lowestFirst, std::wstring_view alphabet)
{
    std::vector<size_t> units(bytes.begin(), bytes.end());
    std::wstring text;
    for (size_t first = 0; first < units.size() * 8; first += bits)
    {
        size_t digit = 0;
        for (size_t place = 0; place < bits; ++place)
        {
            const size_t bit = first + place;
            const size_t isSet = bit < units.size() * 8 ? units[bit / 8] >> (lowestFirst ? bit % 8 : 7 - bit % 8) & 1 : 0;
            digit |= isSet << (lowestFirst ? place : bits - 1 - place);
        }
        text += alphabet[digit];
    }
    return text;
}

// A break behind each character after which `isFull` says so of the count on the line.
template <class TIsFull>
std::wstring Lines(const std::wstring& digits, size_t step, TIsFull isFull)
{
    std::wstring text;
    INT64 onLine = 0;
    for (size_t i = 0; i < digits.size(); i += step)
    {
        text += digits.substr(i, step);
        onLine += static_cast<INT64>(step);
        if (isFull(onLine))
        {
            text += L"\r\n";
            onLine = 0;
        }
    }
    return text;
}

std::wstring ToHex(const CBytes& bytes, INT64 line)
{
    return Lines(Digits(bytes, 4, false, VoCodecKernels::kHexDigits), 2, [line](INT64 n) { return line >= 1 && n >= line; });
}

std::wstring ToBase64(const CBytes& bytes, bool urlSafe, INT64 line)
{
    if (urlSafe)
        return Digits(bytes, 6, false, VoCodecKernels::kBase64UrlSafe);
    std::wstring digits = Digits(bytes, 6, false, VoCodecKernels::kBase64Standard);
    while (digits.size() % 4 != 0)
        digits += L'=';
    const INT64 limit = line > 0 ? line : 2 * static_cast<INT64>(bytes.size());
    return Lines(digits, 1, [limit](INT64 n) { return n > limit; });
}

std::wstring ToBase32(const CBytes& bytes, bool pad, INT64 line)
{
    std::wstring digits = Digits(bytes, 5, true, VoCodecKernels::kBase32ModifiedCrockford);
    if (pad && bytes.size() % 5 == 1)
        digits += L"==";
    return Lines(digits, 1, [line](INT64 n) { return line > 0 && n == line; });
}
} // namespace Reference

CBytes RandomBytes(std::mt19937& random, size_t size)
{
    CBytes bytes(size);
    for (BYTE& byte : bytes)
        byte = static_cast<BYTE>(random());
    return bytes;
}

CBytes FromText(std::string_view text)
{
    return { text.begin(), text.end() };
}

struct CDecoding
{
    std::wstring_view text;
    std::optional<CBytes> bytes;
};

void CheckDecodings(CDecoder decoder, std::initializer_list<CDecoding> cases)
{
    for (const CDecoding& c : cases)
        EXPECT_EQ(Decode(decoder, c.text), c.bytes) << testing::PrintToString(std::wstring(c.text));
}
} // namespace

TEST(VoDataConversion, HexSkipsWhatIsNoDigit)
{
    CheckDecodings(&VoDataConversion::HexToBin, {
                                                    { L"", CBytes{} },
                                                    { L"-- :\r\n", CBytes{} },
                                                    { L"0a:1B ff", CBytes{ 0x0A, 0x1B, 0xFF } },
                                                    { L"0x1F", std::nullopt }, // the prefix's "0" is a digit
                                                    { L"0x1F0", CBytes{ 0x01, 0xF0 } },
                                                    { L"A", std::nullopt },
                                                    { std::wstring_view(L"A\0B", 3), CBytes{ 0xAB } },
                                                    { L"\u0141\uFF11\u0130"
                                                      L"4g1",
                                                      CBytes{ 0x41 } },
                                                });
}

TEST(VoDataConversion, Base64IsToleratedAsItArrives)
{
    CheckDecodings(&VoDataConversion::Base64ToBin, {
                                                       { L"", CBytes{} },
                                                       { L" \t\r\n", CBytes{} },
                                                       { L"====", CBytes{} },
                                                       { L"  TWE=\r\n", FromText("Ma") },
                                                       { L"TWE", FromText("Ma") },
                                                       { L"TWE%3d", FromText("Ma") },
                                                       { L"TQ%3D%3d", FromText("M") },
                                                       { L"TWFu%3D%3D==", FromText("Man") },
                                                       { L"TWFu%3D%3D%3D", std::nullopt }, // two at most
                                                       { L"TWE=%3D", std::nullopt },       // "=" only at the end
                                                       { L"TW\r\n\rF\nu", FromText("Man") },
                                                       { L"TW E=", std::nullopt },
                                                       { L"TW\tE=", std::nullopt },
                                                       { L"T", std::nullopt },
                                                       { L"TWFuT", std::nullopt },
                                                       { L"T=Fu", std::nullopt },
                                                       { L"-_8=", CBytes{ 0xFB, 0xFF } },
                                                       { L"+/8=", CBytes{ 0xFB, 0xFF } },
                                                       { L"+_-/", CBytes{ 0xFB, 0xFF, 0xBF } },
                                                       { L"TR", FromText("M") }, // low bits of the last digit do not count
                                                       { std::wstring_view(L"TW\0u", 4), std::nullopt },
                                                       { L"TWF\u0175", std::nullopt }, // 0x75 is "u" in the low byte
                                                   });
}

TEST(VoDataConversion, Base32ReadsSimilarCharactersAsOneDigit)
{
    const CDecoder decoder = &VoDataConversion::Base32ModifiedCrockfordToBin;
    CheckDecodings(decoder, {
                                { L"", CBytes{} },
                                { L"10", CBytes{ 0x01 } },
                                { L"1 0\t=\r\n=", CBytes{ 0x01 } },
                                { L"%3D1%3d0", CBytes{ 0x01 } },
                                { L"1%\r3 =D0", CBytes{ 0x01 } }, // separators go first
                                { L"1%%3D3d0", CBytes{ 0x01 } },  // "%3D" goes before "%3d"
                                { L"1%%3d3D0", std::nullopt },    // and is not looked for again
                                { L"1\v0", std::nullopt },        // inner white space of other kinds
                                { L"\v10\f", CBytes{ 0x01 } },
                                { L"1", std::nullopt },
                                { L"100", std::nullopt },
                                { L"100000", std::nullopt },
                                { L"1000000", CBytes{ 1, 0, 0, 0 } },
                                { L"1!", std::nullopt },
                                { L"1\u0130", std::nullopt },
                                { L"ZZZZZZZZ", CBytes(5, 0xFF) },
                            });
    for (const wchar_t* same : { L"bB8", L"oO0", L"iIlL1", L"uU", L"zZ", L"aA" })
        for (const wchar_t* digit = same; *digit; ++digit)
            EXPECT_EQ(Decode(decoder, std::wstring{ *digit, L'0' }), Decode(decoder, std::wstring{ *same, L'0' }));
    EXPECT_EQ(Decode(decoder, L"U0"), CBytes{ 26 });
    EXPECT_EQ(Decode(decoder, L"B0"), CBytes{ 8 });
}

TEST(VoDataConversion, LinesBreakWhereStoredTextHasThem)
{
    struct CCase
    {
        const char* what;
        HRESULT (*encode)(const BYTE*, INT32, std::wstring&, INT32);
        CBytes bytes;
        INT32 line;
        std::wstring text;
    };
    constexpr auto kHex = &VoDataConversion::BinToHex;
    constexpr auto kBase64 = [](const BYTE* bytes, INT32 count, std::wstring& text, INT32 line)
    { return VoDataConversion::BinToBase64(bytes, count, false, text, line); };
    constexpr auto kUrl = [](const BYTE* bytes, INT32 count, std::wstring& text, INT32 line)
    { return VoDataConversion::BinToBase64(bytes, count, true, text, line); };
    constexpr auto kPadded32 = [](const BYTE* bytes, INT32 count, std::wstring& text, INT32 line)
    { return VoDataConversion::BinToBase32ModifiedCrockford(bytes, count, true, text, line); };
    const CCase cases[] = {
        { "even line", kHex, { 0xAB, 0x01, 0xFF }, 4, L"AB01\r\nFF" },
        { "odd line", kHex, { 0xAB, 0x01, 0xFF }, 3, L"AB01\r\nFF" },
        { "break at the end", kHex, { 0xAB, 0x01 }, 1, L"AB\r\n01\r\n" },
        { "longest line", kHex, { 0xAB }, INT32_MAX, L"AB" },
        { "no bytes", kHex, {}, 1, L"" },
        { "negative line", kHex, { 0xAB, 0x01 }, -1, L"AB01" },
        { "no line", kBase64, FromText("Man"), 0, L"TWFu" },
        { "single byte", kBase64, FromText("M"), 0, L"TQ=\r\n=" },
        { "single byte", kUrl, FromText("M"), 0, L"TQ" },
        { "no breaks", kUrl, FromText("ManMan"), 2, L"TWFuTWFu" },
        { "57 bytes", kBase64, CBytes(57), 76, std::wstring(76, L'A') },
        { "60 bytes", kBase64, CBytes(60), 76, std::wstring(77, L'A') + L"\r\nAAA" },
        { "11 characters", kBase64, CBytes(15), 10, L"AAAAAAAAAAA\r\nAAAAAAAAA" },
        { "no bytes", kBase64, {}, 0, L"" },
        { "one byte", kPadded32, { 0x01 }, 0, L"10==" },
        { "padding breaks", kPadded32, { 0x01 }, 2, L"10\r\n==\r\n" },
        { "two bytes", kPadded32, { 0x01, 0x00 }, 0, L"1000" },
        { "three bytes", kPadded32, CBytes(3), 0, L"00000" },
        { "whole group", kPadded32, CBytes(5, 0xFF), 8, L"ZZZZZZZZ\r\n" },
    };
    for (const CCase& c : cases)
    {
        std::wstring text = L"replaced, and longer than most results";
        EXPECT_EQ(c.encode(c.bytes.data(), static_cast<INT32>(c.bytes.size()), text, c.line), S_OK);
        EXPECT_EQ(text, c.text) << c.what;
        EXPECT_EQ(c.encode(nullptr, 0, text, c.line), S_OK);
        EXPECT_TRUE(text.empty());
        EXPECT_EQ(c.encode(c.bytes.data(), -1, text, c.line), S_OK);
        EXPECT_TRUE(text.empty());
    }
}

TEST(VoDataConversion, EncodersAgreeWithTheReferenceAndReadBack)
{
    std::mt19937 random(20240601);
    for (size_t size = 0; size < 200; ++size)
        for (const INT32 line : { 0, 1, 2, 3, 7, 8, 10, 64, 76, 1000 })
        {
            const CBytes bytes = RandomBytes(random, size);
            const CGuardedBuffer<BYTE> guarded(bytes, EGuard::Behind);
            const auto count = static_cast<INT32>(size);
            std::wstring text;
            (void)VoDataConversion::BinToHex(guarded.Data(), count, text, line);
            ASSERT_EQ(text, Reference::ToHex(bytes, line)) << size << " " << line;
            ASSERT_EQ(Decode(&VoDataConversion::HexToBin, text), bytes);
            for (const bool flag : { false, true })
            {
                (void)VoDataConversion::BinToBase64(guarded.Data(), count, flag, text, line);
                ASSERT_EQ(text, Reference::ToBase64(bytes, flag, line)) << size << " " << line << " " << flag;
                // Padding that a line break parts from its other half is the one form that is not read back.
                if (text.find(L"=\r\n=") == std::wstring::npos)
                {
                    ASSERT_EQ(Decode(&VoDataConversion::Base64ToBin, text), bytes) << size << " " << line << " " << flag;
                }
                (void)VoDataConversion::BinToBase32ModifiedCrockford(guarded.Data(), count, flag, text, line);
                ASSERT_EQ(text, Reference::ToBase32(bytes, flag, line)) << size << " " << line << " " << flag;
                ASSERT_EQ(Decode(&VoDataConversion::Base32ModifiedCrockfordToBin, text), bytes);
            }
        }
}

TEST(VoDataConversion, DecodersAgreeWithTheReferenceOnDamagedText)
{
    const std::pair<CDecoder, std::optional<CBytes> (*)(std::wstring_view)> decoders[] = {
        { &VoDataConversion::HexToBin, &Reference::Hex },
        { &VoDataConversion::Base64ToBin, &Reference::Base64 },
        { &VoDataConversion::Base32ModifiedCrockfordToBin, &Reference::Base32 },
    };
    constexpr wchar_t kNoise[] = L"\0 \t\r\n\v=%%3D3d-_+/!ouibgG@[`{\x7F\x80\xFF\u0100\u0141\u3041\xD83D\uFFFF";
    const std::wstring_view noise(kNoise, std::size(kNoise) - 1);
    std::mt19937 random(77);
    size_t accepted = 0;
    for (int round = 0; round < 6000; ++round)
        for (const auto& [decoder, reference] : decoders)
        {
            // Mostly digits of all three encodings, long enough to reach the block-wise paths now and then.
            const size_t size = random() % (round % 100 == 0 ? 5000 : 60);
            const unsigned noisy = random() % 4; // none at all in a quarter of the rounds
            std::wstring text;
            for (size_t i = 0; i < size; ++i)
                text += noisy && random() % (noisy * 20) == 0 ? noise[random() % noise.size()]
                                                              : VoCodecKernels::kBase32ModifiedCrockford[random() % 32];
            const std::optional<CBytes> expected = reference(text);
            ASSERT_EQ(Decode(decoder, text), expected) << testing::PrintToString(text);
            accepted += expected ? 1U : 0U;
        }
    EXPECT_GT(accepted, 3000U); // the rounds are about both outcomes
}

// The kernels write to the very end of their room, and not beyond, wherever the first bad character stands.
TEST(VoDataConversion, KernelsStayWithinTheirGroups)
{
    struct CKernel
    {
        size_t characters;
        size_t bytes;
        size_t (*decode)(const wchar_t*, size_t, BYTE*) noexcept;
        void (*encode)(const BYTE*, size_t, wchar_t*) noexcept;
    };
    const CKernel kernels[] = {
        { 2, 1, &VoCodecKernels::DecodeHex, &VoCodecKernels::EncodeHex },
        { 4, 3, &VoCodecKernels::DecodeBase64, [](const BYTE* bytes, size_t groups, wchar_t* text) noexcept
          { VoCodecKernels::EncodeBase64(bytes, groups, false, text); } },
        { 8, 5, &VoCodecKernels::DecodeBase32, &VoCodecKernels::EncodeBase32 },
    };
    std::mt19937 random(5);
    for (const CKernel& kernel : kernels)
        for (size_t groups = 0; groups < 70; ++groups)
        {
            const CBytes bytes = RandomBytes(random, groups * kernel.bytes);
            const CGuardedBuffer<BYTE> source(bytes, EGuard::Behind);
            const CGuardedBuffer<wchar_t> text(groups * kernel.characters, EGuard::Behind);
            const CGuardedBuffer<BYTE> decoded(bytes.size(), EGuard::Behind);
            kernel.encode(source.Data(), groups, text.Data());
            ASSERT_EQ(kernel.decode(text.Data(), groups, decoded.Data()), groups);
            ASSERT_TRUE(std::equal(bytes.begin(), bytes.end(), decoded.Data()));
            for (const wchar_t bad : { L'\0', L'*', L'\x80', L'\u0141', L'\uFF41' })
                for (size_t at = 0; at < text.Size(); ++at)
                {
                    const wchar_t good = std::exchange(text.Data()[at], bad);
                    ASSERT_EQ(kernel.decode(text.Data(), groups, decoded.Data()), at / kernel.characters);
                    text.Data()[at] = good;
                }
        }
}

TEST(VoDataConversion, ReportsNameTheBadQuantityFirst)
{
    CLogCapture log;
    EXPECT_EQ(Decode(&VoDataConversion::HexToBin, L"ABC"), std::nullopt);
    EXPECT_THAT(log.Lines(), AllOf(SizeIs(4), Each(IsReport(kSource, 201, L"VoDataConversion::HexToBin", E_INVALIDARG))));

    const auto chain = [&log](CDecoder decoder, std::wstring_view text)
    {
        log.Clear();
        BYTE* buffer = nullptr;
        UINT32 length = 0;
        EXPECT_EQ(decoder(text, &buffer, &length), E_INVALIDARG);
        return log.Lines();
    };
    const CDecoder base64 = &VoDataConversion::Base64ToBin;
    const CDecoder base32 = &VoDataConversion::Base32ModifiedCrockfordToBin;
    EXPECT_THAT(chain(base64, L"TWFuT"), ElementsAre(IsReport(kSource, 210, L"VoDataConversion::Base64ToBin", 1),
                                                     IsReport(kSource, 211, L"VoDataConversion::Base64ToBin", E_INVALIDARG)));
    EXPECT_THAT(chain(base64, L"TW E"), ElementsAre(IsReport(kSource, 84, L"internalGetSextet", 0x20),
                                                    IsReport(kSource, 212, L"VoDataConversion::Base64ToBin", E_INVALIDARG)));
    EXPECT_THAT(chain(base64, { L"TW\0E", 4 }),
                ElementsAre(IsReport(kSource, 85, L"internalGetSextet", E_INVALIDARG),
                            IsReport(kSource, 212, L"VoDataConversion::Base64ToBin", E_INVALIDARG)));
    // A bad remainder is found before a bad character.
    EXPECT_THAT(chain(base32, L"1!0"),
                ElementsAre(IsReport(kSource, 220, L"VoDataConversion::Base32ModifiedCrockfordToBin", 3),
                            IsReport(kSource, 221, L"VoDataConversion::Base32ModifiedCrockfordToBin", E_INVALIDARG)));
    EXPECT_THAT(chain(base32, L"1!"),
                ElementsAre(IsReport(kSource, 46, L"internalGetQuintet", '!'),
                            IsReport(kSource, 222, L"VoDataConversion::Base32ModifiedCrockfordToBin", E_INVALIDARG)));
}

TEST(VoDataConversion, ClampToWordKeepsOrRefuses)
{
    struct CCase
    {
        INT32 value;
        bool strict;
        HRESULT result;
        UINT16 word;
    };
    constexpr UINT16 kUntouched = 4711;
    for (const CCase& c :
         { CCase{ 0, true, S_OK, 0 }, CCase{ 65535, true, S_OK, 65535 }, CCase{ 65536, true, E_FAIL, kUntouched },
           CCase{ -1, true, E_FAIL, kUntouched }, CCase{ 70000, false, S_OK, 65535 }, CCase{ INT32_MIN, false, S_OK, 0 },
           CCase{ INT32_MAX, false, S_OK, 65535 } })
    {
        UINT16 word = kUntouched;
        EXPECT_EQ(VoDataConversion::ClampToWord(c.value, word, c.strict), c.result) << c.value;
        EXPECT_EQ(word, c.word) << c.value;
    }
}
