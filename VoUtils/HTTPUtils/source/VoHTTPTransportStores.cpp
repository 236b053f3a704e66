// What the transport core asks of the stores and of the authentication callback; see VoHTTPTransport.h.
#include "VoHTTPTransport.h"

#include <base/VoWipe.h>
#include <base/com/VoComHelper.h>

namespace
{
constexpr const wchar_t* kTransportStoresSource = L"..\\source\\VoHTTPTransport";
} // namespace

HRESULT CVoHTTPTransport::GetCookieHeader(const CServerAddressData& address, std::wstring& cookie) const noexcept
{
    constexpr CVoReporter report{ kTransportStoresSource, L"CVoHTTPTransport::GetCookieHeader" };
    return report.Guard(105, [&]() -> HRESULT
    {
        const CAutoLock lock(&m_storesLock);
        CVoBstr value;
        if (m_cookieStore)
            if (const HRESULT hr = m_cookieStore->GetCookieStringForHTTPRequest(
                    CVoBstr(address.FullURL()).Get(), address.IsSecure() ? VARIANT_TRUE : VARIANT_FALSE, value.Put());
                FAILED(hr))
                return report(100, hr);
        cookie = value.View();
        return S_OK;
    });
}

HRESULT CVoHTTPTransport::GetProxy(const std::wstring* url, std::wstring& proxy,
                                   std::optional<CCredentials>& credentials) const noexcept
{
    constexpr CVoReporter report{ kTransportStoresSource, L"CVoHTTPTransport::GetProxy" };
    return report.Guard(115, [&]() -> HRESULT
    {
        const CAutoLock lock(&m_storesLock);
        CVoBstr name;
        CVoBstr user;
        CVoBstr password;
        if (m_proxyStore)
        {
            CVoBstr question;
            if (url)
                question = CVoBstr(*url);
            if (const HRESULT hr = m_proxyStore->GetProxyForUrl(question.Get(), name.Put(), user.Put(), password.Put());
                FAILED(hr))
                return report(110, hr);
        }
        std::optional<CCredentials> found;
        if (!user.IsEmpty())
        {
            found.emplace();
            found->user = user.View();
            found->password.Get() = password.View();
        }
        VoWipe(password.Get());
        proxy = name.View();
        credentials = std::move(found);
        return S_OK;
    });
}

// Exists while the user is asked, so that Cancel can end the question.
class CVoHTTPTransport::CQuestion
{
public:
    CQuestion(CRequest& request, const CVoComPtr<IVoAuthenticationCallback>& callback) noexcept : m_request(request)
    {
        const CVoLockHolder lock(m_request.m_questionLock);
        m_request.m_question = callback;
        m_request.m_questionThread = ::GetCurrentThreadId();
    }
    ~CQuestion()
    {
        CVoComPtr<IVoAuthenticationCallback> callback; // released without the lock
        {
            const CVoLockHolder lock(m_request.m_questionLock);
            std::swap(callback, m_request.m_question);
        }
        CVoComPtr<IVoAuthenticationCancel> cancel;
        if (m_request.IsCancelled() && SUCCEEDED(callback.As(cancel)))
            (void)cancel->ResetQuestion(m_request.m_questionThread);
    }
    CQuestion(const CQuestion&) = delete;
    CQuestion& operator=(const CQuestion&) = delete;

private:
    CRequest& m_request;
};

HRESULT CVoHTTPTransport::AskForCredentials(CRequest& request, bool proxy, CCredentials& credentials) noexcept
{
    constexpr CVoReporter report{ kTransportStoresSource, L"CVoHTTPTransport::AskForCredentials" };
    return report.Guard(135, [&]() -> HRESULT
    {
        const CAutoLock lock(&m_storesLock);
        const CVoComPtr<IVoAuthenticationCallback> callback = m_authCallback; // kept while it is called
        if (!callback)
            return report(120, E_FAIL);
        // WinHTTP may have found a proxy that the request does not know. Without any proxy a 407 is an attempt to get its
        // password.
        std::wstring proxyName = request.m_proxyName;
        std::optional<CCredentials> saved;
        if (proxy && proxyName.empty())
        {
            (void)GetProxy(&request.m_target.FullURL(), proxyName, saved); // reported
            proxyName = FoundProxy(request, std::move(proxyName));
            if (proxyName.empty())
                return report(122, E_FAIL);
        }
        // A proxy is named beside the server behind it. Neither text holds a query, which may be secret.
        const CServerAddressData& address = request.m_target;
        const CVoBstr title{ std::wstring_view() };
        const CVoBstr server(proxy ? address.PathURL() : address.Host());
        const CVoBstr detail(proxy ? proxyName : address.PathURL());
        CVoBstr user;
        CVoBstr password;
        VARIANT_BOOL cancelled = VARIANT_FALSE;
        const auto ask = proxy ? &IVoAuthenticationCallback::OnProxyAuthNeeded : &IVoAuthenticationCallback::OnServerAuthNeeded;
        const CQuestion question(request, callback);
        const HRESULT hr = request.IsCancelled() ? kResultCancelled
                                                 : (callback.Get()->*ask)(title.Get(), server.Get(), detail.Get(), user.Put(),
                                                                          password.Put(), &cancelled);
        CCredentials typed;
        if (SUCCEEDED(hr))
        {
            typed.user = user.View();
            typed.password.Get() = password.View();
        }
        VoWipe(password.Get());
        if (FAILED(hr))
            return report(124, hr);
        // The same credentials would be refused again, for ever.
        const bool wasRefused =
            proxy ? request.m_proxyCredentialsEntered && request.m_proxyCredentials && typed == *request.m_proxyCredentials
                  : request.m_serverCredentials && request.m_serverOrigin == address.BaseURL() &&
                        typed == *request.m_serverCredentials;
        if (cancelled != VARIANT_FALSE || typed.user.empty() || wasRefused)
            return report(128, kResultCancelled);

        std::optional<CCredentials>& kept = proxy ? request.m_proxyCredentials : request.m_serverCredentials;
        kept.emplace();
        kept->user = typed.user;
        kept->password.Get() = typed.password.Get();
        if (!proxy)
            request.m_serverOrigin = address.BaseURL();
        else
        {
            request.m_proxyOrigin = address.BaseURL();
            request.m_proxyCredentialsEntered = true;
            if (m_facts.savesProxyAtOnce && m_proxyStore && !request.m_proxyName.empty())
                if (const HRESULT saving = SaveProxyCredentials(request.m_proxyName, typed); FAILED(saving))
                    report(132, saving); // they serve this request all the same
        }
        credentials = std::move(typed);
        return S_OK;
    });
}

void CVoHTTPTransport::KeepProxyCredentials(CRequest& request) noexcept
{
    const CAutoLock lock(&m_storesLock);
    if (!m_proxyStore || !request.m_proxyCredentialsEntered || !request.m_proxyCredentials)
        return;
    (void)SaveProxyCredentials(request.m_proxyName, *request.m_proxyCredentials); // reported; the request goes on
    request.m_proxyCredentialsEntered = false;
}

HRESULT CVoHTTPTransport::SaveProxyCredentials(const std::wstring& proxy, const CCredentials& credentials) const noexcept
{
    constexpr CVoReporter report{ kTransportStoresSource, L"CVoHTTPTransport::SaveProxyCredentials" };
    return report.Guard(145, [&]() -> HRESULT
    {
        const CVoBstr password(credentials.password.Get());
        const HRESULT hr = m_proxyStore->SetAuthDataForProxy(CVoBstr(proxy).Get(), CVoBstr(credentials.user).Get(),
                                                             password.Get(), VARIANT_TRUE, VARIANT_TRUE);
        VoWipe(password.Get());
        return SUCCEEDED(hr) ? S_OK : report(140, hr);
    });
}
