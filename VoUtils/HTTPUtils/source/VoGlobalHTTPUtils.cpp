// Finds the stores of the process: those of a registered provider, else the module's own.
#include <VoGlobalHTTPUtils.h>

#include <VoGlobalHTTPStoreQueryPrivateImpl.h>
#include <base/VoErrorHandler.h>

namespace VoGlobalHTTPUtils
{
namespace
{
constexpr const wchar_t* kHTTPUtilsSource = L"..\\source\\VoGlobalHTTPUtils";

// Gives the registered provider, or `local` when none is registered.
HRESULT FindStoreQuery(const CVoComPtr<IVoGlobalHTTPStoreQueryPrivate>& local,
                       CVoComPtr<IVoGlobalHTTPStoreQueryPrivate>& query) noexcept
{
    const auto create = [&query]
    {
        return ::CoCreateInstance(kVoGlobalHTTPStoreProvider, nullptr,
                                  CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER | CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER,
                                  kVoInterfaceId<IVoGlobalHTTPStoreQueryPrivate>, query.PutVoid());
    };
    HRESULT hr = create();
    if (hr == CO_E_NOTINITIALIZED)
    {
        // Never released: the objects that the provider hands out must not lose their apartment.
        CO_MTA_USAGE_COOKIE cookie;
        if (SUCCEEDED(::CoIncrementMTAUsage(&cookie)))
            hr = create();
    }
    if (hr == REGDB_E_CLASSNOTREG)
    {
        query = local;
        hr = S_OK;
    }
    return hr;
}

// Gets one store of the query object. Reports a failure of the query at `lineOfGet`, a missing interface at `lineOfInterface`.
template <class Interface>
HRESULT FetchStore(const CVoReporter& report, int lineOfGet, int lineOfInterface, IVoGlobalHTTPStoreQueryPrivate& query,
                   decltype(&IVoGlobalHTTPStoreQueryPrivate::get_ProxyStore) get, CVoComPtr<Interface>& store) noexcept
{
    CVoComPtr<IUnknown> object;
    if (const HRESULT hr = (query.*get)(object.Put()); FAILED(hr))
        return report(lineOfGet, hr);
    const HRESULT hr = object.As(store);
    if (FAILED(hr) || !store)
        return report(lineOfInterface, object && FAILED(hr) ? hr : E_NOINTERFACE);
    return S_OK;
}
} // namespace

HRESULT CreateGlobalHTTPStores(IVoAuthenticationCallback** authCallback, IVoHTTPProxyStore** proxyStore,
                               IVoHTTPCookieStore** cookieStore) noexcept
{
    constexpr CVoReporter report{ kHTTPUtilsSource, L"VoGlobalHTTPUtils::CreateGlobalHTTPStores" };
    using IQuery = IVoGlobalHTTPStoreQueryPrivate;
    CVoComPtr<IQuery> local;
    if (const HRESULT hr = CVoGlobalHTTPStoreQueryPrivateImpl::Create(local.Put()); FAILED(hr))
        return report(430, hr);
    CVoComPtr<IQuery> query;
    if (const HRESULT hr = FindStoreQuery(local, query); FAILED(hr))
        return report(438, hr);

    CVoComPtr<IVoAuthenticationCallback> callback;
    CVoComPtr<IVoHTTPProxyStore> proxies;
    CVoComPtr<IVoHTTPCookieStore> cookies;
    HRESULT hr = S_OK;
    if (authCallback)
        hr = FetchStore(report, 445, 449, *query.Get(), &IQuery::get_AuthCallback, callback);
    if (SUCCEEDED(hr) && proxyStore)
        hr = FetchStore(report, 457, 461, *query.Get(), &IQuery::get_ProxyStore, proxies);
    if (SUCCEEDED(hr) && cookieStore)
        hr = FetchStore(report, 469, 473, *query.Get(), &IQuery::get_CookieStore, cookies);
    if (FAILED(hr))
        return hr;

    if (authCallback)
        *authCallback = callback.Detach();
    if (proxyStore)
        *proxyStore = proxies.Detach();
    if (cookieStore)
        *cookieStore = cookies.Detach();
    return S_OK;
}
} // namespace VoGlobalHTTPUtils
