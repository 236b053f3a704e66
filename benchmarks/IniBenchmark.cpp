// Reading INI files against the least that reading them can cost, values against the platform's profile functions, and the
// check of a signed file against the bare CryptoAPI calls over the same bytes.
#include "Benchmark.h"

#include <base/VoCArray.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>
#include <win/OrvDigSign.h>
#include <win/OrvSignedIniFileHandler.h>
#include <win/VoFile.h>
#include <win/VoUtilFileIO.h>

#include <cstdlib>

namespace
{
constexpr size_t kKeysPerSection = 1000;

void Check(bool isTrue)
{
    if (!isTrue)
        std::abort();
}

// UTF-8 text of at least that many bytes; every `accented`-th value has characters beyond ASCII, 0 for none.
std::string MakeIniFile(size_t size, size_t accented)
{
    std::string bytes;
    for (size_t i = 0; bytes.size() < size; ++i)
    {
        if (i % kKeysPerSection == 0)
            bytes += "\r\n; what the section is for\r\n[Section" + std::to_string(i / kKeysPerSection) + "]\r\n";
        bytes += "Key" + std::to_string(i) + " = a value of ordinary length " + std::to_string(i * 7919);
        bytes += accented > 0 && i % accented == 0 ? " \xC3\xA4\xE2\x82\xAC\r\n" : "\r\n";
    }
    return bytes;
}

class CTemporaryFile
{
public:
    explicit CTemporaryFile(std::string_view bytes)
    {
        std::wstring folder;
        Check(SUCCEEDED(VoGetTempPath(folder)));
        m_path = folder + L"\\voutils-benchmark-" + std::to_wstring(::GetCurrentProcessId()) + L".ini";
        CVoFileReplacement file;
        Check(SUCCEEDED(file.Write(m_path, bytes)) && SUCCEEDED(file.Commit()));
    }
    ~CTemporaryFile() { ::DeleteFileW(m_path.c_str()); }
    CTemporaryFile(const CTemporaryFile&) = delete;
    CTemporaryFile& operator=(const CTemporaryFile&) = delete;

    [[nodiscard]] const std::wstring& Path() const noexcept { return m_path; }

private:
    std::wstring m_path;
};

void CompareReading(const char* title, const std::string& bytes)
{
    const CTemporaryFile file(bytes);
    const auto readAndConvert = [&]
    {
        std::string read;
        std::wstring text;
        Check(SUCCEEDED(VoReadFile(file.Path(), read)) && SUCCEEDED(VoUTF8ToString(read, text)));
        Benchmark::Keep(text.back());
    };
    const auto open = [&]
    {
        CVoIniFileIO ini;
        Check(SUCCEEDED(ini.Open(file.Path())) && ini.HasSection(L"section0"));
    };
    const auto openAndFind = [&]
    {
        CVoIniFileIO ini;
        Check(SUCCEEDED(ini.Open(file.Path())));
        std::vector<std::wstring_view> sections;
        Check(SUCCEEDED(ini.GetSectionNames(sections)));
        for (const std::wstring_view section : sections)
            Check(!ini.FindValue(section, L"missing"));
    };
    Benchmark::Compare(title,
                       { { "read the file, convert it to UTF-16", readAndConvert },
                         { "CVoIniFileIO::Open", open },
                         { "the same, and index every section", openAndFind } },
                       { .samples = 9, .bytes = static_cast<double>(bytes.size()) });
}

void CompareValues()
{
    const CTemporaryFile file(MakeIniFile(20000, 0));
    CVoIniFileIO ini;
    Check(SUCCEEDED(ini.Open(file.Path())));
    Benchmark::Compare("One value of a file of 20 kB",
                       { { "GetPrivateProfileStringW",
                           [&]
    {
        wchar_t value[260];
        Check(::GetPrivateProfileStringW(L"Section0", L"Key200", L"", value, 260, file.Path().c_str()) > 0);
    } },
                         { "CVoIniFileIO::Open and FindValue",
                           [&]
    {
        CVoIniFileIO opened;
        Check(SUCCEEDED(opened.Open(file.Path())) && opened.FindValue(L"Section0", L"Key200"));
    } },
                         { "FindValue of an open file", [&] { Check(ini.FindValue(L"Section0", L"Key200").has_value()); } } });
}

// What a program without the library would call, over bytes that it has already.
bool VerifyBare(const std::string& data, const std::vector<BYTE>& key, const std::vector<BYTE>& signature)
{
    HCRYPTPROV provider = 0;
    HCRYPTKEY imported = 0;
    HCRYPTHASH hash = 0;
    Check(::CryptAcquireContextW(&provider, nullptr, MS_ENH_RSA_AES_PROV_W, PROV_RSA_AES, CRYPT_VERIFYCONTEXT | CRYPT_SILENT));
    Check(::CryptImportKey(provider, key.data(), static_cast<DWORD>(key.size()), 0, 0, &imported));
    Check(::CryptCreateHash(provider, CALG_SHA_512, 0, 0, &hash));
    Check(::CryptHashData(hash, reinterpret_cast<const BYTE*>(data.data()), static_cast<DWORD>(data.size()), 0));
    const bool valid =
        ::CryptVerifySignatureW(hash, signature.data(), static_cast<DWORD>(signature.size()), imported, nullptr, 0) != FALSE;
    ::CryptDestroyHash(hash);
    ::CryptDestroyKey(imported);
    ::CryptReleaseContext(provider, 0);
    return valid;
}

void CompareVerification()
{
    std::wstring privateKey;
    std::wstring publicKey;
    Check(SUCCEEDED(OrvDigSign::COrvRSAKey::Generate(2048, privateKey, publicKey)));
    OrvSignedIniFileHandler::CVoSignedIniFileHandler2 handler;
    Check(SUCCEEDED(handler.Parse(MakeIniFile(size_t{ 1 } << 20, 10))) && SUCCEEDED(handler.SignFile(privateKey, 76)));
    std::string file;
    Check(SUCCEEDED(handler.File().GetBytes(file)));

    std::wstring text;
    std::string data;
    Check(SUCCEEDED(handler.GetSignedText(text)) && SUCCEEDED(VoStringToUTF8(text, data)));
    std::vector<CVoIniEntry> lines;
    Check(SUCCEEDED(handler.File().GetSection(L"Signature", lines)));
    std::wstring signatureText;
    for (const CVoIniEntry& line : lines)
        signatureText += line.value;
    CVoByteBuffer signature;
    CVoByteBuffer key;
    Check(SUCCEEDED(VoDataConversion::Base64ToBin(signatureText, signature.PutBytes(), signature.PutLength())) &&
          SUCCEEDED(VoDataConversion::HexToBin(publicKey, key.PutBytes(), key.PutLength())));
    const std::vector<BYTE> signatureBytes(signature.Bytes().begin(), signature.Bytes().end());
    const std::vector<BYTE> keyBytes(key.Bytes().begin(), key.Bytes().end());

    const auto verify = [&]
    {
        bool valid = false;
        Check(SUCCEEDED(handler.Verify(publicKey, valid)) && valid);
    };
    const auto readAndVerify = [&]
    {
        OrvSignedIniFileHandler::CVoSignedIniFileHandler2 read;
        bool valid = false;
        Check(SUCCEEDED(read.Parse(file)) && SUCCEEDED(read.Verify(publicKey, valid)) && valid);
    };
    Benchmark::Compare(
        "Check of a signed file of 1 MiB",
        { { "the bare CryptoAPI calls, data at hand", [&] { Check(VerifyBare(data, keyBytes, signatureBytes)); } },
          { "Verify", verify },
          { "Parse and Verify", readAndVerify } },
        { .samples = 51, .bytes = static_cast<double>(file.size()) });
}

const Benchmark::CGroup kIni("ini", []
{
    CompareReading("An INI file of 10 MB, ASCII", MakeIniFile(10'000'000, 0));
    CompareReading("An INI file of 10 MB, all values accented", MakeIniFile(10'000'000, 1));
    CompareValues();
    CompareVerification();
});
} // namespace
