// The calling module's own stores.
#pragma once

#include <VoHTTPStores.h>
#include <base/VoMultiThreading.h>

namespace VoGlobalHTTPStoreQueryPrivateImpl
{
// Hands out the stores of the calling module, each made on the first request for it. There is one store of a kind in a module:
// while anybody holds it, every query object gives the same one, and when the last reference goes, its content goes with it. A
// query object holds what it has handed out. Any thread, any apartment.
//
// A program that provides the stores for all modules of its process registers one of these under kVoGlobalHTTPStoreProvider.
class CVoGlobalHTTPStoreQueryPrivateImpl final
    : public CVoIUnknownImplWithFreeThreadedMarshaller<IVoGlobalHTTPStoreQueryPrivate>
{
public:
    // E_POINTER, E_OUTOFMEMORY, or what the platform's free-threaded marshaller gave; the caller owns one reference.
    [[nodiscard]] static HRESULT Create(IVoGlobalHTTPStoreQueryPrivate** query) noexcept;

    // E_NOINTERFACE for a store that cannot be made (the reason is in the log), E_POINTER for a null argument. The caller owns
    // one reference.
    STDMETHODIMP get_CookieStore(IUnknown** store) noexcept override;
    STDMETHODIMP get_ProxyStore(IUnknown** store) noexcept override;
    STDMETHODIMP get_AuthCallback(IUnknown** callback) noexcept override;

private:
    ~CVoGlobalHTTPStoreQueryPrivateImpl() override = default;

    CCriticalSection m_lock;
    CVoComPtr<IVoHTTPCookieStore> m_cookieStore; // these are guarded by m_lock
    CVoComPtr<IVoHTTPProxyStore> m_proxyStore;
    CVoComPtr<IVoAuthenticationCallback> m_authCallback;
};
} // namespace VoGlobalHTTPStoreQueryPrivateImpl

using VoGlobalHTTPStoreQueryPrivateImpl::CVoGlobalHTTPStoreQueryPrivateImpl;
