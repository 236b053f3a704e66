// hash, key, sign, verify: digests and RSA signatures.
#include "Console.h"
#include "Files.h"
#include "Interrupt.h"

#include <base/VoCArray.h>
#include <base/VoText.h>
#include <base/VoWipe.h>
#include <base/utils/VoDataConversion.h>
#include <win/OrvDigSign.h>

#include <array>
#include <limits>

namespace
{
using CHash = std::unique_ptr<OrvDigSign::COrvHashBase>;

// The library's factory makes the hashes for signatures. MD5 is not one of them.
CHash MakeHash(const std::string& name)
{
    if (name == "md5")
        return std::make_unique<OrvDigSign::COrvMD5Hash>();
    return OrvDigSign::CreateHashByName(FromUtf8(name));
}

void AddHashName(COptions& options, const std::string& option, std::string& name, bool withMd5)
{
    std::vector<std::pair<const char*, std::string>> names{ { "sha1", "sha1" },
                                                            { "sha256", "sha256" },
                                                            { "sha512", "sha512" } };
    if (withMd5)
        names.insert(names.begin(), { "md5", "md5" });
    options.AddChoice(option, name, std::move(names), "The hash").Required();
}

UINT32 LengthOf(const std::vector<BYTE>& bytes)
{
    if (bytes.size() > std::numeric_limits<UINT32>::max())
        throw CDetailedFailure(E_INVALIDARG, "more than 4 GiB");
    return static_cast<UINT32>(bytes.size());
}

class CHashCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        AddHashName(options, "NAME", m_name, true);
        options.SetFooter(
            "Reads bytes from standard input and prints their hash in hexadecimal.\nExample: voutils hash sha256 < "
            "photo.jpg\n");
    }
    void Run(CContext& context) override
    {
        const std::vector<BYTE> bytes = context.ReadInput();
        CVoByteBuffer value;
        Check(OrvDigSign::HashBytes(*MakeHash(m_name), bytes.data(), LengthOf(bytes), value.PutBytes(), value.PutLength()));
        std::wstring text;
        Check(VoDataConversion::BinToHex(value.Data(), static_cast<INT32>(value.Length()), text, 0));
        context.PutLine("hash", text);
    }

private:
    std::string m_name;
};

class CKeyNewCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("--private", m_privateFile, "Where the private key goes").Required().TypeName("FILE");
        options.Add("--public", m_publicFile, "Where the public key goes").Required().TypeName("FILE");
        options.Add("--bits", m_bits, "The key's length, 384 to 16384 in steps of 8; default 2048. SHA-512 needs 752")
            .TypeName("N");
        options.SetFooter("Both files hold hexadecimal text of key blobs. Guard the private one.\n");
    }
    void Run(CContext&) override
    {
        const std::wstring privatePath = VoGetFullPath(FromUtf8(m_privateFile));
        const std::wstring publicPath = VoGetFullPath(FromUtf8(m_publicFile));
        if (VoEqualsNoCase(privatePath, publicPath))
            throw CUsageError("--private and --public: the keys need a file each");
        CVoSecret<wchar_t> privateKey;
        std::wstring publicKey;
        Check(OrvDigSign::COrvRSAKey::Generate(m_bits, privateKey.Get(), publicKey));
        const CVoSecret<char> privateText(ToUtf8(privateKey.Get()) + '\n');
        const std::string publicText = ToUtf8(publicKey) + '\n';
        // Both files are written before one of them replaces an old file.
        const CInterruptDelay delay;
        COutputFile privateFile(privatePath);
        COutputFile publicFile(publicPath);
        Check(privateFile.Write(VoBytesOf(privateText.Get())));
        Check(publicFile.Write(VoBytesOf(publicText)));
        privateFile.Commit();
        publicFile.Commit();
    }

private:
    std::string m_privateFile;
    std::string m_publicFile;
    UINT32 m_bits = 2048;
};

class CKeyPublicCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("--private", m_privateFile, "The private key").Required().TypeName("FILE");
    }
    void Run(CContext& context) override
    {
        const CVoSecret<wchar_t> key(context.ReadTextFile(m_privateFile));
        std::wstring publicKey;
        Check(OrvDigSign::COrvRSAKey::GetPublicKeyFromPrivate(key.Get(), publicKey));
        context.PutLine("publicKey", publicKey);
    }

private:
    std::string m_privateFile;
};

class CSignCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        AddHashName(options, "--hash", m_hash, false);
        options.Add("--key", m_key, "The private key").Required().TypeName("FILE");
        options.SetFooter("Reads bytes from standard input and writes the signature's bytes, least significant first.\n");
    }
    void Run(CContext& context) override
    {
        const CVoSecret<wchar_t> key(context.ReadTextFile(m_key));
        const std::vector<BYTE> bytes = context.ReadInput();
        CVoByteBuffer signature;
        Check(OrvDigSign::COrvDigitalSignature::SignString(bytes.data(), LengthOf(bytes), *MakeHash(m_hash), key.Get(),
                                                           signature.PutBytes(), signature.PutLength()));
        context.PutBytes("signatureBase64", signature.Bytes());
    }

private:
    std::string m_hash;
    std::string m_key;
};

class CVerifyCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        AddHashName(options, "--hash", m_hash, false);
        options.Add("--key", m_key, "The public key").Required().TypeName("FILE");
        options.Add("--signature", m_signature, "The signature's bytes").Required().TypeName("FILE");
        options.SetFooter(
            "Reads bytes from standard input and prints \"valid\" (exit code 0) or \"not valid\" (exit code 1).\n");
    }
    void Run(CContext& context) override
    {
        const std::wstring key = context.ReadTextFile(m_key);
        const std::vector<BYTE> signature = context.ReadFile(m_signature);
        const std::vector<BYTE> bytes = context.ReadInput();
        bool valid = false;
        Check(OrvDigSign::COrvDigitalSignature::VerifyString(bytes.data(), LengthOf(bytes), *MakeHash(m_hash), signature.data(),
                                                             LengthOf(signature), key, valid));
        context.PutValidity(valid);
    }

private:
    std::string m_hash;
    std::string m_key;
    std::string m_signature;
};
} // namespace

std::span<const CCommandEntry> SignatureCommands()
{
    static constexpr std::array kCommands{
        CCommandEntry{ nullptr, "hash", "The hash of bytes", MakeCommand<CHashCommand> },
        CCommandEntry{ "key", "new", "Make an RSA key pair", MakeCommand<CKeyNewCommand> },
        CCommandEntry{ "key", "public", "Print the public half of a private key", MakeCommand<CKeyPublicCommand> },
        CCommandEntry{ nullptr, "sign", "Sign bytes with a private key", MakeCommand<CSignCommand> },
        CCommandEntry{ nullptr, "verify", "Check a signature with a public key", MakeCommand<CVerifyCommand> },
    };
    return kCommands;
}
