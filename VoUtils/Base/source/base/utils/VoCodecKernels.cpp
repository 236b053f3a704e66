// The inner loops of the encodings and of text conversion (VoCodecKernels.h).
#include "VoCodecKernels.h"

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

// 16 characters of Base64 to their values; false when one is no digit.
bool Base64Values16(const wchar_t* text, __m128i& values) noexcept
{
    const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
    const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + 8));
    const __m128i characters = _mm_packus_epi16(first, second);
    const __m128i isUpper = IsInRange(characters, 'A', 26);
    const __m128i isLower = IsInRange(characters, 'a', 26);
    const __m128i isDecimal = IsInRange(characters, '0', 10);
    const __m128i is62 =
        _mm_or_si128(_mm_cmpeq_epi8(characters, _mm_set1_epi8('+')), _mm_cmpeq_epi8(characters, _mm_set1_epi8('-')));
    const __m128i is63 =
        _mm_or_si128(_mm_cmpeq_epi8(characters, _mm_set1_epi8('/')), _mm_cmpeq_epi8(characters, _mm_set1_epi8('_')));
    const __m128i isLetter = _mm_or_si128(isUpper, isLower);
    const __m128i isSign = _mm_or_si128(is62, is63);
    if (_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(isLetter, isDecimal), isSign)) != 0xFFFF)
        return false;
    const __m128i letters = _mm_or_si128(AddWhere(isUpper, characters, -'A'), AddWhere(isLower, characters, 26 - 'a'));
    const __m128i decimals = AddWhere(isDecimal, characters, 52 - '0');
    const __m128i signs = _mm_or_si128(_mm_and_si128(is62, _mm_set1_epi8(62)), _mm_and_si128(is63, _mm_set1_epi8(63)));
    values = _mm_or_si128(_mm_or_si128(letters, decimals), signs);
    return true;
}

// Four groups of four values to six bytes in each half, lowest byte first.
__m128i JoinSextets(__m128i values) noexcept
{
    const __m128i even = _mm_and_si128(values, _mm_set1_epi16(0xFF));
    const __m128i pairs = _mm_or_si128(_mm_slli_epi16(even, 6), _mm_srli_epi16(values, 8));
    // Each 32-bit place: the first pair times 2^12, plus the second.
    const __m128i bits = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
    const __m128i reversed = _mm_or_si128(_mm_or_si128(_mm_srli_epi32(bits, 16), _mm_and_si128(bits, _mm_set1_epi32(0xFF00))),
                                          _mm_slli_epi32(_mm_and_si128(bits, _mm_set1_epi32(0xFF)), 16));
    const __m128i low = _mm_and_si128(reversed, _mm_set1_epi64x(0xFFFFFF));
    const __m128i high = _mm_and_si128(_mm_srli_epi64(reversed, 8), _mm_set1_epi64x(0xFFFFFF000000));
    return _mm_or_si128(low, high);
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

// 16 characters below 256, each widened to its 16-bit unit.
void StoreWide16(__m128i characters, wchar_t* text) noexcept
{
    const __m128i zero = _mm_setzero_si128();
    _mm_storeu_si128(reinterpret_cast<__m128i*>(text), _mm_unpacklo_epi8(characters, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(text + 8), _mm_unpackhi_epi8(characters, zero));
}
} // namespace

void EncodeHex(const BYTE* bytes, size_t groups, wchar_t* text) noexcept
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

size_t DecodeBase64(const wchar_t* text, size_t groups, BYTE* bytes) noexcept
{
    size_t i = 0;
    // Each half is stored with two bytes too many, which the next groups overwrite; so this loop leaves one group over.
    for (; groups - i > 4; i += 4, text += 16, bytes += 12)
    {
        __m128i values;
        if (!Base64Values16(text, values))
            break;
        const __m128i joined = JoinSextets(values);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(bytes), joined);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(bytes + 6), _mm_srli_si128(joined, 8));
    }
    return i + Scalar::DecodeBase64(text, groups - i, bytes);
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

size_t DecodeBase64(const wchar_t* text, size_t groups, BYTE* bytes) noexcept
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
