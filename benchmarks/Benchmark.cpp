#include "Benchmark.h"

#include <cstring>
#include <exception>

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

double Seconds(const std::function<void()>& run, size_t times)
{
    const auto start = Clock::now();
    for (size_t i = 0; i < times; ++i)
        run();
    return std::chrono::duration<double>(Clock::now() - start).count() / static_cast<double>(times);
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
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

    std::vector<std::vector<double>> samples(contenders.size());
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
            samples[i].push_back(Seconds(contenders[i].run, times[i]));

    std::printf("%s\n", title.c_str());
    std::vector<double> medians;
    for (size_t i = 0; i < contenders.size(); ++i)
    {
        std::vector<double> ratios;
        for (size_t sample = 0; sample < samples[i].size(); ++sample)
            ratios.push_back(samples[i][sample] / samples[0][sample]);
        medians.push_back(Median(samples[i]));
        std::printf("  %-44s %s", contenders[i].name.c_str(), TimeText(medians.back()).c_str());
        if (options.bytes > 0)
            std::printf("  %8.2f GB/s", options.bytes / medians.back() / 1e9);
        std::printf("  x%.3f\n", Median(ratios));
    }
    std::fflush(stdout);
    return medians;
}
} // namespace Benchmark

// Without arguments every group runs; with arguments, those whose name contains one of them.
int main(int argc, char** argv)
{
    for (const auto& group : Benchmark::Groups())
    {
        bool wanted = argc < 2;
        for (int i = 1; i < argc; ++i)
            wanted = wanted || std::strstr(group.name, argv[i]);
        if (!wanted)
            continue;
        std::printf("== %s\n", group.name);
        try
        {
            group.run();
        }
        catch (const std::exception& failure)
        {
            std::printf("%s: %s\n", group.name, failure.what());
            return 1;
        }
    }
    return 0;
}
