// The transports against nginx, plain and over TLS.
#include "http/TransportFixture.h"
#include "support/LogCapture.h"
#include "support/TestServers.h"

#include <gtest/gtest.h>

using namespace TestSupport;

namespace
{
class RealServerTest : public TransportTest
{
protected:
    void SetUp() override
    {
        VO_NEEDS_TEST_SERVERS();
        TransportTest::SetUp();
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, RealServerTest, testing::ValuesIn(kTransports), &NameOf);

TEST_P(RealServerTest, ChecksTheServersCertificateOnlyWhenAsked)
{
    const auto send = [&](uint16_t port, bool verify)
    {
        const auto message = Connect("https://localhost:" + std::to_string(port) + "/post", 10, 20, verify);
        return Send(*message, {}).result;
    };
    // A port of its own for each transport: the services keep what they accepted for one.
    const uint16_t own = TestServers()->sparePorts.at(GetParam().kind);
    if (GetParam().checksCertificatesUnderWine || !IsWine())
    {
        for (const uint16_t port : { own, TestServers()->otherHostPort, TestServers()->expiredPort })
        {
            const CLogCapture log;
            EXPECT_TRUE(FAILED(send(port, true))) << port;
            EXPECT_FALSE(log.Lines().empty());
        }
    }
    EXPECT_EQ(send(own, false), S_OK);
    EXPECT_EQ(SendTo(TestServers()->URL("/post")).result, S_OK);
}

TEST_P(RealServerTest, ResponsesOfEveryEncodingAreRead)
{
    const CTestServers& servers = *TestServers();
    for (const auto& [target, size] :
         { std::pair("/files/0.bin", 0U), { "/files/10m.bin", 10U << 20 }, { "/gzip/text.txt", 95'000U }, { "/chunked", 14U } })
        for (const std::string& url : { servers.URL(target), servers.SecureURL(target) })
        {
            const CResponse response = Get(*Connect(url, 30, 60));
            EXPECT_EQ(response.result, S_OK) << url;
            EXPECT_EQ(PayloadOf(response.message).size(), size) << url;
        }
}
} // namespace
