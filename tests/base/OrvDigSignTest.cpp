// Tests of hashes, keys and signatures.
#include <win/OrvDigSign.h>

#include <base/VoCArray.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>

#include "support/ImportHook.h"
#include "support/KeyPairs.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <span>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using namespace TestSupport;
using namespace OrvDigSign;

namespace
{
// The PKCS #1 v1.5 signature of kMessage that an independent implementation (openssl) made with the known key, least
// significant byte first.
constexpr std::string_view kMessage = "VoUtils known answer";
constexpr const wchar_t* kSignatureSHA256 =
    L"9C2AD0A96DE80E485ECC8161D31F1B9B1CCCE8BEB39E3EDB2EA7597CCD4AFE786E33018E0343DD12ACB23A12761DD0076450B48268DB6D35993B"
    L"2F8BC687D133C80C9298A1E7217E43CCD21383FF5E005AFA88272F70E20894D69CBCDA52DD399E84EEA280173513E4826DB2269274141D4C4F24"
    L"1E94EAE6BC9D594EBA681E3F";

const BYTE* Bytes(std::string_view text)
{
    return reinterpret_cast<const BYTE*>(text.data());
}

UINT32 Length(std::string_view text)
{
    return static_cast<UINT32>(text.size());
}

std::wstring Hex(const CVoByteBuffer& buffer)
{
    std::wstring text;
    VoDataConversion::BinToHex(buffer.Data(), static_cast<INT32>(buffer.Length()), text, 0);
    return text;
}

std::vector<BYTE> FromHex(std::wstring_view text)
{
    CVoByteBuffer buffer;
    EXPECT_EQ(VoDataConversion::HexToBin(text, buffer.PutBytes(), buffer.PutLength()), S_OK);
    return { buffer.Data(), buffer.Data() + buffer.Length() };
}

HRESULT Sign(std::wstring_view key, COrvHashBase& hash, std::string_view data, CVoByteBuffer& signature)
{
    return COrvDigitalSignature::SignString(Bytes(data), Length(data), hash, key, signature.PutBytes(), signature.PutLength());
}

HRESULT Verify(std::wstring_view key, COrvHashBase& hash, std::string_view data, const std::vector<BYTE>& signature,
               bool& result)
{
    return COrvDigitalSignature::VerifyString(Bytes(data), Length(data), hash, signature.data(),
                                              static_cast<UINT32>(signature.size()), key, result);
}

TEST(DigSign, HashesEqualThePublishedValues)
{
    // FIPS 180-2 and RFC 1321 vectors.
    const std::tuple<std::unique_ptr<COrvHashBase>, std::string_view, const wchar_t*> cases[] = {
        { std::make_unique<COrvMD5Hash>(), "", L"D41D8CD98F00B204E9800998ECF8427E" },
        { CreateHashByName(L"sha1"), "abc", L"A9993E364706816ABA3E25717850C26C9CD0D89D" },
        { CreateHashByName(L"sha512"), "abc",
          L"DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A2192992A274FC1A836BA3C23A3FEEBBD454D4423643CE80E2A9"
          L"AC94FA54CA49F" },
        { CreateHashByName(DefaultHashName()), "", L"E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855" },
    };
    for (const auto& [hash, data, expected] : cases)
    {
        CVoByteBuffer value;
        UINT32 length = 0;
        ASSERT_EQ(HashBytes(*hash, Bytes(data), Length(data), value.PutBytes(), value.PutLength()), S_OK);
        EXPECT_EQ(Hex(value), expected);
        EXPECT_EQ(HashBytes(*hash, nullptr, 0, nullptr, &length), S_OK);
        EXPECT_EQ(length, value.Length());
    }
    for (const wchar_t* name : { L"SHA256", L"sha-256", L"md5", L"" })
        EXPECT_EQ(CreateHashByName(name), nullptr) << name;
}

TEST(DigSign, SignaturesEqualThoseOfAnIndependentImplementation)
{
    COrvSHA256Hash hash;
    CVoByteBuffer signature;
    ASSERT_EQ(Sign(kKnownPrivateKey, hash, kMessage, signature), S_OK);
    EXPECT_EQ(Hex(signature), kSignatureSHA256);
    bool valid = false;
    EXPECT_EQ(Verify(kKnownPublicKey, hash, kMessage, FromHex(kSignatureSHA256), valid), S_OK);
    EXPECT_TRUE(valid);
}

TEST(DigSign, AWrongOrImpossibleSignatureIsNotValidAndNoError)
{
    const std::vector<BYTE> good = FromHex(kSignatureSHA256);
    std::vector<BYTE> flipped = good;
    flipped[17] ^= 0x20;
    std::vector<BYTE> longer = good;
    longer.push_back(0);
    const std::vector<BYTE> modulus = FromHex(std::wstring(kKnownPublicKey).substr(40));
    const std::tuple<std::wstring, std::string_view, const wchar_t*, std::vector<BYTE>> cases[] = {
        { kKnownPublicKey, kMessage, L"sha256", { good.rbegin(), good.rend() } },
        { kKnownPublicKey, kMessage, L"sha256", { good.begin(), good.end() - 1 } },
        { kKnownPublicKey, kMessage, L"sha256", flipped },
        { kKnownPublicKey, kMessage, L"sha256", longer },
        { kKnownPublicKey, kMessage, L"sha256", {} },
        { kKnownPublicKey, "VoUtils known answes", L"sha256", good },
        { kKnownPublicKey, kMessage, L"sha1", good },
        { kOtherPublicKey, kMessage, L"sha256", good },
        { kKnownPublicKey, kMessage, L"sha256", std::vector<BYTE>(good.size(), 0xFF) },
        { kKnownPublicKey, kMessage, L"sha256", modulus },
    };
    CLogCapture log;
    // Providers disagree about another length, so that none may be asked.
    const auto watch = [&](auto original, HCRYPTHASH hash, const BYTE* signature, DWORD length, auto... more)
    {
        EXPECT_EQ(length, good.size());
        return original(hash, signature, length, more...);
    };
    const CCallHook<decltype(&::CryptVerifySignatureW)> hook("advapi32.dll", "CryptVerifySignatureW", watch);
    for (const auto& [key, data, hash, signature] : cases)
    {
        bool valid = true;
        EXPECT_EQ(Verify(key, *CreateHashByName(hash), data, signature, valid), S_OK);
        EXPECT_FALSE(valid);
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(DigSign, UnusableKeysAreRefusedAndReportedUpTheChainWithoutTheKey)
{
    std::wstring wrongMagic = kKnownPrivateKey;
    wrongMagic[17] = L'3';
    const std::wstring key = kKnownPrivateKey;
    for (const std::wstring& bad : { key.substr(0, 801), std::wstring(), key.substr(0, 800), wrongMagic })
    {
        CLogCapture log;
        COrvSHA256Hash hash;
        bool valid = true;
        const HRESULT hr = Verify(bad, hash, kMessage, FromHex(kSignatureSHA256), valid);
        EXPECT_TRUE(bad.size() % 2 == 1 ? hr == E_INVALIDARG : FAILED(hr));
        EXPECT_FALSE(valid);
        auto lines = log.Lines();
        std::erase_if(lines, [](const CLogLine& line) { return !line.source.ends_with(L"\\win\\digsign\\OrvDigSign"); });
        EXPECT_THAT(lines, ElementsAre(IsReportBy(L"OrvDigSign::COrvRSAKey::ImportKey", hr),
                                       IsReportBy(L"OrvDigSign::COrvRSAKey::ImportKeyForVerifying", hr),
                                       IsReportBy(L"OrvDigSign::COrvDigitalSignature::VerifyString", hr)));
        CVoByteBuffer signature;
        EXPECT_LT(Sign(bad, hash, kMessage, signature), 0);
        EXPECT_EQ(signature.Data(), nullptr);
        ExpectNotLogged(log, key.substr(300, 16)); // a part of the private key
    }
    // A blob shorter than its own header says is refused before the platform sees it.
    {
        const CFailOnCall<decltype(&::CryptImportKey)> imports("advapi32.dll", "CryptImportKey", 0, FALSE, 0);
        COrvSHA256Hash hash;
        bool valid = true;
        CVoByteBuffer signature;
        for (const std::wstring& bad : { key.substr(0, key.size() - 2), std::wstring(kKnownPublicKey).substr(0, 294) })
        {
            EXPECT_EQ(Verify(bad, hash, kMessage, FromHex(kSignatureSHA256), valid), NTE_BAD_DATA);
            EXPECT_EQ(Sign(bad, hash, kMessage, signature), NTE_BAD_DATA);
        }
        EXPECT_EQ(imports.Calls(), 0);
    }
    // A public key signs nothing.
    COrvSHA256Hash hash;
    CVoByteBuffer signature;
    EXPECT_LT(Sign(kKnownPublicKey, hash, kMessage, signature), 0);
}

TEST(DigSign, KeyPairsBelongTogether)
{
    std::wstring privateKey;
    std::wstring publicKey;
    std::wstring derived;
    ASSERT_EQ(COrvRSAKey::Generate(512, privateKey, publicKey), S_OK);
    EXPECT_EQ(publicKey.size(), 2 * (20 + 512 / 8));
    EXPECT_EQ(COrvRSAKey::GetPublicKeyFromPrivate(privateKey, derived), S_OK);
    EXPECT_EQ(derived, publicKey);
    EXPECT_EQ(COrvRSAKey::GetPublicKeyFromPrivate(kKnownPublicKey, derived), E_INVALIDARG);
    EXPECT_EQ(derived, publicKey);
    for (const UINT32 bits : { 376U, 1025U, 16392U, 0x10000400U })
        EXPECT_EQ(COrvRSAKey::Generate(bits, privateKey, publicKey), E_INVALIDARG) << bits;
}

TEST(DigSign, TheProviderIsTheDocumentedOneAndDoneWithoutItSucceeds)
{
    std::wstring seen;
    const auto watch = [&](auto original, auto* handle, LPCWSTR container, LPCWSTR provider, DWORD type, DWORD flags)
    {
        seen = VoFormat(L"%d %ls %lu %lX", container != nullptr, provider, type, flags);
        return original(handle, container, provider, type, flags);
    };
    CCallHook<decltype(&::CryptAcquireContextW)> hook("advapi32.dll", "CryptAcquireContextW", watch);
    COrvRSAKey key;
    EXPECT_EQ(key.Done(), S_OK);
    EXPECT_EQ(key.Init(), S_OK);
    EXPECT_EQ(seen, L"0 Microsoft Enhanced RSA and AES Cryptographic Provider 24 F0000048");
}

TEST(DigSign, TheDecodedKeyIsWipedBeforeItsMemoryIsReleased)
{
    std::span<const BYTE> blob;
    bool wasWiped = false;
    const auto watchImport = [&](auto original, auto provider, auto* data, auto length, auto... more)
    {
        blob = { data, length };
        return original(provider, data, length, more...);
    };
    const auto watchFree = [&](auto original, void* memory)
    {
        // The blob stands somewhere in the memory.
        const auto offset = reinterpret_cast<UINT_PTR>(blob.data()) - reinterpret_cast<UINT_PTR>(memory);
        if (memory && !blob.empty() && offset < ::_msize(memory))
            wasWiped = std::all_of(blob.begin(), blob.end(), [](BYTE value) { return value == 0; });
        original(memory);
    };
    CCallHook<decltype(&::CryptImportKey)> import("advapi32.dll", "CryptImportKey", watchImport);
    CCallHook<void(WINAPI*)(void*)> release("msvcrt.dll", "free", watchFree);
    COrvRSAKey key;
    ASSERT_EQ(key.Init(), S_OK);
    ASSERT_EQ(key.ImportKeyForSigning(kKnownPrivateKey), S_OK);
    EXPECT_EQ(blob.size(), 596U);
    EXPECT_TRUE(wasWiped);
}

TEST(DigSign, EveryFailureOfCryptoAPIIsHandled)
{
    const std::vector<CFault> faults{
        VO_FAULT("advapi32.dll", CryptAcquireContextW, FALSE, static_cast<DWORD>(NTE_PROV_TYPE_NOT_DEF)),
        VO_FAULT_AFTER_CALL("advapi32.dll", CryptReleaseContext, FALSE, ERROR_BUSY),
        VO_FAULT("advapi32.dll", CryptGenKey, FALSE, static_cast<DWORD>(NTE_FAIL)),
        VO_FAULT("advapi32.dll", CryptExportKey, FALSE, static_cast<DWORD>(NTE_BAD_KEY_STATE)),
        VO_FAULT("advapi32.dll", CryptImportKey, FALSE, static_cast<DWORD>(NTE_BAD_DATA)),
        VO_FAULT("advapi32.dll", CryptGetUserKey, FALSE, static_cast<DWORD>(NTE_BAD_UID)),
        VO_FAULT_AFTER_CALL("advapi32.dll", CryptDestroyKey, FALSE, ERROR_BUSY),
        VO_FAULT("advapi32.dll", CryptCreateHash, FALSE, static_cast<DWORD>(NTE_BAD_ALGID)),
        VO_FAULT("advapi32.dll", CryptHashData, FALSE, ERROR_NOT_ENOUGH_MEMORY),
        VO_FAULT("advapi32.dll", CryptGetHashParam, FALSE, static_cast<DWORD>(NTE_BAD_HASH)),
        VO_FAULT("advapi32.dll", CryptSignHashW, FALSE, static_cast<DWORD>(NTE_NO_KEY)),
        VO_FAULT_GIVES("advapi32.dll", CryptSignHashW, FALSE, ERROR_SUCCESS, E_FAIL),
    };
    CAcquireBalance providers = CAcquireBalance::Of<decltype(&::CryptAcquireContextW), decltype(&::CryptReleaseContext)>(
        "advapi32.dll", "CryptAcquireContextW", "CryptReleaseContext");
    CAcquireBalance hashes = CAcquireBalance::Of<decltype(&::CryptCreateHash), decltype(&::CryptDestroyHash)>(
        "advapi32.dll", "CryptCreateHash", "CryptDestroyHash");
    CAcquireBalance keys = CAcquireBalance::Of<decltype(&::CryptImportKey), decltype(&::CryptDestroyKey)>(
        "advapi32.dll", "CryptImportKey", "CryptDestroyKey");
    keys.AlsoAcquiredBy<decltype(&::CryptGenKey)>("advapi32.dll", "CryptGenKey");
    keys.AlsoAcquiredBy<decltype(&::CryptGetUserKey)>("advapi32.dll", "CryptGetUserKey");
    CLogCapture log;
    // The whole chain has the same code.
    const auto wasReported = [&log](HRESULT code)
    {
        const auto lines = log.Lines();
        log.Clear();
        return !lines.empty() && std::ranges::all_of(lines, [&](const CLogLine& line) { return line.code == code; });
    };
    COrvSHA256Hash hash;
    const std::vector<BYTE> good = FromHex(kSignatureSHA256);
    // Nothing is handed out by what fails.
    const auto run = [&]
    {
        std::wstring privateKey = L"private";
        std::wstring publicKey = L"public";
        CVoByteBuffer signature;
        bool valid = true;
        CVoByteBuffer value;
        HRESULT hr = COrvRSAKey::Generate(512, privateKey, publicKey);
        EXPECT_EQ(privateKey == L"private" && publicKey == L"public", FAILED(hr));
        if (SUCCEEDED(hr))
        {
            hr = Sign(kKnownPrivateKey, hash, kMessage, signature);
            EXPECT_EQ(signature.IsEmpty(), FAILED(hr));
        }
        if (SUCCEEDED(hr))
        {
            hr = Verify(kKnownPublicKey, hash, kMessage, good, valid);
            EXPECT_EQ(valid, SUCCEEDED(hr));
        }
        if (SUCCEEDED(hr))
        {
            hr = HashBytes(hash, Bytes(kMessage), Length(kMessage), value.PutBytes(), value.PutLength());
            EXPECT_EQ(value.IsEmpty(), FAILED(hr));
        }
        EXPECT_EQ(hash.Handle(), HCRYPTHASH{ 0 }) << "The handle must not outlive its provider";
        return hr;
    };
    ExpectEveryFailureIsHandled(faults, run, wasReported, { &providers, &hashes, &keys });

    // What the platform says of a signature that does not match is no failure.
    for (const auto& [error, result] : { std::pair(static_cast<DWORD>(NTE_BAD_SIGNATURE), S_OK),
                                         { ERROR_INVALID_PARAMETER, S_OK },
                                         { ERROR_NOT_ENOUGH_MEMORY, kResultNotEnoughMemory },
                                         { ERROR_SUCCESS, E_FAIL } })
    {
        log.Clear();
        CFailOnCall<decltype(&::CryptVerifySignatureW)> fail("advapi32.dll", "CryptVerifySignatureW", 1, FALSE, error);
        bool valid = true;
        EXPECT_EQ(Verify(kKnownPublicKey, hash, kMessage, good, valid), result);
        EXPECT_FALSE(valid);
        EXPECT_EQ(log.Lines().empty(), SUCCEEDED(result));
    }
}

TEST(DigSign, AKeyTooShortForTheHashSignsNothing)
{
    std::wstring privateKey;
    std::wstring publicKey;
    ASSERT_EQ(COrvRSAKey::Generate(512, privateKey, publicKey), S_OK);
    CVoByteBuffer signature;
    COrvSHA256Hash fits;
    COrvSHA512Hash hash;
    EXPECT_EQ(Sign(privateKey, hash, kMessage, signature), NTE_BAD_LEN);
    EXPECT_TRUE(signature.IsEmpty());
    ASSERT_EQ(Sign(privateKey, fits, kMessage, signature), S_OK);
    bool valid = true;
    EXPECT_EQ(Verify(publicKey, hash, kMessage, { signature.Bytes().begin(), signature.Bytes().end() }, valid), S_OK);
    EXPECT_FALSE(valid);
    EXPECT_EQ(HashBytes(hash, nullptr, 1, signature.PutBytes(), signature.PutLength()), E_INVALIDARG);
}
} // namespace
