// What only the libcurl transport does, and what of it no server sees.
#include "http/TransportFixture.h"

#include <gtest/gtest.h>

#include <cstring>

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

TEST(CURLTransport, KnowsItsOwnAddressOverIPv6)
{
    const CServer server(&Echo);
    Message message;
    ASSERT_EQ(ConnectTo(Wide(server.URL()), {}, message), S_OK);
    // The platform says that a connected socket has the address ::1.
    const CCallHook<decltype(&::getsockname)> hook("ws2_32.dll", "getsockname",
                                                   [](auto original, SOCKET socket, sockaddr* address, int* length)
    {
        sockaddr_storage peer{};
        int peerLength = sizeof peer;
        if (::getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0)
            return original(socket, address, length);
        sockaddr_in6 local{};
        local.sin6_family = AF_INET6;
        local.sin6_addr.s6_addr[15] = 1;
        std::memcpy(address, &local, sizeof local);
        *length = sizeof local;
        return 0;
    });
    EXPECT_EQ(Send(*message, {}).send.localAddress, L"::1");
}
} // namespace
