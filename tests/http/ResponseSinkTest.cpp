// Bodies of responses that go to a sink, over every transport.
#include "TransportFixture.h"
#include "VoBodyReceiver.h"
#include "support/Compress.h"
#include "support/MemoryMeter.h"

#include <VoResponseSink.h>

#include <gmock/gmock.h>

using namespace TestSupport;

namespace
{
// Keeps what it gets. What it does at a Write, and whether it restarts, is up to the test.
class CTextSink final : public IVoResponseSink
{
public:
    std::string text;
    std::function<HRESULT()> onWrite;
    HRESULT restartResult = S_OK;

    HRESULT Write(std::span<const BYTE> bytes) noexcept override
    {
        EXPECT_FALSE(bytes.empty());
        const HRESULT hr = onWrite ? onWrite() : S_OK;
        if (SUCCEEDED(hr))
            text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return hr;
    }
    HRESULT Restart() noexcept override
    {
        if (SUCCEEDED(restartResult))
            text.clear();
        return restartResult;
    }
};

class SinkTest : public TransportTest
{
protected:
    static constexpr HRESULT kDiskFull = HRESULT_FROM_WIN32(ERROR_DISK_FULL);

    // Sends one request whose response goes to the sink, and reads the response.
    static HRESULT SendInto(CVoHTTPMessage& message, const Request& request, IVoResponseSink& sink, CResponse& response,
                            Response kind = Response::Binary, bool allowRetry = false)
    {
        request->SetResponseSink(&sink, kind);
        HRESULT hr = message.SendMessage(request, {}, Kind::Raw, true, {}, {}, allowRetry, &response.send);
        if (SUCCEEDED(hr))
            hr = message.ReadResponse(request, response.message, kind, &response.isUtf8, &response.isEmpty);
        return hr;
    }
    static EVoFailure FailureOf(const Request& request)
    {
        CVoExchangeRecord record;
        EXPECT_EQ(request->GetExchangeRecord(record), S_OK);
        return record.attempts.empty() ? EVoFailure::None : record.attempts.back().failure;
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, SinkTest, testing::ValuesIn(kTransports), &NameOf);

TEST_P(SinkTest, GetsWhatTheReadingWouldHandOut)
{
    const std::string body = "a=1&b=$&$&x&&" + RandomBytes(100'000) + "&&";
    const std::tuple<const char*, Loopback::CHeaders, std::string> cases[] = {
        { "a known length", {}, body },
        { "chunks",
          { { "Transfer-Encoding", "chunked" } },
          "b\r\n" + body.substr(0, 11) + "\r\n1\r\n&\r\n1\r\n&\r\n0\r\n\r\n" },
        { "a coded body", { { "Content-Encoding", "gzip" } }, Compress(body, ECompression::Gzip) },
        { "no body", {}, "" },
    };
    for (const auto& [name, headers, wire] : cases)
        for (const Response kind : { Response::Binary, Response::Parameters })
        {
            SCOPED_TRACE(name);
            CServer server(Responds(200, headers, wire));
            const CResponse expected = SendTo(server.URL(), {}, Kind::Raw, false, kind);
            const auto message = Connect(server.URL());
            CTextSink sink;
            CResponse response;
            EXPECT_EQ(SendInto(*message, Open(*message), sink, response, kind), expected.result);
            EXPECT_TRUE(sink.text == PayloadOf(expected.message)) << sink.text.size();
            EXPECT_EQ(ParamsOf(response.message), ParamsOf(expected.message));
            EXPECT_EQ(response.isEmpty, expected.isEmpty);
            EXPECT_EQ(PayloadOf(response.message), "");
        }
}

TEST_P(SinkTest, AFailureEndsTheTransferWithoutAnotherAttempt)
{
    const std::string head = "HTTP/1.1 200 OK\r\n";
    const std::string gzip = Compress(RandomBytes(50'000), ECompression::Gzip);
    const auto coded = [&](const std::string& body) { return head + "Content-Encoding: gzip\r\n\r\n" + body; };
    struct
    {
        const char* name;
        std::string wire;
        HRESULT write;
        UINT64 limit;
        HRESULT expected; // S_OK: any failure
        EVoFailure failure;
    } const cases[] = {
        { "the sink fails", coded(gzip), kDiskFull, 0, kDiskFull, EVoFailure::Sink },
        { "the sink fails without a reason", coded(gzip), E_FAIL, 0, E_FAIL, EVoFailure::Sink },
        { "beyond the limit", coded(gzip), S_OK, 40'000, kErrorResponseLimit, EVoFailure::ResponseLimit },
        { "a length that is not reached", head + "Content-Length: 9\r\n\r\nabc", S_OK, 0, S_OK, EVoFailure::ResponseTruncated },
        { "two lengths", head + "Content-Length: 3\r\nContent-Length: 4\r\n\r\nabc", S_OK, 0, S_OK, EVoFailure::None },
        { "a coded stream that is cut off", coded(gzip.substr(0, 40'000)), S_OK, 0, E_FAIL, EVoFailure::None },
        { "a damaged stream", coded(std::string(gzip).replace(30'000, 9, 9, 'x')), S_OK, 0, E_FAIL, EVoFailure::None },
    };
    for (const auto& item : cases)
    {
        SCOPED_TRACE(item.name);
        CServer server(SendsAndCloses(item.wire));
        const auto message = Connect(server.URL(), 1);
        const Request request = Open(*message);
        request->SetResponseLimits({ .bodyBytes = item.limit });
        CTextSink sink;
        sink.onWrite = [&] { return item.write; };
        sink.restartResult = E_NOTIMPL;
        CResponse response;
        const HRESULT hr = SendInto(*message, request, sink, response, Response::Binary, true);
        EXPECT_TRUE(item.expected == S_OK ? FAILED(hr) : hr == item.expected) << hr;
        EXPECT_TRUE(item.failure == EVoFailure::None || FailureOf(request) == item.failure);
        EXPECT_LE(sink.text.size(), item.limit == 0 ? 50'000 : item.limit);
        EXPECT_TRUE(server.RequestCount() == 1 || sink.text.empty()) << "a body that has begun is not asked for again";
    }
}

TEST_P(SinkTest, OnlyTheBodyOfStatus200Comes)
{
    m_auth = VoMakeComObject<CScriptedAuthCallback>();
    m_auth->AnswerServer({ { L"ann", kPassword } });
    CServer server([asks = GetParam().asksCallback](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (request.Path() == "/")
            connection.SendResponse(302, { { "Location", "/b" } }, "moved");
        else if (request.Path() == "/404")
            connection.SendResponse(404, {}, "nothing");
        else if (!asks || Authenticate(request, connection))
            connection.SendResponse(200, {}, "right");
    });
    const auto message = Connect(server.URL());
    CTextSink sink;
    CResponse response;
    EXPECT_EQ(SendInto(*message, Open(*message), sink, response), S_OK);
    EXPECT_EQ(sink.text, "right");
    const auto missing = Connect(server.URL("/404"));
    EXPECT_EQ(SendInto(*missing, Open(*missing), sink, response), GetParam().unexpectedStatus);
    EXPECT_EQ(sink.text, "right");
}

TEST_P(SinkTest, ARetryBeginsTheBodyAgain)
{
    if (!GetParam().receivesWhileSending)
        GTEST_SKIP() << "the body is received while it is read, when there are no attempts any more";
    for (const HRESULT restart : { S_OK, E_NOTIMPL })
    {
        std::atomic<int> attempts = 0;
        CServer server([&](const auto& /*request*/, Loopback::CConnection& connection)
        {
            connection.SendResponseHead(200, {}, 10);
            connection.Send(attempts++ == 0 ? "wrong" : "0123456789");
            connection.CloseNow();
        });
        const auto message = Connect(server.URL());
        CTextSink sink;
        sink.restartResult = restart;
        CResponse response;
        EXPECT_EQ(SendInto(*message, Open(*message), sink, response, Response::Binary, true), FAILED(restart) ? E_FAIL : S_OK);
        EXPECT_EQ(sink.text, FAILED(restart) ? "wrong" : "0123456789");
        EXPECT_EQ(attempts, FAILED(restart) ? 1 : 2);
    }
}

TEST_P(SinkTest, CancelEndsTheTransferInItsMiddle)
{
    CServer server([&](const auto& /*request*/, Loopback::CConnection& connection)
    {
        connection.SendResponseHead(200, {}, 10);
        connection.Send("begin");
        connection.WaitForPeerClose(std::chrono::hours(1));
    });
    auto message = Connect(server.URL());
    const Request request = Open(*message);
    CTextSink sink;
    sink.onWrite = [&] { return request->Cancel(), S_OK; };
    CResponse response;
    EXPECT_EQ(SendInto(*message, request, sink, response), kResultCancelled);
    EXPECT_EQ(sink.text, "begin");
    EXPECT_EQ(FailureOf(request), EVoFailure::Cancelled);
}

TEST_P(SinkTest, TheReadingMustSuitTheSink)
{
    CServer server(Responds(200, {}, "a=1&&xyz"));
    const auto message = Connect(server.URL());
    const Request request = Open(*message);
    CTextSink sink;
    request->SetResponseSink(&sink);
    ASSERT_EQ(SendOn(*message, request), S_OK);
    CVoBinaryDataParser response;
    std::vector<CVoBinaryDataParser> responses;
    EXPECT_EQ(message->ReadResponse(request, response, Response::Parameters, nullptr, nullptr), E_INVALIDARG);
    EXPECT_EQ(message->ReadMultipleResponses(request, responses, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(message->ReadResponse(request, response, Response::Binary, nullptr, nullptr), S_OK);
    EXPECT_EQ(sink.text, "a=1&&xyz");
    // A sink that was taken away gets nothing more; the next send needs none.
    ASSERT_EQ(SendOn(*message, request), S_OK);
    request->SetResponseSink(nullptr);
    const HRESULT hr = message->ReadResponse(request, response, Response::Binary, nullptr, nullptr);
    EXPECT_EQ(hr, GetParam().receivesWhileSending ? S_OK : E_INVALIDARG);
    ASSERT_EQ(SendOn(*message, request), S_OK);
    EXPECT_EQ(message->ReadResponse(request, response, Response::Parameters, nullptr, nullptr), S_OK);
    EXPECT_EQ(PayloadOf(response), "xyz");
}

TEST_P(SinkTest, MemoryStaysFlat)
{
    constexpr size_t kPieces = 32;
    const std::string piece = RandomBytes(1 << 20);
    CServer server([&](const auto& /*request*/, Loopback::CConnection& connection)
    {
        connection.SendResponseHead(200, {}, kPieces * piece.size());
        for (size_t i = 0; i < kPieces && connection.Send(piece); ++i)
            ;
    });
    const auto message = Connect(server.URL());
    UINT64 asked = 0; // for pieces, over WinHTTP
    const CCallHook<decltype(&::WinHttpQueryDataAvailable)> query("winhttp.dll", "WinHttpQueryDataAvailable",
                                                                  [&](auto original, auto... arguments)
    { return ++asked, original(arguments...); });
    CTextSink sink;
    UINT64 length = 0;
    sink.onWrite = [&, written = UINT64{ 0 }]() mutable
    {
        EXPECT_TRUE(asked == 0 || asked == ++written) << "a piece was asked for before the sink had taken the last one";
        length += std::exchange(sink.text, {}).size();
        return S_OK;
    };
    CResponse response;
    {
        const CMemoryMeter meter;
        EXPECT_EQ(SendInto(*message, Open(*message), sink, response), S_OK);
        EXPECT_EQ(length + sink.text.size(), kPieces * piece.size());
        EXPECT_LT(meter.Peak(), 2 << 20);
    }
    // Without a sink, a body of known length is in memory once.
    const auto again = Connect(server.URL());
    const CMemoryMeter meter;
    EXPECT_EQ(Send(*again, {}, Kind::Raw, false, Response::Binary).result, S_OK);
    EXPECT_LT(meter.Peak(), static_cast<INT64>(kPieces * piece.size() * 11 / 10));
}

TEST(BodyReceiver, FindsThePayloadAsTheParserDoesAndJoinsBlocks)
{
    Message message;
    ASSERT_EQ(ConnectTo(L"http://localhost/", {}, message), S_OK);
    for (const std::string_view text : { "a=1&&x", "a=$&&&&", "a=$$&&&x", "&&", "a=1&", "a=$", "", "a=&$&&x&&y", "a=$$$&&&$" })
        for (size_t split = 0; split <= text.size(); ++split)
        {
            const auto* const bytes = reinterpret_cast<const BYTE*>(text.data());
            CVoBinaryDataParser parser;
            EXPECT_EQ(parser.Parse(static_cast<UINT32>(text.size()), bytes, false, true), text == "a=&$&&x&&y" ? E_FAIL : S_OK);
            CTextSink sink;
            CVoBodyReceiver body;
            body.SetSink(*message, sink, Response::Parameters);
            EXPECT_EQ(body.Take({ bytes, split }), S_OK);
            EXPECT_EQ(body.Take({ bytes + split, text.size() - split }), S_OK);
            EXPECT_EQ(std::string(body.Bytes().begin(), body.Bytes().end()) + sink.text, text);
            EXPECT_EQ(sink.text, text == "a=&$&&x&&y" ? "y" : PayloadOf(parser)) << text << ' ' << split;
        }
    const std::string large = RandomBytes(9'000'000);
    CVoBodyReceiver body;
    body.Expect(1'000);
    for (size_t at = 0; at < large.size(); at += 7'919)
        EXPECT_EQ(body.Take({ reinterpret_cast<const BYTE*>(large.data()) + at, std::min<size_t>(7'919, large.size() - at) }),
                  S_OK);
    EXPECT_TRUE(std::ranges::equal(body.TakeBytes(), std::span(reinterpret_cast<const BYTE*>(large.data()), large.size())));
    EXPECT_TRUE(body.Bytes().empty());
}
} // namespace
