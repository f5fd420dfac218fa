#pragma once

#include "ApplicationsProxy.h"
#include "SystemProxy.h"
#include "ToolsProxy.h"
#include "common/CommandLine.h"
#include "server/dbus/ApplicationList.h"

#include <QDBusConnection>
#include <QDBusPendingReply>

namespace kxctl {

constexpr auto kServiceName = "com.veltrasys.kx.core";
constexpr auto kBrowserName = "com.veltrasys.browser";

/// \return the system bus; throws Failure with Unreachable when it is not there
QDBusConnection Bus();

/// \return how long --timeout lets each call take, in milliseconds; throws Failure with Misuse
int TimeoutOf(const cli::Request& request);

/// Waits for an answer, and says so on a terminal when it takes long. Throws Failure when there is none, or
/// an error.
void Await(const QDBusPendingCall& call);

/// Waits for an answer of the daemon.
/// \return its value, if it carries one
template<typename... Types>
QDBusPendingReply<Types...> Wait(const QDBusPendingReply<Types...>& reply)
{
    Await(reply);
    return reply;
}

/// The three objects of the daemon.
class Daemon {
public:
    explicit Daemon(const cli::Request& request);

    ApplicationsProxy applications;
    SystemProxy system;
    ToolsProxy tools;
};

} // namespace kxctl
