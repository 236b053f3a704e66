#include <base/utils/VoDataConversion.h>

#include "VoCodecKernels.h"

#include <base/VoErrorHandler.h>
#include <base/VoUtils.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <memory>

namespace VoDataConversion
{
namespace
{
constexpr const wchar_t* kSource = L"..\\..\\source\\base\\utils\\VoDataConversion";

constexpr size_t kBadRemainder = std::numeric_limits<size_t>::max();

// Character to value. The offending character's code stands in the log in place of the result code, where it says more.
HRESULT ReportBadCharacter(const CVoReporter& report, int line, int lineWhenNul, wchar_t character) noexcept
{
    if (character != L'\0')
        report(line, static_cast<HRESULT>(character));
    else
        report(lineWhenNul, E_INVALIDARG);
    return E_INVALIDARG;
}

HRESULT internalGetQuintet(wchar_t character, BYTE& value) noexcept
{
    constexpr CVoReporter report{ kSource, L"internalGetQuintet" };
    const BYTE digit = VoCodecKernels::Base32DigitValue(character);
    if (digit == VoCodecKernels::kNoDigit)
        return ReportBadCharacter(report, 46, 47, character);
    value = digit;
    return S_OK;
}

HRESULT internal8To5(const BYTE (&values)[8], BYTE (&bytes)[5]) noexcept
{
    constexpr CVoReporter report{ kSource, L"internal8To5" };
    UINT64 bits = 0;
    for (size_t i = 0; i < 8; ++i)
    {
        if (values[i] > 31)
            return report(62, E_INVALIDARG);
        bits |= static_cast<UINT64>(values[i]) << (5 * i);
    }
    for (size_t i = 0; i < 5; ++i)
        bytes[i] = static_cast<BYTE>(bits >> (8 * i) & 0xFF);
    return S_OK;
}

HRESULT internalGetSextet(wchar_t character, BYTE& value) noexcept
{
    constexpr CVoReporter report{ kSource, L"internalGetSextet" };
    const BYTE digit = VoCodecKernels::Base64DigitValue(character);
    if (digit == VoCodecKernels::kNoDigit)
        return ReportBadCharacter(report, 84, 85, character);
    value = digit;
    return S_OK;
}

HRESULT internal4To3(const BYTE (&values)[4], BYTE (&bytes)[3]) noexcept
{
    constexpr CVoReporter report{ kSource, L"internal4To3" };
    for (const BYTE value : values)
        if (value > 63)
            return report(98, E_INVALIDARG);
    bytes[0] = static_cast<BYTE>(values[0] << 2 | values[1] >> 4);
    bytes[1] = static_cast<BYTE>((values[1] << 4 | values[2] >> 2) & 0xFF);
    bytes[2] = static_cast<BYTE>((values[2] << 6 | values[3]) & 0xFF);
    return S_OK;
}

// What the shared decoding needs to know of an encoding. A group of kCharacters stands for kBytes; ExtraBytes gives the bytes
// of a shorter one at the end, or kBadRemainder. DecodeGroup decodes one group, whole or short, with reports; DecodeGroups is
// the fast kernel.
struct CHex
{
    static constexpr size_t kCharacters = 2;
    static constexpr size_t kBytes = 1;
    static constexpr auto DecodeGroups = VoCodecKernels::DecodeHex;
    static constexpr bool kReportsRemainder = false;
    static constexpr int kRemainderLine = 200;

    static size_t ExtraBytes(size_t remainder) noexcept { return remainder == 0 ? 0 : kBadRemainder; }
    static bool IsDigit(wchar_t character) noexcept
    {
        return VoCodecKernels::HexDigitValue(character) != VoCodecKernels::kNoDigit;
    }
    static bool IsSkipped(wchar_t character) noexcept { return !IsDigit(character); }
    static HRESULT DecodeGroup(const wchar_t* text, size_t, BYTE (&bytes)[kBytes]) noexcept
    {
        return DecodeGroups(text, 1, bytes) == 1 ? S_OK : E_INVALIDARG;
    }
};

struct CBase64
{
    static constexpr size_t kCharacters = 4;
    static constexpr size_t kBytes = 3;
    static constexpr auto DecodeGroups = VoCodecKernels::DecodeBase64;
    static constexpr bool kReportsRemainder = true;
    static constexpr int kRemainderLine = 210;

    static size_t ExtraBytes(size_t remainder) noexcept
    {
        constexpr size_t kExtra[kCharacters] = { 0, kBadRemainder, 1, 2 };
        return kExtra[remainder];
    }
    static bool IsDigit(wchar_t character) noexcept
    {
        return VoCodecKernels::Base64DigitValue(character) != VoCodecKernels::kNoDigit;
    }
    static bool IsSkipped(wchar_t character) noexcept { return character == L'\r' || character == L'\n'; }
    static HRESULT DecodeGroup(const wchar_t* text, size_t count, BYTE (&bytes)[kBytes]) noexcept
    {
        BYTE values[kCharacters] = {};
        for (size_t i = 0; i < count; ++i)
            if (const HRESULT hr = internalGetSextet(text[i], values[i]); FAILED(hr))
                return hr;
        return internal4To3(values, bytes);
    }
};

struct CBase32
{
    static constexpr size_t kCharacters = 8;
    static constexpr size_t kBytes = 5;
    static constexpr auto DecodeGroups = VoCodecKernels::DecodeBase32;
    static constexpr bool kReportsRemainder = true;
    static constexpr int kRemainderLine = 220;

    static size_t ExtraBytes(size_t remainder) noexcept
    {
        constexpr size_t kExtra[kCharacters] = { 0, kBadRemainder, 1, kBadRemainder, 2, 3, kBadRemainder, 4 };
        return kExtra[remainder];
    }
    static bool IsDigit(wchar_t character) noexcept
    {
        return VoCodecKernels::Base32DigitValue(character) != VoCodecKernels::kNoDigit;
    }
    static bool IsSkipped(wchar_t character) noexcept
    {
        return character == L'\r' || character == L'\n' || character == L'\t' || character == L' ' || character == L'=';
    }
    static HRESULT DecodeGroup(const wchar_t* text, size_t count, BYTE (&bytes)[kBytes]) noexcept
    {
        BYTE values[kCharacters] = {};
        for (size_t i = 0; i < count; ++i)
            if (const HRESULT hr = internalGetQuintet(text[i], values[i]); FAILED(hr))
                return hr;
        return internal8To5(values, bytes);
    }
};

// A decoded text on its way to the caller.
struct CDecoded
{
    std::unique_ptr<BYTE[]> bytes;
    size_t length = 0;

    void Allocate(size_t size)
    {
        bytes = std::make_unique_for_overwrite<BYTE[]>(size);
        length = size;
    }
};

// The size of the bytes for that many characters, or kBadRemainder.
template <class TCodec>
size_t DecodedSize(size_t characters) noexcept
{
    const size_t extra = TCodec::ExtraBytes(characters % TCodec::kCharacters);
    return extra == kBadRemainder ? kBadRemainder : characters / TCodec::kCharacters * TCodec::kBytes + extra;
}

// Decodes text that holds nothing but digits. The group that stops the kernel is decoded again with reports.
template <class TCodec>
HRESULT DecodeDigits(const wchar_t* text, size_t count, BYTE* bytes) noexcept
{
    const size_t groups = count / TCodec::kCharacters;
    const size_t decoded = TCodec::DecodeGroups(text, groups, bytes);
    const size_t rest = std::min(count - decoded * TCodec::kCharacters, TCodec::kCharacters);
    if (rest == 0)
        return S_OK;
    BYTE group[TCodec::kBytes] = {};
    if (const HRESULT hr = TCodec::DecodeGroup(text + decoded * TCodec::kCharacters, rest, group); FAILED(hr))
        return hr;
    if (decoded < groups)
        return E_FAIL; // the kernel refused what the digits allow; a guard
    std::copy_n(group, TCodec::ExtraBytes(rest), bytes + decoded * TCodec::kBytes);
    return S_OK;
}

// Decodes clean text, which is the usual case, in one pass. False, without a report, when there is anything else in the text.
template <class TCodec>
bool TryDecodeClean(std::wstring_view text, CDecoded& decoded)
{
    const size_t size = DecodedSize<TCodec>(text.size());
    if (size == kBadRemainder)
        return false;
    const size_t groups = text.size() / TCodec::kCharacters;
    const std::wstring_view tail = text.substr(groups * TCodec::kCharacters);
    if (!std::all_of(tail.begin(), tail.end(), TCodec::IsDigit))
        return false;
    decoded.Allocate(size);
    if (TCodec::DecodeGroups(text.data(), groups, decoded.bytes.get()) != groups)
        return false;
    return SUCCEEDED(DecodeDigits<TCodec>(tail.data(), tail.size(), decoded.bytes.get() + groups * TCodec::kBytes));
}

// Decodes text with skipped characters in it, block by block.
template <class TCodec>
HRESULT DecodeFiltered(std::wstring_view text, BYTE* bytes) noexcept
{
    wchar_t block[2048]; // whole groups of every encoding
    static_assert(std::size(block) % TCodec::kCharacters == 0);
    size_t used = 0;
    for (const wchar_t character : text)
    {
        block[used] = character;
        used += static_cast<size_t>(!TCodec::IsSkipped(character));
        if (used < std::size(block))
            continue;
        if (const HRESULT hr = DecodeDigits<TCodec>(block, used, bytes); FAILED(hr))
            return hr;
        bytes += used / TCodec::kCharacters * TCodec::kBytes;
        used = 0;
    }
    return DecodeDigits<TCodec>(block, used, bytes);
}

// Decodes text as it arrives, with characters to skip or malformed, and reports what is wrong with it.
template <class TCodec>
HRESULT DecodeTolerant(const CVoReporter& report, std::wstring_view text, CDecoded& decoded)
{
    const auto skipped = static_cast<size_t>(std::count_if(text.begin(), text.end(), TCodec::IsSkipped));
    const size_t count = text.size() - skipped;
    const size_t size = DecodedSize<TCodec>(count);
    if (size == kBadRemainder)
    {
        if constexpr (TCodec::kReportsRemainder)
            report(TCodec::kRemainderLine, static_cast<HRESULT>(count % TCodec::kCharacters));
        return report(TCodec::kRemainderLine + 1, E_INVALIDARG);
    }
    decoded.Allocate(size);
    if (const HRESULT hr = DecodeFiltered<TCodec>(text, decoded.bytes.get()); FAILED(hr))
        return report(TCodec::kRemainderLine + 2, hr);
    return S_OK;
}

// The last step of every decoder, and the only one that writes to the caller.
HRESULT HandOver(const CVoReporter& report, int line, CDecoded&& decoded, BYTE** buffer, UINT32* length) noexcept
{
    if (!length || decoded.length > std::numeric_limits<UINT32>::max())
        return report(line, E_INVALIDARG);
    *length = static_cast<UINT32>(decoded.length);
    if (buffer)
        *buffer = decoded.bytes.release();
    return S_OK;
}

// The text without any occurrence of `part`. What closes up is not looked at again.
std::wstring Without(std::wstring_view text, std::wstring_view part)
{
    std::wstring rest;
    rest.reserve(text.size());
    for (;;)
    {
        const size_t found = text.find(part);
        rest.append(text.substr(0, found));
        if (found == std::wstring_view::npos)
            return rest;
        text.remove_prefix(found + part.size());
    }
}

// Makes room for a text of that size. The old text stays until the new room is there.
void Resize(std::wstring& text, size_t size)
{
    if (text.capacity() >= size)
        text.resize(size);
    else
        text = std::wstring(size, L'\0');
}

// The text of an encoder: `characters` of them, written by `encode`, with a line break behind every `line` of them (0 for
// none), so that a break may end the text. Room is made once; the characters are written at its end and the lines moved to
// their places from there, front to back.
template <class TEncode>
void EncodeLines(std::wstring& text, size_t characters, size_t line, TEncode encode)
{
    const size_t breaks = line > 0 ? characters / line : 0;
    Resize(text, characters + 2 * breaks);
    wchar_t* to = text.data();
    const wchar_t* from = to + 2 * breaks;
    encode(to + 2 * breaks);
    for (size_t i = 0; i < breaks; ++i, to += 2, from += line)
    {
        to = std::copy_n(from, line, to);
        to[0] = L'\r';
        to[1] = L'\n';
    }
    // The characters behind the last break stand where they belong already.
}

size_t ByteCount(const BYTE* bytes, INT32 count) noexcept
{
    return bytes && count > 0 ? static_cast<size_t>(count) : 0;
}
} // namespace

HRESULT HexToBin(std::wstring_view text, BYTE** buffer, UINT32* length)
{
    constexpr CVoReporter report{ kSource, L"VoDataConversion::HexToBin" };
    CDecoded decoded;
    if (!TryDecodeClean<CHex>(text, decoded))
        if (const HRESULT hr = DecodeTolerant<CHex>(report, text, decoded); FAILED(hr))
            return hr;
    return HandOver(report, 384, std::move(decoded), buffer, length);
}

HRESULT BinToHex(const BYTE* bytes, INT32 count, std::wstring& text, INT32 line)
{
    // A line is looked at behind each pair of characters, so an odd length gives lines one character longer.
    const size_t lineLength = line > 0 ? (static_cast<size_t>(line) + 1) / 2 * 2 : 0;
    const size_t size = ByteCount(bytes, count);
    EncodeLines(text, 2 * size, lineLength, [&](wchar_t* to) { VoCodecKernels::EncodeHex(bytes, size, to); });
    return S_OK;
}

HRESULT Base64ToBin(std::wstring_view text, BYTE** buffer, UINT32* length)
{
    constexpr CVoReporter report{ kSource, L"VoDataConversion::Base64ToBin" };
    text = VoTrim(text);
    while (text.ends_with(L'='))
        text.remove_suffix(1);
    // Padding that was URL-encoded: two characters of it at most, and none in front of padding written as it is.
    for (int i = 0; i < 2; ++i)
        if (text.ends_with(L"%3D") || text.ends_with(L"%3d"))
            text.remove_suffix(3);
    CDecoded decoded;
    if (!TryDecodeClean<CBase64>(text, decoded))
        if (const HRESULT hr = DecodeTolerant<CBase64>(report, text, decoded); FAILED(hr))
            return hr;
    return HandOver(report, 410, std::move(decoded), buffer, length);
}

HRESULT BinToBase64(const BYTE* bytes, INT32 count, bool urlSafe, std::wstring& text, INT32 line)
{
    const size_t size = ByteCount(bytes, count);
    const size_t groups = size / 3;
    const size_t tailBytes = size % 3;
    const size_t tailDigits = tailBytes > 0 ? tailBytes + 1 : 0;
    const size_t tailCharacters = urlSafe || tailBytes == 0 ? tailDigits : 4;

    // The limit counts a line as full when it has been passed, so lines hold one character more than asked for. Without a line
    // length the limit is twice the count, which only the padded text of a single byte passes. Both are intended: readers of
    // stored text depend on them.
    const size_t limit = line > 0 ? static_cast<size_t>(line) : 2 * size;
    const size_t lineLength = urlSafe ? 0 : limit + 1;

    EncodeLines(text, 4 * groups + tailCharacters, lineLength,
                [&](wchar_t* to)
                {
                    VoCodecKernels::EncodeBase64(bytes, groups, urlSafe, to);
                    if (tailBytes == 0)
                        return;
                    BYTE tail[3] = {};
                    std::copy_n(bytes + 3 * groups, tailBytes, tail);
                    wchar_t digits[4];
                    VoCodecKernels::EncodeBase64(tail, 1, urlSafe, digits);
                    std::fill(digits + tailDigits, std::end(digits), L'=');
                    std::copy_n(digits, tailCharacters, to + 4 * groups);
                });
    return S_OK;
}

HRESULT Base32ModifiedCrockfordToBin(std::wstring_view text, BYTE** buffer, UINT32* length)
{
    constexpr CVoReporter report{ kSource, L"VoDataConversion::Base32ModifiedCrockfordToBin" };
    text = VoTrim(text);
    CDecoded decoded;
    if (!TryDecodeClean<CBase32>(text, decoded))
    {
        std::wstring rest;
        if (text.find(L'%') != std::wstring_view::npos)
        {
            // Separators go first: what they split counts as padding once they are gone.
            std::copy_if(text.begin(), text.end(), std::back_inserter(rest), [](wchar_t c) { return !CBase32::IsSkipped(c); });
            rest = Without(Without(rest, L"%3D"), L"%3d");
            text = rest;
        }
        if (const HRESULT hr = DecodeTolerant<CBase32>(report, text, decoded); FAILED(hr))
            return hr;
    }
    return HandOver(report, 462, std::move(decoded), buffer, length);
}

HRESULT BinToBase32ModifiedCrockford(const BYTE* bytes, INT32 count, bool pad, std::wstring& text, INT32 line)
{
    constexpr size_t kTailDigits[] = { 0, 2, 4, 5, 7 };
    const size_t size = ByteCount(bytes, count);
    const size_t groups = size / 5;
    const size_t tailBytes = size % 5;
    const size_t tailDigits = kTailDigits[tailBytes];
    // Padding fills a tail up to four characters, not to a whole group, so that only a tail of one byte has any. This is
    // intended: readers of stored text depend on it.
    const size_t tailCharacters = pad && tailBytes > 0 ? std::max<size_t>(tailDigits, 4) : tailDigits;
    const size_t lineLength = line > 0 ? static_cast<size_t>(line) : 0;

    EncodeLines(text, 8 * groups + tailCharacters, lineLength,
                [&](wchar_t* to)
                {
                    VoCodecKernels::EncodeBase32(bytes, groups, to);
                    if (tailBytes == 0)
                        return;
                    BYTE tail[5] = {};
                    std::copy_n(bytes + 5 * groups, tailBytes, tail);
                    wchar_t digits[8];
                    VoCodecKernels::EncodeBase32(tail, 1, digits);
                    std::fill(digits + tailDigits, std::end(digits), L'=');
                    std::copy_n(digits, tailCharacters, to + 8 * groups);
                });
    return S_OK;
}

HRESULT ClampToWord(INT32 value, UINT16& word, bool strict)
{
    constexpr CVoReporter report{ kSource, L"VoDataConversion::ClampToWord" };
    constexpr INT32 kHighest = std::numeric_limits<UINT16>::max();
    if (strict && (value < 0 || value > kHighest))
        return report(502, E_FAIL);
    word = static_cast<UINT16>(std::clamp<INT32>(value, 0, kHighest));
    return S_OK;
}
} // namespace VoDataConversion
