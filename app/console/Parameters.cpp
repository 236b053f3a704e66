// -p and --payload.
#include "Parameters.h"

void CParameterOptions::Declare(COptions& options, bool withPayload)
{
    options
        .AddRepeatable("-p,--param", m_parameters,
                       "A parameter; repeatable, kept in order. VALUE: @FILE is a UTF-8 file's text, - is standard input")
        .TypeName("NAME=VALUE");
    if (withPayload)
        options.Add("--payload", m_payload, "The binary payload; - is standard input").TypeName("FILE").NotEmpty();
}

std::vector<std::pair<std::wstring, std::wstring>> CParameterOptions::Read(CContext& context) const
{
    std::vector<std::pair<std::wstring, std::wstring>> parameters;
    for (const std::string& parameter : m_parameters)
    {
        const size_t separator = parameter.find('=');
        if (separator == std::string::npos)
            throw CUsageError("--param: '" + parameter + "' is not NAME=VALUE");
        parameters.emplace_back(FromUtf8(std::string_view(parameter).substr(0, separator)),
                                context.ReadValue(std::string_view(parameter).substr(separator + 1)));
    }
    return parameters;
}

void CParameterOptions::Fill(CContext& context, CVoBinaryDataParser& parser) const
{
    for (const auto& [name, value] : Read(context))
        Check(parser.AddParam(name, std::wstring_view(value)));
    if (!m_payload.empty())
        parser.SetPayload(context.ReadFile(m_payload));
}

std::wstring CParameterOptions::PayloadName() const
{
    const std::wstring path = FromUtf8(m_payload);
    return path.substr(path.find_last_of(L"/\\") + 1); // the whole path if it has no folder
}

CJson ParametersAsJson(const CVoDataParser& parser)
{
    CJson list = CJson::array();
    for (size_t i = 0; i < parser.GetCount(); ++i)
        list.push_back({ ToUtf8(parser.GetAt(i).Name()), ToUtf8(parser.GetAt(i).Value()) });
    return list;
}
