// params build, form, parse: the bodies that carry parameters and a payload.
#include "Console.h"
#include "Parameters.h"

#include <array>

namespace
{
class CParamsBuildCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        m_parameters.Declare(options);
        COption prefix =
            options.AddFlag("--size-prefix", m_sizePrefix, "Put the message's length in front, 4 bytes, low byte first");
        COption skip = options.AddFlag("--skip-params", m_skipParameters, "Leave out the parameter text and its \"&&\"");
        options.AddFlag("--no-utf8", m_noUtf8, "Write texts in the system's ANSI code page");
        options.AddFlag("--urlencode", m_urlEncode, "URL-encode every value first");
        options.AddFlag("--text", m_text, "Print the parameter text alone").Excludes(prefix).Excludes(skip);
        options.SetFooter(
            "Writes the message's bytes.\nExample: voutils params build -p user=ann -p note=@note.txt --payload photo.jpg > "
            "message.bin\n");
    }
    void Run(CContext& context) override
    {
        CVoBinaryDataParser parser;
        m_parameters.Fill(context, parser);
        if (m_urlEncode)
            Check(parser.ConvertParamValuesToUTF8URLEncodedString(!m_noUtf8));
        if (m_text)
        {
            std::wstring text;
            Check(parser.GetParamsAsString(text));
            context.PutLine("text", text);
            return;
        }
        CVoByteBuffer body;
        Check(m_sizePrefix ? parser.GetMessageDataWithSizePrefix(body.PutLength(), body.PutBytes(), m_skipParameters, !m_noUtf8)
                           : parser.GetMessageData(body.PutLength(), body.PutBytes(), m_skipParameters, !m_noUtf8));
        context.PutBytes("bodyBase64", body.Bytes());
    }

private:
    CParameterOptions m_parameters;
    bool m_sizePrefix = false;
    bool m_skipParameters = false;
    bool m_noUtf8 = false;
    bool m_urlEncode = false;
    bool m_text = false;
};

class CParamsFormCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        m_parameters.Declare(options);
        options.AddFlag("--no-utf8", m_noUtf8, "Write texts in the system's ANSI code page");
        options.SetFooter(
            "Writes a multipart/form-data body. The parameters FileName and ContentType describe the payload and are no "
            "fields; "
            "without a FileName there is no file part. --json tells the boundary.\nExample: voutils params form -p a=1 -p "
            "FileName=photo.jpg --payload photo.jpg --json\n");
    }
    void Run(CContext& context) override
    {
        CVoBinaryDataParser parser;
        m_parameters.Fill(context, parser);
        CVoByteBuffer body;
        std::wstring boundary;
        Check(parser.GetFormMessageData(body.PutLength(), body.PutBytes(), boundary, !m_noUtf8));
        context.PutKey("boundary", ToUtf8(boundary));
        context.PutBytes("bodyBase64", body.Bytes());
    }

private:
    CParameterOptions m_parameters;
    bool m_noUtf8 = false;
};

class CParamsParseCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.AddFlag("--binary-only", m_binaryOnly, "Take the whole input as the payload");
        options.AddFlag("--no-utf8", m_noUtf8, "Read texts in the thread's ANSI code page");
        options.AddFlag("--urldecode", m_urlDecode, "URL-decode every value afterwards");
        options.SetFooter("Reads a message's bytes from standard input and prints JSON: params, payloadBase64.\n");
    }
    void Run(CContext& context) override
    {
        CVoBinaryDataParser parser;
        Check(parser.Parse(context.ReadInput(), m_binaryOnly, !m_noUtf8));
        if (m_urlDecode)
            Check(parser.ConvertParamValuesFromUTF8URLEncodedString(!m_noUtf8));
        context.PutObject({ { "params", ParametersAsJson(parser) }, { "payloadBase64", ToBase64(parser.Payload()) } });
    }

private:
    bool m_binaryOnly = false;
    bool m_noUtf8 = false;
    bool m_urlDecode = false;
};
} // namespace

std::span<const CCommandEntry> ParameterCommands()
{
    static constexpr std::array kCommands{
        CCommandEntry{ "params", "build", "Build a message: parameter text, \"&&\", payload",
                       MakeCommand<CParamsBuildCommand> },
        CCommandEntry{ "params", "form", "Build a multipart/form-data body", MakeCommand<CParamsFormCommand> },
        CCommandEntry{ "params", "parse", "Take a message apart", MakeCommand<CParamsParseCommand> },
    };
    return kCommands;
}
