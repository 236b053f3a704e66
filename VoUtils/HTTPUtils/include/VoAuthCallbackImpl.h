// The library's own authentication callback: a dialog.
#pragma once

#include <VoHTTPStores.h>

#include <atomic>

// Asks the user for a name and a password in a small modal dialog, which runs on the calling thread; other calls, on other
// threads, have dialogs of their own. It remembers nothing: accepted proxy credentials are kept by the proxy store.
//
// The title becomes the dialog's caption, the server address is shown above the fields, the reserved text is not looked at.
// Whether the user cancelled or the dialog could not be shown, as in a process without a desktop or with a parent window that
// is gone (both reported), the answer is S_OK, with `cancelled` VARIANT_TRUE and `user` and `password` untouched. After OK
// `cancelled` is VARIANT_FALSE, and what was entered, which may be empty, replaces the texts in `user` and `password`; texts
// that they held, or null, are freed. Failures: E_POINTER for a null out argument, E_OUTOFMEMORY; all outs are untouched then.
class CVoAuthCallbackImpl final : public CVoIUnknownImplWithFreeThreadedMarshaller<IVoAuthenticationCallback>
{
public:
    // The dialog's owner from the next call on: the window is disabled while a dialog is open. The thread that owns the window
    // must handle its messages meanwhile, also when the call is made on another thread. Null: dialogs without an owner.
    STDMETHODIMP SetParentWindow(HWND parent) noexcept override;
    STDMETHODIMP OnProxyAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                   VARIANT_BOOL* cancelled) noexcept override;
    STDMETHODIMP OnServerAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                    VARIANT_BOOL* cancelled) noexcept override;

private:
    ~CVoAuthCallbackImpl() override = default;

    [[nodiscard]] HRESULT AskUser(BSTR title, BSTR serverAddress, BSTR* user, BSTR* password,
                                  VARIANT_BOOL* cancelled) const noexcept;

    std::atomic<HWND> m_parent{ nullptr };
};

// A new callback without a parent window for the calling module; the caller owns one reference. E_POINTER, or E_OUTOFMEMORY.
[[nodiscard]] HRESULT CreateGlobalAuthenticationCallbackForModule(IVoAuthenticationCallback** callback) noexcept;
