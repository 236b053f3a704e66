// The third page: the checks while they run.
#include "CheckList.h"
#include "WizardPage.h"
#include "resource.h"

namespace
{
class CCheckingPage final : public CWizardPage
{
public:
    explicit CCheckingPage(CWizardWindow& wizard) : CWizardPage(wizard, EWizardPage::Checking, IDD_CHECKING) {}

    void Refresh() override
    {
        m_list.Show(Model().Rows());
        SetText(IDC_PROGRESS_TEXT, Model().Progress());
        ::SendMessageW(Control(IDC_PROGRESS), PBM_SETRANGE32, 0, static_cast<LPARAM>(Model().CheckCount()));
        ::SendMessageW(Control(IDC_PROGRESS), PBM_SETPOS, Model().DoneCount(), 0);
        // A control that is switched off must not have the keyboard.
        if (!Model().CanStop() && ::GetFocus() == Control(IDC_STOP))
            ::SendMessageW(Dialog(), WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(Control(IDC_CHECKS)), TRUE);
        Enable(IDC_STOP, Model().CanStop());
    }

protected:
    void OnCreate() override
    {
        static constexpr std::array kColumns{ CCheckList::CColumn{ IDS_COLUMN_STATE, 14 },
                                              CCheckList::CColumn{ IDS_COLUMN_CHECK, 24 },
                                              CCheckList::CColumn{ IDS_COLUMN_FOUND, 62 } };
        m_list.Create(Control(IDC_CHECKS), kColumns);
    }
    void OnActivate() override { Focus(IDC_CHECKS); }
    void OnCommand(int id, int code) override
    {
        if (id == IDC_STOP && code == BN_CLICKED)
            Wizard().StopRun();
    }
    LRESULT OnNotify(const NMHDR& header) override
    {
        if (header.code == static_cast<UINT>(NM_CUSTOMDRAW) && header.idFrom == IDC_CHECKS)
            return m_list.OnCustomDraw(const_cast<NMLVCUSTOMDRAW&>(reinterpret_cast<const NMLVCUSTOMDRAW&>(header)));
        return 0;
    }
    void OnResize() override { m_list.Resize(); }

private:
    CCheckList m_list;
};
} // namespace

std::unique_ptr<CWizardPage> MakeCheckingPage(CWizardWindow& wizard)
{
    return std::make_unique<CCheckingPage>(wizard);
}
