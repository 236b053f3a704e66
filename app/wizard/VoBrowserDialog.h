// A dialog with an embedded browser, for pages that a person must see: a sign-in page, a server's error page.
#pragma once

#include "VoBrowserControl.h"
#include "VoBrowserPolicy.h"

#include <VoHTTPStores.h>

#include <optional>
#include <string>
#include <vector>

// A modal dialog that the user may resize. It shows the real address of the page. New windows stay inside; downloads and
// addresses other than http, https and about:blank are refused, and the dialog says so. Where no browser can be created, or the
// page cannot be loaded, it says so in the page's place. A button opens the page in the system's browser.
//
// One thread makes, shows and reads it. DoModal initialises OLE on that thread while the dialog is shown. In a multithreaded
// apartment OLE cannot be initialised: the dialog appears without a browser, and says so.
class CVoBrowserDialog final : private IVoBrowserHost
{
public:
    struct CRequest
    {
        std::wstring startUrl;
        // The dialog ends when the browser arrives at an address that begins with this one (CVoBrowserPolicy::IsEnd); empty:
        // the user ends it.
        std::wstring endPrefix;
        // Gets the cookies of each site whose page was loaded; null: nobody does.
        CVoComPtr<IVoHTTPCookieStore> cookies;
    };

    explicit CVoBrowserDialog(CRequest request) : m_request(std::move(request)) {}
    CVoBrowserDialog(const CVoBrowserDialog&) = delete;
    CVoBrowserDialog& operator=(const CVoBrowserDialog&) = delete;
    ~CVoBrowserDialog() = default;

    // Shows the dialog. `parent` owns it and is disabled meanwhile; null for no owner. S_OK: the end condition was met.
    // S_FALSE: the user ended the dialog, its owner was destroyed, or the thread's message loop ended (WM_QUIT). E_INVALIDARG
    // for a start or end address that CVoBrowserPolicy refuses; the platform's code when the dialog itself cannot be shown.
    [[nodiscard]] HRESULT DoModal(HWND parent) noexcept;

    // The address at which the browser arrived last; empty when it arrived nowhere.
    [[nodiscard]] const std::wstring& LastUrl() const noexcept { return m_lastUrl; }

private:
    // Where a control stood when the dialog was made, in pixels of the client area.
    struct CPlace
    {
        HWND window;
        RECT rect;
    };
    // Owns a font.
    class CFont
    {
    public:
        CFont() = default;
        CFont(const CFont&) = delete;
        CFont& operator=(const CFont&) = delete;
        ~CFont() { Reset(nullptr); }
        void Reset(HFONT font) noexcept
        {
            if (const HFONT old = std::exchange(m_font, font))
                ::DeleteObject(old);
        }

    private:
        HFONT m_font = nullptr;
    };

    static INT_PTR CALLBACK DialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) noexcept;
    static LRESULT CALLBACK AreaProc(HWND area, UINT message, WPARAM wParam, LPARAM lParam, UINT_PTR id,
                                     DWORD_PTR self) noexcept;
    INT_PTR OnMessage(UINT message, WPARAM wParam, LPARAM lParam);
    INT_PTR OnInitDialog();
    void OnCommand(WORD id);
    void OnDpiChanged(UINT dpi, const RECT& place) noexcept;
    void OnDestroy() noexcept;

    void RunLoop() noexcept;
    void Dispatch(MSG& message) noexcept;
    void StartBrowser();
    void GoTo(const std::wstring& url);
    void OpenOutside();
    void End(HRESULT result) noexcept;
    void HandOverCookies(const std::wstring& url);

    void SetStatus(const std::wstring& text) noexcept;
    // Shows why something was refused, until the next page.
    void Refuse(const std::wstring& text) noexcept;
    void SetAddress(const std::wstring& url);
    // Shows a text in the page's place; an empty one shows the page.
    void ShowInstead(const std::wstring& text) noexcept;
    void SetTexts();
    void EnlargeToScreen() noexcept;
    void LayOut() noexcept;
    void LimitSize(MINMAXINFO& limits) const noexcept;
    [[nodiscard]] LONG Scaled(LONG pixels) const noexcept { return ::MulDiv(pixels, m_dpi, m_designDpi); }
    [[nodiscard]] HWND Item(int id) const noexcept { return ::GetDlgItem(m_dialog, id); }

    // IVoBrowserHost
    bool MayGo(std::wstring_view url) noexcept override;
    void OnArrived() noexcept override;
    void OnComplete() noexcept override;
    void OnFailed(std::wstring_view url, HRESULT code) noexcept override;
    void OnNewWindow(std::wstring_view url) noexcept override;
    void OnDownloadRefused() noexcept override;
    void OnBusy(bool isBusy) noexcept override;
    void OnTabOut(bool backwards) noexcept override;

    CRequest m_request;
    CVoBrowserPolicy m_policy;
    CVoBrowserControl m_browser;
    std::wstring m_lastUrl;
    std::wstring m_wantedUrl; // where to go with "Try again" and "Open in the system's browser"
    std::wstring m_nextUrl;   // a new window's address, until the posted message takes it

    HRESULT m_ole = S_OK; // of initialising OLE
    HWND m_dialog = nullptr;
    std::vector<CPlace> m_places;
    RECT m_design{}; // the client area of the dialog's template
    int m_designDpi = USER_DEFAULT_SCREEN_DPI;
    int m_dpi = USER_DEFAULT_SCREEN_DPI;
    LOGFONTW m_designFont{};
    CFont m_font;
    MSG m_lastKey{};
    std::optional<HRESULT> m_result; // set when the dialog ends
    bool m_hasRefusal = false;       // the status line shows a refusal, which stays until the next page
};
