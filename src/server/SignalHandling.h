#pragma once

#include "misc/UniqueFd.h"

#include <QObject>

#include <csignal>
#include <initializer_list>

class QSocketNotifier;

/// Brings signals into the event loop: SIGTERM quits it, also when it arrives before the loop runs, and ended
/// children that the handler could not reap, because their signals merged, are reaped between calls.
///
/// One instance, created on the main thread before SignalHandlerSet; it must outlive the event loop.
class SignalNotifier : public QObject {
    Q_OBJECT

public:
    /// \throws std::system_error when no pipe can be made
    SignalNotifier();
    ~SignalNotifier() override;

private:
    void OnWakeUp();

    UniqueFd m_readEnd;
    UniqueFd m_writeEnd;
    QSocketNotifier* m_notifier = nullptr;
};

/// Holds all signals of the calling thread back while it lives: for a forked child that sets the daemon's
/// handlers aside before one of them runs in it, and for threads of libraries, which inherit the mask and so
/// leave the signals to the main thread.
class SignalBlock {
public:
    SignalBlock();
    ~SignalBlock();
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

    /// Brings back the signals that were not blocked before. Async-signal-safe.
    void Lift() const;

private:
    sigset_t m_previous = {};
};

/// Installs the signal dispositions of the daemon.
///
/// \param handled  signals that \a handler gets, none of them while it handles another; system calls they
///                 interrupt are restarted. SIGCHLD is added if it is missing.
/// \param ignored  signals to ignore, besides the real-time signals from SIGRTMIN + 2 on
///
/// A failure is written to syslog at LOG_ERR and does not stop the rest.
void SignalHandlerSet(std::initializer_list<int> handled, std::initializer_list<int> ignored,
                      void (*handler)(int));

/// Sets the handled signals back to their default action. Async-signal-safe: a forked child calls it, so that
/// the handler never runs outside the daemon.
void RestoreDefaultSignals();

/// The daemon's handler: SIGTERM asks the event loop to quit, SIGCHLD reaps one child unless a shell command
/// is being waited for, every other signal is ignored. Keeps errno.
void sigHandler(int signo);
