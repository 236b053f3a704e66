// wmi: queries of Windows Management Instrumentation.
#include "Console.h"

#include <win/VoWMIQuery.h>

#include <algorithm>
#include <array>

namespace
{
// Texts for WMI's failure codes, for which the system finds none.
const char* WmiErrorText(HRESULT result) noexcept
{
    struct SText
    {
        UINT32 code;
        const char* text;
    };
    static constexpr SText kTexts[] = {
        { 0x80041002, "no object that was found has one of the FIELDs" },
        { 0x80041003, "WMI denies access" },
        { 0x8004100E, "there is no such namespace" },
        { 0x80041010, "there is no such class" },
        { 0x80041017, "the query is malformed" },
    };
    const auto* const found = std::find_if(std::begin(kTexts), std::end(kTexts),
                                           [=](const SText& text) { return text.code == static_cast<UINT32>(result); });
    return found != std::end(kTexts) ? found->text : nullptr;
}

void CheckWmi(HRESULT result)
{
    const char* const text = FAILED(result) ? WmiErrorText(result) : nullptr;
    if (text)
        throw CDetailedFailure(result, text);
    Check(result);
}

class CWmiCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.Add("QUERY", m_query, "The WQL query; @FILE is a UTF-8 file's text, - is standard input").Required();
        options.AddList("FIELD", m_fields, "The properties to show, in this order").Required();
        options.Add("--namespace", m_namespace, "The WMI namespace; default " + m_namespace).TypeName("PATH");
        options.SetFooter(
            "Prints one line a row, the fields separated by tabs; a tab or a line end inside a value is shown as a blank. "
            "--json gives rows: a list of lists of texts, as they are.\n"
            "Example: voutils wmi \"SELECT * FROM Win32_OperatingSystem\" Caption LastBootUpTime\n");
    }
    void Run(CContext& context) override
    {
        const std::wstring query = context.ReadValue(m_query);
        std::vector<std::wstring> fields(m_fields.size());
        std::transform(m_fields.begin(), m_fields.end(), fields.begin(), FromUtf8);
        if (query.empty())
            throw CUsageError("QUERY is empty");
        if (std::any_of(fields.begin(), fields.end(), [](const std::wstring& field) { return field.empty(); }))
            throw CUsageError("a FIELD is empty");

        VoWMIQuery::CVoWMIQueryStringFields wmi(FromUtf8(m_namespace));
        CheckWmi(wmi.Start()); // a query does not return why the worker could not start
        std::vector<std::vector<std::wstring>> rows;
        CheckWmi(wmi.QueryWMIStringFields(query, fields, rows));

        std::wstring lines;
        CJson list = CJson::array();
        for (const std::vector<std::wstring>& row : rows)
        {
            CJson texts = CJson::array();
            for (const std::wstring& text : row)
            {
                if (!texts.empty())
                    lines += L'\t';
                texts.push_back(ToUtf8(text));
                std::wstring shown = text;
                std::replace_if(shown.begin(), shown.end(), [](wchar_t c) { return c == L'\t' || c == L'\r' || c == L'\n'; },
                                L' ');
                lines += shown;
            }
            lines += L'\n';
            list.push_back(std::move(texts));
        }
        if (context.Options().json)
            context.PutKey("rows", std::move(list));
        else
            context.PutText("rows", lines);
    }

private:
    std::string m_query;
    std::vector<std::string> m_fields;
    std::string m_namespace = "ROOT\\CIMV2";
};
} // namespace

std::span<const CCommandEntry> WmiCommands()
{
    static constexpr std::array kCommands{
        CCommandEntry{ nullptr, "wmi", "Query Windows Management Instrumentation", MakeCommand<CWmiCommand> },
    };
    return kCommands;
}
