// A lock that needs no initialisation and cannot fail. For the base's own state, the log included.
#pragma once

#include <base/VoPlatform.h>

#include <mutex>

// Not recursive. Unlike the mutex of some C++ libraries it never allocates, so functions that are noexcept may take it. The
// names lock and unlock are those that the standard library's holders call.
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
