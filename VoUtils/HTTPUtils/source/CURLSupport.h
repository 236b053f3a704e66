// What the libcurl transport is made of: checked calls, header lists, the shared connections, the callbacks of a transfer.
// All of it reports under the transport's source name, so its trace points share the transport's numbers.
#pragma once

#include <VoHTTPMessage.h>

#include <base/VoLock.h>
#include <base/VoMultiThreading.h>

// Some options that this transport sets are marked as superseded by newer ones that older releases lack.
#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace VoHTTPMessageCURL
{
inline constexpr const wchar_t* kSource = L"..\\source\\VoHTTPMessageCURL";

// S_OK for CURLE_OK. Any other code is reported with its name and the context, a printf format with one argument, and gives
// E_FAIL.
[[nodiscard]] HRESULT CheckCURLError(CURLcode code, const wchar_t* format, int argument) noexcept;
[[nodiscard]] HRESULT CheckCURLError(CURLcode code, const std::wstring& context) noexcept;

template <class Value>
[[nodiscard]] HRESULT CURLSetOpt(CURL* handle, CURLoption option, Value value) noexcept
{
    return CheckCURLError(curl_easy_setopt(handle, option, value), L"curl_easy_setopt(%d)", static_cast<int>(option));
}

template <class Value>
[[nodiscard]] HRESULT CURLGetInfo(CURL* handle, CURLINFO info, Value* value) noexcept
{
    return CheckCURLError(curl_easy_getinfo(handle, info, value), L"curl_easy_getinfo(%d)", static_cast<int>(info));
}

// Sets options one after the other; the first that is refused is reported at its trace point and stops the rest.
class CCURLOptions
{
public:
    CCURLOptions(CURL* handle, const CVoReporter& report) noexcept : m_handle(handle), m_report(report) {}

    template <class Value>
    CCURLOptions& Set(int line, CURLoption option, Value value) noexcept
    {
        if (SUCCEEDED(m_result))
            if (m_result = CURLSetOpt(m_handle, option, value); FAILED(m_result))
                m_report(line, m_result);
        return *this;
    }
    [[nodiscard]] HRESULT Result() const noexcept { return m_result; }

private:
    CURL* m_handle;
    const CVoReporter& m_report;
    HRESULT m_result = S_OK;
};

// Owns an easy handle.
struct CCURLHandleDeleter
{
    void operator()(CURL* handle) const noexcept { curl_easy_cleanup(handle); }
};
using CCURLHandle = std::unique_ptr<CURL, CCURLHandleDeleter>;

// Makes libcurl ready for the process, once; a new easy handle, or null.
[[nodiscard]] CCURLHandle MakeCURLHandle() noexcept;

// Owns one list of request headers.
class CURLSListWrapper
{
public:
    CURLSListWrapper() = default;
    ~CURLSListWrapper() { curl_slist_free_all(m_list); }
    CURLSListWrapper(const CURLSListWrapper&) = delete;
    CURLSListWrapper& operator=(const CURLSListWrapper&) = delete;

    [[nodiscard]] HRESULT Append(std::wstring_view text) noexcept;
    [[nodiscard]] curl_slist* Get() const noexcept { return m_list; }

private:
    curl_slist* m_list = nullptr;
};

// The open connections of one message, and the easy handles that its past requests have left, which save making and filling
// new ones. The requests of the message transfer one at a time, under its lock, but a request may be let go on any thread at
// any time, so both lock what they guard.
class CCURLConnections
{
public:
    CCURLConnections();
    ~CCURLConnections();
    CCURLConnections(const CCURLConnections&) = delete;
    CCURLConnections& operator=(const CCURLConnections&) = delete;

    // A handle that uses these connections, with no other option set; null when there can be none.
    [[nodiscard]] CCURLHandle TakeHandle() noexcept;
    // Keeps a handle made by TakeHandle for the next request, without anything that its options held.
    void GiveBack(CCURLHandle handle) noexcept;
    // Makes a handle from elsewhere use these connections.
    [[nodiscard]] HRESULT Attach(CURL* handle) const noexcept;

private:
    static constexpr size_t kMaximumIdleHandles = 4;

    static void Lock(CURL* handle, curl_lock_data data, curl_lock_access access, void* context) noexcept;
    static void Unlock(CURL* handle, curl_lock_data data, void* context) noexcept;

    CCriticalSection m_locks[CURL_LOCK_DATA_LAST];
    CURLSH* m_share;
    CVoLock m_idleLock;
    std::vector<CCURLHandle> m_idle; // at most kMaximumIdleHandles
};

// The body of a request while it is sent.
struct CBodySource
{
    const BYTE* data = nullptr;
    size_t length = 0;
    size_t position = 0;
    std::atomic<UINT64>* sent = nullptr; // progress; may be null
};

// Where the answer of one transfer goes.
struct CCURLWriteCallbackData
{
    CURL* handle = nullptr;
    std::vector<BYTE> received;
    HRESULT result = S_OK;                // a failure means that bytes were lost
    std::atomic<UINT64>* count = nullptr; // progress; may be null
    std::atomic<UINT64>* expected = nullptr;
};

// What the headers of one transfer said.
struct CHeaderContext
{
    CURL* handle = nullptr;
    IVoHTTPCookieStore* cookieStore = nullptr; // may be null
    std::wstring requestUrl;                   // as it was sent; redirects lead to others
    std::wstring location;
    std::wstring contentType;
    std::wstring protocolVersion;
    std::wstring statusCode;
    bool complete = false;       // the empty line behind the headers has come
    bool cookieReplaced = false; // a redirect made the handle's Cookie header that of another URL
};

// Told when the whole body has left.
struct CProgressContext
{
    CVoHTTPMessage::CallBack* callBack = nullptr; // may be null
    bool notified = false;
};

size_t read_callback(char* buffer, size_t size, size_t count, void* source) noexcept;
curlioerr ioctl_callback(CURL* handle, int command, void* source) noexcept;
size_t header_callback(char* line, size_t size, size_t count, void* context) noexcept;
size_t write_callback(char* data, size_t size, size_t count, void* context) noexcept;
int debug_callback(CURL* handle, curl_infotype type, char* data, size_t size, void* request) noexcept;
int progress_callback(void* context, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow) noexcept;
} // namespace VoHTTPMessageCURL
