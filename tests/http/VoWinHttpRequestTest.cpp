// The WinHTTP exchange: against a loopback server, and driven by notifications that the test sends in WinHTTP's place.
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

// An event that is set once.
struct CGate : CEvent
{
    CGate() : CEvent(false, true) {}
    void Open() noexcept { EXPECT_EQ(Set(), S_OK); }
    void Wait() const noexcept { ::WaitForSingleObject(Handle(), INFINITE); }
};

// The result of a get function: S_OK for a value, the code of its HRESULTexc, or one of these for its std::future_error.
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

// An exchange with its handles, for a port of 127.0.0.1.
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
    // The results of the get functions. A value is compared with `expected`.
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

// A server that accepts "u:p" and only Basic.
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

TEST(WinHttpRequest, ResultsAreTakenOncePerSendAndARunningExchangeRefusesChanges)
{
    CGate arrived;
    CGate respond;
    CLoopbackServer server(
        [&](const CRequest& request, CConnection& connection)
        {
            arrived.Open();
            respond.Wait();
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

// There is no limit for different credentials. The same ones twice in a row were rejected already.
TEST(WinHttpRequest, AsksAtEachChallengeUntilTheFunctionFailsOrRepeatsItself)
{
    int asked = 0;
    const auto ask = [&](DWORD target, DWORD supported, DWORD first, DWORD& chosen, auto& user, auto& password, void* context)
    {
        EXPECT_EQ(target, static_cast<DWORD>(WINHTTP_AUTH_TARGET_SERVER));
        EXPECT_TRUE(supported == WINHTTP_AUTH_SCHEME_BASIC && first == WINHTTP_AUTH_SCHEME_BASIC && context == &asked);
        chosen = WINHTTP_AUTH_SCHEME_BASIC;
        user = password = L"wrong";
        ++asked;
    };
    const AuthenticationFunction changing =
        [&](auto target, auto supported, auto first, const auto&, auto& chosen, auto& user, auto& password, auto context)
    {
        ask(target, supported, first, chosen, user, password, context);
        password += std::to_wstring(asked % 2); // back to an earlier one: not in a row
        return asked < 6 ? S_OK : E_ACCESSDENIED;
    };
    const AuthenticationFunction same =
        [&](auto target, auto supported, auto first, const auto&, auto& chosen, auto& user, auto& password, auto context)
    { return ask(target, supported, first, chosen, user, password, context), asked < 9 ? S_OK : E_UNEXPECTED; };
    for (const auto& [function, expected, requests] :
         { std::tuple(changing, E_ACCESSDENIED, 6U), { same, kResultCancelled, 2U }, { {}, E_FAIL, 1U } })
    {
        asked = 0;
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

    auto token = std::make_shared<int>(0); // the exchange's functions own it
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
            auto owner = std::make_unique<COwner>(server.Port());
            COwner second(server.Port());
            CGate done;
            const auto end = [&, token = std::make_shared<int>(0)]() -> HRESULT
            {
                const std::shared_ptr<int> used = token; // the function must survive the exchange
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

TEST(WinHttpRequest, ARefusedRedirectEndsTheExchange)
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
        EXPECT_TRUE(requests == 1 || TestSupport::IsWine()); // Wine follows although the handle is closed
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

// ---- Notifications that no server here causes ----

constexpr DWORD kServerBit = 1U << WINHTTP_AUTH_TARGET_SERVER;
constexpr DWORD kProxyBit = 1U << WINHTTP_AUTH_TARGET_PROXY;

// An exchange whose request is not sent: the test stands in for WinHTTP.
class CDriven : public COwner
{
public:
    // Sends.
    explicit CDriven(AuthenticationFunction authenticate) : COwner(1)
    {
        EXPECT_EQ(Init(std::move(authenticate)), S_OK);
        EXPECT_EQ(exchange.Send(), S_OK);
    }
    // Sends and receives the status 200.
    CDriven() : CDriven(AuthenticationFunction())
    {
        Respond(200);
        EXPECT_EQ(Status(), S_OK);
    }
    void Respond(DWORD status)
    {
        m_status = status;
        Notify(WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE);
        Notify(WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE);
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
    void EndBodyByEmptyRead()
    {
        Announce(5);
        Notify(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, m_buffer, 0);
    }
    // For each send, the targets whose credentials were set after the send before (bits).
    [[nodiscard]] const std::vector<DWORD>& Sends() const noexcept { return m_sends; }
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
    BOOL Take(HINTERNET handle, DWORD_PTR context)
    {
        m_sends.push_back(std::exchange(m_credentials, 0)); // WinHTTP uses credentials for a single request
        m_context = context;
        // With the context, WinHTTP reports the end of the handle.
        return ::WinHttpSetOption(handle, WINHTTP_OPTION_CONTEXT_VALUE, &context, sizeof(context));
    }

    void* m_buffer = nullptr; // of the last read
    DWORD m_bufferSize = 0;
    DWORD_PTR m_context = 0;
    DWORD m_status = 0;
    DWORD m_credentials = 0;
    std::vector<DWORD> m_sends;
    CCallHook<decltype(&::WinHttpSendRequest)> m_send{ "winhttp.dll", "WinHttpSendRequest",
                                                       [this](auto, auto handle, auto, auto, auto, auto, auto, auto context)
                                                       { return Take(handle, context); } };
    CCallHook<decltype(&::WinHttpReceiveResponse)> m_receive{ "winhttp.dll", "WinHttpReceiveResponse",
                                                              [](auto&&...) { return TRUE; } };
    CCallHook<decltype(&::WinHttpQueryHeaders)> m_headers{ "winhttp.dll", "WinHttpQueryHeaders",
                                                           [this](auto, auto, auto, auto, void* value, auto, auto)
                                                           { return *static_cast<DWORD*>(value) = m_status, TRUE; } };
    CCallHook<decltype(&::WinHttpQueryAuthSchemes)> m_schemes{ "winhttp.dll", "WinHttpQueryAuthSchemes",
                                                               [this](auto, auto, DWORD* supported, DWORD* first, DWORD* target)
                                                               {
                                                                   *supported = *first = WINHTTP_AUTH_SCHEME_BASIC;
                                                                   *target = m_status == 407 ? WINHTTP_AUTH_TARGET_PROXY
                                                                                             : WINHTTP_AUTH_TARGET_SERVER;
                                                                   return TRUE;
                                                               } };
    CCallHook<decltype(&::WinHttpSetCredentials)> m_set{ "winhttp.dll", "WinHttpSetCredentials",
                                                         [this](auto, auto, DWORD target, auto&&...)
                                                         { return m_credentials |= 1U << target, TRUE; } };
    CCallHook<decltype(&::WinHttpQueryDataAvailable)> m_query{ "winhttp.dll", "WinHttpQueryDataAvailable",
                                                               [](auto&&...) { return TRUE; } };
    CCallHook<decltype(&::WinHttpReadData)> m_read{ "winhttp.dll", "WinHttpReadData",
                                                    [this](auto, auto, void* to, DWORD size, auto) { return Read(to, size); } };
};

TEST(WinHttpRequest, CredentialsOfProxyAndServerAreSetBeforeEachResend)
{
    int asked = 0;
    CDriven driven(
        [&](auto, auto, auto, const auto&, DWORD& chosen, auto& user, auto& password, auto)
        {
            chosen = WINHTTP_AUTH_SCHEME_BASIC;
            user = L"u";
            password = std::to_wstring(++asked);
            return S_OK;
        });
    driven.Respond(407);
    driven.Respond(401);
    driven.RaiseError(ERROR_WINHTTP_RESEND_REQUEST);
    EXPECT_EQ(driven.Sends(), (std::vector<DWORD>{ 0, kProxyBit, kProxyBit | kServerBit, kProxyBit | kServerBit }));
    // The server's credentials stay with the server: a redirect drops them.
    wchar_t url[] = L"http://other.test/";
    driven.Notify(WINHTTP_CALLBACK_STATUS_REDIRECT, url, static_cast<DWORD>(std::size(url)));
    driven.Respond(407);
    EXPECT_EQ(driven.Sends().back(), kProxyBit);
    driven.Respond(200);
    EXPECT_EQ(driven.Status(), S_OK);
    EXPECT_EQ(asked, 3);
    driven.Announce(0);
    // Credentials that the owner knows are set before every send.
    EXPECT_EQ(driven.exchange.SetCredentials(WINHTTP_AUTH_TARGET_SERVER, WINHTTP_AUTH_SCHEME_BASIC, L"u", L"p"), S_OK);
    EXPECT_EQ(driven.exchange.Send(), S_OK);
    EXPECT_EQ(driven.Sends().back(), kProxyBit | kServerBit);
}

TEST(WinHttpRequest, ResendsOnDemandButNotForEver)
{
    CDriven driven{ AuthenticationFunction() };
    size_t sends = 0;
    while (sends != driven.Sends().size() && sends < 100)
    {
        sends = driven.Sends().size();
        driven.RaiseError(ERROR_WINHTTP_RESEND_REQUEST);
    }
    EXPECT_GT(sends, 1U);
    EXPECT_LT(sends, 100U);
    EXPECT_EQ(driven.Status(), HResultFromWin32(ERROR_WINHTTP_RESEND_REQUEST));
    // Not after the status: the response has begun.
    CDriven begun;
    begun.RaiseError(ERROR_WINHTTP_RESEND_REQUEST);
    EXPECT_EQ(begun.Data(), HResultFromWin32(ERROR_WINHTTP_RESEND_REQUEST));
    EXPECT_EQ(begun.Sends().size(), 1U);
}

TEST(WinHttpRequest, AnEmptyReadEndsTheBody)
{
    const CLogCapture log;
    for (const std::string_view received : { "", "ab" })
    {
        CDriven driven;
        if (!received.empty())
            driven.Deliver(received);
        driven.EndBodyByEmptyRead();
        EXPECT_EQ(driven.exchange.Clear(), S_OK); // ends the wait if there was one
        EXPECT_EQ(driven.Data(received), S_OK);
    }
    EXPECT_THAT(log.Lines(), testing::IsEmpty());
}

TEST(WinHttpRequest, ImpossibleNotificationsEndTheExchange)
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
        { WINHTTP_CALLBACK_STATUS_READ_COMPLETE, nullptr, 4UL }, // without a read
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
    // After a malformed HANDLE_CLOSING, Clear must not wait for another one.
    CDriven broken;
    constexpr DWORD_PTR kNoContext = 0;
    ASSERT_EQ(broken.request.SetOption(WINHTTP_OPTION_CONTEXT_VALUE, &kNoContext, sizeof(kNoContext)), S_OK);
    broken.Notify(WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING, nullptr, 3);
    EXPECT_EQ(broken.Data(), E_FAIL);
    CGet::Callback(nullptr, 0, WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING, nullptr, 8); // a handle without a send
}

TEST(WinHttpRequest, LateNotificationsChangeNothingAndTheFirstFailureIsReturned)
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

// ---- Many exchanges ----

TEST(WinHttpRequest, ExchangesClearedAtAnyMomentLeakNoHandle)
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
            if (end == 0) // during the send
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
            // Under this load, Wine sometimes fails to read the body after the headers (12019, incorrect handle state; once in
            // some thousand exchanges).
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
    run(50); // creates threads, connections and caches
    constexpr int kRounds = 500;
    const CAcquireBalance balance = WinHttpHandleBalance();
    const DWORD osHandles = CountProcessHandles();
    const CMemoryMeter meter;
    run(kRounds);
    EXPECT_LT(meter.Blocks(), kRounds / 10);
    EXPECT_EQ(balance.Open(), 0);
    EXPECT_LE(CountProcessHandles(), osHandles + 8); // a pool may start a few more threads
}
} // namespace
