// The system's version, the processor and the clock: whether a machine meets an application's requirements.
#pragma once

#include <base/VoPlatform.h>

#include <optional>
#include <string>
#include <string_view>

// The classes of the system's version, in ascending order.
enum class ESystemClass : INT32
{
    Unknown = 0,
    BeforeWindows7 = 1,
    Windows7 = 2,            // 6.1 without a service pack
    Windows7ServicePack = 3, // 6.1 with one
    Windows8 = 4,            // 6.2
    Windows81 = 5,           // 6.3
    Windows10 = 6            // 10 or later
};

// The processor, by its CPUID instruction.
struct CProcessorProperties
{
    UINT32 family = 0;
    UINT32 model = 0;
    UINT32 stepping = 0;
    bool mmx = false;
    bool sse = false;
    bool sse2 = false;
    bool sse3 = false;
    bool ssse3 = false;
    bool sse41 = false;
    bool sse42 = false;
    bool avx = false;
    bool isIntel = false; // "GenuineIntel"; false for all other vendors
};

// The constructor reads all of it; read-only afterwards. A value that cannot be read is reported and keeps its default.
class CSystemCheckResult
{
public:
    // Throws CVoHResultException (E_OUTOFMEMORY) when memory is exhausted; otherwise it always completes.
    CSystemCheckResult();

    UINT32 numberOfProcessors = 0;
    bool isNT = false; // the platform is VER_PLATFORM_WIN32_NT
    ESystemClass systemClass = ESystemClass::Unknown;
    INT64 performanceFrequency = 0; // ticks of QueryPerformanceCounter in a second
    double ticksPerMicrosecond = 0; // the same in a microsecond
    std::wstring moduleDirectory;   // of the file that holds this library, without a trailing backslash
    std::wstring moduleFileName;    // of that file
    CProcessorProperties processor; // features are known for the two vendors "GenuineIntel" and "AuthenticAMD"
};

// The process's result. The first call makes it. Any thread. Throws as the constructor does.
[[nodiscard]] const CSystemCheckResult& VoSystemInformation();

// Whether the system is Windows 8.1 (6.3) or later: VerifyVersionInfoW with 6.3 and service pack 0, each greater or equal. All
// parts of the library ask this function. The system answers what the program's manifest names (supportedOS): without it,
// later systems pass for 6.2. Any thread; asked anew by each call.
[[nodiscard]] bool VoIsWindows81OrLater() noexcept;

// The decisions as pure functions.
namespace VoSystemProperties
{
struct CVersionFacts
{
    DWORD platform = 0; // VER_PLATFORM_...
    DWORD major = 0;
    DWORD minor = 0;
    std::wstring_view servicePack;
};
struct CVersionNumbers
{
    DWORD major = 0;
    DWORD minor = 0;
};

// Whether the version must be read from the registry: to programs without a manifest, GetVersionExW reports 6.2 on all later
// systems.
[[nodiscard]] bool NeedsRegistry(const CVersionFacts& facts) noexcept;
// The class of a system. `registry` is used for 6.2 only; nothing where it could not be read.
[[nodiscard]] ESystemClass ClassOf(const CVersionFacts& facts, const std::optional<CVersionNumbers>& registry) noexcept;

// The family from what GetSystemInfo says: the processor level on NT (x86 and x64 only), else the processor type.
[[nodiscard]] UINT32 FamilyOf(bool isNT, const SYSTEM_INFO& system) noexcept;

struct CCpuidRegisters
{
    UINT32 eax = 0;
    UINT32 ebx = 0;
    UINT32 ecx = 0;
    UINT32 edx = 0;
};
enum class EVendor
{
    Other,
    Intel,
    AMD
};
[[nodiscard]] EVendor VendorOf(const CCpuidRegisters& leaf0) noexcept;
// The widest vector instructions that a program may use, in ascending order.
enum class EVectors
{
    SSE2, // part of x86-64
    SSSE3,
    AVX2
};
// `leaf7` is sub-leaf 0, zeros where the processor has none. `savedStates` is the system's register XCR0 (XGETBV), 0 where it
// cannot be read: AVX2 also needs a system that saves the registers (Intel's manual, volume 1, "Detection of AVX2").
[[nodiscard]] EVectors VectorsOf(const CCpuidRegisters& leaf1, const CCpuidRegisters& leaf7, UINT64 savedStates) noexcept;
// The processor of a known vendor, from leaf 1. The extended family and model bits are not used.
[[nodiscard]] CProcessorProperties ProcessorOf(EVendor vendor, const CCpuidRegisters& leaf1) noexcept;
} // namespace VoSystemProperties

// The vector instructions of this machine. The first call asks the processor. Any thread.
[[nodiscard]] VoSystemProperties::EVectors VoProcessorVectors() noexcept;
