// The exchange record of a send, and its cancelling; see VoHTTPTransport.h.
#include "VoHTTPTransport.h"

#include "VoRedirect.h"

#include <base/VoUtils.h>

#include <algorithm>
#include <iterator>
#include <mutex>

namespace
{
constexpr const wchar_t* kTransportRecordSource = L"..\\source\\VoHTTPTransportRecord";

constexpr UINT32 kFieldBytes = 4; // of the shortest field: a name, the colon and the end of the line

std::optional<INT64> Since(INT64 start, INT64 time) noexcept
{
    return time != 0 ? std::optional(time - start) : std::nullopt;
}
} // namespace

// Cancelling

void CVoHTTPMessage::CHTTPRequestData::Cancel() noexcept
{
    m_isCancelled.store(true, std::memory_order_release);
    auto* const request = dynamic_cast<CVoHTTPTransport::CRequest*>(this);
    if (!request)
        return;
    const std::shared_ptr<CVoHTTPTransport> message = request->m_message.lock();
    if (!message)
        return; // no operation runs
    message->CancelCall(*request);
    (void)message->m_wake.Set();
    const CVoLockHolder lock(request->m_questionLock);
    CVoComPtr<IVoAuthenticationCancel> question;
    if (SUCCEEDED(request->m_question.As(question)))
        (void)question->CancelQuestion(request->m_questionThread);
}

// Using a request

CVoHTTPTransport::CUse::CUse(CRequest& request) noexcept : m_request(request), m_scope(&request.m_chain)
{
    const CVoLockHolder lock(m_request.m_recordLock);
    m_request.m_isInUse = true;
}

CVoHTTPTransport::CUse::~CUse()
{
    const CVoLockHolder lock(m_request.m_recordLock);
    m_request.m_isInUse = false;
}

// Keeping the record

void CVoHTTPTransport::BeginRecord(CRequest& request) noexcept
{
    request.m_record.attempts.clear();
    request.m_lastHeader.clear();
    request.m_isUndescribed = false;
    request.m_sendStart = VoGetMicroseconds();
}

void CVoHTTPTransport::BeginAttempt(CRequest& request)
{
    request.m_chain.Clear();
    request.m_isUndescribed = false;
    request.m_trace = {};
    request.m_attemptStart = VoGetMicroseconds();
    request.m_record.attempts.emplace_back().start = request.m_attemptStart - request.m_sendStart;
}

// Adds the last SendOnce to the record, while the request's handle still has its responses.
void CVoHTTPTransport::DescribeSend(const CRequest& request) const noexcept
{
    constexpr CVoReporter report{ kTransportRecordSource, L"CVoHTTPTransport::DescribeSend" };
    if (!std::exchange(request.m_isUndescribed, false) || request.m_record.attempts.empty())
        return;
    (void)report.Guard(120, [&]() -> HRESULT
    {
        CVoExchangeRecord::CAttempt& attempt = request.m_record.attempts.back();
        const CVoConnectionTrace& trace = request.m_trace;
        attempt.proxy = VoHideProxyUser(request.m_proxyName);
        attempt.addresses = trace.addresses;
        attempt.remoteAddress = trace.remoteAddress;
        attempt.localAddress = request.m_localAddress;
        attempt.times = { .name = Since(request.m_attemptStart, trace.name),
                          .connect = Since(request.m_attemptStart, trace.connect),
                          .tls = Since(request.m_attemptStart, trace.tls),
                          .sent = Since(request.m_attemptStart, trace.sent),
                          .firstByte = Since(request.m_attemptStart, trace.firstByte),
                          .total = Since(request.m_attemptStart, trace.end) };
        attempt.bytesSent = request.m_sent;
        attempt.bytesReceived = request.m_received;
        std::vector<CVoRawResponse> responses;
        ReadResponseHeaders(request, responses);
        if (!responses.empty())
            request.m_lastHeader = responses.back().header;
        for (const CVoRawResponse& raw : responses)
        {
            CVoExchangeRecord::CResponse& response = attempt.responses.emplace_back();
            response.url = VoHideQuery(raw.url);
            VoSplitHeader(raw.header, response.statusLine, response.headers);
            response.statusCode = VoStatusCode(response.statusLine);
            response.schemes = VoChallengeSchemes(response.headers);
            VoHideSecrets(response.headers);
        }
        CompleteRecord(request, attempt);
        return S_OK;
    });
}

void CVoHTTPTransport::EndAttempt(const CRequest& request, HRESULT result) const noexcept
{
    constexpr CVoReporter report{ kTransportRecordSource, L"CVoHTTPTransport::EndAttempt" };
    DescribeSend(request);
    if (request.m_record.attempts.empty())
        return;
    CVoExchangeRecord::CAttempt& attempt = request.m_record.attempts.back();
    attempt.result = result;
    (void)report.Guard(140, [&]() -> HRESULT
    {
        const CVoFailure failure = ExplainAttempt(request, result);
        const std::wstring proxy = failure.proxy.empty() ? VoHideProxyUser(request.m_proxyName) : failure.proxy;
        attempt.failure = failure.kind;
        attempt.isProxyFailure = failure.isProxy;
        attempt.reason =
            VoFailureText(failure, { .host = request.m_target.Host(),
                                     .port = request.m_target.EffectivePort(),
                                     .proxy = proxy,
                                     .statusCode = failure.statusCode != 0 ? failure.statusCode : request.m_statusCode,
                                     .result = result });
        return S_OK;
    });
}

CVoFailure CVoHTTPTransport::ExplainAttempt(const CRequest& request, HRESULT result) const
{
    const auto is = [](EVoFailure kind) { return CVoFailure{ .kind = kind }; };
    if (request.IsCancelled())
        return is(EVoFailure::Cancelled);
    if (result == kErrorResponseLimit)
        return is(EVoFailure::ResponseLimit);
    if (request.m_hasSinkFailed)
        return is(EVoFailure::Sink);
    if (request.m_statusCode == kStatusProxyAuthenticationRequired)
        return { .kind = EVoFailure::ProxyCredentials, .isProxy = true };
    if (request.m_statusCode == kStatusUnauthorized || result == kResultCancelled)
        return is(EVoFailure::Credentials);
    // A transport that follows redirects by itself may have failed on the way to the target.
    const bool mayHaveFollowed = m_facts.followsRedirects && VoIsRedirect(request.m_statusCode);
    if (request.m_statusCode != 0 && request.m_statusCode != kStatusOk && !mayHaveFollowed)
        return is(VoIsRedirect(request.m_statusCode) ? EVoFailure::RedirectRefused : EVoFailure::Status);
    return ExplainFailure(request, result);
}

HRESULT CVoHTTPTransport::CheckHeaderLimits(const CRequest& request)
{
    if (request.m_headerLength > request.m_limits.headerBytes)
        return kErrorResponseLimit;
    if (request.m_headerLength / kFieldBytes <= request.m_limits.headerFields)
        return S_OK; // it cannot hold that many
    const std::wstring& header = request.m_header.Text();
    const ptrdiff_t lines = std::count(header.begin(), header.end(), L'\n');
    return lines - 2 > static_cast<ptrdiff_t>(request.m_limits.headerFields) ? kErrorResponseLimit : S_OK;
}

void CVoHTTPTransport::ReadResponseHeaders(const CRequest& request, std::vector<CVoRawResponse>& responses) const
{
    if (const std::wstring& header = request.m_header.Text(); !header.empty())
        responses.push_back({ request.m_target.FullURL(), header });
}

// Reading the record

// Calls `read` with a request that nobody uses and whose last send is in the record.
template <class Read>
HRESULT CVoHTTPTransport::ReadRecord(const CHTTPRequestData& data, Read read)
{
    const auto* const request = dynamic_cast<const CRequest*>(&data);
    if (!request)
        return E_FAIL;
    // Released after the lock: the last reference closes the message's requests, under their locks.
    const std::shared_ptr<CVoHTTPTransport> message = request->m_message.lock();
    const CVoLockHolder lock(request->m_recordLock);
    if (request->m_isInUse || request->m_record.attempts.empty())
        return E_FAIL;
    if (message)
        message->DescribeSend(*request);
    read(*request);
    return S_OK;
}

HRESULT CVoHTTPMessage::CHTTPRequestData::GetExchangeRecord(CVoExchangeRecord& record) const noexcept
{
    constexpr CVoReporter report{ kTransportRecordSource, L"CHTTPRequestData::GetExchangeRecord" };
    return report.Guard(150, [&]
    {
        return CVoHTTPTransport::ReadRecord(*this, [&](const CVoHTTPTransport::CRequest& request)
        {
            CVoExchangeRecord copy = request.m_record;
            if (FAILED(copy.attempts.back().result))
                copy.chain = request.m_chain.Get();
            record = std::move(copy);
        });
    });
}

HRESULT CVoHTTPMessage::CHTTPRequestData::GetResponseHeaders(std::vector<CVoHTTPHeader>& headers) const noexcept
{
    constexpr CVoReporter report{ kTransportRecordSource, L"CHTTPRequestData::GetResponseHeaders" };
    return report.Guard(160, [&]
    {
        return CVoHTTPTransport::ReadRecord(*this, [&](const CVoHTTPTransport::CRequest& request)
        {
            std::vector<CVoHTTPHeader> last;
            std::wstring statusLine;
            VoSplitHeader(request.m_lastHeader, statusLine, last);
            headers = std::move(last);
        });
    });
}

HRESULT CVoHTTPMessage::CHTTPRequestData::GetErrorBody(std::vector<BYTE>& bytes) const noexcept
{
    constexpr CVoReporter report{ kTransportRecordSource, L"CHTTPRequestData::GetErrorBody" };
    return report.Guard(170, [&]
    {
        return CVoHTTPTransport::ReadRecord(*this, [&](const CVoHTTPTransport::CRequest& request)
        { bytes = std::vector<BYTE>(request.m_errorBody); });
    });
}
