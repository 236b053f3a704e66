#include <VoWinHttpInterface.h>

#include <gtest/gtest.h>

#include <support/ImportHook.h>
#include <support/LogCapture.h>
#include <support/WinHttpHandles.h>

namespace
{
using testing::ElementsAre;
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

    CHandles()
    {
        EXPECT_EQ(session.Init(L"VoUtils tests", WINHTTP_ACCESS_TYPE_NO_PROXY, 0), S_OK);
        EXPECT_EQ(connection.Init(session, L"127.0.0.1", 1), S_OK);
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

} // namespace
