#include "ApplicationsAdaptor.h"
#include "SystemAdaptor.h"
#include "ToolsAdaptor.h"
#include "misc/Log.h"
#include "server/SignalHandling.h"
#include "server/applications/Server.h"
#include "server/dbus/ApplicationList.h"
#include "server/dbus/DbusMonitor.h"
#include "server/dbus/VectorOfPairSS.h"
#include "server/system/Server.h"
#include "server/tools/Server.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QStringList>

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

using com::veltrasys::common::qt::qError;

namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/main";

enum ExitStatus { Success = 0, NotDaemonized, NoService, NoObject, EscapedException };

void PrintUsage()
{
    std::puts("Usage: kxcore --no-daemon\n"
              "              --help\n"
              "\n"
              "options:\n"
              "--no-daemon           : disable daemonization\n"
              "--help                : show help\n"
              "\n");
}

int Fail(ExitStatus status, const char* message)
{
    qError() << KX_PREFIX_AS(kSource, "main") << message;
    return status;
}

bool RegisterObject(QDBusConnection& bus, const char* path, QObject& server)
{
    if (bus.registerObject(QString::fromLatin1(path), &server, QDBusConnection::ExportAdaptors)) {
        return true;
    }
    Fail(NoObject, (QByteArray("Can't register object ") + path).constData());
    return false;
}

/// Touches the bus for the first time. It brings a thread, which daemonizing would lose, and on which the
/// signal handlers, made for the main thread, must not run.
QDBusConnection ConnectToBus()
{
    const SignalBlock noSignalsOnThreads;
    return QDBusConnection::systemBus();
}

/// Owns the service name and serves the objects until the event loop ends.
int Serve()
{
    RegisterApplicationList();
    RegisterVectorOfPairSS();
    QDBusConnection bus = ConnectToBus();
    if (!bus.registerService(QStringLiteral("com.veltrasys.kx.core"))) {
        return Fail(NoService, "Can't register service");
    }
    core::applications::Server applicationsServer;
    new ApplicationsAdaptor(&applicationsServer);
    if (!RegisterObject(bus, "/Applications", applicationsServer)) {
        return NoObject;
    }
    core::system::Server systemServer(applicationsServer);
    new SystemAdaptor(&systemServer);
    if (!RegisterObject(bus, "/System", systemServer)) {
        return NoObject;
    }
    core::tools::Server toolsServer;
    new ToolsAdaptor(&toolsServer);
    if (!RegisterObject(bus, "/Tools", toolsServer)) {
        return NoObject;
    }
    const DBusMonitor monitor;
    return QCoreApplication::exec();
}

/// What a library, a shell or a script creates has no mode of its own. Whoever started the daemon, only root
/// is to write to that.
void TightenUmask()
{
    constexpr mode_t kNoWriting = S_IWGRP | S_IWOTH;
    const mode_t inherited = umask(kNoWriting);
    umask(inherited | kNoWriting);
}

/// The allocator would learn from one large message to keep that much memory, in each of its arenas. With a
/// fixed threshold what is large goes back to the system at once.
void ReturnLargeBlocks()
{
    constexpr int kLarge = 128 * 1024;
    mallopt(M_MMAP_THRESHOLD, kLarge);
}

int Run(int argc, char** argv)
{
    ReturnLargeBlocks();
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const QString option = arguments.value(1);
    if (option == QLatin1String("--help")) {
        PrintUsage();
        return Success;
    }
    if (option != QLatin1String("--no-daemon") && daemon(1, 0) != 0) {
        return Fail(NotDaemonized, "Cannot daemonize process");
    }
    TightenUmask();
    const SignalNotifier signalNotifier;
    SignalHandlerSet({SIGTERM, SIGINT, SIGCHLD, SIGALRM, SIGHUP},
                     {SIGUSR1, SIGUSR2, SIGPIPE, SIGIO, SIGSYS, SIGPWR}, sigHandler);
    return Serve();
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return Run(argc, argv);
    } catch (...) {
        return Fail(EscapedException, "Unexpected exception");
    }
}
