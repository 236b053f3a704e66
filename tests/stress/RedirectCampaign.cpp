// Random redirects of a hostile server over each transport: nothing that belongs to one host may reach another.
#include "Campaign.h"

#include "http/TransportFixture.h"

#include <base/VoUtils.h>

#include <gtest/gtest.h>

using namespace TestSupport;

namespace
{
class RedirectCampaign : public TransportTest
{
};
INSTANTIATE_TEST_SUITE_P(Kinds, RedirectCampaign, testing::ValuesIn(kTransports), &NameOf);

constexpr const char* kBankCookie = "bank=b1a2n3k4";
constexpr const char* kOwnCookie = "own=o1w2n3";
constexpr const char* kParameter = "p4r5m6";

class CAttacker
{
public:
    explicit CAttacker(std::string bank) : m_bank(std::move(bank)) {}

    void Seed(const Stress::CRandom& random) { m_random = random; }
    void Answer(const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        const std::scoped_lock lock(m_lock);
        if (request.Path() == "/end" || request.number > 20000)
        {
            connection.SendResponse(200, {}, "a=1");
            return;
        }
        if (Chance(8) && request.Header("Authorization").empty())
        {
            connection.SendResponse(401, { { "WWW-Authenticate", "Basic realm=\"r\"" } });
            return;
        }
        std::string head = "HTTP/1.1 " + Pick({ "301", "302", "303", "307", "308" }) + " Found\r\n";
        for (int lines = 1 + static_cast<int>(m_random() % 4); lines > 0; --lines)
            head += Line(request);
        if (Chance(2))
            head += "Location: http://127.0.0.1:" +
                    std::string(request.Header("Host").substr(request.Header("Host").rfind(':') + 1)) + "/end\r\n";
        connection.Send(head + "Content-Length: 0\r\n\r\n");
    }

private:
    [[nodiscard]] bool Chance(unsigned of) { return m_random() % of == 0; }
    [[nodiscard]] std::string Pick(std::initializer_list<const char*> texts)
    {
        return *(texts.begin() + m_random() % texts.size());
    }
    [[nodiscard]] std::string Line(const Loopback::CRequest& request)
    {
        switch (m_random() % 6)
        {
        case 0:
            return Pick({ "HTTP/1.1 302 : x\r\n", "HTTP/: 1\r\n", "Location:\r\n", "Location: \t\r\n", "X: y\r\n z\r\n" });
        case 1:
            return "Set-Cookie: bank=" + Pick({ "evil; Domain=localhost", "evil; Domain=.localhost; Path=/", "evil" }) + "\r\n";
        default:
            break;
        }
        const std::string host = std::string(request.Header("Host"));
        return Pick({ "Location: ", "Location:", "location: ", "Location : ", "LOCATION:\t" }) +
               Pick({ "", "", "", "\t", " ", "\xC2\xA0", "\xA0", "\x0B", "\x01" }) +
               Pick(
                   { "http://", "http://", "//", "https://", "http:\\\\", "http:/", "http:", "/\\", "\\\\", "ht\ttp://", "" }) +
               Pick({ "", "", "", "a@", "a#@", "a?@", "a\\@", "u:p@", "\xC2\xA0" }) +
               (Chance(3) ? host
                          : Pick({ m_bank.c_str(), m_bank.c_str(), "localhost", "localhost%2e", "[::1]", "LOCALHOST" })) +
               Pick({ "/x", "/end", "?q", "#f", "\\x", "/\\localhost/", "" }) + "\r\n";
    }

    std::mutex m_lock;
    Stress::CRandom m_random;
    const std::string m_bank; // host and port of the other server
};

TEST_P(RedirectCampaign, RandomRedirectsKeepSecretsOnTheirHost)
{
    constexpr unsigned kRequests = 100; // where no time is given
    // The bank's server sees what reaches it and answers. Cookies know no ports, so it has a host name of its own.
    std::mutex lock;
    std::string stolen;
    const Loopback::CLoopbackServer bank([&](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        const bool keepsBody = request.method == "POST"; // 307 and 308 may
        if (request.Header("Cookie").find("o1w2n3") != std::string_view::npos || !request.Header("Authorization").empty() ||
            (!keepsBody &&
             (request.body.find(kParameter) != std::string::npos || request.target.find(kParameter) != std::string::npos)))
        {
            const std::scoped_lock guard(lock);
            stolen = "at the bank: " + request.target + " " + std::string(request.Header("Cookie"));
        }
        connection.SendResponse(200, {}, "a=1");
    });
    CAttacker attacker("localhost:" + std::to_string(bank.Port()));
    const CServer server([&](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        if (request.Header("Cookie").find("b1a2n3k4") != std::string_view::npos ||
            request.target.find("b1a2n3k4") != std::string::npos)
        {
            const std::scoped_lock guard(lock);
            stolen = "at the attacker: " + request.target + " " + std::string(request.Header("Cookie"));
        }
        attacker.Answer(request, connection);
    });
    const std::wstring bankUrl = L"http://localhost:" + std::to_wstring(bank.Port()) + L"/";
    const std::wstring ownUrl = SeenURL(server, L"/");
    m_auth = VoMakeComObject<CScriptedAuthCallback>();
    const Message message = Connect(server.URL(), 5, 5);
    const CLogCapture log;
    Stress::CRounds rounds(kRequests);
    while (rounds.Next() && stolen.empty() && !HasFailure())
    {
        SCOPED_TRACE(testing::Message() << "repeat: " << rounds.Command());
        attacker.Seed(rounds.Random());
        EXPECT_EQ(m_cookies->Clear(), S_OK);
        EXPECT_EQ(m_cookies->AddCookieFromString(CVoBstr(Wide(kBankCookie)).Get(), CVoBstr(bankUrl).Get()), S_OK);
        EXPECT_EQ(m_cookies->AddCookieFromString(CVoBstr(Wide(kOwnCookie)).Get(), CVoBstr(ownUrl).Get()), S_OK);
        m_auth->AnswerServer({ { L"ann", L"s3cret" } });
        // Wine's services take 40 ms for a body, so not every request has one.
        if (rounds.Round() % 4 == 0)
            (void)Send(*message, MakeMessage({ { L"p", Wide(kParameter) } }), rounds.Round() % 8 == 0 ? Kind::Raw : Kind::Form);
        else
            (void)Get(*message);
        EXPECT_EQ(CookiesFor(*m_cookies.Get(), bankUrl), Wide(kBankCookie)) << "a cookie was planted";
        EXPECT_EQ(stolen, "");
    }
    EXPECT_GT(server.RequestCount(), 0U);
}
} // namespace
