/// Measures the daemon from outside, in the private root, and prints a report.
#include "Benchmarks.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>

namespace {

using kxbench::Options;
using kxbench::Section;

struct Benchmark {
    const char* name;
    Section (*measure)(const Options&);
};

constexpr std::array<Benchmark, 7> kBenchmarks{{
    {"round-trip", kxbench::MeasureRoundTrip},
    {"launch", kxbench::MeasureLaunch},
    {"enumerate", kxbench::MeasureEnumerate},
    {"start-up", kxbench::MeasureStartUp},
    {"memory", kxbench::MeasureMemory},
    {"idle", kxbench::MeasureIdle},
    {"termination", kxbench::MeasureTermination},
}};

/// \return whether it could be measured
bool Run(const Benchmark& benchmark, const Options& options)
{
    try {
        Print(benchmark.measure(options));
        return true;
    } catch (const std::exception& failure) {
        std::printf("## %s\n\nCould not be measured: %s\n\n", benchmark.name, failure.what());
        std::cerr << "bench: " << benchmark.name << " could not be measured: " << failure.what() << std::endl;
        return false;
    }
}

} // namespace

/// driver [--quick] [NAME]
int main(int argc, char** argv)
{
    if (access("/run/kx-private-root", F_OK) != 0) {
        std::cerr << "This is for scripts/bench, in the private root." << std::endl;
        return 2;
    }
    std::filesystem::create_directories("/run/bench");
    Options options;
    const char* only = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) {
            options.quick = true;
        } else {
            only = argv[i];
        }
    }
    int measured = 0;
    int failed = 0;
    for (const Benchmark& benchmark : kBenchmarks) {
        if (only == nullptr || std::strcmp(only, benchmark.name) == 0) {
            ++measured;
            failed += Run(benchmark, options) ? 0 : 1;
        }
    }
    return measured > 0 && failed == 0 ? 0 : 1;
}
