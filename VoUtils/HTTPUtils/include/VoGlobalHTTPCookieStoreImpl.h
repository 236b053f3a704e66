// The process's cookie store.
#pragma once

#include <VoCookieMap.h>
#include <VoHTTPStores.h>
#include <base/VoMultiThreading.h>
#include <base/com/VoComImplHelper.h>

#include <functional>

class CVoBinaryDataParser;

// Keeps the cookies that servers set, in memory, for all messages and threads of the process. Any thread may call it; one lock
// guards the cookies. An application that wants cookies to outlive the process keeps the store's content itself.
//
// Cookies that have expired leave the store on the next look-up, and are in nothing that it hands out. What servers can make it
// hold is bounded (kVoMaximumCookieLength, kVoMaximumCookiesPerDomain, kVoMaximumCookies).
//
// Properties, both to read and to write, writing as Deserialize:
//   CookieDataString  VT_BSTR: what Serialize gives
//   CookieData        VT_ARRAY|VT_UI1: the same in UTF-8, as a message of CVoBinaryDataParser
class CVoGlobalHTTPCookieStoreImpl final : public CVoPropertyBagImpl<CVoGlobalHTTPCookieStoreImpl, IVoHTTPCookieStore>
{
public:
    // Gives the current date as an automation date in UTC. Called on any thread.
    using CClock = std::function<double()>;

    explicit CVoGlobalHTTPCookieStoreImpl(CClock clock = &CVoGlobalHTTPCookieStoreImpl::GetCurrentSystemDate);

    // The system's time.
    [[nodiscard]] static double GetCurrentSystemDate() noexcept;

    STDMETHODIMP Clear() noexcept override;
    // `url` decides host and path of the request, `secure` alone whether secure cookies go. E_INVALIDARG for a malformed URL,
    // E_POINTER for a null `cookie`.
    STDMETHODIMP GetCookieStringForHTTPRequest(BSTR url, VARIANT_BOOL secure, BSTR* cookie) noexcept override;
    // Refuses what CVoCookieData::CreateCookieFromString refuses.
    STDMETHODIMP AddCookieFromString(BSTR setCookieValue, BSTR requestUrl) noexcept override;
    // Parameter text with one parameter "Cookie" for each cookie, in the order of their creation, cookies of the session
    // included; an empty text for an empty store.
    STDMETHODIMP Serialize(BSTR* data) noexcept override;
    // A null or empty text empties the store. E_INVALIDARG for text that is none of the store's own.
    STDMETHODIMP Deserialize(BSTR data) noexcept override;

    static std::span<const CVoProperty<CVoGlobalHTTPCookieStoreImpl>> PropertyTable() noexcept;

private:
    ~CVoGlobalHTTPCookieStoreImpl() override = default;

    [[nodiscard]] HRESULT AddCookie(CVoCookieData&& cookie, double now) noexcept;
    [[nodiscard]] HRESULT SerializeCookies(CVoBinaryDataParser& parser) noexcept;
    [[nodiscard]] HRESULT DeserializeCookies(const CVoBinaryDataParser& parser) noexcept;

    HRESULT GetCookieData(VARIANT& value) noexcept;
    HRESULT PutCookieData(const VARIANT& value) noexcept;
    HRESULT GetCookieDataString(VARIANT& value) noexcept;
    HRESULT PutCookieDataString(const VARIANT& value) noexcept;

    const CClock m_clock;
    CCriticalSection m_lock;
    CVoCookieMap m_cookies; // guarded by m_lock
};

// A new, empty store for the calling module; the caller owns one reference. E_POINTER, or E_OUTOFMEMORY.
[[nodiscard]] HRESULT CreateGlobalHTTPCookieStoreForModule(IVoHTTPCookieStore** store) noexcept;
