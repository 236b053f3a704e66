// The record of this module: its name, its version, its debug flag, and the HTTP settings. The HTTP layer reads it.
#pragma once

#include <base/VoPlatform.h>

#include <atomic>
#include <string>

template <class T>
class CVoNeverDestroyed;

// One record for the process, made by the first query, which reads ModuleSettings.ini (see VoErrorHandler.h) and the module's
// VERSIONINFO resource. Names are fixed from then on; the switches may be changed at any time by any thread and hold for the
// connections made afterwards.
class CVoModuleInformation
{
public:
    [[nodiscard]] static CVoModuleInformation& Get() noexcept;

    // The module's file name without folder and extension.
    [[nodiscard]] const std::wstring& TargetName() const noexcept { return m_targetName; }
    // "FileVersion" of the VERSIONINFO resource as it stands there (four numbers joined with ","); "UNKNOWN" without one.
    [[nodiscard]] const std::wstring& Version() const noexcept { return m_version; }

    // Whether the data logs are written. Initially the VS_FF_DEBUG flag of the VERSIONINFO resource.
    [[nodiscard]] bool IsDebug() const noexcept { return m_debug.load(std::memory_order_relaxed); }
    void SetDebug(bool debug) noexcept { m_debug.store(debug, std::memory_order_relaxed); }

    // The HTTP transport kind: 0 WinINet, 1 WinHTTP, 2 libcurl, 3 WinHTTP with the loopback rewritten. Initially `HTTPEngine`.
    [[nodiscard]] UINT32 HTTPEngine() const noexcept { return m_httpEngine.load(std::memory_order_relaxed); }
    void SetHTTPEngine(UINT32 kind) noexcept { m_httpEngine.store(kind, std::memory_order_relaxed); }

    // The two certificate switches as the settings give them: the values that callers pass on to a connection.
    [[nodiscard]] bool CheckServerCertificate() const noexcept { return m_checkServerCertificate; }
    [[nodiscard]] bool CheckCertificateRevocation() const noexcept { return m_checkCertificateRevocation; }

    CVoModuleInformation(const CVoModuleInformation&) = delete;
    CVoModuleInformation& operator=(const CVoModuleInformation&) = delete;

private:
    friend class CVoNeverDestroyed<CVoModuleInformation>;

    CVoModuleInformation() noexcept;

    std::wstring m_targetName;
    std::wstring m_version;
    std::atomic<bool> m_debug{ false };
    std::atomic<UINT32> m_httpEngine{ 0 };
    bool m_checkServerCertificate = true;
    bool m_checkCertificateRevocation = false;
};
