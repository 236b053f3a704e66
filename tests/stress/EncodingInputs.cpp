// Random inputs for encodings, parameter text, messages, numbers, dates and variants.
#include "Campaign.h"

#include <VoHTTPMessage.h>
#include <base/VoDataParser.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>

#include <algorithm>
#include <cwctype>
#include <functional>
#include <span>
#include <tuple>
#include <utility>

using namespace std::literals;

namespace Stress
{
namespace
{
using COptionalBytes = std::optional<std::string>;
using CPairs = std::vector<std::pair<std::wstring, std::wstring>>;

std::string Text(std::span<const BYTE> bytes)
{
    return { bytes.begin(), bytes.end() };
}
std::vector<BYTE> VectorOf(std::string_view bytes)
{
    return { bytes.begin(), bytes.end() };
}

// ---- encodings

using CDecoder = HRESULT (*)(CVoTextView, BYTE**, UINT32*);

// A decoder gives the expected bytes, or refuses and writes nothing.
void CheckDecoder(CDecoder decoder, std::wstring_view text, const COptionalBytes& expected)
{
    BYTE untouched = 0;
    BYTE* buffer = &untouched;
    UINT32 length = 4711;
    UINT32 lengthAlone = 4711;
    const HRESULT hr = decoder(Guarded(text), &buffer, &length);
    Require(decoder(Guarded(text), nullptr, &lengthAlone) == hr && lengthAlone == length, "the length alone differs");
    Require(hr == (expected ? S_OK : E_INVALIDARG), "the reference decides otherwise");
    if (FAILED(hr))
    {
        Require(buffer == &untouched && length == 4711, "an output was written on failure");
        return;
    }
    const CVoByteBuffer owned(std::unique_ptr<BYTE[]>(buffer), length);
    Require(Text(owned.Bytes()) == expected, "the bytes differ from the reference");
}

// Digits with a line end behind each line; `isOver`: behind the character that is one too many.
std::wstring Lines(std::wstring_view digits, size_t width, bool isOver)
{
    std::wstring text;
    size_t inLine = 0;
    for (const wchar_t digit : digits)
    {
        text += digit;
        if (++inLine >= width + isOver && width > 0)
        {
            text += L"\r\n";
            inLine = 0;
        }
    }
    return text;
}

constexpr std::wstring_view kHexDigits = L"0123456789ABCDEF";
constexpr std::wstring_view kBase64Digits = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::wstring_view kBase32Digits = L"0123456789ACDEFGHJKMNPQRSTUVWXYZ";

void Hex(std::wstring_view input)
{
    std::wstring digits;
    for (const wchar_t unit : input)
        if (unit < 0x80 && std::iswxdigit(unit))
            digits += static_cast<wchar_t>(std::towupper(unit));
    COptionalBytes expected = digits.size() % 2 == 0 ? COptionalBytes("") : std::nullopt;
    for (size_t i = 0; expected && i < digits.size(); i += 2)
        *expected += static_cast<char>(kHexDigits.find(digits[i]) * 16 + kHexDigits.find(digits[i + 1]));
    CheckDecoder(&VoDataConversion::HexToBin, input, expected);

    const std::string bytes = Bytes(input);
    std::wstring encoded;
    for (const char c : bytes)
        (encoded += kHexDigits[static_cast<BYTE>(c) / 16]) += kHexDigits[static_cast<BYTE>(c) % 16];
    for (const INT32 line : { -1, 0, static_cast<INT32>(input.size() % 9) })
    {
        const std::string_view guarded = Guarded(bytes);
        std::wstring text;
        Require(VoDataConversion::BinToHex(reinterpret_cast<const BYTE*>(guarded.data()), static_cast<INT32>(guarded.size()),
                                           text, line) == S_OK,
                "BinToHex fails");
        Require(text == Lines(encoded, static_cast<size_t>(std::max(line + (line & 1), 0)), false), "BinToHex differs");
    }
}

void Base64(std::wstring_view input)
{
    std::wstring text(VoTrim(input));
    text.erase(text.find_last_not_of(L'=') + 1);
    for (int i = 0; i < 2; ++i)
        if (text.size() >= 3 && VoEqualsNoCase(text.substr(text.size() - 3), L"%3D"))
            text.resize(text.size() - 3);
    std::erase_if(text, [](wchar_t c) { return c == L'\r' || c == L'\n'; });
    COptionalBytes expected = text.size() % 4 != 1 ? COptionalBytes("") : std::nullopt;
    UINT32 bits = 0;
    for (size_t i = 0; expected && i < text.size(); ++i)
    {
        const wchar_t c = text[i] == L'-' ? L'+' : text[i];
        const size_t value = kBase64Digits.find(c == L'_' ? L'/' : c);
        if (value == std::wstring_view::npos || text[i] == L'\0')
        {
            expected = std::nullopt;
            break;
        }
        bits = bits << 6 | static_cast<UINT32>(value);
        if (i % 4 != 0)
            *expected += static_cast<char>(bits >> (6 - 2 * (i % 4)));
    }
    CheckDecoder(&VoDataConversion::Base64ToBin, input, expected);

    const std::string bytes = Bytes(input);
    std::wstring encoded;
    for (size_t i = 0; i < bytes.size(); i += 3)
    {
        UINT32 group = 0;
        for (size_t j = i; j < i + 3; ++j)
            group = group << 8 | (j < bytes.size() ? static_cast<BYTE>(bytes[j]) : 0U);
        for (size_t j = 0; j < 4; ++j)
            encoded += j <= bytes.size() - i ? kBase64Digits[group >> (18 - 6 * j) & 63] : L'=';
    }
    std::wstring safe = encoded;
    std::erase(safe, L'=');
    std::replace(safe.begin(), safe.end(), L'+', L'-');
    std::replace(safe.begin(), safe.end(), L'/', L'_');
    const std::string_view guarded = Guarded(bytes);
    const auto* const data = reinterpret_cast<const BYTE*>(guarded.data());
    const auto count = static_cast<INT32>(bytes.size());
    for (const INT32 line : { -1, 0, static_cast<INT32>(input.size() % 90) })
    {
        const INT32 width = line > 0 ? line : 2 * count;
        Require(VoDataConversion::BinToBase64(data, count, false, text, line) == S_OK &&
                    text == Lines(encoded, static_cast<size_t>(width), true),
                "BinToBase64 differs");
        Require(VoDataConversion::BinToBase64(data, count, true, text, line) == S_OK && text == safe,
                "URL-safe Base64 differs");
    }
}

void Base32(std::wstring_view input)
{
    std::wstring text(VoTrim(input));
    for (const std::wstring_view separator : { L"\r", L"\n", L"\t", L" ", L"=", L"%3D", L"%3d" })
    {
        // What a removal joins is not looked at again.
        std::wstring kept;
        for (size_t at = 0; at < text.size();)
            if (text.compare(at, separator.size(), separator) == 0)
                at += separator.size();
            else
                kept += text[at++];
        text = kept;
    }
    constexpr std::array<int, 8> kExtra = { 0, -1, 1, -1, 2, 3, -1, 4 };
    const int extra = kExtra[text.size() % 8];
    COptionalBytes expected = extra >= 0 ? COptionalBytes("") : std::nullopt;
    for (size_t i = 0; expected && i < text.size(); i += 8)
    {
        UINT64 group = 0;
        for (size_t j = i; j < i + 8 && j < text.size() && expected; ++j)
        {
            const std::wstring_view aliases = L"O0o0I1i1L1l1B8b8";
            const size_t alias = aliases.find(text[j]);
            wchar_t c = alias != std::wstring_view::npos && alias % 2 == 0 ? aliases[alias + 1] : text[j];
            c = c < 0x80 ? static_cast<wchar_t>(std::towupper(c)) : c;
            const size_t value = kBase32Digits.find(c);
            if (value == std::wstring_view::npos)
                expected = std::nullopt;
            else
                group |= UINT64{ value } << (5 * (j - i));
        }
        const size_t size = text.size() - i >= 8 ? 5 : static_cast<size_t>(extra);
        for (size_t j = 0; expected && j < size; ++j)
            *expected += static_cast<char>(group >> (8 * j));
    }
    CheckDecoder(&VoDataConversion::Base32ModifiedCrockfordToBin, input, expected);

    const std::string bytes = Bytes(input);
    std::wstring encoded;
    constexpr std::array<size_t, 5> kTail = { 0, 2, 4, 5, 7 };
    for (size_t i = 0; i < bytes.size(); i += 5)
    {
        UINT64 group = 0;
        for (size_t j = i; j < i + 5 && j < bytes.size(); ++j)
            group |= UINT64{ static_cast<BYTE>(bytes[j]) } << (8 * (j - i));
        for (size_t j = 0; j < (bytes.size() - i >= 5 ? 8 : kTail[bytes.size() - i]); ++j)
            encoded += kBase32Digits[group >> (5 * j) & 31];
    }
    const std::string_view guarded = Guarded(bytes);
    for (const bool pad : { false, true })
    {
        const std::wstring padded = encoded + (pad && bytes.size() % 5 == 1 ? L"==" : L"");
        for (const INT32 line : { -1, 0, static_cast<INT32>(input.size() % 9) })
            Require(VoDataConversion::BinToBase32ModifiedCrockford(reinterpret_cast<const BYTE*>(guarded.data()),
                                                                   static_cast<INT32>(bytes.size()), pad, text, line) == S_OK &&
                        text == Lines(padded, static_cast<size_t>(std::max(line, 0)), false),
                    "BinToBase32ModifiedCrockford differs");
    }
}

void Utf(std::wstring_view input)
{
    const COptionalBytes expected = ReferenceToUtf8(input);
    std::string bytes = "old";
    const HRESULT narrowed = VoStringToUTF8(Guarded(input), bytes);
    Require(SUCCEEDED(narrowed) == expected.has_value() && bytes == expected.value_or("old"), "UTF-16 to UTF-8 differs");
    Require(ReferenceToUtf8(VoWithoutLoneSurrogates(Guarded(input))).has_value(), "a lone surrogate stayed");
    Require(!expected || VoWithoutLoneSurrogates(input) == input, "well-formed text was changed");

    const std::string raw = Bytes(input);
    const std::optional<std::wstring> wide = ReferenceFromUtf8(raw);
    std::wstring text = L"old";
    Require(SUCCEEDED(VoUTF8ToString(Guarded(raw), text)) == wide.has_value() && text == wide.value_or(L"old"),
            "UTF-8 to UTF-16 differs");
}

// ---- parameter text and messages

CPairs PairsOf(const CVoDataParser& parser)
{
    CPairs pairs;
    for (size_t i = 0; i < parser.GetCount(); ++i)
        pairs.emplace_back(parser.GetAt(i).NameView(), parser.GetAt(i).ValueView());
    return pairs;
}

// By the letter: every "$&" first, then every "$$".
std::wstring Unescaped(std::wstring value)
{
    for (const auto& [from, to] : { std::pair(L"$&", L"&"), std::pair(L"$$", L"$") })
        for (size_t at = value.find(from); at != std::wstring::npos; at = value.find(from, at + 1))
            value.replace(at, 2, to);
    return value;
}

// The pairs in front of the first one without "=", and whether there is none.
std::pair<CPairs, bool> ReferencePairs(std::wstring_view text)
{
    CPairs pairs;
    std::wstring pair;
    for (size_t i = 0; i <= text.size(); ++i)
    {
        if (i < text.size() && text[i] != L'&')
        {
            pair += text[i];
            if (text[i] == L'$' && i + 1 < text.size())
                pair += text[++i];
            continue;
        }
        if (const size_t equals = pair.find(L'='); equals != std::wstring::npos)
        {
            pairs.emplace_back(VoTrim(pair.substr(0, equals)), Unescaped(pair.substr(equals + 1)));
        }
        else if (!pair.empty())
            return { pairs, false };
        pair.clear();
    }
    return { pairs, true };
}

void ReadParameters(std::wstring_view input)
{
    const auto [expected, isWhole] = ReferencePairs(input);
    CVoDataParser parser;
    Require(parser.ReadParamsFromString(Guarded(input)) == (isWhole ? S_OK : E_FAIL), "the reference decides otherwise");
    Require(PairsOf(parser) == expected, "the pairs differ from the reference");

    std::wstring text;
    CVoDataParser again;
    Require(SUCCEEDED(parser.GetParamsAsString(text)) && SUCCEEDED(again.ReadParamsFromString(Guarded(text))) &&
                PairsOf(again) == expected,
            "the pairs do not read back");
    for (const auto& [name, value] : expected)
    {
        const auto first =
            std::find_if(expected.begin(), expected.end(), [&](const auto& pair) { return VoEqualsNoCase(pair.first, name); });
        const CParamRec* const found = parser.FindParam(name);
        Require(found && found->Value() == first->second, "a look-up does not find the first of its name");
    }
    // Any value at all comes back.
    CVoDataParser one;
    CVoDataParser other;
    Require(SUCCEEDED(one.AddParam(L"x", Guarded(input))) && SUCCEEDED(one.GetParamsAsString(text)) &&
                SUCCEEDED(other.ReadParamsFromString(text)) && PairsOf(other) == CPairs{ { L"x", std::wstring(input) } },
            "a value does not read back");
    // The same for a record of its own.
    CParamRec record;
    Require(SUCCEEDED(record.PutParamString((L"x=" + std::wstring(input)).c_str(), input.size() + 2)) &&
                record.ValueView() == Unescaped(std::wstring(input)),
            "a record has another value");
}

struct CParts
{
    CPairs pairs;
    std::string payload;
    bool isWhole = false;

    bool operator==(const CParts&) const = default;
};

CParts ReferenceMessage(std::string_view bytes)
{
    if (bytes.starts_with("\xEF\xBB\xBF"))
        bytes.remove_prefix(3);
    size_t end = 0;
    while (end < bytes.size() && !bytes.substr(end).starts_with("&&"))
        end += bytes[end] == '$' && end + 1 < bytes.size() ? 2U : 1U;
    CParts parts;
    const std::optional<std::wstring> text = ReferenceFromUtf8(bytes.substr(0, end));
    if (!text)
        return parts;
    std::tie(parts.pairs, parts.isWhole) = ReferencePairs(*text);
    if (parts.isWhole)
        parts.payload = bytes.substr(std::min(end + 2, bytes.size()));
    return parts;
}

void ReadMessage(std::wstring_view input)
{
    const std::string bytes = Bytes(input);
    const CParts expected = ReferenceMessage(bytes);
    CVoBinaryDataParser parser;
    const std::string_view guarded = Guarded(bytes);
    const HRESULT hr =
        parser.Parse(static_cast<UINT32>(bytes.size()), reinterpret_cast<const BYTE*>(guarded.data()), false, true);
    Require(SUCCEEDED(hr) == expected.isWhole, "the reference decides otherwise");
    Require(PairsOf(parser) == expected.pairs && Text(parser.Payload()) == expected.payload, "the parts differ");
    CVoBinaryDataParser moved;
    Require(moved.Parse(VectorOf(bytes), false, true) == hr && PairsOf(moved) == expected.pairs &&
                Text(moved.Payload()) == expected.payload,
            "the function that takes the bytes over gives something else");
    CVoBinaryDataParser binary;
    Require(SUCCEEDED(binary.Parse(VectorOf(bytes), true, true)) && Text(binary.Payload()) == bytes && binary.GetCount() == 0,
            "bytes alone are not the payload");
    if (FAILED(hr))
        return;
    CVoByteBuffer built;
    CVoByteBuffer prefixed;
    Require(SUCCEEDED(parser.GetMessageData(built.PutLength(), built.PutBytes(), false, true)) &&
                SUCCEEDED(parser.GetMessageDataWithSizePrefix(prefixed.PutLength(), prefixed.PutBytes(), false, true)),
            "a message cannot be built");
    // A name that begins with the byte-order mark loses it where the message begins with the name.
    const bool hasMark = !expected.pairs.empty() && expected.pairs.front().first.starts_with(L'\uFEFF');
    Require(hasMark || ReferenceMessage(Text(built.Bytes())) == expected, "a message does not read back");
    CVoByteBuffer payload;
    Require(SUCCEEDED(parser.GetMessageData(payload.PutLength(), payload.PutBytes(), true, true)) &&
                Text(payload.Bytes()) == expected.payload,
            "a message without parameters is not the payload");
    UINT32 size = 0;
    std::memcpy(&size, prefixed.Bytes().data(), sizeof size);
    Require(size == built.Length() && Text(prefixed.Bytes().subspan(sizeof size)) == Text(built.Bytes()), "a wrong prefix");
}

void MultipleResponses(std::wstring_view input)
{
    const std::string bytes = Bytes(input);
    std::optional<std::vector<CParts>> expected = std::vector<CParts>();
    for (std::string_view rest = bytes; expected && !rest.empty();)
    {
        UINT32 length = 0;
        std::memcpy(&length, rest.data(), std::min(rest.size(), sizeof length));
        const bool isWhole = rest.size() >= sizeof length && rest.size() - sizeof length >= length;
        if (const CParts parts = ReferenceMessage(rest.substr(std::min(rest.size(), sizeof length), length));
            isWhole && parts.isWhole)
        {
            expected->push_back(parts);
            rest.remove_prefix(sizeof length + length);
        }
        else
            expected = std::nullopt;
    }
    for (const UINT32 count : { 0U, 1U, 2U })
    {
        std::vector<CVoBinaryDataParser> messages(7);
        const std::string_view guarded = Guarded(bytes);
        const HRESULT hr = CVoHTTPMessage::internalParseMultipleResponses(
            { reinterpret_cast<const BYTE*>(guarded.data()), guarded.size() }, true, count, messages);
        Require(SUCCEEDED(hr) == (expected && (count == 0 || count == expected->size())), "the reference decides otherwise");
        Require(messages.size() == (SUCCEEDED(hr) ? expected->size() : 7), "a wrong number of messages");
        for (size_t i = 0; SUCCEEDED(hr) && i < messages.size(); ++i)
            Require(PairsOf(messages[i]) == (*expected)[i].pairs && Text(messages[i].Payload()) == (*expected)[i].payload,
                    "a message differs");
    }
}

void ReplaceAll(std::string& text, std::string_view from, std::string_view to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

// A reader that only knows RFC 7578 finds the fields and the file again.
void Multipart(std::wstring_view input)
{
    const size_t third = input.size() / 3;
    const std::array<std::wstring, 3> texts = { std::wstring(input.substr(0, third)), std::wstring(input.substr(third, third)),
                                                std::wstring(input.substr(2 * third)) };
    const bool hasFile = input.size() % 2 != 0 && !texts[0].empty();
    const bool hasType = input.size() % 4 == 1;
    CVoBinaryDataParser parser;
    parser.SetPayload(VectorOf(Bytes(input)));
    Require(SUCCEEDED(parser.AddParam(texts[0], Guarded(texts[1]))) && SUCCEEDED(parser.AddParam(L"b", Guarded(texts[2]))) &&
                (!hasFile || (SUCCEEDED(parser.AddParam(L"FileName", texts[0])) &&
                              (!hasType || SUCCEEDED(parser.AddParam(L"ContentType", texts[2]))))),
            "a parameter cannot be added");
    CVoByteBuffer built;
    std::wstring boundary;
    const HRESULT hr = parser.GetFormMessageData(built.PutLength(), built.PutBytes(), boundary, true);
    std::array<COptionalBytes, 3> bytes;
    std::transform(texts.begin(), texts.end(), bytes.begin(), &ReferenceToUtf8);
    const bool isWellFormed = std::all_of(bytes.begin(), bytes.end(), [](const auto& text) { return text.has_value(); });
    Require(SUCCEEDED(hr) == isWellFormed, "text that is not well formed decides otherwise");
    const auto isFileField = [&](std::wstring_view name)
    { return VoEqualsNoCase(name, L"FileName") || VoEqualsNoCase(name, L"ContentType"); };
    if (FAILED(hr) || isFileField(texts[0]))
        return;
    std::string name = *bytes[0];
    std::string type = hasType ? *bytes[2] : "image/pjpeg";
    for (const auto& [from, to] : { std::pair("\r", "%0D"), std::pair("\n", "%0A"), std::pair("\"", "%22") })
    {
        ReplaceAll(name, from, to);
        if (*from != '"') // a parameter of a type may be quoted
            ReplaceAll(type, from, to);
    }
    const std::string mark = "--" + Bytes(boundary);
    const std::string field = mark + "\r\nContent-Disposition: form-data; name=\"";
    std::string expected = field + name + "\"\r\n\r\n" + *bytes[1] + "\r\n" + field + "b\"\r\n\r\n" + *bytes[2] + "\r\n";
    if (hasFile)
        expected += field + "file\"; filename=\"" + name + "\"\r\nContent-Type: " + type + "\r\n\r\n" + Bytes(input) + "\r\n";
    Require(Text(built.Bytes()) == expected + mark + "--", "the body differs");
}

void UrlCode(std::wstring_view input)
{
    for (const bool utf8 : { false, true })
    {
        COptionalBytes bytes = ReferenceToUtf8(input);
        if (!utf8)
            bytes = std::all_of(input.begin(), input.end(), [](wchar_t c) { return c < 0x100; }) ? COptionalBytes(Bytes(input))
                                                                                                 : std::nullopt;
        std::wstring value(input);
        Require(SUCCEEDED(CVoDataParser::ToUTF8AndUrlEncode(utf8, value)) == bytes.has_value(), "encoding decides otherwise");
        std::wstring expected;
        for (const char c : bytes.value_or(""))
            expected += static_cast<BYTE>(c) < 0x80 && std::isalnum(static_cast<BYTE>(c))
                            ? std::wstring(1, static_cast<wchar_t>(c))
                            : VoFormat(L"%%%02X", unsigned{ static_cast<BYTE>(c) });
        Require(value == (bytes ? expected : std::wstring(input)), "the encoded text differs");
        // Without "%" a text is decoded already.
        Require(!bytes || (SUCCEEDED(CVoDataParser::FromUTF8AndUrlEncode(utf8, value)) && value == input), "no round trip");
    }
    // Any text read as an encoded one.
    COptionalBytes decoded = std::string();
    for (size_t i = 0; decoded && i < input.size(); ++i)
        if (input[i] != L'%')
            *decoded += static_cast<char>(input[i]);
        else if (input.size() - i > 2 &&
                 kHexDigits.find(static_cast<wchar_t>(std::towupper(input[i + 1]))) != std::wstring_view::npos &&
                 kHexDigits.find(static_cast<wchar_t>(std::towupper(input[i + 2]))) != std::wstring_view::npos &&
                 input[i + 1] < 0x80 && input[i + 2] < 0x80)
        {
            *decoded += static_cast<char>(std::wcstoul(std::wstring(input.substr(i + 1, 2)).c_str(), nullptr, 16));
            i += 2;
        }
        else
            decoded = std::nullopt;
    if (std::any_of(input.begin(), input.end(), [](wchar_t c) { return c >= 0x80 || c == 0; }))
        return; // no encoder gives such a text
    for (const bool utf8 : { false, true })
    {
        std::optional<std::wstring> expected;
        if (decoded)
            expected = utf8 ? ReferenceFromUtf8(*decoded) : Units(*decoded);
        std::wstring value(input);
        Require(SUCCEEDED(CVoDataParser::FromUTF8AndUrlEncode(utf8, value)) == expected.has_value() &&
                    value == expected.value_or(std::wstring(input)),
                "the decoded text differs");
    }
}

// ---- numbers, dates, variants

// Compares a number as it is written with the limits of a type.
template <class Integer>
void CheckNumber(std::wstring_view input)
{
    const bool isNegative = input.starts_with(L'-');
    std::wstring digits(input.substr(isNegative ? 1 : 0));
    const bool isNumber = !digits.empty() && (std::is_signed_v<Integer> || !isNegative) &&
                          std::all_of(digits.begin(), digits.end(), [](wchar_t c) { return c >= L'0' && c <= L'9'; });
    digits.erase(0, std::min(digits.find_first_not_of(L'0'), digits.size()));
    std::wstring limit =
        std::to_wstring(isNegative ? std::numeric_limits<Integer>::min() : std::numeric_limits<Integer>::max());
    std::erase(limit, L'-');
    const bool isOutside = isNumber && std::pair(digits.size(), digits) > std::pair(limit.size(), limit);
    const std::optional<Integer> value = VoParseDecimal<Integer>(Guarded(input));
    bool wasOutside = false;
    const std::optional<Integer> clamped = VoParseDecimalClamped<Integer>(Guarded(input), &wasOutside);
    Require(value.has_value() == (isNumber && !isOutside) && clamped.has_value() == isNumber && wasOutside == isOutside,
            "the reference decides otherwise");
    const std::wstring written = (isNegative && !digits.empty() ? L"-" : L"") + (digits.empty() ? L"0" : digits);
    Require(!value || std::to_wstring(*value) == written, "the number differs");
    using CLimits = std::numeric_limits<Integer>;
    Require(!isOutside || clamped == (isNegative ? CLimits::min() : CLimits::max()), "not the nearest number");
}

void Numbers(std::wstring_view input)
{
    CheckNumber<INT32>(input);
    CheckNumber<UINT16>(input);
    CheckNumber<INT64>(input);
    CheckNumber<UINT64>(input);
    INT32 value = VoParseDecimalClamped<INT32>(input).value_or(0);
    for (const bool strict : { false, true })
    {
        UINT16 word = 4711;
        const bool fits = value >= 0 && value <= 0xFFFF;
        Require(VoDataConversion::ClampToWord(value, word, strict) == (fits || !strict ? S_OK : E_FAIL), "ClampToWord");
        const int expected = strict && !fits ? 4711 : std::clamp(value, 0, 0xFFFF);
        Require(word == expected, "ClampToWord gives another word");
    }
}

void IsoDates(std::wstring_view input)
{
    // Each digit becomes "0": the skeletons of the forms, but for the fraction.
    std::wstring skeleton(input);
    for (size_t i = 0; i < input.size(); ++i)
        if (input[i] >= L'0' && input[i] <= L'9')
            skeleton[i] = L'0';
    if (skeleton.size() > 10 && skeleton[10] == L' ')
        skeleton[10] = L'T';
    const auto number = [&](size_t at, size_t size)
    { return static_cast<WORD>(std::stoi(std::wstring(input.substr(at, size)))); };
    bool isForm = skeleton.starts_with(L"0000-00-00");
    SYSTEMTIME expected{};
    int offset = 0;
    if (isForm)
        expected = { number(0, 4), number(5, 2), 0, number(8, 2), 0, 0, 0, 0 };
    if (isForm && input.size() > 10)
    {
        isForm = skeleton.compare(10, 9, L"T00:00:00") == 0;
        std::wstring_view rest = input.substr(std::min<size_t>(input.size(), 19));
        if (isForm)
        {
            expected.wHour = number(11, 2);
            expected.wMinute = number(14, 2);
            expected.wSecond = number(17, 2);
        }
        if (isForm && rest.starts_with(L'.'))
        {
            const size_t end = std::min(rest.find_first_not_of(L"0123456789", 1), rest.size());
            isForm = end > 1 && end <= 10;
            if (isForm)
                expected.wMilliseconds =
                    static_cast<WORD>(std::stoi((std::wstring(rest.substr(1, end - 1)) + L"00").substr(0, 3)));
            rest.remove_prefix(end);
        }
        const std::wstring zone = skeleton.substr(skeleton.size() - std::min(rest.size(), skeleton.size()));
        if (isForm && (zone == L"+00:00" || zone == L"-00:00"))
        {
            const int hours = number(input.size() - 5, 2);
            const int minutes = number(input.size() - 2, 2);
            isForm = hours < 24 && minutes < 60;
            offset = (zone[0] == L'-' ? -1 : 1) * (hours * 60 + minutes);
        }
        else
            isForm = isForm && (zone.empty() || zone == L"Z");
    }
    constexpr std::array<int, 12> kDays = { 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31 };
    const bool isLeap = expected.wYear % 4 == 0 && (expected.wYear % 100 != 0 || expected.wYear % 400 == 0);
    isForm = isForm && expected.wYear >= 1601 && expected.wMonth >= 1 && expected.wMonth <= 12 && expected.wDay >= 1 &&
             expected.wDay <= kDays[expected.wMonth - 1] + (isLeap && expected.wMonth == 2) && expected.wHour < 24 &&
             expected.wMinute < 60 && expected.wSecond < 60;
    SYSTEMTIME time{};
    int readOffset = 4711;
    Require(VoISO8601DateTimeStrToSystemTime(Guarded(input), time, &readOffset) == (isForm ? S_OK : E_INVALIDARG),
            "the reference decides otherwise");
    if (!isForm)
    {
        Require(readOffset == 4711 && time.wYear == 0, "an output was written on failure");
        return;
    }
    expected.wDayOfWeek = time.wDayOfWeek;
    Require(std::memcmp(&time, &expected, sizeof time) == 0 && readOffset == offset, "the fields differ");
    std::wstring text;
    SYSTEMTIME again{};
    Require(SUCCEEDED(VoSystemTimeToISO8601DateTimeStr(time, offset, true, true, text)) &&
                SUCCEEDED(VoISO8601DateTimeStrToSystemTime(text, again, &readOffset)) &&
                std::memcmp(&time, &again, sizeof time) == 0 && readOffset == offset,
            "a date does not read back");
}

// A text that becomes a value has a written form that becomes the same value.
void Variants(std::wstring_view input)
{
    // Wine's conversion reads outside of its buffer for a large exponent.
    const size_t exponent = std::min(input.find_first_of(L"eE"), input.size());
    const auto isDigit = [](wchar_t c) { return c >= L'0' && c <= L'9'; };
    const auto exponentDigits = std::count_if(input.begin() + static_cast<std::ptrdiff_t>(exponent), input.end(), isDigit);
    if (exponentDigits > 2)
        return;
    CVoVariant text;
    Require(SUCCEEDED(VoTypeToVariant(Guarded(input), text.Get())), "a text makes no variant");
    for (const VARTYPE type : { VT_I4, VT_UI4, VT_I2, VT_R8, VT_BOOL, VT_DATE, VT_CY, VT_DECIMAL })
    {
        CVoVariant value;
        if (FAILED(VoChangeVariantTypeNoLocale(value.Get(), text.Get(), type)))
        {
            Require(value.Get().vt == VT_EMPTY, "a failed conversion changed the variant");
            continue;
        }
        Require(value.Get().vt == type, "another type");
        CVoVariant written;
        CVoVariant again;
        CVoVariant same;
        Require(SUCCEEDED(VoChangeVariantTypeNoLocale(written.Get(), value.Get(), VT_BSTR)), "a value has no text");
        if (type == VT_R8 || type == VT_DATE || type == VT_CY)
            continue; // the platform writes fewer digits than it reads
        if (type == VT_DECIMAL && exponentDigits > 1)
            continue; // Wine makes a DECIMAL with more decimal places than the type can have, and reads it back as another
                      // number
        Require(SUCCEEDED(VoChangeVariantTypeNoLocale(again.Get(), written.Get(), type)), "a written value does not read back");
        Require(SUCCEEDED(VoChangeVariantTypeNoLocale(same.Get(), again.Get(), VT_BSTR)) &&
                    CVoBstr::ViewOf(same.Get().bstrVal) == CVoBstr::ViewOf(written.Get().bstrVal),
                "the written form is not stable");
    }
    UINT32 number = 0;
    const std::optional<INT64> decimal = VoParseDecimal<INT64>(input);
    if (decimal && *decimal >= INT32_MIN && *decimal <= UINT32_MAX)
        Require(SUCCEEDED(VoVariantToTypeNoLocale(text.Get(), number)) && number == static_cast<UINT32>(*decimal),
                "a number of 32 bits differs");
    bool flag = false;
    const std::optional<bool> parsed = VoParseBool(Guarded(input));
    Require(SUCCEEDED(VoStringToBool(input, flag)) == parsed.has_value() && flag == parsed.value_or(false), "booleans differ");
}

const std::wstring kTwoMessages = Units(std::string("\x05\0\0\0a=1&&\x07\0\0\0b=2&&xy", 20));

// clang-format off
const CCampaigns kEncodingCampaigns({
    { "hex", &Hex, { L"0A1bFf", L"0x1F0", L"01:f 0", std::wstring(150, L'7') }, L"0123789abcdefABCDEF :-\r\nxg\u0141\uFF11" },
    { "base64", &Base64, { L"TWFu", L"TWE=", L"TWE%3d", L"-_8=", L"  TWFuTWE=\r\n", std::wstring(200, L'Q') + L"\r\n" + std::wstring(90, L'R') }, L"AQZaqz09+/-_=%3Dd \t\r\n\u0175" },
    { "base32", &Base32, { L"10", L"1 0\t=\r\n=", L"%3D1%3d0", L"ABCDEFGH", L"lo", std::wstring(160, L'Z') }, L"0189AZUOILBboilu=%3Dd \t\r\n\v\u0130" },
    { "utf", &Utf, { L"text", L"\u00FC\u20AC\xD83D\xDE00", L"\u00F0\u009F\u0098\u0080", L"\u00E2\u0082\u00AC", std::wstring(511, L'\u20AC'), std::wstring(1024, L'a') }, L"a\x7F\x80\xC2\xDF\xE0\xED\xF0\xF4\xBF\xA0\u07FF\u0800\uD7FF\xD800\xDBFF\xDC00\xDFFF\uE000\uFFFF" },
    { "parameters", &ReadParameters, { L"a=1&b=2", L"x=a$&b$$c&&y=", L" n =v", L"a=1&junk", L"a=$" }, L"$$&&==ab \u00FC\t" },
    { "message", &ReadMessage, { L"a=1&b=2&&pay&&load", L"\u00EF\u00BB\u00BFa=1&&", L"x=$&&&", L"\u00C3\u00BC=\u00E9" }, L"$$&&==ab\u00EF\u00BB\u00BF\u00C3\u00BC", 1, true },
    { "multiple_responses", &MultipleResponses, { kTwoMessages, kTwoMessages + kTwoMessages }, L"\0\0\x01\x02\x03\x05\xFF=&a"sv, 1, true },
    { "multipart", &Multipart, { L"nameonevaluetwo", L"--\r\n\"%22", L"\u00FC\"\r\n\xD83D\xDE00" }, L"\r\n-\";=% a\u20AC\xDC00", 2 },
    { "url_code", &UrlCode, { L"a b-\u00FC", L"a%20b%2D", L"100%", L"%c3%BC+" }, L"%%0123aAfFgG +-._~\u00FC\u20AC\xD800" },
    { "numbers", &Numbers, { L"0", L"-1", L"2147483647", L"-2147483648", L"65535", L"18446744073709551615", L"-9223372036854775808", L"00000000000000000000005" }, L"0123456789999-+ \u0661" },
    { "iso_dates", &IsoDates, { L"2024-02-29T12:00:00.25+01:00", L"2000-12-31", L"1999-01-31 23:59:59Z", L"1900-02-28T00:00:00.123456789-23:59", L"2023-02-30", L"1900-02-29", L"2024-06-31T00:00:00", L"2024-01-01T24:00:00", L"2024-01-01T23:60:00", L"2024-01-01T23:59:60", L"2024-01-01T00:00:00+01:60", L"2024-01-01T00:00:00-24:00", L"1600-01-01", L"2024-01-02T03:04:05.1234567890", L"\u0662\u0660\u0662\u0664-01-02", L"+024-01-02" }, L"0123456789-+:.TZ t", 2 },
    { "variants", &Variants, { L"1", L"-12.5", L"True", L"1e10", L"2024-02-29 12:00:00", L"12/30/1899", L"4294967295", L"$1,000.50" }, L"0123456789-+.,:/eETrue $()%", 8 },
});
// clang-format on
} // namespace
} // namespace Stress
