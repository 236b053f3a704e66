// Hexadecimal and Base64 for processors with AVX2 (VoVectorKernels.h), 32 characters at a time. Each loop leaves the rest to a
// kernel for smaller blocks.
//
// g++ does not align the stack of Windows' programs for 32-byte vectors. So this file is assembled with unaligned moves only
// (see the build script), also where the compiler saves a vector to the stack.
#include "VoCodecKernels.h"
#include "VoVectorKernels.h"

#include <bit>
#include <immintrin.h>

#define VO_AVX VO_TARGET("avx2,popcnt")

namespace VoCodecKernels::AVX2
{
namespace
{
VO_AVX __m256i Load(const void* from) noexcept
{
    return _mm256_loadu_si256(static_cast<const __m256i*>(from));
}

VO_AVX void Store(void* to, __m256i value) noexcept
{
    _mm256_storeu_si256(static_cast<__m256i*>(to), value);
}

// A table of 16 bytes in both halves, for a lookup.
VO_AVX __m256i LoadTable(const Base64Lookup::CTable& table) noexcept
{
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(table.data())));
}

VO_AVX unsigned Mask(__m256i bytes) noexcept
{
    return static_cast<unsigned>(_mm256_movemask_epi8(bytes));
}

constexpr unsigned kAll = 0xFFFFFFFFU;

// 32 characters. Those above 255 become 0 or 255.
VO_AVX __m256i LoadCharacters(const wchar_t* text) noexcept
{
    // Packing works within the halves: their quarters come out in the order 0 2 1 3.
    return _mm256_permute4x64_epi64(_mm256_packus_epi16(Load(text), Load(text + 16)), 0xD8);
}
VO_AVX __m256i LoadCharacters(const char* text) noexcept
{
    return Load(text);
}

// 32 characters below 256, each widened to its 16-bit unit.
VO_AVX void StoreWide(__m256i characters, wchar_t* text) noexcept
{
    Store(text, _mm256_cvtepu8_epi16(_mm256_castsi256_si128(characters)));
    Store(text + 16, _mm256_cvtepu8_epi16(_mm256_extracti128_si256(characters, 1)));
}

// The values of 32 characters as hexadecimal digits; `isDigit` becomes all ones in the places of digits.
VO_AVX __m256i HexValues(__m256i characters, __m256i& isDigit) noexcept
{
    const __m256i decimals = _mm256_sub_epi8(characters, _mm256_set1_epi8('0'));
    const __m256i letters =
        _mm256_sub_epi8(_mm256_or_si256(characters, _mm256_set1_epi8(0x20)), _mm256_set1_epi8('a')); // folded to lower case
    const __m256i isDecimal = _mm256_cmpeq_epi8(_mm256_min_epu8(decimals, _mm256_set1_epi8(9)), decimals);
    const __m256i isLetter = _mm256_cmpeq_epi8(_mm256_min_epu8(letters, _mm256_set1_epi8(5)), letters);
    isDigit = _mm256_or_si256(isDecimal, isLetter);
    return _mm256_blendv_epi8(_mm256_add_epi8(letters, _mm256_set1_epi8(10)), decimals, isDecimal);
}

// Pairs of values, the high one first, from two times 32 to 32 bytes.
VO_AVX __m256i JoinNibbles(__m256i first, __m256i second) noexcept
{
    const __m256i weights = _mm256_set1_epi16(0x0110);
    const __m256i packed = _mm256_packus_epi16(_mm256_maddubs_epi16(first, weights), _mm256_maddubs_epi16(second, weights));
    return _mm256_permute4x64_epi64(packed, 0xD8);
}

VO_AVX __m256i HexDigits(__m256i nibbles) noexcept
{
    const __m256i digits = _mm256_setr_epi8('0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'A', 'B', 'C', 'D', 'E', 'F', '0',
                                            '1', '2', '3', '4', '5', '6', '7', '8', '9', 'A', 'B', 'C', 'D', 'E', 'F');
    return _mm256_shuffle_epi8(digits, nibbles);
}

// For each set of kept places of eight bytes: the places to fetch, in order.
constexpr std::array<UINT64, 256> MakeKeptPlaces() noexcept
{
    std::array<UINT64, 256> places{};
    for (size_t mask = 0; mask < places.size(); ++mask)
    {
        unsigned count = 0;
        for (unsigned place = 0; place < 8; ++place)
            if (mask >> place & 1U)
                places[mask] |= static_cast<UINT64>(place) << 8 * count++;
    }
    return places;
}
constexpr std::array<UINT64, 256> kKeptPlaces = MakeKeptPlaces();

// Stores the bytes that `mask` selects one behind the other and returns their number. Writes eight bytes at each place where an
// eighth of them begins.
VO_AVX size_t StoreKept(__m256i bytes, unsigned mask, char* to) noexcept
{
    char* const begin = to;
    __m128i half = _mm256_castsi256_si128(bytes);
    for (int i = 0; i < 4; ++i, mask >>= 8)
    {
        if (i == 2)
            half = _mm256_extracti128_si256(bytes, 1);
        const __m128i places = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(&kKeptPlaces[mask & 0xFF]));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(to), _mm_shuffle_epi8(half, places));
        to += std::popcount(mask & 0xFF);
        half = _mm_srli_si128(half, 8);
    }
    return static_cast<size_t>(to - begin);
}

// What is kept of a text: the values of hexadecimal digits, or all characters but line breaks.
struct CHexDigits
{
    VO_AVX static unsigned Keep(__m256i& characters) noexcept
    {
        __m256i isDigit;
        characters = HexValues(characters, isDigit);
        return Mask(isDigit);
    }
};
struct CNoLineBreaks
{
    VO_AVX static unsigned Keep(__m256i characters) noexcept
    {
        return ~Mask(_mm256_or_si256(_mm256_cmpeq_epi8(characters, _mm256_set1_epi8('\r')),
                                     _mm256_cmpeq_epi8(characters, _mm256_set1_epi8('\n'))));
    }
};

// Keeps characters of a text up to a multiple of 32, which becomes `size`.
template <class TKept>
VO_AVX size_t Keep(const wchar_t* text, size_t& size, char* kept) noexcept
{
    size_t count = 0;
    size_t i = 0;
    for (; size - i >= 32; i += 32)
    {
        __m256i characters = LoadCharacters(text + i);
        const unsigned mask = TKept::Keep(characters);
        if (mask == kAll)
        {
            Store(kept + count, characters);
            count += 32;
        }
        else
            count += StoreKept(characters, mask, kept + count);
    }
    size = i;
    return count;
}

// The 32 values in the bits of 24 bytes.
VO_AVX __m256i SplitSextets(const BYTE* bytes) noexcept
{
    const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
    const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + 8)); // its last 12 bytes count
    // Each group's bytes b0 b1 b2 as b1 b0 b2 b1, so that a multiplication moves each value's bits to the bottom of a byte.
    const __m256i groups = _mm256_shuffle_epi8(_mm256_inserti128_si256(_mm256_castsi128_si256(first), second, 1),
                                               _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10, 5, 4, 6, 5,
                                                                8, 7, 9, 8, 11, 10, 12, 11, 14, 13, 15, 14));
    const __m256i even =
        _mm256_mulhi_epu16(_mm256_and_si256(groups, _mm256_set1_epi32(0x0FC0FC00)), _mm256_set1_epi32(0x04000040));
    const __m256i odd =
        _mm256_mullo_epi16(_mm256_and_si256(groups, _mm256_set1_epi32(0x003F03F0)), _mm256_set1_epi32(0x01000010));
    return _mm256_or_si256(even, odd);
}

VO_AVX __m256i Base64Digits(__m256i values, __m256i distances) noexcept
{
    const __m256i isUpper = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), values);
    const __m256i places =
        _mm256_or_si256(_mm256_subs_epu8(values, _mm256_set1_epi8(51)), _mm256_and_si256(isUpper, _mm256_set1_epi8(13)));
    return _mm256_add_epi8(values, _mm256_shuffle_epi8(distances, places));
}

// The values of 32 characters; false when one is no digit.
VO_AVX bool Base64Values(__m256i characters, __m256i& values) noexcept
{
    const __m256i nibble = _mm256_set1_epi8(0x0F);
    const __m256i high = _mm256_and_si256(_mm256_srli_epi32(characters, 4), nibble);
    const __m256i badByHigh = _mm256_shuffle_epi8(LoadTable(Base64Lookup::kBadByHighHalf), high);
    const __m256i badByLow = _mm256_shuffle_epi8(LoadTable(Base64Lookup::kBadByLowHalf), _mm256_and_si256(characters, nibble));
    if (!_mm256_testz_si256(badByHigh, badByLow))
        return false;
    const __m256i isSlash = _mm256_cmpeq_epi8(characters, _mm256_set1_epi8('/'));
    const __m256i isMinus = _mm256_cmpeq_epi8(characters, _mm256_set1_epi8('-'));
    const __m256i isUnderscore = _mm256_cmpeq_epi8(characters, _mm256_set1_epi8('_'));
    __m256i places = _mm256_add_epi8(high, _mm256_add_epi8(isMinus, _mm256_add_epi8(isSlash, isSlash)));
    places = _mm256_or_si256(places, _mm256_and_si256(isUnderscore, _mm256_set1_epi8(8)));
    values = _mm256_add_epi8(characters, _mm256_shuffle_epi8(LoadTable(Base64Lookup::kDistancesToValue), places));
    return true;
}

// 32 values to 24 bytes; 8 bytes without meaning behind them.
VO_AVX __m256i JoinSextets(__m256i values) noexcept
{
    const __m256i pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    const __m256i groups = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
    const __m256i halves =
        _mm256_shuffle_epi8(groups, _mm256_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1, 2, 1, 0, 6, 5, 4,
                                                     10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
    return _mm256_permutevar8x32_epi32(halves, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
}

template <class TCharacter>
VO_AVX size_t Decode(const TCharacter* text, size_t groups, BYTE* bytes) noexcept
{
    size_t i = 0;
    // Stores eight bytes too many, which later groups overwrite.
    for (; groups - i >= 11; i += 8)
    {
        __m256i values;
        if (!Base64Values(LoadCharacters(text + 4 * i), values))
            break;
        Store(bytes + 3 * i, JoinSextets(values));
    }
    return i;
}
} // namespace

VO_AVX void EncodeHex(const BYTE* bytes, size_t groups, wchar_t* text) noexcept
{
    const __m256i nibble = _mm256_set1_epi8(0x0F);
    size_t i = 0;
    for (; groups - i >= 16; i += 16)
    {
        // Each byte in a 16-bit place, its high half moved to the low byte and its low half to the high one.
        const __m256i wide = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i)));
        const __m256i nibbles =
            _mm256_and_si256(_mm256_or_si256(_mm256_srli_epi16(wide, 4), _mm256_slli_epi16(wide, 8)), nibble);
        StoreWide(HexDigits(nibbles), text + 2 * i);
    }
    Scalar::EncodeHex(bytes + i, groups - i, text + 2 * i);
}

VO_AVX size_t DecodeHex(const wchar_t* text, size_t groups, BYTE* bytes) noexcept
{
    size_t i = 0;
    for (; groups - i >= 32; i += 32)
    {
        __m256i isFirstGood;
        __m256i isSecondGood;
        const __m256i first = HexValues(LoadCharacters(text + 2 * i), isFirstGood);
        const __m256i second = HexValues(LoadCharacters(text + 2 * i + 32), isSecondGood);
        if (Mask(_mm256_and_si256(isFirstGood, isSecondGood)) != kAll)
            break;
        Store(bytes + i, JoinNibbles(first, second));
    }
    return i + Scalar::DecodeHex(text + 2 * i, groups - i, bytes + i);
}

VO_AVX void EncodeBase64(const BYTE* bytes, size_t groups, bool urlSafe, wchar_t* text) noexcept
{
    const __m256i distances = LoadTable(urlSafe ? Base64Lookup::kUrlSafeDistances : Base64Lookup::kStandardDistances);
    size_t i = 0;
    for (; groups - i >= 8; i += 8)
        StoreWide(Base64Digits(SplitSextets(bytes + 3 * i), distances), text + 4 * i);
    SSSE3::EncodeBase64(bytes + 3 * i, groups - i, urlSafe, text + 4 * i);
}

size_t DecodeBase64(const wchar_t* text, size_t groups, BYTE* bytes) noexcept
{
    const size_t done = Decode(text, groups, bytes);
    return done + SSSE3::DecodeBase64(text + 4 * done, groups - done, bytes + 3 * done);
}

size_t DecodeKeptBase64(const char* kept, size_t groups, BYTE* bytes) noexcept
{
    const size_t done = Decode(kept, groups, bytes);
    return done + SSSE3::DecodeKeptBase64(kept + 4 * done, groups - done, bytes + 3 * done);
}

size_t KeepHexDigits(const wchar_t* text, size_t size, char* kept) noexcept
{
    size_t done = size;
    const size_t count = Keep<CHexDigits>(text, done, kept);
    return count + Scalar::KeepHexDigits(text + done, size - done, kept + count);
}

VO_AVX size_t DecodeKeptHex(const char* kept, size_t groups, BYTE* bytes) noexcept
{
    size_t i = 0;
    for (; groups - i >= 32; i += 32)
        Store(bytes + i, JoinNibbles(Load(kept + 2 * i), Load(kept + 2 * i + 32)));
    return i + Scalar::DecodeKeptHex(kept + 2 * i, groups - i, bytes + i);
}

size_t KeepNoLineBreaks(const wchar_t* text, size_t size, char* kept) noexcept
{
    size_t done = size;
    const size_t count = Keep<CNoLineBreaks>(text, done, kept);
    return count + Scalar::KeepNoLineBreaks(text + done, size - done, kept + count);
}
} // namespace VoCodecKernels::AVX2
