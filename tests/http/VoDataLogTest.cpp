// The data log, as each transport writes it.
#include "http/TransportFixture.h"

#include <VoResponseSink.h>

#include <base/VoModuleInformation.h>
#include <base/VoUtils.h>

#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>

using namespace TestSupport;

namespace
{
class DataLog : public TransportTest
{
};
INSTANTIATE_TEST_SUITE_P(Kinds, DataLog, testing::ValuesIn(kTransports), &NameOf);

// The data log, redirected from "\\logdir" to a folder of the tests.
class CDataLog
{
public:
    CDataLog() = default;
    ~CDataLog() { CVoModuleInformation::Get().SetDebug(m_wasDebug); }
    CDataLog(const CDataLog&) = delete;
    CDataLog& operator=(const CDataLog&) = delete;

    // The records so far, each its header line and its data, with every digit of the time as 0.
    [[nodiscard]] std::vector<std::string> Records() const
    {
        const std::string rule = "\r\n\r\n----------------------------\r\n";
        const std::string bytes = ReadTestFile(m_file);
        std::vector<std::string> records;
        for (size_t at = bytes.find(rule); at != std::string::npos;)
        {
            const size_t begin = at + rule.size();
            at = bytes.find(rule, begin);
            records.push_back(bytes.substr(begin, at - begin));
            const size_t time = records.back().find("DateTime:");
            for (size_t i = 0; i < 32 && time != std::string::npos; ++i)
                if (char& character = records.back().at(time + i); std::isdigit(static_cast<unsigned char>(character)))
                    character = '0';
        }
        EXPECT_TRUE(bytes.empty() || bytes.starts_with(rule));
        return records;
    }

private:
    const bool m_wasDebug = CVoModuleInformation::Get().IsDebug();
    const std::filesystem::path m_file = MakeTestFolder(L"datalog") / L"data.log";
    const CCallHook<decltype(&::CreateDirectoryW)> m_folder{ "kernel32.dll", "CreateDirectoryW",
                                                             [](auto original, LPCWSTR path, auto security)
    { return path == std::wstring_view(L"\\logdir") ? TRUE : original(path, security); } };
    const CCallHook<decltype(&::CreateFileW)> m_redirect{ "kernel32.dll", "CreateFileW",
                                                          [this](auto original, LPCWSTR path, auto... others)
    {
        // "\logdir\2026_11_22__01_02_03.log"
        const bool isLog = std::wstring_view(path).starts_with(L"\\logdir\\");
        EXPECT_TRUE(!isLog || std::wstring_view(path).size() == 32) << testing::PrintToString(std::wstring(path));
        return original(isLog ? m_file.c_str() : path, others...);
    } };
};

TEST_P(DataLog, HoldsTheBytesOfBothDirectionsWhileTheModuleIsDebugged)
{
    CServer server(Responds(200, {}, "a=1"));
    const std::string body = "&&" + RandomBytes(100'000);
    const auto message = Connect(server.URL());
#ifdef NDEBUG
    EXPECT_FALSE(CVoModuleInformation::Get().IsDebug()) << "on in debug builds only";
#endif
    const CDataLog log;
    CVoModuleInformation::Get().SetDebug(false);
    EXPECT_EQ(Send(*message, MakeMessage({}, "off")).result, S_OK);
    EXPECT_TRUE(log.Records().empty());

    CVoModuleInformation::Get().SetDebug(true);
    EXPECT_EQ(Send(*message, MakeMessage({}, body.substr(2))).result, S_OK);
    const auto record = [&](const wchar_t* direction, std::string_view data)
    {
        const std::wstring header =
            VoFormat(L" Data is %ls, DateTime:0000.00.00 00:00:00.000    ThreadID:%X,This ptr :%llX, DataSize:%zu\r\n",
                     direction, ::GetCurrentThreadId(), reinterpret_cast<unsigned long long>(message.get()), data.size());
        return std::string(header.begin(), header.end()).append(data);
    };
    std::vector<std::string> expected{ record(L"Read", "a=1") };
    // WinINet takes a body in pieces of 32,000 bytes.
    for (size_t at = 0, piece = GetParam().kind == 0 ? 32'000 : body.size(); at < body.size(); at += piece)
        expected.push_back(record(L"Written", std::string_view(body).substr(at, piece)));
    std::vector<std::string> records = log.Records();
    std::string traced[2]; // libcurl's own records, sent and received
    std::erase_if(records, [&](const std::string& text)
    {
        if (!text.starts_with(" I/O type: "))
            return false;
        const std::string port =
            "[127.0.0.1]:" + std::to_string(server.Port()) + ", DateTime:0000.00.00 00:00:00.000    ThreadID:";
        EXPECT_TRUE(text.find(port) != std::string::npos || text.starts_with(" I/O type: Info - client:["))
            << text.substr(0, 200);
        for (const auto& [index, start] :
             { std::pair(0, " I/O type: Send data: [127.0.0.1]:"), { 1, " I/O type: Recv data: [" } })
            if (text.starts_with(start))
                traced[index] += text.substr(text.find("\r\n") + 2);
        return true;
    });
    EXPECT_TRUE(std::ranges::is_permutation(records, expected)) << testing::PrintToString(records);
    EXPECT_TRUE(traced[0] == (GetParam().kind == 2 ? body : ""));
    EXPECT_EQ(traced[1], GetParam().kind == 2 ? "a=1" : "");

    // A record that cannot be written is dropped.
    const CFailOnCall<decltype(&::WriteFile)> fail("kernel32.dll", "WriteFile", 1, FALSE, ERROR_DISK_FULL);
    EXPECT_EQ(Send(*message, MakeMessage({}, "x")).result, S_OK);
    EXPECT_GE(fail.Calls(), 2);
}

class CNoSink final : public IVoResponseSink
{
    HRESULT Write(std::span<const BYTE> /*bytes*/) noexcept override { return S_OK; }
    HRESULT Restart() noexcept override { return S_OK; }
};

// libcurl would write the headers there.
TEST_P(DataLog, LeavesTheErrorStreamAloneWhenItIsSwitchedOnForARequestThatIsOpen)
{
    CServer server(Responds(200, {}, std::string(100'000, 'x')));
    const auto message = Connect(server.URL());
    const Request request = Open(*message);
    CNoSink sink;
    request->SetResponseSink(&sink, Response::Binary);
    const CDataLog log;
    CVoModuleInformation::Get().SetDebug(true);
    testing::internal::CaptureStderr();
    EXPECT_EQ(SendOn(*message, request), S_OK);
    EXPECT_EQ(SendOn(*message, request), S_OK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    const Request logged = Open(*message);
    CVoModuleInformation::Get().SetDebug(false);
    const size_t records = log.Records().size();
    EXPECT_EQ(SendOn(*message, logged), S_OK);
    EXPECT_EQ(log.Records().size(), records) << "switched off, it ends at once";
}
} // namespace
