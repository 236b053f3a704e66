// Conversions of texts, Base64 and result codes.
#include "Text.h"

#include <base/VoCArray.h>
#include <base/VoErrorHandler.h>
#include <base/VoErrorText.h>
#include <base/VoHResult.h>
#include <base/VoUtils.h>
#include <base/utils/VoDataConversion.h>

#include <limits>

namespace
{
constexpr INT32 kMaxLine = std::numeric_limits<INT32>::max();
constexpr size_t kMaxText = kMaxLine;

int CheckedLength(size_t length)
{
    if (length > kMaxText)
        throw CVoHResultException(E_INVALIDARG);
    return static_cast<int>(length);
}
} // namespace

void Check(HRESULT result)
{
    if (FAILED(result))
        throw CVoHResultException(result);
}

std::string ToUtf8(std::wstring_view text)
{
    if (text.empty())
        return {};
    const int length = CheckedLength(text.size());
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    if (size <= 0)
        throw CVoHResultException(HResultFromLastError());
    std::string bytes(static_cast<size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, bytes.data(), size, nullptr, nullptr);
    return bytes;
}

std::wstring FromUtf8(std::string_view text)
{
    std::wstring result;
    if (!text.empty())
        Check(VoUTF8ToString(text, result));
    return result;
}

std::string ToBase64(std::span<const BYTE> bytes)
{
    std::wstring text;
    // With the largest line length: without one the library adds a line break to the text of a single byte.
    if (!bytes.empty())
        Check(VoDataConversion::BinToBase64(bytes.data(), CheckedLength(bytes.size()), false, text, kMaxLine));
    return std::string(text.begin(), text.end());
}

std::vector<BYTE> FromBase64(std::string_view text)
{
    CVoByteBuffer bytes;
    if (!text.empty())
        Check(VoDataConversion::Base64ToBin(FromUtf8(text), bytes.PutBytes(), bytes.PutLength()));
    return { bytes.Data(), bytes.Data() + bytes.Length() };
}

std::string JsonLine(const CJson& value)
{
    return value.dump(-1, ' ', false, CJson::error_handler_t::replace) + '\n';
}

std::string ResultCode(HRESULT result)
{
    return ToUtf8(VoFormat(L"0x%08X", static_cast<unsigned>(result)));
}

std::string ErrorLine(HRESULT result)
{
    std::wstring text;
    if (FAILED(VoGetErrorText(result, true, &text)))
        return {};
    // Texts of the system end with a line break, and some contain others.
    std::wstring line;
    for (const wchar_t c : VoTrim(text))
        if (c != L'\r')
            line += c == L'\n' ? L' ' : c;
    return ToUtf8(line);
}
