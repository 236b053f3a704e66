// The options that say how the proxy is found.
#pragma once

#include "Command.h"

// Without any of them the user's Internet settings hold.
class CProxyOptions
{
public:
    void Declare(CLI::App& app);
    // The process's store, set to what the options say. What it found before stays where that is the same as before.
    [[nodiscard]] IVoHTTPProxyStore& Apply(CContext& context) const;

private:
    std::string m_proxy;
    std::string m_bypass;
    std::string m_pac;
    bool m_autoDetect = false;
    bool m_noProxy = false;
};
