// Tests of WMI queries, on the real service and with injected failures.
#include <base/VoUtils.h>
#include <win/VoWMIQuery.h>

#include <support/ImportHook.h>
#include <support/LogCapture.h>
#include <support/TestMain.h>

#include <gmock/gmock.h>
#include <wbemidl.h>

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <thread>

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
constexpr HRESULT kUnknownProperty = static_cast<HRESULT>(0x80041002);

// What a WMI of our own is to do, and what it saw.
struct SScenario
{
    std::vector<std::map<std::wstring, std::wstring>> objects; // property to text
    std::string failing;                                       // the function that does not do its work
    HRESULT failure = S_OK;                                    // what it returns
    std::function<void()> beforeNext = [] {};

    std::wstring seen;
    DWORD workerThread = 0;
    int alive = 0; // objects handed out and not released
};

// An object of WMI's as COM lays it down in memory: a pointer to its functions, the first three of which are IUnknown's. Of the
// others the library calls one of each interface.
struct SFake
{
    const std::array<void*, 32>* functions;
    SScenario& scenario;
    size_t next = 0; // of an enumerator: the object to come; of an object: its number
    std::atomic<ULONG> references{ 1 };

    static ULONG STDMETHODCALLTYPE AddRef(SFake* self) { return ++self->references; }
    static ULONG STDMETHODCALLTYPE Release(SFake* self)
    {
        const ULONG left = --self->references;
        if (left == 0)
        {
            --self->scenario.alive;
            delete self;
        }
        return left;
    }

    // A new object whose function number `slot` is this one.
    template <size_t slot, auto function, class Interface>
    static HRESULT Make(SScenario& scenario, size_t next, Interface** object)
    {
        static const std::array<void*, 32> functions = []
        {
            std::array<void*, 32> table{};
            table[1] = reinterpret_cast<void*>(&AddRef);
            table[2] = reinterpret_cast<void*>(&Release);
            table[slot] = reinterpret_cast<void*>(function);
            return table;
        }();
        ++scenario.alive;
        *object = reinterpret_cast<Interface*>(new SFake{ &functions, scenario, next });
        return S_OK;
    }
};

// IWbemClassObject::Get
HRESULT STDMETHODCALLTYPE GetProperty(SFake* self, LPCWSTR name, LONG, VARIANT* value, CIMTYPE* type, LONG*)
{
    if (self->scenario.failing == "Get")
        return self->scenario.failure;
    const auto& properties = self->scenario.objects[self->next];
    const auto found = properties.find(name);
    if (found == properties.end())
        return kUnknownProperty;
    value->vt = VT_BSTR;
    value->bstrVal = CVoBstr(found->second).Detach();
    *type = CIM_STRING;
    return S_OK;
}

// IEnumWbemClassObject::Next
HRESULT STDMETHODCALLTYPE NextObject(SFake* self, LONG timeout, ULONG count, IWbemClassObject** objects, ULONG* returned)
{
    SScenario& scenario = self->scenario;
    scenario.beforeNext();
    *returned = 0;
    EXPECT_TRUE(timeout == -1 && count == 1);
    if (self->next == scenario.objects.size())
        return scenario.failing == "Next" ? scenario.failure : S_FALSE; // WBEM_S_FALSE
    *returned = 1;
    return SFake::Make<4, &GetProperty>(scenario, self->next++, objects);
}

// IWbemServices::ExecQuery
HRESULT STDMETHODCALLTYPE ExecQuery(SFake* self, BSTR language, BSTR query, LONG flags, void*, IEnumWbemClassObject** objects)
{
    SScenario& scenario = self->scenario;
    scenario.seen += VoFormat(L" %ls: %ls, %lX", language, query, flags);
    scenario.workerThread = ::GetCurrentThreadId();
    return scenario.failing == "ExecQuery" ? scenario.failure : SFake::Make<4, &NextObject>(scenario, 0, objects);
}

// IWbemLocator::ConnectServer
HRESULT STDMETHODCALLTYPE Connect(SFake* self, BSTR path, BSTR user, BSTR password, BSTR locale, LONG, BSTR, void*,
                                  IWbemServices** services)
{
    EXPECT_FALSE(user || password);
    SScenario& scenario = self->scenario;
    scenario.seen = VoFormat(L"%ls %ls", path, locale ? locale : L"");
    return scenario.failing == "ConnectServer" ? scenario.failure : SFake::Make<20, &ExecQuery>(scenario, 0, services);
}

// Puts the fakes in WMI's place for a scope.
struct CFakeWmi
{
    explicit CFakeWmi(SScenario& scenario)
        : create("ole32.dll", "CoCreateInstance", [&scenario](auto, REFCLSID classId, LPUNKNOWN, DWORD, REFIID, LPVOID* object)
    {
        EXPECT_EQ(classId, CLSID_WbemLocator);
        return SFake::Make<3, &Connect>(scenario, 0, object);
    })
    {
    }

    CCallHook<decltype(&::CoCreateInstance)> create;
    CCallHook<decltype(&::CoSetProxyBlanket)> blanket{ "ole32.dll", "CoSetProxyBlanket",
                                                       [](auto, IUnknown*, DWORD service, DWORD authorisation,
                                                          OLECHAR* principal, DWORD level, DWORD impersonation, void* identity,
                                                          DWORD capabilities)
    {
        EXPECT_FALSE(principal || identity);
        EXPECT_THAT((std::vector{ service, authorisation, level, impersonation, capabilities }),
                    ElementsAre(10u, 0u, 3u, 3u, 0u)); // NTLM, no authorisation, each call, impersonate, none
        return S_OK;
    } };
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

TEST(WmiQuery, QueriesOfOneObjectRunInTurnAndThoseOfTwoObjectsAtOnce)
{
    CVoWMIQueryStringFields one(kNamespace);
    CVoWMIQueryStringFields two(kNamespace);
    const auto work = [](CVoWMIQueryStringFields& wmi, const std::wstring& name, const wchar_t* field)
    {
        Rows rows;
        for (int i = 0; i < 6; ++i)
        {
            EXPECT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM " + name, { { L"__CLASS", field } }, rows), S_OK);
            EXPECT_THAT(rows, ElementsAre(ElementsAre(name, Not(L""))));
        }
    };
    // Each object has a class of its own: Wine's service crashes now and then when two threads fill the table of one class.
    const std::jthread turn(work, std::ref(one), L"Win32_OperatingSystem", L"Version");
    const std::jthread other(work, std::ref(two), L"Win32_ComputerSystem", L"Model");
    work(one, L"Win32_OperatingSystem", L"Caption");
}

TEST(WmiQuery, ArgumentsAreCheckedBeforeAnythingStarts)
{
    const CFailOnCall<decltype(&::CreateThread)> threads("kernel32.dll", "CreateThread", 0, nullptr, 0);
    CVoWMIQueryStringFields wmi(kNamespace);
    Rows rows{ { L"before" } };
    EXPECT_EQ(wmi.QueryWMI(L"", &CountObjects, nullptr), E_INVALIDARG);
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", nullptr, nullptr), E_INVALIDARG);
    EXPECT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM A", {}, rows), E_INVALIDARG);
    EXPECT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM A", { { L"A", L"" } }, rows), E_INVALIDARG);
    EXPECT_EQ(rows, (Rows{ { L"before" } }));
    EXPECT_EQ(threads.Calls(), 0);
}

TEST(WmiQuery, APropertyThatAnObjectLacksIsAnEmptyText)
{
    SScenario scenario;
    scenario.objects = { { { L"A", L"1" } }, { { L"A", L"2" }, { L"B", L"x" } } };
    const CFakeWmi fake(scenario);
    {
        CVoWMIQueryStringFields wmi(L"ROOT\\Test", L"MS_409");
        Rows rows;
        ASSERT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM A", { { L"B", L"A" } }, rows), S_OK);
        EXPECT_EQ(rows, (Rows{ { L"", L"1" }, { L"x", L"2" } }));
        EXPECT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM A", { { L"C" } }, rows), kUnknownProperty);
        EXPECT_EQ(rows.size(), 2U);
    }
    EXPECT_EQ(scenario.seen, L"ROOT\\Test MS_409 WQL: SELECT * FROM A, 30 WQL: SELECT * FROM A, 30");
    EXPECT_NE(scenario.workerThread, ::GetCurrentThreadId());
    EXPECT_EQ(scenario.alive, 0);
}

TEST(WmiQuery, AFailureOfWmiIsTheQuerysResultAndLeavesTheRows)
{
    // A success without the object that it is to give is a failure too. An unknown class shows only when its first object is
    // asked for.
    const std::tuple<const char*, HRESULT, HRESULT> cases[] = {
        { "ConnectServer", S_OK, E_FAIL },       { "ExecQuery", E_ACCESSDENIED, E_ACCESSDENIED },
        { "ExecQuery", S_OK, E_FAIL },           { "Next", kUnknownProperty, kUnknownProperty },
        { "Get", E_OUTOFMEMORY, E_OUTOFMEMORY },
    };
    for (const auto& [function, failure, expected] : cases)
    {
        SCOPED_TRACE(function);
        SScenario scenario;
        scenario.objects = { { { L"A", L"1" } } };
        scenario.failing = function;
        scenario.failure = failure;
        const CFakeWmi fake(scenario);
        const CLogCapture log;
        {
            CVoWMIQueryStringFields wmi(kNamespace);
            Rows rows{ { L"before" } };
            EXPECT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM A", { { L"A" } }, rows), expected);
            EXPECT_EQ(rows, (Rows{ { L"before" } }));
            EXPECT_THAT(log.Lines(), Contains(IsReportBy(L"VoWMIQuery::CVoWMIQueryBase::QueryWMI", expected)));
            EXPECT_THAT(log.Lines().back(), IsReportBy(L"VoWMIQuery::CVoWMIQueryStringFields::QueryWMIStringFields", expected));
            // The next query is not the worse for it, unless there is no connection.
            const bool isConnected = scenario.failing != "ConnectServer";
            scenario.failing.clear();
            EXPECT_EQ(wmi.QueryWMIStringFields(L"SELECT * FROM A", { { L"A" } }, rows), isConnected ? S_OK : E_FAIL);
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
    const auto throwAtOnce = [](IWbemClassObject*, void*) -> HRESULT { throw std::runtime_error("callback"); };
    // A query from inside a query would wait for itself.
    const auto queryAgain = [](IWbemClassObject*, void* query) -> HRESULT
    { return static_cast<CVoWMIQueryBase*>(query)->QueryWMI(L"SELECT * FROM A", &CountObjects, nullptr); };
    int count = 0;
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", failAtSecond, &count), E_ACCESSDENIED);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", throwAtOnce, nullptr), kResultCallbackException);
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", queryAgain, &wmi), HResultFromWin32(ERROR_POSSIBLE_DEADLOCK));
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", &CountObjects, &count), S_OK);
    EXPECT_EQ(count, 5);
}

TEST(WmiQuery, EveryFailureOfTheStartIsReportedAndMakesEveryQueryFail)
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
    const CAcquireBalance com = CAcquireBalance::Of<decltype(&::CoInitializeEx), decltype(&::CoUninitialize)>(
        "ole32.dll", "CoInitializeEx", "CoUninitialize", ESuccess::Zero);
    const auto run = []
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
    };
    ExpectEveryFailureIsHandled(
        {
            VO_FAULT_GIVES("ole32.dll", CoInitializeEx, E_ACCESSDENIED, 0, E_ACCESSDENIED),
            VO_FAULT_GIVES("ole32.dll", CoInitializeSecurity, E_ACCESSDENIED, 0, E_ACCESSDENIED),
            VO_FAULT_GIVES("ole32.dll", CoCreateInstance, E_ACCESSDENIED, 0, E_ACCESSDENIED),
            VO_FAULT_GIVES("ole32.dll", CoSetProxyBlanket, E_ACCESSDENIED, 0, E_ACCESSDENIED),
            VO_FAULT_GIVES("oleaut32.dll", SysAllocStringLen, nullptr, 0, E_OUTOFMEMORY),
        },
        run, wasReported, { &com });
}

TEST(WmiQuery, SecurityThatWasSetEarlierInTheProcessIsAccepted)
{
    SScenario scenario;
    const CFakeWmi fake(scenario);
    scenario.objects.resize(2);
    const CFailOnCall<decltype(&::CoInitializeSecurity)> tooLate("ole32.dll", "CoInitializeSecurity", 1, RPC_E_TOO_LATE, 0);
    CVoWMIQueryBase wmi(kNamespace);
    EXPECT_EQ(wmi.Start(), S_OK);
    EXPECT_EQ(tooLate.Calls(), 1);
    // Then the process's own security may be too low for the objects: their proxy gets the same as the services'.
    const CLogCapture log;
    const CFailOnCall<decltype(&::CoSetProxyBlanket)> noSecurity("ole32.dll", "CoSetProxyBlanket", 1, E_ACCESSDENIED, 0);
    int count = 0;
    EXPECT_EQ(wmi.QueryWMI(L"SELECT * FROM A", &CountObjects, &count), S_OK);
    EXPECT_EQ(count, 2);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"VoWMIQuery::CVoWMIQueryBase::ProcessQuery", E_ACCESSDENIED)));
}

TEST(WmiQuery, AWorkerThatCannotAnswerIsAFailure)
{
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

TEST(WmiQuery, AWorkerThatEndsOrDiesIsAFailureAndDoesNotHang)
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
    EXPECT_EQ(scenario.alive, 0);
    {
        CVoWMIQueryBase wmi(kNamespace);
        EXPECT_EQ(wmi.Stop(false), S_OK); // before there is a worker
        ExpectNoAnswer(wmi);
        EXPECT_EQ(wmi.Start(), E_FAIL);
    }
    {
        // The thread is gone in the middle of a query, with all that it held.
        scenario.beforeNext = [] { ::ExitThread(7); };
        CVoWMIQueryBase wmi(kNamespace);
        ExpectNoAnswer(wmi);
        ExpectNoAnswer(wmi);
    }
}
} // namespace
