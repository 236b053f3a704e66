// A catalogue of what hostile and broken servers send, over each transport with short time-outs. Each exchange ends within its
// bound, takes bounded memory, gives no secret to another host, and leaves the message fit for the next request.
#include "Campaign.h"

#include <http/TransportFixture.h>
#include <support/Compress.h>
#include <support/MemoryMeter.h>

#include <base/VoUtils.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>

namespace Stress
{
namespace
{
using namespace TestSupport;
using namespace std::chrono_literals;
using Loopback::CConnection;
using std::string;

// What must come of an exchange.
enum class EOutcome
{
    Fails,
    FailsAsDocumented, // Wine's services take it for a response
    Limit,             // kErrorResponseLimit where the service delivers that much
    Succeeds,
    Ends // either way
};

struct CHostile
{
    const char* name;
    EOutcome outcome;
    std::function<void(CConnection&, CRandom&)> act;
    bool isSlow = false;    // it takes a time-out
    bool isEndless = false; // a header without an end, which Wine's services read for hours
};

constexpr UINT64 kBodyLimit = 4 << 20;
constexpr INT64 kMemoryLimit = 48 << 20; // of an exchange: the body's limit several times, and the longest header
constexpr INT64 kTimeLimit = 40'000'000; // microseconds: the time-outs of a second each, Wine's own, and a slow machine

const string kOk = "HTTP/1.1 200 OK\r\n";

string Repeated(size_t count, const std::function<string(size_t)>& piece)
{
    string text;
    for (size_t i = 0; i < count; ++i)
        text += piece(i);
    return text;
}
string Number(size_t i)
{
    return std::to_string(i);
}

// Sends bytes, then closes the connection.
auto Sends(string bytes)
{
    return [bytes = std::move(bytes)](CConnection& connection, CRandom&)
    {
        connection.Send(bytes);
        connection.CloseNow();
    };
}
// Sends bytes, then a piece again and again until the peer has enough.
auto Floods(string bytes, string piece)
{
    while (piece.size() < 16'000)
        piece += string(piece);
    return [bytes = std::move(bytes), piece = std::move(piece)](CConnection& connection, CRandom&)
    {
        constexpr size_t kMost = 96 << 20;
        bool isOpen = connection.Send(bytes);
        for (size_t sent = 0; isOpen && sent < kMost; sent += piece.size())
            isOpen = connection.Send(piece);
        connection.CloseNow();
    };
}
// Sends bytes, then nothing.
auto Stalls(string bytes)
{
    return [bytes = std::move(bytes)](CConnection& connection, CRandom&)
    {
        connection.Send(bytes);
        connection.WaitForPeerClose(20s);
        connection.CloseNow();
    };
}
auto Drips(string bytes, string slow)
{
    return [bytes = std::move(bytes), slow = std::move(slow)](CConnection& connection, CRandom&)
    {
        connection.Send(bytes);
        connection.Drip(slow, 1, 100ms);
        connection.CloseNow();
    };
}

string Coded(const string& coding, const string& body)
{
    return kOk + "Content-Encoding: " + coding + "\r\nContent-Length: " + Number(body.size()) + "\r\n\r\n" + body;
}
string Chunked(const string& body)
{
    return kOk + "Transfer-Encoding: chunked\r\n\r\n" + body;
}
string WithFields(const string& fields)
{
    return kOk + fields + "Content-Length: 3\r\n\r\na=1";
}
string Status(const string& line, const string& fields = {})
{
    return "HTTP/1.1 " + line + "\r\n" + fields + "Content-Length: 0\r\n\r\n";
}

// `bank` is "host:port" of another server.
std::vector<CHostile> Catalogue(const string& bank)
{
    using enum EOutcome;
    const string gzip = Compress("a=1&&" + string(2000, 'x'), ECompression::Gzip);
    const string bomb = Compress(string(100 << 20, '\0'), ECompression::Gzip);
    const string small = WithFields("Set-Cookie: r=1\r\n");
    return {
        // No response, or another protocol.
        { "no byte", Fails, Sends("") },
        { "a status line alone", FailsAsDocumented, Sends("HTTP/1.1 200 OK\r\n") },
        { "half a status line", Fails, Sends("HTTP/1.") },
        { "text without a header", FailsAsDocumented, Sends("a=1\r\n\r\n") },
        { "another protocol", FailsAsDocumented, Sends("SSH-2.0-Server\r\n\r\n") },
        { "bytes of all values", FailsAsDocumented, Sends(RandomBytes(5000)) },
        { "zeros", FailsAsDocumented, Floods("", string(1000, '\0')), false, true },
        { "an endless status line", Fails, Floods("HTTP/1.1 200 ", "OK"), false, true },
        { "a status beyond all numbers", Ends, Sends("HTTP/1.1 99999999999 OK\r\nContent-Length: 0\r\n\r\n") },
        { "a negative status", Ends, Sends("HTTP/1.1 -200 OK\r\nContent-Length: 3\r\n\r\na=1") },
        { "a status of letters", Ends, Sends("HTTP/1.1 abc OK\r\nContent-Length: 3\r\n\r\na=1") },
        { "no status", Ends, Sends("HTTP/1.1\r\nContent-Length: 3\r\n\r\na=1") },
        { "a version of the future", Ends, Sends("HTTP/9.9 200 OK\r\nContent-Length: 3\r\n\r\na=1") },
        // Headers.
        { "2000 fields", Limit, Sends(WithFields(Repeated(2000, [](size_t i) { return "X" + Number(i) + ": 1\r\n"; }))) },
        { "a field of 2 MB", FailsAsDocumented, Sends(WithFields("X: " + string(2 << 20, 'x') + "\r\n")) },
        { "an endless field", Fails, Floods(kOk + "X: ", "xxxxxxxx"), false, true },
        { "endless fields", Fails, Floods(kOk, "X: 1\r\n"), false, true },
        { "endless folded lines", Fails, Floods(kOk + "X: 1\r\n", " y\r\n"), false, true },
        { "20000 folded lines", Ends, Sends(WithFields("X: 1\r\n" + Repeated(20'000, [](size_t) { return " y\r\n"; }))) },
        { "a folded first line", Ends, Sends(kOk + " X: 1\r\nContent-Length: 3\r\n\r\na=1") },
        { "a field without a colon", Ends, Sends(WithFields("no colon\r\n")) },
        { "a field without a name", Ends, Sends(WithFields(": x\r\n")) },
        { "a blank in front of the colon", Ends, Sends(kOk + "Content-Length : 3\r\n\r\na=1") },
        { "zeros in a field", Ends, Sends(WithFields(string("X: a\0b\r\n", 8))) },
        { "control characters in a field", Ends, Sends(WithFields("X: \x01\x1B[2J\x7F\r\n")) },
        { "lines without carriage returns", Ends, Sends("HTTP/1.1 200 OK\nContent-Length: 3\n\na=1") },
        { "lines without line feeds", Ends, Sends("HTTP/1.1 200 OK\rContent-Length: 3\r\ra=1") },
        { "bytes beyond ASCII", Succeeds, Sends(WithFields("X-\xE4: \xFF\xFE\r\n")) },
        // Lengths.
        { "two lengths", Fails, Sends(kOk + "Content-Length: 3\r\nContent-Length: 4\r\n\r\na=1x") },
        { "a length beyond 64 bits", Fails, Sends(kOk + "Content-Length: 18446744073709551617\r\n\r\na=1") },
        { "a negative length", Fails, Sends(kOk + "Content-Length: -3\r\n\r\na=1") },
        { "a hexadecimal length", Fails, Sends(kOk + "Content-Length: 0x3\r\n\r\na=1") },
        { "a length of 8 EB", Fails, Sends(kOk + "Content-Length: 9223372036854775807\r\n\r\na=1") },
        { "a body that is too short", Fails, Sends(kOk + "Content-Length: 100\r\n\r\na=1") },
        { "a body that is too long", Ends, Sends(kOk + "Content-Length: 3\r\n\r\na=1" + WithFields("")) },
        { "a body of 96 MB", Limit, Floods(kOk + "Content-Length: 100663296\r\n\r\n", "xxxxxxxx") },
        { "an endless body", Limit, Floods(kOk + "\r\n", "xxxxxxxx") },
        { "a length and chunks", Ends,
          Sends(kOk + "Content-Length: 999\r\nTransfer-Encoding: chunked\r\n\r\n3\r\na=1\r\n0\r\n\r\n") },
        // Chunks.
        { "a chunk's size beyond 64 bits", FailsAsDocumented, Sends(Chunked("FFFFFFFFFFFFFFFFF\r\na=1")) },
        { "a chunk of 16 EB", FailsAsDocumented, Sends(Chunked("FFFFFFFFFFFFFFFF\r\na=1")) },
        { "a negative chunk", FailsAsDocumented, Sends(Chunked("-3\r\na=1\r\n0\r\n\r\n")) },
        { "a chunk without a size", FailsAsDocumented, Sends(Chunked("\r\na=1\r\n0\r\n\r\n")) },
        { "a chunk of letters", FailsAsDocumented, Sends(Chunked("xyz\r\na=1\r\n0\r\n\r\n")) },
        { "an endless chunk's size", Ends, Floods(Chunked(""), "00000000"), false, true },
        { "an endless chunk extension", Ends, Floods(Chunked("3;"), "x=y;x=y;"), false, true },
        { "endless chunks of a byte", Fails, Floods(Chunked(""), "1\r\nx\r\n"), false, true },
        { "endless trailers", Ends, Floods(Chunked("3\r\na=1\r\n0\r\n"), "X: 1\r\n"), false, true },
        { "no last chunk", FailsAsDocumented, Sends(Chunked("3\r\na=1\r\n")) },
        { "codings of the transfer that nobody knows", Ends,
          Sends(kOk + "Transfer-Encoding: x-none, chunked\r\n\r\n3\r\na=1\r\n0\r\n\r\n") },
        // Content codings. The services hand out the bytes as they came.
        { "100 MB in 100 KB", Ends, Sends(Coded("gzip", bomb)) },
        { "the same twice coded", Ends, Sends(Coded("gzip, gzip", Compress(bomb, ECompression::Gzip))) },
        { "a coded stream that is cut off", Ends, Sends(Coded("gzip", gzip.substr(0, 20))) },
        { "a coded stream that is damaged", Ends, Sends(Coded("gzip", gzip.substr(0, 15) + "xxxx" + gzip.substr(19))) },
        { "no coded stream", Ends, Sends(Coded("deflate", "a=1")) },
        { "a coding that nobody knows", Ends, Sends(Coded("x-none", "a=1")) },
        { "100 codings", Ends, Sends(Coded(Repeated(100, [](size_t i) { return i == 0 ? "gzip" : ", gzip"; }), gzip)) },
        // Interim responses.
        { "1000 interim responses", Ends,
          Sends(Repeated(1000, [](size_t) { return "HTTP/1.1 102 Wait\r\nX: 1\r\n\r\n"; }) + small) },
        { "endless interim responses", Fails, Floods("", "HTTP/1.1 100 Continue\r\n\r\n"), false, true },
        { "a switch of protocols", Ends, Sends("HTTP/1.1 101 Switch\r\nUpgrade: x\r\nConnection: upgrade\r\n\r\n" + small) },
        // Redirects. 302 may lead anywhere, the secrets of this host may not.
        { "a redirect to itself", Fails, Sends(Status("302 Found", "Location: /\r\nConnection: close\r\n")) },
        { "a redirect to another host", Ends, Sends(Status("302 Found", "Location: http://" + bank + "/x\r\n")) },
        { "a redirect that keeps the body", Ends, Sends(Status("307 Temporary", "Location: http://" + bank + "/x\r\n")) },
        { "a redirect with user information", Ends,
          Sends(Status("302 Found", "Location: http://127.0.0.1@" + bank + "/x\r\n")) },
        { "a redirect with a backslash", Ends, Sends(Status("302 Found", "Location: http:\\\\" + bank + "\\x\r\n")) },
        { "two redirects in one", Ends, Sends(Status("302 Found", "Location: /good\r\nLocation: http://" + bank + "/x\r\n")) },
        { "a redirect to a file", Fails, Sends(Status("302 Found", "Location: file:///C:/windows/win.ini\r\n")) },
        { "a redirect to a script", Fails, Sends(Status("302 Found", "Location: javascript:alert(1)\r\n")) },
        { "a redirect to nowhere", Fails, Sends(Status("302 Found")) },
        { "a redirect of 500 KB", Fails, Sends(Status("302 Found", "Location: /" + string(500'000, 'x') + "\r\n")) },
        { "a redirect with another request in it", Ends, Sends(Status("302 Found", "Location: /good%0d%0aX: y\r\n")) },
        // Challenges.
        { "a challenge for ever", Fails, Sends(Status("401 No", "WWW-Authenticate: Basic realm=\"r\"\r\n")) },
        { "a challenge without a scheme", Fails, Sends(Status("401 No")) },
        { "1000 challenges", Fails,
          Sends(Status("401 No", Repeated(900, [](size_t i) { return "WWW-Authenticate: S" + Number(i) + "\r\n"; }))) },
        { "a broken challenge", Fails,
          Sends(Status("401 No", "WWW-Authenticate: Basic realm=\"" + string(60'000, '\\') + "\r\n")) },
        { "a message of a handshake that nobody began", Fails,
          Sends(Status("401 No", "WWW-Authenticate: NTLM TlRMTVNTUAACAAAA\r\n")) },
        { "a proxy's challenge by a server", Fails, Sends(Status("407 No", "Proxy-Authenticate: Basic realm=\"r\"\r\n")) },
        // Cookies.
        { "900 cookies", Succeeds,
          Sends(WithFields(Repeated(900, [](size_t i) { return "Set-Cookie: c" + Number(i) + "=1\r\n"; }))) },
        { "a cookie of 60 KB", Succeeds, Sends(WithFields("Set-Cookie: c=" + string(60'000, 'x') + "\r\n")) },
        { "cookies for other domains", Succeeds,
          Sends(WithFields("Set-Cookie: bank=evil; Domain=localhost\r\nSet-Cookie: a=b; Domain=test\r\n")) },
        { "a cookie with control characters", Ends, Sends(WithFields("Set-Cookie: c=a\x01\x1F\r\n")) },
        // Connections that end or stall.
        { "a reset at any byte", Ends,
          [small](CConnection& connection, CRandom& random)
    {
        connection.Send(std::string_view(small).substr(0, random() % small.size()));
        connection.Reset();
    } },
        { "a close at any byte", Ends,
          [small](CConnection& connection, CRandom& random)
    {
        connection.Send(std::string_view(small).substr(0, random() % small.size()));
        connection.CloseNow();
    } },
        { "any damage", Ends,
          [small](CConnection& connection, CRandom& random)
    {
        string bytes = small;
        for (auto count = 1 + random() % 5; count > 0; --count)
            bytes[random() % bytes.size()] = static_cast<char>(random());
        connection.Send(bytes);
        connection.CloseNow();
    } },
        { "a header that comes byte by byte", FailsAsDocumented, Drips("", kOk + "X: " + string(60, 'x')), true },
        { "a body that comes byte by byte", Fails, Drips(kOk + "Content-Length: 60\r\n\r\n", string(60, 'x')), true },
        { "an error's body that comes byte by byte", Fails,
          Drips("HTTP/1.1 500 No\r\nContent-Length: 90\r\n\r\n", string(90, 'x')), true },
        { "silence", Fails, Stalls(""), true },
        { "silence in the header", Fails, Stalls(kOk + "X: "), true },
        { "silence in the body", Fails, Stalls(kOk + "Content-Length: 10\r\n\r\na=1"), true },
        { "silence in a chunk", Fails, Stalls(Chunked("a\r\na=1")), true },
        { "silence behind an interim response", Fails, Stalls("HTTP/1.1 100 Continue\r\n\r\n"), true },
    };
}

class CServersTest final : public testing::Test
{
public:
    explicit CServersTest(const CTransport& transport) : m_transport(transport) {}

    void TestBody() override
    {
        std::vector<size_t> order(m_catalogue.size());
        std::iota(order.begin(), order.end(), 0);
        std::erase_if(order, [&](size_t i)
        {
            return (IsShort() && !OnlyInput() && m_catalogue[i].isSlow) ||
                   (m_catalogue[i].isEndless && !BehavesAsDocumented(m_transport));
        });
        CRounds rounds(static_cast<unsigned>(order.size()), static_cast<unsigned>(order.size()));
        ASSERT_EQ(
            ConnectTo(Wide(m_server.URL()), { m_transport.kind, m_auth.Get(), nullptr, m_cookies.Get(), 1, 1 }, m_message),
            S_OK);
        while (rounds.Next() && (rounds.Round() < order.size() || !HasFailure()))
        {
            m_current = &m_catalogue[order[rounds.Round() % order.size()]];
            m_random = rounds.Random();
            SCOPED_TRACE(testing::Message()
                         << m_current->name << " over " << m_transport.name << "; repeat: " << rounds.Command());
            Attack(rounds.Round() % 3 == 0);
        }
    }

private:
    void Attack(bool posts)
    {
        const std::wstring bankUrl = L"http://localhost:" + std::to_wstring(m_bank.Port()) + L"/";
        EXPECT_EQ(m_cookies->Clear(), S_OK);
        EXPECT_EQ(m_cookies->AddCookieFromString(CVoBstr(L"bank=b1a2n3k4").Get(), CVoBstr(bankUrl).Get()), S_OK);
        EXPECT_EQ(m_cookies->AddCookieFromString(CVoBstr(L"own=o1w2n3").Get(), CVoBstr(Wide(m_server.URL())).Get()), S_OK);
        m_auth->AnswerServer({ { L"ann", L"s3cret" }, { L"ann", L"s3cret" }, { L"bob", L"s3cret" } });
        HRESULT hr = S_OK;
        INT64 peak = 0;
        const INT64 start = VoGetMicroseconds();
        {
            // Counts from here: what is freed from before counts against it.
            const CMemoryMeter meter;
            Request request;
            hr = m_message->OpenRequest(request);
            ASSERT_EQ(hr, S_OK);
            CVoResponseLimits limits;
            limits.bodyBytes = kBodyLimit;
            request->SetResponseLimits(limits);
            CVoBinaryDataParser response;
            hr = posts ? SendOn(*m_message, request, MakeMessage({ { L"p", L"p4r5m6" } }))
                       : m_message->SendGetRequest(request, {}, false, nullptr);
            if (SUCCEEDED(hr))
                hr = m_message->ReadResponse(request, response, Response::Binary, nullptr, nullptr);
            EXPECT_TRUE(SUCCEEDED(hr) || (response.GetCount() == 0 && response.Payload().empty())) << "an output was written";
            EXPECT_LE(response.Payload().size(), kBodyLimit);
            CVoExchangeRecord record;
            EXPECT_TRUE(SUCCEEDED(request->GetExchangeRecord(record)));
            EXPECT_EQ(record.Reason().empty(), SUCCEEDED(hr) && record.attempts.back().failure == EVoFailure::None);
            peak = meter.Peak();
        }
        EXPECT_LE(VoGetMicroseconds() - start, kTimeLimit);
        EXPECT_LE(peak, kMemoryLimit);
        const bool isDocumented = BehavesAsDocumented(m_transport);
        switch (m_current->outcome)
        {
        case EOutcome::Succeeds:
            EXPECT_EQ(hr, S_OK);
            break;
        case EOutcome::FailsAsDocumented:
            EXPECT_TRUE(FAILED(hr) || !isDocumented);
            break;
        case EOutcome::Limit:
            // A machine that is slow enough meets the time-out first.
            EXPECT_TRUE(hr == kErrorResponseLimit || hr == kResultTimeout || (FAILED(hr) && m_transport.kind != 2))
                << std::hex << hr;
            break;
        case EOutcome::Fails:
            EXPECT_TRUE(FAILED(hr));
            break;
        case EOutcome::Ends:
            break;
        }
        EXPECT_EQ(m_stolen, "");
        EXPECT_EQ(CookiesFor(*m_cookies.Get(), bankUrl), L"bank=b1a2n3k4") << "a cookie was planted";
        ExpectUsable();
    }

    // The next request has its own response, not what a server sent in advance.
    void ExpectUsable()
    {
        const std::wstring number = std::to_wstring(m_random());
        CResponse response;
        // A service may try to use the connection that the server has closed meanwhile.
        for (int attempt = 0; attempt < 3 && response.result != S_OK; ++attempt)
            response = Get(*m_message, L"/good?" + number);
        EXPECT_EQ(response.result, S_OK) << "the message cannot be used again";
        EXPECT_EQ(PayloadOf(response.message), Bytes(number)) << "the response of another request";
    }

    // Notes what must not reach a host that it does not belong to.
    void Look(const Loopback::CRequest& request, const char* cookie, bool isBank)
    {
        const std::scoped_lock lock(m_lock);
        if (request.Header("Cookie").find(cookie) != std::string_view::npos ||
            request.target.find(cookie) != std::string::npos || (isBank && !request.Header("Authorization").empty()) ||
            (isBank && request.method != "POST" && request.body.find("p4r5m6") != string::npos))
            m_stolen = string(isBank ? "at the bank: " : "at the attacker: ") + request.head;
    }

    const CTransport m_transport;
    std::mutex m_lock;
    string m_stolen;
    const CHostile* m_current = nullptr;
    CRandom m_random;
    CVoComPtr<CScriptedAuthCallback> m_auth = VoMakeComObject<CScriptedAuthCallback>();
    const CVoComPtr<CVoGlobalHTTPCookieStoreImpl> m_cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    const CServer m_bank{ [this](const Loopback::CRequest& request, CConnection& connection)
    {
        Look(request, "o1w2n3", true);
        connection.SendResponse(200, {}, "a=1");
    } };
    const std::vector<CHostile> m_catalogue = Catalogue("localhost:" + Number(m_bank.Port()));
    const CServer m_server{ [this](const Loopback::CRequest& request, CConnection& connection)
    {
        Look(request, "b1a2n3k4", false);
        if (request.Path() == "/good")
            connection.SendResponse(200, {}, request.Query());
        else
            m_current->act(connection, m_random);
    } };
    Message m_message; // goes first
};

const bool kServersRegistered = []
{
    for (const CTransport& transport : kTransports)
        if (!transport.rewritesLoopback) // as WinHTTP, but for the server's name
            testing::RegisterTest("Servers", transport.name, nullptr, nullptr, __FILE__, __LINE__,
                                  [&transport]() -> testing::Test*
            {
                return std::make_unique<CServersTest>(transport).release(); // the framework deletes it
            });
    return true;
}();
} // namespace
} // namespace Stress
