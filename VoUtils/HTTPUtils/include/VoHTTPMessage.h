// The HTTP client: one message object is a connection to one server address.
//
//     CServerAddressData address;
//     address.SetAddress(L"https://server.example/service", true, true, true);
//     std::shared_ptr<CVoHTTPMessage> message;
//     CVoHTTPMessage::Connect(address, nullptr, nullptr, nullptr, 30, 60, true, false, message);
//
//     std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
//     message->OpenRequest(request);
//     message->SendMessage(request, parameters, CVoHTTPMessage::EContentKind::Raw, true, {}, {}, false, nullptr);
//     message->ReadResponse(request, answer, CVoHTTPMessage::EResponseKind::Parameters, nullptr, nullptr);
//
// Three transports implement it; the setting HTTPEngine picks one. Each operation answers an HRESULT and reports its failures.
#pragma once

#include <VoGlobalHTTPUtils.h>
#include <VoHTTPStores.h>

#include <base/VoDataParser.h>
#include <base/VoMultiThreading.h>
#include <base/VoWipe.h>

#include <atomic>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Any thread may use a message, one at a time: each public operation holds the message's lock for its whole run, so that a
// second thread waits. Objects come from Connect only and are held by std::shared_ptr; a request keeps its message alive where
// the transport needs that.
class CVoHTTPMessage : public std::enable_shared_from_this<CVoHTTPMessage>
{
public:
    // What a request carries in its body.
    enum class EContentKind : UINT32
    {
        Raw = 0,        // the message's bytes: parameter text, "&&", payload (application/octet-stream)
        Multipart = 1,  // multipart/form-data, the payload as an uploaded file
        Form = 2,       // application/x-www-form-urlencoded; no payload
        SignedForm = 3, // as Form, with an RSA signature over the body as the last field
        Empty = 4       // no body; parameters are not sent, a payload is refused
    };

    // How an answer is read.
    enum class EResponseKind : UINT32
    {
        Parameters = 0, // parameter text, "&&", payload
        Binary = 1      // the body's bytes as the payload
    };

    // What became of a send; filled in whether it succeeded or not, unless it was refused before a first attempt.
    struct CSendResult
    {
        bool retried = false;      // more than one attempt was made
        UINT32 statusCode = 0;     // of the last answer; 0 when there was none
        std::wstring localAddress; // the client's own IP address on that connection; empty when unknown
    };

    // Bytes moved so far by the request's current attempt; another thread may ask at any time.
    struct CProgress
    {
        UINT64 sent = 0;
        UINT64 toSend = 0;
        UINT64 received = 0;
        UINT64 toReceive = 0; // 0 while the length of the answer is unknown
    };

    // The state of one request, made by OpenRequest; it lives until the answer has been read or the caller lets it go. Each
    // transport has its own kind, and takes only requests that it made itself.
    class CHTTPRequestData : public std::enable_shared_from_this<CHTTPRequestData>
    {
    public:
        CHTTPRequestData() = default;
        CHTTPRequestData(const CHTTPRequestData&) = delete;
        CHTTPRequestData& operator=(const CHTTPRequestData&) = delete;
        virtual ~CHTTPRequestData() = default;

        [[nodiscard]] CProgress GetProgress() const noexcept;
        // The value of the Cookie header that the request was opened with, or of its last redirect's over the Windows
        // transports; empty for none. Not while the request is being sent.
        [[nodiscard]] const std::wstring& CookieHeader() const noexcept { return m_cookieHeader; }

    protected:
        std::atomic<UINT64> m_sent{ 0 };
        std::atomic<UINT64> m_toSend{ 0 };
        std::atomic<UINT64> m_received{ 0 };
        std::atomic<UINT64> m_toReceive{ 0 };
        std::wstring m_cookieHeader;
    };

    // Told when the body of a request has left, before the answer is there. Called on a thread of the transport's, possibly
    // several times for one request, while the message is locked: do not call the message from inside. A failure fails the
    // request over WinHTTP; the others pass over it.
    class CallBack
    {
    public:
        virtual HRESULT OnRequestSent() noexcept = 0;

    protected:
        ~CallBack() = default;
    };
    using C_CallBack = HRESULT (CVoHTTPMessage::*)();

    // Makes the transport that the module information names (CVoModuleInformation::HTTPEngine) and connects it. There is no
    // fallback to another transport or address. The three interfaces may be null: no credentials are asked for, no proxy is
    // used, no cookies are kept. Time-outs are in seconds: `connectTimeout` for connecting and, on Windows' services, for each
    // piece sent, and the budget of retries; `requestTimeout` for the whole of a request with libcurl, for the headers and for
    // each piece received on Windows' services. The two certificate switches hold for https addresses only.
    // E_NOTIMPL for an unknown transport kind; else the transport's own code. `message` is untouched on failure.
    [[nodiscard]] static HRESULT Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                         IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                         UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation,
                                         std::shared_ptr<CVoHTTPMessage>& message) noexcept;

    virtual ~CVoHTTPMessage();
    CVoHTTPMessage(const CVoHTTPMessage&) = delete;
    CVoHTTPMessage& operator=(const CVoHTTPMessage&) = delete;

    // Connects this object, closing a connection that is open. Arguments as for the factory.
    [[nodiscard]] virtual HRESULT Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                          IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                          UINT32 requestTimeout, bool verifyServerCertificate,
                                          bool checkRevocation) noexcept = 0;

    // Makes a request to the server address: its proxy and its cookies are looked up now.
    [[nodiscard]] virtual HRESULT OpenRequest(std::shared_ptr<CHTTPRequestData>& request) noexcept = 0;

    // Sends parameters and payload as a POST and waits for the answer: for its status and, with libcurl, its body, which the
    // Windows transports fetch while it is read. `utf8` chooses UTF-8 or the system's ANSI code page for texts. `signingKey`
    // (hexadecimal text of a private key blob) and `signatureParameterName` are needed for SignedForm. With `allowRetry` a
    // failed attempt is repeated until the transport's time budget is spent, but never after an answer from 400 to 405. Success
    // is status 200 and nothing else. E_INVALIDARG without a request of this message or a key, E_NOTIMPL for a payload in a
    // kind that has no place for it, 0x800704C7 when credentials were declined, 0x800705B4 for a time-out, the transport's own
    // codes otherwise. `result` may be null.
    [[nodiscard]] virtual HRESULT SendMessage(const std::shared_ptr<CHTTPRequestData>& request,
                                              const CVoBinaryDataParser& parameters, EContentKind contentKind, bool utf8,
                                              std::wstring_view signingKey, std::wstring_view signatureParameterName,
                                              bool allowRetry, CSendResult* result) noexcept = 0;

    // Sends several messages in one exchange, each behind its length (see CVoBinaryDataParser::GetMessageDataWithSizePrefix).
    [[nodiscard]] virtual HRESULT SendMultipleMessages(const std::shared_ptr<CHTTPRequestData>& request,
                                                       std::span<const CVoBinaryDataParser> messages, bool utf8,
                                                       bool allowRetry, CSendResult* result) noexcept = 0;

    // Sends a GET for `objectPath` (a path and, behind "?", a query; empty: the server address's own) on the connected server.
    // With an empty path a request of OpenRequest's is used as it is, so that another thread may watch its progress. In every
    // other case `request` may be null and is replaced by a request made here, as soon as that is open.
    [[nodiscard]] virtual HRESULT SendGetRequest(std::shared_ptr<CHTTPRequestData>& request, std::wstring_view objectPath,
                                                 bool allowRetry, CSendResult* result) noexcept = 0;

    // Takes the answer out of the request. `isUtf8`: the answer named UTF-8 as its charset; parameter text is read so, else in
    // the thread's ANSI code page. `isEmpty`: it had no body. Both may be null. E_FAIL when the request has no answer to read,
    // E_NOTIMPL for an unknown kind. `response` receives the parameters behind those it has, and a new payload; it is untouched
    // on failure.
    [[nodiscard]] virtual HRESULT ReadResponse(const std::shared_ptr<CHTTPRequestData>& request, CVoBinaryDataParser& response,
                                               EResponseKind kind, bool* isUtf8, bool* isEmpty) noexcept = 0;

    // Takes the answers to several messages out of the request. With an `expectedCount` other than 0 a different number of
    // answers is E_FAIL. A length that runs past the end is E_FAIL. `count` may be null. Nothing is handed out on failure.
    [[nodiscard]] virtual HRESULT ReadMultipleResponses(const std::shared_ptr<CHTTPRequestData>& request,
                                                        std::vector<CVoBinaryDataParser>& responses, UINT32 expectedCount,
                                                        UINT32* count) noexcept = 0;

    // Keeps a value for the transport: the address of a CallBack object as a number, or 0 for none. The object is not owned and
    // must outlive its use here. Always S_OK.
    virtual HRESULT SetUserContext(UINT64 userContext) noexcept = 0;
    HRESULT SetCallBack(CallBack* callBack) noexcept { return SetUserContext(reinterpret_cast<UINT64>(callBack)); }

    // "<application>_<target>_<architecture>/<version>" from the arguments and the module information; the version's "," become
    // ".". Throws std::bad_alloc.
    [[nodiscard]] static std::wstring GetUserAgentString(std::wstring_view applicationName);

    // Appends "&<parameterName>=<signature>" to a form body: the RSA-SHA1 signature over the body as it was, in URL-safe
    // Base64. A zero byte stands behind the new body and is not counted. E_INVALIDARG for an empty body or when `sign` is
    // false. The body is untouched on failure.
    [[nodiscard]] static HRESULT SignMessage(bool sign, CVoByteBuffer& body, std::wstring_view key,
                                             std::wstring_view parameterName) noexcept;

    // The bytes over which a detached signature is made: content type, length and digest, a line each.
    [[nodiscard]] static HRESULT CreateSignatureBase(std::wstring_view contentType, UINT32 contentLength,
                                                     std::wstring_view contentDigest, std::string& bytes) noexcept;

    // The digest text of a body, "sha-256=:<Base64>:" (RFC 9530, section 2).
    [[nodiscard]] static HRESULT CreateContentDigest(std::span<const BYTE> body, std::wstring& digest) noexcept;

protected:
    friend class CVoHTTPMessageTestAccess;

    // The body of a request with the header line that describes it.
    struct CContent
    {
        CVoByteBuffer body;
        std::wstring contentTypeHeader; // "Content-Type: ...", or without a value where there is no body
    };
    // Whether a header line has a value; one without is not sent.
    [[nodiscard]] static bool HasValue(std::wstring_view header) noexcept { return !header.ends_with(L':'); }
    // The trace points of CreateContent, which each transport has in a range of its own.
    struct CContentTracePoints
    {
        int raw;           // kind 0 could not be built
        int multipart;     // kind 1 could not be built
        int formPayload;   // kind 2 with a payload
        int form;          // kind 2 could not be built
        int signedKey;     // kind 3 without a key
        int signedName;    // kind 3 without a parameter name
        int signedPayload; // kind 3 with a payload
        int signedForm;    // kind 3 could not be built
        int sign;          // kind 3 could not be signed
        int emptyPayload;  // kind 4 with a payload
        int unknownKind;   // any other
        int exception;     // memory ran out
    };
    enum class EDataDirection
    {
        Read,
        Written
    };

    CVoHTTPMessage() = default;

    // What every transport's Connect keeps; call it under the lock with the old connection closed.
    void StoreConnection(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                         IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                         UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation);
    // Forgets it again.
    void ForgetConnection() noexcept;

    // Builds a request's body. Failures are reported through `report` at the transport's own trace points.
    [[nodiscard]] static HRESULT CreateContent(const CVoBinaryDataParser& parameters, EContentKind kind, bool utf8,
                                               std::wstring_view key, std::wstring_view signatureParameterName,
                                               const CVoReporter& report, const CContentTracePoints& points,
                                               CContent& content) noexcept;
    // The body of several messages, with its header line.
    [[nodiscard]] static HRESULT CreateMultipleContent(std::span<const CVoBinaryDataParser> messages, bool utf8,
                                                       CContent& content) noexcept;

    // Whether a failed attempt is repeated. `status` is the last answer's (0 for none), times are in microseconds. Who declines
    // to give credentials is not asked for them again.
    [[nodiscard]] static constexpr bool ShouldRetry(bool allowRetry, HRESULT failure, UINT32 status, INT64 elapsed,
                                                    INT64 budget) noexcept
    {
        const bool final = failure == kResultCancelled || (status >= 400 && status <= 405);
        return allowRetry && !final && elapsed < budget;
    }
    // The attempts of one send, which begin with this object: counts them and decides about the next.
    class CAttempts
    {
    public:
        CAttempts(bool allowRetry, UINT32 budgetSeconds) noexcept;
        void Begin() noexcept { ++m_count; }
        [[nodiscard]] bool MayRetry(HRESULT failure, UINT32 status) const noexcept;
        [[nodiscard]] bool HasBegun() const noexcept { return m_count > 0; }
        [[nodiscard]] bool Retried() const noexcept { return m_count > 1; }

    private:
        bool m_allowRetry;
        INT64 m_budget;
        INT64 m_start;
        UINT32 m_count = 0;
    };

    // An answer that a transport has received, until the caller reads it.
    struct CAnswer
    {
        bool isThere = false;
        std::vector<BYTE> bytes;
        bool utf8 = false; // its Content-Type named UTF-8
    };
    // What ReadResponse and ReadMultipleResponses do once the answer is there: take it out of the request.
    [[nodiscard]] static HRESULT ReadAnswer(CAnswer& answer, EResponseKind kind, CVoBinaryDataParser& response, bool* isUtf8,
                                            bool* isEmpty) noexcept;
    [[nodiscard]] static HRESULT ReadAnswers(CAnswer& answer, std::vector<CVoBinaryDataParser>& responses, UINT32 expectedCount,
                                             UINT32* count) noexcept;

    // Whether a Content-Type value names UTF-8 as its charset (RFC 9110, section 8.3.2).
    [[nodiscard]] static bool NamesUtf8(std::wstring_view contentType) noexcept;

    // Splits the answer to several messages.
    [[nodiscard]] static HRESULT internalParseMultipleResponses(std::span<const BYTE> bytes, bool utf8, UINT32 expectedCount,
                                                                std::vector<CVoBinaryDataParser>& responses) noexcept;

    // The cookie store's header value for a request; empty without a store or a matching cookie.
    [[nodiscard]] HRESULT GetCookieHeader(const CServerAddressData& address, std::wstring& cookie) const noexcept;
    // Hands one Set-Cookie value from the answer of `requestUrl` to a cookie store, which may be null.
    [[nodiscard]] static HRESULT StoreCookie(IVoHTTPCookieStore* store, std::wstring_view setCookieValue,
                                             std::wstring_view requestUrl) noexcept;
    struct CProxy
    {
        std::wstring proxy; // empty: direct
        std::wstring user;  // empty: no credentials are known
        std::wstring password;

        ~CProxy();
    };
    // The proxy store's answer for a URL; direct without a store. A null `url` asks for the configured manual proxy.
    [[nodiscard]] HRESULT GetProxy(const std::wstring* url, CProxy& proxy) const noexcept;

    struct CCredentials
    {
        std::wstring user;
        CVoSecret<wchar_t> password;
    };
    // Asks a callback for credentials for the server at `address`, the URL that demands them, or for the proxy before it when
    // `proxy` (its name) is given. kResultCancelled when the user declined or gave no name; the callback's own failure.
    [[nodiscard]] static HRESULT AskForCredentials(IVoAuthenticationCallback& callback, const CServerAddressData& address,
                                                   const std::wstring* proxy, CCredentials& credentials) noexcept;

    // Keeps credentials that a proxy has accepted in a proxy store.
    [[nodiscard]] static HRESULT SaveProxyCredentials(IVoHTTPProxyStore& store, const std::wstring& proxy,
                                                      const std::wstring& user, const std::wstring& password) noexcept;

    // Appends a record of bytes sent or received to the data log, when the module is debugged. Its failures fail nothing.
    void WriteDataToLogFile(EDataDirection direction, const BYTE* data, UINT32 length) const noexcept;

    [[nodiscard]] CallBack* GetCallBack() const noexcept { return reinterpret_cast<CallBack*>(m_userContext); }

    mutable CCriticalSection m_lock;
    bool m_connected = false;
    CServerAddressData m_serverAddress;
    CVoComPtr<IVoAuthenticationCallback> m_authCallback;
    CVoComPtr<IVoHTTPProxyStore> m_proxyStore;
    CVoComPtr<IVoHTTPCookieStore> m_cookieStore;
    UINT32 m_connectTimeout = 0; // seconds
    UINT32 m_requestTimeout = 0; // seconds
    bool m_verifyServerCertificate = false;
    bool m_checkCertificateRevocation = false;
    UINT64 m_userContext = 0;
};
