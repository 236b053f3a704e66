// An exchange with its handles, for the tests of the exchange.
#pragma once

#include <VoWinHttpRequest.h>

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace TestSupport
{
using CGet = VoWinHttpRequest::CVoWinHttpRequest<VoWinHttpRequest::CVoWinHttpGetRequest>;

// The result of a get function: S_OK for a value, the code of its HRESULTexc, or one of these for its std::future_error.
inline constexpr HRESULT kNoState = -1;
inline constexpr HRESULT kRetrieved = -2;
template <class Get>
HRESULT ResultOf(Get get)
try
{
    get();
    return S_OK;
}
catch (const VoWinHttpRequest::HRESULTexc& failure)
{
    return failure.Result();
}
catch (const std::future_error& error)
{
    return error.code() == std::future_errc::no_state ? kNoState : kRetrieved;
}

// An exchange with its handles, for a port of 127.0.0.1.
struct CExchangeOwner
{
    VoWinHttpInterface::WinHttpSessionHandle session;
    VoWinHttpInterface::WinHttpConnectionHandle connection;
    VoWinHttpInterface::WinHttpRequestHandle request;
    CGet exchange;

    explicit CExchangeOwner(UINT16 port, const wchar_t* path = L"/")
    {
        EXPECT_EQ(session.Init(L"VoUtils tests", WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_FLAG_ASYNC), S_OK);
        EXPECT_EQ(connection.Init(session, L"127.0.0.1", port), S_OK);
        OpenRequest(path);
    }
    void OpenRequest(const wchar_t* path = L"/")
    {
        EXPECT_EQ(request.Init(connection, L"GET", path, WINHTTP_FLAG_REFRESH), S_OK);
    }
    HRESULT Init(VoWinHttpRequest::AuthenticationFunction function = {}, void* context = nullptr)
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
        return ResultOf([&]
        {
            const std::vector<BYTE> data = exchange.GetResponseData();
            EXPECT_TRUE(std::string(data.begin(), data.end()) == expected) << data.size();
        });
    }
};
} // namespace TestSupport
