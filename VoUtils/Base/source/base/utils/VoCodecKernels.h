// The inner loops of the encodings and of text conversion, with VoVectorKernels.h the only place with vector instructions. No
// allocation, no reports, no tolerance. Data conversion, the data parser and INI files call them.
//
// A group is the smallest piece that stands for itself: 2 characters and 1 byte in hexadecimal, 4 and 3 in Base64, 8 and 5 in
// base-32. Every kernel touches exactly the characters and bytes of its groups. All are re-entrant.
#pragma once

#include <base/VoPlatform.h>

#include <cstddef>
#include <optional>
#include <string_view>

namespace VoCodecKernels
{
inline constexpr std::wstring_view kHexDigits = L"0123456789ABCDEF";
inline constexpr std::wstring_view kBase64Standard = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
inline constexpr std::wstring_view kBase64UrlSafe = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
// Crockford's alphabet without B (it is read as 8) and with U.
inline constexpr std::wstring_view kBase32ModifiedCrockford = L"0123456789ACDEFGHJKMNPQRSTUVWXYZ";

void EncodeHex(const BYTE* bytes, size_t groups, wchar_t* text) noexcept;
void EncodeBase64(const BYTE* bytes, size_t groups, bool urlSafe, wchar_t* text) noexcept;
void EncodeBase32(const BYTE* bytes, size_t groups, wchar_t* text) noexcept;

// The decoders give the number of groups in front of the first one with a character that is no digit; bytes behind those groups
// may have been overwritten, but never beyond the space of all groups.
[[nodiscard]] size_t DecodeHex(const wchar_t* text, size_t groups, BYTE* bytes) noexcept;
[[nodiscard]] size_t DecodeBase64(const wchar_t* text, size_t groups, BYTE* bytes) noexcept;
[[nodiscard]] size_t DecodeBase32(const wchar_t* text, size_t groups, BYTE* bytes) noexcept;

// To decode text with other characters between the digits: what is kept of it as bytes, then the groups of the kept bytes.
// Hexadecimal text keeps its digits, as their values from 0 to 15; all groups of these are good. Base64 text keeps all but CR
// and LF; a character above 255 becomes a byte that is no digit. `kept` has room for the whole text. Return the number of kept
// bytes, and of good groups as above.
[[nodiscard]] size_t KeepHexDigits(std::wstring_view text, char* kept) noexcept;
[[nodiscard]] size_t DecodeKeptHex(const char* kept, size_t groups, BYTE* bytes) noexcept;
[[nodiscard]] size_t KeepNoLineBreaks(std::wstring_view text, char* kept) noexcept;
[[nodiscard]] size_t DecodeKeptBase64(const char* kept, size_t groups, BYTE* bytes) noexcept;

// The value of one character, or kNoDigit.
inline constexpr BYTE kNoDigit = 0xFF;
[[nodiscard]] BYTE HexDigitValue(wchar_t character) noexcept;
[[nodiscard]] BYTE Base64DigitValue(wchar_t character) noexcept;
[[nodiscard]] BYTE Base32DigitValue(wchar_t character) noexcept;

// Finds the end of the first line of `size` bytes (a CR, a LF, or the end of the bytes) and returns its length. Writes each
// byte of the line as one 16-bit unit; with `isAscii` these are the line's text. Up to 15 units behind the line are written as
// well.
[[nodiscard]] size_t WidenLine(const char* from, size_t size, wchar_t* to, bool& isAscii) noexcept;
// Writes UTF-8 as UTF-16, at most one unit for each byte, and returns the number of units. Nothing for bytes that are not
// well-formed (the Unicode Standard, table 3-7): the platform decides what becomes of them.
[[nodiscard]] std::optional<size_t> WidenUtf8(std::string_view bytes, wchar_t* to) noexcept;
// Writes each unit of a text as one byte; false when a unit is not ASCII, the bytes are worthless then.
[[nodiscard]] bool NarrowAscii(std::wstring_view text, char* to) noexcept;

// What the kernels above must compute, one element at a time: tests compare both.
namespace Scalar
{
void EncodeHex(const BYTE* bytes, size_t groups, wchar_t* text) noexcept;
[[nodiscard]] size_t DecodeHex(const wchar_t* text, size_t groups, BYTE* bytes) noexcept;
[[nodiscard]] size_t DecodeBase64(const wchar_t* text, size_t groups, BYTE* bytes) noexcept;
// Writes nothing behind the line.
[[nodiscard]] size_t WidenLine(const char* from, size_t size, wchar_t* to, bool& isAscii) noexcept;
[[nodiscard]] bool NarrowAscii(std::wstring_view text, char* to) noexcept;
} // namespace Scalar
} // namespace VoCodecKernels
