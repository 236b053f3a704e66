// Questions, files, clipboard and browser (WizardShell.h).
#include "WizardShell.h"

#include "VoBrowserDialog.h"
#include "WizardTexts.h"
#include "resource.h"

#include <VoGlobalHTTPUtils.h>
#include <base/VoHResult.h>
#include <base/VoText.h>

#include <commdlg.h>
#include <shellapi.h>

#include <array>
#include <cstring>
#include <memory>

namespace
{
// The clipboard, open for a scope.
class CClipboard
{
public:
    explicit CClipboard(HWND owner) noexcept : m_isOpen(::OpenClipboard(owner) != FALSE) {}
    ~CClipboard()
    {
        if (m_isOpen)
            ::CloseClipboard();
    }
    CClipboard(const CClipboard&) = delete;
    CClipboard& operator=(const CClipboard&) = delete;

    [[nodiscard]] bool IsOpen() const noexcept { return m_isOpen; }

private:
    bool m_isOpen;
};

struct CGlobalFree
{
    void operator()(void* memory) const noexcept { ::GlobalFree(memory); }
};
} // namespace

bool CWizardDesktop::Ask(HWND owner, const std::wstring& question)
{
    return ::MessageBoxW(owner, question.c_str(), WizardText(IDS_WIZARD).c_str(), MB_YESNO | MB_ICONQUESTION) == IDYES;
}

void CWizardDesktop::Tell(HWND owner, const std::wstring& text)
{
    ::MessageBoxW(owner, text.c_str(), WizardText(IDS_WIZARD).c_str(), MB_OK | MB_ICONINFORMATION);
}

std::optional<std::wstring> CWizardDesktop::AskForFile(HWND owner)
{
    // Pairs of a name and a pattern, each with a zero behind it, and one more zero.
    std::wstring filter;
    for (const auto& [id, pattern] : { std::pair(IDS_SAVE_FILTER_HTML, L"*.html"), std::pair(IDS_SAVE_FILTER_JSON, L"*.json") })
        filter += WizardText(static_cast<UINT>(id)) + L'\0' + pattern + L'\0';
    constexpr size_t kMaximumPath = 4096;
    std::wstring path(kMaximumPath, L'\0');
    path.replace(0, 6, L"report");
    OPENFILENAMEW dialog{};
    dialog.lStructSize = sizeof dialog;
    dialog.hwndOwner = owner;
    dialog.lpstrFilter = filter.c_str();
    dialog.lpstrFile = path.data();
    dialog.nMaxFile = static_cast<DWORD>(path.size());
    dialog.lpstrDefExt = L"html"; // the platform takes the extension of the chosen filter instead
    dialog.Flags = OFN_EXPLORER | OFN_OVERWRITEPROMPT | OFN_PATHMUSTEXIST | OFN_NOCHANGEDIR | OFN_HIDEREADONLY;
    if (!::GetSaveFileNameW(&dialog))
    {
        // 0: the user cancelled.
        if (const DWORD error = ::CommDlgExtendedError(); error != 0)
            Tell(owner, WizardText(IDS_SAVE_FAILED, { L"report", VoFormat(L"0x%08X", static_cast<unsigned>(error)) }));
        return std::nullopt;
    }
    path.resize(path.find(L'\0'));
    return path;
}

HRESULT CWizardDesktop::Copy(HWND owner, const std::wstring& text)
{
    const size_t size = (text.size() + 1) * sizeof(wchar_t);
    std::unique_ptr<void, CGlobalFree> memory(::GlobalAlloc(GMEM_MOVEABLE, size));
    void* const bytes = memory ? ::GlobalLock(memory.get()) : nullptr;
    if (!bytes)
        return E_OUTOFMEMORY;
    std::memcpy(bytes, text.c_str(), size);
    ::GlobalUnlock(memory.get());
    const CClipboard clipboard(owner);
    if (!clipboard.IsOpen() || !::EmptyClipboard() || !::SetClipboardData(CF_UNICODETEXT, memory.get()))
        return HResultFromLastError();
    (void)memory.release(); // the clipboard owns it
    return S_OK;
}

HRESULT CWizardDesktop::OpenFile(HWND owner, const std::wstring& path)
{
    return OpenWithShell(owner, path);
}

HRESULT CWizardDesktop::ShowPage(HWND owner, const std::wstring& url)
{
    // Without a store the page is shown all the same.
    if (!m_cookies)
        (void)VoGlobalHTTPUtils::CreateGlobalHTTPStores(nullptr, nullptr, m_cookies.Put());
    CVoBrowserDialog dialog({ url, {}, m_cookies });
    const HRESULT hr = dialog.DoModal(owner);
    return FAILED(hr) ? hr : S_OK;
}

HRESULT OpenWithShell(HWND owner, const std::wstring& target) noexcept
{
    SHELLEXECUTEINFOW info{};
    info.cbSize = sizeof info;
    info.fMask = SEE_MASK_FLAG_NO_UI;
    info.hwnd = owner;
    info.lpVerb = L"open";
    info.lpFile = target.c_str();
    info.nShow = SW_SHOWNORMAL;
    return ::ShellExecuteExW(&info) ? S_OK : HResultFromLastError();
}
