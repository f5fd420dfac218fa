// What `lsmod` lists: a line of exit statuses for what is done about it, then the list.

#include "Fuzz.h"
#include "StandIns.h"

#include "server/applications/Server.h"
#include "server/system/Server.h"

namespace {

core::system::Server& TheServer()
{
    static core::applications::Server applications;
    static core::system::Server server(applications);
    return server;
}

const QVariantMap kSettings{{"mode", "serial"}, {"usbForceFullspeed", "0"}, {"dflt", "0"}, {"usbuid", "0"},
                            {"hubid", ""},      {"lteConnected", true}};

} // namespace

void TryInput(const QByteArray& input)
{
    core::system::Server& server = TheServer();
    QByteArray rest = input;
    const QByteArray statuses = TakeLine(rest);
    ResetMachine(statuses, {rest});

    const QVariantMap result = server.SystemCall(96, kSettings);
    const QByteArrayList& commands = TheMachine().commands;
    Require(commands.value(0).startsWith("lsmod"), "what is loaded is looked at first");
    Require(rest.contains("u_ether") || rest.contains("u_serial") || !commands.value(1).contains("rmmod"),
            "only what is loaded is unloaded");
    const bool allWell = statuses.count('0') == statuses.size();
    Require(!allWell || result.value("return").toInt() == 0, "what does not fail succeeds");
}
