// The parts of the libcurl transport; see CURLSupport.h.
#include "CURLSupport.h"

#include "CURLTransferRecord.h"
#include "VoCookieBytes.h"
#include "VoDataLog.h"
#include "VoExchangeText.h"
#include "VoRedirect.h"

#include <VoNetworkUtils.h>
#include <base/VoModuleInformation.h>
#include <base/VoUtils.h>
#include <base/com/VoComHelper.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace VoHTTPMessageCURL
{
namespace
{
HRESULT ReportCURLError(CURLcode code, const std::wstring& context)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CheckCURLError" };
    report.Message(205, L" CURL error is %d (%hs)%ls", static_cast<int>(code), curl_easy_strerror(code), context.c_str());
    return E_FAIL;
}

// The value of a header line whose name was `nameLength` characters long with its colon.
std::wstring_view HeaderValue(std::wstring_view line, size_t nameLength) noexcept
{
    return VoTrim(line.substr(nameLength));
}

const wchar_t* EndpointFormat(curl_infotype type) noexcept
{
    switch (type)
    {
    case CURLINFO_HEADER_OUT:
        return L"Send header: [%hs]:%u => [%hs]:%u";
    case CURLINFO_DATA_OUT:
        return L"Send data: [%hs]:%u => [%hs]:%u";
    case CURLINFO_SSL_DATA_OUT:
        return L"Send SSL data: [%hs]:%u => [%hs]:%u";
    case CURLINFO_HEADER_IN:
        return L"Recv header: [%hs]:%u <= [%hs]:%u";
    case CURLINFO_DATA_IN:
        return L"Recv data: [%hs]:%u <= [%hs]:%u";
    case CURLINFO_SSL_DATA_IN:
        return L"Recv SSL data: [%hs]:%u <= [%hs]:%u";
    default:
        return L"Info - client:[%hs]:%u  server:[%hs]:%u";
    }
}
} // namespace

HRESULT CheckCURLError(CURLcode code, const wchar_t* format, int argument) noexcept
try
{
    return code == CURLE_OK ? S_OK : ReportCURLError(code, VoFormat(format, argument));
}
catch (...)
{
    return E_FAIL;
}

HRESULT CheckCURLError(CURLcode code, const std::wstring& context) noexcept
try
{
    return code == CURLE_OK ? S_OK : ReportCURLError(code, context);
}
catch (...)
{
    return E_FAIL;
}

HRESULT SetUserAgentForRequest(CURL* handle) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::SetUserAgentForRequest" };
    return report.Guard(359, [&]() -> HRESULT
    {
        static const std::wstring userAgent = CVoHTTPMessage::GetUserAgentString(L"CVoHTTPMessageCURL");
        std::string bytes;
        HRESULT hr = VoStringToUTF8(userAgent, bytes);
        if (SUCCEEDED(hr))
            hr = CURLSetOpt(handle, CURLOPT_USERAGENT, bytes.c_str());
        return SUCCEEDED(hr) ? hr : report(358, hr);
    });
}

CCURLHandle MakeCURLHandle() noexcept
{
    // Never undone: the process may be using libcurl beside this library. A failure is not kept: memory may be there next time.
    static CVoLock s_lock;
    static bool s_isReady = false;
    {
        const CVoLockHolder lock(s_lock);
        s_isReady = s_isReady || curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK;
    }
    return CCURLHandle(s_isReady ? curl_easy_init() : nullptr);
}

HRESULT CURLSListWrapper::Append(std::wstring_view text) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CURLSListWrapper::Append" };
    std::string bytes;
    if (const HRESULT hr = VoStringToUTF8(text, bytes); FAILED(hr))
        return report(310, hr);
    return Append(bytes.c_str());
}
catch (...)
{
    return CVoReporter{ kSource, L"VoHTTPMessageCURL::CURLSListWrapper::Append" }.CurrentException(320);
}

HRESULT CURLSListWrapper::Append(const char* bytes) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CURLSListWrapper::Append" };
    curl_slist* const list = curl_slist_append(m_list, bytes);
    if (!list)
        return report(315, E_OUTOFMEMORY);
    m_list = list;
    return S_OK;
}

CCURLConnections::CCURLConnections() : m_share(curl_share_init(), &curl_share_cleanup)
{
    CURLSH* const share = m_share.get();
    if (!share || curl_share_setopt(share, CURLSHOPT_LOCKFUNC, &CCURLConnections::Lock) != CURLSHE_OK ||
        curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, &CCURLConnections::Unlock) != CURLSHE_OK ||
        curl_share_setopt(share, CURLSHOPT_USERDATA, this) != CURLSHE_OK ||
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT) != CURLSHE_OK ||
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION) != CURLSHE_OK)
        throw std::bad_alloc();
    m_idle.reserve(kMaximumIdleHandles);
}

CCURLHandle CCURLConnections::TakeHandle(bool& isInitialised) noexcept
{
    isInitialised = false;
    {
        const std::scoped_lock lock(m_idleLock);
        if (!m_idle.empty())
        {
            CCURLHandle handle = std::move(m_idle.back().handle);
            isInitialised = m_idle.back().isInitialised;
            m_idle.pop_back();
            return handle;
        }
    }
    CCURLHandle handle = MakeCURLHandle();
    if (handle && FAILED(Attach(handle.get())))
        handle.reset();
    return handle;
}

void CCURLConnections::GiveBack(CCURLHandle handle, bool clear) noexcept
{
    if (clear) // the connections and their share stay
        curl_easy_reset(handle.get());
    else
        curl_easy_setopt(handle.get(), CURLOPT_ERRORBUFFER, nullptr); // libcurl may write there while it closes a connection
    const std::scoped_lock lock(m_idleLock);
    if (m_idle.size() < kMaximumIdleHandles)
        m_idle.push_back({ std::move(handle), !clear });
}

HRESULT CCURLConnections::Attach(CURL* handle) const noexcept
{
    return CURLSetOpt(handle, CURLOPT_SHARE, m_share.get());
}

void CCURLConnections::Lock(CURL* /*handle*/, curl_lock_data data, curl_lock_access /*access*/, void* context) noexcept
{
    static_cast<CCURLConnections*>(context)->m_locks[data].Lock();
}

void CCURLConnections::Unlock(CURL* /*handle*/, curl_lock_data data, void* context) noexcept
{
    static_cast<CCURLConnections*>(context)->m_locks[data].Unlock();
}

curl_socket_t opensocket_callback(void* addresses, curlsocktype /*purpose*/, curl_sockaddr* address) noexcept
try
{
    VoNetworkUtils::CVoIPAddress text;
    bool taken = false;
    if (SUCCEEDED(text.InitFromIPAddress(address->addr, false, taken)))
        static_cast<std::vector<std::wstring>*>(addresses)->push_back(text.Text());
    // As libcurl does it by itself.
    return ::socket(address->family, address->socktype, address->protocol);
}
catch (...)
{
    CVoReporter{ kSource, L"VoHTTPMessageCURL::opensocket_callback" }.CurrentException(361);
    return CURL_SOCKET_BAD;
}

size_t read_callback(char* buffer, size_t size, size_t count, void* source) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::read_callback" };
    if (!source)
    {
        report(366, E_FAIL);
        return 0;
    }
    auto& body = *static_cast<CBodySource*>(source);
    size_t copied = 0;
    try
    {
        copied = body.reader.Read({ reinterpret_cast<BYTE*>(buffer), size * count });
        body.position += copied;
    }
    catch (...)
    {
        report(387, kResultCallbackException);
    }
    if (body.sent)
        body.sent->store(body.position, std::memory_order_relaxed);
    if (body.end && body.position == body.length)
        *body.end = VoGetMicroseconds();
    return copied;
}

curlioerr ioctl_callback(CURL* /*handle*/, int command, void* source) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::ioctl_callback" };
    if (!source)
    {
        report(396, E_FAIL);
        return CURLIOE_FAILRESTART;
    }
    switch (command)
    {
    case CURLIOCMD_NOP:
        return CURLIOE_OK;
    case CURLIOCMD_RESTARTREAD:
        static_cast<CBodySource*>(source)->reader.Rewind();
        static_cast<CBodySource*>(source)->position = 0;
        return CURLIOE_OK;
    default:
        return CURLIOE_UNKNOWNCMD;
    }
}

size_t header_callback(char* line, size_t size, size_t count, void* context) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::header_callback" };
    const size_t length = size * count;
    if (!context)
    {
        report(417, E_FAIL);
        return length;
    }
    auto& headers = *static_cast<CHeaderContext*>(context);
    const std::string_view bytes(line, length);
    constexpr std::string_view kStatusLine = "HTTP/";
    // A field may begin like a status line, too: that one comes first, or after an empty line.
    const bool isStatusLine = (headers.bytes == 0 || headers.complete) && length >= kStatusLine.size() &&
                              ::_strnicmp(line, kStatusLine.data(), kStatusLine.size()) == 0;
    // After the headers come those of the next response or, after a body, trailer fields, which are no headers (RFC 9110,
    // section 6.5.1).
    if (headers.complete && !isStatusLine)
        return length;
    if (isStatusLine && !headers.statusCode.starts_with(L'1')) // interim responses count with the one behind them
        headers.bytes = headers.fields = headers.cookies = 0;
    headers.bytes += length;
    ++headers.fields; // the status line and the empty line too
    if (headers.limits && (headers.bytes > headers.limits->headerBytes || headers.fields > headers.limits->headerFields + 2))
    {
        headers.isOverLimit = true;
        return 0;
    }
    if (headers.record)
        headers.record->AddHeaderLine(bytes);

    std::wstring& text = headers.line;
    if (const HRESULT hr = VoUTF8ToString(bytes, text); FAILED(hr))
    {
        report(427, hr);
        text = VoHeaderText(bytes);
    }

    constexpr std::wstring_view kSetCookie = L"Set-Cookie:";
    constexpr std::wstring_view kContentType = L"Content-Type:";
    constexpr std::wstring_view kLocation = L"Location:";
    constexpr std::wstring_view kContentEncoding = L"Content-Encoding:";
    constexpr std::wstring_view kTransferEncoding = L"Transfer-Encoding:";
    constexpr std::wstring_view kContentLength = L"Content-Length:";
    constexpr size_t kVersionLength = 3;
    if (VoStartsWithNoCase(text, kSetCookie))
    {
        // A 407 is the proxy's response, so its cookies are not the server's.
        const bool isKept = !headers.limits || headers.cookies++ < headers.limits->cookies;
        if (isKept && headers.cookieStore && headers.statusCode != L"407")
        {
            const std::wstring cookie = VoCookieTextFromBytes(bytes.substr(kSetCookie.size()));
            const HRESULT hr = headers.cookieStore->AddCookieFromString(CVoBstr(HeaderValue(cookie, 0)).Get(),
                                                                        CVoBstr(headers.requestUrl).Get());
            if (FAILED(hr)) // the cookie is dropped, the response stands
                report(433, hr);
        }
    }
    else if (VoStartsWithNoCase(text, kContentType))
        headers.contentType = HeaderValue(text, kContentType.size());
    else if (isStatusLine && text.size() >= kStatusLine.size() + kVersionLength)
    {
        headers.protocolVersion = VoTrim(std::wstring_view(text).substr(kStatusLine.size(), kVersionLength));
        const std::wstring_view rest = HeaderValue(text, kStatusLine.size() + kVersionLength);
        headers.statusCode = rest.substr(0, rest.find(L' '));
        headers.contentType.clear();
        headers.contentCodings.clear();
        headers.transferCodings.clear();
        headers.contentLength = {};
        headers.location.clear();
        headers.complete = false;
        headers.result = S_OK;
    }
    else if (VoStartsWithNoCase(text, kLocation))
    {
        // libcurl follows the first one that is not empty.
        if (headers.location.empty())
            headers.location = HeaderValue(text, kLocation.size());
    }
    else if (VoStartsWithNoCase(text, kContentEncoding))
        headers.contentCodings.append(HeaderValue(text, kContentEncoding.size())).append(L",");
    else if (VoStartsWithNoCase(text, kTransferEncoding))
        headers.transferCodings.append(HeaderValue(text, kTransferEncoding.size())).append(L",");
    else if (VoStartsWithNoCase(text, kContentLength))
        headers.contentLength.Add(HeaderValue(text, kContentLength.size()));
    else if (text == L"\r\n" || text == L"\n")
        headers.complete = true;
    return length;
}
catch (...)
{
    // The transfer runs on, so that the connection stays in step; the loss fails the request when it ends.
    static_cast<CHeaderContext*>(context)->result = HResultFromCurrentException();
    CVoReporter{ kSource, L"VoHTTPMessageCURL::header_callback" }(463, kResultCallbackException);
    return size * count;
}

HRESULT ParseCURLUrl(const char* url, CServerAddressData& address) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::ParseCURLUrl" };
    return report.Guard(343, [&]() -> HRESULT
    {
        const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), &curl_url_cleanup);
        // The flags that libcurl itself uses for the URL of a request.
        if (!parsed || !url ||
            curl_url_set(parsed.get(), CURLUPART_URL, url, CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
            return report(330, E_INVALIDARG);
        std::string text;
        const auto append = [&](CURLUPart part, std::string_view before, std::string_view ifMissing)
        {
            char* value = nullptr;
            if (curl_url_get(parsed.get(), part, &value, 0) != CURLUE_OK)
            {
                text += ifMissing;
                return;
            }
            const std::unique_ptr<char, decltype(&curl_free)> owned(value, &curl_free);
            text.append(before).append(value);
        };
        append(CURLUPART_SCHEME, "", "");
        append(CURLUPART_HOST, "://", "://");
        append(CURLUPART_PORT, ":", "");
        append(CURLUPART_PATH, "", "/");
        append(CURLUPART_QUERY, "?", "");
        std::wstring wide;
        HRESULT hr = VoUTF8ToString(text, wide);
        if (SUCCEEDED(hr))
            hr = address.SetAddress(wide, false, true, true);
        return SUCCEEDED(hr) ? hr : report(340, hr);
    });
}

int prereq_callback(void* context, char* /*serverAddress*/, char* /*clientAddress*/, int /*serverPort*/,
                    int /*clientPort*/) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::prereq_callback" };
    auto& headers = *static_cast<CHeaderContext*>(context);
    const char* method = nullptr;
    curl_easy_getinfo(headers.handle, CURLINFO_EFFECTIVE_METHOD, &method);
    if (headers.bodilessHeaders && method && method == std::string_view("GET"))
    {
        // libcurl would send the Content-Type of a body that it does not send any more (RFC 9110, section 15.4).
        headers.headersReplaced = true;
        if (FAILED(CURLSetOpt(headers.handle, CURLOPT_HTTPHEADER, headers.bodilessHeaders)))
            return CURL_PREREQFUNC_ABORT;
    }
    if (std::exchange(headers.isFirstRequest, false))
        return CURL_PREREQFUNC_OK; // it goes where the request says, with the cookies that it was opened with
    const char* url = nullptr;
    curl_easy_getinfo(headers.handle, CURLINFO_EFFECTIVE_URL, &url);
    CServerAddressData address;
    if (FAILED(ParseCURLUrl(url, address)))
        return CURL_PREREQFUNC_ABORT;
    // libcurl's own word counts: the header lines may hold what looks like another status line. libcurl follows every status of
    // the form 3xx that has a Location.
    long status = 0;
    curl_easy_getinfo(headers.handle, CURLINFO_RESPONSE_CODE, &status);
    const bool isRefused = status >= 300 && status <= 399 && !VoIsRedirect(static_cast<UINT32>(status));
    if (isRefused || !VoMayRedirect(headers.isSecure, address.IsSecure()))
    {
        report(347, E_ACCESSDENIED);
        return CURL_PREREQFUNC_ABORT;
    }
    headers.requestUrl = address.FullURL();
    headers.isSecure = address.IsSecure();
    if (headers.record)
        headers.record->AddRequest(headers.requestUrl);
    CVoBstr cookie;
    if (headers.cookieStore)
        if (const HRESULT hr = headers.cookieStore->GetCookieStringForHTTPRequest(
                CVoBstr(headers.requestUrl).Get(), headers.isSecure ? VARIANT_TRUE : VARIANT_FALSE, cookie.Put());
            FAILED(hr))
            report(350, hr); // the request is sent without cookies
    const std::string cookieBytes = VoCookieBytesFromText(cookie.View());
    headers.cookieReplaced = true;
    const char* const value = cookieBytes.empty() ? nullptr : cookieBytes.c_str();
    return SUCCEEDED(CURLSetOpt(headers.handle, CURLOPT_COOKIE, value)) ? CURL_PREREQFUNC_OK : CURL_PREREQFUNC_ABORT;
}
catch (...)
{
    // Nothing is sent when it is unknown whose cookies would travel.
    CVoReporter{ kSource, L"VoHTTPMessageCURL::prereq_callback" }.CurrentException(355);
    return CURL_PREREQFUNC_ABORT;
}

namespace
{
// The first bytes of a body: finds out where it goes and how it is decoded.
void BeginBody(CCURLWriteCallbackData& answer)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::write_callback" };
    constexpr long kStatusOk = 200;
    long status = 0;
    curl_easy_getinfo(answer.handle, CURLINFO_RESPONSE_CODE, &status);
    answer.body = status == kStatusOk ? &answer.success : &answer.failure;
    if (answer.headers)
        if (const HRESULT hr =
                CVoContentDecoder::Make(answer.headers->contentCodings + answer.headers->transferCodings, answer.decoder);
            FAILED(hr))
            answer.result = report(487, E_FAIL);
    curl_off_t announced = -1;
    if (curl_easy_getinfo(answer.handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced) != CURLE_OK || announced <= 0)
        return;
    if (answer.expected)
        answer.expected->store(static_cast<UINT64>(announced), std::memory_order_relaxed);
    answer.body->Expect(static_cast<UINT64>(announced));
}
} // namespace

size_t write_callback(char* data, size_t size, size_t count, void* context) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::write_callback" };
    if (!context)
    {
        report(472, E_FAIL);
        return 0;
    }
    auto& answer = *static_cast<CCURLWriteCallbackData*>(context);
    const size_t length = size * count;
    try
    {
        if (!answer.body)
            BeginBody(answer);
        // After a failure the transfer runs on, so that the connection stays in step.
        const std::span<const BYTE> bytes(reinterpret_cast<const BYTE*>(data), length);
        if (SUCCEEDED(answer.result))
            answer.result = answer.decoder ? answer.decoder->Decode(bytes, [&](std::span<const BYTE> piece)
            { return answer.body->Take(piece); })
                                           : answer.body->Take(bytes);
        if (FAILED(answer.body->Refusal()))
        {
            report(489, answer.body->Refusal());
            return 0;
        }
        if (answer.body->HasSink() && answer.body->IsLogged() && !std::exchange(answer.isQuiet, true))
            (void)CURLSetOpt(answer.handle, CURLOPT_VERBOSE, 0L); // the log must not grow with the body
    }
    catch (...)
    {
        // The transfer runs on, so that the connection stays in step; the loss fails the request when it ends.
        answer.result = HResultFromCurrentException();
        report(486, kResultCallbackException);
    }
    if (answer.count && answer.body)
        answer.count->store(answer.body->Length(), std::memory_order_relaxed);
    return length;
}

int debug_callback(CURL* handle, curl_infotype type, char* data, size_t size, void* request) noexcept
try
{
    if (!CVoModuleInformation::Get().IsDebug()) // switched off since the handle was made
        return 0;
    static CVoDataLog log;
    const char* localAddress = nullptr;
    const char* serverAddress = nullptr;
    long localPort = 0;
    long serverPort = 0;
    curl_easy_getinfo(handle, CURLINFO_LOCAL_IP, &localAddress);
    curl_easy_getinfo(handle, CURLINFO_LOCAL_PORT, &localPort);
    curl_easy_getinfo(handle, CURLINFO_PRIMARY_IP, &serverAddress);
    curl_easy_getinfo(handle, CURLINFO_PRIMARY_PORT, &serverPort);
    const std::wstring ioType =
        VoFormat(EndpointFormat(type), localAddress ? localAddress : "", static_cast<unsigned>(localPort),
                 serverAddress ? serverAddress : "", static_cast<unsigned>(serverPort));

    SYSTEMTIME time;
    ::GetLocalTime(&time);
    const std::wstring header =
        VoFormat(L" I/O type: %ls, DateTime:%4d.%02d.%02d %02d:%02d:%02d.%03d    ThreadID:%X,CURL handle:%llX, "
                 L"This ptr :%llX, DataSize:%u",
                 ioType.c_str(), time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds,
                 ::GetCurrentThreadId(), reinterpret_cast<unsigned long long>(handle),
                 reinterpret_cast<unsigned long long>(request), static_cast<unsigned>(size));
    (void)log.Append(time, header, { reinterpret_cast<const BYTE*>(data), size });
    return 0;
}
catch (...)
{
    CVoReporter{ kSource, L"VoHTTPMessageCURL::debug_callback" }.CurrentException(530);
    return 0;
}

int progress_callback(void* context, curl_off_t /*dltotal*/, curl_off_t /*dlnow*/, curl_off_t ultotal,
                      curl_off_t ulnow) noexcept
{
    auto& progress = *static_cast<CProgressContext*>(context);
    if (progress.request && progress.request->IsCancelled())
        return 1;
    // Once for every report after the body has left, not once a request: receivers count on being told while they wait.
    if (progress.callBack && ultotal >= 1 && ulnow >= ultotal)
    {
        progress.notified = true;
        progress.callBack->OnRequestSent();
    }
    return 0;
}
} // namespace VoHTTPMessageCURL
