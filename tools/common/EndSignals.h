#pragma once

#include "misc/UniqueFd.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <sys/signalfd.h>

#include <csignal>

namespace cli {

/// Ends the event loop at SIGINT or SIGTERM. Must be made before the bus starts a thread, which then blocks
/// them too.
class EndSignals {
public:
    EndSignals() : m_descriptor(Descriptor()), m_notifier(m_descriptor.Get(), QSocketNotifier::Read)
    {
        QObject::connect(&m_notifier, &QSocketNotifier::activated, [] { QCoreApplication::quit(); });
    }

private:
    static int Descriptor()
    {
        sigset_t ends = {};
        sigemptyset(&ends);
        sigaddset(&ends, SIGINT);
        sigaddset(&ends, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &ends, nullptr);
        return signalfd(-1, &ends, SFD_CLOEXEC);
    }

    UniqueFd m_descriptor;
    QSocketNotifier m_notifier;
};

} // namespace cli
