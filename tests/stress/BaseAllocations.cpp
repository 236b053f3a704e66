// The rows of the table of allocations for the base utilities.
#include "Allocations.h"

#include <base/Vo2DIDArray.h>
#include <base/VoErrorText.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>
#include <support/KeyPairs.h>
#include <win/OrvDigSign.h>
#include <win/OrvSignedIniFileHandler.h>
#include <win/VoFile.h>
#include <win/VoParamHandler.h>
#include <win/VoWMIValue.h>

namespace Stress
{
namespace
{
template <class Operate>
COperation OnParser(Operate operate)
{
    return On(&Parsed, operate, &SeeParser);
}
auto IniFile()
{
    CVoIniFileIO file;
    Require(SUCCEEDED(file.Parse(kIni)), "the file is not read");
    return file;
}
std::wstring SeeIni(const CVoIniFileIO& file)
{
    std::string bytes;
    return SUCCEEDED(file.GetBytes(bytes)) ? Units(bytes) : L"?";
}
const CVoIniFileIO& SomeFile()
{
    static const CVoIniFileIO file = IniFile();
    return file;
}
template <class Operate>
COperation OnIni(Operate operate)
{
    return On(&IniFile, operate, &SeeIni);
}
auto OnDisk()
{
    WriteTestFile(PathIn(L"file.ini"), kIni);
    CVoIniFileIO file;
    Require(SUCCEEDED(file.Open(PathIn(L"file.ini"))) && SUCCEEDED(file.SetValue(L"Second", L"x", kText)), "no file");
    return file;
}
auto Params()
{
    WriteTestFile(PathIn(L"params.ini"), kIni);
    auto params = std::make_unique<CVoParamHandler>();
    Require(SUCCEEDED(params->Open(PathIn(L"params.ini"))), "no file");
    return params;
}
std::wstring SeeParams(const std::unique_ptr<CVoParamHandler>& params)
{
    std::wstring text = L"-";
    std::wstring other = L"-";
    (void)params->Get(L"Second", L"x", text);
    (void)params->Get(L"New section", L"a new key", other);
    return text + L'|' + other;
}
const CVoParamHandler& SomeParams()
{
    static const std::unique_ptr<CVoParamHandler> params = Params();
    return *params;
}
template <class Operate>
COperation OnParams(Operate operate)
{
    return On(&Params, [operate](auto& params) { return operate(*params); }, &SeeParams);
}
using OrvSignedIniFileHandler::CVoSignedIniFileHandler2;
auto SignedFile()
{
    WriteTestFile(PathIn(L"params.ini"), kIni);
    auto handler = std::make_unique<CVoSignedIniFileHandler2>();
    Require(SUCCEEDED(handler->Parse(kKnownSignedFile)), "the file is not read");
    return handler;
}
CVoSignedIniFileHandler2& SomeSignedFile()
{
    static const std::unique_ptr<CVoSignedIniFileHandler2> file = SignedFile();
    return *file;
}
template <class Operate>
COperation OnSigned(Operate operate)
{
    return On(&SignedFile, [operate](auto& handler) { return operate(*handler); },
              [](const auto& handler) { return SeeIni(handler->File()); });
}
auto Array()
{
    CVo2DIDArray array;
    Require(SUCCEEDED(array.SetSize(2, 2)), "no array");
    return array;
}
std::wstring SeeArray(const CVo2DIDArray& array)
{
    std::wstring text = std::to_wstring(array.Rows()) + L'x' + std::to_wstring(array.Columns());
    for (UINT32 row = 0; row < array.Rows(); ++row)
        for (UINT32 column = 0; column < array.Columns(); ++column)
            text += array.GetCell(row, column) ? L'|' + array.GetCell(row, column)->id : L"|";
    return text;
}
const CVoVariant& TextVariant()
{
    static const CVoVariant variant = []
    {
        CVoVariant value;
        Require(SUCCEEDED(VoTypeToVariant(kText, value.Get())), "no variant");
        return value;
    }();
    return variant;
}
std::wstring SeeVariant(const CVoVariant& value)
{
    return std::to_wstring(value.Get().vt);
}
} // namespace

std::vector<CRow> BaseRows()
{
    using namespace VoDataConversion;
    // clang-format off
    return {
        { "HexToBin", GivesBytes([](UINT32* n, BYTE** b) { return HexToBin(L"0123456789", b, n); }) },
        { "Base64ToBin", GivesBytes([](UINT32* n, BYTE** b) { return Base64ToBin(L"TWFuTWFu\r\nTWFu", b, n); }) },
        { "Base32ModifiedCrockfordToBin", GivesBytes([](UINT32* n, BYTE** b) { return Base32ModifiedCrockfordToBin(L"1 0", b, n); }) },
        { "BinToHex", GivesText([](std::wstring& t) { return BinToHex(Data(), 20, t, 7); }) },
        { "BinToBase64", GivesText([](std::wstring& t) { return BinToBase64(Data(), 20, false, t, 7); }) },
        { "BinToBase32ModifiedCrockford", GivesText([](std::wstring& t) { return BinToBase32ModifiedCrockford(Data(), 20, true, t, 7); }) },
        { "VoStringToUTF8", On(New<std::string>(), [](std::string& b) { return VoStringToUTF8(kText, b); }, &SeeBytes) },
        { "VoStringToASCII", On(New<std::string>(), [](std::string& b) { return VoStringToASCII(kText, b); }, &SeeBytes) },
        { "VoStringToCodePage", On(New<std::string>(), [](std::string& b) { return VoStringToCodePage(1252, kText, b); }, &SeeBytes) },
        { "VoUTF8ToString", GivesText([](std::wstring& t) { return VoUTF8ToString(kIni, t); }) },
        { "VoCodePageToString", GivesText([](std::wstring& t) { return VoCodePageToString(1252, kIni, t); }) },
        { "VoSystemTimeToISO8601DateTimeStr", GivesText([](std::wstring& t) { return VoSystemTimeToISO8601DateTimeStr({ 2024, 2, 0, 29, 1, 2, 3, 4 }, 60, true, true, t); }) },
        { "WMIDateTimeToISO8601", GivesText([](std::wstring& t) { return VoWMIQuery::WMIDateTimeToISO8601(L"20240229120000.250000+060", t); }), true },
        { "WMIValueToText", GivesText([](std::wstring& t) { return VoWMIQuery::WMIValueToText(TextVariant().Get(), 8, t); }), true },
        { "VoGetTempPath", GivesText([](std::wstring& t) { return VoGetTempPath(t); }) },
        { "GetModuleDirAndFileName", GivesText([](std::wstring& t) { return GetModuleDirAndFileName(nullptr, &t, nullptr); }) },
        { "VoGetErrorText", GivesText([](std::wstring& t) { return VoGetErrorText(E_ACCESSDENIED, false, &t); }) },
        { "VoTypeToVariant", On(New<CVoVariant>(), [](CVoVariant& v) { return VoTypeToVariant(kText, *v.Put()); }, &SeeVariant) },
        { "VoChangeVariantType", On(New<CVoVariant>(), [](CVoVariant& v) { return VoChangeVariantType(*v.Put(), TextVariant().Get(), VT_BSTR, LOCALE_USER_DEFAULT); }, &SeeVariant) },
        { "VoChangeVariantTypeNoLocale", On(New<CVoVariant>(), [](CVoVariant& v) { return VoChangeVariantTypeNoLocale(*v.Put(), TextVariant().Get(), VT_BSTR); }, &SeeVariant) },
        { "VoVariantToTypeNoLocale", GivesText([](std::wstring& t) { return VoVariantToTypeNoLocale(TextVariant().Get(), t); }) },
        { "VoBytesToVariant", On(New<CVoVariant>(), [](CVoVariant& v) { return VoBytesToVariant({ Data(), 20 }, *v.Put()); }, &SeeVariant), true },
        { "CVo2DIDArray::SetSize", On(&Array, [](CVo2DIDArray& a) { return a.SetSize(30, 30); }, &SeeArray) },
        { "CVo2DIDArray::SetCell", On(&Array, [](CVo2DIDArray& a) { return a.SetCell(1, 1, kText, TextVariant().Get()); }, &SeeArray) },
        { "CParamRec::PutParamString", On(New<CParamRec>(), [](CParamRec& r) { return r.PutParamString(kPairs.c_str(), 40); }, [](const CParamRec& r) { return std::wstring(r.ValueView()); }) },
        { "CVoDataParser::AddParam", OnParser([](CVoDataParser& p) { return p.AddParam(kText, kText); }) },
        { "CVoDataParser::AddParam", OnParser([](CVoDataParser& p) { static const CVo2DIDArray array = Array(); return p.AddParam(kText, array); }) },
        { "CVoDataParser::GetParam", GivesText([](std::wstring& t) { return Parameters().GetParam(L"first", t); }) },
        { "CVoDataParser::ReadParamsFromString", On(New<CVoDataParser>(), [](CVoDataParser& p) { return p.ReadParamsFromString(kPairs); }, &SeeParser) },
        { "CVoDataParser::GetParamsAsString", GivesText([](std::wstring& t) { return Parameters().GetParamsAsString(t); }) },
        { "CVoDataParser::ToUTF8AndUrlEncode", On([] { return kText; }, [](std::wstring& t) { return CVoDataParser::ToUTF8AndUrlEncode(true, t); }, &SeeText) },
        { "CVoDataParser::FromUTF8AndUrlEncode", On([] { return kText + L"%20"; }, [](std::wstring& t) { return CVoDataParser::FromUTF8AndUrlEncode(true, t); }, &SeeText) },
        { "CVoDataParser::ConvertParamValuesToUTF8URLEncodedString", OnParser([](CVoDataParser& p) { return p.ConvertParamValuesToUTF8URLEncodedString(true); }) },
        { "CVoDataParser::ConvertParamValuesFromUTF8URLEncodedString", On(
                                                                           []
    {
        CVoBinaryDataParser parser = Parsed();
        Require(SUCCEEDED(parser.ConvertParamValuesToUTF8URLEncodedString(true)), "not encoded");
        return parser;
    }, [](CVoDataParser& p) { return p.ConvertParamValuesFromUTF8URLEncodedString(true); }, &SeeParser) },
        { "CVoBinaryDataParser::Parse", On(New<CVoBinaryDataParser>(),
                                           [](CVoBinaryDataParser& p)
    {
        constexpr std::string_view bytes = "first=a value of some length&b=2&&payload";
        return p.Parse(static_cast<UINT32>(bytes.size()), reinterpret_cast<const BYTE*>(bytes.data()), false, true);
    }, &SeeParser) },
        { "CVoBinaryDataParser::GetMessageData", GivesBytes([](UINT32* n, BYTE** b) { return Parameters().GetMessageData(n, b, false, true); }) },
        { "CVoBinaryDataParser::GetMessageDataWithSizePrefix", GivesBytes([](UINT32* n, BYTE** b) { return Parameters().GetMessageDataWithSizePrefix(n, b, false, true); }) },
        { "CVoBinaryDataParser::GetParamData", GivesBytes([](UINT32* n, BYTE** b) { return Parameters().GetParamData(true, n, b); }) },
        { "CVoBinaryDataParser::internalGetParamData", GivesBytes([](UINT32* n, BYTE** b) { return Parameters().internalGetParamData(true, n, b); }) },
        { "CVoBinaryDataParser::StringToMessageData", GivesBytes([](UINT32* n, BYTE** b) { return CVoBinaryDataParser::StringToMessageData(kText, true, n, b); }) },
        { "CVoBinaryDataParser::SetPayload", On(New<CVoBinaryDataParser>(), [](CVoBinaryDataParser& p)
    { return p.SetPayload(Data(), 20); }, [](const CVoBinaryDataParser& p) { return std::to_wstring(p.Payload().size()); }) },
        { "CVoBinaryDataParser::GetFormMessageData", GivesText(
                                                         [](std::wstring& boundary)
    {
        CVoByteBuffer body;
        const HRESULT hr = Parameters().GetFormMessageData(body.PutLength(), body.PutBytes(), boundary, true);
        if (SUCCEEDED(hr))
            boundary.resize(5); // it is made afresh each time
        return hr;
    }) },
        { "CVoIniFileIO::Parse", OnIni([](CVoIniFileIO& f) { return f.Parse("[A]\r\nanother=file with a longer value\r\n"); }) },
        { "CVoIniFileIO::Open", On(&OnDisk, [](CVoIniFileIO& f) { return f.Open(PathIn(L"file.ini")); }, &SeeIni) },
        { "CVoIniFileIO::Save", On(&OnDisk, [](CVoIniFileIO& f) { return f.Save(); }, [](const auto&) { return Units(ReadTestFile(PathIn(L"file.ini"))); }) },
        { "CVoIniFileIO::SaveAs", On(
                                      []
    {
        std::filesystem::remove(PathIn(L"other.ini"));
        return IniFile();
    }, [](CVoIniFileIO& f) { return f.SaveAs(PathIn(L"other.ini")); },
                                      [](const auto& f) { return f.Path() + Units(ReadTestFile(PathIn(L"other.ini"))); }) },
        { "CVoIniFileIO::GetBytes", On(New<std::string>(), [](std::string& b) { return SomeFile().GetBytes(b); }, &SeeBytes) },
        { "CVoIniFileIO::SetEncoding", OnIni([](CVoIniFileIO& f) { return f.SetEncoding(EVoTextEncoding::Utf16BigEndian); }) },
        { "CVoIniFileIO::GetSectionNames", On(New<std::vector<std::wstring_view>>(), [](auto& n) { return SomeFile().GetSectionNames(n); }, [](const auto& n) { return std::to_wstring(n.size()); }) },
        { "CVoIniFileIO::GetSection", On(New<std::vector<CVoIniEntry>>(), [](auto& e) { return SomeFile().GetSection(L"Second", e); }, [](const auto& e) { return std::to_wstring(e.size()); }) },
        { "CVoIniFileIO::SetValue", OnIni([](CVoIniFileIO& f) { return f.SetValue(L"New section", L"key", kText); }) },
        { "CVoIniFileIO::AddValue", OnIni([](CVoIniFileIO& f) { return f.AddValue(L"Second", L"x", kText); }) },
        { "CVoIniFileIO::RemoveValue", OnIni([](CVoIniFileIO& f) { return f.RemoveValue(L"Second", L"a key that is not there"); }) },
        { "CVoIniFileIO::ClearSection", OnIni([](CVoIniFileIO& f) { return f.ClearSection(L"Second"); }) },
        { "CVoIniFileIO::RemoveSection", OnIni([](CVoIniFileIO& f) { return f.RemoveSection(L"Second"); }) },
        { "VoReadFile", On([] { WriteTestFile(PathIn(L"read.txt"), kIni); return std::string(); }, [](std::string& b) { return VoReadFile(PathIn(L"read.txt"), b); }, &SeeBytes) },
        { "CVoParamHandler::Open", OnParams([](CVoParamHandler& p) { return p.Open(PathIn(L"params.ini")); }) },
        { "CVoParamHandler::Set", OnParams([](CVoParamHandler& p) { return p.Set(L"New section", L"a new key", kText); }) },
        { "CVoParamHandler::Get", GivesText([](std::wstring& t) { return SomeParams().Get(L"First section of the file", L"key", t); }) },
        { "CVoParamHandler::Remove", OnParams([](CVoParamHandler& p) { return p.Remove(L"Second", L"no such"); }) },
        { "CVoParamHandler::Save", On(
                                       []
    {
        auto params = Params();
        Require(SUCCEEDED(params->Set(L"New section", L"a new key", kText)), "not set");
        return params;
    }, [](auto& params) { return params->Save(); },
                                       [](const auto&) { return Units(ReadTestFile(PathIn(L"params.ini"))); }) },
        { "CVoSignedIniFileHandler2::Open", OnSigned([](auto& h) { return h.Open(PathIn(L"params.ini")); }) },
        { "CVoSignedIniFileHandler2::Parse", OnSigned([](auto& h) { return h.Parse("[A]\r\nanother=file with a longer value\r\n"); }) },
        { "CVoSignedIniFileHandler2::GetDataString", GivesText([](std::wstring& t) { return SomeSignedFile().GetDataString(t); }) },
        { "CVoSignedIniFileHandler2::GetSectionDataString", GivesText([](std::wstring& t) { return SomeSignedFile().GetSectionDataString(L"Settings", t); }) },
        { "CVoSignedIniFileHandler2::GetSignedText", GivesText([](std::wstring& t) { return SomeSignedFile().GetSignedText(t); }) },
        { "CVoSignedIniFileHandler2::Verify", OnSigned(
                                                  [](auto& h)
    {
        bool valid = false;
        const HRESULT hr = h.Verify(kKnownPublicKey, valid);
        Require(valid == SUCCEEDED(hr), "valid without success");
        return hr;
    }) },
        { "CVoSignedIniFileHandler2::SignFile", OnSigned([](auto& h) { return h.SignFile(kKnownPrivateKey, 60); }) },
        { "COrvDigitalSignature::SignString", GivesBytes(
                                                  [](UINT32* n, BYTE** b)
    {
        OrvDigSign::COrvSHA256Hash hash;
        return OrvDigSign::COrvDigitalSignature::SignString(Data(), 20, hash, kKnownPrivateKey, b, n);
    }) },
        { "COrvRSAKey::Generate", On(New<std::pair<std::wstring, std::wstring>>(), [](auto& k) { return OrvDigSign::COrvRSAKey::Generate(512, k.first, k.second); },
                                     [](const auto& k) { return std::to_wstring(k.first.empty()) + std::to_wstring(k.second.empty()); }) },
        { "COrvRSAKey::GetPublicKeyFromPrivate", GivesText([](std::wstring& t) { return OrvDigSign::COrvRSAKey::GetPublicKeyFromPrivate(kKnownPrivateKey, t); }) },
        { "HashBytes", GivesBytes([](UINT32* n, BYTE** b) { OrvDigSign::COrvSHA256Hash hash; return OrvDigSign::HashBytes(hash, Data(), 20, b, n); }) },
    };
    // clang-format on
}
} // namespace Stress
