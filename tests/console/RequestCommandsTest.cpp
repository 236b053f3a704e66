// send and get with a server of this test program, and demo.
#include "ConsoleProcess.h"

#include <LoopbackServer.h>
#include <support/HTTPSupport.h>
#include <support/TestMain.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <mutex>

namespace
{
using nlohmann::json;
using ::testing::HasSubstr;
using TestSupport::Wide;

constexpr const char* kMessageType = "application/octet-stream; charset=UTF-8";

// Responds by path: /echo with the body, /reply with the message "b=2&&bytes", /secret with 401 without the right credentials,
// /cookie with a Set-Cookie, /missing with 404, any other path with the target. Keeps the requests.
class CServer
{
public:
    CServer() : m_server([this](const auto& request, auto& connection) { Answer(request, connection); }) {}

    [[nodiscard]] std::string URL(const std::string& target) const { return m_server.URL(target); }
    std::vector<Loopback::CRequest> TakeRequests()
    {
        const std::lock_guard lock(m_lock);
        return std::exchange(m_requests, {});
    }

private:
    void Answer(const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        {
            const std::lock_guard lock(m_lock);
            m_requests.push_back(request);
        }
        const std::string_view path = request.Path();
        if (path == "/echo")
            connection.SendResponse(200, { { "Content-Type", kMessageType } }, request.body);
        else if (path == "/reply")
            connection.SendResponse(200, { { "Content-Type", kMessageType } }, "b=2&\xC3\xBC=3&&bytes\n");
        else if (path == "/cookie")
            connection.SendResponse(200, { { "Set-Cookie", "id=7; Path=/" } }, "");
        else if (path == "/missing")
            connection.SendResponse(404, {}, "not here");
        else if (path == "/secret" && request.Header("Authorization") != "Basic YW5uOnMzY3JldA==")
            connection.SendResponse(401, { { "WWW-Authenticate", "Basic realm=\"test\"" } }, "");
        else
            connection.SendResponse(200, {}, request.target);
    }

    std::mutex m_lock;
    std::vector<Loopback::CRequest> m_requests;
    Loopback::CLoopbackServer m_server;
};

class ConsoleRequests : public testing::Test
{
protected:
    static CConsoleResult Run(std::vector<std::string> arguments, std::string_view input = {})
    {
        static CConsoleBatch s_batch;
        if (std::ranges::find(arguments, "--engine") == arguments.end())
            arguments.insert(arguments.end(), { "--engine", "curl" });
        arguments.emplace_back("--no-proxy");
        return s_batch.Run(arguments, input);
    }
    [[nodiscard]] std::string File(const wchar_t* name) const { return Utf8((m_folder / name).wstring()); }
    [[nodiscard]] std::string Read(const wchar_t* name) const { return TestSupport::ReadTestFile(m_folder / name); }

    const std::filesystem::path m_folder = TestSupport::MakeTestFolder(L"requests");
    CServer m_server;
};

TEST_F(ConsoleRequests, EachKindSendsItsBody)
{
    for (const auto& [kind, contentType, body] :
         { std::tuple("raw", kMessageType, "a=1&b=x$&y&&"),
           { "form", "application/x-www-form-urlencoded; charset=UTF-8", "a=1&b=x%26y" },
           { "multipart", "multipart/form-data; charset=UTF-8; boundary=", "Content-Disposition: form-data; name=\"b\"" },
           { "empty", "", "" } })
    {
        const CConsoleResult result = Run({ "send", m_server.URL("/reply"), "-p", "a=1", "-p", "b=x&y", "--kind", kind });
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.out, "b=2\n\xC3\xBC=3\nbytes\n");
        const Loopback::CRequest request = m_server.TakeRequests().at(0);
        EXPECT_EQ(request.method, "POST");
        const std::string type(request.Header("Content-Type"));
        const bool isWhole = !std::string_view(contentType).ends_with('='); // a boundary is random
        EXPECT_TRUE(isWhole ? type == contentType : type.starts_with(contentType)) << type;
        EXPECT_TRUE(isWhole ? request.body == body : request.body.find(body) != std::string::npos) << request.body;
    }
    const auto fails = [this](std::vector<std::string> options, const char* error)
    {
        options.insert(options.begin(), { "send", m_server.URL("/reply"), "--kind" });
        const CConsoleResult result = Run(options, "xyz");
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_TRUE(result.err.starts_with(std::string("voutils: ") + error + "\n")) << result.err;
    };
    fails({ "signed" }, "0x80070057 Invalid parameter. (--kind signed needs --key)");
    fails({ "form", "--payload", "-" }, "0x80004001 Not implemented. (only --kind raw and multipart send a --payload)");
    EXPECT_TRUE(m_server.TakeRequests().empty());
}

TEST_F(ConsoleRequests, JsonHasAllKeysOfAnExchange)
{
    json answer =
        Run({ "send", m_server.URL("/echo"), "-p", "a=1", "--payload", "-", "--repeat", "3", "--json" }, "xyz").Json();
    EXPECT_EQ(answer["seconds"].size(), 3U);
    answer.erase("seconds");
    const json exchange = answer.at("exchange");
    answer.erase("exchange");
    EXPECT_EQ(answer,
              json::parse(R"({ "result": "0x00000000", "engine": "curl", "params": [["a", "1"]], "payloadBase64": "eHl6",
                                       "localAddress": "127.0.0.1", "status": 200, "retried": false, "cookie": "" })"));
    EXPECT_TRUE(exchange.at("chain").empty());
    const json attempt = exchange.at("attempts").at(0);
    EXPECT_EQ(attempt.at("remoteAddress"), "127.0.0.1");
    EXPECT_TRUE(attempt.at("times").at("tls").is_null());
    EXPECT_GT(attempt.at("times").at("total"), 0);
    EXPECT_EQ(attempt.at("responses").at(0).at("status"), 200);
    EXPECT_EQ(attempt.at("responses").at(0).at("headers").at(0),
              json::parse(R"(["Content-Type", "application/octet-stream; charset=UTF-8"])"));
    // All requests of a connected message use one connection.
    EXPECT_EQ(m_server.TakeRequests().at(2).number, 3U);
}

TEST_F(ConsoleRequests, SeveralMessagesTravelInOneExchange)
{
    const std::string messages = R"([{"params":[["a","1"]],"payloadBase64":"eHl6"},{"params":[]},{"payloadBase64":""}])";
    const json answer = Run({ "send", m_server.URL("/echo"), "--messages", "-", "--json" }, messages).Json();
    EXPECT_EQ(answer["responses"], json::parse(R"([{"params":[["a","1"]],"payloadBase64":"eHl6"},
                                                   {"params":[],"payloadBase64":""},{"params":[],"payloadBase64":""}])"));
    EXPECT_EQ(m_server.TakeRequests().size(), 1U);
    for (const char* const malformed : { "", "[]", "[1]", R"([{"params":[["a"]]}])", R"([{"payloadBase64":"@"}])" })
        EXPECT_EQ(Run({ "send", m_server.URL("/echo"), "--messages", "-" }, malformed).exitCode, 2) << malformed;
    EXPECT_TRUE(m_server.TakeRequests().empty());
}

TEST_F(ConsoleRequests, GetPutsParametersInTheQuery)
{
    EXPECT_EQ(Run({ "get", m_server.URL("/list?x=1"), "-p", "a b=\xC3\xBC&" }).out, "/list?x=1&a%20b=%C3%BC%26");
    EXPECT_EQ(Run({ "get", m_server.URL("/reply"), "--response", "params" }).out, "b=2\n\xC3\xBC=3\nbytes\n");
}

TEST_F(ConsoleRequests, OutputGoesToItsFileOnlyAfterSuccess)
{
    const CConsoleResult missing = Run({ "get", m_server.URL("/missing"), "-o", File(L"out") });
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_THAT(missing.err, testing::ContainsRegex("^voutils: 0x80004005 .+\nvoutils: .*404")) << "people want the status";
    EXPECT_FALSE(std::filesystem::exists(m_folder / L"out"));
    const CConsoleResult sent = Run({ "send", m_server.URL("/reply"), "-o", File(L"out") });
    EXPECT_EQ(sent.out, "b=2\n\xC3\xBC=3\n");
    EXPECT_EQ(Read(L"out"), "bytes\n");
    const json failed = Run({ "get", m_server.URL("/missing"), "-o", File(L"out"), "--json" }).Json();
    EXPECT_EQ(failed["result"], "0x80004005");
    EXPECT_EQ(failed["status"], 404);
    EXPECT_EQ(BytesOf(failed["errorBodyBase64"]), "not here");
    EXPECT_EQ(Read(L"out"), "bytes\n");
}

TEST_F(ConsoleRequests, NothingIsSentIfTheOutputFileCannotBeWritten)
{
    std::filesystem::create_directory(m_folder / L"folder");
    TestSupport::WriteTestFile(m_folder / L"read-only", "old");
    std::filesystem::permissions(m_folder / L"read-only", std::filesystem::perms::owner_read);
    for (const char* const option : { "-o", "--cookies" })
        for (const wchar_t* const name : { L"no-folder/out", L"folder", L"read-only" })
        {
            const CConsoleResult result = Run({ "get", m_server.URL("/x"), option, File(name) });
            EXPECT_EQ(result.exitCode, 1) << File(name);
            EXPECT_THAT(result.err, HasSubstr(File(name)));
        }
    EXPECT_EQ(Run({ "get", m_server.URL("/x"), "-o", "-", "--json" }).exitCode, 2);
    EXPECT_TRUE(m_server.TakeRequests().empty());
    EXPECT_EQ(Read(L"read-only"), "old");
    std::filesystem::permissions(m_folder / L"read-only", std::filesystem::perms::owner_all);
}

TEST_F(ConsoleRequests, CredentialsAreGivenOnceAndThenDeclined)
{
    const std::string url = m_server.URL("/secret");
    EXPECT_EQ(Run({ "get", url, "--auth", "ann:s3cret", "--repeat", "2" }).exitCode, 0);
    m_server.TakeRequests();
    const CConsoleResult wrong = Run({ "get", url, "--auth", "ann:wr0ng", "--json" });
    EXPECT_EQ(wrong.Json()["result"], "0x800704C7");
    EXPECT_THAT(wrong.out + wrong.err, testing::Not(HasSubstr("wr0ng")));
    const auto requests = m_server.TakeRequests();
    EXPECT_EQ(std::ranges::count_if(requests, [](const auto& request) { return !request.Header("Authorization").empty(); }), 1);
    EXPECT_EQ(Run({ "get", url, "--json" }).Json()["result"], "0x800704C7");
    EXPECT_EQ(m_server.TakeRequests().size(), 1U);
    TestSupport::WriteTestFile(m_folder / L"login", "ann:s3cret\r\n");
    EXPECT_EQ(Run({ "get", url, "--auth", std::string("@").append(File(L"login")) }).exitCode, 0);
}

TEST_F(ConsoleRequests, CookiesAreLoadedFromTheFileAndSavedToIt)
{
    EXPECT_EQ(Run({ "get", m_server.URL("/cookie"), "--cookies", File(L"jar") }).exitCode, 0);
    const json second = Run({ "get", m_server.URL("/x"), "--cookies", File(L"jar"), "--json" }).Json();
    EXPECT_EQ(second["cookie"], "id=7");
    EXPECT_EQ(m_server.TakeRequests().at(1).Header("Cookie"), "id=7");
    TestSupport::WriteTestFile(m_folder / L"jar", "no cookie store");
    EXPECT_EQ(Run({ "get", m_server.URL("/x"), "--cookies", File(L"jar") }).exitCode, 1);
    EXPECT_EQ(Read(L"jar"), "no cookie store");
    EXPECT_TRUE(m_server.TakeRequests().empty());
}

TEST_F(ConsoleRequests, TheErrorLineNamesTheReason)
{
    const std::string port = std::to_string(Loopback::CLoopbackServer([](const auto&, auto&) {}).Port());
    for (const char* const engine : { "curl", "winhttp", "wininet" })
        for (const auto& [url, reason] :
             { std::pair("http://127.0.0.1:" + port, "could not connect to 127.0.0.1 port " + port + ": connection refused"),
               { "http://no-such-host.invalid/", "the address of no-such-host.invalid could not be found" },
               { m_server.URL("/missing"), "has the status 404" } })
        {
            const json answer = Run({ "get", url, "--engine", engine, "--json" }).Json();
            EXPECT_THAT(answer["reason"].get<std::string>(), HasSubstr(reason)) << engine;
            EXPECT_FALSE(answer["exchange"]["chain"].empty());
            EXPECT_THAT(Run({ "get", url, "--engine", engine }).err,
                        testing::ContainsRegex("^voutils: " + answer["result"].get<std::string>() + " .+: .*" + reason));
        }
}

TEST_F(ConsoleRequests, AUrlWithoutAServerIsRefusedWithoutShowingItsPassword)
{
    const CConsoleResult result = Run({ "get", "http://ann:s3cret@/a" });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, testing::MatchesRegex("voutils: 0x80070057 .+ .URL is no server's address: .+HOST.+\\n"));
    EXPECT_THAT(result.err + result.out, testing::Not(HasSubstr("s3cret")));
}

TEST_F(ConsoleRequests, WhatServersSendCannotCommandATerminal)
{
    // An escape sequence, a control of the second set (U+009B) and a mark that reverses text (U+202E).
    const std::string hostile = "\x1B[31m\xC2\x9B\xE2\x80\xAE";
    Loopback::CLoopbackServer server([&](const auto&, Loopback::CConnection& connection)
    { connection.Send("HTTP/1.1 404 No" + hostile + "\r\nX-A: " + hostile + "\r\nContent-Length: 0\r\n\r\n"); });
    for (const char* const option : { "--json", "--quiet" })
    {
        const CConsoleResult result = Run({ "get", server.URL("/"), option });
        EXPECT_EQ(result.exitCode, 1);
        for (const char* const raw : { "\x1B", "\x9B", "\xAE" })
            EXPECT_THAT(result.out + result.err, testing::Not(HasSubstr(raw)));
    }
}

TEST(ConsoleInterrupt, CancelsTheRequestWhateverItWaitsFor)
{
    for (const auto& [label, engine, status] : { std::tuple("curl waits for the response", L"curl", 0),
                                                 { "curl waits to retry", L"curl", 503 },
                                                 { "curl waits for the rest of the body", L"curl", 200 },
                                                 { "wininet waits for its probe", L"wininet", 0 } })
    {
        std::promise<void> asked;
        Loopback::CLoopbackServer server([&, code = status](const auto&, Loopback::CConnection& connection)
        {
            if (code == 200)
            {
                connection.SendResponseHead(code, {}, 100);
                connection.Send("begin");
            }
            else if (code != 0)
                connection.SendResponse(code, { { "Retry-After", "20" } });
            asked.set_value();
            if (code != 503)
                connection.WaitForPeerClose(std::chrono::hours(1));
        });
        const std::filesystem::path folder = TestSupport::MakeTestFolder(L"interrupt");
        const std::filesystem::path output = folder / L"out";
        CConsoleProcess process({ L"get", Wide(server.URL("/held")), L"--engine", engine, L"--no-proxy", L"--retry", L"-o",
                                  output.wstring(), status == 200 ? L"--quiet" : L"--json" });
        asked.get_future().wait();
        process.Interrupt(server.URL("/held"));
        const CConsoleResult result = process.Finish();
        EXPECT_EQ(result.exitCode, 1) << label;
        EXPECT_TRUE(status == 200 || result.Json()["result"] == "0x800704C7") << label;
        EXPECT_THAT(result.err, testing::MatchesRegex("voutils: 0x800704C7 .+\n")) << label;
        EXPECT_TRUE(std::filesystem::is_empty(folder)) << label;
    }
}

TEST(ConsoleDemo, EveryRowIsRight)
{
    const CConsoleResult demo = RunConsoleProcess({ L"demo", L"--json" });
    EXPECT_EQ(demo.exitCode, 0) << demo.out << demo.err;
    const json answer = demo.Json();
    EXPECT_GE(answer["rows"].size(), 6U);
    for (const json& row : answer["rows"])
        EXPECT_EQ(row["right"], true) << row;
}
} // namespace
