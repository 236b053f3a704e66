// Replaces the allocation functions of C++ in the test programs: each block has bytes around it that nobody may change. The
// release of a block that was written in front of its begin or behind its end ends the program as an access violation does, and
// so does a second release. malloc, free and the aligned functions stay as they are.
#include <base/VoPlatform.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

namespace
{
constexpr BYTE kGuard = 0xFD;
constexpr size_t kGuardSize = 16; // keeps the alignment

// In front of the block. Behind it is a guard alone.
struct CHead
{
    size_t size;
    std::array<BYTE, kGuardSize - sizeof(size_t)> guard;
};
static_assert(sizeof(CHead) == kGuardSize);

bool IsGuard(const BYTE* bytes, size_t size) noexcept
{
    return std::all_of(bytes, bytes + size, [](BYTE value) { return value == kGuard; });
}
} // namespace

// NOLINTBEGIN(cppcoreguidelines-no-malloc): new and delete lie on malloc and free
void* operator new(size_t size)
{
    auto* const block = size < SIZE_MAX - 2 * kGuardSize ? static_cast<BYTE*>(std::malloc(size + 2 * kGuardSize)) : nullptr;
    if (!block)
        throw std::bad_alloc();
    std::memset(block, kGuard, kGuardSize);
    std::memset(block + kGuardSize + size, kGuard, kGuardSize);
    std::memcpy(block, &size, sizeof size);
    return block + kGuardSize;
}

void operator delete(void* memory) noexcept
{
    if (!memory)
        return;
    BYTE* const block = static_cast<BYTE*>(memory) - kGuardSize;
    CHead head;
    std::memcpy(&head, block, sizeof head);
    if (!IsGuard(head.guard.data(), head.guard.size()) || !IsGuard(block + kGuardSize + head.size, kGuardSize))
        ::RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr);
    std::memset(block, 0, kGuardSize); // what a second release finds
    std::free(block);
}
// NOLINTEND(cppcoreguidelines-no-malloc)

// NOLINTNEXTLINE(misc-use-internal-linkage): the library calls it
void operator delete(void* memory, size_t /*size*/) noexcept
{
    operator delete(memory);
}
