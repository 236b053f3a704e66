// The transports against nginx, plain and over TLS.
#include "http/TransportFixture.h"
#include "support/LogCapture.h"
#include "support/MemoryMeter.h"
#include "support/TestServers.h"

#include <gtest/gtest.h>

#include <algorithm>

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

    // The same location on both kinds of port.
    [[nodiscard]] static std::vector<std::string> URLs(std::string_view target)
    {
        return { TestServers()->URL(target), TestServers()->SecureURL(target) };
    }
    // The bytes that a GET brings.
    [[nodiscard]] std::string Get(const std::string& url)
    {
        Request request;
        CVoBinaryDataParser answer;
        const auto message = Connect(url, 30, 60);
        EXPECT_EQ(message->SendGetRequest(request, {}, false, nullptr), S_OK) << url;
        EXPECT_EQ(message->ReadResponse(request, answer, Response::Binary, nullptr, nullptr), S_OK) << url;
        return PayloadOf(answer);
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, RealServerTest, testing::ValuesIn(kTransports), &NameOf);

TEST_P(RealServerTest, ChecksTheServersCertificateWhenAskedAndNotElse)
{
    const auto send = [&](uint16_t port, bool verify)
    {
        const auto message = Connect("https://localhost:" + std::to_string(port) + "/post", 10, 20, verify);
        return message ? Send(*message, {}).result : E_UNEXPECTED;
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
    std::string payload(1 << 20, '\0');
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<char>(i * 2654435761U >> 13);
    for (const std::string& url : URLs("/echo"))
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
    Request request;
    CVoBinaryDataParser answer;
    const CMemoryMeter meter;
    ASSERT_EQ(message->SendGetRequest(request, {}, false, nullptr), S_OK);
    ASSERT_EQ(message->ReadResponse(request, answer, Response::Binary, nullptr, nullptr), S_OK);
    EXPECT_LE(meter.Peak() * 10, kSize * 22);
    EXPECT_GE(meter.Peak(), kSize) << "the meter sees nothing";
}

TEST_P(RealServerTest, AnswersOfEveryEncodingAreRead)
{
    for (const std::string& url : URLs("/files/0.bin"))
        EXPECT_EQ(Get(url), "");
    for (const std::string& url : URLs("/files/10m.bin"))
        EXPECT_EQ(Get(url).size(), 10U << 20);
    for (const std::string& url : URLs("/gzip/text.txt"))
        EXPECT_EQ(Get(url).size(), 95'000U);
    for (const std::string& url : URLs("/chunked"))
    {
        const std::string text = Get(url);
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    }
}

} // namespace
