#include "FailingCall.h"

#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace {

struct Failure {
    const char* name = "";
    int error = 0;
    int skip = 0;
};

Failure g_failure;

bool Fails(const char* name)
{
    if (std::strcmp(name, g_failure.name) != 0 || g_failure.skip-- > 0) {
        return false;
    }
    if (g_failure.error == FailingCall::kThrow) {
        throw std::bad_alloc();
    }
    errno = g_failure.error;
    return true;
}

} // namespace

FailingCall::FailingCall(const char* name, int error, int skip)
{
    g_failure = {name, error, skip};
}

FailingCall::~FailingCall()
{
    g_failure = {};
}

// The linker's names for a call (__wrap_) and for the function itself (__real_).
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,bugprone-macro-parentheses)
#define KX_FAILING(result, failed, name, parameters, arguments)                                              \
    extern "C" result __real_##name parameters;                                                              \
    extern "C" result __wrap_##name parameters                                                               \
    {                                                                                                        \
        return Fails(#name) ? failed : __real_##name arguments;                                              \
    }

KX_FAILING(int, -1, close, (int fd), (fd))
KX_FAILING(int, -1, fchmod, (int fd, mode_t mode), (fd, mode))
KX_FAILING(int, -1, fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group))
KX_FAILING(int, -1, fcntl, (int fd, int command, long argument), (fd, command, argument))
KX_FAILING(pid_t, -1, fork, (), ())
KX_FAILING(int, -1, getgrouplist, (const char* user, gid_t group, gid_t* groups, int* count),
           (user, group, groups, count))
KX_FAILING(struct passwd*, nullptr, getpwuid, (uid_t uid), (uid))
KX_FAILING(int, -1, pipe, (int* ends), (ends))
KX_FAILING(int, -1, pipe2, (int* ends, int flags), (ends, flags))
KX_FAILING(int, 0, poll, (struct pollfd * entries, nfds_t count, int timeout), (entries, count, timeout))
KX_FAILING(int, -1, prctl, (int option, long a, long b, long c, long d), (option, a, b, c, d))
KX_FAILING(ssize_t, -1, read, (int fd, void* buffer, size_t size), (fd, buffer, size))
KX_FAILING(int, -1, setegid, (gid_t gid), (gid))
KX_FAILING(int, -1, seteuid, (uid_t uid), (uid))
KX_FAILING(int, -1, setgid, (gid_t gid), (gid))
KX_FAILING(int, -1, setgroups, (size_t size, const gid_t* groups), (size, groups))
KX_FAILING(int, -1, setpgid, (pid_t pid, pid_t group), (pid, group))
KX_FAILING(int, -1, setuid, (uid_t uid), (uid))
KX_FAILING(char*, nullptr, strdup, (const char* text), (text))
KX_FAILING(int, -1, system, (const char* command), (command))

extern "C" ssize_t __real_write(int fd, const void* buffer, size_t size);
extern "C" ssize_t __wrap_write(int fd, const void* buffer, size_t size)
{
    if (!Fails("write")) {
        return __real_write(fd, buffer, size);
    }
    return g_failure.error == FailingCall::kHalfDone ? __real_write(fd, buffer, size / 2) : -1;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,bugprone-macro-parentheses)
