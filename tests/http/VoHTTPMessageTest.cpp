// The parts of a message that are the same for all transports: its table of operations, names, content and signatures.
#include "support/HTTPSupport.h"
#include "support/ImportHook.h"

#include "VoHTTPTransport.h"

#include <base/VoModuleInformation.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>
#include <win/OrvDigSign.h>

#include <gtest/gtest.h>

#include <cstring>

using namespace TestSupport;
using testing::ElementsAre;

namespace
{
constexpr const wchar_t* kHTTPMessageSource = L"..\\source\\VoHTTPMessage";

std::string TextOf(const CVoBodyPieces& body)
{
    std::string text(body.Length(), '\0');
    EXPECT_EQ(CVoBodyReader(body).Read({ reinterpret_cast<BYTE*>(text.data()), text.size() }), text.size());
    return text;
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
    const CLogCapture log;
    Message message;
    EXPECT_EQ(ConnectTo(L"http://localhost", { .kind = 4 }, message), E_NOTIMPL);
    EXPECT_EQ(message, nullptr);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kHTTPMessageSource, 325, L"CVoHTTPMessage::Connect", HRESULT{ 4 }),
                                         IsReport(kHTTPMessageSource, 326, L"CVoHTTPMessage::Connect", E_NOTIMPL)));
}

TEST(HTTPMessage, InterfacesAreHeldWhileConnected)
{
    const auto callback = VoMakeComObject<CScriptedAuthCallback>();
    Message message;
    ASSERT_EQ(ConnectTo(L"http://localhost", { .callback = callback.Get() }, message), S_OK);
    for (IVoAuthenticationCallback* const next : { callback.Get(), static_cast<CScriptedAuthCallback*>(nullptr) })
    {
        ASSERT_EQ(message->Connect(Address(L"http://localhost"), next, nullptr, nullptr, 1, 1, true, true), S_OK);
        callback->AddRef();
        EXPECT_EQ(callback->Release(), next ? 2U : 1U);
    }
}

TEST(HTTPMessage, TheUserAgentNamesTheProcessorArchitecture)
{
    const CVoModuleInformation& module = CVoModuleInformation::Get();
    std::wstring version = module.Version();
    std::replace(version.begin(), version.end(), L',', L'.');
    EXPECT_NE(version.find(L'.'), std::wstring::npos) << "the version resource is missing";

    WORD architecture = 0;
    const CCallHook<decltype(&::GetSystemInfo)> hook("kernel32.dll", "GetSystemInfo", [&](auto, SYSTEM_INFO* info)
    {
        *info = {};
        info->wProcessorArchitecture = architecture;
    });
    for (const auto& [number, text] : { std::pair(0, L"x64"), { 9, L"x64" }, { 5, L"ARM64" }, { 6, L"IA64" }, { 12, L"" } })
    {
        architecture = static_cast<WORD>(number);
        const CLogCapture log;
        EXPECT_EQ(CVoHTTPMessage::GetUserAgentString(L"App"), L"App_" + module.TargetName() + L"_" + text + L"/" + version);
        EXPECT_EQ(log.Lines().empty(), *text != L'\0') << "a strange one is reported";
    }
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

TEST(HTTPMessage, BothFormsOfSignMessageAppendTheSignatureOfTheBody)
{
    std::wstring privateKey, publicKey;
    ASSERT_EQ(OrvDigSign::COrvRSAKey::Generate(2048, privateKey, publicKey), S_OK);
    const auto signedBody = [&](bool sign)
    {
        CVoByteBuffer buffer(std::unique_ptr<BYTE[]>(new BYTE[3]{ 'a', '=', '1' }), 3);
        BYTE* bytes = new BYTE[3]{ 'a', '=', '1' };
        UINT32 length = 3;
        EXPECT_EQ(CVoHTTPMessage::SignMessage(sign, buffer, privateKey, L"sig"), sign ? S_OK : E_INVALIDARG);
        EXPECT_EQ(CVoHTTPMessage::SignMessage(sign, bytes, length, privateKey, L"sig"), sign ? S_OK : E_INVALIDARG);
        const CVoByteBuffer owned(std::unique_ptr<BYTE[]>(bytes), length);
        EXPECT_TRUE(std::equal(bytes, bytes + length, buffer.Data(), buffer.Data() + buffer.Length()));
        return std::string(bytes, bytes + length);
    };
    EXPECT_EQ(signedBody(false), "a=1");
    const std::string body = signedBody(true);
    ASSERT_TRUE(body.starts_with("a=1&sig=")) << body;
    const std::string encoded = body.substr(8);
    EXPECT_EQ(encoded.find_first_of("+/="), std::string::npos) << "the signature must survive as a form value";
    CVoByteBuffer signature;
    ASSERT_EQ(VoDataConversion::Base64ToBin(Wide(encoded), signature.PutBytes(), signature.PutLength()), S_OK);
    OrvDigSign::COrvSHA1Hash hash;
    bool valid = false;
    EXPECT_EQ(OrvDigSign::COrvDigitalSignature::VerifyString(reinterpret_cast<const BYTE*>(body.data()), 3, hash,
                                                             signature.Data(), signature.Length(), publicKey, valid),
              S_OK);
    EXPECT_TRUE(valid);
    // A signed form is built the same way.
    CVoHTTPContent content;
    EXPECT_EQ(VoCreateContent(MakeMessage({ { L"a", L"1" } }), Kind::SignedForm, true, privateKey, L"sig",
                              CVoReporter{ kHTTPMessageSource, L"test" }, {}, content),
              S_OK);
    EXPECT_EQ(TextOf(content.body), body);
    // A transport may read it once more from its beginning.
    std::string begin(3, '\0');
    CVoBodyReader reader(content.body);
    for (int attempt = 0; attempt < 2; ++attempt, reader.Rewind())
        (void)reader.Read({ reinterpret_cast<BYTE*>(begin.data()), begin.size() });
    EXPECT_EQ(begin, "a=1");
    EXPECT_EQ(content.header, L"Content-Type: application/x-www-form-urlencoded; charset=UTF-8");
}

TEST(HTTPMessage, CharsetAndUtf8AnywhereInTheContentTypeNameUtf8)
{
    for (const wchar_t* const type : { L"text/plain; charset=UTF-8", L"text/plain;CharSet = \"utf-8\"", L"utf-8; charset=x" })
        EXPECT_TRUE(CVoHTTPTransport::NamesUtf8(type)) << type;
    for (const wchar_t* const type : { L"text/plain; charset=iso-8859-1", L"", L"text/utf-8", L"text/plain; charset=utf8" })
        EXPECT_FALSE(CVoHTTPTransport::NamesUtf8(type)) << type;
}

TEST(HTTPMessage, ATimeOutIsRecognisedWhateverTheTransport)
{
    for (const DWORD code : { 0x800705B4U, 0x80072EE2U, 0x8007274CU })
        EXPECT_TRUE(CVoHTTPMessage::IsTimeOut(static_cast<HRESULT>(code))) << code;
    EXPECT_FALSE(CVoHTTPMessage::IsTimeOut(S_OK) || CVoHTTPMessage::IsTimeOut(E_FAIL));
}
} // namespace
