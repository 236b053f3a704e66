// Creates and gives the calling module's stores (VoGlobalHTTPStoreQueryPrivateImpl.h).
#include <VoGlobalHTTPStoreQueryPrivateImpl.h>

#include <VoAuthCallbackImpl.h>
#include <VoGlobalHTTPCookieStoreImpl.h>
#include <VoGlobalHTTPProxyStoreImpl.h>
#include <base/VoErrorHandler.h>
#include <base/com/VoSharedObject.h>

namespace VoGlobalHTTPStoreQueryPrivateImpl
{
namespace
{
constexpr const wchar_t* kStoreQuerySource = L"..\\source\\VoGlobalHTTPStoreQueryPrivateImpl";

constinit CVoSharedObject<IVoHTTPCookieStore> g_cookieStore;
constinit CVoSharedObject<IVoHTTPProxyStore> g_proxyStore;
constinit CVoSharedObject<IVoAuthenticationCallback> g_authCallback;

// `held` is the store that the query object holds already, or null.
template <class Interface>
HRESULT GetStore(CCriticalSection& lock, CVoSharedObject<Interface>& shared,
                 typename CVoSharedObject<Interface>::CCreate create, CVoComPtr<Interface>& held, IUnknown** store) noexcept
{
    if (!store)
        return E_POINTER;
    CAutoLock holder(&lock);
    if (!held && FAILED(shared.Get(create, held)))
        return E_NOINTERFACE; // its maker has reported the reason
    *store = CVoComPtr<IUnknown>(held.Get()).Detach();
    return S_OK;
}
} // namespace

HRESULT CVoGlobalHTTPStoreQueryPrivateImpl::Create(IVoGlobalHTTPStoreQueryPrivate** query) noexcept
{
    constexpr CVoReporter report{ kStoreQuerySource,
                                  L"VoGlobalHTTPStoreQueryPrivateImpl::CVoGlobalHTTPStoreQueryPrivateImpl::Create" };
    if (!query)
        return report(40, E_POINTER);
    CVoComPtr<CVoGlobalHTTPStoreQueryPrivateImpl> made = VoMakeComObject<CVoGlobalHTTPStoreQueryPrivateImpl>();
    if (!made)
        return report(43, E_OUTOFMEMORY);
    if (const HRESULT hr = made->MakeMarshaller(); FAILED(hr))
        return report(45, hr);
    *query = made.Detach();
    return S_OK;
}

HRESULT CVoGlobalHTTPStoreQueryPrivateImpl::get_CookieStore(IUnknown** store) noexcept
{
    constexpr CVoReporter report{ kStoreQuerySource,
                                  L"VoGlobalHTTPStoreQueryPrivateImpl::CVoGlobalHTTPStoreQueryPrivateImpl::get_CookieStore" };
    const HRESULT hr = GetStore(m_lock, g_cookieStore, &CreateGlobalHTTPCookieStoreForModule, m_cookieStore, store);
    return FAILED(hr) ? report(56, hr) : hr;
}

HRESULT CVoGlobalHTTPStoreQueryPrivateImpl::get_ProxyStore(IUnknown** store) noexcept
{
    constexpr CVoReporter report{ kStoreQuerySource,
                                  L"VoGlobalHTTPStoreQueryPrivateImpl::CVoGlobalHTTPStoreQueryPrivateImpl::get_ProxyStore" };
    const HRESULT hr = GetStore(m_lock, g_proxyStore, &CreateGlobalHTTPProxyStoreForModule, m_proxyStore, store);
    return FAILED(hr) ? report(65, hr) : hr;
}

HRESULT CVoGlobalHTTPStoreQueryPrivateImpl::get_AuthCallback(IUnknown** callback) noexcept
{
    constexpr CVoReporter report{ kStoreQuerySource,
                                  L"VoGlobalHTTPStoreQueryPrivateImpl::CVoGlobalHTTPStoreQueryPrivateImpl::get_AuthCallback" };
    const HRESULT hr = GetStore(m_lock, g_authCallback, &CreateGlobalAuthenticationCallbackForModule, m_authCallback, callback);
    return FAILED(hr) ? report(74, hr) : hr;
}
} // namespace VoGlobalHTTPStoreQueryPrivateImpl
