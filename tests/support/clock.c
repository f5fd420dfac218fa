/* Preloaded into the daemon: a wall clock that is so many seconds ahead of the machine's as /tmp/clock says
 * (eight bytes), and that is set, as far as the kernel would let it, by changing that. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

/* The call that fills a timespec with 64 bits of seconds; 32-bit machines also have an older one. */
#ifndef SYS_clock_gettime64
#define SYS_clock_gettime64 SYS_clock_gettime
#endif

static int64_t* ahead;

__attribute__((constructor)) static void start(void)
{
    const int fd = open("/tmp/clock", O_RDWR | O_CLOEXEC);
    void* file = mmap(NULL, sizeof *ahead, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ahead = file == MAP_FAILED ? NULL : file;
    close(fd);
}

int clock_gettime(clockid_t clock, struct timespec* now)
{
    const int result = (int)syscall(SYS_clock_gettime64, clock, now);
    if (clock == CLOCK_REALTIME && ahead != NULL) {
        now->tv_sec += (time_t)*ahead;
    }
    return result;
}

time_t time(time_t* result)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return result != NULL ? *result = now.tv_sec : now.tv_sec;
}

int clock_settime(clockid_t clock, const struct timespec* wanted)
{
    if (clock != CLOCK_REALTIME || ahead == NULL || wanted->tv_sec < 0 || wanted->tv_sec > 8277292036) {
        errno = EINVAL;
        return -1;
    }
    *ahead += wanted->tv_sec - time(NULL);
    return 0;
}
