// What a request tells about its send, cancelling it, and the limits of its response, over every transport.
#include "http/TransportFixture.h"

#include <gtest/gtest.h>

#include <future>

using namespace TestSupport;

namespace
{
class ExchangeTest : public TransportTest
{
};
INSTANTIATE_TEST_SUITE_P(Kinds, ExchangeTest, testing::ValuesIn(kTransports), &NameOf);

CVoExchangeRecord RecordOf(const Request& request)
{
    CVoExchangeRecord record;
    EXPECT_EQ(request->GetExchangeRecord(record), S_OK);
    EXPECT_FALSE(record.attempts.empty());
    record.attempts.resize(std::max<size_t>(record.attempts.size(), 1));
    return record;
}

// Every text of a record, a line each.
std::wstring AllTexts(const CVoExchangeRecord& record)
{
    std::wstring all;
    for (const auto& attempt : record.attempts)
    {
        all += attempt.reason + L'\n' + attempt.proxy + L'\n';
        for (const std::wstring& target : attempt.redirects)
            all += target + L'\n';
        for (const auto& response : attempt.responses)
        {
            all += response.url + L'\n' + response.statusLine + L'\n';
            for (const CVoHTTPHeader& header : response.headers)
                all += header.name + L": " + header.value + L'\n';
        }
    }
    return all;
}

TEST_P(ExchangeTest, TheRecordTellsEachResponseWithoutSecrets)
{
    CServer server([](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (request.Path() == "/start")
            connection.SendResponse(302, { { "Location", "/end?key=SECRET" }, { "Set-Cookie", "id=SECRET; Path=/" } });
        else
            connection.SendResponse(200, { { "X-A", "1" }, { "x-a", "2" }, { "Set-Cookie", "SECRET" } }, "body");
    });
    const auto message = Connect(server.URL("/start?q=SECRET"));
    Request request = Open(*message);
    CVoExchangeRecord record;
    EXPECT_EQ(request->GetExchangeRecord(record), E_FAIL) << "nothing was sent";
    ASSERT_EQ(message->SendGetRequest(request, {}, false, nullptr), S_OK);
    CVoBinaryDataParser body;
    ASSERT_EQ(message->ReadResponse(request, body, Response::Binary, nullptr, nullptr), S_OK);

    record = RecordOf(request);
    ASSERT_EQ(record.attempts.size(), 1U);
    const CVoExchangeRecord::CAttempt& attempt = record.attempts[0];
    EXPECT_EQ(attempt.result, S_OK);
    EXPECT_EQ(record.Reason(), L"");
    EXPECT_TRUE(record.chain.empty());
    ASSERT_EQ(attempt.responses.size(), 2U);
    EXPECT_EQ(attempt.responses[0].statusCode, 302U);
    EXPECT_EQ(attempt.responses[0].url, SeenURL(server, L"/start?<8 characters>"));
    EXPECT_EQ(attempt.responses[1].statusLine, L"HTTP/1.1 200 OK");
    EXPECT_EQ(attempt.responses[1].url, SeenURL(server, L"/end?<10 characters>"));
    EXPECT_EQ(attempt.redirects, std::vector{ SeenURL(server, L"/end?<10 characters>") });
    EXPECT_EQ(attempt.bytesReceived, 4U);
    EXPECT_EQ(attempt.remoteAddress, L"127.0.0.1");
    EXPECT_NE(std::find(attempt.addresses.begin(), attempt.addresses.end(), L"127.0.0.1"), attempt.addresses.end());
    ASSERT_TRUE(attempt.times.sent && attempt.times.firstByte && attempt.times.total);
    EXPECT_LE(*attempt.times.sent, *attempt.times.firstByte);
    EXPECT_LE(*attempt.times.firstByte, *attempt.times.total);
    EXPECT_EQ(AllTexts(record).find(L"SECRET"), std::wstring::npos) << testing::PrintToString(AllTexts(record));

    std::vector<CVoHTTPHeader> headers;
    ASSERT_EQ(request->GetResponseHeaders(headers), S_OK);
    std::wstring values;
    for (const CVoHTTPHeader& header : headers)
        if (header.name == L"X-A" || header.name == L"x-a" || header.name == L"Set-Cookie")
            values += header.value + L' ';
    EXPECT_EQ(values, L"1 2 SECRET ") << "all headers, in order, as they are";
}

TEST_P(ExchangeTest, TheRecordExplainsAFailure)
{
    const bool isCurl = GetParam().kind == 2; // the services tell less
    const uint16_t closed = ClosedPort();
    CServer missing(Responds(404, { { "Content-Type", "text/plain" } }, "no such page"));
    CServer other(Responds(203, {}, "no error"));
    CServer challenge(
        Responds(401, { { "WWW-Authenticate", "Negotiate, Basic realm=\"a, Fake b=\\\"\", charset=\"UTF-8\"" } }));
    CServer silent(SendsAndCloses(""));
    CServer elsewhere(Responds(302, { { "Location", "http://127.0.0.1:" + std::to_string(closed) + "/?k=SECRET" } }));
    const struct
    {
        const char* name;
        std::string url;
        EVoFailure failure;
        std::wstring reason; // its beginning
        std::string errorBody;
    } cases[] = {
        { "refused", "http://127.0.0.1:" + std::to_string(closed) + "/x?k=SECRET",
          isCurl ? EVoFailure::ConnectRefused : EVoFailure::ConnectFailed,
          // To the service the address that the fixture connects to in place of the rewritten name is a proxy's.
          GetParam().kind == 3
              ? L"could not connect to the proxy 127.0.0.1: connection refused or not reachable"
              : L"could not connect to " + SeenHost() + L" port " + std::to_wstring(closed) + L": connection refused",
          "" },
        { "a status", missing.URL("/x?k=SECRET"), EVoFailure::Status,
          L"the response of " + SeenHost() + L" port " + std::to_wstring(missing.Port()) + L" has the status 404",
          "no such page" },
        { "a status below 400", other.URL("/x"), EVoFailure::Status,
          L"the response of " + SeenHost() + L" port " + std::to_wstring(other.Port()) + L" has the status 203", "" },
        { "a challenge", challenge.URL("/x?k=SECRET"), EVoFailure::Credentials,
          SeenHost() + L" port " + std::to_wstring(challenge.Port()) +
              L" demands credentials (status 401) and got none that it accepts",
          "" },
        { "a redirect to a closed port", elsewhere.URL("/x?k=SECRET"),
          isCurl ? EVoFailure::ConnectRefused : EVoFailure::ConnectFailed,
          L"could not connect to 127.0.0.1 port " + std::to_wstring(closed) + L": connection refused", "" },
        { "no response", silent.URL("/x?k=SECRET"), isCurl ? EVoFailure::ConnectionLost : EVoFailure::ResponseMalformed,
          (isCurl ? L"the connection to " : L"the response of ") + SeenHost(), "" },
    };
    for (const auto& item : cases)
    {
        SCOPED_TRACE(item.name);
        const auto message = Connect(item.url);
        const Request request = Open(*message);
        const HRESULT hr = SendOn(*message, request);
        EXPECT_LT(hr, 0);
        const CVoExchangeRecord record = RecordOf(request);
        EXPECT_EQ(record.attempts.back().result, hr);
        EXPECT_EQ(record.attempts.back().failure, item.failure);
        EXPECT_TRUE(record.Reason().starts_with(item.reason)) << testing::PrintToString(record.Reason());
        ASSERT_FALSE(record.chain.empty());
        EXPECT_EQ(record.chain.back().code, hr);
        EXPECT_EQ(AllTexts(record).find(L"SECRET"), std::wstring::npos);
        if (item.failure == EVoFailure::Credentials)
        {
            ASSERT_FALSE(record.attempts.back().responses.empty());
            EXPECT_EQ(record.attempts.back().responses.back().schemes, (std::vector<std::wstring>{ L"Negotiate", L"Basic" }));
        }
        std::vector<BYTE> body;
        EXPECT_EQ(request->GetErrorBody(body), S_OK);
        EXPECT_EQ(std::string(body.begin(), body.end()), item.errorBody);
    }
}

TEST_P(ExchangeTest, TheErrorBodyIsThatOfTheLastAttempt)
{
    CServer server([attempts = std::make_shared<std::atomic<int>>(0)](const auto&, Loopback::CConnection& connection)
    { connection.SendResponse(++*attempts == 1 ? 503 : 200, {}, "busy"); });
    const auto message = Connect(server.URL());
    const Request request = Open(*message);
    ASSERT_EQ(message->SendMessage(request, {}, Kind::Raw, true, {}, {}, true, nullptr), S_OK);
    std::vector<BYTE> body{ 1 };
    EXPECT_EQ(request->GetErrorBody(body), S_OK);
    EXPECT_THAT(body, testing::IsEmpty());
}

TEST_P(ExchangeTest, CancelEndsARequestForEver)
{
    CEvent arrived(false, false);
    CEvent released(false, true);
    CServer server([&](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (request.Path() == "/ok")
            return void(connection.SendResponse(200, {}, "ok"));
        if (request.Path() == "/busy")
        {
            (void)arrived.Set();
            connection.SendResponse(503);
            return;
        }
        if (request.Path() == "/body")
            connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nx");
        (void)arrived.Set();
        ::WaitForSingleObject(released.Handle(), 20'000);
        connection.CloseNow();
    });
    for (const char* const path : { "/headers", "/body", "/busy" })
    {
        SCOPED_TRACE(path);
        (void)released.Reset();
        const auto message = Connect(server.URL(path));
        const Request request = Open(*message);
        auto sending = std::async(std::launch::async, [&]
        {
            HRESULT hr = message->SendMessage(request, {}, Kind::Raw, true, {}, {}, true, nullptr);
            CVoBinaryDataParser body;
            return FAILED(hr) ? hr : message->ReadResponse(request, body, Response::Binary, nullptr, nullptr);
        });
        ASSERT_EQ(::WaitForSingleObject(arrived.Handle(), 20'000), WAIT_OBJECT_0);
        request->Cancel();
        request->Cancel();
        // Wine's services end a call only when the connection ends; libcurl and Windows end it by themselves.
        if (GetParam().kind != 2)
            (void)released.Set();
        EXPECT_EQ(sending.get(), kResultCancelled);
        (void)released.Set();
        EXPECT_EQ(RecordOf(request).attempts.back().failure, EVoFailure::Cancelled);
        EXPECT_EQ(SendOn(*message, request), kResultCancelled);
        EXPECT_EQ(Get(*message, L"/ok").result, S_OK) << "the message is usable";
    }
    const auto message = Connect(server.URL("/ok"));
    const Request request = Open(*message);
    request->Cancel();
    EXPECT_EQ(SendOn(*message, request), kResultCancelled);
    Request same = request;
    EXPECT_EQ(message->SendGetRequest(same, L"/other", false, nullptr), kResultCancelled);
    EXPECT_TRUE(request->IsCancelled());
}

TEST_P(ExchangeTest, AnUnreadResponseThatIsCancelledHasAReason)
{
    CServer server(Responds(200, {}, "ok"));
    const auto message = Connect(server.URL());
    const Request request = Open(*message);
    ASSERT_EQ(SendOn(*message, request), S_OK);
    request->Cancel();
    CVoBinaryDataParser body;
    EXPECT_EQ(message->ReadResponse(request, body, Response::Binary, nullptr, nullptr), kResultCancelled);
    EXPECT_EQ(RecordOf(request).Reason(), L"the request was cancelled");
}

TEST_P(ExchangeTest, AFailedResponseIsNotHeldUpByItsBody)
{
    CEvent returned(false, true);
    bool sawReturn = false;
    std::optional<CServer> server;
    server.emplace([&](const Loopback::CRequest& /*request*/, Loopback::CConnection& connection)
    {
        connection.Send("HTTP/1.1 404 Not Found\r\nContent-Length: 60000\r\n\r\n");
        for (int piece = 0; piece < 200 && !sawReturn; ++piece)
        {
            connection.Send("x");
            sawReturn = ::WaitForSingleObject(returned.Handle(), 100) == WAIT_OBJECT_0;
        }
        connection.CloseNow();
    });
    const auto message = Connect(server->URL(), 10, 1);
    const Request request = Open(*message);
    EXPECT_LT(SendOn(*message, request), 0);
    (void)returned.Set();
    EXPECT_EQ(RecordOf(request).attempts.back().failure, EVoFailure::Status);
    server.reset(); // waits for the handler
    EXPECT_TRUE(sawReturn) << "the body came to its end first";
}

TEST_P(ExchangeTest, AResponseBeyondItsLimitsIsAFailure)
{
    Loopback::CHeaders fields;
    for (int i = 0; i < 40; ++i)
        fields.push_back({ "X-" + std::to_string(i), std::string(20, 'v') });
    for (const char* const cookie : { "a=1", "b=2", "c=3" })
        fields.push_back({ "Set-Cookie", cookie });
    CServer server(Responds(200, fields, std::string(5'000, 'b')));
    struct
    {
        const char* name;
        CVoResponseLimits limits;
        HRESULT expected;
    } const cases[] = {
        { "no limit reached", {}, S_OK },
        { "bytes of the header", { .headerBytes = 800 }, kErrorResponseLimit },
        { "one field beyond the limit", { .headerFields = 43 }, kErrorResponseLimit },
        { "fields at the limit", { .headerFields = 44 }, S_OK },
        { "cookies beyond the limit", { .cookies = 2 }, S_OK },
        { "a body at the limit", { .bodyBytes = 5'000 }, S_OK },
        { "a body beyond the limit", { .bodyBytes = 4'999 }, kErrorResponseLimit },
    };
    for (const auto& item : cases)
    {
        SCOPED_TRACE(item.name);
        EXPECT_EQ(m_cookies->Clear(), S_OK);
        const auto message = Connect(server.URL());
        const Request request = Open(*message);
        request->SetResponseLimits(item.limits);
        HRESULT hr = SendOn(*message, request);
        CVoBinaryDataParser body;
        if (SUCCEEDED(hr))
            hr = message->ReadResponse(request, body, Response::Binary, nullptr, nullptr);
        EXPECT_EQ(hr, item.expected);
        EXPECT_EQ(PayloadOf(body).size(), SUCCEEDED(item.expected) ? 5'000U : 0U);
        EXPECT_EQ(RecordOf(request).attempts.back().failure,
                  SUCCEEDED(item.expected) ? EVoFailure::None : EVoFailure::ResponseLimit);
        EXPECT_TRUE(FAILED(hr) || CookiesFor(*m_cookies.Get(), SeenURL(server, L"/")) ==
                                      (item.limits.cookies == 2 ? L"a=1; b=2" : L"a=1; b=2; c=3"));
    }

    // Lines that look like the start of another response do not count for less. The services read those themselves.
    const bool isCurl = GetParam().kind == 2;
    std::string likeStatus = "HTTP/1.1 200 OK\r\n";
    std::string interim;
    for (int i = 0; i < 40; ++i)
    {
        likeStatus += std::string(isCurl ? "HTTP/1: x\r\nX-" : "X-") + std::to_string(i) + ": y\r\n";
        interim += "HTTP/1.1 103 Early Hints\r\nX: y\r\n\r\n";
    }
    std::vector<std::string> responses{ likeStatus + "Content-Length: 0\r\n\r\n" };
    if (isCurl)
        responses.push_back(interim + "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    for (const std::string& response : responses)
    {
        CServer flood(SendsAndCloses(response));
        const auto message = Connect(flood.URL());
        const Request request = Open(*message);
        request->SetResponseLimits({ .headerFields = 30 });
        EXPECT_EQ(message->SendMessage(request, {}, Kind::Raw, true, {}, {}, true, nullptr), kErrorResponseLimit);
        EXPECT_EQ(flood.RequestCount(), 1U) << "the next response would be as large";
    }
}
} // namespace
