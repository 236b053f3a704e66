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

private:
    std::string m_proxy;
    std::string m_bypass;
    std::string m_pac;
    bool m_autoDetect = false;
    bool m_noProxy = false;
};
