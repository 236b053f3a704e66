// RSA signatures and hashes with the platform's CryptoAPI. Signed requests and signed INI files use them.
//
// Keys are hexadecimal text of CryptoAPI key blobs (PRIVATEKEYBLOB, PUBLICKEYBLOB with signature keys). Signatures are raw
// bytes in CryptoAPI's order, least significant byte first. Every operation works in a provider context of its own that nothing
// is stored in. Objects are not shared between threads; different objects may be used at the same time. Lengths are in bytes.
//
// Functions that return an HRESULT report their failures. The platform's error comes as an HRESULT (NTE_... as it is). Out
// arguments are written on success only. A buffer handed out is made with new BYTE[] and belongs to the caller (CVoByteBuffer
// takes it in); a null buffer pointer asks for the length alone.
#pragma once

#include <base/VoHResult.h>
#include <base/VoPlatform.h>
#include <base/VoText.h>

#include <wincrypt.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace OrvDigSign
{
// How each kind of handle of CryptoAPI is released.
struct COrvProviderTraits
{
    using Handle = HCRYPTPROV;
    static BOOL Release(Handle handle) noexcept { return ::CryptReleaseContext(handle, 0); }
};
struct COrvKeyTraits
{
    using Handle = HCRYPTKEY;
    static BOOL Release(Handle handle) noexcept { return ::CryptDestroyKey(handle); }
};
struct COrvHashTraits
{
    using Handle = HCRYPTHASH;
    static BOOL Release(Handle handle) noexcept { return ::CryptDestroyHash(handle); }
};

// Owns one handle of CryptoAPI, or none (0). Not to be shared between threads.
template <class Traits>
class COrvCryptHandle
{
public:
    using Handle = typename Traits::Handle;

    COrvCryptHandle() noexcept = default;
    explicit COrvCryptHandle(Handle handle) noexcept : m_handle(handle) {}
    COrvCryptHandle(const COrvCryptHandle&) = delete;
    COrvCryptHandle& operator=(const COrvCryptHandle&) = delete;
    // Owners that report a failing release call Close before. Keeps the calling thread's last error.
    ~COrvCryptHandle()
    {
        const CVoLastErrorKeeper keeper;
        (void)Close();
    }

    [[nodiscard]] Handle Get() const noexcept { return m_handle; }
    [[nodiscard]] explicit operator bool() const noexcept { return m_handle != 0; }
    // Releases the handle; afterwards the object owns none. False when the platform refuses; the last error tells why.
    [[nodiscard]] bool Close() noexcept
    {
        const Handle handle = std::exchange(m_handle, 0);
        return handle == 0 || Traits::Release(handle) != FALSE;
    }
    // Takes over a handle. The object must own none.
    void Attach(Handle handle) noexcept { m_handle = handle; }

private:
    Handle m_handle = 0;
};
using COrvProviderHandle = COrvCryptHandle<COrvProviderTraits>;
using COrvKeyHandle = COrvCryptHandle<COrvKeyTraits>;
using COrvHashHandle = COrvCryptHandle<COrvHashTraits>;

// A hash under construction: CreateHash, AddBinData as often as needed, then GetHashValue or a signature.
class COrvHashBase
{
public:
    // A handle that cannot be destroyed is reported.
    virtual ~COrvHashBase();
    [[nodiscard]] virtual ALG_ID AlgorithmId() const noexcept = 0;

    COrvHashBase(const COrvHashBase&) = delete;
    COrvHashBase& operator=(const COrvHashBase&) = delete;

    // Begins a hash in a provider's context, which must outlive it; a hash begun before is destroyed.
    [[nodiscard]] HRESULT CreateHash(HCRYPTPROV provider) noexcept;
    // `bytes` may be null when `length` is 0.
    [[nodiscard]] HRESULT AddBinData(const BYTE* bytes, UINT32 length) noexcept;
    // Ends the hash: nothing can be added afterwards.
    [[nodiscard]] HRESULT GetHashValue(BYTE** buffer, UINT32* length) noexcept;
    // Destroys the hash; S_OK when there is none. A handle that cannot be destroyed is reported and dropped.
    HRESULT Clear() noexcept;

    // 0 while no hash is begun.
    [[nodiscard]] HCRYPTHASH Handle() const noexcept { return m_hash.Get(); }

protected:
    COrvHashBase() noexcept = default;

private:
    COrvHashHandle m_hash;
};

template <ALG_ID kAlgorithm>
class COrvHash final : public COrvHashBase
{
public:
    [[nodiscard]] ALG_ID AlgorithmId() const noexcept override { return kAlgorithm; }
};
// For checksums of old data only; signatures never use it.
using COrvMD5Hash = COrvHash<CALG_MD5>;
using COrvSHA1Hash = COrvHash<CALG_SHA1>;
using COrvSHA256Hash = COrvHash<CALG_SHA_256>;
using COrvSHA512Hash = COrvHash<CALG_SHA_512>;

// "sha1", "sha256" or "sha512", compared exactly; null for any other name. Throws std::bad_alloc.
[[nodiscard]] std::unique_ptr<COrvHashBase> CreateHashByName(CVoTextView name);
// The name of the hash that the library uses where none is asked for: "sha256".
[[nodiscard]] const wchar_t* DefaultHashName() noexcept;

// Destroys a hash object's handle at the end of a scope, before the provider that it lives in is released.
class CVoHashGuard
{
public:
    explicit CVoHashGuard(COrvHashBase& hash) noexcept : m_hash(hash) {}
    // A handle that cannot be destroyed is reported.
    ~CVoHashGuard();
    CVoHashGuard(const CVoHashGuard&) = delete;
    CVoHashGuard& operator=(const CVoHashGuard&) = delete;

private:
    COrvHashBase& m_hash;
};

// Owns a provider context and at most one key in it.
class COrvCryptKeyBase
{
public:
    COrvCryptKeyBase() noexcept = default;
    // Calls Done and reports its failure.
    virtual ~COrvCryptKeyBase();
    COrvCryptKeyBase(const COrvCryptKeyBase&) = delete;
    COrvCryptKeyBase& operator=(const COrvCryptKeyBase&) = delete;

    // Acquires a context without key container of the enhanced RSA and AES provider; one held before is released first.
    [[nodiscard]] HRESULT InitProvider() noexcept;
    // Destroys the key, then releases the context; both are tried, and the first error is returned. S_OK when there is neither.
    HRESULT Done() noexcept;

    // 0 while there is none. They belong to the object.
    [[nodiscard]] HCRYPTPROV Provider() const noexcept { return m_provider.Get(); }
    [[nodiscard]] HCRYPTKEY Key() const noexcept { return m_key.Get(); }
    // Empty and 0 until a provider has been acquired.
    [[nodiscard]] const std::wstring& ProviderName() const noexcept { return m_providerName; }
    [[nodiscard]] DWORD ProviderType() const noexcept { return m_providerType; }

protected:
    COrvProviderHandle m_provider; // outlives the key, which is in it
    COrvKeyHandle m_key;

private:
    std::wstring m_providerName;
    DWORD m_providerType = 0;
};

// The RSA key that signs or verifies.
class COrvRSAKey : public COrvCryptKeyBase
{
public:
    // The lengths that the provider makes keys of, in bits; multiples of 8.
    static constexpr UINT32 kMinimumBits = 384;
    static constexpr UINT32 kMaximumBits = 16384;

    // InitProvider.
    [[nodiscard]] HRESULT Init() noexcept;
    // Imports a key after Init; keys of the context are destroyed first. E_INVALIDARG for malformed hexadecimal text, the
    // provider's error for a blob that it does not take, NTE_BAD_DATA (0x80090005) for an RSA key blob that is shorter than its
    // own header says. The decoded bytes are wiped.
    [[nodiscard]] HRESULT ImportKey(CVoTextView hexText) noexcept;
    [[nodiscard]] HRESULT ImportKeyForSigning(CVoTextView hexText) noexcept;
    [[nodiscard]] HRESULT ImportKeyForVerifying(CVoTextView hexText) noexcept;

    // Makes a fresh pair of signature keys. E_INVALIDARG for a length that is out of range or no multiple of 8. The private
    // key's text is the caller's to guard and to wipe.
    [[nodiscard]] static HRESULT Generate(UINT32 bits, std::wstring& privateKey, std::wstring& publicKey) noexcept;
    // The public key of a private one. E_INVALIDARG for a public key and for malformed hexadecimal text, the provider's error
    // for a blob that it does not take.
    [[nodiscard]] static HRESULT GetPublicKeyFromPrivate(CVoTextView privateKey, std::wstring& publicKey) noexcept;

    // Whether the key is long enough for signatures over a hash (RFC 8017, section 9.2): 368 bits are for SHA-1, 496 for
    // SHA-256, 752 for SHA-512.
    [[nodiscard]] bool HasRoomFor(const COrvHashBase& hash) const noexcept;
    // Whether bytes can be a signature of the key at all: as long as the modulus, and a number below it (RFC 8017, section
    // 5.2.2). `signature` is in CryptoAPI's order, least significant byte first.
    [[nodiscard]] bool IsPossibleSignature(std::span<const BYTE> signature) const noexcept;

private:
    [[nodiscard]] HRESULT DestroyUserKey(DWORD keySpec) noexcept;
    [[nodiscard]] HRESULT ExportKey(DWORD blobType, std::wstring& hexText) const noexcept;

    bool m_isPrivate = false;
    DWORD m_bits = 0;
    std::vector<BYTE> m_modulus; // least significant byte first; empty while no key is imported
};

// Data that is hashed piece by piece.
class IVoHashInput
{
public:
    IVoHashInput() = default;
    IVoHashInput(const IVoHashInput&) = delete;
    IVoHashInput& operator=(const IVoHashInput&) = delete;

    // Adds all data to a hash that was begun (AddBinData). Called once. Reports its failures.
    [[nodiscard]] virtual HRESULT AddTo(COrvHashBase& hash) noexcept = 0;

protected:
    ~IVoHashInput() = default;
};

// A block of bytes, which must outlive it.
class CVoHashBlock final : public IVoHashInput
{
public:
    CVoHashBlock(const BYTE* data, UINT32 length) noexcept : m_data(data), m_length(length) {}
    [[nodiscard]] HRESULT AddTo(COrvHashBase& hash) noexcept override { return hash.AddBinData(m_data, m_length); }

private:
    const BYTE* m_data;
    UINT32 m_length;
};

// Hashes a block of bytes at once; the hash object tells the algorithm and is empty afterwards.
[[nodiscard]] HRESULT HashBytes(COrvHashBase& hash, const BYTE* bytes, UINT32 length, BYTE** value,
                                UINT32* valueLength) noexcept;

// Signs and verifies blocks of bytes. The hash object tells the algorithm and is empty afterwards. A key that is too short for
// the hash cannot sign (NTE_BAD_LEN, 0x80090004), and no signature of it is valid.
class COrvDigitalSignature
{
public:
    [[nodiscard]] static HRESULT SignString(const BYTE* data, UINT32 length, COrvHashBase& hash, CVoTextView privateKey,
                                            BYTE** signature, UINT32* signatureLength) noexcept;
    // S_OK with `result` false for a signature that is simply not valid, which is not reported. `result` is false on failure.
    [[nodiscard]] static HRESULT VerifyString(const BYTE* data, UINT32 length, COrvHashBase& hash, const BYTE* signature,
                                              UINT32 signatureLength, CVoTextView publicKey, bool& result) noexcept;
    // The same for data that need not be in memory at once. Also returns the failures of `data`.
    [[nodiscard]] static HRESULT VerifyString(IVoHashInput& data, COrvHashBase& hash, const BYTE* signature,
                                              UINT32 signatureLength, CVoTextView publicKey, bool& result) noexcept;
};
} // namespace OrvDigSign
