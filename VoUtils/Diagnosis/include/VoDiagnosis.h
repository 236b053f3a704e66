// The connection doctor: why does a connection fail, and what must be changed, where?
//
//     CVoDiagnosisOptions options;
//     options.url = L"https://server.example/service";
//     CVoDiagnosis diagnosis(options);
//     CVoDiagnosisReport report;
//     const HRESULT hr = diagnosis.Run(nullptr, report);
//
// It probes each step of a connection side by side, sends the request through each transport, and judges what it saw. Nothing
// is changed on the machine. The front ends `voutils doctor` and the wizard are built on it.
#pragma once

#include <VoDiagnosisReport.h>
#include <VoGlobalHTTPProxyStoreImpl.h>
#include <VoHTTPStores.h>
#include <base/com/VoIUnknown.h>

#include <functional>
#include <memory>
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

    bool post = false; // send a POST without a body; else a GET
};

// Told of every change while a diagnosis runs. The calls come on any thread, one at a time, in no fixed order of the checks.
class IVoDiagnosisObserver
{
public:
    // A check has another state. A final state (CVoCheck::IsFinal) comes once.
    virtual void OnCheck(const CVoCheck& check) noexcept = 0;

protected:
    ~IVoDiagnosisObserver() = default;
};

// One diagnosis. The object may be destroyed at any time that Run does not run.
class CVoDiagnosis
{
public:
    explicit CVoDiagnosis(CVoDiagnosisOptions options); // throws std::bad_alloc or CVoHResultException
    ~CVoDiagnosis();
    CVoDiagnosis(const CVoDiagnosis&) = delete;
    CVoDiagnosis& operator=(const CVoDiagnosis&) = delete;

    // Probes and judges; blocks until every probe has ended or has used its time. Call it once. A probe that a service of the
    // platform holds for longer is left behind on its thread, which ends by itself and uses nothing of this object.
    // S_OK: the report is complete, whatever it found. 0x800704C7: cancelled; the report holds what was known. E_INVALIDARG: an
    // unknown transport, or a time-out of 0. E_UNEXPECTED: a second call. E_OUTOFMEMORY. `report` is untouched on other
    // failures.
    [[nodiscard]] HRESULT Run(IVoDiagnosisObserver* observer, CVoDiagnosisReport& report) noexcept;
    // Ends the run within 200 ms. Any thread, at any time, also before Run, also more than once.
    void Cancel() noexcept;

    // Whether a probe of any diagnosis of the process still runs, left behind on its thread. A program that ends then should
    // end by TerminateProcess, so that nothing is destroyed under the thread. Any thread.
    [[nodiscard]] static bool HasThreadsLeft() noexcept;

private:
    struct CState;
    std::shared_ptr<CState> m_state;
};
