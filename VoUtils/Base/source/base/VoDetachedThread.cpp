// A thread that nobody waits for.
#include <base/VoDetachedThread.h>

#include <base/VoHResult.h>
#include <base/VoHandle.h>
#include <base/VoPlatform.h>

#include <memory>
#include <utility>

void VoStartDetached(std::function<void()> work)
{
    constexpr LPTHREAD_START_ROUTINE kRun = [](void* argument) -> DWORD
    {
        const std::unique_ptr<std::function<void()>> owned(static_cast<std::function<void()>*>(argument));
        (*owned)();
        return 0;
    };
    auto owned = std::make_unique<std::function<void()>>(std::move(work));
    const CVoHandle thread(::CreateThread(nullptr, 0, kRun, owned.get(), 0, nullptr));
    if (!thread)
        throw CVoHResultException(HResultFromLastError());
    (void)owned.release(); // the thread owns it
}
