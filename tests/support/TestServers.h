// The real servers beside the tests' own: nginx with TLS and squid, started by tools/test-servers, whose head lists what it
// answers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace TestSupport
{
struct CTestServers
{
    uint16_t port = 0;
    uint16_t tlsPort = 0;
    uint16_t otherHostPort = 0;       // TLS with a certificate for another host
    uint16_t expiredPort = 0;         // TLS with a certificate that has ended
    std::vector<uint16_t> sparePorts; // further TLS ports: client libraries keep what they accepted for a (host, port)
    std::string root;                 // the folder of the static files
    uint16_t squidPort = 0;           // a proxy for everybody
    uint16_t squidAuthPort = 0;       // a proxy for who knows these
    std::string squidUser;
    std::string squidPassword;

    [[nodiscard]] std::string URL(std::string_view target) const
    {
        return "http://127.0.0.1:" + std::to_string(port) + std::string(target);
    }
    // By name, since some TLS libraries do not match an address in a certificate.
    [[nodiscard]] std::string SecureURL(std::string_view target) const
    {
        return "https://localhost:" + std::to_string(tlsPort) + std::string(target);
    }
};

// What the environment tells about the servers; null when they do not run.
[[nodiscard]] const CTestServers* TestServers();

// Whether a test without the servers is a failure (VOUTILS_REQUIRE_SERVERS=1, as ./test sets it) or may be skipped.
[[nodiscard]] bool RequiresTestServers();
} // namespace TestSupport

// At a test's beginning: goes on only with the servers there.
#define VO_NEEDS_TEST_SERVERS()                                                                                                \
    if (!TestSupport::TestServers())                                                                                           \
    {                                                                                                                          \
        if (TestSupport::RequiresTestServers())                                                                                \
            FAIL() << "the test servers do not run";                                                                           \
        GTEST_SKIP() << "the test servers do not run: see tools/test-servers";                                                 \
    }                                                                                                                          \
    static_assert(true)
