// What the tests of messages share: a transport chosen for a scope, stand-ins for the callback and the proxy store, short ways
// to build and read messages.
#pragma once

#include "support/LogCapture.h"

#include <VoHTTPMessage.h>

#include <base/VoModuleInformation.h>
#include <base/com/VoComHelper.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace TestSupport
{
// Whether a code was reported; forgets the log.
[[nodiscard]] inline bool TakeReport(CLogCapture& log, HRESULT code)
{
    const std::vector<CLogLine> lines = log.Lines();
    log.Clear();
    return std::any_of(lines.begin(), lines.end(), [=](const CLogLine& line) { return line.code == code; });
}
// A secret is nowhere in what was logged, and something was.
inline void ExpectNotLogged(const CLogCapture& log, std::wstring_view secret)
{
    EXPECT_FALSE(log.Lines().empty());
    for (const CLogLine& line : log.Lines())
        EXPECT_EQ(line.text.find(secret), std::wstring::npos);
}

// Makes the factory choose a transport kind while it lives.
class CTransportScope
{
public:
    explicit CTransportScope(UINT32 kind) noexcept : m_before(CVoModuleInformation::Get().HTTPEngine())
    {
        CVoModuleInformation::Get().SetHTTPEngine(kind);
    }
    ~CTransportScope() { CVoModuleInformation::Get().SetHTTPEngine(m_before); }
    CTransportScope(const CTransportScope&) = delete;
    CTransportScope& operator=(const CTransportScope&) = delete;

private:
    UINT32 m_before;
};

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
    // What the two operations answer, where they are to fail.
    HRESULT queryResult = S_OK;
    HRESULT saveResult = S_OK;

    STDMETHODIMP Clear() noexcept override { return S_OK; }
    STDMETHODIMP GetProxyForUrl(BSTR url, BSTR* proxy, BSTR* user, BSTR* password) noexcept override
    {
        asked.emplace_back(CVoBstr::ViewOf(url));
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

using Params = std::vector<std::pair<std::wstring, std::wstring>>;

// A message to send.
[[nodiscard]] inline CVoBinaryDataParser MakeMessage(const Params& params, std::string_view payload = {})
{
    CVoBinaryDataParser message;
    for (const auto& [name, value] : params)
        EXPECT_EQ(message.AddParam(name, std::wstring_view(value)), S_OK);
    message.SetPayload(std::vector<BYTE>(payload.begin(), payload.end()));
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
} // namespace TestSupport
