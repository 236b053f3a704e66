// The record of this module (VoModuleInformation.h).
#include <base/VoModuleInformation.h>

#include "VoModuleVersion.h"
#include "VoNeverDestroyed.h"

#include <base/VoErrorHandler.h>

CVoModuleInformation& CVoModuleInformation::Get() noexcept
{
    static CVoNeverDestroyed<CVoModuleInformation> record;
    return record.Get();
}

CVoModuleInformation::CVoModuleInformation() noexcept : m_version(L"UNKNOWN")
{
    const CVoErrorLogFile& log = VoErrorLog();
    const CVoModuleSettings& settings = log.Settings();
    m_httpEngine = settings.httpEngine;
    m_checkServerCertificate = settings.checkServerCertificate;
    m_checkCertificateRevocation = settings.checkCertificateRevocation;
    try
    {
        m_targetName = log.ModuleName();
        CVoModuleVersion version = VoReadModuleVersion(VoOwnModule());
        m_version = std::move(version.version);
        m_debug = version.debug;
    }
    catch (...)
    {
        CVoReporter(L"..\\..\\source\\base\\VoModuleInformation", L"CVoModuleInformation::CVoModuleInformation")
            .CurrentException(70);
    }
}
