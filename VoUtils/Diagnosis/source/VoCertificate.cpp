// Certificates and chains (VoCertificate.h).
#include "VoCertificate.h"

#include <base/VoHResult.h>
#include <base/VoText.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace VoDiagnosis
{
namespace
{
struct CChainDeleter
{
    void operator()(const CERT_CHAIN_CONTEXT* chain) const noexcept { ::CertFreeCertificateChain(chain); }
};
using CChain = std::unique_ptr<const CERT_CHAIN_CONTEXT, CChainDeleter>;

std::wstring NameOf(const CERT_NAME_BLOB& name, DWORD encoding)
{
    CERT_NAME_BLOB blob = name;
    constexpr DWORD kForm = CERT_X500_NAME_STR | CERT_NAME_STR_REVERSE_FLAG;
    const DWORD size = ::CertNameToStrW(encoding, &blob, kForm, nullptr, 0);
    std::wstring text(size, L'\0');
    const DWORD length = size == 0 ? 0 : ::CertNameToStrW(encoding, &blob, kForm, text.data(), size);
    text.resize(length == 0 ? 0 : length - 1); // without the zero
    return text;
}

struct CNames
{
    std::vector<std::wstring> dns;
    std::vector<std::vector<BYTE>> addresses;
};

CNames AlternativeNames(const CERT_CONTEXT& certificate)
{
    CNames names;
    const CERT_INFO& info = *certificate.pCertInfo;
    const CERT_EXTENSION* const extension = ::CertFindExtension(szOID_SUBJECT_ALT_NAME2, info.cExtension, info.rgExtension);
    if (!extension)
        return names;
    CERT_ALT_NAME_INFO* decoded = nullptr;
    DWORD size = 0;
    if (!::CryptDecodeObjectEx(certificate.dwCertEncodingType, X509_ALTERNATE_NAME, extension->Value.pbData,
                               extension->Value.cbData, CRYPT_DECODE_ALLOC_FLAG, nullptr, static_cast<void*>(&decoded), &size))
        return names;
    const std::unique_ptr<CERT_ALT_NAME_INFO, void (*)(CERT_ALT_NAME_INFO*)> owner(decoded, [](CERT_ALT_NAME_INFO* p)
    { ::LocalFree(p); });
    for (DWORD i = 0; i < decoded->cAltEntry; ++i)
    {
        const CERT_ALT_NAME_ENTRY& entry = decoded->rgAltEntry[i];
        if (entry.dwAltNameChoice == CERT_ALT_NAME_DNS_NAME && entry.pwszDNSName)
            names.dns.emplace_back(entry.pwszDNSName);
        else if (entry.dwAltNameChoice == CERT_ALT_NAME_IP_ADDRESS)
            names.addresses.emplace_back(entry.IPAddress.pbData, entry.IPAddress.pbData + entry.IPAddress.cbData);
    }
    return names;
}

std::wstring CommonName(const CERT_CONTEXT& certificate)
{
    std::string oid = szOID_COMMON_NAME;
    const DWORD size = ::CertGetNameStringW(&certificate, CERT_NAME_ATTR_TYPE, 0, oid.data(), nullptr, 0);
    std::wstring text(size, L'\0');
    const DWORD length = ::CertGetNameStringW(&certificate, CERT_NAME_ATTR_TYPE, 0, oid.data(), text.data(), size);
    text.resize(length == 0 ? 0 : length - 1);
    return text;
}

bool Matches(std::wstring_view pattern, std::wstring_view host) noexcept
{
    if (pattern.ends_with(L'.'))
        pattern.remove_suffix(1);
    if (!pattern.starts_with(L"*."))
        return VoEqualsNoCase(pattern, host);
    // The star is one whole label, and not the last but one: "*.example" is no name of a server.
    const size_t dot = host.find(L'.');
    const std::wstring_view rest = pattern.substr(2);
    return dot != std::wstring_view::npos && dot != 0 && rest.find(L'.') != std::wstring_view::npos &&
           VoEqualsNoCase(rest, host.substr(dot + 1));
}

std::wstring AddressText(const std::vector<BYTE>& bytes)
{
    wchar_t text[64]{};
    constexpr size_t kV4 = 4;
    constexpr size_t kV6 = 16;
    if (bytes.size() != kV4 && bytes.size() != kV6)
        return {};
    return ::InetNtopW(bytes.size() == kV4 ? AF_INET : AF_INET6, bytes.data(), text, 64) ? text : std::wstring();
}

std::wstring KeyOf(const CERT_CONTEXT& certificate)
{
    CERT_PUBLIC_KEY_INFO& key = certificate.pCertInfo->SubjectPublicKeyInfo;
    const CRYPT_OID_INFO* const info =
        ::CryptFindOIDInfo(CRYPT_OID_INFO_OID_KEY, key.Algorithm.pszObjId, CRYPT_PUBKEY_ALG_OID_GROUP_ID);
    std::wstring text = info && info->pwszName ? info->pwszName : L"key";
    // The length of a key on an elliptic curve is 0 on some systems.
    if (const DWORD bits = ::CertGetPublicKeyLength(certificate.dwCertEncodingType, &key); bits != 0)
        text += L' ' + std::to_wstring(bits);
    return text;
}

std::wstring ThumbprintOf(const CERT_CONTEXT& certificate)
{
    std::array<BYTE, 32> hash{};
    auto size = static_cast<DWORD>(hash.size());
    std::wstring text;
    if (::CryptHashCertificate(0, CALG_SHA_256, 0, certificate.pbCertEncoded, certificate.cbCertEncoded, hash.data(), &size))
        for (const BYTE byte : hash)
            text += VoFormat(L"%02X", byte);
    return text;
}

CChain BuildChain(const CERT_CONTEXT& certificate, DWORD timeout, DWORD flags)
{
    CERT_CHAIN_PARA parameters{};
    parameters.cbSize = sizeof parameters;
    std::string usage = szOID_PKIX_KP_SERVER_AUTH;
    LPSTR usages[] = { usage.data() };
    parameters.RequestedUsage.dwType = USAGE_MATCH_TYPE_OR;
    parameters.RequestedUsage.Usage = { 1, usages };
    parameters.dwUrlRetrievalTimeout = std::max<DWORD>(timeout, 1); // 0 would be the platform's own time-out
    const CERT_CHAIN_CONTEXT* chain = nullptr;
    ::CertGetCertificateChain(nullptr, &certificate, nullptr, certificate.hCertStore, &parameters, flags, nullptr, &chain);
    return CChain(chain);
}
} // namespace

CCertificateFacts FactsOf(const CERT_CONTEXT& certificate)
{
    const CERT_INFO& info = *certificate.pCertInfo;
    CCertificateFacts facts;
    facts.subject = NameOf(info.Subject, certificate.dwCertEncodingType);
    facts.issuer = NameOf(info.Issuer, certificate.dwCertEncodingType);
    CNames names = AlternativeNames(certificate);
    facts.names = std::move(names.dns);
    for (const std::vector<BYTE>& address : names.addresses)
        facts.names.push_back(AddressText(address));
    if (facts.names.empty())
        facts.names.push_back(CommonName(certificate));
    facts.notBefore = info.NotBefore;
    facts.notAfter = info.NotAfter;
    facts.key = KeyOf(certificate);
    const CRYPT_OID_INFO* const signature =
        ::CryptFindOIDInfo(CRYPT_OID_INFO_OID_KEY, info.SignatureAlgorithm.pszObjId, CRYPT_SIGN_ALG_OID_GROUP_ID);
    facts.signature = signature && signature->pwszName ? signature->pwszName : L"";
    facts.thumbprint = ThumbprintOf(certificate);
    return facts;
}

bool IsNameRight(const CERT_CONTEXT& certificate, const std::wstring& host)
{
    const CNames names = AlternativeNames(certificate);
    std::array<BYTE, 16> bytes{};
    const size_t length = ::InetPtonW(AF_INET, host.c_str(), bytes.data()) == 1    ? 4
                          : ::InetPtonW(AF_INET6, host.c_str(), bytes.data()) == 1 ? 16
                                                                                   : 0;
    if (length != 0)
    {
        for (const std::vector<BYTE>& address : names.addresses)
            if (address.size() == length && std::memcmp(address.data(), bytes.data(), length) == 0)
                return true;
        return false;
    }
    for (const std::wstring& name : names.dns)
        if (Matches(name, host))
            return true;
    return names.dns.empty() && names.addresses.empty() && Matches(CommonName(certificate), host);
}

void JudgeChain(const CERT_CONTEXT& certificate, const std::wstring& host, DWORD timeout, CTlsFacts& facts)
{
    ::GetSystemTimeAsFileTime(&facts.now);
    facts.isNameRight = IsNameRight(certificate, host);
    const CChain chain = BuildChain(certificate, timeout, 0);
    if (!chain || chain->cChain == 0)
    {
        facts.chain.push_back(FactsOf(certificate));
        facts.chainStatus = CERT_TRUST_IS_PARTIAL_CHAIN;
        return;
    }
    facts.chainStatus = chain->TrustStatus.dwErrorStatus;
    const CERT_SIMPLE_CHAIN& simple = *chain->rgpChain[0];
    for (DWORD i = 0; i < simple.cElement; ++i)
        facts.chain.push_back(FactsOf(*simple.rgpElement[i]->pCertContext));
    std::wstring server = host;
    SSL_EXTRA_CERT_CHAIN_POLICY_PARA ssl{};
    ssl.cbSize = sizeof ssl;
    ssl.dwAuthType = AUTHTYPE_SERVER;
    // The name is compared above: not every system matches addresses.
    constexpr DWORD kIgnoreName = 0x1000; // SECURITY_FLAG_IGNORE_CERT_CN_INVALID of wininet.h
    ssl.fdwChecks = kIgnoreName;
    ssl.pwszServerName = server.data();
    CERT_CHAIN_POLICY_PARA policy{};
    policy.cbSize = sizeof policy;
    policy.pvExtraPolicyPara = &ssl;
    CERT_CHAIN_POLICY_STATUS status{};
    status.cbSize = sizeof status;
    // A policy that cannot be checked has not been passed.
    const bool isChecked = ::CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_SSL, chain.get(), &policy, &status) != FALSE;
    facts.policyError = isChecked ? status.dwError : static_cast<DWORD>(HResultFromLastError());
}

CRevocation CheckRevocation(const CERT_CONTEXT& certificate, DWORD timeout)
{
    const CChain chain = BuildChain(certificate, timeout, CERT_CHAIN_REVOCATION_CHECK_CHAIN_EXCLUDE_ROOT);
    if (!chain)
        return { ERevocation::Unknown, L"the chain cannot be built" };
    const DWORD status = chain->TrustStatus.dwErrorStatus;
    if ((status & CERT_TRUST_IS_REVOKED) != 0)
        return { ERevocation::Revoked, L"the issuer's list names it" };
    // Some systems set only the bit for the servers that cannot be reached.
    if ((status & (CERT_TRUST_REVOCATION_STATUS_UNKNOWN | CERT_TRUST_IS_OFFLINE_REVOCATION)) == 0)
        return { ERevocation::Good, {} };
    return { ERevocation::Unknown, (status & CERT_TRUST_IS_OFFLINE_REVOCATION) != 0
                                       ? L"the issuer's servers cannot be reached"
                                       : L"the certificate names no server that tells" };
}
} // namespace VoDiagnosis
