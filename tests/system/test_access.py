"""The installed bus policy, account by account, and the interface that the daemon shows."""
import contextlib
import os
import pwd
import re

import pytest

from kx import SERVICE, Gio, GLib, PATIENCE, bus, call, calls, content, put, run, variant, wait

ACCOUNTS = ["pay", "clerk", "admin", "root"]  # from the least trusted on; each may do what those before it may
DENIED = "org.freedesktop.DBus.Error.AccessDenied"
UNKNOWN = "org.freedesktop.DBus.Error.UnknownObject"
INTROSPECTABLE, PEER = "org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Peer"
PROPERTIES = "org.freedesktop.DBus.Properties"
# Every method there is, with arguments that change nothing where that is possible:
# the first who may, object, method, arguments and their types, types of what is answered, other interface
METHODS = [
    ("clerk", "Applications", "Enumerate", "", (), "aa{sv}"),
    ("clerk", "Applications", "Start", "a{sv}", ({"application": variant("none")},), "a{sv}"),
    ("clerk", "Applications", "Terminate", "", (), ""),
    ("clerk", "Applications", "Restart", "s", ("",), ""),
    ("admin", "System", "SystemCall", "ia{sv}", (42, {}), "a{sv}"),
    ("admin", "System", "SystemCall", "ia{sv}", (1, {}), "a{sv}"),
    ("admin", "System", "SystemCall", "ia{sv}", (101, {}), "a{sv}"),
    ("admin", "Tools", "SetSystemTime", "s", ("",), "i"),
    ("admin", "Tools", "SetTimeZone", "s", ("none",), "i"),
    ("admin", "Tools", "SetTimeInfo", "sss", ("", "", "none"), "i"),
    ("admin", "Tools", "ResetTimeInfoSource", "", (), "i"),
    ("admin", "Tools", "SaveVariableValue", "ss", ("NAME", "value"), "i"),
    ("admin", "Tools", "EnableAudiopayd", "b", (True,), ""),
    ("clerk", "Tools", "IsAudiopaydEnabled", "", (), "b"),
    ("admin", "Tools", "IsAudiopaydEnabled", "", (), "b", None),
    ("admin", "Applications", "Enumerate", "", (), "aa{sv}", None),
    ("pay", "", "Introspect", "", (), "s", INTROSPECTABLE),
    ("pay", "System", "Introspect", "", (), "s", INTROSPECTABLE),
    ("admin", "nowhere", "Introspect", "", (), UNKNOWN, INTROSPECTABLE),
    ("pay", "System", "Ping", "", (), "", PEER),
    ("clerk", "System", "GetAll", "s", (SERVICE + ".System",), "a{sv}", PROPERTIES)]


def connect(account):
    """A connection to the bus under that account."""
    user = pwd.getpwnam(account)
    os.setgroups(os.getgrouplist(account, user.pw_gid)), os.seteuid(user.pw_uid)
    try:
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        address = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM)
        return Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
    finally:
        os.seteuid(0), os.setgroups([])


def outcome(connection, thing, member, signature, arguments, *interface, service=SERVICE):
    """The types of what is answered, or the name of the error."""
    to, = interface or (f"{SERVICE}.{thing}",)
    message = Gio.DBusMessage.new_method_call(service, "/" + thing, to, member)
    message.set_body(GLib.Variant(f"({signature})", arguments))
    reply, _ = connection.send_message_with_reply_sync(message, 0, int(PATIENCE * 1000), None)
    return reply.get_error_name() or reply.get_signature()


def ask_the_bus(method, arguments=None):
    return bus.call_sync("org.freedesktop.DBus", "/", "org.freedesktop.DBus", method, arguments, None, 0, -1, None)


def test_daemon_hears_the_browser():
    # In the daemon's place, since it does not tell what it hears; so this comes before the first daemon.
    name = Gio.bus_own_name_on_connection(bus, SERVICE, 0, None, None)
    heard = []
    bus.signal_subscribe(None, "com.veltrasys.browser.Server", "loadCompleted", "/", None, 0,
                         lambda *signal: heard.append(signal))
    browser = connect("guest")
    # Only to the daemon, which is refused, then to everybody: were both let through, both would be here.
    for destination in SERVICE, None:
        browser.emit_signal(destination, "/", "com.veltrasys.browser.Server", "loadCompleted",
                            GLib.Variant("(b)", (True,)))
    assert wait(lambda: heard) and len(heard) == 1
    Gio.bus_unown_name(name)


@pytest.mark.smoke
@pytest.mark.parametrize("account", ACCOUNTS)
def test_each_method(shared, account):
    connection = connect(account)
    for first, thing, member, signature, arguments, answered, *interface in METHODS:
        expected = answered if ACCOUNTS.index(account) >= ACCOUNTS.index(first) else DENIED
        seen = outcome(connection, thing, member, signature, arguments, *interface)
        assert (thing, member, arguments, seen) == (thing, member, arguments, expected)
    # By those who may: the system call, and the restart, which a member may ask for too.
    wanted = {"pay": [], "clerk": ["reboot"]}.get(account, ["poweroff", "reboot", "reboot"])
    done = []
    wait(lambda: done.extend(calls()) or len(done) >= len(wanted))
    assert sorted(done) == wanted


def test_no_way_around(shared):
    address, = ask_the_bus("GetNameOwner", GLib.Variant("(s)", (SERVICE,)))
    connection = connect("pay")
    for first, thing, member, signature, arguments, _, *interface in METHODS:
        if first != "pay":
            assert outcome(connection, thing, member, signature, arguments, *interface, service=address) == DENIED
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
    message = Gio.DBusMessage.new_method_call("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "RequestName")
    message.set_body(GLib.Variant("(su)", (SERVICE, 0)))
    assert connect(account).send_message_with_reply_sync(message, 0, -1, None)[0].get_error_name() == DENIED


def test_everybody_hears_signals(shared):
    heard = []
    listener = connect("guest")
    listener.signal_subscribe(SERVICE, None, "OnTerminate", None, None, 0, lambda *signal: heard.append(signal))
    outcome(listener, "", "Ping", "", (), PEER)  # the bus knows the rule before it answers
    call("Applications.Terminate")
    assert wait(lambda: heard)


def test_missing_groups_let_nobody_in(shared):
    groups = content("/etc/group")
    with contextlib.ExitStack() as after:
        after.callback(ask_the_bus, "ReloadConfig")
        after.callback(put, "/etc/group", groups, mode=0o644)
        put("/etc/group", groups.replace("\nkx", "\nold-kx"), mode=0o644)
        ask_the_bus("ReloadConfig")
        seen = [outcome(connect(account), *METHODS[0][1:5]) for account in ACCOUNTS]
        assert seen == [DENIED, DENIED, DENIED, "aa{sv}"]


@pytest.mark.parametrize("thing, described", [("Applications", True), ("System", True), ("Tools", False)])
def test_interface_is_the_installed_one(shared, thing, described):
    form = rf'<interface name="{SERVICE}.{thing}">.*?</interface>'
    installed = re.search(form, content(f"/usr/share/dbus-1/interfaces/{SERVICE}.{thing}.xml"), re.S)[0]
    assert re.search(form, call(thing + ".Introspect", interface=INTROSPECTABLE), re.S)[0] == installed
    assert ("<!--" in installed) == described
    if thing == "Applications":  # both spellings
        for name in "com.trolltech.QtDBus.QtTypeName", "org.qtproject.QtDBus.QtTypeName":
            for value in '.In0" value="QVariantMap"', '.Out0" value="QList&lt;QVariantMap&gt;"':
                assert name + value in installed
