// The parts of the libcurl transport: checked calls, header lists, shared connections, the callbacks of a transfer. All of them
// report under the transport's source name, so their trace points share the transport's numbers.
#pragma once

#include "VoBodyReceiver.h"
#include "VoContentDecoder.h"
#include "VoContentLength.h"
#include "VoHTTPContent.h"

#include <VoHTTPMessage.h>

#include <base/VoLock.h>
#include <base/VoMultiThreading.h>

// Some options that this transport sets are marked as deprecated; older releases lack their successors.
#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VoHTTPMessageCURL
{
class CCURLTransferRecord;

inline constexpr const wchar_t* kSource = L"..\\source\\VoHTTPMessageCURL";

// S_OK for CURLE_OK. Any other code is reported with its name and the context (a printf format with one argument) and gives
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

// Sets options one after the other. The first refused option is reported at its trace point; the rest is not set.
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

// Sets the process's user agent.
[[nodiscard]] HRESULT SetUserAgentForRequest(CURL* handle) noexcept;

// Owns an easy handle.
struct CCURLHandleDeleter
{
    void operator()(CURL* handle) const noexcept { curl_easy_cleanup(handle); }
};
using CCURLHandle = std::unique_ptr<CURL, CCURLHandleDeleter>;

// A new easy handle, or null. The first call initialises libcurl for the process.
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
    [[nodiscard]] HRESULT Append(const char* bytes) noexcept;
    void Clear() noexcept { curl_slist_free_all(std::exchange(m_list, nullptr)); }
    [[nodiscard]] curl_slist* Get() const noexcept { return m_list; }

private:
    curl_slist* m_list = nullptr;
};

// The open connections of one message, and the easy handles of its past requests, which new requests use again. The requests
// of the message transfer one at a time, under its lock. A request may be destroyed on any thread at any time, so both parts
// have locks of their own.
class CCURLConnections
{
public:
    // Throws std::bad_alloc.
    CCURLConnections();
    ~CCURLConnections() = default;
    CCURLConnections(const CCURLConnections&) = delete;
    CCURLConnections& operator=(const CCURLConnections&) = delete;

    // A handle that uses these connections; null when libcurl gives none. `isInitialised`: it has the options that all requests
    // of the message share; otherwise it has no other option set.
    [[nodiscard]] CCURLHandle TakeHandle(bool& isInitialised) noexcept;
    // Keeps a handle of TakeHandle for the next request, which sets those options again that differ between requests. With
    // `clear` all its options are cleared: do so when it has known credentials or a proxy.
    void GiveBack(CCURLHandle handle, bool clear) noexcept;
    // Makes any other handle use these connections.
    [[nodiscard]] HRESULT Attach(CURL* handle) const noexcept;

private:
    static constexpr size_t kMaximumIdleHandles = 4;

    static void Lock(CURL* handle, curl_lock_data data, curl_lock_access access, void* context) noexcept;
    static void Unlock(CURL* handle, curl_lock_data data, void* context) noexcept;

    CCriticalSection m_locks[CURL_LOCK_DATA_LAST];
    const std::unique_ptr<CURLSH, decltype(&curl_share_cleanup)> m_share; // outlives the handles that use it
    CVoLock m_idleLock;
    struct CIdleHandle
    {
        CCURLHandle handle;
        bool isInitialised;
    };
    std::vector<CIdleHandle> m_idle; // at most kMaximumIdleHandles
};

// The body of a request while it is sent.
struct CBodySource
{
    CVoBodyReader reader;
    size_t length = 0;
    size_t position = 0;                 // of the reader
    std::atomic<UINT64>* sent = nullptr; // progress; may be null
    INT64* end = nullptr;                // when the last byte was taken (VoGetMicroseconds); may be null
};

// What the headers of one transfer contain, and where its requests go.
struct CHeaderContext
{
    CURL* handle = nullptr;
    std::wstring line;                         // the current one; a member, so that all lines use its memory
    IVoHTTPCookieStore* cookieStore = nullptr; // may be null
    std::wstring requestUrl;                   // of the request that is being answered; prereq_callback changes it
    std::wstring location;
    std::wstring contentType;
    std::wstring contentCodings;  // Content-Encoding
    std::wstring transferCodings; // Transfer-Encoding
    CVoContentLength contentLength;
    std::wstring protocolVersion;
    std::wstring statusCode;
    bool complete = false;                 // the empty line after the headers has arrived
    bool isFirstRequest = true;            // of the transfer; the next ones are redirects and answers to challenges
    bool isSecure = false;                 // requestUrl is https
    bool cookieReplaced = false;           // a redirect replaced the handle's Cookie header
    curl_slist* bodilessHeaders = nullptr; // the request's headers without Content-Type; may be null
    bool headersReplaced = false;          // they replaced the handle's headers: a redirect made a GET of a POST

    CCURLTransferRecord* record = nullptr;     // null: nothing is kept
    const CVoResponseLimits* limits = nullptr; // null: none
    size_t bytes = 0;                          // of this response's header
    UINT32 fields = 0;
    UINT32 cookies = 0;
    bool isOverLimit = false;
    HRESULT result = S_OK; // a failure: a line of this header is lost
};

// Receives the body of one transfer's response, and decodes it: libcurl takes a coded stream that is cut off for a short one.
struct CCURLWriteCallbackData
{
    CURL* handle = nullptr;
    CVoBodyReceiver success;              // of a body whose status is 200
    CVoBodyReceiver failure;              // of any other
    CVoBodyReceiver* body = nullptr;      // the one that is filled; null before the first byte
    HRESULT result = S_OK;                // a failure means that bytes were lost
    std::atomic<UINT64>* count = nullptr; // progress; may be null
    std::atomic<UINT64>* expected = nullptr;
    const CHeaderContext* headers = nullptr; // of the response; null: nothing is decoded
    bool isQuiet = false;                    // the handle's log was switched off
    std::unique_ptr<CVoContentDecoder> decoder = nullptr;
};

// Receives notice when the whole body has been sent, and ends a transfer that was cancelled.
struct CProgressContext
{
    CVoHTTPMessage::CallBack* callBack = nullptr; // may be null
    bool notified = false;
    const CVoHTTPMessage::CHTTPRequestData* request = nullptr; // may be null
};

// The address that libcurl reads out of a URL, by libcurl's own parser, which decides where libcurl goes. User information is
// dropped. E_INVALIDARG: libcurl or CServerAddressData refuses the URL. `address` is untouched on failure.
[[nodiscard]] HRESULT ParseCURLUrl(const char* url, CServerAddressData& address) noexcept;

// Called on the connection before each request of a transfer is sent. From the second request on it sets the cookies of the URL
// that libcurl really goes to. It ends the transfer when a redirect leads from https to http, or has a status that is no
// redirect.
int prereq_callback(void* context, char* serverAddress, char* clientAddress, int serverPort, int clientPort) noexcept;
// Opens the socket for an address that libcurl tries, and keeps the address. `addresses` is a vector of texts.
curl_socket_t opensocket_callback(void* addresses, curlsocktype purpose, curl_sockaddr* address) noexcept;
size_t read_callback(char* buffer, size_t size, size_t count, void* source) noexcept;
curlioerr ioctl_callback(CURL* handle, int command, void* source) noexcept;
// These two return 0, which ends the transfer, when the response is larger than its limits allow, and when its sink fails.
size_t header_callback(char* line, size_t size, size_t count, void* context) noexcept;
size_t write_callback(char* data, size_t size, size_t count, void* context) noexcept;
int debug_callback(CURL* handle, curl_infotype type, char* data, size_t size, void* request) noexcept;
// Returns 0; 1, which ends the transfer, when the request was cancelled.
int progress_callback(void* context, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow) noexcept;
} // namespace VoHTTPMessageCURL
