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
#include <fstream>
#include <system_error>

namespace kxbench {
namespace {

constexpr std::array<int, 7> kCounts{1, 10, 30, 100, 200, 500, 1000};
constexpr size_t kHundred = 3;

struct Figures {
    int applications;
    Samples core;
    Samples processor; ///< the daemon's share of core, all its threads
    Samples look;
    Samples publish;
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
    Bus bus;
    bus.Call(kEnumerate);
    const double end = Now() + seconds * 1e6;
    while (Now() < end || figures.core.Count() < kLeast) {
        const double before = daemon.ProcessorTime();
        Time(figures.core, [&] { bus.Call(kEnumerate); });
        figures.processor.Add(daemon.ProcessorTime() - before);
        Time(figures.look, [&] { RunFloor(figures.applications, Floor::ParseAndLook); });
        Time(figures.publish, [&] { RunFloor(figures.applications, Floor::Publish); });
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

void WritePlotData(const std::array<Figures, kCounts.size()>& all, const std::string& folder)
{
    std::ofstream file(folder + "/enumerate.dat");
    for (const Figures& figures : all) {
        file << figures.applications;
        for (const Samples* samples : {&figures.core, &figures.publish, &figures.look}) {
            file << ' ' << samples->Median() << ' ' << samples->Percentile(0.1) << ' '
                 << samples->Percentile(0.9);
        }
        file << '\n';
    }
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

        const std::string name = std::to_string(figures.applications) +
                                 (figures.applications == 1 ? " application" : " applications");
        times.rows.push_back({"kxcore, " + name, figures.core, 0});
        times.rows.push_back({"its processor time, " + name, figures.processor, 0});
        times.rows.push_back({"floor, " + name, figures.look, Ratio(figures.core, figures.look)});
        times.rows.push_back(
            {"floor with publishing, " + name, figures.publish, Ratio(figures.core, figures.publish)});
        allocations.rows.push_back({"kxcore, " + name, Samples(figures.allocations), 0});
    }
    WritePlotData(all, options.results);
    const double ratio = Ratio(all[kHundred].core, all[kHundred].look);
    return {
        "Enumerate",
        "From the call of `Enumerate` to its answer, when all links exist; the processor time of the daemon "
        "in it, which depends less on what else the machine does. The floor is a loop in plain C "
        "without "
        "a bus: it parses each app.conf with pugixml and makes the same calls on links and for the state of "
        "files. The floor with publishing also does what every enumeration has to do for each application: "
        "look "
        "up both names of the account, and set owner and mode of five directories.",
        {times, allocations},
        {{"100 applications at most 3 x the floor", ratio, 3,
          "the floor leaves out looking up accounts, publishing and the answer; against the floor with "
          "publishing see the table"},
         {"no change of slope (processor time): 100 to 1,000 applications, over 1 to 100", ChangeOfSlope(all),
          1.15,
          "the C library reads the list of accounts from its beginning for each of them, up to 1,000 lines "
          "twice"},
         {"allocations for each application: 1,000 applications, over 100",
          all.back().allocations / all[kHundred].allocations, 1.05, "see the table"}},
        "enumerate.svg"};
}

} // namespace kxbench
