// Stands in for the embedded browser: a class object for its CLSID in the calling apartment, and a control that goes where a
// test says. The tests of the browser dialog use it.
#pragma once

#include <VoBrowserInterfaces.h>
#include <base/com/VoComHelper.h>
#include <base/com/VoComInterfaces.h>

#include <exdispid.h>
#include <gtest/gtest.h>
#include <ole2.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace TestSupport
{
class CFakeBrowser;

// What the browsers of one test do, and what they were asked for.
struct CFakeEngine
{
    // Called for each Navigate2 that BeforeNavigate2 lets pass. Without it the browser arrives.
    std::function<void(CFakeBrowser& browser, const std::wstring& url)> onGo;
    HRESULT creation = S_OK;   // of the class object
    HRESULT activation = S_OK; // of DoVerb
    HRESULT connection = S_OK; // of Advise
    bool firesOnStop = false;
    std::vector<std::wstring> asked; // the addresses of Navigate2
    int alive = 0;                   // browsers that exist
};

// A method that the dialog does not use.
#define VO_STUB(name, ...)                                                                                                     \
    STDMETHODIMP name(__VA_ARGS__) noexcept override                                                                           \
    {                                                                                                                          \
        return E_NOTIMPL;                                                                                                      \
    }

class CFakeBrowser final : public CVoIUnknownImplOfSeveral<IOleObject, IOleInPlaceObject, IOleInPlaceActiveObject,
                                                           IConnectionPointContainer, IConnectionPoint, IWebBrowser2>
{
public:
    explicit CFakeBrowser(CFakeEngine& engine) : m_engine(engine) { ++m_engine.alive; }
    ~CFakeBrowser() override
    {
        --m_engine.alive;
        EXPECT_FALSE(m_sink) << "still advised";
        EXPECT_FALSE(m_site) << "still has its site";
    }

    // The dialog, and the window of the "page", a child of the browser's area.
    [[nodiscard]] HWND Dialog() const { return ::GetAncestor(m_page, GA_ROOT); }
    [[nodiscard]] HWND Page() const { return m_page; }
    [[nodiscard]] RECT Place() const { return m_place; }

    // Raises an event of the browser (`object` is this) or of a frame in it (another object), with what the event has of `url`
    // and `code`. The URL of most events is a reference to a VARIANT, as the browser has it. Returns whether the event was
    // cancelled.
    bool Raise(DISPID id, IDispatch* object, const std::wstring& url, LONG code = 0)
    {
        VARIANT_BOOL cancel = VARIANT_FALSE;
        CVoVariant text;
        text.Get().bstrVal = CVoBstr(url).Detach();
        text.Get().vt = VT_BSTR;
        const auto pointer = [](VARTYPE type, void* value)
        {
            VARIANT argument{};
            argument.vt = static_cast<VARTYPE>(type | VT_BYREF);
            argument.byref = value;
            return argument;
        };
        VARIANT empty{};
        VARIANT source{};
        source.vt = VT_DISPATCH;
        source.pdispVal = object;
        VARIANT number{};
        number.vt = VT_I4;
        number.lVal = code;
        const VARIANT reference = pointer(VT_VARIANT, &text.Get());
        const VARIANT out = pointer(VT_BOOL, &cancel);
        std::vector<VARIANT> arguments;
        if (id == DISPID_BEFORENAVIGATE2)
            arguments = { source, reference, empty, empty, empty, empty, out };
        else if (id == DISPID_NAVIGATEERROR)
            arguments = { source, reference, empty, pointer(VT_VARIANT, &number), out };
        else if (id == DISPID_NEWWINDOW3)
            arguments = { empty, out, empty, empty, text.Get() };
        else if (id == DISPID_FILEDOWNLOAD)
        {
            number.vt = VT_BOOL;
            number.boolVal = code ? VARIANT_TRUE : VARIANT_FALSE;
            arguments = { number, out };
        }
        else
            arguments = { source, reference };
        std::reverse(arguments.begin(), arguments.end());
        DISPPARAMS parameters{ arguments.data(), nullptr, static_cast<UINT>(arguments.size()), 0 };
        const CVoComPtr<IDispatch> sink = m_sink; // it may unadvise
        if (sink)
        {
            EXPECT_EQ(S_OK, sink->Invoke(id, IID_NULL, 0, DISPATCH_METHOD, &parameters, nullptr, nullptr, nullptr));
        }
        return cancel != VARIANT_FALSE;
    }
    // The browser's own document goes to `url`, as a link does it; whether it was let.
    bool Go(const std::wstring& url)
    {
        if (Raise(DISPID_BEFORENAVIGATE2, this, url))
            return false;
        Arrive(url);
        return true;
    }
    void Arrive(const std::wstring& url)
    {
        m_location = url;
        Raise(DISPID_NAVIGATECOMPLETE2, this, url);
        Raise(DISPID_DOCUMENTCOMPLETE, this, url);
    }
    // What the browser does when Tab leaves the page's last control.
    HRESULT TabOut(MSG* message)
    {
        CVoComPtr<IOleControlSite> site;
        return SUCCEEDED(m_site.As(site)) ? site->TranslateAccelerator(message, 0) : E_FAIL;
    }

    // IOleObject
    STDMETHODIMP SetClientSite(IOleClientSite* site) noexcept override
    {
        m_site = site;
        return S_OK;
    }
    STDMETHODIMP DoVerb(LONG verb, LPMSG, IOleClientSite*, LONG, HWND parent, LPCRECT place) noexcept override
    {
        if (FAILED(m_engine.activation))
            return m_engine.activation;
        m_place = *place;
        if (verb == OLEIVERB_INPLACEACTIVATE)
            m_page = ::CreateWindowExW(0, L"BUTTON", L"", WS_CHILD | WS_VISIBLE, 0, 0, 9, 9, parent, nullptr, nullptr, nullptr);
        else
            ::SetFocus(m_page);
        return S_OK;
    }
    STDMETHODIMP Close(DWORD) noexcept override
    {
        ::DestroyWindow(m_page);
        return S_OK;
    }
    // clang-format off
    VO_STUB(GetClientSite, IOleClientSite**) VO_STUB(SetHostNames, LPCOLESTR, LPCOLESTR) VO_STUB(SetMoniker, DWORD, IMoniker*)
    VO_STUB(GetMoniker, DWORD, DWORD, IMoniker**) VO_STUB(InitFromData, IDataObject*, BOOL, DWORD)
    VO_STUB(GetClipboardData, DWORD, IDataObject**) VO_STUB(EnumVerbs, IEnumOLEVERB**) VO_STUB(Update) VO_STUB(IsUpToDate)
    VO_STUB(GetUserClassID, CLSID*) VO_STUB(GetUserType, DWORD, LPOLESTR*) VO_STUB(SetExtent, DWORD, SIZEL*)
    VO_STUB(GetExtent, DWORD, SIZEL*) VO_STUB(Advise, IAdviseSink*, DWORD*) VO_STUB(EnumAdvise, IEnumSTATDATA**)
    VO_STUB(GetMiscStatus, DWORD, DWORD*) VO_STUB(SetColorScheme, LOGPALETTE*)
        // clang-format on

        // IOleInPlaceObject, IOleInPlaceActiveObject
        STDMETHODIMP SetObjectRects(LPCRECT place, LPCRECT) noexcept override
    {
        m_place = *place;
        return S_OK;
    }
    STDMETHODIMP TranslateAccelerator(LPMSG message) noexcept override
    {
        return message->message == WM_KEYDOWN && message->wParam == VK_TAB ? TabOut(message) : S_FALSE;
    }
    // clang-format off
    VO_STUB(GetWindow, HWND*) VO_STUB(ContextSensitiveHelp, BOOL) VO_STUB(InPlaceDeactivate) VO_STUB(UIDeactivate)
    VO_STUB(ReactivateAndUndo) VO_STUB(OnFrameWindowActivate, BOOL) VO_STUB(OnDocWindowActivate, BOOL)
    VO_STUB(ResizeBorder, LPCRECT, IOleInPlaceUIWindow*, BOOL) VO_STUB(EnableModeless, BOOL)
        // clang-format on

        // IConnectionPointContainer, IConnectionPoint
        STDMETHODIMP FindConnectionPoint(REFIID iid, IConnectionPoint** point) noexcept override
    {
        EXPECT_TRUE(IsEqualIID(iid, kVoBrowserEvents));
        return QueryInterface(kVoInterfaceId<IConnectionPoint>, reinterpret_cast<void**>(point));
    }
    STDMETHODIMP Advise(IUnknown* sink, DWORD* cookie) noexcept override
    {
        *cookie = 7;
        return FAILED(m_engine.connection) ? m_engine.connection : sink->QueryInterface(kVoBrowserEvents, m_sink.PutVoid());
    }
    // Of the connection point and of the object: the object has no sinks.
    STDMETHODIMP Unadvise(DWORD cookie) noexcept override
    {
        EXPECT_EQ(7u, cookie);
        m_sink.Reset();
        return S_OK;
    }
    // clang-format off
    VO_STUB(EnumConnectionPoints, IEnumConnectionPoints**) VO_STUB(GetConnectionInterface, IID*)
    VO_STUB(GetConnectionPointContainer, IConnectionPointContainer**) VO_STUB(EnumConnections, IEnumConnections**)
        // clang-format on

        // IWebBrowser2
        STDMETHODIMP Navigate2(VARIANT* url, VARIANT*, VARIANT*, VARIANT*, VARIANT*) noexcept override
    {
        const std::wstring text(CVoBstr::ViewOf(url->bstrVal));
        m_engine.asked.push_back(text);
        if (Raise(DISPID_BEFORENAVIGATE2, this, text))
            return S_OK;
        m_engine.onGo ? m_engine.onGo(*this, text) : Arrive(text);
        return S_OK;
    }
    STDMETHODIMP Stop() noexcept override
    {
        if (m_engine.firesOnStop)
            Arrive(L"http://late.example/");
        return S_OK;
    }
    STDMETHODIMP get_LocationURL(BSTR* url) noexcept override
    {
        *url = CVoBstr(m_location).Detach();
        return S_OK;
    }
    // clang-format off
    VO_STUB(GetTypeInfoCount, UINT*) VO_STUB(GetTypeInfo, UINT, LCID, ITypeInfo**)
    VO_STUB(GetIDsOfNames, REFIID, LPOLESTR*, UINT, LCID, DISPID*)
    VO_STUB(Invoke, DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) VO_STUB(GoBack) VO_STUB(GoForward)
    VO_STUB(GoHome) VO_STUB(GoSearch) VO_STUB(Navigate, BSTR, VARIANT*, VARIANT*, VARIANT*, VARIANT*) VO_STUB(Refresh)
    VO_STUB(Refresh2, VARIANT*) VO_STUB(get_Application, IDispatch**) VO_STUB(get_Parent, IDispatch**)
    VO_STUB(get_Container, IDispatch**) VO_STUB(get_Document, IDispatch**) VO_STUB(get_TopLevelContainer, VARIANT_BOOL*)
    VO_STUB(get_Type, BSTR*) VO_STUB(get_Left, LONG*) VO_STUB(put_Left, LONG) VO_STUB(get_Top, LONG*) VO_STUB(put_Top, LONG)
    VO_STUB(get_Width, LONG*) VO_STUB(put_Width, LONG) VO_STUB(get_Height, LONG*) VO_STUB(put_Height, LONG)
    VO_STUB(get_LocationName, BSTR*) VO_STUB(get_Busy, VARIANT_BOOL*) VO_STUB(Quit) VO_STUB(ClientToWindow, int*, int*)
    VO_STUB(PutProperty, BSTR, VARIANT) VO_STUB(GetProperty, BSTR, VARIANT*) VO_STUB(get_Name, BSTR*)
    VO_STUB(get_HWND, SHANDLE_PTR*) VO_STUB(get_FullName, BSTR*) VO_STUB(get_Path, BSTR*) VO_STUB(get_Visible, VARIANT_BOOL*)
    VO_STUB(put_Visible, VARIANT_BOOL) VO_STUB(get_StatusBar, VARIANT_BOOL*) VO_STUB(put_StatusBar, VARIANT_BOOL)
    VO_STUB(get_StatusText, BSTR*) VO_STUB(put_StatusText, BSTR) VO_STUB(get_ToolBar, int*) VO_STUB(put_ToolBar, int)
    VO_STUB(get_MenuBar, VARIANT_BOOL*) VO_STUB(put_MenuBar, VARIANT_BOOL) VO_STUB(get_FullScreen, VARIANT_BOOL*)
    VO_STUB(put_FullScreen, VARIANT_BOOL) VO_STUB(QueryStatusWB, OLECMDID, OLECMDF*)
    VO_STUB(ExecWB, OLECMDID, OLECMDEXECOPT, VARIANT*, VARIANT*) VO_STUB(ShowBrowserBar, VARIANT*, VARIANT*, VARIANT*)
    VO_STUB(get_ReadyState, READYSTATE*) VO_STUB(get_Offline, VARIANT_BOOL*) VO_STUB(put_Offline, VARIANT_BOOL)
    VO_STUB(get_Silent, VARIANT_BOOL*) VO_STUB(put_Silent, VARIANT_BOOL) VO_STUB(get_RegisterAsBrowser, VARIANT_BOOL*)
    VO_STUB(put_RegisterAsBrowser, VARIANT_BOOL) VO_STUB(get_RegisterAsDropTarget, VARIANT_BOOL*)
    VO_STUB(put_RegisterAsDropTarget, VARIANT_BOOL) VO_STUB(get_TheaterMode, VARIANT_BOOL*)
    VO_STUB(put_TheaterMode, VARIANT_BOOL) VO_STUB(get_AddressBar, VARIANT_BOOL*) VO_STUB(put_AddressBar, VARIANT_BOOL)
    VO_STUB(get_Resizable, VARIANT_BOOL*) VO_STUB(put_Resizable, VARIANT_BOOL)
    // clang-format on

    private : CFakeEngine& m_engine;
    CVoComPtr<IOleClientSite> m_site;
    CVoComPtr<IDispatch> m_sink;
    std::wstring m_location;
    RECT m_place{};
    HWND m_page = nullptr;
};
#undef VO_STUB

// The class object, registered while this lives, on a thread with OLE.
class CFakeBrowserClass
{
public:
    explicit CFakeBrowserClass(CFakeEngine& engine)
    {
        EXPECT_TRUE(SUCCEEDED(::OleInitialize(nullptr)));
        const CVoComPtr<CFactory> factory = VoMakeComObject<CFactory>(engine);
        EXPECT_EQ(S_OK, ::CoRegisterClassObject(kVoBrowserControl, factory.Get(), CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                                                &m_cookie));
    }
    CFakeBrowserClass(const CFakeBrowserClass&) = delete;
    CFakeBrowserClass& operator=(const CFakeBrowserClass&) = delete;
    ~CFakeBrowserClass()
    {
        ::CoRevokeClassObject(m_cookie);
        ::OleUninitialize();
    }

private:
    class CFactory final : public CVoIUnknownImpl<IClassFactory>
    {
    public:
        explicit CFactory(CFakeEngine& engine) : m_engine(engine) {}
        STDMETHODIMP CreateInstance(IUnknown*, REFIID iid, void** object) noexcept override
        {
            return FAILED(m_engine.creation) ? m_engine.creation
                                             : VoMakeComObject<CFakeBrowser>(m_engine)->QueryInterface(iid, object);
        }
        STDMETHODIMP LockServer(BOOL) noexcept override { return S_OK; }

    private:
        CFakeEngine& m_engine;
    };

    DWORD m_cookie = 0;
};
} // namespace TestSupport
