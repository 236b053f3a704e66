// Hosts the browser control (VoBrowserControl.h).
#include "VoBrowserControl.h"

#include <base/VoHResult.h>
#include <base/com/VoComHelper.h>

HRESULT CVoBrowserControl::Create(IVoBrowserHost& host, HWND area) noexcept
{
    Close();
    const HRESULT hr = Connect(host, area);
    if (FAILED(hr))
        Close();
    return hr;
}

HRESULT CVoBrowserControl::Connect(IVoBrowserHost& host, HWND area) noexcept
{
    m_area = area;
    m_site = VoMakeComObject<CVoBrowserSite>(host, area);
    if (!m_site)
        return E_OUTOFMEMORY;
    if (const HRESULT hr = ::CoCreateInstance(kVoBrowserControl, nullptr, CLSCTX_INPROC_SERVER, kVoInterfaceId<IOleObject>,
                                              m_object.PutVoid());
        FAILED(hr))
        return hr;
    CVoComPtr<IUnknown> identity;
    if (const HRESULT hr = m_object.As(identity); FAILED(hr))
        return hr;
    // Not owned by the site, so that the two do not keep each other alive.
    m_site->SetBrowser(identity.Get());
    if (const HRESULT hr = m_object->SetClientSite(m_site.Get()); FAILED(hr))
        return hr;
    const RECT position = Area();
    if (const HRESULT hr = m_object->DoVerb(OLEIVERB_INPLACEACTIVATE, nullptr, m_site.Get(), 0, area, &position); FAILED(hr))
        return hr;
    CVoComPtr<IWebBrowser2> browser;
    if (const HRESULT hr = m_object.As(browser); FAILED(hr))
        return hr;
    CVoComPtr<IConnectionPointContainer> container;
    if (const HRESULT hr = m_object.As(container); FAILED(hr))
        return hr;
    if (const HRESULT hr = container->FindConnectionPoint(kVoBrowserEvents, m_events.Put()); FAILED(hr))
        return hr;
    if (const HRESULT hr = m_events->Advise(static_cast<IOleClientSite*>(m_site.Get()), &m_eventsCookie); FAILED(hr))
        return hr;
    m_isAdvised = true;
    // Without it a dropped file or link would be opened.
    (void)browser->put_RegisterAsDropTarget(VARIANT_FALSE);
    m_browser = std::move(browser);
    return S_OK;
}

void CVoBrowserControl::Close() noexcept
{
    if (m_site)
        m_site->Disconnect();
    if (m_browser)
        (void)m_browser->Stop();
    if (m_isAdvised)
        (void)m_events->Unadvise(m_eventsCookie);
    m_isAdvised = false;
    m_events.Reset();
    m_browser.Reset();
    if (m_object)
    {
        CVoComPtr<IOleInPlaceObject> inPlace;
        if (SUCCEEDED(m_object.As(inPlace)))
            (void)inPlace->InPlaceDeactivate();
        inPlace.Reset();
        (void)m_object->Close(OLECLOSE_NOSAVE);
        (void)m_object->SetClientSite(nullptr);
    }
    m_object.Reset();
    m_site.Reset();
    m_area = nullptr;
}

HRESULT CVoBrowserControl::Navigate(std::wstring_view url) noexcept
{
    if (!m_browser)
        return E_FAIL;
    try
    {
        CVoVariant target;
        target.Get().bstrVal = CVoBstr(url).Detach();
        target.Get().vt = VT_BSTR;
        CVoVariant none;
        return m_browser->Navigate2(&target.Get(), &none.Get(), &none.Get(), &none.Get(), &none.Get());
    }
    catch (...)
    {
        return HResultFromCurrentException();
    }
}

std::wstring CVoBrowserControl::Location() const
{
    CVoBstr url;
    return m_browser && SUCCEEDED(m_browser->get_LocationURL(url.Put())) ? std::wstring(url.View()) : std::wstring();
}

void CVoBrowserControl::Resize() noexcept
{
    CVoComPtr<IOleInPlaceObject> inPlace;
    if (!m_browser || FAILED(m_browser.As(inPlace)))
        return;
    const RECT area = Area();
    (void)inPlace->SetObjectRects(&area, &area);
}

void CVoBrowserControl::Focus(MSG* message) noexcept
{
    const RECT area = Area();
    if (m_browser)
        (void)m_object->DoVerb(OLEIVERB_UIACTIVATE, message, m_site.Get(), 0, m_area, &area);
}

bool CVoBrowserControl::TranslateKey(MSG& message) noexcept
{
    CVoComPtr<IOleInPlaceActiveObject> active;
    return m_browser && SUCCEEDED(m_browser.As(active)) && active->TranslateAccelerator(&message) == S_OK;
}

RECT CVoBrowserControl::Area() const noexcept
{
    RECT area{};
    ::GetClientRect(m_area, &area);
    return area;
}
