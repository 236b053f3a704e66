#include <VoNetworkUtils.h>

#include "support/ImportHook.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <vector>

using testing::ElementsAre;
using namespace TestSupport;
using VoNetworkUtils::CVoIPAddress;

namespace
{
const std::wstring kSource = L"..\\source\\VoNetworkUtils";
const std::wstring kFromDNS = L"VoNetworkUtils::CVoIPAddress::InitFromDNSAddress";
const std::wstring kFromIP = L"VoNetworkUtils::CVoIPAddress::InitFromIPAddress";

// A socket address of either family, or of none for an empty text.
class CSocketAddress
{
public:
    explicit CSocketAddress(const std::wstring& text, u_short port = 0)
    {
        const bool isIPv6 = text.find(L':') != std::wstring::npos;
        m_address.sin6_family = text.empty() ? AF_UNSPEC : isIPv6 ? AF_INET6 : AF_INET;
        m_address.sin6_port = ::htons(port); // where the other family has it too
        m_address.sin6_flowinfo = isIPv6 ? 0x44332211 : 0;
        void* const bytes = isIPv6 ? static_cast<void*>(&m_address.sin6_addr) : &m_address.sin6_flowinfo;
        EXPECT_EQ(text.empty() ? 1 : ::InetPtonW(m_address.sin6_family, text.c_str(), bytes), 1);
    }
    [[nodiscard]] const SOCKADDR& Get() const { return reinterpret_cast<const SOCKADDR&>(m_address); }

private:
    SOCKADDR_IN6 m_address{};
};

// A record that holds an address already, so that tests see it cleared.
CVoIPAddress MakeUsed()
{
    CVoIPAddress address;
    EXPECT_EQ(address.InitFromIPAddress(L"fe80::1"), S_OK);
    return address;
}

bool IsCleared(const CVoIPAddress& address)
{
    return !address.IsInitialised() && !address.IsValid() && !address.IsIPv6() && address.Text().empty() &&
           address.AddressV4() == std::array<BYTE, 4>{} && address.AddressV6() == std::array<BYTE, 16>{} &&
           !address.IsPrivateAddress();
}

// Answers the resolver's question with addresses of the test's choice.
class CResolver
{
public:
    explicit CResolver(const std::vector<std::wstring>& texts) : m_entries(texts.size())
    {
        for (size_t i = 0; i < texts.size(); ++i)
            m_addresses.emplace_back(texts[i]);
        for (size_t i = 0; i < texts.size(); ++i)
        {
            m_entries[i].ai_family = m_addresses[i].Get().sa_family;
            m_entries[i].ai_addr = const_cast<SOCKADDR*>(&m_addresses[i].Get());
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

    std::vector<CSocketAddress> m_addresses;
    std::vector<ADDRINFOW> m_entries;
    CCallHook<decltype(&::GetAddrInfoW)> m_get{ "ws2_32.dll", "GetAddrInfoW",
                                                [this](auto, PCWSTR, PCWSTR, auto hints, auto results)
                                                { return Get(*hints, results); } };
    CCallHook<decltype(&::FreeAddrInfoW)> m_free{ "ws2_32.dll", "FreeAddrInfoW", [this](auto, auto) { --open; } };
};

// "text: bytes of the family in use".
std::string StateOf(const CVoIPAddress& address)
{
    EXPECT_TRUE(address.IsInitialised() && address.IsValid());
    std::string state(address.Text().begin(), address.Text().end());
    const BYTE* const bytes = address.IsIPv6() ? address.AddressV6().data() : address.AddressV4().data();
    for (int i = 0; i < (address.IsIPv6() ? 16 : 4); ++i)
        state += (i == 0 ? ": " : " ") + std::to_string(bytes[i]);
    return state;
}

TEST(IPAddress, KeepsTheAddressAndItsCanonicalText)
{
    const std::pair<const wchar_t*, const char*> table[] = {
        { L"192.0.2.1", "192.0.2.1: 192 0 2 1" },
        { L"2001:DB8:0:0::1", "2001:db8::1: 32 1 13 184 0 0 0 0 0 0 0 0 0 0 0 1" },
        { L"[fe80::1]", "fe80::1: 254 128 0 0 0 0 0 0 0 0 0 0 0 0 0 1" },
    };
    CVoIPAddress address;
    for (const auto& [text, expected] : table)
    {
        ASSERT_EQ(address.InitFromIPAddress(text), S_OK) << text;
        EXPECT_EQ(StateOf(address), expected);
    }
    // Of a socket address only the text is the address; the bytes are the structure's first.
    bool taken = false;
    EXPECT_EQ(address.InitFromIPAddress(CSocketAddress(L"10.0.0.1", 8080).Get(), false, taken), S_OK);
    EXPECT_TRUE(taken);
    EXPECT_EQ(StateOf(address), "10.0.0.1: 2 0 31 144");
    EXPECT_FALSE(address.IsPrivateAddress());
    EXPECT_EQ(address.InitFromIPAddress(CSocketAddress(L"2001:db8::1", 443).Get(), false, taken), S_OK);
    EXPECT_TRUE(taken);
    EXPECT_EQ(StateOf(address), "2001:db8::1: 23 0 1 187 17 34 51 68 32 1 13 184 0 0 0 0");
}

TEST(IPAddress, TextThatIsNeitherFormIsReportedAndLeavesTheRecordCleared)
{
    using namespace std::string_literals;
    for (const std::wstring& text : { L""s, L"localhost"s, L"1.2.3.4:80"s, L"[1.2.3.4]"s, L"[::1"s, L"::1\0x"s })
    {
        CVoIPAddress address = MakeUsed();
        CLogCapture log;
        EXPECT_EQ(address.InitFromIPAddress(text), E_INVALIDARG) << text;
        EXPECT_TRUE(IsCleared(address));
        EXPECT_THAT(log.Lines(), ElementsAre(IsMessage(kSource, 218, testing::StartsWith(L"address:")),
                                             IsReport(kSource, 219, kFromIP, E_INVALIDARG)));
    }
}

TEST(IPAddress, FromAHostNameIPv4ComesFirst)
{
    struct
    {
        std::vector<std::wstring> resolved;
        std::wstring text; // empty: nothing found
    } const table[] = { { { L"2001:db8::1", L"192.0.2.1", L"192.0.2.2" }, L"192.0.2.1" },
                        { { L"192.0.2.2", L"2001:db8::1", L"192.0.2.1" }, L"192.0.2.2" },
                        { { L"", L"2001:db8::1" }, L"2001:db8::1" },
                        { { L"" }, L"" } };
    for (const auto& row : table)
        for (const bool quiet : { true, false })
        {
            CResolver resolver(row.resolved);
            CVoIPAddress address = MakeUsed();
            bool found = row.text.empty();
            CLogCapture log;
            EXPECT_EQ(address.InitFromDNSAddress(L"host.test", quiet, found), row.text.empty() && !quiet ? E_FAIL : S_OK);
            EXPECT_EQ(resolver.open, 0);
            EXPECT_EQ(found, !row.text.empty());
            EXPECT_EQ(address.Text(), row.text);
            EXPECT_EQ(IsCleared(address), !found);
            if (found || quiet)
                EXPECT_THAT(log.Lines(), testing::IsEmpty());
            else
                EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 327, kFromDNS, E_FAIL)));
        }
    // The platform's own resolver.
    CVoIPAddress address;
    bool found = false;
    ASSERT_EQ(address.InitFromDNSAddress(L"localhost", false, found), S_OK);
    EXPECT_TRUE(found);
    EXPECT_TRUE(address.Text() == L"127.0.0.1" || address.Text() == L"::1") << address.Text();
}

TEST(IPAddress, FailuresAreReportedUnlessQuietAndLeaveTheRecordCleared)
{
    for (const bool quiet : { false, true })
    {
        const HRESULT code = HResultFromWin32(WSAHOST_NOT_FOUND);
        CVoIPAddress address = MakeUsed();
        bool found = true;
        CLogCapture log;
        const CFailOnCall<decltype(&::GetAddrInfoW)> failName("ws2_32.dll", "GetAddrInfoW", 1, WSAHOST_NOT_FOUND,
                                                              WSAHOST_NOT_FOUND);
        EXPECT_EQ(address.InitFromDNSAddress(L"host.test", quiet, found), quiet ? S_OK : code);
        EXPECT_TRUE(IsCleared(address) && !found);
        for (const wchar_t* const text : { L"192.0.2.1", L"::1" })
        {
            const CFailOnCall<decltype(&::InetNtopW)> fail("ws2_32.dll", "InetNtopW", 1, nullptr, WSAHOST_NOT_FOUND);
            address = CVoIPAddress();
            EXPECT_EQ(address.InitFromIPAddress(CSocketAddress(text).Get(), quiet, found), quiet ? S_OK : code);
            EXPECT_TRUE(IsCleared(address) && !found);
        }
        if (quiet)
            EXPECT_THAT(log.Lines(), testing::IsEmpty());
        else
            EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 296, kFromDNS, code),
                                                 IsMessage(kSource, 297, std::wstring(L"address:host.test")),
                                                 IsReport(kSource, 298, kFromDNS, code), IsReport(kSource, 134, kFromIP, code),
                                                 IsReport(kSource, 147, kFromIP, code)));
    }
    // A conversion that fails ends the taking of one address but not the search.
    const CResolver resolver({ L"2001:db8::1", L"192.0.2.1" });
    const auto fault = VO_FAULT("ws2_32.dll", InetNtopW, nullptr, WSAEAFNOSUPPORT);
    const auto injected = fault.inject(1);
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
            ASSERT_EQ(address.InitFromIPAddress(text), S_OK);
            EXPECT_EQ(address.IsPrivateAddress(), isPrivate) << text;
        }
}
} // namespace
