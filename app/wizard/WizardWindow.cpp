// The property sheet and the run of the checks (WizardWindow.h).
#include "WizardWindow.h"

#include "WizardPage.h"
#include "WizardTexts.h"
#include "resource.h"

#include <VoDiagnosis.h>
#include <base/VoHResult.h>
#include <base/VoModuleInformation.h>

#include <commctrl.h>

#include <algorithm>
#include <utility>

namespace
{
constexpr UINT kWorkPosted = WM_APP;
constexpr UINT_PTR kSubclass = 1;

CWizardInputs FirstInputs(const CWizardSetup& setup)
{
    CWizardInputs inputs;
    const std::vector<std::wstring> urls = setup.memory.Urls();
    inputs.url = setup.url.empty() && !urls.empty() ? urls.front() : setup.url;
    inputs.verifyCertificate = CVoModuleInformation::Get().CheckServerCertificate();
    inputs.checkRevocation = CVoModuleInformation::Get().CheckCertificateRevocation();
    return inputs;
}
} // namespace

CWizardWindow::CWizardWindow(const CWizardSetup& setup)
    : m_shell(*setup.shell), m_memory(setup.memory), m_model(FirstInputs(setup), CVoModuleInformation::Get().HTTPEngine()),
      // The class needs no registration, and the window no display of its own.
      m_queueWindow(
          ::CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, ::GetModuleHandleW(nullptr), nullptr))
{
    if (!m_queueWindow || !::SetWindowSubclass(m_queueWindow, &OnQueueMessage, kSubclass, reinterpret_cast<DWORD_PTR>(this)))
        throw CVoHResultException(HResultFromLastError());
    m_queue = std::make_shared<CWizardQueue>([window = m_queueWindow] { ::PostMessageW(window, kWorkPosted, 0, 0); });
    m_doctor = std::make_unique<CWizardDoctor>(m_queue, CWizardDoctor::CEvents{ [this](const CVoCheck& check)
    { OnCheck(check); }, [this](HRESULT hr, CVoDiagnosisReport report) { OnFinished(hr, std::move(report)); } });
    m_pages = { MakeServerPage(*this), MakeProxyPage(*this), MakeCheckingPage(*this), MakeResultPage(*this) };
    // A URL that was given is checked at once.
    if (!setup.url.empty())
        (void)m_model.Leave(EWizardPage::Server);
}

CWizardWindow::~CWizardWindow()
{
    Forget();
    if (m_queue)
        m_queue->Close();
    if (m_queueWindow)
        ::DestroyWindow(m_queueWindow);
}

HRESULT CWizardWindow::Show()
{
    INITCOMMONCONTROLSEX classes{ sizeof classes, ICC_LISTVIEW_CLASSES | ICC_PROGRESS_CLASS | ICC_STANDARD_CLASSES };
    if (!::InitCommonControlsEx(&classes))
        return HResultFromLastError();
    std::array<PROPSHEETPAGEW, 4> pages{};
    for (size_t i = 0; i < pages.size(); ++i)
        pages[i] = m_pages[i]->Describe();
    PROPSHEETHEADERW sheet{};
    sheet.dwSize = sizeof sheet;
    sheet.dwFlags = PSH_WIZARD97 | PSH_HEADER | PSH_PROPSHEETPAGE;
    sheet.hInstance = ::GetModuleHandleW(nullptr);
    sheet.nPages = static_cast<UINT>(pages.size());
    sheet.ppsp = pages.data();
    ::SetLastError(ERROR_SUCCESS);
    const INT_PTR result = ::PropertySheetW(&sheet);
    // Without a display some versions answer as if the user had cancelled.
    if (result < 0 || !m_sheet)
        return HResultFromLastError();
    return result > 0 ? S_OK : S_FALSE;
}

CWizardWindow::CIcon::CIcon(int metric) noexcept
    : m_icon(static_cast<HICON>(::LoadImageW(::GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDI_WIZARD), IMAGE_ICON,
                                             ::GetSystemMetrics(metric), ::GetSystemMetrics(metric), 0)))
{
}

void CWizardWindow::SetSheet(HWND sheet) noexcept
{
    if (m_sheet == sheet)
        return;
    // The sheet itself would load the icon in one size only.
    ::SendMessageW(sheet, WM_SETICON, ICON_SMALL, reinterpret_cast<LPARAM>(m_smallIcon.Get()));
    ::SendMessageW(sheet, WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(m_bigIcon.Get()));
    m_sheet = sheet;
    m_signIn->SetOwner(sheet);
}

// In the middle of the monitor: the platform would place a window without an owner in a corner.
void CWizardWindow::Center() const noexcept
{
    RECT own{};
    MONITORINFO monitor{};
    monitor.cbSize = sizeof monitor;
    if (!::GetWindowRect(m_sheet, &own) || !::GetMonitorInfoW(::MonitorFromWindow(m_sheet, MONITOR_DEFAULTTOPRIMARY), &monitor))
        return;
    const RECT& area = monitor.rcWork;
    const LONG x = (area.left + area.right - (own.right - own.left)) / 2;
    const LONG y = (area.top + area.bottom - (own.bottom - own.top)) / 2;
    ::SetWindowPos(m_sheet, nullptr, std::max(area.left, x), std::max(area.top, y), 0, 0,
                   SWP_NOSIZE | SWP_NOZORDER | SWP_NOACTIVATE);
}

void CWizardWindow::OnActivated(EWizardPage page)
{
    if (!std::exchange(m_isShown, true))
        Center();
    m_current = page;
    UpdateButtons();
}

void CWizardWindow::UpdateButtons()
{
    DWORD buttons = m_model.CanGoBack(m_current) ? PSWIZB_BACK : 0;
    if (m_current == EWizardPage::Result)
        buttons |= PSWIZB_FINISH;
    else if (m_model.CanGoOn(m_current))
        buttons |= PSWIZB_NEXT;
    ::PostMessageW(m_sheet, PSM_SETWIZBUTTONS, 0, static_cast<LPARAM>(buttons));
}

void CWizardWindow::GoTo(EWizardPage page)
{
    ::SendMessageW(m_sheet, PSM_SETCURSEL, static_cast<WPARAM>(page), 0);
}

bool CWizardWindow::StartRun()
{
    try
    {
        CVoDiagnosisOptions options = m_model.MakeOptions();
        options.mayAsk = true;
        options.makeAuthCallback = [signIn = m_signIn] { return MakeWizardSignInCallback(signIn); };
        options.isAsking = [thread = ::GetCurrentThreadId()] { return FindWizardQuestion(thread) != nullptr; };
        m_signIn->BeginRun();
        // Without it the checks are as good.
        (void)m_memory.Remember(m_model.UrlToRemember());
        m_model.Begin();
        m_doctor->Start(std::move(options));
        return true;
    }
    catch (...)
    {
        m_model.OnFinished(HResultFromCurrentException(), {});
    }
    m_shell.Tell(m_sheet, m_model.Progress());
    return false;
}

void CWizardWindow::StopRun()
{
    if (!m_model.Stop())
        return;
    m_doctor->Cancel();
    CancelWizardQuestions(::GetCurrentThreadId());
    Page(m_current).Refresh();
}

void CWizardWindow::Forget() noexcept
{
    if (m_doctor)
        m_doctor->Forget();
    CancelWizardQuestions(::GetCurrentThreadId());
}

void CWizardWindow::OnCheck(const CVoCheck& check)
{
    m_model.OnCheck(check);
    if (m_current == EWizardPage::Checking)
        Page(m_current).Refresh();
}

void CWizardWindow::OnFinished(HRESULT hr, CVoDiagnosisReport report)
{
    m_model.OnFinished(hr, std::move(report));
    UpdateButtons();
    if (m_current != EWizardPage::Checking)
        return;
    Page(m_current).Refresh();
    if (m_model.Run() == EWizardRun::Done)
        GoTo(EWizardPage::Result);
}

LRESULT CALLBACK CWizardWindow::OnQueueMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT_PTR id,
                                               DWORD_PTR self) noexcept
{
    if (message == WM_NCDESTROY)
        ::RemoveWindowSubclass(window, &OnQueueMessage, id);
    if (message != kWorkPosted)
        return ::DefSubclassProc(window, message, wParam, lParam);
    const std::shared_ptr<CWizardQueue> queue = reinterpret_cast<CWizardWindow*>(self)->m_queue;
    queue->RunAll();
    return 0;
}

HRESULT RunWizard(const CWizardSetup& setup) noexcept
try
{
    return CWizardWindow(setup).Show();
}
catch (...)
{
    return HResultFromCurrentException();
}
