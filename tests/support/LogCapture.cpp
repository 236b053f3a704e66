#include "LogCapture.h"

#include <base/VoUtils.h>

#include <cwctype>

using testing::AllOf;
using testing::Field;
using testing::Matcher;
using testing::Optional;

namespace TestSupport
{
namespace
{
constexpr size_t kTimeLength = 23; // "2026.11.21 08:03:53.970"

bool BeginsWithTime(std::wstring_view line)
{
    constexpr std::wstring_view kShape = L"dddd.dd.dd dd:dd:dd.ddd ";
    if (line.size() < kShape.size())
        return false;
    for (size_t i = 0; i < kShape.size(); ++i)
        if (kShape[i] == L'd' ? !std::iswdigit(line[i]) : line[i] != kShape[i])
            return false;
    return true;
}

// Takes what follows `marker` at the start of `text`, up to the next of the markers that may come behind it.
std::optional<std::wstring> TakeField(std::wstring_view& text, std::wstring_view marker,
                                      std::initializer_list<std::wstring_view> next)
{
    if (!text.starts_with(marker))
        return std::nullopt;
    text.remove_prefix(marker.size());
    size_t end = text.size();
    for (const std::wstring_view stop : next)
        end = std::min(end, text.find(stop));
    std::wstring value(text.substr(0, end));
    text.remove_prefix(end);
    return value;
}

CLogLine ParseLine(std::wstring_view line)
{
    CLogLine result;
    result.text = line;
    result.time = line.substr(0, kTimeLength);
    line.remove_prefix(kTimeLength);
    result.module = TakeField(line, L" Module=", { L" File=" }).value_or(L"");
    result.source = TakeField(line, L" File=", { L" Line=", L" Function=", L" ThreadID=" }).value_or(L"");
    if (const auto number = TakeField(line, L" Line=", { L" Function=", L" ThreadID=" }))
        result.line = std::stoi(*number);
    result.function = TakeField(line, L" Function=", { L" ThreadID=" }).value_or(L"");
    if (const auto id = TakeField(line, L" ThreadID=", { L" " }))
        result.threadId = std::stoi(*id);
    result.message = line.substr(std::min<size_t>(1, line.size()));
    return result;
}

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
    std::vector<CLogLine> lines;
    bool inHeader = false;
    for (size_t at = 0; at < text.size();)
    {
        const size_t end = std::min(text.find(L"\r\n", at), text.size());
        const std::wstring_view line = std::wstring_view(text).substr(at, end - at);
        at = end + 2;
        if (line == std::wstring(144, L'*'))
            inHeader = !inHeader;
        else if (BeginsWithTime(line))
            lines.push_back(ParseLine(line));
        else if (!inHeader && !lines.empty())
        {
            lines.back().text.append(L"\r\n").append(line);
            lines.back().message.append(L"\r\n").append(line);
        }
    }
    for (CLogLine& line : lines)
        line.code = CodeOf(line.message);
    return lines;
}

std::string ReadLogFile(const std::wstring& path)
{
    const HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return {};
    std::string bytes;
    char buffer[65536];
    for (DWORD read = 0; ::ReadFile(file, buffer, sizeof buffer, &read, nullptr) && read > 0;)
        bytes.append(buffer, read);
    ::CloseHandle(file);
    return bytes;
}

CLogCapture::CLogCapture() : m_wasOn(VoErrorLog().IsApplicationLogOn())
{
    // A small file cannot be cut within the scope, which would move what the capture points at.
    constexpr size_t kSmall = 4 * 1024 * 1024;
    if (ReadLogFile(VoErrorLog().LogFilePath()).size() > kSmall)
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
    const std::string bytes = ReadLogFile(VoErrorLog().LogFilePath());
    return ParseLog(std::string_view(bytes).substr(std::min(m_start, bytes.size())));
}

void CLogCapture::Clear()
{
    m_start = ReadLogFile(VoErrorLog().LogFilePath()).size();
}

Matcher<const CLogLine&> IsReport(std::wstring source, int line, std::wstring function, HRESULT code)
{
    return AllOf(Field("source", &CLogLine::source, std::move(source)), Field("line", &CLogLine::line, line),
                 IsReportBy(std::move(function), code));
}

Matcher<const CLogLine&> IsReportBy(std::wstring function, HRESULT code)
{
    return AllOf(Field("function", &CLogLine::function, std::move(function)), Field("code", &CLogLine::code, Optional(code)));
}

Matcher<const CLogLine&> IsMessage(std::wstring source, int line, Matcher<const std::wstring&> message)
{
    return AllOf(Field("source", &CLogLine::source, std::move(source)), Field("line", &CLogLine::line, line),
                 Field("function", &CLogLine::function, std::wstring()),
                 Field("message", &CLogLine::message, std::move(message)));
}
} // namespace TestSupport
