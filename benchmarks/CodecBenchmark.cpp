// The encodings against the platform's own functions, a textbook loop and a plain copy of the bytes. Throughput counts the
// binary side. The library comes first, so that a ratio above 1 says how many times longer the other takes.
#include "Benchmark.h"

#include <base/VoCArray.h>
#include <base/utils/VoDataConversion.h>

#include <wincrypt.h>

#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace
{
using CBytes = std::vector<BYTE>;

constexpr wchar_t kHexDigits[] = L"0123456789ABCDEF";
constexpr wchar_t kBase64Digits[] = L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr wchar_t kBase32Digits[] = L"0123456789ACDEFGHJKMNPQRSTUVWXYZ";

// What comes to mind first: digits are collected bit by bit and looked up one at a time.
std::wstring TextbookEncode(const CBytes& bytes, unsigned bits, const wchar_t* digits)
{
    std::wstring text;
    unsigned collected = 0;
    unsigned count = 0;
    for (const BYTE byte : bytes)
    {
        collected = collected << 8 | byte;
        for (count += 8; count >= bits; count -= bits)
            text.push_back(digits[collected >> (count - bits) & ((1U << bits) - 1)]);
    }
    return text;
}

CBytes TextbookDecode(const std::wstring& text, unsigned bits, const wchar_t* digits)
{
    CBytes bytes;
    unsigned collected = 0;
    unsigned count = 0;
    for (const wchar_t character : text)
    {
        const wchar_t* const digit = std::wcschr(digits, character);
        if (!digit)
            break;
        collected = collected << bits | static_cast<unsigned>(digit - digits);
        count += bits;
        if (count >= 8)
        {
            count -= 8;
            bytes.push_back(static_cast<BYTE>(collected >> count & 0xFF));
        }
    }
    return bytes;
}

// As documented: ask for the size, make room, convert.
bool PlatformEncode(const CBytes& bytes, DWORD format, std::unique_ptr<wchar_t[]>& text)
{
    DWORD size = 0;
    const auto length = static_cast<DWORD>(bytes.size());
    if (!::CryptBinaryToStringW(bytes.data(), length, format | CRYPT_STRING_NOCRLF, nullptr, &size))
        return false;
    text = std::make_unique_for_overwrite<wchar_t[]>(size);
    return ::CryptBinaryToStringW(bytes.data(), length, format | CRYPT_STRING_NOCRLF, text.get(), &size);
}

bool PlatformDecode(const std::wstring& text, DWORD format, std::unique_ptr<BYTE[]>& bytes)
{
    DWORD size = 0;
    const auto length = static_cast<DWORD>(text.size());
    if (!::CryptStringToBinaryW(text.data(), length, format, nullptr, &size, nullptr, nullptr))
        return false;
    bytes = std::make_unique_for_overwrite<BYTE[]>(size);
    return ::CryptStringToBinaryW(text.data(), length, format, bytes.get(), &size, nullptr, nullptr);
}

struct CEncoding
{
    const char* name;
    unsigned bits;
    const wchar_t* digits;
    DWORD platformFormat; // 0 for none
    HRESULT (*encode)(const BYTE*, INT32, std::wstring&, INT32);
    HRESULT (*decode)(CVoTextView, BYTE**, UINT32*);
    INT32 line;
};

void CompareEncoding(const CEncoding& encoding, const char* sizeName, size_t size)
{
    CBytes bytes(size);
    std::mt19937 random(1);
    for (BYTE& byte : bytes)
        byte = static_cast<BYTE>(random());
    CBytes copied(size);
    std::wstring text;
    CVoByteBuffer decoded;
    std::unique_ptr<wchar_t[]> platformText;
    std::unique_ptr<BYTE[]> platformBytes;
    std::wstring plain;
    (void)encoding.encode(bytes.data(), static_cast<INT32>(size), plain, 0);

    const Benchmark::CContender copy{ "memcpy of the bytes", [&]
    {
        std::memcpy(copied.data(), bytes.data(), bytes.size());
        Benchmark::Keep(copied);
    } };
    std::vector<Benchmark::CContender> encoders = {
        { "library",
          [&]
    {
        std::wstring made;
        (void)encoding.encode(bytes.data(), static_cast<INT32>(bytes.size()), made, encoding.line);
        Benchmark::Keep(made);
    } },
        { "library, into a text that is used again",
          [&]
    {
        (void)encoding.encode(bytes.data(), static_cast<INT32>(bytes.size()), text, encoding.line);
        Benchmark::Keep(text);
    } },
        { "a new text of that size, filled", [&] { Benchmark::Keep(std::wstring(plain.size(), L'x')); } },
        copy,
        { "textbook loop", [&] { Benchmark::Keep(TextbookEncode(bytes, encoding.bits, encoding.digits)); } },
    };
    std::vector<Benchmark::CContender> decoders = {
        { "library",
          [&]
    {
        (void)encoding.decode(plain, decoded.PutBytes(), decoded.PutLength());
        Benchmark::Keep(decoded);
    } },
        { "new bytes of that size, filled",
          [&]
    {
        const std::unique_ptr<BYTE[]> filled = std::make_unique_for_overwrite<BYTE[]>(size);
        std::memset(filled.get(), 1, size);
        Benchmark::Keep(filled);
    } },
        copy,
        { "textbook loop", [&] { Benchmark::Keep(TextbookDecode(plain, encoding.bits, encoding.digits)); } },
    };
    if (encoding.line > 0)
    {
        (void)encoding.encode(bytes.data(), static_cast<INT32>(size), plain, encoding.line);
        decoders.pop_back(); // it does not know line breaks
    }
    if (encoding.platformFormat != 0 && PlatformEncode(bytes, encoding.platformFormat, platformText))
        encoders.push_back({ "CryptBinaryToStringW", [&]
        {
            (void)PlatformEncode(bytes, encoding.platformFormat, platformText);
            Benchmark::Keep(platformText);
        } });
    if (encoding.platformFormat != 0 && PlatformDecode(plain, encoding.platformFormat, platformBytes))
        decoders.push_back({ "CryptStringToBinaryW", [&]
        {
            (void)PlatformDecode(plain, encoding.platformFormat, platformBytes);
            Benchmark::Keep(platformBytes);
        } });
    Benchmark::COptions options;
    options.bytes = static_cast<double>(size);
    Benchmark::Compare(std::string(encoding.name) + " encode, " + sizeName, encoders, options);
    Benchmark::Compare(std::string(encoding.name) + " decode, " + sizeName, decoders, options);
}

void Run()
{
    const auto base64 = [](const BYTE* bytes, INT32 count, std::wstring& text, INT32 line)
    { return VoDataConversion::BinToBase64(bytes, count, false, text, line); };
    const auto base32 = [](const BYTE* bytes, INT32 count, std::wstring& text, INT32 line)
    { return VoDataConversion::BinToBase32ModifiedCrockford(bytes, count, false, text, line); };
    const auto decodeBase32 = &VoDataConversion::Base32ModifiedCrockfordToBin;
    const CEncoding encodings[] = {
        { "hex", 4, kHexDigits, CRYPT_STRING_HEXRAW, &VoDataConversion::BinToHex, &VoDataConversion::HexToBin, 0 },
        { "hex in lines of 64", 4, kHexDigits, 0, &VoDataConversion::BinToHex, &VoDataConversion::HexToBin, 64 },
        { "Base64", 6, kBase64Digits, CRYPT_STRING_BASE64, base64, &VoDataConversion::Base64ToBin, 0 },
        { "Base64 in lines of 64", 6, kBase64Digits, CRYPT_STRING_BASE64, base64, &VoDataConversion::Base64ToBin, 63 },
        { "base-32", 5, kBase32Digits, 0, base32, decodeBase32, 0 },
    };
    for (const CEncoding& encoding : encodings)
    {
        CompareEncoding(encoding, "24 B", 24);
        CompareEncoding(encoding, "1 KB", 1024);
        CompareEncoding(encoding, "64 KB", size_t{ 64 } << 10);
        CompareEncoding(encoding, "1 MB", 1 << 20);
    }
}

const Benchmark::CGroup kGroup("codec", &Run);
} // namespace
