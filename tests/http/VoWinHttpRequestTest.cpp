#include <VoWinHttpRequest.h>

#include "support/MemoryMeter.h"

#include <LoopbackServer.h>

#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include <support/ImportHook.h>
#include <support/LogCapture.h>
#include <support/WinHttpHandles.h>

namespace
{
using Loopback::CConnection;
using Loopback::CLoopbackServer;
using Loopback::CRequest;
using testing::Contains;
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
constexpr const wchar_t* kGetName = L"VoWinHttpRequest::CVoWinHttpRequest<class VoWinHttpRequest::CVoWinHttpGetRequest>::";

// An event that opens once.
class CGate
{
public:
    void Open() noexcept
    {
        if (!m_isOpen.exchange(true))
            m_promise.set_value();
    }
    void Wait() const { m_future.wait(); }

private:
    std::promise<void> m_promise;
    std::shared_future<void> m_future = m_promise.get_future().share();
    std::atomic<bool> m_isOpen{ false };
};

// The handles of one request to a port of 127.0.0.1.
struct CHandles
{
    WinHttpSessionHandle session;
    WinHttpConnectionHandle connection;
    WinHttpRequestHandle request;

    explicit CHandles(UINT16 port, const wchar_t* verb = L"GET", const wchar_t* path = L"/")
    {
        EXPECT_EQ(session.Init(L"VoUtils tests", WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_FLAG_ASYNC), S_OK);
        EXPECT_EQ(connection.Init(session, L"127.0.0.1", port), S_OK);
        OpenRequest(verb, path);
    }
    void OpenRequest(const wchar_t* verb = L"GET", const wchar_t* path = L"/")
    {
        EXPECT_EQ(request.Init(connection, verb, path, WINHTTP_FLAG_REFRESH), S_OK);
    }
};

// What a get function does: the code it throws, S_OK for a value.
template <class Get>
HRESULT ResultOf(Get get)
{
    try
    {
        get();
        return S_OK;
    }
    catch (const HRESULTexc& failure)
    {
        return failure.Result();
    }
}
template <class Get>
std::error_code FutureErrorOf(Get get)
{
    try
    {
        get();
    }
    catch (const std::future_error& error)
    {
        return error.code();
    }
    return {};
}

std::string MakeBody(size_t size)
{
    std::string body(size, '\0');
    std::minstd_rand random(static_cast<unsigned>(size) + 1);
    for (char& byte : body)
        byte = static_cast<char>(random());
    return body;
}
std::string Text(const std::vector<BYTE>& bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

void Echo(const CRequest& request, CConnection& connection)
{
    connection.SendResponse(200, {}, request.body);
}

TEST(WinHttpRequest, AFailureSaysItsCode)
{
    EXPECT_STREQ(HRESULTexc(kCancelledByClose).what(), "HRESULT -2147012879");
    EXPECT_STREQ(HRESULTexc(E_OUTOFMEMORY).what(), "HRESULT -2147024882");
    EXPECT_STREQ(HRESULTexc(S_OK).what(), "HRESULT 0");
    EXPECT_STREQ(HRESULTexc(INT32_MIN).what(), "HRESULT -2147483648");
    try
    {
        throw HRESULTexc(kCancelledByClose);
    }
    catch (...)
    {
        EXPECT_EQ(HResultFromCurrentException(), kCancelledByClose);
    }
}

TEST(WinHttpRequest, BodiesOfEverySizeGoAndCome)
{
    CLoopbackServer server(Echo);
    const CAcquireBalance balance = WinHttpHandleBalance();
    for (const size_t size : { 0U, 1U, 70'000U, 10U << 20 })
    {
        SCOPED_TRACE(size);
        const std::string body = MakeBody(size);
        CHandles handles(server.Port(), L"POST", L"/echo");
        CPost exchange;
        ASSERT_EQ(exchange.Init(&handles.request, {}, nullptr), S_OK);
        std::atomic<int> sent{ 0 };
        ASSERT_EQ(exchange.SetSendCompleteHandler(
                      [&](DWORD status, void*, DWORD)
                      {
                          sent += status == WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE ? 1 : 100;
                          return S_OK;
                      }),
                  S_OK);
        ASSERT_EQ(exchange.SetRequestData(body.data(), static_cast<DWORD>(size)), S_OK);
        // The same object serves again as soon as the exchange has ended.
        for (int round = 1; round <= 2; ++round)
        {
            ASSERT_EQ(exchange.Send(), S_OK);
            EXPECT_EQ(exchange.GetStatusCode(), 200U);
            EXPECT_TRUE(Text(exchange.GetResponseData()) == body);
            EXPECT_EQ(sent, round);
        }
        EXPECT_TRUE(handles.request.IsOpen()); // headers may be read until Clear
        EXPECT_EQ(exchange.Clear(), S_OK);
        EXPECT_FALSE(handles.request.IsOpen());
    }
    EXPECT_EQ(balance.Open(), 0);
}

TEST(WinHttpRequest, AnswersAreTakenOncePerSend)
{
    CLoopbackServer server(Echo);
    CHandles handles(server.Port());
    CGet exchange;
    const auto status = [&] { exchange.GetStatusCode(); };
    const auto data = [&] { exchange.GetResponseData(); };
    const auto noState = std::make_error_code(std::future_errc::no_state);
    const auto retrieved = std::make_error_code(std::future_errc::future_already_retrieved);

    EXPECT_EQ(FutureErrorOf(status), noState);
    EXPECT_EQ(exchange.Send(), E_FAIL);
    EXPECT_EQ(exchange.SetRequestData("x", 1), E_FAIL);
    EXPECT_EQ(exchange.SetSendCompleteHandler({}), E_FAIL);
    EXPECT_EQ(exchange.Init(nullptr, {}, nullptr), E_POINTER);
    ASSERT_EQ(exchange.Init(&handles.request, {}, nullptr), S_OK);
    EXPECT_EQ(FutureErrorOf(status), noState);
    EXPECT_EQ(FutureErrorOf(data), noState);
    for (int round = 0; round < 2; ++round)
    {
        ASSERT_EQ(exchange.Send(), S_OK);
        EXPECT_EQ(exchange.GetStatusCode(), 200U);
        EXPECT_EQ(FutureErrorOf(status), retrieved);
        EXPECT_TRUE(exchange.GetResponseData().empty());
        EXPECT_EQ(FutureErrorOf(data), retrieved);
    }
    // What Clear leaves is to be taken; a new start forgets it.
    ASSERT_EQ(exchange.Send(), S_OK);
    EXPECT_EQ(exchange.Clear(), S_OK);
    EXPECT_NO_THROW(ResultOf(status));
    handles.OpenRequest();
    ASSERT_EQ(exchange.Init(&handles.request, {}, nullptr), S_OK);
    EXPECT_EQ(FutureErrorOf(data), noState);
}

TEST(WinHttpRequest, SendAndSettersFailWhileAnExchangeRuns)
{
    CGate answer;
    CLoopbackServer server(
        [&](const CRequest& request, CConnection& connection)
        {
            answer.Wait();
            Echo(request, connection);
        });
    CHandles handles(server.Port());
    CGet exchange;
    ASSERT_EQ(exchange.Init(&handles.request, {}, nullptr), S_OK);
    ASSERT_EQ(exchange.Send(), S_OK);
    CLogCapture log;
    EXPECT_EQ(exchange.Send(), E_FAIL);
    EXPECT_THAT(log.Lines(), Contains(IsReportBy(std::wstring(kGetName) + L"Send", E_FAIL)));
    EXPECT_EQ(exchange.SetRequestData("x", 1), E_FAIL);
    EXPECT_EQ(exchange.SetSendCompleteHandler({}), E_FAIL);
    CGet second;
    EXPECT_EQ(second.Init(&handles.request, {}, nullptr), HResultFromWin32(ERROR_BUSY));
    answer.Open();
    EXPECT_EQ(exchange.GetStatusCode(), 200U);
    EXPECT_TRUE(exchange.GetResponseData().empty());
    EXPECT_EQ(server.RequestCount(), 1U);
}

TEST(WinHttpRequest, AStatusFrom300OnEndsWithoutABodyAndMayBeSentAgain)
{
    std::atomic<int> requests{ 0 };
    CLoopbackServer server([&](const CRequest&, CConnection& connection)
                           { connection.SendResponse(++requests < 3 ? 404 : 200, {}, MakeBody(70'000)); });
    CHandles handles(server.Port());
    CGet exchange;
    ASSERT_EQ(exchange.Init(&handles.request, {}, nullptr), S_OK);
    ASSERT_EQ(exchange.Send(), S_OK);
    EXPECT_EQ(exchange.GetStatusCode(), 404U);
    ASSERT_EQ(exchange.Send(), S_OK);
    EXPECT_EQ(exchange.GetStatusCode(), 404U);
    ASSERT_EQ(exchange.Send(), S_OK);
    EXPECT_EQ(exchange.GetStatusCode(), 200U);
    EXPECT_EQ(exchange.GetResponseData().size(), 70'000U);

    requests = 0;
    ASSERT_EQ(exchange.Send(), S_OK);
    EXPECT_EQ(exchange.GetStatusCode(), 404U);
    std::future<HRESULT> waiting =
        std::async(std::launch::async, [&] { return ResultOf([&] { exchange.GetResponseData(); }); });
    EXPECT_EQ(exchange.Clear(), S_OK);
    EXPECT_EQ(waiting.get(), kCancelledByClose);
    EXPECT_EQ(requests, 1);
}

// ---- Authentication ----

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

TEST(WinHttpRequest, ChallengesAreAnsweredByTheFunction)
{
    struct CCase
    {
        const char* name;
        AuthenticationFunction function;
        HRESULT expected;
        size_t requests;
    };
    int wrongTries = 0;
    int context = 0;
    const CCase cases[] = {
        { "accepted",
          [&](DWORD target, DWORD supported, DWORD first, const std::wstring& url, DWORD& chosen, std::wstring& user,
              std::wstring& password, void* given) -> HRESULT
          {
              EXPECT_EQ(target, static_cast<DWORD>(WINHTTP_AUTH_TARGET_SERVER));
              EXPECT_EQ(supported, static_cast<DWORD>(WINHTTP_AUTH_SCHEME_BASIC));
              EXPECT_EQ(first, static_cast<DWORD>(WINHTTP_AUTH_SCHEME_BASIC));
              EXPECT_TRUE(url.empty() || url == L"127.0.0.1") << "a reused connection resolves nothing";
              EXPECT_EQ(given, &context);
              chosen = WINHTTP_AUTH_SCHEME_BASIC;
              user = L"u";
              password = L"p";
              return S_OK;
          },
          S_OK, 2 },
        { "asked again and again, until declined", // the platform here would send the first credentials again
          [&](DWORD, DWORD, DWORD, const std::wstring&, DWORD& chosen, std::wstring& user, std::wstring& password,
              void*) -> HRESULT
          {
              chosen = WINHTTP_AUTH_SCHEME_BASIC;
              user = L"u";
              password = L"wrong";
              return ++wrongTries < 4 ? S_OK : kResultCancelled;
          },
          kResultCancelled, 4 },
        { "declined", [](DWORD, DWORD, DWORD, const std::wstring&, DWORD&, std::wstring&, std::wstring&, void*) -> HRESULT
          { return kResultCancelled; }, kResultCancelled, 1 },
        { "throwing", [](DWORD, DWORD, DWORD, const std::wstring&, DWORD&, std::wstring&, std::wstring&, void*) -> HRESULT
          { throw std::bad_alloc(); }, E_OUTOFMEMORY, 1 },
        { "none", {}, E_FAIL, 1 },
    };
    for (const CCase& row : cases)
    {
        SCOPED_TRACE(row.name);
        CLoopbackServer server(DemandBasic);
        CHandles handles(server.Port(), L"POST");
        CPost exchange;
        ASSERT_EQ(exchange.Init(&handles.request, row.function, &context), S_OK);
        ASSERT_EQ(exchange.SetRequestData("body", 4), S_OK);
        ASSERT_EQ(exchange.Send(), S_OK);
        EXPECT_EQ(ResultOf([&] { EXPECT_EQ(exchange.GetStatusCode(), 200U); }), row.expected);
        EXPECT_EQ(ResultOf([&] { EXPECT_EQ(Text(exchange.GetResponseData()), "body"); }), row.expected);
        EXPECT_EQ(server.RequestCount(), row.requests);
    }
}

TEST(WinHttpRequest, ASchemeThatIsNotOfferedLeavesTheExchangeAtRestUntilItIsClosed)
{
    CLoopbackServer server(DemandBasic);
    CHandles handles(server.Port());
    CGet exchange;
    CGate asked;
    ASSERT_EQ(exchange.Init(
                  &handles.request,
                  [&](DWORD, DWORD, DWORD, const std::wstring&, DWORD& chosen, std::wstring&, std::wstring&, void*) -> HRESULT
                  {
                      chosen = WINHTTP_AUTH_SCHEME_NEGOTIATE;
                      asked.Open();
                      return S_OK;
                  },
                  nullptr),
              S_OK);
    ASSERT_EQ(exchange.Send(), S_OK);
    asked.Wait();
    EXPECT_EQ(exchange.Send(), E_FAIL);
    EXPECT_EQ(exchange.Clear(), S_OK);
    EXPECT_EQ(ResultOf([&] { exchange.GetStatusCode(); }), kCancelledByClose);
    EXPECT_EQ(ResultOf([&] { exchange.GetResponseData(); }), kCancelledByClose);
    EXPECT_EQ(server.RequestCount(), 1U);
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
    AtRest
};
enum class EEnd
{
    Clear,
    ClearTwice,
    Destroy,
    ClearByTwoThreads,
    CloseHandleThenClear,
    CloseHandleThenDestroy,
    InitAgain
};

class ExchangeLife : public testing::TestWithParam<std::tuple<EState, EEnd>>
{
};

// Every end in every state: it comes, it answers whoever waits, it leaves nothing behind.
TEST_P(ExchangeLife, EndsWithoutAHangOrALeak)
{
    const auto [state, end] = GetParam();
    const CAcquireBalance balance = WinHttpHandleBalance();
    CGate reached; // by the server or the functions
    CGate closed;  // the request handle: only then the server goes on
    // The server's answer ends a stall, so that the platform may also finish what it does not cancel.
    CCallHook<decltype(&::WinHttpCloseHandle)> hook("winhttp.dll", "WinHttpCloseHandle",
                                                    [&](auto original, HINTERNET handle)
                                                    {
                                                        const BOOL result = original(handle);
                                                        closed.Open();
                                                        return result;
                                                    });
    std::optional<CLoopbackServer> server;
    server.emplace(
        [&, wanted = state](const CRequest& request, CConnection& connection)
        {
            switch (wanted)
            {
            case EState::AwaitsHeaders:
                reached.Open();
                closed.Wait();
                Echo(request, connection);
                break;
            case EState::ReadsBody:
                connection.SendResponseHead(200, {}, 20'000);
                connection.Send(std::string(10'000, 'a'));
                reached.Open();
                closed.Wait();
                connection.Send(std::string(10'000, 'b'));
                break;
            case EState::EndedWithoutBody:
                connection.SendResponse(500, {}, "why");
                break;
            case EState::AtRest:
                DemandBasic(request, connection);
                break;
            default:
                Echo(request, connection);
            }
        });
    const UINT16 port = server->Port();
    if (state == EState::Failed)
        server.reset();

    auto token = std::make_shared<int>(0); // owned by the exchange's functions
    {
        CHandles handles(port);
        std::optional<CGet> exchange(std::in_place);
        const bool wasSent = state != EState::Created && state != EState::Initialised;
        if (state != EState::Created)
        {
            ASSERT_EQ(exchange->Init(
                          &handles.request,
                          [&reached, token](DWORD, DWORD, DWORD, const std::wstring&, DWORD&, std::wstring&, std::wstring&,
                                            void*) -> HRESULT
                          {
                              reached.Open();
                              return S_OK; // with no scheme chosen
                          },
                          nullptr),
                      S_OK);
        }
        if (wasSent)
        {
            ASSERT_EQ(exchange->Send(), S_OK);
        }
        HRESULT status = kCancelledByClose;
        switch (state)
        {
        case EState::AwaitsHeaders:
        case EState::AtRest:
            reached.Wait();
            break;
        case EState::ReadsBody:
            reached.Wait();
            EXPECT_EQ(exchange->GetStatusCode(), 200U);
            break;
        case EState::Ended:
            EXPECT_EQ(exchange->GetStatusCode(), 200U);
            EXPECT_TRUE(exchange->GetResponseData().empty());
            break;
        case EState::EndedWithoutBody:
            EXPECT_EQ(exchange->GetStatusCode(), 500U);
            break;
        case EState::Failed:
            EXPECT_EQ(ResultOf([&] { exchange->GetStatusCode(); }), HResultFromWin32(ERROR_WINHTTP_CANNOT_CONNECT));
            status = HResultFromWin32(ERROR_WINHTTP_CANNOT_CONNECT);
            break;
        default:
            break;
        }
        // Somebody waits for the body all the while.
        std::future<HRESULT> waiting;
        if (wasSent && state != EState::Ended && end != EEnd::Destroy && end != EEnd::InitAgain)
            waiting = std::async(std::launch::async, [&] { return ResultOf([&] { exchange->GetResponseData(); }); });

        if (end == EEnd::CloseHandleThenClear || end == EEnd::CloseHandleThenDestroy)
        {
            EXPECT_EQ(handles.request.Close(), S_OK);
        }
        switch (end)
        {
        case EEnd::ClearTwice:
            EXPECT_EQ(exchange->Clear(), S_OK);
            [[fallthrough]];
        case EEnd::Clear:
        case EEnd::CloseHandleThenClear:
            EXPECT_EQ(exchange->Clear(), S_OK);
            break;
        case EEnd::ClearByTwoThreads:
        {
            std::thread other([&] { EXPECT_EQ(exchange->Clear(), S_OK); });
            EXPECT_EQ(exchange->Clear(), S_OK);
            other.join();
            break;
        }
        case EEnd::InitAgain:
        {
            WinHttpRequestHandle next;
            ASSERT_EQ(next.Init(handles.connection, L"GET", L"/", 0), S_OK);
            EXPECT_EQ(exchange->Init(&next, {}, nullptr), S_OK);
            exchange.reset();
            break;
        }
        default:
            if (waiting.valid()) // the thread must be out of the object before it goes
            {
                EXPECT_EQ(waiting.get(), status);
            }
            exchange.reset();
        }
        if (waiting.valid())
        {
            EXPECT_EQ(waiting.get(), status);
        }
        if (exchange && wasSent && (state == EState::AwaitsHeaders || state == EState::AtRest))
        {
            EXPECT_EQ(ResultOf([&] { exchange->GetStatusCode(); }), kCancelledByClose);
        }
        EXPECT_EQ(token.use_count(), 1) << "the functions stayed behind";
        closed.Open();
    }
    EXPECT_EQ(balance.Open(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    WinHttpRequest, ExchangeLife,
    testing::Combine(testing::Values(EState::Created, EState::Initialised, EState::AwaitsHeaders, EState::ReadsBody,
                                     EState::Ended, EState::EndedWithoutBody, EState::Failed, EState::AtRest),
                     testing::Values(EEnd::Clear, EEnd::ClearTwice, EEnd::Destroy, EEnd::ClearByTwoThreads,
                                     EEnd::CloseHandleThenClear, EEnd::CloseHandleThenDestroy, EEnd::InitAgain)));

TEST(WinHttpRequest, DestructionWhileItRunsWaitsForTheHandlesEnd)
{
    // Nobody waits for an answer, and nothing was cleared before.
    for (const bool inBody : { false, true })
    {
        CGate reached;
        CGate closed;
        CCallHook<decltype(&::WinHttpCloseHandle)> hook("winhttp.dll", "WinHttpCloseHandle",
                                                        [&](auto original, HINTERNET handle)
                                                        {
                                                            const BOOL result = original(handle);
                                                            closed.Open();
                                                            return result;
                                                        });
        CLoopbackServer server(
            [&](const CRequest&, CConnection& connection)
            {
                if (inBody)
                    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345");
                reached.Open();
                closed.Wait();
                connection.CloseNow();
            });
        CHandles handles(server.Port());
        auto exchange = std::make_unique<CGet>();
        ASSERT_EQ(exchange->Init(&handles.request, {}, nullptr), S_OK);
        ASSERT_EQ(exchange->Send(), S_OK);
        reached.Wait();
        exchange.reset();
        EXPECT_FALSE(handles.request.IsOpen());
    }
}

// What an exchange uses, owned together as a transport owns it.
struct COwner
{
    CHandles handles;
    CGet exchange;
    explicit COwner(UINT16 port) : handles(port) {}
};

TEST(WinHttpRequest, ItsOwnFunctionsMayEndIt)
{
    enum class EAct
    {
        Destroy,
        Clear,
        StartAgain
    };
    const CAcquireBalance balance = WinHttpHandleBalance();
    for (const bool fromAuthentication : { true, false })
        for (const EAct act : { EAct::Destroy, EAct::Clear, EAct::StartAgain })
        {
            SCOPED_TRACE(testing::Message() << fromAuthentication << " " << static_cast<int>(act));
            std::atomic<int> requests{ 0 };
            CLoopbackServer server(
                [&](const CRequest& request, CConnection& connection)
                {
                    if (++requests == 1)
                        DemandBasic(request, connection);
                    else
                        Echo(request, connection);
                });
            auto owner = std::make_unique<COwner>(server.Port());
            CHandles second(server.Port());
            CGate done;
            auto token = std::make_shared<int>(0);
            const auto end = [&, token]() -> HRESULT
            {
                const std::shared_ptr<int> used = token; // the function outlives what it ends
                if (act == EAct::Destroy)
                    owner.reset();
                else
                {
                    EXPECT_EQ(owner->exchange.Clear(), S_OK);
                    EXPECT_FALSE(owner->handles.request.IsOpen());
                }
                if (act == EAct::StartAgain)
                {
                    EXPECT_EQ(owner->exchange.Init(&second.request, {}, nullptr), S_OK);
                    EXPECT_EQ(owner->exchange.Send(), S_OK);
                }
                *used = 1;
                done.Open();
                return E_ACCESSDENIED; // reaches nobody any more
            };
            ASSERT_EQ(owner->exchange.Init(
                          &owner->handles.request,
                          [&, end, mayEnd = fromAuthentication](DWORD, DWORD, DWORD, const std::wstring&, DWORD&, std::wstring&,
                                                                std::wstring&, void*) -> HRESULT
                          { return mayEnd ? end() : E_UNEXPECTED; },
                          nullptr),
                      S_OK);
            if (!fromAuthentication)
            {
                ASSERT_EQ(owner->exchange.SetSendCompleteHandler([end](DWORD, void*, DWORD) { return end(); }), S_OK);
            }
            ASSERT_EQ(owner->exchange.Send(), S_OK);
            HRESULT answer = S_OK;
            if (act != EAct::Destroy)
            {
                done.Wait();
                answer = ResultOf([&] { owner->exchange.GetStatusCode(); });
            }
            done.Wait();
            EXPECT_EQ(answer, act == EAct::Clear ? kCancelledByClose : S_OK);
            owner.reset();
        }
    EXPECT_EQ(balance.Open(), 0);
}

// ---- Servers that fail ----

TEST(WinHttpRequest, AConnectionThatDiesEndsTheExchange)
{
    struct
    {
        const char* name;
        std::function<void(CConnection&)> answer;
        bool hasStatus;
    } const table[] = {
        { "closed without an answer", [](CConnection& connection) { connection.CloseNow(); }, false },
        { "reset without an answer", [](CConnection& connection) { connection.Reset(); }, false },
        { "no HTTP",
          [](CConnection& connection)
          {
              connection.Send("what?\r\n\r\n");
              connection.CloseNow();
          },
          false },
        { "reset between headers and body",
          [](CConnection& connection)
          {
              connection.SendResponseHead(200, {}, 100'000);
              connection.Reset();
          },
          true },
        { "closed inside a chunk",
          [](CConnection& connection)
          {
              connection.Send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n10\r\nabc");
              connection.CloseNow();
          },
          true },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.name);
        CLoopbackServer server([&](const CRequest&, CConnection& connection) { row.answer(connection); });
        CHandles handles(server.Port());
        CGet exchange;
        ASSERT_EQ(exchange.Init(&handles.request, {}, nullptr), S_OK);
        ASSERT_EQ(exchange.Send(), S_OK);
        // A reset may overtake the headers. Whether a body that ends early is a failure is the platform's decision.
        const HRESULT status = ResultOf([&] { exchange.GetStatusCode(); });
        if (!row.hasStatus)
        {
            EXPECT_LT(status, 0);
        }
        const HRESULT data = ResultOf([&] { EXPECT_LT(exchange.GetResponseData().size(), 100'000U); });
        if (FAILED(status))
        {
            EXPECT_EQ(data, status);
        }
    }
}

TEST(WinHttpRequest, EveryFailingCallEndsTheExchangeWithItsCode)
{
    const CAcquireBalance balance = WinHttpHandleBalance();
    const std::vector<CFault> faults{
        VO_FAULT("winhttp.dll", WinHttpSendRequest, FALSE, 12004),
        VO_FAULT("winhttp.dll", WinHttpReceiveResponse, FALSE, 12004),
        VO_FAULT("winhttp.dll", WinHttpQueryHeaders, FALSE, 12004),
        VO_FAULT("winhttp.dll", WinHttpQueryAuthSchemes, FALSE, 12004),
        VO_FAULT("winhttp.dll", WinHttpSetCredentials, FALSE, 12004),
        VO_FAULT("winhttp.dll", WinHttpQueryDataAvailable, FALSE, 12004),
        VO_FAULT("winhttp.dll", WinHttpReadData, FALSE, 12004),
        VO_FAULT("winhttp.dll", WinHttpSetStatusCallback, reinterpret_cast<WINHTTP_STATUS_CALLBACK>(static_cast<LONG_PTR>(-1)),
                 12004),
        MakeFault(static_cast<decltype(&::WinHttpCloseHandle)>(nullptr), "winhttp.dll", "WinHttpCloseHandle", FALSE, 12004,
                  E_FAIL, EInjectedFailure::AfterCall),
    };
    CLoopbackServer server(DemandBasic);
    CHandles handles(server.Port());
    CLogCapture log;
    const auto wasReported = [&](HRESULT code)
    {
        const auto lines = log.Lines();
        log.Clear();
        return std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return line.code == code; });
    };
    const auto run = [&]
    {
        WinHttpRequestHandle request;
        EXPECT_EQ(request.Init(handles.connection, L"POST", L"/", 0), S_OK);
        CPost exchange;
        HRESULT hr = exchange.Init(&request, GiveBasic, nullptr);
        if (SUCCEEDED(hr))
            hr = exchange.SetRequestData("body", 4);
        if (SUCCEEDED(hr))
        {
            hr = exchange.Send();
            // Also a send that failed at once has its answers.
            const HRESULT status = ResultOf([&] { EXPECT_EQ(exchange.GetStatusCode(), 200U); });
            EXPECT_TRUE(SUCCEEDED(hr) || status == hr);
            const HRESULT data = ResultOf([&] { EXPECT_EQ(Text(exchange.GetResponseData()), "body"); });
            EXPECT_TRUE(SUCCEEDED(status) || data == status);
            hr = data;
        }
        const HRESULT cleared = exchange.Clear();
        EXPECT_EQ(exchange.Clear(), S_OK);
        return FAILED(hr) ? hr : cleared;
    };
    const int open = balance.Open();
    for (const CFault& fault : faults)
    {
        int calls = 0;
        {
            const auto count = fault.inject(0);
            EXPECT_EQ(run(), S_OK);
            calls = count->Calls();
        }
        EXPECT_GT(calls, 0) << fault.function;
        for (int call = 1; call <= calls; ++call)
        {
            SCOPED_TRACE(testing::Message() << "call " << call << " of " << fault.function);
            const auto injected = fault.inject(call);
            EXPECT_EQ(run(), fault.expected);
            EXPECT_TRUE(wasReported(fault.expected));
            EXPECT_EQ(balance.Open(), open);
        }
    }
}

TEST(WinHttpRequest, ASendThatFailedAtOnceMayBeRepeated)
{
    CLoopbackServer server(Echo);
    const auto fault = VO_FAULT("winhttp.dll", WinHttpSendRequest, FALSE, 12004);
    for (const int failing : { 1, 2 })
    {
        CHandles handles(server.Port());
        CGet exchange;
        ASSERT_EQ(exchange.Init(&handles.request, {}, nullptr), S_OK);
        const auto injected = fault.inject(failing);
        for (int send = 1; send <= 3; ++send)
        {
            const HRESULT expected = send == failing ? fault.expected : S_OK;
            EXPECT_EQ(exchange.Send(), expected);
            EXPECT_EQ(ResultOf([&] { exchange.GetStatusCode(); }), expected);
            EXPECT_EQ(ResultOf([&] { exchange.GetResponseData(); }), expected);
        }
    }
    // A handle that its owner has closed: nothing is sent, and nothing waited for.
    CHandles handles(server.Port());
    CGet exchange;
    ASSERT_EQ(exchange.Init(&handles.request, {}, nullptr), S_OK);
    EXPECT_EQ(handles.request.Close(), S_OK);
    EXPECT_EQ(exchange.Send(), E_HANDLE);
    EXPECT_EQ(ResultOf([&] { exchange.GetResponseData(); }), E_HANDLE);
}

TEST(WinHttpRequest, AHandleThatCannotBeClosedHoldsNobodyUp)
{
    CGate reached;
    CGate release;
    CLoopbackServer server(
        [&](const CRequest& request, CConnection& connection)
        {
            reached.Open();
            release.Wait();
            Echo(request, connection);
        });
    CHandles handles(server.Port());
    const HINTERNET kept = handles.request.Get();
    auto exchange = std::make_unique<CGet>();
    auto token = std::make_shared<int>(0);
    ASSERT_EQ(exchange->Init(
                  &handles.request,
                  [token](DWORD, DWORD, DWORD, const std::wstring&, DWORD&, std::wstring&, std::wstring&, void*) -> HRESULT
                  { return E_FAIL; }, nullptr),
              S_OK);
    ASSERT_EQ(exchange->Send(), S_OK);
    reached.Wait();
    {
        CFailOnCall<decltype(&::WinHttpCloseHandle)> fail("winhttp.dll", "WinHttpCloseHandle", 1, FALSE, 12004);
        EXPECT_EQ(exchange->Clear(), E_FAIL);
    }
    EXPECT_EQ(ResultOf([&] { exchange->GetStatusCode(); }), kCancelledByClose);
    EXPECT_EQ(token.use_count(), 1);
    exchange.reset();
    // The platform goes on with the request, and tells nobody.
    release.Open();
    EXPECT_TRUE(::WinHttpCloseHandle(kept));
}

// ---- Notifications that no server here brings about ----

// An exchange whose request never leaves: the test is WinHTTP.
class CDrivenExchange
{
public:
    CHandles handles{ 1 };
    CGet exchange;
    int receives = 0;
    int queries = 0;
    void* buffer = nullptr; // of the read asked for last
    DWORD bufferSize = 0;

    CDrivenExchange()
    {
        EXPECT_EQ(exchange.Init(&handles.request, {}, nullptr), S_OK);
        EXPECT_EQ(exchange.Send(), S_OK);
    }
    void Notify(DWORD status, void* information = nullptr, DWORD length = 0)
    {
        CGet::Callback(handles.request.Get(), m_context, status, information, length);
    }
    void Announce(DWORD count) { Notify(WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE, &count, sizeof(count)); }
    void Deliver(std::string_view bytes)
    {
        Announce(static_cast<DWORD>(bytes.size()));
        ASSERT_EQ(bufferSize, bytes.size());
        memcpy(buffer, bytes.data(), bytes.size());
        Notify(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, buffer, bufferSize);
    }
    void RaiseError(DWORD error)
    {
        WINHTTP_ASYNC_RESULT result{ API_RECEIVE_RESPONSE, error };
        Notify(WINHTTP_CALLBACK_STATUS_REQUEST_ERROR, &result, sizeof(result));
    }
    HRESULT Status()
    {
        return ResultOf([&] { exchange.GetStatusCode(); });
    }
    HRESULT Data()
    {
        return ResultOf([&] { exchange.GetResponseData(); });
    }

private:
    DWORD_PTR m_context = 0;
    CCallHook<decltype(&::WinHttpSendRequest)> m_send{
        "winhttp.dll", "WinHttpSendRequest",
        [this](auto, HINTERNET handle, LPCWSTR, DWORD, LPVOID, DWORD, DWORD, DWORD_PTR context) -> BOOL
        {
            m_context = context;
            // so that the platform tells of the handle's end
            return ::WinHttpSetOption(handle, WINHTTP_OPTION_CONTEXT_VALUE, &context, sizeof(context));
        }
    };
    CCallHook<decltype(&::WinHttpReceiveResponse)> m_receive{ "winhttp.dll", "WinHttpReceiveResponse",
                                                              [this](auto, HINTERNET, LPVOID) -> BOOL { return ++receives; } };
    CCallHook<decltype(&::WinHttpQueryHeaders)> m_headers{ "winhttp.dll", "WinHttpQueryHeaders",
                                                           [](auto, HINTERNET, DWORD, LPCWSTR, LPVOID value, LPDWORD,
                                                              LPDWORD) -> BOOL
                                                           {
                                                               *static_cast<DWORD*>(value) = 200;
                                                               return TRUE;
                                                           } };
    CCallHook<decltype(&::WinHttpQueryDataAvailable)> m_query{ "winhttp.dll", "WinHttpQueryDataAvailable",
                                                               [this](auto, HINTERNET, LPDWORD) -> BOOL { return ++queries; } };
    CCallHook<decltype(&::WinHttpReadData)> m_read{ "winhttp.dll", "WinHttpReadData",
                                                    [this](auto, HINTERNET, LPVOID to, DWORD size, LPDWORD) -> BOOL
                                                    {
                                                        buffer = to;
                                                        bufferSize = size;
                                                        return TRUE;
                                                    } };
};

TEST(WinHttpRequest, NotificationsAreServedAsDocumented)
{
    const HRESULT secure = HResultFromWin32(ERROR_WINHTTP_SECURE_FAILURE);
    wchar_t name[] = L"host";
    DWORD flags = WINHTTP_CALLBACK_STATUS_FLAG_INVALID_CA;
    DWORD64 wide = 3;
    int foreign = 0;
    struct CCase
    {
        const char* name;
        std::function<void(CDrivenExchange&)> notify; // after the headers, where `hasHeaders`
        bool hasHeaders;
        HRESULT expected;
    };
    const CCase cases[] = {
        { "a certificate is refused",
          [&](CDrivenExchange& driven)
          {
              driven.Notify(WINHTTP_CALLBACK_STATUS_RESOLVING_NAME, name, sizeof(name));
              driven.Notify(WINHTTP_CALLBACK_STATUS_RESOLVING_NAME);
              driven.Notify(WINHTTP_CALLBACK_STATUS_SECURE_FAILURE, &flags, sizeof(flags));
              driven.RaiseError(ERROR_WINHTTP_SECURE_FAILURE);
          },
          false, secure },
        { "an error without a number", [](CDrivenExchange& driven) { driven.RaiseError(0); }, true, E_FAIL },
        { "an error that is an HRESULT", [](CDrivenExchange& driven) { driven.RaiseError(static_cast<DWORD>(E_ACCESSDENIED)); },
          true, E_ACCESSDENIED },
        { "an error cut short", [&](CDrivenExchange& driven)
          { driven.Notify(WINHTTP_CALLBACK_STATUS_REQUEST_ERROR, &flags, sizeof(flags)); }, true, E_FAIL },
        { "only the first failure counts",
          [](CDrivenExchange& driven)
          {
              driven.RaiseError(ERROR_WINHTTP_SECURE_FAILURE);
              driven.RaiseError(ERROR_WINHTTP_TIMEOUT);
          },
          true, secure },
        { "a count of another size", [&](CDrivenExchange& driven)
          { driven.Notify(WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE, &wide, sizeof(wide)); }, true, E_FAIL },
        { "no count", [](CDrivenExchange& driven) { driven.Notify(WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE, nullptr, 4); }, true,
          E_FAIL },
        { "a read into a foreign buffer",
          [&](CDrivenExchange& driven)
          {
              driven.Announce(5);
              driven.Notify(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, &foreign, 4);
          },
          true, E_FAIL },
        { "a read that nobody asked for",
          [](CDrivenExchange& driven) { driven.Notify(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, nullptr, 4); }, true, E_FAIL },
        { "more than memory holds",
          [](CDrivenExchange& driven)
          {
              CFailOnCall<CMalloc> fail("msvcrt.dll", "malloc", 1, nullptr, 0);
              driven.Announce(5);
          },
          true, E_OUTOFMEMORY },
        { "a read of nothing, then the handle's end",
          [](CDrivenExchange& driven)
          {
              driven.Announce(5);
              driven.Notify(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, driven.buffer, 0);
              EXPECT_EQ(driven.queries, 1); // no further one
              EXPECT_EQ(driven.exchange.Clear(), S_OK);
          },
          true, kCancelledByClose },
        { "the operation is cancelled", [](CDrivenExchange& driven) { driven.RaiseError(ERROR_WINHTTP_OPERATION_CANCELLED); },
          true, kCancelledByClose },
        { "the body in pieces",
          [](CDrivenExchange& driven)
          {
              driven.Deliver("ab");
              driven.Deliver("c");
              driven.Notify(WINHTTP_CALLBACK_STATUS_RECEIVING_RESPONSE);
              driven.Announce(0);
              EXPECT_EQ(Text(driven.exchange.GetResponseData()), "abc");
              // What comes late changes nothing.
              driven.RaiseError(ERROR_WINHTTP_TIMEOUT);
              EXPECT_EQ(driven.exchange.Send(), S_OK);
              driven.RaiseError(ERROR_WINHTTP_TIMEOUT);
          },
          true, HResultFromWin32(ERROR_WINHTTP_TIMEOUT) },
    };
    for (const CCase& row : cases)
    {
        SCOPED_TRACE(row.name);
        CDrivenExchange driven;
        driven.Notify(WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE);
        EXPECT_EQ(driven.receives, 1);
        if (row.hasHeaders)
        {
            driven.Notify(WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE);
            EXPECT_EQ(driven.exchange.GetStatusCode(), 200U);
        }
        row.notify(driven);
        if (!row.hasHeaders)
        {
            EXPECT_EQ(driven.Status(), row.expected);
        }
        EXPECT_EQ(driven.Data(), row.expected);
    }
}

TEST(WinHttpRequest, AFailedNotificationLeavesItsChainInTheLog)
{
    CDrivenExchange driven;
    CLogCapture log;
    driven.RaiseError(ERROR_WINHTTP_TIMEOUT);
    const HRESULT code = HResultFromWin32(ERROR_WINHTTP_TIMEOUT);
    EXPECT_THAT(log.Lines(), testing::ElementsAre(
                                 IsMessage(L"VoWinHttpRequest.h", 404, std::wstring(L"Error function: 1   Error code: 12002")),
                                 IsReportBy(std::wstring(kGetName) + L"OnRequestError", code),
                                 IsReportBy(std::wstring(kGetName) + L"OnCallback", code),
                                 IsReportBy(std::wstring(kGetName) + L"Callback", code)));
}

TEST(WinHttpRequest, TheHandlesEndIsTheEndHoweverItIsTold)
{
    // A broken notice in place of the platform's own, which is taken back: it must not leave Clear waiting.
    std::optional<CDrivenExchange> driven(std::in_place);
    constexpr DWORD_PTR kNoContext = 0;
    ASSERT_EQ(driven->handles.request.SetOption(WINHTTP_OPTION_CONTEXT_VALUE, &kNoContext, sizeof(kNoContext)), S_OK);
    driven->Notify(WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING, nullptr, 3);
    EXPECT_EQ(driven->Status(), E_FAIL);
    EXPECT_EQ(driven->Data(), E_FAIL);
    driven.reset();
    CGet::Callback(nullptr, 0, WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING, nullptr, 8); // of a handle that sent nothing
}

// ---- Many of them ----

TEST(WinHttpRequest, ExchangesClearedAtAnyMomentLeaveNothingBehind)
{
    constexpr unsigned kThreads = 4;
    constexpr int kRounds = 75;
    const CAcquireBalance balance = WinHttpHandleBalance();
    CLoopbackServer server(
        [](const CRequest& request, CConnection& connection)
        {
            if (request.Path() == "/401" && request.Header("Authorization").empty())
                DemandBasic(request, connection);
            else
                connection.SendResponse(request.Path() == "/404" ? 404 : 200, {},
                                        MakeBody(request.Path() == "/big" ? 100'000 : 10));
        });
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (unsigned thread = 0; thread < kThreads; ++thread)
        threads.emplace_back(
            [&, thread]
            {
                std::minstd_rand random(thread + 1);
                for (int round = 0; round < kRounds; ++round)
                {
                    constexpr const wchar_t* kPaths[] = { L"/", L"/big", L"/404", L"/401" };
                    const wchar_t* const path = kPaths[random() % 4];
                    auto owner = std::make_unique<COwner>(server.Port());
                    owner->handles.OpenRequest(L"GET", path);
                    CGet& exchange = owner->exchange;
                    EXPECT_EQ(exchange.Init(&owner->handles.request, GiveBasic, nullptr), S_OK);
                    const auto end = random() % 6;
                    std::thread other;
                    if (end == 0) // at the same time as the send
                        other = std::thread([&] { EXPECT_EQ(exchange.Clear(), S_OK); });
                    const HRESULT sent = exchange.Send();
                    if (end == 1)
                    {
                        EXPECT_EQ(exchange.Clear(), S_OK);
                    }
                    else if (end == 2)
                        other = std::thread([&] { EXPECT_EQ(owner->handles.request.Close(), S_OK); });
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
                    owner.reset();
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(balance.Open(), 0);
}

TEST(WinHttpRequest, ExchangesInARowLeakNothing)
{
    CLoopbackServer server([](const CRequest&, CConnection& connection)
                           { connection.SendResponse(200, {}, std::string(1000, 'x')); });
    CHandles handles(server.Port());
    const auto run = [&]
    {
        handles.OpenRequest();
        CGet exchange;
        ASSERT_EQ(exchange.Init(&handles.request, GiveBasic, nullptr), S_OK);
        ASSERT_EQ(exchange.Send(), S_OK);
        EXPECT_EQ(exchange.GetStatusCode(), 200U);
        EXPECT_EQ(exchange.GetResponseData().size(), 1000U);
    };
    for (int i = 0; i < 50; ++i) // threads, connections and caches come first
        run();
    const CAcquireBalance balance = WinHttpHandleBalance();
    const DWORD osHandles = CountProcessHandles();
    CMemoryMeter meter;
    constexpr int kRounds = 500;
    for (int i = 0; i < kRounds; ++i)
        run();
    EXPECT_EQ(balance.Open(), 0);
    EXPECT_LE(CountProcessHandles(), osHandles + 8); // a pool may start another thread, but not one for every exchange
    EXPECT_LT(meter.Blocks(), kRounds / 10);
}

TEST(WinHttpRequest, ABodyIsInMemoryTwiceAtMost)
{
    constexpr size_t kSize = 10 << 20;
    const std::string body = MakeBody(kSize);
    CLoopbackServer server(
        [&](const CRequest&, CConnection& connection)
        {
            connection.SendResponseHead(200, {}, body.size());
            connection.Send(body);
        });
    CHandles handles(server.Port());
    CGet exchange;
    ASSERT_EQ(exchange.Init(&handles.request, {}, nullptr), S_OK);
    CMemoryMeter meter;
    ASSERT_EQ(exchange.Send(), S_OK);
    const std::vector<BYTE> data = exchange.GetResponseData();
    EXPECT_TRUE(Text(data) == body || data.size() == kSize);
    EXPECT_LE(static_cast<double>(meter.Peak()), 2.2 * kSize);
    EXPECT_GE(static_cast<double>(meter.Peak()), 1.0 * kSize); // it did count
}
} // namespace
