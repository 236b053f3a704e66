// The options that fill a message: parameters in their order, and a payload.
#pragma once

#include "Command.h"

#include <base/VoDataParser.h>

class CParameterOptions
{
public:
    void Declare(CLI::App& app, bool withPayload = true);
    // Adds what the command line gave to a parser.
    void Fill(CContext& context, CVoBinaryDataParser& parser) const;
    // The parameters alone, values read.
    [[nodiscard]] std::vector<std::pair<std::wstring, std::wstring>> Read(CContext& context) const;
    [[nodiscard]] bool HasPayload() const noexcept { return !m_payload.empty(); }
    // The payload's file name without its folder.
    [[nodiscard]] std::wstring PayloadName() const;

private:
    std::vector<std::string> m_parameters;
    std::string m_payload;
};

// [[name, value], ...].
[[nodiscard]] CJson ParametersAsJson(const CVoDataParser& parser);
