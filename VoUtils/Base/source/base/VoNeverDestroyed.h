// Storage for the objects that live until the process ends, whatever other static objects do in their destructors.
#pragma once

#include <cstddef>
#include <new>

// Makes its T when it is made, and never destroys it. Use it as a function's static variable.
template <class T>
class CVoNeverDestroyed
{
public:
    CVoNeverDestroyed() { ::new (static_cast<void*>(m_storage)) T(); }
    CVoNeverDestroyed(const CVoNeverDestroyed&) = delete;
    CVoNeverDestroyed& operator=(const CVoNeverDestroyed&) = delete;

    [[nodiscard]] T& Get() noexcept { return *std::launder(reinterpret_cast<T*>(m_storage)); }

private:
    alignas(T) std::byte m_storage[sizeof(T)];
};
