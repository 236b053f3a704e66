// Decodes the content coding of a response, and finds out whether the coded stream is whole: libcurl's own decoder takes a
// stream that is cut off for a short one. The transports use it.
#pragma once

#include <base/VoPlatform.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

class CVoContentDecoder
{
public:
    static constexpr size_t kMaximumCodings = 5;

    // For the value of Content-Encoding (RFC 9110, section 8.4): gzip, x-gzip, deflate, identity, or several of them.
    // "chunked", which a transport decodes by itself, is passed over. `decoder` is null when there is nothing to decode.
    // E_NOTIMPL, without a report, for any other coding, and for more than kMaximumCodings: each one costs stack and may make
    // its input a thousand times larger. Throws std::bad_alloc.
    [[nodiscard]] static HRESULT Make(std::wstring_view contentEncoding, std::unique_ptr<CVoContentDecoder>& decoder);
    ~CVoContentDecoder();
    CVoContentDecoder(const CVoContentDecoder&) = delete;
    CVoContentDecoder& operator=(const CVoContentDecoder&) = delete;

    // Receives decoded bytes. A failure ends the decoding.
    using Take = std::function<HRESULT(std::span<const BYTE> bytes)>;

    // Decodes the next bytes of the body; an empty function only checks them. E_FAIL for a malformed stream, not reported; the
    // failure of `take`. Throws std::bad_alloc and what `take` throws.
    [[nodiscard]] HRESULT Decode(std::span<const BYTE> bytes, const Take& take);
    // The body has ended. E_FAIL, not reported, for a stream that is cut off. A body without a byte is whole.
    [[nodiscard]] HRESULT Finish() const noexcept;

private:
    class CStage;
    CVoContentDecoder();

    [[nodiscard]] HRESULT Decode(size_t stage, std::span<const BYTE> bytes, const Take& take);

    std::vector<std::unique_ptr<CStage>> m_stages; // the coding that was applied last comes first
    bool m_isEmpty = true;
};
