// Reads, judges and shows addresses for the browser dialog (VoBrowserPolicy.h).
#include "VoBrowserPolicy.h"

#include <VoCookieData.h>
#include <VoServerAddress.h>

#include <base/VoHResult.h>
#include <base/VoText.h>
#include <base/com/VoComHelper.h>
#include <base/com/VoIUnknown.h>

#include <shlwapi.h>
#include <urlmon.h>

#include <algorithm>
#include <array>

namespace
{
constexpr std::wstring_view kBlank = L"about:blank";
// A host of this length fits into the dialog's line at its smallest size.
constexpr size_t kShownHost = 48;
constexpr size_t kShownAddress = 2048;
constexpr size_t kShownScheme = 32;

// A property of the address; empty when it has none.
std::wstring TextOf(IUri& uri, Uri_PROPERTY property)
{
    CVoBstr text;
    return uri.GetPropertyBSTR(property, text.Put(), 0) == S_OK ? std::wstring(text.View()) : std::wstring();
}

// The address as the embedded browser reads it; null when it cannot.
CVoComPtr<IUri> ReadAsBrowser(std::wstring_view url)
{
    CVoComPtr<IUri> uri;
    // A null character would end the text for the browser's parser.
    if (url.find(L'\0') != std::wstring_view::npos || FAILED(::CreateUri(std::wstring(url).c_str(), 0, 0, uri.Put())))
        return {};
    return uri;
}

// Whether a segment of the path is "." or "..", also with percent-encoded dots: servers may resolve these.
bool HasDotSegment(std::wstring_view path)
{
    std::wstring plain;
    for (size_t i = 0; i < path.size(); ++i)
    {
        const bool isDot = VoEqualsNoCase(path.substr(i, 3), L"%2e");
        plain += isDot ? L'.' : path[i];
        i += isDot ? 2 : 0;
    }
    plain += L'/';
    return plain.find(L"/./") != std::wstring::npos || plain.find(L"/../") != std::wstring::npos;
}

// The printable characters of ASCII as they are, all others as "%XX" of their UTF-8.
std::wstring InAscii(std::wstring_view text)
{
    constexpr std::wstring_view kDigits = L"0123456789ABCDEF";
    std::wstring shown;
    std::array<char, 4> bytes{};
    for (size_t i = 0; i < text.size(); ++i)
    {
        if (text[i] > L' ' && text[i] < 0x7F)
        {
            shown += text[i];
            continue;
        }
        const bool isPair = IS_HIGH_SURROGATE(text[i]) && i + 1 < text.size() && IS_LOW_SURROGATE(text[i + 1]);
        const int count = ::WideCharToMultiByte(CP_UTF8, 0, &text[i], isPair ? 2 : 1, bytes.data(),
                                                static_cast<int>(bytes.size()), nullptr, nullptr);
        for (int k = 0; k < count; ++k)
        {
            const auto byte = static_cast<BYTE>(bytes[static_cast<size_t>(k)]);
            shown += { L'%', kDigits[byte >> 4], kDigits[byte & 15] };
        }
        i += isPair ? 1 : 0;
    }
    return shown;
}

// "host", in brackets if IPv6, with ":port" where that is not the scheme's own.
std::wstring AuthorityOf(const CVoBrowserAddress& address, std::wstring_view host)
{
    std::wstring text = host.find(L':') != std::wstring_view::npos ? L'[' + std::wstring(host) + L']' : std::wstring(host);
    if (address.port != (address.secure ? 443 : 80))
        text += L':' + std::to_wstring(address.port);
    return text;
}

std::wstring_view SchemePart(const CVoBrowserAddress& address)
{
    return address.secure ? L"https://" : L"http://";
}

bool IsBlank(std::wstring_view url)
{
    return VoEqualsNoCase(url.substr(0, url.find(L'#')), kBlank);
}
} // namespace

std::optional<CVoBrowserAddress> CVoBrowserAddress::FromUrl(std::wstring_view url)
{
    const CVoComPtr<IUri> uri = ReadAsBrowser(url);
    DWORD scheme = 0;
    DWORD port = 0;
    if (!uri || FAILED(uri->GetScheme(&scheme)) || (scheme != URL_SCHEME_HTTP && scheme != URL_SCHEME_HTTPS) ||
        uri->GetPort(&port) != S_OK || !TextOf(*uri.Get(), Uri_PROPERTY_USER_INFO).empty())
        return std::nullopt;

    CVoBrowserAddress address;
    address.url = TextOf(*uri.Get(), Uri_PROPERTY_ABSOLUTE_URI);
    CServerAddressData strict;
    if (FAILED(strict.SetAddress(address.url, false, true, true)))
        return std::nullopt;
    address.secure = scheme == URL_SCHEME_HTTPS;
    address.host = VoCanonicalHost(strict.Host());
    address.port = strict.EffectivePort();
    address.path = TextOf(*uri.Get(), Uri_PROPERTY_PATH);
    if (address.path.empty())
        address.path = L"/";
    address.query = TextOf(*uri.Get(), Uri_PROPERTY_QUERY);
    std::wstring host = TextOf(*uri.Get(), Uri_PROPERTY_HOST);
    if (host.starts_with(L'[') && host.ends_with(L']'))
        host = host.substr(1, host.size() - 2);
    if (strict.IsSecure() != address.secure || address.port != port || address.host != VoCanonicalHost(host))
        return std::nullopt;
    return address;
}

std::wstring CVoBrowserAddress::Origin() const
{
    return std::wstring(SchemePart(*this)) + AuthorityOf(*this, host);
}

HRESULT CVoBrowserPolicy::Init(std::wstring_view startUrl, std::wstring_view endPrefix) noexcept
{
    try
    {
        std::optional<CVoBrowserAddress> start = CVoBrowserAddress::FromUrl(startUrl);
        std::optional<CVoBrowserAddress> end;
        if (!endPrefix.empty())
            end = CVoBrowserAddress::FromUrl(endPrefix);
        if (!start || (!endPrefix.empty() && (!end || endPrefix.find(L'#') != std::wstring_view::npos)))
            return E_INVALIDARG;
        m_start = std::move(*start);
        m_end = std::move(end);
        return S_OK;
    }
    catch (...)
    {
        return HResultFromCurrentException();
    }
}

EVoBrowserVerdict CVoBrowserPolicy::Judge(std::wstring_view url)
{
    if (IsBlank(url) || CVoBrowserAddress::FromUrl(url))
        return EVoBrowserVerdict::Go;
    const CVoComPtr<IUri> uri = ReadAsBrowser(url);
    DWORD scheme = 0;
    const bool isWeb = uri && SUCCEEDED(uri->GetScheme(&scheme)) && (scheme == URL_SCHEME_HTTP || scheme == URL_SCHEME_HTTPS);
    return isWeb || SchemeOf(url).empty() ? EVoBrowserVerdict::RefuseAddress : EVoBrowserVerdict::RefuseScheme;
}

bool CVoBrowserPolicy::IsEnd(std::wstring_view url) const
{
    if (!m_end)
        return false;
    const std::optional<CVoBrowserAddress> address = CVoBrowserAddress::FromUrl(url);
    if (!address || address->secure != m_end->secure || address->host != m_end->host || address->port != m_end->port ||
        !address->path.starts_with(m_end->path) || HasDotSegment(address->path))
        return false;
    const auto goesOn = [](std::wstring_view text, std::wstring_view prefix, wchar_t separator)
    { return text == prefix || prefix.ends_with(separator) || text[prefix.size()] == separator; };
    if (m_end->query.empty())
        return goesOn(address->path, m_end->path, L'/');
    return address->path == m_end->path && address->query.starts_with(m_end->query) &&
           goesOn(address->query, m_end->query, L'&');
}

std::wstring CVoBrowserPolicy::Show(std::wstring_view url)
{
    if (IsBlank(url))
        return std::wstring(kBlank);
    const std::optional<CVoBrowserAddress> address = CVoBrowserAddress::FromUrl(url);
    if (!address)
    {
        const std::wstring scheme = SchemeOf(url);
        return scheme.empty() ? scheme : scheme + L':';
    }
    std::wstring host = InAscii(address->host);
    if (host.size() > kShownHost)
        host = L"..." + host.substr(host.size() - kShownHost);
    std::wstring text =
        std::wstring(SchemePart(*address)) + AuthorityOf(*address, host) + InAscii(address->path + address->query);
    if (text.size() > kShownAddress)
        text = text.substr(0, kShownAddress) + L"...";
    return text;
}

std::wstring CVoBrowserPolicy::SchemeOf(std::wstring_view url)
{
    const CVoComPtr<IUri> uri = ReadAsBrowser(url);
    return uri ? InAscii(TextOf(*uri.Get(), Uri_PROPERTY_SCHEME_NAME)).substr(0, kShownScheme) : std::wstring();
}
