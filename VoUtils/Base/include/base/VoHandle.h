// The owner of a kernel handle. Used wherever a handle is released with CloseHandle.
#pragma once

#include <base/VoHResult.h>
#include <base/VoPlatform.h>

#include <utility>

// Owns one handle of the kind that CloseHandle releases, or none. INVALID_HANDLE_VALUE, which some functions return on failure,
// counts as none. Releasing keeps the calling thread's last error. Not to be shared between threads without a lock.
class CVoHandle
{
public:
    CVoHandle() noexcept = default;
    explicit CVoHandle(HANDLE handle) noexcept : m_handle(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
    CVoHandle(CVoHandle&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    CVoHandle& operator=(CVoHandle&& other) noexcept
    {
        if (this != &other)
            Reset(other.Detach());
        return *this;
    }
    CVoHandle(const CVoHandle&) = delete;
    CVoHandle& operator=(const CVoHandle&) = delete;
    ~CVoHandle() { Reset(); }

    [[nodiscard]] HANDLE Get() const noexcept { return m_handle; }
    [[nodiscard]] explicit operator bool() const noexcept { return m_handle != nullptr; }

    // Closes the handle that it owns and takes over another.
    void Reset(HANDLE handle = nullptr) noexcept
    {
        const HANDLE old = std::exchange(m_handle, handle == INVALID_HANDLE_VALUE ? nullptr : handle);
        if (!old)
            return;
        const CVoLastErrorKeeper keeper;
        ::CloseHandle(old);
    }
    // Returns the handle and no longer owns it.
    [[nodiscard]] HANDLE Detach() noexcept { return std::exchange(m_handle, nullptr); }

private:
    HANDLE m_handle = nullptr;
};
