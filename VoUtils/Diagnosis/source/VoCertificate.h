// What Windows knows of a certificate and its chain, as values.
#pragma once

#include "VoDiagnosisFacts.h"

#include <base/VoPlatform.h>

// The time-out of downloads is one of the extra fields.
#define CERT_CHAIN_PARA_HAS_EXTRA_FIELDS
#include <wincrypt.h>

#include <memory>
#include <string>

namespace VoDiagnosis
{
struct CCertificateDeleter
{
    void operator()(const CERT_CONTEXT* certificate) const noexcept { ::CertFreeCertificateContext(certificate); }
};
using CCertificate = std::unique_ptr<const CERT_CONTEXT, CCertificateDeleter>;

// All texts are the platform's. Throws std::bad_alloc.
[[nodiscard]] CCertificateFacts FactsOf(const CERT_CONTEXT& certificate);

// Whether one of the certificate's names is the host: DNS names with a wildcard for the whole first label (RFC 9525, section
// 6.3), addresses byte for byte. Without names of its own the common name counts. Throws std::bad_alloc.
[[nodiscard]] bool IsNameRight(const CERT_CONTEXT& certificate, const std::wstring& host);

// Builds the chain and judges it: fills chain, chainStatus, policyError, isNameRight. `timeout` in milliseconds bounds the
// download of missing certificates. Throws std::bad_alloc.
void JudgeChain(const CERT_CONTEXT& certificate, const std::wstring& host, DWORD timeout, CTlsFacts& facts);

// Asks whether a certificate of the chain was revoked. Blocks while lists are downloaded, on some systems longer than
// `timeout`: call it on a thread that may be left behind. Throws std::bad_alloc.
struct CRevocation
{
    ERevocation state = ERevocation::Unknown;
    std::wstring detail;
};
[[nodiscard]] CRevocation CheckRevocation(const CERT_CONTEXT& certificate, DWORD timeout);
} // namespace VoDiagnosis
