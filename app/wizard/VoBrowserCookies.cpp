// Reads the embedded browser's cookies and gives them to a cookie store (VoBrowserCookies.h).
#include "VoBrowserCookies.h"

#include <base/com/VoComHelper.h>

#include <wininet.h>

#include <algorithm>
#include <cwchar>
#include <string_view>

namespace
{
// Paths of more segments are asked for as a whole only.
constexpr size_t kMaximumPaths = 32;

// What WinINet would send to `url`: "name=value; name=value". Empty for none.
std::wstring CookieTextOf(const std::wstring& url)
{
    std::wstring text(1024, L'\0');
    // The cookies may grow between two calls; a third attempt is enough in practice.
    for (int attempt = 0; attempt < 3; ++attempt)
    {
        auto size = static_cast<DWORD>(text.size());
        if (::InternetGetCookieExW(url.c_str(), nullptr, text.data(), &size, INTERNET_COOKIE_HTTPONLY, nullptr))
        {
            text.resize(std::wcslen(text.c_str()));
            return text;
        }
        if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
            break;
        // Windows counts in characters or in bytes here: more than enough in both cases.
        text.assign(std::max<size_t>(size, text.size() * 2), L'\0');
    }
    return {};
}

// The paths that cover `path`, shortest first: "/", "/a", "/a/", "/a/b" for "/a/b". Cookies have no ";" in their paths.
std::vector<std::wstring_view> PathsAbove(std::wstring_view path)
{
    path = path.substr(0, path.find(L';'));
    std::vector<std::wstring_view> paths;
    for (size_t i = 0; i < path.size() && paths.size() < kMaximumPaths; ++i)
    {
        if (path[i] != L'/')
            continue;
        if (i > 0)
            paths.push_back(path.substr(0, i));
        paths.push_back(path.substr(0, i + 1));
    }
    if (paths.empty() || paths.back() != path)
        paths.push_back(path);
    return paths;
}
} // namespace

std::vector<std::wstring> VoBrowserCookiesOf(const CVoBrowserAddress& address)
{
    constexpr std::wstring_view kSeparator = L"; ";
    std::vector<std::wstring> pairs;
    std::vector<std::wstring> values;
    for (const std::wstring_view path : PathsAbove(address.path))
    {
        const std::wstring text = CookieTextOf(address.Origin() + std::wstring(path));
        for (size_t begin = 0; begin < text.size();)
        {
            const size_t end = std::min(text.find(kSeparator, begin), text.size());
            const std::wstring pair = text.substr(begin, end - begin);
            begin = end + kSeparator.size();
            if (pair.empty() || std::find(pairs.begin(), pairs.end(), pair) != pairs.end())
                continue;
            pairs.push_back(pair);
            values.push_back(pair + L"; Path=" + std::wstring(path) + (address.secure ? L"; Secure" : L""));
        }
    }
    return values;
}

size_t VoHandOverBrowserCookies(const CVoBrowserAddress& address, IVoHTTPCookieStore& store)
{
    const CVoBstr url(address.Origin() + address.path);
    size_t taken = 0;
    for (const std::wstring& value : VoBrowserCookiesOf(address))
        if (SUCCEEDED(store.AddCookieFromString(CVoBstr(value).Get(), url.Get())))
            ++taken;
    return taken;
}
