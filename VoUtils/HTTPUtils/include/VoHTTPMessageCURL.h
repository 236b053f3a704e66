// The libcurl transport: one easy handle a request, driven on the caller's thread.
#pragma once

#include <VoHTTPMessage.h>

#include <memory>

namespace VoHTTPMessageCURL
{
class CCURLConnections;
struct CCURLCredentials;

// Connections are kept by the message and shared by its requests, so that many requests in a row use one connection.
class CVoHTTPMessageCURL final : public CVoHTTPMessage
{
public:
    class CHTTPRequestDataCURL;

    CVoHTTPMessageCURL() = default;
    ~CVoHTTPMessageCURL() override;

    [[nodiscard]] HRESULT Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                  IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                  UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation) noexcept override;
    [[nodiscard]] HRESULT OpenRequest(std::shared_ptr<CHTTPRequestData>& request) noexcept override;
    [[nodiscard]] HRESULT SendMessage(const std::shared_ptr<CHTTPRequestData>& request, const CVoBinaryDataParser& parameters,
                                      EContentKind contentKind, bool utf8, std::wstring_view signingKey,
                                      std::wstring_view signatureParameterName, bool allowRetry,
                                      CSendResult* result) noexcept override;
    [[nodiscard]] HRESULT SendMultipleMessages(const std::shared_ptr<CHTTPRequestData>& request,
                                               std::span<const CVoBinaryDataParser> messages, bool utf8, bool allowRetry,
                                               CSendResult* result) noexcept override;
    [[nodiscard]] HRESULT SendGetRequest(std::shared_ptr<CHTTPRequestData>& request, std::wstring_view objectPath,
                                         bool allowRetry, CSendResult* result) noexcept override;
    [[nodiscard]] HRESULT ReadResponse(const std::shared_ptr<CHTTPRequestData>& request, CVoBinaryDataParser& response,
                                       EResponseKind kind, bool* isUtf8, bool* isEmpty) noexcept override;
    [[nodiscard]] HRESULT ReadMultipleResponses(const std::shared_ptr<CHTTPRequestData>& request,
                                                std::vector<CVoBinaryDataParser>& responses, UINT32 expectedCount,
                                                UINT32* count) noexcept override;
    HRESULT SetUserContext(UINT64 userContext) noexcept override;

private:
    struct CBody;

    [[nodiscard]] HRESULT internalClose() noexcept;
    [[nodiscard]] std::shared_ptr<CHTTPRequestDataCURL> OwnRequest(
        const std::shared_ptr<CHTTPRequestData>& request) const noexcept;
    [[nodiscard]] HRESULT internalOpenRequest(const CServerAddressData& address, std::shared_ptr<CHTTPRequestData>& request);
    [[nodiscard]] HRESULT internalSend(CHTTPRequestDataCURL& request, std::span<const BYTE> body,
                                       const std::wstring& contentTypeHeader, bool post, bool allowRetry, CSendResult* result);
    [[nodiscard]] HRESULT internalSendRAW(CHTTPRequestDataCURL& request, std::span<const BYTE> body);
    [[nodiscard]] HRESULT AnswerChallenge(CHTTPRequestDataCURL& request, bool proxy);
    void KeepProxyCredentials(CHTTPRequestDataCURL& request) noexcept;

    std::shared_ptr<CCURLConnections> m_connections;
};
} // namespace VoHTTPMessageCURL
