#include "server/tools/Server.h"

#include "misc/Guard.h"
#include "misc/Log.h"

#include <Registry.h>

#include <QStringList>
#include <QVariant>

using com::veltrasys::common::qt::qError;

namespace core::tools {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/tools/Server";
constexpr auto kSourceKey = "%platform.timeInfoSource";

/// Highest precedence first.
const QStringList& Sources()
{
    static const QStringList sources{"HOST", "MANUAL", "HUB", "UNKNOWN"};
    return sources;
}

} // namespace

int Server::SetTimeInfo(const QString& utcTime, const QString& timeZone, const QString& infoSource)
{
    const char* const function = __func__;
    int result = 1;
    Misc::Guarded(KX_PREFIX(kSource), [&] {
        const bool isReset = timeZone.isEmpty() && infoSource.isEmpty();
        const QString source = isReset ? "UNKNOWN" : infoSource;
        if (!Sources().contains(source)) {
            qError() << KX_PREFIX_AS(kSource, function)
                     << QStringLiteral("Invalid infoSource '%1', allowed values: %2")
                            .arg(source, Sources().join(", "));
            return;
        }
        const QString current = m_registry->getValue(kSourceKey).toString();
        if (Sources().contains(current) && Sources().indexOf(source) > Sources().indexOf(current)) {
            qError() << KX_PREFIX_AS(kSource, function)
                     << QStringLiteral("Unable to set time info: '%1' cannot overwrite time set by '%2'")
                            .arg(source, current);
            return;
        }
        if (!utcTime.isEmpty()) {
            SetTimeZone("", ""); // the clock is set in UTC
            if (SetSystemTime(utcTime, "") != 0) {
                qError() << KX_PREFIX_AS(kSource, function)
                         << QStringLiteral("Unable to set utcTime '%1'").arg(utcTime);
                return;
            }
        }
        if (SetTimeZone(timeZone, "") != 0) {
            qError() << KX_PREFIX_AS(kSource, function)
                     << QStringLiteral("Unable to set timeZone '%1'").arg(timeZone);
            return;
        }
        AnnounceTimeInfo(timeZone, source);
        result = 0;
    });
    return result;
}

int Server::ResetTimeInfoSource()
{
    Misc::Guarded(KX_PREFIX(kSource), [&] { m_registry->setValue(kSourceKey, "UNKNOWN"); });
    return 0;
}

void Server::AnnounceTimeInfo(const QString& timeZone, const QString& infoSource)
{
    m_registry->setValue(kSourceKey, infoSource);
    emit TimeInfoChanged(GetUTCTime(), timeZone, infoSource);
}

} // namespace core::tools
