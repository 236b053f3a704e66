// The libcurl transport: one easy handle a request, driven on the caller's thread.
//
// It takes its proxy from the proxy store and answers 401 and 407 through the authentication callback, with any scheme that
// libcurl has. libcurl follows redirects by itself; each hop gets its own cookies. A connection is never left from https to
// http.
#pragma once

#include <VoHTTPMessage.h>

namespace VoHTTPMessageCURL
{
// A new message that is not connected. Throws std::bad_alloc, or CVoHResultException when the platform has no event for it.
[[nodiscard]] std::shared_ptr<CVoHTTPMessage> MakeMessage();
} // namespace VoHTTPMessageCURL
