// A small program that uses the installed library: writes a text in Base64 and reads it back.
#include <base/VoModuleInformation.h>
#include <base/utils/VoDataConversion.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

int main()
{
    static const char text[] = "Fran\xC3\xA7ois & Zo\xC3\xAB";
    std::wstring encoded;
    VoDataConversion::BinToBase64(reinterpret_cast<const BYTE*>(text), static_cast<INT32>(std::strlen(text)), false, encoded,
                                  0);

    BYTE* bytes = nullptr;
    UINT32 length = 0;
    if (const HRESULT hr = VoDataConversion::Base64ToBin(encoded, &bytes, &length); FAILED(hr))
    {
        std::fprintf(stderr, "decoding failed: 0x%08lX\n", static_cast<unsigned long>(hr));
        return 1;
    }
    const std::unique_ptr<BYTE[]> owner(bytes);
    std::printf("VoUtils in %ls: %ls is \"%.*s\"\n", CVoModuleInformation::Get().TargetName().c_str(), encoded.c_str(),
                static_cast<int>(length), reinterpret_cast<const char*>(bytes));
    return 0;
}
