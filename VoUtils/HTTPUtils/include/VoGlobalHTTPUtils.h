// Gives a caller the stores and the authentication callback that the messages of a process share.
#pragma once

#include <VoServerAddress.h>

class IVoAuthenticationCallback;
class IVoHTTPCookieStore;
class IVoHTTPProxyStore;

namespace VoGlobalHTTPUtils
{
// Gives the authentication callback, the proxy store and the cookie store of the process (VoHTTPStores.h). When a provider is
// registered for all modules (kVoGlobalHTTPStoreProvider), they are the provider's. Otherwise they are the calling module's own
// (CVoGlobalHTTPStoreQueryPrivateImpl): every call gives the same stores while somebody holds them. Pass null for a store that
// you do not need. The caller owns one reference each and may use the stores on any thread.
//
// Any thread may call, also one that has not initialised COM. If then no thread of the process has a multithreaded apartment
// either, the function creates one and keeps it alive (CoIncrementMTAUsage).
//
// E_NOINTERFACE for a store that cannot be created, or the provider's own code. No store is handed out then.
[[nodiscard]] HRESULT CreateGlobalHTTPStores(IVoAuthenticationCallback** authCallback, IVoHTTPProxyStore** proxyStore,
                                             IVoHTTPCookieStore** cookieStore) noexcept;
} // namespace VoGlobalHTTPUtils
