// Makes memory and the platform fail at every place of the public operations: the first, the second, ... allocation that an
// operation makes, then the calls of the platform that it makes. Whatever fails: the operation fails with a report, or gives
// what it gives undisturbed; an object that failed is as it was and works again; nothing leaks.
//
// tools/check-operations compares the table's names with the public headers.
#include "Campaign.h"

#include <VoCookieData.h>
#include <VoGlobalHTTPCookieStoreImpl.h>
#include <VoGlobalHTTPProxyStoreImpl.h>
#include <VoHTTPMessage.h>
#include <VoNetworkUtils.h>
#include <VoServerAddress.h>
#include <base/Vo2DIDArray.h>
#include <base/VoDataParser.h>
#include <base/VoErrorHandler.h>
#include <base/VoErrorText.h>
#include <base/VoReportChain.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>
#include <support/HTTPSupport.h>
#include <support/ImportHook.h>
#include <support/KeyPairs.h>
#include <support/TestMain.h>
#include <win/OrvDigSign.h>
#include <win/OrvSignedIniFileHandler.h>
#include <win/VoFile.h>
#include <win/VoParamHandler.h>
#include <win/VoWMIValue.h>

#include <gtest/gtest.h>

#include <malloc.h>

#include <functional>

namespace Stress
{
namespace
{
using namespace TestSupport;

// Counts the blocks of this thread, and fails one allocation of the operation.
class CInjector
{
public:
    // The number of the allocation that fails; 0: none.
    void Begin(int failing) noexcept
    {
        m_failing = failing;
        m_count = 0;
        m_blocks = 0;
        m_isFirst = true;
        m_chain.Clear();
        m_isCounting = true;
    }
    void End() noexcept { m_isCounting = false; }
    [[nodiscard]] HRESULT Run(const std::function<HRESULT()>& operation)
    {
        // The platform frees the texts of variants itself, so only the program's own blocks are counted.
        const CVoReportScope scope(&m_chain);
        // Only the operation meets the fault, not what is done in front of it and behind it; and only its first try.
        const bool isFirst = std::exchange(m_isFirst, false);
        std::unique_ptr<CFailingCall> fault;
        if (isFirst && m_fault)
        {
            m_isCounting = false;
            fault = m_fault->inject(m_faultCall);
            m_isCounting = true;
        }
        m_isInside = isFirst;
        HRESULT hr = E_UNEXPECTED;
        try
        {
            hr = operation();
        }
        catch (const std::bad_alloc&)
        {
            hr = E_OUTOFMEMORY; // of a function that says so
            VoReportCode(L"..\\stress", 1, L"caught", hr);
        }
        m_isInside = false;
        if (fault)
        {
            m_isCounting = false;
            m_faultCalls = fault->Calls();
            fault.reset();
            m_isCounting = true;
        }
        return hr;
    }
    // The call of the platform's function that fails, too; 0: none, they are counted. Null: no function.
    void SetFault(const CFault* fault, int call) noexcept
    {
        m_fault = fault;
        m_faultCall = call;
        m_faultCalls = 0;
    }
    [[nodiscard]] int FaultCalls() const noexcept { return m_faultCalls; }
    [[nodiscard]] bool HasFailed() const noexcept { return m_failing > 0 && m_count >= m_failing; }
    [[nodiscard]] int Blocks() const noexcept { return m_blocks; }
    // What the first report and the first exception of a thread make stays: it is made before anything fails.
    void MakeRoom()
    {
        try
        {
            throw std::bad_alloc();
        }
        catch (const std::bad_alloc&)
        {
            VoReportCode(L"..\\stress", 1, L"MakeRoom", E_OUTOFMEMORY);
        }
        for (size_t i = 0; i < CVoReportChain::kMaximum; ++i)
            m_chain.Add({});
        m_chain.Clear();
    }
    [[nodiscard]] std::vector<CVoReport> Reports() const { return m_chain.Get(); }

private:
    [[nodiscard]] bool IsMine() const noexcept { return m_isCounting && ::GetCurrentThreadId() == m_thread; }
    [[nodiscard]] bool Fails() noexcept { return IsMine() && m_isInside && ++m_count == m_failing; }
    void* Count(void* memory) noexcept
    {
        m_blocks += memory && IsMine();
        return memory;
    }

    const DWORD m_thread = ::GetCurrentThreadId();
    bool m_isCounting = false;
    bool m_isInside = false;
    bool m_isFirst = false;
    const CFault* m_fault = nullptr;
    int m_faultCall = 0;
    int m_faultCalls = 0;
    int m_failing = 0;
    int m_count = 0;
    int m_blocks = 0;
    CVoReportChain m_chain;
    CCallHook<void*(WINAPI*)(size_t)> m_malloc{ "msvcrt.dll", "malloc", [this](auto original, size_t size)
    { return Fails() ? nullptr : Count(original(size)); } };
    // libcurl's own, which are counted only.
    CCallHook<void*(WINAPI*)(size_t, size_t)> m_calloc{ "msvcrt.dll", "calloc", [this](auto original, size_t count, size_t size)
    { return Count(original(count, size)); } };
    CCallHook<void*(WINAPI*)(void*, size_t)> m_realloc{ "msvcrt.dll", "realloc",
                                                        [this](auto original, void* memory, size_t size)
    { return memory ? original(memory, size) : Count(original(memory, size)); } };
    CCallHook<char*(WINAPI*)(const char*)> m_strdup{ "msvcrt.dll", "_strdup", [this](auto original, const char* text)
    { return static_cast<char*>(Count(original(text))); } };
    CCallHook<void(WINAPI*)(void*)> m_free{ "msvcrt.dll", "free", [this](auto original, void* memory)
    {
        m_blocks -= memory && IsMine();
        original(memory);
    } };
    CCallHook<decltype(&::SysAllocStringLen)> m_text{ "oleaut32.dll", "SysAllocStringLen",
                                                      [this](auto original, auto text, UINT size)
    { return Fails() ? nullptr : original(text, size); } };
};

// Does an operation once: gives its result and what is seen afterwards.
struct COutcome
{
    HRESULT hr = E_UNEXPECTED;
    std::wstring seen;
};
using COperation = std::function<COutcome(CInjector&)>;

// An operation on an object, or on an output, that `make` gives. `see` tells its state.
template <class Make, class Operate, class See>
COperation On(Make make, Operate operate, See see)
{
    return [=](CInjector& injector) -> COutcome
    {
        auto object = make();
        const std::wstring before = see(object);
        const HRESULT hr = injector.Run([&] { return operate(object); });
        if (FAILED(hr))
        {
            Require(see(object) == before, "a failed operation changed the object or an output");
            Require(SUCCEEDED(operate(object)), "the object does not work again");
        }
        return { hr, see(object) };
    };
}

const std::wstring kText = L"a text that is longer than the room inside of a string object";
const std::wstring kPairs = L"first=" + kText + L"&second=2&third=" + kText;
const std::string kIni = "[First section of the file]\r\nkey=value and so on\r\n; c\r\n[Second]\r\nx=1\r\n";

template <class T>
auto New()
{
    return [] { return T(); };
}
std::wstring SeeText(const std::wstring& text)
{
    return text;
}
std::wstring SeeBytes(const std::string& text)
{
    return Units(text);
}
std::wstring SeeLength(const CVoByteBuffer& buffer)
{
    return std::to_wstring(buffer.Length());
}
// A function with a text as its output.
template <class Operate>
COperation GivesText(Operate operate)
{
    return On(New<std::wstring>(), operate, &SeeText);
}
template <class Operate>
COperation GivesBytes(Operate operate)
{
    return On(New<CVoByteBuffer>(), [operate](CVoByteBuffer& b) { return operate(b.PutLength(), b.PutBytes()); }, &SeeLength);
}
auto Parsed()
{
    CVoBinaryDataParser parser;
    Require(SUCCEEDED(parser.ReadParamsFromString(kPairs)), "the text is not read");
    return parser;
}
std::wstring SeeParser(const CVoDataParser& parser)
{
    std::wstring text;
    for (size_t i = 0; i < parser.GetCount(); ++i)
        text.append(parser.GetAt(i).NameView()).append(L"=").append(parser.GetAt(i).ValueView()).append(L";");
    return text;
}
template <class Operate>
COperation OnParser(Operate operate)
{
    return On(&Parsed, operate, &SeeParser);
}
const CVoBinaryDataParser& Parameters()
{
    static const CVoBinaryDataParser parser = Parsed();
    return parser;
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
auto Cookies()
{
    auto store = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
    Require(SUCCEEDED(store->AddCookieFromString(CVoBstr(L"name=value").Get(), CVoBstr(L"https://host.test/").Get())),
            "no cookie");
    return store;
}
auto Proxies()
{
    auto store = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
    CHTTPProxyConfigData config;
    config.manualProxy = L"a-proxy-with-a-long-name.test:8080";
    Require(SUCCEEDED(store->Init(config)), "no proxy");
    return store;
}
template <class Store>
std::wstring SeeStore(const CVoComPtr<Store>& store)
{
    return Serialized(*store.Get());
}
// BSTRs that an operation takes are made outside.
const CVoBstr& Url()
{
    static const CVoBstr url(L"https://host.test/a/path/to/something");
    return url;
}
template <class Operate>
COperation OnCookies(Operate operate)
{
    return On(&Cookies, operate, &SeeStore<CVoGlobalHTTPCookieStoreImpl>);
}
template <class Operate>
COperation OnProxies(Operate operate)
{
    return On(&Proxies, operate, &SeeStore<CVoGlobalHTTPProxyStoreImpl>);
}
std::wstring PathIn(const wchar_t* name)
{
    static const std::filesystem::path folder = MakeTestFolder(L"operations");
    return (folder / name).wstring();
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
std::wstring SeeAddress(const CServerAddressData& address)
{
    return address.FullURL();
}
CServerAddressData AnAddress()
{
    CServerAddressData address;
    Require(SUCCEEDED(address.SetAddress(L"https://host.test:81/path", true, true, true)), "no address");
    return address;
}
std::wstring SeeCookie(const CVoCookieData& cookie)
{
    return cookie.domain + cookie.path + cookie.name + cookie.value;
}
constexpr std::string_view kData = "the data that is signed";
const BYTE* Data()
{
    return reinterpret_cast<const BYTE*>(kData.data());
}
using VoNetworkUtils::CVoIPAddress;

// A message over libcurl, which works on the caller's thread. The other transports work on threads of the platform, too.
Message Connected()
{
    Message message;
    Require(SUCCEEDED(ConnectTo(L"http://127.0.0.1:9/", {}, message)), "not connected");
    return message;
}
std::wstring SeeMessage(const Message& message)
{
    return message ? L"connected" : L"";
}
// One message serves all runs, so that what its connection keeps is made once.
template <class Operate>
COperation OnRequest(Operate operate)
{
    return On(
        []
    {
        static const Message message = Connected();
        return message;
    }, [operate](const Message& message)
    {
        Request request;
        const HRESULT hr = message->OpenRequest(request);
        return FAILED(hr) ? hr : operate(*message, request);
    }, &SeeMessage);
}

struct CRow
{
    const char* name;
    COperation operation;
    bool isSilent = false; // its failures are not reported, as its header says or because its caller reports them
    bool keeps = false;    // libcurl keeps memory of its handles, so that blocks tell nothing
};

// A function: the table's parts refer to things that do not exist before main.
std::vector<CRow> Table()
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
        { "COrvRSAKey::GetPublicKeyFromPrivate", GivesText([](std::wstring& t) { return OrvDigSign::COrvRSAKey::GetPublicKeyFromPrivate(kKnownPrivateKey, t); }) },
        { "HashBytes", GivesBytes([](UINT32* n, BYTE** b) { OrvDigSign::COrvSHA256Hash hash; return OrvDigSign::HashBytes(hash, Data(), 20, b, n); }) },
        { "CServerAddressData::SetAddress", On(&AnAddress, [](auto& a)
    { return a.SetAddress(L"http://another-host.test/another/path?query", true, true, true); }, &SeeAddress) },
        { "CServerAddressData::SetObjectPath", On(&AnAddress, [](auto& a) { return a.SetObjectPath(L"/another/path/to/nowhere?query"); }, &SeeAddress) },
        { "CServerAddressData::Rebuild", On(&AnAddress, [](auto& a) { return a.Rebuild(); }, &SeeAddress) },
        { "CVoIPAddress::InitFromIPAddress", On(New<CVoIPAddress>(), [](CVoIPAddress& a) { return a.InitFromIPAddress(L"2001:db8::1:2:3:4"); }, [](const CVoIPAddress& a) { return a.Text(); }) },
        { "CVoCookieRequest::FromUrl", On(New<CVoCookieRequest>(), [](auto& r) { return CVoCookieRequest::FromUrl(Url().View(), r); }, [](const auto& r) { return r.host + r.path; }) },
        { "CVoCookieData::CreateCookieFromString", On(New<CVoCookieData>(),
                                                      [](auto& c)
    {
        return CVoCookieData::CreateCookieFromString(L"a long name=a long value of it; Path=/path/of/it",
                                                     { L"host.test", L"/path/of/it", false, true }, 45000, c);
    }, &SeeCookie) },
        { "CVoCookieData::SerializeCookie", GivesText([](std::wstring& t) { CVoCookieData cookie; cookie.domain = L"host.test"; cookie.path = L"/"; cookie.name = L"n"; return cookie.SerializeCookie(t); }) },
        { "CVoGlobalHTTPCookieStoreImpl::AddCookieFromString", OnCookies(
                                                                   [](auto& s)
    {
        static const CVoBstr cookie(L"a long name=a long value of the cookie");
        return s->AddCookieFromString(cookie.Get(), Url().Get());
    }) },
        { "CVoGlobalHTTPCookieStoreImpl::GetCookieStringForHTTPRequest", OnCookies([](auto& s) { CVoBstr cookies; return s->GetCookieStringForHTTPRequest(Url().Get(), VARIANT_TRUE, cookies.Put()); }) },
        { "CVoGlobalHTTPCookieStoreImpl::Serialize", OnCookies([](auto& s) { CVoBstr data; return s->Serialize(data.Put()); }) },
        { "CVoGlobalHTTPCookieStoreImpl::Deserialize", OnCookies([](auto& s) { static const CVoBstr data(Serialized(*Cookies().Get())); return s->Deserialize(data.Get()); }) },
        { "CVoGlobalHTTPProxyStoreImpl::Init", OnProxies(
                                                   [](auto& s)
    {
        static const CHTTPProxyConfigData config = []
        {
            CHTTPProxyConfigData data;
            data.manualProxy = L"http=another-proxy.test:81;https=a-third-proxy.test:82";
            return data;
        }();
        return s->Init(config);
    }) },
        { "CVoGlobalHTTPProxyStoreImpl::SetAuthDataForProxy", OnProxies(
                                                                  [](auto& s)
    {
        static const CVoBstr proxy(L"a-proxy-with-a-long-name.test:8080");
        static const CVoBstr user(L"a user with a long name");
        return s->SetAuthDataForProxy(proxy.Get(), user.Get(), user.Get(), VARIANT_TRUE, VARIANT_TRUE);
    }) },
        { "CVoGlobalHTTPProxyStoreImpl::Serialize", OnProxies([](auto& s) { CVoBstr data; return s->Serialize(data.Put()); }) },
        { "CVoGlobalHTTPProxyStoreImpl::Deserialize", OnProxies([](auto& s) { static const CVoBstr data(Serialized(*Proxies().Get())); return s->Deserialize(data.Get()); }) },
        { "CVoGlobalHTTPProxyStoreImpl::GetProxyForUrl", On(&Proxies,
                                                            [](auto& s)
    {
        CVoBstr proxy, user, password;
        return s->GetProxyForUrl(Url().Get(), proxy.Put(), user.Put(), password.Put());
    }, [](const auto&) { return std::wstring(); }) },
        { "CreateGlobalHTTPCookieStoreForModule",
          On(New<CVoComPtr<IVoHTTPCookieStore>>(), [](auto& s) { return CreateGlobalHTTPCookieStoreForModule(s.Put()); },
             [](const auto& s) { return std::to_wstring(s.Get() != nullptr); }) },
        { "CVoHTTPMessage::Connect", On(New<Message>(),
                                        [](Message& m)
    {
        static const CServerAddressData address = AnAddress();
        return CVoHTTPMessage::Connect(2, address, nullptr, nullptr, nullptr, 5, 5, false, false, m);
    }, &SeeMessage) },
        { "CVoHTTPMessage::OpenRequest", OnRequest([](CVoHTTPMessage&, Request&) { return S_OK; }), false, true },
        { "CVoHTTPMessage::SignMessage", On(
                                             []
    {
        CVoByteBuffer body;
        Require(SUCCEEDED(Parameters().GetParamData(true, body.PutLength(), body.PutBytes())), "no body");
        return body;
    }, [](CVoByteBuffer& b) { return CVoHTTPMessage::SignMessage(true, b, kKnownPrivateKey, L"signature"); }, &SeeLength) },
        { "CVoHTTPMessage::CreateContentDigest", GivesText([](std::wstring& t) { return CVoHTTPMessage::CreateContentDigest({ Data(), 20 }, t); }) },
        { "CVoHTTPMessage::CreateSignatureBase", On(New<std::string>(), [](std::string& b) { return CVoHTTPMessage::CreateSignatureBase(kText, 20, kText, b); }, &SeeBytes) },
        { "CVoHTTPMessage::internalParseMultipleResponses", On(New<std::vector<CVoBinaryDataParser>>(),
                                                               [](auto& r)
    {
        static const std::string bytes("\x05\0\0\0a=1&&\x07\0\0\0b=2&&xy", 20);
        return CVoHTTPMessage::internalParseMultipleResponses({ reinterpret_cast<const BYTE*>(bytes.data()), bytes.size() },
                                                              true, 0, r);
    }, [](const auto& r) { return std::to_wstring(r.size()); }) },
    };
    // clang-format on
}

// Ways in which the platform fails beside a lack of memory.
std::vector<CFault> Faults()
{
    return {
        VO_FAULT("kernel32.dll", CreateFileW, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED),
        VO_FAULT("kernel32.dll", ReadFile, FALSE, ERROR_READ_FAULT),
        VO_FAULT("kernel32.dll", WriteFile, FALSE, ERROR_DISK_FULL),
        VO_FAULT("kernel32.dll", GetFileSizeEx, FALSE, ERROR_IO_DEVICE),
        VO_FAULT("kernel32.dll", FlushFileBuffers, FALSE, ERROR_IO_DEVICE),
        VO_FAULT("kernel32.dll", MoveFileExW, FALSE, ERROR_SHARING_VIOLATION),
        VO_FAULT("kernel32.dll", GetFullPathNameW, 0U, ERROR_NOT_ENOUGH_MEMORY),
        VO_FAULT("kernel32.dll", WideCharToMultiByte, 0, ERROR_INVALID_PARAMETER),
        VO_FAULT("kernel32.dll", MultiByteToWideChar, 0, ERROR_INVALID_PARAMETER),
        VO_FAULT("kernel32.dll", GetModuleFileNameW, 0U, ERROR_INVALID_HANDLE),
        VO_FAULT("advapi32.dll", CryptAcquireContextW, FALSE, static_cast<DWORD>(NTE_PROV_DLL_NOT_FOUND)),
        VO_FAULT("advapi32.dll", CryptImportKey, FALSE, static_cast<DWORD>(NTE_BAD_KEY)),
        VO_FAULT("advapi32.dll", CryptCreateHash, FALSE, static_cast<DWORD>(NTE_BAD_ALGID)),
        VO_FAULT("advapi32.dll", CryptHashData, FALSE, static_cast<DWORD>(NTE_FAIL)),
        VO_FAULT("advapi32.dll", CryptSignHashW, FALSE, static_cast<DWORD>(NTE_FAIL)),
        VO_FAULT("advapi32.dll", CryptGetHashParam, FALSE, static_cast<DWORD>(NTE_FAIL)),
        VO_FAULT("advapi32.dll", CryptExportKey, FALSE, static_cast<DWORD>(NTE_FAIL)),
    };
}

class COperationsTest final : public testing::Test
{
public:
    void TestBody() override
    {
        const std::vector<CRow> table = Table();
        const std::vector<CFault> faults = Faults();
        size_t allocations = 0;
        size_t calls = 0;
        CInjector injector;
        injector.MakeRoom();
        CRounds rounds(static_cast<unsigned>(table.size()), static_cast<unsigned>(table.size()));
        while (rounds.Next() && rounds.Round() < table.size())
        {
            const CRow& row = table[rounds.Round()];
            try
            {
                // The first run makes what stays.
                (void)Run(injector, row, 0, nullptr, 0, nullptr);
                const CRun expected = Run(injector, row, 0, nullptr, 0, nullptr);
                for (int failing = 1; Run(injector, row, failing, nullptr, 0, &expected), injector.HasFailed(); ++failing)
                    ++allocations;
                for (const CFault& fault : faults)
                {
                    (void)Run(injector, row, 0, &fault, 0, &expected);
                    for (int call = 1, all = injector.FaultCalls(); call <= all; ++call, ++calls)
                        (void)Run(injector, row, 0, &fault, call, &expected);
                }
            }
            catch (const std::exception& exception)
            {
                ADD_FAILURE() << row.name << ": " << exception.what() << " " << m_what << "; repeat: " << rounds.Command();
            }
        }
        for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(PathIn(L"x")).parent_path()))
            EXPECT_NE(entry.path().extension(), L".tmp") << "a temporary file stays";
        std::printf("stress: %zu operations, %zu failed allocations, %zu failed calls\n", table.size(), allocations, calls);
    }

private:
    struct CRun
    {
        std::wstring seen;
        int blocks = 0; // that the operation and its checks left
    };

    // Without `expected` the operation is not disturbed.
    // NOLINTNEXTLINE(misc-no-recursion): the number of attempts bounds it
    CRun Run(CInjector& injector, const CRow& row, int failing, const CFault* fault, int call, const CRun* expected,
             int attempt = 0)
    {
        // Handles are counted where one may be lost.
        const DWORD handles = call != 0 ? CountProcessHandles() : 0;
        m_what = fault ? "when call " + std::to_string(call) + " of " + fault->function + " fails"
                       : "when allocation " + std::to_string(failing) + " fails";
        injector.SetFault(fault, call);
        injector.Begin(failing);
        COutcome outcome = row.operation(injector);
        const int blocks = injector.Blocks();
        injector.End();
        const std::vector<CVoReport> reports = injector.Reports();
        CRun run{ std::move(outcome.seen), blocks };
        Require(expected || SUCCEEDED(outcome.hr), "it fails undisturbed");
        Require(SUCCEEDED(outcome.hr) || row.isSilent || (!reports.empty() && reports.back().code == outcome.hr),
                "the failure is not reported");
        // An operation that failed was done once more.
        Require(!expected || run.seen == expected->seen, "the result is another one");
        if (expected && !row.keeps && run.blocks != expected->blocks)
            throw CBroken("memory leaks: " + std::to_string(run.blocks - expected->blocks) + " blocks");
        // Threads that other tests left may open one meanwhile, but not each time.
        constexpr int kAttempts = 4;
        if (call != 0 && CountProcessHandles() > handles)
        {
            Require(attempt < kAttempts, "a handle leaks");
            return Run(injector, row, failing, fault, call, expected, attempt + 1);
        }
        return run;
    }

    std::string m_what;
};

const bool kRegistered = []
{
    testing::RegisterTest("Allocations", "operations", nullptr, nullptr, __FILE__, __LINE__, []() -> testing::Test*
    {
        return std::make_unique<COperationsTest>().release(); // the framework deletes it
    });
    return true;
}();
} // namespace
} // namespace Stress
