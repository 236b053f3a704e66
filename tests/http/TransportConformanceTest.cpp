// One behaviour for all transports: every test here runs against each kind, over real sockets.
#include "http/TransportFixture.h"
#include "support/Compress.h"
#include "support/LogCapture.h"

#include <base/VoUtils.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>

using namespace TestSupport;
using namespace std::string_literals;

namespace
{
INSTANTIATE_TEST_SUITE_P(Kinds, TransportTest, testing::ValuesIn(kTransports), &NameOf);

TEST_P(TransportTest, SendsEachContentKindByteForByte)
{
    CServer server(Responds(200, { { "Content-Type", "text/plain; charset=UTF-8" } }, "ok=1&&"));
    constexpr const char* kBytes = "application/octet-stream";
    constexpr const char* kForm = "application/x-www-form-urlencoded";
    struct
    {
        Kind kind;
        bool utf8;
        Params params;
        const char *payload, *contentType, *body;
    } const cases[] = {
        { Kind::Raw, true, { { L"a", L"1&2$" }, { L"ü", L"é" } }, "PAY", kBytes, "a=1$&2$$&\xC3\xBC=\xC3\xA9&&PAY" },
        { Kind::Raw, false, { { L"a", L"é" } }, "", kBytes, "a=\xE9&&" },
        { Kind::Form, true, { { L"a", L"1 2&" }, { L"b", L"-é" } }, "", kForm, "a=1%202%26&b=%2D%C3%A9" },
        { Kind::Form, false, { { L"a", L"é" } }, "", kForm, "a=%E9" },
        { Kind::Form, true, {}, "", kForm, "" },
        { Kind::Empty, true, { { L"a", L"1" } }, "", "", "" },
    };
    const auto message = Connect(server.URL("/service?x=1"));
    for (const auto& item : cases)
    {
        const CResponse response =
            Send(*message, MakeMessage(item.params, item.payload), item.kind, false, Response::Parameters, item.utf8);
        const std::string_view charset = item.utf8 && *item.contentType ? "; charset=UTF-8" : "";
        EXPECT_EQ(response.result, S_OK);
        EXPECT_TRUE(response.isUtf8);
        EXPECT_EQ(ParamsOf(response.message), (Params{ { L"ok", L"1" } }));
        const Loopback::CRequest request = server.Requests().back();
        EXPECT_EQ(request.method, "POST");
        EXPECT_EQ(request.target, "/service?x=1");
        EXPECT_EQ(request.Header("Content-Type"), item.contentType + std::string(charset));
        EXPECT_EQ(request.body, item.body);
        EXPECT_EQ(request.Header("Accept"), "*/*");
        EXPECT_TRUE(request.Header("Expect").empty());
        EXPECT_FALSE(request.Header("User-Agent").empty());
    }

    const CResponse response =
        Send(*message, MakeMessage({ { L"a", L"1" }, { L"FileName", L"b.jpg" } }, "JPEG"), Kind::Multipart);
    EXPECT_EQ(response.result, S_OK);
    const std::string contentType(server.Requests().back().Header("Content-Type"));
    constexpr std::string_view kPrefix = "multipart/form-data; charset=UTF-8; boundary=";
    ASSERT_TRUE(contentType.starts_with(kPrefix)) << contentType;
    const std::string boundary = contentType.substr(kPrefix.size());
    EXPECT_EQ(server.Requests().back().body, "--" + boundary + "\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--" +
                                                 boundary +
                                                 "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"b.jpg\"\r\n"
                                                 "Content-Type: image/pjpeg\r\n\r\nJPEG\r\n--" +
                                                 boundary + "--");
}

TEST_P(TransportTest, RefusesContentThatCannotBeSent)
{
    CServer server(Responds(200));
    const auto message = Connect(server.URL());
    const std::tuple<Kind, const char*, const wchar_t*, const wchar_t*, HRESULT> cases[] = {
        { Kind::Form, "x", L"", L"", E_NOTIMPL },           { Kind::SignedForm, "", L"", L"sig", E_INVALIDARG },
        { Kind::SignedForm, "", L"00", L"", E_INVALIDARG }, { Kind::SignedForm, "x", L"00", L"sig", E_NOTIMPL },
        { Kind::Empty, "x", L"", L"", E_NOTIMPL },          { static_cast<Kind>(5), "", L"", L"", E_NOTIMPL },
    };
    for (const auto& [kind, payload, key, name, expected] : cases)
    {
        const auto parameters = MakeMessage({ { L"a", L"1" } }, payload);
        EXPECT_EQ(Send(*message, parameters, kind, false, Response::Parameters, true, key, name).result, expected)
            << static_cast<UINT32>(kind) << payload;
    }
    EXPECT_EQ(SendOn(*message, nullptr), E_INVALIDARG);
    CVoBinaryDataParser out;
    EXPECT_EQ(message->ReadResponse(nullptr, out, Response::Parameters, nullptr, nullptr), E_INVALIDARG);
    const Request request = Open(*message);
    EXPECT_EQ(message->ReadResponse(request, out, Response::Parameters, nullptr, nullptr), E_FAIL) << "nothing was sent";
    EXPECT_EQ(server.RequestCount(), 0U);
}

TEST_P(TransportTest, ReadsResponsesOfEveryShape)
{
    const std::string longLine(32'000, 'x');
    struct
    {
        const char* name;
        std::string wire; // behind the status line
        Response read;
        const wchar_t* a; // the parameter's value, null without one
        std::string payload;
    } const cases[] = {
        { "parameters in UTF-8", "Content-Type: text/plain; charset=\"utf-8\"\r\nContent-Length: 8\r\n\r\na=\xC3\xA9&&\x01\x02",
          Response::Parameters, L"é", "\x01\x02" },
        { "parameters in the code page", "Content-Length: 5\r\n\r\na=\xE9&&", Response::Parameters, L"é", "" },
        { "an empty body", "Content-Length: 0\r\n\r\n", Response::Parameters, nullptr, "" },
        { "a body read as bytes", "Content-Length: 7\r\n\r\na=1&&xy", Response::Binary, nullptr, "a=1&&xy" },
        { "a chunked body", "Transfer-Encoding: chunked\r\n\r\n3\r\na=1\r\n4;x=y\r\n&&xy\r\n0\r\nTrailer: 1\r\n\r\n",
          Response::Parameters, L"1", "xy" },
        { "a chunked body with a wrong Content-Length",
          "Transfer-Encoding: chunked\r\nContent-Length: 99\r\n\r\n3\r\na=1\r\n0\r\n\r\n", Response::Parameters, L"1", "" },
        { "a body that ends with the connection", "Connection: close\r\n\r\na=1&&xyz", Response::Parameters, L"1", "xyz" },
        { "equal lengths", "Content-Length: 3\r\nContent-Length: 3, 3\r\n\r\na=1", Response::Parameters, L"1", "" },
        { "64 KB of headers", "X: " + longLine + "\r\nY: " + longLine + "\r\nContent-Length: 3\r\n\r\na=1",
          Response::Parameters, L"1", "" },
    };
    for (const auto& item : cases)
    {
        SCOPED_TRACE(item.name);
        CServer server(SendsAndCloses("HTTP/1.1 200 OK\r\n" + item.wire));
        const CResponse response = SendTo(server.URL(), {}, Kind::Raw, false, item.read);
        EXPECT_EQ(response.result, S_OK);
        EXPECT_EQ(ParamsOf(response.message), item.a ? (Params{ { L"a", item.a } }) : Params{});
        EXPECT_EQ(PayloadOf(response.message), item.payload);
        EXPECT_EQ(response.isEmpty, !item.a && item.payload.empty());
    }
}

TEST_P(TransportTest, ATruncatedOrMalformedResponseIsAFailure)
{
    const std::string head = "HTTP/1.1 200 OK\r\n";
    const std::string coding = "Content-Encoding: gzip\r\n";
    const std::string gzip = Compress("a=1&&" + std::string(1000, 'x'), ECompression::Gzip);
    const std::tuple<const char*, std::string, bool> cases[] = {
        { "no bytes at all", "", false },
        { "the connection ends in the headers", head + "Content-Le", true },
        { "a body shorter than announced", head + "Content-Length: 100\r\n\r\na=1", false },
        { "the connection ends in a chunk", head + "Transfer-Encoding: chunked\r\n\r\n10\r\na=1", true },
        { "the last chunk is missing", head + "Transfer-Encoding: chunked\r\n\r\n3\r\na=1\r\n", true },
        { "another protocol", "SSH-2.0-Server\r\n\r\n", false },
        { "a length with a sign", head + "Content-Length: +3\r\n\r\na=1", false },
        { "a negative length", head + "Content-Length: -1\r\n\r\na=1", false },
        { "a length with a unit", head + "Content-Length: 3B\r\n\r\na=1", false },
        { "an empty length", head + "Content-Length:\r\n\r\na=1", false },
        { "a length beyond 64 bits", head + "Content-Length: 99999999999999999999\r\n\r\na=1", false },
        { "two lengths in a field", head + "Content-Length: 3, 4\r\n\r\na=1x", false },
        { "two lengths", head + "Content-Length: 3\r\nContent-Length: 4\r\n\r\na=1x", false },
        { "two lengths, the longer one first", head + "Content-Length: 4\r\nContent-Length: 3\r\n\r\na=1x", false },
        { "a gzip stream that is cut off", head + coding + "Content-Length: 20\r\n\r\n" + gzip.substr(0, 20), false },
        { "the same with the connection's end", head + coding + "\r\n" + gzip.substr(0, gzip.size() - 1), false },
        { "the same in chunks",
          head + coding + "Transfer-Encoding: chunked\r\n\r\na\r\n" + gzip.substr(0, 10) + "\r\n0\r\n\r\n", false },
        { "no gzip stream", head + coding + "Content-Length: 3\r\n\r\na=1", false },
    };
    for (const auto& [name, wire, asDocumentedOnly] : cases)
    {
        if (asDocumentedOnly && !BehavesAsDocumented(GetParam()))
            continue;
        SCOPED_TRACE(name);
        CServer server(SendsAndCloses(wire));
        const CLogCapture log;
        const CResponse response = SendTo(server.URL());
        EXPECT_TRUE(FAILED(response.result));
        EXPECT_EQ(response.message.GetCount(), 0U);
        EXPECT_FALSE(log.Lines().empty());
    }
}

TEST_P(TransportTest, ACodedBodyIsDecodedOverLibcurlAndHandedOutAsItCameByTheServices)
{
    const std::string gzip = Compress("a=1&&xyz", ECompression::Gzip);
    CServer server(Responds(200, { { "Content-Encoding", "gzip" } }, gzip));
    const CResponse response = SendTo(server.URL(), {}, Kind::Raw, false, Response::Binary);
    EXPECT_EQ(response.result, S_OK);
    const bool decodes = !server.Requests()[0].Header("Accept-Encoding").empty();
    EXPECT_EQ(PayloadOf(response.message), decodes ? "a=1&&xyz" : gzip);
}

TEST_P(TransportTest, OnlyStatus200IsSuccessAndClientErrorsAreNeverRetried)
{
    const CLogCapture log;
    for (const int status : { 201, 204, 304, 400, 401, 402, 403, 404, 405, 406, 407, 503 })
    {
        std::atomic<int> requests{ 0 };
        CServer server([&](const auto&, Loopback::CConnection& connection)
        {
            // The first retry succeeds, so that the test need not wait for the end of the budget.
            Loopback::CHeaders headers;
            if (status == 401)
                headers.push_back({ "WWW-Authenticate", "Basic realm=\"r\"" });
            if (status == 407)
                headers.push_back({ "Proxy-Authenticate", "Basic realm=\"r\"" });
            connection.SendResponse(++requests == 1 ? status : 200, headers, "a=1");
        });
        const HRESULT expected = status == 401 || status == 407 ? GetParam().unanswered : GetParam().unexpectedStatus;
        const CResponse once = SendTo(server.URL("/?secret=1"));
        EXPECT_EQ(once.result, expected) << status;
        EXPECT_EQ(once.send.statusCode, static_cast<UINT32>(status));
        EXPECT_FALSE(once.send.retried);
        EXPECT_EQ(requests, 1) << status;

        requests = 0;
        const bool final = (status >= 400 && status <= 405) || status == 407;
        const CResponse retried = SendTo(server.URL(), {}, Kind::Raw, true);
        EXPECT_EQ(retried.result, final ? expected : S_OK) << status;
        EXPECT_EQ(retried.send.retried, !final) << status;
        EXPECT_EQ(requests, final ? 1 : 2) << status;
    }
    ExpectNotLogged(log, L"secret=1");
}

TEST_P(TransportTest, AClientErrorThatBreaksOffIsNotRetriedEither)
{
    CServer server(SendsAndCloses("HTTP/1.1 404 Not Found\r\nContent-Length: 100\r\n\r\na=1"));
    const CResponse response = SendTo(server.URL(), {}, Kind::Raw, true);
    EXPECT_TRUE(FAILED(response.result));
    EXPECT_EQ(response.send.statusCode, 404U);
    EXPECT_EQ(server.RequestCount(), 1U);
}

TEST_P(TransportTest, ABodyThatIsNoMessageCanStillBeReadAsBytes)
{
    CServer server(Responds(200, {}, "a=1&junk"));
    const auto message = Connect(server.URL());
    const Request request = Open(*message);
    ASSERT_EQ(SendOn(*message, request), S_OK);
    CVoBinaryDataParser read = MakeMessage({ { L"own", L"1" } }, "payload");
    const CLogCapture log;
    EXPECT_EQ(message->ReadResponse(request, read, Response::Parameters, nullptr, nullptr), E_FAIL);
    EXPECT_EQ(ParamsOf(read), (Params{ { L"own", L"1" } }));
    EXPECT_EQ(PayloadOf(read), "payload");
    EXPECT_THAT(log.Lines(), testing::Contains(
                                 IsMessage(L"..\\source\\VoHTTPMessage", 384, std::wstring(L"Parsing error! Data: a=1&junk"))));
    EXPECT_EQ(message->ReadResponse(request, read, Response::Binary, nullptr, nullptr), S_OK);
    EXPECT_EQ(PayloadOf(read), "a=1&junk");
}

TEST_P(TransportTest, ARequestSentAgainCarriesNothingOfTheFirstSend)
{
    CServer server(&Echo);
    const auto message = Connect(server.URL());
    const Request request = Open(*message);
    struct
    {
        Params params;
        Kind kind;
        const char* body;
    } const sends[] = { { { { L"x", L"y" } }, Kind::Raw, "x=y&&" },
                        { {}, Kind::Empty, "" },
                        { { { L"longer", L"body" } }, Kind::Raw, "longer=body&&" } };
    for (const auto& send : sends)
    {
        SCOPED_TRACE(send.body);
        EXPECT_EQ(SendOn(*message, request, MakeMessage(send.params), send.kind), S_OK);
        CVoBinaryDataParser read;
        EXPECT_EQ(message->ReadResponse(request, read, Response::Parameters, nullptr, nullptr), S_OK);
        EXPECT_EQ(ParamsOf(read), send.params);
        const Loopback::CRequest seen = server.Requests().back();
        EXPECT_EQ(seen.body, send.body);
        EXPECT_EQ(seen.Header("Content-Type").empty(), send.kind == Kind::Empty);
    }
    EXPECT_EQ(server.RequestCount(), std::size(sends));
}

TEST_P(TransportTest, RetriesEndWithTheBudget)
{
    CServer server(Responds(500));
    const auto message = Connect(server.URL(), 1, 10);
    const INT64 start = VoGetMicroseconds();
    const CResponse response = Send(*message, {}, Kind::Raw, true);
    const INT64 elapsed = VoGetMicroseconds() - start;
    EXPECT_EQ(response.result, GetParam().unexpectedStatus);
    EXPECT_TRUE(response.send.retried);
    EXPECT_GT(server.RequestCount(), 1U);
    EXPECT_LE(server.RequestCount(), 10U) << "the pauses double from 50 ms";
    EXPECT_GE(elapsed, 1'000'000) << "the budget is the connect time-out";
}

TEST_P(TransportTest, ARetryAfterBeyondTheBudgetEndsTheSend)
{
    for (const char* const asked : { "3600", "Fri, 31 Dec 2999 23:59:59 GMT" })
    {
        CServer server(Responds(503, { { "Retry-After", asked } }));
        const CResponse response = SendTo(server.URL(), {}, Kind::Raw, true);
        EXPECT_EQ(response.result, GetParam().unexpectedStatus);
        EXPECT_FALSE(response.send.retried);
        EXPECT_EQ(server.RequestCount(), 1U);
    }
}

TEST_P(TransportTest, ConnectingOnAnotherThreadEndsThePauseBeforeARetry)
{
    std::promise<void> reached;
    CServer server([&](const Loopback::CRequest&, Loopback::CConnection& connection)
    {
        connection.SendResponse(503, { { "Retry-After", "1000" } });
        reached.set_value();
    });
    const auto message = Connect(server.URL(), 2000);
    const Request request = Open(*message);
    CVoHTTPMessage::CSendResult result;
    auto sending = std::async(std::launch::async,
                              [&] { return message->SendMessage(request, {}, Kind::Raw, true, {}, {}, true, &result); });
    reached.get_future().wait();
    EXPECT_EQ(message->Connect(Address(Wide(server.URL())), nullptr, nullptr, nullptr, 5, 5, false, false), S_OK);
    EXPECT_EQ(sending.get(), GetParam().unexpectedStatus);
    EXPECT_FALSE(result.retried);
    EXPECT_EQ(server.RequestCount(), 1U);
}

TEST_P(TransportTest, ASilentServerAndOneThatDripsEndInATimeOut)
{
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 80\r\n\r\n";
    for (const auto& [sent, dripped] :
         { std::pair(std::string(), 0), { "HTTP/1.1 200 OK\r\nCont", 0 }, { head, 0 }, { head, 80 } })
    {
        SCOPED_TRACE(testing::Message() << sent << dripped);
        CServer server([&](const auto&, Loopback::CConnection& connection)
        {
            connection.Send(sent);
            if (dripped != 0)
                connection.Drip(std::string(static_cast<size_t>(dripped), 'x'), 1, std::chrono::milliseconds(100));
            else
                connection.WaitForPeerClose(std::chrono::seconds(60));
            connection.CloseNow();
        });
        const HRESULT result = Send(*Connect(server.URL(), 1, 1), {}).result;
        EXPECT_TRUE(FAILED(result) && (GetParam().timeOut == S_OK || result == GetParam().timeOut)) << std::hex << result;
        EXPECT_TRUE(dripped == 0 || CVoHTTPMessage::IsTimeOut(result)) << std::hex << result;
    }
}

TEST_P(TransportTest, SendsSeveralMessagesInOneRequest)
{
    CServer server([](const Loopback::CRequest& request, Loopback::CConnection& connection)
    { connection.SendResponse(200, { { "Content-Type", "application/octet-stream; charset=UTF-8" } }, request.body); });
    const auto message = Connect(server.URL());
    std::vector<CVoBinaryDataParser> messages;
    messages.push_back(MakeMessage({ { L"n", L"ä" } }, "first"));
    messages.push_back(MakeMessage({}, {}));
    messages.push_back(MakeMessage({ { L"x", L"2" }, { L"y", L"&" } }, std::string(70'000, 'z')));
    const Request request = Open(*message);
    ASSERT_EQ(message->SendMultipleMessages(request, messages, true, false, nullptr), S_OK);
    std::vector<CVoBinaryDataParser> responses;
    UINT32 count = 0;
    EXPECT_EQ(message->ReadMultipleResponses(request, responses, 2, &count), E_FAIL) << "three messages came";
    EXPECT_TRUE(responses.empty());
    ASSERT_EQ(message->ReadMultipleResponses(request, responses, 3, &count), S_OK);
    ASSERT_EQ(count, 3U);
    for (size_t i = 0; i < messages.size(); ++i)
    {
        EXPECT_EQ(ParamsOf(responses[i]), ParamsOf(messages[i]));
        EXPECT_EQ(PayloadOf(responses[i]), PayloadOf(messages[i]));
    }
    EXPECT_EQ(message->ReadMultipleResponses(request, responses, 0, &count), E_FAIL) << "the response was read already";
}

TEST_P(TransportTest, ALengthThatRunsPastTheEndLeavesTheOutputs)
{
    const std::string good("\x05\0\0\0x=1&&", 9);
    for (const std::string& bad : { good + std::string("\x06\0\0\0y=1&&", 9), good + std::string("\x05\0\0", 3),
                                    good + "\xFC\xFF\xFF\xFFy=1&&", good + "\xFF\xFF\xFF\xFFy=1&&" })
    {
        CServer server(Responds(200, {}, bad));
        const auto message = Connect(server.URL());
        const Request request = Open(*message);
        ASSERT_EQ(message->SendMultipleMessages(request, {}, true, false, nullptr), S_OK);
        std::vector<CVoBinaryDataParser> responses(7);
        UINT32 count = 7;
        EXPECT_EQ(message->ReadMultipleResponses(request, responses, 0, &count), E_FAIL);
        EXPECT_EQ(responses.size(), 7U);
        EXPECT_EQ(count, 7U);
    }
}

TEST(MultipleResponses, AreCountedBeforeTheyAreParsed)
{
    std::vector<BYTE> empty(100'001 * 4); // as many messages of length 0
    std::vector<CVoBinaryDataParser> responses(7);
    const auto parse = [&](size_t bytes, UINT32 expected)
    { return CVoHTTPMessage::internalParseMultipleResponses(std::span(empty).first(bytes), true, expected, responses); };
    EXPECT_EQ(parse(empty.size(), 0), kErrorResponseLimit);
    EXPECT_EQ(parse(empty.size(), 3), E_FAIL);
    EXPECT_EQ(responses.size(), 7U);
    EXPECT_EQ(parse(empty.size() - 4, 0), S_OK);
    EXPECT_EQ(responses.size(), 100'000U);
    EXPECT_EQ(parse(empty.size(), 100'001), S_OK) << "the caller expects them";
}

TEST_P(TransportTest, GetsAnyPathOfTheServer)
{
    CServer server(Responds(200, {}, "bytes"));
    const auto message = Connect(server.URL("/own?q=1"));
    for (const wchar_t* const path : { L"", L"/other", L"/p\u00E4th?x=\u20AC" })
    {
        const CResponse response = Get(*message, path);
        ASSERT_EQ(response.result, S_OK);
        EXPECT_EQ(PayloadOf(response.message), "bytes");
        EXPECT_TRUE(!GetParam().knowsLocalAddress || response.send.localAddress == L"127.0.0.1");
    }
    ASSERT_EQ(server.Requests().size(), 3U);
    EXPECT_EQ(server.Requests()[0].method, "GET");
    EXPECT_EQ(server.Requests()[0].target, "/own?q=1");
    EXPECT_TRUE(server.Requests()[0].Header("Content-Type").empty());
    EXPECT_EQ(server.Requests()[1].target, "/other");
    EXPECT_EQ(server.Requests()[2].target, "/p%C3%A4th?x=%E2%82%AC");
    Request request;
    EXPECT_EQ(message->SendGetRequest(request, L"no/slash", false, nullptr), E_INVALIDARG);
    EXPECT_EQ(request, nullptr);

    // An opened request is used when it fits, and replaced when it does not.
    const Request opened = request = Open(*message);
    ASSERT_EQ(message->SendGetRequest(request, {}, false, nullptr), S_OK);
    EXPECT_EQ(request, opened);
    EXPECT_EQ(server.Requests().back().method, "GET");
    // A send after a GET is a POST again.
    ASSERT_EQ(SendOn(*message, request, MakeMessage({ { L"a", L"1" } })), S_OK);
    EXPECT_EQ(server.Requests().back().method, "POST");
    EXPECT_EQ(server.Requests().back().body, "a=1&&");
    ASSERT_EQ(message->SendGetRequest(request, L"/new", false, nullptr), S_OK);
    EXPECT_NE(request, opened);

    // One that was not sent yet fits every path.
    const Request fresh = request = Open(*message);
    ASSERT_EQ(message->SendGetRequest(request, L"/fresh?x", false, nullptr), S_OK);
    EXPECT_EQ(request, fresh);
    EXPECT_EQ(server.Requests().back().method + server.Requests().back().target, "GET/fresh?x");
    ASSERT_EQ(message->SendGetRequest(request, {}, false, nullptr), S_OK);
    EXPECT_NE(request, fresh);
}

TEST_P(TransportTest, ManyRequestsUseOneConnection)
{
    CServer server(&Echo);
    const auto message = Connect(server.URL());
    for (int i = 0; i < 100; ++i)
    {
        const std::wstring number = std::to_wstring(i);
        const CResponse response = Send(*message, MakeMessage({ { L"i", number } }));
        ASSERT_EQ(ParamsOf(response.message), (Params{ { L"i", number } }));
    }
    EXPECT_EQ(server.ConnectionCount(), 1U);

    // Connecting anew begins with a new one, where they belong to a session and not, as under Wine, to the process.
    ASSERT_EQ(message->Connect(Address(Wide(server.URL())), nullptr, nullptr, nullptr, 5, 5, false, false), S_OK);
    ASSERT_EQ(Send(*message, {}).result, S_OK);
    EXPECT_EQ(server.ConnectionCount(), GetParam().dropsConnectionsUnderWine || !IsWine() ? 2U : 1U);
}

TEST_P(TransportTest, AConnectionThatTheServerClosesIsReplaced)
{
    // The server closes its side after the second response: the next one needs a new connection.
    CServer server([](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        connection.SendResponse(200, {}, request.body);
        if (request.number == 2)
            connection.CloseNow();
    });
    const auto message = Connect(server.URL());
    for (int i = 0; i < 10; ++i)
    {
        const CResponse response = Send(*message, MakeMessage({ { L"i", std::to_wstring(i) } }), Kind::Raw, true);
        ASSERT_EQ(response.result, S_OK);
        ASSERT_EQ(ParamsOf(response.message), (Params{ { L"i", std::to_wstring(i) } }));
    }
}

TEST_P(TransportTest, Carries100MBBothWays)
{
    CServer server(&Echo);
    const CVoBinaryDataParser parameters = MakeMessage({ { L"a", L"1" } }, RandomBytes(100 << 20));
    const CResponse response = Send(*Connect(server.URL(), 30, 120), parameters);
    ASSERT_EQ(response.result, S_OK);
    EXPECT_EQ(ParamsOf(response.message), (Params{ { L"a", L"1" } }));
    EXPECT_TRUE(std::ranges::equal(response.message.Payload(), parameters.Payload()));
}

TEST_P(TransportTest, ARequestOutlivesItsMessageAndTheOtherWayRound)
{
    CServer server(Responds(200, {}, "a=1"));
    for (const bool connectsAnew : { false, true })
    {
        Message message = Connect(server.URL());
        Request sent = Open(*message);
        Request unsent = Open(*message);
        ASSERT_EQ(SendOn(*message, sent), S_OK);
        if (connectsAnew)
        {
            ASSERT_EQ(message->Connect(Address(Wide(server.URL())), nullptr, nullptr, nullptr, 5, 5, false, false), S_OK);
            CVoBinaryDataParser response;
            EXPECT_EQ(FAILED(message->ReadResponse(sent, response, Response::Parameters, nullptr, nullptr)),
                      GetParam().responseWaitsAtConnection);
            EXPECT_EQ(SendOn(*message, unsent), E_INVALIDARG) << "a request of the earlier connection";
            unsent = Open(*message);
            EXPECT_EQ(SendOn(*Connect(server.URL()), unsent), E_INVALIDARG) << "a request of another message";
        }
        message.reset();
        sent.reset();
        unsent.reset();
    }
}

TEST_P(TransportTest, CallsBackWhenTheBodyHasBeenSentAndMayBeReleasedThen)
{
    CServer server(&Echo);
    struct CDropping : CVoHTTPMessage::CallBack
    {
        HRESULT OnRequestSent() noexcept override { return ++calls, request.reset(), message.reset(), S_OK; }
        std::atomic<int> calls{ 0 };
        std::shared_ptr<CVoHTTPMessage> message;
        Request request;
    } dropping;
    const auto message = Connect(server.URL());
    EXPECT_EQ(message->SetCallBack(&dropping), S_OK);
    EXPECT_EQ(message->SetUserContext(0), S_OK);
    EXPECT_EQ(Send(*message, MakeMessage({ { L"p", L"q" } })).result, S_OK);
    EXPECT_EQ(dropping.calls, 0) << "it was taken away";

    dropping.message = Connect(server.URL());
    dropping.request = Open(*dropping.message);
    EXPECT_EQ(dropping.message->SetCallBack(&dropping), S_OK);
    EXPECT_EQ(SendOn(*dropping.message, dropping.request, MakeMessage({ { L"p", L"q" } })), S_OK);
    EXPECT_GE(dropping.calls, 1);
    EXPECT_EQ(dropping.message, nullptr);
    EXPECT_EQ(server.RequestCount(), 2U);
}

TEST_P(TransportTest, ProgressIsVisibleToOtherThreads)
{
    if (!GetParam().receivesWhileSending)
        GTEST_SKIP() << "the response is received while it is read";
    std::promise<void> seen;
    CServer server([&](const Loopback::CRequest&, Loopback::CConnection& connection)
    {
        connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\na=1&");
        seen.get_future().wait_for(std::chrono::seconds(10));
        connection.Send("b=22");
    });
    const auto message = Connect(server.URL());
    const Request request = Open(*message);
    auto sending = std::async(std::launch::async, [&] { return SendOn(*message, request); });
    CVoHTTPMessage::CProgress progress;
    while (progress = request->GetProgress(),
           progress.received < 4 && sending.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
    {
    }
    EXPECT_EQ(progress.sent, 2U);
    EXPECT_EQ(progress.toSend, 2U);
    EXPECT_EQ(progress.received, 4U);
    EXPECT_EQ(progress.toReceive, 8U);
    seen.set_value();
    EXPECT_EQ(sending.get(), S_OK);
}

TEST_P(TransportTest, ConnectsAgainWithTheInterfacesThatOnlyTheMessageHolds)
{
    CServer server(&Echo);
    auto cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    auto proxies = VoMakeComObject<CFixedProxyStore>(L"");
    auto callback = VoMakeComObject<CScriptedAuthCallback>();
    IVoHTTPCookieStore* const cookieStore = cookies.Get();
    IVoHTTPProxyStore* const proxyStore = proxies.Get();
    IVoAuthenticationCallback* const authCallback = callback.Get();
    Message message;
    ASSERT_EQ(ConnectTo(Wide(server.URL()), { GetParam().kind, authCallback, proxyStore, cookieStore }, message), S_OK);
    cookies.Reset();
    proxies.Reset();
    callback.Reset();
    ASSERT_EQ(message->Connect(Address(Wide(server.URL())), authCallback, proxyStore, cookieStore, 10, 20, false, false), S_OK);
    EXPECT_EQ(Send(*message, {}).result, S_OK);
}

TEST_P(TransportTest, AnAddressWithoutAHostIsRefusedAndClosesTheConnection)
{
    CServer server(&Echo);
    const auto message = Connect(server.URL());
    EXPECT_EQ(message->Connect(CServerAddressData(), nullptr, nullptr, nullptr, 5, 5, false, false), E_INVALIDARG);
    Request request;
    EXPECT_EQ(message->OpenRequest(request), HResultFromWin32(ERROR_NOT_CONNECTED));
}
} // namespace
