// Content codings: what they decode to, and which streams are not whole.
#include "support/Compress.h"
#include "support/HTTPSupport.h"

#include "VoContentDecoder.h"

#include <gtest/gtest.h>

#include <optional>

using namespace TestSupport;

namespace
{
// The decoded text of a body that comes in pieces of that size; nothing where it is malformed or cut off.
std::optional<std::string> Decode(std::wstring_view codings, std::string_view body, size_t piece = 1000, UINT64 limit = 0)
{
    std::unique_ptr<CVoContentDecoder> decoder;
    EXPECT_EQ(CVoContentDecoder::Make(codings, decoder), S_OK);
    std::vector<BYTE> decoded;
    const auto take = [&](std::span<const BYTE> bytes)
    {
        decoded.insert(decoded.end(), bytes.begin(), bytes.end());
        return limit != 0 && decoded.size() > limit ? kErrorResponseLimit : S_OK;
    };
    for (; !body.empty(); body.remove_prefix(std::min(piece, body.size())))
        if (const auto* const bytes = reinterpret_cast<const BYTE*>(body.data());
            FAILED(decoder->Decode({ bytes, std::min(piece, body.size()) }, take)))
            return std::nullopt;
    return SUCCEEDED(decoder->Finish()) ? std::optional(std::string(decoded.begin(), decoded.end())) : std::nullopt;
}

TEST(ContentDecoder, DecodesEachCodingInPiecesOfAnySizeAndRefusesAStreamThatIsCutOff)
{
    const std::string text = "a=1&&" + RandomBytes(300) + std::string(40'000, 'x');
    const std::string gzip = Compress(text, ECompression::Gzip);
    const std::tuple<const wchar_t*, std::string, std::string> cases[] = {
        { L"gzip", gzip, text },
        { L"X-GZIP , identity", gzip, text },
        { L"gzip", gzip + gzip, text + text },
        { L"deflate", Compress(text, ECompression::Zlib), text },
        { L"deflate", Compress(text, ECompression::Bare), text },
        { L"deflate, gzip, chunked", Compress(Compress(text, ECompression::Zlib), ECompression::Gzip), text },
        { L"gzip", Compress("", ECompression::Gzip), "" },
        { L"gzip", "", "" },
    };
    for (const auto& [codings, body, expected] : cases)
    {
        SCOPED_TRACE(testing::PrintToString(codings));
        for (const size_t piece : { size_t{ 1 }, size_t{ 7 }, body.size() + 1 })
            EXPECT_TRUE(Decode(codings, body, piece) == expected) << piece;
        for (size_t length = 1; length < std::min(body.size(), gzip.size()); ++length)
            EXPECT_FALSE(Decode(codings, body.substr(0, length))) << length;
    }
    std::string damaged = gzip;
    damaged[damaged.size() / 2] = static_cast<char>(damaged[damaged.size() / 2] ^ 1);
    for (const std::string& bad : { damaged, gzip + "x", std::string("no gzip") })
        EXPECT_FALSE(Decode(L"gzip", bad));
}

TEST(ContentDecoder, StopsAtTheLimitAndKnowsItsCodings)
{
    std::string zeros;
    zeros.resize(10'000'000);
    const std::string bomb = Compress(zeros, ECompression::Gzip);
    EXPECT_FALSE(Decode(L"gzip", bomb, bomb.size(), 9'999'999));
    EXPECT_TRUE(Decode(L"gzip", bomb, bomb.size(), 10'000'000));
    std::unique_ptr<CVoContentDecoder> decoder;
    EXPECT_EQ(CVoContentDecoder::Make(L"identity,", decoder), S_OK);
    EXPECT_EQ(decoder, nullptr);
    EXPECT_EQ(CVoContentDecoder::Make(L"gzip, br", decoder), E_NOTIMPL);
    EXPECT_EQ(CVoContentDecoder::Make(L"gzip,gzip,gzip,gzip,gzip,gzip", decoder), E_NOTIMPL);
}
} // namespace
