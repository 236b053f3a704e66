// Decodes the content coding of a response with zlib; see VoContentDecoder.h.
#include "VoContentDecoder.h"

#include <base/VoHResult.h>
#include <base/VoText.h>

#define ZLIB_CONST
#include <zlib.h>

#include <algorithm>
#include <array>
#include <new>
#include <optional>

// One coding.
class CVoContentDecoder::CStage
{
public:
    explicit CStage(bool isGzip) noexcept : m_isGzip(isGzip) {}
    ~CStage()
    {
        if (m_isOpen)
            ::inflateEnd(&m_stream);
    }
    CStage(const CStage&) = delete;
    CStage& operator=(const CStage&) = delete;

    // Decodes all bytes. `take` receives each decoded piece.
    template <class Take>
    [[nodiscard]] HRESULT Decode(std::span<const BYTE> bytes, const Take& take) // NOLINT(misc-no-recursion)
    {
        if (!m_isOpen && !bytes.empty())
            Open(bytes.front());
        std::array<BYTE, 16 * 1024> piece;
        m_stream.next_in = bytes.data();
        m_stream.avail_in = static_cast<uInt>(bytes.size());
        bool isPieceFull = false;
        while (m_stream.avail_in > 0 || isPieceFull)
        {
            if (m_isEnded)
            {
                // Members of a gzip stream follow one another (RFC 1952, section 2.2). Nothing follows the other format.
                if (!m_isGzip || ::inflateReset(&m_stream) != Z_OK)
                    return E_FAIL;
                m_isEnded = false;
            }
            m_stream.next_out = piece.data();
            m_stream.avail_out = static_cast<uInt>(piece.size());
            const int result = ::inflate(&m_stream, Z_NO_FLUSH);
            if (result == Z_MEM_ERROR)
                throw std::bad_alloc();
            if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) // the last one: no input is left
                return E_FAIL;
            m_isEnded = result == Z_STREAM_END;
            isPieceFull = m_stream.avail_out == 0 && !m_isEnded;
            if (const HRESULT hr = take(std::span<const BYTE>(piece.data(), piece.size() - m_stream.avail_out)); FAILED(hr))
                return hr;
        }
        return S_OK;
    }
    [[nodiscard]] bool IsWhole() const noexcept { return m_isEnded; }

private:
    // "deflate" means the zlib format, but some servers send the bare stream. The first byte of the zlib format names the
    // method 8 and a window of at most 32 KiB (RFC 1950, section 2.2); a bare stream does not begin so unless it is stored
    // uncompressed in an unusual way.
    void Open(BYTE first)
    {
        constexpr int kGzip = MAX_WBITS + 16;
        const bool isZlib = (first & 0x0F) == Z_DEFLATED && (first >> 4) <= 7;
        const int format = m_isGzip ? kGzip : isZlib ? MAX_WBITS : -MAX_WBITS;
        if (::inflateInit2_(&m_stream, format, ZLIB_VERSION, static_cast<int>(sizeof m_stream)) != Z_OK)
            throw std::bad_alloc();
        m_isOpen = true;
    }

    const bool m_isGzip;
    z_stream m_stream{};
    bool m_isOpen = false;
    bool m_isEnded = false;
};

CVoContentDecoder::CVoContentDecoder() = default;
CVoContentDecoder::~CVoContentDecoder() = default;

HRESULT CVoContentDecoder::Make(std::wstring_view contentEncoding, std::unique_ptr<CVoContentDecoder>& decoder)
{
    std::unique_ptr<CVoContentDecoder> made;
    while (!contentEncoding.empty())
    {
        const size_t comma = contentEncoding.find(L',');
        const std::wstring_view coding = VoTrim(contentEncoding.substr(0, comma));
        contentEncoding = comma == std::wstring_view::npos ? std::wstring_view() : contentEncoding.substr(comma + 1);
        const bool isGzip = VoEqualsNoCase(coding, L"gzip") || VoEqualsNoCase(coding, L"x-gzip");
        if (coding.empty() || VoEqualsNoCase(coding, L"identity") || VoEqualsNoCase(coding, L"chunked"))
            continue;
        if (!isGzip && !VoEqualsNoCase(coding, L"deflate"))
            return E_NOTIMPL;
        if (!made)
            made.reset(new CVoContentDecoder);
        if (made->m_stages.size() == kMaximumCodings)
            return E_NOTIMPL;
        made->m_stages.insert(made->m_stages.begin(), std::make_unique<CStage>(isGzip));
    }
    decoder = std::move(made);
    return S_OK;
}

HRESULT CVoContentDecoder::Decode(std::span<const BYTE> bytes, const Take& take)
{
    constexpr size_t kMaximumPiece = size_t{ 1 } << 30; // zlib's lengths have 32 bits
    m_isEmpty = m_isEmpty && bytes.empty();
    HRESULT hr = S_OK;
    for (; SUCCEEDED(hr) && !bytes.empty(); bytes = bytes.subspan(std::min(bytes.size(), kMaximumPiece)))
        hr = Decode(0, bytes.first(std::min(bytes.size(), kMaximumPiece)), take);
    return hr;
}

// NOLINTBEGIN(misc-no-recursion): one level for each coding of the response
HRESULT CVoContentDecoder::Decode(size_t stage, std::span<const BYTE> bytes, const Take& take)
{
    if (stage < m_stages.size())
        return m_stages[stage]->Decode(bytes, [&](std::span<const BYTE> piece) { return Decode(stage + 1, piece, take); });
    return take ? take(bytes) : S_OK;
}
// NOLINTEND(misc-no-recursion)

HRESULT CVoContentDecoder::Finish() const noexcept
{
    const bool isWhole = std::all_of(m_stages.begin(), m_stages.end(), [](const auto& stage) { return stage->IsWhole(); });
    return m_isEmpty || isWhole ? S_OK : E_FAIL;
}
