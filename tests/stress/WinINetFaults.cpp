// What WinINet can fail with. Its header and that of WinHTTP cannot be included in one file.
#include "Allocations.h"

#include <wininet.h>

namespace Stress
{
std::vector<CFault> WinINetFaults()
{
    constexpr DWORD kError = ERROR_INTERNET_INTERNAL_ERROR;
    return {
        VO_FAULT("wininet.dll", InternetOpenW, nullptr, kError),
        VO_FAULT("wininet.dll", InternetConnectW, nullptr, kError),
        VO_FAULT("wininet.dll", HttpOpenRequestW, nullptr, kError),
        VO_FAULT("wininet.dll", InternetSetOptionW, FALSE, kError),
        VO_FAULT("wininet.dll", InternetQueryOptionW, FALSE, kError),
        VO_FAULT("wininet.dll", HttpSendRequestW, FALSE, kError),
        VO_FAULT("wininet.dll", HttpSendRequestExW, FALSE, kError),
        VO_FAULT_GIVES("wininet.dll", HttpQueryInfoW, FALSE, kError, kAnyCode),
        VO_FAULT("wininet.dll", InternetQueryDataAvailable, FALSE, kError),
        VO_FAULT("wininet.dll", InternetReadFile, FALSE, kError),
        // Without the call, Wine gives the response to the next request. The same after a body that was not written:
        // VoHTTPMessageWinINetTest.
        VO_FAULT_AFTER_CALL("wininet.dll", HttpEndRequestW, FALSE, kError),
        VO_FAULT_AFTER_CALL("wininet.dll", InternetCloseHandle, FALSE, kError),
    };
}
} // namespace Stress
