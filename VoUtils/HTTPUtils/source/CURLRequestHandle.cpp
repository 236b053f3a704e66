// The libcurl handle of one request; see CURLRequestHandle.h.
#include "CURLRequestHandle.h"

#include "CURLSupport.h"
#include "VoExchangeText.h"
#include "VoRedirect.h"

#include <base/VoModuleInformation.h>
#include <base/VoSystemProperties.h>
#include <base/VoUtils.h>

#include <limits>

namespace VoHTTPMessageCURL
{
namespace
{
// Schannel offers ALPN from Windows 8.1 on.
constexpr ESystemClass kFirstSystemWithALPN = ESystemClass::Windows81;

// Sets the rest of the options that all requests of a message share.
void SetShared(CCURLOptions& options, const CCURLRequestHandle::CSettings& settings) noexcept
{
    const bool offersALPN = VoSystemInformation().systemClass >= kFirstSystemWithALPN;
    options.Set(735, CURLOPT_SSL_ENABLE_ALPN, offersALPN ? 1L : 0L)
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
        .Set(768, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings.connectTimeout))
        .Set(771, CURLOPT_TIMEOUT_MS, static_cast<long>(settings.requestTimeout))
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
        .Set(827, CURLOPT_MAXREDIRS, long{ kVoMaximumRedirects })
        .Set(828, CURLOPT_OPENSOCKETFUNCTION, &opensocket_callback)
        .Set(830, CURLOPT_PREREQFUNCTION, &prereq_callback)
        .Set(832, CURLOPT_NOSIGNAL, 1L);
}
} // namespace

CCURLRequestHandle::CCURLRequestHandle(std::shared_ptr<CCURLConnections> connections) noexcept
    : m_connections(std::move(connections)), m_handle(m_connections->TakeHandle(m_isInitialised))
{
}

CCURLRequestHandle::~CCURLRequestHandle()
{
    try
    {
        if (m_handle && m_connections)
            m_connections->GiveBack(std::move(m_handle), !m_isInitialised || m_isConfidential);
    }
    catch (...)
    {
        CVoReporter{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::CHTTPRequestDataCURL::~CHTTPRequestDataCURL" }
            .CurrentException(645);
    }
}

HRESULT CCURLRequestHandle::SetBodySource(CBodySource& source) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSendRAW" };
    HRESULT hr = CURLSetOpt(m_handle.get(), CURLOPT_READDATA, static_cast<void*>(&source));
    if (SUCCEEDED(hr))
        hr = CURLSetOpt(m_handle.get(), CURLOPT_IOCTLDATA, static_cast<void*>(&source));
    return SUCCEEDED(hr) ? hr : report(290, hr);
}

HRESULT CCURLRequestHandle::SetTransfer(size_t bodyLength, CHeaderContext& headers, CCURLWriteCallbackData& received) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::internalSendRAW" };
    CURL* const handle = m_handle.get();
    // The plain option is 32 bits wide here. A longer body needs the large one.
    HRESULT hr = bodyLength <= static_cast<size_t>(std::numeric_limits<INT32>::max())
                     ? CURLSetOpt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(bodyLength))
                     : CURLSetOpt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bodyLength));
    if (SUCCEEDED(hr))
        hr = CURLSetOpt(handle, CURLOPT_HEADERDATA, static_cast<void*>(&headers));
    if (SUCCEEDED(hr))
        hr = CURLSetOpt(handle, CURLOPT_PREREQDATA, static_cast<void*>(&headers));
    if (SUCCEEDED(hr))
        hr = CURLSetOpt(handle, CURLOPT_WRITEDATA, static_cast<void*>(&received));
    if (SUCCEEDED(hr)) // the write callback decodes
        hr = CURLSetOpt(handle, CURLOPT_HTTP_CONTENT_DECODING, 0L);
    return SUCCEEDED(hr) ? hr : report(263, hr);
}

void CCURLRequestHandle::ResumeDataLog() const noexcept
{
    if (m_isLogged)
        (void)CURLSetOpt(m_handle.get(), CURLOPT_VERBOSE, 1L); // the debug function asks whether the log is still on
}

HRESULT CCURLRequestHandle::ResetConnection() noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::CHTTPRequestDataCURL::ResetConnection" };
    if (m_handle)
    {
        CCURLHandle duplicate;
        try
        {
            duplicate.reset(curl_easy_duphandle(m_handle.get()));
            if (!duplicate)
                report(671, E_FAIL);
        }
        catch (...)
        {
            report(667, E_FAIL);
        }
        if (duplicate)
        {
            try
            {
                m_handle = std::move(duplicate); // cleans the old handle up
            }
            catch (...)
            {
                report(679, E_FAIL);
            }
            m_connections.reset(); // a duplicate shares nothing
        }
    }
    m_errorText.fill('\0');
    return S_OK;
}

HRESULT CCURLRequestHandle::UseConnections(std::shared_ptr<CCURLConnections> connections) noexcept
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::CHTTPRequestDataCURL::UseConnections" };
    if (m_connections == connections)
        return S_OK;
    if (const HRESULT hr = connections->Attach(m_handle.get()); FAILED(hr))
        return report(690, hr);
    m_connections = std::move(connections);
    return S_OK;
}

std::wstring CCURLRequestHandle::ErrorText(std::wstring_view proxy) const
{
    std::wstring text;
    (void)VoCodePageToString(CP_ACP, m_errorText.data(), text);
    // libcurl repeats a proxy that it does not understand, with its user and password.
    const size_t position = proxy.find(L'@') == std::wstring_view::npos ? std::wstring::npos : text.find(proxy);
    if (position != std::wstring::npos)
        text.replace(position, proxy.size(), VoHideProxyUser(proxy));
    return VoHideUser(text);
}

void CCURLRequestHandle::ReadLocalAddress(std::wstring& text) const noexcept
{
    const char* address = nullptr;
    curl_easy_getinfo(m_handle.get(), CURLINFO_LOCAL_IP, &address);
    if (address)
        (void)VoUTF8ToString(address, text);
}

HRESULT CCURLRequestHandle::Init(const CSettings& settings)
{
    constexpr CVoReporter report{ kSource, L"VoHTTPMessageCURL::CVoHTTPMessageCURL::InitCURLHandle" };
    if (!m_handle)
        return report(711, E_INVALIDARG);

    CCURLOptions options(m_handle.get(), report);
    if (!m_isInitialised)
    {
        if (const HRESULT hr = SetUserAgentForRequest(m_handle.get()); FAILED(hr))
            return report(714, hr);
        options.Set(717, CURLOPT_SSL_VERIFYPEER, settings.verifiesCertificate ? 1L : 0L)
            .Set(720, CURLOPT_SSL_VERIFYHOST, settings.verifiesCertificate ? 2L : 0L)
            .Set(723, CURLOPT_SSL_OPTIONS, settings.checksRevocation ? 0L : static_cast<long>(CURLSSLOPT_NO_REVOKE));
    }
    // These are the request's own.
    const bool debug = CVoModuleInformation::Get().IsDebug();
    options.Set(726, CURLOPT_VERBOSE, debug ? 1L : 0L)
        .Set(729, CURLOPT_DEBUGFUNCTION, debug ? &debug_callback : nullptr)
        .Set(732, CURLOPT_DEBUGDATA, debug ? settings.request : nullptr);
    if (!m_isInitialised)
        SetShared(options, settings);
    options.Set(829, CURLOPT_OPENSOCKETDATA, static_cast<void*>(settings.addresses));
    m_isInitialised = SUCCEEDED(options.Result());
    m_isLogged = debug && m_isInitialised;
    return options.Result();
}
} // namespace VoHTTPMessageCURL
