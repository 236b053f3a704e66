// The request over a transport, as a program sends it.
#include "VoProbe.h"

#include <VoHTTPTransports.h>

#include <base/VoDateTime.h>
#include <base/com/VoComHelper.h>
#include <base/com/VoComImplHelper.h>

#include <algorithm>

namespace VoDiagnosis
{
namespace
{
constexpr UINT32 kWinINet = 0;
constexpr UINT64 kMaximumBody = 4 * 1024 * 1024; // enough to see that a response comes; the rest would only take time

// The WinINet transport shows the system's dialog for a 401 or 407 when it connects, unless the store knows credentials. This
// store knows a user without a password, which the transport does not use for anything else.
class CQuietProxyStore final : public CVoIUnknownImpl<IVoHTTPProxyStore>
{
public:
    explicit CQuietProxyStore(CVoComPtr<IVoHTTPProxyStore> store) noexcept : m_store(std::move(store)) {}

    STDMETHODIMP Clear() noexcept override { return m_store->Clear(); }
    STDMETHODIMP GetProxyForUrl(BSTR url, BSTR* proxy, BSTR* user, BSTR* password) noexcept override
    {
        const HRESULT hr = m_store->GetProxyForUrl(url, proxy, user, password);
        if (SUCCEEDED(hr) && ::SysStringLen(url) == 0 && user && password && !*user)
        {
            *user = ::SysAllocString(L"-");
            *password = ::SysAllocString(L"");
        }
        return hr;
    }
    STDMETHODIMP SetAuthDataForProxy(BSTR proxy, BSTR user, BSTR password, VARIANT_BOOL valid,
                                     VARIANT_BOOL required) noexcept override
    {
        return m_store->SetAuthDataForProxy(proxy, user, password, valid, required);
    }
    STDMETHODIMP Serialize(BSTR* data) noexcept override { return m_store->Serialize(data); }
    STDMETHODIMP Deserialize(BSTR data) noexcept override { return m_store->Deserialize(data); }
    STDMETHODIMP GetPropertyTags(SAFEARRAY** tags) noexcept override { return m_store->GetPropertyTags(tags); }
    STDMETHODIMP get_Properties(BSTR name, VARIANT* value) noexcept override { return m_store->get_Properties(name, value); }
    STDMETHODIMP put_Properties(BSTR name, VARIANT value) noexcept override { return m_store->put_Properties(name, value); }

private:
    CVoComPtr<IVoHTTPProxyStore> m_store;
};

// The length that the response announces; nothing without one, and for a coded body, whose decoded length differs.
std::optional<UINT64> AnnouncedLength(const CVoExchangeRecord& record)
{
    if (record.attempts.empty() || record.attempts.back().responses.empty())
        return std::nullopt;
    const auto& headers = record.attempts.back().responses.back().headers;
    std::optional<UINT64> length;
    for (const CVoHTTPHeader& header : headers)
    {
        if (VoEqualsNoCase(header.name, L"Content-Encoding") || VoEqualsNoCase(header.name, L"Transfer-Encoding"))
            return std::nullopt;
        if (VoEqualsNoCase(header.name, L"Content-Length"))
            length = VoParseDecimal<UINT64>(header.value);
    }
    return length;
}

HRESULT Exchange(const CProbeContext& context, UINT32 kind, CHttpFacts& facts)
{
    const CVoDiagnosisOptions& options = *context.options;
    CServerAddressData address;
    if (const HRESULT hr = address.SetAddress(options.url, false, true, true); FAILED(hr))
        return hr;
    CVoComPtr<IVoAuthenticationCallback> callback;
    if (options.makeAuthCallback)
        callback = options.makeAuthCallback();
    CVoComPtr<IVoHTTPProxyStore> store(context.proxyStore.Get());
    if (kind == kWinINet && !options.mayAsk)
        if (auto quiet = VoMakeComObject<CQuietProxyStore>(store))
            store = CVoComPtr<IVoHTTPProxyStore>(quiet.Get());
    std::shared_ptr<CVoHTTPMessage> message;
    if (const HRESULT hr = CVoHTTPMessage::Connect(kind, address, callback.Get(), store.Get(), nullptr,
                                                   std::min(options.connectTimeout, options.probeTimeout),
                                                   std::min(options.requestTimeout, options.probeTimeout),
                                                   options.verifyServerCertificate, options.checkRevocation, message);
        FAILED(hr))
        return hr;
    std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
    if (const HRESULT hr = message->OpenRequest(request); FAILED(hr))
        return hr;
    CVoResponseLimits limits;
    limits.bodyBytes = kMaximumBody;
    request->SetResponseLimits(limits);
    context.stop->SetHook([request] { request->Cancel(); });
    CVoHTTPMessage::CSendResult sent;
    HRESULT hr = options.post ? message->SendMessage(request, CVoBinaryDataParser(), CVoHTTPMessage::EContentKind::Empty, true,
                                                     {}, {}, false, &sent)
                              : message->SendGetRequest(request, {}, false, &sent);
    facts.statusCode = sent.statusCode;
    // The response's head came: read the body, which may be cut off.
    CVoBinaryDataParser response;
    if (SUCCEEDED(hr))
        hr = message->ReadResponse(request, response, CVoHTTPMessage::EResponseKind::Binary, nullptr, nullptr);
    context.stop->SetHook({});
    facts.bodyBytes = response.Payload().size();
    (void)request->GetExchangeRecord(facts.record);
    constexpr UINT32 kOk = 200;
    if (hr == kErrorResponseLimit && sent.statusCode == kOk)
    {
        facts.isBodyCut = true;
        facts.bodyBytes = kMaximumBody;
        return S_OK;
    }
    // Some services take the end of the connection for the end of the body.
    const std::optional<UINT64> announced = AnnouncedLength(facts.record);
    if (SUCCEEDED(hr) && announced && *announced > facts.bodyBytes)
    {
        CVoExchangeRecord::CAttempt& attempt = facts.record.attempts.back();
        attempt.failure = EVoFailure::ResponseTruncated;
        attempt.reason = std::to_wstring(facts.bodyBytes) + L" of " + std::to_wstring(*announced) + L" bytes came";
        return HResultFromWin32(ERROR_HANDLE_EOF);
    }
    return hr;
}
} // namespace

CApply CollectHttp(const CProbeContext& context, size_t index)
{
    CHttpFacts facts;
    facts.result = Exchange(context, context.facts.http[index].kind, facts);
    ::GetSystemTimeAsFileTime(&facts.now);
    return [facts = std::move(facts), index](CFacts& all) { all.http[index].facts = facts; };
}
} // namespace VoDiagnosis
