// Signed INI files (OrvSignedIniFileHandler.h).
#include <win/OrvSignedIniFileHandler.h>

#include "../base/utils/VoCodecKernels.h"

#include <base/VoCArray.h>
#include <base/VoErrorHandler.h>
#include <base/VoText.h>
#include <base/VoTextConversion.h>
#include <base/utils/VoDataConversion.h>
#include <win/OrvDigSign.h>

#include <algorithm>
#include <limits>
#include <memory>

namespace OrvSignedIniFileHandler
{
namespace
{
constexpr const wchar_t* kSignedIniSource = L"..\\..\\source\\win\\OrvSignedIniFileHandler";
constexpr const wchar_t* kSignatureSection = L"Signature";
// The canonical text of a section without entries. Signatures depend on it.
constexpr const wchar_t* kEmptySection = L"<EMPTY>";

// VoIniTrimRight; most texts end with a visible ASCII character and need no call.
[[nodiscard]] std::wstring_view TrimRight(std::wstring_view text) noexcept
{
    return !text.empty() && text.back() > L' ' && text.back() < 0x7F ? text : VoIniTrimRight(text);
}

// Collects canonical text as UTF-16.
class CWideText
{
public:
    explicit CWideText(size_t size) { m_text.reserve(size); }

    void AppendHeader(std::wstring_view section) { m_text.append(L"[").append(section).append(L"]\r\n"); }
    void AppendEmptySection() { m_text += kEmptySection; }
    void AppendEntry(std::wstring_view key, std::wstring_view value)
    {
        m_text.append(key).append(L"=").append(value).append(L"\r\n");
    }
    [[nodiscard]] std::wstring& Text() noexcept { return m_text; }

private:
    std::wstring m_text;
};

// Hashes canonical text as UTF-8, piece by piece, without the line end at the end of the whole text. Building, converting and
// hashing the text as a whole would take half as long again.
class CHashedText
{
public:
    // `hash` may be null: the text is only checked. Failures of AddBinData and of the conversion come as CVoHResultException.
    explicit CHashedText(OrvDigSign::COrvHashBase* hash)
        : m_hash(hash), m_room(kPieceSize), m_bytes(std::make_unique_for_overwrite<char[]>(m_room)), m_end(m_bytes.get())
    {
    }

    void AppendHeader(std::wstring_view section)
    {
        BeginLine(section.size() + 2);
        *m_end++ = '[';
        m_end = Put(section, m_end);
        *m_end++ = ']';
        m_isLineOpen = true;
    }
    void AppendEmptySection()
    {
        const std::wstring_view text = kEmptySection;
        BeginLine(text.size());
        m_end = Put(text, m_end);
    }
    void AppendEntry(std::wstring_view key, std::wstring_view value)
    {
        BeginLine(key.size() + value.size() + 1);
        char* to = Put(key, m_end);
        *to++ = '=';
        m_end = Put(value, to);
        m_isLineOpen = true;
    }
    // Hashes the bytes collected so far.
    void Flush()
    {
        const auto size = static_cast<UINT32>(m_end - m_bytes.get());
        m_end = m_bytes.get();
        if (!m_hash || size == 0)
            return;
        if (const HRESULT hr = m_hash->AddBinData(reinterpret_cast<const BYTE*>(m_bytes.get()), size); FAILED(hr))
            throw CVoHResultException(hr);
    }

private:
    static constexpr size_t kPieceSize = 0x4000;
    static constexpr size_t kMaximumPieceSize = std::numeric_limits<int>::max(); // what a conversion takes
    static constexpr size_t kMostBytesPerUnit = 3;

    // Ends the previous line and makes room for a line of that many units.
    void BeginLine(size_t units)
    {
        const size_t needed = kMostBytesPerUnit * units + 2;
        if (needed > m_room - static_cast<size_t>(m_end - m_bytes.get()))
        {
            Flush();
            if (needed > m_room)
            {
                if (needed > kMaximumPieceSize)
                    throw CVoHResultException(HResultFromWin32(ERROR_FILE_TOO_LARGE));
                m_bytes = std::make_unique_for_overwrite<char[]>(needed);
                m_room = needed;
                m_end = m_bytes.get();
            }
        }
        if (m_isLineOpen)
        {
            *m_end++ = '\r';
            *m_end++ = '\n';
        }
        m_isLineOpen = false;
    }
    // Writes a text and returns the place behind it.
    [[nodiscard]] static char* Put(std::wstring_view text, char* to)
    {
        if (VoCodecKernels::NarrowAscii(text, to))
            return to + text.size();
        const auto length = static_cast<int>(text.size());
        const int written = ::WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text.data(), length, to,
                                                  static_cast<int>(kMostBytesPerUnit) * length, nullptr, nullptr);
        if (written > 0)
            return to + written;
        // Take the code from the library's conversion, which also reports it.
        std::string none;
        const HRESULT hr = VoStringToUTF8(text, none);
        throw CVoHResultException(FAILED(hr) ? hr : E_FAIL);
    }
    OrvDigSign::COrvHashBase* m_hash;
    size_t m_room;
    std::unique_ptr<char[]> m_bytes;
    char* m_end;               // of what has been written
    bool m_isLineOpen = false; // its end is still to be written, unless it is the last
};

// The check itself. `data` is the canonical text in UTF-8.
[[nodiscard]] HRESULT VerifyData(OrvDigSign::IVoHashInput& data, std::wstring_view publicKey, std::wstring_view signatureText,
                                 bool& valid)
{
    constexpr CVoReporter report{ kSignedIniSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::VerifySign" };
    CVoByteBuffer signature;
    if (const HRESULT hr = VoDataConversion::Base64ToBin(signatureText, signature.PutBytes(), signature.PutLength());
        FAILED(hr))
        return report(105, hr);
    OrvDigSign::COrvSHA512Hash hash;
    const HRESULT hr =
        OrvDigSign::COrvDigitalSignature::VerifyString(data, hash, signature.Data(), signature.Length(), publicKey, valid);
    return FAILED(hr) ? report(109, hr) : S_OK;
}
} // namespace

HRESULT CVoSignedIniFileHandler2::Open(CVoTextView path) noexcept
{
    constexpr CVoReporter report{ kSignedIniSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::Open" };
    const auto body = [&]() -> HRESULT
    {
        CVoIniFileIO file;
        if (const HRESULT hr = file.Open(path); FAILED(hr))
            return report(128, hr);
        CAutoLock lock(&m_lock);
        m_file = std::move(file);
        return S_OK;
    };
    return report.Guard(135, body);
}

HRESULT CVoSignedIniFileHandler2::Parse(CVoBytesView bytes) noexcept
{
    constexpr CVoReporter report{ kSignedIniSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::Parse" };
    const auto body = [&]() -> HRESULT
    {
        CVoIniFileIO file;
        if (const HRESULT hr = file.Parse(bytes); FAILED(hr))
            return report(144, hr);
        CAutoLock lock(&m_lock);
        m_file = std::move(file);
        return S_OK;
    };
    return report.Guard(151, body);
}

// The canonical text of a handler's file, hashed while it is built.
class CVoSignedIniFileHandler2::CDataInput final : public OrvDigSign::IVoHashInput
{
public:
    explicit CDataInput(const CVoSignedIniFileHandler2& handler) noexcept : m_handler(handler) {}
    // NOLINTNEXTLINE(bugprone-exception-escape): Guard catches what the body throws.
    [[nodiscard]] HRESULT AddTo(OrvDigSign::COrvHashBase& hash) noexcept override
    {
        constexpr CVoReporter report{ kSignedIniSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::GetDataString" };
        const auto body = [&]() -> HRESULT
        {
            CHashedText text(&hash);
            if (const HRESULT hr = m_handler.AppendData(text); FAILED(hr))
                return hr;
            text.Flush();
            return S_OK;
        };
        return report.Guard(158, body);
    }

private:
    const CVoSignedIniFileHandler2& m_handler;
};

// NOLINTNEXTLINE(bugprone-exception-escape): Guard catches what the body throws.
HRESULT CVoSignedIniFileHandler2::Verify(CVoTextView publicKey, bool& valid) noexcept
{
    constexpr CVoReporter report{ kSignedIniSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::Verify" };
    const auto body = [&]() -> HRESULT
    {
        valid = false;
        if (publicKey.empty())
            return report(162, E_INVALIDARG);
        CAutoLock lock(&m_lock);
        std::vector<CVoIniEntry> lines;
        if (const HRESULT hr = m_file.GetSection(kSignatureSection, lines); FAILED(hr))
            return report(166, hr);
        std::wstring signature;
        for (const CVoIniEntry& line : lines)
            signature += VoIniTrimRight(line.value);
        // Check the file before the key, so that a bad file is reported as such. Only UTF-16 files can hold text that UTF-8
        // cannot.
        if (m_file.Encoding() == EVoTextEncoding::Utf16LittleEndian || m_file.Encoding() == EVoTextEncoding::Utf16BigEndian)
        {
            CHashedText text(nullptr);
            if (const HRESULT hr = AppendData(text); FAILED(hr))
                return report(172, hr);
        }
        CDataInput data(*this);
        const HRESULT hr = VerifyData(data, publicKey, signature, valid);
        return FAILED(hr) ? report(174, hr) : S_OK;
    };
    return report.Guard(178, body);
}

template <class Text>
HRESULT CVoSignedIniFileHandler2::AppendData(Text& text) const
{
    constexpr CVoReporter report{ kSignedIniSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::GetDataString" };
    std::vector<std::wstring_view> sections;
    if (const HRESULT hr = m_file.GetSectionNames(sections); FAILED(hr))
        return report(187, hr);
    std::vector<CVoIniEntry> entries;
    for (const std::wstring_view section : sections)
    {
        if (VoEqualsNoCase(section, kSignatureSection))
            continue;
        if (const HRESULT hr = AppendSectionData(section, entries, text); FAILED(hr))
            return report(194, hr);
    }
    return S_OK;
}

template <class Text>
HRESULT CVoSignedIniFileHandler2::AppendSectionData(CVoTextView section, std::vector<CVoIniEntry>& entries, Text& text) const
{
    constexpr CVoReporter report{ kSignedIniSource,
                                  L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::GetSectionDataString" };
    // Keys and values come as pairs, so their numbers are always equal.
    if (const HRESULT hr = m_file.GetSection(section, entries); FAILED(hr))
        return report(206, hr);
    if (entries.empty())
    {
        text.AppendEmptySection();
        return S_OK;
    }
    text.AppendHeader(section);
    for (const CVoIniEntry& entry : entries)
        text.AppendEntry(TrimRight(entry.key), TrimRight(entry.value));
    return S_OK;
}

HRESULT CVoSignedIniFileHandler2::GetDataString(std::wstring& text) noexcept
{
    constexpr CVoReporter report{ kSignedIniSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::GetDataString" };
    const auto body = [&]() -> HRESULT
    {
        CAutoLock lock(&m_lock);
        CWideText all(m_file.Size());
        if (const HRESULT hr = AppendData(all); FAILED(hr))
            return hr;
        text = std::move(all.Text());
        return S_OK;
    };
    return report.Guard(232, body);
}

HRESULT CVoSignedIniFileHandler2::GetSectionDataString(CVoTextView section, std::wstring& text) noexcept
{
    constexpr CVoReporter report{ kSignedIniSource,
                                  L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::GetSectionDataString" };
    const auto body = [&]() -> HRESULT
    {
        CAutoLock lock(&m_lock);
        std::vector<CVoIniEntry> entries;
        CWideText data(0);
        if (const HRESULT hr = AppendSectionData(section, entries, data); FAILED(hr))
            return hr;
        text = std::move(data.Text());
        return S_OK;
    };
    return report.Guard(248, body);
}

HRESULT CVoSignedIniFileHandler2::GetSignedText(std::wstring& text) noexcept
{
    constexpr CVoReporter report{ kSignedIniSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::GetSignedText" };
    std::wstring data;
    if (const HRESULT hr = GetDataString(data); FAILED(hr))
        return report(257, hr);
    data.resize(VoIniTrimRight(data).size());
    text = std::move(data);
    return S_OK;
}

HRESULT CVoSignedIniFileHandler2::VerifySign(CVoTextView dataText, CVoTextView publicKey, CVoTextView signatureText,
                                             bool& valid) noexcept
{
    constexpr CVoReporter report{ kSignedIniSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::VerifySign" };
    const auto body = [&]() -> HRESULT
    {
        valid = false;
        std::string data;
        if (const HRESULT hr = VoStringToUTF8(dataText, data); FAILED(hr))
            return report(270, hr);
        OrvDigSign::CVoHashBlock block(reinterpret_cast<const BYTE*>(data.data()), static_cast<UINT32>(data.size()));
        return VerifyData(block, publicKey, signatureText, valid);
    };
    return report.Guard(274, body);
}

HRESULT CVoSignedIniFileHandler2::SignFile(CVoTextView privateKey, UINT32 lineLength) noexcept
{
    constexpr CVoReporter report{ kSignedIniSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::SignFile" };
    const auto body = [&]() -> HRESULT
    {
        if (privateKey.empty())
            return report(280, E_INVALIDARG);
        CAutoLock lock(&m_lock);
        std::wstring text;
        if (const HRESULT hr = GetSignedText(text); FAILED(hr))
            return report(284, hr);
        std::string data;
        if (const HRESULT hr = VoStringToUTF8(text, data); FAILED(hr))
            return report(287, hr);
        OrvDigSign::COrvSHA512Hash hash;
        CVoByteBuffer signature;
        if (const HRESULT hr = OrvDigSign::COrvDigitalSignature::SignString(reinterpret_cast<const BYTE*>(data.data()),
                                                                            static_cast<UINT32>(data.size()), hash, privateKey,
                                                                            signature.PutBytes(), signature.PutLength());
            FAILED(hr))
            return report(294, hr);
        std::wstring signatureText;
        VoDataConversion::BinToBase64(signature.Data(), static_cast<INT32>(signature.Length()), false, signatureText, 0);

        // Change a copy: a failure leaves the content as it was read.
        std::string bytes;
        if (const HRESULT hr = m_file.GetBytes(bytes); FAILED(hr))
            return report(301, hr);
        CVoIniFileIO signedFile;
        if (const HRESULT hr = signedFile.Parse(bytes); FAILED(hr))
            return report(304, hr);
        if (const HRESULT hr = signedFile.ClearSection(kSignatureSection); FAILED(hr))
            return report(306, hr);
        const size_t step = lineLength > 0 ? lineLength : signatureText.size();
        UINT32 number = 0;
        for (std::wstring_view rest = signatureText; !rest.empty(); rest.remove_prefix(std::min(step, rest.size())))
            if (const HRESULT hr = signedFile.AddValue(kSignatureSection, VoFormat(L"Line%u", ++number), rest.substr(0, step));
                FAILED(hr))
                return report(312, hr);
        if (!m_file.Path().empty())
            if (const HRESULT hr = signedFile.SaveAs(m_file.Path()); FAILED(hr))
                return report(315, hr);
        m_file = std::move(signedFile);
        return S_OK;
    };
    return report.Guard(321, body);
}
} // namespace OrvSignedIniFileHandler
