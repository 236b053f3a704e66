#include "support/ImportHook.h"

#include <gtest/gtest.h>

#include <cstring>

namespace
{
// The hook's own platform functions, taken past the import table: a test may hook these too.
struct SPlatform
{
    decltype(&::VirtualProtect) virtualProtect;
    decltype(&::GetLastError) getLastError;
    decltype(&::SetLastError) setLastError;
};

template <class Function>
Function Resolve(HMODULE module, const char* name) noexcept
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

const SPlatform& Platform() noexcept
{
    static const SPlatform platform = []
    {
        const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
        return SPlatform{ Resolve<decltype(&::VirtualProtect)>(kernel, "VirtualProtect"),
                          Resolve<decltype(&::GetLastError)>(kernel, "GetLastError"),
                          Resolve<decltype(&::SetLastError)>(kernel, "SetLastError") };
    }();
    return platform;
}

BYTE* ProgramImage() noexcept
{
    return reinterpret_cast<BYTE*>(::GetModuleHandleW(nullptr));
}

template <class T>
T* AtOffset(DWORD offset) noexcept
{
    return reinterpret_cast<T*>(ProgramImage() + offset);
}

// Some linkers align the import table to four bytes only.
template <class T>
T Unaligned(const T* place) noexcept
{
    T value;
    std::memcpy(static_cast<void*>(&value), static_cast<const void*>(place), sizeof value);
    return value;
}

bool IsImportOf(const IMAGE_THUNK_DATA64& thunk, const char* function) noexcept
{
    if (IMAGE_SNAP_BY_ORDINAL64(thunk.u1.Ordinal))
        return false; // the import libraries in use name their functions
    const auto* const byName = AtOffset<const IMAGE_IMPORT_BY_NAME>(static_cast<DWORD>(thunk.u1.AddressOfData));
    return std::strcmp(&byName->Name[0], function) == 0;
}

// Every entry of the program's import table for the function: imports of one DLL may stand in several descriptors.
std::vector<FARPROC*> FindEntries(const char* module, const char* function)
{
    std::vector<FARPROC*> entries;
    const auto* const dos = AtOffset<const IMAGE_DOS_HEADER>(0);
    const auto* const headers = AtOffset<const IMAGE_NT_HEADERS64>(static_cast<DWORD>(dos->e_lfanew));
    const DWORD imports = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    if (imports == 0)
        return entries;
    for (const auto* descriptor = AtOffset<const IMAGE_IMPORT_DESCRIPTOR>(imports); descriptor->Name != 0; ++descriptor)
    {
        if (::lstrcmpiA(AtOffset<const char>(descriptor->Name), module) != 0 || descriptor->OriginalFirstThunk == 0)
            continue;
        const auto* name = AtOffset<const IMAGE_THUNK_DATA64>(descriptor->OriginalFirstThunk);
        auto* entry = AtOffset<FARPROC>(descriptor->FirstThunk);
        for (;; ++name, ++entry)
        {
            const IMAGE_THUNK_DATA64 thunk = Unaligned(name);
            if (thunk.u1.AddressOfData == 0)
                break;
            if (IsImportOf(thunk, function))
                entries.push_back(entry);
        }
    }
    return entries;
}
} // namespace

CImportHook::CImportHook(const char* module, const char* function) noexcept : m_name(function)
{
    m_entries = FindEntries(module, function);
    if (m_entries.empty())
        ADD_FAILURE() << "The test program does not import " << function << " from " << module
                      << ": nothing is hooked and the test would prove nothing";
    else
        m_original = Unaligned(m_entries.front());
}

CImportHook::~CImportHook()
{
    Remove();
}

void CImportHook::Install(FARPROC replacement) noexcept
{
    m_replacement = replacement;
    Write(m_original, replacement);
}

void CImportHook::Remove() noexcept
{
    if (const FARPROC replacement = std::exchange(m_replacement, nullptr))
        Write(replacement, m_original);
}

void CImportHook::Write(FARPROC expected, FARPROC value) noexcept
{
    const DWORD lastError = Platform().getLastError();
    for (FARPROC* const entry : m_entries)
    {
        DWORD protection = 0;
        if (!Platform().virtualProtect(static_cast<void*>(entry), sizeof(*entry), PAGE_READWRITE, &protection))
        {
            ADD_FAILURE() << "The import of " << m_name << " cannot be written";
            continue;
        }
        // Not std::atomic_ref, which demands an alignment.
        void* const found =
            ::InterlockedExchangePointer(reinterpret_cast<void* volatile*>(entry), reinterpret_cast<void*>(value));
        EXPECT_EQ(found, reinterpret_cast<void*>(expected))
            << "Hooks of " << m_name << " must end in the reverse order of their beginning";
        Platform().virtualProtect(static_cast<void*>(entry), sizeof(*entry), protection, &protection);
    }
    Platform().setLastError(lastError);
}

DWORD CountProcessHandles()
{
    DWORD count = 0;
    if (::GetProcessHandleCount(::GetCurrentProcess(), &count) && count != 0)
        return count;

    // SystemExtendedHandleInformation and its records, which the platform's headers leave out.
    constexpr int kSystemExtendedHandleInformation = 64;
    struct SEntry
    {
        void* object;
        ULONG_PTR processId;
        ULONG_PTR handle;
        ULONG access;
        USHORT backTrace;
        USHORT type;
        ULONG attributes;
        ULONG reserved;
    };
    struct STable
    {
        ULONG_PTR count;
        ULONG_PTR reserved;
        SEntry entries[1];
    };
    using Query = LONG(WINAPI*)(int, void*, ULONG, ULONG*);
    static const auto query = Resolve<Query>(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation");
    std::vector<ULONG_PTR> buffer(0x10000);
    while (query(kSystemExtendedHandleInformation, buffer.data(), static_cast<ULONG>(buffer.size() * sizeof(buffer[0])),
                 nullptr) < 0)
        buffer.resize(buffer.size() * 2);
    const auto& table = *reinterpret_cast<const STable*>(buffer.data());
    for (ULONG_PTR index = 0; index < table.count; ++index)
    {
        if (table.entries[index].processId == ::GetCurrentProcessId())
            ++count;
    }
    return count;
}

void ExpectEveryFailureIsHandled(const std::vector<CFault>& faults, const std::function<HRESULT()>& run,
                                 const std::function<bool(HRESULT)>& wasReported,
                                 const std::vector<const CAcquireBalance*>& balances, bool countHandles)
{
    // What is closed twice may belong to somebody else the second time.
    const auto refused = std::make_shared<std::atomic<int>>(0);
    const CCallHook<decltype(&::CloseHandle)> closing("kernel32.dll", "CloseHandle", [refused](auto original, HANDLE handle)
    {
        const BOOL isClosed = original(handle);
        *refused += !isClosed;
        return isClosed;
    });
    // The first run also makes what stays for the life of the process, before handles are counted.
    ASSERT_GE(run(), 0) << "The operation fails undisturbed";
    for (const CFault& fault : faults)
    {
        int calls = 0;
        {
            const std::unique_ptr<CFailingCall> counter = fault.inject(0);
            ASSERT_GE(run(), 0) << "The operation fails with " << fault.function << " only counted";
            calls = counter->Calls();
        }
        EXPECT_GT(calls, 0) << "The operation never calls " << fault.function;

        for (int call = 1; call <= calls; ++call)
        {
            SCOPED_TRACE(testing::Message() << "call " << call << " of " << calls << " of " << fault.function << " fails");
            std::vector<int> open;
            for (const CAcquireBalance* balance : balances)
                open.push_back(balance->Open());
            const DWORD handles = countHandles ? CountProcessHandles() : 0;
            HRESULT result = S_OK;
            {
                const std::unique_ptr<CFailingCall> failing = fault.inject(call);
                result = run();
                EXPECT_GE(failing->Calls(), call) << "The failing call was not reached";
            }
            EXPECT_EQ(static_cast<ULONG>(result), static_cast<ULONG>(fault.expected));
            EXPECT_EQ(countHandles ? CountProcessHandles() : 0, handles) << "Handles leaked or closed twice";
            for (size_t index = 0; index < balances.size(); ++index)
                EXPECT_EQ(balances[index]->Open(), open[index]) << balances[index]->Name() << " is out of balance";
            EXPECT_TRUE(!wasReported || wasReported(result)) << "The failure was not reported";
        }
    }
    EXPECT_EQ(*refused, 0) << "A handle was closed twice";
}
