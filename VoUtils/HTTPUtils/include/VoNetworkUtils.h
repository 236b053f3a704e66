// IP addresses from host names, texts and socket addresses. The transports report the client's and the server's address with
// it, and the connection doctor starts Windows Sockets with it.
#pragma once

#include <base/VoPlatform.h>

#include <array>
#include <string>

namespace VoNetworkUtils
{
// Starts Windows Sockets once, for the life of the process. Any thread: two threads at the same time may start it twice, and
// the platform counts the starts. Gives 0 or the platform's error; after an error the next call tries again.
[[nodiscard]] int StartSockets() noexcept;

// One IPv4 or IPv6 address with its text. Copies are independent. One object must not be used by several threads at once.
//
// Every Init... clears the record first and fills it on success only. Text() is always the address. The bytes are the address
// only in a record made from text. A record made from a socket address, and so one made from a host name, keeps the first bytes
// of the socket address structure: family and port and, for IPv6, the flow information and half of the address. Intended:
// callers compare and classify records by those bytes. To classify the address itself, make a second record from the text:
//
//     CVoIPAddress resolved, address;
//     resolved.InitFromDNSAddress(host, false, found);
//     address.InitFromIPAddress(resolved.Text());
//     address.IsPrivateAddress();
class CVoIPAddress
{
public:
    // Resolves a host name and takes the first IPv4 address, else the first IPv6 address. Blocks while the resolver works. The
    // first use starts Windows Sockets for the process. When there is no address: the resolver's error as an HRESULT, or
    // E_FAIL, reported; with `quiet`, S_OK with `found` false and no report.
    [[nodiscard]] HRESULT InitFromDNSAddress(std::wstring hostName, bool quiet, bool& found) noexcept;
    // Reads the text of an address. An IPv6 address may stand in brackets, as in URLs. E_INVALIDARG for text of neither family.
    [[nodiscard]] HRESULT InitFromIPAddress(std::wstring addressText) noexcept;
    // Takes the address of a SOCKADDR_IN or a SOCKADDR_IN6, by its family. E_INVALIDARG for any other family. With `quiet`, a
    // failure gives S_OK with `taken` false and no report.
    [[nodiscard]] HRESULT InitFromIPAddress(const SOCKADDR& socketAddress, bool quiet, bool& taken) noexcept;

    // Both become true together, when the record has an address.
    [[nodiscard]] bool IsInitialised() const noexcept { return m_initialised; }
    [[nodiscard]] bool IsValid() const noexcept { return m_valid; }
    [[nodiscard]] bool IsIPv6() const noexcept { return m_isIPv6; }
    // The stored bytes (see above); zero for the other family.
    [[nodiscard]] const std::array<BYTE, 4>& AddressV4() const noexcept { return m_addressV4; }
    [[nodiscard]] const std::array<BYTE, 16>& AddressV6() const noexcept { return m_addressV6; }
    // Without brackets; empty when there is no address.
    [[nodiscard]] const std::wstring& Text() const noexcept { return m_text; }

    // Whether the stored bytes (see above) are those of a private or link-local address: 10/8, 172.16/12, 192.168/16 (RFC
    // 1918), 169.254/16 (RFC 3927), fc00::/7 (RFC 4193), fe80::/10 and fec0::/10 (RFC 4291). False when there is no address.
    [[nodiscard]] bool IsPrivateAddress() const noexcept;

private:
    void Clear() noexcept { *this = CVoIPAddress(); }
    void SetValid(bool isIPv6) noexcept;

    bool m_initialised = false;
    bool m_valid = false;
    bool m_isIPv6 = false;
    std::array<BYTE, 4> m_addressV4{};
    std::array<BYTE, 16> m_addressV6{};
    std::wstring m_text;
};
} // namespace VoNetworkUtils
