// Signed INI files: the file's content in a canonical text form, and an RSA signature of it in a section of the same file.
//
// The signature stands in the section "Signature" (in any case of letters): the values of all its keys, in file order and
// joined without separator, are Base64 text (either alphabet) of the signature's bytes in CryptoAPI's order. The key names mean
// nothing. All other sections are signed, through their canonical text in UTF-8 (SHA-512, RSA with PKCS #1 v1.5 padding). What
// counts as a section and an entry, and what does not count (comments, blank lines, anything in front of the first header), is
// told in VoUtilFileIO.h. docs/signed-ini.md shows a file step by step.
#pragma once

#include <base/VoMultiThreading.h>
#include <base/VoPlatform.h>
#include <base/VoText.h>
#include <win/VoUtilFileIO.h>

#include <string>
#include <string_view>
#include <vector>

namespace OrvSignedIniFileHandler
{
// Checks and signs one file. Any thread may call; an object does one thing at a time. Functions report their failures, and
// leave the object and their outputs untouched when they fail, except that `valid` is false then.
//
//     CVoSignedIniFileHandler2 handler;
//     bool valid = false;
//     if (hr = handler.Open(path); SUCCEEDED(hr))
//         hr = handler.Verify(publicKey, valid);
//     // when valid: read the values from handler.File(), which is what was checked, and not from the disk again
class CVoSignedIniFileHandler2
{
public:
    // The file's content is read here, once: what becomes of the file on disk afterwards has no influence.
    [[nodiscard]] HRESULT Open(CVoTextView path) noexcept;
    // A content that is in memory already, in place of a file.
    [[nodiscard]] HRESULT Parse(CVoBytesView bytes) noexcept;
    // What is checked and signed. For one thread at a time (see CVoIniFileIO), and not while another calls a function of the
    // handler.
    [[nodiscard]] const CVoIniFileIO& File() const noexcept { return m_file; }

    // Whether the file bears the signature of the key's owner. `publicKey` is the hexadecimal text of a CryptoAPI public-key
    // blob. S_OK with `valid` false for a signature that does not match. E_INVALIDARG for an empty key or malformed Base64
    // text, ERROR_NOT_FOUND for a file without a signature section, ERROR_NO_UNICODE_TRANSLATION for text that is not well
    // formed, or CryptoAPI's error for an unusable key.
    [[nodiscard]] HRESULT Verify(CVoTextView publicKey, bool& valid) noexcept;

    // The canonical text of all sections but the signature's, in file order. Verify and SignFile take white space off its end.
    [[nodiscard]] HRESULT GetDataString(std::wstring& text) noexcept;
    // The canonical text of one section: "[name]\r\n", then "key=value\r\n" for each entry in file order, without white space
    // at the end of key and value. A section without entries is "<EMPTY>", without its name and without a line end: signatures
    // depend on it. ERROR_NOT_FOUND when there is no such section.
    [[nodiscard]] HRESULT GetSectionDataString(CVoTextView section, std::wstring& text) noexcept;
    // Exactly what is signed: GetDataString without white space at its end.
    [[nodiscard]] HRESULT GetSignedText(std::wstring& text) noexcept;

    // The check itself: whether `signatureText` is the Base64 text of a signature of `dataText`. The codes of Verify.
    [[nodiscard]] static HRESULT VerifySign(CVoTextView dataText, CVoTextView publicKey, CVoTextView signatureText,
                                            bool& valid) noexcept;

    // Signs the content as it was read and writes the file with its new signature section: entries that the section had are
    // replaced at their place, a new section goes to the file's end, all other bytes stay. `privateKey` is the hexadecimal text
    // of a CryptoAPI private-key blob; it is not kept. The signature is spread over as many keys ("Line1", "Line2", ...) as
    // values of `lineLength` characters take; 0 makes it one. The file is replaced as CVoIniFileIO::Save does, without a path
    // (after Parse) it only changes in memory. E_INVALIDARG for an empty key, the codes of COrvDigitalSignature::SignString and
    // CVoIniFileIO::Save.
    [[nodiscard]] HRESULT SignFile(CVoTextView privateKey, UINT32 lineLength = 0) noexcept;

private:
    class CDataInput;
    template <class Text>
    [[nodiscard]] HRESULT AppendData(Text& text) const;
    template <class Text>
    [[nodiscard]] HRESULT AppendSectionData(CVoTextView section, std::vector<CVoIniEntry>& entries, Text& text) const;

    CVoIniFileIO m_file;
    CCriticalSection m_lock;
};
} // namespace OrvSignedIniFileHandler
