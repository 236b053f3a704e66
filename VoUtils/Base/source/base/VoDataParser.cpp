// The parameters of a parser: added, found, converted (VoDataParser.h).
#include <base/VoDataParser.h>

#include "utils/VoCodecKernels.h"

#include <base/VoErrorHandler.h>
#include <base/VoText.h>
#include <base/VoTextConversion.h>
#include <base/VoVariant.h>
#include <base/com/VoComHelper.h>
#include <base/utils/VoDataConversion.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <type_traits>

namespace
{
constexpr const wchar_t* kDataParserSource = L"..\\..\\source\\base\\VoDataParser";

// Any value as the text of a parameter.
HRESULT VariantToText(const VARIANT& value, std::wstring& text)
{
    if ((V_VT(&value) & ~VT_BYREF) != kVoByteArray)
        return VoVariantToTypeNoLocale(value, text);
    std::vector<BYTE> bytes;
    if (const HRESULT hr = VoVariantToBytes(value, bytes); FAILED(hr))
        return hr;
    if (bytes.size() > static_cast<size_t>(std::numeric_limits<INT32>::max()))
        return E_INVALIDARG;
    return VoDataConversion::BinToHex(bytes.data(), static_cast<INT32>(bytes.size()), text, 0);
}

// The text of a parameter as a variant of a type; `value` must be empty.
HRESULT TextToVariant(CVoTextView text, VARTYPE type, CVoVariant& value)
{
    if (type == kVoByteArray)
    {
        CVoByteBuffer bytes;
        if (const HRESULT hr = VoDataConversion::HexToBin(text, bytes.PutBytes(), bytes.PutLength()); FAILED(hr))
            return hr;
        return VoBytesToVariant(bytes.Bytes(), value.Get());
    }
    if (const HRESULT hr = VoTypeToVariant(text, value.Get()); FAILED(hr))
        return hr;
    return VoChangeVariantTypeNoLocale(value.Get(), value.Get(), type);
}

// Values without a text: a cell stores their type only.
bool IsWithoutText(VARTYPE type) noexcept
{
    return type == VT_EMPTY || type == VT_NULL;
}

bool IsAsciiLetterOrDigit(char character) noexcept
{
    return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
           (character >= 'a' && character <= 'z');
}

// The value of the two hexadecimal digits at the front of `digits`, or -1.
template <class TCharacter>
int EscapedByte(std::basic_string_view<TCharacter> digits) noexcept
{
    if (digits.size() < 2)
        return -1;
    using CUnsigned = std::make_unsigned_t<TCharacter>;
    const BYTE high = VoCodecKernels::HexDigitValue(static_cast<CUnsigned>(digits[0]));
    const BYTE low = VoCodecKernels::HexDigitValue(static_cast<CUnsigned>(digits[1]));
    return high == VoCodecKernels::kNoDigit || low == VoCodecKernels::kNoDigit ? -1 : high * 16 + low;
}

// The text with each "%XY" replaced by that unit; false when one is malformed.
template <class CString>
bool DecodePercent(CString& text) noexcept
{
    using CCharacter = typename CString::value_type;
    const std::basic_string_view<CCharacter> from = text;
    size_t to = 0;
    for (size_t i = 0; i < from.size(); ++i)
    {
        CCharacter character = from[i];
        if (character == '%')
        {
            const int value = EscapedByte(from.substr(i + 1));
            if (value < 0)
                return false;
            character = static_cast<CCharacter>(value);
            i += 2;
        }
        text[to++] = character;
    }
    text.resize(to);
    return true;
}
} // namespace

HRESULT CVoDataParser::AddParam(CVoTextView name, CVoTextView value) noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::AddParam" };
    const auto body = [&]() -> HRESULT
    {
        NextRecord() = CParamRec(name, value);
        if (const HRESULT hr = AppendNext(); FAILED(hr))
            return report(118, hr);
        return S_OK;
    };
    return report.Guard(124, body);
}

HRESULT CVoDataParser::AddParam(CVoTextView name, const wchar_t* value) noexcept
{
    return AddParam(name, value ? std::wstring_view(value) : std::wstring_view());
}

template <class CValue>
HRESULT CVoDataParser::AddTyped(std::wstring_view name, const CValue& value) noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::AddParam" };
    CVoVariant variant;
    if (const HRESULT hr = VoTypeToVariant(value, variant.Get()); FAILED(hr))
        return report(138, hr);
    return AddText(name, variant.Get());
}

HRESULT CVoDataParser::AddParam(CVoTextView name, UINT32 value) noexcept
{
    return AddTyped(name, value);
}

HRESULT CVoDataParser::AddParam(CVoTextView name, double value) noexcept
{
    return AddTyped(name, value);
}

HRESULT CVoDataParser::AddParam(CVoTextView name, bool value) noexcept
{
    return AddTyped(name, value);
}

HRESULT CVoDataParser::AddParam(CVoTextView name, const VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::AddParam" };
    if (!CVo2DIDArray::IsTwoDimensional(value))
        return AddText(name, value);
    CVo2DIDArray cells;
    if (const HRESULT hr = cells.SetFromVariant(value); FAILED(hr))
        return report(159, hr);
    return AddParam(name, cells);
}

HRESULT CVoDataParser::AddText(CVoTextView name, const VARIANT& value) noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::AddParam" };
    const auto body = [&]() -> HRESULT
    {
        std::wstring text;
        if (const HRESULT hr = VariantToText(value, text); FAILED(hr))
            return report(163, hr);
        return AddParam(name, std::wstring_view(text));
    };
    return report.Guard(168, body);
}

HRESULT CVoDataParser::AppendCells(CVoTextView name, const CVo2DIDArray& value)
{
    const auto key = [name](const wchar_t* suffix) { return std::wstring(name) + suffix; };
    if (const HRESULT hr = AddParam(key(L"_dim1"), value.Rows()); FAILED(hr))
        return hr;
    if (const HRESULT hr = AddParam(key(L"_dim2"), value.Columns()); FAILED(hr))
        return hr;
    for (UINT32 row = 0; row < value.Rows(); ++row)
        for (UINT32 column = 0; column < value.Columns(); ++column)
        {
            const CVo2DIDArray::CCell* const cell = value.GetCell(row, column);
            const std::wstring place = std::to_wstring(row) + L'_' + std::to_wstring(column);
            if (const HRESULT hr = AddParam(key(L"_empty_") + place, cell == nullptr); FAILED(hr))
                return hr;
            if (!cell)
                continue;
            const VARTYPE type = V_VT(&cell->value.Get());
            if (const HRESULT hr = AddParam(key(L"_ID_") + place, std::wstring_view(cell->id)); FAILED(hr))
                return hr;
            if (const HRESULT hr = AddParam(key(L"_type_") + place, UINT32{ type }); FAILED(hr))
                return hr;
            const std::wstring valueKey = key(L"_val_") + place;
            // This refuses an array in a cell, which has no text: GetParam could not read it back.
            const HRESULT hr = IsWithoutText(type) ? AddParam(valueKey, L"") : AddText(valueKey, cell->value.Get());
            if (FAILED(hr))
                return hr;
        }
    return S_OK;
}

const CParamRec* CVoDataParser::FindParam(CVoTextView name) const noexcept
{
    const auto found = std::find_if(m_params.begin(), m_params.end(),
                                    [name](const CParamRec* record) { return VoEqualsNoCase(record->NameView(), name); });
    return found == m_params.end() ? nullptr : *found;
}

HRESULT CVoDataParser::GetParam(CVoTextView name, std::wstring& value) const noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::GetParam" };
    const auto body = [&]() -> HRESULT
    {
        const CParamRec* const record = FindParam(name);
        if (!record)
            return report(234, HResultFromWin32(ERROR_NOT_FOUND));
        std::wstring text(record->ValueView());
        value = std::move(text);
        return S_OK;
    };
    return report.Guard(241, body);
}

template <class CValue>
HRESULT CVoDataParser::GetTyped(std::wstring_view name, CValue& value) const noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::GetParam" };
    const CParamRec* const record = FindParam(name);
    if (!record)
        return report(250, HResultFromWin32(ERROR_NOT_FOUND));
    CVoVariant text;
    if (const HRESULT hr = VoTypeToVariant(record->ValueView(), text.Get()); FAILED(hr))
        return report(253, hr);
    if (const HRESULT hr = VoVariantToTypeNoLocale(text.Get(), value); FAILED(hr))
        return report(255, hr);
    return S_OK;
}

HRESULT CVoDataParser::GetParam(CVoTextView name, UINT32& value) const noexcept
{
    return GetTyped(name, value);
}

HRESULT CVoDataParser::GetParam(CVoTextView name, double& value) const noexcept
{
    return GetTyped(name, value);
}

HRESULT CVoDataParser::GetParam(CVoTextView name, bool& value) const noexcept
{
    return GetTyped(name, value);
}

HRESULT CVoDataParser::GetParam(CVoTextView name, VARIANT& value) const noexcept
{
    const VARTYPE type = V_VT(&value);
    return GetParam(name, value, type == VT_EMPTY ? VARTYPE{ VT_BSTR } : type);
}

HRESULT CVoDataParser::GetParam(CVoTextView name, VARIANT& value, VARTYPE type) const noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::GetParam" };
    const auto body = [&]() -> HRESULT
    {
        const CParamRec* const record = FindParam(name);
        if (!record)
            return report(288, HResultFromWin32(ERROR_NOT_FOUND));
        CVoVariant converted;
        if (const HRESULT hr = TextToVariant(record->ValueView(), type, converted); FAILED(hr))
            return report(291, hr);
        if (const HRESULT hr = ::VariantClear(&value); FAILED(hr))
            return report(293, hr);
        value = converted.Detach();
        return S_OK;
    };
    return report.Guard(299, body);
}

HRESULT CVoDataParser::GetParam(CVoTextView name, CVo2DIDArray& value) const noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::GetParam" };
    const auto body = [&]() -> HRESULT
    {
        CVo2DIDArray read;
        if (const HRESULT hr = ReadCells(name, read); FAILED(hr))
            return report(308, hr);
        value = std::move(read);
        return S_OK;
    };
    return report.Guard(314, body);
}

namespace
{
// The parameters that describe one cell of a flattened array.
struct CCellRecords
{
    const CParamRec* empty = nullptr;
    const CParamRec* id = nullptr;
    const CParamRec* type = nullptr;
    const CParamRec* value = nullptr;

    [[nodiscard]] const CParamRec** Find(std::wstring_view kind) noexcept
    {
        if (VoEqualsNoCase(kind, L"empty"))
            return &empty;
        if (VoEqualsNoCase(kind, L"ID"))
            return &id;
        if (VoEqualsNoCase(kind, L"type"))
            return &type;
        return VoEqualsNoCase(kind, L"val") ? &value : nullptr;
    }
};

// A cell's number as the keys write it: decimal digits without leading zeros, below `limit`.
bool ParseIndex(CVoTextView text, UINT32 limit, UINT32& index) noexcept
{
    if (text.size() > 1 && text.front() == L'0')
        return false;
    const std::optional<UINT32> number = VoParseDecimal<UINT32>(text);
    if (!number || *number >= limit)
        return false;
    index = *number;
    return true;
}

// Takes "_text" off the end of `key`; false when there is no "_".
bool TakeLastPart(std::wstring_view& key, std::wstring_view& part) noexcept
{
    const size_t separator = key.rfind(L'_');
    if (separator == std::wstring_view::npos)
        return false;
    part = key.substr(separator + 1);
    key = key.substr(0, separator);
    return true;
}

// A parameter's text as a typed value.
template <class CValue>
HRESULT TextToType(const CParamRec& record, CValue& value) noexcept
{
    CVoVariant text;
    if (const HRESULT hr = VoTypeToVariant(record.ValueView(), text.Get()); FAILED(hr))
        return hr;
    return VoVariantToTypeNoLocale(text.Get(), value);
}
} // namespace

HRESULT CVoDataParser::ReadCells(CVoTextView name, CVo2DIDArray& value) const
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::GetParam" };
    constexpr UINT32 kMaximumSize = std::numeric_limits<INT32>::max();
    UINT32 rows = 0;
    UINT32 columns = 0;
    if (const HRESULT hr = GetParam(std::wstring(name) + L"_dim1", rows); FAILED(hr))
        return hr;
    if (const HRESULT hr = GetParam(std::wstring(name) + L"_dim2", columns); FAILED(hr))
        return hr;
    // Each cell needs a parameter. So check the sizes against the number of parameters before allocating.
    const UINT64 cellCount = UINT64{ rows } * columns;
    if (rows > kMaximumSize || columns > kMaximumSize || cellCount > GetCount())
        return report(383, E_INVALIDARG);

    // One walk over the list finds the parameters of all cells, so that a large array takes linear time.
    std::vector<CCellRecords> cells(static_cast<size_t>(cellCount));
    for (const CParamRec* record : m_params)
    {
        std::wstring_view key = record->NameView();
        std::wstring_view kind;
        std::wstring_view rowText;
        std::wstring_view columnText;
        UINT32 row = 0;
        UINT32 column = 0;
        if (!TakeLastPart(key, columnText) || !ParseIndex(columnText, columns, column) || !TakeLastPart(key, rowText) ||
            !ParseIndex(rowText, rows, row) || !TakeLastPart(key, kind) || !VoEqualsNoCase(key, name))
            continue;
        const CParamRec** const place = cells[size_t{ row } * columns + column].Find(kind);
        if (place && !*place)
            *place = record;
    }

    CVo2DIDArray read;
    if (const HRESULT hr = read.SetSize(rows, columns); FAILED(hr))
        return hr;
    for (UINT32 row = 0; row < rows; ++row)
        for (UINT32 column = 0; column < columns; ++column)
        {
            const CCellRecords& cell = cells[size_t{ row } * columns + column];
            if (!cell.empty)
                return report(410, HResultFromWin32(ERROR_NOT_FOUND));
            bool isEmpty = false;
            if (const HRESULT hr = TextToType(*cell.empty, isEmpty); FAILED(hr))
                return hr;
            if (isEmpty)
                continue;
            if (!cell.id || !cell.type || !cell.value)
                return report(417, HResultFromWin32(ERROR_NOT_FOUND));
            UINT32 type = VT_EMPTY;
            if (const HRESULT hr = TextToType(*cell.type, type); FAILED(hr))
                return hr;
            if (type > std::numeric_limits<VARTYPE>::max())
                return report(422, E_INVALIDARG);
            CVoVariant content;
            if (IsWithoutText(static_cast<VARTYPE>(type)))
                V_VT(&content.Get()) = static_cast<VARTYPE>(type);
            else if (const HRESULT hr = TextToVariant(cell.value->ValueView(), static_cast<VARTYPE>(type), content); FAILED(hr))
                return hr;
            if (const HRESULT hr = read.SetCell(row, column, cell.id->ValueView(), std::move(content)); FAILED(hr))
                return hr;
        }
    value = std::move(read);
    return S_OK;
}

HRESULT CVoDataParser::ToUTF8AndUrlEncode(bool useUtf8, std::wstring& value) noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::ToUTF8AndUrlEncode" };
    const auto body = [&]() -> HRESULT
    {
        std::string bytes;
        if (useUtf8)
        {
            if (const HRESULT hr = VoStringToUTF8(value, bytes); FAILED(hr))
                return report(500, hr);
        }
        else
        {
            if (std::any_of(value.begin(), value.end(), [](wchar_t c) { return c > 0xFF; }))
                return report(505, E_FAIL);
            bytes.resize(value.size());
            std::transform(value.begin(), value.end(), bytes.begin(), [](wchar_t c) { return static_cast<char>(c); });
        }

        constexpr const wchar_t* kDigits = L"0123456789ABCDEF";
        const auto kept = static_cast<size_t>(std::count_if(bytes.begin(), bytes.end(), IsAsciiLetterOrDigit));
        std::wstring encoded(kept + 3 * (bytes.size() - kept), L'%');
        wchar_t* to = encoded.data();
        for (const char character : bytes)
        {
            if (IsAsciiLetterOrDigit(character))
            {
                *to++ = static_cast<wchar_t>(character);
                continue;
            }
            const auto code = static_cast<BYTE>(character);
            to[1] = kDigits[code >> 4];
            to[2] = kDigits[code & 15];
            to += 3;
        }
        value = std::move(encoded);
        return S_OK;
    };
    return report.Guard(535, body);
}

HRESULT CVoDataParser::FromUTF8AndUrlEncode(bool useUtf8, std::wstring& value) noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::FromUTF8AndUrlEncode" };
    const auto body = [&]() -> HRESULT
    {
        if (value.find(L'%') == std::wstring::npos)
            return S_OK;
        std::wstring decoded;
        if (useUtf8)
        {
            // Characters that were never encoded join the escaped bytes as UTF-8, so that they come out as
            // they were.
            std::string bytes;
            if (const HRESULT hr = VoStringToUTF8(value, bytes); FAILED(hr))
                return report(549, hr);
            if (!DecodePercent(bytes))
                return report(551, E_FAIL);
            if (const HRESULT hr = VoUTF8ToString(bytes, decoded); FAILED(hr))
                return report(553, hr);
        }
        else
        {
            decoded = value;
            if (!DecodePercent(decoded))
                return report(559, E_FAIL);
        }
        value = std::move(decoded);
        return S_OK;
    };
    return report.Guard(566, body);
}

HRESULT CVoDataParser::ConvertValues(HRESULT (*convert)(bool, std::wstring&) noexcept, bool useUtf8)
{
    std::vector<std::wstring> values;
    values.reserve(GetCount());
    for (const CParamRec* record : m_params)
        if (const HRESULT hr = convert(useUtf8, values.emplace_back(record->ValueView())); FAILED(hr))
            return hr;
    for (const CParamRec* record : m_params)
        (void)record->Own(); // so that nothing fails below
    for (size_t i = 0; i < values.size(); ++i)
        m_params[i]->SetValue(std::move(values[i]));
    return S_OK;
}

HRESULT CVoDataParser::ConvertParamValuesToUTF8URLEncodedString(bool useUtf8) noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::ConvertParamValuesToUTF8URLEncodedString" };
    const auto body = [&]() -> HRESULT
    {
        if (const HRESULT hr = ConvertValues(&ToUTF8AndUrlEncode, useUtf8); FAILED(hr))
            return report(585, hr);
        return S_OK;
    };
    return report.Guard(590, body);
}

HRESULT CVoDataParser::ConvertParamValuesFromUTF8URLEncodedString(bool useUtf8) noexcept
{
    constexpr CVoReporter report{ kDataParserSource, L"CVoDataParser::ConvertParamValuesFromUTF8URLEncodedString" };
    const auto body = [&]() -> HRESULT
    {
        if (const HRESULT hr = ConvertValues(&FromUTF8AndUrlEncode, useUtf8); FAILED(hr))
            return report(598, hr);
        return S_OK;
    };
    return report.Guard(603, body);
}
