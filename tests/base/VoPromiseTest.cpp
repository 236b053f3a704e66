// Promise and future against the standard library's rules: what is set arrives once, on the thread that waits.
#include <base/VoPromise.h>

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

namespace
{
using CValue = std::unique_ptr<int>;

template <class Get>
std::error_code MisuseOf(Get get)
try
{
    get();
    return {};
}
catch (const std::future_error& error)
{
    return error.code();
}

TEST(Promise, GivesItsValueOnceToTheThreadThatWaits)
{
    for (const bool isSetBeforeTheWait : { true, false })
    {
        CVoPromise<CValue> promise;
        CVoFuture<CValue> future = promise.Future();
        if (isSetBeforeTheWait)
            promise.SetValue(std::make_unique<int>(7));
        std::jthread other([&] { isSetBeforeTheWait ? void() : promise.SetValue(std::make_unique<int>(7)); });
        EXPECT_EQ(*future.Get(), 7);
        EXPECT_FALSE(future.IsValid());
        EXPECT_EQ(MisuseOf([&] { future.Get(); }), std::future_errc::future_already_retrieved);
    }
}

TEST(Promise, GivesItsExceptionAndTellsMisuse)
{
    CVoPromise<CValue> failing;
    CVoFuture<CValue> failed = failing.Future();
    failing.SetException(std::make_exception_ptr(std::out_of_range("x")));
    EXPECT_THROW(failed.Get(), std::out_of_range);

    std::optional<CVoPromise<CValue>> dropped(std::in_place);
    CVoFuture<CValue> broken = dropped->Future();
    dropped.reset();
    EXPECT_EQ(MisuseOf([&] { broken.Get(); }), std::future_errc::broken_promise);

    CVoFuture<CValue> empty;
    EXPECT_EQ(MisuseOf([&] { empty.Get(); }), std::future_errc::no_state);
    CVoFuture<CValue> source = CVoPromise<CValue>().Future();
    const CVoFuture<CValue> target = std::move(source);
    EXPECT_TRUE(target.IsValid());
    // NOLINTNEXTLINE(bugprone-use-after-move): the use is a misuse that has a code.
    EXPECT_EQ(MisuseOf([&] { source.Get(); }), std::future_errc::future_already_retrieved) << "moved from";
}
} // namespace
