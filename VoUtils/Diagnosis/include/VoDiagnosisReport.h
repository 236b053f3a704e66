// The result of a diagnosis: checks, timelines, verdict. The renderers (VoDiagnosisRender.h) show it; front ends read it.
//
// A report may be mailed as it is: it holds no password, no value of a cookie, no query and no Authorization header. Texts that
// a server sent may contain any character; the renderers bound and escape them.
#pragma once

#include <base/VoPlatform.h>

#include <chrono>
#include <optional>
#include <string>
#include <variant>
#include <vector>

enum class EVoCheckStatus
{
    Waiting, // for what it needs, or for other checks that decide how it is judged
    Running,
    Pass,
    Warn,         // works, but should be changed
    Fail,         // must be changed
    Skip,         // something that it needs failed
    NotApplicable // nothing to check here
};

// Where the fault lies.
enum class EVoVerdict
{
    Ok,
    Degraded, // works, something warns
    Settings,
    Address,
    Name,
    Network,
    Proxy,
    Tls,
    Credentials,
    Portal,
    Server
};

// A fact of a check, for machines and for the details of a page. A list of records holds one list of facts for each item.
struct CVoDiagnosisFact
{
    using CRecords = std::vector<std::vector<CVoDiagnosisFact>>;

    std::string key; // of the JSON object: ASCII letters
    std::variant<bool, INT64, std::chrono::microseconds, std::wstring, std::vector<std::wstring>, CRecords> value;
};

struct CVoCheck
{
    std::string id; // "connect", "http-curl"
    std::wstring name;
    EVoCheckStatus status = EVoCheckStatus::Waiting;
    std::string cause;                // of VoDiagnosisCauses.h; empty on a pass
    std::wstring detail;              // the evidence, one sentence
    std::wstring fix;                 // what to do, one sentence; empty when nothing is useful
    std::wstring summary;             // what is wrong, one sentence; empty without a cause
    std::vector<std::wstring> advice; // what to do, one step a sentence; `fix` is the first
    EVoVerdict area = EVoVerdict::Ok; // where the fault of `cause` lies, by the evidence of all checks
    INT64 microseconds = 0;           // that its probe took
    std::vector<CVoDiagnosisFact> facts;

    [[nodiscard]] bool IsFinal() const noexcept
    {
        return status != EVoCheckStatus::Waiting && status != EVoCheckStatus::Running;
    }
};

// The phases of the request over one transport.
struct CVoTimeline
{
    std::string engine; // as front ends call it: "curl"
    HRESULT result = S_OK;
    UINT32 statusCode = 0;
    std::wstring remoteAddress;
    // Microseconds from the start. Nothing for a phase that did not happen or that the service does not tell.
    std::optional<INT64> name;
    std::optional<INT64> connect;
    std::optional<INT64> tls;
    std::optional<INT64> sent;
    std::optional<INT64> firstByte;
    std::optional<INT64> total;
};

struct CVoDiagnosisReport
{
    std::wstring url;  // without its query
    std::wstring time; // of the start: ISO 8601, UTC
    EVoVerdict verdict = EVoVerdict::Ok;
    std::string failedCheck;          // the id of the first check that failed, or empty
    std::string cause;                // of that check
    std::wstring summary;             // one sentence
    std::vector<std::wstring> advice; // one step a sentence
    std::string recommendedEngine;    // a transport that works where the configured one does not, or empty
    std::vector<CVoCheck> checks;     // in their fixed order
    std::vector<CVoTimeline> timelines;
    bool isCancelled = false;
    INT64 microseconds = 0; // of the whole run
};

// "pass", "warn", "fail", "skip", "n/a"; "waiting" and "running" before.
[[nodiscard]] const char* VoCheckStatusName(EVoCheckStatus status) noexcept;
// "ok", "degraded", "settings", ...
[[nodiscard]] const char* VoVerdictName(EVoVerdict verdict) noexcept;
