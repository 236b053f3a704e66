#include <win/OrvSignedIniFileHandler.h>

#include <base/VoCArray.h>
#include <base/VoErrorHandler.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>
#include <win/OrvDigSign.h>
#include <win/VoFile.h>

#include <algorithm>
#include <emmintrin.h>
#include <memory>

namespace OrvSignedIniFileHandler
{
namespace
{
constexpr const wchar_t* kSource = L"..\\..\\source\\win\\OrvSignedIniFileHandler";
constexpr const wchar_t* kSignatureSection = L"Signature";
// Stands for a section without entries; signatures depend on it.
constexpr const wchar_t* kEmptySection = L"<EMPTY>";

[[nodiscard]] const BYTE* Bytes(std::string_view text) noexcept
{
    return reinterpret_cast<const BYTE*>(text.data());
}

// Where canonical text goes.
class CWideText
{
public:
    explicit CWideText(size_t size) { m_text.reserve(size); }

    void Append(std::wstring_view text) { m_text += text; }
    void AppendEntry(std::wstring_view key, std::wstring_view value)
    {
        m_text.append(key).append(L"=").append(value).append(L"\r\n");
    }
    [[nodiscard]] std::wstring& Text() noexcept { return m_text; }

private:
    std::wstring m_text;
};

// The same in UTF-8, at once: text that is built and converted apart takes half as long again as hashing it.
class CUtf8Text
{
public:
    // `size` in bytes is a guess.
    explicit CUtf8Text(size_t size)
        : m_room(size + kSlack), m_bytes(std::make_unique_for_overwrite<char[]>(m_room)), m_end(m_bytes.get())
    {
    }

    void Append(std::wstring_view text)
    {
        MakeRoom(text.size());
        m_end = Put(text, m_end);
    }
    void AppendEntry(std::wstring_view key, std::wstring_view value)
    {
        MakeRoom(key.size() + value.size() + 3);
        char* to = Put(key, m_end);
        *to++ = '=';
        to = Put(value, to);
        *to++ = '\r';
        *to++ = '\n';
        m_end = to;
    }
    // The text without white space at its end: line ends, because every other part has been trimmed.
    [[nodiscard]] std::string_view Trimmed() const noexcept
    {
        std::string_view bytes(m_bytes.get(), Size());
        while (!bytes.empty() && (bytes.back() == '\r' || bytes.back() == '\n'))
            bytes.remove_suffix(1);
        return bytes;
    }

private:
    static constexpr size_t kSlack = 4096;

    [[nodiscard]] size_t Size() const noexcept { return static_cast<size_t>(m_end - m_bytes.get()); }
    // For that many units more.
    void MakeRoom(size_t units)
    {
        constexpr size_t kMostBytesPerUnit = 3;
        const size_t size = Size();
        const size_t needed = size + kMostBytesPerUnit * units;
        if (needed <= m_room)
            return;
        const size_t room = std::max(needed, 2 * m_room);
        auto bytes = std::make_unique_for_overwrite<char[]>(room);
        std::copy_n(m_bytes.get(), size, bytes.get());
        m_bytes = std::move(bytes);
        m_room = room;
        m_end = m_bytes.get() + size;
    }
    // Writes a text and gives the place behind it.
    [[nodiscard]] static char* Put(std::wstring_view text, char* to)
    {
        return NarrowAscii(text, to) ? to + text.size() : Encode(text, to);
    }
    // Writes ASCII text; false when it is something else.
    [[nodiscard]] static bool NarrowAscii(std::wstring_view text, char* to) noexcept
    {
        constexpr size_t kBlock = 8;
        if (text.size() < kBlock)
        {
            unsigned seen = 0;
            for (size_t i = 0; i < text.size(); ++i)
            {
                seen |= text[i];
                to[i] = static_cast<char>(text[i]);
            }
            return seen < 0x80;
        }
        __m128i seen = _mm_setzero_si128();
        const auto narrow = [&](size_t at)
        {
            const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + at));
            seen = _mm_or_si128(seen, units);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(to + at), _mm_packus_epi16(units, units));
        };
        for (size_t at = 0; at + kBlock <= text.size(); at += kBlock)
            narrow(at);
        narrow(text.size() - kBlock); // what is left, with some of what was done
        const __m128i beyondAscii = _mm_and_si128(seen, _mm_set1_epi16(static_cast<short>(0xFF80)));
        return _mm_movemask_epi8(_mm_cmpeq_epi16(beyondAscii, _mm_setzero_si128())) == 0xFFFF;
    }
    [[nodiscard]] static char* Encode(std::wstring_view text, char* to)
    {
        const auto put = [&to](unsigned byte) { *to++ = static_cast<char>(byte); };
        const auto putTrail = [&put](unsigned bits) { put(0x80 | (bits & 0x3F)); };
        for (size_t i = 0; i < text.size(); ++i)
        {
            const unsigned unit = text[i];
            if (unit < 0x80)
                put(unit);
            else if (unit < 0x800)
            {
                put(0xC0 | unit >> 6);
                putTrail(unit);
            }
            else if ((unit & 0xF800) != 0xD800)
            {
                put(0xE0 | unit >> 12);
                putTrail(unit >> 6);
                putTrail(unit);
            }
            else if (unit < 0xDC00 && i + 1 < text.size() && (text[i + 1] & 0xFC00) == 0xDC00)
            {
                const unsigned character = 0x10000 + ((unit & 0x3FF) << 10) + (text[++i] & 0x3FFU);
                put(0xF0 | character >> 18);
                putTrail(character >> 12);
                putTrail(character >> 6);
                putTrail(character);
            }
            else
            {
                // The platform's word for it, in the log too.
                std::string none;
                const HRESULT hr = VoStringToUTF8(text, none);
                throw CVoHResultException(FAILED(hr) ? hr : HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION));
            }
        }
        return to;
    }

    size_t m_room;
    std::unique_ptr<char[]> m_bytes;
    char* m_end; // of what has been written
};

// The signature's check over UTF-8 bytes.
[[nodiscard]] HRESULT VerifyBytes(std::string_view data, std::wstring_view publicKey, std::wstring_view signatureText,
                                  bool& valid) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::VerifySign" };
    if (data.size() > kMaximumFileSize)
        return report(101, HResultFromWin32(ERROR_FILE_TOO_LARGE));
    CVoByteBuffer signature;
    if (const HRESULT hr = VoDataConversion::Base64ToBin(signatureText, signature.PutBytes(), signature.PutLength());
        FAILED(hr))
        return report(105, hr);
    OrvDigSign::COrvSHA512Hash hash;
    const HRESULT hr = OrvDigSign::COrvDigitalSignature::VerifyString(Bytes(data), static_cast<UINT32>(data.size()), hash,
                                                                      signature.Data(), signature.Length(), publicKey, valid);
    return FAILED(hr) ? report(109, hr) : S_OK;
}
} // namespace

HRESULT CVoSignedIniFileHandler2::Open(std::wstring_view path) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::Open" };
    CVoIniFileIO file;
    if (const HRESULT hr = file.Open(path); FAILED(hr))
        return report(128, hr);
    CAutoLock lock(&m_lock);
    m_file = std::move(file);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::Open" }.CurrentException(135);
}

HRESULT CVoSignedIniFileHandler2::Parse(std::string_view bytes) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::Parse" };
    CVoIniFileIO file;
    if (const HRESULT hr = file.Parse(bytes); FAILED(hr))
        return report(144, hr);
    CAutoLock lock(&m_lock);
    m_file = std::move(file);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::Parse" }.CurrentException(151);
}

HRESULT CVoSignedIniFileHandler2::Verify(std::wstring_view publicKey, bool& valid) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::Verify" };
    valid = false;
    if (publicKey.empty())
        return report(162, E_INVALIDARG);
    CAutoLock lock(&m_lock);
    std::vector<CVoIniEntry> lines;
    if (const HRESULT hr = m_file.GetSection(kSignatureSection, lines); FAILED(hr))
        return report(166, hr);
    std::wstring signature;
    for (const CVoIniEntry& line : lines)
        signature += line.value;
    CUtf8Text text(m_file.Size());
    if (const HRESULT hr = AppendData(text); FAILED(hr))
        return report(172, hr);
    const HRESULT hr = VerifyBytes(text.Trimmed(), publicKey, signature, valid);
    return FAILED(hr) ? report(174, hr) : S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::Verify" }.CurrentException(178);
}

template <class Text>
HRESULT CVoSignedIniFileHandler2::AppendData(Text& text) const
{
    constexpr CVoReporter report{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::GetDataString" };
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
HRESULT CVoSignedIniFileHandler2::AppendSectionData(std::wstring_view section, std::vector<CVoIniEntry>& entries,
                                                    Text& text) const
{
    constexpr CVoReporter report{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::GetSectionDataString" };
    // Keys and values come as pairs, so that there cannot be more of the one than of the other.
    if (const HRESULT hr = m_file.GetSection(section, entries); FAILED(hr))
        return report(206, hr);
    if (entries.empty())
    {
        text.Append(kEmptySection);
        return S_OK;
    }
    text.Append(std::wstring(L"[").append(section).append(L"]\r\n"));
    for (const CVoIniEntry& entry : entries)
        text.AppendEntry(VoIniTrimRight(entry.key), VoIniTrimRight(entry.value));
    return S_OK;
}

HRESULT CVoSignedIniFileHandler2::GetDataString(std::wstring& text) noexcept
try
{
    CAutoLock lock(&m_lock);
    CWideText all(m_file.Size());
    if (const HRESULT hr = AppendData(all); FAILED(hr))
        return hr;
    text = std::move(all.Text());
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::GetDataString" }.CurrentException(232);
}

HRESULT CVoSignedIniFileHandler2::GetSectionDataString(std::wstring_view section, std::wstring& text) noexcept
try
{
    CAutoLock lock(&m_lock);
    std::vector<CVoIniEntry> entries;
    CWideText data(0);
    if (const HRESULT hr = AppendSectionData(section, entries, data); FAILED(hr))
        return hr;
    text = std::move(data.Text());
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::GetSectionDataString" }.CurrentException(
        248);
}

HRESULT CVoSignedIniFileHandler2::GetSignedText(std::wstring& text) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::GetSignedText" };
    std::wstring data;
    if (const HRESULT hr = GetDataString(data); FAILED(hr))
        return report(257, hr);
    data.resize(VoIniTrimRight(data).size());
    text = std::move(data);
    return S_OK;
}

HRESULT CVoSignedIniFileHandler2::VerifySign(std::wstring_view dataText, std::wstring_view publicKey,
                                             std::wstring_view signatureText, bool& valid) noexcept
{
    constexpr CVoReporter report{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::VerifySign" };
    valid = false;
    std::string data;
    if (const HRESULT hr = VoStringToUTF8(dataText, data); FAILED(hr))
        return report(270, hr);
    return VerifyBytes(data, publicKey, signatureText, valid);
}

HRESULT CVoSignedIniFileHandler2::SignFile(std::wstring_view privateKey, UINT32 lineLength) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::SignFile" };
    if (privateKey.empty())
        return report(280, E_INVALIDARG);
    CAutoLock lock(&m_lock);
    CUtf8Text text(m_file.Size());
    if (const HRESULT hr = AppendData(text); FAILED(hr))
        return report(284, hr);
    const std::string_view data = text.Trimmed();
    if (data.size() > kMaximumFileSize)
        return report(287, HResultFromWin32(ERROR_FILE_TOO_LARGE));
    OrvDigSign::COrvSHA512Hash hash;
    CVoByteBuffer signature;
    if (const HRESULT hr = OrvDigSign::COrvDigitalSignature::SignString(
            Bytes(data), static_cast<UINT32>(data.size()), hash, privateKey, signature.PutBytes(), signature.PutLength());
        FAILED(hr))
        return report(294, hr);
    std::wstring signatureText;
    VoDataConversion::BinToBase64(signature.Data(), static_cast<INT32>(signature.Length()), false, signatureText, 0);

    // A copy is changed, so that a failure leaves what was read.
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
}
catch (...)
{
    return CVoReporter{ kSource, L"OrvSignedIniFileHandler::CVoSignedIniFileHandler2::SignFile" }.CurrentException(321);
}
} // namespace OrvSignedIniFileHandler
