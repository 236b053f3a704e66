#include "support/ImportHook.h"
#include "support/SessionProxy.h"

#include <winhttp.h>

std::shared_ptr<void> TestSupport::WinHTTPSessionsUse(std::wstring proxy)
{
    return std::make_shared<CCallHook<decltype(&::WinHttpOpen)>>(
        "winhttp.dll", "WinHttpOpen",
        [proxy = std::move(proxy)](auto original, LPCWSTR agent, DWORD, LPCWSTR, LPCWSTR bypass, DWORD flags)
    { return original(agent, WINHTTP_ACCESS_TYPE_NAMED_PROXY, proxy.c_str(), bypass, flags); });
}
