// Typed values of INI files (VoIniValues.h).
#include <base/VoIniValues.h>

#include "VoProfile.h"

#include <base/VoErrorHandler.h>
#include <base/VoTextConversion.h>

#include <optional>

namespace
{
constexpr const wchar_t* kIniValuesSource = L"..\\..\\source\\base\\VoUtils";
} // namespace

bool VoGetIniBool(const std::wstring& file, const wchar_t* section, const wchar_t* key, bool defaultValue, bool* present)
{
    const std::optional<std::wstring> text = VoProfile::ReadValue(file, section, key);
    if (present)
        *present = text.has_value();
    bool value = defaultValue;
    if (text && FAILED(VoStringToBool(*text, value)))
        VoReportMessage(kIniValuesSource, 391, L"[%ls] %ls=%ls is no boolean, the default %d holds", section, key,
                        text->c_str(), int{ defaultValue });
    return value;
}

INT32 VoGetIniInt(const std::wstring& file, const wchar_t* section, const wchar_t* key, INT32 defaultValue, bool* present)
{
    const std::optional<std::wstring> text = VoProfile::ReadValue(file, section, key);
    if (present)
        *present = text.has_value();
    if (!text)
        return defaultValue;
    bool isOutOfRange = false;
    std::optional<INT32> value = VoProfile::ParseInteger(*text, &isOutOfRange);
    if (isOutOfRange)
        value.reset();
    if (!value)
        VoReportMessage(kIniValuesSource, 404, L"[%ls] %ls=%ls is no integer, the default %d holds", section, key,
                        text->c_str(), defaultValue);
    return value.value_or(defaultValue);
}

std::wstring VoGetIniString(const std::wstring& file, const wchar_t* section, const wchar_t* key,
                            const std::wstring& defaultValue, bool* present)
{
    std::optional<std::wstring> text = VoProfile::ReadValue(file, section, key);
    if (present)
        *present = text.has_value();
    return text ? *std::move(text) : std::wstring(defaultValue);
}
