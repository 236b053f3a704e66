// The WinHTTP exchange against a loopback server: its results, and its ends in every state. tests/stress has many of them at
// once.
#include <VoWinHttpRequest.h>

#include <LoopbackServer.h>

#include <base/VoMultiThreading.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <thread>

#include <support/ImportHook.h>
#include <support/TestMain.h>
#include <support/WinHttpExchange.h>
#include <support/WinHttpHandles.h>

namespace
{
using Loopback::CConnection;
using Loopback::CLoopbackServer;
using Loopback::CRequest;
using TestSupport::CExchangeOwner;
using TestSupport::CGet;
using TestSupport::kNoState;
using TestSupport::kRetrieved;
using TestSupport::ResultOf;
using TestSupport::WinHttpHandleBalance;
using namespace VoWinHttpInterface;
using namespace VoWinHttpRequest;

constexpr HRESULT kCancelledByClose = HResultFromWin32(ERROR_WINHTTP_OPERATION_CANCELLED);

// An event that is set once.
struct CGate : CEvent
{
    CGate() : CEvent(false, true) {}
    void Open() noexcept { EXPECT_EQ(Set(), S_OK); }
    void Wait() const noexcept { ::WaitForSingleObject(Handle(), INFINITE); }
};

void Echo(const CRequest& request, CConnection& connection)
{
    connection.SendResponse(200, {}, request.body);
}

// A server that accepts "u:p" and only Basic.
void DemandBasic(const CRequest& request, CConnection& connection)
{
    if (request.Header("Authorization") == "Basic dTpw")
        Echo(request, connection);
    else
        connection.SendResponse(401, { { "WWW-Authenticate", "Basic realm=\"r\"" } }, "no");
}

TEST(WinHttpRequest, ResultsAreTakenOncePerSendAndARunningExchangeRefusesChanges)
{
    CGate arrived;
    CGate respond;
    CLoopbackServer server([&](const CRequest& request, CConnection& connection)
    {
        arrived.Open();
        respond.Wait();
        Echo(request, connection);
    });
    CExchangeOwner owner(server.Port());
    CGet& exchange = owner.exchange;
    const auto expectNoneTaken = [&](HRESULT error)
    {
        EXPECT_EQ(owner.Status(), error);
        EXPECT_EQ(owner.Data(), error);
    };
    const auto expectRefused = [&]
    {
        EXPECT_EQ(exchange.Send(), E_FAIL);
        EXPECT_EQ(exchange.SetRequestData("x", 1), E_FAIL);
        EXPECT_EQ(exchange.SetSendCompleteHandler({}), E_FAIL);
        EXPECT_EQ(exchange.SetCredentials(WINHTTP_AUTH_TARGET_PROXY, WINHTTP_AUTH_SCHEME_BASIC, L"u", L"p"), E_FAIL);
    };
    expectNoneTaken(kNoState);
    expectRefused();
    EXPECT_EQ(exchange.Init(nullptr, {}, nullptr), E_POINTER);
    ASSERT_EQ(owner.Init(), S_OK);
    EXPECT_EQ(exchange.Clear(), S_OK) << "before a send, Clear neither waits nor closes the handle";
    ASSERT_EQ(owner.Init(), S_OK);
    ASSERT_EQ(exchange.Send(), S_OK);
    expectRefused();
    CGet second;
    arrived.Wait(); // WinHTTP has the context value now, even if it stores it on another thread
    EXPECT_EQ(second.Init(&owner.request, {}, nullptr), HResultFromWin32(ERROR_BUSY));
    respond.Open();
    EXPECT_EQ(owner.Status(), S_OK);
    EXPECT_EQ(owner.Data(), S_OK);
    expectNoneTaken(kRetrieved);
    // Init drops the results that Clear left.
    ASSERT_EQ(exchange.Send(), S_OK);
    EXPECT_EQ(exchange.Clear(), S_OK);
    owner.OpenRequest();
    ASSERT_EQ(owner.Init(), S_OK);
    expectNoneTaken(kNoState);
}

// ---- The life of an exchange ----

struct CState
{
    const char* name;
    bool isHeld;    // the server or the authentication function blocks
    bool hasStatus; // the status or a failure has arrived
};
constexpr CState kStates[] = {
    { "AwaitsHeaders", true, false }, { "ReadsBody", true, true },
    { "Ended", false, true },         { "EndedWithoutBody", false, true },
    { "Failed", false, true },        { "AtRest", true, false }, // the function chose a scheme that the server does not offer
};
enum class EEnd
{
    Clear,
    ClearByTwoThreads,
    Destroy,
    InitAgain
};

using ExchangeLife = testing::TestWithParam<std::tuple<CState, EEnd, bool>>;

// Every way to end an exchange, in every state, with an open and with a closed handle: it returns, ends the waits and frees
// everything.
TEST_P(ExchangeLife, EndsWithoutAHangOrALeak)
{
    const auto& [state, end, closesFirst] = GetParam();
    const std::string name = state.name;
    const CAcquireBalance balance = WinHttpHandleBalance();
    CGate reached; // the state
    CGate closed;  // the request handle. The server waits for it, because the platform here does not cancel a read in progress
    const CCallHook<decltype(&::WinHttpCloseHandle)> hook("winhttp.dll", "WinHttpCloseHandle",
                                                          [&](auto original, HINTERNET handle)
    {
        const BOOL result = original(handle);
        closed.Open();
        return result;
    });
    CLoopbackServer server([&](const CRequest& request, CConnection& connection)
    {
        if (name == "AtRest")
            return DemandBasic(request, connection);
        if (name == "ReadsBody")
        {
            connection.SendResponseHead(200, {}, 20'000);
            connection.Send(std::string(10'000, 'a'));
        }
        if (state.isHeld)
        {
            reached.Open();
            closed.Wait();
        }
        if (name == "ReadsBody")
            connection.Send(std::string(10'000, 'b'));
        else
            connection.SendResponse(name == "EndedWithoutBody" ? 500 : 200);
    });
    if (name == "Failed")
        server.Stop();

    auto token = std::make_shared<int>(0); // the exchange's functions own it
    {
        CExchangeOwner handles(server.Port());
        std::optional<CGet> exchange(std::in_place);
        const auto statusOf = [&] { return ResultOf([&] { exchange->GetStatusCode(); }); };
        const auto refuse = [&reached, token](auto, auto, auto, const auto&, DWORD& chosen, auto&, auto&, auto)
        {
            chosen = WINHTTP_AUTH_SCHEME_NEGOTIATE;
            reached.Open();
            return S_OK;
        };
        ASSERT_EQ(exchange->Init(&handles.request, refuse, nullptr), S_OK);
        ASSERT_EQ(exchange->Send(), S_OK);
        if (state.isHeld)
        {
            reached.Wait();
            EXPECT_EQ(exchange->Send(), E_FAIL);
        }
        const HRESULT failure = name == "Failed" ? HResultFromWin32(ERROR_WINHTTP_CANNOT_CONNECT) : kCancelledByClose;
        EXPECT_EQ(state.hasStatus ? statusOf() : S_OK, name == "Failed" ? failure : S_OK);
        EXPECT_TRUE(name != "Ended" || exchange->GetResponseData().empty());
        // Unless the object is destroyed, a thread waits for the body.
        std::future<HRESULT> waiting;
        if (name != "Ended" && (end == EEnd::Clear || end == EEnd::ClearByTwoThreads))
            waiting = std::async(std::launch::async, [&] { return ResultOf([&] { exchange->GetResponseData(); }); });

        EXPECT_EQ(closesFirst ? handles.request.Close() : S_OK, S_OK);
        if (end == EEnd::InitAgain)
        {
            WinHttpRequestHandle next;
            ASSERT_EQ(next.Init(handles.connection, L"GET", L"/", 0), S_OK);
            EXPECT_EQ(exchange->Init(&next, {}, nullptr), S_OK);
            exchange.reset();
        }
        else if (end == EEnd::Destroy)
            exchange.reset();
        else
        {
            std::jthread other;
            if (end == EEnd::ClearByTwoThreads)
                other = std::jthread([&] { EXPECT_EQ(exchange->Clear(), S_OK); });
            EXPECT_EQ(exchange->Clear(), S_OK);
            EXPECT_EQ(exchange->Clear(), S_OK);
            EXPECT_EQ(waiting.valid() ? waiting.get() : failure, failure);
            EXPECT_EQ(!state.hasStatus ? statusOf() : kCancelledByClose, kCancelledByClose);
        }
        EXPECT_EQ(token.use_count(), 2) << "the functions were not destroyed"; // `refuse` holds one
        closed.Open();
    }
    EXPECT_EQ(balance.Open(), 0);
}

INSTANTIATE_TEST_SUITE_P(WinHttpRequest, ExchangeLife,
                         testing::Combine(testing::ValuesIn(kStates),
                                          testing::Values(EEnd::Clear, EEnd::ClearByTwoThreads, EEnd::Destroy, EEnd::InitAgain),
                                          testing::Bool()));

TEST(WinHttpRequest, ClearEndsOnEachThreadWhenTheHandleCannotBeClosed)
{
    CGate arrived;
    CGate closing;
    CGate goOn;
    CLoopbackServer server([&](const CRequest&, CConnection& connection)
    {
        arrived.Open();
        connection.WaitForPeerClose(std::chrono::minutes(1));
    });
    CExchangeOwner owner(server.Port());
    ASSERT_EQ(owner.Init({}), S_OK);
    ASSERT_EQ(owner.exchange.Send(), S_OK);
    arrived.Wait();
    const HINTERNET handle = owner.request.Get();
    {
        const CCallHook<decltype(&::WinHttpCloseHandle)> hook("winhttp.dll", "WinHttpCloseHandle", [&](auto, HINTERNET)
        {
            closing.Open();
            goOn.Wait();
            ::SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        });
        auto first = std::async(std::launch::async, [&] { return owner.exchange.Clear(); });
        closing.Wait();
        auto second = std::async(std::launch::async, [&] { return owner.exchange.Clear(); });
        EXPECT_EQ(second.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
        goOn.Open();
        EXPECT_EQ(first.get(), E_FAIL);
        EXPECT_EQ(second.get(), S_OK);
    }
    EXPECT_TRUE(::WinHttpCloseHandle(handle));
}

TEST(WinHttpRequest, AFunctionMayClearOrDestroyItsExchange)
{
    const CAcquireBalance balance = WinHttpHandleBalance();
    for (const bool fromAuthentication : { true, false })
        for (const auto& [isCleared, isSentAgain] : { std::pair(false, false), { true, false }, { true, true } })
        {
            SCOPED_TRACE(testing::Message() << fromAuthentication << isCleared << isSentAgain);
            std::atomic<int> requests{ 0 };
            CLoopbackServer server([&](const CRequest& request, CConnection& connection)
            { ++requests == 1 ? DemandBasic(request, connection) : Echo(request, connection); });
            auto owner = std::make_unique<CExchangeOwner>(server.Port());
            CExchangeOwner second(server.Port());
            CGate done;
            const auto end = [&, token = std::make_shared<int>(0)]() -> HRESULT
            {
                // The function must survive the exchange.
                // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
                const std::shared_ptr<int> used = token;
                if (isCleared)
                {
                    EXPECT_EQ(owner->exchange.Clear(), S_OK);
                    EXPECT_FALSE(owner->request.IsOpen());
                }
                else
                    owner.reset();
                EXPECT_EQ(isSentAgain ? owner->exchange.Init(&second.request, {}, nullptr) : S_OK, S_OK);
                EXPECT_EQ(isSentAgain ? owner->exchange.Send() : S_OK, S_OK);
                *used = 1;
                done.Open();
                return E_ACCESSDENIED; // ignored: the exchange has ended
            };
            ASSERT_EQ(owner->Init([=](auto&&...) -> HRESULT { return fromAuthentication ? end() : E_UNEXPECTED; }), S_OK);
            ASSERT_EQ(owner->exchange.SetSendCompleteHandler(fromAuthentication ? SendCompleteHandler() : [end](auto&&...)
            { return end(); }),
                      S_OK);
            ASSERT_EQ(owner->exchange.Send(), S_OK);
            done.Wait();
            EXPECT_EQ(isCleared ? owner->Status() : S_OK, isCleared && !isSentAgain ? kCancelledByClose : S_OK);
            owner.reset();
        }
    EXPECT_EQ(balance.Open(), 0);
}

// ---- Failing calls; the transport's tests fail each call of WinHTTP ----

TEST(WinHttpRequest, AFailedSendMayBeRepeated)
{
    CLoopbackServer server(Echo);
    CExchangeOwner owner(server.Port());
    ASSERT_EQ(owner.Init(), S_OK);
    const auto fault = VO_FAULT("winhttp.dll", WinHttpSendRequest, FALSE, 12004);
    const auto noStatus = VO_FAULT("winhttp.dll", WinHttpQueryHeaders, FALSE, 12005);
    const auto injected = fault.inject(2);
    const auto injectedLater = noStatus.inject(2);
    for (const HRESULT expected : { S_OK, fault.expected })
    {
        EXPECT_EQ(owner.exchange.Send(), expected);
        EXPECT_EQ(owner.Status(), expected);
        EXPECT_EQ(owner.Data(), expected);
    }
    // The same after a status that could not be read.
    ASSERT_EQ(owner.exchange.Send(), S_OK);
    EXPECT_EQ(owner.Status(), noStatus.expected);
    EXPECT_EQ(owner.Data(), noStatus.expected);
    ASSERT_EQ(owner.exchange.Send(), S_OK);
    EXPECT_EQ(owner.Data(), S_OK);
    // With a closed handle nothing is sent and no call waits.
    EXPECT_EQ(owner.request.Close(), S_OK);
    EXPECT_EQ(owner.exchange.Send(), E_HANDLE);
    EXPECT_EQ(owner.Data(), E_HANDLE);
}
} // namespace
