// Hexadecimal, Base64 and base-32 (VoDataConversion.h).
#include <base/utils/VoDataConversion.h>

#include "VoCodecKernels.h"

#include <base/VoErrorHandler.h>
#include <base/VoText.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <span>

namespace VoDataConversion
{
namespace
{
constexpr const wchar_t* kDataConversionSource = L"..\\..\\source\\base\\utils\\VoDataConversion";

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
    constexpr CVoReporter report{ kDataConversionSource, L"internalGetQuintet" };
    const BYTE digit = VoCodecKernels::Base32DigitValue(character);
    if (digit == VoCodecKernels::kNoDigit)
        return ReportBadCharacter(report, 46, 47, character);
    value = digit;
    return S_OK;
}

HRESULT internal8To5(const BYTE (&values)[8], BYTE (&bytes)[5]) noexcept
{
    constexpr CVoReporter report{ kDataConversionSource, L"internal8To5" };
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
    constexpr CVoReporter report{ kDataConversionSource, L"internalGetSextet" };
    const BYTE digit = VoCodecKernels::Base64DigitValue(character);
    if (digit == VoCodecKernels::kNoDigit)
        return ReportBadCharacter(report, 84, 85, character);
    value = digit;
    return S_OK;
}

HRESULT internal4To3(const BYTE (&values)[4], BYTE (&bytes)[3]) noexcept
{
    constexpr CVoReporter report{ kDataConversionSource, L"internal4To3" };
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
// reports; DecodeGroups is the fast kernel. CountKept, Keep and DecodeKept are the kernels for text with skipped characters in
// it, and kKeptZero is a kept digit of the value 0.
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
    static constexpr auto Keep = VoCodecKernels::KeepHexDigits;
    static constexpr auto DecodeKept = VoCodecKernels::DecodeKeptHex;
    static constexpr char kKeptZero = 0;
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
    static bool IsSkipped(wchar_t character) noexcept { return character == L'\r' || character == L'\n'; }
    static constexpr auto Keep = VoCodecKernels::KeepNoLineBreaks;
    static constexpr auto DecodeKept = VoCodecKernels::DecodeKeptBase64;
    static constexpr char kKeptZero = 'A';
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
    static bool IsSkipped(wchar_t character) noexcept
    {
        return character == L'\r' || character == L'\n' || character == L'\t' || character == L' ' || character == L'=';
    }
    // Keeps values, kNoDigit among them.
    static constexpr char kKeptZero = 0;
    static size_t Keep(std::wstring_view text, char* kept) noexcept
    {
        size_t count = 0;
        for (const wchar_t character : text)
        {
            kept[count] = static_cast<char>(VoCodecKernels::Base32DigitValue(character));
            count += IsSkipped(character) ? 0U : 1U;
        }
        return count;
    }
    static size_t DecodeKept(const char* kept, size_t groups, BYTE* bytes) noexcept
    {
        for (size_t i = 0; i < groups; ++i, kept += kCharacters, bytes += kBytes)
        {
            UINT64 bits = 0;
            BYTE all = 0;
            for (size_t digit = 0; digit < kCharacters; ++digit)
            {
                const auto value = static_cast<BYTE>(kept[digit]);
                all |= value;
                bits |= static_cast<UINT64>(value) << 5 * digit;
            }
            if (all > 31)
                return i;
            std::memcpy(bytes, &bits, kBytes);
        }
        return groups;
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
    // Keeps the first bytes, in the same buffer unless that leaves more than an eighth of it unused.
    void Shorten(size_t size)
    {
        if (size < length - length / 8)
        {
            std::unique_ptr<BYTE[]> exact = std::make_unique_for_overwrite<BYTE[]>(size);
            std::copy_n(bytes.get(), size, exact.get());
            bytes = std::move(exact);
        }
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

// Decodes the digits of a text, by way of a small block of kept characters; returns their number. Nothing, without a report,
// for a character that is no digit.
template <class TCodec>
std::optional<size_t> TryDecodeKept(std::wstring_view text, BYTE* bytes) noexcept
{
    constexpr size_t kBlock = 4096;
    std::array<char, kBlock + TCodec::kCharacters> kept;
    size_t decoded = 0;
    size_t held = 0; // of a group that the next block completes
    while (!text.empty())
    {
        const std::wstring_view block = text.substr(0, kBlock);
        text.remove_prefix(block.size());
        held += TCodec::Keep(block, kept.data() + held);
        const size_t groups = held / TCodec::kCharacters;
        if (TCodec::DecodeKept(kept.data(), groups, bytes) != groups)
            return std::nullopt;
        bytes += groups * TCodec::kBytes;
        decoded += groups * TCodec::kCharacters;
        held %= TCodec::kCharacters;
        std::copy_n(kept.data() + groups * TCodec::kCharacters, held, kept.data());
    }
    std::fill_n(kept.data() + held, TCodec::kCharacters - held, TCodec::kKeptZero);
    std::array<BYTE, TCodec::kBytes> group;
    if (TCodec::DecodeKept(kept.data(), 1, group.data()) != 1)
        return std::nullopt;
    std::copy_n(group.data(), DecodedSize<TCodec>(held), bytes);
    return decoded + held;
}

// Decodes good text, which is the usual case, in one pass. False, without a report, for anything else.
template <class TCodec>
bool TryDecode(CVoTextView text, CDecoded& decoded)
{
    decoded.Allocate(DecodedSize<TCodec>(text.size()));
    const size_t groups = TCodec::DecodeGroups(text.data(), text.size() / TCodec::kCharacters, decoded.bytes.get());
    const size_t clean = groups * TCodec::kCharacters;
    const std::optional<size_t> kept = TryDecodeKept<TCodec>(text.substr(clean), decoded.bytes.get() + groups * TCodec::kBytes);
    if (!kept || !TCodec::IsPossible((clean + *kept) % TCodec::kCharacters))
        return false;
    decoded.Shorten(DecodedSize<TCodec>(clean + *kept));
    return true;
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
    const size_t count = text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), TCodec::IsSkipped));
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

// Gives the text `size` characters, which `fill` writes. What the text held before is gone. With C++23 the characters are
// not filled with zeros first, which a text of megabytes is too large to do for free.
template <class TFill>
void WriteText(std::wstring& text, size_t size, TFill fill)
{
    if (text.capacity() < size)
    {
        // Keep the old text until the new room is allocated; do not reuse its larger capacity.
        std::wstring room;
        room.reserve(size);
        text.swap(room);
    }
#ifdef __cpp_lib_string_resize_and_overwrite
    text.resize_and_overwrite(size, [&fill, size](wchar_t* to, size_t) noexcept
    {
        fill(to);
        return size;
    });
#else
    text.resize(size);
    fill(text.data());
#endif
}

// Whether some of the bytes lie in the memory of the text.
bool IsInside(std::span<const BYTE> bytes, const std::wstring& text) noexcept
{
    const auto room = std::as_bytes(std::span(text.data(), text.capacity() + 1));
    const auto part = std::as_bytes(bytes);
    return std::less<>()(room.data(), part.data() + part.size()) && std::less<>()(part.data(), room.data() + room.size());
}

constexpr std::wstring_view kLineBreak = L"\r\n";

// Writes characters with a line break behind every `line` of them, so that a break may end the text.
class CLineWriter
{
public:
    CLineWriter(wchar_t* to, size_t line) noexcept : m_to(to), m_line(line), m_left(line) {}

    void Write(std::wstring_view characters) noexcept
    {
        while (characters.size() >= m_left)
        {
            Put(characters.substr(0, m_left));
            Put(kLineBreak);
            characters.remove_prefix(m_left);
            m_left = m_line;
        }
        Put(characters);
        m_left -= characters.size();
    }

private:
    void Put(std::wstring_view characters) noexcept { m_to = std::copy(characters.begin(), characters.end(), m_to); }

    wchar_t* m_to;
    size_t m_line;
    size_t m_left; // characters until the next break
};

// Encodes bytes. A last group that is not whole is filled up with zeros; of its characters the first `tailDigits` count, and
// "=" fills the text up to `tailCharacters`.
template <class TCodec, class TEncodeGroups>
void Encode(std::span<const BYTE> bytes, std::wstring& text, size_t line, size_t tailDigits, size_t tailCharacters,
            TEncodeGroups encodeGroups)
{
    const size_t tailBytes = bytes.size() % TCodec::kBytes;
    const size_t size = bytes.size() / TCodec::kBytes * TCodec::kCharacters + tailCharacters;
    const bool hasLines = line > 0 && size >= line;
    if (!hasLines)
        line = size + 1; // no line will be full
    std::wstring other;  // replaces a text whose own memory is encoded
    std::wstring& written = IsInside(bytes, text) ? other : text;
    WriteText(written, size + size / line * kLineBreak.size(), [&](wchar_t* to) noexcept
    {
        const auto encode = [&](size_t groups)
        {
            encodeGroups(bytes.data(), groups, to);
            bytes = bytes.subspan(groups * TCodec::kBytes);
            to += groups * TCodec::kCharacters;
        };
        if (!hasLines)
            encode(bytes.size() / TCodec::kBytes);
        else if (line % TCodec::kCharacters == 0)
            while (bytes.size() / TCodec::kBytes >= line / TCodec::kCharacters)
            {
                encode(line / TCodec::kCharacters);
                to = std::copy(kLineBreak.begin(), kLineBreak.end(), to);
            }

        // What is left has lines that end within a group, or is less than a line.
        CLineWriter writer(to, line);
        constexpr size_t kBlockGroups = 512;
        std::array<wchar_t, kBlockGroups * TCodec::kCharacters> block;
        while (const size_t groups = std::min(bytes.size() / TCodec::kBytes, kBlockGroups))
        {
            encodeGroups(bytes.data(), groups, block.data());
            writer.Write({ block.data(), groups * TCodec::kCharacters });
            bytes = bytes.subspan(groups * TCodec::kBytes);
        }
        if (tailBytes > 0)
        {
            std::array<BYTE, TCodec::kBytes> tail{};
            std::copy(bytes.begin(), bytes.end(), tail.begin());
            encodeGroups(tail.data(), 1, block.data());
            std::fill(block.data() + tailDigits, block.data() + TCodec::kCharacters, L'=');
            writer.Write({ block.data(), tailCharacters });
        }
    });
    if (&written != &text)
        text.swap(other);
}

std::span<const BYTE> BytesOf(const BYTE* bytes, INT32 count) noexcept
{
    return { bytes, bytes && count > 0 ? static_cast<size_t>(count) : 0 };
}
} // namespace

HRESULT HexToBin(CVoTextView text, BYTE** buffer, UINT32* length)
{
    constexpr CVoReporter report{ kDataConversionSource, L"VoDataConversion::HexToBin" };
    CDecoded decoded;
    if (!TryDecode<CHex>(text, decoded))
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
    constexpr CVoReporter report{ kDataConversionSource, L"VoDataConversion::Base64ToBin" };
    text = VoTrim(text);
    while (text.ends_with(L'='))
        text.remove_suffix(1);
    // Padding that was URL-encoded: two characters of it at most, and none in front of padding written as it is.
    for (int i = 0; i < 2; ++i)
        if (text.ends_with(L"%3D") || text.ends_with(L"%3d"))
            text.remove_suffix(3);
    CDecoded decoded;
    if (!TryDecode<CBase64>(text, decoded))
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
    constexpr CVoReporter report{ kDataConversionSource, L"VoDataConversion::Base32ModifiedCrockfordToBin" };
    text = VoTrim(text);
    CDecoded decoded;
    if (!TryDecode<CBase32>(text, decoded))
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
    constexpr CVoReporter report{ kDataConversionSource, L"VoDataConversion::ClampToWord" };
    constexpr INT32 kHighest = std::numeric_limits<UINT16>::max();
    if (strict && (value < 0 || value > kHighest))
        return report(502, E_FAIL);
    word = static_cast<UINT16>(std::clamp<INT32>(value, 0, kHighest));
    return S_OK;
}
} // namespace VoDataConversion
