// How an exchange on WinHTTP's threads hands its answers to the thread that waits for them: VoWinHttpRequest.h, which callers
// include, is its face.
//
// Condition, promise and future are what the standard library's are, on the platform's own locks. With the mingw-w64
// compilers the standard ones stand on POSIX threads, whose condition variables all spin on one lock of the process: a few
// threads that wait at once then cost more than all their requests.
#pragma once

#include <base/VoLock.h>
#include <base/VoPlatform.h>

#include <exception>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <variant>

namespace VoWinHttpRequest::Detail
{
class CCondition
{
public:
    CCondition() = default;
    CCondition(const CCondition&) = delete;
    CCondition& operator=(const CCondition&) = delete;

    // Waits, without the lock, until the predicate holds under it. `lock` is held before and after.
    template <class Predicate>
    void Wait(std::unique_lock<CVoLock>& lock, Predicate predicate)
    {
        while (!predicate())
            ::SleepConditionVariableSRW(&m_condition, lock.mutex()->Native(), INFINITE, 0);
    }
    void NotifyAll() noexcept { ::WakeAllConditionVariable(&m_condition); }

private:
    CONDITION_VARIABLE m_condition = CONDITION_VARIABLE_INIT;
};

// What a promise and its future share.
template <class Value>
class CPromised
{
public:
    template <class Result>
    void Give(Result&& result) noexcept
    {
        const std::lock_guard lock(m_lock);
        m_result = std::forward<Result>(result);
        m_given.NotifyAll();
    }
    // Waits. Throws what was given as a failure.
    [[nodiscard]] Value Take()
    {
        std::unique_lock lock(m_lock);
        m_given.Wait(lock, [this] { return m_result.index() != 0; });
        if (const auto* const failure = std::get_if<std::exception_ptr>(&m_result))
            std::rethrow_exception(*failure);
        return std::move(std::get<Value>(m_result));
    }

private:
    CVoLock m_lock;
    CCondition m_given;
    std::variant<std::monostate, Value, std::exception_ptr> m_result;
};

template <class Value>
class CFuture
{
public:
    CFuture() = default;
    explicit CFuture(std::shared_ptr<CPromised<Value>> promised) noexcept : m_promised(std::move(promised)) {}

    [[nodiscard]] bool IsValid() const noexcept { return m_promised != nullptr; }
    // Waits for the value and takes it; the future is not valid any more then.
    [[nodiscard]] Value Get() { return std::exchange(m_promised, nullptr)->Take(); }

private:
    std::shared_ptr<CPromised<Value>> m_promised;
};

// Gives one value or failure. One that goes before it has given any gives std::future_error with broken_promise.
template <class Value>
class CPromise
{
public:
    CPromise() : m_promised(std::make_shared<CPromised<Value>>()) {}
    CPromise(CPromise&&) noexcept = default;
    CPromise& operator=(CPromise&& other) noexcept
    {
        std::swap(m_promised, other.m_promised);
        return *this;
    }
    ~CPromise()
    {
        // Only where somebody may wait. Making the failure may itself fail, for want of memory.
        if (!m_promised || m_promised.use_count() == 1)
            return;
        try
        {
            throw std::future_error(std::future_errc::broken_promise);
        }
        catch (...)
        {
            Fail(std::current_exception());
        }
    }

    [[nodiscard]] CFuture<Value> Future() const noexcept { return CFuture<Value>(m_promised); }
    void Give(Value value) noexcept { std::exchange(m_promised, nullptr)->Give(std::move(value)); }
    void Fail(std::exception_ptr failure) noexcept { std::exchange(m_promised, nullptr)->Give(std::move(failure)); }

private:
    std::shared_ptr<CPromised<Value>> m_promised; // null once it has given
};

// The giving half of a one-shot answer. Whoever gives it takes the promise out first, under the exchange's lock: the value then
// reaches the waiting thread from a promise of the giver's own, which that thread cannot pull away by going on.
template <class Value>
class CAnswer
{
public:
    [[nodiscard]] bool IsOpen() const noexcept { return m_promise.has_value(); }
    void Open(CPromise<Value> promise) noexcept { m_promise.emplace(std::move(promise)); }
    [[nodiscard]] std::optional<CPromise<Value>> Take() noexcept { return std::exchange(m_promise, std::nullopt); }

private:
    std::optional<CPromise<Value>> m_promise;
};

// The taking half: one value per send.
template <class Value>
class CAnswerFuture
{
public:
    void Reset() noexcept { *this = {}; }
    void Set(CFuture<Value> future) noexcept
    {
        m_future = std::move(future);
        m_wasSet = true;
    }
    // Throws std::future_error.
    [[nodiscard]] CFuture<Value> Take()
    {
        if (!m_future.IsValid())
            throw std::future_error(m_wasSet ? std::future_errc::future_already_retrieved : std::future_errc::no_state);
        return std::move(m_future);
    }

private:
    CFuture<Value> m_future;
    bool m_wasSet = false;
};
} // namespace VoWinHttpRequest::Detail
