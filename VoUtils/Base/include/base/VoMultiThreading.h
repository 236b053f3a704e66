// Locks, events and worker threads.
#pragma once

#include <base/VoHResult.h>
#include <base/VoPlatform.h>

#include <string>
#include <string_view>

// A lock that one thread holds at a time. Both operations return nonzero on success.
class CLockObject
{
public:
    virtual ~CLockObject() = default;
    virtual int Unlock() noexcept = 0;
    // Waits until the lock is free and takes it.
    virtual int Lock() noexcept = 0;
    // The same with room for an argument that derived kinds may interpret (a time-out in milliseconds, 0 for the kind's own).
    virtual int Lock(DWORD argument) noexcept = 0;

protected:
    CLockObject() = default;
    CLockObject(const CLockObject&) = delete;
    CLockObject& operator=(const CLockObject&) = delete;
};

// A critical section of the platform: recursive for the thread that holds it, waits without time-out.
class CCriticalSection final : public CLockObject
{
public:
    CCriticalSection() noexcept { ::InitializeCriticalSection(&m_section); }
    ~CCriticalSection() override { ::DeleteCriticalSection(&m_section); }

    int Unlock() noexcept override
    {
        ::LeaveCriticalSection(&m_section);
        return 1;
    }
    int Lock() noexcept override { return Lock(0); }
    int Lock(DWORD /*argument*/) noexcept override
    {
        ::EnterCriticalSection(&m_section);
        return 1;
    }

private:
    CRITICAL_SECTION m_section;
};

// Holds a lock for a scope. It may be unlocked and locked again inside the scope; a lock that it holds at the end is released.
// Not to be shared between threads.
class CAutoLock
{
public:
    // The lock is not owned and must outlive the holder.
    explicit CAutoLock(CLockObject* lock, bool lockNow = true) noexcept : m_lock(lock)
    {
        if (lockNow)
            Lock();
    }
    ~CAutoLock() { Unlock(); }
    CAutoLock(const CAutoLock&) = delete;
    CAutoLock& operator=(const CAutoLock&) = delete;

    // Takes the lock unless this holder has it already. Gives the lock's own answer: nonzero on success.
    int Lock() noexcept
    {
        if (m_locked)
            return 1;
        const int result = m_lock->Lock(0);
        m_locked = result != 0;
        return result;
    }
    // Releases the lock if this holder has it. A lock that refuses stays marked as held.
    int Unlock() noexcept
    {
        if (!m_locked)
            return 1;
        const int result = m_lock->Unlock();
        m_locked = result == 0;
        return result;
    }
    [[nodiscard]] bool IsLocked() const noexcept { return m_locked; }

private:
    CLockObject* m_lock;
    bool m_locked = false;
};
