// Owners of WinHTTP's three handle kinds. Every operation turns a failed call into an HRESULT (HResultFromWin32) and a report
// under its own name; outputs are written on success only.
//
// Brings winhttp.h in, which does not go together with wininet.h: include it in source files of the WinHTTP side only.
#pragma once

#include <base/VoErrorHandler.h>
#include <base/VoHResult.h>
#include <base/VoLock.h>
#include <base/VoPlatform.h>

#include <winhttp.h>

#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace VoWinHttpInterface
{
inline constexpr const wchar_t* kSource = L"VoWinHttpInterface.h";

// Owns one WinHTTP handle, or none. Any thread may use it, and close it while others use it: the platform forbids calls on a
// handle that is closed and gives its value to the next handle that is opened, so a handle closed during calls on other threads
// is given back by the last of them, and calls that come later fail with ERROR_INVALID_HANDLE. The object itself must outlive
// the calls of other threads; it may be destroyed by a callback that comes inside one of its own calls.
class WinHttpHandle
{
public:
    WinHttpHandle(const WinHttpHandle&) = delete;
    WinHttpHandle& operator=(const WinHttpHandle&) = delete;

    // Closes the handle; S_OK when there is none. The handle is dropped also when closing it fails. An asynchronous request's
    // callback may hear of its end inside this call.
    HRESULT Close() noexcept { return Close(L"VoWinHttpInterface::WinHttpHandle::Close", 41); }

    // The handle's value now, for comparisons; null when empty. Calls with it are not protected against Close.
    [[nodiscard]] HINTERNET Get() const noexcept
    {
        const std::shared_ptr<COwned> owned = Pin();
        return owned ? owned->handle : nullptr;
    }
    [[nodiscard]] bool IsOpen() const noexcept { return Get() != nullptr; }

    // Milliseconds; 0 waits without end (for the resolving of names: as the platform likes).
    [[nodiscard]] HRESULT SetTimeouts(int resolve, int connect, int send, int receive) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpHandle::SetTimeouts" };
        return Use(report, 58, [&](HINTERNET handle) { return ::WinHttpSetTimeouts(handle, resolve, connect, send, receive); });
    }
    [[nodiscard]] HRESULT SetOption(DWORD option, DWORD value) const noexcept
    {
        return SetOption(option, &value, sizeof(value));
    }
    // `length` in bytes; for texts in characters, as the option's documentation says.
    [[nodiscard]] HRESULT SetOption(DWORD option, const void* value, DWORD length) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpHandle::SetOption" };
        return Use(report, 66,
                   [&](HINTERNET handle) { return ::WinHttpSetOption(handle, option, const_cast<void*>(value), length); });
    }
    // `length`: the buffer's bytes in, those of the value out.
    [[nodiscard]] HRESULT QueryOption(DWORD option, void* buffer, DWORD& length) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpHandle::QueryOption" };
        return Use(report, 73, [&](HINTERNET handle) { return ::WinHttpQueryOption(handle, option, buffer, &length); });
    }

protected:
    WinHttpHandle() = default;
    ~WinHttpHandle() { Close(L"VoWinHttpInterface::WinHttpHandle::~WinHttpHandle", 80); }

    // Makes a call on the handle. False from it is reported with the last error.
    template <class Call>
    [[nodiscard]] HRESULT Use(const CVoReporter& report, int line, Call call) const noexcept
    {
        // The call may bring a callback that destroys this object: nothing but the pin is used afterwards.
        const std::shared_ptr<COwned> owned = Pin();
        return call(owned ? owned->handle : nullptr) ? S_OK : report(line, HResultFromLastError());
    }

    // Closes the handle held so far and takes over the one that `open` makes. Null from it is reported with the last error.
    template <class Open>
    [[nodiscard]] HRESULT Replace(const CVoReporter& report, int line, int exceptionLine, Open open) noexcept
    try
    {
        Close();
        const auto owned = std::make_shared<COwned>();
        owned->handle = open();
        if (!owned->handle)
            return report(line, HResultFromLastError());
        const std::lock_guard lock(m_lock);
        m_owned = owned;
        return S_OK;
    }
    catch (...)
    {
        return report.CurrentException(exceptionLine);
    }

private:
    friend class WinHttpSessionHandle; // a kind's Init pins its parent
    friend class WinHttpConnectionHandle;
    friend class WinHttpRequestHandle;

    struct COwned
    {
        COwned() = default;
        ~COwned() { Close(L"VoWinHttpInterface::WinHttpHandle::Close", 116); }
        COwned(const COwned&) = delete;
        COwned& operator=(const COwned&) = delete;

        HRESULT Close(const wchar_t* function, int line) noexcept
        {
            const CVoLastErrorKeeper keeper;
            const HINTERNET closing = std::exchange(handle, nullptr);
            if (!closing || ::WinHttpCloseHandle(closing))
                return S_OK;
            return CVoReporter{ kSource, function }(line, HResultFromLastError());
        }

        HINTERNET handle = nullptr;
    };

    HRESULT Close(const wchar_t* function, int line) noexcept
    {
        std::shared_ptr<COwned> owned;
        {
            const std::lock_guard lock(m_lock);
            owned.swap(m_owned);
        }
        // Nobody can pin it any more, so that a count of one stays one. Otherwise the last call on it closes it.
        return owned && owned.use_count() == 1 ? owned->Close(function, line) : S_OK;
    }

    [[nodiscard]] std::shared_ptr<COwned> Pin() const noexcept
    {
        const std::lock_guard lock(m_lock);
        return m_owned;
    }

    mutable CVoLock m_lock; // never held during a call of the platform, which may call back
    std::shared_ptr<COwned> m_owned;
};

class WinHttpSessionHandle : public WinHttpHandle
{
public:
    // Opens a session without a proxy name or a bypass list. `accessType`: WINHTTP_ACCESS_TYPE_...; `flags`: 0 or
    // WINHTTP_FLAG_ASYNC.
    [[nodiscard]] HRESULT Init(const wchar_t* agent, DWORD accessType, DWORD flags) noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpSessionHandle::Init" };
        return Replace(report, 170, 171,
                       [&] { return ::WinHttpOpen(agent, accessType, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, flags); });
    }

private:
    // The platform's answer; its texts are freed here.
    struct CProxyInfo : WINHTTP_PROXY_INFO
    {
        CProxyInfo() noexcept : WINHTTP_PROXY_INFO{} {}
        ~CProxyInfo()
        {
            const CVoLastErrorKeeper keeper;
            ::GlobalFree(lpszProxy);
            ::GlobalFree(lpszProxyBypass);
        }
        CProxyInfo(const CProxyInfo&) = delete;
        CProxyInfo& operator=(const CProxyInfo&) = delete;
    };

    // The errors that say no more than "no script was found, or it gives no answer".
    [[nodiscard]] static constexpr bool MeansNoProxy(DWORD error) noexcept
    {
        return error == ERROR_WINHTTP_BAD_AUTO_PROXY_SCRIPT || error == ERROR_WINHTTP_UNABLE_TO_DOWNLOAD_SCRIPT ||
               error == ERROR_WINHTTP_UNHANDLED_SCRIPT_TYPE || error == ERROR_WINHTTP_SCRIPT_EXECUTION_ERROR ||
               error == ERROR_WINHTTP_AUTO_PROXY_SERVICE_ERROR || error == ERROR_WINHTTP_AUTODETECTION_FAILED;
    }

    // One question to the platform. True with the answer in `info`, otherwise the error.
    [[nodiscard]] bool AskForProxy(const std::wstring& url, WINHTTP_AUTOPROXY_OPTIONS& options, CProxyInfo& info,
                                   DWORD& error) const noexcept
    {
        const auto owned = Pin();
        if (::WinHttpGetProxyForUrl(owned ? owned->handle : nullptr, url.c_str(), &options, &info))
            return true;
        error = ::GetLastError();
        return false;
    }

    // The second question, with the user's logon, which the service that runs scripts for the system does not have.
    // S_OK with the answer, S_FALSE where there is none.
    [[nodiscard]] HRESULT AskForProxyWithLogon(const CVoReporter& report, const std::wstring& url,
                                               WINHTTP_AUTOPROXY_OPTIONS& options, CProxyInfo& info) const noexcept
    {
        options.fAutoLogonIfChallenged = TRUE;
        options.dwFlags |= WINHTTP_AUTOPROXY_RUN_INPROCESS;
        DWORD error = ERROR_SUCCESS;
        if (AskForProxy(url, options, info, error))
            return S_OK;
        return MeansNoProxy(error) ? S_FALSE : report.Win32(202, 203, error);
    }

public:
    // Asks the platform for the proxy of a URL: through the auto-configuration script at `pacFileUrl`, or where that is empty
    // by detection (DHCP and DNS). Blocks while the script is fetched and run. `proxy` receives the platform's proxy list,
    // empty for a direct connection, and `bypass` the hosts that need no proxy. A discovery that fails ends in a direct
    // connection and S_OK, because it must not cut a user off: silently where there is no script or it gives no answer, with a
    // report otherwise. Only exhausted memory fails.
    [[nodiscard]] HRESULT GetProxyForUrl(const std::wstring& url, const std::wstring& pacFileUrl, std::wstring& proxy,
                                         std::wstring& bypass) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpSessionHandle::GetProxyForUrl" };
        try
        {
            WINHTTP_AUTOPROXY_OPTIONS options{};
            if (pacFileUrl.empty())
            {
                options.dwFlags = WINHTTP_AUTOPROXY_AUTO_DETECT | WINHTTP_AUTOPROXY_SORT_RESULTS;
                options.dwAutoDetectFlags = WINHTTP_AUTO_DETECT_TYPE_DHCP | WINHTTP_AUTO_DETECT_TYPE_DNS_A;
            }
            else
            {
                options.dwFlags = WINHTTP_AUTOPROXY_CONFIG_URL;
                options.lpszAutoConfigUrl = pacFileUrl.c_str();
            }

            CProxyInfo info;
            // Without the user's logon first: it shows who the user is to whoever serves the script.
            DWORD error = ERROR_SUCCESS;
            bool answered = AskForProxy(url, options, info, error);
            if (!answered && error == ERROR_WINHTTP_LOGIN_FAILURE)
            {
                const HRESULT hr = AskForProxyWithLogon(report, url, options, info);
                if (FAILED(hr))
                    report(249, hr);
                answered = hr == S_OK;
            }
            else if (!answered && !MeansNoProxy(error))
                report.Win32(264, 265, error);

            std::wstring foundProxy;
            std::wstring foundBypass;
            if (answered && info.dwAccessType != WINHTTP_ACCESS_TYPE_NO_PROXY)
            {
                foundProxy = info.lpszProxy ? info.lpszProxy : L"";
                foundBypass = info.lpszProxyBypass ? info.lpszProxyBypass : L"";
            }
            proxy.swap(foundProxy);
            bypass.swap(foundBypass);
            return S_OK;
        }
        catch (...)
        {
            return report.CurrentException(280);
        }
    }
};

// One target: a host and a port. The session must stay open while the connection is used.
class WinHttpConnectionHandle : public WinHttpHandle
{
public:
    [[nodiscard]] HRESULT Init(const WinHttpSessionHandle& session, const wchar_t* host, INTERNET_PORT port) noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpConnectionHandle::Init" };
        const auto parent = session.Pin();
        return Replace(report, 300, 301, [&] { return ::WinHttpConnect(parent ? parent->handle : nullptr, host, port, 0); });
    }
};

// One request on a connection, which must stay open while the request is used.
class WinHttpRequestHandle : public WinHttpHandle
{
public:
    // `path` with its query ("/a?b"); `flags`: WINHTTP_FLAG_... . No referrer, and the types that the platform accepts by
    // default.
    [[nodiscard]] HRESULT Init(const WinHttpConnectionHandle& connection, const wchar_t* verb, const wchar_t* path,
                               DWORD flags) noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::Init" };
        const auto parent = connection.Pin();
        return Replace(report, 316, 317,
                       [&]
                       {
                           return ::WinHttpOpenRequest(parent ? parent->handle : nullptr, verb, path, L"HTTP/1.1",
                                                       WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES, flags);
                       });
    }

    // `mask`: the WINHTTP_CALLBACK_FLAG_... of the notifications that `function` receives, on WinHTTP's threads. A null
    // function ends them.
    [[nodiscard]] HRESULT SetStatusCallback(WINHTTP_STATUS_CALLBACK function, DWORD mask) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::SetStatusCallback" };
        return Use(report, 330,
                   [&](HINTERNET handle)
                   { return ::WinHttpSetStatusCallback(handle, function, mask, 0) != WINHTTP_INVALID_STATUS_CALLBACK; });
    }

    // Adds header lines ("Name: value", several separated by "\r\n"). `length` in characters, -1 for a text that ends with a
    // zero; `modifiers`: WINHTTP_ADDREQ_FLAG_... .
    [[nodiscard]] HRESULT AddHeader(const wchar_t* text, DWORD length, DWORD modifiers) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::AddHeader" };
        return Use(report, 340, [&](HINTERNET handle) { return ::WinHttpAddRequestHeaders(handle, text, length, modifiers); });
    }

    // Adds the Cookie header with that value ("a=1; b=2").
    [[nodiscard]] HRESULT SetCookieString(std::wstring_view cookies) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::SetCookieString" };
        try
        {
            const std::wstring header = std::wstring(L"Cookie:").append(cookies);
            const HRESULT hr = AddHeader(header.c_str(), static_cast<DWORD>(header.size()), WINHTTP_ADDREQ_FLAG_ADD);
            return SUCCEEDED(hr) ? hr : report(352, hr);
        }
        catch (...)
        {
            return report.CurrentException(356);
        }
    }

    // Starts the request. `body` may be null with a length of 0; in asynchronous mode it must stay until the request is
    // complete. `context` is handed to the status callback from now on.
    [[nodiscard]] HRESULT Send(const void* body, DWORD length, DWORD_PTR context) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::Send" };
        return Use(report, 366,
                   [&](HINTERNET handle) {
                       return ::WinHttpSendRequest(handle, WINHTTP_NO_ADDITIONAL_HEADERS, 0, const_cast<void*>(body), length,
                                                   length, context);
                   });
    }
    [[nodiscard]] HRESULT ReceiveResponse() const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::ReceiveResponse" };
        return Use(report, 376, [](HINTERNET handle) { return ::WinHttpReceiveResponse(handle, nullptr); });
    }
    // The count arrives in the status callback.
    [[nodiscard]] HRESULT QueryDataAvailable() const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::QueryDataAvailable" };
        return Use(report, 382, [](HINTERNET handle) { return ::WinHttpQueryDataAvailable(handle, nullptr); });
    }
    // `size` in bytes. The count that was read arrives in the status callback; until then the buffer belongs to WinHTTP.
    [[nodiscard]] HRESULT ReadData(void* buffer, DWORD size) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::ReadData" };
        return Use(report, 388, [&](HINTERNET handle) { return ::WinHttpReadData(handle, buffer, size, nullptr); });
    }

    // After a 401 or 407: the schemes offered and the one the server prefers (WINHTTP_AUTH_SCHEME_...), and who asks
    // (WINHTTP_AUTH_TARGET_...).
    [[nodiscard]] HRESULT QueryAuthSchemes(DWORD& supported, DWORD& first, DWORD& target) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::QueryAuthSchemes" };
        return Use(report, 396,
                   [&](HINTERNET handle) { return ::WinHttpQueryAuthSchemes(handle, &supported, &first, &target); });
    }
    [[nodiscard]] HRESULT SetCredentials(DWORD target, DWORD scheme, const wchar_t* user,
                                         const wchar_t* password) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::SetCredentials" };
        return Use(report, 402,
                   [&](HINTERNET handle) { return ::WinHttpSetCredentials(handle, target, scheme, user, password, nullptr); });
    }

    // A header that is a number; `infoLevel`: WINHTTP_QUERY_... | WINHTTP_QUERY_FLAG_NUMBER.
    [[nodiscard]] HRESULT QueryHeaders(DWORD infoLevel, DWORD& number) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::QueryHeaders" };
        DWORD value = 0;
        DWORD length = sizeof(value);
        const HRESULT hr = Use(report, 412,
                               [&](HINTERNET handle) {
                                   return ::WinHttpQueryHeaders(handle, infoLevel, WINHTTP_HEADER_NAME_BY_INDEX, &value,
                                                                &length, WINHTTP_NO_HEADER_INDEX);
                               });
        if (SUCCEEDED(hr))
            number = value;
        return hr;
    }

    // The text of a header: of `name` for the level WINHTTP_QUERY_CUSTOM, of the level's own otherwise. `index`, where given,
    // chooses among headers of one name, from 0, and is set to the next.
    // E_POINTER without an output, E_INVALIDARG without the name that the level needs. A header that is not there is an answer
    // rather than a failure: HRESULT_FROM_WIN32(ERROR_WINHTTP_HEADER_NOT_FOUND), without a report.
    [[nodiscard]] HRESULT QueryCustomHeaders(DWORD infoLevel, const std::wstring& name, std::wstring* text,
                                             DWORD* index = WINHTTP_NO_HEADER_INDEX) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::QueryCustomHeaders" };
        if (!text)
            return report(436, E_POINTER);
        if (name.empty() && (infoLevel & kQueryAttributeMask) == WINHTTP_QUERY_CUSTOM)
            return report(438, E_INVALIDARG);

        const auto owned = Pin();
        DWORD next = 0;
        const auto query = [&](void* buffer, DWORD& length)
        {
            // Each call starts from the caller's header: asking for the length may have counted it already.
            next = index ? *index : 0;
            return ::WinHttpQueryHeaders(owned ? owned->handle : nullptr, infoLevel,
                                         name.empty() ? WINHTTP_HEADER_NAME_BY_INDEX : name.c_str(), buffer, &length,
                                         index ? &next : WINHTTP_NO_HEADER_INDEX);
        };
        try
        {
            DWORD length = 0; // in bytes; with the ending zero when asked for, without it when answered
            if (query(nullptr, length))
                return report(450, E_FAIL);
            const DWORD error = ::GetLastError();
            if (error == ERROR_WINHTTP_HEADER_NOT_FOUND)
                return HResultFromWin32(error);
            if (error != ERROR_INSUFFICIENT_BUFFER)
                return report(454, HResultFromWin32(error));

            std::wstring value(length / sizeof(wchar_t) + 1, L'\0');
            if (!query(value.data(), length))
                return report(458, HResultFromLastError());
            value.resize(length / sizeof(wchar_t));
            text->swap(value);
            if (index)
                *index = next;
            return S_OK;
        }
        catch (...)
        {
            return report.CurrentException(464);
        }
    }

    // The value of the Set-Cookie header number `index`, or of the first; see QueryCustomHeaders.
    [[nodiscard]] HRESULT QueryCookie(std::wstring* text, DWORD* index = WINHTTP_NO_HEADER_INDEX) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::QueryCookie" };
        const HRESULT hr = QueryCustomHeaders(WINHTTP_QUERY_SET_COOKIE, {}, text, index);
        return SUCCEEDED(hr) || hr == HResultFromWin32(ERROR_WINHTTP_HEADER_NOT_FOUND) ? hr : report(474, hr);
    }

private:
    // The part of an information level that names the header; the rest are modifiers.
    static constexpr DWORD kQueryAttributeMask = 0xFFFF;
};
} // namespace VoWinHttpInterface
