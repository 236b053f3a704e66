// A stand-in for WinHTTP in asynchronous mode, for what the platform does under Wine in another way or not at all.
#pragma once

#include "support/FakeService.h"

#include <winhttp.h>

#include <thread>

namespace TestSupport
{
struct CWinHttpResponse
{
    DWORD status = 200;
    CFakeService::Headers headers = {};
    std::string body = "a=1";
    DWORD error = 0;         // instead of a response, when it is not 0
    DWORD secureFailure = 0; // the bits of a notification of that name before the error
};

// Replaces WinHTTP in the program's imports while it lives: notes each call with its arguments, and responds as the platform's
// documentation says and the test has set it up. Handles are numbered in the order in which they are opened, from 1 again once
// all are closed. Notifications come on threads of the stand-in, or on the thread that makes the call; the platform may do
// both.
class CFakeWinHttp : public CFakeService
{
public:
    std::deque<CWinHttpResponse> responses{ CWinHttpResponse() }; // to the next sends; the last one stays
    DWORD schemes = WINHTTP_AUTH_SCHEME_BASIC;
    std::string sent;        // the last body
    std::wstring resolved;   // the host that the service says it looks up; empty: it says nothing
    bool knowsBytes = false; // hands out and takes headers as bytes, as later releases of Windows 10 do

    explicit CFakeWinHttp(bool ownThreads) : m_ownThreads(ownThreads) {}
    ~CFakeWinHttp()
    {
        for (std::vector<std::thread> ended;; ended.clear())
        {
            {
                const std::scoped_lock lock(m_lock);
                ended.swap(m_threads);
            }
            if (ended.empty())
                return;
            for (std::thread& thread : ended)
                thread.join();
        }
    }

private:
    static constexpr DWORD kWireEncoding = 0x01000000; // WINHTTP_QUERY_FLAG_WIRE_ENCODING

    struct CRequest
    {
        WINHTTP_STATUS_CALLBACK callback = nullptr;
        DWORD_PTR context = 0;
        CWinHttpResponse response = {};
        bool isHanging = false; // in an operation that ends when the handle is closed
    };

    HINTERNET OpenNext(const std::string& function)
    {
        const std::scoped_lock lock(m_lock);
        return Fails(function) ? nullptr : Opened(open.empty() ? m_last = 1 : ++m_last);
    }
    CRequest& RequestOf(HINTERNET handle) { return m_requests[reinterpret_cast<UINT_PTR>(handle)]; }
    // Completes an operation with the notification that `notify` makes, unless the request has been closed by then.
    template <class Notify>
    BOOL Complete(const std::string& function, HINTERNET handle, Notify notify)
    {
        const std::scoped_lock lock(m_lock);
        if (Fails(function))
            return FALSE;
        if (hanging == function)
        {
            (void)hangs.Set();
            return RequestOf(handle).isHanging = true;
        }
        const auto complete = [this, handle, notify]
        {
            const std::scoped_lock serving(m_lock);
            if (m_requests.contains(reinterpret_cast<UINT_PTR>(handle)))
                notify(RequestOf(handle), [&](DWORD status, auto& information, DWORD length)
                {
                    const CRequest& request = RequestOf(handle);
                    const auto [callback, context] = std::pair(request.callback, request.context);
                    callback(handle, context, status, &information, length);
                });
        };
        if (m_ownThreads)
            m_threads.emplace_back(complete);
        else
            complete();
        return TRUE;
    }

    HINTERNET Open(LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags)
    {
        Note("Open", Text(agent), ' ', access, ' ', proxy || bypass, ' ', std::hex, flags);
        return OpenNext("Open");
    }
    HINTERNET Connect(HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved)
    {
        Note("Connect", Name(session), Text(host), ' ', port, ' ', reserved);
        return OpenNext("Connect");
    }
    HINTERNET OpenRequest(HINTERNET connection, LPCWSTR verb, LPCWSTR object, LPCWSTR version, LPCWSTR referrer, LPCWSTR* types,
                          DWORD flags)
    {
        Note("Request", Name(connection), Text(verb), Text(object), Text(version), ' ', referrer || types, ' ', std::hex,
             flags);
        const std::scoped_lock lock(m_lock);
        const HINTERNET request = OpenNext("Request");
        if (request)
            RequestOf(request) = {};
        return request;
    }
    BOOL SetOption(HINTERNET handle, DWORD option, void* value, DWORD length)
    {
        const auto* const proxy = static_cast<const WINHTTP_PROXY_INFO*>(value);
        const std::scoped_lock lock(m_lock);
        if (option == WINHTTP_OPTION_PROXY)
            Note("Use", Name(handle), ' ', proxy->dwAccessType, Text(proxy->lpszProxy), ' ', proxy->lpszProxyBypass != nullptr);
        else if (!value)
            Note("No", Name(handle), ' ', option, ' ', length);
        else if (option == WINHTTP_OPTION_CONTEXT_VALUE)
            RequestOf(handle).context = *static_cast<const DWORD_PTR*>(value);
        else if (length == sizeof(DWORD))
            Note("Option", Name(handle), ' ', option, ' ', std::hex, *static_cast<const DWORD*>(value));
        return !Fails("Option " + std::to_string(option));
    }
    BOOL QueryOption(HINTERNET handle, DWORD option, void* buffer, DWORD* length)
    {
        const std::scoped_lock lock(m_lock);
        if (option == WINHTTP_OPTION_CONTEXT_VALUE && *length >= sizeof(DWORD_PTR))
            return *static_cast<DWORD_PTR*>(buffer) = RequestOf(handle).context, TRUE;
        ::SetLastError(ERROR_WINHTTP_INVALID_OPTION);
        return FALSE;
    }
    WINHTTP_STATUS_CALLBACK SetCallback(HINTERNET handle, WINHTTP_STATUS_CALLBACK callback, DWORD /*mask*/, DWORD_PTR /*none*/)
    {
        const std::scoped_lock lock(m_lock);
        return std::exchange(RequestOf(handle).callback, callback);
    }
    BOOL AddHeaders(HINTERNET handle, LPCWSTR text, DWORD length, DWORD /*modifiers*/)
    {
        Note("Header", Name(handle), Text(std::wstring(text, length).c_str()));
        return TRUE;
    }
    BOOL SetCredentials(HINTERNET handle, DWORD target, DWORD scheme, LPCWSTR user, LPCWSTR password, void* /*none*/)
    {
        Note("Use", Name(handle), ' ', target, ' ', scheme, Text(user), Text(password));
        return TRUE;
    }
    BOOL Send(HINTERNET handle, LPCWSTR /*headers*/, DWORD /*length*/, void* body, DWORD length, DWORD total, DWORD_PTR context)
    {
        EXPECT_EQ(length, total);
        const std::scoped_lock lock(m_lock);
        Note("Send", Name(handle), ' ', length);
        sent.assign(static_cast<const char*>(body), length);
        RequestOf(handle).context = context;
        RequestOf(handle).response = responses.front();
        if (responses.size() > 1)
            responses.pop_front();
        return Complete("Send", handle, [this](CRequest& request, auto notify)
        {
            if (!resolved.empty())
                notify(WINHTTP_CALLBACK_STATUS_RESOLVING_NAME, *resolved.data(), static_cast<DWORD>(resolved.size() + 1));
            notify(WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE, request, 0);
        });
    }
    BOOL Receive(HINTERNET handle, void* /*none*/)
    {
        return Complete("Receive", handle, [](CRequest& request, auto notify)
        {
            WINHTTP_ASYNC_RESULT result{ API_RECEIVE_RESPONSE, request.response.error };
            if (DWORD bits = request.response.secureFailure; bits != 0)
                notify(WINHTTP_CALLBACK_STATUS_SECURE_FAILURE, bits, DWORD{ sizeof bits });
            notify(result.dwError ? WINHTTP_CALLBACK_STATUS_REQUEST_ERROR : WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE, result,
                   DWORD{ sizeof result });
        });
    }
    BOOL QueryHeaders(HINTERNET handle, DWORD level, LPCWSTR name, void* buffer, DWORD* bytes, DWORD* index)
    {
        const std::scoped_lock lock(m_lock);
        const CWinHttpResponse& response = RequestOf(handle).response;
        if (level == (WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER))
            return *static_cast<DWORD*>(buffer) = response.status, TRUE;
        if (level == WINHTTP_QUERY_RAW_HEADERS_CRLF)
            return GiveRawHeader(response.status, response.headers, buffer, bytes);
        if (level == (WINHTTP_QUERY_SET_COOKIE | kWireEncoding))
            return knowsBytes ? GiveBytes([&](void* text, DWORD* length)
            { return GiveHeader(response.headers, L"Set-Cookie", text, length, index); }, buffer, bytes)
                              : (::SetLastError(ERROR_INVALID_PARAMETER), FALSE);
        EXPECT_TRUE(level == WINHTTP_QUERY_CUSTOM || level == WINHTTP_QUERY_SET_COOKIE);
        return GiveHeader(response.headers, level == WINHTTP_QUERY_CUSTOM ? name : L"Set-Cookie", buffer, bytes, index);
    }
    BOOL QuerySchemes(HINTERNET handle, DWORD* supported, DWORD* first, DWORD* target)
    {
        const std::scoped_lock lock(m_lock);
        *supported = *first = schemes;
        *target = RequestOf(handle).response.status == 407 ? WINHTTP_AUTH_TARGET_PROXY : WINHTTP_AUTH_TARGET_SERVER;
        return TRUE;
    }
    BOOL Available(HINTERNET handle, DWORD* /*none*/)
    {
        return Complete("Available", handle, [](CRequest& request, auto notify)
        {
            auto count = static_cast<DWORD>(request.response.body.size());
            notify(WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE, count, DWORD{ sizeof count });
        });
    }
    BOOL Read(HINTERNET handle, void* buffer, DWORD size, DWORD* /*none*/)
    {
        return Complete("Read", handle, [=](CRequest& request, auto notify)
        {
            std::string& unread = request.response.body;
            const size_t count = unread.copy(static_cast<char*>(buffer), size);
            unread.erase(0, count);
            notify(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, *static_cast<char*>(buffer), static_cast<DWORD>(count));
        });
    }
    BOOL CloseHandle(HINTERNET handle)
    {
        const std::scoped_lock lock(m_lock);
        const auto request = m_requests.extract(reinterpret_cast<UINT_PTR>(handle));
        if (!Close(handle))
            return FALSE;
        if (request && request.mapped().callback && request.mapped().isHanging)
        {
            WINHTTP_ASYNC_RESULT result{ API_RECEIVE_RESPONSE, kErrorCancelled };
            request.mapped().callback(handle, request.mapped().context, WINHTTP_CALLBACK_STATUS_REQUEST_ERROR, &result,
                                      sizeof result);
        }
        if (request && request.mapped().callback)
            request.mapped().callback(handle, request.mapped().context, WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING,
                                      static_cast<void*>(&handle), sizeof handle);
        return TRUE;
    }

    const bool m_ownThreads;
    UINT_PTR m_last = 0;
    std::map<UINT_PTR, CRequest> m_requests;
    std::vector<std::thread> m_threads; // one for each notification

    VO_REPLACE("winhttp.dll", WinHttpOpen, Open);
    VO_REPLACE("winhttp.dll", WinHttpConnect, Connect);
    VO_REPLACE("winhttp.dll", WinHttpOpenRequest, OpenRequest);
    VO_REPLACE("winhttp.dll", WinHttpSetOption, SetOption);
    VO_REPLACE("winhttp.dll", WinHttpQueryOption, QueryOption);
    VO_REPLACE("winhttp.dll", WinHttpSetStatusCallback, SetCallback);
    VO_REPLACE("winhttp.dll", WinHttpAddRequestHeaders, AddHeaders);
    VO_REPLACE("winhttp.dll", WinHttpSetCredentials, SetCredentials);
    VO_REPLACE("winhttp.dll", WinHttpSendRequest, Send);
    VO_REPLACE("winhttp.dll", WinHttpReceiveResponse, Receive);
    VO_REPLACE("winhttp.dll", WinHttpQueryHeaders, QueryHeaders);
    VO_REPLACE("winhttp.dll", WinHttpQueryAuthSchemes, QuerySchemes);
    VO_REPLACE("winhttp.dll", WinHttpQueryDataAvailable, Available);
    VO_REPLACE("winhttp.dll", WinHttpReadData, Read);
    VO_REPLACE("winhttp.dll", WinHttpCloseHandle, CloseHandle);
};
} // namespace TestSupport
