// The credentials that one WinHTTP exchange knows, for the proxy and for the server. The exchange sets them before it sends
// again.
#pragma once

#include <VoWinHttpInterface.h>

#include <base/VoPlatform.h>
#include <base/VoWipe.h>

#include <optional>
#include <string>

namespace VoWinHttpRequest
{
// WinHTTP uses credentials for a single request and forgets them (platform documentation, "Authentication in WinHTTP"). A
// resend with the server's credentials alone makes the proxy demand its own again, and the reverse: 407, 401, 407 without end.
// Therefore the exchange sets those of both before each further send. The texts are wiped when they are dropped. Not
// thread-safe.
class CExchangeCredentials
{
public:
    // Remembers credentials that the owner knows already, for a WINHTTP_AUTH_TARGET_... and a WINHTTP_AUTH_SCHEME_....
    void Set(DWORD target, DWORD scheme, CVoSecret<wchar_t> user, CVoSecret<wchar_t> password) noexcept
    {
        Of(target) = CEntry{ target, scheme, false, std::move(user), std::move(password) };
    }
    // Remembers the credentials that the authentication function gave for a challenge. False, and nothing changed, when they
    // are the same as those for the previous challenge of that target: they have been rejected.
    [[nodiscard]] bool SetFromChallenge(DWORD target, DWORD scheme, CVoSecret<wchar_t> user,
                                        CVoSecret<wchar_t> password) noexcept
    {
        std::optional<CEntry>& entry = Of(target);
        if (entry && entry->isFromChallenge && entry->scheme == scheme && entry->user.Get() == user.Get() &&
            entry->password.Get() == password.Get())
            return false;
        entry = CEntry{ target, scheme, true, std::move(user), std::move(password) };
        return true;
    }
    // A new send begins: none of the credentials has been rejected for it.
    void ForgetRejections() noexcept
    {
        for (std::optional<CEntry>* entry : { &m_proxy, &m_server })
            if (*entry)
                (*entry)->isFromChallenge = false;
    }
    // A redirect: credentials are only for the server that they were given for.
    void ForgetServer() noexcept { m_server.reset(); }

    // Sets all credentials in the request.
    [[nodiscard]] HRESULT SetIn(const VoWinHttpInterface::WinHttpRequestHandle& request) const noexcept
    {
        for (const std::optional<CEntry>* entry : { &m_proxy, &m_server })
            if (*entry)
                if (const HRESULT hr = request.SetCredentials((*entry)->target, (*entry)->scheme, (*entry)->user.Get().c_str(),
                                                              (*entry)->password.Get().c_str());
                    FAILED(hr))
                    return hr; // the wrapper has reported it
        return S_OK;
    }

private:
    struct CEntry
    {
        DWORD target;
        DWORD scheme;
        bool isFromChallenge; // of the current send
        CVoSecret<wchar_t> user;
        CVoSecret<wchar_t> password;
    };

    [[nodiscard]] std::optional<CEntry>& Of(DWORD target) noexcept
    {
        return target == WINHTTP_AUTH_TARGET_PROXY ? m_proxy : m_server;
    }

    std::optional<CEntry> m_proxy;
    std::optional<CEntry> m_server;
};
} // namespace VoWinHttpRequest
