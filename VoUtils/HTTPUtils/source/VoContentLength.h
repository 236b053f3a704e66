// Reads the Content-Length fields of a response, and says how much memory an announced length deserves. The transports use it.
#pragma once

#include <base/VoText.h>

#include <algorithm>
#include <optional>
#include <string_view>

// How many bytes to reserve for the body of a response. The announced length is only a promise. `limit`: bytes that the body
// may have; 0: any number.
[[nodiscard]] constexpr size_t VoReserveFor(UINT64 announced, UINT64 limit) noexcept
{
    constexpr UINT64 kMost = UINT64{ 256 } * 1024 * 1024;
    return static_cast<size_t>(std::min(announced, limit != 0 ? std::min(limit, kMost) : kMost));
}

// What a response's Content-Length fields say together. Equal numbers may stand in one field or in several; anything else makes
// the length invalid, and the end of the body cannot be trusted (RFC 9110, section 8.6; RFC 9112, section 6.3).
class CVoContentLength
{
public:
    // Adds the value of one field.
    void Add(std::wstring_view value) noexcept
    {
        for (size_t comma = 0; comma != std::wstring_view::npos; value.remove_prefix(comma + 1))
        {
            comma = value.find(L',');
            const std::optional<UINT64> length = VoParseDecimal<UINT64>(VoTrim(value.substr(0, comma)));
            m_isInvalid = m_isInvalid || !length || (m_length && m_length != length);
            m_length = length;
            if (comma == std::wstring_view::npos)
                break;
        }
    }
    [[nodiscard]] bool IsInvalid() const noexcept { return m_isInvalid; }
    // Nothing without a field, and for an invalid length.
    [[nodiscard]] std::optional<UINT64> Get() const noexcept { return m_isInvalid ? std::nullopt : m_length; }

private:
    std::optional<UINT64> m_length;
    bool m_isInvalid = false;
};
