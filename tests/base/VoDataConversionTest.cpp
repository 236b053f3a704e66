// Tests of the encodings and their kernels.
#include <base/utils/VoDataConversion.h>

#include <base/VoCArray.h>
#include <base/utils/VoCodecKernels.h>
#include <base/utils/VoVectorKernels.h>
#include <support/GuardPage.h>
#include <support/LogCapture.h>

#include <gmock/gmock.h>

#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

using namespace TestSupport;

namespace
{
using CBytes = std::vector<BYTE>;

constexpr const wchar_t* kSource = L"..\\..\\source\\base\\utils\\VoDataConversion";

using CDecoder = HRESULT (*)(CVoTextView, BYTE**, UINT32*);
constexpr CDecoder kFromHex = &VoDataConversion::HexToBin;
constexpr CDecoder kFromBase64 = &VoDataConversion::Base64ToBin;
constexpr CDecoder kFromBase32 = &VoDataConversion::Base32ModifiedCrockfordToBin;

using CEncoder = HRESULT (*)(const BYTE*, INT32, std::wstring&, INT32);
constexpr CEncoder kToHex = [](auto bytes, auto count, auto& to, auto line)
{ return VoDataConversion::BinToHex(bytes, count, to, line); };
template <bool useUrl>
constexpr CEncoder kToBase64 = [](auto bytes, auto count, auto& to, auto line)
{ return VoDataConversion::BinToBase64(bytes, count, useUrl, to, line); };
template <bool pad>
constexpr CEncoder kToBase32 = [](auto bytes, auto count, auto& to, auto line)
{ return VoDataConversion::BinToBase32ModifiedCrockford(bytes, count, pad, to, line); };

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

TEST(VoDataConversion, DecodersAcceptLineBreaksBlanksAndPadding)
{
    // Each text gives these bytes.
    const std::tuple<CDecoder, std::optional<CBytes>, std::vector<std::wstring_view>> cases[] = {
        { kFromHex, CBytes{}, { L"", L"-- :\r\n" } },
        { kFromHex, CBytes{ 0x01, 0xF0 }, { L"0x1F0", L"01:f 0", L"\u0141\uFF110 1\u0130F0", { L"01\0F0", 5 } } },
        { kFromHex, std::nullopt, { L"A", L"0x1F" } }, // the prefix's "0" is a digit
        { kFromBase64, CBytes{}, { L"", L" \t\r\n====" } },
        { kFromBase64, FromText("Ma"), { L"  TWE=\r\n", L"TWE", L"TWE%3d", L"TWE%3D%3d==", L"TW\r\n\rE", L"TWF" } },
        { kFromBase64, CBytes{ 0xFB, 0xFF }, { L"-_8=", L"+/8=", L"+_9" } },
        { kFromBase64,
          std::nullopt,
          { L"TWFu%3D%3D%3D", L"TWE=%3D", L"TW E=", L"TW\tE=", L"T", L"TWFuT", L"T=Fu", { L"TW\0u", 4 }, L"TWF\u0175" } },
        // Separators go first, "%3D" goes before "%3d" and is not looked for again.
        { kFromBase32,
          CBytes{ 1 },
          { L"10", L"1 0\t=\r\n=", L"%3D1%3d0", L"1%\r3 =D0", L"1%%3D3d0", L"\v10\f", L"lo", L"IO" } },
        { kFromBase32, std::nullopt, { L"1%%3d3D0", L"1\v0", L"1", L"100", L"100000", L"1!", L"1\u0130" } },
        { kFromBase32, CBytes{ 1, 0, 0, 0 }, { L"1000000", L"i00000o" } },
        { kFromBase32, CBytes{ 26 }, { L"U0", L"uo" } },
        { kFromBase32, CBytes{ 8 }, { L"80", L"B0", L"bO" } },
    };
    for (const auto& [decoder, bytes, texts] : cases)
        for (const std::wstring_view text : texts)
            EXPECT_EQ(Decode(decoder, text), bytes) << testing::PrintToString(std::wstring(text));
}

TEST(VoDataConversion, EncodersBreakLinesAtTheDocumentedPlaces)
{
    const std::tuple<CEncoder, CBytes, INT32, const wchar_t*> cases[] = {
        { kToHex, { 0xAB, 0x01, 0xFF }, 3, L"AB01\r\nFF" },
        { kToHex, { 0xAB, 0x01 }, 1, L"AB\r\n01\r\n" },
        { kToHex, { 0xAB, 0x01 }, INT32_MAX, L"AB01" },
        { kToHex, { 0xAB, 0x01 }, -1, L"AB01" },
        { kToBase64<false>, FromText("M"), 0, L"TQ=\r\n=" },
        { kToBase64<false>, CBytes(15), 10, L"AAAAAAAAAAA\r\nAAAAAAAAA" },
        { kToBase64<false>, {}, 0, L"" },
        { kToBase64<true>, FromText("ManM\xFF\xFE"), 2, L"TWFuTf_-" },
        { kToBase32<true>, { 0x01 }, 2, L"10\r\n==\r\n" },
        { kToBase32<true>, { 0x01, 0x00 }, 0, L"1000" },
        { kToBase32<true>, CBytes(5, 0xFF), 8, L"ZZZZZZZZ\r\n" },
    };
    for (const auto& [encode, bytes, line, expected] : cases)
    {
        std::wstring text;
        EXPECT_EQ(encode(bytes.data(), static_cast<INT32>(bytes.size()), text, line), S_OK);
        EXPECT_EQ(text, expected);
    }
}

namespace
{
using VoCodecKernels::CVectorKernels;

// The kernels that this machine can run.
std::vector<const CVectorKernels*> UsableKernels()
{
    using VoSystemProperties::EVectors;
    std::vector<const CVectorKernels*> usable;
    for (const EVectors vectors : { EVectors::SSE2, EVectors::SSSE3, EVectors::AVX2 })
        if (vectors <= VoProcessorVectors())
            usable.push_back(&VoCodecKernels::KernelsFor(vectors));
    return usable;
}
} // namespace

// The kernels write to the very end of their room, and not beyond, wherever the first bad character stands.
TEST(VoDataConversion, KernelsStayWithinTheirGroups)
{
    using CDecode = size_t (*)(const wchar_t*, size_t, BYTE*) noexcept;
    using CEncode = std::function<void(const BYTE*, size_t, wchar_t*)>;
    // With the characters and the bytes of a group.
    std::vector<std::tuple<size_t, size_t, CDecode, CEncode>> kernels = {
        { 8, 5, &VoCodecKernels::DecodeBase32, &VoCodecKernels::EncodeBase32 },
    };
    for (const CVectorKernels* usable : UsableKernels())
    {
        kernels.emplace_back(2, 1, usable->decodeHex, usable->encodeHex);
        for (const bool urlSafe : { false, true })
            kernels.emplace_back(4, 3, usable->decodeBase64, [=](auto bytes, auto groups, auto text)
            { usable->encodeBase64(bytes, groups, urlSafe, text); });
    }
    std::mt19937 random(5);
    for (const auto& [characters, unitBytes, decode, encode] : kernels)
        for (size_t groups = 0; groups < 70; ++groups)
        {
            const CBytes bytes = RandomBytes(random, groups * unitBytes);
            const CGuardedBuffer<BYTE> source(bytes);
            const CGuardedBuffer<wchar_t> text(groups * characters);
            const CGuardedBuffer<BYTE> decoded(bytes.size());
            encode(source.Data(), groups, text.Data());
            ASSERT_EQ(decode(text.Data(), groups, decoded.Data()), groups);
            ASSERT_TRUE(std::equal(bytes.begin(), bytes.end(), decoded.Data()));
            for (const wchar_t bad : { L'\0', L'*', L'\x80', L'\u0141', L'\uFF41' })
                for (size_t at = 0; at < text.Size(); ++at)
                {
                    const wchar_t good = std::exchange(text.Data()[at], bad);
                    ASSERT_EQ(decode(text.Data(), groups, decoded.Data()), at / characters);
                    text.Data()[at] = good;
                }
        }
}

// Each of the 65,536 units, in places all over a block.
TEST(CodecKernels, TakeTheSameUnitsAsDigitsAsTheScalarReference)
{
    constexpr size_t kSize = 128;
    const CGuardedBuffer<BYTE> decoded(kSize);
    const CGuardedBuffer<BYTE> expected(kSize);
    const CGuardedBuffer<char> kept(kSize);
    const CGuardedBuffer<char> expectedKept(kSize);
    for (const CVectorKernels* usable : UsableKernels())
        for (unsigned unit = 0; unit < 0x10000; ++unit)
        {
            std::wstring text(kSize, L'7');
            text[size_t{ unit } * 37 % kSize] = static_cast<wchar_t>(unit);
            const wchar_t* const units = text.data();
            ASSERT_EQ(usable->decodeHex(units, kSize / 2, decoded.Data()),
                      VoCodecKernels::Scalar::DecodeHex(units, kSize / 2, expected.Data()))
                << unit;
            const size_t groups = VoCodecKernels::Scalar::DecodeBase64(units, kSize / 4, expected.Data());
            ASSERT_EQ(usable->decodeBase64(units, kSize / 4, decoded.Data()), groups) << unit;
            ASSERT_TRUE(std::equal(expected.Data(), expected.Data() + 3 * groups, decoded.Data())) << unit;

            const size_t digits = usable->keepHexDigits(units, kSize, kept.Data());
            ASSERT_EQ(digits, VoCodecKernels::Scalar::KeepHexDigits(units, kSize, expectedKept.Data())) << unit;
            ASSERT_EQ(kept.View().substr(0, digits), expectedKept.View().substr(0, digits)) << unit;
            const size_t others = usable->keepNoLineBreaks(units, kSize, kept.Data());
            ASSERT_EQ(others, VoCodecKernels::Scalar::KeepNoLineBreaks(units, kSize, expectedKept.Data())) << unit;
            // A unit that is no digit may be kept as any byte that is none.
            ASSERT_EQ(usable->decodeKeptBase64(kept.Data(), others / 4, decoded.Data()),
                      VoCodecKernels::Scalar::DecodeKeptBase64(expectedKept.Data(), others / 4, expected.Data()))
                << unit;
        }
}

TEST(CodecKernels, WidenAndNarrowAsTheScalarReferenceDoes)
{
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round)
    {
        // Mostly ASCII, with a line end now and then.
        std::string line(random() % 70, 'x');
        for (char& c : line)
            c = random() % 64 == 0 ? (random() % 2 ? '\n' : '\r')
                                   : static_cast<char>(random() % (random() % 32 == 0 ? 256 : 128));
        std::wstring wide(line.size() + 16, L'\0');
        std::wstring scalarWide(line.size() + 16, L'\0');
        bool isAscii = false;
        bool isScalarAscii = false;
        const size_t length = VoCodecKernels::WidenLine(line.data(), line.size(), wide.data(), isAscii);
        ASSERT_EQ(length, VoCodecKernels::Scalar::WidenLine(line.data(), line.size(), scalarWide.data(), isScalarAscii));
        ASSERT_EQ(isAscii, isScalarAscii);
        ASSERT_EQ(wide.substr(0, length), scalarWide.substr(0, length));

        std::wstring text(random() % 40, L'x');
        for (wchar_t& c : text)
            c = static_cast<wchar_t>(random() % (random() % 32 == 0 ? 0x10000 : 0x80));
        std::string narrow(text.size(), '\0');
        std::string scalarNarrow(text.size(), '\0');
        const bool isNarrow = VoCodecKernels::NarrowAscii(text, narrow.data());
        ASSERT_EQ(isNarrow, VoCodecKernels::Scalar::NarrowAscii(text, scalarNarrow.data()));
        if (isNarrow)
        {
            ASSERT_EQ(narrow, scalarNarrow);
        }
    }
}

// Bytes are converted as the platform does, or left to it; only well-formed ones must be.
TEST(CodecKernels, Utf8IsWidenedAsThePlatformDoes)
{
    constexpr std::string_view kPieces[] = { "a", "0123456789abcdefghij", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80",
                                             "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80",
                                             "\xF4\x8F\xBF\xBF",
                                             // not well-formed from here on
                                             "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80",
                                             "\x80", "\xFF", "\xC3", "\xE2\x82", "\xF0\x9F\x98" };
    constexpr size_t kGood = 10;
    std::mt19937 random(13);
    for (int round = 0; round < 20'000; ++round)
    {
        const bool isGood = random() % 2 == 0;
        std::string text;
        for (auto count = random() % 12 + 1; count > 0; --count)
            text += kPieces[random() % (isGood ? kGood : std::size(kPieces))];
        const CGuardedBuffer<char> bytes(text);
        const CGuardedBuffer<wchar_t> units(text.size());
        std::wstring expected(text.size(), L'\0');
        const int length = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()),
                                                 expected.data(), static_cast<int>(expected.size()));
        const std::optional<size_t> count = VoCodecKernels::WidenUtf8(bytes.View(), units.Data());
        ASSERT_EQ(count.has_value(), length > 0) << testing::PrintToString(text);
        if (count)
        {
            ASSERT_EQ(units.View().substr(0, *count), expected.substr(0, static_cast<size_t>(length)));
        }
        ASSERT_TRUE(count || !isGood);
    }
}

TEST(VoDataConversion, ReportsNameTheBadQuantityFirst)
{
    constexpr const wchar_t* kBase64 = L"VoDataConversion::Base64ToBin";
    constexpr const wchar_t* kBase32 = L"VoDataConversion::Base32ModifiedCrockfordToBin";
    using CReport = std::tuple<int, const wchar_t*, HRESULT>;
    const std::tuple<CDecoder, std::wstring_view, std::vector<CReport>> cases[] = {
        { kFromHex, L"ABC", { { 201, L"VoDataConversion::HexToBin", E_INVALIDARG } } },
        { kFromBase64, L"TWFuT", { { 210, kBase64, 1 }, { 211, kBase64, E_INVALIDARG } } },
        { kFromBase64, L"TW E", { { 84, L"internalGetSextet", 0x20 }, { 212, kBase64, E_INVALIDARG } } },
        { kFromBase64, { L"TW\0E", 4 }, { { 85, L"internalGetSextet", E_INVALIDARG }, { 212, kBase64, E_INVALIDARG } } },
        // A bad remainder is found before a bad character.
        { kFromBase32, L"1!0", { { 220, kBase32, 3 }, { 221, kBase32, E_INVALIDARG } } },
        { kFromBase32, L"1!", { { 46, L"internalGetQuintet", '!' }, { 222, kBase32, E_INVALIDARG } } },
    };
    for (const auto& [decoder, text, reports] : cases)
    {
        const CLogCapture log;
        EXPECT_EQ(decoder(text, nullptr, nullptr), E_INVALIDARG);
        std::vector<testing::Matcher<const CLogLine&>> expected;
        for (const auto& [line, function, code] : reports)
            expected.push_back(IsReport(kSource, line, function, code));
        EXPECT_THAT(log.Lines(), testing::ElementsAreArray(expected));
    }
}
