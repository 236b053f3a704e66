// The interfaces of what all messages of a process share: the proxy store, the cookie store, the authentication callback, and
// the provider that hands them out.
//
// COM conventions hold: texts cross as BSTRs, out texts are allocated here and freed by the caller (SysFreeString), a text
// already in an out argument of the authentication callback is freed first, out arguments are written on success only. All
// implementations of the library are free-threaded: any thread, any apartment.
#pragma once

#include <base/VoPlatform.h>
#include <base/com/VoIUnknown.h>

// Keeps the cookies that servers set and builds the Cookie header of a request (RFC 6265).
class IVoHTTPCookieStore : public IUnknown
{
public:
    // Forgets every cookie.
    virtual HRESULT STDMETHODCALLTYPE Clear() noexcept = 0;
    // The value of the Cookie header for a request to `url`; an empty text when no cookie matches. `secure` (VARIANT_TRUE or
    // VARIANT_FALSE) says whether the request travels over TLS.
    virtual HRESULT STDMETHODCALLTYPE GetCookieStringForHTTPRequest(BSTR url, VARIANT_BOOL secure, BSTR* cookie) noexcept = 0;
    // Takes the value of one Set-Cookie header from the answer to a request to `requestUrl`. E_INVALIDARG when it is refused.
    virtual HRESULT STDMETHODCALLTYPE AddCookieFromString(BSTR setCookieValue, BSTR requestUrl) noexcept = 0;
    // The whole store as one text, and back (replacing what was there; on failure the store is untouched).
    virtual HRESULT STDMETHODCALLTYPE Serialize(BSTR* data) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE Deserialize(BSTR data) noexcept = 0;
    // The named properties: a safe array of BSTRs with rows {name, description}; a value by name. E_INVALIDARG for other names.
    virtual HRESULT STDMETHODCALLTYPE GetPropertyTags(SAFEARRAY** tags) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Properties(BSTR name, VARIANT* value) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE put_Properties(BSTR name, VARIANT value) noexcept = 0;
};

// Answers which proxy and which proxy credentials to use for a URL.
class IVoHTTPProxyStore : public IUnknown
{
public:
    // Forgets what was found, every credential and the configuration.
    virtual HRESULT STDMETHODCALLTYPE Clear() noexcept = 0;
    // The proxy for `url` ("host:port"; empty means a direct connection). A null `url` asks for the configured manual proxy
    // (empty where discovery is configured). `user` and `password` may be null; they receive the credentials saved for that
    // proxy, or null where none are known.
    virtual HRESULT STDMETHODCALLTYPE GetProxyForUrl(BSTR url, BSTR* proxy, BSTR* user, BSTR* password) noexcept = 0;
    // Keeps credentials for `proxy`. `valid`: the proxy accepted them or the user entered them; `required`: the proxy demands
    // credentials. GetProxyForUrl hands them out when both are set.
    virtual HRESULT STDMETHODCALLTYPE SetAuthDataForProxy(BSTR proxy, BSTR user, BSTR password, VARIANT_BOOL valid,
                                                          VARIANT_BOOL required) noexcept = 0;
    // The whole store as one text, passwords in the clear included, and back (replacing what was there; on failure the store
    // is untouched). Whoever keeps the text guards it.
    virtual HRESULT STDMETHODCALLTYPE Serialize(BSTR* data) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE Deserialize(BSTR data) noexcept = 0;
    // As for the cookie store.
    virtual HRESULT STDMETHODCALLTYPE GetPropertyTags(SAFEARRAY** tags) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Properties(BSTR name, VARIANT* value) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE put_Properties(BSTR name, VARIANT value) noexcept = 0;
};

// Asks somebody for credentials. The application may put its own implementation in place of the library's dialog. Called on the
// thread that meets the challenge, which may be one of the transport's own, while the message is locked: do not call the
// message from inside, which may wait for ever.
class IVoAuthenticationCallback : public IUnknown
{
public:
    // The owner of dialogs; null for none.
    virtual HRESULT STDMETHODCALLTYPE SetParentWindow(HWND parent) noexcept = 0;
    // Answers S_OK also when the user declines: then `cancelled` becomes VARIANT_TRUE, and `user` and `password` are untouched.
    // `title` may be empty. For a proxy `serverAddress` is the base URL of the server behind it and `reserved` the proxy
    // ("host:port"); for a server they are its host and the URL that it guards.
    virtual HRESULT STDMETHODCALLTYPE OnProxyAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user,
                                                        BSTR* password, VARIANT_BOOL* cancelled) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE OnServerAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user,
                                                         BSTR* password, VARIANT_BOOL* cancelled) noexcept = 0;
};

// Hands out the stores that the modules of a process share.
class IVoGlobalHTTPStoreQueryPrivate : public IUnknown
{
public:
    // E_NOINTERFACE for a store that cannot be had.
    virtual HRESULT STDMETHODCALLTYPE get_CookieStore(IUnknown** store) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ProxyStore(IUnknown** store) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE get_AuthCallback(IUnknown** callback) noexcept = 0;
};

// The class of the provider that a program may register for all modules of its process.
inline constexpr CLSID kVoGlobalHTTPStoreProvider{
    0x49EBE4B7, 0xD76D, 0x4D6E, { 0x85, 0xEE, 0x28, 0xD6, 0xC5, 0xC2, 0x19, 0xB3 }
};

template <>
struct VoInterfaceId<IVoHTTPCookieStore>
{
    static constexpr IID value{ 0x56F8C381, 0x1FE8, 0x47E9, { 0x80, 0xD8, 0x99, 0x50, 0x6B, 0xF4, 0x5E, 0xCB } };
};
template <>
struct VoInterfaceId<IVoHTTPProxyStore>
{
    static constexpr IID value{ 0xF57D6B08, 0x5468, 0x4BC7, { 0xA1, 0x30, 0x30, 0xA3, 0xA5, 0x01, 0x80, 0xFE } };
};
template <>
struct VoInterfaceId<IVoAuthenticationCallback>
{
    static constexpr IID value{ 0x87F7A7E4, 0xE31B, 0x45BF, { 0x8F, 0xE7, 0xF2, 0x78, 0x94, 0xE1, 0x58, 0x90 } };
};
template <>
struct VoInterfaceId<IVoGlobalHTTPStoreQueryPrivate>
{
    static constexpr IID value{ 0x827D6B8A, 0xC2DF, 0x4C9D, { 0xB4, 0xFD, 0x31, 0x0E, 0xED, 0x39, 0xEF, 0x80 } };
};
