// A first request: sends one parameter to the URL on the command line and prints the parameters of the response.
#include <VoGlobalHTTPUtils.h>
#include <VoHTTPMessage.h>

#include <cstdio>

int wmain(int, wchar_t** arguments)
try
{
    const auto check = [](HRESULT hr) { return SUCCEEDED(hr) ? hr : throw CVoHResultException(hr); };
    CVoComPtr<IVoAuthenticationCallback> credentials;
    CVoComPtr<IVoHTTPProxyStore> proxies;
    CVoComPtr<IVoHTTPCookieStore> cookies;
    check(VoGlobalHTTPUtils::CreateGlobalHTTPStores(credentials.Put(), proxies.Put(), cookies.Put()));
    CServerAddressData address;
    check(address.SetAddress(arguments[1] ? arguments[1] : L"", true, true, true));
    std::shared_ptr<CVoHTTPMessage> message; // 30 s to connect, 60 s for the request; the certificate is verified
    check(CVoHTTPMessage::Connect(address, credentials.Get(), proxies.Get(), cookies.Get(), 30, 60, true, false, message));
    std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
    check(message->OpenRequest(request));
    CVoBinaryDataParser parameters;
    CVoBinaryDataParser response;
    check(parameters.AddParam(L"name", L"value"));
    check(message->SendMessage(request, parameters, CVoHTTPMessage::EContentKind::Raw, true, {}, {}, false, nullptr));
    check(message->ReadResponse(request, response, CVoHTTPMessage::EResponseKind::Parameters, nullptr, nullptr));
    for (size_t i = 0; i < response.GetCount(); ++i)
        std::printf("%ls=%ls\n", response.GetAt(i).Name().c_str(), response.GetAt(i).Value().c_str());
    return 0;
}
catch (const CVoHResultException& failure)
{
    std::fprintf(stderr, "failed: 0x%08lX\n", static_cast<unsigned long>(failure.Result()));
    return 1;
}
