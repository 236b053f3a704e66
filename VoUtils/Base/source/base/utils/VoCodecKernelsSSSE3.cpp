// Base64 for processors with SSSE3 (VoVectorKernels.h), 16 characters at a time.
#include "VoCodecKernels.h"
#include "VoVectorKernels.h"

#include <tmmintrin.h>

#define VO_SSSE VO_TARGET("ssse3")

namespace VoCodecKernels::SSSE3
{
namespace
{
VO_SSSE __m128i Load(const void* from) noexcept
{
    return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

VO_SSSE void Store(void* to, __m128i value) noexcept
{
    _mm_storeu_si128(static_cast<__m128i*>(to), value);
}

// The 16 values in the bits of the first 12 bytes.
VO_SSSE __m128i SplitSextets(__m128i bytes) noexcept
{
    // Each group's bytes b0 b1 b2 as b1 b0 b2 b1, so that a multiplication moves each value's bits to the bottom of a byte.
    const __m128i groups = _mm_shuffle_epi8(bytes, _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10));
    const __m128i even = _mm_mulhi_epu16(_mm_and_si128(groups, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
    const __m128i odd = _mm_mullo_epi16(_mm_and_si128(groups, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
    return _mm_or_si128(even, odd);
}

VO_SSSE __m128i Digits(__m128i values, __m128i distances) noexcept
{
    const __m128i isUpper = _mm_cmpgt_epi8(_mm_set1_epi8(26), values);
    const __m128i places = _mm_or_si128(_mm_subs_epu8(values, _mm_set1_epi8(51)), _mm_and_si128(isUpper, _mm_set1_epi8(13)));
    return _mm_add_epi8(values, _mm_shuffle_epi8(distances, places));
}

// 16 characters. Those above 255 become 0 or 255, which are no digits.
VO_SSSE __m128i LoadCharacters(const wchar_t* text) noexcept
{
    return _mm_packus_epi16(Load(text), Load(text + 8));
}
VO_SSSE __m128i LoadCharacters(const char* text) noexcept
{
    return Load(text);
}

// The values of 16 characters; false when one is no digit.
VO_SSSE bool Values(__m128i characters, __m128i& values) noexcept
{
    const __m128i nibble = _mm_set1_epi8(0x0F);
    const __m128i high = _mm_and_si128(_mm_srli_epi32(characters, 4), nibble);
    const __m128i badByHigh = _mm_shuffle_epi8(Load(Base64Lookup::kBadByHighHalf.data()), high);
    const __m128i badByLow = _mm_shuffle_epi8(Load(Base64Lookup::kBadByLowHalf.data()), _mm_and_si128(characters, nibble));
    const __m128i isGood = _mm_cmpeq_epi8(_mm_and_si128(badByHigh, badByLow), _mm_setzero_si128());
    if (_mm_movemask_epi8(isGood) != 0xFFFF)
        return false;
    const __m128i isSlash = _mm_cmpeq_epi8(characters, _mm_set1_epi8('/'));
    const __m128i isMinus = _mm_cmpeq_epi8(characters, _mm_set1_epi8('-'));
    const __m128i isUnderscore = _mm_cmpeq_epi8(characters, _mm_set1_epi8('_'));
    __m128i places = _mm_add_epi8(high, _mm_add_epi8(isMinus, _mm_add_epi8(isSlash, isSlash)));
    places = _mm_or_si128(places, _mm_and_si128(isUnderscore, _mm_set1_epi8(8)));
    values = _mm_add_epi8(characters, _mm_shuffle_epi8(Load(Base64Lookup::kDistancesToValue.data()), places));
    return true;
}

// 16 values to 12 bytes; zeros behind them.
VO_SSSE __m128i JoinSextets(__m128i values) noexcept
{
    const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
    const __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
    return _mm_shuffle_epi8(groups, _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
}

template <class TCharacter>
VO_SSSE size_t Decode(const TCharacter* text, size_t groups, BYTE* bytes) noexcept
{
    size_t i = 0;
    // Stores four bytes too many, which later groups overwrite.
    for (; groups - i >= 6; i += 4)
    {
        __m128i values;
        if (!Values(LoadCharacters(text + 4 * i), values))
            break;
        Store(bytes + 3 * i, JoinSextets(values));
    }
    return i;
}
} // namespace

VO_SSSE void EncodeBase64(const BYTE* bytes, size_t groups, bool urlSafe, wchar_t* text) noexcept
{
    const __m128i zero = _mm_setzero_si128();
    const __m128i distances = Load(urlSafe ? Base64Lookup::kUrlSafeDistances.data() : Base64Lookup::kStandardDistances.data());
    size_t i = 0;
    // Loads four bytes too many.
    for (; groups - i >= 6; i += 4)
    {
        const __m128i digits = Digits(SplitSextets(Load(bytes + 3 * i)), distances);
        Store(text + 4 * i, _mm_unpacklo_epi8(digits, zero));
        Store(text + 4 * i + 8, _mm_unpackhi_epi8(digits, zero));
    }
    Scalar::EncodeBase64(bytes + 3 * i, groups - i, urlSafe, text + 4 * i);
}

size_t DecodeBase64(const wchar_t* text, size_t groups, BYTE* bytes) noexcept
{
    const size_t done = Decode(text, groups, bytes);
    return done + Scalar::DecodeBase64(text + 4 * done, groups - done, bytes + 3 * done);
}

size_t DecodeKeptBase64(const char* kept, size_t groups, BYTE* bytes) noexcept
{
    const size_t done = Decode(kept, groups, bytes);
    return done + Scalar::DecodeKeptBase64(kept + 4 * done, groups - done, bytes + 3 * done);
}
} // namespace VoCodecKernels::SSSE3
