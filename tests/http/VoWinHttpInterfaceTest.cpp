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

TEST(WinHttpInterface, AFailedCloseDropsTheHandleAndADestructorKeepsTheLastError)
{
    const CAcquireBalance balance = WinHttpHandleBalance();
    const auto fault = VO_FAULT_AFTER_CALL("winhttp.dll", WinHttpCloseHandle, FALSE, 12004);
    const CLogCapture log;
    for (const bool byDestructor : { false, true })
    {
        auto session = std::make_unique<WinHttpSessionHandle>();
        ASSERT_EQ(session->Init(L"a", WINHTTP_ACCESS_TYPE_NO_PROXY, 0), S_OK);
        const auto injected = fault.inject(1);
        EXPECT_EQ(byDestructor ? fault.expected : session->Close(), fault.expected);
        EXPECT_EQ(session->IsOpen(), byDestructor);
        ::SetLastError(1234);
        session.reset();
        EXPECT_EQ(::GetLastError(), 1234U);
    }
    EXPECT_THAT(log.Lines(),
                ElementsAre(IsReport(kHeader, 41, L"VoWinHttpInterface::WinHttpHandle::Close", fault.expected),
                            IsReport(kHeader, 80, L"VoWinHttpInterface::WinHttpHandle::~WinHttpHandle", fault.expected)));
    EXPECT_EQ(balance.Open(), 0);
}

TEST(WinHttpInterface, AHandleThatIsClosedDuringACallIsGivenBackAfterIt)
{
    const CAcquireBalance balance = WinHttpHandleBalance();
    WinHttpSessionHandle session;
    WinHttpConnectionHandle connection;
    auto request = std::make_unique<WinHttpRequestHandle>();
    ASSERT_EQ(session.Init(L"a", WINHTTP_ACCESS_TYPE_NO_PROXY, 0), S_OK);
    ASSERT_EQ(connection.Init(session, L"127.0.0.1", 1), S_OK);
    ASSERT_EQ(request->Init(connection, L"GET", L"/", 0), S_OK);
    int openInside = 0;
    const auto closeInside = [&](auto /*original*/, HINTERNET, LPVOID)
    {
        request.reset(); // as a callback inside the call may do
        openInside = balance.Open();
        return TRUE;
    };
    const CCallHook<decltype(&::WinHttpReceiveResponse)> hook("winhttp.dll", "WinHttpReceiveResponse", closeInside);
    EXPECT_EQ(request->ReceiveResponse(), S_OK);
    EXPECT_EQ(openInside, 3);
    EXPECT_EQ(balance.Open(), 2);
}
} // namespace
