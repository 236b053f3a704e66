// Creates, drives and closes one embedded browser (IWebBrowser2). The browser dialog owns one.
#pragma once

#include "VoBrowserSite.h"

#include <string>
#include <string_view>

// Used on one thread, which has initialised OLE. Every function but Close fails or does nothing while there is no browser.
class CVoBrowserControl
{
public:
    CVoBrowserControl() = default;
    CVoBrowserControl(const CVoBrowserControl&) = delete;
    CVoBrowserControl& operator=(const CVoBrowserControl&) = delete;
    ~CVoBrowserControl() { Close(); }

    // Creates the browser as a child of `area`, which it fills. Events go to `host` until Close. The platform's code on
    // failure; there is no browser then.
    [[nodiscard]] HRESULT Create(IVoBrowserHost& host, HWND area) noexcept;
    // Ends what the browser does, disconnects it and releases every reference. No event comes afterwards. Not from inside an
    // event of the browser.
    void Close() noexcept;
    [[nodiscard]] bool Exists() const noexcept { return static_cast<bool>(m_browser); }

    // Starts to go to `url`; what happens is told by events. E_FAIL without a browser.
    [[nodiscard]] HRESULT Navigate(std::wstring_view url) noexcept;
    // The address of the browser's own document; empty when there is none. Throws std::bad_alloc.
    [[nodiscard]] std::wstring Location() const;

    // Fills the area again, after that has changed its size.
    void Resize() noexcept;
    // Gives the page the keyboard focus. `message` is the key that brought it, so that the browser knows the direction; null
    // for none.
    void Focus(MSG* message) noexcept;
    // Whether the browser took a key for itself.
    [[nodiscard]] bool TranslateKey(MSG& message) noexcept;

private:
    [[nodiscard]] HRESULT Connect(IVoBrowserHost& host, HWND area) noexcept;
    [[nodiscard]] RECT Area() const noexcept;

    HWND m_area = nullptr;
    CVoComPtr<CVoBrowserSite> m_site;
    CVoComPtr<IOleObject> m_object;
    CVoComPtr<IWebBrowser2> m_browser;
    CVoComPtr<IConnectionPoint> m_events;
    DWORD m_eventsCookie = 0;
    bool m_isAdvised = false;
};
