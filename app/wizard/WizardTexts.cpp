// Reads the string table (WizardTexts.h).
#include "WizardTexts.h"

#include <base/VoErrorText.h>
#include <base/VoText.h>

std::wstring WizardText(UINT id)
{
    // With a size of 0 the platform gives the address of the text inside the resource.
    const wchar_t* text = nullptr;
    const int length = ::LoadStringW(::GetModuleHandleW(nullptr), id, reinterpret_cast<LPWSTR>(&text), 0);
    return length > 0 ? std::wstring(text, static_cast<size_t>(length)) : std::wstring();
}

std::wstring WizardText(UINT id, std::initializer_list<std::wstring_view> values)
{
    const std::wstring format = WizardText(id);
    std::wstring text;
    for (size_t i = 0; i < format.size(); ++i)
    {
        const size_t index =
            format[i] == L'%' && i + 1 < format.size() ? static_cast<size_t>(format[i + 1] - L'1') : values.size();
        if (index < values.size())
        {
            text += values.begin()[index];
            ++i;
        }
        else
            text += format[i];
    }
    return text;
}

std::wstring WizardErrorText(HRESULT hr)
{
    std::wstring text;
    (void)VoGetErrorText(hr, true, &text);
    return std::wstring(VoTrim(text)) + VoFormat(L" (0x%08X)", static_cast<unsigned>(hr));
}
