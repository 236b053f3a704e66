// The wizard's files (WizardMemory.h).
#include "WizardMemory.h"

#include <base/VoErrorHandler.h>
#include <base/VoModuleInformation.h>
#include <win/VoUtilFileIO.h>

#include <algorithm>

namespace
{
constexpr const wchar_t* kSection = L"Wizard";

std::wstring KeyOf(size_t index)
{
    return L"Url" + std::to_wstring(index + 1);
}

std::vector<std::wstring> ReadUrls(const CVoIniFileIO& file)
{
    std::vector<std::wstring> urls;
    for (size_t i = 0; i < CWizardMemory::kMaximumUrls; ++i)
        if (const auto url = file.FindValue(kSection, KeyOf(i)); url && !url->empty())
            urls.emplace_back(*url);
    return urls;
}

// The folder of a file that is to be written.
HRESULT MakeFolderOf(const std::wstring& file) noexcept
{
    const std::wstring folder = file.substr(0, file.find_last_of(L'\\'));
    if (::CreateDirectoryW(folder.c_str(), nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS)
        return S_OK;
    return HResultFromLastError();
}
} // namespace

std::wstring CWizardMemory::DefaultFile()
{
    const DWORD size = ::GetEnvironmentVariableW(L"LOCALAPPDATA", nullptr, 0);
    std::wstring folder(size, L'\0');
    // A value that has grown meanwhile gives the size that it needs now.
    const DWORD length = size != 0 ? ::GetEnvironmentVariableW(L"LOCALAPPDATA", folder.data(), size) : 0;
    folder.resize(length < size ? length : 0);
    return folder.empty() ? folder : folder + L"\\VoUtils\\Wizard.ini";
}

std::vector<std::wstring> CWizardMemory::Urls() const
{
    CVoIniFileIO file;
    if (m_file.empty() || FAILED(file.Open(m_file, true)))
        return {};
    return ReadUrls(file);
}

HRESULT CWizardMemory::Remember(const std::wstring& url) const noexcept
try
{
    if (m_file.empty() || url.empty())
        return S_FALSE;
    if (const HRESULT hr = MakeFolderOf(m_file); FAILED(hr))
        return hr;
    CVoIniFileIO file;
    if (const HRESULT hr = file.Open(m_file, true); FAILED(hr))
        return hr;
    std::vector<std::wstring> urls = ReadUrls(file);
    std::erase(urls, url);
    urls.insert(urls.begin(), url);
    urls.resize(std::min(urls.size(), kMaximumUrls));
    for (size_t i = 0; i < urls.size(); ++i)
        if (const HRESULT hr = file.SetValue(kSection, KeyOf(i), urls[i]); FAILED(hr))
            return hr;
    return file.Save();
}
catch (...)
{
    return HResultFromCurrentException();
}

std::wstring CWizardMemory::SettingsFile()
{
    return VoModuleSettingsDirectory() + L"\\ModuleSettings.ini";
}

HRESULT CWizardMemory::WriteEngine(UINT32 kind) noexcept
try
{
    CVoIniFileIO file;
    if (const HRESULT hr = file.Open(SettingsFile(), true); FAILED(hr))
        return hr;
    if (const HRESULT hr = file.SetValue(L"SETTINGS", L"HTTPEngine", std::to_wstring(kind)); FAILED(hr))
        return hr;
    if (const HRESULT hr = file.Save(); FAILED(hr))
        return hr;
    CVoModuleInformation::Get().SetHTTPEngine(kind);
    return S_OK;
}
catch (...)
{
    return HResultFromCurrentException();
}
