// send, get: requests through the library.
#include "Console.h"
#include "CookieFile.h"
#include "ExchangeJson.h"
#include "Files.h"
#include "Interrupt.h"
#include "Parameters.h"
#include "ProgressBar.h"
#include "RequestOptions.h"

#include <base/VoText.h>
#include <base/VoUtils.h>

#include <array>

namespace
{
using EContentKind = CVoHTTPMessage::EContentKind;
using EResponseKind = CVoHTTPMessage::EResponseKind;

constexpr const char* kOutput = R"(Output: the parameters as NAME=VALUE lines, then the payload's bytes unless -o took them.
--json: engine, params ([[name, value], ...]), payloadBase64, responses (with --messages), localAddress, status (of the last
answer), retried, seconds (a list, one a request), cookie (the Cookie header that was sent), exchange (what happened in the
last request: attempts, each with its addresses, times in milliseconds or null, answers and bytes; and the chain of reports of a
failure); on failure also error (the code's text), reason (why, one sentence), and for an answer whose status is not 200
errorBodyBase64 (of 400 and above: the first 64 KiB of its body).
Ctrl+C cancels the request: exit code 1, 0x800704C7. A second Ctrl+C ends the program at once.
)";

// Takes the body of a response that nobody looks at.
class CDiscardingSink final : public IVoResponseSink
{
public:
    [[nodiscard]] HRESULT Write(std::span<const BYTE> /*bytes*/) noexcept override { return S_OK; }
    [[nodiscard]] HRESULT Restart() noexcept override { return S_OK; }
};

// The common part of send and get.
class CRequestCommand : public ICommand
{
public:
    explicit CRequestCommand(EResponseKind response) noexcept : m_response(response) {}

    void Run(CContext& context) final
    {
        Prepare(context);
        const CVoComPtr<CAuthAnswers> answers = m_connection.MakeAuthAnswers(context);
        CServerAddressData address;
        // The text is not shown: it may hold a password.
        if (const HRESULT hr = address.SetAddress(FromUtf8(m_url), false, true, true); FAILED(hr))
            throw CDetailedFailure(hr, "URL is no server's address: [http[s]://]HOST[:PORT][/PATH][?QUERY]");
        AdaptAddress(context, address);
        context.CheckOutputFile(m_output);
        context.CheckOutputFile(m_connection.CookieFile());
        if (StreamsToFile(context))
            CContext::ForFile(m_output, [&] { m_file = std::make_unique<COutputFile>(FromUtf8(m_output)); });
        LoadCookies(context, m_connection.CookieFile());
        context.PutKey("engine", m_connection.TransportName());
        COutcome outcome;
        const auto exchange = [&]
        {
            const CInterruptScope scope(context);
            const std::shared_ptr<CVoHTTPMessage> message = m_connection.Connect(context, address, *answers.Get());
            Exchange(context, *message, *answers.Get(), scope, outcome);
        };
        try
        {
            exchange();
        }
        catch (const CVoHResultException& failure)
        {
            SaveCookies(context, m_connection.CookieFile());
            throw;
        }
        // A failed request may have set cookies, too.
        SaveCookies(context, m_connection.CookieFile());
        PutOutcome(context, outcome);
        if (m_file && m_file->HasFailed())
            throw CDetailedFailure(outcome.result, m_output);
        if (const std::string fault = FaultOfOptions(); FAILED(outcome.result) && !fault.empty())
            throw CDetailedFailure(outcome.result, fault);
        Check(outcome.result);
        PutResponse(context, outcome.response);
    }

protected:
    struct CResponse
    {
        std::vector<CVoBinaryDataParser> messages; // one, except with --messages
    };
    struct CRequest
    {
        CVoHTTPMessage& message;
        std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> data;
    };

    void DeclareCommon(COptions& options, const char* defaultResponse)
    {
        options.Add("URL", m_url, "[http[s]://]HOST[:PORT][/PATH][?QUERY]").Required();
        m_connection.Declare(options);
        options.AddChoice<EResponseKind>(
            "--response", m_response, { { "params", EResponseKind::Parameters }, { "raw", EResponseKind::Binary } },
            std::string("Read the answer as parameter text and payload, or as bytes; default ") + defaultResponse);
        options
            .Add("-o,--output", m_output,
                 "Put the answer's payload (or its bytes) in FILE, which is there only after success; - is standard output")
            .TypeName("FILE")
            .NotEmpty();
        options.Add("--repeat", m_repeat, "Make the request N times on one connection and show the last answer")
            .TypeName("N")
            .InRange(1, 1000000000);
    }

    // Reads the files that the command line names, before anything is sent.
    virtual void Prepare(CContext& context) = 0;
    virtual void AdaptAddress(CContext&, CServerAddressData&) {}
    [[nodiscard]] virtual HRESULT Open(CRequest& request) = 0;
    [[nodiscard]] virtual HRESULT Send(CRequest& request, bool allowRetry, CVoHTTPMessage::CSendResult& sent) = 0;
    [[nodiscard]] virtual HRESULT Read(const CRequest& request, EResponseKind kind, CResponse& response)
    {
        response.messages.clear();
        return request.message.ReadResponse(request.data, response.messages.emplace_back(), kind, nullptr, nullptr);
    }
    [[nodiscard]] virtual bool HasSeveralMessages() const noexcept { return false; }
    // Why the request of these options cannot be made; empty when it can.
    [[nodiscard]] virtual std::string FaultOfOptions() const { return {}; }

private:
    // Whether the payload goes to its file while it arrives, and not through memory. A JSON object has it as well; standard
    // output gets nothing of a response that breaks off; several messages stand behind one another in the body.
    [[nodiscard]] bool StreamsToFile(const CContext& context) const
    {
        return !m_output.empty() && m_output != "-" && !context.Options().json &&
               (!HasSeveralMessages() || m_response == EResponseKind::Binary);
    }

    // What came of the requests.
    struct COutcome
    {
        HRESULT result = S_OK;
        CResponse response;
        CVoHTTPMessage::CSendResult sent;
        CJson seconds = CJson::array();
        bool isCancelled = false;    // by Ctrl+C
        bool isAnswerUnread = false; // there is one, but reading it failed
        std::wstring cookie;
        CVoExchangeRecord record;
        std::vector<BYTE> errorBody;
    };

    void Exchange(CContext& context, CVoHTTPMessage& message, CAuthAnswers& answers, const CInterruptScope& scope,
                  COutcome& outcome)
    {
        HRESULT& hr = outcome.result;
        CDiscardingSink discard;
        for (UINT32 i = 0; i < m_repeat && SUCCEEDED(hr); ++i)
        {
            const INT64 begin = VoGetMicroseconds();
            CRequest request{ message, nullptr };
            hr = Open(request);
            if (SUCCEEDED(hr))
                hr = scope.Set(request.data);
            if (SUCCEEDED(hr) && m_file)
                request.data->SetResponseSink(i + 1 < m_repeat ? static_cast<IVoResponseSink*>(&discard) : m_file.get(),
                                              m_response);
            if (SUCCEEDED(hr))
            {
                const CProgressBar progress(context.Streams().err, request.data, context.Options().quiet);
                hr = Send(request, m_connection.AllowsRetry(), outcome.sent);
                if (SUCCEEDED(hr))
                {
                    hr = Read(request, m_response, outcome.response);
                    outcome.isAnswerUnread = FAILED(hr);
                }
            }
            outcome.seconds.push_back(static_cast<double>(VoGetMicroseconds() - begin) / 1e6);
            if (SUCCEEDED(hr))
                answers.OnRequestAccepted();
            if (!request.data || (SUCCEEDED(hr) && i + 1 < m_repeat))
                continue;
            outcome.cookie = request.data->CookieHeader();
            // A request that was refused before its first attempt has neither.
            (void)request.data->GetExchangeRecord(outcome.record);
            (void)request.data->GetErrorBody(outcome.errorBody);
        }
        outcome.isCancelled = scope.IsCancelled();
    }

    static void PutOutcome(CContext& context, const COutcome& outcome)
    {
        context.PutKey("localAddress", ToUtf8(outcome.sent.localAddress));
        context.PutKey("status", outcome.sent.statusCode);
        context.PutKey("retried", outcome.sent.retried);
        context.PutKey("seconds", outcome.seconds);
        context.PutKey("cookie", ToUtf8(outcome.cookie));
        context.PutKey("exchange", ExchangeAsJson(outcome.record));
        if (SUCCEEDED(outcome.result))
            return;
        const UINT32 status = outcome.sent.statusCode;
        constexpr UINT32 kStatusOk = 200;
        const bool isOtherStatus = status != 0 && status != kStatusOk;
        if (isOtherStatus)
            context.PutKey("errorBodyBase64", ToBase64(outcome.errorBody));
        const std::wstring reason = outcome.record.Reason();
        // The exchange itself succeeded, but the answer is no parameter text.
        context.SetFailureReason(outcome.isAnswerUnread && reason.empty() ? L"the answer is not in the form that was asked for"
                                                                          : reason);
        if (outcome.isCancelled)
            return;
        if (isOtherStatus)
            context.SetFailureRemark("the answer's status was " + std::to_string(status) +
                                     (outcome.errorBody.empty() ? "" : "; its body is in errorBodyBase64 with --json"));
        else if (!context.Options().log)
            context.SetFailureRemark("more about it stands in the log; try again with --log");
    }

    void PutResponse(CContext& context, const CResponse& response)
    {
        if (m_file)
            CContext::ForFile(m_output, [&] { m_file->Commit(); });
        else if (!m_output.empty())
        {
            std::vector<BYTE> payloads;
            for (const CVoBinaryDataParser& message : response.messages)
                payloads.insert(payloads.end(), message.Payload().begin(), message.Payload().end());
            if (m_output == "-")
                WriteContent(context.Streams().out, payloads);
            else
                context.WriteFile(m_output, payloads);
        }
        if (context.Options().json)
        {
            PutJson(context, response);
            return;
        }
        for (const CVoBinaryDataParser& message : response.messages)
        {
            std::string lines;
            for (size_t i = 0; i < message.GetCount(); ++i)
                lines += ToUtf8(message.GetAt(i).Name()) + '=' + ToUtf8(message.GetAt(i).Value()) + '\n';
            WriteContent(context.Streams().out, VoBytesOf(lines));
            if (m_output.empty())
                WriteContent(context.Streams().out, message.Payload());
        }
    }

    // Writes what a server sent: as it is, but to a terminal without what could command it.
    static void WriteContent(IByteSink& out, std::span<const BYTE> bytes)
    {
        if (out.IsTerminal())
            out.Write(EscapeControls({ reinterpret_cast<const char*>(bytes.data()), bytes.size() }, true));
        else
            out.Write(bytes);
    }

    void PutJson(CContext& context, const CResponse& response)
    {
        CJson messages = CJson::array();
        for (const CVoBinaryDataParser& message : response.messages)
            messages.push_back({ { "params", ParametersAsJson(message) }, { "payloadBase64", ToBase64(message.Payload()) } });
        if (HasSeveralMessages())
            context.PutKey("responses", std::move(messages));
        else
            for (const auto& [key, value] : messages.at(0).items())
                context.PutKey(key.c_str(), std::move(value));
    }

    std::string m_url;
    CConnectionOptions m_connection;
    EResponseKind m_response;
    std::string m_output;
    std::unique_ptr<COutputFile> m_file; // where the payload goes while it arrives; null: it goes through memory
    UINT32 m_repeat = 1;
};

std::vector<BYTE> ParsePayload(const std::string& base64)
try
{
    return FromBase64(base64);
}
catch (const CVoHResultException&)
{
    throw CUsageError("--messages: a \"payloadBase64\" is malformed");
}

// The messages of --messages.
std::vector<CVoBinaryDataParser> ParseMessages(const std::vector<BYTE>& text)
try
{
    std::vector<CVoBinaryDataParser> messages;
    const CJson json = CJson::parse(text.begin(), text.end());
    for (const CJson& item : json.get_ref<const CJson::array_t&>())
    {
        CVoBinaryDataParser& message = messages.emplace_back();
        for (const CJson& parameter : item.value("params", CJson::array()))
        {
            const std::wstring name = FromUtf8(parameter.at(0).get<std::string>());
            const std::wstring value = FromUtf8(parameter.at(1).get<std::string>());
            Check(message.AddParam(name, std::wstring_view(value)));
        }
        message.SetPayload(ParsePayload(item.value("payloadBase64", std::string())));
    }
    if (messages.empty())
        throw CUsageError("--messages: the file holds no message");
    return messages;
}
catch (const CJson::exception&)
{
    throw CUsageError(R"(--messages: the file is no array of {"params":[[NAME,VALUE],...],"payloadBase64":"..."})");
}

class CSendCommand final : public CRequestCommand
{
public:
    CSendCommand() : CRequestCommand(EResponseKind::Parameters) {}

    void Declare(COptions& options) override
    {
        DeclareCommon(options, "params");
        m_parameters.Declare(options);
        options.AddChoice<EContentKind>(
            "--kind", m_kind,
            { { "raw", EContentKind::Raw },
              { "multipart", EContentKind::Multipart },
              { "form", EContentKind::Form },
              { "signed", EContentKind::SignedForm },
              { "empty", EContentKind::Empty } },
            "What the body carries: raw (default) the library's message; multipart a form with a file (the parameters "
            "FileName and ContentType describe it; default: the payload's name, image/pjpeg); form and signed a form without "
            "payload");
        options.AddFlag("--no-utf8", m_noUtf8, "Write texts in the system's ANSI code page");
        options.Add("--key", m_key, "signed: the private key, hexadecimal text of a key blob (see 'key new')")
            .TypeName("FILE")
            .NotEmpty();
        options.Add("--signature-name", m_signatureName, "signed: the parameter that carries the signature")
            .TypeName("NAME")
            .NotEmpty();
        options
            .Add("--messages", m_messagesFile,
                 "Send several messages in one exchange: a JSON array of {\"params\":[[NAME,VALUE],...],"
                 "\"payloadBase64\":\"...\"}")
            .TypeName("FILE")
            .NotEmpty();
        options.SetFooter(
            "Sends one POST request.\n" + std::string(kOutput) +
            "Examples:\n  voutils send http://localhost:8080/service --engine curl -p user=ann --payload photo.jpg --kind "
            "multipart -p FileName=photo.jpg\n  voutils send https://server.example/order --engine curl --kind signed --key "
            "private.key --signature-name sig -p order=17\n");
        m_options = options;
    }

protected:
    void Prepare(CContext& context) override
    {
        if (!m_messagesFile.empty())
        {
            for (const char* const other : { "--param", "--payload", "--kind", "--key", "--signature-name" })
                if (m_options.WasGiven(other))
                    throw CUsageError(std::string(other) + " does not go with --messages");
            m_messages = ParseMessages(context.ReadFile(m_messagesFile));
            return;
        }
        m_parameters.Fill(context, m_message);
        // The payload of a form is a file, which needs a name.
        if (m_kind == EContentKind::Multipart && m_parameters.HasPayload() && !m_message.ParamExists(L"FileName"))
            Check(m_message.AddParam(L"FileName", std::wstring_view(m_parameters.PayloadName())));
        if (!m_key.empty())
            m_keyText = CVoSecret<wchar_t>(context.ReadTextFile(m_key));
    }
    HRESULT Open(CRequest& request) override { return request.message.OpenRequest(request.data); }
    HRESULT Send(CRequest& request, bool allowRetry, CVoHTTPMessage::CSendResult& sent) override
    {
        if (HasSeveralMessages())
            return request.message.SendMultipleMessages(request.data, m_messages, !m_noUtf8, allowRetry, &sent);
        return request.message.SendMessage(request.data, m_message, m_kind, !m_noUtf8, m_keyText.Get(),
                                           FromUtf8(m_signatureName), allowRetry, &sent);
    }
    HRESULT Read(const CRequest& request, EResponseKind kind, CResponse& response) override
    {
        if (!HasSeveralMessages() || kind == EResponseKind::Binary)
            return CRequestCommand::Read(request, kind, response);
        response.messages.clear();
        return request.message.ReadMultipleResponses(request.data, response.messages, static_cast<UINT32>(m_messages.size()),
                                                     nullptr);
    }
    [[nodiscard]] bool HasSeveralMessages() const noexcept override { return !m_messages.empty(); }
    [[nodiscard]] std::string FaultOfOptions() const override
    {
        if (m_kind == EContentKind::SignedForm && m_key.empty())
            return "--kind signed needs --key";
        if (m_kind == EContentKind::SignedForm && m_signatureName.empty())
            return "--kind signed needs --signature-name";
        if (m_kind != EContentKind::Raw && m_kind != EContentKind::Multipart && m_parameters.HasPayload())
            return "only --kind raw and multipart send a --payload";
        return {};
    }

private:
    COptions m_options;
    CParameterOptions m_parameters;
    EContentKind m_kind = EContentKind::Raw;
    bool m_noUtf8 = false;
    std::string m_key;
    std::string m_signatureName;
    std::string m_messagesFile;
    CVoBinaryDataParser m_message;
    CVoSecret<wchar_t> m_keyText;
    std::vector<CVoBinaryDataParser> m_messages;
};

class CGetCommand final : public CRequestCommand
{
public:
    CGetCommand() : CRequestCommand(EResponseKind::Binary) {}

    void Declare(COptions& options) override
    {
        DeclareCommon(options, "raw");
        m_parameters.Declare(options, false);
        options.AddFlag("--no-utf8", m_noUtf8, "URL-encode the parameters as one byte a character");
        options.SetFooter("Sends one GET request; parameters become part of the URL's query.\n" + std::string(kOutput) +
                          "Example: voutils get https://server.example/list --engine curl -p page=2 -o list.bin\n");
    }

protected:
    void Prepare(CContext&) override {}
    void AdaptAddress(CContext& context, CServerAddressData& address) override
    {
        std::wstring query = address.Query();
        for (auto [name, value] : m_parameters.Read(context))
        {
            Check(CVoDataParser::ToUTF8AndUrlEncode(!m_noUtf8, name));
            Check(CVoDataParser::ToUTF8AndUrlEncode(!m_noUtf8, value));
            query += query.empty() ? L"?" : L"&";
            query.append(name).append(1, L'=').append(value);
        }
        if (query != address.Query())
            Check(address.SetObjectPath((address.Path().empty() ? L"/" : address.Path()) + query));
    }
    HRESULT Open(CRequest& request) override { return request.message.OpenRequest(request.data); }
    HRESULT Send(CRequest& request, bool allowRetry, CVoHTTPMessage::CSendResult& sent) override
    {
        return request.message.SendGetRequest(request.data, {}, allowRetry, &sent);
    }

private:
    CParameterOptions m_parameters;
    bool m_noUtf8 = false;
};
} // namespace

std::span<const CCommandEntry> RequestCommands()
{
    static constexpr std::array kCommands{
        CCommandEntry{ nullptr, "send", "Send parameters and a payload to a server, and read the answer",
                       MakeCommand<CSendCommand> },
        CCommandEntry{ nullptr, "get", "Get what is at a URL", MakeCommand<CGetCommand> },
    };
    return kCommands;
}
