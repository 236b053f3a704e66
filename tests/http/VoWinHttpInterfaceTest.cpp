#include <VoWinHttpInterface.h>

#include "WindowsTransport.h"

#include <LoopbackServer.h>

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include <support/ImportHook.h>
#include <support/LogCapture.h>
#include <support/WinHttpHandles.h>

namespace
{
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::CLogCapture;
using TestSupport::IsReport;
using TestSupport::IsReportBy;
using TestSupport::WinHttpHandleBalance;
using namespace VoWinHttpInterface;

constexpr const wchar_t* kHeader = L"VoWinHttpInterface.h";

struct CHandles
{
    WinHttpSessionHandle session;
    WinHttpConnectionHandle connection;
    WinHttpRequestHandle request;

    explicit CHandles(UINT16 port = 1)
    {
        EXPECT_EQ(session.Init(L"VoUtils tests", WINHTTP_ACCESS_TYPE_NO_PROXY, 0), S_OK);
        EXPECT_EQ(connection.Init(session, L"127.0.0.1", port), S_OK);
        EXPECT_EQ(request.Init(connection, L"GET", L"/a?b=1", WINHTTP_FLAG_REFRESH), S_OK);
    }
};

TEST(WinHttpInterface, EveryFailingCallIsMappedAndReportedUnderItsOperation)
{
    struct COperation
    {
        const wchar_t* name;
        CFault fault;           // the platform says why
        CFault faultWithoutWhy; // it does not: E_FAIL
        std::function<HRESULT(CHandles&)> run;
    };
    DWORD number = 7;
    DWORD number2 = 7;
    DWORD number3 = 7;
    std::wstring text = L"untouched";
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): it names the function
#define FAULTS(function, returns)                                                                                              \
    VO_FAULT("winhttp.dll", function, returns, 12004), VO_FAULT_GIVES("winhttp.dll", function, returns, 0, E_FAIL)
    const COperation operations[] = {
        { L"WinHttpSessionHandle::Init", FAULTS(WinHttpOpen, nullptr),
          [](CHandles& handles) { return handles.session.Init(L"a", WINHTTP_ACCESS_TYPE_NO_PROXY, 0); } },
        { L"WinHttpConnectionHandle::Init", FAULTS(WinHttpConnect, nullptr),
          [](CHandles& handles) { return handles.connection.Init(handles.session, L"127.0.0.1", 1); } },
        { L"WinHttpRequestHandle::Init", FAULTS(WinHttpOpenRequest, nullptr),
          [](CHandles& handles) { return handles.request.Init(handles.connection, L"GET", L"/", 0); } },
        { L"WinHttpHandle::Close", FAULTS(WinHttpCloseHandle, FALSE),
          [](CHandles& handles) { return handles.request.Close(); } },
        { L"WinHttpHandle::SetTimeouts", FAULTS(WinHttpSetTimeouts, FALSE),
          [](CHandles& handles) { return handles.session.SetTimeouts(1, 2, 3, 4); } },
        { L"WinHttpHandle::SetOption", FAULTS(WinHttpSetOption, FALSE),
          [](CHandles& handles) { return handles.session.SetOption(WINHTTP_OPTION_CONNECT_TIMEOUT, 5); } },
        { L"WinHttpHandle::QueryOption", FAULTS(WinHttpQueryOption, FALSE),
          [&](CHandles& handles)
          {
              DWORD length = sizeof(number);
              return handles.session.QueryOption(WINHTTP_OPTION_CONNECT_TIMEOUT, &number, length);
          } },
        { L"WinHttpRequestHandle::SetStatusCallback",
          FAULTS(WinHttpSetStatusCallback, reinterpret_cast<WINHTTP_STATUS_CALLBACK>(static_cast<LONG_PTR>(-1))),
          [](CHandles& handles) { return handles.request.SetStatusCallback(nullptr, 0); } },
        { L"WinHttpRequestHandle::AddHeader", FAULTS(WinHttpAddRequestHeaders, FALSE), [](CHandles& handles)
          { return handles.request.AddHeader(L"Accept: */*", static_cast<DWORD>(-1), WINHTTP_ADDREQ_FLAG_ADD); } },
        { L"WinHttpRequestHandle::SetCookieString", FAULTS(WinHttpAddRequestHeaders, FALSE),
          [](CHandles& handles) { return handles.request.SetCookieString(L"a=1"); } },
        { L"WinHttpRequestHandle::Send", FAULTS(WinHttpSendRequest, FALSE),
          [](CHandles& handles) { return handles.request.Send(nullptr, 0, 0); } },
        { L"WinHttpRequestHandle::ReceiveResponse", FAULTS(WinHttpReceiveResponse, FALSE),
          [](CHandles& handles) { return handles.request.ReceiveResponse(); } },
        { L"WinHttpRequestHandle::QueryDataAvailable", FAULTS(WinHttpQueryDataAvailable, FALSE),
          [](CHandles& handles) { return handles.request.QueryDataAvailable(); } },
        { L"WinHttpRequestHandle::ReadData", FAULTS(WinHttpReadData, FALSE),
          [&](CHandles& handles) { return handles.request.ReadData(&number, 1); } },
        { L"WinHttpRequestHandle::QueryAuthSchemes", FAULTS(WinHttpQueryAuthSchemes, FALSE),
          [&](CHandles& handles) { return handles.request.QueryAuthSchemes(number, number2, number3); } },
        { L"WinHttpRequestHandle::SetCredentials", FAULTS(WinHttpSetCredentials, FALSE),
          [](CHandles& handles) { return handles.request.SetCredentials(0, WINHTTP_AUTH_SCHEME_BASIC, L"u", L"p"); } },
        { L"WinHttpRequestHandle::QueryHeaders", FAULTS(WinHttpQueryHeaders, FALSE), [&](CHandles& handles)
          { return handles.request.QueryHeaders(WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, number); } },
        { L"WinHttpRequestHandle::QueryCustomHeaders", FAULTS(WinHttpQueryHeaders, FALSE),
          [&](CHandles& handles) { return handles.request.QueryCustomHeaders(WINHTTP_QUERY_CUSTOM, L"X", &text); } },
        { L"WinHttpRequestHandle::QueryCookie", FAULTS(WinHttpQueryHeaders, FALSE),
          [&](CHandles& handles) { return handles.request.QueryCookie(&text); } },
    };
#undef FAULTS
    for (const COperation& operation : operations)
        for (const CFault* fault : { &operation.fault, &operation.faultWithoutWhy })
        {
            SCOPED_TRACE(testing::Message() << fault->function << " " << std::hex << fault->expected);
            CHandles handles;
            CLogCapture log;
            {
                const auto injected = fault->inject(1);
                EXPECT_EQ(operation.run(handles), fault->expected);
                EXPECT_EQ(injected->Calls(), 1);
            }
            EXPECT_THAT(log.Lines(),
                        testing::Contains(IsReportBy(std::wstring(L"VoWinHttpInterface::") + operation.name, fault->expected)));
        }
    EXPECT_EQ(number, 7U);
    EXPECT_EQ(number2, 7U);
    EXPECT_EQ(number3, 7U);
    EXPECT_EQ(text, L"untouched");
}

TEST(WinHttpInterface, HandlesAreGivenBackOnce)
{
    const CAcquireBalance balance = WinHttpHandleBalance();
    {
        CHandles handles;
        EXPECT_EQ(balance.Open(), 3);
        EXPECT_EQ(handles.request.Init(handles.connection, L"POST", L"/", 0), S_OK); // in place of the first
        EXPECT_EQ(balance.Open(), 3);
        EXPECT_EQ(handles.request.Close(), S_OK);
        EXPECT_FALSE(handles.request.IsOpen());
        EXPECT_EQ(handles.request.Close(), S_OK);
        EXPECT_EQ(balance.Open(), 2);
        EXPECT_EQ(handles.request.ReceiveResponse(), E_HANDLE);
    }
    EXPECT_EQ(balance.Open(), 0);
}

TEST(WinHttpInterface, AFailedCloseDropsTheHandleAndADestructorKeepsTheLastError)
{
    const CAcquireBalance balance = WinHttpHandleBalance();
    const auto fault = VO_FAULT_AFTER_CALL("winhttp.dll", WinHttpCloseHandle, FALSE, 12004);
    CLogCapture log;
    {
        CHandles handles;
        const auto injected = fault.inject(1);
        EXPECT_EQ(handles.request.Close(), fault.expected);
        EXPECT_FALSE(handles.request.IsOpen());
        EXPECT_EQ(handles.request.Close(), S_OK);
    }
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kHeader, 41, L"VoWinHttpInterface::WinHttpHandle::Close", fault.expected)));
    log.Clear();
    {
        auto session = std::make_unique<WinHttpSessionHandle>();
        ASSERT_EQ(session->Init(L"a", WINHTTP_ACCESS_TYPE_NO_PROXY, 0), S_OK);
        const auto injected = fault.inject(1);
        ::SetLastError(1234);
        session.reset();
        EXPECT_EQ(::GetLastError(), 1234U);
    }
    EXPECT_THAT(log.Lines(),
                ElementsAre(IsReport(kHeader, 80, L"VoWinHttpInterface::WinHttpHandle::~WinHttpHandle", fault.expected)));
    EXPECT_EQ(balance.Open(), 0);
}

TEST(WinHttpInterface, AHandleThatIsClosedDuringACallIsGivenBackAfterIt)
{
    const CAcquireBalance balance = WinHttpHandleBalance();
    auto handles = std::make_unique<CHandles>();
    bool wasOpenInside = false;
    {
        CCallHook<decltype(&::WinHttpReceiveResponse)> hook("winhttp.dll", "WinHttpReceiveResponse",
                                                            [&](auto /*original*/, HINTERNET, LPVOID) -> BOOL
                                                            {
                                                                // as a callback inside the call may do
                                                                handles.reset();
                                                                wasOpenInside = balance.Open() == 1;
                                                                return TRUE;
                                                            });
        EXPECT_EQ(handles->request.ReceiveResponse(), S_OK);
    }
    EXPECT_TRUE(wasOpenInside);
    EXPECT_EQ(balance.Open(), 0);
}

TEST(WinHttpInterface, HeadersAreReadByNameAndIndex)
{
    Loopback::CLoopbackServer server(
        [](const Loopback::CRequest& request, Loopback::CConnection& connection)
        {
            connection.SendResponse(200,
                                    { { "Set-Cookie", "a=1" },
                                      { "Set-Cookie", "b=2; Path=/" },
                                      { "X-Empty", "" },
                                      { "X-Cookie", std::string(request.Header("Cookie")) },
                                      { "X-Long", std::string(1000, 'x') } },
                                    "");
        });
    CHandles handles(server.Port());
    const WinHttpRequestHandle& request = handles.request;
    const std::wstring longText(1000, L'x');
    ASSERT_EQ(request.SetCookieString(L"c=3; d=4"), S_OK);
    ASSERT_EQ(request.Send(nullptr, 0, 0), S_OK);
    ASSERT_EQ(request.ReceiveResponse(), S_OK);

    CLogCapture log;
    DWORD status = 0;
    EXPECT_EQ(request.QueryHeaders(WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, status), S_OK);
    EXPECT_EQ(status, 200U);
    std::wstring text;
    DWORD index = 0;
    EXPECT_EQ(request.QueryCookie(&text, &index), S_OK);
    EXPECT_EQ(text, L"a=1");
    EXPECT_EQ(request.QueryCookie(&text, &index), S_OK);
    EXPECT_EQ(text, L"b=2; Path=/");
    EXPECT_EQ(request.QueryCookie(&text, &index), HResultFromWin32(ERROR_WINHTTP_HEADER_NOT_FOUND));
    EXPECT_EQ(text, L"b=2; Path=/");
    EXPECT_EQ(request.QueryCustomHeaders(WINHTTP_QUERY_CUSTOM, L"x-cookie", &text), S_OK);
    EXPECT_EQ(text, L"c=3; d=4");
    EXPECT_EQ(request.QueryCustomHeaders(WINHTTP_QUERY_CUSTOM, L"X-Empty", &text), S_OK);
    EXPECT_EQ(text, L"");
    EXPECT_EQ(request.QueryCustomHeaders(WINHTTP_QUERY_CUSTOM, L"X-Long", &text), S_OK);
    EXPECT_TRUE(text == longText) << text.size();
    EXPECT_THAT(log.Lines(), IsEmpty()); // a header that is missing is no failure

    EXPECT_EQ(request.QueryCustomHeaders(WINHTTP_QUERY_CUSTOM, L"X-Long", nullptr), E_POINTER);
    EXPECT_EQ(request.QueryCustomHeaders(WINHTTP_QUERY_CUSTOM, L"", &text), E_INVALIDARG);
    // The size of a text that asks for no room, and a text that is gone when it is fetched.
    {
        CCallHook<decltype(&::WinHttpQueryHeaders)> hook("winhttp.dll", "WinHttpQueryHeaders",
                                                         [](auto, HINTERNET, DWORD, LPCWSTR, LPVOID, LPDWORD, LPDWORD) -> BOOL
                                                         { return TRUE; });
        EXPECT_EQ(request.QueryCookie(&text), E_FAIL);
    }
    const auto fault = VO_FAULT("winhttp.dll", WinHttpQueryHeaders, FALSE, 12004);
    const auto injected = fault.inject(2);
    EXPECT_EQ(request.QueryCookie(&text), fault.expected);
    EXPECT_TRUE(text == longText) << text.size();
}

// What the platform is made to answer to one question for a proxy.
struct CAnswer
{
    DWORD error = 0;
    BOOL result = FALSE;
    DWORD accessType = 0;
    const wchar_t* proxy = nullptr;
    const wchar_t* bypass = nullptr;
};

TEST(WinHttpInterface, AProxyIsAskedForAndEveryFailureMeansDirect)
{
    constexpr const wchar_t* kName = L"VoWinHttpInterface::WinHttpSessionHandle::GetProxyForUrl";
    constexpr CAnswer kNamed{ 0, TRUE, WINHTTP_ACCESS_TYPE_NAMED_PROXY, L"p:1;q:2", L"<local>" };
    constexpr DWORD kDetect = WINHTTP_AUTOPROXY_AUTO_DETECT | WINHTTP_AUTOPROXY_SORT_RESULTS;
    constexpr DWORD kScript = WINHTTP_AUTOPROXY_CONFIG_URL;
    struct CCase
    {
        const wchar_t* script;
        std::vector<CAnswer> answers;
        std::vector<DWORD> flags;
        const wchar_t* proxy;
        const wchar_t* bypass;
        std::vector<std::pair<int, HRESULT>> reports;
    };
    std::vector<CCase> cases{
        { L"", { kNamed }, { kDetect }, L"p:1;q:2", L"<local>", {} },
        { L"http://pac/", { kNamed }, { kScript }, L"p:1;q:2", L"<local>", {} },
        { L"", { { 0, TRUE, WINHTTP_ACCESS_TYPE_NO_PROXY, L"ignored", nullptr } }, { kDetect }, L"", L"", {} },
        { L"", { { 0, TRUE, WINHTTP_ACCESS_TYPE_NAMED_PROXY, L"p:1", nullptr } }, { kDetect }, L"p:1", L"", {} },
        { L"http://pac/",
          { { 12015 }, kNamed },
          { kScript, kScript | WINHTTP_AUTOPROXY_RUN_INPROCESS },
          L"p:1;q:2",
          L"<local>",
          {} },
        { L"",
          { { 12015 }, { 12015 } },
          { kDetect, kDetect | WINHTTP_AUTOPROXY_RUN_INPROCESS },
          L"",
          L"",
          { { 202, HResultFromWin32(12015) }, { 249, HResultFromWin32(12015) } } },
        { L"",
          { { 12015 }, { 0 } },
          { kDetect, kDetect | WINHTTP_AUTOPROXY_RUN_INPROCESS },
          L"",
          L"",
          { { 203, E_FAIL }, { 249, E_FAIL } } },
        { L"", { { 12006 } }, { kDetect }, L"", L"", { { 264, HResultFromWin32(12006) } } },
        { L"", { { 0 } }, { kDetect }, L"", L"", { { 265, E_FAIL } } },
    };
    for (const DWORD silent : { 12166UL, 12167UL, 12176UL, 12177UL, 12178UL, 12180UL })
    {
        cases.push_back({ L"", { { silent } }, { kDetect }, L"", L"", {} });
        cases.push_back(
            { L"", { { 12015 }, { silent } }, { kDetect, kDetect | WINHTTP_AUTOPROXY_RUN_INPROCESS }, L"", L"", {} });
    }

    WinHttpSessionHandle session;
    ASSERT_EQ(session.Init(L"VoUtils tests", WINHTTP_ACCESS_TYPE_NO_PROXY, 0), S_OK);
    for (const CCase& row : cases)
    {
        SCOPED_TRACE(testing::Message() << "case " << &row - cases.data());
        std::vector<DWORD> flags;
        size_t call = 0;
        const auto copy = [](const wchar_t* text) -> wchar_t*
        {
            if (!text)
                return nullptr;
            auto* const memory = static_cast<wchar_t*>(::GlobalAlloc(GMEM_FIXED, (wcslen(text) + 1) * sizeof(wchar_t)));
            return wcscpy(memory, text);
        };
        CCallHook<decltype(&::WinHttpGetProxyForUrl)> hook(
            "winhttp.dll", "WinHttpGetProxyForUrl",
            [&](auto /*original*/, HINTERNET handle, LPCWSTR url, WINHTTP_AUTOPROXY_OPTIONS* options,
                WINHTTP_PROXY_INFO* info) -> BOOL
            {
                EXPECT_EQ(handle, session.Get());
                EXPECT_STREQ(url, L"http://host/");
                flags.push_back(options->dwFlags);
                if (*row.script)
                    EXPECT_STREQ(options->lpszAutoConfigUrl, row.script);
                else
                    EXPECT_EQ(options->dwAutoDetectFlags,
                              static_cast<DWORD>(WINHTTP_AUTO_DETECT_TYPE_DHCP | WINHTTP_AUTO_DETECT_TYPE_DNS_A));
                EXPECT_EQ(options->fAutoLogonIfChallenged, call == 1);
                const CAnswer answer = call < row.answers.size() ? row.answers[call] : CAnswer{ 1 };
                ++call;
                if (answer.result)
                    *info = { answer.accessType, copy(answer.proxy), copy(answer.bypass) };
                ::SetLastError(answer.error);
                return answer.result;
            });
        CAcquireBalance texts =
            CAcquireBalance::Of<decltype(&::GlobalAlloc), decltype(&::GlobalFree)>("kernel32.dll", "GlobalAlloc", "GlobalFree");
        CLogCapture log;
        std::wstring proxy = L"old";
        std::wstring bypass = L"old";
        EXPECT_EQ(session.GetProxyForUrl(L"http://host/", row.script, proxy, bypass), S_OK);
        EXPECT_EQ(proxy, row.proxy);
        EXPECT_EQ(bypass, row.bypass);
        EXPECT_EQ(flags, row.flags);
        std::vector<std::pair<int, HRESULT>> reports;
        for (const auto& line : log.Lines())
        {
            EXPECT_EQ(line.function, kName);
            reports.emplace_back(line.line, line.code.value_or(S_OK));
        }
        EXPECT_EQ(reports, row.reports);
    }
}

TEST(WindowsTransport, OnlyRefusedTuningIsPassedOver)
{
    using WindowsTransport::IsRefusedTuning;
    struct
    {
        DWORD error;
        DWORD value;
        bool expected;
    } const table[] = {
        { 12009, 128, true },
        { 12016, 128, true },
        { 12018, 1, false },
        { ERROR_INVALID_PARAMETER, 0, true },
        { ERROR_INVALID_PARAMETER, 1, false },
        { ERROR_INVALID_HANDLE, 0, false },
        { 12004, 0, false },
        { 0, 0, false },
    };
    for (const auto& row : table)
    {
        EXPECT_EQ(IsRefusedTuning(row.error, row.value), row.expected) << row.error;
        EXPECT_EQ(IsRefusedTuning(HResultFromWin32(row.error), row.value), row.expected) << row.error;
    }
    EXPECT_FALSE(IsRefusedTuning(S_OK, DWORD{ 0 }));
    EXPECT_FALSE(IsRefusedTuning(static_cast<HRESULT>(0x80042EE9), DWORD{ 1 })); // 12009 of another facility
}
} // namespace
