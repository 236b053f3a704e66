// Tables of keys and members: how a struct is written to a CVoDataParser and read back. The stores use it for their records.
#pragma once

#include <base/VoDataParser.h>
#include <base/VoWipe.h>

#include <string>
#include <string_view>
#include <tuple>

// One key and the member that it holds: text, a secret text, a 32-bit number, a double or a boolean.
template <class Record, class Value>
struct CVoField
{
    const wchar_t* key;
    Value Record::* member;
};

// The fields of a struct, in the order in which they are written:
//
//     constexpr CVoRecordTable kProxyFields{ CVoField{ L"Valid", &CProxy::valid }, CVoField{ L"User", &CProxy::user } };
//     hr = kProxyFields.Write(proxy, parser);
//     hr = kProxyFields.Read(parser, proxy);
template <class Record, class... Values>
class CVoRecordTable
{
public:
    constexpr explicit CVoRecordTable(CVoField<Record, Values>... fields) noexcept : m_fields(fields...) {}

    // Appends all fields to the parser. The first failure of AddParam ends it and is returned; the caller reports it.
    [[nodiscard]] HRESULT Write(const Record& record, CVoDataParser& parser) const noexcept
    {
        return ForEach([&](const auto& field) { return parser.AddParam(field.key, ValueOf(record.*field.member)); });
    }
    // Reads all fields; a key that is missing is an error, keys that the table does not name are ignored. The first failure of
    // GetParam ends it and is returned, with the members before it already changed: read into a new record and move it when all
    // is well.
    [[nodiscard]] HRESULT Read(const CVoDataParser& parser, Record& record) const noexcept
    {
        return ForEach([&](const auto& field) { return parser.GetParam(field.key, ValueOf(record.*field.member)); });
    }

private:
    // A secret crosses as its text.
    template <class Value>
    [[nodiscard]] static Value& ValueOf(Value& value) noexcept
    {
        // NOLINTNEXTLINE(bugprone-return-const-ref-from-parameter): a member of the caller's record, no temporary.
        return value;
    }
    [[nodiscard]] static std::wstring& ValueOf(CVoSecret<wchar_t>& secret) noexcept { return secret.Get(); }
    [[nodiscard]] static const std::wstring& ValueOf(const CVoSecret<wchar_t>& secret) noexcept { return secret.Get(); }

    template <class Step>
    [[nodiscard]] HRESULT ForEach(const Step& step) const noexcept
    {
        HRESULT hr = S_OK;
        std::apply([&](const auto&... field) { (void)(SUCCEEDED(hr = step(field)) && ...); }, m_fields);
        return hr;
    }

    std::tuple<CVoField<Record, Values>...> m_fields;
};
