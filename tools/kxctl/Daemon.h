#pragma once

#include "ApplicationsProxy.h"
#include "Failure.h"
#include "SystemProxy.h"
#include "ToolsProxy.h"
#include "server/dbus/ApplicationList.h"

#include <QDBusError>
#include <QDBusPendingReply>

namespace kxctl {

/// \return the name that the daemon owns on the system bus
QString ServiceName();

/// \return the system bus; throws Failure with Unreachable when it is not there
QDBusConnection Bus();

/// \return what a person, and the exit status, is told of an error that the bus or the daemon replied with
Failure ToFailure(const QDBusError& error);

/// Waits for an answer of the daemon.
/// \return its value, if it carries one; throws Failure when there is no answer or an error
template<typename... Types>
QDBusPendingReply<Types...> Wait(QDBusPendingReply<Types...> reply)
{
    reply.waitForFinished();
    if (reply.isError()) {
        throw ToFailure(reply.error());
    }
    return reply;
}

/// The three objects of the daemon.
class Daemon {
public:
    /// \param timeout  how long each call may take, in milliseconds
    explicit Daemon(int timeout);

    ApplicationsProxy applications;
    SystemProxy system;
    ToolsProxy tools;
};

} // namespace kxctl
