// Paths as the platform gives them (VoSystemPaths.h).
#include "VoSystemPaths.h"

#include <base/VoText.h>

#include <climits>
#include <iterator>

namespace
{
constexpr DWORD kMaxDirectory = 260;
} // namespace

namespace VoSystemPaths
{
std::optional<CModuleFile> ModuleFile(HMODULE module)
{
    // A result that fills the buffer was cut off; paths end at 32767 characters.
    std::wstring path(MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD length = ::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0)
            return std::nullopt;
        if (length < path.size())
        {
            path.resize(length);
            break;
        }
        if (path.size() > SHRT_MAX)
        {
            ::SetLastError(ERROR_FILENAME_EXCED_RANGE);
            return std::nullopt;
        }
        path.resize(path.size() * 2);
    }
    path = VoWithoutLongPathPrefix(path);
    const size_t slash = path.find_last_of(L"\\/");
    if (slash == std::wstring::npos)
        return CModuleFile{ {}, path };
    return CModuleFile{ path.substr(0, slash), path.substr(slash + 1) };
}

std::optional<std::wstring> TemporaryDirectory()
{
    wchar_t buffer[MAX_PATH + 2];
    const DWORD length = ::GetTempPathW(static_cast<DWORD>(std::size(buffer)), buffer);
    if (length == 0)
        return std::nullopt;
    if (length >= std::size(buffer))
    {
        ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return std::nullopt;
    }
    std::wstring result(buffer, length);
    while (result.ends_with(L'\\'))
        result.pop_back();
    return result;
}

std::wstring CurrentDirectory()
{
    wchar_t buffer[kMaxDirectory + 1];
    const DWORD length = ::GetCurrentDirectoryW(static_cast<DWORD>(std::size(buffer)), buffer);
    return std::wstring(buffer, length < std::size(buffer) ? length : 0);
}

std::wstring ExpandEnvironment(const std::wstring& text)
{
    wchar_t buffer[kMaxDirectory + 1];
    const DWORD size = ::ExpandEnvironmentStringsW(text.c_str(), buffer, static_cast<DWORD>(std::size(buffer)));
    return size > 0 && size <= std::size(buffer) ? std::wstring(buffer) : text;
}

std::wstring FullPath(const std::wstring& path)
{
    std::wstring full(MAX_PATH, L'\0');
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        const DWORD length = ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
        const bool fits = length < full.size();
        full.resize(length);
        if (fits)
            return full;
    }
    return std::wstring();
}
} // namespace VoSystemPaths
