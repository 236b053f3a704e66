#include <win/OrvDigSign.h>

#include <base/VoCArray.h>
#include <base/utils/VoDataConversion.h>

#include "support/ImportHook.h"
#include "support/KeyPairs.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using namespace TestSupport;
using namespace OrvDigSign;

namespace
{
// A 1024-bit RSA key, and PKCS #1 v1.5 signatures of kMessage that an independent implementation (openssl) made with it, least
// significant byte first.
constexpr std::string_view kMessage = "VoUtils known answer";
constexpr const wchar_t* kPrivateKey =
    L"0702000000240000525341320004000001000100B98B2D6A83D7CBB880F26DDB0785FF230ECE46B23161CFCE44A48D2FCA6E906F3F7EFBD5614E"
    L"78F71B1BF3F9F4B9D9B34D49711400982C58CB6AF743A375EEF60E258829CE862AE0EECC31513585A0C5071B782B441AF3F28E670EA58666B67C"
    L"ACA576B3AB7F8B5D496A2B26051AB48588920139671270880C29D446180A4BAA0D4B1CA72CD1BFA4E3937D982814D4899A5814945496C0F26100"
    L"25626113AB7F02748F484BDA0864DB2BF35709455CB93A86307B63825659A27C05F4FD34D6E15D68CD510075048E3452A8631D3AE0BBFB67D7D3"
    L"57CDF1A3DCFC7466635D9CC1145C69DAAD9356B92A446A06C009C7F9D38C4D1A3D60DF40858427AB65B009C14557D0F2578433AB7883B068D34F"
    L"D614FB867663A034E3B7BFC1E8A28C1507239B22799EC7015AAC806A09ACFC7EC127A75C6E971D1E6B528333A49D77B1660301D5990343E4C0C7"
    L"73549BF1B4E09CA33048BBEFBF9C1078D30C6575C8BAB9379FE5FFF12E0648EA88E72E61F1F10ECCE87F77CA19FC0BDE50118370A41A115E82F8"
    L"449DCFC59C8511383501D571D619FF38E7BCCA6C4F7ADAE9105A702B64DA1BEA0D8D8D113EA89453C64EACCA7DCC53C701678121FBE865E34CEB"
    L"BC5C4D0551DAF4C363AD7AE1F798C75BFFE43A8DF821C4D4AC4B78036A3FB11053E182CB62256C87B748D1C0979C8C7F586F256D80E75C7C28F0"
    L"5F3448FDBAC31631242F3296BA5163B518C40384824CE059C29413B168DEFD0BD24A9FDC137367C3E914F32C7EDCCC776B44022808608C2BA23F"
    L"EDB43633B5006CBE41839D7D24B66706";
constexpr const wchar_t* kPublicKey =
    L"0602000000240000525341310004000001000100B98B2D6A83D7CBB880F26DDB0785FF230ECE46B23161CFCE44A48D2FCA6E906F3F7EFBD5614E"
    L"78F71B1BF3F9F4B9D9B34D49711400982C58CB6AF743A375EEF60E258829CE862AE0EECC31513585A0C5071B782B441AF3F28E670EA58666B67C"
    L"ACA576B3AB7F8B5D496A2B26051AB48588920139671270880C29D446180A4BAA";
constexpr const wchar_t* kSignatureSHA1 =
    L"63A1FE05C768F9D098FD7FFA9BB99B4F941669D7A995430C006D56FD7D8982941E4425E03F7FF5D5BF329D873807DBE8A6FEB5000DC376044EA2"
    L"460C7A1066D77DE45A5DAC88605F64BCB240D1410BBA982A794263B7E3920A40494B6DBB82C2C29ABF602286FB71962B88E146157FCEB9E4D0CA"
    L"9FF0F47B91A34B8F48146389";
constexpr const wchar_t* kSignatureSHA256 =
    L"9C2AD0A96DE80E485ECC8161D31F1B9B1CCCE8BEB39E3EDB2EA7597CCD4AFE786E33018E0343DD12ACB23A12761DD0076450B48268DB6D35993B"
    L"2F8BC687D133C80C9298A1E7217E43CCD21383FF5E005AFA88272F70E20894D69CBCDA52DD399E84EEA280173513E4826DB2269274141D4C4F24"
    L"1E94EAE6BC9D594EBA681E3F";
constexpr const wchar_t* kSignatureSHA512 =
    L"7D5C84D0EB984D4B9F159EC74E650A382DD18746BD4B8439E599A4D0CE182991A0D3A5BC670947AF3EA2638BC3E6C6BBB33F9CD01A8577B4A0BB"
    L"EAC2217F7C412C10084DED3AC144F309720608E54195B1183B89B7C592FE0AD710C1DAF04EB1084F268D6597B7F3EA8B62CD10C19DDDEA3A7AFB"
    L"F9942DD23E9F444EB1774F5D";

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

TEST(DigSign, HashesAreThePublishedOnes)
{
    struct SCase
    {
        std::unique_ptr<COrvHashBase> hash;
        std::string_view data;
        const wchar_t* value;
    };
    // FIPS 180-2 and RFC 1321 vectors.
    const SCase cases[] = {
        { std::make_unique<COrvMD5Hash>(), "", L"D41D8CD98F00B204E9800998ECF8427E" },
        { std::make_unique<COrvMD5Hash>(), "abc", L"900150983CD24FB0D6963F7D28E17F72" },
        { CreateHashByName(L"sha1"), "abc", L"A9993E364706816ABA3E25717850C26C9CD0D89D" },
        { CreateHashByName(L"sha256"), "abc", L"BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD" },
        { CreateHashByName(L"sha512"), "abc",
          L"DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A2192992A274FC1A836BA3C23A3FEEBBD454D4423643CE80E2A9"
          L"AC94FA54CA49F" },
        { CreateHashByName(DefaultHashName()), "", L"E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855" },
    };
    for (const SCase& test : cases)
    {
        CVoByteBuffer value;
        ASSERT_EQ(HashBytes(*test.hash, Bytes(test.data), Length(test.data), value.PutBytes(), value.PutLength()), S_OK);
        EXPECT_EQ(Hex(value), test.value);
        EXPECT_EQ(test.hash->Handle(), HCRYPTHASH{ 0 }) << "The handle must not outlive its provider";
        UINT32 length = 0;
        EXPECT_EQ(HashBytes(*test.hash, nullptr, 0, nullptr, &length), S_OK);
        EXPECT_EQ(length, value.Length());
    }
}

TEST(DigSign, HashIsTheSameWhenAddedInPieces)
{
    COrvCryptKeyBase context;
    ASSERT_EQ(context.InitProvider(), S_OK);
    COrvSHA1Hash hash;
    ASSERT_EQ(hash.CreateHash(context.Provider()), S_OK);
    EXPECT_EQ(hash.AddBinData(Bytes("discarded by a new beginning"), 9), S_OK);
    ASSERT_EQ(hash.CreateHash(context.Provider()), S_OK);
    for (const std::string_view piece : { "a", "", "bc" })
        EXPECT_EQ(hash.AddBinData(Bytes(piece), Length(piece)), S_OK);
    CVoByteBuffer value;
    EXPECT_EQ(hash.GetHashValue(value.PutBytes(), value.PutLength()), S_OK);
    EXPECT_EQ(Hex(value), L"A9993E364706816ABA3E25717850C26C9CD0D89D");
    EXPECT_FALSE(SUCCEEDED(hash.AddBinData(Bytes("x"), 1)));
    EXPECT_EQ(hash.Clear(), S_OK);
}

TEST(DigSign, HashNamesAreExact)
{
    for (const wchar_t* name : { L"SHA256", L"sha-256", L"md5", L"sha384", L"", L"sha1 " })
        EXPECT_EQ(CreateHashByName(name), nullptr) << name;
}

TEST(DigSign, SignaturesAreThoseOfAnIndependentImplementation)
{
    struct SCase
    {
        const wchar_t* hash;
        const wchar_t* signature;
    };
    for (const SCase& test :
         { SCase{ L"sha1", kSignatureSHA1 }, SCase{ L"sha256", kSignatureSHA256 }, SCase{ L"sha512", kSignatureSHA512 } })
    {
        SCOPED_TRACE(testing::Message() << test.hash);
        const auto hash = CreateHashByName(test.hash);
        CVoByteBuffer signature;
        ASSERT_EQ(Sign(kPrivateKey, *hash, kMessage, signature), S_OK);
        EXPECT_EQ(Hex(signature), test.signature);
        bool valid = false;
        EXPECT_EQ(Verify(kPublicKey, *hash, kMessage, FromHex(test.signature), valid), S_OK);
        EXPECT_TRUE(valid);
    }
}

TEST(DigSign, SignatureThatDoesNotFitIsNotValidAndNoError)
{
    const std::vector<BYTE> good = FromHex(kSignatureSHA256);
    std::vector<BYTE> reversed(good.rbegin(), good.rend());
    std::vector<BYTE> flipped = good;
    flipped[17] ^= 0x20;
    const std::vector<BYTE> shorter(good.begin(), good.end() - 1);
    std::vector<BYTE> longer = good;
    longer.push_back(0);
    struct SCase
    {
        const char* name;
        std::string_view data;
        const wchar_t* hash;
        std::vector<BYTE> signature;
    };
    const SCase cases[] = { { "reversed", kMessage, L"sha256", reversed },
                            { "flipped", kMessage, L"sha256", flipped },
                            { "short", kMessage, L"sha256", shorter },
                            { "long", kMessage, L"sha256", longer },
                            { "empty", kMessage, L"sha256", {} },
                            { "other data", "VoUtils known answes", L"sha256", good },
                            { "no data", "", L"sha256", good },
                            { "other hash", kMessage, L"sha1", good } };
    CLogCapture log;
    for (const SCase& test : cases)
    {
        bool valid = true;
        EXPECT_EQ(Verify(kPublicKey, *CreateHashByName(test.hash), test.data, test.signature, valid), S_OK) << test.name;
        EXPECT_FALSE(valid) << test.name;
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(DigSign, UnusableKeysAreRefusedAndReportedUpTheChain)
{
    const std::wstring source = L"..\\..\\source\\win\\digsign\\OrvDigSign";
    const std::wstring key = kPublicKey;
    std::wstring wrongMagic = key;
    wrongMagic[17] = L'3';
    struct SCase
    {
        const char* name;
        std::wstring key;
        HRESULT result; // S_OK: any failure
    };
    const SCase cases[] = { { "odd digits", L"ABC", E_INVALIDARG },
                            { "no text", L"", S_OK },
                            { "garbage", L"0102030405060708", S_OK },
                            { "truncated", key.substr(0, 200), S_OK },
                            { "wrong magic", wrongMagic, S_OK } };
    for (const SCase& test : cases)
    {
        SCOPED_TRACE(test.name);
        COrvSHA256Hash hash;
        bool valid = true;
        CLogCapture log;
        const HRESULT hr = Verify(test.key, hash, kMessage, FromHex(kSignatureSHA256), valid);
        EXPECT_LT(hr, 0);
        EXPECT_FALSE(valid);
        if (test.result != S_OK)
        {
            EXPECT_EQ(hr, test.result);
        }
        auto lines = log.Lines();
        std::erase_if(lines, [&](const CLogLine& line) { return line.source != source; });
        EXPECT_THAT(lines, ElementsAre(IsReportBy(L"OrvDigSign::COrvRSAKey::ImportKey", hr),
                                       IsReportBy(L"OrvDigSign::COrvRSAKey::ImportKeyForVerifying", hr),
                                       IsReportBy(L"OrvDigSign::COrvDigitalSignature::VerifyString", hr)));

        CVoByteBuffer signature;
        EXPECT_LT(Sign(test.key, hash, kMessage, signature), 0);
        EXPECT_EQ(signature.Data(), nullptr);
    }
    // A public key signs nothing.
    COrvSHA256Hash hash;
    CVoByteBuffer signature;
    EXPECT_LT(Sign(kPublicKey, hash, kMessage, signature), 0);
    EXPECT_EQ(hash.Handle(), HCRYPTHASH{ 0 });
}

TEST(DigSign, KeysNeverReachTheLog)
{
    CLogCapture log;
    const std::wstring key(std::wstring_view(kPrivateKey).substr(0, 801)); // an odd number of digits, so malformed
    COrvSHA256Hash hash;
    CVoByteBuffer signature;
    EXPECT_EQ(Sign(key, hash, kMessage, signature), E_INVALIDARG);
    EXPECT_EQ(Sign(key.substr(0, 800), hash, kMessage, signature) < 0, true);
    ASSERT_FALSE(log.Lines().empty());
    for (const CLogLine& line : log.Lines())
        EXPECT_EQ(line.text.find(key.substr(300, 16)), std::wstring::npos) << "A part of the private key is in the log";
}

TEST(DigSign, MakesKeyPairsThatSignForEachOther)
{
    for (const UINT32 bits : { 512U, 1024U })
    {
        const auto [keys, others] = MakeTwoKeyPairs(bits);
        const auto& [privateKey, publicKey] = keys;
        EXPECT_EQ(publicKey.size(), 2 * (20 + bits / 8));
        std::wstring derived;
        EXPECT_EQ(COrvRSAKey::GetPublicKeyFromPrivate(privateKey, derived), S_OK);
        EXPECT_EQ(derived, publicKey);
        COrvSHA1Hash hash;
        CVoByteBuffer signature;
        ASSERT_EQ(Sign(privateKey, hash, kMessage, signature), S_OK);
        EXPECT_EQ(signature.Length(), bits / 8);
        for (const bool own : { true, false })
        {
            bool valid = !own;
            EXPECT_EQ(Verify(own ? publicKey : others.publicKey, hash, kMessage,
                             { signature.Data(), signature.Data() + signature.Length() }, valid),
                      S_OK);
            EXPECT_EQ(valid, own);
        }
    }
    std::wstring untouched = L"private";
    std::wstring other = L"public";
    for (const UINT32 bits : { 0U, 376U, 1025U, 16392U, 0x10000400U })
        EXPECT_EQ(COrvRSAKey::Generate(bits, untouched, other), E_INVALIDARG) << bits;
    EXPECT_EQ(COrvRSAKey::GetPublicKeyFromPrivate(kPublicKey, other), E_INVALIDARG);
    EXPECT_EQ(untouched + other, L"privatepublic");
    EXPECT_EQ(COrvRSAKey::GetPublicKeyFromPrivate(kPrivateKey, other), S_OK);
    EXPECT_EQ(other, kPublicKey);
}

TEST(DigSign, DoneWithoutProviderSucceedsAndProviderIsTheLaidDownOne)
{
    struct SAcquire
    {
        std::wstring provider;
        bool hasContainer = true;
        DWORD type = 0;
        DWORD flags = 0;
    } seen;
    const auto watch = [&](auto original, auto* handle, LPCWSTR container, LPCWSTR provider, DWORD type, DWORD flags)
    {
        seen = { provider, container != nullptr, type, flags };
        return original(handle, container, provider, type, flags);
    };
    CCallHook<decltype(&::CryptAcquireContextW)> hook("advapi32.dll", "CryptAcquireContextW", watch);
    COrvRSAKey key;
    EXPECT_EQ(key.Done(), S_OK);
    EXPECT_TRUE(key.ProviderName().empty());
    EXPECT_EQ(key.Init(), S_OK);
    EXPECT_EQ(seen.provider, L"Microsoft Enhanced RSA and AES Cryptographic Provider");
    EXPECT_EQ(key.ProviderName(), seen.provider);
    EXPECT_EQ(key.ProviderType(), 24U);
    EXPECT_EQ(seen.type, 24U);
    EXPECT_EQ(seen.flags, 0xF0000048U);
    EXPECT_FALSE(seen.hasContainer);
    EXPECT_EQ(key.Done(), S_OK);
    EXPECT_EQ(key.Done(), S_OK);
}

TEST(DigSign, DecodedKeyIsWipedBeforeItsMemoryIsGivenBack)
{
    if (!CImportHook::IsImported("msvcrt.dll", "free"))
        GTEST_SKIP() << "The C run-time's free is linked statically or comes from another DLL: it cannot be watched";
    const BYTE* blob = nullptr;
    DWORD blobLength = 0;
    bool wasWiped = false;
    const auto watchImport = [&](auto original, auto provider, auto* data, auto length, auto... more)
    {
        blob = data;
        blobLength = length;
        return original(provider, data, length, more...);
    };
    const auto watchFree = [&](auto original, void* memory)
    {
        if (memory && memory == blob)
            wasWiped = std::all_of(blob, blob + blobLength, [](BYTE value) { return value == 0; });
        original(memory);
    };
    CCallHook<decltype(&::CryptImportKey)> import("advapi32.dll", "CryptImportKey", watchImport);
    CCallHook<void(WINAPI*)(void*)> release("msvcrt.dll", "free", watchFree);
    COrvRSAKey key;
    ASSERT_EQ(key.Init(), S_OK);
    ASSERT_EQ(key.ImportKeyForSigning(kPrivateKey), S_OK);
    EXPECT_EQ(blobLength, 596U);
    EXPECT_TRUE(wasWiped);
}

// Every call of CryptoAPI fails in turn: nothing is handed out and nothing stays open.
class DigSignFaults : public testing::Test
{
protected:
    void Examine(const std::vector<CFault>& faults, const std::function<HRESULT()>& run)
    {
        CAcquireBalance providers = CAcquireBalance::Of<decltype(&::CryptAcquireContextW), decltype(&::CryptReleaseContext)>(
            "advapi32.dll", "CryptAcquireContextW", "CryptReleaseContext");
        CAcquireBalance hashes = CAcquireBalance::Of<decltype(&::CryptCreateHash), decltype(&::CryptDestroyHash)>(
            "advapi32.dll", "CryptCreateHash", "CryptDestroyHash");
        CAcquireBalance keys = CAcquireBalance::Of<decltype(&::CryptImportKey), decltype(&::CryptDestroyKey)>(
            "advapi32.dll", "CryptImportKey", "CryptDestroyKey");
        keys.AlsoAcquiredBy<decltype(&::CryptGenKey)>("advapi32.dll", "CryptGenKey");
        keys.AlsoAcquiredBy<decltype(&::CryptGetUserKey)>("advapi32.dll", "CryptGetUserKey");
        CLogCapture log;
        ExpectEveryFailureIsHandled(faults, run,
                                    [&](HRESULT code)
                                    {
                                        const auto lines = log.Lines();
                                        log.Clear();
                                        // The chain up to the operation itself, every link with the same code.
                                        return !lines.empty() &&
                                               std::all_of(lines.begin(), lines.end(),
                                                           [&](const CLogLine& line) { return line.code == code; });
                                    },
                                    { &providers, &hashes, &keys });
    }
    static std::vector<CFault> With(std::vector<CFault> faults)
    {
        faults.push_back(VO_FAULT("advapi32.dll", CryptAcquireContextW, FALSE, static_cast<DWORD>(NTE_PROV_TYPE_NOT_DEF)));
        faults.push_back(VO_FAULT_AFTER_CALL("advapi32.dll", CryptReleaseContext, FALSE, ERROR_BUSY));
        return faults;
    }
};

TEST_F(DigSignFaults, Signing)
{
    COrvSHA1Hash hash;
    const auto sign = [&]
    {
        CVoByteBuffer signature;
        const HRESULT hr = Sign(kPrivateKey, hash, kMessage, signature);
        EXPECT_EQ(signature.IsEmpty(), FAILED(hr));
        EXPECT_EQ(hash.Handle(), HCRYPTHASH{ 0 });
        return hr;
    };
    Examine(With({ VO_FAULT("advapi32.dll", CryptImportKey, FALSE, static_cast<DWORD>(NTE_BAD_DATA)),
                   VO_FAULT("advapi32.dll", CryptGetUserKey, FALSE, static_cast<DWORD>(NTE_BAD_UID)),
                   VO_FAULT("advapi32.dll", CryptCreateHash, FALSE, static_cast<DWORD>(NTE_BAD_ALGID)),
                   VO_FAULT("advapi32.dll", CryptHashData, FALSE, ERROR_NOT_ENOUGH_MEMORY),
                   VO_FAULT("advapi32.dll", CryptSignHashW, FALSE, static_cast<DWORD>(NTE_NO_KEY)),
                   VO_FAULT_GIVES("advapi32.dll", CryptSignHashW, FALSE, ERROR_SUCCESS, E_FAIL),
                   VO_FAULT_AFTER_CALL("advapi32.dll", CryptDestroyKey, FALSE, ERROR_BUSY) }),
            sign);
}

TEST_F(DigSignFaults, Verifying)
{
    COrvSHA256Hash hash;
    const std::vector<BYTE> signature = FromHex(kSignatureSHA256);
    const auto verify = [&]
    {
        bool valid = true;
        const HRESULT hr = Verify(kPublicKey, hash, kMessage, signature, valid);
        EXPECT_EQ(valid, SUCCEEDED(hr));
        return hr;
    };
    Examine(With({ VO_FAULT("advapi32.dll", CryptImportKey, FALSE, static_cast<DWORD>(NTE_BAD_DATA)),
                   VO_FAULT("advapi32.dll", CryptCreateHash, FALSE, static_cast<DWORD>(NTE_BAD_ALGID)),
                   VO_FAULT("advapi32.dll", CryptHashData, FALSE, ERROR_NOT_ENOUGH_MEMORY),
                   VO_FAULT_AFTER_CALL("advapi32.dll", CryptDestroyKey, FALSE, ERROR_BUSY) }),
            verify);

    struct SCase
    {
        DWORD error;
        HRESULT result;
    };
    for (const SCase& test : { SCase{ static_cast<DWORD>(NTE_BAD_SIGNATURE), S_OK }, SCase{ ERROR_INVALID_PARAMETER, S_OK },
                               SCase{ ERROR_NOT_ENOUGH_MEMORY, kResultNotEnoughMemory }, SCase{ ERROR_SUCCESS, E_FAIL } })
    {
        CLogCapture log;
        CFailOnCall<decltype(&::CryptVerifySignatureW)> fail("advapi32.dll", "CryptVerifySignatureW", 1, FALSE, test.error);
        bool valid = true;
        EXPECT_EQ(Verify(kPublicKey, hash, kMessage, signature, valid), test.result);
        EXPECT_FALSE(valid);
        EXPECT_EQ(log.Lines().empty(), SUCCEEDED(test.result));
    }
}

TEST_F(DigSignFaults, HashingAndKeyMaking)
{
    COrvMD5Hash hash;
    Examine(With({ VO_FAULT("advapi32.dll", CryptCreateHash, FALSE, static_cast<DWORD>(NTE_BAD_ALGID)),
                   VO_FAULT("advapi32.dll", CryptHashData, FALSE, ERROR_NOT_ENOUGH_MEMORY),
                   VO_FAULT("advapi32.dll", CryptGetHashParam, FALSE, static_cast<DWORD>(NTE_BAD_HASH)) }),
            [&]
            {
                CVoByteBuffer value;
                const HRESULT hr = HashBytes(hash, Bytes(kMessage), Length(kMessage), value.PutBytes(), value.PutLength());
                EXPECT_EQ(value.IsEmpty(), FAILED(hr));
                return hr;
            });
    Examine(With({ VO_FAULT("advapi32.dll", CryptGenKey, FALSE, static_cast<DWORD>(NTE_FAIL)),
                   VO_FAULT("advapi32.dll", CryptExportKey, FALSE, static_cast<DWORD>(NTE_BAD_KEY_STATE)),
                   VO_FAULT_AFTER_CALL("advapi32.dll", CryptDestroyKey, FALSE, ERROR_BUSY) }),
            []
            {
                std::wstring privateKey = L"private";
                std::wstring publicKey = L"public";
                const HRESULT hr = COrvRSAKey::Generate(512, privateKey, publicKey);
                EXPECT_EQ(privateKey == L"private" && publicKey == L"public", FAILED(hr));
                return hr;
            });
}

TEST(DigSign, HashValueOfUnexpectedLengthIsRefused)
{
    for (const int call : { 1, 2 })
    {
        COrvSHA1Hash hash;
        int calls = 0;
        const auto shorten = [&](auto original, auto handle, DWORD what, BYTE* data, DWORD* length, DWORD flags)
        {
            const BOOL result = original(handle, what, data, length, flags);
            if (++calls == call)
                --*length;
            return result;
        };
        CCallHook<decltype(&::CryptGetHashParam)> hook("advapi32.dll", "CryptGetHashParam", shorten);
        CVoByteBuffer value;
        EXPECT_EQ(HashBytes(hash, Bytes(kMessage), Length(kMessage), value.PutBytes(), value.PutLength()), E_FAIL);
        EXPECT_TRUE(value.IsEmpty());
    }
}

TEST(DigSign, DestructorsReportAndDoNotThrow)
{
    struct SCase
    {
        std::vector<std::wstring> functions;
        std::function<void()> end;
    };
    COrvCryptKeyBase context;
    ASSERT_EQ(context.InitProvider(), S_OK);
    COrvSHA1Hash guarded;
    const SCase cases[] = {
        { { L"OrvDigSign::COrvHashBase::Clear", L"OrvDigSign::COrvHashBase::~COrvHashBase" },
          [&] { EXPECT_EQ(COrvSHA1Hash().CreateHash(context.Provider()), S_OK); } },
        { { L"OrvDigSign::COrvHashBase::Clear", L"OrvDigSign::CVoHashGuard::~CVoHashGuard" },
          [&]
          {
              ASSERT_EQ(guarded.CreateHash(context.Provider()), S_OK);
              const CVoHashGuard guard(guarded);
          } },
        { { L"OrvDigSign::COrvCryptKeyBase::Done", L"OrvDigSign::COrvCryptKeyBase::~COrvCryptKeyBase" },
          [&] { EXPECT_EQ(COrvCryptKeyBase().InitProvider(), S_OK); } },
    };
    for (const SCase& test : cases)
    {
        CFailOnCall<decltype(&::CryptDestroyHash)> hash("advapi32.dll", "CryptDestroyHash", 1, FALSE, ERROR_BUSY,
                                                        EInjectedFailure::AfterCall);
        CFailOnCall<decltype(&::CryptReleaseContext)> provider("advapi32.dll", "CryptReleaseContext", 1, FALSE, ERROR_BUSY,
                                                               EInjectedFailure::AfterCall);
        CLogCapture log;
        test.end();
        std::vector<testing::Matcher<const CLogLine&>> expected;
        for (const std::wstring& function : test.functions)
            expected.push_back(IsReportBy(function, HRESULT_FROM_WIN32(ERROR_BUSY)));
        EXPECT_THAT(log.Lines(), testing::ElementsAreArray(expected));
    }
}
} // namespace
