// The module that holds this library, and its VERSIONINFO resource (VoModuleVersion.h).
#include "VoModuleVersion.h"

#include <base/VoText.h>

#include <winver.h>

#include <cstddef>
#include <vector>

HMODULE VoOwnModule() noexcept
{
    // Any address inside the module serves; a constant of this file is one.
    static constexpr char kInside = 0;
    HMODULE module = nullptr;
    const DWORD flags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    if (!::GetModuleHandleExW(flags, reinterpret_cast<LPCWSTR>(&kInside), &module))
        module = ::GetModuleHandleW(nullptr);
    return module;
}

CVoModuleVersion VoReadModuleVersion(HMODULE module)
{
    CVoModuleVersion result;
    const HRSRC resource = ::FindResourceW(module, MAKEINTRESOURCEW(VS_VERSION_INFO), MAKEINTRESOURCEW(16 /* RT_VERSION */));
    const HGLOBAL loaded = resource ? ::LoadResource(module, resource) : nullptr;
    const auto* bytes = loaded ? static_cast<const std::byte*>(::LockResource(loaded)) : nullptr;
    if (!bytes)
        return result;
    // A copy, because VerQueryValue may write into its block while the resource is read-only memory.
    std::vector<std::byte> block(bytes, bytes + ::SizeofResource(module, resource));

    void* value = nullptr;
    UINT size = 0;
    if (::VerQueryValueW(block.data(), L"\\", &value, &size) && size >= sizeof(VS_FIXEDFILEINFO))
    {
        const auto& fixed = *static_cast<const VS_FIXEDFILEINFO*>(value);
        result.debug = (fixed.dwFileFlags & fixed.dwFileFlagsMask & VS_FF_DEBUG) != 0;
        result.version = VoFormat(L"%u,%u,%u,%u", UINT{ HIWORD(fixed.dwFileVersionMS) }, UINT{ LOWORD(fixed.dwFileVersionMS) },
                                  UINT{ HIWORD(fixed.dwFileVersionLS) }, UINT{ LOWORD(fixed.dwFileVersionLS) });
    }
    if (::VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", &value, &size) && size >= 2 * sizeof(WORD))
    {
        const auto* translation = static_cast<const WORD*>(value);
        const std::wstring path =
            VoFormat(L"\\StringFileInfo\\%04x%04x\\FileVersion", UINT{ translation[0] }, UINT{ translation[1] });
        if (::VerQueryValueW(block.data(), path.c_str(), &value, &size) && size > 1)
            result.version = static_cast<const wchar_t*>(value);
    }
    return result;
}
