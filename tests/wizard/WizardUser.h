// Plays the user of the wizard: presses keys in its window and looks at its controls, while the window's own loop runs.
#pragma once

#include <WizardWindow.h>

#include <functional>
#include <string>
#include <vector>

// The outside of the wizard: notes what was asked and answers yes.
class CFakeShell final : public IWizardShell
{
public:
    bool Ask(HWND owner, const std::wstring& question) override { return Note(owner, L"ask " + question), true; }
    void Tell(HWND owner, const std::wstring& text) override { Note(owner, L"tell " + text); }
    std::optional<std::wstring> AskForFile(HWND owner) override { return Note(owner, L"file"), file; }
    HRESULT Copy(HWND owner, const std::wstring& text) override { return Note(owner, L"copy " + text), S_OK; }
    HRESULT OpenFile(HWND owner, const std::wstring& path) override { return Note(owner, L"open " + path), S_OK; }
    HRESULT ShowPage(HWND owner, const std::wstring& url) override { return Note(owner, L"show " + url), S_OK; }

    std::wstring file;
    std::vector<std::wstring> notes;

private:
    void Note(HWND owner, const std::wstring& text);
};

class CWizardUser
{
public:
    // A step is repeated until it answers true.
    using CStep = std::function<bool()>;

    CWizardUser& Step(CStep step)
    {
        m_steps.push_back(std::move(step));
        return *this;
    }
    // Waits until a page is shown and has the keyboard.
    CWizardUser& OnPage(UINT title);
    // Waits until a text has appeared in a control of the shown page.
    CWizardUser& Reads(int control, const std::wstring& part);
    // Presses Alt and a letter, a single key, or the keys of a text. What had the keyboard has changed when it is done.
    CWizardUser& Alt(char letter);
    CWizardUser& Key(WORD key);
    CWizardUser& Type(const std::wstring& text);
    // Deletes the text of the field that has the keyboard.
    CWizardUser& Clear();

    // Shows the wizard; all steps must be done when it is closed.
    HRESULT Run(const std::wstring& url, CFakeShell& shell, const std::wstring& memory = {});

    [[nodiscard]] static HWND Sheet();
    [[nodiscard]] static HWND Page();
    [[nodiscard]] static std::wstring TextOf(HWND window);

private:
    static void CALLBACK OnTimer(HWND window, UINT message, UINT_PTR id, DWORD time);

    inline static CWizardUser* s_user = nullptr; // the timer's function has no context
    std::vector<CStep> m_steps;
    size_t m_next = 0;
};
