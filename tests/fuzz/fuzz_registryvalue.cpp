// Values of the registry as anyone may have written them: a line with the key, a line with the value, a line
// of exit statuses, then what `iw dev` prints.

#include "Fuzz.h"
#include "StandIns.h"

#include "server/applications/Server.h"
#include "server/system/Server.h"

#include <QCoreApplication>
#include <QRegularExpression>

namespace {

core::system::Server& TheServer()
{
    static core::applications::Server applications;
    static core::system::Server server(applications);
    return server;
}

/// A script of the system reads this file as shell text.
void RequirePlainSyslogOptions()
{
    static const QRegularExpression plain(
        "\\A(?:SYSLOGD_OPTIONS=\"(?: -L -R [0-9.]{7,15}:[0-9]+)?\"\\n)?\\z");
    const QString options = QString::fromUtf8(FileContent("/etc/sysconfig/syslog"));
    Require(plain.match(options).hasMatch(), "syslog's options hold an address and a port");
}

} // namespace

void TryInput(const QByteArray& input)
{
    core::system::Server& server = TheServer();
    QByteArray rest = input;
    const QString key = TextOf(TakeLine(rest));
    const QString value = TextOf(TakeLine(rest));
    const QByteArray statuses = TakeLine(rest);
    ResetMachine(statuses, {rest});

    QMetaObject::invokeMethod(&server, "valueChanged", Q_ARG(QString, key), Q_ARG(QString, value));
    RequirePlainSyslogOptions();
    QMetaObject::invokeMethod(&server, "keyDeleted", Q_ARG(QString, key));
    RequirePlainSyslogOptions();
    QCoreApplication::processEvents();
}
