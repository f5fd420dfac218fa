/* Preloaded into the daemon: a wall clock that is so many seconds ahead of the machine's as /tmp/clock says
 * (eight bytes), and that is set, as far as the kernel would let it, by changing that. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

static int64_t none;
static int64_t* ahead = &none;

__attribute__((constructor)) static void start(void)
{
    const int fd = open("/tmp/clock", O_RDWR | O_CLOEXEC);
    void* file = mmap(NULL, sizeof *ahead, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ahead = file == MAP_FAILED ? &none : file;
    close(fd);
}

time_t time(time_t* result)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += (time_t)*ahead;
    return result != NULL ? *result = now.tv_sec : now.tv_sec;
}

int clock_settime(clockid_t clock, const struct timespec* wanted)
{
    if (clock != CLOCK_REALTIME || wanted->tv_sec < 0 || wanted->tv_sec > 8277292036) {
        errno = EINVAL;
        return -1;
    }
    *ahead += wanted->tv_sec - time(NULL);
    return 0;
}
