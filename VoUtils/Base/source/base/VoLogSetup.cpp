// Decisions behind the log's set-up (VoLogSetup.h).
#include "VoLogSetup.h"

#include <base/VoText.h>

#include <algorithm>
#include <cwctype>
#include <iterator>
#include <utility>

namespace VoLogSetup
{
namespace
{
constexpr size_t kRuleWidth = 144;
} // namespace

bool IsHostingProcess(std::wstring_view fileName) noexcept
{
    constexpr std::wstring_view kHosts[] = { L"DLLHOST.EXE", L"REGSVR32.EXE", L"MSIEXEC.EXE",    L"INETINFO.EXE",
                                             L"W3WP.EXE",    L"DOTNET.EXE",   L"IISEXPRESS.EXE", L"PHP-CGI.EXE" };
    return std::any_of(std::begin(kHosts), std::end(kHosts),
                       [&](std::wstring_view host) { return VoEqualsNoCase(fileName, host); });
}

std::wstring_view FindApplicationName(std::wstring_view commandLine) noexcept
{
    for (size_t at = commandLine.find_first_of(L"-/"); at != std::wstring_view::npos;
         at = commandLine.find_first_of(L"-/", at + 1))
    {
        std::wstring_view rest = commandLine.substr(at + 1);
        if (!rest.starts_with(L"ap") || rest.size() < 3 || !std::iswspace(rest[2]))
            continue;
        rest.remove_prefix(3);
        while (!rest.empty() && std::iswspace(rest.front()))
            rest.remove_prefix(1);
        if (rest.starts_with(L'"'))
        {
            const size_t end = rest.find(L'"', 1);
            if (end != std::wstring_view::npos && end > 1)
                return rest.substr(1, end - 1);
            continue;
        }
        size_t end = 0;
        while (end < rest.size() && rest[end] != L'"' && !std::iswspace(rest[end]))
            ++end;
        if (end > 0)
            return rest.substr(0, end);
    }
    return {};
}

std::wstring_view BaseName(std::wstring_view fileName) noexcept
{
    return fileName.substr(0, fileName.rfind(L'.'));
}

bool IsFileName(std::wstring_view name) noexcept
{
    constexpr size_t kMaximumName = 255; // of the platform's file systems
    if (name.empty() || name.size() > kMaximumName || name.back() == L'.' || name.back() == L' ')
        return false;
    if (std::any_of(name.begin(), name.end(),
                    [](wchar_t c) { return c < 0x20 || std::wstring_view(L"<>:\"/\\|?*").find(c) != std::wstring_view::npos; }))
        return false;
    // A device's name stays one with an extension behind it.
    const std::wstring_view device = name.substr(0, name.find(L'.'));
    for (const wchar_t* word : { L"CON", L"PRN", L"AUX", L"NUL" })
        if (VoEqualsNoCase(device, word))
            return false;
    const bool isPort = VoStartsWithNoCase(device, L"COM") || VoStartsWithNoCase(device, L"LPT");
    return !(isPort && device.size() == 4 && device[3] >= L'1' && device[3] <= L'9');
}

std::wstring_view LogName(std::wstring_view applicationName, std::wstring_view processFile,
                          std::wstring_view moduleFile) noexcept
{
    if (IsFileName(applicationName))
        return applicationName;
    const std::wstring_view name = BaseName(IsHostingProcess(processFile) ? moduleFile : processFile);
    return name.empty() ? L"Application" : name;
}

void TrimBackslashes(std::wstring& directory) noexcept
{
    while (directory.ends_with(L'\\'))
        directory.pop_back();
}

std::wstring ChooseDirectory(const CVoModuleSettings& settings, const std::wstring& temporary, const std::wstring& module,
                             const std::wstring& current)
{
    std::wstring directory = settings.directory;
    TrimBackslashes(directory);
    if (directory.empty() && settings.useTempDirectory)
        directory = temporary;
    if (directory.empty())
        directory = module;
    if (directory.empty())
        directory = current;
    return directory;
}

std::wstring RunHeader(const CRunFacts& facts)
{
    const auto orUnknown = [](std::wstring_view text) { return text.empty() ? std::wstring_view(L"UNKNOWN") : text; };
    std::wstring header(kRuleWidth, L'*');
    header.append(L"\r\nNEW RUN\r\nModule: (").append(facts.moduleName).append(L") \r\nProcess: (").append(facts.processName);
    header.append(L")\r\n");
    if (facts.processCreated)
    {
        const SYSTEMTIME& t = *facts.processCreated;
        header += VoFormat(L"Process created at:%4d.%02d.%02d  %02d:%02d:%02d.%03d\r\n", t.wYear, t.wMonth, t.wDay, t.wHour,
                           t.wMinute, t.wSecond, t.wMilliseconds);
    }
    else
        header += L"Process created at unknown time\r\n";
    header.append(L"Module compiled at:").append(orUnknown(facts.buildDate)).append(L"  ").append(orUnknown(facts.buildTime));
    header.append(L"   Version:").append(orUnknown(facts.version)).append(L" Branch:").append(orUnknown(facts.branch));
    header.append(L"\r\n").append(kRuleWidth, L'*').append(L"\r\n");
    return header;
}

namespace
{
// A number padded with `fill` to a width, as printf's %4d and %02d do; the fields of a time are never negative.
void AppendNumber(std::wstring& text, unsigned value, size_t width, wchar_t fill)
{
    wchar_t digits[10];
    size_t at = std::size(digits);
    do
    {
        digits[--at] = static_cast<wchar_t>(L'0' + value % 10);
        value /= 10;
    } while (value > 0);
    const size_t length = std::size(digits) - at;
    if (length < width)
        text.append(width - length, fill);
    text.append(digits + at, length);
}
} // namespace

std::wstring Line(const SYSTEMTIME& localTime, const std::wstring& modulePart, const wchar_t* source, int line,
                  const wchar_t* function, DWORD threadId, std::wstring_view message)
{
    const std::wstring_view file = source ? source : L"";
    const std::wstring_view name = function ? function : L"";
    std::wstring text;
    text.reserve(modulePart.size() + file.size() + name.size() + message.size() + 80);
    // By hand, because the C library's wide formatting would take as long as the rest of the line.
    AppendNumber(text, localTime.wYear, 4, L' ');
    for (const auto& [mark, value] :
         { std::pair(L'.', localTime.wMonth), std::pair(L'.', localTime.wDay), std::pair(L' ', localTime.wHour),
           std::pair(L':', localTime.wMinute), std::pair(L':', localTime.wSecond) })
        AppendNumber(text += mark, value, 2, L'0');
    AppendNumber(text += L'.', localTime.wMilliseconds, 3, L'0');
    if (source)
        text.append(modulePart).append(file);
    if (line >= 0)
        AppendNumber(text += L" Line=", static_cast<unsigned>(line), 0, L' ');
    if (function)
        text.append(L" Function=").append(name);
    text.append(L" ThreadID=").append(std::to_wstring(static_cast<int>(threadId))).append(L" ");
    return text.append(message).append(L"\r\n");
}
} // namespace VoLogSetup
