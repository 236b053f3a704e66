// The process's cookie store. Callers get it from CreateGlobalHTTPStores (VoGlobalHTTPUtils.h), or create one of their own.
#pragma once

#include <VoCookieData.h>
#include <VoHTTPStores.h>
#include <base/VoMultiThreading.h>
#include <base/com/VoComImplHelper.h>

#include <functional>
#include <memory>

class CVoBinaryDataParser;
class CVoCookieMap;

// Keeps the cookies that servers set, in memory, for all messages and threads of the process. Any thread may call it; one lock
// guards the cookies. An application that wants cookies to outlive the process saves the store's content itself.
//
// Expired cookies leave the store on the next look-up and are in none of its outputs. The number of cookies is limited
// (kVoMaximumCookiesPerDomain, kVoMaximumCookies), and so is each cookie (kVoMaximumCookieBytes).
//
// Properties, for reading and writing; writing works like Deserialize:
//   CookieDataString  VT_BSTR: the text that Serialize gives
//   CookieData        VT_ARRAY|VT_UI1: the same in UTF-8, as a message of CVoBinaryDataParser
class CVoGlobalHTTPCookieStoreImpl final : public CVoPropertyBagImpl<CVoGlobalHTTPCookieStoreImpl, IVoHTTPCookieStore>
{
public:
    // Gives the current date as an automation date in UTC. Called on any thread.
    using CClock = std::function<double()>;

    // Throws std::bad_alloc.
    explicit CVoGlobalHTTPCookieStoreImpl(CClock clock = &CVoGlobalHTTPCookieStoreImpl::GetCurrentSystemDate);

    // The system's time.
    [[nodiscard]] static double GetCurrentSystemDate() noexcept;

    STDMETHODIMP Clear() noexcept override;
    // `url` decides host and path of the request; `secure` alone decides whether secure cookies are sent. E_INVALIDARG for a
    // malformed URL, E_POINTER for a null `cookie`.
    STDMETHODIMP GetCookieStringForHTTPRequest(BSTR url, VARIANT_BOOL secure, BSTR* cookie) noexcept override;
    // E_INVALIDARG for a malformed URL, for a cookie that CVoCookieData::CreateCookieFromString refuses, and for one from an
    // http URL that would overwrite, hide or delete a secure cookie (RFC 6265bis, section 5.7, step 9).
    STDMETHODIMP AddCookieFromString(BSTR setCookieValue, BSTR requestUrl) noexcept override;
    // Gives parameter text with one parameter "Cookie" for each cookie, in the order of creation, with the session cookies. An
    // empty text for an empty store.
    STDMETHODIMP Serialize(BSTR* data) noexcept override;
    // A null or empty text empties the store. E_INVALIDARG for text that no store gives; the store is unchanged then.
    STDMETHODIMP Deserialize(BSTR data) noexcept override;

    static std::span<const CVoProperty<CVoGlobalHTTPCookieStoreImpl>> PropertyTable() noexcept;

private:
    ~CVoGlobalHTTPCookieStoreImpl() override;

    [[nodiscard]] HRESULT AddCookie(const CVoCookieData& cookie, bool fromSecure, double now) noexcept;
    [[nodiscard]] HRESULT SerializeCookies(CVoBinaryDataParser& parser) noexcept;
    [[nodiscard]] HRESULT DeserializeCookies(const CVoBinaryDataParser& parser) noexcept;

    HRESULT GetCookieData(VARIANT& value) noexcept;
    HRESULT PutCookieData(const VARIANT& value) noexcept;
    HRESULT GetCookieDataString(VARIANT& value) noexcept;
    HRESULT PutCookieDataString(const VARIANT& value) noexcept;

    const CClock m_clock;
    CCriticalSection m_lock;
    std::unique_ptr<CVoCookieMap> m_cookies; // guarded by m_lock, never null
};

// Creates an empty store for the calling module. The caller owns one reference. E_POINTER, or E_OUTOFMEMORY.
[[nodiscard]] HRESULT CreateGlobalHTTPCookieStoreForModule(IVoHTTPCookieStore** store) noexcept;
