// The kernels of VoCodecKernels.h that exist more than once: for every processor, for SSSE3 and for AVX2. VoCodecKernels.cpp
// chooses; tests compare them.
#pragma once

#include "../VoTarget.h"

#include <base/VoPlatform.h>
#include <base/VoSystemProperties.h>

#include <array>
#include <cstddef>

namespace VoCodecKernels
{
// The kernels for one kind of processor. Groups and results as in VoCodecKernels.h.
struct CVectorKernels
{
    void (*encodeHex)(const BYTE* bytes, size_t groups, wchar_t* text) noexcept;
    size_t (*decodeHex)(const wchar_t* text, size_t groups, BYTE* bytes) noexcept;
    void (*encodeBase64)(const BYTE* bytes, size_t groups, bool urlSafe, wchar_t* text) noexcept;
    size_t (*decodeBase64)(const wchar_t* text, size_t groups, BYTE* bytes) noexcept;

    size_t (*keepHexDigits)(const wchar_t* text, size_t size, char* kept) noexcept;
    size_t (*decodeKeptHex)(const char* kept, size_t groups, BYTE* bytes) noexcept;
    size_t (*keepNoLineBreaks)(const wchar_t* text, size_t size, char* kept) noexcept;
    size_t (*decodeKeptBase64)(const char* kept, size_t groups, BYTE* bytes) noexcept;
};

// The kernels that a processor with these instructions runs.
[[nodiscard]] const CVectorKernels& KernelsFor(VoSystemProperties::EVectors vectors) noexcept;

namespace Scalar
{
void EncodeBase64(const BYTE* bytes, size_t groups, bool urlSafe, wchar_t* text) noexcept;
[[nodiscard]] size_t KeepHexDigits(const wchar_t* text, size_t size, char* kept) noexcept;
[[nodiscard]] size_t DecodeKeptHex(const char* kept, size_t groups, BYTE* bytes) noexcept;
[[nodiscard]] size_t KeepNoLineBreaks(const wchar_t* text, size_t size, char* kept) noexcept;
[[nodiscard]] size_t DecodeKeptBase64(const char* kept, size_t groups, BYTE* bytes) noexcept;
} // namespace Scalar

namespace SSSE3
{
void EncodeBase64(const BYTE* bytes, size_t groups, bool urlSafe, wchar_t* text) noexcept;
[[nodiscard]] size_t DecodeBase64(const wchar_t* text, size_t groups, BYTE* bytes) noexcept;
[[nodiscard]] size_t DecodeKeptBase64(const char* kept, size_t groups, BYTE* bytes) noexcept;
} // namespace SSSE3

namespace AVX2
{
void EncodeHex(const BYTE* bytes, size_t groups, wchar_t* text) noexcept;
[[nodiscard]] size_t DecodeHex(const wchar_t* text, size_t groups, BYTE* bytes) noexcept;
void EncodeBase64(const BYTE* bytes, size_t groups, bool urlSafe, wchar_t* text) noexcept;
[[nodiscard]] size_t DecodeBase64(const wchar_t* text, size_t groups, BYTE* bytes) noexcept;
[[nodiscard]] size_t KeepHexDigits(const wchar_t* text, size_t size, char* kept) noexcept;
[[nodiscard]] size_t DecodeKeptHex(const char* kept, size_t groups, BYTE* bytes) noexcept;
[[nodiscard]] size_t KeepNoLineBreaks(const wchar_t* text, size_t size, char* kept) noexcept;
[[nodiscard]] size_t DecodeKeptBase64(const char* kept, size_t groups, BYTE* bytes) noexcept;
} // namespace AVX2

// Tables for a lookup by the low four bits of a byte (PSHUFB), which both vector files use. Values and digits as in
// kBase64Standard and kBase64UrlSafe.
namespace Base64Lookup
{
using CTable = std::array<char, 16>;

// To encode: the distance from a value to its digit. Values 0 to 25 stand in place 13, 26 to 51 in 0, the others from 1 on.
constexpr CTable MakeDistances(char digit62, char digit63) noexcept
{
    CTable distances{};
    distances.fill('0' - 52);
    distances[0] = 'a' - 26;
    distances[11] = static_cast<char>(digit62 - 62);
    distances[12] = static_cast<char>(digit63 - 63);
    distances[13] = 'A';
    return distances;
}
inline constexpr CTable kStandardDistances = MakeDistances('+', '/');
inline constexpr CTable kUrlSafeDistances = MakeDistances('-', '_');

// To decode: a character is no digit when these two have a bit in common. Each bit stands for the digits that share a high
// half: 1: "+-/", 2: "0" to "9", 4: "A" to "O" and "a" to "o", 8: "P" to "Z" and "_", 16: "p" to "z", 32: none.
inline constexpr CTable kBadByHighHalf = { 32, 32, 1, 2, 4, 8, 4, 16, 32, 32, 32, 32, 32, 32, 32, 32 };
inline constexpr CTable kBadByLowHalf = { 37, 33, 33, 33, 33, 33, 33, 33, 33, 33, 35, 58, 59, 58, 59, 50 };
// The distance from a digit to its value, by its high half; "/" stands in place 0, "-" in 1 and "_" in 13.
inline constexpr CTable kDistancesToValue = { 63 - '/', 62 - '-', 62 - '+', 52 - '0', -'A', -'A', 26 - 'a',
                                              26 - 'a', 0,        0,        0,        0,    0,    63 - '_' };
} // namespace Base64Lookup
} // namespace VoCodecKernels
