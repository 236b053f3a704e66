// Bytes to text and back: upper-case hexadecimal, Base64 (standard and URL-safe) and the library's base-32.
//
// The decoders are tolerant of the way such text arrives: pasted with line breaks, surrounded by white space, padded with "="
// or with "%3D". All functions are re-entrant and share no state.
//
// Decoders: the buffer is allocated with new BYTE[] and belongs to the caller (CVoByteBuffer takes it in); a null buffer
// pointer asks for the size alone. E_INVALIDARG for malformed text; on failure nothing is written and nothing leaks. `length`
// is in bytes. Encoders: `line` is the line length in characters, 0 or less for one line; the text is replaced, and the bytes
// may be its own. Always S_OK. A result buffer or text that cannot be allocated throws std::bad_alloc.
#pragma once

#include <base/VoPlatform.h>
#include <base/VoText.h>

#include <string>
#include <string_view>

namespace VoDataConversion
{
// Skips every character that is no hexadecimal digit, without complaint (so the "0" of a "0x" prefix counts as a digit).
// E_INVALIDARG for an odd number of digits.
[[nodiscard]] HRESULT HexToBin(CVoTextView text, BYTE** buffer, UINT32* length);

// A line ends behind the pair that reaches the line length, so an odd one gives lines one character longer; a break may end
// the text.
HRESULT BinToHex(const BYTE* bytes, INT32 count, std::wstring& text, INT32 line);

// Accepts both alphabets, even mixed. Inner blanks are malformed; the unused low bits of the last character are not checked.
[[nodiscard]] HRESULT Base64ToBin(CVoTextView text, BYTE** buffer, UINT32* length);

// Lines hold one character more than `line` asks for: readers of stored text depend on it, so it must stay. URL-safe text has
// neither padding nor line breaks.
HRESULT BinToBase64(const BYTE* bytes, INT32 count, bool urlSafe, std::wstring& text, INT32 line);

// Crockford's alphabet with B read as 8 and U as a digit of its own; bits run from the lowest.
[[nodiscard]] HRESULT Base32ModifiedCrockfordToBin(CVoTextView text, BYTE** buffer, UINT32* length);

// `pad` pads a tail of two characters to four, and nothing else: readers of stored text depend on it.
HRESULT BinToBase32ModifiedCrockford(const BYTE* bytes, INT32 count, bool pad, std::wstring& text, INT32 line);

// A value in 0..65535 as it is. Out of range: E_FAIL and an untouched `word` when `strict`, else the nearer bound.
[[nodiscard]] HRESULT ClampToWord(INT32 value, UINT16& word, bool strict);
} // namespace VoDataConversion
