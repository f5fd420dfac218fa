#include "server/SignalHandling.h"

#include "misc/Utils.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <sys/eventfd.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

namespace {

// Shared with the handler.
volatile std::sig_atomic_t g_wakeUpFd = -1;
volatile std::sig_atomic_t g_quitRequested = 0;

void AddToMask(sigset_t& mask, int signo)
{
    if (sigaddset(&mask, signo) != 0) {
        syslog(LOG_ERR, "Could not add signal %d (%s)", signo, std::strerror(errno));
    }
}

void Install(int signo, const struct sigaction& action)
{
    if (sigaction(signo, &action, nullptr) != 0) {
        syslog(LOG_ERR, "Could not change signal action signal %d (%s)", signo, std::strerror(errno));
    }
}

void WakeUpEventLoop()
{
    const eventfd_t one = 1;
    [[maybe_unused]] const ssize_t written = write(g_wakeUpFd, &one, sizeof(one));
}

} // namespace

SignalNotifier::SignalNotifier() : m_wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!m_wakeUp) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    auto* const notifier = new QSocketNotifier(m_wakeUp.Get(), QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &SignalNotifier::OnWakeUp);
    g_wakeUpFd = m_wakeUp.Get();
}

SignalNotifier::~SignalNotifier()
{
    g_wakeUpFd = -1;
}

void SignalNotifier::OnWakeUp()
{
    eventfd_t count = 0;
    eventfd_read(m_wakeUp.Get(), &count);
    int status = 0;
    while (waitpid(-1, &status, WNOHANG) > 0) {
    }
    if (g_quitRequested != 0) {
        QCoreApplication::quit();
    }
}

void SignalHandlerSet(std::initializer_list<int> handled, std::initializer_list<int> ignored,
                      void (*handler)(int))
{
    struct sigaction act = {};
    act.sa_handler = handler;
    act.sa_flags = SA_RESTART;
    sigemptyset(&act.sa_mask);
    for (const int signo : handled) {
        AddToMask(act.sa_mask, signo);
    }
    for (const int signo : handled) {
        Install(signo, act);
    }
    if (std::find(handled.begin(), handled.end(), SIGCHLD) == handled.end()) {
        AddToMask(act.sa_mask, SIGCHLD);
        act.sa_flags = SA_RESTART | SA_NOCLDSTOP;
        Install(SIGCHLD, act);
    }

    act.sa_handler = SIG_IGN;
    act.sa_flags = SA_RESTART;
    sigemptyset(&act.sa_mask);
    for (const int signo : ignored) {
        AddToMask(act.sa_mask, signo);
    }
    for (const int signo : ignored) {
        Install(signo, act);
    }

    // The two lowest real-time signals belong to the threading library.
    act.sa_flags = 0;
    for (int signo = SIGRTMIN + 2; signo <= SIGRTMAX; ++signo) {
        Install(signo, act);
    }
}

void sigHandler(int signo)
{
    const int savedErrno = errno;
    if (signo == SIGTERM) {
        g_quitRequested = 1;
        WakeUpEventLoop();
    } else if (signo == SIGCHLD && Misc::g_ignore_sigChld == 0) {
        int status = 0;
        waitpid(-1, &status, WNOHANG);
        WakeUpEventLoop();
    }
    errno = savedErrno;
}
