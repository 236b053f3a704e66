// Queries against Windows Management Instrumentation (WMI).
#pragma once

#include <base/VoMultiThreading.h>
#include <base/VoText.h>
#include <base/com/VoComHelper.h>
#include <base/com/VoIUnknown.h>

#include <atomic>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct IWbemClassObject;
struct IWbemContext;
struct IWbemLocator;
struct IWbemServices;

namespace VoWMIQuery
{
// Runs WQL queries on a worker thread of its own, on which COM is initialised with what WMI needs, whatever the apartment of
// the calling thread:
//
//     VoWMIQuery::CVoWMIQueryStringFields wmi(L"ROOT\\CIMV2");
//     std::vector<std::vector<std::wstring>> rows;
//     hr = wmi.QueryWMIStringFields(L"SELECT Name, State FROM Win32_Service", { { L"Name", L"State" } }, rows);
//
// Any thread may call; the queries of one object run one after the other, those of two objects side by side. The worker starts
// with the first query and ends with the object. Callers wait for it without time limit and without dispatching window
// messages. COM's security is the process's own: where nobody has set it when the worker starts, the worker sets the default
// authentication with impersonation; where it is set already, it stays.
class CVoWMIQueryBase : protected CVoThread
{
public:
    // Called on the worker thread for each object that a query returns. The object is the worker's: AddRef it to keep it. A
    // failing result ends the query and becomes its result; an exception does so as 0x80070428. It must not query its own
    // CVoWMIQueryBase, nor destroy it.
    using Callback = HRESULT (*)(IWbemClassObject* object, void* context);

    // `namespacePath` such as "ROOT\CIMV2", or with a computer "\\server\ROOT\CIMV2". `locale` is the language of localised
    // texts ("MS_409" is English) and null the user's own; `context` holds settings for WMI's providers (such as
    // "__ProviderArchitecture"), is passed on with every call, must be free-threaded, and may be null.
    // Throws CVoHResultException when an event cannot be created, and std::bad_alloc.
    explicit CVoWMIQueryBase(CVoTextView namespacePath, const wchar_t* locale = nullptr, IWbemContext* context = nullptr);
    // Ends the worker, and waits for a query that still runs.
    ~CVoWMIQueryBase() override;

    // Starts the worker and connects it to the namespace, unless that was done. S_OK, or what kept it from starting: WMI's or
    // COM's failure (0x8004100E for a namespace that does not exist), the platform's when there is no thread, or E_FAIL after
    // Stop. A failed start is final: this and every later call of Start gives the same code.
    [[nodiscard]] HRESULT Start() noexcept;

    // Runs one query ("SELECT ... FROM ...") and calls back for each object; after the return the callback is called no more.
    // S_OK, also when nothing was found. E_INVALIDARG without a query or a callback; E_FAIL when the worker could not start
    // (Start tells why), has ended, or cannot be waited for, from when on every query fails; 0x8007046B when called on the
    // worker itself; E_ABORT when Stop ended the query between two objects; otherwise the failure of WMI (0x80041017 for a
    // malformed query, 0x80041010 for an unknown class) or of the callback.
    [[nodiscard]] HRESULT QueryWMI(CVoTextView query, Callback callback, void* context) noexcept;

    // Stop(false) asks the worker to end; a running query then ends before its next object. Every later query fails, also when
    // nothing had been started yet.
    HRESULT Stop(bool wait, DWORD* exitCode = nullptr) noexcept
    {
        m_isStopped.store(true); // for good: what starts the thread takes back its own request to stop
        return CVoThread::Stop(wait, exitCode);
    }
    using CVoThread::IsFinished;

protected:
    bool InitInstance() override;
    HRESULT ExitInstance() override;
    HRESULT Run() override;

private:
    [[nodiscard]] HRESULT StartWorker() noexcept;
    [[nodiscard]] HRESULT InitWMI() noexcept;
    [[nodiscard]] HRESULT Connect();
    void UninitWMI() noexcept;
    [[nodiscard]] HRESULT ProcessQuery() noexcept;
    [[nodiscard]] HRESULT CallBack(IWbemClassObject* object) noexcept;
    [[nodiscard]] HRESULT WaitForAnswer() noexcept;

    const std::wstring m_namespacePath;
    const std::optional<std::wstring> m_locale;
    const CVoComPtr<IWbemContext> m_wmiContext;

    // Held by the caller for the whole of a query.
    CCriticalSection m_lock;
    std::optional<HRESULT> m_startResult;
    std::atomic<bool> m_isStopped{ false };

    // Of the caller while no query runs, of the worker between request and answer.
    CVoBstr m_query;
    Callback m_callback = nullptr;
    void* m_callbackContext = nullptr;
    HRESULT m_queryResult = S_OK;
    CEvent m_request{ false, true };
    CEvent m_answer{ false, true };
    // Held by the worker during a callback, so that a caller who cannot wait any longer can wait for its end.
    CCriticalSection m_callbackLock;

    // Of the worker alone.
    bool m_isComInitialised = false;
    HRESULT m_connectResult = S_OK;
    CVoComPtr<IWbemLocator> m_locator;
    CVoComPtr<IWbemServices> m_services;
};

// Fetches named properties, as text, of every object that a query returns.
class CVoWMIQueryStringFields final : public CVoWMIQueryBase
{
public:
    using CVoWMIQueryBase::CVoWMIQueryBase;

    // One row for each object, with one text for each of `fieldNames` in their order; texts are those of WMIValueToText
    // (VoWMIValue.h). A property that one object lacks is an empty text, as objects of several classes may answer a query; a
    // name that not one of them knows is a mistake, and gives WBEM_E_NOT_FOUND (0x80041002).
    // E_INVALIDARG without a name, or for an empty one, without a query being run; otherwise as QueryWMI. `rows` is replaced on
    // success only.
    [[nodiscard]] HRESULT QueryWMIStringFields(CVoTextView query, std::span<const std::wstring> fieldNames,
                                               std::vector<std::vector<std::wstring>>& rows) noexcept;
};
} // namespace VoWMIQuery
