// What the wizard does outside of its window: questions, files, clipboard, browser. Tests replace it.
#pragma once

#include <base/VoPlatform.h>

#include <optional>
#include <string>

// The window's thread calls it. `owner` is the wizard's window, which is disabled while something else is shown. All functions
// may throw std::bad_alloc.
class IWizardShell
{
public:
    // Yes or no.
    [[nodiscard]] virtual bool Ask(HWND owner, const std::wstring& question) = 0;
    virtual void Tell(HWND owner, const std::wstring& text) = 0;
    // The file for the report; nothing when the user cancels. A name that ends with ".json" gets the JSON form.
    [[nodiscard]] virtual std::optional<std::wstring> AskForFile(HWND owner) = 0;
    [[nodiscard]] virtual HRESULT Copy(HWND owner, const std::wstring& text) = 0;
    // Opens a file with the program that the user has for it.
    [[nodiscard]] virtual HRESULT OpenFile(HWND owner, const std::wstring& path) = 0;
    // Shows a page. E_INVALIDARG for a URL that is neither http nor https.
    [[nodiscard]] virtual HRESULT ShowPage(HWND owner, const std::wstring& url) = 0;

protected:
    ~IWizardShell() = default;
};

// The desktop of the user.
class CWizardDesktop final : public IWizardShell
{
public:
    [[nodiscard]] bool Ask(HWND owner, const std::wstring& question) override;
    void Tell(HWND owner, const std::wstring& text) override;
    [[nodiscard]] std::optional<std::wstring> AskForFile(HWND owner) override;
    [[nodiscard]] HRESULT Copy(HWND owner, const std::wstring& text) override;
    [[nodiscard]] HRESULT OpenFile(HWND owner, const std::wstring& path) override;
    [[nodiscard]] HRESULT ShowPage(HWND owner, const std::wstring& url) override;
};
