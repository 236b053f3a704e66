// Makes memory and the platform fail at every place of the public operations: the first, the second, ... allocation that an
// operation makes, then the calls of the platform that it makes. Whatever fails: the operation fails with a report, or gives
// what it gives undisturbed; an object that failed is as it was and works again; nothing leaks.
//
// tools/check-operations compares the table's names with the public headers.
#include "Allocations.h"

#include <gtest/gtest.h>

#include <wincrypt.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

namespace Stress
{
namespace
{
// Ways in which the platform fails beside a lack of memory.
std::vector<CFault> Faults()
{
    return {
        VO_FAULT("kernel32.dll", CreateFileW, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED),
        VO_FAULT("kernel32.dll", ReadFile, FALSE, ERROR_READ_FAULT),
        VO_FAULT("kernel32.dll", WriteFile, FALSE, ERROR_DISK_FULL),
        VO_FAULT("kernel32.dll", GetFileSizeEx, FALSE, ERROR_IO_DEVICE),
        VO_FAULT("kernel32.dll", FlushFileBuffers, FALSE, ERROR_IO_DEVICE),
        VO_FAULT("kernel32.dll", MoveFileExW, FALSE, ERROR_SHARING_VIOLATION),
        VO_FAULT("kernel32.dll", GetFullPathNameW, 0U, ERROR_NOT_ENOUGH_MEMORY),
        VO_FAULT("kernel32.dll", WideCharToMultiByte, 0, ERROR_INVALID_PARAMETER),
        VO_FAULT("kernel32.dll", MultiByteToWideChar, 0, ERROR_INVALID_PARAMETER),
        VO_FAULT("kernel32.dll", GetModuleFileNameW, 0U, ERROR_INVALID_HANDLE),
        VO_FAULT("advapi32.dll", CryptAcquireContextW, FALSE, static_cast<DWORD>(NTE_PROV_DLL_NOT_FOUND)),
        VO_FAULT("advapi32.dll", CryptImportKey, FALSE, static_cast<DWORD>(NTE_BAD_KEY)),
        VO_FAULT("advapi32.dll", CryptCreateHash, FALSE, static_cast<DWORD>(NTE_BAD_ALGID)),
        VO_FAULT("advapi32.dll", CryptHashData, FALSE, static_cast<DWORD>(NTE_FAIL)),
        VO_FAULT("advapi32.dll", CryptSignHashW, FALSE, static_cast<DWORD>(NTE_FAIL)),
        VO_FAULT("advapi32.dll", CryptGetHashParam, FALSE, static_cast<DWORD>(NTE_FAIL)),
        VO_FAULT("advapi32.dll", CryptExportKey, FALSE, static_cast<DWORD>(NTE_FAIL)),
    };
}

class COperationsTest final : public testing::Test
{
public:
    void TestBody() override
    {
        std::vector<CRow> table = BaseRows();
        std::ranges::move(HTTPRows(), std::back_inserter(table));
        const std::vector<CFault> faults = Faults();
        size_t allocations = 0;
        size_t calls = 0;
        CInjector injector;
        injector.MakeRoom();
        CRounds rounds(static_cast<unsigned>(table.size()), static_cast<unsigned>(table.size()));
        while (rounds.Next() && rounds.Round() < table.size())
        {
            const CRow& row = table[rounds.Round()];
            try
            {
                // The first run makes what stays.
                (void)Run(injector, row, 0, nullptr, 0, nullptr);
                const CRun expected = Run(injector, row, 0, nullptr, 0, nullptr);
                for (int failing = 1; Run(injector, row, failing, nullptr, 0, &expected), injector.HasFailed(); ++failing)
                    ++allocations;
                for (const CFault& fault : faults)
                {
                    (void)Run(injector, row, 0, &fault, 0, &expected);
                    for (int call = 1, all = injector.FaultCalls(); call <= all; ++call, ++calls)
                        (void)Run(injector, row, 0, &fault, call, &expected);
                }
            }
            catch (const std::exception& exception)
            {
                ADD_FAILURE() << row.name << ": " << exception.what() << " " << m_what << "; repeat: " << rounds.Command();
            }
        }
        for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(PathIn(L"x")).parent_path()))
            EXPECT_NE(entry.path().extension(), L".tmp") << "a temporary file stays";
        std::printf("stress: %zu operations, %zu failed allocations, %zu failed calls\n", table.size(), allocations, calls);
    }

private:
    struct CRun
    {
        std::wstring seen;
        int blocks = 0; // that the operation and its checks left
    };

    // Without `expected` the operation is not disturbed.
    // NOLINTNEXTLINE(misc-no-recursion): the number of attempts bounds it
    CRun Run(CInjector& injector, const CRow& row, int failing, const CFault* fault, int call, const CRun* expected,
             int attempt = 0)
    {
        // Handles are counted where one may be lost.
        const DWORD handles = call != 0 ? CountProcessHandles() : 0;
        m_what = fault ? "when call " + std::to_string(call) + " of " + fault->function + " fails"
                       : "when allocation " + std::to_string(failing) + " fails";
        injector.SetFault(fault, call);
        injector.Begin(failing);
        COutcome outcome = row.operation(injector);
        const int blocks = injector.Blocks();
        injector.End();
        const std::vector<CVoReport> reports = injector.Reports();
        CRun run{ std::move(outcome.seen), blocks };
        Require(expected || SUCCEEDED(outcome.hr), "it fails undisturbed");
        Require(SUCCEEDED(outcome.hr) || row.isSilent || (!reports.empty() && reports.back().code == outcome.hr),
                "the failure is not reported");
        // An operation that failed was done once more.
        Require(!expected || run.seen == expected->seen, "the result is another one");
        if (expected && !row.keeps && run.blocks != expected->blocks)
            throw CBroken("memory leaks: " + std::to_string(run.blocks - expected->blocks) + " blocks");
        // Threads that other tests left may open one meanwhile, but not each time.
        constexpr int kAttempts = 4;
        if (call != 0 && CountProcessHandles() > handles)
        {
            Require(attempt < kAttempts, "a handle leaks");
            return Run(injector, row, failing, fault, call, expected, attempt + 1);
        }
        return run;
    }

    std::string m_what;
};

const bool kRegistered = []
{
    testing::RegisterTest("Allocations", "operations", nullptr, nullptr, __FILE__, __LINE__, []() -> testing::Test*
    {
        return std::make_unique<COperationsTest>().release(); // the framework deletes it
    });
    return true;
}();
} // namespace
} // namespace Stress
