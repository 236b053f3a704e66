// WMI queries on a worker thread (VoWMIQuery.h).
#include <win/VoWMIQuery.h>

#include <base/VoErrorHandler.h>
#include <win/VoWMIValue.h>

#include <wbemidl.h>

#include <algorithm>
#include <array>

namespace VoWMIQuery
{
namespace
{
constexpr const wchar_t* kWMIQuerySource = L"..\\..\\source\\win\\VoWMIQuery";
// The platform declares both as enumerations, whose unsigned values its functions do not take.
constexpr LONG kNextWithoutLimit = -1;                                        // WBEM_INFINITE
constexpr HRESULT kPropertyNotFound = static_cast<HRESULT>(WBEM_E_NOT_FOUND); // 0x80041002

// Security that was set earlier in the process is accepted.
HRESULT InitialiseSecurity() noexcept
{
    const HRESULT hr = ::CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                              RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
    return hr == RPC_E_TOO_LATE ? S_OK : hr;
}

HRESULT SecureProxy(IUnknown* proxy) noexcept
{
    return ::CoSetProxyBlanket(proxy, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                               RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
}
} // namespace

CVoWMIQueryBase::CVoWMIQueryBase(CVoTextView namespacePath, const wchar_t* locale, IWbemContext* context)
    : m_namespacePath(namespacePath), m_locale(locale ? std::optional<std::wstring>(locale) : std::nullopt),
      m_wmiContext(context)
{
}

CVoWMIQueryBase::~CVoWMIQueryBase()
{
    Stop(true);
}

HRESULT CVoWMIQueryBase::Start() noexcept
{
    constexpr CVoReporter report{ kWMIQuerySource, L"VoWMIQuery::CVoWMIQueryBase::Start" };
    // The worker runs already; the waiting caller holds the lock.
    if (::GetCurrentThreadId() == ThreadId())
        return S_OK;
    CAutoLock lock(&m_lock);
    const HRESULT hr = StartWorker();
    return SUCCEEDED(hr) ? S_OK : report(92, hr);
}

// Starts the worker once, and returns the result of that start.
HRESULT CVoWMIQueryBase::StartWorker() noexcept
{
    if (!m_startResult)
    {
        const HRESULT hr = m_isStopped.load() ? E_FAIL : CreateThread(false, true, true, L"WMI query", false);
        // A worker that ended without a failure did not start.
        m_startResult = hr == S_FALSE ? E_FAIL : hr;
        // Stop may have been called while it began.
        if (FAILED(*m_startResult) || m_isStopped.load())
            Stop(false);
    }
    return *m_startResult;
}

bool CVoWMIQueryBase::InitInstance()
{
    constexpr CVoReporter report{ kWMIQuerySource, L"VoWMIQuery::CVoWMIQueryBase::InitInstance" };
    m_connectResult = InitWMI();
    if (FAILED(m_connectResult))
        report(118, m_connectResult);
    // Run ends at once after a failure: only its result becomes the thread's exit code.
    return true;
}

HRESULT CVoWMIQueryBase::ExitInstance()
{
    UninitWMI();
    return S_OK;
}

HRESULT CVoWMIQueryBase::InitWMI() noexcept
{
    constexpr CVoReporter report{ kWMIQuerySource, L"VoWMIQuery::CVoWMIQueryBase::InitWMI" };
    if (const HRESULT hr = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED); FAILED(hr))
        return report(138, hr);
    m_isComInitialised = true;
    HRESULT hr = InitialiseSecurity();
    if (FAILED(hr))
    {
        UninitWMI();
        return report(144, hr);
    }
    try
    {
        hr = Connect();
    }
    catch (...)
    {
        hr = report.CurrentException(152);
    }
    if (FAILED(hr))
        UninitWMI();
    return hr;
}

HRESULT CVoWMIQueryBase::Connect()
{
    constexpr CVoReporter report{ kWMIQuerySource, L"VoWMIQuery::CVoWMIQueryBase::InitWMI" };
    HRESULT hr = ::CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator, m_locator.PutVoid());
    if (FAILED(hr))
        return report(164, hr);
    const CVoBstr path(m_namespacePath);
    const CVoBstr locale = m_locale ? CVoBstr(*m_locale) : CVoBstr();
    // With this flag a computer that does not respond fails after two minutes. Without it the call may never return.
    hr = m_locator->ConnectServer(path.Get(), nullptr, nullptr, locale.Get(), WBEM_FLAG_CONNECT_USE_MAX_WAIT, nullptr,
                                  m_wmiContext.Get(), m_services.Put());
    if (SUCCEEDED(hr) && !m_services)
        hr = E_FAIL;
    if (FAILED(hr))
        return report(174, hr);
    hr = SecureProxy(m_services.Get());
    return SUCCEEDED(hr) ? S_OK : report(178, hr);
}

void CVoWMIQueryBase::UninitWMI() noexcept
{
    m_services.Reset();
    m_locator.Reset();
    if (m_isComInitialised)
        ::CoUninitialize();
    m_isComInitialised = false;
}

HRESULT CVoWMIQueryBase::Run()
{
    constexpr CVoReporter report{ kWMIQuerySource, L"VoWMIQuery::CVoWMIQueryBase::Run" };
    if (FAILED(m_connectResult))
        return m_connectResult;
    SignalStarted();
    // If the event cannot be set, end the thread: the caller that waits for the start also waits for its end.
    if (::WaitForSingleObject(StartedEvent(), 0) != WAIT_OBJECT_0)
        return report(200, E_FAIL);

    const std::array<HANDLE, 2> events{ StopEvent(), m_request.Handle() };
    for (;;)
    {
        const DWORD event = ::WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(), FALSE, INFINITE);
        if (event == WAIT_OBJECT_0)
            return S_OK;
        if (event != WAIT_OBJECT_0 + 1)
            return report.LastError(210, 211);
        if (const HRESULT hr = m_request.Reset(); FAILED(hr))
            return report(213, hr);
        m_queryResult = ProcessQuery();
        if (FAILED(m_queryResult))
            report(216, m_queryResult);
        if (const HRESULT hr = m_answer.Set(); FAILED(hr))
            return report(218, hr);
    }
}

// NOLINTNEXTLINE(bugprone-exception-escape): Guard catches what the body throws.
HRESULT CVoWMIQueryBase::ProcessQuery() noexcept
{
    constexpr CVoReporter report{ kWMIQuerySource, L"VoWMIQuery::CVoWMIQueryBase::ProcessQuery" };
    const auto body = [&]() -> HRESULT
    {
        const CVoBstr language(L"WQL");
        CVoComPtr<IEnumWbemClassObject> objects;
        HRESULT hr = m_services->ExecQuery(language.Get(), m_query.Get(), WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY,
                                           m_wmiContext.Get(), objects.Put());
        if (SUCCEEDED(hr) && !objects)
            hr = E_FAIL;
        if (FAILED(hr))
            return report(234, hr);
        // The enumerator is a proxy of its own: without this it has the security that the process was given, perhaps by its
        // program and too low. An enumerator that is no proxy needs none.
        if (const HRESULT secured = SecureProxy(objects.Get()); FAILED(secured) && secured != E_NOINTERFACE)
            report(236, secured);
        for (;;)
        {
            CVoComPtr<IWbemClassObject> object;
            ULONG count = 0;
            if (hr = objects->Next(kNextWithoutLimit, 1, object.Put(), &count); FAILED(hr))
                return report(240, hr);
            if (count == 0 || !object)
                return S_OK;
            if (hr = CallBack(object.Get()); FAILED(hr))
                return report(244, hr);
        }
    };
    return report.Guard(249, body);
}

HRESULT CVoWMIQueryBase::CallBack(IWbemClassObject* object) noexcept
{
    CAutoLock lock(&m_callbackLock);
    if (m_isStopped.load())
        return E_ABORT;
    try
    {
        return m_callback(object, m_callbackContext);
    }
    catch (...)
    {
        return kResultCallbackException;
    }
}

HRESULT CVoWMIQueryBase::QueryWMI(CVoTextView query, Callback callback, void* context) noexcept
{
    constexpr CVoReporter report{ kWMIQuerySource, L"VoWMIQuery::CVoWMIQueryBase::QueryWMI" };
    if (query.empty() || !callback)
        return report(272, E_INVALIDARG);
    // A callback must not wait for its own thread.
    if (::GetCurrentThreadId() == ThreadId())
        return report(275, HResultFromWin32(ERROR_POSSIBLE_DEADLOCK));
    CAutoLock lock(&m_lock);
    if (FAILED(StartWorker()))
        return report(278, E_FAIL);
    // After a failed wait the worker may still use the query.
    if (m_isStopped.load())
        return report(281, E_FAIL);
    try
    {
        m_query = CVoBstr(query);
    }
    catch (...)
    {
        return report.CurrentException(288);
    }
    m_callback = callback;
    m_callbackContext = context;
    if (const HRESULT hr = m_answer.Reset(); FAILED(hr))
        return report(293, hr);
    if (const HRESULT hr = m_request.Set(); FAILED(hr))
        return report(295, hr);
    const HRESULT hr = WaitForAnswer();
    return SUCCEEDED(hr) ? S_OK : report(297, hr);
}

// Waits for the worker. Returns the query's result, or E_FAIL when there will be none.
HRESULT CVoWMIQueryBase::WaitForAnswer() noexcept
{
    // The answer is first in the list: it counts even when the worker has ended meanwhile.
    const std::array<HANDLE, 2> events{ m_answer.Handle(), ThreadHandle() };
    const DWORD event = ::WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(), FALSE, INFINITE);
    if (event == WAIT_OBJECT_0)
        return m_queryResult;
    if (event != WAIT_OBJECT_0 + 1)
    {
        // The worker may still run: ask it to end, and wait until no callback runs.
        Stop(false);
        CAutoLock callbackEnded(&m_callbackLock);
    }
    return E_FAIL;
}

namespace
{
// What the callback of a query for named properties reads and fills.
struct SFieldRows
{
    std::span<const std::wstring> names;
    std::vector<bool> isKnown; // for each name: an object had it
    std::vector<std::vector<std::wstring>> rows;
};

HRESULT ReadFields(IWbemClassObject* object, void* context)
{
    constexpr CVoReporter report{ kWMIQuerySource, L"VoWMIQuery::CVoWMIQueryStringFields::QueryWMIStringFields" };
    SFieldRows& fields = *static_cast<SFieldRows*>(context);
    std::vector<std::wstring> row(fields.names.size());
    for (size_t i = 0; i < row.size(); ++i)
    {
        CVoVariant value;
        CIMTYPE type = CIM_EMPTY;
        HRESULT hr = object->Get(fields.names[i].c_str(), 0, value.Put(), &type, nullptr);
        if (hr == kPropertyNotFound)
            continue;
        if (FAILED(hr))
            return report(338, hr);
        fields.isKnown[i] = true;
        if (hr = WMIValueToText(value.Get(), type, row[i]); FAILED(hr))
            return report(341, hr);
    }
    fields.rows.push_back(std::move(row));
    return S_OK;
}
} // namespace

HRESULT CVoWMIQueryStringFields::QueryWMIStringFields(CVoTextView query, std::span<const std::wstring> fieldNames,
                                                      std::vector<std::vector<std::wstring>>& rows) noexcept
{
    constexpr CVoReporter report{ kWMIQuerySource, L"VoWMIQuery::CVoWMIQueryStringFields::QueryWMIStringFields" };
    const auto isEmpty = [](const std::wstring& name) { return name.empty(); };
    if (fieldNames.empty() || std::any_of(fieldNames.begin(), fieldNames.end(), isEmpty))
        return report(355, E_INVALIDARG);
    const auto body = [&]() -> HRESULT
    {
        SFieldRows fields{ fieldNames, std::vector<bool>(fieldNames.size()), {} };
        if (const HRESULT hr = QueryWMI(query, &ReadFields, &fields); FAILED(hr))
            return report(360, hr);
        const auto unknown = std::find(fields.isKnown.begin(), fields.isKnown.end(), false);
        if (!fields.rows.empty() && unknown != fields.isKnown.end())
        {
            report.Message(364, L"No object has a property %ls",
                           fieldNames[static_cast<size_t>(unknown - fields.isKnown.begin())].c_str());
            return report(366, kPropertyNotFound);
        }
        rows = std::move(fields.rows);
        return S_OK;
    };
    return report.Guard(373, body);
}
} // namespace VoWMIQuery
