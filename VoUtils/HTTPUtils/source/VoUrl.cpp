// Encodes URLs for the wire (VoUrl.h).
#include "VoUrl.h"

#include <base/VoErrorHandler.h>
#include <base/VoUtils.h>

#include <algorithm>
#include <array>

namespace
{
constexpr const wchar_t* kUrlSource = L"..\\source\\VoUrl";

// Which characters of ASCII stay as they are in a URL that is already put together: "%", "#", "[" and "]" keep their meaning.
constexpr auto kUrlCharacters = []
{
    std::array<bool, 0x80> plain{};
    std::fill(plain.begin() + 0x21, plain.begin() + 0x7F, true);
    for (const char c : std::string_view("\"<>\\^`{|}"))
        plain[static_cast<BYTE>(c)] = false;
    return plain;
}();
} // namespace

HRESULT VoUrlToBytes(std::wstring_view url, std::string& bytes) noexcept
{
    constexpr CVoReporter report{ kUrlSource, L"VoUrlToBytes" };
    return report.Guard(40, [&]() -> HRESULT
    {
        constexpr char kDigits[] = "0123456789ABCDEF";
        std::string utf8;
        if (const HRESULT hr = VoStringToUTF8(url, utf8); FAILED(hr))
            return report(20, hr);
        std::string encoded;
        encoded.reserve(utf8.size());
        for (const char c : utf8)
        {
            const auto value = static_cast<BYTE>(c);
            if (value < kUrlCharacters.size() && kUrlCharacters[value])
                encoded += c;
            else
                encoded.append({ '%', kDigits[value >> 4], kDigits[value & 15] });
        }
        bytes = std::move(encoded);
        return S_OK;
    });
}

HRESULT VoEncodeUrl(std::wstring_view url, std::wstring& encoded) noexcept
{
    constexpr CVoReporter report{ kUrlSource, L"VoEncodeUrl" };
    return report.Guard(55, [&]() -> HRESULT
    {
        std::string bytes;
        if (const HRESULT hr = VoUrlToBytes(url, bytes); FAILED(hr))
            return report(50, hr);
        encoded.assign(bytes.begin(), bytes.end());
        return S_OK;
    });
}
