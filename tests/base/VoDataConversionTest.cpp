// Tests of the encodings and their kernels.
#include <base/utils/VoDataConversion.h>

#include <base/utils/VoCodecKernels.h>
#include <base/utils/VoVectorKernels.h>
#include <support/GuardPage.h>
#include <support/LogCapture.h>

#include <gmock/gmock.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

using namespace TestSupport;

namespace
{
using CBytes = std::vector<BYTE>;

constexpr const wchar_t* kDataConversionSource = L"..\\..\\source\\base\\utils\\VoDataConversion";

using CDecoder = HRESULT (*)(CVoTextView, BYTE**, UINT32*);
constexpr CDecoder kFromHex = &VoDataConversion::HexToBin;
constexpr CDecoder kFromBase64 = &VoDataConversion::Base64ToBin;
constexpr CDecoder kFromBase32 = &VoDataConversion::Base32ModifiedCrockfordToBin;

CBytes RandomBytes(std::mt19937& random, size_t size)
{
    CBytes bytes(size);
    for (BYTE& byte : bytes)
        byte = static_cast<BYTE>(random());
    return bytes;
}
} // namespace

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

TEST(VoDataConversion, EncodesTheMemoryOfTheTextItReplaces)
{
    for (const size_t room : { size_t{ 0 }, size_t{ 1000 } }) // grown or not
    {
        std::wstring text(40, L'x');
        text.reserve(room);
        const auto* const own = reinterpret_cast<const BYTE*>(text.data());
        const CBytes copy(own, own + text.size() * sizeof(wchar_t));
        std::wstring expected;
        VoDataConversion::BinToBase64(copy.data(), static_cast<INT32>(copy.size()), false, expected, 0);
        VoDataConversion::BinToBase64(own, static_cast<INT32>(copy.size()), false, text, 0);
        EXPECT_EQ(text, expected) << room;
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
            expected.push_back(IsReport(kDataConversionSource, line, function, code));
        EXPECT_THAT(log.Lines(), testing::ElementsAreArray(expected));
    }
}
