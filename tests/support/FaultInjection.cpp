// Preloaded into the daemon: makes one library call fail, or interrupts it, as the environment variable
// KX_FAULT says. The values are
//
//     daemon              daemon() fails
//     registerObject:PATH the object at PATH cannot be registered
//     registerService     the service name cannot be registered
//     throw               registering the service name throws
//     terminate           SIGTERM arrives while the service name is registered
#include <QDBusConnection>
#include <QString>

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

namespace {

bool IsAskedFor(const QByteArray& fault)
{
    return qgetenv("KX_FAULT") == fault;
}

template<typename Function>
Function* Original(const char* symbol)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

} // namespace

extern "C" int daemon(int nochdir, int noclose) noexcept
{
    if (IsAskedFor("daemon")) {
        errno = EAGAIN;
        return -1;
    }
    return Original<int(int, int)>("daemon")(nochdir, noclose);
}

bool QDBusConnection::registerService(const QString& serviceName)
{
    if (IsAskedFor("registerService")) {
        return false;
    }
    if (IsAskedFor("throw")) {
        throw std::runtime_error("asked for");
    }
    if (IsAskedFor("terminate")) {
        raise(SIGTERM);
    }
    return Original<bool(QDBusConnection*, const QString&)>(
        "_ZN15QDBusConnection15registerServiceERK7QString")(this, serviceName);
}

bool QDBusConnection::registerObject(const QString& path, QObject* object, RegisterOptions options)
{
    if (IsAskedFor("registerObject:" + path.toUtf8())) {
        return false;
    }
    return Original<bool(QDBusConnection*, const QString&, QObject*, RegisterOptions)>(
        "_ZN15QDBusConnection14registerObjectERK7QStringP7QObject6QFlagsINS_14RegisterOptionEE")(
        this, path, object, options);
}
