// The first page: the URL, the transport, the certificate switches.
#include "WizardPage.h"
#include "WizardTexts.h"
#include "resource.h"

#include <VoHTTPTransports.h>

#include <commctrl.h>

namespace
{
class CServerPage final : public CWizardPage
{
public:
    explicit CServerPage(CWizardWindow& wizard) : CWizardPage(wizard, EWizardPage::Server, IDD_SERVER) {}

    void Refresh() override
    {
        SetText(IDC_URL_PROBLEM, Model().ProblemOf(EWizardField::Url));
        Enable(IDC_REVOCATION, Model().Inputs().verifyCertificate);
    }

protected:
    void OnCreate() override
    {
        const CWizardInputs& inputs = Model().Inputs();
        for (const std::wstring& url : Wizard().Memory().Urls())
            ::SendMessageW(Control(IDC_URL), CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(url.c_str()));
        constexpr WPARAM kMaximumUrl = 2083; // what the platform's own functions take (INTERNET_MAX_URL_LENGTH)
        ::SendMessageW(Control(IDC_URL), CB_LIMITTEXT, kMaximumUrl, 0);
        ::SetWindowTextW(Control(IDC_URL), inputs.url.c_str());
        AddEngine(WizardText(IDS_ALL_TRANSPORTS), kAll, !inputs.engine);
        for (const CVoHTTPTransportRow& transport : VoHTTPTransports())
        {
            const std::string_view name = transport.name;
            AddEngine({ name.begin(), name.end() }, transport.kind, inputs.engine == transport.kind);
        }
        ::CheckDlgButton(Dialog(), IDC_VERIFY, inputs.verifyCertificate ? BST_CHECKED : BST_UNCHECKED);
        ::CheckDlgButton(Dialog(), IDC_REVOCATION, inputs.checkRevocation ? BST_CHECKED : BST_UNCHECKED);
        m_isCreated = true;
    }
    void OnActivate() override { Focus(IDC_URL); }
    bool OnNext() override
    {
        Read(TextOf(IDC_URL));
        const EWizardField wrong = Model().Leave(EWizardPage::Server);
        Refresh();
        if (wrong == EWizardField::None)
            return true;
        Focus(IDC_URL);
        return false;
    }
    void OnCommand(int id, int code) override
    {
        // The controls also notify of what OnCreate sets.
        if (!m_isCreated)
            return;
        if (id == IDC_URL && code == CBN_SELCHANGE)
            Read(SelectedUrl());
        else if ((id == IDC_URL && code == CBN_EDITCHANGE) || (id == IDC_ENGINE && code == CBN_SELCHANGE) ||
                 (code == BN_CLICKED && (id == IDC_VERIFY || id == IDC_REVOCATION)))
            Read(TextOf(IDC_URL));
    }
    bool IsProblem(int id) const noexcept override { return id == IDC_URL_PROBLEM; }

private:
    static constexpr LPARAM kAll = -1;

    void AddEngine(const std::wstring& name, LPARAM kind, bool isSelected)
    {
        const HWND list = Control(IDC_ENGINE);
        const auto index = static_cast<WPARAM>(::SendMessageW(list, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(name.c_str())));
        ::SendMessageW(list, CB_SETITEMDATA, index, kind);
        if (isSelected)
            ::SendMessageW(list, CB_SETCURSEL, index, 0);
    }
    // The control's own text changes only after it has told of the choice.
    [[nodiscard]] std::wstring SelectedUrl() const
    {
        const HWND list = Control(IDC_URL);
        const LRESULT index = ::SendMessageW(list, CB_GETCURSEL, 0, 0);
        const LRESULT length = ::SendMessageW(list, CB_GETLBTEXTLEN, static_cast<WPARAM>(index), 0);
        if (index < 0 || length < 0)
            return TextOf(IDC_URL);
        std::wstring text(static_cast<size_t>(length) + 1, L'\0');
        ::SendMessageW(list, CB_GETLBTEXT, static_cast<WPARAM>(index), reinterpret_cast<LPARAM>(text.data()));
        text.pop_back();
        return text;
    }
    void Read(std::wstring url)
    {
        CWizardInputs inputs = Model().Inputs();
        inputs.url = std::move(url);
        const HWND list = Control(IDC_ENGINE);
        const auto index = static_cast<WPARAM>(::SendMessageW(list, CB_GETCURSEL, 0, 0));
        const LRESULT kind = ::SendMessageW(list, CB_GETITEMDATA, index, 0);
        inputs.engine = kind < 0 ? std::nullopt : std::optional(static_cast<UINT32>(kind));
        inputs.verifyCertificate = ::IsDlgButtonChecked(Dialog(), IDC_VERIFY) == BST_CHECKED;
        inputs.checkRevocation = ::IsDlgButtonChecked(Dialog(), IDC_REVOCATION) == BST_CHECKED;
        Model().SetInputs(std::move(inputs));
        Refresh();
    }

    bool m_isCreated = false;
};
} // namespace

std::unique_ptr<CWizardPage> MakeServerPage(CWizardWindow& wizard)
{
    return std::make_unique<CServerPage>(wizard);
}
