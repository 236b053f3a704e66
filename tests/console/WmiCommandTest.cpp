// The commands wmi and system.
#include "ConsoleProcess.h"

#include <gmock/gmock.h>

namespace
{
using nlohmann::json;

class ConsoleMachine : public testing::Test
{
protected:
    // Under Wine, WMI starts the desktop's helper program. If the console were the first to start it, the helper would keep the
    // console's streams open as long as this program lives.
    static void SetUpTestSuite() { static_cast<void>(::GetDesktopWindow()); }
    static CConsoleResult Run(const std::vector<std::string>& arguments, std::string_view input = {})
    {
        static CConsoleBatch s_batch;
        return s_batch.Run(arguments, input);
    }
};

constexpr const char* kOperatingSystem = "SELECT * FROM Win32_OperatingSystem";

TEST_F(ConsoleMachine, WmiPrintsOneLineARow)
{
    const CConsoleResult text = Run({ "wmi", kOperatingSystem, "__CLASS", "Primary", "LastBootUpTime" });
    EXPECT_EQ(text.exitCode, 0) << text.err;
    EXPECT_THAT(text.out, testing::MatchesRegex("Win32_OperatingSystem\tTRUE\t....-..-..T..:..:..\\S*\n"));
    const CConsoleResult rows =
        Run({ "wmi", "-", "__CLASS", "Primary", "--namespace", "ROOT\\CIMV2", "--json" }, kOperatingSystem);
    EXPECT_EQ(rows.Json()["rows"], json::array({ { "Win32_OperatingSystem", "TRUE" } }));
}

TEST_F(ConsoleMachine, WmiExplainsAFailure)
{
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        { { "wmi", kOperatingSystem, "Caption", "--namespace", "ROOT\\NoSuch" }, 1, "voutils: 0x8004100E " },
        { { "wmi", "SELEKT", "Caption" }, 1, "voutils: 0x80041017 " },
        { { "wmi", kOperatingSystem }, 2, "voutils: " },
        { { "wmi", "", "A" }, 2, "voutils: " },
    };
    for (const auto& [arguments, exitCode, message] : cases)
    {
        const CConsoleResult result = Run(arguments);
        EXPECT_EQ(result.exitCode, exitCode);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, testing::StartsWith(message));
    }
}

TEST_F(ConsoleMachine, SystemPrintsTheSystemCheck)
{
    const CConsoleResult result = RunConsoleProcess({ L"system", L"--json" });
    EXPECT_EQ(result.exitCode, 0);
    const json system = result.Json();
    for (const char* const key : { "result", "processors", "nt", "osClass", "frequency", "ticksPerMicrosecond", "vendorIntel",
                                   "family", "model", "stepping", "features" })
        EXPECT_TRUE(system.contains(key)) << key;
    EXPECT_GE(system["processors"].get<int>(), 1);
    EXPECT_THAT(system["features"].get<std::vector<std::string>>(), testing::Contains("SSE2")); // every 64-bit processor has it
}
} // namespace
