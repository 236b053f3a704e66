// Captures the process's log for tests (LogCapture.h).
#include "LogCapture.h"

#include "TestMain.h"

#include <base/VoUtils.h>

#include <regex>

using testing::AllOf;
using testing::Field;
using testing::Matcher;
using testing::Optional;

namespace TestSupport
{
namespace
{
std::optional<HRESULT> CodeOf(const std::wstring& message)
{
    constexpr std::wstring_view kCode = L"Code=0x";
    if (!message.starts_with(kCode))
        return std::nullopt;
    return static_cast<HRESULT>(std::stoul(message.substr(kCode.size()), nullptr, 16));
}
} // namespace

void PrintTo(const CLogLine& line, std::ostream* stream)
{
    std::string text;
    *stream << (SUCCEEDED(VoStringToUTF8(line.text, text)) ? text : "(not UTF-16)");
}

std::vector<CLogLine> ParseLog(std::string_view bytes)
{
    std::wstring text;
    if (FAILED(VoUTF8ToString(bytes, text)))
    {
        ADD_FAILURE() << "the log is not UTF-8";
        return {};
    }
    // A line up to the blank in front of the message: the source, the line, the function and the thread.
    static const std::wregex kHead(L"\\d{4}\\.\\d\\d\\.\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}(?: Module=.*? File=(.*?))?"
                                   L"(?: Line=(-?\\d+))?(?: Function=(.*?))? ThreadID=(\\d+) ");
    std::vector<CLogLine> lines;
    bool inHeader = false;
    for (size_t at = 0; at < text.size();)
    {
        const size_t end = std::min(text.find(L"\r\n", at), text.size());
        const std::wstring_view line = std::wstring_view(text).substr(at, end - at);
        at = end + 2;
        if (line == std::wstring(144, L'*'))
            inHeader = !inHeader;
        else if (std::match_results<std::wstring_view::const_iterator> head;
                 std::regex_search(line.begin(), line.end(), head, kHead, std::regex_constants::match_continuous))
            lines.push_back(CLogLine{ .text = std::wstring(line),
                                      .source = head[1],
                                      .line = head[2].matched ? std::stoi(head[2]) : -1,
                                      .function = head[3],
                                      .threadId = std::stoi(head[4]),
                                      .message = head.suffix(),
                                      .code = CodeOf(head.suffix()) });
        else if (!inHeader && !lines.empty())
        {
            lines.back().text.append(L"\r\n").append(line);
            lines.back().message.append(L"\r\n").append(line);
        }
    }
    return lines;
}

CLogCapture::CLogCapture() : m_wasOn(VoErrorLog().IsApplicationLogOn())
{
    // A small file cannot be cut within the scope, which would move what the capture points at.
    constexpr size_t kSmall = 0x400000;
    if (ReadTestFile(VoErrorLog().LogFilePath()).size() > kSmall)
        ::DeleteFileW(VoErrorLog().LogFilePath().c_str());
    VoErrorLog().SetApplicationLog(true);
    Clear();
}

CLogCapture::~CLogCapture()
{
    VoErrorLog().SetApplicationLog(m_wasOn);
}

std::vector<CLogLine> CLogCapture::Lines() const
{
    const std::string bytes = ReadTestFile(VoErrorLog().LogFilePath());
    return ParseLog(std::string_view(bytes).substr(std::min(m_start, bytes.size())));
}

void CLogCapture::Clear()
{
    m_start = ReadTestFile(VoErrorLog().LogFilePath()).size();
}

bool TakeReport(CLogCapture& log, HRESULT code)
{
    const std::vector<CLogLine> lines = log.Lines();
    log.Clear();
    return std::ranges::any_of(lines, [=](const CLogLine& line) { return line.code == code; });
}

void ExpectNotLogged(const CLogCapture& log, std::wstring_view secret)
{
    EXPECT_FALSE(log.Lines().empty());
    for (const CLogLine& line : log.Lines())
        EXPECT_EQ(line.text.find(secret), std::wstring::npos);
}

Matcher<const CLogLine&> IsReport(const std::wstring& source, int line, const std::wstring& function, HRESULT code)
{
    return AllOf(Field("source", &CLogLine::source, source), Field("line", &CLogLine::line, line), IsReportBy(function, code));
}

Matcher<const CLogLine&> IsReportBy(const std::wstring& function, HRESULT code)
{
    return AllOf(Field("function", &CLogLine::function, function), Field("code", &CLogLine::code, Optional(code)));
}

Matcher<const CLogLine&> IsMessage(const std::wstring& source, int line, const Matcher<const std::wstring&>& message)
{
    return AllOf(Field("source", &CLogLine::source, source), Field("line", &CLogLine::line, line),
                 Field("function", &CLogLine::function, std::wstring()), Field("message", &CLogLine::message, message));
}
} // namespace TestSupport
