// Finds out whether a proxy or a server wants credentials before the first request, and asks the user for them with the
// platform's dialog. The WinINet transport uses it while it connects.
#pragma once

#include "WinINetSupport.h"

#include <VoServerAddress.h>

#include <base/VoWipe.h>

#include <string>

namespace VoHTTPMessageWinINet
{
// An empty POST to the server's path. The dialog needs a request whose challenge it can answer. One thread.
class CCredentialProbe
{
public:
    // `timeout` in seconds bounds the reading of a response. The address must outlive the probe.
    CCredentialProbe(const CServerAddressData& server, const CCertificateSwitches& switches, UINT32 timeout) noexcept
        : m_server(server), m_switches(switches), m_timeout(timeout)
    {
    }

    // Sends the probe over a connection to the server. `isChallenged`: the response's status is 401 or 407. S_OK without a
    // challenge where no response comes.
    [[nodiscard]] HRESULT Send(HINTERNET connection, bool& isChallenged) noexcept;
    // Shows the platform's dialog for the challenge and sends the probe again. `user` and `password` become those that were
    // typed for the proxy; credentials typed for the server leave none. S_OK and no credentials when the user declined.
    [[nodiscard]] HRESULT Ask(std::wstring& user, CVoSecret<wchar_t>& password);

private:
    [[nodiscard]] HRESULT SendOnce(UINT32& status) const noexcept;

    const CServerAddressData& m_server;
    const CCertificateSwitches m_switches;
    const UINT32 m_timeout;
    CInternetHandle m_request;
};
} // namespace VoHTTPMessageWinINet
