#include <VoWinHttpInterface.h>

#include <LoopbackServer.h>

#include <gtest/gtest.h>

#include <support/ImportHook.h>
#include <support/LogCapture.h>
#include <support/WinHttpHandles.h>

namespace
{
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::CLogCapture;
using TestSupport::IsReport;
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
        EXPECT_EQ(handles.request.ReceiveResponse(), E_HANDLE);
    }
    EXPECT_THAT(log.Lines(),
                testing::Contains(IsReport(kHeader, 41, L"VoWinHttpInterface::WinHttpHandle::Close", fault.expected)));
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
    for (const wchar_t* const cookie : { L"a=1", L"b=2; Path=/" })
    {
        EXPECT_EQ(request.QueryCookie(&text, &index), S_OK);
        EXPECT_EQ(text, cookie);
    }
    EXPECT_EQ(request.QueryCookie(&text, &index), HResultFromWin32(ERROR_WINHTTP_HEADER_NOT_FOUND));
    EXPECT_EQ(text, L"b=2; Path=/");
    for (const auto& [name, value] : { std::pair(L"x-cookie", std::wstring(L"c=3; d=4")), std::pair(L"X-Empty", std::wstring()),
                                       std::pair(L"X-Long", longText) })
    {
        EXPECT_EQ(request.QueryCustomHeaders(WINHTTP_QUERY_CUSTOM, name, &text), S_OK);
        EXPECT_EQ(text, value);
    }
    EXPECT_THAT(log.Lines(), IsEmpty()); // a header that is missing is no failure

    // A text that is gone when it is fetched.
    const auto fault = VO_FAULT("winhttp.dll", WinHttpQueryHeaders, FALSE, 12004);
    const auto injected = fault.inject(2);
    EXPECT_EQ(request.QueryCookie(&text), fault.expected);
    EXPECT_TRUE(text == longText) << text.size();
}

} // namespace
