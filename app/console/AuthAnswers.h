// Answers authentication challenges with the credentials of the command line.
#pragma once

#include <VoHTTPStores.h>
#include <base/VoWipe.h>
#include <base/com/VoIUnknown.h>

#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

struct CCredentials
{
    std::wstring user;
    CVoSecret<wchar_t> password;
};

// Gives the credentials once to each target. A second challenge of the same target means that it refused them; more attempts
// could lock an account. Without credentials a challenge is declined. With a dialog the user is asked instead, each time, and a
// question can be cancelled. Any thread.
class CAuthAnswers : public CVoIUnknownImplWithFreeThreadedMarshaller<IVoAuthenticationCallback>, public IVoAuthenticationCancel
{
    using CBase = CVoIUnknownImplWithFreeThreadedMarshaller<IVoAuthenticationCallback>;

public:
    CAuthAnswers(std::optional<CCredentials> server, std::optional<CCredentials> proxy,
                 CVoComPtr<IVoAuthenticationCallback> dialog)
        : m_server(std::move(server)), m_proxy(std::move(proxy)), m_dialog(std::move(dialog))
    {
    }

    // A request succeeded: its credentials were accepted, and may be given again to the challenge of the next request.
    void OnRequestAccepted();

    STDMETHODIMP QueryInterface(REFIID iid, void** object) noexcept override { return CBase::QueryInterface(iid, object); }
    STDMETHODIMP_(ULONG) AddRef() noexcept override { return CBase::AddRef(); }
    STDMETHODIMP_(ULONG) Release() noexcept override { return CBase::Release(); }

    STDMETHODIMP CancelQuestion(DWORD threadId) noexcept override;
    STDMETHODIMP ResetQuestion(DWORD threadId) noexcept override;

    STDMETHODIMP SetParentWindow(HWND parent) noexcept override;
    STDMETHODIMP OnProxyAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                   VARIANT_BOOL* cancelled) noexcept override;
    STDMETHODIMP OnServerAuthNeeded(BSTR title, BSTR serverAddress, BSTR reserved, BSTR* user, BSTR* password,
                                    VARIANT_BOOL* cancelled) noexcept override;

protected:
    HRESULT QueryOther(REFIID iid, void** object) noexcept override;

private:
    HRESULT Answer(const std::optional<CCredentials>& credentials, std::wstring target, BSTR* user, BSTR* password,
                   VARIANT_BOOL* cancelled);

    const std::optional<CCredentials> m_server;
    const std::optional<CCredentials> m_proxy;
    const CVoComPtr<IVoAuthenticationCallback> m_dialog; // null: no dialog
    std::mutex m_lock;
    std::set<std::wstring> m_answered;
};
