// What the WinINet transport asks of the platform, call by call, against a stand-in that responds as the platform's
// documentation says.
#include "support/DialogUser.h"
#include "support/FakeWinINet.h"
#include "support/HTTPSupport.h"
#include "support/ImportHook.h"
#include "support/LogCapture.h"

#include <VoGlobalHTTPCookieStoreImpl.h>

#include <thread>

namespace
{
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using namespace TestSupport;
using Calls = std::vector<std::string>;

const std::string kContentType = "Content-Type: application/octet-stream; charset=UTF-8\r\n ";
const Calls kOpening = { "Open CVoHTTPMessageWinINet 0 null null 0",
                         "Connect h1 server.example 81 empty empty 3 0 1",
                         "SetOption h2 2 5000",
                         "SetOption h2 5 5000",
                         "SetOption h2 6 7000",
                         "SetOption h2 73 128",
                         "SetOption h0 103 128" };
const Calls kProbe = { "SendRequest h3 null 0 0 0", "Read h3 1", "Read h3 1", "Read h3 1", "Read h3 1", "QueryStatus h3" };
const Calls kOpenProbe = { "OpenRequest h2 POST /a%20b HTTP/1.0 null null 84680000 0" };

Calls operator+(Calls left, const Calls& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

constexpr HRESULT Code(DWORD error)
{
    return HResultFromWin32(error);
}

class WinINetTransport : public testing::Test
{
protected:
    HRESULT Connect(const wchar_t* url = L"http://server.example:81/a b?c=1", bool verify = false, bool revocation = false)
    {
        m_message.reset();
        m_platform.calls.clear();
        const HRESULT hr =
            ConnectTo(url, { 0, nullptr, m_proxies.Get(), m_cookies.Get(), 5, 7, verify, revocation }, m_message);
        EXPECT_TRUE(SUCCEEDED(hr) || m_platform.open.empty());
        return hr;
    }
    // Sends one request on the connected message and reads its response.
    HRESULT Exchange(std::string_view payload = "p")
    {
        const CResponse response = Send(*m_message, MakeMessage({}, payload));
        EXPECT_EQ(ParamsOf(response.message), SUCCEEDED(response.result) ? (Params{ { L"a", L"1" } }) : Params{});
        return response.result;
    }
    // Whether a code was reported; forgets the log. No secret may be there.
    bool WasReported(HRESULT code)
    {
        for (const CLogLine& line : m_log.Lines())
            EXPECT_EQ(line.text.find(kPassword), std::wstring::npos) << "a password in the log";
        return TakeReport(m_log, code);
    }
    // Sets the statuses of the probes, the dialog's result, and what the platform knows of the user afterwards.
    void AnswerDialog(const std::deque<DWORD>& statuses, const wchar_t* user = L"ann",
                      DWORD result = ERROR_INTERNET_FORCE_RETRY)
    {
        m_platform.statuses = statuses;
        m_platform.dialogResult = result;
        m_platform.texts = { { INTERNET_OPTION_PROXY_USERNAME, user },
                             { INTERNET_OPTION_PROXY_PASSWORD, *user ? kPassword : L"" } };
    }
    void UseStore(std::wstring user = {}, std::wstring password = {})
    {
        m_proxies = VoMakeComObject<CFixedProxyStore>(L"proxy.example:8080", std::move(user), std::move(password));
    }

    static constexpr const wchar_t* kPassword = L"s3cret-word";

    CLogCapture m_log;
    CFakeWinINet m_platform;
    CVoComPtr<CFixedProxyStore> m_proxies;
    CVoComPtr<CVoGlobalHTTPCookieStoreImpl> m_cookies;
    Message m_message;
};

TEST_F(WinINetTransport, ConnectsAndProbesUnlessTheStoreKnowsCredentials)
{
    const std::tuple<const wchar_t*, const wchar_t*, Calls> table[] = {
        { L"", L"", kOpenProbe + kProbe + Calls{ "Close h3" } },
        { L"ann", kPassword, { "SetOption h2 43 ann 3", "SetOption h2 44 s3cret-word 11" } },
        { L"ann", L"", {} },
    };
    for (const auto& [user, password, calls] : table)
    {
        UseStore(user, password);
        ASSERT_EQ(Connect(), S_OK);
        EXPECT_THAT(m_platform.Take(), ElementsAreArray(kOpening + calls));
        EXPECT_THAT(m_proxies->asked, ElementsAre(L""));
        m_message.reset();
        EXPECT_THAT(m_platform.Take(), ElementsAre("Close h2", "Close h1"));
    }
    EXPECT_FALSE(WasReported(E_FAIL));
    m_proxies->queryResult = E_ACCESSDENIED;
    EXPECT_EQ(Connect(), E_ACCESSDENIED);
    EXPECT_TRUE(WasReported(E_ACCESSDENIED));
    m_proxies = {};
    ASSERT_EQ(Connect(L"https://server.example/"), S_OK);
    EXPECT_THAT(m_platform.Take("OpenRequest"), ElementsAre("OpenRequest h2 POST / HTTP/1.0 null null 84e80000 0"));
}

TEST_F(WinINetTransport, ReadsAtMost64KBOfTheProbesBody)
{
    m_platform.probeBody.assign(70'000, 'x');
    ASSERT_EQ(Connect(), S_OK);
    EXPECT_EQ(m_platform.Take("Read h3 1").size(), 65'536U);
}

TEST_F(WinINetTransport, ConnectsDespiteARefusedLimit)
{
    const std::tuple<const char*, std::vector<DWORD>, HRESULT> table[] = {
        { "SetOption 2", { 12009U }, Code(12009) },    { "SetOption 6", { 12016U }, Code(12016) },
        { "SetOption 73", { 12016U, 12016U }, S_OK }, // of the connection, then of all
        { "SetOption 73", { 12016U, 87U }, Code(87) }, { "SetOption 73", { 12018U }, Code(12018) },
        { "SetOption 103", { 12016U }, S_OK },         { "SetOption 103", { 6U }, Code(6) },
    };
    for (const auto& [option, errors, result] : table)
    {
        SCOPED_TRACE(testing::Message() << option << ", error " << errors.back());
        m_platform.errors[option].assign(errors.begin(), errors.end());
        EXPECT_EQ(Connect(), result);
        EXPECT_THAT(m_platform.errors[option], IsEmpty());
        EXPECT_EQ(WasReported(Code(errors.back())), FAILED(result));
    }
}

TEST_F(WinINetTransport, CredentialsFromTheDialogAreTriedAndSaved)
{
    constexpr DWORD kRetry = ERROR_INTERNET_FORCE_RETRY;
    struct
    {
        DWORD probe, dialog, again; // again: 0 where it is not sent again
        const wchar_t* user;        // that the platform has for the proxy afterwards
        HRESULT result;
        size_t saved;
    } const table[] = {
        { 407, kRetry, 200, L"ann", S_OK, 1 },
        { 407, ERROR_SUCCESS, 500, L"ann", S_OK, 1 },
        { 401, kRetry, 200, L"", S_OK, 0 },
        { 407, ERROR_CANCELLED, 0, L"", S_OK, 0 },
        { 401, ERROR_CANCELLED, 0, L"", S_OK, 0 },
        { 401, ERROR_SUCCESS, 401, L"", kResultUnexpectedStatus, 0 }, // the result of a cancelled dialog under Wine
        { 407, kRetry, 407, L"ann", kResultUnexpectedStatus, 0 },
        { 407, ERROR_INVALID_HANDLE, 0, L"ann", Code(ERROR_INVALID_HANDLE), 0 },
        { 407, MAXDWORD, 0, L"ann", Code(ERROR_INVALID_WINDOW_HANDLE), 0 }, // the system cannot show the dialog
    };
    for (const auto& row : table)
        for (const bool hasStore : { true, false })
        {
            SCOPED_TRACE(testing::Message() << row.probe << ", " << row.dialog << ", " << row.again);
            UseStore();
            const CVoComPtr<CFixedProxyStore> store = m_proxies;
            if (!hasStore)
                m_proxies = {};
            AnswerDialog({ row.probe, row.again }, row.user, row.dialog);
            EXPECT_EQ(Connect(), row.result);
            EXPECT_EQ(m_platform.Take("SendRequest h3").size(), row.again ? 2U : 1U);
            EXPECT_EQ(store->saved, std::vector<std::wstring>(hasStore ? row.saved : 0, L"proxy.example:8080 ann s3cret-word"));
            EXPECT_EQ(WasReported(row.result), FAILED(row.result));
        }

    // The dialog's owner is a window of this thread: the desktop as its owner would disable every window. What was entered is
    // kept for the proxy of this server's URL.
    UseStore();
    AnswerDialog({ 407, 200 });
    ASSERT_EQ(Connect(), S_OK);
    if (HasDisplay())
    {
        EXPECT_NE(m_platform.dialogOwner, ::GetDesktopWindow());
        EXPECT_EQ(m_platform.dialogOwnerThread, ::GetCurrentThreadId());
        EXPECT_FALSE(::IsWindow(m_platform.dialogOwner)) << "the library's own window is gone again";
    }
    const Calls dialog = { "ErrorDialog h3 12014 7 0", "QueryOption h3 43", "QueryOption h3 43", "QueryOption h3 44",
                           "QueryOption h3 44" };
    EXPECT_THAT(m_platform.Take(), ElementsAreArray(kOpening + kOpenProbe + kProbe + dialog + kProbe + Calls{ "Close h3" }));
    EXPECT_THAT(m_proxies->asked, ElementsAre(L"", L"http://server.example:81/a b?c=1"));
}

TEST_F(WinINetTransport, EveryFailureOfConnectingIsHandled)
{
    const auto run = [&](const wchar_t* knownUser)
    {
        UseStore(knownUser, kPassword);
        AnswerDialog({ 407, 200 });
        const HRESULT hr = Connect();
        m_message.reset();
        EXPECT_THAT(m_platform.open, IsEmpty());
        return hr;
    };
    const auto wasReported = [&](HRESULT code) { return WasReported(code); };
    ExpectEveryFailureIsHandled({ VO_FAULT("wininet.dll", InternetSetOptionW, FALSE, ERROR_INTERNET_INTERNAL_ERROR) },
                                [&] { return run(L"ann"); }, wasReported);

    // The first probe only asks whether credentials are needed; the one after the dialog decides.
    constexpr DWORD kReset = ERROR_INTERNET_CONNECTION_RESET;
    for (const auto& [function, calls] : { std::pair{ "SendRequest", 1U }, { "Read", 4U }, { "QueryStatus", 1U } })
    {
        SCOPED_TRACE(function);
        m_platform.errors[function] = { kReset };
        EXPECT_EQ(run(L""), S_OK);
        EXPECT_TRUE(WasReported(Code(kReset)));
        m_platform.errors[function].assign(calls, 0);
        m_platform.errors[function].push_back(kReset);
        EXPECT_EQ(run(L""), Code(kReset));
        EXPECT_TRUE(WasReported(Code(kReset)));
    }
    // The typed credentials cannot be read back, so nothing is saved.
    m_platform.errors["QueryOption"] = { kReset, kReset };
    EXPECT_EQ(run(L""), S_OK);
    EXPECT_TRUE(WasReported(Code(kReset)));
    EXPECT_THAT(m_proxies->saved, IsEmpty());
    UseStore();
    m_proxies->saveResult = E_ACCESSDENIED;
    AnswerDialog({ 407, 200 });
    EXPECT_EQ(Connect(), E_ACCESSDENIED);
}

TEST_F(WinINetTransport, BodiesAreWrittenInPieces)
{
    const std::pair<size_t, Calls> table[] = {
        { 32'000, { "Write h4 32000" } },
        { 70'000, { "Write h4 32000", "Write h4 32000", "Write h4 6000" } },
    };
    for (const auto& [size, writes] : table)
    {
        ASSERT_EQ(Connect(), S_OK);
        m_platform.calls.clear();
        const std::string payload = RandomBytes(size - 2);
        EXPECT_EQ(Exchange(payload), S_OK);
        EXPECT_EQ(m_platform.written, "&&" + payload);
        const Calls begin = { "OpenRequest h2 POST /a%20b?c=1 HTTP/1.1 null */* 84680000 0",
                              "SendRequestEx h4 " + kContentType + std::to_string(size) + " 4 1" };
        const Calls end = { "EndRequest h4 0 4 0", "QueryStatus h4", "Read h4 3", "Close h4" };
        EXPECT_THAT(m_platform.Take(), ElementsAreArray(begin + writes + end));
    }
    m_platform.writtenShort = 1;
    EXPECT_EQ(Exchange(), E_FAIL);
}

TEST_F(WinINetTransport, CertificateErrorsAreIgnoredAsTheSwitchesAllow)
{
    // The error, the flags that pass it over, and whether it is the verification that forbids it, or the revocation.
    const std::tuple<DWORD, DWORD, bool> table[] = {
        { 12037, 0x3380, true }, { 12038, 0x3380, true }, { 12045, 0x3380, true }, { 12055, 0x3380, true },
        { 12056, 0x80, false },  { 12057, 0x80, false },  { 12170, 0, false },     { ERROR_INTERNET_TIMEOUT, 0, false },
    };
    const auto widened = [&](const char* request, DWORD flags)
    { return Calls{ std::string("SetOption ") + request + " 31 " + std::to_string(m_platform.securityFlags | flags) }; };
    for (const auto& [error, widening, byVerification] : table)
        for (const bool verify : { true, false })
            for (const bool revocation : { true, false })
            {
                SCOPED_TRACE(testing::Message() << error << ' ' << verify << ' ' << revocation);
                ASSERT_EQ(Connect(L"https://server.example/", verify, revocation), S_OK);
                EXPECT_THAT(m_platform.Take("QueryOption"), IsEmpty()); // no error is ignored in advance
                const bool widens = widening != 0 && !(byVerification ? verify : revocation);
                m_platform.errors["SendRequestEx"] = { error };
                EXPECT_EQ(Exchange(), widens ? S_OK : Code(error));
                EXPECT_THAT(m_platform.Take("SetOption"), widens ? widened("h4", widening) : Calls());
                EXPECT_EQ(WasReported(Code(error)), !widens);
            }
    // The result of the second attempt is final.
    m_platform.errors = { { "SendRequestEx", { 12045, 12045 } } };
    EXPECT_EQ(Exchange(), Code(12045));
    // The same holds for the probe.
    m_platform.errors["SendRequest"] = { ERROR_INTERNET_INVALID_CA };
    ASSERT_EQ(Connect(L"https://server.example/"), S_OK);
    EXPECT_THAT(m_platform.calls, testing::IsSupersetOf(widened("h3", 0x3380)));
    // The flags cannot be read, or not be set.
    m_platform.errors = { { "SendRequestEx", { 12045 } }, { "QueryOption", { ERROR_INVALID_HANDLE } } };
    EXPECT_EQ(Exchange(), Code(ERROR_INVALID_HANDLE));
    m_platform.errors = { { "SendRequestEx", { 12045 } }, { "SetOption 31", { ERROR_INTERNET_INTERNAL_ERROR } } };
    EXPECT_EQ(Exchange(), Code(ERROR_INTERNET_INTERNAL_ERROR));
}

TEST_F(WinINetTransport, ARequestIsSentAgainAtMostTwiceWhenThePlatformAsksForIt)
{
    ASSERT_EQ(Connect(), S_OK);
    for (const size_t times : { 2U, 3U })
    {
        m_platform.calls.clear();
        m_platform.errors["EndRequest"].assign(times, ERROR_INTERNET_FORCE_RETRY);
        EXPECT_EQ(Exchange("payload"), times <= 2 ? S_OK : Code(ERROR_INTERNET_FORCE_RETRY));
        EXPECT_EQ(m_platform.written, "&&payload");
        EXPECT_EQ(m_platform.Take("Write").size(), 3U);
        EXPECT_EQ(WasReported(Code(ERROR_INTERNET_FORCE_RETRY)), times > 2);
    }
}

TEST_F(WinINetTransport, CookiesBelongToTheServerThatSetThem)
{
    constexpr const wchar_t* kHere = L"http://server.example:81/a b";
    constexpr const wchar_t* kThere = L"http://elsewhere.example/";
    m_cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    ASSERT_EQ(Connect(), S_OK);
    // A 407 is the proxy's. Any other response of the server counts.
    for (const auto& [status, cookies] : { std::pair(407U, L""), { 404U, L"a=1; b=2" } })
    {
        m_platform.statuses = { status };
        m_platform.headers = { { L"Set-Cookie", L"a=1" }, { L"Set-Cookie", L"b=2" } };
        EXPECT_EQ(Exchange(), kResultUnexpectedStatus);
        EXPECT_EQ(CookiesFor(*m_cookies.Get(), kHere), cookies);
    }
    // The cookies of a redirect are those of the server that redirects; the target gets its own, on a connection of its own.
    EXPECT_EQ(m_cookies->AddCookieFromString(CVoBstr(L"other=3").Get(), CVoBstr(kThere).Get()), S_OK);
    m_platform.calls.clear();
    m_platform.statuses = { 307, 200 };
    m_platform.headers = { { L"Location", L"http://elsewhere.example/x" }, { L"Set-Cookie", L"a=4" } };
    EXPECT_EQ(Exchange(), S_OK);
    EXPECT_EQ(m_platform.written, "&&p") << "307 keeps the body";
    EXPECT_EQ(CookiesFor(*m_cookies.Get(), kHere), L"a=4; b=2");
    EXPECT_THAT(CookiesFor(*m_cookies.Get(), kThere), testing::HasSubstr(L"other=3"));
    const Calls calls = m_platform.Take();
    const auto at = [&](std::string_view part)
    { return std::ranges::find_if(calls, [=](const std::string& call) { return call.find(part) != std::string::npos; }); };
    EXPECT_LT(at("Cookie: a=1; b=2\r\n"), at("Connect h1 elsewhere.example 80"));
    EXPECT_LT(at("Connect h1 elsewhere.example 80"), at("Cookie: other=3\r\n"));
    EXPECT_NE(at("Cookie: other=3\r\n"), calls.end());
}

TEST_F(WinINetTransport, AFailureBetweenBodyAndResponseIsHandled)
{
    ASSERT_EQ(Connect(), S_OK);
    const auto run = [&]
    {
        const HRESULT hr = Exchange();
        EXPECT_THAT(m_platform.open, ElementsAre(1, 2));
        return hr;
    };
    ExpectEveryFailureIsHandled({ VO_FAULT("wininet.dll", InternetWriteFile, FALSE, ERROR_INTERNET_CONNECTION_RESET),
                                  VO_FAULT("wininet.dll", HttpEndRequestW, FALSE, ERROR_INTERNET_TIMEOUT) },
                                run, [&](HRESULT code) { return WasReported(code); });
    m_platform.errors["QueryStatus"] = { ERROR_INVALID_HANDLE };
    EXPECT_EQ(run(), Code(ERROR_INVALID_HANDLE));
}

TEST_F(WinINetTransport, CancelEndsEachCallThatWaits)
{
    for (const char* const function : { "SendRequestEx", "Write", "EndRequest", "Available", "Read" })
    {
        SCOPED_TRACE(function);
        ASSERT_EQ(Connect(), S_OK);
        const Request request = Open(*m_message);
        m_platform.hanging = function;
        EXPECT_EQ(CancelWhen(m_platform.hangs, *m_message, request), kResultCancelled);
        m_platform.hanging.clear();
        EXPECT_THAT(m_platform.open, ElementsAre(1, 2)) << "the request's handle was closed, once";
        EXPECT_EQ(Exchange(), S_OK) << "the message is usable";
    }
}

TEST_F(WinINetTransport, AnEmptyReadEndsTheBody)
{
    // The service announces bytes, and the connection ends in front of them.
    ASSERT_EQ(Connect(), S_OK);
    m_platform.announcedBeyond = 5;
    EXPECT_EQ(Exchange(), S_OK);
    m_platform.headers = { { L"Content-Length", L"8" } };
    EXPECT_EQ(Exchange(), E_FAIL) << "shorter than announced";
}

TEST_F(WinINetTransport, NotificationsOfAnyThreadAreNotedAndLateOnesIgnored)
{
    ASSERT_EQ(Connect(), S_OK);
    SOCKADDR_IN address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = 0x0100007F;
    const auto notify = [&](HINTERNET handle)
    {
        std::jthread([&, handle]
        { m_platform.callback(handle, 1, INTERNET_STATUS_CONNECTED_TO_SERVER, &address, sizeof address); });
    };
    HINTERNET sent = nullptr;
    m_platform.whenSent = [&](HINTERNET handle)
    {
        notify(sent = handle);
        notify(nullptr); // another handle's
    };
    const Request request = Open(*m_message);
    ASSERT_EQ(SendOn(*m_message, request), S_OK);
    address.sin_addr.s_addr = 0x0200007F;
    notify(sent); // late: the call is over
    CVoExchangeRecord record;
    ASSERT_EQ(request->GetExchangeRecord(record), S_OK);
    EXPECT_EQ(record.attempts.at(0).remoteAddress, L"127.0.0.1");
    m_platform.whenSent = nullptr;
    m_message.reset();
    notify(sent); // the handle is closed
}

TEST_F(WinINetTransport, TheReasonMentionsTheSystemsProxy)
{
    ASSERT_EQ(Connect(), S_OK);
    for (const bool hasProxy : { false, true })
    {
        m_platform.hasProxy = hasProxy;
        m_platform.errors["SendRequestEx"] = { ERROR_INTERNET_CANNOT_CONNECT };
        Request request;
        ASSERT_EQ(m_message->OpenRequest(request), S_OK);
        EXPECT_EQ(SendOn(*m_message, request), Code(ERROR_INTERNET_CANNOT_CONNECT));
        CVoExchangeRecord record;
        ASSERT_EQ(request->GetExchangeRecord(record), S_OK);
        EXPECT_EQ(record.Reason(), std::wstring(L"could not connect to server.example port 81: connection refused or not "
                                                L"reachable") +
                                       (hasProxy ? L" (or the system's proxy could not be reached)" : L""));
    }
}

TEST_F(WinINetTransport, HandlesAreClosedChildrenFirst)
{
    for (const bool fails : { false, true })
    {
        ASSERT_EQ(Connect(), S_OK);
        const Message message = std::move(m_message);
        Request request;
        ASSERT_EQ(message->OpenRequest(request), S_OK);
        m_platform.errors["Close"] = { 0, fails ? DWORD{ ERROR_INVALID_HANDLE } : 0 };
        m_platform.calls.clear();
        EXPECT_EQ(message->Connect(Address(L"http://server.example/"), nullptr, nullptr, nullptr, 5, 5, false, false),
                  fails ? Code(ERROR_INVALID_HANDLE) : S_OK);
        EXPECT_EQ(WasReported(Code(ERROR_INVALID_HANDLE)), fails);
        const Calls closed = m_platform.Take("Close");
        EXPECT_THAT(Calls(closed.begin(), closed.begin() + 3), ElementsAre("Close h4", "Close h2", "Close h1"));

        // The request cannot be used any more.
        CVoBinaryDataParser response;
        EXPECT_EQ(message->ReadResponse(request, response, Response::Parameters, nullptr, nullptr), E_FAIL);
        EXPECT_EQ(SendOn(*message, request), E_INVALIDARG);
    }
}
} // namespace
