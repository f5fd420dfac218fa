/// The least that a service on QtDBus with libcurl can be: it owns a name, answers a call, and launches a
/// program under another identity as quickly as that can be done.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QString>

#include <curl/curl.h>
#include <grp.h>
#include <unistd.h>

#include <array>
#include <csignal>

/// libcurl is set up before main, as in the daemon.
const CURLcode g_curl = curl_global_init(CURL_GLOBAL_ALL);

class QtService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.veltrasys.bench.Qt")

public slots:
    bool Ping() { return access("/etc/platform/99-audiopayd", X_OK) == 0; }

    void Start(const QString& program, uint id)
    {
        const QByteArray path = program.toUtf8();
        std::array<char*, 2> arguments{const_cast<char*>(path.constData()), nullptr};
        const gid_t group = id;
        if (fork() == 0) {
            const bool ready = setgroups(1, &group) == 0 && setgid(id) == 0 && setuid(id) == 0;
            _exit(ready ? execv(arguments[0], arguments.data()) : 1);
        }
    }
};

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    static_cast<void>(std::signal(SIGCHLD, SIG_IGN));
    QtService service;
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.registerObject("/", &service, QDBusConnection::ExportAllSlots) ||
        !bus.registerService("com.veltrasys.bench.Qt")) {
        return 1;
    }
    return QCoreApplication::exec();
}

#include "QtService.moc"
