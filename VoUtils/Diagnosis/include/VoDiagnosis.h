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

#include <VoDiagnosisOptions.h>
#include <VoDiagnosisReport.h>

#include <memory>

// Told of every change while a diagnosis runs. The calls come on any thread, one at a time, in no fixed order of the checks.
class IVoDiagnosisObserver
{
public:
    // A check has another state. First each check comes as waiting, in the order of the report. A final state
    // (CVoCheck::IsFinal) comes once.
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
