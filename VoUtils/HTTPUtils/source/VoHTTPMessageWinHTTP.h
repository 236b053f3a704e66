// The WinHTTP transport: the platform's HTTP service for programs without a user interface, in asynchronous mode.
//
// Brings winhttp.h in, which does not go together with wininet.h: include it in source files of the WinHTTP side only.
#pragma once

#include <VoHTTPMessage.h>
#include <VoWinHttpInterface.h>

#include <memory>

namespace VoHTTPMessageWinHTTP
{
// Takes its proxy from the proxy store and, on Windows 8.1 and later, from the system's automatic settings; answers challenges
// with the scheme Basic only, through the authentication callback, on a thread of WinHTTP's. The connect time-out holds for
// connecting and sending and is the budget for retries, the request time-out holds for receiving.
//
// A request counts its body as sent when the whole of it has left, and its answer as received when it is read.
class CVoHTTPMessageWinHTTP final : public CVoHTTPMessage
{
public:
    class CHTTPRequestDataWinHTTP;

    // `rewriteLoopback`: a server address on this machine is connected to under another name, so that a proxy that the user
    // has configured sees the traffic; see Connect.
    explicit CVoHTTPMessageWinHTTP(bool rewriteLoopback) noexcept : m_rewriteLoopback(rewriteLoopback) {}
    ~CVoHTTPMessageWinHTTP() override;

    // With loopback rewriting, every "localhost" or "127.0.0.1" in the address of a server of that name becomes
    // "localhost.localhost". E_INVALIDARG where no address comes out.
    [[nodiscard]] HRESULT Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                  IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                  UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation) noexcept override;
    // Ends the connection and forgets what Connect was given. S_OK when there is none.
    [[nodiscard]] HRESULT Close() noexcept;
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
    [[nodiscard]] HRESULT internalConnect();
    [[nodiscard]] HRESULT internalClose() noexcept;
    [[nodiscard]] HRESULT RewriteLoopback();
    [[nodiscard]] HRESULT InitSession() noexcept;

    [[nodiscard]] HRESULT internalOpenRequest(const CServerAddressData& address, const wchar_t* verb,
                                              std::shared_ptr<CHTTPRequestData>& request);
    [[nodiscard]] std::shared_ptr<CHTTPRequestDataWinHTTP> OwnRequest(
        const std::shared_ptr<CHTTPRequestData>& request) const noexcept;
    [[nodiscard]] HRESULT OpenHandle(CHTTPRequestDataWinHTTP& request, const wchar_t* verb);
    [[nodiscard]] HRESULT SetProxy(CHTTPRequestDataWinHTTP& request) const;
    [[nodiscard]] HRESULT SetCookie(CHTTPRequestDataWinHTTP& request) const;

    [[nodiscard]] HRESULT internalSend(CHTTPRequestDataWinHTTP& request, std::span<const BYTE> body,
                                       const std::wstring& contentTypeHeader, bool allowRetry, CSendResult* result);
    [[nodiscard]] HRESULT MakeExchange(CHTTPRequestDataWinHTTP& request, std::span<const BYTE> body,
                                       const std::wstring& contentTypeHeader);
    [[nodiscard]] HRESULT SendUntilAnswered(CHTTPRequestDataWinHTTP& request, std::span<const BYTE> body,
                                            const std::wstring& contentTypeHeader, bool allowRetry, CSendResult& result);
    void StoreCookies(const CHTTPRequestDataWinHTTP& request) const noexcept;
    [[nodiscard]] HRESULT internalReadResponse(CHTTPRequestDataWinHTTP& request);

    // The function given to each exchange; `context` is the request.
    static HRESULT AuthenticationCallback(DWORD target, DWORD supportedSchemes, DWORD firstScheme, const std::wstring& url,
                                          DWORD& chosenScheme, std::wstring& user, std::wstring& password,
                                          void* context) noexcept;
    [[nodiscard]] HRESULT OnAuthenticationRequest(CHTTPRequestDataWinHTTP& request, DWORD target, DWORD supportedSchemes,
                                                  DWORD& chosenScheme, std::wstring& user, std::wstring& password);
    [[nodiscard]] HRESULT OnRedirect(CHTTPRequestDataWinHTTP& request, const std::wstring& url) const;

    const bool m_rewriteLoopback;
    // Guards the stores, the callback and the requests' proxy credentials against WinHTTP's threads, which meet challenges
    // while the caller's thread waits with the message's own lock held. Taken behind that lock.
    mutable CCriticalSection m_storesLock;
    VoWinHttpInterface::WinHttpSessionHandle m_session;
    VoWinHttpInterface::WinHttpConnectionHandle m_connection;
};
} // namespace VoHTTPMessageWinHTTP
