// Owners of the three kinds of WinHTTP handle: session, connection and request. The WinHTTP transport and the proxy store use
// them. Every operation turns a failed WinHTTP call into an HRESULT (HResultFromWin32) and reports it under its own name.
// Outputs are written on success only.
//
// This header includes winhttp.h, which cannot be combined with wininet.h. Include it in source files of the WinHTTP side only.
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

// Owns one WinHTTP handle, or none. Any thread may use the object, and close the handle while other threads use it. WinHTTP
// gives the value of a closed handle to the next handle that is opened, so a call on a closed handle could reach another one.
// Therefore Close leaves a handle that is in use to the last of the running calls, which closes it; later calls fail with
// ERROR_INVALID_HANDLE. The object must outlive the calls of other threads. A callback that runs inside one of the object's own
// calls may destroy it.
//
// A handle is closed after all handles that were made from it: a connection keeps its session open and a request keeps its
// connection open, even when Close was called on them before.
class WinHttpHandle
{
public:
    WinHttpHandle(const WinHttpHandle&) = delete;
    WinHttpHandle& operator=(const WinHttpHandle&) = delete;

    // Closes the handle, or drops it when handles that were made from it are open: the last of them closes it. S_OK when there
    // is none. The handle is dropped even when WinHTTP fails to close it. The status callback of an asynchronous request may
    // receive HANDLE_CLOSING inside this call.
    HRESULT Close() noexcept { return Close(L"VoWinHttpInterface::WinHttpHandle::Close", 41); }

    // The current value of the handle, for comparisons; null when there is none. Calls with the value are not protected against
    // Close.
    [[nodiscard]] HINTERNET Get() const noexcept
    {
        const std::shared_ptr<COwned> owned = Pin();
        return owned ? owned->handle : nullptr;
    }
    [[nodiscard]] bool IsOpen() const noexcept { return Get() != nullptr; }

    // Milliseconds. 0: no time-out; for resolve, the platform's own time-out.
    [[nodiscard]] HRESULT SetTimeouts(int resolve, int connect, int send, int receive) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpHandle::SetTimeouts" };
        return Use(report, 58, [&](HINTERNET handle) { return ::WinHttpSetTimeouts(handle, resolve, connect, send, receive); });
    }
    [[nodiscard]] HRESULT SetOption(DWORD option, DWORD value) const noexcept
    {
        return SetOption(option, &value, sizeof(value));
    }
    // `length` in bytes, or in characters when the option is a text (see the documentation of the option).
    [[nodiscard]] HRESULT SetOption(DWORD option, const void* value, DWORD length) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpHandle::SetOption" };
        return Use(report, 66,
                   [&](HINTERNET handle) { return ::WinHttpSetOption(handle, option, const_cast<void*>(value), length); });
    }
    // `length`: on input the size of the buffer in bytes, on output that of the value.
    [[nodiscard]] HRESULT QueryOption(DWORD option, void* buffer, DWORD& length) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpHandle::QueryOption" };
        return Use(report, 73, [&](HINTERNET handle) { return ::WinHttpQueryOption(handle, option, buffer, &length); });
    }

protected:
    WinHttpHandle() = default;
    ~WinHttpHandle() { Close(L"VoWinHttpInterface::WinHttpHandle::~WinHttpHandle", 80); }

    // Makes a call on the handle. When it returns false, reports the last error.
    template <class Call>
    [[nodiscard]] HRESULT Use(const CVoReporter& report, int line, Call call) const noexcept
    {
        // A callback inside the call may destroy this object: use only `owned` afterwards.
        const std::shared_ptr<COwned> owned = Pin();
        return call(owned ? owned->handle : nullptr) ? S_OK : report(line, HResultFromLastError());
    }

    // Closes the current handle and owns the one that `open` makes from the handle of `parent` (null: no parent). When `open`
    // returns null, reports the last error.
    template <class Open>
    [[nodiscard]] HRESULT Replace(const CVoReporter& report, int line, int exceptionLine, const WinHttpHandle* parent,
                                  Open open) noexcept
    try
    {
        Close();
        const auto owned = std::make_shared<COwned>();
        if (parent)
            owned->parent = parent->Pin();
        owned->handle = open(owned->parent ? owned->parent->handle : nullptr);
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
    friend class WinHttpSessionHandle; // some of their operations use Pin
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
        std::shared_ptr<COwned> parent; // destroyed after the destructor has closed the handle
    };

    HRESULT Close(const wchar_t* function, int line) noexcept
    {
        std::shared_ptr<COwned> owned;
        {
            const std::lock_guard lock(m_lock);
            owned.swap(m_owned);
        }
        // Nobody can pin it any more, so a count of one stays one. Otherwise the last running call or child closes the handle.
        return owned && owned.use_count() == 1 ? owned->Close(function, line) : S_OK;
    }

    // The handle, which stays open while the result exists; null when there is none.
    [[nodiscard]] std::shared_ptr<COwned> Pin() const noexcept
    {
        const std::lock_guard lock(m_lock);
        return m_owned;
    }

    mutable CVoLock m_lock; // not held during calls of WinHTTP, which may call back
    std::shared_ptr<COwned> m_owned;
};

// A session: options, time-outs, proxy discovery.
class WinHttpSessionHandle : public WinHttpHandle
{
public:
    // Opens a session without a proxy name or a bypass list. `accessType`: WINHTTP_ACCESS_TYPE_...; `flags`: 0 or
    // WINHTTP_FLAG_ASYNC.
    [[nodiscard]] HRESULT Init(const wchar_t* agent, DWORD accessType, DWORD flags) noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpSessionHandle::Init" };
        return Replace(report, 170, 171, nullptr, [&](HINTERNET)
        { return ::WinHttpOpen(agent, accessType, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, flags); });
    }

private:
    // The result of the platform's discovery. Frees the texts.
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

    // Whether the error only means that no script was found, or that the script gave no result.
    [[nodiscard]] static constexpr bool MeansNoProxy(DWORD error) noexcept
    {
        return error == ERROR_WINHTTP_BAD_AUTO_PROXY_SCRIPT || error == ERROR_WINHTTP_UNABLE_TO_DOWNLOAD_SCRIPT ||
               error == ERROR_WINHTTP_UNHANDLED_SCRIPT_TYPE || error == ERROR_WINHTTP_SCRIPT_EXECUTION_ERROR ||
               error == ERROR_WINHTTP_AUTO_PROXY_SERVICE_ERROR || error == ERROR_WINHTTP_AUTODETECTION_FAILED;
    }

    // Asks the platform once. True: the result is in `info`. False: the error is in `error`.
    [[nodiscard]] bool AskForProxy(const std::wstring& url, WINHTTP_AUTOPROXY_OPTIONS& options, CProxyInfo& info,
                                   DWORD& error) const noexcept
    {
        const auto owned = Pin();
        if (::WinHttpGetProxyForUrl(owned ? owned->handle : nullptr, url.c_str(), &options, &info))
            return true;
        error = ::GetLastError();
        return false;
    }

    // Asks with the user's logon, inside this process: the system's service that runs scripts does not have the logon. S_OK:
    // the result is in `info`. S_FALSE: there is none.
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
    // Asks the platform for the proxy of a URL. It uses the auto-configuration script at `pacFileUrl`; when that is empty, it
    // detects a script (DHCP and DNS). Blocks while the script is fetched and run. `proxy` receives the platform's proxy list,
    // empty for a direct connection; `bypass` receives the hosts that need no proxy. A failed discovery gives a direct
    // connection and S_OK, because it must not disconnect the user. It is reported, unless it only means that there is no
    // script or that the script gave no result. Only E_OUTOFMEMORY is returned as a failure. `discoveryError` (may be null)
    // receives the platform's error of a failed discovery, else 0. `failed` (may be null): whether it was reported, so that the
    // next discovery may have another result.
    [[nodiscard]] HRESULT GetProxyForUrl(const std::wstring& url, const std::wstring& pacFileUrl, std::wstring& proxy,
                                         std::wstring& bypass, DWORD* discoveryError = nullptr,
                                         bool* failed = nullptr) const noexcept
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
            // First without the user's logon, which identifies the user to the server of the script.
            DWORD error = ERROR_SUCCESS;
            bool found = AskForProxy(url, options, info, error);
            bool isFailure = false;
            if (!found && error == ERROR_WINHTTP_LOGIN_FAILURE)
            {
                const HRESULT hr = AskForProxyWithLogon(report, url, options, info);
                if (FAILED(hr))
                    report(249, hr);
                found = hr == S_OK;
                isFailure = FAILED(hr);
            }
            else if (!found && !MeansNoProxy(error))
            {
                report.Win32(264, 265, error);
                isFailure = true;
            }
            if (discoveryError)
                *discoveryError = found ? ERROR_SUCCESS : error;

            std::wstring foundProxy;
            std::wstring foundBypass;
            if (found && info.dwAccessType != WINHTTP_ACCESS_TYPE_NO_PROXY)
            {
                foundProxy = info.lpszProxy ? info.lpszProxy : L"";
                foundBypass = info.lpszProxyBypass ? info.lpszProxyBypass : L"";
            }
            proxy.swap(foundProxy);
            bypass.swap(foundBypass);
            if (failed)
                *failed = isFailure;
            return S_OK;
        }
        catch (...)
        {
            return report.CurrentException(280);
        }
    }
};

// A connection: the host and port of the target.
class WinHttpConnectionHandle : public WinHttpHandle
{
public:
    [[nodiscard]] HRESULT Init(const WinHttpSessionHandle& session, const wchar_t* host, INTERNET_PORT port) noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpConnectionHandle::Init" };
        return Replace(report, 300, 301, &session, [&](HINTERNET parent) { return ::WinHttpConnect(parent, host, port, 0); });
    }
};

// A request on a connection.
class WinHttpRequestHandle : public WinHttpHandle
{
public:
    // `path` includes the query ("/a?b"). `flags`: WINHTTP_FLAG_... values. The request has no referrer and WinHTTP's default
    // accept types.
    [[nodiscard]] HRESULT Init(const WinHttpConnectionHandle& connection, const wchar_t* verb, const wchar_t* path,
                               DWORD flags) noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::Init" };
        return Replace(report, 316, 317, &connection, [&](HINTERNET parent)
        {
            return ::WinHttpOpenRequest(parent, verb, path, L"HTTP/1.1", WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                        flags);
        });
    }

    // `function` runs on WinHTTP's threads; null: none. `mask`: the notifications that it receives (WINHTTP_CALLBACK_FLAG_...).
    [[nodiscard]] HRESULT SetStatusCallback(WINHTTP_STATUS_CALLBACK function, DWORD mask) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::SetStatusCallback" };
        return Use(report, 330, [&](HINTERNET handle)
        { return ::WinHttpSetStatusCallback(handle, function, mask, 0) != WINHTTP_INVALID_STATUS_CALLBACK; });
    }

    // Adds header lines ("Name: value"; "\r\n" separates several). `length` in characters; -1: the text ends with a zero.
    // `modifiers`: WINHTTP_ADDREQ_FLAG_... values.
    [[nodiscard]] HRESULT AddHeader(const wchar_t* text, DWORD length, DWORD modifiers) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::AddHeader" };
        return Use(report, 340, [&](HINTERNET handle) { return ::WinHttpAddRequestHeaders(handle, text, length, modifiers); });
    }

    // Adds one header whose value may hold bytes beyond ASCII, which go out as they are. `name` is ASCII. S_FALSE, without a
    // report, when the platform has no function for that (WinHttpAddRequestHeadersEx, a later addition to Windows 10).
    [[nodiscard]] HRESULT AddHeaderBytes(const char* name, const char* value, DWORD modifiers) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::AddHeaderBytes" };
        struct CHeader // WINHTTP_EXTENDED_HEADER with narrow texts
        {
            const char* name;
            const char* value;
        };
        using Add = DWORD(WINAPI*)(HINTERNET, DWORD, ULONGLONG, ULONGLONG, DWORD, const void*);
        const HMODULE module = ::GetModuleHandleW(L"winhttp.dll");
        const auto add = reinterpret_cast<Add>(
            reinterpret_cast<void*>(module ? ::GetProcAddress(module, "WinHttpAddRequestHeadersEx") : nullptr));
        if (!add)
            return S_FALSE;
        const CHeader header{ name, value };
        return Use(report, 346, [&](HINTERNET handle)
        {
            const DWORD error = add(handle, modifiers, 0, 0, 1, &header);
            ::SetLastError(error);
            return error == ERROR_SUCCESS;
        });
    }

    // Adds a Cookie header with the value `cookies` ("a=1; b=2").
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

    // Sends the request. `body` may be null when `length` is 0; in asynchronous mode the bytes must stay until the request is
    // complete. `length` in bytes. The status callback receives `context` from now on.
    [[nodiscard]] HRESULT Send(const void* body, DWORD length, DWORD_PTR context) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::Send" };
        return Use(report, 366, [&](HINTERNET handle)
        {
            return ::WinHttpSendRequest(handle, WINHTTP_NO_ADDITIONAL_HEADERS, 0, const_cast<void*>(body), length, length,
                                        context);
        });
    }
    [[nodiscard]] HRESULT ReceiveResponse() const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::ReceiveResponse" };
        return Use(report, 376, [](HINTERNET handle) { return ::WinHttpReceiveResponse(handle, nullptr); });
    }
    // The status callback receives the number of bytes.
    [[nodiscard]] HRESULT QueryDataAvailable() const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::QueryDataAvailable" };
        return Use(report, 382, [](HINTERNET handle) { return ::WinHttpQueryDataAvailable(handle, nullptr); });
    }
    // `size` in bytes. The status callback receives the number of bytes read; until then the buffer must stay and not be used.
    [[nodiscard]] HRESULT ReadData(void* buffer, DWORD size) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::ReadData" };
        return Use(report, 388, [&](HINTERNET handle) { return ::WinHttpReadData(handle, buffer, size, nullptr); });
    }

    // After a 401 or 407: the schemes offered, the first of them (WINHTTP_AUTH_SCHEME_...), and who demands credentials
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

    // A header whose value is a number. `infoLevel`: WINHTTP_QUERY_... | WINHTTP_QUERY_FLAG_NUMBER.
    [[nodiscard]] HRESULT QueryHeaders(DWORD infoLevel, DWORD& number) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::QueryHeaders" };
        DWORD value = 0;
        DWORD length = sizeof(value);
        const HRESULT hr = Use(report, 412, [&](HINTERNET handle)
        {
            return ::WinHttpQueryHeaders(handle, infoLevel, WINHTTP_HEADER_NAME_BY_INDEX, &value, &length,
                                         WINHTTP_NO_HEADER_INDEX);
        });
        if (SUCCEEDED(hr))
            number = value;
        return hr;
    }

    // The text of a header: that of `name` for the level WINHTTP_QUERY_CUSTOM, that of the level itself otherwise. `index`
    // selects one of several headers of the same name, from 0, and is set to the next; null: the first.
    // E_POINTER when `text` is null; E_INVALIDARG when the level needs a name and `name` is empty. A missing header gives
    // HRESULT_FROM_WIN32(ERROR_WINHTTP_HEADER_NOT_FOUND) without a report, because most callers look for an optional header.
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
            // Start each call with the caller's index: the call for the length may have incremented it already.
            next = index ? *index : 0;
            return ::WinHttpQueryHeaders(owned ? owned->handle : nullptr, infoLevel,
                                         name.empty() ? WINHTTP_HEADER_NAME_BY_INDEX : name.c_str(), buffer, &length,
                                         index ? &next : WINHTTP_NO_HEADER_INDEX);
        };
        try
        {
            DWORD length = 0; // in bytes: with the final zero for the size needed, without it for the text returned
            if (query(nullptr, length))
                return report(450, E_FAIL);
            if (const DWORD error = ::GetLastError(); error != ERROR_INSUFFICIENT_BUFFER)
                return IsMissing(error) ? HResultFromWin32(error) : report(454, HResultFromWin32(error));

            std::wstring value(length / sizeof(wchar_t) + 1, L'\0');
            if (!query(value.data(), length))
            {
                const DWORD error = ::GetLastError();
                return IsMissing(error) ? HResultFromWin32(error) : report(458, HResultFromWin32(error));
            }
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

    // Writes the response's header, with the status line, to a buffer of `bytes` bytes, and its length without the final zero
    // to `bytes`. False, with the platform's last error, when the buffer is too small (`bytes` becomes the size needed) or when
    // there is no response. Not reported.
    [[nodiscard]] bool QueryHeader(wchar_t* buffer, DWORD& bytes) const noexcept
    {
        const auto owned = Pin();
        return ::WinHttpQueryHeaders(owned ? owned->handle : nullptr, WINHTTP_QUERY_RAW_HEADERS_CRLF,
                                     WINHTTP_HEADER_NAME_BY_INDEX, buffer, &bytes, WINHTTP_NO_HEADER_INDEX) != FALSE;
    }

    // The value of a Set-Cookie header; see QueryCustomHeaders.
    [[nodiscard]] HRESULT QueryCookie(std::wstring* text, DWORD* index = WINHTTP_NO_HEADER_INDEX) const noexcept
    {
        constexpr CVoReporter report{ kSource, L"VoWinHttpInterface::WinHttpRequestHandle::QueryCookie" };
        const HRESULT hr = QueryCustomHeaders(WINHTTP_QUERY_SET_COOKIE, {}, text, index);
        return SUCCEEDED(hr) || hr == HResultFromWin32(ERROR_WINHTTP_HEADER_NOT_FOUND) ? hr : report(474, hr);
    }

    // The value of Set-Cookie header number `index`, from 0, in the bytes that were received. Not reported: the platform may
    // not know the query (WINHTTP_QUERY_FLAG_WIRE_ENCODING, a later addition to Windows 10).
    [[nodiscard]] HRESULT QueryCookieBytes(DWORD index, std::string& bytes) const noexcept
    try
    {
        constexpr DWORD kWireEncoding = 0x01000000; // WINHTTP_QUERY_FLAG_WIRE_ENCODING
        const auto owned = Pin();
        const auto query = [&](void* buffer, DWORD& length)
        {
            DWORD position = index; // each call moves it on
            return ::WinHttpQueryHeaders(owned ? owned->handle : nullptr, WINHTTP_QUERY_SET_COOKIE | kWireEncoding,
                                         WINHTTP_HEADER_NAME_BY_INDEX, buffer, &length, &position);
        };
        DWORD length = 0; // as for QueryCustomHeaders
        if (query(nullptr, length))
            return E_FAIL;
        if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
            return HResultFromLastError();
        std::string value(size_t{ length } + 1, '\0');
        if (!query(value.data(), length))
            return HResultFromLastError();
        value.resize(length);
        bytes.swap(value);
        return S_OK;
    }
    catch (...)
    {
        return HResultFromCurrentException();
    }

private:
    // The part of an information level that selects the header; the other bits are modifiers.
    static constexpr DWORD kQueryAttributeMask = 0xFFFF;

    // Whether the error means that the response does not have the header.
    [[nodiscard]] static constexpr bool IsMissing(DWORD error) noexcept { return error == ERROR_WINHTTP_HEADER_NOT_FOUND; }
};
} // namespace VoWinHttpInterface
