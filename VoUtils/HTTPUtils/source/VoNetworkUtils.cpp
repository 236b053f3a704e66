// Makes IP addresses from host names, texts and socket addresses (VoNetworkUtils.h).
#include <VoNetworkUtils.h>

#include <base/VoErrorHandler.h>

#include <atomic>
#include <cstring>
#include <memory>

namespace VoNetworkUtils
{
namespace
{
constexpr const wchar_t* kNetworkUtilsSource = L"..\\source\\VoNetworkUtils";
constexpr const wchar_t* kInitFromIPAddress = L"VoNetworkUtils::CVoIPAddress::InitFromIPAddress";

constexpr size_t kTextLength = 64; // more than INET6_ADDRSTRLEN

struct SAddressListDeleter
{
    void operator()(ADDRINFOW* list) const noexcept { ::FreeAddrInfoW(list); }
};
using CAddressList = std::unique_ptr<ADDRINFOW, SAddressListDeleter>;

std::wstring WithoutBrackets(const std::wstring& text)
{
    const bool isBracketed = text.size() >= 2 && text.front() == L'[' && text.back() == L']';
    return isBracketed ? text.substr(1, text.size() - 2) : text;
}

// The platform's text functions stop at a null character, so text with one inside is no address.
bool HasNull(const std::wstring& text) noexcept
{
    return text.find(L'\0') != std::wstring::npos;
}
} // namespace

int StartSockets() noexcept
{
    static std::atomic<bool> s_isStarted{ false };
    if (s_isStarted.load())
        return 0;
    WSADATA data{};
    const int error = ::WSAStartup(MAKEWORD(2, 2), &data);
    if (error == 0)
        s_isStarted.store(true);
    return error;
}

void CVoIPAddress::SetValid(bool isIPv6) noexcept
{
    m_isIPv6 = isIPv6;
    m_initialised = true;
    m_valid = true;
}

HRESULT CVoIPAddress::InitFromIPAddress(const SOCKADDR& socketAddress, bool quiet, bool& taken) noexcept
{
    constexpr CVoReporter report{ kNetworkUtilsSource, kInitFromIPAddress };
    Clear();
    taken = false;
    return report.Guard(170, [&]() -> HRESULT
    {
        wchar_t text[kTextLength];
        if (socketAddress.sa_family == AF_INET)
        {
            const auto* const address = &reinterpret_cast<const SOCKADDR_IN*>(&socketAddress)->sin_addr;
            if (!::InetNtopW(AF_INET, address, text, kTextLength))
                return quiet ? S_OK : report.LastError(134, 135);
            m_text = text;
            // Intended: the bytes from the start of the structure, not from its address (see the header).
            std::memcpy(m_addressV4.data(), &socketAddress, m_addressV4.size());
            SetValid(false);
        }
        else if (socketAddress.sa_family == AF_INET6)
        {
            const auto* const address = &reinterpret_cast<const SOCKADDR_IN6*>(&socketAddress)->sin6_addr;
            if (!::InetNtopW(AF_INET6, address, text, kTextLength))
                return quiet ? S_OK : report.LastError(147, 148);
            m_text = text;
            // Intended, as above.
            std::memcpy(m_addressV6.data(), &socketAddress, m_addressV6.size());
            SetValid(true);
        }
        else
        {
            if (quiet)
                return S_OK;
            report(158, static_cast<HRESULT>(socketAddress.sa_family)); // the report's code is the family
            return report(159, E_INVALIDARG);
        }
        taken = true;
        return S_OK;
    });
}

// The text is a copy: the caller may pass the record's own text, and the record is cleared first.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
HRESULT CVoIPAddress::InitFromIPAddress(std::wstring addressText) noexcept
{
    constexpr CVoReporter report{ kNetworkUtilsSource, kInitFromIPAddress };
    Clear();
    return report.Guard(234, [&]() -> HRESULT
    {
        // InetPtonW gives 0 for a text of the other family: no failure.
        const std::wstring bare = WithoutBrackets(addressText);
        const bool mayBeIPv4 = bare.size() == addressText.size();
        int answer = 0;
        CVoIPAddress address;
        if (mayBeIPv4 && !HasNull(bare))
            answer = ::InetPtonW(AF_INET, bare.c_str(), address.m_addressV4.data());
        if (answer < 0)
        {
            const int error = ::WSAGetLastError();
            report.Message(201, L"address:%ls", addressText.c_str());
            return report.Win32(202, 203, static_cast<DWORD>(error));
        }
        const bool isIPv6 = answer == 0;
        if (isIPv6)
        {
            if (!HasNull(bare))
                answer = ::InetPtonW(AF_INET6, bare.c_str(), address.m_addressV6.data());
            if (answer < 0)
            {
                const int error = ::WSAGetLastError();
                report.Message(212, L"address:%ls", addressText.c_str());
                return report.Win32(213, 214, static_cast<DWORD>(error));
            }
            if (answer == 0)
            {
                report.Message(218, L"address:%ls", addressText.c_str());
                return report(219, E_INVALIDARG);
            }
        }
        // Text() has the platform's own form.
        wchar_t text[kTextLength];
        const BYTE* const bytes = isIPv6 ? address.m_addressV6.data() : address.m_addressV4.data();
        if (!::InetNtopW(isIPv6 ? AF_INET6 : AF_INET, bytes, text, kTextLength))
            return report.LastError(225, 226);
        address.m_text = text;
        address.SetValid(isIPv6);
        *this = std::move(address);
        return S_OK;
    });
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): a copy, as above
HRESULT CVoIPAddress::InitFromDNSAddress(std::wstring hostName, bool quiet, bool& found) noexcept
{
    constexpr CVoReporter report{ kNetworkUtilsSource, L"VoNetworkUtils::CVoIPAddress::InitFromDNSAddress" };
    Clear();
    found = false;
    if (HasNull(hostName))
        return quiet ? S_OK : report(282, E_INVALIDARG);
    if (const int error = StartSockets(); error != 0)
        return quiet ? S_OK : report.Win32(284, 285, static_cast<DWORD>(error));

    ADDRINFOW hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    ADDRINFOW* results = nullptr;
    if (const int error = ::GetAddrInfoW(hostName.c_str(), nullptr, &hints, &results); error != 0)
    {
        const auto lastError = static_cast<DWORD>(::WSAGetLastError());
        if (quiet)
            return S_OK;
        report(296, HResultFromWin32(static_cast<DWORD>(error)));
        report.Message(297, L"address:%ls", hostName.c_str());
        return report.Win32(298, 299, lastError);
    }
    const CAddressList list(results);
    for (const int family : { AF_INET, AF_INET6 })
    {
        for (const ADDRINFOW* result = list.get(); result; result = result->ai_next)
        {
            if (result->ai_family != family)
                continue;
            bool taken = false;
            if (const HRESULT hr = InitFromIPAddress(*result->ai_addr, quiet, taken); FAILED(hr))
                report(310, hr);
            if (m_initialised && m_valid)
            {
                found = true;
                return S_OK;
            }
        }
    }
    return quiet ? S_OK : report(327, E_FAIL);
}

bool CVoIPAddress::IsPrivateAddress() const noexcept
{
    if (!m_valid)
        return false;
    if (m_isIPv6)
    {
        const BYTE first = m_addressV6[0];
        const int second = m_addressV6[1] & 0xC0;
        return (first & 0xFE) == 0xFC || (first == 0xFE && (second == 0xC0 || second == 0x80));
    }
    const BYTE first = m_addressV4[0];
    const BYTE second = m_addressV4[1];
    return first == 10 || (first == 172 && (second & 0xF0) == 16) || (first == 192 && second == 168) ||
           (first == 169 && second == 254);
}
} // namespace VoNetworkUtils
