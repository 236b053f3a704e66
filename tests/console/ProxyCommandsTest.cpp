// The proxy options and the command proxy.
#include "ConsoleProcess.h"

#include <LoopbackServer.h>

#include <gtest/gtest.h>

#include <atomic>

namespace
{
CConsoleResult Batch(std::vector<std::string> arguments)
{
    static CConsoleBatch s_batch;
    arguments.emplace_back("--json");
    return s_batch.Run(arguments);
}

TEST(ConsoleProxy, PrintsTheProxyOfAUrl)
{
    // The last column: source, rule, how many steps were tried.
    const std::tuple<std::vector<std::string>, int, std::string, std::string> table[] = {
        { { "http://www.test/", "--proxy", "http=a:1;https=b:2" }, 0, "a:1", "manual http=a:1;https=b:2 0" },
        { { "https://www.test/", "--proxy", "http=a:1;https=b:2" }, 0, "b:2", "manual http=a:1;https=b:2 0" },
        { { "http://intranet/", "--proxy", "a:1", "--bypass", "<local>;*.test" }, 0, "", "bypass <local> 0" },
        { { "http://www.test/", "--proxy", "a:1", "--bypass", "<local>;*.test" }, 0, "", "bypass *.test 0" },
        { { "http://www.test/", "--no-proxy" }, 0, "", "none  0" },
        { { "http://www.test/", "--auto-detect" }, 0, "", "detection  1" }, // there is no script in the network
        { { "ftp://www.test/", "--no-proxy" }, 1, "", "" },
        { { "http://www.test/", "--proxy", "socks=s:1" }, 2, "", "" },
        { { "http://www.test/", "--proxy", "http = a:1" }, 0, "a:1", "manual http = a:1 0" },
        { { "http://www.test/", "--proxy", "a:1;https://b:2" }, 2, "", "" },
        { { "http://www.test/", "--pac", "file:///x.pac" }, 2, "", "" },
        { { "http://www.test/", "--proxy", "a:1", "--no-proxy" }, 2, "", "" },
        { { "http://www.test/", "--auto-detect", "--pac", "http://x/" }, 2, "", "" },
    };
    for (auto [arguments, exitCode, proxy, why] : table)
    {
        SCOPED_TRACE(testing::PrintToString(arguments));
        arguments.insert(arguments.begin(), "proxy");
        const CConsoleResult result = Batch(arguments);
        EXPECT_EQ(result.exitCode, exitCode);
        if (result.exitCode == 0)
        {
            EXPECT_EQ(result.Json()["proxy"], proxy);
            EXPECT_EQ(result.Json()["user"], "");
            EXPECT_EQ(result.Json()["source"].get<std::string>() + ' ' + result.Json()["rule"].get<std::string>() + ' ' +
                          std::to_string(result.Json()["tried"].size()),
                      why);
        }
    }
}

TEST(ConsoleProxy, SaysWhichOptionsATransportPassesOver)
{
    const std::tuple<const char*, std::vector<std::string>, const char*> table[] = {
        { "curl", { "--proxy", "127.0.0.1:1", "--bypass", "x" }, "" },
        { "winhttp", { "--auto-detect" }, "--auto-detect" },
        { "winhttp", { "--proxy", "127.0.0.1:1", "--bypass", "x" }, "--bypass" },
        { "winhttp-loopback", { "--pac", "http://127.0.0.1:1/" }, "--pac" },
        { "wininet", { "--pac", "http://127.0.0.1:1/" }, "--pac" },
    };
    for (const auto& [engine, options, ignored] : table)
    {
        SCOPED_TRACE(testing::Message() << engine << ' ' << ignored);
        std::vector<std::string> arguments{ "get", "http://127.0.0.1:1/", "--engine", engine };
        arguments.insert(arguments.end(), options.begin(), options.end());
        const std::string remarks = Batch(arguments).err;
        EXPECT_EQ(remarks.find(" has no effect: ") == std::string::npos, *ignored == 0) << remarks;
        EXPECT_NE(remarks.find(ignored), std::string::npos) << remarks;
    }
}

TEST(ConsoleProxy, RunsAScript)
{
    const Loopback::CLoopbackServer server([](const Loopback::CRequest&, Loopback::CConnection& connection)
    {
        connection.SendResponse(200, { { "Content-Type", "application/x-ns-proxy-autoconfig" } },
                                "function FindProxyForURL(url, host) { return 'PROXY p:8080'; }");
    });
    const CConsoleResult result = Batch({ "proxy", "http://www.test/", "--pac", server.URL("/proxy.pac?key=secret") });
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.Json()["proxy"], "p:8080");
    EXPECT_EQ(result.Json()["source"], "script");
    EXPECT_EQ(result.Json()["script"], server.URL("/proxy.pac"));
    EXPECT_EQ(result.Json()["tried"].at(0)["result"], "0x00000000");
}

TEST(ConsoleProxy, SendsThroughAProxyAndKeepsItsCredentials)
{
    std::atomic<int> challenges{ 0 };
    const Loopback::CLoopbackServer proxy([&](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (request.Header("Proxy-Authorization") == "Basic dXNlcjpzZWNyZXQ=") // user:secret
            connection.SendResponse(200, {}, request.target);
        else
        {
            ++challenges;
            connection.SendResponse(407, { { "Proxy-Authenticate", "Basic realm=\"r\"" } });
        }
    });
    const std::string name = "127.0.0.1:" + std::to_string(proxy.Port());
    const std::vector<std::string> get{ "get", "http://www.test/x", "--engine", "curl", "--proxy", name };
    EXPECT_EQ(Batch(get).Json()["result"], "0x800704C7");
    EXPECT_EQ(Batch({ "proxy", "http://www.test/", "--proxy", name }).Json()["user"], "");

    std::vector<std::string> withCredentials = get;
    withCredentials.insert(withCredentials.end(), { "--proxy-auth", "user:secret" });
    EXPECT_EQ(Batch(withCredentials).Json()["result"], "0x00000000");
    // The same store serves the whole batch.
    EXPECT_EQ(Batch({ "proxy", "http://other.test/", "--proxy", name }).Json()["user"], "user");
    EXPECT_EQ(Batch(get).Json()["result"], "0x00000000");
    EXPECT_GE(challenges, 2);
}
} // namespace
