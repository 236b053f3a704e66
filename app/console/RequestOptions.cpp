#include "RequestOptions.h"

#include <VoAuthCallbackImpl.h>
#include <base/VoErrorHandler.h>
#include <base/VoModuleInformation.h>

#include <array>

namespace
{
// By their number in the setting HTTPEngine.
constexpr std::array<const char*, 4> kEngineNames{ "wininet", "winhttp", "curl", "winhttp-loopback" };
} // namespace

CEngineChoice::CEngineChoice(std::optional<UINT32> kind) noexcept : m_previous(CVoModuleInformation::Get().HTTPEngine())
{
    const UINT32 chosen = kind.value_or(m_previous);
    CVoModuleInformation::Get().SetHTTPEngine(chosen);
    m_name = chosen < kEngineNames.size() ? kEngineNames[chosen] : "";
}

CEngineChoice::~CEngineChoice()
{
    CVoModuleInformation::Get().SetHTTPEngine(m_previous);
}

void CConnectionOptions::Declare(CLI::App& app)
{
    std::vector<std::pair<const char*, std::optional<UINT32>>> engines;
    engines.reserve(kEngineNames.size());
    for (UINT32 i = 0; i < kEngineNames.size(); ++i)
        engines.emplace_back(kEngineNames[i], i);
    AddChoice(app, "--engine", m_engine, std::move(engines),
              "The transport; default: HTTPEngine of ModuleSettings.ini. wininet goes by the system's proxy settings and asks "
              "for credentials in the system's dialog, whatever the options below say. winhttp-loopback calls this machine "
              "localhost.localhost, so that requests to it pass a proxy");
    m_app = &app;
    app.add_flag("--retry", m_retry, "Repeat a failed attempt until the time-out to connect is spent");
    app.add_option("--connect-timeout", m_connectTimeout, "Seconds to connect; default 30")->type_name("S");
    app.add_option("--request-timeout", m_requestTimeout, "Seconds for the whole request; default 60")->type_name("S");
    CLI::Option* const verify =
        app.add_flag("--verify", m_verify, "Check the server's certificate; default: the settings' value");
    app.add_flag("--no-verify", m_noVerify, "Take any certificate")->excludes(verify);
    CLI::Option* const revocation = app.add_flag("--check-revocation", m_checkRevocation,
                                                 "Check that the certificate was not revoked; default: the settings' value");
    app.add_flag("--no-check-revocation", m_noCheckRevocation, "Do not check it")->excludes(revocation);
    app.add_option("--auth", m_auth,
                   "Answer a server that asks for credentials, once; @FILE reads them from a file, so that they stand on no "
                   "command line")
        ->type_name("USER:PASSWORD")
        ->check(kNotEmpty);
    app.add_option("--proxy-auth", m_proxyAuth, "Answer a proxy that asks for credentials, once; @FILE as above")
        ->type_name("USER:PASSWORD")
        ->check(kNotEmpty);
    app.add_flag("--ask", m_ask,
                 "Show a dialog when credentials are needed, instead of those answers. Without any of these three a challenge "
                 "is declined");
    m_proxy.Declare(app);
    app.add_option("--cookies", m_cookies, "Load the cookies from FILE if it exists, and save them there afterwards")
        ->type_name("FILE")
        ->check(kNotEmpty);
}

std::optional<CCredentials> CConnectionOptions::ReadCredentials(CContext& context, const char* option, const std::string& value)
{
    if (value.empty())
        return std::nullopt;
    CVoSecret<wchar_t> text(context.ReadValue(value));
    // A file's last line has an end that is no part of the password.
    while (text.Get().ends_with(L'\n') || text.Get().ends_with(L'\r'))
        text.Get().pop_back();
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

std::shared_ptr<CVoHTTPMessage> CConnectionOptions::Connect(CContext& context, const CServerAddressData& address,
                                                            IVoAuthenticationCallback& answers) const
{
    const CVoModuleInformation& settings = CVoModuleInformation::Get();
    if (settings.HTTPEngine() == 0)
        for (const char* const option : { "--auth", "--proxy-auth", "--ask", "--proxy", "--pac", "--auto-detect" })
            if (m_app->count(option) != 0)
                context.Remark(std::string(option) + " has no effect: wininet goes by the system's settings and dialog");
    const bool verify = !m_noVerify && (m_verify || settings.CheckServerCertificate());
    const bool revocation = !m_noCheckRevocation && (m_checkRevocation || settings.CheckCertificateRevocation());
    std::shared_ptr<CVoHTTPMessage> message;
    Check(CVoHTTPMessage::Connect(address, &answers, &m_proxy.Apply(context), &context.Process().CookieStore(),
                                  m_connectTimeout, m_requestTimeout, verify, revocation, message));
    return message;
}
