#include <VoHTTPMessageCURL.h>

#include "CURLSupport.h"
#include "VoUrl.h"

#include <base/VoModuleInformation.h>
#include <base/VoSystemProperties.h>
#include <base/VoUtils.h>
#include <base/VoWipe.h>
#include <base/com/VoComHelper.h>

#include <array>
#include <cstring>
#include <limits>

namespace VoHTTPMessageCURL
{
namespace
{
constexpr UINT32 kStatusOk = 200;
constexpr UINT32 kStatusUnauthorized = 401;
constexpr UINT32 kStatusProxyAuthenticationRequired = 407;

// Schannel offers ALPN from Windows 8.1 on.
constexpr ESystemClass kFirstSystemWithALPN = ESystemClass::Windows81;
// What later releases of libcurl allow by themselves; this one would follow redirects until the time-out.
constexpr long kMaximumRedirects = 30;
constexpr UINT32 kMillisecondsPerSecond = 1000;

// A time-out in seconds as the milliseconds that libcurl takes; it reads 0 as "none", so that the longest stands for too long.
long Milliseconds(UINT32 seconds) noexcept
{
    constexpr auto kMaximum = static_cast<UINT32>(std::numeric_limits<INT32>::max());
    return seconds <= kMaximum / kMillisecondsPerSecond ? static_cast<long>(seconds * kMillisecondsPerSecond)
                                                        : static_cast<long>(kMaximum);
}

const char* NullIfEmpty(const std::string& text) noexcept
{
    return text.empty() ? nullptr : text.c_str();
}
} // namespace

// Credentials for one target, in the bytes that libcurl takes.
struct CCURLCredentials
{
    std::string user;
    CVoSecret<char> password;
};

class CVoHTTPMessageCURL::CHTTPRequestDataCURL final : public CHTTPRequestData
{
public:
    CHTTPRequestDataCURL(std::shared_ptr<CVoHTTPMessageCURL> message, std::shared_ptr<CCURLConnections> connections) noexcept
        : m_message(std::move(message)), m_connections(std::move(connections)), m_handle(m_connections->TakeHandle())
    {
    }
    ~CHTTPRequestDataCURL() override
    {
        if (m_handle && m_connections)
            m_connections->GiveBack(std::move(m_handle));
    }

    [[nodiscard]] HRESULT InitCURLHandle(UINT32 connectTimeout, UINT32 requestTimeout, bool verify, bool checkRevocation);
    // Sets the process's user agent.
    [[nodiscard]] HRESULT SetUserAgentForRequest() noexcept;
    // Hands the transfer's contexts to the callbacks.
    [[nodiscard]] HRESULT SetBodySource(CBodySource& source) noexcept;
    [[nodiscard]] HRESULT SetTransfer(size_t bodyLength, CHeaderContext& headers, CCURLWriteCallbackData& answer) noexcept;
    // Drops the connection and keeps every option set so far. When the handle cannot be duplicated it stays as it is.
    HRESULT ResetConnection() noexcept;
    // Uses the connections that the message keeps now.
    [[nodiscard]] HRESULT UseConnections(std::shared_ptr<CCURLConnections> connections) noexcept;
    [[nodiscard]] std::wstring ErrorText() const;
    // Takes over the client's address on the transfer's connection.
    void ReadLocalAddress() noexcept;

    using CHTTPRequestData::m_cookieHeader;
    using CHTTPRequestData::m_received;
    using CHTTPRequestData::m_sent;
    using CHTTPRequestData::m_toReceive;
    using CHTTPRequestData::m_toSend;

    // The order matters: the handle must go before the connections that it uses.
    std::shared_ptr<CVoHTTPMessageCURL> m_message;
    std::shared_ptr<CCURLConnections> m_connections;
    CCURLHandle m_handle;
    std::array<char, CURL_ERROR_SIZE> m_errorText{};
    CServerAddressData m_address;
    std::string m_url;
    std::string m_proxy; // empty: direct
    bool m_proxyCredentialsKnown = false;
    bool m_proxyCredentialsToBeUsed = false;
    bool m_proxyCredentialsEntered = false; // on this request: to be kept once the proxy has accepted them
    CCURLCredentials m_proxyCredentials;
    std::string m_cookie;
    std::wstring m_localIPAddress;
    UINT32 m_statusCode = 0;

    CAnswer m_answer;
};

HRESULT CVoHTTPMessageCURL::CHTTPRequestDataCURL::SetBodySource(CBodySource& source) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSendRAW" };
    HRESULT hr = CURLSetOpt(m_handle.get(), CURLOPT_READDATA, static_cast<void*>(&source));
    if (SUCCEEDED(hr))
        hr = CURLSetOpt(m_handle.get(), CURLOPT_IOCTLDATA, static_cast<void*>(&source));
    return SUCCEEDED(hr) ? hr : report(290, hr);
}

HRESULT CVoHTTPMessageCURL::CHTTPRequestDataCURL::SetTransfer(size_t bodyLength, CHeaderContext& headers,
                                                              CCURLWriteCallbackData& answer) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSendRAW" };
    CURL* const handle = m_handle.get();
    // The plain option is 32 bits wide here; a longer body needs the large one.
    HRESULT hr = bodyLength <= static_cast<size_t>(std::numeric_limits<INT32>::max())
                     ? CURLSetOpt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(bodyLength))
                     : CURLSetOpt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bodyLength));
    if (SUCCEEDED(hr))
        hr = CURLSetOpt(handle, CURLOPT_HEADERDATA, static_cast<void*>(&headers));
    if (SUCCEEDED(hr))
        hr = CURLSetOpt(handle, CURLOPT_WRITEDATA, static_cast<void*>(&answer));
    return SUCCEEDED(hr) ? hr : report(263, hr);
}

HRESULT CVoHTTPMessageCURL::CHTTPRequestDataCURL::SetUserAgentForRequest() noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::SetUserAgentForRequest" };
    static const std::wstring userAgent = GetUserAgentString(L"CVoHTTPMessageCURL");
    std::string bytes;
    HRESULT hr = VoStringToUTF8(userAgent, bytes);
    if (SUCCEEDED(hr))
        hr = CURLSetOpt(m_handle.get(), CURLOPT_USERAGENT, bytes.c_str());
    return SUCCEEDED(hr) ? hr : report(358, hr);
}
catch (...)
{
    return CVoReporter{ kSource, L"VoHTTPMessageCURL::SetUserAgentForRequest" }.CurrentException(359);
}

HRESULT CVoHTTPMessageCURL::CHTTPRequestDataCURL::ResetConnection() noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::CHTTPRequestDataCURL::ResetConnection" };
    if (m_handle)
    {
        if (CCURLHandle duplicate{ curl_easy_duphandle(m_handle.get()) })
        {
            m_handle = std::move(duplicate);
            m_connections.reset(); // a duplicate shares nothing
        }
        else
            report(671, E_FAIL);
    }
    m_errorText.fill('\0');
    return S_OK;
}

HRESULT CVoHTTPMessageCURL::CHTTPRequestDataCURL::UseConnections(std::shared_ptr<CCURLConnections> connections) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::CHTTPRequestDataCURL::UseConnections" };
    if (m_connections == connections)
        return S_OK;
    if (const HRESULT hr = connections->Attach(m_handle.get()); FAILED(hr))
        return report(690, hr);
    m_connections = std::move(connections);
    return S_OK;
}

std::wstring CVoHTTPMessageCURL::CHTTPRequestDataCURL::ErrorText() const
{
    std::wstring text;
    (void)VoCodePageToString(CP_ACP, m_errorText.data(), text);
    return text;
}

void CVoHTTPMessageCURL::CHTTPRequestDataCURL::ReadLocalAddress() noexcept
{
    const char* address = nullptr;
    curl_easy_getinfo(m_handle.get(), CURLINFO_LOCAL_IP, &address);
    if (address)
        (void)VoUTF8ToString(address, m_localIPAddress);
}

HRESULT CVoHTTPMessageCURL::CHTTPRequestDataCURL::InitCURLHandle(UINT32 connectTimeout, UINT32 requestTimeout, bool verify,
                                                                 bool checkRevocation)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::InitCURLHandle" };
    if (!m_handle)
        return report(711, E_INVALIDARG);

    const bool debug = CVoModuleInformation::Get().IsDebug();
    const bool offersALPN = VoSystemInformation().systemClass >= kFirstSystemWithALPN;
    if (const HRESULT hr = SetUserAgentForRequest(); FAILED(hr))
        return report(714, hr);

    return CCURLOptions(m_handle.get(), report)
        .Set(717, CURLOPT_SSL_VERIFYPEER, verify ? 1L : 0L)
        .Set(720, CURLOPT_SSL_VERIFYHOST, verify ? 2L : 0L)
        .Set(723, CURLOPT_SSL_OPTIONS, checkRevocation ? 0L : static_cast<long>(CURLSSLOPT_NO_REVOKE))
        .Set(726, CURLOPT_VERBOSE, debug ? 1L : 0L)
        .Set(729, CURLOPT_DEBUGFUNCTION, debug ? &debug_callback : nullptr)
        .Set(732, CURLOPT_DEBUGDATA, debug ? static_cast<void*>(this) : nullptr)
        .Set(735, CURLOPT_SSL_ENABLE_ALPN, offersALPN ? 1L : 0L)
        .Set(738, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS))
        .Set(741, CURLOPT_DEFAULT_PROTOCOL, "http")
        .Set(744, CURLOPT_TCP_NODELAY, 1L)
        .Set(747, CURLOPT_TCP_KEEPALIVE, 1L)
        .Set(750, CURLOPT_TCP_KEEPIDLE, 120L)
        .Set(753, CURLOPT_TCP_KEEPINTVL, 40L)
        .Set(756, CURLOPT_HTTP_TRANSFER_DECODING, 1L)
        .Set(759, CURLOPT_HTTP_CONTENT_DECODING, 1L)
        .Set(762, CURLOPT_TRANSFER_ENCODING, 0L)
        .Set(765, CURLOPT_ACCEPT_ENCODING, "")
        .Set(768, CURLOPT_CONNECTTIMEOUT_MS, Milliseconds(connectTimeout))
        .Set(771, CURLOPT_TIMEOUT_MS, Milliseconds(requestTimeout))
        .Set(774, CURLOPT_READFUNCTION, &read_callback)
        .Set(777, CURLOPT_READDATA, static_cast<void*>(nullptr))
        .Set(780, CURLOPT_IOCTLFUNCTION, &ioctl_callback)
        .Set(783, CURLOPT_IOCTLDATA, static_cast<void*>(nullptr))
        .Set(786, CURLOPT_WRITEFUNCTION, &write_callback)
        .Set(789, CURLOPT_WRITEDATA, static_cast<void*>(nullptr))
        .Set(792, CURLOPT_HEADERFUNCTION, &header_callback)
        .Set(795, CURLOPT_HEADERDATA, static_cast<void*>(nullptr))
        .Set(798, CURLOPT_XFERINFOFUNCTION, static_cast<curl_xferinfo_callback>(nullptr))
        .Set(801, CURLOPT_XFERINFODATA, static_cast<void*>(nullptr))
        .Set(804, CURLOPT_NOPROGRESS, 1L)
        .Set(807, CURLOPT_MAXCONNECTS, 1000L)
        .Set(810, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1))
        .Set(813, CURLOPT_FOLLOWLOCATION, 1L)
        // Not the server's words: a proxy's answer to CONNECT is judged by its code alone.
        .Set(822, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L)
        .Set(827, CURLOPT_MAXREDIRS, kMaximumRedirects)
        .Set(832, CURLOPT_NOSIGNAL, 1L)
        .Result();
}

CVoHTTPMessageCURL::~CVoHTTPMessageCURL()
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::~CVoHTTPMessageCURL" };
    if (const HRESULT hr = internalClose(); FAILED(hr))
        report(850, hr);
}

HRESULT CVoHTTPMessageCURL::internalClose() noexcept
{
    // Requests that are still alive keep the connections that they use.
    m_connections.reset();
    ForgetConnection();
    return S_OK;
}

// Asks for credentials for whoever answered 401 or 407 and sets them on the handle.
HRESULT CVoHTTPMessageCURL::AnswerChallenge(CHTTPRequestDataCURL& request, bool proxy)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSendRAW" };
    CURL* const handle = request.m_handle.get();

    const char* effectiveUrl = nullptr;
    if (const HRESULT hr = CURLGetInfo(handle, CURLINFO_EFFECTIVE_URL, &effectiveUrl); FAILED(hr))
        return report(960, hr);
    std::wstring url;
    CServerAddressData address;
    HRESULT hr = VoUTF8ToString(effectiveUrl ? effectiveUrl : "", url);
    if (SUCCEEDED(hr))
        hr = address.SetAddress(VoWithoutUserInfo(url), false, true, true);
    if (FAILED(hr))
        return report(962, hr);

    std::wstring proxyName;
    if (proxy)
        if (hr = VoUTF8ToString(request.m_proxy, proxyName); FAILED(hr))
            return report(964, hr);
    CCredentials entered;
    const CVoComPtr<IVoAuthenticationCallback> callback = m_authCallback; // kept while it is called
    if (hr = AskForCredentials(*callback.Get(), address, proxy ? &proxyName : nullptr, entered); FAILED(hr))
        return report(hr == kResultCancelled ? 972 : 969, hr);

    CCURLCredentials credentials;
    hr = VoStringToUTF8(entered.user, credentials.user);
    if (SUCCEEDED(hr))
        hr = VoStringToUTF8(entered.password.Get(), credentials.password.Get());
    if (FAILED(hr))
        return report(974, hr);

    CCURLOptions options(handle, report);
    if (proxy)
    {
        options.Set(985, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY))
            .Set(986, CURLOPT_PROXYUSERNAME, credentials.user.c_str())
            .Set(987, CURLOPT_PROXYPASSWORD, credentials.password.Get().c_str());
        request.m_proxyCredentials = std::move(credentials);
        request.m_proxyCredentialsKnown = true;
        request.m_proxyCredentialsToBeUsed = true;
        request.m_proxyCredentialsEntered = true;
        return options.Result();
    }
    options.Set(975, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_ANY))
        .Set(976, CURLOPT_USERNAME, credentials.user.c_str())
        .Set(977, CURLOPT_PASSWORD, credentials.password.Get().c_str());
    if (address.BaseURL() != request.m_address.BaseURL())
    {
        // A redirect led to another server, which is the one that asks. libcurl sends credentials to the host of the URL only,
        // so the request goes to that server directly: they reach nobody else.
        // A text of its own, as the handle lets the effective URL go when it gets another.
        std::string target;
        if (hr = VoUrlToBytes(address.FullURL(), target); FAILED(hr))
            return report(978, hr);
        const char* method = nullptr;
        options.Set(979, CURLOPT_URL, target.c_str());
        if (curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_METHOD, &method) == CURLE_OK && method &&
            std::strcmp(method, "GET") == 0)
            options.Set(980, CURLOPT_HTTPGET, 1L);
        request.m_address = address;
        std::wstring cookie;
        std::string cookieBytes;
        if (SUCCEEDED(GetCookieHeader(address, cookie)))
            (void)VoStringToUTF8(cookie, cookieBytes);
        // The first server's cookies are not this one's.
        request.m_cookie = std::move(cookieBytes);
        options.Set(981, CURLOPT_COOKIE, NullIfEmpty(request.m_cookie));
    }
    return options.Result();
}

void CVoHTTPMessageCURL::KeepProxyCredentials(CHTTPRequestDataCURL& request) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::KeepProxyCredentials" };
    if (!m_proxyStore || !request.m_proxyCredentialsEntered)
        return;
    std::wstring proxy;
    std::wstring user;
    CVoSecret<wchar_t> password;
    HRESULT hr = VoUTF8ToString(request.m_proxy, proxy);
    if (SUCCEEDED(hr))
        hr = VoUTF8ToString(request.m_proxyCredentials.user, user);
    if (SUCCEEDED(hr))
        hr = VoUTF8ToString(request.m_proxyCredentials.password.Get(), password.Get());
    if (SUCCEEDED(hr))
        hr = SaveProxyCredentials(*m_proxyStore.Get(), proxy, user, password.Get());
    if (FAILED(hr))
        report(885, hr);
    request.m_proxyCredentialsEntered = false; // kept once
}
catch (...)
{
    CVoReporter{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::KeepProxyCredentials" }.CurrentException(886);
}

HRESULT CVoHTTPMessageCURL::internalSendRAW(CHTTPRequestDataCURL& request, std::span<const BYTE> body)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSendRAW" };
    CURL* const handle = request.m_handle.get();
    const std::wstring& serverAddress = request.m_address.PathURL();

    request.m_statusCode = 0;
    request.m_localIPAddress.clear();
    request.m_answer = {};
    request.m_toSend = body.size();
    if (!m_connections)
        m_connections = std::make_shared<CCURLConnections>();
    if (const HRESULT hr = request.UseConnections(m_connections); FAILED(hr))
        return report(900, hr);

    CBodySource source{ body.data(), body.size(), 0, &request.m_sent };
    CCURLWriteCallbackData answer;
    CHeaderContext headers;
    if (const HRESULT hr = request.SetBodySource(source); FAILED(hr))
        return hr;
    if (const HRESULT hr = request.SetTransfer(body.size(), headers, answer); FAILED(hr))
        return hr;

    for (;;)
    {
        source.position = 0;
        answer = { handle, {}, S_OK, &request.m_received, &request.m_toReceive };
        headers = CHeaderContext();
        headers.handle = handle;
        headers.cookieStore = m_cookieStore.Get();
        headers.requestUrl = request.m_address.FullURL();
        request.m_sent = 0;
        request.m_received = 0;
        request.m_toReceive = 0;
        const CURLcode code = curl_easy_perform(handle);
        // What a redirect made of the Cookie header holds for its target only.
        if (headers.cookieReplaced)
            (void)CURLSetOpt(handle, CURLOPT_COOKIE, NullIfEmpty(request.m_cookie));

        long status = 0;
        if (code == CURLE_OK)
        {
            if (const HRESULT hr = CURLGetInfo(handle, CURLINFO_RESPONSE_CODE, &status); FAILED(hr))
                return report(906, hr);
        }
        else
        {
            // A proxy that refuses CONNECT ends the transfer before there is an answer of the server. A time-out does not: it
            // may come while the proxy is silent about the credentials that its 407 asked for.
            long connectStatus = 0;
            curl_easy_getinfo(handle, CURLINFO_HTTP_CONNECTCODE, &connectStatus);
            if (static_cast<UINT32>(connectStatus) == kStatusOk)
                KeepProxyCredentials(request);
            // How far it came: an answer that broke off has its status, which decides about a further attempt.
            if (curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK)
                request.m_statusCode = static_cast<UINT32>(status);
            request.ReadLocalAddress();
            if (code == CURLE_OPERATION_TIMEDOUT)
                return report(911, kResultTimeout);
            if (static_cast<UINT32>(connectStatus) != kStatusProxyAuthenticationRequired)
                return report(913, CheckCURLError(code, VoFormat(L"- (%ls) - curl_easy_perform(). ServerAddress: %ls",
                                                                 request.ErrorText().c_str(), serverAddress.c_str())));
            status = connectStatus;
        }
        request.m_statusCode = static_cast<UINT32>(status);

        const bool proxyAsks = request.m_statusCode == kStatusProxyAuthenticationRequired;
        if (!proxyAsks)
            KeepProxyCredentials(request);
        if ((proxyAsks || request.m_statusCode == kStatusUnauthorized) && m_authCallback)
        {
            if (proxyAsks)
                request.m_proxyCredentialsEntered = false; // those were refused
            if (const HRESULT hr = AnswerChallenge(request, proxyAsks); FAILED(hr))
                return hr;
            continue;
        }
        break;
    }

    request.ReadLocalAddress();
    if (request.m_statusCode != kStatusOk)
    {
        report.Message(1025, L"Addr:%ls", serverAddress.c_str());
        return report(1026, E_FAIL);
    }
    if (FAILED(answer.result))
        return report(1030, answer.result);
    if (!headers.complete)
        return report(1034, E_FAIL); // libcurl takes a connection that ends among the headers for an empty answer

    const char* contentType = nullptr;
    curl_easy_getinfo(handle, CURLINFO_CONTENT_TYPE, &contentType);
    std::wstring contentTypeText;
    if (contentType)
        (void)VoUTF8ToString(contentType, contentTypeText);
    request.m_answer = { true, std::move(answer.received), NamesUtf8(contentTypeText) };
    return S_OK;
}

HRESULT CVoHTTPMessageCURL::internalSend(CHTTPRequestDataCURL& request, std::span<const BYTE> body,
                                         const std::wstring& contentTypeHeader, bool post, bool allowRetry, CSendResult* result)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSend" };

    CProgressContext progress{ GetCallBack(), false };
    CURLSListWrapper headers;
    for (const wchar_t* const line :
         { contentTypeHeader.c_str(), L"Connection: Keep-Alive", L"Pragma: no-cache", L"Expect:", L"Accept: */*" })
        if (const HRESULT hr = headers.Append(line); FAILED(hr))
            return report(1070, hr);
    CCURLOptions options(request.m_handle.get(), report);
    if (post)
        options.Set(1055, CURLOPT_XFERINFOFUNCTION, &progress_callback)
            .Set(1057, CURLOPT_XFERINFODATA, static_cast<void*>(&progress))
            .Set(1059, CURLOPT_NOPROGRESS, 0L);
    options.Set(1078, CURLOPT_HTTPHEADER, headers.Get());
    if (post)
        options.Set(1083, CURLOPT_POST, 1L);
    else
        options.Set(1088, CURLOPT_HTTPGET, 1L);
    if (FAILED(options.Result()))
        return options.Result();

    CAttempts attempts(allowRetry, m_connectTimeout);
    HRESULT hr = S_OK;
    for (;;)
    {
        attempts.Begin();
        try
        {
            if (hr = internalSendRAW(request, body); FAILED(hr))
                report(1116, hr);
        }
        catch (...)
        {
            hr = report(1122, E_FAIL);
        }
        if (SUCCEEDED(hr))
            break;
        if (const HRESULT reset = request.ResetConnection(); FAILED(reset))
        {
            report(1144, reset);
            break;
        }
        m_connections.reset(); // the next attempt must not meet the connection again
        if (!attempts.MayRetry(hr, request.m_statusCode))
            break;
    }
    // The header list and the progress record end with this call.
    CURL* const handle = request.m_handle.get();
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, nullptr);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 1L);
    if (result)
    {
        result->retried = attempts.Retried();
        result->statusCode = request.m_statusCode;
        result->localAddress = request.m_localIPAddress;
    }
    return hr;
}

HRESULT CVoHTTPMessageCURL::Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                    IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                    UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::Connect" };
    const CAutoLock lock(&m_lock);
    if (const HRESULT hr = internalClose(); FAILED(hr))
        return report(1180, hr);
    StoreConnection(serverAddress, authCallback, proxyStore, cookieStore, connectTimeout, requestTimeout,
                    verifyServerCertificate, checkRevocation);
    m_connected = true;
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::Connect" }.CurrentException(1190);
}

HRESULT CVoHTTPMessageCURL::OpenRequest(std::shared_ptr<CHTTPRequestData>& request) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::OpenRequest" };
    const CAutoLock lock(&m_lock);
    if (const HRESULT hr = internalOpenRequest(m_serverAddress, request); FAILED(hr))
        return report(1210, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::OpenRequest" }.CurrentException(1215);
}

// The request behind a caller's pointer, kept from here on, as a callback may drop the caller's; null unless this message made
// it.
std::shared_ptr<CVoHTTPMessageCURL::CHTTPRequestDataCURL> CVoHTTPMessageCURL::OwnRequest(
    const std::shared_ptr<CHTTPRequestData>& request) const noexcept
{
    std::shared_ptr<CHTTPRequestDataCURL> data = std::dynamic_pointer_cast<CHTTPRequestDataCURL>(request);
    return data && data->m_message.get() == this ? data : nullptr;
}

HRESULT CVoHTTPMessageCURL::internalOpenRequest(const CServerAddressData& address, std::shared_ptr<CHTTPRequestData>& request)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalOpenRequest" };
    const CAutoLock lock(&m_lock);
    if (!m_connected)
        return report(1230, HRESULT_FROM_WIN32(ERROR_NOT_CONNECTED));
    if (!m_connections)
        m_connections = std::make_shared<CCURLConnections>();
    auto made =
        std::make_shared<CHTTPRequestDataCURL>(std::static_pointer_cast<CVoHTTPMessageCURL>(shared_from_this()), m_connections);
    made->m_address = address;
    if (const HRESULT hr =
            made->InitCURLHandle(m_connectTimeout, m_requestTimeout, m_verifyServerCertificate, m_checkCertificateRevocation);
        FAILED(hr))
        return report(1240, hr);
    if (const HRESULT hr = VoUrlToBytes(address.FullURL(), made->m_url); FAILED(hr))
        return report(1245, hr);
    CURL* const handle = made->m_handle.get();
    if (const HRESULT hr = CURLSetOpt(handle, CURLOPT_URL, made->m_url.c_str()); FAILED(hr))
        return report(1250, hr);

    CProxy proxy;
    if (const HRESULT hr = GetProxy(&address.FullURL(), proxy); FAILED(hr))
        return report(1260, hr);
    HRESULT hr = VoStringToUTF8(proxy.proxy, made->m_proxy);
    if (SUCCEEDED(hr))
        hr = VoStringToUTF8(proxy.user, made->m_proxyCredentials.user);
    if (SUCCEEDED(hr))
        hr = VoStringToUTF8(proxy.password, made->m_proxyCredentials.password.Get());
    if (FAILED(hr))
        return report(1265, hr);
    made->m_proxyCredentialsKnown = made->m_proxyCredentialsToBeUsed = !proxy.user.empty();

    CCURLOptions options(handle, report);
    if (!made->m_proxy.empty())
    {
        options.Set(1274, CURLOPT_PROXY, made->m_proxy.c_str()).Set(1278, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY));
        if (made->m_proxyCredentialsKnown)
            options.Set(1280, CURLOPT_PROXYUSERNAME, made->m_proxyCredentials.user.c_str())
                .Set(1282, CURLOPT_PROXYPASSWORD, made->m_proxyCredentials.password.Get().c_str());
    }
    options.Set(1287, CURLOPT_ERRORBUFFER, made->m_errorText.data());
    if (FAILED(options.Result()))
        return options.Result();

    if (hr = GetCookieHeader(address, made->m_cookieHeader); FAILED(hr))
        report(1295, hr); // the request goes without cookies
    if (hr = VoStringToUTF8(made->m_cookieHeader, made->m_cookie); FAILED(hr))
        return report(1300, hr);
    if (made->m_cookie.empty())
        options.Set(1310, CURLOPT_COOKIE, static_cast<const char*>(nullptr));
    else
        options.Set(1305, CURLOPT_COOKIE, made->m_cookie.c_str());
    if (FAILED(options.Result()))
        return options.Result();
    request = std::move(made);
    return S_OK;
}

HRESULT CVoHTTPMessageCURL::SendMessage(const std::shared_ptr<CHTTPRequestData>& request, const CVoBinaryDataParser& parameters,
                                        EContentKind contentKind, bool utf8, std::wstring_view signingKey,
                                        std::wstring_view signatureParameterName, bool allowRetry, CSendResult* result) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::SendMessage" };
    constexpr CContentTracePoints kPoints{ .raw = 1350,
                                           .multipart = 1359,
                                           .formPayload = 1364,
                                           .form = 1367,
                                           .signedKey = 1372,
                                           .signedName = 1374,
                                           .signedPayload = 1376,
                                           .signedForm = 1380,
                                           .sign = 1382,
                                           .emptyPayload = 1387,
                                           .unknownKind = 1394,
                                           .exception = 1397 };
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data)
        return report(1338, E_INVALIDARG);
    CContent content;
    if (const HRESULT hr =
            CreateContent(parameters, contentKind, utf8, signingKey, signatureParameterName, report, kPoints, content);
        FAILED(hr))
        return hr;
    if (const HRESULT hr = internalSend(*data, content.body.Bytes(), content.contentTypeHeader, true, allowRetry, result);
        FAILED(hr))
        return report(1402, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::SendMessage" }.CurrentException(1405);
}

HRESULT CVoHTTPMessageCURL::SendMultipleMessages(const std::shared_ptr<CHTTPRequestData>& request,
                                                 std::span<const CVoBinaryDataParser> messages, bool utf8, bool allowRetry,
                                                 CSendResult* result) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::SendMultipleMessages" };
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data)
        return report(1420, E_INVALIDARG);
    CContent content;
    if (const HRESULT hr = CreateMultipleContent(messages, utf8, content); FAILED(hr))
        return report(1425, hr);
    if (const HRESULT hr = internalSend(*data, content.body.Bytes(), content.contentTypeHeader, true, allowRetry, result);
        FAILED(hr))
        return report(1430, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::SendMultipleMessages" }.CurrentException(1435);
}

HRESULT CVoHTTPMessageCURL::SendGetRequest(std::shared_ptr<CHTTPRequestData>& request, std::wstring_view objectPath,
                                           bool allowRetry, CSendResult* result) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::SendGetRequest" };
    auto data = objectPath.empty() ? OwnRequest(request) : nullptr;
    const CAutoLock lock(&m_lock);
    if (!data)
    {
        CServerAddressData address = m_serverAddress;
        if (!objectPath.empty())
            if (const HRESULT hr = address.SetObjectPath(objectPath); FAILED(hr))
                return report(1450, hr);
        std::shared_ptr<CHTTPRequestData> made;
        if (const HRESULT hr = internalOpenRequest(address, made); FAILED(hr))
            return report(1455, hr);
        request = std::move(made);
        data = std::static_pointer_cast<CHTTPRequestDataCURL>(request);
    }
    if (const HRESULT hr = internalSend(*data, {}, L"Content-Type:", false, allowRetry, result); FAILED(hr))
        return report(1460, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::SendGetRequest" }.CurrentException(1465);
}

HRESULT CVoHTTPMessageCURL::ReadResponse(const std::shared_ptr<CHTTPRequestData>& request, CVoBinaryDataParser& response,
                                         EResponseKind kind, bool* isUtf8, bool* isEmpty) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::ReadResponse" };
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data)
        return report(1480, E_INVALIDARG);
    if (const HRESULT hr = ReadAnswer(data->m_answer, kind, response, isUtf8, isEmpty); FAILED(hr))
        return report(1490, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::ReadResponse" }.CurrentException(1495);
}

HRESULT CVoHTTPMessageCURL::ReadMultipleResponses(const std::shared_ptr<CHTTPRequestData>& request,
                                                  std::vector<CVoBinaryDataParser>& responses, UINT32 expectedCount,
                                                  UINT32* count) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::ReadMultipleResponses" };
    const auto data = OwnRequest(request);
    const CAutoLock lock(&m_lock);
    if (!data)
        return report(1510, E_INVALIDARG);
    if (const HRESULT hr = ReadAnswers(data->m_answer, responses, expectedCount, count); FAILED(hr))
        return report(1520, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::ReadMultipleResponses" }.CurrentException(1525);
}

HRESULT CVoHTTPMessageCURL::SetUserContext(UINT64 userContext) noexcept
{
    const CAutoLock lock(&m_lock);
    m_userContext = userContext;
    return S_OK;
}
} // namespace VoHTTPMessageCURL
