// Tests of the COM base class, the property bag and safe arrays.
#include <base/com/VoComHelper.h>
#include <base/com/VoComImplHelper.h>
#include <base/com/VoIUnknown.h>

#include "support/ImportHook.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <array>
#include <thread>

using namespace TestSupport;

namespace
{
class IThing : public IUnknown
{
public:
    virtual HRESULT STDMETHODCALLTYPE GetPropertyTags(SAFEARRAY** tags) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Properties(BSTR name, VARIANT* value) noexcept = 0;
    virtual HRESULT STDMETHODCALLTYPE put_Properties(BSTR name, VARIANT value) noexcept = 0;
};
} // namespace

template <>
struct VoInterfaceId<IThing>
{
    static constexpr IID value{ 0x9B3C1F52, 0x6E0D, 0x4C57, { 0x9A, 0x11, 0x52, 0x1D, 0xE3, 0x6F, 0x0A, 0x77 } };
};
template <>
struct VoInterfaceId<IMarshal>
{
    static constexpr IID value{ 0x00000003, 0x0000, 0x0000, { 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46 } };
};

namespace
{
class CThing : public CVoPropertyBagImpl<CThing, IThing>
{
public:
    explicit CThing(int* alive) : m_alive(alive) { ++*m_alive; }

    static std::span<const CVoProperty<CThing>> PropertyTable() noexcept
    {
        static constexpr CVoProperty<CThing> kTable[] = {
            { L"Number", L"A number.", &CThing::GetNumber, &CThing::PutNumber },
            { L"Broken", L"Fails always.", &CThing::GetBroken, &CThing::PutNumber },
        };
        return kTable;
    }

protected:
    ~CThing() override { --*m_alive; }

private:
    HRESULT GetNumber(VARIANT& value) noexcept
    {
        value = m_number;
        return S_OK;
    }
    // NOLINTNEXTLINE(readability-convert-member-functions-to-static): the table of properties holds member functions.
    HRESULT GetBroken(VARIANT&) noexcept { return E_ABORT; }
    HRESULT PutNumber(const VARIANT& value) noexcept
    {
        m_number = value;
        return value.vt == VT_I4 ? S_OK : DISP_E_TYPEMISMATCH;
    }

    int* m_alive;
    VARIANT m_number{};
};

TEST(ComBase, ThreadsShareOneObjectAndMarshallerAndTheLastReleaseDeletesIt)
{
    ASSERT_TRUE(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    int alive = 0;
    {
        CVoComPtr<CThing> thing = VoMakeComObject<CThing>(&alive);
        std::array<std::thread, 4> threads;
        for (std::thread& thread : threads)
            thread = std::thread([thing]
            {
                for (int round = 0; round < 1000; ++round)
                {
                    // Every interface leads to every other, and to one identity.
                    CVoComPtr<IUnknown> unknown, unknownOfMarshal;
                    CVoComPtr<IMarshal> marshal;
                    CVoComPtr<IThing> back;
                    EXPECT_EQ(thing.As(unknown), S_OK);
                    EXPECT_EQ(unknown.As(marshal), S_OK);
                    EXPECT_EQ(marshal.As(unknownOfMarshal), S_OK);
                    EXPECT_EQ(marshal.As(back), S_OK);
                    EXPECT_TRUE(unknownOfMarshal.Get() == unknown.Get() && back.Get() == thing.Get());
                }
            });
        for (std::thread& thread : threads)
            thread.join();
        const CVoComPtr<CThing> copy = thing;
        thing = copy; // the object held already
        EXPECT_EQ(thing->AddRef(), 3U);
        EXPECT_EQ(thing->Release(), 2U);

        CVoComPtr<IUnknown> kept = thing.Get();
        IUnknown* other = kept.Get();
        EXPECT_EQ(thing->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&other)), E_NOINTERFACE);
        EXPECT_EQ(other, nullptr);
        EXPECT_EQ(thing->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
        EXPECT_EQ(CVoComPtr<IThing>().As(kept), E_POINTER);
        EXPECT_EQ(kept.Get(), thing.Get());
        EXPECT_EQ(alive, 1);
    }
    EXPECT_EQ(alive, 0);
    ::CoUninitialize();
}

TEST(ComBase, PropertyBagListsReadsAndWritesItsTable)
{
    int alive = 0;
    const CVoComPtr<CThing> thing = VoMakeComObject<CThing>(&alive);
    CVoSafeArray tags;
    ASSERT_EQ(thing->GetPropertyTags(tags.Put()), S_OK);
    std::vector<std::wstring> texts;
    EXPECT_EQ(VoSafeArrayToStrings(tags.Get(), texts), S_OK);
    EXPECT_THAT(texts, testing::ElementsAre(L"Number", L"A number.", L"Broken", L"Fails always."));

    const CVoBstr number(L"number"), broken(L"Broken"), unknown(L"Numbe");
    LONG referred = 41;
    VARIANT value{};
    value.vt = VT_I4 | VT_BYREF;
    value.plVal = &referred;
    EXPECT_EQ(thing->put_Properties(number.Get(), value), S_OK);
    EXPECT_EQ(thing->put_Properties(unknown.Get(), value), E_INVALIDARG);
    CVoVariant read;
    ASSERT_EQ(thing->get_Properties(number.Get(), read.Put()), S_OK);
    EXPECT_EQ(thing->get_Properties(unknown.Get(), &read.Get()), E_INVALIDARG);
    EXPECT_EQ(thing->get_Properties(nullptr, &read.Get()), E_INVALIDARG);
    EXPECT_EQ(thing->get_Properties(broken.Get(), &read.Get()), E_ABORT);
    EXPECT_EQ(read.Get().vt, VT_I4);
    EXPECT_EQ(read.Get().lVal, 41);
    value.vt = VT_R8;
    EXPECT_EQ(thing->put_Properties(number.Get(), value), DISP_E_TYPEMISMATCH);
}

TEST(ComValues, OnlyArraysOfBytesBecomeBytes)
{
    std::vector<BYTE> back;
    // An array may count from anywhere; another element type or dimension is refused.
    SAFEARRAYBOUND bounds[] = { { 4, 5 }, { 1, 0 } };
    for (const auto& [type, dimensions, expected] :
         { std::tuple(VT_UI1, 1u, S_OK), { VT_UI1, 2u, DISP_E_TYPEMISMATCH }, { VT_I2, 1u, DISP_E_TYPEMISMATCH } })
    {
        CVoVariant value;
        value.Get().vt = static_cast<VARTYPE>(VT_ARRAY | type);
        value.Get().parray = ::SafeArrayCreate(static_cast<VARTYPE>(type), dimensions, bounds);
        EXPECT_EQ(VoVariantToBytes(value.Get(), back), expected);
        EXPECT_EQ(back.size(), 4U);
    }
}

TEST(ComValues, EveryFailureReleasesTheArray)
{
    const auto balance = CAcquireBalance::Of<decltype(&::SafeArrayCreateVector), decltype(&::SafeArrayDestroy)>(
        "oleaut32.dll", "SafeArrayCreateVector", "SafeArrayDestroy");
    CLogCapture log;
    const BYTE bytes[] = { 1, 2, 3 };
    const auto run = [&]
    {
        VARIANT value{};
        const HRESULT hr = VoBytesToVariant(bytes, value);
        EXPECT_EQ(value.vt, SUCCEEDED(hr) ? VT_ARRAY | VT_UI1 : VT_EMPTY);
        if (SUCCEEDED(hr))
            ::SafeArrayDestroy(value.parray); // VariantClear would do it inside the platform, unseen
        return hr;
    };
    ExpectEveryFailureIsHandled(
        { VO_FAULT_GIVES("oleaut32.dll", SafeArrayCreateVector, nullptr, ERROR_SUCCESS, E_OUTOFMEMORY),
          VO_FAULT_GIVES("oleaut32.dll", SafeArrayAccessData, DISP_E_ARRAYISLOCKED, ERROR_SUCCESS, DISP_E_ARRAYISLOCKED),
          VO_FAULT_GIVES("oleaut32.dll", VariantClear, DISP_E_ARRAYISLOCKED, ERROR_SUCCESS, DISP_E_ARRAYISLOCKED) },
        run, [&](HRESULT code) { return TakeReport(log, code); }, { &balance });
}

TEST(ComValues, TextsAreConvertedToSafeArraysAndBack)
{
    const std::vector<std::wstring_view> texts{ L"a", L"", std::wstring_view(L"b\0c", 3), L"\u20AC", L"e", L"f" };
    for (const UINT32 columns : { 0U, 2U })
    {
        CVoSafeArray array;
        ASSERT_EQ(VoStringsToSafeArray(texts, array, columns), S_OK);
        EXPECT_EQ(::SafeArrayGetDim(array.Get()), columns > 0 ? 2U : 1U);
        std::vector<std::wstring> back{ L"x" };
        EXPECT_EQ(VoSafeArrayToStrings(array.Get(), back), S_OK);
        EXPECT_EQ(back, std::vector<std::wstring>(texts.begin(), texts.end()));
        SAFEARRAY* const before = array.Get();
        EXPECT_EQ(VoStringsToSafeArray(texts, array, 4), E_INVALIDARG);
        EXPECT_EQ(array.Get(), before);
    }
    std::vector<std::wstring> back;
    SAFEARRAYBOUND bounds[] = { { 1, 5 }, { 2, -1 }, { 1, 0 } };
    const CVoSafeArray fromFive(::SafeArrayCreate(VT_BSTR, 2, bounds));
    EXPECT_EQ(VoSafeArrayToStrings(fromFive.Get(), back), S_OK);
    EXPECT_EQ(back, std::vector<std::wstring>(2)) << "null is an empty text";
    const CVoSafeArray numbers(::SafeArrayCreate(VT_I4, 1, bounds));
    const CVoSafeArray cube(::SafeArrayCreate(VT_BSTR, 3, bounds));
    for (SAFEARRAY* const other : { numbers.Get(), cube.Get(), static_cast<SAFEARRAY*>(nullptr) })
        EXPECT_EQ(VoSafeArrayToStrings(other, back), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(back.size(), 2U);
}
} // namespace
