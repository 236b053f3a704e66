// Gives the calling module's own stores. CreateGlobalHTTPStores uses it when no provider is registered; a provider may use it
// too.
#pragma once

#include <VoHTTPStores.h>
#include <base/VoMultiThreading.h>

namespace VoGlobalHTTPStoreQueryPrivateImpl
{
// Gives the stores of the calling module and creates each on its first request. A module has one store of each kind: every
// query object gives the same store while somebody holds it, and the content goes with the last reference. A query object holds
// the stores that it has given. Any thread, any apartment.
//
// A program that provides the stores for all modules of its process registers such an object under kVoGlobalHTTPStoreProvider.
class CVoGlobalHTTPStoreQueryPrivateImpl final
    : public CVoIUnknownImplWithFreeThreadedMarshaller<IVoGlobalHTTPStoreQueryPrivate>
{
public:
    // E_POINTER, E_OUTOFMEMORY, or the code of the platform's free-threaded marshaller. The caller owns one reference.
    [[nodiscard]] static HRESULT Create(IVoGlobalHTTPStoreQueryPrivate** query) noexcept;

    // E_NOINTERFACE for a store that cannot be created (the log has the reason), E_POINTER for a null argument. The caller owns
    // one reference.
    STDMETHODIMP get_CookieStore(IUnknown** store) noexcept override;
    STDMETHODIMP get_ProxyStore(IUnknown** store) noexcept override;
    STDMETHODIMP get_AuthCallback(IUnknown** callback) noexcept override;

private:
    ~CVoGlobalHTTPStoreQueryPrivateImpl() override = default;

    CCriticalSection m_lock;
    CVoComPtr<IVoHTTPCookieStore> m_cookieStore; // these three are guarded by m_lock
    CVoComPtr<IVoHTTPProxyStore> m_proxyStore;
    CVoComPtr<IVoAuthenticationCallback> m_authCallback;
};
} // namespace VoGlobalHTTPStoreQueryPrivateImpl

using VoGlobalHTTPStoreQueryPrivateImpl::CVoGlobalHTTPStoreQueryPrivateImpl;
