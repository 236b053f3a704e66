// The commands that ask the machine about itself.
#include "ConsoleProcess.h"

#include <gmock/gmock.h>

namespace
{
using nlohmann::json;
using ::testing::HasSubstr;

class ConsoleMachine : public testing::Test
{
protected:
    // Under Wine, WMI makes a process have a desktop. Its helper program, when the console were the first to need it, would
    // keep the console's streams open for as long as this program lives.
    static void SetUpTestSuite() { static_cast<void>(::GetDesktopWindow()); }
};

constexpr const char* kOperatingSystem = "SELECT * FROM Win32_OperatingSystem";

TEST_F(ConsoleMachine, WmiPrintsOneLineARow)
{
    CConsoleBatch batch;
    const CConsoleResult text = batch.Run({ "wmi", kOperatingSystem, "__CLASS", "Primary", "LastBootUpTime" });
    EXPECT_EQ(text.exitCode, 0) << text.err;
    EXPECT_THAT(text.out, testing::MatchesRegex("Win32_OperatingSystem\tTRUE\t....-..-..T..:..:..\\S*\n"));

    const CConsoleResult rows =
        batch.Run({ "wmi", "-", "__CLASS", "Primary", "--namespace", "ROOT\\CIMV2", "--json" }, kOperatingSystem);
    EXPECT_EQ(rows.Json()["rows"], json::array({ { "Win32_OperatingSystem", "TRUE" } }));

    const CConsoleResult none = batch.Run({ "wmi", "SELECT * FROM Win32_OperatingSystem WHERE Caption='none'", "Caption" });
    EXPECT_EQ(none.exitCode, 0);
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(batch.Finish(), 0);
}

TEST_F(ConsoleMachine, WmiSaysWhatIsWrong)
{
    CConsoleBatch batch;
    const CConsoleResult nowhere = batch.Run({ "wmi", kOperatingSystem, "Caption", "--namespace", "ROOT\\NoSuch", "--json" });
    EXPECT_EQ(nowhere.exitCode, 1);
    EXPECT_EQ(nowhere.Json()["result"], "0x8004100E");
    EXPECT_THAT(nowhere.Json()["error"].get<std::string>(), HasSubstr("namespace"));
    const CConsoleResult malformed = batch.Run({ "wmi", "SELEKT", "Caption" });
    EXPECT_EQ(malformed.exitCode, 1);
    EXPECT_THAT(malformed.err, testing::StartsWith("voutils: 0x80041017 "));
    const CConsoleResult misspelt = batch.Run({ "wmi", kOperatingSystem, "Captoin" });
    EXPECT_EQ(misspelt.exitCode, 1);
    EXPECT_THAT(misspelt.err, testing::StartsWith("voutils: 0x80041002 "));
    for (const std::vector<std::string>& arguments : { std::vector<std::string>{ "wmi" },
                                                       { "wmi", kOperatingSystem },
                                                       { "wmi", "", "A" },
                                                       { "wmi", kOperatingSystem, "" } })
    {
        const CConsoleResult result = batch.Run(arguments);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.out, "");
    }
    EXPECT_EQ(batch.Finish(), 0);
}

TEST_F(ConsoleMachine, SystemTellsWhatTheLibraryFindsOut)
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
