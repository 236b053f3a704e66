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
    // The bytes that a GET of the connected URL brings.
    [[nodiscard]] CAnswer Get(const std::string& url)
    {
        CAnswer answer;
        Request request;
        const auto message = Connect(url, 30, 60);
        if (!message)
            return answer;
        if (answer.result = message->SendGetRequest(request, {}, false, &answer.send); SUCCEEDED(answer.result))
            answer.result = message->ReadResponse(request, answer.message, Response::Binary, nullptr, nullptr);
        return answer;
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, RealServerTest, testing::ValuesIn(kTransports), &NameOf);

TEST_P(RealServerTest, EveryContentKindIsAccepted)
{
    for (const std::string& url : URLs("/post"))
        for (const Kind kind : { Kind::Raw, Kind::Multipart, Kind::Form, Kind::Empty })
        {
            const CAnswer answer = SendTo(url, MakeMessage({ { L"a", L"1" }, { L"FileName", L"f" } }), kind);
            EXPECT_EQ(answer.result, S_OK) << url << static_cast<UINT32>(kind);
            EXPECT_EQ(ParamsOf(answer.message), (Params{ { L"ok", L"1" }, { L"method", L"POST" } })) << url;
        }
}

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

TEST_P(RealServerTest, BodiesOfAllSizesComeBackAsTheyWere)
{
    for (const std::string& url : URLs("/echo"))
    {
        const auto message = Connect(url, 30, 60);
        for (const size_t size : { 0U, 1U, 31'999U, 32'000U, 70'000U, 1U << 20 })
        {
            std::string payload(size, '\0');
            for (size_t i = 0; i < size; ++i)
                payload[i] = static_cast<char>(i * 2654435761U >> 13);
            const CAnswer answer = Send(*message, MakeMessage({ { L"n", std::to_wstring(size) } }, payload));
            ASSERT_EQ(answer.result, S_OK) << url << " " << size;
            EXPECT_EQ(ParamsOf(answer.message), (Params{ { L"n", std::to_wstring(size) } })) << url;
            EXPECT_TRUE(PayloadOf(answer.message) == payload) << url << " " << size;
        }
    }
}

TEST_P(RealServerTest, FilesArriveWhole)
{
    struct CFile
    {
        const char* target;
        size_t size;
    };
    for (const CFile& file : { CFile{ "/files/0.bin", 0 }, CFile{ "/files/1.bin", 1 }, CFile{ "/files/10k.bin", 10 << 10 },
                               CFile{ "/files/10m.bin", 10 << 20 } })
        for (const std::string& url : URLs(file.target))
        {
            const CAnswer answer = Get(url);
            EXPECT_EQ(answer.result, S_OK) << url;
            EXPECT_EQ(answer.message.Payload().size(), file.size) << url;
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

TEST_P(RealServerTest, CompressedAndChunkedAnswersAreRead)
{
    for (const std::string& url : URLs("/gzip/text.txt"))
        EXPECT_EQ(Get(url).message.Payload().size(), 95'000U) << url;
    for (const std::string& url : URLs("/chunked"))
    {
        const CAnswer answer = Get(url);
        EXPECT_EQ(answer.result, S_OK) << url;
        EXPECT_EQ(std::count(answer.message.Payload().begin(), answer.message.Payload().end(), BYTE{ '\n' }), 3) << url;
    }
}

TEST_P(RealServerTest, SeveralCookiesOfOneAnswerAreKept)
{
    EXPECT_EQ(SendTo(TestServers()->URL("/cookies/set")).result, S_OK);
    const CAnswer answer = SendTo(TestServers()->URL("/cookies/show"));
    ASSERT_EQ(answer.result, S_OK);
    const Params params = ParamsOf(answer.message);
    ASSERT_EQ(params.size(), 1U);
    EXPECT_GE(std::count(params[0].second.begin(), params[0].second.end(), L'='), 2) << "more than one cookie is sent";
}

TEST_P(RealServerTest, CredentialsOpenAPrivateLocation)
{
    if (!GetParam().asksCallback)
        GTEST_SKIP() << "the system's dialog asks, while connecting";
    for (const std::string& url : URLs("/private"))
    {
        m_stores.auth = VoMakeComObject<CScriptedAuthCallback>();
        m_stores.auth->AnswerServer({ { L"user", L"secret" } });
        const CAnswer answer = SendTo(url, MakeMessage({ { L"a", L"1" } }, std::string(5000, 'x')));
        EXPECT_EQ(answer.result, S_OK) << url;
        EXPECT_EQ(ParamsOf(answer.message), (Params{ { L"a", L"1" } })) << url;
    }
}

TEST_P(RealServerTest, FailuresOfTheServerAreFailures)
{
    EXPECT_TRUE(FAILED(SendTo(TestServers()->URL("/reset")).result));
    for (const int status : { 400, 404, 500, 503 })
        for (const std::string& url : URLs("/status/" + std::to_string(status)))
        {
            const CAnswer answer = SendTo(url);
            EXPECT_EQ(answer.result, GetParam().unexpectedStatus) << url;
            EXPECT_EQ(answer.send.statusCode, static_cast<UINT32>(status)) << url;
        }
}
} // namespace
