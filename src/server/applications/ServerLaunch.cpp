#include "server/applications/Server.h"

#include "misc/Log.h"

#include <QFileInfo>

#include <algorithm>

using com::veltrasys::common::qt::qError;
using core::configuration::ApplicationConfig;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/Server";

} // namespace

QVariantMap Server::StartApplicationBinary(const QString& application, const QString& binary,
                                           const QString& params)
{
    QVariantMap result{{"errorCode", -1}};
    const auto fail = [&result](const QString& prefix, const QString& text) {
        result.insert("errorText", text);
        qError() << prefix << text;
        return result;
    };

    const auto installed =
        std::find_if(m_applications.begin(), m_applications.end(),
                     [&](const ApplicationConfig& config) { return config.m_name == application; });
    if (installed == m_applications.end()) {
        return fail(KX_PREFIX(kSource), QStringLiteral("Application %1 doesn't exist").arg(application));
    }
    const QString binDir = QFileInfo(installed->m_homeDir + "/bin").canonicalFilePath();
    if (binDir.isEmpty()) {
        return fail(KX_PREFIX(kSource),
                    QStringLiteral("Binary directory %1/bin doesn't exist").arg(installed->m_homeDir));
    }
    const QFileInfo file(binDir + "/" + binary);
    const QString canonical = file.canonicalFilePath();
    if (canonical.isEmpty()) {
        return fail(
            KX_PREFIX(kSource),
            QStringLiteral("Binary file %1 for app %2 doesn't exist").arg(file.filePath(), application));
    }
    if (!canonical.startsWith(binDir)) {
        return fail(KX_PREFIX(kSource),
                    QStringLiteral("Binary file %1 isn't located in bin dir").arg(file.path()));
    }
    if (!file.permission(QFile::ExeOwner)) {
        return fail(KX_PREFIX(kSource), QStringLiteral("Binary file %1 is not executable").arg(file.path()));
    }
    const QString commandLine = canonical + " " + params;
    ApplicationConfig config(*installed);
    if (IsValidAppID(file.ownerId(), file.groupId())) {
        config.m_uid = file.ownerId();
        config.m_gid = file.groupId();
    } else if (!IsValidAppID(config.m_uid, config.m_gid)) {
        return fail(KX_PREFIX(kSource),
                    QStringLiteral("Invalid owner of file %1. Must be application user").arg(file.path()));
    }
    config.m_fastCgi = false; // only the program started at boot serves the application's socket
    if (!m_processManager.StartProcess(commandLine, config)) {
        return fail(KX_PREFIX(kSource), QStringLiteral("Failed to start %1 binary").arg(commandLine));
    }
    result.insert("errorCode", 0);
    return result;
}

} // namespace core::applications
