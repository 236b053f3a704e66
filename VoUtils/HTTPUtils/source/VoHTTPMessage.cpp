// What all messages share beside their transport: user agent, signatures, data log, multiple responses.
#include <VoHTTPMessage.h>

#include "VoDataLog.h"

#include <base/VoModuleInformation.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>
#include <win/OrvDigSign.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

namespace
{
constexpr const wchar_t* kHTTPMessageSource = L"..\\source\\VoHTTPMessage";

constexpr size_t kSizePrefixLength = 4;
// How much a response to several messages may hold: that many messages when the caller expects no certain number, and that many
// bytes of messages and of the parsers that take them.
constexpr size_t kMaximumMessages = 100'000;
constexpr UINT64 kMaximumMessageMemory = UINT64{ 1 } << 30;
constexpr UINT32 kMaximumLength = std::numeric_limits<UINT32>::max();

// The architecture in the user agent. Intended: x86 gives "x64" and ARM gives "ARM64", because servers know these texts.
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

constexpr CVoReporter kSignReport{ kHTTPMessageSource, L"CVoHTTPMessage::SignMessage" };

// A new body: the old one, the signature's parameter, and a zero byte that is not counted.
HRESULT MakeSignedBody(bool sign, std::span<const BYTE> body, std::wstring_view key, std::wstring_view parameterName,
                       CVoByteBuffer& made)
{
    if (body.empty())
        return kSignReport(184, E_INVALIDARG);
    if (!sign)
        return kSignReport(188, E_INVALIDARG);

    OrvDigSign::COrvSHA1Hash hash;
    CVoByteBuffer signature;
    if (const HRESULT hr = OrvDigSign::COrvDigitalSignature::SignString(body.data(), static_cast<UINT32>(body.size()), hash,
                                                                        key, signature.PutBytes(), signature.PutLength());
        FAILED(hr))
        return kSignReport(193, hr);
    std::wstring encoded;
    if (const HRESULT hr =
            VoDataConversion::BinToBase64(signature.Data(), static_cast<INT32>(signature.Length()), true, encoded, 0);
        FAILED(hr))
        return kSignReport(196, hr);

    std::string appended;
    if (const HRESULT hr = VoStringToASCII(L"&" + std::wstring(parameterName) + L"=" + encoded, appended); FAILED(hr))
        return kSignReport(202, hr);
    const size_t length = body.size() + appended.size();
    if (length >= kMaximumLength)
        return kSignReport(205, E_INVALIDARG);
    auto bytes = std::make_unique_for_overwrite<BYTE[]>(length + 1);
    BYTE* const end = std::copy(body.begin(), body.end(), bytes.get());
    *std::copy_n(reinterpret_cast<const BYTE*>(appended.data()), appended.size(), end) = 0;
    made = CVoByteBuffer(std::move(bytes), static_cast<UINT32>(length));
    return S_OK;
}
} // namespace

CVoHTTPMessage::~CVoHTTPMessage() = default;

CVoHTTPMessage::CProgress CVoHTTPMessage::CHTTPRequestData::GetProgress() const noexcept
{
    constexpr auto kOrder = std::memory_order_relaxed;
    return { m_sent.load(kOrder), m_toSend.load(kOrder), m_received.load(kOrder), m_toReceive.load(kOrder) };
}

HRESULT CVoHTTPMessage::SignMessage(bool sign, CVoByteBuffer& body, std::wstring_view key,
                                    std::wstring_view parameterName) noexcept
try
{
    CVoByteBuffer made;
    if (const HRESULT hr = MakeSignedBody(sign, body.Bytes(), key, parameterName, made); FAILED(hr))
        return hr;
    body = std::move(made);
    return S_OK;
}
catch (...)
{
    return kSignReport.CurrentException(210);
}

HRESULT CVoHTTPMessage::SignMessage(bool sign, BYTE*& body, UINT32& bodyLength, std::wstring_view key,
                                    std::wstring_view parameterName) noexcept
try
{
    CVoByteBuffer made;
    if (const HRESULT hr = MakeSignedBody(sign, { body, body ? bodyLength : 0 }, key, parameterName, made); FAILED(hr))
        return hr;
    bodyLength = made.Length();
    const std::unique_ptr<BYTE[]> old(std::exchange(body, made.Detach()));
    return S_OK;
}
catch (...)
{
    return kSignReport.CurrentException(212);
}

HRESULT CVoHTTPMessage::CreateSignatureBase(std::wstring_view contentType, UINT32 contentLength,
                                            std::wstring_view contentDigest, std::string& bytes) noexcept
try
{
    constexpr CVoReporter report{ kHTTPMessageSource, L"CVoHTTPMessage::CreateSignatureBase" };
    // A zero would end the text early: the signature would not cover what follows it.
    if (contentType.find(L'\0') != std::wstring_view::npos || contentDigest.find(L'\0') != std::wstring_view::npos)
        return report(217, E_INVALIDARG);
    const std::wstring text = VoFormat(L"\"content-type\": %ls\n\"content-length\": %u\n\"orv-content-digest\": %ls\n",
                                       std::wstring(contentType).c_str(), contentLength, std::wstring(contentDigest).c_str());
    if (const HRESULT hr = VoStringToUTF8(text, bytes); FAILED(hr))
        return report(221, hr);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kHTTPMessageSource, L"CVoHTTPMessage::CreateSignatureBase" }.CurrentException(225);
}

HRESULT CVoHTTPMessage::CreateContentDigest(std::span<const BYTE> body, std::wstring& digest) noexcept
try
{
    constexpr CVoReporter report{ kHTTPMessageSource, L"CVoHTTPMessage::CreateContentDigest" };
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
    return CVoReporter{ kHTTPMessageSource, L"CVoHTTPMessage::CreateContentDigest" }.CurrentException(250);
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
    // The data log is only for the developer: drop a record when memory runs out.
    CVoReporter{ kHTTPMessageSource, L"CVoHTTPMessage::WriteDataToLogFile" }.CurrentException(270);
}

std::wstring CVoHTTPMessage::GetUserAgentString(std::wstring_view applicationName)
{
    constexpr CVoReporter report{ kHTTPMessageSource, L"CVoHTTPMessage::GetUserAgentString" };
    SYSTEM_INFO system{};
    ::GetSystemInfo(&system);
    const CVoModuleInformation& module = CVoModuleInformation::Get();
    std::wstring version = module.Version();
    std::replace(version.begin(), version.end(), L',', L'.');
    return VoFormat(L"%ls_%ls_%ls/%ls", std::wstring(applicationName).c_str(), module.TargetName().c_str(),
                    ArchitectureText(system.wProcessorArchitecture, report), version.c_str());
}

HRESULT CVoHTTPMessage::internalParseMultipleResponses(std::span<const BYTE> bytes, bool utf8, UINT32 expectedCount,
                                                       std::vector<CVoBinaryDataParser>& responses) noexcept
try
{
    constexpr CVoReporter report{ kHTTPMessageSource, L"CVoHTTPMessage::internalParseMultipleResponses" };
    // First the lengths alone: four bytes announce a message, which takes far more memory.
    std::vector<std::span<const BYTE>> messages;
    UINT64 memory = 0;
    while (!bytes.empty())
    {
        if (bytes.size() < kSizePrefixLength)
            return report(400, E_FAIL);
        const UINT32 length = bytes[0] | UINT32{ bytes[1] } << 8 | UINT32{ bytes[2] } << 16 | UINT32{ bytes[3] } << 24;
        bytes = bytes.subspan(kSizePrefixLength);
        if (length > bytes.size())
            return report(405, E_FAIL);
        memory += length + sizeof(CVoBinaryDataParser);
        if (expectedCount != 0 && messages.size() == expectedCount)
            return report(415, E_FAIL);
        if ((expectedCount == 0 && messages.size() == kMaximumMessages) || memory > kMaximumMessageMemory)
            return report(407, kErrorResponseLimit);
        messages.push_back(bytes.first(length));
        bytes = bytes.subspan(length);
    }
    if (expectedCount != 0 && messages.size() != expectedCount)
        return report(417, E_FAIL);
    std::vector<CVoBinaryDataParser> found;
    found.reserve(messages.size());
    for (const std::span<const BYTE> message : messages)
        if (const HRESULT hr = found.emplace_back().Parse(static_cast<UINT32>(message.size()), message.data(), false, utf8);
            FAILED(hr))
            return report(410, hr);
    responses = std::move(found);
    return S_OK;
}
catch (...)
{
    return CVoReporter{ kHTTPMessageSource, L"CVoHTTPMessage::internalParseMultipleResponses" }.CurrentException(420);
}
