// Conversions between UTF-16 and code pages without reports (VoCodePage.h).
#include "VoCodePage.h"

#include <base/VoHResult.h>
#include <base/VoText.h>

#include <algorithm>
#include <climits>

namespace VoCodePage
{
namespace
{
// Texts up to this length are converted in one call through a buffer on the stack, and without one where they are ASCII and
// UTF-8; longer ones are measured first.
constexpr size_t kShortText = 512;
} // namespace

HRESULT FromText(UINT codePage, std::wstring_view text, std::string& bytes)
{
    if (text.empty())
    {
        bytes.clear();
        return S_OK;
    }
    if (text.size() > INT_MAX)
        return E_INVALIDARG;
    const auto length = static_cast<int>(text.size());
    const DWORD flags = codePage == CP_UTF8 ? WC_ERR_INVALID_CHARS : 0;
    if (text.size() <= kShortText)
    {
        if (codePage == CP_UTF8 && VoIsAscii(text))
        {
            bytes.resize(text.size());
            std::transform(text.begin(), text.end(), bytes.begin(), [](wchar_t c) { return static_cast<char>(c); });
            return S_OK;
        }
        char buffer[4 * kShortText];
        const int size =
            ::WideCharToMultiByte(codePage, flags, text.data(), length, buffer, int{ sizeof buffer }, nullptr, nullptr);
        if (size > 0)
        {
            bytes.assign(buffer, static_cast<size_t>(size));
            return S_OK;
        }
        // A stateful code page can need more; it is measured like a long text.
        if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
            return HResultFromLastError();
    }
    const int size = ::WideCharToMultiByte(codePage, flags, text.data(), length, nullptr, 0, nullptr, nullptr);
    if (size <= 0)
        return HResultFromLastError();
    std::string result(static_cast<size_t>(size), '\0');
    if (::WideCharToMultiByte(codePage, flags, text.data(), length, result.data(), size, nullptr, nullptr) != size)
        return HResultFromLastError();
    bytes = std::move(result);
    return S_OK;
}

HRESULT ToText(UINT codePage, std::string_view bytes, std::wstring& text)
{
    if (bytes.empty())
    {
        text.clear();
        return S_OK;
    }
    if (bytes.size() > INT_MAX)
        return E_INVALIDARG;
    const auto size = static_cast<int>(bytes.size());
    const DWORD flags = codePage == CP_UTF8 ? MB_ERR_INVALID_CHARS : 0;
    if (bytes.size() <= kShortText)
    {
        if (codePage == CP_UTF8 && VoIsAscii(bytes))
        {
            text.resize(bytes.size()); // assign would make a second text
            std::copy(bytes.begin(), bytes.end(), text.begin());
            return S_OK;
        }
        wchar_t buffer[kShortText];
        const int length = ::MultiByteToWideChar(codePage, flags, bytes.data(), size, buffer, int{ kShortText });
        if (length > 0)
        {
            text.assign(buffer, static_cast<size_t>(length));
            return S_OK;
        }
        if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER)
            return HResultFromLastError();
    }
    const int length = ::MultiByteToWideChar(codePage, flags, bytes.data(), size, nullptr, 0);
    if (length <= 0)
        return HResultFromLastError();
    std::wstring result(static_cast<size_t>(length), L'\0');
    if (::MultiByteToWideChar(codePage, flags, bytes.data(), size, result.data(), length) != length)
        return HResultFromLastError();
    text = std::move(result);
    return S_OK;
}
} // namespace VoCodePage
