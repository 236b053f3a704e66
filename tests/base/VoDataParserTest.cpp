// Tests of parameter text, messages and form bodies.
#include <base/VoDataParser.h>

#include <base/VoUtils.h>
#include <support/ImportHook.h>
#include <support/LogCapture.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

using namespace TestSupport;
using testing::ElementsAre;

namespace
{
using CBytes = std::vector<BYTE>;

constexpr const wchar_t* kDataParserSource = L"..\\..\\source\\base\\VoDataParser";
const HRESULT kNotFound = HResultFromWin32(ERROR_NOT_FOUND);

CBytes BytesOf(std::string_view text)
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

TEST(BinaryDataParser, AMessageIsAddedToWhatTheParserHas)
{
    auto parser = Read(L"old=1");
    // Its own payload can be parsed.
    parser.SetPayload(BytesOf("a=1&&rest"));
    EXPECT_EQ(parser.Parse(1, nullptr, false, true), E_INVALIDARG);
    EXPECT_EQ(parser.Parse(9, parser.Payload().data(), false, true), S_OK);
    EXPECT_EQ(TextOf(parser), L"old=1&a=1");
    EXPECT_TRUE(std::ranges::equal(parser.Payload(), BytesOf("rest")));
    // A malformed message adds the pairs in front of the fault, and its payload is empty.
    EXPECT_EQ(parser.Parse(BytesOf("x=1&novalue&&payload"), false, true), E_FAIL);
    EXPECT_EQ(TextOf(parser), L"old=1&a=1&x=1");
    EXPECT_TRUE(parser.Payload().empty());
}

TEST(BinaryDataParser, ALargePayloadThatWasCopiedHasRoomForAHead)
{
    const CBytes large(size_t{ 64 } * 1024, BYTE{ 7 });
    CVoBinaryDataParser copied;
    ASSERT_EQ(copied.SetPayload(large.data(), static_cast<UINT32>(large.size())), S_OK);
    const auto join = [](const CVoBinaryDataParser& parser, size_t head)
    {
        const std::string text(head, 'h');
        const auto joined = parser.JoinPayload(text);
        CBytes expected = BytesOf(text);
        expected.insert(expected.end(), parser.Payload().begin(), parser.Payload().end());
        EXPECT_TRUE(joined.Bytes().empty() || std::ranges::equal(joined.Bytes(), expected));
        return !joined.Bytes().empty();
    };
    // A head that fits, once the one before is gone.
    EXPECT_FALSE(join(copied, 4097));
    for (const size_t head : { size_t{ 4096 }, size_t{ 2 } })
        EXPECT_TRUE(join(copied, head)) << head;
    // While a head is in the room, only a copy has room for another.
    {
        const auto joined = copied.JoinPayload("x");
        EXPECT_FALSE(join(copied, 1));
        EXPECT_TRUE(join(CVoBinaryDataParser(copied), 1));
        EXPECT_EQ(joined.Bytes().front(), 'x');
    }
    EXPECT_TRUE(std::ranges::equal(copied.Payload(), large));
    EXPECT_EQ(copied.TakePayload(), large);
    EXPECT_FALSE(join(copied, 1));

    CVoBinaryDataParser other;
    other.SetPayload(CBytes(large));
    EXPECT_FALSE(join(other, 1));
    ASSERT_EQ(other.SetPayload(large.data(), 100), S_OK);
    EXPECT_FALSE(join(other, 1));
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
                            IsReport(kDataParserSource, 739, L"CVoBinaryDataParser::StringToMessageData", expected),
                            IsReport(kDataParserSource, 749, L"CVoBinaryDataParser::internalGetParamData", expected),
                            IsReport(kDataParserSource, 778, L"CVoBinaryDataParser::GetMessageData", expected),
                            IsReport(kDataParserSource, 804, L"CVoBinaryDataParser::GetMessageDataWithSizePrefix", expected)));
    const CFailOnCall<decltype(&::CoCreateGuid)> fail("ole32.dll", "CoCreateGuid", 1, E_UNEXPECTED, ERROR_SUCCESS);
    EXPECT_EQ(Read(L"x=1").GetFormMessageData(&length, &buffer, boundary, true), E_UNEXPECTED);
    EXPECT_EQ(boundary, L"old");
    EXPECT_TRUE(buffer == nullptr && length == 4711U);
}
