// What one transfer of libcurl tells; see CURLTransferRecord.h.
#include "CURLTransferRecord.h"

#include <base/VoUtils.h>

#include <utility>

namespace VoHTTPMessageCURL
{
namespace
{
constexpr long kStatusOk = 200;
constexpr size_t kUsualHeader = 1024; // bytes

// What Schannel and the platform's chain functions say of a refused certificate, in libcurl's words.
EVoFailure CertificateFailure(std::string_view text) noexcept
{
    struct CRow
    {
        std::string_view part;
        EVoFailure failure;
    };
    static constexpr CRow kRows[] = {
        { "CERT_EXPIRED", EVoFailure::CertificateDate },     { "NOT_TIME_VALID", EVoFailure::CertificateDate },
        { "WRONG_PRINCIPAL", EVoFailure::CertificateName },  { "hostname", EVoFailure::CertificateName },
        { "UNTRUSTED_ROOT", EVoFailure::CertificateIssuer }, { "PARTIAL_CHAIN", EVoFailure::CertificateIssuer },
        { "REVOCATION", EVoFailure::RevocationUnknown },     { "REVOKED", EVoFailure::CertificateRevoked },
    };
    for (const CRow& row : kRows)
        if (text.find(row.part) != std::string_view::npos)
            return row.failure;
    return EVoFailure::Certificate;
}

long ConnectStatus(CURL* handle) noexcept
{
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_HTTP_CONNECTCODE, &status);
    return status == kStatusOk ? 0 : status;
}

std::string_view PeerAddress(CURL* handle) noexcept
{
    const char* address = nullptr;
    return curl_easy_getinfo(handle, CURLINFO_PRIMARY_IP, &address) == CURLE_OK && address ? address : std::string_view();
}
} // namespace

void CCURLTransferRecord::Begin(std::wstring url)
{
    m_firstUrl = std::move(url);
    m_headers.clear();
    m_headers.reserve(kUsualHeader);
    m_requests.clear();
    m_code = CURLE_OK;
    m_start = VoGetMicroseconds();
}

void CCURLTransferRecord::ReadResponses(std::vector<CVoRawResponse>& responses) const
{
    const std::string_view text = m_headers;
    size_t next = 0;
    for (size_t begin = 0; begin < text.size();)
    {
        // Each response ends with an empty line. One that broke off ends with the text.
        constexpr std::string_view kEnds[] = { "\n\r\n", "\n\n" };
        size_t end = text.size();
        for (const std::string_view mark : kEnds)
            if (const size_t found = text.find(mark, begin); found != std::string_view::npos)
                end = std::min(end, found + mark.size());
        while (next < m_requests.size() && m_requests[next].position <= begin)
            ++next;
        responses.push_back(
            { next == 0 ? m_firstUrl : m_requests[next - 1].url, VoHeaderText(text.substr(begin, end - begin)) });
        begin = end;
    }
}

void CCURLTransferRecord::Complete(CURL* handle, INT64 attemptStart, CVoExchangeRecord::CAttempt& attempt) const
{
    const auto time = [&](CURLINFO info) -> std::optional<INT64>
    {
        curl_off_t microseconds = 0;
        if (curl_easy_getinfo(handle, info, &microseconds) != CURLE_OK || microseconds <= 0)
            return std::nullopt;
        return m_start - attemptStart + microseconds;
    };
    long connections = 0;
    curl_easy_getinfo(handle, CURLINFO_NUM_CONNECTS, &connections);
    if (connections != 0) // otherwise the times are those of no connection
    {
        attempt.times.name = time(CURLINFO_NAMELOOKUP_TIME_T);
        attempt.times.connect = time(CURLINFO_CONNECT_TIME_T);
        attempt.times.tls = time(CURLINFO_APPCONNECT_TIME_T);
    }
    if (!attempt.times.sent)
        attempt.times.sent = time(CURLINFO_PRETRANSFER_TIME_T);
    attempt.times.firstByte = time(CURLINFO_STARTTRANSFER_TIME_T);
    attempt.times.total = time(CURLINFO_TOTAL_TIME_T);
    attempt.remoteAddress = VoHeaderText(PeerAddress(handle));
    std::wstring last = VoHideQuery(m_firstUrl);
    for (const CRequestBegin& request : m_requests)
        if (std::wstring url = VoHideQuery(request.url); url != last) // the same: an answer to a challenge
        {
            attempt.redirects.push_back(url);
            last = std::move(url);
        }
    // The header of a proxy's response to CONNECT is not kept.
    if (const long status = ConnectStatus(handle); status != 0)
    {
        CVoExchangeRecord::CResponse& response = attempt.responses.emplace_back();
        response.url = attempt.proxy;
        response.statusCode = static_cast<UINT32>(status);
        long schemes = 0;
        curl_easy_getinfo(handle, CURLINFO_PROXYAUTH_AVAIL, &schemes);
        for (const auto& [bit, name] : { std::pair{ CURLAUTH_BASIC, L"Basic" }, std::pair{ CURLAUTH_DIGEST, L"Digest" },
                                         std::pair{ CURLAUTH_NEGOTIATE, L"Negotiate" }, std::pair{ CURLAUTH_NTLM, L"NTLM" } })
            if ((static_cast<unsigned long>(schemes) & bit) != 0)
                response.schemes.emplace_back(name);
    }
}

CVoFailure CCURLTransferRecord::Explain(CURL* handle, const char* errorText, bool usesProxy) const
{
    const auto explain = [](EVoFailure kind, bool isProxy = false) { return CVoFailure{ .kind = kind, .isProxy = isProxy }; };
    // libcurl has a limit of its own, 300 KiB for the headers of a transfer, and no code for it.
    if (std::string_view(errorText).find("Too large response header") != std::string_view::npos)
        return explain(EVoFailure::ResponseLimit);
    switch (m_code)
    {
    case CURLE_COULDNT_RESOLVE_PROXY:
        return explain(EVoFailure::NameNotFound, true);
    case CURLE_COULDNT_RESOLVE_HOST:
        return explain(EVoFailure::NameNotFound);
    case CURLE_COULDNT_CONNECT:
    {
        long error = 0;
        curl_easy_getinfo(handle, CURLINFO_OS_ERRNO, &error);
        const EVoFailure kind = error == WSAECONNREFUSED ? EVoFailure::ConnectRefused
                                : error == WSAETIMEDOUT  ? EVoFailure::ConnectTimeOut
                                                         : EVoFailure::ConnectFailed;
        return explain(kind, usesProxy);
    }
    case CURLE_OPERATION_TIMEDOUT:
        return PeerAddress(handle).empty() ? explain(EVoFailure::ConnectTimeOut, usesProxy)
                                           : explain(EVoFailure::ResponseTimeOut);
    case CURLE_SSL_CONNECT_ERROR:
        return explain(EVoFailure::TlsHandshake);
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_INVALIDCERTSTATUS:
        return explain(CertificateFailure(errorText));
    case CURLE_OK: // the connection ended among the headers
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
        if (const long status = ConnectStatus(handle); status != 0)
            return { .kind = EVoFailure::Status, .isProxy = true, .statusCode = static_cast<UINT32>(status) };
        return explain(EVoFailure::ConnectionLost);
    case CURLE_PARTIAL_FILE:
        return explain(EVoFailure::ResponseTruncated);
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
        return explain(EVoFailure::ResponseMalformed);
    case CURLE_TOO_MANY_REDIRECTS:
        return explain(EVoFailure::RedirectLoop);
    case CURLE_ABORTED_BY_CALLBACK: // a cancelled request has another reason
        return explain(EVoFailure::RedirectRefused);
    default:
        return { .kind = EVoFailure::Other, .detail = VoHeaderText(errorText) };
    }
}
} // namespace VoHTTPMessageCURL
