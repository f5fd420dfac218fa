#ifndef KX_TESTS_FAKECLOCK_H
#define KX_TESTS_FAKECLOCK_H

/* A wall clock for one process that is linked with it, so that the machine's own is neither set nor relied
 * on.
 *
 * time, clock_gettime and clock_settime of CLOCK_REALTIME use it; other clocks are the machine's. It begins
 * at the epoch, runs on from what it was set to, takes whole seconds, and refuses the values that the kernel
 * refuses. Each value set is recorded in FAKE_CLOCK_RECORD, one line of seconds since the epoch each. */

#define FAKE_CLOCK_RECORD "/tmp/fakeclock"

#ifdef __cplusplus
extern "C" {
#endif

/** Puts the clock to any time, in seconds since the epoch, without a record. */
void FakeClockSet(long long seconds);

#ifdef __cplusplus
}
#endif

#endif
