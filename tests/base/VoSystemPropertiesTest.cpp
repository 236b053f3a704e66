// Tests of the system check and its decisions.
#include <base/VoErrorHandler.h>
#include <base/VoSystemProperties.h>

#include <support/ImportHook.h>
#include <support/LogCapture.h>

#include <cstring>

using namespace TestSupport;
using namespace VoSystemProperties;

namespace
{
constexpr const wchar_t* kSystemPropertiesSource = L"..\\..\\source\\base\\VoSystemProperties";
constexpr const wchar_t* kConstructor = L"CSystemCheckResult::CSystemCheckResult";

// The answer of the version call. It is 6.2 for a program that names no later system.
CCallHook<decltype(&::GetVersionExW)> VersionIs(const CVersionFacts& facts)
{
    return { "kernel32.dll", "GetVersionExW", [facts](auto, OSVERSIONINFOW* version) -> BOOL
    {
        EXPECT_EQ(version->dwOSVersionInfoSize, 276u);
        version->dwPlatformId = facts.platform;
        version->dwMajorVersion = facts.major;
        version->dwMinorVersion = facts.minor;
        version->szCSDVersion[std::wstring_view(facts.servicePack).copy(version->szCSDVersion, 127)] = 0;
        return TRUE;
    } };
}

// The registry's answer to the two version values.
CCallHook<decltype(&::RegQueryValueExW)> RegistryVersion(DWORD type, DWORD major, DWORD minor)
{
    return { "advapi32.dll", "RegQueryValueExW",
             [=](auto, HKEY, LPCWSTR name, LPDWORD, LPDWORD typeOut, LPBYTE data, LPDWORD size) -> LSTATUS
    {
        const DWORD value = std::wstring_view(name) == L"CurrentMajorVersionNumber" ? major : minor;
        *typeOut = type;
        std::memcpy(data, &value, sizeof value);
        *size = sizeof value;
        return ERROR_SUCCESS;
    } };
}
} // namespace

TEST(SystemCheck, ClassesTheSystemByItsVersion)
{
    constexpr DWORD kNT = VER_PLATFORM_WIN32_NT;
    const struct
    {
        CVersionFacts facts;
        std::optional<CVersionNumbers> registry;
        int expected;
    } kCases[] = {
        { { 1, 4, 10, L"" }, {}, 0 },
        { { kNT, 5, 2, L"" }, {}, 1 },
        { { kNT, 6, 0, L"" }, {}, 1 },
        { { kNT, 6, 1, L"Service Pack" }, {}, 2 },
        { { kNT, 6, 1, L"Service Pack 1" }, {}, 3 },
        { { kNT, 6, 1, L"SERVICE PACK 2, v.1" }, {}, 3 },
        { { kNT, 6, 2, L"" }, {}, 4 },
        { { kNT, 6, 2, L"" }, CVersionNumbers{ 10, 0 }, 6 },
        { { kNT, 6, 2, L"" }, CVersionNumbers{ 6, 3 }, 5 },
        { { kNT, 6, 2, L"" }, CVersionNumbers{ 5, 3 }, 4 },
        { { kNT, 6, 3, L"" }, CVersionNumbers{ 10, 0 }, 5 },
        { { kNT, 6, 4, L"" }, {}, 0 },
        { { kNT, 10, 0, L"" }, {}, 6 },
    };
    for (const auto& c : kCases)
    {
        SCOPED_TRACE(testing::Message() << c.facts.major << "." << c.facts.minor);
        EXPECT_EQ(static_cast<int>(ClassOf(c.facts, c.registry)), c.expected);
        // The same as the platform answers it.
        const auto version = VersionIs(c.facts);
        const auto [major, minor] = c.registry.value_or(CVersionNumbers{ 6, 2 });
        const auto registry = RegistryVersion(REG_DWORD, major, minor);
        EXPECT_EQ(static_cast<int>(CSystemCheckResult().systemClass), c.expected);
    }
}

TEST(SystemCheck, ReadsTheRegistryWhenTheVersionCallSays62)
{
    const auto version = VersionIs({ VER_PLATFORM_WIN32_NT, 6, 2, L"" });
    const auto keys = CAcquireBalance::Of<decltype(&::RegOpenKeyExW), decltype(&::RegCloseKey)>("advapi32.dll", "RegOpenKeyExW",
                                                                                                "RegCloseKey", ESuccess::Zero);
    // `line`: of the report, 0 for none.
    const auto check = [&](ESystemClass expected, int line, DWORD error)
    {
        const CLogCapture log;
        EXPECT_EQ(CSystemCheckResult().systemClass, expected);
        const auto is = IsReport(kSystemPropertiesSource, line, kConstructor, HResultFromWin32(error));
        EXPECT_THAT(log.Lines(), testing::AllOf(testing::SizeIs(line == 0 ? 0 : 1), testing::Each(is)));
        EXPECT_EQ(keys.Open(), 0);
    };
    const std::tuple<DWORD, DWORD, DWORD, ESystemClass, int, DWORD> answers[] = {
        { REG_SZ, 10, 0, ESystemClass::Windows8, 71, ERROR_INVALID_DATA },
        { REG_DWORD, 6, 3, ESystemClass::Windows81, 0, 0 },
        { REG_DWORD, 10, 0, ESystemClass::Windows10, 0, 0 },
    };
    for (const auto& [type, major, minor, expected, line, error] : answers)
    {
        const auto registry = RegistryVersion(type, major, minor);
        check(expected, line, error);
    }
    const auto registry = RegistryVersion(REG_DWORD, 10, 0);
    for (const int call : { 1, 2 })
    {
        const CFailOnCall<decltype(&::RegQueryValueExW)> fail("advapi32.dll", "RegQueryValueExW", call, ERROR_FILE_NOT_FOUND,
                                                              0);
        check(ESystemClass::Windows8, 71, ERROR_FILE_NOT_FOUND);
    }
    const CFailOnCall<decltype(&::RegOpenKeyExW)> fail("advapi32.dll", "RegOpenKeyExW", 1, ERROR_ACCESS_DENIED, 0);
    check(ESystemClass::Windows8, 61, ERROR_ACCESS_DENIED);
}

TEST(SystemCheck, VendorNeedsAllThreeRegisters)
{
    const auto vendor = [](const std::string& text)
    {
        CCpuidRegisters registers;
        std::memcpy(&registers.ebx, text.data(), 4);
        std::memcpy(&registers.edx, &text[4], 4);
        std::memcpy(&registers.ecx, &text[8], 4);
        return VendorOf(registers);
    };
    EXPECT_EQ(vendor("GenuineIntel"), EVendor::Intel);
    EXPECT_EQ(vendor("AuthenticAMD"), EVendor::AMD);
    for (const char* other : { "GenuineInte?", "Genu?neIntel", "?enuineIntel", "AuthenticAMd", "HygonGenuine" })
        EXPECT_EQ(vendor(other), EVendor::Other) << other;
}

TEST(SystemCheck, FeaturesAndModelComeFromTheLeaf)
{
    CCpuidRegisters leaf;
    leaf.eax = 0x0F8B'4ACE; // extended family and model bits are set and must not count
    leaf.edx = 1u << 25;
    leaf.ecx = 1u << 9 | 1u << 28;
    const CProcessorProperties intel = ProcessorOf(EVendor::Intel, leaf);
    EXPECT_EQ(intel.family, 0xAu);
    EXPECT_EQ(intel.model, 0xCu);
    EXPECT_EQ(intel.stepping, 0xEu);
    EXPECT_TRUE(intel.isIntel && !ProcessorOf(EVendor::AMD, leaf).isIntel);
    EXPECT_TRUE(intel.sse && intel.ssse3 && intel.avx);
    EXPECT_FALSE(intel.mmx || intel.sse2 || intel.sse3 || intel.sse41 || intel.sse42);
}

TEST(SystemCheck, VectorsNeedTheProcessorAndTheSystem)
{
    constexpr UINT32 kSSSE3 = 1u << 9;
    constexpr UINT32 kAll = kSSSE3 | 1u << 23 | 1u << 27 | 1u << 28; // POPCNT, OSXSAVE, AVX
    constexpr UINT32 kAVX2 = 1u << 5;
    // ECX of leaf 1, EBX of leaf 7, the states that the system saves.
    for (const auto& [ecx, ebx, states, expected] : { std::tuple(kAll, kAVX2, UINT64{ 7 }, EVectors::AVX2),
                                                      { kAll, kAVX2, 3, EVectors::SSSE3 },
                                                      { kAll, 0u, 7, EVectors::SSSE3 },
                                                      { kAll & ~(1u << 27), kAVX2, 7, EVectors::SSSE3 },
                                                      { kAll & ~(1u << 28), kAVX2, 7, EVectors::SSSE3 },
                                                      { kSSSE3, 0u, 0, EVectors::SSSE3 },
                                                      { 0u, 0u, 0, EVectors::SSE2 } })
        EXPECT_EQ(VectorsOf({ .ecx = ecx }, { .ebx = ebx }, states), expected) << ecx << " " << ebx << " " << states;
}

TEST(SystemCheck, TheMachineItself)
{
    const CSystemCheckResult& result = VoSystemInformation();
    EXPECT_TRUE(result.isNT);
    EXPECT_GE(result.systemClass, ESystemClass::Windows7);
    EXPECT_GT(result.performanceFrequency, 0);
    EXPECT_DOUBLE_EQ(result.ticksPerMicrosecond * 1e6, static_cast<double>(result.performanceFrequency));
    EXPECT_TRUE(result.moduleFileName.ends_with(L".exe")) << "the library is linked into the test program";
}
