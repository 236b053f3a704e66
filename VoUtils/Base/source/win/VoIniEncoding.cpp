// The encodings of INI files (VoIniEncoding.h).
#include "VoIniEncoding.h"

#include "../base/VoCodePage.h"

#include <base/VoHResult.h>

#include <algorithm>
#include <cstring>

namespace VoIniEncoding
{
namespace
{
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr std::string_view kUtf16LittleEndianMark = "\xFF\xFE";
constexpr std::string_view kUtf16BigEndianMark = "\xFE\xFF";
} // namespace

std::string_view MarkOf(EVoTextEncoding encoding) noexcept
{
    switch (encoding)
    {
    case EVoTextEncoding::Utf8WithMark:
        return kUtf8Mark;
    case EVoTextEncoding::Utf16LittleEndian:
        return kUtf16LittleEndianMark;
    case EVoTextEncoding::Utf16BigEndian:
        return kUtf16BigEndianMark;
    case EVoTextEncoding::Ansi:
    case EVoTextEncoding::Utf8:
        break;
    }
    return {};
}

bool IsUtf16(EVoTextEncoding encoding) noexcept
{
    return encoding == EVoTextEncoding::Utf16LittleEndian || encoding == EVoTextEncoding::Utf16BigEndian;
}

std::optional<EVoTextEncoding> EncodingOfMark(std::string_view bytes) noexcept
{
    for (const EVoTextEncoding encoding :
         { EVoTextEncoding::Utf8WithMark, EVoTextEncoding::Utf16LittleEndian, EVoTextEncoding::Utf16BigEndian })
        if (bytes.starts_with(MarkOf(encoding)))
            return encoding;
    return std::nullopt;
}

std::string Encode(std::wstring_view text, EVoTextEncoding encoding)
{
    std::string bytes;
    if (IsUtf16(encoding))
    {
        std::wstring units(text);
        if (encoding == EVoTextEncoding::Utf16BigEndian)
            std::transform(units.begin(), units.end(), units.begin(), SwapBytes);
        bytes.resize(units.size() * sizeof(wchar_t));
        std::memcpy(bytes.data(), units.data(), bytes.size());
        return bytes;
    }
    const UINT codePage = encoding == EVoTextEncoding::Ansi ? CP_ACP : CP_UTF8;
    if (const HRESULT hr = VoCodePage::FromText(codePage, text, bytes); FAILED(hr))
        throw CVoHResultException(hr);
    if (encoding == EVoTextEncoding::Ansi)
    {
        // The platform writes a similar character, or "?", for one that the code page does not have.
        std::wstring readBack;
        if (FAILED(VoCodePage::ToText(codePage, bytes, readBack)) || readBack != text)
            throw CVoHResultException(HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
    }
    return bytes;
}

EVoTextEncoding Detect(std::string_view bytes)
{
    if (const std::optional<EVoTextEncoding> marked = EncodingOfMark(bytes))
        return *marked;
    std::wstring text;
    return SUCCEEDED(VoCodePage::ToText(CP_UTF8, bytes, text)) ? EVoTextEncoding::Utf8 : EVoTextEncoding::Ansi;
}
} // namespace VoIniEncoding
