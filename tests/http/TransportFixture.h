// The suite over all transports: the table of where they may differ, and what its tests share.
#pragma once

#include "support/HTTPSupport.h"
#include "support/TestMain.h"

#include <LoopbackServer.h>
#include <VoGlobalHTTPCookieStoreImpl.h>

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace TestSupport
{
// A transport, and where it may differ from the others.
struct CTransport
{
    UINT32 kind;
    const char* name;
    // The code of an answer other than 200, and of a time-out: the Windows services have numbers of their own, and Wine's are
    // others than Windows', so that only failure is asked for (S_OK).
    HRESULT unexpectedStatus;
    HRESULT timeOut;
    // Credentials are asked for through the callback. WinINet shows the system's dialog instead, and only while connecting.
    bool asksCallback;
    // Cookies of the answers that redirect are kept, and each hop is sent its own: the Windows services follow redirects
    // inside.
    bool seesRedirects;
    // Set-Cookie headers of answers other than 200 are kept.
    bool keepsCookiesOfFailures;
    // The answer waits with the connection until it is read, so that connecting anew loses it.
    bool answerWaitsAtConnection;
    // The client's own address is known. It is for the trace, and Wine's WinINet has no socket to show.
    bool knowsLocalAddress;
    // Progress of the answer is seen while the request is sent, not only while the answer is read.
    bool receivesWhileSending;
    // Wine's Windows services take a connection that ends among the headers or the chunks for the end of the answer, follow
    // redirects for ever, and lose a body that a redirect says to send again; Windows' do not.
    bool documentedUnderWine;
    // Compressed answers are decoded. The other transports do not offer to take them.
    bool decodes;
};

inline constexpr CTransport kTransports[] = {
    { .kind = 0,
      .name = "WinINet",
      .unexpectedStatus = kResultUnexpectedStatus,
      .timeOut = S_OK,
      .asksCallback = false,
      .seesRedirects = false,
      .keepsCookiesOfFailures = false,
      .answerWaitsAtConnection = true,
      .knowsLocalAddress = false,
      .receivesWhileSending = false,
      .documentedUnderWine = false,
      .decodes = false },
    { .kind = 2,
      .name = "CURL",
      .unexpectedStatus = E_FAIL,
      .timeOut = kResultTimeout,
      .asksCallback = true,
      .seesRedirects = true,
      .keepsCookiesOfFailures = true,
      .answerWaitsAtConnection = false,
      .knowsLocalAddress = true,
      .receivesWhileSending = true,
      .documentedUnderWine = true,
      .decodes = true },
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

// A server that leaves the WinINet transport's probe for credentials out of what a test sees: it is told by its version.
class CServer
{
public:
    explicit CServer(Loopback::CHandler handler)
        : m_server(
              [this, handler = std::move(handler)](const Loopback::CRequest& request, Loopback::CConnection& connection)
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

using Kind = CVoHTTPMessage::EContentKind;
using Response = CVoHTTPMessage::EResponseKind;
using Request = std::shared_ptr<CVoHTTPMessage::CHTTPRequestData>;

class TransportTest : public testing::TestWithParam<CTransport>
{
protected:
    void SetUp() override { m_stores.cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>(); }

    struct CStores
    {
        CVoComPtr<CScriptedAuthCallback> auth;
        CVoComPtr<CFixedProxyStore> proxy;
        CVoComPtr<CVoGlobalHTTPCookieStoreImpl> cookies;
    };

    [[nodiscard]] static CServerAddressData Address(const std::string& url)
    {
        CServerAddressData address;
        EXPECT_EQ(address.SetAddress(std::wstring(url.begin(), url.end()), false, true, true), S_OK);
        return address;
    }
    [[nodiscard]] std::shared_ptr<CVoHTTPMessage> Connect(const std::string& url, UINT32 connectTimeout = 10,
                                                          UINT32 requestTimeout = 20)
    {
        const CTransportScope scope(GetParam().kind);
        std::shared_ptr<CVoHTTPMessage> message;
        EXPECT_EQ(CVoHTTPMessage::Connect(Address(url), m_stores.auth.Get(), m_stores.proxy.Get(), m_stores.cookies.Get(),
                                          connectTimeout, requestTimeout, false, false, message),
                  S_OK);
        return message;
    }

    struct CAnswer
    {
        HRESULT result = E_UNEXPECTED;
        CVoHTTPMessage::CSendResult send;
        CVoBinaryDataParser message;
        bool isUtf8 = false;
        bool isEmpty = false;
    };
    // One request on a connected message, its answer read.
    [[nodiscard]] static CAnswer Send(CVoHTTPMessage& message, const CVoBinaryDataParser& parameters, Kind kind = Kind::Raw,
                                      bool allowRetry = false, Response read = Response::Parameters, bool utf8 = true,
                                      std::wstring_view key = {}, std::wstring_view signatureName = {})
    {
        CAnswer answer;
        Request request;
        if (answer.result = message.OpenRequest(request); FAILED(answer.result))
            return answer;
        answer.result = message.SendMessage(request, parameters, kind, utf8, key, signatureName, allowRetry, &answer.send);
        if (SUCCEEDED(answer.result))
            answer.result = message.ReadResponse(request, answer.message, read, &answer.isUtf8, &answer.isEmpty);
        return answer;
    }
    [[nodiscard]] CAnswer SendTo(const std::string& url, const CVoBinaryDataParser& parameters = {}, Kind kind = Kind::Raw,
                                 bool allowRetry = false, Response read = Response::Parameters)
    {
        const auto message = Connect(url);
        return message ? Send(*message, parameters, kind, allowRetry, read) : CAnswer();
    }

    CStores m_stores;
};
} // namespace TestSupport
