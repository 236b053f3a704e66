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
//     message->ReadResponse(request, response, CVoHTTPMessage::EResponseKind::Parameters, nullptr, nullptr);
//
// Three transports implement it (VoHTTPTransports.h). The setting HTTPEngine or the caller chooses one. Each operation returns
// an HRESULT and reports its failures.
#pragma once

#include <VoExchangeRecord.h>
#include <VoGlobalHTTPUtils.h>
#include <VoHTTPStores.h>

#include <base/VoDataParser.h>
#include <base/VoMultiThreading.h>

#include <atomic>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class IVoResponseSink; // VoResponseSink.h

// Any thread may use a message, one at a time: each public operation holds the message's lock for its whole run, so a second
// thread waits. Only Connect makes messages. They are held by std::shared_ptr.
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

    // How a response is read.
    enum class EResponseKind : UINT32
    {
        Parameters = 0, // parameter text, "&&", payload
        Binary = 1      // the body's bytes as the payload
    };

    // The outcome of a send. It is filled in on success and on failure, except when the request is refused before its first
    // attempt.
    struct CSendResult
    {
        bool retried = false;      // more than one attempt was made
        UINT32 statusCode = 0;     // of the last response; 0 when there was none
        std::wstring localAddress; // the client's own IP address on that connection; empty when unknown
    };

    // Bytes moved so far by the request's current attempt. Any thread may ask at any time.
    struct CProgress
    {
        UINT64 sent = 0;
        UINT64 toSend = 0;
        UINT64 received = 0;
        UINT64 toReceive = 0; // 0 while the length of the response is unknown
    };

    // The state of one request. OpenRequest makes it. It lives until the caller releases it. A message accepts only requests
    // that it made itself since its last Connect.
    class CHTTPRequestData : public std::enable_shared_from_this<CHTTPRequestData>
    {
    public:
        CHTTPRequestData() = default;
        CHTTPRequestData(const CHTTPRequestData&) = delete;
        CHTTPRequestData& operator=(const CHTTPRequestData&) = delete;
        virtual ~CHTTPRequestData() = default;

        [[nodiscard]] CProgress GetProgress() const noexcept;
        // The value of the Cookie header that the request was sent with, or that of its last redirect over the Windows
        // transports. Empty: no cookies. Do not call it while the request is being sent.
        [[nodiscard]] const std::wstring& CookieHeader() const noexcept { return m_cookieHeader; }

        // Cancels the request for ever, in whatever state it is: the operation that runs on it ends with kResultCancelled
        // (0x800704C7), and later ones fail with it at once. The message stays usable; open a new request. Any thread, at any
        // time, also more than once. The call returns at once. A transfer ends within a second over libcurl, which polls, and
        // over the Windows transports as soon as the platform ends a call whose handle is closed. A question to the user ends
        // when the authentication callback supports IVoAuthenticationCancel; otherwise when the user has answered it.
        void Cancel() noexcept;
        [[nodiscard]] bool IsCancelled() const noexcept { return m_isCancelled.load(std::memory_order_acquire); }

        // The limits for the responses to this request. Set them before a send.
        void SetResponseLimits(const CVoResponseLimits& limits) noexcept { m_limits = limits; }
        [[nodiscard]] const CVoResponseLimits& ResponseLimits() const noexcept { return m_limits; }

        // Gives the body of the response to a sink while it arrives, instead of keeping it in memory; null: to memory again.
        // Set it before a send. It is not owned, and must outlive the send and the reading. `kind` is how the response will be
        // read: of `Binary` the sink gets all bytes, of `Parameters` the payload, while the parameter text stays in memory.
        // Limits and checks of the body hold as without a sink, so the last bytes may have come when it turns out that the body
        // is not whole: what the sink has is good only after ReadResponse has succeeded. Before another send on the same
        // request the caller clears what the sink has. A request that SendGetRequest makes by itself has no sink.
        void SetResponseSink(IVoResponseSink* sink, EResponseKind kind = EResponseKind::Binary) noexcept
        {
            m_sink = sink;
            m_sinkKind = kind;
        }

        // The following tell of the last send. They return E_FAIL while the request is being sent or read, and before its first
        // send; E_OUTOFMEMORY. The outputs are untouched then.

        // What happened.
        [[nodiscard]] HRESULT GetExchangeRecord(CVoExchangeRecord& record) const noexcept;
        // The headers of the last response, secrets included. Empty without a response.
        [[nodiscard]] HRESULT GetResponseHeaders(std::vector<CVoHTTPHeader>& headers) const noexcept;
        // The beginning of the body of a response whose status is 400 or above (CVoResponseLimits::errorBodyBytes). Empty
        // without such a response, and over WinHTTP for a challenge that was not answered.
        [[nodiscard]] HRESULT GetErrorBody(std::vector<BYTE>& bytes) const noexcept;

    protected:
        std::atomic<UINT64> m_sent{ 0 };
        std::atomic<UINT64> m_toSend{ 0 };
        std::atomic<UINT64> m_received{ 0 };
        std::atomic<UINT64> m_toReceive{ 0 };
        std::atomic<bool> m_isCancelled{ false };
        CVoResponseLimits m_limits;
        IVoResponseSink* m_sink = nullptr;
        EResponseKind m_sinkKind = EResponseKind::Binary;
        std::wstring m_cookieHeader;
    };

    // Notified when the body of a request has been sent, before the response has arrived. It is called on any thread, possibly
    // several times for one request, while the message is locked: do not call the message from inside. A failure fails the
    // request over WinHTTP. The other transports ignore it.
    class CallBack
    {
    public:
        virtual HRESULT OnRequestSent() noexcept = 0;

    protected:
        ~CallBack() = default;
    };
    using C_CallBack = HRESULT (CVoHTTPMessage::*)();

    // Makes the transport that the module information names (CVoModuleInformation::HTTPEngine) and connects it. There is no
    // fallback to another transport or address. Each of the three interfaces may be null: then no credentials are asked for, no
    // proxy is used, no cookies are kept. Time-outs are in seconds. `connectTimeout` bounds connecting and, on Windows'
    // services, each piece sent; it is also the budget of retries. `requestTimeout` bounds the whole request with libcurl, and
    // the headers and each piece received on Windows' services. The two certificate switches hold for https addresses only.
    // E_NOTIMPL: unknown transport kind. E_INVALIDARG: the address has no host. Otherwise the transport's own code. `message`
    // is untouched on failure.
    [[nodiscard]] static HRESULT Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                         IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                         UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation,
                                         std::shared_ptr<CVoHTTPMessage>& message) noexcept;
    // The same with the transport of the given kind (VoHTTPTransports.h), whatever the module information names. It reads no
    // state of the process, so threads may connect with different transports at the same time.
    [[nodiscard]] static HRESULT Connect(UINT32 transportKind, const CServerAddressData& serverAddress,
                                         IVoAuthenticationCallback* authCallback, IVoHTTPProxyStore* proxyStore,
                                         IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout, UINT32 requestTimeout,
                                         bool verifyServerCertificate, bool checkRevocation,
                                         std::shared_ptr<CVoHTTPMessage>& message) noexcept;

    virtual ~CVoHTTPMessage();
    CVoHTTPMessage(const CVoHTTPMessage&) = delete;
    CVoHTTPMessage& operator=(const CVoHTTPMessage&) = delete;

    // Connects this object. A connection that is open is closed first: requests made before can no longer be sent. Arguments
    // and codes as for the factory.
    [[nodiscard]] virtual HRESULT Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                          IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                          UINT32 requestTimeout, bool verifyServerCertificate,
                                          bool checkRevocation) noexcept = 0;

    // Makes a request to the server address and looks its proxy and cookies up. E_INVALIDARG when the message is not connected.
    [[nodiscard]] virtual HRESULT OpenRequest(std::shared_ptr<CHTTPRequestData>& request) noexcept = 0;

    // Sends parameters and payload as a POST and waits for the response: with libcurl for the whole of it, over the Windows
    // transports for its status; they fetch the body when it is read. `utf8` chooses UTF-8 or the system's ANSI code page for
    // texts. SignedForm needs `signingKey` (hexadecimal text of a private key blob) and `signatureParameterName`. With
    // `allowRetry` a failed attempt is repeated until the transport's time budget is spent. A response from 400 to 405, a 407
    // and declined credentials are final. Only status 200 is success. `result` may be null. E_INVALIDARG: no request of this
    // message's current connection, or no key. E_NOTIMPL: a payload in a kind that has no place for it. 0x800704C7: credentials
    // were declined. IsTimeOut() recognises a time-out. Otherwise the transport's own codes.
    [[nodiscard]] virtual HRESULT SendMessage(const std::shared_ptr<CHTTPRequestData>& request,
                                              const CVoBinaryDataParser& parameters, EContentKind contentKind, bool utf8,
                                              std::wstring_view signingKey, std::wstring_view signatureParameterName,
                                              bool allowRetry, CSendResult* result) noexcept = 0;

    // Sends several messages in one exchange, each behind its length (see CVoBinaryDataParser::GetMessageDataWithSizePrefix).
    [[nodiscard]] virtual HRESULT SendMultipleMessages(const std::shared_ptr<CHTTPRequestData>& request,
                                                       std::span<const CVoBinaryDataParser> messages, bool utf8,
                                                       bool allowRetry, CSendResult* result) noexcept = 0;

    // Sends a GET for `objectPath` (a path and, behind "?", a query; empty: the server address's own) to the connected server.
    // A request of this message is used when it has that path, or was not sent yet: another thread may then watch or cancel it.
    // Otherwise `request` may be null: a request made here replaces it as soon as that is open.
    [[nodiscard]] virtual HRESULT SendGetRequest(std::shared_ptr<CHTTPRequestData>& request, std::wstring_view objectPath,
                                                 bool allowRetry, CSendResult* result) noexcept = 0;

    // Takes the response out of the request. `isUtf8`: the response's Content-Type names the charset UTF-8; its parameter text
    // is read as UTF-8, otherwise in the thread's ANSI code page. `isEmpty`: it had no body. Both may be null. E_FAIL: the
    // request has no response to read. E_NOTIMPL: unknown kind. The parameters are appended to those of `response`; the payload
    // is replaced. With a sink (SetResponseSink) the payload is empty; the Windows transports give the body to the sink now,
    // and the sink's failure is returned. E_INVALIDARG: the sink was set for another kind, or has been taken away since the
    // send. `response` is untouched on failure.
    [[nodiscard]] virtual HRESULT ReadResponse(const std::shared_ptr<CHTTPRequestData>& request, CVoBinaryDataParser& response,
                                               EResponseKind kind, bool* isUtf8, bool* isEmpty) noexcept = 0;

    // Takes the responses to several messages out of the request; see internalParseMultipleResponses. `count` may be null. The
    // outputs are untouched on failure. E_INVALIDARG: a sink has the response.
    [[nodiscard]] virtual HRESULT ReadMultipleResponses(const std::shared_ptr<CHTTPRequestData>& request,
                                                        std::vector<CVoBinaryDataParser>& responses, UINT32 expectedCount,
                                                        UINT32* count) noexcept = 0;

    // Stores a value for the transport: the address of a CallBack object as a number, or 0 for none. The object is not owned.
    // It must outlive its use here. Always S_OK.
    virtual HRESULT SetUserContext(UINT64 userContext) noexcept = 0;
    HRESULT SetCallBack(CallBack* callBack) noexcept { return SetUserContext(reinterpret_cast<UINT64>(callBack)); }

    // Whether a failed send ran out of time: 0x800705B4 with libcurl, the mapped numbers of WinHTTP and WinINet
    // (ERROR_WINHTTP_TIMEOUT and ERROR_INTERNET_TIMEOUT, both 12002) and of the sockets below them (WSAETIMEDOUT).
    [[nodiscard]] static constexpr bool IsTimeOut(HRESULT result) noexcept
    {
        constexpr DWORD kServicesTimeOut = 12002;
        constexpr DWORD kSocketTimeOut = 10060;
        return result == kResultTimeout || result == HResultFromWin32(kServicesTimeOut) ||
               result == HResultFromWin32(kSocketTimeOut);
    }

    // "<application>_<target>_<architecture>/<version>" from the arguments and the module information; each "," of the version
    // becomes ".". Throws std::bad_alloc.
    [[nodiscard]] static std::wstring GetUserAgentString(std::wstring_view applicationName);

    // Appends "&<parameterName>=<signature>" to a form body: the RSA-SHA1 signature over the body as it was, in URL-safe
    // Base64. A zero byte follows the new body and is not counted. E_INVALIDARG: the body is empty or `sign` is false. The body
    // is untouched on failure.
    [[nodiscard]] static HRESULT SignMessage(bool sign, CVoByteBuffer& body, std::wstring_view key,
                                             std::wstring_view parameterName) noexcept;
    // The same for a body made with new[]: on success it is replaced by a new one, and the old one is freed.
    [[nodiscard]] static HRESULT SignMessage(bool sign, BYTE*& body, UINT32& bodyLength, std::wstring_view key,
                                             std::wstring_view parameterName) noexcept;

    // The bytes over which a detached signature is made: content type, length and digest, a line each.
    [[nodiscard]] static HRESULT CreateSignatureBase(std::wstring_view contentType, UINT32 contentLength,
                                                     std::wstring_view contentDigest, std::string& bytes) noexcept;

    // The digest text of a body, "sha-256=:<Base64>:" (RFC 9530, section 2).
    [[nodiscard]] static HRESULT CreateContentDigest(std::span<const BYTE> body, std::wstring& digest) noexcept;

    // Appends a record to the data log when the module is debugged (CVoModuleInformation::IsDebug). The log is a file in the
    // folder "\logdir", named after the local time of its first record. A record that cannot be written is dropped.
    enum class EDataDirection
    {
        Read,
        Written
    };
    void WriteDataToLogFile(EDataDirection direction, const BYTE* data, UINT32 length) const noexcept;

    // Splits the response to several messages, each behind its length, into parsers. With an `expectedCount` other than 0 a
    // different number of messages is E_FAIL. A length that runs past the end is E_FAIL. kErrorResponseLimit: more than 100,000
    // messages where no number is expected, or more than 1 GiB of messages and parsers. `responses` is untouched on failure.
    [[nodiscard]] static HRESULT internalParseMultipleResponses(std::span<const BYTE> bytes, bool utf8, UINT32 expectedCount,
                                                                std::vector<CVoBinaryDataParser>& responses) noexcept;

protected:
    CVoHTTPMessage() = default;

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
