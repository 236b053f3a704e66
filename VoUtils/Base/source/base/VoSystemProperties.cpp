// The system's version, the processor and the clock (VoSystemProperties.h).
#include <base/VoSystemProperties.h>

#include "VoModuleVersion.h"
#include "VoNeverDestroyed.h"
#include "VoTarget.h"

#include <base/VoErrorHandler.h>
#include <base/VoPaths.h>
#include <base/VoText.h>

#if defined(_MSC_VER)
#include <intrin.h>
#else
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace
{
using VoSystemProperties::CCpuidRegisters;
using VoSystemProperties::CVersionFacts;
using VoSystemProperties::CVersionNumbers;
using VoSystemProperties::EVendor;

constexpr CVoReporter kReport{ L"..\\..\\source\\base\\VoSystemProperties", L"CSystemCheckResult::CSystemCheckResult" };

class CRegistryKey
{
public:
    CRegistryKey() noexcept = default;
    ~CRegistryKey()
    {
        if (m_key)
            ::RegCloseKey(m_key);
    }
    CRegistryKey(const CRegistryKey&) = delete;
    CRegistryKey& operator=(const CRegistryKey&) = delete;

    [[nodiscard]] HKEY Get() const noexcept { return m_key; }
    [[nodiscard]] HKEY* Put() noexcept { return &m_key; }

private:
    HKEY m_key = nullptr;
};

// The version call answers what the program's manifest admits; the caller wants just that.
bool ReadVersion(OSVERSIONINFOW& version) noexcept
{
    static_assert(sizeof(OSVERSIONINFOW) == 276);
    version = {};
    version.dwOSVersionInfoSize = sizeof version;
#if defined(_MSC_VER)
#pragma warning(suppress : 4996) // deprecated in favour of asking for features, which is not the question here
#endif
    return ::GetVersionExW(&version) != FALSE;
}

LSTATUS ReadNumber(HKEY key, const wchar_t* name, DWORD& value) noexcept
{
    DWORD type = 0;
    DWORD size = sizeof value;
    const LSTATUS status = ::RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size);
    // A value of another type may also be longer than a number.
    if (status == ERROR_MORE_DATA || (status == ERROR_SUCCESS && (type != REG_DWORD || size != sizeof value)))
        return ERROR_INVALID_DATA;
    return status;
}

std::optional<CVersionNumbers> ReadRegistryVersion() noexcept
{
    CRegistryKey key;
    LSTATUS status =
        ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", 0, KEY_READ, key.Put());
    if (status != ERROR_SUCCESS)
    {
        (void)kReport.Win32(61, 61, static_cast<DWORD>(status));
        return std::nullopt;
    }
    CVersionNumbers numbers;
    status = ReadNumber(key.Get(), L"CurrentMajorVersionNumber", numbers.major);
    if (status == ERROR_SUCCESS)
        status = ReadNumber(key.Get(), L"CurrentMinorVersionNumber", numbers.minor);
    if (status != ERROR_SUCCESS)
    {
        (void)kReport.Win32(71, 71, static_cast<DWORD>(status));
        return std::nullopt;
    }
    return numbers;
}

// One leaf (sub-leaf 0) of the CPUID instruction; nothing where the processor does not have it.
std::optional<CCpuidRegisters> ReadCpuid(UINT32 leaf) noexcept
{
#if defined(_MSC_VER)
    int registers[4] = {};
    __cpuid(registers, 0);
    if (static_cast<UINT32>(registers[0]) < leaf)
        return std::nullopt;
    __cpuidex(registers, static_cast<int>(leaf), 0);
    return CCpuidRegisters{ static_cast<UINT32>(registers[0]), static_cast<UINT32>(registers[1]),
                            static_cast<UINT32>(registers[2]), static_cast<UINT32>(registers[3]) };
#else
    CCpuidRegisters result;
    if (!__get_cpuid_count(leaf, 0, &result.eax, &result.ebx, &result.ecx, &result.edx))
        return std::nullopt;
    return result;
#endif
}

// The register XCR0: the register states that the system saves. Only for processors with the bit OSXSAVE.
VO_TARGET("xsave") UINT64 ReadSavedStates() noexcept
{
    return static_cast<UINT64>(_xgetbv(0));
}

void ReadProcessor(CProcessorProperties& processor) noexcept
{
    const std::optional<CCpuidRegisters> vendorLeaf = ReadCpuid(0);
    if (!vendorLeaf)
    {
        (void)kReport.Win32(91, 91, ERROR_NOT_SUPPORTED);
        return;
    }
    const EVendor vendor = VendorOf(*vendorLeaf);
    if (vendor == EVendor::Other)
        return;
    processor.isIntel = vendor == EVendor::Intel;
    const std::optional<CCpuidRegisters> features = ReadCpuid(1);
    if (features)
        processor = VoSystemProperties::ProcessorOf(vendor, *features);
    else
        (void)kReport.Win32(98, 98, ERROR_NOT_SUPPORTED);
}
} // namespace

namespace VoSystemProperties
{
namespace
{
bool IsSet(UINT32 value, int bit) noexcept
{
    return ((value >> bit) & 1) != 0;
}
constexpr int kSystemSavesStatesBit = 27; // OSXSAVE of leaf 1, ECX
} // namespace

bool NeedsRegistry(const CVersionFacts& facts) noexcept
{
    return facts.platform == VER_PLATFORM_WIN32_NT && facts.major == 6 && facts.minor == 2;
}

ESystemClass ClassOf(const CVersionFacts& facts, const std::optional<CVersionNumbers>& registry) noexcept
{
    if (facts.platform != VER_PLATFORM_WIN32_NT)
        return ESystemClass::Unknown;
    if (facts.major >= 7)
        return ESystemClass::Windows10;
    if (facts.major < 6)
        return ESystemClass::BeforeWindows7;
    switch (facts.minor)
    {
    case 0:
        return ESystemClass::BeforeWindows7;
    case 1:
        return VoStartsWithNoCase(facts.servicePack, L"Service Pack ") ? ESystemClass::Windows7ServicePack
                                                                       : ESystemClass::Windows7;
    case 2:
        if (registry && registry->major > 6)
            return ESystemClass::Windows10;
        return registry && registry->major == 6 && registry->minor == 3 ? ESystemClass::Windows81 : ESystemClass::Windows8;
    case 3:
        return ESystemClass::Windows81;
    default:
        return ESystemClass::Unknown;
    }
}

UINT32 FamilyOf(bool isNT, const SYSTEM_INFO& system) noexcept
{
    if (isNT)
    {
        const WORD architecture = system.wProcessorArchitecture;
        const bool isX86 = architecture == PROCESSOR_ARCHITECTURE_INTEL || architecture == PROCESSOR_ARCHITECTURE_AMD64;
        return isX86 ? system.wProcessorLevel : 0;
    }
    switch (system.dwProcessorType)
    {
    case 386:
        return 3;
    case 486:
        return 4;
    case 586:
        return 5;
    default:
        return 0;
    }
}

EVendor VendorOf(const CCpuidRegisters& leaf0) noexcept
{
    // The twelve letters stand in EBX, EDX, ECX, the first in the lowest byte.
    const auto is = [&leaf0](UINT32 ebx, UINT32 edx, UINT32 ecx)
    { return leaf0.ebx == ebx && leaf0.edx == edx && leaf0.ecx == ecx; };
    if (is(0x756E6547, 0x49656E69, 0x6C65746E)) // "Genu" "ineI" "ntel"
        return EVendor::Intel;
    if (is(0x68747541, 0x69746E65, 0x444D4163)) // "Auth" "enti" "cAMD"
        return EVendor::AMD;
    return EVendor::Other;
}

CProcessorProperties ProcessorOf(EVendor vendor, const CCpuidRegisters& leaf1) noexcept
{
    const auto bit = [](UINT32 value, int number) { return ((value >> number) & 1) != 0; };
    CProcessorProperties result;
    result.family = (leaf1.eax >> 8) & 0xF;
    result.model = (leaf1.eax >> 4) & 0xF;
    result.stepping = leaf1.eax & 0xF;
    result.mmx = bit(leaf1.edx, 23);
    result.sse = bit(leaf1.edx, 25);
    result.sse2 = bit(leaf1.edx, 26);
    result.sse3 = bit(leaf1.ecx, 0);
    result.ssse3 = bit(leaf1.ecx, 9);
    result.sse41 = bit(leaf1.ecx, 19);
    result.sse42 = bit(leaf1.ecx, 20);
    result.avx = bit(leaf1.ecx, 28);
    result.isIntel = vendor == EVendor::Intel;
    return result;
}

EVectors VectorsOf(const CCpuidRegisters& leaf1, const CCpuidRegisters& leaf7, UINT64 savedStates) noexcept
{
    constexpr UINT64 kVectorStates = 6; // the registers XMM and YMM
    const bool isSaved = IsSet(leaf1.ecx, kSystemSavesStatesBit) && (savedStates & kVectorStates) == kVectorStates;
    const bool hasAVX2 = IsSet(leaf1.ecx, 28) && IsSet(leaf7.ebx, 5) && IsSet(leaf1.ecx, 23); // AVX, AVX2, POPCNT
    if (isSaved && hasAVX2)
        return EVectors::AVX2;
    return IsSet(leaf1.ecx, 9) ? EVectors::SSSE3 : EVectors::SSE2;
}
} // namespace VoSystemProperties

VoSystemProperties::EVectors VoProcessorVectors() noexcept
{
    static const VoSystemProperties::EVectors vectors = []() noexcept
    {
        const CCpuidRegisters features = ReadCpuid(1).value_or(CCpuidRegisters{});
        const bool hasStates = VoSystemProperties::IsSet(features.ecx, VoSystemProperties::kSystemSavesStatesBit);
        return VoSystemProperties::VectorsOf(features, ReadCpuid(7).value_or(CCpuidRegisters{}),
                                             hasStates ? ReadSavedStates() : 0);
    }();
    return vectors;
}

CSystemCheckResult::CSystemCheckResult()
{
    SYSTEM_INFO system{};
    ::GetSystemInfo(&system);
    numberOfProcessors = system.dwNumberOfProcessors;

    OSVERSIONINFOW version;
    if (ReadVersion(version))
    {
        const CVersionFacts facts{ version.dwPlatformId, version.dwMajorVersion, version.dwMinorVersion, version.szCSDVersion };
        isNT = facts.platform == VER_PLATFORM_WIN32_NT;
        systemClass =
            VoSystemProperties::ClassOf(facts, VoSystemProperties::NeedsRegistry(facts) ? ReadRegistryVersion() : std::nullopt);
    }
    else
        (void)kReport.LastError(211, 212);

    LARGE_INTEGER frequency{};
    if (!::QueryPerformanceFrequency(&frequency))
        (void)kReport.LastError(216, 217);
    performanceFrequency = frequency.QuadPart;
    ticksPerMicrosecond = static_cast<double>(performanceFrequency) / 1'000'000.0;

    if (const HRESULT hr = GetModuleDirAndFileName(VoOwnModule(), &moduleDirectory, &moduleFileName); FAILED(hr))
    {
        (void)kReport(223, hr);
        if (hr == E_OUTOFMEMORY)
            throw CVoHResultException(hr);
    }

    processor.family = VoSystemProperties::FamilyOf(isNT, system);
    if (processor.family >= 5)
        ReadProcessor(processor);
}

const CSystemCheckResult& VoSystemInformation()
{
    static CVoNeverDestroyed<CSystemCheckResult> result;
    return result.Get();
}

bool VoIsWindows81OrLater() noexcept
{
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof version;
    version.dwMajorVersion = 6;
    version.dwMinorVersion = 3;
    version.wServicePackMajor = 0;
    DWORD fields = 0;
    DWORDLONG conditions = 0;
    for (const DWORD field : { DWORD{ VER_MAJORVERSION }, DWORD{ VER_MINORVERSION }, DWORD{ VER_SERVICEPACKMAJOR } })
    {
        fields |= field;
        conditions = ::VerSetConditionMask(conditions, field, VER_GREATER_EQUAL);
    }
    return ::VerifyVersionInfoW(&version, fields, conditions) != FALSE;
}
