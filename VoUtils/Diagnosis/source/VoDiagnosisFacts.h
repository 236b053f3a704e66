// What the probes of a diagnosis found out. The judges (VoDiagnosisJudge.h) read it; the probes fill it. Values only: no
// handle, no service.
#pragma once

#include <VoExchangeRecord.h>
#include <VoHTTPMessage.h>
#include <VoProxyConfiguration.h>

#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace VoDiagnosis
{
// The probes. Those of the transports stand behind the others.
enum class EProbe : size_t
{
    Settings,
    Address,
    Name,
    Connect,
    Proxy,
    ProxyConnect,
    Tls,
    Portal,
    Count
};
inline constexpr size_t kProbeCount = static_cast<size_t>(EProbe::Count);

enum class EState
{
    Waiting,
    Running,
    Done,     // its facts are here
    TimedOut, // it used its time without facts
    NotRun,   // it does not apply, or what it needs failed
    Cancelled
};
struct CProbeState
{
    EState state = EState::Waiting;
    INT64 microseconds = 0;

    [[nodiscard]] bool IsOver() const noexcept { return state != EState::Waiting && state != EState::Running; }
    [[nodiscard]] bool IsDone() const noexcept { return state == EState::Done; }
};

// What was asked for.
struct CInput
{
    std::wstring url;            // without its query, for the report
    std::vector<UINT32> engines; // kinds
    bool isEngineListGiven = false;
    UINT32 configuredEngine = 0;
    bool verify = true;
    bool checkRevocation = false;
    bool isProxyGiven = false;
    std::wstring proxyScript; // that the store uses, without its query; empty for none
    UINT32 probeTimeout = 10; // seconds
};

struct CSettingsFacts
{
    std::wstring file; // ModuleSettings.ini
    bool exists = false;
    std::vector<std::wstring> values;   // "SETTINGS/HTTPEngine=2"
    std::vector<std::wstring> problems; // one for each value that cannot be read
    bool isLogOn = false;
    std::wstring logFile;
    std::wstring logError; // empty when the log can be written
};

struct CAddressFacts
{
    bool isValid = false;
    std::wstring host;
    std::wstring asciiHost; // the same in ASCII (RFC 5891), as the resolver, certificates and requests have it
    UINT16 port = 0;        // the one to connect to
    bool isSecure = false;
    std::wstring path;
    size_t queryLength = 0;
    bool isLiteral = false; // the host is an IP address
};

// How a step of a conversation ended.
enum class EOutcome
{
    Ok,
    Refused,
    Unreachable, // no route, no network
    TimedOut,
    Closed, // the other side ended the connection
    Error
};

struct CNameFacts
{
    std::vector<std::wstring> addresses;
    DWORD error = 0;        // of the resolver
    bool hasNetwork = true; // an adapter other than the loopback one is up
};

struct CConnectAttempt
{
    std::wstring address;
    EOutcome outcome = EOutcome::Ok;
    INT64 microseconds = 0;
};

struct CProxyFacts
{
    CVoProxyExplanation explanation;
    HRESULT result = S_OK;
    std::vector<std::wstring> unused; // proxies that others on this machine are told to use: "the environment: p:8080"
};

// What the proxy answered to CONNECT, or to a request for the server's root.
struct CProxyConnectFacts
{
    bool isNameKnown = true;
    std::vector<CConnectAttempt> attempts;
    EOutcome outcome = EOutcome::Ok; // of the conversation behind the connection
    bool isTunnel = false;           // CONNECT was sent
    bool isHttp = false;             // the answer is one of HTTP
    UINT32 statusCode = 0;
    std::wstring statusLine;
    std::vector<std::wstring> schemes;
    bool isOwnStatus = false; // the proxy's own, as far as headers tell
    std::wstring date;
};

struct CCertificateFacts
{
    std::wstring subject;
    std::wstring issuer;
    std::vector<std::wstring> names;
    FILETIME notBefore{};
    FILETIME notAfter{};
    std::wstring key;        // "RSA 2048"
    std::wstring signature;  // "sha256RSA"
    std::wstring thumbprint; // SHA-256
};
enum class ERevocation
{
    NotChecked,
    Good,
    Revoked,
    Unknown
};
struct CTlsFacts
{
    EOutcome outcome = EOutcome::Ok; // of the handshake
    bool isTls = true;               // the server's first bytes are a TLS record
    DWORD error = 0;                 // of the platform's security package
    std::wstring protocol;
    std::wstring cipher;
    INT64 connectMicroseconds = 0;
    INT64 handshakeMicroseconds = 0;
    std::vector<CCertificateFacts> chain; // the server's certificate first
    DWORD chainStatus = 0;                // CERT_TRUST_STATUS::dwErrorStatus
    DWORD policyError = 0;                // of CERT_CHAIN_POLICY_SSL
    bool isNameRight = true;
    FILETIME now{}; // when it was judged
    ERevocation revocation = ERevocation::NotChecked;
    std::wstring revocationDetail;
    std::wstring date; // of a response over this connection; asked only when the certificate's dates are wrong
};

// The answer to a request for the root by plain HTTP.
struct CPortalFacts
{
    EOutcome outcome = EOutcome::Ok;
    bool isHttp = false;
    UINT32 statusCode = 0;
    std::wstring location; // without its query
    std::wstring targetHost;
    bool isTargetPrivate = false; // an address of a private network
    bool hasGatewayMark = false;  // the page carries the mark of an access gateway (WISPr)
    std::wstring date;
};

struct CHttpFacts
{
    HRESULT result = S_OK;
    UINT32 statusCode = 0;
    CVoExchangeRecord record;
    UINT64 bodyBytes = 0;
    bool isBodyCut = false; // the rest of a long body was not read
    FILETIME now{};         // at its end

    [[nodiscard]] bool Works() const noexcept { return SUCCEEDED(result); }
};
struct CHttpProbe
{
    UINT32 kind = 0;
    std::string engine; // "curl"
    CProbeState state;
    CHttpFacts facts;

    [[nodiscard]] bool Works() const noexcept { return state.IsDone() && facts.Works(); }
};

struct CFacts
{
    CInput input;
    std::array<CProbeState, kProbeCount> states;
    CSettingsFacts settings;
    CAddressFacts address;
    CNameFacts name;
    std::vector<CConnectAttempt> connect;
    CProxyFacts proxy;
    CProxyConnectFacts proxyConnect;
    CTlsFacts tls;
    CPortalFacts portal;
    FILETIME portalTime{}; // when the portal's answer came
    FILETIME proxyTime{};
    std::vector<CHttpProbe> http;

    [[nodiscard]] const CProbeState& State(EProbe probe) const noexcept { return states[static_cast<size_t>(probe)]; }
    [[nodiscard]] CProbeState& State(EProbe probe) noexcept { return states[static_cast<size_t>(probe)]; }
};
} // namespace VoDiagnosis
