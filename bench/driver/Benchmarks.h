#pragma once

#include "Report.h"

namespace kxbench {

struct Options {
    bool quick = false;

    /// \return how often to measure
    int Times(int full, int quickly) const { return quick ? quickly : full; }
};

// Each measures one section of the report, and throws when it cannot.
Section MeasureRoundTrip(const Options& options);
Section MeasureLaunch(const Options& options);
Section MeasureEnumerate(const Options& options);
Section MeasureStartUp(const Options& options);
Section MeasureMemory(const Options& options);
Section MeasureIdle(const Options& options);
Section MeasureTermination(const Options& options);

} // namespace kxbench
