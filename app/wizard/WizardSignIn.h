// Answers the challenges of a run: the user is asked once for each server and proxy, in the library's dialog.
#pragma once

#include <VoHTTPStores.h>
#include <base/VoLock.h>
#include <base/VoWipe.h>
#include <base/com/VoIUnknown.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>

// The answers, in memory only, shared by the callbacks of all transports. A transport that is challenged while another one asks
// waits for that answer. Any thread.
class CWizardSignIn
{
public:
    struct CAnswer
    {
        unsigned number = 0; // counts the answers for one target
        bool isDeclined = false;
        std::wstring user;
        CVoSecret<wchar_t> password;
        unsigned run = 0; // in which it was given
    };

    // The window that owns the dialogs.
    void SetOwner(HWND owner) noexcept { m_owner = owner; }
    [[nodiscard]] HWND Owner() const noexcept { return m_owner; }
    // A new run may ask again for what was declined. Without the lock: a dialog may hold it, and waits for its owner's thread.
    void BeginRun() noexcept { ++m_run; }
    [[nodiscard]] unsigned Run() const noexcept { return m_run; }

    [[nodiscard]] CVoLock& Lock() noexcept { return m_lock; }
    // Under the lock.
    [[nodiscard]] CAnswer& AnswerOf(const std::wstring& target);

private:
    CVoLock m_lock; // held while the dialog is open
    std::map<std::wstring, CAnswer> m_answers;
    std::atomic<HWND> m_owner{ nullptr };
    std::atomic<unsigned> m_run{ 0 };
};

// A callback for one transport. Null without memory: challenges are declined then.
[[nodiscard]] CVoComPtr<IVoAuthenticationCallback> MakeWizardSignInCallback(std::shared_ptr<CWizardSignIn> signIn);

// A window of another thread than `mainThread` that is open in this process: a question of a transport, the system's too. Null:
// none is open.
[[nodiscard]] HWND FindWizardQuestion(DWORD mainThread) noexcept;
// Cancels these questions.
void CancelWizardQuestions(DWORD mainThread) noexcept;
