// Addresses of the network's two ends.
#pragma once

#include <base/VoPlatform.h>

#include <array>
#include <string>

namespace VoNetworkUtils
{
// One IPv4 or IPv6 address with its text. A value: copies are independent; one object is not for several threads at once.
//
// Every Init... first clears the record and fills it on success only. Text() is always the address. The bytes are the address
// only in a record made from text: one made from a socket address (so from a host name too) keeps the first bytes of the
// socket address structure, that is family and port and, for IPv6, the flow information and half of the address. Callers
// compare and classify records by those bytes, so this is intended and must stay. To classify the address itself, make a second
// record from the text:
//
//     CVoIPAddress resolved, address;
//     resolved.InitFromDNSAddress(host, false, found);
//     address.InitFromIPAddress(resolved.Text());
//     address.IsPrivateAddress();
class CVoIPAddress
{
public:
    // Resolves a host name; the first IPv4 address is preferred to the first IPv6 address. Blocks while the resolver works, and
    // starts Windows Sockets for the process at the first use. When nothing was found: the resolver's error as an HRESULT, or
    // E_FAIL, reported; with `quiet`, S_OK with `found` false and no report.
    [[nodiscard]] HRESULT InitFromDNSAddress(std::wstring hostName, bool quiet, bool& found) noexcept;
    // Takes an address's text; an IPv6 address may stand in brackets, as in URLs. E_INVALIDARG for text that is neither form.
    [[nodiscard]] HRESULT InitFromIPAddress(std::wstring addressText) noexcept;
    // Takes the address of a SOCKADDR_IN or SOCKADDR_IN6, which its family tells. E_INVALIDARG for any other family. With
    // `quiet` failures give S_OK with `taken` false and no report.
    [[nodiscard]] HRESULT InitFromIPAddress(const SOCKADDR& socketAddress, bool quiet, bool& taken) noexcept;

    // Both are set together, when an address has been taken.
    [[nodiscard]] bool IsInitialised() const noexcept { return m_initialised; }
    [[nodiscard]] bool IsValid() const noexcept { return m_valid; }
    [[nodiscard]] bool IsIPv6() const noexcept { return m_isIPv6; }
    // The stored bytes (see above); zero for the family that the address is not of.
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
