// Reads ModuleSettings.ini (VoModuleSettings.h).
#include <base/VoModuleSettings.h>

#include "VoProfile.h"
#include "VoSystemPaths.h"

#include <base/VoText.h>

#include <algorithm>
#include <optional>

namespace
{
constexpr INT32 kMinCutOffKiB = 8192;
constexpr INT32 kMaxCutOffKiB = 1048576;
constexpr INT32 kMaxHTTPEngine = 3;

// Reads the values of one file; a value that is missing or does not parse leaves what the caller passed in.
class CSettingsReader
{
public:
    CSettingsReader(std::wstring file, std::vector<std::wstring>* remarks) : m_file(std::move(file)), m_remarks(remarks) {}

    void Read(const wchar_t* section, const wchar_t* key, bool& value) const { ReadAs(section, key, VoParseBool, value); }
    void Read(const wchar_t* section, const wchar_t* key, INT32& value) const
    {
        ReadAs(section, key, [](const std::wstring& text) { return VoProfile::ParseInteger(text); }, value);
    }
    void Read(const wchar_t* section, const wchar_t* key, std::wstring& value) const
    {
        if (std::optional<std::wstring> text = VoProfile::ReadValue(m_file, section, key))
            value = std::move(*text);
    }

private:
    template <class Value, class Parse>
    void ReadAs(const wchar_t* section, const wchar_t* key, Parse parse, Value& value) const
    {
        const std::optional<std::wstring> text = VoProfile::ReadValue(m_file, section, key);
        if (!text)
            return;
        if (const std::optional<Value> parsed = parse(*text))
            value = *parsed;
        else if (m_remarks)
            m_remarks->push_back(VoFormat(L"Setting [%ls] %ls=%ls does not parse, the default %d holds", section, key,
                                          text->c_str(), static_cast<int>(value)));
    }

    std::wstring m_file;
    std::vector<std::wstring>* m_remarks;
};
} // namespace

CVoModuleSettings VoReadModuleSettings(const std::wstring& directory, std::vector<std::wstring>* remarks)
{
    // The profile functions look for a path that is not full in the Windows folder.
    const CSettingsReader reader(VoSystemPaths::FullPath(directory + L"\\ModuleSettings.ini"), remarks);
    CVoModuleSettings s;
    reader.Read(L"DEBUG", L"APPLOG", s.applicationLog);
    reader.Read(L"DEBUG", L"OTHERLOG", s.otherLog);
    reader.Read(L"DEBUG", L"APPLOGCUTOFF", s.cutOff);
    reader.Read(L"DEBUG", L"UseTempDirectory", s.useTempDirectory);
    reader.Read(L"DEBUG", L"APPLOGCUTOFFSIZEINKBYTE", s.cutOffSizeKiB);
    s.cutOffSizeKiB = std::clamp(s.cutOffSizeKiB, kMinCutOffKiB, kMaxCutOffKiB);
    reader.Read(L"DEBUG", L"Directory", s.directory);
    reader.Read(L"DEBUG", L"VersionString", s.versionString);
    reader.Read(L"DEBUG", L"AppendSoftwareVersionToLogDir", s.appendVersionToDirectory);
    reader.Read(L"OrvLocalizer", L"Generate", s.localizerGenerate);
    reader.Read(L"WatchDogSettings", L"NeedWatchDog", s.needWatchdog);
    INT32 engine = 0;
    reader.Read(L"SETTINGS", L"HTTPEngine", engine);
    s.httpEngine = engine >= 0 && engine <= kMaxHTTPEngine ? static_cast<UINT32>(engine) : 0;
    reader.Read(L"SETTINGS", L"HTTPCheckServerCert", s.checkServerCertificate);
    reader.Read(L"SETTINGS", L"HTTPCheckServerCertRevocation", s.checkCertificateRevocation);
    return s;
}
