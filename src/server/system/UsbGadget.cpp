#include "server/system/Server.h"

#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/Server.h"
#include "server/system/CommandOutput.h"
#include "server/system/Files.h"

#include <QStringList>

#include <array>
#include <exception>
#include <stdexcept>
#include <string>

using com::veltrasys::common::qt::qError;
using com::veltrasys::common::qt::qInfo;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";

constexpr auto kGadgetDirectory = "/etc/platform/usb_gadget";
constexpr auto kHostDirectory = "/etc/platform/usbphy0";
constexpr auto kSerialFile = "/etc/platform/usb_gadget/serial";
constexpr auto kFullSpeedFile = "/etc/platform/usb_gadget/usb_force_fullspeed";
constexpr auto kDefaultIdsFile = "/etc/platform/usb_gadget/default_vid_pid";
constexpr auto kUniqueIdFile = "/etc/platform/usb_gadget/usb_uid";
/// Relative to the working directory, unlike the file that is written.
constexpr auto kUniqueIdFileLookedUp = "etc/platform/usb_gadget/usb_uid";

constexpr std::array<const char*, 6> usb_smodules_stop{"g_serial",  "usb_f_obex", "usb_f_serial",
                                                       "usb_f_acm", "u_serial",   "ci_hdrc_imx"};
constexpr std::array<const char*, 6> usb_emodules_stop{"g_ether",          "usb_f_rndis", "usb_f_ecm",
                                                       "usb_f_ecm_subset", "u_ether",     "ci_hdrc_imx"};
constexpr std::array<const char*, 5> usb_smodules_start{"usb_f_obex", "usb_f_serial", "usb_f_acm", "u_serial",
                                                        "g_serial"};
constexpr std::array<const char*, 5> usb_emodules_start{"usb_f_rndis", "usb_f_ecm", "usb_f_ecm_subset",
                                                        "u_ether", "g_ether"};

/// \param refusal  what stands before a rejected value in the message
/// \return the lower-cased value of an argument
/// \throws std::invalid_argument when it is missing or none of \a accepted
QString RequiredArgument(const QVariantMap& args, const char* key, const QStringList& accepted,
                         const char* refusal)
{
    if (!args.contains(key)) {
        throw std::invalid_argument(std::string("'") + key + "' argument is missing");
    }
    QString value = args.value(key).toString().toLower();
    if (!accepted.contains(value)) {
        throw std::invalid_argument(refusal + value.toStdString() + "'");
    }
    return value;
}

} // namespace

int Server::DoConfigureUSBGadget(const QVariantMap& args)
{
    try {
        qInfo() << KX_PREFIX(kSource) << "USB configuration started";

        const QStringList booleans{"true", "false", "0", "1"};
        const bool serial =
            RequiredArgument(args, "mode", {"serial", "ethernet"}, "invalid mode '") == "serial";
        RequiredArgument(args, "usbForceFullspeed", booleans, "invalid  usbForceFullspeed : '");
        RequiredArgument(args, "dflt", booleans, "invalid legacy vendor and product ids : '");
        RequiredArgument(args, "usbuid", booleans, "invalid legacy serial number : '");
        const QString hubId = args.value("hubid", "unchanged").toString().toLower();
        const bool hubIdGiven = hubId != "unchanged";

        qInfo() << KX_PREFIX(kSource) << "creating USB config related files and directories";
        CreateDirectory(kGadgetDirectory);
        CreateDirectory(kHostDirectory);

        if (hubIdGiven && hubId.isEmpty()) {
            DeleteFile(kHubIdFile);
        } else if (hubIdGiven) {
            WriteFile(kHubIdFile, hubId.toUtf8());
        }

        SetFlagFile(serial, kSerialFile);
        SetFlagFile(args.value("usbForceFullspeed").toBool(), kFullSpeedFile);
        SetFlagFile(args.value("dflt").toBool(), kDefaultIdsFile);
        SetFlagFile(args.value("usbuid").toBool(), kUniqueIdFile);

        const bool restartApplications = !hubIdGiven && !args.value("lteConnected").toBool();
        if (restartApplications) {
            qInfo() << KX_PREFIX(kSource) << "stopping apps server";
            m_appsServer.Terminate();
        }

        qInfo() << KX_PREFIX(kSource) << "beginning reload process of USB modules";
        const int rc = reloadGadgetUsbModules(serial);
        qInfo() << KX_PREFIX(kSource) << "USB modules reloaded, continuing";

        if (restartApplications) {
            qInfo() << KX_PREFIX(kSource) << "starting apps server";
            m_appsServer.StartApplication();
        }

        if (rc != 0) {
            qError() << KX_PREFIX(kSource) << "Couldn't reload usb gadget's modules " << rc;
            return 1;
        }
        qInfo() << KX_PREFIX(kSource) << "USB configuration completed successfully";
        return 0;
    } catch (const std::exception& error) {
        qError() << KX_PREFIX(kSource) << error.what();
    } catch (...) {
        qError() << KX_PREFIX(kSource) << "unknown exception";
    }
    return 1;
}

int Server::reloadGadgetUsbModules(bool serial)
{
    qInfo() << KX_PREFIX(kSource) << "checking active USB modules";
    const int active = checkActiveGadgetUsbModules();

    if (active != -1) {
        qInfo() << KX_PREFIX(kSource) << "stopping USB modules";
        const int stopped = stopUsbModules(active == 1);
        if (stopped != 0) {
            const std::string text = "stopping USB modules (ret == " + std::to_string(stopped) + ")";
            qInfo() << KX_PREFIX(kSource) << text.c_str();
            stopUsbModules(serial);
        }
    }

    std::string parameters = "otg_gadget_forced=y ";
    parameters += Exists(kFullSpeedFile) ? "gadget_force_full_speed=y" : "gadget_force_full_speed=n";
    qInfo() << KX_PREFIX(kSource) << "starting ci_hdrc_imx USB module";
    int rc = startModule("ci_hdrc_imx", parameters.c_str());
    if (rc != 0) {
        return rc;
    }

    // g_serial, the last of the serial modules, needs parameters and is loaded by itself.
    const auto& modules = serial ? usb_smodules_start : usb_emodules_start;
    const size_t count = serial ? modules.size() - 1 : modules.size();
    std::string command = " modprobe -a ";
    for (size_t index = 0; index < count; ++index) {
        command.append(modules.at(index)).append(" ");
    }
    qInfo() << KX_PREFIX(kSource) << "starting other USB modules";
    rc = Misc::ExecShell(command.c_str());

    if (rc == 0 && serial) {
        parameters = Exists(kDefaultIdsFile) ? "" : "idVendor=0xABCD idProduct=0x30 ";
        parameters += Exists(kUniqueIdFileLookedUp) ? "gadget_uid=y" : "sernum_str=12345678";
        qInfo() << KX_PREFIX(kSource) << "starting g_serial USB module";
        rc = startModule("g_serial", parameters.c_str());
    }
    return rc;
}

int Server::stopUsbModules(bool serial)
{
    unsigned failures = 0;
    for (const std::string name : serial ? usb_smodules_stop : usb_emodules_stop) {
        // logger writes the message of rmmod to the system log; the status is rmmod's.
        const std::string command = "err=`rmmod " + name + " 2>&1`; rc=$? ; logger $err ; return $rc";
        const int status = Misc::ExecShell(command.c_str());
        if (status != 0) {
            qError() << KX_PREFIX(kSource) << ("Failed to stop module " + name + ". Continue.").c_str();
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
    for (const std::string& line : OutputLines("lsmod | grep -e u_serial -e u_ether")) {
        if (line.find("u_ether") != std::string::npos) {
            return 0;
        }
        if (line.find("u_serial") != std::string::npos) {
            return 1;
        }
    }
    return -1;
}

} // namespace core::system
