// The list of checks on the checking and the result page.
#pragma once

#include "WizardModel.h"

#include <base/VoPlatform.h>

#include <commctrl.h>

#include <span>
#include <vector>

class CCheckList
{
public:
    struct CColumn
    {
        UINT title; // a string
        int share;  // of the width, in parts of a hundred
    };

    // The columns are state, name and, if there is a third, what was found. `list` is not owned. Throws std::bad_alloc.
    void Create(HWND list, std::span<const CColumn> columns);
    // Shows the rows; what has not changed is left alone. Throws std::bad_alloc.
    void Show(const std::vector<CWizardRow>& rows);
    // The width of the list, or the resolution, has changed.
    void Resize() const noexcept;
    void Select(size_t row) const noexcept;
    // Paints the states in colour. The result of the notification.
    [[nodiscard]] LRESULT OnCustomDraw(NMLVCUSTOMDRAW& draw) const noexcept;

private:
    HWND m_list = nullptr;
    std::vector<CColumn> m_columns;
    std::vector<EVoCheckStatus> m_states;
};
