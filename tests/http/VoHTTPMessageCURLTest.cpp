// What only the libcurl transport does, and what of it no server sees.
#include "http/TransportFixture.h"

#include <CURLSupport.h>

#include <gtest/gtest.h>

using namespace TestSupport;

namespace
{
TEST(CURLTransport, NoProxyMeansNoneWhateverTheEnvironmentSays)
{
    const CServer server(&Echo);
    const std::wstring nobody = L"http://127.0.0.1:" + std::to_wstring(ClosedPort());
    for (const wchar_t* const name : { L"http_proxy", L"all_proxy" })
        ASSERT_TRUE(::SetEnvironmentVariableW(name, nobody.c_str()));
    const auto direct = VoMakeComObject<CFixedProxyStore>(L"");
    for (CFixedProxyStore* const store : { direct.Get(), static_cast<CFixedProxyStore*>(nullptr) })
    {
        Message message;
        ASSERT_EQ(ConnectTo(Wide(server.URL()), { .proxies = store }, message), S_OK);
        EXPECT_EQ(Send(*message, {}).result, S_OK);
    }
    for (const wchar_t* const name : { L"http_proxy", L"all_proxy" })
        ::SetEnvironmentVariableW(name, nullptr);
}

TEST(CURLTransport, TheUserAgentIsSetInAnyHandle)
{
    CLogCapture log;
    EXPECT_EQ(VoHTTPMessageCURL::SetUserAgentForRequest(VoHTTPMessageCURL::MakeCURLHandle().get()), S_OK);
    EXPECT_EQ(VoHTTPMessageCURL::SetUserAgentForRequest(nullptr), E_FAIL);
    EXPECT_THAT(log.Lines(), testing::Contains(IsReportBy(L"VoHTTPMessageCURL::SetUserAgentForRequest", E_FAIL)));
}
} // namespace
