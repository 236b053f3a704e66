// The client for everyday use: its connections, its running operations, and the steps of one operation.
#include <VoHTTPClient.h>

#include <VoGlobalHTTPUtils.h>
#include <VoResponseSink.h>
#include <base/VoDetachedThread.h>
#include <base/VoErrorText.h>
#include <base/VoModuleInformation.h>

#include <algorithm>
#include <limits>
#include <utility>

using EContentKind = CVoHTTPMessage::EContentKind;
using EResponseKind = CVoHTTPMessage::EResponseKind;

namespace
{
constexpr const wchar_t* kHTTPClientSource = L"..\\source\\VoHTTPClient";
constexpr UINT32 kStatusOk = 200;
constexpr const wchar_t* kNoFile = L"the file could not be written";

using Message = std::shared_ptr<CVoHTTPMessage>;
using Request = std::shared_ptr<CVoHTTPMessage::CHTTPRequestData>;

struct CStores
{
    CVoComPtr<IVoAuthenticationCallback> credentials;
    CVoComPtr<IVoHTTPProxyStore> proxies;
    CVoComPtr<IVoHTTPCookieStore> cookies;
};

// Rounded up. 0 for a time that is not positive.
UINT32 WholeSeconds(std::chrono::milliseconds time) noexcept
{
    constexpr INT64 kMost = std::numeric_limits<UINT32>::max();
    const INT64 count = time.count();
    return count <= 0 ? 0 : static_cast<UINT32>(std::min((count - 1) / 1000 + 1, kMost));
}

// The steps of an operation after which its connection serves the next one. A response with another status than 200 ends an
// exchange in order, too. After any other failure nobody knows what the connection still carries.
bool IsReusable(HRESULT result, UINT32 statusCode) noexcept
{
    return SUCCEEDED(result) ||
           (statusCode != 0 && statusCode != kStatusOk && result != kResultCancelled && !CVoHTTPMessage::IsTimeOut(result));
}

// What the request tells of its last send. Before a send there is nothing to tell.
void Collect(const Request& request, const CVoHTTPMessage::CSendResult& sent, CVoHTTPResponse& response)
{
    response.statusCode = sent.statusCode;
    response.retried = sent.retried;
    response.localAddress = sent.localAddress;
    for (const HRESULT hr : { request->GetExchangeRecord(response.exchange), request->GetResponseHeaders(response.headers),
                              request->GetErrorBody(response.errorBody) })
        if (hr == E_OUTOFMEMORY)
            throw std::bad_alloc();
}

// Fills in why the operation failed, as far as memory allows.
void Explain(const CVoReportChain& chain, CVoHTTPResponse& response) noexcept
try
{
    response.parameters.RemoveAll();
    response.payload.clear();
    response.messages.clear();
    response.exchange.chain = chain.Get();
    (void)VoGetErrorText(response.result, true, &response.text);
    if (response.reason.empty())
        response.reason = response.exchange.Reason();
    if (response.reason.empty() && response.result == kResultCancelled)
        response.reason = L"the request was cancelled"; // before it was sent
    if (response.reason.empty())
        response.reason =
            response.statusCode == kStatusOk ? L"the response is not in the form that was asked for" : response.text;
}
catch (...)
{
    // The result says what is known.
}
} // namespace

// One operation: what is sent.
struct CVoHTTPClient::CCall
{
    bool isGet = false;
    std::wstring_view path = {};     // of a Get
    IVoResponseSink* sink = nullptr; // of a Get; may be null
    CVoFileSink* output = nullptr;   // the sink when it is a file
    CVoTextView outputPath = {};
    EContentKind kind = EContentKind::Raw;
    std::initializer_list<CVoHTTPParameter> parameters = {}; // without a message
    std::span<const BYTE> payload = {};                      // without a message
    const CVoBinaryDataParser* message = nullptr;
    const CVoHTTPFile* file = nullptr;
    std::wstring_view signingKey = {};
    std::wstring_view signatureParameterName = {};
    std::optional<std::span<const CVoBinaryDataParser>> messages = {}; // of PostMultiple

    // The message to send: the caller's own, or `made`, which receives what the call names. E_INVALIDARG for a file without a
    // name, or one that the caller's message describes already.
    [[nodiscard]] HRESULT GetContent(CVoBinaryDataParser& made, const CVoBinaryDataParser*& content) const;
};

HRESULT CVoHTTPClient::CCall::GetContent(CVoBinaryDataParser& made, const CVoBinaryDataParser*& content) const
{
    constexpr const wchar_t* kFileName = L"FileName";
    constexpr const wchar_t* kContentType = L"ContentType";
    content = message && !file ? message : &made;
    if (content == message)
        return S_OK;
    if (message)
    {
        const CVoDataParser& withoutPayload = *message;
        static_cast<CVoDataParser&>(made) = withoutPayload;
    }
    for (const CVoHTTPParameter& parameter : parameters)
        if (const HRESULT hr = made.AddParam(parameter.Name(), parameter.Value()); FAILED(hr))
            return hr;
    const std::span<const BYTE> bytes = file ? file->bytes : payload;
    if (bytes.size() > std::numeric_limits<UINT32>::max())
        return HResultFromWin32(ERROR_ARITHMETIC_OVERFLOW);
    if (const HRESULT hr = made.SetPayload(bytes.data(), static_cast<UINT32>(bytes.size())); FAILED(hr))
        return hr;
    if (!file)
        return S_OK;
    if (file->name.empty() || made.ParamExists(kFileName) || made.ParamExists(kContentType) ||
        (message && !message->Payload().empty()))
        return E_INVALIDARG;
    if (const HRESULT hr = made.AddParam(kFileName, file->name); FAILED(hr))
        return hr;
    return made.AddParam(kContentType, file->contentType);
}

// A running operation, which Cancel finds in the list of its client.
class CVoHTTPClient::COperation
{
public:
    explicit COperation(CState& state) noexcept;
    ~COperation();
    COperation(const COperation&) = delete;
    COperation& operator=(const COperation&) = delete;

    // Waits for an event that a thread sets. False: the operation was cancelled before. Throws CVoHResultException.
    [[nodiscard]] bool WaitFor(const CEvent& done);
    // From here on Cancel reaches the request. kResultCancelled: the operation was cancelled before.
    [[nodiscard]] HRESULT SetRequest(const Request& request) noexcept;
    // Releases the request.
    void Release() noexcept;

private:
    friend class CState;

    CState& m_state;
    // Guarded by the state's lock.
    COperation* m_next = nullptr;
    UINT64 m_number = 0;
    bool m_isCancelled = false;
    CEvent* m_cancelled = nullptr; // while it waits
    Request m_request;
};

// What the operations of a client share. It lives until the last of them has ended.
class CVoHTTPClient::CState : public std::enable_shared_from_this<CState>
{
public:
    CState(std::wstring_view url, CVoHTTPClientOptions&& options)
        : m_options(std::move(options)), m_connectTimeout(WholeSeconds(m_options.connectTimeout)),
          m_requestTimeout(WholeSeconds(m_options.requestTimeout)), m_ready(m_address.SetAddress(url, true, true, true))
    {
        if (SUCCEEDED(m_ready) && (m_connectTimeout == 0 || m_requestTimeout == 0))
            m_ready = E_INVALIDARG;
    }

    [[nodiscard]] HRESULT Run(const CCall& call, CVoHTTPResponse& response);
    void Cancel() noexcept;

private:
    friend class COperation;

    [[nodiscard]] HRESULT GetStores(CStores& stores);
    // A connection for one operation, one that is idle or a new one, and the operation's request.
    [[nodiscard]] HRESULT Open(COperation& operation, Message& message, Request& request);
    [[nodiscard]] Message TakeIdle() noexcept;
    [[nodiscard]] HRESULT Connect(UINT32 kind, const CStores& stores, Message& message, Request& request) const;
    void KeepConnection(Message message) noexcept;
    [[nodiscard]] HRESULT Send(CVoHTTPMessage& message, Request& request, const CCall& call, const CVoBinaryDataParser& content,
                               CVoHTTPMessage::CSendResult& sent) const;
    [[nodiscard]] HRESULT Read(CVoHTTPMessage& message, const Request& request, const CCall& call,
                               CVoHTTPResponse& response) const;

    const CVoHTTPClientOptions m_options;
    const UINT32 m_connectTimeout; // seconds
    const UINT32 m_requestTimeout; // seconds
    CServerAddressData m_address;
    HRESULT m_ready; // whether the address and the options can be used

    CVoLock m_lock;
    std::optional<CStores> m_stores;
    std::vector<Message> m_idle;
    COperation* m_running = nullptr;
    UINT64 m_nextNumber = 0;
};

// Running operations

CVoHTTPClient::COperation::COperation(CState& state) noexcept : m_state(state)
{
    const CVoLockHolder lock(m_state.m_lock);
    // NOLINTNEXTLINE(cppcoreguidelines-prefer-member-initializer): the lock comes first.
    m_number = m_state.m_nextNumber++;
    m_next = std::exchange(m_state.m_running, this);
}

CVoHTTPClient::COperation::~COperation()
{
    const CVoLockHolder lock(m_state.m_lock);
    COperation** link = &m_state.m_running;
    while (*link != this)
        link = &(*link)->m_next;
    *link = m_next;
}

bool CVoHTTPClient::COperation::WaitFor(const CEvent& done)
{
    CEvent cancelled(false, true);
    {
        const CVoLockHolder lock(m_state.m_lock);
        if (m_isCancelled)
            return false;
        m_cancelled = &cancelled;
    }
    const HANDLE events[] = { done.Handle(), cancelled.Handle() };
    const DWORD woken = ::WaitForMultipleObjects(static_cast<DWORD>(std::size(events)), events, FALSE, INFINITE);
    const CVoLockHolder lock(m_state.m_lock);
    m_cancelled = nullptr;
    return woken == WAIT_OBJECT_0;
}

HRESULT CVoHTTPClient::COperation::SetRequest(const Request& request) noexcept
{
    const CVoLockHolder lock(m_state.m_lock);
    m_request = request;
    return m_isCancelled ? kResultCancelled : S_OK;
}

void CVoHTTPClient::COperation::Release() noexcept
{
    Request request; // released without the lock
    const CVoLockHolder lock(m_state.m_lock);
    request.swap(m_request);
}

void CVoHTTPClient::CState::Cancel() noexcept
{
    // Without the lock while a request is cancelled: that may call the application's authentication callback.
    CVoLockHolder lock(m_lock);
    const UINT64 end = m_nextNumber;
    for (;;)
    {
        COperation* operation = m_running;
        while (operation && (operation->m_isCancelled || operation->m_number >= end))
            operation = operation->m_next;
        if (!operation)
            return;
        operation->m_isCancelled = true;
        if (operation->m_cancelled)
            (void)operation->m_cancelled->Set();
        const Request request = operation->m_request;
        lock.unlock();
        if (request)
            request->Cancel();
        lock.lock();
    }
}

// Connections

HRESULT CVoHTTPClient::CState::GetStores(CStores& stores)
{
    constexpr CVoReporter report{ kHTTPClientSource, L"CVoHTTPClient::GetStores" };
    {
        const CVoLockHolder lock(m_lock);
        if (m_stores)
        {
            stores = *m_stores;
            return S_OK;
        }
    }
    // Threads that come here at the same time are given the same stores.
    CStores made{ m_options.credentials.value_or(nullptr), m_options.proxies.value_or(nullptr),
                  m_options.cookies.value_or(nullptr) };
    if (!m_options.credentials || !m_options.proxies || !m_options.cookies)
        if (const HRESULT hr = VoGlobalHTTPUtils::CreateGlobalHTTPStores(
                m_options.credentials ? nullptr : made.credentials.Put(), m_options.proxies ? nullptr : made.proxies.Put(),
                m_options.cookies ? nullptr : made.cookies.Put());
            FAILED(hr))
            return report(20, hr);
    const CVoLockHolder lock(m_lock);
    if (!m_stores)
        m_stores = std::move(made);
    stores = *m_stores;
    return S_OK;
}

Message CVoHTTPClient::CState::TakeIdle() noexcept
{
    const CVoLockHolder lock(m_lock);
    if (m_idle.empty())
        return nullptr;
    // The one that was used last: its server has probably not closed it yet.
    Message message = std::move(m_idle.back());
    m_idle.pop_back();
    return message;
}

HRESULT CVoHTTPClient::CState::Open(COperation& operation, Message& message, Request& request)
{
    constexpr CVoReporter report{ kHTTPClientSource, L"CVoHTTPClient::Open" };
    if (message = TakeIdle(); message)
    {
        if (const HRESULT hr = message->OpenRequest(request); FAILED(hr))
            return report(40, hr);
        return S_OK;
    }
    const UINT32 kind =
        m_options.transport ? static_cast<UINT32>(*m_options.transport) : CVoModuleInformation::Get().HTTPEngine();
    CStores stores;
    if (const HRESULT hr = GetStores(stores); FAILED(hr))
        return report(42, hr);
    // The search for a proxy and WinINet's probe may wait for the network and cannot be interrupted. A cancelled operation
    // leaves them behind; their time-outs end them.
    const bool mayWait = stores.proxies || kind == static_cast<UINT32>(EVoHTTPTransport::WinINet);
    if (!mayWait)
        return Connect(kind, stores, message, request);
    struct COpening
    {
        CEvent done{ false, true };
        HRESULT result = E_FAIL;
        CVoReportChain chain;
        Message message;
        Request request;
    };
    const auto opening = std::make_shared<COpening>();
    VoStartDetached([report, kind, stores, opening, state = shared_from_this()]
    {
        const CVoReportScope scope(&opening->chain);
        opening->result = report.Guard(44, [&] { return state->Connect(kind, stores, opening->message, opening->request); });
        (void)opening->done.Set();
    });
    if (!operation.WaitFor(opening->done))
        return report(46, kResultCancelled);
    for (const CVoReport& made : opening->chain.Get())
        CVoReportScope::Add(made.source, made.line, made.function, made.code);
    message = std::move(opening->message);
    request = std::move(opening->request);
    return opening->result;
}

HRESULT CVoHTTPClient::CState::Connect(UINT32 kind, const CStores& stores, Message& message, Request& request) const
{
    constexpr CVoReporter report{ kHTTPClientSource, L"CVoHTTPClient::Connect" };
    const CVoModuleInformation& settings = CVoModuleInformation::Get();
    if (const HRESULT hr = CVoHTTPMessage::Connect(
            kind, m_address, stores.credentials.Get(), stores.proxies.Get(), stores.cookies.Get(), m_connectTimeout,
            m_requestTimeout, m_options.verifyCertificate.value_or(settings.CheckServerCertificate()),
            m_options.checkRevocation.value_or(settings.CheckCertificateRevocation()), message);
        FAILED(hr))
        return report(35, hr);
    if (const HRESULT hr = message->OpenRequest(request); FAILED(hr))
        return report(37, hr);
    return S_OK;
}

void CVoHTTPClient::CState::KeepConnection(Message message) noexcept
try
{
    const CVoLockHolder lock(m_lock);
    if (m_idle.size() < m_options.idleConnections)
        m_idle.push_back(std::move(message));
}
catch (...)
{
    // No memory: the connection is closed.
}

// The steps of an operation

HRESULT CVoHTTPClient::CState::Send(CVoHTTPMessage& message, Request& request, const CCall& call,
                                    const CVoBinaryDataParser& content, CVoHTTPMessage::CSendResult& sent) const
{
    if (call.isGet)
        return message.SendGetRequest(request, call.path, m_options.retry, &sent);
    if (call.messages)
        return message.SendMultipleMessages(request, *call.messages, m_options.utf8, m_options.retry, &sent);
    return message.SendMessage(request, content, call.kind, m_options.utf8, call.signingKey, call.signatureParameterName,
                               m_options.retry, &sent);
}

HRESULT CVoHTTPClient::CState::Read(CVoHTTPMessage& message, const Request& request, const CCall& call,
                                    CVoHTTPResponse& response) const
{
    const EResponseKind kind =
        call.sink ? EResponseKind::Binary
                  : m_options.response.value_or(call.isGet ? EResponseKind::Binary : EResponseKind::Parameters);
    if (call.messages && kind == EResponseKind::Parameters)
        return message.ReadMultipleResponses(request, response.messages, static_cast<UINT32>(call.messages->size()), nullptr);
    CVoBinaryDataParser content;
    if (const HRESULT hr = message.ReadResponse(request, content, kind, nullptr, nullptr); FAILED(hr))
        return hr;
    response.payload = content.TakePayload();
    response.parameters = std::move(content);
    return S_OK;
}

HRESULT CVoHTTPClient::CState::Run(const CCall& call, CVoHTTPResponse& response)
{
    constexpr CVoReporter report{ kHTTPClientSource, L"CVoHTTPClient::Run" };
    if (FAILED(m_ready))
        return report(50, m_ready);
    CVoBinaryDataParser made;
    const CVoBinaryDataParser* content = nullptr;
    if (const HRESULT hr = call.GetContent(made, content); FAILED(hr))
        return report(52, hr);
    if (call.output)
        if (const HRESULT hr = call.output->Open(call.outputPath); FAILED(hr))
        {
            response.reason = kNoFile;
            return report(53, hr);
        }
    COperation operation(*this);
    Message message;
    Request request;
    if (const HRESULT hr = Open(operation, message, request); FAILED(hr))
        return report(55, hr);
    request->SetResponseLimits(m_options.limits);
    request->SetResponseSink(call.sink);
    if (const HRESULT hr = operation.SetRequest(request); FAILED(hr))
        return report(65, hr);

    CVoHTTPMessage::CSendResult sent;
    HRESULT hr = Send(*message, request, call, *content, sent);
    if (FAILED(hr))
        report(70, hr);
    else if (hr = Read(*message, request, call, response); FAILED(hr))
        report(75, hr);
    Collect(request, sent, response);
    request->SetResponseSink(nullptr); // somebody may keep the request
    // Without the request the connection is free for the next operation.
    request.reset();
    operation.Release();
    if (IsReusable(hr, sent.statusCode))
        KeepConnection(std::move(message));
    if (SUCCEEDED(hr) && call.output)
        if (hr = call.output->Commit(); FAILED(hr))
        {
            response.reason = kNoFile;
            report(80, hr);
        }
    return hr;
}

// The client

CVoHTTPClient::CVoHTTPClient(std::wstring_view url, CVoHTTPClientOptions options) noexcept
{
    try
    {
        m_state = std::make_shared<CState>(url, std::move(options));
    }
    catch (...)
    {
        // Without a state each operation returns E_OUTOFMEMORY.
    }
}

CVoHTTPClient::~CVoHTTPClient()
{
    Cancel();
}

void CVoHTTPClient::Cancel() noexcept
{
    if (m_state)
        m_state->Cancel();
}

CVoHTTPResponse CVoHTTPClient::Run(const CCall& call) noexcept
{
    constexpr CVoReporter report{ kHTTPClientSource, L"CVoHTTPClient::Run" };
    CVoHTTPResponse response;
    CVoReportChain chain;
    {
        const CVoReportScope scope(&chain);
        // The operation ends on the state also when the client is destroyed meanwhile.
        const std::shared_ptr<CState> state = m_state;
        response.result = state ? report.Guard(90, [&] { return state->Run(call, response); }) : report(95, E_OUTOFMEMORY);
    }
    if (FAILED(response.result))
        Explain(chain, response);
    return response;
}

CVoHTTPResponse CVoHTTPClient::Get(std::wstring_view path) noexcept
{
    return Run({ .isGet = true, .path = path });
}

CVoHTTPResponse CVoHTTPClient::Get(std::wstring_view path, IVoResponseSink& sink) noexcept
{
    return Run({ .isGet = true, .path = path, .sink = &sink });
}

CVoHTTPResponse CVoHTTPClient::GetToFile(std::wstring_view path, CVoTextView file) noexcept
{
    CVoFileSink output;
    return Run({ .isGet = true, .path = path, .sink = &output, .output = &output, .outputPath = file });
}

CVoHTTPResponse CVoHTTPClient::Post(std::initializer_list<CVoHTTPParameter> parameters, std::span<const BYTE> payload) noexcept
{
    return Run({ .parameters = parameters, .payload = payload });
}

CVoHTTPResponse CVoHTTPClient::Post(const CVoBinaryDataParser& message) noexcept
{
    return Run({ .message = &message });
}

CVoHTTPResponse CVoHTTPClient::PostForm(std::initializer_list<CVoHTTPParameter> parameters) noexcept
{
    return Run({ .kind = EContentKind::Form, .parameters = parameters });
}

CVoHTTPResponse CVoHTTPClient::PostForm(const CVoBinaryDataParser& parameters) noexcept
{
    return Run({ .kind = EContentKind::Form, .message = &parameters });
}

CVoHTTPResponse CVoHTTPClient::PostSigned(std::initializer_list<CVoHTTPParameter> parameters, std::wstring_view signingKey,
                                          std::wstring_view signatureParameterName) noexcept
{
    return Run({ .kind = EContentKind::SignedForm,
                 .parameters = parameters,
                 .signingKey = signingKey,
                 .signatureParameterName = signatureParameterName });
}

CVoHTTPResponse CVoHTTPClient::PostSigned(const CVoBinaryDataParser& parameters, std::wstring_view signingKey,
                                          std::wstring_view signatureParameterName) noexcept
{
    return Run({ .kind = EContentKind::SignedForm,
                 .message = &parameters,
                 .signingKey = signingKey,
                 .signatureParameterName = signatureParameterName });
}

CVoHTTPResponse CVoHTTPClient::PostFile(std::initializer_list<CVoHTTPParameter> parameters, const CVoHTTPFile& file) noexcept
{
    return Run({ .kind = EContentKind::Multipart, .parameters = parameters, .file = &file });
}

CVoHTTPResponse CVoHTTPClient::PostFile(const CVoBinaryDataParser& parameters, const CVoHTTPFile& file) noexcept
{
    return Run({ .kind = EContentKind::Multipart, .message = &parameters, .file = &file });
}

CVoHTTPResponse CVoHTTPClient::PostMultiple(std::span<const CVoBinaryDataParser> messages) noexcept
{
    return Run({ .messages = messages });
}
