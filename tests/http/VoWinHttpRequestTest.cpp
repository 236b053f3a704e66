#include <VoWinHttpRequest.h>

#include <LoopbackServer.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include <support/HTTPSupport.h>
#include <support/ImportHook.h>
#include <support/MemoryMeter.h>
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
using CPost = CVoWinHttpRequest<CVoWinHttpPostRequest>;
using CMalloc = void*(WINAPI*)(size_t);

constexpr HRESULT kCancelledByClose = HResultFromWin32(ERROR_WINHTTP_OPERATION_CANCELLED);
const std::wstring kGetName = L"VoWinHttpRequest::CVoWinHttpRequest<class VoWinHttpRequest::CVoWinHttpGetRequest>::";

// An event that opens once.
class CGate
{
public:
    void Open() noexcept
    {
        const std::lock_guard lock(m_lock);
        m_isOpen = true;
        m_changed.NotifyAll();
    }
    void Wait() noexcept
    {
        std::unique_lock lock(m_lock);
        m_changed.Wait(lock, [this] { return m_isOpen; });
    }

private:
    Detail::CLock m_lock; // the standard library's waits miss a call now and then with the mingw-w64 compilers
    Detail::CCondition m_changed;
    bool m_isOpen = false;
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
template <class Request = CGet>
struct COwner
{
    WinHttpSessionHandle session;
    WinHttpConnectionHandle connection;
    WinHttpRequestHandle request;
    Request exchange;

    explicit COwner(UINT16 port, const wchar_t* verb = L"GET", const wchar_t* path = L"/")
    {
        EXPECT_EQ(session.Init(L"VoUtils tests", WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_FLAG_ASYNC), S_OK);
        EXPECT_EQ(connection.Init(session, L"127.0.0.1", port), S_OK);
        OpenRequest(verb, path);
    }
    void OpenRequest(const wchar_t* verb = L"GET", const wchar_t* path = L"/")
    {
        EXPECT_EQ(request.Init(connection, verb, path, WINHTTP_FLAG_REFRESH), S_OK);
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

std::string MakeBody(size_t size)
{
    std::string body(size, '\0');
    std::minstd_rand random(static_cast<unsigned>(size) + 1);
    for (char& byte : body)
        byte = static_cast<char>(random());
    return body;
}

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
    COwner<> owner(server.Port());
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

TEST(WinHttpRequest, ChallengesAreAnsweredByTheFunction)
{
    int wrongTries = 0;
    int context = 0;
    const AuthenticationFunction accepted = [&](DWORD target, DWORD supported, DWORD first, const std::wstring& url,
                                                DWORD& chosen, std::wstring& user, std::wstring& password, void* given)
    {
        EXPECT_EQ(target, static_cast<DWORD>(WINHTTP_AUTH_TARGET_SERVER));
        EXPECT_TRUE(supported == WINHTTP_AUTH_SCHEME_BASIC && first == WINHTTP_AUTH_SCHEME_BASIC);
        EXPECT_EQ(given, &context);
        return GiveBasic(target, supported, first, url, chosen, user, password, given);
    };
    // Asked again and again: the platform here would send the first credentials again.
    const AuthenticationFunction wrong = [&](auto, auto, auto, const auto&, auto& chosen, auto& user, auto& password, auto)
    {
        chosen = WINHTTP_AUTH_SCHEME_BASIC;
        user = password = L"wrong";
        return ++wrongTries < 4 ? S_OK : kResultCancelled;
    };
    const std::tuple<AuthenticationFunction, HRESULT, size_t> table[] = { { accepted, S_OK, 2 },
                                                                          { wrong, kResultCancelled, 4 },
                                                                          { {}, E_FAIL, 1 } };
    for (const auto& [function, expected, requests] : table)
    {
        SCOPED_TRACE(requests);
        CLoopbackServer server(DemandBasic);
        COwner<CPost> owner(server.Port(), L"POST");
        ASSERT_EQ(owner.Init(function, &context), S_OK);
        ASSERT_EQ(owner.exchange.SetRequestData("body", 4), S_OK);
        ASSERT_EQ(owner.exchange.Send(), S_OK);
        EXPECT_EQ(owner.Status(), expected);
        EXPECT_EQ(owner.Data("body"), expected);
        EXPECT_EQ(server.RequestCount(), requests);
    }
}

// ---- The life of an exchange ----

enum class EState
{
    Created,
    Initialised,
    AwaitsHeaders,
    ReadsBody,
    Ended,
    EndedWithoutBody,
    Failed,
    AtRest // the function chose a scheme that is not offered
};
enum class EEnd
{
    Clear,
    ClearByTwoThreads,
    Destroy,
    InitAgain
};

using ExchangeLife = testing::TestWithParam<std::tuple<EState, EEnd, bool>>;

// Every end in every state, also after the handle's own end: it comes, it answers whoever waits, it leaves nothing behind.
TEST_P(ExchangeLife, EndsWithoutAHangOrALeak)
{
    const EState state = std::get<0>(GetParam());
    const EEnd end = std::get<1>(GetParam());
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
            if (state == EState::AtRest)
                return DemandBasic(request, connection);
            if (state == EState::ReadsBody)
            {
                connection.SendResponseHead(200, {}, 20'000);
                connection.Send(std::string(10'000, 'a'));
            }
            if (state == EState::AwaitsHeaders || state == EState::ReadsBody)
            {
                reached.Open();
                closed.Wait();
            }
            if (state == EState::ReadsBody)
                connection.Send(std::string(10'000, 'b'));
            else
                connection.SendResponse(state == EState::EndedWithoutBody ? 500 : 200);
        });
    if (state == EState::Failed)
        server.Stop();

    auto token = std::make_shared<int>(0); // owned by the exchange's functions
    {
        COwner<> handles(server.Port());
        std::optional<CGet> exchange(std::in_place);
        const auto statusOf = [&] { return ResultOf([&] { exchange->GetStatusCode(); }); };
        const bool wasSent = state != EState::Created && state != EState::Initialised;
        const auto refuse = [&reached, token](auto, auto, auto, const auto&, DWORD& chosen, auto&, auto&, auto)
        {
            chosen = WINHTTP_AUTH_SCHEME_NEGOTIATE;
            reached.Open();
            return S_OK;
        };
        EXPECT_EQ(state != EState::Created ? exchange->Init(&handles.request, refuse, nullptr) : S_OK, S_OK);
        EXPECT_EQ(wasSent ? exchange->Send() : S_OK, S_OK);
        if (state == EState::AwaitsHeaders || state == EState::ReadsBody || state == EState::AtRest)
        {
            reached.Wait();
            EXPECT_EQ(exchange->Send(), E_FAIL);
        }
        const HRESULT failure = state == EState::Failed ? HResultFromWin32(ERROR_WINHTTP_CANNOT_CONNECT) : kCancelledByClose;
        const bool isAnswered = wasSent && state != EState::AwaitsHeaders && state != EState::AtRest;
        EXPECT_EQ(isAnswered ? statusOf() : S_OK, state == EState::Failed ? failure : S_OK);
        EXPECT_TRUE(state != EState::Ended || exchange->GetResponseData().empty());
        // Somebody waits for the body all the while, where the object stays.
        std::future<HRESULT> waiting;
        if (wasSent && state != EState::Ended && (end == EEnd::Clear || end == EEnd::ClearByTwoThreads))
            waiting = std::async(std::launch::async, [&] { return ResultOf([&] { exchange->GetResponseData(); }); });

        EXPECT_EQ(std::get<2>(GetParam()) ? handles.request.Close() : S_OK, S_OK);
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
            std::thread other;
            if (end == EEnd::ClearByTwoThreads)
                other = std::thread([&] { EXPECT_EQ(exchange->Clear(), S_OK); });
            EXPECT_EQ(exchange->Clear(), S_OK);
            EXPECT_EQ(exchange->Clear(), S_OK);
            if (other.joinable())
                other.join();
            EXPECT_EQ(waiting.valid() ? waiting.get() : failure, failure);
            EXPECT_EQ(wasSent && !isAnswered ? statusOf() : kCancelledByClose, kCancelledByClose);
        }
        EXPECT_EQ(token.use_count(), 2) << "the functions stayed behind"; // `refuse` has one
        closed.Open();
    }
    EXPECT_EQ(balance.Open(), 0);
}

INSTANTIATE_TEST_SUITE_P(WinHttpRequest, ExchangeLife,
                         testing::Combine(testing::Values(EState::Created, EState::Initialised, EState::AwaitsHeaders,
                                                          EState::ReadsBody, EState::Ended, EState::EndedWithoutBody,
                                                          EState::Failed, EState::AtRest),
                                          testing::Values(EEnd::Clear, EEnd::ClearByTwoThreads, EEnd::Destroy, EEnd::InitAgain),
                                          testing::Bool()));

TEST(WinHttpRequest, ItsOwnFunctionsMayEndIt)
{
    enum EAct
    {
        Destroy,
        Clear,
        StartAgain
    };
    const CAcquireBalance balance = WinHttpHandleBalance();
    for (const bool fromAuthentication : { true, false })
        for (const EAct act : { Destroy, Clear, StartAgain })
        {
            SCOPED_TRACE(testing::Message() << fromAuthentication << " " << act);
            std::atomic<int> requests{ 0 };
            CLoopbackServer server([&](const CRequest& request, CConnection& connection)
                                   { ++requests == 1 ? DemandBasic(request, connection) : Echo(request, connection); });
            auto owner = std::make_unique<COwner<>>(server.Port());
            COwner<> second(server.Port());
            CGate done;
            auto token = std::make_shared<int>(0);
            const auto end = [&, token]() -> HRESULT
            {
                const std::shared_ptr<int> used = token; // the function outlives what it ends
                if (act == Destroy)
                    owner.reset();
                else
                {
                    EXPECT_EQ(owner->exchange.Clear(), S_OK);
                    EXPECT_FALSE(owner->request.IsOpen());
                }
                if (act == StartAgain)
                {
                    EXPECT_EQ(owner->exchange.Init(&second.request, {}, nullptr), S_OK);
                    EXPECT_EQ(owner->exchange.Send(), S_OK);
                }
                *used = 1;
                done.Open();
                return E_ACCESSDENIED; // reaches nobody any more
            };
            ASSERT_EQ(owner->Init([=](auto&&...) -> HRESULT { return fromAuthentication ? end() : E_UNEXPECTED; }), S_OK);
            const SendCompleteHandler handler =
                fromAuthentication ? nullptr : SendCompleteHandler([end](auto&&...) { return end(); });
            ASSERT_EQ(owner->exchange.SetSendCompleteHandler(handler), S_OK);
            ASSERT_EQ(owner->exchange.Send(), S_OK);
            done.Wait();
            EXPECT_EQ(act != Destroy ? owner->Status() : S_OK, act == Clear ? kCancelledByClose : S_OK);
            owner.reset();
        }
    EXPECT_EQ(balance.Open(), 0);
}

// ---- Calls that fail: the transport's tests fail them one by one ----

TEST(WinHttpRequest, AFailedSendMayBeRepeated)
{
    CLoopbackServer server(Echo);
    COwner<> owner(server.Port());
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
class CDriven : public COwner<>
{
public:
    CDriven() : COwner<>(1)
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
    const std::string body = MakeBody(100'000);
    CLoopbackServer server(
        [&](const CRequest& request, CConnection& connection)
        {
            if (request.Path() == "/401" && request.Header("Authorization").empty())
                DemandBasic(request, connection);
            else
                connection.SendResponse(request.Path() == "/404" ? 404 : 200, {}, request.Path() == "/big" ? body : "small");
        });
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < 4; ++thread)
        threads.emplace_back(
            [&, thread]
            {
                std::minstd_rand random(thread + 1);
                for (int round = 0; round < kRounds; ++round)
                {
                    constexpr const wchar_t* kPaths[] = { L"/", L"/big", L"/404", L"/401" };
                    const wchar_t* const path = kPaths[random() % 4];
                    COwner<> owner(server.Port(), L"GET", path);
                    CGet& exchange = owner.exchange;
                    EXPECT_EQ(owner.Init(GiveBasic), S_OK);
                    const auto end = random() % 6;
                    std::thread other;
                    if (end == 0) // at the same time as the send
                        other = std::thread([&] { EXPECT_EQ(exchange.Clear(), S_OK); });
                    const HRESULT sent = exchange.Send();
                    EXPECT_EQ(end == 1 ? exchange.Clear() : S_OK, S_OK);
                    if (end == 2)
                        other = std::thread([&] { EXPECT_EQ(owner.request.Close(), S_OK); });
                    if (SUCCEEDED(sent) && end >= 2 && end < 5)
                    {
                        const HRESULT status = ResultOf([&] { exchange.GetStatusCode(); });
                        EXPECT_TRUE(status == S_OK || status == kCancelledByClose) << status;
                        if (end == 3 && std::wstring_view(path) != L"/404")
                        {
                            // The platform here, under this load, once in some thousands of exchanges refuses to read the body
                            // whose headers it has just announced (seen: 12019, incorrect handle state).
                            const HRESULT data = ResultOf([&] { exchange.GetResponseData(); });
                            EXPECT_TRUE(data == S_OK || data == HResultFromWin32(ERROR_WINHTTP_INCORRECT_HANDLE_STATE)) << data;
                        }
                    }
                    if (other.joinable())
                        other.join();
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(balance.Open(), 0);
}

TEST(WinHttpRequest, ExchangesInARowLeakNothing)
{
    CLoopbackServer server([](const CRequest&, CConnection& connection) { connection.SendResponse(200, {}, "small"); });
    COwner<> owner(server.Port());
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
