// The parts of the loopback server that only handle text: finding headers, taking a target apart, building an answer's head.
#include "LoopbackServer.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Loopback
{
namespace
{
constexpr char LowerASCII(char c) noexcept
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool EqualsIgnoringCase(std::string_view left, std::string_view right) noexcept
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return LowerASCII(a) == LowerASCII(b); });
}
} // namespace

const std::string* FindHeader(const CHeaders& headers, std::string_view name) noexcept
{
    const auto found = std::find_if(headers.begin(), headers.end(),
                                    [name](const CHeader& header) { return EqualsIgnoringCase(header.name, name); });
    return found == headers.end() ? nullptr : &found->value;
}

std::string_view CRequest::Header(std::string_view name) const noexcept
{
    const std::string* value = FindHeader(headers, name);
    return value ? std::string_view(*value) : std::string_view();
}

std::string_view CRequest::Path() const noexcept
{
    return std::string_view(target).substr(0, target.find('?'));
}

std::string_view CRequest::Query() const noexcept
{
    const size_t mark = target.find('?');
    return mark == std::string::npos ? std::string_view() : std::string_view(target).substr(mark + 1);
}

std::string_view ReasonPhrase(int status) noexcept
{
    static constexpr auto kPhrases = std::to_array<std::pair<int, std::string_view>>({
        { 100, "Continue" },
        { 200, "OK" },
        { 201, "Created" },
        { 204, "No Content" },
        { 206, "Partial Content" },
        { 301, "Moved Permanently" },
        { 302, "Found" },
        { 303, "See Other" },
        { 304, "Not Modified" },
        { 307, "Temporary Redirect" },
        { 308, "Permanent Redirect" },
        { 400, "Bad Request" },
        { 401, "Unauthorized" },
        { 402, "Payment Required" },
        { 403, "Forbidden" },
        { 404, "Not Found" },
        { 405, "Method Not Allowed" },
        { 407, "Proxy Authentication Required" },
        { 408, "Request Timeout" },
        { 411, "Length Required" },
        { 413, "Content Too Large" },
        { 431, "Request Header Fields Too Large" },
        { 500, "Internal Server Error" },
        { 501, "Not Implemented" },
        { 502, "Bad Gateway" },
        { 503, "Service Unavailable" },
    });
    const auto found =
        std::find_if(kPhrases.begin(), kPhrases.end(), [status](const auto& phrase) { return phrase.first == status; });
    return found == kPhrases.end() ? std::string_view("Status") : found->second;
}

std::string ResponseHead(int status, const CHeaders& headers)
{
    std::string head = "HTTP/1.1 " + std::to_string(status) + " ";
    head += ReasonPhrase(status);
    head += "\r\n";
    for (const CHeader& header : headers)
    {
        head += header.name;
        head += ": ";
        head += header.value;
        head += "\r\n";
    }
    head += "\r\n";
    return head;
}
} // namespace Loopback
