// The object through which the embedded browser sees its host: where it is, what it may do, and what it tells.
#pragma once

#include "VoBrowserInterfaces.h"

#include <base/com/VoComInterfaces.h>

#include <string_view>

// What the site passes on. All calls come on the browser's thread, from inside the browser: do not close it there.
class IVoBrowserHost
{
public:
    // Whether the browser, or a frame in it, may go to `url`.
    [[nodiscard]] virtual bool MayGo(std::wstring_view url) noexcept = 0;
    // The browser's own document, not that of a frame, has arrived. The browser knows its address.
    virtual void OnArrived() noexcept = 0;
    // The same document is complete, with its frames.
    virtual void OnComplete() noexcept = 0;
    // The browser's own document cannot be loaded; `code` is an HRESULT.
    virtual void OnFailed(std::wstring_view url, HRESULT code) noexcept = 0;
    // A page wants a new window for `url`. It was refused; the host may go there itself.
    virtual void OnNewWindow(std::wstring_view url) noexcept = 0;
    // A download was refused.
    virtual void OnDownloadRefused() noexcept = 0;
    virtual void OnBusy(bool isBusy) noexcept = 0;
    // Tab was pressed on the last control of the page, or Shift+Tab on the first.
    virtual void OnTabOut(bool backwards) noexcept = 0;

protected:
    ~IVoBrowserHost() = default;
};

// The site of one browser control, on one thread. It owns nothing. The browser may keep it longer than the host lives: after
// Disconnect it passes nothing on.
class CVoBrowserSite final
    : public CVoIUnknownImplOfSeveral<IOleClientSite, IOleInPlaceSite, IOleInPlaceFrame, IOleControlSite, IDocHostUIHandler,
                                      IDispatch, IOleCommandTarget, IServiceProvider, IDownloadManager>
{
public:
    // The browser becomes a child of `area` and fills it. Both must live until Disconnect.
    CVoBrowserSite(IVoBrowserHost& host, HWND area) noexcept : m_host(&host), m_area(area) {}

    // The control whose site this is, to tell its own document from those of frames. Not owned.
    void SetBrowser(IUnknown* identity) noexcept { m_browser = identity; }
    void Disconnect() noexcept;

    // IOleClientSite
    STDMETHODIMP SaveObject() noexcept override { return E_NOTIMPL; }
    STDMETHODIMP GetMoniker(DWORD assign, DWORD which, IMoniker** moniker) noexcept override;
    STDMETHODIMP GetContainer(IOleContainer** container) noexcept override;
    STDMETHODIMP ShowObject() noexcept override { return S_OK; }
    STDMETHODIMP OnShowWindow(BOOL show) noexcept override;
    STDMETHODIMP RequestNewObjectLayout() noexcept override { return E_NOTIMPL; }

    // IOleWindow, of the in-place site and of the frame
    STDMETHODIMP GetWindow(HWND* window) noexcept override;
    STDMETHODIMP ContextSensitiveHelp(BOOL enter) noexcept override;

    // IOleInPlaceSite
    STDMETHODIMP CanInPlaceActivate() noexcept override { return S_OK; }
    STDMETHODIMP OnInPlaceActivate() noexcept override { return S_OK; }
    STDMETHODIMP OnUIActivate() noexcept override { return S_OK; }
    STDMETHODIMP GetWindowContext(IOleInPlaceFrame** frame, IOleInPlaceUIWindow** document, LPRECT position, LPRECT clip,
                                  LPOLEINPLACEFRAMEINFO info) noexcept override;
    STDMETHODIMP Scroll(SIZE extent) noexcept override;
    STDMETHODIMP OnUIDeactivate(BOOL undoable) noexcept override;
    STDMETHODIMP OnInPlaceDeactivate() noexcept override { return S_OK; }
    STDMETHODIMP DiscardUndoState() noexcept override { return S_OK; }
    STDMETHODIMP DeactivateAndUndo() noexcept override { return S_OK; }
    STDMETHODIMP OnPosRectChange(LPCRECT position) noexcept override;

    // IOleInPlaceFrame: no menus, no tool bars
    STDMETHODIMP GetBorder(LPRECT border) noexcept override;
    STDMETHODIMP RequestBorderSpace(LPCBORDERWIDTHS widths) noexcept override;
    STDMETHODIMP SetBorderSpace(LPCBORDERWIDTHS widths) noexcept override;
    STDMETHODIMP SetActiveObject(IOleInPlaceActiveObject* object, LPCOLESTR name) noexcept override;
    STDMETHODIMP InsertMenus(HMENU menu, LPOLEMENUGROUPWIDTHS widths) noexcept override;
    STDMETHODIMP SetMenu(HMENU menu, HOLEMENU oleMenu, HWND window) noexcept override;
    STDMETHODIMP RemoveMenus(HMENU menu) noexcept override;
    STDMETHODIMP SetStatusText(LPCOLESTR text) noexcept override;
    STDMETHODIMP EnableModeless(BOOL enable) noexcept override; // of the UI handler, too
    STDMETHODIMP TranslateAccelerator(LPMSG message, WORD id) noexcept override;

    // IOleControlSite
    STDMETHODIMP OnControlInfoChanged() noexcept override { return S_OK; }
    STDMETHODIMP LockInPlaceActive(BOOL lock) noexcept override;
    STDMETHODIMP GetExtendedControl(IDispatch** control) noexcept override;
    STDMETHODIMP TransformCoords(POINTL* himetric, POINTF* container, DWORD flags) noexcept override;
    STDMETHODIMP TranslateAccelerator(MSG* message, DWORD modifiers) noexcept override;
    STDMETHODIMP OnFocus(BOOL gotFocus) noexcept override;
    STDMETHODIMP ShowPropertyFrame() noexcept override { return E_NOTIMPL; }

    // IDocHostUIHandler
    STDMETHODIMP ShowContextMenu(DWORD id, POINT* point, IUnknown* command, IDispatch* object) noexcept override;
    STDMETHODIMP GetHostInfo(DOCHOSTUIINFO* info) noexcept override;
    STDMETHODIMP ShowUI(DWORD id, IOleInPlaceActiveObject* object, IOleCommandTarget* command, IOleInPlaceFrame* frame,
                        IOleInPlaceUIWindow* document) noexcept override;
    STDMETHODIMP HideUI() noexcept override { return S_OK; }
    STDMETHODIMP UpdateUI() noexcept override { return S_OK; }
    STDMETHODIMP OnDocWindowActivate(BOOL activate) noexcept override;
    STDMETHODIMP OnFrameWindowActivate(BOOL activate) noexcept override;
    STDMETHODIMP ResizeBorder(LPCRECT border, IOleInPlaceUIWindow* window, BOOL isFrame) noexcept override;
    STDMETHODIMP TranslateAccelerator(LPMSG message, const GUID* group, DWORD id) noexcept override;
    STDMETHODIMP GetOptionKeyPath(LPOLESTR* key, DWORD reserved) noexcept override;
    STDMETHODIMP GetDropTarget(IDropTarget* given, IDropTarget** target) noexcept override;
    STDMETHODIMP GetExternal(IDispatch** external) noexcept override;
    STDMETHODIMP TranslateUrl(DWORD reserved, LPWSTR url, LPWSTR* translated) noexcept override;
    STDMETHODIMP FilterDataObject(IDataObject* given, IDataObject** filtered) noexcept override;

    // IDispatch: the ambient properties and the events
    STDMETHODIMP GetTypeInfoCount(UINT* count) noexcept override;
    STDMETHODIMP GetTypeInfo(UINT index, LCID locale, ITypeInfo** info) noexcept override;
    STDMETHODIMP GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID locale, DISPID* ids) noexcept override;
    STDMETHODIMP Invoke(DISPID id, REFIID iid, LCID locale, WORD flags, DISPPARAMS* parameters, VARIANT* result,
                        EXCEPINFO* exception, UINT* wrongArgument) noexcept override;

    // IOleCommandTarget: keeps script errors silent
    STDMETHODIMP QueryStatus(const GUID* group, ULONG count, OLECMD* commands, OLECMDTEXT* text) noexcept override;
    STDMETHODIMP Exec(const GUID* group, DWORD id, DWORD option, VARIANT* in, VARIANT* out) noexcept override;

    // IServiceProvider: gives the download manager
    STDMETHODIMP QueryService(REFGUID service, REFIID iid, void** object) noexcept override;

    // IDownloadManager: refuses every download
    STDMETHODIMP Download(IMoniker* moniker, IBindCtx* context, DWORD verb, LONG flags, BINDINFO* info, LPCOLESTR headers,
                          LPCOLESTR redirected, UINT codePage) noexcept override;

private:
    // The arguments of one event. An event has them in reverse order (platform documentation of DISPPARAMS).
    class CArguments
    {
    public:
        explicit CArguments(const DISPPARAMS& parameters) noexcept : m_parameters(&parameters) {}

        // The argument `index`, counted from 0 in the event's own order; what a reference to a VARIANT refers to. Null when
        // there is none.
        [[nodiscard]] const VARIANT* At(UINT index) const noexcept;
        // A text, empty when the argument is none.
        [[nodiscard]] std::wstring_view Text(UINT index) const noexcept;
        [[nodiscard]] LONG Number(UINT index) const noexcept;
        [[nodiscard]] bool Bool(UINT index) const noexcept;
        // Sets an out argument to VARIANT_TRUE.
        void Set(UINT index) const noexcept;

    private:
        const DISPPARAMS* m_parameters;
    };

    HRESULT QueryOther(REFIID iid, void** object) noexcept override;
    void OnEvent(DISPID id, const CArguments& arguments) noexcept;
    void OnNavigateError(const CArguments& arguments) noexcept;
    // Whether the object of an event is the browser itself, not a frame in it.
    [[nodiscard]] bool IsBrowser(const VARIANT* object) const noexcept;
    [[nodiscard]] RECT Area() const noexcept;

    IVoBrowserHost* m_host;
    HWND m_area;
    IUnknown* m_browser = nullptr;
};
