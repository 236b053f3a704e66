// The suite over all transports: the table of their permitted differences, and what its tests share.
#pragma once

#include "support/HTTPSupport.h"
#include "support/ImportHook.h"
#include "support/TestMain.h"

#include <LoopbackServer.h>
#include <VoGlobalHTTPCookieStoreImpl.h>

#include <gtest/gtest.h>

#include <winhttp.h>

#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace TestSupport
{
// A transport, and where it may differ from the others. The defaults are what the transports share.
struct CTransport
{
    UINT32 kind;
    const char* name;
    // The code of a status other than 200.
    HRESULT unexpectedStatus = kResultUnexpectedStatus;
    // The code of a challenge without a callback.
    HRESULT unanswered = E_FAIL;
    // The code of a time-out. The Windows services have numbers of their own, and Wine's are others than Windows', so that only
    // a failure is expected (S_OK).
    HRESULT timeOut = S_OK;
    // Credentials are asked for through the callback. WinINet shows the system's dialog instead, and only while connecting.
    bool asksCallback = true;
    // The response waits in the connection until it is read, so that connecting again loses it.
    bool responseWaitsAtConnection = false;
    // The client's own address is known. It is for the trace; Wine's WinINet has no socket to show, and Wine's WinHTTP has it
    // only until the response has been read.
    bool knowsLocalAddress = false;
    // Progress of the response is seen while the request is sent, not only while the response is read.
    bool receivesWhileSending = false;
    // A server on this machine is connected to as "localhost.localhost".
    bool rewritesLoopback = false;
    // Wine's Windows services take a connection that ends among the headers or the chunks for the end of the response; Windows'
    // do not.
    bool documentedUnderWine = false;
    // Wine's WinHTTP takes header texts only.
    bool sendsBytesUnderWine = true;
    // Wine's WinHTTP keeps connections for the process, not for the message.
    bool dropsConnectionsUnderWine = true;
    // An https server must show a good certificate when that is asked for. Wine's Schannel looks at none for libcurl.
    bool checksCertificatesUnderWine = true;
};

[[nodiscard]] constexpr CTransport WinHTTPTransport(UINT32 kind, const char* name, bool rewritesLoopback) noexcept
{
    return { .kind = kind,
             .name = name,
             .responseWaitsAtConnection = true,
             .rewritesLoopback = rewritesLoopback,
             .sendsBytesUnderWine = false,
             .dropsConnectionsUnderWine = false };
}

inline constexpr CTransport kTransports[] = {
    { .kind = 0,
      .name = "WinINet",
      .unanswered = kResultUnexpectedStatus,
      .asksCallback = false,
      .responseWaitsAtConnection = true },
    WinHTTPTransport(1, "WinHTTP", false),
    { .kind = 2,
      .name = "CURL",
      .unexpectedStatus = E_FAIL,
      .timeOut = kResultTimeout,
      .knowsLocalAddress = true,
      .receivesWhileSending = true,
      .documentedUnderWine = true,
      .checksCertificatesUnderWine = false },
    WinHTTPTransport(3, "WinHTTPRewriting", true),
};

// Whether the platform behind a transport behaves as documented in the points that Wine has differently.
[[nodiscard]] inline bool BehavesAsDocumented(const CTransport& transport) noexcept
{
    return transport.documentedUnderWine || !IsWine();
}

// Names the tests of a parameterised suite after the transport.
[[nodiscard]] inline std::string NameOf(const testing::TestParamInfo<CTransport>& tested)
{
    return tested.param.name;
}

// What servers do: the same response to all, bytes as they are and the end of the connection, or the request's own body.
[[nodiscard]] inline Loopback::CHandler Responds(int status, const Loopback::CHeaders& headers = {},
                                                 const std::string& body = {})
{
    return [=](const Loopback::CRequest& /*request*/, Loopback::CConnection& connection)
    { connection.SendResponse(status, headers, body); };
}
[[nodiscard]] inline Loopback::CHandler SendsAndCloses(const std::string& bytes)
{
    return [=](const Loopback::CRequest& /*request*/, Loopback::CConnection& connection)
    {
        connection.Send(bytes);
        connection.CloseNow();
    };
}
inline void Echo(const Loopback::CRequest& request, Loopback::CConnection& connection)
{
    connection.SendResponse(200, {}, request.body);
}

// Whether a request has the user "ann" with the password "p\u00E4ss" (for a proxy or for the server). Otherwise sends a Basic
// challenge.
inline constexpr wchar_t kPassword[] = L"p\x00E4ss";
inline constexpr const char* kBasicCredentials = "Basic YW5uOnDDpHNz";
[[nodiscard]] inline bool Authenticate(const Loopback::CRequest& request, Loopback::CConnection& connection, bool proxy = false)
{
    if (request.Header(proxy ? "Proxy-Authorization" : "Authorization") == kBasicCredentials)
        return true;
    connection.SendResponse(proxy ? 407 : 401, { { proxy ? "Proxy-Authenticate" : "WWW-Authenticate", "Basic realm=\"r\"" } },
                            "login=please");
    return false;
}

// A closed port of this machine: that of a server that has ended.
[[nodiscard]] inline uint16_t ClosedPort()
{
    return Loopback::CLoopbackServer(&Echo).Port();
}

// A server that does not show the WinINet transport's probe for credentials to the test. The probe is recognised by HTTP/1.0.
class CServer
{
public:
    explicit CServer(Loopback::CHandler handler)
        : m_server([this, handler = std::move(handler)](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (request.version == "HTTP/1.0")
        {
            connection.SendResponse(200, { { "Connection", "close" } });
            connection.CloseNow();
            return;
        }
        {
            const std::scoped_lock lock(m_lock);
            m_requests.push_back(request);
            m_connections.insert(request.connection);
        }
        handler(request, connection);
    })
    {
    }

    [[nodiscard]] std::string URL(std::string_view target = "/") const { return m_server.URL(target); }
    [[nodiscard]] uint16_t Port() const noexcept { return m_server.Port(); }
    [[nodiscard]] std::vector<Loopback::CRequest> Requests() const
    {
        const std::scoped_lock lock(m_lock);
        return m_requests;
    }
    [[nodiscard]] size_t RequestCount() const { return Requests().size(); }
    [[nodiscard]] size_t ConnectionCount() const
    {
        const std::scoped_lock lock(m_lock);
        return m_connections.size();
    }

private:
    mutable std::mutex m_lock;
    std::vector<Loopback::CRequest> m_requests;
    std::set<size_t> m_connections;
    Loopback::CLoopbackServer m_server; // ends first
};

class TransportTest : public testing::TestWithParam<CTransport>
{
protected:
    void SetUp() override
    {
        if (GetParam().rewritesLoopback)
            m_resolver.emplace("winhttp.dll", "WinHttpConnect",
                               [](auto original, HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved)
            {
                const bool rewritten = std::wstring_view(host) == L"localhost.localhost";
                return original(session, rewritten ? L"127.0.0.1" : host, port, reserved);
            });
    }
    // The messages are gone, and with them their references.
    void TearDown() override
    {
        m_cookies->AddRef();
        EXPECT_EQ(m_cookies->Release(), 1U);
    }

    [[nodiscard]] Message Connect(const std::string& url, UINT32 connectTimeout = 10, UINT32 requestTimeout = 20,
                                  bool verify = false)
    {
        Message message;
        EXPECT_EQ(ConnectTo(Wide(url),
                            { GetParam().kind, m_auth.Get(), nullptr, m_cookies.Get(), connectTimeout, requestTimeout, verify },
                            message),
                  S_OK);
        return message;
    }

    // The server's name and a URL of it as the transport has them.
    [[nodiscard]] static std::wstring SeenHost() { return GetParam().rewritesLoopback ? L"localhost.localhost" : L"127.0.0.1"; }
    [[nodiscard]] static std::wstring SeenURL(const CServer& server, const wchar_t* target)
    {
        return L"http://" + SeenHost() + L':' + std::to_wstring(server.Port()) + target;
    }

    [[nodiscard]] CResponse SendTo(const std::string& url, const CVoBinaryDataParser& parameters = {}, Kind kind = Kind::Raw,
                                   bool allowRetry = false, Response read = Response::Parameters)
    {
        const auto message = Connect(url);
        return message ? Send(*message, parameters, kind, allowRetry, read) : CResponse();
    }

    CVoComPtr<CScriptedAuthCallback> m_auth;
    const CVoComPtr<CVoGlobalHTTPCookieStoreImpl> m_cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();

private:
    // Only the resolvers of Windows know the rewritten name.
    std::optional<CCallHook<decltype(&::WinHttpConnect)>> m_resolver;
};
} // namespace TestSupport
