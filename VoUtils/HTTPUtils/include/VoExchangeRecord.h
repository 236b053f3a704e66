// What happened while a request was sent: attempts, addresses, times, responses, and the chain of a failure. A request of
// CVoHTTPMessage gives its record (CHTTPRequestData::GetExchangeRecord); the client and the connection doctor show it.
//
// A record can be shown and mailed as it is. It holds no password, no value of a cookie and no query: a URL's query becomes its
// length ("?<12 characters>"), and the values of headers that may carry secrets become "<hidden>". Texts that a server sent may
// contain any character; whoever shows them must escape them.
#pragma once

#include <base/VoPlatform.h>
#include <base/VoReportChain.h>

#include <optional>
#include <string>
#include <vector>

struct CVoHTTPHeader
{
    std::wstring name;
    std::wstring value; // without the white space around it; bytes that are not UTF-8 become one character each
};

// Why an attempt failed, as far as the transport's service tells.
enum class EVoFailure
{
    None,
    Cancelled,
    NameNotFound,
    ConnectRefused,
    ConnectFailed, // refused or unreachable: the service does not say which
    ConnectTimeOut,
    TlsHandshake,
    Certificate, // refused; the service does not say why
    CertificateName,
    CertificateDate,
    CertificateIssuer,
    CertificateRevoked,
    RevocationUnknown,
    ConnectionLost,
    ResponseTimeOut, // the request was on its way, or the TLS handshake
    ResponseMalformed,
    ResponseTruncated,
    ResponseLimit,
    Sink, // the caller's sink did not take the response
    RedirectLoop,
    RedirectRefused,
    Credentials,      // the server demands some and got none that it accepts
    ProxyCredentials, // the proxy demands some
    Status,           // the response has another status than 200
    Other
};

struct CVoExchangeRecord
{
    // Microseconds from the start of the attempt to the end of each phase, for its last connection. Nothing for a phase that
    // did not happen (a connection that was used again has neither name, connect nor tls) or that the service does not tell.
    struct CTimes
    {
        std::optional<INT64> name;      // the host's addresses were known
        std::optional<INT64> connect;   // the TCP connection was open
        std::optional<INT64> tls;       // the TLS handshake was complete
        std::optional<INT64> sent;      // the request had been sent
        std::optional<INT64> firstByte; // the response began
        std::optional<INT64> total;     // the status was known, with libcurl also the body
    };

    // One response of a server or a proxy: redirects and challenges have one each.
    struct CResponse
    {
        std::wstring url; // that was asked
        UINT32 statusCode = 0;
        std::wstring statusLine;            // as it came
        std::vector<CVoHTTPHeader> headers; // in order; one that came twice is here twice
        std::vector<std::wstring> schemes;  // that a 401 or 407 offers, as the server writes them ("Basic", "Negotiate")
    };

    // One attempt of a send. More than one: the request was retried.
    struct CAttempt
    {
        INT64 start = 0;                     // microseconds since the send began
        std::wstring proxy;                  // "host:port"; empty: none, or unknown to the library
        std::vector<std::wstring> addresses; // that were tried, in order: "192.0.2.1", "2001:db8::1"
        std::wstring remoteAddress;          // of the last connection: the server's, or the proxy's
        std::wstring localAddress;
        CTimes times;
        std::vector<CResponse> responses;
        std::vector<std::wstring> redirects; // the targets that were followed, without their queries
        UINT64 bytesSent = 0;                // of the body
        UINT64 bytesReceived = 0;            // of the body, decoded
        HRESULT result = S_OK;
        EVoFailure failure = EVoFailure::None;
        bool isProxyFailure = false; // the connection that failed was to the proxy
        std::wstring reason;         // one sentence, without a full stop, why the attempt failed; empty on success
    };

    std::vector<CAttempt> attempts;
    // The reports of the send, in order: the first one names the place where a failure happened. Empty on success.
    std::vector<CVoReport> chain;

    // The reason of the last attempt: "could not connect to 127.0.0.1 port 9: connection refused". Empty on success.
    [[nodiscard]] std::wstring Reason() const { return attempts.empty() ? std::wstring() : attempts.back().reason; }
};

// How much a response may hold. A response beyond a limit fails the send, or the reading of its body, with
// kErrorResponseLimit.
struct CVoResponseLimits
{
    // Of one response, the status line and the interim responses before it included. A service may have a lower limit of its
    // own (libcurl: 300 KiB).
    UINT32 headerBytes = 1024 * 1024;
    UINT32 headerFields = 1000; // of one response
    UINT32 cookies = 200;       // of one response; the rest is dropped
    // Decoded; 0: no limit. WinHTTP delivers a body in pieces that cost memory each: a body in very many small pieces reaches
    // the limit earlier, except with a sink.
    UINT64 bodyBytes = 0;
    // That are kept of the body of a response whose status is 400 or above; 0: none. The Windows transports wait five seconds
    // for it at most.
    UINT32 errorBodyBytes = 64 * 1024;
};
