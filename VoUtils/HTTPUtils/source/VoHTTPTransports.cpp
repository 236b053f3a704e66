// The table of transports and the factory that chooses from it: the only place that knows them all.
#include <VoHTTPTransports.h>

#include <VoHTTPMessageCURL.h>
#include <VoHTTPMessageWinHTTP.h>
#include <VoHTTPMessageWinINet.h>

#include <base/VoErrorHandler.h>
#include <base/VoModuleInformation.h>

#include <array>

namespace
{
constexpr const wchar_t* kHTTPTransportsSource = L"..\\source\\VoHTTPMessage";

constexpr std::array kTransports{
    CVoHTTPTransportRow{ 0, "wininet", &VoHTTPMessageWinINet::MakeMessage },
    CVoHTTPTransportRow{ 1, "winhttp", [] { return VoHTTPMessageWinHTTP::MakeMessage(false); } },
    CVoHTTPTransportRow{ 2, "curl", &VoHTTPMessageCURL::MakeMessage },
    CVoHTTPTransportRow{ 3, "winhttp-loopback", [] { return VoHTTPMessageWinHTTP::MakeMessage(true); } },
};
} // namespace

std::span<const CVoHTTPTransportRow> VoHTTPTransports() noexcept
{
    return kTransports;
}

const CVoHTTPTransportRow* VoFindHTTPTransport(UINT32 kind) noexcept
{
    for (const CVoHTTPTransportRow& row : kTransports)
        if (row.kind == kind)
            return &row;
    return nullptr;
}

HRESULT CVoHTTPMessage::Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation,
                                std::shared_ptr<CVoHTTPMessage>& message) noexcept
{
    return Connect(CVoModuleInformation::Get().HTTPEngine(), serverAddress, authCallback, proxyStore, cookieStore,
                   connectTimeout, requestTimeout, verifyServerCertificate, checkRevocation, message);
}

HRESULT CVoHTTPMessage::Connect(UINT32 transportKind, const CServerAddressData& serverAddress,
                                IVoAuthenticationCallback* authCallback, IVoHTTPProxyStore* proxyStore,
                                IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout, UINT32 requestTimeout,
                                bool verifyServerCertificate, bool checkRevocation,
                                std::shared_ptr<CVoHTTPMessage>& message) noexcept
{
    constexpr CVoReporter report{ kHTTPTransportsSource, L"CVoHTTPMessage::Connect" };
    return report.Guard(336, [&]() -> HRESULT
    {
        const CVoHTTPTransportRow* const row = VoFindHTTPTransport(transportKind);
        if (!row)
        {
            report(325, static_cast<HRESULT>(transportKind));
            return report(326, E_NOTIMPL);
        }
        std::shared_ptr<CVoHTTPMessage> made = row->make();
        if (const HRESULT hr = made->Connect(serverAddress, authCallback, proxyStore, cookieStore, connectTimeout,
                                             requestTimeout, verifyServerCertificate, checkRevocation);
            FAILED(hr))
            return report(332, hr);
        message = std::move(made);
        return S_OK;
    });
}
