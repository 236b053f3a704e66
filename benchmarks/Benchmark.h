// Measures pieces of work side by side in one run, prints their times (or their memory) and ratios, and can write them to a
// JSON file.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace Benchmark
{
// Keeps the optimiser from dropping a result.
template <class T>
inline void Keep(const T& value)
{
    [[maybe_unused]] static volatile unsigned char sink;
    sink = reinterpret_cast<const volatile unsigned char&>(value);
}

// One way to do the work; `run` does it once.
struct CContender
{
    std::string name;
    std::function<void()> run;
};

struct COptions
{
    double minimumSeconds = 0.003; // of one sample: fast work is repeated until it lasts that long. Short, so that some samples
                                   // fall between the turns of other programs
    int samples = 51;              // taken in turn from all contenders, so that a slow spell of the machine hits them alike
    double bytes = 0;              // bytes that one run handles, for a throughput column; 0 for none
    size_t runs = 0;               // of one sample, whatever they last; 0: as many as the minimum takes
    double maximumSeconds = 0;     // after which no more samples are taken, once there are five; 0 for no such end
};

// Runs the contenders in turn and prints a line each: the shortest and the median time of a run, the spread (the distance of
// the quartiles, in percent of the median), the throughput at the shortest time, and two ratios to the first contender: of the
// shortest times, and the median of the ratios of samples taken side by side. Returns the medians in seconds.
std::vector<double> Compare(const std::string& title, const std::vector<CContender>& contenders, const COptions& options = {});

// Runs the contenders in turn and prints for each the greatest amount of private memory of the process above that at the start
// of the run, where Compare prints times, and its ratio to the first contender.
void CompareMemory(const std::string& title, const std::vector<CContender>& contenders);

// The samples of one figure, in seconds or bytes.
struct CSeries
{
    std::string name;
    std::vector<double> samples = {};
};

// Prints and keeps figures that were measured elsewhere. All have the same number of samples.
void Publish(const std::string& title, const std::vector<CSeries>& series, bool isMemory = false);

// What is allocated on all heaps of the process.
struct CHeapUse
{
    size_t blocks = 0;
    size_t bytes = 0; // with what the heaps add to each block
};
CHeapUse HeapUse();

// A group of comparisons, registered by each benchmark file and run by main when its name matches the command line.
struct CGroup
{
    CGroup(const char* name, void (*run)());
};
} // namespace Benchmark
