// The option parser (CLI11) behind COptions.
#include "Options.h"

#include <CLI/CLI.hpp>

namespace
{
// Without a name of its own in the help.
const CLI::Validator& NotEmptyValidator()
{
    static const CLI::Validator validator([](std::string& value)
    { return std::string(value.empty() ? "the value is empty" : ""); }, "");
    return validator;
}
} // namespace

COption& COption::Required()
{
    m_option->required();
    return *this;
}

COption& COption::TypeName(const std::string& name)
{
    m_option->type_name(name);
    return *this;
}

COption& COption::NotEmpty()
{
    m_option->check(NotEmptyValidator());
    return *this;
}

COption& COption::InRange(UINT32 lowest, UINT32 highest)
{
    m_option->check(CLI::Range(lowest, highest).description(""));
    return *this;
}

COption& COption::Excludes(const COption& other)
{
    m_option->excludes(other.m_option);
    return *this;
}

COption& COption::Needs(const COption& other)
{
    m_option->needs(other.m_option);
    return *this;
}

COption COptions::Add(const std::string& name, std::string& target, const std::string& description)
{
    return COption(m_app->add_option(name, target, description));
}

COption COptions::Add(const std::string& name, INT32& target, const std::string& description)
{
    return COption(m_app->add_option(name, target, description));
}

COption COptions::Add(const std::string& name, UINT32& target, const std::string& description)
{
    return COption(m_app->add_option(name, target, description));
}

COption COptions::AddList(const std::string& name, std::vector<std::string>& target, const std::string& description)
{
    return COption(m_app->add_option(name, target, description)->expected(1, -1));
}

COption COptions::AddRepeatable(const std::string& name, std::vector<std::string>& target, const std::string& description)
{
    // By itself the parser would give the option everything up to the next one.
    return COption(m_app->add_option(name, target, description)->allow_extra_args(false));
}

COption COptions::AddFlag(const std::string& name, bool& target, const std::string& description)
{
    return COption(m_app->add_flag(name, target, description));
}

COption COptions::AddFunction(const std::string& name, const std::function<void(const std::string&)>& take,
                              const std::string& description)
{
    return COption(m_app->add_option_function<std::string>(name, take, description));
}

void COptions::SetFooter(const std::string& text)
{
    // Below it stands what the help of every command ends with.
    m_app->footer(text + m_app->get_footer());
}

bool COptions::WasGiven(const char* name) const
{
    return m_app->count(name) != 0;
}
