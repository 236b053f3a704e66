// What the tests of messages share: stand-ins for the callback and the proxy store, short ways to build, send and read
// messages.
#pragma once

#include "support/LogCapture.h"

#include <VoHTTPMessage.h>

#include <base/VoMultiThreading.h>
#include <base/VoUtils.h>
#include <base/com/VoComHelper.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace TestSupport
{
// Answers challenges from a list, then declines, and notes who asked.
class CScriptedAuthCallback final : public CVoIUnknownImplWithFreeThreadedMarshaller<IVoAuthenticationCallback>
{
public:
    using Credentials = std::pair<std::wstring, std::wstring>;

    void AnswerServer(std::vector<Credentials> answers) { m_server = std::move(answers); }
    void AnswerProxy(std::vector<Credentials> answers) { m_proxy = std::move(answers); }
    // "server <address> <detail>" or "proxy ...", a line for each question.
    [[nodiscard]] std::vector<std::wstring> Questions() const
    {
        const std::scoped_lock lock(m_lock);
        return m_questions;
    }

    STDMETHODIMP SetParentWindow(HWND /*parent*/) noexcept override { return S_OK; }
    STDMETHODIMP OnProxyAuthNeeded(BSTR /*title*/, BSTR address, BSTR detail, BSTR* user, BSTR* password,
                                   VARIANT_BOOL* cancelled) noexcept override
    {
        return Answer(L"proxy ", m_proxy, address, detail, user, password, cancelled);
    }
    STDMETHODIMP OnServerAuthNeeded(BSTR /*title*/, BSTR address, BSTR detail, BSTR* user, BSTR* password,
                                    VARIANT_BOOL* cancelled) noexcept override
    {
        return Answer(L"server ", m_server, address, detail, user, password, cancelled);
    }

private:
    HRESULT Answer(const wchar_t* kind, std::vector<Credentials>& answers, BSTR address, BSTR detail, BSTR* user,
                   BSTR* password, VARIANT_BOOL* cancelled) noexcept
    {
        const std::scoped_lock lock(m_lock);
        m_questions.push_back(kind + std::wstring(CVoBstr::ViewOf(address)) + L" " + std::wstring(CVoBstr::ViewOf(detail)));
        *cancelled = answers.empty() ? VARIANT_TRUE : VARIANT_FALSE;
        if (answers.empty())
            return S_OK;
        *user = CVoBstr(answers.front().first).Detach();
        *password = CVoBstr(answers.front().second).Detach();
        answers.erase(answers.begin());
        return S_OK;
    }

    mutable std::mutex m_lock;
    std::vector<Credentials> m_server;
    std::vector<Credentials> m_proxy;
    std::vector<std::wstring> m_questions;
};

// Names one proxy for every URL, with credentials once some were kept.
class CFixedProxyStore final : public CVoIUnknownImplWithFreeThreadedMarshaller<IVoHTTPProxyStore>
{
public:
    explicit CFixedProxyStore(std::wstring proxy, std::wstring user = {}, std::wstring password = {})
        : m_proxy(std::move(proxy)), m_user(std::move(user)), m_password(std::move(password))
    {
    }
    // "proxy user password" of each credentials kept.
    std::vector<std::wstring> saved;
    // The URL of each query, empty for the configured proxy.
    std::vector<std::wstring> asked;
    // The results of the two operations.
    HRESULT queryResult = S_OK;
    HRESULT saveResult = S_OK;
    std::function<void()> onQuery;

    STDMETHODIMP Clear() noexcept override { return S_OK; }
    STDMETHODIMP GetProxyForUrl(BSTR url, BSTR* proxy, BSTR* user, BSTR* password) noexcept override
    {
        asked.emplace_back(CVoBstr::ViewOf(url));
        if (onQuery)
            onQuery();
        if (FAILED(queryResult))
            return queryResult;
        *proxy = CVoBstr(m_proxy).Detach();
        if (user)
            *user = m_user.empty() ? nullptr : CVoBstr(m_user).Detach();
        if (password)
            *password = m_user.empty() ? nullptr : CVoBstr(m_password).Detach();
        return S_OK;
    }
    STDMETHODIMP SetAuthDataForProxy(BSTR proxy, BSTR user, BSTR password, VARIANT_BOOL valid,
                                     VARIANT_BOOL required) noexcept override
    {
        if (valid == VARIANT_FALSE || required == VARIANT_FALSE)
            return E_INVALIDARG;
        if (FAILED(saveResult))
            return saveResult;
        m_user = CVoBstr::ViewOf(user);
        m_password = CVoBstr::ViewOf(password);
        saved.push_back(std::wstring(CVoBstr::ViewOf(proxy)) + L" " + m_user + L" " + m_password);
        return S_OK;
    }
    STDMETHODIMP Serialize(BSTR* /*data*/) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP Deserialize(BSTR /*data*/) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP GetPropertyTags(SAFEARRAY** /*tags*/) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP get_Properties(BSTR /*name*/, VARIANT* /*value*/) noexcept override { return E_NOTIMPL; }
    STDMETHODIMP put_Properties(BSTR /*name*/, VARIANT /*value*/) noexcept override { return E_NOTIMPL; }

private:
    std::wstring m_proxy;
    std::wstring m_user;
    std::wstring m_password;
};

// Of ASCII.
[[nodiscard]] inline std::wstring Wide(std::string_view text)
{
    return { text.begin(), text.end() };
}

// A text with one place changed, for each change "what stands there last -> what is put in its place".
[[nodiscard]] inline std::vector<std::wstring> EachChange(const std::wstring& text, const std::vector<std::wstring>& changes)
{
    std::vector<std::wstring> changed;
    for (const std::wstring& change : changes)
    {
        const size_t arrow = change.find(L" -> ");
        const size_t at = text.rfind(change.substr(0, arrow));
        EXPECT_NE(at, std::wstring::npos) << testing::PrintToString(change);
        changed.push_back(at < text.size() ? std::wstring(text).replace(at, arrow, change.substr(arrow + 4)) : text);
    }
    return changed;
}

// Bytes of which no two pieces are equal, so that a mix-up shows.
[[nodiscard]] inline std::string RandomBytes(size_t size)
{
    std::string bytes(size, '\0');
    for (UINT32 state = 1; char& byte : bytes)
        byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
}

using Params = std::vector<std::pair<std::wstring, std::wstring>>;

// A message to send.
[[nodiscard]] inline CVoBinaryDataParser MakeMessage(const Params& params, std::string_view payload = {})
{
    CVoBinaryDataParser message;
    for (const auto& [name, value] : params)
        EXPECT_EQ(message.AddParam(name, std::wstring_view(value)), S_OK);
    EXPECT_EQ(message.SetPayload(VoBytesOf(payload).data(), static_cast<UINT32>(payload.size())), S_OK);
    return message;
}
[[nodiscard]] inline Params ParamsOf(const CVoDataParser& message)
{
    Params params;
    for (size_t i = 0; i < message.GetCount(); ++i)
        params.emplace_back(message.GetAt(i).Name(), message.GetAt(i).Value());
    return params;
}
[[nodiscard]] inline std::string PayloadOf(const CVoBinaryDataParser& message)
{
    return { message.Payload().begin(), message.Payload().end() };
}

// What stores have, as texts.
template <class Store>
[[nodiscard]] std::wstring Serialized(Store& store)
{
    CVoBstr data;
    EXPECT_EQ(store.Serialize(data.Put()), S_OK);
    return std::wstring(data.View());
}
// The Cookie header for a URL; whether it is secure goes by its scheme.
[[nodiscard]] inline std::wstring CookiesFor(IVoHTTPCookieStore& store, std::wstring_view url)
{
    CVoBstr cookies;
    const VARIANT_BOOL secure = url.starts_with(L"https") ? VARIANT_TRUE : VARIANT_FALSE;
    EXPECT_EQ(store.GetCookieStringForHTTPRequest(CVoBstr(url).Get(), secure, cookies.Put()), S_OK);
    return std::wstring(cookies.View());
}
// The proxy for a URL: "proxy user password", "-" for null texts; the code where the store gives none.
[[nodiscard]] inline std::wstring ProxyFor(IVoHTTPProxyStore& store, std::wstring_view url)
{
    CVoBstr proxy, user, password;
    const HRESULT hr =
        store.GetProxyForUrl(url.empty() ? nullptr : CVoBstr(url).Get(), proxy.Put(), user.Put(), password.Put());
    if (FAILED(hr))
        return VoFormat(L"0x%08X", static_cast<unsigned>(hr));
    const auto text = [](const CVoBstr& value) { return value.Get() ? std::wstring(value.View()) : L"-"; };
    return text(proxy) + L' ' + text(user) + L' ' + text(password);
}
[[nodiscard]] inline HRESULT SaveCredentials(IVoHTTPProxyStore& store, std::wstring_view proxy, std::wstring_view user,
                                             std::wstring_view password, bool valid = true, bool required = true)
{
    return store.SetAuthDataForProxy(CVoBstr(proxy).Get(), CVoBstr(user).Get(), CVoBstr(password).Get(),
                                     valid ? VARIANT_TRUE : VARIANT_FALSE, required ? VARIANT_TRUE : VARIANT_FALSE);
}

using Kind = CVoHTTPMessage::EContentKind;
using Response = CVoHTTPMessage::EResponseKind;
using Message = std::shared_ptr<CVoHTTPMessage>;
using Request = std::shared_ptr<CVoHTTPMessage::CHTTPRequestData>;

[[nodiscard]] inline CServerAddressData Address(std::wstring_view url)
{
    CServerAddressData address;
    EXPECT_EQ(address.SetAddress(url, false, true, true), S_OK);
    return address;
}

// How a message connects: with what transport, what stands behind it, and the time-outs in seconds.
struct CConnecting
{
    UINT32 kind = 2;
    IVoAuthenticationCallback* callback = nullptr;
    IVoHTTPProxyStore* proxies = nullptr;
    IVoHTTPCookieStore* cookies = nullptr;
    UINT32 connectTimeout = 10;
    UINT32 requestTimeout = 20;
    bool verify = false;
    bool revocation = false;
};
[[nodiscard]] inline HRESULT ConnectTo(std::wstring_view url, const CConnecting& how, Message& message)
{
    return CVoHTTPMessage::Connect(how.kind, Address(url), how.callback, how.proxies, how.cookies, how.connectTimeout,
                                   how.requestTimeout, how.verify, how.revocation, message);
}

[[nodiscard]] inline Request Open(CVoHTTPMessage& message)
{
    Request request;
    EXPECT_EQ(message.OpenRequest(request), S_OK);
    return request;
}
// A request that was opened, sent once.
[[nodiscard]] inline HRESULT SendOn(CVoHTTPMessage& message, const Request& request, const CVoBinaryDataParser& parameters = {},
                                    Kind kind = Kind::Raw, CVoHTTPMessage::CSendResult* result = nullptr)
{
    return message.SendMessage(request, parameters, kind, true, {}, {}, false, result);
}

// Sends on a thread of its own and reads the response; cancels the request once `waits` is set. Returns how it ended.
[[nodiscard]] inline HRESULT CancelWhen(const CEvent& waits, CVoHTTPMessage& message, const Request& request)
{
    auto sending = std::async(std::launch::async, [&]
    {
        const HRESULT hr = SendOn(message, request);
        CVoBinaryDataParser response;
        return FAILED(hr) ? hr : message.ReadResponse(request, response, Response::Parameters, nullptr, nullptr);
    });
    EXPECT_EQ(::WaitForSingleObject(waits.Handle(), 20'000), WAIT_OBJECT_0);
    request->Cancel();
    return sending.get();
}

struct CResponse
{
    HRESULT result = E_UNEXPECTED;
    CVoHTTPMessage::CSendResult send;
    CVoBinaryDataParser message;
    bool isUtf8 = false;
    bool isEmpty = false;
};
// Sends one request on a connected message and reads its response.
[[nodiscard]] inline CResponse Send(CVoHTTPMessage& message, const CVoBinaryDataParser& parameters, Kind kind = Kind::Raw,
                                    bool allowRetry = false, Response read = Response::Parameters, bool utf8 = true,
                                    std::wstring_view key = {}, std::wstring_view signatureName = {})
{
    CResponse response;
    Request request;
    response.result = message.OpenRequest(request);
    EXPECT_EQ(SUCCEEDED(response.result), request != nullptr);
    if (SUCCEEDED(response.result))
        response.result = message.SendMessage(request, parameters, kind, utf8, key, signatureName, allowRetry, &response.send);
    if (SUCCEEDED(response.result))
        response.result = message.ReadResponse(request, response.message, read, &response.isUtf8, &response.isEmpty);
    return response;
}
// The bytes that a GET of a path brings; none for the message's own path.
[[nodiscard]] inline CResponse Get(CVoHTTPMessage& message, std::wstring_view path = {})
{
    CResponse response;
    Request request;
    response.result = message.SendGetRequest(request, path, false, &response.send);
    if (SUCCEEDED(response.result))
        response.result =
            message.ReadResponse(request, response.message, Response::Binary, &response.isUtf8, &response.isEmpty);
    return response;
}
} // namespace TestSupport
