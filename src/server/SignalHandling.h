#pragma once

#include "misc/UniqueFd.h"

#include <QObject>

#include <initializer_list>

/// Brings signals into the event loop: SIGTERM quits it, also when it arrives before the loop runs, and ended
/// children that the handler could not reap, because their signals merged, are reaped between calls.
///
/// One instance, created on the main thread before SignalHandlerSet; it must outlive the event loop.
class SignalNotifier : public QObject {
    Q_OBJECT

public:
    /// \throws std::system_error when there is no descriptor for it
    SignalNotifier();
    ~SignalNotifier() override;

private:
    void OnWakeUp();

    UniqueFd m_wakeUp; ///< an eventfd that sigHandler writes to
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

/// The daemon's handler: SIGTERM asks the event loop to quit, SIGCHLD reaps one child unless a shell command
/// is being waited for, every other signal is ignored. Keeps errno.
void sigHandler(int signo);
