#include <base/utils/VoDataConversion.h>

#include <base/VoCArray.h>
#include <base/utils/VoCodecKernels.h>
#include <support/GuardPage.h>
#include <support/LogCapture.h>

#include <gmock/gmock.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

using namespace TestSupport;
using testing::ElementsAre;

namespace
{
using CBytes = std::vector<BYTE>;

constexpr const wchar_t* kSource = L"..\\..\\source\\base\\utils\\VoDataConversion";

using CDecoder = HRESULT (*)(std::wstring_view, BYTE**, UINT32*);

// What a decoder makes of a text that ends at an inaccessible page; nothing when it refuses it. Checks that outputs are written
// on success only and that the size alone can be asked for.
std::optional<CBytes> Decode(CDecoder decoder, std::wstring_view text)
{
    const CGuardedBuffer<wchar_t> guarded(text);
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
        return std::nullopt;
    }
    const CVoByteBuffer owned(std::unique_ptr<BYTE[]>(buffer), length);
    return CBytes(owned.Bytes().begin(), owned.Bytes().end());
}

// With a break behind each line that is full; 0: no breaks.
std::wstring Lines(const std::wstring& digits, size_t width)
{
    std::wstring text;
    for (size_t i = 0; i < digits.size(); ++i)
        text += (width > 0 && (i + 1) % width == 0) ? digits.substr(i, 1) + L"\r\n" : digits.substr(i, 1);
    return text;
}

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
} // namespace

TEST(VoDataConversion, DecodersTakeTextAsItArrives)
{
    constexpr CDecoder kHex = &VoDataConversion::HexToBin;
    constexpr CDecoder kBase64 = &VoDataConversion::Base64ToBin;
    constexpr CDecoder kBase32 = &VoDataConversion::Base32ModifiedCrockfordToBin;
    struct CCase
    {
        CDecoder decoder;
        std::optional<CBytes> bytes;
        std::vector<std::wstring_view> texts; // each gives these bytes
    };
    const CCase cases[] = {
        { kHex, CBytes{}, { L"", L"-- :\r\n" } },
        { kHex, CBytes{ 0x01, 0xF0 }, { L"0x1F0", L"01:f 0", L"\u0141\uFF110 1\u0130F0", { L"01\0F0", 5 } } },
        { kHex, std::nullopt, { L"A", L"0x1F" } }, // the prefix's "0" is a digit
        { kBase64, CBytes{}, { L"", L" \t\r\n", L"====" } },
        { kBase64, FromText("Ma"), { L"  TWE=\r\n", L"TWE", L"TWE%3d", L"TWE%3D%3d==", L"TW\r\n\rE", L"TWF" } },
        { kBase64, CBytes{ 0xFB, 0xFF }, { L"-_8=", L"+/8=", L"+_9" } },
        { kBase64,
          std::nullopt,
          { L"TWFu%3D%3D%3D", L"TWE=%3D", L"TW E=", L"TW\tE=", L"T", L"TWFuT", L"T=Fu", { L"TW\0u", 4 }, L"TWF\u0175" } },
        // Separators go first, "%3D" goes before "%3d" and is not looked for again.
        { kBase32, CBytes{ 1 }, { L"10", L"1 0\t=\r\n=", L"%3D1%3d0", L"1%\r3 =D0", L"1%%3D3d0", L"\v10\f", L"lo", L"IO" } },
        { kBase32, std::nullopt, { L"1%%3d3D0", L"1\v0", L"1", L"100", L"100000", L"1!", L"1\u0130" } },
        { kBase32, CBytes{ 1, 0, 0, 0 }, { L"1000000", L"i00000o" } },
        { kBase32, CBytes{ 26 }, { L"U0", L"uo" } },
        { kBase32, CBytes{ 8 }, { L"80", L"B0", L"bO" } },
        { kBase32, CBytes(5, 0xFF), { L"ZZZZZZZZ", L"zzzzzzzz" } },
    };
    for (const CCase& c : cases)
        for (const std::wstring_view text : c.texts)
            EXPECT_EQ(Decode(c.decoder, text), c.bytes) << testing::PrintToString(std::wstring(text));
}

TEST(VoDataConversion, LinesBreakWhereStoredTextHasThem)
{
    using CEncoder = HRESULT (*)(const BYTE*, INT32, std::wstring&, INT32);
    constexpr CEncoder kHex = [](auto bytes, auto count, auto& to, auto line)
    { return VoDataConversion::BinToHex(bytes, count, to, line); };
    constexpr CEncoder kBase64 = [](auto bytes, auto count, auto& to, auto line)
    { return VoDataConversion::BinToBase64(bytes, count, false, to, line); };
    constexpr CEncoder kUrl = [](auto bytes, auto count, auto& to, auto line)
    { return VoDataConversion::BinToBase64(bytes, count, true, to, line); };
    constexpr CEncoder kPadded32 = [](auto bytes, auto count, auto& to, auto line)
    { return VoDataConversion::BinToBase32ModifiedCrockford(bytes, count, true, to, line); };
    const std::tuple<CEncoder, CBytes, INT32, const wchar_t*> cases[] = {
        { kHex, { 0xAB, 0x01, 0xFF }, 3, L"AB01\r\nFF" },
        { kHex, { 0xAB, 0x01 }, 1, L"AB\r\n01\r\n" },
        { kHex, { 0xAB, 0x01 }, INT32_MAX, L"AB01" },
        { kHex, { 0xAB, 0x01 }, -1, L"AB01" },
        { kBase64, FromText("M"), 0, L"TQ=\r\n=" },
        { kBase64, CBytes(15), 10, L"AAAAAAAAAAA\r\nAAAAAAAAA" },
        { kBase64, {}, 0, L"" },
        { kUrl, FromText("ManM\xFF\xFE"), 2, L"TWFuTf_-" },
        { kPadded32, { 0x01 }, 2, L"10\r\n==\r\n" },
        { kPadded32, { 0x01, 0x00 }, 0, L"1000" },
        { kPadded32, CBytes(5, 0xFF), 8, L"ZZZZZZZZ\r\n" },
    };
    for (const auto& [encode, bytes, line, expected] : cases)
    {
        std::wstring text;
        EXPECT_EQ(encode(bytes.data(), static_cast<INT32>(bytes.size()), text, line), S_OK);
        EXPECT_EQ(text, expected);
    }
}

TEST(VoDataConversion, WhatIsEncodedReadsBackAndBreaksWhenALineIsFull)
{
    std::mt19937 random(20240601);
    for (size_t size = 2; size < 200; ++size)
        for (const INT32 line : { 0, 1, 2, 3, 7, 8, 10, 64, 76, 1000 })
        {
            const CBytes bytes = RandomBytes(random, size);
            const CGuardedBuffer<BYTE> guarded(bytes);
            // `width`: of a full line when `line` is asked for.
            const auto check = [&](CDecoder decoder, INT32 width, auto encode)
            {
                std::wstring digits;
                std::wstring text;
                encode(guarded.Data(), static_cast<INT32>(size), digits, 0);
                encode(guarded.Data(), static_cast<INT32>(size), text, line);
                ASSERT_EQ(text, Lines(digits, line > 0 ? static_cast<size_t>(width) : 0)) << size << " " << line;
                ASSERT_EQ(Decode(decoder, digits), bytes) << size;
            };
            check(&VoDataConversion::HexToBin, line + line % 2, &VoDataConversion::BinToHex);
            for (const bool flag : { false, true })
            {
                check(&VoDataConversion::Base64ToBin, flag ? 0 : line + 1, [flag](auto data, auto count, auto& text, auto width)
                      { (void)VoDataConversion::BinToBase64(data, count, flag, text, width); });
                check(&VoDataConversion::Base32ModifiedCrockfordToBin, line,
                      [flag](auto data, auto count, auto& text, auto width)
                      { (void)VoDataConversion::BinToBase32ModifiedCrockford(data, count, flag, text, width); });
            }
        }
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
            const CGuardedBuffer<BYTE> source(bytes);
            const CGuardedBuffer<wchar_t> text(groups * kernel.characters);
            const CGuardedBuffer<BYTE> decoded(bytes.size());
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
    const std::wstring base64 = L"VoDataConversion::Base64ToBin";
    const std::wstring base32 = L"VoDataConversion::Base32ModifiedCrockfordToBin";
    const auto chain = [](CDecoder decoder, std::wstring_view text)
    {
        CLogCapture log;
        EXPECT_EQ(decoder(text, nullptr, nullptr), E_INVALIDARG);
        return log.Lines();
    };
    EXPECT_THAT(chain(&VoDataConversion::HexToBin, L"ABC"),
                ElementsAre(IsReport(kSource, 201, L"VoDataConversion::HexToBin", E_INVALIDARG)));
    EXPECT_THAT(chain(&VoDataConversion::Base64ToBin, L"TWFuT"),
                ElementsAre(IsReport(kSource, 210, base64, 1), IsReport(kSource, 211, base64, E_INVALIDARG)));
    EXPECT_THAT(chain(&VoDataConversion::Base64ToBin, L"TW E"),
                ElementsAre(IsReport(kSource, 84, L"internalGetSextet", 0x20), IsReport(kSource, 212, base64, E_INVALIDARG)));
    EXPECT_THAT(
        chain(&VoDataConversion::Base64ToBin, { L"TW\0E", 4 }),
        ElementsAre(IsReport(kSource, 85, L"internalGetSextet", E_INVALIDARG), IsReport(kSource, 212, base64, E_INVALIDARG)));
    // A bad remainder is found before a bad character.
    EXPECT_THAT(chain(&VoDataConversion::Base32ModifiedCrockfordToBin, L"1!0"),
                ElementsAre(IsReport(kSource, 220, base32, 3), IsReport(kSource, 221, base32, E_INVALIDARG)));
    EXPECT_THAT(chain(&VoDataConversion::Base32ModifiedCrockfordToBin, L"1!"),
                ElementsAre(IsReport(kSource, 46, L"internalGetQuintet", '!'), IsReport(kSource, 222, base32, E_INVALIDARG)));
}

TEST(VoDataConversion, ClampToWordKeepsOrRefuses)
{
    constexpr UINT16 kUntouched = 4711;
    for (const auto& [value, strict, word] : { std::tuple(0, true, UINT16{ 0 }),
                                               { 65535, true, 65535 },
                                               { 65536, true, kUntouched },
                                               { -1, true, kUntouched },
                                               { 65536, false, 65535 },
                                               { INT32_MIN, false, 0 } })
    {
        UINT16 clamped = kUntouched;
        EXPECT_EQ(VoDataConversion::ClampToWord(value, clamped, strict), word == kUntouched ? E_FAIL : S_OK) << value;
        EXPECT_EQ(clamped, word) << value;
    }
}
