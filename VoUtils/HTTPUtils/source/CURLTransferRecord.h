// What one transfer of libcurl tells about its responses, its times and its failure. The libcurl transport keeps one for each
// request.
#pragma once

#include "VoExchangeText.h"

#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

#include <string>
#include <string_view>
#include <vector>

namespace VoHTTPMessageCURL
{
class CCURLTransferRecord
{
public:
    // A transfer begins; `url` is that of its first request. Throws std::bad_alloc.
    void Begin(std::wstring url);
    // A line of a response's header arrived. Throws std::bad_alloc.
    void AddHeaderLine(std::string_view line) { m_headers.append(line); }
    // The transfer sends another request: a redirect, or credentials for a challenge. Throws std::bad_alloc.
    void AddRequest(const std::wstring& url) { m_requests.push_back({ m_headers.size(), url }); }
    // The transfer ended. Returns the code.
    CURLcode End(CURLcode code) noexcept { return m_code = code; }

    // Whether the transfer ended in order.
    [[nodiscard]] bool IsComplete() const noexcept { return m_code == CURLE_OK; }

    // The following throw std::bad_alloc. `handle` is that of the transfer, which has made no other transfer since.
    void ReadResponses(std::vector<CVoRawResponse>& responses) const;
    // `attemptStart` is a time of VoGetMicroseconds.
    void Complete(CURL* handle, INT64 attemptStart, CVoExchangeRecord::CAttempt& attempt) const;
    // `errorText` is that of CURLOPT_ERRORBUFFER.
    [[nodiscard]] CVoFailure Explain(CURL* handle, const char* errorText, bool usesProxy) const;

private:
    struct CRequestBegin
    {
        size_t position; // of its responses in m_headers
        std::wstring url;
    };

    std::wstring m_firstUrl;
    std::string m_headers;                 // of all responses
    std::vector<CRequestBegin> m_requests; // after the first one
    CURLcode m_code = CURLE_OK;
    INT64 m_start = 0; // of VoGetMicroseconds
};
} // namespace VoHTTPMessageCURL
