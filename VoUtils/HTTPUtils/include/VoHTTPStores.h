// The interfaces of the objects that all messages of a process share: proxy store, cookie store, authentication callback, and
// the provider that hands them out. Applications may implement them; the library has an implementation of each.
//
// COM conventions: texts cross as BSTRs; the caller frees out texts (SysFreeString); the authentication callback frees a text
// that is already in an out argument; out arguments are written on success only. The library's implementations are
// free-threaded: any thread, any apartment.
#pragma once

#include <base/VoPlatform.h>
#include <base/com/VoIUnknown.h>

// Keeps the cookies that servers set and builds the Cookie header of a request (RFC 6265).
class IVoHTTPCookieStore : public IUnknown
{
public:
    // Forgets every cookie.
    virtual HRESULT STDMETHODCALLTYPE Clear() noexcept = 0;
    // Gives the value of the Cookie header for a request to `url`; an empty text when no cookie matches. `secure` says whether
    // the request is sent over TLS.
    virtual HRESULT STDMETHODCALLTYPE GetCookieStringForHTTPRequest(BSTR url, VARIANT_BOOL secure, BSTR* cookie) noexcept = 0;
    // Takes the value of one Set-Cookie header from the response to a request to `requestUrl`. E_INVALIDARG for a refused
    // cookie.
    virtual HRESULT STDMETHODCALLTYPE AddCookieFromString(BSTR setCookieValue, BSTR requestUrl) noexcept = 0;
    // Write the whole store as one text, and read it. Reading replaces the content; on failure the store is unchanged.
    virtual HRESULT STDMETHODCALLTYPE Serialize(BSTR* data) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE Deserialize(BSTR data) noexcept = 0;
    // The named properties: a safe array of BSTRs with rows {name, description}; a value by name. E_INVALIDARG for other names.
    virtual HRESULT STDMETHODCALLTYPE GetPropertyTags(SAFEARRAY** tags) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Properties(BSTR name, VARIANT* value) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE put_Properties(BSTR name, VARIANT value) noexcept = 0;
};

// Says which proxy, and which credentials for it, to use for a URL.
class IVoHTTPProxyStore : public IUnknown
{
public:
    // Forgets the proxies that were found, all credentials and the configuration.
    virtual HRESULT STDMETHODCALLTYPE Clear() noexcept = 0;
    // Gives the proxy for `url` ("host:port"; empty: connect directly). A null `url` asks for the configured manual proxy
    // (empty when discovery is configured). `user` and `password` may be null; they receive the credentials saved for that
    // proxy, or null when there are none.
    virtual HRESULT STDMETHODCALLTYPE GetProxyForUrl(BSTR url, BSTR* proxy, BSTR* user, BSTR* password) noexcept = 0;
    // Keeps credentials for `proxy`. `valid`: the proxy accepted them or the user entered them; `required`: the proxy demands
    // credentials. GetProxyForUrl hands them out when both are set.
    virtual HRESULT STDMETHODCALLTYPE SetAuthDataForProxy(BSTR proxy, BSTR user, BSTR password, VARIANT_BOOL valid,
                                                          VARIANT_BOOL required) noexcept = 0;
    // Write the whole store as one text, with the passwords in the clear, and read it. Reading replaces the content; on failure
    // the store is unchanged. The caller must protect the text.
    virtual HRESULT STDMETHODCALLTYPE Serialize(BSTR* data) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE Deserialize(BSTR data) noexcept = 0;
    // As in the cookie store.
    virtual HRESULT STDMETHODCALLTYPE GetPropertyTags(SAFEARRAY** tags) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Properties(BSTR name, VARIANT* value) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE put_Properties(BSTR name, VARIANT value) noexcept = 0;
};

// Asks the user for credentials. The application may use its own implementation instead of the library's dialog. A transport
// calls it on the thread that receives the challenge, which may be one of the transport's own, while the message is locked: a
// call to the message from inside may wait for ever.
class IVoAuthenticationCallback : public IUnknown
{
public:
    // The owner of dialogs; null for none.
    virtual HRESULT STDMETHODCALLTYPE SetParentWindow(HWND parent) noexcept = 0;
    // Return S_OK also when the user declines: `cancelled` becomes VARIANT_TRUE then, and `user` and `password` are unchanged.
    // `title` may be empty. For a proxy, `serverAddress` is the URL behind it and `reserved` is the proxy ("host:port", or the
    // host alone of a proxy that WinHTTP found by itself). For a server they are its host and the URL that asks. URLs come
    // without their query.
    virtual HRESULT STDMETHODCALLTYPE OnProxyAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user,
                                                        BSTR* password, VARIANT_BOOL* cancelled) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE OnServerAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user,
                                                         BSTR* password, VARIANT_BOOL* cancelled) noexcept = 0;
};

// An authentication callback may also implement this interface, so that a request can be cancelled while its question is open.
class IVoAuthenticationCancel : public IUnknown
{
public:
    // Ends the question that a thread asks now, or the next one that it asks, as if the user had declined it. Any thread.
    virtual HRESULT STDMETHODCALLTYPE CancelQuestion(DWORD threadId) noexcept = 0;
    // Takes CancelQuestion back: the thread's question is over.
    virtual HRESULT STDMETHODCALLTYPE ResetQuestion(DWORD threadId) noexcept = 0;
};

// Gives the stores that the modules of a process share.
class IVoGlobalHTTPStoreQueryPrivate : public IUnknown
{
public:
    // E_NOINTERFACE for a store that cannot be created.
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
template <>
struct VoInterfaceId<IVoAuthenticationCancel>
{
    static constexpr IID value{ 0x3B0A6C54, 0x7E0F, 0x4C2B, { 0x9D, 0x21, 0x5A, 0x8E, 0x44, 0xC7, 0x1B, 0xE6 } };
};
