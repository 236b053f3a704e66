// The transport core: everything that the transports share. It implements the eight operations of CVoHTTPMessage once: lock,
// owner check, request state, content, retries, challenges, redirects and their cookies, data log, result, reading.
//
// A transport derives from CVoHTTPTransport and supplies the hooks (the private virtual functions below), its facts
// (CVoTransportFacts) and its table of trace points. It knows neither the stores nor retries.
#pragma once

#include "VoBodyReceiver.h"
#include "VoExchangeText.h"
#include "VoHTTPContent.h"

#include <VoHTTPMessage.h>

#include <base/VoErrorHandler.h>
#include <base/VoMultiThreading.h>
#include <base/VoReportChain.h>
#include <base/VoWipe.h>
#include <base/com/VoComHelper.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The functions and numbers under which the core reports for one transport. Each transport fills in a table of its own.
struct CVoTransportTracePoints
{
    const wchar_t* source;
    struct CDestructor
    {
        const wchar_t* function;
        int close; // the connection could not be closed
    } destructor;
    struct CClose
    {
        const wchar_t* function;
        int request; // a request's handle could not be closed
        int session; // the connection could not be closed
    } close;
    struct CConnect
    {
        const wchar_t* function;
        int close; // the connection that was open could not be closed
        int address;
        int open;
        int exception;
    } connect;
    struct COpenRequest
    {
        const wchar_t* function;
        int open;
        int exception;
    } openRequest;
    struct COpen
    {
        const wchar_t* function;
        int notConnected;
        int proxy;   // the proxy store failed
        int cookies; // the cookie store failed; the request is sent without cookies
        int handle;
    } internalOpenRequest;
    struct CSendMessage
    {
        const wchar_t* function;
        int request; // no request of this connection
        CVoContentTracePoints content;
        int send;
        int exception;
    } sendMessage;
    struct CSendMultiple
    {
        const wchar_t* function;
        int request;
        int content;
        int send;
        int exception;
    } sendMultipleMessages;
    struct CSendGet
    {
        const wchar_t* function;
        int path;
        int open;
        int send;
        int exception;
    } sendGetRequest;
    struct CSend
    {
        const wchar_t* function;
        int attempt; // an attempt failed
        int exception;
        int reset; // no further attempt is possible
        int callBack;
    } internalSend;
    struct CAttempt
    {
        const wchar_t* function;
        int open;         // no fresh handle
        int cookie;       // a cookie was refused; it is dropped
        int redirect;     // a redirect is not followed
        int limit;        // the response's header is larger than allowed
        int ask = 0;      // asking for credentials failed (asksBetweenSends only)
        int declined = 0; // nobody gave credentials (asksBetweenSends only)
        int address;      // "Addr:..."
        int status;       // the status is not 200, or (for some) any other failure
    } internalSendRAW;
    struct CRead
    {
        const wchar_t* function;
        int request;
        int fetch;
        int read;
        int exception;
    } readResponse, readMultipleResponses;
    struct CFetch
    {
        const wchar_t* function;
        int length; // the connection ended before the announced length was reached
    } internalReadResponse;
};

// What a transport does by itself or differently.
struct CVoTransportFacts
{
    HRESULT unexpectedStatus;      // the code for a status other than 200
    bool followsRedirects = false; // by itself; otherwise the core follows
    bool keepsHandle = false;      // one handle serves all sends of a request and holds its response
    bool usesProxyStore = true;    // for requests; false: the platform's proxy settings
    bool asksBetweenSends =
        false; // the core answers 401 and 407 between two sends; otherwise the transport asks while it sends
    bool savesProxyAtOnce = false;    // typed proxy credentials are saved when they are typed, otherwise when they are accepted
    bool cookiesAtSend = false;       // cookies are looked up for each attempt, otherwise when the request is opened
    bool storesCookies = false;       // by itself, while it receives
    bool notifiesAfterStatus = false; // the call back is also called after a status of 200
    bool tracesEveryAddress = false;  // "Addr:..." for every failure, otherwise for a status other than 200
};

class CVoHTTPTransport : public CVoHTTPMessage
{
public:
    [[nodiscard]] HRESULT Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                  IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                  UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation) noexcept final;
    [[nodiscard]] HRESULT OpenRequest(std::shared_ptr<CHTTPRequestData>& request) noexcept final;
    [[nodiscard]] HRESULT SendMessage(const std::shared_ptr<CHTTPRequestData>& request, const CVoBinaryDataParser& parameters,
                                      EContentKind contentKind, bool utf8, std::wstring_view signingKey,
                                      std::wstring_view signatureParameterName, bool allowRetry,
                                      CSendResult* result) noexcept final;
    [[nodiscard]] HRESULT SendMultipleMessages(const std::shared_ptr<CHTTPRequestData>& request,
                                               std::span<const CVoBinaryDataParser> messages, bool utf8, bool allowRetry,
                                               CSendResult* result) noexcept final;
    [[nodiscard]] HRESULT SendGetRequest(std::shared_ptr<CHTTPRequestData>& request, std::wstring_view objectPath,
                                         bool allowRetry, CSendResult* result) noexcept final;
    [[nodiscard]] HRESULT ReadResponse(const std::shared_ptr<CHTTPRequestData>& request, CVoBinaryDataParser& response,
                                       EResponseKind kind, bool* isUtf8, bool* isEmpty) noexcept final;
    [[nodiscard]] HRESULT ReadMultipleResponses(const std::shared_ptr<CHTTPRequestData>& request,
                                                std::vector<CVoBinaryDataParser>& responses, UINT32 expectedCount,
                                                UINT32* count) noexcept final;
    HRESULT SetUserContext(UINT64 userContext) noexcept final;
    // Ends the connection and forgets what Connect was given. Requests that still wait for their response fail with E_FAIL.
    // Returns the first failure. S_OK when there is no connection.
    [[nodiscard]] HRESULT Close() noexcept;

    static constexpr UINT32 kStatusOk = 200;
    static constexpr UINT32 kStatusUnauthorized = 401;
    static constexpr UINT32 kStatusProxyAuthenticationRequired = 407;

    // Whether a Content-Type value names UTF-8: its upper-cased text holds "CHARSET" and "UTF-8".
    [[nodiscard]] static bool NamesUtf8(std::wstring_view contentType) noexcept;
    // Whether a failed attempt is repeated. `status` is the last response's (0: none). Times are in microseconds. Declined
    // credentials and an unanswered 407 are final: the next attempt would meet the same question.
    [[nodiscard]] static constexpr bool ShouldRetry(bool allowRetry, HRESULT failure, UINT32 status, INT64 elapsed,
                                                    INT64 budget) noexcept
    {
        const bool isFinal =
            failure == kResultCancelled || (status >= 400 && status <= 405) || status == kStatusProxyAuthenticationRequired;
        return allowRetry && !isFinal && elapsed < budget;
    }

protected:
    struct CCredentials
    {
        std::wstring user;
        CVoSecret<wchar_t> password;

        [[nodiscard]] bool operator==(const CCredentials& other) const noexcept
        {
            return user == other.user && password.Get() == other.password.Get();
        }
    };

    // The state that all transports' requests share.
    class CRequest : public CHTTPRequestData
    {
    public:
        using CHTTPRequestData::m_cookieHeader;
        using CHTTPRequestData::m_isCancelled;
        using CHTTPRequestData::m_limits;
        using CHTTPRequestData::m_received;
        using CHTTPRequestData::m_sent;
        using CHTTPRequestData::m_sink;
        using CHTTPRequestData::m_sinkKind;
        using CHTTPRequestData::m_toReceive;
        using CHTTPRequestData::m_toSend;

        std::weak_ptr<CVoHTTPTransport> m_message; // challenges that arrive after the message's end are not answered
        UINT64 m_connection = 0;                   // the number of the message's connection that the request belongs to
        const wchar_t* m_verb = L"POST";           // of the handle, and of the send that uses it
        const wchar_t* m_nextVerb = L"POST";       // of the next send
        CServerAddressData m_address;              // where each attempt begins
        // Where the attempt has come to: m_address, or the target of the last redirect, with the verb for it.
        CServerAddressData m_target;
        const wchar_t* m_targetVerb = L"POST";

        std::wstring m_proxy;     // the proxy store's answer, a list
        std::wstring m_proxyName; // "host:port" of the list for the target's scheme; empty: a direct connection
        std::optional<CCredentials> m_proxyCredentials;  // for m_proxyName; without it for the proxy of m_proxyOrigin
        std::wstring m_proxyOrigin;                      // a base URL: the target of the send that they were typed for
        bool m_proxyCredentialsEntered = false;          // typed for this request: saved once the proxy has accepted them
        std::optional<CCredentials> m_serverCredentials; // typed during this send, for m_serverOrigin only
        std::wstring m_serverOrigin;                     // a base URL

        std::wstring m_localAddress;
        UINT32 m_statusCode = 0;           // of the last response
        bool m_isUsed = false;             // the handle has been used: the next send needs a fresh one
        bool m_isFinal = false;            // no further attempt of this send makes sense
        bool m_hasPendingResponse = false; // the body waits in the transport

        CVoConnectionTrace m_trace;    // of the last SendOnce
        CVoResponseHeader m_header;    // of its response, where ReadHeader gives it
        size_t m_headerLength = 0;     // in bytes, also of a header that is larger than allowed
        std::vector<BYTE> m_errorBody; // the beginning of the body of a response whose status is not 200

        // Of a send whose body goes to a sink: how the response will be read.
        std::optional<EResponseKind> m_streamedKind;
        bool m_hasWritten = false; // the sink has bytes of the last attempt
        bool m_hasSinkFailed = false;

        // A body that the transport has received, until the caller reads it.
        struct CResponse
        {
            bool isThere = false;
            bool isEmpty = false;
            std::vector<BYTE> bytes; // with a sink only what it was not given
            bool utf8 = false;
        } m_response;

        // The record of the send (VoHTTPTransportRecord.cpp). While the request is used, the thread that uses it owns these
        // members; otherwise the lock guards them, and the handle that a response is read from.
        mutable CVoLock m_recordLock;
        bool m_isInUse = false;
        mutable CVoExchangeRecord m_record;
        mutable bool m_isUndescribed = false; // the last SendOnce is not in the record yet
        mutable std::wstring m_lastHeader;    // of the last response, with its secrets
        INT64 m_sendStart = 0;                // of VoGetMicroseconds
        INT64 m_attemptStart = 0;
        CVoReportChain m_chain; // of the last attempt

        // The question that is open: whom to tell that the request was cancelled.
        CVoLock m_questionLock;
        CVoComPtr<IVoAuthenticationCallback> m_question; // null: none is open
        DWORD m_questionThread = 0;
    };

    CVoHTTPTransport(const CVoTransportTracePoints& points, const CVoTransportFacts& facts);
    // Call it in the destructor of the transport, while the hooks still exist.
    void CloseInDestructor() noexcept;

    // Asks the authentication callback for credentials for the server at the request's target, or for its proxy, and remembers
    // them in the request. Any thread. E_FAIL: there is no callback. kResultCancelled: the user declined, gave no name, or gave
    // the credentials that were refused just before. Otherwise the callback's own failure.
    [[nodiscard]] HRESULT AskForCredentials(CRequest& request, bool proxy, CCredentials& credentials) noexcept;
    // Saves typed proxy credentials that the proxy has accepted.
    void KeepProxyCredentials(CRequest& request) noexcept;
    // The Cookie header's value for an address; empty without a store or a matching cookie.
    [[nodiscard]] HRESULT GetCookieHeader(const CServerAddressData& address, std::wstring& cookie) const noexcept;
    // The proxy store's answer: the proxy list for `url`, or the configured one for a null `url`. Direct without a store.
    [[nodiscard]] HRESULT GetProxy(const std::wstring* url, std::wstring& proxy,
                                   std::optional<CCredentials>& credentials) const noexcept;
    [[nodiscard]] HRESULT SaveProxyCredentials(const std::wstring& proxy, const CCredentials& credentials) const noexcept;
    // Whether a target's certificate is verified. The switch of Connect is only for the connected https host.
    [[nodiscard]] bool VerifiesCertificateOf(const CServerAddressData& target) const noexcept;
    // A time-out of Connect in the milliseconds that a service takes. `longest` stands for a longer one.
    [[nodiscard]] static constexpr UINT32 Milliseconds(UINT32 seconds, UINT32 longest = MAXDWORD) noexcept
    {
        constexpr UINT32 kPerSecond = 1000;
        return seconds <= longest / kPerSecond ? seconds * kPerSecond : longest;
    }
    // How long a send may wait for the body of a response that has failed already, in milliseconds: a server that never sends
    // it must not hold up the failure.
    [[nodiscard]] DWORD ErrorBodyTime() const noexcept { return std::min(m_requestTimeout, UINT32{ 5 }) * 1000; }
    static constexpr UINT32 kFirstErrorStatus = 400; // whose body may explain it
    // Keeps the beginning of the body that was received, where the response's status is an error. Throws std::bad_alloc.
    static void KeepErrorBody(CRequest& request, CVoBodyReceiver& body);
    // Takes the body of the request's response.
    [[nodiscard]] CVoBodyReceiver MakeReceiver(const CRequest& request) const;
    // The body in one piece of memory, which is valid until the send is over. Throws std::bad_alloc.
    [[nodiscard]] std::span<const BYTE> Joined(const CVoBodyPieces& body);
    // Gives the cookies of the response to the store.
    void StoreCookies(const CRequest& request) const;
    // The number of a header's value; nothing where it is missing or no number (Content-Length: RFC 9110, section 8.6).
    [[nodiscard]] std::optional<UINT64> GetHeaderLongValue(const CRequest& request, std::wstring_view name) const;
    // The length of the response's body; nothing where it is unknown. A transfer coding overrides Content-Length (RFC 9112,
    // section 6.3).
    [[nodiscard]] std::optional<UINT64> AnnouncedLength(const CRequest& request) const;

private:
    // The hooks. Each is called with the message's lock held, by the thread that called the operation.

    // Opens what all requests share, for m_serverAddress, and may change that address. The time-outs and switches are stored.
    [[nodiscard]] virtual HRESULT OpenSession() = 0;
    // Closes it again; called also when there is nothing to close. Returns the first failure.
    [[nodiscard]] virtual HRESULT CloseSession() noexcept = 0;
    [[nodiscard]] virtual std::shared_ptr<CRequest> MakeRequest() = 0;
    // Gives the request a fresh handle for m_target and m_targetVerb, with its proxy, proxy credentials and cookies.
    [[nodiscard]] virtual HRESULT OpenHandle(CRequest& request) = 0;
    // Closes the request's handle. Nothing of the request refers to a body any more.
    [[nodiscard]] virtual HRESULT CloseHandle(CRequest& request) noexcept = 0;
    // Sends the request once to m_target and waits for the status: sets m_statusCode (when there is one), the progress counters
    // and m_localAddress. S_OK with any status; a failure has been reported.
    [[nodiscard]] virtual HRESULT SendOnce(CRequest& request, const CVoBodyPieces& body, const std::wstring& contentType) = 0;
    // Sets credentials that AskForCredentials gave for the next SendOnce (asksBetweenSends only).
    [[nodiscard]] virtual HRESULT UseCredentials(CRequest& /*request*/, bool /*proxy*/, const CCredentials& /*credentials*/)
    {
        return E_NOTIMPL;
    }
    // Prepares another attempt after a failed one.
    [[nodiscard]] virtual HRESULT ResetConnection(CRequest& /*request*/) noexcept { return S_OK; }
    // The send is over.
    virtual void EndSend(CRequest& /*request*/) noexcept {}
    // Takes the header of the response to the last SendOnce as text, when it has `maximum` bytes at most. Returns its length in
    // bytes; 0 where there is none. A transport that keeps the header itself, and limits it while it arrives, need not
    // implement it.
    [[nodiscard]] virtual size_t ReadHeader(const CRequest& /*request*/, size_t /*maximum*/, std::wstring& /*header*/) const
    {
        return 0;
    }
    // The value of field number `index` of a name, from 0, in the last response's header; nothing where it has none.
    [[nodiscard]] virtual std::optional<std::wstring> CheckHeader(const CRequest& request, std::wstring_view name,
                                                                  DWORD index) const
    {
        return request.m_header.Find(name, index);
    }
    // The value of Set-Cookie header number `index`. False when there is none.
    [[nodiscard]] virtual bool ReadSetCookie(const CRequest& /*request*/, DWORD /*index*/, std::wstring& /*value*/) const
    {
        return false;
    }
    // Takes the body of the response (m_hasPendingResponse). Not the receiver's Finish.
    [[nodiscard]] virtual HRESULT FetchBody(CRequest& request, CVoBodyReceiver& body) = 0;
    // The request was cancelled: ends the call of the service that runs for it, if the service can end one. Called on any
    // thread, without the message's lock, at any time in the life of the request.
    virtual void CancelCall(CRequest& /*request*/) noexcept {}
    // The responses to the last SendOnce, in order, while the request's handle exists.
    virtual void ReadResponseHeaders(const CRequest& request, std::vector<CVoRawResponse>& responses) const;
    // Completes the record of the last SendOnce with what the service tells afterwards.
    virtual void CompleteRecord(const CRequest& /*request*/, CVoExchangeRecord::CAttempt& /*attempt*/) const {}
    // Why SendOnce or FetchBody failed.
    [[nodiscard]] virtual CVoFailure ExplainFailure(const CRequest& request, HRESULT result) const = 0;
    // Reads the beginning of the body of a response whose status is not 200, where SendOnce has not received it. Waits for
    // ErrorBodyTime at most, or for that and the piece that is on its way then. Only called when some of it is to be kept.
    virtual void FetchErrorBody(CRequest& /*request*/) {}
    // Which URL the proxy store is asked about; null: the configured proxy.
    [[nodiscard]] virtual const std::wstring* ProxyQuestion(const CRequest& request) const
    {
        return &request.m_target.FullURL();
    }
    // The proxy of the last send, where the service has found it by itself: the store's answer `known`, or only the proxy's
    // host where the service used another one. Empty where the server itself responds, or no proxy shows. Throws
    // std::bad_alloc.
    [[nodiscard]] virtual std::wstring FoundProxy(const CRequest& /*request*/, std::wstring known) const { return known; }

    [[nodiscard]] HRESULT internalClose() noexcept;
    void ForgetConnection() noexcept;
    [[nodiscard]] std::shared_ptr<CRequest> OwnRequest(const std::shared_ptr<CHTTPRequestData>& request) const noexcept;
    [[nodiscard]] HRESULT internalOpenRequest(const CServerAddressData& address, const wchar_t* verb,
                                              std::shared_ptr<CHTTPRequestData>& request);
    [[nodiscard]] HRESULT OpenTarget(CRequest& request);
    [[nodiscard]] HRESULT LookUpProxy(CRequest& request) const;
    void LookUpCookies(CRequest& request) const;
    static void TakeNextVerb(CRequest& request) noexcept;

    [[nodiscard]] HRESULT internalSend(CRequest& request, const CVoHTTPContent& content, bool allowRetry, CSendResult* result);
    [[nodiscard]] HRESULT Attempt(CRequest& request, const CVoHTTPContent& content);
    [[nodiscard]] HRESULT SendToTarget(CRequest& request, const CVoBodyPieces& body, const std::wstring& contentType);
    [[nodiscard]] HRESULT Judge(const CRequest& request, HRESULT result) const;
    [[nodiscard]] bool FollowRedirect(CRequest& request) const;
    [[nodiscard]] std::optional<INT64> RetryAfter(const CRequest& request) const noexcept;

    void ReadErrorBody(CRequest& request) noexcept;
    [[nodiscard]] HRESULT internalReadResponse(CRequest& request);
    [[nodiscard]] HRESULT TakeResponse(CRequest& request);
    [[nodiscard]] HRESULT SetBodyCheck(const CRequest& request, CVoBodyReceiver& body) const;
    // Whether the request's sink, if it has one, suits the reading of a response.
    [[nodiscard]] bool MayRead(const CRequest& request, std::optional<EResponseKind> kind) const noexcept;
    // Prepares the sink for another attempt. False: there is none.
    [[nodiscard]] static bool RestartSink(CRequest& request) noexcept;

    class CClosing;
    class CQuestion;
    // Holds a request for an operation: the record cannot be read meanwhile, and collects the reports of this thread.
    class CUse
    {
    public:
        explicit CUse(CRequest& request) noexcept;
        ~CUse();
        CUse(const CUse&) = delete;
        CUse& operator=(const CUse&) = delete;

    private:
        CRequest& m_request;
        CVoReportScope m_scope;
    };
    // The record of a send, in this order.
    static void BeginRecord(CRequest& request) noexcept;
    static void BeginAttempt(CRequest& request);
    void DescribeSend(const CRequest& request) const noexcept;
    void EndAttempt(const CRequest& request, HRESULT result) const noexcept;
    [[nodiscard]] CVoFailure ExplainAttempt(const CRequest& request, HRESULT result) const;
    template <class Read>
    [[nodiscard]] static HRESULT ReadRecord(const CHTTPRequestData& data, Read read);
    // Compares the last response's header with the limits.
    [[nodiscard]] static HRESULT CheckHeaderLimits(const CRequest& request);
    // kResultCancelled for a failure of a cancelled request.
    [[nodiscard]] static HRESULT Reason(const CRequest& request, HRESULT result) noexcept
    {
        return FAILED(result) && request.IsCancelled() ? kResultCancelled : result;
    }
    // Waits between two attempts. False: the request was cancelled, or another thread closes the connection.
    [[nodiscard]] bool Pause(const CRequest& request, INT64 microseconds) noexcept;

    friend class CVoHTTPMessage::CHTTPRequestData; // Cancel, the record

    const CVoTransportTracePoints& m_points;
    const CVoTransportFacts m_facts;
    UINT64 m_connectionNumber = 0;
    std::vector<std::weak_ptr<CRequest>> m_requests; // of the current connection
    // For Joined. Kept for the next send up to kMaximumKeptBody bytes: the pages of fresh memory cost more than the copy.
    static constexpr size_t kMaximumKeptBody = size_t{ 16 } * 1024 * 1024;
    std::unique_ptr<BYTE[]> m_joined;
    size_t m_joinedSize = 0;
    std::atomic<int> m_closers{ 0 }; // threads that close the connection
    CEvent m_wake{ false, true };    // set when a pause between two attempts may have to end
    // Guards the stores, the callback and the requests' credentials against the transport's own threads, which meet challenges
    // while the caller's thread waits with the message's lock held. Taken after that lock.
    mutable CCriticalSection m_storesLock;
};
