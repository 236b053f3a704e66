// ini: the canonical text of an INI file, signing and verifying.
#include "Console.h"

#include <base/VoWipe.h>
#include <win/OrvSignedIniFileHandler.h>

#include <array>

namespace
{
using OrvSignedIniFileHandler::CVoSignedIniFileHandler2;

void AddFile(COptions& options, std::string& file, const char* description)
{
    options.Add("FILE", file, description).Required();
}

// The file's content; "-" is standard input.
void Read(CContext& context, const std::string& file, CVoSignedIniFileHandler2& handler)
{
    const std::vector<BYTE> bytes = context.ReadFile(file);
    Check(handler.Parse({ reinterpret_cast<const char*>(bytes.data()), bytes.size() }));
}

class CIniCanonicalCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        AddFile(options, m_file, "The INI file");
        options.SetFooter(
            "Prints exactly what a signature of the file is made of: lines end with CR LF, and none ends the text.\n");
    }
    void Run(CContext& context) override
    {
        CVoSignedIniFileHandler2 handler;
        Read(context, m_file, handler);
        std::wstring text;
        Check(handler.GetSignedText(text));
        context.PutText("text", text);
    }

private:
    std::string m_file;
};

class CIniSignCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        AddFile(options, m_file, "The INI file, which is rewritten");
        options.Add("--key", m_key, "The private key").Required().TypeName("FILE");
        options.Add("--line", m_line, "Characters of the signature in each of its lines; default 0, all in one")
            .InRange(0, 1000000000)
            .TypeName("N");
        options.SetFooter("Only the section \"Signature\" changes, or is added at the end.\n");
    }
    void Run(CContext& context) override
    {
        if (m_file == "-")
            throw CUsageError("FILE: standard input cannot be rewritten");
        const CVoSecret<wchar_t> key(context.ReadTextFile(m_key));
        CVoSignedIniFileHandler2 handler;
        if (const HRESULT hr = handler.Open(FromUtf8(m_file)); FAILED(hr))
            throw CDetailedFailure(hr, m_file);
        Check(handler.SignFile(key.Get(), m_line));
    }

private:
    std::string m_file;
    std::string m_key;
    UINT32 m_line = 0;
};

class CIniVerifyCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        AddFile(options, m_file, "The INI file");
        options.Add("--key", m_key, "The public key").Required().TypeName("FILE");
        options.SetFooter("Prints \"valid\" (exit code 0) or \"not valid\" (exit code 1).\n");
    }
    void Run(CContext& context) override
    {
        const std::wstring key = context.ReadTextFile(m_key);
        CVoSignedIniFileHandler2 handler;
        Read(context, m_file, handler);
        bool valid = false;
        const HRESULT hr = handler.Verify(key, valid);
        if (hr == HResultFromWin32(ERROR_NOT_FOUND))
            throw CDetailedFailure(hr, "there is no section \"Signature\"");
        Check(hr);
        context.PutValidity(valid);
    }

private:
    std::string m_file;
    std::string m_key;
};
} // namespace

std::span<const CCommandEntry> IniCommands()
{
    static constexpr std::array kCommands{
        CCommandEntry{ "ini", "canonical", "Print the text that a signature of an INI file is made of",
                       MakeCommand<CIniCanonicalCommand> },
        CCommandEntry{ "ini", "sign", "Sign an INI file with a private key", MakeCommand<CIniSignCommand> },
        CCommandEntry{ "ini", "verify", "Check a signed INI file with a public key", MakeCommand<CIniVerifyCommand> },
    };
    return kCommands;
}
