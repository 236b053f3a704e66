// What the WinINet transport asks of the platform, call by call, against a stand-in that answers as the platform's
// documentation says; and, on the real platform, what only that can show.
#include <VoHTTPMessageWinINet.h>

#include "support/FakeWinINet.h"
#include "support/HTTPSupport.h"
#include "support/ImportHook.h"
#include "support/LogCapture.h"
#include "support/TestMain.h"

#include <LoopbackServer.h>
#include <VoGlobalHTTPCookieStoreImpl.h>

#include <base/VoUtils.h>

namespace
{
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using namespace TestSupport;
using Kind = CVoHTTPMessage::EContentKind;
using Response = CVoHTTPMessage::EResponseKind;
using Calls = std::vector<std::string>;

constexpr const wchar_t* kSource = L"..\\source\\VoHTTPMessageWinINet";
const std::string kContentType = "Content-Type: application/octet-stream; charset=UTF-8\r\n ";
const Calls kOptions = { "SetOption h2 2 5000", "SetOption h2 5 5000", "SetOption h2 6 7000", "SetOption h2 73 128",
                         "SetOption h0 103 128" };

std::wstring CookiesFor(CVoGlobalHTTPCookieStoreImpl& cookies, const std::wstring& url)
{
    CVoBstr text;
    EXPECT_EQ(cookies.GetCookieStringForHTTPRequest(CVoBstr(url).Get(), VARIANT_FALSE, text.Put()), S_OK);
    return std::wstring(text.View());
}

constexpr HRESULT Code(DWORD error)
{
    return HResultFromWin32(error);
}

class WinINetTransport : public testing::Test
{
protected:
    HRESULT Connect(const wchar_t* url = L"http://server.example:81/a b?c=1", UINT32 connectTimeout = 5, bool verify = false,
                    bool revocation = false)
    {
        const CTransportScope scope(0);
        CServerAddressData address;
        EXPECT_EQ(address.SetAddress(url, false, true, true), S_OK);
        m_message.reset();
        m_platform.calls.clear();
        return CVoHTTPMessage::Connect(address, nullptr, m_proxies.Get(), m_cookies.Get(), connectTimeout, 7, verify,
                                       revocation, m_message);
    }
    // One request on the connected message, its answer read.
    HRESULT Exchange(std::string_view payload = "p", CVoHTTPMessage::CSendResult* result = nullptr)
    {
        std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
        CVoBinaryDataParser response;
        HRESULT hr = m_message->OpenRequest(request);
        if (SUCCEEDED(hr))
            hr = m_message->SendMessage(request, MakeMessage({}, payload), Kind::Raw, true, {}, {}, false, result);
        if (SUCCEEDED(hr))
            hr = m_message->ReadResponse(request, response, Response::Parameters, nullptr, nullptr);
        EXPECT_EQ(ParamsOf(response), SUCCEEDED(hr) ? (Params{ { L"a", L"1" } }) : Params{});
        return hr;
    }
    // Whether a code was reported; forgets the log. No secret may be there.
    bool WasReported(HRESULT code)
    {
        bool found = false;
        for (const CLogLine& line : m_log.Lines())
        {
            found = found || line.code == code;
            EXPECT_EQ(line.text.find(kPassword), std::wstring::npos) << "a password in the log";
        }
        m_log.Clear();
        return found;
    }
    // What the probes are answered, and what the platform makes of the user's answer.
    void AnswerDialog(const std::deque<DWORD>& statuses, const wchar_t* user, const wchar_t* password,
                      DWORD answer = ERROR_INTERNET_FORCE_RETRY)
    {
        m_platform.statuses = statuses;
        m_platform.dialogAnswer = answer;
        m_platform.texts = { { INTERNET_OPTION_PROXY_USERNAME, user }, { INTERNET_OPTION_PROXY_PASSWORD, password } };
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
    std::shared_ptr<CVoHTTPMessage> m_message;
};

const Calls kProbe = { "OpenRequest h2 POST /a%20b HTTP/1.0 null null 84480000 0",
                       "SendRequest h3 null 0 0 0",
                       "Read h3 1",
                       "Read h3 1",
                       "Read h3 1",
                       "Read h3 1",
                       "QueryStatus h3" };

Calls operator+(Calls left, const Calls& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

TEST_F(WinINetTransport, ConnectsAndProbesCallByCall)
{
    const Calls opening = { "Open CVoHTTPMessageWinINet 0 null null 0", "Connect h1 server.example 81 empty empty 3 0 1" };
    EXPECT_EQ(Connect(), S_OK);
    EXPECT_THAT(m_platform.Take(), ElementsAreArray(opening + kOptions + kProbe + Calls{ "Close h3" }));
    m_message.reset();
    EXPECT_THAT(m_platform.Take(), ElementsAre("Close h2", "Close h1"));
    EXPECT_EQ(Connect(L"https://server.example/"), S_OK);
    EXPECT_THAT(m_platform.Take("OpenRequest"), ElementsAre("OpenRequest h2 POST / HTTP/1.0 null null 84c80000 0"));
}

TEST_F(WinINetTransport, ARefusedTuningIsNoReasonNotToConnect)
{
    using Errors = std::deque<DWORD>;
    struct
    {
        DWORD option;
        Errors errors;
        HRESULT result;
        Calls calls; // for that option, after those before it
        UINT32 connectTimeout = 5;
    } const table[] = {
        { 73, Errors(1, 12016), S_OK, { "SetOption h2 73 128", "SetOption h0 73 128", "SetOption h0 103 128" } },
        { 73, { 12016, 12009 }, S_OK, { "SetOption h2 73 128", "SetOption h0 73 128", "SetOption h0 103 128" } },
        { 73, { 12016, 12016 }, S_OK, { "SetOption h2 73 128", "SetOption h0 73 128", "SetOption h0 103 128" } },
        { 73, { 12016, 87 }, Code(87), { "SetOption h2 73 128", "SetOption h0 73 128" } },
        { 73, Errors(1, 12018), Code(12018), { "SetOption h2 73 128" } },
        { 103, Errors(1, 12009), S_OK, { "SetOption h2 73 128", "SetOption h0 103 128" } },
        { 103, Errors(1, 12016), S_OK, { "SetOption h2 73 128", "SetOption h0 103 128" } },
        { 103, Errors(1, 6), Code(6), { "SetOption h0 103 128" } },
        { 2, Errors(1, 12009), S_OK, kOptions },
        { 2, Errors(1, 87), Code(87), { "SetOption h2 2 0" }, 0 },
        { 5, Errors(1, 14), Code(14), { "SetOption h2 2 5000", "SetOption h2 5 5000" } },
        { 6, Errors(1, 87), Code(87), { "SetOption h2 2 5000", "SetOption h2 5 5000", "SetOption h2 6 7000" } },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(testing::Message() << "option " << row.option << ", error " << row.errors.back());
        m_platform.optionErrors = { { row.option, row.errors } };
        EXPECT_EQ(Connect(L"http://server.example/", row.connectTimeout), row.result);
        EXPECT_EQ(m_platform.open.size(), SUCCEEDED(row.result) ? 2U : 0U);
        const Calls calls = m_platform.Take("SetOption");
        ASSERT_GE(calls.size(), row.calls.size());
        EXPECT_THAT(Calls(calls.end() - static_cast<ptrdiff_t>(row.calls.size()), calls.end()), ElementsAreArray(row.calls));
        EXPECT_EQ(WasReported(Code(row.errors.back())), FAILED(row.result));
    }
}

TEST_F(WinINetTransport, CredentialsThatTheStoreKnowsNeedNoProbe)
{
    struct
    {
        const wchar_t* user;
        const wchar_t* password;
        Calls calls; // after the other options
    } const table[] = {
        { L"ann", kPassword, { "SetOption h2 43 ann 3", "SetOption h2 44 s3cret-word 11" } },
        { L"ann", L"", {} },
        { L"", L"", kProbe + Calls{ "Close h3" } },
    };
    for (const auto& row : table)
    {
        UseStore(row.user, row.password);
        EXPECT_EQ(Connect(L"http://server.example:81/a b"), S_OK);
        const Calls calls = m_platform.Take();
        EXPECT_THAT(Calls(calls.begin() + 7, calls.end()), ElementsAreArray(row.calls));
        EXPECT_THAT(m_proxies->asked, ElementsAre(L""));
        EXPECT_FALSE(WasReported(E_FAIL));
    }
    m_proxies->queryResult = E_ACCESSDENIED;
    EXPECT_EQ(Connect(), E_ACCESSDENIED);
    EXPECT_TRUE(WasReported(E_ACCESSDENIED));
    EXPECT_THAT(m_platform.open, IsEmpty());
}

TEST_F(WinINetTransport, AnswersToTheDialogAreTriedAndKept)
{
    constexpr DWORD kRetry = ERROR_INTERNET_FORCE_RETRY;
    struct
    {
        std::deque<DWORD> statuses;
        DWORD dialogAnswer;
        const wchar_t* user; // that the platform has for the proxy afterwards
        HRESULT result;
        size_t sends;
        bool isSaved;
    } const table[] = {
        { { 407, 200 }, kRetry, L"ann", S_OK, 2, true },
        { { 407, 200 }, ERROR_SUCCESS, L"ann", S_OK, 2, true },
        { { 407, 500 }, kRetry, L"ann", S_OK, 2, true },
        { { 401, 200 }, kRetry, L"", S_OK, 2, false },
        { { 407, 0 }, ERROR_CANCELLED, L"", S_OK, 1, false },
        { { 401, 0 }, ERROR_CANCELLED, L"", S_OK, 1, false },
        { { 401, 401 }, ERROR_SUCCESS, L"", kResultUnexpectedStatus, 2, false }, // what Wine makes of a user who cancels
        { { 407, 407 }, kRetry, L"ann", kResultUnexpectedStatus, 2, false },
        { { 407, 499 }, kRetry, L"ann", kResultUnexpectedStatus, 2, false },
        { { 407, 201 }, kRetry, L"ann", kResultUnexpectedStatus, 2, false },
        { { 407, 0 }, ERROR_INVALID_HANDLE, L"ann", Code(ERROR_INVALID_HANDLE), 1, false },
    };
    for (const auto& row : table)
        for (const bool hasStore : { true, false })
        {
            SCOPED_TRACE(testing::Message() << row.statuses[0] << ", " << row.dialogAnswer << ", " << row.statuses[1]);
            UseStore();
            const CVoComPtr<CFixedProxyStore> store = m_proxies;
            if (!hasStore)
                m_proxies = {};
            AnswerDialog(row.statuses, row.user, *row.user ? kPassword : L"", row.dialogAnswer);
            EXPECT_EQ(Connect(), row.result);
            EXPECT_THAT(m_platform.calls, testing::IsSupersetOf({ "ErrorDialog h3 12014 7 0", "Close h3" }));
            EXPECT_EQ(m_platform.Take("SendRequest h3").size(), row.sends);
            std::vector<std::wstring> saved;
            if (row.isSaved && hasStore)
                saved.emplace_back(L"proxy.example:8080 ann s3cret-word");
            EXPECT_EQ(store->saved, saved);
            EXPECT_EQ(WasReported(row.result), FAILED(row.result));
            EXPECT_EQ(m_platform.open.size(), SUCCEEDED(row.result) ? 2U : 0U);
        }
}

TEST_F(WinINetTransport, TheDialogBelongsToTheActiveWindow)
{
    for (const INT_PTR active : { INT_PTR{ 0 }, INT_PTR{ 0x4321 } })
    {
        const CCallHook<decltype(&::GetActiveWindow)> hook("user32.dll", "GetActiveWindow",
                                                           [=](auto) { return reinterpret_cast<HWND>(active); });
        UseStore();
        AnswerDialog({ 407, 200 }, L"ann", kPassword);
        EXPECT_EQ(Connect(), S_OK);
        EXPECT_EQ(m_platform.dialogOwner, active ? reinterpret_cast<HWND>(active) : ::GetDesktopWindow());
        const Calls dialog = { "ErrorDialog h3 12014 7 0", "QueryOption h3 43", "QueryOption h3 43", "QueryOption h3 44",
                               "QueryOption h3 44" };
        const Calls calls = m_platform.Take();
        EXPECT_THAT(Calls(calls.begin() + 7, calls.end()),
                    ElementsAreArray(kProbe + dialog + Calls(kProbe.begin() + 1, kProbe.end()) + Calls{ "Close h3" }));
        // The credentials are kept for the proxy of this server's URL.
        EXPECT_THAT(m_proxies->asked, ElementsAre(L"", L"http://server.example:81/a b?c=1"));
    }
}

TEST_F(WinINetTransport, EveryFailureOfConnectingIsHandled)
{
    const auto run = [&](const wchar_t* knownUser)
    {
        UseStore(knownUser, kPassword);
        AnswerDialog({ 407, 200 }, L"ann", kPassword);
        const HRESULT hr = Connect();
        m_message.reset();
        EXPECT_THAT(m_platform.open, IsEmpty());
        return hr;
    };
    const auto wasReported = [&](HRESULT code) { return WasReported(code); };
    ExpectEveryFailureIsHandled(
        { VO_FAULT("wininet.dll", InternetOpenW, nullptr, ERROR_NOT_ENOUGH_MEMORY),
          VO_FAULT("wininet.dll", InternetConnectW, nullptr, ERROR_INTERNET_OUT_OF_HANDLES),
          VO_FAULT("wininet.dll", HttpOpenRequestW, nullptr, ERROR_INTERNET_OUT_OF_HANDLES) },
        [&] { return run(L""); }, wasReported);
    ExpectEveryFailureIsHandled(
        { VO_FAULT("wininet.dll", InternetSetOptionW, FALSE, ERROR_INTERNET_INTERNAL_ERROR) }, [&] { return run(L"ann"); },
        wasReported);

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
    // What was entered cannot be read back: there is nothing to keep.
    m_platform.errors["QueryOption"] = { kReset, kReset };
    EXPECT_EQ(run(L""), S_OK);
    EXPECT_TRUE(WasReported(Code(kReset)));
    EXPECT_THAT(m_proxies->saved, IsEmpty());
    UseStore();
    m_proxies->saveResult = E_ACCESSDENIED;
    AnswerDialog({ 407, 200 }, L"ann", kPassword);
    EXPECT_EQ(Connect(), E_ACCESSDENIED);
}

TEST_F(WinINetTransport, BodiesAreWrittenInPieces)
{
    const std::pair<size_t, Calls> table[] = {
        { 3, { "Write h4 3" } },
        { 32'000, { "Write h4 32000" } },
        { 32'001, { "Write h4 32000", "Write h4 1" } },
        { 70'000, { "Write h4 32000", "Write h4 32000", "Write h4 6000" } },
    };
    for (const auto& [size, writes] : table)
    {
        SCOPED_TRACE(size);
        ASSERT_EQ(Connect(), S_OK);
        m_platform.calls.clear();
        std::string payload(size - 2, '\0');
        for (size_t i = 0; i < payload.size(); ++i)
            payload[i] = static_cast<char>(i * 2654435761U >> 13); // so that an exchanged piece would show
        EXPECT_EQ(Exchange(payload), S_OK);
        EXPECT_EQ(m_platform.written, "&&" + payload);
        const Calls begin = { "OpenRequest h2 POST /a%20b?c=1 HTTP/1.1 null */* 84480000 0",
                              "SendRequestEx h4 " + kContentType + std::to_string(size) + " 4 1" };
        const Calls end = { "EndRequest h4 0 4 0", "QueryStatus h4", "Read h4 3", "Close h4" };
        EXPECT_THAT(m_platform.Take(), ElementsAreArray(begin + writes + end));
    }
    ASSERT_EQ(Connect(L"https://server.example/"), S_OK);
    m_platform.writtenShort = 1;
    EXPECT_EQ(Exchange(), E_FAIL);
    EXPECT_THAT(m_platform.calls, Contains("OpenRequest h2 POST / HTTP/1.1 null */* 84c80000 0"));
    EXPECT_THAT(m_log.Lines(), Contains(IsMessage(kSource, 680, testing::Eq(L"Addr:https://server.example/"))));
}

TEST_F(WinINetTransport, CertificateErrorsArePassedOverAsTheSwitchesAllow)
{
    struct
    {
        DWORD error;
        DWORD widening;      // 0: never
        bool byVerification; // the switch that forbids it; else that of the revocation
    } const table[] = {
        { 12037, 0x3380, true }, { 12038, 0x3380, true }, { 12045, 0x3380, true }, { 12055, 0x3380, true },
        { 12056, 0x80, false },  { 12057, 0x80, false },  { 12170, 0, false },     { ERROR_INTERNET_TIMEOUT, 0, false },
    };
    const std::string send = "SendRequestEx h4 " + kContentType + "3 4 ";
    for (const auto& row : table)
        for (const bool verify : { true, false })
            for (const bool revocation : { true, false })
                for (const DWORD second : { DWORD{ ERROR_SUCCESS }, row.error }) // what the second attempt says stands
                {
                    SCOPED_TRACE(testing::Message() << row.error << ' ' << verify << ' ' << revocation << ' ' << second);
                    ASSERT_EQ(Connect(L"https://server.example/", 5, verify, revocation), S_OK);
                    EXPECT_THAT(m_platform.Take("QueryOption"), IsEmpty()); // nothing is passed over in advance
                    const bool widens = row.widening != 0 && !(row.byVerification ? verify : revocation);
                    const bool succeeds = widens && second == ERROR_SUCCESS;
                    Calls expected = { send + "1", "QueryOption h4 31" };
                    if (widens)
                        expected =
                            expected +
                            Calls{ "SetOption h4 31 " + std::to_string(m_platform.securityFlags | row.widening), send + "0" };
                    expected.emplace_back(succeeds ? "Write h4 3" : "Close h4");
                    m_platform.errors["SendRequestEx"] = { row.error, second };
                    EXPECT_EQ(Exchange(), succeeds ? S_OK : Code(row.error));
                    const Calls calls = m_platform.Take();
                    ASSERT_GT(calls.size(), expected.size());
                    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), calls.begin() + 1))
                        << testing::PrintToString(calls);
                    EXPECT_EQ(WasReported(Code(row.error)), !succeeds);
                    m_platform.errors.clear();
                }
    // The probe is no different.
    m_platform.errors["SendRequest"] = { ERROR_INTERNET_INVALID_CA };
    EXPECT_EQ(Connect(L"https://server.example/"), S_OK);
    EXPECT_THAT(m_platform.calls, Contains("SetOption h3 31 " + std::to_string(m_platform.securityFlags | 0x3380)));
    // The flags cannot be read, or not be set.
    m_platform.errors = { { "SendRequestEx", { 12045 } }, { "QueryOption", { ERROR_INVALID_HANDLE } } };
    EXPECT_EQ(Exchange(), Code(ERROR_INVALID_HANDLE));
    m_platform.errors = { { "SendRequestEx", { 12045 } } };
    m_platform.optionErrors = { { INTERNET_OPTION_SECURITY_FLAGS, { ERROR_INTERNET_INTERNAL_ERROR } } };
    EXPECT_EQ(Exchange(), Code(ERROR_INTERNET_INTERNAL_ERROR));
}

TEST_F(WinINetTransport, ARequestIsSentAgainWhenThePlatformAsksForIt)
{
    ASSERT_EQ(Connect(), S_OK);
    for (const size_t times : { 1U, 2U, 3U })
    {
        m_platform.calls.clear();
        m_platform.errors["EndRequest"].assign(times, ERROR_INTERNET_FORCE_RETRY);
        EXPECT_EQ(Exchange("payload"), times <= 2 ? S_OK : Code(ERROR_INTERNET_FORCE_RETRY));
        EXPECT_EQ(m_platform.written, "&&payload");
        EXPECT_EQ(m_platform.Take("Write").size(), std::min<size_t>(times, 2) + 1);
        EXPECT_EQ(WasReported(Code(ERROR_INTERNET_FORCE_RETRY)), times > 2);
    }
}

TEST_F(WinINetTransport, CookiesBelongToTheServerThatAnswered)
{
    m_cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    ASSERT_EQ(Connect(), S_OK);
    m_platform.headers = { { HTTP_QUERY_SET_COOKIE, L"a=1" }, { HTTP_QUERY_SET_COOKIE, L"b=2" } };
    struct
    {
        DWORD status;
        DWORD error; // of the question where the answer came from
        const wchar_t* url;
        const wchar_t* here; // the cookies afterwards
        const wchar_t* there;
    } const table[] = {
        { 200, ERROR_INTERNET_INTERNAL_ERROR, L"http://server.example:81/", L"", L"" },
        { 404, 0, L"http://server.example:81/", L"", L"" },
        { 200, 0, L"http://elsewhere.example/", L"", L"a=1; b=2" },
        { 200, 0, L"http://server.example:81/", L"a=1; b=2", L"a=1; b=2" },
    };
    for (const auto& row : table)
    {
        m_platform.statuses = { row.status };
        m_platform.errors["QueryOption"] = { row.error };
        m_platform.texts = { { INTERNET_OPTION_URL, row.url } };
        EXPECT_EQ(Exchange(), row.status == 200 ? S_OK : kResultUnexpectedStatus);
        EXPECT_TRUE(WasReported(Code(row.error)) || !row.error);
        EXPECT_EQ(CookiesFor(*m_cookies.Get(), L"http://server.example:81/"), row.here);
        EXPECT_EQ(CookiesFor(*m_cookies.Get(), L"http://elsewhere.example/"), row.there);
    }
    m_platform.calls.clear();
    EXPECT_EQ(Exchange(), S_OK);
    EXPECT_THAT(m_platform.Take("SendRequestEx"),
                ElementsAre("SendRequestEx h8 Cookie: a=1; b=2\r\n" + kContentType + "3 4 1"));
}

TEST_F(WinINetTransport, EveryFailureOfAnExchangeIsHandled)
{
    ASSERT_EQ(Connect(), S_OK);
    const auto run = [&]
    {
        const HRESULT hr = Exchange();
        EXPECT_THAT(m_platform.open, ElementsAre(1, 2));
        return hr;
    };
    ExpectEveryFailureIsHandled({ VO_FAULT("wininet.dll", HttpOpenRequestW, nullptr, ERROR_INTERNET_OUT_OF_HANDLES),
                                  VO_FAULT("wininet.dll", HttpSendRequestExW, FALSE, ERROR_INTERNET_CANNOT_CONNECT),
                                  VO_FAULT("wininet.dll", InternetWriteFile, FALSE, ERROR_INTERNET_CONNECTION_RESET),
                                  VO_FAULT("wininet.dll", HttpEndRequestW, FALSE, ERROR_INTERNET_TIMEOUT),
                                  VO_FAULT("wininet.dll", InternetQueryDataAvailable, FALSE, ERROR_INTERNET_TIMEOUT),
                                  VO_FAULT("wininet.dll", InternetReadFile, FALSE, ERROR_INTERNET_CONNECTION_RESET) },
                                run, [&](HRESULT code) { return WasReported(code); });
    m_platform.errors["QueryStatus"] = { ERROR_INVALID_HANDLE };
    EXPECT_EQ(run(), Code(ERROR_INVALID_HANDLE));
}

TEST_F(WinINetTransport, HandlesAreClosedFromTheLeavesUp)
{
    for (const size_t failing : { 0U, 1U, 2U, 3U })
    {
        SCOPED_TRACE(failing);
        ASSERT_EQ(Connect(), S_OK);
        const std::shared_ptr<CVoHTTPMessage> message = std::move(m_message);
        std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
        ASSERT_EQ(message->OpenRequest(request), S_OK);
        ASSERT_EQ(message->SendMessage(request, MakeMessage({}), Kind::Empty, true, {}, {}, false, nullptr), S_OK);
        if (failing > 0)
        {
            m_platform.errors["Close"].assign(failing - 1, 0);
            m_platform.errors["Close"].push_back(ERROR_INVALID_HANDLE);
        }
        m_platform.calls.clear();
        CServerAddressData address;
        ASSERT_EQ(address.SetAddress(L"http://server.example/", false, true, true), S_OK);
        EXPECT_EQ(message->Connect(address, nullptr, nullptr, nullptr, 5, 5, false, false),
                  failing ? Code(ERROR_INVALID_HANDLE) : S_OK);
        EXPECT_EQ(WasReported(Code(ERROR_INVALID_HANDLE)), failing > 0);
        const Calls closed = m_platform.Take("Close");
        EXPECT_THAT(Calls(closed.begin(), closed.begin() + 3), ElementsAre("Close h4", "Close h2", "Close h1"));

        // The request is of no use any more; nor would it be to another message.
        CVoBinaryDataParser response;
        EXPECT_EQ(message->ReadResponse(request, response, Response::Parameters, nullptr, nullptr), E_FAIL);
        EXPECT_EQ(message->SendMessage(request, MakeMessage({}), Kind::Empty, true, {}, {}, false, nullptr), E_INVALIDARG);
        ASSERT_EQ(Connect(), S_OK);
        EXPECT_EQ(m_message->ReadResponse(request, response, Response::Parameters, nullptr, nullptr), E_INVALIDARG);
    }
}

TEST_F(WinINetTransport, TheEndsOfTheConnectionAreTraced)
{
    ASSERT_EQ(Connect(), S_OK);
    const Loopback::CLoopbackServer server([](const Loopback::CRequest&, Loopback::CConnection&) {});
    m_platform.socket = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = ::htons(server.Port());
    peer.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(m_platform.socket, reinterpret_cast<const sockaddr*>(&peer), sizeof peer), 0);
    CVoHTTPMessage::CSendResult result;
    EXPECT_EQ(Exchange("p", &result), S_OK);
    EXPECT_EQ(result.localAddress, L"127.0.0.1");
    EXPECT_THAT(m_log.Lines(),
                Contains(IsMessage(kSource, 190, testing::EndsWith(L" -> [127.0.0.1]:" + std::to_wstring(server.Port())))));
    ::closesocket(m_platform.socket);
    EXPECT_EQ(Exchange(), S_OK); // a socket that is gone again fails nothing
}

// From here on the real platform.

// Answers the dialogs that the thread shows while this lives, when they get the focus.
class CDialogAnswer
{
public:
    CDialogAnswer(std::wstring user, std::wstring password, WORD button)
    {
        s_answer = this;
        m_user = std::move(user);
        m_password = std::move(password);
        m_button = button;
        m_hook = ::SetWindowsHookExW(WH_CBT, &OnEvent, nullptr, ::GetCurrentThreadId());
        EXPECT_TRUE(m_hook);
    }
    ~CDialogAnswer() { ::UnhookWindowsHookEx(m_hook); }
    CDialogAnswer(const CDialogAnswer&) = delete;
    CDialogAnswer& operator=(const CDialogAnswer&) = delete;

    int shown = 0;

private:
    static LRESULT CALLBACK OnEvent(int code, WPARAM window, LPARAM data)
    {
        wchar_t name[16]{};
        const HWND dialog = reinterpret_cast<HWND>(window);
        if (code == HCBT_ACTIVATE && ::GetClassNameW(dialog, name, 16) && std::wstring_view(name) == L"#32770")
        {
            ++s_answer->shown;
            ::EnumChildWindows(dialog, &Fill, 0);
            ::PostMessageW(dialog, WM_COMMAND, MAKEWPARAM(s_answer->m_button, BN_CLICKED), 0);
        }
        return ::CallNextHookEx(nullptr, code, window, data);
    }
    static BOOL CALLBACK Fill(HWND control, LPARAM /*unused*/)
    {
        wchar_t name[16]{};
        ::GetClassNameW(control, name, 16);
        if (VoEqualsNoCase(name, L"Edit"))
        {
            const bool isPassword = (::GetWindowLongPtrW(control, GWL_STYLE) & ES_PASSWORD) != 0;
            ::SetWindowTextW(control, (isPassword ? s_answer->m_password : s_answer->m_user).c_str());
        }
        return TRUE;
    }
    inline static CDialogAnswer* s_answer = nullptr;
    std::wstring m_user;
    std::wstring m_password;
    WORD m_button;
    HHOOK m_hook;
};

std::wstring Wide(const std::string& text)
{
    return { text.begin(), text.end() };
}

HRESULT ConnectTo(const std::wstring& url, IVoHTTPCookieStore* cookies, std::shared_ptr<CVoHTTPMessage>& message)
{
    const CTransportScope scope(0);
    CServerAddressData address;
    EXPECT_EQ(address.SetAddress(url, false, true, true), S_OK);
    return CVoHTTPMessage::Connect(address, nullptr, nullptr, cookies, 10, 10, false, false, message);
}

TEST(WinINetPlatform, TheSystemsDialogAsksForCredentials)
{
    if (!IsWine())
        GTEST_SKIP() << "the dialog's fields are those of Wine's";
    const HWND window =
        ::CreateWindowExW(0, L"STATIC", L"", WS_OVERLAPPEDWINDOW, 0, 0, 99, 99, nullptr, nullptr, nullptr, nullptr);
    if (!window)
        GTEST_SKIP() << "no windows here: the process has no display";
    ::DestroyWindow(window);
    constexpr const char* kRight = "Basic YW5uOnJpZ2h0"; // ann:right
    constexpr const char* kWrong = "Basic YW5uOndyb25n"; // ann:wrong
    struct
    {
        const wchar_t* password;
        WORD button;
        HRESULT result;
    } const table[] = {
        { L"wrong", IDOK, kResultUnexpectedStatus },
        { L"right", IDCANCEL, kResultUnexpectedStatus }, // S_OK on Windows, which tells that the user cancelled
        { L"right", IDOK, S_OK },
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(testing::Message() << row.button);
        std::string seen; // of the last request
        const Loopback::CLoopbackServer server(
            [&](const Loopback::CRequest& request, Loopback::CConnection& connection)
            {
                seen = request.Header("Authorization");
                if (seen == kRight)
                    connection.SendResponse(200, {}, "a=1");
                else
                    connection.SendResponse(401, { { "WWW-Authenticate", "Basic realm=\"r\"" } });
            });
        CLogCapture log;
        CDialogAnswer user(L"ann", row.password, row.button);
        std::shared_ptr<CVoHTTPMessage> message;
        EXPECT_EQ(ConnectTo(Wide(server.URL()), nullptr, message), row.result);
        EXPECT_EQ(user.shown, 1);
        if (row.button == IDOK)
        {
            EXPECT_EQ(seen, row.password == std::wstring_view(L"right") ? kRight : kWrong);
        }
    }
}

TEST(WinINetPlatform, CookiesOfARedirectedAnswerGoToItsServer)
{
    const Loopback::CLoopbackServer second([](const Loopback::CRequest&, Loopback::CConnection& connection)
                                           { connection.SendResponse(200, { { "Set-Cookie", "a=1; Path=/" } }, "b=2"); });
    const std::string target = "http://localhost:" + std::to_string(second.Port()) + "/end";
    const Loopback::CLoopbackServer first([&](const Loopback::CRequest&, Loopback::CConnection& connection)
                                          { connection.SendResponse(302, { { "Location", target } }); });
    const auto cookies = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    std::shared_ptr<CVoHTTPMessage> message;
    ASSERT_EQ(ConnectTo(Wide(first.URL()), cookies.Get(), message), S_OK);
    std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
    ASSERT_EQ(message->SendGetRequest(request, {}, false, nullptr), S_OK);
    EXPECT_EQ(CookiesFor(*cookies.Get(), L"http://127.0.0.1/"), L"");
    EXPECT_EQ(CookiesFor(*cookies.Get(), L"http://localhost/"), L"a=1");
}
} // namespace
