// A condition variable, a promise and a future that wait on the platform's own locks. The WinHTTP exchange uses them to hand a
// result from a thread of the platform to the caller's thread.
//
// They behave as those of the standard library do. The standard ones of the mingw-w64 compilers use POSIX threads, whose
// condition variables all spin on one lock of the process: a few threads that wait at the same time cost more processor time
// than their requests.
#pragma once

#include <base/VoLock.h>
#include <base/VoPlatform.h>

#include <exception>
#include <future>
#include <memory>
#include <mutex>
#include <utility>
#include <variant>

// A condition variable. Any thread may call any function.
class CVoCondition
{
public:
    CVoCondition() = default;
    CVoCondition(const CVoCondition&) = delete;
    CVoCondition& operator=(const CVoCondition&) = delete;

    // Waits until the predicate is true. `lock` must be held; it is released while the thread sleeps and held again when the
    // predicate runs and when the function returns.
    template <class Predicate>
    void Wait(std::unique_lock<CVoLock>& lock, Predicate predicate)
    {
        while (!predicate())
            ::SleepConditionVariableSRW(&m_condition, lock.mutex()->Native(), INFINITE, 0);
    }
    // The same for at most `milliseconds`. Returns the predicate.
    template <class Predicate>
    bool WaitFor(std::unique_lock<CVoLock>& lock, DWORD milliseconds, Predicate predicate)
    {
        const ULONGLONG end = ::GetTickCount64() + milliseconds;
        for (;;)
        {
            if (predicate())
                return true;
            const ULONGLONG now = ::GetTickCount64();
            if (now >= end)
                return false;
            ::SleepConditionVariableSRW(&m_condition, lock.mutex()->Native(), static_cast<DWORD>(end - now), 0);
        }
    }
    void NotifyAll() noexcept { ::WakeAllConditionVariable(&m_condition); }

private:
    CONDITION_VARIABLE m_condition = CONDITION_VARIABLE_INIT;
};

namespace VoPromiseDetail
{
// The state that a promise shares with its future.
template <class Value>
class CSharedState
{
public:
    template <class Result>
    void Set(Result&& result) noexcept
    {
        {
            const std::lock_guard lock(m_lock);
            m_result = std::forward<Result>(result);
        }
        m_isSet.NotifyAll(); // without the lock, which the woken thread takes first
    }
    [[nodiscard]] bool WaitFor(DWORD milliseconds)
    {
        std::unique_lock lock(m_lock);
        return m_isSet.WaitFor(lock, milliseconds, [this] { return m_result.index() != 0; });
    }
    [[nodiscard]] Value Take()
    {
        std::unique_lock lock(m_lock);
        m_isSet.Wait(lock, [this] { return m_result.index() != 0; });
        if (const auto* const exception = std::get_if<std::exception_ptr>(&m_result))
            std::rethrow_exception(*exception);
        return std::move(std::get<Value>(m_result));
    }

private:
    CVoLock m_lock;
    CVoCondition m_isSet;
    std::variant<std::monostate, Value, std::exception_ptr> m_result;
};
} // namespace VoPromiseDetail

// The receiving end: gives the value of its promise once. One thread at a time uses the object; the promise may be set on any
// thread.
template <class Value>
class CVoFuture
{
public:
    CVoFuture() = default;
    // A future that was moved from counts as retrieved.
    CVoFuture(CVoFuture&&) noexcept = default;
    CVoFuture& operator=(CVoFuture&&) noexcept = default;
    ~CVoFuture() = default;

    // Whether Get may be called.
    [[nodiscard]] bool IsValid() const noexcept { return m_state != nullptr; }
    // Waits until the promise is set, for at most `milliseconds`. Whether it is set, that is, Get does not wait.
    [[nodiscard]] bool WaitFor(DWORD milliseconds) const { return !m_state || m_state->WaitFor(milliseconds); }
    // Waits until the promise is set, and takes the value. Throws the promise's exception; std::future_error with
    // future_already_retrieved when the value was taken before, with no_state when the future never had a promise.
    Value Get()
    {
        if (!m_state)
            throw std::future_error(m_hadState ? std::future_errc::future_already_retrieved : std::future_errc::no_state);
        return std::exchange(m_state, nullptr)->Take();
    }

private:
    template <class>
    friend class CVoPromise;
    explicit CVoFuture(std::shared_ptr<VoPromiseDetail::CSharedState<Value>> state) noexcept
        : m_state(std::move(state)), m_hadState(true)
    {
    }

    std::shared_ptr<VoPromiseDetail::CSharedState<Value>> m_state;
    bool m_hadState = false;
};

// The sending end: sets one value or one exception. A promise that is destroyed before gives its future std::future_error with
// broken_promise. One thread at a time uses the object. Construction throws std::bad_alloc.
template <class Value>
class CVoPromise
{
public:
    CVoPromise() : m_state(std::make_shared<VoPromiseDetail::CSharedState<Value>>()) {}
    CVoPromise(CVoPromise&&) noexcept = default;
    CVoPromise& operator=(CVoPromise&& other) noexcept
    {
        std::swap(m_state, other.m_state);
        return *this;
    }
    ~CVoPromise()
    {
        // Without a future nobody waits, and making the exception needs memory.
        if (!m_state || m_state.use_count() == 1)
            return;
        try
        {
            throw std::future_error(std::future_errc::broken_promise);
        }
        catch (...)
        {
            SetException(std::current_exception());
        }
    }

    // Call it once.
    [[nodiscard]] CVoFuture<Value> Future() const noexcept { return CVoFuture<Value>(m_state); }
    // Call one of these two, once. The waiting thread may run before the call returns.
    void SetValue(Value value) noexcept { std::exchange(m_state, nullptr)->Set(std::move(value)); }
    void SetException(std::exception_ptr exception) noexcept { std::exchange(m_state, nullptr)->Set(std::move(exception)); }

private:
    std::shared_ptr<VoPromiseDetail::CSharedState<Value>> m_state; // null once it was set
};
