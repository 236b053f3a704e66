// The error translator module (VoErrorTranslator.h).
#include "VoErrorTranslator.h"

#include "VoNeverDestroyed.h"

#include <base/VoLock.h>
#include <base/VoText.h>
#include <base/com/VoComHelper.h>

#include <mutex>

#include <shlobj.h>

namespace
{
constexpr const wchar_t* kErrorTranslatorSource = L"..\\..\\source\\base\\VoErrorTranslator";

template <class Function>
Function FindExport(HMODULE module, const char* name) noexcept
{
    // Cast through a plain pointer: compilers warn about a direct cast between function types.
    return reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

// The process's translator, and whether it was loaded.
struct CProcessTranslator
{
    CVoLock lock;
    bool tried = false;
    CVoErrorTranslator translator;
};

CProcessTranslator& ProcessTranslator() noexcept
{
    static CVoNeverDestroyed<CProcessTranslator> instance;
    return instance.Get();
}
} // namespace

HRESULT CVoErrorTranslator::LoadForProcess(const wchar_t* loadedModule) noexcept
{
    constexpr CVoReporter report{ kErrorTranslatorSource, L"VoLoadErrorTranslator" };
    const auto body = [&]() -> HRESULT
    {
        CProcessTranslator& process = ProcessTranslator();
        std::wstring failure;
        {
            const CVoLockHolder lock(process.lock);
            if (process.tried)
                return process.translator.IsLoaded() ? S_OK : HResultFromWin32(ERROR_MOD_NOT_FOUND);
            process.tried = true;
            if (loadedModule)
            {
                if (SUCCEEDED(process.translator.TakeLoaded(loadedModule)))
                    return S_OK;
                failure = VoFormat(L"Error getting 'modulehandle' lib (%d)", static_cast<int>(::GetLastError()));
            }
            else
            {
                wchar_t common[MAX_PATH] = L"";
                const HRESULT hr = ::SHGetFolderPathW(nullptr, CSIDL_PROGRAM_FILES_COMMON, nullptr, SHGFP_TYPE_CURRENT, common);
                const std::wstring path = VoFormat(L"%ls\\Kestrelan\\ErrorTranslator.dll", common);
                if (FAILED(hr))
                {
                    // Without the folder, the path would be below the root of the current drive.
                    (void)report(52, hr);
                    ::SetLastError(ERROR_PATH_NOT_FOUND);
                }
                else if (SUCCEEDED(process.translator.LoadFile(path)))
                    return S_OK;
                failure = VoFormat(L"Error loading lib [%ls] (%d)", path.c_str(), static_cast<int>(::GetLastError()));
            }
        }
        // Outside the lock, so that no other thread waits for the user.
        (void)VoShowErrorBox(failure);
        return report(62, HResultFromWin32(ERROR_MOD_NOT_FOUND));
    };
    return report.Guard(66, body);
}

CVoErrorTranslator::~CVoErrorTranslator()
{
    if (m_module)
        ::FreeLibrary(m_module);
}

HRESULT CVoErrorTranslator::LoadFile(const std::wstring& path) noexcept
{
    constexpr CVoReporter report{ kErrorTranslatorSource, L"CVoErrorTranslator::LoadFile" };
    const HMODULE module = ::LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (!module)
        return report.LastError(82, 83);
    return Resolve(report, 84, module);
}

HRESULT CVoErrorTranslator::TakeLoaded(const wchar_t* name) noexcept
{
    constexpr CVoReporter report{ kErrorTranslatorSource, L"CVoErrorTranslator::TakeLoaded" };
    HMODULE module = nullptr;
    if (!::GetModuleHandleExW(0, name, &module))
        return report.LastError(92, 93);
    return Resolve(report, 94, module);
}

// Takes the module over when both exports are there, else releases it; the last error tells why.
HRESULT CVoErrorTranslator::Resolve(const CVoReporter& report, int line, HMODULE module) noexcept
{
    const auto getErrorString = FindExport<GetErrorStringFunction>(module, "GetErrorString");
    const auto showErrorMessageWindow =
        getErrorString ? FindExport<ShowErrorMessageWindowFunction>(module, "ShowErrorMessageWindow") : nullptr;
    if (!showErrorMessageWindow)
    {
        const CVoLastErrorKeeper keeper;
        ::FreeLibrary(module);
        return report(line, HResultFromWin32(ERROR_PROC_NOT_FOUND));
    }
    if (m_module)
        ::FreeLibrary(m_module);
    m_module = module;
    m_getErrorString = getErrorString;
    m_showErrorMessageWindow = showErrorMessageWindow;
    return S_OK;
}

HRESULT CVoErrorTranslator::GetErrorString(HRESULT code, std::wstring& text) const noexcept
{
    constexpr CVoReporter report{ kErrorTranslatorSource, L"CVoErrorTranslator::GetErrorString" };
    if (!IsLoaded())
        return report(120, HResultFromWin32(ERROR_MOD_NOT_FOUND));
    CVoBstr found;
    if (const HRESULT hr = m_getErrorString(code, found.Put()); FAILED(hr))
        return report(123, hr);
    const auto body = [&]() -> HRESULT
    {
        text = found.View();
        return S_OK;
    };
    return report.Guard(131, body);
}

HRESULT CVoErrorTranslator::ShowErrorMessageWindow(HRESULT code, const std::wstring& text) const noexcept
{
    constexpr CVoReporter report{ kErrorTranslatorSource, L"CVoErrorTranslator::ShowErrorMessageWindow" };
    if (!IsLoaded())
        return report(139, HResultFromWin32(ERROR_MOD_NOT_FOUND));
    const HRESULT hr = m_showErrorMessageWindow(code, text.c_str());
    return FAILED(hr) ? report(142, hr) : S_OK;
}

const CVoErrorTranslator& CVoErrorTranslator::ForProcess() noexcept
{
    // Whether it worked shows in the object.
    (void)LoadForProcess(nullptr);
    return ProcessTranslator().translator;
}

HRESULT VoShowErrorBox(const std::wstring& text) noexcept
{
    constexpr CVoReporter report{ kErrorTranslatorSource, L"VoShowErrorBox" };
    return ::MessageBoxW(nullptr, text.c_str(), L"Error", MB_OK | MB_ICONERROR) != 0 ? S_OK : report.LastError(161, 162);
}
