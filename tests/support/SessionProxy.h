// A proxy for the sessions of the Windows transports: Wine's services take one only when a session is opened.
#pragma once

#include <base/VoPlatform.h>

#include <memory>
#include <string>

namespace TestSupport
{
// Every session of the service that the object hooks is opened with that proxy ("host:port"), while the object lives.
[[nodiscard]] std::shared_ptr<void> WinHTTPSessionsUse(std::wstring proxy);
[[nodiscard]] std::shared_ptr<void> WinINetSessionsUse(std::wstring proxy);
} // namespace TestSupport
