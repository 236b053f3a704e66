#include "ScriptedServer.h"

#include <zlib.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace TestSupport
{
namespace
{
constexpr std::chrono::hours kStall{ 24 };
const CHeader kBinary{ "Content-Type", "application/octet-stream" };

// The path of a target in origin or absolute form.
std::string_view PathOf(const CRequest& request)
{
    std::string_view path = request.Path();
    const size_t scheme = path.find("://");
    if (scheme == std::string_view::npos)
        return path;
    const size_t slash = path.find('/', scheme + 3);
    return slash == std::string_view::npos ? std::string_view("/") : path.substr(slash);
}

const Bytef* ZlibBytes(std::string_view bytes)
{
    return static_cast<const Bytef*>(static_cast<const void*>(bytes.data()));
}

std::string Chunk(std::string_view piece)
{
    char size[24];
    std::snprintf(size, sizeof size, "%zX\r\n", piece.size());
    return size + std::string(piece) + "\r\n";
}

std::string PatternBlock(uint64_t block)
{
    // A generator restarted for each block, so that the pattern can be made from any block on.
    std::string bytes(4096, '\0');
    uint64_t state = block * 0x9E3779B97F4A7C15u + 1;
    for (char& byte : bytes)
    {
        state = state * 6364136223846793005u + 1442695040888963407u;
        byte = static_cast<char>(state >> 56);
    }
    return bytes;
}

void AppendPattern(std::string& bytes, uint64_t& made, uint64_t size)
{
    while (made < size)
    {
        const std::string block = PatternBlock(made / 4096);
        const size_t now = static_cast<size_t>(std::min<uint64_t>(block.size(), size - made));
        bytes.append(block, 0, now);
        made += now;
    }
}

// The challenge shared by servers and proxies.
CAnswer Challenge(int status, std::string requestHeader, CHeader challenge, std::string_view user, std::string_view password,
                  CAnswer inner)
{
    std::string expected = "Basic " + EncodeBase64(std::string(user) + ":" + std::string(password));
    return [=, expected = std::move(expected)](const CRequest& request, CConnection& connection)
    {
        if (request.Header(requestHeader) == expected)
            inner(request, connection);
        else
            connection.SendResponse(status, { challenge }, "no");
    };
}

uint16_t PortOf(const Answer::CProxyOptions& options, std::string_view authority, uint16_t defaultPort)
{
    if (const auto target = options.targets.find(std::string(authority)); target != options.targets.end())
        return target->second;
    const size_t colon = authority.rfind(':');
    uint16_t port = defaultPort;
    if (colon != std::string_view::npos)
        std::from_chars(authority.data() + colon + 1, authority.data() + authority.size(), port);
    return port;
}

// The request as a proxy hands it on: in origin form, without what was meant for the proxy, the body counted.
std::string Rewritten(const CRequest& request)
{
    std::string_view target = request.target;
    target.remove_prefix(std::min(target.find('/', target.find("://") + 3), target.size()));
    std::string text = request.method + " " + (target.empty() ? "/" : std::string(target)) + " HTTP/1.1\r\n";
    for (const CHeader& header : request.headers)
    {
        const CHeaders one = { header };
        const auto is = [&one](const char* name) { return Loopback::FindHeader(one, name) != nullptr; };
        if (!is("Proxy-Authorization") && !is("Proxy-Connection") && !is("Connection") && !is("Keep-Alive") &&
            !is("Transfer-Encoding") && !is("Content-Length"))
            text += header.name + ": " + header.value + "\r\n";
    }
    if (Loopback::FindHeader(request.headers, "Content-Length") || Loopback::FindHeader(request.headers, "Transfer-Encoding"))
        text += "Content-Length: " + std::to_string(request.body.size()) + "\r\n";
    return text + "Connection: close\r\n\r\n" + request.body;
}
} // namespace

CScriptedServer::CScriptedServer(uint16_t port) : m_otherwise(Answer::Respond(404, {}, "not scripted"))
{
    Loopback::COptions options;
    options.port = port;
    m_server = std::make_unique<Loopback::CLoopbackServer>([this](const CRequest& request, CConnection& connection)
                                                           { Handle(request, connection); }, options);
}

CScriptedServer::~CScriptedServer() = default;

void CScriptedServer::On(std::string_view path, CAnswer answer)
{
    On(path, std::vector<CAnswer>{ std::move(answer) });
}

void CScriptedServer::On(std::string_view path, std::vector<CAnswer> answers)
{
    if (answers.empty())
        throw std::invalid_argument("a path needs an answer");
    const std::scoped_lock hold(m_lock);
    m_scripts.insert_or_assign(std::string(path), CScript{ std::move(answers) });
}

void CScriptedServer::Otherwise(CAnswer answer)
{
    const std::scoped_lock hold(m_lock);
    m_otherwise = std::move(answer);
}

void CScriptedServer::Handle(const CRequest& request, CConnection& connection)
{
    CAnswer answer;
    {
        const std::scoped_lock hold(m_lock);
        CRequest& record = m_requests.emplace_back();
        record.method = request.method;
        record.target = request.target;
        record.version = request.version;
        record.headers = request.headers;
        record.head = request.head;
        record.bodySize = request.bodySize;
        record.connection = request.connection;
        record.number = request.number;
        if (request.body.size() <= kRecordLimit)
            record.body = request.body;

        const auto script = m_scripts.find(PathOf(request));
        if (script == m_scripts.end())
            answer = m_otherwise;
        else
        {
            answer = script->second.answers[script->second.used];
            if (script->second.used + 1 < script->second.answers.size())
                ++script->second.used;
        }
        m_recorded.notify_all();
    }
    answer(request, connection);
}

std::wstring CScriptedServer::WideURL(std::string_view target) const
{
    const std::string url = URL(target);
    return { url.begin(), url.end() };
}

std::vector<CRequest> CScriptedServer::Requests() const
{
    const std::scoped_lock hold(m_lock);
    return m_requests;
}

std::vector<CRequest> CScriptedServer::Requests(std::string_view path) const
{
    std::vector<CRequest> requests = Requests();
    std::erase_if(requests, [path](const CRequest& request) { return PathOf(request) != path; });
    return requests;
}

bool CScriptedServer::WaitForRequests(size_t count, std::chrono::milliseconds time) const
{
    std::unique_lock hold(m_lock);
    return m_recorded.wait_for(hold, time, [this, count] { return m_requests.size() >= count; });
}

void CScriptedServer::ForgetRequests()
{
    const std::scoped_lock hold(m_lock);
    m_requests.clear();
}

std::string Pattern(size_t size)
{
    std::string bytes;
    bytes.reserve(size);
    uint64_t made = 0;
    AppendPattern(bytes, made, size);
    return bytes;
}

uint32_t Checksum(std::string_view bytes)
{
    return static_cast<uint32_t>(::crc32_z(0, ZlibBytes(bytes), bytes.size()));
}

std::string Compress(std::string_view bytes, bool gzip)
{
    constexpr int kWindow = 15;
    constexpr int kGzip = 16; // added to the window's size it asks for gzip's frame
    z_stream stream{};
    if (::deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kWindow + (gzip ? kGzip : 0), 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::bad_alloc();
    std::string out(::deflateBound(&stream, static_cast<uLong>(bytes.size())), '\0');
    stream.next_in = const_cast<Bytef*>(ZlibBytes(bytes)); // deflate only reads it
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = static_cast<Bytef*>(static_cast<void*>(out.data()));
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = ::deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    ::deflateEnd(&stream);
    if (result != Z_STREAM_END)
        throw std::runtime_error("deflate");
    return out;
}

std::string EncodeBase64(std::string_view bytes)
{
    constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (; !bytes.empty(); bytes.remove_prefix(std::min<size_t>(bytes.size(), 3)))
    {
        uint32_t group = 0;
        for (size_t i = 0; i < 3; ++i)
            group = group << 8 | (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0u);
        for (size_t i = 0; i < 4; ++i)
            text.push_back(i <= bytes.size() ? kDigits[group >> (18 - 6 * i) & 63] : '=');
    }
    return text;
}

namespace Answer
{
CAnswer Respond(int status, CHeaders headers, std::string body)
{
    if (!body.empty() && !Loopback::FindHeader(headers, "Content-Type"))
        headers.push_back(kBinary);
    return [=](const CRequest&, CConnection& connection) { connection.SendResponse(status, headers, body); };
}

CAnswer Text(std::string body)
{
    return Respond(200, {}, std::move(body));
}

CAnswer Raw(std::string bytes, bool close)
{
    return [=](const CRequest&, CConnection& connection)
    {
        connection.Send(bytes);
        if (close)
            connection.CloseNow();
    };
}

CAnswer Chunked(std::vector<std::string> pieces, CHeaders headers, std::string trailers)
{
    headers.push_back({ "Transfer-Encoding", "chunked" });
    return [=](const CRequest&, CConnection& connection)
    {
        connection.SendResponseHead(200, headers, 0);
        for (const std::string& piece : pieces)
            connection.Send(Chunk(piece));
        connection.Send("0\r\n" + trailers + "\r\n");
    };
}

CAnswer UntilClose(std::string body)
{
    return Raw(Loopback::ResponseHead(200, { kBinary, { "Connection", "close" } }) + body);
}

CAnswer Compressed(std::string body, bool gzip)
{
    return Respond(200, { { "Content-Encoding", gzip ? "gzip" : "deflate" } }, Compress(body, gzip));
}

CAnswer Redirect(int status, std::string location)
{
    return Respond(status, { { "Location", std::move(location) } });
}

CAnswer SetCookies(std::vector<std::string> values, std::string body)
{
    CHeaders headers;
    for (std::string& value : values)
        headers.push_back({ "Set-Cookie", std::move(value) });
    return Respond(200, std::move(headers), std::move(body));
}

CAnswer LargeHeaders(size_t size, std::string body)
{
    constexpr size_t kLine = 1000;
    CHeaders headers;
    for (size_t made = 0; made < size; made += kLine)
    {
        std::string name = "X-Large-" + std::to_string(headers.size());
        const size_t value = kLine - name.size() - 4; // ": " and the line's end
        headers.push_back({ std::move(name), std::string(value, 'x') });
    }
    return Respond(200, std::move(headers), std::move(body));
}

CAnswer Echo()
{
    return [](const CRequest& request, CConnection& connection)
    {
        const std::string* type = Loopback::FindHeader(request.headers, "Content-Type");
        connection.SendResponse(200, { type ? CHeader{ "Content-Type", *type } : kBinary }, request.body);
    };
}

CAnswer Digest()
{
    return [](const CRequest& request, CConnection& connection)
    {
        char text[64];
        std::snprintf(text, sizeof text, "length=%zu&crc32=%08X&&", request.body.size(), Checksum(request.body));
        connection.SendResponse(200, { kBinary }, text);
    };
}

CAnswer Generated(uint64_t size)
{
    return [size](const CRequest&, CConnection& connection)
    {
        bool sending = connection.SendResponseHead(200, { kBinary }, size);
        std::string piece;
        for (uint64_t made = 0; sending && made < size; piece.clear())
        {
            AppendPattern(piece, made, std::min<uint64_t>(size, made + (1 << 20)));
            sending = connection.Send(piece);
        }
    };
}

CAnswer Basic(std::string user, std::string password, CAnswer inner, std::string realm)
{
    return Challenge(401, "Authorization", { "WWW-Authenticate", "Basic realm=\"" + realm + "\"" }, user, password,
                     std::move(inner));
}

CAnswer ProxyBasic(std::string user, std::string password, CAnswer inner, std::string realm)
{
    return Challenge(407, "Proxy-Authorization", { "Proxy-Authenticate", "Basic realm=\"" + realm + "\"" }, user, password,
                     std::move(inner));
}

CAnswer WrongLength(uint64_t claimed, std::string body)
{
    return Raw(Loopback::ResponseHead(200, { kBinary, { "Content-Length", std::to_string(claimed) } }) + body);
}

CAnswer CloseBeforeHeaders()
{
    return [](const CRequest&, CConnection& connection) { connection.CloseNow(); };
}

CAnswer CloseInHeaders()
{
    return Raw("HTTP/1.1 200 OK\r\nContent-Type: appl");
}

CAnswer CloseInBody(std::string body)
{
    const uint64_t claimed = body.size() + 1;
    return WrongLength(claimed, std::move(body));
}

CAnswer CloseInChunks(std::vector<std::string> pieces)
{
    std::string bytes = Loopback::ResponseHead(200, { kBinary, { "Transfer-Encoding", "chunked" } });
    for (const std::string& piece : pieces)
        bytes += Chunk(piece);
    return Raw(std::move(bytes));
}

CAnswer ResetInBody(std::string body)
{
    return [=](const CRequest&, CConnection& connection)
    {
        connection.SendResponseHead(200, { kBinary }, body.size() + 1);
        connection.Send(body);
        connection.Reset();
    };
}

CAnswer StallBeforeHeaders()
{
    return [](const CRequest&, CConnection& connection) { connection.WaitForPeerClose(kStall); };
}

CAnswer StallInHeaders()
{
    return [](const CRequest&, CConnection& connection)
    {
        connection.Send("HTTP/1.1 200 OK\r\nContent-Type: appl");
        connection.WaitForPeerClose(kStall);
        connection.CloseNow();
    };
}

CAnswer StallInBody(std::string body)
{
    return [=](const CRequest&, CConnection& connection)
    {
        connection.SendResponseHead(200, { kBinary }, body.size() + 1);
        connection.Send(body);
        connection.WaitForPeerClose(kStall);
        connection.CloseNow();
    };
}

CAnswer Drip(std::string body, size_t piece, std::chrono::milliseconds interval)
{
    return [=](const CRequest&, CConnection& connection)
    {
        if (connection.SendResponseHead(200, { kBinary }, body.size()))
            connection.Drip(body, piece, interval);
    };
}

CAnswer Proxy(CProxyOptions options)
{
    CAnswer carry = [options](const CRequest& request, CConnection& connection)
    {
        if (request.method == "CONNECT")
        {
            if (!connection.Tunnel(PortOf(options, request.target, 443), "HTTP/1.1 200 Connection established\r\n\r\n"))
                connection.SendResponse(502);
            return;
        }
        const size_t scheme = request.target.find("://");
        if (scheme == std::string::npos)
        {
            connection.SendResponse(400, {}, "not in absolute form");
            return;
        }
        const std::string_view rest = std::string_view(request.target).substr(scheme + 3);
        if (!connection.Forward(PortOf(options, rest.substr(0, rest.find_first_of("/?")), 80), Rewritten(request)))
            connection.SendResponse(502);
    };
    return options.user.empty() ? carry : ProxyBasic(options.user, options.password, std::move(carry));
}
} // namespace Answer
} // namespace TestSupport
