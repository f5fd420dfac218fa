#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/Server.h"
#include "server/system/CommandOutput.h"
#include "server/system/Report.h"
#include "server/system/Server.h"
#include "server/system/SmallFile.h"

#include <QStringList>

#include <sys/stat.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <string>

using com::veltrasys::common::qt::qError;
using com::veltrasys::common::qt::qInfo;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";
constexpr auto kConfigure = "DoConfigureUSBGadget";

constexpr auto kGadgetDirectory = "/etc/platform/usb_gadget";
constexpr auto kHostDirectory = "/etc/platform/usbphy0";
constexpr auto kSerialFile = "/etc/platform/usb_gadget/serial";
constexpr auto kFullSpeedFile = "/etc/platform/usb_gadget/usb_force_fullspeed";
constexpr auto kDefaultIdsFile = "/etc/platform/usb_gadget/default_vid_pid";
constexpr auto kUniqueIdFile = "/etc/platform/usb_gadget/usb_uid";
/// Relative to the working directory, unlike the file that is written.
constexpr auto kUniqueIdFileLookedUp = "etc/platform/usb_gadget/usb_uid";

constexpr mode_t kDirectoryMode = 0775;

constexpr auto kController = "ci_hdrc_imx";
constexpr std::array<const char*, 6> usb_smodules_stop{"g_serial",  "usb_f_obex", "usb_f_serial",
                                                       "usb_f_acm", "u_serial",   kController};
constexpr std::array<const char*, 6> usb_emodules_stop{"g_ether",          "usb_f_rndis", "usb_f_ecm",
                                                       "usb_f_ecm_subset", "u_ether",     kController};
constexpr std::array<const char*, 5> usb_smodules_start{"usb_f_obex", "usb_f_serial", "usb_f_acm", "u_serial",
                                                        "g_serial"};
constexpr std::array<const char*, 5> usb_emodules_start{"usb_f_rndis", "usb_f_ecm", "usb_f_ecm_subset",
                                                        "u_ether", "g_ether"};
/// The last serial module is loaded by itself, with parameters.
constexpr size_t kSerialBatchSize = usb_smodules_start.size() - 1;

/// An argument that a caller must give, and what it may be.
struct Required {
    const char* key;
    const char* failure; ///< what stands before the rejected value
    QStringList values;
};

const std::array<Required, 4>& RequiredArguments()
{
    static const QStringList kKinds{QStringLiteral("serial"), QStringLiteral("ethernet")};
    static const QStringList kBooleans{QStringLiteral("true"), QStringLiteral("false"), QStringLiteral("0"),
                                       QStringLiteral("1")};
    static const std::array<Required, 4> kArguments{{
        {"mode", "invalid mode '", kKinds},
        {"usbForceFullspeed", "invalid  usbForceFullspeed : '", kBooleans},
        {"dflt", "invalid legacy vendor and product ids : '", kBooleans},
        {"usbuid", "invalid legacy serial number : '", kBooleans},
    }};
    return kArguments;
}

QString LowerCased(const QVariantMap& args, const char* key)
{
    return args.value(QString::fromLatin1(key)).toString().toLower();
}

bool IsTrue(const QVariantMap& args, const char* key)
{
    return args.value(QString::fromLatin1(key)).toBool();
}

bool IsSerial(const QVariantMap& args)
{
    return LowerCased(args, "mode") == QLatin1String("serial");
}

void CheckArguments(const QVariantMap& args)
{
    for (const Required& required : RequiredArguments()) {
        if (!args.contains(QString::fromLatin1(required.key))) {
            throw std::invalid_argument(std::string("'") + required.key + "' argument is missing");
        }
        const QString value = LowerCased(args, required.key);
        if (!required.values.contains(value)) {
            throw std::invalid_argument(required.failure + ExcerptOf(value) + "'");
        }
    }
}

void CreateDirectory(const char* path)
{
    if (!Exists(path) && mkdir(path, kDirectoryMode) != 0) {
        throw std::runtime_error(SystemFailure("create directory", path));
    }
}

void WriteHubId(const QString& hubId)
{
    if (hubId.isEmpty()) {
        DeleteFile(kHubIdFile);
    } else {
        WriteFile(kHubIdFile, hubId.toUtf8(), kConfigFileMode);
    }
}

std::string ControllerParameters()
{
    return std::string("otg_gadget_forced=y ") +
           (Exists(kFullSpeedFile) ? "gadget_force_full_speed=y" : "gadget_force_full_speed=n");
}

std::string SerialParameters()
{
    return std::string(Exists(kDefaultIdsFile) ? "" : "idVendor=0xABCD idProduct=0x30 ") +
           (Exists(kUniqueIdFileLookedUp) ? "gadget_uid=y" : "sernum_str=12345678");
}

std::string LoadBatchCommand(bool serial)
{
    const auto& modules = serial ? usb_smodules_start : usb_emodules_start;
    const size_t count = serial ? kSerialBatchSize : modules.size();
    std::string command = " modprobe -a ";
    for (size_t index = 0; index < count; ++index) {
        command.append(modules.at(index)).append(" ");
    }
    return command;
}

/// The message of rmmod goes to the system log, its status comes back.
std::string UnloadCommand(const char* module)
{
    return std::string("err=`rmmod ") + module + " 2>&1`; rc=$? ; logger $err ; return $rc";
}

} // namespace

int Server::DoConfigureUSBGadget(const QVariantMap& args)
{
    int result = 1;
    Attempt(kConfigure, [&] {
        qInfo() << KX_PREFIX_AS(kSource, kConfigure) << "USB configuration started";
        const bool hubIdGiven = ApplyUsbSettings(args);
        const bool restartApplications = !hubIdGiven && !IsTrue(args, "lteConnected");
        if (restartApplications) {
            qInfo() << KX_PREFIX_AS(kSource, kConfigure) << "stopping apps server";
            m_appsServer.Terminate();
        }
        qInfo() << KX_PREFIX_AS(kSource, kConfigure) << "beginning reload process of USB modules";
        const int rc = reloadGadgetUsbModules(IsSerial(args));
        qInfo() << KX_PREFIX_AS(kSource, kConfigure) << "USB modules reloaded, continuing";
        if (restartApplications) {
            qInfo() << KX_PREFIX_AS(kSource, kConfigure) << "starting apps server";
            m_appsServer.StartApplication();
        }
        if (rc != 0) {
            qError() << KX_PREFIX_AS(kSource, kConfigure) << "Couldn't reload usb gadget's modules " << rc;
            return;
        }
        qInfo() << KX_PREFIX_AS(kSource, kConfigure) << "USB configuration completed successfully";
        result = 0;
    });
    return result;
}

bool Server::ApplyUsbSettings(const QVariantMap& args)
{
    CheckArguments(args);
    const QString hubId = LowerCased(args, "hubid");
    const bool hubIdGiven = args.contains(QStringLiteral("hubid")) && hubId != QLatin1String("unchanged");

    qInfo() << KX_PREFIX_AS(kSource, kConfigure) << "creating USB config related files and directories";
    CreateDirectory(kGadgetDirectory);
    CreateDirectory(kHostDirectory);
    if (hubIdGiven) {
        WriteHubId(hubId);
    }
    SetFlagFile(IsSerial(args), kSerialFile);
    SetFlagFile(IsTrue(args, "usbForceFullspeed"), kFullSpeedFile);
    SetFlagFile(IsTrue(args, "dflt"), kDefaultIdsFile);
    SetFlagFile(IsTrue(args, "usbuid"), kUniqueIdFile);
    return hubIdGiven;
}

int Server::reloadGadgetUsbModules(bool serial)
{
    qInfo() << KX_PREFIX(kSource) << "checking active USB modules";
    const int active = checkActiveGadgetUsbModules();
    if (active != -1) {
        qInfo() << KX_PREFIX(kSource) << "stopping USB modules";
        const int stopped = stopUsbModules(active == 1);
        if (stopped != 0) {
            qInfo() << KX_PREFIX(kSource)
                    << ("stopping USB modules (ret == " + std::to_string(stopped) + ")").c_str();
            stopUsbModules(serial);
        }
    }
    qInfo() << KX_PREFIX(kSource) << "starting ci_hdrc_imx USB module";
    int rc = startModule(kController, ControllerParameters().c_str());
    if (rc != 0) {
        return rc;
    }
    const std::string command = LoadBatchCommand(serial);
    qInfo() << KX_PREFIX(kSource) << "starting other USB modules";
    rc = Misc::ExecShell(command.c_str());
    if (rc == 0 && serial) {
        const std::string parameters = SerialParameters();
        qInfo() << KX_PREFIX(kSource) << "starting g_serial USB module";
        rc = startModule("g_serial", parameters.c_str());
    }
    return rc;
}

int Server::stopUsbModules(bool serial)
{
    unsigned failures = 0;
    for (const char* module : serial ? usb_smodules_stop : usb_emodules_stop) {
        const int status = Misc::ExecShell(UnloadCommand(module).c_str());
        if (status != 0) {
            qError() << KX_PREFIX(kSource)
                     << (std::string("Failed to stop module ") + module + ". Continue.").c_str();
        }
        failures |= static_cast<unsigned>(status);
    }
    return static_cast<int>(failures);
}

int Server::startModule(const char* name, const char* params)
{
    return Misc::ExecShell((std::string("modprobe ") + name + " " + params).c_str());
}

int Server::checkActiveGadgetUsbModules()
{
    int active = -1;
    ForEachLine("lsmod | grep -e u_serial -e u_ether", [&](const char* line) {
        if (std::strstr(line, "u_ether") != nullptr) {
            active = 0;
        } else if (std::strstr(line, "u_serial") != nullptr) {
            active = 1;
        }
        return active == -1;
    });
    return active;
}

} // namespace core::system
