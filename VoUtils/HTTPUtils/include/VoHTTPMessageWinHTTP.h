// The WinHTTP transport: the platform's HTTP service for programs without a user interface, in asynchronous mode.
//
// It takes its proxy from the proxy store and, on Windows 8.1 and later, from the system's automatic settings, which are asked
// for each URL when the store has no proxy configured by hand. There a script, detection and a bypass list in the proxy store
// have no effect, and a proxy configured by hand serves every host. It answers challenges with the scheme Basic only, through
// the authentication callback, on a thread of WinHTTP's. The connect time-out bounds connecting and sending and is the budget
// of retries; the request time-out bounds receiving. A request counts its body as sent when the whole of it has been sent, and
// its response as received when it is read.
#pragma once

#include <VoHTTPMessage.h>

namespace VoHTTPMessageWinHTTP
{
// A new message that is not connected. With `rewriteLoopback` every "localhost" or "127.0.0.1" in the address of a server of
// that name becomes "localhost.localhost", so that a configured proxy sees the traffic: WinHTTP sends none to a proxy for a
// loopback name. Throws std::bad_alloc, or CVoHResultException when the platform has no event for it.
[[nodiscard]] std::shared_ptr<CVoHTTPMessage> MakeMessage(bool rewriteLoopback);
} // namespace VoHTTPMessageWinHTTP
