// The base of the wizard's pages: a dialog of the property sheet that shows the model.
#pragma once

#include "WizardWindow.h"

#include <prsht.h>

#include <string>

class CWizardPage
{
public:
    // `dialog` is the resource; the strings of that number and the next are title and subtitle. Throws std::bad_alloc.
    CWizardPage(CWizardWindow& wizard, EWizardPage page, UINT dialog);
    virtual ~CWizardPage() = default;
    CWizardPage(const CWizardPage&) = delete;
    CWizardPage& operator=(const CWizardPage&) = delete;

    // For the property sheet; it points into this object.
    [[nodiscard]] PROPSHEETPAGEW Describe() noexcept;

    // The model has changed.
    virtual void Refresh() {}

protected:
    [[nodiscard]] CWizardWindow& Wizard() noexcept { return m_wizard; }
    [[nodiscard]] CWizardModel& Model() noexcept { return m_wizard.Model(); }
    [[nodiscard]] HWND Dialog() const noexcept { return m_dialog; }
    [[nodiscard]] HWND Control(int id) const noexcept { return ::GetDlgItem(m_dialog, id); }
    [[nodiscard]] std::wstring TextOf(int id) const;
    // Sets a text that differs: equal texts would flicker, and screen readers would read them again.
    void SetText(int id, const std::wstring& text) const;
    void Enable(int id, bool isEnabled) const noexcept;
    // Moves the keyboard to a control, also while the page is about to be shown.
    void Focus(int id) const noexcept;
    // Pixels for a length at 96 dots an inch.
    [[nodiscard]] int Scaled(int length) const noexcept;
    [[nodiscard]] HFONT Font() const noexcept;

    // The page was created; its texts are set.
    virtual void OnCreate() {}
    // It is about to be shown.
    virtual void OnActivate() {}
    // Next was pressed. False: the page stays.
    [[nodiscard]] virtual bool OnNext() { return true; }
    virtual void OnCommand(int /*id*/, int /*code*/) {}
    // Of a control.
    [[nodiscard]] virtual LRESULT OnNotify(const NMHDR& /*header*/) { return 0; }
    virtual void OnDraw(const DRAWITEMSTRUCT& /*item*/) {}
    // Whether a text is a problem, which is shown in red.
    [[nodiscard]] virtual bool IsProblem(int /*id*/) const noexcept { return false; }
    // The size of the page or the resolution has changed.
    virtual void OnResize() {}
    virtual void OnDestroy() noexcept {}

private:
    static INT_PTR CALLBACK DialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) noexcept;
    INT_PTR OnMessage(UINT message, WPARAM wParam, LPARAM lParam);
    INT_PTR OnSheetNotify(const NMHDR& header);
    INT_PTR Result(LRESULT result) const noexcept;

    CWizardWindow& m_wizard;
    EWizardPage m_page;
    UINT m_resource;
    std::wstring m_caption;
    std::wstring m_title;
    std::wstring m_subtitle;
    HWND m_dialog = nullptr;
};

[[nodiscard]] std::unique_ptr<CWizardPage> MakeServerPage(CWizardWindow& wizard);
[[nodiscard]] std::unique_ptr<CWizardPage> MakeProxyPage(CWizardWindow& wizard);
[[nodiscard]] std::unique_ptr<CWizardPage> MakeCheckingPage(CWizardWindow& wizard);
[[nodiscard]] std::unique_ptr<CWizardPage> MakeResultPage(CWizardWindow& wizard);
