// The texts of an exchange record: header blocks become fields, secrets are hidden, a failure becomes a sentence. Pure
// functions; the transport core calls them.
#pragma once

#include <VoExchangeRecord.h>

#include <base/VoUtils.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The connection of one exchange, as a transport's service tells it while it works. Times are those of VoGetMicroseconds; 0: it
// did not happen.
struct CVoConnectionTrace
{
    std::vector<std::wstring> addresses; // that were tried, also by the attempt's earlier exchanges
    std::wstring remoteAddress;
    std::wstring resolved; // the host whose address the service looked up: the server's, or that of a proxy
    INT64 name = 0;
    INT64 connect = 0;
    INT64 tls = 0;
    INT64 sending = 0; // the request began to leave
    INT64 sent = 0;
    INT64 firstByte = 0;
    INT64 end = 0;           // the status is known
    DWORD secureFailure = 0; // flags of the service about the certificate

    // Another exchange of the attempt begins.
    void BeginSend() noexcept
    {
        name = connect = tls = sending = sent = firstByte = end = 0;
        secureFailure = 0;
        resolved.clear();
    }
    // Events of Windows' services, which may notify several times. The first one counts.
    void OnNameResolved() noexcept { Stamp(name); }
    void OnConnected() noexcept { Stamp(connect); }
    // The services do not tell the end of the TLS handshake; the request begins to leave then.
    void OnSending(bool isSecure) noexcept
    {
        if (isSecure && connect != 0)
            Stamp(tls);
        Stamp(sending);
    }
    void OnResponse() noexcept { Stamp(firstByte); }

private:
    static void Stamp(INT64& time) noexcept
    {
        if (time == 0)
            time = VoGetMicroseconds();
    }
};

// The header of one response, as a transport's service tells it, and the URL that it answers.
struct CVoRawResponse
{
    std::wstring url;
    std::wstring header; // the status line and a line for each field
};

// Why a send failed, as its transport knows it.
struct CVoFailure
{
    EVoFailure kind = EVoFailure::Other;
    bool isProxy = false;     // the connection that failed was to the proxy
    std::wstring proxy = {};  // its name, where the service found it by itself
    UINT32 statusCode = 0;    // Status: of a proxy's response to CONNECT; 0: that of the response
    std::wstring detail = {}; // the service's own words; may be empty
};

// What a sentence about a failure names.
struct CVoFailureContext
{
    std::wstring_view host;
    UINT16 port = 0;
    std::wstring_view proxy; // "host:port"
    UINT32 statusCode = 0;
    HRESULT result = S_OK;
};

// The sentence for CAttempt::reason, without a full stop. Throws std::bad_alloc.
[[nodiscard]] std::wstring VoFailureText(const CVoFailure& failure, const CVoFailureContext& context);

// One response's header: a status line and a field on each line, as it came. A line that begins with a blank or a tab continues
// the field before it (RFC 9112, section 5.2). A line without ":" is dropped, with those that continue it.
class CVoResponseHeader
{
public:
    CVoResponseHeader() = default;
    CVoResponseHeader(const CVoResponseHeader&) = delete;
    CVoResponseHeader& operator=(const CVoResponseHeader&) = delete;

    // Replaces the header. An empty text stands for no header. Throws std::bad_alloc, and keeps the old header then.
    void Set(std::wstring text);
    [[nodiscard]] const std::wstring& Text() const noexcept { return m_text; }
    // The value of field number `index` of a name, from 0. Nothing where the header has none. Throws std::bad_alloc.
    [[nodiscard]] std::optional<std::wstring> Find(std::wstring_view name, size_t index) const;

private:
    struct CField
    {
        std::wstring_view name; // parts of the text
        std::wstring_view value;
    };
    std::wstring m_text;
    std::vector<CField> m_fields;
};

// Splits the text of one response's header. Throws std::bad_alloc.
void VoSplitHeader(std::wstring_view text, std::wstring& statusLine, std::vector<CVoHTTPHeader>& headers);
// The code of a status line; 0 where it has none.
[[nodiscard]] UINT32 VoStatusCode(std::wstring_view statusLine) noexcept;
// The bytes of a header as text: UTF-8, or else one character for each byte (RFC 9110, section 5.5). Throws std::bad_alloc.
[[nodiscard]] std::wstring VoHeaderText(std::string_view bytes);

// The schemes of the challenges in WWW-Authenticate and Proxy-Authenticate (RFC 9110, section 11.6.1), each once. Throws
// std::bad_alloc.
[[nodiscard]] std::vector<std::wstring> VoChallengeSchemes(const std::vector<CVoHTTPHeader>& headers);

// The text of URLs without user information. Throws std::bad_alloc.
[[nodiscard]] std::wstring VoHideUser(std::wstring_view url);
// A proxy, "[scheme://][user:password@]host:port", without the user and the password. Throws std::bad_alloc.
[[nodiscard]] std::wstring VoHideProxyUser(std::wstring_view proxy);
// A URL with the length of its query in place of the query, and without user information. Throws std::bad_alloc.
[[nodiscard]] std::wstring VoHideQuery(std::wstring_view url);
// Hides what may be secret in the values of headers. Throws std::bad_alloc.
void VoHideSecrets(std::vector<CVoHTTPHeader>& headers);
