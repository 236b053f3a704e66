// RSA keys for tests.
#pragma once

#include <win/OrvDigSign.h>

#include <gtest/gtest.h>

#include <utility>

namespace TestSupport
{
// A 1024-bit key, with which an independent implementation (openssl) has made signatures.
constexpr const wchar_t* kKnownPublicKey =
    L"0602000000240000525341310004000001000100B98B2D6A83D7CBB880F26DDB0785FF230ECE46B23161CFCE44A48D2FCA6E906F3F7EFBD5614E"
    L"78F71B1BF3F9F4B9D9B34D49711400982C58CB6AF743A375EEF60E258829CE862AE0EECC31513585A0C5071B782B441AF3F28E670EA58666B67C"
    L"ACA576B3AB7F8B5D496A2B26051AB48588920139671270880C29D446180A4BAA";

struct SKeyPair
{
    explicit SKeyPair(UINT32 bits = 1024) { EXPECT_EQ(OrvDigSign::COrvRSAKey::Generate(bits, privateKey, publicKey), S_OK); }
    std::wstring privateKey;
    std::wstring publicKey;
};

// Two different pairs of one length, so that what the first has signed can be checked with the second's key. The second's
// modulus is the larger one: for a signature that is a larger number than the key's modulus, Wine 8 answers a failure
// (NTE_FAIL), while Windows says that it does not match.
inline std::pair<SKeyPair, SKeyPair> MakeTwoKeyPairs(UINT32 bits = 1024)
{
    std::pair<SKeyPair, SKeyPair> pairs{ bits, bits };
    const std::wstring& first = pairs.first.publicKey;
    const std::wstring& second = pairs.second.publicKey;
    EXPECT_EQ(first.size(), second.size());
    // The modulus ends the blob, its most significant byte last.
    size_t digits = first.size();
    do
        digits -= 2;
    while (digits > 0 && first.compare(digits, 2, second, digits, 2) == 0);
    if (first.compare(digits, 2, second, digits, 2) > 0)
        std::swap(pairs.first, pairs.second);
    return pairs;
}
} // namespace TestSupport
