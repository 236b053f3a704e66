// Values of INI files through the platform's profile functions (VoProfile.h).
#include "VoProfile.h"

#include <base/VoText.h>

#include <iterator>

namespace VoProfile
{
std::optional<std::wstring> ReadValue(const std::wstring& file, const wchar_t* section, const wchar_t* key)
{
    // This default tells a missing key from an empty value: U+FFFF is not a character, so no file contains it.
    constexpr const wchar_t* kMissing = L"\xFFFF";
    constexpr size_t kMaximumValue = 260;
    wchar_t buffer[kMaximumValue + 1];
    const DWORD length =
        ::GetPrivateProfileStringW(section, key, kMissing, buffer, static_cast<DWORD>(std::size(buffer)), file.c_str());
    std::wstring value(buffer, length);
    if (value == kMissing)
        return std::nullopt;
    return value;
}

std::optional<INT32> ParseInteger(std::wstring_view text, bool* isOutOfRange) noexcept
{
    text = VoTrim(text);
    if (text.starts_with(L'+') && !text.starts_with(L"+-"))
        text.remove_prefix(1);
    return VoParseDecimalClamped<INT32>(text, isOutOfRange);
}
} // namespace VoProfile
