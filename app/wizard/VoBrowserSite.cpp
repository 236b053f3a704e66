// The embedded browser's view of its host (VoBrowserSite.h).
#include "VoBrowserSite.h"

#include <base/com/VoComHelper.h>

#include <exdispid.h>
#include <mshtmdid.h>
#include <mshtml.h>

namespace
{
// Lowest status that is one of HTTP in NavigateError; other codes are HRESULTs.
constexpr LONG kLowestHttpStatus = 100;

// What the browser loads and runs: pictures and media, but no ActiveX controls.
constexpr LONG kDownloadControl =
    DLCTL_DLIMAGES | DLCTL_VIDEOS | DLCTL_BGSOUNDS | DLCTL_NO_DLACTIVEXCTLS | DLCTL_NO_RUNACTIVEXCTLS;

// IDM_... groups of commands that the browser sends to its host (platform documentation of OLECMDID_SHOWSCRIPTERROR).
constexpr GUID kDocHostCommandHandler{ 0xF38BC242, 0xB950, 0x11D1, { 0x89, 0x18, 0x00, 0xC0, 0x4F, 0xC2, 0xC8, 0x36 } };
} // namespace

void CVoBrowserSite::Disconnect() noexcept
{
    m_host = nullptr;
    m_area = nullptr;
    m_browser = nullptr;
}

HRESULT CVoBrowserSite::QueryOther(REFIID iid, void** object) noexcept
{
    if (IsEqualIID(iid, kVoInterfaceId<IOleWindow>))
        *object = static_cast<IOleInPlaceSite*>(this);
    else if (IsEqualIID(iid, kVoInterfaceId<IOleInPlaceUIWindow>))
        *object = static_cast<IOleInPlaceFrame*>(this);
    else if (IsEqualIID(iid, kVoBrowserEvents))
        *object = static_cast<IDispatch*>(this);
    else
        return CVoIUnknownImplOfSeveral::QueryOther(iid, object);
    AddRef();
    return S_OK;
}

RECT CVoBrowserSite::Area() const noexcept
{
    RECT area{};
    if (m_area)
        ::GetClientRect(m_area, &area);
    return area;
}

HRESULT CVoBrowserSite::GetMoniker(DWORD /*assign*/, DWORD /*which*/, IMoniker** moniker) noexcept
{
    if (moniker)
        *moniker = nullptr;
    return E_NOTIMPL;
}

HRESULT CVoBrowserSite::GetContainer(IOleContainer** container) noexcept
{
    if (container)
        *container = nullptr;
    return E_NOINTERFACE;
}

HRESULT CVoBrowserSite::OnShowWindow(BOOL /*show*/) noexcept
{
    return S_OK;
}

HRESULT CVoBrowserSite::GetWindow(HWND* window) noexcept
{
    if (!window)
        return E_POINTER;
    *window = m_area;
    return m_area ? S_OK : E_FAIL;
}

HRESULT CVoBrowserSite::ContextSensitiveHelp(BOOL /*enter*/) noexcept
{
    return E_NOTIMPL;
}

HRESULT CVoBrowserSite::GetWindowContext(IOleInPlaceFrame** frame, IOleInPlaceUIWindow** document, LPRECT position, LPRECT clip,
                                         LPOLEINPLACEFRAMEINFO info) noexcept
{
    if (!frame || !document || !position || !clip || !info)
        return E_POINTER;
    *frame = this;
    AddRef();
    *document = nullptr; // the frame is the document's window, too
    *position = Area();
    *clip = *position;
    info->fMDIApp = FALSE;
    info->hwndFrame = m_area;
    info->haccel = nullptr;
    info->cAccelEntries = 0;
    return S_OK;
}

HRESULT CVoBrowserSite::Scroll(SIZE /*extent*/) noexcept
{
    return E_NOTIMPL;
}

HRESULT CVoBrowserSite::OnUIDeactivate(BOOL /*undoable*/) noexcept
{
    return S_OK;
}

HRESULT CVoBrowserSite::OnPosRectChange(LPCRECT /*position*/) noexcept
{
    return S_OK; // the browser always fills its area
}

HRESULT CVoBrowserSite::GetBorder(LPRECT /*border*/) noexcept
{
    return INPLACE_E_NOTOOLSPACE;
}

HRESULT CVoBrowserSite::RequestBorderSpace(LPCBORDERWIDTHS /*widths*/) noexcept
{
    return INPLACE_E_NOTOOLSPACE;
}

HRESULT CVoBrowserSite::SetBorderSpace(LPCBORDERWIDTHS /*widths*/) noexcept
{
    return INPLACE_E_NOTOOLSPACE;
}

HRESULT CVoBrowserSite::SetActiveObject(IOleInPlaceActiveObject* /*object*/, LPCOLESTR /*name*/) noexcept
{
    return S_OK; // the host asks the browser for it
}

HRESULT CVoBrowserSite::InsertMenus(HMENU /*menu*/, LPOLEMENUGROUPWIDTHS /*widths*/) noexcept
{
    return E_NOTIMPL;
}

HRESULT CVoBrowserSite::SetMenu(HMENU /*menu*/, HOLEMENU /*oleMenu*/, HWND /*window*/) noexcept
{
    return S_OK;
}

HRESULT CVoBrowserSite::RemoveMenus(HMENU /*menu*/) noexcept
{
    return S_OK;
}

HRESULT CVoBrowserSite::SetStatusText(LPCOLESTR /*text*/) noexcept
{
    return S_OK; // a page can set it: it is not shown
}

HRESULT CVoBrowserSite::EnableModeless(BOOL /*enable*/) noexcept
{
    return S_OK;
}

HRESULT CVoBrowserSite::TranslateAccelerator(LPMSG /*message*/, WORD /*id*/) noexcept
{
    return S_FALSE;
}

HRESULT CVoBrowserSite::LockInPlaceActive(BOOL /*lock*/) noexcept
{
    return S_OK;
}

HRESULT CVoBrowserSite::GetExtendedControl(IDispatch** control) noexcept
{
    if (control)
        *control = nullptr;
    return E_NOTIMPL;
}

HRESULT CVoBrowserSite::TransformCoords(POINTL* /*himetric*/, POINTF* /*container*/, DWORD /*flags*/) noexcept
{
    return E_NOTIMPL;
}

HRESULT CVoBrowserSite::TranslateAccelerator(MSG* message, DWORD /*modifiers*/) noexcept
{
    // The browser sends Tab here when the focus is on the page's last control.
    if (!m_host || !message || message->message != WM_KEYDOWN || message->wParam != VK_TAB)
        return S_FALSE;
    m_host->OnTabOut(::GetKeyState(VK_SHIFT) < 0);
    return S_OK;
}

HRESULT CVoBrowserSite::OnFocus(BOOL /*gotFocus*/) noexcept
{
    return S_OK;
}

HRESULT CVoBrowserSite::ShowContextMenu(DWORD id, POINT* /*point*/, IUnknown* /*command*/, IDispatch* /*object*/) noexcept
{
    // The menus of fields and of selected text have Copy and Paste. The others have commands that save files or open windows.
    return id == CONTEXT_MENU_CONTROL || id == CONTEXT_MENU_TEXTSELECT ? S_FALSE : S_OK;
}

HRESULT CVoBrowserSite::GetHostInfo(DOCHOSTUIINFO* info) noexcept
{
    if (!info)
        return E_POINTER;
    info->dwFlags = DOCHOSTUIFLAG_NO3DBORDER | DOCHOSTUIFLAG_THEME | DOCHOSTUIFLAG_DPI_AWARE;
    info->dwDoubleClick = DOCHOSTUIDBLCLK_DEFAULT;
    return S_OK;
}

HRESULT CVoBrowserSite::ShowUI(DWORD /*id*/, IOleInPlaceActiveObject* /*object*/, IOleCommandTarget* /*command*/,
                               IOleInPlaceFrame* /*frame*/, IOleInPlaceUIWindow* /*document*/) noexcept
{
    return S_FALSE; // the browser's own
}

HRESULT CVoBrowserSite::OnDocWindowActivate(BOOL /*activate*/) noexcept
{
    return S_OK;
}

HRESULT CVoBrowserSite::OnFrameWindowActivate(BOOL /*activate*/) noexcept
{
    return S_OK;
}

HRESULT CVoBrowserSite::ResizeBorder(LPCRECT /*border*/, IOleInPlaceUIWindow* /*window*/, BOOL /*isFrame*/) noexcept
{
    return S_OK;
}

HRESULT CVoBrowserSite::TranslateAccelerator(LPMSG message, const GUID* /*group*/, DWORD /*id*/) noexcept
{
    // Ctrl+N, Ctrl+O, Ctrl+P, Ctrl+L and Ctrl+S of the browser open windows and files: they do nothing here.
    constexpr std::wstring_view kRefused = L"LNOPS";
    const bool isRefused = message && message->message == WM_KEYDOWN && ::GetKeyState(VK_CONTROL) < 0 &&
                           kRefused.find(static_cast<wchar_t>(message->wParam)) != std::wstring_view::npos;
    return isRefused ? S_OK : S_FALSE;
}

HRESULT CVoBrowserSite::GetOptionKeyPath(LPOLESTR* key, DWORD /*reserved*/) noexcept
{
    if (key)
        *key = nullptr;
    return S_FALSE;
}

HRESULT CVoBrowserSite::GetDropTarget(IDropTarget* /*given*/, IDropTarget** target) noexcept
{
    if (target)
        *target = nullptr;
    return E_NOTIMPL;
}

HRESULT CVoBrowserSite::GetExternal(IDispatch** external) noexcept
{
    // Pages get no object of the program.
    if (external)
        *external = nullptr;
    return S_FALSE;
}

HRESULT CVoBrowserSite::TranslateUrl(DWORD /*reserved*/, LPWSTR /*url*/, LPWSTR* translated) noexcept
{
    if (translated)
        *translated = nullptr;
    return S_FALSE;
}

HRESULT CVoBrowserSite::FilterDataObject(IDataObject* /*given*/, IDataObject** filtered) noexcept
{
    if (filtered)
        *filtered = nullptr;
    return S_FALSE;
}

HRESULT CVoBrowserSite::GetTypeInfoCount(UINT* count) noexcept
{
    if (!count)
        return E_POINTER;
    *count = 0;
    return S_OK;
}

HRESULT CVoBrowserSite::GetTypeInfo(UINT /*index*/, LCID /*locale*/, ITypeInfo** info) noexcept
{
    if (info)
        *info = nullptr;
    return E_NOTIMPL;
}

HRESULT CVoBrowserSite::GetIDsOfNames(REFIID /*iid*/, LPOLESTR* /*names*/, UINT /*count*/, LCID /*locale*/,
                                      DISPID* /*ids*/) noexcept
{
    return DISP_E_UNKNOWNNAME;
}

HRESULT CVoBrowserSite::Invoke(DISPID id, REFIID /*iid*/, LCID /*locale*/, WORD flags, DISPPARAMS* parameters, VARIANT* result,
                               EXCEPINFO* /*exception*/, UINT* /*wrongArgument*/) noexcept
{
    if (id == DISPID_AMBIENT_DLCONTROL && result && (flags & DISPATCH_PROPERTYGET))
    {
        result->vt = VT_I4;
        result->lVal = kDownloadControl;
        return S_OK;
    }
    if (id < 0 || !parameters)
        return DISP_E_MEMBERNOTFOUND;
    if (m_host)
        OnEvent(id, CArguments(*parameters));
    return S_OK;
}

void CVoBrowserSite::OnEvent(DISPID id, const CArguments& arguments) noexcept
{
    switch (id)
    {
    case DISPID_BEFORENAVIGATE2: // object, URL, flags, frame, post data, headers, cancel
        if (!m_host->MayGo(arguments.Text(1)))
            arguments.Set(6);
        break;
    case DISPID_NAVIGATECOMPLETE2: // object, URL
        if (IsBrowser(arguments.At(0)))
            m_host->OnArrived();
        break;
    case DISPID_DOCUMENTCOMPLETE: // object, URL
        if (IsBrowser(arguments.At(0)))
            m_host->OnComplete();
        break;
    case DISPID_NAVIGATEERROR:
        OnNavigateError(arguments);
        break;
    case DISPID_NEWWINDOW3: // object, cancel, flags, URL of the page, URL
        arguments.Set(1);
        m_host->OnNewWindow(arguments.Text(4));
        break;
    case DISPID_NEWWINDOW2: // object, cancel; NewWindow3 was raised before
        arguments.Set(1);
        break;
    case DISPID_FILEDOWNLOAD: // is an active document, cancel; an active document is shown inside
        if (arguments.Bool(0))
            break;
        arguments.Set(1);
        m_host->OnDownloadRefused();
        break;
    case DISPID_WINDOWCLOSING: // is a child, cancel; the dialog alone ends the browser
        arguments.Set(1);
        break;
    case DISPID_DOWNLOADBEGIN:
    case DISPID_DOWNLOADCOMPLETE:
        m_host->OnBusy(id == DISPID_DOWNLOADBEGIN);
        break;
    default:
        break;
    }
}

void CVoBrowserSite::OnNavigateError(const CArguments& arguments) noexcept
{
    // Object, URL, frame, code, cancel. The page that a server sends with an error status is what the person wants to see.
    const LONG code = arguments.Number(3);
    if (!IsBrowser(arguments.At(0)) || code >= kLowestHttpStatus)
        return;
    arguments.Set(4); // no page of the browser's own
    m_host->OnFailed(arguments.Text(1), static_cast<HRESULT>(code));
}

bool CVoBrowserSite::IsBrowser(const VARIANT* object) const noexcept
{
    if (!object || object->vt != VT_DISPATCH || !object->pdispVal)
        return false;
    CVoComPtr<IUnknown> identity;
    // The identity of a COM object is its IUnknown.
    return SUCCEEDED(object->pdispVal->QueryInterface(kVoInterfaceId<IUnknown>, identity.PutVoid())) &&
           identity.Get() == m_browser;
}

HRESULT CVoBrowserSite::QueryStatus(const GUID* /*group*/, ULONG /*count*/, OLECMD* /*commands*/, OLECMDTEXT* /*text*/) noexcept
{
    return OLECMDERR_E_UNKNOWNGROUP;
}

HRESULT CVoBrowserSite::Exec(const GUID* group, DWORD id, DWORD /*option*/, VARIANT* /*in*/, VARIANT* out) noexcept
{
    if (!group || !IsEqualGUID(*group, kDocHostCommandHandler))
        return OLECMDERR_E_UNKNOWNGROUP;
    if (id != OLECMDID_SHOWSCRIPTERROR)
        return OLECMDERR_E_NOTSUPPORTED;
    // Handled: no message box. The page's scripts go on. IWebBrowser2::Silent would also suppress the browser's questions for
    // credentials.
    if (out)
    {
        ::VariantClear(out);
        out->vt = VT_BOOL;
        out->boolVal = VARIANT_TRUE;
    }
    return S_OK;
}

HRESULT CVoBrowserSite::QueryService(REFGUID service, REFIID iid, void** object) noexcept
{
    if (!object)
        return E_POINTER;
    *object = nullptr;
    // The service's identifier is the interface's (platform documentation of IDownloadManager).
    return IsEqualGUID(service, kVoInterfaceId<IDownloadManager>) ? QueryInterface(iid, object) : E_NOINTERFACE;
}

HRESULT CVoBrowserSite::Download(IMoniker* /*moniker*/, IBindCtx* /*context*/, DWORD /*verb*/, LONG /*flags*/,
                                 BINDINFO* /*info*/, LPCOLESTR /*headers*/, LPCOLESTR /*redirected*/,
                                 UINT /*codePage*/) noexcept
{
    if (m_host)
        m_host->OnDownloadRefused();
    return S_OK; // the host has taken the download; nothing reads it
}

const VARIANT* CVoBrowserSite::CArguments::At(UINT index) const noexcept
{
    if (index >= m_parameters->cArgs)
        return nullptr;
    const VARIANT* const argument = &m_parameters->rgvarg[m_parameters->cArgs - 1 - index];
    return argument->vt == (VT_BYREF | VT_VARIANT) ? argument->pvarVal : argument;
}

std::wstring_view CVoBrowserSite::CArguments::Text(UINT index) const noexcept
{
    const VARIANT* const argument = At(index);
    return argument && argument->vt == VT_BSTR ? CVoBstr::ViewOf(argument->bstrVal) : std::wstring_view();
}

LONG CVoBrowserSite::CArguments::Number(UINT index) const noexcept
{
    const VARIANT* const argument = At(index);
    return argument && argument->vt == VT_I4 ? argument->lVal : 0;
}

bool CVoBrowserSite::CArguments::Bool(UINT index) const noexcept
{
    const VARIANT* const argument = At(index);
    return argument && argument->vt == VT_BOOL && argument->boolVal != VARIANT_FALSE;
}

void CVoBrowserSite::CArguments::Set(UINT index) const noexcept
{
    const VARIANT* const argument = At(index);
    if (argument && argument->vt == (VT_BYREF | VT_BOOL) && argument->pboolVal)
        *argument->pboolVal = VARIANT_TRUE;
}
