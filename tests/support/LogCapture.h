// The application's log as tests see it: switched on for a scope, with the lines that were appended.
//
//     CLogCapture log;
//     EXPECT_EQ(Decode(L"x", bytes), E_INVALIDARG);
//     EXPECT_THAT(log.Lines(), ElementsAre(IsReport(L"..\\source\\X", 12, L"X::Inner", E_INVALIDARG),
//                                          IsReport(L"..\\source\\X", 34, L"X::Decode", E_INVALIDARG)));
#pragma once

#include <base/VoErrorHandler.h>

#include <gmock/gmock.h>

#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace TestSupport
{
// One line of a log, taken apart.
struct CLogLine
{
    std::wstring text; // the whole line without its end
    std::wstring source;
    int line = -1; // -1 where the line has no number
    std::wstring function;
    int threadId = 0;
    std::wstring message;
    std::optional<HRESULT> code; // of a message "Code=0x..."
};
void PrintTo(const CLogLine& line, std::ostream* stream);

// Takes a log's bytes apart. Run headers are left out; a line that does not begin with a time belongs to the message before it.
[[nodiscard]] std::vector<CLogLine> ParseLog(std::string_view bytes);

// Switches the process's log on, and back to what it was at the end of the scope.
class CLogCapture
{
public:
    CLogCapture();
    ~CLogCapture();
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    // What any thread has written since the construction, or since Clear.
    [[nodiscard]] std::vector<CLogLine> Lines() const;
    void Clear();

private:
    bool m_wasOn;
    size_t m_start = 0; // in bytes of the file
};

// Whether a code was reported; forgets the log.
[[nodiscard]] bool TakeReport(CLogCapture& log, HRESULT code);
// A secret is nowhere in what was logged, and something was.
void ExpectNotLogged(const CLogCapture& log, std::wstring_view secret);

// A line that reports a code at a trace point.
[[nodiscard]] testing::Matcher<const CLogLine&> IsReport(const std::wstring& source, int line, const std::wstring& function,
                                                         HRESULT code);
// The same wherever in the function it was made.
[[nodiscard]] testing::Matcher<const CLogLine&> IsReportBy(const std::wstring& function, HRESULT code);
// A line that reports a message at a trace point.
[[nodiscard]] testing::Matcher<const CLogLine&> IsMessage(const std::wstring& source, int line,
                                                          const testing::Matcher<const std::wstring&>& message);
} // namespace TestSupport
