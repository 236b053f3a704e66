// The server of the demo: it takes each kind of request apart by itself and sends back what it found.
#pragma once

#include <LoopbackServer.h>

#include <base/VoPlatform.h>

#include <string>

// The parameter that carries the demo's signature, and the one by which the server says that it found it right.
inline constexpr const wchar_t* kDemoSignatureName = L"signature";
inline constexpr const wchar_t* kDemoSignatureValid = L"signature checked";

// Answers requests with the parameters and the payload that they carried, as a message of the library; a request that cannot be
// read, or whose signature is not right, with status 500.
class CDemoServer
{
public:
    // Listens on 127.0.0.HOST. `publicKey` checks the signed requests.
    CDemoServer(std::wstring publicKey, uint8_t host);

    [[nodiscard]] std::wstring URL(std::wstring_view target) const;

private:
    const std::wstring m_publicKey;
    Loopback::CLoopbackServer m_server;
};
