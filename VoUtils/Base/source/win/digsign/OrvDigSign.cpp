#include <win/OrvDigSign.h>

#include <base/VoCArray.h>
#include <base/VoErrorHandler.h>
#include <base/VoWipe.h>
#include <base/utils/VoDataConversion.h>

#include <cstring>
#include <utility>

namespace OrvDigSign
{
namespace
{
constexpr const wchar_t* kSource = L"..\\..\\source\\win\\digsign\\OrvDigSign";

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
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvHashBase::~COrvHashBase" };
    if (const HRESULT hr = Clear(); FAILED(hr))
        report(62, hr);
}

HRESULT COrvHashBase::CreateHash(HCRYPTPROV provider) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvHashBase::CreateHash" };
    if (const HRESULT hr = Clear(); FAILED(hr))
        return report(70, hr);
    HCRYPTHASH hash = 0;
    if (!::CryptCreateHash(provider, AlgorithmId(), 0, 0, &hash))
        return report.LastError(74, 75);
    m_hash = hash;
    return S_OK;
}

HRESULT COrvHashBase::AddBinData(const BYTE* bytes, UINT32 length) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvHashBase::AddBinData" };
    if (!bytes && length > 0)
        return report(85, E_INVALIDARG);
    // Nothing to add is no error, and providers differ about it.
    if (length == 0 && m_hash)
        return S_OK;
    if (!::CryptHashData(m_hash, bytes, length, 0))
        return report.LastError(88, 89);
    return S_OK;
}

HRESULT COrvHashBase::GetHashValue(BYTE** buffer, UINT32* length) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvHashBase::GetHashValue" };
    if (!length)
        return report(96, E_INVALIDARG);
    try
    {
        DWORD size = 0;
        DWORD sizeLength = sizeof(size);
        if (!::CryptGetHashParam(m_hash, HP_HASHSIZE, reinterpret_cast<BYTE*>(&size), &sizeLength, 0))
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
        if (!::CryptGetHashParam(m_hash, HP_HASHVAL, value.Data(), &valueLength, 0))
            return report.LastError(115, 116);
        if (valueLength != size)
            return report(118, E_FAIL);
        HandOut(value, buffer, length);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(124);
    }
}

HRESULT COrvHashBase::Clear() noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvHashBase::Clear" };
    const HCRYPTHASH hash = std::exchange(m_hash, 0);
    if (hash && !::CryptDestroyHash(hash))
        return report.LastError(133, 134);
    return S_OK;
}

std::unique_ptr<COrvHashBase> CreateHashByName(std::wstring_view name)
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
    constexpr CVoReporter report{ kSource, L"OrvDigSign::CVoHashGuard::~CVoHashGuard" };
    if (const HRESULT hr = m_hash.Clear(); FAILED(hr))
        report(158, hr);
}

COrvCryptKeyBase::~COrvCryptKeyBase()
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvCryptKeyBase::~COrvCryptKeyBase" };
    if (const HRESULT hr = Done(); FAILED(hr))
        report(165, hr);
}

HRESULT COrvCryptKeyBase::InitProvider() noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvCryptKeyBase::InitProvider" };
    if (const HRESULT hr = Done(); FAILED(hr))
        return report(172, hr);
    try
    {
        std::wstring name = kProviderName;
        if (!::CryptAcquireContextW(&m_provider, nullptr, kProviderName, kProviderType, kProviderFlags))
        {
            const DWORD error = ::GetLastError();
            m_provider = 0;
            return report.Win32(180, 181, error);
        }
        m_providerName = std::move(name);
        m_providerType = kProviderType;
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(188);
    }
}

HRESULT COrvCryptKeyBase::Done() noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvCryptKeyBase::Done" };
    HRESULT result = S_OK;
    if (const HCRYPTKEY key = std::exchange(m_key, 0); key && !::CryptDestroyKey(key))
        result = report.LastError(197, 198);
    if (const HCRYPTPROV provider = std::exchange(m_provider, 0); provider && !::CryptReleaseContext(provider, 0))
    {
        const HRESULT hr = report.LastError(201, 202);
        if (SUCCEEDED(result))
            result = hr;
    }
    return result;
}

HRESULT COrvRSAKey::Init() noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvRSAKey::Init" };
    if (const HRESULT hr = InitProvider(); FAILED(hr))
        return report(213, hr);
    return S_OK;
}

// Destroys a key of the context; that there is none is what it is for.
HRESULT COrvRSAKey::DestroyUserKey(DWORD keySpec) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvRSAKey::ImportKey" };
    HCRYPTKEY key = 0;
    if (!::CryptGetUserKey(m_provider, keySpec, &key))
    {
        const DWORD error = ::GetLastError();
        return static_cast<HRESULT>(error) == NTE_NO_KEY ? S_OK : report.Win32(225, 226, error);
    }
    if (!::CryptDestroyKey(key))
        return report.LastError(229, 230);
    return S_OK;
}

HRESULT COrvRSAKey::ImportKey(std::wstring_view hexText) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvRSAKey::ImportKey" };
    try
    {
        SKeyBlob blob;
        if (const HRESULT hr = VoDataConversion::HexToBin(hexText, blob.bytes.PutBytes(), blob.bytes.PutLength()); FAILED(hr))
            return report(241, hr);
        if (const HCRYPTKEY key = std::exchange(m_key, 0); key && !::CryptDestroyKey(key))
            return report.LastError(243, 244);
        for (const DWORD keySpec : { DWORD{ AT_SIGNATURE }, DWORD{ AT_KEYEXCHANGE } })
        {
            if (const HRESULT hr = DestroyUserKey(keySpec); FAILED(hr))
                return report(248, hr);
        }
        HCRYPTKEY key = 0;
        if (!::CryptImportKey(m_provider, blob.bytes.Data(), blob.bytes.Length(), 0, CRYPT_NO_SALT, &key))
            return report.LastError(252, 253);
        m_key = key;
        m_isPrivate = *blob.bytes.Data() == PRIVATEKEYBLOB;
        RSAPUBKEY description{};
        if (blob.bytes.Length() >= sizeof(PUBLICKEYSTRUC) + sizeof description)
            std::memcpy(&description, blob.bytes.Data() + sizeof(PUBLICKEYSTRUC), sizeof description);
        m_bits = description.bitlen;
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(260);
    }
}

HRESULT COrvRSAKey::ImportKeyForSigning(std::wstring_view hexText) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvRSAKey::ImportKeyForSigning" };
    if (const HRESULT hr = ImportKey(hexText); FAILED(hr))
        return report(268, hr);
    return S_OK;
}

HRESULT COrvRSAKey::ImportKeyForVerifying(std::wstring_view hexText) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvRSAKey::ImportKeyForVerifying" };
    if (const HRESULT hr = ImportKey(hexText); FAILED(hr))
        return report(276, hr);
    return S_OK;
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
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvRSAKey::ExportKey" };
    try
    {
        DWORD length = 0;
        if (!::CryptExportKey(m_key, 0, blobType, 0, nullptr, &length))
            return report.LastError(287, 288);
        const SKeyBlob blob(MakeBuffer(length));
        if (!::CryptExportKey(m_key, 0, blobType, 0, const_cast<BYTE*>(blob.bytes.Data()), &length))
            return report.LastError(291, 292);
        return VoDataConversion::BinToHex(blob.bytes.Data(), static_cast<INT32>(length), hexText, 0);
    }
    catch (...)
    {
        return report.CurrentException(297);
    }
}

HRESULT COrvRSAKey::Generate(UINT32 bits, std::wstring& privateKey, std::wstring& publicKey) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvRSAKey::Generate" };
    if (bits < kMinimumBits || bits > kMaximumBits || bits % 8 != 0)
        return report(305, E_INVALIDARG);
    COrvRSAKey key;
    if (const HRESULT hr = key.Init(); FAILED(hr))
        return report(308, hr);
    if (!::CryptGenKey(key.m_provider, AT_SIGNATURE, (bits << kKeyLengthShift) | CRYPT_EXPORTABLE, &key.m_key))
    {
        const DWORD error = ::GetLastError();
        key.m_key = 0;
        return report.Win32(313, 314, error);
    }
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

HRESULT COrvRSAKey::GetPublicKeyFromPrivate(std::wstring_view privateKey, std::wstring& publicKey) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvRSAKey::GetPublicKeyFromPrivate" };
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
// Makes the hash of data in a provider's context.
HRESULT MakeHash(const CVoReporter& report, int line, COrvHashBase& hash, HCRYPTPROV provider, IVoHashInput& data) noexcept
{
    if (const HRESULT hr = hash.CreateHash(provider); FAILED(hr))
        return report(line, hr);
    if (const HRESULT hr = data.AddTo(hash); FAILED(hr))
        return report(line + 1, hr);
    return S_OK;
}

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
    constexpr CVoReporter report{ kSource, L"OrvDigSign::HashBytes" };
    if (!valueLength)
        return report(385, E_INVALIDARG);
    COrvCryptKeyBase context;
    if (const HRESULT hr = context.InitProvider(); FAILED(hr))
        return report(388, hr);
    CVoByteBuffer result;
    {
        const CVoHashGuard guard(hash);
        CVoHashBlock block(bytes, length);
        if (const HRESULT hr = MakeHash(report, 392, hash, context.Provider(), block); FAILED(hr))
            return hr;
        if (const HRESULT hr = hash.GetHashValue(result.PutBytes(), result.PutLength()); FAILED(hr))
            return report(395, hr);
    }
    if (const HRESULT hr = context.Done(); FAILED(hr))
        return report(398, hr);
    HandOut(result, value, valueLength);
    return S_OK;
}

HRESULT COrvDigitalSignature::SignString(const BYTE* data, UINT32 length, COrvHashBase& hash, std::wstring_view privateKey,
                                         BYTE** signature, UINT32* signatureLength) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvDigitalSignature::SignString" };
    if (!signatureLength)
        return report(409, E_INVALIDARG);
    try
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
            if (const HRESULT hr = MakeHash(report, 420, hash, key.Provider(), block); FAILED(hr))
                return hr;
            if (!key.HasRoomFor(hash))
                return report(422, NTE_BAD_LEN);
            if (const HRESULT hr = SignHash(report, hash.Handle(), result); FAILED(hr))
                return hr;
        }
        if (const HRESULT hr = key.Done(); FAILED(hr))
            return report(426, hr);
        HandOut(result, signature, signatureLength);
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(432);
    }
}

HRESULT COrvDigitalSignature::VerifyString(const BYTE* data, UINT32 length, COrvHashBase& hash, const BYTE* signature,
                                           UINT32 signatureLength, std::wstring_view publicKey, bool& result) noexcept
{
    CVoHashBlock block(data, length);
    return VerifyString(block, hash, signature, signatureLength, publicKey, result);
}

HRESULT COrvDigitalSignature::VerifyString(IVoHashInput& data, COrvHashBase& hash, const BYTE* signature,
                                           UINT32 signatureLength, std::wstring_view publicKey, bool& result) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvDigSign::COrvDigitalSignature::VerifyString" };
    result = false;
    COrvRSAKey key;
    if (const HRESULT hr = key.Init(); FAILED(hr))
        return report(443, hr);
    if (const HRESULT hr = key.ImportKeyForVerifying(publicKey); FAILED(hr))
        return report(445, hr);
    bool isValid = false;
    {
        const CVoHashGuard guard(hash);
        if (const HRESULT hr = MakeHash(report, 449, hash, key.Provider(), data); FAILED(hr))
            return hr;
        const bool isPossible = key.HasRoomFor(hash);
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
