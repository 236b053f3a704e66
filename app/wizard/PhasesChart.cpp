// The drawing of the phases (PhasesChart.h).
#include "PhasesChart.h"

#include <algorithm>
#include <array>
#include <ranges>
#include <string_view>
#include <utility>

namespace
{
COLORREF ColourOf(std::string_view phase) noexcept
{
    static constexpr std::array<std::pair<std::string_view, COLORREF>, 6> kColours{ {
        { "name", RGB(106, 76, 147) },
        { "connect", RGB(230, 140, 30) },
        { "tls", RGB(197, 64, 120) },
        { "sent", RGB(30, 130, 120) },
        { "firstByte", RGB(60, 150, 70) },
        { "total", RGB(40, 110, 190) },
    } };
    for (const auto& [name, colour] : kColours)
        if (name == phase)
            return colour;
    return ::GetSysColor(COLOR_GRAYTEXT);
}

class CBrush
{
public:
    explicit CBrush(COLORREF colour) noexcept : m_brush(::CreateSolidBrush(colour)) {}
    ~CBrush() { ::DeleteObject(m_brush); }
    CBrush(const CBrush&) = delete;
    CBrush& operator=(const CBrush&) = delete;

    [[nodiscard]] HBRUSH Get() const noexcept { return m_brush; }

private:
    HBRUSH m_brush;
};

class CPainter
{
public:
    CPainter(HDC dc, HFONT font, int unit) noexcept : m_dc(dc), m_unit(unit), m_old(::SelectObject(dc, font))
    {
        ::SetBkMode(dc, TRANSPARENT);
        ::SetTextColor(dc, ::GetSysColor(COLOR_BTNTEXT));
        TEXTMETRICW metrics{};
        ::GetTextMetricsW(dc, &metrics);
        m_line = metrics.tmHeight + unit * 2;
    }
    ~CPainter() { ::SelectObject(m_dc, m_old); }
    CPainter(const CPainter&) = delete;
    CPainter& operator=(const CPainter&) = delete;

    [[nodiscard]] int Line() const noexcept { return m_line; }
    [[nodiscard]] int Unit() const noexcept { return m_unit; }
    [[nodiscard]] int WidthOf(const std::wstring& text) const noexcept
    {
        SIZE size{};
        ::GetTextExtentPoint32W(m_dc, text.data(), static_cast<int>(text.size()), &size);
        return size.cx;
    }
    void Text(const std::wstring& text, RECT area, UINT format = DT_LEFT) const noexcept
    {
        ::DrawTextW(m_dc, text.data(), static_cast<int>(text.size()), &area,
                    format | DT_SINGLELINE | DT_VCENTER | DT_NOPREFIX | DT_END_ELLIPSIS);
    }
    void Fill(const RECT& area, COLORREF colour) const noexcept
    {
        const CBrush brush(colour);
        ::FillRect(m_dc, &area, brush.Get());
    }

private:
    HDC m_dc;
    int m_unit;
    HGDIOBJ m_old;
    int m_line = 0;
};

// The squares with the names of the phases, on the right of the caption's line.
void DrawLegend(const CPainter& painter, RECT line, const CWizardChart& chart)
{
    const int square = painter.Line() / 2;
    const int gap = painter.Unit() * 4;
    for (const auto& [phase, name] : std::views::reverse(chart.legend))
    {
        line.left = line.right - painter.WidthOf(name);
        painter.Text(name, line);
        const LONG top = (line.top + line.bottom - square) / 2;
        painter.Fill({ line.left - gap - square, top, line.left - gap, top + square }, ColourOf(phase));
        line.right = line.left - gap - square - 2 * gap;
    }
}

void DrawBar(const CPainter& painter, const RECT& line, const CWizardChart::CBar& bar, int nameWidth, int timeWidth)
{
    painter.Text(bar.name, { line.left, line.top, line.left + nameWidth, line.bottom });
    painter.Text(bar.time, { line.right - timeWidth, line.top, line.right, line.bottom }, DT_RIGHT);
    const int gap = painter.Unit() * 6;
    const LONG left = line.left + nameWidth + gap;
    const LONG width = std::max<LONG>(0, line.right - timeWidth - gap - left);
    const LONG top = line.top + painter.Unit() * 2;
    const LONG bottom = line.bottom - painter.Unit() * 2;
    LONG begin = left;
    for (const CWizardChart::CSegment& segment : bar.segments)
    {
        // Each phase that happened shows.
        const LONG end = std::max(left + static_cast<LONG>(segment.end * static_cast<double>(width)), begin + painter.Unit());
        painter.Fill({ begin, top, end, bottom }, ColourOf(segment.phase));
        begin = end;
    }
    // A request that failed ends in red.
    if (bar.isFailed)
        painter.Fill({ begin - painter.Unit() * 4, top, begin, bottom }, RGB(176, 0, 32));
}
} // namespace

void DrawPhasesChart(HDC dc, const RECT& area, const CWizardChart& chart, HFONT font, int unit)
{
    ::FillRect(dc, &area, ::GetSysColorBrush(COLOR_BTNFACE));
    const CPainter painter(dc, font, std::max(1, unit));
    RECT line{ area.left, area.top, area.right, area.top + painter.Line() };
    painter.Text(chart.scale, line);
    DrawLegend(painter, line, chart);
    int nameWidth = 0;
    int timeWidth = 0;
    for (const CWizardChart::CBar& bar : chart.bars)
    {
        nameWidth = std::max(nameWidth, painter.WidthOf(bar.name));
        timeWidth = std::max(timeWidth, painter.WidthOf(bar.time));
    }
    for (const CWizardChart::CBar& bar : chart.bars)
    {
        ::OffsetRect(&line, 0, painter.Line());
        DrawBar(painter, line, bar, nameWidth, timeWidth);
    }
}
