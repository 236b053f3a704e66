// Reads Location headers; see VoRedirect.h.
#include "VoRedirect.h"

#include <base/VoErrorHandler.h>
#include <base/VoUtils.h>

#include <algorithm>
#include <string>

namespace
{
constexpr const wchar_t* kRedirectSource = L"..\\source\\VoRedirect";

constexpr std::wstring_view kAuthorityMark = L"//";

bool IsControl(wchar_t character) noexcept
{
    return character < 0x20 || (character >= 0x7F && character < 0xA0);
}

bool IsAlpha(wchar_t character) noexcept
{
    return (character >= L'a' && character <= L'z') || (character >= L'A' && character <= L'Z');
}

bool IsAlphaNumeric(wchar_t character) noexcept
{
    return IsAlpha(character) || (character >= L'0' && character <= L'9');
}

// The scheme with its ":"; empty when the reference is relative (RFC 3986, section 3.1).
std::wstring_view SchemeOf(std::wstring_view reference) noexcept
{
    if (reference.empty() || !IsAlpha(reference.front()))
        return {};
    const auto isPart = [](wchar_t c) { return IsAlphaNumeric(c) || c == L'+' || c == L'-' || c == L'.'; };
    size_t end = 1;
    while (end < reference.size() && isPart(reference[end]))
        ++end;
    return end < reference.size() && reference[end] == L':' ? reference.substr(0, end + 1) : std::wstring_view();
}

bool IsPlainAuthority(std::wstring_view authority) noexcept
{
    constexpr std::wstring_view kMarks = L"-._~:[]";
    return !authority.empty() && std::all_of(authority.begin(), authority.end(), [&](wchar_t c)
    { return IsAlphaNumeric(c) || kMarks.find(c) != std::wstring_view::npos; });
}

// RFC 3986, section 5.2.4, for a path that begins with "/".
std::wstring RemoveDotSegments(std::wstring_view path)
{
    std::wstring result;
    while (!path.empty())
    {
        const size_t end = std::min(path.find(L'/', 1), path.size());
        const std::wstring_view segment = path.substr(0, end);
        const bool isLast = end == path.size();
        if (segment == L"/..")
            result.erase(std::min(result.rfind(L'/'), result.size()));
        else if (segment != L"/.")
            result += segment;
        if (isLast && (segment == L"/.." || segment == L"/."))
            result += L'/';
        path.remove_prefix(end);
    }
    return result;
}
} // namespace

HRESULT VoResolveRedirect(const CServerAddressData& base, std::wstring_view location, CServerAddressData& target) noexcept
try
{
    constexpr CVoReporter report{ kRedirectSource, L"VoResolveRedirect" };
    std::wstring_view reference = VoTrimBlanks(location);
    if (reference.empty() || std::any_of(reference.begin(), reference.end(), IsControl))
        return report(20, E_INVALIDARG);
    reference = reference.substr(0, reference.find(L'#'));

    std::wstring url;
    if (const std::wstring_view scheme = SchemeOf(reference); !scheme.empty())
    {
        if (!VoEqualsNoCase(scheme, L"http:") && !VoEqualsNoCase(scheme, L"https:"))
            return report(24, E_INVALIDARG);
        reference.remove_prefix(scheme.size());
        if (!reference.starts_with(kAuthorityMark))
            return report(28, E_INVALIDARG);
        url = scheme;
    }
    else
        url = base.IsSecure() ? L"https:" : L"http:";

    url += kAuthorityMark;
    const bool hasAuthority = reference.starts_with(kAuthorityMark);
    if (hasAuthority)
    {
        reference.remove_prefix(kAuthorityMark.size());
        const std::wstring_view authority = reference.substr(0, reference.find_first_of(L"/?"));
        if (!IsPlainAuthority(authority))
            return report(34, E_INVALIDARG);
        url += authority;
        reference.remove_prefix(authority.size());
    }
    else
        url += base.Authority();

    const std::wstring_view path = reference.substr(0, reference.find(L'?'));
    std::wstring_view query = reference.substr(path.size());
    if (path.find(L'\\') != std::wstring_view::npos)
        return report(40, E_INVALIDARG);
    if (path.starts_with(L'/'))
        url += RemoveDotSegments(path);
    else if (!path.empty())
    {
        if (path.substr(0, path.find(L'/')).find(L':') != std::wstring_view::npos)
            return report(44, E_INVALIDARG);
        // The base's path up to its last "/" (RFC 3986, section 5.2.3).
        const std::wstring_view basePath = base.Path();
        const size_t directory = basePath.rfind(L'/') + 1; // 0 without a path
        url += RemoveDotSegments(std::wstring(directory == 0 ? L"/" : basePath.substr(0, directory)).append(path));
    }
    else if (!hasAuthority)
    {
        url += base.Path();
        if (query.empty())
            query = base.Query();
    }
    url += query;

    if (const HRESULT hr = target.SetAddress(url, false, true, true); FAILED(hr))
        return report(50, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kRedirectSource, L"VoResolveRedirect" }.CurrentException(55);
}
