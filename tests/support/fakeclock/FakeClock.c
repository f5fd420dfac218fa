#define _GNU_SOURCE
#include "FakeClock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

enum { NanosecondsPerSecond = 1000000000 };

/* What the kernel takes: some three centuries from the epoch on. */
static const long long kLastSettable = 8277292036LL;

/* The call that fills a timespec with 64 bits of seconds; 32-bit machines also have an older one. */
#ifdef SYS_clock_gettime64
static const long kClockGettime = SYS_clock_gettime64;
#else
static const long kClockGettime = SYS_clock_gettime;
#endif

/* What the clock was set to, and the machine's monotonic time in nanoseconds then. */
static long long set_to;
static long long set_at;

static int MachineClock(clockid_t clock, struct timespec* result)
{
    return (int)syscall(kClockGettime, clock, result);
}

static long long Monotonic(void)
{
    struct timespec now = {0, 0};
    MachineClock(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * NanosecondsPerSecond + now.tv_nsec;
}

static struct timespec Now(void)
{
    const long long passed = Monotonic() - set_at;
    return (struct timespec){.tv_sec = (time_t)(set_to + passed / NanosecondsPerSecond),
                             .tv_nsec = (long)(passed % NanosecondsPerSecond)};
}

static void Record(time_t seconds)
{
    const int fd = open(FAKE_CLOCK_RECORD, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0 || dprintf(fd, "%lld\n", (long long)seconds) < 0) {
        perror(FAKE_CLOCK_RECORD);
    }
    if (fd >= 0) {
        close(fd);
    }
}

void FakeClockSet(long long seconds)
{
    set_to = seconds;
    set_at = Monotonic();
}

time_t time(time_t* result)
{
    const time_t now = Now().tv_sec;
    if (result != NULL) {
        *result = now;
    }
    return now;
}

int clock_gettime(clockid_t clock, struct timespec* result)
{
    if (clock != CLOCK_REALTIME) {
        return MachineClock(clock, result);
    }
    *result = Now();
    return 0;
}

int clock_settime(clockid_t clock, const struct timespec* wanted)
{
    if (clock != CLOCK_REALTIME || wanted->tv_sec < 0 || wanted->tv_sec >= kLastSettable ||
        wanted->tv_nsec != 0) {
        errno = EINVAL;
        return -1;
    }
    FakeClockSet(wanted->tv_sec);
    Record(wanted->tv_sec);
    return 0;
}
