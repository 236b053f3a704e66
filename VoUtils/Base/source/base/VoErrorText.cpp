// Texts of result codes and the error message box (VoErrorText.h).
#include <base/VoErrorText.h>

#include "VoErrorTranslator.h"

#include <base/VoErrorHandler.h>
#include <base/VoText.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>

namespace
{
constexpr const wchar_t* kErrorTextSource = L"..\\..\\source\\base\\VoErrorText";

constexpr unsigned kFacilityWin32 = 7;
constexpr unsigned kFacilityLibrary = 259;
constexpr unsigned kFacilityTranslator = 260;
constexpr DWORD kFirstInternetError = 12000;
constexpr DWORD kLastInternetError = 12192;

// The library's own codes, in ascending order. A number is never given to another failure; gaps are numbers out of use.
struct CTextRow
{
    HRESULT code;
    const wchar_t* text;
};
constexpr CTextRow kLibraryTexts[] = {
    { kErrorServerNotReached, L"The server could not be reached." },
    { kErrorServerAnswer, L"The server's answer could not be understood." },
    { kErrorServerRefused, L"The server refused the request." },
    { kErrorServerCertificate, L"The server's certificate is not trusted." },
    { kErrorServerCredentials, L"The server refused the user name or the password." },
    { kErrorResponseLimit, L"The server's response is larger than allowed." },
    { kErrorProxyNotReached, L"The proxy server could not be reached." },
    { kErrorProxyCredentials, L"The proxy server refused the user name or the password." },
    { kErrorSignature, L"The signature does not match the data." },
    { kErrorSettings, L"The settings cannot be read." },
    { kErrorSystemTooOld, L"This version of the system is not supported." },
};

// A message from the system's tables, or from those of a module; nothing where there is none.
std::optional<std::wstring> FormatSystemMessage(HMODULE module, DWORD id)
{
    const DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS |
                        (module ? FORMAT_MESSAGE_FROM_HMODULE : FORMAT_MESSAGE_FROM_SYSTEM);
    wchar_t* buffer = nullptr;
    const auto format = [&](DWORD language)
    {
        // With this flag the function takes the address of a pointer where it otherwise takes a buffer.
        return ::FormatMessageW(flags, module, id, language, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    };
    DWORD length = format(MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT));
    // A system may have no texts in the user's language: 0 looks through all languages that it has.
    if (length == 0 && ::GetLastError() == ERROR_RESOURCE_LANG_NOT_FOUND)
        length = format(0);
    const std::unique_ptr<void, decltype(&::LocalFree)> owner(buffer, ::LocalFree);
    if (length == 0 || !buffer)
        return std::nullopt;
    // The tables' texts end with a line end, which a text for the user must not have.
    const std::wstring_view text = VoTrim(std::wstring_view(buffer, length));
    return text.empty() ? std::nullopt : std::optional<std::wstring>(text);
}

std::optional<std::wstring> InternetText(DWORD error)
{
    // Load it as data: only its message table is needed. From the system's folder: a file of that name elsewhere is not the
    // platform's.
    constexpr DWORD kFlags = LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE | LOAD_LIBRARY_SEARCH_SYSTEM32;
    const HMODULE module = ::LoadLibraryExW(L"wininet.dll", nullptr, kFlags);
    if (!module)
        return std::nullopt;
    const std::unique_ptr<std::remove_pointer_t<HMODULE>, decltype(&::FreeLibrary)> owner(module, ::FreeLibrary);
    return FormatSystemMessage(module, error);
}

std::optional<std::wstring> LibraryText(HRESULT code)
{
    const auto* const end = std::end(kLibraryTexts);
    const auto* const row = std::find_if(std::begin(kLibraryTexts), end, [code](const CTextRow& r) { return r.code == code; });
    return row != end ? std::optional<std::wstring>(row->text) : std::nullopt;
}

std::optional<std::wstring> TranslatorText(HRESULT code)
{
    std::wstring text;
    if (!VoErrorLog().UsesErrorTranslator() || FAILED(CVoErrorTranslator::ForProcess().GetErrorString(code, text)) ||
        text.empty())
        return std::nullopt;
    return text;
}

unsigned FacilityOf(HRESULT code) noexcept
{
    return (static_cast<unsigned>(code) >> 16) & 0x1FFF;
}

std::optional<std::wstring> FindText(HRESULT code)
{
    switch (FacilityOf(code))
    {
    case kFacilityWin32:
    {
        const DWORD error = static_cast<DWORD>(code) & 0xFFFF;
        const bool internet = error >= kFirstInternetError && error <= kLastInternetError;
        return internet ? InternetText(error) : FormatSystemMessage(nullptr, error);
    }
    case kFacilityLibrary:
        return LibraryText(code);
    case kFacilityTranslator:
        return TranslatorText(code);
    default:
        return FormatSystemMessage(nullptr, static_cast<DWORD>(code));
    }
}
} // namespace

HRESULT VoGetErrorText(HRESULT code, bool useFallback, std::wstring* text) noexcept
{
    constexpr CVoReporter report{ kErrorTextSource, L"VoGetErrorText" };
    if (!text)
        return S_FALSE;
    const auto body = [&]() -> HRESULT
    {
        std::optional<std::wstring> found = FindText(code);
        if (!found)
        {
            if (!useFallback)
                return report(118, E_FAIL);
            found = L"Unknown system error occured!";
        }
        *text = std::move(*found);
        return S_OK;
    };
    return report.Guard(126, body);
}

HRESULT VoShowError(HRESULT code, bool useFallback) noexcept
{
    constexpr CVoReporter report{ kErrorTextSource, L"VoShowError" };
    std::wstring text;
    if (const HRESULT hr = VoGetErrorText(code, useFallback, &text); FAILED(hr))
        return report(135, hr);
    const bool translated = FacilityOf(code) == kFacilityTranslator && VoErrorLog().UsesErrorTranslator() &&
                            CVoErrorTranslator::ForProcess().IsLoaded();
    const HRESULT hr = translated ? CVoErrorTranslator::ForProcess().ShowErrorMessageWindow(code, text) : VoShowErrorBox(text);
    return FAILED(hr) ? report(139, hr) : S_OK;
}

HRESULT VoLoadErrorTranslator(const wchar_t* loadedModule) noexcept
{
    return CVoErrorTranslator::LoadForProcess(loadedModule);
}
