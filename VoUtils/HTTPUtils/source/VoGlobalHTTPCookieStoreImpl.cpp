// Keeps the cookies of the process behind a lock (VoGlobalHTTPCookieStoreImpl.h).
#include <VoGlobalHTTPCookieStoreImpl.h>

#include "VoCookieMap.h"

#include <base/VoDataParser.h>
#include <base/VoErrorHandler.h>

#include <algorithm>

namespace
{
constexpr const wchar_t* kCookieStoreSource = L"..\\source\\VoGlobalHTTPCookieStoreImpl";

// The name of each cookie in the serialised store.
constexpr const wchar_t* kCookieKey = L"Cookie";

constexpr std::wstring_view kCookieSeparator = L"; ";

// Writes the value of the Cookie header straight into the BSTR that is handed out. Null when memory is exhausted.
BSTR MakeCookieString(const std::vector<const CVoCookieRecord*>& cookies) noexcept
{
    size_t length = 0;
    for (const CVoCookieRecord* const cookie : cookies)
        length += cookie->Name().size() + 1 + cookie->Value().size() + kCookieSeparator.size();
    // The store's limits keep the length far below that of the longest BSTR.
    const BSTR text = ::SysAllocStringLen(nullptr, static_cast<UINT>(length - (length ? kCookieSeparator.size() : 0)));
    if (!text)
        return nullptr;
    wchar_t* end = text;
    const auto append = [&](std::wstring_view part) { end = std::copy(part.begin(), part.end(), end); };
    for (const CVoCookieRecord* const cookie : cookies)
    {
        if (end != text)
            append(kCookieSeparator);
        append(cookie->Name());
        *end++ = L'=';
        append(cookie->Value());
    }
    return text;
}
} // namespace

CVoGlobalHTTPCookieStoreImpl::CVoGlobalHTTPCookieStoreImpl(CClock clock)
    : m_clock(std::move(clock)), m_cookies(std::make_unique<CVoCookieMap>())
{
}

CVoGlobalHTTPCookieStoreImpl::~CVoGlobalHTTPCookieStoreImpl() = default;

double CVoGlobalHTTPCookieStoreImpl::GetCurrentSystemDate() noexcept
{
    // File times count 100 ns from 1601-01-01.
    constexpr double kFileTimeUnitsPerDay = 864e9;
    constexpr double kDaysFrom1601To1899 = 109205;
    FILETIME time;
    ::GetSystemTimeAsFileTime(&time);
    const UINT64 units = (UINT64{ time.dwHighDateTime } << 32) | time.dwLowDateTime;
    return static_cast<double>(units) / kFileTimeUnitsPerDay - kDaysFrom1601To1899;
}

HRESULT CVoGlobalHTTPCookieStoreImpl::Clear() noexcept
{
    CAutoLock lock(&m_lock);
    m_cookies->Clear();
    return S_OK;
}

HRESULT CVoGlobalHTTPCookieStoreImpl::GetCookieStringForHTTPRequest(BSTR url, VARIANT_BOOL secure, BSTR* cookie) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CVoGlobalHTTPCookieStoreImpl::GetCookieStringForHTTPRequest" };
    if (!cookie)
        return report(70, E_POINTER);
    return report.Guard(86, [&]() -> HRESULT
    {
        CVoCookieRequest request;
        if (const HRESULT hr = CVoCookieRequest::FromUrl(CVoBstr::ViewOf(url), request); FAILED(hr))
            return report(75, hr);
        const double now = m_clock();
        CAutoLock lock(&m_lock);
        const BSTR text = MakeCookieString(m_cookies->Match(request, secure != VARIANT_FALSE, now));
        if (!text)
            return report(80, E_OUTOFMEMORY);
        *cookie = text;
        return S_OK;
    });
}

HRESULT CVoGlobalHTTPCookieStoreImpl::AddCookieFromString(BSTR setCookieValue, BSTR requestUrl) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CVoGlobalHTTPCookieStoreImpl::AddCookieFromString" };
    return report.Guard(110, [&]() -> HRESULT
    {
        CVoCookieRequest request;
        if (const HRESULT hr = CVoCookieRequest::FromUrl(CVoBstr::ViewOf(requestUrl), request); FAILED(hr))
            return report(97, hr);
        const double now = m_clock();
        CVoCookieData cookie;
        if (const HRESULT hr = CVoCookieData::CreateCookieFromString(CVoBstr::ViewOf(setCookieValue), request, now, cookie);
            FAILED(hr))
            return report(103, hr);
        if (const HRESULT hr = AddCookie(cookie, request.secure, now); FAILED(hr))
            return report(105, hr);
        return S_OK;
    });
}

HRESULT CVoGlobalHTTPCookieStoreImpl::AddCookie(const CVoCookieData& cookie, bool fromSecure, double now) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CVoGlobalHTTPCookieStoreImpl::AddCookie" };
    return report.Guard(125, [&]() -> HRESULT
    {
        CAutoLock lock(&m_lock);
        if (!m_cookies->Add(cookie, fromSecure, now))
            return report(120, E_INVALIDARG);
        return S_OK;
    });
}

HRESULT CVoGlobalHTTPCookieStoreImpl::SerializeCookies(CVoBinaryDataParser& parser) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CVoGlobalHTTPCookieStoreImpl::SerializeCookies" };
    return report.Guard(150, [&]() -> HRESULT
    {
        const double now = m_clock();
        CAutoLock lock(&m_lock);
        m_cookies->RemoveExpired(now);
        std::wstring text;
        for (const CVoCookieRecord* const cookie : m_cookies->InOrderOfCreation())
        {
            if (const HRESULT hr = cookie->Data().SerializeCookie(text); FAILED(hr))
                return report(142, hr);
            if (const HRESULT hr = parser.AddParam(kCookieKey, text); FAILED(hr))
                return report(144, hr);
        }
        return S_OK;
    });
}

HRESULT CVoGlobalHTTPCookieStoreImpl::DeserializeCookies(const CVoBinaryDataParser& parser) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CVoGlobalHTTPCookieStoreImpl::DeserializeCookies" };
    return report.Guard(178, [&]() -> HRESULT
    {
        const double now = m_clock();
        auto cookies = std::make_unique<CVoCookieMap>();
        for (size_t i = 0; i < parser.GetCount(); ++i)
        {
            const CParamRec& param = parser.GetAt(i);
            if (param.Name() != kCookieKey)
                return report(166, E_INVALIDARG);
            CVoCookieData cookie;
            if (const HRESULT hr = CVoCookieData::CreateCookieFromSerializedData(param.Value(), cookie); FAILED(hr))
                return report(169, hr);
            (void)cookies->Add(cookie, true, now); // true for every cookie of a secure origin
        }
        CAutoLock lock(&m_lock);
        m_cookies.swap(cookies);
        return S_OK;
    });
}

HRESULT CVoGlobalHTTPCookieStoreImpl::Serialize(BSTR* data) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CVoGlobalHTTPCookieStoreImpl::Serialize" };
    if (!data)
        return report(186, E_POINTER);
    return report.Guard(200, [&]() -> HRESULT
    {
        CVoBinaryDataParser parser;
        if (const HRESULT hr = SerializeCookies(parser); FAILED(hr))
            return report(191, hr);
        std::wstring text;
        if (const HRESULT hr = parser.GetParamsAsString(text); FAILED(hr))
            return report(194, hr);
        *data = CVoBstr(text).Detach();
        return S_OK;
    });
}

HRESULT CVoGlobalHTTPCookieStoreImpl::Deserialize(BSTR data) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CVoGlobalHTTPCookieStoreImpl::Deserialize" };
    CVoBinaryDataParser parser;
    if (const HRESULT hr = parser.ReadParamsFromString(CVoBstr::ViewOf(data)); FAILED(hr))
        return report(209, hr);
    if (const HRESULT hr = DeserializeCookies(parser); FAILED(hr))
        return report(211, hr);
    return S_OK;
}

std::span<const CVoProperty<CVoGlobalHTTPCookieStoreImpl>> CVoGlobalHTTPCookieStoreImpl::PropertyTable() noexcept
{
    using Store = CVoGlobalHTTPCookieStoreImpl;
    static constexpr CVoProperty<Store> kTable[] = {
        { L"CookieData", L"Content of global Cookie Store.", &Store::GetCookieData, &Store::PutCookieData },
        { L"CookieDataString", L"Content of global Cookie Store serialized as string.", &Store::GetCookieDataString,
          &Store::PutCookieDataString },
    };
    return kTable;
}

HRESULT CVoGlobalHTTPCookieStoreImpl::GetCookieData(VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CVoGlobalHTTPCookieStoreImpl::GetCookieData" };
    CVoBinaryDataParser parser;
    if (const HRESULT hr = SerializeCookies(parser); FAILED(hr))
        return report(231, hr);
    CVoByteBuffer bytes;
    if (const HRESULT hr = parser.GetMessageData(bytes.PutLength(), bytes.PutBytes(), false, true); FAILED(hr))
        return report(234, hr);
    if (const HRESULT hr = VoBytesToVariant(bytes.Bytes(), value); FAILED(hr))
        return report(236, hr);
    return S_OK;
}

HRESULT CVoGlobalHTTPCookieStoreImpl::PutCookieData(const VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CVoGlobalHTTPCookieStoreImpl::PutCookieData" };
    std::vector<BYTE> bytes;
    if (const HRESULT hr = VoVariantToBytes(value, bytes); FAILED(hr))
        return report(245, hr);
    CVoBinaryDataParser parser;
    if (const HRESULT hr = parser.Parse(std::move(bytes), false, true); FAILED(hr))
        return report(248, hr);
    if (const HRESULT hr = DeserializeCookies(parser); FAILED(hr))
        return report(250, hr);
    return S_OK;
}

HRESULT CVoGlobalHTTPCookieStoreImpl::GetCookieDataString(VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CVoGlobalHTTPCookieStoreImpl::GetCookieDataString" };
    BSTR text = nullptr;
    if (const HRESULT hr = Serialize(&text); FAILED(hr))
        return report(259, hr);
    value.vt = VT_BSTR;
    value.bstrVal = text;
    return S_OK;
}

HRESULT CVoGlobalHTTPCookieStoreImpl::PutCookieDataString(const VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CVoGlobalHTTPCookieStoreImpl::PutCookieDataString" };
    if (value.vt != VT_BSTR)
        return report(269, DISP_E_TYPEMISMATCH);
    if (const HRESULT hr = Deserialize(value.bstrVal); FAILED(hr))
        return report(271, hr);
    return S_OK;
}

HRESULT CreateGlobalHTTPCookieStoreForModule(IVoHTTPCookieStore** store) noexcept
{
    constexpr CVoReporter report{ kCookieStoreSource, L"CreateGlobalHTTPCookieStoreForModule" };
    if (!store)
        return report(279, E_POINTER);
    return report.Guard(290, [&]() -> HRESULT
    {
        CVoComPtr<CVoGlobalHTTPCookieStoreImpl> made = VoMakeComObject<CVoGlobalHTTPCookieStoreImpl>();
        if (!made)
            return report(284, E_OUTOFMEMORY);
        *store = made.Detach();
        return S_OK;
    });
}
