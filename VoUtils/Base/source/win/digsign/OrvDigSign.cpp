// RSA signatures and hashes over CryptoAPI (OrvDigSign.h).
#include <win/OrvDigSign.h>

#include <base/VoCArray.h>
#include <base/VoErrorHandler.h>
#include <base/VoWipe.h>
#include <base/utils/VoDataConversion.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

namespace OrvDigSign
{
namespace
{
constexpr const wchar_t* kDigSignSource = L"..\\..\\source\\win\\digsign\\OrvDigSign";

constexpr const wchar_t* kProviderName = L"Microsoft Enhanced RSA and AES Cryptographic Provider";
constexpr DWORD kProviderType = PROV_RSA_AES;
// No container, so that nothing is stored, and no dialogs.
constexpr DWORD kProviderFlags = CRYPT_VERIFYCONTEXT | CRYPT_SILENT | CRYPT_NEWKEYSET;
constexpr DWORD kKeyLengthShift = 16; // CryptGenKey takes the length in the upper half of its flags

// Bytes of a key; none stay behind.
struct SKeyBlob
{
    CVoByteBuffer bytes;

    SKeyBlob() noexcept = default;
    explicit SKeyBlob(CVoByteBuffer buffer) noexcept : bytes(std::move(buffer)) {}
    SKeyBlob(const SKeyBlob&) = delete;
    SKeyBlob& operator=(const SKeyBlob&) = delete;
    ~SKeyBlob()
    {
        if (!bytes.IsEmpty())
            ::SecureZeroMemory(bytes.Data(), bytes.Length());
    }
};

// What a blob says of an RSA key. For other blobs all is empty, and the platform decides.
struct CRSABlob
{
    bool isPrivate = false;
    bool isCutOff = false; // shorter than its own header says
    DWORD bits = 0;
    std::span<const BYTE> modulus; // within the blob, least significant byte first
};
CRSABlob ReadBlob(std::span<const BYTE> blob) noexcept
{
    CRSABlob result;
    PUBLICKEYSTRUC header{};
    RSAPUBKEY key{};
    constexpr size_t kHeader = sizeof header + sizeof key;
    if (blob.empty())
        return result;
    result.isPrivate = blob[0] == PRIVATEKEYBLOB;
    if (blob.size() < kHeader)
        return result;
    std::memcpy(&header, blob.data(), sizeof header);
    std::memcpy(&key, blob.data() + sizeof header, sizeof key);
    if (header.bType != PRIVATEKEYBLOB && header.bType != PUBLICKEYBLOB)
        return result;
    result.bits = key.bitlen;
    // A public key is the modulus. A private one has five numbers of half the length and one of the full length behind it
    // (the platform's documentation, "RSA/Schannel Key BLOBs").
    const UINT64 length = (UINT64{ key.bitlen } + 7) / 8;
    const UINT64 half = (UINT64{ key.bitlen } + 15) / 16;
    const UINT64 needed = kHeader + (result.isPrivate ? 2 * length + 5 * half : length);
    result.isCutOff = blob.size() < needed;
    if (!result.isCutOff)
        result.modulus = blob.subspan(kHeader, static_cast<size_t>(length));
    return result;
}

CVoByteBuffer MakeBuffer(DWORD length)
{
    return { std::make_unique<BYTE[]>(length), length };
}

// Hands out what an operation made, or its length alone.
void HandOut(CVoByteBuffer& from, BYTE** buffer, UINT32* length) noexcept
{
    *length = from.Length();
    if (buffer)
        *buffer = from.Detach();
}
} // namespace

COrvHashBase::~COrvHashBase()
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvHashBase::~COrvHashBase" };
    if (const HRESULT hr = Clear(); FAILED(hr))
        report(62, hr);
}

HRESULT COrvHashBase::CreateHash(HCRYPTPROV provider) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvHashBase::CreateHash" };
    if (const HRESULT hr = Clear(); FAILED(hr))
        return report(70, hr);
    HCRYPTHASH hash = 0;
    if (!::CryptCreateHash(provider, AlgorithmId(), 0, 0, &hash))
        return report.LastError(74, 75);
    m_hash.Attach(hash);
    return S_OK;
}

HRESULT COrvHashBase::AddBinData(const BYTE* bytes, UINT32 length) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvHashBase::AddBinData" };
    if (!bytes && length > 0)
        return report(85, E_INVALIDARG);
    // Nothing to add is no error, and providers differ about it.
    if (length == 0 && m_hash)
        return S_OK;
    if (!::CryptHashData(m_hash.Get(), bytes, length, 0))
        return report.LastError(88, 89);
    return S_OK;
}

HRESULT COrvHashBase::GetHashValue(BYTE** buffer, UINT32* length) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvHashBase::GetHashValue" };
    if (!length)
        return report(96, E_INVALIDARG);
    const auto body = [&]() -> HRESULT
    {
        DWORD size = 0;
        DWORD sizeLength = sizeof(size);
        if (!::CryptGetHashParam(m_hash.Get(), HP_HASHSIZE, reinterpret_cast<BYTE*>(&size), &sizeLength, 0))
            return report.LastError(103, 104);
        if (sizeLength != sizeof(size))
            return report(106, E_FAIL);
        if (!buffer)
        {
            *length = size;
            return S_OK;
        }
        CVoByteBuffer value = MakeBuffer(size);
        DWORD valueLength = size;
        if (!::CryptGetHashParam(m_hash.Get(), HP_HASHVAL, value.Data(), &valueLength, 0))
            return report.LastError(115, 116);
        if (valueLength != size)
            return report(118, E_FAIL);
        HandOut(value, buffer, length);
        return S_OK;
    };
    return report.Guard(124, body);
}

HRESULT COrvHashBase::Clear() noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvHashBase::Clear" };
    if (!m_hash.Close())
        return report.LastError(133, 134);
    return S_OK;
}

std::unique_ptr<COrvHashBase> CreateHashByName(CVoTextView name)
{
    if (name == L"sha1")
        return std::make_unique<COrvSHA1Hash>();
    if (name == L"sha256")
        return std::make_unique<COrvSHA256Hash>();
    if (name == L"sha512")
        return std::make_unique<COrvSHA512Hash>();
    return nullptr;
}

const wchar_t* DefaultHashName() noexcept
{
    return L"sha256";
}

CVoHashGuard::~CVoHashGuard()
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::CVoHashGuard::~CVoHashGuard" };
    if (const HRESULT hr = m_hash.Clear(); FAILED(hr))
        report(158, hr);
}

COrvCryptKeyBase::~COrvCryptKeyBase()
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvCryptKeyBase::~COrvCryptKeyBase" };
    if (const HRESULT hr = Done(); FAILED(hr))
        report(165, hr);
}

HRESULT COrvCryptKeyBase::InitProvider() noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvCryptKeyBase::InitProvider" };
    if (const HRESULT hr = Done(); FAILED(hr))
        return report(172, hr);
    const auto body = [&]() -> HRESULT
    {
        std::wstring name = kProviderName;
        HCRYPTPROV provider = 0;
        if (!::CryptAcquireContextW(&provider, nullptr, kProviderName, kProviderType, kProviderFlags))
            return report.LastError(180, 181);
        m_provider.Attach(provider);
        m_providerName = std::move(name);
        m_providerType = kProviderType;
        return S_OK;
    };
    return report.Guard(188, body);
}

HRESULT COrvCryptKeyBase::Done() noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvCryptKeyBase::Done" };
    HRESULT result = S_OK;
    if (!m_key.Close())
        result = report.LastError(197, 198);
    if (!m_provider.Close())
    {
        const HRESULT hr = report.LastError(201, 202);
        if (SUCCEEDED(result))
            result = hr;
    }
    return result;
}

HRESULT COrvRSAKey::Init() noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvRSAKey::Init" };
    if (const HRESULT hr = InitProvider(); FAILED(hr))
        return report(213, hr);
    return S_OK;
}

// Destroys a key of the context; S_OK when there is none.
HRESULT COrvRSAKey::DestroyUserKey(DWORD keySpec) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvRSAKey::ImportKey" };
    HCRYPTKEY found = 0;
    if (!::CryptGetUserKey(m_provider.Get(), keySpec, &found))
    {
        const DWORD error = ::GetLastError();
        return static_cast<HRESULT>(error) == NTE_NO_KEY ? S_OK : report.Win32(225, 226, error);
    }
    if (COrvKeyHandle key(found); !key.Close())
        return report.LastError(229, 230);
    return S_OK;
}

HRESULT COrvRSAKey::ImportKey(CVoTextView hexText) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvRSAKey::ImportKey" };
    const auto body = [&]() -> HRESULT
    {
        SKeyBlob blob;
        if (const HRESULT hr = VoDataConversion::HexToBin(hexText, blob.bytes.PutBytes(), blob.bytes.PutLength()); FAILED(hr))
            return report(241, hr);
        if (!m_key.Close())
            return report.LastError(243, 244);
        for (const DWORD keySpec : { DWORD{ AT_SIGNATURE }, DWORD{ AT_KEYEXCHANGE } })
        {
            if (const HRESULT hr = DestroyUserKey(keySpec); FAILED(hr))
                return report(248, hr);
        }
        const CRSABlob parts = ReadBlob(blob.bytes.Bytes());
        if (parts.isCutOff)
            return report(250, NTE_BAD_DATA);
        std::vector<BYTE> modulus(parts.modulus.begin(), parts.modulus.end());
        HCRYPTKEY key = 0;
        if (!::CryptImportKey(m_provider.Get(), blob.bytes.Data(), blob.bytes.Length(), 0, CRYPT_NO_SALT, &key))
            return report.LastError(252, 253);
        m_key.Attach(key);
        m_isPrivate = parts.isPrivate;
        m_bits = parts.bits;
        m_modulus = std::move(modulus);
        return S_OK;
    };
    return report.Guard(260, body);
}

HRESULT COrvRSAKey::ImportKeyForSigning(CVoTextView hexText) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvRSAKey::ImportKeyForSigning" };
    if (const HRESULT hr = ImportKey(hexText); FAILED(hr))
        return report(268, hr);
    return S_OK;
}

HRESULT COrvRSAKey::ImportKeyForVerifying(CVoTextView hexText) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvRSAKey::ImportKeyForVerifying" };
    if (const HRESULT hr = ImportKey(hexText); FAILED(hr))
        return report(276, hr);
    return S_OK;
}

bool COrvRSAKey::IsPossibleSignature(std::span<const BYTE> signature) const noexcept
{
    return !m_modulus.empty() && signature.size() == m_modulus.size() &&
           std::lexicographical_compare(signature.rbegin(), signature.rend(), m_modulus.rbegin(), m_modulus.rend());
}

bool COrvRSAKey::HasRoomFor(const COrvHashBase& hash) const noexcept
{
    constexpr DWORD kPadding = 11;
    const auto encodedLength = [&]() -> DWORD // of the hash with the name of its algorithm
    {
        switch (hash.AlgorithmId())
        {
        case CALG_MD5:
            return 34;
        case CALG_SHA1:
            return 35;
        case CALG_SHA_256:
            return 51;
        case CALG_SHA_384:
            return 67;
        default:
            return 83; // SHA-512
        }
    };
    return (m_bits + 7) / 8 >= encodedLength() + kPadding;
}

HRESULT COrvRSAKey::ExportKey(DWORD blobType, std::wstring& hexText) const noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvRSAKey::ExportKey" };
    const auto body = [&]() -> HRESULT
    {
        DWORD length = 0;
        if (!::CryptExportKey(m_key.Get(), 0, blobType, 0, nullptr, &length))
            return report.LastError(287, 288);
        const SKeyBlob blob(MakeBuffer(length));
        if (!::CryptExportKey(m_key.Get(), 0, blobType, 0, const_cast<BYTE*>(blob.bytes.Data()), &length))
            return report.LastError(291, 292);
        return VoDataConversion::BinToHex(blob.bytes.Data(), static_cast<INT32>(length), hexText, 0);
    };
    return report.Guard(297, body);
}

HRESULT COrvRSAKey::Generate(UINT32 bits, std::wstring& privateKey, std::wstring& publicKey) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvRSAKey::Generate" };
    if (bits < kMinimumBits || bits > kMaximumBits || bits % 8 != 0)
        return report(305, E_INVALIDARG);
    COrvRSAKey key;
    if (const HRESULT hr = key.Init(); FAILED(hr))
        return report(308, hr);
    HCRYPTKEY made = 0;
    if (!::CryptGenKey(key.m_provider.Get(), AT_SIGNATURE, (bits << kKeyLengthShift) | CRYPT_EXPORTABLE, &made))
        return report.LastError(313, 314);
    key.m_key.Attach(made);
    std::wstring privateText;
    std::wstring publicText;
    HRESULT hr = key.ExportKey(PRIVATEKEYBLOB, privateText);
    if (SUCCEEDED(hr))
        hr = key.ExportKey(PUBLICKEYBLOB, publicText);
    if (SUCCEEDED(hr))
        hr = key.Done();
    if (FAILED(hr))
    {
        VoWipe(privateText);
        return report(326, hr);
    }
    privateKey = std::move(privateText);
    publicKey = std::move(publicText);
    return S_OK;
}

HRESULT COrvRSAKey::GetPublicKeyFromPrivate(CVoTextView privateKey, std::wstring& publicKey) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvRSAKey::GetPublicKeyFromPrivate" };
    COrvRSAKey key;
    if (const HRESULT hr = key.Init(); FAILED(hr))
        return report(338, hr);
    if (const HRESULT hr = key.ImportKeyForSigning(privateKey); FAILED(hr))
        return report(340, hr);
    if (!key.m_isPrivate)
        return report(342, E_INVALIDARG);
    std::wstring text;
    if (const HRESULT hr = key.ExportKey(PUBLICKEYBLOB, text); FAILED(hr))
        return report(345, hr);
    if (const HRESULT hr = key.Done(); FAILED(hr))
        return report(347, hr);
    publicKey = std::move(text);
    return S_OK;
}

namespace
{
HRESULT SignHash(const CVoReporter& report, HCRYPTHASH hash, CVoByteBuffer& signature)
{
    DWORD length = 0;
    if (!::CryptSignHashW(hash, AT_SIGNATURE, nullptr, 0, nullptr, &length))
        return report.LastError(369, 370);
    CVoByteBuffer bytes = MakeBuffer(length);
    if (!::CryptSignHashW(hash, AT_SIGNATURE, nullptr, 0, bytes.Data(), &length))
        return report.LastError(373, 374);
    *bytes.PutLength() = length;
    signature = std::move(bytes);
    return S_OK;
}
} // namespace

HRESULT HashBytes(COrvHashBase& hash, const BYTE* bytes, UINT32 length, BYTE** value, UINT32* valueLength) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::HashBytes" };
    if (!valueLength)
        return report(385, E_INVALIDARG);
    COrvCryptKeyBase context;
    if (const HRESULT hr = context.InitProvider(); FAILED(hr))
        return report(388, hr);
    CVoByteBuffer result;
    {
        const CVoHashGuard guard(hash);
        CVoHashBlock block(bytes, length);
        if (const HRESULT hr = hash.CreateHash(context.Provider()); FAILED(hr))
            return report(392, hr);
        if (const HRESULT hr = block.AddTo(hash); FAILED(hr))
            return report(393, hr);
        if (const HRESULT hr = hash.GetHashValue(result.PutBytes(), result.PutLength()); FAILED(hr))
            return report(395, hr);
    }
    if (const HRESULT hr = context.Done(); FAILED(hr))
        return report(398, hr);
    HandOut(result, value, valueLength);
    return S_OK;
}

HRESULT COrvDigitalSignature::SignString(const BYTE* data, UINT32 length, COrvHashBase& hash, CVoTextView privateKey,
                                         BYTE** signature, UINT32* signatureLength) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvDigitalSignature::SignString" };
    if (!signatureLength)
        return report(409, E_INVALIDARG);
    const auto body = [&]() -> HRESULT
    {
        COrvRSAKey key;
        if (const HRESULT hr = key.Init(); FAILED(hr))
            return report(414, hr);
        if (const HRESULT hr = key.ImportKeyForSigning(privateKey); FAILED(hr))
            return report(416, hr);
        CVoByteBuffer result;
        {
            const CVoHashGuard guard(hash);
            CVoHashBlock block(data, length);
            if (const HRESULT hr = hash.CreateHash(key.Provider()); FAILED(hr))
                return report(420, hr);
            if (const HRESULT hr = block.AddTo(hash); FAILED(hr))
                return report(421, hr);
            if (!key.HasRoomFor(hash))
                return report(422, NTE_BAD_LEN);
            if (const HRESULT hr = SignHash(report, hash.Handle(), result); FAILED(hr))
                return hr;
        }
        if (const HRESULT hr = key.Done(); FAILED(hr))
            return report(426, hr);
        HandOut(result, signature, signatureLength);
        return S_OK;
    };
    return report.Guard(432, body);
}

HRESULT COrvDigitalSignature::VerifyString(const BYTE* data, UINT32 length, COrvHashBase& hash, const BYTE* signature,
                                           UINT32 signatureLength, CVoTextView publicKey, bool& result) noexcept
{
    CVoHashBlock block(data, length);
    return VerifyString(block, hash, signature, signatureLength, publicKey, result);
}

HRESULT COrvDigitalSignature::VerifyString(IVoHashInput& data, COrvHashBase& hash, const BYTE* signature,
                                           UINT32 signatureLength, CVoTextView publicKey, bool& result) noexcept
{
    constexpr CVoReporter report{ kDigSignSource, L"OrvDigSign::COrvDigitalSignature::VerifyString" };
    result = false;
    if (!signature && signatureLength > 0)
        return report(440, E_INVALIDARG);
    COrvRSAKey key;
    if (const HRESULT hr = key.Init(); FAILED(hr))
        return report(443, hr);
    if (const HRESULT hr = key.ImportKeyForVerifying(publicKey); FAILED(hr))
        return report(445, hr);
    bool isValid = false;
    {
        const CVoHashGuard guard(hash);
        if (const HRESULT hr = hash.CreateHash(key.Provider()); FAILED(hr))
            return report(449, hr);
        if (const HRESULT hr = data.AddTo(hash); FAILED(hr))
            return report(450, hr);
        // Decided here, because providers disagree about such signatures: some give an error in place of "not valid".
        const bool isPossible = key.HasRoomFor(hash) && key.IsPossibleSignature({ signature, signatureLength });
        isValid =
            isPossible && ::CryptVerifySignatureW(hash.Handle(), signature, signatureLength, key.Key(), nullptr, 0) != FALSE;
        if (isPossible && !isValid)
        {
            // Providers say "not valid" in two ways; a wrong length may be an invalid parameter.
            const DWORD error = ::GetLastError();
            if (static_cast<HRESULT>(error) != NTE_BAD_SIGNATURE && error != ERROR_INVALID_PARAMETER)
                return report.Win32(457, 458, error);
        }
    }
    if (const HRESULT hr = key.Done(); FAILED(hr))
        return report(462, hr);
    result = isValid;
    return S_OK;
}
} // namespace OrvDigSign
