// Linked into emulated test programs, where Qt's calls of syscall() end here. Qt starts a process with a
// clone that also returns a descriptor of it; the emulator refuses that, but knows each half.
#include <dlfcn.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

namespace {

using Syscall = long(long number, ...);

Syscall* Original()
{
    static auto* const original = reinterpret_cast<Syscall*>(dlsym(RTLD_NEXT, "syscall"));
    return original;
}

/// As clone: the child's process id, 0 in the child, or -1 with errno set.
pid_t ForkWithPidfd(int& pidfd)
{
    const pid_t pid = fork();
    if (pid > 0) {
        pidfd = static_cast<int>(Original()(SYS_pidfd_open, pid, 0));
    }
    return pid;
}

} // namespace

extern "C" long syscall(long number, ...)
{
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    const auto [first, second, third, fourth, fifth, sixth] = arguments;
    if (number == SYS_clone && (static_cast<unsigned long>(first) & CLONE_PIDFD) != 0) {
        return ForkWithPidfd(*reinterpret_cast<int*>(third));
    }
    return Original()(number, first, second, third, fourth, fifth, sixth);
}
