// What the stand-ins of WinHTTP and WinINet share: the transcript of calls, failures on demand, handles and response headers.
#pragma once

#include "support/ImportHook.h"

#include <base/VoMultiThreading.h>
#include <base/VoPlatform.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// In a class of a stand-in: calls of a function of the platform go to a member.
#define VO_REPLACE(module, function, member)                                                                                   \
    const CCallHook<decltype(&::function)> m_##member                                                                          \
    {                                                                                                                          \
        module, #function, [this](auto, auto... arguments) { return member(arguments...); }                                    \
    }

namespace TestSupport
{
// Handles are named h1, h2, ... in `calls`, h0 for none. Calls and notifications may come from any thread.
class CFakeService
{
public:
    using Headers = std::multimap<std::wstring, std::wstring>; // of a response, by name

    std::vector<std::string> calls;
    // The errors of the next calls of a function, named as in `calls` ("SetOption 31": by option); 0 and the end of the list
    // mean success.
    std::map<std::string, std::deque<DWORD>> errors;
    std::multiset<UINT_PTR> open;
    // The function whose calls wait until their handle is closed, and what is told when one waits.
    std::string hanging;
    CEvent hangs{ false, false };

    // The calls whose text begins with one of the prefixes, all without prefixes; forgets all calls.
    [[nodiscard]] std::vector<std::string> Take(std::initializer_list<std::string_view> prefixes = { "" })
    {
        const std::scoped_lock lock(m_lock);
        std::erase_if(calls, [&](const std::string& call)
        { return std::ranges::none_of(prefixes, [&](std::string_view prefix) { return call.starts_with(prefix); }); });
        return std::exchange(calls, {});
    }
    [[nodiscard]] std::vector<std::string> Take(std::string_view prefix) { return Take({ prefix }); }
    [[nodiscard]] bool Has(std::string_view call)
    {
        const std::scoped_lock lock(m_lock);
        return std::ranges::find(calls, call) != calls.end();
    }

protected:
    template <class... Parts>
    void Note(const Parts&... parts)
    {
        std::ostringstream text;
        (text << ... << parts);
        const std::scoped_lock lock(m_lock);
        calls.push_back(text.str());
    }
    static std::string Name(void* handle) { return " h" + std::to_string(reinterpret_cast<UINT_PTR>(handle)); }
    static std::string Text(const wchar_t* text)
    {
        const std::wstring_view view = !text ? L"null" : *text ? text : L"empty";
        return " " + std::string(view.begin(), view.end());
    }
    [[nodiscard]] bool Fails(const std::string& function)
    {
        const std::scoped_lock lock(m_lock);
        std::deque<DWORD>& list = errors[function];
        if (list.empty())
            return false;
        const DWORD error = list.front();
        list.pop_front();
        ::SetLastError(error);
        return error != 0;
    }
    void* Opened(UINT_PTR value)
    {
        const std::scoped_lock lock(m_lock);
        open.insert(value);
        return reinterpret_cast<void*>(value);
    }
    BOOL Close(void* handle)
    {
        const std::scoped_lock lock(m_lock);
        Note("Close", Name(handle));
        m_closed.notify_all();
        const auto found = open.find(reinterpret_cast<UINT_PTR>(handle));
        EXPECT_NE(found, open.end()) << "closed twice";
        if (found != open.end())
            open.erase(found);
        return !Fails("Close");
    }
    // Waits for the end of the handle where the function is to hang. The platform ends such a call when another thread closes
    // the handle (documentation of InternetCloseHandle and WinHttpCloseHandle).
    [[nodiscard]] bool IsEndedByClose(const std::string& function, void* handle)
    {
        std::unique_lock lock(m_lock);
        if (hanging != function)
            return false;
        (void)hangs.Set();
        EXPECT_TRUE(m_closed.wait_for(lock, std::chrono::seconds(20),
                                      [&] { return !open.contains(reinterpret_cast<UINT_PTR>(handle)); }));
        ::SetLastError(kErrorCancelled);
        return true;
    }
    static BOOL GiveText(const std::wstring& text, void* buffer, DWORD* bytes)
    {
        const auto needed = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
        const bool fits = buffer && *bytes >= needed;
        if (fits)
            std::copy_n(text.c_str(), text.size() + 1, static_cast<wchar_t*>(buffer));
        else
            ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        *bytes = fits ? needed - DWORD{ sizeof(wchar_t) } : needed;
        return fits;
    }
    // The header of a response as one text.
    static BOOL GiveRawHeader(UINT32 status, const Headers& headers, void* buffer, DWORD* bytes)
    {
        std::wstring text = L"HTTP/1.1 " + std::to_wstring(status) + L" Reason\r\n";
        for (const auto& [name, value] : headers)
            text += name + L": " + value + L"\r\n";
        return GiveText(text + L"\r\n", buffer, bytes);
    }
    // The same for a query that gives a text whose characters stand for bytes.
    template <class Query>
    static BOOL GiveBytes(const Query& query, void* buffer, DWORD* bytes)
    {
        std::wstring text(1000, L'\0');
        auto length = static_cast<DWORD>(text.size() * sizeof(wchar_t));
        if (!query(text.data(), &length))
            return FALSE;
        length /= DWORD{ sizeof(wchar_t) };
        const bool fits = buffer && *bytes > length;
        if (fits)
            std::transform(text.begin(), text.begin() + length + 1, static_cast<char*>(buffer),
                           [](wchar_t character) { return static_cast<char>(character); });
        else
            ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        *bytes = fits ? length : length + 1;
        return fits;
    }
    // The header number `index` (null: 0) of a name, as both services give it.
    static BOOL GiveHeader(const Headers& headers, const wchar_t* name, void* buffer, DWORD* bytes, DWORD* index)
    {
        constexpr DWORD kHeaderNotFound = 12150; // ERROR_HTTP_HEADER_NOT_FOUND, ERROR_WINHTTP_HEADER_NOT_FOUND
        const auto [begin, end] = headers.equal_range(name);
        const DWORD number = index ? (*index)++ : 0;
        if (std::distance(begin, end) <= static_cast<ptrdiff_t>(number))
            return ::SetLastError(kHeaderNotFound), FALSE;
        return GiveText(std::next(begin, static_cast<ptrdiff_t>(number))->second, buffer, bytes);
    }

    static constexpr DWORD kErrorCancelled = 12017; // of both services

    std::recursive_mutex m_lock; // a notification may call the service
    std::condition_variable_any m_closed;
};
} // namespace TestSupport
