// The client for everyday use, over every transport.
#include "TransportFixture.h"
#include "support/KeyPairs.h"

#include <VoHTTPClient.h>
#include <VoResponseSink.h>

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <thread>

namespace
{
using namespace TestSupport;
using namespace std::chrono_literals;

class ClientTest : public TransportTest
{
protected:
    [[nodiscard]] CVoHTTPClientOptions Options() const
    {
        return { .transport = static_cast<EVoHTTPTransport>(GetParam().kind),
                 .credentials = nullptr,
                 .proxies = nullptr,
                 .cookies = CVoComPtr<IVoHTTPCookieStore>(m_cookies.Get()) };
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, ClientTest, testing::ValuesIn(kTransports), NameOf);

std::span<const BYTE> Bytes(std::string_view text)
{
    return { reinterpret_cast<const BYTE*>(text.data()), text.size() };
}

std::string PayloadOf(const CVoHTTPResponse& response)
{
    return { response.payload.begin(), response.payload.end() };
}

TEST_P(ClientTest, EachOperationSendsItsContentAndReadsTheResponse)
{
    CServer server(Responds(200, { { "X-A", "1" }, { "X-A", "2" } }, "b=2&&z"));
    CVoHTTPClient client(Wide(server.URL("/own?q=1")), Options());
    const CVoBinaryDataParser message = MakeMessage({ { L"a", L"1" } }, "xyz");
    const CVoBinaryDataParser form = MakeMessage({ { L"a", L"1 2" } });
    const CVoHTTPFile file{ .name = L"f.txt", .bytes = Bytes("xyz"), .contentType = L"text/plain" };
    const struct
    {
        CVoHTTPResponse response;
        const char* request; // a part of the method, the target and the body
        const char* payload = "z";
    } cases[] = {
        { client.Get(), "GET /own?q=1 ", "b=2&&z" },
        { client.Get(L"/other?x=y"), "GET /other?x=y ", "b=2&&z" },
        { client.Post({ { L"a", L"1" }, { L"b", L"&" } }, Bytes("xyz")), "POST /own?q=1 a=1&b=$&&&xyz" },
        { client.Post({}), "POST /own?q=1 &&" },
        { client.Post(message), "POST /own?q=1 a=1&&xyz" },
        { client.PostForm({ { L"a", L"1 2" } }), "POST /own?q=1 a=1%202" },
        { client.PostForm(form), "POST /own?q=1 a=1%202" },
        { client.PostSigned(form, kKnownPrivateKey, L"sig"), "a=1%202&sig=" },
        { client.PostFile({ { L"a", L"1" } }, file), "filename=\"f.txt\"\r\nContent-Type: text/plain\r\n" },
        { client.PostFile(form, file), "\r\n\r\nxyz\r\n" },
    };
    const std::vector<Loopback::CRequest> requests = server.Requests();
    ASSERT_EQ(requests.size(), std::size(cases));
    for (size_t i = 0; i < requests.size(); ++i)
    {
        const CVoHTTPResponse& response = cases[i].response;
        SCOPED_TRACE(cases[i].request);
        EXPECT_EQ(response.result, S_OK);
        EXPECT_THAT(requests[i].method + ' ' + requests[i].target + ' ' + requests[i].body,
                    testing::HasSubstr(cases[i].request));
        EXPECT_EQ(PayloadOf(response), cases[i].payload);
        EXPECT_EQ(response.parameters.ParamExists(L"b"), requests[i].method == "POST");
        EXPECT_EQ(response.statusCode, 200U);
        EXPECT_EQ(std::ranges::count(response.headers, L"X-A", &CVoHTTPHeader::name), 2);
        EXPECT_TRUE(response.exchange.attempts.at(0).times.total);
        EXPECT_TRUE(response.reason.empty() && response.text.empty() && response.exchange.chain.empty());
    }
    EXPECT_EQ(server.ConnectionCount(), 1U);

    CServer echo(&Echo);
    const CVoHTTPResponse several =
        CVoHTTPClient(Wide(echo.URL()), Options()).PostMultiple(std::vector{ MakeMessage({}, "x"), MakeMessage({}, "y") });
    ASSERT_EQ(several.messages.size(), 2U);
    EXPECT_EQ(TestSupport::PayloadOf(several.messages[1]), "y");
}

TEST_P(ClientTest, FailuresAreExplained)
{
    CServer missing(Responds(404, {}, "not here"));
    for (const auto& [url, status, body, reason] :
         { std::tuple(missing.URL(), 404U, "not here", L"404"),
           { "http://127.0.0.1:" + std::to_string(ClosedPort()), 0U, "", L"could not connect to " } })
    {
        const CVoHTTPResponse response = CVoHTTPClient(Wide(url), Options()).Post({});
        EXPECT_TRUE(FAILED(response.result) && (status == 0 || response.result == GetParam().unexpectedStatus));
        EXPECT_EQ(response.statusCode, status);
        EXPECT_EQ(std::string(response.errorBody.begin(), response.errorBody.end()), body);
        EXPECT_TRUE(response.payload.empty());
        EXPECT_EQ(response.headers.empty(), status == 0);
        EXPECT_NE(response.reason.find(reason), std::wstring::npos) << testing::PrintToString(response.reason);
        EXPECT_EQ(response.exchange.chain.back().function, std::wstring_view(L"CVoHTTPClient::Run"));
    }
}

TEST_P(ClientTest, GetsIntoASinkAndIntoAFile)
{
    const std::string bytes = RandomBytes(100'000);
    CServer server([&](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        connection.SendResponseHead(200, {}, bytes.size());
        connection.Send(std::string_view(bytes).substr(0, request.Path() == "/short" ? 50'000 : bytes.size()));
        connection.CloseNow();
    });
    const std::filesystem::path folder = MakeTestFolder(L"client");
    const std::wstring path = folder / L"file";
    CVoHTTPClient client(Wide(server.URL()), Options());
    const CVoHTTPResponse got = client.GetToFile(L"/whole", path);
    EXPECT_TRUE(got.IsOk() && got.payload.empty());
    EXPECT_TRUE(ReadTestFile(path) == bytes);
    const CVoHTTPResponse failed = client.GetToFile(L"/short", path);
    EXPECT_FALSE(failed.IsOk());
    EXPECT_NE(failed.reason.find(L"broke off"), std::wstring::npos);
    EXPECT_TRUE(ReadTestFile(path) == bytes) << "the old file is unchanged";
    EXPECT_EQ(client.GetToFile(L"/whole", (folder / L"no folder" / L"x").wstring()).reason, L"the file could not be written");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1) << "no half-written file";
    CVoFileSink sink; // that was not opened
    EXPECT_EQ(client.Get(L"/whole", sink).result, E_UNEXPECTED);
    EXPECT_TRUE(client.Get(L"/whole").IsOk());
}

TEST_P(ClientTest, WrongArgumentsSendNothing)
{
    CServer server(&Echo);
    const std::wstring url = Wide(server.URL());
    CVoHTTPClientOptions noTime = Options();
    noTime.requestTimeout = 0s;
    CVoHTTPClient client(url, Options());
    const std::tuple<const char*, CVoHTTPResponse, HRESULT> cases[] = {
        { "another scheme", CVoHTTPClient(L"ftp://host/", Options()).Post({}), E_INVALIDARG },
        { "a time-out of nothing", CVoHTTPClient(url, noTime).Get(), E_INVALIDARG },
        { "a path without a slash", client.Get(L"path"), E_INVALIDARG },
        { "a file without a name", client.PostFile({}, { .name = L"", .bytes = Bytes("x") }), E_INVALIDARG },
        { "two files", client.PostFile({ { L"FileName", L"a" } }, { .name = L"b", .bytes = {} }), E_INVALIDARG },
        { "a payload in a form", client.PostForm(MakeMessage({}, "x")), E_NOTIMPL },
    };
    for (const auto& [label, response, result] : cases)
        EXPECT_TRUE(response.result == result && !response.reason.empty()) << label;
    EXPECT_EQ(server.RequestCount(), 0U);
}

TEST_P(ClientTest, OperationsRunSideBySideAndTheirConnectionsAreUsedAgain)
{
    constexpr int kOperations = 4;
    std::atomic<int> waiting{ 0 };
    CEvent all(false, true);
    CServer server([&](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        // None comes to its end if one waits for another.
        const bool waits = request.target == "/together" && ++waiting < kOperations;
        EXPECT_TRUE(!waits || ::WaitForSingleObject(all.Handle(), 60'000) == WAIT_OBJECT_0);
        (void)all.Set();
        connection.SendResponse(200, {}, request.target);
    });
    CVoHTTPClient client(Wide(server.URL()), Options());
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kOperations; ++i)
            threads.emplace_back([&]
            {
                const CVoHTTPResponse response = client.Get(L"/together");
                EXPECT_EQ(PayloadOf(response), "/together")
                    << std::hex << response.result << testing::PrintToString(response.reason);
            });
    }
    for (int i = 0; i < kOperations; ++i)
        EXPECT_EQ(PayloadOf(client.Get(L"/later")), "/later");
    EXPECT_EQ(server.ConnectionCount(), size_t{ kOperations });
}

TEST_P(ClientTest, CancelAndDestructionEndWhatRuns)
{
    std::promise<void> asked[2];
    std::promise<void> release;
    CServer server([&, released = release.get_future().share()](const auto& request, Loopback::CConnection& connection)
    {
        if (request.target != "/later")
        {
            asked[request.target == "/destroyed"].set_value();
            released.wait();
        }
        connection.SendResponse(200, {}, request.target);
    });
    auto client = std::make_unique<CVoHTTPClient>(Wide(server.URL()), Options());
    const auto get = [&](const wchar_t* path)
    { return std::async(std::launch::async, [&client = *client, path] { return client.Get(path); }); };
    std::future<CVoHTTPResponse> cancelled = get(L"/cancelled");
    asked[0].get_future().wait();
    client->Cancel();
    client->Cancel();
    EXPECT_EQ(PayloadOf(client->Get(L"/later")), "/later");
    std::future<CVoHTTPResponse> destroyed = get(L"/destroyed");
    asked[1].get_future().wait();
    client.reset();
    // Windows ends the calls itself; Wine's services wait for their server.
    if (!BehavesAsDocumented(GetParam()))
        release.set_value();
    for (std::future<CVoHTTPResponse>* const ended : { &cancelled, &destroyed })
    {
        const CVoHTTPResponse response = ended->get();
        EXPECT_EQ(response.result, kResultCancelled);
        EXPECT_EQ(response.reason, L"the request was cancelled");
    }
    if (BehavesAsDocumented(GetParam()))
        release.set_value();
}

TEST_P(ClientTest, CancelEndsAnOperationThatOpensItsConnection)
{
    CEvent searches(false, true);
    CEvent released(false, true);
    const auto proxies = VoMakeComObject<CFixedProxyStore>(L"");
    proxies->onQuery = [&]
    {
        (void)searches.Set();
        ::WaitForSingleObject(released.Handle(), 20'000);
    };
    CVoHTTPClientOptions options = Options();
    options.proxies = CVoComPtr<IVoHTTPProxyStore>(proxies.Get());
    auto client = std::make_unique<CVoHTTPClient>(L"http://127.0.0.1:9", std::move(options));
    std::future<CVoHTTPResponse> cancelled = std::async(std::launch::async, [&] { return client->Get(); });
    ASSERT_EQ(::WaitForSingleObject(searches.Handle(), 20'000), WAIT_OBJECT_0);
    client->Cancel();
    const CVoHTTPResponse response = cancelled.get();
    EXPECT_EQ(response.result, kResultCancelled);
    EXPECT_EQ(response.reason, L"the request was cancelled");
    (void)released.Set();
    // The thread that was left behind gives the store back.
    client.reset();
    while (proxies->AddRef(), proxies->Release() != 1)
        ::SwitchToThread();
}
} // namespace
