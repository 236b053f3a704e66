// The options of a request, and the connection that they describe.
#pragma once

#include "AuthAnswers.h"
#include "Command.h"
#include "ProxyOptions.h"

#include <VoHTTPMessage.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

// The options for the transport and the connection.
class CConnectionOptions
{
public:
    void Declare(COptions& options);
    // Those that the doctor has, too: time-outs, certificates, credentials, proxy.
    void DeclareShared(COptions& options);

    // The transport of --engine, or that of the settings. The name is empty for a kind that the library does not know.
    [[nodiscard]] UINT32 TransportKind() const;
    [[nodiscard]] std::string TransportName() const;
    [[nodiscard]] const std::string& CookieFile() const noexcept { return m_cookies; }
    [[nodiscard]] bool AllowsRetry() const noexcept { return m_retry; }

    // The callback with the answers of --auth and --proxy-auth, or with the dialog of --ask.
    [[nodiscard]] CVoComPtr<CAuthAnswers> MakeAuthAnswers(CContext& context) const;
    // The same callback, new at each call. The credentials are read now; the function uses no context.
    [[nodiscard]] std::function<CVoComPtr<IVoAuthenticationCallback>()> MakeAuthAnswersFactory(CContext& context) const;
    [[nodiscard]] std::shared_ptr<CVoHTTPMessage> Connect(CContext& context, const CServerAddressData& address,
                                                          IVoAuthenticationCallback& answers) const;

    [[nodiscard]] UINT32 ConnectTimeout() const noexcept { return m_connectTimeout; }
    [[nodiscard]] UINT32 RequestTimeout() const noexcept { return m_requestTimeout; }
    [[nodiscard]] bool Verifies() const;
    [[nodiscard]] bool ChecksRevocation() const;
    [[nodiscard]] bool MayAsk() const noexcept { return m_ask; }
    [[nodiscard]] const CProxyOptions& Proxy() const noexcept { return m_proxy; }

private:
    [[nodiscard]] static std::optional<CCredentials> ReadCredentials(CContext& context, const char* option,
                                                                     const std::string& value);

    COptions m_options;
    std::optional<UINT32> m_engine;
    bool m_retry = false;
    UINT32 m_connectTimeout = 30;
    UINT32 m_requestTimeout = 60;
    bool m_verify = false;
    bool m_noVerify = false;
    bool m_checkRevocation = false;
    bool m_noCheckRevocation = false;
    std::string m_auth;
    std::string m_proxyAuth;
    bool m_ask = false;
    CProxyOptions m_proxy;
    std::string m_cookies;
};
