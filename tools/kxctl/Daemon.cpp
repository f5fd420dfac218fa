#include "Daemon.h"

#include "common/Output.h"

#include <QDBusPendingCallWatcher>
#include <QEventLoop>
#include <QTimer>

#include <unistd.h>

#include <algorithm>
#include <array>

namespace kxctl {
namespace {

using cli::ExitStatus;
using cli::Failure;

constexpr int kDefaultTimeout = 30;
constexpr int kLongestTimeout = 24 * 60 * 60;
constexpr int kMilliseconds = 1000;
constexpr int kQuietTime = 2000; ///< milliseconds of waiting before a person is told

struct Explanation {
    QDBusError::ErrorType type;
    ExitStatus status;
    const char* text;
};

constexpr auto kNoAnswer =
    "the daemon did not answer in time: it is busy, or it ended meanwhile; --timeout waits longer";
constexpr auto kOtherMethod = "the running daemon does not offer this";
constexpr auto kOtherArguments = "the running daemon expects other arguments";

constexpr std::array<Explanation, 13> kExplanations{{
    {QDBusError::ServiceUnknown, cli::Unreachable, "the daemon is not running"},
    {QDBusError::NoServer, cli::Unreachable, "the system bus does not answer"},
    {QDBusError::NoNetwork, cli::Unreachable, "the system bus does not answer"},
    {QDBusError::Disconnected, cli::Unreachable, "the connection to the system bus was lost"},
    {QDBusError::NoReply, cli::Unreachable, kNoAnswer},
    {QDBusError::Timeout, cli::Unreachable, kNoAnswer},
    {QDBusError::TimedOut, cli::Unreachable, kNoAnswer},
    {QDBusError::AccessDenied, cli::Refused,
     "the system bus does not let this account ask for that; applications are for members of the group "
     "kxcore, everything is for root and members of kxadmin"},
    {QDBusError::UnknownObject, cli::Refused, kOtherMethod},
    {QDBusError::UnknownInterface, cli::Refused, kOtherMethod},
    {QDBusError::UnknownMethod, cli::Refused, kOtherMethod},
    {QDBusError::InvalidSignature, cli::Refused, kOtherArguments},
    {QDBusError::InvalidArgs, cli::Refused, kOtherArguments},
}};

Failure ToFailure(const QDBusError& error)
{
    const auto* known = std::find_if(kExplanations.begin(), kExplanations.end(),
                                     [&](const Explanation& entry) { return entry.type == error.type(); });
    return known != kExplanations.end() ? Failure(known->status, known->text)
                                        : Failure(cli::Refused, error.name() + ": " + error.message());
}

} // namespace

QDBusConnection Bus()
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        throw Failure(cli::Unreachable, "cannot reach the system bus: " + bus.lastError().message());
    }
    return bus;
}

int TimeoutOf(const cli::Request& request)
{
    if (!request.IsSet("timeout")) {
        return kDefaultTimeout * kMilliseconds;
    }
    const QString text = request.Value("timeout");
    bool isNumber = false;
    const int seconds = text.toInt(&isNumber);
    if (!isNumber || seconds < 1 || seconds > kLongestTimeout) {
        throw Failure(cli::Misuse, QStringLiteral("--timeout: '%1' is no number of seconds").arg(text));
    }
    return seconds * kMilliseconds;
}

void Await(const QDBusPendingCall& call)
{
    const QDBusPendingCallWatcher watcher(call);
    QEventLoop loop;
    QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(kQuietTime, &loop, [] {
        if (isatty(STDERR_FILENO) != 0) {
            cli::Complain("waiting for the daemon…");
        }
    });
    if (!watcher.isFinished()) {
        loop.exec();
    }
    if (call.isError()) {
        throw ToFailure(call.error());
    }
}

Daemon::Daemon(const cli::Request& request)
    : applications(kServiceName, "/Applications", Bus()),
      system(kServiceName, "/System", Bus()),
      tools(kServiceName, "/Tools", Bus())
{
    RegisterApplicationList();
    const int timeout = TimeoutOf(request);
    applications.setTimeout(timeout);
    system.setTimeout(timeout);
    tools.setTimeout(timeout);
}

} // namespace kxctl
