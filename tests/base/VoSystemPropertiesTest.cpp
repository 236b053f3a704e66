#include <base/VoErrorHandler.h>
#include <base/VoSystemProperties.h>

#include <support/ImportHook.h>
#include <support/LogCapture.h>

#include <cstring>

using namespace TestSupport;
using namespace VoSystemProperties;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{
constexpr const wchar_t* kSource = L"..\\..\\source\\base\\VoSystemProperties";
constexpr const wchar_t* kConstructor = L"CSystemCheckResult::CSystemCheckResult";

// A version call that answers 6.2, as it does to a program that names no later system.
CCallHook<decltype(&::GetVersionExW)> Version62()
{
    return { "kernel32.dll", "GetVersionExW", [](auto, OSVERSIONINFOW* version) -> BOOL
             {
                 EXPECT_EQ(version->dwOSVersionInfoSize, 276u);
                 version->dwPlatformId = VER_PLATFORM_WIN32_NT;
                 version->dwMajorVersion = 6;
                 version->dwMinorVersion = 2;
                 version->szCSDVersion[0] = 0;
                 return TRUE;
             } };
}

// The registry's answer to the two version values.
CCallHook<decltype(&::RegQueryValueExW)> RegistryVersion(DWORD type, DWORD major, DWORD minor)
{
    return { "advapi32.dll", "RegQueryValueExW",
             [type, major, minor](auto, HKEY, LPCWSTR name, LPDWORD, LPDWORD typeOut, LPBYTE data, LPDWORD size) -> LSTATUS
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
        { { kNT, 5, 1, L"Service Pack 3" }, {}, 1 },
        { { kNT, 6, 0, L"" }, {}, 1 },
        { { kNT, 6, 1, L"" }, {}, 2 },
        { { kNT, 6, 1, L"Service Pack" }, {}, 2 },
        { { kNT, 6, 1, L"Service Pack 1" }, {}, 3 },
        { { kNT, 6, 1, L"SERVICE PACK 2, v.1" }, {}, 3 },
        { { kNT, 6, 2, L"" }, {}, 4 },
        { { kNT, 6, 2, L"" }, CVersionNumbers{ 10, 0 }, 6 },
        { { kNT, 6, 2, L"" }, CVersionNumbers{ 7, 3 }, 6 },
        { { kNT, 6, 2, L"" }, CVersionNumbers{ 6, 3 }, 5 },
        { { kNT, 6, 2, L"" }, CVersionNumbers{ 6, 2 }, 4 },
        { { kNT, 6, 2, L"" }, CVersionNumbers{ 5, 3 }, 4 },
        { { kNT, 6, 3, L"" }, CVersionNumbers{ 10, 0 }, 5 },
        { { kNT, 6, 4, L"" }, {}, 0 },
        { { kNT, 7, 0, L"" }, {}, 6 },
        { { kNT, 10, 0, L"" }, {}, 6 },
    };
    for (const auto& c : kCases)
        EXPECT_EQ(static_cast<int>(ClassOf(c.facts, c.registry)), c.expected) << c.facts.major << "." << c.facts.minor;
}

TEST(SystemCheck, ReadsTheRegistryWhenTheVersionCallSays62)
{
    const auto version = Version62();
    const struct
    {
        DWORD type;
        DWORD major;
        DWORD minor;
        ESystemClass expected;
        bool reported;
    } kCases[] = {
        { REG_DWORD, 10, 0, ESystemClass::Windows10, false },
        { REG_DWORD, 6, 3, ESystemClass::Windows81, false },
        { REG_SZ, 10, 0, ESystemClass::Windows8, true },
    };
    for (const auto& c : kCases)
    {
        const auto registry = RegistryVersion(c.type, c.major, c.minor);
        const CLogCapture log;
        EXPECT_EQ(CSystemCheckResult().systemClass, c.expected);
        if (c.reported)
            EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 71, kConstructor, HResultFromWin32(ERROR_INVALID_DATA))));
        else
            EXPECT_THAT(log.Lines(), IsEmpty());
    }
    {
        const CLogCapture log;
        const CFailOnCall<decltype(&::RegOpenKeyExW)> fail("advapi32.dll", "RegOpenKeyExW", 1, ERROR_ACCESS_DENIED, 0);
        EXPECT_EQ(CSystemCheckResult().systemClass, ESystemClass::Windows8);
        EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 61, kConstructor, E_ACCESSDENIED)));
    }
    for (const int call : { 1, 2 })
    {
        const CLogCapture log;
        const auto registry = RegistryVersion(REG_DWORD, 10, 0);
        const auto keys = CAcquireBalance::Of<decltype(&::RegOpenKeyExW), decltype(&::RegCloseKey)>(
            "advapi32.dll", "RegOpenKeyExW", "RegCloseKey", ESuccess::Zero);
        const CFailOnCall<decltype(&::RegQueryValueExW)> fail("advapi32.dll", "RegQueryValueExW", call, ERROR_FILE_NOT_FOUND,
                                                              0);
        EXPECT_EQ(CSystemCheckResult().systemClass, ESystemClass::Windows8);
        EXPECT_EQ(keys.Open(), 0);
        EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 71, kConstructor, HResultFromWin32(ERROR_FILE_NOT_FOUND))));
    }
}

TEST(SystemCheck, AFailedVersionCallLeavesTheClassUnknown)
{
    const CFailOnCall<decltype(&::GetVersionExW)> fail("kernel32.dll", "GetVersionExW", 1, FALSE, ERROR_INVALID_PARAMETER);
    const CSystemCheckResult result;
    EXPECT_FALSE(result.isNT);
    EXPECT_EQ(result.systemClass, ESystemClass::Unknown);
    EXPECT_GT(result.numberOfProcessors, 0u);
}

TEST(SystemCheck, FamilyComesFromTheLevelOrTheType)
{
    const auto family = [](bool isNT, WORD architecture, WORD level, DWORD type)
    {
        SYSTEM_INFO system{};
        system.wProcessorArchitecture = architecture;
        system.wProcessorLevel = level;
        system.dwProcessorType = type;
        return FamilyOf(isNT, system);
    };
    EXPECT_EQ(family(true, PROCESSOR_ARCHITECTURE_AMD64, 25, 0), 25u);
    EXPECT_EQ(family(true, PROCESSOR_ARCHITECTURE_INTEL, 6, 586), 6u);
    EXPECT_EQ(family(true, PROCESSOR_ARCHITECTURE_ARM64, 8, 0), 0u);
    EXPECT_EQ(family(false, 0, 9, 386), 3u);
    EXPECT_EQ(family(false, 0, 9, 486), 4u);
    EXPECT_EQ(family(false, 0, 9, 586), 5u);
    EXPECT_EQ(family(false, 0, 9, 8664), 0u);
}

TEST(SystemCheck, VendorNeedsAllThreeRegisters)
{
    const auto leaf = [](const char* text)
    {
        CCpuidRegisters registers;
        std::memcpy(&registers.ebx, text, 4);
        std::memcpy(&registers.edx, text + 4, 4);
        std::memcpy(&registers.ecx, text + 8, 4);
        return registers;
    };
    EXPECT_EQ(VendorOf(leaf("GenuineIntel")), EVendor::Intel);
    EXPECT_EQ(VendorOf(leaf("AuthenticAMD")), EVendor::AMD);
    for (const char* other : { "GenuineInte?", "Genu?neIntel", "?enuineIntel", "AuthenticAMd", "HygonGenuine", "CentaurHauls" })
        EXPECT_EQ(VendorOf(leaf(other)), EVendor::Other) << other;
}

TEST(SystemCheck, EachFeatureHasItsBit)
{
    const struct
    {
        bool inEcx;
        int bit;
        bool CProcessorProperties::* feature;
    } kFeatures[] = {
        { false, 23, &CProcessorProperties::mmx },  { false, 25, &CProcessorProperties::sse },
        { false, 26, &CProcessorProperties::sse2 }, { true, 0, &CProcessorProperties::sse3 },
        { true, 9, &CProcessorProperties::ssse3 },  { true, 19, &CProcessorProperties::sse41 },
        { true, 20, &CProcessorProperties::sse42 }, { true, 28, &CProcessorProperties::avx },
    };
    for (const auto& only : kFeatures)
    {
        CCpuidRegisters leaf;
        leaf.eax = 0x0F8B'4ACE; // extended family and model bits are set and must not count
        (only.inEcx ? leaf.ecx : leaf.edx) = 1u << only.bit;
        const CProcessorProperties intel = ProcessorOf(EVendor::Intel, leaf);
        EXPECT_EQ(intel.family, 0xAu);
        EXPECT_EQ(intel.model, 0xCu);
        EXPECT_EQ(intel.stepping, 0xEu);
        EXPECT_TRUE(intel.isIntel);
        EXPECT_FALSE(ProcessorOf(EVendor::AMD, leaf).isIntel);
        for (const auto& other : kFeatures)
            EXPECT_EQ(intel.*other.feature, other.bit == only.bit) << only.bit << " and " << other.bit;
    }
}

TEST(SystemCheck, TheMachineItself)
{
    const CSystemCheckResult& result = VoSystemInformation();
    EXPECT_EQ(&result, &VoSystemInformation());
    SYSTEM_INFO system{};
    ::GetSystemInfo(&system);
    EXPECT_EQ(result.numberOfProcessors, system.dwNumberOfProcessors);
    EXPECT_TRUE(result.isNT);
    EXPECT_GE(result.systemClass, ESystemClass::Windows7);
    EXPECT_GT(result.performanceFrequency, 0);
    EXPECT_DOUBLE_EQ(result.ticksPerMicrosecond * 1e6, static_cast<double>(result.performanceFrequency));
    EXPECT_FALSE(result.moduleDirectory.empty());
    EXPECT_TRUE(result.moduleFileName.ends_with(L".exe")) << "the library is linked into the test program";
}
