// The WinINet transport: synchronous, on the caller's thread, with the system's own proxy settings and credential dialog.
//
// Unlike the others it asks the user while it connects, with the system's dialog, and uses the proxy that the system is
// configured for. Credentials typed there are saved in the proxy store. A certificate error is passed over only after a first
// failure, and only as far as the two certificate switches allow.
#pragma once

#include <VoHTTPMessage.h>

namespace VoHTTPMessageWinINet
{
// A new message that is not connected. Throws std::bad_alloc, or CVoHResultException when the platform has no event for it.
[[nodiscard]] std::shared_ptr<CVoHTTPMessage> MakeMessage();
} // namespace VoHTTPMessageWinINet
