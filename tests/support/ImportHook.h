// Fault injection without a seam in the product: functions of the platform are replaced, for a scope, in the import table of
// the test program.
//
//     CFailOnCall<decltype(&::CreateEventW)> fail("kernel32.dll", "CreateEventW", /*call*/ 2, /*returns*/ nullptr,
//                                                ERROR_NOT_ENOUGH_MEMORY);
//
//     CCallHook<decltype(&::WinHttpSetOption)> hook("winhttp.dll", "WinHttpSetOption",
//         [&](auto original, HINTERNET handle, DWORD option, LPVOID value, DWORD length)
//         {
//             seen.push_back(option);
//             return original(handle, option, value, length);
//         });
//
//     ExpectEveryFailureIsHandled({ VO_FAULT("kernel32.dll", CreateEventW, nullptr, ERROR_NOT_ENOUGH_MEMORY), ... },
//                                 [&] { return operation(); }, wasReported);
//
// Hooks are made and ended by one thread at a time, in reverse order (as scopes do); calls may come from any thread, also while
// a hook begins or ends. Only calls made through the program's own imports are seen: those of the test program, of the library
// and of what is linked statically (libcurl, the C++ run-time), not those that a DLL makes itself. A function that the program
// does not import fails the test at once. A compiler may read an import's address once for the whole of a function, so what is
// to be hooked must be called in another function than the one that makes the hook, and not by a loop that is running already.
// Replacements must not use what they replace, directly or inside a lock or a container; they may count, compare and call
// `original`.
#pragma once

#include <base/VoHResult.h>
#include <base/VoPlatform.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// Replaces every entry of the program's import table for one function. `module` as the import table names it ("kernel32.dll"),
// without regard to case; `function` exactly. The untyped base of the kinds below.
class CImportHook
{
public:
    CImportHook(const char* module, const char* function) noexcept;
    ~CImportHook();
    CImportHook(const CImportHook&) = delete;
    CImportHook& operator=(const CImportHook&) = delete;

    // What the entries hold before Install: the platform's function, or the replacement of an outer hook. Null when the program
    // does not import the function (the test has failed then).
    [[nodiscard]] FARPROC Original() const noexcept { return m_original; }
    void Install(FARPROC replacement) noexcept;
    void Remove() noexcept;

private:
    void Write(FARPROC expected, FARPROC value) noexcept;

    std::string m_name;
    std::vector<FARPROC*> m_entries;
    FARPROC m_original = nullptr;
    FARPROC m_replacement = nullptr;
};

// Replaces a function by a callable that receives the original and the call's arguments. The callable may run on several
// threads at once, and may still be running on another thread when the hook ends: it must only use what outlives the calls.
template <class Function>
class CCallHook;

template <class R, class... Args>
class CCallHook<R(WINAPI*)(Args...)>
{
public:
    using Original = R(WINAPI*)(Args...);
    using Replacement = std::function<R(Original, Args...)>;

    CCallHook(const char* module, const char* function, Replacement replacement) : m_hook(module, function)
    {
        if (!m_hook.Original())
            return;
        const auto original = reinterpret_cast<Original>(reinterpret_cast<void*>(m_hook.Original()));
        m_slot = TakeSlot();
        Slots()[m_slot].state = std::make_shared<SState>(SState{ original, std::move(replacement) });
        m_hook.Install(
            reinterpret_cast<FARPROC>(reinterpret_cast<void*>(Trampolines(std::make_index_sequence<kSlots>())[m_slot])));
    }
    ~CCallHook()
    {
        m_hook.Remove();
        if (m_slot < kSlots)
            Slots()[m_slot].isTaken.store(false);
    }
    CCallHook(const CCallHook&) = delete;
    CCallHook& operator=(const CCallHook&) = delete;

private:
    // Functions of one type share these; each hook that is active has one.
    static constexpr size_t kSlots = 16;

    struct SState
    {
        Original original;
        Replacement replacement;
    };
    // The state stays in the slot until another hook takes it, for a call that entered the trampoline as its hook ended.
    struct SSlot
    {
        std::atomic<bool> isTaken{ false };

        // Its lock is one of its own, not the platform's or the C++ library's, which may be what is hooked.
        std::atomic<std::shared_ptr<SState>> state;
    };

    static std::array<SSlot, kSlots>& Slots() noexcept
    {
        static std::array<SSlot, kSlots> slots;
        return slots;
    }
    static size_t TakeSlot()
    {
        static std::atomic<size_t> next{ 0 };
        for (size_t tried = 0; tried < kSlots; ++tried)
        {
            const size_t slot = next.fetch_add(1) % kSlots;
            if (!Slots()[slot].isTaken.exchange(true))
                return slot;
        }
        throw std::length_error("too many hooks of one function type");
    }
    static R Call(size_t slot, Args... args)
    {
        const std::shared_ptr<SState> state = Slots()[slot].state;
        return state->replacement(state->original, args...);
    }
    // All that differs between the slots: a type has as many of these as slots, and the compiler compiles each.
    template <size_t kSlot>
    static R WINAPI Trampoline(Args... args)
    {
        return Call(kSlot, args...);
    }
    template <size_t... kIndex>
    static std::array<Original, kSlots> Trampolines(std::index_sequence<kIndex...>) noexcept
    {
        return { &Trampoline<kIndex>... };
    }

    CImportHook m_hook;
    size_t m_slot = kSlots;
};

// How an injected failure treats the real function.
enum class EInjectedFailure
{
    InsteadOfCall, // the function is not called
    AfterCall      // the function is called and then said to have failed: for functions that release something
};

// Counts the calls of a function and fails one of them.
class CFailingCall
{
public:
    virtual ~CFailingCall() = default;
    CFailingCall(const CFailingCall&) = delete;
    CFailingCall& operator=(const CFailingCall&) = delete;
    // Calls so far, the failed one included.
    [[nodiscard]] int Calls() const noexcept { return m_calls->load(); }

protected:
    CFailingCall() : m_calls(std::make_shared<std::atomic<int>>(0)) {}

    std::shared_ptr<std::atomic<int>> m_calls;
};

template <class Function>
class CFailOnCall;

template <class R, class... Args>
class CFailOnCall<R(WINAPI*)(Args...)> final : public CFailingCall
{
public:
    // The call number `call` (the first is 1; 0 fails none, to count) sets the last error, which is Winsock's last error too,
    // and returns `returns`. All others go to the original.
    CFailOnCall(const char* module, const char* function, int call, R returns, DWORD error,
                EInjectedFailure how = EInjectedFailure::InsteadOfCall)
        : m_hook(module, function, [calls = m_calls, call, returns, error, how](auto original, Args... args) -> R
    {
        if (++*calls != call)
            return original(args...);
        if (how == EInjectedFailure::AfterCall)
            original(args...);
        ::SetLastError(error);
        return returns;
    })
    {
    }

private:
    CCallHook<R(WINAPI*)(Args...)> m_hook;
};

// How a function says that it acquired something.
enum class ESuccess
{
    Nonzero, // a BOOL, a pointer, a handle other than INVALID_HANDLE_VALUE
    Zero     // an error number or a status
};

// Counts what one function acquires and another releases, for leaks that the handle count does not show (keys, hashes, lists of
// addresses). Made before the hooks that inject failures, so that it sees the calls that really happen.
class CAcquireBalance
{
public:
    template <class Acquire, class Release>
    [[nodiscard]] static CAcquireBalance Of(const char* module, const char* acquire, const char* release,
                                            ESuccess success = ESuccess::Nonzero)
    {
        CAcquireBalance balance(acquire);
        balance.AlsoAcquiredBy<Acquire>(module, acquire, success);
        balance.Add(static_cast<Release>(nullptr), module, release, [](const auto&) { return -1; });
        return balance;
    }
    // A further function that acquires the same kind of thing.
    template <class Acquire>
    void AlsoAcquiredBy(const char* module, const char* acquire, ESuccess success = ESuccess::Nonzero)
    {
        Add(static_cast<Acquire>(nullptr), module, acquire,
            [success](const auto& result) { return Acquired(result) == (success == ESuccess::Nonzero) ? 1 : 0; });
    }
    [[nodiscard]] const std::string& Name() const noexcept { return m_name; }
    // Acquired and not released.
    [[nodiscard]] int Open() const noexcept { return m_open->load(); }

    CAcquireBalance(CAcquireBalance&&) noexcept = default;
    CAcquireBalance& operator=(CAcquireBalance&&) = delete;
    ~CAcquireBalance()
    {
        // In reverse, as hooks must end.
        while (!m_hooks.empty())
            m_hooks.pop_back();
    }

private:
    explicit CAcquireBalance(std::string name) : m_name(std::move(name)), m_open(std::make_shared<std::atomic<int>>(0)) {}

    // `step` gives the change that a call's result (0 of a function without one) makes.
    template <class R, class... Args, class Step>
    void Add(R(WINAPI* /*type*/)(Args...), const char* module, const char* function, Step step)
    {
        const auto replacement = [open = m_open, step](auto original, Args... args) -> R
        {
            if constexpr (std::is_void_v<R>)
            {
                original(args...);
                *open += step(0);
            }
            else
            {
                const R result = original(args...);
                *open += step(result);
                return result;
            }
        };
        m_hooks.push_back(std::make_shared<CCallHook<R(WINAPI*)(Args...)>>(module, function, replacement));
    }
    template <class R>
    [[nodiscard]] static bool Acquired(const R& result) noexcept
    {
        if constexpr (std::is_pointer_v<R>)
            return result && static_cast<const void*>(result) != INVALID_HANDLE_VALUE;
        else
            return result != 0;
    }

    std::string m_name;
    std::shared_ptr<std::atomic<int>> m_open;
    std::vector<std::shared_ptr<void>> m_hooks;
};

// Handles that the process has open. GetProcessHandleCount answers 0 on some implementations of the platform; then the system's
// handle table is counted.
[[nodiscard]] DWORD CountProcessHandles();

// One way in which the platform may fail an operation.
struct CFault
{
    std::string function;
    // The code that the operation must give for it.
    HRESULT expected;
    // Fails the call of that number.
    std::function<std::unique_ptr<CFailingCall>(int call)> inject;
};

template <class R, class... Args>
[[nodiscard]] CFault MakeFault(R(WINAPI* /*type*/)(Args...), const char* module, const char* function,
                               std::type_identity_t<R> returns, DWORD error, HRESULT expected,
                               EInjectedFailure how = EInjectedFailure::InsteadOfCall)
{
    return { function, expected, [=](int call) -> std::unique_ptr<CFailingCall>
    { return std::make_unique<CFailOnCall<R(WINAPI*)(Args...)>>(module, function, call, returns, error, how); } };
}

// The fault "this function returns this with this last error", from which the operation gives HResultFromWin32(error).
#define VO_FAULT(module, function, returns, error)                                                                             \
    MakeFault(static_cast<decltype(&::function)>(nullptr), module, #function, returns, error, HResultFromWin32(error))
// The same for a function that releases something: it does so and says that it failed.
#define VO_FAULT_AFTER_CALL(module, function, returns, error)                                                                  \
    MakeFault(static_cast<decltype(&::function)>(nullptr), module, #function, returns, error, HResultFromWin32(error),         \
              EInjectedFailure::AfterCall)
// The same for an operation that turns the fault into a code of its own.
#define VO_FAULT_GIVES(module, function, returns, error, expected)                                                             \
    MakeFault(static_cast<decltype(&::function)>(nullptr), module, #function, returns, error, expected)

// Fails the first, the second, ... the last call that `run` makes of each function, one at a time. `run` does the operation
// from the start to the end (threads joined, objects gone) and returns its code; where the operation fails it checks with
// EXPECT_... that outputs are untouched. Expected of every run: the fault's code, a report of it, no handle and no balanced
// thing left open. Undisturbed, the run must succeed and call each function at least once. `wasReported(code)` looks into the
// log and may clear it; null skips that check. Handles of the process are not counted where a server in it opens and closes
// its own meanwhile.
void ExpectEveryFailureIsHandled(const std::vector<CFault>& faults, const std::function<HRESULT()>& run,
                                 const std::function<bool(HRESULT)>& wasReported,
                                 const std::vector<const CAcquireBalance*>& balances = {}, bool countHandles = true);
