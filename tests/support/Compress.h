// Makes coded bodies for the scripted servers.
#pragma once

#include <zlib.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace TestSupport
{
// What stands around the compressed data: a gzip header, that of zlib, or nothing.
enum class ECompression
{
    Gzip = MAX_WBITS + 16,
    Zlib = MAX_WBITS,
    Bare = -MAX_WBITS
};

[[nodiscard]] inline std::string Compress(std::string_view text, ECompression format)
{
    std::string input(text);
    z_stream stream{};
    if (::deflateInit2_(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, static_cast<int>(format), 8, Z_DEFAULT_STRATEGY, ZLIB_VERSION,
                        static_cast<int>(sizeof stream)) != Z_OK)
        throw std::runtime_error("deflateInit2");
    std::string bytes(::deflateBound(&stream, static_cast<uLong>(input.size())) + 32, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = reinterpret_cast<Bytef*>(bytes.data());
    stream.avail_out = static_cast<uInt>(bytes.size());
    const int result = ::deflate(&stream, Z_FINISH);
    bytes.resize(stream.total_out);
    ::deflateEnd(&stream);
    if (result != Z_STREAM_END)
        throw std::runtime_error("deflate");
    return bytes;
}
} // namespace TestSupport
