// The last page: what is wrong, what to do, and what can be done here.
#include "CheckList.h"
#include "PhasesChart.h"
#include "WizardPage.h"
#include "WizardTexts.h"
#include "resource.h"

#include <VoDiagnosisRender.h>
#include <base/VoErrorHandler.h>
#include <base/VoText.h>
#include <win/VoFile.h>

namespace
{
class CResultPage final : public CWizardPage
{
public:
    explicit CResultPage(CWizardWindow& wizard) : CWizardPage(wizard, EWizardPage::Result, IDD_RESULT) {}

    void Refresh() override
    {
        SetText(IDC_SUMMARY, Model().Summary());
        SetText(IDC_ADVICE, Model().Advice());
        m_list.Show(Model().Rows());
        m_chart = Model().Chart();
        // What screen readers read.
        SetText(IDC_CHART, m_chart.text);
        ::InvalidateRect(Control(IDC_CHART), nullptr, FALSE);
        Enable(IDC_SHOW_PAGE, !Model().PageToShow().empty());
        const bool canUse = Model().CanUseTransport();
        SetText(IDC_USE_TRANSPORT, Model().UseTransportLabel());
        ::ShowWindow(Control(IDC_USE_TRANSPORT), canUse ? SW_SHOW : SW_HIDE);
        Enable(IDC_USE_TRANSPORT, canUse);
    }

protected:
    void OnCreate() override
    {
        static constexpr std::array kColumns{ CCheckList::CColumn{ IDS_COLUMN_STATE, 34 },
                                              CCheckList::CColumn{ IDS_COLUMN_CHECK, 66 } };
        m_list.Create(Control(IDC_RESULT_CHECKS), kColumns);
        SetBold();
    }
    void OnActivate() override
    {
        m_list.Select(Model().FirstRow());
        ShowDetails();
        SetText(IDC_STATUS, {});
        Focus(IDC_RESULT_CHECKS);
    }
    void OnCommand(int id, int code) override
    {
        if (code != BN_CLICKED)
            return;
        switch (id)
        {
        case IDC_SAVE:
            return Save();
        case IDC_COPY:
            return Tell(Wizard().Shell().Copy(Wizard().Sheet(), Model().ReportText()), IDS_COPY_DONE, IDS_COPY_FAILED);
        case IDC_OPEN_LOG:
            return OpenLog();
        case IDC_AGAIN:
            if (Wizard().StartRun())
                Wizard().GoTo(EWizardPage::Checking);
            return;
        case IDC_SHOW_PAGE:
            return Open(&IWizardShell::ShowPage, Model().PageToShow());
        case IDC_USE_TRANSPORT:
            return UseTransport();
        default:
            return;
        }
    }
    LRESULT OnNotify(const NMHDR& header) override
    {
        if (header.idFrom != IDC_RESULT_CHECKS)
            return 0;
        if (header.code == static_cast<UINT>(NM_CUSTOMDRAW))
            return m_list.OnCustomDraw(const_cast<NMLVCUSTOMDRAW&>(reinterpret_cast<const NMLVCUSTOMDRAW&>(header)));
        if (header.code == static_cast<UINT>(LVN_ITEMCHANGED))
            ShowDetails();
        return 0;
    }
    void OnDraw(const DRAWITEMSTRUCT& item) override
    {
        if (item.CtlID == IDC_CHART)
            DrawPhasesChart(item.hDC, item.rcItem, m_chart, Font(), Scaled(1));
    }
    void OnResize() override
    {
        m_list.Resize();
        SetBold();
    }
    void OnDestroy() noexcept override
    {
        ::DeleteObject(m_bold);
        m_bold = nullptr;
    }

private:
    // The summary stands out. The page's font follows the resolution.
    void SetBold()
    {
        LOGFONTW font{};
        if (::GetObjectW(Font(), sizeof font, &font) == 0)
            return;
        font.lfWeight = FW_BOLD;
        const HFONT bold = ::CreateFontIndirectW(&font);
        ::SendDlgItemMessageW(Dialog(), IDC_SUMMARY, WM_SETFONT, reinterpret_cast<WPARAM>(bold), TRUE);
        ::DeleteObject(std::exchange(m_bold, bold));
    }
    void ShowDetails()
    {
        const LRESULT row = ::SendMessageW(Control(IDC_RESULT_CHECKS), LVM_GETNEXTITEM, static_cast<WPARAM>(-1), LVNI_SELECTED);
        SetText(IDC_DETAILS, row < 0 ? std::wstring() : Model().Details(static_cast<size_t>(row)));
    }
    // Success goes to the status line, failure is a message.
    void Tell(HRESULT hr, UINT done, UINT failed)
    {
        if (SUCCEEDED(hr))
            SetText(IDC_STATUS, WizardText(done));
        else
            Wizard().Shell().Tell(Wizard().Sheet(), WizardText(failed, { WizardErrorText(hr) }));
    }
    void Save()
    {
        const std::optional<std::wstring> path = Wizard().Shell().AskForFile(Wizard().Sheet());
        if (!path)
            return;
        constexpr std::wstring_view kJson = L".json";
        const bool isJson = path->size() >= kJson.size() && VoEqualsNoCase(path->substr(path->size() - kJson.size()), kJson);
        const std::string bytes = isJson ? VoRenderJson(Model().Report()) + "\n" : VoRenderHtml(Model().Report());
        CVoFileReplacement file;
        HRESULT hr = file.Write(*path, bytes);
        if (SUCCEEDED(hr))
            hr = file.Commit();
        if (SUCCEEDED(hr))
            SetText(IDC_STATUS, WizardText(IDS_SAVED, { *path }));
        else
            Wizard().Shell().Tell(Wizard().Sheet(), WizardText(IDS_SAVE_FAILED, { *path, WizardErrorText(hr) }));
    }
    void OpenLog()
    {
        const std::wstring log = VoErrorLog().LogFilePath();
        if (log.empty() || ::GetFileAttributesW(log.c_str()) == INVALID_FILE_ATTRIBUTES)
            Wizard().Shell().Tell(Wizard().Sheet(), WizardText(IDS_LOG_OFF, { CWizardMemory::SettingsFile() }));
        else
            Open(&IWizardShell::OpenFile, log);
    }
    void Open(HRESULT (IWizardShell::*open)(HWND, const std::wstring&), const std::wstring& target)
    {
        if (const HRESULT hr = (Wizard().Shell().*open)(Wizard().Sheet(), target); FAILED(hr))
            Wizard().Shell().Tell(Wizard().Sheet(), WizardText(IDS_OPEN_FAILED, { target, WizardErrorText(hr) }));
    }
    void UseTransport()
    {
        const std::wstring file = CWizardMemory::SettingsFile();
        if (!Wizard().Shell().Ask(Wizard().Sheet(), Model().UseTransportQuestion(file)))
            return;
        const HRESULT hr = CWizardMemory::WriteEngine(Model().RecommendedKind());
        if (FAILED(hr))
            return Wizard().Shell().Tell(Wizard().Sheet(), WizardText(IDS_USE_FAILED, { file, WizardErrorText(hr) }));
        const std::string name = Model().Report().recommendedEngine;
        Model().OnTransportUsed();
        SetText(IDC_STATUS, WizardText(IDS_USE_DONE, { std::wstring(name.begin(), name.end()) }));
        // The button that had the keyboard goes away.
        Focus(IDC_AGAIN);
        Refresh();
    }

    CCheckList m_list;
    CWizardChart m_chart;
    HFONT m_bold = nullptr;
};
} // namespace

std::unique_ptr<CWizardPage> MakeResultPage(CWizardWindow& wizard)
{
    return std::make_unique<CResultPage>(wizard);
}
