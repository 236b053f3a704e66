#include "VoHTTPTransports.h"

#include "VoHTTPMessageWinHTTP.h"

#include <VoHTTPMessageCURL.h>
#include <VoHTTPMessageWinINet.h>

namespace
{
using Maker = std::shared_ptr<CVoHTTPMessage> (*)();

template <class Transport, auto... kArguments>
std::shared_ptr<CVoHTTPMessage> Make()
{
    return std::make_shared<Transport>(kArguments...);
}

struct CTransport
{
    UINT32 kind; // the values of the setting HTTPEngine
    Maker make;
};

constexpr CTransport kTransports[] = {
    { 0, &Make<VoHTTPMessageWinINet::CVoHTTPMessageWinINet> },
    { 1, &Make<VoHTTPMessageWinHTTP::CVoHTTPMessageWinHTTP, false> },
    { 2, &Make<VoHTTPMessageCURL::CVoHTTPMessageCURL> },
    { 3, &Make<VoHTTPMessageWinHTTP::CVoHTTPMessageWinHTTP, true> },
};
} // namespace

std::shared_ptr<CVoHTTPMessage> VoMakeHTTPTransport(UINT32 kind)
{
    for (const CTransport& transport : kTransports)
        if (transport.kind == kind)
            return transport.make();
    return nullptr;
}
