#include "Applications.h"
#include "Benchmarks.h"
#include "Bus.h"
#include "Process.h"

namespace kxbench {
namespace {

constexpr int kBatch = 10;

/// Adds the time of each of a batch of calls.
void TimeCalls(Bus& bus, const Method& method, Samples& samples)
{
    bus.Call(method); // its caches are warm again
    for (int i = 0; i < kBatch; ++i) {
        const double begin = Now();
        bus.Call(method);
        samples.Add(Now() - begin);
    }
}

} // namespace

Section MeasureRoundTrip(const Options& options)
{
    InstallApplications(0);
    const Process daemon = StartDaemon();
    const Process qtService = StartService(kQt.program, kQt.ping);
    const Process busService = StartService(std::string(kPrograms) + "bus-service", kBusPing);
    Bus bus;

    Samples core;
    Samples qt;
    Samples plain;
    for (int i = options.Times(2000, 300); i > 0; --i) {
        TimeCalls(bus, kCheapest, core);
        TimeCalls(bus, kQt.ping, qt);
        TimeCalls(bus, kBusPing, plain);
    }
    const double ratio = Ratio(core, qt);
    return {
        "Bus round trip",
        "From the call to its answer, for the cheapest method, `IsAudiopaydEnabled`, which looks for one "
        "file. "
        "The references do the same in a method of theirs. One client, on sd-bus, calls them by turns, ten "
        "calls each.",
        {{"µs",
          {{"kxcore", core, 0},
           {"bare QtDBus service", qt, ratio},
           {"bare sd-bus service", plain, Ratio(core, plain)}}}},
        {{"at most 1.10 x bare QtDBus", ratio, 1.10,
          "the generated adaptor looks the slot up by name a second time"}}};
}

} // namespace kxbench
