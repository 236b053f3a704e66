// What the failures of WinHTTP and WinINet mean; see WindowsTransport.h. The numbers are those of the platform's pages "Error
// Messages (Winhttp.h)" and "Wininet errors", which agree on them; the two headers cannot be included here.
#include "WindowsTransport.h"

#include <algorithm>
#include <iterator>

namespace WindowsTransport
{
namespace
{
struct CErrorRow
{
    DWORD error;
    EVoFailure failure;
};
// Of facility Win32: numbers of the services and of Windows Sockets.
constexpr CErrorRow kErrors[] = {
    { 12007, EVoFailure::NameNotFound },       { 12029, EVoFailure::ConnectFailed },     { 10061, EVoFailure::ConnectRefused },
    { 10051, EVoFailure::ConnectFailed },      { 10065, EVoFailure::ConnectFailed },     { 10053, EVoFailure::ConnectionLost },
    { 10054, EVoFailure::ConnectionLost },     { 12030, EVoFailure::ConnectionLost },    { 12031, EVoFailure::ConnectionLost },
    { 12150, EVoFailure::ResponseMalformed },  { 12152, EVoFailure::ResponseMalformed }, { 12181, EVoFailure::ResponseLimit },
    { 12182, EVoFailure::ResponseLimit },      { 12183, EVoFailure::ResponseMalformed }, { 12156, EVoFailure::RedirectRefused },
    { 12157, EVoFailure::TlsHandshake },       { 12044, EVoFailure::TlsHandshake },      { 12037, EVoFailure::CertificateDate },
    { 12038, EVoFailure::CertificateName },    { 12045, EVoFailure::CertificateIssuer }, { 12055, EVoFailure::Certificate },
    { 12056, EVoFailure::RevocationUnknown },  { 12057, EVoFailure::RevocationUnknown }, { 12169, EVoFailure::Certificate },
    { 12170, EVoFailure::CertificateRevoked }, { 12175, EVoFailure::Certificate },       { 12179, EVoFailure::Certificate },
};
constexpr DWORD kErrorTimeOut = 12002;
constexpr DWORD kErrorSocketTimeOut = 10060; // of a connect, or of a connection whose other end has become silent
constexpr DWORD kErrorSecureFailure = 12175;

// WINHTTP_CALLBACK_STATUS_FLAG_...; the most telling first.
constexpr CErrorRow kSecureFlags[] = {
    { 0x00000004, EVoFailure::CertificateRevoked }, { 0x00000020, EVoFailure::CertificateDate },
    { 0x00000008, EVoFailure::CertificateIssuer },  { 0x00000010, EVoFailure::CertificateName },
    { 0x00000001, EVoFailure::RevocationUnknown },  { 0x80000000, EVoFailure::TlsHandshake },
};

// What certificate and chain functions return.
struct CTrustRow
{
    HRESULT result;
    EVoFailure failure;
};
constexpr CTrustRow kTrust[] = {
    { CERT_E_EXPIRED, EVoFailure::CertificateDate },
    { CERT_E_UNTRUSTEDROOT, EVoFailure::CertificateIssuer },
    { CERT_E_CHAINING, EVoFailure::CertificateIssuer },
    { CERT_E_CN_NO_MATCH, EVoFailure::CertificateName },
    { CERT_E_REVOKED, EVoFailure::CertificateRevoked },
    { CRYPT_E_REVOKED, EVoFailure::CertificateRevoked },
    { CRYPT_E_NO_REVOCATION_CHECK, EVoFailure::RevocationUnknown },
    { CRYPT_E_REVOCATION_OFFLINE, EVoFailure::RevocationUnknown },
    { SEC_E_UNTRUSTED_ROOT, EVoFailure::CertificateIssuer },
    { SEC_E_CERT_EXPIRED, EVoFailure::CertificateDate },
    { SEC_E_WRONG_PRINCIPAL, EVoFailure::CertificateName },
};

EVoFailure FindFailure(HRESULT result, bool isConnected, bool isSending, DWORD secureFailure) noexcept
{
    const auto* const trust =
        std::find_if(std::begin(kTrust), std::end(kTrust), [&](const CTrustRow& row) { return row.result == result; });
    if (trust != std::end(kTrust))
        return trust->failure;
    constexpr int kFacilitySecurity = 9;
    constexpr int kFacilityCertificate = 11;
    if (HRESULT_FACILITY(result) == kFacilitySecurity)
        return EVoFailure::TlsHandshake;
    if (HRESULT_FACILITY(result) == kFacilityCertificate)
        return EVoFailure::Certificate;
    if (result == E_FAIL) // the body is shorter than announced
        return EVoFailure::ResponseTruncated;
    if (HRESULT_FACILITY(result) != FACILITY_WIN32)
        return EVoFailure::Other;
    const auto error = static_cast<DWORD>(HRESULT_CODE(result));
    if (error == kErrorTimeOut || error == kErrorSocketTimeOut)
        return isConnected || isSending ? EVoFailure::ResponseTimeOut : EVoFailure::ConnectTimeOut;
    if (error == kErrorSecureFailure)
        for (const CErrorRow& flag : kSecureFlags)
            if ((secureFailure & flag.error) != 0)
                return flag.failure;
    const auto* const row =
        std::find_if(std::begin(kErrors), std::end(kErrors), [&](const CErrorRow& known) { return known.error == error; });
    return row != std::end(kErrors) ? row->failure : EVoFailure::Other;
}
} // namespace

CVoFailure ExplainError(HRESULT result, bool isConnected, bool isSending, bool usesProxy, DWORD secureFailure)
{
    CVoFailure failure{ .kind = FindFailure(result, isConnected, isSending, secureFailure) };
    // These happen on the way to the first host, which is the proxy where one is used.
    constexpr EVoFailure kOnTheWay[] = { EVoFailure::NameNotFound, EVoFailure::ConnectRefused, EVoFailure::ConnectFailed,
                                         EVoFailure::ConnectTimeOut };
    failure.isProxy = usesProxy && std::find(std::begin(kOnTheWay), std::end(kOnTheWay), failure.kind) != std::end(kOnTheWay);
    return failure;
}
} // namespace WindowsTransport
