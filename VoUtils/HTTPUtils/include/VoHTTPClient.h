// The HTTP client for everyday use: sends requests to one server and returns what came back.
//
//     CVoHTTPClient client(L"https://server.example/service");
//     const CVoHTTPResponse response = client.Post({ { L"name", L"value" } });
//     if (!response.IsOk())
//         return ShowError(response.reason);
//     use(response.parameters, response.payload);
//
// It stands on CVoHTTPMessage, which does the same in single steps and leaves every choice to the caller.
#pragma once

#include <VoHTTPMessage.h>

#include <chrono>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The transports: the values of the setting HTTPEngine.
enum class EVoHTTPTransport : UINT32
{
    WinINet = 0,
    WinHTTP = 1,
    Curl = 2,
    WinHTTPLoopback = 3 // as WinHTTP, but requests to this machine pass a proxy, too
};

// How a client connects and reads. The defaults suit most programs. Name what differs:
//
//     CVoHTTPClient client(url, { .transport = EVoHTTPTransport::Curl, .connectTimeout = 5s, .retry = true });
struct CVoHTTPClientOptions
{
    using EResponseKind = CVoHTTPMessage::EResponseKind;

    // Nothing: the setting HTTPEngine, as it is when a connection is made.
    std::optional<EVoHTTPTransport> transport = std::nullopt;
    // Rounded up to whole seconds. What they bound is told at CVoHTTPMessage::Connect. A time that is not positive is
    // E_INVALIDARG.
    std::chrono::milliseconds connectTimeout = std::chrono::seconds(30);
    std::chrono::milliseconds requestTimeout = std::chrono::seconds(60);
    // For https addresses only. Nothing: the settings.
    std::optional<bool> verifyCertificate = std::nullopt;
    std::optional<bool> checkRevocation = std::nullopt;
    // Repeat a failed attempt until the connect time-out has passed, except after a final response
    // (CVoHTTPMessage::SendMessage).
    bool retry = false;
    // Texts of requests are UTF-8; otherwise in the system's ANSI code page.
    bool utf8 = true;
    // How responses are read. Nothing: the bytes of a Get, parameters and payload of any other.
    std::optional<EResponseKind> response = std::nullopt;
    CVoResponseLimits limits = {};
    // Connections that are kept open between two operations, at most. More operations than that may run at a time.
    UINT32 idleConnections = 4;
    // The stores and the authentication callback. Nothing: the process's own (VoGlobalHTTPUtils::CreateGlobalHTTPStores). Null:
    // none, that is, challenges are declined, connections are direct, no cookies are kept.
    std::optional<CVoComPtr<IVoAuthenticationCallback>> credentials = std::nullopt;
    std::optional<CVoComPtr<IVoHTTPProxyStore>> proxies = std::nullopt;
    std::optional<CVoComPtr<IVoHTTPCookieStore>> cookies = std::nullopt;
};

// A parameter to send. It refers to the caller's texts, which must live until the call returns.
class CVoHTTPParameter
{
public:
    constexpr CVoHTTPParameter(std::wstring_view name, std::wstring_view value) noexcept : m_name(name), m_value(value) {}

    [[nodiscard]] constexpr std::wstring_view Name() const noexcept { return m_name; }
    [[nodiscard]] constexpr std::wstring_view Value() const noexcept { return m_value; }

private:
    std::wstring_view m_name;
    std::wstring_view m_value;
};

// A file to upload. It refers to the caller's texts and bytes.
struct CVoHTTPFile
{
    std::wstring_view name; // as the server sees it, without a folder; not empty
    std::span<const BYTE> bytes;
    std::wstring_view contentType = L"application/octet-stream";
};

// What came of an operation. There is always one, filled in as far as the operation came.
struct CVoHTTPResponse
{
    HRESULT result = E_FAIL;
    std::wstring text;                  // of the result, for the user (VoGetErrorText); empty on success
    std::wstring reason;                // why it failed, one sentence without a full stop; `text` where nothing better is known
    UINT32 statusCode = 0;              // of the last response; 0: there was none
    std::vector<CVoHTTPHeader> headers; // of the last response, in order, duplicates kept, secrets included
    // What a successful response held: its parameters and its payload, or its bytes as the payload.
    CVoDataParser parameters;
    std::vector<BYTE> payload;
    std::vector<CVoBinaryDataParser> messages; // PostMultiple: a response for each message
    // The beginning of the body of a response whose status is 400 or above (CHTTPRequestData::GetErrorBody).
    std::vector<BYTE> errorBody;
    bool retried = false;       // more than one attempt was made
    std::wstring localAddress;  // the client's own IP address; empty: unknown
    CVoExchangeRecord exchange; // the attempts with their times; the failure's chain

    [[nodiscard]] bool IsOk() const noexcept { return SUCCEEDED(result); }
};

// A client of one server. Any thread may call any function. Several operations run at the same time on several connections;
// connections are kept and used again. No operation throws: a response of E_OUTOFMEMORY says that memory ran out.
class CVoHTTPClient
{
public:
    // Nothing is resolved or sent yet. Without a scheme the URL is https. With a malformed URL, or options that cannot be, the
    // client exists and each operation returns E_INVALIDARG.
    explicit CVoHTTPClient(std::wstring_view url, CVoHTTPClientOptions options = {}) noexcept;
    // Cancels the operations that still run and does not wait for them: they end on what they own themselves. No operation may
    // begin any more.
    ~CVoHTTPClient();
    CVoHTTPClient(const CVoHTTPClient&) = delete;
    CVoHTTPClient& operator=(const CVoHTTPClient&) = delete;

    // The operations wait for the response. `parameters` and payload stand in a list or, where their number is not known
    // before, in a CVoBinaryDataParser. Results beside those of CVoHTTPMessage: E_INVALIDARG for a malformed URL, options or
    // arguments, kResultCancelled after Cancel, the result of CreateGlobalHTTPStores.

    // Gets what is at `path` of the server ("/path?query"); empty: at the client's URL.
    [[nodiscard]] CVoHTTPResponse Get(std::wstring_view path = {}) noexcept;
    // The same into a sink, however long the body is (VoResponseSink.h); `payload` stays empty. What the sink has is good only
    // when the response is a success. The sink is not used any more when the call returns.
    [[nodiscard]] CVoHTTPResponse Get(std::wstring_view path, IVoResponseSink& sink) noexcept;
    // The same into a file, which is there, or changed, only after a success. The codes of CVoFileReplacement.
    [[nodiscard]] CVoHTTPResponse GetToFile(std::wstring_view path, CVoTextView file) noexcept;
    // Posts parameters and payload as a message of the library (CVoHTTPMessage::EContentKind::Raw).
    [[nodiscard]] CVoHTTPResponse Post(std::initializer_list<CVoHTTPParameter> parameters,
                                       std::span<const BYTE> payload = {}) noexcept;
    [[nodiscard]] CVoHTTPResponse Post(const CVoBinaryDataParser& message) noexcept;
    // Posts a form (application/x-www-form-urlencoded). A payload is E_NOTIMPL.
    [[nodiscard]] CVoHTTPResponse PostForm(std::initializer_list<CVoHTTPParameter> parameters) noexcept;
    [[nodiscard]] CVoHTTPResponse PostForm(const CVoBinaryDataParser& parameters) noexcept;
    // Posts a form with an RSA signature over it as its last field. `signingKey` is the hexadecimal text of a private key blob.
    [[nodiscard]] CVoHTTPResponse PostSigned(std::initializer_list<CVoHTTPParameter> parameters, std::wstring_view signingKey,
                                             std::wstring_view signatureParameterName) noexcept;
    [[nodiscard]] CVoHTTPResponse PostSigned(const CVoBinaryDataParser& parameters, std::wstring_view signingKey,
                                             std::wstring_view signatureParameterName) noexcept;
    // Posts a form with a file (multipart/form-data). E_INVALIDARG: the file has no name, or `parameters` has a payload or the
    // parameters "FileName" or "ContentType", which describe a file.
    [[nodiscard]] CVoHTTPResponse PostFile(std::initializer_list<CVoHTTPParameter> parameters,
                                           const CVoHTTPFile& file) noexcept;
    [[nodiscard]] CVoHTTPResponse PostFile(const CVoBinaryDataParser& parameters, const CVoHTTPFile& file) noexcept;
    // Posts several messages in one exchange. A response with another number of messages is E_FAIL.
    [[nodiscard]] CVoHTTPResponse PostMultiple(std::span<const CVoBinaryDataParser> messages) noexcept;

    // Cancels the operations that run now, in whatever state they are; they return kResultCancelled (0x800704C7). Operations
    // that begin later run. Returns at once; CVoHTTPMessage::CHTTPRequestData::Cancel tells how soon an operation ends. An
    // operation that still opens its connection ends at once, and leaves the opening to its own time-outs.
    void Cancel() noexcept;

private:
    struct CCall;
    class CState;
    class COperation;

    [[nodiscard]] CVoHTTPResponse Run(const CCall& call) noexcept;

    std::shared_ptr<CState> m_state; // null: no memory
};
