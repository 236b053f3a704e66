// The rows of the table of allocations for exchanges with a server: the sends and reads of a message, and the operations of the
// client, over each transport. The server is another process, so that its memory, its handles and its calls are not counted.
#include "Allocations.h"

#include <http/TransportFixture.h>
#include <support/Compress.h>
#include <support/KeyPairs.h>
#include <support/Process.h>

#include <VoHTTPClient.h>
#include <VoHTTPTransports.h>
#include <VoResponseSink.h>

#include <gtest/gtest.h>

#include <winsock2.h>

#include <optional>

namespace Stress
{
namespace
{
// ---- the server

constexpr const wchar_t* kParent = L"VOUTILS_STRESS_PARENT"; // the number of the process that the server is for
std::wstring ReadyEvent(const std::wstring& parent)
{
    return L"VoUtilsStressServerIsReady" + parent;
}
const std::string kBody(3000, 'b');

std::filesystem::path PortFile()
{
    return TestFolder() / L"server.port";
}

void Serve(const Loopback::CRequest& request, Loopback::CConnection& connection)
{
    const std::string_view path = request.Path();
    if (request.version == "HTTP/1.0") // WinINet's probe for credentials
    {
        connection.SendResponse(200, { { "Connection", "close" } });
        connection.CloseNow();
    }
    else if (path == "/redirect")
        connection.SendResponse(302, { { "Location", "/text" }, { "Set-Cookie", "r=1" } }, "moved");
    else if (path == "/gzip")
        connection.SendResponse(200, { { "Content-Encoding", "gzip" } }, Compress(kBody, ECompression::Gzip));
    else if (path == "/missing")
        connection.SendResponse(404, {}, "there is no such thing");
    else if (path == "/short")
        connection.SendResponse(200, { { "Content-Type", "text/plain; charset=utf-8" } }, "a=1&b=2");
    else if (path == "/text")
        connection.SendResponse(200, { { "Set-Cookie", "c=1" } }, kBody);
    else if (path != "/secret" || Authenticate(request, connection))
        Echo(request, connection);
}

// Runs until the process that it is for ends.
TEST(Child, DISABLED_server)
{
    const wchar_t* const variable = ::_wgetenv(kParent);
    const std::wstring parent = variable ? variable : L"0";
    const CVoHandle process(::OpenProcess(SYNCHRONIZE, FALSE, std::wcstoul(parent.c_str(), nullptr, 10)));
    const Loopback::CLoopbackServer server(&Serve);
    WriteTestFile(PortFile(), std::to_string(server.Port()));
    CEvent ready(false, true, ReadyEvent(parent).c_str());
    (void)ready.Set();
    while (::WaitForSingleObject(process.Get(), 10'000) == WAIT_TIMEOUT)
        NoteProgress("the server of the table of allocations");
}

class CServerProcess
{
public:
    CServerProcess()
    {
        ::SetEnvironmentVariableW(kParent, m_parent.c_str());
        m_child.emplace(ThisProgram(L"Child.DISABLED_server"), CProcessStreams{}, DETACHED_PROCESS);
        Require(::WaitForSingleObject(m_ready.Handle(), 60'000) == WAIT_OBJECT_0, "the server does not start");
        m_url = L"http://127.0.0.1:" + Units(ReadTestFile(PortFile()));
    }
    ~CServerProcess() { m_child->Kill(); }
    CServerProcess(const CServerProcess&) = delete;
    CServerProcess& operator=(const CServerProcess&) = delete;
    [[nodiscard]] const std::wstring& Url() const noexcept { return m_url; }

private:
    const std::wstring m_parent = std::to_wstring(::GetCurrentProcessId());
    const CEvent m_ready{ false, true, ReadyEvent(m_parent).c_str() };
    std::optional<CProcess> m_child;
    std::wstring m_url;
};
constexpr UINT32 kTimeout = 5; // seconds
std::wstring ServerUrl(const wchar_t* path)
{
    static const CServerProcess server;
    return server.Url() + path;
}

// ---- the transports

std::vector<CFault> WinHTTPFaults()
{
    constexpr DWORD kError = ERROR_WINHTTP_INTERNAL_ERROR;
    return {
        VO_FAULT("winhttp.dll", WinHttpOpen, nullptr, kError),
        VO_FAULT("winhttp.dll", WinHttpConnect, nullptr, kError),
        VO_FAULT("winhttp.dll", WinHttpOpenRequest, nullptr, kError),
        VO_FAULT("winhttp.dll", WinHttpSetOption, FALSE, kError),
        VO_FAULT("winhttp.dll", WinHttpQueryOption, FALSE, kError),
        VO_FAULT("winhttp.dll", WinHttpAddRequestHeaders, FALSE, kError),
        VO_FAULT("winhttp.dll", WinHttpSetStatusCallback, WINHTTP_INVALID_STATUS_CALLBACK, kError),
        VO_FAULT("winhttp.dll", WinHttpSendRequest, FALSE, kError),
        VO_FAULT("winhttp.dll", WinHttpReceiveResponse, FALSE, kError),
        VO_FAULT_GIVES("winhttp.dll", WinHttpQueryHeaders, FALSE, kError, kAnyCode),
        VO_FAULT("winhttp.dll", WinHttpQueryAuthSchemes, FALSE, kError),
        VO_FAULT("winhttp.dll", WinHttpSetCredentials, FALSE, kError),
        VO_FAULT("winhttp.dll", WinHttpQueryDataAvailable, FALSE, kError),
        VO_FAULT("winhttp.dll", WinHttpReadData, FALSE, kError),
        VO_FAULT_AFTER_CALL("winhttp.dll", WinHttpCloseHandle, FALSE, kError),
    };
}
// libcurl has codes of its own for them. Not WSACreateEvent: libcurl itself leaks where it fails.
std::vector<CFault> SocketFaults()
{
    return {
        VO_FAULT_GIVES("ws2_32.dll", socket, INVALID_SOCKET, WSAEMFILE, kAnyCode),
        VO_FAULT_GIVES("ws2_32.dll", ioctlsocket, SOCKET_ERROR, WSAEINVAL, kAnyCode),
        VO_FAULT_GIVES("ws2_32.dll", setsockopt, SOCKET_ERROR, WSAEINVAL, kAnyCode),
        VO_FAULT_GIVES("ws2_32.dll", getsockopt, SOCKET_ERROR, WSAEINVAL, kAnyCode),
        VO_FAULT_GIVES("ws2_32.dll", getsockname, SOCKET_ERROR, WSAENOTCONN, kAnyCode),
        VO_FAULT_GIVES("ws2_32.dll", connect, SOCKET_ERROR, WSAECONNREFUSED, kAnyCode),
        VO_FAULT_GIVES("ws2_32.dll", select, SOCKET_ERROR, WSAENOBUFS, kAnyCode),
        VO_FAULT_GIVES("ws2_32.dll", send, SOCKET_ERROR, WSAECONNRESET, kAnyCode),
        VO_FAULT_GIVES("ws2_32.dll", recv, SOCKET_ERROR, WSAECONNRESET, kAnyCode),
        VO_FAULT_GIVES("ws2_32.dll", WSAEventSelect, SOCKET_ERROR, WSAEINVAL, kAnyCode),
        VO_FAULT_GIVES("ws2_32.dll", WSAEnumNetworkEvents, SOCKET_ERROR, WSAEINVAL, kAnyCode),
        VO_FAULT_GIVES("kernel32.dll", CreateEventW, nullptr, ERROR_NOT_ENOUGH_MEMORY, kAnyCode),
        VO_FAULT_AFTER_CALL("ws2_32.dll", closesocket, SOCKET_ERROR, WSAEINPROGRESS),
    };
}

struct CTested
{
    EVoHTTPTransport transport;
    const char* name;
    std::vector<CFault> faults;
};
std::vector<CTested> Tested()
{
    return { { EVoHTTPTransport::WinINet, "WinINet", WinINetFaults() },
             { EVoHTTPTransport::WinHTTP, "WinHTTP", WinHTTPFaults() },
             { EVoHTTPTransport::Curl, "CURL", SocketFaults() } };
}

// ---- a message

// Gives the credentials that the server takes.
class CAnswers final : public CVoIUnknownImplWithFreeThreadedMarshaller<IVoAuthenticationCallback>
{
public:
    STDMETHODIMP SetParentWindow(HWND /*parent*/) noexcept override { return S_OK; }
    STDMETHODIMP OnProxyAuthNeeded(BSTR /*title*/, BSTR /*address*/, BSTR /*detail*/, BSTR* /*user*/, BSTR* /*password*/,
                                   VARIANT_BOOL* cancelled) noexcept override
    {
        *cancelled = VARIANT_TRUE;
        return S_OK;
    }
    STDMETHODIMP OnServerAuthNeeded(BSTR /*title*/, BSTR /*address*/, BSTR /*detail*/, BSTR* user, BSTR* password,
                                    VARIANT_BOOL* cancelled) noexcept override
    try
    {
        CVoBstr name(L"ann");
        CVoBstr secret(kPassword);
        *user = name.Detach();
        *password = secret.Detach();
        *cancelled = VARIANT_FALSE;
        return S_OK;
    }
    catch (...)
    {
        return E_OUTOFMEMORY;
    }
};

// Counts the body.
class CCountingSink final : public IVoResponseSink
{
public:
    [[nodiscard]] HRESULT Write(std::span<const BYTE> bytes) noexcept override
    {
        m_length += bytes.size();
        return S_OK;
    }
    [[nodiscard]] size_t Length() const noexcept { return m_length; }

private:
    size_t m_length = 0;
};

// Cancels the request when its body has been sent.
class CCancels final : public CVoHTTPMessage::CallBack
{
public:
    explicit CCancels(Request request) : m_request(std::move(request)) {}
    HRESULT OnRequestSent() noexcept override
    {
        m_request->Cancel();
        return S_OK;
    }

private:
    const Request m_request;
};

// What an exchange works on, and its outputs.
struct CExchange
{
    CVoComPtr<CVoGlobalHTTPCookieStoreImpl> cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    CVoComPtr<CAnswers> answers = VoMakeComObject<CAnswers>();
    Message message;
    Request sent; // with a response that is not read yet
    CVoBinaryDataParser response;
    std::vector<CVoBinaryDataParser> responses;
};
using Exchange = std::unique_ptr<CExchange>;

std::wstring SeeResponse(const CVoBinaryDataParser& response)
{
    return SeeParser(response) + Units(PayloadOf(response)) + L'|';
}
std::wstring SeeExchange(const Exchange& exchange)
{
    std::wstring text = SeeResponse(exchange->response);
    for (const CVoBinaryDataParser& response : exchange->responses)
        text += SeeResponse(response);
    return text;
}

HRESULT ReadInto(CExchange& exchange, const Request& request, Response kind)
{
    bool isUtf8 = false;
    return exchange.message->ReadResponse(request, exchange.response, kind, &isUtf8, nullptr);
}
auto Gets(const wchar_t* path)
{
    return [path](CExchange& exchange)
    {
        Request request;
        const HRESULT hr = exchange.message->SendGetRequest(request, path, false, nullptr);
        return FAILED(hr) ? hr : ReadInto(exchange, request, Response::Binary);
    };
}
HRESULT SendIn(CExchange& exchange, const Request& request, Kind kind)
{
    CVoHTTPMessage::CSendResult result;
    return exchange.message->SendMessage(request, Parameters(), kind, true, kKnownPrivateKey, L"signature", false, &result);
}
auto Posts(Kind kind)
{
    return [kind](CExchange& exchange)
    {
        Request request;
        HRESULT hr = exchange.message->OpenRequest(request);
        if (SUCCEEDED(hr))
            hr = SendIn(exchange, request, kind);
        return FAILED(hr) ? hr : ReadInto(exchange, request, Response::Parameters);
    };
}
HRESULT SendsToSink(CExchange& exchange)
{
    Request request;
    HRESULT hr = exchange.message->OpenRequest(request);
    if (FAILED(hr))
        return hr;
    CCountingSink sink;
    request->SetResponseSink(&sink);
    hr = SendIn(exchange, request, Kind::Form);
    if (SUCCEEDED(hr))
        hr = ReadInto(exchange, request, Response::Binary);
    Require(FAILED(hr) || sink.Length() != 0, "no body for the sink");
    return hr;
}
HRESULT Cancels(CExchange& exchange)
{
    Request request;
    if (const HRESULT hr = exchange.message->OpenRequest(request); FAILED(hr))
        return hr;
    CCancels cancels(request);
    (void)exchange.message->SetCallBack(&cancels);
    HRESULT hr = SendIn(exchange, request, Kind::Form);
    if (SUCCEEDED(hr))
        hr = ReadInto(exchange, request, Response::Parameters);
    (void)exchange.message->SetCallBack(nullptr);
    Require(FAILED(hr), "it was cancelled");
    return hr == kResultCancelled ? S_OK : hr;
}
const std::vector<CVoBinaryDataParser>& Messages()
{
    static const std::vector<CVoBinaryDataParser> messages{ Parameters(), Parameters() };
    return messages;
}
HRESULT SendMultiple(CExchange& exchange, Request& request)
{
    const HRESULT hr = exchange.message->OpenRequest(request);
    return FAILED(hr) ? hr : exchange.message->SendMultipleMessages(request, Messages(), true, false, nullptr);
}
HRESULT SendsMultiple(CExchange& exchange)
{
    Request request;
    const HRESULT hr = SendMultiple(exchange, request);
    return FAILED(hr) ? hr : exchange.message->ReadMultipleResponses(request, exchange.responses, 2, nullptr);
}
// The response waits; after a failure it is sent for again.
HRESULT Reads(CExchange& exchange)
{
    Request request = std::exchange(exchange.sent, nullptr);
    if (!request)
        if (const HRESULT hr = SendMultiple(exchange, request); FAILED(hr))
            return hr;
    return ReadInto(exchange, request, Response::Binary);
}
HRESULT ReadsMultiple(CExchange& exchange)
{
    Request request = std::exchange(exchange.sent, nullptr);
    if (!request)
        if (const HRESULT hr = SendMultiple(exchange, request); FAILED(hr))
            return hr;
    UINT32 count = 0;
    return exchange.message->ReadMultipleResponses(request, exchange.responses, 0, &count);
}
HRESULT Tells(CExchange& exchange)
{
    CVoExchangeRecord record;
    std::vector<CVoHTTPHeader> headers;
    std::vector<BYTE> body;
    HRESULT hr = exchange.sent->GetExchangeRecord(record);
    if (SUCCEEDED(hr))
        hr = exchange.sent->GetResponseHeaders(headers);
    return FAILED(hr) ? hr : exchange.sent->GetErrorBody(body);
}

HRESULT ConnectIn(CExchange& exchange, EVoHTTPTransport transport, const CServerAddressData& address, Message& message)
{
    return CVoHTTPMessage::Connect(static_cast<UINT32>(transport), address, exchange.answers.Get(), nullptr,
                                   exchange.cookies.Get(), kTimeout, kTimeout, false, false, message);
}

enum class EOnly
{
    All,
    Asks,      // WinINet shows the system's dialog instead
    MayCancel, // Wine's WinINet uses a handle's memory after another thread has closed it
    Curl       // one transport is enough
};

bool IsFor(EOnly only, EVoHTTPTransport transport)
{
    if (only == EOnly::Asks || (only == EOnly::MayCancel && IsWine()))
        return transport != EVoHTTPTransport::WinINet;
    return only != EOnly::Curl || transport == EVoHTTPTransport::Curl;
}

struct CSendRow
{
    const char* name;
    const char* what;
    const wchar_t* path;
    std::function<HRESULT(CExchange&)> operate;
    EOnly only = EOnly::All;
    bool isSentBefore = false;
    bool isSilent = false;
};
const std::vector<CSendRow>& Sends()
{
    static const std::vector<CSendRow> sends{
        { "CVoHTTPMessage::SendGetRequest", "a body", L"/", Gets(L"/text") },
        { "CVoHTTPMessage::SendGetRequest", "a redirect", L"/", Gets(L"/redirect") },
        { "CVoHTTPMessage::SendGetRequest", "a compressed body", L"/", Gets(L"/gzip") },
        { "CVoHTTPMessage::SendMessage", "bytes", L"/echo", Posts(Kind::Raw) },
        { "CVoHTTPMessage::SendMessage", "a signed form", L"/echo", Posts(Kind::SignedForm) },
        { "CVoHTTPMessage::SendMessage", "credentials", L"/secret", Posts(Kind::Form), EOnly::Asks },
        { "CVoHTTPMessage::SendMessage", "a sink", L"/echo", &SendsToSink },
        { "CVoHTTPMessage::SendMessage", "a cancel", L"/echo", &Cancels, EOnly::MayCancel },
        { "CVoHTTPMessage::SendMultipleMessages", "two", L"/echo", &SendsMultiple },
        { "CVoHTTPMessage::ReadResponse", "bytes", L"/echo", &Reads, EOnly::All, true },
        { "CVoHTTPMessage::ReadMultipleResponses", "two", L"/echo", &ReadsMultiple, EOnly::All, true },
        { "CHTTPRequestData::GetExchangeRecord", "", L"/echo", &Tells, EOnly::Curl, true, true },
        { "CHTTPRequestData::GetResponseHeaders", "", L"/echo", &Tells, EOnly::Curl, true, true },
        { "CHTTPRequestData::GetErrorBody", "", L"/missing", &Tells, EOnly::Curl, true, true },
    };
    return sends;
}

COperation SendOperation(const CSendRow& row, EVoHTTPTransport transport)
{
    return On([row, transport]
    {
        auto exchange = std::make_unique<CExchange>();
        Require(SUCCEEDED(ConnectIn(*exchange, transport, Address(ServerUrl(row.path)), exchange->message)), "not connected");
        if (row.isSentBefore)
            (void)SendMultiple(*exchange, exchange->sent);
        return exchange;
    }, [row](const Exchange& exchange) { return row.operate(*exchange); }, &SeeExchange);
}

// A message is made, connected, and closed.
COperation ConnectOperation(EVoHTTPTransport transport)
{
    return On([] { return std::make_unique<CExchange>(); }, [transport](const Exchange& exchange)
    {
        static const CServerAddressData address = Address(ServerUrl(L"/"));
        Message message;
        if (const HRESULT hr = ConnectIn(*exchange, transport, address, message); FAILED(hr))
            return hr;
        Request request;
        return message->OpenRequest(request);
    }, &SeeExchange);
}

// ---- the client

const std::wstring& FilePath()
{
    static const std::wstring path = PathIn(L"download.bin");
    return path;
}

struct CClientRow
{
    const char* name;
    const wchar_t* path;
    std::function<CVoHTTPResponse(CVoHTTPClient&)> operate;
};
const std::vector<CClientRow>& ClientRows()
{
    static const CVoBinaryDataParser form = []
    {
        CVoBinaryDataParser parser;
        Require(SUCCEEDED(parser.AddParam(L"name", kText)), "no parameter");
        return parser;
    }();
    static const std::vector<CClientRow> rows{
        { "CVoHTTPClient::Get", L"/text", [](CVoHTTPClient& client) { return client.Get(); } },
        { "CVoHTTPClient::Get", L"/",
          [](CVoHTTPClient& client)
    {
        CCountingSink sink;
        return client.Get(L"/redirect", sink);
    } },
        { "CVoHTTPClient::GetToFile", L"/", [](CVoHTTPClient& client) { return client.GetToFile(L"/text", FilePath()); } },
        { "CVoHTTPClient::Post", L"/echo", [](CVoHTTPClient& client) { return client.Post({ { L"name", kText } }); } },
        { "CVoHTTPClient::PostForm", L"/echo", [](CVoHTTPClient& client) { return client.PostForm(form); } },
        { "CVoHTTPClient::PostSigned", L"/echo",
          [](CVoHTTPClient& client) { return client.PostSigned(form, kKnownPrivateKey, L"signature"); } },
        { "CVoHTTPClient::PostFile", L"/short",
          [](CVoHTTPClient& client) { return client.PostFile(form, { L"file.txt", { Data(), kData.size() } }); } },
        { "CVoHTTPClient::PostMultiple", L"/echo", [](CVoHTTPClient& client) { return client.PostMultiple(Messages()); } },
    };
    return rows;
}

struct CClientExchange
{
    CVoComPtr<CVoGlobalHTTPCookieStoreImpl> cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    CVoComPtr<CAnswers> answers = VoMakeComObject<CAnswers>();
    std::unique_ptr<CVoHTTPClient> client;
    std::wstring seen;
};
COperation ClientOperation(const CClientRow& row, EVoHTTPTransport transport)
{
    return On(
        [row, transport]
    {
        std::filesystem::remove(FilePath());
        CClientExchange exchange;
        CVoHTTPClientOptions options;
        options.transport = transport;
        options.connectTimeout = options.requestTimeout = std::chrono::seconds(kTimeout);
        options.credentials = CVoComPtr<IVoAuthenticationCallback>(exchange.answers.Get());
        options.proxies = nullptr;
        options.cookies = CVoComPtr<IVoHTTPCookieStore>(exchange.cookies.Get());
        exchange.client = std::make_unique<CVoHTTPClient>(ServerUrl(row.path), options);
        return exchange;
    }, [row](CClientExchange& exchange)
    {
        const CVoHTTPResponse response = row.operate(*exchange.client);
        std::wstring seen =
            SeeParser(response.parameters) + Units(std::string(response.payload.begin(), response.payload.end()));
        for (const CVoBinaryDataParser& message : response.messages)
            seen += SeeResponse(message);
        exchange.seen = std::move(seen);
        return response.result;
    }, [](const CClientExchange& exchange) { return exchange.seen + Units(ReadTestFile(FilePath())); });
}
} // namespace

std::vector<CRow> SendRows()
{
    std::vector<CRow> rows;
    for (const CTested& tested : Tested())
    {
        const auto name = [&](const char* operation, const char* what)
        { return std::string(operation) + " over " + tested.name + (*what ? ", " : "") + what; };
        rows.push_back({ name("CVoHTTPMessage::Connect", ""), ConnectOperation(tested.transport), false, tested.faults });
        for (const CSendRow& row : Sends())
            if (IsFor(row.only, tested.transport))
                rows.push_back({ name(row.name, row.what), SendOperation(row, tested.transport), row.isSilent, tested.faults });
        for (const CClientRow& row : ClientRows())
            rows.push_back({ name(row.name, ""), ClientOperation(row, tested.transport), false, tested.faults });
    }
    return rows;
}
} // namespace Stress
