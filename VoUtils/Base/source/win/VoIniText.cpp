// White space in INI files (VoIniText.h).
#include <win/VoIniText.h>

std::wstring_view VoIniTrimRight(std::wstring_view text) noexcept
{
    while (!text.empty() && VoIniIsSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

std::wstring_view VoIniTrim(std::wstring_view text) noexcept
{
    while (!text.empty() && VoIniIsSpace(text.front()))
        text.remove_prefix(1);
    return VoIniTrimRight(text);
}
