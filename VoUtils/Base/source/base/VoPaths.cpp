// Paths that report their failures (VoPaths.h).
#include <base/VoPaths.h>

#include "VoSystemPaths.h"

#include <base/VoErrorHandler.h>

namespace
{
constexpr const wchar_t* kPathsSource = L"..\\..\\source\\base\\VoUtils";
} // namespace

HRESULT GetModuleDirAndFileName(HMODULE module, std::wstring* directory, std::wstring* fileName) noexcept
{
    constexpr CVoReporter report{ kPathsSource, L"GetModuleDirAndFileName" };
    const auto body = [&]() -> HRESULT
    {
        std::optional<VoSystemPaths::CModuleFile> file = VoSystemPaths::ModuleFile(module);
        if (!file)
        {
            const DWORD error = ::GetLastError();
            return error == ERROR_FILENAME_EXCED_RANGE ? report(51, HResultFromWin32(error)) : report.Win32(42, 43, error);
        }
        if (fileName)
            *fileName = std::move(file->name);
        if (directory)
            *directory = std::move(file->directory);
        return S_OK;
    };
    return report.Guard(66, body);
}

HRESULT VoGetTempPath(std::wstring& path) noexcept
{
    constexpr CVoReporter report{ kPathsSource, L"VoGetTempPath" };
    const auto body = [&]() -> HRESULT
    {
        std::optional<std::wstring> temporary = VoSystemPaths::TemporaryDirectory();
        if (!temporary)
        {
            const DWORD error = ::GetLastError();
            return error == ERROR_INSUFFICIENT_BUFFER ? report(334, HResultFromWin32(error)) : report.Win32(331, 332, error);
        }
        path = std::move(*temporary);
        return S_OK;
    };
    return report.Guard(345, body);
}
