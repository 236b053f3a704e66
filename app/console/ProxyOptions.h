// The options for the proxy.
#pragma once

#include "Command.h"

// Without any of them the user's Internet settings apply.
class CProxyOptions
{
public:
    void Declare(COptions& options);
    // Configures the process's store by the options and returns it. The store keeps its cache if the configuration is the same.
    [[nodiscard]] CVoGlobalHTTPProxyStoreImpl& Apply(CContext& context) const;

    // Whether an option says it; otherwise the user's Internet settings apply.
    [[nodiscard]] const std::string& Script() const noexcept { return m_pac; }
    [[nodiscard]] bool IsGiven() const noexcept { return m_autoDetect || m_noProxy || !m_pac.empty() || !m_proxy.empty(); }

private:
    std::string m_proxy;
    std::string m_bypass;
    std::string m_pac;
    bool m_autoDetect = false;
    bool m_noProxy = false;
};
