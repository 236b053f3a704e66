// The table of operations that must stand failing allocations and calls (Allocations.cpp): its rows, and what they are made of.
#pragma once

#include "AllocationInjector.h"
#include "Campaign.h"

#include <base/VoDataParser.h>
#include <support/TestMain.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace Stress
{
using namespace TestSupport;

// Does an operation once: gives its result and what is seen afterwards.
struct COutcome
{
    HRESULT hr = E_UNEXPECTED;
    std::wstring seen;
};
using COperation = std::function<COutcome(CInjector&)>;

// An operation on an object, or on an output, that `make` gives. `see` tells its state.
template <class Make, class Operate, class See>
COperation On(const Make& make, const Operate& operate, const See& see)
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

// In a row's faults: an operation has several codes for this fault.
constexpr HRESULT kAnyCode = S_OK;

struct CRow
{
    std::string name;
    COperation operation;
    bool isSilent = false;           // its failures are not reported, as its header says or because its caller reports them
    std::vector<CFault> faults = {}; // beside those of all rows
};

// The parts of the table. Functions: the rows refer to things that do not exist before main.
[[nodiscard]] std::vector<CRow> BaseRows();
[[nodiscard]] std::vector<CRow> HTTPRows();
[[nodiscard]] std::vector<CRow> SendRows();
// The ways in which calls of WinINet fail.
[[nodiscard]] std::vector<CFault> WinINetFaults();

// ---- what rows are made of

inline const std::wstring kText = L"a text that is longer than the room inside of a string object";
inline const std::wstring kPairs = L"first=" + kText + L"&second=2&third=" + kText;
inline const std::string kIni = "[First section of the file]\r\nkey=value and so on\r\n; c\r\n[Second]\r\nx=1\r\n";
inline constexpr std::string_view kData = "the data that is signed";
inline const BYTE* Data()
{
    return reinterpret_cast<const BYTE*>(kData.data());
}
template <class T>
auto New()
{
    return [] { return T(); };
}
inline std::wstring SeeText(const std::wstring& text)
{
    return text;
}
inline std::wstring SeeBytes(const std::string& text)
{
    return Units(text);
}
inline std::wstring SeeLength(const CVoByteBuffer& buffer)
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
inline CVoBinaryDataParser Parsed()
{
    CVoBinaryDataParser parser;
    Require(SUCCEEDED(parser.ReadParamsFromString(kPairs)), "the text is not read");
    return parser;
}
inline const CVoBinaryDataParser& Parameters()
{
    static const CVoBinaryDataParser parser = Parsed();
    return parser;
}
inline std::wstring SeeParser(const CVoDataParser& parser)
{
    std::wstring text;
    for (size_t i = 0; i < parser.GetCount(); ++i)
        text.append(parser.GetAt(i).NameView()).append(L"=").append(parser.GetAt(i).ValueView()).append(L";");
    return text;
}
// A file in the folder of the operations.
[[nodiscard]] inline std::wstring PathIn(const wchar_t* name)
{
    static const std::filesystem::path folder = MakeTestFolder(L"operations");
    return (folder / name).wstring();
}
} // namespace Stress
