// The TLS probe: a client of Schannel on a socket of its own, so that each phase has its time, and the server's certificates
// can be read whatever they are.
#define SECURITY_WIN32
#define SCHANNEL_USE_BLACKLISTS // declares SCH_CREDENTIALS
#include "VoCertificate.h"
#include "VoProbe.h"

#include <base/VoDateTime.h>
#include <base/VoDetachedThread.h>
#include <base/VoText.h>

#include <winternl.h>

#include <schannel.h>
#include <security.h>

#include <algorithm>
#include <optional>
#include <span>
#include <utility>

namespace VoDiagnosis
{
namespace
{
constexpr size_t kMaximumHandshake = 256 * 1024;

class CCredentials
{
public:
    CCredentials() noexcept
    {
        // The chain is judged by the probe itself. No certificate of the user is sent.
        constexpr DWORD kFlags = SCH_CRED_MANUAL_CRED_VALIDATION | SCH_CRED_NO_DEFAULT_CREDS;
        // Only this form knows TLS 1.3. Systems before Windows 10 1809 refuse it.
        SCH_CREDENTIALS newer{};
        newer.dwVersion = SCH_CREDENTIALS_VERSION;
        newer.dwFlags = kFlags;
        SCHANNEL_CRED older{};
        older.dwVersion = SCHANNEL_CRED_VERSION;
        older.dwFlags = kFlags;
        Acquire(&newer);
        if (m_status != SEC_E_OK)
            Acquire(&older);
    }
    ~CCredentials()
    {
        if (m_status == SEC_E_OK)
            ::FreeCredentialsHandle(&m_handle);
    }
    CCredentials(const CCredentials&) = delete;
    CCredentials& operator=(const CCredentials&) = delete;

    [[nodiscard]] SECURITY_STATUS Status() const noexcept { return m_status; }
    [[nodiscard]] CredHandle* Get() noexcept { return &m_handle; }

private:
    void Acquire(void* settings) noexcept
    {
        wchar_t package[] = UNISP_NAME_W;
        TimeStamp expiry{};
        m_status = ::AcquireCredentialsHandleW(nullptr, package, SECPKG_CRED_OUTBOUND, nullptr, settings, nullptr, nullptr,
                                               &m_handle, &expiry);
    }

    CredHandle m_handle{};
    SECURITY_STATUS m_status = SEC_E_INTERNAL_ERROR;
};

// One TLS connection.
class CTlsClient
{
public:
    explicit CTlsClient(CProbeSocket& socket) noexcept : m_socket(socket) {}
    ~CTlsClient()
    {
        if (m_hasContext)
            ::DeleteSecurityContext(&m_context);
    }
    CTlsClient(const CTlsClient&) = delete;
    CTlsClient& operator=(const CTlsClient&) = delete;

    void Handshake(const std::wstring& host, const CWaitLimit& limit, CTlsFacts& facts);
    [[nodiscard]] CCertificate Certificate() noexcept
    {
        PCCERT_CONTEXT certificate = nullptr;
        ::QueryContextAttributesW(&m_context, SECPKG_ATTR_REMOTE_CERT_CONTEXT, static_cast<void*>(&certificate));
        return CCertificate(certificate);
    }
    // Sends a request and gives the Date of its response; empty without one.
    [[nodiscard]] std::wstring AskForDate(std::string_view request, const CWaitLimit& limit);

private:
    [[nodiscard]] SECURITY_STATUS Step(std::string& received, std::string& toSend);
    void Negotiate(std::string& received, const CWaitLimit& limit, CTlsFacts& facts);
    void ReadConnection(CTlsFacts& facts) noexcept;

    CProbeSocket& m_socket;
    CCredentials m_credentials;
    CtxtHandle m_context{};
    bool m_hasContext = false;
    bool m_hasReceived = false;
    std::wstring m_host;
    std::string m_rest; // bytes behind the handshake
};

// One round: takes what it can use from `received`.
SECURITY_STATUS CTlsClient::Step(std::string& received, std::string& toSend)
{
    constexpr ULONG kFlags = ISC_REQ_SEQUENCE_DETECT | ISC_REQ_REPLAY_DETECT | ISC_REQ_CONFIDENTIALITY | ISC_REQ_STREAM |
                             ISC_REQ_ALLOCATE_MEMORY | ISC_REQ_MANUAL_CRED_VALIDATION | ISC_REQ_USE_SUPPLIED_CREDS;
    SecBuffer in[2]{ { static_cast<ULONG>(received.size()), SECBUFFER_TOKEN, received.data() },
                     { 0, SECBUFFER_EMPTY, nullptr } };
    SecBufferDesc input{ SECBUFFER_VERSION, 2, in };
    SecBuffer out[1]{ { 0, SECBUFFER_TOKEN, nullptr } };
    SecBufferDesc output{ SECBUFFER_VERSION, 1, out };
    ULONG attributes = 0;
    TimeStamp expiry{};
    const SECURITY_STATUS status =
        ::InitializeSecurityContextW(m_credentials.Get(), m_hasContext ? &m_context : nullptr, m_host.data(), kFlags, 0, 0,
                                     m_hasContext ? &input : nullptr, 0, &m_context, &output, &attributes, &expiry);
    m_hasContext = m_hasContext || status == SEC_I_CONTINUE_NEEDED || status == SEC_E_OK;
    if (out[0].pvBuffer)
    {
        toSend.assign(static_cast<const char*>(out[0].pvBuffer), out[0].cbBuffer);
        ::FreeContextBuffer(out[0].pvBuffer);
    }
    if (status != SEC_E_INCOMPLETE_MESSAGE)
    {
        const size_t rest = in[1].BufferType == SECBUFFER_EXTRA ? std::min<size_t>(in[1].cbBuffer, received.size()) : 0;
        received.erase(0, received.size() - rest);
    }
    return status;
}

void CTlsClient::Handshake(const std::wstring& host, const CWaitLimit& limit, CTlsFacts& facts)
{
    facts.error = static_cast<DWORD>(m_credentials.Status());
    facts.outcome = m_credentials.Status() == SEC_E_OK ? EOutcome::Ok : EOutcome::Error;
    if (facts.outcome != EOutcome::Ok)
        return;
    m_host = host;
    Negotiate(m_rest, limit, facts);
    if (facts.outcome == EOutcome::Ok)
        ReadConnection(facts);
}

// Runs rounds until the handshake is complete. `received` has the bytes for the first round, and keeps those behind the last.
void CTlsClient::Negotiate(std::string& received, const CWaitLimit& limit, CTlsFacts& facts)
{
    for (;;)
    {
        std::string toSend;
        const SECURITY_STATUS status = Step(received, toSend);
        if (!toSend.empty())
            facts.outcome = m_socket.Send(toSend, limit);
        if (facts.outcome != EOutcome::Ok)
            return;
        if (status == SEC_E_OK)
            return;
        if (status != SEC_I_CONTINUE_NEEDED && status != SEC_E_INCOMPLETE_MESSAGE)
        {
            facts.error = static_cast<DWORD>(status);
            facts.outcome = EOutcome::Error;
            return;
        }
        if (status == SEC_I_CONTINUE_NEEDED && !received.empty())
            continue; // a further message has come already
        facts.outcome = received.size() > kMaximumHandshake ? EOutcome::Error : m_socket.Receive(received, limit);
        if (facts.outcome != EOutcome::Ok)
            return;
        // The first byte of a TLS record is its type: an alert or a handshake message (RFC 8446, section 5.1).
        constexpr char kAlert = 0x15;
        constexpr char kHandshake = 0x16;
        if (!std::exchange(m_hasReceived, true) && received.front() != kAlert && received.front() != kHandshake)
        {
            facts.isTls = false;
            facts.outcome = EOutcome::Error;
            return;
        }
    }
}

void CTlsClient::ReadConnection(CTlsFacts& facts) noexcept
{
    SecPkgContext_ConnectionInfo info{};
    if (::QueryContextAttributesW(&m_context, SECPKG_ATTR_CONNECTION_INFO, &info) != SEC_E_OK)
        return;
    struct CProtocol
    {
        DWORD bit;
        const wchar_t* name;
    };
    static constexpr CProtocol kProtocols[] = {
        { 0x2000, L"TLS 1.3" }, { 0x800, L"TLS 1.2" }, { 0x200, L"TLS 1.1" }, { 0x80, L"TLS 1.0" }, { 0x20, L"SSL 3.0" }
    };
    facts.protocol = L"an unknown protocol";
    for (const CProtocol& protocol : kProtocols)
        if ((info.dwProtocol & protocol.bit) != 0)
            facts.protocol = protocol.name;
    const CRYPT_OID_INFO* const cipher =
        ::CryptFindOIDInfo(CRYPT_OID_INFO_ALGID_KEY, &info.aiCipher, CRYPT_ENCRYPT_ALG_OID_GROUP_ID);
    facts.cipher = (cipher && cipher->pwszName ? std::wstring(cipher->pwszName) : VoFormat(L"cipher 0x%04X", info.aiCipher)) +
                   L" with " + std::to_wstring(info.dwCipherStrength) + L" bits";
    constexpr DWORD kAes128 = 0x660E;
    constexpr DWORD kAes256 = 0x6610;
    if (info.aiCipher == kAes128 || info.aiCipher == kAes256)
        facts.cipher = L"AES with " + std::to_wstring(info.dwCipherStrength) + L" bits";
}

std::wstring CTlsClient::AskForDate(std::string_view request, const CWaitLimit& limit)
{
    SecPkgContext_StreamSizes sizes{};
    if (::QueryContextAttributesW(&m_context, SECPKG_ATTR_STREAM_SIZES, &sizes) != SEC_E_OK)
        return {};
    std::string record = std::string(sizes.cbHeader, '\0') + std::string(request) + std::string(sizes.cbTrailer, '\0');
    SecBuffer out[4]{ { sizes.cbHeader, SECBUFFER_STREAM_HEADER, record.data() },
                      { static_cast<ULONG>(request.size()), SECBUFFER_DATA, record.data() + sizes.cbHeader },
                      { sizes.cbTrailer, SECBUFFER_STREAM_TRAILER, record.data() + sizes.cbHeader + request.size() },
                      { 0, SECBUFFER_EMPTY, nullptr } };
    SecBufferDesc output{ SECBUFFER_VERSION, 4, out };
    if (::EncryptMessage(&m_context, 0, &output, 0) != SEC_E_OK)
        return {};
    record.resize(out[0].cbBuffer + out[1].cbBuffer + out[2].cbBuffer);
    if (m_socket.Send(record, limit) != EOutcome::Ok)
        return {};
    std::string plain;
    std::string encrypted = std::move(m_rest);
    CPlainResponse response;
    while (!ReadHead(plain, response) && plain.size() < kMaximumHandshake)
    {
        SecBuffer in[4]{ { static_cast<ULONG>(encrypted.size()), SECBUFFER_DATA, encrypted.data() },
                         { 0, SECBUFFER_EMPTY, nullptr },
                         { 0, SECBUFFER_EMPTY, nullptr },
                         { 0, SECBUFFER_EMPTY, nullptr } };
        SecBufferDesc input{ SECBUFFER_VERSION, 4, in };
        const SECURITY_STATUS status =
            encrypted.empty() ? SEC_E_INCOMPLETE_MESSAGE : ::DecryptMessage(&m_context, &input, 0, nullptr);
        if (status == SEC_E_INCOMPLETE_MESSAGE)
        {
            if (m_socket.Receive(encrypted, limit) != EOutcome::Ok)
                return {};
            continue;
        }
        if (status != SEC_E_OK && status != SEC_I_RENEGOTIATE)
            return {};
        std::string rest;
        for (const SecBuffer& buffer : std::span(in).subspan(1)) // the first is the record's header now
            if (buffer.BufferType == SECBUFFER_DATA)
                plain.append(static_cast<const char*>(buffer.pvBuffer), buffer.cbBuffer);
            else if (buffer.BufferType == SECBUFFER_EXTRA)
                rest = encrypted.substr(encrypted.size() - std::min<size_t>(buffer.cbBuffer, encrypted.size()));
        encrypted = std::move(rest);
        if (status != SEC_I_RENEGOTIATE)
            continue;
        // A handshake message behind the handshake, in TLS 1.3 usually a ticket: the handshake goes on with what is left.
        CTlsFacts handshake;
        handshake.outcome = EOutcome::Ok;
        Negotiate(encrypted, limit, handshake);
        if (handshake.outcome != EOutcome::Ok)
            return {};
    }
    return response.Header(L"Date");
}

// Revocation on a thread that may be left behind: no time-out bounds the platform's call on every system.
CRevocation CheckRevocationWithin(const CERT_CONTEXT& certificate, const CWaitLimit& limit)
{
    struct CShared
    {
        CCertificate certificate;
        CVoLock lock;
        CRevocation result;
        CEvent done{ false, true };
    };
    const auto shared = std::make_shared<CShared>();
    shared->certificate.reset(::CertDuplicateCertificateContext(&certificate));
    const DWORD timeout = limit.Remaining();
    VoStartDetached([shared, timeout]
    {
        try
        {
            CRevocation found = CheckRevocation(*shared->certificate, timeout);
            const CVoLockHolder lock(shared->lock);
            shared->result = std::move(found);
        }
        catch (...)
        {
            // Unknown stays.
        }
        (void)shared->done.Set();
    });
    const HANDLE handles[] = { limit.stop, shared->done.Handle() };
    if (::WaitForMultipleObjects(2, handles, FALSE, timeout) != WAIT_OBJECT_0 + 1)
        return { ERevocation::Unknown, L"the issuer's servers do not answer in time" };
    const CVoLockHolder lock(shared->lock);
    return shared->result;
}

bool AreDatesWrong(const CTlsFacts& facts) noexcept
{
    for (const CCertificateFacts& certificate : facts.chain)
        if (::CompareFileTime(&facts.now, &certificate.notBefore) < 0 ||
            ::CompareFileTime(&facts.now, &certificate.notAfter) > 0)
            return true;
    return false;
}
} // namespace

CApply CollectTls(const CProbeContext& context)
{
    CTlsFacts facts;
    CProbeSocket socket;
    const INT64 start = VoGetMicroseconds();
    facts.outcome = OpenConnection(context, socket);
    facts.connectMicroseconds = VoGetMicroseconds() - start;
    if (facts.outcome == EOutcome::Ok)
    {
        const std::wstring& host = context.facts.address.asciiHost;
        CTlsClient client(socket);
        client.Handshake(host, context.Limit(), facts);
        facts.handshakeMicroseconds = VoGetMicroseconds() - start - facts.connectMicroseconds;
        const CCertificate certificate = facts.outcome == EOutcome::Ok ? client.Certificate() : nullptr;
        if (certificate)
        {
            JudgeChain(*certificate, host, context.Limit().Remaining(), facts);
            // Whose clock is wrong? Only the date is read, and nothing secret is sent.
            if (AreDatesWrong(facts))
                facts.date = client.AskForDate("HEAD / HTTP/1.1\r\nHost: " + AuthorityOf(context.facts.address) +
                                                   "\r\nConnection: close\r\n\r\n",
                                               context.Limit());
            if (context.facts.input.checkRevocation && context.facts.input.verify)
            {
                CRevocation revocation = CheckRevocationWithin(*certificate, context.Limit());
                facts.revocation = revocation.state;
                facts.revocationDetail = std::move(revocation.detail);
            }
        }
    }
    return [facts = std::move(facts)](CFacts& all) { all.tls = facts; };
}
} // namespace VoDiagnosis
