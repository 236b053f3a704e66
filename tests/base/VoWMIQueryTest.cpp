#include <win/VoWMIQuery.h>

#include <support/ImportHook.h>
#include <support/LogCapture.h>
#include <support/TestMain.h>

#include <gmock/gmock.h>
#include <wbemidl.h>

#include <functional>
#include <future>
#include <map>
#include <thread>

template <>
struct VoInterfaceId<IWbemLocator>
{
    static constexpr IID value{ 0xDC12A687, 0x737F, 0x11CF, { 0x88, 0x4D, 0x00, 0xAA, 0x00, 0x4B, 0x2E, 0x24 } };
};
template <>
struct VoInterfaceId<IWbemServices>
{
    static constexpr IID value{ 0x9556DC99, 0x828C, 0x11CF, { 0xA3, 0x7E, 0x00, 0xAA, 0x00, 0x32, 0x40, 0xC7 } };
};
template <>
struct VoInterfaceId<IEnumWbemClassObject>
{
    static constexpr IID value{ 0x027947E1, 0xD731, 0x11CE, { 0xA3, 0x57, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01 } };
};
template <>
struct VoInterfaceId<IWbemClassObject>
{
    static constexpr IID value{ 0xDC12A681, 0x737F, 0x11CF, { 0x88, 0x4D, 0x00, 0xAA, 0x00, 0x4B, 0x2E, 0x24 } };
};

namespace
{
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;
using TestSupport::CLogCapture;
using TestSupport::IsReportBy;
using VoWMIQuery::CVoWMIQueryBase;
using VoWMIQuery::CVoWMIQueryStringFields;
using Rows = std::vector<std::vector<std::wstring>>;

constexpr wchar_t kNamespace[] = L"ROOT\\CIMV2";
constexpr HRESULT kUnknownNamespace = static_cast<HRESULT>(0x8004100E);
constexpr HRESULT kUnknownProperty = static_cast<HRESULT>(0x80041002);
constexpr HRESULT kBadQuery = static_cast<HRESULT>(0x80041017);

// What a WMI of our own is to do, and what it saw.
struct SScenario
{
    HRESULT connectResult = S_OK;
    HRESULT queryResult = S_OK;
    bool hasServices = true;
    bool hasEnumerator = true;
    std::vector<std::map<std::wstring, std::wstring>> objects; // property to text
    HRESULT lastResult = WBEM_S_FALSE;                         // of Next behind the last object
    HRESULT getResult = S_OK;
    std::function<void()> beforeNext = [] {};

    std::wstring namespacePath;
    std::wstring locale;
    std::wstring query;
    LONG queryFlags = 0;
    DWORD workerThread = 0;
    int alive = 0; // objects handed out and not released
};

#define NOT_CALLED(method, ...)                                                                                                \
    STDMETHODIMP method(__VA_ARGS__) override                                                                                  \
    {                                                                                                                          \
        return E_NOTIMPL;                                                                                                      \
    }

template <class Interface>
class CFake : public CVoIUnknownImpl<Interface>
{
protected:
    explicit CFake(SScenario& scenario) : m_scenario(scenario) { ++m_scenario.alive; }
    ~CFake() override { --m_scenario.alive; }
    SScenario& m_scenario;
};

class CFakeObject final : public CFake<IWbemClassObject>
{
public:
    CFakeObject(SScenario& scenario, size_t index) : CFake(scenario), m_index(index) {}

    STDMETHODIMP Get(LPCWSTR name, LONG, VARIANT* value, CIMTYPE* type, LONG*) override
    {
        if (FAILED(m_scenario.getResult))
            return m_scenario.getResult;
        const auto& properties = m_scenario.objects[m_index];
        const auto found = properties.find(name);
        if (found == properties.end())
            return kUnknownProperty;
        value->vt = VT_BSTR;
        value->bstrVal = CVoBstr(found->second).Detach();
        *type = CIM_STRING;
        return S_OK;
    }
    NOT_CALLED(GetQualifierSet, IWbemQualifierSet**)
    NOT_CALLED(Put, LPCWSTR, LONG, VARIANT*, CIMTYPE)
    NOT_CALLED(Delete, LPCWSTR)
    NOT_CALLED(GetNames, LPCWSTR, LONG, VARIANT*, SAFEARRAY**)
    NOT_CALLED(BeginEnumeration, LONG)
    NOT_CALLED(Next, LONG, BSTR*, VARIANT*, CIMTYPE*, LONG*)
    NOT_CALLED(EndEnumeration)
    NOT_CALLED(GetPropertyQualifierSet, LPCWSTR, IWbemQualifierSet**)
    NOT_CALLED(Clone, IWbemClassObject**)
    NOT_CALLED(GetObjectText, LONG, BSTR*)
    NOT_CALLED(SpawnDerivedClass, LONG, IWbemClassObject**)
    NOT_CALLED(SpawnInstance, LONG, IWbemClassObject**)
    NOT_CALLED(CompareTo, LONG, IWbemClassObject*)
    NOT_CALLED(GetPropertyOrigin, LPCWSTR, BSTR*)
    NOT_CALLED(InheritsFrom, LPCWSTR)
    NOT_CALLED(GetMethod, LPCWSTR, LONG, IWbemClassObject**, IWbemClassObject**)
    NOT_CALLED(PutMethod, LPCWSTR, LONG, IWbemClassObject*, IWbemClassObject*)
    NOT_CALLED(DeleteMethod, LPCWSTR)
    NOT_CALLED(BeginMethodEnumeration, LONG)
    NOT_CALLED(NextMethod, LONG, BSTR*, IWbemClassObject**, IWbemClassObject**)
    NOT_CALLED(EndMethodEnumeration)
    NOT_CALLED(GetMethodQualifierSet, LPCWSTR, IWbemQualifierSet**)
    NOT_CALLED(GetMethodOrigin, LPCWSTR, BSTR*)

private:
    const size_t m_index;
};

class CFakeEnumerator final : public CFake<IEnumWbemClassObject>
{
public:
    explicit CFakeEnumerator(SScenario& scenario) : CFake(scenario) {}

    STDMETHODIMP Next(LONG timeout, ULONG count, IWbemClassObject** objects, ULONG* returned) override
    {
        m_scenario.beforeNext();
        *returned = 0;
        if (timeout != -1 || count != 1)
            return E_INVALIDARG;
        if (m_next == m_scenario.objects.size())
            return m_scenario.lastResult;
        *objects = new CFakeObject(m_scenario, m_next++);
        *returned = 1;
        return S_OK;
    }
    NOT_CALLED(Reset)
    NOT_CALLED(NextAsync, ULONG, IWbemObjectSink*)
    NOT_CALLED(Clone, IEnumWbemClassObject**)
    NOT_CALLED(Skip, LONG, ULONG)

private:
    size_t m_next = 0;
};

class CFakeServices final : public CFake<IWbemServices>
{
public:
    explicit CFakeServices(SScenario& scenario) : CFake(scenario) {}

    STDMETHODIMP ExecQuery(BSTR const language, BSTR const query, LONG flags, IWbemContext*,
                           IEnumWbemClassObject** enumerator) override
    {
        EXPECT_EQ(CVoBstr::ViewOf(language), L"WQL");
        m_scenario.query = CVoBstr::ViewOf(query);
        m_scenario.queryFlags = flags;
        m_scenario.workerThread = ::GetCurrentThreadId();
        if (SUCCEEDED(m_scenario.queryResult) && m_scenario.hasEnumerator)
            *enumerator = new CFakeEnumerator(m_scenario);
        return m_scenario.queryResult;
    }
    NOT_CALLED(OpenNamespace, BSTR const, LONG, IWbemContext*, IWbemServices**, IWbemCallResult**)
    NOT_CALLED(CancelAsyncCall, IWbemObjectSink*)
    NOT_CALLED(QueryObjectSink, LONG, IWbemObjectSink**)
    NOT_CALLED(GetObject, BSTR const, LONG, IWbemContext*, IWbemClassObject**, IWbemCallResult**)
    NOT_CALLED(GetObjectAsync, BSTR const, LONG, IWbemContext*, IWbemObjectSink*)
    NOT_CALLED(PutClass, IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**)
    NOT_CALLED(PutClassAsync, IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*)
    NOT_CALLED(DeleteClass, BSTR const, LONG, IWbemContext*, IWbemCallResult**)
    NOT_CALLED(DeleteClassAsync, BSTR const, LONG, IWbemContext*, IWbemObjectSink*)
    NOT_CALLED(CreateClassEnum, BSTR const, LONG, IWbemContext*, IEnumWbemClassObject**)
    NOT_CALLED(CreateClassEnumAsync, BSTR const, LONG, IWbemContext*, IWbemObjectSink*)
    NOT_CALLED(PutInstance, IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**)
    NOT_CALLED(PutInstanceAsync, IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*)
    NOT_CALLED(DeleteInstance, BSTR const, LONG, IWbemContext*, IWbemCallResult**)
    NOT_CALLED(DeleteInstanceAsync, BSTR const, LONG, IWbemContext*, IWbemObjectSink*)
    NOT_CALLED(CreateInstanceEnum, BSTR const, LONG, IWbemContext*, IEnumWbemClassObject**)
    NOT_CALLED(CreateInstanceEnumAsync, BSTR const, LONG, IWbemContext*, IWbemObjectSink*)
    NOT_CALLED(ExecQueryAsync, BSTR const, BSTR const, LONG, IWbemContext*, IWbemObjectSink*)
    NOT_CALLED(ExecNotificationQuery, BSTR const, BSTR const, LONG, IWbemContext*, IEnumWbemClassObject**)
    NOT_CALLED(ExecNotificationQueryAsync, BSTR const, BSTR const, LONG, IWbemContext*, IWbemObjectSink*)
    NOT_CALLED(ExecMethod, BSTR const, BSTR const, LONG, IWbemContext*, IWbemClassObject*, IWbemClassObject**,
               IWbemCallResult**)
    NOT_CALLED(ExecMethodAsync, BSTR const, BSTR const, LONG, IWbemContext*, IWbemClassObject*, IWbemObjectSink*)
};

class CFakeLocator final : public CFake<IWbemLocator>
{
public:
    explicit CFakeLocator(SScenario& scenario) : CFake(scenario) {}

    STDMETHODIMP ConnectServer(BSTR const path, BSTR const user, BSTR const password, BSTR const locale, LONG, BSTR const,
                               IWbemContext*, IWbemServices** services) override
    {
        EXPECT_FALSE(user || password);
        m_scenario.namespacePath = CVoBstr::ViewOf(path);
        m_scenario.locale = CVoBstr::ViewOf(locale);
        if (SUCCEEDED(m_scenario.connectResult) && m_scenario.hasServices)
            *services = new CFakeServices(m_scenario);
        return m_scenario.connectResult;
    }
};

// Puts the fakes in WMI's place for a scope.
class CFakeWmi
{
public:
    explicit CFakeWmi(SScenario& scenario)
        : m_create("ole32.dll", "CoCreateInstance",
                   [&scenario](auto, REFCLSID classId, LPUNKNOWN, DWORD, REFIID, LPVOID* object)
                   {
                       EXPECT_EQ(classId, CLSID_WbemLocator);
                       *object = new CFakeLocator(scenario);
                       return S_OK;
                   }),
          m_blanket("ole32.dll", "CoSetProxyBlanket",
                    [](auto, IUnknown*, DWORD authentication, DWORD authorisation, OLECHAR* principal, DWORD level,
                       DWORD impersonation, RPC_AUTH_IDENTITY_HANDLE identity, DWORD capabilities)
                    {
                        EXPECT_EQ(authentication, static_cast<DWORD>(RPC_C_AUTHN_WINNT));
                        EXPECT_EQ(authorisation, static_cast<DWORD>(RPC_C_AUTHZ_NONE));
                        EXPECT_EQ(level, static_cast<DWORD>(RPC_C_AUTHN_LEVEL_CALL));
                        EXPECT_EQ(impersonation, static_cast<DWORD>(RPC_C_IMP_LEVEL_IMPERSONATE));
                        EXPECT_EQ(capabilities, static_cast<DWORD>(EOAC_NONE));
                        EXPECT_FALSE(principal || identity);
                        return S_OK;
                    })
    {
    }

private:
    CCallHook<decltype(&::CoCreateInstance)> m_create;
    CCallHook<decltype(&::CoSetProxyBlanket)> m_blanket;
};

HRESULT CountObjects(IWbemClassObject* /*object*/, void* count)
{
    ++*static_cast<int*>(count);
    return S_OK;
}

// Whether a query fails as a worker's end must make it fail, without a call back.
void ExpectNoAnswer(CVoWMIQueryBase& wmi)
{
    int count = 0;
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", &CountObjects, &count), E_FAIL);
    EXPECT_EQ(count, 0);
}

TEST(WmiQuery, ReadsTheMachinesOwnProperties)
{
    CVoWMIQueryStringFields wmi(kNamespace);
    Rows rows;
    const std::vector<std::wstring> fields{ L"Caption", L"LastBootUpTime", L"ProductType", L"SuiteMask", L"Primary" };
    ASSERT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM Win32_OperatingSystem", fields, rows), S_OK);
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_THAT(rows[0],
                ElementsAre(testing::StartsWith(L"Microsoft Windows"),
                            testing::Truly([](const std::wstring& text) { return text.size() > 10 && text[10] == L'T'; }),
                            Not(L""), testing::_, L"TRUE"));

    // The same object goes on answering: no rows, a malformed query, and a name that nothing has.
    ASSERT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM Win32_OperatingSystem WHERE Caption='none'", fields, rows), S_OK);
    EXPECT_TRUE(rows.empty());
    rows = { { L"before" } };
    CLogCapture log;
    EXPECT_EQ(wmi.QueryWMIStringFields(L"SELEKT", fields, rows), kBadQuery);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"VoWMIQuery::CVoWMIQueryBase::ProcessQuery", kBadQuery),
                                         IsReportBy(L"VoWMIQuery::CVoWMIQueryBase::Run", kBadQuery),
                                         IsReportBy(L"VoWMIQuery::CVoWMIQueryBase::QueryWMI", kBadQuery),
                                         IsReportBy(L"VoWMIQuery::CVoWMIQueryStringFields::QueryWMIStringFields", kBadQuery)));
    EXPECT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM Win32_OperatingSystem", { { L"Caption", L"Captoin" } }, rows),
              kUnknownProperty);
    EXPECT_EQ(rows, (Rows{ { L"before" } }));
}

TEST(WmiQuery, TwoObjectsAnswerTwoThreadsAtOnce)
{
    // Each thread has a class of its own: Wine's service crashes now and then when two threads fill the table of one class.
    const auto work = [](const wchar_t* query, const wchar_t* field)
    {
        CVoWMIQueryStringFields wmi(kNamespace);
        for (int i = 0; i < 5; ++i)
        {
            Rows rows;
            const HRESULT hr = wmi.QueryWMIStringFields(query, { { field } }, rows);
            if (FAILED(hr) || rows.size() != 1 || rows[0][0].empty())
                return false;
        }
        return true;
    };
    std::future<bool> other = std::async(std::launch::async, work, L"SELECT * FROM Win32_ComputerSystem", L"Model");
    EXPECT_TRUE(work(L"SELECT * FROM Win32_OperatingSystem", L"Version"));
    EXPECT_TRUE(other.get());
}

TEST(WmiQuery, CallersOfOneObjectTakeTurns)
{
    CVoWMIQueryStringFields wmi(kNamespace);
    const auto work = [&](const std::wstring& field)
    {
        Rows rows;
        for (int i = 0; i < 10; ++i)
        {
            const HRESULT hr =
                wmi.QueryWMIStringFields(L"SELECT * FROM Win32_OperatingSystem", { { field, L"__CLASS" } }, rows);
            if (FAILED(hr) || rows.size() != 1 || rows[0][1] != L"Win32_OperatingSystem")
                return false;
        }
        return true;
    };
    std::future<bool> other = std::async(std::launch::async, work, L"Version");
    EXPECT_TRUE(work(L"Caption"));
    EXPECT_TRUE(other.get());
}

TEST(WmiQuery, ArgumentsAreCheckedBeforeAnythingStarts)
{
    CCallHook<decltype(&::CreateThread)> noThread("kernel32.dll", "CreateThread",
                                                  [](auto, auto...) -> HANDLE
                                                  {
                                                      ADD_FAILURE() << "a worker was started";
                                                      return nullptr;
                                                  });
    CVoWMIQueryStringFields wmi(kNamespace);
    Rows rows{ { L"before" } };
    int count = 0;
    EXPECT_EQ(wmi.QueryWMI(L"", &CountObjects, &count), E_INVALIDARG);
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", nullptr, &count), E_INVALIDARG);
    EXPECT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM A", {}, rows), E_INVALIDARG);
    EXPECT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM A", { { L"A", L"" } }, rows), E_INVALIDARG);
    EXPECT_EQ(wmi.QueryWMIStringFields(L"", { { L"A" } }, rows), E_INVALIDARG);
    EXPECT_EQ(rows, (Rows{ { L"before" } }));
}

TEST(WmiQuery, ObjectsOfDifferentClassesGiveEmptyTextForWhatTheyLack)
{
    SScenario scenario;
    scenario.objects = { { { L"A", L"1" } }, { { L"A", L"2" }, { L"B", L"x" } } };
    const CFakeWmi fake(scenario);
    {
        CVoWMIQueryStringFields wmi(L"ROOT\\Test", L"MS_409");
        Rows rows;
        ASSERT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM A", { { L"B", L"A" } }, rows), S_OK);
        EXPECT_EQ(rows, (Rows{ { L"", L"1" }, { L"x", L"2" } }));
        EXPECT_EQ(wmi.Start(), S_OK);
    }
    EXPECT_EQ(scenario.namespacePath, L"ROOT\\Test");
    EXPECT_EQ(scenario.locale, L"MS_409");
    EXPECT_EQ(scenario.query, L"SELECT * FROM A");
    EXPECT_EQ(scenario.queryFlags, 0x30);
    EXPECT_NE(scenario.workerThread, ::GetCurrentThreadId());
    EXPECT_EQ(scenario.alive, 0);
}

TEST(WmiQuery, AFailureOfWmiIsTheQuerysResultAndLeavesTheRows)
{
    struct SCase
    {
        std::function<void(SScenario&)> arrange;
        HRESULT expected;
    };
    const SCase cases[] = {
        { [](SScenario& s) { s.queryResult = E_ACCESSDENIED; }, E_ACCESSDENIED },
        { [](SScenario& s) { s.hasEnumerator = false; }, E_FAIL },
        // An unknown class shows only when its first object is asked for.
        { [](SScenario& s) { s.lastResult = static_cast<HRESULT>(0x80041010); }, static_cast<HRESULT>(0x80041010) },
        { [](SScenario& s) { s.getResult = E_OUTOFMEMORY; }, E_OUTOFMEMORY },
    };
    for (const SCase& testCase : cases)
    {
        SScenario scenario;
        scenario.objects = { { { L"A", L"1" } } };
        testCase.arrange(scenario);
        const CFakeWmi fake(scenario);
        {
            CVoWMIQueryStringFields wmi(kNamespace);
            Rows rows{ { L"before" } };
            EXPECT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM A", { { L"A" } }, rows), testCase.expected);
            EXPECT_EQ(rows, (Rows{ { L"before" } }));
            // The next query is not the worse for it.
            scenario.queryResult = S_OK;
            scenario.hasEnumerator = true;
            scenario.lastResult = WBEM_S_FALSE;
            scenario.getResult = S_OK;
            EXPECT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM A", { { L"A" } }, rows), S_OK);
            EXPECT_EQ(rows, (Rows{ { L"1" } }));
        }
        EXPECT_EQ(scenario.alive, 0);
    }
}

TEST(WmiQuery, ACallbackEndsTheQueryByFailingOrThrowing)
{
    SScenario scenario;
    scenario.objects.resize(3);
    const CFakeWmi fake(scenario);
    CVoWMIQueryBase wmi(kNamespace);
    const auto failAtSecond = [](IWbemClassObject*, void* count) -> HRESULT
    { return ++*static_cast<int*>(count) == 2 ? E_ACCESSDENIED : S_FALSE; };
    const auto throwAtFirst = [](IWbemClassObject*, void* count) -> HRESULT
    {
        ++*static_cast<int*>(count);
        throw std::runtime_error("callback");
    };
    int count = 0;
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", failAtSecond, &count), E_ACCESSDENIED);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", throwAtFirst, &count), kResultCallbackException);
    EXPECT_EQ(count, 3);

    // A query from inside a query would wait for itself.
    const auto queryAgain = [](IWbemClassObject*, void* query) -> HRESULT
    {
        CVoWMIQueryBase& self = *static_cast<CVoWMIQueryBase*>(query);
        int none = 0;
        EXPECT_EQ(self.Start(), S_OK);
        return self.QueryWMI(L"SELECT * FROM A", &CountObjects, &none);
    };
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", queryAgain, &wmi), HResultFromWin32(ERROR_POSSIBLE_DEADLOCK));
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", &CountObjects, &count), S_OK);
    EXPECT_EQ(count, 6);
}

TEST(WmiQuery, EveryFailureOfTheStartIsToldAndMakesEveryQueryFail)
{
    CLogCapture log;
    const auto wasReported = [&](HRESULT code)
    {
        const bool found =
            testing::Value(log.Lines(), AllOf(Contains(IsReportBy(L"VoWMIQuery::CVoWMIQueryBase::InitWMI", code)),
                                              Contains(IsReportBy(L"VoWMIQuery::CVoWMIQueryBase::InitInstance", code)),
                                              Contains(IsReportBy(L"VoWMIQuery::CVoWMIQueryBase::Start", code))));
        log.Clear();
        return found;
    };
    const auto fault = [](auto type, const char* function)
    { return MakeFault(type, "ole32.dll", function, E_ACCESSDENIED, ERROR_SUCCESS, E_ACCESSDENIED); };
    const CAcquireBalance com = CAcquireBalance::Of<decltype(&::CoInitializeEx), decltype(&::CoUninitialize)>(
        "ole32.dll", "CoInitializeEx", "CoUninitialize", ESuccess::Zero);
    ExpectEveryFailureIsHandled({ fault(static_cast<decltype(&::CoInitializeEx)>(nullptr), "CoInitializeEx"),
                                  fault(static_cast<decltype(&::CoInitializeSecurity)>(nullptr), "CoInitializeSecurity"),
                                  fault(static_cast<decltype(&::CoCreateInstance)>(nullptr), "CoCreateInstance"),
                                  fault(static_cast<decltype(&::CoSetProxyBlanket)>(nullptr), "CoSetProxyBlanket"),
                                  MakeFault(static_cast<decltype(&::SysAllocStringLen)>(nullptr), "oleaut32.dll",
                                            "SysAllocStringLen", nullptr, ERROR_SUCCESS, E_OUTOFMEMORY) },
                                []
                                {
                                    CVoWMIQueryBase wmi(kNamespace);
                                    const HRESULT hr = wmi.Start();
                                    if (FAILED(hr))
                                    {
                                        ExpectNoAnswer(wmi);
                                        EXPECT_EQ(wmi.Start(), hr);
                                        EXPECT_TRUE(wmi.IsFinished());
                                    }
                                    return hr;
                                },
                                wasReported, { &com });

    CVoWMIQueryBase nowhere(L"ROOT\\NoSuchNamespace");
    ExpectNoAnswer(nowhere);
    EXPECT_EQ(nowhere.Start(), kUnknownNamespace);

    SScenario scenario;
    scenario.hasServices = false;
    const CFakeWmi fake(scenario);
    EXPECT_EQ(CVoWMIQueryBase(kNamespace).Start(), E_FAIL);
    EXPECT_EQ(scenario.alive, 0);
}

TEST(WmiQuery, SecurityThatTheProcessHasSetServes)
{
    const CFailOnCall<decltype(&::CoInitializeSecurity)> tooLate("ole32.dll", "CoInitializeSecurity", 1, RPC_E_TOO_LATE, 0);
    CVoWMIQueryBase wmi(kNamespace);
    int count = 0;
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM Win32_OperatingSystem", &CountObjects, &count), S_OK);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(tooLate.Calls(), 1);
}

TEST(WmiQuery, AWorkerThatCannotBeMadeOrCannotAnswerIsAFailure)
{
    {
        const CFailOnCall<decltype(&::CreateThread)> noThread("kernel32.dll", "CreateThread", 1, nullptr,
                                                              ERROR_MAX_THRDS_REACHED);
        CVoWMIQueryBase wmi(kNamespace);
        ExpectNoAnswer(wmi);
        EXPECT_EQ(wmi.Start(), HResultFromWin32(ERROR_MAX_THRDS_REACHED));
    }
    SScenario scenario;
    const CFakeWmi fake(scenario);
    int count = 0;
    // Setting an event: that the worker has started, the caller's request, the worker's answer. After the first and the last
    // the worker ends, after the second it can still answer.
    for (const auto& [call, expected, later] :
         { std::tuple(1, E_FAIL, E_FAIL), std::tuple(2, E_ACCESSDENIED, S_OK), std::tuple(3, E_FAIL, E_FAIL) })
    {
        CVoWMIQueryBase wmi(kNamespace);
        const CFailOnCall<decltype(&::SetEvent)> noEvent("kernel32.dll", "SetEvent", call, FALSE, ERROR_ACCESS_DENIED);
        EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", &CountObjects, &count), expected) << call;
        EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", &CountObjects, &count), later) << call;
    }
}

TEST(WmiQuery, AWorkerThatEndsOrDiesIsAFailureAndNoHang)
{
    SScenario scenario;
    scenario.objects.resize(2);
    const CFakeWmi fake(scenario);
    CLogCapture log;
    {
        CVoWMIQueryBase wmi(kNamespace);
        ASSERT_EQ(wmi.Start(), S_OK);
        EXPECT_EQ(wmi.Stop(true), S_OK);
        ExpectNoAnswer(wmi);
        EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"VoWMIQuery::CVoWMIQueryBase::QueryWMI", E_FAIL)));
    }
    {
        CVoWMIQueryBase wmi(kNamespace);
        const auto stop = [](IWbemClassObject*, void* query) -> HRESULT
        { return static_cast<CVoWMIQueryBase*>(query)->Stop(false); };
        EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", stop, &wmi), E_ABORT);
        ExpectNoAnswer(wmi);
    }
    EXPECT_EQ(scenario.alive, 0);
    {
        // The thread is gone in the middle of a query, with all that it held.
        scenario.beforeNext = [] { ::ExitThread(7); };
        CVoWMIQueryBase wmi(kNamespace);
        ExpectNoAnswer(wmi);
        ExpectNoAnswer(wmi);
    }
}

TEST(WmiQuery, ACallerThatCannotWaitLeavesNothingBehind)
{
    SScenario scenario;
    scenario.objects.resize(2);
    const CFakeWmi fake(scenario);
    CVoWMIQueryBase wmi(kNamespace);
    ASSERT_EQ(wmi.Start(), S_OK);

    // The worker comes to its first object only when the caller's wait has failed.
    CEvent waitFailed(false, true);
    scenario.beforeNext = [&] { ::WaitForSingleObject(waitFailed.Handle(), INFINITE); };
    const DWORD caller = ::GetCurrentThreadId();
    {
        const CCallHook<decltype(&::WaitForMultipleObjects)> hook(
            "kernel32.dll", "WaitForMultipleObjects",
            [&](auto original, DWORD count, const HANDLE* handles, BOOL all, DWORD timeout) -> DWORD
            {
                if (::GetCurrentThreadId() != caller)
                    return original(count, handles, all, timeout);
                ::SetLastError(ERROR_INVALID_HANDLE);
                return WAIT_FAILED;
            });
        ExpectNoAnswer(wmi);
    }
    int late = 0;
    EXPECT_EQ(waitFailed.Set(), S_OK);
    EXPECT_EQ(wmi.Stop(true), S_OK);
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", &CountObjects, &late), E_FAIL);
    EXPECT_EQ(late, 0);
    EXPECT_EQ(scenario.alive, 0);
}
} // namespace
