// Parses and rebuilds server addresses (VoServerAddress.h). Reports name the source VoGlobalHTTPUtils.
#include <VoServerAddress.h>

#include <base/VoErrorHandler.h>
#include <base/VoText.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace VoGlobalHTTPUtils
{
namespace
{
constexpr const wchar_t* kServerAddressSource = L"..\\source\\VoGlobalHTTPUtils";

constexpr std::wstring_view kSchemeEnd = L"://";
constexpr UINT16 kDefaultPortPlain = 80;
constexpr UINT16 kDefaultPortSecure = 443;

// A control character could end the request line, or a header that is made from the address, and begin another.
constexpr bool IsControl(wchar_t character) noexcept
{
    return character < L' ' || (character >= 0x7F && character < 0xA0);
}

bool HasControls(std::wstring_view text) noexcept
{
    return std::any_of(text.begin(), text.end(), IsControl);
}

// Cuts `text` at the first `separator`. Returns the rest with the separator; empty when there is none.
std::wstring_view CutFrom(std::wstring_view& text, wchar_t separator) noexcept
{
    const size_t position = text.find(separator);
    if (position == std::wstring_view::npos)
        return {};
    const std::wstring_view tail = text.substr(position);
    text = text.substr(0, position);
    return tail;
}

// Refuses the characters that no host name has (RFC 3986, section 3.2.2). "@" is one of them: user information before the host
// can make an address look like that of another server (RFC 9110, section 4.2.4). Characters beyond ASCII pass: the transports
// convert international names.
bool IsValidHostName(std::wstring_view host) noexcept
{
    constexpr std::wstring_view kForbidden = L" \"#%/:<>?@[\\]^`{|}";
    return std::none_of(host.begin(), host.end(), [&](wchar_t character)
    { return IsControl(character) || kForbidden.find(character) != std::wstring_view::npos || iswspace(character) != 0; });
}

// An IPv6 literal without its brackets. A zone behind "%" is allowed (RFC 6874).
bool IsValidIPv6Literal(std::wstring_view literal)
{
    const size_t percent = literal.find(L'%');
    if (percent != std::wstring_view::npos)
    {
        std::wstring_view zone = literal.substr(percent + 1);
        if (zone.starts_with(L"25")) // "%25" is the escaped "%"
            zone.remove_prefix(2);
        if (zone.empty() || !IsValidHostName(zone))
            return false;
    }
    // The platform may read other digits than those of RFC 4291, which no transport does.
    const std::wstring_view text = literal.substr(0, percent);
    IN6_ADDR address;
    return text.find_first_not_of(L"0123456789abcdefABCDEF:.") == std::wstring_view::npos &&
           ::InetPtonW(AF_INET6, std::wstring(text).c_str(), &address) == 1;
}

// The port behind a host's colon. A leading "+" is allowed, as wcstol allows it. An empty text is 0.
std::optional<UINT16> ParsePort(std::wstring_view text) noexcept
{
    text = VoTrim(text);
    if (text.empty())
        return UINT16{ 0 };
    if (text.front() == L'+')
        text.remove_prefix(1);
    return VoParseDecimal<UINT16>(text);
}
} // namespace

const CServerAddressData::CTexts CServerAddressData::s_none;

HRESULT CServerAddressData::SetAddress(std::wstring_view url, bool defaultSecure, bool keepPath, bool keepQuery) noexcept
{
    constexpr CVoReporter report{ kServerAddressSource, L"VoGlobalHTTPUtils::CServerAddressData::SetAddress" };
    return report.Guard(330, [&]() -> HRESULT
    {
        std::wstring_view rest = VoTrim(url);

        // The first "://" ends the scheme, wherever it stands. So a text without a scheme must percent-encode a URL in its
        // query.
        bool secure = defaultSecure;
        if (const size_t position = rest.find(kSchemeEnd); position != std::wstring_view::npos)
        {
            const std::wstring_view scheme = rest.substr(0, position);
            secure = VoEqualsNoCase(scheme, L"https");
            if (!secure && !VoEqualsNoCase(scheme, L"http"))
                return report(202, E_INVALIDARG);
            rest.remove_prefix(position + kSchemeEnd.size());
        }
        if (rest.empty())
            return report(209, E_INVALIDARG);

        // A fragment is never sent (RFC 9110, section 4.2.5).
        CutFrom(rest, L'#');
        const std::wstring_view query = CutFrom(rest, L'?');
        if (HasControls(query))
            return report(223, E_INVALIDARG);
        const std::wstring_view path = CutFrom(rest, L'/');
        if (HasControls(path))
            return report(237, E_INVALIDARG);

        std::wstring_view host = rest;
        std::wstring_view portText;
        bool isLiteral = false;
        const size_t colon = rest.rfind(L':');
        if (colon != std::wstring_view::npos && rest.find(L':') == colon)
        {
            if (colon == 0)
                return report(285, E_INVALIDARG);
            host = rest.substr(0, colon);
            portText = rest.substr(colon + 1);
        }
        else if (colon != std::wstring_view::npos)
        {
            isLiteral = true;
            rest = VoTrim(rest);
            const size_t end = rest.find(L']');
            if (rest.front() != L'[' || end == std::wstring_view::npos)
                return report(290, E_INVALIDARG);
            host = rest.substr(1, end - 1);
            if (const std::wstring_view behind = rest.substr(end + 1); !behind.empty())
            {
                if (behind.front() != L':')
                    return report(295, E_INVALIDARG);
                portText = behind.substr(1);
            }
        }

        std::optional<UINT16> port = ParsePort(portText);
        if (!port)
            return report(304, E_INVALIDARG);

        host = VoTrim(host);
        if (host.empty())
            return report(316, E_INVALIDARG);
        if (isLiteral ? !IsValidIPv6Literal(host) : !IsValidHostName(host))
            return report(321, E_INVALIDARG);

        if (*port == (secure ? kDefaultPortSecure : kDefaultPortPlain))
            port = UINT16{ 0 };

        CTexts parsed;
        parsed.host = host;
        if (keepPath)
            parsed.path = path;
        if (keepPath && keepQuery)
            parsed.query = query;
        parsed.isSecure = secure;
        parsed.port = *port;
        Set(std::move(parsed));
        return S_OK;
    });
}

HRESULT CServerAddressData::SetObjectPath(std::wstring_view objectPath) noexcept
{
    constexpr CVoReporter report{ kServerAddressSource, L"VoGlobalHTTPUtils::CServerAddressData::SetObjectPath" };
    return report.Guard(361, [&]() -> HRESULT
    {
        CutFrom(objectPath, L'#');
        if (HasControls(objectPath))
            return report(346, E_INVALIDARG);
        const std::wstring_view query = CutFrom(objectPath, L'?');
        if (objectPath.empty() ? !query.empty() : objectPath.front() != L'/')
            return report(350, E_INVALIDARG);

        CTexts changed = Texts();
        changed.path = objectPath;
        changed.query = query;
        Set(std::move(changed));
        return S_OK;
    });
}

UINT16 CServerAddressData::EffectivePort() const noexcept
{
    if (Port() != 0)
        return Port();
    return IsSecure() ? kDefaultPortSecure : kDefaultPortPlain;
}

HRESULT CServerAddressData::Rebuild() noexcept
{
    constexpr CVoReporter report{ kServerAddressSource, L"VoGlobalHTTPUtils::CServerAddressData::Rebuild" };
    return report.Guard(380, [&]() -> HRESULT
    {
        Set(Texts());
        return S_OK;
    });
}

void CServerAddressData::Set(CTexts parsed)
{
    const bool isLiteral = parsed.host.find(L':') != std::wstring::npos;
    parsed.authority = isLiteral ? L'[' + parsed.host + L']' : parsed.host;
    if (parsed.port != 0)
        parsed.authority += L':' + std::to_wstring(parsed.port);
    parsed.baseURL = (parsed.isSecure ? L"https" : L"http") + std::wstring(kSchemeEnd) + parsed.authority;
    parsed.pathURL = parsed.baseURL + parsed.path;
    parsed.fullURL = parsed.pathURL + parsed.query;
    parsed.objectName = parsed.path + parsed.query;
    m_texts = std::make_shared<const CTexts>(std::move(parsed));
}
} // namespace VoGlobalHTTPUtils
