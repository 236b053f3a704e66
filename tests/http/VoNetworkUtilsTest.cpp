// IP addresses from host names, texts and socket addresses.
#include <VoNetworkUtils.h>

#include "support/ImportHook.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <deque>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using namespace TestSupport;
using VoNetworkUtils::CVoIPAddress;

namespace
{
const std::wstring kSource = L"..\\source\\VoNetworkUtils";
const std::wstring kFromDNS = L"VoNetworkUtils::CVoIPAddress::InitFromDNSAddress";
const std::wstring kFromIP = L"VoNetworkUtils::CVoIPAddress::InitFromIPAddress";

// Makes a socket address of the text's family; of no family for an empty text.
SOCKADDR_STORAGE SocketAddress(const std::wstring& text, USHORT port = 0)
{
    SOCKADDR_STORAGE storage{};
    auto& v4 = reinterpret_cast<SOCKADDR_IN&>(storage);
    auto& v6 = reinterpret_cast<SOCKADDR_IN6&>(storage);
    const bool isIPv6 = text.find(L':') != std::wstring::npos;
    v4.sin_port = ::htons(port); // both families have the port at this place
    v6.sin6_flowinfo = isIPv6 ? 0x44332211 : 0;
    storage.ss_family = static_cast<decltype(storage.ss_family)>(text.empty() ? AF_UNSPEC : isIPv6 ? AF_INET6 : AF_INET);
    void* const bytes = isIPv6 ? static_cast<void*>(&v6.sin6_addr) : &v4.sin_addr;
    EXPECT_EQ(text.empty() ? 1 : ::InetPtonW(storage.ss_family, text.c_str(), bytes), 1);
    return storage;
}
HRESULT InitFromSocket(CVoIPAddress& address, const std::wstring& text, bool quiet, bool& taken, USHORT port = 0)
{
    const SOCKADDR_STORAGE socket = SocketAddress(text, port);
    return address.InitFromIPAddress(reinterpret_cast<const SOCKADDR&>(socket), quiet, taken);
}

// The fields of a record as "text bytes IPv6"; empty for a cleared record.
std::string StateOf(const CVoIPAddress& address)
{
    std::string state(address.Text().begin(), address.Text().end());
    const auto add = [&state](const auto& bytes)
    {
        if (std::ranges::count(bytes, BYTE{ 0 }) != std::ssize(bytes))
            for (const BYTE value : bytes)
                state += ' ' + std::to_string(value);
    };
    add(address.AddressV4());
    add(address.AddressV6());
    state += address.IsIPv6() ? " IPv6" : "";
    EXPECT_TRUE(address.IsInitialised() != state.empty() && address.IsValid() != state.empty());
    return state;
}

// Makes a record with an address, so that a test sees when it is cleared.
CVoIPAddress MakeUsed()
{
    CVoIPAddress address;
    EXPECT_EQ(address.InitFromIPAddress(L"fe80::1"), S_OK);
    return address;
}

// Replaces the platform's resolver; gives the addresses that the test chooses.
class CResolver
{
public:
    explicit CResolver(const std::vector<std::wstring>& texts) : m_entries(texts.size())
    {
        for (size_t i = 0; i < texts.size(); ++i)
        {
            SOCKADDR_STORAGE& address = m_addresses.emplace_back(SocketAddress(texts[i]));
            m_entries[i].ai_family = address.ss_family;
            m_entries[i].ai_addr = reinterpret_cast<SOCKADDR*>(&address);
            m_entries[i].ai_next = i + 1 < texts.size() ? &m_entries[i + 1] : nullptr;
        }
    }
    int open = 0;

private:
    INT Get(const ADDRINFOW& hints, PADDRINFOW* results)
    {
        EXPECT_TRUE(hints.ai_family == AF_UNSPEC && hints.ai_socktype == SOCK_STREAM && hints.ai_protocol == IPPROTO_TCP);
        ++open;
        *results = m_entries.data();
        return 0;
    }

    std::deque<SOCKADDR_STORAGE> m_addresses; // a deque does not move its elements
    std::vector<ADDRINFOW> m_entries;
    CCallHook<decltype(&::GetAddrInfoW)> m_get{ "ws2_32.dll", "GetAddrInfoW",
                                                [this](auto, PCWSTR, PCWSTR, auto hints, auto results)
    { return Get(*hints, results); } };
    CCallHook<decltype(&::FreeAddrInfoW)> m_free{ "ws2_32.dll", "FreeAddrInfoW", [this](auto, auto) { --open; } };
};

TEST(IPAddress, KeepsTheAddressAndItsCanonicalText)
{
    CVoIPAddress address;
    for (const auto& [text, expected] : { std::pair(L"192.0.2.1", "192.0.2.1 192 0 2 1"),
                                          { L"2001:DB8:0:0::1", "2001:db8::1 32 1 13 184 0 0 0 0 0 0 0 0 0 0 0 1 IPv6" },
                                          { L"[fe80::1]", "fe80::1 254 128 0 0 0 0 0 0 0 0 0 0 0 0 0 1 IPv6" } })
    {
        EXPECT_EQ(address.InitFromIPAddress(text), S_OK);
        EXPECT_EQ(StateOf(address), expected);
    }
    // After a socket address only the text is the address. The bytes are the first bytes of the structure.
    for (const auto& [text, port, expected] :
         { std::tuple(L"10.0.0.1", USHORT{ 8080 }, "10.0.0.1 2 0 31 144"),
           { L"2001:db8::1", USHORT{ 443 }, "2001:db8::1 23 0 1 187 17 34 51 68 32 1 13 184 0 0 0 0 IPv6" } })
    {
        bool taken = false;
        EXPECT_EQ(InitFromSocket(address, text, false, taken, port), S_OK);
        EXPECT_TRUE(taken);
        EXPECT_EQ(StateOf(address), expected);
        EXPECT_FALSE(address.IsPrivateAddress());
    }
}

TEST(IPAddress, OtherTextIsReportedAndClearsTheRecord)
{
    using namespace std::string_literals;
    for (const std::wstring& text : { L""s, L"localhost"s, L"1.2.3.4:80"s, L"[1.2.3.4]"s, L"[::1"s, L"::1\0x"s })
    {
        CVoIPAddress address = MakeUsed();
        const CLogCapture log;
        EXPECT_EQ(address.InitFromIPAddress(text), E_INVALIDARG) << text;
        EXPECT_EQ(StateOf(address), "");
        EXPECT_THAT(log.Lines(), ElementsAre(IsMessage(kSource, 218, testing::StartsWith(L"address:")),
                                             IsReport(kSource, 219, kFromIP, E_INVALIDARG)));
    }
}

TEST(IPAddress, AHostNameGivesItsIPv4AddressFirst)
{
    const std::pair<std::vector<std::wstring>, std::wstring> table[] = {
        { { L"2001:db8::1", L"192.0.2.1", L"192.0.2.2" }, L"192.0.2.1" },
        { { L"", L"2001:db8::1" }, L"2001:db8::1" },
        { { L"" }, L"" }, // nothing found
    };
    for (const auto& [resolved, text] : table)
        for (const bool quiet : { true, false })
        {
            const CResolver resolver(resolved);
            const bool exists = !text.empty();
            CVoIPAddress address = MakeUsed();
            bool found = !exists;
            const CLogCapture log;
            EXPECT_EQ(address.InitFromDNSAddress(L"host.test", quiet, found), exists || quiet ? S_OK : E_FAIL);
            EXPECT_EQ(resolver.open, 0);
            EXPECT_EQ(found, exists);
            EXPECT_EQ(address.Text(), text);
            EXPECT_EQ(StateOf(address).empty(), !exists);
            const auto report = IsReport(kSource, 327, kFromDNS, E_FAIL);
            EXPECT_THAT(log.Lines(), testing::Conditional(exists || quiet, IsEmpty(), ElementsAre(report)));
        }
    // The platform's resolver.
    CVoIPAddress address;
    bool found = false;
    EXPECT_EQ(address.InitFromDNSAddress(L"localhost", false, found), S_OK);
    EXPECT_TRUE(found);
    EXPECT_TRUE(address.Text() == L"127.0.0.1" || address.Text() == L"::1") << address.Text();
}

TEST(IPAddress, FailuresClearTheRecordAndAreReportedUnlessQuiet)
{
    const auto noHost = VO_FAULT("ws2_32.dll", GetAddrInfoW, WSAHOST_NOT_FOUND, WSAHOST_NOT_FOUND);
    const auto noText = VO_FAULT("ws2_32.dll", InetNtopW, nullptr, WSAEAFNOSUPPORT);
    for (const bool quiet : { false, true })
    {
        const CLogCapture log;
        bool found = true;
        CVoIPAddress address = MakeUsed();
        {
            const auto injected = noHost.inject(1);
            EXPECT_EQ(address.InitFromDNSAddress(L"host.test", quiet, found), quiet ? S_OK : noHost.expected);
            EXPECT_TRUE(StateOf(address).empty() && !found);
        }
        for (const auto& [text, code] :
             { std::pair(L"192.0.2.1", noText.expected), { L"::1", noText.expected }, { L"", E_INVALIDARG } })
        {
            address = MakeUsed();
            const auto injected = noText.inject(1);
            EXPECT_EQ(InitFromSocket(address, text, quiet, found), quiet ? S_OK : code);
            EXPECT_TRUE(StateOf(address).empty() && !found);
        }
        const auto reports = ElementsAre(
            IsReport(kSource, 296, kFromDNS, noHost.expected), IsMessage(kSource, 297, std::wstring(L"address:host.test")),
            IsReport(kSource, 298, kFromDNS, noHost.expected), IsReport(kSource, 134, kFromIP, noText.expected),
            IsReport(kSource, 147, kFromIP, noText.expected), IsReport(kSource, 158, kFromIP, HRESULT{ AF_UNSPEC }),
            IsReport(kSource, 159, kFromIP, E_INVALIDARG));
        EXPECT_THAT(log.Lines(), testing::Conditional(quiet, IsEmpty(), reports));
    }
    // When the conversion of one address fails, the search goes on.
    const CResolver resolver({ L"2001:db8::1", L"192.0.2.1" });
    const auto injected = noText.inject(1);
    CVoIPAddress address;
    bool found = false;
    EXPECT_EQ(address.InitFromDNSAddress(L"host.test", false, found), S_OK);
    EXPECT_TRUE(found);
    EXPECT_EQ(address.Text(), L"2001:db8::1");
    EXPECT_EQ(resolver.open, 0);
}

TEST(IPAddress, PrivateTestReadsTheStoredBytes)
{
    const std::vector<const wchar_t*> table[] = { { L"9.255.255.255", L"11.0.0.0", L"172.15.0.1", L"172.32.0.0", L"192.167.0.1",
                                                    L"169.253.1.1", L"127.0.0.1", L"fbff::1", L"fe7f::1", L"ff02::1", L"::1",
                                                    L"a00::1" },
                                                  { L"10.0.0.1", L"172.16.0.0", L"172.31.255.255", L"192.168.0.1",
                                                    L"169.254.1.1", L"fc00::1", L"fdff::1", L"fe80::1", L"feff::1" } };
    for (const bool isPrivate : { false, true })
        for (const wchar_t* const text : table[isPrivate])
        {
            CVoIPAddress address;
            EXPECT_EQ(address.InitFromIPAddress(text), S_OK);
            EXPECT_EQ(address.IsPrivateAddress(), isPrivate) << text;
        }
}
} // namespace
