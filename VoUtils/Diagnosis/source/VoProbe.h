// The probes: thin collectors of facts. Each runs on a thread of its own, reads a copy of the facts that were known when it
// began, and gives a function that puts what it found into the facts. It ends when it is stopped or its time is over, as far as
// the platform lets it.
#pragma once

#include "VoDiagnosisFacts.h"
#include "VoProbeSocket.h"

#include <VoDiagnosisOptions.h>

#include <base/VoLock.h>
#include <base/VoMultiThreading.h>

#include <functional>
#include <memory>
#include <vector>

namespace VoDiagnosis
{
// Stops a probe. Any thread.
class CStop
{
public:
    [[nodiscard]] HANDLE Event() const noexcept { return m_event.Handle(); }
    // Sets the event and calls the hook, once.
    void Signal() noexcept;
    // What else is to be done when the probe is stopped; called at once when it is already.
    void SetHook(std::function<void()> hook);

private:
    CEvent m_event{ false, true };
    CVoLock m_lock;
    bool m_isSignalled = false;
    std::function<void()> m_hook;
};

struct CProbeContext
{
    std::shared_ptr<CStop> stop;
    INT64 deadline = 0; // VoGetMicroseconds
    std::shared_ptr<const CVoDiagnosisOptions> options;
    CVoComPtr<CVoGlobalHTTPProxyStoreImpl> proxyStore;
    CFacts facts;

    [[nodiscard]] CWaitLimit Limit() const noexcept { return { stop->Event(), deadline }; }
};
using CApply = std::function<void(CFacts&)>;

struct CProbeRow
{
    EProbe probe;
    std::vector<EProbe> needs; // that must be over before
    bool (*applies)(const CFacts&);
    CApply (*collect)(const CProbeContext&);
};
// The probes below HTTP. The address is read before any of them.
[[nodiscard]] const std::vector<CProbeRow>& Probes();

// The request over the transport number `index` of the facts.
[[nodiscard]] CApply CollectHttp(const CProbeContext& context, size_t index);
// The certificate and the handshake; the connection is made by the caller's rules (through the proxy or directly).
[[nodiscard]] CApply CollectTls(const CProbeContext& context);

// Opens a connection to the server: to its first address that accepts one, or through the proxy by CONNECT.
[[nodiscard]] EOutcome OpenConnection(const CProbeContext& context, CProbeSocket& socket);
// "host:port", with brackets for an IPv6 address.
[[nodiscard]] std::string AuthorityOf(const CAddressFacts& address);
// ASCII of a text that has no other characters, as heads of requests need it; others become "?".
[[nodiscard]] std::string AsciiOf(std::wstring_view text);
} // namespace VoDiagnosis
