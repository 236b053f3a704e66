// The measuring and the program's main (Benchmark.h).
#include "Benchmark.h"

#include <windows.h>

#include <atomic>
#include <cstring>
#include <exception>
#include <fstream>
#include <thread>

namespace Benchmark
{
namespace
{
using Clock = std::chrono::steady_clock;

struct CRegistered
{
    const char* name;
    void (*run)();
};

std::vector<CRegistered>& Groups()
{
    static std::vector<CRegistered> groups;
    return groups;
}

// What one contender gave, in seconds or bytes.
struct CFigures
{
    std::string name;
    double shortest = 0;
    double median = 0;
    double spread = 0; // the distance of the quartiles
    double ratio = 0;  // of the shortest times
    double pairedRatio = 0;
};

struct CResult
{
    std::string group;
    std::string title;
    double bytes = 0;
    bool isMemory = false; // the figures are bytes
    std::vector<CFigures> figures = {};
};

std::vector<CResult>& Results()
{
    static std::vector<CResult> results;
    return results;
}

const char* g_group = ""; // that runs

double Seconds(const std::function<void()>& run, size_t times)
{
    const auto start = Clock::now();
    for (size_t i = 0; i < times; ++i)
        run();
    return std::chrono::duration<double>(Clock::now() - start).count() / static_cast<double>(times);
}

// The value that this part of the values lies below.
double Quantile(std::vector<double> values, double part)
{
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<size_t>(part * static_cast<double>(values.size())))];
}

std::string TimeText(double seconds)
{
    char text[32];
    if (seconds < 1e-6)
        std::snprintf(text, sizeof text, "%9.2f ns", seconds * 1e9);
    else if (seconds < 1e-3)
        std::snprintf(text, sizeof text, "%9.2f us", seconds * 1e6);
    else
        std::snprintf(text, sizeof text, "%9.2f ms", seconds * 1e3);
    return text;
}

std::string ValueText(double value, bool isMemory)
{
    if (!isMemory)
        return TimeText(value);
    char text[32];
    std::snprintf(text, sizeof text, "%9.2f MB", value / (1 << 20));
    return text;
}

// The private memory that the process has committed. It is counted here: Wine's counter knows only what was touched.
double PrivateBytes()
{
    double sum = 0;
    MEMORY_BASIC_INFORMATION region{};
    for (const char* at = nullptr; ::VirtualQuery(at, &region, sizeof region) != 0;
         at = static_cast<const char*>(region.BaseAddress) + region.RegionSize)
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
            sum += static_cast<double>(region.RegionSize);
    return sum;
}

// The greatest amount of private memory during a run, above that at its start, as far as looking every millisecond shows.
double PeakBytes(const std::function<void()>& run)
{
    std::atomic<double> peak = 0;
    double start = 0;
    {
        const std::jthread reader([&](const std::stop_token& stop)
        {
            while (!stop.stop_requested())
            {
                peak = std::max(peak.load(), PrivateBytes());
                ::Sleep(1);
            }
        });
        start = PrivateBytes(); // with the stack of the reader
        run();
    }
    // What the heap has kept from the warm-up is not seen: less than this is noise.
    constexpr double kLeast = 1 << 20;
    return std::max(peak - start, kLeast);
}

CFigures FiguresOf(const std::string& name, const std::vector<double>& samples, const std::vector<double>& first)
{
    std::vector<double> ratios;
    for (size_t i = 0; i < samples.size(); ++i)
        ratios.push_back(samples[i] / first[i]);
    const double shortest = *std::min_element(samples.begin(), samples.end());
    return { .name = name,
             .shortest = shortest,
             .median = Quantile(samples, 0.5),
             .spread = Quantile(samples, 0.75) - Quantile(samples, 0.25),
             .ratio = shortest / *std::min_element(first.begin(), first.end()),
             .pairedRatio = Quantile(ratios, 0.5) };
}

void Print(const CResult& result)
{
    std::printf("%s\n", result.title.c_str());
    for (const CFigures& figures : result.figures)
    {
        std::printf("  %-44s %s  median %s +-%3.0f%%", figures.name.c_str(),
                    ValueText(figures.shortest, result.isMemory).c_str(), ValueText(figures.median, result.isMemory).c_str(),
                    100 * figures.spread / figures.median);
        if (result.bytes > 0)
            std::printf("  %8.2f GB/s", result.bytes / figures.shortest / 1e9);
        std::printf("  x%.3f (pairs x%.3f)\n", figures.ratio, figures.pairedRatio);
    }
    std::fflush(stdout);
}

// Prints and keeps the samples. Returns their medians.
std::vector<double> Add(CResult result, const std::vector<CSeries>& series)
{
    std::vector<double> medians;
    for (const CSeries& one : series)
    {
        result.figures.push_back(FiguresOf(one.name, one.samples, series.front().samples));
        medians.push_back(result.figures.back().median);
    }
    Print(result);
    Results().push_back(std::move(result));
    return medians;
}

std::vector<CSeries> SeriesOf(const std::vector<CContender>& contenders)
{
    std::vector<CSeries> series;
    for (const CContender& contender : contenders)
        series.push_back({ .name = contender.name });
    return series;
}

// Titles and names are ASCII text of this program.
std::string Quoted(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text)
    {
        if (c == '"' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return quoted + '"';
}

bool WriteJson(const char* path)
{
    std::ofstream file(path, std::ios::binary);
    file.precision(9);
    file << "{\n  \"format\": 1,\n  \"results\": [";
    const char* separator = "\n";
    for (const CResult& result : Results())
    {
        file << separator << "    { \"group\": " << Quoted(result.group) << ", \"title\": " << Quoted(result.title)
             << ", \"bytes\": " << result.bytes << ", \"unit\": " << Quoted(result.isMemory ? "bytes" : "seconds")
             << ", \"figures\": [";
        const char* comma = "\n";
        for (const CFigures& figures : result.figures)
        {
            file << comma << "      { \"name\": " << Quoted(figures.name) << ", \"min\": " << figures.shortest
                 << ", \"median\": " << figures.median << ", \"spread\": " << figures.spread << ", \"ratio\": " << figures.ratio
                 << ", \"paired_ratio\": " << figures.pairedRatio << " }";
            comma = ",\n";
        }
        file << "\n    ] }";
        separator = ",\n";
    }
    file << "\n  ]\n}\n";
    file.flush();
    return file.good();
}

bool IsGroup(const char* name)
{
    return std::any_of(Groups().begin(), Groups().end(),
                       [name](const CRegistered& group) { return std::strcmp(group.name, name) == 0; });
}

int Run(const std::vector<const char*>& names)
{
    bool found = false;
    for (const CRegistered& group : Groups())
    {
        const bool wanted = names.empty() || std::any_of(names.begin(), names.end(), [&group](const char* name)
        { return IsGroup(name) ? std::strcmp(group.name, name) == 0 : std::strstr(group.name, name) != nullptr; });
        if (!wanted)
            continue;
        found = true;
        std::printf("== %s\n", group.name);
        g_group = group.name;
        try
        {
            group.run();
        }
        catch (const std::exception& failure)
        {
            std::fprintf(stderr, "bench: %s: %s\n", group.name, failure.what());
            return 1;
        }
    }
    if (found)
        return 0;
    std::fprintf(stderr, "bench: no group has such a name; there are:");
    for (const CRegistered& group : Groups())
        std::fprintf(stderr, " %s", group.name);
    std::fprintf(stderr, "\n");
    return 2;
}
} // namespace

CGroup::CGroup(const char* name, void (*run)())
{
    Groups().push_back({ name, run });
}

std::vector<double> Compare(const std::string& title, const std::vector<CContender>& contenders, const COptions& options)
{
    std::vector<size_t> times;
    for (const CContender& contender : contenders)
    {
        contender.run(); // warm-up: caches, first allocations, lazily built tables
        const double once = options.runs > 0 ? 0 : std::max(Seconds(contender.run, 1), 1e-9);
        times.push_back(options.runs > 0 ? options.runs
                                         : std::max<size_t>(1, static_cast<size_t>(options.minimumSeconds / once)));
    }

    std::vector<CSeries> series = SeriesOf(contenders);
    constexpr int kMinimumSamples = 5;
    const auto start = Clock::now();
    const auto isOver = [&](int taken)
    {
        return taken >= options.samples ||
               (options.maximumSeconds > 0 && taken >= kMinimumSamples &&
                std::chrono::duration<double>(Clock::now() - start).count() > options.maximumSeconds);
    };
    for (int taken = 0; !isOver(taken); ++taken)
        for (size_t i = 0; i < contenders.size(); ++i)
            series[i].samples.push_back(Seconds(contenders[i].run, times[i]));

    return Add({ .group = g_group, .title = title, .bytes = options.bytes }, series);
}

void CompareMemory(const std::string& title, const std::vector<CContender>& contenders)
{
    constexpr int kRuns = 3;
    std::vector<CSeries> series = SeriesOf(contenders);
    for (size_t i = 0; i < contenders.size(); ++i)
    {
        contenders[i].run(); // warm-up: what the process keeps
        for (int run = 0; run < kRuns; ++run)
            series[i].samples.push_back(PeakBytes(contenders[i].run));
    }
    (void)Add({ .group = g_group, .title = title, .isMemory = true }, series);
}

void Publish(const std::string& title, const std::vector<CSeries>& series, bool isMemory)
{
    (void)Add({ .group = g_group, .title = title, .isMemory = isMemory }, series);
}

CHeapUse HeapUse()
{
    std::vector<HANDLE> heaps(::GetProcessHeaps(0, nullptr) + 16);
    heaps.resize(::GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data()));
    CHeapUse use;
    for (HANDLE heap : heaps)
    {
        ::HeapLock(heap);
        for (PROCESS_HEAP_ENTRY entry{}; ::HeapWalk(heap, &entry);)
        {
            if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) == 0)
                continue;
            ++use.blocks;
            use.bytes += entry.cbData + entry.cbOverhead;
        }
        ::HeapUnlock(heap);
    }
    return use;
}
} // namespace Benchmark

// VoBenchmarks [--json FILE] [NAME]...: every group; a group of that name; or the groups whose name contains one of the names.
int main(int argc, char** argv)
{
    const char* json = nullptr;
    std::vector<const char*> names;
    for (int i = 1; i < argc; ++i)
    {
        if (std::strcmp(argv[i], "--json") != 0)
            names.push_back(argv[i]);
        else if (i + 1 < argc)
            json = argv[++i];
    }
    const int code = Benchmark::Run(names);
    if (code == 0 && json && !Benchmark::WriteJson(json))
    {
        std::fprintf(stderr, "bench: cannot write %s\n", json);
        return 1;
    }
    return code;
}
