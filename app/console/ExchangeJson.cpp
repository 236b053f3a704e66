// An exchange record as JSON. docs/exchange.md explains the keys.
#include "ExchangeJson.h"

#include <algorithm>
#include <iterator>

namespace
{
struct CFailureName
{
    EVoFailure failure;
    const char* name;
};
constexpr CFailureName kFailureNames[] = {
    { EVoFailure::None, "" },
    { EVoFailure::Cancelled, "cancelled" },
    { EVoFailure::NameNotFound, "nameNotFound" },
    { EVoFailure::ConnectRefused, "connectRefused" },
    { EVoFailure::ConnectFailed, "connectFailed" },
    { EVoFailure::ConnectTimeOut, "connectTimeOut" },
    { EVoFailure::TlsHandshake, "tlsHandshake" },
    { EVoFailure::Certificate, "certificate" },
    { EVoFailure::CertificateName, "certificateName" },
    { EVoFailure::CertificateDate, "certificateDate" },
    { EVoFailure::CertificateIssuer, "certificateIssuer" },
    { EVoFailure::CertificateRevoked, "certificateRevoked" },
    { EVoFailure::RevocationUnknown, "revocationUnknown" },
    { EVoFailure::ConnectionLost, "connectionLost" },
    { EVoFailure::ResponseTimeOut, "responseTimeOut" },
    { EVoFailure::ResponseMalformed, "responseMalformed" },
    { EVoFailure::ResponseTruncated, "responseTruncated" },
    { EVoFailure::ResponseLimit, "responseLimit" },
    { EVoFailure::Sink, "sink" },
    { EVoFailure::RedirectLoop, "redirectLoop" },
    { EVoFailure::RedirectRefused, "redirectRefused" },
    { EVoFailure::Credentials, "credentials" },
    { EVoFailure::ProxyCredentials, "proxyCredentials" },
    { EVoFailure::Status, "status" },
    { EVoFailure::Other, "other" },
};

const char* NameOf(EVoFailure failure) noexcept
{
    const auto* const row = std::ranges::find(kFailureNames, failure, &CFailureName::failure);
    return row == std::end(kFailureNames) ? "other" : row->name;
}

CJson Texts(const std::vector<std::wstring>& texts)
{
    CJson array = CJson::array();
    for (const std::wstring& text : texts)
        array.push_back(ToUtf8(text));
    return array;
}

CJson Milliseconds(std::optional<INT64> microseconds)
{
    return microseconds ? CJson(static_cast<double>(*microseconds) / 1000) : CJson();
}

CJson TimesAsJson(const CVoExchangeRecord::CTimes& times)
{
    return { { "name", Milliseconds(times.name) },
             { "connect", Milliseconds(times.connect) },
             { "tls", Milliseconds(times.tls) },
             { "sent", Milliseconds(times.sent) },
             { "firstByte", Milliseconds(times.firstByte) },
             { "total", Milliseconds(times.total) } };
}

CJson ResponseAsJson(const CVoExchangeRecord::CResponse& response)
{
    CJson headers = CJson::array();
    for (const CVoHTTPHeader& header : response.headers)
        headers.push_back(CJson::array({ ToUtf8(header.name), ToUtf8(header.value) }));
    return { { "url", ToUtf8(response.url) },
             { "status", response.statusCode },
             { "statusLine", ToUtf8(response.statusLine) },
             { "headers", std::move(headers) },
             { "schemes", Texts(response.schemes) } };
}

CJson AttemptAsJson(const CVoExchangeRecord::CAttempt& attempt)
{
    CJson responses = CJson::array();
    for (const CVoExchangeRecord::CResponse& response : attempt.responses)
        responses.push_back(ResponseAsJson(response));
    return { { "start", Milliseconds(attempt.start) },
             { "proxy", ToUtf8(attempt.proxy) },
             { "addresses", Texts(attempt.addresses) },
             { "remoteAddress", ToUtf8(attempt.remoteAddress) },
             { "localAddress", ToUtf8(attempt.localAddress) },
             { "times", TimesAsJson(attempt.times) },
             { "responses", std::move(responses) },
             { "redirects", Texts(attempt.redirects) },
             { "bytesSent", attempt.bytesSent },
             { "bytesReceived", attempt.bytesReceived },
             { "result", ResultCode(attempt.result) },
             { "failure", NameOf(attempt.failure) },
             { "failureAtProxy", attempt.isProxyFailure },
             { "reason", ToUtf8(attempt.reason) } };
}
} // namespace

CJson ExchangeAsJson(const CVoExchangeRecord& record)
{
    CJson attempts = CJson::array();
    for (const CVoExchangeRecord::CAttempt& attempt : record.attempts)
        attempts.push_back(AttemptAsJson(attempt));
    CJson chain = CJson::array();
    for (const CVoReport& report : record.chain)
        chain.push_back({ { "source", ToUtf8(report.source ? report.source : L"") },
                          { "line", report.line },
                          { "function", ToUtf8(report.function ? report.function : L"") },
                          { "code", ResultCode(report.code) } });
    return { { "attempts", std::move(attempts) }, { "chain", std::move(chain) } };
}
