#include "server/SignalHandling.h"

#include "misc/Utils.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

namespace {

// Shared with the handler. The flag, not the byte in the pipe, carries the request to quit: a pipe that is
// full of wake-ups for ended children takes no more bytes.
volatile std::sig_atomic_t g_wakeUpFd = -1;
volatile std::sig_atomic_t g_quitRequested = 0;

sigset_t g_handledSignals = {};

void WakeUp()
{
    const char wakeUp = 0;
    // A full pipe wakes the loop just as well.
    [[maybe_unused]] const ssize_t written = write(g_wakeUpFd, &wakeUp, sizeof(wakeUp));
}

void ReapChildren()
{
    int status = 0;
    while (waitpid(-1, &status, WNOHANG) > 0) {
    }
}

sigset_t SetOf(std::initializer_list<int> signalNumbers)
{
    sigset_t set = {};
    sigemptyset(&set);
    for (const int signo : signalNumbers) {
        if (sigaddset(&set, signo) != 0) {
            syslog(LOG_ERR, "Could not add signal %d (%s)", signo, std::strerror(errno));
        }
    }
    return set;
}

void Install(int signo, const struct sigaction& action)
{
    if (sigaction(signo, &action, nullptr) != 0) {
        syslog(LOG_ERR, "Could not change signal action signal %d (%s)", signo, std::strerror(errno));
    }
}

struct sigaction ActionOf(void (*handler)(int), const sigset_t& mask, int flags)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_mask = mask;
    action.sa_flags = flags;
    return action;
}

} // namespace

SignalNotifier::SignalNotifier()
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::system_error(errno, std::generic_category(), "signal pipe");
    }
    m_readEnd.Reset(ends[0]);
    m_writeEnd.Reset(ends[1]);
    m_notifier = new QSocketNotifier(m_readEnd.Get(), QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &SignalNotifier::OnWakeUp);
    g_wakeUpFd = m_writeEnd.Get();
}

SignalNotifier::~SignalNotifier()
{
    g_wakeUpFd = -1;
}

void SignalNotifier::OnWakeUp()
{
    std::array<char, 256> bytes{};
    while (read(m_readEnd.Get(), bytes.data(), bytes.size()) > 0) {
    }
    ReapChildren();
    if (g_quitRequested != 0) {
        QCoreApplication::quit();
    }
}

SignalBlock::SignalBlock()
{
    sigset_t all = {};
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &m_previous);
}

SignalBlock::~SignalBlock()
{
    Lift();
}

void SignalBlock::Lift() const
{
    pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
}

void SignalHandlerSet(std::initializer_list<int> handled, std::initializer_list<int> ignored,
                      void (*handler)(int))
{
    g_handledSignals = SetOf(handled);
    const struct sigaction handle = ActionOf(handler, g_handledSignals, SA_RESTART);
    for (const int signo : handled) {
        Install(signo, handle);
    }
    if (std::find(handled.begin(), handled.end(), SIGCHLD) == handled.end()) {
        sigaddset(&g_handledSignals, SIGCHLD);
        Install(SIGCHLD, ActionOf(handler, g_handledSignals, SA_RESTART | SA_NOCLDSTOP));
    }
    const struct sigaction ignore = ActionOf(SIG_IGN, SetOf(ignored), SA_RESTART);
    for (const int signo : ignored) {
        Install(signo, ignore);
    }
    // The two lowest real-time signals belong to the threading library.
    const struct sigaction ignoreRealTime = ActionOf(SIG_IGN, SetOf({}), 0);
    for (int signo = SIGRTMIN + 2; signo <= SIGRTMAX; ++signo) {
        Install(signo, ignoreRealTime);
    }
}

void RestoreDefaultSignals()
{
    struct sigaction byDefault = {};
    byDefault.sa_handler = SIG_DFL;
    for (int signo = 1; signo < NSIG; ++signo) {
        if (sigismember(&g_handledSignals, signo) == 1) {
            sigaction(signo, &byDefault, nullptr);
        }
    }
}

void sigHandler(int signo)
{
    const int savedErrno = errno;
    if (signo == SIGTERM) {
        g_quitRequested = 1;
        WakeUp();
    } else if (signo == SIGCHLD && Misc::g_ignore_sigChld == 0) {
        int status = 0;
        waitpid(-1, &status, WNOHANG);
        WakeUp();
    }
    errno = savedErrno;
}
