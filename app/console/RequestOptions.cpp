// The options of send and get about the connection.
#include "RequestOptions.h"

#include <VoAuthCallbackImpl.h>
#include <VoHTTPTransports.h>
#include <base/VoModuleInformation.h>
#include <base/VoSystemProperties.h>

namespace
{
// Options that a transport passes over.
struct CIgnoredOptions
{
    const char* engine;
    std::vector<const char*> options;
    const char* reason;
};

std::vector<CIgnoredOptions> IgnoredOptions()
{
    std::vector<CIgnoredOptions> ignored{ { "wininet",
                                            { "--auth", "--proxy-auth", "--ask", "--proxy", "--pac", "--auto-detect" },
                                            "wininet goes by the system's settings and dialog" } };
    // Older systems leave the proxy of a URL to the proxy store.
    if (VoIsWindows81OrLater())
        for (const char* const engine : { "winhttp", "winhttp-loopback" })
        {
            ignored.push_back({ engine, { "--pac", "--auto-detect" }, "WinHTTP goes by the system's automatic settings" });
            ignored.push_back({ engine, { "--bypass" }, "WinHTTP uses the proxy of --proxy for every host" });
        }
    return ignored;
}
} // namespace

void CConnectionOptions::Declare(COptions& options)
{
    std::vector<std::pair<const char*, std::optional<UINT32>>> engines;
    for (const CVoHTTPTransportRow& transport : VoHTTPTransports())
        engines.emplace_back(transport.name, transport.kind);
    options.AddChoice(
        "--engine", m_engine, std::move(engines),
        "The transport; default: HTTPEngine of ModuleSettings.ini. wininet goes by the system's proxy settings and asks "
        "for credentials in the system's dialog, whatever the options below say. winhttp-loopback calls this machine "
        "localhost.localhost, so that requests to it pass a proxy");
    options.AddFlag("--retry", m_retry, "Repeat a failed attempt until the time-out to connect is spent");
    DeclareShared(options);
    options.Add("--cookies", m_cookies, "Load the cookies from FILE if it exists, and save them there afterwards")
        .TypeName("FILE")
        .NotEmpty();
}

void CConnectionOptions::DeclareShared(COptions& options)
{
    m_options = options;
    options.Add("--connect-timeout", m_connectTimeout, "Seconds to connect; default 30").TypeName("S");
    options.Add("--request-timeout", m_requestTimeout, "Seconds for the whole request; default 60").TypeName("S");
    COption verify = options.AddFlag("--verify", m_verify, "Check the server's certificate; default: the settings' value");
    options.AddFlag("--no-verify", m_noVerify, "Take any certificate").Excludes(verify);
    COption revocation = options.AddFlag("--check-revocation", m_checkRevocation,
                                         "Check that the certificate was not revoked; default: the settings' value");
    options.AddFlag("--no-check-revocation", m_noCheckRevocation, "Do not check it").Excludes(revocation);
    options
        .Add("--auth", m_auth,
             "Answer a server that asks for credentials, once; @FILE reads them from a file, so that they stand on no "
             "command line")
        .TypeName("USER:PASSWORD")
        .NotEmpty();
    options.Add("--proxy-auth", m_proxyAuth, "Answer a proxy that asks for credentials, once; @FILE as above")
        .TypeName("USER:PASSWORD")
        .NotEmpty();
    options.AddFlag(
        "--ask", m_ask,
        "Show a dialog when credentials are needed, instead of those answers. Without any of these three a challenge "
        "is declined");
    m_proxy.Declare(options);
}

UINT32 CConnectionOptions::TransportKind() const
{
    return m_engine.value_or(CVoModuleInformation::Get().HTTPEngine());
}

std::string CConnectionOptions::TransportName() const
{
    const CVoHTTPTransportRow* const transport = VoFindHTTPTransport(TransportKind());
    return transport ? transport->name : "";
}

std::optional<CCredentials> CConnectionOptions::ReadCredentials(CContext& context, const char* option, const std::string& value)
{
    if (value.empty())
        return std::nullopt;
    const CVoSecret<wchar_t> text(context.ReadLineValue(value));
    const size_t separator = text.Get().find(L':');
    if (separator == std::wstring::npos || separator == 0)
        throw CUsageError(std::string(option) + ": the value is not USER:PASSWORD");
    return CCredentials{ text.Get().substr(0, separator), CVoSecret<wchar_t>(text.Get().substr(separator + 1)) };
}

CVoComPtr<CAuthAnswers> CConnectionOptions::MakeAuthAnswers(CContext& context) const
{
    CVoComPtr<IVoAuthenticationCallback> dialog;
    if (m_ask)
        Check(CreateGlobalAuthenticationCallbackForModule(dialog.Put()));
    auto answers = VoMakeComObject<CAuthAnswers>(ReadCredentials(context, "--auth", m_auth),
                                                 ReadCredentials(context, "--proxy-auth", m_proxyAuth), std::move(dialog));
    if (!answers)
        throw std::bad_alloc();
    return answers;
}

std::function<CVoComPtr<IVoAuthenticationCallback>()> CConnectionOptions::MakeAuthAnswersFactory(CContext& context) const
{
    const auto share = [](std::optional<CCredentials> credentials)
    { return std::make_shared<const std::optional<CCredentials>>(std::move(credentials)); };
    const auto copy = [](const std::optional<CCredentials>& c)
    { return c ? std::optional(CCredentials{ c->user, CVoSecret<wchar_t>(c->password.Get()) }) : std::nullopt; };
    CVoComPtr<IVoAuthenticationCallback> dialog;
    if (m_ask)
        Check(CreateGlobalAuthenticationCallbackForModule(dialog.Put()));
    return [copy, dialog, server = share(ReadCredentials(context, "--auth", m_auth)),
            proxy = share(ReadCredentials(context, "--proxy-auth", m_proxyAuth))]() -> CVoComPtr<IVoAuthenticationCallback>
    {
        // Null without memory: challenges are declined then.
        const CVoComPtr<CAuthAnswers> answers = VoMakeComObject<CAuthAnswers>(copy(*server), copy(*proxy), dialog);
        return { answers.Get() };
    };
}

bool CConnectionOptions::Verifies() const
{
    return !m_noVerify && (m_verify || CVoModuleInformation::Get().CheckServerCertificate());
}

bool CConnectionOptions::ChecksRevocation() const
{
    return !m_noCheckRevocation && (m_checkRevocation || CVoModuleInformation::Get().CheckCertificateRevocation());
}

std::shared_ptr<CVoHTTPMessage> CConnectionOptions::Connect(CContext& context, const CServerAddressData& address,
                                                            IVoAuthenticationCallback& answers) const
{
    for (const CIgnoredOptions& ignored : IgnoredOptions())
        for (const char* const option : ignored.options)
            if (ignored.engine == TransportName() && m_options.WasGiven(option))
                context.Remark(std::string(option) + " has no effect: " + ignored.reason);
    std::shared_ptr<CVoHTTPMessage> message;
    Check(CVoHTTPMessage::Connect(TransportKind(), address, &answers, &m_proxy.Apply(context), &context.Process().CookieStore(),
                                  m_connectTimeout, m_requestTimeout, Verifies(), ChecksRevocation(), message));
    return message;
}
