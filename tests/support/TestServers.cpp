#include "TestServers.h"

#include <cstdlib>
#include <optional>
#include <sstream>

namespace TestSupport
{
namespace
{
std::string Variable(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

uint16_t Port(const std::string& text)
{
    return static_cast<uint16_t>(std::strtoul(text.c_str(), nullptr, 10));
}

// A path of the host, which this program sees on drive Z.
std::string LocalPath(const std::string& path)
{
    return path.starts_with('/') ? "Z:" + path : path;
}

std::optional<CTestServers> ReadEnvironment()
{
    CTestServers servers;
    servers.port = Port(Variable("VOUTILS_NGINX_PORT"));
    servers.tlsPort = Port(Variable("VOUTILS_NGINX_TLS_PORT"));
    if (servers.port == 0 || servers.tlsPort == 0)
        return std::nullopt;
    servers.otherHostPort = Port(Variable("VOUTILS_NGINX_TLS_OTHER_HOST_PORT"));
    servers.expiredPort = Port(Variable("VOUTILS_NGINX_TLS_EXPIRED_PORT"));
    servers.root = LocalPath(Variable("VOUTILS_NGINX_ROOT"));
    std::istringstream spare(Variable("VOUTILS_NGINX_TLS_SPARE_PORTS"));
    for (std::string port; spare >> port;)
        servers.sparePorts.push_back(Port(port));
    servers.squidPort = Port(Variable("VOUTILS_SQUID_PORT"));
    servers.squidAuthPort = Port(Variable("VOUTILS_SQUID_AUTH_PORT"));
    servers.squidUser = Variable("VOUTILS_SQUID_USER");
    servers.squidPassword = Variable("VOUTILS_SQUID_PASSWORD");
    return servers;
}
} // namespace

const CTestServers* TestServers()
{
    static const std::optional<CTestServers> servers = ReadEnvironment();
    return servers ? &*servers : nullptr;
}

bool RequiresTestServers()
{
    return Variable("VOUTILS_REQUIRE_SERVERS") == "1";
}
} // namespace TestSupport
