// The rows of the table of allocations for addresses, stores and messages.
#include "Allocations.h"

#include <VoCookieData.h>
#include <VoGlobalHTTPCookieStoreImpl.h>
#include <VoGlobalHTTPProxyStoreImpl.h>
#include <VoHTTPMessage.h>
#include <VoNetworkUtils.h>
#include <VoResponseSink.h>
#include <VoServerAddress.h>
#include <support/HTTPSupport.h>
#include <support/KeyPairs.h>

namespace Stress
{
namespace
{
auto Cookies()
{
    auto store = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    Require(SUCCEEDED(store->AddCookieFromString(CVoBstr(L"name=value").Get(), CVoBstr(L"https://host.test/").Get())),
            "no cookie");
    return store;
}
auto Proxies()
{
    auto store = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
    CHTTPProxyConfigData config;
    config.manualProxy = L"a-proxy-with-a-long-name.test:8080";
    Require(SUCCEEDED(store->Init(config)), "no proxy");
    return store;
}
template <class Store>
std::wstring SeeStore(const CVoComPtr<Store>& store)
{
    return Serialized(*store.Get());
}
// BSTRs that an operation takes are made outside.
const CVoBstr& Url()
{
    static const CVoBstr url(L"https://host.test/a/path/to/something");
    return url;
}
template <class Operate>
COperation OnCookies(Operate operate)
{
    return On(&Cookies, operate, &SeeStore<CVoGlobalHTTPCookieStoreImpl>);
}
template <class Operate>
COperation OnProxies(Operate operate)
{
    return On(&Proxies, operate, &SeeStore<CVoGlobalHTTPProxyStoreImpl>);
}
std::wstring SeeAddress(const CServerAddressData& address)
{
    return address.FullURL();
}
CServerAddressData AnAddress()
{
    CServerAddressData address;
    Require(SUCCEEDED(address.SetAddress(L"https://host.test:81/path", true, true, true)), "no address");
    return address;
}
std::wstring SeeCookie(const CVoCookieData& cookie)
{
    return cookie.domain + cookie.path + cookie.name + cookie.value;
}
using VoNetworkUtils::CVoIPAddress;

Message Connected()
{
    Message message;
    Require(SUCCEEDED(ConnectTo(L"http://127.0.0.1:9/", {}, message)), "not connected");
    return message;
}
std::wstring SeeMessage(const Message& message)
{
    return message ? L"connected" : L"";
}
} // namespace

std::vector<CRow> HTTPRows()
{
    // clang-format off
    return {
        { "CServerAddressData::SetAddress", On(&AnAddress, [](auto& a)
    { return a.SetAddress(L"http://another-host.test/another/path?query", true, true, true); }, &SeeAddress) },
        { "CServerAddressData::SetObjectPath", On(&AnAddress, [](auto& a) { return a.SetObjectPath(L"/another/path/to/nowhere?query"); }, &SeeAddress) },
        { "CServerAddressData::Rebuild", On(&AnAddress, [](auto& a) { return a.Rebuild(); }, &SeeAddress) },
        { "CVoIPAddress::InitFromIPAddress", On(New<CVoIPAddress>(), [](CVoIPAddress& a) { return a.InitFromIPAddress(L"2001:db8::1:2:3:4"); }, [](const CVoIPAddress& a) { return a.Text(); }) },
        { "CVoCookieRequest::FromUrl", On(New<CVoCookieRequest>(), [](auto& r) { return CVoCookieRequest::FromUrl(Url().View(), r); }, [](const auto& r) { return r.host + r.path; }) },
        { "CVoCookieData::CreateCookieFromString", On(New<CVoCookieData>(),
                                                      [](auto& c)
    {
        return CVoCookieData::CreateCookieFromString(L"a long name=a long value of it; Path=/path/of/it",
                                                     { L"host.test", L"/path/of/it", false, true }, 45000, c);
    }, &SeeCookie) },
        { "CVoCookieData::SerializeCookie", GivesText([](std::wstring& t) { CVoCookieData cookie; cookie.domain = L"host.test"; cookie.path = L"/"; cookie.name = L"n"; return cookie.SerializeCookie(t); }) },
        { "CVoGlobalHTTPCookieStoreImpl::AddCookieFromString", OnCookies(
                                                                   [](auto& s)
    {
        static const CVoBstr cookie(L"a long name=a long value of the cookie; Expires=Fri, 31 Dec 9999 23:59:59 GMT");
        return s->AddCookieFromString(cookie.Get(), Url().Get());
    }) },
        { "CVoGlobalHTTPCookieStoreImpl::GetCookieStringForHTTPRequest", OnCookies([](auto& s) { CVoBstr cookies; return s->GetCookieStringForHTTPRequest(Url().Get(), VARIANT_TRUE, cookies.Put()); }) },
        { "CVoGlobalHTTPCookieStoreImpl::Serialize", OnCookies([](auto& s) { CVoBstr data; return s->Serialize(data.Put()); }) },
        { "CVoGlobalHTTPCookieStoreImpl::Deserialize", OnCookies([](auto& s) { static const CVoBstr data(Serialized(*Cookies().Get())); return s->Deserialize(data.Get()); }) },
        { "CVoGlobalHTTPProxyStoreImpl::Init", OnProxies(
                                                   [](auto& s)
    {
        static const CHTTPProxyConfigData config = []
        {
            CHTTPProxyConfigData data;
            data.manualProxy = L"http=another-proxy.test:81;https=a-third-proxy.test:82";
            return data;
        }();
        return s->Init(config);
    }) },
        { "CVoGlobalHTTPProxyStoreImpl::SetAuthDataForProxy", OnProxies(
                                                                  [](auto& s)
    {
        static const CVoBstr proxy(L"a-proxy-with-a-long-name.test:8080");
        static const CVoBstr user(L"a user with a long name");
        return s->SetAuthDataForProxy(proxy.Get(), user.Get(), user.Get(), VARIANT_TRUE, VARIANT_TRUE);
    }) },
        { "CVoGlobalHTTPProxyStoreImpl::Serialize", OnProxies([](auto& s) { CVoBstr data; return s->Serialize(data.Put()); }) },
        { "CVoGlobalHTTPProxyStoreImpl::Deserialize", OnProxies([](auto& s) { static const CVoBstr data(Serialized(*Proxies().Get())); return s->Deserialize(data.Get()); }) },
        { "CVoGlobalHTTPProxyStoreImpl::GetProxyForUrl", On([] { return std::pair(Proxies(), std::wstring()); }, // no failure is cached
                                                            [](auto& s)
    {
        CVoBstr proxy, user, password;
        const HRESULT hr = s.first->GetProxyForUrl(Url().Get(), proxy.Put(), user.Put(), password.Put());
        if (SUCCEEDED(hr))
            s.second = proxy.View();
        return hr;
    }, [](const auto& s) { return s.second; }) },
        { "CVoGlobalHTTPProxyStoreImpl::ExplainProxyForUrl", On(&Proxies, [](auto& s) { CVoProxyExplanation explanation; return s->ExplainProxyForUrl(Url().View(), explanation); },
                                                                [](const auto&) { return std::wstring(); }) },
        { "CVoFileSink::Commit", On([] { std::filesystem::remove(PathIn(L"sink.bin")); return 0; },
                                    [](int)
    {
        CVoFileSink sink;
        HRESULT hr = sink.Open(PathIn(L"sink.bin"));
        for (int i = 0; i < 2 && SUCCEEDED(hr); ++i)
            hr = sink.Write({ Data(), kData.size() });
        if (SUCCEEDED(hr))
            hr = sink.Restart();
        if (SUCCEEDED(hr))
            hr = sink.Write({ Data(), kData.size() });
        return SUCCEEDED(hr) ? sink.Commit() : hr;
    }, [](int) { return Units(ReadTestFile(PathIn(L"sink.bin"))); }) },
        { "CreateGlobalHTTPCookieStoreForModule",
          On(New<CVoComPtr<IVoHTTPCookieStore>>(), [](auto& s) { return CreateGlobalHTTPCookieStoreForModule(s.Put()); },
             [](const auto& s) { return std::to_wstring(s.Get() != nullptr); }) },
        { "CVoHTTPMessage::Connect", On(New<Message>(),
                                        [](Message& m)
    {
        static const CServerAddressData address = AnAddress();
        return CVoHTTPMessage::Connect(2, address, nullptr, nullptr, nullptr, 5, 5, false, false, m);
    }, &SeeMessage) },
        { "CVoHTTPMessage::OpenRequest", On(&Connected, [](const Message& m) { Request request; return m->OpenRequest(request); }, &SeeMessage) },
        { "CVoHTTPMessage::SignMessage", On(
                                             []
    {
        CVoByteBuffer body;
        Require(SUCCEEDED(Parameters().GetParamData(true, body.PutLength(), body.PutBytes())), "no body");
        return body;
    }, [](CVoByteBuffer& b) { return CVoHTTPMessage::SignMessage(true, b, kKnownPrivateKey, L"signature"); }, &SeeLength) },
        { "CVoHTTPMessage::CreateContentDigest", GivesText([](std::wstring& t) { return CVoHTTPMessage::CreateContentDigest({ Data(), 20 }, t); }) },
        { "CVoHTTPMessage::CreateSignatureBase", On(New<std::string>(), [](std::string& b) { return CVoHTTPMessage::CreateSignatureBase(kText, 20, kText, b); }, &SeeBytes) },
        { "CVoHTTPMessage::internalParseMultipleResponses", On(New<std::vector<CVoBinaryDataParser>>(),
                                                               [](auto& r)
    {
        static const std::string bytes("\x05\0\0\0a=1&&\x07\0\0\0b=2&&xy", 20);
        return CVoHTTPMessage::internalParseMultipleResponses({ reinterpret_cast<const BYTE*>(bytes.data()), bytes.size() },
                                                              true, 0, r);
    }, [](const auto& r) { return std::to_wstring(r.size()); }) },
    };
    // clang-format on
}
} // namespace Stress
