// Content codings: which ones there are. What they decode to is held by the campaign of random bodies in tests/stress.
#include "VoContentDecoder.h"

#include <gtest/gtest.h>

namespace
{
TEST(ContentDecoder, KnowsItsCodings)
{
    std::unique_ptr<CVoContentDecoder> decoder;
    EXPECT_EQ(CVoContentDecoder::Make(L"identity,", decoder), S_OK);
    EXPECT_EQ(decoder, nullptr);
    EXPECT_EQ(CVoContentDecoder::Make(L"gzip, br", decoder), E_NOTIMPL);
    EXPECT_EQ(CVoContentDecoder::Make(L"gzip,gzip,gzip,gzip,gzip,gzip", decoder), E_NOTIMPL);
    EXPECT_EQ(CVoContentDecoder::Make(L"gzip,gzip,gzip,gzip,gzip", decoder), S_OK);
    EXPECT_NE(decoder, nullptr);
}
} // namespace
