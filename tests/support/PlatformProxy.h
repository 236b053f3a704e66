// Proxies for the Windows transports, where Wine's services differ from the platform's.
#pragma once

#include <base/VoPlatform.h>

#include <memory>
#include <string>

namespace TestSupport
{
// While the object lives, the proxy that WINHTTP_OPTION_PROXY names for a request is in effect for that request, as documented.
// Wine takes the option and ignores it.
[[nodiscard]] std::shared_ptr<void> WinHTTPRequestsUseTheirProxy();
// Every session of WinINet is opened with that proxy ("host:port"), while the object lives.
[[nodiscard]] std::shared_ptr<void> WinINetSessionsUse(std::wstring proxy);
} // namespace TestSupport
