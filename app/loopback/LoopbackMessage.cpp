// The text functions of the loopback server: finding headers, parsing a target, building the head of a response.
#include "LoopbackDetail.h"

#include <algorithm>
#include <array>
#include <charconv>
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

std::string_view Trim(std::string_view text) noexcept
{
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

bool HasToken(std::string_view value, std::string_view token) noexcept
{
    while (!value.empty())
    {
        const size_t comma = value.find(',');
        if (EqualsIgnoringCase(Trim(value.substr(0, comma)), token))
            return true;
        value = comma == std::string_view::npos ? std::string_view() : value.substr(comma + 1);
    }
    return false;
}

std::optional<uint64_t> ParseNumber(std::string_view text, int base) noexcept
{
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

bool ParseHead(std::string_view head, CRequest& request)
{
    size_t end = head.find("\r\n");
    const std::string_view line = head.substr(0, end);
    const size_t first = line.find(' ');
    const size_t last = line.rfind(' ');
    if (first == 0 || first == std::string_view::npos || last == first || line.substr(last + 1, 5) != "HTTP/")
        return false;
    request.method = line.substr(0, first);
    request.target = Trim(line.substr(first + 1, last - first - 1));
    request.version = line.substr(last + 1);
    for (size_t begin = end + 2; begin + 2 < head.size(); begin = end + 2)
    {
        end = head.find("\r\n", begin);
        const std::string_view header = head.substr(begin, end - begin);
        const size_t colon = header.find(':');
        if (colon == 0 || colon == std::string_view::npos)
            return false;
        request.headers.push_back({ std::string(header.substr(0, colon)), std::string(Trim(header.substr(colon + 1))) });
    }
    return true;
}

bool WantsClose(const CRequest& request) noexcept
{
    const std::string_view connection = request.Header("Connection");
    return request.version == "HTTP/1.0" ? !HasToken(connection, "keep-alive") : HasToken(connection, "close");
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
    for (const auto& [code, phrase] : kPhrases)
    {
        if (code == status)
            return phrase;
    }
    return "Status";
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
