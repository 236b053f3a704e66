// RSA keys for tests.
#pragma once

#include <win/OrvDigSign.h>

#include <gtest/gtest.h>

#include <utility>

namespace TestSupport
{
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
