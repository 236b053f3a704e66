// The answers to challenges (WizardSignIn.h).
#include "WizardSignIn.h"

#include <VoAuthCallbackImpl.h>
#include <VoServerAddress.h>
#include <base/VoHResult.h>
#include <base/com/VoComHelper.h>

#include <utility>

CWizardSignIn::CAnswer& CWizardSignIn::AnswerOf(const std::wstring& target)
{
    CAnswer& answer = m_answers[target];
    if (answer.isDeclined && answer.run != m_run)
        answer = {};
    return answer;
}

namespace
{
class CCallback final : public CVoIUnknownImplWithFreeThreadedMarshaller<IVoAuthenticationCallback>,
                        public IVoAuthenticationCancel
{
    using CBase = CVoIUnknownImplWithFreeThreadedMarshaller<IVoAuthenticationCallback>;
    using CAsk = HRESULT (STDMETHODCALLTYPE IVoAuthenticationCallback::*)(BSTR, BSTR, BSTR, BSTR*, BSTR*, VARIANT_BOOL*);

public:
    CCallback(std::shared_ptr<CWizardSignIn> signIn, CVoComPtr<IVoAuthenticationCallback> dialog) noexcept
        : m_signIn(std::move(signIn)), m_dialog(std::move(dialog))
    {
        (void)m_dialog.As(m_cancel);
    }

    STDMETHODIMP QueryInterface(REFIID iid, void** object) noexcept override { return CBase::QueryInterface(iid, object); }
    STDMETHODIMP_(ULONG) AddRef() noexcept override { return CBase::AddRef(); }
    STDMETHODIMP_(ULONG) Release() noexcept override { return CBase::Release(); }

    STDMETHODIMP CancelQuestion(DWORD threadId) noexcept override
    {
        return m_cancel ? m_cancel->CancelQuestion(threadId) : E_NOINTERFACE;
    }
    STDMETHODIMP ResetQuestion(DWORD threadId) noexcept override
    {
        return m_cancel ? m_cancel->ResetQuestion(threadId) : E_NOINTERFACE;
    }
    STDMETHODIMP SetParentWindow(HWND) noexcept override { return S_OK; }
    STDMETHODIMP OnProxyAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                   VARIANT_BOOL* cancelled) noexcept override
    {
        return Answer(&IVoAuthenticationCallback::OnProxyAuthNeeded, L"proxy " + TextOf(reserved), title, serverAddress,
                      reserved, { user, password, cancelled });
    }
    STDMETHODIMP OnServerAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                    VARIANT_BOOL* cancelled) noexcept override
    {
        return Answer(&IVoAuthenticationCallback::OnServerAuthNeeded, L"server " + OriginOf(reserved), title, serverAddress,
                      reserved, { user, password, cancelled });
    }

protected:
    HRESULT QueryOther(REFIID iid, void** object) noexcept override
    {
        if (!m_cancel || !IsEqualIID(iid, kVoInterfaceId<IVoAuthenticationCancel>))
            return CBase::QueryOther(iid, object);
        *object = static_cast<IVoAuthenticationCancel*>(this);
        AddRef();
        return S_OK;
    }

private:
    struct COut
    {
        BSTR* user;
        BSTR* password;
        VARIANT_BOOL* cancelled;
    };
    static std::wstring TextOf(BSTR text) { return std::wstring(CVoBstr::ViewOf(text)); }
    // Scheme, host and port of the URL that asks: another port or scheme of the same host is another server.
    static std::wstring OriginOf(BSTR url)
    {
        CServerAddressData address;
        return SUCCEEDED(address.SetAddress(TextOf(url), false, true, true)) ? address.BaseURL() : TextOf(url);
    }

    HRESULT Answer(CAsk ask, const std::wstring& target, BSTR title, BSTR serverAddress, BSTR reserved, COut out) noexcept
    try
    {
        if (!out.user || !out.password || !out.cancelled)
            return E_POINTER;
        const CVoLockHolder lock(m_signIn->Lock());
        CWizardSignIn::CAnswer& answer = m_signIn->AnswerOf(target);
        unsigned& used = m_used[target];
        // An answer that this transport used already was refused.
        if (answer.number <= used && !answer.isDeclined)
            if (const HRESULT hr = Ask(ask, answer, title, serverAddress, reserved); FAILED(hr))
                return hr;
        used = answer.number;
        if (!answer.isDeclined)
        {
            CVoBstr user(answer.user);
            CVoBstr password(answer.password.Get());
            ::SysFreeString(std::exchange(*out.user, user.Detach()));
            ::SysFreeString(std::exchange(*out.password, password.Detach()));
        }
        *out.cancelled = answer.isDeclined ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
    catch (...)
    {
        return HResultFromCurrentException();
    }

    HRESULT Ask(CAsk ask, CWizardSignIn::CAnswer& answer, BSTR title, BSTR serverAddress, BSTR reserved)
    {
        const unsigned run = m_signIn->Run();
        CVoBstr user;
        CVoBstr password;
        VARIANT_BOOL cancelled = VARIANT_TRUE;
        (void)m_dialog->SetParentWindow(m_signIn->Owner());
        if (const HRESULT hr = (m_dialog.Get()->*ask)(title, serverAddress, reserved, user.Put(), password.Put(), &cancelled);
            FAILED(hr))
            return hr;
        answer.isDeclined = cancelled != VARIANT_FALSE;
        answer.run = run;
        answer.user = user.View();
        // Not by a temporary text: a short one would stay on the stack.
        answer.password = {};
        answer.password.Get() = password.View();
        VoWipe(password.Get());
        ++answer.number;
        return S_OK;
    }

    std::shared_ptr<CWizardSignIn> m_signIn;
    CVoComPtr<IVoAuthenticationCallback> m_dialog;
    CVoComPtr<IVoAuthenticationCancel> m_cancel;
    std::map<std::wstring, unsigned> m_used; // guarded by the lock of the answers
};

// Calls `action` with each visible window of other threads; stops when it answers false.
template <class Action>
void ForEachQuestion(DWORD mainThread, Action action) noexcept
{
    struct CContext
    {
        DWORD mainThread;
        Action action;
    } context{ mainThread, std::move(action) };
    constexpr WNDENUMPROC kVisit = [](HWND window, LPARAM argument) -> BOOL
    {
        CContext& c = *reinterpret_cast<CContext*>(argument);
        DWORD process = 0;
        const DWORD thread = ::GetWindowThreadProcessId(window, &process);
        if (process != ::GetCurrentProcessId() || thread == c.mainThread || !::IsWindowVisible(window))
            return TRUE;
        return c.action(window) ? TRUE : FALSE;
    };
    ::EnumWindows(kVisit, reinterpret_cast<LPARAM>(&context));
}
} // namespace

CVoComPtr<IVoAuthenticationCallback> MakeWizardSignInCallback(std::shared_ptr<CWizardSignIn> signIn)
{
    CVoComPtr<IVoAuthenticationCallback> dialog;
    if (FAILED(CreateGlobalAuthenticationCallbackForModule(dialog.Put())))
        return {};
    const CVoComPtr<CCallback> callback = VoMakeComObject<CCallback>(std::move(signIn), std::move(dialog));
    return CVoComPtr<IVoAuthenticationCallback>(callback.Get());
}

HWND FindWizardQuestion(DWORD mainThread) noexcept
{
    HWND found = nullptr;
    ForEachQuestion(mainThread, [&](HWND window)
    {
        found = window;
        return false;
    });
    return found;
}

void CancelWizardQuestions(DWORD mainThread) noexcept
{
    ForEachQuestion(mainThread, [](HWND window)
    {
        ::PostMessageW(window, WM_COMMAND, IDCANCEL, 0);
        return true;
    });
}
