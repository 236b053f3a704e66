#include "support/ImportHook.h"
#include "support/PlatformProxy.h"

#include <wininet.h>

std::shared_ptr<void> TestSupport::WinINetSessionsUse(std::wstring proxy)
{
    return std::make_shared<CCallHook<decltype(&::InternetOpenW)>>(
        "wininet.dll", "InternetOpenW",
        [proxy = std::move(proxy)](auto original, LPCWSTR agent, DWORD, LPCWSTR, LPCWSTR bypass, DWORD flags)
    { return original(agent, INTERNET_OPEN_TYPE_PROXY, proxy.c_str(), bypass, flags); });
}
