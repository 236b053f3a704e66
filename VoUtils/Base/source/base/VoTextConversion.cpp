// Conversions of text that report their failures (VoTextConversion.h).
#include <base/VoTextConversion.h>

#include "VoCodePage.h"

#include <base/VoErrorHandler.h>
#include <base/VoText.h>

#include <optional>

namespace
{
constexpr const wchar_t* kTextConversionSource = L"..\\..\\source\\base\\VoUtils";
} // namespace

HRESULT VoStringToBool(CVoTextView text, bool& value) noexcept
{
    constexpr CVoReporter report{ kTextConversionSource, L"VoStringToBool" };
    const std::optional<bool> parsed = VoParseBool(text);
    if (!parsed)
        return report(85, E_INVALIDARG);
    value = *parsed;
    return S_OK;
}

HRESULT VoStringToASCII(CVoTextView text, std::string& bytes) noexcept
{
    constexpr CVoReporter report{ kTextConversionSource, L"VoStringToASCII" };
    const auto body = [&]() -> HRESULT
    {
        const HRESULT hr = VoCodePage::FromText(CP_ACP, text, bytes);
        return FAILED(hr) ? report(94, hr) : S_OK;
    };
    return report.Guard(95, body);
}

HRESULT VoStringToUTF8(CVoTextView text, std::string& bytes) noexcept
{
    constexpr CVoReporter report{ kTextConversionSource, L"VoStringToUTF8" };
    const auto body = [&]() -> HRESULT
    {
        const HRESULT hr = VoCodePage::FromText(CP_UTF8, text, bytes);
        return FAILED(hr) ? report(104, hr) : S_OK;
    };
    return report.Guard(105, body);
}

HRESULT VoUTF8ToString(CVoBytesView bytes, std::wstring& text) noexcept
{
    constexpr CVoReporter report{ kTextConversionSource, L"VoUTF8ToString" };
    const auto body = [&]() -> HRESULT
    {
        const HRESULT hr = VoCodePage::ToText(CP_UTF8, bytes, text);
        return FAILED(hr) ? report(114, hr) : S_OK;
    };
    return report.Guard(115, body);
}

HRESULT VoStringToCodePage(UINT codePage, CVoTextView text, std::string& bytes) noexcept
{
    constexpr CVoReporter report{ kTextConversionSource, L"VoStringToCodePage" };
    const auto body = [&]() -> HRESULT
    {
        const HRESULT hr = VoCodePage::FromText(codePage, text, bytes);
        return FAILED(hr) ? report(124, hr) : S_OK;
    };
    return report.Guard(125, body);
}

HRESULT VoCodePageToString(UINT codePage, CVoBytesView bytes, std::wstring& text) noexcept
{
    constexpr CVoReporter report{ kTextConversionSource, L"VoCodePageToString" };
    const auto body = [&]() -> HRESULT
    {
        const HRESULT hr = VoCodePage::ToText(codePage, bytes, text);
        return FAILED(hr) ? report(134, hr) : S_OK;
    };
    return report.Guard(135, body);
}
