#include <VoHTTPMessage.h>

#include "VoDataLog.h"
#include "VoHTTPTransports.h"

#include <base/VoModuleInformation.h>
#include <base/VoUtils.h>
#include <base/VoWipe.h>
#include <base/com/VoComHelper.h>
#include <base/utils/VoDataConversion.h>
#include <win/OrvDigSign.h>

#include <algorithm>
#include <limits>

namespace
{
constexpr const wchar_t* kSource = L"..\\source\\VoHTTPMessage";

constexpr size_t kSizePrefixLength = 4;
constexpr UINT32 kMaximumLength = std::numeric_limits<UINT32>::max();

const wchar_t* CharsetSuffix(bool utf8) noexcept
{
    return utf8 ? L"; charset=UTF-8" : L"";
}

// A form's body: every value URL-encoded, then the parameter text as bytes.
HRESULT CreateFormBody(const CVoDataParser& parameters, bool utf8, CVoByteBuffer& body)
{
    CVoBinaryDataParser encoded;
    for (size_t i = 0; i < parameters.GetCount(); ++i)
    {
        const CParamRec& parameter = parameters.GetAt(i);
        if (const HRESULT hr = encoded.AddParam(parameter.Name(), std::wstring_view(parameter.Value())); FAILED(hr))
            return hr;
    }
    if (const HRESULT hr = encoded.ConvertParamValuesToUTF8URLEncodedString(utf8); FAILED(hr))
        return hr;
    return encoded.GetParamData(utf8, body.PutLength(), body.PutBytes());
}

// The beginning of a body as one line of text, for the log.
std::wstring StartOfText(std::span<const BYTE> bytes, bool utf8)
{
    wchar_t text[1024]; // no code page makes more units than bytes
    const int length = ::MultiByteToWideChar(utf8 ? CP_UTF8 : CP_THREAD_ACP, 0, reinterpret_cast<const char*>(bytes.data()),
                                             static_cast<int>(std::min(bytes.size(), std::size(text))), text,
                                             static_cast<int>(std::size(text)));
    std::replace_if(text, text + length, [](wchar_t character) { return character < L' '; }, L' ');
    return { text, static_cast<size_t>(length) };
}

// One parameter of a header value, without quotes; empty when it is not there.
std::wstring_view HeaderParameter(std::wstring_view value, std::wstring_view name)
{
    for (size_t position = value.find(L';'); position != std::wstring_view::npos; position = value.find(L';'))
    {
        value.remove_prefix(position + 1);
        const std::wstring_view item = value.substr(0, value.find(L';'));
        const size_t equals = item.find(L'=');
        if (equals == std::wstring_view::npos || !VoEqualsNoCase(VoTrim(item.substr(0, equals)), name))
            continue;
        std::wstring_view text = VoTrim(item.substr(equals + 1));
        if (text.size() >= 2 && text.front() == L'"' && text.back() == L'"')
            text = text.substr(1, text.size() - 2);
        return text;
    }
    return {};
}

// The architecture's part of the user agent. That x86 reads "x64" and ARM "ARM64" is intended: servers know the texts so.
const wchar_t* ArchitectureText(WORD architecture, const CVoReporter& report) noexcept
{
    switch (architecture)
    {
    case PROCESSOR_ARCHITECTURE_INTEL:
    case PROCESSOR_ARCHITECTURE_AMD64:
        return L"x64";
    case PROCESSOR_ARCHITECTURE_ARM:
        return L"ARM64";
    case PROCESSOR_ARCHITECTURE_IA64:
        return L"IA64";
    default:
        report(289, architecture);
        report(290, E_NOTIMPL);
        return L"";
    }
}
} // namespace

CVoHTTPMessage::~CVoHTTPMessage() = default;

CVoHTTPMessage::CProxy::~CProxy()
{
    ::SecureZeroMemory(password.data(), password.size() * sizeof(wchar_t));
}

CVoHTTPMessage::CProgress CVoHTTPMessage::CHTTPRequestData::GetProgress() const noexcept
{
    constexpr auto kOrder = std::memory_order_relaxed;
    return { m_sent.load(kOrder), m_toSend.load(kOrder), m_received.load(kOrder), m_toReceive.load(kOrder) };
}

HRESULT CVoHTTPMessage::CreateContent(const CVoBinaryDataParser& parameters, EContentKind kind, bool utf8,
                                      std::wstring_view key, std::wstring_view signatureParameterName,
                                      const CVoReporter& report, const CContentTracePoints& points, CContent& content) noexcept
try
{
    const bool hasPayload = !parameters.Payload().empty();
    CContent made;
    switch (kind)
    {
    case EContentKind::Raw:
        if (const HRESULT hr = parameters.GetMessageData(made.body.PutLength(), made.body.PutBytes(), false, utf8); FAILED(hr))
            return report(points.raw, hr);
        made.contentTypeHeader = VoFormat(L"Content-Type: application/octet-stream%ls", CharsetSuffix(utf8));
        break;

    case EContentKind::Multipart:
    {
        std::wstring boundary;
        if (const HRESULT hr = parameters.GetFormMessageData(made.body.PutLength(), made.body.PutBytes(), boundary, utf8);
            FAILED(hr))
            return report(points.multipart, hr);
        made.contentTypeHeader =
            VoFormat(L"Content-Type: multipart/form-data%ls; boundary=%ls", CharsetSuffix(utf8), boundary.c_str());
        break;
    }

    case EContentKind::Form:
    case EContentKind::SignedForm:
    {
        const bool isSigned = kind == EContentKind::SignedForm;
        if (isSigned && key.empty())
            return report(points.signedKey, E_INVALIDARG);
        if (isSigned && signatureParameterName.empty())
            return report(points.signedName, E_INVALIDARG);
        if (hasPayload)
            return report(isSigned ? points.signedPayload : points.formPayload, E_NOTIMPL);
        if (const HRESULT hr = CreateFormBody(parameters, utf8, made.body); FAILED(hr))
            return report(isSigned ? points.signedForm : points.form, hr);
        if (isSigned)
            if (const HRESULT hr = SignMessage(true, made.body, key, signatureParameterName); FAILED(hr))
                return report(points.sign, hr);
        made.contentTypeHeader = VoFormat(L"Content-Type: application/x-www-form-urlencoded%ls", CharsetSuffix(utf8));
        break;
    }

    case EContentKind::Empty:
        if (hasPayload)
            return report(points.emptyPayload, E_NOTIMPL);
        made.contentTypeHeader = L"Content-Type:";
        break;

    default:
        return report(points.unknownKind, E_NOTIMPL);
    }
    content = std::move(made);
    return S_OK;
}
catch (...)
{
    return report.CurrentException(points.exception);
}

HRESULT CVoHTTPMessage::CreateMultipleContent(std::span<const CVoBinaryDataParser> messages, bool utf8,
                                              CContent& content) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::CreateMultipleContent" };
    std::vector<CVoByteBuffer> parts(messages.size());
    size_t total = 0;
    for (size_t i = 0; i < messages.size(); ++i)
    {
        const HRESULT hr = messages[i].GetMessageDataWithSizePrefix(parts[i].PutLength(), parts[i].PutBytes(), false, utf8);
        if (FAILED(hr))
            return report(120, hr);
        total += parts[i].Length();
    }
    if (total > kMaximumLength)
        return report(125, E_INVALIDARG);

    CContent made;
    if (parts.size() == 1)
        made.body = std::move(parts.front());
    else if (total > 0)
    {
        auto body = std::make_unique_for_overwrite<BYTE[]>(total);
        BYTE* end = body.get();
        for (CVoByteBuffer& part : parts)
        {
            end = std::copy_n(part.Data(), part.Length(), end);
            part.Reset();
        }
        made.body = CVoByteBuffer(std::move(body), static_cast<UINT32>(total));
    }
    made.contentTypeHeader = VoFormat(L"Content-Type: application/octet-stream%ls", CharsetSuffix(utf8));
    content = std::move(made);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::CreateMultipleContent" }.CurrentException(140);
}

HRESULT CVoHTTPMessage::SignMessage(bool sign, CVoByteBuffer& body, std::wstring_view key,
                                    std::wstring_view parameterName) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::SignMessage" };
    if (body.Length() < 1)
        return report(184, E_INVALIDARG);
    if (!sign)
        return report(188, E_INVALIDARG);

    OrvDigSign::COrvSHA1Hash hash;
    CVoByteBuffer signature;
    if (const HRESULT hr = OrvDigSign::COrvDigitalSignature::SignString(body.Data(), body.Length(), hash, key,
                                                                        signature.PutBytes(), signature.PutLength());
        FAILED(hr))
        return report(193, hr);
    std::wstring encoded;
    if (const HRESULT hr =
            VoDataConversion::BinToBase64(signature.Data(), static_cast<INT32>(signature.Length()), true, encoded, 0);
        FAILED(hr))
        return report(196, hr);

    std::string appended;
    if (const HRESULT hr = VoStringToASCII(L"&" + std::wstring(parameterName) + L"=" + encoded, appended); FAILED(hr))
        return report(202, hr);
    const size_t length = size_t{ body.Length() } + appended.size();
    if (length >= kMaximumLength)
        return report(205, E_INVALIDARG);
    auto bytes = std::make_unique_for_overwrite<BYTE[]>(length + 1);
    BYTE* const end = std::copy_n(body.Data(), body.Length(), bytes.get());
    *std::copy_n(reinterpret_cast<const BYTE*>(appended.data()), appended.size(), end) = 0;
    body = CVoByteBuffer(std::move(bytes), static_cast<UINT32>(length));
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::SignMessage" }.CurrentException(210);
}

HRESULT CVoHTTPMessage::CreateSignatureBase(std::wstring_view contentType, UINT32 contentLength,
                                            std::wstring_view contentDigest, std::string& bytes) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::CreateSignatureBase" };
    const std::wstring text = VoFormat(L"\"content-type\": %ls\n\"content-length\": %u\n\"orv-content-digest\": %ls\n",
                                       std::wstring(contentType).c_str(), contentLength, std::wstring(contentDigest).c_str());
    if (const HRESULT hr = VoStringToUTF8(text, bytes); FAILED(hr))
        return report(221, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::CreateSignatureBase" }.CurrentException(225);
}

HRESULT CVoHTTPMessage::CreateContentDigest(std::span<const BYTE> body, std::wstring& digest) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::CreateContentDigest" };
    if (body.size() > kMaximumLength)
        return report(240, E_INVALIDARG);
    const std::unique_ptr<OrvDigSign::COrvHashBase> hash(OrvDigSign::CreateHashByName(OrvDigSign::DefaultHashName()));
    CVoByteBuffer value;
    if (const HRESULT hr =
            OrvDigSign::HashBytes(*hash, body.data(), static_cast<UINT32>(body.size()), value.PutBytes(), value.PutLength());
        FAILED(hr))
        return report(245, hr);
    std::wstring encoded;
    VoDataConversion::BinToBase64(value.Data(), static_cast<INT32>(value.Length()), false, encoded, 0);
    digest = L"sha-256=:" + encoded + L":";
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::CreateContentDigest" }.CurrentException(250);
}

void CVoHTTPMessage::WriteDataToLogFile(EDataDirection direction, const BYTE* data, UINT32 length) const noexcept
try
{
    if (!CVoModuleInformation::Get().IsDebug())
        return;
    static CVoDataLog log;
    SYSTEMTIME time;
    ::GetLocalTime(&time);
    const std::wstring header = VoFormat(
        L" Data is %ls, DateTime:%4d.%02d.%02d %02d:%02d:%02d.%03d    ThreadID:%X,This ptr :%llX, DataSize:%u",
        direction == EDataDirection::Read ? L"Read" : L"Written", time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute,
        time.wSecond, time.wMilliseconds, ::GetCurrentThreadId(), reinterpret_cast<unsigned long long>(this), length);
    (void)log.Append(time, header, { data, length });
}
catch (...)
{
    // The data log is for the developer: a record that memory has no room for is left out.
    CVoReporter{ kSource, L"CVoHTTPMessage::WriteDataToLogFile" }.CurrentException(270);
}

std::wstring CVoHTTPMessage::GetUserAgentString(std::wstring_view applicationName)
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::GetUserAgentString" };
    SYSTEM_INFO system{};
    ::GetSystemInfo(&system);
    const CVoModuleInformation& module = CVoModuleInformation::Get();
    std::wstring version = module.Version();
    std::replace(version.begin(), version.end(), L',', L'.');
    return VoFormat(L"%ls_%ls_%ls/%ls", std::wstring(applicationName).c_str(), module.TargetName().c_str(),
                    ArchitectureText(system.wProcessorArchitecture, report), version.c_str());
}

HRESULT CVoHTTPMessage::Connect(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation,
                                std::shared_ptr<CVoHTTPMessage>& message) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::Connect" };
    const UINT32 kind = CVoModuleInformation::Get().HTTPEngine();
    std::shared_ptr<CVoHTTPMessage> made = VoMakeHTTPTransport(kind);
    if (!made)
    {
        report(325, static_cast<HRESULT>(kind));
        return report(326, E_NOTIMPL);
    }
    if (const HRESULT hr = made->Connect(serverAddress, authCallback, proxyStore, cookieStore, connectTimeout, requestTimeout,
                                         verifyServerCertificate, checkRevocation);
        FAILED(hr))
        return report(332, hr);
    message = std::move(made);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::Connect" }.CurrentException(336);
}

void CVoHTTPMessage::StoreConnection(const CServerAddressData& serverAddress, IVoAuthenticationCallback* authCallback,
                                     IVoHTTPProxyStore* proxyStore, IVoHTTPCookieStore* cookieStore, UINT32 connectTimeout,
                                     UINT32 requestTimeout, bool verifyServerCertificate, bool checkRevocation)
{
    m_serverAddress = serverAddress;
    m_authCallback = CVoComPtr<IVoAuthenticationCallback>(authCallback);
    m_proxyStore = CVoComPtr<IVoHTTPProxyStore>(proxyStore);
    m_cookieStore = CVoComPtr<IVoHTTPCookieStore>(cookieStore);
    m_connectTimeout = connectTimeout;
    m_requestTimeout = requestTimeout;
    m_verifyServerCertificate = serverAddress.IsSecure() && verifyServerCertificate;
    m_checkCertificateRevocation = serverAddress.IsSecure() && checkRevocation;
}

void CVoHTTPMessage::ForgetConnection() noexcept
{
    m_connected = false;
    m_serverAddress = CServerAddressData();
    m_authCallback.Reset();
    m_proxyStore.Reset();
    m_cookieStore.Reset();
    m_connectTimeout = 0;
    m_requestTimeout = 0;
    m_verifyServerCertificate = false;
    m_checkCertificateRevocation = false;
}

bool CVoHTTPMessage::NamesUtf8(std::wstring_view contentType) noexcept
{
    return VoEqualsNoCase(HeaderParameter(contentType, L"charset"), L"UTF-8");
}

CVoHTTPMessage::CAttempts::CAttempts(bool allowRetry, UINT32 budgetSeconds) noexcept
    : m_allowRetry(allowRetry), m_budget(INT64{ budgetSeconds } * 1'000'000), m_start(VoGetMicroseconds())
{
}

bool CVoHTTPMessage::CAttempts::MayRetry(HRESULT failure, UINT32 status) const noexcept
{
    return ShouldRetry(m_allowRetry, failure, status, VoGetMicroseconds() - m_start, m_budget);
}

HRESULT CVoHTTPMessage::ReadAnswer(CAnswer& answer, EResponseKind kind, CVoBinaryDataParser& response, bool* isUtf8,
                                   bool* isEmpty) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::ReadAnswer" };
    if (kind != EResponseKind::Parameters && kind != EResponseKind::Binary)
        return report(375, E_NOTIMPL);
    if (!answer.isThere)
        return report(380, E_FAIL);
    const bool empty = answer.bytes.empty();
    // Of what the caller has only the parameters stay, in front of the new ones.
    const CVoDataParser& parameters = response;
    CVoBinaryDataParser parsed;
    static_cast<CVoDataParser&>(parsed) = parameters;
    if (const HRESULT hr = parsed.Parse(std::move(answer.bytes), kind == EResponseKind::Binary, answer.utf8); FAILED(hr))
    {
        // The answer is still there, to be read as bytes.
        report.Message(384, L"Parsing error! Data: %ls", StartOfText(answer.bytes, answer.utf8).c_str());
        return report(385, hr);
    }
    response = std::move(parsed);
    answer.isThere = false;
    if (isUtf8)
        *isUtf8 = answer.utf8;
    if (isEmpty)
        *isEmpty = empty;
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::ReadAnswer" }.CurrentException(387);
}

HRESULT CVoHTTPMessage::ReadAnswers(CAnswer& answer, std::vector<CVoBinaryDataParser>& responses, UINT32 expectedCount,
                                    UINT32* count) noexcept
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::ReadAnswers" };
    if (!answer.isThere)
        return report(390, E_FAIL);
    if (const HRESULT hr = internalParseMultipleResponses(answer.bytes, answer.utf8, expectedCount, responses); FAILED(hr))
        return report(395, hr);
    answer = {};
    if (count)
        *count = static_cast<UINT32>(responses.size());
    return S_OK;
}

HRESULT CVoHTTPMessage::internalParseMultipleResponses(std::span<const BYTE> bytes, bool utf8, UINT32 expectedCount,
                                                       std::vector<CVoBinaryDataParser>& responses) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::internalParseMultipleResponses" };
    std::vector<CVoBinaryDataParser> found;
    while (!bytes.empty())
    {
        if (bytes.size() < kSizePrefixLength)
            return report(400, E_FAIL);
        const UINT32 length = bytes[0] | UINT32{ bytes[1] } << 8 | UINT32{ bytes[2] } << 16 | UINT32{ bytes[3] } << 24;
        bytes = bytes.subspan(kSizePrefixLength);
        if (length > bytes.size())
            return report(405, E_FAIL);
        if (const HRESULT hr = found.emplace_back().Parse(length, bytes.data(), false, utf8); FAILED(hr))
            return report(410, hr);
        bytes = bytes.subspan(length);
    }
    if (expectedCount != 0 && found.size() != expectedCount)
        return report(415, E_FAIL);
    responses = std::move(found);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::internalParseMultipleResponses" }.CurrentException(420);
}

HRESULT CVoHTTPMessage::GetCookieHeader(const CServerAddressData& address, std::wstring& cookie) const noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::GetCookieHeader" };
    std::wstring found;
    if (m_cookieStore)
    {
        CVoBstr value;
        const HRESULT hr = m_cookieStore->GetCookieStringForHTTPRequest(
            CVoBstr(address.FullURL()).Get(), address.IsSecure() ? VARIANT_TRUE : VARIANT_FALSE, value.Put());
        if (FAILED(hr))
            return report(440, hr);
        found = value.View();
    }
    cookie = std::move(found);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::GetCookieHeader" }.CurrentException(445);
}

HRESULT CVoHTTPMessage::StoreCookie(IVoHTTPCookieStore* store, std::wstring_view setCookieValue,
                                    std::wstring_view requestUrl) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::StoreCookie" };
    if (!store)
        return S_OK;
    if (const HRESULT hr = store->AddCookieFromString(CVoBstr(setCookieValue).Get(), CVoBstr(requestUrl).Get()); FAILED(hr))
        return report(460, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::StoreCookie" }.CurrentException(465);
}

HRESULT CVoHTTPMessage::GetProxy(const std::wstring* url, CProxy& proxy) const noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::GetProxy" };
    CProxy found;
    if (m_proxyStore)
    {
        CVoBstr urlText;
        if (url)
            urlText = CVoBstr(*url);
        CVoBstr name;
        CVoBstr user;
        CVoBstr password;
        if (const HRESULT hr = m_proxyStore->GetProxyForUrl(urlText.Get(), name.Put(), user.Put(), password.Put()); FAILED(hr))
            return report(480, hr);
        found.proxy = name.View();
        if (!user.IsEmpty())
        {
            found.user = user.View();
            found.password = password.View();
        }
        VoWipe(password.Get());
    }
    std::swap(proxy.proxy, found.proxy);
    std::swap(proxy.user, found.user);
    std::swap(proxy.password, found.password);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::GetProxy" }.CurrentException(490);
}

HRESULT CVoHTTPMessage::AskForCredentials(IVoAuthenticationCallback& callback, const CServerAddressData& address,
                                          const std::wstring* proxy, CCredentials& credentials) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::AskForCredentials" };
    // A proxy is named beside the server that it stands before; a server is named with the URL that it guards.
    const CVoBstr title{ std::wstring_view() };
    const CVoBstr target(proxy ? address.BaseURL() : address.Host());
    const CVoBstr detail(proxy ? *proxy : address.FullURL());
    CVoBstr user;
    CVoBstr password;
    VARIANT_BOOL cancelled = VARIANT_FALSE;
    const auto ask = proxy ? &IVoAuthenticationCallback::OnProxyAuthNeeded : &IVoAuthenticationCallback::OnServerAuthNeeded;
    const HRESULT hr = (callback.*ask)(title.Get(), target.Get(), detail.Get(), user.Put(), password.Put(), &cancelled);
    CCredentials entered;
    if (SUCCEEDED(hr))
    {
        entered.user = user.View();
        entered.password.Get() = password.View();
    }
    VoWipe(password.Get());
    if (FAILED(hr))
        return report(495, hr);
    if (cancelled != VARIANT_FALSE || entered.user.empty())
        return report(497, kResultCancelled);
    credentials = std::move(entered);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::AskForCredentials" }.CurrentException(500);
}

HRESULT CVoHTTPMessage::SaveProxyCredentials(IVoHTTPProxyStore& store, const std::wstring& proxy, const std::wstring& user,
                                             const std::wstring& password) noexcept
try
{
    constexpr CVoReporter report{ kSource, L"CVoHTTPMessage::SaveProxyCredentials" };
    const CVoBstr passwordText(password);
    const HRESULT hr =
        store.SetAuthDataForProxy(CVoBstr(proxy).Get(), CVoBstr(user).Get(), passwordText.Get(), VARIANT_TRUE, VARIANT_TRUE);
    VoWipe(passwordText.Get());
    return SUCCEEDED(hr) ? S_OK : report(510, hr);
}
catch (...)
{
    return CVoReporter{ kSource, L"CVoHTTPMessage::SaveProxyCredentials" }.CurrentException(515);
}
