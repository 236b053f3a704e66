// ini: the canonical text of an INI file, its signature and the check of it.
#include "Console.h"

#include <base/VoWipe.h>
#include <win/OrvSignedIniFileHandler.h>

#include <array>

namespace
{
using OrvSignedIniFileHandler::CVoSignedIniFileHandler2;

void AddFile(CLI::App& app, std::string& file, const char* description)
{
    app.add_option("FILE", file, description)->required();
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
    void Declare(CLI::App& app) override
    {
        AddFile(app, m_file, "The INI file");
        app.footer("Prints exactly what a signature of the file is made of: lines end with CR LF, and none ends the text.\n" +
                   app.get_footer());
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
    void Declare(CLI::App& app) override
    {
        AddFile(app, m_file, "The INI file, which is rewritten");
        app.add_option("--key", m_key, "The private key")->required()->type_name("FILE");
        app.add_option("--line", m_line, "Characters of the signature in each of its lines; default 0, all in one")
            ->check(CLI::Range(0U, 1000000000U).description(""))
            ->type_name("N");
        app.footer("Only the section \"Signature\" changes, or is added at the end.\n" + app.get_footer());
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
    void Declare(CLI::App& app) override
    {
        AddFile(app, m_file, "The INI file");
        app.add_option("--key", m_key, "The public key")->required()->type_name("FILE");
        app.footer("Prints \"valid\" (exit code 0) or \"not valid\" (exit code 1).\n" + app.get_footer());
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
