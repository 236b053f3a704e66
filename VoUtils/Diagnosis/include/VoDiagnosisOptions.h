// What a diagnosis is to check, and how.
#pragma once

#include <VoGlobalHTTPProxyStoreImpl.h>
#include <VoHTTPStores.h>
#include <base/com/VoIUnknown.h>

#include <functional>
#include <string>
#include <vector>

struct CVoDiagnosisOptions
{
    std::wstring url;

    // The transport kinds to try (VoHTTPTransports.h). Empty: the three kinds 0, 1 and 2; a transport that fails beside a
    // configured one that works is then only a warning.
    std::vector<UINT32> engines;
    // The transport that the program uses: one of the kinds. The verdict is about it.
    UINT32 configuredEngine = 0;

    // The proxies to use. Null: a store of the diagnosis' own with the user's Internet settings.
    CVoComPtr<CVoGlobalHTTPProxyStoreImpl> proxyStore;
    bool isProxyGiven = false; // the store was configured by the caller, not by the user's Internet settings
    std::wstring proxyScript;  // with isProxyGiven: the address of the script that the store uses; empty: none

    bool verifyServerCertificate = true;
    bool checkRevocation = false;
    UINT32 connectTimeout = 30; // seconds, of the requests; `probeTimeout` bounds them, too
    UINT32 requestTimeout = 60;
    UINT32 probeTimeout = 10; // seconds: the longest that one probe may take

    // Makes the callback that answers the challenges of one request; null, or a null result: challenges are declined. Called
    // once for each transport, on any thread.
    std::function<CVoComPtr<IVoAuthenticationCallback>()> makeAuthCallback;
    // Whether dialogs may be shown. Without it the system's own dialog, which WinINet shows for a 401 or 407, is kept away.
    bool mayAsk = false;
    // Whether a question is open. The time of a request does not run out meanwhile. Null: none ever is. Called on the thread of
    // Run, about once a second.
    std::function<bool()> isAsking;

    bool post = false; // send a POST without a body; else a GET
};
