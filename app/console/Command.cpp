// CContext and CProcessState: input, results and the shared stores.
#include "Command.h"

#include "Files.h"

#include <VoGlobalHTTPCookieStoreImpl.h>

IVoHTTPCookieStore& CProcessState::CookieStore()
{
    if (!m_cookieStore)
        Check(CreateGlobalHTTPCookieStoreForModule(m_cookieStore.Put()));
    return *m_cookieStore.Get();
}

CVoGlobalHTTPProxyStoreImpl& CProcessState::ProxyStore()
{
    if (!m_proxyStore)
        m_proxyStore = VoMakeComObject<CVoGlobalHTTPProxyStoreImpl>();
    if (!m_proxyStore)
        throw std::bad_alloc();
    return *m_proxyStore.Get();
}

std::vector<BYTE> CContext::ReadInput()
{
    if (m_inputTaken)
        throw CUsageError("standard input can be read only once");
    m_inputTaken = true;
    return ReadAll(m_streams.in);
}

std::vector<BYTE> CContext::ReadFile(const std::string& file)
{
    if (file == "-")
        return ReadInput();
    try
    {
        return ReadWholeFile(FromUtf8(file));
    }
    catch (const CVoHResultException& failure)
    {
        throw CDetailedFailure(failure.Result(), file);
    }
}

std::wstring CContext::ReadTextFile(const std::string& file)
{
    const std::vector<BYTE> bytes = ReadFile(file);
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (text.starts_with("\xEF\xBB\xBF"))
        text.remove_prefix(3);
    try
    {
        return FromUtf8(text);
    }
    catch (const CVoHResultException& failure)
    {
        throw CDetailedFailure(failure.Result(), file);
    }
}

void CContext::WriteFile(const std::string& file, std::span<const BYTE> bytes)
{
    if (file == "-")
    {
        m_streams.out.Write(bytes);
        return;
    }
    ForFile(file, [&] { WriteWholeFile(FromUtf8(file), bytes); });
}

void CContext::CheckOutputFile(const std::string& file)
{
    if (file == "-" && m_options.json)
        throw CUsageError("--json leaves no room for other bytes on standard output");
    if (file.empty() || file == "-")
        return;
    ForFile(file, [&] { CheckReplaceable(FromUtf8(file)); });
}

std::wstring CContext::ReadValue(std::string_view value)
{
    if (value == "-")
        return ReadTextFile("-");
    if (value.starts_with('@'))
        return ReadTextFile(std::string(value.substr(1)));
    return FromUtf8(value);
}

std::wstring CContext::ReadLineValue(std::string_view value)
{
    std::wstring text = ReadValue(value);
    while (text.ends_with(L'\n') || text.ends_with(L'\r'))
        text.pop_back();
    return text;
}

void CContext::PutLine(const char* key, std::wstring_view text)
{
    if (m_options.json)
        m_object[key] = ToUtf8(text);
    else
        m_streams.out.Write(ToUtf8(text) + '\n');
}

void CContext::PutText(const char* key, std::wstring_view text)
{
    if (m_options.json)
        m_object[key] = ToUtf8(text);
    else
        m_streams.out.Write(ToUtf8(text));
}

void CContext::PutValidity(bool valid)
{
    PutKey("valid", valid);
    if (!m_options.json)
        PutLine("valid", valid ? L"valid" : L"not valid");
    if (!valid)
        SetExitCode(kExitFailure);
}

void CContext::PutBytes(const char* key, std::span<const BYTE> bytes)
{
    if (m_options.json)
        m_object[key] = ToBase64(bytes);
    else
        m_streams.out.Write(bytes);
}

void CContext::PutObject(const CJson& object)
{
    if (m_options.json)
        m_object.update(object);
    else
        m_streams.out.Write(EscapeControls(object.dump(2, ' ', false, CJson::error_handler_t::replace), true) + '\n');
}

void CContext::Remark(std::string_view text)
{
    if (!m_options.quiet)
        m_streams.err.Write("voutils: " + std::string(text) + '\n');
}

int CContext::Finish(HRESULT result, std::string_view detail)
{
    std::string error;
    if (FAILED(result))
    {
        m_exitCode = kExitFailure;
        error = ErrorLine(result);
        if (!detail.empty())
            error += (error.empty() ? "" : " ") + ("(" + std::string(detail) + ")");
    }
    if (m_options.json && !m_writesLines)
    {
        CJson object = CJson::object();
        object["result"] = ResultCode(result);
        if (FAILED(result))
            object["error"] = error;
        if (FAILED(result) && !m_failureReason.empty())
            object["reason"] = m_failureReason;
        for (const auto& [key, value] : m_object.items())
            object[key] = std::move(value);
        m_streams.out.Write(JsonLine(object));
    }
    if (FAILED(result))
    {
        if (!m_failureReason.empty())
        {
            // "Call failed.", "could not connect" become "Call failed: could not connect".
            error.erase(error.find_last_not_of(".! ") + 1);
            error += (error.empty() ? "" : ": ") + m_failureReason;
        }
        m_streams.err.Write("voutils: " + ResultCode(result) + ' ' + EscapeControls(error, false) + '\n');
        if (!m_failureRemark.empty() && !m_options.json)
            Remark(m_failureRemark);
    }
    return m_exitCode;
}
