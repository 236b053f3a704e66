// The inner loops of the encodings and of text conversion (VoCodecKernels.h).
#include "VoCodecKernels.h"

#include "VoVectorKernels.h"

#include <array>
#include <bit>
#include <cstring>
#include <emmintrin.h>

static_assert(sizeof(wchar_t) == 2, "the kernels take text as 16-bit units");

namespace VoCodecKernels
{
namespace
{
// Two characters in one 32-bit store; the first one is in the low half, as the machine is little-endian.
constexpr UINT32 Pair(wchar_t first, wchar_t second) noexcept
{
    return static_cast<UINT32>(first) | static_cast<UINT32>(second) << 16;
}

// Every pair of digits of an alphabet, indexed by `first * alphabet.size() + second`; with the lower digit first when bits run
// from the lowest.
template <size_t kDigits>
constexpr std::array<UINT32, kDigits * kDigits> MakePairs(std::wstring_view alphabet, bool lowestFirst) noexcept
{
    std::array<UINT32, kDigits * kDigits> pairs{};
    for (size_t high = 0; high < kDigits; ++high)
        for (size_t low = 0; low < kDigits; ++low)
            pairs[high * kDigits + low] =
                lowestFirst ? Pair(alphabet[low], alphabet[high]) : Pair(alphabet[high], alphabet[low]);
    return pairs;
}

constexpr auto kHexPairs = MakePairs<16>(kHexDigits, false);
constexpr auto kBase64StandardPairs = MakePairs<64>(kBase64Standard, false);
constexpr auto kBase64UrlSafePairs = MakePairs<64>(kBase64UrlSafe, false);
constexpr auto kBase32Pairs = MakePairs<32>(kBase32ModifiedCrockford, true);

using CDigitValues = std::array<BYTE, 256>;

constexpr CDigitValues MakeHexValues() noexcept
{
    CDigitValues values{};
    values.fill(kNoDigit);
    for (size_t i = 0; i < 16; ++i)
    {
        values[static_cast<size_t>(kHexDigits[i])] = static_cast<BYTE>(i);
        if (i >= 10)
            values[static_cast<size_t>(kHexDigits[i]) + 0x20] = static_cast<BYTE>(i);
    }
    return values;
}

constexpr CDigitValues MakeBase64Values() noexcept
{
    CDigitValues values{};
    values.fill(kNoDigit);
    for (size_t i = 0; i < 64; ++i)
    {
        values[static_cast<size_t>(kBase64Standard[i])] = static_cast<BYTE>(i);
        values[static_cast<size_t>(kBase64UrlSafe[i])] = static_cast<BYTE>(i);
    }
    return values;
}

constexpr CDigitValues MakeBase32Values() noexcept
{
    CDigitValues values{};
    values.fill(kNoDigit);
    for (size_t i = 0; i < 32; ++i)
        values[static_cast<size_t>(kBase32ModifiedCrockford[i])] = static_cast<BYTE>(i);
    // Letters that are easily taken for a digit stand for it.
    values['O'] = 0;
    values['I'] = 1;
    values['L'] = 1;
    values['B'] = 8;
    for (size_t letter = 'A'; letter <= 'Z'; ++letter)
        values[letter + 0x20] = values[letter];
    return values;
}

constexpr CDigitValues kHexValues = MakeHexValues();
constexpr CDigitValues kBase64Values = MakeBase64Values();
constexpr CDigitValues kBase32Values = MakeBase32Values();

// The value of a Base64 character shifted to its place in a group of 24 bits, with the group's first byte lowest so that one
// little-endian store writes it. kBadGroup marks a character that is no digit.
constexpr UINT32 kBadGroup = 0x80000000U;
constexpr std::array<UINT32, 256> MakeBase64Places(unsigned place) noexcept
{
    std::array<UINT32, 256> places{};
    for (size_t i = 0; i < places.size(); ++i)
    {
        const BYTE value = kBase64Values[i];
        const UINT32 bits = static_cast<UINT32>(value & 63U) << (18 - 6 * place);
        places[i] = value == kNoDigit ? kBadGroup : (bits >> 16 | (bits & 0xFF00U) | (bits & 0xFFU) << 16);
    }
    return places;
}

constexpr std::array<UINT32, 256> kBase64Places0 = MakeBase64Places(0);
constexpr std::array<UINT32, 256> kBase64Places1 = MakeBase64Places(1);
constexpr std::array<UINT32, 256> kBase64Places2 = MakeBase64Places(2);
constexpr std::array<UINT32, 256> kBase64Places3 = MakeBase64Places(3);

BYTE ValueIn(const CDigitValues& values, wchar_t character) noexcept
{
    return character < values.size() ? values[character] : kNoDigit;
}

// The 24 bits of one group, or kBadGroup set.
UINT32 Base64Group(const wchar_t* text) noexcept
{
    UINT64 characters;
    std::memcpy(&characters, text, sizeof characters);
    if (characters & 0xFF00FF00FF00FF00U)
        return kBadGroup;
    return kBase64Places0[characters & 0xFF] | kBase64Places1[characters >> 16 & 0xFF] |
           kBase64Places2[characters >> 32 & 0xFF] | kBase64Places3[characters >> 48];
}
UINT32 Base64Group(const char* text) noexcept
{
    UINT32 characters;
    std::memcpy(&characters, text, sizeof characters);
    return kBase64Places0[characters & 0xFF] | kBase64Places1[characters >> 8 & 0xFF] |
           kBase64Places2[characters >> 16 & 0xFF] | kBase64Places3[characters >> 24];
}

template <class TCharacter>
size_t DecodeBase64Groups(const TCharacter* text, size_t groups, BYTE* bytes) noexcept
{
    for (size_t i = 0; i < groups; ++i, text += 4, bytes += 3)
    {
        const UINT32 bits = Base64Group(text);
        if (bits & kBadGroup)
            return i;
        std::memcpy(bytes, &bits, 3);
    }
    return groups;
}

// The 40 bits of a base-32 group in their place, to be masked.
UINT64 Load5(const BYTE* bytes) noexcept
{
    UINT32 low;
    std::memcpy(&low, bytes, sizeof low);
    return low | static_cast<UINT64>(bytes[4]) << 32;
}

// Whether each byte lies within `count` values from `first` on: all ones where it does.
__m128i IsInRange(__m128i bytes, char first, char count) noexcept
{
    const __m128i offset = _mm_sub_epi8(bytes, _mm_set1_epi8(first));
    return _mm_cmpeq_epi8(_mm_min_epu8(offset, _mm_set1_epi8(static_cast<char>(count - 1))), offset);
}

// `bytes` plus `addend` in the places that `mask` selects, 0 elsewhere.
__m128i AddWhere(__m128i mask, __m128i bytes, char addend) noexcept
{
    return _mm_and_si128(mask, _mm_add_epi8(bytes, _mm_set1_epi8(addend)));
}

// 16 hexadecimal characters to their values; `good` becomes all ones in the places of digits. Characters above 255 saturate to
// 0 or 255, which are no digits either.
__m128i HexValues16(const wchar_t* text, __m128i& good) noexcept
{
    const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
    const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + 8));
    const __m128i characters = _mm_packus_epi16(first, second);
    const __m128i folded = _mm_or_si128(characters, _mm_set1_epi8(0x20)); // letters to lower case
    const __m128i isDecimal = IsInRange(characters, '0', 10);
    const __m128i isLetter = IsInRange(folded, 'a', 6);
    good = _mm_or_si128(isDecimal, isLetter);
    return _mm_or_si128(AddWhere(isDecimal, characters, -'0'), AddWhere(isLetter, folded, 10 - 'a'));
}

// Pairs of values, the high nibble first, to one byte in each 16-bit place.
__m128i JoinNibbles(__m128i values) noexcept
{
    return _mm_and_si128(_mm_or_si128(_mm_slli_epi16(values, 4), _mm_srli_epi16(values, 8)), _mm_set1_epi16(0xFF));
}

// The digits of the low nibbles of 16 bytes; what stands in the high nibbles is ignored.
__m128i HexDigits16(__m128i bytes) noexcept
{
    const __m128i nibbles = _mm_and_si128(bytes, _mm_set1_epi8(0x0F));
    const __m128i isLetter = _mm_cmpgt_epi8(nibbles, _mm_set1_epi8(9));
    return _mm_add_epi8(_mm_add_epi8(nibbles, _mm_set1_epi8('0')), _mm_and_si128(isLetter, _mm_set1_epi8('A' - '0' - 10)));
}

struct CUtf8Character
{
    UINT32 code = 0;
    size_t size = 0; // in bytes; 0: not well-formed
};

// The first character of bytes that are not empty.
CUtf8Character ReadUtf8(std::string_view bytes) noexcept
{
    const auto lead = static_cast<BYTE>(bytes[0]);
    if (lead < 0x80)
        return { lead, 1 };
    const size_t size = size_t{ 2 } + (lead >= 0xE0 ? 1U : 0U) + (lead >= 0xF0 ? 1U : 0U);
    if (lead < 0xC2 || lead > 0xF4 || bytes.size() < size)
        return {};
    UINT32 code = lead & (0x7FU >> size);
    for (size_t i = 1; i < size; ++i)
    {
        const auto trail = static_cast<BYTE>(bytes[i]);
        if ((trail & 0xC0) != 0x80)
            return {};
        code = code << 6 | (trail & 0x3FU);
    }
    constexpr std::array<UINT32, 5> kLeast = { 0, 0, 0x80, 0x800, 0x10000 }; // by size
    const bool isShortest = code >= kLeast[size];
    const bool isSurrogate = code >= 0xD800 && code < 0xE000;
    return isShortest && !isSurrogate && code <= 0x10FFFF ? CUtf8Character{ code, size } : CUtf8Character{};
}

// 16 characters below 256, each widened to its 16-bit unit.
void StoreWide16(__m128i characters, wchar_t* text) noexcept
{
    const __m128i zero = _mm_setzero_si128();
    _mm_storeu_si128(reinterpret_cast<__m128i*>(text), _mm_unpacklo_epi8(characters, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(text + 8), _mm_unpackhi_epi8(characters, zero));
}

// Hexadecimal for every processor: SSE2 is part of x86-64.
void EncodeHexSSE2(const BYTE* bytes, size_t groups, wchar_t* text) noexcept
{
    size_t i = 0;
    for (; groups - i >= 16; i += 16)
    {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
        const __m128i high = HexDigits16(_mm_srli_epi16(block, 4));
        const __m128i low = HexDigits16(block);
        StoreWide16(_mm_unpacklo_epi8(high, low), text + 2 * i);
        StoreWide16(_mm_unpackhi_epi8(high, low), text + 2 * i + 16);
    }
    Scalar::EncodeHex(bytes + i, groups - i, text + 2 * i);
}

size_t DecodeHexSSE2(const wchar_t* text, size_t groups, BYTE* bytes) noexcept
{
    size_t i = 0;
    for (; groups - i >= 16; i += 16)
    {
        __m128i firstGood;
        __m128i secondGood;
        const __m128i first = HexValues16(text + 2 * i, firstGood);
        const __m128i second = HexValues16(text + 2 * i + 16, secondGood);
        if (_mm_movemask_epi8(_mm_and_si128(firstGood, secondGood)) != 0xFFFF)
            break;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes + i), _mm_packus_epi16(JoinNibbles(first), JoinNibbles(second)));
    }
    return i + Scalar::DecodeHex(text + 2 * i, groups - i, bytes + i);
}

constexpr CVectorKernels kSSE2{
    .encodeHex = &EncodeHexSSE2,
    .decodeHex = &DecodeHexSSE2,
    .encodeBase64 = &Scalar::EncodeBase64,
    .decodeBase64 = &Scalar::DecodeBase64,
    .keepHexDigits = &Scalar::KeepHexDigits,
    .decodeKeptHex = &Scalar::DecodeKeptHex,
    .keepNoLineBreaks = &Scalar::KeepNoLineBreaks,
    .decodeKeptBase64 = &Scalar::DecodeKeptBase64,
};

constexpr CVectorKernels MakeSSSE3() noexcept
{
    CVectorKernels kernels = kSSE2;
    kernels.encodeBase64 = &SSSE3::EncodeBase64;
    kernels.decodeBase64 = &SSSE3::DecodeBase64;
    kernels.decodeKeptBase64 = &SSSE3::DecodeKeptBase64;
    return kernels;
}
constexpr CVectorKernels kSSSE3 = MakeSSSE3();

constexpr CVectorKernels kAVX2{
    .encodeHex = &AVX2::EncodeHex,
    .decodeHex = &AVX2::DecodeHex,
    .encodeBase64 = &AVX2::EncodeBase64,
    .decodeBase64 = &AVX2::DecodeBase64,
    .keepHexDigits = &AVX2::KeepHexDigits,
    .decodeKeptHex = &AVX2::DecodeKeptHex,
    .keepNoLineBreaks = &AVX2::KeepNoLineBreaks,
    .decodeKeptBase64 = &AVX2::DecodeKeptBase64,
};

// The kernels for this machine's processor.
const CVectorKernels& Best() noexcept
{
    static const CVectorKernels& kernels = KernelsFor(VoProcessorVectors());
    return kernels;
}
} // namespace

const CVectorKernels& KernelsFor(VoSystemProperties::EVectors vectors) noexcept
{
    switch (vectors)
    {
    case VoSystemProperties::EVectors::AVX2:
        return kAVX2;
    case VoSystemProperties::EVectors::SSSE3:
        return kSSSE3;
    default:
        return kSSE2;
    }
}

void EncodeHex(const BYTE* bytes, size_t groups, wchar_t* text) noexcept
{
    Best().encodeHex(bytes, groups, text);
}

void EncodeBase64(const BYTE* bytes, size_t groups, bool urlSafe, wchar_t* text) noexcept
{
    Best().encodeBase64(bytes, groups, urlSafe, text);
}

void EncodeBase32(const BYTE* bytes, size_t groups, wchar_t* text) noexcept
{
    for (size_t i = 0; i < groups; ++i, bytes += 5, text += 8)
    {
        const UINT64 bits = Load5(bytes);
        const UINT32 characters[] = { kBase32Pairs[bits & 0x3FF], kBase32Pairs[bits >> 10 & 0x3FF],
                                      kBase32Pairs[bits >> 20 & 0x3FF], kBase32Pairs[bits >> 30] };
        std::memcpy(text, characters, sizeof characters);
    }
}

size_t DecodeHex(const wchar_t* text, size_t groups, BYTE* bytes) noexcept
{
    return Best().decodeHex(text, groups, bytes);
}

size_t DecodeBase64(const wchar_t* text, size_t groups, BYTE* bytes) noexcept
{
    return Best().decodeBase64(text, groups, bytes);
}

size_t KeepHexDigits(std::wstring_view text, char* kept) noexcept
{
    return Best().keepHexDigits(text.data(), text.size(), kept);
}

size_t DecodeKeptHex(const char* kept, size_t groups, BYTE* bytes) noexcept
{
    return Best().decodeKeptHex(kept, groups, bytes);
}

size_t KeepNoLineBreaks(std::wstring_view text, char* kept) noexcept
{
    return Best().keepNoLineBreaks(text.data(), text.size(), kept);
}

size_t DecodeKeptBase64(const char* kept, size_t groups, BYTE* bytes) noexcept
{
    return Best().decodeKeptBase64(kept, groups, bytes);
}

size_t DecodeBase32(const wchar_t* text, size_t groups, BYTE* bytes) noexcept
{
    for (size_t i = 0; i < groups; ++i, text += 8, bytes += 5)
    {
        UINT64 low;
        UINT64 high;
        std::memcpy(&low, text, sizeof low);
        std::memcpy(&high, text + 4, sizeof high);
        if ((low | high) & 0xFF00FF00FF00FF00U)
            return i;
        const UINT64 q0 = kBase32Values[low & 0xFF];
        const UINT64 q1 = kBase32Values[low >> 16 & 0xFF];
        const UINT64 q2 = kBase32Values[low >> 32 & 0xFF];
        const UINT64 q3 = kBase32Values[low >> 48];
        const UINT64 q4 = kBase32Values[high & 0xFF];
        const UINT64 q5 = kBase32Values[high >> 16 & 0xFF];
        const UINT64 q6 = kBase32Values[high >> 32 & 0xFF];
        const UINT64 q7 = kBase32Values[high >> 48];
        if ((q0 | q1 | q2 | q3 | q4 | q5 | q6 | q7) > 31)
            return i;
        const UINT64 bits = q0 | q1 << 5 | q2 << 10 | q3 << 15 | q4 << 20 | q5 << 25 | q6 << 30 | q7 << 35;
        std::memcpy(bytes, &bits, 5);
    }
    return groups;
}

BYTE HexDigitValue(wchar_t character) noexcept
{
    return ValueIn(kHexValues, character);
}

BYTE Base64DigitValue(wchar_t character) noexcept
{
    return ValueIn(kBase64Values, character);
}

BYTE Base32DigitValue(wchar_t character) noexcept
{
    return ValueIn(kBase32Values, character);
}

size_t WidenLine(const char* from, size_t size, wchar_t* to, bool& isAscii) noexcept
{
    const __m128i lineFeed = _mm_set1_epi8('\n');
    const __m128i carriageReturn = _mm_set1_epi8('\r');
    unsigned high = 0;
    size_t at = 0;
    for (; at + 16 <= size; at += 16)
    {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + at));
        StoreWide16(bytes, to + at);
        const auto ends = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(bytes, lineFeed), _mm_cmpeq_epi8(bytes, carriageReturn))));
        const auto highHere = static_cast<unsigned>(_mm_movemask_epi8(bytes));
        if (ends != 0)
        {
            const auto length = static_cast<unsigned>(std::countr_zero(ends));
            isAscii = (high | (highHere & ((1U << length) - 1))) == 0;
            return at + length;
        }
        high |= highHere;
    }
    const size_t rest = Scalar::WidenLine(from + at, size - at, to + at, isAscii);
    isAscii = isAscii && high == 0;
    return at + rest;
}

std::optional<size_t> WidenUtf8(std::string_view bytes, wchar_t* to) noexcept
{
    wchar_t* const begin = to;
    for (size_t at = 0; at < bytes.size();)
    {
        if (at + 16 <= bytes.size())
        {
            const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data() + at));
            StoreWide16(block, to);
            // The place of the first byte beyond ASCII; 16 when there is none.
            const int ascii = std::countr_zero(static_cast<unsigned>(_mm_movemask_epi8(block)) | 0x10000U);
            at += static_cast<size_t>(ascii);
            to += ascii;
            if (ascii == 16)
                continue;
        }
        const CUtf8Character character = ReadUtf8(bytes.substr(at));
        if (character.size == 0)
            return std::nullopt;
        if (character.code > 0xFFFF)
        {
            *to++ = static_cast<wchar_t>(0xD7C0 + (character.code >> 10));
            *to++ = static_cast<wchar_t>(0xDC00 | (character.code & 0x3FF));
        }
        else
            *to++ = static_cast<wchar_t>(character.code);
        at += character.size;
    }
    return static_cast<size_t>(to - begin);
}

bool NarrowAscii(std::wstring_view text, char* to) noexcept
{
    constexpr size_t kBlock = 8;
    if (text.size() < kBlock)
        return Scalar::NarrowAscii(text, to);
    __m128i seen = _mm_setzero_si128();
    const auto narrow = [&](size_t at)
    {
        const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + at));
        seen = _mm_or_si128(seen, units);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(to + at), _mm_packus_epi16(units, units));
    };
    for (size_t at = 0; at + kBlock <= text.size(); at += kBlock)
        narrow(at);
    narrow(text.size() - kBlock); // the rest, together with some units that are done already
    const __m128i beyondAscii = _mm_and_si128(seen, _mm_set1_epi16(static_cast<short>(0xFF80)));
    return _mm_movemask_epi8(_mm_cmpeq_epi16(beyondAscii, _mm_setzero_si128())) == 0xFFFF;
}

namespace Scalar
{
void EncodeHex(const BYTE* bytes, size_t groups, wchar_t* text) noexcept
{
    for (size_t i = 0; i < groups; ++i)
        std::memcpy(text + 2 * i, &kHexPairs[bytes[i]], sizeof(UINT32));
}

size_t DecodeHex(const wchar_t* text, size_t groups, BYTE* bytes) noexcept
{
    for (size_t i = 0; i < groups; ++i)
    {
        const BYTE high = HexDigitValue(text[2 * i]);
        const BYTE low = HexDigitValue(text[2 * i + 1]);
        if (high == kNoDigit || low == kNoDigit)
            return i;
        bytes[i] = static_cast<BYTE>(high << 4 | low);
    }
    return groups;
}

void EncodeBase64(const BYTE* bytes, size_t groups, bool urlSafe, wchar_t* text) noexcept
{
    const UINT32* const pairs = urlSafe ? kBase64UrlSafePairs.data() : kBase64StandardPairs.data();
    for (size_t i = 0; i < groups; ++i, bytes += 3, text += 4)
    {
        const size_t bits = static_cast<size_t>(bytes[0]) << 16 | static_cast<size_t>(bytes[1]) << 8 | bytes[2];
        const UINT64 characters = pairs[bits >> 12] | static_cast<UINT64>(pairs[bits & 0xFFF]) << 32;
        std::memcpy(text, &characters, sizeof characters);
    }
}

size_t DecodeBase64(const wchar_t* text, size_t groups, BYTE* bytes) noexcept
{
    return DecodeBase64Groups(text, groups, bytes);
}

size_t KeepHexDigits(const wchar_t* text, size_t size, char* kept) noexcept
{
    size_t count = 0;
    for (size_t i = 0; i < size; ++i)
    {
        const BYTE value = HexDigitValue(text[i]);
        kept[count] = static_cast<char>(value);
        count += value != kNoDigit ? 1U : 0U;
    }
    return count;
}

size_t DecodeKeptHex(const char* kept, size_t groups, BYTE* bytes) noexcept
{
    for (size_t i = 0; i < groups; ++i)
        bytes[i] = static_cast<BYTE>(kept[2 * i] << 4 | kept[2 * i + 1]);
    return groups;
}

size_t KeepNoLineBreaks(const wchar_t* text, size_t size, char* kept) noexcept
{
    size_t count = 0;
    for (size_t i = 0; i < size; ++i)
    {
        const wchar_t character = text[i];
        kept[count] = character > 0xFF ? '\0' : static_cast<char>(character);
        count += character != L'\r' && character != L'\n' ? 1U : 0U;
    }
    return count;
}

size_t DecodeKeptBase64(const char* kept, size_t groups, BYTE* bytes) noexcept
{
    return DecodeBase64Groups(kept, groups, bytes);
}

size_t WidenLine(const char* from, size_t size, wchar_t* to, bool& isAscii) noexcept
{
    unsigned seen = 0;
    size_t at = 0;
    for (; at < size && from[at] != '\n' && from[at] != '\r'; ++at)
    {
        const auto byte = static_cast<unsigned char>(from[at]);
        seen |= byte;
        to[at] = byte;
    }
    isAscii = seen < 0x80;
    return at;
}

bool NarrowAscii(std::wstring_view text, char* to) noexcept
{
    unsigned seen = 0;
    for (size_t i = 0; i < text.size(); ++i)
    {
        seen |= text[i];
        to[i] = static_cast<char>(text[i]);
    }
    return seen < 0x80;
}
} // namespace Scalar
} // namespace VoCodecKernels
