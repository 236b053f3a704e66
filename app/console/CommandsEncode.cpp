// encode, decode: bytes to text and back.
#include "Console.h"

#include <base/VoCArray.h>
#include <base/utils/VoDataConversion.h>

#include <array>
#include <limits>

namespace
{
enum class EFormat
{
    Hex,
    Base64,
    Base64Url,
    Base32
};
INT32 CountOf(const std::vector<BYTE>& bytes)
{
    if (bytes.size() > static_cast<size_t>(std::numeric_limits<INT32>::max()))
        throw CDetailedFailure(E_INVALIDARG, "more than 2 GiB");
    return static_cast<INT32>(bytes.size());
}

class CEncodeCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options
            .AddChoice<EFormat>("FORMAT", m_format,
                                { { "hex", EFormat::Hex },
                                  { "base64", EFormat::Base64 },
                                  { "base64url", EFormat::Base64Url },
                                  { "base32", EFormat::Base32 } },
                                "The text's encoding")
            .Required();
        options.Add("--line", m_line, "Break lines near this many characters; without it or with 0 there is one line")
            .TypeName("N");
        options.AddFlag("--pad", m_pad, "base32: pad a tail of two characters");
        options.SetFooter(
            "Reads bytes from standard input and writes text, with nothing added.\nExample: voutils encode base64 --line 76 < "
            "photo.jpg\n");
    }
    void Run(CContext& context) override
    {
        const std::vector<BYTE> bytes = context.ReadInput();
        std::wstring text;
        switch (m_format)
        {
        case EFormat::Hex:
            Check(VoDataConversion::BinToHex(bytes.data(), CountOf(bytes), text, m_line));
            break;
        case EFormat::Base64:
        case EFormat::Base64Url:
            Check(VoDataConversion::BinToBase64(bytes.data(), CountOf(bytes), m_format == EFormat::Base64Url, text, m_line));
            break;
        case EFormat::Base32:
            Check(VoDataConversion::BinToBase32ModifiedCrockford(bytes.data(), CountOf(bytes), m_pad, text, m_line));
            break;
        }
        context.PutText("text", text);
    }

private:
    EFormat m_format = EFormat::Hex;
    INT32 m_line = 0;
    bool m_pad = false;
};

class CDecodeCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options
            .AddChoice<EFormat>("FORMAT", m_format,
                                { { "hex", EFormat::Hex }, { "base64", EFormat::Base64 }, { "base32", EFormat::Base32 } },
                                "The text's encoding; base64 takes either alphabet")
            .Required();
        options.SetFooter("Reads text from standard input and writes the bytes.\nExample: echo 56 6F | voutils decode hex\n");
    }
    void Run(CContext& context) override
    {
        const std::wstring text = context.ReadTextFile("-");
        CVoByteBuffer bytes;
        switch (m_format)
        {
        case EFormat::Hex:
            Check(VoDataConversion::HexToBin(text, bytes.PutBytes(), bytes.PutLength()));
            break;
        case EFormat::Base64:
        case EFormat::Base64Url:
            Check(VoDataConversion::Base64ToBin(text, bytes.PutBytes(), bytes.PutLength()));
            break;
        case EFormat::Base32:
            Check(VoDataConversion::Base32ModifiedCrockfordToBin(text, bytes.PutBytes(), bytes.PutLength()));
            break;
        }
        context.PutBytes("bytesBase64", bytes.Bytes());
    }

private:
    EFormat m_format = EFormat::Hex;
};
} // namespace

std::span<const CCommandEntry> EncodingCommands()
{
    static constexpr std::array kCommands{
        CCommandEntry{ nullptr, "encode", "Bytes to text", MakeCommand<CEncodeCommand> },
        CCommandEntry{ nullptr, "decode", "Text to bytes", MakeCommand<CDecodeCommand> },
    };
    return kCommands;
}
