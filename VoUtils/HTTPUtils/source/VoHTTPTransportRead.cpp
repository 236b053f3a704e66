// Reading responses; see VoHTTPTransport.h.
#include "VoContentLength.h"
#include "VoHTTPTransport.h"

#include <VoResponseSink.h>
#include <base/VoUtils.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace
{
constexpr CVoReporter kMessageReport{ L"..\\source\\VoHTTPMessage", L"CVoHTTPMessage::ReadResponse" };

constexpr size_t kLoggedText = 1024; // bytes of a body that cannot be parsed

// The beginning of a body as one line of text, for the log.
std::wstring StartOfText(std::span<const BYTE> bytes, bool utf8)
{
    wchar_t text[kLoggedText]; // no code page makes more characters than bytes
    const int length = ::MultiByteToWideChar(utf8 ? CP_UTF8 : CP_THREAD_ACP, 0, reinterpret_cast<const char*>(bytes.data()),
                                             static_cast<int>(std::min(bytes.size(), std::size(text))), text,
                                             static_cast<int>(std::size(text)));
    std::replace_if(text, text + length, [](wchar_t character) { return character < L' '; }, L' ');
    return { text, static_cast<size_t>(length) };
}
} // namespace

std::optional<UINT64> CVoHTTPTransport::GetHeaderLongValue(const CRequest& request, std::wstring_view name) const
{
    const std::optional<std::wstring> text = CheckHeader(request, name, 0);
    return text ? VoParseDecimal<UINT64>(VoTrim(*text)) : std::nullopt;
}

std::optional<UINT64> CVoHTTPTransport::AnnouncedLength(const CRequest& request) const
{
    return CheckHeader(request, L"Transfer-Encoding", 0) ? std::nullopt : GetHeaderLongValue(request, L"Content-Length");
}

CVoBodyReceiver CVoHTTPTransport::MakeReceiver(const CRequest& request) const
{
    CVoBodyReceiver body(request.m_limits.bodyBytes);
    if (request.m_streamedKind && request.m_sink)
        body.SetSink(*this, *request.m_sink, *request.m_streamedKind);
    return body;
}

void CVoHTTPTransport::KeepErrorBody(CRequest& request, CVoBodyReceiver& body)
{
    if (request.m_statusCode < kFirstErrorStatus)
        return;
    request.m_errorBody = body.TakeBytes();
    request.m_errorBody.resize(std::min<size_t>(request.m_errorBody.size(), request.m_limits.errorBodyBytes));
}

void CVoHTTPTransport::ReadErrorBody(CRequest& request) noexcept
try
{
    if (request.m_limits.errorBodyBytes != 0)
        FetchErrorBody(request);
}
catch (...)
{
    // The response has failed already; it is shown without its body.
}

bool CVoHTTPTransport::RestartSink(CRequest& request) noexcept
{
    if (!request.m_hasWritten)
        return true;
    if (!request.m_sink || FAILED(request.m_sink->Restart()))
        return false;
    request.m_hasWritten = false;
    return true;
}

bool CVoHTTPTransport::MayRead(const CRequest& request, std::optional<EResponseKind> kind) const noexcept
{
    // A body that waits in the connection still needs its sink.
    const bool needsSink = request.m_hasPendingResponse && !m_facts.keepsHandle;
    return !request.m_streamedKind || (request.m_streamedKind == kind && (request.m_sink || !needsSink));
}

// Has the receiver check that the body is whole: its length is the announced one, and a coded stream is not cut off. E_FAIL:
// the length cannot be trusted.
HRESULT CVoHTTPTransport::SetBodyCheck(const CRequest& request, CVoBodyReceiver& body) const
{
    CVoContentLength length;
    if (!CheckHeader(request, L"Transfer-Encoding", 0))
        for (DWORD index = 0; const auto value = CheckHeader(request, L"Content-Length", index); ++index)
            length.Add(*value);
    if (length.IsInvalid())
        return E_FAIL;
    // The services hand the body out as it came.
    std::unique_ptr<CVoContentDecoder> decoder;
    if (const auto codings = CheckHeader(request, L"Content-Encoding", 0))
        (void)CVoContentDecoder::Make(*codings, decoder); // an unknown coding is not checked
    body.SetCheck(length.Get(), std::move(decoder));
    return S_OK;
}

// Takes the response over from the transport.
HRESULT CVoHTTPTransport::internalReadResponse(CRequest& request)
{
    const CVoReporter report{ m_points.source, m_points.internalReadResponse.function };
    if (!request.m_hasPendingResponse)
        return S_OK;
    request.m_hasPendingResponse = false;
    CRequest::CResponse response;
    CVoBodyReceiver body = MakeReceiver(request);
    if (!m_facts.keepsHandle) // libcurl's transport checks it before the send ends
        if (const HRESULT hr = SetBodyCheck(request, body); FAILED(hr))
            return report(m_points.internalReadResponse.length, hr);
    const HRESULT fetched = FetchBody(request, body);
    request.m_hasSinkFailed = body.HasSinkFailed();
    if (FAILED(fetched))
        return fetched;
    if (const HRESULT hr = body.Finish(); FAILED(hr))
        return report(m_points.internalReadResponse.length, hr);
    response.utf8 = NamesUtf8(CheckHeader(request, L"Content-Type", 0).value_or(std::wstring()));
    if (request.IsCancelled()) // while the last bytes came
        return report(m_points.internalReadResponse.length, kResultCancelled);
    response.isThere = true;
    response.isEmpty = body.Length() == 0;
    response.bytes = body.TakeBytes();
    request.m_response = std::move(response);
    return S_OK;
}

// The same for a caller who reads it. A failure ends the attempt in the request's record.
HRESULT CVoHTTPTransport::TakeResponse(CRequest& request)
{
    if (request.IsCancelled())
    {
        if (request.m_hasPendingResponse)
            EndAttempt(request, kResultCancelled);
        return kResultCancelled;
    }
    const HRESULT hr = Reason(request, internalReadResponse(request));
    if (FAILED(hr))
        EndAttempt(request, hr);
    return hr;
}

HRESULT CVoHTTPTransport::ReadResponse(const std::shared_ptr<CHTTPRequestData>& request, CVoBinaryDataParser& response,
                                       EResponseKind kind, bool* isUtf8, bool* isEmpty) noexcept
{
    const CVoReporter report{ m_points.source, m_points.readResponse.function };
    return report.Guard(m_points.readResponse.exception, [&]() -> HRESULT
    {
        const auto keep = weak_from_this().lock();
        const auto own = OwnRequest(request);
        const CAutoLock lock(&m_lock);
        if (!own)
            return report(m_points.readResponse.request, E_INVALIDARG);
        const CUse use(*own);
        if (!MayRead(*own, kind))
            return report(m_points.readResponse.read, E_INVALIDARG);
        if (const HRESULT hr = TakeResponse(*own); FAILED(hr))
            return report(m_points.readResponse.fetch, hr);
        CRequest::CResponse& received = own->m_response;
        if (kind != EResponseKind::Parameters && kind != EResponseKind::Binary)
            return report(m_points.readResponse.read, E_NOTIMPL);
        if (!received.isThere)
            return report(m_points.readResponse.read, E_FAIL);
        // Of the caller's content only the parameters stay, in front of the new ones.
        const CVoDataParser& parameters = response;
        CVoBinaryDataParser parsed;
        static_cast<CVoDataParser&>(parsed) = parameters;
        if (const HRESULT hr = parsed.Parse(std::move(received.bytes), kind == EResponseKind::Binary, received.utf8);
            FAILED(hr))
        {
            // A failed Parse leaves the bytes, so they can be read again as Binary.
            kMessageReport.Message(384, L"Parsing error! Data: %ls", StartOfText(received.bytes, received.utf8).c_str());
            return report(m_points.readResponse.read, hr);
        }
        response = std::move(parsed);
        received.isThere = false;
        if (isUtf8)
            *isUtf8 = received.utf8;
        if (isEmpty)
            *isEmpty = received.isEmpty;
        return S_OK;
    });
}

HRESULT CVoHTTPTransport::ReadMultipleResponses(const std::shared_ptr<CHTTPRequestData>& request,
                                                std::vector<CVoBinaryDataParser>& responses, UINT32 expectedCount,
                                                UINT32* count) noexcept
{
    const CVoReporter report{ m_points.source, m_points.readMultipleResponses.function };
    return report.Guard(m_points.readMultipleResponses.exception, [&]() -> HRESULT
    {
        const auto keep = weak_from_this().lock();
        const auto own = OwnRequest(request);
        const CAutoLock lock(&m_lock);
        if (!own)
            return report(m_points.readMultipleResponses.request, E_INVALIDARG);
        const CUse use(*own);
        if (!MayRead(*own, std::nullopt))
            return report(m_points.readMultipleResponses.read, E_INVALIDARG);
        if (const HRESULT hr = TakeResponse(*own); FAILED(hr))
            return report(m_points.readMultipleResponses.fetch, hr);
        CRequest::CResponse& received = own->m_response;
        const HRESULT hr =
            received.isThere ? internalParseMultipleResponses(received.bytes, received.utf8, expectedCount, responses) : E_FAIL;
        if (FAILED(hr))
            return report(m_points.readMultipleResponses.read, hr);
        received = {};
        if (count)
            *count = static_cast<UINT32>(responses.size());
        return S_OK;
    });
}
