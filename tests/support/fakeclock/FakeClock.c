#define _GNU_SOURCE
#include "FakeClock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
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

static struct timespec shift;

__attribute__((constructor)) static void LeaveEnvironment(void)
{
    unsetenv("LD_PRELOAD");
}

static struct timespec Sum(struct timespec a, struct timespec b)
{
    a.tv_sec += b.tv_sec;
    a.tv_nsec += b.tv_nsec;
    if (a.tv_nsec >= NanosecondsPerSecond) {
        ++a.tv_sec;
        a.tv_nsec -= NanosecondsPerSecond;
    }
    return a;
}

static struct timespec Negative(struct timespec a)
{
    a.tv_sec = -a.tv_sec;
    if (a.tv_nsec > 0) {
        --a.tv_sec;
        a.tv_nsec = NanosecondsPerSecond - a.tv_nsec;
    }
    return a;
}

static int MachineClock(clockid_t clock, struct timespec* result)
{
    return (int)syscall(kClockGettime, clock, result);
}

static struct timespec MachineTime(void)
{
    struct timespec now = {0, 0};
    MachineClock(CLOCK_REALTIME, &now);
    return now;
}

static struct timespec Now(void)
{
    return Sum(MachineTime(), shift);
}

static void SetTo(struct timespec wanted)
{
    shift = Sum(wanted, Negative(MachineTime()));
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
    SetTo((struct timespec){.tv_sec = (time_t)seconds});
}

time_t time(time_t* result)
{
    const time_t now = Now().tv_sec;
    if (result != NULL) {
        *result = now;
    }
    return now;
}

int gettimeofday(struct timeval* restrict result, void* restrict zone)
{
    (void)zone;
    const struct timespec now = Now();
    result->tv_sec = now.tv_sec;
    result->tv_usec = now.tv_nsec / 1000;
    return 0;
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
        wanted->tv_nsec < 0 || wanted->tv_nsec >= NanosecondsPerSecond) {
        errno = EINVAL;
        return -1;
    }
    SetTo(*wanted);
    Record(wanted->tv_sec);
    return 0;
}
