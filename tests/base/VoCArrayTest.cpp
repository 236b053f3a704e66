// Tests of the growable array.
#include <base/VoCArray.h>
#include <base/VoDataParser.h>

#include <support/LogCapture.h>

#include <gmock/gmock.h>

#include <limits>
#include <string>

using namespace TestSupport;
using testing::ElementsAre;

TEST(CArray, InsertsAndRemovesAnywhere)
{
    CArray<std::wstring> array;
    EXPECT_EQ(array.Add(L"b"), S_OK);
    EXPECT_EQ(array.InsertAt(0, L"a"), S_OK);
    EXPECT_EQ(array.InsertAt(3, L"d"), S_OK); // behind the end: grows up to it
    EXPECT_EQ(array.InsertAt(std::numeric_limits<size_t>::max(), L"x"), kResultNotEnoughMemory);
    EXPECT_THAT(array, ElementsAre(L"a", L"b", L"", L"d"));

    array.RemoveAt(2);
    array.RemoveAt(7);
    array.RemoveAt(2, std::numeric_limits<size_t>::max());
    EXPECT_THAT(array, ElementsAre(L"a", L"b"));

    EXPECT_EQ(array.SetSize(1), S_OK);
    EXPECT_EQ(array.SetSize(3), S_OK);
    EXPECT_THAT(array, ElementsAre(L"a", L"", L""));
}

namespace
{
template <class Type>
void ExpectRefusal(const wchar_t* name)
{
    CArray<Type, Type> array;
    ASSERT_EQ(array.SetSize(2), S_OK);
    CLogCapture log;
    EXPECT_EQ(array.SetSize(std::numeric_limits<size_t>::max()), static_cast<HRESULT>(0x80070008));
    EXPECT_EQ(array.SetSize(std::numeric_limits<size_t>::max() / 8), static_cast<HRESULT>(0x80070008));
    EXPECT_THAT(log.Lines(), ElementsAre(IsReportBy(name, kResultNotEnoughMemory), IsReportBy(name, kResultNotEnoughMemory)));
    EXPECT_EQ(array.GetSize(), 2U);
}
} // namespace

TEST(CArray, KeepsItsItemsAndReportsItsNameWhenMemoryIsExhausted)
{
    ExpectRefusal<CParamRec*>(L"CArray<class CParamRec *,class CParamRec *>::SetSize");
    ExpectRefusal<unsigned char>(L"CArray<unsigned char,unsigned char>::SetSize");
    ExpectRefusal<wchar_t>(L"CArray<wchar_t,wchar_t>::SetSize");
}
