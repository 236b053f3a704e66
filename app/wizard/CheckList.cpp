// Rows, columns and colours of the list of checks (CheckList.h).
#include "CheckList.h"

#include "WizardTexts.h"

namespace
{
constexpr int kMaximumText = 1024; // more than a row can have

void SetCell(HWND list, int row, int column, const std::wstring& text)
{
    std::wstring shown(kMaximumText, L'\0');
    LVITEMW item{};
    item.iSubItem = column;
    item.pszText = shown.data();
    item.cchTextMax = kMaximumText;
    const auto length = ::SendMessageW(list, LVM_GETITEMTEXTW, static_cast<WPARAM>(row), reinterpret_cast<LPARAM>(&item));
    shown.resize(static_cast<size_t>(length));
    if (shown == text)
        return;
    shown = text;
    item.pszText = shown.data();
    ::SendMessageW(list, LVM_SETITEMTEXTW, static_cast<WPARAM>(row), reinterpret_cast<LPARAM>(&item));
}

COLORREF ColourOf(EVoCheckStatus status) noexcept
{
    switch (status)
    {
    case EVoCheckStatus::Pass:
        return RGB(0, 112, 32);
    case EVoCheckStatus::Warn:
        return RGB(144, 88, 0);
    case EVoCheckStatus::Fail:
        return RGB(176, 0, 32);
    case EVoCheckStatus::Running:
        return RGB(0, 80, 176);
    default:
        return ::GetSysColor(COLOR_GRAYTEXT);
    }
}
} // namespace

void CCheckList::Create(HWND list, std::span<const CColumn> columns)
{
    m_list = list;
    m_columns.assign(columns.begin(), columns.end());
    constexpr LPARAM kStyle = LVS_EX_FULLROWSELECT | LVS_EX_DOUBLEBUFFER | LVS_EX_LABELTIP | LVS_EX_INFOTIP;
    ::SendMessageW(list, LVM_SETEXTENDEDLISTVIEWSTYLE, static_cast<WPARAM>(kStyle), kStyle);
    for (size_t i = 0; i < m_columns.size(); ++i)
    {
        std::wstring title = WizardText(m_columns[i].title);
        LVCOLUMNW column{};
        column.mask = LVCF_TEXT | LVCF_SUBITEM;
        column.pszText = title.data();
        column.iSubItem = static_cast<int>(i);
        ::SendMessageW(list, LVM_INSERTCOLUMNW, i, reinterpret_cast<LPARAM>(&column));
    }
    Resize();
}

void CCheckList::Resize() const noexcept
{
    RECT client{};
    ::GetClientRect(m_list, &client);
    // A vertical scroll bar must not bring a horizontal one.
    const int width = client.right - ::GetSystemMetrics(SM_CXVSCROLL);
    for (size_t i = 0; i < m_columns.size(); ++i)
        ::SendMessageW(m_list, LVM_SETCOLUMNWIDTH, i, MAKELPARAM(::MulDiv(width, m_columns[i].share, 100), 0));
}

void CCheckList::Show(const std::vector<CWizardRow>& rows)
{
    while (m_states.size() > rows.size())
    {
        m_states.pop_back();
        ::SendMessageW(m_list, LVM_DELETEITEM, m_states.size(), 0);
    }
    for (size_t i = 0; i < rows.size(); ++i)
    {
        const int row = static_cast<int>(i);
        if (i == m_states.size())
        {
            LVITEMW item{};
            item.iItem = row;
            ::SendMessageW(m_list, LVM_INSERTITEMW, 0, reinterpret_cast<LPARAM>(&item));
            m_states.push_back(rows[i].status);
        }
        m_states[i] = rows[i].status;
        SetCell(m_list, row, 0, rows[i].state);
        SetCell(m_list, row, 1, rows[i].name);
        if (m_columns.size() > 2)
            SetCell(m_list, row, 2, rows[i].found);
    }
}

void CCheckList::Select(size_t row) const noexcept
{
    LVITEMW item{};
    item.state = LVIS_SELECTED | LVIS_FOCUSED;
    item.stateMask = item.state;
    ::SendMessageW(m_list, LVM_SETITEMSTATE, row, reinterpret_cast<LPARAM>(&item));
    ::SendMessageW(m_list, LVM_ENSUREVISIBLE, row, FALSE);
}

LRESULT CCheckList::OnCustomDraw(NMLVCUSTOMDRAW& draw) const noexcept
{
    if (draw.nmcd.dwDrawStage == CDDS_PREPAINT)
        return CDRF_NOTIFYITEMDRAW;
    if (draw.nmcd.dwDrawStage == CDDS_ITEMPREPAINT)
        return CDRF_NOTIFYSUBITEMDRAW;
    if (draw.nmcd.dwDrawStage == (CDDS_ITEMPREPAINT | CDDS_SUBITEM))
        draw.clrText = draw.iSubItem == 0 && draw.nmcd.dwItemSpec < m_states.size() ? ColourOf(m_states[draw.nmcd.dwItemSpec])
                                                                                    : ::GetSysColor(COLOR_WINDOWTEXT);
    return CDRF_DODEFAULT;
}
