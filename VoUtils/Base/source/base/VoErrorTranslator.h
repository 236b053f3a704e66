// The optional module that knows the texts of facility 260, "Kestrelan\ErrorTranslator.dll" in the folder of common files.
#pragma once

#include <base/VoErrorHandler.h>

#include <string>

// One loaded translator module; VoLoadErrorTranslator says what it exports, and both exports must be there.
// Loading is not thread-safe; a loaded object may be used by any thread.
class CVoErrorTranslator
{
public:
    CVoErrorTranslator() = default;
    ~CVoErrorTranslator();
    CVoErrorTranslator(const CVoErrorTranslator&) = delete;
    CVoErrorTranslator& operator=(const CVoErrorTranslator&) = delete;

    // Loads a module's file, or takes a module that the process has loaded already. A failure (the module's or a missing
    // export's error) is reported and releases the module.
    [[nodiscard]] HRESULT LoadFile(const std::wstring& path) noexcept;
    [[nodiscard]] HRESULT TakeLoaded(const wchar_t* name) noexcept;

    [[nodiscard]] bool IsLoaded() const noexcept { return m_module != nullptr; }
    // The text of a code; `text` is written on success only.
    [[nodiscard]] HRESULT GetErrorString(HRESULT code, std::wstring& text) const noexcept;
    [[nodiscard]] HRESULT ShowErrorMessageWindow(HRESULT code, const std::wstring& text) const noexcept;

    // The process's translator: loaded by the first call, which shows a message box when that fails. A load that failed is not
    // tried again. It is never unloaded.
    [[nodiscard]] static const CVoErrorTranslator& ForProcess() noexcept;
    // Loads the process's translator unless that was tried before (VoLoadErrorTranslator). `loadedModule` may be null.
    [[nodiscard]] static HRESULT LoadForProcess(const wchar_t* loadedModule) noexcept;

private:
    using GetErrorStringFunction = HRESULT(WINAPI*)(HRESULT code, BSTR* text);
    using ShowErrorMessageWindowFunction = HRESULT(WINAPI*)(HRESULT code, const wchar_t* text);

    HRESULT Resolve(const CVoReporter& report, int line, HMODULE module) noexcept;

    HMODULE m_module = nullptr;
    GetErrorStringFunction m_getErrorString = nullptr;
    ShowErrorMessageWindowFunction m_showErrorMessageWindow = nullptr;
};

// Shows a text in a message box with the caption "Error" and waits for the user.
[[nodiscard]] HRESULT VoShowErrorBox(const std::wstring& text) noexcept;
