// Requests through the library's transports against the same transfers by the bare calls that each stands on, with the servers
// that ./bench starts; without them plain HTTP only, with the loopback server of this process.
//
// What is kept alive is compared request by request in turn, so that a slow moment of the machine hits all alike, and few
// enough lie between two requests of one client for its connection to stay open.
#include "Benchmark.h"
#include "Client.h"

#include <LoopbackServer.h>

#include <support/TestServers.h>

#include <functional>
#include <memory>
#include <thread>

namespace
{
using Bare::Demand;
using Benchmark::Keep;

constexpr size_t kSmall = size_t{ 10 } << 10;
constexpr size_t kLarge = size_t{ 10 } << 20;

// What the servers answer: a request's body; a few bytes to "/upload"; and at "/files/SIZE.bin" so many bytes.
const std::string kEcho = "/echo";

struct CBare
{
    const char* name;
    std::unique_ptr<Bare::IClient> (*make)(const Bare::CServer&);
};

struct CTransport : Client::CTransport
{
    std::vector<CBare> bare; // the first is what the library is measured against
    bool pooled;             // the platform keeps connections for the process: a new client need not make one
};

// The body of a request, as the library takes it and as it travels.
struct CBody
{
    explicit CBody(size_t length) : parameters(Client::MakePayload(length))
    {
        CVoByteBuffer buffer;
        Demand(SUCCEEDED(parameters.GetMessageData(buffer.PutLength(), buffer.PutBytes(), false, true)));
        bytes.assign(reinterpret_cast<const char*>(buffer.Data()), buffer.Length());
    }

    CVoBinaryDataParser parameters;
    std::string bytes;
};

// One connected message of the library.
class CMessage
{
public:
    CMessage(const CTransport& transport, const Bare::CServer& server, const std::string& path)
        : m_message(Client::Connect(transport, server.URL(path)))
    {
    }

    void Post(const CBody& body) const
    {
        std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
        CVoBinaryDataParser answer;
        Demand(SUCCEEDED(m_message->OpenRequest(request)) &&
               SUCCEEDED(m_message->SendMessage(request, body.parameters, CVoHTTPMessage::EContentKind::Raw, true, {}, {},
                                                false, nullptr)) &&
               SUCCEEDED(m_message->ReadResponse(request, answer, CVoHTTPMessage::EResponseKind::Binary, nullptr, nullptr)));
        Keep(answer);
    }
    void Get(size_t expected) const
    {
        std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request;
        CVoBinaryDataParser answer;
        Demand(SUCCEEDED(m_message->SendGetRequest(request, {}, false, nullptr)) &&
               SUCCEEDED(m_message->ReadResponse(request, answer, CVoHTTPMessage::EResponseKind::Binary, nullptr, nullptr)) &&
               answer.Payload().size() == expected);
        Keep(answer);
    }

private:
    std::shared_ptr<CVoHTTPMessage> m_message;
};

using Clients = std::vector<std::unique_ptr<Bare::IClient>>;
Clients MakeBare(const CTransport& transport, const Bare::CServer& server)
{
    Clients clients;
    for (const CBare& bare : transport.bare)
        clients.push_back(bare.make(server));
    return clients;
}

// One line for each of the bare clients.
template <class Request>
std::vector<Benchmark::CContender> Contenders(const CTransport& transport, const Clients& clients, Request request)
{
    std::vector<Benchmark::CContender> contenders;
    for (size_t i = 0; i < clients.size(); ++i)
        contenders.push_back({ transport.bare[i].name, [request, client = clients[i].get()] { request(*client); } });
    return contenders;
}

constexpr Benchmark::COptions kSingleRequests{ .samples = 1500, .runs = 1, .maximumSeconds = 5 };

// One request with everything that it takes, from nothing to the answer.
void CompareSingle(const CTransport& transport, const Bare::CServer& server, const std::string& title, const CBody& body)
{
    const CBare& bare = transport.bare.front();
    Benchmark::Compare(title,
                       { { bare.name, [&] { Keep(bare.make(server)->Request(kEcho, &body.bytes)); } },
                         { "the library", [&] { CMessage(transport, server, kEcho).Post(body); } } },
                       kSingleRequests);
}

// Adds the library's side behind the one that it is measured against: the two are called right after one another, and both see
// the same state of the machine.
void AddLibrary(std::vector<Benchmark::CContender>& contenders, const char* name, std::function<void()> run)
{
    contenders.insert(contenders.begin() + 1, { name, std::move(run) });
}

// Requests that each go out on what the one before has left. A null body stands for a GET of `path`, which gives so many bytes.
void CompareRow(const CTransport& transport, const Bare::CServer& server, const std::string& title, const std::string& path,
                const CBody* body, size_t expected, Benchmark::COptions options = kSingleRequests)
{
    const Clients clients = MakeBare(transport, server);
    const CMessage message(transport, server, path);
    const auto request = [&](Bare::IClient& client)
    { Demand(client.Request(path, body ? &body->bytes : nullptr).size() >= expected); };
    std::vector<Benchmark::CContender> contenders = Contenders(transport, clients, request);
    AddLibrary(contenders, "the library, one message", [&] { body ? message.Post(*body) : message.Get(expected); });
    // The library is given parameters and a payload, which the body has to be made of.
    if (body && body->bytes.size() >= kLarge)
        contenders.push_back({ std::string(transport.bare.front().name) + ", a body made first", [&]
        {
            const std::string made = body->bytes;
            Demand(!clients.front()->Request(path, &made).empty());
        } });
    if (!transport.pooled)
        contenders.push_back({ "a new handle each", [&] { request(*transport.bare.front().make(server)); } });
    Benchmark::Compare(title, contenders, options);
}

// Threads that each have a client of their own and send requests in a row.
void CompareThreads(const CTransport& transport, const Bare::CServer& server, const std::string& title, const std::string& path,
                    size_t expected)
{
    constexpr size_t kThreads = 8;
    constexpr int kRequests = 50;
    std::vector<Clients> clients;
    std::vector<CMessage> messages;
    for (size_t i = 0; i < kThreads; ++i)
    {
        clients.push_back(MakeBare(transport, server));
        messages.emplace_back(transport, server, path);
    }
    const auto onAll = [](const std::function<void(size_t)>& request)
    {
        std::vector<std::jthread> threads;
        for (size_t i = 0; i < kThreads; ++i)
            threads.emplace_back([&request, i]
            {
                for (int number = 0; number < kRequests; ++number)
                    request(i);
            });
    };
    std::vector<Benchmark::CContender> contenders;
    for (size_t kind = 0; kind < transport.bare.size(); ++kind)
        contenders.push_back({ transport.bare[kind].name, [&, kind]
        { onAll([&](size_t i) { Demand(clients[i][kind]->Request(path, nullptr).size() == expected); }); } });
    AddLibrary(contenders, "the library, a message each", [&] { onAll([&](size_t i) { messages[i].Get(expected); }); });
    Benchmark::Compare(title, contenders, { .samples = 25, .runs = 1, .maximumSeconds = 8 });
}

void Run(const CTransport& transport)
{
    const CBody empty(0);
    const CBody small(kSmall);
    const CBody large(kLarge);
    Loopback::COptions options;
    options.keepBodies = false;
    Loopback::CLoopbackServer loopback([&](const Loopback::CRequest& request, Loopback::CConnection& connection)
    {
        const std::string_view all = large.bytes;
        const std::string_view path = request.Path();
        const size_t size = path == kEcho              ? request.bodySize
                            : path == "/files/10k.bin" ? kSmall
                            : path == "/files/10m.bin" ? kLarge
                                                       : 0;
        connection.SendResponse(200, { { "Content-Type", "application/octet-stream" } }, all.substr(0, size));
    }, options);
    const auto run = [&](const Bare::CServer& server, const char* security)
    {
        const std::string place = std::string(transport.name) + ", " + security;
        CompareSingle(transport, server, place + ", a first POST of 10 KB", small);
        CompareRow(transport, server, place + ", GET of 0 B in a row", "/files/0.bin", nullptr, 0);
        CompareRow(transport, server, place + ", GET of 10 KB in a row", "/files/10k.bin", nullptr, kSmall);
        CompareRow(transport, server, place + ", POST of 0 B in a row", kEcho, &empty, 0);
        CompareRow(transport, server, place + ", POST of 10 KB in a row, echoed", kEcho, &small, kSmall);
        const Benchmark::COptions large10{
            .samples = 60, .bytes = static_cast<double>(kLarge), .runs = 1, .maximumSeconds = 6
        };
        CompareRow(transport, server, place + ", 10 MB up", "/upload", &large, 0, large10);
        CompareRow(transport, server, place + ", 10 MB down", "/files/10m.bin", nullptr, kLarge, large10);
        CompareThreads(transport, server, place + ", 8 threads of 50 GETs of 10 KB", "/files/10k.bin", kSmall);
    };
    if (const TestSupport::CTestServers* const servers = TestSupport::TestServers())
    {
        run({ .port = servers->port, .secure = false }, "plain");
        run({ .port = servers->tlsPort, .secure = true }, "TLS");
        return;
    }
    run({ .port = loopback.Port(), .secure = false }, "plain");
    std::printf("%s, TLS: left out, since there is no server; ./bench starts one\n", transport.name);
}

const Benchmark::CGroup kCURL("http-curl", [] { Run({ Client::kCURL, { { "one handle", &Bare::MakeCURL } }, false }); });
const Benchmark::CGroup kWinHttp("http-winhttp", []
{
    Run({ Client::kWinHttp,
          { { "asynchronous calls", &Bare::MakeAsynchronousWinHttp }, { "synchronous calls", &Bare::MakeWinHttp } },
          true });
});
const Benchmark::CGroup kWinINet("http-wininet", []
{
    Run({ Client::kWinINet,
          { { "the body in pieces", &Bare::MakeWinINetInPieces }, { "the body in the call", &Bare::MakeWinINet } },
          true });
});
} // namespace
