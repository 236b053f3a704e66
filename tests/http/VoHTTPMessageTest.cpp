#include "support/HTTPSupport.h"
#include "support/ImportHook.h"
#include "support/LogCapture.h"

#include <base/VoUtils.h>

#include <gtest/gtest.h>

#include <cstring>
#include <limits>

using namespace TestSupport;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

// Reaches the services that the base keeps for its transports.
class CVoHTTPMessageTestAccess
{
public:
    static bool NamesUtf8(std::wstring_view contentType) { return CVoHTTPMessage::NamesUtf8(contentType); }
    static bool ShouldRetry(bool allow, UINT32 status, INT64 elapsed, INT64 budget)
    {
        return CVoHTTPMessage::ShouldRetry(allow, status, elapsed, budget);
    }
    static bool VerifiesServerCertificate(const CVoHTTPMessage& message) { return message.m_verifyServerCertificate; }
    static bool ChecksRevocation(const CVoHTTPMessage& message) { return message.m_checkCertificateRevocation; }
};

namespace
{
using Access = CVoHTTPMessageTestAccess;
constexpr const wchar_t* kSource = L"..\\source\\VoHTTPMessage";

CServerAddressData Address(std::wstring_view url)
{
    CServerAddressData address;
    EXPECT_EQ(address.SetAddress(url, false, true, true), S_OK);
    return address;
}

#ifdef __GNUC__
// Where a virtual operation stands in the table, by what a pointer to it holds (the Itanium C++ ABI: one more than the offset).
// The destructor has two entries there and counts as slot 0.
template <class Operation>
size_t SlotOf(Operation operation)
{
    size_t parts[2] = {};
    static_assert(sizeof(operation) == sizeof(parts));
    std::memcpy(parts, &operation, sizeof(parts));
    return (parts[0] - 1) / sizeof(void*) - 1;
}

// Programs that were built against an earlier library call by these numbers.
TEST(HTTPMessage, OperationsStandInTheirSlots)
{
    HRESULT(CVoHTTPMessage::* connect)
    (const CServerAddressData&, IVoAuthenticationCallback*, IVoHTTPProxyStore*, IVoHTTPCookieStore*, UINT32, UINT32, bool,
     bool) noexcept = &CVoHTTPMessage::Connect;
    EXPECT_EQ(SlotOf(connect), 1U);
    EXPECT_EQ(SlotOf(&CVoHTTPMessage::OpenRequest), 2U);
    EXPECT_EQ(SlotOf(&CVoHTTPMessage::SendMessage), 3U);
    EXPECT_EQ(SlotOf(&CVoHTTPMessage::SendMultipleMessages), 4U);
    EXPECT_EQ(SlotOf(&CVoHTTPMessage::SendGetRequest), 5U);
    EXPECT_EQ(SlotOf(&CVoHTTPMessage::ReadResponse), 6U);
    EXPECT_EQ(SlotOf(&CVoHTTPMessage::ReadMultipleResponses), 7U);
    EXPECT_EQ(SlotOf(&CVoHTTPMessage::SetUserContext), 8U);
}
#endif

TEST(HTTPMessage, AnUnknownTransportKindIsRefusedWithItsNumber)
{
    for (const UINT32 kind : { 4U, 1000U, std::numeric_limits<UINT32>::max() })
    {
        const CTransportScope scope(kind);
        const CLogCapture log;
        std::shared_ptr<CVoHTTPMessage> message;
        EXPECT_EQ(CVoHTTPMessage::Connect(Address(L"http://localhost"), nullptr, nullptr, nullptr, 1, 1, true, true, message),
                  E_NOTIMPL);
        EXPECT_EQ(message, nullptr);
        EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 325, L"CVoHTTPMessage::Connect", static_cast<HRESULT>(kind)),
                                             IsReport(kSource, 326, L"CVoHTTPMessage::Connect", E_NOTIMPL)));
    }
}

TEST(HTTPMessage, TheCertificateSwitchesHoldForHttpsOnly)
{
    const CTransportScope scope(2);
    for (const bool secure : { false, true })
    {
        std::shared_ptr<CVoHTTPMessage> message;
        ASSERT_EQ(CVoHTTPMessage::Connect(Address(secure ? L"https://localhost" : L"http://localhost"), nullptr, nullptr,
                                          nullptr, 1, 1, true, true, message),
                  S_OK);
        EXPECT_EQ(Access::VerifiesServerCertificate(*message), secure);
        EXPECT_EQ(Access::ChecksRevocation(*message), secure);
    }
}

TEST(HTTPMessage, InterfacesAreHeldWhileConnected)
{
    const CTransportScope scope(2);
    const auto auth = VoMakeComObject<CScriptedAuthCallback>();
    const auto references = [&]
    {
        auth->AddRef();
        return auth->Release();
    };
    std::shared_ptr<CVoHTTPMessage> message;
    const CServerAddressData address = Address(L"http://localhost");
    ASSERT_EQ(CVoHTTPMessage::Connect(address, auth.Get(), nullptr, nullptr, 1, 1, true, true, message), S_OK);
    EXPECT_EQ(references(), 2U);
    ASSERT_EQ(message->Connect(address, auth.Get(), nullptr, nullptr, 1, 1, true, true), S_OK);
    EXPECT_EQ(references(), 2U);
    ASSERT_EQ(message->Connect(address, nullptr, nullptr, nullptr, 1, 1, true, true), S_OK);
    EXPECT_EQ(references(), 1U);
}

TEST(HTTPMessage, TheUserAgentNamesTheProcessorArchitecture)
{
    const CVoModuleInformation& module = CVoModuleInformation::Get();
    std::wstring version = module.Version();
    std::replace(version.begin(), version.end(), L',', L'.');
    EXPECT_NE(version.find(L"."), std::wstring::npos) << "the version resource is missing";

    WORD architecture = 0;
    const CCallHook<decltype(&::GetSystemInfo)> hook("kernel32.dll", "GetSystemInfo",
                                                     [&](auto, SYSTEM_INFO* info)
                                                     {
                                                         *info = {};
                                                         info->wProcessorArchitecture = architecture;
                                                     });
    struct CCase
    {
        WORD architecture;
        const wchar_t* text;
    };
    for (const CCase& item :
         { CCase{ 0, L"x64" }, CCase{ 9, L"x64" }, CCase{ 5, L"ARM64" }, CCase{ 6, L"IA64" }, CCase{ 12, L"" } })
    {
        architecture = item.architecture;
        const CLogCapture log;
        EXPECT_EQ(CVoHTTPMessage::GetUserAgentString(L"App"),
                  L"App_" + module.TargetName() + L"_" + item.text + L"/" + version);
        constexpr const wchar_t* kFunction = L"CVoHTTPMessage::GetUserAgentString";
        if (*item.text)
            EXPECT_THAT(log.Lines(), IsEmpty());
        else
            EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 289, kFunction, item.architecture),
                                                 IsReport(kSource, 290, kFunction, E_NOTIMPL)));
    }
}

TEST(HTTPMessage, ABodyThatCannotBeSignedStaysAsItWas)
{
    constexpr const wchar_t* kFunction = L"CVoHTTPMessage::SignMessage";
    CVoByteBuffer empty;
    CLogCapture log;
    EXPECT_EQ(CVoHTTPMessage::SignMessage(true, empty, L"00", L"sig"), E_INVALIDARG);
    EXPECT_THAT(log.Lines(), Contains(IsReport(kSource, 184, kFunction, E_INVALIDARG)));

    auto bytes = std::make_unique<BYTE[]>(3);
    const BYTE* const before = bytes.get();
    CVoByteBuffer body(std::move(bytes), 3);
    EXPECT_EQ(CVoHTTPMessage::SignMessage(false, body, L"00", L"sig"), E_INVALIDARG);
    EXPECT_THAT(log.Lines(), Contains(IsReport(kSource, 188, kFunction, E_INVALIDARG)));
    EXPECT_TRUE(FAILED(CVoHTTPMessage::SignMessage(true, body, L"0102", L"sig")));
    EXPECT_TRUE(FAILED(CVoHTTPMessage::SignMessage(true, body, L"not hexadecimal at all: f", L"sig")));
    EXPECT_EQ(body.Data(), before);
    EXPECT_EQ(body.Length(), 3U);
}

TEST(HTTPMessage, TheSignatureBaseCoversTypeLengthAndDigest)
{
    std::string bytes;
    EXPECT_EQ(CVoHTTPMessage::CreateSignatureBase(L"text/plain", 4000000000U, L"sha-256=:AA==:", bytes), S_OK);
    EXPECT_EQ(bytes, "\"content-type\": text/plain\n\"content-length\": 4000000000\n\"orv-content-digest\": sha-256=:AA==:\n");

    // The example of RFC 9530, appendix B.1.
    const std::string body = "{\"hello\": \"world\"}\n";
    std::wstring digest;
    EXPECT_EQ(CVoHTTPMessage::CreateContentDigest({ reinterpret_cast<const BYTE*>(body.data()), body.size() }, digest), S_OK);
    EXPECT_EQ(digest, L"sha-256=:RK/0qy18MlBSVnWgjwz6lZEWjP/lF5HF9bvEF8FabDg=:");
}

TEST(HTTPMessage, OnlyACharsetParameterNamesUtf8)
{
    struct CCase
    {
        const wchar_t* contentType;
        bool expected;
    };
    for (const CCase& item : {
             CCase{ L"text/plain; charset=UTF-8", true },
             { L"text/plain;charset=utf-8", true },
             { L"text/plain; boundary=x; CharSet = \"Utf-8\" ; q=1", true },
             { L"text/plain; charset=iso-8859-1", false },
             { L"text/plain", false },
             { L"", false },
             { L"text/plain; charset=utf-80", false },
             { L"text/plain; x-charset=utf-8", false },
             { L"charset=utf-8", false },
         })
        EXPECT_EQ(Access::NamesUtf8(item.contentType), item.expected) << item.contentType;
}

TEST(HTTPMessage, ARetryNeedsPermissionTimeAndAnotherStatusThan400To405)
{
    struct CCase
    {
        bool allow;
        UINT32 status;
        INT64 elapsed;
        bool expected;
    };
    for (const CCase& item : { CCase{ true, 0, 0, true }, CCase{ false, 0, 0, false }, CCase{ true, 500, 99, true },
                               CCase{ true, 500, 100, false }, CCase{ true, 399, 0, true }, CCase{ true, 400, 0, false },
                               CCase{ true, 405, 0, false }, CCase{ true, 406, 0, true } })
        EXPECT_EQ(Access::ShouldRetry(item.allow, item.status, item.elapsed, 100), item.expected) << item.status;
}
} // namespace
