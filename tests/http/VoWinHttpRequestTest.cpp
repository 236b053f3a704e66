#include <VoWinHttpRequest.h>

#include <LoopbackServer.h>

#include <base/VoMultiThreading.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include <support/HTTPSupport.h>
#include <support/ImportHook.h>
#include <support/MemoryMeter.h>
#include <support/TestMain.h>
#include <support/WinHttpHandles.h>

namespace
{
using Loopback::CConnection;
using Loopback::CLoopbackServer;
using Loopback::CRequest;
using TestSupport::CLogCapture;
using TestSupport::CMemoryMeter;
using TestSupport::IsMessage;
using TestSupport::IsReportBy;
using TestSupport::WinHttpHandleBalance;
using namespace VoWinHttpInterface;
using namespace VoWinHttpRequest;

using CGet = CVoWinHttpRequest<CVoWinHttpGetRequest>;
using CMalloc = void*(WINAPI*)(size_t);

constexpr HRESULT kCancelledByClose = HResultFromWin32(ERROR_WINHTTP_OPERATION_CANCELLED);
const std::wstring kGetName = L"VoWinHttpRequest::CVoWinHttpRequest<class VoWinHttpRequest::CVoWinHttpGetRequest>::";

// An event that opens once.
struct CGate : CEvent
{
    CGate() : CEvent(false, true) {}
    void Open() noexcept { EXPECT_EQ(Set(), S_OK); }
    void Wait() const noexcept { ::WaitForSingleObject(Handle(), INFINITE); }
};

// What a get function does: the code it throws, that of a future's misuse, S_OK for a value.
constexpr HRESULT kNoState = -1;
constexpr HRESULT kRetrieved = -2;
template <class Get>
HRESULT ResultOf(Get get)
try
{
    get();
    return S_OK;
}
catch (const HRESULTexc& failure)
{
    return failure.Result();
}
catch (const std::future_error& error)
{
    return error.code() == std::future_errc::no_state ? kNoState : kRetrieved;
}

// An exchange with the handles it uses, owned together as a transport owns them: to a port of 127.0.0.1.
struct COwner
{
    WinHttpSessionHandle session;
    WinHttpConnectionHandle connection;
    WinHttpRequestHandle request;
    CGet exchange;

    explicit COwner(UINT16 port, const wchar_t* path = L"/")
    {
        EXPECT_EQ(session.Init(L"VoUtils tests", WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_FLAG_ASYNC), S_OK);
        EXPECT_EQ(connection.Init(session, L"127.0.0.1", port), S_OK);
        OpenRequest(path);
    }
    void OpenRequest(const wchar_t* path = L"/")
    {
        EXPECT_EQ(request.Init(connection, L"GET", path, WINHTTP_FLAG_REFRESH), S_OK);
    }
    HRESULT Init(AuthenticationFunction function = {}, void* context = nullptr)
    {
        return exchange.Init(&request, std::move(function), context);
    }
    // How the answers come, and what they are where they do.
    HRESULT Status(DWORD expected = 200)
    {
        return ResultOf([&] { EXPECT_EQ(exchange.GetStatusCode(), expected); });
    }
    HRESULT Data(std::string_view expected = {})
    {
        return ResultOf(
            [&]
            {
                const std::vector<BYTE> data = exchange.GetResponseData();
                EXPECT_TRUE(std::string(data.begin(), data.end()) == expected) << data.size();
            });
    }
};

void Echo(const CRequest& request, CConnection& connection)
{
    connection.SendResponse(200, {}, request.body);
}

// Wants "u:p"; Basic only.
void DemandBasic(const CRequest& request, CConnection& connection)
{
    if (request.Header("Authorization") == "Basic dTpw")
        Echo(request, connection);
    else
        connection.SendResponse(401, { { "WWW-Authenticate", "Basic realm=\"r\"" } }, "no");
}
HRESULT GiveBasic(DWORD, DWORD, DWORD, const std::wstring&, DWORD& chosen, std::wstring& user, std::wstring& password, void*)
{
    chosen = WINHTTP_AUTH_SCHEME_BASIC;
    user = L"u";
    password = L"p";
    return S_OK;
}

TEST(WinHttpRequest, AnswersAreTakenOncePerSendAndNothingIsChangedMeanwhile)
{
    CGate arrived;
    CGate answer;
    CLoopbackServer server(
        [&](const CRequest& request, CConnection& connection)
        {
            arrived.Open();
            answer.Wait();
            Echo(request, connection);
        });
    COwner owner(server.Port());
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
    };
    expectNoneTaken(kNoState);
    expectRefused();
    EXPECT_EQ(exchange.Init(nullptr, {}, nullptr), E_POINTER);
    ASSERT_EQ(owner.Init(), S_OK);
    EXPECT_EQ(exchange.Clear(), S_OK) << "nothing was sent: nothing is waited for, and the handle stays open";
    ASSERT_EQ(owner.Init(), S_OK);
    ASSERT_EQ(exchange.Send(), S_OK);
    expectRefused();
    CGet second;
    arrived.Wait(); // by then the platform has the context value also where it takes it on a thread of its own
    EXPECT_EQ(second.Init(&owner.request, {}, nullptr), HResultFromWin32(ERROR_BUSY));
    answer.Open();
    EXPECT_EQ(owner.Status(), S_OK);
    EXPECT_EQ(owner.Data(), S_OK);
    expectNoneTaken(kRetrieved);
    // A new start forgets what Clear left to be taken.
    ASSERT_EQ(exchange.Send(), S_OK);
    EXPECT_EQ(exchange.Clear(), S_OK);
    owner.OpenRequest();
    ASSERT_EQ(owner.Init(), S_OK);
    expectNoneTaken(kNoState);
}

TEST(WinHttpRequest, AsksAtEachChallengeUntilTheFunctionFails)
{
    int asked = 0;
    const AuthenticationFunction ask = [&](DWORD target, DWORD supported, DWORD first, const auto& /*url*/, DWORD& chosen,
                                           auto& user, auto& password, void* context)
    {
        EXPECT_EQ(target, static_cast<DWORD>(WINHTTP_AUTH_TARGET_SERVER));
        EXPECT_TRUE(supported == WINHTTP_AUTH_SCHEME_BASIC && first == WINHTTP_AUTH_SCHEME_BASIC && context == &asked);
        chosen = WINHTTP_AUTH_SCHEME_BASIC;
        user = password = L"wrong";
        return ++asked < 4 ? S_OK : kResultCancelled;
    };
    for (const auto& [function, expected, requests] :
         { std::tuple(ask, kResultCancelled, 4U), { AuthenticationFunction(), E_FAIL, 1U } })
    {
        CLoopbackServer server(DemandBasic);
        COwner owner(server.Port());
        ASSERT_EQ(owner.Init(function, &asked), S_OK);
        ASSERT_EQ(owner.exchange.Send(), S_OK);
        EXPECT_EQ(owner.Status(), expected);
        EXPECT_EQ(owner.Data(), expected);
        EXPECT_EQ(server.RequestCount(), requests);
    }
}

// ---- The life of an exchange ----

struct CState
{
    const char* name; // the path that the server is asked for too
    bool isHeld;      // by the server or the function
    bool isAnswered;  // the status is there, or a failure
};
constexpr CState kStates[] = {
    { "AwaitsHeaders", true, false }, { "ReadsBody", true, true },
    { "Ended", false, true },         { "EndedWithoutBody", false, true },
    { "Failed", false, true },        { "AtRest", true, false }, // the function chose a scheme that is not offered
};
enum class EEnd
{
    Clear,
    ClearByTwoThreads,
    Destroy,
    InitAgain
};

using ExchangeLife = testing::TestWithParam<std::tuple<CState, EEnd, bool>>;

// Every end in every state, also after the handle's own end: it comes, it answers whoever waits, it leaves nothing behind.
TEST_P(ExchangeLife, EndsWithoutAHangOrALeak)
{
    const auto& [state, end, closesFirst] = GetParam();
    const std::string name = state.name;
    const CAcquireBalance balance = WinHttpHandleBalance();
    CGate reached; // by the server or the function
    CGate closed;  // the request handle: only then the server goes on, so that the platform may finish what it does not cancel
    const CCallHook<decltype(&::WinHttpCloseHandle)> hook("winhttp.dll", "WinHttpCloseHandle",
                                                          [&](auto original, HINTERNET handle)
                                                          {
                                                              const BOOL result = original(handle);
                                                              closed.Open();
                                                              return result;
                                                          });
    CLoopbackServer server(
        [&](const CRequest& request, CConnection& connection)
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

    auto token = std::make_shared<int>(0); // owned by the exchange's functions
    {
        COwner handles(server.Port());
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
        EXPECT_EQ(state.isAnswered ? statusOf() : S_OK, name == "Failed" ? failure : S_OK);
        EXPECT_TRUE(name != "Ended" || exchange->GetResponseData().empty());
        // Somebody waits for the body all the while, where the object stays.
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
            EXPECT_EQ(!state.isAnswered ? statusOf() : kCancelledByClose, kCancelledByClose);
        }
        EXPECT_EQ(token.use_count(), 2) << "the functions stayed behind"; // `refuse` has one
        closed.Open();
    }
    EXPECT_EQ(balance.Open(), 0);
}

INSTANTIATE_TEST_SUITE_P(WinHttpRequest, ExchangeLife,
                         testing::Combine(testing::ValuesIn(kStates),
                                          testing::Values(EEnd::Clear, EEnd::ClearByTwoThreads, EEnd::Destroy, EEnd::InitAgain),
                                          testing::Bool()));

TEST(WinHttpRequest, ItsOwnFunctionsMayEndIt)
{
    const CAcquireBalance balance = WinHttpHandleBalance();
    for (const bool fromAuthentication : { true, false })
        for (const auto& [isCleared, isSentAgain] : { std::pair(false, false), { true, false }, { true, true } })
        {
            SCOPED_TRACE(testing::Message() << fromAuthentication << isCleared << isSentAgain);
            std::atomic<int> requests{ 0 };
            CLoopbackServer server([&](const CRequest& request, CConnection& connection)
                                   { ++requests == 1 ? DemandBasic(request, connection) : Echo(request, connection); });
            auto owner = std::make_unique<COwner>(server.Port());
            COwner second(server.Port());
            CGate done;
            const auto end = [&, token = std::make_shared<int>(0)]() -> HRESULT
            {
                const std::shared_ptr<int> used = token; // the function outlives what it ends
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
                return E_ACCESSDENIED; // reaches nobody any more
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

// ---- Calls that fail: the transport's tests fail them one by one ----

TEST(WinHttpRequest, ARedirectThatIsRefusedIsNotFollowed)
{
    for (const bool throws : { false, true })
    {
        std::atomic<int> requests{ 0 };
        CLoopbackServer server([&](const CRequest&, CConnection& connection)
                               { connection.SendResponse(++requests == 1 ? 302 : 200, { { "Location", "/next" } }); });
        COwner owner(server.Port());
        EXPECT_EQ(owner.Init(), S_OK);
        EXPECT_EQ(owner.exchange.SetRedirectHandler([throws](const std::wstring&) -> HRESULT
                                                    { return throws ? throw std::bad_alloc() : E_ACCESSDENIED; }),
                  S_OK);
        EXPECT_EQ(owner.exchange.Send(), S_OK);
        EXPECT_EQ(owner.Status(), throws ? E_OUTOFMEMORY : E_ACCESSDENIED);
        EXPECT_FALSE(owner.request.IsOpen());
        EXPECT_EQ(owner.exchange.Clear(), S_OK);
        EXPECT_TRUE(requests == 1 || TestSupport::IsWine()); // Wine looks at the handle no more
    }
}

TEST(WinHttpRequest, AFailedSendMayBeRepeated)
{
    CLoopbackServer server(Echo);
    COwner owner(server.Port());
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
    // Nor does one whose status cannot be read.
    ASSERT_EQ(owner.exchange.Send(), S_OK);
    EXPECT_EQ(owner.Status(), noStatus.expected);
    EXPECT_EQ(owner.Data(), noStatus.expected);
    ASSERT_EQ(owner.exchange.Send(), S_OK);
    EXPECT_EQ(owner.Data(), S_OK);
    // A handle that its owner has closed: nothing is sent, and nothing waited for.
    EXPECT_EQ(owner.request.Close(), S_OK);
    EXPECT_EQ(owner.exchange.Send(), E_HANDLE);
    EXPECT_EQ(owner.Data(), E_HANDLE);
}

// ---- Notifications that no server here brings about ----

// An exchange whose request never leaves: the test is WinHTTP.
class CDriven : public COwner
{
public:
    CDriven() : COwner(1)
    {
        EXPECT_EQ(Init(), S_OK);
        EXPECT_EQ(exchange.Send(), S_OK);
        Notify(WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE);
        Notify(WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE);
        EXPECT_EQ(Status(), S_OK);
    }
    void Notify(DWORD status, void* information = nullptr, DWORD length = 0)
    {
        CGet::Callback(request.Get(), m_context, status, information, length);
    }
    void Announce(DWORD count) { Notify(WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE, &count, sizeof(count)); }
    void Deliver(std::string_view bytes)
    {
        Announce(static_cast<DWORD>(bytes.size()));
        ASSERT_EQ(m_bufferSize, bytes.size());
        memcpy(m_buffer, bytes.data(), bytes.size());
        Notify(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, m_buffer, m_bufferSize);
    }
    void RaiseError(DWORD error)
    {
        WINHTTP_ASYNC_RESULT result{ API_RECEIVE_RESPONSE, error };
        Notify(WINHTTP_CALLBACK_STATUS_REQUEST_ERROR, &result, sizeof(result));
    }

private:
    BOOL Read(void* to, DWORD size)
    {
        m_buffer = to;
        m_bufferSize = size;
        return TRUE;
    }
    // So that the platform tells of the handle's end.
    BOOL Take(HINTERNET handle, DWORD_PTR context)
    {
        m_context = context;
        return ::WinHttpSetOption(handle, WINHTTP_OPTION_CONTEXT_VALUE, &context, sizeof(context));
    }

    void* m_buffer = nullptr; // of the read asked for last
    DWORD m_bufferSize = 0;
    DWORD_PTR m_context = 0;
    CCallHook<decltype(&::WinHttpSendRequest)> m_send{ "winhttp.dll", "WinHttpSendRequest",
                                                       [this](auto, auto handle, auto, auto, auto, auto, auto, auto context)
                                                       { return Take(handle, context); } };
    CCallHook<decltype(&::WinHttpReceiveResponse)> m_receive{ "winhttp.dll", "WinHttpReceiveResponse",
                                                              [](auto&&...) { return TRUE; } };
    CCallHook<decltype(&::WinHttpQueryHeaders)> m_headers{ "winhttp.dll", "WinHttpQueryHeaders",
                                                           [](auto, auto, auto, auto, void* value, auto, auto)
                                                           { return *static_cast<DWORD*>(value) = 200, TRUE; } };
    CCallHook<decltype(&::WinHttpQueryDataAvailable)> m_query{ "winhttp.dll", "WinHttpQueryDataAvailable",
                                                               [](auto&&...) { return TRUE; } };
    CCallHook<decltype(&::WinHttpReadData)> m_read{ "winhttp.dll", "WinHttpReadData",
                                                    [this](auto, auto, void* to, DWORD size, auto) { return Read(to, size); } };
};

TEST(WinHttpRequest, NotificationsThatCannotBeEndTheExchange)
{
    DWORD small = 5;
    DWORD64 wide = 3;
    DWORD negative = MAXDWORD;
    WINHTTP_ASYNC_RESULT noError{ API_RECEIVE_RESPONSE, 0 };
    const std::tuple<DWORD, void*, DWORD> malformed[] = {
        { WINHTTP_CALLBACK_STATUS_REQUEST_ERROR, &noError, DWORD{ sizeof(noError) } },
        { WINHTTP_CALLBACK_STATUS_REQUEST_ERROR, &small, DWORD{ sizeof(small) } },
        { WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE, &wide, DWORD{ sizeof(wide) } },
        { WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE, &negative, DWORD{ sizeof(negative) } },
        { WINHTTP_CALLBACK_STATUS_READ_COMPLETE, nullptr, 4UL }, // that nobody asked for
    };
    for (const auto& [status, information, length] : malformed)
    {
        CDriven driven;
        driven.Notify(status, information, length);
        EXPECT_EQ(driven.Data(), E_FAIL) << status << ' ' << length;
    }
    CDriven tooLarge;
    {
        CFailOnCall<CMalloc> fail("msvcrt.dll", "malloc", 1, nullptr, 0);
        tooLarge.Announce(5);
    }
    EXPECT_EQ(tooLarge.Data(), E_OUTOFMEMORY);
    // A broken notice of the handle's end, in place of the platform's own, must not leave Clear waiting.
    CDriven broken;
    constexpr DWORD_PTR kNoContext = 0;
    ASSERT_EQ(broken.request.SetOption(WINHTTP_OPTION_CONTEXT_VALUE, &kNoContext, sizeof(kNoContext)), S_OK);
    broken.Notify(WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING, nullptr, 3);
    EXPECT_EQ(broken.Data(), E_FAIL);
    CGet::Callback(nullptr, 0, WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING, nullptr, 8); // of a handle that sent nothing
}

TEST(WinHttpRequest, WhatComesLateChangesNothingAndTheFirstFailureCounts)
{
    CDriven driven;
    driven.Deliver("ab");
    driven.Deliver("c");
    driven.Announce(0);
    driven.RaiseError(ERROR_WINHTTP_TIMEOUT);
    EXPECT_EQ(driven.Data("abc"), S_OK);
    EXPECT_EQ(driven.exchange.Send(), S_OK);
    CLogCapture log;
    DWORD why = WINHTTP_CALLBACK_STATUS_FLAG_INVALID_CA;
    driven.Notify(WINHTTP_CALLBACK_STATUS_SECURE_FAILURE, &why, sizeof(why));
    driven.RaiseError(ERROR_WINHTTP_SECURE_FAILURE);
    const HRESULT refused = HResultFromWin32(ERROR_WINHTTP_SECURE_FAILURE);
    EXPECT_THAT(log.Lines(), testing::IsSupersetOf({ IsMessage(L"VoWinHttpRequest.h", 404,
                                                               std::wstring(L"Error function: 1   Error code: 12175")),
                                                     IsReportBy(kGetName + L"OnRequestError", refused) }));
    driven.RaiseError(ERROR_WINHTTP_TIMEOUT);
    EXPECT_EQ(driven.Data(), refused);
}

// ---- Many of them ----

TEST(WinHttpRequest, ExchangesClearedAtAnyMomentLeaveNothingBehind)
{
    constexpr int kRounds = 75;
    const CAcquireBalance balance = WinHttpHandleBalance();
    const std::string body(100'000, 'b');
    CLoopbackServer server(
        [&](const CRequest& request, CConnection& connection)
        {
            if (request.Path() == "/401" && request.Header("Authorization").empty())
                DemandBasic(request, connection);
            else
                connection.SendResponse(request.Path() == "/404" ? 404 : 200, {}, request.Path() == "/big" ? body : "small");
        });
    const auto run = [&](unsigned seed)
    {
        std::minstd_rand random(seed);
        for (int round = 0; round < kRounds; ++round)
        {
            constexpr const wchar_t* kPaths[] = { L"/", L"/big", L"/401", L"/404" };
            const auto path = random() % 4;
            const auto end = random() % 6;
            COwner owner(server.Port(), kPaths[path]);
            CGet& exchange = owner.exchange;
            EXPECT_EQ(owner.Init(GiveBasic), S_OK);
            std::jthread other;
            if (end == 0) // at the same time as the send
                other = std::jthread([&] { EXPECT_EQ(exchange.Clear(), S_OK); });
            const HRESULT sent = exchange.Send();
            EXPECT_EQ(end == 1 ? exchange.Clear() : S_OK, S_OK);
            if (end == 2)
                other = std::jthread([&] { EXPECT_EQ(owner.request.Close(), S_OK); });
            if (SUCCEEDED(sent) && end >= 2 && end < 5)
            {
                const HRESULT status = ResultOf([&] { exchange.GetStatusCode(); });
                EXPECT_TRUE(status == S_OK || status == kCancelledByClose) << status;
            }
            // The platform here, under this load, once in some thousands of exchanges refuses to read the body whose headers it
            // has just announced (seen: 12019, incorrect handle state).
            const bool reads = SUCCEEDED(sent) && end == 3 && path != 3;
            const HRESULT data = reads ? ResultOf([&] { exchange.GetResponseData(); }) : S_OK;
            EXPECT_TRUE(data == S_OK || data == HResultFromWin32(ERROR_WINHTTP_INCORRECT_HANDLE_STATE)) << data;
        }
    };
    std::vector<std::jthread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed)
        threads.emplace_back(run, seed);
    threads.clear();
    EXPECT_EQ(balance.Open(), 0);
}

TEST(WinHttpRequest, ExchangesInARowLeakNothing)
{
    CLoopbackServer server([](const CRequest&, CConnection& connection) { connection.SendResponse(200, {}, "small"); });
    COwner owner(server.Port());
    const auto run = [&](int rounds)
    {
        for (int i = 0; i < rounds; ++i)
        {
            ASSERT_EQ(owner.exchange.Clear(), S_OK);
            owner.OpenRequest();
            ASSERT_EQ(owner.Init(GiveBasic), S_OK);
            ASSERT_EQ(owner.exchange.Send(), S_OK);
            ASSERT_EQ(owner.Data("small"), S_OK);
        }
    };
    run(50); // threads, connections and caches come first
    constexpr int kRounds = 500;
    const CAcquireBalance balance = WinHttpHandleBalance();
    const DWORD osHandles = CountProcessHandles();
    const CMemoryMeter meter;
    run(kRounds);
    EXPECT_LT(meter.Blocks(), kRounds / 10);
    EXPECT_EQ(balance.Open(), 0);
    EXPECT_LE(CountProcessHandles(), osHandles + 8); // a pool may start another thread, but not one for every exchange
}
} // namespace
