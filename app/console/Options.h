// How a command describes its part of the command line. CommandLine.cpp has the bodies: only that file includes the option
// parser.
#pragma once

#include <base/VoPlatform.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace CLI
{
class App;
class Option;
} // namespace CLI

// The command line asks for something that cannot be: exit code 2, the message and a hint on the error stream, no result.
class CUsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// One option or argument that was added. A handle: the parser owns the option.
class COption
{
public:
    explicit COption(CLI::Option* option) noexcept : m_option(option) {}

    COption& Required();
    // What the help shows in place of a value.
    COption& TypeName(const std::string& name);
    // Refuses an empty value, which in a script is a variable that was never set.
    COption& NotEmpty();
    COption& InRange(UINT32 lowest, UINT32 highest);
    COption& Excludes(const COption& other);
    COption& Needs(const COption& other);

private:
    CLI::Option* m_option;
};

// The command line of one command. A handle: the parser that it stands for outlives the command's run. Names begin with dashes
// ("-p,--param"); a name without dashes is an argument by its position. A target keeps its value when nothing is given for it.
class COptions
{
public:
    COptions() noexcept = default;
    explicit COptions(CLI::App& app) noexcept : m_app(&app) {}

    COption Add(const std::string& name, std::string& target, const std::string& description);
    COption Add(const std::string& name, INT32& target, const std::string& description);
    COption Add(const std::string& name, UINT32& target, const std::string& description);
    // An argument that takes one value or more.
    COption AddList(const std::string& name, std::vector<std::string>& target, const std::string& description);
    // An option that may stand several times and takes one value each time.
    COption AddRepeatable(const std::string& name, std::vector<std::string>& target, const std::string& description);
    COption AddFlag(const std::string& name, bool& target, const std::string& description);
    // Takes one of a few words; any other is a usage error.
    template <class Value>
    COption AddChoice(const std::string& name, Value& target, std::vector<std::pair<const char*, Value>> choices,
                      const std::string& description);
    // The text below the options in the help, with a line end.
    void SetFooter(const std::string& text);

    // Whether the command line holds the option; a name with its dashes.
    [[nodiscard]] bool WasGiven(const char* name) const;

private:
    // `take` gets the text of the value.
    COption AddFunction(const std::string& name, const std::function<void(const std::string&)>& take,
                        const std::string& description);

    CLI::App* m_app = nullptr;
};

template <class Value>
COption COptions::AddChoice(const std::string& name, Value& target, std::vector<std::pair<const char*, Value>> choices,
                            const std::string& description)
{
    std::string words;
    for (const auto& [word, value] : choices)
        words += (words.empty() ? "" : "|") + std::string(word);
    const auto choose = [&target, choices = std::move(choices), words, name](const std::string& text)
    {
        for (const auto& [word, value] : choices)
        {
            if (text == word)
            {
                target = value;
                return;
            }
        }
        throw CUsageError(name + ": '" + text + "' is none of " + words);
    };
    return AddFunction(name, choose, description).TypeName(words);
}
