// --proxy, --bypass, --pac, --auto-detect and --no-proxy.
#include "ProxyOptions.h"

#include <VoGlobalHTTPUtils.h>
#include <VoProxyList.h>

void CProxyOptions::Declare(COptions& options)
{
    COption list =
        options.Add("--proxy", m_proxy,
                    "The proxies to use, as the Internet settings list them: HOST:PORT, or http=HOST:PORT;https=HOST:PORT");
    list.TypeName("LIST").NotEmpty();
    options
        .Add("--bypass", m_bypass,
             "The hosts that are reached without that proxy; * is any part, <local> every name without a dot")
        .TypeName("LIST")
        .Needs(list);
    COption script = options.Add("--pac", m_pac, "The address of a proxy script");
    script.TypeName("URL").NotEmpty().Excludes(list);
    COption detection = options.AddFlag("--auto-detect", m_autoDetect, "Find the proxy script in the network");
    detection.Excludes(list).Excludes(script);
    options.AddFlag("--no-proxy", m_noProxy, "Connect directly; default: the user's Internet settings")
        .Excludes(list)
        .Excludes(script)
        .Excludes(detection);
}

CVoGlobalHTTPProxyStoreImpl& CProxyOptions::Apply(CContext& context) const
{
    CHTTPProxyConfigData config;
    if (m_autoDetect)
        config.autoDetect = true;
    else if (!m_pac.empty())
    {
        config.pacFileUrl = FromUtf8(m_pac);
        CServerAddressData address;
        // The platform needs the scheme, too.
        if (config.pacFileUrl.find(L"://") == std::wstring::npos ||
            FAILED(address.SetAddress(config.pacFileUrl, false, true, true)))
            throw CUsageError("--pac: the value is no http or https URL");
    }
    else if (!m_proxy.empty())
    {
        config.manualProxy = FromUtf8(m_proxy);
        config.manualProxyBypassList = FromUtf8(m_bypass);
        if (const auto problem = VoProxyList::FindProblem(config.manualProxy))
            throw CUsageError(problem->number == 0
                                  ? "--proxy: the value names no proxy for http or https"
                                  : "--proxy: entry " + std::to_string(problem->number) + ": " + ToUtf8(problem->reason));
    }
    else if (!m_noProxy)
    {
        const HRESULT hr = config.InitFromIE();
        Check(hr);
        if (hr == S_FALSE)
            context.Remark(
                "proxies of the Internet settings that cannot be used are left out; more about it stands in the log");
    }
    CVoGlobalHTTPProxyStoreImpl& store = context.Process().ProxyStore();
    Check(store.Init(config));
    return store;
}
