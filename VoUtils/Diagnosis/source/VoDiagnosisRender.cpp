// Shows a report as lines of text and as JSON (VoDiagnosisRender.h).
#include "VoDiagnosisText.h"

#include <VoDiagnosisRender.h>

#include <base/VoText.h>
#include <base/VoTextConversion.h>

#include <algorithm>
#include <array>
#include <new>
#include <type_traits>

namespace
{
using EStyle = EVoTextStyle;

constexpr size_t kNameWidth = 22;
constexpr size_t kBarWidth = 50;
constexpr size_t kDetailLimit = 400;

struct CMark
{
    const wchar_t* unicode;
    const wchar_t* plain;
    EStyle style;
};
constexpr CMark MarkOf(EVoCheckStatus status) noexcept
{
    switch (status)
    {
    case EVoCheckStatus::Pass:
        return { L"\u2713", L"+", EStyle::Good };
    case EVoCheckStatus::Warn:
        return { L"!", L"!", EStyle::Warning };
    case EVoCheckStatus::Fail:
        return { L"\u2717", L"x", EStyle::Bad };
    case EVoCheckStatus::Skip:
        return { L"\u2298", L"o", EStyle::Faint };
    default:
        return { L"\u2013", L"-", EStyle::Faint };
    }
}

// Characters that move the text around them or that a terminal acts on.
constexpr bool IsInvisible(wchar_t c) noexcept
{
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x061C || (c >= 0x200B && c <= 0x200F) || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2060 && c <= 0x206F) || c == 0xFEFF;
}

constexpr EStyle StyleOf(EVoVerdict verdict) noexcept
{
    if (verdict == EVoVerdict::Ok)
        return EStyle::Good;
    return verdict == EVoVerdict::Degraded ? EStyle::Warning : EStyle::Bad;
}

std::wstring Padded(std::wstring text, size_t width)
{
    text.resize(std::max(text.size(), width), L' ');
    return text;
}

// The last phase that happened.
INT64 EndOf(const CVoTimeline& line) noexcept
{
    INT64 end = 0;
    for (const auto& phase : { line.name, line.connect, line.tls, line.sent, line.firstByte, line.total })
        end = std::max(end, phase.value_or(0));
    return end;
}

std::wstring WideOf(std::string_view text)
{
    return { text.begin(), text.end() };
}
} // namespace

std::wstring VoVisibleText(std::wstring_view text, size_t limit)
{
    std::wstring visible;
    const bool isCut = text.size() > limit;
    for (const wchar_t c : text.substr(0, limit))
    {
        if (IsInvisible(c))
            visible += VoFormat(L"\\u%04X", static_cast<unsigned>(c));
        else
            visible += c;
    }
    // A cut may split a pair.
    return VoWithoutLoneSurrogates(isCut ? visible + L"..." : visible);
}

namespace VoDiagnosisText
{
std::string Utf8(std::wstring_view text, size_t limit)
{
    std::string bytes;
    if (FAILED(VoStringToUTF8(VoVisibleText(text, limit), bytes)))
        throw std::bad_alloc();
    return bytes;
}

std::vector<CPhase> PhasesOf(const CVoTimeline& line)
{
    struct CRow
    {
        const char* key;
        wchar_t letter;
        const wchar_t* name;
        const std::optional<INT64>* end;
    };
    const CRow rows[] = { { "name", L'n', L"name", &line.name },
                          { "connect", L'c', L"connect", &line.connect },
                          { "tls", L't', L"TLS", &line.tls },
                          { "sent", L's', L"send", &line.sent },
                          { "firstByte", L'w', L"wait", &line.firstByte },
                          { "total", L'r', L"receive", &line.total } };
    std::vector<CPhase> phases;
    INT64 begin = 0;
    for (const CRow& row : rows)
    {
        if (!row.end->has_value())
            continue;
        // A service may tell the phases in another order than it does them.
        const INT64 end = std::max(begin, **row.end);
        phases.push_back({ row.key, row.letter, row.name, begin, end });
        begin = end;
    }
    return phases;
}
INT64 LongestOf(const CVoDiagnosisReport& report) noexcept
{
    INT64 longest = 1;
    for (const CVoTimeline& line : report.timelines)
        longest = std::max(longest, EndOf(line));
    return longest;
}
} // namespace VoDiagnosisText

std::vector<CVoTextLine> VoRenderCheck(const CVoCheck& check, bool unicode)
{
    const CMark mark = MarkOf(check.status);
    std::vector<CVoTextLine> lines;
    lines.push_back(
        { { mark.style, unicode ? mark.unicode : mark.plain },
          { EStyle::Plain, L" " + Padded(VoVisibleText(check.name), kNameWidth) },
          { mark.style == EStyle::Faint ? EStyle::Faint : EStyle::Plain, VoVisibleText(check.detail, kDetailLimit) } });
    if (!check.cause.empty() && !check.fix.empty())
        lines.push_back({ { EStyle::Plain, std::wstring(kNameWidth + 2, L' ') + VoVisibleText(check.fix, kDetailLimit) } });
    return lines;
}

std::vector<CVoTextLine> VoRenderConclusion(const CVoDiagnosisReport& report, bool unicode)
{
    std::vector<CVoTextLine> lines;
    const INT64 longest = VoDiagnosisText::LongestOf(report);
    const bool hasPhases =
        std::any_of(report.timelines.begin(), report.timelines.end(), [](const CVoTimeline& line) { return EndOf(line) != 0; });
    if (hasPhases)
    {
        lines.emplace_back();
        lines.push_back({ { EStyle::Strong, L"Phases" },
                          { EStyle::Faint, L"  n name, c connect, t TLS, s send, w wait, r receive; the scale ends at " +
                                               VoFormat(L"%.1f ms", static_cast<double>(longest) / 1000) } });
    }
    for (const CVoTimeline& line : report.timelines)
    {
        if (EndOf(line) == 0)
            continue;
        std::wstring bar;
        for (const VoDiagnosisText::CPhase& phase : VoDiagnosisText::PhasesOf(line))
        {
            const auto end = static_cast<size_t>(phase.end * static_cast<INT64>(kBarWidth) / longest);
            // Each phase that happened shows.
            bar.append(std::max(end, bar.size() + 1) - bar.size(), phase.letter);
        }
        lines.push_back({ { EStyle::Plain, L"  " + Padded(WideOf(line.engine), kNameWidth) },
                          { FAILED(line.result) ? EStyle::Bad : EStyle::Good, bar },
                          { EStyle::Plain, VoFormat(L" %.1f ms", static_cast<double>(EndOf(line)) / 1000) } });
    }
    lines.emplace_back();
    lines.push_back({ { StyleOf(report.verdict), VoVisibleText(report.summary) } });
    for (const std::wstring& step : report.advice)
        lines.push_back({ { EStyle::Plain, (unicode ? L"  \u2192 " : L"  > ") + VoVisibleText(step) } });
    return lines;
}

CVoTextLine VoRenderPass(const CVoDiagnosisReport& report, bool unicode)
{
    constexpr size_t kVerdictWidth = 11; // "credentials"
    EVoCheckStatus status = report.verdict == EVoVerdict::Ok ? EVoCheckStatus::Pass : EVoCheckStatus::Fail;
    if (report.verdict == EVoVerdict::Degraded)
        status = EVoCheckStatus::Warn;
    const CMark mark = MarkOf(status);
    return { { EStyle::Faint, VoVisibleText(report.time) + L' ' },
             { mark.style, std::wstring(unicode ? mark.unicode : mark.plain) + L' ' +
                               Padded(WideOf(VoVerdictName(report.verdict)), kVerdictWidth) + L' ' },
             { EStyle::Plain, VoVisibleText(report.summary, kDetailLimit) } };
}

namespace
{
// Writes JSON. Keys and texts that the program makes itself go through the same escape as others.
class CJsonWriter
{
public:
    void Key(std::string_view key)
    {
        Separate();
        Text(key);
        m_text += ':';
        m_isFirst = true; // no comma before the value
    }
    void Open(char bracket)
    {
        Separate();
        m_text += bracket;
        m_isFirst = true;
    }
    void Close(char bracket)
    {
        m_text += bracket;
        m_isFirst = false;
    }
    void Value(std::wstring_view text)
    {
        Separate();
        Text(VoDiagnosisText::Utf8(text, kLimit));
    }
    void Value(bool value) { Raw(value ? "true" : "false"); }
    void Value(INT64 number) { Raw(std::to_string(number)); }
    void Value(std::chrono::microseconds time) { Milliseconds(time.count()); }
    void Value(const std::vector<std::wstring>& texts)
    {
        Open('[');
        for (const std::wstring& text : texts)
            Value(std::wstring_view(text));
        Close(']');
    }
    void Value(const std::vector<CVoDiagnosisFact>& facts)
    {
        Open('{');
        Facts(facts);
        Close('}');
    }
    void Value(const CVoDiagnosisFact::CRecords& records)
    {
        Open('[');
        for (const auto& record : records)
            Value(record);
        Close(']');
    }
    // Microseconds as milliseconds; null for nothing.
    void Milliseconds(const std::optional<INT64>& microseconds)
    {
        if (!microseconds)
            return Raw("null");
        char text[32];
        // Three digits behind the point, whatever the locale.
        (void)std::snprintf(text, sizeof text, "%lld.%03d", static_cast<long long>(*microseconds / 1000),
                            static_cast<int>(*microseconds % 1000));
        Raw(text);
    }
    void Facts(const std::vector<CVoDiagnosisFact>& facts)
    {
        for (const CVoDiagnosisFact& fact : facts)
        {
            Key(fact.key);
            std::visit([&](const auto& value)
            {
                if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::wstring>)
                    Value(std::wstring_view(value));
                else
                    Value(value);
            }, fact.value);
        }
    }
    void Member(std::string_view key, std::wstring_view text)
    {
        Key(key);
        Value(text);
    }
    [[nodiscard]] std::string Take() { return std::move(m_text); }

private:
    static constexpr size_t kLimit = 1000;

    void Separate()
    {
        if (!m_isFirst)
            m_text += ',';
        m_isFirst = false;
    }
    void Raw(std::string_view text)
    {
        Separate();
        m_text += text;
    }
    void Text(std::string_view utf8)
    {
        m_text += '"';
        for (const char c : utf8)
        {
            // The last three so that JSON may stand inside of a page.
            if (c == '<' || c == '>' || c == '&')
            {
                m_text += c == '<' ? "\\u003C" : c == '>' ? "\\u003E" : "\\u0026";
                continue;
            }
            if (c == '"' || c == '\\')
                m_text += '\\';
            m_text += c;
        }
        m_text += '"';
    }

    std::string m_text;
    bool m_isFirst = true;
};

void WriteCheck(CJsonWriter& json, const CVoCheck& check)
{
    json.Open('{');
    json.Member("id", WideOf(check.id));
    json.Member("name", check.name);
    json.Member("status", WideOf(VoCheckStatusName(check.status)));
    if (!check.cause.empty())
        json.Member("cause", WideOf(check.cause));
    json.Member("detail", check.detail);
    if (!check.fix.empty())
        json.Member("fix", check.fix);
    json.Key("ms");
    json.Milliseconds(check.microseconds);
    json.Facts(check.facts);
    json.Close('}');
}

void WriteTimeline(CJsonWriter& json, const CVoTimeline& line)
{
    json.Open('{');
    json.Member("engine", WideOf(line.engine));
    json.Member("result", VoFormat(L"0x%08X", static_cast<unsigned>(line.result)));
    json.Key("statusCode");
    json.Value(INT64{ line.statusCode });
    json.Member("remoteAddress", line.remoteAddress);
    const std::pair<const char*, std::optional<INT64>> phases[] = {
        { "name", line.name }, { "connect", line.connect },     { "tls", line.tls },
        { "sent", line.sent }, { "firstByte", line.firstByte }, { "total", line.total }
    };
    for (const auto& [key, time] : phases)
    {
        json.Key(key);
        json.Milliseconds(time);
    }
    json.Close('}');
}
} // namespace

std::string VoRenderJson(const CVoDiagnosisReport& report)
{
    CJsonWriter json;
    json.Open('{');
    json.Member("result", report.isCancelled ? L"0x800704C7" : L"0x00000000");
    if (report.isCancelled)
        json.Member("error", L"The diagnosis was cancelled.");
    json.Member("url", report.url);
    json.Member("time", report.time);
    json.Member("verdict", WideOf(VoVerdictName(report.verdict)));
    json.Member("failedCheck", WideOf(report.failedCheck));
    json.Member("cause", WideOf(report.cause));
    json.Member("summary", report.summary);
    json.Key("advice");
    json.Value(report.advice);
    json.Member("recommendedEngine", WideOf(report.recommendedEngine));
    json.Key("cancelled");
    json.Value(report.isCancelled);
    json.Key("ms");
    json.Milliseconds(report.microseconds);
    json.Key("checks");
    json.Open('[');
    for (const CVoCheck& check : report.checks)
        WriteCheck(json, check);
    json.Close(']');
    json.Key("timelines");
    json.Open('[');
    for (const CVoTimeline& line : report.timelines)
        WriteTimeline(json, line);
    json.Close(']');
    json.Close('}');
    return json.Take();
}
