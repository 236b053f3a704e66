// The owners of WinHTTP handles: closing, reports, and what a missing header gives.
#include <VoWinHttpInterface.h>

#include <gtest/gtest.h>

#include <support/ImportHook.h>
#include <support/LogCapture.h>
#include <support/WinHttpHandles.h>

#include <memory>
#include <optional>
#include <vector>

namespace
{
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::CLogCapture;
using TestSupport::IsReport;
using TestSupport::WinHttpHandleBalance;
using namespace VoWinHttpInterface;

constexpr const wchar_t* kHeader = L"VoWinHttpInterface.h";

// A request with its parents. Nothing is sent.
struct CHandles
{
    std::optional<WinHttpSessionHandle> session{ std::in_place };
    std::optional<WinHttpConnectionHandle> connection{ std::in_place };
    std::optional<WinHttpRequestHandle> request{ std::in_place };

    CHandles()
    {
        EXPECT_EQ(session->Init(L"a", WINHTTP_ACCESS_TYPE_NO_PROXY, 0), S_OK);
        EXPECT_EQ(connection->Init(*session, L"127.0.0.1", 1), S_OK);
        EXPECT_EQ(request->Init(*connection, L"GET", L"/", 0), S_OK);
    }
};

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

TEST(WinHttpInterface, AHandleThatIsClosedDuringACallIsClosedAfterTheCall)
{
    const CAcquireBalance balance = WinHttpHandleBalance();
    CHandles handles;
    int openInside = 0;
    const auto closeInside = [&](auto /*original*/, HINTERNET, LPVOID)
    {
        handles.request.reset(); // as a callback inside the call may do
        openInside = balance.Open();
        return TRUE;
    };
    const CCallHook<decltype(&::WinHttpReceiveResponse)> hook("winhttp.dll", "WinHttpReceiveResponse", closeInside);
    EXPECT_EQ(handles.request->ReceiveResponse(), S_OK);
    EXPECT_EQ(openInside, 3);
    EXPECT_EQ(balance.Open(), 2);
}

TEST(WinHttpInterface, ParentsAreClosedAfterTheirChildren)
{
    for (const bool byDestructor : { false, true })
    {
        CHandles handles;
        const std::vector<HINTERNET> childrenFirst{ handles.request->Get(), handles.connection->Get(), handles.session->Get() };
        std::vector<HINTERNET> closed;
        const CCallHook<decltype(&::WinHttpCloseHandle)> hook("winhttp.dll", "WinHttpCloseHandle",
                                                              [&](auto original, HINTERNET handle)
        { return closed.push_back(handle), original(handle); });
        if (byDestructor)
        {
            handles.session.reset();
            handles.connection.reset();
        }
        else
        {
            EXPECT_EQ(handles.session->Close(), S_OK);
            EXPECT_EQ(handles.connection->Close(), S_OK);
            EXPECT_FALSE(handles.connection->IsOpen());
        }
        EXPECT_THAT(closed, IsEmpty());
        EXPECT_EQ(handles.request->AddHeader(L"A: b", 4, WINHTTP_ADDREQ_FLAG_ADD), S_OK) << "the request must stay usable";
        EXPECT_EQ(handles.request->Close(), S_OK);
        EXPECT_EQ(closed, childrenFirst);
    }
}

TEST(WinHttpInterface, AMissingHeaderGivesNoReportAndLeavesTheOutput)
{
    constexpr HRESULT kNotFound = HResultFromWin32(ERROR_WINHTTP_HEADER_NOT_FOUND);
    const CHandles handles;
    for (const int failingCall : { 1, 2 })
    {
        int call = 0;
        const CCallHook<decltype(&::WinHttpQueryHeaders)> hook("winhttp.dll", "WinHttpQueryHeaders", [&](auto&&...)
        {
            ::SetLastError(++call < failingCall ? ERROR_INSUFFICIENT_BUFFER : ERROR_WINHTTP_HEADER_NOT_FOUND);
            return FALSE;
        });
        const CLogCapture log;
        std::wstring text = L"kept";
        DWORD index = 3;
        EXPECT_EQ(handles.request->QueryCustomHeaders(WINHTTP_QUERY_CUSTOM, L"X", &text, &index), kNotFound);
        call = 0;
        EXPECT_EQ(handles.request->QueryCookie(&text, &index), kNotFound);
        EXPECT_EQ(text, L"kept");
        EXPECT_EQ(index, 3U);
        EXPECT_THAT(log.Lines(), IsEmpty());
    }
}
} // namespace
