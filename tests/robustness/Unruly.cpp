// A program of an application that does not behave: unruly BEHAVIOUR [SECONDS]. It and each process that it
// forks leave a byte in the file "ready" of its directory once they misbehave, and live for so many seconds.
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int kChildren = 50;
constexpr int kDescriptors = 500;
constexpr unsigned kLongLife = 1000;

/// Appends a byte, which no other process can come between.
void Leave(const char* file)
{
    const char* directory = std::getenv("APP_TMP_DIR");
    const std::string path = std::string(directory != nullptr ? directory : "/tmp") + '/' + file;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0 || write(fd, "x", 1) != 1) {
        _exit(1);
    }
    close(fd);
}

void IgnoreSignals()
{
    for (int signo = 1; signo < NSIG; ++signo) {
        std::signal(signo, SIG_IGN);
    }
}

void ForkChildren()
{
    for (int child = 0; child < kChildren && fork() != 0; ++child) {
    }
}

void ForkStubbornChildren()
{
    IgnoreSignals();
    ForkChildren();
}

/// The children are nobody's and in sessions of their own.
void ForkOrphans()
{
    for (int child = 0; child < kChildren; ++child) {
        if (fork() == 0) {
            setsid();
            if (fork() != 0) {
                _exit(0);
            }
            return;
        }
    }
}

void CloseDescriptors()
{
    for (int fd = 0; fd < kDescriptors; ++fd) {
        close(fd);
    }
}

void KeepDescriptors()
{
    for (int count = 0; count < kDescriptors; ++count) {
        // Left open on purpose, in whatever the program executes as well.
        if (open("/dev/null", O_RDONLY) < 0) { // NOLINT(android-cloexec-open)
            return;
        }
    }
}

void HideFromDumps()
{
    prctl(PR_SET_DUMPABLE, 0);
}

/// The child sees to it that the program is ready before it stands still.
void StopItself()
{
    if (fork() != 0) {
        std::raise(SIGSTOP);
    }
}

void Nothing() {}

void BequeathOnTermination()
{
    std::signal(SIGTERM, [](int) {
        if (fork() != 0) {
            _exit(0);
        }
    });
}

struct Behaviour {
    const char* name;
    void (*begin)();
};

constexpr Behaviour kBehaviours[] = {
    {"fork", ForkChildren},
    {"stubborn", ForkStubbornChildren},
    {"orphans", ForkOrphans},
    {"ignore", IgnoreSignals},
    {"close", CloseDescriptors},
    {"keep", KeepDescriptors},
    {"hide", HideFromDumps},
    {"stop", StopItself},
    {"bequeath", BequeathOnTermination},
    {"group", Nothing}, // by the mode of its file
};

/// A signal that is handled does not end the wait.
void Live(unsigned seconds)
{
    while (seconds > 0) {
        seconds = sleep(seconds);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const char* name = argc > 1 ? argv[1] : "";
    if (std::strcmp(name, "tally") == 0) {
        Leave("tally");
        return 0;
    }
    for (const Behaviour& behaviour : kBehaviours) {
        if (std::strcmp(name, behaviour.name) == 0) {
            behaviour.begin();
            Leave("ready");
            Live(argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : kLongLife);
            return 0;
        }
    }
    return 1;
}
