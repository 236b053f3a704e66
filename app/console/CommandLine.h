// The program's command line: the global options, the commands with theirs, help, version and wrong usage.
#pragma once

#include "Command.h"

#include <memory>
#include <string>
#include <vector>

// Takes one command line apart. Only the named command declares its options, which keeps the lines of a batch cheap.
class CCommandLine
{
public:
    // `options` receives the global options and must outlive this object.
    explicit CCommandLine(CGlobalOptions& options);
    ~CCommandLine();
    CCommandLine(const CCommandLine&) = delete;
    CCommandLine& operator=(const CCommandLine&) = delete;

    // Reads the arguments (UTF-8, without the program's name). Returns the command that is to run; it belongs to this object.
    // Null when the help or the version was asked for: then `text` holds it. Throws CUsageError for wrong usage.
    [[nodiscard]] ICommand* Parse(const std::vector<std::string>& arguments, std::string& text);
    // What follows the message about wrong usage: how to get the help of the command named so far.
    [[nodiscard]] std::string Hint() const;

private:
    class CParser;
    std::unique_ptr<CParser> m_parser;
};
