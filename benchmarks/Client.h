// The library's HTTP client, as the benchmarks use it.
#pragma once

#include "BareClient.h"

#include <VoHTTPMessage.h>

#include <array>
#include <memory>
#include <string>

namespace Client
{
using Bare::Demand;

struct CTransport
{
    const char* name;
    UINT32 kind;
};
inline constexpr CTransport kCURL{ "libcurl", 2 };
inline constexpr CTransport kWinHttp{ "WinHTTP", 1 };
inline constexpr CTransport kWinINet{ "WinINet", 0 };
inline constexpr std::array kTransports{ kCURL, kWinHttp, kWinINet };

// A message that is connected to the URL's server. A request may take `timeout` seconds. Throws std::runtime_error.
inline std::shared_ptr<CVoHTTPMessage> Connect(const CTransport& transport, const std::string& url, UINT32 timeout = 60)
{
    CServerAddressData address;
    std::shared_ptr<CVoHTTPMessage> message;
    Demand(SUCCEEDED(address.SetAddress(std::wstring(url.begin(), url.end()), false, true, true)) &&
           SUCCEEDED(CVoHTTPMessage::Connect(transport.kind, address, nullptr, nullptr, nullptr, 30, timeout, false, false,
                                             message)));
    return message;
}

// Parameters with a payload of so many equal bytes, which the parameters copy, as those of a caller who has them at hand.
inline CVoBinaryDataParser MakePayload(size_t length)
{
    const std::vector<BYTE> bytes(length, 'x');
    CVoBinaryDataParser parameters;
    Demand(SUCCEEDED(parameters.SetPayload(bytes.data(), static_cast<UINT32>(length))));
    return parameters;
}
} // namespace Client
