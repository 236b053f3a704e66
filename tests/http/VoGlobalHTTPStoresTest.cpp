#include <VoGlobalHTTPStoreQueryPrivateImpl.h>

#include <VoAuthCallbackImpl.h>
#include <VoGlobalHTTPCookieStoreImpl.h>
#include <VoGlobalHTTPProxyStoreImpl.h>
#include <VoGlobalHTTPUtils.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include <support/ImportHook.h>
#include <support/LogCapture.h>

template <>
struct VoInterfaceId<IClassFactory>
{
    static constexpr IID value{ 0x00000001, 0x0000, 0x0000, { 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46 } };
};

namespace
{
using testing::ElementsAre;
using TestSupport::CLogCapture;
using TestSupport::IsReport;
using VoGlobalHTTPUtils::CreateGlobalHTTPStores;

constexpr const wchar_t* kSource = L"..\\source\\VoGlobalHTTPUtils";
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

// Runs a function on a thread of its own, which is in no apartment of COM or in one that it makes.
template <class Function>
void OnThread(int apartment, Function function)
{
    std::thread(
        [&]
        {
            if (apartment >= 0)
            {
                EXPECT_EQ(::CoInitializeEx(nullptr, static_cast<DWORD>(apartment)), S_OK);
            }
            function();
            if (apartment >= 0)
                ::CoUninitialize();
        })
        .join();
}
constexpr int kNoApartment = -1;

TEST(GlobalHTTPStores, AreTheModulesOwnWithoutAProvider)
{
    CStores first;
    CLogCapture log;
    for (const int apartment : { int{ COINIT_APARTMENTTHREADED }, kNoApartment, int{ COINIT_MULTITHREADED } })
        OnThread(apartment,
                 [&]
                 {
                     SCOPED_TRACE(apartment);
                     CStores stores;
                     EXPECT_EQ(stores.Create(), S_OK);
                     EXPECT_TRUE(first.IsEmpty() || stores.AreSame(first));
                     first = stores;
                     EXPECT_EQ(CreateGlobalHTTPStores(nullptr, nullptr, nullptr), S_OK);
                     CVoComPtr<IVoHTTPProxyStore> one;
                     EXPECT_EQ(CreateGlobalHTTPStores(nullptr, one.Put(), nullptr), S_OK);
                     EXPECT_EQ(one.Get(), first.proxies.Get());
                 });
    EXPECT_THAT(log.Lines(), testing::IsEmpty());

    // With the last reference the content goes.
    const CVoBstr url(L"http://host/");
    EXPECT_EQ(first.cookies->AddCookieFromString(CVoBstr(L"n=v").Get(), url.Get()), S_OK);
    first = CStores();
    EXPECT_EQ(first.Create(), S_OK);
    CVoBstr cookie;
    EXPECT_EQ(first.cookies->GetCookieStringForHTTPRequest(url.Get(), VARIANT_FALSE, cookie.Put()), S_OK);
    EXPECT_EQ(cookie.View(), L"");
}

TEST(GlobalHTTPStores, ThreadsThatHoldThemTogetherHoldTheSame)
{
    // The stores come and go all the time: each thread lets go of its own while others ask.
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(
            []
            {
                for (int round = 0; round < 200; ++round)
                {
                    CStores first;
                    CStores second;
                    ASSERT_EQ(first.Create(), S_OK);
                    ASSERT_EQ(second.Create(), S_OK);
                    ASSERT_TRUE(first.AreSame(second));
                }
            });
    for (std::thread& thread : threads)
        thread.join();
}

TEST(GlobalHTTPStores, AQueryKeepsWhatItHandedOut)
{
    CVoComPtr<IVoGlobalHTTPStoreQueryPrivate> query;
    ASSERT_EQ(CVoGlobalHTTPStoreQueryPrivateImpl::Create(query.Put()), S_OK);
    CVoComPtr<IUnknown> object;
    EXPECT_EQ(query->get_CookieStore(object.Put()), S_OK);
    CVoComPtr<IVoHTTPCookieStore> cookies;
    EXPECT_EQ(object.As(cookies), S_OK);
    const CVoBstr url(L"http://host/");
    EXPECT_EQ(cookies->AddCookieFromString(CVoBstr(L"n=v").Get(), url.Get()), S_OK);
    object.Reset();
    cookies.Reset();
    CStores stores;
    EXPECT_EQ(stores.Create(), S_OK);
    CVoBstr cookie;
    EXPECT_EQ(stores.cookies->GetCookieStringForHTTPRequest(url.Get(), VARIANT_FALSE, cookie.Put()), S_OK);
    EXPECT_EQ(cookie.View(), L"n=v");

    EXPECT_EQ(query->get_ProxyStore(nullptr), E_POINTER);
    {
        const CFailOnCall<void* (*)(size_t)> fail("msvcrt.dll", "malloc", 1, nullptr, ERROR_NOT_ENOUGH_MEMORY);
        stores.callback.Reset();
        EXPECT_EQ(query->get_AuthCallback(object.Put()), E_NOINTERFACE);
    }
    EXPECT_FALSE(object);
}

// A provider whose answers the test lays down, and its class factory.
class CProvider final : public CVoIUnknownImpl<IVoGlobalHTTPStoreQueryPrivate>
{
public:
    HRESULT hr = S_OK;
    CVoComPtr<IUnknown> callback;
    CVoComPtr<IUnknown> proxies;
    CVoComPtr<IUnknown> cookies;

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

class CProviderClass final : public CVoIUnknownImpl<IClassFactory>
{
public:
    explicit CProviderClass(CVoComPtr<CProvider> provider) : m_provider(std::move(provider)) {}

    STDMETHODIMP CreateInstance(IUnknown* /*outer*/, REFIID iid, void** object) noexcept override
    {
        return m_provider->QueryInterface(iid, object);
    }
    STDMETHODIMP LockServer(BOOL /*lock*/) noexcept override { return S_OK; }

private:
    CVoComPtr<CProvider> m_provider;
};

TEST(GlobalHTTPStores, AreTheProvidersWhereOneIsRegistered)
{
    OnThread(COINIT_MULTITHREADED,
             []
             {
                 CVoComPtr<CProvider> provider = VoMakeComObject<CProvider>();
                 CStores own;
                 EXPECT_EQ(CreateGlobalAuthenticationCallbackForModule(own.callback.Put()), S_OK);
                 EXPECT_EQ(CreateGlobalHTTPProxyStoreForModule(own.proxies.Put()), S_OK);
                 EXPECT_EQ(CreateGlobalHTTPCookieStoreForModule(own.cookies.Put()), S_OK);
                 const auto reset = [&]
                 {
                     provider->callback = CVoComPtr<IUnknown>(own.callback.Get());
                     provider->proxies = CVoComPtr<IUnknown>(own.proxies.Get());
                     provider->cookies = CVoComPtr<IUnknown>(own.cookies.Get());
                 };
                 reset();
                 const CVoComPtr<CProviderClass> factory = VoMakeComObject<CProviderClass>(provider);
                 DWORD registration = 0;
                 ASSERT_EQ(::CoRegisterClassObject(kVoGlobalHTTPStoreProvider, factory.Get(), CLSCTX_INPROC_SERVER,
                                                   REGCLS_MULTIPLEUSE, &registration),
                           S_OK);
                 CStores stores;
                 EXPECT_EQ(stores.Create(), S_OK);
                 EXPECT_TRUE(stores.AreSame(own));
                 // A thread without an apartment finds it too.
                 OnThread(kNoApartment,
                          [&]
                          {
                              CStores others;
                              EXPECT_EQ(others.Create(), S_OK);
                              EXPECT_TRUE(others.AreSame(own));
                          });

                 // A store that is missing, or is none: nothing is handed out.
                 struct CCase
                 {
                     CVoComPtr<IUnknown> CProvider::* store;
                     IUnknown* answer;
                     int line;
                 };
                 CLogCapture log;
                 for (const CCase& c :
                      { CCase{ &CProvider::callback, nullptr, 449 }, CCase{ &CProvider::proxies, own.cookies.Get(), 461 },
                        CCase{ &CProvider::cookies, own.proxies.Get(), 473 } })
                 {
                     provider.Get()->*c.store = CVoComPtr<IUnknown>(c.answer);
                     CStores none;
                     EXPECT_EQ(none.Create(), E_NOINTERFACE);
                     EXPECT_TRUE(none.IsEmpty());
                     EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, c.line, kFunction, E_NOINTERFACE)));
                     log.Clear();
                     reset();
                 }
                 provider->hr = E_ACCESSDENIED;
                 EXPECT_EQ(CreateGlobalHTTPStores(stores.callback.Put(), nullptr, nullptr), E_ACCESSDENIED);
                 EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 445, kFunction, E_ACCESSDENIED)));
                 EXPECT_EQ(::CoRevokeClassObject(registration), S_OK);
             });
}

TEST(GlobalHTTPStores, OtherFailuresOfTheProviderEndTheCall)
{
    OnThread(COINIT_MULTITHREADED,
             []
             {
                 CLogCapture log;
                 CStores none;
                 {
                     const CFailOnCall<decltype(&::CoCreateInstance)> fail("ole32.dll", "CoCreateInstance", 1,
                                                                           CO_E_SERVER_EXEC_FAILURE, 0);
                     EXPECT_EQ(none.Create(), CO_E_SERVER_EXEC_FAILURE);
                 }
                 EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 438, kFunction, CO_E_SERVER_EXEC_FAILURE)));
                 {
                     const CFailOnCall<decltype(&::CoCreateFreeThreadedMarshaler)> fail(
                         "ole32.dll", "CoCreateFreeThreadedMarshaler", 1, E_OUTOFMEMORY, 0);
                     EXPECT_EQ(none.Create(), E_OUTOFMEMORY);
                 }
                 EXPECT_EQ(log.Lines().size(), 4u);
                 EXPECT_TRUE(none.IsEmpty());
             });
}
} // namespace
