// The texts of an exchange record (VoExchangeText.h).
#include "VoExchangeText.h"

#include <base/VoErrorText.h>
#include <base/VoText.h>
#include <base/VoTextConversion.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace
{
constexpr std::wstring_view kHidden = L"<hidden>";

// Parts of the names of headers whose whole value is hidden: the standard ones (Authorization, Cookie, Authentication-Info) and
// what applications call theirs (X-Auth-Token, X-Api-Key). A challenge keeps its scheme: see HideChallenge.
constexpr const wchar_t* kSecretParts[] = { L"Auth",      L"Cookie",  L"Token",   L"Secret", L"Password",
                                            L"Signature", L"Session", L"Api-Key", L"ApiKey" };
constexpr const wchar_t* kAddressHeaders[] = { L"Location", L"Content-Location", L"Refresh", L"Referer", L"Link" };
constexpr const wchar_t* kChallengeHeaders[] = { L"WWW-Authenticate", L"Proxy-Authenticate" };

template <size_t Count>
bool IsOneOf(const std::wstring& name, const wchar_t* const (&names)[Count]) noexcept
{
    return std::any_of(std::begin(names), std::end(names), [&](const wchar_t* other) { return VoEqualsNoCase(name, other); });
}

bool IsTokenCharacter(wchar_t character) noexcept
{
    return (character >= L'0' && character <= L'9') || (character >= L'A' && character <= L'Z') ||
           (character >= L'a' && character <= L'z') ||
           std::wstring_view(L"!#$%&'*+-.^_`|~").find(character) != std::wstring_view::npos;
}

// Calls `found` with the scheme and the position of each challenge of a header's value. A challenge is a token that no "="
// follows, at the start of an element of the list; parameters in quotes are passed over.
template <class Found>
void ForEachChallenge(std::wstring_view value, Found found)
{
    bool isQuoted = false;
    bool isStart = true; // of an element
    for (size_t i = 0; i < value.size();)
    {
        const wchar_t character = value[i];
        if (isQuoted)
        {
            i += character == L'\\' ? 2 : 1;
            isQuoted = character != L'"';
            continue;
        }
        if (isStart && IsTokenCharacter(character))
        {
            size_t end = i;
            while (end < value.size() && IsTokenCharacter(value[end]))
                ++end;
            const size_t next = std::min(value.find_first_not_of(L" \t", end), value.size());
            if (next == value.size() || value[next] != L'=')
                found(value.substr(i, end - i));
            isStart = false;
            i = end;
            continue;
        }
        isQuoted = character == L'"';
        isStart = character == L',' || (isStart && (character == L' ' || character == L'\t'));
        ++i;
    }
}

// The schemes alone: tokens, nonces and realms may identify the user or the session.
std::wstring HideChallenge(std::wstring_view value)
{
    std::wstring schemes;
    ForEachChallenge(value, [&](std::wstring_view scheme) { schemes.append(schemes.empty() ? L"" : L", ").append(scheme); });
    return schemes.empty() ? std::wstring(kHidden) : schemes + L" " + std::wstring(kHidden);
}

// "name=value; attributes" keeps the name and the attributes.
std::wstring HideCookie(std::wstring_view value)
{
    const size_t end = std::min(value.find(L';'), value.size());
    const size_t equals = value.substr(0, end).find(L'=');
    if (equals == std::wstring_view::npos)
        return std::wstring(kHidden);
    return std::wstring(value.substr(0, equals + 1)).append(kHidden).append(value.substr(end));
}

struct CFailureRow
{
    EVoFailure kind;
    const wchar_t* text; // "%1": the host and port or the proxy; "%2": the status
};
constexpr CFailureRow kFailures[] = {
    { EVoFailure::Cancelled, L"the request was cancelled" },
    { EVoFailure::NameNotFound, L"the address of %1 could not be found" },
    { EVoFailure::ConnectRefused, L"could not connect to %1: connection refused" },
    { EVoFailure::ConnectFailed, L"could not connect to %1: connection refused or not reachable" },
    { EVoFailure::ConnectTimeOut, L"could not connect to %1: no answer in time" },
    { EVoFailure::TlsHandshake, L"the TLS handshake with %1 failed" },
    { EVoFailure::Certificate, L"the certificate of %1 is not valid" },
    { EVoFailure::CertificateName, L"the certificate of %1 is for another name" },
    { EVoFailure::CertificateDate, L"the certificate of %1 has expired or is not yet valid" },
    { EVoFailure::CertificateIssuer, L"the issuer of the certificate of %1 is not trusted" },
    { EVoFailure::CertificateRevoked, L"the certificate of %1 was revoked" },
    { EVoFailure::RevocationUnknown, L"it could not be found out whether the certificate of %1 was revoked" },
    { EVoFailure::ConnectionLost, L"the connection to %1 was lost" },
    { EVoFailure::ResponseTimeOut, L"no complete response from %1 in time" },
    { EVoFailure::ResponseMalformed, L"the response of %1 is malformed or missing" },
    { EVoFailure::ResponseTruncated, L"the response of %1 broke off" },
    { EVoFailure::ResponseLimit, L"the response of %1 is larger than allowed" },
    { EVoFailure::Sink, L"the response of %1 could not be written to its destination" },
    { EVoFailure::RedirectLoop, L"%1 redirects too often" },
    { EVoFailure::RedirectRefused, L"the redirect of %1 was not followed" },
    { EVoFailure::Credentials, L"%1 demands credentials (status %2) and got none that it accepts" },
    { EVoFailure::ProxyCredentials, L"the proxy demands credentials (status 407) and got none that it accepts" },
    { EVoFailure::Status, L"the response of %1 has the status %2" },
};

// Cuts the first line off a header. The result has no line end.
std::wstring_view TakeLine(std::wstring_view& text) noexcept
{
    const size_t end = std::min(text.find(L'\n'), text.size());
    std::wstring_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.ends_with(L'\r'))
        line.remove_suffix(1);
    return line;
}

bool IsContinuation(std::wstring_view line) noexcept
{
    return line.starts_with(L' ') || line.starts_with(L'\t');
}

// Calls `take` with the name and the value of each field of a header, as they stand in its text.
template <class Take>
void ForEachField(std::wstring_view text, Take take)
{
    (void)TakeLine(text); // the status line
    while (!text.empty())
    {
        const wchar_t* const begin = text.data();
        const std::wstring_view line = TakeLine(text);
        const size_t colon = IsContinuation(line) ? std::wstring_view::npos : line.find(L':');
        const wchar_t* end = begin + line.size();
        while (IsContinuation(text))
        {
            const std::wstring_view next = TakeLine(text);
            end = next.data() + next.size();
        }
        if (colon != std::wstring_view::npos)
            take(line.substr(0, colon), std::wstring_view(begin + colon + 1, end));
    }
}

// A value that may stand on several lines, the last without its end, as one line.
std::wstring Unfold(std::wstring_view value)
{
    std::wstring text;
    while (value.find(L'\n') != std::wstring_view::npos)
        text.append(VoTrimBlanks(TakeLine(value))).append(L" ");
    return text.append(VoTrimBlanks(value));
}

void ReplaceMark(std::wstring& text, std::wstring_view mark, std::wstring_view value)
{
    if (const size_t at = text.find(mark); at != std::wstring::npos)
        text.replace(at, mark.size(), value);
}
} // namespace

std::wstring VoFailureText(const CVoFailure& failure, const CVoFailureContext& context)
{
    const auto* const row = std::find_if(std::begin(kFailures), std::end(kFailures),
                                         [&](const CFailureRow& known) { return known.kind == failure.kind; });
    if (row == std::end(kFailures))
    {
        std::wstring text = failure.detail;
        if (text.empty())
            (void)VoGetErrorText(context.result, true, &text);
        while (!text.empty() && (text.back() == L'.' || text.back() == L'\n' || text.back() == L'\r' || text.back() == L' '))
            text.pop_back();
        return text;
    }
    std::wstring text = row->text;
    if (failure.isProxy)
        ReplaceMark(text, L"%1", L"the proxy " + std::wstring(context.proxy));
    else if (failure.kind == EVoFailure::NameNotFound)
        ReplaceMark(text, L"%1", context.host);
    else
        ReplaceMark(text, L"%1", std::wstring(context.host) + L" port " + std::to_wstring(context.port));
    ReplaceMark(text, L"%2", std::to_wstring(context.statusCode));
    if (!failure.detail.empty())
        text.append(L" (").append(failure.detail).append(L")");
    return text;
}

void CVoResponseHeader::Set(std::wstring text)
{
    // Nothing has changed if this throws.
    m_fields.reserve(static_cast<size_t>(std::count(text.begin(), text.end(), L'\n')) + 1);
    m_fields.clear();
    m_text = std::move(text);
    ForEachField(m_text, [&](std::wstring_view name, std::wstring_view value) { m_fields.push_back({ name, value }); });
}

std::optional<std::wstring> CVoResponseHeader::Find(std::wstring_view name, size_t index) const
{
    for (const CField& field : m_fields)
        if (VoEqualsNoCase(field.name, name) && index-- == 0)
            return Unfold(field.value);
    return std::nullopt;
}

void VoSplitHeader(std::wstring_view text, std::wstring& statusLine, std::vector<CVoHTTPHeader>& headers)
{
    headers.clear();
    ForEachField(text, [&](std::wstring_view name, std::wstring_view value)
    { headers.push_back({ std::wstring(name), Unfold(value) }); });
    statusLine = TakeLine(text);
}

UINT32 VoStatusCode(std::wstring_view statusLine) noexcept
{
    const size_t blank = statusLine.find(L' ');
    if (blank == std::wstring_view::npos)
        return 0;
    const std::wstring_view rest = VoTrimBlanks(statusLine.substr(blank));
    return VoParseDecimal<UINT32>(rest.substr(0, rest.find(L' '))).value_or(0);
}

std::wstring VoHeaderText(std::string_view bytes)
{
    std::wstring text;
    if (FAILED(VoUTF8ToString(bytes, text)))
    {
        text.assign(bytes.size(), L'\0');
        std::transform(bytes.begin(), bytes.end(), text.begin(), [](char c) { return wchar_t{ static_cast<BYTE>(c) }; });
    }
    return text;
}

std::vector<std::wstring> VoChallengeSchemes(const std::vector<CVoHTTPHeader>& headers)
{
    std::vector<std::wstring> schemes;
    for (const CVoHTTPHeader& header : headers)
        if (IsOneOf(header.name, kChallengeHeaders))
            ForEachChallenge(header.value, [&](std::wstring_view scheme)
            {
                if (std::none_of(schemes.begin(), schemes.end(),
                                 [&](const auto& known) { return VoEqualsNoCase(known, scheme); }))
                    schemes.emplace_back(scheme);
            });
    return schemes;
}

std::wstring VoHideUser(std::wstring_view url)
{
    // Clients take one slash for the other, and some take one slash or three behind the scheme for two.
    constexpr std::wstring_view kSlashes = L"/\\";
    std::wstring text;
    for (size_t from = 0;;)
    {
        const size_t mark = url.find_first_of(kSlashes, from);
        if (mark == std::wstring_view::npos)
            break;
        const size_t authority = std::min(url.find_first_not_of(kSlashes, mark), url.size());
        from = authority;
        if (authority - mark < 2 && (mark == 0 || url[mark - 1] != L':'))
            continue;
        // A backslash does not end the user information for all of them.
        const size_t end = std::min(url.find_first_of(L"/?#", authority), url.size());
        const size_t at = url.substr(0, end).rfind(L'@');
        text += url.substr(0, authority);
        url.remove_prefix(at == std::wstring_view::npos || at < authority ? authority : at + 1);
        from = 0;
    }
    return text.append(url);
}

std::wstring VoHideProxyUser(std::wstring_view proxy)
{
    const size_t at = proxy.rfind(L'@');
    if (at == std::wstring_view::npos)
        return std::wstring(proxy);
    // A password may hold "://", too: only letters in front of it are a scheme.
    const size_t mark = proxy.find_first_not_of(L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789");
    const bool hasScheme = proxy.substr(mark).starts_with(L"://");
    return std::wstring(hasScheme ? proxy.substr(0, mark + 3) : std::wstring_view()).append(proxy.substr(at + 1));
}

std::wstring VoHideQuery(std::wstring_view url)
{
    url = url.substr(0, url.find(L'#'));
    const size_t query = url.find(L'?');
    std::wstring text = VoHideUser(url.substr(0, query));
    if (query != std::wstring_view::npos)
        text.append(L"?<").append(std::to_wstring(url.size() - query - 1)).append(L" characters>");
    return text;
}

void VoHideSecrets(std::vector<CVoHTTPHeader>& headers)
{
    for (CVoHTTPHeader& header : headers)
    {
        if (IsOneOf(header.name, kChallengeHeaders))
            header.value = HideChallenge(header.value);
        else if (VoEqualsNoCase(header.name, L"Set-Cookie"))
            header.value = HideCookie(header.value);
        else if (std::any_of(std::begin(kSecretParts), std::end(kSecretParts),
                             [&](const wchar_t* part) { return VoContainsNoCase(header.name, part); }))
            header.value = kHidden;
        else if (IsOneOf(header.name, kAddressHeaders) || header.value.find(L"://") != std::wstring::npos)
            header.value = VoHideQuery(header.value);
    }
}
