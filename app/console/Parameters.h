// The options for the content of a message: parameters, in order, and a payload.
#pragma once

#include "Command.h"

#include <base/VoDataParser.h>

class CParameterOptions
{
public:
    void Declare(COptions& options, bool withPayload = true);
    // Adds the parameters and the payload to a parser.
    void Fill(CContext& context, CVoBinaryDataParser& parser) const;
    // The parameters alone, with "@FILE" and "-" replaced by their texts.
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
