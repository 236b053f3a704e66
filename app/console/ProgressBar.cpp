// The progress bar: a thread that draws while a request runs.
#include "ProgressBar.h"

#include "Text.h"

#include <base/VoUtils.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace
{
using namespace std::chrono_literals;

constexpr size_t kBarWidth = 30;
constexpr auto kFirstShown = 1s;
constexpr auto kRefresh = 200ms;

std::string Draw(const CVoHTTPMessage::CProgress& progress)
{
    // The response begins after the whole request was sent.
    const bool receiving = progress.received != 0;
    const UINT64 done = receiving ? progress.received : progress.sent;
    const UINT64 whole = receiving ? progress.toReceive : progress.toSend;
    const wchar_t* const direction = receiving ? L"received" : L"sent";
    constexpr double kMegabyte = 1e6;
    if (whole == 0 || done > whole)
        return ToUtf8(VoFormat(L"%.1f MB %ls", static_cast<double>(done) / kMegabyte, direction));
    const double part = static_cast<double>(done) / static_cast<double>(whole);
    const auto filled = static_cast<size_t>(part * static_cast<double>(kBarWidth));
    const std::wstring bar = std::wstring(filled, L'#') + std::wstring(kBarWidth - filled, L'.');
    return ToUtf8(VoFormat(L"[%ls] %3.0f%%  %.1f of %.1f MB %ls", bar.c_str(), part * 100,
                           static_cast<double>(done) / kMegabyte, static_cast<double>(whole) / kMegabyte, direction));
}
} // namespace

CProgressBar::CProgressBar(IByteSink& err, std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request, bool quiet)
{
    if (quiet || !request || !err.IsTerminal())
        return;
    m_thread = std::jthread([&err, request = std::move(request)](const std::stop_token& stop) { Show(stop, err, *request); });
}

void CProgressBar::Show(const std::stop_token& stop, IByteSink& err, const CVoHTTPMessage::CHTTPRequestData& request)
try
{
    std::mutex mutex;
    std::condition_variable_any never;
    std::unique_lock lock(mutex);
    const auto ended = [&](std::chrono::milliseconds time)
    {
        never.wait_for(lock, stop, time, [] { return false; });
        return stop.stop_requested();
    };
    size_t shown = 0;
    for (bool end = ended(kFirstShown); !end; end = ended(kRefresh))
    {
        std::string text = Draw(request.GetProgress());
        const size_t length = text.size();
        // Overwrite the rest of a longer text.
        text.append(shown > length ? shown - length : 0, ' ');
        err.Write('\r' + text);
        shown = length;
    }
    if (shown != 0)
        err.Write('\r' + std::string(shown, ' ') + '\r');
}
catch (...)
{
    // The transfer goes on without the bar.
}
