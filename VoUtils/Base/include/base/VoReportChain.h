// Collects the reports of one operation, so that a caller can show why it failed without reading the log.
//
//     CVoReportChain chain;
//     {
//         const CVoReportScope scope(&chain);
//         hr = Send(); // reports on this thread while the scope exists
//     }
//     for (const CVoReport& report : chain.Take()) ...
#pragma once

#include <base/VoLock.h>
#include <base/VoPlatform.h>

#include <atomic>
#include <vector>

// One report of a code. The texts are the reporter's literals.
struct CVoReport
{
    const wchar_t* source = nullptr;
    int line = 0;
    const wchar_t* function = nullptr;
    HRESULT code = S_OK;
};

// The reports of an operation, which may run on several threads. Any thread may call any function.
class CVoReportChain
{
public:
    CVoReportChain() = default;
    CVoReportChain(const CVoReportChain&) = delete;
    CVoReportChain& operator=(const CVoReportChain&) = delete;

    // Later reports are dropped: the first ones name the place of a failure.
    static constexpr size_t kMaximum = 64;

    // Drops the report when there is no memory.
    void Add(const CVoReport& report) noexcept;
    void Clear() noexcept;
    // Throws std::bad_alloc.
    [[nodiscard]] std::vector<CVoReport> Get() const;

private:
    mutable CVoLock m_lock;
    std::vector<CVoReport> m_reports;
};

// Adds the reports that the thread makes while the scope exists to a chain. Scopes may be nested: each chain gets the reports.
// Make it and end it on one thread.
class CVoReportScope
{
public:
    // A null chain collects nothing. The chain must outlive the scope.
    explicit CVoReportScope(CVoReportChain* chain) noexcept;
    ~CVoReportScope();
    CVoReportScope(const CVoReportScope&) = delete;
    CVoReportScope& operator=(const CVoReportScope&) = delete;

    // Whether any thread has a scope.
    [[nodiscard]] static bool Exists() noexcept { return s_count.load(std::memory_order_relaxed) != 0; }
    // Adds a report to the chains of the calling thread's scopes.
    static void Add(const wchar_t* source, int line, const wchar_t* function, HRESULT code) noexcept;

private:
    static inline constinit std::atomic<int> s_count{ 0 };

    CVoReportChain* const m_chain;
    const CVoReportScope** m_innermost = nullptr; // of the thread
    const CVoReportScope* m_outer = nullptr;
};
