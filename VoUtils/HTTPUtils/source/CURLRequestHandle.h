// The libcurl handle of one request: the options that stay from send to send, and the connections that it uses. The libcurl
// transport keeps one object in each request.
#pragma once

#include "CURLSupport.h"

#include <array>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace VoHTTPMessageCURL
{
// One thread at a time; the object may be destroyed on any thread.
class CCURLRequestHandle
{
public:
    // Takes a handle from the connections. When libcurl gives none, Get is null and Init fails.
    explicit CCURLRequestHandle(std::shared_ptr<CCURLConnections> connections) noexcept;
    // Gives the handle back for the next request.
    ~CCURLRequestHandle();
    CCURLRequestHandle(const CCURLRequestHandle&) = delete;
    CCURLRequestHandle& operator=(const CCURLRequestHandle&) = delete;

    static constexpr UINT32 kLongestTimeout = std::numeric_limits<INT32>::max(); // libcurl takes it as a long
    struct CSettings
    {
        UINT32 connectTimeout; // milliseconds, kLongestTimeout at most; libcurl reads 0 as "none"
        UINT32 requestTimeout;
        bool verifiesCertificate;
        bool checksRevocation;
        void* request;                        // which the data log names
        std::vector<std::wstring>* addresses; // takes those that libcurl tries; must outlive the transfers
    };
    // Sets the options that all requests of a message share, where the handle does not have them, and those of this request.
    [[nodiscard]] HRESULT Init(const CSettings& settings);
    // Give the contexts of a transfer to the callbacks.
    [[nodiscard]] HRESULT SetBodySource(CBodySource& source) noexcept;
    [[nodiscard]] HRESULT SetTransfer(size_t bodyLength, CHeaderContext& headers, CCURLWriteCallbackData& received) noexcept;
    // The handle has been given credentials or a proxy, which are for this request only.
    void SetConfidential() noexcept { m_isConfidential = true; }
    // Reports transfers to the data log again, where the handle did so from the start.
    void ResumeDataLog() const noexcept;
    // Drops the connection and keeps every option set so far. When the handle cannot be duplicated it stays as it is.
    HRESULT ResetConnection() noexcept;
    // Uses the connections that the message has now.
    [[nodiscard]] HRESULT UseConnections(std::shared_ptr<CCURLConnections> connections) noexcept;

    [[nodiscard]] CURL* Get() const noexcept { return m_handle.get(); }
    // For CURLOPT_ERRORBUFFER.
    [[nodiscard]] char* ErrorBuffer() noexcept { return m_errorText.data(); }
    [[nodiscard]] const char* ErrorBuffer() const noexcept { return m_errorText.data(); }
    // The text in it without the user and the password of `proxy`. Throws std::bad_alloc.
    [[nodiscard]] std::wstring ErrorText(std::wstring_view proxy) const;
    // The client's address on the last transfer's connection; the text stays when there is none.
    void ReadLocalAddress(std::wstring& text) const noexcept;

private:
    // The handle is destroyed before the connections and the buffer that it uses.
    std::shared_ptr<CCURLConnections> m_connections;
    std::array<char, CURL_ERROR_SIZE> m_errorText{};
    bool m_isInitialised = false; // it has the options that all requests of the message share
    bool m_isConfidential = false;
    bool m_isLogged = false; // it has the debug function; without it libcurl would write headers to the error stream
    CCURLHandle m_handle;
};
} // namespace VoHTTPMessageCURL
