#include "support/ImportHook.h"
#include "support/PlatformProxy.h"

#include <winhttp.h>

#include <map>
#include <mutex>

namespace
{
// Wine takes a proxy only for a whole session. So a request whose option names a proxy is replaced, in all later calls, by the
// same request of a session that was opened with that proxy.
class CRequestProxies
{
private:
    struct CConnection
    {
        HINTERNET session;
        std::wstring host;
        INTERNET_PORT port;
    };
    struct CRequest
    {
        HINTERNET connection;
        std::wstring verb;
        std::wstring path;
        DWORD flags;
        std::array<HINTERNET, 3> replacing{}; // the request, its connection, its session
    };

    HINTERNET Connect(HINTERNET session, const std::wstring& host, INTERNET_PORT port, HINTERNET connection)
    {
        const std::scoped_lock lock(m_lock);
        m_connections[connection] = { session, host, port };
        return connection;
    }
    HINTERNET Open(HINTERNET connection, const wchar_t* verb, const wchar_t* path, DWORD flags, HINTERNET request)
    {
        const std::scoped_lock lock(m_lock);
        m_requests[request] = { connection, verb, path, flags };
        return request;
    }
    HINTERNET Replaced(HINTERNET handle)
    {
        const std::scoped_lock lock(m_lock);
        const auto request = m_requests.find(handle);
        return request != m_requests.end() && request->second.replacing.front() ? request->second.replacing.front() : handle;
    }
    BOOL SetOption(decltype(&::WinHttpSetOption) set, HINTERNET handle, DWORD option, void* value, DWORD length)
    {
        const std::scoped_lock lock(m_lock);
        if (option == WINHTTP_OPTION_PROXY && m_requests.contains(handle))
            return Replace(set, handle, m_requests[handle], *static_cast<const WINHTTP_PROXY_INFO*>(value));
        const BOOL done = set(Replaced(handle), option, value, length);
        if (done && length == sizeof(DWORD))
            m_options[handle][option] = *static_cast<const DWORD*>(value);
        return done;
    }
    BOOL Replace(decltype(&::WinHttpSetOption) set, HINTERNET handle, CRequest& request, const WINHTTP_PROXY_INFO& proxy)
    {
        const CConnection& connection = m_connections[request.connection];
        const HINTERNET session = ::WinHttpOpen(L"", proxy.dwAccessType, proxy.lpszProxy, nullptr, WINHTTP_FLAG_ASYNC);
        const HINTERNET server = ::WinHttpConnect(session, connection.host.c_str(), connection.port, 0);
        request.replacing = { ::WinHttpOpenRequest(server, request.verb.c_str(), request.path.c_str(), nullptr, nullptr,
                                                   WINHTTP_DEFAULT_ACCEPT_TYPES, request.flags),
                              server, session };
        BOOL done = request.replacing.front() != nullptr;
        for (const auto& [from, to] : { std::pair(connection.session, session), { handle, request.replacing.front() } })
            for (auto [option, value] : m_options[from])
                done = done && set(to, option, &value, sizeof value);
        return done;
    }
    BOOL Close(decltype(&::WinHttpCloseHandle) close, HINTERNET handle)
    {
        std::array<HINTERNET, 3> replacing{};
        {
            const std::scoped_lock lock(m_lock);
            if (const auto request = m_requests.extract(handle))
                replacing = request.mapped().replacing;
            m_options.erase(handle);
        }
        for (const HINTERNET own : replacing) // children first
            if (own)
                close(own);
        return close(handle);
    }

    std::recursive_mutex m_lock;
    std::map<HINTERNET, CConnection> m_connections;
    std::map<HINTERNET, CRequest> m_requests;
    std::map<HINTERNET, std::map<DWORD, DWORD>> m_options;

    const CCallHook<decltype(&::WinHttpConnect)> m_connect{
        "winhttp.dll", "WinHttpConnect", [this](auto original, HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD flags)
    { return Connect(session, host, port, original(session, host, port, flags)); }
    };
    const CCallHook<decltype(&::WinHttpOpenRequest)> m_open{ "winhttp.dll", "WinHttpOpenRequest",
                                                             [this](auto original, HINTERNET connection, LPCWSTR verb,
                                                                    LPCWSTR path, LPCWSTR version, LPCWSTR referrer,
                                                                    LPCWSTR* types, DWORD flags)
    { return Open(connection, verb, path, flags, original(connection, verb, path, version, referrer, types, flags)); } };
    const CCallHook<decltype(&::WinHttpSetOption)> m_setOption{ "winhttp.dll", "WinHttpSetOption",
                                                                [this](auto original, auto... arguments)
    { return SetOption(original, arguments...); } };
    const CCallHook<decltype(&::WinHttpCloseHandle)> m_close{ "winhttp.dll", "WinHttpCloseHandle",
                                                              [this](auto original, HINTERNET handle)
    { return Close(original, handle); } };

#define VO_REDIRECT(function)                                                                                                  \
    const CCallHook<decltype(&::function)> m_##function                                                                        \
    {                                                                                                                          \
        "winhttp.dll", #function,                                                                                              \
            [this](auto original, HINTERNET handle, auto... arguments) { return original(Replaced(handle), arguments...); }    \
    }
    VO_REDIRECT(WinHttpQueryOption);
    VO_REDIRECT(WinHttpSetStatusCallback);
    VO_REDIRECT(WinHttpAddRequestHeaders);
    VO_REDIRECT(WinHttpSetCredentials);
    VO_REDIRECT(WinHttpSendRequest);
    VO_REDIRECT(WinHttpReceiveResponse);
    VO_REDIRECT(WinHttpQueryHeaders);
    VO_REDIRECT(WinHttpQueryAuthSchemes);
    VO_REDIRECT(WinHttpQueryDataAvailable);
    VO_REDIRECT(WinHttpReadData);
#undef VO_REDIRECT
};
} // namespace

std::shared_ptr<void> TestSupport::WinHTTPRequestsUseTheirProxy()
{
    return std::make_shared<CRequestProxies>();
}
