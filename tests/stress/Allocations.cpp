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
        VO_FAULT("kernel32.dll", GetFileAttributesW, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED),
        VO_FAULT("advapi32.dll", GetFileSecurityW, FALSE, ERROR_ACCESS_DENIED),
        VO_FAULT("kernel32.dll", GetFullPathNameW, 0U, ERROR_NOT_ENOUGH_MEMORY),
        VO_FAULT_GIVES("kernel32.dll", WideCharToMultiByte, 0, ERROR_INVALID_PARAMETER, kAnyCode),
        VO_FAULT_GIVES("kernel32.dll", MultiByteToWideChar, 0, ERROR_INVALID_PARAMETER, kAnyCode),
        VO_FAULT("kernel32.dll", GetModuleFileNameW, 0U, ERROR_INVALID_HANDLE),
        VO_FAULT("advapi32.dll", CryptAcquireContextW, FALSE, static_cast<DWORD>(NTE_PROV_DLL_NOT_FOUND)),
        VO_FAULT("advapi32.dll", CryptImportKey, FALSE, static_cast<DWORD>(NTE_BAD_KEY)),
        VO_FAULT("advapi32.dll", CryptGenKey, FALSE, static_cast<DWORD>(NTE_FAIL)),
        VO_FAULT("advapi32.dll", CryptGetUserKey, FALSE, static_cast<DWORD>(NTE_BAD_UID)),
        VO_FAULT_AFTER_CALL("advapi32.dll", CryptDestroyKey, FALSE, ERROR_BUSY),
        VO_FAULT_AFTER_CALL("advapi32.dll", CryptReleaseContext, FALSE, ERROR_BUSY),
        VO_FAULT("advapi32.dll", CryptCreateHash, FALSE, static_cast<DWORD>(NTE_BAD_ALGID)),
        VO_FAULT("advapi32.dll", CryptHashData, FALSE, static_cast<DWORD>(NTE_FAIL)),
        VO_FAULT("advapi32.dll", CryptSignHashW, FALSE, static_cast<DWORD>(NTE_FAIL)),
        VO_FAULT("advapi32.dll", CryptGetHashParam, FALSE, static_cast<DWORD>(NTE_FAIL)),
        VO_FAULT("advapi32.dll", CryptExportKey, FALSE, static_cast<DWORD>(NTE_FAIL)),
    };
}

// What fails in a run.
struct CFailing
{
    int allocation = 0;            // its number; 0: none
    const CFault* fault = nullptr; // whose call of that number
    int call = 0;
};
std::string TextOf(const CFailing& failing)
{
    if (failing.fault)
        return "when call " + std::to_string(failing.call) + " of " + failing.fault->function + " fails";
    return "when allocation " + std::to_string(failing.allocation) + " fails";
}

// What the platform's signatures take that is no handle of the process.
class CKeyBalance
{
public:
    CKeyBalance()
    {
        m_keys.AlsoAcquiredBy<decltype(&::CryptGenKey)>("advapi32.dll", "CryptGenKey");
        m_keys.AlsoAcquiredBy<decltype(&::CryptGetUserKey)>("advapi32.dll", "CryptGetUserKey");
    }
    [[nodiscard]] int Open() const noexcept { return m_providers.Open() + m_hashes.Open() + m_keys.Open(); }

private:
    CAcquireBalance m_providers = CAcquireBalance::Of<decltype(&::CryptAcquireContextW), decltype(&::CryptReleaseContext)>(
        "advapi32.dll", "CryptAcquireContextW", "CryptReleaseContext");
    CAcquireBalance m_hashes = CAcquireBalance::Of<decltype(&::CryptCreateHash), decltype(&::CryptDestroyHash)>(
        "advapi32.dll", "CryptCreateHash", "CryptDestroyHash");
    CAcquireBalance m_keys = CAcquireBalance::Of<decltype(&::CryptImportKey), decltype(&::CryptDestroyKey)>(
        "advapi32.dll", "CryptImportKey", "CryptDestroyKey");
};

class COperations
{
public:
    // Where no time is given, exchanges with a server are too slow for the whole table: one place of `shortStep` is taken, of
    // one row of `shortRows`.
    COperations(std::vector<CRow> (*rows)(), int shortRows, int shortStep)
        : m_rows(rows), m_rowStep(IsShort() && !OnlyInput() ? shortRows : 1), m_step(IsShort() && !OnlyInput() ? shortStep : 1)
    {
    }

    void Check()
    {
        const std::vector<CRow> table = m_rows();
        size_t rows = 0;
        m_injector.MakeRoom();
        CRounds rounds(static_cast<unsigned>(table.size()), static_cast<unsigned>(table.size()));
        while (rounds.Next() && rounds.Round() < table.size())
        {
            if ((rounds.Round() + FirstSeed()) % static_cast<unsigned>(m_rowStep) != 0)
                continue;
            const CRow& row = table[rounds.Round()];
            ++rows;
            CFailing failing;
            try
            {
                DoRow(row, failing);
            }
            catch (const std::exception& exception)
            {
                ADD_FAILURE() << row.name << ": " << exception.what() << ' ' << TextOf(failing)
                              << "; repeat: " << rounds.Command();
            }
        }
        for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(PathIn(L"x")).parent_path()))
            EXPECT_NE(entry.path().extension(), L".tmp") << "a temporary file stays";
        std::printf("stress: %zu operations, %zu failed allocations, %zu failed calls\n", rows, m_allocations, m_calls);
    }

private:
    struct CRun
    {
        HRESULT hr = E_UNEXPECTED;
        std::wstring seen;
        int blocks = 0; // that the operation and its checks left
    };

    // `failing` tells what failed last.
    void DoRow(const CRow& row, CFailing& failing)
    {
        const std::wstring expected = Undisturbed(row);
        const int first = static_cast<int>(FirstSeed() % static_cast<unsigned>(m_step)) + 1;
        for (failing.allocation = first; Disturbed(row, failing, expected), m_injector.HasFailed();
             failing.allocation += m_step)
            ++m_allocations;

        m_faults = Faults();
        m_faults.insert(m_faults.end(), row.faults.begin(), row.faults.end());
        m_injector.SetFaults(m_faults, 0);
        (void)Run(row, 0);
        std::vector<CFailing> calls;
        for (size_t i = 0; i < m_faults.size(); ++i)
            for (int call = 1; call <= m_injector.Calls()[i]; ++call)
                calls.push_back({ 0, &m_faults[i], call });
        for (auto i = static_cast<size_t>(first - 1); i < calls.size(); i += static_cast<size_t>(m_step), ++m_calls)
        {
            failing = calls[i];
            Disturbed(row, failing, expected);
        }
    }
    // What the operation gives. The first run makes what stays.
    [[nodiscard]] std::wstring Undisturbed(const CRow& row)
    {
        constexpr DWORD kShortWait = 50;
        m_injector.SetFaults({}, 0);
        (void)Run(row, 0, kShortWait);
        CRun run = Run(row, 0);
        for (int attempt = 0; run.blocks != 0 && attempt < kAttempts; ++attempt)
            run = Run(row, 0);
        Require(SUCCEEDED(run.hr), "it fails undisturbed");
        if (run.blocks != 0)
            throw CBroken("undisturbed, it leaves " + std::to_string(run.blocks) + " blocks");
        return run.seen;
    }
    void Disturbed(const CRow& row, const CFailing& failing, const std::wstring& expected)
    {
        m_injector.SetFaults({ failing.fault, failing.fault ? size_t{ 1 } : 0 }, failing.call);
        // Threads of the platform and of other tests may open a handle meanwhile, but not each time.
        for (int attempt = 0;; ++attempt)
        {
            const DWORD handles = failing.call != 0 ? CountProcessHandles() : 0;
            const CRun run = Run(row, failing.allocation);
            Require(SUCCEEDED(run.hr) || !failing.fault || failing.fault->expected == kAnyCode ||
                        run.hr == failing.fault->expected,
                    "the failure has another code");
            // An operation that failed was done once more.
            Require(run.seen == expected, "the result is another one");
            if (run.blocks != 0)
                throw CBroken("memory leaks: " + std::to_string(run.blocks) + " blocks");
            Require(m_keys.Open() == 0, "a key, a hash or a provider stays open");
            if (failing.call == 0 || CountProcessHandles() <= handles)
                return;
            Require(attempt < kAttempts, "a handle leaks");
        }
    }
    [[nodiscard]] CRun Run(const CRow& row, int failingAllocation, DWORD wait = kLongWait)
    {
        m_injector.Begin(failingAllocation);
        COutcome outcome = row.operation(m_injector);
        // The text that tells what was seen is there.
        const int own = outcome.seen.capacity() > std::wstring().capacity() ? 1 : 0;
        m_injector.AwaitBlocks(own, wait);
        const int blocks = m_injector.Blocks() - own;
        m_injector.End();
        const std::vector<CVoReport> reports = m_injector.Reports();
        Require(SUCCEEDED(outcome.hr) || row.isSilent || (!reports.empty() && reports.back().code == outcome.hr),
                "the failure is not reported");
        return { outcome.hr, std::move(outcome.seen), blocks };
    }

    static constexpr int kAttempts = 4;
    static constexpr DWORD kLongWait = 5000; // milliseconds, for threads that still end

    std::vector<CRow> (*const m_rows)();
    const int m_rowStep;
    const int m_step;
    CKeyBalance m_keys;
    CInjector m_injector;
    std::vector<CFault> m_faults; // of the row
    size_t m_allocations = 0;
    size_t m_calls = 0;
};

std::vector<CRow> Operations()
{
    std::vector<CRow> rows = BaseRows();
    std::ranges::move(HTTPRows(), std::back_inserter(rows));
    return rows;
}

TEST(Allocations, operations)
{
    COperations(&Operations, 1, 1).Check();
}

TEST(Allocations, sends)
{
    COperations(&SendRows, 3, 20).Check();
}
} // namespace
} // namespace Stress
