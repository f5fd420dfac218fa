#include "server/tools/Server.h"

#include "misc/Guard.h"
#include "misc/Log.h"

#include <QFile>
#include <QFileInfo>

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

using com::veltrasys::common::qt::qError;

namespace core::tools {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/tools/Server";
constexpr auto kLocalTime = "/etc/localtime";
constexpr auto kZoneRoot = "/usr/share/zoneinfo/";

/// \return the path with all links resolved; empty when it does not exist. QFileInfo would return an
///         unresolved path for links that go in circles and for names that are too long.
QString CanonicalPath(const QString& path)
{
    std::error_code error;
    const auto canonical = std::filesystem::canonical(QFile::encodeName(path).toStdString(), error);
    return QFile::decodeName(canonical.c_str());
}

} // namespace

QString Server::GetTimeZone()
{
    std::array<char, 256> target{};
    if (readlink(kLocalTime, target.data(), target.size() - 1) < 0) {
        const char* const reason = std::strerror(errno);
        qError() << KX_PREFIX(kSource) << "readlink() failed: " << reason;
        return {};
    }
    constexpr auto kZoneFolder = "/zoneinfo/";
    const char* const zone = std::strstr(target.data(), kZoneFolder);
    if (zone == nullptr) {
        qError() << KX_PREFIX(kSource) << "Unexpected time zone symlink:" << target.data();
        return {};
    }
    return QString::fromLocal8Bit(zone + std::strlen(kZoneFolder));
}

int Server::SetTimeZone(const QString& timeZone)
{
    int result = 1;
    Misc::Guarded(KX_PREFIX(kSource), [&] { result = SetTimeZone(timeZone, "MANUAL"); });
    return result;
}

int Server::SetTimeZone(const QString& timeZone, const QString& infoSource)
{
    const QFileInfo link(kLocalTime);
    const bool hasLink = link.exists() || !link.symLinkTarget().isEmpty();

    if (timeZone.isEmpty()) {
        if (hasLink) {
            QFile::remove(kLocalTime);
        }
    } else {
        const QString target = CanonicalPath(kZoneRoot + timeZone);
        if (timeZone.contains(QChar::Null) || !target.startsWith(kZoneRoot)) {
            qError() << KX_PREFIX(kSource) << "Time zone file" << timeZone << "is not located in"
                     << kZoneRoot;
            return 1;
        }
        if (hasLink && link.symLinkTarget() == target) {
            return 0;
        }
        if (hasLink && !QFile::remove(kLocalTime)) {
            qError() << KX_PREFIX(kSource) << "Unable to remove" << link.filePath();
            return 1;
        }
        if (!QFile::link(target, kLocalTime)) {
            qError() << KX_PREFIX(kSource) << "Error creating time zone symlink to" << target;
            return 1;
        }
    }

    if (!infoSource.isEmpty()) {
        AnnounceTimeInfo(timeZone, infoSource);
    }
    return 0;
}

} // namespace core::tools
