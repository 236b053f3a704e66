// Collects the reports of an operation (VoReportChain.h).
#include <base/VoReportChain.h>

#include <mutex>
#include <utility>

namespace
{
constinit thread_local const CVoReportScope* t_innermost = nullptr;
} // namespace

void CVoReportChain::Add(const CVoReport& report) noexcept
try
{
    const std::lock_guard lock(m_lock);
    if (m_reports.size() < kMaximum)
        m_reports.push_back(report);
}
catch (...)
{
    // The log has the report all the same.
}

void CVoReportChain::Clear() noexcept
{
    const std::lock_guard lock(m_lock);
    m_reports.clear();
}

std::vector<CVoReport> CVoReportChain::Get() const
{
    const std::lock_guard lock(m_lock);
    return m_reports;
}

CVoReportScope::CVoReportScope(CVoReportChain* chain) noexcept : m_chain(chain)
{
    if (!m_chain)
        return;
    m_innermost = &t_innermost; // found once: some compilers look a thread's variable up with calls of the system
    m_outer = std::exchange(*m_innermost, this);
    s_count.fetch_add(1, std::memory_order_relaxed);
}

CVoReportScope::~CVoReportScope()
{
    if (!m_chain)
        return;
    s_count.fetch_sub(1, std::memory_order_relaxed);
    *m_innermost = m_outer;
}

void CVoReportScope::Add(const wchar_t* source, int line, const wchar_t* function, HRESULT code) noexcept
{
    for (const CVoReportScope* scope = t_innermost; scope; scope = scope->m_outer)
        scope->m_chain->Add({ source, line, function, code });
}
