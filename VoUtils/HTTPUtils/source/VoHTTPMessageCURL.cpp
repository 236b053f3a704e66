// The libcurl transport: the hooks of the transport core on libcurl's easy interface.
#include <VoHTTPMessageCURL.h>

#include "CURLRequestHandle.h"
#include "CURLSupport.h"
#include "CURLTransferRecord.h"
#include "VoCookieBytes.h"
#include "VoHTTPMessageCURLTracePoints.h"
#include "VoHTTPTransport.h"
#include "VoRedirect.h"
#include "VoUrl.h"

#include <base/VoModuleInformation.h>
#include <base/VoUtils.h>

#include <cstring>

namespace VoHTTPMessageCURL
{
namespace
{
constexpr CVoTransportFacts kFacts{
    .unexpectedStatus = E_FAIL, .followsRedirects = true, .keepsHandle = true, .asksBetweenSends = true, .storesCookies = true
};

const char* NullIfEmpty(const std::string& text) noexcept
{
    return text.empty() ? nullptr : text.c_str();
}

// Credentials in the bytes that libcurl takes.
struct CCURLCredentials
{
    std::string user;
    CVoSecret<char> password;

    [[nodiscard]] HRESULT Set(const std::wstring& userText, const CVoSecret<wchar_t>& passwordText) noexcept
    {
        const HRESULT hr = VoStringToUTF8(userText, user);
        return SUCCEEDED(hr) ? VoStringToUTF8(passwordText.Get(), password.Get()) : hr;
    }
};
} // namespace

class CVoHTTPMessageCURL final : public CVoHTTPTransport
{
public:
    CVoHTTPMessageCURL() : CVoHTTPTransport(kTracePoints, kFacts) {}
    ~CVoHTTPMessageCURL() override { CloseInDestructor(); }
    CVoHTTPMessageCURL(const CVoHTTPMessageCURL&) = delete;
    CVoHTTPMessageCURL& operator=(const CVoHTTPMessageCURL&) = delete;
    class CHTTPRequestDataCURL;

private:
    [[nodiscard]] HRESULT OpenSession() override;
    [[nodiscard]] HRESULT CloseSession() noexcept override;
    [[nodiscard]] std::shared_ptr<CRequest> MakeRequest() override;
    [[nodiscard]] HRESULT OpenHandle(CRequest& opened) override;
    [[nodiscard]] HRESULT CloseHandle(CRequest& /*request*/) noexcept override { return S_OK; } // its connections are its own
    [[nodiscard]] HRESULT SendOnce(CRequest& sent, const CVoBodyPieces& body, const std::wstring& contentType) override;
    [[nodiscard]] HRESULT UseCredentials(CRequest& asked, bool proxy, const CCredentials& typed) override;
    [[nodiscard]] HRESULT ResetConnection(CRequest& failed) noexcept override;
    void EndSend(CRequest& sent) noexcept override;
    [[nodiscard]] std::optional<std::wstring> CheckHeader(const CRequest& asked, std::wstring_view name,
                                                          DWORD index) const override;
    [[nodiscard]] HRESULT FetchBody(CRequest& request, CVoBodyReceiver& body) override;
    void ReadResponseHeaders(const CRequest& answered, std::vector<CVoRawResponse>& responses) const override;
    void CompleteRecord(const CRequest& sent, CVoExchangeRecord::CAttempt& attempt) const override;
    [[nodiscard]] CVoFailure ExplainFailure(const CRequest& failed, HRESULT result) const override;

    [[nodiscard]] HRESULT PrepareSend(CHTTPRequestDataCURL& request, const std::wstring& contentType);
    void WriteBodyToLogFile(const CVoBodyPieces& body) noexcept;
    [[nodiscard]] HRESULT Perform(CHTTPRequestDataCURL& request, const CVoBodyPieces& body);
    static void NoteTarget(CHTTPRequestDataCURL& request, CURLcode code) noexcept;
    [[nodiscard]] static HRESULT ReadTarget(CHTTPRequestDataCURL& request);
    [[nodiscard]] HRESULT GoToTarget(CHTTPRequestDataCURL& request) const;

    std::shared_ptr<CCURLConnections> m_connections; // shared by the requests, so that they use one connection after the other
};

class CVoHTTPMessageCURL::CHTTPRequestDataCURL final : public CRequest
{
public:
    CHTTPRequestDataCURL(std::shared_ptr<CVoHTTPMessage> owner, std::shared_ptr<CCURLConnections> connections) noexcept
        : m_owner(std::move(owner)), m_handle(std::move(connections))
    {
    }

    std::shared_ptr<CVoHTTPMessage> m_owner;
    // The handle is destroyed before these two, which it refers to.
    CURLSListWrapper m_headers; // of the attempt
    CProgressContext m_progress;
    CCURLRequestHandle m_handle;
    std::string m_url;
    std::string m_cookie;        // for m_address
    std::wstring m_handleUrl;    // the handle's own; libcurl sends the server's credentials to its host
    std::string m_handleCookie;  // for m_handleUrl
    bool m_isPrepared = false;   // the options of this attempt are set
    bool m_isRetargeted = false; // the handle's URL is not m_url
    CVoBodyReceiver m_body;      // of the response

    CCURLTransferRecord m_transfer; // the last one
};

std::shared_ptr<CVoHTTPMessage> MakeMessage()
{
    return std::make_shared<CVoHTTPMessageCURL>();
}

HRESULT CVoHTTPMessageCURL::OpenSession()
{
    return S_OK; // the first request makes the connections
}

HRESULT CVoHTTPMessageCURL::CloseSession() noexcept
{
    m_connections.reset(); // requests that are still alive keep the connections that they use
    return S_OK;
}

std::shared_ptr<CVoHTTPTransport::CRequest> CVoHTTPMessageCURL::MakeRequest()
{
    if (!m_connections)
        m_connections = std::make_shared<CCURLConnections>();
    return std::make_shared<CHTTPRequestDataCURL>(shared_from_this(), m_connections);
}

HRESULT CVoHTTPMessageCURL::OpenHandle(CRequest& opened)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalOpenRequest" };
    auto& request = static_cast<CHTTPRequestDataCURL&>(opened);
    if (const HRESULT hr =
            request.m_handle.Init({ .connectTimeout = Milliseconds(m_connectTimeout, CCURLRequestHandle::kLongestTimeout),
                                    .requestTimeout = Milliseconds(m_requestTimeout, CCURLRequestHandle::kLongestTimeout),
                                    .verifiesCertificate = m_verifyServerCertificate,
                                    .checksRevocation = m_checkCertificateRevocation,
                                    .request = &request,
                                    .addresses = &request.m_trace.addresses });
        FAILED(hr))
        return report(1240, hr);
    if (const HRESULT hr = VoUrlToBytes(request.m_address.FullURL(), request.m_url); FAILED(hr))
        return report(1245, hr);
    CURL* const handle = request.m_handle.Get();
    if (const HRESULT hr = CURLSetOpt(handle, CURLOPT_URL, request.m_url.c_str()); FAILED(hr))
        return report(1250, hr);
    request.m_handleUrl = request.m_address.FullURL();

    std::string proxy;
    CCURLCredentials credentials;
    HRESULT hr = VoStringToUTF8(request.m_proxy, proxy);
    if (SUCCEEDED(hr) && request.m_proxyCredentials)
        hr = credentials.Set(request.m_proxyCredentials->user, request.m_proxyCredentials->password);
    if (FAILED(hr))
        return report(1265, hr);
    if (!proxy.empty())
        request.m_handle.SetConfidential();
    CCURLOptions options(handle, report);
    if (proxy.empty())
        options.Set(1272, CURLOPT_PROXY, ""); // none, whatever the environment's http_proxy and its relatives say
    else
    {
        options.Set(1274, CURLOPT_PROXY, proxy.c_str()).Set(1278, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY));
        if (!credentials.user.empty())
            options.Set(1280, CURLOPT_PROXYUSERNAME, credentials.user.c_str())
                .Set(1282, CURLOPT_PROXYPASSWORD, credentials.password.Get().c_str());
    }
    options.Set(1287, CURLOPT_ERRORBUFFER, request.m_handle.ErrorBuffer());
    request.m_handleCookie = request.m_cookie = VoCookieBytesFromText(request.m_cookieHeader);
    if (request.m_cookie.empty())
        options.Set(1310, CURLOPT_COOKIE, static_cast<const char*>(nullptr));
    else
        options.Set(1305, CURLOPT_COOKIE, request.m_cookie.c_str());
    return options.Result();
}

// Sets the options of one attempt: headers, method, progress.
HRESULT CVoHTTPMessageCURL::PrepareSend(CHTTPRequestDataCURL& request, const std::wstring& contentType)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSend" };
    const bool post = request.m_verb == std::wstring_view(L"POST");
    request.m_progress = { post ? GetCallBack() : nullptr, false, &request };
    request.m_headers.Clear();
    HRESULT hr = request.m_headers.Append(contentType);
    for (const char* const line : { "Connection: Keep-Alive", "Pragma: no-cache", "Expect:", "Accept: */*" })
        if (SUCCEEDED(hr))
            hr = request.m_headers.Append(line);
    if (FAILED(hr))
        return report(1070, hr);
    CURL* const handle = request.m_handle.Get();
    CCURLOptions options(handle, report);
    if (request.m_isRetargeted) // the credentials for a redirect's target are not for this server
    {
        request.m_handleUrl = request.m_address.FullURL();
        request.m_handleCookie = request.m_cookie;
        options.Set(1045, CURLOPT_URL, request.m_url.c_str())
            .Set(1046, CURLOPT_COOKIE, NullIfEmpty(request.m_cookie))
            .Set(1047, CURLOPT_USERNAME, static_cast<const char*>(nullptr))
            .Set(1048, CURLOPT_PASSWORD, static_cast<const char*>(nullptr));
    }
    // A GET needs it too, to be cancelled.
    options.Set(1055, CURLOPT_XFERINFOFUNCTION, &progress_callback)
        .Set(1057, CURLOPT_XFERINFODATA, static_cast<void*>(&request.m_progress))
        .Set(1059, CURLOPT_NOPROGRESS, 0L);
    options.Set(1078, CURLOPT_HTTPHEADER, request.m_headers.Get());
    if (post)
        options.Set(1083, CURLOPT_POST, 1L);
    else
        options.Set(1088, CURLOPT_HTTPGET, 1L);
    if (FAILED(options.Result()))
        return options.Result();
    request.m_isPrepared = true;
    request.m_isRetargeted = false;
    return S_OK;
}

HRESULT CVoHTTPMessageCURL::SendOnce(CRequest& sent, const CVoBodyPieces& body, const std::wstring& contentType)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSendRAW" };
    auto& request = static_cast<CHTTPRequestDataCURL&>(sent);
    if (!request.m_isPrepared)
        if (const HRESULT hr = PrepareSend(request, contentType); FAILED(hr))
        {
            request.m_isFinal = true;
            return hr;
        }
    request.m_body = CVoBodyReceiver();
    if (!m_connections)
        m_connections = std::make_shared<CCURLConnections>();
    if (const HRESULT hr = request.m_handle.UseConnections(m_connections); FAILED(hr))
        return report(900, hr);
    WriteBodyToLogFile(body);
    const HRESULT hr = Perform(request, body);
    request.m_handle.ReadLocalAddress(request.m_localAddress);
    if (FAILED(hr))
        return hr;
    if (request.m_statusCode != kStatusProxyAuthenticationRequired)
        KeepProxyCredentials(request);
    if (request.m_statusCode == kStatusUnauthorized && m_authCallback)
        return ReadTarget(request);
    return S_OK;
}

// Writes the body to the data log when that is on.
void CVoHTTPMessageCURL::WriteBodyToLogFile(const CVoBodyPieces& body) noexcept
try
{
    if (!CVoModuleInformation::Get().IsDebug())
        return;
    const std::span<const BYTE> all = Joined(body);
    WriteDataToLogFile(EDataDirection::Written, all.data(), static_cast<UINT32>(all.size()));
}
catch (...)
{
    // No memory for the body: the data log is only for the developer.
}

// One transfer.
HRESULT CVoHTTPMessageCURL::Perform(CHTTPRequestDataCURL& request, const CVoBodyPieces& body)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSendRAW" };
    CURL* const handle = request.m_handle.Get();
    CBodySource source{ CVoBodyReader(body), body.Length(), 0, &request.m_sent, &request.m_trace.sent };
    CCURLWriteCallbackData received{ .handle = handle,
                                     .success = MakeReceiver(request),
                                     .failure = CVoBodyReceiver(request.m_limits.bodyBytes),
                                     .count = &request.m_received,
                                     .expected = &request.m_toReceive };
    CHeaderContext headers;
    request.m_transfer.Begin(request.m_target.FullURL());
    headers.record = &request.m_transfer;
    headers.limits = &request.m_limits;
    headers.handle = handle;
    headers.cookieStore = m_cookieStore.Get();
    headers.requestUrl = request.m_target.FullURL();
    headers.isSecure = request.m_target.IsSecure();
    headers.bodilessHeaders = request.m_headers.Get() ? request.m_headers.Get()->next : nullptr; // Content-Type is the first
    received.headers = &headers;
    if (const HRESULT hr = request.m_handle.SetBodySource(source); FAILED(hr))
        return hr;
    if (const HRESULT hr = request.m_handle.SetTransfer(body.Length(), headers, received); FAILED(hr))
        return hr;
    const CURLcode code = request.m_transfer.End(curl_easy_perform(handle));
    if (received.isQuiet)
        request.m_handle.ResumeDataLog();
    request.m_hasWritten = received.success.HasWritten();
    request.m_hasSinkFailed = received.success.HasSinkFailed();
    // The Cookie header of a redirect is for its target only.
    if (headers.cookieReplaced)
        (void)CURLSetOpt(handle, CURLOPT_COOKIE, NullIfEmpty(request.m_handleCookie));
    if (headers.headersReplaced)
        (void)CURLSetOpt(handle, CURLOPT_HTTPHEADER, request.m_headers.Get());

    long status = 0;
    if (code == CURLE_OK)
    {
        if (const HRESULT hr = CURLGetInfo(handle, CURLINFO_RESPONSE_CODE, &status); FAILED(hr))
            return report(906, hr);
        request.m_statusCode = static_cast<UINT32>(status);
        if (request.m_statusCode != kStatusOk)
        {
            NoteTarget(request, code);
            KeepErrorBody(request, received.failure);
            return S_OK;
        }
        if (FAILED(received.result))
            return report(1030, received.result);
        if (FAILED(headers.result))
            return report(1032, headers.result);
        if (!headers.complete)
            return report(1034, E_FAIL); // libcurl takes a connection that ends among the headers for an empty response
        if (headers.contentLength.IsInvalid() && headers.transferCodings.empty())
            return report(1036, E_FAIL); // libcurl reads some of them
        if (received.decoder && FAILED(received.decoder->Finish()))
            return report(1038, E_FAIL); // the coded stream is cut off
        request.m_body = std::move(received.success);
        if (!request.m_body.HasSink()) // which has logged it
            WriteDataToLogFile(EDataDirection::Read, request.m_body.Bytes().data(),
                               static_cast<UINT32>(request.m_body.Bytes().size()));
        return S_OK;
    }
    // A proxy that refuses CONNECT ends the transfer before the server can respond. A time-out does not: it may come while the
    // proxy is silent about the credentials that its 407 asked for.
    long connectStatus = 0;
    curl_easy_getinfo(handle, CURLINFO_HTTP_CONNECTCODE, &connectStatus);
    if (static_cast<UINT32>(connectStatus) == kStatusOk)
        KeepProxyCredentials(request);
    // A response that broke off has a status, which decides about another attempt.
    if (curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK)
        request.m_statusCode = static_cast<UINT32>(status);
    if (static_cast<UINT32>(connectStatus) != kStatusProxyAuthenticationRequired)
        NoteTarget(request, code);
    const HRESULT refusal = received.body ? received.body->Refusal() : S_OK;
    if (headers.isOverLimit || FAILED(refusal))
    {
        request.m_isFinal = true; // the next response would be as large
        return report(908, headers.isOverLimit ? kErrorResponseLimit : refusal);
    }
    if (code == CURLE_OPERATION_TIMEDOUT)
        return report(911, kResultTimeout);
    if (static_cast<UINT32>(connectStatus) != kStatusProxyAuthenticationRequired)
        return report(913, CheckCURLError(code, VoFormat(L"- (%ls) - curl_easy_perform(). ServerAddress: %ls",
                                                         request.m_handle.ErrorText(request.m_proxy).c_str(),
                                                         request.m_address.PathURL().c_str())));
    request.m_statusCode = kStatusProxyAuthenticationRequired;
    return S_OK;
}

// Where the last request of the transfer went, for the reason of its failure. The credentials of a 407 are for the same URL
// again, and a redirect that was refused belongs to the server that sent it.
void CVoHTTPMessageCURL::NoteTarget(CHTTPRequestDataCURL& request, CURLcode code) noexcept
{
    const char* url = nullptr;
    if (request.m_statusCode != kStatusProxyAuthenticationRequired && code != CURLE_ABORTED_BY_CALLBACK &&
        code != CURLE_UNSUPPORTED_PROTOCOL &&
        curl_easy_getinfo(request.m_handle.Get(), CURLINFO_EFFECTIVE_URL, &url) == CURLE_OK)
        (void)ParseCURLUrl(url, request.m_target); // reported
}

// The server that sent the response, as libcurl names it: redirects may have led to another.
HRESULT CVoHTTPMessageCURL::ReadTarget(CHTTPRequestDataCURL& request)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSendRAW" };
    const char* effectiveUrl = nullptr;
    if (const HRESULT hr = CURLGetInfo(request.m_handle.Get(), CURLINFO_EFFECTIVE_URL, &effectiveUrl); FAILED(hr))
        return report(960, hr);
    if (const HRESULT hr = ParseCURLUrl(effectiveUrl, request.m_target); FAILED(hr))
        return report(962, hr);
    return S_OK;
}

HRESULT CVoHTTPMessageCURL::UseCredentials(CRequest& asked, bool proxy, const CCredentials& typed)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSendRAW" };
    auto& request = static_cast<CHTTPRequestDataCURL&>(asked);
    CCURLCredentials credentials;
    if (const HRESULT hr = credentials.Set(typed.user, typed.password); FAILED(hr))
        return report(974, hr);

    request.m_handle.SetConfidential();
    CCURLOptions options(request.m_handle.Get(), report);
    if (proxy)
        return options.Set(985, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY))
            .Set(986, CURLOPT_PROXYUSERNAME, credentials.user.c_str())
            .Set(987, CURLOPT_PROXYPASSWORD, credentials.password.Get().c_str())
            .Result();
    options.Set(975, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_ANY))
        .Set(976, CURLOPT_USERNAME, credentials.user.c_str())
        .Set(977, CURLOPT_PASSWORD, credentials.password.Get().c_str());
    if (FAILED(options.Result()))
        return options.Result();
    return request.m_target.FullURL() == request.m_handleUrl ? S_OK : GoToTarget(request);
}

// Sends the request to the target of a redirect directly: libcurl gives credentials to the host of the URL only.
HRESULT CVoHTTPMessageCURL::GoToTarget(CHTTPRequestDataCURL& request) const
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSendRAW" };
    CURL* const handle = request.m_handle.Get();
    // Copied first: the handle frees the effective URL when it is given another.
    std::string url;
    if (const HRESULT hr = VoUrlToBytes(request.m_target.FullURL(), url); FAILED(hr))
        return report(978, hr);
    const char* method = nullptr;
    CCURLOptions options(handle, report);
    options.Set(979, CURLOPT_URL, url.c_str());
    if (curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_METHOD, &method) == CURLE_OK && method && std::strcmp(method, "GET") == 0)
        options.Set(980, CURLOPT_HTTPGET, 1L);
    // The first server's cookies are not the target's.
    std::wstring cookie;
    (void)GetCookieHeader(request.m_target, cookie); // a failure is reported, and no cookies are sent
    request.m_handleCookie = VoCookieBytesFromText(cookie);
    options.Set(981, CURLOPT_COOKIE, NullIfEmpty(request.m_handleCookie));
    request.m_isRetargeted = true;
    request.m_handleUrl = request.m_target.FullURL();
    return options.Result();
}

HRESULT CVoHTTPMessageCURL::ResetConnection(CRequest& failed) noexcept
{
    m_connections.reset(); // the next attempt must not meet the connection again
    auto& request = static_cast<CHTTPRequestDataCURL&>(failed);
    request.m_isPrepared = false;
    return request.m_handle.ResetConnection();
}

void CVoHTTPMessageCURL::EndSend(CRequest& sent) noexcept
{
    // The progress record's callback may not outlive the send.
    auto& request = static_cast<CHTTPRequestDataCURL&>(sent);
    CURL* const handle = request.m_handle.Get();
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, nullptr);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 1L);
    request.m_headers.Clear();
    request.m_isPrepared = false;
}

std::optional<std::wstring> CVoHTTPMessageCURL::CheckHeader(const CRequest& asked, std::wstring_view name,
                                                            DWORD /*index*/) const
{
    CURL* const handle = static_cast<const CHTTPRequestDataCURL&>(asked).m_handle.Get();
    if (name == L"Content-Type")
    {
        const char* value = nullptr;
        std::wstring text;
        if (curl_easy_getinfo(handle, CURLINFO_CONTENT_TYPE, &value) == CURLE_OK && value &&
            SUCCEEDED(VoUTF8ToString(value, text)))
            return text;
    }
    else if (name == L"Retry-After")
    {
        curl_off_t seconds = 0;
        if (curl_easy_getinfo(handle, CURLINFO_RETRY_AFTER, &seconds) == CURLE_OK && seconds > 0)
            return std::to_wstring(seconds);
    }
    return std::nullopt;
}

HRESULT CVoHTTPMessageCURL::FetchBody(CRequest& request, CVoBodyReceiver& body)
{
    body = std::exchange(static_cast<CHTTPRequestDataCURL&>(request).m_body, CVoBodyReceiver());
    return S_OK;
}

void CVoHTTPMessageCURL::ReadResponseHeaders(const CRequest& answered, std::vector<CVoRawResponse>& responses) const
{
    static_cast<const CHTTPRequestDataCURL&>(answered).m_transfer.ReadResponses(responses);
}

void CVoHTTPMessageCURL::CompleteRecord(const CRequest& sent, CVoExchangeRecord::CAttempt& attempt) const
{
    const auto& request = static_cast<const CHTTPRequestDataCURL&>(sent);
    request.m_transfer.Complete(request.m_handle.Get(), request.m_attemptStart, attempt);
}

CVoFailure CVoHTTPMessageCURL::ExplainFailure(const CRequest& failed, HRESULT /*result*/) const
{
    const auto& request = static_cast<const CHTTPRequestDataCURL&>(failed);
    if (VoIsRedirect(request.m_statusCode) && request.m_transfer.IsComplete())
        return { .kind = EVoFailure::RedirectRefused };
    return request.m_transfer.Explain(request.m_handle.Get(), request.m_handle.ErrorBuffer(), !request.m_proxyName.empty());
}
} // namespace VoHTTPMessageCURL
