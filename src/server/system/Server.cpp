#include "server/system/Server.h"

#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/Server.h"
#include "server/system/CommandOutput.h"
#include "server/system/RegistryKeys.h"
#include "server/system/Report.h"

#include <Registry.h>

#include <QByteArray>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

using com::veltrasys::Registry;
using com::veltrasys::common::qt::qError;
using com::veltrasys::common::qt::qInfo;
using com::veltrasys::common::qt::qNotice;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";
constexpr auto kExitUrlVariable = "OPEN_ON_EXIT_URL";

/// The kernel starts no program when a variable of its environment, name and final zero included, is longer.
constexpr int kMaxVariableSize = 128 * 1024;
constexpr int kMaxUrlSize = kMaxVariableSize - static_cast<int>(sizeof("OPEN_ON_EXIT_URL="));

constexpr auto kPoweroffMark = "/tmp/kxcore_poweroff";

/// Any account can put a link where the mark is to be made, that leads nowhere. The mark would fail, and the
/// terminal stay on.
void RemoveForeignLink(const char* path)
{
    struct stat info = {};
    if (lstat(path, &info) == 0 && S_ISLNK(info.st_mode) && info.st_uid != 0) {
        unlink(path);
    }
}

} // namespace

const std::array<Server::Operation, 11> Server::kOperations{{
    {1, [](Server& server, const QVariantMap&, QVariantMap&) { return server.DoReboot(); }},
    {96,
     [](Server& server, const QVariantMap& args, QVariantMap&) { return server.DoConfigureUSBGadget(args); }},
    {97,
     [](Server& server, const QVariantMap& args, QVariantMap& result) {
         QString response;
         const int status = server.DoLighttpdRestart(args, response);
         result.insert(QStringLiteral("response"), response);
         return status;
     }},
    {98, [](Server& server, const QVariantMap& args, QVariantMap&) { return server.DoHwtest(args); }},
    {99, [](Server& server, const QVariantMap& args, QVariantMap&) { return server.DoLogData(args); }},
    {100, [](Server& server, const QVariantMap& args,
             QVariantMap&) { return server.DoConsoleStatusChange(args); }},
    {101, [](Server& server, const QVariantMap&, QVariantMap&) { return server.DoPoweroff(); }},
    {102, [](Server& server, const QVariantMap& args,
             QVariantMap&) { return server.DoSetL2KernelsVersion(args); }},
    {103, [](Server& server, const QVariantMap&, QVariantMap&) { return server.DoGetL2KernelsVersion(); }},
    {104,
     [](Server& server, const QVariantMap&, QVariantMap& result) {
         double voltage = 0;
         const int status = server.DoGetCoinBatteryVoltage(voltage);
         if (status == 0) {
             result.insert(QStringLiteral("voltage"), voltage);
         }
         return status;
     }},
    {105, [](Server& server, const QVariantMap&, QVariantMap&) { return server.DoKeypadReset(); }},
}};

Server::Server(core::applications::Server& appsServer, QObject* parent)
    : QObject(parent), m_appsServer(appsServer), m_registry(std::make_shared<Registry>())
{
    connect(m_registry.get(), &Registry::valueChanged, this, &Server::valueChanged);
    connect(m_registry.get(), &Registry::keyDeleted, this, &Server::keyDeleted);
    m_registry->subscribe(kSyslogKey);
    m_registry->subscribe(kHubIdKey);
    m_isMurataWifiChip = IsMurataWifiChip();
    CheckAndAlignWowlanFeatureStatus();
}

Server::~Server()
{
    m_registry->unsubscribe(kSyslogKey);
    m_registry->unsubscribe(kHubIdKey);
    m_registry->unsubscribe(kWakeOnMagicKey);
}

QVariantMap Server::SystemCall(int methodId, const QVariantMap& args)
{
    QVariantMap result;
    try {
        const auto* const operation =
            std::find_if(kOperations.begin(), kOperations.end(),
                         [&](const Operation& entry) { return entry.id == methodId; });
        int status = -1;
        if (operation != kOperations.end()) {
            status = operation->run(*this, args, result);
        } else {
            qNotice() << KX_PREFIX(kSource) << "Unexpected method Id for system call:" << methodId;
        }
        result.insert(QStringLiteral("return"), status);
    } catch (...) {
        qError() << KX_PREFIX(kSource) << "Unexpected exception";
    }
    return result;
}

int Server::DoReboot()
{
    return Misc::ExecShell("reboot");
}

int Server::DoPoweroff()
{
    RemoveForeignLink(kPoweroffMark);
    qNotice() << KX_PREFIX(kSource) << "Powering Off....";
    return Misc::ExecShell("touch /tmp/kxcore_poweroff && poweroff");
}

int Server::DoHwtest(const QVariantMap& args)
{
    const QVariant value = args.value(QStringLiteral("url"));
    const QByteArray url = value.toString().toUtf8();
    // A text that no program can be started with would make every later command of the daemon fail.
    if (value.type() == QVariant::String && url.size() <= kMaxUrlSize) {
        setenv(kExitUrlVariable, url.constData(), 1);
    } else {
        unsetenv(kExitUrlVariable);
    }
    return Misc::ExecShell("/sred/root/hwtest/hwtest -f &");
}

int Server::DoKeypadReset()
{
    return Misc::ExecShell("echo 1 > /sys/kernel/keypad/kbdreset");
}

int Server::DoConsoleStatusChange(const QVariantMap& args)
{
    const QString command = args.value(QStringLiteral("command")).toString();
    if (command != QLatin1String("enable") && command != QLatin1String("disable")) {
        return -1;
    }
    const QString line = QStringLiteral("/etc/rc.d/init.d/console %1").arg(command);
    const int status = Misc::ExecShell(line.toLatin1().constData());
    if (status != 0) {
        const char* const reason = std::strerror(errno);
        qError() << KX_PREFIX(kSource) << "Error changing console status: " << reason;
    }
    m_appsServer.Terminate();
    m_appsServer.StartApplication();
    return status;
}

int Server::DoLogData(const QVariantMap& args)
{
    const QString text = args.value(QStringLiteral("text")).toString();
    if (text.isEmpty()) {
        return -1;
    }
    qInfo() << KX_PREFIX(kSource) << Misc::Excerpt(text);
    return 0;
}

bool Exists(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0;
}

int GetType(const char* path)
{
    return NumberInLastLine((QByteArray("cat ") + path).constData());
}

} // namespace core::system
