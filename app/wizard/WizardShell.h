// What the wizard does outside of its window: questions, files, clipboard, browser. Tests replace it.
#pragma once

#include <VoHTTPStores.h>
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
    // Shows a page until the user has seen it. E_INVALIDARG for a URL that is neither http nor https, or has a user name.
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
    // In the browser dialog. The page's cookies go to the cookie store of the process, which lives as long as this object.
    [[nodiscard]] HRESULT ShowPage(HWND owner, const std::wstring& url) override;

private:
    CVoComPtr<IVoHTTPCookieStore> m_cookies;
};

// Opens a file or an address with the program that the user has for it. The platform's error on failure; it shows no message.
[[nodiscard]] HRESULT OpenWithShell(HWND owner, const std::wstring& target) noexcept;
