// The transports against nginx, plain and over TLS.
#include "http/TransportFixture.h"
#include "support/LogCapture.h"
#include "support/MemoryMeter.h"
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

TEST_P(RealServerTest, ChecksTheServersCertificateWhenAskedAndNotElse)
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

TEST_P(RealServerTest, BodiesComeBackAsTheyWere)
{
    const std::string payload = RandomBytes(1 << 20);
    for (const std::string& url : { TestServers()->URL("/echo"), TestServers()->SecureURL("/echo") })
    {
        const auto message = Connect(url, 30, 60);
        for (const size_t size : { 0U, 1U, 31'999U, 1U << 20 })
        {
            const CAnswer answer = Send(*message, MakeMessage({ { L"n", L"1" } }, payload.substr(0, size)));
            ASSERT_EQ(answer.result, S_OK) << url << " " << size;
            EXPECT_EQ(ParamsOf(answer.message), (Params{ { L"n", L"1" } })) << url;
            EXPECT_TRUE(PayloadOf(answer.message) == payload.substr(0, size)) << url << " " << size;
        }
    }
}

TEST_P(RealServerTest, ALargeAnswerIsInMemoryLittleMoreThanTwice)
{
    constexpr INT64 kSize = INT64{ 100 } << 20;
    const auto message = Connect(TestServers()->URL("/files/100m.bin"), 30, 120);
    const CMemoryMeter meter;
    const CAnswer answer = Get(*message);
    ASSERT_EQ(answer.result, S_OK);
    EXPECT_LE(meter.Peak() * 10, kSize * 22);
    EXPECT_GE(meter.Peak(), kSize) << "the meter sees nothing";
}

TEST_P(RealServerTest, AnswersOfEveryEncodingAreRead)
{
    const CTestServers& servers = *TestServers();
    for (const auto& [target, size] :
         { std::pair("/files/0.bin", 0U), { "/files/10m.bin", 10U << 20 }, { "/gzip/text.txt", 95'000U }, { "/chunked", 14U } })
        for (const std::string& url : { servers.URL(target), servers.SecureURL(target) })
        {
            const CAnswer answer = Get(*Connect(url, 30, 60));
            EXPECT_EQ(answer.result, S_OK) << url;
            EXPECT_EQ(PayloadOf(answer.message).size(), size) << url;
        }
}
} // namespace
