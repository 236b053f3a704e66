#pragma once

#include "support/ImportHook.h"

#include <gtest/gtest.h>

#include <wininet.h>

#include <algorithm>
#include <deque>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace TestSupport
{
// Stands in for WinINet in the program's imports while it lives: notes each call with its arguments, and answers as the
// platform's documentation says and the test has set it up. Handles are named h1 (session), h2 (connection), h3, h4, ... (a
// session's requests and further connections), h0 for none.
class CFakeWinINet
{
public:
    std::vector<std::string> calls;
    // Of the next calls of a function, as it is named in `calls` ("SetOption 31" by option); 0 and an end of the list are
    // success.
    std::map<std::string, std::deque<DWORD>> errors;
    std::deque<DWORD> statuses{ 200 };                 // of the next answers; the last one stays
    std::multimap<std::wstring, std::wstring> headers; // of each response, by name
    std::map<DWORD, std::wstring> texts;               // by option
    std::string answer = "a=1";
    std::string written;
    DWORD writtenShort = 0; // so many bytes of each piece are not taken
    DWORD securityFlags = 0x10000001;
    DWORD dialogAnswer = ERROR_INTERNET_FORCE_RETRY;
    HWND dialogOwner = nullptr;
    std::multiset<UINT_PTR> open;

    // The calls that begin so, and forgets all.
    [[nodiscard]] std::vector<std::string> Take(std::string_view prefix = {})
    {
        std::erase_if(calls, [&](const std::string& call) { return !call.starts_with(prefix); });
        return std::exchange(calls, {});
    }

private:
    template <class... Parts>
    void Note(const Parts&... parts)
    {
        std::ostringstream text;
        (text << ... << parts);
        calls.push_back(text.str());
    }
    static std::string Name(HINTERNET handle) { return " h" + std::to_string(reinterpret_cast<UINT_PTR>(handle)); }
    static std::string Text(const wchar_t* text)
    {
        const std::wstring_view view = !text ? L"null" : *text ? text : L"empty";
        return " " + std::string(view.begin(), view.end());
    }
    [[nodiscard]] bool Fails(const std::string& function)
    {
        std::deque<DWORD>& list = errors[function];
        if (list.empty())
            return false;
        const DWORD error = list.front();
        list.pop_front();
        ::SetLastError(error);
        return error != 0;
    }
    HINTERNET Opened(UINT_PTR value)
    {
        open.insert(value);
        return reinterpret_cast<HINTERNET>(value);
    }
    static BOOL GiveText(const std::wstring& text, void* buffer, DWORD* bytes)
    {
        const DWORD needed = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
        const bool fits = buffer && *bytes >= needed;
        if (fits)
            std::copy_n(text.c_str(), text.size() + 1, static_cast<wchar_t*>(buffer));
        else
            ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        *bytes = fits ? needed - DWORD{ sizeof(wchar_t) } : needed;
        return fits;
    }

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
        return Opened(open.count(2) == 0 ? 2 : ++m_lastRequest);
    }
    BOOL SetOption(HINTERNET handle, DWORD option, void* value, DWORD length)
    {
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
        if (option == INTERNET_OPTION_DIAGNOSTIC_SOCKET_INFO)
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
    BOOL SendRequest(HINTERNET request, LPCWSTR header, DWORD headerLength, LPVOID body, DWORD length)
    {
        Note("SendRequest", Name(request), Text(header), ' ', headerLength, ' ', body != nullptr, ' ', length);
        m_unread = "xyz";
        return !Fails("SendRequest");
    }
    BOOL SendRequestEx(HINTERNET request, INTERNET_BUFFERSW* in, INTERNET_BUFFERSW* out, DWORD flags, DWORD_PTR context)
    {
        EXPECT_EQ(in->dwStructSize, sizeof *in);
        EXPECT_EQ(in->dwHeadersLength, std::wcslen(in->lpcszHeader));
        EXPECT_FALSE(in->lpvBuffer || in->dwBufferLength || out);
        Note("SendRequestEx", Name(request), Text(in->lpcszHeader), ' ', in->dwBufferTotal, ' ', flags, ' ', context);
        written.clear();
        return !Fails("SendRequestEx");
    }
    BOOL Write(HINTERNET request, LPCVOID bytes, DWORD length, DWORD* done)
    {
        Note("Write", Name(request), ' ', length);
        *done = length - writtenShort;
        written.append(static_cast<const char*>(bytes), *done);
        return !Fails("Write");
    }
    BOOL EndRequest(HINTERNET request, INTERNET_BUFFERSW* out, DWORD flags, DWORD_PTR context)
    {
        Note("EndRequest", Name(request), ' ', out != nullptr, ' ', flags, ' ', context);
        m_unread = answer;
        return !Fails("EndRequest");
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
        EXPECT_EQ(query, DWORD{ HTTP_QUERY_CUSTOM });
        const auto [begin, end] = headers.equal_range(static_cast<const wchar_t*>(buffer));
        if (std::distance(begin, end) <= static_cast<ptrdiff_t>(*index))
            return ::SetLastError(ERROR_HTTP_HEADER_NOT_FOUND), FALSE;
        return GiveText(std::next(begin, static_cast<ptrdiff_t>((*index)++))->second, buffer, bytes);
    }
    BOOL Available(HINTERNET /*request*/, DWORD* count, DWORD flags, DWORD_PTR context) const
    {
        EXPECT_TRUE(flags == 0 && context == 0);
        *count = static_cast<DWORD>(m_unread.size());
        return TRUE;
    }
    BOOL Read(HINTERNET request, LPVOID buffer, DWORD size, DWORD* done)
    {
        Note("Read", Name(request), ' ', size);
        *done = std::min(size, static_cast<DWORD>(m_unread.size()));
        std::copy_n(m_unread.data(), *done, static_cast<char*>(buffer));
        m_unread.erase(0, *done);
        return !Fails("Read");
    }
    DWORD ErrorDialog(HWND owner, HINTERNET request, DWORD error, DWORD flags, LPVOID* data)
    {
        Note("ErrorDialog", Name(request), ' ', error, ' ', flags, ' ', data != nullptr);
        dialogOwner = owner;
        return dialogAnswer;
    }
    BOOL Close(HINTERNET handle)
    {
        Note("Close", Name(handle));
        const auto found = open.find(reinterpret_cast<UINT_PTR>(handle));
        EXPECT_NE(found, open.end()) << "closed twice";
        if (found != open.end())
            open.erase(found);
        return !Fails("Close");
    }

    UINT_PTR m_lastRequest = 2;
    std::string m_unread;

#define VO_REPLACE(function, member)                                                                                           \
    const CCallHook<decltype(&::function)> m_##member                                                                          \
    {                                                                                                                          \
        "wininet.dll", #function, [this](auto, auto... arguments) { return member(arguments...); }                             \
    }
    VO_REPLACE(InternetOpenW, Open);
    VO_REPLACE(InternetConnectW, Connect);
    VO_REPLACE(InternetSetOptionW, SetOption);
    VO_REPLACE(InternetQueryOptionW, QueryOption);
    VO_REPLACE(HttpOpenRequestW, OpenRequest);
    VO_REPLACE(HttpSendRequestW, SendRequest);
    VO_REPLACE(HttpSendRequestExW, SendRequestEx);
    VO_REPLACE(InternetWriteFile, Write);
    VO_REPLACE(HttpEndRequestW, EndRequest);
    VO_REPLACE(HttpQueryInfoW, QueryInfo);
    VO_REPLACE(InternetQueryDataAvailable, Available);
    VO_REPLACE(InternetReadFile, Read);
    VO_REPLACE(InternetErrorDlg, ErrorDialog);
    VO_REPLACE(InternetCloseHandle, Close);
#undef VO_REPLACE
};
} // namespace TestSupport
