#include "Applications.h"
#include "Benchmarks.h"
#include "Bus.h"
#include "EnumerateFloor.h"
#include "Process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iomanip>
#include <sstream>
#include <string>
#include <system_error>

namespace kxbench {
namespace {

constexpr std::array<int, 3> kCounts{10, 100, 1000};
constexpr size_t kHundred = 1;

struct Figures {
    int applications;
    Samples core;
    Samples processor;      ///< the daemon's share of core, all its threads
    Samples floor;          ///< the same work in plain C, without a bus
    Samples answer;         ///< of a service that has the records at hand
    double allocations = 0; ///< per application
};

/// The number that the preloaded counter keeps.
class AllocationCount {
public:
    AllocationCount()
    {
        const int fd = open("/run/bench/allocations", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        void* page = MAP_FAILED;
        if (fd >= 0 && ftruncate(fd, sizeof(unsigned long)) == 0) {
            page = mmap(nullptr, sizeof(unsigned long), PROT_READ, MAP_SHARED, fd, 0);
        }
        if (fd >= 0) {
            close(fd);
        }
        if (page == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "the counter of allocations");
        }
        m_count = static_cast<const volatile unsigned long*>(page);
    }
    unsigned long Value() const { return *m_count; }

private:
    const volatile unsigned long* m_count;
};

template<typename Work>
void Time(Samples& samples, Work work)
{
    const double begin = Now();
    work();
    samples.Add((Now() - begin) / 1000);
}

/// By turns, as often as fits into a time.
void TimeAll(Figures& figures, double seconds)
{
    constexpr size_t kLeast = 5;
    const Process daemon = StartDaemon();
    const Process records = StartService(std::string(kPrograms) + "record-service", kRecords);
    Bus bus;
    bus.Call(kEnumerate);
    const double end = Now() + seconds * 1e6;
    while (Now() < end || figures.core.Count() < kLeast) {
        const double before = daemon.ProcessorTime();
        Time(figures.core, [&] { bus.Call(kEnumerate); });
        figures.processor.Add(daemon.ProcessorTime() - before);
        Time(figures.floor, [&] { RunFloor(figures.applications); });
        Time(figures.answer, [&] { bus.Call(kRecords); });
    }
}

double AllocationsOf(int applications)
{
    const AllocationCount count;
    const Process daemon = StartDaemon(std::string("LD_PRELOAD=") + kPrograms + "allocations.so");
    Bus bus;
    bus.Call(kEnumerate);
    const unsigned long before = count.Value();
    bus.Call(kEnumerate);
    return static_cast<double>(count.Value() - before) / applications;
}

/// \return by how much the processor time of one further application changes beyond 100 of them, as a factor
double ChangeOfSlope(const std::array<Figures, kCounts.size()>& all)
{
    const auto slope = [&](size_t from, size_t to) {
        return (all[to].processor.Median() - all[from].processor.Median()) /
               (all[to].applications - all[from].applications);
    };
    return slope(kHundred, kCounts.size() - 1) / slope(0, kHundred);
}

std::string Rounded(double ratio)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << ratio;
    return text.str();
}

} // namespace

Section MeasureEnumerate(const Options& options)
{
    std::array<Figures, kCounts.size()> all;
    Table times{"ms", {}};
    Table allocations{"allocations for each application", {}};
    for (size_t at = 0; at < kCounts.size(); ++at) {
        Figures& figures = all[at];
        figures.applications = kCounts[at];
        InstallApplications(figures.applications);
        TimeAll(figures, options.Times(6, 1));
        figures.allocations = AllocationsOf(figures.applications);

        const std::string name = std::to_string(figures.applications) + " applications";
        times.rows.push_back({"kxcore, " + name, figures.core, 0});
        times.rows.push_back({"its processor time, " + name, figures.processor, 0});
        times.rows.push_back({"floor, " + name, figures.floor, Ratio(figures.core, figures.floor)});
        times.rows.push_back(
            {"the answer alone, " + name, figures.answer, Ratio(figures.core, figures.answer)});
        allocations.rows.push_back({"kxcore, " + name, Samples(figures.allocations), 0});
    }
    const Figures& hundred = all[kHundred];
    return {
        "Enumerate",
        "From the call of `Enumerate` to its answer, when all links exist; the processor time of the daemon "
        "in it, which depends less on what else the machine does. The floor is a loop in plain C without a "
        "bus: it parses each app.conf with libxml2 and makes the same calls on directories and links. The "
        "answer alone is that of a bare QtDBus service that has the records at hand.",
        {times, allocations},
        {{"100 applications at most 3 x the floor", Ratio(hundred.core, hundred.floor), 3,
          "owner and mode of the web tree are set and accounts are looked up for each application; the "
          "answer "
          "alone takes " +
              Rounded(Ratio(hundred.answer, hundred.floor)) + " x the floor"},
         {"no change of slope (processor time): 100 to 1,000 applications, over 10 to 100",
          ChangeOfSlope(all), 1.15, "the C library reads the list of accounts for each home"},
         {"allocations for each application: 1,000 applications, over 100",
          all.back().allocations / hundred.allocations, 1.05, "see the table"}}};
}

} // namespace kxbench
