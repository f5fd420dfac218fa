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

#include <QCoreApplication>
#include <QDBusConnection>
#include <QStringList>

#include <malloc.h>
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

/// The first use of the bus starts a thread of QtDBus, which a later fork would lose. The thread inherits the
/// signal mask: with all signals blocked, the handler runs on the main thread only.
QDBusConnection ConnectToBus()
{
    sigset_t all = {};
    sigset_t previous = {};
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    QDBusConnection bus = QDBusConnection::systemBus();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return bus;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        // With a fixed threshold the memory of large messages goes back to the system.
        mallopt(M_MMAP_THRESHOLD, 128 * 1024);
        const QCoreApplication application(argc, argv);
        const QStringList arguments = QCoreApplication::arguments();
        const QString option = arguments.value(1);
        if (option == "--help") {
            PrintUsage();
            return Success;
        }
        if (option != "--no-daemon" && daemon(1, 0) != 0) {
            qError() << KX_PREFIX(kSource) << "Cannot daemonize process";
            return NotDaemonized;
        }
        const SignalNotifier signalNotifier;
        SignalHandlerSet({SIGTERM, SIGINT, SIGCHLD, SIGALRM, SIGHUP},
                         {SIGUSR1, SIGUSR2, SIGPIPE, SIGIO, SIGSYS, SIGPWR}, sigHandler);

        RegisterApplicationList();
        RegisterVectorOfPairSS();
        QDBusConnection bus = ConnectToBus();
        if (!bus.registerService("com.veltrasys.kx.core")) {
            qError() << KX_PREFIX(kSource) << "Can't register service";
            return NoService;
        }
        core::applications::Server applicationsServer;
        new ApplicationsAdaptor(&applicationsServer);
        if (!bus.registerObject("/Applications", &applicationsServer, QDBusConnection::ExportAdaptors)) {
            qError() << KX_PREFIX(kSource) << "Can't register object /Applications";
            return NoObject;
        }
        core::system::Server systemServer(applicationsServer);
        new SystemAdaptor(&systemServer);
        if (!bus.registerObject("/System", &systemServer, QDBusConnection::ExportAdaptors)) {
            qError() << KX_PREFIX(kSource) << "Can't register object /System";
            return NoObject;
        }
        core::tools::Server toolsServer(nullptr);
        new ToolsAdaptor(&toolsServer);
        if (!bus.registerObject("/Tools", &toolsServer, QDBusConnection::ExportAdaptors)) {
            qError() << KX_PREFIX(kSource) << "Can't register object /Tools";
            return NoObject;
        }
        const DBusMonitor monitor;
        return QCoreApplication::exec();
    } catch (...) {
        qError() << KX_PREFIX(kSource) << "Unexpected exception";
        return EscapedException;
    }
}
