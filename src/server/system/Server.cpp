#include "server/system/Server.h"

#include "misc/Guard.h"
#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/Server.h"
#include "server/system/RegistryKeys.h"
#include "server/system/SystemCallId.h"

#include <Registry.h>

#include <QByteArray>
#include <QFileInfo>

#include <unistd.h>

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

} // namespace

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
    const char* const function = __func__;
    Misc::Guarded(KX_PREFIX(kSource), [&] {
        int status = -1;
        double voltage = 0;
        switch (methodId) {
        case RebootCall:
            status = DoReboot();
            break;
        case UsbGadgetCall:
            status = DoConfigureUSBGadget(args);
            break;
        case WebServerCall:
            try {
                status = DoLighttpdRestart(args);
                result["response"] = status == 0 ? "OK" : QStringLiteral("Error '%1'").arg(status);
            } catch (const std::exception& error) {
                result["response"] = error.what();
            } catch (...) {
                result["response"] = "Unknown error";
            }
            break;
        case HardwareTestCall:
            status = DoHwtest(args);
            break;
        case LogCall:
            status = DoLogData(args);
            break;
        case ConsoleCall:
            status = DoConsoleStatusChange(args);
            break;
        case PowerOffCall:
            status = DoPoweroff();
            break;
        case SetKernelVersionCall:
            status = DoSetL2KernelsVersion(args);
            break;
        case GetKernelVersionCall:
            status = DoGetL2KernelsVersion();
            break;
        case CoinBatteryCall:
            status = DoGetCoinBatteryVoltage(voltage);
            if (status == 0) {
                result["voltage"] = voltage;
            }
            break;
        case KeypadResetCall:
            status = DoKeypadReset();
            break;
        default:
            qNotice() << KX_PREFIX_AS(kSource, function)
                      << "Unexpected method Id for system call:" << methodId;
        }
        result["return"] = status;
    });
    return result;
}

int Server::DoReboot()
{
    return Misc::ExecShell("reboot");
}

int Server::DoPoweroff()
{
    qNotice() << KX_PREFIX(kSource) << "Powering Off....";
    // Any account can plant a link that leads nowhere: touch would fail and the terminal stay on.
    if (QFileInfo("/tmp/kxcore_poweroff").isSymLink()) {
        unlink("/tmp/kxcore_poweroff");
    }
    return Misc::ExecShell("touch /tmp/kxcore_poweroff && poweroff");
}

int Server::DoHwtest(const QVariantMap& args)
{
    const QVariant url = args.value("url");
    if (url.type() == QVariant::String) {
        setenv("OPEN_ON_EXIT_URL", url.toString().toUtf8().constData(), 1);
    } else {
        unsetenv("OPEN_ON_EXIT_URL");
    }
    return Misc::ExecShell("/sred/root/hwtest/hwtest -f &");
}

int Server::DoKeypadReset()
{
    return Misc::ExecShell("echo 1 > /sys/kernel/keypad/kbdreset");
}

int Server::DoConsoleStatusChange(const QVariantMap& args)
{
    const QString command = args.value("command").toString();
    if (command != "enable" && command != "disable") {
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
    const QString text = args.value("text").toString();
    if (text.isEmpty()) {
        return -1;
    }
    qInfo() << KX_PREFIX(kSource) << text;
    return 0;
}

} // namespace core::system
