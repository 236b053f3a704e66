// The server of the demo: it parses each kind of request and sends the content back.
#pragma once

#include <LoopbackServer.h>

#include <base/VoPlatform.h>

#include <string>

// The parameter that carries the demo's signature, and the parameter with which the server confirms it.
inline constexpr const wchar_t* kDemoSignatureName = L"signature";
inline constexpr const wchar_t* kDemoSignatureValid = L"signature checked";

// Responds to a request with its parameters and payload, as a message of the library. The response to a malformed request, or
// to a wrong signature, has status 500.
class CDemoServer
{
public:
    // `publicKey` checks the signed requests.
    explicit CDemoServer(std::wstring publicKey);

    [[nodiscard]] std::wstring URL(std::wstring_view target) const;

private:
    const std::wstring m_publicKey;
    Loopback::CLoopbackServer m_server;
};
