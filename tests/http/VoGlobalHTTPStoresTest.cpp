// The stores of the process: one of each for all modules, or one of each for the module.
#include <VoGlobalHTTPStoreQueryPrivateImpl.h>

#include <VoAuthCallbackImpl.h>
#include <VoGlobalHTTPCookieStoreImpl.h>
#include <VoGlobalHTTPProxyStoreImpl.h>
#include <VoGlobalHTTPUtils.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include <support/HTTPSupport.h>
#include <support/ImportHook.h>

namespace
{
using testing::ElementsAre;
using TestSupport::CLogCapture;
using TestSupport::IsReport;
using VoGlobalHTTPUtils::CreateGlobalHTTPStores;

constexpr const wchar_t* kHTTPUtilsSource = L"..\\source\\VoGlobalHTTPUtils";
constexpr const wchar_t* kFunction = L"VoGlobalHTTPUtils::CreateGlobalHTTPStores";

struct CStores
{
    CVoComPtr<IVoAuthenticationCallback> callback;
    CVoComPtr<IVoHTTPProxyStore> proxies;
    CVoComPtr<IVoHTTPCookieStore> cookies;

    HRESULT Create() { return CreateGlobalHTTPStores(callback.Put(), proxies.Put(), cookies.Put()); }
    [[nodiscard]] bool IsEmpty() const { return !callback && !proxies && !cookies; }
    [[nodiscard]] bool AreSame(const CStores& other) const
    {
        return !IsEmpty() && callback.Get() == other.callback.Get() && proxies.Get() == other.proxies.Get() &&
               cookies.Get() == other.cookies.Get();
    }
};

TEST(GlobalHTTPStores, BelongToTheModuleWithoutAProvider)
{
    CStores first;
    CLogCapture log;
    constexpr int kNoApartment = -1;
    for (const int apartment : { int{ COINIT_APARTMENTTHREADED }, kNoApartment, int{ COINIT_MULTITHREADED } })
        std::thread([&]
        {
            SCOPED_TRACE(apartment);
            EXPECT_EQ(apartment < 0 ? S_OK : ::CoInitializeEx(nullptr, static_cast<DWORD>(apartment)), S_OK);
            CStores stores;
            EXPECT_EQ(stores.Create(), S_OK);
            EXPECT_TRUE(first.IsEmpty() || stores.AreSame(first));
            first = stores;
            EXPECT_EQ(CreateGlobalHTTPStores(nullptr, nullptr, nullptr), S_OK);
            CVoComPtr<IVoHTTPProxyStore> one;
            EXPECT_EQ(CreateGlobalHTTPStores(nullptr, one.Put(), nullptr), S_OK);
            EXPECT_EQ(one.Get(), first.proxies.Get());
            if (apartment >= 0)
                ::CoUninitialize();
        }).join();
    EXPECT_THAT(log.Lines(), testing::IsEmpty());

    // A query object gives the same stores and holds them. The content goes with the last reference.
    constexpr const wchar_t* kURL = L"http://host/";
    EXPECT_EQ(first.cookies->AddCookieFromString(CVoBstr(L"n=v").Get(), CVoBstr(kURL).Get()), S_OK);
    CVoComPtr<IVoGlobalHTTPStoreQueryPrivate> query;
    CVoComPtr<IUnknown> object;
    EXPECT_EQ(CVoGlobalHTTPStoreQueryPrivateImpl::Create(query.Put()), S_OK);
    EXPECT_EQ(query->get_CookieStore(object.Put()), S_OK);
    object.Reset();
    for (const wchar_t* const expected : { L"n=v", L"" })
    {
        first = CStores();
        EXPECT_EQ(first.Create(), S_OK);
        EXPECT_EQ(TestSupport::CookiesFor(*first.cookies.Get(), kURL), expected);
        query.Reset();
    }
}

TEST(GlobalHTTPStores, AllThreadsGetTheSameStores)
{
    // The stores are created and destroyed all the time: a thread releases its own while others ask for them.
    const auto run = []
    {
        for (int round = 0; round < 200; ++round)
        {
            CStores first;
            CStores second;
            ASSERT_EQ(first.Create(), S_OK);
            ASSERT_EQ(second.Create(), S_OK);
            ASSERT_TRUE(first.AreSame(second));
        }
    };
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(run);
}

// A provider that gives what the test chooses.
class CProvider final : public CVoIUnknownImpl<IVoGlobalHTTPStoreQueryPrivate>
{
public:
    HRESULT hr = S_OK;
    CVoComPtr<IUnknown> callback, proxies, cookies;

    STDMETHODIMP get_CookieStore(IUnknown** store) noexcept override { return Give(cookies, store); }
    STDMETHODIMP get_ProxyStore(IUnknown** store) noexcept override { return Give(proxies, store); }
    STDMETHODIMP get_AuthCallback(IUnknown** store) noexcept override { return Give(callback, store); }

private:
    HRESULT Give(CVoComPtr<IUnknown> from, IUnknown** store) const noexcept
    {
        if (SUCCEEDED(hr))
            *store = from.Detach();
        return hr;
    }
};

TEST(GlobalHTTPStores, BelongToARegisteredProvider)
{
    const CVoComPtr<CProvider> provider = VoMakeComObject<CProvider>();
    // The result of creating the provider. A thread without an apartment gets one and asks again.
    HRESULT created = CO_E_NOTINITIALIZED;
    const auto create = [&](auto, REFCLSID id, auto, DWORD context, REFIID iid, void** object)
    {
        EXPECT_TRUE(::IsEqualCLSID(id, kVoGlobalHTTPStoreProvider));
        EXPECT_EQ(context, static_cast<DWORD>(CLSCTX_ALL));
        const HRESULT hr = created;
        created = hr == CO_E_NOTINITIALIZED ? S_OK : hr;
        return FAILED(hr) ? hr : provider->QueryInterface(iid, object);
    };
    const CCallHook<decltype(&::CoCreateInstance)> hook("ole32.dll", "CoCreateInstance", create);
    CStores own;
    EXPECT_EQ(CreateGlobalAuthenticationCallbackForModule(own.callback.Put()), S_OK);
    EXPECT_EQ(CreateGlobalHTTPProxyStoreForModule(own.proxies.Put()), S_OK);
    EXPECT_EQ(CreateGlobalHTTPCookieStoreForModule(own.cookies.Put()), S_OK);
    CStores stores;
    // A missing store, or an object of another interface: no store is given.
    const std::tuple<CVoComPtr<IUnknown> CProvider::*, IUnknown*, int> table[] = {
        { nullptr, nullptr, 0 },
        { &CProvider::callback, nullptr, 449 },
        { &CProvider::proxies, own.cookies.Get(), 461 },
        { &CProvider::cookies, own.proxies.Get(), 473 }
    };
    CLogCapture log;
    for (const auto& [store, answer, line] : table)
    {
        provider->callback = CVoComPtr<IUnknown>(own.callback.Get());
        provider->proxies = CVoComPtr<IUnknown>(own.proxies.Get());
        provider->cookies = CVoComPtr<IUnknown>(own.cookies.Get());
        if (store)
            provider.Get()->*store = CVoComPtr<IUnknown>(answer);
        stores = CStores();
        EXPECT_EQ(stores.Create(), store ? E_NOINTERFACE : S_OK);
        EXPECT_TRUE(store ? stores.IsEmpty() : stores.AreSame(own));
        const auto report = IsReport(kHTTPUtilsSource, line, kFunction, E_NOINTERFACE);
        EXPECT_THAT(log.Lines(), testing::Conditional(store != nullptr, ElementsAre(report), ElementsAre()));
        log.Clear();
    }
    // The provider's failures.
    provider->hr = E_ACCESSDENIED;
    EXPECT_EQ(stores.Create(), E_ACCESSDENIED);
    created = CO_E_SERVER_EXEC_FAILURE;
    EXPECT_EQ(stores.Create(), CO_E_SERVER_EXEC_FAILURE);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kHTTPUtilsSource, 445, kFunction, E_ACCESSDENIED),
                                         IsReport(kHTTPUtilsSource, 438, kFunction, CO_E_SERVER_EXEC_FAILURE)));
    EXPECT_TRUE(stores.IsEmpty());
}
} // namespace
