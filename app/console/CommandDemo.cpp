// demo: every kind of request through every transport, to a server of this program.
#include "Console.h"
#include "DemoServer.h"
#include "Interrupt.h"
#include "Parameters.h"

#include <VoHTTPTransports.h>
#include <base/VoUtils.h>
#include <base/VoWipe.h>
#include <win/OrvDigSign.h>

#include <algorithm>
#include <array>
#include <optional>

namespace
{
using EContentKind = CVoHTTPMessage::EContentKind;

struct CKind
{
    const char* name;
    std::optional<EContentKind> content; // none: a GET request
    bool hasParameters;
    bool hasPayload;
};
constexpr std::array kKinds{
    CKind{ "raw", EContentKind::Raw, true, true },       CKind{ "multipart", EContentKind::Multipart, true, true },
    CKind{ "form", EContentKind::Form, true, false },    CKind{ "signed", EContentKind::SignedForm, true, false },
    CKind{ "empty", EContentKind::Empty, false, false }, CKind{ "get", std::nullopt, true, false },
};

constexpr UINT32 kConnectTimeout = 10; // seconds
constexpr UINT32 kRequestTimeout = 20;
constexpr UINT32 kKeyBits = 2048;
constexpr size_t kPayloadSize = size_t{ 64 } * 1024;

// Texts with characters that encodings must escape or convert.
constexpr std::array<std::pair<const wchar_t*, const wchar_t*>, 3> kParameters{ {
    { L"customer", L"M\u00FCller & S\u00F6hne" },
    { L"price", L"12 $ = 11 \u20AC" },
    { L"note", L"100% \u2603 \U0001F4F7" },
} };

std::vector<BYTE> MakePayload()
{
    std::vector<BYTE> payload(kPayloadSize);
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<BYTE>(i * 31 + i / 256);
    return payload;
}

// One row of the table.
struct CRow
{
    const char* kind;
    const char* transport;
    std::string sent;
    std::string received;
    double milliseconds = 0;
    bool right = false;
};

std::string Describe(size_t parameters, size_t payload)
{
    std::string text = parameters == 0 ? "no parameters" : std::to_string(parameters) + " parameters";
    if (payload != 0)
        text += ", " + std::to_string(payload) + " bytes";
    return text;
}

class CDemo
{
public:
    CRow Run(const CKind& kind, const CVoHTTPTransportRow& transport, const CInterruptScope& scope)
    {
        CRow row{ kind.name, transport.name, {}, {} };
        CVoBinaryDataParser request;
        if (kind.hasParameters)
            for (const auto& [name, value] : kParameters)
                Check(request.AddParam(name, value));
        if (kind.hasPayload)
            request.SetPayload(MakePayload());
        if (kind.content == EContentKind::Multipart)
            Check(request.AddParam(L"FileName", L"photo.jpg"));
        row.sent = Describe(request.GetCount(), request.Payload().size());
        if (kind.content == EContentKind::SignedForm)
            row.sent += ", signature";

        CVoBinaryDataParser response;
        const INT64 begin = VoGetMicroseconds();
        const HRESULT hr = Exchange(kind, transport, request, response, scope);
        row.milliseconds = static_cast<double>(VoGetMicroseconds() - begin) / 1000;
        if (FAILED(hr))
        {
            row.received = ResultCode(hr) + ' ' + ErrorLine(hr);
            return row;
        }
        const size_t extra = kind.content == EContentKind::SignedForm ? 2 : 0;
        row.received = Describe(response.GetCount() - std::min(extra, response.GetCount()), response.Payload().size());
        if (response.ParamExists(kDemoSignatureValid))
            row.received += ", signature valid";
        row.right = IsRight(request, response, extra);
        return row;
    }

private:
    HRESULT Exchange(const CKind& kind, const CVoHTTPTransportRow& transport, const CVoBinaryDataParser& request,
                     CVoBinaryDataParser& response, const CInterruptScope& scope)
    {
        CServerAddressData address;
        Check(address.SetAddress(m_server.URL(kind.content ? L"/demo" : Query(request)), false, true, true));
        std::shared_ptr<CVoHTTPMessage> message;
        if (const HRESULT hr = CVoHTTPMessage::Connect(transport.kind, address, nullptr, nullptr, nullptr, kConnectTimeout,
                                                       kRequestTimeout, true, false, message);
            FAILED(hr))
            return hr;
        std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> data;
        HRESULT hr = message->OpenRequest(data);
        if (SUCCEEDED(hr))
            hr = scope.Set(data);
        if (SUCCEEDED(hr))
        {
            const bool isSigned = kind.content == EContentKind::SignedForm;
            hr = kind.content ? message->SendMessage(data, request, *kind.content, true,
                                                     isSigned ? std::wstring_view(m_privateKey.Get()) : std::wstring_view(),
                                                     isSigned ? kDemoSignatureName : L"", false, nullptr)
                              : message->SendGetRequest(data, {}, false, nullptr);
        }
        if (SUCCEEDED(hr))
            hr = message->ReadResponse(data, response, CVoHTTPMessage::EResponseKind::Parameters, nullptr, nullptr);
        return hr;
    }

    static std::wstring Query(const CVoBinaryDataParser& request)
    {
        CVoBinaryDataParser encoded(request);
        Check(encoded.ConvertParamValuesToUTF8URLEncodedString(true));
        std::wstring text;
        Check(encoded.GetParamsAsString(text));
        return L"/demo?" + text;
    }

    // Whether the response holds what was sent, in the same order, and `extra` parameters about the signature.
    static bool IsRight(const CVoBinaryDataParser& request, const CVoBinaryDataParser& response, size_t extra)
    {
        if (response.GetCount() != request.GetCount() + extra || (extra != 0 && !response.ParamExists(kDemoSignatureValid)))
            return false;
        for (size_t i = 0; i < request.GetCount(); ++i)
            if (request.GetAt(i).Name() != response.GetAt(i).Name() || request.GetAt(i).Value() != response.GetAt(i).Value())
                return false;
        return std::ranges::equal(request.Payload(), response.Payload());
    }

    // Makes a pair of keys and returns the public one.
    static std::wstring Generate(std::wstring& privateKey)
    {
        std::wstring publicKey;
        Check(OrvDigSign::COrvRSAKey::Generate(kKeyBits, privateKey, publicKey));
        return publicKey;
    }

    CVoSecret<wchar_t> m_privateKey;
    CDemoServer m_server{ Generate(m_privateKey.Get()) };
};

class CDemoCommand : public ICommand
{
public:
    void Declare(COptions& options) override
    {
        options.SetFooter(
            "Starts a small server on this machine, sends it one request of every content kind through every transport, and "
            "prints what was sent, what came back and how long it took. Exit code 0 only if every row is right.\n");
    }
    void Run(CContext& context) override
    {
        CDemo demo;
        CJson rows = CJson::array();
        bool right = true;
        PutRow(context, "kind", "transport", "sent", "came back", "ms", "");
        for (const CVoHTTPTransportRow& transport : VoHTTPTransports())
        {
            for (const CKind& kind : kKinds)
            {
                const CRow row = RunRow(context, demo, kind, transport);
                right = right && row.right;
                PutRow(context, row.kind, row.transport, row.sent, row.received, ToUtf8(VoFormat(L"%.1f", row.milliseconds)),
                       row.right ? "right" : "WRONG");
                rows.push_back({ { "kind", row.kind },
                                 { "transport", row.transport },
                                 { "sent", row.sent },
                                 { "received", row.received },
                                 { "seconds", row.milliseconds / 1000 },
                                 { "right", row.right } });
            }
        }
        context.PutKey("rows", std::move(rows));
        if (!right)
            context.SetExitCode(kExitFailure);
    }

private:
    static CRow RunRow(CContext& context, CDemo& demo, const CKind& kind, const CVoHTTPTransportRow& transport)
    {
        const CInterruptScope scope(context);
        CRow row = demo.Run(kind, transport, scope);
        if (scope.IsCancelled())
            throw CVoHResultException(kResultCancelled);
        return row;
    }

    static void PutRow(CContext& context, const std::string& kind, const std::string& transport, const std::string& sent,
                       const std::string& received, const std::string& time, const std::string& verdict)
    {
        if (context.Options().json)
            return;
        std::string line;
        const auto column = [&line](const std::string& text, size_t width, bool toTheRight)
        {
            const std::string blanks(text.size() < width ? width - text.size() : 0, ' ');
            line += toTheRight ? blanks + text : text + blanks;
            line += "  ";
        };
        column(kind, 9, false);
        column(transport, 16, false);
        column(sent, 26, false);
        column(received, 32, false);
        column(time, 7, true);
        line += verdict;
        line.erase(line.find_last_not_of(' ') + 1);
        context.Streams().out.Write(line + '\n');
    }
};
} // namespace

std::span<const CCommandEntry> DemoCommands()
{
    static constexpr std::array kCommands{
        CCommandEntry{ nullptr, "demo", "Try every kind of request on a server of our own", MakeCommand<CDemoCommand> },
    };
    return kCommands;
}
