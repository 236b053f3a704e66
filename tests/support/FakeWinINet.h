// A stand-in for WinINet, for what the platform does under Wine in another way or not at all.
#pragma once

#include "support/FakeService.h"

#include <wininet.h>

#include <functional>

namespace TestSupport
{
// Replaces WinINet in the program's imports while it lives: notes each call with its arguments, and responds as the platform's
// documentation says and the test has set it up. h1 is the session, h2 its connection, h3, h4, ... its requests and further
// connections.
class CFakeWinINet : public CFakeService
{
public:
    std::deque<DWORD> statuses{ 200 };   // of the next responses; the last one stays
    Headers headers;                     // of each response
    std::map<DWORD, std::wstring> texts; // by option
    std::string body = "a=1";            // of each response
    std::string probeBody = "xyz";       // of the responses to the probe
    std::string written;
    DWORD writtenShort = 0;                       // so many bytes of each piece are not taken
    DWORD announcedBeyond = 0;                    // so many bytes more are said to be there than there are
    INTERNET_STATUS_CALLBACK callback = nullptr;  // of the session
    std::function<void(HINTERNET)> whenSent = {}; // called while a request is begun
    DWORD securityFlags = 0x10000001;
    bool hasProxy = false; // in the system's settings
    DWORD dialogResult = ERROR_INTERNET_FORCE_RETRY;
    HWND dialogOwner = nullptr;
    DWORD dialogOwnerThread = 0;

private:
    HINTERNET Open(LPCWSTR agent, DWORD type, LPCWSTR proxy, LPCWSTR bypass, DWORD flags)
    {
        Note("Open", Text(agent), ' ', type, Text(proxy), Text(bypass), ' ', flags);
        m_lastRequest = 2;
        return Opened(1);
    }
    HINTERNET Connect(HINTERNET session, LPCWSTR host, INTERNET_PORT port, LPCWSTR user, LPCWSTR password, DWORD service,
                      DWORD flags, DWORD_PTR context)
    {
        Note("Connect", Name(session), Text(host), ' ', port, Text(user), Text(password), ' ', service, ' ', flags, ' ',
             context);
        return Opened(open.contains(2) ? ++m_lastRequest : 2);
    }
    BOOL SetOption(HINTERNET handle, DWORD option, void* value, DWORD length)
    {
        if (option == INTERNET_OPTION_CONTEXT_VALUE)
            return TRUE; // for notifications, which this service does not make
        if (option == INTERNET_OPTION_PROXY_USERNAME || option == INTERNET_OPTION_PROXY_PASSWORD)
            Note("SetOption", Name(handle), ' ', option, Text(static_cast<wchar_t*>(value)), ' ', length);
        else
        {
            EXPECT_EQ(length, sizeof(DWORD));
            Note("SetOption", Name(handle), ' ', option, ' ', *static_cast<DWORD*>(value));
        }
        return !Fails("SetOption " + std::to_string(option));
    }
    BOOL QueryOption(HINTERNET handle, DWORD option, void* buffer, DWORD* bytes)
    {
        if (option == INTERNET_OPTION_PROXY && hasProxy) // for the record only
            return static_cast<INTERNET_PROXY_INFO*>(buffer)->dwAccessType = INTERNET_OPEN_TYPE_PROXY, TRUE;
        if (option == INTERNET_OPTION_DIAGNOSTIC_SOCKET_INFO || option == INTERNET_OPTION_PROXY)
            return ::SetLastError(ERROR_INTERNET_INVALID_OPTION), FALSE;
        Note("QueryOption", Name(handle), ' ', option);
        if (Fails("QueryOption"))
            return FALSE;
        if (const auto text = texts.find(option); text != texts.end())
            return GiveText(text->second, buffer, bytes);
        if (option == INTERNET_OPTION_SECURITY_FLAGS && *bytes == sizeof(DWORD))
            return *static_cast<DWORD*>(buffer) = securityFlags, TRUE;
        ::SetLastError(ERROR_INTERNET_INVALID_OPTION);
        return FALSE;
    }
    HINTERNET OpenRequest(HINTERNET connection, LPCWSTR verb, LPCWSTR object, LPCWSTR version, LPCWSTR referrer, LPCWSTR* types,
                          DWORD flags, DWORD_PTR context)
    {
        Note("OpenRequest", Name(connection), Text(verb), Text(object), Text(version), Text(referrer),
             Text(types ? types[0] : nullptr), ' ', std::hex, flags, ' ', context);
        EXPECT_FALSE(types && types[1]);
        return Opened(++m_lastRequest);
    }
    BOOL SendRequest(HINTERNET request, LPCWSTR header, DWORD headerLength, LPVOID data, DWORD length)
    {
        Note("SendRequest", Name(request), Text(header), ' ', headerLength, ' ', data != nullptr, ' ', length);
        m_unread = probeBody;
        return !Fails("SendRequest");
    }
    BOOL SendRequestEx(HINTERNET request, INTERNET_BUFFERSW* in, INTERNET_BUFFERSW* out, DWORD flags, DWORD_PTR context)
    {
        EXPECT_EQ(in->dwStructSize, sizeof *in);
        EXPECT_EQ(in->dwHeadersLength, std::wcslen(in->lpcszHeader));
        EXPECT_FALSE(in->lpvBuffer || in->dwBufferLength || out);
        Note("SendRequestEx", Name(request), Text(in->lpcszHeader), ' ', in->dwBufferTotal, ' ', flags, ' ', context);
        written.clear();
        if (whenSent)
            whenSent(request);
        return !IsEndedByClose("SendRequestEx", request) && !Fails("SendRequestEx");
    }
    BOOL Write(HINTERNET request, LPCVOID bytes, DWORD length, DWORD* done)
    {
        Note("Write", Name(request), ' ', length);
        *done = length - writtenShort;
        written.append(static_cast<const char*>(bytes), *done);
        return !IsEndedByClose("Write", request) && !Fails("Write");
    }
    BOOL EndRequest(HINTERNET request, INTERNET_BUFFERSW* out, DWORD flags, DWORD_PTR context)
    {
        Note("EndRequest", Name(request), ' ', out != nullptr, ' ', flags, ' ', context);
        m_unread = body;
        return !IsEndedByClose("EndRequest", request) && !Fails("EndRequest");
    }
    BOOL QueryInfo(HINTERNET request, DWORD query, void* buffer, DWORD* bytes, DWORD* index)
    {
        if (query == (HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER))
        {
            Note("QueryStatus", Name(request));
            *static_cast<DWORD*>(buffer) = statuses.front();
            if (statuses.size() > 1)
                statuses.pop_front();
            return !Fails("QueryStatus");
        }
        if (query == HTTP_QUERY_RAW_HEADERS_CRLF)
            return GiveRawHeader(statuses.front(), headers, buffer, bytes);
        EXPECT_EQ(query, DWORD{ HTTP_QUERY_CUSTOM });
        return GiveHeader(headers, static_cast<const wchar_t*>(buffer), buffer, bytes, index);
    }
    BOOL QueryInfoA(HINTERNET request, DWORD query, void* buffer, DWORD* bytes, DWORD* index)
    {
        const std::string name = static_cast<const char*>(buffer);
        return GiveBytes([&](wchar_t* text, DWORD* length)
        {
            std::copy(name.begin(), name.end(), text);
            return QueryInfo(request, query, text, length, index);
        }, buffer, bytes);
    }
    BOOL Available(HINTERNET request, DWORD* count, DWORD flags, DWORD_PTR context)
    {
        EXPECT_TRUE(flags == 0 && context == 0);
        *count = static_cast<DWORD>(m_unread.size()) + announcedBeyond;
        return !IsEndedByClose("Available", request);
    }
    BOOL Read(HINTERNET request, LPVOID buffer, DWORD size, DWORD* done)
    {
        Note("Read", Name(request), ' ', size);
        *done = std::min(size, static_cast<DWORD>(m_unread.size()));
        std::copy_n(m_unread.data(), *done, static_cast<char*>(buffer));
        m_unread.erase(0, *done);
        return !IsEndedByClose("Read", request) && !Fails("Read");
    }
    DWORD ErrorDialog(HWND owner, HINTERNET request, DWORD error, DWORD flags, LPVOID* data)
    {
        Note("ErrorDialog", Name(request), ' ', error, ' ', flags, ' ', data != nullptr);
        dialogOwner = owner;
        dialogOwnerThread = ::GetWindowThreadProcessId(owner, nullptr);
        return dialogResult;
    }
    INTERNET_STATUS_CALLBACK SetCallback(HINTERNET session, INTERNET_STATUS_CALLBACK given)
    {
        EXPECT_TRUE(open.contains(reinterpret_cast<UINT_PTR>(session)));
        return std::exchange(callback, given);
    }
    UINT_PTR m_lastRequest = 2;
    std::string m_unread;

    VO_REPLACE("wininet.dll", InternetOpenW, Open);
    VO_REPLACE("wininet.dll", InternetConnectW, Connect);
    VO_REPLACE("wininet.dll", InternetSetOptionW, SetOption);
    VO_REPLACE("wininet.dll", InternetQueryOptionW, QueryOption);
    VO_REPLACE("wininet.dll", HttpOpenRequestW, OpenRequest);
    VO_REPLACE("wininet.dll", HttpSendRequestW, SendRequest);
    VO_REPLACE("wininet.dll", HttpSendRequestExW, SendRequestEx);
    VO_REPLACE("wininet.dll", InternetWriteFile, Write);
    VO_REPLACE("wininet.dll", HttpEndRequestW, EndRequest);
    VO_REPLACE("wininet.dll", HttpQueryInfoW, QueryInfo);
    VO_REPLACE("wininet.dll", HttpQueryInfoA, QueryInfoA);
    VO_REPLACE("wininet.dll", InternetQueryDataAvailable, Available);
    VO_REPLACE("wininet.dll", InternetReadFile, Read);
    VO_REPLACE("wininet.dll", InternetErrorDlg, ErrorDialog);
    VO_REPLACE("wininet.dll", InternetSetStatusCallbackW, SetCallback);
    VO_REPLACE("wininet.dll", InternetCloseHandle, Close);
};
} // namespace TestSupport
