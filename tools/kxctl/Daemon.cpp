#include "Daemon.h"

#include <QDBusConnection>

#include <algorithm>
#include <array>

namespace kxctl {
namespace {

struct Explanation {
    QDBusError::ErrorType type;
    ExitStatus status;
    const char* text;
};

constexpr std::array<Explanation, 13> kExplanations{{
    {QDBusError::ServiceUnknown, Unreachable, "the daemon is not running"},
    {QDBusError::NoServer, Unreachable, "the system bus does not answer"},
    {QDBusError::NoNetwork, Unreachable, "the system bus does not answer"},
    {QDBusError::Disconnected, Unreachable, "the connection to the system bus was lost"},
    {QDBusError::NoReply, Unreachable, "the daemon did not answer: it is busy, or it ended meanwhile"},
    {QDBusError::Timeout, Unreachable, "the daemon did not answer in time"},
    {QDBusError::TimedOut, Unreachable, "the daemon did not answer in time"},
    {QDBusError::AccessDenied, Refused,
     "the system bus does not let this account ask for that; applications are for members of the group "
     "kxcore, everything is for root and members of kxadmin"},
    {QDBusError::UnknownObject, Refused, "the running daemon does not offer this"},
    {QDBusError::UnknownInterface, Refused, "the running daemon does not offer this"},
    {QDBusError::UnknownMethod, Refused, "the running daemon does not offer this"},
    {QDBusError::InvalidSignature, Refused, "the running daemon expects other arguments"},
    {QDBusError::InvalidArgs, Refused, "the running daemon expects other arguments"},
}};

} // namespace

QString ServiceName()
{
    return "com.veltrasys.kx.core";
}

QDBusConnection Bus()
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        throw Failure(Unreachable, "cannot reach the system bus: " + bus.lastError().message());
    }
    return bus;
}

Failure ToFailure(const QDBusError& error)
{
    const auto* known = std::find_if(kExplanations.begin(), kExplanations.end(),
                                     [&](const Explanation& entry) { return entry.type == error.type(); });
    return known != kExplanations.end() ? Failure(known->status, known->text)
                                        : Failure(Refused, error.name() + ": " + error.message());
}

Daemon::Daemon(int timeout)
    : applications(ServiceName(), "/Applications", Bus()),
      system(ServiceName(), "/System", Bus()),
      tools(ServiceName(), "/Tools", Bus())
{
    RegisterApplicationList();
    applications.setTimeout(timeout);
    system.setTimeout(timeout);
    tools.setTimeout(timeout);
}

} // namespace kxctl
