// What WinHTTP tells about the connection of a request while it works. The WinHTTP transport uses it.
#pragma once

#include "VoExchangeText.h"

#include <VoWinHttpInterface.h>

#include <string>

namespace VoHTTPMessageWinHTTP
{
// Takes the addresses and times of a notification into the trace of a request. `isSecure`: the request goes to an https
// address. The other arguments are those of WinHTTP's status callback. Without memory for an address the trace lacks it.
void VoNoteNotification(CVoConnectionTrace& trace, bool isSecure, DWORD status, const void* information, DWORD length) noexcept;

// The client's IPv4 address on the connection of a request that has been sent. E_INVALIDARG, which is no fault and not
// reported: the address is of another family. Otherwise the failure of the platform; reported. `text` is untouched on failure.
[[nodiscard]] HRESULT VoReadLocalAddress(const VoWinHttpInterface::WinHttpRequestHandle& request, std::wstring& text);
} // namespace VoHTTPMessageWinHTTP
