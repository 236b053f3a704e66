// The command doctor: exit codes, forms of output, wrong usage. What it finds is tested with the library.
#include "ConsoleProcess.h"

#include <support/HTTPSupport.h>
#include <support/TestMain.h>

#include <LoopbackServer.h>

#include <gtest/gtest.h>

namespace
{
using TestSupport::Wide;

void Serve(const Loopback::CRequest& request, Loopback::CConnection& connection)
{
    connection.SendResponse(request.Path() == "/404" ? 404 : 200, { { "Set-Cookie", "a=planted" } }, "x");
}

CConsoleResult Doctor(std::vector<std::wstring> arguments)
{
    arguments.insert(arguments.begin(), L"doctor");
    return RunConsoleProcess(arguments);
}

TEST(ConsoleDoctor, WritesEachFormAndTellsAFailureByTheExitCode)
{
    const Loopback::CLoopbackServer server(Serve);
    const std::wstring healthy = Wide(server.URL("/?planted"));
    const std::filesystem::path page = TestSupport::MakeTestFolder(L"doctor") / L"report.html";
    const CConsoleResult text = Doctor({ healthy, L"--no-proxy", L"--html", page.wstring() });
    EXPECT_EQ(text.exitCode, 0) << text.err;
    EXPECT_NE(text.out.find("The connection to 127.0.0.1 works."), std::string::npos) << text.out;
    EXPECT_EQ(text.out.find("planted"), std::string::npos);
    EXPECT_EQ(text.err, "");
    const std::string html = TestSupport::ReadTestFile(page);
    EXPECT_TRUE(html.starts_with("<!DOCTYPE html>") && html.ends_with("</html>\n"));
    EXPECT_EQ(html.find("planted"), std::string::npos);

    const CConsoleResult inJson = Doctor({ healthy, L"--no-proxy", L"--json", L"--engine", L"curl", L"--engine", L"winhttp" });
    EXPECT_EQ(inJson.exitCode, 0);
    EXPECT_EQ(inJson.Json()["verdict"], "ok");
    EXPECT_EQ(inJson.Json()["timelines"].size(), 2U);
    EXPECT_EQ(inJson.Json()["url"], server.URL("/?<7 characters>"));

    const CConsoleResult failed = Doctor({ Wide(server.URL("/404")), L"--no-proxy", L"--json", L"--method", L"post" });
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_EQ(failed.Json()["result"], "0x00000000");
    EXPECT_EQ(failed.Json()["failedCheck"], "http-wininet");
    EXPECT_EQ(failed.Json()["cause"], "status_4xx");

    const CConsoleResult malformed = Doctor({ L"ftp://h/?planted", L"--json" });
    EXPECT_EQ(malformed.exitCode, 1);
    EXPECT_EQ(malformed.Json()["cause"], "address_malformed");
    EXPECT_EQ(Doctor({ L"--causes" }).out.substr(0, 23), "# The connection doctor");
}

TEST(ConsoleDoctor, RefusesWrongUsageBeforeItProbes)
{
    const Loopback::CLoopbackServer server(Serve);
    const std::wstring url = Wide(server.URL());
    const std::vector<std::vector<std::wstring>> table{
        {},
        { L"" },
        { url, L"--engine", L"telnet" },
        { url, L"--engine", L"curl", L"--engine", L"curl" },
        { url, L"--timeout", L"0" },
        { url, L"--timeout", L"soon" },
        { url, L"--watch", L"0" },
        { url, L"--method", L"put" },
        { url, L"--html", L"C:\\no such folder\\report.html" },
        { url, L"--html", L"-" },
        { url, L"--proxy", L"socks=s:1" },
        { url, L"--auth", L"nobody" },
        { url, L"--retry" },
    };
    for (const std::vector<std::wstring>& arguments : table)
    {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const CConsoleResult result = Doctor(arguments);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 2) << result.err; // the message and the hint
    }
    EXPECT_EQ(server.ConnectionCount(), 0U);
}
} // namespace
