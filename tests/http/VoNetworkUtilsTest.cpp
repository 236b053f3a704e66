#include <VoNetworkUtils.h>

#include "support/ImportHook.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
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

SOCKADDR_IN MakeIPv4(const wchar_t* text, u_short port)
{
    SOCKADDR_IN address{};
    address.sin_family = AF_INET;
    address.sin_port = ::htons(port);
    EXPECT_EQ(::InetPtonW(AF_INET, text, &address.sin_addr), 1);
    return address;
}

SOCKADDR_IN6 MakeIPv6(const wchar_t* text, u_short port)
{
    SOCKADDR_IN6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = ::htons(port);
    EXPECT_EQ(::InetPtonW(AF_INET6, text, &address.sin6_addr), 1);
    return address;
}

template <class Address>
const SOCKADDR& AsSocketAddress(const Address& address)
{
    return reinterpret_cast<const SOCKADDR&>(address);
}

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
    explicit CResolver(std::vector<const SOCKADDR*> addresses)
        : m_get("ws2_32.dll", "GetAddrInfoW",
                [addresses](auto, PCWSTR, PCWSTR, const ADDRINFOW* hints, PADDRINFOW* results) -> INT
                {
                    EXPECT_EQ(hints->ai_family, AF_UNSPEC);
                    EXPECT_EQ(hints->ai_socktype, SOCK_STREAM);
                    EXPECT_EQ(hints->ai_protocol, IPPROTO_TCP);
                    *results = nullptr;
                    for (auto address = addresses.rbegin(); address != addresses.rend(); ++address)
                    {
                        auto* const entry = new ADDRINFOW{};
                        entry->ai_family = (*address)->sa_family;
                        entry->ai_addr = const_cast<SOCKADDR*>(*address);
                        entry->ai_next = *results;
                        *results = entry;
                    }
                    return 0;
                }),
          m_free("ws2_32.dll", "FreeAddrInfoW",
                 [freed = &freed](auto, PADDRINFOW list)
                 {
                     ++*freed;
                     while (list)
                         delete std::exchange(list, list->ai_next);
                 })
    {
    }
    int freed = 0;

private:
    CCallHook<decltype(&::GetAddrInfoW)> m_get;
    CCallHook<decltype(&::FreeAddrInfoW)> m_free;
};

TEST(IPAddress, FromTextKeepsTheAddressAndItsCanonicalText)
{
    struct SCase
    {
        const wchar_t* text;
        const wchar_t* canonical;
        bool isIPv6;
        std::array<BYTE, 2> first;
    };
    const SCase cases[] = { { L"192.0.2.1", L"192.0.2.1", false, { 192, 0 } },
                            { L"0.0.0.0", L"0.0.0.0", false, { 0, 0 } },
                            { L"2001:DB8:0:0::1", L"2001:db8::1", true, { 0x20, 0x01 } },
                            { L"[fe80::1]", L"fe80::1", true, { 0xFE, 0x80 } },
                            { L"::", L"::", true, { 0, 0 } } };
    for (const SCase& test : cases)
    {
        CVoIPAddress address = MakeUsed();
        ASSERT_EQ(address.InitFromIPAddress(test.text), S_OK) << test.text;
        EXPECT_TRUE(address.IsInitialised() && address.IsValid());
        EXPECT_EQ(address.IsIPv6(), test.isIPv6);
        EXPECT_EQ(address.Text(), test.canonical);
        const BYTE* const used = test.isIPv6 ? address.AddressV6().data() : address.AddressV4().data();
        EXPECT_EQ(used[0], test.first[0]);
        EXPECT_EQ(used[1], test.first[1]);
        EXPECT_TRUE(test.isIPv6 ? address.AddressV4() == (std::array<BYTE, 4>{})
                                : address.AddressV6() == (std::array<BYTE, 16>{}));
    }
}

TEST(IPAddress, TextThatIsNeitherFormIsReportedAndLeavesTheRecordCleared)
{
    using namespace std::string_literals;
    for (const std::wstring& text :
         { L""s, L"localhost"s, L"256.1.1.1"s, L"1.2.3"s, L"1.2.3.4 "s, L"1.2.3.4:80"s, L"[1.2.3.4]"s, L"[[::1]]"s, L"[::1"s,
           L"[]"s, L"::1::"s, L"12345::"s, L"1.2.3.4\0x"s, L"::1\0x"s })
    {
        CVoIPAddress address = MakeUsed();
        CLogCapture log;
        EXPECT_EQ(address.InitFromIPAddress(text), E_INVALIDARG) << text;
        EXPECT_TRUE(IsCleared(address));
        EXPECT_THAT(log.Lines(), ElementsAre(IsMessage(kSource, 218, testing::StartsWith(L"address:")),
                                             IsReport(kSource, 219, kFromIP, E_INVALIDARG)));
    }
}

TEST(IPAddress, FromASocketAddressOnlyTheTextIsTheAddress)
{
    const SOCKADDR_IN v4 = MakeIPv4(L"192.0.2.1", 8080);
    CVoIPAddress address = MakeUsed();
    bool taken = false;
    EXPECT_EQ(address.InitFromIPAddress(AsSocketAddress(v4), false, taken), S_OK);
    EXPECT_TRUE(taken && address.IsInitialised() && address.IsValid() && !address.IsIPv6());
    EXPECT_EQ(address.Text(), L"192.0.2.1");
    EXPECT_EQ(address.AddressV4(), (std::array<BYTE, 4>{ AF_INET, 0, 0x1F, 0x90 }));
    EXPECT_EQ(address.AddressV6(), (std::array<BYTE, 16>{}));

    SOCKADDR_IN6 v6 = MakeIPv6(L"2001:db8::1", 443);
    v6.sin6_flowinfo = 0x44332211;
    EXPECT_EQ(address.InitFromIPAddress(AsSocketAddress(v6), false, taken), S_OK);
    EXPECT_TRUE(taken && address.IsIPv6());
    EXPECT_EQ(address.Text(), L"2001:db8::1");
    EXPECT_EQ(address.AddressV6(),
              (std::array<BYTE, 16>{ AF_INET6, 0, 0x01, 0xBB, 0x11, 0x22, 0x33, 0x44, 0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0 }));
    EXPECT_EQ(address.AddressV4(), (std::array<BYTE, 4>{}));
}

TEST(IPAddress, SocketAddressOfAnotherFamilyIsRefused)
{
    const SOCKADDR unspecified{};
    for (const bool quiet : { true, false })
    {
        CVoIPAddress address = MakeUsed();
        bool taken = true;
        CLogCapture log;
        EXPECT_EQ(address.InitFromIPAddress(unspecified, quiet, taken), quiet ? S_OK : E_INVALIDARG);
        EXPECT_FALSE(taken);
        EXPECT_TRUE(IsCleared(address));
        if (quiet)
            EXPECT_THAT(log.Lines(), IsEmpty());
        else
            EXPECT_THAT(log.Lines(), ElementsAre(IsMessage(kSource, 158, testing::HasSubstr(L"0")),
                                                 IsReport(kSource, 159, kFromIP, E_INVALIDARG)));
    }
}

TEST(IPAddress, FromAHostNameIPv4ComesFirst)
{
    const SOCKADDR_IN6 v6 = MakeIPv6(L"2001:db8::1", 0);
    const SOCKADDR_IN v4a = MakeIPv4(L"192.0.2.1", 0);
    const SOCKADDR_IN v4b = MakeIPv4(L"192.0.2.2", 0);
    const SOCKADDR other{};
    const SOCKADDR *const p6 = &AsSocketAddress(v6), *const p4a = &AsSocketAddress(v4a), *const p4b = &AsSocketAddress(v4b);
    struct SCase
    {
        std::vector<const SOCKADDR*> resolved;
        const wchar_t* text; // null: nothing found
    };
    const SCase cases[] = { { { p6, p4a, p4b }, L"192.0.2.1" },
                            { { p4b, p6, p4a }, L"192.0.2.2" },
                            { { p6 }, L"2001:db8::1" },
                            { { &other, p6 }, L"2001:db8::1" },
                            { { &other }, nullptr } };
    for (const SCase& test : cases)
    {
        for (const bool quiet : { true, false })
        {
            CResolver resolver(test.resolved);
            CVoIPAddress address = MakeUsed();
            bool found = !test.text;
            CLogCapture log;
            EXPECT_EQ(address.InitFromDNSAddress(L"host.test", quiet, found), test.text || quiet ? S_OK : E_FAIL);
            EXPECT_EQ(resolver.freed, 1);
            EXPECT_EQ(found, test.text != nullptr);
            if (test.text)
                EXPECT_EQ(address.Text(), test.text);
            else
                EXPECT_TRUE(IsCleared(address));
            if (test.text || quiet)
                EXPECT_THAT(log.Lines(), IsEmpty());
            else
                EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 327, kFromDNS, E_FAIL)));
        }
    }
}

TEST(IPAddress, ThePlatformsResolverIsUsed)
{
    CVoIPAddress address;
    bool found = false;
    ASSERT_EQ(address.InitFromDNSAddress(L"localhost", false, found), S_OK);
    EXPECT_TRUE(found);
    EXPECT_TRUE(address.Text() == L"127.0.0.1" || address.Text() == L"::1") << address.Text();
}

TEST(IPAddress, ResolverFailureIsReportedWithTheHostName)
{
    struct SCase
    {
        DWORD lastError;
        int line;
        HRESULT result;
    };
    constexpr auto kNotFound = static_cast<HRESULT>(0x80072AF9);
    for (const SCase& test : { SCase{ WSAHOST_NOT_FOUND, 298, kNotFound }, SCase{ 0, 299, E_FAIL } })
    {
        for (const bool quiet : { false, true })
        {
            CFailOnCall<decltype(&::GetAddrInfoW)> fail("ws2_32.dll", "GetAddrInfoW", 1, WSAHOST_NOT_FOUND, test.lastError);
            CVoIPAddress address = MakeUsed();
            bool found = true;
            CLogCapture log;
            EXPECT_EQ(address.InitFromDNSAddress(L"host.test", quiet, found), quiet ? S_OK : test.result);
            EXPECT_FALSE(found);
            EXPECT_TRUE(IsCleared(address));
            if (quiet)
                EXPECT_THAT(log.Lines(), IsEmpty());
            else
                EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 296, kFromDNS, kNotFound),
                                                     IsMessage(kSource, 297, testing::Eq(L"address:host.test")),
                                                     IsReport(kSource, test.line, kFromDNS, test.result)));
        }
    }
}

TEST(IPAddress, ConversionFailureEndsTheTakingButNotTheSearch)
{
    const SOCKADDR_IN6 v6 = MakeIPv6(L"2001:db8::1", 0);
    const SOCKADDR_IN v4 = MakeIPv4(L"192.0.2.1", 0);
    for (const DWORD error : { DWORD{ WSAEAFNOSUPPORT }, DWORD{ 0 } })
    {
        const HRESULT code = error ? static_cast<HRESULT>(0x8007273F) : E_FAIL;
        const auto report = [&](bool isIPv6)
        { return IsReport(kSource, (isIPv6 ? 147 : 134) + (error ? 0 : 1), kFromIP, code); };
        for (const bool isIPv6 : { false, true })
        {
            for (const bool quiet : { false, true })
            {
                CFailOnCall<decltype(&::InetNtopW)> fail("ws2_32.dll", "InetNtopW", 1, nullptr, error);
                CVoIPAddress address;
                bool taken = true;
                CLogCapture log;
                EXPECT_EQ(address.InitFromIPAddress(isIPv6 ? AsSocketAddress(v6) : AsSocketAddress(v4), quiet, taken),
                          quiet ? S_OK : code);
                EXPECT_FALSE(taken);
                EXPECT_TRUE(IsCleared(address));
                if (quiet)
                    EXPECT_THAT(log.Lines(), IsEmpty());
                else
                    EXPECT_THAT(log.Lines(), ElementsAre(report(isIPv6)));
            }
        }
        CResolver resolver({ &AsSocketAddress(v6), &AsSocketAddress(v4) });
        CFailOnCall<decltype(&::InetNtopW)> fail("ws2_32.dll", "InetNtopW", 1, nullptr, error);
        CVoIPAddress address;
        bool found = false;
        CLogCapture log;
        EXPECT_EQ(address.InitFromDNSAddress(L"host.test", false, found), S_OK);
        EXPECT_TRUE(found);
        EXPECT_EQ(address.Text(), L"2001:db8::1");
        EXPECT_THAT(log.Lines(), ElementsAre(report(false), IsReport(kSource, 310, kFromDNS, code)));
    }
}

TEST(IPAddress, TextConversionFailuresAreReportedAtTheirOwnPoints)
{
    for (const DWORD error : { DWORD{ WSAEFAULT }, DWORD{ 0 } })
    {
        const HRESULT code = error ? static_cast<HRESULT>(0x8007271E) : E_FAIL;
        for (const int call : { 1, 2 })
        {
            CFailOnCall<decltype(&::InetPtonW)> fail("ws2_32.dll", "InetPtonW", call, -1, error);
            CVoIPAddress address;
            CLogCapture log;
            EXPECT_EQ(address.InitFromIPAddress(L"::1"), code);
            EXPECT_TRUE(IsCleared(address));
            const int line = (call == 1 ? 202 : 213) + (error ? 0 : 1);
            EXPECT_THAT(log.Lines(), ElementsAre(IsMessage(kSource, call == 1 ? 201 : 212, testing::Eq(L"address:::1")),
                                                 IsReport(kSource, line, kFromIP, code)));
        }
    }
}

TEST(IPAddress, EveryFailureOfThePlatformIsHandled)
{
    const SOCKADDR_IN v4 = MakeIPv4(L"192.0.2.1", 0);
    CResolver resolver({ &AsSocketAddress(v4) });
    CAcquireBalance lists = CAcquireBalance::Of<decltype(&::GetAddrInfoW), decltype(&::FreeAddrInfoW)>(
        "ws2_32.dll", "GetAddrInfoW", "FreeAddrInfoW", ESuccess::Zero);
    CLogCapture log;
    ExpectEveryFailureIsHandled(
        { VO_FAULT("ws2_32.dll", GetAddrInfoW, WSATRY_AGAIN, WSATRY_AGAIN),
          VO_FAULT_GIVES("ws2_32.dll", InetNtopW, nullptr, WSAEAFNOSUPPORT, E_FAIL) },
        []
        {
            CVoIPAddress address = CVoIPAddress();
            bool found = false;
            const HRESULT hr = address.InitFromDNSAddress(L"host.test", false, found);
            EXPECT_EQ(found, SUCCEEDED(hr));
            EXPECT_EQ(IsCleared(address), FAILED(hr));
            return hr;
        },
        [&](HRESULT code)
        {
            const auto lines = log.Lines();
            log.Clear();
            return !lines.empty() && lines.back().code == code;
        },
        { &lists });
}

TEST(IPAddress, PrivateTestReadsTheStoredBytes)
{
    struct SCase
    {
        const wchar_t* text;
        bool isPrivate;
    };
    const SCase cases[] = { { L"10.0.0.1", true },     { L"9.255.255.255", false }, { L"11.0.0.0", false },
                            { L"172.15.0.1", false },  { L"172.16.0.0", true },     { L"172.31.255.255", true },
                            { L"172.32.0.0", false },  { L"192.168.0.1", true },    { L"192.167.0.1", false },
                            { L"192.169.0.1", false }, { L"169.254.1.1", true },    { L"169.253.1.1", false },
                            { L"127.0.0.1", false },   { L"fc00::1", true },        { L"fdff::1", true },
                            { L"fbff::1", false },     { L"fe00::1", false },       { L"fe7f::1", false },
                            { L"fe80::1", true },      { L"febf::1", true },        { L"fec0::1", true },
                            { L"feff::1", true },      { L"ff02::1", false },       { L"::1", false },
                            { L"2001:db8::1", false }, { L"a00::1", false } };
    for (const SCase& test : cases)
    {
        CVoIPAddress address;
        ASSERT_EQ(address.InitFromIPAddress(test.text), S_OK);
        EXPECT_EQ(address.IsPrivateAddress(), test.isPrivate) << test.text;
    }
    EXPECT_FALSE(CVoIPAddress().IsPrivateAddress());

    // From a socket address these bytes are the family's, whatever the address is.
    const SOCKADDR_IN privateV4 = MakeIPv4(L"10.0.0.1", 0);
    CVoIPAddress address;
    bool taken = false;
    ASSERT_EQ(address.InitFromIPAddress(AsSocketAddress(privateV4), false, taken), S_OK);
    EXPECT_FALSE(address.IsPrivateAddress());
}
} // namespace
