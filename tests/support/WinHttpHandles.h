// What tests count of WinHTTP's handles.
#pragma once

#include <VoWinHttpInterface.h>

#include <support/ImportHook.h>

namespace TestSupport
{
// The handles of every kind that were opened and not closed since.
inline CAcquireBalance WinHttpHandleBalance()
{
    auto balance = CAcquireBalance::Of<decltype(&::WinHttpOpen), decltype(&::WinHttpCloseHandle)>("winhttp.dll", "WinHttpOpen",
                                                                                                  "WinHttpCloseHandle");
    balance.AlsoAcquiredBy<decltype(&::WinHttpConnect)>("winhttp.dll", "WinHttpConnect");
    balance.AlsoAcquiredBy<decltype(&::WinHttpOpenRequest)>("winhttp.dll", "WinHttpOpenRequest");
    return balance;
}
} // namespace TestSupport
