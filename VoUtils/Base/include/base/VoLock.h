// A lock that costs nothing to make and cannot fail.
#pragma once

#include <base/VoPlatform.h>

#include <mutex>

// Not to be taken twice by one thread. Unlike a mutex of some C++ libraries it allocates nothing, so that functions that
// promise not to throw may take it. Named as the standard library's guards ask.
class CVoLock
{
public:
    CVoLock() = default;
    CVoLock(const CVoLock&) = delete;
    CVoLock& operator=(const CVoLock&) = delete;

    void lock() noexcept { ::AcquireSRWLockExclusive(&m_lock); }
    void unlock() noexcept { ::ReleaseSRWLockExclusive(&m_lock); }

    // For condition variables.
    [[nodiscard]] SRWLOCK* Native() noexcept { return &m_lock; }

private:
    SRWLOCK m_lock = SRWLOCK_INIT;
};

// Holds a CVoLock for a scope, and may release it earlier (unlock). The only holder of this kind of lock; CLockObject has
// CAutoLock (VoMultiThreading.h).
using CVoLockHolder = std::unique_lock<CVoLock>;
