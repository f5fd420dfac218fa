// Names of time zones as callers write them.

#include "Fuzz.h"

#include "server/tools/Server.h"

#include <QFileInfo>

namespace {

core::tools::Server& TheServer()
{
    static core::tools::Server server;
    return server;
}

QString ZoneLink()
{
    return QFileInfo(QStringLiteral("/etc/localtime")).symLinkTarget();
}

} // namespace

void TryInput(const QByteArray& input)
{
    const QString zone = TextOf(input);
    const QString before = ZoneLink();
    const int result = TheServer().SetTimeZone(zone, QString());
    const QString after = ZoneLink();
    Require(result == 0 || result == 1, "a result is one of those documented");
    Require(result == 0 || after == before, "a failure changes nothing");
    Require(after.isEmpty() == zone.isEmpty() || result == 1, "only no zone removes the link");
    Require(after.isEmpty() || QFileInfo(after).canonicalFilePath().startsWith("/usr/share/zoneinfo/"),
            "the link leads to a zone");
    core::tools::Server::GetTimeZone();
}
