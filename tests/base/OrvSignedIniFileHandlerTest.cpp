#include <win/OrvSignedIniFileHandler.h>

#include <base/VoUtils.h>

#include "support/ImportHook.h"
#include "support/KeyPairs.h"
#include "support/LogCapture.h"
#include "support/TestMain.h"

#include <gtest/gtest.h>

#include <fstream>

using testing::ElementsAre;
using testing::HasSubstr;
using namespace TestSupport;
using OrvSignedIniFileHandler::CVoSignedIniFileHandler2;

namespace
{
constexpr const wchar_t* kSource = L"..\\..\\source\\win\\OrvSignedIniFileHandler";
constexpr const wchar_t* kClass = L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::";

// A 1024-bit RSA key, and a file whose canonical text an independent implementation (openssl dgst -sha512 -sign) has signed
// with it: the bytes in reverse order, in Base64.
constexpr const wchar_t* kPublicKey =
    L"0602000000240000525341310004000001000100B98B2D6A83D7CBB880F26DDB0785FF230ECE46B23161CFCE44A48D2FCA6E906F3F7EFBD5614E"
    L"78F71B1BF3F9F4B9D9B34D49711400982C58CB6AF743A375EEF60E258829CE862AE0EECC31513585A0C5071B782B441AF3F28E670EA58666B67C"
    L"ACA576B3AB7F8B5D496A2B26051AB48588920139671270880C29D446180A4BAA";
constexpr const char* kSignedFile = "; made by hand\r\n[Settings]\r\n  Name  = Gr\xC3\xB6\xC3\x9F"
                                    "e  x \t\n"
                                    "empty=\n"
                                    "name2\n"
                                    "Name=2\r\n"
                                    "[nothing]\r\n; comment\r\n"
                                    "[signature]\r\n"
                                    "a=zsyxd8HrNEV3gMW8X9Qp0SY252-5QbtVr-GLaQIEilqb2YjcN2g91v2ohwDGyzdnv9m5OZ\r\n"
                                    "b=jshfMLwca_jKwHKrYtbth8xyPuLYwmAsdnzB5NOjTPUFbpyiiXMmEPgbFREWURK4XrU_Q6\r\n"
                                    "a=EyOgDcDN1kEokoDK2cVEPxLdSk67640\r\n"
                                    "[Last]\r\nk=;v\r\n";
constexpr const wchar_t* kSignedText = L"[Settings]\r\nName=Gr\u00F6\u00DFe  x\r\nempty=\r\nName=2\r\n<EMPTY>[Last]\r\nk=;v";

std::string FileBytes(const CVoSignedIniFileHandler2& handler)
{
    std::string bytes;
    EXPECT_EQ(handler.File().GetBytes(bytes), S_OK);
    return bytes;
}

HRESULT Verify(std::string_view bytes, std::wstring_view key, bool& valid)
{
    CVoSignedIniFileHandler2 handler;
    EXPECT_EQ(handler.Parse(bytes), S_OK);
    return handler.Verify(key, valid);
}

std::string Signed(std::string_view bytes, const SKeyPair& keys, UINT32 lineLength = 0)
{
    CVoSignedIniFileHandler2 handler;
    EXPECT_EQ(handler.Parse(bytes), S_OK);
    EXPECT_EQ(handler.SignFile(keys.privateKey, lineLength), S_OK);
    return FileBytes(handler);
}

std::string Replaced(std::string text, std::string_view from, std::string_view to)
{
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

TEST(SignedIniFile, CanonicalTextIsTheLaidDownOne)
{
    struct SCase
    {
        const char* file;
        const wchar_t* data;
        const wchar_t* signedText;
    };
    for (const SCase& item : std::vector<SCase>{
             { "", L"", L"" },
             { "[A]\nx=1\n", L"[A]\r\nx=1\r\n", L"[A]\r\nx=1" },
             { "[A]\n key \t =  v  w \t\r\n; c\n\nz=\n", L"[A]\r\nkey=v  w\r\nz=\r\n", L"[A]\r\nkey=v  w\r\nz=" },
             { "[A]\n[B]\n[C]\nx=1\n[D]\n", L"<EMPTY><EMPTY>[C]\r\nx=1\r\n<EMPTY>", L"<EMPTY><EMPTY>[C]\r\nx=1\r\n<EMPTY>" },
             { "[SIGNATURE]\na=b\n[A]\nx=1\n[sigNature]\nc=d\n", L"[A]\r\nx=1\r\n", L"[A]\r\nx=1" },
             { "[A]\nx=1\nX=2\n[a]\ny=3\n", L"[A]\r\nx=1\r\nX=2\r\ny=3\r\n", L"[A]\r\nx=1\r\nX=2\r\ny=3" } })
    {
        CVoSignedIniFileHandler2 handler;
        ASSERT_EQ(handler.Parse(item.file), S_OK);
        std::wstring text;
        EXPECT_EQ(handler.GetDataString(text), S_OK);
        EXPECT_EQ(text, item.data) << item.file;
        EXPECT_EQ(handler.GetSignedText(text), S_OK);
        EXPECT_EQ(text, item.signedText) << item.file;
    }
    CVoSignedIniFileHandler2 handler;
    ASSERT_EQ(handler.Parse("[A]\nx=1\n[B]\n"), S_OK);
    std::wstring text;
    EXPECT_EQ(handler.GetSectionDataString(L"a", text), S_OK);
    EXPECT_EQ(text, L"[a]\r\nx=1\r\n") << "the name as it was asked for";
    EXPECT_EQ(handler.GetSectionDataString(L"B", text), S_OK);
    EXPECT_EQ(text, L"<EMPTY>");
    EXPECT_EQ(handler.GetSectionDataString(L"C", text), HResultFromWin32(ERROR_NOT_FOUND));
    EXPECT_EQ(text, L"<EMPTY>");
}

TEST(SignedIniFile, AcceptsASignatureMadeElsewhere)
{
    CVoSignedIniFileHandler2 handler;
    ASSERT_EQ(handler.Parse(kSignedFile), S_OK);
    std::wstring text;
    EXPECT_EQ(handler.GetSignedText(text), S_OK);
    EXPECT_EQ(text, kSignedText);
    bool valid = false;
    EXPECT_EQ(handler.Verify(kPublicKey, valid), S_OK);
    EXPECT_TRUE(valid);
}

TEST(SignedIniFile, OnlyWhatIsReadIsProtected)
{
    const auto [keys, others] = MakeTwoKeyPairs();
    const std::string file = Signed(
        "; top\r\n[A]\r\nx=1\r\nkey=value\r\n\r\n[Empty]\r\n[B]\r\ny=\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80 2\r\n", keys, 40);
    const auto isValid = [&](const std::string& bytes)
    {
        bool valid = false;
        EXPECT_EQ(Verify(bytes, keys.publicKey, valid), S_OK);
        return valid;
    };
    EXPECT_TRUE(isValid(file));
    const auto changed = [&](std::string_view from, std::string_view to) { return isValid(Replaced(file, from, to)); };
    EXPECT_TRUE(changed("x=1", "  x \t=  1 \t "));
    EXPECT_TRUE(changed("; top", "x=1\n;; other\n"));
    EXPECT_TRUE(changed("key=value\r\n", "key=value\n; x=5\n\n"));
    EXPECT_TRUE(changed("[Signature]", "[sIGNATURE]"));
    EXPECT_TRUE(changed("Line1", "Any name"));
    EXPECT_TRUE(changed("[Empty]", "[Void]")) << "the name of an empty section is not signed";
    EXPECT_FALSE(changed("x=1", "x=2"));
    EXPECT_FALSE(changed("x=1", "X=1"));
    EXPECT_FALSE(changed("x=1\r\nkey=value", "key=value\r\nx=1"));
    EXPECT_FALSE(changed("x=1\r\n", "x=1\r\nx=2\r\n"));
    EXPECT_FALSE(changed("key=value", "key=val  ue"));
    EXPECT_FALSE(changed("[Empty]\r\n", "[Empty]\r\na=\r\n"));
    EXPECT_FALSE(changed("[Empty]\r\n", ""));
    EXPECT_FALSE(changed("[Empty]\r\n[B]\r\n", "[B]\r\n[Empty]\r\n"));
    EXPECT_FALSE(changed("[A]", "[a]"));
    const size_t at = file.find("Line1=") + 6;
    EXPECT_FALSE(changed(file.substr(at, 2), file[at] == 'A' && file[at + 1] == 'A' ? "BB" : "AA"));
    EXPECT_FALSE(changed(file.substr(at, 4), "")) << "a signature that is too short";
    EXPECT_FALSE(isValid(file.substr(0, file.find("Line1")))) << "an empty signature";
    EXPECT_FALSE(isValid(Replaced(file, "Line1", "; Line1")));

    bool valid = true;
    EXPECT_EQ(Verify(file, others.publicKey, valid), S_OK);
    EXPECT_FALSE(valid);
}

// Verify hashes the text piece by piece, SignFile as a whole.
TEST(SignedIniFile, AFileOfManyPiecesIsSignedWhole)
{
    const SKeyPair keys;
    std::string file;
    for (const size_t length : { 3u, 5000u, 16379u, 16384u, 70000u, 1u, 40000u })
        file += "[S" + std::to_string(length) + "]\n[T" + std::to_string(length) + "]\nkey=" + std::string(length, 'v') +
                "\n\xE2\x82\xAC=" + std::string(length, 'w') + "\xC3\xA4\n";
    file = Signed(file, keys, 76);
    bool valid = false;
    EXPECT_EQ(Verify(file, keys.publicKey, valid), S_OK);
    EXPECT_TRUE(valid);
    EXPECT_EQ(Verify(Replaced(file, "w\xC3\xA4\n\n[Sign", "w\xC3\xA5\n\n[Sign"), keys.publicKey, valid), S_OK);
    EXPECT_FALSE(valid);
    CFailOnCall<decltype(&::CryptHashData)> fail("advapi32.dll", "CryptHashData", 3, FALSE,
                                                 static_cast<DWORD>(NTE_BAD_HASH_STATE));
    EXPECT_EQ(Verify(file, keys.publicKey, valid = true), NTE_BAD_HASH_STATE);
    EXPECT_FALSE(valid);
}

TEST(SignedIniFile, SpreadsTheSignatureAndKeepsTheRestOfTheFile)
{
    const SKeyPair keys;
    const std::string front = "[A]\nx=1\n\n[SIGNATURE]\n; keep\nold=AAAA\nold=BBBB\n\n";
    const std::string file = Signed(front + "[B]\ny=2\n", keys, 76);
    EXPECT_EQ(file.find("[A]\nx=1\n\n[SIGNATURE]\n; keep\nLine1="), 0u);
    EXPECT_EQ(file.substr(file.size() - 9), "\n[B]\ny=2\n");
    EXPECT_THAT(file, testing::Not(HasSubstr("old")));
    CVoIniFileIO read;
    ASSERT_EQ(read.Parse(file), S_OK);
    std::vector<CVoIniEntry> lines;
    ASSERT_EQ(read.GetSection(L"signature", lines), S_OK);
    ASSERT_EQ(lines.size(), 3u) << "172 characters of Base64";
    EXPECT_EQ(lines[0].value.size(), 76u);
    EXPECT_EQ(lines[1].value.size(), 76u);
    EXPECT_EQ(lines[2].value.size(), 20u);
    // Signing again gives the same file: RSA with this padding has no randomness.
    EXPECT_EQ(Signed(file, keys, 76), file);
    EXPECT_THAT(Signed("[A]\nx=1\n", keys), HasSubstr("[A]\nx=1\n\n[Signature]\nLine1="));
    // In any encoding the same text is signed.
    CVoIniFileIO wide;
    ASSERT_EQ(wide.Parse(file), S_OK);
    ASSERT_EQ(wide.SetEncoding(EVoTextEncoding::Utf16BigEndian), S_OK);
    std::string bytes;
    ASSERT_EQ(wide.GetBytes(bytes), S_OK);
    bool valid = false;
    EXPECT_EQ(Verify(bytes, keys.publicKey, valid), S_OK);
    EXPECT_TRUE(valid);
}

TEST(SignedIniFile, FailuresAreReportedThroughTheChain)
{
    const SKeyPair keys;
    const std::string file = Signed("[A]\nx=1\n", keys);
    const std::wstring verify = std::wstring(kClass) + L"Verify";
    const std::wstring verifySign = std::wstring(kClass) + L"VerifySign";
    CLogCapture log;
    bool valid = true;
    EXPECT_EQ(Verify(file, L"", valid), E_INVALIDARG);
    EXPECT_FALSE(valid);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 162, verify, E_INVALIDARG)));

    log.Clear();
    const HRESULT notFound = HResultFromWin32(ERROR_NOT_FOUND);
    EXPECT_EQ(Verify("[A]\nx=1\n", keys.publicKey, valid = true), notFound);
    EXPECT_FALSE(valid);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"CVoIniFileIO::GetSection", notFound), IsReportBy(verify, notFound)));

    log.Clear();
    EXPECT_EQ(Verify("[A]\nx=1\n[Signature]\ns=!!!!\n", keys.publicKey, valid = true), E_INVALIDARG);
    EXPECT_FALSE(valid);
    ASSERT_GE(log.Lines().size(), 2u);
    EXPECT_THAT(log.Lines()[log.Lines().size() - 2], IsReportBy(verifySign, E_INVALIDARG));
    EXPECT_THAT(log.Lines().back(), IsReportBy(verify, E_INVALIDARG));

    EXPECT_TRUE(FAILED(Verify(file, L"0602", valid = true))) << "no key";
    EXPECT_FALSE(valid);
    // Text that no UTF-8 can stand for: half a surrogate pair in a UTF-16 file.
    const std::string malformed("\xFF\xFE[\0A\0]\0\n\0x\0=\0\x00\xD8\n\0[\0S\0i\0g\0n\0a\0t\0u\0r\0e\0]\0\n\0", 40);
    EXPECT_EQ(Verify(malformed, keys.publicKey, valid = true), HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_FALSE(valid);

    EXPECT_EQ(CVoSignedIniFileHandler2::VerifySign(L"x", L"", L"AAAA", valid = true), E_INVALIDARG);
    EXPECT_FALSE(valid);
    CVoSignedIniFileHandler2 handler;
    EXPECT_EQ(handler.SignFile(L""), E_INVALIDARG);
    EXPECT_TRUE(FAILED(handler.SignFile(keys.publicKey))) << "a public key cannot sign";
    EXPECT_EQ(FileBytes(handler), "");
}

TEST(SignedIniFile, SigningAFileOnDiskChangesItWholeOrNotAtAll)
{
    const SKeyPair keys;
    const std::filesystem::path path = MakeTestFolder(L"signed") / L"file.ini";
    const auto contentOf = [&]
    {
        std::ifstream file(path, std::ios::binary);
        return std::string{ std::istreambuf_iterator<char>(file), {} };
    };
    const std::string plain = "[A]\nx=1\n";
    std::ofstream(path, std::ios::binary) << plain;
    CVoSignedIniFileHandler2 handler;
    ASSERT_EQ(handler.Open(path.wstring()), S_OK);
    {
        CFailOnCall<decltype(&::MoveFileExW)> fail("kernel32.dll", "MoveFileExW", 1, FALSE, ERROR_SHARING_VIOLATION);
        EXPECT_EQ(handler.SignFile(keys.privateKey, 64), HResultFromWin32(ERROR_SHARING_VIOLATION));
    }
    EXPECT_EQ(contentOf(), plain);
    EXPECT_EQ(FileBytes(handler), plain);
    EXPECT_EQ(handler.SignFile(keys.privateKey, 64), S_OK);
    EXPECT_EQ(contentOf(), FileBytes(handler));
    EXPECT_EQ(contentOf(), Signed(plain, keys, 64));
    CVoSignedIniFileHandler2 read;
    bool valid = false;
    EXPECT_EQ(read.Open(path.wstring()), S_OK);
    EXPECT_EQ(read.Verify(keys.publicKey, valid), S_OK);
    EXPECT_TRUE(valid);
}
} // namespace
