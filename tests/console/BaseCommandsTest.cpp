// The commands of the base utilities, most of them in one batch.
#include "ConsoleProcess.h"

#include <support/TestMain.h>

#include <gmock/gmock.h>

#include <filesystem>
#include <sstream>

namespace
{
using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using TestSupport::ReadTestFile;
using TestSupport::WriteTestFile;

class ConsoleCommands : public testing::Test
{
protected:
    static void SetUpTestSuite() { s_batch = std::make_unique<CConsoleBatch>(); }
    static void TearDownTestSuite()
    {
        EXPECT_EQ(s_batch->Finish(), 0);
        s_batch.reset();
    }

    static CConsoleResult Run(const std::vector<std::string>& arguments, std::string_view input = {})
    {
        return s_batch->Run(arguments, input);
    }

    [[nodiscard]] std::string File(const wchar_t* name) const { return Utf8((m_folder / name).wstring()); }

    const std::filesystem::path m_folder = TestSupport::MakeTestFolder(L"console");
    static inline std::unique_ptr<CConsoleBatch> s_batch;
};

TEST_F(ConsoleCommands, ResultsGoToStandardOutputUnchanged)
{
    const std::tuple<std::vector<std::string>, std::string, int, std::string> cases[] = {
        { { "encode", "hex" }, std::string("\x00\xFF\n", 3), 0, "00FF0A" },
        // The Base64 in JSON has no line break; the library's own text of a single byte has one.
        { { "encode", "base64" }, "x", 0, "eA=\r\n=" },
        { { "decode", "hex", "--json" }, "78", 0, "{\"result\":\"0x00000000\",\"bytesBase64\":\"eA==\"}\n" },
        { { "encode", "base64", "--json" }, "hello", 0, "{\"result\":\"0x00000000\",\"text\":\"aGVsbG8=\"}\n" },
        { { "decode", "base64" }, "aGVs\r\nbG8=", 0, "hello" },
        { { "params", "build", "-p", "a=1", "-p", "b=x&y$" }, "", 0, "a=1&b=x$&y$$&&" },
        { { "params", "build", "-p", "x=1", "--size-prefix" }, "", 0, std::string("\x05\0\0\0x=1&&", 9) },
        { { "params", "build", "-p", "x=1", "--skip-params", "--payload", "-" }, "bytes", 0, "bytes" },
        { { "params", "build", "-p", "t=a b-\xC3\xBC", "--urlencode", "--text" }, "", 0, "t=a%20b%2D%C3%BC\n" },
        { { "params", "build", "-p", "t=-", "--text" }, "from input", 0, "t=from input\n" },
        { { "params", "build", "--text", "-p", "t=-1", "-p", "=2", "-p", "eq=a=b" }, "", 0, "t=-1&=2&eq=a=b\n" },
        { { "time", "iso", "--offset=-60", "--ms", "-" }, "2024-02-29 12:00:00.250\r\n", 0, "2024-02-29T12:00:00.250-01:00\n" },
        { { "hash", "sha1" }, "abc", 0, "A9993E364706816ABA3E25717850C26C9CD0D89D\n" },
        { { "decode", "hex" }, "ABC", 1, "" },
        { { "params", "build", "-p", "a=1", "--payload", "no such file" }, "", 1, "" },
        { { "time", "parse", "2024-02-30T00:00:00Z" }, "", 1, "" },
    };
    for (const auto& [arguments, input, exitCode, out] : cases)
    {
        const CConsoleResult result = Run(arguments, input);
        SCOPED_TRACE(testing::PrintToString(arguments) + result.err);
        EXPECT_EQ(result.exitCode, exitCode);
        EXPECT_EQ(result.out, out);
        EXPECT_EQ(result.err.empty(), exitCode == 0);
    }
    // A failure names its code and text.
    const CConsoleResult result = Run({ "decode", "hex", "--json" }, "ABC");
    EXPECT_EQ(result.Json()["result"], "0x80070057");
    EXPECT_EQ("voutils: 0x80070057 " + result.Json()["error"].get<std::string>() + '\n', result.err);
    EXPECT_EQ(Run({ "decode", "hex" }, "ABC").err, result.err);
}

TEST_F(ConsoleCommands, WrongUsageWritesNothingToStandardOutput)
{
    const std::vector<std::vector<std::string>> cases{
        {},
        { "nonsense" },
        { "encode" },
        { "encode", "hex", "--line", "x" },
        { "params", "build", "--text", "--size-prefix" },
        { "params", "build", "-p", "a=-", "--payload", "-" },
        { "error", "12x" },
        { "time", "iso", "2023-02-29" },
        { "log", "write", "--code", "1", "--message", "x" },
        { "key", "new", "--private", "x", "--public", "X" },
        { "ini", "sign", "-", "--key", "x" },
        { "send", "http://h/", "--engine", "carrier-pigeon" },
        { "send", "http://h/", "--auth", "hunter2" },
        { "get", "http://h/", "--payload", "x" },
        { "send", "http://h/", "--engine", "curl", "--autt", "ann:hunter2" },
    };
    for (std::vector<std::string> arguments : cases)
    {
        arguments.emplace_back("--json");
        const CConsoleResult result = Run(arguments);
        SCOPED_TRACE(testing::PrintToString(arguments) + result.err);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, testing::ContainsRegex("^voutils: .+\nTry 'voutils.* --help'\\.\n"));
        EXPECT_THAT(result.err, testing::Not(HasSubstr("hunter2")));
    }
    EXPECT_THAT(Run({ "params", "nonsense" }).err, StartsWith("voutils: there is no command 'params nonsense'\n"));
    EXPECT_THAT(Run({ "--nonsense" }).err, StartsWith("voutils: the argument '--nonsense' was not expected\n"));
    EXPECT_THAT(Run({}).err, StartsWith("voutils: no command is named\n"));
    EXPECT_THAT(Run({ "params", "build", "-h" }).out, HasSubstr("--size-prefix"));
}

TEST_F(ConsoleCommands, ParseReadsWhatBuildWrites)
{
    const std::string payload("\x00&&\xFFpayload", 11);
    WriteTestFile(m_folder / L"\u00FCber.bin", payload);
    WriteTestFile(m_folder / L"text.txt", "\xEF\xBB\xBF"
                                          "line 1\nline 2\n");
    const CConsoleResult built = Run({ "params", "build", "-p", "n=@" + File(L"text.txt"), "-p", "smile=\xF0\x9F\x98\x80",
                                       "--payload", File(L"\u00FCber.bin") });
    ASSERT_EQ(built.exitCode, 0) << built.err;
    const json parsed = Run({ "params", "parse", "--json" }, built.out).Json();
    EXPECT_EQ(parsed["params"], json::parse(R"([["n","line 1\nline 2\n"],["smile","\ud83d\ude00"]])"));
    EXPECT_EQ(parsed["payloadBase64"], Base64Of(payload));

    const json form = Run({ "params", "form", "-p", "a=1", "--json" }).Json();
    const std::string boundary = form["boundary"];
    EXPECT_EQ(BytesOf(form["bodyBase64"]),
              "--" + boundary + "\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--" + boundary + "--");
}

TEST_F(ConsoleCommands, AFreshKeyPairSignsAndVerifies)
{
    const std::string privateKey = File(L"private.key");
    const std::string publicKey = File(L"public.key");
    const CConsoleResult made = Run({ "key", "new", "--private", privateKey, "--public", publicKey, "--bits", "1024" });
    ASSERT_EQ(made.exitCode, 0) << made.err;
    EXPECT_EQ(made.out, "");
    EXPECT_EQ(Run({ "key", "public", "--private", privateKey }).out, ReadTestFile(m_folder / L"public.key"));

    const CConsoleResult signature = Run({ "sign", "--hash", "sha256", "--key", privateKey }, "letter");
    EXPECT_EQ(signature.out.size(), 128U) << signature.err;
    WriteTestFile(m_folder / L"signature", signature.out);
    std::vector<std::string> verify{ "verify", "--hash", "sha256", "--key", publicKey, "--signature", File(L"signature") };
    EXPECT_EQ(Run(verify, "letter").out, "valid\n");
    const CConsoleResult forged = Run(verify, "Letter");
    EXPECT_EQ(forged.exitCode, 1);
    EXPECT_EQ(forged.out, "not valid\n");
    verify.emplace_back("--json");
    EXPECT_EQ(Run(verify, "Letter").Json()["result"], "0x00000000");

    // The same keys sign INI files.
    const std::filesystem::path path = m_folder / L"settings \u00E4.ini";
    const std::string file = Utf8(path.wstring());
    const std::string content = "; kept\n[A]\nx = \xC3\xA4 \n[Empty]\n";
    const std::string canonical = "[A]\r\nx=\xC3\xA4\r\n<EMPTY>";
    const std::vector<std::string> verifyIni{ "ini", "verify", file, "--key", publicKey };
    WriteTestFile(path, content);
    EXPECT_EQ(Run({ "ini", "canonical", "-" }, content).out, canonical);
    EXPECT_THAT(Run(verifyIni).err, StartsWith("voutils: 0x80070490 ")) << "not signed";
    EXPECT_EQ(Run({ "ini", "sign", file, "--key", publicKey }).exitCode, 1) << "a public key cannot sign";
    EXPECT_EQ(ReadTestFile(path), content);
    const CConsoleResult sign = Run({ "ini", "sign", file, "--key", privateKey, "--line", "100" });
    ASSERT_EQ(sign.exitCode, 0) << sign.err;
    EXPECT_EQ(sign.out, "");
    EXPECT_EQ(Run({ "ini", "canonical", file }).out, canonical);
    EXPECT_EQ(Run(verifyIni).out, "valid\n");
    WriteTestFile(path, ReadTestFile(path) + "[B]\ny=2\n");
    EXPECT_EQ(Run(verifyIni).exitCode, 1);
    EXPECT_EQ(Run(verifyIni).out, "not valid\n");
}

TEST_F(ConsoleCommands, AFailedCommandLeavesFilesUnchanged)
{
    const std::filesystem::path kept = m_folder / L"kept.key";
    WriteTestFile(kept, "old");
    const CConsoleResult result =
        Run({ "key", "new", "--private", Utf8(kept.wstring()), "--public", File(L"missing/public.key"), "--bits", "512" });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(ReadTestFile(kept), "old");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_folder), {}), 1);
}

TEST_F(ConsoleCommands, AddressPrintsThePartsOfAUrl)
{
    EXPECT_EQ(Run({ "address", "https://[::1]:8443/a/b?c=d", "--json" }).Json(), json::parse(R"({
        "result": "0x00000000", "host": "::1", "path": "/a/b", "query": "?c=d", "secure": true, "port": 8443,
        "authority": "[::1]:8443", "baseURL": "https://[::1]:8443", "pathURL": "https://[::1]:8443/a/b",
        "fullURL": "https://[::1]:8443/a/b?c=d", "objectName": "/a/b?c=d" })"));
    EXPECT_EQ(Run({ "address", "http://h/a?b", "--no-query", "--json" }).Json()["fullURL"], "http://h/a");
    EXPECT_EQ(Run({ "address", "ftp://h", "--json" }).Json()["result"], "0x80070057");
    EXPECT_EQ(Run({ "resolve", "192.168.1.2", "--json" }).Json(), json::parse(R"({
        "result": "0x00000000", "address": "192.168.1.2", "ipv6": false, "private": true })"));
}

TEST_F(ConsoleCommands, CookiesAreKeptForTheProcessAndInTheJar)
{
    const std::string jar = File(L"jar.txt");
    const CConsoleResult first = Run({ "cookies", "--jar", jar }, R"({"set":"a=1; Path=/","url":"http://h.test/"}
{"set":"s=2; Path=/; Secure","url":"https://h.test/"}
{"get":"http://h.test/x"}
{"get":"HTTPS://h.test/x"}
not JSON
{"set":"=","url":"http://h.test/"})");
    EXPECT_EQ(first.exitCode, 0);
    std::istringstream lines(first.out);
    std::vector<std::string> answers; // the cookies, or the result
    for (std::string line; std::getline(lines, line);)
        answers.push_back(json::parse(line).value("cookie", json::parse(line)["result"].get<std::string>()));
    EXPECT_THAT(answers, ElementsAre("0x00000000", "0x00000000", "a=1", "a=1; s=2", "0x80070057", "0x80070057"));

    const std::string get = "{\"get\":\"http://h.test/\"}";
    EXPECT_EQ(Run({ "cookies" }, get).Json()["cookie"], "a=1");
    EXPECT_EQ(Run({ "cookies" }, "{\"clear\":true}").Json()["result"], "0x00000000");
    EXPECT_EQ(Run({ "cookies" }, get).Json()["cookie"], "");
    EXPECT_EQ(Run({ "cookies", "--jar", jar }, get).Json()["cookie"], "a=1");
}

TEST_F(ConsoleCommands, BatchContinuesAfterAMalformedLine)
{
    for (const char* const line :
         { "", "nonsense", "[]", "{}", R"({"args":"encode"})", R"({"args":[1]})",
           R"({"args":["encode","hex"],"stdinBase64":"*"})", R"({"args":["encode","hex"],"stdinBase64":1})" })
    {
        const CConsoleResult result = s_batch->RunLine(line);
        EXPECT_EQ(result.exitCode, 2) << line;
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err, "");
    }
    EXPECT_EQ(s_batch->RunLine("{\"args\":[\"encode\",\"hex\"]}\r").exitCode, 0);
    EXPECT_EQ(Run({ "batch" }, R"({"args":["encode","hex"],"stdinBase64":"AA=="})").out,
              "{\"exit\":0,\"stdoutBase64\":\"MDA=\",\"stderr\":\"\"}\n");
}

TEST(ConsoleProcess, PassesBytesArgumentsAndExitCodesThrough)
{
    std::string bytes;
    for (int i = 0; i < 3'000'000; ++i)
        bytes += static_cast<char>(i * 7 + i / 251);
    const CConsoleResult large = RunConsoleProcess({ L"encode", L"base64" }, bytes);
    EXPECT_EQ(large.exitCode, 0);
    EXPECT_TRUE(large.out == Base64Of(bytes));

    const CConsoleResult text =
        RunConsoleProcess({ L"params", L"build", L"--text", L"-p", L"\u00FC \u20AC=\U0001F600 \"q\" \\" });
    EXPECT_EQ(text.out, "\xC3\xBC \xE2\x82\xAC=\xF0\x9F\x98\x80 \"q\" \\\n");
    EXPECT_EQ(RunConsoleProcess({ L"decode", L"hex" }, "ABC").exitCode, 1);
    EXPECT_EQ(RunConsoleProcess({ L"decode" }).exitCode, 2);
}

TEST(ConsoleProcess, LogIsWrittenWhereTheSettingsSay)
{
    const std::filesystem::path folder = TestSupport::MakeTestFolder(L"log");
    WriteTestFile(folder / L"ModuleSettings.ini",
                  "[DEBUG]\r\nDirectory=" + Utf8(folder.wstring()) + "\r\n[SETTINGS]\r\nHTTPEngine=1\r\n");
    const std::wstring settings = folder.wstring();

    const CConsoleResult path = RunConsoleProcess({ L"log", L"path", L"--settings-dir", settings });
    EXPECT_EQ(path.out, Utf8((folder / L"voutils.log").wstring()) + '\n');

    std::vector<std::wstring> write{ L"log",        L"write", L"--source", L"S",          L"--line",         L"7",
                                     L"--function", L"F",     L"--code",   L"0x80004005", L"--settings-dir", settings };
    EXPECT_EQ(RunConsoleProcess(write).exitCode, 0);
    EXPECT_FALSE(std::filesystem::exists(folder / L"voutils.log"));
    write.emplace_back(L"--log");
    const CConsoleResult written = RunConsoleProcess(write);
    EXPECT_EQ(written.exitCode, 0);
    EXPECT_EQ(written.err, path.out);
    EXPECT_THAT(ReadTestFile(folder / L"voutils.log"),
                testing::ContainsRegex(" File=S Line=7 Function=F ThreadID=.* Code=0x80004005\r\n"));

    // A folder has the log's name.
    std::filesystem::remove(folder / L"voutils.log");
    std::filesystem::create_directory(folder / L"voutils.log");
    EXPECT_THAT(RunConsoleProcess(write).err, testing::StartsWith("voutils: the log could not be written: 0x"));
}
} // namespace
