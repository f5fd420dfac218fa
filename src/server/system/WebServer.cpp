#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/system/Report.h"
#include "server/system/Server.h"

#include <QTimer>

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

using com::veltrasys::common::qt::qError;

namespace core::system {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/system/Server";

/// Lets the reply of the call reach its caller, who may be served by the web server.
constexpr std::chrono::milliseconds kRestartDelay{500};

[[noreturn]] void Fail(const std::string& message)
{
    LogError("DoLighttpdRestart", message);
    throw std::runtime_error(message);
}

/// Replaces a link as far as it leads to a readable file; a dangling one is in the way and counts as failure.
void ReplaceResolvingLink(const char* target, const char* link)
{
    if (access(link, R_OK) == 0 && unlink(link) == -1) {
        Fail(std::string("Unlink failed: ") + std::strerror(errno));
    }
    if (symlink(target, link) == -1) {
        Fail(std::string("Symlink failed: ") + std::strerror(errno));
    }
}

/// \return 0 or the status, which is logged
int RunAndLog(const char* command)
{
    const int status = Misc::ExecShell(command);
    if (status != 0) {
        qError() << KX_PREFIX_AS(kSource, "OnRestartLighttpdTimer")
                 << QByteArray(command).append(" returned ").constData() << status;
    }
    return status;
}

} // namespace

/// A link in the web server's configuration and the two files that a caller can choose between.
struct Server::LinkChoice {
    struct Value {
        const char* name;
        const char* target;
    };
    const char* key;
    const char* failure;
    const char* link;
    Value first;
    Value second;
    bool Server::*secondChosen; ///< remembers the choice; may be null
};

const std::array<Server::LinkChoice, 3> Server::kLinkChoices{{
    {"newconf",
     "Invalid protocol: ",
     "/etc/lighttpd/lighttpd.conf",
     {"HTTP", "/etc/lighttpd/lighttpd.conf.HTTP"},
     {"HTTPS", "/etc/lighttpd/lighttpd.conf.HTTPS"},
     nullptr},
    {"caching",
     "Invalid caching status: ",
     "/etc/lighttpd/caching.conf",
     {"on", "/etc/lighttpd/enable_cache.conf"},
     {"off", "/etc/lighttpd/disable_cache.conf"},
     &Server::m_cachingDisabled},
    {"buffer-resp",
     "Invalid buffer-resp value: ",
     "/etc/lighttpd/buffer-resp.conf",
     {"on", "/etc/lighttpd/buffer-resp-on.conf"},
     {"off", "/etc/lighttpd/buffer-resp-off.conf"},
     &Server::m_bufferRespDisabled},
}};

int Server::DoLighttpdRestart(const QVariantMap& args)
{
    for (const LinkChoice& choice : kLinkChoices) {
        const auto argument = args.constFind(QString::fromLatin1(choice.key));
        if (argument == args.constEnd()) {
            continue;
        }
        const QString value = argument->toString();
        const bool second = value == QLatin1String(choice.second.name);
        if (!second && value != QLatin1String(choice.first.name)) {
            Fail(choice.failure + ExcerptOf(value));
        }
        if (choice.secondChosen != nullptr) {
            this->*choice.secondChosen = second;
        }
        ReplaceResolvingLink(second ? choice.second.target : choice.first.target, choice.link);
    }
    QTimer::singleShot(kRestartDelay, this, &Server::OnRestartLighttpdTimer);
    return 0;
}

int Server::DoLighttpdRestart(const QVariantMap& args, QString& response)
{
    try {
        const int status = DoLighttpdRestart(args);
        response = status == 0 ? QStringLiteral("OK") : QStringLiteral("Error '%1'").arg(status);
        return status;
    } catch (const std::exception& error) {
        response = QString::fromUtf8(error.what());
    } catch (...) {
        response = QStringLiteral("Unknown error");
    }
    return -1;
}

void Server::OnRestartLighttpdTimer()
{
    if (RunAndLog("/etc/rc.d/init.d/lighthttpd restart") != 0) {
        return;
    }
    if (m_cachingDisabled) {
        m_cachingDisabled = false;
        RunAndLog("/etc/platform/35-browser restart");
    }
}

} // namespace core::system
