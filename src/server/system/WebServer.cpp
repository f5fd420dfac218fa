#include "server/system/Server.h"

#include "misc/Log.h"
#include "misc/Utils.h"

#include <QTimer>

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>

using com::veltrasys::common::qt::qError;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";

/// Lets the reply of the call reach its caller, who may be served by the web server.
constexpr std::chrono::milliseconds kRestartDelay{500};

/// Makes \a link lead to \a target. A link that leads to no readable file is not removed and counts as
/// failure.
///
/// \throws std::runtime_error "Unlink failed: <reason>" or "Symlink failed: <reason>", logged at error level
void ReplaceLink(const char* target, const char* link)
{
    if (access(link, R_OK) == 0 && unlink(link) == -1) {
        const std::string message = std::string("Unlink failed: ") + std::strerror(errno);
        qError() << KX_PREFIX_AS(kSource, "DoLighttpdRestart") << message.c_str();
        throw std::runtime_error(message);
    }
    if (symlink(target, link) == -1) {
        const std::string message = std::string("Symlink failed: ") + std::strerror(errno);
        qError() << KX_PREFIX_AS(kSource, "DoLighttpdRestart") << message.c_str();
        throw std::runtime_error(message);
    }
}

} // namespace

int Server::DoLighttpdRestart(const QVariantMap& args)
{
    if (args.contains("newconf")) {
        const std::string protocol = args.value("newconf").toString().toStdString();
        if (protocol != "HTTP" && protocol != "HTTPS") {
            const std::string message = "Invalid protocol: " + protocol;
            qError() << KX_PREFIX(kSource) << message.c_str();
            throw std::runtime_error(message);
        }
        ReplaceLink(("/etc/lighttpd/lighttpd.conf." + protocol).c_str(), "/etc/lighttpd/lighttpd.conf");
    }
    if (args.contains("caching")) {
        const std::string caching = args.value("caching").toString().toStdString();
        if (caching != "on" && caching != "off") {
            const std::string message = "Invalid caching status: " + caching;
            qError() << KX_PREFIX(kSource) << message.c_str();
            throw std::runtime_error(message);
        }
        m_cachingDisabled = caching == "off";
        ReplaceLink(m_cachingDisabled ? "/etc/lighttpd/disable_cache.conf"
                                      : "/etc/lighttpd/enable_cache.conf",
                    "/etc/lighttpd/caching.conf");
    }
    if (args.contains("buffer-resp")) {
        const std::string buffering = args.value("buffer-resp").toString().toStdString();
        if (buffering != "on" && buffering != "off") {
            const std::string message = "Invalid buffer-resp value: " + buffering;
            qError() << KX_PREFIX(kSource) << message.c_str();
            throw std::runtime_error(message);
        }
        m_bufferRespDisabled = buffering == "off";
        ReplaceLink(m_bufferRespDisabled ? "/etc/lighttpd/buffer-resp-off.conf"
                                         : "/etc/lighttpd/buffer-resp-on.conf",
                    "/etc/lighttpd/buffer-resp.conf");
    }
    QTimer::singleShot(kRestartDelay, this, &Server::OnRestartLighttpdTimer);
    return 0;
}

void Server::OnRestartLighttpdTimer()
{
    int status = Misc::ExecShell("/etc/rc.d/init.d/lighthttpd restart");
    if (status != 0) {
        qError() << KX_PREFIX(kSource) << "/etc/rc.d/init.d/lighthttpd restart returned " << status;
        return;
    }
    if (m_cachingDisabled) {
        m_cachingDisabled = false;
        status = Misc::ExecShell("/etc/platform/35-browser restart");
        if (status != 0) {
            qError() << KX_PREFIX(kSource) << "/etc/platform/35-browser restart returned " << status;
        }
    }
}

} // namespace core::system
