// The WinHTTP exchange, driven by notifications that the test sends in WinHTTP's place: those that no server here causes.
#include <VoWinHttpRequest.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

#include <support/HTTPSupport.h>
#include <support/ImportHook.h>
#include <support/WinHttpExchange.h>

namespace
{
using TestSupport::CExchangeOwner;
using TestSupport::CGet;
using TestSupport::CLogCapture;
using TestSupport::IsMessage;
using TestSupport::IsReport;
using TestSupport::IsReportBy;
using namespace VoWinHttpRequest;

using CMalloc = void*(WINAPI*)(size_t);

constexpr DWORD kServerBit = 1U << WINHTTP_AUTH_TARGET_SERVER;
constexpr DWORD kProxyBit = 1U << WINHTTP_AUTH_TARGET_PROXY;

// An exchange whose request is not sent: the test stands in for WinHTTP.
class CDriven : public CExchangeOwner
{
public:
    // Sends.
    explicit CDriven(AuthenticationFunction authenticate) : CExchangeOwner(1)
    {
        EXPECT_EQ(Init(std::move(authenticate), this), S_OK);
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
    void ReadNothing()
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
        *target = m_status == 407 ? WINHTTP_AUTH_TARGET_PROXY : WINHTTP_AUTH_TARGET_SERVER;
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

TEST(WinHttpExchange, ReportsNameTheTag)
{
    const CLogCapture log;
    EXPECT_EQ(CVoWinHttpRequest<CVoWinHttpPostRequest>().Send(), E_FAIL);
    EXPECT_THAT(log.Lines(),
                testing::ElementsAre(IsReport(
                    L"VoWinHttpRequest.h", 156,
                    L"VoWinHttpRequest::CVoWinHttpRequest<class VoWinHttpRequest::CVoWinHttpPostRequest>::Send", E_FAIL)));
}

TEST(WinHttpExchange, AsksAtEachChallengeUntilTheFunctionFailsOrRepeatsRejectedCredentials)
{
    struct
    {
        const char* name;
        std::vector<const wchar_t*> passwords; // null: the function fails
        HRESULT expected;
    } const cases[] = {
        { "other passwords in turn", { L"a", L"b", L"a", L"b", nullptr }, E_ACCESSDENIED },
        { "the same password twice in a row", { L"a", L"b", L"b" }, kResultCancelled },
        { "no function", {}, E_FAIL },
    };
    for (const auto& item : cases)
    {
        SCOPED_TRACE(item.name);
        size_t asked = 0;
        void* context = nullptr;
        const auto ask = [&](DWORD target, DWORD supported, DWORD first, const auto& /*url*/, DWORD& chosen, auto& user,
                             auto& password, void* from)
        {
            EXPECT_EQ(target, DWORD{ WINHTTP_AUTH_TARGET_SERVER });
            EXPECT_TRUE(supported == WINHTTP_AUTH_SCHEME_BASIC && first == WINHTTP_AUTH_SCHEME_BASIC);
            context = from;
            chosen = WINHTTP_AUTH_SCHEME_BASIC;
            user = L"u";
            const wchar_t* const answer = item.passwords.at(asked++);
            password = answer ? answer : L"";
            return answer ? S_OK : E_ACCESSDENIED;
        };
        CDriven driven(item.passwords.empty() ? AuthenticationFunction() : ask);
        for (size_t i = 0; i < std::max<size_t>(item.passwords.size(), 1); ++i)
            driven.Respond(401);
        EXPECT_TRUE(context == &driven || item.passwords.empty());
        EXPECT_EQ(driven.exchange.Clear(), S_OK); // ends the wait if there was one
        EXPECT_EQ(driven.Status(), item.expected);
        EXPECT_EQ(driven.Data(), item.expected);
        EXPECT_EQ(driven.Sends().size(), std::max<size_t>(item.passwords.size(), 1));
    }
}

TEST(WinHttpExchange, CredentialsOfProxyAndServerAreSetBeforeEachResend)
{
    int asked = 0;
    CDriven driven([&](auto, auto, auto, const auto&, DWORD& chosen, auto& user, auto& password, auto)
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

TEST(WinHttpExchange, ResendsOnDemandButNotForEver)
{
    constexpr int kErrors = 100;
    CDriven driven{ AuthenticationFunction() };
    for (int i = 0; i < kErrors; ++i)
        driven.RaiseError(ERROR_WINHTTP_RESEND_REQUEST);
    EXPECT_GT(driven.Sends().size(), 1U);
    EXPECT_LT(driven.Sends().size(), size_t{ kErrors });
    EXPECT_EQ(driven.Status(), HResultFromWin32(ERROR_WINHTTP_RESEND_REQUEST));
    // Not after the status: the response has begun.
    CDriven begun;
    begun.RaiseError(ERROR_WINHTTP_RESEND_REQUEST);
    EXPECT_EQ(begun.Data(), HResultFromWin32(ERROR_WINHTTP_RESEND_REQUEST));
    EXPECT_EQ(begun.Sends().size(), 1U);
}

TEST(WinHttpExchange, AnEmptyReadEndsTheBody)
{
    const CLogCapture log;
    for (const std::string_view received : { "", "ab" })
    {
        CDriven driven;
        if (!received.empty())
            driven.Deliver(received);
        driven.ReadNothing();
        EXPECT_EQ(driven.exchange.Clear(), S_OK); // ends the wait if there was one
        EXPECT_EQ(driven.Data(received), S_OK);
    }
    EXPECT_THAT(log.Lines(), testing::IsEmpty());
}

TEST(WinHttpExchange, ImpossibleNotificationsEndTheExchange)
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

TEST(WinHttpExchange, LateNotificationsChangeNothingAndTheFirstFailureIsReturned)
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
    EXPECT_THAT(
        log.Lines(),
        testing::IsSupersetOf(
            { IsMessage(L"VoWinHttpRequest.h", 404, std::wstring(L"Error function: 1   Error code: 12175")),
              IsReportBy(L"VoWinHttpRequest::CVoWinHttpRequest<class VoWinHttpRequest::CVoWinHttpGetRequest>::OnRequestError",
                         refused) }));
    driven.RaiseError(ERROR_WINHTTP_TIMEOUT);
    EXPECT_EQ(driven.Data(), refused);
}
} // namespace
