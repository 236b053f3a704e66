#include <base/com/VoComHelper.h>
#include <base/com/VoComImplHelper.h>
#include <base/com/VoIUnknown.h>

#include <gmock/gmock.h>

#include <array>
#include <thread>

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
        value.vt = VT_I4;
        value.lVal = m_number;
        return S_OK;
    }
    HRESULT GetBroken(VARIANT&) noexcept { return E_ABORT; }
    HRESULT PutNumber(const VARIANT& value) noexcept
    {
        if (value.vt != VT_I4)
            return DISP_E_TYPEMISMATCH;
        m_number = value.lVal;
        return S_OK;
    }

    int* m_alive;
    LONG m_number = 7;
};

class ComBase : public ::testing::Test
{
protected:
    ComBase() { EXPECT_TRUE(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED))); }
    ~ComBase() override
    {
        EXPECT_EQ(m_alive, 0);
        ::CoUninitialize();
    }

    int m_alive = 0;
};

TEST_F(ComBase, InterfaceQueryKeepsTheIdentityOfTheObject)
{
    const CVoComPtr<CThing> thing = VoMakeComObject<CThing>(&m_alive);
    CVoComPtr<IUnknown> unknown, unknownOfMarshal;
    CVoComPtr<IThing> same, thingOfMarshal;
    CVoComPtr<IMarshal> marshal;
    ASSERT_EQ(thing.As(unknown), S_OK);
    ASSERT_EQ(unknown.As(same), S_OK);
    ASSERT_EQ(unknown.As(marshal), S_OK);
    ASSERT_EQ(marshal.As(unknownOfMarshal), S_OK);
    ASSERT_EQ(marshal.As(thingOfMarshal), S_OK);
    EXPECT_EQ(unknownOfMarshal.Get(), unknown.Get());
    EXPECT_EQ(same.Get(), thing.Get());
    EXPECT_EQ(thingOfMarshal.Get(), thing.Get());

    CVoComPtr<IUnknown> kept = unknown;
    IUnknown* other = unknown.Get();
    EXPECT_EQ(thing->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&other)), E_NOINTERFACE);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(thing->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
    EXPECT_EQ(CVoComPtr<IThing>().As(kept), E_POINTER);
    EXPECT_EQ(kept.Get(), unknown.Get());
}

TEST_F(ComBase, MarshalsToAnotherApartmentWithoutAProxy)
{
    const CVoComPtr<CThing> thing = VoMakeComObject<CThing>(&m_alive);
    CVoComPtr<IStream> stream;
    ASSERT_EQ(::CoMarshalInterThreadInterfaceInStream(kVoInterfaceId<IThing>, thing.Get(), stream.Put()), S_OK);
    const auto receive = [&]
    {
        ASSERT_TRUE(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
        CVoComPtr<IThing> arrived;
        EXPECT_EQ(::CoGetInterfaceAndReleaseStream(stream.Detach(), kVoInterfaceId<IThing>, arrived.PutVoid()), S_OK);
        EXPECT_EQ(arrived.Get(), thing.Get());
        arrived.Reset();
        ::CoUninitialize();
    };
    std::thread(receive).join();
}

TEST_F(ComBase, ThreadsShareOneObjectAndOneMarshallerAndTheLastReferenceEndsIt)
{
    CVoComPtr<CThing> thing = VoMakeComObject<CThing>(&m_alive);
    EXPECT_EQ(m_alive, 1);
    std::array<std::thread, 4> threads;
    for (std::thread& thread : threads)
        thread = std::thread(
            [thing]
            {
                for (int round = 0; round < 1000; ++round)
                {
                    CVoComPtr<IMarshal> marshal;
                    CVoComPtr<IThing> back;
                    EXPECT_EQ(thing.As(marshal), S_OK);
                    EXPECT_EQ(marshal.As(back), S_OK);
                }
            });
    for (std::thread& thread : threads)
        thread.join();
    const CVoComPtr<CThing> copy = thing;
    thing = copy; // the object held already
    EXPECT_EQ(thing->AddRef(), 3U);
    EXPECT_EQ(thing->Release(), 2U);
}

TEST_F(ComBase, PropertyBagListsReadsAndWritesItsTable)
{
    const CVoComPtr<CThing> thing = VoMakeComObject<CThing>(&m_alive);
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
    CVoVariant read;
    ASSERT_EQ(thing->get_Properties(number.Get(), read.Put()), S_OK);
    EXPECT_EQ(read.Get().vt, VT_I4);
    EXPECT_EQ(read.Get().lVal, 41);

    EXPECT_EQ(thing->get_Properties(unknown.Get(), &read.Get()), E_INVALIDARG);
    EXPECT_EQ(thing->get_Properties(nullptr, &read.Get()), E_INVALIDARG);
    EXPECT_EQ(thing->get_Properties(broken.Get(), &read.Get()), E_ABORT);
    EXPECT_EQ(read.Get().lVal, 41);
    EXPECT_EQ(thing->put_Properties(unknown.Get(), value), E_INVALIDARG);
    value.vt = VT_R8;
    EXPECT_EQ(thing->put_Properties(number.Get(), value), DISP_E_TYPEMISMATCH);
}

TEST(ComValues, BytesTravelInVariants)
{
    std::vector<BYTE> back{ 1, 2, 3 };
    for (const std::vector<BYTE>& bytes : { std::vector<BYTE>(), std::vector<BYTE>(100000, 7) })
    {
        CVoVariant value;
        ASSERT_EQ(VoBytesToVariant(bytes, value.Get()), S_OK);
        EXPECT_EQ(VoVariantToBytes(value.Get(), back), S_OK);
        EXPECT_EQ(back, bytes);
    }
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

TEST(ComValues, TextsTravelInSafeArrays)
{
    const std::vector<std::wstring_view> texts{ L"a", L"", std::wstring_view(L"b\0c", 3), L"\u20AC", L"e", L"f" };
    const std::vector<std::wstring> copies(texts.begin(), texts.end());
    for (const UINT32 columns : { 0U, 1U, 2U, 3U, 6U })
    {
        CVoSafeArray array;
        ASSERT_EQ(VoStringsToSafeArray(texts, array, columns), S_OK);
        EXPECT_EQ(::SafeArrayGetDim(array.Get()), columns > 0 ? 2U : 1U);
        std::vector<std::wstring> back{ L"x" };
        EXPECT_EQ(VoSafeArrayToStrings(array.Get(), back), S_OK);
        EXPECT_EQ(back, copies);
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
