// What the wizard keeps on disk: the last URLs, in a file of the user, and the transport, in the program's settings. No
// credentials, and no query of a URL: it may hold secrets.
#pragma once

#include <base/VoPlatform.h>

#include <string>
#include <vector>

class CWizardMemory
{
public:
    static constexpr size_t kMaximumUrls = 8;

    // `file` keeps the URLs; it need not exist. An empty path keeps nothing.
    explicit CWizardMemory(std::wstring file) : m_file(std::move(file)) {}

    // "VoUtils\Wizard.ini" in the user's folder for application data that stays on this machine; empty when there is none.
    // Throws std::bad_alloc.
    [[nodiscard]] static std::wstring DefaultFile();

    // The last URLs, the newest first; none when the file cannot be read. Throws std::bad_alloc.
    [[nodiscard]] std::vector<std::wstring> Urls() const;
    // Puts a URL in front of the others. The codes of CVoIniFileIO.
    HRESULT Remember(const std::wstring& url) const noexcept;

    // The program's ModuleSettings.ini. Throws std::bad_alloc.
    [[nodiscard]] static std::wstring SettingsFile();
    // Writes HTTPEngine to it, for this process and for those that start later. The codes of CVoIniFileIO.
    [[nodiscard]] static HRESULT WriteEngine(UINT32 kind) noexcept;

private:
    std::wstring m_file;
};
