// Messages of parameters and a payload: CVoBinaryDataParser (VoDataParser.h).
#include <base/VoDataParser.h>

#include <base/VoErrorHandler.h>
#include <base/VoText.h>
#include <base/VoTextConversion.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>

namespace
{
// Both parsers report under one source name. The numbers here follow those of VoDataParser.cpp.
constexpr const wchar_t* kBinaryDataParserSource = L"..\\..\\source\\base\\VoDataParser";

constexpr std::string_view kTerminator = "&&";
constexpr BYTE kByteOrderMark[] = { 0xEF, 0xBB, 0xBF };
constexpr size_t kSizePrefixLength = sizeof(UINT32);
constexpr UINT32 kMaximumLength = std::numeric_limits<UINT32>::max();

// The parts of a message, as views.
struct CMessageParts
{
    std::span<const BYTE> text;
    std::span<const BYTE> payload;
};

CMessageParts Split(std::span<const BYTE> message, bool binaryOnly, bool useUtf8) noexcept
{
    if (binaryOnly)
        return { {}, message };
    if (useUtf8 && message.size() >= std::size(kByteOrderMark) &&
        std::equal(std::begin(kByteOrderMark), std::end(kByteOrderMark), message.begin()))
        message = message.subspan(std::size(kByteOrderMark));
    for (size_t i = 0; i + 1 < message.size(); ++i)
    {
        if (message[i] == '$')
            ++i; // the next byte is an ordinary one
        else if (message[i] == '&' && message[i + 1] == '&')
            return { message.first(i), message.subspan(i + kTerminator.size()) };
    }
    return { message, {} };
}

// Copies bytes to `to` and returns the place behind them.
BYTE* Put(BYTE* to, const void* bytes, size_t length) noexcept
{
    if (length > 0)
        std::memcpy(to, bytes, length);
    return to + length;
}

// Copies bytes; memory exhaustion is reported as the growable array's.
HRESULT CopyBytes(std::span<const BYTE> from, CVoPayload& to)
{
    try
    {
        to = CVoPayload(from);
        return S_OK;
    }
    catch (const std::bad_alloc&)
    {
        return VoReportFullArray<unsigned char, unsigned char>();
    }
}

// Returns the pieces in one buffer of their exact size, or the size alone.
HRESULT HandOut(std::span<const std::span<const BYTE>> pieces, UINT32* length, BYTE** buffer)
{
    if (!length)
        return E_INVALIDARG;
    UINT64 size = 0;
    for (const std::span<const BYTE> piece : pieces)
        size += piece.size();
    if (size > kMaximumLength)
        return HResultFromWin32(ERROR_ARITHMETIC_OVERFLOW);
    if (buffer)
    {
        auto bytes = std::make_unique_for_overwrite<BYTE[]>(static_cast<size_t>(size));
        BYTE* to = bytes.get();
        for (const std::span<const BYTE> piece : pieces)
            to = Put(to, piece.data(), piece.size());
        *buffer = bytes.release();
    }
    *length = static_cast<UINT32>(size);
    return S_OK;
}

// A text inside a header line, without the characters that would end the line, or the quoted text where it stands in one. HTML
// forms write them the same way (the "multipart/form-data encoding algorithm" of the HTML standard).
std::wstring HeaderText(CVoTextView text, bool isQuoted)
{
    std::wstring safe;
    safe.reserve(text.size());
    for (const wchar_t character : text)
        if (character == L'\r')
            safe += L"%0D";
        else if (character == L'\n')
            safe += L"%0A";
        else if (character == L'"' && isQuoted)
            safe += L"%22";
        else
            safe += character;
    return safe;
}

constexpr std::wstring_view kFileNameParam = L"FileName";
constexpr std::wstring_view kContentTypeParam = L"ContentType";
} // namespace

HRESULT CVoBinaryDataParser::ReadParams(std::span<const BYTE> text, bool useUtf8)
{
    const std::string_view bytes(reinterpret_cast<const char*>(text.data()), text.size());
    std::wstring decoded;
    // Text is read in the thread's code page but written in the system's. Intended: peers may rely on either.
    const HRESULT hr = useUtf8 ? VoUTF8ToString(bytes, decoded) : VoCodePageToString(CP_THREAD_ACP, bytes, decoded);
    return FAILED(hr) ? hr : ReadParamsFromString(decoded);
}

HRESULT CVoBinaryDataParser::Parse(UINT32 length, const BYTE* bytes, bool binaryOnly, bool useUtf8) noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::Parse" };
    const auto body = [&]() -> HRESULT
    {
        if (!bytes && length > 0)
            return report(700, E_INVALIDARG);
        // The old payload is released only at the end: the bytes may be its own.
        const CVoPayload oldPayload = std::exchange(m_payload, {});
        const CMessageParts parts = Split({ bytes, length }, binaryOnly, useUtf8);
        CVoPayload payload;
        if (const HRESULT hr = CopyBytes(parts.payload, payload); FAILED(hr))
            return report(705, hr);
        if (const HRESULT hr = ReadParams(parts.text, useUtf8); FAILED(hr))
            return report(707, hr);
        m_payload = std::move(payload);
        return S_OK;
    };
    return report.Guard(713, body);
}

HRESULT CVoBinaryDataParser::Parse(std::vector<BYTE>&& bytes, bool binaryOnly, bool useUtf8) noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::Parse" };
    const auto body = [&]() -> HRESULT
    {
        if (bytes.size() > kMaximumLength)
            return report(721, E_INVALIDARG);
        m_payload = {};
        const CMessageParts parts = Split(bytes, binaryOnly, useUtf8);
        if (const HRESULT hr = ReadParams(parts.text, useUtf8); FAILED(hr))
            return report(725, hr);
        bytes.erase(bytes.begin(), bytes.end() - static_cast<std::ptrdiff_t>(parts.payload.size()));
        m_payload = CVoPayload(std::move(bytes));
        return S_OK;
    };
    return report.Guard(732, body);
}

namespace
{
// StringToMessageData's conversion.
HRESULT TextToBytes(std::wstring_view text, bool useUtf8, std::string& bytes) noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::StringToMessageData" };
    const HRESULT hr = useUtf8 ? VoStringToUTF8(text, bytes) : VoStringToCodePage(CP_ACP, text, bytes);
    return FAILED(hr) ? report(739, hr) : S_OK;
}
} // namespace

HRESULT CVoBinaryDataParser::StringToMessageData(CVoTextView text, bool useUtf8, UINT32* length, BYTE** buffer) noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::StringToMessageData" };
    const auto body = [&]() -> HRESULT
    {
        std::string bytes;
        if (const HRESULT hr = TextToBytes(text, useUtf8, bytes); FAILED(hr))
            return hr;
        const std::span<const BYTE> pieces[] = { VoBytesOf(bytes) };
        const HRESULT hr = HandOut(pieces, length, buffer);
        return FAILED(hr) ? report(740, hr) : S_OK;
    };
    return report.Guard(741, body);
}

HRESULT CVoBinaryDataParser::internalGetParamData(bool useUtf8, UINT32* length, BYTE** buffer) const noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::internalGetParamData" };
    const auto body = [&]() -> HRESULT
    {
        std::string bytes;
        if (const HRESULT hr = ParamBytes(useUtf8, kTerminator, bytes); FAILED(hr))
            return hr;
        const std::span<const BYTE> pieces[] = { VoBytesOf(bytes) };
        const HRESULT hr = HandOut(pieces, length, buffer);
        return FAILED(hr) ? report(751, hr) : S_OK;
    };
    return report.Guard(752, body);
}

HRESULT CVoBinaryDataParser::ParamBytes(bool useUtf8, std::string_view terminator, std::string& bytes) const
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::internalGetParamData" };
    std::wstring text;
    if (const HRESULT hr = GetParamsAsString(text); FAILED(hr))
        return report(747, hr);
    if (const HRESULT hr = TextToBytes(text, useUtf8, bytes); FAILED(hr))
        return report(749, hr);
    bytes += terminator;
    return S_OK;
}

HRESULT CVoBinaryDataParser::GetParamData(bool useUtf8, UINT32* length, BYTE** buffer) const noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::GetParamData" };
    const auto body = [&]() -> HRESULT
    {
        std::string text;
        if (const HRESULT hr = ParamBytes(useUtf8, {}, text); FAILED(hr))
            return report(759, hr);
        const std::span<const BYTE> pieces[] = { VoBytesOf(text) };
        if (const HRESULT hr = HandOut(pieces, length, buffer); FAILED(hr))
            return report(762, hr);
        return S_OK;
    };
    return report.Guard(767, body);
}

HRESULT CVoBinaryDataParser::GetMessageHead(bool withSizePrefix, bool skipParams, bool useUtf8,
                                            std::string& head) const noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::GetMessageData" };
    const auto body = [&]() -> HRESULT
    {
        std::string text;
        if (!skipParams)
            if (const HRESULT hr = ParamBytes(useUtf8, kTerminator, text); FAILED(hr))
                return report(778, hr);
        const size_t messageLength = text.size() + Payload().size();
        // Little-endian whatever the machine. It does not count itself.
        std::string prefix(withSizePrefix ? kSizePrefixLength : 0, '\0');
        for (size_t i = 0; i < prefix.size(); ++i)
            prefix[i] = static_cast<char>(messageLength >> (8 * i) & 0xFF);
        text.insert(0, prefix);
        head = std::move(text);
        return S_OK;
    };
    return report.Guard(782, body);
}

HRESULT CVoBinaryDataParser::internalGetMessageData(bool withSizePrefix, UINT32* length, BYTE** buffer, bool skipParams,
                                                    bool useUtf8) const noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::GetMessageData" };
    const auto body = [&]() -> HRESULT
    {
        std::string head;
        if (const HRESULT hr = GetMessageHead(withSizePrefix, skipParams, useUtf8, head); FAILED(hr))
            return hr;
        const std::span<const BYTE> pieces[] = { VoBytesOf(head), Payload() };
        if (const HRESULT hr = HandOut(pieces, length, buffer); FAILED(hr))
            return report(786, hr);
        return S_OK;
    };
    return report.Guard(791, body);
}

HRESULT CVoBinaryDataParser::GetMessageData(UINT32* length, BYTE** buffer, bool skipParams, bool useUtf8) const noexcept
{
    return internalGetMessageData(false, length, buffer, skipParams, useUtf8);
}

HRESULT CVoBinaryDataParser::GetMessageDataWithSizePrefix(UINT32* length, BYTE** buffer, bool skipParams,
                                                          bool useUtf8) const noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::GetMessageDataWithSizePrefix" };
    if (const HRESULT hr = internalGetMessageData(true, length, buffer, skipParams, useUtf8); FAILED(hr))
        return report(804, hr);
    return S_OK;
}

HRESULT CVoBinaryDataParser::GetFormMessageData(UINT32* length, BYTE** buffer, std::wstring& boundary,
                                                bool useUtf8) const noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::GetFormMessageData" };
    const auto body = [&]() -> HRESULT
    {
        std::string head;
        std::string foot;
        bool sendsPayload = false;
        std::wstring line;
        if (const HRESULT hr = GetFormMessageEnds(useUtf8, head, sendsPayload, foot, line); FAILED(hr))
            return hr;
        const std::span<const BYTE> payload = sendsPayload ? Payload() : std::span<const BYTE>();
        const std::span<const BYTE> pieces[] = { VoBytesOf(head), payload, VoBytesOf(foot) };
        if (const HRESULT hr = HandOut(pieces, length, buffer); FAILED(hr))
            return report(853, hr);
        boundary = std::move(line);
        return S_OK;
    };
    return report.Guard(859, body);
}

HRESULT CVoBinaryDataParser::GetFormMessageEnds(bool useUtf8, std::string& head, bool& sendsPayload, std::string& foot,
                                                std::wstring& boundary) const noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::GetFormMessageData" };
    const auto body = [&]() -> HRESULT
    {
        GUID guid;
        if (const HRESULT hr = ::CoCreateGuid(&guid); FAILED(hr))
            return report(815, hr);
        // The GUID's last seven bytes: all of them random.
        const unsigned char* const random = guid.Data4 + 1;
        std::wstring line = VoFormat(L"---------------------------%.2X%.2X%.2X%.2X%.2X%.2X%.2X", random[0], random[1],
                                     random[2], random[3], random[4], random[5], random[6]);

        std::wstring headText;
        for (size_t i = 0; i < GetCount(); ++i)
        {
            const CParamRec& param = GetAt(i);
            if (VoEqualsNoCase(param.NameView(), kFileNameParam) || VoEqualsNoCase(param.NameView(), kContentTypeParam))
                continue;
            headText.append(L"--").append(line).append(L"\r\nContent-Disposition: form-data; name=\"");
            headText.append(HeaderText(param.NameView(), true)).append(L"\"\r\n\r\n").append(param.ValueView()).append(L"\r\n");
        }

        const CParamRec* const fileName = FindParam(kFileNameParam);
        const bool hasFile = fileName && !fileName->ValueView().empty();
        std::wstring footText;
        if (hasFile)
        {
            const CParamRec* const contentType = FindParam(kContentTypeParam);
            headText.append(L"--").append(line).append(L"\r\nContent-Disposition: form-data; name=\"file\"; filename=\"");
            headText.append(HeaderText(fileName->ValueView(), true)).append(L"\"\r\nContent-Type: ");
            headText.append(contentType ? HeaderText(contentType->ValueView(), false) : L"image/pjpeg").append(L"\r\n\r\n");
            footText = L"\r\n";
        }
        footText.append(L"--").append(line).append(L"--");

        std::string headBytes;
        if (const HRESULT hr = TextToBytes(headText, useUtf8, headBytes); FAILED(hr))
            return report(846, hr);
        std::string footBytes;
        if (const HRESULT hr = TextToBytes(footText, useUtf8, footBytes); FAILED(hr))
            return report(849, hr);
        head = std::move(headBytes);
        foot = std::move(footBytes);
        sendsPayload = hasFile;
        boundary = std::move(line);
        return S_OK;
    };
    return report.Guard(851, body);
}

HRESULT CVoBinaryDataParser::SetPayload(const BYTE* bytes, UINT32 length) noexcept
{
    constexpr CVoReporter report{ kBinaryDataParserSource, L"CVoBinaryDataParser::SetPayload" };
    const auto body = [&]() -> HRESULT
    {
        if (!bytes && length > 0)
            return report(867, E_INVALIDARG);
        CVoPayload payload;
        if (const HRESULT hr = CopyBytes({ bytes, length }, payload); FAILED(hr))
            return report(869, hr);
        m_payload = std::move(payload);
        return S_OK;
    };
    return report.Guard(873, body);
}
