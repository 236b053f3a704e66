// The second page: how the proxy is found, and a test of it.
#include "WizardPage.h"
#include "WizardTexts.h"
#include "resource.h"

#include <base/VoHResult.h>
#include <base/com/VoComImplHelper.h>

namespace
{
constexpr std::array kChoices{ std::pair(EProxyChoice::System, IDC_PROXY_SYSTEM), std::pair(EProxyChoice::List, IDC_PROXY_LIST),
                               std::pair(EProxyChoice::Script, IDC_PROXY_SCRIPT),
                               std::pair(EProxyChoice::Direct, IDC_PROXY_NONE) };

// Explains the proxy of a URL. Any thread; a script may take seconds.
std::wstring Explain(const std::wstring& url, const std::optional<CHTTPProxyConfigData>& config)
{
    const CVoComPtr<CVoGlobalHTTPProxyStoreImpl> store = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
    HRESULT hr = store ? S_OK : E_OUTOFMEMORY;
    CVoProxyExplanation explanation;
    if (SUCCEEDED(hr) && config)
        hr = store->Init(*config);
    else if (SUCCEEDED(hr))
        store->InitFromUserSettings();
    if (SUCCEEDED(hr))
        hr = store->ExplainProxyForUrl(url, explanation);
    return CWizardModel::DescribeProxy(hr, url, explanation);
}

class CProxyPage final : public CWizardPage
{
public:
    explicit CProxyPage(CWizardWindow& wizard) : CWizardPage(wizard, EWizardPage::Proxy, IDD_PROXY) {}

    void Refresh() override
    {
        const EProxyChoice choice = Model().Inputs().proxy;
        Enable(IDC_PROXY_LIST_EDIT, choice == EProxyChoice::List);
        Enable(IDC_BYPASS_EDIT, choice == EProxyChoice::List);
        Enable(IDC_SCRIPT_EDIT, choice == EProxyChoice::Script);
        SetText(IDC_PROXY_LIST_PROBLEM, Model().ProblemOf(EWizardField::ProxyList));
        SetText(IDC_SCRIPT_PROBLEM, Model().ProblemOf(EWizardField::ScriptUrl));
    }

protected:
    void OnCreate() override
    {
        const CWizardInputs& inputs = Model().Inputs();
        for (const auto& [choice, id] : kChoices)
            ::CheckDlgButton(Dialog(), id, inputs.proxy == choice ? BST_CHECKED : BST_UNCHECKED);
        ::SetWindowTextW(Control(IDC_PROXY_LIST_EDIT), inputs.proxyList.c_str());
        ::SetWindowTextW(Control(IDC_BYPASS_EDIT), inputs.bypassList.c_str());
        ::SetWindowTextW(Control(IDC_SCRIPT_EDIT), inputs.scriptUrl.c_str());
        m_isCreated = true;
    }
    void OnActivate() override
    {
        CHTTPProxyConfigData config;
        const HRESULT hr = config.InitFromIE();
        SetText(IDC_PROXY_SYSTEM_TEXT, CWizardModel::DescribeSystemProxy(hr, config));
        ForgetAnswer();
        for (const auto& [choice, id] : kChoices)
            if (Model().Inputs().proxy == choice)
                Focus(id);
    }
    bool OnNext() override { return IsRight() && Wizard().StartRun(); }
    void OnCommand(int id, int code) override
    {
        if (!m_isCreated)
            return;
        if (id == IDC_PROXY_TEST && code == BN_CLICKED)
            return Test();
        const bool isChoice = id >= IDC_PROXY_SYSTEM && id <= IDC_PROXY_NONE && code == BN_CLICKED;
        const bool isEdit = (id == IDC_PROXY_LIST_EDIT || id == IDC_BYPASS_EDIT || id == IDC_SCRIPT_EDIT) && code == EN_CHANGE;
        if (isChoice || isEdit)
            Read();
    }
    bool IsProblem(int id) const noexcept override { return id == IDC_PROXY_LIST_PROBLEM || id == IDC_SCRIPT_PROBLEM; }

private:
    void Read()
    {
        CWizardInputs inputs = Model().Inputs();
        for (const auto& [choice, id] : kChoices)
            if (::IsDlgButtonChecked(Dialog(), id) == BST_CHECKED)
                inputs.proxy = choice;
        inputs.proxyList = TextOf(IDC_PROXY_LIST_EDIT);
        inputs.bypassList = TextOf(IDC_BYPASS_EDIT);
        inputs.scriptUrl = TextOf(IDC_SCRIPT_EDIT);
        Model().SetInputs(std::move(inputs));
        ForgetAnswer();
        Refresh();
    }
    // Moves the keyboard to the wrong field.
    [[nodiscard]] bool IsRight()
    {
        const EWizardField wrong = Model().Leave(EWizardPage::Proxy);
        Refresh();
        if (wrong != EWizardField::None)
            Focus(wrong == EWizardField::ProxyList ? IDC_PROXY_LIST_EDIT : IDC_SCRIPT_EDIT);
        return wrong == EWizardField::None;
    }
    // The answer belongs to other inputs.
    void ForgetAnswer()
    {
        ++m_test;
        SetText(IDC_PROXY_ANSWER, {});
        Enable(IDC_PROXY_TEST, true);
    }
    void Test()
    {
        if (!IsRight())
            return;
        SetText(IDC_PROXY_ANSWER, WizardText(IDS_TEST_RUNNING));
        const auto show = [this, number = ++m_test](const std::wstring& answer)
        {
            if (number == m_test)
                SetText(IDC_PROXY_ANSWER, answer);
        };
        try
        {
            // The queue is closed before this page is destroyed.
            StartWizardThread([show, queue = Wizard().Queue(), url = Model().Inputs().url, config = Model().ProxyConfig()]
            { queue->Post([show, answer = Explain(url, config)] { show(answer); }); });
        }
        catch (const CVoHResultException& failure)
        {
            show(CWizardModel::DescribeProxy(failure.Result(), {}, {}));
        }
    }

    bool m_isCreated = false;
    unsigned m_test = 0; // counts the tests: the answer of an earlier one is not shown
};
} // namespace

std::unique_ptr<CWizardPage> MakeProxyPage(CWizardWindow& wizard)
{
    return std::make_unique<CProxyPage>(wizard);
}
