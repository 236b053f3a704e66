// Gives a caller the stores and the authentication callback that the messages of a process share.
#pragma once

#include <VoServerAddress.h>

class IVoAuthenticationCallback;
class IVoHTTPCookieStore;
class IVoHTTPProxyStore;

namespace VoGlobalHTTPUtils
{
// The process's authentication callback, proxy store and cookie store (VoHTTPStores.h): those of the provider registered for
// all modules (kVoGlobalHTTPStoreProvider), or, where none is registered, the calling module's own
// (CVoGlobalHTTPStoreQueryPrivateImpl), which every call gives while somebody holds them. Null for a store that is not wanted.
// The caller owns one reference each, and may use the stores on any thread.
//
// Any thread may call. One that has not initialised COM gets the same stores: when no thread of the process has a multithreaded
// apartment either, which it would be in then, one is kept alive from here on (CoIncrementMTAUsage).
//
// E_NOINTERFACE for a store that cannot be had, or the provider's own code; no store is handed out then.
[[nodiscard]] HRESULT CreateGlobalHTTPStores(IVoAuthenticationCallback** authCallback, IVoHTTPProxyStore** proxyStore,
                                             IVoHTTPCookieStore** cookieStore) noexcept;
} // namespace VoGlobalHTTPUtils
