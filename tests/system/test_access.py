# The installed bus policy, account by account, and the interface that the daemon shows.
import os
import pwd
import re

import pytest

from kx import PATIENCE, SERVICE, Gio, GLib, bus, call, calls, content, put, run, variant, wait

ACCOUNTS = ["pay", "clerk", "admin", "root"]  # from the least trusted on; each may what those before it may
DENIED = "org.freedesktop.DBus.Error.AccessDenied"
UNKNOWN = "org.freedesktop.DBus.Error.UnknownObject"
BUS = "org.freedesktop.DBus"
INTROSPECTABLE, PEER = "org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Peer"
BROWSER = "com.veltrasys.browser.Server"
PROPERTIES = "org.freedesktop.DBus.Properties"
# Every method there is, with arguments that change nothing where that is possible: the first who may, types
# of what is answered, object, method, types of the arguments, arguments, interface unless it is the object's
METHODS = [
    ("clerk", "aa{sv}", "Applications", "Enumerate", "", ()),
    ("clerk", "a{sv}", "Applications", "Start", "a{sv}", ({"application": variant("none")},)),
    ("clerk", "", "Applications", "Terminate", "", ()),
    ("clerk", "", "Applications", "Restart", "s", ("",)),
    ("admin", "a{sv}", "System", "SystemCall", "ia{sv}", (42, {})),
    ("admin", "a{sv}", "System", "SystemCall", "ia{sv}", (1, {})),
    ("admin", "a{sv}", "System", "SystemCall", "ia{sv}", (101, {})),
    ("admin", "i", "Tools", "SetSystemTime", "s", ("",)),
    ("admin", "i", "Tools", "SetTimeZone", "s", ("none",)),
    ("admin", "i", "Tools", "SetTimeInfo", "sss", ("", "", "none")),
    ("admin", "i", "Tools", "ResetTimeInfoSource", "", ()),
    ("admin", "i", "Tools", "SaveVariableValue", "ss", ("NAME", "value")),
    ("admin", "", "Tools", "EnableAudiopayd", "b", (True,)),
    ("clerk", "b", "Tools", "IsAudiopaydEnabled", "", ()),
    ("admin", "b", "Tools", "IsAudiopaydEnabled", "", (), None),
    ("admin", "aa{sv}", "Applications", "Enumerate", "", (), None),
    ("pay", "s", "", "Introspect", "", (), INTROSPECTABLE),
    ("pay", "s", "System", "Introspect", "", (), INTROSPECTABLE),
    ("admin", UNKNOWN, "nowhere", "Introspect", "", (), INTROSPECTABLE),
    ("pay", "", "System", "Ping", "", (), PEER),
    ("clerk", "a{sv}", "System", "GetAll", "s", (SERVICE + ".System",), PROPERTIES)]


def connect(account):
    # A connection to the bus under that account.
    user = pwd.getpwnam(account)
    os.setgroups(os.getgrouplist(account, user.pw_gid)), os.seteuid(user.pw_uid)
    try:
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        address = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM)
        return Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
    finally:
        os.seteuid(0), os.setgroups([])


def outcome(connection, thing, member, signature, arguments, *interface, service=SERVICE):
    # The types of what is answered, or the name of the error.
    to, = interface or (f"{SERVICE}.{thing}",)
    message = Gio.DBusMessage.new_method_call(service, "/" + thing, to, member)
    message.set_body(GLib.Variant(f"({signature})", arguments))
    reply, _ = connection.send_message_with_reply_sync(message, 0, int(PATIENCE * 1000), None)
    return reply.get_error_name() or reply.get_signature()


def ask_the_bus(method, *arguments):
    return call("." + method, "s" * len(arguments), *arguments, service=BUS, interface=BUS)


def test_daemon_hears_the_browser():
    # In the daemon's place, since it does not tell what it hears; this comes before the first daemon.
    name, heard = Gio.bus_own_name_on_connection(bus, SERVICE, 0, None, None), []
    bus.signal_subscribe(None, BROWSER, "loadCompleted", "/", None, 0, lambda *signal: heard.append(signal))
    browser = connect("guest")
    assert ask_the_bus("GetNameOwner", SERVICE)  # it knows the name and the rule
    # Only to the daemon, which is refused, then to everybody: were both let through, both would be here.
    for destination in SERVICE, None:
        browser.emit_signal(destination, "/", BROWSER, "loadCompleted", GLib.Variant("(b)", (True,)))
    assert wait(lambda: heard) and len(heard) == 1
    Gio.bus_unown_name(name)


@pytest.mark.smoke
@pytest.mark.parametrize("account", ACCOUNTS)
def test_each_method(shared, account):
    connection = connect(account)
    for first, answered, *method in METHODS:
        expected = answered if ACCOUNTS.index(account) >= ACCOUNTS.index(first) else DENIED
        assert (method, outcome(connection, *method)) == (method, expected)
    # By those who may: the system call, and the restart, which a member may ask for too.
    wanted = {"pay": [], "clerk": ["reboot"]}.get(account, ["poweroff", "reboot", "reboot"])
    done = []
    wait(lambda: done.extend(calls()) or len(done) >= len(wanted))
    assert sorted(done) == wanted


def test_no_way_around(shared):
    address = ask_the_bus("GetNameOwner", SERVICE)
    connection = connect("pay")
    for first, _, *method in METHODS:
        assert first == "pay" or outcome(connection, *method, service=address) == DENIED
    disguised = "Applications", "SystemCall", "ia{sv}", (1, {})
    assert "UnknownMethod" in outcome(bus, *disguised)
    assert outcome(connect("clerk"), *disguised, SERVICE + ".System") == DENIED and calls() == []


def test_loss_of_the_bus_cannot_be_forged(shared):
    # The daemon reboots the terminal on this signal, which only its own connection can emit.
    for destination in [], [f"--dest={SERVICE}"]:
        assert run("dbus-send", "--system", *destination, "--type=signal", "/org/freedesktop/DBus/Local",
                   "org.freedesktop.DBus.Local.Disconnected", account="pay")[0] == 0
    call("Applications.Enumerate")
    assert not [line for line in shared.log() if "dbus-daemon died" in line]


@pytest.mark.parametrize("account", ACCOUNTS[:3])
def test_only_root_owns_the_name(shared, account):
    own = "", "RequestName", "su", (SERVICE, 0), BUS
    assert outcome(connect(account), *own, service=BUS) == DENIED


def test_everybody_hears_signals(shared):
    heard, listener = [], connect("guest")
    listener.signal_subscribe(SERVICE, None, "OnTerminate", None, None, 0, lambda *all: heard.append(all))
    outcome(listener, "", "Ping", "", (), PEER)  # the bus knows the rule before it answers
    call("Applications.Terminate")
    assert wait(lambda: heard)


def test_missing_groups_let_nobody_in(shared):
    groups = content("/etc/group")
    put("/etc/group", groups.replace("\nkx", "\nold-kx"), mode=0o644), ask_the_bus("ReloadConfig")
    seen = [outcome(connect(account), *METHODS[0][2:]) for account in ACCOUNTS]
    put("/etc/group", groups, mode=0o644), ask_the_bus("ReloadConfig")
    assert seen == [DENIED, DENIED, DENIED, "aa{sv}"]


@pytest.mark.parametrize("thing, described", [("Applications", True), ("System", True), ("Tools", False)])
def test_interface_is_the_installed_one(shared, thing, described):
    form = rf'<interface name="{SERVICE}.{thing}">.*?</interface>'
    installed, = re.findall(form, content(f"/usr/share/dbus-1/interfaces/{SERVICE}.{thing}.xml"), re.S)
    assert re.findall(form, call(thing + ".Introspect", interface=INTROSPECTABLE), re.S) == [installed]
    assert ("<!--" in installed) == described
    if thing == "Applications":  # both spellings
        for name in "com.trolltech.QtDBus.QtTypeName", "org.qtproject.QtDBus.QtTypeName":
            for value in '.In0" value="QVariantMap"', '.Out0" value="QList&lt;QVariantMap&gt;"':
                assert name + value in installed
