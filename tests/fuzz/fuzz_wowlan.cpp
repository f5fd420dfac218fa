// What `iw` and the kernel tell about the wireless device: a line with the wanted setting ("-" for none), a
// line of exit statuses, then the outputs of the commands, each but the last with a form feed behind it.

#include "Fuzz.h"
#include "StandIns.h"

#include "server/applications/Server.h"
#include "server/system/Server.h"

#include <Registry.h>

namespace {

core::applications::Server& TheApplications()
{
    static core::applications::Server server;
    return server;
}

/// Writes the registry only when it is to change, which takes longer than all the rest.
void PutSetting(const QByteArray& wanted)
{
    static QByteArray present;
    if (!present.isNull() && wanted == present) {
        return;
    }
    present = wanted;
    com::veltrasys::Registry registry;
    registry.setValue(QStringLiteral("network.wifi.presence"), QStringLiteral("1"));
    const QString key = QStringLiteral("%network.wifi.phy.wakeup_on_magic");
    if (wanted == "-") {
        registry.deleteKey(key);
    } else {
        registry.setValue(key, TextOf(wanted));
    }
}

} // namespace

void TryInput(const QByteArray& input)
{
    core::applications::Server& applications = TheApplications();
    QByteArray rest = input;
    PutSetting(TakeLine(rest));
    const QByteArray statuses = TakeLine(rest);
    ResetMachine(statuses, rest.split('\f'));

    const core::system::Server server(applications);
    int changes = 0;
    for (const QByteArray& command : TheMachine().commands) {
        changes += command.endsWith("disable") || command.contains(" enable ") ? 1 : 0;
    }
    Require(changes <= 2, "the device is set up once, after a module that cannot wake as wanted was reset");
}
