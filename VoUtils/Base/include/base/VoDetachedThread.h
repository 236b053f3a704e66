// A thread that nobody waits for: for calls of the platform that cannot be interrupted.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

// Runs a function on a thread of its own. The function must own all that it uses, and exceptions must not leave it. The
// platform's thread, because a detached thread of some C++ libraries may lose its function. Throws CVoHResultException when no
// thread can be made, and std::bad_alloc.
void VoStartDetached(std::function<void()> work);

// Counts a thread from before it begins, so that a program that ends in between knows of it: let the work own the result. The
// count falls when the last copy of the result is reset or destroyed, also when the thread could not be started. `count` must
// live until then. Throws std::bad_alloc.
[[nodiscard]] inline std::shared_ptr<void> VoCountThread(std::atomic<int>& count)
{
    count.fetch_add(1);
    return { &count, [&count](void* /*count*/) { count.fetch_sub(1); } };
}
