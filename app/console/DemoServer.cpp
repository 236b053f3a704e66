// The demo server: parses the bodies with code of its own, apart from the library's message format.
#include "DemoServer.h"

#include "Text.h"

#include <base/VoDataParser.h>
#include <base/VoHResult.h>
#include <base/utils/VoDataConversion.h>
#include <win/OrvDigSign.h>

#include <optional>

namespace
{
// Refuses a malformed request. The library must not send such a request.
[[noreturn]] void Refuse()
{
    throw CVoHResultException(E_INVALIDARG);
}

// The text between two texts; nullopt if one of them is missing.
std::optional<std::string_view> Between(std::string_view text, std::string_view begin, std::string_view end)
{
    const size_t from = text.find(begin);
    if (from == std::string_view::npos)
        return std::nullopt;
    text.remove_prefix(from + begin.size());
    const size_t to = text.find(end);
    if (to == std::string_view::npos)
        return std::nullopt;
    return text.substr(0, to);
}

void AddParam(CVoBinaryDataParser& parser, std::string_view name, std::string_view value)
{
    const std::wstring wideValue = FromUtf8(value);
    Check(parser.AddParam(FromUtf8(name), std::wstring_view(wideValue)));
}

// multipart/form-data (RFC 7578) with at most one file.
void ParseMultipart(std::string_view contentType, std::string_view body, CVoBinaryDataParser& parser)
{
    const size_t boundaryAt = contentType.find("boundary=");
    if (boundaryAt == std::string_view::npos)
        Refuse();
    // Every delimiter except the first begins with a line end.
    std::string lineEndAndDelimiter("\r\n--");
    lineEndAndDelimiter += contentType.substr(boundaryAt + 9);
    const std::string_view delimiter = std::string_view(lineEndAndDelimiter).substr(2);
    if (!body.starts_with(delimiter))
        Refuse();
    body.remove_prefix(delimiter.size());
    while (body.starts_with("\r\n"))
    {
        body.remove_prefix(2);
        const size_t end = body.find(lineEndAndDelimiter);
        const size_t headEnd = body.find("\r\n\r\n");
        if (end == std::string_view::npos || headEnd == std::string_view::npos || headEnd > end)
            Refuse();
        const std::string_view head = body.substr(0, headEnd);
        const std::string_view content = body.substr(headEnd + 4, end - (headEnd + 4));
        const std::optional<std::string_view> name = Between(head, "; name=\"", "\"");
        if (!name)
            Refuse();
        if (const std::optional<std::string_view> fileName = Between(head, "; filename=\"", "\""))
        {
            AddParam(parser, "FileName", *fileName);
            const auto* const bytes = reinterpret_cast<const BYTE*>(content.data());
            parser.SetPayload(std::vector<BYTE>(bytes, bytes + content.size()));
        }
        else
            AddParam(parser, *name, content);
        body.remove_prefix(end + lineEndAndDelimiter.size());
    }
    if (body != "--")
        Refuse();
}

// The signature is the last field. It covers all bytes before it.
bool IsSigned(std::string_view body, const std::wstring& publicKey)
{
    const std::string field = ToUtf8(L"&" + std::wstring(kDemoSignatureName) + L"=");
    const size_t at = body.rfind(field);
    if (at == std::string_view::npos)
        return false;
    const std::vector<BYTE> signature = FromBase64(body.substr(at + field.size()));
    OrvDigSign::COrvSHA1Hash hash;
    bool valid = false;
    Check(OrvDigSign::COrvDigitalSignature::VerifyString(reinterpret_cast<const BYTE*>(body.data()), static_cast<UINT32>(at),
                                                         hash, signature.data(), static_cast<UINT32>(signature.size()),
                                                         publicKey, valid));
    return valid;
}

// Parameters with URL-encoded values: a form's body, or the query of a GET request.
void ParseForm(std::string_view text, CVoBinaryDataParser& parser)
{
    Check(parser.ReadParamsFromString(FromUtf8(text)));
    Check(parser.ConvertParamValuesFromUTF8URLEncodedString(true));
}

void ParseRequest(const Loopback::CRequest& request, const std::wstring& publicKey, CVoBinaryDataParser& parser)
{
    const std::string_view contentType = request.Header("Content-Type");
    if (request.method != "GET" && request.method != "POST")
        Refuse();
    if (request.method == "GET")
        ParseForm(request.Query(), parser);
    else if (contentType.starts_with("application/octet-stream"))
    {
        const auto* const bytes = reinterpret_cast<const BYTE*>(request.body.data());
        Check(parser.Parse(std::vector<BYTE>(bytes, bytes + request.body.size()), false, true));
    }
    else if (contentType.starts_with("multipart/form-data"))
        ParseMultipart(contentType, request.body, parser);
    else if (contentType.starts_with("application/x-www-form-urlencoded"))
    {
        ParseForm(request.body, parser);
        if (parser.ParamExists(kDemoSignatureName))
        {
            if (!IsSigned(request.body, publicKey))
                Refuse();
            Check(parser.AddParam(kDemoSignatureValid, true));
        }
    }
    else if (!contentType.empty() || !request.body.empty())
        Refuse();
}

void Respond(const Loopback::CRequest& request, const std::wstring& publicKey, Loopback::CConnection& connection)
{
    CVoBinaryDataParser parser;
    CVoByteBuffer body;
    try
    {
        ParseRequest(request, publicKey, parser);
        Check(parser.GetMessageData(body.PutLength(), body.PutBytes(), false, true));
    }
    catch (const CVoHResultException&)
    {
        connection.SendResponse(500);
        return;
    }
    connection.SendResponse(200, { { "Content-Type", "application/octet-stream; charset=UTF-8" } },
                            { reinterpret_cast<const char*>(body.Data()), body.Length() });
}

// One transport replaces "localhost" and 127.0.0.1 by a name that few resolvers know. It leaves other addresses unchanged.
Loopback::COptions ServerOptions()
{
    Loopback::COptions options;
    options.host = 2;
    return options;
}
} // namespace

CDemoServer::CDemoServer(std::wstring publicKey)
    : m_publicKey(std::move(publicKey)), m_server([this](const Loopback::CRequest& request, Loopback::CConnection& connection)
{ Respond(request, m_publicKey, connection); }, ServerOptions())
{
}

std::wstring CDemoServer::URL(std::wstring_view target) const
{
    return FromUtf8(m_server.URL(ToUtf8(target)));
}
