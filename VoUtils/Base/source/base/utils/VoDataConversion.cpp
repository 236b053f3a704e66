// Hexadecimal, Base64 and base-32 (VoDataConversion.h).
#include <base/utils/VoDataConversion.h>

#include "VoCodecKernels.h"

#include <base/VoErrorHandler.h>
#include <base/VoText.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <memory>
#include <span>

namespace VoDataConversion
{
namespace
{
constexpr const wchar_t* kSource = L"..\\..\\source\\base\\utils\\VoDataConversion";

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

// What the shared code needs to know of an encoding. A group of kCharacters stands for kBytes; IsPossible tells whether so many
// characters of a shorter one may end the text. DecodeGroup decodes one group, whole or short (the rest counts as zeros), with
// reports; DecodeGroups is the fast kernel.
struct CHex
{
    static constexpr size_t kCharacters = 2;
    static constexpr size_t kBytes = 1;
    static constexpr auto DecodeGroups = VoCodecKernels::DecodeHex;
    static constexpr bool kReportsRemainder = false;
    static constexpr int kRemainderLine = 200;

    static bool IsPossible(size_t remainder) noexcept { return remainder == 0; }
    static bool IsDigit(wchar_t character) noexcept
    {
        const auto decimal = static_cast<UINT16>(character - L'0');
        const auto letter = static_cast<UINT16>((character | 0x20) - L'a');
        return static_cast<bool>(static_cast<unsigned>(decimal < 10) | static_cast<unsigned>(letter < 6));
    }
    static bool IsSkipped(wchar_t character) noexcept { return !IsDigit(character); }
    static HRESULT DecodeGroup(const wchar_t* text, size_t count, BYTE (&bytes)[kBytes]) noexcept
    {
        const size_t groups = count / kCharacters;
        return DecodeGroups(text, groups, bytes) == groups ? S_OK : E_INVALIDARG;
    }
};

struct CBase64
{
    static constexpr size_t kCharacters = 4;
    static constexpr size_t kBytes = 3;
    static constexpr auto DecodeGroups = VoCodecKernels::DecodeBase64;
    static constexpr bool kReportsRemainder = true;
    static constexpr int kRemainderLine = 210;

    static bool IsPossible(size_t remainder) noexcept { return remainder != 1; }
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

    static bool IsPossible(size_t remainder) noexcept { return remainder != 1 && remainder != 3 && remainder != 6; }
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

// The buffer that a decoder fills and then gives to the caller.
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

// Whole bytes for that many characters. What is left of the bits of a short group is dropped.
template <class TCodec>
size_t DecodedSize(size_t characters) noexcept
{
    return characters / TCodec::kCharacters * TCodec::kBytes +
           characters % TCodec::kCharacters * TCodec::kBytes / TCodec::kCharacters;
}

// Decodes clean text, which is the usual case, in one pass. False, without a report, when there is anything else in the text.
template <class TCodec>
bool TryDecodeClean(CVoTextView text, CDecoded& decoded)
{
    const size_t groups = text.size() / TCodec::kCharacters;
    const std::wstring_view tail = text.substr(groups * TCodec::kCharacters);
    if (!TCodec::IsPossible(tail.size()) || !std::all_of(tail.begin(), tail.end(), TCodec::IsDigit))
        return false;
    decoded.Allocate(DecodedSize<TCodec>(text.size()));
    if (TCodec::DecodeGroups(text.data(), groups, decoded.bytes.get()) != groups)
        return false;
    BYTE group[TCodec::kBytes];
    if (FAILED(TCodec::DecodeGroup(tail.data(), tail.size(), group)))
        return false;
    std::copy_n(group, DecodedSize<TCodec>(tail.size()), decoded.bytes.get() + groups * TCodec::kBytes);
    return true;
}

// How many characters of the text are skipped. Counting in 16 bits lets compilers look at many characters at a time.
template <class TCodec>
size_t CountSkipped(std::wstring_view text) noexcept
{
    constexpr size_t kBlock = 1 << 14;
    size_t count = 0;
    for (; !text.empty(); text.remove_prefix(std::min(text.size(), kBlock)))
    {
        UINT16 inBlock = 0;
        for (const wchar_t character : text.substr(0, kBlock))
            inBlock = static_cast<UINT16>(inBlock + static_cast<UINT16>(TCodec::IsSkipped(character)));
        count += inBlock;
    }
    return count;
}

// Takes the next `count` kept characters off the front of `text`, which must hold them.
template <class TCodec>
void TakeKept(std::wstring_view& text, wchar_t* kept, size_t count) noexcept
{
    size_t i = 0;
    for (size_t taken = 0; taken < count; ++i)
        if (!TCodec::IsSkipped(text[i]))
            kept[taken++] = text[i];
    text.remove_prefix(i);
}

// Decodes text with skipped characters in it; `count` others. The kernel runs straight over the text from one interruption to
// the next; only the group that it stops at is put together by hand, and reported when it is bad.
template <class TCodec>
HRESULT DecodeFiltered(CVoTextView text, size_t count, BYTE* bytes) noexcept
{
    for (size_t groups = count / TCodec::kCharacters;;)
    {
        const size_t decoded = TCodec::DecodeGroups(text.data(), std::min(groups, text.size() / TCodec::kCharacters), bytes);
        text.remove_prefix(decoded * TCodec::kCharacters);
        bytes += decoded * TCodec::kBytes;
        groups -= decoded;

        const size_t inGroup = groups > 0 ? TCodec::kCharacters : count % TCodec::kCharacters;
        wchar_t kept[TCodec::kCharacters];
        BYTE group[TCodec::kBytes];
        TakeKept<TCodec>(text, kept, inGroup);
        if (const HRESULT hr = TCodec::DecodeGroup(kept, inGroup, group); FAILED(hr))
            return hr;
        bytes = std::copy_n(group, DecodedSize<TCodec>(inGroup), bytes);
        if (groups == 0)
            return S_OK;
        --groups;
    }
}

// Decodes text as it arrives, with characters to skip or malformed, and reports what is wrong with it.
template <class TCodec>
HRESULT DecodeTolerant(const CVoReporter& report, CVoTextView text, CDecoded& decoded)
{
    const size_t count = text.size() - CountSkipped<TCodec>(text);
    if (!TCodec::IsPossible(count % TCodec::kCharacters))
    {
        if constexpr (TCodec::kReportsRemainder)
            report(TCodec::kRemainderLine, static_cast<HRESULT>(count % TCodec::kCharacters));
        return report(TCodec::kRemainderLine + 1, E_INVALIDARG);
    }
    decoded.Allocate(DecodedSize<TCodec>(count));
    if (const HRESULT hr = DecodeFiltered<TCodec>(text, count, decoded.bytes.get()); FAILED(hr))
        return report(TCodec::kRemainderLine + 2, hr);
    return S_OK;
}

// The last step of every decoder, and the only one that writes to the caller.
HRESULT HandOver(const CVoReporter& report, int line, CDecoded& decoded, BYTE** buffer, UINT32* length) noexcept
{
    if (!length || decoded.length > std::numeric_limits<UINT32>::max())
        return report(line, E_INVALIDARG);
    *length = static_cast<UINT32>(decoded.length);
    if (buffer)
        *buffer = decoded.bytes.release();
    return S_OK;
}

// The text without any occurrence of `part`. An occurrence that a removal creates stays.
std::wstring Without(CVoTextView text, CVoTextView part)
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

// Collects the text of an encoder, with a line break behind every `line` characters (0 for none), so that a break may end the
// text. Room for the whole text is made once.
class CLineWriter
{
public:
    CLineWriter(std::wstring& text, size_t characters, size_t line) : m_text(text), m_line(line), m_left(line)
    {
        const size_t size = characters + (line > 0 ? characters / line * 2 : 0);
        if (m_text.capacity() < size)
        {
            // Keep the old text until the new room is allocated; do not reuse its larger capacity.
            std::wstring room;
            room.reserve(size);
            m_text.swap(room);
        }
        m_text.clear();
    }

    void Write(std::wstring_view characters)
    {
        while (m_line > 0 && characters.size() >= m_left)
        {
            m_text.append(characters.substr(0, m_left)).append(L"\r\n", 2);
            characters.remove_prefix(m_left);
            m_left = m_line;
        }
        m_text.append(characters);
        m_left -= characters.size();
    }

private:
    std::wstring& m_text;
    size_t m_line;
    size_t m_left; // characters until the next break; without meaning when there are no lines
};

// Encodes bytes by way of a small block, so that the text itself is written once and in order. A last group that is not whole
// is filled up with zeros; of its characters the first `tailDigits` count, and "=" fills the text up to `tailCharacters`.
template <class TCodec, class TEncodeGroups>
void Encode(std::span<const BYTE> bytes, std::wstring& text, size_t line, size_t tailDigits, size_t tailCharacters,
            TEncodeGroups encodeGroups)
{
    constexpr size_t kBlockGroups = 4096 / TCodec::kCharacters;
    wchar_t block[kBlockGroups * TCodec::kCharacters];
    const size_t tailBytes = bytes.size() % TCodec::kBytes;
    CLineWriter writer(text, bytes.size() / TCodec::kBytes * TCodec::kCharacters + tailCharacters, line);
    while (bytes.size() >= TCodec::kBytes)
    {
        const size_t groups = std::min(bytes.size() / TCodec::kBytes, kBlockGroups);
        encodeGroups(bytes.data(), groups, block);
        writer.Write({ block, groups * TCodec::kCharacters });
        bytes = bytes.subspan(groups * TCodec::kBytes);
    }
    if (tailBytes == 0)
        return;
    BYTE tail[TCodec::kBytes] = {};
    std::copy(bytes.begin(), bytes.end(), tail);
    encodeGroups(tail, 1, block);
    std::fill(block + tailDigits, block + TCodec::kCharacters, L'=');
    writer.Write({ block, tailCharacters });
}

std::span<const BYTE> BytesOf(const BYTE* bytes, INT32 count) noexcept
{
    return { bytes, bytes && count > 0 ? static_cast<size_t>(count) : 0 };
}
} // namespace

HRESULT HexToBin(CVoTextView text, BYTE** buffer, UINT32* length)
{
    constexpr CVoReporter report{ kSource, L"VoDataConversion::HexToBin" };
    CDecoded decoded;
    if (!TryDecodeClean<CHex>(text, decoded))
        if (const HRESULT hr = DecodeTolerant<CHex>(report, text, decoded); FAILED(hr))
            return hr;
    return HandOver(report, 384, decoded, buffer, length);
}

HRESULT BinToHex(const BYTE* bytes, INT32 count, std::wstring& text, INT32 line)
{
    // A line is looked at behind each pair of characters, so an odd length gives lines one character longer.
    const size_t lineLength = line > 0 ? (static_cast<size_t>(line) + 1) / 2 * 2 : 0;
    Encode<CHex>(BytesOf(bytes, count), text, lineLength, 0, 0, &VoCodecKernels::EncodeHex);
    return S_OK;
}

HRESULT Base64ToBin(CVoTextView text, BYTE** buffer, UINT32* length)
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
    return HandOver(report, 410, decoded, buffer, length);
}

HRESULT BinToBase64(const BYTE* bytes, INT32 count, bool urlSafe, std::wstring& text, INT32 line)
{
    const std::span<const BYTE> source = BytesOf(bytes, count);
    const size_t tailBytes = source.size() % CBase64::kBytes;
    const size_t tailDigits = tailBytes > 0 ? tailBytes + 1 : 0;
    const size_t tailCharacters = urlSafe || tailBytes == 0 ? tailDigits : CBase64::kCharacters;

    // The limit counts a line as full when it has been passed, so lines hold one character more than asked for. Without a line
    // length the limit is twice the count, which only the padded text of a single byte passes. Both are intended: readers of
    // stored text depend on them.
    const size_t limit = line > 0 ? static_cast<size_t>(line) : 2 * source.size();
    const size_t lineLength = urlSafe ? 0 : limit + 1;

    Encode<CBase64>(source, text, lineLength, tailDigits, tailCharacters,
                    [urlSafe](const BYTE* from, size_t groups, wchar_t* to) noexcept
    { VoCodecKernels::EncodeBase64(from, groups, urlSafe, to); });
    return S_OK;
}

HRESULT Base32ModifiedCrockfordToBin(CVoTextView text, BYTE** buffer, UINT32* length)
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
    return HandOver(report, 462, decoded, buffer, length);
}

HRESULT BinToBase32ModifiedCrockford(const BYTE* bytes, INT32 count, bool pad, std::wstring& text, INT32 line)
{
    constexpr size_t kTailDigits[CBase32::kBytes] = { 0, 2, 4, 5, 7 };
    const std::span<const BYTE> source = BytesOf(bytes, count);
    const size_t tailBytes = source.size() % CBase32::kBytes;
    const size_t tailDigits = kTailDigits[tailBytes];
    // Padding fills a tail up to four characters, not to a whole group, so that only a tail of one byte has any. This is
    // intended: readers of stored text depend on it.
    const size_t tailCharacters = pad && tailBytes > 0 ? std::max<size_t>(tailDigits, 4) : tailDigits;
    const size_t lineLength = line > 0 ? static_cast<size_t>(line) : 0;

    Encode<CBase32>(source, text, lineLength, tailDigits, tailCharacters, &VoCodecKernels::EncodeBase32);
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
