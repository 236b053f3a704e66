#include <base/VoDataParser.h>

#include <base/VoUtils.h>
#include <support/GuardPage.h>
#include <support/ImportHook.h>
#include <support/LogCapture.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <vector>

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{
using CBytes = std::vector<BYTE>;
using CPairs = std::vector<std::pair<std::wstring, std::wstring>>;

constexpr const wchar_t* kSource = L"..\\..\\source\\base\\VoDataParser";
const HRESULT kNotFound = HResultFromWin32(ERROR_NOT_FOUND);

CBytes Bytes(std::string_view text)
{
    return { text.begin(), text.end() };
}

CPairs PairsOf(const CVoDataParser& parser)
{
    CPairs pairs;
    for (size_t i = 0; i < parser.GetCount(); ++i)
        pairs.emplace_back(parser.GetAt(i).Name(), parser.GetAt(i).Value());
    return pairs;
}

std::wstring TextOf(const CVoDataParser& parser)
{
    std::wstring text;
    EXPECT_EQ(parser.GetParamsAsString(text), S_OK);
    return text;
}

// A parser with the pairs of a parameter text.
template <class CParser = CVoBinaryDataParser>
CParser Read(std::wstring_view text)
{
    CParser parser;
    EXPECT_EQ(parser.ReadParamsFromString(text), S_OK);
    return parser;
}

// What a builder of bodies hands out; checks that the length alone is the same.
template <class TBuild>
std::string Built(TBuild build)
{
    CVoByteBuffer bytes;
    UINT32 lengthAlone = 0;
    EXPECT_EQ(build(bytes.PutLength(), bytes.PutBytes()), S_OK);
    EXPECT_EQ(build(&lengthAlone, static_cast<BYTE**>(nullptr)), S_OK);
    EXPECT_EQ(lengthAlone, bytes.Length());
    return { bytes.Bytes().begin(), bytes.Bytes().end() };
}

std::string Message(const CVoBinaryDataParser& parser, bool skipParams = false, bool useUtf8 = true)
{
    return Built([&](UINT32* length, BYTE** buffer) { return parser.GetMessageData(length, buffer, skipParams, useUtf8); });
}

// The laid-down order: every "$&" first, then every "$$".
std::wstring UnescapeInTwoSteps(std::wstring text)
{
    for (const auto& [from, to] : { std::pair(L"$&", L"&"), std::pair(L"$$", L"$") })
        for (size_t at = text.find(from); at != std::wstring::npos; at = text.find(from, at + 1))
            text.replace(at, 2, to);
    return text;
}

CVoVariant Variant(std::wstring_view text)
{
    CVoVariant variant;
    EXPECT_EQ(VoTypeToVariant(text, variant.Get()), S_OK);
    return variant;
}
} // namespace

TEST(DataParser, ParameterTextIsReadByItsGrammar)
{
    struct CCase
    {
        std::wstring text;
        HRESULT result;
        CPairs pairs;
    };
    const CCase cases[] = {
        { L"", S_OK, {} },
        { L"&&&", S_OK, {} },
        { L"x=1&&y=2", S_OK, { { L"x", L"1" }, { L"y", L"2" } } },
        { L"&x=a$&b$$c&", S_OK, { { L"x", L"a&b$c" } } },
        { L"x=a&b=c=d", S_OK, { { L"x", L"a" }, { L"b", L"c=d" } } },
        { L"=1", S_OK, { { L"", L"1" } } },
        { L" \t x \r\n= 1 ", S_OK, { { L"x", L" 1 " } } }, // the name is trimmed, the value is not
        { L"x=$$&y=2", S_OK, { { L"x", L"$" }, { L"y", L"2" } } },
        { L"x=$$$&y=2", S_OK, { { L"x", L"$&y=2" } } },
        { L"x=$", S_OK, { { L"x", L"$" } } },       // an escape at the end
        { L"x=$a$$", S_OK, { { L"x", L"$a$" } } },  // an escaped ordinary character keeps its "$"
        { L"a$&b=1", S_OK, { { L"a$&b", L"1" } } }, // names are not unescaped
        { std::wstring(L"x=a\0b&y=1", 9), S_OK, { { L"x", std::wstring(L"a\0b", 3) }, { L"y", L"1" } } },
        { L"x=1&y&z=2", E_FAIL, { { L"x", L"1" } } },
        { L"x=1& &z=2", E_FAIL, { { L"x", L"1" } } }, // blank is not empty
    };
    for (const CCase& c : cases)
        for (const EGuard guard : { EGuard::Behind, EGuard::InFront })
        {
            const CGuardedBuffer<wchar_t> text(c.text, guard);
            CVoDataParser parser;
            EXPECT_EQ(parser.ReadParamsFromString(text.View()), c.result) << testing::PrintToString(c.text);
            EXPECT_EQ(PairsOf(parser), c.pairs) << testing::PrintToString(c.text);
        }
}

TEST(DataParser, EveryValueReadsBackAndUnescapingIsThatOfTwoReplacements)
{
    std::mt19937 random(11);
    constexpr std::wstring_view kAlphabet = L"$$$&&=a \u00FC";
    const auto text = [&]
    {
        std::wstring made;
        for (size_t size = random() % 12; made.size() < size;)
            made += kAlphabet[random() % kAlphabet.size()];
        return made;
    };
    for (int round = 0; round < 3000; ++round)
    {
        CVoDataParser parser;
        for (int i = 0; i < 4; ++i)
            ASSERT_EQ(parser.AddParam(L"n" + std::to_wstring(i), text()), S_OK);
        ASSERT_EQ(PairsOf(Read<CVoDataParser>(TextOf(parser))), PairsOf(parser)) << testing::PrintToString(TextOf(parser));

        // Any text at all, also such as no writer makes.
        const std::wstring value = text();
        CParamRec record;
        ASSERT_EQ(record.PutParamString((L"x=" + value).c_str(), value.size() + 2), S_OK);
        ASSERT_EQ(record.Value(), UnescapeInTwoSteps(value)) << testing::PrintToString(value);
    }
}

TEST(DataParser, TheFirstParameterOfANameIsFoundWithoutRegardToCase)
{
    const auto parser = Read<CVoDataParser>(L"Name=1&NAME=2&Stra\u00DFe=3&\u00C4=4");
    std::wstring value = L"old";
    EXPECT_EQ(parser.GetParam(L"nAmE", value), S_OK);
    EXPECT_EQ(value, L"1");
    EXPECT_TRUE(parser.ParamExists(L"\u00E4"));
    EXPECT_FALSE(parser.ParamExists(L"STRASSE"));
    EXPECT_FALSE(parser.ParamExists(L"Nam"));
    CLogCapture log;
    EXPECT_EQ(parser.GetParam(L"missing", value), kNotFound);
    EXPECT_EQ(value, L"1");
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"CVoDataParser::GetParam", kNotFound)));
}

TEST(DataParser, TypedValuesReadBackAndRefuseOtherText)
{
    CVoDataParser parser;
    const auto through = [&](const wchar_t* name, auto value)
    {
        EXPECT_EQ(parser.AddParam(name, value), S_OK);
        auto read = decltype(value){};
        EXPECT_EQ(parser.GetParam(name, read), S_OK);
        EXPECT_EQ(read, value);
        EXPECT_TRUE(FAILED(parser.GetParam(L"text", read)));
        EXPECT_EQ(read, value);
    };
    EXPECT_EQ(parser.AddParam(L"text", L"$&no number"), S_OK);
    through(L"high", 0xFFFFFFFFU);
    through(L"number", 1234.5);
    through(L"yes", true);
    EXPECT_EQ(parser.AddParam(L"low", -5), S_OK);
    EXPECT_EQ(parser.AddParam(L"n$&", static_cast<const wchar_t*>(nullptr)), S_OK);
    EXPECT_EQ(TextOf(parser), L"text=$$$&no number&high=-1&number=1234.5&yes=True&low=-5&n$&=");
}

TEST(DataParser, VariantsAreDispatchedOnTheirType)
{
    CVoVariant bytes;
    ASSERT_EQ(VoBytesToVariant(CBytes{ 0xAB, 0x00, 0xCD }, bytes.Get()), S_OK);
    CVoVariant date;
    V_VT(&date.Get()) = VT_DATE;
    V_DATE(&date.Get()) = 43831.5;
    CVoDataParser parser;
    EXPECT_EQ(parser.AddParam(L"bytes", bytes.Get()), S_OK);
    EXPECT_EQ(parser.AddParam(L"date", date.Get()), S_OK);
    EXPECT_EQ(parser.AddParam(L"text", Variant(L"a&b").Get()), S_OK);
    EXPECT_EQ(parser.GetAt(0).Value(), L"AB00CD");

    CVoVariant read;
    CBytes content;
    EXPECT_EQ(parser.GetParam(L"bytes", read.Get(), VT_ARRAY | VT_UI1), S_OK);
    EXPECT_EQ(VoVariantToBytes(read.Get(), content), S_OK);
    EXPECT_EQ(content, (CBytes{ 0xAB, 0x00, 0xCD }));
    EXPECT_EQ(parser.GetParam(L"date", read.Get(), VT_DATE), S_OK);
    EXPECT_TRUE(FAILED(parser.GetParam(L"text", read.Get()))); // the variant holds a date, so a date is asked for
    EXPECT_EQ(V_DATE(&read.Get()), 43831.5);
    EXPECT_EQ(parser.GetParam(L"text", *read.Put()), S_OK); // cleared, so text is
    EXPECT_EQ(CVoBstr::ViewOf(V_BSTR(&read.Get())), L"a&b");
}

TEST(DataParser, ATwoDimensionalArrayIsFlattenedAndReadBack)
{
    CVo2DIDArray array;
    ASSERT_EQ(array.SetSize(2, 3), S_OK);
    CVoVariant bytes;
    ASSERT_EQ(VoBytesToVariant(CBytes{ 0x0F, 0xF0 }, bytes.Get()), S_OK);
    CVoVariant null;
    V_VT(&null.Get()) = VT_NULL;
    ASSERT_EQ(array.SetCell(0, 0, L"a&b", Variant(L"text").Get()), S_OK);
    ASSERT_EQ(array.SetCell(0, 2, L"", bytes.Get()), S_OK);
    ASSERT_EQ(array.SetCell(1, 1, L"null", null.Get()), S_OK);
    EXPECT_EQ(array.SetCell(2, 0, L"outside", null.Get()), E_INVALIDARG);
    EXPECT_EQ(array.GetCell(0, 3), nullptr);

    CVoDataParser parser;
    ASSERT_EQ(parser.AddParam(L"N", array), S_OK);
    EXPECT_EQ(TextOf(parser), L"N_dim1=2&N_dim2=3"
                              L"&N_empty_0_0=False&N_ID_0_0=a$&b&N_type_0_0=8&N_val_0_0=text&N_empty_0_1=True"
                              L"&N_empty_0_2=False&N_ID_0_2=&N_type_0_2=8209&N_val_0_2=0FF0&N_empty_1_0=True"
                              L"&N_empty_1_1=False&N_ID_1_1=null&N_type_1_1=1&N_val_1_1=&N_empty_1_2=True");

    // Keys are found without regard to case and in any order; what is no cell of this array does not disturb.
    CVoDataParser received = Read<CVoDataParser>(L"n_VAL_0_0=text&N_ID_00_0=x&N_ID_0_9=x&N__0_0=x&0_0=x&N_ID_0_4294967296=x");
    ASSERT_EQ(received.ReadParamsFromString(TextOf(parser)), S_OK);
    CVo2DIDArray read;
    ASSERT_EQ(received.GetParam(L"n", read), S_OK);
    EXPECT_EQ(read.GetCell(0, 1), nullptr);
    CVoDataParser again;
    ASSERT_EQ(again.AddParam(L"N", read), S_OK);
    EXPECT_EQ(TextOf(again), TextOf(parser));

    // What cannot be flattened appends nothing.
    V_VT(&null.Get()) = VT_UNKNOWN;
    V_UNKNOWN(&null.Get()) = nullptr;
    ASSERT_EQ(array.SetCell(1, 2, L"id", std::move(null)), S_OK);
    EXPECT_TRUE(FAILED(parser.AddParam(L"M", array)));
    EXPECT_EQ(TextOf(parser), TextOf(again));
}

TEST(DataParser, ArraysThatLieAreRefused)
{
    const std::wstring size = L"N_dim1=1&N_dim2=1";
    const std::wstring cell = size + L"&N_empty_0_0=False&N_ID_0_0=a&N_type_0_0=";
    const std::pair<std::optional<HRESULT>, std::vector<std::wstring>> cases[] = {
        { kNotFound, { L"N_dim2=1", L"N_dim1=1", size, cell + L"8" } },
        { E_INVALIDARG,
          { L"N_dim1=-1&N_dim2=1", L"N_dim1=-1&N_dim2=0", L"N_dim1=2147483647&N_dim2=2147483647",
            L"N_dim1=65536&N_dim2=65536" } },
        // VT_BSTR above 16 bits, and an odd number of digits.
        { E_INVALIDARG, { cell + L"65544&N_val_0_0=", cell + L"8209&N_val_0_0=ABC" } },
        // No integer, no 32-bit integer, no boolean, a value by reference, VT_UNKNOWN.
        { std::nullopt,
          { L"N_dim1=1&N_dim2=x", L"N_dim1=4000000000&N_dim2=1", size + L"&N_empty_0_0=maybe", cell + L"16392&N_val_0_0=x",
            cell + L"13&N_val_0_0=x" } },
    };
    for (const auto& [result, texts] : cases)
        for (const std::wstring& text : texts)
        {
            CVo2DIDArray array;
            ASSERT_EQ(array.SetSize(7, 7), S_OK);
            const HRESULT hr = Read<CVoDataParser>(text).GetParam(L"N", array);
            EXPECT_TRUE(FAILED(hr) && hr == result.value_or(hr)) << testing::PrintToString(text) << hr;
            EXPECT_EQ(array.Rows(), 7U);
        }
    CVo2DIDArray array;
    EXPECT_EQ(Read<CVoDataParser>(L"N_dim1=0&N_dim2=2147483647").GetParam(L"N", array), S_OK); // no cells at all
    EXPECT_EQ(array.Columns(), 2147483647U);
}

TEST(DataParser, ValuesAreUrlEncodedAndDecoded)
{
    constexpr auto kTo = &CVoDataParser::ToUTF8AndUrlEncode;
    constexpr auto kFrom = &CVoDataParser::FromUTF8AndUrlEncode;
    const std::tuple<decltype(kTo), bool, std::wstring, std::wstring> cases[] = {
        { kTo, true, L"a b-\u00FC", L"a%20b%2D%C3%BC" },
        { kTo, false, L"a b-\u00FC", L"a%20b%2D%FC" },
        { kTo, true, std::wstring(L"AZaz09._~+\0@[`{/:", 17), L"AZaz09%2E%5F%7E%2B%00%40%5B%60%7B%2F%3A" },
        { kFrom, true, L"a+b%20%2d%C3%bc", L"a+b -\u00FC" },
        { kFrom, false, L"%FC%00\u0100", std::wstring(L"\u00FC\0\u0100", 3) },
        { kFrom, true, L"\u00FC%20", L"\u00FC " },
        { kFrom, true, L"\xD83D", L"\xD83D" }, // nothing to decode
    };
    for (const auto& [convert, useUtf8, before, after] : cases)
    {
        std::wstring text = before;
        EXPECT_EQ(convert(useUtf8, text), S_OK);
        EXPECT_EQ(text, after);
    }
    const auto refuses = [](auto convert, bool useUtf8, const wchar_t* before, const wchar_t* function)
    {
        CLogCapture log;
        std::wstring text = before;
        EXPECT_TRUE(FAILED(convert(useUtf8, text))) << before;
        EXPECT_EQ(text, before);
        EXPECT_EQ(log.Lines().back().function, function);
    };
    refuses(kTo, true, L"a\xD83D", L"CVoDataParser::ToUTF8AndUrlEncode"); // half a surrogate pair
    refuses(kTo, false, L"\u0100", L"CVoDataParser::ToUTF8AndUrlEncode");
    // Cut off, no digits, and bytes that are not, or not the shortest, UTF-8.
    for (const wchar_t* text : { L"100%", L"100%2", L"%2G", L"%+1", L"%\u01312", L"%C3", L"%C0%80" })
        refuses(kFrom, true, text, L"CVoDataParser::FromUTF8AndUrlEncode");
}

TEST(DataParser, ConvertingAllValuesIsAllOrNothing)
{
    auto parser = Read<CVoDataParser>(L"a=1 2&b=\u00FC");
    EXPECT_EQ(parser.ConvertParamValuesToUTF8URLEncodedString(true), S_OK);
    EXPECT_EQ(TextOf(parser), L"a=1%202&b=%C3%BC");
    ASSERT_EQ(parser.AddParam(L"c", L"%"), S_OK);
    CLogCapture log;
    EXPECT_EQ(parser.ConvertParamValuesFromUTF8URLEncodedString(true), E_FAIL);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"CVoDataParser::FromUTF8AndUrlEncode", E_FAIL),
                                         IsReportBy(L"CVoDataParser::ConvertParamValuesFromUTF8URLEncodedString", E_FAIL)));
    EXPECT_EQ(TextOf(parser), L"a=1%202&b=%C3%BC&c=%");
}

TEST(DataParser, CopiesAreIndependentAndMovesLeaveNothing)
{
    auto parser = Read<CVoBinaryDataParser>(L"a=1&b=2");
    ASSERT_EQ(parser.SetPayload(reinterpret_cast<const BYTE*>("xyz"), 3), S_OK);
    CVoBinaryDataParser copy(parser);
    ASSERT_EQ(copy.AddParam(L"c", L"3"), S_OK);
    EXPECT_EQ(Message(parser), "a=1&b=2&&xyz");
    parser = std::move(copy);
    parser = *&parser;
    EXPECT_EQ(Message(parser), "a=1&b=2&c=3&&xyz");
    EXPECT_EQ(Message(copy), "&&"); // NOLINT(bugprone-use-after-move): what a move leaves is the question
}

TEST(BinaryDataParser, MessagesAreBuiltByteForByte)
{
    auto parser = Read(L"x=1");
    const auto withPrefix = [&](bool skipParams)
    {
        return Built([&](UINT32* length, BYTE** buffer)
                     { return parser.GetMessageDataWithSizePrefix(length, buffer, skipParams, true); });
    };
    EXPECT_EQ(withPrefix(false), std::string("\x05\0\0\0x=1&&", 9));
    EXPECT_EQ(withPrefix(true), std::string("\0\0\0\0", 4));
    parser.SetPayload(CBytes(0x10300, BYTE{ '&' }));
    EXPECT_EQ(withPrefix(false).substr(0, 10), std::string("\x05\x03\x01\0x=1&&&", 10));
    EXPECT_EQ(Message(parser, true), std::string(0x10300, '&'));

    parser = Read(L"\u00FC=\u00E4&b=$&$$");
    EXPECT_EQ(Message(parser), "\xC3\xBC=\xC3\xA4&b=$&$$&&");
    EXPECT_EQ(Built([&](UINT32* length, BYTE** buffer) { return parser.GetParamData(true, length, buffer); }),
              "\xC3\xBC=\xC3\xA4&b=$&$$");
    if (::GetACP() == 1252)
    {
        EXPECT_EQ(Message(parser, false, false), "\xFC=\xE4&b=$&$$&&");
    }
}

TEST(BinaryDataParser, MessagesAreTakenApart)
{
    const std::string mark = "\xEF\xBB\xBF";
    const HRESULT notText = HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION);
    const std::tuple<HRESULT, std::string, std::wstring, std::string> cases[] = {
        { S_OK, "", L"", "" },
        { S_OK, mark, L"", "" },
        { S_OK, mark + "a=1&&xyz", L"&a=1", "xyz" },
        { S_OK, "x=1&&&y=2", L"&x=1", "&y=2" },
        { S_OK, "x=1&&", L"&x=1", "" },
        { S_OK, "x=1&", L"&x=1", "" },
        { S_OK, "&&p", L"", "p" },
        { S_OK, "x=$&&&p", L"&x=$&", "p" },
        { S_OK, "x=$$&&p", L"&x=$$", "p" },
        { S_OK, "x=a$&&y=$", L"&x=a$&&y=$$", "" },
        { S_OK, "x=\xC3\xBC&&\xC3", L"&x=\u00FC", "\xC3" },
        { E_FAIL, "x=&$&&p=1", L"&x=", "" }, // "$&&p=1" has no payload: the pair is "$&"
        { E_FAIL, "x=1&novalue&&payload", L"&x=1", "" },
        { notText, "x=1&y=\xC3&&payload", L"", "" },
        { notText, "x=\xFF\xFE&&p", L"", "" },
    };
    for (const auto& [result, text, params, payload] : cases)
    {
        const CBytes bytes = Bytes(text);
        const CGuardedBuffer<BYTE> guarded(bytes, EGuard::Behind);
        CVoBinaryDataParser copying = Read(L"old=1");
        CVoBinaryDataParser taking = Read(L"old=1");
        copying.SetPayload(Bytes("old payload"));
        taking.SetPayload(Bytes("old payload"));
        CBytes taken = bytes;
        EXPECT_EQ(copying.Parse(static_cast<UINT32>(bytes.size()), guarded.Data(), false, true), result) << text;
        EXPECT_EQ(taking.Parse(std::move(taken), false, true), result) << text;
        if (FAILED(result))
        {
            EXPECT_EQ(taken, bytes); // NOLINT(bugprone-use-after-move): untouched on failure
        }
        for (const CVoBinaryDataParser* parser : { &copying, &taking })
        {
            EXPECT_EQ(TextOf(*parser), L"old=1" + params) << text;
            EXPECT_EQ(CBytes(parser->Payload().begin(), parser->Payload().end()), Bytes(payload)) << text;
        }
    }
    auto parser = Read(L"old=1");
    // Its own payload can be parsed.
    parser.SetPayload(Bytes("a=1&&rest"));
    EXPECT_EQ(parser.Parse(1, nullptr, false, true), E_INVALIDARG);
    EXPECT_EQ(parser.Parse(9, parser.Payload().data(), false, true), S_OK);
    EXPECT_EQ(Message(parser), "old=1&a=1&&rest");
    EXPECT_EQ(parser.Parse(Bytes(mark + "a=1"), true, true), S_OK); // all of it is payload
    EXPECT_EQ(Message(parser), "old=1&a=1&&" + mark + "a=1");
}

TEST(BinaryDataParser, ALargePayloadMovesWithinItsBuffer)
{
    constexpr std::string_view kText = "x=1&&";
    CBytes bytes(kText.size() + 10'000'000, BYTE{ 7 });
    std::copy(kText.begin(), kText.end(), bytes.begin());
    const BYTE* const place = bytes.data();
    CVoBinaryDataParser parser;
    ASSERT_EQ(parser.Parse(std::move(bytes), false, true), S_OK);
    EXPECT_EQ(parser.Payload().data(), place);
    EXPECT_EQ(parser.Payload().size(), 10'000'000U);
    EXPECT_EQ(parser.TakePayload().data(), place);
    EXPECT_THAT(parser.Payload(), IsEmpty());
}

TEST(BinaryDataParser, AFailureIsReportedUpTheChainAndLeavesTheOutputs)
{
    auto parser = Read(L"x=\xD83D");
    const HRESULT expected = HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION);
    BYTE* buffer = nullptr;
    UINT32 length = 4711;
    std::wstring boundary = L"old";
    CLogCapture log;
    EXPECT_EQ(parser.GetMessageDataWithSizePrefix(&length, &buffer, false, true), expected);
    EXPECT_THAT(log.Lines(),
                ElementsAre(IsReportBy(L"VoStringToUTF8", expected),
                            IsReport(kSource, 739, L"CVoBinaryDataParser::StringToMessageData", expected),
                            IsReport(kSource, 749, L"CVoBinaryDataParser::internalGetParamData", expected),
                            IsReport(kSource, 778, L"CVoBinaryDataParser::GetMessageData", expected),
                            IsReport(kSource, 804, L"CVoBinaryDataParser::GetMessageDataWithSizePrefix", expected)));
    EXPECT_EQ(parser.GetFormMessageData(&length, &buffer, boundary, true), expected);
    log.Clear();
    const CFailOnCall<decltype(&::CoCreateGuid)> fail("ole32.dll", "CoCreateGuid", 1, E_UNEXPECTED, ERROR_SUCCESS);
    EXPECT_EQ(parser.GetFormMessageData(&length, &buffer, boundary, true), E_UNEXPECTED);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReport(kSource, 815, L"CVoBinaryDataParser::GetFormMessageData", E_UNEXPECTED)));
    EXPECT_EQ(boundary, L"old");
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(length, 4711U);
}

TEST(BinaryDataParser, MultipartBodiesAreBuiltByteForByte)
{
    // "#" stands for a boundary, "<" and ">" for what is in front of a field's name and behind it.
    const std::pair<std::wstring, std::string> cases[] = {
        { L"a=\u00FC&$&=x", "#<a>\r\n\r\n\xC3\xBC\r\n#<$&>\r\n\r\nx\r\n#--" },
        { L"filename=&CONTENTTYPE=text/plain", "#--" }, // without a file name the payload is not sent
        { L"filename=p.jpg&a=1",
          "#<a>\r\n\r\n1\r\n#<file>; filename=\"p.jpg\"\r\nContent-Type: image/pjpeg\r\n\r\npayload\r\n#--" },
        { L"FileName=x&ContentType=a; b=\"c\"", "#<file>; filename=\"x\"\r\nContent-Type: a; b=\"c\"\r\n\r\npayload\r\n#--" },
        // Nothing in a text can end a header line or the text's quotes.
        { L"a\"\r\nX: y=1&FileName=\"\r\n\r\nevil&ContentType=t\r\nX: y",
          "#<a%22%0D%0AX: y>\r\n\r\n1\r\n#<file>; filename=\"%22%0D%0A%0D%0Aevil\"\r\nContent-Type: t%0D%0AX: "
          "y\r\n\r\npayload\r\n#--" },
    };
    std::wstring previous;
    for (const auto& [params, body] : cases)
    {
        auto parser = Read(params);
        parser.SetPayload(Bytes("payload"));
        CVoByteBuffer bytes;
        std::wstring boundary;
        ASSERT_EQ(parser.GetFormMessageData(bytes.PutLength(), bytes.PutBytes(), boundary, true), S_OK);
        EXPECT_EQ(boundary.size(), 41U);
        EXPECT_EQ(boundary.substr(0, 27), std::wstring(27, L'-'));
        EXPECT_EQ(boundary.find_first_not_of(L"0123456789ABCDEF", 27), std::wstring::npos);
        EXPECT_NE(std::exchange(previous, boundary), boundary);
        std::string expected;
        for (const char c : body)
            expected += c == '#'   ? "--" + std::string(boundary.begin(), boundary.end())
                        : c == '<' ? "\r\nContent-Disposition: form-data; name=\""
                                   : std::string(1, c == '>' ? '"' : c);
        EXPECT_EQ(std::string(bytes.Bytes().begin(), bytes.Bytes().end()), expected);
    }
}
