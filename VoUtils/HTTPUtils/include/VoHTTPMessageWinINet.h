// The WinINet transport: synchronous, on the caller's thread, with the system's own proxy settings and credential dialog.
#pragma once

#include <VoHTTPMessage.h>

#include <base/VoWipe.h>

#include <memory>
#include <vector>

namespace VoHTTPMessageWinINet
{
// Owns one WinINet handle, without the platform's header, which must not meet WinHTTP's.
class CInternetHandle
{
public:
    CInternetHandle() noexcept = default;
    explicit CInternetHandle(void* handle) noexcept : m_handle(handle) {}
    CInternetHandle(CInternetHandle&& other) noexcept;
    CInternetHandle& operator=(CInternetHandle&& other) noexcept;
    CInternetHandle(const CInternetHandle&) = delete;
    CInternetHandle& operator=(const CInternetHandle&) = delete;
    // Closes the handle; a refusal is reported.
    ~CInternetHandle();

    // Closes the handle, which is dropped in any case. S_OK when there is none.
    [[nodiscard]] HRESULT Close() noexcept;
    [[nodiscard]] void* Get() const noexcept { return m_handle; }
    [[nodiscard]] explicit operator bool() const noexcept { return m_handle != nullptr; }

private:
    void* m_handle = nullptr;
};

// The library's default transport. Unlike the others it asks the user while it connects, with the system's dialog, and uses the
// proxy that the system is configured for; credentials entered there are kept in the proxy store. Certificate errors are passed
// over only after a first failure, and only as far as the two certificate switches allow.
class CVoHTTPMessageWinINet final : public CVoHTTPMessage
{
public:
    class CHTTPRequestDataWinINet;

    CVoHTTPMessageWinINet() = default;
    ~CVoHTTPMessageWinINet() override;

    // The connect time-out holds for connecting and sending, the request time-out for receiving. A probe finds out whether
    // somebody demands credentials; one that does not get through is no failure here, the request will meet the same.
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
    class CSending;

    [[nodiscard]] HRESULT internalConnect();
    [[nodiscard]] HRESULT internalClose() noexcept;
    [[nodiscard]] HRESULT SetTimeoutsAndLimits() noexcept;
    [[nodiscard]] HRESULT SetProxyCredentials() noexcept;
    [[nodiscard]] HRESULT ProbeForCredentials();
    [[nodiscard]] HRESULT AskForCredentials(void* probe);
    [[nodiscard]] HRESULT SendProbe(void* probe, UINT32& status) noexcept;
    [[nodiscard]] HRESULT WidenSecurity(void* request, DWORD error) noexcept;

    [[nodiscard]] HRESULT internalOpenRequest(const CServerAddressData& address, const wchar_t* verb,
                                              std::shared_ptr<CHTTPRequestData>& request);
    [[nodiscard]] std::shared_ptr<CHTTPRequestDataWinINet> OwnRequest(
        const std::shared_ptr<CHTTPRequestData>& request) const noexcept;
    [[nodiscard]] HRESULT OpenHandle(CHTTPRequestDataWinINet& request, const wchar_t* verb);
    [[nodiscard]] HRESULT internalSend(CHTTPRequestDataWinINet& request, std::span<const BYTE> body,
                                       const std::wstring& contentTypeHeader, bool allowRetry, CSendResult* result);
    [[nodiscard]] HRESULT internalSendRAW(CHTTPRequestDataWinINet& request, std::span<const BYTE> body,
                                          const std::wstring& contentTypeHeader, HRESULT expectedResult);
    [[nodiscard]] HRESULT SendBody(CHTTPRequestDataWinINet& request, std::span<const BYTE> body,
                                   const std::wstring& contentTypeHeader);
    [[nodiscard]] HRESULT BeginSend(void* request, DWORD bodyLength, const std::wstring& headers) noexcept;
    [[nodiscard]] HRESULT WriteBody(CHTTPRequestDataWinINet& request, std::span<const BYTE> body) const noexcept;
    static void CALLBACK OnStatus(void* handle, DWORD_PTR context, DWORD status, void* information, DWORD length) noexcept;
    void OnRedirect(CHTTPRequestDataWinINet& request, const wchar_t* url) const noexcept;
    [[nodiscard]] HRESULT GetCookiesForRequest(CHTTPRequestDataWinINet& request) const;
    void ReadCookiesFromWinINetResponse(const CHTTPRequestDataWinINet& request) const noexcept;
    [[nodiscard]] HRESULT internalReadResponse(CHTTPRequestDataWinINet& request);
    [[nodiscard]] HRESULT internalReadRAW(CHTTPRequestDataWinINet& request, std::vector<BYTE>& bytes);

    CInternetHandle m_session;
    CInternetHandle m_connection;
    std::vector<std::weak_ptr<CHTTPRequestDataWinINet>> m_requests; // with handles under the connection's
    std::wstring m_proxyUser;
    CVoSecret<wchar_t> m_proxyPassword;
};
} // namespace VoHTTPMessageWinINet
