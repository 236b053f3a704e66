// The settings that ModuleSettings.ini holds. The log and the HTTP layer read them once per process.
#pragma once

#include <base/VoPlatform.h>

#include <string>
#include <vector>

// The settings, with the defaults that hold where a key is missing or its value does not parse.
struct CVoModuleSettings
{
    bool applicationLog = false;             // DEBUG/APPLOG
    bool otherLog = false;                   // DEBUG/OTHERLOG; read and stored for the application
    bool cutOff = true;                      // DEBUG/APPLOGCUTOFF
    INT32 cutOffSizeKiB = 8192;              // DEBUG/APPLOGCUTOFFSIZEINKBYTE, 8192..1048576
    bool useTempDirectory = true;            // DEBUG/UseTempDirectory
    std::wstring directory;                  // DEBUG/Directory
    std::wstring versionString;              // DEBUG/VersionString
    bool appendVersionToDirectory = false;   // DEBUG/AppendSoftwareVersionToLogDir
    bool localizerGenerate = false;          // OrvLocalizer/Generate; read and stored for the application
    bool needWatchdog = true;                // WatchDogSettings/NeedWatchDog; read and stored for the application
    UINT32 httpEngine = 0;                   // SETTINGS/HTTPEngine, 0..3
    bool checkServerCertificate = true;      // SETTINGS/HTTPCheckServerCert
    bool checkCertificateRevocation = false; // SETTINGS/HTTPCheckServerCertRevocation
};

// Reads ModuleSettings.ini in the given folder. A missing file or key, or a value that does not parse, leaves the default.
// Values out of range are clamped as noted above; an HTTPEngine out of range is 0. `remarks` (may be null) receives one text
// for each value that does not parse, for the log. Throws std::bad_alloc.
[[nodiscard]] CVoModuleSettings VoReadModuleSettings(const std::wstring& directory,
                                                     std::vector<std::wstring>* remarks = nullptr);
