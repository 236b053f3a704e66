// The library's authentication callback, which asks the user in a dialog. Callers get it from CreateGlobalHTTPStores.
#pragma once

#include <VoHTTPStores.h>

#include <base/VoLock.h>

#include <atomic>
#include <vector>

class CAuthDlg;

// Asks the user for a name and a password in a small modal dialog on the calling thread. Calls on other threads have dialogs of
// their own. It keeps no credentials: the proxy store keeps those that a proxy accepted.
//
// The title becomes the dialog's caption; an empty one becomes "Sign in". A sentence says who asks: the proxy that the reserved
// text names, or the server. The server address and the reserved text stand below it.
//
// After OK, `cancelled` is VARIANT_FALSE, and the entered texts, which may be empty, replace the texts in `user` and
// `password`; the old texts are freed. When the user cancels, the result is S_OK, `cancelled` is VARIANT_TRUE, and `user` and
// `password` are unchanged. The same holds when the dialog cannot be shown, which is reported: the process has no desktop, or
// the parent window is gone. E_POINTER for a null out argument, E_OUTOFMEMORY; all out arguments are unchanged then.
//
// A question can be cancelled (IVoAuthenticationCancel): its dialog closes as if the user had chosen Cancel.
class CVoAuthCallbackImpl final : public CVoIUnknownImplWithFreeThreadedMarshaller<IVoAuthenticationCallback>,
                                  public IVoAuthenticationCancel
{
    using CBase = CVoIUnknownImplWithFreeThreadedMarshaller<IVoAuthenticationCallback>;

public:
    STDMETHODIMP QueryInterface(REFIID iid, void** object) noexcept override { return CBase::QueryInterface(iid, object); }
    STDMETHODIMP_(ULONG) AddRef() noexcept override { return CBase::AddRef(); }
    STDMETHODIMP_(ULONG) Release() noexcept override { return CBase::Release(); }

    STDMETHODIMP CancelQuestion(DWORD threadId) noexcept override;
    STDMETHODIMP ResetQuestion(DWORD threadId) noexcept override;

    // Sets the owner of the next dialogs; null: no owner. The window is disabled while a dialog is open. The thread that owns
    // the window must process its messages meanwhile, also when the dialog runs on another thread.
    STDMETHODIMP SetParentWindow(HWND parent) noexcept override;
    STDMETHODIMP OnProxyAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                   VARIANT_BOOL* cancelled) noexcept override;
    STDMETHODIMP OnServerAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                    VARIANT_BOOL* cancelled) noexcept override;

protected:
    HRESULT QueryOther(REFIID iid, void** object) noexcept override;

private:
    class COpenDialog;

    ~CVoAuthCallbackImpl() override = default;

    [[nodiscard]] HRESULT AskUser(bool proxy, BSTR title, BSTR serverAddress, BSTR detail, BSTR* user, BSTR* password,
                                  VARIANT_BOOL* cancelled) noexcept;

    std::atomic<HWND> m_parent{ nullptr };
    CVoLock m_lock;                 // guards the following
    std::vector<DWORD> m_cancelled; // threads whose question is cancelled
    std::vector<CAuthDlg*> m_open;  // the dialogs that are open
};

// Creates a callback without a parent window for the calling module. The caller owns one reference. E_POINTER, or
// E_OUTOFMEMORY.
[[nodiscard]] HRESULT CreateGlobalAuthenticationCallbackForModule(IVoAuthenticationCallback** callback) noexcept;
