// Tests of signed INI files.
#include <win/OrvDigSign.h>
#include <win/OrvSignedIniFileHandler.h>

#include <base/VoUtils.h>

#include "support/ImportHook.h"
#include "support/KeyPairs.h"
#include "support/LogCapture.h"
#include "support/TestMain.h"

#include <gtest/gtest.h>

using testing::HasSubstr;
using namespace TestSupport;
using OrvSignedIniFileHandler::CVoSignedIniFileHandler2;

namespace
{
constexpr const wchar_t* kSignedIniSource = L"..\\..\\source\\win\\OrvSignedIniFileHandler";
constexpr const wchar_t* kClass = L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::";

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

std::string Signed(std::string_view bytes, UINT32 lineLength = 0)
{
    CVoSignedIniFileHandler2 handler;
    EXPECT_EQ(handler.Parse(bytes), S_OK);
    EXPECT_EQ(handler.SignFile(kKnownPrivateKey, lineLength), S_OK);
    return FileBytes(handler);
}

std::string Replaced(std::string text, std::string_view from, std::string_view to)
{
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

TEST(SignedIniFile, ASectionHasACanonicalTextOfItsOwn)
{
    CVoSignedIniFileHandler2 handler;
    ASSERT_EQ(handler.Parse("[A]\nx=1\n[B]\n"), S_OK);
    std::wstring text;
    EXPECT_EQ(handler.GetSectionDataString(L"a", text), S_OK);
    EXPECT_EQ(text, L"[a]\r\nx=1\r\n") << "the name as it was asked for";
    EXPECT_EQ(handler.GetSectionDataString(L"C", text), HResultFromWin32(ERROR_NOT_FOUND));
    EXPECT_EQ(text, L"[a]\r\nx=1\r\n");
}

TEST(SignedIniFile, ProtectsExactlyWhatCanBeRead)
{
    const std::string file =
        Signed("; top\r\n[A]\r\nx=1\r\nkey=value\r\n\r\n[Empty]\r\n[B]\r\ny=\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80 2\r\n", 40);
    const size_t at = file.find("Line1=") + 6;
    const std::string start = file.substr(at, 2);
    // What is replaced by what, and whether the signature still holds.
    const std::tuple<std::string, std::string, bool> cases[] = {
        { "x=1", "  x \t=  1 \t ", true },
        { "; top", "x=1\n;; other\n", true },
        { "[Signature]", "[sIGNATURE]", true },
        { "Line1", "Any name", true },
        { "\r\nLine2", " \t\r\nLine2", true }, // white space behind a line of the signature
        { "[Empty]", "[Void]", true },         // the name of an empty section is not signed
        { "x=1", "x=2", false },
        { "x=1\r\nkey=value", "key=value\r\nx=1", false },
        { "[Empty]\r\n", "[Empty]\r\na=\r\n", false },
        { "[Empty]\r\n", "", false },
        { "[A]", "[a]", false },
        { start, start == "AA" ? "BB" : "AA", false },
        { file.substr(at, 4), "", false },              // a signature that is too short
        { file.substr(file.find("Line1")), "", false }, // an empty one
    };
    bool valid = false;
    for (const auto& [from, to, expected] : cases)
    {
        EXPECT_EQ(Verify(Replaced(file, from, to), kKnownPublicKey, valid), S_OK);
        EXPECT_EQ(valid, expected) << from << " -> " << to;
    }
    EXPECT_EQ(Verify(file, kOtherPublicKey, valid = true), S_OK);
    EXPECT_FALSE(valid);
}

// Verify hashes the text piece by piece, SignFile as a whole.
TEST(SignedIniFile, AFileOfManyPiecesIsSignedCompletely)
{
    std::string file;
    for (const size_t length : { 3u, 5000u, 16379u, 16384u, 70000u, 1u, 40000u })
        file += "[S" + std::to_string(length) + "]\n[T" + std::to_string(length) + "]\nkey=" + std::string(length, 'v') +
                "\n\xE2\x82\xAC=" + std::string(length, 'w') + "\xC3\xA4\n";
    file = Signed(file, 76);
    bool valid = false;
    EXPECT_EQ(Verify(file, kKnownPublicKey, valid), S_OK);
    EXPECT_TRUE(valid);
    EXPECT_EQ(Verify(Replaced(file, "w\xC3\xA4\n\n[Sign", "w\xC3\xA5\n\n[Sign"), kKnownPublicKey, valid), S_OK);
    EXPECT_FALSE(valid);
    CFailOnCall<decltype(&::CryptHashData)> fail("advapi32.dll", "CryptHashData", 3, FALSE,
                                                 static_cast<DWORD>(NTE_BAD_HASH_STATE));
    EXPECT_EQ(Verify(file, kKnownPublicKey, valid = true), NTE_BAD_HASH_STATE);
    EXPECT_FALSE(valid);
}

TEST(SignedIniFile, SplitsTheSignatureIntoKeysAndKeepsTheRestOfTheFile)
{
    const std::string file = Signed("[A]\nx=1\n\n[SIGNATURE]\n; keep\nold=AAAA\nold=BBBB\n\n[B]\ny=2\n", 76);
    // 172 characters of Base64, in lines of 76
    const std::string line(76, '.');
    EXPECT_THAT(file, testing::MatchesRegex("\\[A\\]\nx=1\n\n\\[SIGNATURE\\]\n; keep\nLine1=" + line + "\nLine2=" + line +
                                            "\nLine3=" + std::string(20, '.') + "\n\n\\[B\\]\ny=2\n"));
    // Signing again gives the same file: RSA with this padding has no randomness.
    EXPECT_EQ(Signed(file, 76), file);
    EXPECT_THAT(Signed("[A]\nx=1\n"), HasSubstr("[A]\nx=1\n\n[Signature]\nLine1="));
}

TEST(SignedIniFile, FailuresAreReportedThroughTheChain)
{
    const HRESULT notFound = HResultFromWin32(ERROR_NOT_FOUND);
    const std::wstring verify = std::wstring(kClass) + L"Verify";
    // Text that no UTF-8 can stand for: half a surrogate pair in a UTF-16 file.
    const std::string malformed("\xFF\xFE[\0A\0]\0\n\0x\0=\0\x00\xD8\n\0[\0S\0i\0g\0n\0a\0t\0u\0r\0e\0]\0\n\0", 40);
    const std::tuple<std::string, std::wstring, HRESULT, testing::Matcher<const CLogLine&>> cases[] = {
        { "[A]\nx=1\n", L"", E_INVALIDARG, IsReport(kSignedIniSource, 162, verify, E_INVALIDARG) },
        { "[A]\nx=1\n", kKnownPublicKey, notFound, IsReportBy(L"CVoIniFileIO::GetSection", notFound) },
        { "[Signature]\ns=!!!!\n", kKnownPublicKey, E_INVALIDARG,
          IsReportBy(std::wstring(kClass) + L"VerifySign", E_INVALIDARG) },
        { malformed, kKnownPublicKey, HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION), testing::_ },
    };
    for (const auto& [bytes, key, expected, report] : cases)
    {
        CLogCapture log;
        bool valid = true;
        EXPECT_EQ(Verify(bytes, key, valid), expected);
        EXPECT_FALSE(valid);
        EXPECT_THAT(log.Lines(), testing::Contains(report));
        EXPECT_THAT(log.Lines().back(), IsReportBy(verify, expected));
    }
    CVoSignedIniFileHandler2 handler;
    EXPECT_EQ(handler.SignFile(L""), E_INVALIDARG);
    EXPECT_TRUE(FAILED(handler.SignFile(kKnownPublicKey))) << "a public key cannot sign";
    EXPECT_EQ(FileBytes(handler), "");
}

TEST(SignedIniFile, SigningAFileOnDiskReplacesItCompletelyOrNotAtAll)
{
    const std::filesystem::path path = MakeTestFolder(L"signed") / L"file.ini";
    const std::string plain = "[A]\nx=1\n";
    WriteTestFile(path, plain);
    CVoSignedIniFileHandler2 handler;
    ASSERT_EQ(handler.Open(path.wstring()), S_OK);
    {
        CFailOnCall<decltype(&::MoveFileExW)> fail("kernel32.dll", "MoveFileExW", 1, FALSE, ERROR_SHARING_VIOLATION);
        EXPECT_EQ(handler.SignFile(kKnownPrivateKey, 64), HResultFromWin32(ERROR_SHARING_VIOLATION));
    }
    EXPECT_EQ(ReadTestFile(path), plain);
    EXPECT_EQ(FileBytes(handler), plain);
    EXPECT_EQ(handler.SignFile(kKnownPrivateKey, 64), S_OK);
    EXPECT_EQ(ReadTestFile(path), FileBytes(handler));
    EXPECT_EQ(ReadTestFile(path), Signed(plain, 64));
}
} // namespace
