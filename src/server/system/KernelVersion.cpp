#include "server/system/Server.h"

#include "misc/Log.h"
#include "misc/Utils.h"

#include <QRegExp>

#include <cerrno>
#include <exception>
#include <stdexcept>
#include <string>

using com::veltrasys::common::qt::qError;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";

} // namespace

int Server::DoGetL2KernelsVersion()
{
    try {
        if (Misc::ExecShell("pidof sredd") == 0) {
            return 1;
        }
        if (Misc::ExecShell("pidof sredd2") == 0) {
            return 2;
        }
        if (Misc::ExecShell("pidof sredd3") == 0) {
            return 3;
        }
        return 0;
    } catch (const std::exception& error) {
        qError() << KX_PREFIX(kSource) << error.what();
    } catch (...) {
        qError() << KX_PREFIX(kSource) << "unknown exception";
    }
    return -1;
}

int Server::DoSetL2KernelsVersion(const QVariantMap& args)
{
    try {
        const QString number = args.value("number").toString();
        // The number becomes part of a shell line, where anything but digits could start a command.
        const int version = QRegExp("[0-9]+").exactMatch(number) ? number.toInt() : 0;
        if (version <= 0 || version >= 4) {
            throw std::runtime_error("Invalid L2KernelsVersion: " + number.toStdString());
        }
        const std::string store =
            "echo " + number.toStdString() + " > /etc/platform/settings/L2KernelsVersion";
        const int status = Misc::ExecShell(store.c_str());
        if (status != 0) {
            throw std::runtime_error("Write to /etc/platform/settings/L2KernelsVersion error: " +
                                     std::to_string(errno));
        }
        if (DoGetL2KernelsVersion() != version && Misc::ExecShell("/etc/platform/34-sredd restart") != 0) {
            throw std::runtime_error("sredd restarting returns error: " + std::to_string(errno));
        }
        return status;
    } catch (const std::exception& error) {
        qError() << KX_PREFIX(kSource) << error.what();
    } catch (...) {
        qError() << KX_PREFIX(kSource) << "unknown exception";
    }
    return -1;
}

} // namespace core::system
