// address, resolve, proxy, cookies: what the library makes of URLs, names and cookies, without sending a request.
#include "Console.h"
#include "CookieFile.h"
#include "ProxyOptions.h"

#include <VoGlobalHTTPUtils.h>
#include <VoNetworkUtils.h>
#include <base/VoUtils.h>
#include <base/com/VoComHelper.h>

#include <array>

namespace
{
class CAddressCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("URL", m_url, "[http[s]://]HOST[:PORT][/PATH][?QUERY]; an IPv6 address in brackets").Required();
        options.AddFlag("--default-secure", m_defaultSecure, "A text without a scheme means https");
        options.AddFlag("--no-path", m_noPath, "Keep neither path nor query");
        options.AddFlag("--no-query", m_noQuery, "Keep no query");
        options.SetFooter(
            "Prints JSON: host, path, query, secure, port (0: the scheme's default) and the texts made of them: authority, "
            "baseURL, pathURL, fullURL, objectName.\n");
    }
    void Run(CContext& context) override
    {
        CServerAddressData address;
        Check(address.SetAddress(context.ReadValue(m_url), m_defaultSecure, !m_noPath, !m_noQuery));
        context.PutObject({ { "host", ToUtf8(address.Host()) },
                            { "path", ToUtf8(address.Path()) },
                            { "query", ToUtf8(address.Query()) },
                            { "secure", address.IsSecure() },
                            { "port", address.Port() },
                            { "authority", ToUtf8(address.Authority()) },
                            { "baseURL", ToUtf8(address.BaseURL()) },
                            { "pathURL", ToUtf8(address.PathURL()) },
                            { "fullURL", ToUtf8(address.FullURL()) },
                            { "objectName", ToUtf8(address.ObjectName()) } });
    }

private:
    std::string m_url;
    bool m_defaultSecure = false;
    bool m_noPath = false;
    bool m_noQuery = false;
};

class CResolveCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("HOST", m_host, "A host name, or an IPv4 or IPv6 address").Required();
        options.SetFooter(
            "Prints JSON: address, ipv6, private (whether the address belongs to a private or link-local network).\n");
    }
    void Run(CContext& context) override
    {
        VoNetworkUtils::CVoIPAddress resolved;
        bool found = false;
        Check(resolved.InitFromDNSAddress(FromUtf8(m_host), false, found));
        // A resolved record holds other bytes than the address (see CVoIPAddress). Its text is exact.
        VoNetworkUtils::CVoIPAddress address;
        Check(address.InitFromIPAddress(resolved.Text()));
        context.PutObject(
            { { "address", ToUtf8(address.Text()) }, { "ipv6", address.IsIPv6() }, { "private", address.IsPrivateAddress() } });
    }

private:
    std::string m_host;
};

class CProxyCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("URL", m_url, "The URL that a request would go to").Required();
        m_options.Declare(options);
        options.SetFooter("Prints JSON: proxy (\"\" is a direct connection), user (of the credentials known for it, or \"\"); "
                          "how the store decided: "
                          "source (none, manual, bypass, script, detection), rule (the bypass rule, or the list that the proxy "
                          "is from), script, "
                          "tried (what took time: what, result, ms).\n");
    }
    void Run(CContext& context) override
    {
        // An empty URL has another meaning for the store.
        const std::wstring url = context.ReadValue(m_url);
        if (url.empty())
            Check(E_INVALIDARG);
        CVoBstr proxy;
        CVoBstr user;
        CVoBstr password;
        // Before the answer is known, so that the script runs once.
        CVoProxyExplanation explanation;
        CVoGlobalHTTPProxyStoreImpl& store = m_options.Apply(context);
        Check(store.ExplainProxyForUrl(url, explanation));
        Check(store.GetProxyForUrl(CVoBstr(url).Get(), proxy.Put(), user.Put(), password.Put()));
        VoWipe(password.Get());
        CJson tried = CJson::array();
        for (const CVoProxyExplanation::CTried& step : explanation.tried)
            tried.push_back({ { "what", ToUtf8(step.what) },
                              { "result", ResultCode(step.result) },
                              { "ms", static_cast<double>(step.microseconds) / 1000 } });
        context.PutObject({ { "proxy", ToUtf8(proxy.View()) },
                            { "user", ToUtf8(user.View()) },
                            { "source", ToUtf8(explanation.SourceName()) },
                            { "rule", ToUtf8(explanation.rule) },
                            { "script", ToUtf8(explanation.script) },
                            { "tried", std::move(tried) } });
    }

private:
    std::string m_url;
    CProxyOptions m_options;
};

class CCookiesCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("--jar", m_jar, "Load the cookies from FILE if it exists, and save them there afterwards")
            .TypeName("FILE")
            .NotEmpty();
        options.SetFooter(
            "Each line of standard input is one JSON object: {\"set\": SET_COOKIE_VALUE, \"url\": URL}, {\"get\": URL} or "
            "{\"clear\": true}. Each is answered with one: {\"result\": \"0x00000000\"}, with \"error\" on failure and for a "
            "get "
            "with \"cookie\", the Cookie header's value.\n");
    }
    void Run(CContext& context) override
    {
        context.CheckOutputFile(m_jar);
        LoadCookies(context, m_jar);
        context.SetWritesLines();
        CLineReader lines(context.Streams().in);
        for (std::string line; lines.Next(line);)
            context.Streams().out.Write(JsonLine(RunLine(context, line)));
        SaveCookies(context, m_jar);
    }

private:
    static CJson RunLine(CContext& context, const std::string& line)
    {
        CJson output = CJson::object();
        HRESULT result = S_OK;
        try
        {
            result = Do(context, CJson::parse(line, nullptr, false), output);
        }
        catch (const CVoHResultException& failure)
        {
            result = failure.Result();
        }
        output["result"] = ResultCode(result);
        if (FAILED(result))
            output["error"] = ErrorLine(result);
        return output;
    }

    static HRESULT Do(CContext& context, const CJson& request, CJson& output)
    {
        IVoHTTPCookieStore& store = context.Process().CookieStore();
        if (const std::optional<std::wstring> url = Text(request, "get"))
        {
            const bool secure = VoStartsWithNoCase(*url, L"https://");
            CVoBstr cookie;
            const HRESULT hr =
                store.GetCookieStringForHTTPRequest(CVoBstr(*url).Get(), secure ? VARIANT_TRUE : VARIANT_FALSE, cookie.Put());
            if (SUCCEEDED(hr))
                output["cookie"] = ToUtf8(cookie.View());
            return hr;
        }
        const std::optional<std::wstring> value = Text(request, "set");
        const std::optional<std::wstring> url = Text(request, "url");
        if (value && url)
            return store.AddCookieFromString(CVoBstr(*value).Get(), CVoBstr(*url).Get());
        if (request.is_object() && request.value("clear", CJson()) == true)
            return store.Clear();
        return E_INVALIDARG;
    }

    static std::optional<std::wstring> Text(const CJson& object, const char* key)
    {
        if (!object.is_object() || !object.contains(key) || !object[key].is_string())
            return std::nullopt;
        return FromUtf8(object[key].get_ref<const std::string&>());
    }

    std::string m_jar;
};
} // namespace

std::span<const CCommandEntry> AddressCommands()
{
    static constexpr std::array kCommands{
        CCommandEntry{ nullptr, "address", "Take a server's URL apart", MakeCommand<CAddressCommand> },
        CCommandEntry{ nullptr, "resolve", "Find the address of a host", MakeCommand<CResolveCommand> },
        CCommandEntry{ nullptr, "proxy", "Find the proxy that a request to a URL would use", MakeCommand<CProxyCommand> },
        CCommandEntry{ nullptr, "cookies", "Feed Set-Cookie values to the cookie store and ask it",
                       MakeCommand<CCookiesCommand> },
    };
    return kCommands;
}
