// A thread that nobody waits for: for calls of the platform that cannot be interrupted.
#pragma once

#include <functional>

// Runs a function on a thread of its own. The function must own all that it uses, and exceptions must not leave it. The
// platform's thread, because a detached thread of some C++ libraries may lose its function. Throws CVoHResultException when no
// thread can be made, and std::bad_alloc.
void VoStartDetached(std::function<void()> work);
