// Decodes the content coding of a response, and finds out whether the coded stream is whole: libcurl's own decoder takes a
// stream that is cut off for a short one. The transports use it.
#pragma once

#include <base/VoPlatform.h>

#include <cstddef>
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

    // Decodes the next bytes of the body and appends the result; a null `decoded` only checks them. `limit`: bytes that
    // `decoded` may hold in all; 0: no limit. E_FAIL for a malformed stream, kErrorResponseLimit beyond the limit; not
    // reported. Throws std::bad_alloc.
    [[nodiscard]] HRESULT Decode(std::span<const BYTE> bytes, std::vector<BYTE>* decoded, UINT64 limit);
    // The body has ended. E_FAIL, not reported, for a stream that is cut off. A body without a byte is whole.
    [[nodiscard]] HRESULT Finish() const noexcept;

private:
    class CStage;
    CVoContentDecoder();

    [[nodiscard]] HRESULT Decode(size_t stage, std::span<const BYTE> bytes, std::vector<BYTE>* decoded, UINT64 limit);

    std::vector<std::unique_ptr<CStage>> m_stages; // the coding that was applied last comes first
    bool m_isEmpty = true;
};
