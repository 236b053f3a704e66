// Counts open WinHTTP handles, for tests that look for leaks.
#pragma once

#include <VoWinHttpInterface.h>

#include <support/ImportHook.h>

namespace TestSupport
{
// The handles of all kinds that have been opened and not closed.
inline CAcquireBalance WinHttpHandleBalance()
{
    auto balance = CAcquireBalance::Of<decltype(&::WinHttpOpen), decltype(&::WinHttpCloseHandle)>("winhttp.dll", "WinHttpOpen",
                                                                                                  "WinHttpCloseHandle");
    balance.AlsoAcquiredBy<decltype(&::WinHttpConnect)>("winhttp.dll", "WinHttpConnect");
    balance.AlsoAcquiredBy<decltype(&::WinHttpOpenRequest)>("winhttp.dll", "WinHttpOpenRequest");
    return balance;
}
} // namespace TestSupport
