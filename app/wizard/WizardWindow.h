// The wizard: the property sheet, its pages, the model behind them, and the work beside them.
#pragma once

#include "WizardMemory.h"
#include "WizardModel.h"
#include "WizardShell.h"
#include "WizardSignIn.h"
#include "WizardWork.h"

#include <array>
#include <memory>
#include <string>

class CWizardPage;

struct CWizardSetup
{
    std::wstring url; // to begin with; empty: the last one
    CWizardMemory memory{ {} };
    IWizardShell* shell = nullptr; // not owned
};

// Shows the wizard and returns when it is closed: S_OK, S_FALSE when it was cancelled, or the platform's error when it cannot
// be shown. It never waits for a thread: see HasWizardThreads. The thread needs a single-threaded apartment.
[[nodiscard]] HRESULT RunWizard(const CWizardSetup& setup) noexcept;

// What the pages share. The window's thread uses it.
class CWizardWindow
{
public:
    explicit CWizardWindow(const CWizardSetup& setup); // throws CVoHResultException when there can be no window
    ~CWizardWindow();
    CWizardWindow(const CWizardWindow&) = delete;
    CWizardWindow& operator=(const CWizardWindow&) = delete;

    [[nodiscard]] HRESULT Show();

    [[nodiscard]] CWizardModel& Model() noexcept { return m_model; }
    [[nodiscard]] IWizardShell& Shell() noexcept { return m_shell; }
    [[nodiscard]] const CWizardMemory& Memory() const noexcept { return m_memory; }
    [[nodiscard]] const std::shared_ptr<CWizardQueue>& Queue() const noexcept { return m_queue; }
    [[nodiscard]] HWND Sheet() const noexcept { return m_sheet; }
    // The first page tells it.
    void SetSheet(HWND sheet) noexcept;

    // A page is shown.
    void OnActivated(EWizardPage page);
    void UpdateButtons();
    void GoTo(EWizardPage page);

    // Starts the checks. False when they cannot start; the user was told.
    [[nodiscard]] bool StartRun();
    void StopRun();
    // The window goes away: nothing more comes.
    void Forget() noexcept;

private:
    // The wizard's icon in a size of the system; null when it cannot be loaded.
    class CIcon
    {
    public:
        explicit CIcon(int metric) noexcept;
        ~CIcon() { ::DestroyIcon(m_icon); }
        CIcon(const CIcon&) = delete;
        CIcon& operator=(const CIcon&) = delete;

        [[nodiscard]] HICON Get() const noexcept { return m_icon; }

    private:
        HICON m_icon;
    };

    static LRESULT CALLBACK OnQueueMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT_PTR id,
                                           DWORD_PTR self) noexcept;
    [[nodiscard]] CWizardPage& Page(EWizardPage page) noexcept { return *m_pages[static_cast<size_t>(page)]; }
    void Center() const noexcept;
    void OnCheck(const CVoCheck& check);
    void OnFinished(HRESULT hr, CVoDiagnosisReport report);

    IWizardShell& m_shell;
    CWizardMemory m_memory;
    CWizardModel m_model;
    std::shared_ptr<CWizardSignIn> m_signIn = std::make_shared<CWizardSignIn>();
    HWND m_queueWindow = nullptr;
    std::shared_ptr<CWizardQueue> m_queue;
    std::unique_ptr<CWizardDoctor> m_doctor;
    std::array<std::unique_ptr<CWizardPage>, 4> m_pages;
    EWizardPage m_current = EWizardPage::Server;
    const CIcon m_smallIcon{ SM_CXSMICON };
    const CIcon m_bigIcon{ SM_CXICON };
    HWND m_sheet = nullptr;
    bool m_isShown = false;
};
