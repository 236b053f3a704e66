// Tests of parameter text, messages and form bodies.
#include <base/VoDataParser.h>

#include <base/VoUtils.h>
#include <support/GuardPage.h>
#include <support/ImportHook.h>
#include <support/LogCapture.h>

#include <gmock/gmock.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

using namespace TestSupport;
using testing::ElementsAre;

namespace
{
using CBytes = std::vector<BYTE>;

constexpr const wchar_t* kSource = L"..\\..\\source\\base\\VoDataParser";
const HRESULT kNotFound = HResultFromWin32(ERROR_NOT_FOUND);

CBytes Bytes(std::string_view text)
{
    return { text.begin(), text.end() };
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

CVoVariant Variant(std::wstring_view text)
{
    CVoVariant variant;
    EXPECT_EQ(VoTypeToVariant(text, variant.Get()), S_OK);
    return variant;
}

CVoVariant Variant(const CBytes& bytes)
{
    CVoVariant variant;
    EXPECT_EQ(VoBytesToVariant(bytes, variant.Get()), S_OK);
    return variant;
}
} // namespace

TEST(DataParser, TheFirstParameterOfANameIsFoundWithoutRegardToCase)
{
    const auto parser = Read<CVoDataParser>(L"Name=1&NAME=2&Stra\u00DFe=3&\u00C4=4");
    std::wstring value = L"old";
    EXPECT_EQ(parser.GetParam(L"nAmE", value), S_OK);
    EXPECT_TRUE(parser.ParamExists(L"\u00E4"));
    const CLogCapture log;
    EXPECT_EQ(parser.GetParam(L"STRASSE", value), kNotFound);
    EXPECT_EQ(value, L"1");
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"CVoDataParser::GetParam", kNotFound)));
}

TEST(DataParser, TypedValuesReadBackAndRefuseOtherText)
{
    CVoDataParser parser;
    EXPECT_EQ(parser.AddParam(L"text", L"$&no digits"), S_OK);
    const auto through = [&](const wchar_t* name, auto value)
    {
        EXPECT_EQ(parser.AddParam(name, value), S_OK);
        auto read = decltype(value){};
        EXPECT_EQ(parser.GetParam(name, read), S_OK);
        EXPECT_EQ(read, value);
        EXPECT_TRUE(FAILED(parser.GetParam(L"text", read)));
        EXPECT_EQ(read, value);
    };
    through(L"high", 0xFFFFFFFFU);
    through(L"word", DWORD{ 0xFFFFFFFE });
    through(L"minus", long{ -3 });
    through(L"integer", INT32{ -4 });
    through(L"number", 1234.5);
    through(L"yes", true);
    EXPECT_EQ(parser.AddParam(L"bytes", Variant(CBytes{ 0xAB, 0x00, 0xCD }).Get()), S_OK);
    EXPECT_EQ(TextOf(parser), L"text=$$$&no digits&high=-1&word=-2&minus=-3&integer=-4&number=1234.5&yes=True&bytes=AB00CD");

    for (const auto& [text, result] : { std::pair(L"4294967295", S_OK), { L"4294967296", DISP_E_OVERFLOW } })
    {
        CVoDataParser number;
        UINT32 value = 0;
        EXPECT_EQ(number.AddParam(L"n", std::wstring_view(text)), S_OK);
        EXPECT_EQ(number.GetParam(L"n", value), result);
        EXPECT_EQ(value, result == S_OK ? 0xFFFFFFFFU : 0U);
    }

    CVoVariant read;
    EXPECT_EQ(parser.GetParam(L"bytes", read.Get(), VT_ARRAY | VT_UI1), S_OK);
    EXPECT_TRUE(FAILED(parser.GetParam(L"text", read.Get()))); // the variant holds bytes, so bytes are asked for
    EXPECT_EQ(V_VT(&read.Get()), VT_ARRAY | VT_UI1);
    EXPECT_EQ(parser.GetParam(L"text", *read.Put()), S_OK); // cleared, so text is
    EXPECT_EQ(CVoBstr::ViewOf(V_BSTR(&read.Get())), L"$&no digits");
}

TEST(DataParser, ATwoDimensionalArrayIsFlattenedAndReadBack)
{
    CVo2DIDArray array;
    ASSERT_EQ(array.SetSize(2, 3), S_OK);
    CVoVariant null;
    V_VT(&null.Get()) = VT_NULL;
    ASSERT_EQ(array.SetCell(0, 0, L"a&b", Variant(L"text").Get()), S_OK);
    ASSERT_EQ(array.SetCell(0, 2, L"", Variant(CBytes{ 0x0F, 0xF0 }).Get()), S_OK);
    ASSERT_EQ(array.SetCell(1, 1, L"null", null.Get()), S_OK);

    CVoDataParser parser;
    ASSERT_EQ(parser.AddParam(L"N", array), S_OK);
    EXPECT_EQ(TextOf(parser), L"N_dim1=2&N_dim2=3"
                              L"&N_empty_0_0=False&N_ID_0_0=a$&b&N_type_0_0=8&N_val_0_0=text&N_empty_0_1=True"
                              L"&N_empty_0_2=False&N_ID_0_2=&N_type_0_2=8209&N_val_0_2=0FF0&N_empty_1_0=True"
                              L"&N_empty_1_1=False&N_ID_1_1=null&N_type_1_1=1&N_val_1_1=&N_empty_1_2=True");

    // Keys are found without regard to case and in any order; what is no cell of this array does not disturb.
    auto received = Read<CVoDataParser>(L"n_VAL_0_0=text&N_ID_00_0=x&N_empty_0_3=False&N__0_0=x&0_0=x&N_ID_0_4294967296=x");
    ASSERT_EQ(received.ReadParamsFromString(TextOf(parser)), S_OK);
    CVo2DIDArray read;
    ASSERT_EQ(received.GetParam(L"n", read), S_OK);
    EXPECT_EQ(read.GetCell(0, 1), nullptr);
    CVoDataParser again;
    const CVo2DIDArray moved = std::move(read);
    EXPECT_EQ(read.GetCell(0, 0), nullptr); // NOLINT(bugprone-use-after-move): it is empty
    ASSERT_EQ(again.AddParam(L"N", moved), S_OK);
    EXPECT_EQ(TextOf(again), TextOf(parser));
}

TEST(DataParser, ArraysWithWrongSizesAreRefused)
{
    const std::wstring size = L"N_dim1=1&N_dim2=1";
    const std::wstring cell = size + L"&N_empty_0_0=False&N_ID_0_0=a&N_type_0_0=";
    const std::pair<std::optional<HRESULT>, std::vector<std::wstring>> cases[] = {
        { kNotFound, { L"N_dim2=1", L"N_dim1=1", size, cell + L"8" } },
        // A type beyond 16 bits, and an odd number of digits.
        { E_INVALIDARG,
          { L"N_dim1=-1&N_dim2=0", L"N_dim1=65536&N_dim2=65536", cell + L"65544&N_val_0_0=", cell + L"8209&N_val_0_0=ABC" } },
        // No integer, no boolean, VT_UNKNOWN.
        { std::nullopt, { L"N_dim1=1&N_dim2=x", size + L"&N_empty_0_0=maybe", cell + L"13&N_val_0_0=x" } },
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
}

TEST(DataParser, ValuesAreUrlEncodedAndDecoded)
{
    constexpr auto kTo = &CVoDataParser::ToUTF8AndUrlEncode;
    constexpr auto kFrom = &CVoDataParser::FromUTF8AndUrlEncode;
    // Nothing where the text is refused and stays.
    const std::tuple<decltype(kTo), bool, std::wstring, std::optional<std::wstring>> cases[] = {
        { kTo, true, L"a b-\u00FC", L"a%20b%2D%C3%BC" },
        { kTo, false, L"a b-\u00FC", L"a%20b%2D%FC" },
        { kTo, true, std::wstring(L"AZaz09._~+\0@[`{/:", 17), L"AZaz09%2E%5F%7E%2B%00%40%5B%60%7B%2F%3A" },
        { kTo, true, L"a\xD83D", {} }, // half a surrogate pair
        { kTo, false, L"\u0100", {} },
        { kFrom, true, L"a+b%20%2d%C3%bc", L"a+b -\u00FC" },
        { kFrom, false, L"%FC%00\u0100", std::wstring(L"\u00FC\0\u0100", 3) },
        // Cut off, no digits, and bytes that are not, or not the shortest, UTF-8.
        { kFrom, true, L"100%", {} },
        { kFrom, true, L"%2G", {} },
        { kFrom, true, L"%\u01312", {} },
        { kFrom, true, L"%C0%80", {} },
    };
    for (const auto& [convert, useUtf8, before, after] : cases)
    {
        std::wstring text = before;
        EXPECT_EQ(SUCCEEDED(convert(useUtf8, text)), after.has_value()) << before;
        EXPECT_EQ(text, after.value_or(before));
    }
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
    EXPECT_EQ(withPrefix(false), std::string("\x05\x03\x01\0x=1&&", 9) + std::string(0x10300, '&'));
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

TEST(BinaryDataParser, MessagesAreParsed)
{
    const std::string mark = "\xEF\xBB\xBF";
    const HRESULT notText = HResultFromWin32(ERROR_NO_UNICODE_TRANSLATION);
    const std::tuple<HRESULT, std::string, std::wstring, std::string> cases[] = {
        { S_OK, "", L"", "" },
        // The parameters: the name is trimmed, the value is not; names are not unescaped, and blank is not empty.
        { S_OK, "=1&x=b=c&", L"&=1&x=b=c", "" },
        { S_OK, " \t x \r\n= 1 &a$&b=$&", L"&x= 1 &a$&b=$&", "" },
        { S_OK, std::string("x=a\0b&y=$$$&z=2", 14), std::wstring(L"&x=a\0b&y=$$$&z=2", 15), "" },
        { E_FAIL, "x=1& &z=2", L"&x=1", "" },
        // What is behind them.
        { S_OK, mark + "a=1&&xyz", L"&a=1", "xyz" },
        { S_OK, "x=1&&&y=2", L"&x=1", "&y=2" },
        { S_OK, "&&p", L"", "p" },
        { S_OK, "x=$&&&p", L"&x=$&", "p" },
        { S_OK, "x=a$&&y=$", L"&x=a$&&y=$$", "" },
        { S_OK, "x=\xC3\xBC&&\xC3", L"&x=\u00FC", "\xC3" },
        { E_FAIL, "x=&$&&p=1", L"&x=", "" }, // "$&&p=1" has no payload: the pair is "$&"
        { E_FAIL, "x=1&novalue&&payload", L"&x=1", "" },
        { notText, "x=1&y=\xC3&&payload", L"", "" },
    };
    for (const auto& [result, text, params, payload] : cases)
    {
        const CGuardedBuffer<BYTE> bytes(Bytes(text));
        CVoBinaryDataParser parser = Read(L"old=1");
        parser.SetPayload(Bytes("old payload"));
        EXPECT_EQ(parser.Parse(static_cast<UINT32>(bytes.Size()), bytes.Data(), false, true), result) << text;
        EXPECT_EQ(TextOf(parser), L"old=1" + params) << text;
        EXPECT_EQ(CBytes(parser.Payload().begin(), parser.Payload().end()), Bytes(payload)) << text;
    }
    EXPECT_EQ(TextOf(Read(L"x=1&&y=2")), L"x=1&y=2") << "in a parameter text, an empty pair";
    auto parser = Read(L"old=1");
    // Its own payload can be parsed.
    parser.SetPayload(Bytes("a=1&&rest"));
    EXPECT_EQ(parser.Parse(1, nullptr, false, true), E_INVALIDARG);
    EXPECT_EQ(parser.Parse(9, parser.Payload().data(), false, true), S_OK);
    EXPECT_EQ(Message(parser), "old=1&a=1&&rest");
    EXPECT_EQ(parser.Parse(Bytes(mark + "a=1"), true, true), S_OK); // all of it is payload
    EXPECT_EQ(Message(parser), "old=1&a=1&&" + mark + "a=1");
}

TEST(DataParser, AVariantOfTwoDimensionsIsFlattened)
{
    SAFEARRAYBOUND bounds[] = { { 2, 5 }, { 2, -1 } };
    CVoVariant numbers;
    V_VT(&numbers.Get()) = VT_ARRAY | VT_I4;
    V_ARRAY(&numbers.Get()) = ::SafeArrayCreate(VT_I4, 2, bounds);
    CVoVariant mixed;
    V_VT(&mixed.Get()) = VT_ARRAY | VT_VARIANT;
    V_ARRAY(&mixed.Get()) = ::SafeArrayCreate(VT_VARIANT, 2, bounds);
    for (LONG row = 0; row < 2; ++row)
        for (LONG column = 0; column < 2; ++column)
        {
            LONG place[] = { 5 + row, column - 1 };
            LONG number = 10 * row + column;
            ASSERT_EQ(::SafeArrayPutElement(V_ARRAY(&numbers.Get()), place, &number), S_OK);
            CVoVariant element;
            if (row == column)
            {
                ASSERT_EQ(VoTypeToVariant(L"t", element.Get()), S_OK);
            }
            ASSERT_EQ(::SafeArrayPutElement(V_ARRAY(&mixed.Get()), place, &element.Get()), S_OK);
        }
    CVoDataParser parser;
    EXPECT_EQ(parser.AddParam(L"N", numbers.Get()), S_OK);
    EXPECT_EQ(parser.AddParam(L"M", mixed.Get()), S_OK);
    CVo2DIDArray read;
    ASSERT_EQ(parser.GetParam(L"N", read), S_OK);
    ASSERT_TRUE(read.Rows() == 2 && read.Columns() == 2);
    EXPECT_EQ(V_I4(&read.GetCell(1, 0)->value.Get()), 10);
    EXPECT_EQ(V_I4(&read.GetCell(0, 1)->value.Get()), 1);
    ASSERT_EQ(parser.GetParam(L"M", read), S_OK);
    EXPECT_EQ(CVoBstr::ViewOf(V_BSTR(&read.GetCell(1, 1)->value.Get())), L"t");
    EXPECT_EQ(read.GetCell(0, 1), nullptr);

    // An array that holds a reference to itself; any array in a cell is refused.
    LONG place[] = { 5, -1 };
    VARIANT reference{};
    V_VT(&reference) = VT_ARRAY | VT_VARIANT | VT_BYREF;
    V_ARRAYREF(&reference) = &V_ARRAY(&mixed.Get());
    ASSERT_EQ(::SafeArrayPutElement(V_ARRAY(&mixed.Get()), place, &reference), S_OK);
    const size_t count = parser.GetCount();
    EXPECT_EQ(parser.AddParam(L"O", mixed.Get()), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(parser.GetCount(), count);
}

TEST(BinaryDataParser, TheStepsOfAMessageAreCallable)
{
    const auto parser = Read(L"x=1");
    CVoByteBuffer bytes;
    EXPECT_EQ(parser.internalGetParamData(true, bytes.PutLength(), bytes.PutBytes()), S_OK);
    EXPECT_EQ(CBytes(bytes.Bytes().begin(), bytes.Bytes().end()), Bytes("x=1&&"));
    EXPECT_EQ(CVoBinaryDataParser::StringToMessageData(L"\u20AC", true, bytes.PutLength(), bytes.PutBytes()), S_OK);
    EXPECT_EQ(CBytes(bytes.Bytes().begin(), bytes.Bytes().end()), Bytes("\xE2\x82\xAC"));
    UINT32 length = 0;
    EXPECT_EQ(CVoBinaryDataParser::StringToMessageData(nullptr, true, &length, nullptr), S_OK);
    EXPECT_EQ(CVoBinaryDataParser::StringToMessageData(L"x", true, nullptr, nullptr), E_INVALIDARG);
}

TEST(BinaryDataParser, ExhaustedMemoryIsReportedAsTheGrowableArraysAndNothingChanges)
{
    const std::wstring pair = L"name=" + std::wstring(100, L'v');
    const CBytes payload(1000);
    CVoBinaryDataParser parser;
    ASSERT_EQ(parser.SetPayload(payload.data(), 3), S_OK);
    CLogCapture log;
    {
        const CFailOnCall<void*(WINAPI*)(size_t)> fail("msvcrt.dll", "malloc", 1, nullptr, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(parser.SetPayload(payload.data(), 1000), kResultNotEnoughMemory);
    }
    EXPECT_EQ(parser.Payload().size(), 3u);
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"CArray<unsigned char,unsigned char>::SetSize", kResultNotEnoughMemory),
                                         IsReportBy(L"CVoBinaryDataParser::SetPayload", kResultNotEnoughMemory)));
    log.Clear();
    CParamRec record(L"old", L"value");
    {
        const CFailOnCall<void*(WINAPI*)(size_t)> fail("msvcrt.dll", "malloc", 1, nullptr, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(record.PutParamString(pair.data(), pair.size()), kResultNotEnoughMemory);
    }
    EXPECT_EQ(record.Name() + record.Value(), L"oldvalue");
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(L"CArray<wchar_t,wchar_t>::SetSize", kResultNotEnoughMemory),
                                         IsReportBy(L"CParamRec::PutParamString", kResultNotEnoughMemory)));
    EXPECT_EQ(record.PutParamString(nullptr, 1), E_INVALIDARG);

    // A copy assignment that fails changes neither the parameters nor the payload.
    CVoBinaryDataParser other = Read(L"a=1");
    ASSERT_EQ(other.SetPayload(payload.data(), 1000), S_OK);
    for (int call = 1;; ++call)
    {
        const CFailOnCall<void*(WINAPI*)(size_t)> fail("msvcrt.dll", "malloc", call, nullptr, ERROR_NOT_ENOUGH_MEMORY);
        try
        {
            parser = other;
            break;
        }
        catch (const std::exception&)
        {
            ASSERT_TRUE(parser.GetCount() == 0 && parser.Payload().size() == 3) << call;
        }
    }
    EXPECT_EQ(parser.Payload().size(), 1000u);
}

TEST(BinaryDataParser, AFailureIsReportedUpTheChainAndLeavesTheOutputs)
{
    const auto parser = Read(L"x=\xD83D");
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
    const CFailOnCall<decltype(&::CoCreateGuid)> fail("ole32.dll", "CoCreateGuid", 1, E_UNEXPECTED, ERROR_SUCCESS);
    EXPECT_EQ(Read(L"x=1").GetFormMessageData(&length, &buffer, boundary, true), E_UNEXPECTED);
    EXPECT_EQ(boundary, L"old");
    EXPECT_TRUE(buffer == nullptr && length == 4711U);
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
        EXPECT_EQ(boundary.find_first_not_of(L"0123456789ABCDEF", boundary.find_first_not_of(L'-')), std::wstring::npos);
        EXPECT_NE(std::exchange(previous, boundary), boundary);
        std::string expected;
        for (const char c : body)
            expected += c == '#'   ? "--" + std::string(boundary.begin(), boundary.end())
                        : c == '<' ? "\r\nContent-Disposition: form-data; name=\""
                                   : std::string(1, c == '>' ? '"' : c);
        EXPECT_EQ(std::string(bytes.Bytes().begin(), bytes.Bytes().end()), expected);
    }
}
